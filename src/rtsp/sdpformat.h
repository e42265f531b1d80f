// The stream formats an SDP media description stands for: codec code, rate, channels and
// the codec configuration (parameter sets, decoder configuration) as extra data. Pure
// functions over the description's texts, so that they can be checked without a session.
// SDP text comes from the camera: every field is treated as hostile.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/esformat.h"

// What the mapping needs of one "m=" section.
struct SdpMediaDesc {
    std::string medium;  // "video", "audio", ...
    std::string codec;   // rtpmap encoding name, upper case ("H264", "MPEG4-GENERIC")
    unsigned rtpFrequency = 0;
    unsigned channels = 0;
    std::string config;              // fmtp "config"
    std::string spropParameterSets;  // H.264
    std::string spropVps;            // H.265
    std::string spropSps;
    std::string spropPps;
};

// Standard base64 ('=' padding optional, white space ignored); false on any other byte.
bool SdpBase64Decode(std::string_view text, std::vector<uint8_t>& out);
// A parameter-set attribute as Annex B: every comma-separated piece decoded and each unit in
// it written once after 00 00 00 01; start codes that a piece carries itself are removed.
// Pieces that are not base64 are left out (and logged).
std::vector<uint8_t> SpropToAnnexB(std::string_view sprop);
// Hexadecimal text of a codec configuration is well formed (non-empty, even, hex digits).
bool IsHexConfig(std::string_view text);

// The video format of a description: category video, codec code, extra data. With
// dropExtra the SDP's configuration is not kept.
void MapSdpVideoFormat(const SdpMediaDesc& desc, bool dropExtra, ESFormat& fmt);
// The audio format: category audio, codec code, rate, channels, bits, bit rate, extra data.
void MapSdpAudioFormat(const SdpMediaDesc& desc, ESFormat& fmt);
