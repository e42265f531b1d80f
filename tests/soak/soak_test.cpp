// The reconnect soak: RTSP fetchers against an RTSP server (the scripted one of the
// integration tests, streaming an ffmpeg-made H.264 clip in a loop), which is killed by its
// pid and started again on the same port every few seconds, and multipart fetchers against a camera
// that drops every connection in the middle of a part, for a fixed time. Every fetcher must come
// back after every restart; afterwards no descriptor or thread may be left over, and resident
// memory must stay flat after the warm-up. The short form runs in CI (label soak); the long form by
// hand:
//   CAMFETCH_SOAK_SECONDS=600 build/tests/camfetch_soak
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "core/fetcher.h"
#include "host/hostlog.h"
#include "process.h"
#include "process_stats.h"
#include "rtsp_itest_support.h"

namespace {

int EnvInt(const char* name, int fallback) {
    const char* v = getenv(name);
    return v && *v ? atoi(v) : fallback;
}

double Now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

bool UnderAddressSanitizer() {
#if defined(__SANITIZE_ADDRESS__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    return true;
#endif
#endif
    return false;
}

// Counts what reaches the host and drops it at once, as a recorder that keeps up would.
class CountingHandler : public MediaDataHandler {
public:
    int ProcessMediaBlock(ESFormat&, MediaBlock* block) override {
        ++blocks;
        delete block;
        return 0;
    }
    std::atomic<long long> blocks{0};
};

// One fetcher slot: a host thread that runs a fetcher, releases it when the loop ends and
// starts a new one, as a recorder does with a camera, until told to stop.
class RtspSlot {
public:
    RtspSlot(int port, const std::string& path) : m_port(port), m_path(path) {}
    void Start() { m_thread = std::thread(&RtspSlot::Run, this); }
    void Stop() {
        if (!m_thread.joinable())
            return;
        m_stop = true;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_current)
                m_current->StopFetchLoop();
        }
        m_thread.join();
    }
    long long Blocks() const { return m_handler.blocks.load(); }
    int Sessions() const { return m_sessions.load(); }

private:
    void Run() {
        FETCH_PARAM p;
        p.strHost = "127.0.0.1";
        p.iPort = m_port;
        p.strPath = m_path;
        p.iProtocol = 2;
        p.iTimeout = 5;
        p.bHasAudio = false;
        while (!m_stop) {
            FetcherBase* f = FetcherFactory(1, p);
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_current = f;
            }
            if (!m_stop)
                f->DoFetchLoop(&m_handler);
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_current = nullptr;
            }
            ReleaseFetcher(f);
            ++m_sessions;
            for (int i = 0; i < 5 && !m_stop; ++i)
                usleep(100000);
        }
    }

    int m_port;
    std::string m_path;
    CountingHandler m_handler;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_sessions{0};
    std::mutex m_mutex;
    FetcherBase* m_current = nullptr;
    std::thread m_thread;
};

class MultipartSlot {
public:
    explicit MultipartSlot(const std::string& path, int port) {
        p.strHost = "127.0.0.1";
        p.iPort = port;
        p.strPath = path;
        p.iTimeout = 5;
        p.iStreamMode = 1;
    }
    void Start() { m_thread = std::thread(&MultipartSlot::Run, this); }
    void Stop() {
        if (!m_thread.joinable())
            return;
        m_stop = true;
        m_thread.join();
    }
    long long Parts() const { return m_parts.load(); }
    long long Failures() const { return m_failures.load(); }

private:
    void Run() {
        std::unique_ptr<FetcherBase> f(FetcherFactory(3, p));
        std::vector<unsigned char> buf;
        while (!m_stop) {
            unsigned size = 0;
            char type[64];
            int kind = 0;
            if (f->NextPartInfo(size, type, sizeof(type), kind) != 0) {
                ++m_failures;  // the next call reconnects
                continue;
            }
            buf.resize(size);
            if (f->FetchContent(buf.data(), size) == 0)
                ++m_parts;
            else
                ++m_failures;
        }
    }
    FETCH_PARAM p;
    std::atomic<bool> m_stop{false};
    std::atomic<long long> m_parts{0}, m_failures{0};
    std::thread m_thread;
};

// The RTSP server, started again on the same port after every kill.
class RtspServer {
public:
    RtspServer(const testsupport::TempDir& dir, const std::string& clip)
        : m_dir(dir), m_port(testsupport::FreeLoopbackPort()) {
        testsupport::WriteFile(dir.File("scenario.json"),
                               "{\"h264_file\": \"" + clip + "\", \"fps\": 25}");
    }
    bool Start() {
        return m_process.Start({SYSTEM_PYTHON3, TEST_DATA_DIR "/scripted_rtsp_server.py", "--port",
                                std::to_string(m_port), "--scenario", m_dir.File("scenario.json"),
                                "--record", "/dev/null"},
                               900, m_dir.File("server.log")) &&
               testsupport::WaitForTcpPort(m_port, 15);
    }
    void Kill() { m_process.Stop(); }
    int Port() const { return m_port; }

private:
    const testsupport::TempDir& m_dir;
    int m_port;
    testsupport::ServerProcess m_process;
};

TEST(Soak, FetchersRecoverFromEveryRestartWithoutLeaking) {
    const int seconds = EnvInt("CAMFETCH_SOAK_SECONDS", 80);
    // With RTP inside the RTSP connection a fetcher notices a dead server by its silence
    // watchdog, polled every 15 s, so up to 30 s after the last frame: an epoch between two
    // restarts leaves it time to notice and come back.
    const int restartEvery = EnvInt("CAMFETCH_SOAK_RESTART_SECONDS", 35);
    const int rtspCount = EnvInt("CAMFETCH_SOAK_RTSP", 32);
    const int multipartCount = EnvInt("CAMFETCH_SOAK_MULTIPART", 4);
    camfetch_host::LogInit(LOG_LEVEL_ERROR);
    camfetch_host::LogSetSink([](const camfetch_host::LogRecord&) {}, true);

    testsupport::TempDir dir;
    ASSERT_TRUE(rtspitest::MakeClip("h264", dir.File("soak.264"), 4));
    RtspServer server(dir, dir.File("soak.264"));
    ASSERT_TRUE(server.Start()) << testsupport::ReadFile(dir.File("server.log"));
    const int rtspPort = server.Port();

    const int cameraPort = testsupport::FreeLoopbackPort();
    testsupport::ServerProcess camera;
    ASSERT_TRUE(camera.Start({"python3", TEST_DATA_DIR "/multipart_camera.py",
                              std::to_string(cameraPort), std::to_string(seconds + 60)},
                             seconds + 90));
    ASSERT_TRUE(testsupport::WaitForTcpPort(cameraPort, 15));

    const int fdsBefore = soak::OpenDescriptors();
    const int threadsBefore = soak::Threads();

    std::vector<std::unique_ptr<RtspSlot>> rtsp;
    std::vector<std::unique_ptr<MultipartSlot>> multipart;
    // Whatever ends the test, the host threads are stopped before the servers go.
    struct StopAll {
        std::vector<std::unique_ptr<RtspSlot>>& rtsp;
        std::vector<std::unique_ptr<MultipartSlot>>& multipart;
        ~StopAll() {
            for (auto& s : rtsp)
                s->Stop();
            for (auto& s : multipart)
                s->Stop();
        }
    } stopAll{rtsp, multipart};
    for (int i = 0; i < rtspCount; ++i) {
        rtsp.push_back(std::make_unique<RtspSlot>(rtspPort, "/soak.264"));
        rtsp.back()->Start();
    }
    for (int i = 0; i < multipartCount; ++i) {
        multipart.push_back(std::make_unique<MultipartSlot>(
            "/stream?endless=1&cut=" + std::to_string(5 + 3 * i), cameraPort));
        multipart.back()->Start();
    }

    // Blocks of every RTSP slot at the start of each epoch (between two restarts).
    std::vector<std::vector<long long>> epochStart;
    std::vector<long> rss;
    const double start = Now();
    double nextRestart = start + restartEvery;
    int restarts = 0;
    auto snapshot = [&] {
        std::vector<long long> counts;
        for (auto& s : rtsp)
            counts.push_back(s->Blocks());
        epochStart.push_back(counts);
    };
    snapshot();
    while (Now() - start < seconds) {
        sleep(1);
        rss.push_back(soak::ResidentKiB());
        if (Now() >= nextRestart && Now() - start < seconds - restartEvery / 2) {
            server.Kill();  // by its pid
            usleep(500000);
            ASSERT_TRUE(server.Start()) << testsupport::ReadFile(dir.File("server.log"));
            ++restarts;
            snapshot();
            nextRestart = Now() + restartEvery;
        }
    }
    snapshot();

    long long rtspBlocks = 0;
    int sessions = 0;
    for (auto& s : rtsp) {
        s->Stop();
        rtspBlocks += s->Blocks();
        sessions += s->Sessions();
    }
    long long parts = 0, failures = 0;
    for (auto& s : multipart) {
        s->Stop();
        parts += s->Parts();
        failures += s->Failures();
    }
    usleep(300000);
    const int fdsAfter = soak::OpenDescriptors();
    const int threadsAfter = soak::Threads();

    // Every slot delivered in every epoch: it came back after each restart.
    int silent = 0;
    std::string perEpoch;
    for (size_t e = 0; e + 1 < epochStart.size(); ++e) {
        int quiet = 0;
        for (size_t i = 0; i < epochStart[e].size(); ++i)
            if (epochStart[e + 1][i] <= epochStart[e][i])
                ++quiet;
        perEpoch += " " + std::to_string(quiet);
        silent += quiet;
    }
    const size_t warm = rss.size() / 3;
    const double slope = soak::SlopeKiBPerMinute(
        std::vector<long>(rss.begin() + static_cast<long>(warm), rss.end()), 1.0);
    printf(
        "soak: %d s, %d restarts, %d RTSP fetchers (%d sessions, %lld blocks), %d multipart "
        "fetchers (%lld parts, %lld failed parts), RSS %ld -> %ld KiB, slope after warm-up "
        "%.1f KiB/min, descriptors %d -> %d, threads %d -> %d, silent fetchers per epoch%s\n",
        seconds, restarts, rtspCount, sessions, rtspBlocks, multipartCount, parts, failures,
        rss.empty() ? 0 : rss.front(), rss.empty() ? 0 : rss.back(), slope, fdsBefore, fdsAfter,
        threadsBefore, threadsAfter, perEpoch.c_str());
    RecordProperty("rss_slope_kib_per_min", std::to_string(slope));
    RecordProperty("restarts", restarts);

    EXPECT_GE(restarts, 1);
    EXPECT_EQ(silent, 0) << "a fetcher did not recover after a restart";
    EXPECT_GT(parts, 0);
    EXPECT_GT(failures, 0) << "the camera drops connections mid-part";
    EXPECT_EQ(fdsAfter, fdsBefore) << "descriptors leaked";
    EXPECT_EQ(threadsAfter, threadsBefore) << "threads leaked";
    // Receive buffers fill their pages as frames grow: the slope means something only once
    // a run is long enough to leave that behind (the long form).
    if (!UnderAddressSanitizer() && seconds >= 300) {
        EXPECT_LT(slope, 256.0) << "resident memory keeps growing after the warm-up";
    }
}

}  // namespace
