// The private state of one MultipartFetch: connection parameters, the current HTTP client,
// the line and part buffers of the parser, and the two stream formats with the mutex that
// guards them against the host's format queries. Owned by the fetcher, one per fetcher.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "core/esformat.h"
#include "core/kvhttpclient.h"

// Each scanning step of the part parser reads at most this many lines.
constexpr int kMaxScanLines = 30;
constexpr size_t kLineSize = 1024;
constexpr size_t kOptLineSize = 1024;
constexpr size_t kContentTypeSize = 512;
constexpr size_t kBoundarySize = 512;
// The staging buffer for parts that announce no length.
constexpr size_t kPartBufferSize = 4194304;

struct MultipartPriv {
    bool bConnected = false;
    bool bLengthKnown = false;  // the current part announced its length
    bool bHasFrontOpt = false;
    bool bHasBackOpt = false;
    char szFrontOpt[kOptLineSize] = {};  // last unrecognised header before the type/length
    char szBackOpt[kOptLineSize] = {};   // last header line after them
    // Not zeroed: every byte is written before it is read, and untouched pages of a fetcher
    // whose camera sends lengths then never cost memory.
    uint8_t abData[kPartBufferSize];
    char szLine[kLineSize] = {};
    char szContentType[kContentTypeSize] = {};
    char szBoundary[kBoundarySize] = {};  // "--" and the boundary token
    uint32_t uBackOptLen = 0;
    uint32_t uFrontOptLen = 0;
    uint32_t uContentTypeLen = 0;
    uint32_t uContentLen = 0;  // remaining body bytes of the current part
    uint32_t uBoundaryLen = 0;
    std::string strHost;
    std::string strPath;
    std::string strUser;
    std::string strPassword;
    std::string strPort;  // decimal text
    std::unique_ptr<KVNet::KVHttpClient> pHttpClient;
    std::mutex mutex;  // guards the two formats while they are copied out
    ESFormat videoFormat;
    ESFormat audioFormat;
    long long llTimestamp = 0;  // last in-band "Timestamp" header
};
