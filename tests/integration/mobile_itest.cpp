// Mobile push against a real client: tests/integration/mobile_push_client.py pushes
// ffmpeg-made H.264 and ADTS AAC into the receiver's Unix socket at real-time pace, in
// writes of random sizes; ffmpeg judges what the library delivered.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../unit/log_capture.h"
#include "../unit/mobile_test_support.h"
#include "mobile/mobilefetch.h"
#include "mobile/mobilereceiver.h"
#include "packetizer/mpeg4audiopacket.h"
#include "packetizer/mpeg4videopacket.h"
#include "process.h"

namespace {

using mobiletest::NoticeHandler;
using mobiletest::RecordingCtrler;
using testsupport::RunCommand;
using testsupport::ServerProcess;
using testsupport::TempDir;

const std::string kClient = std::string(TEST_DATA_DIR) + "/mobile_push_client.py";

// One message the client sent, as its manifest records it.
struct Pushed {
    std::string type;
    bool hasTs = false;
    long long ts = 0;
    std::string payload;
    std::string tags;
};

std::vector<Pushed> ReadManifest(const std::string& manifest, const std::string& payloads) {
    std::vector<Pushed> out;
    std::ifstream lines(manifest);
    std::ifstream bytes(payloads, std::ios::binary);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream in(line);
        int seq;
        std::string ts;
        size_t length;
        Pushed p;
        in >> seq >> p.type >> ts >> length >> p.tags;
        p.hasTs = ts != "-";
        p.ts = p.hasTs ? std::stoll(ts) : 0;
        p.payload.resize(length);
        bytes.read(&p.payload[0], static_cast<std::streamsize>(length));
        out.push_back(p);
    }
    return out;
}

// The media the client pushes: 1.6 s of 25 fps baseline H.264 with a key picture every ten,
// and 48 kHz stereo AAC in ADTS.
class MobileMedia : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_dir = new TempDir;
        s_video = s_dir->File("push.h264");
        s_audio = s_dir->File("push.aac");
        auto v =
            RunCommand({"ffmpeg",     "-v",       "error",        "-y",
                        "-f",         "lavfi",    "-i",           "testsrc=size=160x120:rate=25",
                        "-t",         "1.6",      "-c:v",         "libx264",
                        "-profile:v", "baseline", "-g",           "10",
                        "-bf",        "0",        "-x264-params", "scenecut=0",
                        "-pix_fmt",   "yuv420p",  "-f",           "h264",
                        s_video});
        auto a = RunCommand({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                             "sine=frequency=440:sample_rate=48000", "-ac", "2", "-t", "1.6",
                             "-c:a", "aac", "-b:a", "64k", "-f", "adts", s_audio});
        s_ready = v.exitCode == 0 && a.exitCode == 0;
    }
    static void TearDownTestSuite() {
        delete s_dir;
        s_dir = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(s_ready) << "ffmpeg could not make the test media"; }

    // Starts the client against the socket of a receiver; it waits for the socket itself.
    void StartClient(const std::string& socketPath, const std::vector<std::string>& extra) {
        std::vector<std::string> argv = {"python3",    kClient,    "--socket",   socketPath,
                                         "--manifest", Manifest(), "--payloads", Payloads()};
        argv.insert(argv.end(), {"--ready", m_dir.File("ready")});
        argv.insert(argv.end(), extra.begin(), extra.end());
        ASSERT_TRUE(m_client.Start(argv, 60, m_dir.File("client.log")));
        // The receiver gives a client one second to connect: start listening only once the
        // client has its messages ready, however slow the machine is today.
        for (int i = 0; i < 600 && !mobiletest::FileExists(m_dir.File("ready")); ++i)
            usleep(50000);
    }
    // Waits for the client to finish by itself and returns what it sent.
    std::vector<Pushed> ClientSent() {
        int status = -1;
        EXPECT_TRUE(m_client.WaitExit(30, &status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << testsupport::ReadFile(m_dir.File("client.log"));
        return ReadManifest(Manifest(), Payloads());
    }
    std::string Manifest() const { return m_dir.File("manifest.txt"); }
    std::string Payloads() const { return m_dir.File("payloads.bin"); }

    static TempDir* s_dir;
    static std::string s_video, s_audio;
    static bool s_ready;
    TempDir m_dir;
    ServerProcess m_client;
};
TempDir* MobileMedia::s_dir = nullptr;
std::string MobileMedia::s_video, MobileMedia::s_audio;
bool MobileMedia::s_ready = false;

MOBILE_RECV_PARAM ReceiverParam(MobileReceiverCtrler* ctrler, int timeout) {
    MOBILE_RECV_PARAM p;
    p.pReceiverCtrler = ctrler;
    p.iTimeout = timeout;
    p.iReceiverId = mobiletest::UniqueReceiverId();
    return p;
}

using MobileReceiverPush = MobileMedia;

TEST_F(MobileReceiverPush, EveryPayloadOnceInOrderWithItsTimestamp) {
    LogCapture log;
    RecordingCtrler ctrler;
    NoticeHandler handler;
    MobileReceiver receiver;
    receiver.Init(ReceiverParam(&ctrler, 10));
    StartClient(receiver.SocketPath(), {"--video", s_video, "--audio", s_audio});
    receiver.DoRecvLoop(&handler);
    const std::vector<Pushed> sent = ClientSent();

    ASSERT_GT(sent.size(), 100u);
    ASSERT_EQ(ctrler.deliveries.size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(ctrler.deliveries[i].type, sent[i].type);
        EXPECT_EQ(ctrler.deliveries[i].payload, sent[i].payload);
        if (sent[i].hasTs) {
            EXPECT_EQ(ctrler.deliveries[i].timestampUs, sent[i].ts);
        } else {
            EXPECT_GT(ctrler.deliveries[i].timestampUs, 0) << "arrival time";
        }
    }
    EXPECT_EQ(handler.NoticeTypes(), (std::vector<std::string>{"startStream", "stopStream"}));
    EXPECT_EQ(log.Count("read end of data."), 1);
    EXPECT_EQ(log.Count("Parse Payload Header failed"), 0);
    EXPECT_FALSE(mobiletest::FileExists(receiver.SocketPath()));
}

TEST_F(MobileReceiverPush, MalformedHeaderStallsUntilTheBufferFillsOrTheClientIdles) {
    struct Row {
        const char* after;
        const char* endLog;
    } rows[] = {
        {"fill", "ReadBuf[4194303] is not enough for recving a frame."},
        {"idle", "Recv data timeout[1]: ListenFd["},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.after);
        LogCapture log;
        RecordingCtrler ctrler;
        NoticeHandler handler;
        MobileReceiver receiver;
        receiver.Init(ReceiverParam(&ctrler, 1));
        StartClient(receiver.SocketPath(), {"--mode", "bad-header", "--after", r.after, "--idle",
                                            "3", "--video", s_video, "--audio", s_audio});
        receiver.DoRecvLoop(&handler);
        const std::vector<Pushed> sent = ClientSent();

        size_t bad = 0;
        while (bad < sent.size() && sent[bad].tags != "bad")
            ++bad;
        ASSERT_LT(bad + 1, sent.size()) << "messages follow the malformed header";
        ASSERT_EQ(ctrler.deliveries.size(), bad) << "nothing behind the header is delivered";
        for (size_t i = 0; i < bad; ++i)
            EXPECT_EQ(ctrler.deliveries[i].payload, sent[i].payload);
        EXPECT_EQ(log.Count("Parse Payload Header failed: ContentType[video/h264], ContentLen[0]."),
                  1);
        EXPECT_EQ(log.Count(r.endLog), 1);
        EXPECT_EQ(handler.NoticeTypes(), (std::vector<std::string>{"startStream", "stopStream"}));
        EXPECT_FALSE(mobiletest::FileExists(receiver.SocketPath()));
    }
}

TEST(MobileReceiverIdle, NoClientEndsWithTheTimeoutAndAStopNotice) {
    LogCapture log;
    RecordingCtrler ctrler;
    NoticeHandler handler;
    MobileReceiver receiver;
    receiver.Init(ReceiverParam(&ctrler, 1));
    receiver.DoRecvLoop(&handler);
    EXPECT_EQ(log.Count("Recv data timeout[1]: ListenFd["), 1);
    EXPECT_EQ(log.Count("ReadFd[-1]"), 1);
    EXPECT_EQ(handler.NoticeTypes(), (std::vector<std::string>{"startStream", "stopStream"}));
    EXPECT_TRUE(ctrler.deliveries.empty());
    EXPECT_FALSE(mobiletest::FileExists(receiver.SocketPath()));
}

// What the host sees of a mobile fetch: the set-up call and every delivered block.
class RecordingHost : public NoticeHandler {
public:
    struct Block {
        int es;
        std::string bytes;
        long long pts;
    };
    void InitHandler(const ESFormat& video, const ESFormat& audio) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        events.push_back("init");
        NoticeHandler::InitHandler(video, audio);
    }
    int ProcessMediaBlock(ESFormat& format, MediaBlock* block) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        events.push_back("block");
        delivered.push_back(
            {format.i_cat,
             std::string(reinterpret_cast<const char*>(block->GetFrame()), block->GetFrameSize()),
             block->GetPTS()});
        if (format.i_cat == AUDIO_ES)
            audioFormat = format;
        delete block;
        return 0;
    }
    std::vector<std::string> events;
    std::vector<Block> delivered;
    ESFormat audioFormat;

private:
    std::mutex m_mutex;
};

FETCH_PARAM FetchParam(int timeout) {
    FETCH_PARAM p;
    p.bHasAudio = true;
    p.iTimeout = timeout;
    p.iMobileOpt = mobiletest::UniqueReceiverId();
    p.iStreamMode = 3;
    return p;
}

std::string FetchSocketPath(const FETCH_PARAM& p) {
    return "/tmp/kv_mobile_receiver_" + std::to_string(p.iMobileOpt) + "_live.sock";
}

// Whether the packetizers of this tree cut the test media into units at all.
bool PacketizersProduce(const std::string& video, const std::string& audio) {
    auto produces = [](Packetizer& p, uint32_t cat, uint32_t codec, const std::string& bytes) {
        PACK_STREAM s;
        s.fmt.i_cat = static_cast<int>(cat);
        s.fmt.i_codec = codec;
        if (p.InitPacket(&s) != 0)
            return false;
        MediaBlock* in = new MediaBlock(static_cast<int>(bytes.size()),
                                        reinterpret_cast<const unsigned char*>(bytes.data()));
        in->SetPTS(1000000);
        in->SetDTS(1000000);
        int units = 0;
        while (MediaBlock* out = p.Packetize(&s, &in)) {
            ++units;
            delete out;
        }
        delete in;
        p.FreePacket(&s);
        return units > 0;
    };
    Mpeg4VideoPacketizer v(0);
    Mpeg4AudioPacketizer a;
    return produces(v, VIDEO_ES, kCodecH264, testsupport::ReadFile(video)) &&
           produces(a, AUDIO_ES, kCodecMp4a, testsupport::ReadFile(audio));
}

std::vector<std::string> FrameMd5s(const std::string& file, std::string* errors) {
    auto r = RunCommand({"ffmpeg", "-v", "error", "-i", file, "-f", "framemd5", "-"});
    if (errors)
        *errors = r.err;
    std::vector<std::string> md5s;
    std::istringstream in(r.out);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty() && line[0] != '#')
            md5s.push_back(line.substr(line.rfind(' ') + 1));
    return md5s;
}

size_t AdtsHeaderSize(const std::string& frame) {
    return (frame[1] & 1) ? 7 : 9;
}

// An ADTS header for a raw AAC frame, from the stream's AudioSpecificConfig.
std::string AdtsFrame(const ESFormat& fmt, const std::string& raw) {
    const int object = fmt.p_extra[0] >> 3;
    const int index = ((fmt.p_extra[0] & 7) << 1) | (fmt.p_extra[1] >> 7);
    const int channels = (fmt.p_extra[1] >> 3) & 15;
    const size_t length = raw.size() + 7;
    std::string h(7, '\0');
    h[0] = '\xff';
    h[1] = '\xf1';
    h[2] = static_cast<char>(((object - 1) << 6) | (index << 2) | (channels >> 2));
    h[3] = static_cast<char>(((channels & 3) << 6) | (length >> 11));
    h[4] = static_cast<char>((length >> 3) & 0xff);
    h[5] = static_cast<char>(((length & 7) << 5) | 0x1f);
    h[6] = '\xfc';
    return h + raw;
}

using MobileFetchPush = MobileMedia;

TEST_F(MobileFetchPush, NothingBeforeTheDescriptionThenDecodablePicturesAndAudio) {
    LogCapture log;
    FETCH_PARAM p = FetchParam(10);
    MobileFetch fetch(p);
    RecordingHost host;
    // Audio starts 100 ms after video: the first pictures, the first key picture among them,
    // arrive before the set is complete and are dropped; the first audio frame completes it.
    StartClient(FetchSocketPath(p),
                {"--video", s_video, "--audio", s_audio, "--audio-offset-ms", "100"});
    fetch.DoFetchLoop(&host);
    const std::vector<Pushed> sent = ClientSent();

    ASSERT_EQ(host.initVideo.size(), 1u);
    ASSERT_FALSE(host.events.empty());
    EXPECT_EQ(host.events.front(), "init") << "nothing reaches the host before the set-up";
    std::string sps, pps;
    size_t completing = 0;
    for (size_t i = 0; i < sent.size(); ++i) {
        if (sent[i].tags == "sps")
            sps = sent[i].payload;
        if (sent[i].tags == "pps")
            pps = sent[i].payload;
        if (!completing && sent[i].type == "audio/aac")
            completing = i;
    }
    ASSERT_GT(completing, 0u);
    const ESFormat& video = host.initVideo[0];
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(video.p_extra), video.i_extra), sps + pps);
    EXPECT_EQ(host.initAudio[0].i_codec, kCodecMp4a);
    EXPECT_EQ(host.initAudio[0].audio.i_rate, 48000u);
    EXPECT_EQ(host.initAudio[0].audio.i_channels, 2u);
    EXPECT_EQ(host.initAudio[0].audio.i_frame_length, 1024u);
    EXPECT_EQ(log.Count("Packer process failed"), 0);
    EXPECT_EQ(host.NoticeTypes(), (std::vector<std::string>{"startStream", "stopStream"}));
    EXPECT_FALSE(mobiletest::FileExists(FetchSocketPath(p)));

    if (!PacketizersProduce(s_video, s_audio))
        GTEST_SKIP() << "the H.264 or AAC packetizer of this tree yields no units yet; the "
                        "decoding half of this test runs once both are in";

    // Pictures: from the first key picture pushed after the set was complete, each one
    // decodes to the very frame that was pushed. At most the last two stay in the packetizer:
    // the last slice is cut only at the next start code, and its picture only ends when the
    // next picture begins.
    std::vector<Pushed> pictures;
    size_t firstKey = SIZE_MAX;
    for (size_t i = 0; i < sent.size(); ++i) {
        if (sent[i].type != "video/h264" || sent[i].tags == "sps" || sent[i].tags == "pps")
            continue;
        if (i > completing && sent[i].tags == "key" && firstKey == SIZE_MAX)
            firstKey = pictures.size();
        pictures.push_back(sent[i]);
    }
    ASSERT_NE(firstKey, SIZE_MAX);
    std::string videoBytes;
    std::vector<long long> videoPts;
    std::vector<std::string> audioFrames;
    for (const auto& b : host.delivered) {
        if (b.es == VIDEO_ES) {
            videoBytes += b.bytes;
            videoPts.push_back(b.pts);
        } else {
            audioFrames.push_back(b.bytes);
        }
    }
    testsupport::WriteFile(m_dir.File("delivered.h264"), videoBytes);
    std::string errors;
    const std::vector<std::string> source = FrameMd5s(s_video, nullptr);
    const std::vector<std::string> decoded = FrameMd5s(m_dir.File("delivered.h264"), &errors);
    EXPECT_EQ(errors, "") << "the delivered pictures decode cleanly";
    ASSERT_EQ(source.size(), pictures.size());
    ASSERT_GE(decoded.size() + 2, source.size() - firstKey);
    ASSERT_LE(decoded.size(), source.size() - firstKey);
    for (size_t i = 0; i < decoded.size(); ++i)
        EXPECT_EQ(decoded[i], source[firstKey + i]) << "picture " << firstKey + i;
    // The pushed 40 ms steps survive into the delivered time line. The first picture keeps
    // the time of the first slice the packetizer saw, even one dropped before the set was
    // complete, so the steps are checked from the second picture on.
    for (size_t i = 2; i < videoPts.size(); ++i)
        EXPECT_EQ(videoPts[i] - videoPts[i - 1], 40000) << "picture " << i;

    // Audio: the frame that completed the set and every later one, as raw AAC frames equal
    // to the pushed ADTS bodies; at most the last stays in the packetizer.
    std::vector<std::string> pushedAudio;
    for (size_t i = completing; i < sent.size(); ++i)
        if (sent[i].type == "audio/aac")
            pushedAudio.push_back(sent[i].payload.substr(AdtsHeaderSize(sent[i].payload)));
    ASSERT_GE(audioFrames.size() + 1, pushedAudio.size());
    ASSERT_LE(audioFrames.size(), pushedAudio.size());
    for (size_t i = 0; i < audioFrames.size(); ++i)
        EXPECT_EQ(audioFrames[i], pushedAudio[i]) << "audio frame " << i;
    ASSERT_EQ(host.audioFormat.i_extra, 2) << "AudioSpecificConfig of the delivered stream";
    std::string adts;
    for (const std::string& f : audioFrames)
        adts += AdtsFrame(host.audioFormat, f);
    testsupport::WriteFile(m_dir.File("delivered.aac"), adts);
    auto decode =
        RunCommand({"ffmpeg", "-v", "error", "-i", m_dir.File("delivered.aac"), "-f", "null", "-"});
    EXPECT_EQ(decode.exitCode, 0);
    EXPECT_EQ(decode.err, "") << "the delivered audio decodes cleanly";
}

TEST_F(MobileFetchPush, StopFetchLoopFromAnotherThreadEndsTheLoop) {
    LogCapture log;
    FETCH_PARAM p = FetchParam(60);
    MobileFetch fetch(p);
    RecordingHost host;
    StartClient(FetchSocketPath(p), {"--mode", "idle", "--idle", "30"});
    auto loop = std::async(std::launch::async, [&]() { fetch.DoFetchLoop(&host); });
    for (int i = 0; i < 2000 && log.Count("ContentType[media-info]") == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(log.Count("ContentType[media-info]"), 1) << "the client is connected";

    fetch.StopFetchLoop();
    ASSERT_EQ(loop.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_FALSE(mobiletest::FileExists(FetchSocketPath(p)));
    EXPECT_EQ(host.NoticeTypes(), (std::vector<std::string>{"startStream", "stopStream"}));
    EXPECT_EQ(log.Count("Recv data timeout"), 0);
    EXPECT_EQ(log.Count("read end of data."), 0);
    m_client.Stop();
}

}  // namespace
