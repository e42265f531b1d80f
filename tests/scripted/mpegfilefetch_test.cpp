// The fragmented-MP4 box walk byte for byte through the in-memory HTTP client, so that the
// hostile cases run under the sanitizers too. ffmpeg as a real server is in the integration
// tests.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../unit/log_capture.h"
#include "core/fetcher.h"
#include "http/mpegfilefetch.h"
#include "scriptedhttp.h"

namespace {

std::string Be32(uint32_t v) {
    return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
            static_cast<char>(v)};
}

std::string Box(const char* type, const std::string& payload) {
    return Be32(static_cast<uint32_t>(payload.size() + 8)) + type + payload;
}

const std::string kSps = std::string("\x67\x42\xc0\x1e\xda\x02\x80", 7);
const std::string kPps = std::string("\x68\xce\x3c\x80", 4);

// An avcC box as muxers write it: one SPS, one PPS, 16-bit lengths.
std::string AvcC(const std::string& sps, const std::string& pps) {
    std::string p = "\x01\x42\xc0\x1e\xff";
    p += static_cast<char>(0xE1);
    p += std::string{static_cast<char>(sps.size() >> 8), static_cast<char>(sps.size())} + sps;
    p += '\x01';
    p += std::string{static_cast<char>(pps.size() >> 8), static_cast<char>(pps.size())} + pps;
    return Box("avcC", p);
}

// An esds box with single-byte descriptor lengths and the given decoder-specific info.
std::string Esds(const std::string& dsi) {
    std::string p(4, '\0');                       // version, flags
    p += std::string("\x03\x19\x00\x01\x00", 5);  // ES descriptor
    p += std::string("\x04\x0d\x20\x11", 4);      // config: object type, stream type
    p += std::string(11, '\0');                   // buffer size, bit rates
    p += '\x05';                                  // decoder-specific info tag
    p += static_cast<char>(dsi.size()) + dsi;
    return Box("esds", p);
}

std::string Moov(const std::string& config) {
    // The codec configuration sits deep inside trak/mdia/minf/stbl/stsd; the fetcher
    // searches bytes, so any wrapping will do.
    return Box("moov", Box("mvhd", std::string(100, '\0')) +
                           Box("trak", Box("stsd", std::string(8, '\0') + config)));
}

class MpegFileFetcher : public ::testing::Test {
protected:
    void SetUp() override { scriptedhttp::Clear(); }
    void TearDown() override { scriptedhttp::Clear(); }

    static void Serve(const std::string& body, size_t arrival = 5) {
        scriptedhttp::Response r;
        r.contentType = "video/mp4";
        r.body = std::make_shared<const std::string>(body);
        r.arrival = arrival;
        scriptedhttp::Serve("/live.mp4", r);
    }

    static std::unique_ptr<FetcherBase> Make(int mode = 3) {
        FETCH_PARAM p;
        p.strHost = "camera";
        p.iPort = 80;
        p.strPath = "/live.mp4";
        p.iTimeout = 5;
        p.iStreamMode = mode;
        return std::unique_ptr<FetcherBase>(FetcherFactory(2, p));
    }

    static std::string NextPart(FetcherBase& f, int* rc = nullptr) {
        unsigned size = 12345;
        char type[8] = "keep";
        int kind = 77;
        int r = f.NextPartInfo(size, type, sizeof(type), kind);
        if (rc)
            *rc = r;
        EXPECT_STREQ(type, "keep") << "the medium is the host's to know";
        EXPECT_EQ(kind, 77);
        if (r != 0 || size == 0)
            return std::string();
        std::string out(size, '\0');
        EXPECT_EQ(f.FetchContent(reinterpret_cast<unsigned char*>(&out[0]), size), 0);
        return out;
    }
};

TEST_F(MpegFileFetcher, MdatPayloadsAreThePartsAndTheCodecBoxGivesTheExtraData) {
    const std::string startCode("\0\0\0\1", 4);
    const std::string dsi("\x00\x00\x01\xb0\x01\x00\x00\x01\xb5\x89", 10);
    struct Case {
        int mode;
        std::string config, extra;
    } cases[] = {{3, AvcC(kSps, kPps), startCode + kSps + startCode + kPps}, {2, Esds(dsi), dsi}};
    const std::string mdat1(3000, 'a'), mdat2(70000, 'b');
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        scriptedhttp::Clear();
        Serve(Box("ftyp", "isomiso2avc1mp41") + Moov(c.config) + Box("moof", "m1") +
              Box("mdat", mdat1) + Box("moof", "") + Box("mdat", mdat2));
        auto f = Make(c.mode);
        EXPECT_EQ(f->TestConnect(), 0);
        EXPECT_EQ(NextPart(*f), mdat1);
        ESFormat video;
        EXPECT_EQ(f->GetVideoFormat(video), 0);
        ASSERT_EQ(video.i_extra, static_cast<int>(c.extra.size()));
        EXPECT_EQ(std::string(reinterpret_cast<char*>(video.p_extra), video.i_extra), c.extra);
        EXPECT_EQ(NextPart(*f), mdat2);
        EXPECT_EQ(scriptedhttp::Requests().size(), 1u) << "one GET for the whole walk";
    }
}

// A host copying the format while moov boxes are parsed gets one whole configuration or the
// other, never a mix of the two.
TEST_F(MpegFileFetcher, FormatCopiesNeverMixTwoConfigurations) {
    const std::string startCode("\0\0\0\1", 4);
    std::string stream, whole[2];
    for (int n = 0; n < 2; ++n) {
        const std::string sps(200, static_cast<char>(0x11 + n)),
            pps(200, static_cast<char>(0x21 + n));
        whole[n] = startCode + sps + startCode + pps;
        stream += Box("moov", AvcC(sps, pps));
    }
    for (int n = 0; n < 12; ++n)
        stream += stream;
    Serve(stream + Box("mdat", "x"), 0);
    auto f = Make();
    std::atomic<bool> done{false};
    int mixed = 0;
    std::thread host([&]() {
        while (!done) {
            ESFormat video;
            f->GetVideoFormat(video);
            const std::string extra(reinterpret_cast<char*>(video.p_extra), video.i_extra);
            mixed += !extra.empty() && extra != whole[0] && extra != whole[1];
        }
    });
    EXPECT_EQ(NextPart(*f), "x");
    done = true;
    host.join();
    EXPECT_EQ(mixed, 0);
}

TEST_F(MpegFileFetcher, ModesPickTheCodec) {
    struct {
        int mode;
        uint32_t codec;
    } cases[] = {{3, kCodecAvc1}, {7, kCodecAvc1}, {2, kCodecMp4v}, {1, 0}, {0, 0}};
    for (auto& c : cases) {
        ESFormat video;
        Make(c.mode)->GetVideoFormat(video);
        EXPECT_EQ(video.i_codec, c.codec) << c.mode;
        EXPECT_EQ(video.i_cat, VIDEO_ES);
    }
    ESFormat audio;
    audio.i_codec = kCodecAlaw;
    EXPECT_EQ(Make()->GetAudioFormat(audio), 0);
    EXPECT_EQ(audio.i_codec, kCodecAlaw) << "no audio: the argument is left alone";
}

TEST_F(MpegFileFetcher, BrokenBoxesEndTheWalkAndTheNextCallReconnects) {
    struct Case {
        const char* name;
        std::string broken;
        const char* log;
    } cases[] = {
        {"free box", Box("free", "pad"), "Invalid box4cc ["},
        {"styp box", Box("styp", "msdh"), "Invalid box4cc ["},
        {"size 4", Be32(4) + "mdat", "ReadBox failed!"},
        {"64-bit size", Be32(1) + "mdat" + std::string(8, '\0') + "xx", "ReadBox failed!"},
        {"closed mid-header", std::string("\0\0", 2), "Invalid box4cc [0]"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        scriptedhttp::Clear();
        LogCapture log;
        Serve(Box("ftyp", "iso5") + Box("mdat", "one") + c.broken);
        auto f = Make();
        EXPECT_EQ(NextPart(*f), "one");
        int rc = -1;
        EXPECT_EQ(NextPart(*f, &rc), "");
        EXPECT_EQ(rc, 0) << "an empty part, not an error";
        EXPECT_EQ(log.Count(c.log), 1);
        EXPECT_EQ(log.Count("Find next frame failed!"), 1);
        EXPECT_EQ(NextPart(*f), "one") << "a new GET starts from the top";
        EXPECT_EQ(scriptedhttp::Requests().size(), 2u);
    }
}

TEST_F(MpegFileFetcher, PayloadsOverTenMegabytesAreCutAndTheWalkResyncsByReconnecting) {
    const size_t big = 10485760 + 100;
    std::string huge(big, 'z');
    Serve(Box("ftyp", "iso5") + Box("mdat", huge) + Box("mdat", "after"), 0);
    auto f = Make();
    unsigned size = 0;
    char type[4];
    int kind = 0;
    ASSERT_EQ(f->NextPartInfo(size, type, sizeof(type), kind), 0);
    EXPECT_EQ(size, 10485760u) << "read only up to the buffer's limit";
    std::vector<unsigned char> buf(size + 50, 0);
    EXPECT_EQ(f->FetchContent(buf.data(), size + 50), 0);
    EXPECT_EQ(buf[size], 0) << "copies at most the buffer's capacity";
    // The rest of the payload is read as a box header: the walk fails and reconnects.
    EXPECT_EQ(NextPart(*f), "");
    EXPECT_EQ(NextPart(*f).size(), 10485760u);
}

TEST_F(MpegFileFetcher, TruncatedCodecBoxesArePassedOver) {
    const std::string cases[] = {
        Moov(Box("avcC", "\x01\x42")),  // no room for the lengths
        Moov(Box("avcC", std::string("\x01\x42\xc0\x1e\xff\xe1\x00\xf0", 8) + "short")),
        Moov(Box("esds", std::string(30, '\0'))),
        Moov(Box("esds", std::string(29, '\0') + "\x05\x7f" + "tiny")),
        Box("moov", "avcC"),  // the type code at the very start of the payload
    };
    for (const std::string& moov : cases) {
        scriptedhttp::Clear();
        LogCapture log;
        Serve(moov + Box("mdat", "data"));
        auto f = Make();
        EXPECT_EQ(NextPart(*f), "data");
        ESFormat video;
        f->GetVideoFormat(video);
        EXPECT_EQ(video.i_extra, 0);
    }
}

TEST_F(MpegFileFetcher, FailuresBeforeAnyDataAreReported) {
    LogCapture log;
    scriptedhttp::Response r;
    r.checkResult = 4;  // the camera wants credentials
    scriptedhttp::Serve("/live.mp4", r);
    auto f = Make();
    EXPECT_EQ(f->TestConnect(), 6);
    EXPECT_EQ(log.Count("VerifyHttpStatus fail"), 1);
    EXPECT_EQ(log.Count("This Connection is invalid!"), 1);

    MpegFileFetch uninitialised;
    unsigned size = 0;
    int kind = 0;
    EXPECT_EQ(uninitialised.NextPartInfo(size, nullptr, 0, kind), 3);
    EXPECT_EQ(uninitialised.TestConnect(), 3);
    ESFormat video;
    EXPECT_EQ(uninitialised.GetVideoFormat(video), 3);
    unsigned char b[4];
    EXPECT_EQ(uninitialised.FetchContent(b, 4), 3);

    FETCH_PARAM noPath;
    noPath.strHost = "camera";
    std::unique_ptr<FetcherBase> bad(FetcherFactory(2, noPath));
    EXPECT_EQ(bad->TestConnect(), 3);
    EXPECT_GE(log.Count("Parameters are incorrect!"), 1);

    auto f2 = Make();
    EXPECT_EQ(f2->FetchContent(b, 4), 4) << "no client before the first part";
    Serve(Box("mdat", "x"));
    EXPECT_EQ(NextPart(*f2), "x");
    EXPECT_EQ(f2->FetchContent(nullptr, 4), 2);
}

}  // namespace
