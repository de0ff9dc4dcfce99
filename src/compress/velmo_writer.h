// The compressor's output writer: owns the temporary output file, the frame index and the sound
// tracks. Coded frames come in from the frame loop; each is written behind its sound packets.
// Checkpoints rewrite the header and tables in place so that the file on disk plays up to its
// last checkpoint while the run goes on; the close renames the temporary file to the output name
// (or deletes it on discard).
//
// The header is either generation's; a second-generation file of wide range carries the HDR
// block its conversion was set up with.
#pragma once
#include <cstdint>
#include <vector>

#include "compress/hdr_planes.h"
#include "format/container.h"
#include "host/bfile.h"
#include "host/outfile.h"

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
  VelmoWriterMaxText = 1020,  // 1019 characters and the terminating zero
};

// Cancel states of a run.
enum : uint32_t { VelmoRunGoing = 0, VelmoCancelDiscard = 1, VelmoCancelKeep = 2 };

// Progress kinds: 1 a label for the status line, 2 a message to show, 3 a failure to show (the
// output could not be made or put in place).
enum : uint32_t { VelmoProgressLabel = 1, VelmoProgressMessage = 2, VelmoProgressError = 3 };

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

struct VelmoWriter {
  uint64_t FileSize;
  uint32_t Failed;
  uint32_t TotalFrames, FramesWritten, ProgressFrame;
  OutFile Out;  // the output under its temporary name; File is Out.File
  uint32_t Width, Height, FrameRateNumerator, FrameRateDenominator, Flags, Version;
  std::vector<uint32_t> FrameIndex;   // TotalFrames + 1 entries
  VelmoWriterTrack* Tracks;
  uint32_t TrackCount;
  BufferedFile* File;
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
  uint32_t InputNits;  // the peak in nits, held to 80 .. 10000
  // With VelmoWriterHdr: the conversion's figures and the HDR block from InputNits, and the
  // greatest value the frames' HDR planes have held so far (the frame loop raises it).
  VelmoHdrSetup Hdr;
  uint32_t HdrMaxCode;
  VelmoHeaderImage Image;
  volatile uint32_t WriteGate, CheckpointGate;
};

// Opens "<path>.tmp", writes the header and empty tables. Null on failure (after telling it
// through `progress`, kind 3). `version` 100 to 299; VelmoWriterHdr is kept from 200 on, and
// then `inputNits` sets the HDR block. `text` may be null. `colourBlock` must be null. `tracks` (trackCount records, at most 256) are started by
// VelmoWriterTrackStart and stay the caller's memory until the close; the writer frees their
// encoders at its close, and leaves them to the caller when the open fails.
VelmoWriter* VelmoWriterOpen(const char* path, uint32_t flags, uint32_t version, uint32_t width,
                             uint32_t height, uint32_t frames, uint32_t textLength,
                             const char* text, uint32_t rateNumerator, uint32_t rateDenominator,
                             uint32_t trackCount, VelmoWriterTrack* tracks, uint32_t inputNits,
                             const int16_t* colourBlock, VelmoWriterProgressFn progress,
                             void* userData);

// Writes the next frame: each track's sound packet, then the coded video, booked in the index
// as a key frame for a nonzero key result; a checkpoint follows when one is due. Returns the
// bytes the rate plan counts as used: the whole frame, except that the first frame's sound,
// the lead-in, is left out.
uint32_t VelmoWriterWriteFrame(VelmoWriter* writer, const uint8_t* video, uint32_t size,
                               uint32_t keyResult);
// Rewrites header, tables and index for the frames written so far. False when the gate could
// not be had within 250 ms (no error: the next checkpoint tries again).
bool VelmoWriterCheckpoint(VelmoWriter* writer);
// Checkpoint and flush to the disk.
bool VelmoWriterFlush(VelmoWriter* writer);
// Finishes (or with `discard` deletes) the file, renames it over the output and frees the
// writer. Returns the final file size; 0 when a write failed (the temporary file is then
// deleted) or the rename failed (the temporary file stays, and the writer has said so). With
// `result`, tells which (an OutFileResult). Frames still queued in a frame loop must be pumped
// before.
uint64_t VelmoWriterClose(VelmoWriter* writer, bool discard, uint32_t* result = nullptr);
