// Fuzzes the second-generation frame decoder with a key frame and then an inter frame of the
// same picture, decoded in one share or in several shares one after another, then the seams.
//
// Input: byte 0 picks the picture size (8x8, 40x127, 72x128, 100x97, 48x96, 200x160, 136x264,
// 24x300: single 8x8 blocks; heights that round up to 128 lines and have the file's slice
// count, and 96 lines that are one slice; widths that are not whole macroblocks). Byte 1: bits 0-1 the slice mode of the file flags, bits 2-3 the tag
// ("VM2g", "VM2h", "VM2j", "VM2m"), bit 4 an alpha plane, bit 5 an HDR plane, bits 6-7 the
// split into shares (0: one share of all slices; 1: a share per slice; 2: shares of two
// slices; 3: a new share before slice k + 1 where byte 2 has bit k set). Byte 2 bit 7 decodes
// the shares last first. Bytes 3-4: the key frame section's length, little-endian; the key
// section follows, and the rest of the input is the inter frame section. Each section is
// copied to a buffer of its exact size, so any read past it is caught; writes outside the
// planes are caught by the guard bytes around every plane.
#include "decode/velmo2_decoder.h"
#include "host/cpu_features.h"
#include "support/velmo2_stream.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct Size {
  uint32_t Width, Height;
};
constexpr Size kSizes[8] = {{8, 8},   {40, 127},  {72, 128},  {100, 97},
                            {48, 96}, {200, 160}, {136, 264}, {24, 300}};
constexpr char kTags[4] = {'g', 'h', 'j', 'm'};

struct Share {
  uint32_t First, Count;
};

std::vector<Share> SplitShares(uint32_t slices, uint32_t split, uint32_t cuts) {
  std::vector<Share> shares;
  uint32_t first = 0;
  for (uint32_t k = 1; k <= slices; ++k) {
    const bool cut = k == slices || (split == 1) || (split == 2 && k % 2 == 0) ||
                     (split == 3 && (cuts >> (k - 1) & 1));
    if (cut) {
      shares.push_back({first, k - first});
      first = k;
    }
  }
  return shares;
}

// Decodes one frame's section share by share, then the seams; aborts on a result outside the
// known ones or on a damaged guard byte.
void DecodeFrame(Velmo2Decoder* decoder, velmo2_test::Frames& frames, const uint8_t* data,
                 size_t size, bool key, const std::vector<Share>& shares, bool reverse) {
  std::unique_ptr<uint8_t[]> section(new uint8_t[size ? size : 1]);
  if (size) std::memcpy(section.get(), data, size);
  for (size_t i = 0; i < shares.size(); ++i) {
    const Share& s = shares[reverse ? shares.size() - 1 - i : i];
    const Velmo2FrameResult result =
        Velmo2DecodeFrame(decoder, &frames.Fb, section.get(), size, key, s.First, s.Count);
    if (result > Velmo2FrameNoDecoder) std::abort();
  }
  Velmo2DecoderFinishSeams(decoder, &frames.Fb);
  if (!frames.GuardsIntact()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 5) return 0;
  const Size& picture = kSizes[data[0] & 7];
  const uint32_t control = data[1], cuts = data[2];
  const bool alpha = control & 16, hdr = control & 32;

  Velmo2DecoderSetup setup{};
  setup.Width = picture.Width;
  setup.Height = picture.Height;
  setup.Tag[0] = 'V';
  setup.Tag[1] = 'M';
  setup.Tag[2] = '2';
  setup.Tag[3] = kTags[control >> 2 & 3];
  setup.FileFlags = control & 3;
  setup.Alpha = alpha;
  setup.Hdr = hdr;
  setup.Features = ProcessorFeatures();
  setup.SeamRecords = nullptr;
  Velmo2Decoder* decoder = Velmo2DecoderCreate(setup);
  if (!decoder) std::abort();  // every size here is in range

  velmo2_test::Frames frames(picture.Width, picture.Height, alpha, hdr);
  frames.Fill(0, 0x80);
  const std::vector<Share> shares =
      SplitShares(Velmo2DecoderLayout(decoder).Slices, control >> 6, cuts);
  const bool reverse = cuts & 0x80;

  const size_t rest = size - 5;
  const size_t keySize = std::min<size_t>(rest, size_t(data[3]) | size_t(data[4]) << 8);
  DecodeFrame(decoder, frames, data + 5, keySize, true, shares, reverse);
  frames.Fb.Current ^= 1;
  DecodeFrame(decoder, frames, data + 5 + keySize, rest - keySize, false, shares, reverse);
  Velmo2DecoderDestroy(decoder);
  return 0;
}
