// The caption extractor over one user-data payload at a time, with the store filling up.
#include <cstddef>
#include <cstdint>

#include "fuzz_quiet.h"
#include "packetizer/cc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CC_DATA cc;
    CCDataInit(&cc);
    // Feed the same payload again and again so that the store reaches its limit.
    for (int round = 0; round < 64; ++round) {
        CCDataExtract(&cc, data, static_cast<int>(size));
        if (cc.size < 0 || cc.size > kCcDataMax)
            __builtin_trap();
        if (round % 16 == 15)
            CCDataFlush(&cc);
    }
    return 0;
}
