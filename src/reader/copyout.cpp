// Pixel copy-out: conversion state, kernel table, the plain C++ kernels and the
// rectangle walk that feeds the kernels line by line.
#include "reader/copyout.h"

#include <algorithm>
#include <cstring>

#include "host/cpu_features.h"
#include "reader/copyout_kernels.h"
#include "format/frame_buffers.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Surface formats.

enum : uint8_t { Kernel32 = 0, Kernel32Alt = 1, Kernel16 = 2 };

struct SurfaceFormat {
  uint8_t Valid;
  uint8_t Bytes;
  uint8_t Kernel;
  uint8_t Reversed;  // the format's channel order is the reverse of the kernel's natural one
  uint8_t WidthR, WidthG, WidthB, WidthA;
  uint8_t PosR, PosG, PosB, PosA;  // in the kernel's natural order
};

// Indexed by the low four bits of the flags. Formats 4 and 6 store red at bit 0: their
// kernel is the natural one, with the red and blue roles exchanged in the state.
constexpr SurfaceFormat SurfaceFormats[16] = {
    {},                                            // 0
    {},                                            // 1
    {},                                            // 2
    {1, 4, Kernel32, 0, 8, 8, 8, 8, 16, 8, 0, 24},     // 3
    {1, 4, Kernel32, 1, 8, 8, 8, 8, 16, 8, 0, 24},     // 4
    {1, 4, Kernel32, 0, 8, 8, 8, 8, 16, 8, 0, 24},     // 5
    {1, 4, Kernel32, 1, 8, 8, 8, 8, 16, 8, 0, 24},     // 6
    {},                                            // 7
    {1, 2, Kernel16, 0, 5, 5, 5, 1, 10, 5, 0, 15},     // 8
    {1, 2, Kernel16, 0, 5, 5, 5, 1, 10, 5, 0, 15},     // 9
    {1, 2, Kernel16, 0, 5, 6, 5, 0, 11, 5, 0, 0},      // 10
    {},                                            // 11
    {1, 4, Kernel32Alt, 0, 8, 8, 8, 8, 16, 8, 0, 24},  // 12
    {},                                            // 13
    {},                                            // 14
    {},                                            // 15
};

const SurfaceFormat* FindFormat(uint32_t format) {
  const SurfaceFormat& f = SurfaceFormats[format & VelmoSurfaceFormatMask];
  return f.Valid ? &f : nullptr;
}

// ---------------------------------------------------------------------------------------------
// Conversion state.

// Value × scale, rounded by adding ±0.5 and truncating, held to the 16-bit range.
int16_t ToFixed(float value, float scale) {
  double v = double(value) * scale;
  v += v >= 0 ? 0.5 : -0.5;
  if (!(v > -32768.0)) return -32768;  // also catches NaN
  if (v > 32767.0) return 32767;
  return int16_t(v);
}

int16_t AddSaturated(int a, int b) { return int16_t(std::clamp(a + b, -32768, 32767)); }

// A 2x2 ordered dither around the channel offset, in 11-bit units: O, O + 2s, O + 3s, O + s
// with s = 1 << (9 − width). Even lines alternate the first pair, odd lines the second.
void BuildDither(int16_t offset, int width, int16_t table[2][8]) {
  const int s = 9 - width;
  const int16_t even[2] = {offset, AddSaturated(offset, 2 << s)};
  const int16_t odd[2] = {AddSaturated(offset, 3 << s), AddSaturated(offset, 1 << s)};
  for (int i = 0; i < 8; ++i) {
    table[0][i] = even[i & 1];
    table[1][i] = odd[i & 1];
  }
}

// Neutral chroma, 128 / 255, folded into the offsets for grayscale.
constexpr float NeutralChroma = 0.5019608f;

}  // namespace

bool VelmoBuildConversionState(const float t[16], uint32_t format, uint32_t copyFlags,
                               const VelmoCopyKernels* kernels, VelmoConversionState* state) {
  const SurfaceFormat* f = FindFormat(format);
  if (f == nullptr || state == nullptr || kernels == nullptr) return false;
  std::memset(state, 0, sizeof *state);

  // 1. The table's shape.
  float yWeight = t[12];
  float crR = 0, crG = 0, cbG = 0, cbB = 0;
  float offR = 0, offG = 0, offB = 0;
  const bool sameY = t[12] == t[13] && t[13] == t[14];
  if (sameY && t[2] == 0.0f && t[4] == 0.0f) {
    crR = t[0], crG = t[1], cbG = t[5], cbB = t[6];
    offR = t[8], offG = t[9], offB = t[10];
  } else if (sameY && t[0] == 0.0f && t[6] == 0.0f) {
    // Cr and Cb are the other way round in this table: read the Cb row as Cr and swap the
    // planes to make up for it.
    crR = t[4], crG = t[5], cbG = t[1], cbB = t[2];
    offR = t[8], offG = t[9], offB = t[10];
    copyFlags ^= VelmoCopySwapChroma;
  }
  else {
    // Any other shape shows plain Y, with the weights of the chroma at 0 and a full red
    // offset: a picture in that tint tells at a glance that the table was not understood.
    offR = 1.0f;
  }

  // 2. Channel order: the kernels write in their natural order; exchange the red and blue
  // roles (and with them the planes) when the wanted order is the other one.
  const bool reverse = (f->Reversed != 0) != ((copyFlags & VelmoCopyReverseOrder) != 0);
  if (reverse) {
    std::swap(crR, cbB);
    std::swap(crG, cbG);
    std::swap(offR, offB);
    copyFlags ^= VelmoCopySwapChroma;
  }

  // 3. Grayscale: chroma is neutral, so its contribution becomes part of the offsets.
  if (copyFlags & VelmoCopyGray) {
    offR += crR * NeutralChroma;
    offG += (crG + cbG) * NeutralChroma;
    offB += cbB * NeutralChroma;
    crR = crG = cbG = cbB = 0;
  }

  // 4. Fixed point.
  state->YWeight = ToFixed(yWeight, 4096.0f);
  state->CrToR = ToFixed(crR, 4096.0f);
  state->CrToG = ToFixed(crG, 4096.0f);
  state->CbToG = ToFixed(cbG, 4096.0f);
  state->CbToB = ToFixed(cbB, 4096.0f);

  state->ShiftR = uint16_t(11 - f->WidthR), state->PosR = f->PosR;
  state->ShiftG = uint16_t(11 - f->WidthG), state->PosG = f->PosG;
  state->ShiftB = uint16_t(11 - f->WidthB), state->PosB = f->PosB;
  state->ShiftA = uint16_t(11 - f->WidthA), state->PosA = f->PosA;

  // 5. Dither tables that carry the offsets.
  BuildDither(ToFixed(offR, 2048.0f), f->WidthR, state->OffsetR);
  BuildDither(ToFixed(offG, 2048.0f), f->WidthG, state->OffsetG);
  BuildDither(ToFixed(offB, 2048.0f), f->WidthB, state->OffsetB);

  state->PixelBytes = f->Bytes;
  state->Kernel = f->Kernel == Kernel32      ? kernels->Kernel32
                  : f->Kernel == Kernel32Alt ? kernels->Kernel32Alt
                                             : kernels->Kernel16;
  state->CopyFlags = copyFlags;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Kernel table.

void VelmoCopyKernelsInit(VelmoCopyKernels* kernels, uint32_t features) {
  *kernels = {VelmoCopyKernel32Plain, VelmoCopyKernel32AltPlain, VelmoCopyKernel16Plain};
#if ORN_X86_KERNELS
  const int level = ProcessorLevelOf(features);
  if (level < ProcessorLevelSse2) return;
  kernels->Kernel32 = VelmoCopyKernel32Sse2;
  kernels->Kernel32Alt = VelmoCopyKernel32AltSse2;
  kernels->Kernel16 = VelmoCopyKernel16Sse2;
  if (level < ProcessorLevelAvx2) return;
  kernels->Kernel32 = VelmoCopyKernel32Avx2;
  kernels->Kernel32Alt = VelmoCopyKernel32AltAvx2;
  kernels->Kernel16 = VelmoCopyKernel16Avx2;
#endif
}

// ---------------------------------------------------------------------------------------------
// Plain C++ kernels: the rule that the vector kernels match bit for bit.

namespace {

int16_t MulHigh(int16_t a, int16_t b) { return int16_t((int32_t(a) * b) >> 16); }

// Scales an 8-bit luma value so that a multiply-high by a weight × 4096 gives 11-bit units:
// y × 128.5 ≈ y × 2048 × 16 / 255.
int16_t ScaleLuma(int y) { return int16_t((y << 7) + (y >> 1)); }

// The same for chroma after upsampling, which carries 16 × the 8-bit value.
int16_t ScaleChroma(int c) { return int16_t((c << 3) + (c >> 5)); }

int Clamp11(int16_t v) { return std::clamp<int>(v, 0, 2047); }

// Upsampled chroma of 16 pixels: vertical 3:1 into `column` (k = −1 .. 8), then horizontal
// 3:1 towards the nearer neighbour pair.
void UpsampleChroma(const uint8_t* near, const uint8_t* far, int16_t left, int16_t out[16]) {
  int column[10];
  column[0] = left;
  for (int k = 0; k <= 8; ++k) column[k + 1] = 3 * near[k] + far[k];
  for (int i = 0; i < 16; ++i) {
    const int p = i >> 1;
    const int c = 3 * column[p + 1] + ((i & 1) ? column[p + 2] : column[p]);
    out[i] = ScaleChroma(c);
  }
}

struct GroupChannels {
  int R[16], G[16], B[16], A[16];  // R, G, B in 11-bit units; A 8-bit
};

void ConvertGroup(const VelmoCopyLine* line, const VelmoConversionState* s, uint32_t group,
                  int16_t crLeft, int16_t cbLeft, GroupChannels* out) {
  const uint32_t x = group * 16, c = group * 8;
  int16_t cr[16], cb[16];
  UpsampleChroma(line->CrNear + c, line->CrFar + c, crLeft, cr);
  UpsampleChroma(line->CbNear + c, line->CbFar + c, cbLeft, cb);
  const uint32_t parity = line->LineParity & 1;
  for (int i = 0; i < 16; ++i) {
    const int16_t yTerm = MulHigh(ScaleLuma(line->Y[x + i]), s->YWeight);
    int16_t r = AddSaturated(yTerm, MulHigh(cr[i], s->CrToR));
    r = AddSaturated(r, s->OffsetR[parity][i & 7]);
    int16_t g = AddSaturated(yTerm, MulHigh(cr[i], s->CrToG));
    g = AddSaturated(g, MulHigh(cb[i], s->CbToG));
    g = AddSaturated(g, s->OffsetG[parity][i & 7]);
    int16_t b = AddSaturated(yTerm, MulHigh(cb[i], s->CbToB));
    b = AddSaturated(b, s->OffsetB[parity][i & 7]);
    out->R[i] = Clamp11(r);
    out->G[i] = Clamp11(g);
    out->B[i] = Clamp11(b);
    out->A[i] = line->Alpha ? line->Alpha[x + i] : 255;
  }
}

int16_t ColumnChroma(const uint8_t* near, const uint8_t* far, int k) {
  return int16_t(3 * near[k] + far[k]);
}

uint32_t PackPixel(const VelmoConversionState* s, const GroupChannels& ch, int i) {
  return uint32_t(ch.R[i] >> s->ShiftR) << s->PosR | uint32_t(ch.G[i] >> s->ShiftG) << s->PosG |
         uint32_t(ch.B[i] >> s->ShiftB) << s->PosB |
         uint32_t((ch.A[i] << 3) >> s->ShiftA) << s->PosA;
}

void RunPlain(const VelmoCopyLine* line, const VelmoConversionState* s, int bytes) {
  int16_t crLeft = line->CrLeft, cbLeft = line->CbLeft;
  for (uint32_t g = 0; g < line->Groups; ++g) {
    GroupChannels ch;
    ConvertGroup(line, s, g, crLeft, cbLeft, &ch);
    uint8_t* d = line->Dest + size_t(g) * 16 * bytes;
    for (int i = 0; i < 16; ++i) {
      const uint32_t px = PackPixel(s, ch, i);
      for (int k = 0; k < bytes; ++k) d[i * bytes + k] = uint8_t(px >> (8 * k));
    }
    crLeft = ColumnChroma(line->CrNear, line->CrFar, int(g * 8 + 7));
    cbLeft = ColumnChroma(line->CbNear, line->CbFar, int(g * 8 + 7));
  }
}

}  // namespace

void VelmoCopyKernel32Plain(const VelmoCopyLine* line, const VelmoConversionState* s) {
  RunPlain(line, s, 4);
}

// The second 32-bit kernel gives the same pixels; its vector forms place the channels from
// the state's positions instead of fixed byte lanes.
void VelmoCopyKernel32AltPlain(const VelmoCopyLine* line, const VelmoConversionState* s) {
  RunPlain(line, s, 4);
}

void VelmoCopyKernel16Plain(const VelmoCopyLine* line, const VelmoConversionState* s) {
  RunPlain(line, s, 2);
}

// ---------------------------------------------------------------------------------------------
// The rectangle walk.

namespace {

struct LinePlanes {
  const uint8_t* Y;
  const uint8_t* Alpha;
  const uint8_t* CrNear;
  const uint8_t* CrFar;
  const uint8_t* CbNear;
  const uint8_t* CbFar;
};

// Left neighbour of the pair at chroma index k, as 3 × near + far; the frame's left edge
// repeats its first sample.
int16_t LeftChroma(const uint8_t* near, const uint8_t* far, uint32_t k) {
  const uint32_t j = k > 0 ? k - 1 : 0;
  return ColumnChroma(near, far, int(j));
}

struct RowJob {
  const VelmoConversionState* State;
  LinePlanes Planes;
  uint32_t ChromaWidth;  // chroma samples in a line of the frame
  uint32_t Parity;
};

VelmoCopyLine MakeLine(const RowJob& job, uint32_t x) {
  const uint32_t k = x / 2;
  const LinePlanes& p = job.Planes;
  VelmoCopyLine line;
  line.Y = p.Y + x;
  line.Alpha = p.Alpha ? p.Alpha + x : nullptr;
  line.CrNear = p.CrNear + k;
  line.CrFar = p.CrFar + k;
  line.CbNear = p.CbNear + k;
  line.CbFar = p.CbFar + k;
  line.Dest = nullptr;
  line.Groups = 0;
  line.LineParity = job.Parity;
  line.CrLeft = LeftChroma(p.CrNear, p.CrFar, k);
  line.CbLeft = LeftChroma(p.CbNear, p.CbFar, k);
  return line;
}

// Up to 16 pixels from source column x (even) through a stack buffer: the pixels and chroma
// are copied with the last value repeated, and output pixels from `skip` on are stored.
void ConvertThroughBuffer(const RowJob& job, uint32_t x, uint32_t count, uint32_t skip,
                          uint8_t* dest) {
  alignas(32) uint8_t y[16], alpha[16];
  alignas(16) uint8_t crNear[16], crFar[16], cbNear[16], cbFar[16];
  alignas(32) uint8_t out[64];
  const LinePlanes& p = job.Planes;
  for (uint32_t i = 0; i < 16; ++i) {
    const uint32_t src = x + std::min(i, count - 1);
    y[i] = p.Y[src];
    alpha[i] = p.Alpha ? p.Alpha[src] : 255;
  }
  // Chroma up to the right neighbour of the last pixel, repeated past the frame.
  const uint32_t last = std::min(job.ChromaWidth - 1, (x + count - 1) / 2 + 1);
  for (uint32_t j = 0; j < 16; ++j) {
    const uint32_t k = std::min(x / 2 + j, last);
    crNear[j] = p.CrNear[k];
    crFar[j] = p.CrFar[k];
    cbNear[j] = p.CbNear[k];
    cbFar[j] = p.CbFar[k];
  }
  VelmoCopyLine line = MakeLine(job, x);
  line.Y = y;
  line.Alpha = p.Alpha ? alpha : nullptr;
  line.CrNear = crNear;
  line.CrFar = crFar;
  line.CbNear = cbNear;
  line.CbFar = cbFar;
  line.Dest = out;
  line.Groups = 1;
  job.State->Kernel(&line, job.State);
  const uint32_t bytes = job.State->PixelBytes;
  std::memcpy(dest, out + skip * bytes, (count - skip) * bytes);
}

// One output line: source columns [left, left + width) to dest.
void ConvertRow(const RowJob& job, uint32_t left, uint32_t width, uint8_t* dest) {
  const uint32_t bytes = job.State->PixelBytes;
  const uint32_t end = left + width;
  uint32_t x = left & ~1u;  // an odd left edge starts one pixel earlier
  if (left & 1) {
    const uint32_t count = std::min(16u, end - x);
    ConvertThroughBuffer(job, x, count, 1, dest);
    dest += (count - 1) * bytes;
    x += count;
  }
  if (x < end) {
    // Whole groups go straight to dest while their right chroma neighbour is in the frame.
    const uint32_t room = (job.ChromaWidth - 1 - x / 2) / 8;
    const uint32_t groups = std::min((end - x) / 16, room);
    if (groups > 0) {
      VelmoCopyLine line = MakeLine(job, x);
      line.Dest = dest;
      line.Groups = groups;
      job.State->Kernel(&line, job.State);
      dest += size_t(groups) * 16 * bytes;
      x += groups * 16;
    }
  }
  while (x < end) {
    const uint32_t count = std::min(16u, end - x);
    ConvertThroughBuffer(job, x, count, 0, dest);
    dest += count * bytes;
    x += count;
  }
}

// The far chroma line of output line y: above on even lines, below on odd ones; the first
// line and the frame's last line use the near one only.
uint32_t FarChromaRow(uint32_t y, uint32_t height) {
  if (y + 1 >= height) return y / 2;
  if (y & 1) return y / 2 + 1;
  return y >= 2 ? y / 2 - 1 : y / 2;
}

}  // namespace

int VelmoCopyPlanesRectWith(const VelmoCopyKernels* kernels, const VelmoCopySource* src,
                            uint8_t* dest, int32_t pitch, int32_t destHeight, int32_t destX,
                            int32_t destY, int32_t srcX, int32_t srcY, int32_t srcWidth,
                            int32_t srcHeight, uint32_t flags) {
  if (kernels == nullptr || src == nullptr || src->Y == nullptr || dest == nullptr || src->IsHdr)
    return 0;
  const SurfaceFormat* format = FindFormat(flags);
  if (format == nullptr) return 0;

  // Limit the rectangle to the frame. The destination is the caller's: its offsets and pitch
  // are taken as they come, and it must have room for the rectangle.
  (void)destHeight;
  const int64_t frameW = src->Width, frameH = src->Height;
  const int64_t left = std::clamp<int64_t>(srcX, 0, frameW);
  const int64_t top = std::clamp<int64_t>(srcY, 0, frameH);
  const int64_t width = std::min<int64_t>(srcWidth, frameW - left);
  const int64_t height = std::min<int64_t>(srcHeight, frameH - top);
  if (width <= 0 || height <= 0) return 0;
  const int64_t lineBytes = pitch < 0 ? -int64_t(pitch) : int64_t(pitch);

  const VelmoCopyHooks* hooks = src->Hooks;
  if (hooks && hooks->Begin) hooks->Begin(hooks->Context);

  // Flags and the conversion state.
  uint32_t merged = flags | (src->OpenFlags & VelmoCopyOpenFlagsMask);
  if (src->Alpha == nullptr) merged &= ~VelmoCopyFlipAlpha;
  uint32_t copyFlags = 0;
  if (merged & VelmoCopyFlipAlpha) copyFlags |= VelmoCopyUseAlphaAsY;
  if ((merged & VelmoCopyGrayscale) || src->Cr == nullptr || src->Cb == nullptr)
    copyFlags |= VelmoCopyGray;
  if (src->Alpha) copyFlags |= VelmoCopyHasAlphaPlane;
  VelmoConversionState state;
  VelmoBuildConversionState(src->ColourTable, flags, copyFlags, kernels, &state);

  int result = 0;
  const int skip = (hooks && hooks->SkipCheck) ? hooks->SkipCheck(hooks->Context, flags) : 0;
  if (skip != 0) result = 1;
  if (skip != 2) {
    // Plane pointers, with luma and alpha or the chroma planes exchanged as the state says.
    const uint8_t* y = src->Y;
    const uint8_t* alpha = src->Alpha;
    const uint8_t* cr = src->Cr;
    const uint8_t* cb = src->Cb;
    if (state.CopyFlags & VelmoCopyUseAlphaAsY) std::swap(y, alpha);
    if (state.CopyFlags & VelmoCopySwapChroma) std::swap(cr, cb);
    if (format->WidthA == 0 || src->Alpha == nullptr) alpha = nullptr;
    const bool gray = (state.CopyFlags & VelmoCopyGray) != 0;

    // A negative pitch stores bottom-up: lines count up from `dest`, and the rectangle's first
    // line goes to its bottom line, destY + height - 1, from where the lines go down.
    const int64_t firstLine = pitch < 0 ? int64_t(destY) + height - 1 : int64_t(destY);
    uint8_t* row = dest + firstLine * lineBytes + int64_t(destX) * format->Bytes;

    RowJob job;
    job.State = &state;
    job.ChromaWidth = uint32_t((frameW + 1) / 2);
    for (int64_t i = 0; i < height; ++i) {
      const uint32_t sy = uint32_t(top + i);
      const uint8_t* yLine = y + int64_t(sy) * src->LumaPitch;
      job.Planes.Y = yLine;
      job.Planes.Alpha = alpha ? alpha + int64_t(sy) * src->LumaPitch : nullptr;
      if (gray) {
        job.Planes.CrNear = job.Planes.CrFar = job.Planes.CbNear = job.Planes.CbFar = yLine;
      } else {
        const int64_t nearOff = int64_t(sy / 2) * src->ChromaPitch;
        const int64_t farOff = int64_t(FarChromaRow(sy, uint32_t(frameH))) * src->ChromaPitch;
        job.Planes.CrNear = cr + nearOff;
        job.Planes.CrFar = cr + farOff;
        job.Planes.CbNear = cb + nearOff;
        job.Planes.CbFar = cb + farOff;
      }
      job.Parity = sy & 1;
      ConvertRow(job, uint32_t(left), uint32_t(width), row);
      row += pitch;
    }
  }
  if (hooks && hooks->End) hooks->End(hooks->Context);
  return result;
}

void VelmoCopySourceFromBuffers(const VelmoFrameBuffers& buffers, const float colourTable[16],
                                uint32_t openFlags, bool isHdr, VelmoCopySource* out) {
  std::memset(out, 0, sizeof *out);
  const VelmoFrameBufferSet& set = buffers.Sets[buffers.Current < 2 ? buffers.Current : 0];
  out->Y = set.Planes[VelmoPlaneY];
  out->Cr = set.Planes[VelmoPlaneCr];
  out->Cb = set.Planes[VelmoPlaneCb];
  out->Alpha = buffers.HasAlpha ? set.Planes[VelmoPlaneAlpha] : nullptr;
  out->LumaPitch = buffers.LumaPitch;
  out->ChromaPitch = buffers.ChromaPitch;
  out->Width = buffers.Width;
  out->Height = buffers.Height;
  std::memcpy(out->ColourTable, colourTable, sizeof out->ColourTable);
  out->OpenFlags = openFlags & VelmoCopyOpenFlagsMask;
  out->IsHdr = isHdr ? 1 : 0;
}

int VelmoCopyPlanesRect(const VelmoCopySource* source, uint8_t* dest, int32_t pitch,
                        int32_t destHeight, int32_t destX, int32_t destY, int32_t srcX,
                        int32_t srcY, int32_t srcWidth, int32_t srcHeight, uint32_t flags) {
  VelmoCopyKernels kernels;
  VelmoCopyKernelsInit(&kernels, ProcessorFeatures());
  return VelmoCopyPlanesRectWith(&kernels, source, dest, pitch, destHeight, destX, destY, srcX,
                                 srcY, srcWidth, srcHeight, flags);
}
