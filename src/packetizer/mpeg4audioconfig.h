// Readers of the MPEG-4 audio configuration (AudioSpecificConfig, ISO/IEC 14496-3 1.6.2):
// object type, sampling rate, channel layout and frame length of a stream.
//
// Reads past the end of a BIT_STREAM yield zero bits. To tell a truncated configuration
// from one that ends exactly at the end of the data, callers read from a buffer followed by
// at least one zero byte and compare BitStreamPos with the data's size in bits afterwards.
#pragma once

#include "packer/bitstream.h"
#include "packetizer/aac_state.h"

// Sampling rate of a 4-bit index; 0 for the reserved indexes 13 to 15.
int Mpeg4SamplerateOfIndex(int index);

// audioObjectType with its escape (31 → 32 + 6 more bits).
int Mpeg4ReadAudioObjectType(BIT_STREAM* s);
// samplingFrequencyIndex, or the explicit 24-bit rate after index 15.
int Mpeg4ReadAudioSamplerate(BIT_STREAM* s);
// program_config_element(); returns the number of channels it lays out. startPos is the
// bit position where the enclosing AudioSpecificConfig began (its byte alignment is
// relative to that).
int Mpeg4GAProgramConfigElement(BIT_STREAM* s, int startPos);
// GASpecificConfig() of an object type; fills the frame length and, for a layout given by
// a program config element, the channel count. Returns 0.
int Mpeg4GASpecificConfig(mpeg4_cfg_t* cfg, BIT_STREAM* s, int startPos);
// AudioSpecificConfig(). maxBits is its length when the container says it (the backward
// compatible extension signalling is then looked for in what is left), else -1. Fills cfg,
// including the configuration's own bytes, and returns the number of bits read, or -1 for
// object types whose configuration this reader cannot walk.
int Mpeg4ReadAudioSpecificInfo(mpeg4_cfg_t* cfg, BIT_STREAM* s, int maxBits);
