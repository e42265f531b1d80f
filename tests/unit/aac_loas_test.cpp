// The audio packetizer on LOAS/LATM streams: multiplex configurations in band, payload
// framings, the two sample requests in the log, and broken elements.
#include <gtest/gtest.h>

#include <random>

#include "aac_test_streams.h"
#include "log_capture.h"

using aactest::Driver;
using aactest::Latm;
using aactest::LoasFrame;
using aactest::Payload;

namespace {

constexpr long long kT0 = 1'000'000'000;
const char kSubFramesLog[] = "latm sub frames not yet supported, please send a sample";
const char kTimeFramingLog[] =
    "latm without same time frameing not yet supported, please send a sample";

Latm SameMux() {
    Latm l;
    l.withConfig = false;
    return l;
}

// A configuration, then elements that use it, then a sync word to let the last one out.
std::string Stream(const std::vector<std::string>& payloads, const Latm& first) {
    std::string s = LoasFrame({payloads[0]}, first);
    for (size_t k = 1; k < payloads.size(); ++k)
        s += LoasFrame({payloads[k]}, SameMux());
    return s + "\x56\xE0";
}

TEST(AudioPacketizerLoas, ConfiguredStreamsInEveryFraming) {
    struct Case {
        const char* name;
        bool payloadAligned, crc;
        int version, ascFillBits, index, channels;
    };
    const Case cases[] = {
        {"aligned payload", true, false, 0, 0, 3, 2},
        {"unaligned payload", false, false, 0, 0, 3, 2},
        {"version 1", true, false, 1, 5, 3, 2},
        {"crc", true, true, 0, 0, 3, 2},
        {"16 kHz mono", true, false, 0, 0, 8, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Latm l;
        l.payloadAligned = c.payloadAligned;
        l.crc = c.crc;
        l.version = c.version;
        l.ascFillBits = c.ascFillBits;
        l.index = c.index;
        l.channels = c.channels;
        std::vector<std::string> payloads;
        for (int k = 0; k < 12; ++k)
            payloads.push_back(Payload(size_t(100 + 35 * k), k));  // lengths past 255 too
        const std::string s = Stream(payloads, l);
        for (size_t piece : {size_t(1), size_t(33), s.size()}) {
            SCOPED_TRACE(piece);
            Driver d;
            for (size_t pos = 0; pos < s.size(); pos += piece)
                d.Feed(s.substr(pos, piece), pos < 2 ? kT0 : 0);
            ASSERT_EQ(d.out.size(), payloads.size());
            const int rate = l.index == 8 ? 16000 : 48000;
            for (size_t k = 0; k < payloads.size(); ++k) {
                ASSERT_EQ(d.out[k].bytes, payloads[k]) << k;
                ASSERT_EQ(d.out[k].pts, kT0 + long(k) * 1024 * 1000000 / rate) << k;
            }
            EXPECT_EQ(d.Extra(), aactest::Asc(2, l.index, l.channels));
            EXPECT_EQ(int(d.stream.fmt.audio.i_rate), rate);
            EXPECT_EQ(int(d.stream.fmt.audio.i_channels), l.channels);
            EXPECT_EQ(d.stream.fmt.audio.i_frame_length, 1024u);
        }
    }
}

TEST(AudioPacketizerLoas, NothingBeforeTheFirstConfiguration) {
    Driver d;
    std::string s;
    for (int k = 0; k < 3; ++k)
        s += LoasFrame({Payload(50, k)}, SameMux());
    s += Stream({Payload(60), Payload(61)}, Latm());
    d.Feed(s, kT0);
    ASSERT_EQ(d.out.size(), 2u);
    EXPECT_EQ(d.out[0].bytes, Payload(60));
    EXPECT_TRUE(d.stream.latmConfigured);
}

TEST(AudioPacketizerLoas, FixedLengthPayloads) {
    Latm l;
    l.frameLengthType = 1;  // frameLength 0: payloads of 20 bytes
    Latm same = SameMux();
    same.frameLengthType = 1;
    const std::string s =
        LoasFrame({Payload(20, 1)}, l) + LoasFrame({Payload(20, 2)}, same) + "\x56\xE0";
    Driver d;
    d.Feed(s, kT0);
    ASSERT_EQ(d.out.size(), 2u);
    EXPECT_EQ(d.out[1].bytes, Payload(20, 2));
}

TEST(AudioPacketizerLoas, SubFramesAreAskedForOnceAndLastTheirSamples) {
    Latm l;
    l.subFrames = 2;
    Latm same = SameMux();
    same.subFrames = 2;
    LogCapture log;
    Driver d;
    d.Feed(LoasFrame({Payload(40, 1), Payload(41, 2)}, l) +
               LoasFrame({Payload(42, 3), Payload(43, 4)}, same) + "\x56\xE0",
           kT0);
    ASSERT_EQ(d.out.size(), 2u);
    EXPECT_EQ(d.out[0].bytes, Payload(40, 1) + Payload(41, 2));
    EXPECT_EQ(d.out[1].pts - d.out[0].pts, 2048 * 1000000 / 48000);
    EXPECT_EQ(log.Count(kSubFramesLog), 1);
    // Written whatever the log configuration, under the parser's own name.
    for (const auto& r : log.Records()) {
        if (r.text.find(kSubFramesLog) == std::string::npos)
            continue;
        EXPECT_EQ(r.categ, "-");
        EXPECT_EQ(r.level, "-");
        EXPECT_EQ(r.function, "LOASParse");
        EXPECT_EQ(r.file, "mpeg4audiopacket");
    }
}

// Two layers share the first one's config; their payloads come out as one frame, whether
// the element gives their lengths at once or chunk by chunk (which asks for a sample).
TEST(AudioPacketizerLoas, LayersComeOutTogetherInEitherFraming) {
    for (bool sameTimeFraming : {true, false}) {
        SCOPED_TRACE(sameTimeFraming);
        Latm l;
        l.layers = 2;
        l.sameTimeFraming = sameTimeFraming;
        LogCapture log;
        Driver d;
        d.Feed(LoasFrame({Payload(40, 1), Payload(50, 2)}, l) + "\x56\xE0", kT0);
        ASSERT_EQ(d.out.size(), 1u);
        EXPECT_EQ(d.out[0].bytes, Payload(40, 1) + Payload(50, 2));
        EXPECT_EQ(d.stream.latm.i_streams, 2);
        EXPECT_EQ(log.Count(kTimeFramingLog), sameTimeFraming ? 0 : 1);
        EXPECT_EQ(log.Count(kSubFramesLog), 0);
    }
}

// Elements that cannot be read give nothing; the search goes on behind them and the good
// elements around them all come out.
TEST(AudioPacketizerLoas, BrokenElementsAreDroppedAlone) {
    Latm truncatedConfig;
    truncatedConfig.truncateTo = 2;
    Latm truncatedPayload;
    truncatedPayload.truncateTo = 30;
    Latm versionA;
    versionA.version = 1;
    versionA.versionA = 1;
    Latm reservedRate;
    reservedRate.index = 13;
    Latm noSubFrames = SameMux();
    noSubFrames.truncateTo = 1;  // a length byte of 0 then nothing: an empty payload
    Latm empty;
    empty.lengthOverride = 0;
    const std::pair<const char*, std::string> broken[] = {
        {"truncated config", LoasFrame({Payload(80)}, truncatedConfig)},
        {"payload longer than its element", LoasFrame({Payload(80)}, truncatedPayload)},
        {"audioMuxVersionA 1", LoasFrame({Payload(80)}, versionA)},
        {"reserved rate", LoasFrame({Payload(80)}, reservedRate)},
        {"empty element", LoasFrame({}, empty).substr(0, 3)},
        {"empty payload", LoasFrame({""}, noSubFrames)},
    };
    for (const auto& [name, element] : broken) {
        SCOPED_TRACE(name);
        Driver d;
        std::string s = LoasFrame({Payload(70, 1)}, Latm()) + element +
                        LoasFrame({Payload(71, 2)}, SameMux()) + "\x56\xE0";
        d.Feed(s, kT0);
        ASSERT_GE(d.out.size(), 1u);
        EXPECT_EQ(d.out.front().bytes, Payload(70, 1));
        EXPECT_EQ(d.out.back().bytes, Payload(71, 2));
        EXPECT_LE(d.out.size(), 2u);
    }
}

// Payload lengths of the CELP and HVXC framings come from codec tables: such a multiplex
// is read but its payloads cannot be cut.
TEST(AudioPacketizerLoas, TableFramedPayloadsAreNotCut) {
    Latm celp;
    celp.frameLengthType = 4;
    Latm same = SameMux();
    same.frameLengthType = 4;
    Driver d;
    d.Feed(LoasFrame({Payload(20)}, celp) + LoasFrame({Payload(20)}, same) + "\x56\xE0", kT0);
    EXPECT_TRUE(d.out.empty());
    EXPECT_EQ(d.stream.latm.stream[0].i_frame_length_type, 4);
}

TEST(AudioPacketizerLoas, AbsurdSubFrameCounts) {
    Latm l;
    l.subFrames = 64;
    std::vector<std::string> payloads(64, Payload(100));
    std::string full = LoasFrame(payloads, l);
    ASSERT_LE(full.size(), 8191u + 3);
    Latm cut = l;
    cut.truncateTo = 300;  // claims 64 payloads, holds two
    Driver d;
    d.Feed(full + LoasFrame(payloads, cut) + LoasFrame({Payload(9)}, Latm()) + "\x56\xE0", kT0);
    ASSERT_EQ(d.out.size(), 2u);
    EXPECT_EQ(d.out[0].bytes.size(), 6400u);
    EXPECT_EQ(d.out[1].bytes, Payload(9));
}

// Random damage to a stream of elements fed in random pieces: no crash, no overrun, no
// leak (the sanitizer build checks those), and only sane frames out.
TEST(AudioPacketizerLoas, DamagedStreamsNeverBreakIt) {
    std::vector<std::string> payloads;
    for (int k = 0; k < 40; ++k)
        payloads.push_back(Payload(size_t(80 + 3 * k), k));
    std::string clean;
    for (size_t k = 0; k < payloads.size(); ++k)
        clean += LoasFrame({payloads[k]}, k % 5 == 0 ? Latm() : SameMux());
    std::mt19937 rng(3);
    for (int round = 0; round < 60; ++round) {
        std::string damaged = clean;
        for (int i = 0; i < 30; ++i) {
            const size_t at = rng() % damaged.size();
            if (rng() % 3 == 0)
                damaged.insert(at, "\x56\xE7\xFF", 3);
            else
                damaged[at] = static_cast<char>(rng());
        }
        Driver d;
        for (size_t pos = 0; pos < damaged.size();) {
            const size_t n = 1 + rng() % 300;
            d.Feed(damaged.substr(pos, n), kT0 + long(pos));
            pos += n;
        }
        for (const auto& o : d.out)
            ASSERT_LE(o.bytes.size(), 8191u);
    }
}

}  // namespace
