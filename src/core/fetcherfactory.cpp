#include <new>

#include "core/fetcher.h"
#include "http/mpegfilefetch.h"
#include "http/multipartfetch.h"
#include "mobile/mobilefetch.h"
#include "rtsp/rtspfetch.h"

namespace {
// uFlags bit that keeps the multipart fetcher from setting its client flag.
constexpr uint32_t kFlagNoMultipartClientFlag = 4;
}  // namespace

FetcherBase* FetcherFactory(int type, const FETCH_PARAM& param) {
    switch (type) {
        case 1:
            return new (std::nothrow) RtspFetch(param);
        case 2:
            return new (std::nothrow)
                MpegFileFetch(param.strHost, param.iPort, param.strPath, param.strUser,
                              param.strPassword, param.iTimeout, param.iStreamMode);
        case 3:
        case 4:
            // The strings are borrowed for the constructor, which copies them.
            return new (std::nothrow)
                MultipartFetch(param.strHost.c_str(), param.iPort, param.strPath.c_str(),
                               param.strUser.c_str(), param.strPassword.c_str(), param.iTimeout,
                               param.iStreamMode, !(param.uFlags & kFlagNoMultipartClientFlag));
        case 6:
            return new (std::nothrow) MobileFetch(param);
        default:
            return nullptr;
    }
}

void ReleaseFetcher(FetcherBase*& fetcher) {
    delete fetcher;
    fetcher = nullptr;
}
