#include "rtsp/sdpformat.h"

#include <liveMedia.hh>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "core/log.h"

namespace {

constexpr uint8_t kStartCode[4] = {0x00, 0x00, 0x00, 0x01};
constexpr uint8_t kProfileBaseline = 66;
constexpr uint8_t kProfileMain = 77;
// Offset of profile_idc in Annex B extra data: start code, NAL header, then the profile.
constexpr size_t kProfileIdcOffset = 5;
// SDP attributes are short; anything longer is not a configuration of any camera.
constexpr size_t kMaxConfigText = 65536;

int Base64Value(unsigned char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

// live555's parsers allocate with new[].
struct ArrayDeleter {
    void operator()(unsigned char* p) const { delete[] p; }
};
using Live555Bytes = std::unique_ptr<unsigned char, ArrayDeleter>;

void SetExtraFromGeneralConfig(const SdpMediaDesc& desc, ESFormat& fmt) {
    if (desc.config.empty())
        return;
    if (!IsHexConfig(desc.config)) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING, "Bad config[%.64s] of codec[%s], ignored.\n",
               desc.config.c_str(), desc.codec.c_str());
        return;
    }
    unsigned size = 0;
    Live555Bytes config(parseGeneralConfigStr(desc.config.c_str(), size));
    if (config)
        fmt.SetExtra(config.get(), static_cast<int>(size));
}

void SetExtraFromStreamMuxConfig(const SdpMediaDesc& desc, ESFormat& fmt) {
    if (desc.config.empty())
        return;
    unsigned size = 0;
    Live555Bytes config;
    if (IsHexConfig(desc.config))
        config.reset(parseStreamMuxConfigStr(desc.config.c_str(), size));
    if (!config) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING, "Bad config[%.64s] of codec[%s], ignored.\n",
               desc.config.c_str(), desc.codec.c_str());
        return;
    }
    fmt.SetExtra(config.get(), static_cast<int>(size));
}

void SetExtraFromAnnexB(const std::vector<uint8_t>& annexB, ESFormat& fmt) {
    fmt.SetExtra(annexB.empty() ? nullptr : annexB.data(), static_cast<int>(annexB.size()));
}

// Cameras put Annex B into the base64: start codes in front of, between or behind the
// parameter sets, and the same set in two pieces. Each unit is taken out of its start codes
// (and of the zero bytes in front of the next one) and written once, behind one start code.
// True when the piece carried a start code of its own.
bool AppendUnits(const std::vector<uint8_t>& piece, std::set<std::string>& seen,
                 std::vector<uint8_t>& annexB) {
    bool startCodes = false;
    const size_t n = piece.size();
    size_t pos = 0;
    while (pos < n) {
        size_t code = n;  // where the next 00 00 01 begins
        for (size_t i = pos; i + 2 < n; ++i)
            if (piece[i] == 0 && piece[i + 1] == 0 && piece[i + 2] == 1) {
                code = i;
                break;
            }
        size_t end = code;
        while (end > pos && piece[end - 1] == 0)
            --end;
        if (end > pos && seen.emplace(piece.begin() + pos, piece.begin() + end).second) {
            annexB.insert(annexB.end(), kStartCode, kStartCode + sizeof kStartCode);
            annexB.insert(annexB.end(), piece.begin() + pos, piece.begin() + end);
        }
        if (code == n)
            break;
        startCodes = true;
        pos = code + 3;
    }
    return startCodes;
}

bool StartsWith(const std::string& text, const char* prefix) {
    return text.compare(0, strlen(prefix), prefix) == 0;
}

}  // namespace

bool SdpBase64Decode(std::string_view text, std::vector<uint8_t>& out) {
    out.clear();
    uint32_t bits = 0;
    int count = 0;
    size_t padding = 0;
    for (unsigned char c : text) {
        if (isspace(c))
            continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        const int v = Base64Value(c);
        if (v < 0 || padding > 0)  // foreign byte, or data after the padding
            return false;
        bits = (bits << 6) | static_cast<uint32_t>(v);
        if (++count == 4) {
            out.push_back(static_cast<uint8_t>(bits >> 16));
            out.push_back(static_cast<uint8_t>(bits >> 8));
            out.push_back(static_cast<uint8_t>(bits));
            bits = 0;
            count = 0;
        }
    }
    // Padding, when present, must complete the last quantum exactly.
    if (padding != 0 && (count == 0 || padding != static_cast<size_t>(4 - count)))
        return false;
    switch (count) {
        case 0:
            return true;
        case 2:
            out.push_back(static_cast<uint8_t>(bits >> 4));
            return true;
        case 3:
            out.push_back(static_cast<uint8_t>(bits >> 10));
            out.push_back(static_cast<uint8_t>(bits >> 2));
            return true;
        default:  // a single leftover character carries no whole byte
            return false;
    }
}

std::vector<uint8_t> SpropToAnnexB(std::string_view sprop) {
    std::vector<uint8_t> annexB;
    if (sprop.size() > kMaxConfigText) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING, "Parameter sets of %zu bytes, ignored.\n",
               sprop.size());
        return annexB;
    }
    std::vector<uint8_t> nal;
    std::set<std::string> seen;
    bool startCodes = false;
    while (!sprop.empty()) {
        const size_t comma = sprop.find(',');
        std::string_view piece = sprop.substr(0, comma);
        sprop = comma == std::string_view::npos ? std::string_view() : sprop.substr(comma + 1);
        if (piece.empty())
            continue;
        if (!SdpBase64Decode(piece, nal)) {
            CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING, "Bad parameter set[%.*s], skipped.\n",
                   static_cast<int>(piece.size() > 64 ? 64 : piece.size()), piece.data());
            continue;
        }
        startCodes = AppendUnits(nal, seen, annexB) || startCodes;
    }
    if (startCodes)
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_NOTICE,
               "Parameter sets carry start codes in their base64, stripped.\n");
    return annexB;
}

bool IsHexConfig(std::string_view text) {
    if (text.empty() || text.size() % 2 != 0 || text.size() > kMaxConfigText)
        return false;
    for (unsigned char c : text)
        if (!isxdigit(c))
            return false;
    return true;
}

void MapSdpVideoFormat(const SdpMediaDesc& desc, bool dropExtra, ESFormat& fmt) {
    fmt.Reset(VIDEO_ES, 0);
    fmt.strDescription = desc.codec;
    const std::string& name = desc.codec;
    if (name == "MPV") {
        fmt.i_codec = FourCC("mpgv");
    } else if (name == "H263" || name == "H263-1998" || name == "H263-2000") {
        fmt.i_codec = FourCC("H263");
    } else if (name == "H261") {
        fmt.i_codec = FourCC("H261");
    } else if (name == "H264") {
        fmt.i_codec = kCodecH264;
        SetExtraFromAnnexB(SpropToAnnexB(desc.spropParameterSets), fmt);
        // Baseline is announced as Main on purpose: downstream decoders rely on it.
        if (fmt.i_extra > static_cast<int>(kProfileIdcOffset) &&
            fmt.p_extra[kProfileIdcOffset] == kProfileBaseline)
            fmt.p_extra[kProfileIdcOffset] = kProfileMain;
    } else if (name == "JPEG") {
        fmt.i_codec = kCodecMjpg;
    } else if (name == "MP4V-ES") {
        fmt.i_codec = kCodecMp4v;
        SetExtraFromGeneralConfig(desc, fmt);
    } else if (name == "H265") {
        fmt.i_codec = kCodecHevc;
        if (!desc.spropVps.empty() && !desc.spropSps.empty() && !desc.spropPps.empty()) {
            std::vector<uint8_t> annexB = SpropToAnnexB(desc.spropVps);
            const std::vector<uint8_t> sps = SpropToAnnexB(desc.spropSps);
            const std::vector<uint8_t> pps = SpropToAnnexB(desc.spropPps);
            annexB.insert(annexB.end(), sps.begin(), sps.end());
            annexB.insert(annexB.end(), pps.begin(), pps.end());
            SetExtraFromAnnexB(annexB, fmt);
        }
    }
    if (dropExtra)
        fmt.SetExtra(nullptr, 0);
}

void MapSdpAudioFormat(const SdpMediaDesc& desc, ESFormat& fmt) {
    fmt.Reset(AUDIO_ES, 0);
    fmt.audio.i_rate = desc.rtpFrequency;
    fmt.audio.i_channels = desc.channels;
    fmt.strDescription = desc.codec;
    const std::string& name = desc.codec;
    if (name == "MPA" || name == "MPA-ROBUST" || name == "X-MP3-DRAFT-00") {
        fmt.i_codec = kCodecMpga;
        fmt.audio.i_rate = 0;
    } else if (name == "AC3") {
        fmt.i_codec = FourCC("a52 ");
    } else if (name == "L16") {
        fmt.i_codec = FourCC("twos");
        fmt.audio.i_bitspersample = 16;
    } else if (name == "L8") {
        fmt.i_codec = FourCC("araw");
        fmt.audio.i_bitspersample = 8;
    } else if (name == "PCMU") {
        fmt.i_codec = kCodecUlaw;
    } else if (name == "PCMA") {
        fmt.i_codec = kCodecAlaw;
    } else if (StartsWith(name, "G726")) {
        fmt.i_codec = kCodecG726;
        fmt.audio.i_rate = 8000;
        fmt.audio.i_channels = 1;
        // The bit rate in kbit/s is the name's tail, as in G726-32.
        if (name.size() >= 7) {
            const std::string kbps = name.substr(5, 2);
            fmt.SetExtra(kbps.data(), 2);
            if (kbps == "40" || kbps == "32" || kbps == "24" || kbps == "16")
                fmt.i_bitrate = atoi(kbps.c_str()) * 1000;
        }
    } else if (name == "AMR") {
        fmt.i_codec = kCodecSamr;
    } else if (name == "AMR-WB") {
        fmt.i_codec = kCodecSawb;
    } else if (name == "MP4A-LATM") {
        fmt.i_codec = kCodecMp4a;
        SetExtraFromStreamMuxConfig(desc, fmt);
    } else if (name == "MPEG4-GENERIC") {
        fmt.i_codec = kCodecMp4a;
        SetExtraFromGeneralConfig(desc, fmt);
    } else if (name == "SPEEX") {
        fmt.i_codec = FourCC("spxr");
        if (fmt.audio.i_rate == 0)
            fmt.audio.i_rate = 8000;
        const std::string rate = std::to_string(fmt.audio.i_rate);
        fmt.SetExtra(rate.data(), static_cast<int>(rate.size()));
    }
}
