// The AAC packetizer against streams made by a real encoder: ADTS and LOAS/LATM byte streams
// fed whole, in arbitrary chunks, one frame per block and byte by byte, and raw frames with
// their AudioSpecificConfig. The oracles are ffprobe (frame count, rate, channels), exact
// sample arithmetic for the dates, and ffmpeg decoding the delivered frames re-wrapped in
// ADTS to the same PCM as the original file.
#include <gtest/gtest.h>

#include <cstdio>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "packer/streampacker.h"
#include "packetizer/mpeg4audiopacket.h"
#include "process.h"

using testsupport::HaveTool;
using testsupport::ReadFile;
using testsupport::RunCommand;
using testsupport::TempDir;
using testsupport::WriteFile;

namespace {

constexpr long long kStart = 1'700'000'000'000'000LL;  // any camera wall-clock start

struct Probe {
    int packets = 0;
    int rate = 0;
    int channels = 0;
};

Probe ProbeAudio(const std::string& path) {
    auto r = RunCommand({"ffprobe", "-v", "error", "-count_packets", "-select_streams", "a:0",
                         "-show_entries", "stream=nb_read_packets,sample_rate,channels", "-of",
                         "default=nw=1", path});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    Probe p;
    std::istringstream in(r.out);
    std::string line;
    while (std::getline(in, line)) {
        auto eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = line.substr(0, eq);
        const int value = std::atoi(line.c_str() + eq + 1);
        if (key == "nb_read_packets")
            p.packets = value;
        else if (key == "sample_rate")
            p.rate = value;
        else if (key == "channels")
            p.channels = value;
    }
    return p;
}

// Byte ranges of the demuxed packets (whole ADTS / LOAS frames, or raw frames of an MP4).
std::vector<std::pair<size_t, size_t>> PacketRanges(const std::string& path) {
    auto r = RunCommand({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                         "packet=pos,size", "-of", "compact=p=0", path});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    std::vector<std::pair<size_t, size_t>> ranges;
    std::istringstream in(r.out);
    std::string line;
    while (std::getline(in, line)) {
        size_t pos = 0, size = 0;
        if (sscanf(line.c_str(), "size=%zu|pos=%zu", &size, &pos) == 2)
            ranges.emplace_back(pos, size);
    }
    return ranges;
}

// The stream's extra data as ffprobe dumps it.
std::string ProbeExtradata(const std::string& path) {
    auto r = RunCommand(
        {"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_streams", "-show_data", path});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    std::string bytes;
    std::istringstream in(r.out);
    std::string line;
    bool inDump = false;
    while (std::getline(in, line)) {
        if (line == "extradata=") {
            inDump = true;
            continue;
        }
        if (!inDump)
            continue;
        if (line.size() < 10 || line[8] != ':')
            break;
        // "00000000: 1190 56e5 00    ..V.." — hex groups end at the double space.
        std::string digits;
        for (char c : line.substr(10, line.find("  ", 10) - 10))
            if (c != ' ')
                digits += c;
        for (size_t i = 0; i + 1 < digits.size(); i += 2)
            bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

// MD5 of the PCM ffmpeg decodes from a file; the decoder must not complain.
std::string DecodeMd5(const std::string& path) {
    auto r = RunCommand({"ffmpeg", "-v", "error", "-i", path, "-f", "md5", "-"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "") << "decoding " << path;
    return r.out;
}

struct Frame {
    std::string bytes;
    long long pts, dts, length;
};

// One packetizer driven as the stream packer drives it: every input block is followed by
// calls until null, each call pushing back what the previous one handed out.
class Packetizer {
public:
    explicit Packetizer(const std::string& extra = "") {
        m_stream.fmt.Reset(AUDIO_ES, kCodecMp4a);
        m_stream.fmt.SetExtra(extra.data(), static_cast<int>(extra.size()));
        EXPECT_EQ(m_packetizer.InitPacket(&m_stream), 0);
    }
    ~Packetizer() { m_packetizer.FreePacket(&m_stream); }

    void Feed(const char* data, size_t size, long long pts) {
        MediaBlock* in =
            new MediaBlock(static_cast<int>(size), reinterpret_cast<const unsigned char*>(data));
        in->SetPTS(pts);
        in->SetDTS(pts);
        while (MediaBlock* out = m_packetizer.Packetize(&m_stream, &in)) {
            frames.push_back(
                {std::string(reinterpret_cast<char*>(out->GetBuffer()), out->GetBufferSize()),
                 out->GetPTS(), out->GetDTS(), out->GetLength()});
            delete out;
        }
        EXPECT_EQ(in, nullptr) << "a null return leaves nothing with the caller";
    }

    const ESFormat& Format() const { return m_stream.fmt; }
    std::vector<Frame> frames;

private:
    Mpeg4AudioPacketizer m_packetizer;
    PACK_STREAM m_stream;
};

enum class Feed { Whole, FramePerBlock, Chunks, ByteByByte };

const char* FeedName(Feed f) {
    switch (f) {
        case Feed::Whole:
            return "whole";
        case Feed::FramePerBlock:
            return "frame per block";
        case Feed::Chunks:
            return "chunks";
        default:
            return "byte by byte";
    }
}

// Feeds a byte stream; only the first block carries a time, so the dates are the sample
// count alone. A sync word after the last frame lets the last frame out too.
void FeedStream(Packetizer& p, const std::string& data, Feed feed,
                const std::vector<std::pair<size_t, size_t>>& frames, const std::string& sync) {
    const std::string all = data + sync;
    bool first = true;
    auto feedRange = [&](size_t pos, size_t size) {
        p.Feed(all.data() + pos, size, first ? kStart : 0);
        first = false;
    };
    switch (feed) {
        case Feed::Whole:
            feedRange(0, all.size());
            break;
        case Feed::FramePerBlock:
            for (const auto& f : frames)
                feedRange(f.first, f.second);
            feedRange(data.size(), sync.size());
            break;
        case Feed::Chunks: {
            std::mt19937 rng(7);
            std::uniform_int_distribution<size_t> size(1, 1500);
            for (size_t pos = 0; pos < all.size();) {
                size_t n = std::min(size(rng), all.size() - pos);
                feedRange(pos, n);
                pos += n;
            }
            break;
        }
        case Feed::ByteByByte:
            // Until a sync word is found the packetizer has no date and drops blocks
            // without a time: the two bytes of the first sync word carry it.
            for (size_t pos = 0; pos < all.size(); ++pos)
                p.Feed(all.data() + pos, 1, pos < 2 ? kStart : 0);
            break;
    }
}

// A 7-byte ADTS header for a raw frame under the given AudioSpecificConfig.
std::string AdtsHeader(const ESFormat& fmt, size_t payload) {
    const uint8_t* asc = fmt.p_extra;
    const int profile = (asc[0] >> 3) - 1;
    const int index = ((asc[0] & 7) << 1) | (asc[1] >> 7);
    const int channels = (asc[1] >> 3) & 15;
    const size_t len = payload + 7;
    const unsigned char h[7] = {
        0xFF,
        0xF1,
        static_cast<unsigned char>((profile << 6) | (index << 2) | (channels >> 2)),
        static_cast<unsigned char>(((channels & 3) << 6) | (len >> 11)),
        static_cast<unsigned char>((len >> 3) & 0xFF),
        static_cast<unsigned char>(((len & 7) << 5) | 0x1F),
        0xFC};
    return std::string(reinterpret_cast<const char*>(h), 7);
}

std::string Rewrap(const ESFormat& fmt, const std::vector<Frame>& frames) {
    std::string out;
    for (const auto& f : frames)
        out += AdtsHeader(fmt, f.bytes.size()) + f.bytes;
    return out;
}

// Dates from the first frame on are the exact sample count: frame k starts at
// start + floor(k * frameLength * 1e6 / rate), whatever the feeding.
void ExpectSampleExactDates(const std::vector<Frame>& frames, int rate, int frameLength) {
    for (size_t k = 0; k < frames.size(); ++k) {
        const long long expected =
            kStart + static_cast<long long>(k) * frameLength * 1000000LL / rate;
        ASSERT_EQ(frames[k].pts, expected) << "frame " << k;
        ASSERT_EQ(frames[k].dts, expected) << "frame " << k;
        const long long next =
            kStart + static_cast<long long>(k + 1) * frameLength * 1000000LL / rate;
        ASSERT_EQ(frames[k].length, next - expected) << "frame " << k;
    }
}

struct Encoding {
    const char* name;
    int rate;
    int channels;
    const char* bitrate;
};

const Encoding kEncodings[] = {
    {"48k_stereo", 48000, 2, "128k"},
    {"44k1_stereo", 44100, 2, "96k"},
    {"16k_mono", 16000, 1, "32k"},
    {"8k_mono", 8000, 1, "16k"},
};

class AacStreams : public ::testing::TestWithParam<Encoding> {
protected:
    void SetUp() override {
        if (!HaveTool("ffmpeg") || !HaveTool("ffprobe"))
            GTEST_SKIP() << "ffmpeg/ffprobe not installed";
    }
    // Two seconds of a tone, encoded to ADTS; LOAS/LATM and MP4 are re-muxed from it.
    std::string Encode(const Encoding& e) {
        const std::string adts = m_dir.File(std::string(e.name) + ".aac");
        const std::string source =
            "sine=frequency=440:sample_rate=" + std::to_string(e.rate) + ":duration=2";
        auto r = RunCommand({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", source, "-ac",
                             std::to_string(e.channels), "-c:a", "aac", "-b:a", e.bitrate, "-f",
                             "adts", adts});
        EXPECT_EQ(r.exitCode, 0) << r.err;
        return adts;
    }
    std::string Remux(const std::string& in, const std::string& name, const char* format) {
        const std::string out = m_dir.File(name);
        auto r = RunCommand({"ffmpeg", "-v", "error", "-y", "-i", in, "-map", "0:a", "-c", "copy",
                             "-f", format, out});
        EXPECT_EQ(r.exitCode, 0) << r.err;
        return out;
    }
    TempDir m_dir;
};

// Every feeding yields the same frames, all of them, with sample-exact dates, and the frames
// decode to the same PCM as the file they came from.
void CheckByteStream(const std::string& path, const std::string& sync, const Encoding& e,
                     const TempDir& dir) {
    const Probe probe = ProbeAudio(path);
    ASSERT_GT(probe.packets, 10);
    const auto ranges = PacketRanges(path);
    ASSERT_EQ(static_cast<int>(ranges.size()), probe.packets);
    const std::string data = ReadFile(path);

    std::vector<Frame> reference;
    for (Feed feed : {Feed::Whole, Feed::FramePerBlock, Feed::Chunks, Feed::ByteByByte}) {
        SCOPED_TRACE(FeedName(feed));
        Packetizer p;
        FeedStream(p, data, feed, ranges, sync);
        ASSERT_EQ(static_cast<int>(p.frames.size()), probe.packets);
        EXPECT_EQ(static_cast<int>(p.Format().audio.i_rate), probe.rate);
        EXPECT_EQ(static_cast<int>(p.Format().audio.i_channels), probe.channels);
        EXPECT_EQ(p.Format().audio.i_frame_length, 1024u);
        ASSERT_GE(p.Format().i_extra, 2);
        ExpectSampleExactDates(p.frames, e.rate, 1024);

        if (reference.empty()) {
            reference = p.frames;
            const std::string rewrapped = dir.File("rewrapped.aac");
            ASSERT_TRUE(WriteFile(rewrapped, Rewrap(p.Format(), p.frames)));
            EXPECT_EQ(DecodeMd5(rewrapped), DecodeMd5(path));
            continue;
        }
        for (size_t k = 0; k < reference.size(); ++k)
            ASSERT_EQ(p.frames[k].bytes, reference[k].bytes) << "frame " << k;
    }
}

TEST_P(AacStreams, AdtsFramesMatchTheEncoder) {
    const Encoding& e = GetParam();
    const std::string adts = Encode(e);
    CheckByteStream(adts, "\xFF\xF1", e, m_dir);

    // The payloads are exactly the ADTS frames less their 7-byte headers.
    Packetizer p;
    const std::string data = ReadFile(adts);
    FeedStream(p, data, Feed::Whole, {}, "\xFF\xF1");
    const auto ranges = PacketRanges(adts);
    ASSERT_EQ(p.frames.size(), ranges.size());
    for (size_t k = 0; k < ranges.size(); ++k)
        ASSERT_EQ(p.frames[k].bytes, data.substr(ranges[k].first + 7, ranges[k].second - 7));
}

TEST_P(AacStreams, LoasFramesMatchTheEncoder) {
    const Encoding& e = GetParam();
    const std::string latm = Remux(Encode(e), std::string(e.name) + ".latm", "latm");
    CheckByteStream(latm, "\x56\xE0", e, m_dir);
}

TEST_P(AacStreams, RawFramesWithTheirConfig) {
    const Encoding& e = GetParam();
    const std::string adts = Encode(e);
    const std::string mp4 = Remux(adts, std::string(e.name) + ".m4a", "mp4");
    const std::string raw = Remux(mp4, std::string(e.name) + ".raw", "data");
    const std::string extra = ProbeExtradata(mp4);
    ASSERT_GE(extra.size(), 2u);
    const auto sizes = PacketRanges(mp4);
    const std::string data = ReadFile(raw);

    // Times as a camera would send them: the exact sample times, rounded down; they agree
    // with the count, so the dates run on without a reset.
    Packetizer p(extra);
    size_t pos = 0;
    for (size_t k = 0; k < sizes.size(); ++k) {
        ASSERT_LE(pos + sizes[k].second, data.size());
        const long long pts = kStart + static_cast<long long>(k) * 1024 * 1000000LL / e.rate;
        p.Feed(data.data() + pos, sizes[k].second, pts);
        pos += sizes[k].second;
    }
    EXPECT_EQ(pos, data.size());
    const Probe probe = ProbeAudio(adts);
    ASSERT_EQ(static_cast<int>(p.frames.size()), probe.packets);
    EXPECT_EQ(static_cast<int>(p.Format().audio.i_rate), probe.rate);
    EXPECT_EQ(static_cast<int>(p.Format().audio.i_channels), probe.channels);
    ExpectSampleExactDates(p.frames, e.rate, 1024);

    const std::string rewrapped = m_dir.File("raw_rewrapped.aac");
    ASSERT_TRUE(WriteFile(rewrapped, Rewrap(p.Format(), p.frames)));
    EXPECT_EQ(DecodeMd5(rewrapped), DecodeMd5(adts));
}

INSTANTIATE_TEST_SUITE_P(Encoder, AacStreams, ::testing::ValuesIn(kEncodings),
                         [](const auto& info) { return std::string(info.param.name); });

// The road a camera's audio takes: frames handed to the stream packer as a fetcher gets
// them (pieces of an ADTS stream with arrival times), packetized on the caller's thread in
// live mode and delivered with the stream format the packetizer filled in.
class CollectingHandler : public MediaDataHandler {
public:
    int ProcessMediaBlock(ESFormat& format, MediaBlock* block) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (format.i_cat == AUDIO_ES) {
            frames.push_back(
                {std::string(reinterpret_cast<char*>(block->GetBuffer()), block->GetBufferSize()),
                 block->GetPTS(), block->GetDTS(), block->GetLength()});
            last = format;
        }
        delete block;
        return 0;
    }
    std::mutex m_mutex;
    std::vector<Frame> frames;
    ESFormat last;
};

TEST(AacThroughStreamPacker, AdtsPiecesBecomeDatedFrames) {
    if (!HaveTool("ffmpeg"))
        GTEST_SKIP() << "ffmpeg not installed";
    TempDir dir;
    const std::string adts = dir.File("a.aac");
    auto r = RunCommand({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                         "sine=frequency=440:sample_rate=44100:duration=2", "-ac", "2", "-c:a",
                         "aac", "-f", "adts", adts});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const std::string data = ReadFile(adts);
    const Probe probe = ProbeAudio(adts);

    FETCH_PARAM param;
    param.bHasAudio = true;
    StreamPacker packer(param);
    CollectingHandler handler;
    packer.SetDataHandler(&handler);
    ESFormat video, audio;
    video.Reset(VIDEO_ES, kCodecH264);
    audio.Reset(AUDIO_ES, kCodecMp4a);
    packer.InitPackers(video, audio);

    // Pieces of a network read's size, each with the time it arrived at.
    const long long t0 = 1'700'000'000'000'000LL;
    for (size_t pos = 0; pos < data.size(); pos += 1400) {
        std::string piece = data.substr(pos, 1400);
        const long long us = t0 + static_cast<long long>(pos) * 8 * 1000000 / 128000;
        timeval tv{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
        ASSERT_EQ(packer.Process(AUDIO_ES, reinterpret_cast<unsigned char*>(piece.data()),
                                 static_cast<unsigned>(piece.size()), tv, 0, false),
                  0);
    }
    packer.Free();

    // Every frame but the last, whose end no sync word confirms yet.
    ASSERT_EQ(static_cast<int>(handler.frames.size()), probe.packets - 1);
    EXPECT_EQ(handler.last.i_codec, kCodecMp4a);
    EXPECT_EQ(static_cast<int>(handler.last.audio.i_rate), probe.rate);
    EXPECT_EQ(static_cast<int>(handler.last.audio.i_channels), probe.channels);
    ASSERT_EQ(handler.last.i_extra, 2);
    EXPECT_EQ(handler.last.p_extra[0], 0x12);  // AAC LC, 44.1 kHz, stereo
    EXPECT_EQ(handler.last.p_extra[1], 0x10);
    const auto ranges = PacketRanges(adts);
    // (The times the host sees are the packer's repaired ones, which depend on the wall
    // clock when fed faster than real time: the packetizer's own dates are checked above.)
    for (size_t k = 0; k < handler.frames.size(); ++k)
        ASSERT_EQ(handler.frames[k].bytes, data.substr(ranges[k].first + 7, ranges[k].second - 7));
    const std::string rewrapped = dir.File("rewrapped.aac");
    ASSERT_TRUE(WriteFile(rewrapped, Rewrap(handler.last, handler.frames)));
    EXPECT_EQ(ProbeAudio(rewrapped).packets, probe.packets - 1);
    DecodeMd5(rewrapped);  // decodes without a complaint
}

}  // namespace
