// The header extension of a raw RTP packet (RFC 3550 5.3.1), found by walking the fixed
// header and the CSRC list. Pure and bounds-checked: the packet comes from the network.
#pragma once

#include <cstddef>
#include <cstdint>

struct RtpHeaderExtension {
    const uint8_t* data = nullptr;  // the extension with its own header: profile word, length
    size_t size = 0;                // 4 + 4 * words
    uint16_t profile = 0;           // defined by profile (0xBEDE one-byte form, 0xABAC, ...)
    uint16_t words = 0;             // length field: 32-bit words after the extension header
};

// True when the packet is RTP version 2 with the X bit set and the whole extension lies
// inside it; ext then points into the packet.
bool ParseRtpHeaderExtension(const uint8_t* packet, size_t size, RtpHeaderExtension& ext);
