// Reading side of the Velmo container: probes, header fields and checks, extras, tables, the
// frame table expansion, slices and the frame packet walk.
#include "format/container.h"

#include "support/files.h"
#include "support/velmo_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <string>

using test_support::Put16;
using velmo_test::GoodHeader;
using velmo_test::HeaderBytes;
using velmo_test::Put32;

namespace {

uint32_t MagicFromText(const char* text) { return test_support::Le32(std::string(text, 4), 0); }

std::string Error(const char* text) { return text ? text : "(none)"; }

// Little-endian words as bytes.
std::vector<uint8_t> Words(std::initializer_list<uint32_t> words) {
  std::vector<uint8_t> bytes;
  for (uint32_t w : words) Put32(&bytes, w);
  return bytes;
}

struct ProbeRow {
  const char* Magic;
  const char* Name;
  bool Valid, Second, First, First11, Swapped, OldFirst, Extras, SliceMode;
};

const ProbeRow ProbeTable[] = {
    {"VLMf", "Velmo 1", 1, 0, 1, 0, 1, 1, 0, 0},
    {"VLMg", "Velmo 1", 1, 0, 1, 0, 1, 1, 0, 0},
    {"VLMh", "Velmo 1", 1, 0, 1, 0, 0, 1, 0, 0},
    {"VLMi", "Velmo 1", 1, 0, 1, 0, 0, 0, 0, 0},
    {"VLMk", "Velmo 1.1", 1, 0, 1, 1, 0, 0, 1, 0},
    {"VM2f", "Velmo 2 (deprecated)", 1, 1, 0, 0, 0, 0, 0, 0},
    {"VM2g", "Velmo 2.2", 1, 1, 0, 0, 0, 0, 0, 0},
    {"VM2h", "Velmo 2.3", 1, 1, 0, 0, 0, 0, 0, 1},
    {"VM2i", "Velmo 2.3d", 1, 1, 0, 0, 0, 0, 1, 1},
    {"VM2j", "Velmo 2.5", 1, 1, 0, 0, 0, 0, 1, 1},
    {"VM2k", "Velmo 1", 1, 1, 0, 0, 0, 0, 1, 1},
    {"VM2m", "Velmo 2.7", 1, 1, 0, 0, 0, 0, 1, 1},
    // Not files: a missing letter, neighbours of the letters, other generations, byte orders.
    {"VLMl", "Velmo 1", 0, 0, 0, 0, 0, 0, 0, 0},
    {"VLMj", "Velmo 1", 0, 0, 0, 0, 0, 0, 0, 0},
    {"VLMe", "Velmo 1", 0, 0, 0, 0, 0, 0, 0, 0},
    {"VM2l", "Velmo 1", 0, 0, 0, 0, 0, 0, 0, 0},
    {"VM2e", "Velmo 1", 0, 0, 0, 0, 0, 0, 0, 0},
    {"VM2n", "Velmo 1", 0, 0, 0, 0, 0, 0, 0, 0},
    {"vlmi", "Velmo 1", 0, 0, 0, 0, 0, 0, 0, 0},
    {"iMLV", "Velmo 1", 0, 0, 0, 0, 0, 0, 0, 0},
    {"TRV1", "Velmo 1", 0, 0, 0, 0, 0, 0, 0, 0},
};

// The valid rows come first, in the order of the library's list of magic words.
TEST(ContainerMagic, EveryProbeOnEveryValue) {
  for (size_t i = 0; i < std::size(ProbeTable); ++i) {
    const ProbeRow& row = ProbeTable[i];
    SCOPED_TRACE(row.Magic);
    const uint32_t m = MagicFromText(row.Magic);
    if (i < std::size(VelmoAllMagics)) {
      EXPECT_EQ(VelmoAllMagics[i], m);
    }
    EXPECT_EQ(MagicIsValid(m), row.Valid);
    EXPECT_EQ(MagicIsSecondGeneration(m), row.Second);
    EXPECT_EQ(MagicIsFirstGeneration(m), row.First);
    EXPECT_EQ(MagicIsFirst11(m), row.First11);
    EXPECT_EQ(MagicHasSwappedChroma(m), row.Swapped);
    EXPECT_EQ(MagicIsOldFirst(m), row.OldFirst);
    EXPECT_EQ(MagicHasExtras(m), row.Extras);
    EXPECT_EQ(MagicHasSliceMode(m), row.SliceMode);
    EXPECT_STREQ(MagicName(m), row.Name);
  }
  // Old or beta files are only the unknown first-generation letters.
  EXPECT_TRUE(MagicIsOldOrBeta(MagicFromText("VLMa")));
  EXPECT_TRUE(MagicIsOldOrBeta(MagicFromText("VLMl")));
  EXPECT_TRUE(MagicIsOldOrBeta(MagicFromText("VLM\0")));
  for (uint32_t m : VelmoAllMagics) EXPECT_FALSE(MagicIsOldOrBeta(m));
  EXPECT_FALSE(MagicIsOldOrBeta(MagicFromText("VM2a")));
  EXPECT_FALSE(MagicIsOldOrBeta(MagicFromText("XLMa")));
}

// The header's eleven words lie in the order of the record's fields.
TEST(ContainerHeader, FieldsAreLittleEndianAtTheirOffsets) {
  const std::vector<uint32_t> words = {0x6A324D56u, 0x11223344u, 7u, 0x01020304u, 9u, 0xFFFFFD80u,
                                       480u, 30000u, 1001u, 0x81000010u, 0x40000003u};
  std::vector<uint8_t> bytes;
  for (uint32_t w : words) Put32(&bytes, w);
  VelmoHeader h;
  ASSERT_TRUE(VelmoParseHeader(bytes.data(), bytes.size(), &h));
  static_assert(sizeof h == 44);
  std::vector<uint32_t> fields(11);
  std::memcpy(fields.data(), &h, sizeof h);
  EXPECT_EQ(fields, words);
  EXPECT_EQ(VelmoHeaderWidth(h), 640u);
  EXPECT_EQ(VelmoHeaderTrackCount(h), 3u);

  std::vector<uint8_t> again(44);
  VelmoStoreHeader(h, again.data());
  EXPECT_EQ(again, bytes);
}

TEST(ContainerHeader, SignHandlingAndPaddingOfWidthAndHeight) {
  VelmoHeader h = GoodHeader();
  h.Width = -640;
  h.Height = int32_t(0x810001E0u);
  EXPECT_EQ(VelmoHeaderWidth(h), 640u);
  EXPECT_EQ(VelmoHeaderHeight(h), 480u);
  EXPECT_EQ(VelmoCheckHeader(h), nullptr);
  // A negative height without the 0x81 top byte stays huge and is refused.
  h.Height = -480;
  EXPECT_EQ(VelmoHeaderHeight(h), uint32_t(-480) + 0x7F000000u);
  EXPECT_STREQ(VelmoCheckHeader(h), VelmoTextCorruptHeader);
  h.Height = 480;
  h.Width = INT32_MIN;
  EXPECT_EQ(VelmoHeaderWidth(h), 0x80000000u);
  EXPECT_STREQ(VelmoCheckHeader(h), VelmoTextCorruptHeader);
  // Heights are padded to whole 32-row bands.
  EXPECT_EQ(VelmoPaddedHeight(0), 0u);
  EXPECT_EQ(VelmoPaddedHeight(1), 32u);
  EXPECT_EQ(VelmoPaddedHeight(32), 32u);
  EXPECT_EQ(VelmoPaddedHeight(481), 512u);
}

TEST(ContainerHeader, EachCheckHasItsMessage) {
  EXPECT_EQ(VelmoCheckHeader(GoodHeader()), nullptr);
  struct Case {
    const char* What;
    void (*Change)(VelmoHeader&);
    const char* Expected;
  };
  const Case cases[] = {
      {"bad magic", [](VelmoHeader& h) { h.Magic = MagicFromText("VLMl"); }, VelmoTextNotVelmo},
      {"no frames", [](VelmoHeader& h) { h.Frames = 0; }, VelmoTextNoFramesYet},
      {"no frames, big index", [](VelmoHeader& h) { h.Frames = 0; h.IndexFrames = 1000; },
       VelmoTextNoFramesYet},
      {"index below frames", [](VelmoHeader& h) { h.IndexFrames = 9; }, VelmoTextCorruptHeader},
      {"index 1000001",
       [](VelmoHeader& h) { h.IndexFrames = 1000001; }, VelmoTextCorruptHeader},
      {"index 1000000", [](VelmoHeader& h) { h.IndexFrames = 1000000; }, nullptr},
      {"tracks 256", [](VelmoHeader& h) { h.TrackCount = 256; }, nullptr},
      {"tracks 257", [](VelmoHeader& h) { h.TrackCount = 257; }, VelmoTextCorruptHeader},
      {"tracks bit 30", [](VelmoHeader& h) { h.TrackCount = 0x40000100; }, nullptr},
      {"tracks bit 31", [](VelmoHeader& h) { h.TrackCount = 0x80000002; }, VelmoTextCorruptHeader},
      {"width 32767", [](VelmoHeader& h) { h.Width = 32767; }, nullptr},
      {"width 32768", [](VelmoHeader& h) { h.Width = 32768; }, VelmoTextCorruptHeader},
      {"width -32767", [](VelmoHeader& h) { h.Width = -32767; }, nullptr},
      {"width -32768", [](VelmoHeader& h) { h.Width = -32768; }, VelmoTextCorruptHeader},
      {"height 32768", [](VelmoHeader& h) { h.Height = 32768; }, VelmoTextCorruptHeader},
      {"rate 0", [](VelmoHeader& h) { h.FrameRate = 0; }, VelmoTextCorruptHeader},
      {"rate div 0", [](VelmoHeader& h) { h.FrameRateDiv = 0; }, VelmoTextCorruptHeader},
      // When two things are wrong the earlier test wins.
      {"bad magic and no frames",
       [](VelmoHeader& h) { h.Magic = 0; h.Frames = 0; }, VelmoTextNotVelmo},
      {"bad magic and corrupt",
       [](VelmoHeader& h) { h.Magic = 0; h.FrameRate = 0; }, VelmoTextNotVelmo},
      {"no frames and corrupt",
       [](VelmoHeader& h) { h.Frames = 0; h.FrameRate = 0; h.TrackCount = 999; },
       VelmoTextNoFramesYet},
  };
  for (const Case& c : cases) {
    VelmoHeader h = GoodHeader();
    c.Change(h);
    EXPECT_EQ(Error(VelmoCheckHeader(h)), Error(c.Expected)) << c.What;
    const std::vector<uint8_t> bytes = HeaderBytes(h);
    VelmoHeader parsed;
    EXPECT_EQ(Error(VelmoReadHeader(bytes.data(), bytes.size(), &parsed)), Error(c.Expected))
        << c.What;
  }
}

TEST(ContainerHeader, ShortSpansAreAFailedRead) {
  const std::vector<uint8_t> bytes = HeaderBytes(GoodHeader());
  VelmoHeader h;
  for (size_t n = 0; n < VelmoHeaderSize; ++n) {
    EXPECT_FALSE(VelmoParseHeader(bytes.data(), n, &h));
    EXPECT_STREQ(VelmoReadHeader(bytes.data(), n, &h), VelmoTextNotVelmo) << n;
  }
  EXPECT_STREQ(VelmoReadHeader(nullptr, 100, &h), VelmoTextNotVelmo);
  EXPECT_EQ(VelmoReadHeader(bytes.data(), bytes.size(), &h), nullptr);
}

TEST(ContainerExtras, SizeFollowsMagicAndFlags) {
  EXPECT_EQ(VelmoExtrasSize(VelmoMagicVLMi, 0xFFFFFFFF), 0u);
  EXPECT_EQ(VelmoExtrasSize(VelmoMagicVM2h, VelmoFlagHdr), 0u);
  EXPECT_EQ(VelmoExtrasSize(VelmoMagicVM2j, 0), 4u);
  EXPECT_EQ(VelmoExtrasSize(VelmoMagicVLMk, 3u << 24), 16u);
  EXPECT_EQ(VelmoExtrasSize(VelmoMagicVM2j, 255u << 24), 1024u);
  // Bits 22 and 23 are not part of the text length.
  EXPECT_EQ(VelmoExtrasSize(VelmoMagicVM2j, 3u << 22), 4u);
  EXPECT_EQ(VelmoExtrasSize(VelmoMagicVM2m, VelmoFlagHdr), 16u);
  EXPECT_EQ(VelmoExtrasSize(VelmoMagicVM2k, VelmoFlagColourMatrix), 28u);
  EXPECT_EQ(VelmoExtrasSize(VelmoMagicVM2k, VelmoFlagColourMatrix | VelmoFlagHdr), 16u);
  // A magic without extras parses none, whatever the flags say.
  VelmoExtras e;
  ASSERT_EQ(VelmoParseExtras(nullptr, 0, VelmoMagicVM2h, VelmoFlagHdr | (9u << 24), &e), nullptr);
  EXPECT_EQ(e.Size, 0u);
  EXPECT_EQ(e.HasHdr, 0u);
  EXPECT_EQ(e.CompressorStamp, 0u);
}

TEST(ContainerExtras, HdrBlockReadsCoefficientsAndHeldNits) {
  const int16_t nitsCases[][2] = {{1000, 1000}, {50, 80}, {-5, 80}, {20000, 10000},
                                  {80, 80},     {10000, 10000}};
  for (const auto& nits : nitsCases) {
    std::vector<uint8_t> block;
    const int16_t values[6] = {32767, -32767, 16384, 0, -1, nits[0]};
    for (int16_t v : values) Put16(&block, uint16_t(v));
    Put32(&block, 0x01020304);
    VelmoExtras e;
    ASSERT_EQ(VelmoParseExtras(block.data(), block.size(), VelmoMagicVM2m, VelmoFlagHdr, &e),
              nullptr);
    EXPECT_EQ(e.Size, 16u);
    EXPECT_EQ(e.HasHdr, 1u);
    EXPECT_EQ(e.HasMatrix, 0u);
    EXPECT_FLOAT_EQ(e.HdrCoefficients[0], 1.0f);
    EXPECT_FLOAT_EQ(e.HdrCoefficients[1], -1.0f);
    EXPECT_NEAR(e.HdrCoefficients[2], 0.5f, 1e-4);
    EXPECT_FLOAT_EQ(e.HdrCoefficients[3], 0.0f);
    EXPECT_EQ(e.HdrValues[5], nits[0]);
    EXPECT_EQ(e.MaxNits, uint32_t(nits[1]));
    EXPECT_EQ(e.CompressorStamp, 0x01020304u);
    EXPECT_EQ(e.TextSize, 0u);
  }
}

TEST(ContainerExtras, MatrixFillsRowsWithATrailingZero) {
  std::vector<uint8_t> block;
  for (int i = 0; i < 12; ++i) Put16(&block, uint16_t((i + 1) * 4096 / 8));  // (i + 1) / 8
  Put32(&block, VelmoWriterStamp);
  block.insert(block.end(), {'a', 'b', 'c', 0, 'd', 0, 0, 0});
  const uint32_t flags = VelmoFlagColourMatrix | (2u << 24);
  VelmoExtras e;
  ASSERT_EQ(VelmoParseExtras(block.data(), block.size(), VelmoMagicVM2k, flags, &e), nullptr);
  EXPECT_EQ(e.Size, 36u);
  EXPECT_EQ(e.HasMatrix, 1u);
  for (int row = 0; row < 4; ++row) {
    for (int col = 0; col < 3; ++col) {
      EXPECT_FLOAT_EQ(e.Matrix[row * 4 + col], float(row * 3 + col + 1) / 8.0f);
    }
    EXPECT_EQ(e.Matrix[row * 4 + 3], 0.0f);
  }
  EXPECT_EQ(e.CompressorStamp, VelmoWriterStamp);
  EXPECT_EQ(e.TextOffset, 28u);
  EXPECT_EQ(e.TextSize, 8u);
  EXPECT_EQ(std::memcmp(block.data() + e.TextOffset, "abc", 4), 0);

  for (size_t n = 0; n < block.size(); ++n) {
    EXPECT_STREQ(VelmoParseExtras(block.data(), n, VelmoMagicVM2k, flags, &e),
                 VelmoTextHeaderReadError) << n;
  }
}

TEST(ContainerColour, DefaultTables) {
  float t[16];
  VelmoDefaultColourTable(VelmoMagicVM2j, 0, t);
  const float video[16] = {1.595795f, -0.813477f, 0, 0, 0, -0.391449f, 2.017822f, 0,
                           -0.874069f, 0.531782f, -1.085911f, 1.0f, 1.164124f, 1.164124f,
                           1.164124f, 0};
  for (int i = 0; i < 16; ++i) EXPECT_EQ(t[i], video[i]) << i;

  VelmoDefaultColourTable(VelmoMagicVLMi, VelmoFlagFullRange, t);
  const float full[16] = {1.402f, -0.71414f, 0, 0, 0, -0.34414f, 1.772f, 0,
                          -0.703749f, 0.531215f, -0.889475f, 1.0f, 1, 1, 1, 0};
  for (int i = 0; i < 16; ++i) EXPECT_EQ(t[i], full[i]) << i;
}

TEST(ContainerColour, OldestLettersExchangeCrAndCb) {
  for (uint32_t magic : VelmoAllMagics) {
    for (uint32_t flags : {0u, uint32_t(VelmoFlagFullRange)}) {
      float plain[16], t[16];
      VelmoDefaultColourTable(VelmoMagicVM2j, flags, plain);
      VelmoDefaultColourTable(magic, flags, t);
      const bool swapped = magic == VelmoMagicVLMf || magic == VelmoMagicVLMg;
      for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(t[VelmoColourRowCr + i], plain[(swapped ? VelmoColourRowCb : VelmoColourRowCr) + i]);
        EXPECT_EQ(t[VelmoColourRowCb + i], plain[(swapped ? VelmoColourRowCr : VelmoColourRowCb) + i]);
      }
      for (int i = 3; i < 16; ++i) {
        if (i >= 4 && i < 7) continue;
        EXPECT_EQ(t[i], plain[i]) << i;
      }
    }
  }
}

TEST(ContainerColour, FileTableTakesMatrixOrHdr) {
  VelmoExtras e{};
  for (int i = 0; i < 16; ++i) e.Matrix[i] = float(i) * 0.25f;
  e.HasMatrix = 1;
  float t[16];
  VelmoFileColourTable(VelmoMagicVM2k, VelmoFlagColourMatrix, e, t);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(t[i], float(i) * 0.25f);

  VelmoExtras hdr{};
  hdr.HasHdr = 1;
  for (int i = 0; i < 5; ++i) hdr.HdrCoefficients[i] = float(i + 1) / 10.0f;
  hdr.MaxNits = 1000;
  VelmoFileColourTable(VelmoMagicVM2m, VelmoFlagHdr, hdr, t);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(t[i], float(i + 1) / 10.0f);
  EXPECT_EQ(t[5], 1000.0f);
  for (int i = 6; i < 16; ++i) EXPECT_EQ(t[i], 0.0f);

  VelmoExtras none{};
  float d[16];
  VelmoFileColourTable(VelmoMagicVLMg, VelmoFlagFullRange, none, t);
  VelmoDefaultColourTable(VelmoMagicVLMg, VelmoFlagFullRange, d);
  EXPECT_EQ(std::memcmp(t, d, sizeof t), 0);
}

// Dated and numbered stamps, and a short buffer cut to its size; the colour space and the kind
// of frame.
TEST(ContainerText, StampsColourSpaceAndFrameKind) {
  const struct {
    uint32_t Stamp;
    size_t Size;
    const char* Text;
  } cases[] = {{0x87E40602, 64, "Compressed with Velmo 2020.6.2"}, {0x80030701, 64, "Compressed with Velmo 3.7"},
               {0x02010300, 64, "Compressed with Velmo 2.1d"},     {0x01000000, 64, "Compressed with Velmo 1.0a"},
               {0x87E40602, 8, "Compres"}};
  for (const auto& c : cases) {
    std::vector<char> text(c.Size);
    VelmoStampText(c.Stamp, text.data(), c.Size);
    EXPECT_STREQ(text.data(), c.Text);
  }
  // The colour space and the kind of frame.
  EXPECT_STREQ(VelmoColourSpaceText(VelmoFlagHdr | VelmoFlagFullRange),
               "Uses HDR I-Ct-Cp colorspace.");
  EXPECT_STREQ(VelmoColourSpaceText(VelmoFlagFullRange), "Uses full y-cr-cb colorspace.");
  EXPECT_STREQ(VelmoColourSpaceText(0), "Uses old y-cr-cb colorspace.");
  char text[64];
  VelmoFrameKindText(VelmoFlagGrayscale | VelmoFlagAlpha, text, sizeof text);
  EXPECT_STREQ(text, "Grayscale with alpha plane");
  VelmoFrameKindText(0, text, sizeof text);
  EXPECT_STREQ(text, "Color");
  VelmoFrameKindText(VelmoFlagAlpha, text, sizeof text);
  EXPECT_STREQ(text, "Color with alpha plane");
}

std::vector<uint8_t> TablesBytes(const std::vector<VelmoTrackInfo>& tracks,
                                 const std::vector<uint32_t>& entries) {
  std::vector<uint8_t> bytes;
  for (const auto& t : tracks) Put32(&bytes, t.MaxBytes);
  for (const auto& t : tracks) Put32(&bytes, t.Format);
  for (const auto& t : tracks) Put32(&bytes, t.Id);
  for (uint32_t e : entries) Put32(&bytes, e);
  return bytes;
}

TEST(ContainerTables, TracksEntriesAndFormatBits) {
  const std::vector<VelmoTrackInfo> tracks = {{4096, 0x70005622, 7}, {2048, 0x80001F40, 9}};
  const std::vector<uint32_t> entries = {100, 201, 300, 0};
  const std::vector<uint8_t> bytes = TablesBytes(tracks, entries);
  ASSERT_EQ(VelmoTablesSize(2, 3), bytes.size());
  VelmoTables t;
  ASSERT_EQ(VelmoOpenTables(bytes.data(), bytes.size(), 2, 3, &t), nullptr);
  for (uint32_t i = 0; i < 2; ++i) {
    const VelmoTrackInfo info = VelmoTableTrack(t, i);
    EXPECT_EQ(info.MaxBytes, tracks[i].MaxBytes);
    EXPECT_EQ(info.Format, tracks[i].Format);
    EXPECT_EQ(info.Id, tracks[i].Id);
  }
  for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(VelmoTableFrameEntry(t, i), entries[i]);
  // Out of range asks give zeros rather than reading further.
  EXPECT_EQ(VelmoTableFrameEntry(t, 4), 0u);
  EXPECT_EQ(VelmoTableTrack(t, 2).Format, 0u);

  for (size_t n = 0; n < bytes.size(); ++n) {
    EXPECT_STREQ(VelmoOpenTables(bytes.data(), n, 2, 3, &t), VelmoTextHeaderReadError);
  }
  EXPECT_EQ(VelmoTablesSize(256, 1000000), (1000000ull + 768) * 4 + 4);
  EXPECT_EQ(VelmoTablesSize(0xFFFFFFFF, 0xFFFFFFFF), (0xFFFFFFFFull * 4) * 4 + 4);
  // The track format's coding bits.
  EXPECT_FALSE(VelmoTrackUsable(0x60005622));
  EXPECT_TRUE(VelmoTrackUsable(0x10005622));
  EXPECT_TRUE(VelmoTrackUsable(0x80005622));
  EXPECT_TRUE(VelmoTrackIsCurrentForm(0x10000000));
  EXPECT_FALSE(VelmoTrackIsCurrentForm(0x90000000));
  EXPECT_FALSE(VelmoTrackIsCurrentForm(0x80000000));
  EXPECT_FALSE(VelmoTrackIsCurrentForm(0));
}

// Expands `entries` with `frames` frames and returns the error text.
std::string Expand(const std::vector<uint32_t>& entries, uint32_t frames,
                   std::vector<uint64_t>* out, uint64_t* wrap) {
  const std::vector<uint8_t> bytes = TablesBytes({}, entries);
  VelmoTables t;
  EXPECT_EQ(VelmoOpenTables(bytes.data(), bytes.size(), 0, uint32_t(entries.size() - 1), &t),
            nullptr);
  out->assign(size_t(frames) + 1, ~0ull);
  return Error(VelmoExpandFrameTable(t, frames, out->data(), wrap));
}

TEST(ContainerFrameTable, KeyBitsKeptAndBitOneDropped) {
  std::vector<uint64_t> out;
  uint64_t wrap = 99;
  ASSERT_EQ(Expand({101, 202, 303, 400, 0, 0}, 3, &out, &wrap), "(none)");
  EXPECT_EQ(out, (std::vector<uint64_t>{101, 200, 301, 400}));
  EXPECT_EQ(wrap, 0u);
  EXPECT_TRUE(VelmoEntryIsKey(out[0]));
  EXPECT_FALSE(VelmoEntryIsKey(out[1]));
  EXPECT_EQ(VelmoEntryOffset(out[2]), 300u);
}

TEST(ContainerFrameTable, WrapsPastFourGigabytes) {
  std::vector<uint64_t> out;
  uint64_t wrap = 0;
  // The second step goes back in 32 bits: from there on everything is 4 GiB further.
  ASSERT_EQ(Expand({0xF0000001, 0xFFFFF000, 0x00001001, 0x0FF00000}, 3, &out, &wrap), "(none)");
  EXPECT_EQ(out, (std::vector<uint64_t>{0xF0000001, 0xFFFFF000, 0x100001001, 0x10FF00000}));
  EXPECT_EQ(wrap, 1ull << 32);
  ASSERT_EQ(Expand({0xF0000000, 0xFFFFF000, 0x00001000, 0x0FF00000, 0x1EF00000, 0x1EF00000 + 8},
                   5, &out, &wrap), "(none)");
  EXPECT_EQ(out[5], 0x11EF00008ull);

  // Frames of 240 MiB from 3.5 GiB on to past 12 GiB: three wraps.
  std::vector<uint32_t> two;
  uint64_t pos = 0xE0000000;
  std::vector<uint64_t> truth;
  for (int i = 0; i < 40; ++i) {
    two.push_back(VelmoMakeFrameEntry(pos, i % 5 == 0));
    truth.push_back(pos | (i % 5 == 0));
    pos += 0x0F000000;  // 240 MiB frames
  }
  ASSERT_EQ(Expand(two, 39, &out, &wrap), "(none)");
  EXPECT_EQ(out, truth);
  EXPECT_EQ(truth.back() >> 32, 3u);
  EXPECT_EQ(wrap, 3ull << 32);
}

TEST(ContainerFrameTable, StepLimitAndEqualNeighbours) {
  std::vector<uint64_t> out;
  uint64_t wrap;
  EXPECT_EQ(Expand({0, 0x10000000}, 1, &out, &wrap), "(none)");
  EXPECT_EQ(Expand({0, 0x10000004}, 1, &out, &wrap), VelmoTextBadFrameSize);
  // A frame of no bytes reads as a 4 GiB step.
  EXPECT_EQ(Expand({64, 64}, 1, &out, &wrap), VelmoTextBadFrameSize);
  EXPECT_EQ(Expand({65, 66}, 1, &out, &wrap), VelmoTextBadFrameSize);
  // Only entries 0..frames count: zeros behind them are a table not yet filled.
  EXPECT_EQ(Expand({64, 128, 0, 0}, 1, &out, &wrap), "(none)");
  // Asking for more frames than the table holds is refused, not read.
  const std::vector<uint8_t> bytes = TablesBytes({}, {0, 4});
  VelmoTables t;
  ASSERT_EQ(VelmoOpenTables(bytes.data(), bytes.size(), 0, 1, &t), nullptr);
  EXPECT_STREQ(VelmoExpandFrameTable(t, 2, nullptr, nullptr), VelmoTextCorruptHeader);
  EXPECT_EQ(VelmoExpandFrameTable(t, 1, nullptr, nullptr), nullptr);
}

// A crafted file: header, extras, tables and nothing else.
std::vector<uint8_t> CraftedFile(VelmoHeader h, const std::vector<uint8_t>& extras,
                                 const std::vector<VelmoTrackInfo>& tracks,
                                 const std::vector<uint32_t>& entries) {
  std::vector<uint8_t> file = HeaderBytes(h);
  file.insert(file.end(), extras.begin(), extras.end());
  const std::vector<uint8_t> tables = TablesBytes(tracks, entries);
  file.insert(file.end(), tables.begin(), tables.end());
  return file;
}

TEST(ContainerParseFile, FirstGenerationTablesStartAtFortyFour) {
  VelmoHeader h = GoodHeader();
  h.Magic = VelmoMagicVLMi;
  h.Frames = 2;
  h.IndexFrames = 2;
  h.TrackCount = 1;
  h.Flags = 0xFF000014;  // text length bits mean nothing without extras
  const auto file = CraftedFile(h, {}, {{1600, 0x50005622, 3}}, {57, 100, 200});
  VelmoFileInfo info;
  ASSERT_EQ(VelmoParseFile(file.data(), file.size(), &info), nullptr);
  EXPECT_EQ(info.TablesOffset, 44u);
  EXPECT_EQ(info.FirstFrameOffset, file.size());
  EXPECT_EQ(info.Extras.Size, 0u);
  EXPECT_EQ(VelmoTableTrack(info.Tables, 0).Id, 3u);
  EXPECT_EQ(VelmoTableFrameEntry(info.Tables, 0), 57u);
  EXPECT_EQ(info.FileSize, 1000u);
  float full[16];
  VelmoDefaultColourTable(VelmoMagicVLMi, VelmoFlagFullRange, full);
  EXPECT_EQ(std::memcmp(info.ColourTable, full, sizeof full), 0);
}

TEST(ContainerParseFile, ErrorsComeInTheReadersOrder) {
  VelmoHeader h = GoodHeader();
  h.Frames = 1;
  h.IndexFrames = 1;
  const std::vector<uint8_t> stamp = Words({VelmoWriterStamp});
  const auto good = CraftedFile(h, stamp, {}, {64, 128});
  VelmoFileInfo info;
  ASSERT_EQ(VelmoParseFile(good.data(), good.size(), &info), nullptr);

  // Bad frame sizes with a full table.
  const auto badSizes = CraftedFile(h, stamp, {}, {64, 64 + 0x10000004});
  EXPECT_STREQ(VelmoParseFile(badSizes.data(), badSizes.size(), &info), VelmoTextBadFrameSize);
  // A short table wins over the bad sizes it would hold.
  EXPECT_STREQ(VelmoParseFile(badSizes.data(), badSizes.size() - 1, &info),
               VelmoTextHeaderReadError);
  // A corrupt header wins over a short table.
  VelmoHeader corrupt = h;
  corrupt.FrameRateDiv = 0;
  const auto corruptFile = CraftedFile(corrupt, stamp, {}, {64, 128});
  EXPECT_STREQ(VelmoParseFile(corruptFile.data(), 50, &info), VelmoTextCorruptHeader);
  // No frames wins over a corrupt header.
  corrupt.Frames = 0;
  const auto yet = CraftedFile(corrupt, stamp, {}, {64, 128});
  EXPECT_STREQ(VelmoParseFile(yet.data(), yet.size(), &info), VelmoTextNoFramesYet);
}

TEST(ContainerParseFile, EveryTruncationFailsCleanly) {
  VelmoHeader h = GoodHeader();
  h.Magic = VelmoMagicVM2m;
  h.Flags = VelmoFlagHdr | (1u << 24);
  h.Frames = 2;
  h.IndexFrames = 3;
  h.TrackCount = 2;
  std::vector<uint8_t> extras(12, 0);
  extras[10] = 0xE8;  // nits 1000
  extras[11] = 0x03;
  Put32(&extras, VelmoWriterStamp);
  Put32(&extras, 0x00216968);  // "hi!"
  const auto file = CraftedFile(h, extras, {{1, 0x10000000, 1}, {2, 0, 2}}, {200, 300, 400, 0});
  VelmoFileInfo info;
  ASSERT_EQ(VelmoParseFile(file.data(), file.size(), &info), nullptr);
  EXPECT_EQ(info.Extras.MaxNits, 1000u);
  EXPECT_EQ(info.ColourTable[5], 1000.0f);
  for (size_t n = 0; n < file.size(); ++n) {
    const char* err = VelmoParseFile(file.data(), n, &info);
    EXPECT_STREQ(err, n < VelmoHeaderSize ? VelmoTextNotVelmo : VelmoTextHeaderReadError) << n;
  }
}

TEST(ContainerSlices, ByLetterFlagsAndHeight) {
  EXPECT_EQ(VelmoSlicesFor(VelmoMagicVLMk, 3, 1080).Count, 2u);
  EXPECT_EQ(VelmoSlicesFor(0, 0, 1080).Count, 0u);
  // "VM2f": always two, split at ((Height + 32) >> 1) & ~31.
  EXPECT_EQ(VelmoSlicesFor(VelmoMagicVM2f, 0, 64).Count, 2u);
  EXPECT_EQ(VelmoSlicesFor(VelmoMagicVM2f, 0, 64).RowHeight, 32u);
  EXPECT_EQ(VelmoSlicesFor(VelmoMagicVM2f, 0, 480).RowHeight, 256u);
  // "VM2g": one below a padded height of 128, else halves.
  EXPECT_EQ(VelmoSlicesFor(VelmoMagicVM2g, 3, 96).Count, 1u);
  EXPECT_EQ(VelmoSlicesFor(VelmoMagicVM2g, 3, 97).Count, 2u);
  EXPECT_EQ(VelmoSlicesFor(VelmoMagicVM2g, 3, 97).RowHeight, 64u);
  EXPECT_EQ(VelmoSlicesFor(VelmoMagicVM2g, 0, 720).RowHeight, 352u);
  // Slice mode letters.
  const uint32_t counts[4] = {2, 3, 4, 8};
  for (uint32_t magic : {VelmoMagicVM2h, VelmoMagicVM2i, VelmoMagicVM2j, VelmoMagicVM2k,
                         VelmoMagicVM2m}) {
    for (uint32_t mode = 0; mode < 4; ++mode) {
      EXPECT_EQ(VelmoSlicesFor(magic, mode | 0xFF000000u, 1080).Count, counts[mode]);
      EXPECT_EQ(VelmoSlicesFor(magic, mode, 96).Count, 1u);
    }
  }
  // (count * 32 + padded - 1) / count, low five bits cleared: 1088 rows in 3 slices.
  EXPECT_EQ(VelmoSlicesFor(VelmoMagicVM2j, 1, 1080).RowHeight, 384u);
  EXPECT_EQ(VelmoSlicesFor(VelmoMagicVM2j, 3, 1080).RowHeight, 160u);
}

TEST(ContainerPacket, TracksThenVideoOrVideoAlone) {
  std::vector<uint8_t> packet;
  Put32(&packet, 0);            // track 0: no sound
  Put32(&packet, 4 + 6);        // track 1: six bytes of blocks
  Put32(&packet, 1000 + 15);    // decoded bytes, rounded down by the reader
  packet.insert(packet.end(), {1, 2, 3, 4, 5, 6});
  Put32(&packet, 0);            // track 2: no sound
  packet.insert(packet.end(), {9, 9, 9, 9, 9});  // video
  VelmoSoundPacket sounds[3];
  const VelmoPacketLayout layout = VelmoWalkFramePacket(packet.data(), packet.size(), 3, sounds);
  EXPECT_EQ(layout.TracksFound, 3u);
  ASSERT_EQ(layout.HasVideo, 1u);
  EXPECT_EQ(layout.VideoOffset, 22u);
  EXPECT_EQ(layout.VideoSize, 5u);
  EXPECT_EQ(sounds[0].PacketSize, 0u);
  EXPECT_EQ(sounds[0].Offset, 0u);
  EXPECT_EQ(sounds[1].Offset, 4u);
  EXPECT_EQ(sounds[1].PacketSize, 10u);
  EXPECT_EQ(sounds[1].DecodedBytes, 1008u);
  EXPECT_EQ(sounds[1].DataOffset, 12u);
  EXPECT_EQ(sounds[1].DataSize, 6u);
  EXPECT_EQ(packet[sounds[1].DataOffset], 1);
  EXPECT_EQ(sounds[2].Offset, 18u);

  // Without tracks the whole packet is video.
  const uint8_t video[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const VelmoPacketLayout all = VelmoWalkFramePacket(video, sizeof video, 0, nullptr);
  EXPECT_EQ(all.HasVideo, 1u);
  EXPECT_EQ(all.VideoOffset, 0u);
  EXPECT_EQ(all.VideoSize, 8u);
  EXPECT_EQ(VelmoWalkFramePacket(nullptr, 0, 0, nullptr).VideoSize, 0u);
}

TEST(ContainerPacket, BrokenSizesStopTheWalk) {
  for (uint32_t size : {1u, 2u, 3u, 13u, 0xFFFFFFFFu, 0xFFFFFFFCu}) {
    const std::vector<uint8_t> packet = Words({0, size, 0, 0});
    VelmoSoundPacket sounds[2];
    const VelmoPacketLayout layout = VelmoWalkFramePacket(packet.data(), packet.size(), 2, sounds);
    EXPECT_EQ(layout.TracksFound, 1u) << size;
    EXPECT_EQ(layout.HasVideo, 0u) << size;
  }
}

TEST(ContainerPacket, EveryTruncationStaysInside) {
  std::vector<uint8_t> packet = Words({8, 32, 0xAABBCCDD, 0, 4, 16});
  packet.insert(packet.end(), {7, 7, 7, 7});
  for (size_t n = 0; n <= packet.size(); ++n) {
    // An exact-size copy lets the address sanitizer see any read past the end.
    std::vector<uint8_t> cut(packet.begin(), packet.begin() + long(n));
    const VelmoPacketLayout layout = VelmoWalkFramePacket(cut.data(), cut.size(), 3, nullptr);
    const uint32_t expected = n >= 24 ? 3 : n >= 16 ? 2 : n >= 12 ? 1 : 0;
    EXPECT_EQ(layout.TracksFound, expected) << n;
    EXPECT_EQ(layout.HasVideo, n >= 24 ? 1u : 0u) << n;
    if (layout.HasVideo) {
      EXPECT_EQ(layout.VideoOffset + layout.VideoSize, n);
    }
  }
}

}  // namespace
