#include "mobile/mobilefetch.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "log_capture.h"
#include "mobile_test_support.h"

namespace {

using mobiletest::Message;
using mobiletest::NoticeHandler;
using mobiletest::PushClient;

const std::string kStartCode("\0\0\0\1", 4);
// Parameter sets of a 160x120 baseline stream, as an encoder writes them.
const std::string kSps = kStartCode + std::string(
                                          "\x67\x42\xc0\x0b\xd9\x02\x84\x7e\x5c\x04\x40"
                                          "\x00\x00\x03\x00\x40\x00\x00\x0c\x83\xc5\x0a"
                                          "\x92",
                                          23);
const std::string kPps = kStartCode + std::string("\x68\xcb\x83\xcb\x20", 5);
// A NAL unit that makes no picture: frames of it never come out of the video packetizer.
const std::string kFiller = kStartCode + std::string("\x0c\xff\xff\xff\x80", 5);

// An ADTS frame (AAC LC, no CRC) with the given sampling index and channel configuration.
std::string Adts(int rateIndex, int channels, size_t payload = 20) {
    const size_t length = 7 + payload;
    std::string f(length, '\x21');
    f[0] = '\xff';
    f[1] = '\xf1';
    f[2] = static_cast<char>((1 << 6) | (rateIndex << 2) | (channels >> 2));
    f[3] = static_cast<char>(((channels & 3) << 6) | (length >> 11));
    f[4] = static_cast<char>((length >> 3) & 0xff);
    f[5] = static_cast<char>(((length & 7) << 5) | 0x1f);
    f[6] = '\xfc';
    return f;
}

std::string Video(const std::string& payload, long long ts = 1000) {
    return Message("video/h264", payload, ts);
}
std::string Audio(const std::string& payload, long long ts = 1000) {
    return Message("audio/aac", payload, ts);
}
std::string MediaInfo(const std::string& text) {
    return Message("media-info", text);
}

FETCH_PARAM Param(bool hasAudio) {
    FETCH_PARAM p;
    p.bHasAudio = hasAudio;
    p.iTimeout = 10;
    p.iMobileOpt = mobiletest::UniqueReceiverId();
    p.iStreamMode = 3;
    return p;
}

std::string SocketPath(const FETCH_PARAM& p) {
    return "/tmp/kv_mobile_receiver_" + std::to_string(p.iMobileOpt) + "_live.sock";
}

// Runs one fetch loop on this thread against a client that writes the messages (one write
// each) and closes.
void RunSession(MobileFetch& fetch, const FETCH_PARAM& p, NoticeHandler& handler,
                const std::vector<std::string>& messages) {
    PushClient client(SocketPath(p), messages);
    fetch.DoFetchLoop(&handler);
    client.Join();
    ASSERT_TRUE(client.Connected());
}

std::string Extra(const ESFormat& f) {
    return f.p_extra ? std::string(reinterpret_cast<const char*>(f.p_extra), f.i_extra)
                     : std::string();
}

TEST(MobileFetch, FactoryKindSixNamesTheSocketAfterTheReceiverId) {
    for (bool hasAudio : {false, true}) {
        FETCH_PARAM p = Param(hasAudio);
        FetcherBase* f = FetcherFactory(6, p);
        ASSERT_NE(dynamic_cast<MobileFetch*>(f), nullptr);
        ESFormat video, audio;
        EXPECT_EQ(f->GetVideoFormat(video), 0);
        EXPECT_EQ(f->GetAudioFormat(audio), 0);
        EXPECT_EQ(video.i_codec, kCodecH264);
        EXPECT_EQ(video.i_extra, 0);
        EXPECT_EQ(audio.i_codec, hasAudio ? kCodecMp4a : 0u);
        EXPECT_EQ(audio.strDescription, hasAudio ? "MPEG4-GENERIC" : "");

        // The receiver id and the timeout come from the fetch parameters.
        NoticeHandler refusing(NoticeHandler::Refusal("later"));
        f->DoFetchLoop(&refusing);
        ASSERT_EQ(refusing.notices.size(), 1u);
        EXPECT_EQ(refusing.notices[0]["dstSockName"].asString(),
                  "kv_mobile_receiver_" + std::to_string(p.iMobileOpt) + "_live");
        ReleaseFetcher(f);
        EXPECT_EQ(f, nullptr);
    }
}

// What InitHandler is given; no call at all when inits is 0.
struct Init {
    int inits;                // InitHandler calls
    std::string extra;        // video extra data handed to InitHandler
    uint32_t rate, channels;  // audio format handed to InitHandler
    int unknownAudio;         // "Unknown ContentType[audio/aac]" lines
};

struct GatingCase {
    const char* name;
    bool hasAudio;
    std::vector<std::string> messages;
    Init init;
    std::vector<std::string> logged = {};  // lines written once each
};

std::vector<GatingCase> GatingCases() {
    const std::string both = "video-h264/audio-aac";
    return {
        {"SetCompletedByAudio",
         true,
         {MediaInfo(both), Video(kFiller), Video(kSps), Video(kFiller), Video(kPps), Video(kFiller),
          Audio(Adts(3, 2)), Video(kFiller), Audio(Adts(3, 2))},
         {1, kSps + kPps, 48000, 2, 0}},
        {"SetCompletedByVideo",
         true,
         {MediaInfo(both), Audio(Adts(4, 1)), Video(kSps), Video(kPps), Video(kFiller)},
         {1, kSps + kPps, 44100, 1, 0}},
        {"AudioNotAnnounced",
         true,
         {MediaInfo("video-h264"), Audio(Adts(3, 2)), Video(kSps + kPps + kFiller),
          Audio(Adts(3, 2)), Video(kFiller)},
         {1, kSps + kPps + kFiller, 0, 0, 2}},
        {"AnnouncementAfterTheParts",
         true,
         {Video(kSps), Video(kPps), Audio(Adts(3, 2)), Video(kFiller), MediaInfo("video-h264"),
          Video(kFiller)},
         {1, kSps + kPps, 0, 0, 1}},
        {"NeverComplete",
         true,
         {MediaInfo(both), Video(kSps), Audio(Adts(3, 2)), Video(kFiller)},
         {0, "", 0, 0, 0}},
        {"FirstAudioNotAdtsStillCounts",
         true,
         {MediaInfo("audio-aac"), Audio("raw aac bytes"), Audio(Adts(3, 2))},
         {1, "", 0, 0, 0}},
        {"ReservedRateIndexAndSevenChannels",
         true,
         {MediaInfo("audio-aac"), Audio(Adts(13, 7))},
         {1, "", 0, 7, 0}},
        {"TokensAreSearchedInsideText",
         true,
         {MediaInfo("x-video-h264-y/zz/audio-aac;v=1"), Video(kSps), Video(kPps),
          Audio(Adts(3, 2))},
         {1, kSps + kPps, 48000, 2, 0},
         {"Parsed AAC ADTS info: Rate [48000], Channel[2], Frame Length[1024]",
          "ContentType[media-info]"}},
        {"FourByteFrameAndRepeatedSpsAddNothing",
         false,
         {MediaInfo("video-h264"), Video(kStartCode), Video(kSps), Video(kSps), Video(kPps)},
         {1, kSps + kPps, 0, 0, 0}},
    };
}

TEST(MobileFetch, StartsThePackerOnceEverythingAnnouncedWasSeen) {
    for (const GatingCase& c : GatingCases()) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        FETCH_PARAM p = Param(c.hasAudio);
        MobileFetch fetch(p);
        NoticeHandler handler;
        RunSession(fetch, p, handler, c.messages);

        const Init& want = c.init;
        ASSERT_EQ(static_cast<int>(handler.initVideo.size()), want.inits);
        if (want.inits) {
            EXPECT_EQ(Extra(handler.initVideo[0]), want.extra);
            EXPECT_EQ(handler.initVideo[0].i_codec, kCodecH264);
            EXPECT_EQ(handler.initAudio[0].audio.i_rate, want.rate);
            EXPECT_EQ(handler.initAudio[0].audio.i_channels, want.channels);
            if (c.hasAudio && want.rate) {
                EXPECT_EQ(handler.initAudio[0].audio.i_frame_length, 1024u);
            }
        }
        EXPECT_EQ(log.Count("Unknown ContentType[audio/aac], skip it."), want.unknownAudio);
        EXPECT_EQ(log.Count("Packer process failed"), 0);
        EXPECT_EQ(handler.NoticeTypes(), (std::vector<std::string>{"startStream", "stopStream"}));
        // What was collected stays readable after the loop, complete or not.
        ESFormat video;
        fetch.GetVideoFormat(video);
        EXPECT_EQ(Extra(video), want.inits ? want.extra : kSps);
        for (const std::string& line : c.logged)
            EXPECT_EQ(log.Count(line), 1) << line;
    }
}

// The packer gives a stream up after 51 video frames in a row without a picture (before the
// first one, only when they span more than 12 s). Counting them shows which frames reached
// it: the one completing the description and everything after, nothing before.
TEST(MobileFetch, CompletingFrameIsPassedOnAndEarlierOnesAreNot) {
    for (int after : {49, 50}) {
        SCOPED_TRACE(after);
        LogCapture log;
        FETCH_PARAM p = Param(false);
        MobileFetch fetch(p);
        NoticeHandler handler;
        std::string stream = MediaInfo("video-h264") + Video(kSps);
        for (int i = 0; i < 5; ++i)
            stream += Video(kFiller);
        stream += Video(kPps);
        for (int i = 0; i < after; ++i)
            stream += Video(kFiller, 1000 + 300000 * i);
        RunSession(fetch, p, handler, {stream});

        ASSERT_EQ(handler.initVideo.size(), 1u);
        if (after == 49) {
            EXPECT_EQ(log.Count("Packer process failed"), 0);
            EXPECT_EQ(log.Count("read end of data."), 1);
        } else {
            // The failure stops the receiver: the loop ends before reading the end of data.
            EXPECT_EQ(log.Count("Packer process failed: EsType[1], FrameSize[9]."), 1);
            EXPECT_EQ(log.Count("read end of data."), 0);
        }
        EXPECT_EQ(handler.NoticeTypes(), (std::vector<std::string>{"startStream", "stopStream"}));
    }
}

TEST(MobileFetch, EveryLoopIsANewSession) {
    FETCH_PARAM p = Param(false);
    MobileFetch fetch(p);
    NoticeHandler first;
    RunSession(fetch, p, first, {MediaInfo("video-h264"), Video(kSps + kPps)});
    ASSERT_EQ(first.initVideo.size(), 1u);

    // The client describes its stream again; the old parameter sets are not kept.
    NoticeHandler second;
    RunSession(fetch, p, second, {MediaInfo("video-h264"), Video(kSps), Video(kPps)});
    ASSERT_EQ(second.initVideo.size(), 1u);
    EXPECT_EQ(Extra(second.initVideo[0]), kSps + kPps);
}

// A loop asked for while one runs ends the running one, as the receiver intends; it must not
// reset or free what that loop uses, and its own handler is never called.
TEST(MobileFetch, SecondLoopEndsTheRunningOneWithoutTouchingIt) {
    FETCH_PARAM p = Param(true);
    MobileFetch fetch(p);
    // Every message describes the stream anew: a session reset under the running loop would
    // set the packer up again at once, for whichever handler it then holds.
    PushClient client(SocketPath(p),
                      std::vector<std::string>(200, MediaInfo("audio-aac") + Audio(Adts(3, 2))));
    NoticeHandler running, second;
    auto loop = std::async(std::launch::async, [&]() { fetch.DoFetchLoop(&running); });
    for (int i = 0; i < 1000 && running.Inits() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(running.Inits(), 1u);

    fetch.DoFetchLoop(&second);
    ASSERT_EQ(loop.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    client.Join();
    EXPECT_EQ(second.Inits(), 0u);
    EXPECT_TRUE(second.NoticeTypes().empty());
    EXPECT_EQ(running.Inits(), 1u);
    EXPECT_EQ(running.NoticeTypes(), (std::vector<std::string>{"startStream", "stopStream"}));
}

}  // namespace
