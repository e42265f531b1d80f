// The codecs the audio packetizer passes through in copy mode, each with the canonical code
// it is delivered under.
#pragma once

#include <cstdint>

#include "core/esformat.h"

// The canonical code of a copy-mode codec; 0 when copy mode does not know it. Raw PCM
// ("araw") is named by its sample size: "u8  ", "s16l", "s24l" or "s32l" (0 for others).
uint32_t CanonicalCopyCodec(const ESFormat& fmt);
