// The fragmented-MP4 fetcher: one HTTP GET walked box by box. ftyp, moov and moof are read
// and passed over (moov yields the video codec's extra data); each mdat payload is one part
// for the host. Pull style: NextPartInfo + FetchContent on one host thread.
#pragma once

#include <mutex>
#include <string>

#include "core/bufferalloc.h"
#include "core/fetcher.h"

namespace KVNet {
class KVHttpClient;
}

struct MpegFilePriv {
    bool bConnected = false;
    std::string strHost;
    std::string strUser;
    std::string strPassword;
    std::string strPath;
    int iPort = 0;
    KVNet::KVHttpClient* pHttpClient = nullptr;  // owned
    camfetch::MallocBytes pFrameBuf;             // grows only, up to 10 MiB
    int iFrameBufCap = 0;
    ESFormat videoFormat;
    std::mutex mutex;  // guards pFrameBuf and videoFormat's extra data
};

class MpegFileFetch : public FetcherBase {
public:
    MpegFileFetch();
    MpegFileFetch(const std::string& host, int port, const std::string& path,
                  const std::string& user, const std::string& password, int clientArg, int mode);
    ~MpegFileFetch() override;
    MpegFileFetch(const MpegFileFetch&) = delete;
    MpegFileFetch& operator=(const MpegFileFetch&) = delete;

    // size = the next mdat payload's length (0 after a failed walk: the next call
    // reconnects); typeBuf and mediaKind are left as the caller set them.
    int NextPartInfo(unsigned int& size, char* typeBuf, unsigned int typeBufLen,
                     int& mediaKind) override;
    int FetchContent(unsigned char* buf, unsigned int len) override;
    int SetReconnect() override;
    int GetVideoFormat(ESFormat& format) override;
    int GetAudioFormat(ESFormat& format) override;
    int TestConnect() override;

    void Init(const std::string& host, int port, const std::string& path, const std::string& user,
              const std::string& password, int clientArg, int mode);

private:
    void ReleasePriv();
    int InitialHttpClient();
    void ReleaseHttpClient();
    int Connector();
    int VerifyHttpStatus();
    uint32_t ReadBoxHeader(uint8_t* buf, uint32_t& size);
    unsigned int FindNextFrame();
    // False (and the buffer empty) when the memory cannot be had.
    bool ResizeBuf(camfetch::MallocBytes& buffer, int& capacity, long long need, int max);
    // Replaces the format's extra data by size bytes of data; false when no memory.
    bool ResizeExtra(ESFormat& format, const uint8_t* data, int size);
    bool ReadCodecConfig(const uint8_t* payload, int count);

    int m_iClientArg;
    MpegFilePriv* m_pPriv;
};
