// Wall and monotonic clocks in microseconds, behind a seam so that tests can drive time.
#pragma once

namespace camfetch {

struct ClockSource {
    virtual ~ClockSource() = default;
    virtual long long WallMicros() = 0;  // time of day: s * 1000000 + us
    virtual long long MonoMicros() = 0;  // monotonic clock: s * 1000000 + ns / 1000
    // Waits us microseconds; a scripted clock moves on instead.
    virtual void SleepMicros(long long us);
};

// Installs a clock for the whole process (null = the real clocks); returns the previous one.
ClockSource* SetClockSource(ClockSource* source);

long long WallNowUs();
long long MonoNowUs();
// Waits us microseconds on the installed clock.
void SleepUs(long long us);

}  // namespace camfetch
