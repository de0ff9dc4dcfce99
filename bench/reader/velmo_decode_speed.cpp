// Single-threaded decode speed of a Velmo file (.vlm or .vm2) through the reader library, for
// bench/rate_quality.py. Each timed pass opens the file, decodes every frame in the caller's
// thread with VelmoDoFrame and closes it; the best pass counts. With --y4m, one more pass writes
// the decoded pictures (Y, Cb, Cr; 4:2:0) to a Y4M file so that a script can measure them
// against the source the same way it measures any other decoder's output.
// Prints one line:
//   frames <n> width <w> height <h> fullrange <0|1> seconds <best pass> fps <frames per second>
// Usage: velmo_decode_speed <file> [--passes N] [--y4m out.y4m]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "velmo.h"

namespace {

constexpr uint32_t kOpenFlags = VelmoOpenNoBackground | VelmoOpenNeverSkip;

struct Options {
  const char* File = nullptr;
  const char* Y4m = nullptr;
  int Passes = 3;
};

bool ParseOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--passes") == 0 && i + 1 < argc) {
      o.Passes = std::atoi(argv[++i]);
      if (o.Passes < 1) return false;
    } else if (std::strcmp(argv[i], "--y4m") == 0 && i + 1 < argc) {
      o.Y4m = argv[++i];
    } else if (!o.File && argv[i][0] != '-') {
      o.File = argv[i];
    } else {
      return false;
    }
  }
  return o.File != nullptr;
}

// Writes the picture area of one plane, line by line.
bool WritePlane(std::FILE* f, const uint8_t* plane, int32_t pitch, uint32_t w, uint32_t h) {
  for (uint32_t r = 0; r < h; ++r)
    if (std::fwrite(plane + size_t(r) * size_t(pitch), 1, w, f) != w) return false;
  return true;
}

bool WriteFrame(std::FILE* f, HVELMO h) {
  const VelmoFrameBuffers& fb = *h->FrameBuffers;
  const VelmoFrameBufferSet& set = fb.Sets[fb.Current];
  const uint32_t cw = (h->Width + 1) / 2, ch = (h->Height + 1) / 2;
  if (!set.Planes[VelmoPlaneCr] || !set.Planes[VelmoPlaneCb]) {
    std::fprintf(stderr, "the file has no colour planes\n");
    return false;
  }
  return std::fputs("FRAME\n", f) >= 0 &&
         WritePlane(f, set.Planes[VelmoPlaneY], fb.LumaPitch, h->Width, h->Height) &&
         WritePlane(f, set.Planes[VelmoPlaneCb], fb.ChromaPitch, cw, ch) &&
         WritePlane(f, set.Planes[VelmoPlaneCr], fb.ChromaPitch, cw, ch);
}

// One pass over the whole file. Returns the frames decoded (all of them on success) and, when
// `out` is given, writes each picture to it. `seconds` covers open to close.
struct Shape {
  uint32_t Frames = 0, Width = 0, Height = 0;
  bool FullRange = false;  // samples span 0..255; else Y 16..235 and chroma 16..240
};
uint32_t DecodePass(const char* name, std::FILE* out, double& seconds, Shape& shape) {
  const auto start = std::chrono::steady_clock::now();
  HVELMO h = VelmoOpen(name, kOpenFlags);
  if (!h) {
    std::fprintf(stderr, "Couldn't open %s: %s\n", name, VelmoGetError());
    return 0;
  }
  shape = {h->Frames, h->Width, h->Height, (h->OpenFlags & VelmoOpenFullRange) != 0};
  if (out && !h->FrameBuffers) {
    std::fprintf(stderr, "%s opened without frame buffers\n", name);
    VelmoClose(h);
    return 0;
  }
  if (out) std::fprintf(out, "YUV4MPEG2 W%u H%u F%u:%u Ip A1:1 C420jpeg\n", h->Width, h->Height,
                        h->FrameRate, h->FrameRateDiv ? h->FrameRateDiv : 1);
  uint32_t got = 0;
  while (got < h->Frames) {
    if (!VelmoDoFrame(h)) {
      std::fprintf(stderr, "frame %u did not decode: %s\n", got + 1, VelmoGetError());
      break;
    }
    if (out && !WriteFrame(out, h)) {
      std::fprintf(stderr, "writing frame %u failed\n", got + 1);
      break;
    }
    ++got;
    VelmoNextFrame(h);
  }
  VelmoClose(h);
  seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return got;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!ParseOptions(argc, argv, o)) {
    std::fprintf(stderr, "usage: velmo_decode_speed <file> [--passes N] [--y4m out.y4m]\n");
    return 2;
  }
  Shape shape;
  double best = 0.0;
  for (int pass = 0; pass < o.Passes; ++pass) {
    double t = 0.0;
    const uint32_t got = DecodePass(o.File, nullptr, t, shape);
    if (!shape.Frames || got != shape.Frames) {
      std::fprintf(stderr, "%u of %u frames decoded\n", got, shape.Frames);
      return 1;
    }
    if (pass == 0 || t < best) best = t;
  }
  if (o.Y4m) {
    std::FILE* out = std::fopen(o.Y4m, "wb");
    if (!out) {
      std::fprintf(stderr, "Couldn't create %s\n", o.Y4m);
      return 1;
    }
    double t = 0.0;
    Shape again;
    const uint32_t got = DecodePass(o.File, out, t, again);
    const bool closed = std::fclose(out) == 0;
    if (got != shape.Frames || !closed) {
      std::fprintf(stderr, "writing %s stopped after %u of %u frames\n", o.Y4m, got, shape.Frames);
      return 1;
    }
  }
  std::printf("frames %u width %u height %u fullrange %d seconds %.6f fps %.2f\n", shape.Frames,
              shape.Width, shape.Height, shape.FullRange ? 1 : 0, best,
              best > 0.0 ? shape.Frames / best : 0.0);
  return 0;
}
