// The host's HTTP client, as the pull-style fetchers use it: one client per request, blocking
// pull-style reads on a response body that may never end. The default host implements it on
// libcurl (src/host/http*.cpp); the layout stays private behind a pointer, so a host may supply
// its own definitions of these members instead.
#pragma once

#include <memory>
#include <string>

namespace KVNet {

// HTTP_VER_DEF lets the client choose; it never picks HTTP/2 for these long pull transfers.
enum HTTP_VERSION { HTTP_VER_DEF = 0, HTTP_VER_1_0 = 1, HTTP_VER_1_1 = 2 };
enum KV_HTTP_METHOD { HTTP_METHOD_GET = 0, HTTP_METHOD_POST = 1 };
// Response header fields that GetHttpContent reads.
enum HTTP_MAP_KEY { HTTP_KEY_CONTENT_TYPE = 0, HTTP_KEY_CONTENT_LENGTH = 1, HTTP_KEY_SERVER = 2 };

class KVHttpClientImpl;

// The connection of a client, as far as the fetchers look at it.
class KVSocket {
public:
    explicit KVSocket(KVHttpClientImpl* owner) : m_pOwner(owner) {}
    // Descriptor of the connection carrying the response, -1 when there is none. Another
    // thread may shutdown(2) it to make a blocked read return.
    int GetFd() const;
    // The response has ended (the peer closed, the transfer failed or timed out, or it was
    // never started) and every byte received has been read.
    bool IsEOF() const;

private:
    KVHttpClientImpl* m_pOwner;
};

// Result values of the request operations: 0 success, and from CheckResponse
constexpr int KV_HTTP_ERR_STATUS = 3;     // the server answered 3xx (not followed), 4xx or 5xx
constexpr int KV_HTTP_ERR_AUTH = 4;       // 401, 403 or 407: credentials missing or refused
constexpr int KV_HTTP_ERR_TRANSPORT = 5;  // no answer: resolve, connect, TLS, timeout, closed
// and -1 from the others when called out of order or the request could not be set up.

class KVHttpClient {
public:
    // host: a name or address, optionally prefixed "http://" or "https://" (TLS); IPv6
    //   literals with or without brackets. port <= 0 takes the scheme's default.
    // path: absolute path of the resource, query string allowed.
    // user, password: offered with Basic or Digest, whichever the server asks for (empty user:
    //   no credentials).
    // timeoutSec: bounds connecting and every wait for data (<= 0: 10 seconds). A stream that
    //   keeps delivering is never cut.
    // wholeTimeout: timeoutSec also bounds the whole transfer, for one-shot requests (snapshots,
    //   CGI commands); the fetchers pass false since their responses never end.
    // followRedirects: follow up to 5 redirects; credentials go to the original host only.
    // allowBasic: accept Basic authentication; false insists on Digest, so that a password
    //   never crosses plain HTTP in clear.
    // verifyPeer: check the https server's certificate chain and host name against the system
    //   store; false accepts the self-signed certificates many cameras ship with.
    // version: HTTP/1.0 or 1.1 (HTTP_VER_DEF is 1.1); HTTP/2 is never negotiated.
    // extraHeaders: additional request header lines ("Name: value", separated by CR LF or LF),
    //   for example a Cookie or a User-Agent a camera insists on; empty for none.
    // sniffContentType: CheckContentType may look at the start of the body when the response
    //   headers name no multipart type (cameras that send application/octet-stream, or repeat
    //   the header block inside the body).
    KVHttpClient(const std::string& host, int port, const std::string& path,
                 const std::string& user, const std::string& password, int timeoutSec,
                 bool wholeTimeout, bool followRedirects, bool allowBasic, bool verifyPeer,
                 HTTP_VERSION version, const std::string& extraHeaders, bool sniffContentType);
    // Ends the transfer and closes the connection.
    virtual ~KVHttpClient();
    KVHttpClient(const KVHttpClient&) = delete;
    KVHttpClient& operator=(const KVHttpClient&) = delete;

    // Starts the one request of this client and returns at once; connection and protocol
    // failures surface in CheckResponse. query is appended to the path (a leading '?' is
    // optional; "?" or "" add nothing). contentType labels the body of a POST (ignored for
    // GET). 0 on success, -1 when a request was already started or could not be set up.
    int SendRequest(KV_HTTP_METHOD method, std::string query, const std::string& contentType);
    // Starts a POST carrying body (binary safe). Its Content-Type follows the body: JSON for
    // '{' or '[', "application/xml; charset=UTF-8" for '<', a form otherwise. 0 or -1 as above.
    int SendRequestBySocketPost(std::string body);
    // Waits for the final response's status line and headers (after any authentication round
    // trip or redirect) and sets httpStatus (0 when none arrived). 0 for 2xx, otherwise one of
    // KV_HTTP_ERR_STATUS, KV_HTTP_ERR_AUTH, KV_HTTP_ERR_TRANSPORT; -1 before SendRequest.
    int CheckResponse(int& httpStatus);
    // 0 when the response's content type names a multipart type with a boundary (its media type
    // then given in lower case, as cameras write it in any case). Otherwise,
    // when sniffing is enabled, looks at the start of the body: a header block repeated there
    // that names a multipart type is taken (and consumed), or a first line "--token" stands for
    // "multipart/x-mixed-replace; boundary=token" (nothing consumed). 0 when that worked, else -1.
    int CheckContentType();
    // A header of the final response; 0 when it is present, -1 otherwise.
    int GetHttpContent(HTTP_MAP_KEY key, std::string& value) const;
    // Reads one line without its LF or CR LF into buf, NUL-terminated, and returns its length
    // (an empty line gives 0). A longer line is handed out in pieces of size - 1 bytes; at the
    // end of the body the unterminated rest counts as a line. -1 on failure or at the end.
    int ReadToLineEnd(char* buf, int size);
    // Reads exactly len bytes, fewer only when the body ends or the transfer fails; returns the
    // count. -1 when it failed before delivering anything.
    int ReadData(char* buf, int len);
    // Reads what has arrived, at most len bytes, waiting for at least one. 0 at the end of the
    // body, -1 on failure (timeout, reset, interruption).
    int Read(char* buf, int len);
    // Pushes len bytes back in front of the unread body: the next read returns them first.
    void RestoreData(char* buf, int len);
    // Makes a blocked or later read fail at once. The one member safe to call from another
    // thread while a read blocks.
    void Interrupt();

    KVSocket m_socket;

private:
    std::unique_ptr<KVHttpClientImpl> m_pImpl;
};

}  // namespace KVNet
