// The RTSP receiver and fetcher against the scripted Python server, for what real servers
// do not show on demand: the exact requests (PLAY ranges, keep-alives, TEARDOWN,
// authentication retries), servers that never answer, close mid-session or send BYE storms,
// hostile SDP and damaged RTP.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>

#include "log_capture.h"
#include "rtsp/rtspfetch.h"
#include "rtsp/rtspreceiver.h"
#include "rtsp_itest_support.h"

using namespace rtspitest;

namespace {

class ScriptedFixture : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(MakeClip("h264", m_dir.File("clip.264"), 2)); }
    // Starts the server with the scenario (the clip is added unless the scenario names one).
    void Serve(Json::Value scenario = Json::Value(Json::objectValue)) {
        if (!scenario.isMember("h264_file"))
            scenario["h264_file"] = m_dir.File("clip.264");
        ASSERT_TRUE(m_server.Start(scenario));
    }
    RTSP_RECV_PARAM RecvParam(int protocol = RTSP_PROTOCOL_TCP) {
        RTSP_RECV_PARAM param;
        param.Host = "127.0.0.1";
        param.Port = m_server.Port();
        param.Path = "live/ch1";
        param.Protocol = protocol;
        return param;
    }
    std::unique_ptr<FetcherBase> Fetcher(int protocol = RTSP_PROTOCOL_TCP) {
        return std::unique_ptr<FetcherBase>(
            FetcherFactory(1, LoopbackParam(m_server.Port(), "live/ch1", protocol, false)));
    }

    testsupport::TempDir m_dir;
    ScriptedServer m_server;
};

Json::Value Scenario(std::initializer_list<std::pair<const char*, Json::Value>> fields) {
    Json::Value v(Json::objectValue);
    for (const auto& [key, value] : fields)
        v[key] = value;
    return v;
}

TEST_F(ScriptedFixture, PlayRangeCarriesAbsoluteClockTimes) {
    Serve();
    struct Case {
        long long start, end;
        const char* range;
    };
    const Case cases[] = {
        {0, 0, "npt=0.000-"},
        {1500000, 0, "clock=19700101T000001.500Z-"},
        {1700000000123000LL, 1700000060000000LL, "clock=20231114T221320.123Z-20231114T221420.000Z"},
    };
    for (const Case& c : cases) {
        RtspReceiver receiver;
        RTSP_RECV_PARAM param = RecvParam();
        param.AbsStartTime = c.start;
        param.AbsEndTime = c.end;
        ASSERT_EQ(receiver.Init(param), 0);
        FrameRecorder recorder(3);
        RecvFor(receiver, recorder, 10);
        EXPECT_EQ(recorder.Frames().size(), 3u);
    }
    const auto plays = m_server.Requests("PLAY");
    ASSERT_EQ(plays.size(), std::size(cases));
    for (size_t i = 0; i < plays.size(); ++i)
        EXPECT_EQ(plays[i]["headers"]["range"].asString(), cases[i].range);
}

struct KeepAliveCase {
    const char* name;
    int method;
    int timeout;  // announced by the server; 0 = none
    const char* request;
    int minCount, maxCount;  // within the 3.5 s the session runs
};

void PrintTo(const KeepAliveCase& c, std::ostream* os) {
    *os << c.name;
}

class ScriptedKeepAlive : public ScriptedFixture,
                          public ::testing::WithParamInterface<KeepAliveCase> {};

TEST_P(ScriptedKeepAlive, MethodAndIntervalFollowTheSessionTimeout) {
    const KeepAliveCase& c = GetParam();
    Json::Value scenario(Json::objectValue);
    if (c.timeout > 0)
        scenario["session_timeout"] = c.timeout;
    Serve(scenario);
    RtspReceiver receiver;
    RTSP_RECV_PARAM param = RecvParam();
    param.KeepAlive = c.method;
    ASSERT_EQ(receiver.Init(param), 0);
    FrameRecorder recorder;
    RecvFor(receiver, recorder, 3.5);

    const int options = static_cast<int>(m_server.Requests("OPTIONS").size());
    const int getParameters = static_cast<int>(m_server.Requests("GET_PARAMETER").size());
    const int count = std::string(c.request) == "OPTIONS" ? options : getParameters;
    EXPECT_GE(count, c.minCount);
    EXPECT_LE(count, c.maxCount);
    EXPECT_EQ(options + getParameters, count) << "a keep-alive of the other kind was sent";
    // Keep-alives name the session; the stop ends it with TEARDOWN.
    for (const auto& r : m_server.Requests(c.request))
        EXPECT_EQ(r["headers"]["session"].asString(), "5EE55100");
    ASSERT_TRUE(m_server.WaitForLastEvent("closed", 5));
    const auto events = m_server.Events();
    ASSERT_GE(events.size(), 2u);
    const Json::Value& last = events[events.size() - 2];  // before "closed"
    EXPECT_EQ(last["method"].asString(), "TEARDOWN");
    EXPECT_EQ(last["headers"]["session"].asString(), "5EE55100");
    EXPECT_EQ(events.back()["event"].asString(), "closed");
}

INSTANTIATE_TEST_SUITE_P(
    Methods, ScriptedKeepAlive,
    ::testing::Values(KeepAliveCase{"GetParameterEverySecond", 2, 2, "GET_PARAMETER", 2, 4},
                      KeepAliveCase{"GetParameterTimeoutLessTwo", 2, 4, "GET_PARAMETER", 1, 2},
                      KeepAliveCase{"OptionsTimeoutLessFive", 1, 7, "OPTIONS", 1, 2},
                      KeepAliveCase{"OptionsWithoutTimeoutWaits55s", 1, 0, "OPTIONS", 0, 0},
                      KeepAliveCase{"None", 0, 2, "GET_PARAMETER", 0, 0}),
    [](const auto& info) { return std::string(info.param.name); });

// Cameras that refuse GET_PARAMETER and drop the session when their timeout passes.
TEST_F(ScriptedFixture, RefusedGetParameterFallsBackToOptions) {
    Serve(Scenario({{"reject", Scenario({{"GET_PARAMETER", "405 Method Not Allowed"}})},
                    {"session_timeout", 4},
                    {"expire", true}}));
    LogCapture log;
    FETCH_PARAM param = LoopbackParam(m_server.Port(), "live/ch1", RTSP_PROTOCOL_TCP, false);
    param.iKeepAlive = RTSP_KEEPALIVE_GET_PARAMETER;
    std::unique_ptr<FetcherBase> fetcher(FetcherFactory(1, param));
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 7);
    for (const auto& e : m_server.Events())
        EXPECT_NE(e["event"].asString(), "session_expired") << "t=" << e["t"].asDouble();
    EXPECT_GE(m_server.Requests("OPTIONS").size(), 3u);
    EXPECT_EQ(log.Count("GET_PARAMETER keep-alive refused[405 Method Not Allowed]"), 1);
}

class ScriptedAuth : public ScriptedFixture, public ::testing::WithParamInterface<const char*> {};

TEST_P(ScriptedAuth, DescribeChallengedThenAcceptedWithCredentials) {
    Serve(Scenario({{"describe_auth", GetParam()}, {"user", "admin"}, {"password", "p@ss:w"}}));
    RtspReceiver receiver;
    RTSP_RECV_PARAM param = RecvParam();
    param.User = "admin";
    param.Password = "p@ss:w";
    ASSERT_EQ(receiver.Init(param), 0);
    FrameRecorder recorder(5);
    RecvFor(receiver, recorder, 10);
    EXPECT_EQ(recorder.Frames().size(), 5u);
    EXPECT_EQ(receiver.GetResultCode(), 0);
    const auto describes = m_server.Requests("DESCRIBE");
    ASSERT_EQ(describes.size(), 2u);
    EXPECT_FALSE(describes[0]["headers"].isMember("authorization"));
    const std::string auth = describes[1]["headers"]["authorization"].asString();
    EXPECT_EQ(auth.rfind(std::string(GetParam()) == "basic" ? "Basic " : "Digest ", 0), 0u) << auth;
    // Later requests carry the credentials too.
    for (const auto& setup : m_server.Requests("SETUP"))
        EXPECT_TRUE(setup["headers"].isMember("authorization"));

    RtspReceiver refused;
    param.Password = "wrong";
    ASSERT_EQ(refused.Init(param), 0);
    FrameRecorder nothing;
    RecvFor(refused, nothing, 10);
    EXPECT_EQ(refused.GetResultCode(), 401);
    EXPECT_EQ(RtspFetch::TestConnectResult(false, refused.GetResultCode()), RTSP_TEST_UNAUTHORIZED);
}

INSTANTIATE_TEST_SUITE_P(Methods, ScriptedAuth, ::testing::Values("basic", "digest"));

int OpenFds() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d))
            ++n;
        closedir(d);
    }
    return n;
}

TEST_F(ScriptedFixture, StopFromAnotherThreadInEveryPhaseLeaksNothing) {
    Serve();
    auto fetcher = Fetcher(RTSP_PROTOCOL_AUTO);
    CollectingHandler warmup;
    FetchFor(*fetcher, warmup, 0.3);
    const int fds = OpenFds();
    // From right after the start (set-up under way) to well into playing.
    for (double after : {0.0, 0.001, 0.01, 0.05, 0.3, 0.7}) {
        CollectingHandler handler;
        double latency = 0;
        FetchFor(*fetcher, handler, after, &latency);
        EXPECT_LT(latency, 10.0) << "stop after " << after << " s not taken";
        RecordProperty("stop_latency_ms_after_" + std::to_string(static_cast<int>(after * 1000)),
                       static_cast<int>(latency * 1000));
    }
    EXPECT_EQ(OpenFds(), fds);
    ASSERT_TRUE(m_server.WaitForLastEvent("closed", 5));
    // Every session that got as far as PLAY was torn down.
    EXPECT_EQ(m_server.Requests("TEARDOWN").size(), m_server.Requests("PLAY").size());
}

// A host's watchdog that races the end of a session must not end the next one at once.
TEST_F(ScriptedFixture, StopAfterTheLoopEndedByItselfIsDropped) {
    Serve(Scenario({{"bye_storm", 1}, {"bye_after", 1.0}}));
    auto fetcher = Fetcher();
    CollectingHandler first;
    EXPECT_LT(FetchFor(*fetcher, first, 20), 20) << "the BYE did not end the loop";
    fetcher->StopFetchLoop();
    CollectingHandler second;
    FetchFor(*fetcher, second, 20);
    EXPECT_GT(second.Count(VIDEO_ES), 0u) << "the late stop ended the next loop at once";
}

TEST_F(ScriptedFixture, StopWhileTheServerIsSilent) {
    Serve(Scenario({{"never_answer", true}}));
    auto fetcher = Fetcher();
    CollectingHandler handler;
    double latency = 0;
    FetchFor(*fetcher, handler, 0.5, &latency);
    EXPECT_LT(latency, 10.0);
    EXPECT_TRUE(m_server.WaitForLastEvent("closed", 5));
}

TEST_F(ScriptedFixture, SdpWithoutMediaEndsTheSession) {
    Serve(Scenario({{"sdp", "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=none\r\nt=0 0\r\n"}}));
    LogCapture log;
    RtspReceiver receiver;
    ASSERT_EQ(receiver.Init(RecvParam()), 0);
    FrameRecorder recorder;
    const double ran = RecvFor(receiver, recorder, 20);
    EXPECT_LT(ran, 20);
    EXPECT_EQ(log.Count("This pSession has no media subsessions[i.e., no \"m=\" lines]"), 1);
    EXPECT_TRUE(m_server.Requests("SETUP").empty());
    EXPECT_EQ(receiver.GetResultCode(), 0);
}

TEST_F(ScriptedFixture, ServerThatNeverAnswersIsLeftAfterTheSetupTimeout) {
    Serve(Scenario({{"never_answer", true}}));
    LogCapture log;
    RtspReceiver receiver;
    RTSP_RECV_PARAM param = RecvParam();
    param.Timeout = 2;
    ASSERT_EQ(receiver.Init(param), 0);
    FrameRecorder recorder;
    const double ran = RecvFor(receiver, recorder, 30);
    EXPECT_LT(ran, 30) << "the setup timeout did not end the attempt";
    EXPECT_GE(ran, 1.5);
    EXPECT_EQ(log.Count("Closing the stream"), 1);
    EXPECT_EQ(m_server.Requests("DESCRIBE").size(), 1u);
    EXPECT_TRUE(m_server.WaitForLastEvent("closed", 5)) << "the client kept the connection";
}

TEST_F(ScriptedFixture, RefusedConnectionGivesTheConnectResult) {
    RtspReceiver receiver;
    RTSP_RECV_PARAM param;
    param.Host = "127.0.0.1";
    param.Port = testsupport::FreeLoopbackPort();
    param.Protocol = RTSP_PROTOCOL_TCP;
    ASSERT_EQ(receiver.Init(param), 0);
    FrameRecorder recorder;
    LogCapture log;
    RecvFor(receiver, recorder, 20);
    EXPECT_EQ(receiver.GetResultCode(), -115);
    EXPECT_EQ(RtspFetch::TestConnectResult(false, receiver.GetResultCode()), RTSP_TEST_UNREACHABLE);
    EXPECT_EQ(log.Count("Failed to get a SDP description[Connection to server failed: "
                        "Connection refused]"),
              1);
}

TEST_F(ScriptedFixture, AutoModeTriesEachTransportOnceInOrder) {
    Serve(Scenario({{"describe_status", "503 Service Unavailable"}}));
    LogCapture log;
    RtspReceiver receiver;
    RTSP_RECV_PARAM param = RecvParam(RTSP_PROTOCOL_AUTO);
    param.HttpPort = testsupport::FreeLoopbackPort();  // nothing tunnels there
    ASSERT_EQ(receiver.Init(param), 0);
    FrameRecorder recorder;
    RecvFor(receiver, recorder, 20);
    std::vector<std::string> attempts;
    for (const auto& r : log.Records())
        if (r.text.find("OpenURL") == 0)
            attempts.push_back(r.text.substr(r.text.find("Protocol["), 11));
    EXPECT_EQ(attempts, (std::vector<std::string>{"Protocol[1]", "Protocol[2]", "Protocol[3]"}));
    EXPECT_EQ(m_server.Requests("DESCRIBE").size(), 2u);
    EXPECT_EQ(receiver.GetResultCode(), -115);  // the last attempt's refused tunnel
}

TEST_F(ScriptedFixture, UdpTransportDeliversFrames) {
    Serve();
    RtspReceiver receiver;
    ASSERT_EQ(receiver.Init(RecvParam(RTSP_PROTOCOL_UDP)), 0);
    FrameRecorder recorder(30);
    RecvFor(receiver, recorder, 10);
    EXPECT_EQ(recorder.Frames("video").size(), 30u);
    const auto setups = m_server.Requests("SETUP");
    ASSERT_EQ(setups.size(), 1u);
    EXPECT_NE(setups[0]["headers"]["transport"].asString().find("client_port="), std::string::npos);
}

TEST_F(ScriptedFixture, HeaderExtensionReachesTheExtData) {
    Json::Value ext(Json::objectValue);
    ext["profile"] = 0xABAC;
    ext["words"] = 3;
    Serve(Scenario({{"rtp_extension", ext}}));
    auto fetcher = Fetcher();
    auto* rtsp = dynamic_cast<RtspFetch*>(fetcher.get());
    ASSERT_NE(rtsp, nullptr);
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 1.5);
    ASSERT_EQ(rtsp->GetExtDataLen(), 16u);
    unsigned char buf[16];
    ASSERT_EQ(rtsp->FetchExtData(buf, sizeof buf), RTSP_EXT_OK);
    EXPECT_EQ(buf[0], 0xAB);
    EXPECT_EQ(buf[1], 0xAC);
    EXPECT_EQ(buf[2], 0);
    EXPECT_EQ(buf[3], 3);
    // The server fills the extension with a count from the packet's sequence number.
    for (int i = 5; i < 16; ++i)
        EXPECT_EQ(buf[i], static_cast<unsigned char>(buf[4] + i - 4));
    EXPECT_EQ(rtsp->FetchExtData(buf, 15), RTSP_EXT_NO_ROOM);
}

class ScriptedTransport : public ScriptedFixture, public ::testing::WithParamInterface<int> {};

TEST_P(ScriptedTransport, BitFlippedPacketsDoNoHarm) {
    Serve(Scenario({{"bitflip_rate", 0.3}, {"seed", 11}}));
    RtspReceiver receiver;
    ASSERT_EQ(receiver.Init(RecvParam(GetParam())), 0);
    FrameRecorder recorder;
    RecvFor(receiver, recorder, 2);
    EXPECT_GT(recorder.Frames().size(), 10u);

    auto fetcher = Fetcher(GetParam());
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 2);
}

TEST_P(ScriptedTransport, ByeStormEndsTheSessionOnce) {
    Serve(Scenario({{"bye_storm", 1000}, {"bye_after", 1.0}}));
    LogCapture log;
    RtspReceiver receiver;
    ASSERT_EQ(receiver.Init(RecvParam(GetParam())), 0);
    FrameRecorder recorder;
    const double ran = RecvFor(receiver, recorder, 20);
    EXPECT_LT(ran, 20) << "the BYE did not end the session";
    EXPECT_EQ(log.Count("Received RTCP \"BYE\""), 1);
    EXPECT_EQ(log.Count("Closing the stream"), 1);
    EXPECT_GT(recorder.Frames().size(), 10u);
}

// A recorder with many files open hands its sessions descriptors past select()'s limit.
TEST_P(ScriptedTransport, SessionOnDescriptorsPastTheSelectLimitReceives) {
    Serve();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlim_t wanted = FD_SETSIZE + 256;
    if (limit.rlim_max < wanted)
        GTEST_SKIP() << "descriptor limit " << limit.rlim_max;
    if (limit.rlim_cur < wanted) {
        limit.rlim_cur = wanted;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    std::vector<int> filler;
    while (filler.empty() || filler.back() < FD_SETSIZE + 16) {
        const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            break;
        filler.push_back(fd);
    }
    RtspReceiver receiver;
    ASSERT_EQ(receiver.Init(RecvParam(GetParam())), 0);
    FrameRecorder recorder(30);
    RecvFor(receiver, recorder, 10);
    for (int fd : filler)
        close(fd);
    EXPECT_EQ(recorder.Frames("video").size(), 30u);
}

INSTANTIATE_TEST_SUITE_P(Transports, ScriptedTransport,
                         ::testing::Values(RTSP_PROTOCOL_UDP, RTSP_PROTOCOL_TCP),
                         [](const auto& info) {
                             return std::string(info.param == RTSP_PROTOCOL_UDP ? "Udp" : "Tcp");
                         });

TEST_F(ScriptedFixture, OversizedFrameArrivesCutToTheBuffer) {
    Serve(Scenario({{"big_frame", 5 * 1024 * 1024}}));
    RtspReceiver receiver;
    ASSERT_EQ(receiver.Init(RecvParam()), 0);
    FrameRecorder recorder;
    RecvFor(receiver, recorder, 3);
    const auto frames = recorder.Frames("video");
    size_t cut = 0, after = 0;
    for (const auto& f : frames) {
        if (f.size == 0x400000)
            ++cut;
        else if (cut)
            ++after;
    }
    EXPECT_EQ(cut, 1u);
    EXPECT_GT(after, 5u) << "frames after the oversized one";

    // The fetcher takes it through its packer the same way.
    auto fetcher = Fetcher();
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 2);
}

TEST_F(ScriptedFixture, ServerClosingMidSessionEndsTheAttempt) {
    Serve(Scenario({{"close_after", 1.0}}));
    LogCapture log;
    auto fetcher = Fetcher();
    CollectingHandler handler;
    const double ran = FetchFor(*fetcher, handler, 60);
    EXPECT_LT(ran, 60) << "the loop did not end by itself";
    EXPECT_EQ(log.Count("Connection closed by the camera"), 1);
    FETCH_STATUS status;
    ASSERT_EQ(GetFetchStatus(fetcher.get(), &status), 0);
    EXPECT_EQ(status.iEndReason, FETCH_END_DROPPED);
    EXPECT_EQ(status.bMayReconnect, 1);
}

struct BadSdpCase {
    const char* name;
    std::string sdp;
    const char* log;  // a line the fetcher must write; empty for none
};

void PrintTo(const BadSdpCase& c, std::ostream* os) {
    *os << c.name;
}

const std::string kHead = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=bad\r\nt=0 0\r\n";

class ScriptedBadSdp : public ScriptedFixture, public ::testing::WithParamInterface<BadSdpCase> {};

TEST_P(ScriptedBadSdp, HostileDescriptionsAreSurvived) {
    Serve(Scenario({{"sdp", GetParam().sdp}}));
    LogCapture log;
    auto fetcher = Fetcher();
    CollectingHandler handler;
    FetchFor(*fetcher, handler, 1.5);
    if (*GetParam().log) {
        EXPECT_GE(log.Count(GetParam().log), 1);
    }
    ESFormat video;
    EXPECT_EQ(fetcher->GetVideoFormat(video), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ScriptedBadSdp,
    ::testing::Values(
        BadSdpCase{"Empty", "", "Failed to create a MediaSession object from the SDP description"},
        BadSdpCase{"Garbage", "\x01\x02 hello\r\n~~~ =\r\n", ""},
        BadSdpCase{"BogusSprop",
                   kHead + "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
                           "a=fmtp:96 sprop-parameter-sets=!!!,Z0IAHpWoLQSZ,@@\r\n"
                           "a=control:track1\r\n",
                   "Bad parameter set[!!!]"},
        BadSdpCase{"BadMpeg4Config",
                   kHead + "m=video 0 RTP/AVP 96\r\na=rtpmap:96 MP4V-ES/90000\r\n"
                           "a=fmtp:96 config=XYZ\r\na=control:track1\r\n",
                   "Bad config["},
        BadSdpCase{"HugeAttribute",
                   kHead + "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n" +
                       "a=fmtp:96 sprop-parameter-sets=" + std::string(200000, 'A') +
                       "\r\na=control:track1\r\n",
                   ""},
        BadSdpCase{"UnknownCodec",
                   kHead + "m=video 0 RTP/AVP 96\r\na=rtpmap:96 FOO/90000\r\na=control:track1\r\n",
                   "Failed to initiate subsession[RTP payload format unknown"},
        BadSdpCase{"NoRtpmapForDynamicType", kHead + "m=video 0 RTP/AVP 96\r\na=control:track1\r\n",
                   ""},
        BadSdpCase{"BrokenMediaLine", kHead + "m=video abc RTP/AVP\r\nm=\r\n", ""}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
