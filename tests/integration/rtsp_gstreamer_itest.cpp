// The RTSP fetcher against a GStreamer RTSP server on loopback: live H.264, HEVC, JPEG,
// MPEG-4 Part 2, AAC (both RTP forms), PCMA and AMR mounts, authentication, a TCP-only
// mount and a stream that falls silent.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "log_capture.h"
#include "rtsp/rtspfetch.h"
#include "rtsp/rtspreceiver.h"
#include "rtsp/controllers.h"
#include "rtsp_itest_support.h"

using namespace rtspitest;

namespace {

class GstFixture : public ::testing::Test {
protected:
    void Start(const std::vector<std::string>& args = {}) {
        ASSERT_TRUE(m_server.Start(args)) << "GStreamer RTSP server did not start";
    }
    std::unique_ptr<FetcherBase> Fetcher(const std::string& path, int protocol, bool audio,
                                         uint32_t flags = 0) {
        FETCH_PARAM param = LoopbackParam(m_server.Port(), path, protocol, audio);
        param.iHttpPort = m_server.Port();  // GStreamer tunnels on its RTSP port
        param.uFlags = flags;
        return std::unique_ptr<FetcherBase>(FetcherFactory(1, param));
    }
    RTSP_RECV_PARAM RecvParam(const std::string& path, int protocol) {
        RTSP_RECV_PARAM param;
        param.Host = "127.0.0.1";
        param.Port = m_server.Port();
        param.HttpPort = m_server.Port();
        param.Path = path;
        param.Protocol = protocol;
        return param;
    }
    std::string File(const std::string& name) const { return m_dir.File(name); }
    // What the fetch delivered on `es`, written out and decoded by ffmpeg without an error.
    void ExpectDecodes(const CollectingHandler& handler, int es, const std::string& name,
                       const std::string& format, const std::string& codec, int minFrames) {
        ASSERT_TRUE(handler.WriteStream(es, File(name)));
        const ProbeResult probe = Probe(File(name), format);
        EXPECT_EQ(probe.codec, codec);
        EXPECT_GE(probe.frames, minFrames);
        EXPECT_EQ(probe.errors, "");
    }

    testsupport::TempDir m_dir;
    GstServer m_server;
};

std::vector<uint8_t> Extra(const ESFormat& fmt) {
    if (fmt.i_extra <= 0)
        return {};
    return std::vector<uint8_t>(fmt.p_extra, fmt.p_extra + fmt.i_extra);
}

bool Increasing(const std::vector<CollectingHandler::Block>& blocks) {
    for (size_t i = 1; i < blocks.size(); ++i)
        if (blocks[i].pts < blocks[i - 1].pts)
            return false;
    return true;
}

TEST_F(GstFixture, JpegAndPcmaArriveWholeAndDecode) {
    Start();
    auto fetcher = Fetcher("mjpeg", RTSP_PROTOCOL_UDP, true);
    CollectingHandler handler;
    const double ran = FetchFor(*fetcher, handler, 3);

    ESFormat video, audio;
    fetcher->GetVideoFormat(video);
    fetcher->GetAudioFormat(audio);
    EXPECT_EQ(video.i_codec, kCodecMjpg);
    EXPECT_EQ(audio.i_codec, kCodecAlaw);
    EXPECT_EQ(audio.audio.i_rate, 8000u);
    EXPECT_EQ(audio.audio.i_channels, 1u);

    const auto pictures = handler.Blocks(VIDEO_ES);
    // Most of the pictures served while the loop ran (the first moments go to set-up).
    EXPECT_GE(pictures.size(), static_cast<size_t>((ran - 1) * 25 * 0.8));
    EXPECT_TRUE(Increasing(pictures));
    ASSERT_TRUE(handler.WriteStream(VIDEO_ES, File("out.mjpeg")));
    const ProbeResult jpeg = Probe(File("out.mjpeg"), "mjpeg");
    ASSERT_TRUE(jpeg.ok);
    EXPECT_EQ(jpeg.codec, "mjpeg");
    EXPECT_EQ(jpeg.width, 320);
    EXPECT_EQ(jpeg.height, 240);
    EXPECT_EQ(jpeg.frames, static_cast<int>(pictures.size()));
    EXPECT_EQ(jpeg.errors, "");

    const auto samples = handler.Blocks(AUDIO_ES);
    ASSERT_FALSE(samples.empty());
    EXPECT_EQ(samples[0].codec, kCodecAlaw);
    EXPECT_TRUE(Increasing(samples));
    ASSERT_TRUE(handler.WriteStream(AUDIO_ES, File("out.alaw")));
    const ProbeResult alaw = Probe(File("out.alaw"), "alaw", {"-ar", "8000", "-ac", "1"});
    ASSERT_TRUE(alaw.ok);
    EXPECT_EQ(alaw.codec, "pcm_alaw");
    EXPECT_EQ(alaw.errors, "");
}

struct AacCase {
    const char* mount;
    int protocol;
};

void PrintTo(const AacCase& c, std::ostream* os) {
    *os << c.mount;
}

class GstAac : public GstFixture, public ::testing::WithParamInterface<AacCase> {};

TEST_P(GstAac, H264AndAacFormatsFromTheSdp) {
    Start();
    auto fetcher = Fetcher(GetParam().mount, GetParam().protocol, true);
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 4);

    ESFormat video, audio;
    fetcher->GetVideoFormat(video);
    fetcher->GetAudioFormat(audio);
    EXPECT_EQ(video.i_codec, kCodecH264);
    const std::vector<uint8_t> extra = Extra(video);
    ASSERT_GT(extra.size(), 6u);
    EXPECT_EQ(std::vector<uint8_t>(extra.begin(), extra.begin() + 5),
              (std::vector<uint8_t>{0, 0, 0, 1, 0x67}));
    EXPECT_EQ(extra[5], 77) << "the encoder's Baseline is announced as Main";
    EXPECT_EQ(audio.i_codec, kCodecMp4a);
    EXPECT_EQ(audio.audio.i_rate, 16000u);
    EXPECT_EQ(audio.audio.i_channels, 1u);
    // AAC LC, 16 kHz (index 8), one channel.
    const std::vector<uint8_t> asc = Extra(audio);
    ASSERT_GE(asc.size(), 2u);
    EXPECT_EQ(asc[0], 0x14);
    EXPECT_EQ(asc[1], 0x08);
    EXPECT_EQ(handler.InitCalls(), 1);

    if (VideoPacketizerWorks(kCodecH264)) {
        ExpectDecodes(handler, VIDEO_ES, "out.264", "h264", "h264", 50);
    }
    if (AacPacketizerWorks()) {
        ExpectDecodes(handler, AUDIO_ES, "out.aac", "aac", "aac", 30);
    }
}

INSTANTIATE_TEST_SUITE_P(Forms, GstAac,
                         ::testing::Values(AacCase{"h264aac", RTSP_PROTOCOL_TCP},
                                           AacCase{"h264latm", RTSP_PROTOCOL_HTTP}),
                         [](const auto& info) { return std::string(info.param.mount); });

TEST_F(GstFixture, HevcParameterSetsFromTheSdp) {
    Start();
    auto fetcher = Fetcher("hevc", RTSP_PROTOCOL_UDP, false);
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 4);
    ESFormat video;
    fetcher->GetVideoFormat(video);
    EXPECT_EQ(video.i_codec, kCodecHevc);
    const std::vector<int> types = NalTypes(Extra(video), true);
    EXPECT_EQ(types, (std::vector<int>{32, 33, 34}));
    if (VideoPacketizerWorks(kCodecHevc)) {
        ExpectDecodes(handler, VIDEO_ES, "out.265", "hevc", "hevc", 50);
    }
}

TEST_F(GstFixture, Mpeg4ConfigFromTheSdp) {
    ASSERT_TRUE(MakeClip("mpeg4mkv", File("mpeg4.mkv"), 4));
    Start({"--mpeg4-file", File("mpeg4.mkv")});
    auto fetcher = Fetcher("mpeg4", RTSP_PROTOCOL_TCP, false);
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 8);
    ESFormat video;
    fetcher->GetVideoFormat(video);
    EXPECT_EQ(video.i_codec, kCodecMp4v);
    const std::vector<uint8_t> config = Extra(video);
    ASSERT_GT(config.size(), 4u);
    EXPECT_EQ(std::vector<uint8_t>(config.begin(), config.begin() + 3),
              (std::vector<uint8_t>{0, 0, 1}));
    if (VideoPacketizerWorks(kCodecMp4v)) {
        ExpectDecodes(handler, VIDEO_ES, "out.m4v", "m4v", "mpeg4", 90);
    }
}

TEST_F(GstFixture, AmrFormatAndFramingByte) {
    Start();
    auto fetcher = Fetcher("amr", RTSP_PROTOCOL_UDP, true);
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 3);
    ESFormat audio;
    fetcher->GetAudioFormat(audio);
    EXPECT_EQ(audio.i_codec, kCodecSamr);
    EXPECT_EQ(audio.audio.i_rate, 8000u);
    EXPECT_EQ(audio.audio.i_channels, 1u);
    // With JPEG video the packer passes frames through unpacketized: every AMR frame
    // arrives behind its framing byte, frame type 7 (12.2 kbit/s) with the quality bit.
    const auto frames = handler.Blocks(AUDIO_ES);
    EXPECT_GE(frames.size(), 50u);  // 20 ms frames
    for (const auto& b : frames) {
        ASSERT_FALSE(b.bytes.empty());
        EXPECT_EQ(b.bytes[0], 7 << 3 | 0x04);
        EXPECT_EQ(b.bytes.size(), 32u);  // framing byte and 31 bytes of speech
    }
}

TEST_F(GstFixture, AudioOnlyStreamCountsOnlyWhenAudioIsAccepted) {
    Start();
    // The probe ignores audio by default and gives up after its 15-second poll.
    RtspReceiver receiver;
    ASSERT_EQ(receiver.Init(RecvParam("pcma", RTSP_PROTOCOL_TCP)), 0);
    TestConnectCtrler ignoring(false);
    receiver.DoRecvLoop(&ignoring);
    EXPECT_FALSE(ignoring.GotFrame());
    EXPECT_EQ(receiver.GetResultCode(), 0);
    EXPECT_EQ(RtspFetch::TestConnectResult(false, receiver.GetResultCode()), RTSP_TEST_NO_FRAME);

    auto fetcher = Fetcher("pcma", RTSP_PROTOCOL_TCP, true, RTSP_FLAG_AUDIO_KEEPS_ALIVE);
    EXPECT_EQ(fetcher->TestConnect(), RTSP_TEST_OK);
}

class GstAuth : public GstFixture, public ::testing::WithParamInterface<const char*> {};

TEST_P(GstAuth, CredentialsOpenTheStreamAndTheirLackIsReported) {
    Start({"--auth", GetParam(), "--user", "alice", "--password", "s3cret"});
    struct Case {
        const char* user;
        const char* password;
        int result;
    };
    for (Case c : {Case{"alice", "s3cret", 0}, Case{"alice", "wrong", 401}, Case{"", "", 401}}) {
        RtspReceiver receiver;
        RTSP_RECV_PARAM param = RecvParam("mjpeg", RTSP_PROTOCOL_TCP);
        param.User = c.user;
        param.Password = c.password;
        ASSERT_EQ(receiver.Init(param), 0);
        FrameRecorder recorder(10);
        receiver.DoRecvLoop(&recorder);
        EXPECT_EQ(receiver.GetResultCode(), c.result) << c.user << "/" << c.password;
        EXPECT_EQ(recorder.Frames().size() >= 10, c.result == 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Methods, GstAuth, ::testing::Values("digest", "basic"));

TEST_F(GstFixture, AutoModeFallsBackFromUdpAndKeepsTcp) {
    Start();
    LogCapture log;
    auto fetcher = Fetcher("tcponly", RTSP_PROTOCOL_AUTO, false);
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 4);
    EXPECT_EQ(log.Count("Failed to set up[461"), 1);
    EXPECT_EQ(log.Count("OpenURL"), 2);
    EXPECT_EQ(log.Count("Protocol[1]"), 1);
    EXPECT_EQ(log.Count("Protocol[2]"), 1);
    EXPECT_EQ(log.Count("Protocol[3]"), 0);
}

TEST_F(GstFixture, HttpTunnellingCarriesTheStream) {
    Start();
    LogCapture log;
    auto fetcher = Fetcher("mjpeg", RTSP_PROTOCOL_HTTP, false);
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 3);
    EXPECT_EQ(log.Count("Protocol[3]"), 1);
    EXPECT_GE(handler.Count(VIDEO_ES), 25u);
}

TEST_F(GstFixture, SilentStreamEndsTheAttemptByTheWatchdog) {
    Start({"--stop-after", "2"});
    LogCapture log;
    auto fetcher = Fetcher("stopping", RTSP_PROTOCOL_AUTO, false);
    CollectingHandler handler;
    const double ran = FetchFor(*fetcher, handler, 60);
    EXPECT_LT(ran, 60) << "the loop did not end by itself";
    EXPECT_EQ(log.Count("No frame for"), 1);
    EXPECT_GT(handler.Count(VIDEO_ES), 10u);
    // Video had flowed over UDP: no other transport was tried.
    EXPECT_EQ(log.Count("OpenURL"), 1);
}

TEST_F(GstFixture, TestConnectAndBandwidthMatchWhatFlows) {
    Start();
    auto fetcher = Fetcher("mjpeg", RTSP_PROTOCOL_TCP, true);
    EXPECT_EQ(fetcher->TestConnect(), RTSP_TEST_OK);

    RtspReceiver receiver;
    ASSERT_EQ(receiver.Init(RecvParam("mjpeg", RTSP_PROTOCOL_TCP)), 0);
    FrameRecorder recorder(100);  // four seconds of pictures
    receiver.DoRecvLoop(&recorder);
    const auto frames = recorder.Frames();
    ASSERT_GE(frames.size(), 100u);
    double bytes = 0;
    for (const auto& f : frames)
        bytes += f.size;
    const double span = (frames.back().pts.tv_sec - frames.front().pts.tv_sec) +
                        (frames.back().pts.tv_usec - frames.front().pts.tv_usec) / 1e6;
    const double rate = bytes / span;

    const int bandwidth = fetcher->GetBandwidth();
    EXPECT_GT(bandwidth, rate * 0.6);
    EXPECT_LT(bandwidth, rate * 1.6);
    RecordProperty("bandwidth", bandwidth);
    RecordProperty("measured_rate", static_cast<int>(rate));
}

}  // namespace
