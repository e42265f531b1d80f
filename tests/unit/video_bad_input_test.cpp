// The video packetizer against hostile input: real encoder streams with flipped bits and
// truncated units fed in random pieces, absurd header values, pictures that never end.
// Under AddressSanitizer this is the check that no read leaves its buffer; everywhere it
// checks that memory stays bounded and the failures are logged.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "log_capture.h"
#include "process.h"
#include "video_feed.h"
#include "video_harness.h"

namespace {

constexpr int32_t kFrameUnitLimit = 4096;
constexpr int64_t kFrameByteLimit = 32 << 20;
constexpr int kChainLimit = 514;

int ChainLength(const MediaBlock* b) {
    int n = 0;
    for (; b; b = b->GetNext())
        ++n;
    return n;
}

void ExpectBounded(const PACK_STREAM& s) {
    EXPECT_LE(s.frameUnits, kFrameUnitLimit);
    EXPECT_LE(s.frameBytes, kFrameByteLimit);
    EXPECT_EQ(s.frameUnits, ChainLength(s.frame));
    EXPECT_LE(ChainLength(s.bytestream.p_chain), kChainLimit);
}

struct Encoded {
    uint32_t codec;
    std::string data;
};

// Small real streams, encoded once per test binary.
const std::vector<Encoded>& RealStreams() {
    static std::vector<Encoded> streams = [] {
        std::vector<Encoded> out;
        if (!testsupport::HaveTool("ffmpeg"))
            return out;
        testsupport::TempDir dir;
        const struct {
            uint32_t codec;
            const char* format;
            std::vector<std::string> args;
        } inputs[] = {
            {kCodecH264, "h264", {"-pix_fmt", "yuv420p", "-c:v", "libx264", "-bf", "2", "-g", "6"}},
            {kCodecHevc,
             "hevc",
             {"-pix_fmt", "yuv420p", "-c:v", "libx265", "-x265-params",
              "keyint=6:log-level=error"}},
            {kCodecMp4v, "m4v", {"-c:v", "mpeg4", "-bf", "2", "-g", "6"}},
        };
        for (const auto& input : inputs) {
            const std::string path = dir.File(std::string("in.") + input.format);
            std::vector<std::string> argv = {
                "ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc=size=96x64:rate=25",
                "-t",     "1"};
            argv.insert(argv.end(), input.args.begin(), input.args.end());
            argv.insert(argv.end(), {"-f", input.format, path});
            if (testsupport::RunCommand(argv).exitCode == 0)
                out.push_back({input.codec, testsupport::ReadFile(path)});
        }
        return out;
    }();
    return streams;
}

TEST(VideoBadInput, FlippedBitsInRandomPieces) {
    if (RealStreams().empty())
        GTEST_SKIP() << "ffmpeg not installed";
    ASSERT_EQ(RealStreams().size(), 3u);
    LogCapture quiet;
    for (const Encoded& e : RealStreams()) {
        for (unsigned seed = 1; seed <= 48; ++seed) {
            SCOPED_TRACE(GetCodec(e.codec) + " seed " + std::to_string(seed));
            std::mt19937 rng(seed);
            std::string data = e.data;
            const size_t flips = 1 + rng() % 40;
            for (size_t i = 0; i < flips; ++i)
                data[rng() % data.size()] ^= static_cast<char>(1 << (rng() % 8));
            VideoHarness h(e.codec, seed);
            ASSERT_EQ(h.init, 0);
            for (size_t pos = 0; pos < data.size();) {
                // Some runs in pieces of a few bytes: codes split at every boundary.
                const size_t most = seed % 4 == 0 ? 8 : 3000;
                const size_t n = std::min<size_t>(1 + rng() % most, data.size() - pos);
                uint32_t flags = 0;
                if (rng() % 50 == 0)
                    flags = rng() % 2 ? BLOCK_FLAG_DISCONTINUITY : BLOCK_FLAG_CORRUPTED;
                h.Push(data.substr(pos, n), static_cast<long long>(pos) + 1, flags);
                pos += n;
                ExpectBounded(h.stream);
            }
            h.out.clear();
        }
    }
}

TEST(VideoBadInput, TruncatedUnitsAsAnRtspReceiverDeliversThem) {
    if (RealStreams().empty())
        GTEST_SKIP() << "ffmpeg not installed";
    LogCapture quiet;
    for (const Encoded& e : RealStreams()) {
        SCOPED_TRACE(GetCodec(e.codec));
        std::mt19937 rng(99);
        VideoHarness h(e.codec);
        const auto frames = e.codec == kCodecMp4v ? testsupport::SplitMpeg4Frames(e.data)
                                                  : testsupport::SplitAnnexB(e.data);
        int64_t t = 1000000;
        for (const std::string& f : frames) {
            const std::string cut = f.substr(0, rng() % (f.size() + 1));
            testsupport::FeedFrame(h.packetizer, h.stream,
                                   reinterpret_cast<const uint8_t*>(cut.data()), cut.size(),
                                   t += 40000, [&](MediaBlock* b) { h.out.emplace_back(b); });
            ExpectBounded(h.stream);
        }
    }
}

TEST(VideoBadInput, RandomExtraData) {
    LogCapture quiet;
    std::mt19937 rng(5);
    for (uint32_t codec : {kCodecH264, kCodecHevc, kCodecMp4v, kCodecAvc1}) {
        for (int i = 0; i < 200; ++i) {
            std::string extra(rng() % 64, '\0');
            for (char& c : extra)
                c = static_cast<char>(rng());
            if (codec == kCodecHevc && i % 2 && extra.size() >= 23) {
                extra[0] = 1;  // let some pass the configuration-record test
                extra[13] = static_cast<char>(0xf0);
                extra[15] = extra[16] = static_cast<char>(0xfc);
                extra[17] = extra[18] = static_cast<char>(0xf8);
                extra[21] = 3;
            }
            VideoHarness h(codec, 0, extra);
            h.Push(extra, 1);
            ExpectBounded(h.stream);
        }
    }
}

TEST(VideoBadInput, AbsurdH264HeaderValues) {
    LogCapture quiet;
    nal::BitWriter w;
    w.u(8, 100);
    w.u(16, 0);
    w.ues({0, 1, 0, 0});
    w.bits({0, 1});  // scaling matrices
    for (int i = 0; i < 8; ++i) {
        w.bit(1);
        for (int j = 0; j < 64; ++j)
            w.se(-1000000);
    }
    w.ue(0xfffffffe);  // log2_max_frame_num_minus4
    w.ue(1);           // poc type 1
    w.bit(0);
    w.se(0x7fffffff);
    w.se(-0x7fffffff);
    w.ue(0xfffffffe);  // cycle length: capped
    for (int i = 0; i < 300; ++i)
        w.se(1);
    w.ue(0);
    w.bit(0);
    w.ues({0xfffffffe, 0xfffffffe});  // width and height in macroblocks
    w.bits({1, 1, 1});                // cropping larger than the picture
    w.ues({0xfffffffe, 0xfffffffe, 0xfffffffe, 0xfffffffe});
    w.bits({1, 1});
    w.u(8, 255);
    w.u(16, 0xffff);
    w.u(16, 1);
    w.trailing();
    const std::string sps = nal::Bytes({0x67}) + nal::Escape(w.str());

    VideoHarness h(kCodecH264);
    h.Nal(sps);
    h.Nal(nal::Pps(nal::H264Pps{}));
    h.Nal(nal::Aud());
    EXPECT_TRUE(h.stream.hasSps);
    EXPECT_EQ(h.stream.log2MaxFrameNum, 12) << "capped";
    EXPECT_GT(h.stream.fmt.video.i_width, 0u);
    // Slices read with the capped field widths.
    nal::H264Slice s;
    s.sliceType = 7;
    s.nalType = 5;
    for (int i = 0; i < 3; ++i)
        h.Nal(nal::Slice(s, nal::H264Sps{}));
    ExpectBounded(h.stream);
}

TEST(VideoBadInput, PicturesThatNeverEndAreDropped) {
    struct Case {
        const char* name;
        uint32_t codec;
        std::vector<std::string> head;  // units that open the picture
        std::string repeated;           // units that keep it going
    };
    nal::H264Slice idr;
    idr.nalType = 5;
    idr.sliceType = 7;
    nal::HevcSlice segment;
    segment.nalType = 19;
    segment.firstInPicture = false;
    nal::Vol vol;
    nal::Vop broken;
    broken.marker = false;
    const std::vector<Case> cases = {
        {"H.264 slices with the same header",
         kCodecH264,
         {nal::Sps(nal::H264Sps{}), nal::Pps(nal::H264Pps{}), nal::Slice(idr, nal::H264Sps{})},
         nal::kStart4 + nal::Slice(idr, nal::H264Sps{})},
        {"HEVC segments without a first one",
         kCodecHevc,
         {nal::Vps({}), nal::Sps(nal::HevcSps{}), nal::Pps(nal::HevcPps{})},
         nal::kStart4 + nal::Slice(segment)},
        {"MPEG-4 VOPs that do not parse", kCodecMp4v, {}, nal::VopUnit(broken, vol)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        VideoHarness h(c.codec, 0, c.codec == kCodecMp4v ? nal::VolUnit(vol) : "");
        for (const auto& u : c.head)
            h.Nal(u);
        std::string many;
        for (int i = 0; i < 200; ++i)
            many += c.repeated;
        for (int i = 0; i < 30; ++i) {
            h.Push(many, 1);
            ExpectBounded(h.stream);
        }
        EXPECT_GE(log.Count("has no end, dropped"), 1);
    }
}

TEST(VideoBadInput, AbsurdlyLargeUnitsAreSkipped) {
    LogCapture log;
    VideoHarness h(kCodecH264);
    h.Nal(nal::Sps(nal::H264Sps{}));
    h.Push(nal::kStart4 + std::string(33 << 20, '\x41') + nal::kStart4 + nal::Pps(nal::H264Pps{}) +
           nal::kStart4 + nal::Aud());
    EXPECT_EQ(log.Count("bytes skipped"), 1);
    EXPECT_TRUE(h.stream.hasPps) << "what follows is read";
}

TEST(VideoBadInput, BytesWithoutStartCodesStayBounded) {
    LogCapture quiet;
    VideoHarness h(kCodecHevc);
    h.Push(nal::kStart4 + nal::Vps({}));
    const std::string noise(1000, '\x55');
    for (int i = 0; i < 600; ++i)
        h.Push(noise);
    ExpectBounded(h.stream);
}

}  // namespace
