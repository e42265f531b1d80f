// The multipart part parser alone, next to FFmpeg's mpjpeg demuxer reading the same bytes from
// memory. The stream: JPEG-like parts of about 89 KB (a 720p MJPEG camera), with and without
// Content-Length part headers; 64 parts (5.7 MB, cache-resident) or 512 parts (45 MB, more than
// the last-level cache). The fetcher reads through the in-memory HTTP client, FFmpeg through a
// custom AVIOContext over the buffer; both hand every part out as a copy.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
}

#include "core/fetcher.h"
#include "host/hostlog.h"
#include "scriptedhttp.h"

namespace {

constexpr size_t kMeanPartSize = 89000;
constexpr const char* kBoundary = "myboundary";

// Entropy-coded-looking bytes between an SOI/APP0 head and an EOI, 0xFF stuffed as in JPEG.
std::string JpegLikePart(uint64_t& state, size_t size) {
    std::string part = std::string(
        "\xFF\xD8\xFF\xE0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01"
        "\x00\x00\xFF\xDA\x00\x0C",
        26);
    while (part.size() + 2 < size) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        uint64_t v = state;
        for (int k = 0; k < 8 && part.size() + 2 < size; ++k, v >>= 8) {
            const char c = static_cast<char>(v & 0xFF);
            part += c;
            if (c == '\xFF' && part.size() + 2 < size)
                part += '\0';
        }
    }
    part += "\xFF\xD9";
    return part;
}

const std::string& Stream(bool lengths, int parts) {
    static std::map<std::pair<bool, int>, std::string> streams;
    std::string& s = streams[{lengths, parts}];
    if (s.empty()) {
        uint64_t state = 0x2545F4914F6CDD1Dull;
        for (int i = 0; i < parts; ++i) {
            const std::string part = JpegLikePart(state, kMeanPartSize - 4000 + (i * 977) % 8000);
            s += std::string("--") + kBoundary + "\r\nContent-Type: image/jpeg\r\n";
            if (lengths)
                s += "Content-Length: " + std::to_string(part.size()) + "\r\n";
            s += "\r\n" + part + "\r\n";
        }
        s += std::string("--") + kBoundary + "--\r\n";
    }
    return s;
}

void Camfetch(benchmark::State& state) {
    const bool lengths = state.range(0) != 0;
    camfetch_host::LogInit(LOG_LEVEL_ERROR);
    scriptedhttp::Response response;
    response.contentType = std::string("multipart/x-mixed-replace; boundary=") + kBoundary;
    response.body = std::make_shared<const std::string>(Stream(lengths, state.range(1)));
    scriptedhttp::Serve("/bench", response);
    FETCH_PARAM param;
    param.strHost = "camera";
    param.iPort = 80;
    param.strPath = "/bench";
    param.iStreamMode = 1;
    std::vector<unsigned char> picture(1 << 20);
    int64_t parts = 0;
    for (auto _ : state) {
        FetcherBase* f = FetcherFactory(3, param);
        unsigned size = 0;
        int kind = 0;
        while (f->NextPartInfo(size, nullptr, 0, kind) == 0 &&
               f->FetchContent(picture.data(), size) == 0)
            ++parts;
        benchmark::DoNotOptimize(picture.data());
        ReleaseFetcher(f);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(response.body->size()));
    state.counters["parts"] = static_cast<double>(parts) / state.iterations();
    state.counters["parts/s"] =
        benchmark::Counter(static_cast<double>(parts), benchmark::Counter::kIsRate);
}

struct MemoryReader {
    const std::string* data;
    size_t pos;
};

int ReadMemory(void* opaque, uint8_t* buf, int size) {
    auto* r = static_cast<MemoryReader*>(opaque);
    const size_t n = std::min(static_cast<size_t>(size), r->data->size() - r->pos);
    if (n == 0)
        return AVERROR_EOF;
    memcpy(buf, r->data->data() + r->pos, n);
    r->pos += n;
    return static_cast<int>(n);
}

void Ffmpeg(benchmark::State& state) {
    const std::string& stream = Stream(state.range(0) != 0, state.range(1));
    av_log_set_level(AV_LOG_QUIET);
    constexpr int kIoBufferSize = 32768;  // FFmpeg's own default
    int64_t parts = 0;
    for (auto _ : state) {
        MemoryReader reader{&stream, 0};
        AVFormatContext* ctx = avformat_alloc_context();
        auto* io_buffer = static_cast<uint8_t*>(av_malloc(kIoBufferSize));
        AVIOContext* io =
            avio_alloc_context(io_buffer, kIoBufferSize, 0, &reader, ReadMemory, nullptr, nullptr);
        ctx->pb = io;
        ctx->flags |= AVFMT_FLAG_CUSTOM_IO;
        if (avformat_open_input(&ctx, nullptr, av_find_input_format("mpjpeg"), nullptr) < 0) {
            state.SkipWithError("mpjpeg demuxer refused the stream");
            break;
        }
        AVPacket* packet = av_packet_alloc();
        while (av_read_frame(ctx, packet) >= 0) {
            ++parts;
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
        avformat_close_input(&ctx);
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream.size()));
    state.counters["parts"] = static_cast<double>(parts) / state.iterations();
    state.counters["parts/s"] =
        benchmark::Counter(static_cast<double>(parts), benchmark::Counter::kIsRate);
}

// With repetitions, the minimum is the figure least disturbed by other work on the machine.
double Min(const std::vector<double>& v) {
    return v.empty() ? 0 : *std::min_element(v.begin(), v.end());
}

BENCHMARK(Camfetch)
    ->ComputeStatistics("min", Min)
    ->ArgNames({"lengths", "parts"})
    ->ArgsProduct({{1, 0}, {64, 512}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Ffmpeg)
    ->ComputeStatistics("min", Min)
    ->ArgNames({"lengths", "parts"})
    ->ArgsProduct({{1, 0}, {64, 512}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
