// The host's HTTP client, as the pull-style fetchers use it: one client per request,
// blocking pull-style reads on the response body. The default host implements it on
// libcurl; the layout stays private behind a pointer.
#pragma once

#include <string>

namespace KVNet {

enum HTTP_VERSION { HTTP_VER_DEF = 0, HTTP_VER_10 = 1, HTTP_VER_11 = 2 };
enum KV_HTTP_METHOD { HTTP_METHOD_GET = 0, HTTP_METHOD_POST = 1 };
enum HTTP_MAP_KEY { HTTP_KEY_CONTENT_TYPE = 0, HTTP_KEY_CONTENT_LENGTH = 1, HTTP_KEY_SERVER = 2 };

class KVHttpClientImpl;

// The connection of a client, as far as the fetchers look at it.
class KVSocket {
public:
    explicit KVSocket(KVHttpClientImpl* owner) : m_pOwner(owner) {}
    int GetFd() const;
    // The peer closed the connection (or it failed) and everything received has been read.
    bool IsEOF() const;

private:
    KVHttpClientImpl* m_pOwner;
};

class KVHttpClient {
public:
    KVHttpClient(const std::string& host, int port, const std::string& path,
                 const std::string& user, const std::string& password, int timeoutSec, bool flag1,
                 bool flag2, bool flag3, bool flag4, HTTP_VERSION version, const std::string& extra,
                 bool flag5);
    virtual ~KVHttpClient();
    KVHttpClient(const KVHttpClient&) = delete;
    KVHttpClient& operator=(const KVHttpClient&) = delete;

    int SendRequest(KV_HTTP_METHOD method, std::string query, const std::string& contentType);
    int SendRequestBySocketPost(std::string body);
    int CheckResponse(int& httpStatus);
    int CheckContentType();
    int GetHttpContent(HTTP_MAP_KEY key, std::string& value) const;
    int ReadToLineEnd(char* buf, int size);
    int ReadData(char* buf, int len);
    int Read(char* buf, int len);
    void RestoreData(char* buf, int len);

    KVSocket m_socket;

private:
    KVHttpClientImpl* m_pImpl;
};

}  // namespace KVNet
