// The video packetizer against real encoders: small streams made by ffmpeg (libx264 in three
// profiles and interlaced, libx265, the MPEG-4 Part 2 encoder with and without B-frames)
// are fed in the shapes the library sees them (one NAL unit per frame as an RTSP receiver
// delivers it, arbitrary chunks, the whole file) and the output is judged by ffprobe and
// ffmpeg: picture count, key pictures, picture types, size, frame rate, and that what comes
// out decodes without a single error.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <sstream>

#include "packer/streampacker.h"
#include "packetizer/mpeg4videopacket.h"
#include "process.h"
#include "video_feed.h"

using testsupport::RunCommand;

namespace {

struct StreamSpec {
    std::string name;
    uint32_t codec;
    std::string ext;                  // file extension and ffmpeg input format
    std::vector<std::string> encode;  // ffmpeg arguments between the input and the output
    int width;
    int height;
    std::string rate;  // lavfi frame rate
    bool smallUnits;   // every unit well below 513 bytes: fit for 1-byte feeding
    bool interlaced;
};

void PrintTo(const StreamSpec& clip, std::ostream* os) {
    *os << clip.name;
}

const std::vector<StreamSpec>& Specs() {
    static const std::vector<StreamSpec> specs = {
        {"h264_baseline",
         kCodecH264,
         "h264",
         {"-pix_fmt", "yuv420p", "-c:v", "libx264", "-profile:v", "baseline", "-bf", "0", "-g",
          "12"},
         160,
         120,
         "25",
         false,
         false},
        {"h264_main",
         kCodecH264,
         "h264",
         {"-pix_fmt", "yuv420p", "-c:v", "libx264", "-profile:v", "main", "-bf", "2", "-g", "12"},
         200,
         120,
         "25",
         false,
         false},
        // Odd-sized: the SPS carries a cropping window.
        {"h264_high",
         kCodecH264,
         "h264",
         {"-pix_fmt", "yuv420p", "-c:v", "libx264", "-profile:v", "high", "-bf", "3", "-g", "10"},
         170,
         130,
         "25",
         false,
         false},
        {"h264_interlaced",
         kCodecH264,
         "h264",
         {"-pix_fmt", "yuv420p", "-c:v", "libx264", "-flags", "+ildct+ilme", "-x264-params",
          "interlaced=1:tff=1", "-bf", "2", "-g", "12"},
         160,
         120,
         "25",
         false,
         true},
        {"h264_tiny",
         kCodecH264,
         "h264",
         {"-pix_fmt", "yuv420p", "-c:v", "libx264", "-profile:v", "high", "-bf", "2", "-g", "8",
          "-qp", "40", "-bsf:v", "filter_units=remove_types=6"},
         64,
         64,
         "25",
         true,
         false},
        {"hevc",
         kCodecHevc,
         "hevc",
         {"-pix_fmt", "yuv420p", "-c:v", "libx265", "-x265-params", "keyint=12:log-level=error",
          "-bf", "2"},
         176,
         130,
         "30000/1001",
         false,
         false},
        {"hevc_tiny",
         kCodecHevc,
         "hevc",
         {"-pix_fmt", "yuv420p", "-c:v", "libx265", "-x265-params",
          "keyint=8:qp=45:log-level=error", "-bsf:v", "filter_units=remove_types=39"},
         64,
         64,
         "25",
         true,
         false},
        {"mpeg4",
         kCodecMp4v,
         "m4v",
         {"-c:v", "mpeg4", "-g", "12", "-bf", "0"},
         176,
         144,
         "25",
         false,
         false},
        {"mpeg4_bframes",
         kCodecMp4v,
         "m4v",
         {"-c:v", "mpeg4", "-g", "12", "-bf", "2", "-q:v", "20"},
         64,
         64,
         "25",
         true,
         false},
    };
    return specs;
}

// What ffprobe says about a stream file, in decode order where it matters.
struct Probe {
    int width = 0;
    int height = 0;
    std::string frameRate;
    std::vector<bool> keyPackets;
    std::vector<int64_t> ptsUs;  // presentation time of each packet
    std::map<char, int> pictTypes;
};

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            out.push_back(line);
    return out;
}

Probe ProbeFile(const std::string& path, const std::string& format) {
    Probe p;
    auto info =
        RunCommand({"ffprobe", "-v", "error", "-f", format, "-select_streams", "v:0",
                    "-show_entries", "stream=width,height,r_frame_rate", "-of", "csv=p=0", path});
    EXPECT_EQ(info.exitCode, 0) << info.err;
    std::vector<std::string> fields;
    std::istringstream row(info.out);
    for (std::string f; std::getline(row, f, ',');)
        fields.push_back(f);
    if (fields.size() >= 3) {
        p.width = std::stoi(fields[0]);
        p.height = std::stoi(fields[1]);
        p.frameRate = fields[2].substr(0, fields[2].find_first_of("\r\n"));
    }
    auto packets = RunCommand({"ffprobe", "-v", "error", "-f", format, "-show_entries",
                               "packet=pts_time,flags", "-of", "csv=p=0", path});
    for (const auto& l : Lines(packets.out)) {
        const size_t comma = l.find(',');
        if (comma == std::string::npos)
            continue;
        p.ptsUs.push_back(static_cast<int64_t>(std::llround(std::atof(l.c_str()) * 1e6)));
        p.keyPackets.push_back(l[comma + 1] == 'K');
    }
    auto frames = RunCommand({"ffprobe", "-v", "error", "-f", format, "-show_entries",
                              "frame=pict_type", "-of", "csv=p=0", path});
    for (const auto& l : Lines(frames.out))
        ++p.pictTypes[l[0]];
    return p;
}

// The output of one run: blocks in order and the format the packetizer filled in.
struct Output {
    std::vector<std::unique_ptr<MediaBlock>> blocks;
    ESFormat fmt;

    std::vector<const MediaBlock*> Pictures() const {
        std::vector<const MediaBlock*> out;
        for (const auto& b : blocks)
            if (b->GetFlags() & BLOCK_FLAG_TYPE_MASK)
                out.push_back(b.get());
        return out;
    }
    std::string Bytes() const {
        std::string out;
        for (const auto& b : blocks)
            out.append(reinterpret_cast<const char*>(b->GetBuffer()), b->GetBufferSize());
        return out;
    }
};

enum class Shape { kRtsp, kChunks1400, kChunksRandom, kBytes1, kWhole };

const char* ShapeName(Shape s) {
    switch (s) {
        case Shape::kRtsp:
            return "rtsp";
        case Shape::kChunks1400:
            return "1400";
        case Shape::kChunksRandom:
            return "random";
        case Shape::kBytes1:
            return "1byte";
        case Shape::kWhole:
            return "whole";
    }
    return "?";
}

constexpr int64_t kStartUs = 1000000;
constexpr int64_t kFrameUs = 40000;

// ptsUs: the presentation time of each picture, for the frames of the RTSP shape.
Output Feed(const StreamSpec& clip, const std::string& data, Shape shape,
            const std::vector<int64_t>& ptsUs = {}) {
    Output run;
    Mpeg4VideoPacketizer packetizer(0);
    PACK_STREAM stream;
    stream.fmt.Reset(VIDEO_ES, clip.codec);
    EXPECT_EQ(packetizer.InitPacket(&stream), 0);
    auto sink = [&](MediaBlock* b) { run.blocks.emplace_back(b); };
    const uint8_t* d = reinterpret_cast<const uint8_t*>(data.data());

    // Every piece carries a time: MPEG-4 Part 2 pictures need one to start from.
    auto chunked = [&](auto nextSize) {
        size_t pos = 0;
        while (pos < data.size()) {
            size_t n = std::min(nextSize(), data.size() - pos);
            testsupport::FeedBytes(packetizer, stream, d + pos, n, kStartUs, sink);
            pos += n;
        }
    };
    switch (shape) {
        case Shape::kRtsp: {
            auto frames = clip.codec == kCodecMp4v ? testsupport::SplitMpeg4Frames(data)
                                                   : testsupport::SplitAnnexB(data);
            // NAL units get rising receive times; MPEG-4 Part 2 pictures their RTP times.
            int64_t t = kStartUs;
            for (size_t i = 0; i < frames.size(); ++i) {
                if (clip.codec == kCodecMp4v && i < ptsUs.size())
                    t = kStartUs + ptsUs[i];
                testsupport::FeedFrame(packetizer, stream,
                                       reinterpret_cast<const uint8_t*>(frames[i].data()),
                                       frames[i].size(), t, sink);
                t += kFrameUs;
            }
            break;
        }
        case Shape::kChunks1400:
            chunked([] { return size_t{1400}; });
            break;
        case Shape::kChunksRandom: {
            std::mt19937 rng(1234);
            std::uniform_int_distribution<size_t> dist(1, 5000);
            chunked([&] { return dist(rng); });
            break;
        }
        case Shape::kBytes1:
            chunked([] { return size_t{1}; });
            break;
        case Shape::kWhole:
            chunked([&] { return data.size(); });
            break;
    }
    ESFormatCopy(run.fmt, stream.fmt);
    packetizer.FreePacket(&stream);
    return run;
}

// The RTSP shape through the library's own entry: StreamPacker::Process on the caller's
// thread, delivering to a handler as a host's would.
Output FeedThroughPacker(const StreamSpec& clip, const std::string& data,
                         const std::vector<int64_t>& ptsUs) {
    struct Collect : MediaDataHandler {
        Output* run;
        int ProcessMediaBlock(ESFormat& format, MediaBlock* block) override {
            run->blocks.emplace_back(block);
            ESFormatCopy(run->fmt, format);
            return 0;
        }
    };
    Output run;
    Collect handler;
    handler.run = &run;
    FETCH_PARAM param;
    param.iStreamMode = Codec2VideoType(static_cast<int>(clip.codec));
    StreamPacker packer(param);
    packer.SetDataHandler(&handler);
    ESFormat video, audio;
    video.Reset(VIDEO_ES, clip.codec);
    packer.InitPackers(video, audio);
    auto frames = clip.codec == kCodecMp4v ? testsupport::SplitMpeg4Frames(data)
                                           : testsupport::SplitAnnexB(data);
    int64_t t = kStartUs;
    for (size_t i = 0; i < frames.size(); ++i) {
        if (clip.codec == kCodecMp4v && i < ptsUs.size())
            t = kStartUs + ptsUs[i];
        std::string& f = frames[i];
        EXPECT_EQ(packer.Process(VIDEO_ES, reinterpret_cast<unsigned char*>(&f[0]),
                                 static_cast<unsigned>(f.size()), Tmstmp2Tmval(t), 0, false),
                  0);
        t += kFrameUs;
    }
    packer.Free();
    return run;
}

// NAL unit types (H.264) at the start codes of a block, in order.
std::vector<int> H264NalTypes(const MediaBlock* b) {
    std::vector<int> types;
    for (size_t at : testsupport::StartCodes3(b->GetBuffer(), b->GetBufferSize()))
        if (at + 3 < b->GetBufferSize())
            types.push_back(b->GetBuffer()[at + 3] & 31);
    return types;
}

class VideoPacketizerEncoders : public ::testing::TestWithParam<StreamSpec> {
protected:
    static void TearDownTestSuite() {
        delete s_dir;
        s_dir = nullptr;
        s_files.clear();
    }
    // Each stream is encoded the first time a test of this process needs it.
    static std::string Encode(const StreamSpec& clip) {
        auto it = s_files.find(clip.name);
        if (it != s_files.end())
            return it->second;
        if (!s_dir)
            s_dir = new testsupport::TempDir();
        std::string path = s_dir->File(clip.name + "." + clip.ext);
        std::vector<std::string> argv = {"ffmpeg",
                                         "-v",
                                         "error",
                                         "-y",
                                         "-f",
                                         "lavfi",
                                         "-i",
                                         "testsrc=size=" + std::to_string(clip.width) + "x" +
                                             std::to_string(clip.height) + ":rate=" + clip.rate,
                                         "-t",
                                         "2"};
        argv.insert(argv.end(), clip.encode.begin(), clip.encode.end());
        argv.insert(argv.end(), {"-f", clip.ext, path});
        auto r = RunCommand(argv);
        if (r.exitCode != 0) {
            ADD_FAILURE() << clip.name << ": " << r.err;
            return "";
        }
        return s_files[clip.name] = path;
    }
    void SetUp() override {
        if (!testsupport::HaveTool("ffmpeg") || !testsupport::HaveTool("ffprobe"))
            GTEST_SKIP() << "ffmpeg/ffprobe not installed";
        m_path = Encode(GetParam());
        ASSERT_FALSE(m_path.empty());
        m_data = testsupport::ReadFile(m_path);
        ASSERT_FALSE(m_data.empty());
        m_probe = ProbeFile(m_path, GetParam().ext);
        ASSERT_GT(m_probe.keyPackets.size(), 10u);
    }

    // Everything ffprobe can tell about the output of one feeding shape.
    void CheckRun(const Output& run, Shape shape) {
        SCOPED_TRACE(ShapeName(shape));
        const StreamSpec& clip = GetParam();
        auto pictures = run.Pictures();
        // A picture leaves when the next one begins, and a unit is cut only when the next
        // start code arrives: at the end of the input the last unit waits. For MPEG-4 Part 2
        // that unit is the last picture; for H.264 and HEVC it is the last picture's slice
        // (two pictures wait) or a unit in front of it (one picture waits).
        ASSERT_LT(pictures.size(), m_probe.keyPackets.size());
        const size_t heldBack = m_probe.keyPackets.size() - pictures.size();
        if (clip.codec == kCodecMp4v)
            EXPECT_EQ(heldBack, 1u);
        else
            EXPECT_LE(heldBack, 2u);
        ASSERT_FALSE(pictures.empty());
        EXPECT_TRUE(pictures.front()->GetFlags() & BLOCK_FLAG_TYPE_I)
            << "nothing before the first I";

        for (size_t i = 0; i < pictures.size(); ++i) {
            const bool key = (pictures[i]->GetFlags() & BLOCK_FLAG_TYPE_I) != 0;
            EXPECT_EQ(key, m_probe.keyPackets[i]) << "picture " << i;
            if (clip.codec == kCodecH264 && key) {
                auto types = H264NalTypes(pictures[i]);
                ASSERT_GE(types.size(), 3u) << "picture " << i;
                EXPECT_EQ(types[0], 7) << "SPS in front of I picture " << i;
                EXPECT_EQ(types[1], 8) << "PPS in front of I picture " << i;
            }
        }
        if (clip.codec != kCodecHevc) {
            // Picture types as the decoder sees them, less those held back.
            std::map<char, int> ours;
            for (const MediaBlock* p : pictures) {
                const uint32_t f = p->GetFlags();
                ++ours[f & BLOCK_FLAG_TYPE_I ? 'I' : f & BLOCK_FLAG_TYPE_P ? 'P' : 'B'];
            }
            int missing = 0;
            for (char t : {'I', 'P', 'B'}) {
                EXPECT_LE(ours[t], m_probe.pictTypes[t]) << t;
                missing += m_probe.pictTypes[t] - ours[t];
            }
            EXPECT_EQ(missing, static_cast<int>(heldBack))
                << "I " << ours['I'] << " P " << ours['P'] << " B " << ours['B'];
        }

        EXPECT_EQ(static_cast<int>(run.fmt.video.i_width), m_probe.width);
        if (clip.interlaced) {
            // A field-coded SPS gives the height of its map units, on purpose not doubled.
            const int mapUnits = (m_probe.height + 31) / 32;
            EXPECT_EQ(static_cast<int>(run.fmt.video.i_height), m_probe.height - 16 * mapUnits);
        } else {
            EXPECT_EQ(static_cast<int>(run.fmt.video.i_height), m_probe.height);
        }
        if (clip.codec == kCodecHevc) {
            EXPECT_EQ(std::to_string(run.fmt.video.i_frame_rate) + "/" +
                          std::to_string(run.fmt.video.i_frame_rate_base),
                      m_probe.frameRate);
        }
        EXPECT_GT(run.fmt.i_extra, 0);

        // The concatenated output decodes cleanly, every picture of it.
        testsupport::TempDir out;
        const std::string file = out.File(std::string("out.") + clip.ext);
        ASSERT_TRUE(testsupport::WriteFile(file, run.Bytes()));
        auto decode =
            RunCommand({"ffmpeg", "-v", "error", "-f", clip.ext, "-i", file, "-f", "null", "-"});
        EXPECT_EQ(decode.exitCode, 0);
        EXPECT_EQ(decode.err, "");
        auto count = RunCommand({"ffprobe", "-v", "error", "-f", clip.ext, "-count_frames",
                                 "-show_entries", "stream=nb_read_frames", "-of", "csv=p=0", file});
        EXPECT_EQ(std::atoi(count.out.c_str()), static_cast<int>(pictures.size()));
    }

    static testsupport::TempDir* s_dir;
    static std::map<std::string, std::string> s_files;
    std::string m_path;
    std::string m_data;
    Probe m_probe;
};

testsupport::TempDir* VideoPacketizerEncoders::s_dir = nullptr;
std::map<std::string, std::string> VideoPacketizerEncoders::s_files;

TEST_P(VideoPacketizerEncoders, OneUnitPerFrameAsAnRtspReceiverDeliversThem) {
    Output run = Feed(GetParam(), m_data, Shape::kRtsp, m_probe.ptsUs);
    CheckRun(run, Shape::kRtsp);
    auto pictures = run.Pictures();
    if (GetParam().codec != kCodecMp4v) {
        // A picture takes the receive time of its first slice: rising in decode order.
        for (size_t i = 1; i < pictures.size(); ++i)
            EXPECT_GT(pictures[i]->GetDTS(), pictures[i - 1]->GetDTS()) << "picture " << i;
        return;
    }
    // MPEG-4 Part 2 pictures keep their presentation time; with B-VOPs a reference picture
    // is decoded at the presentation time of the reference before it. That needs a B-VOP and
    // a reference timed after it: the first two references after the I are timed as if
    // there were no B-VOPs.
    const size_t settled = GetParam().name == "mpeg4_bframes" ? 7 : 1;
    for (size_t i = 0; i < pictures.size(); ++i) {
        EXPECT_EQ(pictures[i]->GetPTS(), kStartUs + m_probe.ptsUs[i]) << "picture " << i;
        if (i >= settled) {
            EXPECT_GE(pictures[i]->GetDTS(), pictures[i - 1]->GetDTS()) << "picture " << i;
        }
        EXPECT_LE(pictures[i]->GetDTS(), pictures[i]->GetPTS()) << "picture " << i;
    }
}

TEST_P(VideoPacketizerEncoders, TheStreamPackerDeliversWhatThePacketizerCuts) {
    Output direct = Feed(GetParam(), m_data, Shape::kRtsp, m_probe.ptsUs);
    Output packed = FeedThroughPacker(GetParam(), m_data, m_probe.ptsUs);
    ASSERT_EQ(packed.blocks.size(), direct.blocks.size());
    EXPECT_TRUE(packed.Bytes() == direct.Bytes());
    for (size_t i = 0; i < packed.blocks.size(); ++i)
        EXPECT_EQ(packed.blocks[i]->GetFlags(), direct.blocks[i]->GetFlags()) << i;
    EXPECT_EQ(packed.fmt.video.i_width, direct.fmt.video.i_width);
    EXPECT_EQ(packed.fmt.video.i_height, direct.fmt.video.i_height);
}

TEST_P(VideoPacketizerEncoders, ChunksGiveTheSameBytesAsTheWholeFile) {
    Output whole = Feed(GetParam(), m_data, Shape::kWhole);
    CheckRun(whole, Shape::kWhole);
    std::vector<Shape> shapes = {Shape::kChunks1400, Shape::kChunksRandom};
    if (GetParam().smallUnits)
        shapes.push_back(Shape::kBytes1);
    for (Shape shape : shapes) {
        Output run = Feed(GetParam(), m_data, shape);
        EXPECT_TRUE(run.Bytes() == whole.Bytes()) << ShapeName(shape) << ": " << run.Bytes().size()
                                                  << " bytes against " << whole.Bytes().size();
        CheckRun(run, shape);
    }
}

INSTANTIATE_TEST_SUITE_P(Encoders, VideoPacketizerEncoders, ::testing::ValuesIn(Specs()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
