#include "core/fetcher.h"
#include "http/mpegfilefetch.h"

FetcherBase* FetcherFactory(int type, const FETCH_PARAM& param) {
    switch (type) {
        case 2:
            return new MpegFileFetch(param.strHost, param.iPort, param.strPath, param.strUser,
                                     param.strPassword, param.iTimeout, param.iStreamMode);
        default:
            return nullptr;
    }
}

void ReleaseFetcher(FetcherBase*& fetcher) {
    delete fetcher;
    fetcher = nullptr;
}
