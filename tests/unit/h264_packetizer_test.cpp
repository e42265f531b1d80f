// H.264 through the video packetizer with crafted units: where pictures begin, what leaves
// before the first key picture, parameter sets in front of I pictures, the picture
// geometry from the SPS, timestamps of units cut from shared blocks, resets and captions.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "video_harness.h"

using nal::H264Pps;
using nal::H264Slice;
using nal::H264Sps;

namespace {

const H264Sps kSps;
const std::string kSpsNal = nal::Sps(kSps);
const std::string kPpsNal = nal::Pps(H264Pps{});

std::string Idr(int idrPicId = 0) {
    H264Slice s;
    s.nalType = 5;
    s.sliceType = 7;  // I, all slices
    s.idrPicId = idrPicId;
    return nal::Slice(s, kSps);
}

std::string P(int frameNum, int pocLsb, int refIdc = 2) {
    H264Slice s;
    s.sliceType = 5;
    s.frameNum = frameNum;
    s.pocLsb = pocLsb;
    s.refIdc = refIdc;
    return nal::Slice(s, kSps);
}

std::string I(int frameNum, int pocLsb) {
    H264Slice s;
    s.sliceType = 2;
    s.frameNum = frameNum;
    s.pocLsb = pocLsb;
    return nal::Slice(s, kSps);
}

// The unit after the last one only leaves when a next start code arrives.
void Finish(VideoHarness& h) {
    h.Nal(nal::Aud());
    h.Nal(nal::Aud());
}

TEST(H264Packetizer, NothingLeavesBeforeTheFirstIPictureAndEveryIPictureCarriesTheSets) {
    struct Case {
        const char* what;
        std::vector<std::string> units;
        std::vector<std::vector<int>> pictures;  // NAL unit types of each output
        long long firstPts;                      // unit i is fed at time 100 * (i + 1)
    };
    const Case cases[] = {
        {"P pictures before the first I",
         {kSpsNal, kPpsNal, P(1, 2), P(2, 4), Idr(), P(1, 2), I(2, 4), P(3, 6)},
         {{7, 8, 5}, {1}, {7, 8, 1}, {1}},
         500},
        {"slices before the parameter sets",
         {Idr(), P(1, 2), kSpsNal, kPpsNal, Idr(1), P(1, 2)},
         {{7, 8, 5}, {1}},
         500},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        VideoHarness h(kCodecH264);
        ASSERT_EQ(h.init, 0);
        for (size_t i = 0; i < c.units.size(); ++i)
            h.Nal(c.units[i], 100 * static_cast<long long>(i + 1));
        Finish(h);
        ASSERT_EQ(h.out.size(), c.pictures.size());
        EXPECT_EQ(h.out[0]->GetPTS(), c.firstPts) << "the first I picture keeps its own time";
        for (size_t i = 0; i < h.out.size(); ++i) {
            EXPECT_EQ(h.H264Types(i), c.pictures[i]) << i;
            EXPECT_EQ(h.out[i]->GetFlags() & BLOCK_FLAG_TYPE_MASK,
                      c.pictures[i][0] == 7 ? BLOCK_FLAG_TYPE_I : BLOCK_FLAG_TYPE_P)
                << i;
        }
    }
}

TEST(H264Packetizer, PictureBoundaries) {
    struct Case {
        const char* name;
        unsigned ctorFlags;
        std::vector<std::string> slices;  // after an IDR picture
        size_t pictures;                  // pictures they make
    };
    const std::vector<Case> cases = {
        {"same headers make one picture", 0, {P(1, 2), P(1, 2)}, 1},
        {"nal_ref_idc 1 and 2 make two", 0, {P(1, 2, 1), P(1, 2, 2)}, 2},
        {"frame_num change", 0, {P(1, 2), P(2, 2)}, 2},
        {"order count change", 0, {P(1, 2), P(1, 4)}, 2},
        {"order count 0 merges without the camera flag", 2, {P(1, 0, 0), P(1, 0, 0)}, 1},
        {"order count 0 splits with the camera flag", 3, {P(1, 0, 0), P(1, 0, 0)}, 2},
        {"every constructor bit set", 0xffffffffu, {P(1, 0, 0), P(1, 0, 0)}, 2},
        {"IDR after IDR with another idr_pic_id", 0, {Idr(1), Idr(2)}, 2},
        {"IDR slices of one IDR picture", 0, {Idr(1), Idr(1)}, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        VideoHarness h(kCodecH264, c.ctorFlags);
        // Only the lowest constructor bit is the camera flag.
        EXPECT_EQ(h.packetizer.PocZeroSplits(), (c.ctorFlags & 1) != 0);
        h.Nal(kSpsNal);
        h.Nal(kPpsNal);
        h.Nal(Idr(7));
        for (const auto& s : c.slices)
            h.Nal(s);
        Finish(h);
        EXPECT_EQ(h.out.size(), 1 + c.pictures);
    }
}

TEST(H264Packetizer, SpsGeometry) {
    struct Case {
        const char* what;
        int profile, chromaFormat, widthMbs, heightMapUnits;
        bool frameMbsOnly;
        int cropLeft, cropRight, cropTop, cropBottom;
        int aspectIdc, sarWidth, sarHeight;
        uint32_t width, height, aspect;
    };
    const Case cases[] = {
        {"plain", 66, 1, 20, 15, true, 0, 0, 0, 0, 0, 0, 0, 320, 240, 0},
        {"1080p crop", 66, 1, 120, 68, true, 0, 0, 0, 4, 0, 0, 0, 1920, 1080, 0},
        // Field coding: the height of the map units, on purpose not doubled.
        {"field coded", 66, 1, 120, 34, false, 0, 0, 0, 2, 0, 0, 0, 1920, 34 * 16 - 2 * 4, 0},
        {"4:4:4 crop in luma units", 244, 3, 20, 15, true, 3, 0, 0, 1, 0, 0, 0, 317, 239, 0},
        {"4:2:2 crops rows one by one", 122, 2, 20, 15, true, 0, 2, 2, 0, 0, 0, 0, 316, 238, 0},
        {"monochrome", 100, 0, 20, 15, true, 0, 5, 0, 0, 0, 0, 0, 315, 240, 0},
        {"sample aspect 4:3 from the table", 66, 1, 20, 15, true, 0, 0, 0, 0, 14, 0, 0, 320, 240,
         4 * 320 * 432000 / (3 * 240)},
        {"explicit sample aspect", 66, 1, 44, 36, true, 0, 0, 0, 0, 255, 12, 11, 704, 576,
         static_cast<uint32_t>(12LL * 704 * 432000 / (11 * 576))},
        {"sar width 0 leaves the aspect alone", 66, 1, 20, 15, true, 0, 0, 0, 0, 255, 0, 11, 320,
         240, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        H264Sps sps;
        sps.profile = c.profile;
        sps.chromaFormat = c.chromaFormat;
        sps.widthMbs = c.widthMbs;
        sps.heightMapUnits = c.heightMapUnits;
        sps.frameMbsOnly = c.frameMbsOnly;
        sps.crop = c.cropLeft || c.cropRight || c.cropTop || c.cropBottom;
        sps.cropLeft = c.cropLeft;
        sps.cropRight = c.cropRight;
        sps.cropTop = c.cropTop;
        sps.cropBottom = c.cropBottom;
        sps.vui = c.aspectIdc != 0;
        sps.aspectIdc = c.aspectIdc;
        sps.sarWidth = c.sarWidth;
        sps.sarHeight = c.sarHeight;
        VideoHarness h(kCodecH264);
        h.Nal(nal::Sps(sps));
        h.Nal(kPpsNal);
        EXPECT_EQ(h.stream.fmt.video.i_width, c.width);
        EXPECT_EQ(h.stream.fmt.video.i_height, c.height);
        EXPECT_EQ(h.stream.fmt.video.i_aspect, c.aspect);
    }
}

TEST(H264Packetizer, ParameterSetIdsOutOfRangeAreDropped) {
    struct Case {
        const char* name;
        int spsId;
        int ppsId;
        int ppsSpsId;
        bool stored;
    };
    const std::vector<Case> cases = {
        {"largest ids", 31, 255, 31, true},
        {"SPS id 32", 32, 0, 0, false},
        {"PPS id 256", 0, 256, 0, false},
        {"PPS naming SPS 32", 0, 0, 32, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        VideoHarness h(kCodecH264);
        H264Sps sps;
        sps.id = c.spsId;
        h.Nal(nal::Sps(sps));
        h.Nal(nal::Pps(H264Pps{c.ppsId, c.ppsSpsId}));
        h.Nal(nal::Aud());
        EXPECT_EQ(h.stream.fmt.i_extra > 0, c.stored);
    }
}

TEST(H264Packetizer, ExtraDataIsEverySpsThenEveryPpsByIdAndEveryIPictureCarriesThemAll) {
    VideoHarness h(kCodecH264);
    H264Sps sps1;
    sps1.id = 1;
    const std::string s1 = nal::Sps(sps1);
    const std::string p3 = nal::Pps(H264Pps{3, 0});
    const std::string p1 = nal::Pps(H264Pps{1, 1});
    h.Nal(s1);
    h.Nal(kSpsNal);
    h.Nal(p3);
    h.Nal(p1);  // a unit is read when the next one begins: p3 is now
    EXPECT_EQ(std::string(reinterpret_cast<char*>(h.stream.fmt.p_extra), h.stream.fmt.i_extra),
              nal::kStart4 + kSpsNal + nal::kStart4 + s1 + nal::kStart4 + p3);
    H264Slice idr;
    idr.nalType = 5;
    idr.sliceType = 7;
    idr.ppsId = 3;
    h.Nal(nal::Slice(idr, kSps));
    Finish(h);
    ASSERT_EQ(h.out.size(), 1u);
    EXPECT_EQ(h.Bytes(0).substr(0, 4 * 4 + kSpsNal.size() + s1.size() + p1.size() + p3.size()),
              nal::kStart4 + kSpsNal + nal::kStart4 + s1 + nal::kStart4 + p1 + nal::kStart4 + p3);
}

TEST(H264Packetizer, AUnitThatIsExactlyOneBlockLeavesWithoutACopy) {
    VideoHarness h(kCodecH264);
    h.Nal(kSpsNal);
    h.Nal(kPpsNal);
    h.Nal(Idr());
    MediaBlock* p = VideoHarness::Block(nal::kStart4 + P(1, 2), 40);
    const unsigned char* bytes = p->GetBuffer();
    h.Push(p);
    h.Nal(P(2, 4));
    h.Nal(nal::Aud());
    ASSERT_EQ(h.out.size(), 2u);
    EXPECT_EQ(h.out[1].get(), p) << "the input block itself";
    EXPECT_EQ(h.out[1]->GetBuffer(), bytes);
    EXPECT_EQ(h.out[1]->GetPTS(), 40);
}

TEST(H264Packetizer, AUnitSplitOverBlocksTakesTheTimesOfItsFirstBlockOnce) {
    VideoHarness h(kCodecH264);
    h.Push(nal::kStart4 + kSpsNal + nal::kStart4 + kPpsNal + nal::kStart4 + Idr(), 10);
    const std::string p2 = nal::kStart4 + P(2, 4);
    const size_t half = p2.size() / 2;
    h.Push(nal::kStart4 + P(1, 2) + p2.substr(0, half), 100);
    h.Push(p2.substr(half) + nal::kStart4 + nal::Aud(), 200);
    h.Nal(nal::Aud(), 300);
    ASSERT_EQ(h.out.size(), 3u);
    EXPECT_EQ(h.out[0]->GetPTS(), 10);
    EXPECT_EQ(h.out[1]->GetPTS(), 100);
    // P2 begins in the block whose times P1 already took.
    EXPECT_EQ(h.out[2]->GetPTS(), -1);
    EXPECT_EQ(h.out[2]->GetDTS(), -1);
}

TEST(H264Packetizer, ThreeByteStartCodesBehindParameterSetsAndSeiAreUnitBoundaries) {
    VideoHarness h(kCodecH264);
    const std::string three = nal::Bytes({0, 0, 1});
    h.Push(nal::kStart4 + kSpsNal + nal::kStart4 + kPpsNal + three + nal::CaptionSei({}) + three +
           Idr() + nal::kStart4 + P(1, 2) + nal::kStart4 + nal::Aud() + nal::kStart4 + nal::Aud());
    ASSERT_EQ(h.out.size(), 2u);
    EXPECT_EQ(h.H264Types(0), (std::vector<int>{7, 8, 5}));
    EXPECT_EQ(h.Bytes(0).substr(0, 4 + kSpsNal.size()), nal::kStart4 + kSpsNal);
    EXPECT_EQ(h.Bytes(0).substr(h.Bytes(0).size() - Idr().size() - 4), nal::kStart4 + Idr())
        << "the slice behind a 3-byte start code leaves with a 4-byte one";
}

TEST(H264Packetizer, ResetFlags) {
    struct Case {
        const char* name;
        uint32_t flags;
        size_t pictures;
    };
    const std::vector<Case> cases = {
        {"discontinuity keeps what was collected", BLOCK_FLAG_DISCONTINUITY, 4},
        {"corrupted drops the pending unit and picture", BLOCK_FLAG_CORRUPTED, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        VideoHarness h(kCodecH264);
        h.Nal(kSpsNal);
        h.Nal(kPpsNal);
        h.Nal(Idr());
        h.Nal(P(1, 2));
        h.Nal(P(2, 4));
        h.Push("", 0, c.flags);
        h.Nal(P(3, 6));
        Finish(h);
        EXPECT_EQ(h.out.size(), c.pictures);
    }
}

TEST(H264Packetizer, CaptionsOfAPictureComeOutWithItsTimes) {
    VideoHarness h(kCodecH264);
    h.Nal(kSpsNal, 10);
    h.Nal(kPpsNal, 10);
    h.Nal(Idr(), 10);
    h.Nal(nal::CaptionSei({{0xfc, 0x94, 0x2c}, {0xfd, 0x80, 0x80}, {0xfa, 0x00, 0x00}}), 50);
    h.Nal(P(1, 2), 50);
    Finish(h);
    ASSERT_EQ(h.out.size(), 2u);

    bool present[4] = {};
    std::unique_ptr<MediaBlock> cc(h.packetizer.GetCc(&h.stream, present));
    ASSERT_TRUE(cc);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(cc->GetBuffer()), cc->GetBufferSize()),
              nal::Bytes({0, 0x94, 0x2c, 1, 0x80, 0x80}))
        << "line-21 pairs of both fields; the DTVCC triplet is not one";
    EXPECT_EQ(cc->GetPTS(), 50);
    EXPECT_EQ(cc->GetDTS(), 50);
    EXPECT_EQ(cc->GetFlags(), BLOCK_FLAG_TYPE_P);
    EXPECT_TRUE(present[0] && present[1] && present[2] && present[3]);

    EXPECT_EQ(h.packetizer.GetCc(&h.stream, present), nullptr) << "taken once";
    EXPECT_TRUE(present[0]) << "channels seen stay known";
}

TEST(H264Packetizer, ExtraDataInTheFormatIsReadAtSetUp) {
    const std::string extra = nal::kStart4 + nal::Sps([] {
                                  H264Sps s;
                                  s.widthMbs = 40;
                                  s.heightMapUnits = 30;
                                  return s;
                              }()) +
                              nal::kStart4 + kPpsNal;
    VideoHarness h(kCodecAvc1, 0, extra);
    ASSERT_EQ(h.init, 0);
    EXPECT_EQ(h.stream.fmt.i_codec, kCodecH264);
    EXPECT_EQ(h.stream.fmt.video.i_width, 640u);
    EXPECT_EQ(h.stream.fmt.video.i_height, 480u);
    h.Nal(Idr());
    h.Nal(P(1, 2));
    h.Nal(nal::Aud());
    ASSERT_EQ(h.out.size(), 1u);
    EXPECT_EQ(h.H264Types(0), (std::vector<int>{7, 8, 5}));
}

}  // namespace
