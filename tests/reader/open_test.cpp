// Opening Velmo files: every open error from a crafted file, the completed open flags, rates and
// next-open settings (the stored track list is checked with the sound tests), the planned
// memory and frame buffers, the busiest second, the paths that read the whole file, and closing.
#include "velmo_test_files.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace velmo_test;

class VelmoOpenTest : public VelmoTest {};

std::string OpenError(const std::vector<uint8_t>& file) {
  HVELMO h = OpenImage(file);
  EXPECT_EQ(h, nullptr);
  if (h) VelmoClose(h);
  return VelmoGetError();
}

TEST_F(VelmoOpenTest, HeaderErrorsInTheReadersOrder) {
  const std::vector<uint8_t> good = BuildFile({});
  auto patched = [&](size_t at, uint32_t value) {
    std::vector<uint8_t> f = good;
    Store32(&f, at, value);
    return f;
  };
  EXPECT_EQ(OpenError(patched(0, VelmoMagicOf('V', 'L', 'M', 'z'))), "Not a Velmo file.");
  EXPECT_EQ(OpenError(patched(8, 0)), "The file doesn't contain any compressed frames yet.");
  EXPECT_EQ(OpenError(patched(16, 5)), "The file has a corrupt header.");         // index < frames
  EXPECT_EQ(OpenError(patched(28, 0)), "The file has a corrupt header.");         // rate 0
  EXPECT_EQ(OpenError(patched(20, 40000)), "The file has a corrupt header.");     // width
  // Frames 0 wins over a corrupt index count.
  std::vector<uint8_t> both = patched(8, 0);
  Store32(&both, 16, 2000000);
  EXPECT_EQ(OpenError(both), "The file doesn't contain any compressed frames yet.");
  // An image too short for the header cannot be a Velmo file.
  EXPECT_EQ(OpenError({good.begin(), good.begin() + 20}), "Not a Velmo file.");
}

TEST_F(VelmoOpenTest, TableAndFrameSizeErrors) {
  FilePlan s;
  TestWriter w = BuildWriter(s);
  // Cut inside the frame table: the tables cannot be read.
  std::vector<uint8_t> cut(w.File.begin(), w.File.begin() + w.Image.FrameTableOffset + 8);
  EXPECT_EQ(OpenError(cut), "Error reading Velmo header.");
  // A jump of more than 256 MiB between neighbouring entries.
  std::vector<uint8_t> jump = w.File;
  Store32(&jump, w.Image.FrameTableOffset + 4 * 3, 0x20000000u);
  EXPECT_EQ(OpenError(jump), "This file has bad frame size data.");
}

TEST_F(VelmoOpenTest, ProviderErrorsAndTheErrorText) {
  const std::vector<uint8_t> file = BuildFile({});
  // No file provider: a path cannot be opened.
  const VelmoIOService none = {nullptr, nullptr, nullptr, nullptr};
  VelmoSetIOServiceForTest(&none);
  EXPECT_EQ(VelmoOpen("no-such-file.vlm", 0), nullptr);
  EXPECT_STREQ(VelmoGetError(), "No file IO provider installed.");
  VelmoSetIOServiceForTest(nullptr);

  // A provider that fails without a word of its own, and one that explains itself.
  VelmoOpenOptions o{};
  o.CustomIO = [](IOProvider*, const char*, uint32_t, const VelmoOpenOptions*) -> uint32_t {
    return 0;
  };
  EXPECT_EQ(VelmoOpenWithOptions("x", &o, VelmoOpenCustomIO), nullptr);
  EXPECT_STREQ(VelmoGetError(), "Error opening file.");
  o.CustomIO = [](IOProvider*, const char*, uint32_t, const VelmoOpenOptions*) -> uint32_t {
    VelmoSetError("The disk is on fire.");
    return 0;
  };
  EXPECT_EQ(VelmoOpenWithOptions("x", &o, VelmoOpenCustomIO), nullptr);
  EXPECT_STREQ(VelmoGetError(), "The disk is on fire.");
  // A successful open clears the text.
  HVELMO h = OpenImage(file);
  ASSERT_NE(h, nullptr);
  EXPECT_STREQ(VelmoGetError(), "");
  VelmoClose(h);
  // The text itself: a default for none, and cut to 254 bytes.
  VelmoSetError(nullptr);
  EXPECT_STREQ(VelmoGetError(), "Velmo Error");
  const std::string longText(400, 'x');
  VelmoSetError(longText.c_str());
  EXPECT_EQ(std::string(VelmoGetError()), longText.substr(0, 254));
}

TEST_F(VelmoOpenTest, PublicFieldsAfterOpen) {
  FilePlan s;
  s.Width = -20;  // a negative width reads as its absolute value
  s.Height = 12;
  s.Rate = 25;
  s.Frames = 7;
  s.IndexFrames = 9;
  HVELMO h = Open(s);
  ASSERT_NE(h, nullptr);
  const std::vector<uint8_t>& file = File;
  using Row = std::vector<uint64_t>;
  EXPECT_EQ(Row({h->Width, h->Height, h->Frames, h->FrameRate, h->FrameRateDiv, h->Magic,
                 h->FileSize}),
            Row({20, 12, 7, 25, 1, VelmoMagicVLMi, file.size() - 8}));
  // At frame 1, none before it; video on, no sound; frame 1 a key frame, not all of them.
  EXPECT_EQ(Row({h->FrameNum, h->LastFrameNum, h->VideoOn, h->SoundOn, h->OpenTracks,
                 h->FrameIsKey, h->AllKeyFrames, h->SliceState.Count}),
            Row({1, 0xFFFFFFFFu, 1, 0, 0, 1, 0, 2}));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(h) % 256, 0u);
  EXPECT_GT(h->OpenSerial, 0u);
  EXPECT_EQ(h->ColourTable[VelmoColourRowY], 1.164124f);  // the default video-range table
  // The frame table is expanded with the key bit kept.
  EXPECT_EQ(VelmoEntryOffset(h->FrameTable[0]), h->FramePosition);
  EXPECT_TRUE(VelmoEntryIsKey(h->FrameTable[5]));
  EXPECT_FALSE(VelmoEntryIsKey(h->FrameTable[6]));
  // Frame 1's packet is the first frame's bytes in the image.
  ASSERT_EQ(h->FrameSize, 8u);
  EXPECT_EQ(0, std::memcmp(h->FrameData, DefaultVideo(0).data(), 8));
  EXPECT_EQ(h->FrameData, file.data() + h->FramePosition);
  HVELMO second = OpenImage(file);
  EXPECT_EQ(second->OpenSerial, h->OpenSerial + 1);
  VelmoClose(second);
  VelmoClose(h);

  s.KeyEvery = 1;  // every frame a key frame
  h = Open(s);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->AllKeyFrames, 1u);
  VelmoClose(h);
}

TEST_F(VelmoOpenTest, OpenFlagsAreCompleted) {
  FilePlan s;
  s.Version = 150;  // "VLMk": extras, and the flags are kept
  s.Flags = VelmoFlagGrayscale | VelmoFlagFullRange;
  HVELMO h = Open(s, VelmoOpenOwnBuffers | VelmoOpenAlpha | VelmoOpenHdr);
  ASSERT_NE(h, nullptr);
  // Own buffers become none; alpha goes (the file has no alpha plane); HDR, grayscale and full
  // range are taken from the file; an image is read on the caller's thread.
  const uint32_t shown = VelmoOpenOwnBuffers | VelmoOpenNoBuffers | VelmoOpenAlpha | VelmoOpenHdr |
                         VelmoOpenGrayscale | VelmoOpenFullRange | VelmoOpenImage |
                         VelmoOpenNoBackground | VelmoOpenOldFirst;
  EXPECT_EQ(h->OpenFlags & shown, uint32_t(VelmoOpenNoBuffers | VelmoOpenGrayscale |
                                           VelmoOpenFullRange | VelmoOpenImage |
                                           VelmoOpenNoBackground));
  EXPECT_EQ(h->FrameBuffers, nullptr);
  EXPECT_EQ(h->ColourTable[VelmoColourRowY], 1.0f);  // full range
  VelmoClose(h);

  // The old first-generation letters are marked, and their chroma rows exchanged.
  std::vector<uint8_t> old = BuildFile({});
  Store32(&old, 0, VelmoMagicVLMf);
  h = OpenImage(old);
  ASSERT_NE(h, nullptr);
  EXPECT_NE(h->OpenFlags & VelmoOpenOldFirst, 0u);
  float table[16];
  VelmoDefaultColourTable(VelmoMagicVLMf, h->FileFlags, table);
  EXPECT_EQ(0, std::memcmp(table, h->ColourTable, sizeof table));
  EXPECT_NE(h->ColourTable[VelmoColourRowCr], 1.595795f);
  VelmoClose(h);

  // With an alpha plane in the file, the alpha flag stays and the buffers get alpha planes.
  s = FilePlan{};
  s.Version = 150;
  s.Flags = VelmoFlagAlpha;
  h = Open(s, VelmoOpenAlpha);
  ASSERT_NE(h, nullptr);
  EXPECT_NE(h->OpenFlags & VelmoOpenAlpha, 0u);
  ASSERT_NE(h->FrameBuffers, nullptr);
  EXPECT_EQ(h->FrameBuffers->HasAlpha, 1u);
  EXPECT_NE(h->FrameBuffers->Sets[0].Planes[VelmoPlaneAlpha], nullptr);
  VelmoClose(h);
}

// Buffers padded to whole units (first generation 8 x 8, second 32 x 16 with pitches of 64),
// two sets unless the file has a single frame, and the slices of the padded height.
TEST_F(VelmoOpenTest, FrameBufferLayoutByGeneration) {
  const struct {
    uint32_t Version, Frames;
    int32_t Width, Height;
    uint32_t Count, LumaWidth, LumaHeight, ChromaWidth, ChromaHeight, Slices;
    int32_t LumaPitch, ChromaPitch;
  } cases[] = {{100, 10, 21, 13, 2, 24, 16, 16, 8, 2, 24, 16},  // chroma 11 x 7 rounded up
               {200, 10, 100, 50, 2, 128, 64, 64, 32, 1, 128, 64},  // padded height below 128
               {200, 1, 100, 300, 1, 128, 304, 64, 152, 2, 128, 64}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.Version << ": " << c.Width << " x " << c.Height);
    FilePlan s;
    s.Version = c.Version;
    s.Frames = c.Frames;
    s.Width = c.Width;
    s.Height = c.Height;
    HVELMO h = Open(s);
    ASSERT_NE(h, nullptr);
    const VelmoFrameBuffers* fb = h->FrameBuffers;
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(fb->Count, c.Count);
    using Sizes = std::vector<uint32_t>;
    EXPECT_EQ(Sizes({fb->LumaWidth, fb->LumaHeight, fb->ChromaWidth, fb->ChromaHeight}),
              Sizes({c.LumaWidth, c.LumaHeight, c.ChromaWidth, c.ChromaHeight}));
    EXPECT_EQ(fb->LumaPitch, c.LumaPitch);
    EXPECT_EQ(fb->ChromaPitch, c.ChromaPitch);
    EXPECT_EQ(fb->Sets[0].Planes[VelmoPlaneAlpha], nullptr);
    EXPECT_NE(fb->Sets[c.Count - 1].Planes[VelmoPlaneCb], nullptr);
    EXPECT_EQ(h->SliceState.Count, c.Slices);
    if (c.Version == 200 && c.Frames > 1) {
      EXPECT_EQ(h->SliceState.Stride, ((131u / 8) & ~3u) + 4);
    }
    if (c.Frames == 1) {
      EXPECT_EQ(h->SliceState.RowHeight, ((2 * 32 + 320 - 1) / 2) & ~31u);
    }
    VelmoClose(h);
  }
}

TEST_F(VelmoOpenTest, RatesAndNextOpenSettings) {
  const std::vector<uint8_t> file = BuildFile({});
  VelmoSetFrameRate(60, 1);
  HVELMO h = VelmoOpen(reinterpret_cast<const char*>(file.data()), VelmoOpenImage);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->FrameRate, 60u);
  EXPECT_NE(h->OpenFlags & VelmoOpenForceRate, 0u);
  VelmoSummary sum;
  VelmoGetSummary(h, &sum);
  EXPECT_EQ(sum.FileRate, 30u);
  EXPECT_EQ(sum.FrameRate, 60u);
  VelmoClose(h);
  // Consumed by that open.
  h = VelmoOpen(reinterpret_cast<const char*>(file.data()), VelmoOpenImage);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->FrameRate, 30u);
  EXPECT_EQ(h->OpenFlags & VelmoOpenForceRate, 0u);
  VelmoClose(h);

  // A file offset: the Velmo file starts inside a larger image.
  std::vector<uint8_t> padded(64, 0xEE);
  padded.insert(padded.end(), file.begin(), file.end());
  VelmoSetFileOffset(64);
  h = VelmoOpen(reinterpret_cast<const char*>(padded.data()), VelmoOpenImage);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(0, std::memcmp(h->FrameData, DefaultVideo(0).data(), 8));
  VelmoClose(h);
  EXPECT_EQ(VelmoOpen(reinterpret_cast<const char*>(padded.data()), VelmoOpenImage), nullptr);

  // A forced rate through the options, with the flag only; all ones means the file's, and 0
  // (as fast as possible) is a rate like any other.
  const uint32_t forced[][5] = {// rate, divisor, flags, the rate and divisor used
                                {0xFFFFFFFFu, 1, VelmoOpenForceRate, 30, 1},
                                {15, 2, 0, 30, 1},
                                {15, 2, VelmoOpenForceRate, 15, 2},
                                {0, 1, VelmoOpenForceRate, 0, 1}};
  for (const auto& [rate, div, flags, used, usedDiv] : forced) {
    VelmoOpenOptions o{};
    o.ImageSize = file.size();
    o.ForcedRate = rate;
    o.ForcedRateDiv = div;
    h = VelmoOpenWithOptions(reinterpret_cast<const char*>(file.data()), &o,
                             VelmoOpenImage | flags);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->FrameRate, used) << rate << " " << flags;
    EXPECT_EQ(h->FrameRateDiv, usedDiv) << rate << " " << flags;
    VelmoClose(h);
  }
}

// The bytes of the busiest second (a window of as many frames as a second holds) and the first
// frame of it, worked out by hand from the frame sizes.
TEST_F(VelmoOpenTest, HighestSecondBytes) {
  struct Case {
    const char* What;
    uint32_t Rate, RateDiv;
    std::vector<uint32_t> Sizes;
    uint64_t Bytes;
    uint32_t Frame;
  };
  std::vector<uint32_t> mixed(20), twoPeaks(20, 4);
  for (uint32_t i = 0; i < 20; ++i) mixed[i] = 4 * (1 + (i * 7) % 11);
  mixed[12] = mixed[13] = 400;  // windows 9..12 all hold both; the last the most besides
  twoPeaks[3] = twoPeaks[15] = 100;
  const Case cases[] = {
      {"the busiest stretch", 5, 1, mixed, 400 + 400 + 44 + 28 + 12, 12},
      {"two equal busiest windows: the first wins", 5, 1, twoPeaks, 116, 0},
      {"fewer frames than a second: the average scaled", 30, 1, {8, 16, 24, 40}, 88 * 30 / 4, 0},
      {"half a frame a second: a window of one frame", 1, 2, {8, 40, 12}, 40, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.What);
    FilePlan s;
    s.Rate = c.Rate;
    s.RateDiv = c.RateDiv;
    s.Frames = uint32_t(c.Sizes.size());
    s.Video = [&](uint32_t i) { return std::vector<uint8_t>(c.Sizes[i], uint8_t(i)); };
    HVELMO h = Open(s);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->HighestSecondBytes, c.Bytes);
    EXPECT_EQ(h->HighestSecondFrame, c.Frame);
    VelmoSummary sum;
    VelmoGetSummary(h, &sum);
    EXPECT_EQ(sum.HighestSecondFrame, c.Frame + 1);
    VelmoClose(h);
  }
}

TEST_F(VelmoOpenTest, ProviderPathReadsThePacketOnTheCallersThread) {
  FilePlan s;
  s.Frames = 3;
  const std::vector<uint8_t> file = BuildFile(s);
  ProviderOpen p;
  HVELMO h = p.Open(file);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->PreloadData, nullptr);
  EXPECT_EQ(h->FrameReadPending, 1u);  // read when the frame is decoded
  EXPECT_EQ(reinterpret_cast<uintptr_t>(h->FrameData) % 128, h->FramePosition % 128);
  EXPECT_EQ(h->ReadBufferSize, file.size() + 16);  // a small file is read whole
  EXPECT_EQ(VelmoDoFrame(h), 1u);
  EXPECT_EQ(h->FrameReadPending, 0u);
  EXPECT_EQ(0, std::memcmp(h->FrameData, DefaultVideo(0).data(), 8));
  EXPECT_EQ(h->NextReadPosition, h->FramePosition + 8);
  VelmoNextFrame(h);
  EXPECT_EQ(h->FrameReadPending, 1u);
  VelmoDoFrame(h);
  EXPECT_EQ(0, std::memcmp(h->FrameData, DefaultVideo(1).data(), 8));
  VelmoClose(h);
}

TEST_F(VelmoOpenTest, PreloadAndReadWhole) {
  FilePlan s;
  s.Frames = 4;
  const std::vector<uint8_t> file = BuildFile(s);
  ProviderOpen p;
  HVELMO h = p.Open(file, VelmoOpenPreload);
  ASSERT_NE(h, nullptr);
  ASSERT_NE(h->PreloadData, nullptr);
  EXPECT_EQ(h->FrameReadPending, 0u);
  VelmoNextFrame(h);
  VelmoNextFrame(h);
  EXPECT_EQ(0, std::memcmp(h->FrameData, DefaultVideo(2).data(), 8));
  VelmoClose(h);

  // The whole file into one block, then opened from memory.
  HVELMO block = p.Open(file, VelmoOpenReadWhole);
  ASSERT_NE(block, nullptr);
  const uint8_t* image = reinterpret_cast<const uint8_t*>(block);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(image) % 256, 0u);
  EXPECT_EQ(0, std::memcmp(image, file.data(), file.size()));
  h = VelmoOpen(reinterpret_cast<const char*>(image), VelmoOpenImage);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->Frames, 4u);
  VelmoClose(h);
  VelmoFreeFileImage(block);
}

TEST_F(VelmoOpenTest, ReadFailureStopsTheWalk) {
  FilePlan s;
  s.Frames = 4;
  const std::vector<uint8_t> file = BuildFile(s);
  // The provider sees the file cut in the middle of frame 3.
  std::vector<uint8_t> cut(file.begin(), file.end() - 8 - 4);
  ProviderOpen p;
  HVELMO h = p.Open(file, VelmoOpenNoFill);
  ASSERT_NE(h, nullptr);
  p.Span.Size = cut.size();
  EXPECT_EQ(VelmoDoFrame(h), 1u);
  VelmoNextFrame(h);
  EXPECT_EQ(VelmoDoFrame(h), 1u);
  VelmoNextFrame(h);
  EXPECT_EQ(h->FrameNum, 3u);
  EXPECT_EQ(VelmoDoFrame(h), 0u);  // the packet cannot be read
  EXPECT_NE(h->ReadError, 0u);
  EXPECT_EQ(VelmoWait(h), 0u);
  VelmoNextFrame(h);
  EXPECT_EQ(h->FrameNum, 3u);  // nothing moves any more
  VelmoClose(h);
}

TEST_F(VelmoOpenTest, MemoryAndClose) {
  HVELMO h = Open();
  ASSERT_NE(h, nullptr);
  EXPECT_GT(h->TotalMemory, sizeof(VelmoState) + 2 * 16 * 16);
  VelmoClose(h);
  VelmoClose(nullptr);  // accepted and ignored
  EXPECT_EQ(VelmoWait(nullptr), 0u);
  EXPECT_EQ(VelmoDoFrame(nullptr), 0u);
  VelmoNextFrame(nullptr);
  VelmoGoto(nullptr, 3, 0);
  VelmoSetFileLoop(nullptr, 1);
  EXPECT_EQ(VelmoPause(nullptr, 1), 0u);
  EXPECT_EQ(VelmoGetKeyFrame(nullptr, 1, 0), 0u);
}

}  // namespace
