// Helpers shared by the compressor's tests: the generated test picture, the writer and its frame
// loop, a generated clip as the tool's source and the tool's run behind the tool shell; for the
// sound track tests, a sound in memory as a track's source, and the reader's way of decoding a
// track's packets (blocks of each packet until its decoded count is met).
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "../audio/audio_test_util.h"
#include "audio/velmo_audio.h"
#include "compress/frame_loop.h"
#include "compress/tool/velmo1_file_check.h"
#include "compress/tool/velmoc.h"
#include "compress/tool/velmoc_source.h"
#include "compress/velmo_writer.h"
#include "support/files.h"
#include "support/run.h"
#include "support/wave.h"

namespace compress_test {

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

// The writer's messages and failures, collected by its progress function (user data: a
// WriterLog).
using WriterLog = std::vector<std::string>;
inline int LogWriterMessages(uint32_t kind, VelmoWriter* w, const char* text) {
  if (kind == VelmoProgressMessage || kind == VelmoProgressError)
    static_cast<WriterLog*>(w->UserData)->push_back(text);
  return 0;
}

// Neither the output nor its temporary file is there.
inline ::testing::AssertionResult NoOutput(const std::string& name) {
  for (const std::string& n : {name, name + ".tmp"})
    if (test_support::Exists(n)) return ::testing::AssertionFailure() << n << " exists";
  return ::testing::AssertionSuccess();
}

// A first-generation file read back: it must open and every frame it claims must decode.
inline Velmo1FileCheck Played(const std::string& name) {
  Velmo1FileCheck check{};
  if (const char* error = Velmo1CheckOpen(name.c_str(), &check)) {
    ADD_FAILURE() << name << ": " << error;
    return Velmo1FileCheck{};
  }
  EXPECT_EQ(Velmo1CheckDecode(check, nullptr, nullptr), check.Info.Header.Frames) << name;
  return check;
}

// A generated clip as the compressor's source, under the name "clip" alone: Picture(t) frames
// of g_clipShape at 30 a second.
struct ClipShape {
  uint32_t Width = 80, Height = 56, Frames = 16;
};
inline ClipShape g_clipShape;

struct ClipSource {
  ClipShape Shape;
  uint32_t Frames, First;
  std::vector<uint32_t> Pixels;
};
inline VelmocSource* ClipOpen(const char* name, uint32_t first, uint32_t last, char* error,
                              size_t size) {
  if (std::strcmp(name, "clip") != 0) {
    std::snprintf(error, size, "no such clip");
    return nullptr;
  }
  const ClipShape s = g_clipShape;
  return reinterpret_cast<VelmocSource*>(
      new ClipSource{s, std::min(last, s.Frames - 1) - first + 1, first, {}});
}
inline void ClipInfo(const VelmocSource* source, VelmocSourceInfo* out) {
  const ClipSource* c = reinterpret_cast<const ClipSource*>(source);
  *out = {};
  out->Width = c->Shape.Width;
  out->Height = c->Shape.Height;
  out->RateNumerator = 30;
  out->RateDenominator = 1;
  out->Frames = c->Frames;
  out->SkippedFrames = c->First;
  out->InputFrames = c->Shape.Frames;
  out->InputBytes = uint64_t(c->Shape.Width) * c->Shape.Height * 3 * c->Shape.Frames;
}
inline bool ClipFrame(VelmocSource* source, uint32_t index, const uint32_t** pixels,
                      int32_t* pitch) {
  ClipSource* c = reinterpret_cast<ClipSource*>(source);
  if (index >= c->Frames) return false;
  c->Pixels = Picture(c->Shape.Width, c->Shape.Height, c->First + index);
  *pixels = c->Pixels.data();
  *pitch = int32_t(c->Shape.Width * 4);
  return true;
}
inline void ClipClose(VelmocSource* source) { delete reinterpret_cast<ClipSource*>(source); }
inline const VelmocSourceOps ClipOps{ClipOpen, ClipInfo, ClipFrame, ClipClose,
                                     nullptr, nullptr, nullptr};

// The console front end with a step of its own (to press buttons and answer boxes as a user).
inline ToolFrontEnd ConsoleStepping(const char* name, void (*step)(ToolDialog*, int)) {
  ToolFrontEnd f = *ToolConsoleFrontEnd();
  f.name = name;
  f.step = step;
  return f;
}

// Runs the compressor tool behind the tool shell with `source` as its input (null: the media
// layer), on `front` or, by default, on the console front end with its printout captured. On
// `front`, the dialog stays after the run when `closeWhenDone` is false, until the front end
// closes it.
inline test_support::ToolOutcome RunVelmoc(const std::string& tail,
                                          const VelmocSourceOps* source = &ClipOps,
                                          const ToolFrontEnd* front = nullptr,
                                          bool closeWhenDone = true) {
  VelmocRegisterDialog();
  VelmocSetSource(source);
  test_support::ToolOutcome result;
  if (front) {
    ToolFrameSetFrontEnd(front);
    result.code = ToolFrameRun(nullptr, 0, tail.c_str(), 1, closeWhenDone, VelmocMain,
                               VelmocCommand, "velmoc");
    ToolFrameSetFrontEnd(ToolConsoleFrontEnd());
  } else {
    result = test_support::RunToolHere(VelmocMain, VelmocCommand, "velmoc", tail);
  }
  VelmocSetSource(nullptr);
  return result;
}

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
