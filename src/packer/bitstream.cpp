#include "packer/bitstream.h"

namespace {
constexpr uint8_t kMask[9] = {0x00, 0x01, 0x03, 0x07, 0x0f, 0x1f, 0x3f, 0x7f, 0xff};

inline void NextByte(BIT_STREAM* s) {
    if (s->pf_forward)
        s->p = s->pf_forward(s->p, s->p_end, s->p_fwdpriv, 1);
    else
        ++s->p;
    s->i_left = 8;
}
}  // namespace

void BitStreamInit(BIT_STREAM* s, const void* data, int size) {
    s->p_start = static_cast<const uint8_t*>(data);
    s->p = s->p_start;
    s->p_end = s->p_start + (size > 0 ? size : 0);
    s->i_left = 8;
    s->pf_forward = nullptr;
    s->p_fwdpriv = nullptr;
}

int BitStreamPos(const BIT_STREAM* s) {
    return static_cast<int>(8 * (s->p - s->p_start) + 8 - s->i_left);
}

int BitStreamRemain(const BIT_STREAM* s) {
    if (s->p >= s->p_end)
        return 0;
    return static_cast<int>(8 * (s->p_end - s->p) - 8 + s->i_left);
}

uint64_t BitStreamRead(BIT_STREAM* s, int count) {
    uint64_t value = 0;
    if (count < 1)
        return 0;
    while (count > 0 && s->p < s->p_end) {
        int take = count < s->i_left ? count : s->i_left;
        s->i_left -= take;
        value = (value << take) | ((*s->p >> s->i_left) & kMask[take]);
        count -= take;
        if (s->i_left == 0)
            NextByte(s);
    }
    return value;
}

uint32_t BitStreamRead1(BIT_STREAM* s) {
    if (s->p >= s->p_end)
        return 0;
    --s->i_left;
    uint32_t bit = (*s->p >> s->i_left) & 1;
    if (s->i_left == 0)
        NextByte(s);
    return bit;
}

void BitStreamSkip(BIT_STREAM* s, int count) {
    s->i_left -= count;
    if (s->i_left > 0)
        return;
    size_t bytes = static_cast<size_t>((8 - s->i_left) / 8);
    if (s->pf_forward) {
        s->p = s->pf_forward(s->p, s->p_end, s->p_fwdpriv, bytes);
    } else {
        // Never step past the end: later reads compare against p_end.
        size_t room = s->p < s->p_end ? static_cast<size_t>(s->p_end - s->p) : 0;
        s->p += bytes < room ? bytes : room;
    }
    s->i_left += 8 * static_cast<int>(bytes);
}

void BitStreamAlign(BIT_STREAM* s) {
    if (s->i_left != 8 && s->p < s->p_end)
        NextByte(s);
}

uint32_t bs_read_ue(BIT_STREAM* s) {
    int zeros = 0;
    while (BitStreamRead1(s) == 0 && s->p < s->p_end && zeros < 31)
        ++zeros;
    return static_cast<uint32_t>((1ULL << zeros) + BitStreamRead(s, zeros) - 1);
}

int32_t bs_read_se(BIT_STREAM* s) {
    uint32_t k = bs_read_ue(s);
    if (k == 0x7FFFFFFF)
        return 0x3FFFFFFF;
    if (k & 1)
        return static_cast<int32_t>((k / 2) + 1);
    return -static_cast<int32_t>(k / 2);
}

const uint8_t* hxxx_bsfw_ep3b_to_rbsp(const uint8_t* p, const uint8_t* end, void* priv,
                                      size_t count) {
    unsigned* history = static_cast<unsigned*>(priv);
    for (size_t i = 0; i < count; ++i) {
        if (++p >= end)
            return p;
        *history = (*history << 1) | (*p == 0);
        if (*p == 0x03 && p + 1 != end && (*history & 0x06) == 0x06) {
            ++p;
            // The zero count starts again after an escape: 00 00 03 00 03 has one escape.
            *history = (*p == 0);
        }
    }
    return p;
}

void BitsInitwrite(BITS_BUFFER* b, int size, void* buffer) {
    b->i_size = size;
    b->i_data = 0;
    b->i_mask = 0x80;
    b->p_data = buffer ? static_cast<uint8_t*>(buffer) : new uint8_t[size > 0 ? size : 1];
    b->p_data[0] = 0;
}

void BitsWrite(BITS_BUFFER* b, int count, uint64_t value) {
    while (count > 0) {
        --count;
        if (b->i_data >= b->i_size)
            return;
        if ((value >> count) & 1)
            b->p_data[b->i_data] |= b->i_mask;
        else
            b->p_data[b->i_data] &= static_cast<uint8_t>(~b->i_mask);
        b->i_mask >>= 1;
        if (b->i_mask == 0) {
            ++b->i_data;
            b->i_mask = 0x80;
        }
    }
}

void BitsAlign(BITS_BUFFER* b) {
    if (b->i_mask != 0x80 && b->i_data < b->i_size) {
        ++b->i_data;
        if (b->i_data < b->i_size)
            b->p_data[b->i_data] = 0;
        b->i_mask = 0x80;
    }
}
