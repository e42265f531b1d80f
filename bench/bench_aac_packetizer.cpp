// ADTS and LOAS framing throughput of the AAC packetizer against FFmpeg's "aac" and
// "aac_latm" parsers (av_parser_parse2) on the same bytes: ten minutes of 48 kHz stereo
// encoded once with ffmpeg into a cache under the build directory and held in memory.
//
// The input is fed whole and in 4 KiB blocks. Ours delivers an owned block per frame
// (allocated, copied, dated); FFmpeg's parser hands out pointers into its input. The ratio
// of frames per second is printed at the end.
#include <benchmark/benchmark.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "packetizer/mpeg4audiopacket.h"

namespace {

constexpr long long kStart = 1'700'000'000'000'000LL;
constexpr size_t kChunk = 4096;
constexpr size_t kWhole = 0;
// av_parser_parse2 may read this far past the end of its input.
constexpr size_t kPadding = 64;

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && st.st_size > 0;
}

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Runs a shell command line made only of fixed text and cache paths.
void Run(const std::string& command) {
    if (std::system(command.c_str()) != 0) {
        fprintf(stderr, "bench: failed: %s\n", command.c_str());
        std::exit(1);
    }
}

// Ten minutes of two independent pink-noise channels, AAC-LC 128 kb/s, bit-exact encoder.
const std::string& CachedInput(bool loas) {
    static std::map<bool, std::string> inputs;
    auto it = inputs.find(loas);
    if (it != inputs.end())
        return it->second;
    const std::string dir = BENCH_CACHE_DIR;
    const std::string adts = dir + "/aac_48k_stereo_600s.aac";
    const std::string latm = dir + "/aac_48k_stereo_600s.latm";
    Run("mkdir -p '" + dir + "'");
    if (!Exists(adts)) {
        fprintf(stderr, "bench: encoding %s once (takes a while)\n", adts.c_str());
        Run("ffmpeg -nostdin -v error -y -filter_complex "
            "'anoisesrc=c=pink:r=48000:a=0.25:seed=1:d=600[l];"
            "anoisesrc=c=pink:r=48000:a=0.25:seed=2:d=600[r];[l][r]amerge=inputs=2' "
            "-fflags +bitexact -flags:a +bitexact -c:a aac -b:a 128k -f adts '" +
            adts + ".tmp' && mv '" + adts + ".tmp' '" + adts + "'");
    }
    if (!Exists(latm))
        Run("ffmpeg -nostdin -v error -y -i '" + adts + "' -c copy -f latm '" + latm +
            ".tmp' && mv '" + latm + ".tmp' '" + latm + "'");
    std::string data = Slurp(loas ? latm : adts);
    return inputs.emplace(loas, data).first->second;
}

// One pass of our packetizer over the input: every output block is taken and freed, as a
// host would. Returns the frames delivered.
long long PackOurs(const std::string& data, size_t chunk) {
    Mpeg4AudioPacketizer packetizer;
    PACK_STREAM stream;
    stream.fmt.Reset(AUDIO_ES, kCodecMp4a);
    packetizer.InitPacket(&stream);
    long long frames = 0;
    const size_t step = chunk == kWhole ? data.size() : chunk;
    for (size_t pos = 0; pos < data.size(); pos += step) {
        const size_t n = std::min(step, data.size() - pos);
        MediaBlock* in;
        if (chunk == kWhole) {
            // The whole input in place: a block over foreign memory owns no allocation.
            in = new MediaBlock();
            in->SetBuffer(reinterpret_cast<unsigned char*>(const_cast<char*>(data.data())));
            in->SetBufferSize(data.size());
        } else {
            in = new MediaBlock(static_cast<int>(n),
                                reinterpret_cast<const unsigned char*>(data.data() + pos));
        }
        in->SetPTS(kStart + static_cast<long long>(pos));
        while (MediaBlock* out = packetizer.Packetize(&stream, &in)) {
            benchmark::DoNotOptimize(out->GetBuffer());
            ++frames;
            delete out;
        }
    }
    packetizer.FreePacket(&stream);
    return frames;
}

// One pass of FFmpeg's parser over the same bytes, flushed at the end.
long long PackFFmpeg(const std::string& padded, size_t size, AVCodecID codec, size_t chunk) {
    AVCodecParserContext* parser = av_parser_init(codec);
    AVCodecContext* ctx = avcodec_alloc_context3(nullptr);
    long long frames = 0;
    uint8_t* out = nullptr;
    int outSize = 0;
    const size_t step = chunk == kWhole ? size : chunk;
    const uint8_t* base = reinterpret_cast<const uint8_t*>(padded.data());
    for (size_t pos = 0; pos < size; pos += step) {
        const uint8_t* p = base + pos;
        int left = static_cast<int>(std::min(step, size - pos));
        while (left > 0) {
            const int used = av_parser_parse2(parser, ctx, &out, &outSize, p, left, AV_NOPTS_VALUE,
                                              AV_NOPTS_VALUE, 0);
            p += used;
            left -= used;
            if (outSize) {
                benchmark::DoNotOptimize(out);
                ++frames;
            }
        }
    }
    av_parser_parse2(parser, ctx, &out, &outSize, nullptr, 0, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    if (outSize)
        ++frames;
    av_parser_close(parser);
    avcodec_free_context(&ctx);
    return frames;
}

void Report(benchmark::State& state, long long frames, size_t bytes) {
    state.counters["frames/s"] =
        benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
    state.counters["frames"] =
        static_cast<double>(frames) / static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

void BM_Camfetch(benchmark::State& state, bool loas, size_t chunk) {
    const std::string& data = CachedInput(loas);
    long long frames = 0;
    for (auto _ : state)
        frames += PackOurs(data, chunk);
    Report(state, frames, data.size());
}

void BM_FFmpeg(benchmark::State& state, bool loas, size_t chunk) {
    const std::string& data = CachedInput(loas);
    const std::string padded = data + std::string(kPadding, '\0');
    long long frames = 0;
    for (auto _ : state)
        frames +=
            PackFFmpeg(padded, data.size(), loas ? AV_CODEC_ID_AAC_LATM : AV_CODEC_ID_AAC, chunk);
    Report(state, frames, data.size());
}

BENCHMARK_CAPTURE(BM_Camfetch, ADTS_whole, false, kWhole)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FFmpeg, ADTS_whole, false, kWhole)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Camfetch, ADTS_4KiB, false, kChunk)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FFmpeg, ADTS_4KiB, false, kChunk)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Camfetch, LOAS_whole, true, kWhole)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FFmpeg, LOAS_whole, true, kWhole)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Camfetch, LOAS_4KiB, true, kChunk)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FFmpeg, LOAS_4KiB, true, kChunk)->Unit(benchmark::kMillisecond);

// The console report, then ours / FFmpeg in frames per second (of CPU time) for each input
// and feeding.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        // With repetitions the median stands for the benchmark.
        for (const Run& run : runs) {
            if (run.error_occurred)
                continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type != Run::RT_Iteration && !median)
                continue;
            auto it = run.counters.find("frames/s");
            if (it != run.counters.end())
                m_rates[run.run_name.str()] = it->second.value;
        }
    }
    void PrintRatios() const {
        for (const auto& [name, rate] : m_rates) {
            const std::string prefix = "BM_Camfetch/";
            if (name.compare(0, prefix.size(), prefix) != 0)
                continue;
            const std::string variant = name.substr(prefix.size());
            auto peer = m_rates.find("BM_FFmpeg/" + variant);
            if (peer == m_rates.end() || peer->second <= 0)
                continue;
            printf("%-12s camfetch %6.2f M frames/s, FFmpeg %6.2f M frames/s, ratio %.2fx\n",
                   variant.c_str(), rate / 1e6, peer->second / 1e6, rate / peer->second);
        }
    }

private:
    std::map<std::string, double> m_rates;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return 0;
}
