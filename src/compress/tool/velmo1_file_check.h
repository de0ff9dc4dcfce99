// Reads back a first-generation Velmo file with the container parser and the frame decoder:
// for the compressor's tests and the demo's quality figures.
#pragma once
#include <cstdint>
#include <vector>

#include "format/container.h"

struct Velmo1FileCheck {
  VelmoFileInfo Info;
  std::vector<uint8_t> Bytes;
  std::vector<uint64_t> Offsets;  // Frames + 1 expanded index entries
};

// Loads and parses a file. Returns null on success, else the reader's message.
const char* Velmo1CheckOpen(const char* path, Velmo1FileCheck* out);

// Decodes the file's frames in order and calls `frame` with each decoded Y, Cr, Cb (luma pitch
// `lumaPitch`, chroma pitch `chromaPitch`). Returns the frames decoded.
typedef void (*Velmo1CheckFrameFn)(void* context, uint32_t index, const uint8_t* y,
                                   const uint8_t* cr, const uint8_t* cb, uint32_t lumaPitch,
                                   uint32_t chromaPitch);
uint32_t Velmo1CheckDecode(const Velmo1FileCheck& file, Velmo1CheckFrameFn frame, void* context);

// PSNR in dB of the file's decoded Y, Cr and Cb planes (picture area) against the source's
// frames converted with the writer's own colour matrix; `frames` gets the frames compared.
// Returns a negative value when the source cannot be read.
struct VelmocSourceOps;
double Velmo1CheckPsnr(const Velmo1FileCheck& file, const VelmocSourceOps* source,
                       const char* sourceName, uint32_t firstFrame, uint32_t* frames);
