#include "packer/blockbytestream.h"

#include <cstring>

namespace {

size_t Remaining(const BLOCK_BYTE_STREAM* s) {
    if (!s->p_block)
        return 0;
    size_t total = s->p_block->GetBufferSize() - s->i_block_offset;
    for (MediaBlock* b = s->p_block->GetNext(); b; b = b->GetNext())
        total += b->GetBufferSize();
    return total;
}

// Copies n bytes starting skip bytes after the position; with advance, moves the position.
void CopyFrom(BLOCK_BYTE_STREAM* s, size_t skip, uint8_t* dst, size_t n, bool advance) {
    MediaBlock* block = s->p_block;
    size_t offset = s->i_block_offset + skip;
    while (block && offset >= block->GetBufferSize() &&
           (n > 0 || offset > block->GetBufferSize())) {
        offset -= block->GetBufferSize();
        block = block->GetNext();
    }
    while (n > 0 && block) {
        size_t avail = block->GetBufferSize() - offset;
        size_t take = avail < n ? avail : n;
        if (dst && take > 0) {  // an empty block has no buffer to copy from
            memcpy(dst, block->GetBuffer() + offset, take);
            dst += take;
        }
        n -= take;
        offset += take;
        if (n > 0) {
            block = block->GetNext();
            offset = 0;
        }
    }
    if (advance && block) {
        s->p_block = block;
        s->i_block_offset = offset;
    }
}

}  // namespace

void BlockByteStreamInit(BLOCK_BYTE_STREAM& s) {
    s.p_chain = nullptr;
    s.p_block = nullptr;
    s.i_block_offset = 0;
}

void BlockByteStreamRelease(BLOCK_BYTE_STREAM* s) {
    BlockChainRelease(s->p_chain);
    BlockByteStreamInit(*s);
}

void BlockByteStreamEmpty(BLOCK_BYTE_STREAM* s) {
    BlockByteStreamRelease(s);
    BlockByteStreamInit(*s);
}

void BlockByteStreamPush(BLOCK_BYTE_STREAM* s, MediaBlock* block) {
    // The chain drops its oldest blocks past its length limit; if the read position was in
    // one of them, reading resumes at the oldest block that is left.
    int length = 0;
    for (MediaBlock* b = s->p_chain; b; b = b->GetNext())
        ++length;
    const int dropped = length - 1 > 512 ? length - 1 - 512 : 0;
    bool positionDropped = false;
    MediaBlock* b = s->p_chain;
    for (int i = 0; i < dropped && b; ++i, b = b->GetNext())
        if (b == s->p_block)
            positionDropped = true;

    BlockChainAppend(&s->p_chain, block);
    if (positionDropped) {
        s->p_block = s->p_chain;
        s->i_block_offset = 0;
    }
    if (!s->p_block)
        s->p_block = block;
}

int BlockWaitBytes(BLOCK_BYTE_STREAM* s, size_t n) {
    return Remaining(s) >= n ? 0 : -1;
}

int BlockPeekBytes(BLOCK_BYTE_STREAM* s, uint8_t* dst, size_t n) {
    if (Remaining(s) < n)
        return -1;
    CopyFrom(s, 0, dst, n, false);
    return 0;
}

int BlockPeekOffsetBytes(BLOCK_BYTE_STREAM* s, size_t offset, uint8_t* dst, size_t n) {
    if (Remaining(s) < offset + n)
        return -1;
    CopyFrom(s, offset, dst, n, false);
    return 0;
}

int BlockGetBytes(BLOCK_BYTE_STREAM* s, uint8_t* dst, size_t n) {
    if (Remaining(s) < n)
        return -1;
    CopyFrom(s, 0, dst, n, true);
    return 0;
}

int BlockSkipBytes(BLOCK_BYTE_STREAM* s, size_t n) {
    if (Remaining(s) < n)
        return -1;
    CopyFrom(s, 0, nullptr, n, true);
    return 0;
}

int BlockSkipByte(BLOCK_BYTE_STREAM* s) {
    if (!s->p_block)
        return -1;
    if (s->i_block_offset < s->p_block->GetBufferSize()) {
        ++s->i_block_offset;
        return 0;
    }
    for (MediaBlock* b = s->p_block->GetNext(); b; b = b->GetNext()) {
        if (b->GetBufferSize() > 0) {
            s->p_block = b;
            s->i_block_offset = 1;
            return 0;
        }
    }
    return -1;
}

void BlockByteStreamFlush(BLOCK_BYTE_STREAM* s) {
    while (s->p_chain && s->p_chain != s->p_block) {
        MediaBlock* old = s->p_chain;
        s->p_chain = old->GetNext();
        old->SetNext(nullptr);
        delete old;
    }
    while (s->p_block && s->i_block_offset >= s->p_block->GetBufferSize()) {
        MediaBlock* used = s->p_block;
        s->p_block = used->GetNext();
        s->p_chain = s->p_block;
        s->i_block_offset = 0;
        used->SetNext(nullptr);
        delete used;
    }
    if (!s->p_chain)
        s->p_block = nullptr;
}

MediaBlock* BlockByteStreamPop(BLOCK_BYTE_STREAM* s) {
    BlockByteStreamFlush(s);
    MediaBlock* head = s->p_chain;
    if (!head)
        return nullptr;
    if (!head->GetNext()) {
        head->SetBuffer(head->GetBuffer() + s->i_block_offset);
        head->SetBufferSize(head->GetBufferSize() - s->i_block_offset);
        BlockByteStreamInit(*s);
        return head;
    }
    MediaBlock* prev = head;
    while (prev->GetNext()->GetNext())
        prev = prev->GetNext();
    MediaBlock* last = prev->GetNext();
    prev->SetNext(nullptr);
    return last;
}

MediaBlock* PopCurBlockFromList(BLOCK_BYTE_STREAM* s) {
    MediaBlock* cur = s->p_block;
    if (!cur)
        return nullptr;
    MediaBlock** link = &s->p_chain;
    while (*link && *link != cur)
        link = (*link)->GetNextAddr();
    if (!*link)
        return nullptr;
    *link = cur->GetNext();
    s->p_block = cur->GetNext();
    s->i_block_offset = 0;
    cur->SetNext(nullptr);
    return cur;
}

bool IsRequiredDataInCurBlock(BLOCK_BYTE_STREAM* s, size_t n) {
    return s->p_block && !s->p_block->GetNext() && s->p_block->GetBufferSize() == n;
}

int BlockFindStartCodeFromOffset(BLOCK_BYTE_STREAM* s, size_t* pOffset, const uint8_t* pattern,
                                 int length, BlockStartCodeFinder find) {
    if (length < 1)
        return -1;
    const size_t len = static_cast<size_t>(length);

    // Find the block that holds position + *pOffset.
    MediaBlock* block = s->p_block;
    size_t index = s->i_block_offset + *pOffset;
    while (block && index >= block->GetBufferSize()) {
        index -= block->GetBufferSize();
        block = block->GetNext();
    }
    if (!block)
        return -1;

    size_t pos = *pOffset;  // offset of the byte at (block, index) from the read position
    size_t matched = 0;
    MediaBlock* matchBlock = nullptr;
    size_t matchIndex = 0, matchPos = 0;

    while (block) {
        const size_t size = block->GetBufferSize();
        if (index >= size) {
            index -= size;
            block = block->GetNext();
            continue;
        }
        const uint8_t* data = block->GetBuffer();
        if (matched == 0 && size - index > len - 1) {
            // Nothing pending: jump straight to candidates, keeping the last len - 1 bytes
            // of the block for the byte-wise compare so a pattern split across blocks is seen.
            const uint8_t* here = data + index;
            const uint8_t* end = data + size;
            if (find) {
                if (const uint8_t* hit = find(here, end)) {
                    *pOffset = pos + static_cast<size_t>(hit - here);
                    return 0;
                }
                size_t skip = (size - index) - (len - 1);
                index += skip;
                pos += skip;
                continue;
            }
            const void* first = memchr(here, pattern[0], static_cast<size_t>(end - here));
            size_t skip = first ? static_cast<size_t>(static_cast<const uint8_t*>(first) - here)
                                : size - index;
            index += skip;
            pos += skip;
            if (!first)
                continue;
        }
        if (data[index] == pattern[matched]) {
            if (matched == 0) {
                matchBlock = block;
                matchIndex = index;
                matchPos = pos;
            }
            if (++matched == len) {
                *pOffset = matchPos;
                return 0;
            }
        } else if (matched > 0) {
            // Start again one byte after where the partial match began.
            matched = 0;
            block = matchBlock;
            index = matchIndex + 1;
            pos = matchPos + 1;
            continue;
        }
        ++index;
        ++pos;
    }
    *pOffset = pos - matched;
    return -1;
}
