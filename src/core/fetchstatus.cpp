#include "core/fetchstatus.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "core/fetcher.h"

namespace {
// A caller must know at least the fields up to the reason code to learn anything.
constexpr uint32_t kSmallestRecord = offsetof(FETCH_STATUS, szReason);
}  // namespace

int GetFetchStatus(FetcherBase* fetcher, FETCH_STATUS* status) {
    auto* source = dynamic_cast<FetchStatusSource*>(fetcher);
    if (!source || !status || status->uSize < kSmallestRecord)
        return -1;
    FETCH_STATUS full;
    source->FillFetchStatus(full);
    full.szReason[sizeof full.szReason - 1] = 0;
    // A caller built against an older, shorter record gets its part of it.
    const uint32_t size = std::min<uint32_t>(status->uSize, sizeof full);
    full.uSize = size;
    memcpy(status, &full, size);
    return 0;
}
