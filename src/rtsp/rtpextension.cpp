#include "rtsp/rtpextension.h"

namespace {
constexpr size_t kFixedHeaderSize = 12;
constexpr size_t kExtensionHeaderSize = 4;
constexpr uint8_t kVersion2 = 2;
}  // namespace

bool ParseRtpHeaderExtension(const uint8_t* packet, size_t size, RtpHeaderExtension& ext) {
    ext = RtpHeaderExtension();
    if (!packet || size < kFixedHeaderSize)
        return false;
    const uint8_t first = packet[0];
    if ((first >> 6) != kVersion2 || (first & 0x10) == 0)
        return false;
    const size_t csrcCount = first & 0x0F;
    const size_t offset = kFixedHeaderSize + 4 * csrcCount;
    if (size < offset + kExtensionHeaderSize)
        return false;
    const uint8_t* header = packet + offset;
    const uint16_t profile = static_cast<uint16_t>(header[0] << 8 | header[1]);
    const uint16_t words = static_cast<uint16_t>(header[2] << 8 | header[3]);
    const size_t total = kExtensionHeaderSize + 4 * static_cast<size_t>(words);
    if (size - offset < total)
        return false;
    ext.data = header;
    ext.size = total;
    ext.profile = profile;
    ext.words = words;
    return true;
}
