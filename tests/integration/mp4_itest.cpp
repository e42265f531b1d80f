// The fragmented-MP4 fetcher against real servers on loopback: ffmpeg muxing fragmented MP4
// straight onto an HTTP response, and a stdlib server with prepared, broken files.
#include <gtest/gtest.h>
#include <json/json.h>

#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/fetcher.h"
#include "process.h"

namespace {

using testsupport::RunCommand;

const char kFragFlags[] = "frag_keyframe+empty_moov+default_base_moof";

struct Part {
    unsigned size;
    std::string sha1;
};

std::string Sha1(const std::string& data, const std::string& dir) {
    testsupport::WriteFile(dir + "/part.bin", data);
    auto r = RunCommand({"sha1sum", dir + "/part.bin"});
    return r.out.substr(0, 40);
}

std::unique_ptr<FetcherBase> Mp4Fetcher(int port, const std::string& path, int mode) {
    FETCH_PARAM p;
    p.strHost = "127.0.0.1";
    p.iPort = port;
    p.strPath = path;
    p.iTimeout = 10;
    p.iStreamMode = mode;
    return std::unique_ptr<FetcherBase>(FetcherFactory(2, p));
}

// Pulls parts until the walk first fails (an empty part).
std::vector<std::string> PullUntilEmpty(FetcherBase& f, size_t max = 1000) {
    std::vector<std::string> parts;
    while (parts.size() < max) {
        unsigned size = 0;
        int kind = 0;
        if (f.NextPartInfo(size, nullptr, 0, kind) != 0 || size == 0)
            break;
        std::string part(size, '\0');
        EXPECT_EQ(f.FetchContent(reinterpret_cast<unsigned char*>(&part[0]), size), 0);
        parts.push_back(part);
    }
    return parts;
}

Json::Value Dump(const std::string& file) {
    auto r = RunCommand({"python3", std::string(TEST_DATA_DIR) + "/mp4_boxes.py", file});
    Json::Value v;
    std::istringstream in(r.out);
    in >> v;
    return v;
}

std::string Hex(const ESFormat& f) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (int i = 0; i < f.i_extra; ++i) {
        out += kDigits[f.p_extra[i] >> 4];
        out += kDigits[f.p_extra[i] & 15];
    }
    return out;
}

struct Clip {
    const char* name;
    std::vector<std::string> encoder;
    int mode;
};

class FfmpegMp4 : public ::testing::TestWithParam<Clip> {};

TEST_P(FfmpegMp4, EveryMdatArrivesWithItsBytesAndTheConfigFromMoov) {
    const Clip& clip = GetParam();
    testsupport::TempDir dir;
    std::vector<std::string> encode = {
        "ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=3"};
    encode.insert(encode.end(), clip.encoder.begin(), clip.encoder.end());
    encode.push_back(dir.File("clip.mp4"));
    ASSERT_EQ(RunCommand(encode).exitCode, 0);
    ASSERT_EQ(RunCommand({"ffmpeg", "-v", "error", "-i", dir.File("clip.mp4"), "-c", "copy",
                          "-movflags", kFragFlags, "-f", "mp4", dir.File("ref.mp4")})
                  .exitCode,
              0);
    Json::Value ref = Dump(dir.File("ref.mp4"));
    ASSERT_GE(ref["mdat"].size(), 2u);

    const int port = testsupport::FreeLoopbackPort();
    testsupport::ServerProcess server;
    ASSERT_TRUE(server.Start(
        {"ffmpeg", "-v", "error", "-i", dir.File("clip.mp4"), "-c", "copy", "-movflags", kFragFlags,
         "-f", "mp4", "-listen", "1", "http://127.0.0.1:" + std::to_string(port) + "/live.mp4"},
        60));
    ASSERT_TRUE(testsupport::WaitForTcpPort(port, 20));
    // The probe connection above counts as ffmpeg's one client; serve again for the fetch.
    server.WaitExit(10);
    ASSERT_TRUE(server.Start(
        {"ffmpeg", "-v", "error", "-i", dir.File("clip.mp4"), "-c", "copy", "-movflags", kFragFlags,
         "-f", "mp4", "-listen", "1", "http://127.0.0.1:" + std::to_string(port) + "/live.mp4"},
        60));
    auto fetcher = Mp4Fetcher(port, "/live.mp4", clip.mode);
    for (int i = 0; i < 100 && fetcher->TestConnect() != 0; ++i)
        usleep(100000);
    auto parts = PullUntilEmpty(*fetcher);

    ASSERT_EQ(parts.size(), ref["mdat"].size());
    for (size_t i = 0; i < parts.size(); ++i) {
        EXPECT_EQ(parts[i].size(), ref["mdat"][static_cast<int>(i)]["size"].asUInt()) << i;
        EXPECT_EQ(Sha1(parts[i], dir.Path()), ref["mdat"][static_cast<int>(i)]["sha1"].asString())
            << i;
    }
    ESFormat video;
    ASSERT_EQ(fetcher->GetVideoFormat(video), 0);
    if (clip.mode == 3) {
        EXPECT_EQ(Hex(video), ref["config"].asString()) << "SPS/PPS of the clip's avcC";
    } else {
        // The descriptor lengths are read as single bytes at fixed offsets; ffmpeg writes
        // four-byte lengths, so what comes out is what those offsets hold, with the
        // decoder-specific info inside it.
        EXPECT_EQ(Hex(video), ref["esds_fixed_offsets"].asString());
        EXPECT_NE(Hex(video).find(ref["config"].asString().substr(0, 24)), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Clips, FfmpegMp4,
    ::testing::Values(Clip{"h264", {"-c:v", "libx264", "-g", "25", "-pix_fmt", "yuv420p"}, 3},
                      Clip{"mpeg4", {"-c:v", "mpeg4", "-g", "25"}, 2}),
    [](const ::testing::TestParamInfo<Clip>& info) { return std::string(info.param.name); });

// Files written box by box, each broken in one way, served by a stdlib server.
class PreparedMp4 : public ::testing::Test {
protected:
    void SetUp() override {
        port = testsupport::FreeLoopbackPort();
        ASSERT_TRUE(server.Start({"python3", std::string(TEST_DATA_DIR) + "/mp4_file_server.py",
                                  dir.Path(), std::to_string(port), "60"},
                                 90));
        ASSERT_TRUE(testsupport::WaitForTcpPort(port, 20));
    }
    static std::string Be32(uint32_t v) {
        return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                static_cast<char>(v)};
    }
    static std::string Box(const char* type, const std::string& payload) {
        return Be32(static_cast<uint32_t>(payload.size() + 8)) + type + payload;
    }
    void Write(const std::string& name, const std::string& data) {
        testsupport::WriteFile(dir.File(name), data);
    }
    testsupport::TempDir dir;
    testsupport::ServerProcess server;
    int port = 0;
};

TEST_F(PreparedMp4, BrokenStreamsEndTheWalkAndTheNextCallReconnects) {
    const std::string head = Box("ftyp", "iso5") + Box("moof", "m") + Box("mdat", "first");
    struct {
        const char* name;
        std::string tail;
    } cases[] = {
        {"free.mp4", Box("free", "padding")},
        {"styp.mp4", Box("styp", "msdh")},
        {"size4.mp4", Be32(4) + "mdat"},
        {"size64.mp4", Be32(1) + "mdat" + std::string(7, '\0') + "\x14" + "abcd"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        Write(c.name, head + c.tail);
        auto f = Mp4Fetcher(port, std::string("/") + c.name, 3);
        auto parts = PullUntilEmpty(*f);
        ASSERT_EQ(parts.size(), 1u);
        EXPECT_EQ(parts[0], "first");
        parts = PullUntilEmpty(*f);  // reconnected: the file again from the top
        ASSERT_EQ(parts.size(), 1u);
    }
}

TEST_F(PreparedMp4, ConnectionClosedMidBoxAndOversizedPayload) {
    const std::string body = Box("ftyp", "iso5") + Box("mdat", std::string(5000, 'a')) +
                             Box("mdat", std::string(5000, 'b'));
    Write("cut.mp4", body);
    auto f = Mp4Fetcher(port, "/cut.mp4?cut=6000", 3);
    auto parts = PullUntilEmpty(*f);
    // The walk hands over what a cut-off mdat held and fails at the next header.
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[0], std::string(5000, 'a'));
    EXPECT_EQ(parts[1], std::string(6000 - 12 - 5008 - 8, 'b'));
    EXPECT_EQ(PullUntilEmpty(*f).size(), 2u) << "and the next call reconnects";

    const size_t limit = 10485760;
    Write("big.mp4",
          Box("ftyp", "iso5") + Box("mdat", std::string(limit + 1000, 'z')) + Box("mdat", "next"));
    auto big = Mp4Fetcher(port, "/big.mp4", 3);
    parts = PullUntilEmpty(*big);
    ASSERT_EQ(parts.size(), 1u) << "the rest of the payload breaks the next header";
    EXPECT_EQ(parts[0].size(), limit);

    auto missing = Mp4Fetcher(port, "/nothing.mp4", 3);
    EXPECT_EQ(missing->TestConnect(), 4) << "404 is a failed status";
}

}  // namespace
