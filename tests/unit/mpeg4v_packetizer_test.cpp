// MPEG-4 Part 2 through the video packetizer: the VOL gives size and time base, every VOP
// leaves as a picture timed from its time codes, and nothing leaves without a time to
// start from.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "packetizer/mpeg4video_internal.h"
#include "video_harness.h"

using nal::Vol;
using nal::Vop;

namespace {

std::string VopAt(const Vol& vol, int type, int increment, int seconds = 0) {
    Vop v;
    v.codingType = type;
    v.increment = increment;
    v.moduloSeconds = seconds;
    return nal::VopUnit(v, vol);
}

const std::string kVosEnd = nal::Bytes({0, 0, 1, 0xb1});

TEST(Mpeg4VideoPacketizer, VolSetsSizeAndExtraDataAndEarlierUnitsAreDropped) {
    VideoHarness h(kCodecMp4v);
    ASSERT_EQ(h.init, 0);
    Vol vol;
    vol.width = 352;
    vol.height = 288;
    const std::string vos = nal::Bytes({0, 0, 1, 0xb0, 0x01});
    h.Push(VopAt(vol, 0, 0) + vos + nal::VolUnit(vol) + VopAt(vol, 0, 0) + kVosEnd, 1000000);
    EXPECT_EQ(h.stream.fmt.video.i_width, 352u);
    EXPECT_EQ(h.stream.fmt.video.i_height, 288u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(h.stream.fmt.p_extra), h.stream.fmt.i_extra),
              nal::VolUnit(vol));
    ASSERT_EQ(h.out.size(), 1u) << "the VOP before the VOL cannot be decoded";
    EXPECT_EQ(h.Bytes(0), vos + nal::VolUnit(vol) + VopAt(vol, 0, 0));
    EXPECT_EQ(h.out[0]->GetFlags(), BLOCK_FLAG_TYPE_I);
}

TEST(Mpeg4VideoPacketizer, NothingLeavesWithoutAStartingTime) {
    struct Case {
        const char* name;
        int secondIncrement;
        size_t pictures;
    };
    // Without input times the first picture sits at 0; later ones count from there.
    const std::vector<Case> cases = {
        {"time codes that stand still", 0, 0},
        {"time codes that advance", 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        Vol vol;
        VideoHarness h(kCodecMp4v, 0, nal::VolUnit(vol));
        h.Push(VopAt(vol, 0, 0) + VopAt(vol, 1, c.secondIncrement) + kVosEnd, 0);
        EXPECT_EQ(h.out.size(), c.pictures);
        EXPECT_EQ(log.Count("need a starting pts/dts"), 2 - static_cast<int>(c.pictures));
        // Written whatever the log configuration, under the packetizer's one source name.
        for (const auto& r : log.Records()) {
            if (r.text != "need a starting pts/dts")
                continue;
            EXPECT_EQ(r.file, "mpeg4videopacket");
            EXPECT_EQ(r.function, "PacketizeValidate");
            EXPECT_EQ(r.categ, "-");
            EXPECT_EQ(r.level, "-");
        }
    }
}

TEST(Mpeg4VideoPacketizer, TimesAdvanceByTheTimeCodes) {
    struct Case {
        const char* what;
        int resolution;
        std::vector<std::pair<int, int>> vops;  // (increment, whole seconds) of I P P ...
        std::vector<long long> pts;             // from the first picture
    };
    const Case cases[] = {
        {"NTSC steps", 30000, {{0, 0}, {1001, 0}, {2002, 0}, {3003, 0}}, {0, 33366, 66732, 100098}},
        {"whole seconds of the modulo time base count", 25, {{24, 0}, {1, 1}}, {0, 80000}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Vol vol;
        vol.resolution = c.resolution;
        VideoHarness h(kCodecMp4v, 0, nal::VolUnit(vol));
        EXPECT_EQ(h.stream.timeIncrementResolution, c.resolution);
        std::string bytes;
        for (size_t i = 0; i < c.vops.size(); ++i)
            bytes += VopAt(vol, i == 0 ? 0 : 1, c.vops[i].first, c.vops[i].second);
        h.Push(bytes + kVosEnd, 1000000);
        ASSERT_EQ(h.out.size(), c.pts.size());
        for (size_t i = 0; i < c.pts.size(); ++i) {
            EXPECT_EQ(h.out[i]->GetPTS(), 1000000 + c.pts[i]) << i;
            EXPECT_EQ(h.out[i]->GetDTS(), h.out[i]->GetPTS()) << i;
        }
    }
}

TEST(Mpeg4VideoPacketizer, ReferencePicturesAreDecodedAtThePreviousReferenceTime) {
    Vol vol;
    VideoHarness h(kCodecMp4v, 0, nal::VolUnit(vol));
    // Two groups, each I P B B in decode order (I B B P in display order), 40 ms a frame.
    std::string bytes;
    for (int g = 0; g < 2; ++g) {
        const int base = g * 6;
        bytes += VopAt(vol, 0, base + 0) + VopAt(vol, 1, base + 3) + VopAt(vol, 2, base + 1) +
                 VopAt(vol, 2, base + 2);
    }
    h.Push(bytes + kVosEnd, 1000000);
    ASSERT_EQ(h.out.size(), 8u);
    const long long frame = 40000;
    // The second group: I at 6, P at 9, B at 7 and 8.
    EXPECT_EQ(h.out[4]->GetPTS(), 1000000 + 6 * frame);
    EXPECT_EQ(h.out[5]->GetPTS(), 1000000 + 9 * frame);
    EXPECT_EQ(h.out[5]->GetDTS(), 1000000 + 6 * frame) << "P decoded at the I's time";
    EXPECT_EQ(h.out[6]->GetPTS(), 1000000 + 7 * frame);
    EXPECT_EQ(h.out[6]->GetDTS(), h.out[6]->GetPTS());
    EXPECT_EQ(h.out[6]->GetFlags(), BLOCK_FLAG_TYPE_B);
}

TEST(Mpeg4VideoPacketizer, AVopWithABrokenMarkerLeavesWithTheNextPicture) {
    Vol vol;
    VideoHarness h(kCodecMp4v, 0, nal::VolUnit(vol));
    Vop broken;
    broken.codingType = 1;
    broken.marker = false;
    const std::string bad = nal::VopUnit(broken, vol);
    h.Push(VopAt(vol, 0, 0) + bad + VopAt(vol, 1, 2) + kVosEnd, 1000000);
    ASSERT_EQ(h.out.size(), 2u);
    EXPECT_EQ(h.Bytes(1), bad + VopAt(vol, 1, 2));
}

TEST(Mpeg4VideoPacketizer, ResetClearsTheTimesAndAHardResetThePicture) {
    Vol vol;
    for (uint32_t flag : {BLOCK_FLAG_DISCONTINUITY, BLOCK_FLAG_CORRUPTED}) {
        SCOPED_TRACE(flag);
        VideoHarness h(kCodecMp4v, 0, nal::VolUnit(vol));
        h.Push(VopAt(vol, 0, 0) + VopAt(vol, 1, 1), 1000000);
        ASSERT_EQ(h.out.size(), 1u);
        h.Push("", 0, flag);
        EXPECT_EQ(h.stream.pts, 0);
        EXPECT_EQ(h.stream.timeIncrementResolution, 25) << "the VOL still holds";
        h.Push(VopAt(vol, 1, 2) + VopAt(vol, 1, 3) + kVosEnd, 2000000);
        // A soft reset keeps the unit waiting in the byte stream; a hard one drops it.
        EXPECT_EQ(h.out.size(), flag == BLOCK_FLAG_CORRUPTED ? 3u : 4u);
    }
}

TEST(Mpeg4VideoPacketizer, ParseVol) {
    struct Case {
        const char* name;
        std::string bytes;
        int result, resolution, fixedIncrement;
    };
    Vol noMarker;
    noMarker.marker = false;
    Vol zero;
    zero.resolution = 0;
    Vol fixed;
    fixed.resolution = 30000;
    fixed.fixedRate = true;
    fixed.fixedIncrement = 1001;
    const std::string vos = nal::Bytes({0, 0, 1, 0xb0, 1, 0xff});
    const Case cases[] = {
        {"plain", nal::VolUnit(Vol{}), 0, 25, 0},
        {"behind other bytes", vos + nal::VolUnit(Vol{}), 0, 25, 0},
        {"marker 0", nal::VolUnit(noMarker), -1, 0, 0},
        {"resolution 0 counts as 1", nal::VolUnit(zero), 0, 1, 0},
        {"fixed rate", nal::VolUnit(fixed), 0, 30000, 1001},
        {"no VOL start code", nal::Bytes({0, 0, 1, 0xb6, 0x10, 0x20, 0x30}), -1, 0, 0},
        {"too short", nal::Bytes({0, 0, 1, 0x20}), -1, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        PACK_STREAM s;
        ESFormat fmt;
        std::string bytes = c.bytes;
        EXPECT_EQ(ParseVOL(&s, &fmt, reinterpret_cast<uint8_t*>(&bytes[0]),
                           static_cast<int>(bytes.size())),
                  c.result);
        EXPECT_EQ(s.timeIncrementResolution, c.resolution);
        EXPECT_EQ(s.fixedTimeIncrement, c.fixedIncrement);
        EXPECT_EQ(fmt.video.i_width, c.result == 0 ? 176u : 0u);
    }
}

TEST(Mpeg4VideoPacketizer, VlcLog2) {
    const std::vector<std::pair<unsigned, unsigned>> cases = {
        {0, 0}, {1, 0}, {2, 1}, {3, 1}, {255, 7}, {256, 8}, {0xffffffffu, 31}};
    for (const auto& c : cases)
        EXPECT_EQ(vlc_log2(c.first), c.second) << c.first;
}

}  // namespace
