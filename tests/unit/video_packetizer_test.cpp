// Set-up of the video packetizer: which syntax a codec selects, what an uninitialised one
// does, and what a second set-up releases.
#include <gtest/gtest.h>

#include "video_harness.h"

namespace {

TEST(VideoPacketizer, CodecSelectsTheSyntax) {
    struct Case {
        uint32_t codec;
        std::string extra;
        int result;
        VIDEO_PACKET_TYPE type;
    };
    const std::string sevenBytes = nal::Bytes({1, 0x64, 0, 0x1f, 0xff, 0xe1, 0});
    const std::vector<Case> cases = {
        {FourCC("XVID"), "", 0, VIDEO_PACKET_MPEG4},
        {0x04000000, "", 0, VIDEO_PACKET_MPEG4},
        {FourCC("DAVC"), "", 0, VIDEO_PACKET_H264},
        {FourCC("avc1"), sevenBytes, 0, VIDEO_PACKET_H264},
        {FourCC("avc1"), sevenBytes.substr(0, 6), -1, VIDEO_PACKET_NONE},
        {FourCC("hevc"), "", 0, VIDEO_PACKET_HEVC},
        {FourCC("hev1"), "", -1, VIDEO_PACKET_NONE},
        {FourCC("mjpg"), "", -1, VIDEO_PACKET_NONE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(GetCodec(c.codec));
        VideoHarness h(c.codec, 0, c.extra);
        EXPECT_EQ(h.init, c.result);
        EXPECT_EQ(h.packetizer.GetType(), c.type);
        if (c.type == VIDEO_PACKET_H264) {
            EXPECT_EQ(h.stream.fmt.i_codec, kCodecH264) << "every H.264 alias leaves as h264";
        }
    }
}

TEST(VideoPacketizer, WithoutSetUpEveryBlockIsReleased) {
    Mpeg4VideoPacketizer p(0);
    PACK_STREAM s;
    MediaBlock* b = VideoHarness::Block(nal::kStart4 + nal::Aud(), 1);
    b->SetTimestamp(5);
    MediaBlock* local = b;
    EXPECT_EQ(p.Packetize(&s, &local), nullptr);
    EXPECT_EQ(local, nullptr);
    EXPECT_EQ(p.Packetize(&s, nullptr), nullptr);
    p.FreePacket(&s);
}

TEST(VideoPacketizer, OutputCarriesTheLastArrivalTime) {
    VideoHarness h(kCodecH264);
    const std::string sps = nal::Sps(nal::H264Sps{});
    const std::string pps = nal::Pps(nal::H264Pps{});
    nal::H264Slice idr;
    idr.nalType = 5;
    idr.sliceType = 7;
    nal::H264Slice p;
    p.frameNum = 1;
    p.pocLsb = 2;
    long long arrival = 1000;
    for (const std::string& unit :
         {sps, pps, nal::Slice(idr, nal::H264Sps{}), nal::Slice(p, nal::H264Sps{}), nal::Aud()}) {
        MediaBlock* b = VideoHarness::Block(nal::kStart4 + unit, 0);
        b->SetTimestamp(arrival += 10);
        h.Push(b);
    }
    MediaBlock* zero = VideoHarness::Block(nal::kStart4 + nal::Aud(), 0);
    h.Push(zero);  // an arrival time of 0 is not one
    // The I picture leaves while the AUD arrives; the P picture while the last block does.
    ASSERT_EQ(h.out.size(), 2u);
    EXPECT_EQ(h.out[0]->GetTimestamp(), 1050);
    EXPECT_EQ(h.out[1]->GetTimestamp(), 1050);
}

TEST(VideoPacketizer, InitPacketAgainStartsOverFromTheFormat) {
    VideoHarness h(kCodecH264);
    h.Nal(nal::Sps(nal::H264Sps{}));
    h.Nal(nal::Pps(nal::H264Pps{}));
    nal::H264Slice idr;
    idr.nalType = 5;
    idr.sliceType = 7;
    h.Nal(nal::Slice(idr, nal::H264Sps{}));
    h.Nal(nal::Aud());
    ASSERT_NE(h.stream.frame, nullptr);
    ASSERT_GT(h.stream.fmt.i_extra, 0);
    // What the record held is released (ASan checks); the parameter sets come back from
    // the extra data the first run put into the format.
    EXPECT_EQ(h.packetizer.InitPacket(&h.stream), 0);
    EXPECT_EQ(h.stream.frame, nullptr);
    EXPECT_EQ(h.stream.bytestream.p_chain, nullptr);
    EXPECT_FALSE(h.stream.headerSent);
    EXPECT_NE(h.stream.sps[0], nullptr);
    EXPECT_NE(h.stream.pps[0], nullptr);
}

}  // namespace
