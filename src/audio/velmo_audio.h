// Velmo sound codec: transform-coded blocks of 16-bit PCM, with a quantiser index per
// critical band and bit-packed coefficients, joined by a short linear crossfade.
//
// Two stream forms exist. The current form codes each channel with its own DCT; the older
// form treats the interleaved samples of all channels as one channel under a real FFT.
// A block covers N samples per channel (512 below 22050 Hz, 1024 below 44100 Hz, else 2048);
// consecutive blocks overlap by 1/16 of a block, and the decoder fades across the overlap.
#pragma once
#include <cstddef>
#include <cstdint>

#include "format/container.h"  // VelmoTrackStereo and the rest of the TrackFormat bits

// Track flag bits of the container that concern the sound stream (stereo is the container's
// own VelmoTrackStereo, so that both headers can meet in one file).
constexpr uint32_t VelmoTrackCurrentForm = 0x10000000u;
constexpr uint32_t VelmoTrackSixteenBit = 0x40000000u;
constexpr uint32_t VelmoTrackOlderForm = 0x80000000u;

// Decoder mode flags.
constexpr uint32_t VelmoAudioCurrentForm = 1;  // DCT per channel; clear: older real-FFT form
constexpr uint32_t VelmoAudioHalfBlocks = 2;   // stereo current form: fade the block as two halves

// ---- levels (the /L switch) ----

// Levels 0-99 code the current form, 100-199 the older form at level modulo 100. Level 0 is
// lossless to within rounding (some 75 dB SNR on music); level 4 codes each band as the
// psychoacoustic model allows (about 30 dB); above 4 quality and size fall gradually, to
// about 12 dB at 99.
inline bool VelmoAudioLevelValid(int level) { return level >= 0 && level <= 199; }
inline bool VelmoAudioLevelIsCurrentForm(int level) { return level < 100; }
inline float VelmoAudioLevelQuality(int level) { return static_cast<float>(level % 100); }

// The container's track flags for a 16-bit track coded at `level`.
uint32_t VelmoAudioTrackFlags(uint32_t rate, uint32_t channels, int level);

// The decoder mode of a track's flags: current form when 0x10000000 is set and 0x80000000
// is clear. Returns false for a track that carries no Velmo sound (neither bit).
bool VelmoAudioTrackMode(uint32_t trackFlags, uint32_t* modeOut);

// ---- decoder ----

struct VelmoAudioDecoder;

// Where decoded sound goes: a ring of bytes. Each block's new samples first satisfy `Drop`
// (so that a seek can skip), then fill the ring at `Write`, wrapping from `End` to `Start`,
// while `Limit` allows; everything past `Drop` is added to `Offered`, stored or not.
struct VelmoAudioRing {
  uint8_t* Start;
  uint8_t* End;
  uint8_t* Write;
  uint32_t Limit;    // bytes the ring still takes
  uint32_t Drop;     // bytes to discard first
  uint32_t Offered;  // running count of bytes produced past Drop
  uint32_t Bits;     // output sample size: 16 (signed, the default when 0) or 8 (unsigned)
};

// A packet's sound blocks. `Position` is the byte offset of the next block; the decoder
// never reads outside [Data, Data + Size).
struct VelmoAudioInput {
  const uint8_t* Data;
  size_t Size;
  size_t Position;
};

// Bytes to provide to VelmoAudioDecoderOpen for a rate and channel count (the record, with
// the overlap tail at offset 160).
uint32_t VelmoAudioDecoderSize(uint32_t rate, uint32_t channels);

// Builds a decoder in `memory` (at least VelmoAudioDecoderSize bytes, 8-byte aligned).
// Returns null for channels other than 1 or 2, a rate above 65535, or an older-form
// transform longer than 4096.
VelmoAudioDecoder* VelmoAudioDecoderOpen(void* memory, uint32_t rate, uint32_t channels,
                                         uint32_t flags);

// Decodes the block at input->Position into the ring and moves the position to the next
// 4-byte boundary (never past Size). Returns the input bytes used. A damaged or short block
// decodes to damaged sound or silence; it is not reported.
uint32_t VelmoAudioDecodeBlock(VelmoAudioDecoder* decoder, VelmoAudioRing* ring,
                               VelmoAudioInput* input);

// The next block starts without a crossfade (after a seek or a gap).
void VelmoAudioDecoderReset(VelmoAudioDecoder* decoder);

// PCM bytes (16-bit) of one block, and those a block adds to the output (block less overlap).
uint32_t VelmoAudioDecoderBlockBytes(const VelmoAudioDecoder* decoder);
uint32_t VelmoAudioDecoderStepBytes(const VelmoAudioDecoder* decoder);

// ---- encoder ----

struct VelmoAudioEncoder;

// Returns null for channels other than 1 or 2, a rate of 0 or above 65535, or no memory.
VelmoAudioEncoder* VelmoAudioEncoderOpen(uint32_t rate, uint32_t channels, int isCurrentForm);

// Where the next 16-bit interleaved samples go, and how many bytes to read: the whole block
// for the first, then all but the overlap.
void VelmoAudioEncoderBuffer(VelmoAudioEncoder* encoder, uint8_t** bufferOut,
                             uint32_t* bytesOut);

// Codes one block from the `bytes` just placed in the buffer (fewer than asked at the end of
// the sound: the block is completed by repeating the last sample). `quality` is the level
// modulo 100. The output stays valid until the next call. `consumedOut` is the input bytes
// this block accounts for. Returns false only for a null encoder.
bool VelmoAudioEncodeBlock(VelmoAudioEncoder* encoder, float quality, uint32_t bytes,
                           const uint8_t** outOut, uint32_t* outSizeOut, uint32_t* consumedOut);

void VelmoAudioEncoderClose(VelmoAudioEncoder* encoder);

// Block and overlap bytes of an open encoder.
uint32_t VelmoAudioEncoderBlockBytes(const VelmoAudioEncoder* encoder);
uint32_t VelmoAudioEncoderOverlapBytes(const VelmoAudioEncoder* encoder);
