// HEVC through the video packetizer with crafted units: parameter sets leave as blocks of
// their own, pictures are cut at the first slice segment, slice types, the stream format
// from VPS/SPS (size, timing, colour), configuration records, and hostile units.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "video_harness.h"

using nal::HevcPps;
using nal::HevcSlice;
using nal::HevcSps;
using nal::HevcVps;

namespace {

std::string Slice(int nalType, int sliceType = 1, bool first = true) {
    HevcSlice s;
    s.nalType = nalType;
    s.sliceType = sliceType;
    s.firstInPicture = first;
    return nal::Slice(s);
}

std::string Aud() {
    return nal::HevcHeader(35) + nal::Bytes({0x50});
}

void Headers(VideoHarness& h, const HevcVps& vps = {}, const HevcSps& sps = {},
             const HevcPps& pps = {}) {
    h.Nal(nal::Vps(vps));
    h.Nal(nal::Sps(sps));
    h.Nal(nal::Pps(pps));
}

TEST(HevcPacketizer, ParameterSetsLeaveAloneThenThePicture) {
    VideoHarness h(kCodecHevc);
    ASSERT_EQ(h.init, 0);
    Headers(h);
    h.Nal(Slice(19, 2));  // IDR_W_RADL
    h.Nal(Aud());
    h.Nal(Aud());
    ASSERT_EQ(h.out.size(), 4u);
    EXPECT_EQ(h.HevcTypes(0), (std::vector<int>{32}));
    EXPECT_EQ(h.HevcTypes(1), (std::vector<int>{33}));
    EXPECT_EQ(h.HevcTypes(2), (std::vector<int>{34}));
    EXPECT_EQ(h.HevcTypes(3), (std::vector<int>{19}));
    EXPECT_EQ(h.out[3]->GetFlags(), BLOCK_FLAG_TYPE_I);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(h.out[i]->GetFlags() & BLOCK_FLAG_TYPE_MASK, 0u);
    EXPECT_EQ(h.Bytes(3).substr(0, 4), nal::kStart4) << "every unit begins with 00 00 00 01";

    // The first VPS, SPS and PPS make the extra data.
    const std::string extra(reinterpret_cast<char*>(h.stream.fmt.p_extra), h.stream.fmt.i_extra);
    EXPECT_EQ(extra, nal::kStart4 + nal::Vps({}) + nal::kStart4 + nal::Sps(HevcSps{}) +
                         nal::kStart4 + nal::Pps(HevcPps{}));
}

TEST(HevcPacketizer, SliceTypes) {
    struct Case {
        const char* name;
        std::string slice;
        uint32_t flag;
        HevcPps pps;
        HevcSps sps = {};
    };
    HevcSlice unknownPps;
    unknownPps.ppsId = 9;
    HevcSlice withExtraBits;
    withExtraBits.extraBits = 2;
    HevcPps extraBitsAndOutputFlag;
    extraBitsAndOutputFlag.extraBits = 2;
    extraBitsAndOutputFlag.outputFlagPresent = true;
    const std::vector<Case> cases = {
        {"CRA is a key picture", Slice(21, 2), BLOCK_FLAG_TYPE_I, {}},
        {"BLA is a key picture", Slice(16, 1), BLOCK_FLAG_TYPE_I, {}},
        {"P slice", Slice(1, 1), BLOCK_FLAG_TYPE_P, {}},
        {"B slice", Slice(1, 0), BLOCK_FLAG_TYPE_B, {}},
        {"I slice outside a random-access picture counts as B", Slice(1, 2), BLOCK_FLAG_TYPE_B, {}},
        {"unknown PPS", nal::Slice(unknownPps), BLOCK_FLAG_TYPE_B, {}},
        {"extra slice header bits and an output flag", nal::Slice(withExtraBits), BLOCK_FLAG_TYPE_P,
         extraBitsAndOutputFlag},
        {"SPS id other than its VPS id", Slice(1, 1), BLOCK_FLAG_TYPE_P, HevcPps{0, 3},
         [] {
             HevcSps s;
             s.id = 3;
             return s;
         }()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        VideoHarness h(kCodecHevc);
        Headers(h, {}, c.sps, c.pps);
        h.Nal(c.slice);
        h.Nal(Slice(1, 1));
        h.Nal(Slice(1, 1));
        ASSERT_EQ(h.out.size(), 4u);
        EXPECT_EQ(h.out[3]->GetFlags(), c.flag);
    }
}

TEST(HevcPacketizer, SegmentsOfOnePictureLeaveTogether) {
    VideoHarness h(kCodecHevc);
    Headers(h);
    h.Nal(Slice(19, 2));
    h.Nal(Slice(19, 2, false));
    h.Nal(Slice(1, 1));
    h.Nal(Slice(1, 1));
    ASSERT_EQ(h.out.size(), 4u);
    EXPECT_EQ(h.HevcTypes(3), (std::vector<int>{19, 19}));
}

// An SPS with a VUI: timing when timeScale is not 0, colour when primaries is not 0.
HevcSps VuiSps(uint32_t unitsInTick, uint32_t timeScale, int primaries, int transfer, int matrix,
               bool fullRange, bool interRps = false) {
    HevcSps s;
    s.vui = true;
    s.vuiTiming = timeScale != 0;
    s.unitsInTick = unitsInTick;
    s.timeScale = timeScale;
    s.colour = primaries != 0;
    s.primaries = primaries;
    s.transfer = transfer;
    s.matrix = matrix;
    s.fullRange = fullRange;
    s.interRps = interRps;
    return s;
}

TEST(HevcPacketizer, StreamFormatFromTheParameterSets) {
    struct Case {
        const char* name;
        bool vpsTiming;
        HevcSps sps;
        uint32_t rate, base, primaries, transfer, matrix, fullRange;
    };
    const Case cases[] = {
        {"timing from the SPS VUI", false, VuiSps(1001, 30000, 0, 0, 0, false), 30000, 1001, 0, 0,
         0, 0},
        {"no VUI: timing from the VPS, no colour", true, HevcSps{}, 25, 1, 0, 0, 0, 0},
        {"VUI without timing: timing from the VPS", true, VuiSps(1, 0, 1, 1, 1, false), 25, 1, 3, 3,
         2, 0},
        {"BT.2020 PQ-less, full range", false, VuiSps(1, 0, 9, 8, 9, true), 0, 0, 4, 1, 3, 1},
        {"BT.601", false, VuiSps(1, 0, 6, 4, 5, false), 0, 0, 2, 2, 1, 0},
        // The second set is predicted from the first: misread, the VUI behind it would be.
        {"predicted reference picture sets", false, VuiSps(1, 50, 0, 0, 0, false, true), 50, 1, 0,
         0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        VideoHarness h(kCodecHevc);
        HevcVps vps;
        vps.timing = c.vpsTiming;
        Headers(h, vps, c.sps);
        const video_format_t& v = h.stream.fmt.video;
        EXPECT_EQ(v.i_frame_rate, c.rate);
        EXPECT_EQ(v.i_frame_rate_base, c.base);
        EXPECT_EQ(v.i_primaries, c.primaries);
        EXPECT_EQ(v.i_transfer, c.transfer);
        EXPECT_EQ(v.i_matrix, c.matrix);
        EXPECT_EQ(v.b_full_range, c.fullRange);
        EXPECT_EQ(v.i_width, 320u);
        EXPECT_EQ(v.i_height, 240u);
        EXPECT_EQ(v.i_ctb_size, 64u);
        EXPECT_EQ(v.i_min_cb_size, 8u);
    }
}

TEST(HevcPacketizer, PictureSizeAppliesTheConformanceWindowAndTimingIsTakenOnce) {
    VideoHarness h(kCodecHevc);
    HevcSps first;
    first.width = 1920;
    first.height = 1088;
    first.confBottom = 4;
    first.vui = true;
    first.vuiTiming = true;
    Headers(h, {}, first);
    HevcSps second = first;
    second.timeScale = 60000;
    h.Nal(nal::Sps(second));
    h.Nal(Aud());
    EXPECT_EQ(h.stream.fmt.video.i_width, 1920u);
    EXPECT_EQ(h.stream.fmt.video.i_height, 1080u);
    EXPECT_EQ(h.stream.fmt.video.i_frame_rate, 30000u) << "the first timing stays";
}

TEST(HevcPacketizer, ParameterSetsThatDoNotDecodeAreLoggedAndPassOn) {
    struct Case {
        const char* name;
        std::string nal;
        const char* log;
    };
    const std::string sps = nal::Sps(HevcSps{});
    HevcSps sps3;
    sps3.id = 3;
    sps3.vpsId = 3;  // the SPS is filed under the 4 bits that follow its header
    HevcPps pps5;
    pps5.id = 5;
    std::string absurd;  // 5000 layer sets
    {
        nal::BitWriter w;
        w.u(4, 2);
        w.u(2, 3);
        w.u(6, 0);
        w.u(3, 0);
        w.bit(1);
        w.u(16, 0xffff);
        nal::HevcProfileTierLevel(w);
        w.bit(1);
        w.ues({0, 0, 0});
        w.u(6, 0);
        w.ue(5000);
        w.trailing();
        absurd = nal::HevcHeader(32) + nal::Escape(w.str());
    }
    const std::vector<Case> cases = {
        {"truncated VPS", nal::Vps({}).substr(0, 8), "Failed decoding VPS id 0"},
        {"VPS with absurd layer sets", absurd, "Failed decoding VPS id 2"},
        {"truncated SPS", nal::Sps(sps3).substr(0, 20), "Failed decoding SPS id 3"},
        {"SPS cut short", sps.substr(0, sps.size() - 3), "Failed decoding SPS id 0"},
        {"truncated PPS", nal::Pps(pps5).substr(0, 3), "Failed decoding PPS id 5"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        VideoHarness h(kCodecHevc);
        h.Nal(c.nal);
        h.Nal(Aud());
        EXPECT_EQ(log.Count(c.log), 1);
        ASSERT_EQ(h.out.size(), 1u);
        std::string expected = nal::kStart4 + c.nal;
        while (expected.back() == 0)
            expected.pop_back();  // zeros in front of the next start code belong to no unit
        EXPECT_EQ(h.Bytes(0), expected);
        EXPECT_EQ(h.stream.fmt.i_extra, 0);
    }
}

TEST(HevcPacketizer, CorruptedAndTinyUnitsAreDroppedWithTheirLogLines) {
    LogCapture log;
    VideoHarness h(kCodecHevc);
    Headers(h);
    h.Nal(Slice(19, 2));
    // A forbidden bit drops the unit and the picture collected so far.
    h.Nal(nal::Bytes({0x82, 0x01, 0x80, 0x11}));
    // A start code directly behind another is a unit too small to hold a header.
    h.Push(nal::Bytes({0, 0, 1, 0, 0, 1}) + Slice(1, 1));
    h.Nal(Slice(1, 1));
    h.Nal(Aud());
    h.Nal(Aud());
    EXPECT_EQ(log.Count("Forbidden zero bit not null, corrupted NAL"), 1);
    EXPECT_EQ(log.Count("4 NAL too small"), 1);
    ASSERT_EQ(h.out.size(), 5u);
    EXPECT_EQ(h.HevcTypes(3), (std::vector<int>{1})) << "the IDR picture went with the bad unit";
    EXPECT_EQ(h.HevcTypes(4), (std::vector<int>{1}));
}

// A configuration record (ISO/IEC 14496-15) with one array per parameter set.
std::string Hvcc(int lengthSizeMinusOne, const std::vector<std::string>& sets) {
    std::string r =
        nal::Bytes({1, 0x01, 0x60, 0,    0,    0,    0x90, 0,    0, 0, 0,
                    0, 93,   0xf0, 0x00, 0xfc, 0xfd, 0xf8, 0xf8, 0, 0, 0x0c | lengthSizeMinusOne});
    r += static_cast<char>(sets.size());
    for (const auto& s : sets) {
        r += static_cast<char>((static_cast<uint8_t>(s[0]) >> 1) & 0x3f);
        r += nal::Bytes({0, 1, static_cast<int>(s.size() >> 8), static_cast<int>(s.size() & 0xff)});
        r += s;
    }
    return r;
}

TEST(HevcPacketizer, ConfigurationRecords) {
    const std::vector<std::string> sets = {nal::Vps({}), nal::Sps(HevcSps{}), nal::Pps(HevcPps{})};
    const std::string annexB =
        nal::kStart4 + sets[0] + nal::kStart4 + sets[1] + nal::kStart4 + sets[2];
    std::string truncated = Hvcc(3, sets);
    truncated.resize(truncated.size() - 2);
    struct Case {
        const char* name;
        std::string extra;
        VIDEO_PACKET_TYPE type;
        std::string extraAfter;
    };
    const std::vector<Case> cases = {
        {"record rewritten as Annex B", Hvcc(3, sets), VIDEO_PACKET_HEVC_HVCC, annexB},
        {"a length past the end drops the extra data", truncated, VIDEO_PACKET_HEVC_HVCC, ""},
        {"no NAL units: extra data dropped", Hvcc(3, {}), VIDEO_PACKET_HEVC_HVCC, ""},
        {"3-byte lengths are not a record", Hvcc(2, sets), VIDEO_PACKET_HEVC, Hvcc(2, sets)},
        {"Annex B extra data", annexB, VIDEO_PACKET_HEVC, annexB},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        VideoHarness h(kCodecHevc, 0, c.extra);
        EXPECT_EQ(h.init, 0);
        EXPECT_EQ(h.packetizer.GetType(), c.type);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(h.stream.fmt.p_extra), h.stream.fmt.i_extra),
                  c.extraAfter);
    }
    // Annex B extra data is read at set-up.
    VideoHarness annexBStream(kCodecHevc, 0, annexB);
    EXPECT_EQ(annexBStream.stream.fmt.video.i_width, 320u);
}

TEST(HevcPacketizer, LengthPrefixedInputAfterARecordYieldsNothingOnPurpose) {
    VideoHarness h(kCodecHevc, 0,
                   Hvcc(3, {nal::Vps({}), nal::Sps(HevcSps{}), nal::Pps(HevcPps{})}));
    ASSERT_EQ(h.packetizer.GetType(), VIDEO_PACKET_HEVC_HVCC);
    EXPECT_EQ(h.stream.hevcNalLengthSize, 4);
    for (const std::string& unit : {Slice(19, 2), Slice(1, 1), Slice(1, 1)}) {
        const uint32_t n = static_cast<uint32_t>(unit.size());
        h.Push(nal::Bytes({static_cast<int>(n >> 24), static_cast<int>((n >> 16) & 0xff),
                           static_cast<int>((n >> 8) & 0xff), static_cast<int>(n & 0xff)}) +
               unit);
    }
    EXPECT_TRUE(h.out.empty());
    EXPECT_EQ(h.stream.frame, nullptr);
}

}  // namespace
