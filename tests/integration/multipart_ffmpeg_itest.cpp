// The multipart fetcher against ffmpeg serving an MJPEG multipart stream over loopback HTTP,
// as a real camera would. The pictures are made by ffmpeg first, so every part can be checked
// byte for byte, and then decoded again by ffmpeg.
#include <gtest/gtest.h>

#include <unistd.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "camera_stream.h"
#include "core/fetcher.h"
#include "http/multipartfetch.h"
#include "process.h"

namespace {

constexpr int kFrames = 12;

std::string FrameName(const testsupport::TempDir& dir, const char* stem, int i) {
    char name[32];
    snprintf(name, sizeof(name), "%s%03d.jpg", stem, i + 1);
    return dir.File(name);
}

struct Served {
    const char* name;
    // Extra ffmpeg options for the HTTP side; without a content type ffmpeg labels the stream
    // application/octet-stream and the fetcher learns the boundary from the body.
    std::vector<std::string> httpOptions;
};
std::ostream& operator<<(std::ostream& os, const Served& v) {
    return os << v.name;
}

class FfmpegCamera : public ::testing::TestWithParam<Served> {};

TEST_P(FfmpegCamera, EveryPictureArrivesWholeAndDecodes) {
    if (!testsupport::HaveTool("ffmpeg") || !testsupport::HaveTool("ffprobe"))
        GTEST_SKIP() << "ffmpeg is not installed";
    testsupport::TempDir dir;
    auto made = testsupport::RunCommand(
        {"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=10", "-frames:v",
         std::to_string(kFrames), "-c:v", "mjpeg", "-q:v", "4", dir.File("in%03d.jpg")},
        60);
    ASSERT_EQ(made.exitCode, 0) << made.err;

    const int port = testsupport::FreeLoopbackPort();
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/cam.mjpg";
    std::vector<std::string> argv = {
        "ffmpeg", "-v",   "error", "-framerate", "10", "-i", dir.File("in%03d.jpg"),
        "-c",     "copy", "-f",    "mpjpeg"};
    argv.insert(argv.end(), GetParam().httpOptions.begin(), GetParam().httpOptions.end());
    argv.insert(argv.end(), {"-listen", "1", url});
    testsupport::ServerProcess server;
    ASSERT_TRUE(server.Start(argv, 60, dir.File("server.log")));

    FETCH_PARAM param;
    param.strHost = "127.0.0.1";
    param.iPort = port;
    param.strPath = "/cam.mjpg";
    param.iTimeout = 10;
    param.iStreamMode = 1;
    std::unique_ptr<MultipartFetch> f(static_cast<MultipartFetch*>(FetcherFactory(4, param)));
    // ffmpeg serves a single client, so no probe connection: retry until it listens.
    int rc = MF_ERR_TRANSPORT;
    for (int attempt = 0; attempt < 200 && rc == MF_ERR_TRANSPORT; ++attempt) {
        rc = f->TestConnect();
        if (rc == MF_ERR_TRANSPORT)
            usleep(50000);
    }
    ASSERT_EQ(rc, 0);

    std::vector<camera::Part> parts;
    EXPECT_EQ(camera::Pull(*f, kFrames + 5, parts), MF_ERR_READ);  // then ffmpeg closes
    ASSERT_EQ(parts.size(), static_cast<size_t>(kFrames));
    for (int i = 0; i < kFrames; ++i) {
        EXPECT_EQ(parts[i].type, "image/jpeg");
        EXPECT_EQ(parts[i].kind, VIDEO_ES);
        EXPECT_EQ(parts[i].body, testsupport::ReadFile(FrameName(dir, "in", i))) << "frame " << i;
        ASSERT_TRUE(testsupport::WriteFile(FrameName(dir, "out", i), parts[i].body));
    }

    auto probe =
        testsupport::RunCommand({"ffprobe", "-v", "error", "-count_frames", "-show_entries",
                                 "stream=codec_name,width,height,nb_read_frames", "-of", "csv=p=0",
                                 "-f", "image2", "-i", dir.File("out%03d.jpg")},
                                60);
    EXPECT_EQ(probe.exitCode, 0) << probe.err;
    EXPECT_EQ(probe.err, "");
    EXPECT_EQ(probe.out, "mjpeg,320,240," + std::to_string(kFrames) + "\n");
}

INSTANTIATE_TEST_SUITE_P(Mjpeg, FfmpegCamera,
                         ::testing::Values(Served{"MultipartContentType",
                                                  {"-content_type",
                                                   "multipart/x-mixed-replace;boundary=ffmpeg"}},
                                           Served{"OctetStreamContentType", {}}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
