// Bit readers over one buffer (parameter sets, headers) and a bit writer. Reads past the
// end yield zero bits and never touch memory outside the buffer.
#pragma once

#include <cstddef>
#include <cstdint>

// Advances p by count bytes, at most to end; priv is the reader's private state.
typedef const uint8_t* (*BitStreamForward)(const uint8_t* p, const uint8_t* end, void* priv,
                                           size_t count);

struct __tag_BIT_STREAM {
    const uint8_t* p_start;
    const uint8_t* p;
    const uint8_t* p_end;
    int i_left;  // bits still unread in *p; 8 = none read
    BitStreamForward pf_forward;
    void* p_fwdpriv;
};
typedef __tag_BIT_STREAM BIT_STREAM;

void BitStreamInit(BIT_STREAM* s, const void* data, int size);
int BitStreamPos(const BIT_STREAM* s);
int BitStreamRemain(const BIT_STREAM* s);
uint64_t BitStreamRead(BIT_STREAM* s, int count);
uint32_t BitStreamRead1(BIT_STREAM* s);
void BitStreamSkip(BIT_STREAM* s, int count);
void BitStreamAlign(BIT_STREAM* s);
inline bool BitStreamEof(const BIT_STREAM* s) {
    return s->p >= s->p_end;
}

// Exp-Golomb codes (unsigned and signed), at most 31 leading zeros.
uint32_t bs_read_ue(BIT_STREAM* s);
int32_t bs_read_se(BIT_STREAM* s);

// Forward function that steps over H.264/HEVC emulation-prevention bytes (00 00 03), so a
// BIT_STREAM reads the RBSP of a NAL unit in place. priv points to an unsigned history
// word that starts at 0.
const uint8_t* hxxx_bsfw_ep3b_to_rbsp(const uint8_t* p, const uint8_t* end, void* priv,
                                      size_t count);

struct __tag_BITS_BUFFER {
    int32_t i_size;
    int32_t i_data;  // index of the byte being written
    uint8_t i_mask;  // the bit being written, 0x80 first
    uint8_t* p_data;
};
typedef __tag_BITS_BUFFER BITS_BUFFER;

// Uses buffer, or allocates size bytes (array new; the caller frees p_data) when null.
void BitsInitwrite(BITS_BUFFER* b, int size, void* buffer);
void BitsWrite(BITS_BUFFER* b, int count, uint64_t value);
void BitsAlign(BITS_BUFFER* b);
