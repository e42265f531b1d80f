// Audio-side records of the packetizer state: the sample-accurate output date and the
// MPEG-4 audio / LATM multiplex configurations (ISO/IEC 14496-3).
#pragma once

#include <cstdint>

// Date of the next sample in microseconds, advanced by whole frames without rounding drift:
// the microseconds lost to integer division are kept in i_remainder (in 1/rate µs units).
struct __tag_audio_date_t {
    int64_t date;
    uint32_t i_rate;
    uint32_t i_remainder;
};
typedef __tag_audio_date_t audio_date_t;

// Sets the rate and clears the remainder.
void aout_DateInit(audio_date_t* d, uint32_t rate);
// Sets the date and clears the remainder.
void aout_DateSet(audio_date_t* d, int64_t date);
int64_t aout_DateGet(const audio_date_t* d);
void aout_DateMove(audio_date_t* d, int64_t delta);
// Moves the date on by samples at the rate and returns it; a date without a rate stays.
int64_t aout_DateIncrement(audio_date_t* d, uint32_t samples);

// The longest AudioSpecificConfig kept as bytes. Longer ones (a channel layout with a long
// comment) are refused rather than cut.
constexpr int kMpeg4MaxConfigBytes = 64;

// One decoded AudioSpecificConfig.
struct __tag_mpeg4_cfg_t {
    int i_object_type;
    int i_samplerate;  // Hz of the core coder
    int i_channel;     // channel configuration, or the channel count of a layout element
    int i_sbr;         // -1 unknown, 0 no, 1 yes
    int i_ps;
    int i_extension_object_type;
    int i_extension_samplerate;
    int i_frame_length;  // samples per frame of the core coder: 1024/960, 512/480
    int i_extra;         // bytes of AudioSpecificConfig in p_extra (bit-exact, zero-padded)
    uint8_t p_extra[kMpeg4MaxConfigBytes];
};
typedef __tag_mpeg4_cfg_t mpeg4_cfg_t;

// A multiplex may name up to 16 programs of up to 8 layers; more streams than this are
// refused (no camera sends more than one).
constexpr int kLatmMaxStreams = 64;

// A StreamMuxConfig: the streams of a LATM multiplex and how their payloads are framed.
struct __tag_latm_mux_t {
    int i_version;            // audioMuxVersion
    int b_same_time_framing;  // allStreamsSameTimeFraming
    int i_sub_frames;         // payloads per stream in one AudioMuxElement (1..64)
    int i_programs;
    int pi_layers[16];
    int pi_stream[16][8];  // stream index of each program's layer
    int i_streams;
    struct {
        mpeg4_cfg_t cfg;
        int i_frame_length_type;
        int i_frame_length;        // type 1: payload is this + 20 bytes
        int i_frame_length_index;  // types 3 to 7
    } stream[kLatmMaxStreams];
    uint32_t i_other_data;  // bits of other data after the payloads
    int16_t i_crc;          // -1 when absent
};
typedef __tag_latm_mux_t latm_mux_t;
