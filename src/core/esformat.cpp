#include "core/esformat.h"

#include <cstdlib>
#include <cstring>

ESFormat::ESFormat(const ESFormat& other) {
    ESFormatCopy(*this, other);
}

ESFormat& ESFormat::operator=(const ESFormat& other) {
    if (this != &other)
        ESFormatCopy(*this, other);
    return *this;
}

ESFormat::~ESFormat() {
    if (p_extra)
        free(p_extra);
    p_extra = nullptr;
}

void ESFormat::Reset(int cat, uint32_t codec) {
    ESFormat fresh;
    fresh.i_cat = cat;
    fresh.i_codec = codec;
    ESFormatCopy(*this, fresh);
}

bool ESFormat::SetExtra(const void* data, int size) {
    if (p_extra)
        free(p_extra);
    p_extra = nullptr;
    i_extra = 0;
    if (size < 1 || !data)
        return size < 1;
    p_extra = static_cast<uint8_t*>(malloc(size));
    if (!p_extra)
        return false;
    memcpy(p_extra, data, size);
    i_extra = size;
    return true;
}

void ESFormatCopy(ESFormat& dst, const ESFormat& src) {
    if (&dst == &src)
        return;
    dst.i_cat = src.i_cat;
    dst.i_codec = src.i_codec;
    dst.i_id = src.i_id;
    dst.i_group = src.i_group;
    dst.i_profile = src.i_profile;
    dst.i_level = src.i_level;
    dst.audio = src.audio;
    dst.video = src.video;
    dst.b_packetized = src.b_packetized;
    dst.i_bitrate = src.i_bitrate;
    dst.llFirstPTS = src.llFirstPTS;
    dst.llPrevPTS = src.llPrevPTS;
    dst.llLastPTS = src.llLastPTS;
    dst.uAvgDiff = src.uAvgDiff;

    if (dst.p_extra)
        free(dst.p_extra);
    dst.p_extra = nullptr;
    dst.i_extra = 0;
    // A count without bytes (a broken record) gives an empty copy, never a dangling one.
    if (src.i_extra >= 1 && src.p_extra) {
        dst.p_extra = static_cast<uint8_t*>(malloc(src.i_extra));
        if (dst.p_extra) {
            memcpy(dst.p_extra, src.p_extra, src.i_extra);
            dst.i_extra = src.i_extra;
        }
    }
    dst.strDescription = src.strDescription;
}

std::string GetCodec(unsigned int codec) {
    char text[5] = {char(codec & 0xFF), char((codec >> 8) & 0xFF), char((codec >> 16) & 0xFF),
                    char((codec >> 24) & 0xFF), 0};
    return std::string(text);
}

int Codec2VideoType(int codec) {
    switch (static_cast<uint32_t>(codec)) {
        case kCodecJpeg:
        case kCodecMjpg:
            return 1;
        case kCodecMp4v:
        case kCodecMpgv:
            return 2;
        case kCodecAvc1:
        case kCodecH264:
            return 3;
        case kCodecMxpg:
            return 5;
        case kCodecHev1:
        case kCodecHevc:
            return 6;
        default:
            return 0;
    }
}

int Codec2AudioType(int codec) {
    switch (static_cast<uint32_t>(codec)) {
        case kCodecS16b:
            return 1;
        case kCodecAlaw:
        case kCodecUlaw:
            return 2;
        case kCodecG726:
            return 3;
        case kCodecMpga:
        case kCodecMp4a:
            return 4;
        case kCodecSamr:
        case kCodecSawb:
            return 5;
        default:
            return 0;
    }
}
