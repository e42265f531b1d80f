// The private record of an RtspFetch: receive buffers, stream formats, the two side channels
// and the loop's end, with the mutex that guards formats, ext data, ES header and end between
// the loop thread and the host's threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>

#include "core/bufferalloc.h"
#include "core/esformat.h"
#include "core/fetchstatus.h"

struct RtspFetchPrivate {
    static constexpr uint32_t kExtDataCapacity = 0x10000;
    static constexpr uint32_t kVideoBufSize = 0x400000;
    static constexpr uint32_t kAudioBufSize = 0x20000;
    static constexpr uint32_t kEsHeaderSize = 128;

    // Throws std::bad_alloc, as a failed new would, when a buffer cannot be had: a fetcher
    // that lends no buffer would deliver truncated frames.
    explicit RtspFetchPrivate(bool hasAudio);

    uint32_t uExtDataLen = 0;  // only 16 bits are ever written
    uint32_t uExtDataCapacity = kExtDataCapacity;
    camfetch::MallocBytes pExtData;
    uint32_t uVideoBufSize = kVideoBufSize;
    camfetch::MallocBytes pVideoBuf;
    ESFormat fmtVideo;
    uint32_t uAudioBufSize = 0;
    camfetch::MallocBytes pAudioBuf;  // null when no audio is wanted
    ESFormat fmtAudio;
    uint32_t uEsHeaderLen = 0;
    unsigned char esHeader[kEsHeaderSize] = {};
    std::atomic<bool> bKeepEsHeader{false};
    time_t lastRecvTime = 0;  // latest frame that proves the connection (loop thread)
    bool bHasAudio;
    FETCH_STATUS status;  // how the latest loop ended
    std::mutex mutex;
};
