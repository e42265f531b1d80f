// Where fetched media goes: index.jsonl (one line per block), the elementary streams
// (video.h264, audio.aac with ADTS headers, ...) and formats.json, plus the running figures
// for the status line and the summary. Serves as the MediaDataHandler of push-style
// fetchers and is fed part by part by the pull loop.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "core/fetcher.h"

namespace camfetch_tool {

struct StreamStats {
    long long blocks = 0;
    long long bytes = 0;
    long long keyFrames = 0;
    long long lastKeyIndex = -1;
    long long keyInterval = 0;  // blocks between the last two key frames
    long long firstPts = 0;
    long long lastPts = 0;
    std::string codec;
};

class OutputSink : public MediaDataHandler {
public:
    // frameLimit: stop after exactly this many video blocks (0 = no limit).
    OutputSink(const std::string& dir, long long frameLimit);
    ~OutputSink() override;
    bool Open(std::string& error);

    int ProcessMediaBlock(ESFormat& format, MediaBlock* block) override;
    void InitHandler(const ESFormat& video, const ESFormat& audio) override;
    int TransNotice2Mobile(const Json::Value& notice, Json::Value* reply) override;

    // One part of a pull-style fetcher.
    void WritePart(int es, const ESFormat& format, const unsigned char* data, size_t size,
                   long long pts, uint32_t flags);
    // formats.json from these formats, or from the formats the delivered blocks carried.
    void WriteFormats(const ESFormat& video, const ESFormat& audio);
    void WriteLastFormats();

    // True once the frame limit is reached; Wait returns early then.
    bool LimitReached() const { return m_limitReached.load(); }
    // Waits until the limit is reached or the timeout (seconds, < 0 = none) passed.
    void WaitForLimit(double seconds);
    StreamStats Video();
    StreamStats Audio();
    bool AnyDelivered();
    bool Initialised() const { return m_initialised.load(); }

private:
    void WriteLocked(int es, const ESFormat& format, const unsigned char* data, size_t size,
                     long long pts, long long dts, uint32_t flags);
    FILE* StreamFile(int es, uint32_t codec);
    void WriteFormatsLocked(const ESFormat& video, const ESFormat& audio);

    std::string m_dir;
    long long m_frameLimit;
    std::mutex m_mutex;
    std::condition_variable m_limitCv;
    std::atomic<bool> m_limitReached{false};
    std::atomic<bool> m_initialised{false};
    FILE* m_index = nullptr;
    FILE* m_video = nullptr;
    FILE* m_audio = nullptr;
    StreamStats m_videoStats;
    StreamStats m_audioStats;
    ESFormat m_videoFormat;
    ESFormat m_audioFormat;
};

// The codec code as text in natural character order ("h264"), trailing blanks dropped.
std::string CodecName(uint32_t codec);
// The 7-byte ADTS header for one raw AAC frame of frameSize bytes in this format.
bool BuildAdtsHeader(const ESFormat& format, size_t frameSize, unsigned char header[7]);

}  // namespace camfetch_tool
