// The RTSP layer's decisions that need no server: URLs, transports, keep-alive intervals,
// probe results and bandwidth arithmetic, and the fetcher's handling of subsessions of an
// SDP parsed offline (formats, buffers, side channels).
#include <BasicUsageEnvironment.hh>
#include <liveMedia.hh>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "log_capture.h"
#include "rtsp/controllers.h"
#include "rtsp/rtspclient.h"
#include "rtsp/rtspfetch.h"
#include "rtsp/rtspreceiver.h"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(RtspReceiver, UrlFromHostPortAndPath) {
    struct Case {
        const char* host;
        int port;
        const char* path;
        const char* url;
    };
    const Case cases[] = {
        {"10.0.0.1", 554, "live", "rtsp://10.0.0.1:554/live"},
        {"10.0.0.1", 554, "/live", "rtsp://10.0.0.1:554/live"},
        {"cam", 0, "", "rtsp://cam:0"},
        {"cam", 8554, "/a/b?x=1", "rtsp://cam:8554/a/b?x=1"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(RtspReceiver::BuildUrl(c.host, c.port, c.path), c.url);
}

TEST(RtspReceiver, InitNeedsHostAndNonNegativePort) {
    struct Case {
        const char* host;
        int port;
        int result;
    };
    for (Case c : {Case{"", 554, -1}, Case{"h", -1, -1}, Case{"h", 0, 0}, Case{"h", 554, 0}}) {
        LogCapture log;
        RtspReceiver receiver;
        RTSP_RECV_PARAM param;
        param.Host = c.host;
        param.Port = c.port;
        EXPECT_EQ(receiver.Init(param), c.result) << c.host << ":" << c.port;
        EXPECT_EQ(log.Count("Incorrect parameters, [Host: "), c.result == 0 ? 0 : 1);
        EXPECT_EQ(receiver.GetResultCode(), -1);
    }
}

TEST(RtspReceiver, LoopWithoutEnvironmentReturnsAtOnce) {
    LogCapture log;
    RtspReceiver receiver;
    TestConnectCtrler ctrler(false);
    receiver.DoRecvLoop(&ctrler);
    receiver.StopRecvLoop(true);
    EXPECT_EQ(log.Count("Rtsp env is NULL."), 1);
    EXPECT_EQ(receiver.GetResultCode(), -1);
}

TEST(RtspKeepAlive, IntervalFromMethodAndSessionTimeout) {
    struct Case {
        int method;
        unsigned timeout;
        int interval;
    };
    const Case cases[] = {
        {1, 0, 55}, {1, 60, 55}, {1, 7, 2},   {1, 6, 1},  {1, 5, 1},
        {1, 1, 1},  {2, 0, 58},  {2, 60, 58}, {2, 4, 2},  {2, 3, 1},
        {2, 2, 1},  {2, 1, 1},   {0, 60, 0},  {3, 60, 0}, {-1, 0, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(MetaDataRTSPClient::KeepAliveInterval(c.method, c.timeout), c.interval)
            << c.method << "/" << c.timeout;
}

TEST(RtspTestConnect, ResultFromProbeOutcome) {
    struct Case {
        bool gotFrame;
        int code;
        int result;
    };
    const Case cases[] = {
        {true, 0, 0},      {true, 401, 0},  {false, 0, 16}, {false, 401, 6},
        {false, -115, 12}, {false, 404, 4}, {false, -1, 4}, {false, -111, 4},
    };
    for (const Case& c : cases)
        EXPECT_EQ(RtspFetch::TestConnectResult(c.gotFrame, c.code), c.result)
            << c.gotFrame << "/" << c.code;
}

TEST(BandwidthCtrler, BytesPerSecondOverTheMeasuredSpan) {
    RtspReceiver receiver;
    BandwidthCtrler ctrler;
    const time_t t0 = 1000000;
    ctrler.CountFrame(&receiver, 1000, t0);
    ctrler.CountFrame(&receiver, 1000, t0);
    EXPECT_EQ(ctrler.GetBandwidth(), 0);  // less than a second of frames
    for (int s = 1; s <= 11; ++s)
        ctrler.CountFrame(&receiver, s == 11 ? 5000000 - 2000 - 10 * 100 : 100, t0 + s);
    EXPECT_EQ(ctrler.GetBandwidth(), 454545);  // 5 000 000 bytes over 11 s

    LogCapture log;
    ctrler.CountFrame(nullptr, 1000, t0 + 12);
    EXPECT_EQ(log.Count("NULL RtspReceiver."), 1);
    EXPECT_EQ(ctrler.GetBandwidth(), 454545);
    unsigned int size = 0;
    EXPECT_NE(ctrler.GetSubsessionRecvBuf(nullptr, size), nullptr);
    EXPECT_EQ(size, 0x400000u);
}

// A session parsed from SDP text, without any network.
class OfflineSession {
public:
    explicit OfflineSession(const std::string& sdp)
        : m_scheduler(BasicTaskScheduler::createNew()),
          m_env(BasicUsageEnvironment::createNew(*m_scheduler)) {
        m_session = MediaSession::createNew(*m_env, sdp.c_str());
    }
    ~OfflineSession() {
        Medium::close(m_session);
        m_env->reclaim();
        delete m_scheduler;
    }
    MediaSubsession* Get(const char* medium) {
        MediaSubsessionIterator iter(*m_session);
        while (MediaSubsession* s = iter.next())
            if (strcmp(s->mediumName(), medium) == 0)
                return s;
        return nullptr;
    }
    MediaSubsession* At(int index) {
        MediaSubsessionIterator iter(*m_session);
        MediaSubsession* s = iter.next();
        for (int i = 0; i < index && s; ++i)
            s = iter.next();
        return s;
    }

private:
    TaskScheduler* m_scheduler;
    UsageEnvironment* m_env;
    MediaSession* m_session = nullptr;
};

const char* kSdp =
    "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=test\r\nt=0 0\r\n"
    "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
    "a=fmtp:96 packetization-mode=1;sprop-parameter-sets=Z0IAHpWoLQSZ,aM48gA==\r\n"
    "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\n"
    "m=videos 0 RTP/AVP 26\r\n"
    "m=application 0 RTP/AVP 107\r\na=rtpmap:107 vnd.onvif.metadata/90000\r\n";

std::unique_ptr<RtspFetch> MakeFetch(bool hasAudio, uint32_t flags = 0) {
    FETCH_PARAM param;
    param.strHost = "127.0.0.1";
    param.iPort = 554;
    param.bHasAudio = hasAudio;
    param.uFlags = flags;
    return std::make_unique<RtspFetch>(param);
}

TEST(RtspFetchSubsessions, AudioOnlyWhenWanted) {
    OfflineSession session(kSdp);
    for (bool hasAudio : {false, true}) {
        auto fetch = MakeFetch(hasAudio);
        EXPECT_TRUE(fetch->IsValidSubsession(session.Get("video")));
        EXPECT_EQ(fetch->IsValidSubsession(session.Get("audio")), hasAudio);
        EXPECT_FALSE(fetch->IsValidSubsession(session.Get("videos")));
        EXPECT_FALSE(fetch->IsValidSubsession(session.Get("application")));
        EXPECT_FALSE(fetch->IsValidSubsession(nullptr));
        unsigned int size = 1;
        EXPECT_NE(fetch->GetSubsessionRecvBuf(session.Get("video"), size), nullptr);
        EXPECT_EQ(size, 0x400000u);
        EXPECT_EQ(fetch->GetSubsessionRecvBuf(session.Get("audio"), size) != nullptr, hasAudio);
        EXPECT_EQ(size, hasAudio ? 0x20000u : 0u);
        EXPECT_EQ(fetch->GetSubsessionRecvBuf(session.Get("application"), size), nullptr);
        EXPECT_EQ(size, 0u);
    }
}

TEST(RtspFetchSubsessions, FormatsFromTheSdp) {
    OfflineSession session(kSdp);
    for (uint32_t flags : {0u, RTSP_FLAG_DROP_SDP_EXTRA}) {
        auto fetch = MakeFetch(true, flags);
        fetch->AfterSetupSubsession(nullptr, session.Get("video"));
        fetch->AfterSetupSubsession(nullptr, session.Get("audio"));
        ESFormat video, audio;
        ASSERT_EQ(fetch->GetVideoFormat(video), 0);
        ASSERT_EQ(fetch->GetAudioFormat(audio), 0);
        EXPECT_EQ(video.i_cat, VIDEO_ES);
        EXPECT_EQ(video.i_codec, kCodecH264);
        EXPECT_EQ(video.strDescription, "H264");
        if (flags == 0) {
            // 67 42 (Baseline) ... announced as 67 4D (Main).
            const Bytes expected = {0,    0,    0, 1, 0x67, 0x4D, 0x00, 0x1E, 0x95, 0xA8, 0x2D,
                                    0x04, 0x99, 0, 0, 0,    1,    0x68, 0xCE, 0x3C, 0x80};
            ASSERT_EQ(video.i_extra, static_cast<int>(expected.size()));
            EXPECT_EQ(Bytes(video.p_extra, video.p_extra + video.i_extra), expected);
        } else {
            EXPECT_EQ(video.i_extra, 0);
        }
        EXPECT_EQ(audio.i_cat, AUDIO_ES);
        EXPECT_EQ(audio.i_codec, kCodecAlaw);
        EXPECT_EQ(audio.audio.i_rate, 8000u);
        EXPECT_EQ(audio.audio.i_channels, 1u);
    }
}

TEST(RtspFetchProbe, TestConnectCountsExactVideoOrAcceptedAudio) {
    OfflineSession session(kSdp);
    RtspReceiver receiver;
    struct Case {
        const char* medium;
        bool acceptAudio;
        bool counted;
    };
    for (Case c :
         {Case{"video", false, true}, Case{"audio", false, false}, Case{"audio", true, true},
          Case{"videos", true, false}, Case{"application", true, false}}) {
        TestConnectCtrler ctrler(c.acceptAudio);
        ctrler.RecvMetaData(&receiver, session.Get(c.medium), nullptr, 0, timeval{});
        EXPECT_EQ(ctrler.GotFrame(), c.counted) << c.medium << "/" << c.acceptAudio;
    }
    LogCapture log;
    TestConnectCtrler ctrler(true);
    ctrler.RecvMetaData(nullptr, session.Get("video"), nullptr, 0, timeval{});
    ctrler.RecvMetaData(&receiver, nullptr, nullptr, 0, timeval{});
    EXPECT_FALSE(ctrler.GotFrame());
    EXPECT_EQ(log.Count("NULL RtspReceiver or MediaSubsession."), 2);
}

Bytes RtpWithExtension(uint16_t words) {
    Bytes p = {0x90, 0x60, 0, 1, 0,    0,    0, 0,
               1,    2,    3, 4, 0xAB, 0xAC, 0, static_cast<uint8_t>(words)};
    for (int i = 0; i < words * 4; ++i)
        p.push_back(static_cast<uint8_t>(i));
    p.insert(p.end(), {0x65, 0x88});
    return p;
}

TEST(RtspFetchExtData, LatestHeaderExtensionForTheHost) {
    LogCapture log;
    auto fetch = MakeFetch(false);
    unsigned char buf[64];
    EXPECT_EQ(fetch->GetExtDataLen(), 0u);
    EXPECT_EQ(fetch->FetchExtData(nullptr, 64), RTSP_EXT_NULL_BUFFER);
    EXPECT_EQ(log.Count("Write buf is null"), 1);

    Bytes packet = RtpWithExtension(3);
    unsigned size = static_cast<unsigned>(packet.size());
    RtspFetch::OnVideoRtpPacket(fetch.get(), packet.data(), size);
    ASSERT_EQ(fetch->GetExtDataLen(), 16u);
    ASSERT_EQ(fetch->FetchExtData(buf, 16), RTSP_EXT_OK);
    EXPECT_EQ(Bytes(buf, buf + 16), Bytes(packet.begin() + 12, packet.begin() + 28));
    EXPECT_EQ(fetch->FetchExtData(buf, 15), RTSP_EXT_NO_ROOM);
    EXPECT_EQ(log.Count("Buf size is not enougth, RdLen=15, ExtDataSz=16"), 1);
    // Reading does not clear it; a packet without extension leaves it as it was.
    packet[0] = 0x80;
    RtspFetch::OnVideoRtpPacket(fetch.get(), packet.data(), size);
    EXPECT_EQ(fetch->GetExtDataLen(), 16u);
    // A malformed extension is not taken.
    Bytes broken = RtpWithExtension(200);
    broken.resize(40);
    size = static_cast<unsigned>(broken.size());
    RtspFetch::OnVideoRtpPacket(fetch.get(), broken.data(), size);
    EXPECT_EQ(fetch->GetExtDataLen(), 16u);
    packet = RtpWithExtension(1);
    size = static_cast<unsigned>(packet.size());
    RtspFetch::OnVideoRtpPacket(fetch.get(), packet.data(), size);
    EXPECT_EQ(fetch->GetExtDataLen(), 8u);
}

TEST(RtspFetchEsHeader, KeptForSeiAndMpeg4UserData) {
    const std::string sdp =
        "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=t\r\nt=0 0\r\n"
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
        "m=video 0 RTP/AVP 97\r\na=rtpmap:97 MP4V-ES/90000\r\n"
        "m=video 0 RTP/AVP 26\r\n";
    OfflineSession session(sdp);
    auto userData = [](size_t at, size_t size) {
        Bytes f(size, 0x11);
        const uint8_t head[6] = {0, 0, 1, 0xB2, 0x0A, 0x03};
        for (size_t i = 0; i < 6 && at + i < size; ++i)
            f[at + i] = head[i];
        return f;
    };
    struct Case {
        const char* what;
        uint32_t codec;
        Bytes frame;
        size_t kept;  // 0: not kept
    };
    const Case cases[] = {
        {"h264 SEI", kCodecH264, Bytes(40, 0x06), 40},
        {"h264 long SEI", kCodecH264, Bytes(300, 0x26), 128},  // nal_ref_idc bits set
        {"h264 slice", kCodecH264, Bytes(40, 0x65), 0},
        {"h264 empty", kCodecH264, Bytes(), 0},
        {"mp4v at 0", kCodecMp4v, userData(0, 50), 50},
        {"mp4v at 122", kCodecMp4v, userData(122, 200), 128},
        {"mp4v at 128", kCodecMp4v, userData(128, 200), 0},
        {"mp4v cut", kCodecMp4v, userData(45, 50), 0},
        {"mp4v short", kCodecMp4v, userData(0, 6), 0},
        {"jpeg", kCodecMjpg, Bytes(40, 0x06), 0},
    };
    for (const Case& c : cases) {
        auto fetch = MakeFetch(false);
        fetch->AfterSetupSubsession(nullptr, session.At(c.codec == kCodecMp4v ? 1 : 0));
        fetch->FillEsHeader(c.codec, c.frame.data(), static_cast<unsigned>(c.frame.size()));
        unsigned char buf[256];
        EXPECT_EQ(fetch->FetchEsHeader(buf, sizeof buf), 0u) << c.what << ": kept while off";
        fetch->SetKeepEsHeader(true);
        fetch->FillEsHeader(c.codec, c.frame.data(), static_cast<unsigned>(c.frame.size()));
        const unsigned int n = fetch->FetchEsHeader(buf, sizeof buf);
        if (c.codec == kCodecMjpg) {
            EXPECT_EQ(n, 0u) << c.what;
            continue;
        }
        ASSERT_EQ(n, c.kept) << c.what;
        EXPECT_EQ(Bytes(buf, buf + n), Bytes(c.frame.begin(), c.frame.begin() + n)) << c.what;
        if (n > 4) {
            EXPECT_EQ(fetch->FetchEsHeader(buf, 4), 4u) << c.what;
        }
    }
}

TEST(RtspFetch, WithoutReceiverEveryOperationReportsIt) {
    LogCapture log;
    FETCH_PARAM param;  // no host
    FetcherBase* fetcher = FetcherFactory(1, param);
    ASSERT_NE(fetcher, nullptr);
    EXPECT_EQ(log.Count("Failed to init rtsp receiver."), 1);
    fetcher->DoFetchLoop(nullptr);
    EXPECT_EQ(log.Count("NULL rtsp receiver or stream packer."), 1);
    fetcher->StopFetchLoop();
    EXPECT_EQ(log.Count("NULL rtsp receiver."), 1);
    EXPECT_EQ(fetcher->TestConnect(), RTSP_TEST_FAILED);
    ESFormat fmt;
    EXPECT_EQ(fetcher->GetVideoFormat(fmt), 0);
    EXPECT_EQ(fmt.i_cat, VIDEO_ES);
    EXPECT_EQ(fmt.i_codec, 0u);
    ReleaseFetcher(fetcher);
    EXPECT_EQ(fetcher, nullptr);
}

}  // namespace
