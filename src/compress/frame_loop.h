// The compressor's frame loop: frames enter as 32-bit ARGB or float pixels, are converted to the
// encoder's planes and wait in a queue of preview frames, over which the data-rate plan shares
// its bytes. The pump hands the oldest frame its budget, has the generation's encoder code it
// and the writer write it. The loop drives the writer; the writer knows nothing of encoders.
#pragma once
#include <cstdint>
#include <vector>

#include "compress/frame_planes.h"
#include "compress/video_encoder.h"
#include "compress/velmo_writer.h"

// One queued frame: its planes (aligned sizes, pitch = aligned width) and rate figures.
struct VelmoQueueSlot {
  std::vector<uint8_t> Planes[5];  // Y, Cr, Cb, alpha, HDR (VelmoPlane*); absent ones empty
  uint32_t TargetBytes, PeakBytes, IsKey, Complexity;
};

struct VelmoFrameLoop {
  VelmoWriter* Writer;
  const VelmoVideoEncoder* Encoder;
  void* EncoderState;
  uint32_t PlaneWidth, PlaneHeight, ChromaWidth, ChromaHeight;
  uint32_t PreviewFrames;
  uint32_t KeyInterval;
  int32_t KeyCountdown;
  uint32_t KeyFrameBytes;
  // A ring of PreviewFrames + 1 slots, so that the frame before the oldest queued one stays
  // available for the complexity measure.
  std::vector<VelmoQueueSlot> Ring;
  uint32_t QueueStart, QueuedFrames;
  uint32_t PreviousSlot;  // ring index of the last frame added, or ~0 before the first
  int64_t CarryBytes;
  // Squared error and samples of Y, Cr and Cb over the frames encoded so far.
  uint64_t QualityErrors[3];
  uint64_t QualitySamples[3];
  std::vector<float> HdrScratch;  // integer pixels of a wide-range run, as floats
};

// PSNR in dB of Y, Cr and Cb of the frames encoded so far against their input (99 for a plane
// without error); false before the first frame.
bool VelmoFrameLoopQuality(const VelmoFrameLoop* loop, double psnr[3]);

// A loop over an open writer, with the encoder of the writer's version. `previewFrames` is held
// to 2..64, `keyInterval` 0 means none, `keyRate` is the /N rate in bytes per second (0 none).
// Null (after telling "Out of memory!" through the writer's progress) when no encoder takes the
// writer's version and size or memory runs out.
VelmoFrameLoop* VelmoFrameLoopOpen(VelmoWriter* writer, uint32_t previewFrames,
                                   uint32_t keyInterval, uint32_t keyRate);
// The lowest data rate in bytes per second the loop's frames can be held to (the first
// generation's floor at the writer's frame rate; 0 when the generation has no such floor).
uint32_t VelmoFrameLoopLowestRate(const VelmoFrameLoop* loop);
// Converts one frame (ARGB words, or four floats a pixel with `isFloat`) into the next queue
// slot. `pitch` is signed bytes between display rows. False when the queue has no room. A
// wide-range writer (VelmoWriterHdr) takes its frames through the I-Ct-Cp conversion into Y,
// Cr, Cb and the HDR plane, and the writer's HdrMaxCode is raised to the HDR plane's greatest
// value.
bool VelmoFrameLoopAdd(VelmoFrameLoop* loop, uint32_t targetBytes, uint32_t peakBytes,
                       bool isKey, const void* pixels, int32_t pitch, bool isFloat);
// The same for a frame given as BT.601 planes: they go into the slot without a trip through RGB.
bool VelmoFrameLoopAddYuv(VelmoFrameLoop* loop, uint32_t targetBytes, uint32_t peakBytes,
                          bool isKey, const VelmoYuvFrame& frame);
// Measures the slot's complexity and, when the queue is full or the input ends, encodes.
void VelmoFrameLoopCommit(VelmoFrameLoop* loop);
// Encodes the oldest slot (or all of them with `drainAll`) with budgets from the rate plan.
void VelmoFrameLoopPump(VelmoFrameLoop* loop, bool drainAll);
// Frees the loop and its encoder; frames still queued are dropped (pump them first to keep them).
void VelmoFrameLoopFree(VelmoFrameLoop* loop);
