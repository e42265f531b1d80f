#include "packer/streampacker.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <mutex>
#include <vector>

#include "host/hostthread.h"
#include "log_capture.h"
#include "nal_builder.h"
#include "scripted_clock.h"

// Looks at the packer's waiting lists (frames queued for the packetize thread).
struct StreamPackerInspector {
    struct Frame {
        std::vector<uint8_t> bytes;
        long long pts;
    };
    static std::vector<Frame> Waiting(StreamPacker& p, MediaES es) {
        std::lock_guard<std::mutex> lock(p.m_mutex);
        std::vector<Frame> out;
        for (MediaBlock* b : es == VIDEO_ES ? p.m_lstVideo : p.m_lstAudio)
            out.push_back({{b->GetBuffer(), b->GetBuffer() + b->GetBufferSize()}, b->GetPTS()});
        return out;
    }
};

namespace {

// Records what reaches the host: stream, bytes, times, offset and the delivering thread.
// Tests declare it before the packer: it must outlive the packetize thread.
class RecordingHandler : public MediaDataHandler {
public:
    struct Delivery {
        int es;
        std::vector<uint8_t> bytes;
        long long pts;
        long long length;
        int vdoOft;
        pthread_t thread;
    };
    int ProcessMediaBlock(ESFormat& format, MediaBlock* block) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_deliveries.push_back(
            {format.i_cat,
             std::vector<uint8_t>(block->GetBuffer(), block->GetBuffer() + block->GetBufferSize()),
             block->GetPTS(), block->GetLength(), block->GetVdoOft(), pthread_self()});
        delete block;
        return refuse ? 7 : 0;
    }
    void InitHandler(const ESFormat& video, const ESFormat& audio) override {
        initVideoCodec = video.i_codec;
        initAudioCodec = audio.i_codec;
        ++initCalls;
    }
    std::vector<Delivery> Deliveries() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_deliveries;
    }
    // Waits (bounded) until n deliveries arrived.
    bool WaitFor(size_t n) {
        for (int i = 0; i < 500; ++i) {
            if (Deliveries().size() >= n)
                return true;
            usleep(10000);
        }
        return false;
    }
    bool refuse = false;
    uint32_t initVideoCodec = 0, initAudioCodec = 0;
    int initCalls = 0;

private:
    std::mutex m_mutex;
    std::vector<Delivery> m_deliveries;
};

ESFormat Format(int cat, uint32_t codec) {
    ESFormat f;
    f.i_cat = cat;
    f.i_codec = codec;
    return f;
}

FETCH_PARAM Param(int streamMode, bool hasAudio, bool meta, int vdoOft = 0) {
    FETCH_PARAM p;
    p.iStreamMode = streamMode;
    p.bHasAudio = hasAudio;
    p.bMetaOnly = meta;
    p.iVdoOft = vdoOft;
    return p;
}

timeval At(long long us) {
    return Tmstmp2Tmval(us);
}

int Feed(StreamPacker& p, MediaES es, const std::string& bytes, long long us,
         unsigned char amr = 0) {
    std::vector<unsigned char> data(bytes.begin(), bytes.end());
    return p.Process(es, data.data(), static_cast<unsigned>(data.size()), At(us), amr, false);
}

// H.264 NAL units as an RTSP receiver hands them over (no start code).
const nal::H264Sps kSps;
const std::string kSpsNal = nal::Sps(kSps);
const std::string kPpsNal = nal::Pps(nal::H264Pps{});

std::string Slice(int nalType, int sliceType, int frameNum) {
    nal::H264Slice s;
    s.nalType = nalType;
    s.sliceType = sliceType;
    s.frameNum = frameNum & 15;
    s.pocLsb = (2 * frameNum) & 63;
    return nal::Slice(s, kSps);
}
const std::string kIdr = Slice(5, 7, 0);

TEST(StreamPacker, PassThroughDeliversMxpegOnTheCallersThread) {
    ScriptedClock clock;
    RecordingHandler handler;
    StreamPacker packer(Param(5, false, true, 12));
    packer.SetDataHandler(&handler);
    packer.InitPackers(Format(VIDEO_ES, kCodecMxpg), Format(AUDIO_ES, kCodecAlaw));
    EXPECT_TRUE(packer.IsPassThrough());
    EXPECT_FALSE(packer.IsMetaMode()) << "pass-through never queues";
    EXPECT_EQ(packer.VideoPacketizer(), nullptr);
    EXPECT_EQ(handler.initCalls, 1);
    EXPECT_EQ(handler.initVideoCodec, kCodecMxpg);

    EXPECT_EQ(Feed(packer, VIDEO_ES, "\xff\xd8picture", 1000000), 0);
    auto d = handler.Deliveries();
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(std::string(d[0].bytes.begin(), d[0].bytes.end()), "\xff\xd8picture");
    EXPECT_EQ(d[0].vdoOft, 12);
    EXPECT_TRUE(pthread_equal(d[0].thread, pthread_self()));
}

TEST(StreamPacker, UnknownMediumAndUnwantedAudioAreSkipped) {
    LogCapture log;
    RecordingHandler handler;
    StreamPacker packer(Param(1, false, false));
    packer.SetDataHandler(&handler);
    packer.InitPackers(Format(VIDEO_ES, kCodecJpeg), ESFormat());
    EXPECT_EQ(Feed(packer, static_cast<MediaES>(3), "x", 1), 0);
    EXPECT_EQ(Feed(packer, AUDIO_ES, "x", 1), 0);
    EXPECT_EQ(log.Count("Unused medium type[3], skip it."), 1);
    EXPECT_EQ(log.Count("Unused medium type[2], skip it."), 1);
    EXPECT_TRUE(handler.Deliveries().empty());
}

TEST(StreamPacker, PacketizesOnTheCallersThreadWithTimesPatched) {
    ScriptedClock clock;
    RecordingHandler handler;
    StreamPacker packer(Param(3, true, false, 4));
    packer.SetDataHandler(&handler);
    packer.InitPackers(Format(VIDEO_ES, kCodecH264), Format(AUDIO_ES, kCodecAlaw));
    EXPECT_FALSE(packer.IsMetaMode());
    ASSERT_NE(packer.AudioPacketizer(), nullptr);

    // A-law goes through the copy packetizer, which holds one frame back.
    EXPECT_EQ(Feed(packer, AUDIO_ES, "aaaa", 1000000), 0);
    EXPECT_TRUE(handler.Deliveries().empty());
    clock.Advance(20000);
    EXPECT_EQ(Feed(packer, AUDIO_ES, "bbbb", 1020000), 0);
    auto d = handler.Deliveries();
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].es, AUDIO_ES);
    EXPECT_EQ(std::string(d[0].bytes.begin(), d[0].bytes.end()), "aaaa");
    EXPECT_EQ(d[0].length, 20000);
    EXPECT_EQ(d[0].pts, clock.Now()) << "audio is timed by the arrival the packetizer stamped";
    EXPECT_EQ(d[0].vdoOft, 4);
    EXPECT_TRUE(pthread_equal(d[0].thread, pthread_self()));
}

TEST(StreamPacker, RefusedDeliveryIsReturnedToTheFetcher) {
    RecordingHandler handler;
    StreamPacker packer(Param(3, true, false));
    handler.refuse = true;
    packer.SetDataHandler(&handler);
    packer.InitPackers(Format(VIDEO_ES, kCodecH264), Format(AUDIO_ES, kCodecUlaw));
    EXPECT_EQ(Feed(packer, AUDIO_ES, "a", 1000), 0);
    EXPECT_EQ(Feed(packer, AUDIO_ES, "b", 2000), 7);
}

TEST(StreamPacker, VideoWithoutOutputIsGivenUpAfterTheFirstKeyPictureHadItsChance) {
    struct Case {
        const char* what;
        uint32_t codec;
        std::function<std::string(int)> unit;  // frame i, fed at 1 s + i * stepUs
        long long stepUs;
        int frames;
        int givenUpAt;  // the first frame answered FETCH_CONN_CLOSED, -1 for none
        size_t delivered;
    };
    const std::string p1 = Slice(1, 5, 1);
    auto nothing = [](int) { return std::string("v"); };
    const Case cases[] = {
        // An unknown codec: the video packetizer outputs nothing at all.
        {"no output for 15 s: 51 frames", FourCC("wxyz"), nothing, 300000, 60, 50, 0},
        {"frozen times: the frame cap", FourCC("wxyz"), nothing, 0, 6001, 5999, 0},
        {"joined 10 s before the next key picture, 60 pictures a second", kCodecH264,
         [](int i) {
             return i == 0     ? kSpsNal
                    : i == 1   ? kPpsNal
                    : i < 602  ? Slice(1, 5, i)
                    : i == 602 ? kIdr
                               : Slice(1, 5, i - 602);
         },
         16667, 605, -1, 1},
        {"after the first picture: 51 frames", kCodecH264,
         [&](int i) {
             return i == 0 ? kSpsNal : i == 1 ? kPpsNal : i == 2 ? kIdr : p1;
         },
         40000, 60, 55, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RecordingHandler handler;
        StreamPacker packer(Param(3, true, false));
        packer.SetDataHandler(&handler);
        packer.InitPackers(Format(VIDEO_ES, c.codec), Format(AUDIO_ES, kCodecAlaw));
        int givenUpAt = -1;
        for (int i = 0; i < c.frames && givenUpAt < 0; ++i)
            if (Feed(packer, VIDEO_ES, c.unit(i), 1000000 + i * c.stepUs) == FETCH_CONN_CLOSED)
                givenUpAt = i;
        EXPECT_EQ(givenUpAt, c.givenUpAt);
        EXPECT_EQ(handler.Deliveries().size(), c.delivered);
        if (givenUpAt >= 0) {
            EXPECT_EQ(Feed(packer, AUDIO_ES, "a", 90000000), FETCH_CONN_CLOSED)
                << "the video counter decides for audio too";
        }
    }
}

TEST(StreamPacker, AudioFormatItsPacketizerRefusesIsDroppedOnceAndVideoFlows) {
    LogCapture log;
    RecordingHandler handler;
    StreamPacker packer(Param(3, true, false));
    packer.SetDataHandler(&handler);
    ESFormat audio = Format(AUDIO_ES, kCodecMp4a);
    const uint8_t reservedRate[2] = {0x16, 0x90};  // AAC LC, sampling index 13
    audio.SetExtra(reservedRate, 2);
    packer.InitPackers(Format(VIDEO_ES, kCodecH264), audio);
    EXPECT_EQ(handler.initAudioCodec, 0u) << "the host is told there is no audio";
    for (int i = 1; i <= 60; ++i)
        ASSERT_EQ(Feed(packer, AUDIO_ES, "\x21\x10", i * 20000), 0) << i;
    for (const std::string& unit : {kSpsNal, kPpsNal, kIdr, Slice(1, 5, 1), Slice(1, 5, 2)})
        EXPECT_EQ(Feed(packer, VIDEO_ES, unit, 1000000), 0);
    auto d = handler.Deliveries();
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].es, VIDEO_ES);
    EXPECT_EQ(log.Count("audio dropped"), 1);
}

TEST(StreamPacker, FlushDeliversThePicturesThePacketizerStillHolds) {
    struct Case {
        const char* what;
        bool meta;
        uint32_t codec;
        std::vector<std::string> units;
        size_t delivered;  // in all, once flushed
    };
    const Case cases[] = {
        {"H.264 on the caller's thread",
         false,
         kCodecH264,
         {kSpsNal, kPpsNal, kIdr, Slice(1, 5, 1)},
         2},
        {"H.264 in meta mode", true, kCodecH264, {kSpsNal, kPpsNal, kIdr, Slice(1, 5, 1)}, 2},
        {"HEVC: parameter sets, then both pictures",
         false,
         kCodecHevc,
         {nal::Vps({}), nal::Sps(nal::HevcSps{}), nal::Pps(nal::HevcPps{}),
          nal::Slice(nal::HevcSlice{19, true, 0, 0, 2}), nal::Slice(nal::HevcSlice{})},
         5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RecordingHandler handler;
        StreamPacker packer(Param(3, false, c.meta));
        packer.SetDataHandler(&handler);
        packer.InitPackers(Format(VIDEO_ES, c.codec), ESFormat());
        for (size_t i = 0; i < c.units.size(); ++i)
            ASSERT_EQ(Feed(packer, VIDEO_ES, c.units[i], 100000000 + 40000 * i), 0);
        packer.Flush();
        auto d = handler.Deliveries();
        ASSERT_EQ(d.size(), c.delivered);
        EXPECT_EQ(d.back().pts - d[d.size() - 2].pts, 40000) << "the last picture's own time";
    }
}

TEST(StreamPacker, NoHandlerClosesWithoutLeaking) {
    LogCapture log;
    StreamPacker packer(Param(3, true, false));
    packer.InitPackers(Format(VIDEO_ES, kCodecH264), Format(AUDIO_ES, kCodecAlaw));
    EXPECT_EQ(Feed(packer, AUDIO_ES, "a", 1000), 0);
    EXPECT_EQ(Feed(packer, AUDIO_ES, "b", 2000), FETCH_CONN_CLOSED);
    EXPECT_EQ(log.Count("m_pDataHandler[(nil)], FETCH_CONN_CLOSED"), 1);

    StreamPacker passThrough(Param(1, false, false));
    passThrough.InitPackers(Format(VIDEO_ES, kCodecMjpg), ESFormat());
    EXPECT_EQ(Feed(passThrough, VIDEO_ES, "jpeg", 1000), FETCH_CONN_CLOSED);
}

TEST(StreamPacker, MissingPacketizerIsReported) {
    LogCapture log;
    RecordingHandler handler;
    StreamPacker packer(Param(3, true, false));
    packer.SetDataHandler(&handler);
    // Never initialised: no packetizers exist.
    EXPECT_EQ(Feed(packer, VIDEO_ES, "v", 1000), FETCH_CONN_CLOSED);
    EXPECT_EQ(log.Count("NULL Packetizer, ES[0]."), 1);
}

TEST(StreamPacker, FramesAreWrappedByCodec) {
    camfetch_host::ThreadFailNextCreates(3);
    StreamPacker packer(Param(3, true, true));
    packer.InitPackers(Format(VIDEO_ES, kCodecH264), Format(AUDIO_ES, kCodecAlaw));
    std::string nal(10, '\x41');
    EXPECT_EQ(Feed(packer, VIDEO_ES, nal, 1000), 1) << "no packetize thread";
    EXPECT_EQ(Feed(packer, AUDIO_ES, "alaw", (1LL << 40) * 1000000 + 5), 1);
    auto video = StreamPackerInspector::Waiting(packer, VIDEO_ES);
    ASSERT_EQ(video.size(), 1u);
    EXPECT_EQ(video[0].bytes.size(), 14u);
    EXPECT_EQ(0, memcmp(video[0].bytes.data(), "\x00\x00\x00\x01\x41", 5));
    auto audio = StreamPackerInspector::Waiting(packer, AUDIO_ES);
    ASSERT_EQ(audio.size(), 1u);
    EXPECT_EQ(audio[0].pts, ((1LL << 40) * 1000000 + 5) & 0x00FFFFFFFFFFFFFFLL);
    camfetch_host::ThreadFailNextCreates(0);

    // AMR has no packetizer: it reaches the host only beside pass-through video.
    RecordingHandler handler;
    StreamPacker passThrough(Param(1, true, false));
    passThrough.SetDataHandler(&handler);
    passThrough.InitPackers(Format(VIDEO_ES, kCodecMjpg), Format(AUDIO_ES, kCodecSamr));
    EXPECT_EQ(Feed(passThrough, AUDIO_ES, std::string(31, '\x22'), 1000, 0x3C), 0);
    auto d = handler.Deliveries();
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].bytes.size(), 32u);
    EXPECT_EQ(d[0].bytes[0], 0x3C);
}

TEST(StreamPacker, FailedThreadCreationQueuesUntilFree) {
    LogCapture log;
    camfetch_host::ThreadFailNextCreates(1);
    RecordingHandler handler;
    StreamPacker packer(Param(3, true, true));
    packer.SetDataHandler(&handler);
    packer.InitPackers(Format(VIDEO_ES, kCodecH264), Format(AUDIO_ES, kCodecAlaw));
    EXPECT_EQ(log.Count("Failed to create packetize thread."), 1);
    EXPECT_FALSE(packer.IsThreadCreated());
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(Feed(packer, AUDIO_ES, "a", 1000 + i), 1);
    EXPECT_EQ(StreamPackerInspector::Waiting(packer, AUDIO_ES).size(), 100u);
    packer.Free();
    EXPECT_EQ(StreamPackerInspector::Waiting(packer, AUDIO_ES).size(), 0u);
}

TEST(StreamPacker, MetaModeDeliversInOrderOnThePacketizeThread) {
    RecordingHandler handler;
    StreamPacker packer(Param(3, true, true));
    packer.SetDataHandler(&handler);
    packer.InitPackers(Format(VIDEO_ES, kCodecH264), Format(AUDIO_ES, kCodecAlaw));
    ASSERT_TRUE(packer.IsMetaMode());
    ASSERT_TRUE(packer.IsThreadCreated());
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(
            Feed(packer, AUDIO_ES, std::string(1, static_cast<char>('a' + i)), 1000 * (i + 1)), 0);
    ASSERT_TRUE(handler.WaitFor(19)) << "the last frame stays held by the copy packetizer";
    auto d = handler.Deliveries();
    for (size_t i = 0; i < d.size(); ++i) {
        EXPECT_EQ(d[i].bytes[0], 'a' + i);
        EXPECT_FALSE(pthread_equal(d[i].thread, pthread_self()));
    }
}

TEST(StreamPacker, MetaModeStopsPromptlyWithFramesInFlight) {
    for (int round = 0; round < 5; ++round) {
        RecordingHandler handler;
        StreamPacker packer(Param(3, true, true));
        packer.SetDataHandler(&handler);
        packer.InitPackers(Format(VIDEO_ES, kCodecH264), Format(AUDIO_ES, kCodecAlaw));
        for (int i = 0; i < 200; ++i) {
            Feed(packer, AUDIO_ES, "abcdefgh", 1000 * (i + 1));
            Feed(packer, VIDEO_ES, "vvvvvvvv", 1000 * (i + 1));
        }
        if (round % 2)
            packer.Free();  // else the destructor frees: no leak either way
        // InitPackers again on a new session restarts cleanly.
        if (round == 4) {
            packer.InitPackers(Format(VIDEO_ES, kCodecH264), Format(AUDIO_ES, kCodecAlaw));
            EXPECT_TRUE(packer.IsThreadCreated());
        }
    }
}

}  // namespace
