// Shared pieces of the RTSP integration tests: the three kinds of real server on loopback
// (live555's media server, a GStreamer RTSP server, the scripted Python server), clips made
// with ffmpeg at test time, a handler and a receiver controller that record what arrives,
// and the independent checks with ffprobe / ffmpeg.
#pragma once

#include <json/json.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "core/fetcher.h"
#include "process.h"
#include "rtsp/receiverctrler.h"

class RtspReceiver;

namespace rtspitest {

// Short test clips, 320x240 at 25 fps. Kinds: "h264" (Annex B, with B-frames), "hevc",
// "m4e" (MPEG-4 Part 2 elementary stream), "aac" (ADTS), "mkv" (H.264 + AAC),
// "mpeg4mkv" (MPEG-4 Part 2 in Matroska). False when ffmpeg failed.
bool MakeClip(const std::string& kind, const std::string& path, double seconds);

// The NAL units of an Annex B file, without start codes.
std::vector<std::vector<uint8_t>> ReadNalUnits(const std::string& path);
// FNV-1a of a byte range.
uint64_t Digest(const uint8_t* data, size_t size);

// live555MediaServer in a directory of its own, bound to loopback. It always takes RTSP port
// 554 (else 8554) and tunnels over HTTP on 80 (else 8000, 8080): one at a time.
class Live555Server {
public:
    bool Start(const std::string& directory);
    int RtspPort() const { return m_rtspPort; }
    int HttpPort() const { return m_httpPort; }

private:
    testsupport::ServerProcess m_process;
    int m_rtspPort = 0;
    int m_httpPort = 0;
};

// tests/integration/gst_rtsp_server.py on a free loopback port.
class GstServer {
public:
    bool Start(const std::vector<std::string>& extraArgs = {});
    int Port() const { return m_port; }

private:
    testsupport::ServerProcess m_process;
    int m_port = 0;
};

// tests/integration/scripted_rtsp_server.py with a scenario; Events() reads its record.
class ScriptedServer {
public:
    bool Start(const Json::Value& scenario);
    int Port() const { return m_port; }
    std::vector<Json::Value> Events() const;
    // Waits until the latest event the server recorded is this one ("closed", ...).
    bool WaitForLastEvent(const std::string& event, double seconds) const;
    // The requests of one method, in order.
    std::vector<Json::Value> Requests(const std::string& method) const;

private:
    testsupport::TempDir m_dir;
    testsupport::ServerProcess m_process;
    int m_port = 0;
};

// Records every delivered block (bytes, times, flags) and the formats InitHandler saw.
class CollectingHandler : public MediaDataHandler {
public:
    struct Block {
        int es;
        uint32_t codec;
        std::vector<uint8_t> bytes;
        long long pts;
        long long dts;
        uint32_t flags;
        bool avc1;
    };
    void InitHandler(const ESFormat& video, const ESFormat& audio) override;
    int ProcessMediaBlock(ESFormat& format, MediaBlock* block) override;

    std::vector<Block> Blocks(int es) const;
    size_t Count(int es) const;
    int InitCalls() const { return m_initCalls; }
    ESFormat InitVideo() const;
    ESFormat InitAudio() const;
    // Writes one stream's blocks to a file: video as Annex B (length prefixes turned into
    // start codes), AAC as ADTS when it came raw, anything else as is.
    bool WriteStream(int es, const std::string& path) const;

private:
    mutable std::mutex m_mutex;
    std::vector<Block> m_blocks;
    ESFormat m_video;
    ESFormat m_audio;
    std::atomic<int> m_initCalls{0};
};

// A controller that lends a 4 MiB buffer per medium and records every frame it gets.
class FrameRecorder : public ReceiverCtrler {
public:
    struct Frame {
        std::string medium;
        std::string codec;
        unsigned int size;
        timeval pts;
        uint64_t digest;  // Digest of the whole frame
    };
    explicit FrameRecorder(int stopAfterFrames = 0) : m_stopAfter(stopAfterFrames) {}
    unsigned char* GetSubsessionRecvBuf(MediaSubsession* subsession, unsigned int& size) override;
    void RecvMetaData(RtspReceiver* receiver, MediaSubsession* subsession, unsigned char* data,
                      unsigned int size, timeval pts) override;
    std::vector<Frame> Frames(const std::string& medium = "") const;

private:
    mutable std::mutex m_mutex;
    std::vector<Frame> m_frames;
    std::vector<uint8_t> m_video = std::vector<uint8_t>(0x400000);
    std::vector<uint8_t> m_audio = std::vector<uint8_t>(0x20000);
    int m_stopAfter;
};

// Runs fetcher.DoFetchLoop(handler) on a thread and calls StopFetchLoop after `seconds`
// unless the loop ended by itself first. Returns how long the loop ran, in seconds, and
// stores how long it took to return after the stop (0 when it ended by itself).
double FetchFor(FetcherBase& fetcher, MediaDataHandler& handler, double seconds,
                double* stopLatency = nullptr);

// Runs receiver.DoRecvLoop(ctrler) on this thread and stops it from another thread after
// `seconds` unless it ended by itself first. Returns how long the loop ran.
double RecvFor(RtspReceiver& receiver, ReceiverCtrler& ctrler, double seconds);

// Whether the video packetizer turns a clip of this codec (h264, hevc, mp4v) into pictures
// yet, and whether the AAC packetizer exists. The packetizers come from other branches;
// tests that decode their output skip until they are there.
bool VideoPacketizerWorks(uint32_t codec);
bool AacPacketizerWorks();

struct ProbeResult {
    bool ok = false;    // ffprobe read the stream
    std::string codec;  // codec_name of the first stream
    int width = 0;
    int height = 0;
    int frames = 0;      // decoded pictures / audio frames
    std::string errors;  // what ffmpeg reported while decoding everything
};
// Decodes a raw stream file of the given ffmpeg format ("h264", "hevc", "m4v", "mjpeg",
// "adts", "alaw") with ffprobe / ffmpeg.
ProbeResult Probe(const std::string& path, const std::string& format,
                  const std::vector<std::string>& inputOptions = {});

// Types of the NAL units of an Annex B H.264 picture (or HEVC with hevc set).
std::vector<int> NalTypes(const std::vector<uint8_t>& annexB, bool hevc);

FETCH_PARAM LoopbackParam(int port, const std::string& path, int protocol, bool audio);

}  // namespace rtspitest
