// Little-endian byte access for the container code; no assumptions about the host's layout.
#pragma once
#include <cstdint>

namespace velmo_bytes {

inline uint32_t Load32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline int16_t Load16s(const uint8_t* p) { return int16_t(uint16_t(p[0] | p[1] << 8)); }

inline void Store32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
  p[2] = uint8_t(v >> 16);
  p[3] = uint8_t(v >> 24);
}
inline void Store16(uint8_t* p, int16_t v) {
  p[0] = uint8_t(uint16_t(v));
  p[1] = uint8_t(uint16_t(v) >> 8);
}

}  // namespace velmo_bytes
