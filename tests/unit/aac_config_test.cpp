// The audio date arithmetic and the readers of AudioSpecificConfig and StreamMuxConfig.
#include <gtest/gtest.h>

#include "aac_test_streams.h"
#include "packetizer/latmconfig.h"
#include "packetizer/mpeg4audioconfig.h"

using aactest::BitWriter;

namespace {

TEST(AudioDate, StepsCarryTheRemainderWithoutDrift) {
    struct Case {
        uint32_t rate, samples;
    } cases[] = {{48000, 1024}, {44100, 1024}, {22050, 960}, {8000, 1024}, {7350, 1024}};
    for (const Case& c : cases) {
        audio_date_t d;
        aout_DateInit(&d, c.rate);
        aout_DateSet(&d, 1000);
        for (int64_t k = 1; k <= 10000; ++k)
            ASSERT_EQ(aout_DateIncrement(&d, c.samples), 1000 + k * c.samples * 1000000 / c.rate)
                << c.rate << " Hz, frame " << k;
    }
}

// Reads an AudioSpecificConfig from written bits followed by zero padding.
int ReadAsc(const std::string& bits, mpeg4_cfg_t* cfg, int maxBits = -1, int* end = nullptr) {
    std::string padded = bits + std::string(8, '\0');
    BIT_STREAM s;
    BitStreamInit(&s, padded.data(), int(padded.size()));
    int r = Mpeg4ReadAudioSpecificInfo(cfg, &s, maxBits);
    if (end)
        *end = BitStreamPos(&s);
    return r;
}

TEST(AudioSpecificConfig, CommonLayouts) {
    struct Case {
        const char* name;
        std::string bytes;
        int bits, objectType, rate, channels, frameLength;
    } cases[] = {
        {"LC 48k stereo", aactest::Asc(2, 3, 2), 16, 2, 48000, 2, 1024},
        {"LC 44.1k mono 960", aactest::Asc(2, 4, 1, true), 16, 2, 44100, 1, 960},
        {"explicit rate", aactest::Asc(2, 15, 1, false, 12345), 40, 2, 12345, 1, 1024},
        {"LD 512", aactest::Asc(23, 3, 1), 18, 23, 48000, 1, 512},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        mpeg4_cfg_t cfg;
        EXPECT_EQ(ReadAsc(c.bytes, &cfg), c.bits);
        EXPECT_EQ(cfg.i_object_type, c.objectType);
        EXPECT_EQ(cfg.i_samplerate, c.rate);
        EXPECT_EQ(cfg.i_channel, c.channels);
        EXPECT_EQ(cfg.i_frame_length, c.frameLength);
        EXPECT_EQ(cfg.i_extra, (c.bits + 7) / 8);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(cfg.p_extra), size_t(cfg.i_extra)),
                  (c.bytes + std::string(4, '\0')).substr(0, size_t(cfg.i_extra)));
    }
}

TEST(AudioSpecificConfig, ObjectTypeEscapeAndExplicitSbr) {
    // HE-AAC with hierarchical signalling: SBR at 48 kHz over an LC core at 24 kHz.
    BitWriter w;
    w.u(5, 5);
    w.u(4, 6);  // 24000
    w.u(4, 2);
    w.u(4, 3);  // extension 48000
    w.u(5, 2);
    w.u(3, 0);
    mpeg4_cfg_t cfg;
    EXPECT_EQ(ReadAsc(w.str(), &cfg), 25);
    EXPECT_EQ(cfg.i_object_type, 2);
    EXPECT_EQ(cfg.i_sbr, 1);
    EXPECT_EQ(cfg.i_extension_samplerate, 48000);
    EXPECT_EQ(cfg.i_samplerate, 24000);

    BitWriter esc;
    esc.u(5, 31);
    esc.u(6, 4);  // 36: ALS, whose configuration is not walked
    esc.u(4, 3);
    esc.u(4, 2);
    BIT_STREAM s;
    std::string padded = esc.str() + std::string(8, '\0');
    BitStreamInit(&s, padded.data(), int(padded.size()));
    EXPECT_EQ(Mpeg4ReadAudioObjectType(&s), 36);
    EXPECT_EQ(ReadAsc(esc.str(), &cfg), -1);
}

TEST(AudioSpecificConfig, BackwardCompatibleSbrOnlyWithAKnownLength) {
    // What an encoder puts in an MP4: LC 48k stereo, then the 0x2b7 extension saying no SBR.
    const std::string bytes = "\x11\x90\x56\xE5\x00";
    mpeg4_cfg_t cfg;
    EXPECT_EQ(ReadAsc(bytes, &cfg, 40), 33);
    EXPECT_EQ(cfg.i_sbr, 0);
    EXPECT_EQ(ReadAsc(bytes, &cfg, -1), 16) << "no length, nothing looked for";
    EXPECT_EQ(cfg.i_sbr, -1);
    EXPECT_EQ(ReadAsc(std::string("\x11\x90\x12\x34", 4), &cfg, 32), 16)
        << "bits that are not the extension are padding";
}

TEST(AudioSpecificConfig, ProgramConfigElementCountsChannels) {
    BitWriter w;
    w.u(5, 2);
    w.u(4, 3);
    w.u(4, 0);  // channel layout in a program config element
    w.u(3, 0);  // GA flags
    w.u(4 + 2 + 4, 0);
    w.u(4, 2);  // front: one pair, one single
    w.u(4, 0);
    w.u(4, 1);  // back: one pair
    w.u(2, 1);  // one LFE
    w.u(3, 0);
    w.u(4, 0);
    w.u(3, 0);  // no mixdowns
    w.u(5, 0x10);
    w.u(5, 0x01);
    w.u(5, 0x12);
    w.u(4, 0);
    w.align();  // relative to the start of the configuration
    w.u(8, 3);
    w.bytes("abc");
    mpeg4_cfg_t cfg;
    EXPECT_EQ(ReadAsc(w.str(), &cfg), int(w.pos()));
    EXPECT_EQ(cfg.i_channel, 6);
}

// Reads the StreamMuxConfig of an element built by the test writer.
int ReadMux(const aactest::Latm& l, latm_mux_t* mux) {
    std::string frame = aactest::LoasFrame({aactest::Payload(10)}, l).substr(3);
    frame += std::string(8, '\0');
    BIT_STREAM s;
    BitStreamInit(&s, frame.data(), int(frame.size()));
    BitStreamRead1(&s);  // useSameStreamMux
    return LatmReadStreamMuxConfiguration(mux, &s);
}

TEST(StreamMuxConfig, RefusesWhatCannotBeRead) {
    aactest::Latm versionA;
    versionA.version = 1;
    versionA.versionA = 1;
    aactest::Latm reserved;
    reserved.frameLengthType = 2;
    aactest::Latm celpConfig;
    celpConfig.objectType = 8;
    aactest::Latm shortAscLen;  // version 1 whose ascLen is less than its config
    shortAscLen.version = 1;
    shortAscLen.ascFillBits = -8;
    const std::pair<const char*, aactest::Latm> cases[] = {
        {"audioMuxVersionA 1", versionA},
        {"reserved frame length type", reserved},
        {"CELP config", celpConfig},
        {"ascLen shorter than the config", shortAscLen}};
    for (const auto& [what, l] : cases) {
        latm_mux_t mux;
        EXPECT_EQ(ReadMux(l, &mux), -1) << what;
    }
}

TEST(StreamMuxConfig, LatmGetValueTakesOneToFourBytes) {
    for (uint32_t v : {0u, 0xFFu, 0x100u, 0x123456u, 0xFEDCBA98u}) {
        BitWriter w;
        aactest::PutLatmValue(w, v);
        std::string bytes = w.str() + std::string(4, '\0');
        BIT_STREAM s;
        BitStreamInit(&s, bytes.data(), int(bytes.size()));
        EXPECT_EQ(LatmGetValue(&s), v);
    }
}

}  // namespace
