// Small moving-picture files for tests, built byte by byte: a Flic and a raw frame file whose
// frames are whole pictures, each with its own 256-colour palette, and a 4:4:4 y4m stream.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "support/files.h"

namespace test_support {

using FlicPalette = std::array<uint8_t, 768>;  // R, G, B of each colour, 0..255

struct FlicFrame {
  std::vector<uint8_t> pixels;  // width × height colour indices, top row first
  FlicPalette palette;
};

namespace flic_detail {
// A sub-chunk: 32-bit size, 16-bit type, data (padded to an even size).
inline void Chunk(std::vector<uint8_t>* out, uint32_t type, const std::vector<uint8_t>& data) {
  const size_t padded = data.size() + (data.size() & 1);
  Put32(out, uint32_t(6 + padded));
  Put16(out, type);
  out->insert(out->end(), data.begin(), data.end());
  if (data.size() & 1) out->push_back(0);
}
}  // namespace flic_detail

// A FLC file (`speed` milliseconds a frame): every frame a COLOR_256 chunk with all colours and
// a raw COPY chunk of the picture.
inline std::vector<uint8_t> FlicFile(int width, int height, const std::vector<FlicFrame>& frames, uint32_t speed) {
  std::vector<uint8_t> file;
  Put32(&file, 0);  // size, patched below
  Put16(&file, 0xAF12);
  Put16(&file, uint32_t(frames.size()));
  Put16(&file, uint32_t(width));
  Put16(&file, uint32_t(height));
  Put16(&file, 8);
  Put16(&file, 0);
  Put32(&file, speed);
  file.resize(128, 0);
  for (const FlicFrame& f : frames) {
    std::vector<uint8_t> colours = {1, 0, 0, 0};  // one packet: skip 0, 256 colours
    colours.insert(colours.end(), f.palette.begin(), f.palette.end());
    std::vector<uint8_t> chunks;
    flic_detail::Chunk(&chunks, 4, colours);
    flic_detail::Chunk(&chunks, 16, f.pixels);
    Put32(&file, uint32_t(16 + chunks.size()));
    Put16(&file, 0xF1FA);
    Put16(&file, 2);
    file.resize(file.size() + 8, 0);
    file.insert(file.end(), chunks.begin(), chunks.end());
  }
  for (int i = 0; i < 4; ++i) file[size_t(i)] = uint8_t(file.size() >> (8 * i));
  return file;
}

// A raw frame file ("RAWB"; `speed` milliseconds a frame): every frame its palette and its
// pictures' bytes.
inline std::vector<uint8_t> RawFramesFile(int width, int height, const std::vector<FlicFrame>& frames,
                                          int32_t speed) {
  std::vector<uint8_t> file = {'R', 'A', 'W', 'B'};
  Put32(&file, uint32_t(frames.size()));
  Put32(&file, uint32_t(width));
  Put32(&file, uint32_t(height));
  Put32(&file, uint32_t(-speed));
  for (const FlicFrame& f : frames) {
    Put32(&file, 0);
    file.insert(file.end(), f.palette.begin(), f.palette.end());
    Put32(&file, 1);
    file.insert(file.end(), f.pixels.begin(), f.pixels.end());
  }
  return file;
}

// A y4m stream at 25 frames a second; each frame is its planes one after another (Y, Cb and
// Cr of width × height samples for the default 4:4:4; `chroma` names another form, whose plane
// sizes the frames must then have).
inline std::string Y4mFile(int width, int height, const std::vector<std::vector<uint8_t>>& frames,
                           const std::string& chroma = "444") {
  std::string s = "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F25:1 C" + chroma + "\n";
  for (const auto& planes : frames) {
    s += "FRAME\n";
    s.append(planes.begin(), planes.end());
  }
  return s;
}

}  // namespace test_support
