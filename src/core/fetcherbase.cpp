#include <climits>
#include <vector>

#include "core/clock.h"
#include "core/fetcher.h"

namespace {
constexpr int kResultStopMeasuring = 4;
constexpr long long kMaxMeasureSeconds = 60;
constexpr long long kMeasureSpanSeconds = 10;
}  // namespace

int FetcherBase::NextPartInfo(unsigned int&, char*, unsigned int, int&) {
    return FETCH_CONN_CLOSED;
}

int FetcherBase::FetchContent(unsigned char*, unsigned int) {
    return FETCH_CONN_CLOSED;
}

int FetcherBase::GetBandwidth() {
    int total = 0;
    long long firstSec = INT_MAX;  // not yet set
    long long elapsed = 0;
    const long long start = camfetch::WallNowUs() / 1000000;
    std::vector<unsigned char> buffer;

    for (;;) {
        unsigned int partSize = 0;
        int partType = 0;
        int rc = NextPartInfo(partSize, nullptr, 0, partType);
        if (rc == kResultStopMeasuring)
            break;
        if (rc != 0) {
            if (elapsed > kMaxMeasureSeconds)
                break;
            continue;
        }
        total += static_cast<int>(partSize);
        buffer.resize(partSize);
        if (FetchContent(buffer.data(), partSize) != 0) {
            if (elapsed > kMaxMeasureSeconds)
                break;
            continue;
        }
        elapsed = camfetch::WallNowUs() / 1000000 - start;
        if (total != 0 && firstSec == INT_MAX) {
            // Bytes fetched before the first second is taken still count, so the figure
            // leans slightly high; kept for the callers that compare against it.
            firstSec = elapsed;
            if (elapsed <= kMaxMeasureSeconds)
                continue;
            break;
        }
        if (elapsed - firstSec > kMeasureSpanSeconds)
            break;
        if (elapsed > kMaxMeasureSeconds)
            break;
    }
    if (firstSec == INT_MAX || firstSec == elapsed)
        return 0;
    return static_cast<int>(total / (elapsed - firstSec));
}
