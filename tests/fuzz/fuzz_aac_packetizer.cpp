// The AAC packetizer in stream mode (ADTS, LOAS/LATM) and raw mode, fed in blocks cut where
// the input says and driven as the stream packer drives it, plus the configuration readers
// on their own over the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_quiet.h"
#include "packetizer/latmconfig.h"
#include "packetizer/mpeg4audioconfig.h"
#include "packetizer/mpeg4audiopacket.h"

namespace {

void Configs(const uint8_t* data, size_t size) {
    // Zero padding behind the data, as the packetizer gives its readers.
    std::vector<uint8_t> padded(data, data + size);
    padded.resize(size + 8, 0);
    BIT_STREAM s;
    BitStreamInit(&s, padded.data(), static_cast<int>(padded.size()));
    latm_mux_t mux;
    LatmReadStreamMuxConfiguration(&mux, &s);
    BitStreamInit(&s, padded.data(), static_cast<int>(padded.size()));
    mpeg4_cfg_t cfg;
    Mpeg4ReadAudioSpecificInfo(&cfg, &s, static_cast<int>(size * 8));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    // First byte: block size and whether the stream starts from an AudioSpecificConfig
    // (the next two bytes); second: flags for a reset block in the middle.
    const uint8_t cut = data[0];
    const uint8_t flags = data[1];
    data += 2;
    size -= 2;
    Configs(data, size);

    Mpeg4AudioPacketizer packetizer;
    PACK_STREAM stream;
    stream.fmt.Reset(AUDIO_ES, kCodecMp4a);
    if ((cut & 0x80) && size >= 2) {
        stream.fmt.SetExtra(data, 2);
        data += 2;
        size -= 2;
    }
    packetizer.InitPacket(&stream);
    const size_t piece = 1 + (cut & 0x7F) * 13;
    for (size_t pos = 0; pos < size;) {
        const size_t n = piece < size - pos ? piece : size - pos;
        MediaBlock* in = new MediaBlock(static_cast<int>(n), data + pos);
        in->SetPTS(1000000 + static_cast<long long>(pos));
        if (pos > 0 && (flags & 0x0F) == (n & 0x0F))
            in->SetFlags(flags & 0x10 ? 0x1000 : 0x0001);
        while (MediaBlock* out = packetizer.Packetize(&stream, &in)) {
            if (out->GetBufferSize() > 8191)
                __builtin_trap();
            delete out;
        }
        if (in)
            __builtin_trap();  // a null return leaves nothing with the caller
        pos += n;
    }
    packetizer.FreePacket(&stream);
    return 0;
}
