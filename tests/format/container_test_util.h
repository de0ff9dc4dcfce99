// Test helpers for the container: crafted headers and a small in-memory writer that follows the
// compressor's order (header image, frames, checkpoint patches).
#pragma once
#include "format/container.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace velmo_test {

// A header that passes every check: one second-generation frame of 640 x 480 at 30/1.
inline VelmoHeader GoodHeader() {
  VelmoHeader h{};
  h.Magic = VelmoMagicVM2j;
  h.FileSizeLess8 = 1000;
  h.Frames = 10;
  h.LargestFrameSize = 500;
  h.IndexFrames = 10;
  h.Width = 640;
  h.Height = 480;
  h.FrameRate = 30;
  h.FrameRateDiv = 1;
  h.Flags = 0;
  h.TrackCount = 0;
  return h;
}

inline std::vector<uint8_t> HeaderBytes(const VelmoHeader& h) {
  std::vector<uint8_t> bytes(VelmoHeaderSize);
  VelmoStoreHeader(h, bytes.data());
  return bytes;
}

inline void Put32(std::vector<uint8_t>* bytes, uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes->push_back(uint8_t(value >> (8 * i)));
}

// A file under construction, as the compressor keeps it.
struct TestWriter {
  VelmoHeaderImage Image;
  std::vector<uint8_t> File;
  std::vector<uint32_t> Entries;
  std::vector<VelmoTrackInfo> Tracks;
  uint32_t Frames = 0;
  uint32_t Largest = 0;
  uint32_t Flags = 0;
};

inline bool StartWriter(const VelmoWriteParams& params, TestWriter* w) {
  if (!VelmoBuildHeaderImage(params, &w->Image)) return false;
  w->File = w->Image.Bytes;
  w->Entries.assign(size_t(params.IndexFrames) + 1, 0);
  w->Tracks.assign(params.Tracks, params.Tracks + params.TrackCount);
  w->Flags = w->Image.Flags;
  return true;
}

// One frame: for each track a sound payload (empty = no sound this frame), then video bytes
// padded to a multiple of 4 so the next frame stays aligned.
inline void AddFrame(TestWriter* w, bool key, const std::vector<std::vector<uint8_t>>& sounds,
                     const std::vector<uint32_t>& decoded, std::vector<uint8_t> video) {
  const uint64_t start = w->File.size();
  w->Entries[w->Frames] = VelmoMakeFrameEntry(start, key);
  for (size_t t = 0; t < sounds.size(); ++t) {
    if (sounds[t].empty()) {
      uint8_t empty[4];
      VelmoEmptySoundPacket(empty);
      w->File.insert(w->File.end(), empty, empty + 4);
      continue;
    }
    uint8_t head[8];
    VelmoStoreSoundPacketHead(uint32_t(sounds[t].size()), decoded[t], head);
    w->File.insert(w->File.end(), head, head + 8);
    w->File.insert(w->File.end(), sounds[t].begin(), sounds[t].end());
    if (decoded[t] > w->Tracks[t].MaxBytes) w->Tracks[t].MaxBytes = decoded[t];
  }
  video.resize((video.size() + 3) & ~size_t(3), 0);
  // Sound blocks need not be a multiple of 4; pad the frame's end, as the writer's video does.
  w->File.insert(w->File.end(), video.begin(), video.end());
  while (w->File.size() % 4) w->File.push_back(0);
  const uint64_t end = w->File.size();
  w->Entries[w->Frames + 1] = VelmoMakeFrameEntry(end, false);
  if (end - start > w->Largest) w->Largest = uint32_t(end - start);
  ++w->Frames;
}

inline void Checkpoint(TestWriter* w) {
  VelmoCheckpoint state{};
  state.FileSize = w->File.size();
  state.Frames = w->Frames;
  state.LargestFrameSize = w->Largest;
  state.Flags = w->Flags;
  state.Tracks = w->Tracks.data();
  state.FrameEntries = w->Entries.data();
  std::vector<VelmoPatch> patches;
  ASSERT_TRUE(VelmoCheckpointPatches(w->Image, state, &patches));
  ASSERT_TRUE(VelmoApplyPatches(&w->File, patches));
}

}  // namespace velmo_test
