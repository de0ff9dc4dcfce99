// The compressor's frame loop: queue, complexity, budgets and the encoder.
#include "compress/frame_loop.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "compress/frame_planes.h"
#include "compress/hdr_planes.h"
#include "compress/rate_plan.h"
#include "format/frame_buffers.h"

namespace {

int Tell(VelmoWriter* w, uint32_t kind, const char* text) {
  return w->Progress ? w->Progress(kind, w, text) : 0;
}

uint32_t RingSize(const VelmoFrameLoop* l) { return uint32_t(l->Ring.size()); }
VelmoQueueSlot& QueueSlot(VelmoFrameLoop* l, uint32_t i) {
  return l->Ring[(l->QueueStart + i) % RingSize(l)];
}

bool HasAlpha(const VelmoFrameLoop* l) { return (l->Writer->Flags & VelmoWriterAlpha) != 0; }
bool IsGray(const VelmoFrameLoop* l) { return (l->Writer->Flags & VelmoWriterGrayscale) != 0; }
bool IsHdr(const VelmoFrameLoop* l) { return (l->Writer->Flags & VelmoWriterHdr) != 0; }

uint32_t FullKeyCountdown(const VelmoFrameLoop* l) {
  return std::min<uint32_t>(l->KeyInterval, 0x7fffffff);
}

VelmoComplexityPlane PlaneOf(const VelmoQueueSlot& slot, const VelmoQueueSlot* previous,
                             uint32_t index, uint32_t width, uint32_t height) {
  VelmoComplexityPlane p{};
  if (slot.Planes[index].empty()) return p;
  p.Pixels = slot.Planes[index].data();
  p.Previous = previous ? previous->Planes[index].data() : nullptr;
  p.Width = width;
  p.Height = height;
  p.Pitch = int32_t(width);
  return p;
}

bool AllocateRing(VelmoFrameLoop* l) {
  const size_t luma = size_t(l->PlaneWidth) * l->PlaneHeight;
  const size_t chroma = size_t(l->ChromaWidth) * l->ChromaHeight;
  try {
    l->Ring.resize(l->PreviewFrames + 1);
    for (VelmoQueueSlot& s : l->Ring) {
      s.Planes[VelmoPlaneY].assign(luma, 0);
      s.Planes[VelmoPlaneCr].assign(chroma, 128);
      s.Planes[VelmoPlaneCb].assign(chroma, 128);
      if (HasAlpha(l)) s.Planes[VelmoPlaneAlpha].assign(luma, 255);
      if (IsHdr(l)) s.Planes[VelmoPlaneHdr].assign(luma, 0);
    }
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// The encoder's stage labels go to the progress callback; a cancel answer there stops the run
// at the next frame.
void StageLabel(void* context, const char* label) {
  VelmoWriter* w = static_cast<VelmoWriter*>(context);
  if (Tell(w, VelmoProgressLabel, label) && !w->CancelRequested)
    w->CancelRequested = VelmoCancelDiscard;
}

VelmoEncodeInput InputOf(VelmoFrameLoop* l, VelmoQueueSlot& s) {
  VelmoEncodeInput input{};
  for (uint32_t p = 0; p < VelmoPlaneCount; ++p) {
    const bool chroma = p == VelmoPlaneCr || p == VelmoPlaneCb;
    if (s.Planes[p].empty() || (chroma && IsGray(l))) continue;
    input.Planes[p] = s.Planes[p].data();
    input.Pitches[p] = int32_t(chroma ? l->ChromaWidth : l->PlaneWidth);
  }
  input.Key = s.IsKey != 0;
  input.Cancel = &l->Writer->CancelRequested;
  input.Stage = StageLabel;
  input.StageContext = l->Writer;
  return input;
}

// The sound reservation of queue slot i of n, from the tracks' running figures.
uint32_t SoundReservation(const VelmoWriter* w, uint32_t n, uint32_t i) {
  VelmoRateTrack sound[VelmoMaxTracks];
  for (uint32_t t = 0; t < w->TrackCount; ++t) {
    const VelmoWriterTrack& k = w->Tracks[t];
    sound[t] = {k.InputBytes, k.OutputBytes, k.BytesPerSecond, k.BytesLeft};
  }
  return VelmoSoundReservation(sound, w->TrackCount, n, i, w->FrameRateNumerator,
                               w->FrameRateDenominator);
}

// The next free queue slot, or null when the queue or the run has no room for another frame.
VelmoQueueSlot* FreeSlot(VelmoFrameLoop* l) {
  const VelmoWriter* w = l->Writer;
  if (l->QueuedFrames >= l->PreviewFrames || w->FramesWritten + l->QueuedFrames >= w->TotalFrames)
    return nullptr;
  return &QueueSlot(l, l->QueuedFrames);
}

VelmoPlaneTargets TargetsOf(const VelmoFrameLoop* l, VelmoQueueSlot& slot) {
  return {slot.Planes[VelmoPlaneY].data(), slot.Planes[VelmoPlaneCr].data(),
          slot.Planes[VelmoPlaneCb].data(),
          HasAlpha(l) ? slot.Planes[VelmoPlaneAlpha].data() : nullptr, l->PlaneWidth,
          l->ChromaWidth};
}

bool OutputFullRange(const VelmoFrameLoop* l) {
  return (l->Writer->Flags & VelmoWriterFullRange) != 0;
}

// A wide-range frame into the slot's I-Ct-Cp planes; integer pixels are taken as floats of
// 1.0 at 255 first. The HDR plane's greatest value goes to the writer's HdrMaxCode.
void ConvertHdr(VelmoFrameLoop* l, VelmoQueueSlot& slot, const void* pixels, int32_t pitch,
                bool isFloat) {
  VelmoWriter* w = l->Writer;
  if (!isFloat) {
    l->HdrScratch.resize(size_t(w->Width) * w->Height * 4);
    const uint8_t* base = static_cast<const uint8_t*>(pixels);
    float* f = l->HdrScratch.data();
    for (uint32_t y = 0; y < w->Height; ++y)
      for (uint32_t x = 0; x < w->Width; ++x, f += 4) {
        uint32_t p;
        std::memcpy(&p, base + int64_t(pitch) * y + size_t(x) * 4, 4);
        for (int c = 0; c < 4; ++c) f[c] = float((p >> (c == 3 ? 24 : 16 - 8 * c)) & 255) / 255.0f;
      }
    pixels = l->HdrScratch.data();
    pitch = int32_t(w->Width * 16);
  }
  const VelmoHdrTargets targets{slot.Planes[VelmoPlaneY].data(), slot.Planes[VelmoPlaneCr].data(),
                                slot.Planes[VelmoPlaneCb].data(),
                                HasAlpha(l) ? slot.Planes[VelmoPlaneAlpha].data() : nullptr,
                                slot.Planes[VelmoPlaneHdr].data(), l->PlaneWidth, l->ChromaWidth};
  VelmoConvertHdrPixels(pixels, pitch, w->Width, w->Height, w->Hdr, targets);
  w->HdrMaxCode = VelmoHdrPlaneMax(targets.Hdr, l->PlaneWidth, w->Width, w->Height,
                                   uint8_t(std::min<uint32_t>(w->HdrMaxCode, 255)));
}

// The rate figures of a filled slot, and the key frames the run forces.
void FillSlot(VelmoFrameLoop* l, VelmoQueueSlot& slot, uint32_t targetBytes, uint32_t peakBytes,
              bool isKey) {
  const VelmoWriter* w = l->Writer;
  slot.TargetBytes = targetBytes;
  slot.PeakBytes = peakBytes;
  slot.IsKey = isKey ? 1 : 0;
  slot.Complexity = 0xffffffffu;
  if (w->FramesWritten + l->QueuedFrames == 0) slot.IsKey = 1;  // the run starts with a key
  if (l->KeyInterval < 0x10000000 && --l->KeyCountdown <= 0) slot.IsKey = 1;
}

}  // namespace

VelmoFrameLoop* VelmoFrameLoopOpen(VelmoWriter* writer, uint32_t previewFrames,
                                   uint32_t keyInterval, uint32_t keyRate) {
  if (!writer) return nullptr;
  const VelmoVideoEncoder* encoder = VelmoEncoderForVersion(writer->Version);
  VelmoFrameLoop* l = encoder ? new (std::nothrow) VelmoFrameLoop() : nullptr;
  if (l) {
    l->Writer = writer;
    l->Encoder = encoder;
    const VelmoPlaneGeometry g = encoder->Planes(writer->Width, writer->Height);
    l->PlaneWidth = g.LumaWidth;
    l->PlaneHeight = g.LumaHeight;
    l->ChromaWidth = g.ChromaWidth;
    l->ChromaHeight = g.ChromaHeight;
    l->PreviewFrames = std::clamp<uint32_t>(previewFrames, 2, 64);
    l->KeyInterval = keyInterval ? keyInterval : 0x10000000;
    l->KeyCountdown = int32_t(FullKeyCountdown(l));
    l->KeyFrameBytes =
        VelmoKeyFrameBytes(keyRate, writer->FrameRateNumerator, writer->FrameRateDenominator);
    l->PreviousSlot = ~0u;
    const VelmoEncoderOptions options{writer->Width, writer->Height, writer->Version,
                                      writer->Flags};
    if (AllocateRing(l)) l->EncoderState = encoder->Create(&options);
  }
  if (!l || !l->EncoderState) {
    Tell(writer, VelmoProgressMessage, "Out of memory!");
    delete l;
    return nullptr;
  }
  return l;
}

bool VelmoFrameLoopAdd(VelmoFrameLoop* l, uint32_t targetBytes, uint32_t peakBytes, bool isKey,
                       const void* pixels, int32_t pitch, bool isFloat) {
  VelmoQueueSlot* slot = l ? FreeSlot(l) : nullptr;
  if (!slot) return false;
  if (IsHdr(l)) ConvertHdr(l, *slot, pixels, pitch, isFloat);
  else
    VelmoConvertPixels(pixels, pitch, isFloat, l->Writer->Width, l->Writer->Height,
                       OutputFullRange(l), TargetsOf(l, *slot));
  FillSlot(l, *slot, targetBytes, peakBytes, isKey);
  return true;
}

bool VelmoFrameLoopAddYuv(VelmoFrameLoop* l, uint32_t targetBytes, uint32_t peakBytes,
                          bool isKey, const VelmoYuvFrame& frame) {
  VelmoQueueSlot* slot = l ? FreeSlot(l) : nullptr;
  if (!slot) return false;
  VelmoConvertYuv(frame, l->Writer->Width, l->Writer->Height, OutputFullRange(l),
                  TargetsOf(l, *slot));
  FillSlot(l, *slot, targetBytes, peakBytes, isKey);
  return true;
}

void VelmoFrameLoopCommit(VelmoFrameLoop* l) {
  if (!l) return;
  VelmoQueueSlot& slot = QueueSlot(l, l->QueuedFrames);
  if (slot.IsKey) l->KeyCountdown = int32_t(FullKeyCountdown(l));
  const VelmoQueueSlot* previous =
      (slot.IsKey || l->PreviousSlot == ~0u) ? nullptr : &l->Ring[l->PreviousSlot];
  const bool key = previous == nullptr;
  const VelmoComplexityPlane none{};
  const bool gray = IsGray(l);
  slot.Complexity = MeasureFrameComplexity(
      PlaneOf(slot, previous, VelmoPlaneY, l->PlaneWidth, l->PlaneHeight),
      gray ? none : PlaneOf(slot, previous, VelmoPlaneCr, l->ChromaWidth, l->ChromaHeight),
      gray ? none : PlaneOf(slot, previous, VelmoPlaneCb, l->ChromaWidth, l->ChromaHeight),
      HasAlpha(l) ? PlaneOf(slot, previous, VelmoPlaneAlpha, l->PlaneWidth, l->PlaneHeight) : none,
      IsHdr(l) ? PlaneOf(slot, previous, VelmoPlaneHdr, l->PlaneWidth, l->PlaneHeight) : none,
      key);
  l->PreviousSlot = (l->QueueStart + l->QueuedFrames) % RingSize(l);
  l->QueuedFrames++;
  // At the end of the input the whole queue drains in one pump, full or not.
  const VelmoWriter* w = l->Writer;
  if (l->QueuedFrames + w->FramesWritten == w->TotalFrames) VelmoFrameLoopPump(l, true);
  else if (l->QueuedFrames == l->PreviewFrames) VelmoFrameLoopPump(l, false);
}

VelmoRateGeometry RateGeometry(const VelmoFrameLoop* l) {
  const VelmoWriter* w = l->Writer;
  return VelmoRateGeometry{VelmoGeneration(w->Version), w->Version, l->PlaneWidth * l->PlaneHeight,
                           l->ChromaWidth * l->ChromaHeight, HasAlpha(l), IsGray(l)};
}

uint32_t VelmoFrameLoopLowestRate(const VelmoFrameLoop* l) {
  if (!l) return 0;
  return VelmoLowestRate(RateGeometry(l), l->Writer->FrameRateNumerator,
                         l->Writer->FrameRateDenominator);
}

void VelmoFrameLoopPump(VelmoFrameLoop* l, bool drainAll) {
  if (!l || !l->QueuedFrames) return;
  VelmoWriter* w = l->Writer;
  const uint32_t n = l->QueuedFrames;
  const uint32_t count = drainAll ? n : 1;
  VelmoRateSlot slots[64];
  for (uint32_t j = 0; j < n; ++j) {
    const VelmoQueueSlot& s = QueueSlot(l, j);
    slots[j] = {s.TargetBytes, s.PeakBytes, s.IsKey, s.Complexity};
  }
  VelmoPumpState state = VelmoPumpBegin(slots, n, l->CarryBytes, l->KeyFrameBytes);
  const VelmoRateGeometry geometry = RateGeometry(l);
  uint32_t handled = 0;
  for (uint32_t i = 0; i < count; ++i) {
    if (w->Failed) break;
    w->ProgressFrame = w->FramesWritten;
    if (Tell(w, VelmoProgressLabel, "Compressing") && !w->CancelRequested)
      w->CancelRequested = VelmoCancelDiscard;
    if (w->CancelRequested) break;  // a cancelled run starts no further frame
    const uint32_t budget = VelmoPumpBudget(state, slots[i], i, SoundReservation(w, n, i),
                                            l->KeyFrameBytes, w->FramesWritten, geometry);
    const VelmoEncodeInput input = InputOf(l, QueueSlot(l, i));
    VelmoCodedFrame coded{};
    if (!l->Encoder->EncodeFrame(l->EncoderState, &input, budget, &coded)) {
      if (w->CancelRequested != VelmoCancelKeep) w->Failed = 1;  // else stopped mid-frame
      break;
    }
    const uint32_t used = VelmoWriterWriteFrame(w, coded.Data, coded.Size, coded.KeyResult);
    for (int p = 0; p < 3; ++p) {
      l->QualityErrors[p] += coded.PictureErrors[p];
      l->QualitySamples[p] += coded.PictureSamples[p];
    }
    VelmoPumpUsed(state, l->CarryBytes, slots[i], i, used);
    handled++;
  }
  VelmoPumpEnd(state, l->CarryBytes);
  l->QueueStart = (l->QueueStart + handled) % RingSize(l);
  l->QueuedFrames -= handled;
}

bool VelmoFrameLoopQuality(const VelmoFrameLoop* l, double psnr[3]) {
  if (!l || l->QualitySamples[0] == 0) return false;
  for (int p = 0; p < 3; ++p) {
    const uint64_t n = l->QualitySamples[p], e = l->QualityErrors[p];
    psnr[p] = n == 0 || e == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 * double(n) / double(e));
  }
  return true;
}

void VelmoFrameLoopFree(VelmoFrameLoop* l) {
  if (!l) return;
  if (l->EncoderState) l->Encoder->Destroy(l->EncoderState);
  delete l;
}
