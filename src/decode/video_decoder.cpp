// The decoder records, and the first generation's record over its frame decoder.
#include "decode/video_decoder.h"

#include <new>

#include "decode/velmo1_decoder.h"
#include "decode/velmo2_decoder.h"
#include "host/cpu_features.h"
#include "format/container.h"

namespace {

struct Velmo1State {
  VelmoDecoderConfig Config;
  uint32_t BundleSizes[Velmo1BundleCount];
};

void* Velmo1Create(const VelmoDecoderConfig* config) {
  Velmo1State* s = new (std::nothrow) Velmo1State{};
  if (!s) return nullptr;
  s->Config = *config;
  // Bundles sized for the luma width rounded up to 16, as the files' writers planned them.
  Velmo1BundleSizes((config->Width + 15) & ~15u, s->BundleSizes);
  return s;
}

// A first-generation frame has two shares: luma, then chroma with alpha. The open flags carry
// the alpha and old-revision bits; the share decides what is left out.
uint32_t ShareFlags(uint32_t openFlags, uint32_t first, uint32_t count) {
  uint32_t flags = openFlags;
  if (first + count < 2) {
    flags |= Velmo1SkipChroma;
    flags &= ~uint32_t(Velmo1AlphaPlane);
  } else {
    flags &= ~uint32_t(Velmo1SkipChroma);
  }
  if (first != 0) flags |= Velmo1SkipLuma;
  else flags &= ~uint32_t(Velmo1SkipLuma);
  return flags;
}

bool Velmo1DecodeSlices(void* decoder, VelmoFrameBuffers* picture, const uint8_t* video,
                        uint32_t videoSize, bool /*key*/, uint32_t first, uint32_t count,
                        uint32_t* figure) {
  const Velmo1State* s = static_cast<const Velmo1State*>(decoder);
  const uint32_t flags = ShareFlags(s->Config.OpenFlags, first, count);
  if ((flags & Velmo1SkipLuma) && (flags & Velmo1SkipChroma)) return false;
  *figure = Velmo1DecodeFrame(picture, video, video + videoSize + 4, s->BundleSizes, flags,
                              s->Config.FileFlags, s->Config.FileTag);
  return true;
}

void Velmo1Destroy(void* decoder) { delete static_cast<Velmo1State*>(decoder); }

}  // namespace

const VelmoVideoDecoder Velmo1VideoDecoder = {"Velmo 1", Velmo1Create, Velmo1DecodeSlices,
                                              nullptr, Velmo1Destroy};

namespace {

void* Velmo2Create(const VelmoDecoderConfig* config) {
  Velmo2DecoderSetup setup{};
  setup.Width = config->Width;
  setup.Height = config->Height;
  for (int i = 0; i < 4; ++i) setup.Tag[i] = char(config->FileTag >> (8 * i));
  setup.FileFlags = config->FileFlags;
  setup.Alpha = config->FileFlags & VelmoFlagAlpha;
  setup.Hdr = config->FileFlags & VelmoFlagHdr;
  setup.Features = ProcessorFeatures();
  setup.SeamRecords = config->SliceScratch;
  return Velmo2DecoderCreate(setup);
}

bool Velmo2DecodeSlices(void* decoder, VelmoFrameBuffers* picture, const uint8_t* video,
                        uint32_t videoSize, bool key, uint32_t first, uint32_t count,
                        uint32_t* figure) {
  const Velmo2FrameResult result = Velmo2DecodeFrame(static_cast<Velmo2Decoder*>(decoder),
                                                     picture, video, videoSize, key, first, count);
  if (result == Velmo2FrameNoDecoder) return false;
  *figure = result == Velmo2FrameOldStream ? Velmo2FigureOldStream : 0;
  return true;
}

void Velmo2FinishFrame(void* decoder, VelmoFrameBuffers* picture) {
  Velmo2DecoderFinishSeams(static_cast<Velmo2Decoder*>(decoder), picture);
}

void Velmo2Destroy(void* decoder) { Velmo2DecoderDestroy(static_cast<Velmo2Decoder*>(decoder)); }

}  // namespace

const VelmoVideoDecoder Velmo2VideoDecoder = {"Velmo 2", Velmo2Create, Velmo2DecodeSlices,
                                              Velmo2FinishFrame, Velmo2Destroy};

const VelmoVideoDecoder* VelmoDecoderForTag(uint32_t fileTag) {
  if (MagicIsFirstGeneration(fileTag)) return &Velmo1VideoDecoder;
  if (MagicIsSecondGeneration(fileTag)) return &Velmo2VideoDecoder;
  return nullptr;
}
