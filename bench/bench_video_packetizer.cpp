// Throughput of the video packetizer on ffmpeg-made streams (1080p25 H.264 High with B-frames
// and Baseline, 1080p HEVC Main, 720p MPEG-4 Part 2), fed (a) one NAL unit (MPEG-4: one
// picture) per frame the way StreamPacker::Process wraps what an RTSP receiver delivers, and
// (b) in 64 KiB chunks, wrapped in place and copied into blocks. In the same run FFmpeg's parser
// (av_parser_parse2) cuts the same bytes in 1400-byte and 64 KiB chunks, and memcpy copies them
// once; the end of the run prints ours/FFmpeg and ours/memcpy.
//
// The inputs are encoded once into a cache directory (BENCH_CACHE_DIR, under the build tree)
// and read into memory; nothing but packetizing is timed.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include "packetizer/mpeg4videopacket.h"
#include "video_feed.h"

#ifndef BENCH_CACHE_DIR
#define BENCH_CACHE_DIR "/tmp/camfetch-bench-cache"
#endif

namespace {

constexpr size_t kChunk64k = 64 * 1024;
constexpr size_t kChunkRtp = 1400;
constexpr int64_t kFrameUs = 40000;

struct Input {
    Input(std::string n, uint32_t c, AVCodecID av, std::string enc, std::string fmt)
        : name(std::move(n)),
          codec(c),
          avCodec(av),
          encode(std::move(enc)),
          format(std::move(fmt)) {}

    std::string name;
    uint32_t codec;
    AVCodecID avCodec;
    std::string encode;  // ffmpeg arguments from the input to the output format
    std::string format;
    std::vector<uint8_t> data;  // with FFmpeg's input padding behind the end
    size_t size = 0;
    std::vector<std::pair<size_t, size_t>> frames;  // as an RTSP receiver delivers them
    std::string error;
};

std::vector<Input>& Inputs() {
    static std::vector<Input> inputs = {
        Input{"h264_high_1080p", kCodecH264, AV_CODEC_ID_H264,
              "-f lavfi -i testsrc2=size=1920x1080:rate=25 -t 60 -pix_fmt yuv420p -c:v libx264 "
              "-preset veryfast -profile:v high -bf 2 -b:v 8M -maxrate 8M -bufsize 16M -g 50",
              "h264"},
        Input{"h264_baseline_1080p", kCodecH264, AV_CODEC_ID_H264,
              "-f lavfi -i testsrc2=size=1920x1080:rate=25 -t 60 -pix_fmt yuv420p -c:v libx264 "
              "-preset veryfast -profile:v baseline -bf 0 -b:v 8M -maxrate 8M -bufsize 16M -g 50",
              "h264"},
        Input{"hevc_main_1080p", kCodecHevc, AV_CODEC_ID_HEVC,
              "-f lavfi -i testsrc2=size=1920x1080:rate=25 -t 60 -pix_fmt yuv420p -c:v libx265 "
              "-preset ultrafast -b:v 8M -x265-params keyint=50:log-level=error",
              "hevc"},
        Input{"mpeg4_720p", kCodecMp4v, AV_CODEC_ID_MPEG4,
              "-f lavfi -i testsrc2=size=1280x720:rate=25 -t 60 -c:v mpeg4 -b:v 8M -bf 0 -g 50",
              "m4v"},
    };
    return inputs;
}

bool FileExists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && st.st_size > 0;
}

// Encodes the input once into the cache and loads it; the frames are cut as an RTP
// depacketizer would hand them over.
void Load(Input& in) {
    mkdir(BENCH_CACHE_DIR, 0755);
    const std::string path = std::string(BENCH_CACHE_DIR) + "/" + in.name + "." + in.format;
    if (!FileExists(path)) {
        fprintf(stderr, "encoding %s (once) ...\n", path.c_str());
        const std::string tmp = path + ".part";
        const std::string cmd =
            "ffmpeg -v error -y " + in.encode + " -f " + in.format + " '" + tmp + "'";
        if (std::system(cmd.c_str()) != 0 || std::rename(tmp.c_str(), path.c_str()) != 0) {
            in.error = "could not encode " + path;
            return;
        }
    }
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    const std::string bytes = content.str();
    in.size = bytes.size();
    in.data.assign(bytes.begin(), bytes.end());
    in.data.resize(in.size + AV_INPUT_BUFFER_PADDING_SIZE, 0);

    const uint8_t* d = in.data.data();
    std::vector<size_t> codes = testsupport::StartCodes3(d, in.size);
    if (in.codec == kCodecMp4v) {
        size_t begin = codes.empty() ? 0 : codes[0];
        for (size_t k = 0; k < codes.size(); ++k)
            if (codes[k] + 3 < in.size && d[codes[k] + 3] == 0xb6) {
                size_t end = k + 1 < codes.size() ? codes[k + 1] : in.size;
                in.frames.emplace_back(begin, end - begin);
                begin = end;
            }
        return;
    }
    for (size_t k = 0; k < codes.size(); ++k) {
        size_t begin = codes[k] + 3;
        size_t end = k + 1 < codes.size() ? codes[k + 1] : in.size;
        while (end > begin && d[end - 1] == 0)
            --end;
        if (end > begin)
            in.frames.emplace_back(begin, end - begin);
    }
}

void Report(benchmark::State& state, const Input& in, int64_t pictures) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(in.size));
    state.counters["pictures/s"] =
        benchmark::Counter(static_cast<double>(pictures) * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate);
}

// Runs a fresh packetizer over the input once per iteration; `feed` hands it the input and
// every output goes to the sink, which counts pictures and releases blocks as the host would.
template <typename Feed>
void RunOurs(benchmark::State& state, Input* in, Feed feed) {
    if (!in->error.empty()) {
        state.SkipWithError(in->error.c_str());
        return;
    }
    int64_t pictures = 0;
    for (auto _ : state) {
        Mpeg4VideoPacketizer packetizer(0);
        PACK_STREAM stream;
        stream.fmt.Reset(VIDEO_ES, in->codec);
        packetizer.InitPacket(&stream);
        pictures = 0;
        auto sink = [&](MediaBlock* b) {
            pictures += (b->GetFlags() & BLOCK_FLAG_TYPE_MASK) != 0;
            delete b;
        };
        feed(packetizer, stream, sink);
        packetizer.FreePacket(&stream);
    }
    Report(state, *in, pictures);
}

// (a) one NAL unit per frame through the stream packer's wrapping (copy behind a start code,
// receive time, Packetize until null).
void OursRtsp(benchmark::State& state, Input* in) {
    RunOurs(state, in, [in](Mpeg4VideoPacketizer& packetizer, PACK_STREAM& stream, auto& sink) {
        int64_t t = 1000000;
        for (const auto& f : in->frames) {
            testsupport::FeedFrame(packetizer, stream, in->data.data() + f.first, f.second, t,
                                   sink);
            t += kFrameUs;
        }
    });
}

// (b) 64 KiB chunks of the file, wrapped in place as blocks (copyIn: copied into blocks of
// their own, as a fetcher that reads from a socket would).
void OursChunks(benchmark::State& state, Input* in, bool copyIn) {
    RunOurs(state, in,
            [in, copyIn](Mpeg4VideoPacketizer& packetizer, PACK_STREAM& stream, auto& sink) {
                for (size_t pos = 0; pos < in->size; pos += kChunk64k) {
                    const size_t n = std::min(kChunk64k, in->size - pos);
                    MediaBlock* block;
                    if (copyIn) {
                        block = new MediaBlock(static_cast<int>(n), in->data.data() + pos);
                    } else {
                        block = new MediaBlock();
                        block->SetBuffer(in->data.data() + pos);
                        block->SetBufferSize(n);
                    }
                    block->SetPTS(1000000);
                    block->SetDTS(1000000);
                    testsupport::Drive(packetizer, stream, block, sink);
                }
            });
}

void Ffmpeg(benchmark::State& state, Input* in, size_t chunk) {
    if (!in->error.empty()) {
        state.SkipWithError(in->error.c_str());
        return;
    }
    int64_t pictures = 0;
    for (auto _ : state) {
        AVCodecParserContext* parser = av_parser_init(in->avCodec);
        AVCodecContext* ctx = avcodec_alloc_context3(nullptr);
        pictures = 0;
        uint8_t* out = nullptr;
        int outSize = 0;
        for (size_t pos = 0; pos < in->size;) {
            const int n = static_cast<int>(std::min(chunk, in->size - pos));
            const int used = av_parser_parse2(parser, ctx, &out, &outSize, in->data.data() + pos, n,
                                              AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
            pos += static_cast<size_t>(used > 0 ? used : n);
            pictures += outSize > 0;
        }
        av_parser_parse2(parser, ctx, &out, &outSize, nullptr, 0, AV_NOPTS_VALUE, AV_NOPTS_VALUE,
                         0);
        pictures += outSize > 0;
        av_parser_close(parser);
        avcodec_free_context(&ctx);
    }
    Report(state, *in, pictures);
}

// One copy of the input: the floor under any packetizer that hands out its own blocks.
void Memcpy(benchmark::State& state, Input* in) {
    if (!in->error.empty()) {
        state.SkipWithError(in->error.c_str());
        return;
    }
    std::vector<uint8_t> dst(in->size);
    for (auto _ : state) {
        memcpy(dst.data(), in->data.data(), in->size);
        benchmark::ClobberMemory();
    }
    Report(state, *in, 0);
}

// Collects bytes/s per benchmark name to print the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        // With --benchmark_repetitions the median stands for the benchmark.
        for (const Run& run : runs) {
            if (run.error_occurred)
                continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type != Run::RT_Iteration && !median)
                continue;
            auto it = run.counters.find("bytes_per_second");
            if (it == run.counters.end())
                continue;
            const std::string name = run.run_name.str();
            if (median || !m_fromMedian.count(name)) {
                m_rate[name] = it->second.value;
                auto pictures = run.counters.find("pictures/s");
                m_pictures[name] = pictures == run.counters.end() ? 0 : pictures->second.value;
            }
            if (median)
                m_fromMedian.insert(name);
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void PrintRatios() const {
        printf("\n%-22s %-14s %8s %11s %12s %12s %10s\n", "input", "ours", "GB/s", "pictures/s",
               "FFmpeg GB/s", "ours/FFmpeg", "of memcpy");
        for (const Input& in : Inputs()) {
            const double copy = Rate(in.name + "/memcpy");
            const struct {
                const char* label;
                const char* ours;
                const char* ffmpeg;
            } pairs[] = {{"(a) NAL/frame", "ours_rtsp_nal", "ffmpeg_1400"},
                         {"(b) 64 KiB", "ours_chunk64k", "ffmpeg_64k"},
                         {"(b) copied in", "ours_chunk64k_copied", "ffmpeg_64k"}};
            for (const auto& p : pairs) {
                const std::string name = in.name + "/" + p.ours;
                const double ours = Rate(name);
                const double ffmpeg = Rate(in.name + "/" + p.ffmpeg);
                if (ours <= 0 || ffmpeg <= 0)
                    continue;
                auto pictures = m_pictures.find(name);
                printf("%-22s %-14s %8.2f %10.0fk %12.2f %12.2f %10.2f\n", in.name.c_str(), p.label,
                       ours / 1e9, pictures == m_pictures.end() ? 0.0 : pictures->second / 1e3,
                       ffmpeg / 1e9, ours / ffmpeg, copy > 0 ? ours / copy : 0.0);
            }
        }
    }

private:
    double Rate(const std::string& name) const {
        auto it = m_rate.find(name);
        return it == m_rate.end() ? 0.0 : it->second;
    }
    std::map<std::string, double> m_rate;
    std::map<std::string, double> m_pictures;
    std::set<std::string> m_fromMedian;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    av_log_set_level(AV_LOG_QUIET);  // its parser warns about slice types it does not know
    for (Input& in : Inputs()) {
        Load(in);
        benchmark::RegisterBenchmark((in.name + "/ours_rtsp_nal").c_str(), OursRtsp, &in)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((in.name + "/ours_chunk64k").c_str(), OursChunks, &in, false)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((in.name + "/ours_chunk64k_copied").c_str(), OursChunks, &in,
                                     true)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((in.name + "/ffmpeg_1400").c_str(), Ffmpeg, &in, kChunkRtp)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((in.name + "/ffmpeg_64k").c_str(), Ffmpeg, &in, kChunk64k)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((in.name + "/memcpy").c_str(), Memcpy, &in)
            ->Unit(benchmark::kMillisecond);
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return 0;
}
