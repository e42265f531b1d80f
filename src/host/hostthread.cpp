#include "host/hostthread.h"

#include <pthread.h>

#include <atomic>

#include "core/hostapi.h"

namespace {
std::atomic<int> g_failCreates{0};
}

namespace camfetch_host {
void ThreadFailNextCreates(int count) {
    g_failCreates.store(count);
}
}  // namespace camfetch_host

bool CreateThread(void* (*func)(void*), void* arg, int stackSize, bool detached,
                  pthread_t& threadId) {
    for (int n = g_failCreates.load(); n > 0;)
        if (g_failCreates.compare_exchange_weak(n, n - 1))
            return false;
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        return false;
    if (stackSize > 0)
        pthread_attr_setstacksize(&attr, static_cast<size_t>(stackSize));
    pthread_attr_setdetachstate(&attr,
                                detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    int rc = pthread_create(&threadId, &attr, func, arg);
    pthread_attr_destroy(&attr);
    return rc == 0;
}
