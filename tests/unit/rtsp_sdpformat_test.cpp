#include "rtsp/sdpformat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "log_capture.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string Base64(const Bytes& bytes) {
    static const char* kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t n = std::min<size_t>(bytes.size() - i, 3);
        uint32_t v = 0;
        for (size_t k = 0; k < 3; ++k)
            v = v << 8 | (k < n ? bytes[i + k] : 0);
        for (size_t k = 0; k < 4; ++k)
            out += k <= n ? kAlphabet[(v >> (18 - 6 * k)) & 63] : '=';
    }
    return out;
}

// An H.264 SPS head of the given profile (enough bytes for the mapping; not decodable).
Bytes Sps(uint8_t profile) {
    return {0x67, profile, 0xC0, 0x1E, 0xD9, 0x03, 0xC5, 0x68};
}
const Bytes kPps = {0x68, 0xCE, 0x3C, 0x80};
const Bytes kVps = {0x40, 0x01, 0x0C, 0x01, 0xFF};
const Bytes kHevcSps = {0x42, 0x01, 0x01, 0x01, 0x60};
const Bytes kHevcPps = {0x44, 0x01, 0xC1, 0x72};

Bytes AnnexB(std::initializer_list<Bytes> nals) {
    Bytes out;
    for (const Bytes& n : nals) {
        out.insert(out.end(), {0, 0, 0, 1});
        out.insert(out.end(), n.begin(), n.end());
    }
    return out;
}

Bytes Extra(const ESFormat& fmt) {
    if (fmt.i_extra <= 0 || !fmt.p_extra)
        return {};
    return Bytes(fmt.p_extra, fmt.p_extra + fmt.i_extra);
}

SdpMediaDesc Video(const std::string& codec) {
    SdpMediaDesc d;
    d.medium = "video";
    d.codec = codec;
    d.rtpFrequency = 90000;
    return d;
}

SdpMediaDesc Audio(const std::string& codec, unsigned rate, unsigned channels = 1) {
    SdpMediaDesc d;
    d.medium = "audio";
    d.codec = codec;
    d.rtpFrequency = rate;
    d.channels = channels;
    return d;
}

TEST(SdpBase64, DecodesStrictlyAndRejectsForeignBytes) {
    struct Case {
        const char* text;
        bool ok;
        Bytes bytes;
    };
    const Case cases[] = {
        {"", true, {}},
        {"YWI=", true, {'a', 'b'}},
        {"YWI", true, {'a', 'b'}},
        {"YWJj", true, {'a', 'b', 'c'}},
        {"YQ==", true, {'a'}},
        {"Y W J j", true, {'a', 'b', 'c'}},
        {"Y", false, {}},      // a lone character carries no byte
        {"YWJj=", false, {}},  // padding after a whole quantum
        {"YQ=A", false, {}},   // data after padding
        {"YWI==", false, {}},  // too much padding
        {"Y*Jj", false, {}},   // foreign byte
        {"Z0LAHg\xff", false, {}},
    };
    for (const Case& c : cases) {
        Bytes out;
        EXPECT_EQ(SdpBase64Decode(c.text, out), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(out, c.bytes) << c.text;
        }
    }
}

TEST(SpropToAnnexB, PiecesBecomeStartCodedUnits) {
    struct Case {
        std::string sprop;
        Bytes annexB;
    };
    const Bytes sps = Sps(100);
    Bytes spsWithStartCode = sps;
    spsWithStartCode.insert(spsWithStartCode.end(), {0, 0, 0, 1});
    Bytes ppsWithShortStartCode = kPps;
    ppsWithShortStartCode.insert(ppsWithShortStartCode.end(), {0, 0, 1});
    Bytes annexBInside = {0, 0, 0, 1};
    annexBInside.insert(annexBInside.end(), sps.begin(), sps.end());
    annexBInside.insert(annexBInside.end(), {0, 0, 0, 1, 0, 0, 1});
    annexBInside.insert(annexBInside.end(), kPps.begin(), kPps.end());
    const Case cases[] = {
        {Base64(sps) + "," + Base64(kPps), AnnexB({sps, kPps})},
        {Base64(sps), AnnexB({sps})},
        {"," + Base64(sps) + ",," + Base64(kPps) + ",", AnnexB({sps, kPps})},
        {Base64(spsWithStartCode) + "," + Base64(ppsWithShortStartCode), AnnexB({sps, kPps})},
        {"", {}},
        {",,,", {}},
        {Base64({0, 0, 0, 1}), {}},  // nothing but a start code
        {Base64(annexBInside) + "," + Base64(ppsWithShortStartCode), AnnexB({sps, kPps})},
    };
    for (const Case& c : cases)
        EXPECT_EQ(SpropToAnnexB(c.sprop), c.annexB) << c.sprop;
}

TEST(SpropToAnnexB, BogusPiecesAreSkippedAndLogged) {
    LogCapture log;
    const Bytes sps = Sps(77);
    EXPECT_EQ(SpropToAnnexB("!!notbase64!!," + Base64(sps) + ",Z"), AnnexB({sps}));
    EXPECT_EQ(log.Count("Bad parameter set["), 2);
    EXPECT_TRUE(SpropToAnnexB(std::string(70000, 'A')).empty());
}

TEST(SdpVideoFormat, CodecNamesMapToCodes) {
    struct Case {
        const char* name;
        uint32_t codec;
    };
    const Case cases[] = {
        {"MPV", FourCC("mpgv")},
        {"H263", FourCC("H263")},
        {"H263-1998", FourCC("H263")},
        {"H263-2000", FourCC("H263")},
        {"H261", FourCC("H261")},
        {"H264", kCodecH264},
        {"JPEG", kCodecMjpg},
        {"MP4V-ES", kCodecMp4v},
        {"H265", kCodecHevc},
        {"VP8", 0},
        {"h264", 0},
        {"", 0},
    };
    for (const Case& c : cases) {
        ESFormat fmt;
        fmt.SetExtra("old", 3);
        fmt.i_codec = FourCC("xxxx");
        MapSdpVideoFormat(Video(c.name), false, fmt);
        EXPECT_EQ(fmt.i_cat, VIDEO_ES) << c.name;
        EXPECT_EQ(fmt.i_codec, c.codec) << c.name;
        EXPECT_EQ(fmt.strDescription, c.name);
        EXPECT_EQ(fmt.i_extra, 0) << c.name;
    }
}

TEST(SdpVideoFormat, H264ExtraFromTheParameterSets) {
    auto sprop = [](uint8_t profile) { return Base64(Sps(profile)) + "," + Base64(kPps); };
    struct Case {
        const char* what;
        std::string sprop;
        bool drop;
        Bytes extra;
    };
    const Case cases[] = {
        {"baseline announced as main", sprop(66), false, AnnexB({Sps(77), kPps})},
        {"main", sprop(77), false, AnnexB({Sps(77), kPps})},
        {"high", sprop(100), false, AnnexB({Sps(100), kPps})},
        {"extended", sprop(88), false, AnnexB({Sps(88), kPps})},
        {"no parameter sets", "", false, {}},
        {"dropped", sprop(66), true, {}},
        {"one-byte unit leaves no profile to relabel", Base64({0x67}), false, AnnexB({{0x67}})},
    };
    for (const Case& c : cases) {
        SdpMediaDesc desc = Video("H264");
        desc.spropParameterSets = c.sprop;
        ESFormat fmt;
        MapSdpVideoFormat(desc, c.drop, fmt);
        EXPECT_EQ(fmt.i_codec, kCodecH264) << c.what;
        EXPECT_EQ(Extra(fmt), c.extra) << c.what;
        if (c.extra.empty()) {
            EXPECT_EQ(fmt.p_extra, nullptr) << c.what;
        }
    }
}

TEST(SdpVideoFormat, HevcNeedsAllThreeParameterSets) {
    struct Case {
        bool vps, sps, pps;
    };
    for (Case c : {Case{true, true, true}, Case{false, true, true}, Case{true, false, true},
                   Case{true, true, false}}) {
        SdpMediaDesc desc = Video("H265");
        if (c.vps)
            desc.spropVps = Base64(kVps);
        if (c.sps)
            desc.spropSps = Base64(kHevcSps);
        if (c.pps)
            desc.spropPps = Base64(kHevcPps);
        ESFormat fmt;
        MapSdpVideoFormat(desc, false, fmt);
        EXPECT_EQ(fmt.i_codec, kCodecHevc);
        if (c.vps && c.sps && c.pps) {
            EXPECT_EQ(Extra(fmt), AnnexB({kVps, kHevcSps, kHevcPps}));
        } else {
            EXPECT_EQ(fmt.i_extra, 0);
        }
    }
}

TEST(SdpVideoFormat, Mpeg4ConfigIsHexDecoded) {
    SdpMediaDesc desc = Video("MP4V-ES");
    desc.config = "000001B0F5";
    ESFormat fmt;
    MapSdpVideoFormat(desc, false, fmt);
    EXPECT_EQ(Extra(fmt), (Bytes{0x00, 0x00, 0x01, 0xB0, 0xF5}));

    LogCapture log;
    for (const char* bad : {"zz01", "000", "00 01"}) {
        desc.config = bad;
        MapSdpVideoFormat(desc, false, fmt);
        EXPECT_EQ(fmt.i_codec, kCodecMp4v) << bad;
        EXPECT_EQ(fmt.i_extra, 0) << bad;
    }
    EXPECT_EQ(log.Count("Bad config["), 3);
}

TEST(SdpAudioFormat, CodecNamesMapToCodesAndParameters) {
    struct Case {
        const char* name;
        unsigned rtpRate;
        unsigned channels;
        uint32_t codec;
        uint32_t rate;
        uint32_t outChannels;
        uint32_t bits;
        int bitrate;
        std::string extra;
    };
    const Case cases[] = {
        {"MPA", 90000, 2, kCodecMpga, 0, 2, 0, 0, ""},
        {"MPA-ROBUST", 90000, 2, kCodecMpga, 0, 2, 0, 0, ""},
        {"X-MP3-DRAFT-00", 90000, 1, kCodecMpga, 0, 1, 0, 0, ""},
        {"AC3", 48000, 2, FourCC("a52 "), 48000, 2, 0, 0, ""},
        {"L16", 44100, 2, FourCC("twos"), 44100, 2, 16, 0, ""},
        {"L8", 8000, 1, FourCC("araw"), 8000, 1, 8, 0, ""},
        {"PCMU", 8000, 1, kCodecUlaw, 8000, 1, 0, 0, ""},
        {"PCMA", 8000, 1, kCodecAlaw, 8000, 1, 0, 0, ""},
        {"G726-32", 8000, 2, kCodecG726, 8000, 1, 0, 32000, "32"},
        {"G726-40", 16000, 1, kCodecG726, 8000, 1, 0, 40000, "40"},
        {"G726-24", 8000, 1, kCodecG726, 8000, 1, 0, 24000, "24"},
        {"G726-16", 8000, 1, kCodecG726, 8000, 1, 0, 16000, "16"},
        {"G726-99", 8000, 1, kCodecG726, 8000, 1, 0, 0, "99"},
        {"G726", 8000, 1, kCodecG726, 8000, 1, 0, 0, ""},  // no rate in the name
        {"AMR", 8000, 1, kCodecSamr, 8000, 1, 0, 0, ""},
        {"AMR-WB", 16000, 1, kCodecSawb, 16000, 1, 0, 0, ""},
        {"SPEEX", 16000, 1, FourCC("spxr"), 16000, 1, 0, 0, "16000"},
        {"SPEEX", 0, 1, FourCC("spxr"), 8000, 1, 0, 0, "8000"},
        {"OPUS", 48000, 2, 0, 48000, 2, 0, 0, ""},
    };
    for (const Case& c : cases) {
        ESFormat fmt;
        MapSdpAudioFormat(Audio(c.name, c.rtpRate, c.channels), fmt);
        SCOPED_TRACE(c.name);
        EXPECT_EQ(fmt.i_cat, AUDIO_ES);
        EXPECT_EQ(fmt.i_codec, c.codec);
        EXPECT_EQ(fmt.audio.i_rate, c.rate);
        EXPECT_EQ(fmt.audio.i_channels, c.outChannels);
        EXPECT_EQ(fmt.audio.i_bitspersample, c.bits);
        EXPECT_EQ(fmt.i_bitrate, c.bitrate);
        const Bytes extra = Extra(fmt);
        EXPECT_EQ(std::string(extra.begin(), extra.end()), c.extra);
        EXPECT_EQ(fmt.strDescription, c.name);
    }
}

TEST(SdpAudioFormat, AacConfigurations) {
    SdpMediaDesc generic = Audio("MPEG4-GENERIC", 16000);
    generic.config = "1408";
    ESFormat fmt;
    MapSdpAudioFormat(generic, fmt);
    EXPECT_EQ(fmt.i_codec, kCodecMp4a);
    EXPECT_EQ(Extra(fmt), (Bytes{0x14, 0x08}));

    // StreamMuxConfig: the AudioSpecificConfig is what follows its header bits.
    SdpMediaDesc latm = Audio("MP4A-LATM", 44100, 2);
    latm.config = "40002410";
    MapSdpAudioFormat(latm, fmt);
    EXPECT_EQ(fmt.i_codec, kCodecMp4a);
    ASSERT_GE(fmt.i_extra, 2);
    EXPECT_EQ(fmt.p_extra[0], 0x12);
    EXPECT_EQ(fmt.p_extra[1], 0x08);

    LogCapture log;
    latm.config = "not hex";
    MapSdpAudioFormat(latm, fmt);
    EXPECT_EQ(fmt.i_extra, 0);
    generic.config = "12345";
    MapSdpAudioFormat(generic, fmt);
    EXPECT_EQ(fmt.i_extra, 0);
    EXPECT_EQ(log.Count("Bad config["), 2);
    generic.config = "";
    MapSdpAudioFormat(generic, fmt);
    EXPECT_EQ(fmt.i_extra, 0);
}

}  // namespace
