// The multipart fetcher against a simulated camera (multipart_camera.py) over loopback HTTP,
// through the default host's HTTP client: stream shapes, part headers, in-band parameters,
// authentication, status mapping, broken connections and delimiters split across reads.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <ostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../unit/log_capture.h"
#include "camera_stream.h"
#include "core/fetcher.h"
#include "http/multipartfetch.h"
#include "process.h"

namespace {

// The client's log line when a wait for data ran out.
constexpr const char* kTimedOut = "no data within the time-out";

using camera::Fetch;
using camera::Part;
using camera::Pull;

class CameraStream : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_port = testsupport::FreeLoopbackPort();
        s_server = new testsupport::ServerProcess;
        ASSERT_TRUE(s_server->Start(
            {"python3", TEST_DATA_DIR "/multipart_camera.py", std::to_string(s_port), "280"}, 290,
            s_log.File("camera.log")));
        ASSERT_TRUE(testsupport::WaitForTcpPort(s_port, 15));
    }
    static void TearDownTestSuite() {
        delete s_server;
        s_server = nullptr;
    }

    struct Options {
        int mode = 1;
        int timeout = 5;
        std::string user, password;
        uint32_t flags = 0;
        int port = 0;
    };

    static std::unique_ptr<MultipartFetch> Make(const std::string& query) {
        return Make(query, Options());
    }
    static std::unique_ptr<MultipartFetch> Make(const std::string& query, const Options& o) {
        FETCH_PARAM p;
        p.strHost = "127.0.0.1";
        p.iPort = o.port ? o.port : s_port;
        p.strPath = "/stream?" + query;
        p.strUser = o.user;
        p.strPassword = o.password;
        p.iTimeout = o.timeout;
        p.iStreamMode = o.mode;
        p.uFlags = o.flags;
        return std::unique_ptr<MultipartFetch>(static_cast<MultipartFetch*>(FetcherFactory(3, p)));
    }

    // Number of stream requests the camera saw with this tag.
    static int Connections(const std::string& tag) {
        KVNet::KVHttpClient client("127.0.0.1", s_port, "/count?tag=" + tag, "", "", 5, true, true,
                                   true, true, KVNet::HTTP_VER_DEF, "", false);
        int status = 0;
        if (client.SendRequest(KVNet::HTTP_METHOD_GET, "", "") != 0 ||
            client.CheckResponse(status) != 0)
            return -1;
        char line[64];
        return client.ReadToLineEnd(line, sizeof(line)) > 0 ? atoi(line) : -1;
    }

    static int s_port;
    static testsupport::ServerProcess* s_server;
    static testsupport::TempDir s_log;
};

int CameraStream::s_port = 0;
testsupport::ServerProcess* CameraStream::s_server = nullptr;
testsupport::TempDir CameraStream::s_log;

// Video parts 0..n-1 of the default sizes (or of sizes), all image/jpeg.
void ExpectVideoParts(const std::vector<Part>& parts, size_t n,
                      const std::vector<size_t>& sizes = {}, const std::string& nearmiss = "") {
    ASSERT_EQ(parts.size(), n);
    for (size_t i = 0; i < n; ++i) {
        size_t size = sizes.empty() ? camera::DefaultSize(i) : sizes[i % sizes.size()];
        EXPECT_EQ(parts[i].type, "image/jpeg") << i;
        EXPECT_EQ(parts[i].kind, VIDEO_ES) << i;
        EXPECT_EQ(parts[i].body, camera::VideoBody(i, size, nearmiss)) << "part " << i;
    }
}

struct Shape {
    const char* name;
    const char* query;
    int mode;
};
std::ostream& operator<<(std::ostream& os, const Shape& v) {
    return os << v.name;
}

class StreamShapes : public CameraStream, public ::testing::WithParamInterface<Shape> {};

// Every shape delivers the four parts byte for byte, then the end of the response is a read
// failure (the next call would reconnect).
TEST_P(StreamShapes, DeliversEveryPartExactly) {
    const Shape& shape = GetParam();
    LogCapture log;
    Options o;
    o.mode = shape.mode;
    auto f = Make(shape.query, o);
    std::vector<Part> parts;
    EXPECT_EQ(Pull(*f, 10, parts), MF_ERR_READ);
    ExpectVideoParts(parts, 4);
    EXPECT_EQ(log.Count(kTimedOut), 0);  // a healthy stream never waits out the time-out
}

INSTANTIATE_TEST_SUITE_P(
    Camera, StreamShapes,
    ::testing::Values(
        Shape{"Lengths", "len=1", 1}, Shape{"NoLengths", "len=0", 1},
        Shape{"LengthBeforeType", "lenfirst=1", 1}, Shape{"LfOnlyLengths", "lf=1", 1},
        Shape{"LfOnlyNoLengths", "lf=1&len=0", 1}, Shape{"QuotedBoundary", "quote=1&len=0", 1},
        Shape{"DashedBoundaryParameter", "dashes=1&len=0", 1},
        Shape{"DashedBoundaryLines", "dashes=2", 1},
        Shape{"HyphensInsideBoundary", "boundary=my-cam-bound&len=0", 1},
        Shape{"MultipartMixed", "ctype=multipart%2Fmixed%3Bboundary%3Dmyboundary&len=0", 1},
        Shape{"MultipartBlankMixed", "ctype=multipart%2F%20mixed%3B%20boundary%3Dmyboundary", 1},
        Shape{"UpperCaseType",
              "ctype=Multipart%2FX-Mixed-Replace%3B%20boundary%3DmyBoundary&boundary=myBoundary&"
              "len=0",
              1},
        Shape{"ChunkedLengths", "chunked=1", 1}, Shape{"ChunkedNoLengths", "chunked=1&len=0", 1},
        Shape{"Http10CloseDelimited", "http10=1&len=0", 1},
        Shape{"PreambleBeforeFirstBoundary", "preamble=1", 1},
        Shape{"BodyNamesTheBoundary", "ctype=application%2Foctet-stream", 1},
        Shape{"ByteWiseScan", "len=0", -1}, Shape{"ByteWiseLf", "len=0&lf=1", -1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CameraStream, StartInsideAPartOfKnownLengthSkipsIt) {
    auto f = Make("midstart=1");
    std::vector<Part> parts;
    EXPECT_EQ(Pull(*f, 10, parts), MF_ERR_READ);
    ExpectVideoParts(parts, 4);
}

TEST_F(CameraStream, NearMissesInsideBodiesAreNotBoundaries) {
    // The delimiter minus its last byte, with and without a line end before it.
    for (const char* nearmiss : {"\r\n--myboundarX", "--myboundar\r\n--myboundar-"}) {
        std::string encoded;
        for (unsigned char c : std::string(nearmiss)) {
            char hex[4];
            snprintf(hex, sizeof(hex), "%%%02X", c);
            encoded += hex;
        }
        auto f = Make("len=0&nearmiss=" + encoded);
        std::vector<Part> parts;
        EXPECT_EQ(Pull(*f, 10, parts), MF_ERR_READ);
        ExpectVideoParts(parts, 4, {}, nearmiss);
    }
}

// Bodies from 1000 to 1040 bytes put the boundary at every offset across the 1 KiB reads of
// the body collection.
TEST_F(CameraStream, BoundaryStraddlingEveryCollectionRead) {
    std::string sizes;
    std::vector<size_t> list;
    for (size_t s = 1000; s <= 1040; ++s) {
        sizes += (sizes.empty() ? "" : ",") + std::to_string(s);
        list.push_back(s);
    }
    auto f = Make("len=0&parts=41&sizes=" + sizes);
    std::vector<Part> parts;
    EXPECT_EQ(Pull(*f, 100, parts), MF_ERR_READ);
    ExpectVideoParts(parts, 41, list);
}

TEST_F(CameraStream, PiecewiseFetchAndDrop) {
    auto f = Make("parts=6");
    std::vector<Part> parts;
    ASSERT_EQ(Pull(*f, 2, parts, Fetch::kPieces), 0);
    unsigned size = 0;
    int kind = 0;
    ASSERT_EQ(f->NextPartInfo(size, nullptr, 0, kind), 0);
    EXPECT_EQ(size, camera::DefaultSize(2));
    f->DropData();
    // A buffer one byte short is refused and consumes nothing.
    ASSERT_EQ(f->NextPartInfo(size, nullptr, 0, kind), 0);
    std::string body(size, '\0');
    EXPECT_EQ(f->FetchContent(reinterpret_cast<unsigned char*>(&body[0]), size - 1),
              MF_ERR_BUFFER_SMALL);
    ASSERT_EQ(f->FetchContent(reinterpret_cast<unsigned char*>(&body[0]), size), 0);
    EXPECT_EQ(body, camera::VideoBody(3, camera::DefaultSize(3)));
    ASSERT_EQ(Pull(*f, 2, parts, Fetch::kPieces), 0);
    ASSERT_EQ(parts.size(), 4u);
    EXPECT_EQ(parts[1].body, camera::VideoBody(1, camera::DefaultSize(1)));
    EXPECT_EQ(parts[2].body, camera::VideoBody(4, camera::DefaultSize(4)));
    EXPECT_EQ(parts[3].body, camera::VideoBody(5, camera::DefaultSize(5)));
}

TEST_F(CameraStream, MxpegWithAudioPartsBetweenPictures) {
    Options o;
    o.mode = 5;
    for (const char* query : {"audio=1", "audio=1&len=0"}) {
        auto f = Make(query, o);
        std::vector<Part> parts;
        EXPECT_EQ(Pull(*f, 20, parts), MF_ERR_READ) << query;
        ASSERT_EQ(parts.size(), 8u) << query;
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(parts[2 * i].kind, VIDEO_ES);
            EXPECT_EQ(parts[2 * i].body, camera::VideoBody(i, camera::DefaultSize(i)));
            EXPECT_EQ(parts[2 * i + 1].kind, AUDIO_ES);
            EXPECT_EQ(parts[2 * i + 1].type, "audio/basic");
            EXPECT_EQ(parts[2 * i + 1].body, camera::AudioBody(i));
        }
        ESFormat video, audio;
        ASSERT_EQ(f->GetVideoFormat(video), 0);
        ASSERT_EQ(f->GetAudioFormat(audio), 0);
        EXPECT_EQ(video.i_codec, kCodecMxpg);
        EXPECT_EQ(video.strDescription, "MxPEG");
        EXPECT_EQ(audio.i_codec, kCodecAlaw);
        EXPECT_EQ(audio.audio.i_rate, 8000u);
        EXPECT_EQ(audio.strDescription, "PCMA");
    }
}

TEST_F(CameraStream, InBandExtraDataCodecNamesAndTimestamps) {
    auto f = Make("extra=1&audio=1", {5, 5, "", "", 0, 0});
    unsigned char opt[1025];
    for (int index = 0; index < 8; ++index) {
        unsigned size = 0;
        int kind = 0;
        ASSERT_EQ(f->NextPartInfo(size, nullptr, 0, kind), 0) << index;
        EXPECT_EQ(f->GetTimestamp(), 1600000000000LL + 40 * index);
        memset(opt, 0x55, sizeof(opt));
        ASSERT_EQ(f->FetchFrontOptContent(opt), 0);
        const std::string front =
            "timestamp: " + std::to_string(1600000000000LL + 40 * index) + "\r\n";
        EXPECT_EQ(std::string(reinterpret_cast<char*>(opt), front.size()), front);
        EXPECT_EQ(opt[front.size()], 0x55);  // no NUL from the front line
        ASSERT_EQ(f->FetchBackOptContent(opt), 0);
        EXPECT_STREQ(reinterpret_cast<char*>(opt), ("X-Frame: " + std::to_string(index)).c_str());
        std::string body(size, '\0');
        ASSERT_EQ(f->FetchContent(reinterpret_cast<unsigned char*>(&body[0]), size), 0);
        EXPECT_EQ(body, kind == VIDEO_ES
                            ? camera::VideoBody(index / 2, camera::DefaultSize(index / 2))
                            : camera::AudioBody(index / 2));
    }
    ESFormat video, audio;
    ASSERT_EQ(f->GetVideoFormat(video), 0);
    ASSERT_EQ(f->GetAudioFormat(audio), 0);
    ASSERT_EQ(video.i_extra, 4);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(video.p_extra), 4), "\x01\x02\x03\x04");
    ASSERT_EQ(audio.i_extra, 2);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(audio.p_extra), 2), "\xaa\xbb");
    // Lower-cased with the blank after the colon kept.
    EXPECT_EQ(video.strDescription, " mjpeg");
    EXPECT_EQ(audio.strDescription, "pcma");
    EXPECT_EQ(video.i_codec, kCodecMxpg);
}

// Failures inside the stream drop the connection with the documented result; the next
// NextPartInfo connects again and the stream starts over.
struct Broken {
    const char* name;
    const char* query;
    Fetch how;
    int result;
    const char* log;
};
std::ostream& operator<<(std::ostream& os, const Broken& v) {
    return os << v.name;
}

class BrokenStreams : public CameraStream, public ::testing::WithParamInterface<Broken> {};

TEST_P(BrokenStreams, FailWithTheirResultThenReconnect) {
    const Broken& b = GetParam();
    LogCapture log;
    auto f = Make(b.query);
    std::vector<Part> parts;
    EXPECT_EQ(Pull(*f, 10, parts, b.how), b.result);
    ExpectVideoParts(parts, 1);
    EXPECT_GE(log.Count(b.log), 1) << b.log;
    EXPECT_EQ(f->GetHttpSocketFd(), -1);
    parts.clear();
    EXPECT_EQ(Pull(*f, 1, parts, b.how), 0);
    ExpectVideoParts(parts, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Camera, BrokenStreams,
    ::testing::Values(Broken{"ThirtyOneHeaderLines", "manyheaders=1", Fetch::kWhole,
                             MF_ERR_PART_HEADERS, "Body infomation error!"},
                      Broken{"FiveMebibytesWithoutLength", "big=1", Fetch::kWhole, MF_ERR_BOUNDARY,
                             "Internal buffer is exhausted"},
                      Broken{"ClosedInsideAPartWhole", "cut=1", Fetch::kWhole, MF_ERR_READ,
                             "Read length mismatched"},
                      Broken{"ClosedInsideAPartPieces", "cut=1", Fetch::kPieces, MF_ERR_EOF_IN_PART,
                             "Receive EOF"},
                      Broken{"ClosedInsideAChunkedPart", "cut=1&chunked=1", Fetch::kPieces,
                             MF_ERR_READ, "Read failure with BufLen"},
                      Broken{"ClosedInsideAPartWithoutLength", "cut=1&len=0", Fetch::kWhole,
                             MF_ERR_READ, "End of file."}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CameraStream, StalledCameraTimesOutInsteadOfHanging) {
    Options o;
    o.timeout = 1;
    for (const char* query : {"stall=2", "stall=2&len=0"}) {
        auto f = Make(query, o);
        std::vector<Part> parts;
        EXPECT_EQ(Pull(*f, 10, parts), MF_ERR_READ) << query;
        ExpectVideoParts(parts, 1);
    }
}

// The host may watch the connection's descriptor and shut it from another thread: a read
// blocked on a silent camera then returns at once instead of after the time-out.
TEST_F(CameraStream, SocketShutFromAnotherThreadEndsABlockedRead) {
    LogCapture log;
    Options o;
    o.timeout = 3600;  // beyond the test's own limit: only the shutdown can end the wait
    auto f = Make("stall=2", o);
    std::vector<Part> parts;
    ASSERT_EQ(Pull(*f, 1, parts), 0);
    const int fd = f->GetSocketFd();
    ASSERT_GE(fd, 0);
    std::thread host([fd] {
        usleep(200000);
        shutdown(fd, SHUT_RDWR);
    });
    EXPECT_EQ(Pull(*f, 10, parts), MF_ERR_READ);
    host.join();
    EXPECT_EQ(f->GetSocketFd(), -1);
    EXPECT_EQ(log.Count(kTimedOut), 0);
}

struct Access {
    const char* name;
    const char* query;
    const char* user;
    const char* password;
    int result;
};
std::ostream& operator<<(std::ostream& os, const Access& v) {
    return os << v.name;
}

class AccessControl : public CameraStream, public ::testing::WithParamInterface<Access> {};

TEST_P(AccessControl, ResultOfTheFirstPart) {
    const Access& a = GetParam();
    Options o;
    o.user = a.user;
    o.password = a.password;
    auto f = Make(a.query, o);
    std::vector<Part> parts;
    int rc = Pull(*f, 1, parts);
    EXPECT_EQ(rc, a.result);
    if (a.result == 0)
        ExpectVideoParts(parts, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Camera, AccessControl,
    ::testing::Values(Access{"Basic", "auth=basic", "admin", "secret", 0},
                      Access{"Digest", "auth=digest", "admin", "secret", 0},
                      Access{"DigestChunked", "auth=digest&chunked=1&len=0", "admin", "secret", 0},
                      Access{"BasicWrongPassword", "auth=basic", "admin", "guess", MF_ERR_AUTH},
                      Access{"DigestWrongPassword", "auth=digest", "admin", "guess", MF_ERR_AUTH},
                      Access{"NoCredentials", "auth=digest", "", "", MF_ERR_AUTH},
                      Access{"DigestAfterRedirect", "redirect=1&auth=digest", "admin", "secret", 0},
                      Access{"Forbidden", "status=403", "", "", MF_ERR_AUTH},
                      Access{"NotFound", "status=404", "", "", MF_ERR_READ},
                      Access{"ServerError", "status=500", "", "", MF_ERR_READ},
                      Access{"GetWhereAPostIsWanted", "method=POST", "", "", MF_ERR_READ}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CameraStream, NothingListeningIsATransportFailure) {
    Options o;
    o.port = testsupport::FreeLoopbackPort();
    auto f = Make("parts=1", o);
    std::vector<Part> parts;
    EXPECT_EQ(Pull(*f, 1, parts), MF_ERR_TRANSPORT);
    EXPECT_EQ(f->TestConnect(), MF_ERR_TRANSPORT);
}

TEST_F(CameraStream, NotAMultipartResponseIsRefused) {
    LogCapture log;
    // The body is no multipart stream either, so nothing can be made of it.
    auto f = Make("ctype=image%2Fjpeg&preamble=1");
    std::vector<Part> parts;
    EXPECT_EQ(Pull(*f, 1, parts), MF_ERR_CLIENT);
    EXPECT_EQ(log.Count("Can not find MIME type!"), 1);
    EXPECT_EQ(log.Count("Check content type failed again"), 1);
}

TEST_F(CameraStream, PostContentStartsTheStream) {
    for (const char* query : {"method=POST", "method=POST&auth=digest"}) {
        Options o;
        o.user = "admin";
        o.password = "secret";
        auto f = Make(query, o);
        std::map<std::string, std::string> params{{"PostContent", "<start/>"}};
        f->SetMFParams(params);
        EXPECT_EQ(params.count("HttpVersion"), 1u);  // added with an empty value
        std::vector<Part> parts;
        EXPECT_EQ(Pull(*f, 10, parts), MF_ERR_READ) << query;
        ExpectVideoParts(parts, 4);
    }
}

TEST_F(CameraStream, HttpVersionFromTheParameters) {
    auto f = Make("version=1.0&len=0");
    std::vector<Part> parts;
    EXPECT_EQ(Pull(*f, 1, parts), MF_ERR_READ);  // 505 to an HTTP/1.1 request
    std::map<std::string, std::string> params{{"HttpVersion", "HTTP_VER_1_0"}};
    f->SetMFParams(params);
    EXPECT_EQ(Pull(*f, 10, parts), MF_ERR_READ);
    ExpectVideoParts(parts, 4);
}

TEST_F(CameraStream, TestConnectIsLazyAndSetReconnectReconnects) {
    auto f = Make("endless=1&tag=lazy");
    EXPECT_EQ(Connections("lazy"), 0);  // the factory does not connect
    EXPECT_EQ(f->TestConnect(), 0);
    EXPECT_EQ(f->TestConnect(), 0);
    EXPECT_GE(f->GetHttpSocketFd(), 0);
    std::vector<Part> parts;
    EXPECT_EQ(Pull(*f, 2, parts), 0);
    EXPECT_EQ(Connections("lazy"), 1);
    EXPECT_EQ(f->SetReconnect(), 0);
    EXPECT_EQ(Pull(*f, 1, parts), 0);
    EXPECT_EQ(Connections("lazy"), 2);
    EXPECT_EQ(parts[2].body, camera::VideoBody(0, camera::DefaultSize(0)));  // from the start
}

// The classic multipart parser bug: a delimiter or line end split between two reads. The
// camera writes the stream in two pieces, cut at every byte offset of its first parts, and
// then once more one byte per write.
TEST_F(CameraStream, DelimitersSplitAcrossReadsAtEveryOffset) {
    LogCapture log;
    const std::vector<size_t> sizes = {40, 1, 60};
    const char* shapes[] = {"len=1", "len=0&chunked=1", "len=0&lf=1", "lenfirst=1&lf=1&chunked=1"};
    for (const char* shape : shapes) {
        const std::string base = std::string(shape) + "&parts=3&sizes=40,1,60";
        // Stream length of the first two parts and the third part's head, generously.
        for (int cut = 0; cut <= 260; ++cut) {
            auto f = Make(base + "&split=" + std::to_string(cut));
            std::vector<Part> parts;
            EXPECT_EQ(Pull(*f, 10, parts), MF_ERR_READ) << shape << " cut " << cut;
            ExpectVideoParts(parts, 3, sizes);
            if (HasFailure())
                return;
        }
        auto f = Make(base + "&bytewise=1");
        std::vector<Part> parts;
        EXPECT_EQ(Pull(*f, 10, parts), MF_ERR_READ) << shape << " bytewise";
        ExpectVideoParts(parts, 3, sizes);
    }
    EXPECT_EQ(log.Count(kTimedOut), 0);
}

// A camera with a self-signed certificate: refused while the certificate is checked, served
// once the host waives the check with flag 4.
TEST(CameraOverHttps, CertificateCheckedUnlessTheHostWaivesIt) {
    if (!testsupport::HaveTool("openssl"))
        GTEST_SKIP() << "openssl is not installed";
    testsupport::TempDir dir;
    auto made = testsupport::RunCommand(
        {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
         "-nodes", "-keyout", dir.File("key.pem"), "-out", dir.File("cert.pem"), "-days", "1",
         "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"},
        60);
    ASSERT_EQ(made.exitCode, 0) << made.err;
    const int port = testsupport::FreeLoopbackPort();
    testsupport::ServerProcess server;
    ASSERT_TRUE(server.Start({"python3", TEST_DATA_DIR "/multipart_camera.py", std::to_string(port),
                              "60", dir.File("cert.pem"), dir.File("key.pem")},
                             70, dir.File("camera.log")));
    ASSERT_TRUE(testsupport::WaitForTcpPort(port, 15));

    FETCH_PARAM p;
    p.strHost = "https://127.0.0.1";
    p.iPort = port;
    p.strPath = "/stream?parts=4";
    p.iTimeout = 5;
    p.iStreamMode = 1;
    std::unique_ptr<MultipartFetch> checked(static_cast<MultipartFetch*>(FetcherFactory(3, p)));
    EXPECT_EQ(checked->TestConnect(), MF_ERR_TRANSPORT);

    p.uFlags = 4;
    std::unique_ptr<MultipartFetch> waived(static_cast<MultipartFetch*>(FetcherFactory(3, p)));
    std::vector<Part> parts;
    EXPECT_EQ(Pull(*waived, 10, parts), MF_ERR_READ);
    ExpectVideoParts(parts, 4);
}

}  // namespace
