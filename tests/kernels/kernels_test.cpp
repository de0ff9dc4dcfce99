// Every kernel table against its plain forms. Each table is built at every level the processor
// has, and each entry must give the plain entry's output on random inputs and on extreme ones:
// zero and full-scale samples, saturating weights and coefficients, odd lengths, negative
// pitches, and infinities and NaN where a float kernel defines a result.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <random>
#include <vector>

#include "audio/audio_transform.h"
#include "copyout_frames.h"
#include "decode/velmo1_tables.h"
#include "decode/velmo2_kernels.h"
#include "encode2/velmo2_encode_kernels.h"
#include "kernel_levels.h"
#include "process/scaler_kernels.h"
#include "reader/copyout.h"

using namespace copyouttest;
using kerneltest::ForEachLevel;
using kerneltest::TableAt;

// A new entry in a kernel table fails to compile here until it has a check below.
static_assert(sizeof(VelmoCopyKernels) == 3 * sizeof(void (*)()), "copy-out entry unchecked");
static_assert(sizeof(ScalerKernels) == 4 * sizeof(void (*)()), "scaler entry unchecked");
static_assert(sizeof(Velmo1Kernels) == 1 * sizeof(void (*)()), "decoder entry unchecked");
static_assert(sizeof(AudioTransformKernels) == 2 * sizeof(void (*)()), "audio entry unchecked");
static_assert(sizeof(Velmo2Kernels) == 26 * sizeof(void (*)()),
              "second-generation entry unchecked");
static_assert(sizeof(Velmo2EncodeKernels) == 2 * sizeof(void (*)()),
              "second-generation encoder entry unchecked");

namespace {

// Calls check(plain, table) with the table of every level the processor has.
template <typename Table, typename Check>
void AgainstPlain(void (*init)(Table*, uint32_t), Check check) {
  const Table plain = TableAt(init, ProcessorLevelPlain);
  ForEachLevel(init, [&](const Table& table) { check(plain, table); });
}

// How a case fills its inputs: random values, the lowest or the highest value everywhere, or a
// random mix of the extremes. Cases cycle through the four.
enum Fill { FillRandom, FillLow, FillHigh, FillExtremes };
Fill FillOf(int caseIndex) { return Fill(caseIndex % 4); }

template <typename T>
T Pick(std::mt19937& rng, std::initializer_list<T> values) {
  return values.begin()[rng() % values.size()];
}

uint8_t Byte(std::mt19937& rng, Fill fill) {
  switch (fill) {
    case FillLow: return 0;
    case FillHigh: return 255;
    case FillExtremes: return Pick<uint8_t>(rng, {0, 255});
    default: return uint8_t(rng());
  }
}

int16_t Word(std::mt19937& rng, Fill fill) {
  switch (fill) {
    case FillLow: return -0x8000;
    case FillHigh: return 0x7fff;
    case FillExtremes: return Pick<int16_t>(rng, {-0x8000, 0x7fff, 0, -1, 1});
    default: return int16_t(rng());
  }
}

std::vector<uint8_t> Bytes(std::mt19937& rng, Fill fill, size_t count) {
  std::vector<uint8_t> out(count);
  for (uint8_t& v : out) v = Byte(rng, fill);
  return out;
}

constexpr float Inf = std::numeric_limits<float>::infinity();
constexpr float NaN = std::numeric_limits<float>::quiet_NaN();
constexpr float FloatMax = std::numeric_limits<float>::max();
constexpr float Denormal = std::numeric_limits<float>::denorm_min();

// Float samples; the extremes take in infinities and NaN.
float Sample(std::mt19937& rng, Fill fill, float range) {
  switch (fill) {
    case FillLow: return Pick<float>(rng, {0.0f, -0.0f, Denormal});
    case FillHigh: return Pick<float>(rng, {FloatMax, -FloatMax, Inf, -Inf});
    case FillExtremes: return Pick<float>(rng, {0.0f, -0.0f, Inf, -Inf, NaN, FloatMax, 1.0f});
    default: return std::uniform_real_distribution<float>(-range, range)(rng);
  }
}

// Finite weights, from tiny to `huge`.
double Weight(std::mt19937& rng, Fill fill, double huge) {
  switch (fill) {
    case FillLow: return Pick<double>(rng, {0.0, -0.0, 5e-324});
    case FillHigh: return Pick<double>(rng, {huge, -huge, 1.0});
    case FillExtremes: return Pick<double>(rng, {0.0, 1.0, -1.0, huge, -huge, 5e-324});
    default: return std::uniform_real_distribution<double>(-1.5, 1.5)(rng);
  }
}

// Float results agree when their bits do; any NaN matches any other NaN, as no kernel defines
// which NaN it gives.
template <typename T>
bool SameFloat(T a, T b) {
  return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b));
}

template <typename T>
::testing::AssertionResult SameFloats(const std::vector<T>& want, const std::vector<T>& got) {
  for (size_t i = 0; i < want.size(); ++i)
    if (!SameFloat(want[i], got[i]))
      return ::testing::AssertionFailure() << "at " << i << ": " << got[i] << ", plain " << want[i];
  return ::testing::AssertionSuccess();
}

// Rows of pixels `pitch` bytes apart, in memory exactly as large as the rows: a negative pitch
// starts at the last row in memory, a zero pitch reads one row again and again.
struct PixelRows {
  std::vector<uint8_t> Mem;
  const uint8_t* First;
  ptrdiff_t Pitch;
};

ptrdiff_t RandomPitch(std::mt19937& rng, size_t rowBytes, size_t unit) {
  const ptrdiff_t pitch = ptrdiff_t(rowBytes + unit * (rng() % 3));
  const uint32_t kind = rng() % 5;
  return kind == 0 ? 0 : kind < 3 ? pitch : -pitch;
}

// ---------------------------------------------------------------------------------------------
// Copy-out.

// One run of 16-pixel groups with planes exactly as long as the kernel reads, and a state with
// a format's layout but random (or saturating) weights and dither offsets.
struct CopyLineCase {
  std::vector<uint8_t> Y, Alpha, CrNear, CrFar, CbNear, CbFar;
  VelmoCopyLine Line{};
  VelmoConversionState State{};
};

CopyLineCase MakeCopyLine(std::mt19937& rng, Fill fill, uint32_t format,
                          const VelmoCopyKernels& plain) {
  CopyLineCase c;
  const uint32_t groups = 1 + rng() % 4;
  c.Y = Bytes(rng, fill, 16 * groups);
  if (rng() % 2) c.Alpha = Bytes(rng, fill, 16 * groups);
  for (auto* plane : {&c.CrNear, &c.CrFar, &c.CbNear, &c.CbFar})
    *plane = Bytes(rng, fill, 8 * groups + 1);
  VelmoBuildConversionState(VideoTable, format, 0, &plain, &c.State);
  for (int16_t* w : {&c.State.YWeight, &c.State.CrToR, &c.State.CrToG, &c.State.CbToG,
                     &c.State.CbToB})
    *w = Word(rng, fill);
  for (auto* offsets : {c.State.OffsetR, c.State.OffsetG, c.State.OffsetB})
    for (int row = 0; row < 2; ++row)
      for (int i = 0; i < 8; ++i) offsets[row][i] = Word(rng, fill);
  c.Line.Y = c.Y.data();
  c.Line.Alpha = c.Alpha.empty() ? nullptr : c.Alpha.data();
  c.Line.CrNear = c.CrNear.data();
  c.Line.CrFar = c.CrFar.data();
  c.Line.CbNear = c.CbNear.data();
  c.Line.CbFar = c.CbFar.data();
  c.Line.Groups = groups;
  c.Line.LineParity = rng() % 2;
  // The left neighbours are column values, 3 × near + far.
  c.Line.CrLeft = int16_t(3 * Byte(rng, fill) + Byte(rng, fill));
  c.Line.CbLeft = int16_t(3 * Byte(rng, fill) + Byte(rng, fill));
  return c;
}

// An entry against the plain one on lines of `formats`' layouts, guard bytes after the output.
void CheckCopyKernel(VelmoCopyKernel plain, VelmoCopyKernel kernel,
                     const VelmoCopyKernels& plainTable, std::initializer_list<uint32_t> formats,
                     uint32_t pixelBytes) {
  std::mt19937 rng(1);
  for (int i = 0; i < 800; ++i) {
    CopyLineCase c = MakeCopyLine(rng, FillOf(i), Pick(rng, formats), plainTable);
    std::vector<uint8_t> want(16 * c.Line.Groups * pixelBytes + Guard, GuardByte), got = want;
    c.Line.Dest = want.data();
    plain(&c.Line, &c.State);
    c.Line.Dest = got.data();
    kernel(&c.Line, &c.State);
    ASSERT_EQ(got, want) << "case " << i << ", " << c.Line.Groups << " groups";
  }
}

// Each entry on the layouts it serves: the fixed byte lanes of the 32-bit kernel fit the 32-bit
// layouts only.
TEST(KernelsCopyOut, EveryLineKernel) {
  const struct {
    const char* Name;
    VelmoCopyKernel VelmoCopyKernels::*Entry;
    std::initializer_list<uint32_t> Formats;
    uint32_t PixelBytes;
  } entries[] = {{"Kernel32", &VelmoCopyKernels::Kernel32, {3, 4, 5, 6}, 4},
                 {"Kernel32Alt", &VelmoCopyKernels::Kernel32Alt, {3, 4, 8, 10, 12}, 4},
                 {"Kernel16", &VelmoCopyKernels::Kernel16, {3, 8, 9, 10}, 2}};
  AgainstPlain(VelmoCopyKernelsInit, [&](const auto& plain, const auto& t) {
    for (const auto& e : entries) {
      SCOPED_TRACE(e.Name);
      CheckCopyKernel(plain.*e.Entry, t.*e.Entry, plain, e.Formats, e.PixelBytes);
    }
  });
}

// Whole copies through the rectangle walk: random and flat frames, tables, rectangles with odd
// edges and widths, formats, flags and pitch signs give the plain table's bytes, guards included.
TEST(KernelsCopyOut, RectanglesThroughTheWalk) {
  AgainstPlain(VelmoCopyKernelsInit, [](const auto& plain, const auto& t) {
    std::mt19937 rng(12345);
    const Table swapped = SwappedChroma(VideoTable);
    float oddShape[16], randomTable[16];
    std::memcpy(oddShape, FullTable, sizeof oddShape);
    oddShape[13] = 0.9f;
    int copied = 0;
    for (int iter = 0; iter < 700; ++iter) {
      const uint32_t w = 1 + rng() % (iter < 100 ? 20 : 150), h = 1 + rng() % 24;
      Frame frame(w, h, rng() % 2);
      frame.Randomize(rng);
      if (iter % 7 == 1) frame.Fill(0, 0, 0);
      if (iter % 7 == 2) frame.Fill(255, 255, 255);
      for (float& v : randomTable) v = float(int(rng() % 20001) - 10000) / 2500.0f;
      const float* tables[] = {VideoTable, FullTable, swapped.V, oddShape, randomTable};
      VelmoCopySource src = frame.Source(tables[rng() % 5]);
      src.OpenFlags = (rng() % 2 ? 0x800 : 0) | (rng() % 4 == 0 ? 0x20000 : 0) | 0x10 | 0x100000;
      const uint32_t format = rng() % 5 ? ValidFormats[rng() % 8] : rng() % 16;
      const uint32_t flags = format | (rng() % 2 ? 0x800 : 0) | (rng() % 4 == 0 ? 0x20000 : 0) |
                             (rng() % 2 ? 0x80000 : 0);
      const int32_t srcX = int32_t(rng() % (w + 2)) - 1, srcY = int32_t(rng() % (h + 2)) - 1;
      const int32_t rw = int32_t(rng() % (w + 3)), rh = int32_t(rng() % (h + 3));
      const int32_t destX = rng() % 5, destY = rng() % 4;
      const int32_t pitch = (int32_t(w) + 8) * 4 * (rng() % 2 ? 1 : -1);
      const int32_t lines = int32_t(h) + 5;
      Surface want(pitch, lines), got(pitch, lines);
      VelmoCopyPlanesRectWith(&plain, &src, want.Base(), pitch, lines, destX, destY, srcX, srcY,
                              rw, rh, flags);
      VelmoCopyPlanesRectWith(&t, &src, got.Base(), pitch, lines, destX, destY, srcX, srcY, rw,
                              rh, flags);
      copied += want.Mem != Surface(pitch, lines).Mem;
      ASSERT_EQ(got.Mem, want.Mem) << "iteration " << iter << " format " << format << " " << w
                                   << "x" << h << " rect " << srcX << "," << srcY << " " << rw
                                   << "x" << rh;
    }
    EXPECT_GT(copied, 350);  // most cases really converted something
  });
}

// ---------------------------------------------------------------------------------------------
// Scaler.

// `rows` rows of `rowBytes` bytes at a random pitch, filled `unit` bytes at a time by
// value(pointer).
template <typename Value>
PixelRows MakeRows(std::mt19937& rng, uint32_t rows, size_t rowBytes, size_t unit, Value value) {
  PixelRows p;
  p.Pitch = RandomPitch(rng, rowBytes, unit);
  const size_t span = size_t(std::abs(p.Pitch)) * (rows - 1) + rowBytes;
  p.Mem.resize(span);
  for (size_t i = 0; i < span; i += unit) value(&p.Mem[i]);
  p.First = p.Pitch < 0 ? p.Mem.data() + span - rowBytes : p.Mem.data();
  return p;
}

std::vector<ScalerSlot> Slots(std::mt19937& rng, Fill fill, double huge, size_t count,
                              uint32_t indices) {
  std::vector<ScalerSlot> slots(count);
  for (ScalerSlot& s : slots) s = {Weight(rng, fill, huge), int32_t(rng() % indices), 0};
  return slots;
}

// A horizontal entry: `rows` rows of 1 to 13 pixels (`pixelBytes` each, filled by `fill`)
// into four sums a row.
template <typename Sum, typename Kernel, typename FillPixel>
void CheckHorizontal(Kernel* plain, Kernel* kernel, size_t pixelBytes, FillPixel fillPixel) {
  std::mt19937 rng(2);
  for (int i = 0; i < 600; ++i) {
    const Fill fill = FillOf(i);
    const uint32_t rows = 1 + rng() % 9, count = 1 + rng() % 13;
    const PixelRows p = MakeRows(rng, rows, count * pixelBytes, pixelBytes,
                                 [&](uint8_t* px) { fillPixel(rng, fill, px); });
    const std::vector<ScalerSlot> slots = Slots(rng, FillOf(i / 4), 1e300, count, 1);
    std::vector<Sum> want(4 * rows), got(4 * rows);
    plain(p.First, p.Pitch, rows, slots.data(), count, want.data());
    kernel(p.First, p.Pitch, rows, slots.data(), count, got.data());
    ASSERT_TRUE(SameFloats(want, got)) << "case " << i << ": " << rows << " rows of " << count
                                       << ", pitch " << p.Pitch;
  }
}

// A vertical entry: sums from a strip of four values a row, through an axis of 0 to 7 slots an
// output row (weights up to `huge`), written to `rows` pixels `pitch` bytes apart between guard
// bytes.
template <typename Sum, typename Kernel, typename StripValue>
void CheckVertical(Kernel* plain, Kernel* kernel, size_t pixelBytes, double huge,
                   StripValue stripValue) {
  std::mt19937 rng(3);
  for (int i = 0; i < 600; ++i) {
    const Fill fill = FillOf(i);
    const uint32_t stripRows = 1 + rng() % 12, rows = 1 + rng() % 9, maxEntries = 1 + rng() % 7;
    std::vector<Sum> strip(4 * stripRows);
    for (Sum& v : strip) v = stripValue(rng, fill);
    const std::vector<ScalerSlot> entries =
        Slots(rng, FillOf(i / 4), huge, rows * maxEntries, stripRows);
    std::vector<uint32_t> counts(rows);
    for (uint32_t& n : counts) n = rng() % (maxEntries + 1);
    ScalerAxis axis{counts.data(), const_cast<ScalerSlot*>(entries.data()), maxEntries, nullptr};
    const ptrdiff_t pitch = RandomPitch(rng, pixelBytes, pixelBytes);
    const size_t span = size_t(std::abs(pitch)) * (rows - 1) + pixelBytes;
    std::vector<uint8_t> want(span + 2 * Guard, GuardByte), got = want;
    const size_t first = Guard + (pitch < 0 ? span - pixelBytes : 0);
    plain(strip.data(), &axis, rows, want.data() + first, pitch);
    kernel(strip.data(), &axis, rows, got.data() + first, pitch);
    if (pixelBytes == 4) {
      ASSERT_EQ(got, want) << "case " << i << ": " << rows << " rows, pitch " << pitch;
    } else {
      std::vector<float> a(want.size() / 4), b(a.size());
      std::memcpy(a.data(), want.data(), a.size() * 4);
      std::memcpy(b.data(), got.data(), b.size() * 4);
      ASSERT_TRUE(SameFloats(a, b)) << "case " << i << ": " << rows << " rows, pitch " << pitch;
    }
  }
}

float PixelFloat(std::mt19937& rng, Fill fill) { return Sample(rng, fill, 2.0f); }

TEST(KernelsScaler, HorizontalInt) {
  AgainstPlain(ScalerKernelsInit, [](const auto& plain, const auto& t) {
    CheckHorizontal<double>(plain.HorizontalInt, t.HorizontalInt, 4,
                            [](std::mt19937& rng, Fill fill, uint8_t* px) {
                              for (int c = 0; c < 4; ++c) px[c] = Byte(rng, fill);
                            });
  });
}

TEST(KernelsScaler, HorizontalFloat) {
  AgainstPlain(ScalerKernelsInit, [](const auto& plain, const auto& t) {
    CheckHorizontal<float>(plain.HorizontalFloat, t.HorizontalFloat, 16,
                           [](std::mt19937& rng, Fill fill, uint8_t* px) {
                             for (int c = 0; c < 4; ++c) {
                               const float v = PixelFloat(rng, fill);
                               std::memcpy(px + 4 * c, &v, 4);
                             }
                           });
  });
}

// Sums that stay finite (the byte of a NaN is not defined), with the rounding and clamping
// edges.
TEST(KernelsScaler, VerticalInt) {
  AgainstPlain(ScalerKernelsInit, [](const auto& plain, const auto& t) {
    auto sum = [](std::mt19937& rng, Fill fill) {
      if (fill == FillRandom) return std::uniform_real_distribution<double>(-60, 320)(rng);
      return Pick<double>(rng, {0.0, -0.0, 0.5, 0.5000011, 254.5, 254.49999999999997, 255.0,
                                1e300, -1e300, 5e-324});
    };
    CheckVertical<double>(plain.VerticalInt, t.VerticalInt, 4, 1.5, sum);
  });
}

TEST(KernelsScaler, VerticalFloat) {
  AgainstPlain(ScalerKernelsInit, [](const auto& plain, const auto& t) {
    CheckVertical<float>(plain.VerticalFloat, t.VerticalFloat, 16, 1e300, PixelFloat);
  });
}

// ---------------------------------------------------------------------------------------------
// First-generation inverse transform.

TEST(KernelsVelmo1, Idct) {
  AgainstPlain(Velmo1KernelsInit, [](const auto& plain, const auto& t) {
    std::mt19937 rng(4);
    for (int i = 0; i < 4000; ++i) {
      const Fill fill = FillOf(i);
      int16_t coeffs[64];
      for (int16_t& c : coeffs) c = Word(rng, fill);
      if (i % 16 == 0)  // small coefficients, as in real blocks
        for (int16_t& c : coeffs) c = int16_t(int(rng() % 401) - 200);
      if (i % 12 == 5)  // a DC-only block
        for (int k = 1; k < 64; ++k) coeffs[k] = 0;
      // Dequantisation rows: the real ones, then any 32-bit values (products wrap).
      uint32_t random[64];
      for (uint32_t& v : random) v = i % 8 == 3 ? 0xFFFFFFFFu : uint32_t(rng());
      const uint32_t* table = i % 2 ? Velmo1DequantTable(i & 2, rng() % 16) : random;
      int32_t want[64], got[64];
      plain.Idct(coeffs, table, want);
      t.Idct(coeffs, table, got);
      ASSERT_EQ(0, std::memcmp(want, got, sizeof want)) << "case " << i;
    }
  });
}

// ---------------------------------------------------------------------------------------------
// Second-generation decoder.

// `lines` lines of `width` values `pitch` apart (negative: the first line last in memory; 0:
// one line again and again), between `guard` values on each side; Line(k) is line k.
template <typename T>
struct Lines {
  std::vector<T> Mem;
  ptrdiff_t Pitch = 0;
  size_t First = 0;
  T* Line(ptrdiff_t k) { return Mem.data() + First + k * Pitch; }
};

template <typename T, typename Value>
Lines<T> MakeLines(size_t lines, size_t width, ptrdiff_t pitch, size_t guard, Value value) {
  Lines<T> l;
  l.Pitch = pitch;
  const size_t step = size_t(std::abs(pitch));
  l.Mem.resize(step * (lines - 1) + width + 2 * guard);
  for (T& v : l.Mem) v = T(value());
  l.First = guard + (pitch < 0 ? step * (lines - 1) : 0);
  return l;
}

// Destination lines in guard bytes, to be compared whole.
Lines<uint8_t> Destination(std::mt19937& rng, size_t lines, size_t width, ptrdiff_t pitch,
                           Fill fill) {
  return MakeLines<uint8_t>(lines, width, pitch, Guard, [&] { return Byte(rng, fill); });
}

// A pitch of at least `width` values, of either sign.
ptrdiff_t SignedPitch(std::mt19937& rng, size_t width) {
  const ptrdiff_t pitch = ptrdiff_t(width + rng() % 9);
  return rng() % 3 == 0 ? -pitch : pitch;
}

TEST(KernelsVelmo2, Transforms) {
  AgainstPlain(Velmo2KernelsInit, [](const auto& plain, const auto& t) {
    std::mt19937 rng(8);
    using Block = std::array<int16_t, 64>;
    for (int i = 0; i < 4000; ++i) {
      Block in;
      for (int16_t& c : in) c = Word(rng, FillOf(i));
      if (i % 16 == 0)  // coefficients of real blocks
        for (int16_t& c : in) c = int16_t(int(rng() % 801) - 400);
      if (i % 12 == 5)  // a DC-only block
        for (int k = 1; k < 64; ++k) in[k] = 0;
      Block want, got;
      plain.Transform(in.data(), want.data());
      t.Transform(in.data(), got.data());
      ASSERT_EQ(got, want) << "full, case " << i;
      // The corner form reads the top left 4x4 only, whatever lies outside it.
      plain.TransformCorner(in.data(), want.data());
      t.TransformCorner(in.data(), got.data());
      ASSERT_EQ(got, want) << "corner, case " << i;
    }
  });
}

// A fetch of a size x size block from a source window that reaches `before` values above and
// left of it and `after` below and right, in memory exactly that large, at source and
// destination pitches of either sign.
void CheckFetch(Velmo2FetchKernel plain, Velmo2FetchKernel kernel, size_t size, size_t before,
                size_t after) {
  std::mt19937 rng(9);
  const size_t window = before + size + after;
  for (int i = 0; i < 300; ++i) {
    const Fill fill = FillOf(i);
    const ptrdiff_t pitch = i % 10 == 9 ? 0 : SignedPitch(rng, window);
    Lines<uint8_t> src =
        MakeLines<uint8_t>(window, window, pitch, 0, [&] { return Byte(rng, fill); });
    const uint8_t* block = src.Line(ptrdiff_t(before)) + before;
    const ptrdiff_t dstPitch = SignedPitch(rng, size);
    Lines<uint8_t> want = Destination(rng, size, size, dstPitch, FillRandom), got = want;
    plain(block, pitch, want.Line(0), dstPitch);
    kernel(block, pitch, got.Line(0), dstPitch);
    ASSERT_EQ(got.Mem, want.Mem) << "case " << i << ", pitch " << pitch << ", to " << dstPitch;
  }
}

TEST(KernelsVelmo2, FetchLumaEveryFraction) {
  AgainstPlain(Velmo2KernelsInit, [](const auto& plain, const auto& t) {
    for (int f = 0; f < 4; ++f) {
      SCOPED_TRACE(testing::Message() << "fraction " << f);
      CheckFetch(plain.FetchLuma[f], t.FetchLuma[f], 16, 2, 3);
    }
  });
}

TEST(KernelsVelmo2, FetchChromaEveryFractionPair) {
  AgainstPlain(Velmo2KernelsInit, [](const auto& plain, const auto& t) {
    for (int f = 0; f < 16; ++f) {
      SCOPED_TRACE(testing::Message() << "fractions " << (f & 3) << ", " << (f >> 2));
      CheckFetch(plain.FetchChroma[f], t.FetchChroma[f], 8, 0, 1);
    }
  });
}

// Widths around the vector sizes, residuals from small to the 16-bit extremes.
TEST(KernelsVelmo2, AddResidual) {
  AgainstPlain(Velmo2KernelsInit, [](const auto& plain, const auto& t) {
    std::mt19937 rng(10);
    for (int i = 0; i < 2000; ++i) {
      const Fill fill = FillOf(i);
      const int w = i % 3 ? int(Pick<uint32_t>(rng, {8, 16, 32})) : 1 + int(rng() % 40);
      const int h = 1 + int(rng() % 17);
      const bool small = i % 5 == 4;
      const Lines<int16_t> residual = MakeLines<int16_t>(
          size_t(h), size_t(w), SignedPitch(rng, size_t(w)), 0,
          [&] { return small ? int16_t(int(rng() % 601) - 300) : Word(rng, FillOf(i / 4)); });
      const ptrdiff_t dstPitch = SignedPitch(rng, size_t(w));
      Lines<uint8_t> want = Destination(rng, size_t(h), size_t(w), dstPitch, fill), got = want;
      const int16_t* r = residual.Mem.data() + residual.First;
      plain.AddResidual(want.Line(0), dstPitch, r, residual.Pitch, w, h);
      t.AddResidual(got.Line(0), dstPitch, r, residual.Pitch, w, h);
      ASSERT_EQ(got.Mem, want.Mem) << "case " << i << ": " << w << "x" << h;
    }
  });
}

// The three layouts of an edge: vertical (across 1, along a pitch), horizontal (across a
// pitch, along 1), and one with neither step 1 (along backwards). Each gives the lines `lines`
// x `width` around the edge and the pointer to q0.
struct EdgeLayout {
  size_t LineCount, Width;
  ptrdiff_t Across, Along;
  ptrdiff_t Q0Line, Q0Column;
};

EdgeLayout EdgeLayoutOf(int kind, ptrdiff_t pitch) {
  switch (kind) {
    case 0: return {8, 4, 1, pitch, 0, 2};
    case 1: return {4, 8, pitch, 1, 2, 0};
    default: return {4, 8, pitch, -1, 2, 7};
  }
}

// Calls check(layout, pitch, kind, rep) for every filter code, count 1..8, layout, and `reps`
// repetitions with pitches of either sign.
template <typename Check>
void ForEachEdge(std::mt19937& rng, int reps, Check check) {
  for (int kind = 0; kind < 3; ++kind)
    for (int rep = 0; rep < reps; ++rep) {
      const EdgeLayout probe = EdgeLayoutOf(kind, 0);
      const ptrdiff_t pitch = SignedPitch(rng, std::max<size_t>(probe.Width, 8));
      check(EdgeLayoutOf(kind, pitch), pitch, rep);
    }
}

TEST(KernelsVelmo2, FilterEdgeEveryCodeAndCount) {
  AgainstPlain(Velmo2KernelsInit, [](const auto& plain, const auto& t) {
    std::mt19937 rng(11);
    int changed = 0;
    ForEachEdge(rng, 16, [&](const EdgeLayout& e, ptrdiff_t pitch, int rep) {
      for (uint32_t code = 0; code < 16; ++code)
        for (uint32_t count = 1; count <= 8; ++count) {
          Lines<uint8_t> want = Destination(rng, e.LineCount, e.Width, pitch, FillOf(rep));
          Lines<uint8_t> got = want;
          const std::vector<uint8_t> before = want.Mem;
          plain.FilterEdge(want.Line(e.Q0Line) + e.Q0Column, e.Across, e.Along, code, count);
          t.FilterEdge(got.Line(e.Q0Line) + e.Q0Column, e.Across, e.Along, code, count);
          changed += want.Mem != before;
          ASSERT_EQ(got.Mem, want.Mem) << "across " << e.Across << ", along " << e.Along
                                       << ", code " << code << ", count " << count;
        }
    });
    EXPECT_GT(changed, 2000);  // most cases really filtered something
  });
}

// A block word for the seam filter: mostly random, or a class 3 word whose DC lies near the
// DC field's wrap, or next to another word's.
uint16_t SeamWord(std::mt19937& rng, int kind, uint16_t other) {
  const uint16_t intra = uint16_t(rng() % 2 ? Velmo2InfoIntra : 0);
  switch (kind) {
    case 0: return uint16_t(rng());
    case 1: return uint16_t(intra | Velmo2InfoClassMask | ((0x1000 + rng() % 16 - 8) & 0x1FFF));
    case 2: return uint16_t((other & ~Velmo2InfoDcMask) |
                            ((other + int(rng() % 81) - 40) & Velmo2InfoDcMask));
    default: return uint16_t(intra | (rng() % 4) << Velmo2InfoClassShift | (rng() & 0x1FFF));
  }
}

TEST(KernelsVelmo2, ResidualSeamEdgeEveryPairOfClasses) {
  AgainstPlain(Velmo2KernelsInit, [](const auto& plain, const auto& t) {
    std::mt19937 rng(12);
    int changed = 0;
    ForEachEdge(rng, 400, [&](const EdgeLayout& e, ptrdiff_t pitch, int rep) {
      const Fill fill = FillOf(rep);
      const bool small = rep % 5 == 4;
      const uint16_t a = SeamWord(rng, rep % 4 == 2 ? 1 : int(rng() % 4), 0);
      const uint16_t b = rep % 4 == 2 ? SeamWord(rng, 2, a) : SeamWord(rng, int(rng() % 4), a);
      Lines<int16_t> want = MakeLines<int16_t>(e.LineCount, e.Width, pitch, Guard, [&] {
        return small ? int16_t(int(rng() % 201) - 100) : Word(rng, fill);
      });
      Lines<int16_t> got = want;
      const std::vector<int16_t> before = want.Mem;
      plain.ResidualSeamEdge(want.Line(e.Q0Line) + e.Q0Column, e.Across, e.Along, a, b);
      t.ResidualSeamEdge(got.Line(e.Q0Line) + e.Q0Column, e.Across, e.Along, a, b);
      changed += want.Mem != before;
      ASSERT_EQ(got.Mem, want.Mem) << "across " << e.Across << ", along " << e.Along << ", words "
                                   << std::hex << a << " " << b;
    });
    EXPECT_GT(changed, 400);
  });
}

// DC values over the whole 13-bit range: every mix of its two ends, random ones, close ones,
// and a few beyond it; every count of columns and lines.
TEST(KernelsVelmo2, FlatBlock) {
  AgainstPlain(Velmo2KernelsInit, [](const auto& plain, const auto& t) {
    std::mt19937 rng(13);
    for (int i = 0; i < 4000; ++i) {
      int32_t dc[3][3];
      const int32_t base = int32_t(rng() % 8192) - 4096;
      for (int k = 0; k < 9; ++k) {
        int32_t& v = dc[k / 3][k % 3];
        if (i < 512) v = (i >> k) & 1 ? 4095 : -4096;
        else if (i % 4 == 0) v = std::clamp(base + int32_t(rng() % 201) - 100, -4096, 4095);
        else if (i % 4 == 1) v = Pick<int32_t>(rng, {-4096, 4095, 0, -1, 1, 2047, -2048});
        else v = int32_t(rng() % 8192) - 4096;
      }
      if (i % 50 == 49) dc[rng() % 3][rng() % 3] = Pick<int32_t>(rng, {-4097, 4096, 1000000});
      const uint32_t columns = i % 3 ? 8 : 1 + rng() % 8, lines = i % 3 ? 8 : 1 + rng() % 8;
      const ptrdiff_t pitch = SignedPitch(rng, 8);
      Lines<uint8_t> want = Destination(rng, 8, 8, pitch, FillRandom), got = want;
      plain.FlatBlock(dc, want.Line(0), pitch, columns, lines);
      t.FlatBlock(dc, got.Line(0), pitch, columns, lines);
      ASSERT_EQ(got.Mem, want.Mem) << "case " << i << ", " << columns << "x" << lines;
    }
  });
}

// ---------------------------------------------------------------------------------------------
// Second-generation encoder.

// Block differences between two windows of `size` x `size` bytes at pitches of either sign
// (and 0, one line again and again): random blocks, blocks near each other as predictions
// are, and the extremes, where every difference is 255 and the sums are largest.
void CheckDiff(Velmo2DiffKernel plain, Velmo2DiffKernel kernel, size_t size) {
  std::mt19937 rng(11);
  for (int i = 0; i < 3000; ++i) {
    const Fill fill = FillOf(i);
    const ptrdiff_t pa = i % 10 == 9 ? 0 : SignedPitch(rng, size);
    const ptrdiff_t pb = i % 7 == 6 ? 0 : SignedPitch(rng, size);
    Lines<uint8_t> a = MakeLines<uint8_t>(size, size, pa, 0, [&] { return Byte(rng, fill); });
    const bool near = i % 3 == 1;
    const Fill other = fill == FillLow ? FillHigh : fill == FillHigh ? FillLow : fill;
    size_t k = 0;
    Lines<uint8_t> b = MakeLines<uint8_t>(size, size, pb, 0, [&] {
      if (!near) return Byte(rng, other);
      const uint8_t v = a.Mem[k++ % a.Mem.size()];
      return uint8_t(std::clamp(int(v) + int(rng() % 9) - 4, 0, 255));
    });
    const uint32_t want = plain(a.Line(0), pa, b.Line(0), pb);
    ASSERT_EQ(kernel(a.Line(0), pa, b.Line(0), pb), want)
        << "case " << i << ", pitches " << pa << ", " << pb;
  }
}

TEST(KernelsVelmo2Encode, BlockDifferences) {
  AgainstPlain(Velmo2EncodeKernelsInit, [](const auto& plain, const auto& t) {
    CheckDiff(plain.Diff16, t.Diff16, 16);
    CheckDiff(plain.Diff8, t.Diff8, 8);
  });
}

// The plain forms are the sums of squared differences, the largest of them included.
TEST(KernelsVelmo2Encode, PlainIsTheSumOfSquares) {
  std::mt19937 rng(12);
  for (size_t size : {size_t(8), size_t(16)}) {
    const Velmo2DiffKernel diff = size == 16 ? Velmo2Diff16Plain : Velmo2Diff8Plain;
    std::vector<uint8_t> a(size * size), b(size * size);
    for (int i = 0; i < 50; ++i) {
      uint64_t want = 0;
      for (size_t k = 0; k < a.size(); ++k) {
        a[k] = i == 0 ? 0 : uint8_t(rng());
        b[k] = i == 0 ? 255 : uint8_t(rng());
        want += uint64_t((int(a[k]) - b[k]) * (int(a[k]) - b[k]));
      }
      EXPECT_EQ(diff(a.data(), ptrdiff_t(size), b.data(), ptrdiff_t(size)), want);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Sound transforms.

TEST(KernelsAudio, ComplexPasses) {
  AgainstPlain(AudioTransformKernelsInit, [](const auto& plain, const auto& t) {
    std::mt19937 rng(5);
    for (int i = 0; i < 240; ++i) {
      const Fill fill = FillOf(i);
      const uint32_t m = 2u << (i % 11);  // 2 .. 2048 points
      std::vector<float> re(m), im(m), twiddleRe(m), twiddleIm(m);
      for (auto* v : {&re, &im})
        for (float& x : *v) x = Sample(rng, fill, 1000.0f);
      for (auto* v : {&twiddleRe, &twiddleIm})
        for (float& x : *v) x = Sample(rng, FillOf(i / 4), 1.0f);
      std::vector<float> wantRe = re, wantIm = im;
      plain.ComplexPasses(wantRe.data(), wantIm.data(), m, twiddleRe.data(), twiddleIm.data());
      t.ComplexPasses(re.data(), im.data(), m, twiddleRe.data(), twiddleIm.data());
      ASSERT_TRUE(SameFloats(wantRe, re)) << "case " << i << ", " << m << " points";
      ASSERT_TRUE(SameFloats(wantIm, im)) << "case " << i << ", " << m << " points";
    }
  });
}

// The four transforms at every length, on their plans' own twiddles.
TEST(KernelsAudio, ComplexPassesInTheTransforms) {
  using Transform = void (*)(const AudioTransformPlan*, float*, AudioTransformWork*,
                             const AudioTransformKernels*);
  const Transform transforms[] = {AudioRealFftForward, AudioRealFftInverse, AudioDctForward,
                                  AudioDctInverse};
  AgainstPlain(AudioTransformKernelsInit, [&](const auto& plain, const auto& t) {
    std::mt19937 rng(6);
    AudioTransformWork work;
    for (uint32_t length = 2; length <= AudioTransformMaxLength; length *= 2) {
      const AudioTransformPlan* plan = AudioTransformPlanFor(length);
      for (int k = 0; k < 8; ++k) {
        std::vector<float> want(length);
        for (float& x : want) x = Sample(rng, k < 4 ? FillRandom : FillOf(k), 20000.0f);
        std::vector<float> got = want;
        transforms[k % 4](plan, want.data(), &work, &plain);
        transforms[k % 4](plan, got.data(), &work, &t);
        ASSERT_TRUE(SameFloats(want, got)) << "length " << length << ", transform " << k % 4;
      }
    }
  });
}

// Every count around the vector widths, scales from zero to huge, samples past both ends of the
// 16-bit range, halves that round to even, infinities and NaN.
TEST(KernelsAudio, FloatToPcm) {
  AgainstPlain(AudioTransformKernelsInit, [](const auto& plain, const auto& t) {
    std::mt19937 rng(7);
    for (int i = 0; i < 600; ++i) {
      const Fill fill = FillOf(i);
      const uint32_t count = i % 50 == 49 ? 1000 : rng() % 41;
      std::vector<float> in(count);
      for (float& x : in)
        x = fill == FillLow ? Pick<float>(rng, {0.5f, 1.5f, 2.5f, -2.5f, -0.5f, 32766.5f,
                                                32767.5f, -32768.5f, -32767.5f})
                            : Sample(rng, fill, 50000.0f);
      const float scale =
          Pick<float>(rng, {1.0f, 1.0f, 0.0441941731f, 0.0625f, 3.0517578e-5f, 0.0f, -1.0f, 1e30f});
      std::vector<int16_t> want(count + 8, 0x5a5a), got = want;
      plain.FloatToPcm(in.data(), count, scale, want.data());
      t.FloatToPcm(in.data(), count, scale, got.data());
      ASSERT_EQ(got, want) << "case " << i << ": " << count << " samples, scale " << scale;
    }
  });
}

// ---------------------------------------------------------------------------------------------
// The tables themselves.

// Every entry is set at every level, and init stops at the first level the feature word lacks:
// AVX2 without SSE2 gives the plain table, AVX2 without SSSE3 the SSE2 one.
template <typename Table>
void ExpectLevelSteps(void (*init)(Table*, uint32_t)) {
  constexpr size_t entries = sizeof(Table) / sizeof(void (*)());
  for (int level = 0; level < ProcessorLevelCount; ++level) {
    const Table table = TableAt(init, level);
    void (*pointers[entries])();
    std::memcpy(pointers, &table, sizeof table);
    for (size_t e = 0; e < entries; ++e) EXPECT_NE(pointers[e], nullptr) << level << " " << e;
  }
  auto same = [&](uint32_t features, int level) {
    Table a, b = TableAt(init, level);
    init(&a, features);
    return std::memcmp(&a, &b, sizeof a) == 0;
  };
  EXPECT_TRUE(same(CpuValid | CpuAVX2 | CpuSSSE3 | CpuAVX, ProcessorLevelPlain));
  EXPECT_TRUE(same(CpuValid | CpuSSE2 | CpuAVX2 | CpuAVX, ProcessorLevelSse2));
  EXPECT_TRUE(same(~0u, ProcessorLevelAvx2));
}

TEST(KernelTables, EveryEntrySetAndLevelsStopAtTheFirstGap) {
  ExpectLevelSteps(VelmoCopyKernelsInit);
  ExpectLevelSteps(ScalerKernelsInit);
  ExpectLevelSteps(Velmo1KernelsInit);
  ExpectLevelSteps(AudioTransformKernelsInit);
  ExpectLevelSteps(Velmo2KernelsInit);
  ExpectLevelSteps(Velmo2EncodeKernelsInit);
}

}  // namespace
