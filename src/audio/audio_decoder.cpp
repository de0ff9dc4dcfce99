// Velmo sound decoder: reads one block's coefficients per channel, inverts the transform,
// converts to 16-bit PCM and joins the block to the previous one with a linear crossfade.
#include "audio/audio_bits.h"
#include "audio/audio_tables.h"
#include "audio/audio_transform.h"
#include "audio/velmo_audio.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

struct VelmoAudioDecoder {
  uint32_t Length;        // transform length L
  float Scale;            // 2 / sqrt(L)
  uint32_t BlockBytes;    // PCM bytes of a block, all channels
  uint32_t OverlapBytes;  // BlockBytes / 16
  uint32_t OverlapShift;  // log2 of the overlap's samples
  uint32_t Channels;      // coded channels: 1 in the older form
  uint32_t BandCount;
  uint32_t Flags;
  uint32_t FirstBlock;
  uint16_t BandBounds[VelmoAudioMaxBands + 1];
  const AudioTransformPlan* Plan;
};

namespace {

constexpr uint32_t TailOffset = 160;
static_assert(sizeof(VelmoAudioDecoder) <= TailOffset, "decoder record overlaps its tail");

constexpr uint32_t MaxBlockSamples = 4096;  // N times channels

// Working memory of one block (about 90 KiB). It lives on the decoding thread's stack for the
// length of a call, so a decoder record stays small and no thread pays for it unless it decodes.
struct DecodeScratch {
  AudioTransformWork Transform;
  alignas(32) float Coefficients[VelmoAudioMaxLength];
  alignas(32) float Steps[VelmoAudioMaxLength];
  alignas(32) int16_t Channel[MaxBlockSamples];
  alignas(32) int16_t Block[MaxBlockSamples];
  alignas(32) uint8_t Bytes[MaxBlockSamples * 2];
};

int16_t* TailOf(VelmoAudioDecoder* decoder) {
  return reinterpret_cast<int16_t*>(reinterpret_cast<uint8_t*>(decoder) + TailOffset);
}

bool IsCurrentForm(const VelmoAudioDecoder* decoder) {
  return (decoder->Flags & VelmoAudioCurrentForm) != 0;
}

// Fills the dequantising step of every coefficient from the bands' indices.
void FillSteps(const VelmoAudioDecoder* decoder, const uint8_t* indices, float* steps) {
  const uint32_t length = decoder->Length;
  if (decoder->BandCount == 0) {
    std::fill(steps, steps + length, 1.0f);
    return;
  }
  for (uint32_t b = 0; b < decoder->BandCount; ++b) {
    const uint32_t from = std::max<uint32_t>(2, 2u * decoder->BandBounds[b]);
    const uint32_t to = std::min<uint32_t>(length, 2u * decoder->BandBounds[b + 1]);
    const float step = VelmoAudioQuantStep(indices[b]);
    for (uint32_t i = from; i < to; ++i) steps[i] = step;
  }
}

// Reads `count` coefficients of width `width` (1 to 15) from i on.
void ReadMagnitudes(AudioBitReader& reader, uint32_t width, const float* steps, float* out,
                    uint32_t from, uint32_t to) {
  const uint64_t mask = (uint64_t{1} << width) - 1;
  uint32_t i = from;
  while (i < to) {
    const uint64_t bits = reader.Peek();
    uint32_t used = 0;
    while (i < to && used + width + 1 <= 57) {
      const uint32_t magnitude = static_cast<uint32_t>((bits >> used) & mask);
      used += width;
      float value = 0.0f;
      if (magnitude) {
        value = static_cast<float>(magnitude) * steps[i];
        if ((bits >> used) & 1) value = -value;
        ++used;
      }
      out[i++] = value;
    }
    reader.Skip(used);
  }
}

// Reads one channel's coefficients into out[0..L-1].
void ReadChannel(const VelmoAudioDecoder* decoder, AudioBitReader& reader, size_t size,
                 float* out, float* steps) {
  const uint32_t length = decoder->Length;
  out[0] = VelmoAudioUnpackFloat(reader.Read(29));
  out[1] = VelmoAudioUnpackFloat(reader.Read(29));
  uint8_t indices[VelmoAudioMaxBands];
  for (uint32_t b = 0; b < decoder->BandCount; ++b)
    indices[b] = static_cast<uint8_t>(std::min<uint32_t>(reader.Read(8), VelmoAudioMaxIndex));
  FillSteps(decoder, indices, steps);

  const size_t total = size_t{8} * size;
  uint32_t i = 2;
  while (i < length) {
    const size_t groupStart = reader.BitPosition();
    uint32_t count = 8;
    if (reader.Read(1)) count = 8 * VelmoAudioRunGroups[reader.Read(4)];
    const uint32_t end = std::min(length, i + count);
    const uint32_t width = reader.Read(4);
    // A group whose bits could run past the packet ends the channel: the reader goes back to
    // the group's start and everything from there on is silence. The group is judged before
    // it is read, at its longest: 9 bits of head and w + 1 bits a coefficient, a width of 0
    // included (such a group then reads only its head). The encoder lays its blocks out so
    // that no group of its own fails this test at the end of the block.
    const size_t longest = 9 + size_t{end - i} * (width + 1);
    if (groupStart + longest > total) {
      reader.Seek(groupStart);
      break;
    }
    if (width == 0) std::fill(out + i, out + end, 0.0f);
    else ReadMagnitudes(reader, width, steps, out, i, end);
    i = end;
  }
  std::fill(out + i, out + length, 0.0f);
}

// Reads and inverts one channel into 16-bit samples.
void DecodeChannel(const VelmoAudioDecoder* decoder, AudioBitReader& reader, size_t size,
                   int16_t* pcm, DecodeScratch& scratch, const AudioTransformKernels* kernels) {
  float* coefficients = scratch.Coefficients;
  ReadChannel(decoder, reader, size, coefficients, scratch.Steps);
  if (IsCurrentForm(decoder))
    AudioDctInverse(decoder->Plan, coefficients, &scratch.Transform, kernels);
  else
    AudioRealFftInverse(decoder->Plan, coefficients, &scratch.Transform, kernels);
  kernels->FloatToPcm(coefficients, decoder->Length, decoder->Scale, pcm);
}

// Stores bytes into the ring after the drop count, within its limit, wrapping at its end.
void HandToRing(VelmoAudioRing* ring, const uint8_t* bytes, uint32_t count) {
  const uint32_t dropped = std::min(ring->Drop, count);
  ring->Drop -= dropped;
  bytes += dropped;
  count -= dropped;
  ring->Offered += count;
  uint32_t store = std::min(ring->Limit, count);
  if (!ring->Start || ring->End <= ring->Start || ring->Write < ring->Start ||
      ring->Write > ring->End)
    return;
  ring->Limit -= store;
  while (store) {
    if (ring->Write == ring->End) ring->Write = ring->Start;
    const uint32_t room = static_cast<uint32_t>(ring->End - ring->Write);
    const uint32_t part = std::min(room, store);
    std::memcpy(ring->Write, bytes, part);
    ring->Write += part;
    bytes += part;
    store -= part;
  }
  if (ring->Write == ring->End) ring->Write = ring->Start;
}

void EmitSamples(VelmoAudioRing* ring, const int16_t* samples, uint32_t count, uint8_t* bytes) {
  if (count == 0) return;
  if (ring->Bits == 8) {
    for (uint32_t i = 0; i < count; ++i)
      bytes[i] = static_cast<uint8_t>((samples[i] >> 8) + 128);
    HandToRing(ring, bytes, count);
  } else {
    std::memcpy(bytes, samples, count * 2);
    HandToRing(ring, bytes, count * 2);
  }
}

// Fades the block's start into the previous tail, keeps the new tail and hands out the rest.
void JoinBlock(VelmoAudioDecoder* decoder, VelmoAudioRing* ring, int16_t* samples,
               uint32_t count, uint32_t overlap, uint32_t shift, uint8_t* bytes) {
  int16_t* tail = TailOf(decoder);
  if (!decoder->FirstBlock) {
    for (uint32_t i = 0; i < overlap; ++i) {
      const int32_t mixed = (tail[i] * static_cast<int32_t>(overlap - i) +
                             samples[i] * static_cast<int32_t>(i)) >> shift;
      samples[i] = static_cast<int16_t>(std::clamp(mixed, -32768, 32767));
    }
  }
  std::memcpy(tail, samples + count - overlap, overlap * 2);
  decoder->FirstBlock = 0;
  EmitSamples(ring, samples, count - overlap, bytes);
}

}  // namespace

uint32_t VelmoAudioTrackFlags(uint32_t rate, uint32_t channels, int level) {
  return (rate & 0xFFFF) | VelmoTrackSixteenBit | (channels == 2 ? uint32_t(VelmoTrackStereo) : 0u) |
         (VelmoAudioLevelIsCurrentForm(level) ? VelmoTrackCurrentForm : VelmoTrackOlderForm);
}

bool VelmoAudioTrackMode(uint32_t trackFlags, uint32_t* modeOut) {
  if (!(trackFlags & (VelmoTrackCurrentForm | VelmoTrackOlderForm))) return false;
  const bool current =
      (trackFlags & VelmoTrackCurrentForm) && !(trackFlags & VelmoTrackOlderForm);
  if (modeOut) *modeOut = current ? VelmoAudioCurrentForm : 0;
  return true;
}

uint32_t VelmoAudioDecoderSize(uint32_t rate, uint32_t channels) {
  if (rate >= 44100) return ((channels << 12) >> 4) | 160;
  return (((channels * (rate < 22050 ? 1024 : 2048)) >> 4) + 175) & ~15u;
}

VelmoAudioDecoder* VelmoAudioDecoderOpen(void* memory, uint32_t rate, uint32_t channels,
                                         uint32_t flags) {
  if (!memory || channels < 1 || channels > 2 || rate > 65535) return nullptr;
  const bool current = (flags & VelmoAudioCurrentForm) != 0;
  const uint32_t samples = VelmoAudioBlockSamples(rate);
  const uint32_t length = current ? samples : samples * channels;
  if (length > VelmoAudioMaxLength) return nullptr;
  const uint32_t bandRate = current ? rate : rate * channels;

  auto* decoder = new (memory) VelmoAudioDecoder{};
  decoder->Length = length;
  decoder->Scale = 2.0f / std::sqrt(static_cast<float>(length));
  decoder->BlockBytes = 2 * samples * channels;
  decoder->OverlapBytes = decoder->BlockBytes / 16;
  decoder->OverlapShift = 0;
  while ((2u << decoder->OverlapShift) < decoder->OverlapBytes) ++decoder->OverlapShift;
  decoder->Channels = current ? channels : 1;
  decoder->BandCount = VelmoAudioBandCount(bandRate);
  uint32_t bounds[VelmoAudioMaxBands + 1];
  VelmoAudioBandBounds(bandRate, length, true, decoder->BandCount, bounds);
  for (uint32_t b = 0; b <= decoder->BandCount; ++b)
    decoder->BandBounds[b] = static_cast<uint16_t>(bounds[b]);
  decoder->Flags = flags & (VelmoAudioCurrentForm | VelmoAudioHalfBlocks);
  if (decoder->Channels == 1) decoder->Flags &= ~VelmoAudioHalfBlocks;
  decoder->FirstBlock = 1;
  decoder->Plan = AudioTransformPlanFor(length);
  std::memset(TailOf(decoder), 0, decoder->OverlapBytes);
  return decoder;
}

void VelmoAudioDecoderReset(VelmoAudioDecoder* decoder) {
  if (decoder) decoder->FirstBlock = 1;
}

uint32_t VelmoAudioDecoderBlockBytes(const VelmoAudioDecoder* decoder) {
  return decoder ? decoder->BlockBytes : 0;
}

uint32_t VelmoAudioDecoderStepBytes(const VelmoAudioDecoder* decoder) {
  return decoder ? decoder->BlockBytes - decoder->OverlapBytes : 0;
}

uint32_t VelmoAudioDecodeBlock(VelmoAudioDecoder* decoder, VelmoAudioRing* ring,
                               VelmoAudioInput* input) {
  if (!decoder || !ring || !input || !input->Data) return 0;
  const size_t start = std::min(input->Position, input->Size);
  AudioBitReader reader(input->Data, input->Size, start * 8);
  DecodeScratch scratch;
  AudioTransformKernels kernels;
  AudioTransformKernelsInit(&kernels, ProcessorFeatures());
  const uint32_t blockSamples = decoder->BlockBytes / 2;
  int16_t* block = scratch.Block;

  if (IsCurrentForm(decoder)) reader.Skip(2);
  if (decoder->Channels == 1) {
    DecodeChannel(decoder, reader, input->Size, block, scratch, &kernels);
  } else {
    const uint32_t length = decoder->Length;
    for (uint32_t c = 0; c < 2; ++c) {
      DecodeChannel(decoder, reader, input->Size, scratch.Channel, scratch, &kernels);
      for (uint32_t i = 0; i < length; ++i) block[2 * i + c] = scratch.Channel[i];
    }
  }

  const size_t end = std::min(input->Size, ((reader.BitPosition() + 31) / 32) * 4);
  input->Position = std::max(end, start);

  const uint32_t overlap = decoder->OverlapBytes / 2;
  if (decoder->Flags & VelmoAudioHalfBlocks) {
    const uint32_t half = blockSamples / 2;
    JoinBlock(decoder, ring, block, half, overlap / 2, decoder->OverlapShift - 1, scratch.Bytes);
    JoinBlock(decoder, ring, block + half, half, overlap / 2, decoder->OverlapShift - 1,
              scratch.Bytes);
  } else {
    JoinBlock(decoder, ring, block, blockSamples, overlap, decoder->OverlapShift, scratch.Bytes);
  }
  return static_cast<uint32_t>(input->Position - start);
}
