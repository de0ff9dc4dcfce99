// Velmo files for tests, built in memory with the container's own writer functions in the order
// the compressor follows (header image, frames, checkpoint patches), and taken apart again.
#pragma once
#include "format/container.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
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

struct FilePlan {
  uint32_t Version = 100;  // "VLMi"
  int32_t Width = 16, Height = 16;
  uint32_t Rate = 30, RateDiv = 1;
  uint32_t Frames = 10;
  uint32_t IndexFrames = 0;  // 0: Frames
  uint32_t KeyEvery = 5;     // frames 1, 1 + KeyEvery, ... are key frames
  uint32_t Flags = 0;
  uint32_t SliceMode = 0;
  const char* Text = nullptr;            // extra text, stored with its terminating zero
  const int16_t* HdrBlock = nullptr;     // six values, for VelmoFlagHdr
  const int16_t* ColourMatrix = nullptr; // twelve values, for VelmoFlagColourMatrix
  std::vector<VelmoTrackInfo> Tracks;
  // Video bytes of frame i (from 0); by default 8 bytes of the frame's number.
  std::function<std::vector<uint8_t>(uint32_t)> Video;
  // Coded sound of track t in frame i (empty: none) and its DecodedBytes; by default none.
  std::function<std::vector<uint8_t>(uint32_t i, size_t t, uint32_t* decoded)> Sound;
};

inline std::vector<uint8_t> DefaultVideo(uint32_t i) {
  std::vector<uint8_t> v(8);
  for (uint32_t k = 0; k < 8; ++k) v[k] = uint8_t(i * 8 + k);
  return v;
}

inline TestWriter BuildWriter(const FilePlan& s) {
  VelmoWriteParams p{};
  p.Version = s.Version;
  p.Width = s.Width;
  p.Height = s.Height;
  p.FrameRate = s.Rate;
  p.FrameRateDiv = s.RateDiv;
  p.IndexFrames = s.IndexFrames ? s.IndexFrames : s.Frames;
  p.Flags = s.Flags;
  p.SliceMode = s.SliceMode;
  p.Text = s.Text;
  p.TextLength = s.Text ? uint32_t(std::strlen(s.Text)) + 1 : 0;
  p.HdrBlock = s.HdrBlock;
  p.ColourMatrix = s.ColourMatrix;
  p.TrackCount = uint32_t(s.Tracks.size());
  p.Tracks = s.Tracks.empty() ? nullptr : s.Tracks.data();
  TestWriter w;
  EXPECT_TRUE(StartWriter(p, &w));
  for (uint32_t i = 0; i < s.Frames; ++i) {
    std::vector<std::vector<uint8_t>> sounds(s.Tracks.size());
    std::vector<uint32_t> decoded(s.Tracks.size(), 0);
    for (size_t t = 0; s.Sound && t < s.Tracks.size(); ++t) sounds[t] = s.Sound(i, t, &decoded[t]);
    AddFrame(&w, s.KeyEvery && i % s.KeyEvery == 0, sounds, decoded,
             s.Video ? s.Video(i) : DefaultVideo(i));
  }
  Checkpoint(&w);
  return w;
}

inline std::vector<uint8_t> BuildFile(const FilePlan& s) { return BuildWriter(s).File; }

// A Velmo file taken apart: its header and tables, and each frame's key flag, sound packets
// (whole, size word included) and video section.
struct ParsedFile {
  VelmoFileInfo Info{};
  std::vector<bool> Key;
  std::vector<std::vector<std::vector<uint8_t>>> Sounds;  // [frame][track]
  std::vector<std::vector<uint8_t>> Video;
  std::vector<VelmoTrackInfo> Tracks;
};

// Parses and checks what a reader relies on: the size field, aligned frames inside the file,
// every packet walk reaching the video, and the largest frame's size.
inline ::testing::AssertionResult ParseFile(const std::vector<uint8_t>& file, ParsedFile* out) {
  if (const char* e = VelmoParseFile(file.data(), file.size(), &out->Info))
    return ::testing::AssertionFailure() << e;
  const VelmoFileInfo& info = out->Info;
  if (info.FileSize + 8 != file.size())
    return ::testing::AssertionFailure() << "size field " << info.FileSize << " for " << file.size();
  const uint32_t frames = info.Header.Frames, tracks = info.TrackCount;
  std::vector<uint64_t> entries(frames + 1);
  if (const char* e = VelmoExpandFrameTable(info.Tables, frames, entries.data(), nullptr))
    return ::testing::AssertionFailure() << e;
  for (uint32_t t = 0; t < tracks; ++t) out->Tracks.push_back(VelmoTableTrack(info.Tables, t));
  uint32_t largest = 0;
  for (uint32_t f = 0; f < frames; ++f) {
    const uint64_t a = VelmoEntryOffset(entries[f]), b = VelmoEntryOffset(entries[f + 1]);
    if (a % 4 || b <= a || b > file.size())
      return ::testing::AssertionFailure() << "frame " << f << " at " << a << " to " << b;
    largest = std::max(largest, uint32_t(b - a));
    std::vector<VelmoSoundPacket> s(tracks);
    const VelmoPacketLayout l = VelmoWalkFramePacket(file.data() + a, size_t(b - a), tracks, s.data());
    if (!l.HasVideo) return ::testing::AssertionFailure() << "frame " << f << " walk";
    out->Key.push_back(VelmoEntryIsKey(entries[f]));
    out->Sounds.emplace_back();
    for (uint32_t t = 0; t < tracks; ++t)
      out->Sounds.back().emplace_back(file.data() + a + s[t].Offset,
                                      file.data() + a + s[t].Offset + 4 + s[t].PacketSize);
    out->Video.emplace_back(file.data() + a + l.VideoOffset,
                            file.data() + a + l.VideoOffset + l.VideoSize);
  }
  if (info.Header.LargestFrameSize != largest)
    return ::testing::AssertionFailure() << "largest " << info.Header.LargestFrameSize << " not " << largest;
  return ::testing::AssertionSuccess();
}

}  // namespace velmo_test
