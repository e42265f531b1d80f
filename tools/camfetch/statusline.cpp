#include "statusline.h"

#include <json/json.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace camfetch_tool {
namespace {
std::atomic<long long> g_repairs{0};

double Rate(const StreamStats& s) {
    double span = (s.lastPts - s.firstPts) / 1e6;
    return s.blocks > 1 && span > 0 ? (s.blocks - 1) / span : 0;
}

double Bitrate(const StreamStats& s) {
    double span = (s.lastPts - s.firstPts) / 1e6;
    return span > 0 ? s.bytes * 8 / span : 0;
}
}  // namespace

void CountTimestampRepair() {
    ++g_repairs;
}
long long TimestampRepairs() {
    return g_repairs.load();
}

StatusLine::StatusLine() : m_tty(isatty(STDERR_FILENO) != 0) {}

void StatusLine::Update(double elapsed, const StreamStats& video, const StreamStats& audio) {
    if (!m_tty || elapsed - m_lastDraw < 1.0)
        return;
    m_lastDraw = elapsed;
    m_drawn = true;
    fprintf(stderr,
            "\r%6.1fs  video %lld pics %5.1f fps %7.1f kbit/s  key every %lld  audio %lld  "
            "ts repairs %lld \x1b[K",
            elapsed, video.blocks, Rate(video), Bitrate(video) / 1000, video.keyInterval,
            audio.blocks, TimestampRepairs());
    fflush(stderr);
}

void StatusLine::Finish() {
    if (m_drawn)
        fprintf(stderr, "\n");
    m_drawn = false;
}

void PrintSummary(const Options& o, const StreamStats& video, const StreamStats& audio,
                  int reconnects, bool json) {
    if (json) {
        Json::Value out;
        for (const StreamStats* s : {&video, &audio}) {
            Json::Value& v = out[s == &video ? "video" : "audio"];
            v["codec"] = s->codec;
            v["blocks"] = static_cast<Json::Int64>(s->blocks);
            v["bytes"] = static_cast<Json::Int64>(s->bytes);
            v["key_frames"] = static_cast<Json::Int64>(s->keyFrames);
            v["duration_s"] = (s->lastPts - s->firstPts) / 1e6;
            v["rate"] = Rate(*s);
            v["bitrate"] = Bitrate(*s);
        }
        out["timestamp_repairs"] = static_cast<Json::Int64>(TimestampRepairs());
        out["reconnects"] = reconnects;
        out["output"] = o.outputDir;
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        printf("%s\n", Json::writeString(builder, out).c_str());
        return;
    }
    printf("%-6s %-6s %8s %12s %6s %10s %9s %12s\n", "stream", "codec", "blocks", "bytes", "keys",
           "duration", "rate", "bitrate");
    for (const StreamStats* s : {&video, &audio}) {
        if (s->blocks == 0)
            continue;
        printf("%-6s %-6s %8lld %12lld %6lld %9.2fs %7.2f/s %8.1f kbit/s\n",
               s == &video ? "video" : "audio", s->codec.c_str(), s->blocks, s->bytes, s->keyFrames,
               (s->lastPts - s->firstPts) / 1e6, Rate(*s), Bitrate(*s) / 1000);
    }
    printf("timestamp repairs: %lld; reconnects: %d; written to %s/\n", TimestampRepairs(),
           reconnects, o.outputDir.c_str());
}

}  // namespace camfetch_tool
