// Closed captions carried in H.264 SEI: ATSC A/53 user data registered by ITU-T T.35.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "packetizer/mpeg4video_internal.h"

namespace {

constexpr int kSeiUserDataRegistered = 4;
// T.35 country code (USA), provider code 0x0031 (ATSC), user identifier "GA94".
constexpr uint8_t kAtscCaptionPrefix[7] = {0xb5, 0x00, 0x31, 'G', 'A', '9', '4'};

struct FreeDeleter {
    void operator()(uint8_t* p) const { free(p); }
};

// An SEI payload type or size: 255 per ff byte plus the first byte below 255.
bool ReadSeiValue(const uint8_t** p, const uint8_t* end, int64_t* value) {
    *value = 0;
    while (*p < end && **p == 0xff) {
        *value += 255;
        ++*p;
    }
    if (*p >= end)
        return false;
    *value += *(*p)++;
    return true;
}

}  // namespace

void ParseSei(PACK_STREAM* s, const MediaBlock* nal) {
    uint8_t* raw = nullptr;
    int size = 0;
    CreateDecodedNAL(&raw, &size, nal->GetBuffer() + 5, static_cast<int>(nal->GetBufferSize()) - 5);
    std::unique_ptr<uint8_t, FreeDeleter> rbsp(raw);
    if (!rbsp)
        return;
    const uint8_t* p = rbsp.get();
    const uint8_t* end = p + size;
    for (;;) {
        int64_t type = 0;
        int64_t payloadSize = 0;
        if (!ReadSeiValue(&p, end, &type) || !ReadSeiValue(&p, end, &payloadSize))
            return;
        if (payloadSize > end - p)
            return;
        // Only caption messages are walked through; anything else ends the walk.
        if (type != kSeiUserDataRegistered || payloadSize < 5 ||
            end - p < static_cast<int64_t>(sizeof(kAtscCaptionPrefix)) ||
            memcmp(p, kAtscCaptionPrefix, sizeof(kAtscCaptionPrefix)) != 0)
            return;
        CCDataExtract(&s->ccNext, p + 3, static_cast<int>(payloadSize - 3));
        p += payloadSize;
    }
}
