#include <pthread.h>

#include "core/hostapi.h"

bool CreateThread(void* (*func)(void*), void* arg, int stackSize, bool detached,
                  pthread_t& threadId) {
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
