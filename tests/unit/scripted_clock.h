// A clock the test moves by hand, installed for the life of the object.
#pragma once

#include "core/clock.h"

class ScriptedClock : public camfetch::ClockSource {
public:
    explicit ScriptedClock(long long start = 1700000000000000LL)
        : m_now(start), m_previous(camfetch::SetClockSource(this)) {}
    ~ScriptedClock() override { camfetch::SetClockSource(m_previous); }
    long long WallMicros() override { return m_now; }
    long long MonoMicros() override { return m_now - 1600000000000000LL; }
    void SleepMicros(long long us) override { Advance(us); }
    void Advance(long long us) { m_now += us; }
    long long Now() const { return m_now; }

private:
    long long m_now;
    camfetch::ClockSource* m_previous;
};
