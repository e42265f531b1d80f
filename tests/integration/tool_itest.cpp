// The camfetch tool's contract as a user meets it: exit codes and the one-line causes.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdio>
#include <memory>

#include "process.h"

namespace {

using testsupport::RunCommand;

testsupport::CommandResult Tool(std::vector<std::string> args) {
    args.insert(args.begin(), CAMFETCH_TOOL);
    return RunCommand(args, 120);
}

// The tool's one JSON object on stdout; null when it printed none.
Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors))
        return Json::Value();
    return value;
}

TEST(ToolCli, BadArgumentsExitTwo) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"grab", "rtsp://127.0.0.1/"},
             {"fetch", "gopher://127.0.0.1/"},
             {"fetch", "rtsp://127.0.0.1/", "--kind", "carrier-pigeon"},
             {"fetch", "rtsp://127.0.0.1/", "--transport", "smoke"},
         }) {
        auto r = Tool(args);
        EXPECT_EQ(r.exitCode, 2) << args[0] << " " << args[1] << "\n" << r.err;
        EXPECT_NE(r.err.find("camfetch: "), std::string::npos);
        EXPECT_NE(r.err.find("usage:"), std::string::npos);
    }
    EXPECT_EQ(Tool({"--help"}).exitCode, 0);
}

TEST(ToolCli, RefusedConnectionExitsOneAndHidesThePassword) {
    const int port = testsupport::FreeLoopbackPort();
    for (const std::string scheme : {"rtsp", "http"}) {
        testsupport::TempDir dir;
        auto r = Tool({"fetch", scheme + "://admin:s3cret@127.0.0.1:" + std::to_string(port) + "/x",
                       "-o", dir.File("out")});
        EXPECT_EQ(r.exitCode, 1) << r.err;
        EXPECT_NE(r.err.find("connection refused"), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("s3cret"), std::string::npos) << r.err;
        EXPECT_EQ(r.out.find("s3cret"), std::string::npos) << r.out;
    }
}

TEST(ToolCli, ProbeOfAClosedPortSaysWhy) {
    const int port = testsupport::FreeLoopbackPort();
    auto r = Tool({"probe", "rtsp://127.0.0.1:" + std::to_string(port) + "/"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.out.find("\"connect\""), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("connection refused"), std::string::npos) << r.err;
}

// A stdlib camera (multipart_camera.py) for the tool's HTTP cases.
class ToolHttp : public ::testing::Test {
protected:
    void SetUp() override {
        port = testsupport::FreeLoopbackPort();
        ASSERT_TRUE(server.Start(
            {"python3", TEST_DATA_DIR "/multipart_camera.py", std::to_string(port), "120"}, 150));
        ASSERT_TRUE(testsupport::WaitForTcpPort(port, 15));
    }
    std::string Url(const std::string& query, const std::string& credentials = "") {
        return "http://" + credentials + "127.0.0.1:" + std::to_string(port) + "/stream?" + query;
    }
    testsupport::ServerProcess server;
    testsupport::TempDir dir;
    int port = 0;
};

TEST_F(ToolHttp, FramesLimitWritesExactlyThatManyParts) {
    auto r =
        Tool({"fetch", Url("endless=1&audio=1"), "--frames", "7", "-o", dir.File("out"), "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    std::string index = testsupport::ReadFile(dir.File("out/index.jsonl"));
    size_t video = 0, audio = 0;
    for (size_t at = 0; (at = index.find("\"es\":\"", at)) != std::string::npos; ++at)
        (index.compare(at + 6, 5, "video") == 0 ? video : audio) += 1;
    EXPECT_EQ(video, 7u);
    EXPECT_GE(audio, 6u);
    EXPECT_NE(index.find("\"codec\":\"alaw\""), std::string::npos) << index.substr(0, 400);
    EXPECT_FALSE(testsupport::ReadFile(dir.File("out/video.mjpeg")).empty());
    EXPECT_FALSE(testsupport::ReadFile(dir.File("out/audio.alaw")).empty());
    EXPECT_NE(testsupport::ReadFile(dir.File("out/formats.json")).find("\"video\""),
              std::string::npos);
    EXPECT_NE(r.out.find("\"blocks\":7"), std::string::npos) << r.out;
}

TEST_F(ToolHttp, CausesAUserCanLookUp) {
    struct {
        std::string url;
        const char* cause;
    } cases[] = {
        {Url("status=404"), "404 Not Found"},
        {Url("auth=basic", "admin:wrong@"), "401 Unauthorized"},
        {Url("auth=digest", "admin:wrong@"), "401 Unauthorized"},
        {Url("status=200"), "not a multipart stream"},
    };
    for (auto& c : cases) {
        auto r = Tool({"fetch", c.url, "-o", dir.File("out"), "--timeout", "3"});
        EXPECT_EQ(r.exitCode, 1) << c.url << "\n" << r.err;
        EXPECT_NE(r.err.find(c.cause), std::string::npos) << c.url << "\n" << r.err;
        EXPECT_EQ(r.err.find("wrong"), std::string::npos) << "no password in the output";
    }
    auto ok = Tool({"fetch", Url("auth=digest&endless=1", "admin:secret@"), "--frames", "2", "-o",
                    dir.File("ok")});
    EXPECT_EQ(ok.exitCode, 0) << ok.err;
    EXPECT_EQ(ok.err.find("secret"), std::string::npos);
    EXPECT_EQ(ok.out.find("secret"), std::string::npos);
}

// The scripted RTSP server (scripted_rtsp_server.py) with one scenario, streaming the sample.
class ToolRtsp : public ::testing::Test {
protected:
    // fields: the scenario's, as they stand inside its JSON object.
    void Serve(const std::string& fields) {
        server.Stop();
        port = testsupport::FreeLoopbackPort();
        testsupport::WriteFile(
            dir.File("scenario.json"),
            "{" + fields + (fields.empty() ? "" : ", ") + "\"h264_file\": \"" + kSample + "\"}");
        ASSERT_TRUE(server.Start(
            {"python3", TEST_DATA_DIR "/scripted_rtsp_server.py", "--port", std::to_string(port),
             "--scenario", dir.File("scenario.json"), "--record", dir.File("record.jsonl")},
            60));
        ASSERT_TRUE(testsupport::WaitForTcpPort(port, 15));
    }
    std::string Url(const std::string& credentials = "") {
        return "rtsp://" + credentials + "127.0.0.1:" + std::to_string(port) + "/cam";
    }
    static constexpr const char* kSample = TEST_DATA_DIR "/../../tools/camfetch/sample/sample.264";
    testsupport::ServerProcess server;
    testsupport::TempDir dir;
    int port = 0;
};

TEST_F(ToolRtsp, RefusalsAndUnreadableAnswersSayWhy) {
    struct {
        const char* scenario;
        const char* credentials;
        const char* cause;
    } cases[] = {
        {R"("describe_status": "404 Stream Not Found")", "", "404 Not Found"},
        {R"("describe_auth": "digest", "password": "right")", "admin:wrong@", "401 Unauthorized"},
        // A TCP fetch of a camera that streams over UDP only.
        {R"("udp_only": true)", "", "461 Unsupported Transport"},
        // live555 reads no response whose lines end in a bare LF.
        {R"("bare_lf": true)", "", "RTSP response not understood"},
    };
    for (auto& c : cases) {
        Serve(c.scenario);
        auto r = Tool({"fetch", Url(c.credentials), "-o", dir.File("out"), "--timeout", "3",
                       "--duration", "20", "--transport", "tcp"});
        EXPECT_EQ(r.exitCode, 1) << c.scenario << "\n" << r.err;
        // The tool's own last line names the cause (a log line may name it too).
        EXPECT_NE(r.err.find(std::string(": ") + c.cause + "\n"), std::string::npos)
            << c.scenario << "\n"
            << r.err;
        EXPECT_EQ(r.err.find("wrong"), std::string::npos);
    }
}

// A camera that closes every session after 1.5 s: the fetch reconnects until its duration.
TEST_F(ToolRtsp, ReconnectOutlastsDroppedSessions) {
    Serve(R"("close_after": 1.5)");
    auto r = Tool({"fetch", Url(), "-o", dir.File("out"), "--transport", "tcp", "--duration", "12",
                   "--reconnect", "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const Json::Value summary = ParseJson(r.out);
    EXPECT_GE(summary["reconnects"].asInt(), 1) << r.out;
    // More pictures than one 1.5 s session holds.
    EXPECT_GT(summary["video"]["blocks"].asInt(), 40) << r.out;
    // The sample has no audio, which is not an error.
    EXPECT_EQ(r.err.find("Unsupported audio codec"), std::string::npos) << r.err;
}

TEST_F(ToolRtsp, ProbeReportsTheSessionFormats) {
    Serve("");
    auto r = Tool({"probe", Url(), "--transport", "tcp", "--no-audio"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const Json::Value probe = ParseJson(r.out);
    EXPECT_EQ(probe["video"]["codec"].asString(), "h264") << r.out;
    EXPECT_EQ(probe["video"]["width"].asInt(), 320) << r.out;
    EXPECT_EQ(probe["video"]["height"].asInt(), 240) << r.out;
    EXPECT_GT(probe["video"]["extra_size"].asInt(), 8) << r.out;
}

// The README's first command: the embedded sample camera, fetched like any camera.
TEST(ToolDemo, FetchesTheSampleCameraIntoFilesThatDecode) {
    testsupport::TempDir dir;
    auto r = Tool({"demo", "-o", dir.File("demo")});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("play it: ffplay"), std::string::npos);
    auto video = RunCommand({"ffprobe", "-v", "error", "-count_frames", "-select_streams", "v",
                             "-show_entries", "stream=nb_read_frames,width,height", "-of",
                             "csv=p=0", dir.File("demo/video.h264")});
    EXPECT_EQ(video.err, "");
    int width = 0, height = 0, frames = 0;
    ASSERT_EQ(sscanf(video.out.c_str(), "%d,%d,%d", &width, &height, &frames), 3) << video.out;
    EXPECT_EQ(width, 320);
    EXPECT_EQ(height, 240);
    EXPECT_EQ(frames, 250) << "the 10 s sample, the last pictures included";
    auto decode = RunCommand({"ffmpeg", "-v", "error", "-i", dir.File("demo/video.h264"), "-i",
                              dir.File("demo/audio.aac"), "-f", "null", "-"});
    EXPECT_EQ(decode.exitCode, 0);
    EXPECT_EQ(decode.err, "") << "video and audio decode without an error";
}

}  // namespace
