#include "outputsink.h"

#include <json/json.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>

namespace camfetch_tool {
namespace {

const int kAacRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                         22050, 16000, 12000, 11025, 8000,  7350};

std::string Hex(const uint8_t* data, int size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (int i = 0; i < size; ++i) {
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 15];
    }
    return out;
}

const char* VideoFileName(uint32_t codec) {
    switch (codec) {
        case kCodecH264:
        case kCodecAvc1:
            return "video.h264";
        case kCodecHevc:
        case kCodecHev1:
            return "video.hevc";
        case kCodecMp4v:
            return "video.m4v";
        case kCodecJpeg:
        case kCodecMjpg:
            return "video.mjpeg";
        case kCodecMxpg:
            return "video.mxg";
        default:
            return "video.bin";
    }
}

const char* AudioFileName(uint32_t codec) {
    switch (codec) {
        case kCodecMp4a:
            return "audio.aac";
        case kCodecAlaw:
            return "audio.alaw";
        case kCodecUlaw:
            return "audio.ulaw";
        default:
            return "audio.bin";
    }
}

// Files the tool writes hold a camera's pictures: readable by the owner only.
FILE* OpenPrivate(const std::string& path) {
    mode_t old = umask(077);
    FILE* f = fopen(path.c_str(), "wb");
    umask(old);
    return f;
}

}  // namespace

std::string CodecName(uint32_t codec) {
    std::string name;
    for (int shift = 24; shift >= 0; shift -= 8) {
        char c = static_cast<char>((codec >> shift) & 0xFF);
        if (c)
            name += c;
    }
    while (!name.empty() && name.back() == ' ')
        name.pop_back();
    return name;
}

bool BuildAdtsHeader(const ESFormat& format, size_t frameSize, unsigned char h[7]) {
    int index = -1;
    for (int i = 0; i < 13; ++i)
        if (kAacRates[i] == static_cast<int>(format.audio.i_rate))
            index = i;
    int objectType = 2;  // AAC LC unless the configuration says otherwise
    if (format.i_extra >= 1 && format.p_extra)
        objectType = format.p_extra[0] >> 3;
    if (objectType < 1 || objectType > 4)
        objectType = 2;
    const size_t length = frameSize + 7;
    if (index < 0 || length > 0x1FFF)
        return false;
    const unsigned channels = format.audio.i_channels & 7;
    h[0] = 0xFF;
    h[1] = 0xF1;  // MPEG-4, no CRC
    h[2] = static_cast<unsigned char>(((objectType - 1) << 6) | (index << 2) | (channels >> 2));
    h[3] = static_cast<unsigned char>(((channels & 3) << 6) | (length >> 11));
    h[4] = static_cast<unsigned char>((length >> 3) & 0xFF);
    h[5] = static_cast<unsigned char>(((length & 7) << 5) | 0x1F);
    h[6] = 0xFC;
    return true;
}

OutputSink::OutputSink(const std::string& dir, long long frameLimit)
    : m_dir(dir), m_frameLimit(frameLimit) {}

OutputSink::~OutputSink() {
    for (FILE* f : {m_index, m_video, m_audio})
        if (f)
            fclose(f);
}

bool OutputSink::Open(std::string& error) {
    if (mkdir(m_dir.c_str(), 0700) != 0 && errno != EEXIST) {
        error = "cannot create " + m_dir + ": " + strerror(errno);
        return false;
    }
    m_index = OpenPrivate(m_dir + "/index.jsonl");
    if (!m_index) {
        error = "cannot write " + m_dir + "/index.jsonl: " + strerror(errno);
        return false;
    }
    return true;
}

FILE* OutputSink::StreamFile(int es, uint32_t codec) {
    FILE*& f = es == VIDEO_ES ? m_video : m_audio;
    if (!f)
        f = OpenPrivate(m_dir + "/" +
                        (es == VIDEO_ES ? VideoFileName(codec) : AudioFileName(codec)));
    return f;
}

void OutputSink::InitHandler(const ESFormat& video, const ESFormat& audio) {
    WriteFormats(video, audio);
    m_initialised = true;
}

int OutputSink::TransNotice2Mobile(const Json::Value& notice, Json::Value* reply) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    fprintf(stderr, "mobile notice: %s\n", Json::writeString(builder, notice).c_str());
    if (reply)
        (*reply)["success"] = true;
    return 0;
}

int OutputSink::ProcessMediaBlock(ESFormat& format, MediaBlock* block) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        WriteLocked(format.i_cat, format, block->GetFrame(), block->GetFrameSize(), block->GetPTS(),
                    block->GetDTS(), block->GetFlags());
    }
    delete block;
    return 0;
}

void OutputSink::WritePart(int es, const ESFormat& format, const unsigned char* data, size_t size,
                           long long pts, uint32_t flags) {
    std::lock_guard<std::mutex> lock(m_mutex);
    WriteLocked(es, format, data, size, pts, pts, flags);
}

void OutputSink::WriteLocked(int es, const ESFormat& format, const unsigned char* data, size_t size,
                             long long pts, long long dts, uint32_t flags) {
    if (m_limitReached || (es != VIDEO_ES && es != AUDIO_ES))
        return;
    StreamStats& stats = es == VIDEO_ES ? m_videoStats : m_audioStats;
    // The format grows as the stream reveals itself (sizes come with key frames).
    if (stats.blocks == 0 || (flags & 2))
        ESFormatCopy(es == VIDEO_ES ? m_videoFormat : m_audioFormat, format);
    FILE* f = StreamFile(es, format.i_codec);
    if (f) {
        unsigned char adts[7];
        if (es == AUDIO_ES && format.i_codec == kCodecMp4a && BuildAdtsHeader(format, size, adts))
            fwrite(adts, 1, sizeof(adts), f);
        if (size)
            fwrite(data, 1, size, f);
    }
    const std::string codec = CodecName(format.i_codec);
    fprintf(
        m_index,
        "{\"es\":\"%s\",\"codec\":\"%s\",\"pts\":%lld,\"dts\":%lld,\"flags\":%u,\"size\":%zu}\n",
        es == VIDEO_ES ? "video" : "audio", codec.c_str(), pts, dts, flags, size);

    if (stats.blocks == 0)
        stats.firstPts = pts;
    stats.lastPts = pts;
    stats.codec = codec;
    if (flags & 2) {
        if (stats.lastKeyIndex >= 0)
            stats.keyInterval = stats.blocks - stats.lastKeyIndex;
        stats.lastKeyIndex = stats.blocks;
        ++stats.keyFrames;
    }
    ++stats.blocks;
    stats.bytes += static_cast<long long>(size);
    if (es == VIDEO_ES && m_frameLimit > 0 && stats.blocks >= m_frameLimit) {
        m_limitReached = true;
        fflush(m_index);
        m_limitCv.notify_all();
    }
}

void OutputSink::WriteFormats(const ESFormat& video, const ESFormat& audio) {
    std::lock_guard<std::mutex> lock(m_mutex);
    WriteFormatsLocked(video, audio);
}

void OutputSink::WriteFormatsLocked(const ESFormat& video, const ESFormat& audio) {
    Json::Value root;
    Json::Value& v = root["video"];
    v["codec"] = CodecName(video.i_codec);
    v["width"] = video.video.i_visible_width ? video.video.i_visible_width : video.video.i_width;
    v["height"] =
        video.video.i_visible_height ? video.video.i_visible_height : video.video.i_height;
    v["fps"] = video.video.i_frame_rate_base
                   ? static_cast<double>(video.video.i_frame_rate) / video.video.i_frame_rate_base
                   : 0.0;
    v["extra"] = video.p_extra ? Hex(video.p_extra, video.i_extra) : "";
    Json::Value& a = root["audio"];
    a["codec"] = CodecName(audio.i_codec);
    a["rate"] = audio.audio.i_rate;
    a["channels"] = audio.audio.i_channels;
    a["extra"] = audio.p_extra ? Hex(audio.p_extra, audio.i_extra) : "";
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    if (FILE* f = OpenPrivate(m_dir + "/formats.json")) {
        std::string text = Json::writeString(builder, root) + "\n";
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
    }
}

void OutputSink::WaitForLimit(double seconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    auto reached = [this] { return m_limitReached.load(); };
    if (seconds < 0)
        m_limitCv.wait(lock, reached);
    else
        m_limitCv.wait_for(lock, std::chrono::duration<double>(seconds), reached);
}

void OutputSink::WriteLastFormats() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_videoStats.blocks + m_audioStats.blocks == 0)
        return;
    ESFormat video(m_videoFormat), audio(m_audioFormat);
    WriteFormatsLocked(video, audio);
}

StreamStats OutputSink::Video() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_videoStats;
}

StreamStats OutputSink::Audio() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_audioStats;
}

bool OutputSink::AnyDelivered() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_videoStats.blocks + m_audioStats.blocks > 0;
}

}  // namespace camfetch_tool
