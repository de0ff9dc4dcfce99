// The compressor's output writer: owns the temporary output file, a queue of preview frames
// that the data-rate plan shares its bytes over, the frame index and the sound tracks. Frames
// enter as 32-bit ARGB or float pixels, are converted to planes, wait in the queue, and are
// encoded and written by the pump. Checkpoints rewrite the header and tables in place so that
// the file on disk plays up to its last checkpoint while the run goes on; the close renames
// the temporary file to the output name (or deletes it on discard).
//
// This build writes the first generation (versions 100 to 199).
#pragma once
#include <cstdint>
#include <vector>

#include "compress/velmo1_encoder.h"
#include "host/bfile.h"
#include "format/container.h"

// Writer flag bits (the flag word of VelmoWriterOpen).
enum : uint32_t {
  VelmoWriterSliceBits = 0x3,
  VelmoWriterHdr = 0x4,
  VelmoWriterFullRange = 0x10,
  VelmoWriterDeblockBits = 0xc000,
  VelmoWriterColourBlock = 0x10000,
  VelmoWriterGrayscale = 0x20000,
  VelmoWriterZeroAlphaWeight = 0x80000,
  VelmoWriterAlpha = 0x100000,
  VelmoWriterQuantBits = 0x3000000,
  VelmoWriterKeptFlags = 0x31ac007,
};

enum : uint32_t {
  VelmoWriterCheckpointBytes = 2000000,
  VelmoWriterCheckpointMs = 60000,
  VelmoWriterFileBuffer = 0x20000,
  VelmoWriterPathBytes = 256,
  VelmoWriterMaxText = 1020,  // 1019 characters and the terminating zero
};

// Cancel states of a run.
enum : uint32_t { VelmoRunGoing = 0, VelmoCancelDiscard = 1, VelmoCancelKeep = 2 };

// Progress kinds: 1 a label for the status line, 2 a message to show.
enum : uint32_t { VelmoProgressLabel = 1, VelmoProgressMessage = 2 };

struct VelmoWriter;
// Returns non-zero to cancel. A text beginning with '@' may be suppressed by the tool.
typedef int (*VelmoWriterProgressFn)(uint32_t kind, VelmoWriter* writer, const char* text);

// One output sound track. The writer encodes its packets frame by frame from ReadSamples;
// the mixer also copies or drops tracks of an existing file (Mode).
typedef uint32_t (*VelmoReadSamplesFn)(void* source, void* buffer, uint32_t bytes);
enum VelmoTrackMode : uint32_t {
  VelmoTrackEncode = 0,   // packets are encoded from the source
  VelmoTrackCopy = 1,     // packets are copied from the mixer's input file
  VelmoTrackDropped = 2,  // packets are passed over; no table entry is written
};
struct VelmoWriterTrack {
  uint32_t TrackId, SampleRate, Bits, Channels;
  uint32_t InputBytes, OutputBytes;  // running ratio for the sound reservation (45 : 10 at first)
  uint32_t TrackFlags, MaxDecodedBytes, LeadInBytes;
  uint32_t BytesPerSecond, BytesLeft, BytesDone, Quality;
  void* Encoder;  // VelmoAudioEncoder
  void* Source;
  VelmoReadSamplesFn ReadSamples;
  uint32_t Mode;          // VelmoTrackMode
  uint32_t SilenceBytes;  // mixer: zero bytes yielded before the source
};

// One queued frame: its planes (aligned sizes, pitch = aligned width) and rate figures.
struct VelmoQueueSlot {
  std::vector<uint8_t> Planes[4];  // Y, Cr, Cb, alpha
  uint32_t TargetBytes, PeakBytes, IsKey, Complexity;
};

struct VelmoWriter {
  uint64_t FileSize;
  uint32_t Failed;
  uint32_t TotalFrames, FramesWritten, ProgressFrame;
  char OutputPath[VelmoWriterPathBytes];
  char TemporaryPath[VelmoWriterPathBytes];
  uint32_t Width, Height, FrameRateNumerator, FrameRateDenominator, Flags, Version;
  std::vector<uint32_t> FrameIndex;   // TotalFrames + 1 entries
  std::vector<uint64_t> FrameErrors;  // TotalFrames + 1 entries
  uint32_t PlaneWidth, PlaneHeight, ChromaWidth, ChromaHeight;
  uint32_t PreviewFrames;
  VelmoWriterTrack* Tracks;
  uint32_t TrackCount;
  uint32_t KeyInterval;
  int32_t KeyCountdown;
  BufferedFile* File;
  uint32_t KeyFrameBytes;
  // The queue: a ring of PreviewFrames + 1 slots so that the frame before the oldest queued
  // one stays available for the complexity measure.
  std::vector<VelmoQueueSlot> Ring;
  uint32_t QueueStart, QueuedFrames;
  uint32_t PreviousSlot;  // ring index of the last frame added, or ~0 before the first
  int64_t CarryBytes;
  VelmoEncoder* Encoder;
  uint32_t LargestFrame;
  char ExtraText[VelmoWriterMaxText];
  uint32_t ExtraTextLength;
  VelmoWriterProgressFn Progress;
  void* UserData;  // for the progress callback
  // VelmoRunGoing; VelmoCancelDiscard: no further frame is started; VelmoCancelKeep: the
  // frame in hand stops before its next plane pass, and no further frame is started.
  volatile uint32_t CancelRequested;
  uint64_t NextCheckpointBytes;
  uint32_t NextCheckpointTime;
  uint32_t CheckpointBytes, CheckpointMs;  // spacing (2,000,000 bytes, 60 s)
  uint32_t InputNits;
  VelmoHeaderImage Image;
  volatile uint32_t WriteGate, CheckpointGate;
};

// Opens "<path>.tmp", writes the header and empty tables. Null on failure (after telling it
// through `progress`). `version` 100 to 199; the second generation is refused. `text` may be
// null. `keyRate` is the /N rate in bytes per second (0 none). `colourBlock` must be null.
// `tracks` (trackCount records, at most 256) are started by VelmoWriterTrackStart and stay the
// caller's memory until the close; the writer frees their encoders at its close, and leaves
// them to the caller when the open fails.
VelmoWriter* VelmoWriterOpen(const char* path, uint32_t flags, uint32_t version, uint32_t width,
                             uint32_t height, uint32_t frames, uint32_t textLength,
                             const char* text, uint32_t keyInterval, uint32_t rateNumerator,
                             uint32_t rateDenominator, uint32_t trackCount,
                             VelmoWriterTrack* tracks, uint32_t previewFrames, uint32_t inputNits,
                             const int16_t* colourBlock, uint32_t keyRate,
                             VelmoWriterProgressFn progress, void* userData);

// Converts one frame (ARGB words, or four floats a pixel with `isFloat`) into the next queue
// slot. `pitch` is signed bytes between display rows. False when the queue has no room.
bool VelmoWriterAddFrame(VelmoWriter* writer, uint32_t targetBytes, uint32_t peakBytes,
                         bool isKey, const void* pixels, int32_t pitch, bool isFloat);
// Measures the slot's complexity and, when the queue is full or the input ends, encodes.
void VelmoWriterCommit(VelmoWriter* writer);
// Encodes the oldest slot (or all of them with `drainAll`) with budgets from the rate plan.
void VelmoWriterPump(VelmoWriter* writer, bool drainAll);
// Rewrites header, tables and index for the frames written so far. False when the gate could
// not be had within 250 ms (no error: the next checkpoint tries again).
bool VelmoWriterCheckpoint(VelmoWriter* writer);
// Checkpoint and flush to the disk.
bool VelmoWriterFlush(VelmoWriter* writer);
// Finishes (or with `discard` deletes) the file, renames it and frees the writer. Returns the
// final file size; 0 when a write failed (the temporary file is then deleted).
uint64_t VelmoWriterClose(VelmoWriter* writer, bool discard);

// Pixel conversion of one frame into planes (also used by tests): Y at luma pitch, Cr and Cb
// from 2x2 sums at chroma pitch, alpha (may be null) from the top byte.
struct VelmoPlaneTargets {
  uint8_t* Y;
  uint8_t* Cr;
  uint8_t* Cb;
  uint8_t* Alpha;
  uint32_t LumaPitch, ChromaPitch;
};
void VelmoConvertPixels(const void* pixels, int32_t pitch, bool isFloat, uint32_t width,
                        uint32_t height, bool fullRange, const VelmoPlaneTargets& out);
