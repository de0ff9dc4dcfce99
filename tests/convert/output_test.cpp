// Output writers, written and read back: still series, AVI (plain, MJPEG, OpenDML segments),
// y4m against a BT.601 model, wave files, refused and unsupported outputs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "convert/output.h"
#include "imagefile/imagefile.h"
#include "program_test_support.h"
#include "support/full_disk.h"
#include "support/progress_log.h"

namespace fs = std::filesystem;

namespace {

using namespace program_test;

struct AskLog {
  bool answer;
  std::vector<std::string> questions;
};
bool Ask(const char* question, void* context) {
  auto* log = static_cast<AskLog*>(context);
  log->questions.push_back(question);
  return log->answer;
}

class OutputTest : public TempDirTest {
 protected:
  void SetUp() override {
    options.jpeg_level = 90;
    options.ask = Ask;
    options.ask_context = &ask;
  }
  std::string Path(const std::string& name) const { return dir + "/" + name; }
  // Opens `name` for `frames` frames of w x h at `rate` frames a second (a fraction).
  OutputWriter* Open(const std::string& name, int frames, int w, int h, uint32_t flags = 0,
                     uint32_t rateNum = 25, uint32_t rateDen = 1) {
    return OutputOpen(Path(name).c_str(), frames, rateNum, rateDen, w, h, w, log.Sink(), flags,
                      &options);
  }

  AskLog ask{true, {}};
  OutputOptions options{};
  test_support::ProgressLog log;  // the writers' messages
};

// A frame whose pixels all differ: colour from position and frame number, alpha varying.
std::vector<uint32_t> Frame(int w, int h, int n) {
  std::vector<uint32_t> px(size_t(w) * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint32_t r = (x * 37 + n * 11) & 255, g = (y * 53 + n * 7) & 255, b = (x * y + n) & 255;
      uint32_t a = (x + y * 3 + 100) & 255;
      px[size_t(y) * w + x] = a << 24 | r << 16 | g << 8 | b;
    }
  return px;
}

uint64_t Le64(const std::vector<uint8_t>& d, size_t at) {
  return Le32(d, at) | uint64_t(Le32(d, at + 4)) << 32;
}
uint32_t Fcc(const char* t) {
  return t[0] | t[1] << 8 | t[2] << 16 | uint32_t(uint8_t(t[3])) << 24;
}

std::vector<uint32_t> ReadImage(const std::string& name) {
  Picture p;
  return ReadPicture(name, &p) ? p.pixels : std::vector<uint32_t>{};
}

// ---- Series names --------------------------------------------------------------------------

// The number field grows with the frame count; every occurrence of the extension goes, and a
// percent sign is escaped for the printf-style pattern.
TEST(OutputSeriesPatternTest, NumberFieldExtensionAndPercent) {
  char p[256];
  const struct {
    const char *name, *want;
    int frames;
  } cases[] = {{"out.PNG", "out.PNG", 1},         {"out.PNG", "out.PNG", 0},
               {"out.PNG", "out%01i.PNG", 2},     {"out.PNG", "out%01i.PNG", 9},
               {"out.PNG", "out%02i.PNG", 10},    {"out.PNG", "out%02i.PNG", 99},
               {"out.PNG", "out%03i.PNG", 100},   {"out.PNG", "out%04i.PNG", 1000},
               {"out.PNG", "out%04i.PNG", 9999},  {"out.PNG", "out%05i.PNG", 10000},
               {"out.PNG", "out%05i.PNG", 250000}, {"a.png/shot.PNGx.png", "a/shotx%02i.png", 11},
               {"100%.tga", "100%%%01i.tga", 3}};
  for (const auto& c : cases) {
    ASSERT_TRUE(OutputSeriesPattern(p, sizeof p, c.name, c.frames));
    EXPECT_STREQ(p, c.want) << c.name << " " << c.frames;
  }
  char name[64];
  std::snprintf(name, sizeof name, p, 2);
  EXPECT_STREQ(name, "100%2.tga");
  EXPECT_FALSE(OutputSeriesPattern(p, 5, "long_name.png", 3));
}

// ---- Still images ----------------------------------------------------------------------------

// An 11-frame PNG series numbers from 00 and keeps alpha; one BMP frame has no number and
// drops alpha. Stills take no sound; the total is the files' bytes.
TEST_F(OutputTest, StillSeriesNamesPixelsAndAlpha) {
  const int w = 7, h = 5;
  const struct {
    const char *name, *file;
    int frames, kind, keepAlpha;
  } cases[] = {{"clip.png", "clip%02d.png", 11, OutputKindPng, 1},
               {"still.BmP", "still.BmP", 1, OutputKindBmp, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    OutputWriter* out = Open(c.name, c.frames, w, h, OutputFlagAlpha);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::tuple(out->kind, out->keep_alpha, OutputSoundWanted(out, 44100, 16, 2)),
              std::tuple(c.kind, c.keepAlpha, 0u));
    for (int n = 0; n < c.frames; ++n)
      ASSERT_EQ(OutputWriteFrame(out, Frame(w, h, n).data(), nullptr), 1);
    if (c.frames > 1) {
      EXPECT_EQ(std::string(out->status), Path("clip00.png") + " to " + Path("clip10.png"));
    }
    const uint64_t total = OutputClose(out);
    uint64_t sum = 0;
    for (int n = 0; n < c.frames; ++n) {
      char name[32];
      std::snprintf(name, sizeof name, c.file, n);
      std::vector<uint32_t> frame = Frame(w, h, n);
      for (uint32_t& p : frame) p |= c.keepAlpha ? 0 : 0xFF000000u;
      ASSERT_EQ(ReadImage(Path(name)), frame) << name;
      sum += fs::file_size(Path(name));
    }
    EXPECT_EQ(total, sum);
  }
  EXPECT_FALSE(fs::exists(Path("clip11.png")));
}

TEST_F(OutputTest, BottomUpFloatFramesTruncateAndClamp) {
  const int w = 3, h = 2;
  // Memory holds the bottom row first; the frame pointer is the top row with a negative pitch.
  std::vector<float> mem = {
      0.5f, 1.5f, -1.0f, 1.0f,  0.999f, 0.0f, 0.2f, 0.5f,  NAN, 0.1f, 0.9f, 1.0f,  // bottom
      1.0f, 0.0f, 0.0f, 1.0f,  0.0f, 1.0f, 0.0f, 1.0f,  0.0f, 0.0f, 1.0f, 1.0f};    // top
  OutputWriter* out = OutputOpen(Path("f.tga").c_str(), 1, 1, 1, w, h, -w, log.Sink(),
                                 OutputFlagFloat | OutputFlagAlpha, &options);
  ASSERT_NE(out, nullptr);
  ASSERT_EQ(OutputWriteFrame(out, mem.data() + w * 4, nullptr), 1);
  OutputClose(out);
  // Bottom row: 0.5 -> 127, 1.5 -> 255, -1 -> 0; 0.999 -> 254, 0.2 -> 51, alpha 0.5 -> 127;
  // NaN -> 0, 0.1 -> 25, 0.9 -> 229.
  EXPECT_EQ(ReadImage(Path("f.tga")), (std::vector<uint32_t>{0xFFFF0000u, 0xFF00FF00u, 0xFF0000FFu,
                                                              0xFF7FFF00u, 0x7FFE0033u, 0xFF0019E5u}));
}

TEST_F(OutputTest, ExrTakesIntegerFramesThroughTheGammaCurve) {
  const int w = 4, h = 2;
  const std::vector<uint32_t> frame = Frame(w, h, 1);
  OutputWriter* out = Open("hdr.exr", 1, w, h, OutputFlagAlpha);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->float_output, 1);
  ASSERT_EQ(OutputWriteFrame(out, frame.data(), nullptr), 1);
  OutputClose(out);
  ImageFile* f = ImageFileOpen(Path("hdr.exr").c_str(), nullptr);
  ASSERT_NE(f, nullptr);
  std::vector<float> px(w * h * 4);
  ImagePixels dest{px.data(), w * 16, w, h, IMAGE_PIXELS_FLOAT};
  ASSERT_TRUE(ImageFileReadFrame(f, 0, &dest, nullptr));
  ImageFileClose(f);
  for (int i = 0; i < w * h; ++i) {
    EXPECT_NEAR(px[4 * i + 0], std::pow(((frame[i] >> 16) & 255) / 255.0, 2.2), 1e-3);
    EXPECT_NEAR(px[4 * i + 2], std::pow((frame[i] & 255) / 255.0, 2.2), 1e-3);
    EXPECT_NEAR(px[4 * i + 3], (frame[i] >> 24) / 255.0, 1e-3);
  }
}

// JPEG stills and motion JPEG frames in an AVI: flat frames come back within 3 of their
// colour; a writer with alpha asked drops it.
void ExpectNearFlat(const std::vector<uint32_t>& px, uint32_t colour) {
  for (size_t i = 0; i < px.size(); i += 37)
    for (int c = 0; c < 24; c += 8)
      ASSERT_NEAR(int((px[i] >> c) & 255), int((colour >> c) & 255), 3);
}

TEST_F(OutputTest, JpegSeriesWritesFlatFramesClosely) {
  std::vector<uint32_t> flat(16 * 16, 0xFF336699u);
  options.jpeg_level = 95;
  OutputWriter* out = Open("q.jpg", 2, 16, 16);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->kind, OutputKindJpeg);
  for (int n = 0; n < 2; ++n) ASSERT_EQ(OutputWriteFrame(out, flat.data(), nullptr), 1);
  OutputClose(out);
  const std::vector<uint32_t> px = ReadImage(Path("q1.jpg"));
  ASSERT_EQ(px.size(), flat.size());
  ExpectNearFlat(px, flat[0]);
}

// ---- Refusals --------------------------------------------------------------------------------

// Unknown types and palette frames (8-bit, not taken by any writer yet) are refused with one
// message, or none with flag 1; nothing is written.
TEST_F(OutputTest, UnsupportedTypesAndDepthsAreRefused) {
  const struct {
    const char* name;
    uint32_t flags;
  } cases[] = {{"a.gif", 0}, {"a.xyz", 0}, {"noext", 0}, {"a.flc", 0},
               {"p.png", OutputFlagFloat | OutputFlagPalette}, {"a.gif", OutputFlagQuietUnknown}};
  for (const auto& c : cases) {
    log.Clear();
    EXPECT_EQ(Open(c.name, 5, 4, 4, c.flags), nullptr) << c.name;
    const auto said = log.Messages();
    if (c.flags & OutputFlagQuietUnknown) {
      EXPECT_TRUE(said.empty());
      continue;
    }
    ASSERT_EQ(said.size(), 1u) << c.name;
    EXPECT_EQ(said[0].text, "Unsupported output file type or color depth.");
    EXPECT_EQ(said[0].level, 2);
  }
  EXPECT_TRUE(fs::is_empty(dir));
}

TEST_F(OutputTest, OverwriteRefusalLeavesTheFile) {
  WriteText(Path("old.avi"), "keep");
  WriteText(Path("seq0.png"), "keep");
  ask.answer = false;
  EXPECT_EQ(Open("old.avi", 5, 4, 4), nullptr);
  EXPECT_EQ(Open("seq.png", 5, 4, 4), nullptr);
  const std::string oldAvi = "File " + Path("old.avi") + " exists, overwrite?",
                    seq0 = "File " + Path("seq0.png") + " exists, overwrite?";
  EXPECT_EQ(ask.questions, (std::vector<std::string>{oldAvi, seq0}));
  ASSERT_EQ(log.Messages().size(), 2u);
  EXPECT_EQ(log.Messages()[0].level, 3);
  EXPECT_EQ(ReadText(Path("old.avi")), "keep");
  // No question for a new name, nor with flag 2; a yes replaces the file.
  ask.answer = true;
  for (const auto& [name, flags] : {std::pair{"new.avi", 0u}, {"old.avi", OutputFlagPromptDone},
                                    {"seq.png", 0u}}) {
    OutputWriter* out = Open(name, 5, 4, 4, flags);
    ASSERT_NE(out, nullptr) << name;
    OutputClose(out);
  }
  EXPECT_EQ(ask.questions, (std::vector<std::string>{oldAvi, seq0, seq0}));
}

// ---- AVI -------------------------------------------------------------------------------------

struct Chunk {
  uint32_t id;
  uint64_t at;  // header position
  uint32_t size;
  uint32_t listType;
};

// The chunks directly inside [begin, end), with sizes checked against the bounds.
std::vector<Chunk> Chunks(const std::vector<uint8_t>& d, uint64_t begin, uint64_t end) {
  std::vector<Chunk> out;
  uint64_t at = begin;
  while (at + 8 <= end) {
    Chunk c{Le32(d, at), at, Le32(d, at + 4), 0};
    EXPECT_LE(at + 8 + c.size, end) << "chunk overruns its parent at " << at;
    if (c.id == Fcc("LIST") || c.id == Fcc("RIFF")) c.listType = Le32(d, at + 8);
    out.push_back(c);
    at += 8 + c.size + (c.size & 1);
  }
  EXPECT_EQ(at, end);
  return out;
}

const Chunk* Find(const std::vector<Chunk>& cs, const char* id, const char* list = nullptr) {
  for (const Chunk& c : cs)
    if (c.id == Fcc(id) && (!list || c.listType == Fcc(list))) return &c;
  return nullptr;
}

struct ParsedAvi {
  std::vector<uint8_t> d;
  std::vector<Chunk> riffs;
  std::vector<Chunk> hdrl, videoStrl, soundStrl;
  std::vector<Chunk> movi;  // of the first RIFF
  uint64_t moviAt = 0;
  std::vector<Chunk> idx1Entries;  // id, at = offset field, size
};

ParsedAvi ParseAvi(const std::string& name) {
  ParsedAvi a;
  a.d = ReadFile(name);
  a.riffs = Chunks(a.d, 0, a.d.size());
  if (a.riffs.empty()) return a;
  EXPECT_EQ(a.riffs[0].listType, Fcc("AVI "));
  auto top = Chunks(a.d, 12, a.riffs[0].at + 8 + a.riffs[0].size);
  const Chunk* hdrl = Find(top, "LIST", "hdrl");
  const Chunk* movi = Find(top, "LIST", "movi");
  const Chunk* idx1 = Find(top, "idx1");
  if (!hdrl || !movi || !idx1) {
    ADD_FAILURE() << "missing hdrl, movi or idx1";
    return a;
  }
  a.hdrl = Chunks(a.d, hdrl->at + 12, hdrl->at + 8 + hdrl->size);
  int strl = 0;
  for (const Chunk& c : a.hdrl)
    if (c.listType == Fcc("strl")) {
      auto inner = Chunks(a.d, c.at + 12, c.at + 8 + c.size);
      (strl++ == 0 ? a.videoStrl : a.soundStrl) = inner;
    }
  a.moviAt = movi->at;
  a.movi = Chunks(a.d, movi->at + 12, movi->at + 8 + movi->size);
  for (uint64_t at = idx1->at + 8; at + 16 <= idx1->at + 8 + idx1->size; at += 16)
    a.idx1Entries.push_back(
        {Le32(a.d, at), Le32(a.d, at + 8), Le32(a.d, at + 12), Le32(a.d, at + 4)});
  return a;
}

// Fields of a chunk's body: offset, value, and width in bytes (4 unless given).
struct Field {
  uint32_t at, want, bytes = 4;
};
void ExpectFields(const ParsedAvi& a, const Chunk* chunk, std::initializer_list<Field> fields) {
  ASSERT_NE(chunk, nullptr);
  for (const Field& f : fields)
    EXPECT_EQ(f.bytes == 2 ? Le16(a.d, chunk->at + 8 + f.at) : Le32(a.d, chunk->at + 8 + f.at),
              f.want)
        << "field at " << f.at << " of "
        << std::string(a.d.begin() + chunk->at, a.d.begin() + chunk->at + 4);
}

// Raw frames bottom-up as BGR, rows padded to 4 bytes (odd width), with alpha asked or not
// (an AVI keeps none); the headers, the sound ahead of the frames, and idx1.
TEST_F(OutputTest, AviRawFramesSoundHeadersAndIndex) {
  const int w = 5, h = 3, frames = 4;
  options.codec = OutputCodecRaw;
  for (const bool alpha : {false, true}) {
    SCOPED_TRACE(alpha ? "with alpha" : "without alpha");
    const uint32_t pixelBytes = 3, rowBytes = 16;
    const std::string name = alpha ? "alpha.avi" : "clip.avi";
    OutputWriter* out = Open(name, frames, w, h, alpha ? OutputFlagAlpha : 0u, 30000, 1001);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::tuple(out->keep_alpha, out->supports_alpha, out->takes_sound),
              std::tuple(0, 0, 1));
    std::vector<uint8_t> sound;
    std::vector<uint32_t> wanted;
    for (int n = 0; n < frames; ++n) {
      ASSERT_EQ(OutputWriteFrame(out, Frame(w, h, n).data(), nullptr), 1);
      wanted.push_back(OutputSoundWanted(out, 22050, 16, 2));
      std::vector<uint8_t> chunk(wanted.back());
      for (uint32_t i = 0; i < chunk.size(); ++i) chunk[i] = uint8_t(sound.size() + i);
      ASSERT_EQ(OutputWriteSound(out, chunk.data(), wanted.back()), 1);
      sound.insert(sound.end(), chunk.begin(), chunk.end());
    }
    // Lead of three quarters of a second (16540 samples), then a frame's worth, capped by the
    // allowance of 4 frames: 88200 * 1001 * 4 / 30000 = 11771.76 -> 11768 bytes.
    EXPECT_EQ(wanted[0], 11768u);
    EXPECT_EQ(wanted[1], 0u);
    const uint64_t bytes = OutputClose(out);

    ParsedAvi a = ParseAvi(Path(name));
    ASSERT_EQ(a.riffs.size(), 1u);
    EXPECT_EQ(bytes, a.d.size());
    EXPECT_EQ(a.riffs[0].size + 8u, a.d.size());
    // Microseconds a frame, frames, streams, size; the video stream's scale, rate and length;
    // its size and bits; the sound's block align, bytes a second, length, and 18-byte format.
    ExpectFields(a, Find(a.hdrl, "avih"), {{0, 33366}, {16, frames}, {24, 2}, {32, w}, {36, h}});
    ExpectFields(a, Find(a.videoStrl, "strh"),
                 {{0, Fcc("vids")}, {20, 1001}, {24, 30000}, {32, frames}});
    ExpectFields(a, Find(a.videoStrl, "strf"), {{4, w}, {8, h}, {14, 8 * pixelBytes, 2}});
    ExpectFields(a, Find(a.soundStrl, "strh"),
                 {{0, Fcc("auds")}, {20, 4}, {24, 88200}, {32, 11768 / 4}});
    const Chunk* sstrf = Find(a.soundStrl, "strf");
    ASSERT_NE(sstrf, nullptr);
    ExpectFields(a, sstrf, {{0, 1, 2}, {2, 2, 2}, {4, 22050}, {14, 16, 2}});
    EXPECT_EQ(sstrf->size, 18u);

    // idx1: offsets from the 'movi' word point at chunks of the given id and size.
    ASSERT_EQ(a.idx1Entries.size(), size_t(frames + 1));
    int video = 0;
    std::vector<uint8_t> soundBack;
    for (const Chunk& e : a.idx1Entries) {
      const uint64_t at = a.moviAt + 8 + e.at;
      ASSERT_EQ(Le32(a.d, at), e.id);
      ASSERT_EQ(Le32(a.d, at + 4), e.size);
      if (e.id == Fcc("00db")) {
        EXPECT_EQ(e.listType, 0x10u);  // a key frame
        ASSERT_EQ(e.size, rowBytes * h);
        const std::vector<uint32_t> frame = Frame(w, h, video++);
        const uint32_t unused = 32 - 8 * pixelBytes;  // the byte read past a BGR pixel
        for (int y = 0; y < h; ++y)
          for (int x = 0; x < w; ++x)
            ASSERT_EQ(Le32(a.d, at + 8 + (h - 1 - y) * rowBytes + x * pixelBytes) << unused,
                      frame[y * w + x] << unused);
      } else {
        ASSERT_EQ(e.id, Fcc("01wb"));
        soundBack.insert(soundBack.end(), a.d.begin() + at + 8, a.d.begin() + at + 8 + e.size);
      }
    }
    EXPECT_EQ(video, frames);
    EXPECT_EQ(soundBack, sound);
  }
}

TEST_F(OutputTest, AviMotionJpegFramesDecode) {
  const int w = 24, h = 16;
  options.codec = OutputCodecMjpeg;
  options.jpeg_level = 98;
  OutputWriter* out = Open("m.avi", 3, w, h, OutputFlagAlpha);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->keep_alpha, 0);
  std::vector<uint32_t> flat[3];
  for (int n = 0; n < 3; ++n) {
    flat[n].assign(w * h, 0xFF000000u | uint32_t(n * 80) << 16 | 0x4080);
    ASSERT_EQ(OutputWriteFrame(out, flat[n].data(), nullptr), 1);
  }
  OutputClose(out);
  ParsedAvi a = ParseAvi(Path("m.avi"));
  ExpectFields(a, Find(a.videoStrl, "strh"), {{4, Fcc("MJPG")}});
  ExpectFields(a, Find(a.videoStrl, "strf"), {{16, Fcc("MJPG")}});
  ASSERT_EQ(a.idx1Entries.size(), 3u);
  for (int n = 0; n < 3; ++n) {
    const Chunk& e = a.idx1Entries[n];
    EXPECT_EQ(e.id, Fcc("00dc"));
    ImageFile* f =
        ImageFileOpenMemoryAs(&a.d[a.moviAt + 16 + e.at], e.size, IMAGE_FORMAT_JPEG, nullptr);
    ASSERT_NE(f, nullptr);
    std::vector<uint32_t> px(w * h);
    ImagePixels dest{px.data(), w * 4, w, h, IMAGE_PIXELS_ARGB32};
    ASSERT_TRUE(ImageFileReadFrame(f, 0, &dest, nullptr));
    ImageFileClose(f);
    ExpectNearFlat(px, flat[n][0]);
  }
}

// A tiny RIFF limit forces AVIX segments; every piece of the OpenDML index must agree.
TEST_F(OutputTest, AviOpenDmlSegmentsAndIndexes) {
  const int w = 16, h = 16, frames = 60;
  const uint64_t limit = 16 * 1024;
  options.riff_limit = limit;
  options.index_capacity = 16;
  OutputWriter* out = Open("big.avi", frames, w, h);
  ASSERT_NE(out, nullptr);
  uint64_t soundBytes = 0;
  for (int n = 0; n < frames; ++n) {
    ASSERT_EQ(OutputWriteFrame(out, Frame(w, h, n).data(), nullptr), 1);
    uint32_t want = OutputSoundWanted(out, 8000, 8, 1);
    std::vector<uint8_t> s(want, uint8_t(n));
    ASSERT_EQ(OutputWriteSound(out, s.data(), want), 1);
    soundBytes += want;
  }
  EXPECT_EQ(soundBytes, 8000u * frames / 25);
  OutputClose(out);

  ParsedAvi a = ParseAvi(Path("big.avi"));
  ASSERT_GE(a.riffs.size(), 4u);
  for (size_t i = 0; i < a.riffs.size(); ++i) {
    EXPECT_LE(a.riffs[i].size + 8u, limit) << i;
    EXPECT_EQ(a.riffs[i].listType, Fcc(i ? "AVIX" : "AVI ")) << i;
  }
  const uint32_t firstFrames = Le32(a.d, Find(a.hdrl, "avih")->at + 8 + 16);
  uint32_t moviFrames = 0;
  for (const Chunk& c : a.movi) moviFrames += c.id == Fcc("00db");
  EXPECT_EQ(firstFrames, moviFrames);
  EXPECT_LT(firstFrames, uint32_t(frames));
  const Chunk* odml = Find(a.hdrl, "LIST", "odml");
  ASSERT_NE(odml, nullptr);
  EXPECT_EQ(Le32(a.d, odml->at + 12 + 8), uint32_t(frames));

  // Super indexes: one entry per segment (sound, ahead by its lead and ending early, may miss
  // the last ones), each pointing at an ix chunk inside a segment whose entries point at the
  // stream's chunks, in order, covering every frame and sound byte.
  for (const bool video : {true, false}) {
    SCOPED_TRACE(video ? "video" : "sound");
    const uint32_t id = Fcc(video ? "00db" : "01wb"), total = video ? frames : soundBytes;
    const Chunk* indx = Find(video ? a.videoStrl : a.soundStrl, "indx");
    ASSERT_NE(indx, nullptr);
    const uint64_t b = indx->at + 8;
    EXPECT_EQ(Le16(a.d, b), 4u);
    EXPECT_EQ(a.d[b + 3], 0);
    EXPECT_EQ(Le32(a.d, b + 8), id);
    const uint32_t used = Le32(a.d, b + 4);
    EXPECT_LE(used, a.riffs.size());
    if (video) {
      EXPECT_EQ(used, a.riffs.size());
    }
    uint64_t duration = 0, entries = 0, payload = 0;
    for (uint32_t i = 0; i < used; ++i) {
      const uint64_t entry = b + 24 + 16 * i, ix = Le64(a.d, entry);
      duration += Le32(a.d, entry + 12);
      ASSERT_EQ(Le32(a.d, ix), Fcc(video ? "ix00" : "ix01"));
      ASSERT_EQ(Le32(a.d, ix + 4) + 8, Le32(a.d, entry + 8));
      size_t seg = 0;
      while (seg + 1 < a.riffs.size() && a.riffs[seg + 1].at < ix) ++seg;
      EXPECT_GE(seg, i);
      EXPECT_LT(ix, a.riffs[seg].at + 8 + a.riffs[seg].size);
      EXPECT_EQ(a.d[ix + 11], 1);  // index of chunks
      EXPECT_EQ(Le32(a.d, ix + 16), id);
      const uint64_t base = Le64(a.d, ix + 20);
      EXPECT_EQ(base, a.riffs[seg].at);
      for (uint32_t k = 0; k < Le32(a.d, ix + 12); ++k, ++entries) {
        const uint64_t at = base + Le32(a.d, ix + 32 + 8 * k);
        const uint32_t size = Le32(a.d, ix + 36 + 8 * k);
        ASSERT_EQ(size & 0x80000000u, 0u);  // a key frame
        ASSERT_EQ(Le32(a.d, at - 8), id);
        ASSERT_EQ(Le32(a.d, at - 4), size);
        payload += size;
        // The first stored row is the frame's bottom one.
        if (video) {
          ASSERT_EQ(Le32(a.d, at) & 0xFFFFFF, Frame(w, h, entries)[(h - 1) * w] & 0xFFFFFF);
        }
      }
    }
    EXPECT_EQ(video ? entries : payload, total);
    EXPECT_EQ(duration, total);
  }
}

TEST_F(OutputTest, AviFullSuperIndexFailsTheWrite) {
  options.riff_limit = 4096;
  options.index_capacity = 2;
  OutputWriter* out = Open("f.avi", 40, 32, 32);
  ASSERT_NE(out, nullptr);
  auto frame = Frame(32, 32, 0);  // 3 KiB a frame: one frame a segment
  int ok = 1, written = 0;
  while (ok && written < 40) ok = OutputWriteFrame(out, frame.data(), nullptr), written += ok;
  EXPECT_EQ(ok, 0);
  EXPECT_EQ(written, 2);
  EXPECT_EQ(out->failed, 1);
  EXPECT_EQ(OutputClose(out), 0u);
}

// ---- y4m -------------------------------------------------------------------------------------

// BT.601 studio range from the defining equations.
double ModelY(uint32_t p) {
  return 16 + (65.481 * ((p >> 16) & 255) + 128.553 * ((p >> 8) & 255) + 24.966 * (p & 255)) / 255;
}
double ModelCb(uint32_t p) {
  return 128 + (-37.797 * ((p >> 16) & 255) - 74.203 * ((p >> 8) & 255) + 112.0 * (p & 255)) / 255;
}
double ModelCr(uint32_t p) {
  return 128 + (112.0 * ((p >> 16) & 255) - 93.786 * ((p >> 8) & 255) - 18.214 * (p & 255)) / 255;
}

void CheckY4m(const std::vector<uint8_t>& d, int w, int h, int frames, bool full,
              const std::string& header) {
  ASSERT_GE(d.size(), header.size());
  ASSERT_EQ(std::string(d.begin(), d.begin() + header.size()), header);
  const int cw = full ? w : (w + 1) / 2, ch = full ? h : (h + 1) / 2;
  const size_t frameBytes = size_t(w) * h + 2 * size_t(cw) * ch;
  ASSERT_EQ(d.size(), header.size() + frames * (6 + frameBytes));
  for (int n = 0; n < frames; ++n) {
    const size_t at = header.size() + n * (6 + frameBytes);
    ASSERT_EQ(std::string(d.begin() + at, d.begin() + at + 6), "FRAME\n");
    const uint8_t* y = &d[at + 6];
    const uint8_t* cb = y + w * h;
    const uint8_t* cr = cb + cw * ch;
    auto frame = Frame(w, h, n);
    for (int i = 0; i < w * h; ++i) ASSERT_NEAR(y[i], ModelY(frame[i]), 1.0) << i;
    for (int cy = 0; cy < ch; ++cy)
      for (int cx = 0; cx < cw; ++cx) {
        double sb = 0, sr = 0;
        int count = 0;
        const int step = full ? 1 : 2;
        for (int yy = cy * step; yy < std::min(cy * step + step, h); ++yy)
          for (int xx = cx * step; xx < std::min(cx * step + step, w); ++xx) {
            sb += ModelCb(frame[yy * w + xx]);
            sr += ModelCr(frame[yy * w + xx]);
            ++count;
          }
        ASSERT_NEAR(cb[cy * cw + cx], sb / count, 1.0) << cx << "," << cy;
        ASSERT_NEAR(cr[cy * cw + cx], sr / count, 1.0) << cx << "," << cy;
      }
  }
}

// 4:2:0 with odd sizes to a file; 4:4:4 to standard output.
TEST_F(OutputTest, Y4mFramesMatchTheModel) {
  const struct {
    const char* name;
    int w, h, frames, chroma;
    uint32_t rateNum, rateDen;
    const char* header;
  } cases[] = {
      {"v.Y4M", 7, 5, 2, 420, 24000, 1001, "YUV4MPEG2 W7 H5 F24000:1001 Ip A1:1 C420jpeg\n"},
      {"-", 6, 4, 3, 444, 25, 1, "YUV4MPEG2 W6 H4 F25:1 Ip A1:1 C444\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    options.y4m_chroma = c.chroma;
    const bool toStdout = c.name[0] == '-';
    if (toStdout) testing::internal::CaptureStdout();
    OutputWriter* out = OutputOpen(toStdout ? "-" : Path(c.name).c_str(), c.frames, c.rateNum,
                                   c.rateDen, c.w, c.h, c.w, log.Sink(), 0, &options);
    int ok = out != nullptr;
    for (int n = 0; ok && n < c.frames; ++n)
      ok = OutputWriteFrame(out, Frame(c.w, c.h, n).data(), nullptr);
    const uint64_t bytes = out ? OutputClose(out) : 0;
    const std::string d = toStdout ? testing::internal::GetCapturedStdout() : ReadText(Path(c.name));
    ASSERT_TRUE(ok);
    if (!toStdout) {
      EXPECT_EQ(bytes, d.size());
    }
    CheckY4m(std::vector<uint8_t>(d.begin(), d.end()), c.w, c.h, c.frames, c.chroma == 444, c.header);
  }
}

// ---- Wave files ------------------------------------------------------------------------------

TEST_F(OutputTest, WaveHeaderLengthsAndData) {
  WaveFile* wave = WaveCreate(Path("s.wav").c_str(), 44100, 16, 2, false);
  ASSERT_NE(wave, nullptr);
  std::vector<uint8_t> data(50001);
  for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 7);
  ASSERT_TRUE(WaveWrite(wave, data.data(), 20000));
  ASSERT_TRUE(WaveWrite(wave, data.data() + 20000, data.size() - 20000));
  EXPECT_EQ(WaveClose(wave), 44u + data.size());
  auto d = ReadFile(Path("s.wav"));
  ExpectWaveHeader(d, 44100, 16, 2, uint32_t(data.size()));
  EXPECT_TRUE(std::equal(data.begin(), data.end(), d.begin() + 44));

  WaveFile* raw = WaveCreate(Path("s.raw").c_str(), 8000, 8, 1, true);
  ASSERT_NE(raw, nullptr);
  ASSERT_TRUE(WaveWrite(raw, data.data(), 10));
  EXPECT_EQ(WaveClose(raw), 10u);
  EXPECT_EQ(ReadFile(Path("s.raw")), std::vector<uint8_t>(data.begin(), data.begin() + 10));
  EXPECT_EQ(WaveCreate(Path("bad.wav").c_str(), 8000, 12, 1, false), nullptr);
  EXPECT_EQ(WaveCreate(Path("missing/x.wav").c_str(), 8000, 8, 1, false), nullptr);
}

}  // namespace

// ---- Whole or nothing ------------------------------------------------------------------------

// Every kind of output, over files that are there: a full disk at any point (while frames go
// out, or only when the headers and indexes are written at the close) and a cancel leave the
// old files byte for byte and no temporary file; a run that goes well replaces them all.
TEST_F(OutputTest, OldFilesStayUntilARunEndsWell) {
  const struct {
    const char* name;
    std::vector<std::string> files;
  } kinds[] = {
      {"w.avi", {"w.avi"}},
      {"w.y4m", {"w.y4m"}},
      {"w.png", {"w0.png", "w1.png", "w2.png"}},
      {"w.exr", {"w0.exr", "w1.exr", "w2.exr"}},
  };
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.name);
    std::map<std::string, std::vector<uint8_t>> old;
    for (const std::string& f : kind.files) {
      WriteText(Path(f), "old " + f);
      old[f] = ReadFile(Path(f));
    }
    auto expectOld = [&](const char* what) {
      for (const std::string& f : kind.files) {
        EXPECT_TRUE(ReadFile(Path(f)) == old[f]) << what << ": " << f;
        EXPECT_FALSE(Exists(Path(f) + ".tmp")) << what << ": " << f;
      }
    };
    // A run of three frames: the bytes its close reports, and how the close went.
    auto run = [&](bool cancel, uint32_t* result) {
      OutputWriter* out = Open(kind.name, 3, 24, 16, OutputFlagPromptDone);
      if (!out) return uint64_t(0);
      bool ok = true;
      for (int n = 0; n < 3 && ok; ++n) ok = OutputWriteFrame(out, Frame(24, 16, n).data(), nullptr) == 1;
      return OutputClose(out, cancel || !ok, result);
    };
    uint32_t result = OutFileDone;
    // Full at once, and after a little. The single files are smaller than their writers'
    // buffers, so for them the failing writes are those of the close.
    for (const uint64_t room : {uint64_t(0), uint64_t(100)}) {
      SCOPED_TRACE(room);
      {
        const test_support::FullDisk full(room);
        EXPECT_EQ(run(false, &result), 0u);
      }
      EXPECT_EQ(result, uint32_t(OutFileWriteFailed));
      expectOld("full disk");
    }
    EXPECT_EQ(run(true, &result), 0u);
    expectOld("cancel");
    EXPECT_GT(run(false, &result), 0u);
    EXPECT_EQ(result, uint32_t(OutFileDone));
    for (const std::string& f : kind.files) {
      EXPECT_FALSE(ReadFile(Path(f)) == old[f]) << f << " was not replaced";
      EXPECT_FALSE(Exists(Path(f) + ".tmp")) << f;
    }
  }
  // The wave writer likewise.
  WriteText(Path("w.wav"), "old wave");
  const std::vector<uint8_t> oldWave = ReadFile(Path("w.wav"));
  const std::vector<uint8_t> samples(40000, 7);
  for (const bool full : {true, false}) {
    std::optional<test_support::FullDisk> disk;
    if (full) disk.emplace(1000);
    WaveFile* wave = WaveCreate(Path("w.wav").c_str(), 8000, 8, 1, false);
    ASSERT_NE(wave, nullptr);
    const bool written = WaveWrite(wave, samples.data(), samples.size());
    uint32_t result = OutFileDone;
    EXPECT_EQ(WaveClose(wave, full ? false : true, &result), 0u);
    disk.reset();
    EXPECT_EQ(result, full ? uint32_t(OutFileWriteFailed) : uint32_t(OutFileDone));
    EXPECT_EQ(written, !full);
    EXPECT_TRUE(ReadFile(Path("w.wav")) == oldWave);
    EXPECT_FALSE(Exists(Path("w.wav.tmp")));
  }
}

// The overwrite question of a series is asked on its first name whenever any of its names is
// taken, before anything is written; No leaves every file as it was.
TEST_F(OutputTest, ASeriesAsksWhenAnyOfItsNamesIsTaken) {
  WriteText(Path("q07.png"), "taken");
  ask.answer = false;
  EXPECT_EQ(Open("q.png", 11, 8, 8), nullptr);
  ASSERT_EQ(ask.questions.size(), 1u);
  EXPECT_EQ(ask.questions[0], "File " + Path("q00.png") + " exists, overwrite?");
  EXPECT_EQ(ReadText(Path("q07.png")), "taken");
  EXPECT_FALSE(Exists(Path("q00.png")));
  // With all names free nobody is asked.
  ask.questions.clear();
  OutputWriter* out = Open("free.png", 11, 8, 8);
  ASSERT_NE(out, nullptr);
  EXPECT_TRUE(ask.questions.empty());
  OutputClose(out, true);
}
