// Line-21 caption pairs from the four user-data forms cameras and encoders use: ATSC A/53
// ("GA94"), DVD, ReplayTV and SCTE-20. Every read is bounded by the payload size.
#include "packetizer/cc.h"

#include "packer/bitstream.h"

namespace {

void Store(CC_DATA* cc, int type, uint8_t b1, uint8_t b2) {
    cc->present[2 * type] = true;
    cc->present[2 * type + 1] = true;
    cc->data[cc->size + 0] = static_cast<uint8_t>(type);
    cc->data[cc->size + 1] = b1;
    cc->data[cc->size + 2] = b2;
    cc->size += 3;
}

bool Extract608(CC_DATA* cc, const uint8_t* src, int size) {
    if (!(src[0] == 'G' && src[1] == 'A' && src[2] == '9' && src[3] == '4'))
        return false;
    if (size < 8 || src[4] != 3)
        return true;
    const int count = src[5] & 0x1f;
    if (!(src[5] & 0x40) || count == 0)
        return true;
    const int marker = 7 + 3 * count;
    if (size <= marker || src[marker] != 0xff)
        return true;
    for (int i = 0; i < count; ++i) {
        const uint8_t* t = src + 7 + 3 * i;
        const int type = t[0] & 0x03;
        // Five marker bits and cc_valid; types 2 and 3 carry DTVCC packets, not line 21.
        if ((t[0] & 0xfc) == 0xfc && type <= 1 && cc->size < kCcDataMax - 2)
            Store(cc, type, t[1], t[2]);
    }
    cc->reorder = true;
    return true;
}

bool ExtractDvd(CC_DATA* cc, const uint8_t* src, int size) {
    if (!(src[0] == 0x43 && src[1] == 0x43 && src[2] == 0x01 && src[3] == 0xf8))
        return false;
    if (size < 6)
        return true;
    const int count = (src[4] >> 1) & 15;
    const bool truncated = (src[4] & 1) != 0;
    const int fieldFirst = (src[4] & 0x80) ? 0 : 1;
    if (size < 5 + 6 * count - (truncated ? 3 : 0))
        return true;
    cc->reorder = false;
    for (int i = 0; i < count; ++i) {
        for (int j = 0; j < 2; ++j) {
            if (j == 1 && truncated && i == count - 1)
                break;
            const uint8_t* t = src + 5 + 6 * i + 3 * j;
            if ((t[0] == 0xfe || t[0] == 0xff) && cc->size < kCcDataMax - 2)
                Store(cc, j ^ fieldFirst, t[1], t[2]);
        }
    }
    return true;
}

bool ExtractReplayTv(CC_DATA* cc, const uint8_t* src, int size) {
    if (size < 8)
        return false;
    const bool form1 = src[0] == 0xbb && src[1] == 0x02 && src[4] == 0xcc && src[5] == 0x02;
    const bool form2 = src[0] == 0x99 && src[1] == 0x02 && src[4] == 0xaa && src[5] == 0x02;
    if (!form1 && !form2)
        return false;
    if (cc->size <= kCcDataMax - 6) {
        Store(cc, 1, src[2], src[3]);
        Store(cc, 0, src[6], src[7]);
        for (bool& p : cc->present)
            p = true;
    }
    cc->reorder = false;
    return true;
}

uint8_t ReadReversedByte(BIT_STREAM* bs) {
    uint8_t v = 0;
    for (int i = 0; i < 8; ++i)
        v |= static_cast<uint8_t>(BitStreamRead1(bs) << i);
    return v;
}

bool ExtractScte20(CC_DATA* cc, const uint8_t* src, int size) {
    if (!(src[0] == 0x03 && (src[1] == 0x81 || src[1] == 0x01)))
        return false;
    BIT_STREAM bs;
    BitStreamInit(&bs, src + 2, size - 2);
    const int count = static_cast<int>(BitStreamRead(&bs, 5));
    for (int i = 0; i < count; ++i) {
        BitStreamSkip(&bs, 2);
        const int field = static_cast<int>(BitStreamRead(&bs, 2));
        BitStreamSkip(&bs, 5);
        const uint8_t b1 = ReadReversedByte(&bs);
        const uint8_t b2 = ReadReversedByte(&bs);
        BitStreamSkip(&bs, 1);
        if ((field == 1 || field == 2) && cc->size < kCcDataMax - 5)
            Store(cc, field - 1, b1, b2);
    }
    cc->reorder = true;
    return true;
}

}  // namespace

void CCDataInit(CC_DATA* cc) {
    for (bool& p : cc->present)
        p = false;
    cc->reorder = false;
    cc->size = 0;
}

void CCDataFlush(CC_DATA* cc) {
    cc->size = 0;
}

void CCDataExtract(CC_DATA* cc, const uint8_t* src, int size) {
    if (!cc || !src || size < 4)
        return;
    if (Extract608(cc, src, size) || ExtractDvd(cc, src, size) || ExtractReplayTv(cc, src, size))
        return;
    ExtractScte20(cc, src, size);
}
