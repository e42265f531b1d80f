// What an RTSP camera's session description and RTP packets feed the fetcher with: the SDP
// codec mapping (codec names, fmtp config strings, sprop parameter sets) and the RTP header
// extension parser, over fields the fuzzer writes.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_quiet.h"
#include "rtsp/rtpextension.h"
#include "rtsp/sdpformat.h"

namespace {

const char* const kVideoCodecs[] = {"H264", "H265", "MP4V-ES", "JPEG", "MXPG", "XYZ"};
const char* const kAudioCodecs[] = {"MPEG4-GENERIC", "MP4A-LATM", "PCMA", "PCMU", "G726-32",
                                    "SPEEX",         "AMR",       "L16",  "MPA",  "ABC"};

// Splits the input at NUL bytes into the description's text fields.
std::string Field(const uint8_t*& p, const uint8_t* end) {
    std::string out;
    while (p < end && *p)
        out += static_cast<char>(*p++);
    if (p < end)
        ++p;
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    RtpHeaderExtension ext;
    if (ParseRtpHeaderExtension(data, size, ext)) {
        if (ext.data < data || ext.data + ext.size > data + size || ext.size != 4 + 4u * ext.words)
            __builtin_trap();
    }

    const uint8_t selector = data[0];
    const uint8_t* p = data + 3;
    const uint8_t* end = data + size;
    SdpMediaDesc desc;
    desc.rtpFrequency = data[1] * 1000u;
    desc.channels = data[2] % 9;
    desc.config = Field(p, end);
    desc.spropParameterSets = Field(p, end);
    desc.spropVps = Field(p, end);
    desc.spropSps = Field(p, end);
    desc.spropPps = Field(p, end);
    ESFormat fmt;
    if (selector & 0x80) {
        desc.medium = "audio";
        desc.codec = kAudioCodecs[selector % 10];
        MapSdpAudioFormat(desc, fmt);
    } else {
        desc.medium = "video";
        desc.codec = kVideoCodecs[selector % 6];
        MapSdpVideoFormat(desc, selector & 0x40, fmt);
    }
    if (fmt.i_extra < 0 || (fmt.i_extra > 0 && !fmt.p_extra))
        __builtin_trap();
    SpropToAnnexB(desc.spropParameterSets);
    IsHexConfig(desc.config);
    return 0;
}
