/* The public header compiled as C, linked against libvelmo.so: a tiny first-generation file is
 * built by hand, opened from memory and from disk, and walked by reading the handle's public
 * fields. The same program is built again from an installed copy with pkg-config alone. */
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

/* "VLMi", 3 frames of 8 bytes, 16 x 16 at 30 per second, no tracks. The frame table follows the
 * header at 44; frame 1 (a key frame) starts at 60. */
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
  for (i = 0; i <= frames; ++i) put32(file + 44 + 4 * i, (first + i * frameBytes) | (i == 0));
  for (i = 0; i < frames * frameBytes; ++i) file[first + i] = (unsigned char)i;
  return end;
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
  walk_from_disk(file, size);

  if (failures == 0) printf("velmo.h from C: all checks passed\n");
  return failures ? 1 : 0;
}
