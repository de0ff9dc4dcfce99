// Colour tables of Velmo files and the descriptive texts the file information shows.
#include "format/container.h"

#include <cstdio>
#include <cstring>

namespace {

// Rows Cr, Cb, offset, Y; each red, green, blue, alpha.
const float VideoRangeTable[16] = {
    1.595795f, -0.813477f, 0.0f,       0.0f,  //
    0.0f,      -0.391449f, 2.017822f,  0.0f,  //
    -0.874069f, 0.531782f, -1.085911f, 1.0f,  //
    1.164124f, 1.164124f,  1.164124f,  0.0f,
};

const float FullRangeTable[16] = {
    1.402f,     -0.71414f, 0.0f,       0.0f,  //
    0.0f,       -0.34414f, 1.772f,     0.0f,  //
    -0.703749f, 0.531215f, -0.889475f, 1.0f,  //
    1.0f,       1.0f,      1.0f,       0.0f,
};

}  // namespace

void VelmoDefaultColourTable(uint32_t magic, uint32_t flags, float out[16]) {
  std::memcpy(out, (flags & VelmoFlagFullRange) ? FullRangeTable : VideoRangeTable,
              16 * sizeof(float));
  if (MagicHasSwappedChroma(magic)) {
    // The oldest files name their chroma planes the other way round.
    for (int i = 0; i < 3; ++i) {
      const float cr = out[VelmoColourRowCr + i];
      out[VelmoColourRowCr + i] = out[VelmoColourRowCb + i];
      out[VelmoColourRowCb + i] = cr;
    }
  }
}

void VelmoFileColourTable(uint32_t magic, uint32_t flags, const VelmoExtras& extras,
                          float out[16]) {
  if (extras.HasMatrix) {
    std::memcpy(out, extras.Matrix, 16 * sizeof(float));
  } else if (extras.HasHdr) {
    for (int i = 0; i < 16; ++i) out[i] = 0.0f;
    for (int i = 0; i < 5; ++i) out[i] = extras.HdrCoefficients[i];
    out[5] = float(extras.MaxNits);
  } else {
    VelmoDefaultColourTable(magic, flags, out);
  }
}

void VelmoStampText(uint32_t stamp, char* out, size_t outSize) {
  if (out == nullptr || outSize == 0) return;
  if (stamp & 0x80000000u) {
    const int major = int((stamp >> 16) & 0x7FFF);
    const int minor = int((stamp >> 8) & 0xFF);
    const int patch = int(stamp & 0xFF);
    char suffix[8] = "";
    if (patch != 1) std::snprintf(suffix, sizeof suffix, ".%d", patch);
    std::snprintf(out, outSize, "Compressed with Velmo %d.%d%s", major, minor, suffix);
  } else {
    const int major = int(stamp >> 24);
    const int minor = int((stamp >> 16) & 0xFF);
    const int letter = int(uint8_t('a' + ((stamp >> 8) & 0xFF)));
    std::snprintf(out, outSize, "Compressed with Velmo %d.%d%c", major, minor, letter);
  }
}

const char* VelmoColourSpaceText(uint32_t flags) {
  if (flags & VelmoFlagHdr) return "Uses HDR I-Ct-Cp colorspace.";
  if (flags & VelmoFlagFullRange) return "Uses full y-cr-cb colorspace.";
  return "Uses old y-cr-cb colorspace.";
}

void VelmoFrameKindText(uint32_t flags, char* out, size_t outSize) {
  if (out == nullptr || outSize == 0) return;
  std::snprintf(out, outSize, "%s%s", (flags & VelmoFlagGrayscale) ? "Grayscale" : "Color",
                (flags & VelmoFlagAlpha) ? " with alpha plane" : "");
}
