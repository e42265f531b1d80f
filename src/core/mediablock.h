// MediaBlock: one heap buffer of media bytes with its timing, linked into chains through
// m_pNext. No reference counting: a block has one owner, and ownership moves with the
// pointer. Whoever receives a MediaBlock* deletes it (or passes it on).
#pragma once

#include <cstdint>
#include <list>

class MediaBlock {
public:
    MediaBlock();
    MediaBlock(int size, const unsigned char* data);
    // Copies fields and bytes; keeps other's m_pNext on purpose (callers detach).
    MediaBlock(const MediaBlock& other);
    // steal: takes other's buffer and NAL size list, leaving other empty.
    MediaBlock(MediaBlock& other, bool steal);
    MediaBlock& operator=(const MediaBlock&) = delete;
    virtual ~MediaBlock();

    void Init();
    void SetSize(int size);
    void InitBuffer(int size, const unsigned char* data);

    unsigned char* GetFrame() { return m_pBuffer + m_iVdoOft; }
    unsigned long GetFrameSize() const { return m_ulBufferSize - m_iVdoOft; }

    MediaBlock* GetNext() const { return m_pNext; }
    void SetNext(MediaBlock* next) { m_pNext = next; }
    MediaBlock** GetNextAddr() { return &m_pNext; }
    uint32_t GetFlags() const { return m_uFlags; }
    void SetFlags(uint32_t flags) { m_uFlags = flags; }
    long long GetPTS() const { return m_llPTS; }
    void SetPTS(long long pts) { m_llPTS = pts; }
    long long GetDTS() const { return m_llDTS; }
    void SetDTS(long long dts) { m_llDTS = dts; }
    bool IsAVC1() const { return m_bAVC1; }
    void SetAVC1(bool avc1) { m_bAVC1 = avc1; }
    long long GetLength() const { return m_llLength; }
    void SetLength(long long length) { m_llLength = length; }
    int GetSamples() const { return m_iSamples; }
    void SetSamples(int samples) { m_iSamples = samples; }
    int GetRate() const { return m_iRate; }
    void SetRate(int rate) { m_iRate = rate; }
    int GetVdoOft() const { return m_iVdoOft; }
    void SetVdoOft(int offset) { m_iVdoOft = offset; }
    int GetID() const { return m_iID; }
    void SetID(int id) { m_iID = id; }
    long long GetTimestamp() const { return m_llTimestamp; }
    void SetTimestamp(long long timestamp) { m_llTimestamp = timestamp; }
    unsigned long long GetMonoTimestamp() const { return m_ullMonoTimestamp; }
    void SetMonoTimestamp(unsigned long long timestamp) { m_ullMonoTimestamp = timestamp; }
    unsigned long GetBufferSize() const { return m_ulBufferSize; }
    void SetBufferSize(unsigned long size) { m_ulBufferSize = size; }
    unsigned char* GetBuffer() const { return m_pBuffer; }
    // Points the data elsewhere (into the allocation or at foreign memory); frees nothing.
    void SetBuffer(unsigned char* buffer) { m_pBuffer = buffer; }
    std::list<int>& GetAvcList() { return m_avcList; }
    // Replaces the NAL size list by the nodes of list, which is left empty.
    void SetAvcList(std::list<int>& list);

private:
    void CopyFields(const MediaBlock& other);

    MediaBlock* m_pNext;
    uint32_t m_uFlags;
    uint64_t m_ullMonoTimestamp;
    int64_t m_llTimestamp;
    int64_t m_llPTS;
    int64_t m_llDTS;
    int64_t m_llLength;
    int32_t m_iSamples;
    int32_t m_iRate;
    int32_t m_iVdoOft;
    int32_t m_iID;
    uint64_t m_ulBufferSize;
    uint8_t* m_pAlloc;
    uint8_t* m_pBuffer;
    bool m_bAVC1;
    std::list<int> m_avcList;
};

// Chains: a chain is given by its head pointer; the functions take ownership of what they
// append and delete what they drop.
void BlockChainAppend(MediaBlock** head, MediaBlock* block);
void BlockChainLastAppend(MediaBlock*** tail, MediaBlock* block);
void BlockChainRelease(MediaBlock* head);
void BlockChainProperties(MediaBlock* head, int* count, unsigned long* size, long long* length);
// Joins a chain into one block; the old chain is released. A single block comes back as is.
MediaBlock* BlockChainGather(MediaBlock* head);
// A detached copy of the bytes and timing; the caller owns it.
MediaBlock* BlockDuplicate(MediaBlock* block);

// A FIFO of blocks with a tail pointer.
struct __tag_SOUT_BUFFER_CHAIN {
    int32_t i_depth;
    MediaBlock* p_first;
    MediaBlock** pp_last;
};
typedef __tag_SOUT_BUFFER_CHAIN SOUT_BUFFER_CHAIN;

void BufferChainInit(SOUT_BUFFER_CHAIN* chain);
void BufferChainAppend(SOUT_BUFFER_CHAIN* chain, MediaBlock* block);
// Removes the head and hands it to the caller (detached); null when empty.
MediaBlock* BufferChainGet(SOUT_BUFFER_CHAIN* chain);
MediaBlock* BufferChainPeek(SOUT_BUFFER_CHAIN* chain);
void BufferChainClean(SOUT_BUFFER_CHAIN* chain);
