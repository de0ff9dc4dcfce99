/* The public header compiled as C, linked against libvelmo.so: a tiny first-generation file is
 * built by hand, opened from memory and from disk, and walked by reading the handle's public
 * fields and its frame buffers, and through the async worker threads. The same program is built
 * again from an installed copy with pkg-config alone. */
#define _POSIX_C_SOURCE 200809L
#include "velmo.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static int failures = 0;

#define CHECK(cond)                                              \
  do {                                                           \
    if (!(cond)) {                                               \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                \
    }                                                            \
  } while (0)

static void put32(unsigned char* at, uint32_t value) {
  at[0] = (unsigned char)value;
  at[1] = (unsigned char)(value >> 8);
  at[2] = (unsigned char)(value >> 16);
  at[3] = (unsigned char)(value >> 24);
}

/* "VLMi", 3 frames of 8 bytes, 16 x 16 at 30 per second, full range, no tracks. The frame
 * table follows the header at 44; frame 1 (a key frame) starts at 60. */
static size_t build_file(unsigned char* file) {
  const uint32_t first = 60, frames = 3, frameBytes = 8;
  const uint32_t end = first + frames * frameBytes;
  uint32_t i;
  memset(file, 0, end);
  memcpy(file, "VLMi", 4);
  put32(file + 4, end - 8);
  put32(file + 8, frames);
  put32(file + 12, frameBytes);
  put32(file + 16, frames);
  put32(file + 20, 16);
  put32(file + 24, 16);
  put32(file + 28, 30);
  put32(file + 32, 1);
  put32(file + 36, VelmoFlagFullRange);
  for (i = 0; i <= frames; ++i) put32(file + 44 + 4 * i, (first + i * frameBytes) | (i == 0));
  for (i = 0; i < frames * frameBytes; ++i) file[first + i] = (unsigned char)i;
  return end;
}

/* The last byte of a plane's picture area, at (width - 1, height - 1). */
static unsigned char last_pixel(const uint8_t* plane, int32_t pitch, uint32_t width,
                                uint32_t height) {
  return plane[(size_t)(height - 1) * (size_t)pitch + (width - 1)];
}

/* Opened with frame buffers, as a player that draws the planes itself: the ring, its plane
 * sizes and pitches against the picture size, the fill of a fresh picture (black, neutral
 * chroma), and the same picture through the copy call in two surface formats. */
static void check_frame_buffers(const unsigned char* file, size_t size) {
  VelmoOpenOptions options;
  const VelmoFrameBuffers* fb;
  const VelmoFrameBufferSet* set;
  uint32_t pixels[16 * 16 + 1];
  uint16_t pixels16[16 * 16 + 1];
  uint32_t chromaWidth, chromaHeight, s, i, same;
  HVELMO h;
  memset(&options, 0, sizeof options);
  options.ImageSize = size;
  h = VelmoOpenWithOptions((const char*)file, &options, VelmoOpenImage);
  CHECK(h != NULL && h->FrameBuffers != NULL);
  if (!h || !h->FrameBuffers) return;
  CHECK((h->FileFlags & VelmoFlagFullRange) != 0 && (h->OpenFlags & VelmoOpenFullRange) != 0);
  CHECK((h->FileFlags & (VelmoFlagGrayscale | VelmoFlagAlpha | VelmoFlagHdr)) == 0);
  fb = h->FrameBuffers;
  CHECK(fb->Count == 2 && fb->Current < fb->Count);
  CHECK(fb->Width == h->Width && fb->Height == h->Height && fb->HasAlpha == 0);
  chromaWidth = (fb->Width + 1) / 2;
  chromaHeight = (fb->Height + 1) / 2;
  CHECK(fb->LumaWidth >= fb->Width && fb->LumaHeight >= fb->Height);
  CHECK(fb->ChromaWidth >= chromaWidth && fb->ChromaHeight >= chromaHeight);
  CHECK(fb->LumaPitch >= (int32_t)fb->LumaWidth && fb->ChromaPitch >= (int32_t)fb->ChromaWidth);
  for (s = 0; s < fb->Count; ++s) {
    set = &fb->Sets[s];
    CHECK(set->Planes[VelmoPlaneY] && set->Planes[VelmoPlaneCr] && set->Planes[VelmoPlaneCb]);
    CHECK(set->Planes[VelmoPlaneAlpha] == NULL && set->Planes[VelmoPlaneHdr] == NULL);
    if (!set->Planes[VelmoPlaneY] || !set->Planes[VelmoPlaneCr] || !set->Planes[VelmoPlaneCb])
      continue;
    /* The planes of a set do not overlap: Cr starts past all of Y, Cb past all of Cr. */
    CHECK(set->Planes[VelmoPlaneCr] - set->Planes[VelmoPlaneY] >=
          (ptrdiff_t)fb->LumaPitch * fb->LumaHeight);
    CHECK(set->Planes[VelmoPlaneCb] - set->Planes[VelmoPlaneCr] >=
          (ptrdiff_t)fb->ChromaPitch * fb->ChromaHeight);
    CHECK(set->Planes[VelmoPlaneY][0] == 0 &&
          last_pixel(set->Planes[VelmoPlaneY], fb->LumaPitch, fb->Width, fb->Height) == 0);
    CHECK(last_pixel(set->Planes[VelmoPlaneCr], fb->ChromaPitch, chromaWidth, chromaHeight) ==
              128 &&
          last_pixel(set->Planes[VelmoPlaneCb], fb->ChromaPitch, chromaWidth, chromaHeight) ==
              128);
  }
  CHECK(fb->Sets[0].Planes[VelmoPlaneY] != fb->Sets[1].Planes[VelmoPlaneY]);

  /* Black, opaque: alpha is all ones in a 32-bit surface without an alpha plane. The last
   * entry lies past the surface and stays as it was. */
  memset(pixels, 0x5A, sizeof pixels);
  CHECK(VelmoCopyToBuffer(h, pixels, 16 * 4, 16, 0, 0, VelmoSurfaceXrgb32) == 0);
  for (i = 0, same = 0; i < 16 * 16; ++i) same += pixels[i] == 0xFF000000u;
  CHECK(same == 16 * 16 && pixels[16 * 16] == 0x5A5A5A5Au);
  memset(pixels16, 0x5A, sizeof pixels16);
  CHECK(VelmoCopyToBuffer(h, pixels16, 16 * 2, 16, 0, 0, VelmoSurfaceRgb565) == 0);
  for (i = 0, same = 0; i < 16 * 16; ++i) same += pixels16[i] == 0;
  CHECK(same == 16 * 16 && pixels16[16 * 16] == 0x5A5A);
  /* A format without a conversion writes nothing. */
  memset(pixels, 0x5A, sizeof pixels);
  VelmoCopyToBuffer(h, pixels, 16 * 4, 16, 0, 0, 7 | VelmoCopyNeverSkip);
  CHECK(pixels[0] == 0x5A5A5A5Au && pixels[255] == 0x5A5A5A5Au);
  VelmoClose(h);
}

/* The file written to disk, opened by path through the default provider and its reader
 * thread, walked round twice; every packet is checked against the bytes written. */
static void walk_from_disk(const unsigned char* file, size_t size) {
  char path[] = "/tmp/velmo_h_c_XXXXXX";
  const int fd = mkstemp(path);
  const struct timespec ms = {0, 1000000};
  HVELMO h;
  int i;
  CHECK(fd >= 0);
  if (fd < 0) return;
  CHECK(write(fd, file, size) == (ssize_t)size);
  close(fd);
  h = VelmoOpen(path, VelmoOpenNoBuffers);
  CHECK(h != NULL);
  if (h) {
    CHECK(h->Frames == 3 && h->FrameNum == 1);
    for (i = 0; i < 6; ++i) {
      const uint32_t frame = h->FrameNum;
      CHECK(frame == (uint32_t)(i % 3 + 1));
      while (VelmoWait(h)) nanosleep(&ms, NULL); /* until the packet is in and the frame is due */
      CHECK(VelmoDoFrame(h) == 1);
      CHECK(h->ReadError == 0);
      CHECK(h->FrameSize == 8 && h->FrameData[0] == (unsigned char)((frame - 1) * 8) &&
            h->FrameData[7] == (unsigned char)((frame - 1) * 8 + 7));
      VelmoNextFrame(h);
    }
    VelmoClose(h);
  }
  remove(path);
}

/* Frames given to two async worker threads and collected: each frame completes (a second decode
 * of it is refused), the walk moves on, and a close with slices out waits for them. */
static void async_frames(const unsigned char* file, size_t size) {
  VelmoOpenOptions options;
  const uint32_t numbers[2] = {0, 1};
  uint32_t frame;
  HVELMO h;
  memset(&options, 0, sizeof options);
  options.ImageSize = size;
  CHECK(VelmoStartAsyncThread(64) == 0);
  CHECK(strcmp(VelmoGetError(), "Out of range thread number.") == 0);
  CHECK(VelmoStartAsyncThread(0) == 1 && VelmoStartAsyncThread(1) == 1);
  CHECK(VelmoAsyncQueueFree(0) == 256);
  h = VelmoOpenWithOptions((const char*)file, &options, VelmoOpenImage);
  CHECK(h != NULL);
  if (!h) return;
  for (frame = 1; frame <= 3; ++frame) {
    CHECK(h->FrameNum == frame);
    CHECK(VelmoDoFrameAsync(h, numbers, 2) == 1);
    CHECK(VelmoDoFrameAsyncWait(h, -1) == 1);
    CHECK(VelmoDoFrame(h) == 0);
    VelmoNextFrame(h);
  }
  CHECK(h->FrameNum == 1);
  CHECK(VelmoDoFrameAsync(h, numbers, 2) == 1);
  VelmoClose(h);
  CHECK(VelmoWaitStopAsyncThread(0) == 1 && VelmoWaitStopAsyncThread(1) == 1);
}

int main(void) {
  unsigned char file[128];
  const size_t size = build_file(file);
  VelmoOpenOptions options;
  HVELMO h;
  uint32_t seen[4];
  int i;

  memset(&options, 0, sizeof options);
  options.ImageSize = size;
  h = VelmoOpenWithOptions((const char*)file, &options, VelmoOpenImage | VelmoOpenNoBuffers);
  CHECK(h != NULL);
  if (!h) return 1;
  CHECK(((uintptr_t)h & 255) == 0);
  CHECK(h->Width == 16 && h->Height == 16);
  CHECK(h->Frames == 3);
  CHECK(h->FrameRate == 30 && h->FrameRateDiv == 1);
  CHECK(h->FrameNum == 1);
  CHECK(h->FrameSize == 8 && h->FrameIsKey == 1);
  CHECK(h->FrameData != NULL && h->FrameData[1] == 1);
  CHECK(h->FrameBuffers == NULL);
  CHECK((h->OpenFlags & VelmoOpenImage) != 0);
  CHECK(h->FileSize == size - 8);
  CHECK(h->IOProvider.Owner == h);
  CHECK(h->InFrame == 0);
  CHECK(VelmoGetKeyFrame(h, 3, VelmoKeyBackward) == 1);
  CHECK(VelmoDoFrame(h) == 1);
  for (i = 0; i < 4; ++i) {
    VelmoNextFrame(h);
    seen[i] = h->FrameNum;
  }
  CHECK(seen[0] == 2 && seen[1] == 3 && seen[2] == 1 && seen[3] == 2);
  CHECK(h->FrameData[0] == 8);
  VelmoClose(h);

  file[0] = 'X';
  CHECK(VelmoOpenWithOptions((const char*)file, &options, VelmoOpenImage) == NULL);
  CHECK(strcmp(VelmoGetError(), "Not a Velmo file.") == 0);

  file[0] = 'V';
  check_frame_buffers(file, size);
  walk_from_disk(file, size);
  async_frames(file, size);

  if (failures == 0) printf("velmo.h from C: all checks passed\n");
  return failures ? 1 : 0;
}
