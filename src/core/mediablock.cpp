#include "core/mediablock.h"

#include <cstring>

#include "core/hostapi.h"

namespace {
// A chain longer than this drops its oldest blocks on append: a stalled consumer must not
// make a producer grow memory without bound.
constexpr int kMaxChainLength = 512;
}  // namespace

MediaBlock::MediaBlock() {
    Init();
}

MediaBlock::MediaBlock(int size, const unsigned char* data) {
    Init();
    InitBuffer(size, data);
}

MediaBlock::MediaBlock(const MediaBlock& other) {
    Init();
    CopyFields(other);
    InitBuffer(static_cast<int>(other.m_ulBufferSize), other.m_pBuffer);
    m_avcList = other.m_avcList;
}

MediaBlock::MediaBlock(MediaBlock& other, bool steal) {
    Init();
    CopyFields(other);
    if (!steal) {
        InitBuffer(static_cast<int>(other.m_ulBufferSize), other.m_pBuffer);
        m_avcList = other.m_avcList;
        return;
    }
    m_ulBufferSize = other.m_ulBufferSize;
    m_pAlloc = other.m_pAlloc;
    m_pBuffer = other.m_pBuffer;
    other.m_ulBufferSize = 0;
    other.m_pAlloc = nullptr;
    other.m_pBuffer = nullptr;
    SetAvcList(other.m_avcList);
}

MediaBlock::~MediaBlock() {
    delete[] m_pAlloc;
    m_pAlloc = nullptr;
    m_pBuffer = nullptr;
    m_ulBufferSize = 0;
}

void MediaBlock::CopyFields(const MediaBlock& other) {
    m_pNext = other.m_pNext;
    m_uFlags = other.m_uFlags;
    m_ullMonoTimestamp = other.m_ullMonoTimestamp;
    m_llTimestamp = other.m_llTimestamp;
    m_llPTS = other.m_llPTS;
    m_llDTS = other.m_llDTS;
    m_llLength = other.m_llLength;
    m_iSamples = other.m_iSamples;
    m_iRate = other.m_iRate;
    m_iVdoOft = other.m_iVdoOft;
    m_iID = other.m_iID;
    m_bAVC1 = other.m_bAVC1;
}

void MediaBlock::Init() {
    m_pNext = nullptr;
    m_uFlags = 0;
    m_ullMonoTimestamp = 0;
    m_llTimestamp = 0;
    m_llPTS = 0;
    m_llDTS = 0;
    m_llLength = 0;
    m_iSamples = 0;
    m_iRate = 0;
    m_iVdoOft = 0;
    m_iID = -1;
    m_ulBufferSize = 0;
    m_pAlloc = nullptr;
    m_pBuffer = nullptr;
    m_bAVC1 = false;
}

void MediaBlock::SetSize(int size) {
    delete[] m_pAlloc;
    m_pAlloc = nullptr;
    if (size < 1) {
        m_pBuffer = nullptr;
        m_ulBufferSize = 0;
        return;
    }
    m_pAlloc = new uint8_t[size];
    m_pBuffer = m_pAlloc;
    m_ulBufferSize = static_cast<uint64_t>(size);
}

void MediaBlock::InitBuffer(int size, const unsigned char* data) {
    SetSize(size);
    if (data && m_pBuffer)
        memcpy(m_pBuffer, data, m_ulBufferSize);
}

void MediaBlock::SetAvcList(std::list<int>& list) {
    m_avcList.clear();
    m_avcList.splice(m_avcList.end(), list);
}

void BlockChainAppend(MediaBlock** head, MediaBlock* block) {
    if (!*head) {
        *head = block;
        return;
    }
    MediaBlock* last = *head;
    int count = 0;
    while (last->GetNext()) {
        last = last->GetNext();
        ++count;
    }
    last->SetNext(block);
    while (count > kMaxChainLength && *head) {
        MediaBlock* oldest = *head;
        *head = oldest->GetNext();
        --count;
        delete oldest;
        // Written whatever the log configuration says: losing data must always show.
        KVPrintf(0, nullptr, nullptr, "mediablock", 610, "BlockChainAppend",
                 "Chain length is over maximum\n");
    }
}

void BlockChainLastAppend(MediaBlock*** tail, MediaBlock* block) {
    **tail = block;
    if (!block)
        return;
    while (block->GetNext())
        block = block->GetNext();
    *tail = block->GetNextAddr();
}

void BlockChainRelease(MediaBlock* head) {
    while (head) {
        MediaBlock* next = head->GetNext();
        head->SetNext(nullptr);
        delete head;
        head = next;
    }
}

void BlockChainProperties(MediaBlock* head, int* count, unsigned long* size, long long* length) {
    int n = 0;
    unsigned long bytes = 0;
    long long duration = 0;
    for (MediaBlock* b = head; b; b = b->GetNext()) {
        ++n;
        bytes += b->GetBufferSize();
        duration += b->GetLength();
    }
    if (count)
        *count = n;
    if (size)
        *size = bytes;
    if (length)
        *length = duration;
}

MediaBlock* BlockChainGather(MediaBlock* head) {
    if (!head || !head->GetNext())
        return head;
    unsigned long total = 0;
    long long length = 0;
    BlockChainProperties(head, nullptr, &total, &length);
    MediaBlock* gathered = new MediaBlock(static_cast<int>(total), nullptr);
    unsigned long room = gathered->GetBufferSize();
    unsigned char* out = gathered->GetBuffer();
    for (MediaBlock* b = head; b && room > 0; b = b->GetNext()) {
        unsigned long n = b->GetBufferSize() < room ? b->GetBufferSize() : room;
        if (n)
            memcpy(out, b->GetBuffer(), n);
        out += n;
        room -= n;
    }
    gathered->SetFlags(head->GetFlags());
    gathered->SetPTS(head->GetPTS());
    gathered->SetDTS(head->GetDTS());
    gathered->SetLength(length);
    BlockChainRelease(head);
    return gathered;
}

MediaBlock* BlockDuplicate(MediaBlock* block) {
    MediaBlock* copy = new MediaBlock(static_cast<int>(block->GetBufferSize()), block->GetBuffer());
    copy->SetDTS(block->GetDTS());
    copy->SetPTS(block->GetPTS());
    copy->SetFlags(block->GetFlags());
    copy->SetLength(block->GetLength());
    copy->SetRate(block->GetRate());
    copy->SetSamples(block->GetSamples());
    return copy;
}

void BufferChainInit(SOUT_BUFFER_CHAIN* chain) {
    chain->i_depth = 0;
    chain->p_first = nullptr;
    chain->pp_last = &chain->p_first;
}

void BufferChainAppend(SOUT_BUFFER_CHAIN* chain, MediaBlock* block) {
    *chain->pp_last = block;
    while (block) {
        ++chain->i_depth;
        chain->pp_last = block->GetNextAddr();
        block = block->GetNext();
    }
}

MediaBlock* BufferChainGet(SOUT_BUFFER_CHAIN* chain) {
    MediaBlock* first = chain->p_first;
    if (!first)
        return nullptr;
    chain->p_first = first->GetNext();
    --chain->i_depth;
    if (!chain->p_first)
        chain->pp_last = &chain->p_first;
    first->SetNext(nullptr);
    return first;
}

MediaBlock* BufferChainPeek(SOUT_BUFFER_CHAIN* chain) {
    return chain->p_first;
}

void BufferChainClean(SOUT_BUFFER_CHAIN* chain) {
    while (MediaBlock* b = BufferChainGet(chain))
        delete b;
    BufferChainInit(chain);
}
