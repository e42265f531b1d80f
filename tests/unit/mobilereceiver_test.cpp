#include "mobile/mobilereceiver.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "mobile/mobilepayloadheader.h"
#include "mobile_test_support.h"
#include "scripted_clock.h"

// Fills the receiver's buffer as a read would, and reads its parse state.
struct MobileReceiverInspector {
    static void Append(MobileReceiver& r, const std::string& bytes) {
        ASSERT_LE(r.m_uFillLen + bytes.size(), MobileReceiver::kMaxFill);
        memcpy(r.m_pRecvBuf.get() + r.m_uFillLen, bytes.data(), bytes.size());
        r.m_uFillLen += static_cast<uint32_t>(bytes.size());
    }
    static uint32_t Fill(const MobileReceiver& r) { return r.m_uFillLen; }
    static uint32_t Offset(const MobileReceiver& r) { return r.m_uParseOft; }
    static uint32_t Pending(const MobileReceiver& r) { return r.m_uPendingLen; }
};

namespace {

using mobiletest::Delivery;
using mobiletest::Message;
using mobiletest::NoticeHandler;
using mobiletest::RecordingCtrler;

constexpr long long kClockStart = 1700000000000000LL;

TEST(MobilePayloadHeader, KeysValuesAndHostileNumbers) {
    struct Row {
        const char* block;
        const char* type;
        uint32_t length;
        bool hasTimestamp;
        long long timestamp;
    } rows[] = {
        {"Content-Type: video/h264\r\nContent-Length: 12\r\nTimeStamp: 1500000123", "video/h264",
         12, true, 1500000123},
        {"Content-Type:audio/aac\r\nContent-Length:  7", "audio/aac", 7, false, 0},
        {"X-Extra: 1\r\ncontent-type: a\r\nContent-Length: 3", "", 3, false, 0},
        {"Content-Type: media-info\r\nContent-Length: -3", "media-info", 0, false, 0},
        {"Content-Type: a\r\nContent-Length: 4294967296", "a", 0, false, 0},
        {"Content-Type: a\r\nContent-Length: 4294967295", "a", 4294967295u, false, 0},
        {"Content-Type: a\r\nContent-Length: 12abc\r\nTimeStamp: x1", "a", 0, false, 0},
        {"Content-Type: a\r\nTimeStamp: 99999999999999999999", "a", 0, false, 0},
        {"Content-Type: video/h264 trailing words", "video/h264", 0, false, 0},
        {"::: \r\n\r\n: Content-Type", "", 0, false, 0},
        {"", "", 0, false, 0},
    };
    for (const Row& r : rows) {
        MobilePayloadHeader h = ParseMobilePayloadHeader(r.block);
        EXPECT_EQ(h.contentType, r.type) << r.block;
        EXPECT_EQ(h.contentLen, r.length) << r.block;
        EXPECT_EQ(h.hasTimestamp, r.hasTimestamp) << r.block;
        EXPECT_EQ(h.timestampUs, r.timestamp) << r.block;
    }
}

// The parse state left at the end of a stream; all zero when everything was consumed.
struct ParseEnd {
    uint32_t offset, fill, pending;
    int headerFailures;  // "Parse Payload Header failed" lines
};

struct ParseCase {
    const char* name;
    std::vector<std::string> reads;
    // After each read: the result of ParseDataAndCallBack and the payloads delivered so far.
    std::vector<std::pair<int, size_t>> after;
    std::vector<Delivery> deliveries;  // all of them, in order
    ParseEnd end = {0, 0, 0, 0};
};

// A payload with the bytes a text parser would trip over.
constexpr char kBinaryBytes[] = "\0\r\n\r\nContent-Length: 1\r\n\r\n\xff\x00";
const std::string kBinary(kBinaryBytes, sizeof(kBinaryBytes) - 1);

std::vector<ParseCase> ParseCases() {
    const std::string m1 = Message("video/h264", "abc", 1500000123);
    const std::string big(100, 'x');
    const std::string m2 = Message("audio/aac", big, 42);
    const size_t m2Header = m2.size() - big.size();
    const std::string m3 = Message("media-info", "video-h264/audio-aac");
    const std::string m4 = Message("video/h264", kBinary, 7);
    const std::string noLength = "Content-Type: video/h264\r\nTimeStamp: 5\r\n\r\n";
    const std::string zeroLength = "Content-Type: video/h264\r\nContent-Length: 0\r\n\r\n";
    const std::string noType = "Content-Length: 3\r\nTimeStamp: 5\r\n\r\nabc";
    const std::string garbage("\x01\x02\0garbage\xff\r\n", 13);
    const Delivery d1{"video/h264", "abc", 1500000123};
    const Delivery d2{"audio/aac", big, 42};
    const Delivery d3{"media-info", "video-h264/audio-aac", kClockStart};
    const Delivery d4{"video/h264", kBinary, 7};
    auto size = [](size_t n) { return static_cast<uint32_t>(n); };

    return {
        {"OneMessage", {m1}, {{1, 1}}, {d1}},
        {"PayloadSplitOverThreeReads",
         {m2.substr(0, m2Header + 10), m2.substr(m2Header + 10, 50), m2.substr(m2Header + 60)},
         {{1, 0}, {1, 0}, {1, 1}},
         {d2}},
        {"HeaderSplitAcrossReads", {m2.substr(0, 20), m2.substr(20)}, {{1, 0}, {1, 1}}, {d2}},
        {"TerminatorSplitAcrossReads",
         {m1.substr(0, m1.size() - 5), m1.substr(m1.size() - 5)},
         {{1, 0}, {1, 1}},
         {d1}},
        {"SeveralMessagesInOneRead", {m1 + m2 + m3 + m4}, {{1, 4}}, {d1, d2, d3, d4}},
        {"PendingCompletesThenMoreInTheSameRead",
         {m2.substr(0, m2Header + 30), m2.substr(m2Header + 30) + m1 + m4.substr(0, m4.size() - 5)},
         {{1, 0}, {1, 2}},
         {d2, d1},
         {0, size(kBinary.size() - 5), size(kBinary.size()), 0}},
        {"PartialHeaderIsCompactedToTheFront",
         {m1 + m2.substr(0, 9)},
         {{1, 1}},
         {d1},
         {0, 9, 0, 0}},
        {"MissingContentLengthStallsEverythingBehind",
         {m1 + noLength + m3, m4},
         {{0, 1}, {0, 1}},
         {d1},
         {size(m1.size()), size(m1.size() + noLength.size() + m3.size() + m4.size()), 0, 1}},
        {"ZeroContentLengthStalls",
         {zeroLength + m1},
         {{0, 0}},
         {},
         {0, size(zeroLength.size() + m1.size()), 0, 1}},
        {"MissingContentTypeStalls",
         {noType + m1},
         {{0, 0}},
         {},
         {0, size(noType.size() + m1.size()), 0, 1}},
        {"GarbageWithoutTerminatorWaits", {garbage}, {{1, 0}}, {}, {0, 13, 0, 0}},
        {"GarbageHeaderStalls",
         {garbage, "\r\n" + m1},
         {{1, 0}, {0, 0}},
         {},
         {0, size(15 + m1.size()), 0, 1}},
    };
}

// A receiver parsing into a recording controller, without a socket.
struct Parsing {
    Parsing() {
        MOBILE_RECV_PARAM param;
        param.pReceiverCtrler = &ctrler;
        receiver.Init(param);
    }
    RecordingCtrler ctrler;
    MobileReceiver receiver;
};

TEST(MobileReceiverParse, TableOfStreams) {
    for (const ParseCase& c : ParseCases()) {
        SCOPED_TRACE(c.name);
        ScriptedClock clock(kClockStart);
        LogCapture log;
        Parsing p;
        for (size_t i = 0; i < c.reads.size(); ++i) {
            MobileReceiverInspector::Append(p.receiver, c.reads[i]);
            EXPECT_EQ(p.receiver.ParseDataAndCallBack(), c.after[i].first) << "read " << i;
            EXPECT_EQ(p.ctrler.deliveries.size(), c.after[i].second) << "read " << i;
        }
        ASSERT_EQ(p.ctrler.deliveries.size(), c.deliveries.size());
        for (size_t i = 0; i < c.deliveries.size(); ++i) {
            EXPECT_EQ(p.ctrler.deliveries[i].type, c.deliveries[i].type) << i;
            EXPECT_EQ(p.ctrler.deliveries[i].payload, c.deliveries[i].payload) << i;
            EXPECT_EQ(p.ctrler.deliveries[i].timestampUs, c.deliveries[i].timestampUs) << i;
        }
        EXPECT_EQ(MobileReceiverInspector::Offset(p.receiver), c.end.offset);
        EXPECT_EQ(MobileReceiverInspector::Fill(p.receiver), c.end.fill);
        EXPECT_EQ(MobileReceiverInspector::Pending(p.receiver), c.end.pending);
        EXPECT_EQ(log.Count("Parse Payload Header failed"), c.end.headerFailures);
    }
}

TEST(MobileReceiverParse, ReportsTheMalformedHeaderValues) {
    LogCapture log;
    Parsing p;
    MobileReceiverInspector::Append(p.receiver, "Content-Type: audio/aac\r\n\r\nxyz");
    EXPECT_EQ(p.receiver.ParseDataAndCallBack(), 0);
    EXPECT_EQ(log.Count("Parse Payload Header failed: ContentType[audio/aac], ContentLen[0]."), 1);
}

TEST(MobileReceiverParse, PayloadAsLargeAsTheBufferAllows) {
    Parsing p;
    std::string payload(MobileReceiver::kMaxFill - 200, '\x5a');
    payload.front() = 1;
    payload.back() = 2;
    const std::string m = Message("video/h264", payload, 9);
    // Arrives in 64 KiB reads, as from the socket.
    for (size_t done = 0; done < m.size(); done += 65536) {
        MobileReceiverInspector::Append(p.receiver, m.substr(done, 65536));
        EXPECT_EQ(p.receiver.ParseDataAndCallBack(), 1);
    }
    ASSERT_EQ(p.ctrler.deliveries.size(), 1u);
    EXPECT_EQ(p.ctrler.deliveries[0].payload, payload);
    EXPECT_EQ(MobileReceiverInspector::Fill(p.receiver), 0u);
}

MOBILE_RECV_PARAM Param(MobileReceiverCtrler* ctrler, int timeout, const std::string& path = "",
                        long long start = 0) {
    MOBILE_RECV_PARAM p;
    p.pReceiverCtrler = ctrler;
    p.strPath = path;
    p.llAbsStartTime = start;
    p.iTimeout = timeout;
    p.iReceiverId = mobiletest::UniqueReceiverId();
    return p;
}

TEST(MobileReceiverLoop, RefusesToRunWithoutHandlerOrController) {
    LogCapture log;
    RecordingCtrler ctrler;
    MobileReceiver receiver;
    receiver.DoRecvLoop(nullptr);
    EXPECT_EQ(log.Count("pTransNoticeHandler can not be a null."), 1);
    NoticeHandler handler;
    receiver.DoRecvLoop(&handler);
    EXPECT_EQ(log.Count("pReceiverCtrler can not be a null."), 1);
    EXPECT_TRUE(handler.notices.empty());
}

TEST(MobileReceiverLoop, RefusedStartSendsNoStopNotice) {
    struct Row {
        const char* name;
        std::string path;
        long long start;
        Json::Value reply;
        const char* logged;
    };
    Json::Value stringSuccess(Json::objectValue);
    stringSuccess["success"] = "true";
    std::vector<Row> rows = {
        {"LiveRefused", "", 0, NoticeHandler::Refusal("client busy"),
         "Notify mobile start stream failed: client busy"},
        {"RecordedRefused", "rec7", 1600000000123456LL, NoticeHandler::Refusal("no such record"),
         "Notify mobile start stream failed: no such record"},
        {"EmptyReply", "", 0, Json::Value(), "Notify mobile start stream failed: "},
        {"ReplyNotAnObject", "", 0, Json::Value(Json::arrayValue),
         "Notify mobile start stream failed: "},
        {"SuccessNotABoolean", "", 0, stringSuccess, "Notify mobile start stream failed: "},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        LogCapture log;
        RecordingCtrler ctrler;
        NoticeHandler handler(r.reply);
        MobileReceiver receiver;
        MOBILE_RECV_PARAM p = Param(&ctrler, 5, r.path, r.start);
        receiver.Init(p);
        receiver.DoRecvLoop(&handler);

        ASSERT_EQ(handler.notices.size(), 1u) << "no stop notice after a refused start";
        const Json::Value& n = handler.notices[0];
        EXPECT_EQ(n["type"].asString(), "startStream");
        EXPECT_EQ(n["path"].asString(), r.path.empty() ? "live" : r.path);
        EXPECT_EQ(n["dstSockName"].asString(), "kv_mobile_receiver_" +
                                                   std::to_string(p.iReceiverId) + "_" +
                                                   (r.path.empty() ? "live" : r.path));
        EXPECT_EQ(n.isMember("stmAbsStartTm"), !r.path.empty());
        if (!r.path.empty()) {
            EXPECT_EQ(n["stmAbsStartTm"].asInt64(), r.start);
        }
        EXPECT_EQ(log.Count(r.logged), 1);
        EXPECT_FALSE(mobiletest::FileExists(receiver.SocketPath()));
    }
}

TEST(MobileReceiverLoop, UnbindablePathEndsBeforeTheStartNotice) {
    LogCapture log;
    RecordingCtrler ctrler;
    NoticeHandler handler;
    MobileReceiver receiver;
    receiver.Init(Param(&ctrler, 5, std::string(120, 'p')));
    receiver.DoRecvLoop(&handler);
    EXPECT_EQ(log.Count("Failed to bind ListenFd["), 1);
    EXPECT_EQ(handler.NoticeTypes(), std::vector<std::string>{"stopStream"});
}

TEST(MobileReceiverLoop, SecondCallIsIgnoredAndEndsTheRunningLoop) {
    LogCapture log;
    RecordingCtrler ctrler;
    NoticeHandler handler;
    MobileReceiver receiver;
    receiver.Init(Param(&ctrler, 60));
    const std::string path = receiver.SocketPath();
    auto running = std::async(std::launch::async, [&]() { receiver.DoRecvLoop(&handler); });
    for (int i = 0; i < 1000 && handler.NoticeTypes().empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(mobiletest::FileExists(path));

    NoticeHandler second;
    receiver.DoRecvLoop(&second);
    EXPECT_EQ(log.Count("Ignore DoRecvLoop because previous recvloop not yet stop."), 1);
    EXPECT_TRUE(second.notices.empty());
    // The refused call cleared the running loop's flag: it ends by itself.
    ASSERT_EQ(running.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(handler.NoticeTypes(), (std::vector<std::string>{"startStream", "stopStream"}));
    EXPECT_EQ(log.Count("Recv data timeout"), 0);
    EXPECT_FALSE(mobiletest::FileExists(path));
}

}  // namespace
