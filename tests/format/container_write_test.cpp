// Writing side of the Velmo container: header images, checkpoints, and round trips through the
// reading side for both generations.
#include "format/container.h"

#include "support/velmo_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using velmo_test::AddFrame;
using velmo_test::Checkpoint;
using velmo_test::Put32;
using velmo_test::StartWriter;
using velmo_test::TestWriter;

namespace {

VelmoWriteParams BaseParams(uint32_t version) {
  VelmoWriteParams p{};
  p.Version = version;
  p.Width = 320;
  p.Height = 240;
  p.FrameRate = 30000;
  p.FrameRateDiv = 1001;
  p.IndexFrames = 4;
  return p;
}

std::vector<uint8_t> Bytes(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = uint8_t(seed + i * 7);
  return v;
}

TEST(ContainerWriter, MagicAndFlagWordByVersionAndFlags) {
  EXPECT_EQ(VelmoWriterMagic(0, VelmoFlagHdr), VelmoMagicVLMi);
  EXPECT_EQ(VelmoWriterMagic(100, 0), VelmoMagicVLMi);
  EXPECT_EQ(VelmoWriterMagic(101, 0), VelmoMagicVLMk);
  EXPECT_EQ(VelmoWriterMagic(199, VelmoFlagHdr), VelmoMagicVLMk);
  EXPECT_EQ(VelmoWriterMagic(200, 0), VelmoMagicVM2j);
  EXPECT_EQ(VelmoWriterMagic(200, VelmoFlagColourMatrix), VelmoMagicVM2k);
  EXPECT_EQ(VelmoWriterMagic(200, VelmoFlagColourMatrix | VelmoFlagHdr), VelmoMagicVM2m);
  EXPECT_EQ(VelmoWriterMagic(270, VelmoFlagHdr), VelmoMagicVM2m);
  // The flag word keeps only the writer's bits.
  VelmoWriteParams p = BaseParams(100);
  p.Flags = 0xFFFFFFFF;
  p.SliceMode = 3;
  p.TextLength = 9;
  p.Text = "123456789";
  EXPECT_EQ(VelmoWriterFlagWord(p), 0x130014u);  // no slices or text before 101
  p.Version = 101;
  EXPECT_EQ(VelmoWriterFlagWord(p), 0x130014u | 3u << 24 | 3u);
  p.Version = 200;
  p.SliceMode = 6;  // only the low two bits are a mode
  EXPECT_EQ(VelmoWriterFlagWord(p), 0x130014u | 3u << 24 | 2u);
}

TEST(ContainerWriter, ImageLayoutAndOffsets) {
  const VelmoTrackInfo tracks[2] = {{0, 0x50005622, 0}, {0, 0x10001F40, 5}};
  VelmoWriteParams p = BaseParams(200);
  p.TrackCount = 2;
  p.Tracks = tracks;
  p.Text = "hello";
  p.TextLength = 6;
  VelmoHeaderImage image;
  ASSERT_TRUE(VelmoBuildHeaderImage(p, &image));
  EXPECT_EQ(image.Magic, VelmoMagicVM2j);
  EXPECT_EQ(image.ExtrasOffset, 44u);
  EXPECT_EQ(image.ExtrasSize, 4u + 8u);
  EXPECT_EQ(image.TableOffset, 56u);
  EXPECT_EQ(image.FrameTableOffset, 56u + 24u);
  EXPECT_EQ(image.FirstFrameOffset, 56u + 24u + 20u);
  EXPECT_EQ(image.Bytes.size(), image.FirstFrameOffset);
  EXPECT_EQ(image.FirstFrameOffset % 4, 0u);
  // Counts start at zero and the stamp and padded text follow the header.
  VelmoHeader h;
  ASSERT_TRUE(VelmoParseHeader(image.Bytes.data(), image.Bytes.size(), &h));
  EXPECT_EQ(h.Frames, 0u);
  EXPECT_EQ(h.FileSizeLess8, 0u);
  EXPECT_EQ(h.LargestFrameSize, 0u);
  EXPECT_EQ(h.IndexFrames, 4u);
  EXPECT_EQ(h.Flags, image.Flags);
  const uint8_t expectedExtras[12] = {0x02, 0x06, 0xE4, 0x87, 'h', 'e', 'l', 'l', 'o', 0, 0, 0};
  EXPECT_EQ(std::memcmp(image.Bytes.data() + 44, expectedExtras, 12), 0);
  for (size_t i = image.FrameTableOffset; i < image.Bytes.size(); ++i) {
    EXPECT_EQ(image.Bytes[i], 0) << i;
  }
  // Before the first checkpoint the file reads as one without frames.
  VelmoFileInfo info;
  EXPECT_STREQ(VelmoParseFile(image.Bytes.data(), image.Bytes.size(), &info),
               VelmoTextNoFramesYet);
}

TEST(ContainerWriter, RefusesBadParameters) {
  const int16_t block[12] = {};
  VelmoHeaderImage image;
  struct Case {
    const char* What;
    void (*Change)(VelmoWriteParams&);
  };
  const Case cases[] = {
      {"rate 0", [](VelmoWriteParams& p) { p.FrameRate = 0; }},
      {"rate div 0", [](VelmoWriteParams& p) { p.FrameRateDiv = 0; }},
      {"too many frames", [](VelmoWriteParams& p) { p.IndexFrames = 1000001; }},
      {"too many tracks", [](VelmoWriteParams& p) { p.TrackCount = 257; }},
      {"tracks missing", [](VelmoWriteParams& p) { p.TrackCount = 1; }},
      {"text too long", [](VelmoWriteParams& p) { p.Text = ""; p.TextLength = 1021; }},
      {"text missing", [](VelmoWriteParams& p) { p.TextLength = 4; }},
      {"hdr block missing", [](VelmoWriteParams& p) { p.Flags = VelmoFlagHdr; }},
      {"matrix missing", [](VelmoWriteParams& p) { p.Flags = VelmoFlagColourMatrix; }},
  };
  for (const Case& c : cases) {
    VelmoWriteParams p = BaseParams(200);
    c.Change(p);
    EXPECT_FALSE(VelmoBuildHeaderImage(p, &image)) << c.What;
  }
  // Limits themselves are fine, and a first-generation 100 file ignores the extras' inputs.
  VelmoWriteParams p = BaseParams(200);
  static const char longText[1020] = {'x'};
  p.Text = longText;
  p.TextLength = 1020;
  p.Flags = VelmoFlagHdr | VelmoFlagColourMatrix;
  p.HdrBlock = block;
  ASSERT_TRUE(VelmoBuildHeaderImage(p, &image));
  EXPECT_EQ(image.Flags >> 24, 255u);
  p = BaseParams(100);
  p.Flags = VelmoFlagHdr;
  p.TextLength = 5000;
  EXPECT_TRUE(VelmoBuildHeaderImage(p, &image));
  EXPECT_EQ(image.ExtrasSize, 0u);
}

// ---------------------------------------------------------------------------------------------
// Round trips: write frames with the writer's order, checkpoint, and read all back.

struct RoundTripCase {
  const char* What;
  uint32_t Version;
  uint32_t Flags;
  uint32_t SliceMode;
  const char* Text;
  uint32_t TrackCount;
};

class ContainerRoundTrip : public ::testing::TestWithParam<RoundTripCase> {};

TEST_P(ContainerRoundTrip, WriteCheckpointParse) {
  const RoundTripCase& c = GetParam();
  const int16_t hdr[6] = {16000, 30000, 28000, -12000, -9000, 4000};
  int16_t matrix[12];
  for (int i = 0; i < 12; ++i) matrix[i] = int16_t((i - 6) * 1000);
  VelmoTrackInfo tracks[3] = {{0, 0x70005622, 10}, {0, 0x80002B11, 20}, {0, 0x00001F40, 30}};

  VelmoWriteParams p = BaseParams(c.Version);
  p.Width = -320;  // kept as written
  p.IndexFrames = 6;
  p.Flags = c.Flags;
  p.SliceMode = c.SliceMode;
  p.HdrBlock = hdr;
  p.ColourMatrix = matrix;
  p.Text = c.Text;
  p.TextLength = c.Text ? uint32_t(std::strlen(c.Text) + 1) : 0;
  p.TrackCount = c.TrackCount;
  p.Tracks = tracks;
  TestWriter w;
  ASSERT_TRUE(StartWriter(p, &w));

  // Five frames of six planned; key frames 0 and 3; tracks vary between sound and none.
  std::vector<std::vector<uint8_t>> videos;
  std::vector<std::vector<std::vector<uint8_t>>> sounds;
  for (int f = 0; f < 5; ++f) {
    std::vector<std::vector<uint8_t>> frameSounds;
    std::vector<uint32_t> decoded;
    for (uint32_t t = 0; t < c.TrackCount; ++t) {
      frameSounds.push_back((f + t) % 3 == 1 ? std::vector<uint8_t>() : Bytes(8 + 4 * t, uint8_t(f)));
      decoded.push_back(1600 * (t + 1) + 16 * f);
    }
    videos.push_back(Bytes(100 + 37 * f, uint8_t(100 + f)));
    sounds.push_back(frameSounds);
    AddFrame(&w, f == 0 || f == 3, frameSounds, decoded, videos.back());
    if (f == 1) Checkpoint(&w);
  }
  // A checkpoint after frame 2 makes a valid two-frame file.
  {
    VelmoFileInfo info;
    ASSERT_EQ(VelmoParseFile(w.File.data(), w.File.size(), &info), nullptr);
    EXPECT_EQ(info.Header.Frames, 2u);
  }
  Checkpoint(&w);

  // The parse checks the size field, the frames' places and the largest frame's size.
  velmo_test::ParsedFile parsed;
  ASSERT_TRUE(velmo_test::ParseFile(w.File, &parsed)) << c.What;
  const VelmoFileInfo& info = parsed.Info;
  const VelmoHeader& h = info.Header;
  EXPECT_EQ(h.Magic, VelmoWriterMagic(c.Version, c.Flags));
  EXPECT_EQ(h.Frames, 5u);
  EXPECT_EQ(h.IndexFrames, 6u);
  EXPECT_EQ(h.FileSizeLess8, w.File.size() - 8);
  EXPECT_EQ(h.Width, -320);
  EXPECT_EQ(info.Width, 320u);
  EXPECT_EQ(info.Height, 240u);
  EXPECT_EQ(h.FrameRate, 30000u);
  EXPECT_EQ(h.FrameRateDiv, 1001u);
  EXPECT_EQ(h.Flags, w.Image.Flags);
  EXPECT_EQ(info.TrackCount, c.TrackCount);
  EXPECT_EQ(info.TablesOffset, w.Image.TableOffset);
  EXPECT_EQ(info.FirstFrameOffset, w.Image.FirstFrameOffset);

  // Extras as given.
  if (c.Version >= 101) {
    EXPECT_EQ(info.Extras.CompressorStamp, VelmoWriterStamp);
    EXPECT_EQ(info.Extras.HasHdr, (c.Flags & VelmoFlagHdr) ? 1u : 0u);
    EXPECT_EQ(info.Extras.HasMatrix,
              (c.Flags & VelmoFlagColourMatrix) && !(c.Flags & VelmoFlagHdr) ? 1u : 0u);
    if (info.Extras.HasHdr) {
      EXPECT_EQ(std::memcmp(info.Extras.HdrValues, hdr, sizeof hdr), 0);
      EXPECT_EQ(info.Extras.MaxNits, 4000u);
    }
    if (info.Extras.HasMatrix) {
      EXPECT_EQ(std::memcmp(info.Extras.MatrixValues, matrix, sizeof matrix), 0);
      EXPECT_FLOAT_EQ(info.ColourTable[0], -6000.0f / 4096.0f);
    }
    const std::string text(reinterpret_cast<const char*>(w.File.data()) + 44 +
                               info.Extras.TextOffset, info.Extras.TextSize);
    EXPECT_EQ(text.c_str(), std::string(c.Text ? c.Text : ""));
    EXPECT_EQ(info.Extras.TextSize % 4, 0u);
    EXPECT_EQ(VelmoSlicesFor(h.Magic, h.Flags, 1080).Count,
              MagicIsSecondGeneration(h.Magic) ? (c.SliceMode == 3 ? 8u : c.SliceMode + 2) : 2u);
  } else {
    EXPECT_EQ(info.Extras.Size, 0u);
    EXPECT_EQ(info.TablesOffset, 44u);
  }

  // Tracks: formats and ids as written, the largest decoded bytes raised by the frames.
  for (uint32_t t = 0; t < c.TrackCount; ++t) {
    const VelmoTrackInfo got = VelmoTableTrack(info.Tables, t);
    EXPECT_EQ(got.Format, tracks[t].Format);
    EXPECT_EQ(got.Id, tracks[t].Id);
    EXPECT_EQ(got.MaxBytes, w.Tracks[t].MaxBytes);
    EXPECT_GT(got.MaxBytes, 0u);
  }

  // Frames: key bits, then each packet's sound (size word, decoded bytes, blocks) and video.
  EXPECT_EQ(VelmoEntryOffset(VelmoTableFrameEntry(info.Tables, 0)), info.FirstFrameOffset);
  for (uint32_t f = 0; f < 5; ++f) {
    SCOPED_TRACE(f);
    EXPECT_EQ(parsed.Key[f], f == 0 || f == 3);
    for (uint32_t t = 0; t < c.TrackCount; ++t) {
      std::vector<uint8_t> want(4, 0);
      if (!sounds[f][t].empty()) {
        want.clear();
        Put32(&want, uint32_t(sounds[f][t].size()) + 4);
        Put32(&want, 1600 * (t + 1) + 16 * f);
        want.insert(want.end(), sounds[f][t].begin(), sounds[f][t].end());
      }
      EXPECT_EQ(parsed.Sounds[f][t], want);
    }
    std::vector<uint8_t> video = videos[f];
    video.resize((video.size() + 3) & ~size_t(3), 0);  // padded with zeros to whole words
    EXPECT_EQ(parsed.Video[f], video);
  }
}

INSTANTIATE_TEST_SUITE_P(
    BothGenerations, ContainerRoundTrip,
    ::testing::Values(
        RoundTripCase{"first generation 100", 100, VelmoFlagAlpha, 0, "ignored", 1},
        RoundTripCase{"first generation 1.1", 150, VelmoFlagGrayscale | VelmoFlagFullRange, 0,
                      "extra text here", 2},
        RoundTripCase{"second generation", 200, VelmoFlagAlpha, 1, nullptr, 0},
        RoundTripCase{"second with matrix", 200, VelmoFlagColourMatrix, 3, "matrix", 3},
        RoundTripCase{"second with HDR", 200, VelmoFlagHdr, 2, "hdr!", 1}),
    [](const ::testing::TestParamInfo<RoundTripCase>& info) {
      return std::to_string(info.index);
    });

// ---------------------------------------------------------------------------------------------

TEST(ContainerWriter, CheckpointPatchesAndFlagChange) {
  VelmoWriteParams p = BaseParams(200);
  p.Flags = VelmoFlagAlpha;
  TestWriter w;
  ASSERT_TRUE(StartWriter(p, &w));
  AddFrame(&w, true, {}, {}, Bytes(64, 1));
  // The writer may drop its alpha flag at the end; the checkpoint stores the new word.
  w.Flags &= ~uint32_t(VelmoFlagAlpha);
  Checkpoint(&w);
  VelmoFileInfo info;
  ASSERT_EQ(VelmoParseFile(w.File.data(), w.File.size(), &info), nullptr);
  EXPECT_EQ(info.Header.Flags & VelmoFlagAlpha, 0u);

  VelmoCheckpoint state{};
  state.FileSize = 4;
  state.Frames = 0;
  state.FrameEntries = w.Entries.data();
  std::vector<VelmoPatch> patches;
  ASSERT_TRUE(VelmoCheckpointPatches(w.Image, state, &patches));
  ASSERT_EQ(patches.size(), 3u);
  EXPECT_EQ(patches[0].Offset, 4u);
  EXPECT_EQ(patches[0].Bytes.size(), 12u);
  EXPECT_EQ(patches[0].Bytes[0], 0u);  // a size below 8 stores 0
  EXPECT_EQ(patches[1].Offset, 36u);
  EXPECT_EQ(patches[2].Offset, w.Image.TableOffset);
  EXPECT_EQ(patches[2].Bytes.size(), VelmoTablesSize(0, 4));

  state.Frames = 5;  // more than the index has room for
  EXPECT_FALSE(VelmoCheckpointPatches(w.Image, state, &patches));
  state.Frames = 1;
  state.FrameEntries = nullptr;
  EXPECT_FALSE(VelmoCheckpointPatches(w.Image, state, &patches));

  std::vector<uint8_t> small(10);
  EXPECT_FALSE(VelmoApplyPatches(&small, {VelmoPatch{8, {1, 2, 3}}}));
  EXPECT_EQ(small, std::vector<uint8_t>(10));  // nothing written when one patch does not fit
  EXPECT_TRUE(VelmoApplyPatches(&small, {VelmoPatch{7, {1, 2, 3}}, VelmoPatch{10, {}}}));
  EXPECT_EQ(small[9], 3);
}

TEST(ContainerWriter, FrameEntriesAndSoundHeads) {
  EXPECT_EQ(VelmoMakeFrameEntry(0x123456788ull, true), 0x23456789u);
  EXPECT_EQ(VelmoMakeFrameEntry(0x100ull, false), 0x100u);
  EXPECT_EQ(VelmoMakeFrameEntry(0x103ull, false), 0x100u);
  uint8_t head[8];
  VelmoStoreSoundPacketHead(10, 0x1234, head);
  const uint8_t expected[8] = {14, 0, 0, 0, 0x34, 0x12, 0, 0};
  EXPECT_EQ(std::memcmp(head, expected, 8), 0);
  uint8_t empty[4] = {9, 9, 9, 9};
  VelmoEmptySoundPacket(empty);
  EXPECT_EQ(empty[0] | empty[1] | empty[2] | empty[3], 0);
}

TEST(ContainerWriter, IndexBeyondFourGigabytesExpandsBack) {
  // The file's frames would pass 4 GiB; only the header and tables are built in memory.
  const uint32_t frames = 30;
  VelmoWriteParams p = BaseParams(200);
  p.IndexFrames = frames;
  VelmoHeaderImage image;
  ASSERT_TRUE(VelmoBuildHeaderImage(p, &image));
  std::vector<uint32_t> entries(frames + 1);
  std::vector<uint64_t> truth(frames + 1);
  uint64_t pos = image.FirstFrameOffset;
  for (uint32_t f = 0; f <= frames; ++f) {
    const bool key = f < frames && f % 7 == 0;
    entries[f] = VelmoMakeFrameEntry(pos, key);
    truth[f] = pos | (key ? 1 : 0);
    pos += 200ull << 20;  // 200 MiB frames
  }
  const uint64_t fileSize = truth[frames];
  std::vector<uint8_t> file = image.Bytes;
  VelmoCheckpoint state{};
  state.FileSize = fileSize;
  state.Frames = frames;
  state.LargestFrameSize = 200u << 20;
  state.Flags = image.Flags;
  state.FrameEntries = entries.data();
  std::vector<VelmoPatch> patches;
  ASSERT_TRUE(VelmoCheckpointPatches(image, state, &patches));
  ASSERT_TRUE(VelmoApplyPatches(&file, patches));

  VelmoFileInfo info;
  ASSERT_EQ(VelmoParseFile(file.data(), file.size(), &info), nullptr);
  EXPECT_EQ(info.FileSize, fileSize - 8);
  std::vector<uint64_t> table(frames + 1);
  uint64_t wrap = 0;
  ASSERT_EQ(VelmoExpandFrameTable(info.Tables, frames, table.data(), &wrap), nullptr);
  EXPECT_EQ(table, truth);
  EXPECT_EQ(wrap, 1ull << 32);
}

}  // namespace
