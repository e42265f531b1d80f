// Reader of the LATM multiplex configuration (StreamMuxConfig, ISO/IEC 14496-3 1.7.3).
// Same reading convention as mpeg4audioconfig.h: give the reader zero padding after the
// data and check BitStreamPos to tell a truncated configuration.
#pragma once

#include "packer/bitstream.h"
#include "packetizer/aac_state.h"

// LatmGetValue(): a value of 1 to 4 bytes preceded by its 2-bit byte count less one.
uint32_t LatmGetValue(BIT_STREAM* s);
// Copies the parts of a configuration that are in use (the streams it names).
void LatmCopyStreamMuxConfiguration(latm_mux_t* dst, const latm_mux_t* src);
// StreamMuxConfig() into mux (cleared first; entries past i_streams are left as they were). 0 on
// success; -1 for what cannot be read on: the undefined audioMuxVersionA 1, a reserved frame-length
// type, more streams than kLatmMaxStreams, or a stream configuration that cannot be walked.
int LatmReadStreamMuxConfiguration(latm_mux_t* mux, BIT_STREAM* s);
