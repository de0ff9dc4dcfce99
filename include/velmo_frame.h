/* The decoded frames of an open file: a ring of one or two buffer sets, each a set of planes.
 * The handle's FrameBuffers points at this record while the file has frame buffers (not with
 * VelmoOpenNoBuffers). A program that draws the planes itself (uploads them to textures, say)
 * reads the set `Current` after VelmoDoFrame and before VelmoNextFrame; the decoder writes the
 * other set.
 *
 * Y, and the alpha and HDR planes, have LumaWidth x LumaHeight bytes, one line every LumaPitch
 * bytes; Cr and Cb have ChromaWidth x ChromaHeight, one line every ChromaPitch. The picture is
 * the top-left Width x Height of the luma planes and (Width + 1) / 2 x (Height + 1) / 2 of the
 * chroma planes; the rest is padding to the decoder's block grid. */
#ifndef ORN_VELMO_FRAME_H
#define ORN_VELMO_FRAME_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Indexes into VelmoFrameBufferSet.Planes. */
enum {
  VelmoPlaneY = 0,
  VelmoPlaneCr = 1,
  VelmoPlaneCb = 2,
  VelmoPlaneAlpha = 3,
  VelmoPlaneHdr = 4,
  VelmoPlaneCount = 5
};

typedef struct VelmoFrameBufferSet {
  /* Y, Cr, Cb, alpha and the HDR plane; absent planes are null (Cr and Cb in grayscale files;
   * alpha and HDR unless HasAlpha). */
  uint8_t* Planes[VelmoPlaneCount];
} VelmoFrameBufferSet;

typedef struct VelmoFrameBuffers {
  uint32_t Count;                     /* sets in the ring: 2, or 1 for a single-frame file */
  uint32_t Current;                   /* the set that holds the picture shown now */
  uint32_t Width, Height;             /* picture size in pixels */
  uint32_t LumaWidth, LumaHeight;     /* allocated plane size (rounded to the block grid) */
  uint32_t ChromaWidth, ChromaHeight; /* allocated chroma plane size */
  int32_t LumaPitch, ChromaPitch;     /* bytes from one line to the next */
  uint32_t HasAlpha;                  /* the alpha and HDR planes exist */
  VelmoFrameBufferSet Sets[2];
} VelmoFrameBuffers;

#ifdef __cplusplus
}
#endif

#endif
