#include "rtsp/rtpextension.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// An RTP packet: version, X bit, CSRC count, then optionally an extension and a payload.
struct PacketShape {
    int version = 2;
    bool x = true;
    int csrcs = 0;
    bool withExtensionHeader = true;
    uint16_t profile = 0xABAC;
    uint16_t words = 0;
    int wordsPresent = -1;  // extension words actually written (-1: as many as announced)
    int payload = 10;
};

Bytes MakePacket(const PacketShape& s) {
    const auto first = static_cast<uint8_t>(s.version << 6 | (s.x ? 0x10 : 0) | s.csrcs);
    Bytes p = {first, 0x60, 0x12, 0x34, 0, 0, 0x10, 0, 0xDE, 0xAD, 0xBE, 0xEF};
    for (int i = 0; i < s.csrcs; ++i)
        p.insert(p.end(), {0xC0, 0xC1, 0xC2, static_cast<uint8_t>(i)});
    if (s.withExtensionHeader) {
        p.insert(p.end(), {static_cast<uint8_t>(s.profile >> 8), static_cast<uint8_t>(s.profile),
                           static_cast<uint8_t>(s.words >> 8), static_cast<uint8_t>(s.words)});
        const int words = s.wordsPresent < 0 ? s.words : s.wordsPresent;
        for (int i = 0; i < words * 4; ++i)
            p.push_back(static_cast<uint8_t>(0x80 + i));
    }
    p.insert(p.end(), static_cast<size_t>(s.payload), 0x55);
    return p;
}

TEST(RtpHeaderExtension, FoundBehindHeaderAndCsrcs) {
    struct Case {
        const char* what;
        PacketShape shape;
        bool found;
        size_t offset;  // of the extension in the packet
        size_t size;
    };
    auto shape = [](auto change) {
        PacketShape s;
        change(s);
        return s;
    };
    const Case cases[] = {
        {"three words", shape([](PacketShape& s) { s.words = 3; }), true, 12, 16},
        {"no words", shape([](PacketShape&) {}), true, 12, 4},
        {"two csrcs", shape([](PacketShape& s) { s.csrcs = 2, s.words = 1; }), true, 20, 8},
        {"fifteen csrcs", shape([](PacketShape& s) { s.csrcs = 15, s.words = 2; }), true, 72, 12},
        {"no payload", shape([](PacketShape& s) { s.words = 2, s.payload = 0; }), true, 12, 12},
        {"one-byte form", shape([](PacketShape& s) { s.profile = 0xBEDE, s.words = 1; }), true, 12,
         8},
        {"X bit clear", shape([](PacketShape& s) { s.x = false; }), false, 0, 0},
        {"version 1", shape([](PacketShape& s) { s.version = 1; }), false, 0, 0},
        {"version 0", shape([](PacketShape& s) { s.version = 0; }), false, 0, 0},
        {"length beyond packet",
         shape([](PacketShape& s) { s.words = 200, s.wordsPresent = 2, s.payload = 0; }), false, 0,
         0},
        {"maximum length beyond packet",
         shape([](PacketShape& s) { s.words = 0xFFFF, s.wordsPresent = 1, s.payload = 0; }), false,
         0, 0},
        {"extension header cut",
         shape([](PacketShape& s) { s.withExtensionHeader = false, s.payload = 3; }), false, 0, 0},
        {"csrcs beyond packet",
         shape([](PacketShape& s) { s.csrcs = 15, s.withExtensionHeader = false, s.payload = 0; }),
         false, 0, 0},
    };
    for (const Case& c : cases) {
        const Bytes packet = MakePacket(c.shape);
        RtpHeaderExtension ext;
        EXPECT_EQ(ParseRtpHeaderExtension(packet.data(), packet.size(), ext), c.found) << c.what;
        if (!c.found) {
            EXPECT_EQ(ext.data, nullptr) << c.what;
            continue;
        }
        EXPECT_EQ(ext.data, packet.data() + c.offset) << c.what;
        EXPECT_EQ(ext.size, c.size) << c.what;
        EXPECT_EQ(ext.profile, c.shape.profile) << c.what;
        EXPECT_EQ(ext.words, c.shape.words) << c.what;
    }
}

TEST(RtpHeaderExtension, ShortOrMissingPacketsAreNotRead) {
    const Bytes packet = MakePacket(PacketShape());
    RtpHeaderExtension ext;
    for (size_t size = 0; size < 16; ++size)
        EXPECT_FALSE(ParseRtpHeaderExtension(packet.data(), size, ext)) << size;
    EXPECT_TRUE(ParseRtpHeaderExtension(packet.data(), 16, ext));
    EXPECT_FALSE(ParseRtpHeaderExtension(nullptr, 100, ext));
}

}  // namespace
