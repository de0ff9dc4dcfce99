#include "decode/velmo2_filter.h"

#include <cstring>

#include "decode/velmo2_kernels.h"

namespace {

uint8_t Clamp255(int32_t v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

uint32_t Remaining(uint32_t size, uint32_t start) {
  return start >= size ? 0 : size - start < 8 ? size - start : 8;
}

}  // namespace

void Velmo2FilterEdge(uint8_t* q0, ptrdiff_t across, ptrdiff_t along, uint32_t code,
                      uint32_t count) {
  const uint8_t tapsP = Velmo2EdgeTaps[code & 3], tapsQ = Velmo2EdgeTaps[(code >> 2) & 3];
  for (uint32_t i = 0; i < count; ++i, q0 += along) {
    uint8_t* p = q0;
    const int32_t p1 = p[-2 * across], p0 = p[-across], q0v = p[0], q1 = p[across];
    const int32_t d = q0v - p0, a = (d + 4) >> 3, b = (d + 2) >> 2;
    if (tapsP & Velmo2TapOuter) p[-2 * across] = Clamp255(p1 + a);
    if (tapsP & Velmo2TapInner) p[-across] = Clamp255(p0 + b);
    if (tapsQ & Velmo2TapInner) p[0] = Clamp255(q0v - b);
    if (tapsQ & Velmo2TapOuter) p[across] = Clamp255(q1 - a);
  }
}

void Velmo2FilterVerticalEdges(const Velmo2EdgeRules& rules, const Velmo2Plane& plane,
                               const Velmo2InfoGrid& grid, bool chroma, uint32_t mbx,
                               uint32_t mby) {
  const uint32_t n = chroma ? 2 : 4;
  for (uint32_t j = 0; j < n; ++j) {
    const uint32_t by = mby * n + j, lines = Remaining(plane.Height, by * 8);
    for (uint32_t i = 0; i < n && lines; ++i) {
      const uint32_t bx = mbx * n + i;
      const uint32_t code = Velmo2VerticalEdgeCode(rules, grid, chroma, plane.Width, bx, by);
      if (!code) continue;
      uint8_t* q0 = plane.Pixels + ptrdiff_t(by) * 8 * plane.Pitch + ptrdiff_t(bx) * 8;
      Velmo2FilterEdge(q0, 1, plane.Pitch, code, lines);
    }
  }
}

void Velmo2FilterHorizontalEdges(const Velmo2EdgeRules& rules, const Velmo2Plane& plane,
                                 const Velmo2InfoGrid& grid, bool chroma, uint32_t mbx,
                                 uint32_t mby) {
  const uint32_t n = chroma ? 2 : 4;
  for (uint32_t j = 0; j < n; ++j) {
    const uint32_t by = mby * n + j;
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t bx = mbx * n + i, columns = Remaining(plane.Width, bx * 8);
      const uint32_t code = Velmo2HorizontalEdgeCode(rules, grid, chroma, plane.Height, bx, by);
      if (!code || !columns) continue;
      uint8_t* q0 = plane.Pixels + ptrdiff_t(by) * 8 * plane.Pitch + ptrdiff_t(bx) * 8;
      Velmo2FilterEdge(q0, plane.Pitch, 1, code, columns);
    }
  }
}

namespace {

int16_t Wrap16(int32_t v) { return int16_t(uint16_t(uint32_t(v))); }

}  // namespace

void Velmo2ResidualSeamEdge(int16_t* q0, ptrdiff_t across, ptrdiff_t along, uint16_t a,
                            uint16_t b) {
  if (!Velmo2SeamFilterActs(a, b)) return;
  const uint8_t tapsP = Velmo2EdgeTaps[Velmo2InfoClass(a)];
  const uint8_t tapsQ = Velmo2EdgeTaps[Velmo2InfoClass(b)];
  for (uint32_t i = 0; i < 8; ++i, q0 += along) {
    int16_t* p = q0;
    const int16_t d = Wrap16(p[0] - p[-across]);
    const int16_t da = Wrap16(Wrap16(d + 4) >> 3), db = Wrap16(Wrap16(d + 2) >> 2);
    if (tapsP & Velmo2TapOuter) p[-2 * across] = Wrap16(p[-2 * across] + da);
    if (tapsP & Velmo2TapInner) p[-across] = Wrap16(p[-across] + db);
    if (tapsQ & Velmo2TapInner) p[0] = Wrap16(p[0] - db);
    if (tapsQ & Velmo2TapOuter) p[across] = Wrap16(p[across] - da);
  }
}

void Velmo2ResidualSeams(int16_t* residual, ptrdiff_t pitch, const uint16_t* info, uint32_t grid,
                         Velmo2FrameWord word,
                         void (*seam)(int16_t*, ptrdiff_t, ptrdiff_t, uint16_t, uint16_t)) {
  const bool wide = word.WideInterDc();
  if (!word.NoVerticalEdgeFilter() && !wide)
    for (uint32_t y = 0; y < grid; ++y)
      for (uint32_t x = 1; x < grid; ++x)
        seam(residual + ptrdiff_t(y) * 8 * pitch + x * 8, 1, pitch,
                               info[Velmo2BlockIndex(x - 1, y)], info[Velmo2BlockIndex(x, y)]);
  if (!word.NoHorizontalEdgeFilter() && !wide)
    for (uint32_t y = 1; y < grid; ++y)
      for (uint32_t x = 0; x < grid; ++x)
        seam(residual + ptrdiff_t(y) * 8 * pitch + x * 8, pitch, 1,
                               info[Velmo2BlockIndex(x, y - 1)], info[Velmo2BlockIndex(x, y)]);
}

bool Velmo2SettleFlatBlock(const Velmo2Plane& plane, const Velmo2InfoGrid& grid, uint32_t limit,
                           uint32_t bx, uint32_t by,
                           void (*flat)(const int32_t[3][3], uint8_t*, ptrdiff_t, uint32_t,
                                        uint32_t)) {
  uint16_t centre;
  if (!Velmo2InfoAt(grid, bx, by, &centre) || !Velmo2InfoIsIntra(centre) ||
      Velmo2InfoClass(centre) != 3)
    return false;
  // Step 1: the 3x3 DC values, a neighbour's own only when its word is close to the centre's.
  int32_t dc[3][3];
  for (int dy = -1; dy <= 1; ++dy) {
    for (int dx = -1; dx <= 1; ++dx) {
      uint16_t n;
      const bool present = Velmo2InfoAt(grid, int64_t(bx) + dx, int64_t(by) + dy, &n);
      const int32_t diff = int32_t(centre) - int32_t(n);
      const bool close = present && (diff < 0 ? -diff : diff) < int32_t(limit * 8);
      dc[dy + 1][dx + 1] = Velmo2InfoDc(close ? n : centre);
    }
  }
  const uint32_t lines = Remaining(plane.Height, by * 8), columns = Remaining(plane.Width, bx * 8);
  (flat ? flat : Velmo2FlatBlockPlain)(dc, plane.Pixels + ptrdiff_t(by) * 8 * plane.Pitch + ptrdiff_t(bx) * 8,
                       plane.Pitch, columns, lines);
  return true;
}

namespace {

uint32_t LoadCount(const uint8_t* record) {
  uint32_t v;
  std::memcpy(&v, record, 4);
  return v;
}
void StoreCount(uint8_t* record, uint32_t v) { std::memcpy(record, &v, 4); }

uint16_t LoadCode(const uint8_t* record, uint32_t index) {
  uint16_t v;
  std::memcpy(&v, record + 4 + 2 * size_t(index), 2);
  return v;
}
void StoreCode(uint8_t* record, uint32_t index, uint16_t v) {
  std::memcpy(record + 4 + 2 * size_t(index), &v, 2);
}

// Applies up to `parts` 4-bit codes along one seam line of a plane, 8 pixels each.
void ApplyCodes(const Velmo2Plane& plane, uint32_t line, uint32_t x, uint32_t codes,
                uint32_t parts) {
  if (line >= plane.Height) return;
  for (uint32_t k = 0; k < parts; ++k) {
    const uint32_t code = (codes >> (4 * k)) & 15, columns = Remaining(plane.Width, x + 8 * k);
    if (!Velmo2FilterCodeActs(code) || !columns) continue;
    Velmo2FilterEdge(plane.Pixels + ptrdiff_t(line) * plane.Pitch + x + 8 * k, plane.Pitch, 1,
                     code, columns);
  }
}

}  // namespace

bool Velmo2WriteSeamCodes(uint8_t* record, size_t bytes, const Velmo2EdgeRules& rules,
                          const Velmo2SeamGrids& grids, uint32_t height, uint32_t top,
                          uint32_t mbx) {
  if (bytes < 4 || mbx >= (bytes - 4) / 4) return false;
  const uint32_t lumaRow = top / 8 + 2, chromaRow = top / 16 + 1;
  uint32_t luma = 0, chroma = 0;
  for (uint32_t k = 0; k < 4; ++k)
    luma |= Velmo2HorizontalEdgeCode(rules, grids.Luma, false, height, 4 * mbx + k, lumaRow)
            << (4 * k);
  for (uint32_t k = 0; k < 2; ++k) {
    const uint32_t bx = 2 * mbx + k;
    const uint32_t chromaHeight = (height + 1) / 2;
    chroma |= Velmo2HorizontalEdgeCode(rules, grids.Cr, true, chromaHeight, bx, chromaRow)
              << (4 * k);
    chroma |= Velmo2HorizontalEdgeCode(rules, grids.Cb, true, chromaHeight, bx, chromaRow)
              << (4 * k + 8);
  }
  StoreCode(record, 2 * mbx, uint16_t(luma));
  StoreCode(record, 2 * mbx + 1, uint16_t(chroma));
  if (LoadCount(record) < mbx + 1) StoreCount(record, mbx + 1);
  return true;
}

void Velmo2ApplySeam(uint8_t* record, size_t bytes, const Velmo2Plane& y, const Velmo2Plane& cr,
                     const Velmo2Plane& cb, uint32_t boundary) {
  const uint32_t count = LoadCount(record);
  if (count == 0) return;
  const size_t room = bytes < 4 ? 0 : (bytes - 4) / 4;
  for (uint32_t mb = 0; mb < count && mb < room; ++mb) {
    ApplyCodes(y, boundary + 16, 32 * mb, LoadCode(record, 2 * mb), 4);
    const uint32_t chroma = LoadCode(record, 2 * mb + 1);
    ApplyCodes(cr, boundary / 2 + 8, 16 * mb, chroma, 2);
    ApplyCodes(cb, boundary / 2 + 8, 16 * mb, chroma >> 8, 2);
  }
  StoreCount(record, 0);
}

void Velmo2FinishSeams(uint8_t* records, const Velmo2SliceLayout& layout, const Velmo2Plane& y,
                       const Velmo2Plane& cr, const Velmo2Plane& cb) {
  if (layout.SeamRecordBytes == 0) return;
  for (uint32_t k = 0; k + 1 < layout.Slices && k < layout.EndsSet; ++k)
    Velmo2ApplySeam(records + size_t(k) * layout.SeamRecordBytes, layout.SeamRecordBytes, y,
                    cr, cb, layout.Ends[k]);
}
