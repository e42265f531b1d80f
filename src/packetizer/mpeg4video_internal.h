// Functions shared by the files of the video packetizer (H.264, HEVC, MPEG-4 Part 2); not
// part of the library's interface. Every MediaBlock* handed to a function here is taken
// over by it unless the comment says otherwise; returned blocks belong to the caller.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/log.h"
#include "packetizer/packetizer.h"

// The packetizer is split over several files but is one source to the host's log filters.
#undef CF_LOG_FILE
#define CF_LOG_FILE "mpeg4videopacket"

// The start codes and the prepend byte of the splitter.
extern const uint8_t kStartCode3[3];  // 00 00 01
extern const uint8_t kStartCode4[4];  // 00 00 00 01

// --- start-code scanners (startcode_scan.cpp) ---
// First complete 00 00 01 / 00 00 00 01 in [begin, end), or null. Vectorised where the CPU
// allows; same result as a byte-wise search.
const uint8_t* FindStartCode3(const uint8_t* begin, const uint8_t* end);
const uint8_t* FindStartCode4(const uint8_t* begin, const uint8_t* end);

// --- the picture being collected (video_frame.cpp) ---
// Appends one detached block to frame; a picture that grows past the limits is dropped.
void FrameAppend(PACK_STREAM* s, MediaBlock* block);
// Detaches the whole chain (null when empty) and leaves frame empty.
MediaBlock* FrameTake(PACK_STREAM* s);
void FrameRelease(PACK_STREAM* s);
uint16_t GetWBE(const void* p);

// --- H.264 (h264_nal.cpp, h264_ps.cpp, h264_sei.cpp, h264_output.cpp) ---
// Copies src into a new malloc'ed buffer (*out, freed by the caller) without the
// emulation-prevention bytes; an escape in the last 3 bytes is kept.
void CreateDecodedNAL(uint8_t** out, int* outSize, const uint8_t* src, int size);
// The same into dst (at least size bytes); returns the bytes written.
int DecodeNALInto(uint8_t* dst, const uint8_t* src, int size);
// A new block of 00 00 00 01 + nal.
MediaBlock* CreateAnnexbNAL(PACK_STREAM* s, const uint8_t* nal, int size);
void PutSPS(PACK_STREAM* s, MediaBlock* nal);
void PutPPS(PACK_STREAM* s, MediaBlock* nal);
// Reads captions from an SEI into ccNext; nal stays the caller's.
void ParseSei(PACK_STREAM* s, const MediaBlock* nal);
// Builds fmt's extra data from every stored SPS and PPS.
void BuildH264Extra(PACK_STREAM* s);
MediaBlock* OutputPicture(PACK_STREAM* s);
void H264ParamSetsRelease(PACK_STREAM* s);

// --- HEVC (hevc_nal.cpp, hevc_ps.cpp) ---
MediaBlock* ParseNALBlockHEVC(PACK_STREAM* s, bool* tsUsed, MediaBlock* nal);
MediaBlock* ParseVCL(PACK_STREAM* s, uint8_t nalType, MediaBlock* nal);
// Examines VPS/SPS/PPS; returns nal itself (it passes on unchanged).
MediaBlock* ParseNonVCL(PACK_STREAM* s, uint8_t nalType, MediaBlock* nal);
// Decodes and stores a parameter set; nal stays the caller's.
bool InsertXPS(PACK_STREAM* s, uint8_t nalType, uint8_t id, const MediaBlock* nal);
void HevcParamSetsRelease(PACK_STREAM* s);

// --- MPEG-4 Part 2 (mpeg4v_vol.cpp) ---
MediaBlock* ParseMPEGBlock(PACK_STREAM* s, MediaBlock* unit);
int ParseVOL(PACK_STREAM* s, ESFormat* fmt, uint8_t* data, int size);
// Reads a VOP header and times it; unit stays the caller's.
int ParseVOP(PACK_STREAM* s, const MediaBlock* unit);
unsigned vlc_log2(unsigned v);
// Clears the interpolated times (keeps what the VOL told: resolution, fixed increment).
void Mpeg4TimingReset(PACK_STREAM* s);
