#include "encode2/velmo2_encoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>

#include "decode/velmo2_decoder.h"
#include "decode/velmo2_kernels.h"
#include "encode2/velmo2_bit_writer.h"
#include "encode2/velmo2_encode_kernels.h"
#include "encode2/velmo2_frame_rules.h"
#include "encode2/velmo2_macroblock.h"
#include "encode2/velmo2_rate_search.h"
#include "encode2/velmo2_vaq.h"
#include "encode2/velmo2_writers.h"
#include "format/frame_buffers.h"
#include "host/cpu_features.h"
#include "host/platform.h"

namespace {

constexpr uint32_t kMaxPasses = 16;

bool IsChroma(uint32_t p) { return p == VelmoPlaneCr || p == VelmoPlaneCb; }

// A picture's planes, owned.
struct OwnedPicture {
  std::vector<uint8_t> Memory[kVelmo2EncPlanes];
  Velmo2EncPicture View{};

  void Allocate(uint32_t lumaWidth, uint32_t lumaHeight, const bool coded[kVelmo2EncPlanes]) {
    for (uint32_t p = 0; p < kVelmo2EncPlanes; ++p) {
      if (!coded[p]) continue;
      const uint32_t w = IsChroma(p) ? lumaWidth / 2 : lumaWidth;
      const uint32_t h = IsChroma(p) ? lumaHeight / 2 : lumaHeight;
      const uint32_t pitch = (w + 63) & ~63u;
      Memory[p].assign(size_t(pitch) * h, 0);
      View.Line0[p] = Memory[p].data();
      View.Pitch[p] = pitch;
    }
  }
};

}  // namespace

struct Velmo2Encoder {
  Velmo2EncoderSetup Setup;
  Velmo2SliceLayout Layout;
  uint32_t SliceMode;
  uint32_t Columns, Rows;   // macroblocks
  uint32_t LumaWidth, LumaHeight;  // whole macroblocks
  bool Coded[kVelmo2EncPlanes];       // the planes the file has
  bool FrameCoded[kVelmo2EncPlanes];  // the planes this frame codes (not a constant alpha)
  bool ConstantAlpha;                 // this frame's alpha is one value, AlphaValue
  uint8_t AlphaValue;
  Velmo2VaqLevel Vaq;
  Velmo2Kernels Kernels;
  Velmo2EncodeKernels Diff;
  Velmo2Decoder* Decoder;
  // The decoder's frame buffers: the current set is the reference, the other the new picture.
  OwnedPicture Sets[2];
  VelmoFrameBuffers Buffers;
  bool HaveReference;
  OwnedPicture Source, Recon, Scratch;
  std::vector<Velmo2MbState> States;          // by row, then column
  std::vector<Velmo2MbMemo> Memos;            // by macroblock, zeroed as each frame starts
  std::vector<std::vector<uint32_t>> Strings;  // each macroblock's bit string
  std::vector<Velmo2MbWork*> Works;           // one per pool thread
  Velmo2RateSearch Search;
  std::vector<uint32_t> RowMap, ColumnMap;
};

namespace {

// ---- Input ------------------------------------------------------------------------------------

// Whether a plane of w x h holds one value throughout, and which.
bool ConstantPlane(const uint8_t* in, int32_t pitch, uint32_t w, uint32_t h, uint8_t* value) {
  *value = in[0];
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x)
      if (in[ptrdiff_t(y) * pitch + x] != *value) return false;
  return true;
}

bool TakeInput(Velmo2Encoder* e, const Velmo2EncoderFrame& f) {
  const uint32_t w = e->Setup.Width, h = e->Setup.Height;
  std::memcpy(e->FrameCoded, e->Coded, sizeof e->FrameCoded);
  std::fill(e->Memos.begin(), e->Memos.end(), Velmo2MbMemo{});
  e->ConstantAlpha = false;
  // An alpha plane of one value is not coded: the frame word carries the value.
  if (e->Coded[VelmoPlaneAlpha]) {
    if (!f.Planes[VelmoPlaneAlpha] || f.Pitches[VelmoPlaneAlpha] < int32_t(w)) return false;
    e->ConstantAlpha = ConstantPlane(f.Planes[VelmoPlaneAlpha], f.Pitches[VelmoPlaneAlpha], w, h,
                                     &e->AlphaValue);
    e->FrameCoded[VelmoPlaneAlpha] = !e->ConstantAlpha;
  }
  for (uint32_t p = 0; p < kVelmo2EncPlanes; ++p) {
    if (!e->FrameCoded[p]) continue;
    const uint32_t pw = IsChroma(p) ? (w + 1) / 2 : w, ph = IsChroma(p) ? (h + 1) / 2 : h;
    if (!f.Planes[p] || f.Pitches[p] < int32_t(pw)) return false;
    const uint32_t ow = IsChroma(p) ? e->LumaWidth / 2 : e->LumaWidth;
    const uint32_t oh = IsChroma(p) ? e->LumaHeight / 2 : e->LumaHeight;
    VelmoPadPlane(f.Planes[p], f.Pitches[p], pw, ph, e->Source.View.Line0[p],
                  e->Source.View.Pitch[p], ow, oh);
  }
  return true;
}

// ---- Passes -----------------------------------------------------------------------------------

struct PassJob {
  Velmo2Encoder* E;
  double Quality;
  bool Key;
  Velmo2FrameWord Word;
  volatile uint32_t NextRow;
  std::vector<uint32_t> Done;  // macroblocks finished in each row
  volatile uint32_t Failed;
};

bool SliceStartRow(const Velmo2Encoder* e, uint32_t row) {
  if (row == 0) return true;
  for (uint32_t s = 0; s + 1 < e->Layout.Slices && s < e->Layout.EndsSet; ++s)
    if (e->Layout.Ends[s] == row * 32) return true;
  return false;
}

void CodeRow(PassJob& job, Velmo2MbWork* work, uint32_t row) {
  Velmo2Encoder* e = job.E;
  const bool sliceStart = SliceStartRow(e, row);
  Velmo2MbInput in{};
  in.Source = &e->Source.View;
  in.Reference = job.Key || !e->HaveReference ? nullptr : &e->Sets[e->Buffers.Current].View;
  in.Recon = &e->Recon.View;
  in.Width = e->Setup.Width;
  in.Height = e->Setup.Height;
  in.MbY = row;
  in.Key = job.Key || !e->HaveReference;
  std::memcpy(in.Coded, e->FrameCoded, sizeof in.Coded);
  in.Word = job.Word;
  in.Quality = job.Quality;
  in.Vaq = e->Vaq;
  in.Kernels = &e->Kernels;
  in.Diff = &e->Diff;
  for (uint32_t x = 0; x < e->Columns; ++x) {
    // The row above must be done past this macroblock: its quantiser, vectors and DC values
    // predict this one's.
    if (!sliceStart)
      while (AtomicRead(&job.Done[row - 1]) < std::min(x + 2, e->Columns) && !job.Failed)
        ThreadPause();
    Velmo2MbState* here = &e->States[size_t(row) * e->Columns + x];
    in.MbX = x;
    in.Memo = &e->Memos[size_t(row) * e->Columns + x];
    in.Left = x > 0 ? here - 1 : nullptr;
    in.Above = sliceStart ? nullptr : here - e->Columns;
    in.AboveLeft = sliceStart || x == 0 ? nullptr : here - e->Columns - 1;
    if (job.Failed || !Velmo2DecideMacroblock(in, work, here)) {
      AtomicStore(&job.Failed, 1);
      AtomicStore(&job.Done[row], e->Columns);
      return;
    }
    const uint32_t* words = Velmo2MbBestWords(work);
    e->Strings[size_t(row) * e->Columns + x].assign(words, words + (here->Bits + 31) / 32);
    AtomicStore(&job.Done[row], x + 1);
  }
}

void PassWorker(void* context, uint32_t index) {
  PassJob& job = *static_cast<PassJob*>(context);
  Velmo2MbWork* work = job.E->Works[index];
  for (;;) {
    const uint32_t row = AtomicAdd(&job.NextRow, 1);
    if (row >= job.E->Rows) return;
    CodeRow(job, work, row);
  }
}

struct PassResult {
  uint64_t Bits;
  uint32_t Intra;
  double Distortion;
  bool Ok;
};

PassResult EncodePass(Velmo2Encoder* e, double quality, bool key, Velmo2FrameWord word) {
  PassJob job{e, quality, key, word, 0, std::vector<uint32_t>(e->Rows, 0), 0};
  PoolRun(PassWorker, &job);
  PassResult r{0, 0, 0, !job.Failed};
  for (const Velmo2MbState& s : e->States) {
    r.Bits += s.Bits;
    r.Distortion += s.Distortion;
    if (s.Kind == Velmo2Intra) ++r.Intra;
  }
  return r;
}

// ---- Packing ----------------------------------------------------------------------------------

std::vector<uint8_t> Pack(Velmo2Encoder* e, uint32_t word) {
  size_t bits = 64 * size_t(e->Layout.Slices) + 64 + 2 * (e->RowMap.size() + e->ColumnMap.size()) * 32;
  for (const Velmo2MbState& s : e->States) bits += s.Bits;
  std::vector<uint32_t> words(bits / 32 + 16 * e->Layout.Slices + 16, 0);
  Velmo2BitSink sink(words.data(), words.size());
  Velmo2WriteFrameHeader(sink, word, e->Layout.Slices);
  Velmo2WriteEdgeMaps(sink, Velmo2FrameWord{word}, e->Setup.Width, e->Setup.Height,
                      e->RowMap.data(), e->ColumnMap.data());
  uint32_t slice = 0;
  for (uint32_t row = 0; row < e->Rows; ++row) {
    if (row > 0 && SliceStartRow(e, row)) {
      sink.PadToWord();
      ++slice;
      Velmo2SetSliceOffset(sink, slice, uint32_t(sink.Bits() / 8));
    }
    for (uint32_t x = 0; x < e->Columns; ++x) {
      const size_t i = size_t(row) * e->Columns + x;
      sink.Append(e->Strings[i].data(), e->States[i].Bits);
    }
  }
  sink.PadToWord();
  std::vector<uint8_t> out(sink.WordCount() * 4);
  std::memcpy(out.data(), words.data(), out.size());
  return out;
}

// Decodes a section into the new set of the frame buffers.
void DecodeInto(Velmo2Encoder* e, const std::vector<uint8_t>& section, bool key) {
  Velmo2DecodeFrame(e->Decoder, &e->Buffers, section.data(), section.size(), key, 0,
                    e->Layout.Slices);
  Velmo2DecoderFinishSeams(e->Decoder, &e->Buffers);
}

uint8_t* NewPlane(Velmo2Encoder* e, uint32_t p) {
  return e->Sets[(e->Buffers.Current + 1) % 2].View.Line0[p];
}

// The edge maps of a frame word: the frame decoded with every map entry 0 (T cleared), and
// with no edge filter, against the source.
void ChooseEdgeMaps(Velmo2Encoder* e, uint32_t word, bool key) {
  std::fill(e->RowMap.begin(), e->RowMap.end(), 0u);
  std::fill(e->ColumnMap.begin(), e->ColumnMap.end(), 0u);
  if (!Velmo2WantsEdgeMaps(word)) return;
  const uint32_t plain = word & ~uint32_t(Velmo2FlatLimitMask | Velmo2EdgeMapsPresent);
  DecodeInto(e, Pack(e, plain), key);
  const size_t bytes = e->Sets[0].Memory[VelmoPlaneY].size();
  std::memcpy(e->Scratch.Memory[VelmoPlaneY].data(), NewPlane(e, VelmoPlaneY), bytes);
  DecodeInto(e, Pack(e, plain | Velmo2NoVerticalEdges | Velmo2NoHorizontalEdges), key);
  Velmo2EdgeMapInput in{};
  const ptrdiff_t pitch = e->Source.View.Pitch[VelmoPlaneY];
  in.Y = {e->Source.View.Line0[VelmoPlaneY], pitch, e->Scratch.View.Line0[VelmoPlaneY], pitch,
          NewPlane(e, VelmoPlaneY), pitch, e->Setup.Width, e->Setup.Height};
  Velmo2FillEdgeMaps(in, word, e->RowMap.data(), e->RowMap.size(), e->ColumnMap.data(),
                     e->ColumnMap.size());
}

uint64_t PictureError(const Velmo2Encoder* e, const Velmo2EncoderFrame& f, uint32_t p,
                      uint64_t* samples) {
  const uint32_t w = IsChroma(p) ? (e->Setup.Width + 1) / 2 : e->Setup.Width;
  const uint32_t h = IsChroma(p) ? (e->Setup.Height + 1) / 2 : e->Setup.Height;
  const Velmo2EncPicture& now = e->Sets[e->Buffers.Current].View;
  uint64_t sum = 0;
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      const int d = int(now.Line0[p][y * now.Pitch[p] + x]) - f.Planes[p][y * f.Pitches[p] + x];
      sum += uint64_t(d * d);
    }
  *samples = uint64_t(w) * h;
  return sum;
}

void Tell(const Velmo2EncoderFrame& f, const char* label) {
  if (f.Stage) f.Stage(f.StageContext, label);
}

bool Cancelled(const Velmo2EncoderFrame& f) { return f.Cancel && *f.Cancel == 2; }

// The frame word of a finished pass.
uint32_t WordOf(const Velmo2Encoder* e, double quality) {
  std::vector<double> d(e->States.size());
  for (size_t i = 0; i < d.size(); ++i) d[i] = e->States[i].Distortion;
  Velmo2FrameWordInput in{};
  in.Options = e->Setup.Options;
  in.Quality = quality;
  in.ConstantAlpha = e->ConstantAlpha;
  in.Alpha = e->AlphaValue;
  Velmo2DistortionSummary(d.data(), d.size(), &in.MeanDistortion, &in.LargestDistortion);
  return Velmo2PassFrameWord(in, false);
}

}  // namespace

// ---------------------------------------------------------------------------------------------

Velmo2Encoder* Velmo2EncoderCreate(const Velmo2EncoderSetup& setup) {
  if (setup.Width == 0 || setup.Height == 0 || setup.Width > 16384 || setup.Height > 16384)
    return nullptr;
  auto e = std::unique_ptr<Velmo2Encoder>(new (std::nothrow) Velmo2Encoder{});
  if (!e) return nullptr;
  e->Setup = setup;
  e->SliceMode = ((setup.Options >> 11) & 7) ? ((setup.Options >> 11) & 7) - 1 : 0;
  e->Layout = Velmo2LayoutFor("VM2j", e->SliceMode, setup.Width, setup.Height);
  e->Columns = (setup.Width + 31) / 32;
  e->Rows = (setup.Height + 31) / 32;
  e->LumaWidth = e->Columns * 32;
  e->LumaHeight = e->Rows * 32;
  for (uint32_t p = 0; p < kVelmo2EncPlanes; ++p)
    e->Coded[p] = p <= VelmoPlaneCb || (p == VelmoPlaneAlpha && setup.Alpha) ||
                  (p == VelmoPlaneHdr && setup.Hdr);
  e->Vaq = Velmo2VaqLevelOfVersion(setup.Options);
  Velmo2KernelsInit(&e->Kernels, setup.Features);
  Velmo2EncodeKernelsInit(&e->Diff, setup.Features);
  Velmo2DecoderSetup d{};
  d.Width = setup.Width;
  d.Height = setup.Height;
  std::memcpy(d.Tag, setup.Hdr ? "VM2m" : "VM2j", 4);
  d.FileFlags = e->SliceMode;
  d.Alpha = setup.Alpha;
  d.Hdr = setup.Hdr;
  d.Features = setup.Features;
  e->Decoder = Velmo2DecoderCreate(d);
  if (!e->Decoder) return nullptr;
  try {
    for (auto& set : e->Sets) set.Allocate(e->LumaWidth, e->LumaHeight, e->Coded);
    e->Source.Allocate(e->LumaWidth, e->LumaHeight, e->Coded);
    e->Recon.Allocate(e->LumaWidth, e->LumaHeight, e->Coded);
    e->Scratch.Allocate(e->LumaWidth, e->LumaHeight, e->Coded);
    e->States.assign(size_t(e->Columns) * e->Rows, Velmo2MbState{});
    e->Memos.assign(e->States.size(), Velmo2MbMemo{});
    e->Strings.assign(e->States.size(), {});
    e->RowMap.assign(Velmo2EdgeMapWords(setup.Height / 8), 0);
    e->ColumnMap.assign(Velmo2EdgeMapWords(setup.Width / 8), 0);
  } catch (const std::bad_alloc&) {
    Velmo2EncoderDestroy(e.release());
    return nullptr;
  }
  VelmoFrameBuffers& b = e->Buffers;
  b.Count = 2;
  b.Width = setup.Width;
  b.Height = setup.Height;
  b.LumaWidth = e->LumaWidth;
  b.LumaHeight = e->LumaHeight;
  b.ChromaWidth = e->LumaWidth / 2;
  b.ChromaHeight = e->LumaHeight / 2;
  b.LumaPitch = int32_t(e->Sets[0].View.Pitch[VelmoPlaneY]);
  b.ChromaPitch = int32_t(e->Sets[0].View.Pitch[VelmoPlaneCr]);
  b.HasAlpha = setup.Alpha || setup.Hdr;
  for (uint32_t s = 0; s < 2; ++s)
    for (uint32_t p = 0; p < kVelmo2EncPlanes; ++p) b.Sets[s].Planes[p] = e->Sets[s].View.Line0[p];
  PoolStart();
  for (uint32_t i = 0; i < PoolThreadCount(); ++i) {
    Velmo2MbWork* w = Velmo2MbWorkCreate();
    if (!w) {
      Velmo2EncoderDestroy(e.release());
      return nullptr;
    }
    e->Works.push_back(w);
  }
  const uint32_t extra = (setup.Alpha ? 1 : 0) + (setup.Hdr ? 1 : 0);
  e->Search = Velmo2RateSearchCreate(
      Velmo2FloorBytes(e->Layout, setup.Width, setup.Height, false, extra),
      Velmo2FloorBytes(e->Layout, setup.Width, setup.Height, true, extra));
  return e.release();
}

void Velmo2EncoderDestroy(Velmo2Encoder* e) {
  if (!e) return;
  for (Velmo2MbWork* w : e->Works) Velmo2MbWorkDestroy(w);
  Velmo2DecoderDestroy(e->Decoder);
  delete e;
}

const char* Velmo2EncoderTag(const Velmo2Encoder* e) { return e->Setup.Hdr ? "VM2m" : "VM2j"; }
uint32_t Velmo2EncoderSliceMode(const Velmo2Encoder* e) { return e->SliceMode; }

Velmo2FrameOutcome Velmo2EncodeFrame(Velmo2Encoder* e, const Velmo2EncoderFrame& f,
                                     uint32_t budgetBytes, Velmo2EncodedFrame* out) {
  if (!e || !out || !TakeInput(e, f)) return Velmo2Failed;
  const uint32_t state = FloatFlushToZero(ProcessorHas(CpuSSE3));
  bool key = f.Key || !e->HaveReference;
  bool promoted = false;
  const double keyFloor = double(e->LumaWidth * e->LumaHeight + 2 * (e->LumaWidth / 2) *
                                                                  (e->LumaHeight / 2)) / 930.0;
  const double keyTolerance = std::max(keyFloor / 10, 10.0);
  double budget = budgetBytes;
  double tolerance = std::max(budget / 10, 10.0);
  // The word the passes code for: the bits that change the stream; T and the maps come after.
  const uint32_t alphaBits =
      e->ConstantAlpha ? Velmo2ConstantAlpha | uint32_t(e->AlphaValue) << Velmo2ConstantAlphaShift
                       : 0;
  const Velmo2FrameWord passWord{Velmo2CurrentStream | Velmo2ParityClamp | Velmo2WideInter |
                                 alphaBits};
  double quality = 0;
  uint32_t passes = 0;
  int more = Velmo2RateSearchStart(e->Search, key ? Velmo2FloorKey : Velmo2FloorInter, budget);
  PassResult pass{};
  double size = 0;
  while (more) {
    Tell(f, "Compressing");
    if (Cancelled(f)) {
      FloatRestore(state);
      return Velmo2Failed;
    }
    quality = std::exp2(e->Search.Value);
    pass = EncodePass(e, quality, key, passWord);
    ++passes;
    if (!pass.Ok) {
      FloatRestore(state);
      return Velmo2Failed;
    }
    size = double((pass.Bits + 7) / 8);
    more = Velmo2RateSearchAdd(e->Search, quality, size, pass.Distortion);
    // Nearly all intra: the frame becomes a key frame, with at least the key floor's budget.
    if (!key && !promoted && pass.Intra * 10 > e->States.size() * 9 &&
        std::fabs(size - budget) > tolerance && size < keyFloor + keyTolerance) {
      key = promoted = true;
      budget = std::max(budget, keyFloor);
      tolerance = std::max(budget / 10, 10.0);
      more = Velmo2RateSearchStart(e->Search, Velmo2FloorKey, budget);
      passes = 0;
      continue;
    }
    if (std::fabs(size - budget) <= tolerance || passes >= kMaxPasses) break;
  }
  if (!pass.Ok || passes == 0) {
    FloatRestore(state);
    return Velmo2Failed;
  }

  Tell(f, "Expanding");
  uint32_t word = WordOf(e, quality);
  ChooseEdgeMaps(e, word, key);
  if (Velmo2WantsEdgeMaps(word)) word |= Velmo2EdgeMapsPresent;
  out->Section = Pack(e, word);
  DecodeInto(e, out->Section, key);
  e->Buffers.Current ^= 1;
  e->HaveReference = true;
  for (uint32_t p = 0; p < 3; ++p)
    out->PictureErrors[p] = PictureError(e, f, p, &out->PictureSamples[p]);
  out->Promoted = promoted;
  out->Passes = passes;
  FloatRestore(state);
  return key ? Velmo2CodedKey : Velmo2CodedInter;
}
