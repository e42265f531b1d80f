// Builders for crafted video units: emulation prevention, and small H.264,
// HEVC and MPEG-4 Part 2 headers with just the fields the packetizer reads, so that a test
// states the stream it means ("an SPS with a crop window") instead of opaque bytes.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "bit_writer.h"
#include "core/mediablock.h"
#include "packetizer/packetizer.h"

namespace nal {

using testbits::BitWriter;

// Inserts emulation-prevention bytes: 00 00 followed by 00..03 gets a 03 in between.
inline std::string Escape(const std::string& rbsp) {
    std::string out;
    int zeros = 0;
    for (char c : rbsp) {
        const uint8_t b = static_cast<uint8_t>(c);
        if (zeros >= 2 && b <= 3) {
            out += '\x03';
            zeros = 0;
        }
        out += c;
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
}

inline std::string Bytes(std::initializer_list<int> v) {
    std::string out;
    for (int b : v)
        out += static_cast<char>(b);
    return out;
}

const std::string kStart4 = Bytes({0, 0, 0, 1});

// ---- H.264 ----

struct H264Sps {
    int profile = 66;
    int id = 0;
    int chromaFormat = 1;  // written for the high profiles only
    bool frameMbsOnly = true;
    int widthMbs = 20;
    int heightMapUnits = 15;
    bool crop = false;
    int cropLeft = 0, cropRight = 0, cropTop = 0, cropBottom = 0;
    bool vui = false;
    int aspectIdc = 0;  // 0 = no aspect information
    int sarWidth = 0, sarHeight = 0;
};

// The NAL unit (header byte first, no start code).
inline std::string Sps(const H264Sps& o) {
    BitWriter w;
    w.u(8, static_cast<uint64_t>(o.profile));
    w.u(16, 0x001e);  // constraint flags, level 3.0
    w.ue(static_cast<uint32_t>(o.id));
    if (o.profile == 100 || o.profile == 110 || o.profile == 122 || o.profile == 244) {
        w.ue(static_cast<uint32_t>(o.chromaFormat));
        if (o.chromaFormat == 3)
            w.bit(0);
        w.ues({0, 0});
        w.bits({0, 0});  // no scaling matrices
    }
    // Frame numbers of 4 bits, order count type 0 with 6-bit LSBs, one reference frame.
    w.ues({0, 0, 2, 1});
    w.bit(0);  // gaps
    w.ue(static_cast<uint32_t>(o.widthMbs - 1));
    w.ue(static_cast<uint32_t>(o.heightMapUnits - 1));
    w.bit(o.frameMbsOnly);
    if (!o.frameMbsOnly)
        w.bit(0);
    w.bit(1);  // direct_8x8_inference
    w.bit(o.crop);
    if (o.crop) {
        w.ue(static_cast<uint32_t>(o.cropLeft));
        w.ue(static_cast<uint32_t>(o.cropRight));
        w.ue(static_cast<uint32_t>(o.cropTop));
        w.ue(static_cast<uint32_t>(o.cropBottom));
    }
    w.bit(o.vui);
    if (o.vui) {
        w.bit(o.aspectIdc != 0);
        if (o.aspectIdc) {
            w.u(8, static_cast<uint64_t>(o.aspectIdc));
            if (o.aspectIdc == 255) {
                w.u(16, static_cast<uint64_t>(o.sarWidth));
                w.u(16, static_cast<uint64_t>(o.sarHeight));
            }
        }
        w.u(8, 0);  // no further VUI
    }
    w.trailing();
    return Bytes({0x67}) + Escape(w.str());
}

struct H264Pps {
    int id = 0;
    int spsId = 0;
};

inline std::string Pps(const H264Pps& o) {
    BitWriter w;
    w.ue(static_cast<uint32_t>(o.id));
    w.ue(static_cast<uint32_t>(o.spsId));
    w.bits({0, 0});     // CAVLC, no bottom-field order
    w.ues({0, 0, 0});   // one slice group, one reference each way
    w.bits({0, 0, 0});  // no weighted prediction
    w.ues({0, 0, 0});   // QP and chroma offsets of 0 (se(0) is written as ue(0))
    w.bits({1, 0, 0});
    w.trailing();
    return Bytes({0x68}) + Escape(w.str());
}

struct H264Slice {
    int nalType = 1;  // 5 for IDR
    int refIdc = 2;
    int sliceType = 0;  // 0 P, 1 B, 2 I (+5 for "all slices of the picture")
    int ppsId = 0;
    int frameNum = 0;
    int idrPicId = 0;
    int pocLsb = 0;
};

inline std::string Slice(const H264Slice& o, const H264Sps& sps) {
    BitWriter w;
    w.ue(0);  // first_mb_in_slice
    w.ue(static_cast<uint32_t>(o.sliceType));
    w.ue(static_cast<uint32_t>(o.ppsId));
    w.u(4, static_cast<uint64_t>(o.frameNum));
    if (!sps.frameMbsOnly)
        w.bit(0);  // a frame picture
    if (o.nalType == 5)
        w.ue(static_cast<uint32_t>(o.idrPicId));
    w.u(6, static_cast<uint64_t>(o.pocLsb));
    for (int i = 0; i < 24; ++i)
        w.u(8, 0xa5u ^ static_cast<unsigned>(i));
    w.trailing();
    return Bytes({(o.refIdc << 5) | o.nalType}) + Escape(w.str());
}

inline std::string Aud() {
    return Bytes({0x09, 0xf0});
}

// An SEI with one ATSC A/53 caption message carrying the given cc triplets.
inline std::string CaptionSei(const std::vector<std::array<uint8_t, 3>>& triplets) {
    std::string payload = Bytes({0xb5, 0x00, 0x31, 'G', 'A', '9', '4', 0x03,
                                 0x40 | static_cast<int>(triplets.size()), 0xff});
    for (const auto& t : triplets)
        payload += Bytes({t[0], t[1], t[2]});
    payload += '\xff';
    std::string rbsp = Bytes({4, static_cast<int>(payload.size())}) + payload + Bytes({0x80});
    return Bytes({0x06}) + Escape(rbsp);
}

// ---- HEVC ----

inline void HevcProfileTierLevel(BitWriter& w) {
    w.u(2, 0);
    w.bit(0);
    w.u(5, 1);  // Main
    w.u(32, 0x60000000);
    w.u(4, 0x9);
    w.u(44, 0);
    w.u(8, 93);  // level 3.1
}

inline std::string HevcHeader(int type) {
    return Bytes({type << 1, 1});
}

struct HevcVps {
    bool timing = false;  // 25 pictures a second when written
};

// VPS id 0, one sub-layer, one layer set.
inline std::string Vps(const HevcVps& o) {
    BitWriter w;
    w.u(4, 0);
    w.u(2, 3);
    w.u(6, 0);
    w.u(3, 0);  // max_sub_layers_minus1
    w.bit(1);
    w.u(16, 0xffff);
    HevcProfileTierLevel(w);
    w.bit(1);
    w.ues({4, 2, 0});
    w.u(6, 0);
    w.ue(0);
    w.bit(o.timing);
    if (o.timing) {
        w.u(32, 1);
        w.u(32, 25);
        w.bit(0);
        w.ue(0);
    }
    w.bit(0);
    w.trailing();
    return HevcHeader(32) + Escape(w.str());
}

struct HevcSps {
    int id = 0;
    int vpsId = 0;
    uint32_t width = 320;
    uint32_t height = 240;
    int confBottom = 0;     // in chroma rows (4:2:0: two luma rows each)
    bool interRps = false;  // two short-term sets, the second predicted from the first
    bool vui = false;
    bool vuiTiming = false;
    uint32_t unitsInTick = 1001;
    uint32_t timeScale = 30000;
    bool colour = false;
    int primaries = 1, transfer = 1, matrix = 1;
    bool fullRange = false;
};

inline std::string Sps(const HevcSps& o) {
    BitWriter w;
    w.u(4, static_cast<uint64_t>(o.vpsId));
    w.u(3, 0);
    w.bit(1);
    HevcProfileTierLevel(w);
    w.ue(static_cast<uint32_t>(o.id));
    w.ue(1);  // 4:2:0
    w.ue(o.width);
    w.ue(o.height);
    w.bit(o.confBottom != 0);
    if (o.confBottom)
        w.ues({0, 0, 0, static_cast<uint32_t>(o.confBottom)});
    w.ues({0, 0, 4});  // 8-bit samples, 8-bit POC LSBs
    w.bit(1);
    w.ues({4, 2, 0});
    w.ues({0, 3});  // min CB 8, CTB 64
    w.ues({0, 3, 1, 1});
    w.bits({0, 1, 1, 0});  // no scaling lists, no PCM
    if (o.interRps) {
        w.ue(2);
        // Set 0: two pictures before (-1, -3).
        w.ues({2, 0, 0});
        w.bit(1);
        w.ue(1);
        w.bit(1);
        // Set 1 from set 0, shifted by -1: (-2, -4) and -1 itself.
        w.bit(1);
        w.bit(1);           // delta_rps_sign: negative
        w.ue(0);            // abs_delta_rps_minus1
        w.bits({1, 1, 1});  // used_by_curr_pic_flag
    } else {
        w.ue(0);
    }
    w.bits({0, 1, 1});  // no long-term pictures
    w.bit(o.vui);
    if (o.vui) {
        w.bits({0, 0});  // no aspect, no overscan
        w.bit(o.colour || o.fullRange);
        if (o.colour || o.fullRange) {
            w.u(3, 5);
            w.bit(o.fullRange);
            w.bit(o.colour);
            if (o.colour) {
                w.u(8, static_cast<uint64_t>(o.primaries));
                w.u(8, static_cast<uint64_t>(o.transfer));
                w.u(8, static_cast<uint64_t>(o.matrix));
            }
        }
        w.bits({0, 0, 0, 0, 0});  // up to the default display window
        w.bit(o.vuiTiming);
        if (o.vuiTiming) {
            w.u(32, o.unitsInTick);
            w.u(32, o.timeScale);
            w.bits({0, 0});  // no HRD
        }
        w.bit(0);  // bitstream restriction
    }
    w.bit(0);  // extensions
    w.trailing();
    return HevcHeader(33) + Escape(w.str());
}

struct HevcPps {
    int id = 0;
    int spsId = 0;
    bool outputFlagPresent = false;
    int extraBits = 0;
};

inline std::string Pps(const HevcPps& o) {
    BitWriter w;
    w.ue(static_cast<uint32_t>(o.id));
    w.ue(static_cast<uint32_t>(o.spsId));
    w.bit(0);
    w.bit(o.outputFlagPresent);
    w.u(3, static_cast<uint64_t>(o.extraBits));
    w.bits({0, 0});
    w.ues({0, 0, 0});  // the last is se(0)
    w.u(4, 0);
    w.ues({0, 0});  // se(0) twice
    w.u(8, 0);
    w.ue(0);
    w.u(2, 0);
    w.trailing();
    return HevcHeader(34) + Escape(w.str());
}

struct HevcSlice {
    int nalType = 1;
    bool firstInPicture = true;
    int ppsId = 0;
    int extraBits = 0;
    int sliceType = 1;  // 0 B, 1 P, 2 I
};

inline std::string Slice(const HevcSlice& o) {
    BitWriter w;
    w.bit(o.firstInPicture);
    if (o.nalType >= 16 && o.nalType <= 23)
        w.bit(0);
    w.ue(static_cast<uint32_t>(o.ppsId));
    if (o.firstInPicture) {
        w.u(o.extraBits, 0);
        w.ue(static_cast<uint32_t>(o.sliceType));
    } else {
        w.u(5, 1);  // slice_segment_address of a 320x240 picture of 64x64 CTBs (20 CTBs)
    }
    for (int i = 0; i < 24; ++i)
        w.u(8, 0x5au ^ static_cast<unsigned>(i));
    w.trailing();
    return HevcHeader(o.nalType) + Escape(w.str());
}

// ---- MPEG-4 Part 2 ----

struct Vol {
    int resolution = 25;
    bool fixedRate = false;
    int fixedIncrement = 1;
    int width = 176;
    int height = 144;
    bool marker = true;  // the marker bit in front of vop_time_increment_resolution
};

inline std::string VolUnit(const Vol& o) {
    BitWriter w;
    w.bit(0);
    w.u(8, 1);  // simple object
    w.bit(0);   // no object layer identifier
    w.u(4, 1);  // square pixels
    w.bit(0);   // no control parameters
    w.u(2, 0);  // rectangular
    w.bit(o.marker);
    w.u(16, static_cast<uint64_t>(o.resolution));
    w.bit(1);
    w.bit(o.fixedRate);
    if (o.fixedRate) {
        int bits = 1;
        while ((1 << bits) < o.resolution)
            ++bits;
        w.u(bits, static_cast<uint64_t>(o.fixedIncrement));
    }
    w.bit(1);
    w.u(13, static_cast<uint64_t>(o.width));
    w.bit(1);
    w.u(13, static_cast<uint64_t>(o.height));
    w.bit(1);
    w.bit(0);  // not interlaced
    w.bit(1);  // obmc disable
    w.trailing();
    return Bytes({0, 0, 1, 0x20}) + w.str();
}

struct Vop {
    int codingType = 0;  // 0 I, 1 P, 2 B, 3 S
    int moduloSeconds = 0;
    int increment = 0;
    bool marker = true;
};

inline std::string VopUnit(const Vop& o, const Vol& vol) {
    BitWriter w;
    w.u(2, static_cast<uint64_t>(o.codingType));
    for (int i = 0; i < o.moduloSeconds; ++i)
        w.bit(1);
    w.bit(0);
    w.bit(o.marker);
    int bits = 1;
    while ((1 << bits) < vol.resolution)
        ++bits;
    w.u(bits, static_cast<uint64_t>(o.increment));
    w.bit(1);
    for (int i = 0; i < 16; ++i)
        w.u(8, 0x3cu ^ static_cast<unsigned>(i));
    w.trailing();
    return Bytes({0, 0, 1, 0xb6}) + w.str();
}

}  // namespace nal
