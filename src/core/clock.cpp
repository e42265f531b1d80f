#include "core/clock.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cerrno>

namespace camfetch {
namespace {
std::atomic<ClockSource*> g_clock{nullptr};

void RealSleep(long long us) {
    timespec left{static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
}  // namespace

void ClockSource::SleepMicros(long long us) {
    RealSleep(us);
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

void SleepUs(long long us) {
    if (us <= 0)
        return;
    if (ClockSource* c = g_clock.load(std::memory_order_relaxed)) {
        c->SleepMicros(us);
        return;
    }
    RealSleep(us);
}

}  // namespace camfetch
