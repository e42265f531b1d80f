// One HTTP request on libcurl's multi interface, driven from the reading thread: nothing runs
// in the background. Body bytes land in a bounded buffer (or straight in the reader's buffer
// while it waits); when the buffer is full the transfer pauses, so the server's pace never
// costs memory. Owns the easy and multi handles and the sockets it opened.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <string>
#include <vector>

#include "core/kvhttpclient.h"
#include "host/httpbodybuffer.h"
#include "host/httpresponse.h"

namespace KVNet {

class KVHttpClientImpl {
public:
    struct Options {
        std::string host;
        int port = 0;
        std::string path;
        std::string user;
        std::string password;
        int timeoutSec = 0;
        bool wholeTimeout = false;
        bool followRedirects = true;
        bool allowBasic = true;
        bool verifyPeer = true;
        HTTP_VERSION version = HTTP_VER_DEF;
        std::string extraHeaders;
        bool sniffContentType = true;
    };

    explicit KVHttpClientImpl(Options options);
    ~KVHttpClientImpl();
    KVHttpClientImpl(const KVHttpClientImpl&) = delete;
    KVHttpClientImpl& operator=(const KVHttpClientImpl&) = delete;

    // Sets up and starts the request; false when it was already started or curl refused it.
    bool Start(bool post, const std::string& query, const std::string& body,
               const std::string& contentType);
    bool Started() const { return m_bStarted; }
    bool SniffAllowed() const { return m_options.sniffContentType; }

    // Waits for the final response head; false when the transfer ended without one.
    bool WaitForHead();
    const camfetch_host::HttpResponse& Response() const { return m_response; }
    camfetch_host::HttpResponse& Response() { return m_response; }

    // Unread body bytes. WaitForBody pumps the transfer until at least want bytes are
    // buffered, or the buffer holds the mark (a line end, or the blank line that ends a
    // header block), or the transfer ends; returns whether the condition was met.
    enum class Mark { kNone, kLineEnd, kBlankLine };
    camfetch_host::HttpBodyBuffer& Body() { return m_body; }
    const camfetch_host::HttpBodyBuffer& Body() const { return m_body; }
    bool WaitForBody(size_t want, Mark mark);
    // Copies buffered bytes into dst, then lets the transfer write straight into dst until at
    // least atLeast bytes (at most len) were delivered or it ends. Returns the count.
    size_t ReadInto(char* dst, size_t len, size_t atLeast);

    // The transfer is over (or never started) and nothing more will arrive.
    bool Ended() const { return !m_bStarted || m_bEnded; }
    // It ended by a failure (transport error, timeout, interruption) rather than a clean end.
    bool Failed() const { return m_bFailed; }
    int Fd() const { return m_iFd.load(); }
    void Interrupt();

private:
    static size_t OnBody(char* data, size_t size, size_t count, void* self);
    static size_t OnHeader(char* data, size_t size, size_t count, void* self);
    static curl_socket_t OnOpenSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
    static int OnCloseSocket(void* self, curl_socket_t fd);

    bool Configure(bool post, const std::string& query, const std::string& body,
                   const std::string& contentType);
    // Drives the transfer until done() holds or it ends; returns done().
    template <typename Done>
    bool Pump(Done done);
    // Reads the multi handle's messages: the end of the transfer and its result.
    void CollectResult();
    // Stops the transfer as failed with a reason for the log.
    void Abort(const char* reason);
    void Touch();

    Options m_options;
    std::string m_strUrl;
    CURL* m_pEasy = nullptr;
    CURLM* m_pMulti = nullptr;
    curl_slist* m_pHeaders = nullptr;
    bool m_bStarted = false;
    bool m_bInMulti = false;
    bool m_bEnded = false;
    bool m_bFailed = false;
    bool m_bPaused = false;
    std::atomic<bool> m_bInterrupted{false};
    long long m_llLastProgressUs = 0;
    long long m_llIdleLimitUs = 0;

    camfetch_host::HttpResponse m_response;
    camfetch_host::HttpBodyBuffer m_body;
    // While a read waits: where the transfer writes directly, and how much is left there.
    char* m_pDirect = nullptr;
    size_t m_directLeft = 0;

    std::vector<int> m_openFds;  // sockets curl opened through us and has not closed yet
    std::atomic<int> m_iFd{-1};
};

}  // namespace KVNet
