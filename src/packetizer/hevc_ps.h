// Decoded HEVC parameter sets (ITU-T H.265 7.3.2): what the packetizer needs to tell slice
// types apart and to describe the stream (picture size, coding tree sizes, timing, colour).
// The decoders take one NAL unit without start code (its 2-byte header first) and return a
// new record owned by the caller, or null when the bytes do not decode.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct __tag_hevc_vps_t {
    uint8_t vps_id;
    uint8_t max_sub_layers_minus1;
    uint8_t general_profile_space;
    uint8_t general_tier_flag;
    uint8_t general_profile_idc;
    uint8_t general_level_idc;
    bool timing_info_present;
    uint32_t num_units_in_tick;
    uint32_t time_scale;
};
typedef __tag_hevc_vps_t hevc_vps_t;

struct hevc_vui_t {
    bool aspect_ratio_info_present;
    uint8_t aspect_ratio_idc;
    uint16_t sar_width;
    uint16_t sar_height;
    bool video_signal_type_present;
    uint8_t video_format;
    bool video_full_range;
    bool colour_description_present;
    uint8_t colour_primaries;
    uint8_t transfer_characteristics;
    uint8_t matrix_coeffs;
    bool field_seq;
    bool timing_info_present;
    uint32_t num_units_in_tick;
    uint32_t time_scale;
};

struct __tag_hevc_sps_t {
    uint8_t vps_id;
    uint8_t max_sub_layers_minus1;
    uint8_t sps_id;
    uint8_t general_profile_idc;
    uint8_t general_level_idc;
    uint8_t chroma_format_idc;
    bool separate_colour_plane;
    uint32_t pic_width;  // in luma samples, before the conformance window
    uint32_t pic_height;
    uint32_t conf_win_left;  // in chroma units, as coded
    uint32_t conf_win_right;
    uint32_t conf_win_top;
    uint32_t conf_win_bottom;
    uint8_t bit_depth_luma;
    uint8_t bit_depth_chroma;
    uint8_t log2_max_poc_lsb;
    uint8_t log2_min_cb_size;
    uint8_t log2_ctb_size;
    uint8_t log2_min_tb_size;
    uint8_t log2_max_tb_size;
    uint8_t num_short_term_ref_pic_sets;
    bool long_term_ref_pics_present;
    bool vui_present;
    hevc_vui_t vui;
};
typedef __tag_hevc_sps_t hevc_sps_t;

struct __tag_hevc_pps_t {
    uint8_t pps_id;
    uint8_t sps_id;
    bool dependent_slice_segments_enabled;
    bool output_flag_present;
    uint8_t num_extra_slice_header_bits;
};
typedef __tag_hevc_pps_t hevc_pps_t;

std::unique_ptr<hevc_vps_t> hevc_decode_vps(const uint8_t* nal, size_t size);
std::unique_ptr<hevc_sps_t> hevc_decode_sps(const uint8_t* nal, size_t size);
// sps_seq_parameter_set_id (0..15) of an SPS, or -1 when the bits in front of it do not read.
int hevc_sps_id(const uint8_t* nal, size_t size);
std::unique_ptr<hevc_pps_t> hevc_decode_pps(const uint8_t* nal, size_t size);

// The visible picture size of an SPS (the conformance window applied).
uint32_t hevc_sps_width(const hevc_sps_t* sps);
uint32_t hevc_sps_height(const hevc_sps_t* sps);

// slice_type (0 B, 1 P, 2 I) of the slice segment nal (2-byte header first) with the
// tables it refers to; -1 when it cannot be read (unknown PPS or SPS, values out of range).
int hevc_slice_type(const uint8_t* nal, size_t size, uint8_t nalType,
                    hevc_pps_t* const ppsTable[64], hevc_sps_t* const spsTable[16]);
