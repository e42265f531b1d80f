// The header block in front of every payload the mobile client pushes: text lines separated
// by "\r\n", each cut at ':' and ' ' into a key and a value. Only the three keys below mean
// anything; other lines are ignored.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct MobilePayloadHeader {
    std::string contentType;    // "Content-Type"; empty when absent
    uint32_t contentLen = 0;    // "Content-Length"; 0 when absent or not a usable number
    bool hasTimestamp = false;  // "TimeStamp" present and a number
    long long timestampUs = 0;  // "TimeStamp", microseconds
};

// Parses the lines of one header block (without its terminating empty line). Hostile text
// gives an empty type or a zero length, never more than the bytes given are read.
MobilePayloadHeader ParseMobilePayloadHeader(std::string_view block);
