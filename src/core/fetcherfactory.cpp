#include "core/fetcher.h"
#include "rtsp/rtspfetch.h"

namespace {
constexpr int kFetcherRtsp = 1;
}  // namespace

FetcherBase* FetcherFactory(int type, const FETCH_PARAM& param) {
    switch (type) {
        case kFetcherRtsp:
            return new RtspFetch(param);
        default:
            return nullptr;
    }
}

void ReleaseFetcher(FetcherBase*& fetcher) {
    delete fetcher;
    fetcher = nullptr;
}
