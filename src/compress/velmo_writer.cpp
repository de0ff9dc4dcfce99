// The compressor's output writer: queue, conversion, pump, checkpoints and close.
#include "compress/velmo_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "compress/rate_plan.h"
#include "compress/velmo_sound_track.h"
#include "host/platform.h"

namespace {

const char TextNoTemporary[] =
    "Couldn't create temporary file.\n\nSome possible reasons for this error include:\n"
    "  1) compressing to a read-only drive (like a CD-ROM),\n"
    "  2) compressing to a drive that is full (out of disk space), or\n"
    "  3) compressing multiple files to the same Velmo output filename.";

int Tell(VelmoWriter* w, uint32_t kind, const char* text) {
  return w->Progress ? w->Progress(kind, w, text) : 0;
}

uint32_t Gcd(uint32_t a, uint32_t b) {
  while (b) {
    uint32_t t = a % b;
    a = b;
    b = t;
  }
  return a;
}

// ---- Pixel conversion ------------------------------------------------------------------------

inline uint8_t Clip255(int32_t v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

struct RgbSum {
  int32_t R, G, B;
};

// Integer pixel at (x, y), clamped into the picture (odd edges count their neighbour again).
inline uint32_t PixelAt(const uint8_t* base, int32_t pitch, uint32_t x, uint32_t y) {
  uint32_t v;
  std::memcpy(&v, base + int64_t(pitch) * y + size_t(x) * 4, 4);
  return v;
}

inline void FloatAt(const uint8_t* base, int32_t pitch, uint32_t x, uint32_t y, float out[4]) {
  std::memcpy(out, base + int64_t(pitch) * y + size_t(x) * 16, 16);
}

uint8_t LumaOld(uint32_t p) {
  int32_t r = (p >> 16) & 255, g = (p >> 8) & 255, b = p & 255;
  return uint8_t(((67371 * r + 132120 * g + 25690 * b + 0x1ffff) >> 18) + 16);
}
uint8_t LumaFull(uint32_t p) {
  int32_t r = (p >> 16) & 255, g = (p >> 8) & 255, b = p & 255;
  return uint8_t((78381 * r + 153879 * g + 29884 * b + 0x20000) >> 18);
}
void ChromaOld(const RgbSum& s, uint8_t* cr, uint8_t* cb) {
  *cr = Clip255((-18612 * s.B - 96468 * s.G + 115080 * s.R + 0x807ffff) >> 20);
  *cb = Clip255((115080 * s.B - 38797 * s.R - 76283 * s.G + 0x807ffff) >> 20);
}
uint8_t FullChromaValue(int32_t v) {
  v -= v >> 31;  // the sign is subtracted: negative values move one towards zero
  return Clip255((v + 0x8080000) >> 20);
}
void ChromaFull(const RgbSum& s, uint8_t* cr, uint8_t* cb) {
  *cr = FullChromaValue(131072 * s.R - 109757 * s.G - 21315 * s.B);
  *cb = FullChromaValue(131072 * s.B - 86839 * s.G - 44233 * s.R);
}

uint8_t UnitToByte(float v) {
  float x = v * 255.0f + 0.5f;
  return x <= 0.0f ? 0 : x >= 255.0f ? 255 : uint8_t(x);
}

struct ConvertJob {
  const uint8_t* Base;
  int32_t Pitch;
  bool IsFloat, FullRange;
  uint32_t Width, Height;
  VelmoPlaneTargets Out;
  volatile uint32_t NextPair;
};

// One pair of lines: two luma rows and the chroma row between them.
void ConvertLinePair(const ConvertJob& job, uint32_t pair) {
  const uint32_t w = job.Width, h = job.Height;
  const uint32_t y0 = pair * 2, y1 = std::min(y0 + 1, h - 1);
  for (uint32_t y = y0; y < std::min(y0 + 2, h); ++y) {
    uint8_t* ly = job.Out.Y + size_t(y) * job.Out.LumaPitch;
    uint8_t* la = job.Out.Alpha ? job.Out.Alpha + size_t(y) * job.Out.LumaPitch : nullptr;
    for (uint32_t x = 0; x < w; ++x) {
      if (job.IsFloat) {
        float f[4];
        FloatAt(job.Base, job.Pitch, x, y, f);
        ly[x] = UnitToByte(0.299f * f[0] + 0.587f * f[1] + 0.114f * f[2]);
        if (la) la[x] = UnitToByte(f[3]);
      } else {
        uint32_t p = PixelAt(job.Base, job.Pitch, x, y);
        ly[x] = job.FullRange ? LumaFull(p) : LumaOld(p);
        if (la) la[x] = uint8_t(p >> 24);
      }
    }
  }
  uint8_t* cr = job.Out.Cr + size_t(pair) * job.Out.ChromaPitch;
  uint8_t* cb = job.Out.Cb + size_t(pair) * job.Out.ChromaPitch;
  for (uint32_t cx = 0; cx < (w + 1) / 2; ++cx) {
    const uint32_t x0 = cx * 2, x1 = std::min(x0 + 1, w - 1);
    if (job.IsFloat) {
      float s[3] = {0, 0, 0};
      for (uint32_t y : {y0, y1})
        for (uint32_t x : {x0, x1}) {
          float f[4];
          FloatAt(job.Base, job.Pitch, x, y, f);
          for (int c = 0; c < 3; ++c) s[c] += f[c];
        }
      cr[cx] = UnitToByte((0.5f * s[0] - 0.418688f * s[1] - 0.081312f * s[2]) / 4 + 128.0f / 255.0f);
      cb[cx] = UnitToByte((0.5f * s[2] - 0.331264f * s[1] - 0.168736f * s[0]) / 4 + 128.0f / 255.0f);
      continue;
    }
    RgbSum s{0, 0, 0};
    for (uint32_t y : {y0, y1})
      for (uint32_t x : {x0, x1}) {
        uint32_t p = PixelAt(job.Base, job.Pitch, x, y);
        s.R += (p >> 16) & 255;
        s.G += (p >> 8) & 255;
        s.B += p & 255;
      }
    if (job.FullRange) ChromaFull(s, cr + cx, cb + cx);
    else ChromaOld(s, cr + cx, cb + cx);
  }
}

void ConvertWorker(void* context, uint32_t) {
  ConvertJob& job = *static_cast<ConvertJob*>(context);
  const uint32_t pairs = (job.Height + 1) / 2;
  for (;;) {
    uint32_t pair = AtomicAdd(&job.NextPair, 1);
    if (pair >= pairs) return;
    ConvertLinePair(job, pair);
  }
}

// ---- Gates -----------------------------------------------------------------------------------

// The work thread announces a group of file writes; it waits while a checkpoint holds the file.
void EnterWrites(VelmoWriter* w) {
  for (;;) {
    AtomicAdd(&w->WriteGate, 1);
    if (AtomicRead(&w->CheckpointGate) == 0) return;
    AtomicAdd(&w->WriteGate, -1);
    ThreadSleep(1);
  }
}
void LeaveWrites(VelmoWriter* w) { AtomicAdd(&w->WriteGate, -1); }

// Takes the file for a checkpoint: false when the work thread kept it for 250 ms.
bool TakeCheckpointGate(VelmoWriter* w) {
  AtomicAdd(&w->CheckpointGate, 1);
  const uint32_t start = TimerMs();
  for (;;) {
    if (AtomicRead(&w->WriteGate) == 0 && AtomicRead(&w->CheckpointGate) == 1) return true;
    if (TimerMs() - start >= 250) {
      AtomicAdd(&w->CheckpointGate, -1);
      return false;
    }
    ThreadSleep(1);
  }
}
void DropCheckpointGate(VelmoWriter* w) { AtomicAdd(&w->CheckpointGate, -1); }

// ---- Queue -----------------------------------------------------------------------------------

uint32_t RingSize(const VelmoWriter* w) { return uint32_t(w->Ring.size()); }
VelmoQueueSlot& QueueSlot(VelmoWriter* w, uint32_t i) {
  return w->Ring[(w->QueueStart + i) % RingSize(w)];
}

bool HasAlpha(const VelmoWriter* w) { return (w->Flags & VelmoWriterAlpha) != 0; }
bool IsGray(const VelmoWriter* w) { return (w->Flags & VelmoWriterGrayscale) != 0; }

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

// The three track tables as the container writes them.
std::vector<VelmoTrackInfo> TrackTable(const VelmoWriter* w) {
  std::vector<VelmoTrackInfo> table(w->TrackCount);
  for (uint32_t t = 0; t < w->TrackCount; ++t)
    table[t] = {w->Tracks[t].MaxDecodedBytes, w->Tracks[t].TrackFlags, w->Tracks[t].TrackId};
  return table;
}

// Writes one encoded frame, each track's sound packet before its video, and books it in the
// index. Returns the bytes the rate plan counts as used: the whole frame, except that the
// first frame's sound, the lead-in, is left out.
uint32_t WriteFrame(VelmoWriter* w, const VelmoEncodeResult& result, bool key) {
  const uint32_t n = w->FramesWritten;
  EnterWrites(w);
  const uint64_t start = FileTell(w->File);
  w->FrameIndex[n] = VelmoMakeFrameEntry(start, key);
  for (uint32_t t = 0; t < w->TrackCount; ++t)
    VelmoWriterSoundPacket(&w->Tracks[t], n, w->FrameRateNumerator, w->FrameRateDenominator,
                           w->File);
  const uint64_t video = FileTell(w->File);
  FileWrite(w->File, result.Section.data(), result.Section.size());
  const uint64_t end = FileTell(w->File);
  w->FrameIndex[n + 1] = VelmoMakeFrameEntry(end, false);
  if (w->File->WriteError) w->Failed = 1;
  w->FileSize = end;
  // The counts a checkpoint reads change only while the checkpoint is kept out.
  const uint32_t bytes = uint32_t(end - start);
  w->LargestFrame = std::max(w->LargestFrame, bytes);
  w->FrameErrors[n] = result.Errors[0] + result.Errors[1] + result.Errors[2] + result.Errors[3];
  w->FramesWritten = n + 1;
  LeaveWrites(w);
  return n == 0 ? uint32_t(end - video) : bytes;
}

// The encoder's stage labels go to the progress callback; a cancel answer there stops the run
// at the next frame.
void StageLabel(void* context, const char* label) {
  VelmoWriter* w = static_cast<VelmoWriter*>(context);
  if (Tell(w, VelmoProgressLabel, label) && !w->CancelRequested)
    w->CancelRequested = VelmoCancelDiscard;
}

void EndTracks(VelmoWriter* w) {
  for (uint32_t t = 0; t < w->TrackCount; ++t) VelmoWriterTrackEnd(&w->Tracks[t]);
}

void MaybeCheckpoint(VelmoWriter* w) {
  const bool bytesDue = w->FileSize >= w->NextCheckpointBytes;
  const bool timeDue = int32_t(TimerMs() - w->NextCheckpointTime) >= 0;
  if (!bytesDue && !timeDue) return;
  if (!VelmoWriterFlush(w) && !w->Failed) return;  // the gate was busy: the next frame tries again
  w->NextCheckpointBytes = w->FileSize + w->CheckpointBytes;
  w->NextCheckpointTime = TimerMs() + w->CheckpointMs;
}

}  // namespace

void VelmoConvertPixels(const void* pixels, int32_t pitch, bool isFloat, uint32_t width,
                        uint32_t height, bool fullRange, const VelmoPlaneTargets& out) {
  if (!pixels || !width || !height) return;
  ConvertJob job{static_cast<const uint8_t*>(pixels), pitch, isFloat, fullRange, width, height, out, 0};
  PoolRun(ConvertWorker, &job);
}

VelmoWriter* VelmoWriterOpen(const char* path, uint32_t flags, uint32_t version, uint32_t width,
                             uint32_t height, uint32_t frames, uint32_t textLength,
                             const char* text, uint32_t keyInterval, uint32_t rateNumerator,
                             uint32_t rateDenominator, uint32_t trackCount,
                             VelmoWriterTrack* tracks, uint32_t previewFrames, uint32_t inputNits,
                             const int16_t* colourBlock, uint32_t keyRate,
                             VelmoWriterProgressFn progress, void* userData) {
  if (!path || version < 100 || version >= 200 || !width || !height || !frames ||
      !rateNumerator || !rateDenominator || trackCount > VelmoMaxTracks ||
      (trackCount && !tracks) || colourBlock ||
      textLength > VelmoWriterMaxText || frames >= VelmoMaxIndexFrames)
    return nullptr;
  VelmoWriter* w = new (std::nothrow) VelmoWriter();
  if (!w) return nullptr;
  w->Progress = progress;
  w->UserData = userData;
  std::snprintf(w->OutputPath, sizeof w->OutputPath, "%s", path);
  std::snprintf(w->TemporaryPath, sizeof w->TemporaryPath, "%s.tmp", path);

  // 1. The temporary file.
  // Held while the run lasts: a second run writing the same output name cannot empty it.
  w->File = FileCreateExclusive(VelmoWriterFileBuffer, w->TemporaryPath);
  if (!w->File) {
    Tell(w, VelmoProgressMessage, TextNoTemporary);
    delete w;
    return nullptr;
  }
  // 2. The rate as a reduced fraction.
  const uint32_t g = Gcd(rateNumerator, rateDenominator);
  w->FrameRateNumerator = rateNumerator / g;
  w->FrameRateDenominator = rateDenominator / g;

  // 3. Sizes and figures. The first generation keeps no slice, deblocking or HDR bits.
  flags &= VelmoWriterKeptFlags;
  flags &= ~(0x7u | VelmoWriterDeblockBits | VelmoWriterQuantBits);
  if (version > 100) flags |= VelmoWriterFullRange;
  else flags &= ~VelmoWriterFullRange;
  if (!(flags & VelmoWriterAlpha)) flags &= ~VelmoWriterZeroAlphaWeight;
  w->Flags = flags;
  w->Version = version;
  w->Width = width;
  w->Height = height;
  w->TotalFrames = frames;
  w->PlaneWidth = Velmo1LumaSize(width);
  w->PlaneHeight = Velmo1LumaSize(height);
  w->ChromaWidth = Velmo1ChromaSize(width);
  w->ChromaHeight = Velmo1ChromaSize(height);
  w->PreviewFrames = std::clamp<uint32_t>(previewFrames, 2, 64);
  w->KeyInterval = keyInterval ? keyInterval : 0x10000000;
  w->KeyFrameBytes = VelmoKeyFrameBytes(keyRate, w->FrameRateNumerator, w->FrameRateDenominator);
  w->InputNits = std::clamp<uint32_t>(inputNits, VelmoMinNits, VelmoMaxNits);
  w->CheckpointBytes = VelmoWriterCheckpointBytes;
  w->CheckpointMs = VelmoWriterCheckpointMs;
  if (text && textLength) {
    std::memcpy(w->ExtraText, text, textLength);
    w->ExtraTextLength = textLength;
  }

  // 4. Tables, the queue's planes and the encoder.
  const size_t luma = size_t(w->PlaneWidth) * w->PlaneHeight;
  const size_t chroma = size_t(w->ChromaWidth) * w->ChromaHeight;
  bool ok = true;
  try {
    w->FrameIndex.assign(frames + 1, 0);
    w->FrameErrors.assign(frames + 1, 0);
    w->Ring.resize(w->PreviewFrames + 1);
    for (VelmoQueueSlot& s : w->Ring) {
      s.Planes[VelmoPlaneY].assign(luma, 0);
      s.Planes[VelmoPlaneCr].assign(chroma, 128);
      s.Planes[VelmoPlaneCb].assign(chroma, 128);
      if (flags & VelmoWriterAlpha) s.Planes[VelmoPlaneAlpha].assign(luma, 255);
    }
  } catch (const std::bad_alloc&) {
    ok = false;
  }
  VelmoEncoderConfig config{width, height, version,
                            flags & (VelmoEncodeGrayscale | VelmoEncodeAlpha)};
  if (ok) w->Encoder = VelmoEncoderCreate(config);
  if (!ok || !w->Encoder) {
    Tell(w, VelmoProgressMessage, "Out of memory!");
    FileClose(w->File);
    FileDelete(w->TemporaryPath);
    delete w;
    return nullptr;
  }
  // 5. Counters.
  w->KeyCountdown = int32_t(std::min<uint32_t>(w->KeyInterval, 0x7fffffff));
  w->PreviousSlot = ~0u;
  w->Tracks = tracks;
  w->TrackCount = trackCount;

  // 6. The header.
  VelmoWriteParams params{};
  params.Version = version;
  params.Width = int32_t(width);
  params.Height = int32_t(height);
  params.FrameRate = w->FrameRateNumerator;
  params.FrameRateDiv = w->FrameRateDenominator;
  params.IndexFrames = frames;
  params.Flags = flags;
  params.SliceMode = 0;
  params.Text = w->ExtraTextLength ? w->ExtraText : nullptr;
  params.TextLength = w->ExtraTextLength;
  const std::vector<VelmoTrackInfo> trackTable = TrackTable(w);
  params.TrackCount = trackCount;
  params.Tracks = trackTable.data();
  if (!VelmoBuildHeaderImage(params, &w->Image)) {
    Tell(w, VelmoProgressMessage, "Out of memory!");
    VelmoEncoderFree(w->Encoder);
    FileClose(w->File);
    FileDelete(w->TemporaryPath);
    delete w;
    return nullptr;
  }
  FileWrite(w->File, w->Image.Bytes.data(), w->Image.Bytes.size());
  w->FileSize = FileTell(w->File);
  if (w->File->WriteError) w->Failed = 1;
  w->NextCheckpointBytes = w->FileSize + w->CheckpointBytes;
  w->NextCheckpointTime = TimerMs() + w->CheckpointMs;
  return w;
}

bool VelmoWriterAddFrame(VelmoWriter* w, uint32_t targetBytes, uint32_t peakBytes, bool isKey,
                         const void* pixels, int32_t pitch, bool isFloat) {
  if (!w || w->QueuedFrames >= w->PreviewFrames ||
      w->FramesWritten + w->QueuedFrames >= w->TotalFrames)
    return false;
  VelmoQueueSlot& slot = QueueSlot(w, w->QueuedFrames);
  VelmoPlaneTargets out{slot.Planes[VelmoPlaneY].data(), slot.Planes[VelmoPlaneCr].data(),
                        slot.Planes[VelmoPlaneCb].data(),
                        HasAlpha(w) ? slot.Planes[VelmoPlaneAlpha].data() : nullptr,
                        w->PlaneWidth, w->ChromaWidth};
  VelmoConvertPixels(pixels, pitch, isFloat, w->Width, w->Height,
                     (w->Flags & VelmoWriterFullRange) != 0, out);
  slot.TargetBytes = targetBytes;
  slot.PeakBytes = peakBytes;
  slot.IsKey = isKey ? 1 : 0;
  slot.Complexity = 0xffffffffu;
  if (w->FramesWritten + w->QueuedFrames == 0) slot.IsKey = 1;  // the run starts with a key
  if (w->KeyInterval < 0x10000000 && --w->KeyCountdown <= 0) slot.IsKey = 1;
  return true;
}

void VelmoWriterCommit(VelmoWriter* w) {
  if (!w) return;
  VelmoQueueSlot& slot = QueueSlot(w, w->QueuedFrames);
  if (slot.IsKey) w->KeyCountdown = int32_t(std::min<uint32_t>(w->KeyInterval, 0x7fffffff));
  const VelmoQueueSlot* previous =
      (slot.IsKey || w->PreviousSlot == ~0u) ? nullptr : &w->Ring[w->PreviousSlot];
  const bool key = previous == nullptr;
  const VelmoComplexityPlane none{};
  const bool gray = IsGray(w);
  slot.Complexity = MeasureFrameComplexity(
      PlaneOf(slot, previous, VelmoPlaneY, w->PlaneWidth, w->PlaneHeight),
      gray ? none : PlaneOf(slot, previous, VelmoPlaneCr, w->ChromaWidth, w->ChromaHeight),
      gray ? none : PlaneOf(slot, previous, VelmoPlaneCb, w->ChromaWidth, w->ChromaHeight),
      HasAlpha(w) ? PlaneOf(slot, previous, VelmoPlaneAlpha, w->PlaneWidth, w->PlaneHeight) : none,
      none, key);
  w->PreviousSlot = (w->QueueStart + w->QueuedFrames) % RingSize(w);
  w->QueuedFrames++;
  // At the end of the input the whole queue drains in one pump, full or not.
  if (w->QueuedFrames + w->FramesWritten == w->TotalFrames) VelmoWriterPump(w, true);
  else if (w->QueuedFrames == w->PreviewFrames) VelmoWriterPump(w, false);
}

void VelmoWriterPump(VelmoWriter* w, bool drainAll) {
  if (!w || !w->QueuedFrames) return;
  const uint32_t n = w->QueuedFrames;
  const uint32_t count = drainAll ? n : 1;
  VelmoRateSlot slots[64];
  for (uint32_t j = 0; j < n; ++j) {
    const VelmoQueueSlot& s = QueueSlot(w, j);
    slots[j] = {s.TargetBytes, s.PeakBytes, s.IsKey, s.Complexity};
  }
  VelmoPumpState state = VelmoPumpBegin(slots, n, w->CarryBytes, w->KeyFrameBytes);
  VelmoRateGeometry geometry{1, w->Version, w->PlaneWidth * w->PlaneHeight,
                             w->ChromaWidth * w->ChromaHeight, HasAlpha(w), IsGray(w)};
  uint32_t handled = 0;
  VelmoEncodeResult result{};
  for (uint32_t i = 0; i < count; ++i) {
    if (w->Failed) break;
    w->ProgressFrame = w->FramesWritten;
    if (Tell(w, VelmoProgressLabel, "Compressing") && !w->CancelRequested)
      w->CancelRequested = VelmoCancelDiscard;
    if (w->CancelRequested) break;  // a cancelled run starts no further frame
    VelmoRateTrack sound[VelmoMaxTracks];
    for (uint32_t t = 0; t < w->TrackCount; ++t) {
      const VelmoWriterTrack& k = w->Tracks[t];
      sound[t] = {k.InputBytes, k.OutputBytes, k.BytesPerSecond, k.BytesLeft};
    }
    const uint32_t reservation = VelmoSoundReservation(
        sound, w->TrackCount, n, i, w->FrameRateNumerator, w->FrameRateDenominator);
    const uint32_t budget = VelmoPumpBudget(state, slots[i], i, reservation, w->KeyFrameBytes,
                                            w->FramesWritten, geometry);
    VelmoQueueSlot& s = QueueSlot(w, i);
    VelmoEncodeInput input{};
    for (uint32_t p = 0; p < 4; ++p) {
      if (s.Planes[p].empty() || (p != VelmoPlaneY && p != VelmoPlaneAlpha && IsGray(w))) continue;
      input.Planes[p] = s.Planes[p].data();
      input.Pitches[p] = int32_t(p == VelmoPlaneCr || p == VelmoPlaneCb ? w->ChromaWidth : w->PlaneWidth);
    }
    input.Key = s.IsKey != 0;
    input.Cancel = &w->CancelRequested;
    input.Stage = StageLabel;
    input.StageContext = w;
    if (!VelmoEncodeFrame(w->Encoder, input, budget, &result)) {
      if (w->CancelRequested != VelmoCancelKeep) w->Failed = 1;  // else stopped mid-frame
      break;
    }
    const uint32_t used = WriteFrame(w, result, s.IsKey != 0);
    VelmoPumpUsed(state, w->CarryBytes, slots[i], i, used);
    handled++;
    MaybeCheckpoint(w);
  }
  VelmoPumpEnd(state, w->CarryBytes);
  w->QueueStart = (w->QueueStart + handled) % RingSize(w);
  w->QueuedFrames -= handled;
}

namespace {

// Rewrites header, tables and index for the frames written so far, and with `toDisk` writes
// the buffer out and has the system put the file on the disk, all while the gate is held: the
// preview thread's flush must not write the buffer out while the work thread fills it.
bool CheckpointHeld(VelmoWriter* w, bool toDisk) {
  if (!w || !w->File) return false;
  if (!TakeCheckpointGate(w)) return false;
  const uint64_t position = FileTell(w->File);
  VelmoCheckpoint state{};
  state.FileSize = std::max<uint64_t>(position, w->FileSize);
  state.Frames = w->FramesWritten;
  state.LargestFrameSize = w->LargestFrame;
  state.Flags = w->Image.Flags;
  const std::vector<VelmoTrackInfo> tracks = TrackTable(w);
  state.Tracks = tracks.data();
  state.FrameEntries = w->FrameIndex.data();
  std::vector<VelmoPatch> patches;
  bool ok = VelmoCheckpointPatches(w->Image, state, &patches);
  // Last patch first: the index (past the header) goes to the file before the header's frame
  // count that makes a reader use it, so a run killed between the two writes leaves a file
  // that still plays up to the checkpoint before. Seeking away writes the frames out first.
  for (auto p = patches.rbegin(); p != patches.rend(); ++p) {
    FileSeek(w->File, p->Offset);
    FileWrite(w->File, p->Bytes.data(), p->Bytes.size());
  }
  FileSeek(w->File, position);
  if (toDisk && !FileFlush(w->File, true)) ok = false;
  if (w->File->WriteError) w->Failed = 1;
  DropCheckpointGate(w);
  return ok;
}

}  // namespace

bool VelmoWriterCheckpoint(VelmoWriter* w) { return CheckpointHeld(w, false); }

bool VelmoWriterFlush(VelmoWriter* w) { return CheckpointHeld(w, true); }

uint64_t VelmoWriterClose(VelmoWriter* w, bool discard) {
  if (!w) return 0;
  if (w->Failed) discard = true;
  if (!discard) {
    if (w->QueuedFrames) VelmoWriterPump(w, true);
    // The checkpoint may only fail at its gate, which nobody else holds now; try until it takes.
    while (!VelmoWriterCheckpoint(w)) ThreadSleep(1);
    EnterWrites(w);
    if (!FileFlush(w->File, true) || w->File->WriteError) w->Failed = 1;
    LeaveWrites(w);
  }
  EndTracks(w);
  EnterWrites(w);
  const uint64_t size = FileTell(w->File);
  // The temporary file is deleted or renamed while still open and held, so that no other run
  // can take the name in between and have its file renamed or deleted by this one.
  if (discard || w->Failed) {
    FileDelete(w->TemporaryPath);
  } else if (FileDelete(w->OutputPath) == 2) {
    char text[VelmoWriterPathBytes * 2 + 100];
    std::snprintf(text, sizeof text,
                  "Velmo couldn't overwrite, '%s', so the new Velmo file is called: '%s'.",
                  w->OutputPath, w->TemporaryPath);
    Tell(w, VelmoProgressMessage, text);
  } else if (FileRename(w->OutputPath, w->TemporaryPath) != 0) {
    Tell(w, VelmoProgressMessage, "Velmo couldn't rename the temporary file.");
  }
  FileClose(w->File);
  w->File = nullptr;
  LeaveWrites(w);
  const bool failed = w->Failed != 0;
  VelmoEncoderFree(w->Encoder);
  delete w;
  return failed ? 0 : size;
}
