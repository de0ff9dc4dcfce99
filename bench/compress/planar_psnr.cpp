// What the planar path gains: compresses a Y4M clip twice at one data rate, once with its frames
// handed to the frame loop as the file's own planes and once as RGB pixels (the way every
// frame went before), and compares each decoded Y, Cr and Cb plane with the source planes
// brought exactly (in floating point) into the output's range. Prints one line per path:
//   path bytes psnr_y psnr_cr psnr_cb
// Usage: planar_psnr <clip.y4m> <bytes per second> [version (101)] [frames (all)]
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "compress/frame_loop.h"
#include "compress/tool/velmo1_file_check.h"
#include "media/media.h"

namespace {

struct PlaneError {
  double Squared = 0.0;
  uint64_t Samples = 0;
  double Psnr() const {
    const double mse = Samples ? Squared / double(Samples) : 0.0;
    return mse <= 0.0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
  }
};

// The source frame's planes, taken from a second reading of the clip as the decoder goes on.
struct Reference {
  MediaInput* Input;
  bool FullOut;
  PlaneError Errors[3];  // Y, Cr, Cb
};

// A source sample in the output's range: luma spans 219 steps from 16 in limited range, chroma
// 224 around 128; full range spans 255.
double ToOutputRange(uint8_t v, bool luma, bool fullIn, bool fullOut) {
  if (fullIn == fullOut) return v;
  const double steps = luma ? 219.0 : 224.0, limitedZero = luma ? 16.0 : 128.0;
  const double fullZero = luma ? 0.0 : 128.0;
  if (fullOut) return (v - limitedZero) * 255.0 / steps + fullZero;
  return (v - fullZero) * steps / 255.0 + limitedZero;
}

void Compare(Reference& ref, const uint8_t* decoded, uint32_t pitch, const uint8_t* source,
             int32_t sourcePitch, uint32_t w, uint32_t h, bool luma, bool fullIn, int index) {
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      const double want = ToOutputRange(source[int64_t(sourcePitch) * y + x], luma, fullIn, ref.FullOut);
      const double d = decoded[size_t(y) * pitch + x] - want;
      ref.Errors[index].Squared += d * d;
    }
  ref.Errors[index].Samples += uint64_t(w) * h;
}

void CompareFrame(void* context, uint32_t, const uint8_t* y, const uint8_t* cr, const uint8_t* cb,
                  uint32_t lumaPitch, uint32_t chromaPitch) {
  Reference& ref = *static_cast<Reference*>(context);
  MediaPlanes p{};
  if (!MediaGetFrame(ref.Input, 0, 0, 0, 100, 1.0, 0) || !MediaFramePlanes(ref.Input, &p) ||
      !p.chroma_shift)
    return;
  const bool full = p.full_range != 0;
  const uint32_t cw = (p.width + 1) / 2, ch = (p.height + 1) / 2;
  Compare(ref, y, lumaPitch, p.plane[0], p.pitch[0], p.width, p.height, true, full, 0);
  Compare(ref, cr, chromaPitch, p.plane[2], p.pitch[2], cw, ch, false, full, 1);
  Compare(ref, cb, chromaPitch, p.plane[1], p.pitch[1], cw, ch, false, full, 2);
}

MediaInput* OpenClip(const char* name, uint32_t frames) {
  MediaOpenArgs args{};
  if (frames) {
    args.start = 1;
    args.end = int32_t(frames);
  }
  return MediaOpenWith(name, &args);
}

// One compression of the clip; false when the clip is not a 4:2:0 planar input.
bool Compress(const char* clip, const std::string& out, uint32_t rate, uint32_t version,
              uint32_t frames, bool planar) {
  MediaInput* in = OpenClip(clip, frames);
  if (!in) return false;
  VelmoWriter* writer = VelmoWriterOpen(out.c_str(), 0, version, in->output_width,
                                        in->output_height, in->output_frames, 0, nullptr,
                                        in->output_rate_num, in->output_rate_den, 0, nullptr,
                                        10000, nullptr, nullptr, nullptr);
  VelmoFrameLoop* loop = writer ? VelmoFrameLoopOpen(writer, 8, 0, 0) : nullptr;
  const uint32_t perFrame =
      uint32_t(uint64_t(rate) * in->output_rate_den / in->output_rate_num);
  bool ok = loop != nullptr;
  while (ok && !in->at_end && MediaGetFrame(in, 0, 0, 0, 100, 1.0, 0)) {
    MediaPlanes p{};
    if (!MediaFramePlanes(in, &p) || !p.chroma_shift) ok = false;
    else if (planar)
      VelmoFrameLoopAddYuv(loop, perFrame, perFrame * 3, false,
                           {p.plane[0], p.plane[1], p.plane[2], nullptr, p.pitch[0], p.pitch[1],
                            0, true, p.full_range != 0});
    else
      VelmoFrameLoopAdd(loop, perFrame, perFrame * 3, false, in->output_buffer,
                        int32_t(in->output_pitch), false);
    if (ok) VelmoFrameLoopCommit(loop);
  }
  VelmoFrameLoopFree(loop);
  if (writer) ok = VelmoWriterClose(writer, !ok) != 0 && ok;
  MediaClose(in);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: planar_psnr <clip.y4m> <bytes per second> [version] [frames]\n");
    return 2;
  }
  const uint32_t rate = uint32_t(std::strtoul(argv[2], nullptr, 10));
  const uint32_t version = argc > 3 ? uint32_t(std::strtoul(argv[3], nullptr, 10)) : 101;
  const uint32_t frames = argc > 4 ? uint32_t(std::strtoul(argv[4], nullptr, 10)) : 0;
  const std::string out = "/tmp/planar_psnr_" + std::to_string(getpid()) + ".vlm";
  std::printf("path bytes psnr_y psnr_cr psnr_cb\n");
  for (const bool planar : {true, false}) {
    if (!Compress(argv[1], out, rate, version, frames, planar)) {
      std::fprintf(stderr, "%s: not a 4:2:0 planar clip, or the compression failed\n", argv[1]);
      return 1;
    }
    Velmo1FileCheck file;
    if (Velmo1CheckOpen(out.c_str(), &file)) return 1;
    Reference ref{OpenClip(argv[1], frames), version > 100, {}};
    Velmo1CheckDecode(file, CompareFrame, &ref);
    MediaClose(ref.Input);
    std::printf("%s %zu %.3f %.3f %.3f\n", planar ? "planes" : "rgb", file.Bytes.size(),
                ref.Errors[0].Psnr(), ref.Errors[1].Psnr(), ref.Errors[2].Psnr());
    std::remove(out.c_str());
  }
  return 0;
}
