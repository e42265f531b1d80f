// The stream format record (one per elementary stream), the MediaES numbering and the codec
// vocabulary. An ESFormat owns its extra data (malloc'ed); copying it duplicates the bytes.
#pragma once

#include <cstdint>
#include <string>

enum MediaES { UNKNOWN_ES = 0, VIDEO_ES = 1, AUDIO_ES = 2 };

// A codec code is four ASCII characters read as a big-endian number: "h264" = 0x68323634.
constexpr uint32_t FourCC(const char (&s)[5]) {
    return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) |
           (uint32_t(uint8_t(s[2])) << 8) | uint32_t(uint8_t(s[3]));
}

constexpr uint32_t kCodecH264 = FourCC("h264");
constexpr uint32_t kCodecAvc1 = FourCC("avc1");
constexpr uint32_t kCodecHevc = FourCC("hevc");
constexpr uint32_t kCodecHev1 = FourCC("hev1");
constexpr uint32_t kCodecMp4v = FourCC("mp4v");
constexpr uint32_t kCodecMpgv = FourCC("mpgv");
constexpr uint32_t kCodecJpeg = FourCC("jpeg");
constexpr uint32_t kCodecMjpg = FourCC("MJPG");
constexpr uint32_t kCodecMxpg = FourCC("MXPG");
constexpr uint32_t kCodecMp4a = FourCC("mp4a");
constexpr uint32_t kCodecMpga = FourCC("mpga");
constexpr uint32_t kCodecAlaw = FourCC("alaw");
constexpr uint32_t kCodecUlaw = FourCC("ulaw");
constexpr uint32_t kCodecG726 = FourCC("g726");
constexpr uint32_t kCodecS16b = FourCC("s16b");
constexpr uint32_t kCodecSamr = FourCC("samr");
constexpr uint32_t kCodecSawb = FourCC("sawb");

struct __tag_audio_format_t {
    uint32_t i_format;
    uint32_t i_rate;  // Hz
    uint32_t i_physical_channels;
    uint32_t i_original_channels;
    uint32_t i_bytes_per_frame;
    uint32_t i_frame_length;   // samples per frame: 1024, or 960 for short AAC frames
    uint32_t i_bitspersample;  // 8 for G.711
    uint32_t i_blockalign;
    uint32_t i_channels;  // channel count / AAC channel configuration
};
typedef __tag_audio_format_t audio_format_t;

struct __tag_video_format_t {
    uint32_t i_width;  // coded picture size in pixels
    uint32_t i_height;
    uint32_t i_visible_width;  // after cropping
    uint32_t i_visible_height;
    uint32_t i_x_offset;
    uint32_t i_y_offset;
    uint32_t i_sar_num;  // sample aspect ratio
    uint32_t i_sar_den;
    uint32_t i_aspect;      // display aspect scaled by 432000
    uint32_t i_frame_rate;  // frames per second = rate / base; 0 = unknown
    uint32_t i_frame_rate_base;
    uint32_t i_bits_per_pixel;
    uint32_t i_primaries;  // colour description codes of the VUI; 0 = unknown
    uint32_t i_transfer;
    uint32_t i_matrix;
    uint32_t b_full_range;
    uint32_t i_ctb_size;  // HEVC coding tree block size, 0 for other codecs
    uint32_t i_min_cb_size;
};
typedef __tag_video_format_t video_format_t;

struct ESFormat {
    int32_t i_cat = 0;  // MediaES
    uint32_t i_codec = 0;
    int32_t i_id = 0;
    int32_t i_group = 0;
    int32_t i_profile = 0;
    int32_t i_level = 0;
    audio_format_t audio{};
    video_format_t video{};
    bool b_packetized = false;
    int32_t i_extra = 0;
    uint8_t* p_extra = nullptr;  // malloc'ed, owned
    int32_t i_bitrate = 0;
    // The stream packer's time line (timestamp repair); zero in a fresh format.
    int64_t llFirstPTS = 0;
    int64_t llPrevPTS = 0;
    int64_t llLastPTS = 0;
    uint32_t uAvgDiff = 0;
    std::string strDescription;

    ESFormat() = default;
    ESFormat(const ESFormat& other);
    ESFormat& operator=(const ESFormat& other);
    ~ESFormat();

    // Back to an empty record of the given category and codec; frees the extra data.
    void Reset(int cat = UNKNOWN_ES, uint32_t codec = 0);
    // Replaces the extra data by a copy of size bytes (none when size < 1 or data is null).
    bool SetExtra(const void* data, int size);
};

// Copies every field of src into dst with dst getting its own copy of the extra data.
void ESFormatCopy(ESFormat& dst, const ESFormat& src);

// The four bytes of a code as text, least significant byte first ("h264" prints as "462h").
std::string GetCodec(unsigned int codec);
// The host's numbering of video and audio types; 0 for codes not listed.
int Codec2VideoType(int codec);
int Codec2AudioType(int codec);
