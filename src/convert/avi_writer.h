// AVI container writer: RIFF 'AVI ' with hdrl/strl/movi/idx1, and OpenDML extensions (a super
// index 'indx' per stream, standard index chunks 'ix00'/'ix01' per RIFF segment, 'odml'/'dmlh'
// and further 'AVIX' segments) so that files past the first RIFF limit stay readable.
//
// The header list is written at close, into room reserved at the start, when the stream
// lengths and index entries are known. Stream 0 is video; stream 1 sound, when added.
//
// The file is written under its temporary name (host/outfile.h) and takes the target's place
// only at a close that went well.
#pragma once
#include <cstddef>
#include <cstdint>

#include "host/outfile.h"

struct AviFile;

struct AviVideoFormat {
  int width, height;
  uint32_t rate_num, rate_den;
  int bits;                  // 24 or 32 for raw frames; 24 for MJPEG
  int mjpeg;                 // 1: frames are JPEG pictures ('MJPG'), 0: raw bottom-up DIB rows
  uint64_t riff_limit;       // bytes a RIFF segment may hold (0: 1 GiB)
  uint32_t index_capacity;   // super index entries reserved per stream (0: 1024)
};

AviFile* AviCreate(const char* name, const AviVideoFormat* format);
// Adds the sound stream (PCM); only before the first sound chunk, once.
bool AviAddSound(AviFile* avi, uint32_t rate, uint32_t bits, uint32_t channels);
// One video frame (a key frame). False on a write failure or a full super index.
bool AviWriteVideo(AviFile* avi, const void* data, uint32_t bytes);
bool AviWriteSound(AviFile* avi, const void* data, uint32_t bytes);
// Writes the remaining indexes and headers, puts the file in the target's place and frees.
// Returns the file size, or 0 when anything failed on the way (the target is then as it was).
// With `discard` the file is dropped. `result`, when given, tells how it went (OutFileResult).
uint64_t AviClose(AviFile* avi, bool discard = false, uint32_t* result = nullptr);
// Bytes written so far (the current end of the file).
uint64_t AviBytes(const AviFile* avi);
