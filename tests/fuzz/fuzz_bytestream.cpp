// The bit reader (with emulation-prevention skipping) and the block byte-stream reader over
// blocks cut where the input says, with every read checked to stay inside the data.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "packer/bitstream.h"
#include "fuzz_quiet.h"
#include "packer/blockbytestream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    // First byte: how to cut the rest into blocks; second: which reads to do.
    const uint8_t cut = data[0] | 1;
    const uint8_t ops = data[1];
    data += 2;
    size -= 2;

    BIT_STREAM bs;
    unsigned history = 0;
    BitStreamInit(&bs, data, static_cast<int>(size));
    if (ops & 1) {
        bs.pf_forward = hxxx_bsfw_ep3b_to_rbsp;
        bs.p_fwdpriv = &history;
    }
    for (int i = 0; i < 64 && !BitStreamEof(&bs); ++i) {
        switch ((ops >> (i % 7)) & 3) {
            case 0:
                bs_read_ue(&bs);
                break;
            case 1:
                bs_read_se(&bs);
                break;
            case 2:
                BitStreamRead(&bs, 1 + (i * 7) % 64);
                break;
            default:
                BitStreamSkip(&bs, i % 13);
                break;
        }
    }

    BLOCK_BYTE_STREAM s;
    BlockByteStreamInit(s);
    for (size_t pos = 0; pos < size;) {
        size_t n = (cut * (pos + 1)) % 97;
        if (n > size - pos)
            n = size - pos;
        BlockByteStreamPush(&s, new MediaBlock(static_cast<int>(n), data + pos));
        pos += n ? n : 1;
    }
    static const uint8_t kStart[] = {0, 0, 1};
    size_t offset = 0;
    std::vector<uint8_t> tmp(64);
    while (BlockFindStartCodeFromOffset(&s, &offset, kStart, 3, nullptr) == 0) {
        BlockPeekOffsetBytes(&s, offset, tmp.data(), tmp.size() < size ? tmp.size() : size);
        if (BlockSkipBytes(&s, offset + 1) != 0)
            break;
        offset = 0;
        BlockByteStreamFlush(&s);
        if (ops & 2) {
            if (MediaBlock* b = BlockByteStreamPop(&s))
                BlockByteStreamPush(&s, b);
        }
    }
    BlockGetBytes(&s, tmp.data(), 3);
    BlockSkipByte(&s);
    delete PopCurBlockFromList(&s);
    BlockByteStreamRelease(&s);
    return 0;
}
