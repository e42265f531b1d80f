// Line-21 caption byte pairs collected from video user data, per picture.
#pragma once

#include <cstdint>

constexpr int kCcDataMax = 3600;

struct __tag_CC_DATA {
    bool present[4];  // channels seen: 2k and 2k+1 for caption type k (0 field 1, 1 field 2)
    bool reorder;     // the data follows decode order: time it by presentation time
    int32_t size;     // bytes used in data
    uint8_t data[kCcDataMax];  // triplets: caption type, first byte, second byte
};
typedef __tag_CC_DATA CC_DATA;

void CCDataInit(CC_DATA* cc);
// Forgets the data but keeps the presence flags and the reorder flag.
void CCDataFlush(CC_DATA* cc);
// Recognises one user-data payload (ATSC A/53, DVD, ReplayTV, SCTE-20) and appends its pairs.
void CCDataExtract(CC_DATA* cc, const uint8_t* src, int size);
