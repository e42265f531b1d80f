#include "core/fetcher.h"

FetcherBase* FetcherFactory(int type, const FETCH_PARAM& param) {
    (void)param;
    switch (type) {
        default:
            return nullptr;
    }
}

void ReleaseFetcher(FetcherBase*& fetcher) {
    delete fetcher;
    fetcher = nullptr;
}
