// A byte reader over a chain of MediaBlocks as they arrive: the stream owns the chain and
// reads across block borders. Functions return 0 on success and -1 when not enough data is
// queued (the position is then unchanged).
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/mediablock.h"

struct __tag_BLOCK_BYTE_STREAM {
    MediaBlock* p_chain;  // owned chain of queued blocks
    MediaBlock* p_block;  // the block holding the read position (a member of p_chain)
    size_t i_block_offset;
};
typedef __tag_BLOCK_BYTE_STREAM BLOCK_BYTE_STREAM;

// Finds a complete pattern in [begin, end); returns its address or null.
typedef const uint8_t* (*BlockStartCodeFinder)(const uint8_t* begin, const uint8_t* end);

void BlockByteStreamInit(BLOCK_BYTE_STREAM& s);
void BlockByteStreamRelease(BLOCK_BYTE_STREAM* s);
void BlockByteStreamEmpty(BLOCK_BYTE_STREAM* s);
// Takes ownership of block (which may head a chain).
void BlockByteStreamPush(BLOCK_BYTE_STREAM* s, MediaBlock* block);
int BlockWaitBytes(BLOCK_BYTE_STREAM* s, size_t n);
int BlockPeekBytes(BLOCK_BYTE_STREAM* s, uint8_t* dst, size_t n);
int BlockPeekOffsetBytes(BLOCK_BYTE_STREAM* s, size_t offset, uint8_t* dst, size_t n);
int BlockGetBytes(BLOCK_BYTE_STREAM* s, uint8_t* dst, size_t n);
int BlockSkipBytes(BLOCK_BYTE_STREAM* s, size_t n);
int BlockSkipByte(BLOCK_BYTE_STREAM* s);
// Deletes what lies before the read position.
void BlockByteStreamFlush(BLOCK_BYTE_STREAM* s);
// After a flush: hands the caller the chain's last block (when there are several) or the
// single block trimmed to the unread bytes (leaving the stream empty); null when empty.
MediaBlock* BlockByteStreamPop(BLOCK_BYTE_STREAM* s);
// Unlinks the current block and hands it to the caller; null when there is none.
MediaBlock* PopCurBlockFromList(BLOCK_BYTE_STREAM* s);
// The current block is the chain's last and holds exactly n bytes.
bool IsRequiredDataInCurBlock(BLOCK_BYTE_STREAM* s, size_t n);
// Searches for pattern from *offset bytes after the read position, across block borders.
// Found: *offset = the match's offset, 0. Not found: -1 with *offset moved past what was
// searched (less a partial match at the end), so the next call resumes there.
int BlockFindStartCodeFromOffset(BLOCK_BYTE_STREAM* s, size_t* offset, const uint8_t* pattern,
                                 int length, BlockStartCodeFinder find);
