#include "http/mpegfilefetch.h"

#include <cstring>
#include <new>

#include "core/kvhttpclient.h"
#include "core/log.h"

namespace {

constexpr int kMaxFrameBuf = 10485760;
constexpr int kBoxHeaderSize = 8;
constexpr uint32_t kBoxFtyp = FourCC("ftyp");
constexpr uint32_t kBoxMoov = FourCC("moov");
constexpr uint32_t kBoxMoof = FourCC("moof");
constexpr uint32_t kBoxMdat = FourCC("mdat");
const uint8_t kStartCode[4] = {0x00, 0x00, 0x00, 0x01};

#define MP4_LOG(level, ...) CF_LOG(LOG_CATEG_MP4FETCH, level, __VA_ARGS__)

uint32_t ReadBe32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

bool IsValidBox(uint32_t type) {
    return type == kBoxFtyp || type == kBoxMoov || type == kBoxMoof || type == kBoxMdat;
}

}  // namespace

MpegFileFetch::MpegFileFetch() : m_iClientArg(0), m_pPriv(nullptr) {}

MpegFileFetch::MpegFileFetch(const std::string& host, int port, const std::string& path,
                             const std::string& user, const std::string& password, int clientArg,
                             int mode)
    : m_iClientArg(0), m_pPriv(nullptr) {
    Init(host, port, path, user, password, clientArg, mode);
}

MpegFileFetch::~MpegFileFetch() {
    if (m_pPriv)
        CF_LOG_RAW("Close the connection.\n");
    ReleasePriv();
}

void MpegFileFetch::ReleasePriv() {
    if (!m_pPriv)
        return;
    ReleaseHttpClient();
    delete m_pPriv;  // with its buffer; the format frees its extra data
    m_pPriv = nullptr;
}

void MpegFileFetch::Init(const std::string& host, int port, const std::string& path,
                         const std::string& user, const std::string& password, int clientArg,
                         int mode) {
    if (host.empty() || path.empty() || port < 0) {
        CF_LOG_RAW("Parameters are incorrect!\n");
        return;
    }
    ReleasePriv();
    m_pPriv = new (std::nothrow) MpegFilePriv;
    if (!m_pPriv) {
        MP4_LOG(LOG_LEVEL_ERROR, "No memory for the fetcher's state.\n");
        return;
    }
    m_pPriv->strHost = host;
    m_pPriv->iPort = port;
    m_pPriv->strPath = path;
    m_pPriv->strUser = user;
    m_pPriv->strPassword = password;
    m_pPriv->videoFormat.Reset(VIDEO_ES, 0);
    m_iClientArg = clientArg;
    if (mode == 2) {
        m_pPriv->videoFormat.i_codec = kCodecMp4v;
        m_pPriv->videoFormat.strDescription = "MP4V-ES";
    } else if ((mode & ~4) == 3) {
        m_pPriv->videoFormat.i_codec = kCodecAvc1;
        m_pPriv->videoFormat.strDescription = "AVC1";
    }
}

int MpegFileFetch::InitialHttpClient() {
    ReleaseHttpClient();
    MpegFilePriv& p = *m_pPriv;
    p.pHttpClient = new (std::nothrow)
        KVNet::KVHttpClient(p.strHost, p.iPort, p.strPath, p.strUser, p.strPassword, m_iClientArg,
                            false, true, true, true, KVNet::HTTP_VER_DEF, "", true);
    return p.pHttpClient ? 0 : 1;
}

void MpegFileFetch::ReleaseHttpClient() {
    if (!m_pPriv)
        return;
    delete m_pPriv->pHttpClient;
    m_pPriv->pHttpClient = nullptr;
    m_pPriv->bConnected = false;
}

int MpegFileFetch::VerifyHttpStatus() {
    KVNet::KVHttpClient* client = m_pPriv->pHttpClient;
    if (!client)
        return 1;
    if (client->SendRequest(KVNet::HTTP_METHOD_GET, "?", "application/xml; charset=UTF-8") != 0)
        return 4;
    int status = 0;
    switch (client->CheckResponse(status)) {
        case 0:
            return 0;
        case 3:
            return 4;
        case 4:
            return 6;
        case 5:
            return 5;
        default:
            return 1;
    }
}

int MpegFileFetch::Connector() {
    if (m_pPriv->bConnected)
        return 0;
    int rc = InitialHttpClient();
    if (rc != 0)
        return rc;
    rc = VerifyHttpStatus();
    if (rc == 0) {
        m_pPriv->bConnected = true;
        return 0;
    }
    MP4_LOG(LOG_LEVEL_WARNING, "VerifyHttpStatus fail\n");
    return rc;
}

uint32_t MpegFileFetch::ReadBoxHeader(uint8_t* buf, uint32_t& size) {
    int n = m_pPriv->pHttpClient->ReadData(reinterpret_cast<char*>(buf), kBoxHeaderSize);
    if (n != kBoxHeaderSize) {
        size = 0;
        return 0;
    }
    size = ReadBe32(buf);
    return ReadBe32(buf + 4);
}

bool MpegFileFetch::ResizeBuf(camfetch::MallocBytes& buffer, int& capacity, long long need,
                              int max) {
    const int wanted = static_cast<int>(need < max ? need : max);
    if (capacity >= wanted)
        return true;
    std::lock_guard<std::mutex> lock(m_pPriv->mutex);
    // Contents are not kept: the old buffer goes first, so that at most the new one is held.
    buffer.reset();
    buffer.reset(static_cast<uint8_t*>(camfetch::AllocBuffer(wanted)));
    capacity = buffer ? wanted : 0;
    return buffer != nullptr;
}

bool MpegFileFetch::ResizeExtra(ESFormat& format, const uint8_t* data, int size) {
    // The new bytes are made ready first and put in place under the mutex: a host copying
    // the format meanwhile gets the old configuration or the new one, never a mix.
    uint8_t* fresh = nullptr;
    if (size >= 1) {
        fresh = static_cast<uint8_t*>(malloc(size));
        if (!fresh)
            return false;
        memcpy(fresh, data, size);
    }
    std::lock_guard<std::mutex> lock(m_pPriv->mutex);
    free(format.p_extra);
    format.p_extra = fresh;
    format.i_extra = fresh ? size : 0;
    return true;
}

// The codec configuration in a moov payload: the last "esds" or "avcC" found by a byte
// search, read at fixed offsets with one-byte lengths (the layouts cameras send). A box
// that does not hold what those offsets promise is passed over.
bool MpegFileFetch::ReadCodecConfig(const uint8_t* payload, int count) {
    for (int pos = count - 4; pos >= 1; --pos) {
        const uint8_t* type = payload + pos;
        const bool esds = memcmp(type, "esds", 4) == 0;
        if (!esds && memcmp(type, "avcC", 4) != 0)
            continue;
        const int box = pos - 4;
        if (box < 0)
            return true;
        const uint8_t* b = payload + box;
        const int room = count - box;
        ESFormat& fmt = m_pPriv->videoFormat;
        if (esds) {
            if (room < 34 || 34 + b[33] > room) {
                MP4_LOG(LOG_LEVEL_WARNING, "Truncated esds box ignored\n");
                return true;
            }
            return ResizeExtra(fmt, b + 34, b[33]);
        }
        if (room < 16 || 16 + b[15] + 3 > room) {
            MP4_LOG(LOG_LEVEL_WARNING, "Truncated avcC box ignored\n");
            return true;
        }
        const int spsLen = b[15];
        const int ppsLen = b[18 + spsLen];
        if (19 + spsLen + ppsLen > room) {
            MP4_LOG(LOG_LEVEL_WARNING, "Truncated avcC box ignored\n");
            return true;
        }
        uint8_t annexB[8 + 255 + 255];  // lengths are single bytes
        memcpy(annexB, kStartCode, 4);
        memcpy(annexB + 4, b + 16, spsLen);
        memcpy(annexB + 4 + spsLen, kStartCode, 4);
        memcpy(annexB + 8 + spsLen, b + 19 + spsLen, ppsLen);
        return ResizeExtra(fmt, annexB, spsLen + ppsLen + 8);
    }
    return true;
}

unsigned int MpegFileFetch::FindNextFrame() {
    MpegFilePriv& p = *m_pPriv;
    if (!ResizeBuf(p.pFrameBuf, p.iFrameBufCap, kBoxHeaderSize, kMaxFrameBuf)) {
        CF_LOG_RAW("malloc failed!\n");
        return 0;
    }
    for (;;) {
        uint32_t size = 0;
        const uint32_t type = ReadBoxHeader(p.pFrameBuf.get(), size);
        if (!IsValidBox(type)) {
            MP4_LOG(LOG_LEVEL_ERROR, "Invalid box4cc [%d]\n", static_cast<int>(type));
            MP4_LOG(LOG_LEVEL_ERROR, "ReadBox failed!\n");
            return 0;
        }
        const long long payload = static_cast<long long>(size) - kBoxHeaderSize;
        if (payload < 0) {
            MP4_LOG(LOG_LEVEL_ERROR, "ReadBox failed!\n");
            return 0;
        }
        if (!ResizeBuf(p.pFrameBuf, p.iFrameBufCap, payload, kMaxFrameBuf)) {
            // The payload stays on the connection: the next call starts on a new one.
            CF_LOG_RAW("malloc failed!\n");
            return 0;
        }
        // A payload past the buffer's limit is read only in part; its rest stays on the
        // connection and breaks the next box header, which drops the connection.
        const int want = static_cast<int>(payload < p.iFrameBufCap ? payload : p.iFrameBufCap);
        const int count =
            want > 0 ? p.pHttpClient->ReadData(reinterpret_cast<char*>(p.pFrameBuf.get()), want)
                     : 0;
        if (count < 0)
            return 0;
        const unsigned int got = static_cast<unsigned int>(count);
        if (type == kBoxMoof) {
            MP4_LOG(LOG_LEVEL_TRACE, "BOX_MOOF: %u.\n", got);
        } else if (type == kBoxFtyp) {
            MP4_LOG(LOG_LEVEL_TRACE, "BOX_FTYP: %u.\n", got);
        } else if (type == kBoxMoov) {
            MP4_LOG(LOG_LEVEL_TRACE, "BOX_MOOV: %u.\n", got);
            if (count >= 5 && !ReadCodecConfig(p.pFrameBuf.get(), count)) {
                CF_LOG_RAW("malloc failed!\n");
                return 0;
            }
        } else {
            MP4_LOG(LOG_LEVEL_TRACE, "BOX_MDAT: %u.\n", got);
            return got;
        }
    }
}

int MpegFileFetch::NextPartInfo(unsigned int& size, char*, unsigned int, int&) {
    MP4_LOG(LOG_LEVEL_NOTICE, "MpegFileFetch NextPartInfo Start!\n");
    if (!m_pPriv) {
        CF_LOG_RAW("Private data has not initialized yet!\n");
        return 3;
    }
    int rc = Connector();
    if (rc != 0) {
        m_pPriv->bConnected = false;
        return rc;
    }
    size = FindNextFrame();
    if (size == 0) {
        if (m_pPriv->bConnected)
            CF_LOG_RAW("Find next frame failed!\n");
        m_pPriv->bConnected = false;
        return 0;
    }
    MP4_LOG(LOG_LEVEL_NOTICE, "MpegFileFetch NextPartInfo Complete!\n");
    return 0;
}

int MpegFileFetch::FetchContent(unsigned char* buf, unsigned int len) {
    if (!m_pPriv)
        return 3;
    if (!m_pPriv->pHttpClient) {
        CF_LOG_RAW("HttpClient is not exist!\n");
        return 4;
    }
    if (!buf) {
        MP4_LOG(LOG_LEVEL_WARNING, "Parameters are incorrect!\n\n");
        return 2;
    }
    std::lock_guard<std::mutex> lock(m_pPriv->mutex);
    // Bounded by the buffer's capacity: the host asks for the size NextPartInfo reported.
    const int n = static_cast<int>(len) < m_pPriv->iFrameBufCap ? static_cast<int>(len)
                                                                : m_pPriv->iFrameBufCap;
    if (n > 0)
        memcpy(buf, m_pPriv->pFrameBuf.get(), n);
    return 0;
}

int MpegFileFetch::SetReconnect() {
    if (m_pPriv)
        m_pPriv->bConnected = false;
    return 0;
}

int MpegFileFetch::GetVideoFormat(ESFormat& format) {
    if (!m_pPriv)
        return 3;
    std::lock_guard<std::mutex> lock(m_pPriv->mutex);
    ESFormatCopy(format, m_pPriv->videoFormat);
    return 0;
}

int MpegFileFetch::GetAudioFormat(ESFormat&) {
    return 0;
}

int MpegFileFetch::TestConnect() {
    if (!m_pPriv)
        return 3;
    int rc = Connector();
    if (rc != 0)
        MP4_LOG(LOG_LEVEL_WARNING, "This Connection is invalid!\n\n");
    return rc;
}
