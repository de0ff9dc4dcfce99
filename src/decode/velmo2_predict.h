// Motion compensation of the second-generation format: the absolute source positions of a
// macroblock's four quadrants, the luma fetch at half-pixel positions, the chroma fetch at
// quarter-pixel positions, and the stores that turn a prediction or a transform output into
// pixels. None of these allocate; every read lies inside the source plane once the position
// has been clamped by Velmo2MotionPositions.
//
// Positions are in half luma pixels, x first. Quadrants are in the order top left, top right,
// bottom left, bottom right, each 16x16 luma pixels (8x8 chroma pixels).
#pragma once
#include <cstddef>
#include <cstdint>

#include "decode/velmo2_syntax.h"

// One component of an absolute position held inside the plane. `lim` is twice the plane size
// in that direction (in pixels). Even values stay within 0 .. lim - 32; odd ones within 4 ..
// lim - 42, or, with `keepParity`, within 5 .. lim - 37 so that they stay odd. In a plane
// under 21 pixels, where no odd position has room for the filter taps, odd values become the
// even value below them.
int32_t Velmo2ClampPosition(int64_t value, int32_t lim, bool keepParity);

// The four quadrants' absolute positions of the macroblock at (mbX, mbY) pixels with the
// decoded vectors vx, vy (half pixels), clamped to a width x height luma area; the frame
// word's parity flag picks the clamp. Any area no larger than the source planes (the picture,
// or the allocated planes) keeps every luma and chroma read inside them. The vectors
// themselves are not changed.
void Velmo2MotionPositions(uint32_t mbX, uint32_t mbY, const int32_t vx[4], const int32_t vy[4],
                           uint32_t width, uint32_t height, Velmo2FrameWord word, int32_t outX[4],
                           int32_t outY[4]);

// The 16x16 luma block at the clamped position (x, y) of `src` (one line every `pitch` bytes)
// into dst. Odd x filters horizontally, odd y vertically, both odd does both (horizontal
// first, the intermediate unclamped).
void Velmo2FetchLuma(const uint8_t* src, ptrdiff_t pitch, int32_t x, int32_t y, uint8_t* dst,
                     ptrdiff_t dstPitch);

// The 8x8 chroma block for the clamped luma position (x, y): at (x >> 2, y >> 2) in the chroma
// plane, with x & 3 and y & 3 the quarter-pixel fractions.
void Velmo2FetchChroma(const uint8_t* src, ptrdiff_t pitch, int32_t x, int32_t y, uint8_t* dst,
                       ptrdiff_t dstPitch);

// Adds a w x h residual (one line every `residualPitch` values) to the prediction in dst and
// holds each pixel between 0 and 255.
void Velmo2AddResidual(uint8_t* dst, ptrdiff_t dstPitch, const int16_t* residual,
                       ptrdiff_t residualPitch, int w, int h);

// The mean of an 8x8 block on the scale of a DC value (eight times the mean): rows folded in
// pairs three times, each fold rounding up, then the eight columns added. An intra macroblock
// predicts from it where a neighbour is not intra.
int32_t Velmo2BlockMean(const uint8_t* p, ptrdiff_t pitch);

// Stores an intra block's transform output (64 values by position) held between 0 and 255.
void Velmo2StoreIntra(const int16_t out[64], uint8_t* dst, ptrdiff_t dstPitch);
