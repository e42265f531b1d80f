// Builders of small AAC byte streams for the packetizer tests: ADTS frames, AudioSpecific
// Configs and LOAS/LATM AudioMuxElements written bit by bit, and a driver that feeds a
// packetizer the way the stream packer does.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bit_writer.h"
#include "packetizer/mpeg4audiopacket.h"

namespace aactest {

// Deterministic payload bytes that never form an ADTS or LOAS sync word.
inline std::string Payload(size_t size, int seed = 0) {
    std::string p(size, '\0');
    for (size_t i = 0; i < size; ++i)
        p[i] = static_cast<char>((i * 7 + size_t(seed) * 13 + 3) & 0x7F);
    return p;
}

struct Adts {
    int index = 3;  // 48000 Hz
    int channels = 2;
    int profile = 1;  // AAC LC
    bool crc = false;
    int rawBlocks = 0;
    int lengthOverride = -1;  // frame_length field as written, -1 = the true length
};

// One ADTS frame around payload.
inline std::string AdtsFrame(const std::string& payload, const Adts& a = {}) {
    const int header = a.crc ? 9 : 7;
    const int len = a.lengthOverride >= 0 ? a.lengthOverride : int(payload.size()) + header;
    std::string h(size_t(header), '\0');
    h[0] = char(0xFF);
    h[1] = char(a.crc ? 0xF0 : 0xF1);
    h[2] = char((a.profile << 6) | (a.index << 2) | (a.channels >> 2));
    h[3] = char(((a.channels & 3) << 6) | ((len >> 11) & 3));
    h[4] = char((len >> 3) & 0xFF);
    h[5] = char(((len & 7) << 5) | 0x1F);
    h[6] = char(0xFC | a.rawBlocks);
    if (a.crc) {
        h[7] = 0x12;
        h[8] = 0x34;
    }
    return h + payload;
}

using testbits::BitWriter;

// LatmGetValue() syntax with the fewest bytes.
inline void PutLatmValue(BitWriter& w, uint32_t v) {
    int bytes = v > 0xFFFFFF ? 4 : v > 0xFFFF ? 3 : v > 0xFF ? 2 : 1;
    w.u(2, uint64_t(bytes - 1));
    w.u(8 * bytes, v);
}

// An AAC AudioSpecificConfig of 16 bits (GA, no extensions) or with the explicit rate.
inline void PutAsc(BitWriter& w, int objectType, int index, int channels, bool shortFrame = false,
                   int explicitRate = 0) {
    w.u(5, uint64_t(objectType));
    w.u(4, uint64_t(index));
    if (index == 15)
        w.u(24, uint64_t(explicitRate));
    w.u(4, uint64_t(channels));
    w.u(1, shortFrame);  // frameLengthFlag
    w.u(1, 0);           // dependsOnCoreCoder
    w.u(1, 0);           // extensionFlag
}

inline std::string Asc(int objectType, int index, int channels, bool shortFrame = false,
                       int explicitRate = 0) {
    BitWriter w;
    PutAsc(w, objectType, index, channels, shortFrame, explicitRate);
    w.align();
    return w.str();
}

// One AudioMuxElement (muxConfigPresent = 1) and its LOAS framing.
struct Latm {
    bool withConfig = true;  // useSameStreamMux = 0
    int version = 0;
    int versionA = 0;
    bool sameTimeFraming = true;
    int subFrames = 1;
    int layers = 1;  // streams of program 0; the layers after the first reuse its config
    int frameLengthType = 0;
    int index = 3;
    int channels = 2;
    int objectType = 2;
    bool crc = false;
    int ascFillBits = 0;         // version 1: ascLen less the config's 16 bits
    bool payloadAligned = true;  // pad the config with other-data groups until aligned
    int lengthOverride = -1;     // audioMuxLengthBytes as written, -1 = the true length
    int truncateTo = -1;         // keep only this many element bytes, -1 = all
};

inline void PutStreamMuxConfig(BitWriter& w, const Latm& l, int otherGroups) {
    w.u(1, uint64_t(l.version));
    if (l.version == 1) {
        w.u(1, uint64_t(l.versionA));
        PutLatmValue(w, 0xFF);  // taraBufferFullness
    }
    w.u(1, l.sameTimeFraming);
    w.u(6, uint64_t(l.subFrames - 1));
    w.u(4, 0);  // one program
    w.u(3, uint64_t(l.layers - 1));
    for (int lay = 0; lay < l.layers; ++lay) {
        if (lay > 0)
            w.u(1, 1);  // useSameConfig
        else if (l.version == 0)
            PutAsc(w, l.objectType, l.index, l.channels);
        else {
            PutLatmValue(w, uint32_t(16 + l.ascFillBits));
            PutAsc(w, l.objectType, l.index, l.channels);
            w.u(l.ascFillBits, 0);
        }
        w.u(3, uint64_t(l.frameLengthType));
        if (l.frameLengthType == 0)
            w.u(8, 0xFF);  // latmBufferFullness
        else if (l.frameLengthType == 1)
            w.u(9, 0);  // frameLength: payloads of 20 bytes
        else if (l.frameLengthType >= 3 && l.frameLengthType <= 5)
            w.u(6, 0);
        else if (l.frameLengthType >= 6)
            w.u(1, 0);
    }
    // otherDataLenBits of 0, written long: it moves the payloads against byte borders.
    w.u(1, otherGroups > 0);
    if (otherGroups > 0 && l.version == 1)
        PutLatmValue(w, 0);
    for (int g = 0; otherGroups > 0 && l.version == 0 && g < otherGroups; ++g) {
        w.u(1, g + 1 < otherGroups);
        w.u(8, 0);
    }
    w.u(1, l.crc);
    if (l.crc)
        w.u(8, 0x5A);
}

// The payloads go in subframe order, stream by stream; with chunked framing (no same-time
// framing) each subframe is one chunk per stream.
inline std::string LoasFrame(const std::vector<std::string>& payloads, const Latm& l = {}) {
    int groups = 0;  // 9-bit escaped groups of otherDataLenBits
    BitWriter w;
    for (int attempt = 0; attempt < 8; ++attempt) {
        w = BitWriter();
        w.u(1, !l.withConfig);
        if (l.withConfig)
            PutStreamMuxConfig(w, l, groups);
        const bool aligned = w.pos() % 8 == 0;
        if (!l.withConfig || l.frameLengthType != 0 || aligned == l.payloadAligned)
            break;
        ++groups;
    }
    const int streams = l.layers;
    size_t next = 0;
    for (int sub = 0; sub < l.subFrames; ++sub) {
        if (!l.sameTimeFraming)
            w.u(4, uint64_t(streams - 1));  // numChunk
        for (int st = 0; st < streams; ++st) {
            if (!l.sameTimeFraming)
                w.u(4, uint64_t(st));  // streamIndx
            if (l.frameLengthType == 0) {
                size_t len = next + size_t(st) < payloads.size() ? payloads[next + st].size() : 0;
                while (len >= 255) {
                    w.u(8, 255);
                    len -= 255;
                }
                w.u(8, len);
                if (!l.sameTimeFraming)
                    w.u(1, 1);  // AuEndFlag
            }
        }
        for (int st = 0; st < streams; ++st)
            if (next < payloads.size())
                w.bytes(payloads[next++]);
    }
    w.align();
    std::string element = w.str();
    if (l.truncateTo >= 0 && size_t(l.truncateTo) < element.size())
        element.resize(size_t(l.truncateTo));
    const int len = l.lengthOverride >= 0 ? l.lengthOverride : int(element.size());
    std::string h = {char(0x56), char(0xE0 | ((len >> 8) & 0x1F)), char(len & 0xFF)};
    return h + element;
}

struct Out {
    std::string bytes;
    long long pts, dts, length, timestamp;
};

// A packetizer on its own record, driven as the stream packer drives it: every block is
// followed by calls until null, each passing back what the previous call handed out.
class Driver {
public:
    explicit Driver(uint32_t codec = kCodecMp4a, const std::string& extra = "", int rate = 0) {
        stream.fmt.Reset(AUDIO_ES, codec);
        stream.fmt.SetExtra(extra.data(), int(extra.size()));
        stream.fmt.audio.i_rate = uint32_t(rate);
        initResult = packetizer.InitPacket(&stream);
    }
    ~Driver() { packetizer.FreePacket(&stream); }

    // Feeds one block; returns the number of frames it let out.
    size_t Feed(const std::string& data, long long pts, uint32_t flags = 0, long long arrival = 0,
                long long dts = -1) {
        MediaBlock* in =
            new MediaBlock(int(data.size()), reinterpret_cast<const unsigned char*>(data.data()));
        in->SetPTS(pts);
        in->SetDTS(dts < 0 ? pts : dts);
        in->SetFlags(flags);
        in->SetTimestamp(arrival);
        size_t before = out.size();
        while (MediaBlock* b = packetizer.Packetize(&stream, &in)) {
            out.push_back({std::string(reinterpret_cast<char*>(b->GetBuffer()), b->GetBufferSize()),
                           b->GetPTS(), b->GetDTS(), b->GetLength(), b->GetTimestamp()});
            delete b;
            EXPECT_LE(++calls, 1000000u) << "runaway loop";
        }
        EXPECT_EQ(in, nullptr);
        return out.size() - before;
    }
    // Feeds data in blocks of at most size bytes, the first with pts and the rest without.
    void FeedInPieces(const std::string& data, size_t size, long long pts) {
        for (size_t pos = 0; pos < data.size(); pos += size)
            Feed(data.substr(pos, size), pos == 0 ? pts : 0);
    }
    std::string Extra() const {
        return std::string(reinterpret_cast<const char*>(stream.fmt.p_extra),
                           size_t(stream.fmt.i_extra > 0 ? stream.fmt.i_extra : 0));
    }

    Mpeg4AudioPacketizer packetizer;
    PACK_STREAM stream;
    int initResult = 0;
    std::vector<Out> out;
    size_t calls = 0;
};

}  // namespace aactest
