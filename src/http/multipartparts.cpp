// MultipartFetch, part by part: boundary and header scanning, the part length (announced, or
// found by collecting the body up to the next boundary), and the fetch operations. Every
// failure that leaves the stream position unknown drops the connection; the next NextPartInfo
// reconnects.
#include <cstdio>
#include <cstring>

#include "http/multipartfetch.h"
#include "http/multipartpriv.h"
#include "http/multipartscan.h"
#include "http/multipartlog.h"

namespace {

// Results of the scanning steps.
constexpr int kScanOk = 0;
constexpr int kScanReadFailed = -1;
constexpr int kScanFormatError = -2;

constexpr const char* kNameDelims = " :";
constexpr const char* kContentType = "content-type";
constexpr const char* kContentLength = "content-length";

// Read sizes of the body collection: a kibibyte, or a byte in byte-wise mode.
constexpr int kCollectStep = 1024;
constexpr int kCollectStepByteWise = 1;

}  // namespace

int MultipartFetch::ReadDataToLineEnd(char* buf, int size) {
    KVNet::KVHttpClient* client = m_pPriv->pHttpClient.get();
    if (!client) {
        MF_LOG(LOG_LEVEL_ERROR, "HttpClient is not exist!\n");
        return -1;
    }
    return client->ReadToLineEnd(buf, size);
}

int MultipartFetch::SearchForBoundary() {
    MultipartPriv& p = *m_pPriv;
    p.bLengthKnown = false;
    char* value = nullptr;
    bool lengthMet = false;
    for (int i = 0; i < kMaxScanLines && !lengthMet; ++i) {
        if (ReadDataToLineEnd(p.szLine, sizeof(p.szLine)) < 0)
            return kScanReadFailed;
        if (p.szLine[0] == 0)
            continue;
        if (strstr(p.szLine, p.szBoundary))
            return kScanOk;
        multipart::LowerInPlace(p.szLine, sizeof(p.szLine));
        char* cursor = p.szLine;
        char* name = multipart::NextToken(cursor, kNameDelims);
        if (name && multipart::NameIs(name, kContentLength)) {
            value = multipart::NextToken(cursor, kNameDelims);
            lengthMet = true;
        }
    }
    if (!lengthMet) {
        MF_LOG(LOG_LEVEL_NOTICE, "Can not match the boundary in body header!\n");
        return kScanFormatError;
    }
    // The stream is inside a part: its length lets the caller skip the body and look again.
    p.bLengthKnown = true;
    if (!value)
        return kScanFormatError;
    p.uContentLen = static_cast<uint32_t>(multipart::ParseDecimal(value));
    MF_LOG(LOG_LEVEL_INFO, "%d\n", static_cast<int>(p.uContentLen));
    SearchHeaderEnd();
    return kScanFormatError;
}

int MultipartFetch::SearchHeaderEnd() {
    MultipartPriv& p = *m_pPriv;
    for (int i = 0; i < kMaxScanLines; ++i) {
        if (ReadDataToLineEnd(p.szLine, sizeof(p.szLine)) < 0)
            return kScanReadFailed;
        if (p.szLine[0] == 0)
            return kScanOk;
        // The last such line wins.
        snprintf(p.szBackOpt, sizeof(p.szBackOpt), "%s", p.szLine);
        p.bHasBackOpt = true;
        p.uBackOptLen = static_cast<uint32_t>(strlen(p.szBackOpt));
    }
    return kScanFormatError;
}

int MultipartFetch::GetBodyInfo() {
    MultipartPriv& p = *m_pPriv;
    p.bLengthKnown = false;
    char* cursor = nullptr;
    for (int i = 0; i < kMaxScanLines && !p.bLengthKnown; ++i) {
        if (ReadDataToLineEnd(p.szLine, sizeof(p.szLine)) < 0)
            return kScanReadFailed;
        if (p.szLine[0] == 0)
            continue;
        multipart::LowerInPlace(p.szLine, sizeof(p.szLine));
        cursor = p.szLine;
        char* name = multipart::NextToken(cursor, kNameDelims);
        if (!name)
            continue;
        if (multipart::NameIs(name, kContentType)) {
            // The rest of the header block stays for GetContentLen.
            char* value = multipart::NextToken(cursor, kNameDelims);
            if (!value)
                return kScanFormatError;
            snprintf(p.szContentType, sizeof(p.szContentType), "%s", value);
            p.uContentTypeLen = static_cast<uint32_t>(strlen(p.szContentType));
            MF_LOG(LOG_LEVEL_TRACE, "%s\n", p.szContentType);
            return kScanOk;
        }
        if (multipart::NameIs(name, kContentLength)) {
            p.bLengthKnown = true;
            break;
        }
        // Any other header: kept as the front optional line, and offered to the in-band
        // parameters (which may read binary extra data that follows the line).
        memset(p.szFrontOpt, 0, sizeof(p.szFrontOpt));
        snprintf(p.szFrontOpt, sizeof(p.szFrontOpt), "%s:%s\r\n", name, cursor);
        p.bHasFrontOpt = true;
        p.uFrontOptLen = static_cast<uint32_t>(strlen(p.szFrontOpt));
        ParseLiveviewSrcParam(name, cursor);
    }
    if (!p.bLengthKnown) {
        MF_LOG(LOG_LEVEL_NOTICE, "Can not find content type!\n");
        return kScanFormatError;
    }

    // The length came first: take it, then look for the type.
    char* value = multipart::NextToken(cursor, kNameDelims);
    if (!value)
        return kScanFormatError;
    p.uContentLen = static_cast<uint32_t>(multipart::ParseDecimal(value));
    bool typeMet = false;
    for (int i = 0; i < kMaxScanLines && !typeMet; ++i) {
        if (ReadDataToLineEnd(p.szLine, sizeof(p.szLine)) < 0)
            return kScanReadFailed;
        if (p.szLine[0] == 0)
            return kScanOk;  // no type: the previous part's type stands
        multipart::LowerInPlace(p.szLine, sizeof(p.szLine));
        cursor = p.szLine;
        char* name = multipart::NextToken(cursor, kNameDelims);
        typeMet = name && multipart::NameIs(name, kContentType);
    }
    if (!typeMet) {
        MF_LOG(LOG_LEVEL_NOTICE, "Can not find content type!\n");
        return kScanFormatError;
    }
    value = multipart::NextToken(cursor, kNameDelims);
    if (!value)
        return kScanFormatError;
    snprintf(p.szContentType, sizeof(p.szContentType), "%s", value);
    p.uContentTypeLen = static_cast<uint32_t>(strlen(p.szContentType));
    MF_LOG(LOG_LEVEL_TRACE, "%s\n", p.szContentType);
    return SearchHeaderEnd();
}

int MultipartFetch::GetContentLen() {
    MultipartPriv& p = *m_pPriv;
    if (p.bLengthKnown)
        return kScanOk;
    char* value = nullptr;
    bool lengthMet = false;
    for (int i = 0; i < kMaxScanLines && !lengthMet; ++i) {
        if (ReadDataToLineEnd(p.szLine, sizeof(p.szLine)) < 0)
            return kScanReadFailed;
        if (p.szLine[0] == 0) {
            MF_LOG(LOG_LEVEL_NOTICE, "No content length.\n");
            p.uContentLen = 0;
            return kScanOk;
        }
        multipart::LowerInPlace(p.szLine, sizeof(p.szLine));
        char* cursor = p.szLine;
        char* name = multipart::NextToken(cursor, kNameDelims);
        if (!name)
            return kScanFormatError;
        if (multipart::NameIs(name, kContentLength)) {
            value = multipart::NextToken(cursor, kNameDelims);
            lengthMet = true;
        } else {
            MF_LOG(LOG_LEVEL_NOTICE, "MULTIPART format is invalid.\n");
        }
    }
    if (!lengthMet || !value)
        return kScanFormatError;
    p.uContentLen = static_cast<uint32_t>(multipart::ParseDecimal(value));
    MF_LOG(LOG_LEVEL_TRACE, "Image length %u\n", p.uContentLen);
    p.bLengthKnown = true;
    return SearchHeaderEnd();
}

int MultipartFetch::GetBodyContent() {
    MultipartPriv& p = *m_pPriv;
    if (p.bLengthKnown)
        return kScanOk;
    KVNet::KVHttpClient* client = p.pHttpClient.get();
    if (!client) {
        MF_LOG(LOG_LEVEL_WARNING, "HttpClient is not exist!\n");
        return kScanReadFailed;
    }
    p.uContentLen = 0;
    const size_t boundaryLen = p.uBoundaryLen;
    char* data = reinterpret_cast<char*>(p.abData);
    // A body is taken to be at least as long as the boundary: these bytes are not searched
    // until more follow.
    if (client->ReadData(data, static_cast<int>(boundaryLen)) != static_cast<int>(boundaryLen))
        return kScanReadFailed;
    size_t filled = boundaryLen;
    size_t nextPos = 0;  // first position not yet compared: each is compared once
    const int step = m_bByteRead ? kCollectStepByteWise : kCollectStep;
    const size_t fillLimit = kPartBufferSize - step;
    long long found = -1;
    while (found < 0) {
        if (filled >= fillLimit) {
            MF_LOG(LOG_LEVEL_NOTICE, "Internal buffer is exhausted (%d)!\n\n",
                   static_cast<int>(filled));
            return kScanFormatError;
        }
        const int count = client->ReadData(data + filled, step);
        if (count < 0)
            return kScanReadFailed;
        if (count == 0 && client->m_socket.IsEOF()) {
            MF_LOG(LOG_LEVEL_NOTICE, "End of file.\n");
            return kScanReadFailed;
        }
        filled += count;
        // Every position where a whole boundary fits in what has been read.
        const size_t last = filled - boundaryLen;
        found = multipart::FindPattern(p.abData, nextPos, last, p.szBoundary, boundaryLen);
        nextPos = last + 1;
    }
    MF_LOG(LOG_LEVEL_NOTICE, "Find a boundary.\n\n");
    // The body ends before the line end that precedes the boundary.
    const size_t at = static_cast<size_t>(found);
    size_t cut = 0;
    if (at > 1 && p.abData[at - 2] == '\r')
        cut = 2;
    else if (at > 0 && p.abData[at - 1] == '\n')
        cut = 1;
    p.uContentLen = static_cast<uint32_t>(at - cut);
    // What was read past the boundary belongs to the next part's headers.
    const size_t after = at + boundaryLen;
    if (after < filled)
        client->RestoreData(data + after, static_cast<int>(filled - after));
    if (p.uContentLen > kPartBufferSize - 1)
        return kScanFormatError;
    MF_LOG(LOG_LEVEL_TRACE, "Image length %u\n", p.uContentLen);
    return kScanOk;
}

int MultipartFetch::NextPartInfo(unsigned int& size, char* typeBuf, unsigned int typeBufLen,
                                 int& mediaKind) {
    mediaKind = 0;
    if (!m_pPriv)
        return MF_ERR_NOT_INIT;
    MultipartPriv& p = *m_pPriv;
    int rc = Connector();
    if (rc != MF_OK) {
        MF_LOG(LOG_LEVEL_NOTICE, "This connection is invalid!\n");
        ReleaseHttpClient();
        return rc;
    }
    rc = GetBodyInfo();
    if (rc != kScanOk) {
        MF_LOG(LOG_LEVEL_NOTICE, "Body infomation error!\n");
        ReleaseHttpClient();
        return rc == kScanFormatError ? MF_ERR_PART_HEADERS : MF_ERR_READ;
    }
    rc = GetContentLen();
    if (rc != kScanOk) {
        MF_LOG(LOG_LEVEL_NOTICE, "Get body length error!\n");
        ReleaseHttpClient();
        return rc == kScanFormatError ? MF_ERR_PART_LENGTH : MF_ERR_READ;
    }
    rc = GetBodyContent();
    if (rc != kScanOk) {
        MF_LOG(LOG_LEVEL_NOTICE, "Get body content error!\n");
        ReleaseHttpClient();
        return rc == kScanFormatError ? MF_ERR_BOUNDARY : MF_ERR_READ;
    }
    mediaKind = strstr(p.szContentType, "audio") ? AUDIO_ES : VIDEO_ES;
    size = p.uContentLen;
    if (typeBuf && typeBufLen > 0)
        snprintf(typeBuf, typeBufLen, "%s", p.szContentType);
    return MF_OK;
}

int MultipartFetch::CheckFetchable(unsigned char* buf, unsigned int len, bool partial) {
    if (!m_pPriv)
        return MF_ERR_NOT_INIT;
    if (!m_pPriv->pHttpClient) {
        MF_LOG(LOG_LEVEL_ERROR, "HttpClient is not exist!\n");
        return MF_ERR_READ;
    }
    if (!buf) {
        MF_LOG(LOG_LEVEL_NOTICE, "Parameters are incorrect!\n");
        return MF_ERR_PARAM;
    }
    if (partial)
        return MF_OK;
    return len < m_pPriv->uContentLen ? MF_ERR_BUFFER_SMALL : MF_OK;
}

int MultipartFetch::FetchContent(unsigned char* buf, unsigned int len) {
    int rc = CheckFetchable(buf, len, false);
    if (rc != MF_OK)
        return rc;
    MultipartPriv& p = *m_pPriv;
    if (!p.bLengthKnown || p.uContentLen == 0) {
        // Collected while looking for its end; the next boundary is already behind us.
        memcpy(buf, p.abData, p.uContentLen);
        return MF_OK;
    }
    // A part of known length goes straight into the caller's buffer.
    const long long got = ReadBytes(buf, p.uContentLen);
    if (got != p.uContentLen) {
        MF_LOG(LOG_LEVEL_NOTICE, "Read length mismatched: [%d] and [%d]\n", static_cast<int>(got),
               static_cast<int>(p.uContentLen));
        ReleaseHttpClient();
        return MF_ERR_READ;
    }
    rc = SearchForBoundary();
    if (rc == kScanOk)
        return MF_OK;
    MF_LOG(LOG_LEVEL_NOTICE, "Search boundary failed\n");
    ReleaseHttpClient();
    return rc == kScanFormatError ? MF_ERR_BOUNDARY : MF_ERR_READ;
}

int MultipartFetch::FetchPartOfContent(unsigned char* buf, unsigned int len, int& got) {
    int rc = CheckFetchable(buf, len, true);
    if (rc != MF_OK)
        return rc;
    MultipartPriv& p = *m_pPriv;
    if (!p.bLengthKnown || p.uContentLen == 0)
        return MF_ERR_PARAM;
    unsigned int want = len < p.uContentLen ? len : p.uContentLen;
    if (want > static_cast<unsigned int>(INT32_MAX))
        want = INT32_MAX;
    KVNet::KVHttpClient* client = p.pHttpClient.get();
    got = client->Read(reinterpret_cast<char*>(buf), static_cast<int>(want));
    if (got < 0) {
        MF_LOG(LOG_LEVEL_ERROR, "Read failure with BufLen [%d]\n", static_cast<int>(len));
        ReleaseHttpClient();
        return MF_ERR_READ;
    }
    if (got == 0) {
        if (!client->m_socket.IsEOF())
            return MF_OK;  // nothing this time
        MF_LOG(LOG_LEVEL_ERROR, "Receive EOF\n");
        ReleaseHttpClient();
        return MF_ERR_EOF_IN_PART;
    }
    p.uContentLen -= static_cast<uint32_t>(got);
    if (p.uContentLen > 0)
        return MF_OK;
    if (SearchForBoundary() == kScanOk)
        return MF_OK;
    // Unlike FetchContent, a read failure here also reports the boundary: kept as hosts see it.
    MF_LOG(LOG_LEVEL_ERROR, "Search boundary failed\n");
    ReleaseHttpClient();
    return MF_ERR_BOUNDARY;
}

void MultipartFetch::DropData() {
    if (!m_pPriv || !m_pPriv->bLengthKnown || !m_pPriv->pHttpClient)
        return;
    MultipartPriv& p = *m_pPriv;
    const long long got = ReadBytes(nullptr, p.uContentLen);
    if (got != p.uContentLen) {
        MF_LOG(LOG_LEVEL_NOTICE, "Read length mismatched: [%d] and [%d]\n", static_cast<int>(got),
               static_cast<int>(p.uContentLen));
        ReleaseHttpClient();
        return;
    }
    if (SearchForBoundary() != kScanOk)
        ReleaseHttpClient();
}

int MultipartFetch::FetchFrontOptContent(unsigned char* buf) {
    if (!m_pPriv)
        return MF_ERR_NOT_INIT;
    if (!buf) {
        MF_LOG(LOG_LEVEL_NOTICE, "Parameters are incorrect!\n");
        return MF_ERR_PARAM;
    }
    MultipartPriv& p = *m_pPriv;
    if (p.bHasFrontOpt && p.uFrontOptLen > 0) {
        // Without its NUL, and wiped afterwards; flag and length stay (a second call hands
        // out zero bytes): both kept as hosts rely on them.
        memcpy(buf, p.szFrontOpt, p.uFrontOptLen);
        memset(p.szFrontOpt, 0, p.uFrontOptLen);
    }
    return MF_OK;
}

int MultipartFetch::FetchBackOptContent(unsigned char* buf) {
    if (!m_pPriv)
        return MF_ERR_NOT_INIT;
    if (!buf) {
        MF_LOG(LOG_LEVEL_NOTICE, "Parameters are incorrect!\n");
        return MF_ERR_PARAM;
    }
    MultipartPriv& p = *m_pPriv;
    if (p.bHasBackOpt && p.uBackOptLen > 0) {
        // With its NUL, unlike the front line.
        memcpy(buf, p.szBackOpt, p.uBackOptLen + 1);
        memset(p.szBackOpt, 0, p.uBackOptLen + 1);
    }
    return MF_OK;
}
