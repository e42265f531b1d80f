// Audio-side records of the packetizer state: the sample-accurate output date and the
// MPEG-4 audio / LATM multiplex configurations (ISO/IEC 14496-3).
#pragma once

#include <cstdint>

// Date of the next sample in microseconds, advanced by whole frames without rounding drift.
struct __tag_audio_date_t {
    int64_t date;
    uint32_t i_rate;
    uint32_t i_remainder;
};
typedef __tag_audio_date_t audio_date_t;

void aout_DateInit(audio_date_t* d, uint32_t rate);
void aout_DateSet(audio_date_t* d, int64_t date);
int64_t aout_DateGet(const audio_date_t* d);
void aout_DateMove(audio_date_t* d, int64_t delta);
int64_t aout_DateIncrement(audio_date_t* d, uint32_t samples);

// One decoded AudioSpecificConfig.
struct __tag_mpeg4_cfg_t {
    int i_object_type;
    int i_samplerate;
    int i_channel;
    int i_sbr;  // -1 unknown, 0 no, 1 yes
    int i_ps;
    int i_extension_object_type;
    int i_extension_samplerate;
    int i_frame_length;  // 1024 or 960 samples
    int i_extra;         // bytes of AudioSpecificConfig in p_extra
    uint8_t p_extra[64];
};
typedef __tag_mpeg4_cfg_t mpeg4_cfg_t;

constexpr int kLatmMaxStreams = 64;

// A StreamMuxConfig: the streams of a LATM multiplex and how their payloads are framed.
struct __tag_latm_mux_t {
    int i_version;
    int b_same_time_framing;
    int i_sub_frames;
    int i_programs;
    int pi_layers[16];
    int pi_stream[16][8];
    int i_streams;
    struct {
        mpeg4_cfg_t cfg;
        int i_frame_length_type;
        int i_frame_length;        // type 1
        int i_frame_length_index;  // types 3 to 7
    } stream[kLatmMaxStreams];
    uint32_t i_other_data;
    int16_t i_crc;
};
typedef __tag_latm_mux_t latm_mux_t;
