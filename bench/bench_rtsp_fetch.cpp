// Many concurrent RTSP pulls of a 1080p25 H.264 stream (High, B-frames, about 8 Mbit/s) over
// TCP from live555's media server on loopback: CPU seconds per stream-minute in steady state
// (from /proc) and resident memory per stream, for N = 1, 8, 32 and 64 streams, next to
// `ffmpeg -rtsp_transport tcp -i rtsp://... -c copy -f null -` and GStreamer's
// `rtspsrc ! rtph264depay ! h264parse ! fakesink`, one process per stream, on the same server
// and stream.
//
// camfetch: N RTSP fetchers (factory kind 1) in this process, each DoFetchLoop on a thread of
// its own, delivering packetized pictures to a handler that counts and frees them, as a
// recorder would before storing them. Its CPU is this process's (/proc/self/stat), its memory
// the growth of this process's resident set over the idle process, divided by N.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/fetcher.h"
#include "host/hostlog.h"
#include "process.h"

namespace {

constexpr double kClipSeconds = 50;  // covers the set-up of 64 streams and the window
constexpr double kWindowSeconds = 25;
constexpr int kFps = 25;
const char* kClipName = "rtsp_h264_high_1080p_50s.264";

double WallSeconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// CPU time of a process (or "self") in seconds: the sum of its threads' run times from
// /proc/<pid>/task/<tid>/schedstat, in nanoseconds (the tick-based utime/stime of
// /proc/<pid>/stat is too coarse for a single stream's few hundred milliseconds).
double CpuSeconds(const std::string& pid) {
    double total = 0;
    const std::string tasks = "/proc/" + pid + "/task";
    if (DIR* dir = opendir(tasks.c_str())) {
        while (dirent* e = readdir(dir)) {
            if (e->d_name[0] == '.')
                continue;
            std::ifstream in(tasks + "/" + e->d_name + "/schedstat");
            unsigned long long ns = 0;
            if (in >> ns)
                total += ns / 1e9;
        }
        closedir(dir);
    }
    return total;
}

// Bytes received so far on the clients' ends of every TCP connection to the server (from
// the kernel's TCP_INFO, through ss): what the clients were able to take in.
double ReceivedBytes(int serverPort) {
    const auto out = testsupport::RunCommand(
        {"ss", "-tinH", "( dport = :" + std::to_string(serverPort) + " )"}, 30);
    double total = 0;
    for (size_t at = out.out.find("bytes_received:"); at != std::string::npos;
         at = out.out.find("bytes_received:", at + 1))
        total += std::stod(out.out.substr(at + 15));
    return total;
}

// The machine's one-minute load average: other work on it moves every figure.
double LoadAverage() {
    std::ifstream in("/proc/loadavg");
    double load = 0;
    in >> load;
    return load;
}

// Resident set of a process in bytes.
double RssBytes(const std::string& pid) {
    std::ifstream in("/proc/" + pid + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stod(line.substr(6)) * 1024;
    return 0;
}

// The child processes of a process (one level).
std::vector<std::string> Children(pid_t pid) {
    std::vector<std::string> out;
    std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
    std::string child;
    while (in >> child)
        out.push_back(child);
    return out;
}

// A peer client process that dies with the benchmark and is stopped by its pid.
class Peer {
public:
    explicit Peer(const std::vector<std::string>& argv) {
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int null = open("/dev/null", O_RDWR);
            dup2(null, 0);
            dup2(null, 1);
            dup2(null, 2);
            std::vector<char*> args;
            for (const auto& a : argv)
                args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            execvp(args[0], args.data());
            _exit(127);
        }
    }
    ~Peer() {
        if (m_pid <= 0)
            return;
        kill(m_pid, SIGTERM);
        for (int i = 0; i < 100; ++i) {
            if (waitpid(m_pid, nullptr, WNOHANG) == m_pid)
                return;
            usleep(20000);
        }
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    std::string Pid() const { return std::to_string(m_pid); }

private:
    pid_t m_pid = -1;
};

struct Server {
    testsupport::ServerProcess process;
    std::string dir = BENCH_CACHE_DIR;
    std::string url;
    std::string error;
    std::string pid;  // the server itself (its parent is the time limit)

    Server() {
        const std::string clip = dir + "/" + kClipName;
        if (access(clip.c_str(), R_OK) != 0) {
            testsupport::RunCommand({"mkdir", "-p", dir}, 60);
            const std::string tmp = clip + ".tmp";
            auto made = testsupport::RunCommand({"ffmpeg",     "-v",
                                                 "error",      "-y",
                                                 "-f",         "lavfi",
                                                 "-i",         "testsrc2=size=1920x1080:rate=25",
                                                 "-t",         std::to_string(kClipSeconds),
                                                 "-pix_fmt",   "yuv420p",
                                                 "-c:v",       "libx264",
                                                 "-preset",    "veryfast",
                                                 "-profile:v", "high",
                                                 "-bf",        "2",
                                                 "-b:v",       "8M",
                                                 "-maxrate",   "8M",
                                                 "-bufsize",   "16M",
                                                 "-g",         "50",
                                                 "-f",         "h264",
                                                 tmp},
                                                900);
            if (made.exitCode != 0 || rename(tmp.c_str(), clip.c_str()) != 0) {
                error = "ffmpeg could not make the clip: " + made.err;
                return;
            }
        }
        const std::vector<std::string> env = {
            std::string("LD_LIBRARY_PATH=") + LIVE555_LIBRARY_DIR,
            std::string("LD_PRELOAD=") + LIVE555_GLIBC_PRELOAD + " " + LOOPBACK_BIND_PRELOAD};
        const std::string log = dir + "/live555.log";
        unlink(log.c_str());
        if (!process.Start({"sh", "-c", "cd '" + dir + "' && exec '" + LIVE555_MEDIA_SERVER + "'"},
                           3600, log, env)) {
            error = "live555MediaServer did not start";
            return;
        }
        for (int i = 0; i < 200 && url.empty(); ++i) {
            const std::string text = testsupport::ReadFile(log);
            if (text.find("tunneling") != std::string::npos)
                url = std::string("rtsp://127.0.0.1:") +
                      (text.find(":8554/") != std::string::npos ? "8554" : "554") + "/" + kClipName;
            else
                usleep(50000);
        }
        for (const auto& sh : Children(process.Pid()))
            pid = sh;  // `timeout` runs the server as its only child
        if (url.empty() || pid.empty())
            error = "live555MediaServer did not come up";
    }
};

Server& TheServer() {
    static Server server;
    return server;
}

class CountingHandler : public MediaDataHandler {
public:
    int ProcessMediaBlock(ESFormat& format, MediaBlock* block) override {
        if (format.i_cat == VIDEO_ES)
            pictures.fetch_add(1, std::memory_order_relaxed);
        delete block;
        return 0;
    }
    std::atomic<uint64_t> pictures{0};
};

struct Figures {
    double cpuPerStreamMinute = 0;
    double rssPerStream = 0;
    double serverCpuShare = 0;  // cores the server used during the window
    double minPicturesPerSecond = 0;
    double meanPicturesPerSecond = 0;
    double bytesPerSecond = 0;  // received per stream
};

// Set-up of N streams: live555's server answers one DESCRIBE at a time and reads the file's
// start for each, so later streams start later.
double WarmUpSeconds(int n) {
    return 4 + 0.15 * n;
}

Figures RunCamfetch(int n, const std::string& url, const std::string& serverPid) {
    const double idleRss = RssBytes("self");
    FETCH_PARAM param;
    param.strHost = "127.0.0.1";
    param.iPort = std::stoi(url.substr(17, url.find('/', 17) - 17));
    param.strPath = kClipName;
    param.iProtocol = 2;  // TCP
    param.iTimeout = 30;
    std::vector<std::unique_ptr<FetcherBase>> fetchers;
    std::vector<std::unique_ptr<CountingHandler>> handlers;
    std::vector<std::thread> loops;
    for (int i = 0; i < n; ++i) {
        fetchers.emplace_back(FetcherFactory(1, param));
        handlers.emplace_back(new CountingHandler);
    }
    for (int i = 0; i < n; ++i)
        loops.emplace_back([&, i] { fetchers[i]->DoFetchLoop(handlers[i].get()); });
    usleep(static_cast<useconds_t>(WarmUpSeconds(n) * 1e6));

    std::vector<uint64_t> before(n);
    for (int i = 0; i < n; ++i)
        before[i] = handlers[i]->pictures.load();
    const int port = std::stoi(url.substr(17, url.find('/', 17) - 17));
    const double read0 = ReceivedBytes(port);
    const double cpu0 = CpuSeconds("self"), server0 = CpuSeconds(serverPid), t0 = WallSeconds();
    usleep(static_cast<useconds_t>(kWindowSeconds * 1e6));
    const double cpu1 = CpuSeconds("self"), server1 = CpuSeconds(serverPid), t1 = WallSeconds();
    Figures f;
    f.bytesPerSecond = (ReceivedBytes(port) - read0) / n / (t1 - t0);
    f.rssPerStream = (RssBytes("self") - idleRss) / n;
    double minRate = 1e9, sum = 0;
    for (int i = 0; i < n; ++i) {
        const double rate = (handlers[i]->pictures.load() - before[i]) / (t1 - t0);
        minRate = std::min(minRate, rate);
        sum += rate;
    }
    for (auto& f : fetchers)
        f->StopFetchLoop();
    for (auto& t : loops)
        t.join();
    f.cpuPerStreamMinute = (cpu1 - cpu0) / n / (t1 - t0) * 60;
    f.serverCpuShare = (server1 - server0) / (t1 - t0);
    f.minPicturesPerSecond = minRate;
    f.meanPicturesPerSecond = sum / n;
    return f;
}

Figures RunPeers(int n, const std::vector<std::string>& argv, const std::string& url,
                 const std::string& serverPid) {
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < n; ++i)
        peers.emplace_back(new Peer(argv));
    usleep(static_cast<useconds_t>(WarmUpSeconds(n) * 1e6));
    auto cpu = [&] {
        double total = 0;
        for (auto& p : peers)
            total += CpuSeconds(p->Pid());
        return total;
    };
    const int port = std::stoi(url.substr(17, url.find('/', 17) - 17));
    const double read0 = ReceivedBytes(port);
    const double cpu0 = cpu(), server0 = CpuSeconds(serverPid), t0 = WallSeconds();
    usleep(static_cast<useconds_t>(kWindowSeconds * 1e6));
    const double cpu1 = cpu(), server1 = CpuSeconds(serverPid), t1 = WallSeconds();
    Figures f;
    f.bytesPerSecond = (ReceivedBytes(port) - read0) / n / (t1 - t0);
    for (auto& p : peers)
        f.rssPerStream += RssBytes(p->Pid());
    f.rssPerStream /= n;
    f.cpuPerStreamMinute = (cpu1 - cpu0) / n / (t1 - t0) * 60;
    f.serverCpuShare = (server1 - server0) / (t1 - t0);
    peers.clear();
    return f;
}

enum class Client { kCamfetch, kFfmpeg, kGstreamer };

void BM_RtspPull(benchmark::State& state, Client client, int n) {
    Server& server = TheServer();
    if (!server.error.empty()) {
        state.SkipWithError(server.error.c_str());
        return;
    }
    Figures f;
    for (auto _ : state) {
        const double start = WallSeconds();
        switch (client) {
            case Client::kCamfetch:
                f = RunCamfetch(n, server.url, server.pid);
                break;
            case Client::kFfmpeg:
                f = RunPeers(n,
                             {"ffmpeg", "-nostdin", "-v", "error", "-rtsp_transport", "tcp", "-i",
                              server.url, "-c", "copy", "-f", "null", "-"},
                             server.url, server.pid);
                break;
            case Client::kGstreamer:
                f = RunPeers(
                    n,
                    {"gst-launch-1.0", "-q", "rtspsrc", "location=" + server.url, "protocols=tcp",
                     "!", "rtph264depay", "!", "h264parse", "!", "fakesink"},
                    server.url, server.pid);
                break;
        }
        state.SetIterationTime(WallSeconds() - start);
        // Let the server's sessions of this run end before the next one starts.
        sleep(2);
    }
    state.counters["cpu_s_per_stream_min"] = f.cpuPerStreamMinute;
    state.counters["rss_MiB_per_stream"] = f.rssPerStream / (1024 * 1024);
    state.counters["server_cores"] = f.serverCpuShare;
    state.counters["load1"] = LoadAverage();
    state.counters["Mbit_per_s_per_stream"] = f.bytesPerSecond * 8 / 1e6;
    if (client == Client::kCamfetch) {
        state.counters["pictures_per_s_min"] = f.minPicturesPerSecond;
        state.counters["pictures_per_s_mean"] = f.meanPicturesPerSecond;
    }
}

// Figures of the runs, for the summary: [client][N].
std::map<std::string, std::map<int, double>> g_cpu;

}  // namespace

int main(int argc, char** argv) {
    // A recorder runs with warnings and errors logged, not per-frame detail.
    camfetch_host::LogInit(LOG_LEVEL_WARNING);
    // The three clients one after the other for each N, so that they share the machine's
    // conditions of the moment.
    for (int n : {1, 8, 32, 64}) {
        for (auto [name, client] :
             {std::pair{"camfetch", Client::kCamfetch}, std::pair{"ffmpeg", Client::kFfmpeg},
              std::pair{"gstreamer", Client::kGstreamer}}) {
            const std::string label = name;
            benchmark::RegisterBenchmark(
                ("rtsp_tcp_1080p/" + label + "/streams:" + std::to_string(n)).c_str(),
                [client = client, label, n](benchmark::State& s) {
                    BM_RtspPull(s, client, n);
                    g_cpu[label][n] = s.counters["cpu_s_per_stream_min"];
                })
                ->Iterations(1)
                ->UseManualTime()
                ->Unit(benchmark::kSecond);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printf("\nCPU seconds per stream-minute: camfetch / ffmpeg, camfetch / GStreamer\n");
    for (const auto& [n, ours] : g_cpu["camfetch"]) {
        const double ffmpeg = g_cpu["ffmpeg"].count(n) ? g_cpu["ffmpeg"][n] : 0;
        const double gst = g_cpu["gstreamer"].count(n) ? g_cpu["gstreamer"][n] : 0;
        printf("  N=%-3d camfetch %.3f  ffmpeg %.3f (%.2fx)  gstreamer %.3f (%.2fx)\n", n, ours,
               ffmpeg, ffmpeg > 0 ? ours / ffmpeg : 0.0, gst, gst > 0 ? ours / gst : 0.0);
    }
    return 0;
}
