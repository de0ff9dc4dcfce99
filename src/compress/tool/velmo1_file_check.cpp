// Read-back of first-generation files for tests and the demo.
#include "compress/tool/velmo1_file_check.h"

#include <cstdio>

#include "compress/velmo1_encoder.h"
#include "decode/velmo1_decoder.h"
#include "host/bfile.h"

const char* Velmo1CheckOpen(const char* path, Velmo1FileCheck* out) {
  BufferedFile* f = FileOpenRead(-0x10000, path, FileModeReadOnly);
  if (!f) return VelmoTextHeaderReadError;
  const uint64_t size = FileSizeOf(f);
  if (size > (1ull << 31)) {
    FileClose(f);
    return VelmoTextHeaderReadError;
  }
  out->Bytes.resize(size_t(size));
  const size_t got = FileRead(f, out->Bytes.data(), out->Bytes.size());
  FileClose(f);
  if (got != out->Bytes.size()) return VelmoTextHeaderReadError;
  const char* e = VelmoParseFile(out->Bytes.data(), out->Bytes.size(), &out->Info);
  if (e) return e;
  out->Offsets.assign(out->Info.Header.Frames + 1, 0);
  return VelmoExpandFrameTable(out->Info.Tables, out->Info.Header.Frames, out->Offsets.data(), nullptr);
}

uint32_t Velmo1CheckDecode(const Velmo1FileCheck& file, Velmo1CheckFrameFn frame, void* context) {
  const VelmoFileInfo& info = file.Info;
  if (!MagicIsFirstGeneration(info.Header.Magic)) return 0;
  VelmoFrameBuffers ring{};
  ring.Count = 2;
  ring.Width = info.Width;
  ring.Height = info.Height;
  ring.LumaWidth = Velmo1LumaSize(info.Width);
  ring.LumaHeight = Velmo1LumaSize(info.Height);
  ring.ChromaWidth = Velmo1ChromaSize(info.Width);
  ring.ChromaHeight = Velmo1ChromaSize(info.Height);
  ring.LumaPitch = int32_t(ring.LumaWidth);
  ring.ChromaPitch = int32_t(ring.ChromaWidth);
  const bool alpha = (info.Header.Flags & VelmoFlagAlpha) != 0;
  ring.HasAlpha = alpha;
  const size_t luma = size_t(ring.LumaWidth) * ring.LumaHeight;
  const size_t chroma = size_t(ring.ChromaWidth) * ring.ChromaHeight;
  std::vector<uint8_t> memory(2 * (2 * luma + 2 * chroma), 0);
  uint8_t* at = memory.data();
  for (auto& set : ring.Sets) {
    set.Planes[VelmoPlaneY] = at;
    set.Planes[VelmoPlaneCr] = at + luma;
    set.Planes[VelmoPlaneCb] = at + luma + chroma;
    set.Planes[VelmoPlaneAlpha] = alpha ? at + luma + 2 * chroma : nullptr;
    at += 2 * luma + 2 * chroma;
  }
  uint32_t done = 0;
  std::vector<uint8_t> section;
  for (uint32_t i = 0; i < info.Header.Frames; ++i) {
    const uint64_t start = VelmoEntryOffset(file.Offsets[i]), end = VelmoEntryOffset(file.Offsets[i + 1]);
    if (end < start || end > file.Bytes.size()) break;
    VelmoPacketLayout layout = VelmoWalkFramePacket(file.Bytes.data() + start, size_t(end - start),
                                                    info.TrackCount, nullptr);
    if (!layout.HasVideo) break;
    section.assign(file.Bytes.data() + start + layout.VideoOffset,
                   file.Bytes.data() + start + layout.VideoOffset + layout.VideoSize);
    section.resize(section.size() + 4, 0);
    Velmo1DecodeFrame(&ring, section.data(), section.data() + section.size(), nullptr,
                      alpha ? uint32_t(Velmo1AlphaPlane) : 0u, alpha ? Velmo1FileHasAlpha : 0u,
                      info.Header.Magic);
    ring.Current ^= 1;
    const VelmoFrameBufferSet& now = ring.Sets[ring.Current];
    if (frame)
      frame(context, i, now.Planes[VelmoPlaneY], now.Planes[VelmoPlaneCr], now.Planes[VelmoPlaneCb],
            ring.LumaWidth, ring.ChromaWidth);
    done++;
  }
  return done;
}

#include <cmath>

#include "compress/frame_planes.h"
#include "compress/tool/velmoc_source.h"

namespace {

struct PsnrContext {
  const VelmocSourceOps* ops;
  VelmocSource* source;
  uint32_t width, height;
  bool fullRange, failed;
  std::vector<uint8_t> y, cr, cb;
  double squared;
  uint64_t samples;
};

void PsnrFrame(void* context, uint32_t index, const uint8_t* y, const uint8_t* cr,
               const uint8_t* cb, uint32_t lumaPitch, uint32_t chromaPitch) {
  PsnrContext& c = *static_cast<PsnrContext*>(context);
  const uint32_t* pixels = nullptr;
  int32_t pitch = 0;
  if (!c.ops->frame(c.source, index, &pixels, &pitch)) {
    c.failed = true;
    return;
  }
  const uint32_t cw = (c.width + 1) / 2, ch = (c.height + 1) / 2;
  c.y.assign(size_t(c.width) * c.height, 0);
  c.cr.assign(size_t(cw) * ch, 0);
  c.cb.assign(size_t(cw) * ch, 0);
  VelmoConvertPixels(pixels, pitch, false, c.width, c.height, c.fullRange,
                     {c.y.data(), c.cr.data(), c.cb.data(), nullptr, c.width, cw});
  auto add = [&](const uint8_t* decoded, uint32_t dpitch, const std::vector<uint8_t>& ref,
                 uint32_t w, uint32_t h) {
    for (uint32_t r = 0; r < h; ++r)
      for (uint32_t x = 0; x < w; ++x) {
        const double d = double(decoded[size_t(r) * dpitch + x]) - ref[size_t(r) * w + x];
        c.squared += d * d;
      }
    c.samples += uint64_t(w) * h;
  };
  add(y, lumaPitch, c.y, c.width, c.height);
  add(cr, chromaPitch, c.cr, cw, ch);
  add(cb, chromaPitch, c.cb, cw, ch);
}

}  // namespace

double Velmo1CheckPsnr(const Velmo1FileCheck& file, const VelmocSourceOps* ops,
                       const char* sourceName, uint32_t firstFrame, uint32_t* frames) {
  char error[256];
  VelmocSource* source = ops->open(sourceName, firstFrame, ~0u, error, sizeof error);
  if (!source) return -1.0;
  VelmocSourceInfo info{};
  ops->info(source, &info);
  PsnrContext c{ops, source, info.Width, info.Height,
                (file.Info.Header.Flags & VelmoFlagFullRange) != 0, false, {}, {}, {}, 0.0, 0};
  const bool sameSize = info.Width == file.Info.Width && info.Height == file.Info.Height;
  const uint32_t n = sameSize ? Velmo1CheckDecode(file, PsnrFrame, &c) : 0;
  ops->close(source);
  if (frames) *frames = n;
  if (!sameSize || c.failed || !c.samples) return -1.0;
  const double mse = c.squared / double(c.samples);
  return mse <= 0.0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}
