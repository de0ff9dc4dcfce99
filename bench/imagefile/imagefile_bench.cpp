// Decode and encode speed of each format on a 1280x720 picture held in memory.
#include "imagefile/imagefile.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

constexpr int kWidth = 1280, kHeight = 720;

std::vector<uint32_t> MakePicture() {
  std::vector<uint32_t> px(size_t(kWidth) * kHeight);
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x)
      px[size_t(y) * kWidth + x] = 0xFF000000u | uint32_t(x * 255 / kWidth) << 16 | uint32_t(y * 255 / kHeight) << 8 |
                                   uint32_t((x ^ y) & 255);
  return px;
}

std::vector<uint8_t> Encode(int format, std::vector<uint32_t>& px) {
  ImagePixels view{px.data(), kWidth * 4, kWidth, kHeight, IMAGE_PIXELS_ARGB32};
  const ImageWriteParams params{format, 0, 90, 1};
  void* data = nullptr;
  size_t size = 0;
  ImageWriteMemory(&params, &view, &data, &size, nullptr);
  std::vector<uint8_t> bytes(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
  ImageFreeMemory(data);
  return bytes;
}

void BM_Decode(benchmark::State& state) {
  std::vector<uint32_t> px = MakePicture();
  const std::vector<uint8_t> bytes = Encode(int(state.range(0)), px);
  std::vector<uint32_t> out(px.size());
  ImagePixels view{out.data(), kWidth * 4, kWidth, kHeight, IMAGE_PIXELS_ARGB32};
  for (auto _ : state) {
    ImageFile* file = ImageFileOpenMemory(bytes.data(), bytes.size(), nullptr, nullptr);
    if (!file || !ImageFileReadFrame(file, 0, &view, nullptr)) state.SkipWithError("decode failed");
    ImageFileClose(file);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetLabel(ImageFormatName(int(state.range(0))));
  state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void BM_Encode(benchmark::State& state) {
  std::vector<uint32_t> px = MakePicture();
  for (auto _ : state) benchmark::DoNotOptimize(Encode(int(state.range(0)), px));
  state.SetLabel(ImageFormatName(int(state.range(0))));
  state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

#define FORMATS                                                                                       \
  ->Arg(IMAGE_FORMAT_BMP)->Arg(IMAGE_FORMAT_TGA)->Arg(IMAGE_FORMAT_PNG)->Arg(IMAGE_FORMAT_JPEG) \
      ->Arg(IMAGE_FORMAT_TIFF)->Arg(IMAGE_FORMAT_EXR)->Unit(benchmark::kMillisecond)
BENCHMARK(BM_Decode) FORMATS;
BENCHMARK(BM_Encode) FORMATS;

}  // namespace

BENCHMARK_MAIN();
