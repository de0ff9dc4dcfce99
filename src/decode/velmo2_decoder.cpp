// The second-generation macroblock walk. A share of slices is decoded row by row; each row's
// in-loop filters (flat blocks, then vertical edges, then horizontal edges) run one row behind
// the walk, when the row below has given the flat blocks their lower neighbours and before
// the filters of the next row change the two lines above it. The pixels that an intra
// macroblock reads for the block means of its neighbours are therefore never filtered yet.
//
// Rows split between two shares (a slice's first row) and rows that reach past the bottom of
// the planes are decoded into a one-row band of the worker's own and copied to the picture
// right after their walk, only the lines the share keeps. Their filters then run on the
// picture, and only where every pixel they touch is kept by this share; the one edge that
// straddles the two halves of a split row goes into a seam record for the end of the frame.
#include "decode/velmo2_decoder.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "decode/velmo2_filter.h"
#include "decode/velmo2_kernels.h"
#include "decode/velmo2_predict.h"
#include "decode/velmo2_tables.h"
#include "host/cpu_features.h"

namespace {

constexpr uint32_t kPlanes = VelmoPlaneCount;
constexpr uint16_t kFlatIntra = Velmo2InfoIntra | Velmo2InfoClassMask;

bool IsChroma(uint32_t p) { return p == VelmoPlaneCr || p == VelmoPlaneCb; }
// Blocks per macroblock side in a plane, and the plane's scale against luma.
uint32_t GridOf(uint32_t p) { return IsChroma(p) ? 2 : 4; }
uint32_t ShiftOf(uint32_t p) { return IsChroma(p) ? 1 : 0; }

uint32_t Load32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// What one macroblock leaves for its right and lower neighbours.
struct MbStore {
  uint16_t Info[kPlanes][16];  // block info words, in block order
  int32_t Vx[4], Vy[4];        // decoded vectors, half pixels
  int32_t QIntra, QResidual;
  bool Intra;
};

// One worker's state: everything a share writes apart from its lines of the picture.
struct Worker {
  std::vector<MbStore> Stores[2];          // the row above and the current row
  std::vector<uint16_t> Grid[kPlanes];     // block info words, raster, every block row
  std::vector<uint32_t> RowMap, ColumnMap;
  std::vector<uint8_t> Band[kPlanes];      // one macroblock row of scratch per plane
  size_t BandPitch[kPlanes];
  alignas(16) int16_t Coef[16][64];
  alignas(16) int16_t Out[64];
  alignas(16) int16_t Residual[kPlanes][32 * 32];
  bool HasResidual[kPlanes];
};

}  // namespace

struct Velmo2Decoder {
  Velmo2DecoderSetup Setup;
  Velmo2SliceLayout Layout;
  Velmo2Kernels Kernels;
  uint32_t MbColumns, MbRows;  // macroblocks over the picture
  uint32_t Padded;             // the height rounded up to whole macroblock rows
  std::vector<uint8_t> OwnSeams;
  uint8_t* Seams;
  Worker* Workers[kVelmo2MaxSlices];
};

namespace {

// ---------------------------------------------------------------------------------------------
// One call: a share of slices of one frame.

// Where a plane of the row being walked goes: its line 0 and pitch.
struct RowPlane {
  uint8_t* Line0;
  ptrdiff_t Pitch;
};

struct Call {
  Velmo2Decoder* D;
  Worker* W;
  VelmoFrameBuffers* Buffers;
  Velmo2FrameWord Word;
  bool Key;
  bool Coded[kPlanes];    // the stream holds the plane
  bool Present[kPlanes];  // the picture has it to write (and to read from)
  const uint8_t* Src[kPlanes];
  uint8_t* Dst[kPlanes];
  ptrdiff_t Pitch[kPlanes];
  Velmo2EdgeRules Rules;
  uint32_t FirstRow;      // the share's first macroblock row
  uint32_t LastRow;       // one past its last
  uint32_t KeepFrom;      // the luma lines this share stores: [KeepFrom, KeepTo)
  uint32_t KeepTo;
  Velmo1BitReader R;
  bool Damaged;
  // Per row:
  uint32_t Row;
  bool SliceStart;
  RowPlane Target[kPlanes];
  Velmo2KindList Kinds;
  uint32_t Masks[kPlanes];
};

uint32_t PlaneHeight(const Call& c, uint32_t p) {
  const uint32_t h = c.Buffers->LumaHeight;
  return IsChroma(p) ? h / 2 : h;
}

// The picture's size in a plane: the filters treat only edges inside it.
Velmo2Plane PicturePlane(const Call& c, uint32_t p) {
  const uint32_t s = ShiftOf(p);
  return Velmo2Plane{c.Dst[p], c.Pitch[p], (c.D->Setup.Width + s) >> s,
                     (c.D->Setup.Height + s) >> s};
}

Velmo2InfoGrid GridOfCall(const Call& c, uint32_t p) {
  const uint32_t n = GridOf(p);
  const size_t stride = size_t(c.D->MbColumns) * n;
  return Velmo2InfoGrid{c.W->Grid[p].data() + size_t(c.FirstRow) * n * stride, stride,
                        c.D->MbColumns * n, c.LastRow * n, c.FirstRow * n};
}

// ---- Reading helpers ------------------------------------------------------------------------

// Drops what is left of the current word: the next slice starts at a word of its own. A whole
// word already fetched but not yet touched (a look-ahead) is kept.
void EndSlice(Velmo1BitReader& r) {
  if (r.Count >= 32) r.Pos -= 4;
  r.Buffer = 0;
  r.Count = 0;
}

const uint16_t* DequantRow(Velmo2DequantKind kind, int32_t q) {
  return Velmo2Dequant(kind)[uint32_t(q) & 3];
}

// ---- Pixels ---------------------------------------------------------------------------------

// Writes a block's transform output (or its one value) at block (bx, by) of the target.
void StoreBlock(Call& c, uint32_t p, uint32_t mbx, uint32_t index, const Velmo2AcBlock& ac,
                int16_t* coef, int32_t dc) {
  const uint32_t n = GridOf(p);
  const uint32_t x = (mbx * n + Velmo2BlockColumn(index)) * 8, y = Velmo2BlockRow(index) * 8;
  uint8_t* dst = c.Target[p].Line0 + ptrdiff_t(y) * c.Target[p].Pitch + x;
  if (ac.Count == 0) {
    const int32_t v = Velmo2TransformDcOnly(int16_t(dc));
    const uint8_t pixel = uint8_t(std::clamp(v, 0, 255));
    for (int r = 0; r < 8; ++r) std::memset(dst + r * c.Target[p].Pitch, pixel, 8);
    return;
  }
  coef[0] = int16_t(dc);
  const Velmo2Kernels& k = c.D->Kernels;
  (ac.Last <= Velmo2CornerLastIndex ? k.TransformCorner : k.Transform)(coef, c.W->Out);
  Velmo2StoreIntra(c.W->Out, dst, c.Target[p].Pitch);
}

// The transform of a residual block into the plane's residual at its place.
void ResidualBlock(Call& c, uint32_t p, uint32_t index, const Velmo2AcBlock& ac, int16_t* coef,
                   int32_t dc) {
  const uint32_t n = GridOf(p), pitch = n * 8;
  int16_t* dst =
      c.W->Residual[p] + Velmo2BlockRow(index) * 8 * pitch + Velmo2BlockColumn(index) * 8;
  if (ac.Count == 0) {
    const int16_t v = Velmo2TransformDcOnly(int16_t(dc));
    for (int r = 0; r < 8; ++r) std::fill(dst + r * pitch, dst + r * pitch + 8, v);
    return;
  }
  coef[0] = int16_t(dc);
  const Velmo2Kernels& k = c.D->Kernels;
  (ac.Last <= Velmo2CornerLastIndex ? k.TransformCorner : k.Transform)(coef, c.W->Out);
  for (int r = 0; r < 8; ++r) std::memcpy(dst + r * pitch, c.W->Out + r * 8, 16);
}

// ---- Neighbours -----------------------------------------------------------------------------

const MbStore* AboveStore(const Call& c, uint32_t mbx) {
  if (c.SliceStart) return nullptr;
  return &c.W->Stores[(c.Row - 1) & 1][mbx];
}

MbStore& CurrentStore(Call& c, uint32_t mbx) { return c.W->Stores[c.Row & 1][mbx]; }

// The DC values an intra plane predicts from, in block order: the neighbours' own where they
// are intra, block means of the pixels next to this macroblock where they are not.
struct IntraNeighbours {
  int32_t Left[16], Above[16], Corner[16];
  bool HasLeft, HasAbove;
};

void FillFromStore(const MbStore& s, uint32_t p, int32_t* out) {
  for (uint32_t i = 0; i < GridOf(p) * GridOf(p); ++i) out[i] = Velmo2InfoDc(s.Info[p][i]);
}

IntraNeighbours IntraNeighboursOf(Call& c, uint32_t p, uint32_t mbx) {
  IntraNeighbours nb{};
  const uint32_t n = GridOf(p), last = n - 1, s = ShiftOf(p);
  const MbStore* above = AboveStore(c, mbx);
  const MbStore* left = mbx > 0 ? &CurrentStore(c, mbx - 1) : nullptr;
  const MbStore* corner = above && left ? AboveStore(c, mbx - 1) : nullptr;
  nb.HasAbove = above != nullptr;
  nb.HasLeft = left != nullptr;
  const uint32_t x0 = (mbx * 32) >> s, top = (c.Row * 32) >> s;
  const bool pixels = c.Present[p];
  if (above) {
    FillFromStore(*above, p, nb.Above);
    if (!above->Intra)
      for (uint32_t i = 0; i < n; ++i)
        nb.Above[Velmo2BlockIndex(i, last)] =
            pixels ? Velmo2BlockMean(c.Dst[p] + ptrdiff_t(top - 8) * c.Pitch[p] + x0 + 8 * i,
                                     c.Pitch[p])
                   : 0;
  }
  if (corner) {
    FillFromStore(*corner, p, nb.Corner);
    if (!corner->Intra)
      nb.Corner[Velmo2BlockIndex(last, last)] =
          pixels
              ? Velmo2BlockMean(c.Dst[p] + ptrdiff_t(top - 8) * c.Pitch[p] + x0 - 8, c.Pitch[p])
              : 0;
  }
  if (left) {
    FillFromStore(*left, p, nb.Left);
    if (!left->Intra)
      for (uint32_t j = 0; j < n; ++j)
        nb.Left[Velmo2BlockIndex(last, j)] =
            pixels ? Velmo2BlockMean(
                         c.Target[p].Line0 + ptrdiff_t(8 * j) * c.Target[p].Pitch + x0 - 8,
                         c.Target[p].Pitch)
                   : 0;
  }
  return nb;
}

// One component of the vectors of the neighbours.
Velmo2VectorNeighbours VectorNeighbours(Call& c, uint32_t mbx, bool y) {
  const MbStore* above = AboveStore(c, mbx);
  const MbStore* left = mbx > 0 ? &CurrentStore(c, mbx - 1) : nullptr;
  const MbStore* corner = above && left ? AboveStore(c, mbx - 1) : nullptr;
  auto of = [y](const MbStore* s) -> const int32_t* { return s ? (y ? s->Vy : s->Vx) : nullptr; };
  return Velmo2VectorNeighbours{of(above), of(left), of(corner)};
}

void PredictVectors(Call& c, uint32_t mbx, const Velmo2VectorDiffs& d, MbStore& m) {
  Velmo2PredictVectors(VectorNeighbours(c, mbx, false), d.Single, d.X, m.Vx);
  Velmo2PredictVectors(VectorNeighbours(c, mbx, true), d.Single, d.Y, m.Vy);
}

// ---- Planes of a macroblock -------------------------------------------------------------------

// Reads one plane's mask, DC values and AC coefficients into the worker's coefficient blocks;
// sets the block info words. `dc` gets the predicted values.
void ReadPlane(Call& c, uint32_t p, uint32_t mbx, bool intra, int32_t q, MbStore& m,
               Velmo2AcBlock ac[16], int32_t dc[16]) {
  Velmo1BitReader& r = c.R;
  const uint32_t n = GridOf(p), blocks = n * n;
  const uint32_t mask = IsChroma(p) ? Velmo2ReadChromaMask(r, c.Masks[p])
                                    : Velmo2ReadLumaMask(r, c.Masks[p], c.Word);
  c.Masks[p] = mask;
  int32_t residuals[16];
  Velmo2ReadDcResiduals(r, int32_t(Velmo2DcScale(q)), residuals, blocks);
  if (intra) {
    const IntraNeighbours nb = IntraNeighboursOf(c, p, mbx);
    Velmo2PredictDc(Velmo2IntraDc(n, nb.HasLeft ? nb.Left : nullptr,
                                  nb.HasAbove ? nb.Above : nullptr, nb.Corner),
                    residuals, dc);
  } else {
    Velmo2PredictDc(Velmo2ResidualDc(n, c.Word), residuals, dc);
  }
  const Velmo2DequantKind table = !intra ? Velmo2DequantInter
                                  : IsChroma(p) ? Velmo2DequantIntraChroma
                                                : Velmo2DequantIntraLuma;
  const uint16_t* dequant = DequantRow(table, q);
  // Only blocks with AC data are read into; the others use their DC value alone.
  for (uint32_t i = 0; i < blocks; ++i)
    if (mask >> i & 1) std::memset(c.W->Coef[i], 0, sizeof(c.W->Coef[i]));
  for (uint32_t quadrant = 0; quadrant < blocks / 4; ++quadrant) {
    int16_t* coef[4];
    for (uint32_t i = 0; i < 4; ++i) coef[i] = c.W->Coef[4 * quadrant + i];
    Velmo2ReadAcQuadrant(r, mask >> (4 * quadrant), dequant, q, coef, ac + 4 * quadrant);
  }
  for (uint32_t i = 0; i < blocks; ++i) m.Info[p][i] = Velmo2BlockInfo(intra, ac[i].Class, dc[i]);
}

void DecodeIntraPlane(Call& c, uint32_t p, uint32_t mbx, MbStore& m) {
  Velmo2AcBlock ac[16];
  int32_t dc[16];
  ReadPlane(c, p, mbx, true, m.QIntra, m, ac, dc);
  if (!c.Present[p]) return;
  for (uint32_t i = 0; i < GridOf(p) * GridOf(p); ++i)
    StoreBlock(c, p, mbx, i, ac[i], c.W->Coef[i], dc[i]);
}

// Reads a residual plane and turns it into the plane's 16-bit residual, seams smoothed.
void DecodeResidualPlane(Call& c, uint32_t p, uint32_t mbx, MbStore& m) {
  Velmo2AcBlock ac[16];
  int32_t dc[16];
  ReadPlane(c, p, mbx, false, m.QResidual, m, ac, dc);
  c.W->HasResidual[p] = true;
  if (!c.Present[p]) return;
  const uint32_t n = GridOf(p);
  for (uint32_t i = 0; i < n * n; ++i) ResidualBlock(c, p, i, ac[i], c.W->Coef[i], dc[i]);
  Velmo2ResidualSeams(c.W->Residual[p], n * 8, m.Info[p], n, c.Word,
                      c.D->Kernels.ResidualSeamEdge);
}

// Predicts every present plane from the previous picture at the vectors' positions, adding the
// residual of the planes that have one.
void MotionCompensate(Call& c, uint32_t mbx, const MbStore& m) {
  int32_t px[4], py[4];
  Velmo2MotionPositions(mbx * 32, c.Row * 32, m.Vx, m.Vy, c.D->Setup.Width, c.D->Setup.Height,
                        c.Word, px, py);
  const Velmo2Kernels& k = c.D->Kernels;
  for (uint32_t p = 0; p < kPlanes; ++p) {
    if (!c.Present[p] || !c.Coded[p]) continue;
    const bool chroma = IsChroma(p);
    const uint32_t size = chroma ? 8 : 16;
    const ptrdiff_t sp = c.Pitch[p], tp = c.Target[p].Pitch;
    for (uint32_t q = 0; q < 4; ++q) {
      const uint32_t qx = (q & 1) * size, qy = (q >> 1) * size;
      uint8_t* dst = c.Target[p].Line0 + ptrdiff_t(qy) * tp + (mbx * 32 >> ShiftOf(p)) + qx;
      if (chroma) {
        const uint8_t* s = c.Src[p] + ptrdiff_t(py[q] >> 2) * sp + (px[q] >> 2);
        k.FetchChroma[(px[q] & 3) | (py[q] & 3) << 2](s, sp, dst, tp);
      } else {
        const uint8_t* s = c.Src[p] + ptrdiff_t(py[q] >> 1) * sp + (px[q] >> 1);
        k.FetchLuma[(px[q] & 1) | (py[q] & 1) << 1](s, sp, dst, tp);
      }
      if (c.W->HasResidual[p])
        k.AddResidual(dst, tp, c.W->Residual[p] + qy * (2 * size) + qx, 2 * size, int(size),
                      int(size));
    }
  }
}

// A skipped macroblock: every present plane copied from the previous picture, as far as the
// planes go.
void CopyPrevious(Call& c, uint32_t mbx) {
  for (uint32_t p = 0; p < kPlanes; ++p) {
    if (!c.Present[p] || !c.Coded[p]) continue;
    const uint32_t s = ShiftOf(p), x = (mbx * 32) >> s, top = (c.Row * 32) >> s;
    const uint32_t lines = std::min(32u >> s, PlaneHeight(c, p) - top);
    for (uint32_t r = 0; r < lines; ++r) {
      const uint8_t* from = c.Src[p] + ptrdiff_t(top + r) * c.Pitch[p] + x;
      uint8_t* to = c.Target[p].Line0 + ptrdiff_t(r) * c.Target[p].Pitch + x;
      if (from != to) std::memcpy(to, from, 32 >> s);
    }
  }
}

void ClearInfo(MbStore& m) { std::memset(m.Info, 0, sizeof(m.Info)); }

// ---- Macroblocks ------------------------------------------------------------------------------

void DecodeIntra(Call& c, uint32_t mbx, MbStore& m) {
  m.QIntra = Velmo2ReadQuantiser(c.R, m.QIntra);
  m.Intra = true;
  ClearInfo(m);
  for (uint32_t p = 0; p < kPlanes; ++p)
    if (c.Coded[p]) DecodeIntraPlane(c, p, mbx, m);
  // A non-key intra macroblock hands its neighbours the vectors they would predict.
  const Velmo2VectorDiffs none{};
  if (c.Key) {
    std::memset(m.Vx, 0, sizeof(m.Vx));
    std::memset(m.Vy, 0, sizeof(m.Vy));
  } else {
    PredictVectors(c, mbx, none, m);
  }
}

void DecodeResidual(Call& c, uint32_t mbx, MbStore& m) {
  PredictVectors(c, mbx, Velmo2ReadVectorDiffs(c.R), m);
  m.QResidual = Velmo2ReadQuantiser(c.R, m.QResidual);
  m.Intra = false;
  ClearInfo(m);
  std::fill(std::begin(c.W->HasResidual), std::end(c.W->HasResidual), false);
  DecodeResidualPlane(c, VelmoPlaneY, mbx, m);
  if (Velmo1ReadBit(c.R)) {
    DecodeResidualPlane(c, VelmoPlaneCr, mbx, m);
    DecodeResidualPlane(c, VelmoPlaneCb, mbx, m);
  } else {
    c.Masks[VelmoPlaneCr] = c.Masks[VelmoPlaneCb] = 0;
  }
  for (uint32_t p : {uint32_t(VelmoPlaneAlpha), uint32_t(VelmoPlaneHdr)})
    if (c.Coded[p]) DecodeResidualPlane(c, p, mbx, m);
  MotionCompensate(c, mbx, m);
}

void DecodeMotion(Call& c, uint32_t mbx, MbStore& m) {
  PredictVectors(c, mbx, Velmo2ReadVectorDiffs(c.R), m);
  m.Intra = false;
  ClearInfo(m);
  std::fill(std::begin(c.W->HasResidual), std::end(c.W->HasResidual), false);
  MotionCompensate(c, mbx, m);
}

void DecodeSkipped(Call& c, uint32_t mbx, MbStore& m) {
  std::memset(m.Vx, 0, sizeof(m.Vx));
  std::memset(m.Vy, 0, sizeof(m.Vy));
  m.Intra = false;
  ClearInfo(m);
  CopyPrevious(c, mbx);
}

// Copies the macroblock's block info words into the raster grids the filters read.
void StoreGrid(Call& c, uint32_t mbx, const MbStore& m) {
  for (uint32_t p = 0; p < kPlanes; ++p) {
    if (c.W->Grid[p].empty()) continue;
    const uint32_t n = GridOf(p);
    const size_t stride = size_t(c.D->MbColumns) * n;
    uint16_t* g = c.W->Grid[p].data() + size_t(c.Row) * n * stride + size_t(mbx) * n;
    for (uint32_t i = 0; i < n * n; ++i)
      g[Velmo2BlockRow(i) * stride + Velmo2BlockColumn(i)] = m.Info[p][i];
  }
}

// ---- Rows -------------------------------------------------------------------------------------

// The lines of row `row` (relative to its top) that this share keeps in the picture.
void KeptLines(const Call& c, uint32_t row, uint32_t* from, uint32_t* to) {
  const uint32_t top = row * 32;
  const uint32_t lo = std::max(c.KeepFrom, top);
  const uint32_t hi = std::min({c.KeepTo, top + 32, c.Buffers->LumaHeight});
  *from = lo - top;
  *to = hi > lo ? hi - top : lo - top;
}

void AimRow(Call& c, bool direct) {
  for (uint32_t p = 0; p < kPlanes; ++p) {
    const uint32_t top = (c.Row * 32) >> ShiftOf(p);
    if (direct && c.Present[p]) {
      c.Target[p] = RowPlane{c.Dst[p] + ptrdiff_t(top) * c.Pitch[p], c.Pitch[p]};
    } else {
      c.Target[p] = RowPlane{c.W->Band[p].data(), ptrdiff_t(c.W->BandPitch[p])};
    }
  }
}

// Copies the kept lines of a row decoded into the band to the picture.
void KeepBand(Call& c, uint32_t from, uint32_t to) {
  for (uint32_t p = 0; p < kPlanes; ++p) {
    if (!c.Present[p] || !c.Coded[p]) continue;
    const uint32_t s = ShiftOf(p), top = (c.Row * 32) >> s, bytes = (c.D->MbColumns * 32) >> s;
    for (uint32_t r = from >> s; r < (to >> s); ++r)
      std::memcpy(c.Dst[p] + ptrdiff_t(top + r) * c.Pitch[p],
                  c.W->Band[p].data() + r * c.W->BandPitch[p], bytes);
  }
}

void FillConstantAlpha(Call& c, uint32_t from, uint32_t to) {
  const uint32_t p = VelmoPlaneAlpha;
  if (!c.Word.ConstantAlpha() || !c.Dst[p]) return;
  const uint32_t top = c.Row * 32;
  for (uint32_t r = from; r < to; ++r)
    std::memset(c.Dst[p] + ptrdiff_t(top + r) * c.Pitch[p], int(c.Word.AlphaValue() & 0xFF),
                c.D->MbColumns * 32);
}

void DecodeRow(Call& c, uint32_t row, bool sliceStart) {
  c.Row = row;
  c.SliceStart = sliceStart;
  uint32_t from, to;
  KeptLines(c, row, &from, &to);
  const bool direct = from == 0 && to == 32;
  AimRow(c, direct);
  c.Kinds = Velmo2KindListAtRowStart();
  std::fill(std::begin(c.Masks), std::end(c.Masks), 0u);
  const MbStore* firstAbove = AboveStore(c, 0);
  int32_t qIntra = firstAbove ? firstAbove->QIntra : 16;
  int32_t qResidual = firstAbove ? firstAbove->QResidual : 16;
  for (uint32_t mbx = 0; mbx < c.D->MbColumns; ++mbx) {
    MbStore& m = CurrentStore(c, mbx);
    m.QIntra = qIntra;
    m.QResidual = qResidual;
    const uint32_t kind = c.Key ? uint32_t(Velmo2Intra) : Velmo2ReadKind(c.R, c.Kinds);
    switch (kind) {
      case Velmo2Intra: DecodeIntra(c, mbx, m); break;
      case Velmo2Skipped: DecodeSkipped(c, mbx, m); break;
      case Velmo2Motion: DecodeMotion(c, mbx, m); break;
      default: DecodeResidual(c, mbx, m); break;
    }
    StoreGrid(c, mbx, m);
    // The next macroblock's quantisers: below a slice's first row, the median with the two
    // above it.
    qIntra = m.QIntra;
    qResidual = m.QResidual;
    if (!sliceStart && mbx + 1 < c.D->MbColumns) {
      const MbStore* above = AboveStore(c, mbx + 1);
      const MbStore* aboveLeft = AboveStore(c, mbx);
      qIntra = Velmo2PredictQuantiser(false, qIntra, above->QIntra, aboveLeft->QIntra);
      qResidual = Velmo2PredictQuantiser(false, qResidual, above->QResidual, aboveLeft->QResidual);
    }
  }
  if (Velmo2Overran(c.R)) c.Damaged = true;
  if (!direct) KeepBand(c, from, to);
  FillConstantAlpha(c, from, to);
}

// ---- Filters of a finished row ----------------------------------------------------------------

// The in-loop filters of row `row`, on the lines this share keeps: flat blocks of every plane,
// then the vertical edges of Y, Cr and Cb, then their horizontal edges.
void FilterRow(Call& c, uint32_t row) {
  uint32_t from, to;
  KeptLines(c, row, &from, &to);
  if (to <= from) return;
  const Velmo2Kernels& k = c.D->Kernels;
  const uint32_t limit = c.Word.FlatLimit();
  for (uint32_t p = 0; p < kPlanes; ++p) {
    if (!c.Present[p] || !c.Coded[p] || c.W->Grid[p].empty()) continue;
    const uint32_t s = ShiftOf(p), n = GridOf(p);
    const uint32_t lo = from >> s, hi = to >> s;
    const Velmo2Plane plane = PicturePlane(c, p);
    const Velmo2InfoGrid grid = GridOfCall(c, p);
    const bool edges = p <= VelmoPlaneCb;
    for (uint32_t j = 0; j < n; ++j) {
      if (8 * j < lo || 8 * j + 8 > hi) continue;
      for (uint32_t bx = 0; bx < c.D->MbColumns * n; ++bx) {
        uint16_t info;  // only intra blocks of class 3 are flat
        if (Velmo2InfoAt(grid, bx, row * n + j, &info) && (info & kFlatIntra) == kFlatIntra)
          Velmo2SettleFlatBlock(plane, grid, limit, bx, row * n + j, k.FlatBlock);
      }
    }
    if (!edges) continue;
    for (uint32_t j = 0; j < n; ++j) {
      const uint32_t by = row * n + j;
      if (8 * j < lo || 8 * j + 8 > hi || by * 8 >= plane.Height) continue;
      const uint32_t lines = std::min(8u, plane.Height - by * 8);
      for (uint32_t bx = 1; bx < c.D->MbColumns * n; ++bx) {
        const uint32_t code =
            Velmo2VerticalEdgeCode(c.Rules, grid, s != 0, plane.Width, bx, by);
        if (code)
          k.FilterEdge(plane.Pixels + ptrdiff_t(by) * 8 * plane.Pitch + bx * 8, 1, plane.Pitch,
                       code, lines);
      }
    }
    for (uint32_t j = 0; j < n; ++j) {
      // The edge touches two lines on each side; all four must be this share's.
      const bool keptAbove = j == 0 ? lo == 0 : 8 * j - 2 >= lo;
      if (!keptAbove || 8 * j + 2 > hi) continue;
      const uint32_t by = row * n + j;
      for (uint32_t bx = 0; bx < c.D->MbColumns * n; ++bx) {
        const uint32_t code =
            Velmo2HorizontalEdgeCode(c.Rules, grid, s != 0, plane.Height, bx, by);
        if (!code || bx * 8 >= plane.Width) continue;
        k.FilterEdge(plane.Pixels + ptrdiff_t(by) * 8 * plane.Pitch + bx * 8, plane.Pitch, 1, code,
                     std::min(8u, plane.Width - bx * 8));
      }
    }
  }
}

// The seam of a split row: the codes of the edge between its halves, for the end of the frame.
void WriteSeam(Call& c, uint32_t slice) {
  const Velmo2SliceLayout& l = c.D->Layout;
  if (l.SeamRecordBytes == 0 || slice == 0) return;
  uint8_t* record = c.D->Seams + size_t(slice - 1) * l.SeamRecordBytes;
  const Velmo2SeamGrids grids{GridOfCall(c, VelmoPlaneY), GridOfCall(c, VelmoPlaneCr),
                              GridOfCall(c, VelmoPlaneCb)};
  for (uint32_t mbx = 0; mbx < c.D->MbColumns; ++mbx)
    Velmo2WriteSeamCodes(record, l.SeamRecordBytes, c.Rules, grids, c.D->Setup.Height,
                         c.FirstRow * 32, mbx);
}

// ---- Slices ---------------------------------------------------------------------------------

// The first line of slice s: slices past the set ends, or past the picture, start at its end.
uint32_t SliceTop(const Velmo2Decoder* d, uint32_t s) {
  if (s == 0) return 0;
  const Velmo2SliceLayout& l = d->Layout;
  if (s > l.EndsSet) return d->Padded;
  return std::min((l.Ends[s - 1] + 31) & ~31u, d->Padded);
}

// A boundary inside the picture is shared: the share below keeps the lower half of its row.
bool SplitAt(const Velmo2Decoder* d, uint32_t line) { return line > 0 && line < d->Padded; }

bool Geometry(const Velmo2Decoder* d, const VelmoFrameBuffers* b) {
  if (!b || b->Count == 0 || b->Count > 2) return false;
  const uint32_t width = d->MbColumns * 32, height = (d->Setup.Height + 15) & ~15u;
  if (b->LumaWidth < width || b->LumaHeight < height || b->LumaHeight % 16 != 0 ||
      b->ChromaWidth < width / 2 || b->ChromaHeight < b->LumaHeight / 2 ||
      b->LumaPitch < int32_t(b->LumaWidth) || b->ChromaPitch < int32_t(b->ChromaWidth))
    return false;
  for (uint32_t i = 0; i < b->Count; ++i)
    if (!b->Sets[i].Planes[VelmoPlaneY]) return false;
  return true;
}

void SetUpPlanes(Call& c) {
  const Velmo2DecoderSetup& s = c.D->Setup;
  VelmoFrameBuffers* b = c.Buffers;
  const VelmoFrameBufferSet& src = b->Sets[b->Current % b->Count];
  const VelmoFrameBufferSet& dst = b->Sets[(b->Current + 1) % b->Count];
  for (uint32_t p = 0; p < kPlanes; ++p) {
    c.Coded[p] = p <= VelmoPlaneCb ||
                 (p == VelmoPlaneAlpha && s.Alpha && !c.Word.ConstantAlpha()) ||
                 (p == VelmoPlaneHdr && s.Hdr);
    c.Src[p] = src.Planes[p];
    c.Dst[p] = dst.Planes[p];
    c.Present[p] = c.Src[p] && c.Dst[p];
    c.Pitch[p] = IsChroma(p) ? b->ChromaPitch : b->LumaPitch;
  }
}

// The deprecated stream is not decoded: the share's lines keep the previous picture.
void KeepPreviousLines(Call& c) {
  for (uint32_t p = 0; p < kPlanes; ++p) {
    if (!c.Present[p] || c.Src[p] == c.Dst[p]) continue;
    const uint32_t s = ShiftOf(p);
    const uint32_t to = std::min(c.KeepTo, c.Buffers->LumaHeight) >> s;
    const uint32_t bytes = (IsChroma(p) ? c.Buffers->ChromaWidth : c.Buffers->LumaWidth);
    for (uint32_t r = c.KeepFrom >> s; r < to; ++r)
      std::memcpy(c.Dst[p] + ptrdiff_t(r) * c.Pitch[p], c.Src[p] + ptrdiff_t(r) * c.Pitch[p],
                  bytes);
  }
}

void ReadMaps(Call& c, const uint8_t* section, size_t size) {
  Worker* w = c.W;
  const Velmo2EdgeMaps maps{w->RowMap.data(), w->RowMap.size(), w->ColumnMap.data(),
                            w->ColumnMap.size()};
  uint32_t offset = 0;
  bool read = Velmo2SliceOffset(section, size, c.D->Layout.Slices, 0, &offset);
  if (read) {
    c.R = Velmo1ReaderAt(section + offset, size - offset, size - offset);
    read = Velmo2ReadEdgeMaps(c.R, c.Word, c.D->Setup.Width, c.D->Setup.Height, maps);
  }
  if (!read) {
    // A damaged map filters every edge the frame word allows.
    std::fill(w->RowMap.begin(), w->RowMap.end(), 0u);
    std::fill(w->ColumnMap.begin(), w->ColumnMap.end(), 0u);
    c.Damaged = true;
  }
  c.Rules = Velmo2EdgeRules{c.Word, w->RowMap.data(), w->RowMap.size(), w->ColumnMap.data(),
                            w->ColumnMap.size()};
}

// Walks the rows of the share, the filters one row behind.
void WalkShare(Call& c, const uint8_t* section, size_t size, uint32_t first, uint32_t count) {
  Velmo2Decoder* d = c.D;
  if (first > 0) {
    uint32_t offset = 0;
    if (!Velmo2SliceOffset(section, size, d->Layout.Slices, first, &offset)) {
      c.Damaged = true;
      return;
    }
    c.R = Velmo1ReaderAt(section + offset, size - offset, size - offset);
  }
  bool any = false;
  uint32_t previous = 0;
  auto walk = [&](uint32_t row, bool sliceStart) {
    DecodeRow(c, row, sliceStart);
    if (any) FilterRow(c, previous);
    any = true;
    previous = row;
  };
  for (uint32_t s = first; s < first + count; ++s) {
    const uint32_t top = SliceTop(d, s) / 32, end = SliceTop(d, s + 1) / 32;
    for (uint32_t row = top; row < end; ++row) walk(row, row == top);
    if (end > top) EndSlice(c.R);
  }
  const uint32_t next = SliceTop(d, first + count);
  if (first + count < d->Layout.Slices && SplitAt(d, next)) walk(next / 32, true);
  if (any) FilterRow(c, previous);
  if (SplitAt(d, SliceTop(d, first)) && first > 0) WriteSeam(c, first);
}

// A worker's stores, grids and band for the decoder's picture; throws bad_alloc.
Worker* NewWorker(const Velmo2Decoder& d) {
  auto w = std::make_unique<Worker>();
  for (auto& s : w->Stores) s.assign(d.MbColumns, MbStore{});
  for (uint32_t p = 0; p < kPlanes; ++p) {
    const bool coded = p <= VelmoPlaneCb || (p == VelmoPlaneAlpha && d.Setup.Alpha) ||
                       (p == VelmoPlaneHdr && d.Setup.Hdr);
    if (!coded) continue;
    const uint32_t n = GridOf(p);
    w->Grid[p].assign(size_t(d.MbColumns) * n * d.MbRows * n, 0);
    w->BandPitch[p] = ((d.MbColumns * 32 >> ShiftOf(p)) + 63) & ~size_t(63);
    w->Band[p].assign(w->BandPitch[p] * (32 >> ShiftOf(p)), 0);
  }
  w->RowMap.assign(Velmo2EdgeMapWords(d.Setup.Height / 8), 0);
  w->ColumnMap.assign(Velmo2EdgeMapWords(d.Setup.Width / 8), 0);
  return w.release();
}

}  // namespace

// ---------------------------------------------------------------------------------------------

Velmo2Decoder* Velmo2DecoderCreate(const Velmo2DecoderSetup& setup) {
  if (setup.Width == 0 || setup.Height == 0 || setup.Width > 16384 || setup.Height > 16384)
    return nullptr;
  auto d = std::unique_ptr<Velmo2Decoder>(new (std::nothrow) Velmo2Decoder{});
  if (!d) return nullptr;
  d->Setup = setup;
  d->Layout = Velmo2LayoutFor(std::string_view(setup.Tag, 4), setup.FileFlags, setup.Width,
                              setup.Height);
  Velmo2KernelsInit(&d->Kernels, setup.Features);
  d->MbColumns = (setup.Width + 31) / 32;
  d->MbRows = (setup.Height + 31) / 32;
  d->Padded = d->MbRows * 32;
  const size_t records = size_t(d->Layout.Slices) * d->Layout.SeamRecordBytes;
  try {
    if (!setup.SeamRecords) d->OwnSeams.assign(records, 0);
    d->Seams = setup.SeamRecords ? setup.SeamRecords : d->OwnSeams.data();
    for (uint32_t i = 0; i < d->Layout.Slices && i < kVelmo2MaxSlices; ++i)
      d->Workers[i] = NewWorker(*d);
  } catch (const std::bad_alloc&) {
    Velmo2DecoderDestroy(d.release());
    return nullptr;
  }
  return d.release();
}

void Velmo2DecoderDestroy(Velmo2Decoder* decoder) {
  if (!decoder) return;
  for (Worker* w : decoder->Workers) delete w;
  delete decoder;
}

const Velmo2SliceLayout& Velmo2DecoderLayout(const Velmo2Decoder* decoder) {
  return decoder->Layout;
}

Velmo2FrameResult Velmo2DecodeFrame(Velmo2Decoder* decoder, VelmoFrameBuffers* buffers,
                                    const uint8_t* section, size_t size, bool key,
                                    uint32_t first, uint32_t count) {
  Velmo2Decoder* d = decoder;
  if (!d || !ProcessorHas(CpuSSE2) || !section || size < 4 || count == 0 ||
      first >= d->Layout.Slices || first >= kVelmo2MaxSlices || !Geometry(d, buffers))
    return Velmo2FrameNoDecoder;
  count = std::min(count, d->Layout.Slices - first);
  Call c{};
  c.D = d;
  c.W = d->Workers[first];
  c.Buffers = buffers;
  c.Word = Velmo2FrameWord{Load32(section)};
  c.Key = key;
  SetUpPlanes(c);
  const uint32_t top = SliceTop(d, first), bottom = SliceTop(d, first + count);
  c.KeepFrom = SplitAt(d, top) ? top + 16 : top;
  c.KeepTo = SplitAt(d, bottom) ? bottom + 16 : bottom;
  c.FirstRow = top / 32;
  c.LastRow = std::min(d->MbRows, (c.KeepTo + 31) / 32);

  if (!c.Word.CurrentStream()) {
    // The older stream runs under flush-to-zero; it is not decoded, its lines stay as they were.
    const uint32_t state = FloatFlushToZero(ProcessorHas(CpuSSE3));
    KeepPreviousLines(c);
    FloatRestore(state);
    return Velmo2FrameOldStream;
  }
  ReadMaps(c, section, size);
  WalkShare(c, section, size, first, count);
  return c.Damaged ? Velmo2FrameDamaged : Velmo2FrameDecoded;
}

void Velmo2DecoderFinishSeams(Velmo2Decoder* decoder, VelmoFrameBuffers* buffers) {
  Velmo2Decoder* d = decoder;
  if (!d || d->Layout.SeamRecordBytes == 0 || !Geometry(d, buffers)) return;
  const VelmoFrameBufferSet& set = buffers->Sets[(buffers->Current + 1) % buffers->Count];
  const uint32_t w = d->Setup.Width, h = d->Setup.Height;
  const Velmo2Plane y{set.Planes[VelmoPlaneY], buffers->LumaPitch, w, h};
  const Velmo2Plane cr{set.Planes[VelmoPlaneCr], buffers->ChromaPitch, (w + 1) / 2, (h + 1) / 2};
  const Velmo2Plane cb{set.Planes[VelmoPlaneCb], buffers->ChromaPitch, (w + 1) / 2, (h + 1) / 2};
  if (!cr.Pixels || !cb.Pixels) return;
  Velmo2FinishSeams(d->Seams, d->Layout, y, cr, cb);
}
