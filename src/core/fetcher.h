// The library's outside face: fetch parameters, the abstract fetcher the factory returns,
// and the callback interface the host implements for push-style fetchers.
#pragma once

#include <cstdint>
#include <string>

#include "core/esformat.h"
#include "core/mediablock.h"

namespace Json {
class Value;
}

// Result for a closed connection or nothing to fetch.
constexpr int FETCH_CONN_CLOSED = 1;

// uFlags bit: live555's socket reads stay unbatched. Batching sits under live555's import
// slots, which are shared by the whole process, so the first RTSP fetcher of the process
// decides whether they are rewritten at all: with this bit set they never are, and no later
// fetcher batches. A later fetcher that sets the bit after a first one that did not gets its
// own reads unbatched (they pass through the rewritten slots to the system unchanged).
constexpr uint32_t FETCH_FLAG_NO_SOCKET_BATCH = 0x20;

struct __tag_FETCH_PARAM {
    std::string strHost;
    std::string strUser;
    std::string strPassword;
    std::string strPath;
    std::string strUserAgent;
    long long llAbsStartTime = 0;  // playback start, us since 1970 UTC; 0 = live
    long long llAbsEndTime = 0;    // playback end; 0 = none
    int iMobileOpt = 0;            // mobile receiver id
    int iPort = 0;
    int iHttpPort = 0;   // RTSP over HTTP tunnelling
    int iTimeout = 0;    // seconds
    int iProtocol = 0;   // RTSP transport: 1 UDP, 2 TCP, 3 HTTP tunnelling, 4 automatic
    int iKeepAlive = 0;  // RTSP keep-alive: 0 none, 1 OPTIONS, 2 GET_PARAMETER
    uint32_t uFlags = 0;
    int iStreamMode = 0;  // media mode in Codec2VideoType numbering
    int iVdoOft = 0;      // written into m_iVdoOft of every delivered block
    bool bHasAudio = false;
    bool bMetaOnly = false;
};
typedef __tag_FETCH_PARAM FETCH_PARAM;

// Implemented by the host. ProcessMediaBlock takes ownership of the block; format stays
// owned by the caller.
class MediaDataHandler {
public:
    virtual ~MediaDataHandler() = default;
    virtual int TransNotice2Mobile(const Json::Value& notice, Json::Value* reply) {
        (void)notice;
        (void)reply;
        return 0;
    }
    virtual void InitHandler(const ESFormat& video, const ESFormat& audio) {
        (void)video;
        (void)audio;
    }
    virtual int ProcessMediaBlock(ESFormat& format, MediaBlock* block) = 0;
};

class FetcherBase {
public:
    virtual ~FetcherBase() = default;
    virtual int NextPartInfo(unsigned int& partSize, char* info, unsigned int infoSize,
                             int& partType);
    virtual int FetchContent(unsigned char* buffer, unsigned int size);
    virtual void DropData() {}
    virtual void DoFetchLoop(MediaDataHandler* handler) { (void)handler; }
    virtual void StopFetchLoop() {}
    virtual int SetReconnect() = 0;
    virtual int GetVideoFormat(ESFormat& format) = 0;
    virtual int GetAudioFormat(ESFormat& format) = 0;
    virtual int TestConnect() = 0;
    // Average bytes per second over about ten seconds of parts, at most about a minute.
    virtual int GetBandwidth();
};

// 1 RTSP, 2 MP4 over HTTP, 3 and 4 HTTP multipart, 6 mobile push; null for any other type.
FetcherBase* FetcherFactory(int type, const FETCH_PARAM& param);
// Deletes the fetcher and nulls the pointer; a null pointer is left alone.
void ReleaseFetcher(FetcherBase*& fetcher);
