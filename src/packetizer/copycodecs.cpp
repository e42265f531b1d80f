#include "packetizer/copycodecs.h"

namespace {

struct CodecAlias {
    uint32_t alias;
    uint32_t canonical;
};

// Codes copy mode accepts, each with the canonical code it is delivered under.
constexpr CodecAlias kCopyCodecs[] = {
    {FourCC("3IV2"), FourCC("mp4v")}, {FourCC("AP41"), FourCC("DIV3")},
    {FourCC("DIV1"), FourCC("mpg4")}, {FourCC("DIV2"), FourCC("DIV2")},
    {FourCC("DIV3"), FourCC("DIV3")}, {FourCC("DIV4"), FourCC("DIV3")},
    {FourCC("DIV7"), FourCC("DIV3")}, {FourCC("DIVX"), FourCC("mp4v")},
    {FourCC("DIVY"), FourCC("DIV3")}, {FourCC("DVSD"), FourCC("dvsl")},
    {FourCC("DX50"), FourCC("mp4v")}, {FourCC("H263"), FourCC("h263")},
    {FourCC("I263"), FourCC("I263")}, {FourCC("JFIF"), FourCC("mjpg")},
    {FourCC("JPEG"), FourCC("jpeg")}, {FourCC("M4S2"), FourCC("mp4v")},
    {FourCC("MJPG"), FourCC("mjpg")}, {FourCC("MP42"), FourCC("DIV2")},
    {FourCC("MP43"), FourCC("DIV3")}, {FourCC("MP4S"), FourCC("mp4v")},
    {FourCC("MPG3"), FourCC("DIV3")}, {FourCC("MPG4"), FourCC("mpg4")},
    {FourCC("U263"), FourCC("h263")}, {FourCC("XVID"), FourCC("mp4v")},
    {FourCC("XVIE"), FourCC("mp4v")}, {FourCC("XviD"), FourCC("mp4v")},
    {FourCC("alaw"), FourCC("alaw")}, {FourCC("araw"), FourCC("araw")},
    {FourCC("div1"), FourCC("mpg4")}, {FourCC("div2"), FourCC("DIV2")},
    {FourCC("div3"), FourCC("DIV3")}, {FourCC("div6"), FourCC("DIV3")},
    {FourCC("divx"), FourCC("mp4v")}, {FourCC("dvhd"), FourCC("dvsl")},
    {FourCC("dvsd"), FourCC("dvsl")}, {FourCC("dvse"), FourCC("dvsl")},
    {FourCC("dvsl"), FourCC("dvsl")}, {FourCC("g726"), FourCC("g726")},
    {FourCC("h263"), FourCC("h263")}, {FourCC("i263"), FourCC("I263")},
    {FourCC("i264"), FourCC("h264")}, {FourCC("jpeg"), FourCC("jpeg")},
    {FourCC("m4s2"), FourCC("mp4v")}, {FourCC("mjpa"), FourCC("mjpg")},
    {FourCC("mjpb"), FourCC("mjpb")}, {FourCC("mjpg"), FourCC("mjpg")},
    {FourCC("mp1v"), FourCC("mpgv")}, {FourCC("mp2v"), FourCC("mpgv")},
    {FourCC("mp42"), FourCC("DIV2")}, {FourCC("mp43"), FourCC("DIV3")},
    {FourCC("mp4s"), FourCC("mp4v")}, {FourCC("mp4t"), FourCC("mp4v")},
    {FourCC("mp4v"), FourCC("mp4v")}, {FourCC("mpg1"), FourCC("mpgv")},
    {FourCC("mpg3"), FourCC("DIV3")}, {FourCC("mpg4"), FourCC("mpg4")},
    {FourCC("mpgv"), FourCC("mpgv")}, {FourCC("s16b"), FourCC("s16b")},
    {FourCC("s16l"), FourCC("s16l")}, {FourCC("s24b"), FourCC("s24b")},
    {FourCC("s24l"), FourCC("s24l")}, {FourCC("s32b"), FourCC("s32b")},
    {FourCC("s32l"), FourCC("s32l")}, {FourCC("s8  "), FourCC("s8  ")},
    {FourCC("sowt"), FourCC("s16l")}, {FourCC("twos"), FourCC("s16b")},
    {FourCC("u263"), FourCC("h263")}, {FourCC("u8  "), FourCC("u8  ")},
    {FourCC("ulaw"), FourCC("ulaw")}, {FourCC("xvid"), FourCC("mp4v")},
};

}  // namespace

uint32_t CanonicalCopyCodec(const ESFormat& fmt) {
    uint32_t canonical = 0;
    for (const CodecAlias& c : kCopyCodecs)
        if (c.alias == fmt.i_codec)
            canonical = c.canonical;
    if (canonical != FourCC("araw"))
        return canonical;
    switch ((fmt.audio.i_bitspersample + 7) / 8) {
        case 1:
            return FourCC("u8  ");
        case 2:
            return FourCC("s16l");
        case 3:
            return FourCC("s24l");
        case 4:
            return FourCC("s32l");
        default:
            return 0;
    }
}
