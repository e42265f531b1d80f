#include <gtest/gtest.h>

#include <memory>

#include "log_capture.h"
#include "packer/streampacker.h"
#include "scripted_clock.h"

namespace {

constexpr long long kStart = 1600000000000000LL;  // playback start, us since 1970

// Drives PatchTimestamp of one packer with blocks of given input PTS; returns the outputs.
class TimeLine {
public:
    explicit TimeLine(long long absStart = 0, int cat = VIDEO_ES, int streamMode = 3)
        : m_packer(Param(absStart, streamMode)) {
        m_format.i_cat = cat;
    }
    long long Patch(long long pts, long long arrival = 0) {
        MediaBlock block;
        block.SetPTS(pts);
        block.SetDTS(pts);
        block.SetTimestamp(arrival);
        m_packer.PatchTimestamp(m_format, &block);
        EXPECT_EQ(block.GetPTS(), block.GetDTS());
        m_lastTimestamp = block.GetTimestamp();
        return block.GetPTS();
    }
    long long LastTimestamp() const { return m_lastTimestamp; }
    StreamPacker& Packer() { return m_packer; }
    ESFormat& Format() { return m_format; }

private:
    static FETCH_PARAM Param(long long absStart, int streamMode) {
        FETCH_PARAM p;
        p.llAbsStartTime = absStart;
        p.iStreamMode = streamMode;
        return p;
    }
    StreamPacker m_packer;
    ESFormat m_format;
    long long m_lastTimestamp = 0;
};

TEST(TimestampPatch, PlaybackRebasesAfterBackwardAndLongForwardJumps) {
    ScriptedClock clock;
    TimeLine t(kStart);
    EXPECT_EQ(t.Patch(5000000), kStart) << "the first block maps to the start time";
    EXPECT_EQ(t.LastTimestamp(), kStart);
    EXPECT_EQ(t.Patch(5040000), kStart + 40000);
    EXPECT_EQ(t.Patch(5000000), kStart + 140000) << "a step back continues 100 ms on";
    EXPECT_EQ(t.Patch(5040000), kStart + 180000) << "later frames follow the new base";
    EXPECT_EQ(t.Patch(5040000 + 31000000), kStart + 280000) << "a 31 s jump is patched";
    EXPECT_EQ(t.Patch(5080000 + 31000000), kStart + 320000);
    EXPECT_EQ(t.Patch(5080000 + 31000000 + 30000000), kStart + 30320000)
        << "exactly 30 s forward is still trusted";
}

TEST(TimestampPatch, PlaybackWithFirstPtsZeroReseeds) {
    ScriptedClock clock;
    TimeLine t(kStart);
    EXPECT_EQ(t.Patch(0), kStart);
    EXPECT_EQ(t.Format().llFirstPTS, 0);
    EXPECT_EQ(t.Patch(40000), kStart) << "the next block seeds the offset again";
    EXPECT_EQ(t.Patch(80000), kStart + 40000);
}

TEST(TimestampPatch, LiveSteadyStepsAdvanceExactly) {
    ScriptedClock clock;
    TimeLine t;
    const long long camera = 90000000000LL;
    long long first = t.Patch(camera);
    EXPECT_EQ(first, clock.Now()) << "the first frame is placed at the current time";
    for (int i = 1; i <= 50; ++i) {
        clock.Advance(39000);  // arrival jitter does not matter
        EXPECT_EQ(t.Patch(camera + i * 40000LL), first + i * 40000LL);
    }
    EXPECT_NEAR(t.Format().uAvgDiff, 40000u, 1u);
    EXPECT_EQ(t.LastTimestamp(), clock.Now());
}

TEST(TimestampPatch, LiveLargeOrNegativeStepsUseCurrentTime) {
    ScriptedClock clock;
    LogCapture log;
    TimeLine t;
    t.Patch(10000000);
    clock.Advance(1000);
    EXPECT_EQ(t.Patch(11000000), clock.Now()) << "average of 0.5 s is too large to trust";
    EXPECT_EQ(t.Format().uAvgDiff, 500000u);

    TimeLine back;
    back.Patch(10000000);
    int before = log.Count("Patch with current");
    clock.Advance(1000);
    EXPECT_EQ(back.Patch(9999999), clock.Now());
    clock.Advance(1000);
    EXPECT_EQ(back.Patch(9999999 + 2000001), clock.Now());
    EXPECT_EQ(log.Count("Patch with current"), before + 2);

    TimeLine same;
    long long out = same.Patch(10000000);
    clock.Advance(40000);
    EXPECT_EQ(same.Patch(10000000), out) << "a repeated PTS keeps the last output";
}

TEST(TimestampPatch, ElevenRepeatsSwitchToArrivalTimeForGood) {
    ScriptedClock clock;
    LogCapture log;
    TimeLine fresh;
    fresh.Patch(5000000);
    for (int i = 0; i < 10; ++i)
        fresh.Patch(5000000);  // ten repeats: camera time kept
    EXPECT_EQ(log.Count("use current time as PTS"), 0);
    EXPECT_EQ(fresh.Patch(5000000, 333), 333) << "the eleventh repeat switches";
    EXPECT_EQ(log.Count("Receive consecutively the same PTS [5000000] over [11] times"), 1);
    EXPECT_EQ(fresh.Patch(6000000, 444), 444) << "and the switch is permanent";
}

TEST(TimestampPatch, AudioAndJpegFollowArrival) {
    ScriptedClock clock;
    TimeLine audio(0, AUDIO_ES);
    EXPECT_EQ(audio.Patch(123456789, 42), 42);
    EXPECT_EQ(audio.LastTimestamp(), clock.Now());

    TimeLine jpeg(0, VIDEO_ES, 1);
    EXPECT_EQ(jpeg.Patch(123456789, 43), 43);
}

TEST(TimestampPatch, StartTimeBitTwoSeedsArrivalMode) {
    ScriptedClock clock;
    FETCH_PARAM p;
    p.llAbsStartTime = 2;
    StreamPacker packer(p);
    EXPECT_TRUE(packer.UseTmstmpAsPts(VIDEO_ES, 1));
}

TEST(TimestampPatch, Tmstmp2Tmval) {
    timeval tv = Tmstmp2Tmval(1500000);
    EXPECT_EQ(tv.tv_sec, 1);
    EXPECT_EQ(tv.tv_usec, 500000);
    tv = Tmstmp2Tmval(-1500000);
    EXPECT_EQ(tv.tv_sec, -1);
    EXPECT_EQ(tv.tv_usec, -500000);
}

}  // namespace
