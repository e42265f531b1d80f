#include "core/fetcher.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>

#include "core/bufferalloc.h"
#include "log_capture.h"
#include "scripted_clock.h"

namespace {

TEST(FetcherFactory, UnknownKindsGiveNullAndReleasingNullIsHarmless) {
    FETCH_PARAM param;
    for (int type : {0, 5, 7, -1, 1000})
        EXPECT_EQ(FetcherFactory(type, param), nullptr) << type;
    FetcherBase* none = nullptr;
    ReleaseFetcher(none);
    EXPECT_EQ(none, nullptr);
}

// On a machine short of memory the push fetchers' receive buffers (megabytes) cannot be had:
// the host gets no fetcher and a log line, not an exception.
TEST(FetcherFactory, BuffersThatCannotBeHadGiveNoFetcher) {
    LogCapture log;
    FETCH_PARAM param;
    param.strHost = "camera";
    param.iPort = 554;
    param.bHasAudio = true;
    const size_t previous = camfetch::SetBufferAllocLimit(1 << 20);
    for (int type : {1, 6}) {
        FetcherBase* fetcher = nullptr;
        EXPECT_NO_THROW(fetcher = FetcherFactory(type, param)) << type;
        EXPECT_EQ(fetcher, nullptr) << type;
    }
    camfetch::SetBufferAllocLimit(previous);
    EXPECT_EQ(log.Count("Failed to create a fetcher of type"), 2);
}

// A pull fetcher that plays a script of (result, size, seconds to advance) per part.
class ScriptedPullFetcher : public FetcherBase {
public:
    struct Step {
        int result;
        unsigned size;
        long long advanceUs;
    };
    // Once the script is used up every part gets afterwards, up to a thousand times (so that
    // a measurement that never ends shows up as a count), then 4.
    ScriptedPullFetcher(ScriptedClock& clock, std::deque<Step> script, int afterwards = 4)
        : m_clock(clock), m_script(std::move(script)), m_afterwards(afterwards) {}

    int NextPartInfo(unsigned int& partSize, char*, unsigned int, int&) override {
        ++asked;
        if (m_script.empty())
            return asked > 1000 ? 4 : m_afterwards;
        Step s = m_script.front();
        m_script.pop_front();
        m_clock.Advance(s.advanceUs);
        partSize = s.size;
        return s.result;
    }
    int FetchContent(unsigned char* buffer, unsigned int size) override {
        if (size)
            buffer[size - 1] = 0;  // the buffer is exactly the part's size
        ++fetched;
        return 0;
    }
    int SetReconnect() override { return 0; }
    int GetVideoFormat(ESFormat&) override { return 0; }
    int GetAudioFormat(ESFormat&) override { return 0; }
    int TestConnect() override { return 0; }

    int fetched = 0;
    int asked = 0;

private:
    ScriptedClock& m_clock;
    std::deque<Step> m_script;
    int m_afterwards;
};

class Bandwidth : public ::testing::Test {
protected:
    ScriptedClock clock;
};

TEST_F(Bandwidth, OnePartPerSecondOfThousandBytes) {
    std::deque<ScriptedPullFetcher::Step> script;
    for (int i = 0; i < 30; ++i)
        script.push_back({0, 1000, 1000000});
    ScriptedPullFetcher f(clock, script);
    int rate = f.GetBandwidth();
    // Measured from the first second with data to eleven seconds later; the first part's
    // bytes are counted too, so the figure leans slightly high.
    EXPECT_EQ(rate, 12000 / 11);
    EXPECT_EQ(f.fetched, 12);
}

TEST_F(Bandwidth, StopOrderBeforeDataGivesZero) {
    ScriptedPullFetcher f(clock, {{4, 0, 0}});
    EXPECT_EQ(f.GetBandwidth(), 0);
    EXPECT_EQ(f.fetched, 0);
}

TEST_F(Bandwidth, FailedPartsAreSkippedWithinTheMinute) {
    std::deque<ScriptedPullFetcher::Step> script;
    script.push_back({0, 500, 1000000});
    script.push_back({3, 0, 0});           // a failed part is skipped
    script.push_back({0, 500, 70000000});  // the next success ends the span
    ScriptedPullFetcher f(clock, script);
    EXPECT_EQ(f.GetBandwidth(), 1000 / 70);
}

TEST_F(Bandwidth, FetcherThatCanOnlyFailGivesZeroWithinTheMinute) {
    ScriptedPullFetcher refused(clock, {}, 6);  // every part: credentials refused
    const long long start = clock.Now();
    EXPECT_EQ(refused.GetBandwidth(), 0);
    EXPECT_LE(clock.Now() - start, 66000000);
    EXPECT_LE(refused.asked, 30) << "a refusing camera is not asked in a tight loop";
}

}  // namespace
