#include <exception>

#include "core/fetcher.h"
#include "core/log.h"
#include "http/mpegfilefetch.h"
#include "http/multipartfetch.h"
#include "mobile/mobilefetch.h"
#include "rtsp/rtspfetch.h"

namespace {
// uFlags bit that keeps the multipart fetcher from setting its client flag.
constexpr uint32_t kFlagNoMultipartClientFlag = 4;

FetcherBase* Create(int type, const FETCH_PARAM& param) {
    switch (type) {
        case 1:
            return new RtspFetch(param);
        case 2:
            return new MpegFileFetch(param.strHost, param.iPort, param.strPath, param.strUser,
                                     param.strPassword, param.iTimeout, param.iStreamMode);
        case 3:
        case 4:
            // The strings are borrowed for the constructor, which copies them.
            return new MultipartFetch(param.strHost.c_str(), param.iPort, param.strPath.c_str(),
                                      param.strUser.c_str(), param.strPassword.c_str(),
                                      param.iTimeout, param.iStreamMode,
                                      !(param.uFlags & kFlagNoMultipartClientFlag));
        case 6:
            return new MobileFetch(param);
        default:
            return nullptr;
    }
}
}  // namespace

FetcherBase* FetcherFactory(int type, const FETCH_PARAM& param) {
    // A constructor that cannot have its memory (the receive buffers are megabytes) fails
    // as a failed new does; the host gets no fetcher and a log line, never the exception.
    try {
        return Create(type, param);
    } catch (const std::exception& e) {
        CF_LOG(LOG_CATEG_CORE, LOG_LEVEL_ERROR, "Failed to create a fetcher of type %d: %s\n", type,
               e.what());
        return nullptr;
    }
}

void ReleaseFetcher(FetcherBase*& fetcher) {
    delete fetcher;
    fetcher = nullptr;
}
