// End to end over loopback HTTP: CPU time per thousand parts of a 720p MJPEG multipart stream,
// pulled by the multipart fetcher through the default host's HTTP client, next to
// `ffmpeg -f mpjpeg -i http://... -c copy -f null -` reading the same stream. The pictures are
// made by ffmpeg at start-up; mjpeg_stream_server.py serves them as fast as the client reads.
// Two stream lengths (300 and 3000 parts), so that the cost of one more part can be told from
// the fixed cost of a pull (for ffmpeg: starting the process and probing the stream).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/fetcher.h"
#include "host/hostlog.h"
#include "process.h"

namespace {

constexpr int kFrames = 30;
constexpr const char* kBoundary = "myboundary";

double ProcessCpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

double ChildrenCpuSeconds() {
    rusage r;
    getrusage(RUSAGE_CHILDREN, &r);
    return r.ru_utime.tv_sec + r.ru_stime.tv_sec + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

double WallSeconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

struct Camera {
    testsupport::TempDir dir;
    testsupport::ServerProcess server;
    int port = 0;
    size_t streamBytes = 0;  // the 30 pictures once
    std::string error;

    Camera() {
        auto made = testsupport::RunCommand(
            {"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
             "testsrc2=size=1280x720:rate=30,noise=alls=5:allf=t", "-frames:v",
             std::to_string(kFrames), "-c:v", "mjpeg", "-b:v", "21M", "-maxrate", "21M", "-bufsize",
             "2M", dir.File("f%03d.jpg")},
            120);
        if (made.exitCode != 0) {
            error = "ffmpeg could not make the pictures: " + made.err;
            return;
        }
        std::string stream;
        for (int i = 1; i <= kFrames; ++i) {
            char name[16];
            snprintf(name, sizeof(name), "f%03d.jpg", i);
            const std::string jpeg = testsupport::ReadFile(dir.File(name));
            stream += std::string("--") + kBoundary + "\r\nContent-Type: image/jpeg\r\n" +
                      "Content-Length: " + std::to_string(jpeg.size()) + "\r\n\r\n" + jpeg + "\r\n";
        }
        streamBytes = stream.size();
        testsupport::WriteFile(dir.File("stream.mjpg"), stream);
        port = testsupport::FreeLoopbackPort();
        if (!server.Start({"python3", BENCH_DATA_DIR "/mjpeg_stream_server.py",
                           std::to_string(port), dir.File("stream.mjpg"), kBoundary, "900"},
                          910, dir.File("server.log")) ||
            !testsupport::WaitForTcpPort(port, 15))
            error = "the stream server did not start";
    }
};

Camera& TheCamera() {
    static Camera camera;
    return camera;
}

std::string Path(const benchmark::State& state) {
    return "/cam.mjpg?repeat=" + std::to_string(state.range(0));
}

void Report(benchmark::State& state, double cpu, int64_t parts) {
    state.counters["cpu_ms_per_1k_parts"] = parts ? cpu / parts * 1e6 : 0;
    state.counters["parts"] = static_cast<double>(parts) / state.iterations();
    state.SetBytesProcessed(state.iterations() * state.range(0) *
                            static_cast<int64_t>(TheCamera().streamBytes));
}

void Camfetch(benchmark::State& state) {
    Camera& camera = TheCamera();
    if (!camera.error.empty()) {
        state.SkipWithError(camera.error.c_str());
        return;
    }
    camfetch_host::LogInit(LOG_LEVEL_ERROR);
    FETCH_PARAM param;
    param.strHost = "127.0.0.1";
    param.iPort = camera.port;
    param.strPath = Path(state);
    param.iTimeout = 10;
    param.iStreamMode = 1;
    std::vector<unsigned char> picture(1 << 20);
    double cpu = 0;
    int64_t parts = 0;
    for (auto _ : state) {
        const double start = ProcessCpuSeconds();
        FetcherBase* f = FetcherFactory(3, param);
        int n = 0;
        unsigned size = 0;
        int kind = 0;
        while (f->NextPartInfo(size, nullptr, 0, kind) == 0 &&
               f->FetchContent(picture.data(), size) == 0)
            ++n;
        ReleaseFetcher(f);
        cpu += ProcessCpuSeconds() - start;
        parts += n;
        if (n != kFrames * state.range(0)) {
            state.SkipWithError("the stream ended early");
            return;
        }
    }
    Report(state, cpu, parts);
}

void Ffmpeg(benchmark::State& state) {
    Camera& camera = TheCamera();
    if (!camera.error.empty()) {
        state.SkipWithError(camera.error.c_str());
        return;
    }
    const std::string url = "http://127.0.0.1:" + std::to_string(camera.port) + Path(state);
    double cpu = 0;
    int64_t parts = 0;
    for (auto _ : state) {
        const double wall = WallSeconds();
        const double start = ChildrenCpuSeconds();
        auto run =
            testsupport::RunCommand({"ffmpeg", "-v", "error", "-nostats", "-progress", "pipe:1",
                                     "-f", "mpjpeg", "-i", url, "-c", "copy", "-f", "null", "-"},
                                    300);
        cpu += ChildrenCpuSeconds() - start;
        state.SetIterationTime(WallSeconds() - wall);
        // The last progress report holds the number of pictures read.
        const size_t at = run.out.rfind("frame=");
        const int n = at == std::string::npos ? 0 : atoi(run.out.c_str() + at + 6);
        parts += n;
        if (run.exitCode != 0 || n != kFrames * state.range(0)) {
            state.SkipWithError(
                ("ffmpeg read " + std::to_string(n) + " parts: " + run.err).c_str());
            return;
        }
    }
    Report(state, cpu, parts);
}

// With repetitions, the minimum is the figure least disturbed by other work on the machine.
double Min(const std::vector<double>& v) {
    return v.empty() ? 0 : *std::min_element(v.begin(), v.end());
}

BENCHMARK(Camfetch)
    ->ComputeStatistics("min", Min)
    ->ArgName("repeat")
    ->Arg(10)
    ->Arg(100)
    ->Iterations(5)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Ffmpeg)
    ->ComputeStatistics("min", Min)
    ->ArgName("repeat")
    ->Arg(10)
    ->Arg(100)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
