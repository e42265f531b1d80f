// MultipartFetch: construction, the HTTP client it drives, and the connection sequence that
// leaves the response positioned just after the first boundary line.
#include "http/multipartfetch.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "http/multipartpriv.h"
#include "http/multipartscan.h"
#include "http/multipartlog.h"

namespace {

// What the fetcher asks of the client; the client's own texts for GET and the request type.
constexpr const char* kQuery = "?";
constexpr const char* kRequestContentType = "application/xml; charset=UTF-8";

// Client results of CheckResponse as the fetchers tell them apart.
constexpr int kClientStatusError = 3;
constexpr int kClientAuthError = 4;
constexpr int kClientTransportError = 5;

}  // namespace

MultipartFetch::MultipartFetch() = default;

MultipartFetch::MultipartFetch(const char* host, int port, const char* path, const char* user,
                               const char* password, int clientArg, int mediaMode, bool clientFlag)
    : m_bClientFlag4(clientFlag) {
    Init(path, host, port, user, password, clientArg, mediaMode);
}

MultipartFetch::~MultipartFetch() {
    if (!m_pPriv)
        return;
    MF_LOG(LOG_LEVEL_NOTICE, "Close the connection. priv [%p], mf [%p].\n",
           static_cast<void*>(m_pPriv.get()), static_cast<void*>(this));
    ReleaseHttpClient();
    // A format copy still running on another thread ends before the state goes.
    { std::lock_guard<std::mutex> wait(m_pPriv->mutex); }
    m_pPriv.reset();  // the formats free their extra data
}

void MultipartFetch::Init(const char* path, const char* host, int port, const char* user,
                          const char* password, int clientArg, int mediaMode) {
    if (!host || port < 0) {
        MF_LOG(LOG_LEVEL_NOTICE, "Parameters are incorrect!\n");
        return;
    }
    if (m_pPriv) {
        ReleaseHttpClient();
        m_pPriv.reset();
    }
    // Several MiB: allocation failure leaves an uninitialised fetcher, never an exception.
    m_pPriv.reset(new (std::nothrow) MultipartPriv);
    if (!m_pPriv) {
        MF_LOG(LOG_LEVEL_ERROR, "No memory for the fetcher's state.\n");
        return;
    }
    MultipartPriv& p = *m_pPriv;
    m_iClientArg = clientArg;
    m_httpVersion = KVNet::HTTP_VER_DEF;
    p.strHost = host;
    p.strPort = std::to_string(port);
    p.strPath = path ? path : "";
    p.strUser = user ? user : "";
    p.strPassword = password ? password : "";

    m_bByteRead = mediaMode == -1;
    if (mediaMode == 5) {
        p.videoFormat.i_cat = VIDEO_ES;
        p.videoFormat.i_codec = kCodecMxpg;
        p.videoFormat.strDescription = "MxPEG";
        p.audioFormat.i_cat = AUDIO_ES;
        p.audioFormat.i_codec = kCodecAlaw;
        p.audioFormat.audio.i_rate = 8000;
        p.audioFormat.audio.i_bitspersample = 8;
        p.audioFormat.audio.i_channels = 1;
        p.audioFormat.strDescription = "PCMA";
    } else if (mediaMode == 1) {
        p.videoFormat.i_cat = VIDEO_ES;
        p.videoFormat.i_codec = kCodecMjpg;
        p.videoFormat.strDescription = "JPEG";
    }
}

int MultipartFetch::TestConnect() {
    if (!m_pPriv)
        return MF_ERR_NOT_INIT;
    int rc = Connector();
    if (rc != MF_OK)
        MF_LOG(LOG_LEVEL_NOTICE, "This Connection is invalid!\n");
    return rc;
}

int MultipartFetch::SetReconnect() {
    if (m_pPriv) {
        MF_LOG(LOG_LEVEL_NOTICE, "Set reconnect\n");
        m_pPriv->bConnected = false;
    }
    return MF_OK;
}

bool MultipartFetch::IsEOF() {
    if (!m_pPriv || !m_pPriv->pHttpClient)
        return false;
    return m_pPriv->pHttpClient->m_socket.IsEOF();
}

long long MultipartFetch::GetTimestamp() {
    return m_pPriv ? m_pPriv->llTimestamp : 0;
}

void MultipartFetch::SetSocketFd(int fd) {
    m_iSocketFd.exchange(fd);
}

int MultipartFetch::GetSocketFd() {
    return m_iSocketFd.load();
}

int MultipartFetch::GetHttpSocketFd() {
    return m_pPriv ? GetSocketFd() : -1;
}

int MultipartFetch::InitialHttpClient() {
    ReleaseHttpClient();
    MultipartPriv& p = *m_pPriv;
    p.bLengthKnown = false;
    p.uContentTypeLen = 0;
    p.uContentLen = 0;
    p.uBoundaryLen = 0;
    p.pHttpClient.reset(new (std::nothrow) KVNet::KVHttpClient(
        p.strHost, static_cast<int>(strtol(p.strPort.c_str(), nullptr, 10)), p.strPath, p.strUser,
        p.strPassword, m_iClientArg, m_bClientFlag1, true, true, m_bClientFlag4, m_httpVersion, "",
        true));
    return p.pHttpClient ? MF_OK : MF_ERR_CLIENT;
}

void MultipartFetch::ReleaseHttpClient() {
    if (!m_pPriv)
        return;
    SetSocketFd(-1);
    if (m_pPriv->pHttpClient) {
        m_pPriv->pHttpClient.reset();
        MF_LOG(LOG_LEVEL_INFO, "Release existed http client [%p]\n", static_cast<void*>(this));
    }
    m_pPriv->bConnected = false;
}

int MultipartFetch::VerifyHttpStatus() {
    KVNet::KVHttpClient* client = m_pPriv->pHttpClient.get();
    if (!client)
        return MF_ERR_CLIENT;
    int sent = m_strPostContent.empty()
                   ? client->SendRequest(KVNet::HTTP_METHOD_GET, kQuery, kRequestContentType)
                   : client->SendRequestBySocketPost(m_strPostContent);
    if (sent != 0)
        return MF_ERR_READ;
    int status = 0;
    // The client's codes are remapped on purpose; hosts act on these values.
    switch (client->CheckResponse(status)) {
        case 0:
            return MF_OK;
        case kClientStatusError:
            return MF_ERR_READ;
        case kClientAuthError:
            return MF_ERR_AUTH;
        case kClientTransportError:
            return MF_ERR_TRANSPORT;
        default:
            return MF_ERR_CLIENT;
    }
}

int MultipartFetch::GetMIMEInfo() {
    MultipartPriv& p = *m_pPriv;
    std::string value;
    if (!p.pHttpClient || p.pHttpClient->GetHttpContent(KVNet::HTTP_KEY_CONTENT_TYPE, value) != 0)
        return MF_ERR_CLIENT;
    snprintf(p.szLine, sizeof(p.szLine), "%s", value.c_str());

    // "multipart/ mixed" (with the blank) is accepted on purpose; its blank must then not
    // split the type, so no token of such a line is split at blanks.
    const bool blankType = strstr(p.szLine, "multipart/ mixed") != nullptr;
    char* cursor = p.szLine;
    char* type = multipart::NextToken(cursor, blankType ? ":;=" : " :;=");
    if (!type || (!strstr(type, "multipart/x-mixed-replace") && !strstr(type, "multipart/mixed") &&
                  !strstr(type, "multipart/ mixed"))) {
        MF_LOG(LOG_LEVEL_NOTICE, "Can not find MIME type!\n\n");
        return MF_ERR_NOT_MULTIPART;
    }
    char* key = multipart::NextToken(cursor, ":;=");
    if (!key || !strstr(key, "boundary"))
        return MF_ERR_NOT_MULTIPART;
    char* raw = multipart::NextToken(cursor, ":;=");
    if (!raw)
        return MF_ERR_NOT_MULTIPART;
    // Leading hyphens and quotes go, and the token ends at the next one: a boundary with a
    // hyphen inside is cut there on purpose. Boundary lines are found by substring search,
    // so such streams still work.
    char* token = multipart::NextToken(raw, "-\"");
    if (!token)
        return MF_ERR_NOT_MULTIPART;
    snprintf(p.szBoundary, sizeof(p.szBoundary), "--%s", token);
    p.uBoundaryLen = static_cast<uint32_t>(strlen(p.szBoundary));
    return MF_OK;
}

int MultipartFetch::Connector() {
    MultipartPriv& p = *m_pPriv;
    if (p.bConnected)
        return MF_OK;
    int rc = InitialHttpClient();
    if (rc != MF_OK)
        return rc;
    rc = VerifyHttpStatus();
    if (rc != MF_OK)
        return rc;
    SetSocketFd(p.pHttpClient->m_socket.GetFd());

    if (GetMIMEInfo() != MF_OK) {
        MF_LOG(LOG_LEVEL_NOTICE, "Get mime info failed\n");
        if (p.pHttpClient->CheckContentType() != 0) {
            MF_LOG(LOG_LEVEL_NOTICE, "Check content type failed again\n");
            return MF_ERR_CLIENT;
        }
        rc = GetMIMEInfo();
        if (rc != MF_OK) {
            MF_LOG(LOG_LEVEL_NOTICE, "Get mime info failed again\n");
            return rc;
        }
    }

    if (SearchForBoundary() == 0) {
        p.bConnected = true;
        return MF_OK;
    }
    MF_LOG(LOG_LEVEL_NOTICE, "Cannot match the boundary in body header!\n");
    if (!p.bLengthKnown)
        return MF_ERR_BOUNDARY;
    // The response began inside a part of known length: skip that body, then look again.
    if (ReadBytes(nullptr, p.uContentLen) != p.uContentLen)
        return MF_ERR_BOUNDARY;
    if (SearchForBoundary() == 0) {
        p.bConnected = true;
        return MF_OK;
    }
    MF_LOG(LOG_LEVEL_NOTICE, "Cannot match the boundary in body header!\n");
    return MF_ERR_BOUNDARY;
}

long long MultipartFetch::SkipBytes(long long count) {
    constexpr long long kPiece = static_cast<long long>(kPartBufferSize);
    long long skipped = 0;
    while (skipped < count) {
        const long long left = count - skipped;
        const unsigned int piece = static_cast<unsigned int>(left < kPiece ? left : kPiece);
        const long long got = ReadBytes(nullptr, piece);
        if (got <= 0)
            break;
        skipped += got;
        if (got < piece)
            break;
    }
    return skipped;
}

long long MultipartFetch::ReadBytes(unsigned char* dst, unsigned int count) {
    KVNet::KVHttpClient* client = m_pPriv->pHttpClient.get();
    if (!client)
        return -1;
    // Discarded bytes go through the part buffer, a piece at a time.
    const unsigned int piece = dst ? 1u << 30 : static_cast<unsigned int>(kPartBufferSize);
    long long total = 0;
    while (total < count) {
        const unsigned int left = count - static_cast<unsigned int>(total);
        const int want = static_cast<int>(left < piece ? left : piece);
        unsigned char* at = dst ? dst + total : m_pPriv->abData;
        const int got = client->ReadData(reinterpret_cast<char*>(at), want);
        if (got <= 0)
            return total > 0 ? total : got;
        total += got;
        if (got < want)
            break;
    }
    return total;
}
