#include "core/esformat.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace {

TEST(ESFormat, CopyDuplicatesExtraData) {
    ESFormat src;
    src.i_cat = VIDEO_ES;
    src.i_codec = kCodecH264;
    src.video.i_width = 1920;
    src.llLastPTS = 42;
    src.strDescription = "H264";
    ASSERT_TRUE(src.SetExtra("\x00\x00\x00\x01\x67", 5));

    ESFormat dst;
    dst.SetExtra("old", 3);
    dst = src;
    EXPECT_EQ(dst.i_codec, kCodecH264);
    EXPECT_EQ(dst.video.i_width, 1920u);
    EXPECT_EQ(dst.llLastPTS, 42);
    EXPECT_EQ(dst.strDescription, "H264");
    ASSERT_EQ(dst.i_extra, 5);
    EXPECT_NE(dst.p_extra, src.p_extra);
    EXPECT_EQ(0, memcmp(dst.p_extra, src.p_extra, 5));

    ESFormat constructed(src);
    EXPECT_NE(constructed.p_extra, src.p_extra);
    constructed = constructed;  // self-assignment keeps the bytes
    EXPECT_EQ(constructed.i_extra, 5);
}

TEST(ESFormat, BrokenExtraCountsGiveEmptyCopies) {
    ESFormat countWithoutBytes;
    countWithoutBytes.i_extra = 5;  // no pointer behind the count
    ESFormat fresh;
    fresh = countWithoutBytes;
    EXPECT_EQ(fresh.i_extra, 0);
    EXPECT_EQ(fresh.p_extra, nullptr);

    ESFormat negative;
    negative.i_extra = -3;
    negative.p_extra = static_cast<uint8_t*>(malloc(4));
    ESFormat other;
    other.SetExtra("abcd", 4);
    other = negative;
    EXPECT_EQ(other.i_extra, 0);
    EXPECT_EQ(other.p_extra, nullptr);
}

TEST(ESFormat, ResetFreesExtraAndSetsCategory) {
    ESFormat f;
    f.SetExtra("ab", 2);
    f.video.i_height = 5;
    f.strDescription = "x";
    f.Reset(AUDIO_ES, kCodecMp4a);
    EXPECT_EQ(f.i_cat, AUDIO_ES);
    EXPECT_EQ(f.i_codec, kCodecMp4a);
    EXPECT_EQ(f.i_extra, 0);
    EXPECT_EQ(f.p_extra, nullptr);
    EXPECT_EQ(f.video.i_height, 0u);
    EXPECT_TRUE(f.strDescription.empty());
}

TEST(Codec, FourCCIsBigEndianAndGetCodecPrintsLowByteFirst) {
    EXPECT_EQ(FourCC("h264"), 0x68323634u);
    EXPECT_EQ(FourCC("mp4a"), 0x6D703461u);
    EXPECT_EQ(GetCodec(0x68323634), "462h");
    EXPECT_EQ(GetCodec(0), "");
}

TEST(Codec, HostTypeNumbering) {
    struct Case {
        uint32_t codec;
        int video;
        int audio;
    } cases[] = {
        {FourCC("MJPG"), 1, 0}, {FourCC("mjpg"), 0, 0}, {FourCC("mp4v"), 2, 0},
        {FourCC("avc1"), 3, 0}, {FourCC("MXPG"), 5, 0}, {FourCC("hev1"), 6, 0},
        {FourCC("s16b"), 0, 1}, {FourCC("ulaw"), 0, 2}, {FourCC("g726"), 0, 3},
        {FourCC("mpga"), 0, 4}, {FourCC("sawb"), 0, 5}, {0, 0, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Codec2VideoType(static_cast<int>(c.codec)), c.video) << GetCodec(c.codec);
        EXPECT_EQ(Codec2AudioType(static_cast<int>(c.codec)), c.audio) << GetCodec(c.codec);
    }
}

}  // namespace
