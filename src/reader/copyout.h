// Pixel copy-out: converts a rectangle of a decoded frame (Y at full size, Cr and Cb at half
// size in both directions, perhaps alpha) into an interleaved surface of one of a few pixel
// formats. Chroma is upsampled on the fly with 3-to-1 weights in both directions, channels are
// summed in 16-bit fixed point where 2048 is full scale, and a 2x2 ordered dither is applied
// when rounding to the surface's channel width.
//
// The core works on a plain source record so that it does not depend on the open handle; the
// handle's copy calls fill a `VelmoCopySource` from the current frame buffer set and supply the
// bookkeeping (blit timing, the in-call mark, the skip check) through `VelmoCopyHooks`.
#pragma once
#include <cstdint>

#include "velmo_flags.h"

// The open flags that take part in a copy, merged into the caller's flags: the full-range bit
// (the colour table already is the full-range one), the alpha flip and grayscale.
enum : uint32_t {
  VelmoCopyOpenFlagsMask = uint32_t(VelmoOpenFullRange) | VelmoCopyFlipAlpha | VelmoCopyGrayscale,
};

// `CopyFlags` of the conversion state.
enum : uint32_t {
  VelmoCopyUseAlphaAsY = 1,     // swap the Y and alpha planes
  VelmoCopySwapChroma = 2,      // swap the Cr and Cb planes
  VelmoCopyReverseOrder = 4,    // wanted channel order is reversed against the surface's
  VelmoCopyGray = 8,            // grayscale: chroma planes are not read
  VelmoCopyHasAlphaPlane = 16,  // the frame has an alpha plane
};

struct VelmoConversionState;

// One run of whole 16-pixel groups on one output line. Chroma pointers address the chroma
// sample of the first pixel pair; the kernel reads chroma samples 0 .. 8 × Groups (the last
// one is the right neighbour of the last pair) and takes the left neighbour of the first pair
// from `CrLeft` / `CbLeft`, already formed as 3 × near + far.
struct VelmoCopyLine {
  const uint8_t* Y;
  const uint8_t* Alpha;  // null: opaque
  const uint8_t* CrNear;
  const uint8_t* CrFar;
  const uint8_t* CbNear;
  const uint8_t* CbFar;
  uint8_t* Dest;
  uint32_t Groups;
  uint32_t LineParity;  // source line & 1, picks the dither row
  int16_t CrLeft, CbLeft;
};

using VelmoCopyKernel = void (*)(const VelmoCopyLine* line, const VelmoConversionState* state);

// The copy-out kernel table: one kernel for each kind of surface.
struct VelmoCopyKernels {
  VelmoCopyKernel Kernel32;
  VelmoCopyKernel Kernel32Alt;
  VelmoCopyKernel Kernel16;
};

// Fills `kernels` with the best forms the feature word allows; the copy calls pass
// ProcessorFeatures() at every copy, so that FeatureMask takes effect at once.
void VelmoCopyKernelsInit(VelmoCopyKernels* kernels, uint32_t features);

// Built once per copy from the colour table and the surface format.
struct VelmoConversionState {
  int16_t YWeight, CrToR, CrToG, CbToG, CbToB;  // × 4096
  uint16_t ShiftR, PosR, ShiftG, PosG, ShiftB, PosB, ShiftA, PosA;  // 11 − width; position
  // Dither values that hold the channel offset (× 2048), for 8 pixels of an even source
  // line ([0]) and an odd one ([1]); pixels alternate even and odd source columns.
  int16_t OffsetR[2][8];
  int16_t OffsetG[2][8];
  int16_t OffsetB[2][8];
  uint32_t PixelBytes;
  VelmoCopyKernel Kernel;
  uint32_t CopyFlags;
};

// Builds the state for a surface `format` from a colour table (rows Cr, Cb, offset, Y; each
// red, green, blue, alpha) with a kernel of `kernels`. `copyFlags` brings bits 0, 2, 3 and
// 4; bit 1 is set here when the table has Cr and Cb the other way round. False for a format
// that has no conversion.
bool VelmoBuildConversionState(const float table[16], uint32_t format, uint32_t copyFlags,
                               const VelmoCopyKernels* kernels, VelmoConversionState* state);

// Handle bookkeeping around a copy. Every field may be null.
struct VelmoCopyHooks {
  void* Context;
  // Called once the rectangle is known to be non-empty, before anything is converted:
  // the start of the blit and the in-call mark.
  void (*Begin)(void* context);
  // The skip check, given the copy's own flags (with the never-skip bit as the caller gave
  // it). 0: copy; 1: copy and report (result 1); 2: skip the pixels (result 1).
  int (*SkipCheck)(void* context, uint32_t flags);
  // Called after the conversion or the skip, when Begin was called.
  void (*End)(void* context);
};

// A decoded frame as the copy sees it.
struct VelmoCopySource {
  const uint8_t* Y;
  const uint8_t* Cr;     // null in grayscale frames
  const uint8_t* Cb;
  const uint8_t* Alpha;  // null when the frame has no alpha plane
  int32_t LumaPitch;     // Y and alpha
  int32_t ChromaPitch;
  uint32_t Width, Height;
  float ColourTable[16];
  uint32_t OpenFlags;    // only the bits of VelmoCopyOpenFlagsMask are used
  uint32_t IsHdr;        // HDR frames are not copied by this path
  const VelmoCopyHooks* Hooks;  // may be null
};

struct VelmoFrameBuffers;

// Fills `out` from the current set of the frame buffer ring, for the handle's copy calls:
// planes and pitches, picture size, the colour table and the open flags. Hooks stay null.
void VelmoCopySourceFromBuffers(const VelmoFrameBuffers& buffers, const float colourTable[16],
                                uint32_t openFlags, bool isHdr, VelmoCopySource* out);

// Converts the source rectangle (srcX, srcY, srcWidth, srcHeight), limited to the frame, to
// `dest` at (destX, destY). `pitch` is the byte distance between lines. A negative pitch
// stores bottom-up: `dest` is the lowest address, destY counts lines up from it, and the
// rectangle's first line goes to line destY + height - 1. Only the frame limits the rectangle:
// offsets (negative ones too) and the pitch are the caller's, who gives room for the rectangle;
// `destHeight` is not consulted. Returns 1 when the skip check skipped or reported the frame,
// else 0; a bad format, an HDR frame or an empty rectangle copy nothing and return 0.
int VelmoCopyPlanesRect(const VelmoCopySource* source, uint8_t* dest, int32_t pitch,
                        int32_t destHeight, int32_t destX, int32_t destY, int32_t srcX,
                        int32_t srcY, int32_t srcWidth, int32_t srcHeight, uint32_t flags);

// The same with an explicit kernel table (tests and benchmarks compare the levels).
int VelmoCopyPlanesRectWith(const VelmoCopyKernels* kernels, const VelmoCopySource* source,
                            uint8_t* dest, int32_t pitch, int32_t destHeight, int32_t destX,
                            int32_t destY, int32_t srcX, int32_t srcY, int32_t srcWidth,
                            int32_t srcHeight, uint32_t flags);

// The whole frame.
inline int VelmoCopyPlanes(const VelmoCopySource* source, uint8_t* dest, int32_t pitch,
                           int32_t destHeight, int32_t destX, int32_t destY, uint32_t flags) {
  return VelmoCopyPlanesRect(source, dest, pitch, destHeight, destX, destY, 0, 0,
                             source ? int32_t(source->Width) : 0,
                             source ? int32_t(source->Height) : 0, flags);
}
