// MultipartFetch's parameters: the host's key/value settings, the in-band part headers a
// camera sends (codec extra data, codec names, a timestamp), and the two format getters.
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "http/multipartfetch.h"
#include "http/multipartpriv.h"
#include "http/multipartscan.h"
#include "http/multipartlog.h"

namespace {

// Extra data is codec configuration, a few hundred bytes at most in practice; a larger
// announcement is not trusted with memory.
constexpr long long kMaxExtraSize = 1 << 20;

struct VersionName {
    const char* text;
    KVNet::HTTP_VERSION version;
};
constexpr VersionName kVersions[] = {
    {"HTTP_VER_DEF", KVNet::HTTP_VER_DEF},
    {"HTTP_VER_1_0", KVNet::HTTP_VER_1_0},
    {"HTTP_VER_1_1", KVNet::HTTP_VER_1_1},
};

bool KeyIs(const char* name, const char* key) {
    return strncasecmp(name, key, strlen(key)) == 0;
}

}  // namespace

void MultipartFetch::SetMFParams(std::map<std::string, std::string>& params) {
    // Inserting look-ups: the caller's map keeps both keys afterwards.
    const std::string& version = params["HttpVersion"];
    m_httpVersion = KVNet::HTTP_VER_DEF;
    for (const VersionName& v : kVersions)
        if (version == v.text)
            m_httpVersion = v.version;
    m_strPostContent = params["PostContent"];
}

int MultipartFetch::ReadExtraData(ESFormat& format, char* value) {
    const long long size = multipart::ParseDecimal(value);
    if (size > kMaxExtraSize) {
        // The announced bytes follow in the header block all the same: pass over them, so
        // that the part's headers and the pictures after it are read in step.
        MF_LOG(LOG_LEVEL_WARNING, "Extra data size %lld is out of range, skipped\n", size);
        return SkipBytes(size) == size ? 0 : -1;
    }
    // Read into a buffer of our own first: a host may copy the format out meanwhile.
    std::unique_ptr<uint8_t, decltype(&free)> fresh(nullptr, &free);
    if (size > 0) {
        fresh.reset(static_cast<uint8_t*>(malloc(static_cast<size_t>(size))));
        if (!fresh || ReadBytes(fresh.get(), static_cast<unsigned int>(size)) != size)
            return -1;
    }
    std::lock_guard<std::mutex> lock(m_pPriv->mutex);
    free(format.p_extra);
    format.p_extra = fresh.release();
    format.i_extra = static_cast<int32_t>(size > 0 ? size : 0);
    return 0;
}

int MultipartFetch::ParseLiveviewSrcParam(char* name, char* value) {
    MultipartPriv& p = *m_pPriv;
    if (KeyIs(name, "Vdo-ExtraSize"))
        return ReadExtraData(p.videoFormat, value);
    if (KeyIs(name, "Ado-ExtraSize"))
        return ReadExtraData(p.audioFormat, value);
    if (KeyIs(name, "codec")) {
        // "video;audio"; without a ';' both names become the whole text (on purpose).
        const char* semicolon = strchr(value, ';');
        std::string video = semicolon ? std::string(value, semicolon - value) : std::string(value);
        std::string audio = semicolon ? std::string(semicolon + 1) : std::string(value);
        std::lock_guard<std::mutex> lock(p.mutex);
        p.videoFormat.strDescription = video;
        p.audioFormat.strDescription = audio;
        return 0;
    }
    if (KeyIs(name, "Timestamp")) {
        p.llTimestamp = multipart::ParseDecimal(value);
        return 0;
    }
    return 0;
}

int MultipartFetch::GetVideoFormat(ESFormat& out) {
    if (!m_pPriv)
        return MF_ERR_NOT_INIT;
    std::lock_guard<std::mutex> lock(m_pPriv->mutex);
    ESFormatCopy(out, m_pPriv->videoFormat);
    return MF_OK;
}

int MultipartFetch::GetAudioFormat(ESFormat& out) {
    if (!m_pPriv)
        return MF_ERR_NOT_INIT;
    std::lock_guard<std::mutex> lock(m_pPriv->mutex);
    ESFormatCopy(out, m_pPriv->audioFormat);
    return MF_OK;
}
