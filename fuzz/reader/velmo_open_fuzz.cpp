// Fuzzes the reader library's open and frame walk: arbitrary bytes are opened as a file image in
// memory and through the memory provider (reads on the caller's thread), and every frame is
// walked, decoded and copied out, with a goto and key frame searches on the way.
#include "format/container.h"
#include "reader/velmo_handle.h"
#include "velmo.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

// Headers whose honest memory needs would only measure the machine: an enormous timing ring
// (one slot per frame of a second), frame buffers or packet buffer. They are skipped or opened
// without frame buffers.
bool Affordable(const std::vector<uint8_t>& input, uint32_t* flags) {
  VelmoHeader h;
  if (!VelmoParseHeader(input.data(), input.size(), &h)) return true;  // fails in the open
  if (h.FrameRateDiv == 0 || h.FrameRate == 0) return true;
  if ((uint64_t(h.FrameRate) + h.FrameRateDiv / 2) / h.FrameRateDiv > 100000) return false;
  if (h.LargestFrameSize > (64u << 20)) return false;
  if (uint64_t(VelmoHeaderWidth(h)) * VelmoHeaderHeight(h) > 256 * 256) *flags |= VelmoOpenNoBuffers;
  return true;
}

void Walk(HVELMO h) {
  if (h->Frames == 0 || h->FrameNum != 1) std::abort();
  const uint32_t steps = h->Frames < 48 ? h->Frames + 1 : 48;
  // The copy fills the whole frame (only the frame limits it): a buffer of the frame's size,
  // which the open keeps to 256 x 256 when it has frame buffers.
  const uint32_t width = h->Width ? h->Width : 1, height = h->Height ? h->Height : 1;
  std::vector<uint32_t> pixels(size_t(width) * height);
  for (uint32_t i = 0; i < steps; ++i) {
    VelmoWait(h);
    VelmoDoFrame(h);
    VelmoCopyToBuffer(h, pixels.data(), int32_t(width * 4), int32_t(height), 0, 0, 3);
    VelmoNextFrame(h);
    if (!h->ReadError && (h->FrameNum < 1 || h->FrameNum > h->Frames)) std::abort();
  }
  VelmoGoto(h, h->Frames / 2, 0);
  VelmoGetKeyFrame(h, h->Frames, VelmoKeyNearest | VelmoKeyNotSelf);
  VelmoGetKeyFrame(h, 1, VelmoKeyForward);
  VelmoSummary summary;
  VelmoGetSummary(h, &summary);
  VelmoRealtime realtime;
  VelmoGetRealtime(h, &realtime, 5);
  VelmoClose(h);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact-size copy, so that any read past the input is caught.
  std::vector<uint8_t> input(data, data + size);
  uint32_t flags = 0;
  if (!Affordable(input, &flags)) return 0;

  VelmoOpenOptions image{};
  image.ImageSize = input.size();
  if (HVELMO h = VelmoOpenWithOptions(reinterpret_cast<const char*>(input.data()), &image,
                                      flags | VelmoOpenImage))
    Walk(h);

  VelmoMemorySpan span{input.data(), input.size()};
  VelmoOpenOptions custom{};
  custom.CustomIO = VelmoMemoryProviderOpen;
  if (HVELMO h = VelmoOpenWithOptions(reinterpret_cast<const char*>(&span), &custom,
                                      flags | VelmoOpenCustomIO | VelmoOpenNoBackground))
    Walk(h);
  return 0;
}
