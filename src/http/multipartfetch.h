// The pull-style fetcher over an HTTP multipart response (multipart/x-mixed-replace or
// multipart/mixed) whose parts carry JPEG or MxPEG pictures and PCMA audio. The host calls
// NextPartInfo, then FetchContent (or FetchPartOfContent until the part is used up, or
// DropData), all from one thread. The fetcher owns its private state and its HTTP client;
// it connects lazily and, after any failure, reconnects on the next NextPartInfo.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "core/fetcher.h"
#include "core/kvhttpclient.h"

struct MultipartPriv;

// Result codes of the pull-style fetchers (0 is success).
enum MultipartResult {
    MF_OK = 0,
    MF_ERR_CLIENT = 1,         // no HTTP client, bad response or content type
    MF_ERR_PARAM = 2,          // null buffer; or a partial fetch of a part without length
    MF_ERR_NOT_INIT = 3,       // the fetcher was never initialised
    MF_ERR_READ = 4,           // request failed, HTTP error status, or a read failure
    MF_ERR_TRANSPORT = 5,      // the client could not reach the server
    MF_ERR_AUTH = 6,           // authentication refused
    MF_ERR_BUFFER_SMALL = 7,   // the caller's buffer is smaller than the part
    MF_ERR_NOT_MULTIPART = 8,  // not a multipart response, or no boundary
    MF_ERR_PART_HEADERS = 9,   // malformed part headers
    MF_ERR_PART_LENGTH = 10,   // malformed part length header
    MF_ERR_BOUNDARY = 11,      // boundary not found, or the body could not be collected
    MF_ERR_EOF_IN_PART = 17    // the connection ended inside a part
};

class MultipartFetch : public FetcherBase {
public:
    // Leaves the fetcher uninitialised: every operation answers MF_ERR_NOT_INIT.
    MultipartFetch();
    // clientArg goes to the HTTP client as its time-out in seconds; mediaMode is the stream
    // mode (1 JPEG, 5 MxPEG with PCMA audio, -1 byte-wise boundary scan); clientFlag becomes
    // the client's certificate check. The strings are copied.
    MultipartFetch(const char* host, int port, const char* path, const char* user,
                   const char* password, int clientArg, int mediaMode, bool clientFlag);
    ~MultipartFetch() override;
    MultipartFetch(const MultipartFetch&) = delete;
    MultipartFetch& operator=(const MultipartFetch&) = delete;

    // size: body length; typeBuf: the part's content type (cut to typeBufLen); mediaKind:
    // 1 video, 2 audio (0 on failure).
    int NextPartInfo(unsigned int& size, char* typeBuf, unsigned int typeBufLen,
                     int& mediaKind) override;
    int FetchContent(unsigned char* buf, unsigned int len) override;
    void DropData() override;
    int SetReconnect() override;
    // Copies of the stored formats (the caller owns the copy's extra data).
    int GetVideoFormat(ESFormat& out) override;
    int GetAudioFormat(ESFormat& out) override;
    int TestConnect() override;

    void Init(const char* path, const char* host, int port, const char* user, const char* password,
              int clientArg, int mediaMode);
    // "HttpVersion" (HTTP_VER_DEF, HTTP_VER_1_0, HTTP_VER_1_1) and "PostContent" (a POST body;
    // empty for a GET). Missing keys are added to params with empty values. Takes effect at
    // the next connection.
    void SetMFParams(std::map<std::string, std::string>& params);
    bool IsEOF();
    // The last in-band "Timestamp" header value, 0 when none came.
    long long GetTimestamp();
    void SetSocketFd(int fd);
    int GetSocketFd();
    int GetHttpSocketFd();
    int CheckFetchable(unsigned char* buf, unsigned int len, bool partial);
    // got = bytes delivered; the part must have a known length.
    int FetchPartOfContent(unsigned char* buf, unsigned int len, int& got);
    // The optional header lines kept by the header scan; buf must hold 1025 bytes.
    int FetchFrontOptContent(unsigned char* buf);
    int FetchBackOptContent(unsigned char* buf);

private:
    int InitialHttpClient();
    void ReleaseHttpClient();
    int Connector();
    int VerifyHttpStatus();
    int GetMIMEInfo();
    int SearchForBoundary();
    int SearchHeaderEnd();
    int ReadDataToLineEnd(char* buf, int size);
    int GetBodyInfo();
    int GetContentLen();
    int GetBodyContent();
    int ParseLiveviewSrcParam(char* name, char* value);
    // Reads count bytes from the connection into dst (or into the part buffer, discarding
    // them, when dst is null), in pieces the client's int counts can carry. Returns the
    // number read; fewer means the connection failed or ended.
    long long ReadBytes(unsigned char* dst, unsigned int count);
    // Reads and discards count bytes, a part buffer at a time; returns the number passed over.
    long long SkipBytes(long long count);
    int ReadExtraData(ESFormat& format, char* value);

    int m_iClientArg = 0;
    KVNet::HTTP_VERSION m_httpVersion = KVNet::HTTP_VER_DEF;
    std::string m_strPostContent;
    std::unique_ptr<MultipartPriv> m_pPriv;
    bool m_bByteRead = false;
    bool m_bClientFlag1 = false;
    bool m_bClientFlag4 = true;
    std::atomic<int> m_iSocketFd{-1};
};
