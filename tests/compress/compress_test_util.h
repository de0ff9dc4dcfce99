// Helpers shared by the compressor's tests: a scratch folder that removes itself, whole-file
// reads and writes, the generated test picture, and 16-bit wave files; for the sound track
// tests, a sound in memory as a track's source, and the reader's way of decoding a track's
// packets (blocks of each packet until its decoded count is met).
#pragma once
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "../audio/audio_test_util.h"
#include "audio/velmo_audio.h"
#include "compress/frame_loop.h"
#include "compress/velmo_writer.h"

namespace compress_test {

// A fresh folder under /tmp, removed with everything in it when the test is done.
class ScratchDir {
 public:
  ScratchDir() {
    char pattern[] = "/tmp/orn_compress_test_XXXXXX";
    const char* made = mkdtemp(pattern);
    EXPECT_NE(made, nullptr) << "no scratch folder";
    Made = made != nullptr;
    Dir = Made ? made : "/nonexistent/orn_compress_test";  // every file in it fails to open
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (Made) std::filesystem::remove_all(Dir, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  std::string operator/(const std::string& name) const { return Dir + "/" + name; }
  std::string Dir;
  bool Made = false;
};

inline bool Exists(const std::string& p) { return access(p.c_str(), F_OK) == 0; }

inline std::vector<uint8_t> ReadAll(const std::string& name) {
  std::vector<uint8_t> bytes;
  if (FILE* f = std::fopen(name.c_str(), "rb")) {
    uint8_t chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + n);
    std::fclose(f);
  }
  return bytes;
}

inline void WriteAll(const std::string& name, const std::vector<uint8_t>& bytes) {
  FILE* f = std::fopen(name.c_str(), "wb");
  ASSERT_NE(f, nullptr) << name;
  ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
  ASSERT_EQ(std::fclose(f), 0);
}

inline void WriteText(const std::string& name, const char* text) {
  WriteAll(name, std::vector<uint8_t>(text, text + std::strlen(text)));
}

inline void Store32(std::vector<uint8_t>* file, size_t at, uint32_t value) {
  std::memcpy(file->data() + at, &value, 4);
}

// An opaque 0xAARRGGBB test picture at time t: ramps, a moving checkerboard, and a pattern.
inline std::vector<uint32_t> Picture(uint32_t w, uint32_t h, uint32_t t) {
  std::vector<uint32_t> p(size_t(w) * h);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      const uint32_t r = (x * 7 + t * 3) & 255, g = (y * 5 + ((x / 8 + y / 8 + t) & 1) * 90) & 255,
                     b = (x ^ y) & 255;
      p[size_t(y) * w + x] = 0xff000000u | r << 16 | g << 8 | b;
    }
  return p;
}

// A 16-bit PCM wave file of interleaved samples.
inline void WriteWave(const std::string& name, const std::vector<int16_t>& pcm, uint32_t rate,
                      uint32_t channels) {
  const uint32_t data = uint32_t(pcm.size() * 2);
  std::vector<uint8_t> file(44);
  std::memcpy(file.data(), "RIFF", 4);
  Store32(&file, 4, 36 + data);
  std::memcpy(file.data() + 8, "WAVEfmt ", 8);
  Store32(&file, 16, 16);
  Store32(&file, 20, 1 | channels << 16);
  Store32(&file, 24, rate);
  Store32(&file, 28, rate * channels * 2);
  Store32(&file, 32, channels * 2 | 16 << 16);
  std::memcpy(file.data() + 36, "data", 4);
  Store32(&file, 40, data);
  file.resize(44 + data);
  std::memcpy(file.data() + 44, pcm.data(), data);
  WriteAll(name, file);
}

// A writer and its frame loop as the compressor drives them: generated pictures in, a file out.
// Writer flags 0, 30 frames a second, no text.
struct TestCompression {
  VelmoWriter* Writer = nullptr;
  VelmoFrameLoop* Loop = nullptr;
  uint32_t Width = 0, Height = 0;

  TestCompression() = default;
  TestCompression(const TestCompression&) = delete;
  TestCompression& operator=(const TestCompression&) = delete;
  ~TestCompression() { Close(true); }

  bool Open(const std::string& out, uint32_t version, uint32_t width, uint32_t height,
            uint32_t frames, uint32_t preview, VelmoWriterProgressFn progress = nullptr,
            void* user = nullptr, uint32_t trackCount = 0, VelmoWriterTrack* tracks = nullptr,
            uint32_t rate = 30) {
    Width = width;
    Height = height;
    Writer = VelmoWriterOpen(out.c_str(), 0, version, width, height, frames, 0, nullptr, rate, 1,
                             trackCount, tracks, 10000, nullptr, progress, user);
    if (Writer) Loop = VelmoFrameLoopOpen(Writer, preview, 0, 0);
    return Loop != nullptr;
  }
  // Offers Picture(t); false when the queue had no room.
  bool Add(uint32_t t, uint32_t targetBytes, uint32_t peakBytes) {
    const std::vector<uint32_t> pic = Picture(Width, Height, t);
    if (!VelmoFrameLoopAdd(Loop, targetBytes, peakBytes, false, pic.data(), int32_t(Width * 4),
                           false))
      return false;
    VelmoFrameLoopCommit(Loop);
    return true;
  }
  void Feed(uint32_t from, uint32_t to, uint32_t targetBytes = 3000, uint32_t peakBytes = 9000) {
    for (uint32_t t = from; t < to; ++t) EXPECT_TRUE(Add(t, targetBytes, peakBytes));
  }
  // Codes what is queued (unless discarded or failed) and closes: the file's size, 0 if none.
  uint64_t Close(bool discard) {
    if (!Writer) return 0;
    if (!discard && !Writer->Failed) VelmoFrameLoopPump(Loop, true);
    VelmoFrameLoopFree(Loop);
    Loop = nullptr;
    const uint64_t size = VelmoWriterClose(Writer, discard);
    Writer = nullptr;
    return size;
  }
};

}  // namespace compress_test

namespace sound_check {

struct MemorySound {
  const uint8_t* Data;
  size_t Size, Position;
};

inline uint32_t ReadMemory(void* source, void* buffer, uint32_t bytes) {
  MemorySound* s = static_cast<MemorySound*>(source);
  const size_t n = std::min<size_t>(bytes, s->Size - s->Position);
  if (n) std::memcpy(buffer, s->Data + s->Position, n);
  s->Position += n;
  return uint32_t(n);
}

// One frame's packet of a track: its sound blocks and the count the reader takes from them.
struct SoundSpan {
  const uint8_t* Data;
  size_t Size;
  uint32_t DecodedBytes;  // already rounded down to 16, as the packet walk gives it
};

// Decodes a track as the reader does. Each packet must hold the blocks its count asks for.
inline audio_test::Samples DecodeSpans(uint32_t format, uint32_t rate, uint32_t channels,
                                       const std::vector<SoundSpan>& spans) {
  uint32_t mode = 0;
  EXPECT_TRUE(VelmoAudioTrackMode(format, &mode));
  std::vector<uint8_t> memory(VelmoAudioDecoderSize(rate, channels));
  VelmoAudioDecoder* decoder = VelmoAudioDecoderOpen(memory.data(), rate, channels, mode);
  EXPECT_NE(decoder, nullptr);
  if (!decoder) return {};
  std::vector<uint8_t> out;
  std::vector<uint8_t> block(VelmoAudioDecoderBlockBytes(decoder));
  for (size_t f = 0; f < spans.size(); ++f) {
    VelmoAudioInput input{spans[f].Data, spans[f].Size, 0};
    uint32_t remain = spans[f].DecodedBytes;
    while (remain && input.Position < input.Size) {
      VelmoAudioRing ring{block.data(), block.data() + block.size(), block.data(),
                          uint32_t(block.size()), 0, 0, 16};
      VelmoAudioDecodeBlock(decoder, &ring, &input);
      const uint32_t take = std::min(remain, ring.Offered);
      out.insert(out.end(), block.begin(), block.begin() + take);
      remain -= take;
    }
    EXPECT_EQ(remain, 0u) << "packet " << f << " holds fewer blocks than its decoded count";
  }
  audio_test::Samples pcm(out.size() / 2);
  std::memcpy(pcm.data(), out.data(), pcm.size() * 2);
  return pcm;
}

}  // namespace sound_check
