// The multipart parser byte for byte, through the in-memory HTTP client, so that these cases
// (and the hostile streams at the end) also run under the sanitizers. Real transports are
// covered by the integration tests against the simulated camera and ffmpeg.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../unit/log_capture.h"
#include "core/fetcher.h"
#include "http/multipartfetch.h"
#include "scriptedhttp.h"

namespace {

const char kType[] = "multipart/x-mixed-replace;boundary=b";

class MultipartParser : public ::testing::Test {
protected:
    void SetUp() override { scriptedhttp::Clear(); }
    void TearDown() override { scriptedhttp::Clear(); }

    static void Serve(const std::string& body, const std::string& type = kType,
                      int contentTypeRetry = -1) {
        scriptedhttp::Response r;
        r.contentType = type;
        r.body = std::make_shared<const std::string>(body);
        r.checkContentTypeResult = contentTypeRetry;
        r.arrival = 3;  // partial reads come in small pieces
        scriptedhttp::Serve("/cam", r);
    }

    static std::unique_ptr<MultipartFetch> Make(int mode = 1, uint32_t flags = 0) {
        FETCH_PARAM p;
        p.strHost = "camera";
        p.iPort = 80;
        p.strPath = "/cam";
        p.strUser = "user";
        p.strPassword = "pw";
        p.iTimeout = 7;
        p.iStreamMode = mode;
        p.uFlags = flags;
        return std::unique_ptr<MultipartFetch>(static_cast<MultipartFetch*>(FetcherFactory(3, p)));
    }

    struct Info {
        int rc = -1;
        unsigned size = 0;
        std::string type;
        int kind = -1;
    };
    static Info Next(MultipartFetch& f) {
        Info i;
        char type[64] = {};
        i.rc = f.NextPartInfo(i.size, type, sizeof(type), i.kind);
        i.type = type;
        return i;
    }
    static std::string Fetch(MultipartFetch& f, unsigned size) {
        std::string body(size, '\0');
        const int r = f.FetchContent(reinterpret_cast<unsigned char*>(&body[0]), size);
        return r == 0 ? body : "<" + std::to_string(r) + ">";
    }
};

// The body "HELLO" (no length header) comes out exactly when the boundary was taken right.
TEST_F(MultipartParser, BoundaryFromTheContentType) {
    struct Case {
        const char* type;
        const char* delimiter;
    };
    for (const Case& c : {Case{"multipart/x-mixed-replace;boundary=myboundary", "--myboundary"},
                          Case{"multipart/x-mixed-replace; boundary=--myboundary", "--myboundary"},
                          Case{"multipart/x-mixed-replace; boundary=\"abc\"", "--abc"},
                          Case{"multipart/ mixed; boundary=xyz", "--xyz"},
                          Case{"multipart/mixed;boundary=cam-era-1", "--cam-era-1"},
                          Case{"multipart/x-mixed-replace;boundary=b; charset=x", "--b"}}) {
        const std::string d = c.delimiter;
        Serve(d + "\r\nContent-Type: image/jpeg\r\n\r\nHELLO\r\n" + d + "\r\n", c.type);
        auto f = Make();
        Info i = Next(*f);
        ASSERT_EQ(i.rc, 0) << c.type;
        EXPECT_EQ(i.size, 5u) << c.type;
        EXPECT_EQ(Fetch(*f, i.size), "HELLO") << c.type;
    }
}

TEST_F(MultipartParser, RefusedContentTypes) {
    struct Case {
        const char* type;
        int retry;  // the client's CheckContentType result
        int result;
        const char* log;
    };
    for (const Case& c :
         {Case{"image/jpeg", -1, MF_ERR_CLIENT, "Can not find MIME type!"},
          Case{"image/jpeg", -1, MF_ERR_CLIENT, "Check content type failed again"},
          Case{"multipart/x-mixed-replace", 0, MF_ERR_NOT_MULTIPART, "Get mime info failed again"},
          Case{"multipart/x-mixed-replace;boundary=", 0, MF_ERR_NOT_MULTIPART,
               "Get mime info failed"},
          Case{"multipart/mixed;boundary=--", 0, MF_ERR_NOT_MULTIPART, "Get mime info failed"}}) {
        LogCapture log;
        Serve("--b\r\n", c.type, c.retry);
        auto f = Make();
        EXPECT_EQ(Next(*f).rc, c.result) << c.type;
        EXPECT_GE(log.Count(c.log), 1) << c.type << ": " << c.log;
    }
}

TEST_F(MultipartParser, PartWithAndWithoutLength) {
    Serve(
        "--b\r\nContent-Type: image/jpeg\r\nContent-Length: 5\r\n\r\nHELLO\r\n--b\r\n"
        "Content-Type: image/jpeg\r\n\r\nHELLO\r\n--b\r\n"
        "Content-Type: image/jpeg\r\n\r\nHELLO\n--b\r\n"  // LF alone: one byte dropped
        "Content-Type: audio/basic\r\nCONTENT-LENGTH: 7\r\n\r\n1234567\r\n--b--\r\n");
    auto f = Make();
    for (int n = 0; n < 3; ++n) {
        Info i = Next(*f);
        ASSERT_EQ(i.rc, 0) << n;
        EXPECT_EQ(i.size, 5u);
        EXPECT_EQ(i.type, "image/jpeg");
        EXPECT_EQ(i.kind, VIDEO_ES);
        EXPECT_EQ(Fetch(*f, i.size), "HELLO");
    }
    Info i = Next(*f);
    ASSERT_EQ(i.rc, 0);
    EXPECT_EQ(i.kind, AUDIO_ES);
    EXPECT_EQ(Fetch(*f, i.size), "1234567");
    EXPECT_EQ(Next(*f).rc, MF_ERR_READ);  // the end of the response
}

TEST_F(MultipartParser, SmallBufferPiecesAndOptionalLines) {
    Serve(
        "--b\r\nX-Info: a\r\nContent-Type: image/jpeg\r\nContent-Length: 5\r\nX-Seq: 9\r\n\r\n"
        "HELLO\r\n--b\r\nContent-Type: image/jpeg\r\nContent-Length: 3\r\n\r\nxyz\r\n--b\r\n");
    auto f = Make();
    Info i = Next(*f);
    ASSERT_EQ(i.rc, 0);
    unsigned char opt[1025];
    memset(opt, 0x55, sizeof(opt));
    ASSERT_EQ(f->FetchFrontOptContent(opt), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(opt), 12), std::string("x-info: a\r\n\x55", 12));
    memset(opt, 0x55, sizeof(opt));
    ASSERT_EQ(f->FetchFrontOptContent(opt), 0);  // flag and length stay: zero bytes now
    EXPECT_EQ(std::string(reinterpret_cast<char*>(opt), 12), std::string(11, '\0') + "\x55");
    ASSERT_EQ(f->FetchBackOptContent(opt), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(opt), 9), std::string("X-Seq: 9\0", 9));

    unsigned char small[4];
    EXPECT_EQ(f->FetchContent(small, 4), MF_ERR_BUFFER_SMALL);
    std::vector<int> pieces;
    std::string body;
    for (int n = 0; n < 3; ++n) {
        unsigned char piece[2];
        int got = 0;
        ASSERT_EQ(f->FetchPartOfContent(piece, 2, got), 0);
        pieces.push_back(got);
        body.append(reinterpret_cast<char*>(piece), got);
    }
    EXPECT_EQ(pieces, (std::vector<int>{2, 2, 1}));
    EXPECT_EQ(body, "HELLO");
    i = Next(*f);  // the third piece moved past the boundary
    ASSERT_EQ(i.rc, 0);
    EXPECT_EQ(Fetch(*f, i.size), "xyz");
}

TEST_F(MultipartParser, ScanLimitsAndBufferExhaustion) {
    std::string junk;
    for (int n = 0; n < 31; ++n)
        junk += "junk\r\n";
    std::string many = "--b\r\n";
    for (int n = 0; n < 31; ++n)
        many += "X-Pad: " + std::to_string(n) + "\r\n";
    many += "Content-Type: image/jpeg\r\n\r\nHELLO\r\n--b\r\n";
    struct Case {
        std::string stream;
        int result;
        const char* log;
    };
    const std::string big(4194304, 'A');
    for (const Case& c :
         {Case{many, MF_ERR_PART_HEADERS, "Can not find content type!"},
          Case{"--b\r\nContent-Type: image/jpeg\r\n\r\n" + big + "\r\n--b\r\n", MF_ERR_BOUNDARY,
               "Internal buffer is exhausted"},
          Case{junk, MF_ERR_BOUNDARY, "Can not match the boundary in body header!"},
          Case{"--b\r\nContent-Length: 5\r\nContent-Length: 5\r\n\r\nHELLO", 0, ""},
          Case{"--b\r\nContent-Type:\r\n\r\n", MF_ERR_PART_HEADERS, "Body infomation error!"},
          Case{"--b\r\nContent-Type: a\r\nX: 1\r\n:\r\n\r\n", MF_ERR_PART_LENGTH,
               "MULTIPART format is invalid."}}) {
        LogCapture log;
        Serve(c.stream);
        auto f = Make();
        EXPECT_EQ(Next(*f).rc, c.result) << c.log;
        if (*c.log) {
            EXPECT_EQ(log.Count(c.log), 1) << c.log;
        }
    }
}

TEST_F(MultipartParser, InBandParameters) {
    // Extra data over the 1 MiB cap is passed over however much it looks like headers.
    std::string oversized;
    while (oversized.size() < (1u << 20) + 1)
        oversized += "Content-Type: text/junk\r\n";
    oversized.resize((1u << 20) + 1);
    Serve(std::string("--b\r\nVdo-ExtraSize: 4\r\n\x01\x02\x03\x04"
                      "Timestamp: 1600000000000\r\nCodec: h264;aac\r\n"
                      "Content-Type: image/jpeg\r\nContent-Length: 1\r\n\r\nA\r\n--b\r\n"
                      "ado-extrasize: 0\r\nCODECS: mjpeg\r\nTimestamp: -5\r\n"
                      "Content-Type: image/jpeg\r\nContent-Length: 1\r\n\r\nB\r\n--b\r\n"
                      "Vdo-ExtraSize: 1048577\r\n") +
          oversized + "Content-Type: image/jpeg\r\n\r\nC\r\n--b\r\n");
    // The first part's names, extra data and timestamp are also checked against the simulated
    // camera; here it sets the extra data that the oversized one below must not replace.
    auto f = Make(5);
    ASSERT_EQ(Next(*f).rc, 0);
    ESFormat video, audio;
    ASSERT_EQ(f->GetAudioFormat(audio), 0);
    EXPECT_EQ(audio.strDescription, "aac");
    EXPECT_EQ(Fetch(*f, 1), "A");

    ASSERT_EQ(Next(*f).rc, 0);
    EXPECT_EQ(f->GetTimestamp(), -5);
    ASSERT_EQ(f->GetVideoFormat(video), 0);
    ASSERT_EQ(f->GetAudioFormat(audio), 0);
    EXPECT_EQ(audio.i_extra, 0);
    EXPECT_EQ(video.strDescription, " mjpeg");  // no ';': both names are the whole text
    EXPECT_EQ(audio.strDescription, " mjpeg");
    EXPECT_EQ(Fetch(*f, 1), "B");

    LogCapture log;
    Info i = Next(*f);  // an oversized extra size is not trusted with memory
    ASSERT_EQ(i.rc, 0);
    EXPECT_EQ(i.type, "image/jpeg");
    EXPECT_EQ(log.Count("out of range"), 1);
    EXPECT_EQ(Fetch(*f, i.size), "C");
    EXPECT_EQ(scriptedhttp::Requests().size(), 1u) << "no reconnection";
    ASSERT_EQ(f->GetVideoFormat(video), 0);
    EXPECT_EQ(video.i_extra, 4);
}

TEST_F(MultipartParser, FormatsFollowTheMediaMode) {
    ESFormat video, audio;
    auto jpeg = Make(1);
    ASSERT_EQ(jpeg->GetVideoFormat(video), 0);
    ASSERT_EQ(jpeg->GetAudioFormat(audio), 0);
    EXPECT_EQ(video.i_codec, kCodecMjpg);
    EXPECT_EQ(video.strDescription, "JPEG");
    EXPECT_EQ(audio.i_codec, 0u);
    EXPECT_EQ(audio.i_cat, 0);
    auto other = Make(3);
    ASSERT_EQ(other->GetVideoFormat(video), 0);
    EXPECT_EQ(video.i_codec, 0u);
    EXPECT_EQ(video.strDescription, "");
}

TEST_F(MultipartParser, UninitialisedFetcherAnswersThree) {
    FETCH_PARAM p;
    p.iPort = -1;
    for (auto* f : {static_cast<MultipartFetch*>(FetcherFactory(3, p)), new MultipartFetch()}) {
        std::unique_ptr<MultipartFetch> owner(f);
        unsigned size = 0;
        int kind = 9;
        ESFormat format;
        unsigned char buf[1025];
        int got = 0;
        EXPECT_EQ(f->TestConnect(), MF_ERR_NOT_INIT);
        EXPECT_EQ(f->NextPartInfo(size, nullptr, 0, kind), MF_ERR_NOT_INIT);
        EXPECT_EQ(kind, 0);
        EXPECT_EQ(f->FetchContent(buf, 1), MF_ERR_NOT_INIT);
        EXPECT_EQ(f->FetchPartOfContent(buf, 1, got), MF_ERR_NOT_INIT);
        EXPECT_EQ(f->GetVideoFormat(format), MF_ERR_NOT_INIT);
        EXPECT_EQ(f->GetAudioFormat(format), MF_ERR_NOT_INIT);
        EXPECT_EQ(f->FetchFrontOptContent(buf), MF_ERR_NOT_INIT);
        EXPECT_EQ(f->GetHttpSocketFd(), -1);
        EXPECT_EQ(f->GetTimestamp(), 0);
        EXPECT_FALSE(f->IsEOF());
        f->DropData();
    }
}

// What the fetcher hands the client, and how it reads the client's answers.
TEST_F(MultipartParser, ClientArgumentsAndResultMapping) {
    for (uint32_t flags : {0u, 4u, 8u}) {
        scriptedhttp::Clear();
        Serve("--b\r\n");
        auto f = Make(1, flags);
        EXPECT_EQ(f->TestConnect(), 0);
        auto r = scriptedhttp::Requests();
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(r[0].host, "camera");
        EXPECT_EQ(r[0].port, 80);
        EXPECT_EQ(r[0].user, "user");
        EXPECT_EQ(r[0].timeout, 7);
        EXPECT_FALSE(r[0].flags[0]);
        EXPECT_TRUE(r[0].flags[1]);
        EXPECT_TRUE(r[0].flags[2]);
        EXPECT_EQ(r[0].flags[3], flags != 4u) << "flag 4 waives the certificate check";
    }
    struct Case {
        int send, check, result;
    };
    for (const Case& c :
         {Case{0, 3, MF_ERR_READ}, Case{0, 4, MF_ERR_AUTH}, Case{0, 5, MF_ERR_TRANSPORT},
          Case{0, 7, MF_ERR_CLIENT}, Case{-1, 0, MF_ERR_READ}}) {
        scriptedhttp::Response r;
        r.sendResult = c.send;
        r.checkResult = c.check;
        r.contentType = kType;
        scriptedhttp::Serve("/cam", r);
        auto f = Make();
        EXPECT_EQ(f->TestConnect(), c.result) << c.check;
        EXPECT_EQ(Next(*f).rc, c.result) << c.check;
    }
}

TEST_F(MultipartParser, HttpVersionAndPostContentFromTheParameters) {
    struct Case {
        const char* version;  // nullptr: no parameters set
        int expected;
    };
    for (const Case& c :
         {Case{nullptr, KVNet::HTTP_VER_DEF}, Case{"HTTP_VER_1_1", KVNet::HTTP_VER_1_1},
          Case{"HTTP_VER_1_0", KVNet::HTTP_VER_1_0}, Case{"http_ver_1_1", KVNet::HTTP_VER_DEF},
          Case{"", KVNet::HTTP_VER_DEF}}) {
        scriptedhttp::Clear();
        Serve("--b\r\n");
        auto f = Make();
        if (c.version) {
            std::map<std::string, std::string> params = {{"HttpVersion", c.version},
                                                         {"PostContent", "<go/>"}};
            f->SetMFParams(params);
        }
        EXPECT_EQ(f->TestConnect(), 0);
        ASSERT_EQ(scriptedhttp::Requests().size(), 1u);
        const auto r = scriptedhttp::Requests()[0];
        EXPECT_EQ(r.version, c.expected) << (c.version ? c.version : "none");
        EXPECT_EQ(r.post, c.version != nullptr);
        EXPECT_EQ(r.postBody, c.version ? "<go/>" : "");
    }
}

// Hostile streams: mutations of valid ones, driven the way a host drives the fetcher. Every
// call must return one of the documented results; the sanitizers watch the memory.
TEST_F(MultipartParser, HostileStreamsNeverBreakTheFetcher) {
    camfetch_host::LogInit(LOG_LEVEL_NONE);  // tens of thousands of expected complaints
    uint64_t state = 0x9E3779B97F4A7C15ull;
    auto rnd = [&state](uint64_t n) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return n ? state % n : 0;
    };
    const std::vector<std::string> seeds = {
        "--b\r\nContent-Type: image/jpeg\r\nContent-Length: 5\r\n\r\nHELLO\r\n--b\r\n"
        "Content-Type: audio/basic\r\n\r\nABCDEFGHIJKLMNOP\r\n--b\r\n",
        "--b\nVdo-ExtraSize: 3\n\x01\x02\x03Timestamp: 7\nContent-Length: 4\nContent-Type: a\n"
        "\nWXYZ\n--b\nContent-Type: image/jpeg\n\n--\r\n-b-b\r\n--b--\n",
        "Content-Length: 2\r\n\r\nzz\r\n--b\r\nCodec: a;b\r\nContent-Type: x\r\nX: 1\r\n\r\n"
        "0123456789\r\n--b\r\n"};
    const std::vector<std::string> inserts = {"\r\n",
                                              "--b",
                                              "\r\n--b\r\n",
                                              "Content-Length: 4294967295\r\n",
                                              "Content-Length: -3\r\n",
                                              "Content-Type:\r\n",
                                              "Vdo-ExtraSize: 100000\r\n",
                                              "Ado-ExtraSize: -1\r\n",
                                              std::string(1500, 'L'),
                                              std::string("\0\0\0", 3),
                                              ":::: ;;;;\r\n"};
    const std::vector<int> allowed = {0, 1, 2, 4, 7, 8, 9, 10, 11, 17};
    std::vector<unsigned char> buf(1 << 16);
    for (int round = 0; round < 1500; ++round) {
        std::string s = seeds[rnd(seeds.size())];
        for (int m = 0, count = 1 + rnd(4); m < count; ++m) {
            const size_t at = rnd(s.size() + 1);
            switch (rnd(4)) {
                case 0:
                    if (!s.empty())
                        s[rnd(s.size())] = static_cast<char>(rnd(256));
                    break;
                case 1:
                    s.insert(at, inserts[rnd(inserts.size())]);
                    break;
                case 2:
                    s.erase(at, rnd(12));
                    break;
                default:
                    s.insert(at, s.substr(rnd(s.size() + 1), rnd(40)));
            }
        }
        Serve(s);
        auto f = Make(rnd(2) ? 1 : -1);
        for (int call = 0; call < 12; ++call) {
            unsigned size = 0;
            int kind = 0;
            int rc = f->NextPartInfo(size, nullptr, 0, kind);
            ASSERT_NE(std::find(allowed.begin(), allowed.end(), rc), allowed.end()) << rc;
            if (rc != 0)
                continue;
            int got = 0;
            switch (rnd(3)) {
                case 0:
                    rc = f->FetchContent(buf.data(), static_cast<unsigned>(buf.size()));
                    break;
                case 1:
                    rc = f->FetchPartOfContent(buf.data(), 1 + rnd(8), got);
                    break;
                default:
                    f->DropData();
            }
            ASSERT_NE(std::find(allowed.begin(), allowed.end(), rc), allowed.end()) << rc;
            unsigned char opt[1025];
            f->FetchFrontOptContent(opt);
            f->FetchBackOptContent(opt);
        }
    }
    camfetch_host::LogClear();
}

}  // namespace
