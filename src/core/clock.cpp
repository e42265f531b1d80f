#include "core/clock.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>

namespace camfetch {
namespace {
std::atomic<ClockSource*> g_clock{nullptr};
}

ClockSource* SetClockSource(ClockSource* source) {
    return g_clock.exchange(source);
}

long long WallNowUs() {
    if (ClockSource* c = g_clock.load(std::memory_order_relaxed))
        return c->WallMicros();
    timeval tv;
    gettimeofday(&tv, nullptr);
    return tv.tv_sec * 1000000LL + tv.tv_usec;
}

long long MonoNowUs() {
    if (ClockSource* c = g_clock.load(std::memory_order_relaxed))
        return c->MonoMicros();
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

}  // namespace camfetch
