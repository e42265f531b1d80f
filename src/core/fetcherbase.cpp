#include <algorithm>
#include <climits>
#include <new>
#include <vector>

#include "core/clock.h"
#include "core/fetcher.h"
#include "core/log.h"

namespace {
constexpr int kResultStopMeasuring = 4;
constexpr long long kMaxMeasureSeconds = 60;
constexpr long long kMeasureSpanSeconds = 10;
// After a failed part the next try waits, doubling up to the cap: a camera that refuses
// every request is asked a score of times in the minute, not thousands.
constexpr long long kFirstRetryPauseUs = 250000;
constexpr long long kMaxRetryPauseUs = 4000000;

long long WallSeconds() {
    return camfetch::WallNowUs() / 1000000;
}
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
    const long long start = WallSeconds();
    std::vector<unsigned char> buffer;
    long long retryPauseUs = kFirstRetryPauseUs;

    for (;;) {
        unsigned int partSize = 0;
        int partType = 0;
        int rc = NextPartInfo(partSize, nullptr, 0, partType);
        if (rc == kResultStopMeasuring)
            break;
        if (rc == 0) {
            total += static_cast<int>(partSize);
            try {
                buffer.resize(partSize);
            } catch (const std::bad_alloc&) {
                CF_LOG(LOG_CATEG_CORE, LOG_LEVEL_ERROR,
                       "No memory for a part of %u bytes, bandwidth not measured.\n", partSize);
                return 0;
            }
            rc = FetchContent(buffer.data(), partSize);
        }
        if (rc != 0) {
            // The time of failed parts counts too, so that a fetcher that can only fail
            // (credentials refused, camera unreachable) ends within the minute.
            camfetch::SleepUs(retryPauseUs);
            retryPauseUs = std::min(retryPauseUs * 2, kMaxRetryPauseUs);
            elapsed = WallSeconds() - start;
            if (elapsed > kMaxMeasureSeconds)
                break;
            continue;
        }
        retryPauseUs = kFirstRetryPauseUs;
        elapsed = WallSeconds() - start;
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
