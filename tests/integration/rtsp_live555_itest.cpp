// The RTSP receiver and fetcher against live555's media server on loopback, serving clips
// ffmpeg made for the test, over UDP, TCP and HTTP tunnelling.
#include <dirent.h>

#include <gtest/gtest.h>

#include <memory>

#include "log_capture.h"
#include "rtsp/rtspfetch.h"
#include "rtsp/rtspreceiver.h"
#include "rtsp/socketbatch.h"
#include "rtsp_itest_support.h"

using namespace rtspitest;

namespace {

constexpr double kClipSeconds = 4;
constexpr int kClipPictures = 100;

class Live555Fixture : public ::testing::Test {
protected:
    // Makes the clips, then starts the server over them.
    void Serve(const std::vector<std::pair<std::string, std::string>>& clips,
               double seconds = kClipSeconds) {
        for (const auto& [kind, name] : clips)
            ASSERT_TRUE(MakeClip(kind, m_dir.File(name), seconds)) << kind;
        ASSERT_TRUE(m_server.Start(m_dir.Path()))
            << testsupport::ReadFile(m_dir.File("live555.log"));
    }
    std::string File(const std::string& name) const { return m_dir.File(name); }

    testsupport::TempDir m_dir;
    Live555Server m_server;
};

int OpenFds() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d))
            ++n;
        closedir(d);
    }
    return n;
}

struct TransportCase {
    int protocol;
    bool batch;  // reads of the RTSP connection batched (TCP and HTTP)
    const char* name;
};

void PrintTo(const TransportCase& c, std::ostream* os) {
    *os << c.name;
}

class Live555Transport : public Live555Fixture,
                         public ::testing::WithParamInterface<TransportCase> {};

// Batched or not, every unit arrives byte for byte as the file holds it.
TEST_P(Live555Transport, ReceiverGetsEveryNalUnitWithItsTimestamp) {
    Serve({{"h264", "clip.264"}});
    const auto nals = ReadNalUnits(File("clip.264"));
    RtspReceiver receiver;
    RTSP_RECV_PARAM param;
    param.Host = "127.0.0.1";
    param.Port = m_server.RtspPort();
    param.HttpPort = m_server.HttpPort();
    param.Path = "clip.264";
    param.Protocol = GetParam().protocol;
    param.SocketBatch = GetParam().batch;
    ASSERT_EQ(receiver.Init(param), 0);
    EXPECT_TRUE(!GetParam().batch || socketbatch::Installed()) << "batching is off";
    FrameRecorder recorder;
    RecvFor(receiver, recorder, 30);  // ends with the clip (RTCP BYE)

    EXPECT_EQ(receiver.GetResultCode(), 0);
    EXPECT_EQ(receiver.GetRecvParam().Protocol, GetParam().protocol);
    // Every unit of the file in order; the server's framer does not send the file's last
    // unit, which no start code ends.
    const auto frames = recorder.Frames("video");
    ASSERT_GE(frames.size() + 1, nals.size());
    ASSERT_LE(frames.size(), nals.size());
    int pictures = 0;
    timeval first{}, last{};
    for (size_t i = 0; i < frames.size(); ++i) {
        ASSERT_EQ(frames[i].size, nals[i].size()) << "unit " << i;
        ASSERT_EQ(frames[i].digest, Digest(nals[i].data(), nals[i].size())) << "unit " << i;
        EXPECT_EQ(frames[i].codec, "H264");
        const int type = nals[i][0] & 0x1F;
        if (type == 1 || type == 5) {
            if (pictures++ == 0)
                first = frames[i].pts;
            last = frames[i].pts;
        }
    }
    EXPECT_GE(pictures, kClipPictures - 1);
    // The server stamps pictures 40 ms apart (decode order). Its clock follows the wall clock
    // until the first sender report, so a loaded machine moves the span by a few ms.
    const long long span = (last.tv_sec - first.tv_sec) * 1000000LL + last.tv_usec - first.tv_usec;
    EXPECT_NEAR(span, (pictures - 1) * 40000LL, 20000);
}

INSTANTIATE_TEST_SUITE_P(Transports, Live555Transport,
                         ::testing::Values(TransportCase{RTSP_PROTOCOL_UDP, true, "Udp"},
                                           TransportCase{RTSP_PROTOCOL_TCP, true, "Tcp"},
                                           TransportCase{RTSP_PROTOCOL_HTTP, true, "Http"},
                                           TransportCase{RTSP_PROTOCOL_TCP, false, "TcpUnbatched"},
                                           TransportCase{RTSP_PROTOCOL_HTTP, false,
                                                         "HttpUnbatched"}),
                         [](const auto& info) { return std::string(info.param.name); });

struct VideoCase {
    const char* kind;
    const char* file;
    uint32_t codec;
    const char* ffmpegFormat;
    const char* ffprobeCodec;
};

void PrintTo(const VideoCase& c, std::ostream* os) {
    *os << c.kind;
}

class Live555Video : public Live555Fixture, public ::testing::WithParamInterface<VideoCase> {};

TEST_P(Live555Video, FetchDeliversDecodablePictures) {
    const VideoCase& c = GetParam();
    Serve({{c.kind, c.file}});
    LogCapture log;
    std::unique_ptr<FetcherBase> fetcher(
        FetcherFactory(1, LoopbackParam(m_server.RtspPort(), c.file, RTSP_PROTOCOL_AUTO, false)));
    ASSERT_NE(fetcher, nullptr);
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 20);

    // The formats come from the SDP, before any picture.
    ASSERT_EQ(handler.InitCalls(), 1);
    ESFormat format;
    ASSERT_EQ(fetcher->GetVideoFormat(format), 0);
    EXPECT_EQ(format.i_codec, c.codec);
    EXPECT_GT(format.i_extra, 0);
    EXPECT_EQ(handler.InitVideo().i_codec, c.codec);
    // Video flowed over UDP, so auto mode never tried another transport.
    EXPECT_EQ(log.Count("OpenURL"), 1);
    EXPECT_EQ(log.Count("Protocol[1]"), 1);

    if (!VideoPacketizerWorks(c.codec))
        GTEST_SKIP() << "the video packetizer for " << c.kind << " has not landed yet";
    const auto blocks = handler.Blocks(VIDEO_ES);
    ASSERT_FALSE(blocks.empty());
    ASSERT_TRUE(handler.WriteStream(VIDEO_ES, File("out.es")));
    const ProbeResult probe = Probe(File("out.es"), c.ffmpegFormat);
    ASSERT_TRUE(probe.ok);
    EXPECT_EQ(probe.codec, c.ffprobeCodec);
    EXPECT_EQ(probe.width, 320);
    EXPECT_EQ(probe.height, 240);
    EXPECT_GE(probe.frames, kClipPictures * 9 / 10);
    EXPECT_LE(probe.frames, kClipPictures);
    EXPECT_EQ(probe.errors, "");
    // The stream opens with a key picture, and its parameter sets have come with it or just
    // before it (the packetizer may hand them over as blocks of their own).
    const auto key = std::find_if(blocks.begin(), blocks.end(),
                                  [](const CollectingHandler::Block& b) { return b.flags & 2; });
    ASSERT_NE(key, blocks.end()) << "no picture flagged as key";
    if (c.codec == kCodecH264 || c.codec == kCodecHevc) {
        const bool hevc = c.codec == kCodecHevc;
        std::vector<int> types;
        for (auto b = blocks.begin(); b != key + 1; ++b) {
            EXPECT_FALSE(b->avc1) << "length-prefixed output was not asked for";
            const std::vector<int> t = NalTypes(b->bytes, hevc);
            types.insert(types.end(), t.begin(), t.end());
        }
        const std::vector<int> wanted =
            hevc ? std::vector<int>{32, 33, 34} : std::vector<int>{7, 8};
        for (int t : wanted)
            EXPECT_NE(std::find(types.begin(), types.end(), t), types.end()) << "NAL type " << t;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, Live555Video,
    ::testing::Values(VideoCase{"h264", "clip.264", kCodecH264, "h264", "h264"},
                      VideoCase{"hevc", "clip.265", kCodecHevc, "hevc", "hevc"},
                      VideoCase{"m4e", "clip.m4e", kCodecMp4v, "m4v", "mpeg4"}),
    [](const auto& info) { return std::string(info.param.kind); });

TEST_F(Live555Fixture, AudioOnlyAacKeepsTheConnectionWhenAudioCounts) {
    Serve({{"aac", "clip.aac"}});
    LogCapture log;
    FETCH_PARAM param = LoopbackParam(m_server.RtspPort(), "clip.aac", RTSP_PROTOCOL_AUTO, true);
    param.uFlags = RTSP_FLAG_AUDIO_KEEPS_ALIVE;
    std::unique_ptr<FetcherBase> fetcher(FetcherFactory(1, param));
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 20);

    ESFormat audio, video;
    ASSERT_EQ(fetcher->GetAudioFormat(audio), 0);
    ASSERT_EQ(fetcher->GetVideoFormat(video), 0);
    EXPECT_EQ(video.i_codec, 0u);
    EXPECT_EQ(audio.i_codec, kCodecMp4a);
    EXPECT_EQ(audio.audio.i_rate, 44100u);
    EXPECT_EQ(audio.audio.i_channels, 1u);
    ASSERT_GE(audio.i_extra, 2);
    EXPECT_EQ(audio.p_extra[0] >> 3, 2);  // AAC LC
    EXPECT_EQ(log.Count("OpenURL"), 1);

    if (!AacPacketizerWorks())
        GTEST_SKIP() << "the AAC packetizer has not landed yet";
    ASSERT_TRUE(handler.WriteStream(AUDIO_ES, File("out.aac")));
    const ProbeResult probe = Probe(File("out.aac"), "aac");
    ASSERT_TRUE(probe.ok);
    EXPECT_EQ(probe.codec, "aac");
    const int served = static_cast<int>(kClipSeconds * 44100 / 1024);
    EXPECT_GE(probe.frames, served * 9 / 10);
    EXPECT_EQ(probe.errors, "");
}

TEST_F(Live555Fixture, MatroskaVideoAndAudioWithAPlayDuration) {
    Serve({{"mkv", "clip.mkv"}});
    LogCapture log;
    std::unique_ptr<FetcherBase> fetcher(
        FetcherFactory(1, LoopbackParam(m_server.RtspPort(), "clip.mkv", RTSP_PROTOCOL_TCP, true)));
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 20);

    EXPECT_EQ(handler.InitVideo().i_codec, kCodecH264);
    EXPECT_EQ(handler.InitAudio().i_codec, kCodecMp4a);
    EXPECT_GT(handler.InitVideo().i_extra, 0);
    EXPECT_GT(handler.InitAudio().i_extra, 0);
    // The file's duration bounds the session.
    EXPECT_EQ(log.Count("Continually play for up to"), 1);

    if (VideoPacketizerWorks(kCodecH264)) {
        ASSERT_TRUE(handler.WriteStream(VIDEO_ES, File("out.264")));
        const ProbeResult video = Probe(File("out.264"), "h264");
        EXPECT_GE(video.frames, kClipPictures * 9 / 10);
        EXPECT_EQ(video.errors, "");
    }
    if (AacPacketizerWorks()) {
        ASSERT_TRUE(handler.WriteStream(AUDIO_ES, File("out.aac")));
        const ProbeResult audio = Probe(File("out.aac"), "aac");
        EXPECT_GE(audio.frames, static_cast<int>(kClipSeconds * 44100 / 1024) * 9 / 10);
        EXPECT_EQ(audio.errors, "");
    }
}

TEST_F(Live555Fixture, StopFromAnotherThreadEndsEachCycleAndLeaksNoDescriptor) {
    Serve({{"h264", "long.264"}}, 20);
    std::unique_ptr<FetcherBase> fetcher(FetcherFactory(
        1, LoopbackParam(m_server.RtspPort(), "long.264", RTSP_PROTOCOL_AUTO, false)));
    // One cycle first, so that one-time allocations are behind us.
    CollectingHandler warmup;
    FetchFor(*fetcher, warmup, 0.3);
    const int fds = OpenFds();
    for (int cycle = 0; cycle < 5; ++cycle) {
        CollectingHandler handler;
        double latency = 0;
        const double ran = FetchFor(*fetcher, handler, 0.5 + 0.1 * cycle, &latency);
        EXPECT_GT(ran, 0.4) << "the loop ended by itself in cycle " << cycle;
        // Not a speed check: only that the stop was taken at all (the event loop wakes every
        // 10 ms to look at its triggers).
        EXPECT_LT(latency, 10.0) << "cycle " << cycle;
        RecordProperty("stop_latency_ms_cycle_" + std::to_string(cycle),
                       static_cast<int>(latency * 1000));
    }
    EXPECT_EQ(OpenFds(), fds);
}

TEST_F(Live555Fixture, TestConnectSeesAFrame) {
    Serve({{"h264", "clip.264"}});
    std::unique_ptr<FetcherBase> fetcher(FetcherFactory(
        1, LoopbackParam(m_server.RtspPort(), "clip.264", RTSP_PROTOCOL_AUTO, false)));
    EXPECT_EQ(fetcher->TestConnect(), RTSP_TEST_OK);
    RtspReceiver receiver;
    RTSP_RECV_PARAM param;
    param.Host = "127.0.0.1";
    param.Port = m_server.RtspPort();
    param.Path = "none.264";
    param.Protocol = RTSP_PROTOCOL_TCP;
    ASSERT_EQ(receiver.Init(param), 0);
    FrameRecorder recorder;
    receiver.DoRecvLoop(&recorder);
    EXPECT_EQ(receiver.GetResultCode(), 404);
    EXPECT_EQ(RtspFetch::TestConnectResult(false, receiver.GetResultCode()), RTSP_TEST_FAILED);
}

}  // namespace
