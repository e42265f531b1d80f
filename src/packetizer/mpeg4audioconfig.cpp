#include "packetizer/mpeg4audioconfig.h"

#include <cstring>
#include <initializer_list>

namespace {

constexpr int kSamplerates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                  16000, 12000, 11025, 8000,  7350,  0,     0,     0};

constexpr int kSyncExtension = 0x2b7;    // backward compatible SBR signalling
constexpr int kSyncExtensionPs = 0x548;  // ... and PS after it
constexpr int kObjectTypeSbr = 5;
constexpr int kObjectTypePs = 29;
constexpr int kObjectTypeErBsac = 22;
constexpr int kObjectTypeErAacLd = 23;

constexpr uint64_t TypeSet(std::initializer_list<int> types) {
    uint64_t set = 0;
    for (int t : types)
        set |= uint64_t(1) << t;
    return set;
}

// Object types whose specific configuration is a GASpecificConfig.
constexpr uint64_t kGeneralAudio = TypeSet({1, 2, 3, 4, 6, 7, 17, 19, 20, 21, 22, 23});
// Error-resilient object types, whose configuration ends with epConfig.
constexpr uint64_t kErrorResilient = TypeSet({17, 19, 20, 21, 22, 23, 24, 25, 26, 27, 39});

bool InSet(uint64_t set, int type) {
    return type >= 0 && type < 64 && ((set >> type) & 1) != 0;
}

int Read(BIT_STREAM* s, int bits) {
    return static_cast<int>(BitStreamRead(s, bits));
}

// Reads bits only when they hold value.
bool PeekMatches(BIT_STREAM* s, int bits, int value) {
    BIT_STREAM ahead = *s;
    if (Read(&ahead, bits) != value)
        return false;
    *s = ahead;
    return true;
}

}  // namespace

int Mpeg4SamplerateOfIndex(int index) {
    return index >= 0 && index < 16 ? kSamplerates[index] : 0;
}

int Mpeg4ReadAudioObjectType(BIT_STREAM* s) {
    int type = Read(s, 5);
    if (type == 31)
        type = 32 + Read(s, 6);
    return type;
}

int Mpeg4ReadAudioSamplerate(BIT_STREAM* s) {
    int index = Read(s, 4);
    if (index != 15)
        return kSamplerates[index];
    return Read(s, 24);
}

int Mpeg4GAProgramConfigElement(BIT_STREAM* s, int startPos) {
    BitStreamSkip(s, 4 + 2 + 4);  // element_instance_tag, object_type, sampling index
    const int front = Read(s, 4);
    const int side = Read(s, 4);
    const int back = Read(s, 4);
    const int lfe = Read(s, 2);
    const int assoc = Read(s, 3);
    const int cc = Read(s, 4);
    if (BitStreamRead1(s))  // mono_mixdown_present
        BitStreamSkip(s, 4);
    if (BitStreamRead1(s))  // stereo_mixdown_present
        BitStreamSkip(s, 4);
    if (BitStreamRead1(s))  // matrix_mixdown_idx_present
        BitStreamSkip(s, 2 + 1);

    int channels = 0;
    for (int i = 0; i < front + side + back; ++i) {
        channels += BitStreamRead1(s) ? 2 : 1;  // a channel pair or a single channel
        BitStreamSkip(s, 4);
    }
    BitStreamSkip(s, 4 * lfe);
    channels += lfe;
    BitStreamSkip(s, 4 * assoc);
    BitStreamSkip(s, 5 * cc);

    const int misalign = (BitStreamPos(s) - startPos) % 8;
    if (misalign)
        BitStreamSkip(s, 8 - misalign);
    const int comment = Read(s, 8);
    BitStreamSkip(s, 8 * comment);
    return channels;
}

int Mpeg4GASpecificConfig(mpeg4_cfg_t* cfg, BIT_STREAM* s, int startPos) {
    const bool shortFrame = BitStreamRead1(s);
    if (cfg->i_object_type == kObjectTypeErAacLd)
        cfg->i_frame_length = shortFrame ? 480 : 512;
    else
        cfg->i_frame_length = shortFrame ? 960 : 1024;
    if (BitStreamRead1(s))  // dependsOnCoreCoder
        BitStreamSkip(s, 14);
    const bool extension = BitStreamRead1(s);
    if (cfg->i_channel == 0)
        cfg->i_channel = Mpeg4GAProgramConfigElement(s, startPos);
    if (cfg->i_object_type == 6 || cfg->i_object_type == 20)
        BitStreamSkip(s, 3);  // layerNr
    if (extension) {
        if (cfg->i_object_type == kObjectTypeErBsac)
            BitStreamSkip(s, 5 + 11);  // numOfSubFrame, layer_length
        if (cfg->i_object_type == 17 || cfg->i_object_type == 19 || cfg->i_object_type == 20 ||
            cfg->i_object_type == 23)
            BitStreamSkip(s, 3);  // the three resilience flags
        BitStreamSkip(s, 1);      // extensionFlag3
    }
    return 0;
}

int Mpeg4ReadAudioSpecificInfo(mpeg4_cfg_t* cfg, BIT_STREAM* s, int maxBits) {
    const BIT_STREAM start = *s;
    const int startPos = BitStreamPos(s);
    memset(cfg, 0, sizeof(*cfg));

    cfg->i_object_type = Mpeg4ReadAudioObjectType(s);
    cfg->i_samplerate = Mpeg4ReadAudioSamplerate(s);
    cfg->i_channel = Read(s, 4);
    cfg->i_sbr = -1;
    cfg->i_ps = -1;
    if (cfg->i_object_type == kObjectTypeSbr || cfg->i_object_type == kObjectTypePs) {
        cfg->i_extension_object_type = kObjectTypeSbr;
        cfg->i_sbr = 1;
        if (cfg->i_object_type == kObjectTypePs)
            cfg->i_ps = 1;
        cfg->i_extension_samplerate = Mpeg4ReadAudioSamplerate(s);
        cfg->i_object_type = Mpeg4ReadAudioObjectType(s);
        if (cfg->i_object_type == kObjectTypeErBsac)
            BitStreamSkip(s, 4);  // extensionChannelConfiguration
    }

    // Only general audio is walked: the other specific configurations have no length field,
    // so nothing after them could be found.
    if (!InSet(kGeneralAudio, cfg->i_object_type))
        return -1;
    Mpeg4GASpecificConfig(cfg, s, startPos);
    if (InSet(kErrorResilient, cfg->i_object_type)) {
        const int epConfig = Read(s, 2);
        if (epConfig == 2 || epConfig == 3)
            return -1;  // ErrorProtectionSpecificConfig is not walked
    }

    // Extension signalling is looked for only when the container says how long the
    // configuration is; unmatched bits are padding and are not counted as read.
    if (maxBits > 0 && cfg->i_extension_object_type != kObjectTypeSbr &&
        maxBits - (BitStreamPos(s) - startPos) >= 16 && PeekMatches(s, 11, kSyncExtension)) {
        const int type = Mpeg4ReadAudioObjectType(s);
        if (type == kObjectTypeSbr) {
            cfg->i_sbr = BitStreamRead1(s);
            if (cfg->i_sbr == 1) {
                cfg->i_extension_object_type = type;
                cfg->i_extension_samplerate = Mpeg4ReadAudioSamplerate(s);
                if (maxBits - (BitStreamPos(s) - startPos) >= 12 &&
                    PeekMatches(s, 11, kSyncExtensionPs))
                    cfg->i_ps = BitStreamRead1(s);
            }
        } else if (type == kObjectTypeErBsac) {
            cfg->i_sbr = BitStreamRead1(s);
            if (cfg->i_sbr == 1) {
                cfg->i_extension_object_type = type;
                cfg->i_extension_samplerate = Mpeg4ReadAudioSamplerate(s);
            }
            BitStreamSkip(s, 4);  // extensionChannelConfiguration
        }
    }

    const int bits = BitStreamPos(s) - startPos;
    if ((bits + 7) / 8 > kMpeg4MaxConfigBytes)
        return -1;
    // The configuration's own bytes, as a container would carry them: its bits from the
    // first, zero-padded to a whole byte.
    BIT_STREAM copy = start;
    cfg->i_extra = (bits + 7) / 8;
    for (int i = 0, left = bits; i < cfg->i_extra; ++i, left -= 8) {
        const int n = left < 8 ? left : 8;
        cfg->p_extra[i] = static_cast<uint8_t>(BitStreamRead(&copy, n) << (8 - n));
    }
    return bits;
}
