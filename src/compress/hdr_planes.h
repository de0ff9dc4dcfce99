// Wide-range input for the second generation: linear BT.2020 RGB floats (1.0 = 80 nits) into
// I-Ct-Cp planes. The intensity goes to the Y plane and continues above full scale in the HDR
// plane; Ct and Cp go, scaled and centred by a tone-map row chosen by the peak in nits, to the
// two half-size chroma planes. The file's HDR block holds the figures a reader needs to undo it.
#pragma once
#include <cstddef>
#include <cstdint>

// The tone-map table: one row a 10 nits, row r standing for (r - 1) x 10 nits.
enum : uint32_t { VelmoToneRows = 1002 };

struct VelmoToneRow {
  float T1, T2, C1, C2;  // scale and centre of the Ct and the Cp plane
};

// Row `row` (1 .. VelmoToneRows) of the table; rows out of range give the nearest one.
VelmoToneRow VelmoToneMapRow(uint32_t row);

// What a peak in nits settles for a run: the HDR block and the figures of the conversion.
struct VelmoHdrSetup {
  uint32_t Nits;         // the peak, held to 80 .. 10000
  float InversePeak;     // 1 / P, P the ST 2084 curve value of the peak
  VelmoToneRow Row;      // row Nits / 10 + 1 of the table
  int16_t Block[6];      // the HDR block: P / 2, 1 / T1, 1 / T2, -C1 / T1, -C2 / T2 (x 32767), nits
};

VelmoHdrSetup VelmoHdrSetupFor(uint32_t nits);

// Linear light (1.0 = 10000 nits) to its ST 2084 code value through the interpolated table;
// the value is held to 2^-34 .. 1 first.
float VelmoPqFromLinear(float linear);

// Converts one frame of four floats a pixel (R, G, B, A), `pitch` signed bytes between rows,
// into Y, HDR and alpha (at `lumaPitch`; alpha may be null) and the Ct, Cp planes (half size,
// rounded up, at `chromaPitch`). Odd edges count their neighbour again. The rows run on the
// job pool.
struct VelmoHdrTargets {
  uint8_t* Y;
  uint8_t* Ct;
  uint8_t* Cp;
  uint8_t* Alpha;
  uint8_t* Hdr;
  uint32_t LumaPitch, ChromaPitch;
};
void VelmoConvertHdrPixels(const void* pixels, int32_t pitch, uint32_t width, uint32_t height,
                           const VelmoHdrSetup& setup, const VelmoHdrTargets& out);

// The greatest value of a plane of `width` x `height` at `pitch`, starting from `seen` and
// stopping once it reaches 255.
uint8_t VelmoHdrPlaneMax(const uint8_t* plane, uint32_t pitch, uint32_t width, uint32_t height,
                         uint8_t seen);

// The run's closing remark on the HDR plane's greatest value `maxCode` against the peak the
// run was given: the text to show (beginning with '@'), or false when there is nothing to say.
bool VelmoHdrPeakRemark(uint32_t maxCode, uint32_t inputNits, char* text, size_t size);
