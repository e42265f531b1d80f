#include "fetchrun.h"

#include <json/json.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/fetchstatus.h"
#include "outputsink.h"
#include "preflight.h"
#include "rtsp/rtspfetch.h"
#include "statusline.h"

namespace camfetch_tool {

std::atomic<bool> g_interrupted{false};

namespace {

double NowSec() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

long long WallUs() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

struct FetcherDeleter {
    void operator()(FetcherBase* f) const { ReleaseFetcher(f); }
};
using FetcherPtr = std::unique_ptr<FetcherBase, FetcherDeleter>;

int Fail(const Options& o, const std::string& cause) {
    fprintf(stderr, "camfetch: cannot fetch %s: %s\n", RedactedUrl(o.url).c_str(), cause.c_str());
    return 1;
}

int DefaultPort(const Options& o) {
    return MakeFetchParam(o).iPort;
}

// Why a camera gave no media, looked into only after the fact: some cameras (and ffmpeg's
// -listen) serve a single client, which a probe made beforehand would use up.
std::string WhyNothing(const Options& o, const std::string& fallback) {
    Reachability r = CheckTcp(o.url.host, DefaultPort(o), o.timeoutSec);
    if (!r.reachable)
        return r.cause;
    std::string status = ProbeStatus(o, DefaultPort(o));
    return status.empty() ? fallback : status;
}

FetcherPtr MakeFetcher(const Options& o) {
    return FetcherPtr(FetcherFactory(FetcherType(o.kind), MakeFetchParam(o)));
}

bool StopRequested(const Options& o, OutputSink& sink, double start) {
    if (g_interrupted.load() || sink.LimitReached())
        return true;
    return o.durationSec > 0 && NowSec() - start >= o.durationSec;
}

// One DoFetchLoop on a thread of its own, until it ends or the fetch is to stop; true when
// the stop was ours.
bool RunOneLoop(const Options& o, FetcherBase& fetcher, OutputSink& sink, StatusLine& status,
                double start) {
    std::atomic<bool> finished{false};
    std::thread loop([&] {
        fetcher.DoFetchLoop(&sink);
        finished = true;
    });
    bool stoppedByUs = false;
    while (!finished.load()) {
        if (StopRequested(o, sink, start)) {
            stoppedByUs = true;
            fetcher.StopFetchLoop();
            break;
        }
        status.Update(NowSec() - start, sink.Video(), sink.Audio());
        sink.WaitForLimit(0.2);
    }
    loop.join();
    return stoppedByUs;
}

// Waits out a reconnection's back-off; false when the fetch is to stop meanwhile.
bool WaitToReconnect(const Options& o, OutputSink& sink, double start, double seconds) {
    const double until = NowSec() + seconds;
    while (NowSec() < until) {
        if (StopRequested(o, sink, start))
            return false;
        usleep(100000);
    }
    return true;
}

// Why a push fetch delivered nothing, in the words of the library's status where it has one.
std::string NothingCause(const Options& o, const FETCH_STATUS* end) {
    if (o.kind == Kind::kMobile)
        return "no client pushed any media";
    if (!end || end->iEndReason == FETCH_END_NONE || end->iEndReason == FETCH_END_STOPPED)
        return "no media received";
    switch (end->iEndReason) {
        case FETCH_END_UNREACHABLE:
            return WhyNothing(o, end->szReason);
        case FETCH_END_REFUSED:
            return StatusCause(end->iStatusCode, end->szReason);
        default:
            return end->szReason;
    }
}

long long Delivered(OutputSink& sink) {
    return sink.Video().blocks + sink.Audio().blocks;
}

int RunPush(const Options& o, FetcherBase& fetcher, OutputSink& sink, StatusLine& status,
            int& reconnects) {
    constexpr double kFirstBackoffSec = 1;
    constexpr double kMaxBackoffSec = 30;
    const double start = NowSec();
    double backoff = kFirstBackoffSec;
    FETCH_STATUS end;
    bool known = false;
    bool stoppedByUs = false;
    for (;;) {
        const long long before = Delivered(sink);
        stoppedByUs = RunOneLoop(o, fetcher, sink, status, start);
        if (stoppedByUs)
            break;
        known = GetFetchStatus(&fetcher, &end) == 0;
        // A session that delivered shows the camera is live: the next drop starts afresh.
        if (Delivered(sink) > before)
            backoff = kFirstBackoffSec;
        // A camera that never delivered is reported at once, reconnection or not.
        if (!o.reconnect || !known || !end.bMayReconnect || !sink.AnyDelivered())
            break;
        status.Finish();
        fprintf(stderr, "camfetch: %s; reconnecting in %g s\n", end.szReason, backoff);
        stoppedByUs = !WaitToReconnect(o, sink, start, backoff);
        if (stoppedByUs)
            break;
        backoff = std::min(backoff * 2, kMaxBackoffSec);
        ++reconnects;
    }
    status.Finish();
    if (g_interrupted.load())
        return 0;
    if (!sink.AnyDelivered())
        return Fail(o, NothingCause(o, known ? &end : nullptr));
    if (!stoppedByUs && known && end.iEndReason != FETCH_END_STOPPED)
        fprintf(stderr, "camfetch: the stream ended: %s\n", end.szReason);
    return 0;
}

std::string PullFailureCause(const Options& o, int code) {
    if (code == 6)
        return "401 Unauthorized";
    // The content-type check (1) or the boundary search (8) failed on a response that was
    // otherwise fine.
    const bool notMultipart = o.kind == Kind::kMultipart && (code == 1 || code == 8);
    return WhyNothing(o, notMultipart ? "not a multipart stream"
                                      : "connection failed (result " + std::to_string(code) + ")");
}

// Audio parts of a camera whose format names no codec: the part's content type tells.
ESFormat AudioPartFormat(const ESFormat& audio, const char* type) {
    ESFormat f(audio);
    if (f.i_codec == 0) {
        std::string t = type;
        if (t.find("basic") != std::string::npos || t.find("pcma") != std::string::npos ||
            t.find("alaw") != std::string::npos)
            f.i_codec = kCodecAlaw;
        else if (t.find("pcmu") != std::string::npos || t.find("mulaw") != std::string::npos)
            f.i_codec = kCodecUlaw;
    }
    return f;
}

int RunPull(const Options& o, FetcherBase& fetcher, OutputSink& sink, StatusLine& status) {
    int rc = fetcher.TestConnect();
    if (rc != 0)
        return Fail(o, PullFailureCause(o, rc));
    ESFormat video, audio;
    fetcher.GetVideoFormat(video);
    fetcher.GetAudioFormat(audio);
    sink.WriteFormats(video, audio);

    std::vector<unsigned char> buffer;
    const double start = NowSec();
    double failingSince = 0;
    while (!StopRequested(o, sink, start)) {
        status.Update(NowSec() - start, sink.Video(), sink.Audio());
        unsigned int size = 0;
        char type[256] = {0};
        int kind = VIDEO_ES;  // fetchers that do not tell the medium deliver video
        rc = fetcher.NextPartInfo(size, type, sizeof(type), kind);
        if (rc == 0 && size > 0) {
            buffer.resize(size);
            rc = fetcher.FetchContent(buffer.data(), size);
            if (rc == 0) {
                failingSince = 0;
                fetcher.GetVideoFormat(video);
                fetcher.GetAudioFormat(audio);
                if (kind == AUDIO_ES)
                    sink.WritePart(kind, AudioPartFormat(audio, type), buffer.data(), size,
                                   WallUs(), 0);
                else
                    sink.WritePart(kind, video, buffer.data(), size, WallUs(), 0);
                continue;
            }
        } else if (rc == 0) {
            continue;  // an empty part: the fetcher reconnects on the next call
        }
        // A failed part: the fetcher reconnects on the next call; give up when that keeps
        // failing for the time-out, or once the camera no longer accepts connections.
        if (failingSince == 0)
            failingSince = NowSec();
        if (NowSec() - failingSince > o.timeoutSec)
            break;
        usleep(200000);
        if (NowSec() - failingSince > 1 &&
            !CheckTcp(o.url.host, DefaultPort(o), o.timeoutSec).reachable)
            break;
    }
    status.Finish();
    fetcher.GetVideoFormat(video);
    fetcher.GetAudioFormat(audio);
    sink.WriteFormats(video, audio);
    if (!sink.AnyDelivered() && !g_interrupted.load())
        return Fail(o, WhyNothing(o, "no parts received"));
    return 0;
}

}  // namespace

int RunFetch(const Options& o) {
    FetcherPtr fetcher = MakeFetcher(o);
    if (!fetcher)
        return Fail(o, std::string("this build has no ") + KindName(o.kind) + " fetcher");
    OutputSink sink(o.outputDir, o.frames);
    std::string error;
    if (!sink.Open(error)) {
        fprintf(stderr, "camfetch: %s\n", error.c_str());
        return 1;
    }
    StatusLine status;
    const bool push = o.kind == Kind::kRtsp || o.kind == Kind::kMobile;
    int reconnects = 0;
    int rc =
        push ? RunPush(o, *fetcher, sink, status, reconnects) : RunPull(o, *fetcher, sink, status);
    if (push)
        sink.WriteLastFormats();
    if (rc == 0)
        PrintSummary(o, sink.Video(), sink.Audio(), reconnects, o.json);
    return rc;
}

int RunProbe(const Options& o) {
    FetcherPtr fetcher = MakeFetcher(o);
    if (!fetcher)
        return Fail(o, std::string("this build has no ") + KindName(o.kind) + " fetcher");
    Json::Value out;
    // A camera that takes no connection is answered within the connect time-out, instead of
    // after the minute the connection test goes on retrying.
    Reachability reach;
    if (o.kind == Kind::kRtsp)
        reach = CheckTcp(o.url.host, DefaultPort(o), o.timeoutSec);
    int connect =
        o.kind != Kind::kRtsp || reach.reachable ? fetcher->TestConnect() : RTSP_TEST_UNREACHABLE;
    out["connect"] = connect;
    ESFormat video, audio;
    fetcher->GetVideoFormat(video);
    fetcher->GetAudioFormat(audio);
    out["video"]["codec"] = CodecName(video.i_codec);
    out["video"]["width"] = video.video.i_width;
    out["video"]["height"] = video.video.i_height;
    out["video"]["extra_size"] = video.i_extra;
    out["audio"]["codec"] = CodecName(audio.i_codec);
    out["audio"]["rate"] = audio.audio.i_rate;
    out["audio"]["channels"] = audio.audio.i_channels;
    out["audio"]["extra_size"] = audio.i_extra;
    out["bandwidth"] = connect == 0 ? fetcher->GetBandwidth() : 0;
    std::string cause = connect == 0           ? std::string()
                        : !reach.cause.empty() ? reach.cause
                                               : WhyNothing(o, "connection failed");
    if (!cause.empty())
        out["error"] = cause;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    printf("%s\n", Json::writeString(builder, out).c_str());
    return connect == 0 ? 0 : Fail(o, cause);
}

}  // namespace camfetch_tool
