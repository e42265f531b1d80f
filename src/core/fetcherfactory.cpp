#include "core/fetcher.h"
#include "mobile/mobilefetch.h"

FetcherBase* FetcherFactory(int type, const FETCH_PARAM& param) {
    switch (type) {
        case 6:
            return new MobileFetch(param);
        default:
            return nullptr;
    }
}

void ReleaseFetcher(FetcherBase*& fetcher) {
    delete fetcher;
    fetcher = nullptr;
}
