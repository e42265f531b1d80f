// The audio packetizer's set-up, copy mode, raw frames and ADTS streams, hostile input
// included. LOAS/LATM streams are in aac_loas_test.cpp.
#include <gtest/gtest.h>

#include <random>

#include "aac_test_streams.h"
#include "log_capture.h"
#include "packetizer/mpeg4audioconfig.h"

using aactest::AdtsFrame;
using aactest::Driver;
using aactest::Payload;

namespace {

constexpr long long kT0 = 1'000'000'000;

// Frame k of a 48 kHz stream of 1024-sample frames starting at kT0.
long long At48k(long long k) {
    return kT0 + k * 1024 * 1000000 / 48000;
}

TEST(AudioPacketizerInit, ConfigFromExtraData) {
    struct Case {
        const char* name;
        std::string extra;
        int givenRate, result, mode, rate, channels, frameLength;
    } cases[] = {
        {"LC 48k stereo", aactest::Asc(2, 3, 2), 0, 0, 1, 48000, 2, 1024},
        {"960-sample frames", aactest::Asc(2, 6, 2, true), 0, 0, 1, 24000, 2, 960},
        {"encoder config with extension", std::string("\x11\x90\x56\xE5\x00", 5), 0, 0, 1, 48000, 2,
         1024},
        {"one byte", std::string("\x11"), 0, -1, 0, 0, 0, 0},
        {"reserved rate index", aactest::Asc(2, 13, 2), 0, -1, 0, 0, 0, 0},
        {"explicit rate cut short", aactest::Asc(2, 15, 1, false, 12345).substr(0, 4), 0, -1, 0, 0,
         0, 0},
        {"explicit rate of zero", aactest::Asc(2, 15, 1, false, 0), 0, -1, 0, 0, 0, 0},
        {"no extra data", "", 0, 0, 2, 0, 0, 0},
        {"no extra data: dates at the rate given", "", 44100, 0, 2, 44100, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        Driver d(kCodecMp4a, c.extra, c.givenRate);
        EXPECT_EQ(d.initResult, c.result);
        EXPECT_EQ(d.packetizer.GetType(), c.mode);
        EXPECT_EQ(log.Count("Unusable AAC config"), c.result ? 1 : 0);
        if (c.result)
            continue;
        EXPECT_EQ(d.stream.streamKind, c.mode == 1 ? 1 : 0);
        EXPECT_EQ(int(d.stream.fmt.audio.i_rate), c.rate);
        EXPECT_EQ(int(d.stream.fmt.audio.i_channels), c.channels);
        EXPECT_EQ(int(d.stream.fmt.audio.i_frame_length), c.frameLength);
        EXPECT_EQ(int(d.stream.endDate.i_rate), c.rate);
    }
    Mpeg4AudioPacketizer p;
    EXPECT_EQ(p.InitPacket(nullptr), -1);
}

TEST(AudioPacketizerInit, CopyModeCanonicalCodes) {
    struct Case {
        uint32_t codec;
        int bits;
        uint32_t canonical;  // 0: refused
    } cases[] = {
        {FourCC("XviD"), 0, FourCC("mp4v")},
        {FourCC("MP43"), 0, FourCC("DIV3")},
        {FourCC("sowt"), 0, FourCC("s16l")},
        {FourCC("alaw"), 0, FourCC("alaw")},
        {FourCC("araw"), 8, FourCC("u8  ")},
        {FourCC("araw"), 12, FourCC("s16l")},
        {FourCC("araw"), 24, FourCC("s24l")},
        {FourCC("araw"), 32, FourCC("s32l")},
        {FourCC("araw"), 0, 0},
        {FourCC("araw"), 40, 0},
        {FourCC("mpga"), 0, 0},
        {FourCC("MXPG"), 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(GetCodec(c.codec) + " " + std::to_string(c.bits));
        LogCapture log;
        Mpeg4AudioPacketizer p;
        PACK_STREAM s;
        s.fmt.Reset(AUDIO_ES, c.codec);
        s.fmt.audio.i_bitspersample = uint32_t(c.bits);
        const int r = p.InitPacket(&s);
        if (!c.canonical) {
            EXPECT_EQ(r, -1);
            EXPECT_EQ(log.Count("Unsupported audio codec"), 1);
            continue;
        }
        EXPECT_EQ(r, 0);
        EXPECT_EQ(p.GetType(), Mpeg4AudioPacketizer::kModeCopy);
        EXPECT_EQ(GetCodec(s.fmt.i_codec), GetCodec(c.canonical));
        p.FreePacket(&s);
    }
}

TEST(AudioPacketizerCopy, HoldsOneBlockBackAndGivesItsLength) {
    Driver d(kCodecAlaw);
    ASSERT_EQ(d.initResult, 0);
    EXPECT_EQ(d.Feed("a", 1000, 0, 77), 0u) << "the first block is held";
    EXPECT_EQ(d.Feed("b", 1040, 0, 78), 1u);
    EXPECT_EQ(d.Feed("x", 0), 0u) << "no time at all: released";
    EXPECT_EQ(d.Feed("y", 2000, BLOCK_FLAG_DISCONTINUITY), 0u) << "flagged: released";
    EXPECT_EQ(d.Feed("z", 3000, BLOCK_FLAG_CORRUPTED), 0u);
    EXPECT_EQ(d.Feed("c", 1020, 0, 0, 0), 1u) << "a DTS below 1 takes the PTS";
    EXPECT_EQ(d.Feed("d", 1100), 1u);
    ASSERT_EQ(d.out.size(), 3u);
    EXPECT_EQ(d.out[0].bytes, "a");
    EXPECT_EQ(d.out[0].length, 40);
    EXPECT_EQ(d.out[0].timestamp, 78) << "stamped with the latest arrival time";
    EXPECT_EQ(d.out[1].bytes, "b");
    EXPECT_EQ(d.out[1].length, 0) << "a later block that is not later in time gives no length";
    EXPECT_EQ(d.out[2].bytes, "c");
    EXPECT_EQ(d.out[2].dts, 1020);
    EXPECT_EQ(d.out[2].length, 80);
    ASSERT_NE(d.stream.pendingBlock, nullptr) << "the last block stays until FreePacket";
}

TEST(AudioPacketizerRaw, ATimeOfItsOwnOrAResetRestartsTheCount) {
    Driver d(kCodecMp4a, aactest::Asc(2, 3, 1, true));  // 960-sample frames
    EXPECT_EQ(d.Feed("f0", 0), 0u) << "no starting time: released";
    d.Feed("a", kT0, 0, 5);
    d.Feed("b", kT0 + 20000);  // agrees with the count: kept
    d.Feed("c", kT0 + 500000);
    d.Feed("d", 0);
    EXPECT_EQ(d.Feed("r", 0, BLOCK_FLAG_DISCONTINUITY), 0u);
    EXPECT_EQ(d.Feed("e", 0), 0u) << "after a reset a starting time is needed again";
    d.Feed("f", 7000);
    ASSERT_EQ(d.out.size(), 5u);
    EXPECT_EQ(d.out[0].pts, kT0);
    EXPECT_EQ(d.out[0].length, 20000);
    EXPECT_EQ(d.out[0].timestamp, 5) << "stamped with the arrival time";
    EXPECT_EQ(d.out[1].pts, kT0 + 20000);
    EXPECT_EQ(d.out[2].pts, kT0 + 500000);
    EXPECT_EQ(d.out[3].pts, kT0 + 520000);
    EXPECT_EQ(d.out[4].pts, 7000);
}

// Frames of distinct payloads at 48 kHz stereo.
std::vector<std::string> Payloads(int n, size_t size = 200) {
    std::vector<std::string> p;
    for (int i = 0; i < n; ++i)
        p.push_back(Payload(size + size_t(i), i));
    return p;
}

std::string Join(const std::vector<std::string>& payloads, const aactest::Adts& a = {}) {
    std::string s;
    for (const auto& p : payloads)
        s += AdtsFrame(p, a);
    return s;
}

TEST(AudioPacketizerAdts, AFrameWaitsForTheNextSyncWord) {
    Driver d;
    const auto p = Payloads(3);
    EXPECT_EQ(d.Feed(AdtsFrame(p[0]), kT0), 0u);
    EXPECT_EQ(d.Feed(AdtsFrame(p[1]).substr(0, 1), 0), 0u) << "half a sync word";
    EXPECT_EQ(d.Feed(AdtsFrame(p[1]).substr(1), 0), 1u);
    EXPECT_EQ(d.Feed(AdtsFrame(p[2]), 0), 1u);
    ASSERT_EQ(d.out.size(), 2u);
    EXPECT_EQ(d.out[0].bytes, p[0]);
    EXPECT_EQ(d.out[1].bytes, p[1]);
    EXPECT_EQ(d.out[1].pts, At48k(1));
    EXPECT_EQ(d.stream.fmt.audio.i_bytes_per_frame, p[1].size());
}

TEST(AudioPacketizerAdts, HeadersWithAndWithoutCrcAcrossRatesAndLayouts) {
    struct Case {
        int index, channels, profile;
        bool crc;
    } cases[] = {{3, 2, 1, false}, {4, 1, 1, true}, {8, 1, 0, false}, {11, 6, 3, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.index);
        aactest::Adts a;
        a.index = c.index;
        a.channels = c.channels;
        a.profile = c.profile;
        a.crc = c.crc;
        const auto p = Payloads(20);
        Driver d;
        d.FeedInPieces(Join(p, a) + "\xFF\xF1", 97, kT0);
        ASSERT_EQ(d.out.size(), p.size());
        const int rate = Mpeg4SamplerateOfIndex(c.index);
        for (size_t k = 0; k < p.size(); ++k) {
            ASSERT_EQ(d.out[k].bytes, p[k]);
            ASSERT_EQ(d.out[k].pts, kT0 + long(k) * 1024 * 1000000 / rate);
        }
        EXPECT_EQ(d.Extra(), aactest::Asc(c.profile + 1, c.index, c.channels).substr(0, 2));
        EXPECT_EQ(int(d.stream.fmt.audio.i_rate), rate);
    }
}

TEST(AudioPacketizerAdts, BlockTimesApplyToTheFirstFrameStartingInThem) {
    Driver d;
    const auto p = Payloads(4);
    d.Feed(AdtsFrame(p[0]) + AdtsFrame(p[1]), kT0);
    d.Feed(AdtsFrame(p[2]), kT0 + 100000);  // the camera says so: the date follows
    d.Feed(AdtsFrame(p[3]) + "\xFF\xF1", At48k(1) + 100000);
    ASSERT_EQ(d.out.size(), 4u);
    EXPECT_EQ(d.out[0].pts, kT0);
    EXPECT_EQ(d.out[1].pts, At48k(1)) << "second frame of the block: counted";
    EXPECT_EQ(d.out[2].pts, kT0 + 100000);
    EXPECT_EQ(d.out[3].pts, At48k(1) + 100000);
    EXPECT_EQ(d.out[2].length, 21333);
}

TEST(AudioPacketizerAdts, RateChangeRestartsTheDate) {
    Driver d;
    aactest::Adts a16k;
    a16k.index = 8;
    a16k.channels = 1;
    d.Feed(Join(Payloads(3)) + Join(Payloads(3), a16k) + "\xFF\xF1", kT0);
    ASSERT_EQ(d.out.size(), 6u);
    EXPECT_EQ(d.out[3].pts, At48k(3)) << "no time of its own: continues";
    EXPECT_EQ(d.out[4].pts - d.out[3].pts, 64000);
    EXPECT_EQ(d.stream.fmt.audio.i_rate, 16000u);
    EXPECT_EQ(d.stream.fmt.audio.i_channels, 1u);
}

TEST(AudioPacketizerAdts, ResetBlocks) {
    Driver d;
    const auto p = Payloads(4);
    d.Feed(AdtsFrame(p[0]), kT0);
    EXPECT_EQ(d.Feed("", 0, BLOCK_FLAG_DISCONTINUITY), 0u);
    EXPECT_EQ(d.Feed(AdtsFrame(p[1]), 0), 0u) << "no date and no time: dropped";
    EXPECT_EQ(d.Feed(AdtsFrame(p[1]), 5000), 1u) << "pending bytes kept over a discontinuity";
    EXPECT_EQ(d.out[0].bytes, p[0]);
    EXPECT_EQ(d.out[0].pts, kT0) << "dated when its sync was found";

    EXPECT_EQ(d.Feed("", 0, BLOCK_FLAG_CORRUPTED), 0u);
    EXPECT_EQ(d.stream.audioBytestream.p_chain, nullptr) << "pending bytes dropped";
    EXPECT_EQ(d.Feed(AdtsFrame(p[2]) + AdtsFrame(p[3]), 9000), 1u);
    EXPECT_EQ(d.out[1].bytes, p[2]);
    EXPECT_EQ(d.out[1].pts, 9000);
}

// A frame counts as found only when the next sync word stands where its length says: one
// followed by garbage is taken for a false sync, like any other.
TEST(AudioPacketizerAdts, AFrameFollowedByGarbageIsNotConfirmed) {
    const auto p = Payloads(3);
    Driver d;
    d.Feed(AdtsFrame(p[0]) + "garbage" + AdtsFrame(p[1]) + AdtsFrame(p[2]) + "\xFF\xF1", kT0);
    ASSERT_EQ(d.out.size(), 2u);
    EXPECT_EQ(d.out[0].bytes, p[1]);
    EXPECT_EQ(d.out[1].bytes, p[2]);
}

// Streams of good frames with junk of every kind between them (each piece of junk begins
// with a sync word, so the frame before it is confirmed): every good frame comes out,
// intact, in order and dated by the sample count, and the junk costs a resync log line.
TEST(AudioPacketizerAdts, ResynchronisesOverHostileBytes) {
    aactest::Adts multi;
    multi.rawBlocks = 1;
    aactest::Adts zero;
    zero.lengthOverride = 0;
    aactest::Adts shortLen;
    shortLen.lengthOverride = 5;  // less than its own header
    aactest::Adts rate15;
    rate15.index = 15;
    aactest::Adts rate13;
    rate13.index = 13;
    aactest::Adts noChannels;
    noChannels.channels = 0;
    const std::string junk[] = {
        "\xFF\xF1garbage bytes",
        AdtsFrame(Payload(100), multi),
        AdtsFrame(Payload(10), zero),
        AdtsFrame(Payload(10), shortLen),
        AdtsFrame(Payload(50), rate15),
        AdtsFrame(Payload(50), rate13),
        AdtsFrame(Payload(50), noChannels),
        "\xFF\xF1\xFF\xF1\xFF",
    };
    const auto p = Payloads(int(std::size(junk)) + 1, 150);
    std::string stream;
    for (size_t k = 0; k < p.size(); ++k) {
        stream += AdtsFrame(p[k]);
        if (k < std::size(junk))
            stream += junk[k];
    }
    stream += "\xFF\xF1";
    for (size_t piece : {size_t(1), size_t(7), size_t(500), stream.size()}) {
        SCOPED_TRACE(piece);
        LogCapture log;
        Driver d;
        if (piece == 1) {
            // Byte by byte: the first two bytes carry the time the sync word needs.
            for (size_t i = 0; i < stream.size(); ++i)
                d.Feed(stream.substr(i, 1), i < 2 ? kT0 : 0);
        } else {
            d.FeedInPieces(stream, piece, kT0);
        }
        ASSERT_EQ(d.out.size(), p.size());
        for (size_t k = 0; k < p.size(); ++k) {
            ASSERT_EQ(d.out[k].bytes, p[k]) << k;
            ASSERT_EQ(d.out[k].pts, At48k(long(k))) << k;
        }
        EXPECT_EQ(d.Extra(), aactest::Asc(2, 3, 2)) << "false headers leave no config behind";
        EXPECT_GE(log.Count("ADTS sync found after skipping"), int(std::size(junk)));
    }
}

// A header whose length points into the middle of later frames holds the search until that
// much data is there; then the search slides on and the frames behind it still come out.
TEST(AudioPacketizerAdts, AFalseLengthDelaysButLosesNothing) {
    aactest::Adts tooLong;
    tooLong.lengthOverride = 8000;
    const auto p = Payloads(60, 150);
    std::string stream = AdtsFrame(p[0]) + AdtsFrame(Payload(30), tooLong).substr(0, 20);
    for (size_t k = 1; k < p.size(); ++k)
        stream += AdtsFrame(p[k]);
    stream += "\xFF\xF1";
    for (size_t piece : {size_t(500), stream.size()}) {
        Driver d;
        d.FeedInPieces(stream, piece, kT0);
        ASSERT_EQ(d.out.size(), p.size());
        for (size_t k = 0; k < p.size(); ++k)
            ASSERT_EQ(d.out[k].bytes, p[k]) << k;
    }
}

TEST(AudioPacketizerAdts, AFalseHeaderFirstLeavesNoConfigBehind) {
    aactest::Adts mono16k;
    mono16k.index = 8;
    mono16k.channels = 1;
    mono16k.lengthOverride = 40;  // not followed by a sync word
    Driver d;
    d.Feed(AdtsFrame(Payload(60), mono16k) + Join(Payloads(3)), kT0);
    ASSERT_EQ(d.out.size(), 2u);
    EXPECT_EQ(d.Extra(), aactest::Asc(2, 3, 2));
}

TEST(AudioPacketizerAdts, GarbageAloneKeepsNothing) {
    Driver d;
    std::mt19937 rng(1);
    std::string block(4096, '\0');
    for (int i = 0; i < 2000; ++i) {
        for (char& c : block)
            c = static_cast<char>(rng() & 0x7F);  // no sync word possible
        d.Feed(block, kT0 + i);
        int chain = 0;
        for (MediaBlock* b = d.stream.audioBytestream.p_chain; b; b = b->GetNext())
            ++chain;
        ASSERT_LE(chain, 1);
    }
    EXPECT_TRUE(d.out.empty());
}

// Randomly damaged streams, fed in random pieces: whatever comes out is a frame of a sane
// size, and nothing crashes, overruns or leaks (the sanitizer build checks the last two).
TEST(AudioPacketizerAdts, DamagedStreamsNeverBreakIt) {
    const std::string clean = Join(Payloads(60, 120));
    std::mt19937 rng(42);
    for (int round = 0; round < 50; ++round) {
        std::string damaged = clean;
        for (int i = 0; i < 40; ++i) {
            const size_t at = rng() % damaged.size();
            switch (rng() % 4) {
                case 0:
                    damaged[at] = static_cast<char>(rng());
                    break;
                case 1:
                    damaged.insert(at, 1, static_cast<char>(0xFF));
                    break;
                case 2:
                    damaged.erase(at, rng() % 30);
                    break;
                default:
                    damaged.insert(at, "\xFF\xF9\x4C\x80\x2F\xFF\xFC", 7);
                    break;
            }
        }
        Driver d;
        for (size_t pos = 0; pos < damaged.size();) {
            const size_t n = 1 + rng() % 400;
            d.Feed(damaged.substr(pos, n), kT0 + long(pos));
            pos += n;
        }
        for (size_t k = 0; k < d.out.size(); ++k) {
            ASSERT_LE(d.out[k].bytes.size(), 8191u);
            ASSERT_GE(d.out[k].length, 0);
        }
    }
}

}  // namespace
