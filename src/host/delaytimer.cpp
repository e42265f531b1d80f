#include <errno.h>
#include <time.h>

#include "core/hostapi.h"

namespace {
long long MonotonicUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

void SleepUntil(long long deadlineUs) {
    timespec ts;
    ts.tv_sec = deadlineUs / 1000000;
    ts.tv_nsec = (deadlineUs % 1000000) * 1000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}
}  // namespace

DelayTimer::DelayTimer(int period) : m_llPeriod(period > 0 ? period : 0), m_llDeadline(0) {}

void DelayTimer::BeginTiming() {
    m_llDeadline = MonotonicUs() + m_llPeriod;
}

void DelayTimer::Delay() {
    long long now = MonotonicUs();
    if (m_llDeadline == 0)
        m_llDeadline = now + m_llPeriod;
    if (now < m_llDeadline) {
        SleepUntil(m_llDeadline);
        m_llDeadline += m_llPeriod;
    } else if (now - m_llDeadline < m_llPeriod) {
        m_llDeadline += m_llPeriod;
    } else {
        // Fell behind by more than a period: start counting afresh rather than bursting.
        m_llDeadline = now + m_llPeriod;
    }
}
