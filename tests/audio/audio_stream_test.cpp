// The sound stream and its decoder, on streams built here bit by bit: tables, both forms
// against direct inverse sums, band indices, runs, short packets, the crossfade, the ring,
// and garbage that must decode without harm.
#include "audio_test_util.h"
#include "audio/audio_bits.h"
#include "audio/audio_tables.h"
#include "audio/velmo_audio.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace {

// ---- tables ----

TEST(AudioTables, SizesFollowTheRate) {
  const uint32_t blockSamples[][2] = {{8000, 512},   {22049, 512},  {22050, 1024},
                                      {44099, 1024}, {44100, 2048}, {65535, 2048}};
  for (const auto& [rate, samples] : blockSamples)
    EXPECT_EQ(VelmoAudioBlockSamples(rate), samples) << rate;
  // Band edges up to 3700 Hz at 8000, 9500 Hz at 22050; Nyquist 12000 is not below itself.
  const uint32_t bandCounts[][2] = {{0, 0},      {1, 1},      {8000, 18},  {22050, 23},
                                    {44100, 25}, {65535, 25}, {24000, 23}, {24002, 24}};
  for (const auto& [rate, bands] : bandCounts) EXPECT_EQ(VelmoAudioBandCount(rate), bands) << rate;
  // The decoder's record of 160 bytes and a tail of an eighth of a block per channel.
  const uint32_t decoderSizes[][3] = {{11025, 1, 224}, {11025, 2, 288}, {22050, 1, 288},
                                      {22050, 2, 416}, {44100, 1, 416}, {48000, 2, 672}};
  for (const auto& [rate, channels, bytes] : decoderSizes)
    EXPECT_EQ(VelmoAudioDecoderSize(rate, channels), bytes) << rate << " " << channels;
}

TEST(AudioTables, BandBoundsScaleEdgesToPairs) {
  uint32_t bounds[VelmoAudioMaxBands + 1];
  VelmoAudioBandBounds(44100, 2048, false, 25, bounds);
  EXPECT_EQ(bounds[0], 0u);
  EXPECT_EQ(bounds[1], 100u * 1024 / 22050);
  EXPECT_EQ(bounds[24], 15500u * 1024 / 22050);
  EXPECT_EQ(bounds[25], 1024u);
  uint32_t raised[VelmoAudioMaxBands + 1];
  VelmoAudioBandBounds(44100, 2048, true, 25, raised);
  EXPECT_EQ(raised[0], 1u);
  for (int b = 1; b <= 25; ++b) EXPECT_EQ(raised[b], bounds[b]);
}

// From 1, each step 1.16519868 times the one before, up to 2032357 at index 95; larger indices
// give 95's step.
TEST(AudioTables, QuantiserSteps) {
  EXPECT_FLOAT_EQ(VelmoAudioQuantStep(0), 1.0f);
  for (uint32_t i = 1; i <= 95; ++i)
    EXPECT_NEAR(VelmoAudioQuantStep(i) / VelmoAudioQuantStep(i - 1), 1.16519868, 1e-6) << i;
  EXPECT_NEAR(VelmoAudioQuantStep(95), 2032357.0, 1.0);
  EXPECT_EQ(VelmoAudioQuantStep(96), VelmoAudioQuantStep(95));
  EXPECT_EQ(VelmoAudioQuantStep(255), VelmoAudioQuantStep(95));
}

TEST(AudioTables, PackedFloatKeepsTwentyThreeBits) {
  for (float value : {0.0f, 0.75f, 1.0f, -1.0f, 3.14159f, -1234.5f, 99999.9f, 1048575.0f,
                      -2000000.25f, 1e-5f}) {
    const uint32_t bits = VelmoAudioPackFloat(value);
    EXPECT_EQ(bits >> 29, 0u);
    const float back = VelmoAudioUnpackFloat(bits);
    EXPECT_NEAR(back, value, std::fabs(value) * 2.4e-7 + 1.2e-7) << value;
    EXPECT_LE(std::fabs(back), std::fabs(value));  // the mantissa is truncated
  }
  EXPECT_EQ(VelmoAudioPackFloat(1.0f), 1u | (1u << 22) << 5);  // e = 1, mantissa 2^22
  EXPECT_EQ(VelmoAudioPackFloat(-1.0f), VelmoAudioPackFloat(1.0f) | 0x10000000u);
  EXPECT_EQ(VelmoAudioUnpackFloat(5 | 0x7FFFFF << 5), 0x7FFFFF * std::ldexp(1.0f, 5 - 23));
}

TEST(AudioTables, TrackFlagsAndModes) {
  EXPECT_EQ(VelmoAudioTrackFlags(22050, 2, 4), 22050u | 0x40000000u | 0x20000000u | 0x10000000u);
  EXPECT_EQ(VelmoAudioTrackFlags(11025, 1, 104), 11025u | 0x40000000u | 0x80000000u);
  EXPECT_FLOAT_EQ(VelmoAudioLevelQuality(104), 4.0f);
  EXPECT_TRUE(VelmoAudioLevelIsCurrentForm(99));
  EXPECT_FALSE(VelmoAudioLevelIsCurrentForm(100));
  EXPECT_FALSE(VelmoAudioLevelValid(200));
  EXPECT_FALSE(VelmoAudioLevelValid(-1));
  // The coding bits of a track's flags: the current form, the older one (also with both), none.
  const uint32_t modes[][3] = {{0x10000000u | 44100, 1, VelmoAudioCurrentForm},
                               {0x80000000u | 44100, 1, 0},
                               {0x90000000u, 1, 0},
                               {0x60000000u | 44100, 0, 99}};
  for (const auto& [flags, known, form] : modes) {
    uint32_t mode = 99;
    EXPECT_EQ(VelmoAudioTrackMode(flags, &mode), known != 0) << std::hex << flags;
    EXPECT_EQ(mode, form) << std::hex << flags;
  }
}

// ---- a stream writer of the tests' own ----

struct ChannelData {
  float C0 = 0, C1 = 0;
  std::vector<uint32_t> Indices;  // per band, as stored (may exceed 95)
  std::vector<int32_t> Values;    // signed magnitudes, L entries, from index 2
};

struct Layout {
  uint32_t Rate, Channels, Length, BandCount;
  bool Current;
  uint32_t Bounds[VelmoAudioMaxBands + 1];
};

Layout LayoutFor(uint32_t rate, uint32_t channels, bool current) {
  Layout layout{};
  layout.Rate = rate;
  layout.Channels = channels;
  layout.Current = current;
  const uint32_t samples = VelmoAudioBlockSamples(rate);
  layout.Length = current ? samples : samples * channels;
  const uint32_t bandRate = current ? rate : rate * channels;
  layout.BandCount = VelmoAudioBandCount(bandRate);
  VelmoAudioBandBounds(bandRate, layout.Length, true, layout.BandCount, layout.Bounds);
  return layout;
}

// Bits a magnitude of the group of 8 (or fewer, at the end) from `from` needs.
uint32_t GroupWidth(const Layout& layout, const ChannelData& data, uint32_t from) {
  uint32_t largest = 0, width = 0;
  for (uint32_t j = from; j < std::min(layout.Length, from + 8); ++j)
    largest = std::max<uint32_t>(largest, std::abs(data.Values[j]));
  while (largest >> width) ++width;
  return width;
}

// Writes each group of 8 on its own (no runs); records each group's first bit.
void WriteChannel(AudioBitWriter& out, const Layout& layout, const ChannelData& data,
                  std::vector<size_t>* groupStarts = nullptr) {
  out.Write(VelmoAudioPackFloat(data.C0), 29);
  out.Write(VelmoAudioPackFloat(data.C1), 29);
  for (uint32_t b = 0; b < layout.BandCount; ++b) out.Write(data.Indices[b], 8);
  for (uint32_t i = 2; i < layout.Length; i += 8) {
    if (groupStarts) groupStarts->push_back(out.BitCount());
    const uint32_t width = GroupWidth(layout, data, i);
    out.Write(0, 1);
    out.Write(width, 4);
    if (width)
      for (uint32_t j = i; j < std::min(layout.Length, i + 8); ++j) {
        out.Write(std::abs(data.Values[j]), width);
        if (data.Values[j]) out.Write(data.Values[j] < 0, 1);
      }
  }
}

std::vector<uint8_t> BuildBlock(const Layout& layout, const std::vector<ChannelData>& channels,
                                std::vector<size_t>* groupStarts = nullptr) {
  std::vector<uint8_t> bytes(64 * 1024);
  AudioBitWriter out(bytes.data(), bytes.size());
  if (layout.Current) out.Write(0, 2);
  for (const ChannelData& channel : channels) WriteChannel(out, layout, channel, groupStarts);
  out.PadToWord();
  bytes.resize(out.ByteCount());
  return bytes;
}

// A block followed by bytes of the next one, as inside a packet: the last groups of a block
// alone may be judged too long for the packet (see the short-packet tests below).
std::vector<uint8_t> InPacket(std::vector<uint8_t> block) {
  block.resize(block.size() + 256, 0xFF);
  return block;
}

ChannelData RandomChannel(const Layout& layout, uint32_t seed, int32_t largest = 40) {
  std::mt19937 random(seed);
  ChannelData data;
  data.C0 = static_cast<float>(random() % 20000) - 10000.0f;
  data.C1 = static_cast<float>(random() % 20000) - 10000.0f;
  for (uint32_t b = 0; b < layout.BandCount; ++b) data.Indices.push_back(random() % 40);
  data.Values.assign(layout.Length, 0);
  for (uint32_t i = 2; i < layout.Length; ++i)
    if (random() % 3 == 0)
      data.Values[i] = static_cast<int32_t>(random() % (2 * largest + 1)) - largest;
  return data;
}

// Coefficient values as the decoder should see them.
std::vector<double> Coefficients(const Layout& layout, const ChannelData& data) {
  std::vector<double> c(layout.Length, 0.0);
  c[0] = VelmoAudioUnpackFloat(VelmoAudioPackFloat(data.C0));
  c[1] = VelmoAudioUnpackFloat(VelmoAudioPackFloat(data.C1));
  for (uint32_t i = 2; i < layout.Length; ++i) {
    double step = 1.0;
    for (uint32_t b = 0; b < layout.BandCount; ++b)
      if (i >= 2 * layout.Bounds[b] && i < 2 * layout.Bounds[b + 1])
        step = VelmoAudioQuantStep(std::min<uint32_t>(data.Indices[b], 95));
    c[i] = data.Values[i] * step;
  }
  return c;
}

// Direct inverse sums, multiplied by the decoder's 2 / sqrt(L).
std::vector<double> DirectInverse(const Layout& layout, const std::vector<double>& c) {
  return audio_test::DirectInverse(c, layout.Current, 2.0 / std::sqrt(double(layout.Length)));
}

struct Decoder {
  std::vector<uint8_t> Memory;
  VelmoAudioDecoder* Handle = nullptr;
  Decoder(uint32_t rate, uint32_t channels, uint32_t flags)
      : Memory(VelmoAudioDecoderSize(rate, channels)) {
    Handle = VelmoAudioDecoderOpen(Memory.data(), rate, channels, flags);
  }
  // Decodes one block at `position`; returns its 16-bit samples.
  std::vector<int16_t> Block(const std::vector<uint8_t>& packet, size_t* position = nullptr,
                             uint32_t* used = nullptr) {
    std::vector<int16_t> out(VelmoAudioDecoderBlockBytes(Handle) / 2);
    VelmoAudioRing ring{reinterpret_cast<uint8_t*>(out.data()),
                        reinterpret_cast<uint8_t*>(out.data() + out.size()),
                        reinterpret_cast<uint8_t*>(out.data()),
                        static_cast<uint32_t>(out.size() * 2), 0, 0, 16};
    // An exact-size copy, so that a read beyond the packet would be caught by the sanitizer.
    std::unique_ptr<uint8_t[]> exact(new uint8_t[packet.empty() ? 1 : packet.size()]);
    if (!packet.empty()) std::memcpy(exact.get(), packet.data(), packet.size());
    VelmoAudioInput input{exact.get(), packet.size(), position ? *position : 0};
    const uint32_t consumed = VelmoAudioDecodeBlock(Handle, &ring, &input);
    if (position) *position = input.Position;
    if (used) *used = consumed;
    out.resize(ring.Offered / 2);
    return out;
  }
};

// Channel `offset` of `stride` interleaved ones against the expected samples, clamped to 16 bits.
void ExpectSamplesNear(const std::vector<int16_t>& got, const std::vector<double>& expected,
                       uint32_t stride = 1, uint32_t offset = 0) {
  for (size_t t = 0; t < got.size() / stride; ++t) {
    const double want = std::clamp(expected[t], -32768.0, 32767.0);
    ASSERT_NEAR(got[t * stride + offset], want, 1.01) << "sample " << t;
  }
}

// ---- decoding built streams ----

TEST(AudioDecoder, OpenRefusesWhatItCannotDecode) {
  std::vector<uint8_t> memory(1024);
  EXPECT_EQ(VelmoAudioDecoderOpen(memory.data(), 44100, 0, 1), nullptr);
  EXPECT_EQ(VelmoAudioDecoderOpen(memory.data(), 44100, 3, 0), nullptr);
  EXPECT_EQ(VelmoAudioDecoderOpen(memory.data(), 70000, 1, 1), nullptr);
  EXPECT_EQ(VelmoAudioDecoderOpen(nullptr, 44100, 1, 1), nullptr);
  VelmoAudioDecoder* decoder = VelmoAudioDecoderOpen(memory.data(), 65535, 2, 0);
  ASSERT_NE(decoder, nullptr);  // older form at the longest transform, 4096
  EXPECT_EQ(VelmoAudioDecoderBlockBytes(decoder), 8192u);
  EXPECT_EQ(VelmoAudioDecoderStepBytes(decoder), 8192u - 512u);
}

// Blocks of random coefficients against the direct inverse sums: the older form's inverse FFT
// (stereo as one interleaved channel of twice the length), the current form's DCT per channel.
TEST(AudioDecoder, BlocksMatchDirectInverseSums) {
  const struct {
    uint32_t Rate, Channels;
    bool Current;
    size_t Samples;  // handed out: the block less its overlap
  } cases[] = {{0, 1, true, 512 - 32},  // no band edge below Nyquist: steps of 1
               {11025, 1, false, 512 - 32},    {22050, 2, false, 2048 - 128},
               {22050, 2, true, 2 * 1024 - 128}, {8000, 1, true, 512 - 32},
               {11025, 1, true, 512 - 32},       {32000, 1, true, 1024 - 64},
               {48000, 1, true, 2048 - 128},     {65535, 1, true, 2048 - 128}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.Rate << " Hz, " << c.Channels << " channels, form "
                                      << c.Current);
    const Layout layout = LayoutFor(c.Rate, c.Channels, c.Current);
    const uint32_t coded = c.Current ? c.Channels : 1;
    std::vector<ChannelData> data;
    for (uint32_t ch = 0; ch < coded; ++ch) data.push_back(RandomChannel(layout, c.Rate + ch));
    Decoder decoder(c.Rate, c.Channels, c.Current ? VelmoAudioCurrentForm : 0);
    ASSERT_NE(decoder.Handle, nullptr);
    size_t position = 0;
    uint32_t used = 0;
    const std::vector<uint8_t> block = BuildBlock(layout, data);
    const std::vector<int16_t> out = decoder.Block(InPacket(block), &position, &used);
    EXPECT_EQ(used, block.size());
    EXPECT_EQ(position, block.size());
    ASSERT_EQ(out.size(), c.Samples);
    for (uint32_t ch = 0; ch < coded; ++ch)
      ExpectSamplesNear(out, DirectInverse(layout, Coefficients(layout, data[ch])), coded, ch);
  }
  // 22050 Hz stereo in the older form: a transform of 2048 over the bands of 44100 Hz.
  const Layout older = LayoutFor(22050, 2, false), reference = LayoutFor(44100, 1, true);
  EXPECT_EQ(older.Length, 2048u);
  ASSERT_EQ(older.BandCount, 25u);
  for (uint32_t b = 0; b <= 25; ++b) EXPECT_EQ(older.Bounds[b], reference.Bounds[b]);
}

TEST(AudioDecoder, IndexAbove95DecodesAs95) {
  const Layout layout = LayoutFor(11025, 1, true);
  ChannelData high = RandomChannel(layout, 5, 1);
  ChannelData capped = high;
  high.Indices[3] = 200;
  high.Indices[4] = 255;
  capped.Indices[3] = 95;
  capped.Indices[4] = 95;
  Decoder first(11025, 1, VelmoAudioCurrentForm), second(11025, 1, VelmoAudioCurrentForm);
  EXPECT_EQ(first.Block(InPacket(BuildBlock(layout, {high}))),
            second.Block(InPacket(BuildBlock(layout, {capped}))));
}

TEST(AudioDecoder, RunsCoverTheirCountOrTheRest) {
  // 11025 Hz current form, L = 512, steps of 1: a run of 2 groups (coefficients 2..17, one of
  // them -3), then a run of 15, which stands for the rest, of width 0.
  const Layout layout = LayoutFor(11025, 1, true);
  std::vector<uint8_t> bytes(512);
  AudioBitWriter out(bytes.data(), bytes.size());
  out.Write(0, 2);
  out.Write(VelmoAudioPackFloat(3000.0f), 29);
  out.Write(0, 29);
  for (uint32_t b = 0; b < layout.BandCount; ++b) out.Write(0, 8);
  out.Write(1, 1);
  out.Write(0, 4);
  out.Write(2, 4);
  for (int i = 0; i < 16; ++i) {
    out.Write(i == 5 ? 3 : 0, 2);
    if (i == 5) out.Write(1, 1);  // negative
  }
  out.Write(1, 1);
  out.Write(15, 4);
  out.Write(0, 4);
  out.PadToWord();
  bytes.resize(out.ByteCount());
  const size_t size = bytes.size();
  // The next block's bytes must not be touched; there are enough of them for the zero run's
  // 494 coefficients at a bit each.
  bytes.resize(size + 64, 0xFF);
  std::vector<double> c(layout.Length, 0.0);
  c[0] = 3000.0;
  c[2 + 5] = -3.0;
  Decoder decoder(11025, 1, VelmoAudioCurrentForm);
  size_t position = 0;
  const std::vector<int16_t> samples = decoder.Block(bytes, &position);
  EXPECT_EQ(position, size);
  ExpectSamplesNear(samples, DirectInverse(layout, c));
}

// The first group (each written alone here) that a reader must give up in a packet of
// `bits`: the first whose 9 bits of head and w + 1 bits a coefficient (one bit for w = 0) pass
// the end.
size_t FirstGroupLost(const Layout& layout, const ChannelData& data,
                      const std::vector<size_t>& starts, size_t bits) {
  for (size_t g = 0; g < starts.size(); ++g) {
    const uint32_t from = 2 + 8 * static_cast<uint32_t>(g);
    const uint32_t width = GroupWidth(layout, data, from);
    if (starts[g] + 9 + (std::min(layout.Length, from + 8) - from) * (width + 1) > bits)
      return g;
  }
  return starts.size();
}

// A run of zero width is judged like any group, at 9 bits and a bit a coefficient: at the end
// of a packet that is too short for that, the channel ends at the run and the reader stays at
// its start; with room behind it, the run takes its 9 bits only. Either way its coefficients
// are zero. (The run is placed to straddle a word, so the two read positions differ.)
TEST(AudioDecoder, ZeroRunIsJudgedAtABitACoefficient) {
  const Layout layout = LayoutFor(11025, 1, true);  // L = 512
  const size_t head = 2 + 2 * 29 + 8 * size_t{layout.BandCount};
  // One group of width w with `nonzero` values of 1 (the rest 0), chosen so that the run after
  // it starts 2 bits before a word.
  uint32_t width = 0, nonzero = 0;
  for (uint32_t w = 1; w <= 15 && !width; ++w)
    for (uint32_t n = 0; n <= 8 && !width; ++n)
      if ((head + 5 + 8 * w + n) % 32 == 30) width = w, nonzero = n;
  ASSERT_NE(width, 0u);
  uint32_t kept = 0, ended = 0;
  for (uint32_t extraWords : {0u, 14u, 15u, 40u}) {
    SCOPED_TRACE(extraWords);
    std::vector<uint8_t> bytes(512);
    AudioBitWriter out(bytes.data(), bytes.size());
    out.Write(0, 2);
    out.Write(VelmoAudioPackFloat(1000.0f), 29);
    out.Write(0, 29);
    for (uint32_t b = 0; b < layout.BandCount; ++b) out.Write(0, 8);
    out.Write(0, 1);
    out.Write(width, 4);
    std::vector<double> c(layout.Length, 0.0);
    c[0] = 1000.0;
    for (uint32_t i = 0; i < 8; ++i) {
      out.Write(i < nonzero ? 1 : 0, width);
      if (i < nonzero) out.Write(0, 1);
      c[2 + i] = i < nonzero ? 1.0 : 0.0;
    }
    const size_t runStart = out.BitCount();
    out.Write(1, 1);
    out.Write(15, 4);  // the rest: 63 groups, 502 coefficients
    out.Write(0, 4);
    out.PadToWord();
    bytes.resize(out.ByteCount());
    const size_t blockBytes = bytes.size();
    bytes.resize(blockBytes + 4 * extraWords, 0xFF);
    // 9 + 502 bits from the run's start must lie in the packet.
    const bool keeps = runStart + 9 + 502 <= bytes.size() * 8;
    (keeps ? kept : ended) += 1;
    Decoder decoder(11025, 1, VelmoAudioCurrentForm);
    size_t position = 0;
    const std::vector<int16_t> samples = decoder.Block(bytes, &position);
    EXPECT_EQ(position, keeps ? blockBytes : (runStart + 31) / 32 * 4);
    EXPECT_NE(blockBytes, (runStart + 31) / 32 * 4);
    ExpectSamplesNear(samples, DirectInverse(layout, c));
  }
  EXPECT_EQ(kept, 2u);  // 15 words and more hold the run's 511 bits
  EXPECT_EQ(ended, 2u);
}

// A packet that ends inside a block: silent from the first group whose longest reach passes
// the end; the reader goes back to the start of that group before moving to the next word.
// A block that is its packet's last, ending in a group of width 6 with zeros in it, takes
// fewer bits than 9 + 8 * 7: whether that group is kept depends on the bound alone, and with
// the next block behind it the group is read in full.
TEST(AudioDecoder, ShortPacketIsSilentFromTheFirstGroupThatPassesItsEnd) {
  const Layout layout = LayoutFor(11025, 1, true);
  uint32_t dropped = 0, kept = 0;
  for (int zeros = -1; zeros <= 7; ++zeros) {
    SCOPED_TRACE(zeros);
    ChannelData data = RandomChannel(layout, zeros < 0 ? 7 : 100 + zeros, zeros < 0 ? 500 : 40);
    for (uint32_t i = 0; zeros >= 0 && i < 8; ++i)
      data.Values[layout.Length - 8 + i] = i < uint32_t(zeros) ? 0 : 33;
    std::vector<size_t> starts;
    const std::vector<uint8_t> block = BuildBlock(layout, {data}, &starts);
    // The first case is cut inside group 20 (coefficients 162..169): a group or two before it
    // whose longest reach passes the cut goes too. In the others only the last is in doubt.
    const std::vector<uint8_t> packet(
        block.begin(), zeros < 0 ? block.begin() + (starts[20] + 7) / 8 : block.end());
    const size_t lost = FirstGroupLost(layout, data, starts, packet.size() * 8);
    ASSERT_GE(lost, zeros < 0 ? 17u : starts.size() - 1);
    ASSERT_LE(lost, zeros < 0 ? 20u : starts.size());
    (lost < starts.size() ? dropped : kept) += 1;
    ChannelData left = data;
    for (uint32_t i = 2 + 8 * uint32_t(lost); i < layout.Length; ++i) left.Values[i] = 0;

    Decoder decoder(11025, 1, VelmoAudioCurrentForm), inPacket(11025, 1, VelmoAudioCurrentForm);
    size_t position = 0;
    const std::vector<int16_t> out = decoder.Block(packet, &position);
    EXPECT_EQ(position, lost < starts.size() ? std::min(packet.size(), (starts[lost] + 31) / 32 * 4)
                                             : packet.size());
    ExpectSamplesNear(out, DirectInverse(layout, Coefficients(layout, left)));
    if (zeros < 0) continue;
    const std::vector<int16_t> whole = inPacket.Block(InPacket(block));
    ExpectSamplesNear(whole, DirectInverse(layout, Coefficients(layout, data)));
  }
  EXPECT_GT(dropped, 1u);  // the seeds give both cases
  EXPECT_GT(kept, 0u);
}

// ---- crossfade ----

std::vector<uint8_t> DcBlock(const Layout& layout, float c0) {
  ChannelData data;
  data.C0 = c0;
  data.Indices.assign(layout.BandCount, 0);
  data.Values.assign(layout.Length, 0);
  std::vector<ChannelData> channels(layout.Current ? layout.Channels : 1, data);
  return BuildBlock(layout, channels);
}

// No fade in from silence; then a linear fade over the overlap (32 samples a channel, 64 in
// stereo unless the block fades as two halves); a reset starts afresh. Mono ignores the flag.
TEST(AudioDecoder, FirstBlockHasNoCrossfadeAndLaterOnesFadeLinearly) {
  const struct {
    uint32_t Channels, Flags, Fade, Shift;
  } cases[] = {{1, VelmoAudioCurrentForm, 32, 5},
               {1, VelmoAudioCurrentForm | VelmoAudioHalfBlocks, 32, 5},
               {2, VelmoAudioCurrentForm, 64, 6},
               {2, VelmoAudioCurrentForm | VelmoAudioHalfBlocks, 32, 5}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.Channels << " channels, flags " << c.Flags);
    const Layout layout = LayoutFor(11025, c.Channels, true);
    Decoder decoder(11025, c.Channels, c.Flags);
    const std::vector<int16_t> first = decoder.Block(DcBlock(layout, 10000.0f));
    ASSERT_EQ(first.size(), c.Channels * 512u - c.Channels * 32u);
    const int16_t a = first[0];
    for (int16_t s : first) ASSERT_EQ(s, a);
    const std::vector<int16_t> second = decoder.Block(DcBlock(layout, -4000.0f));
    const int16_t b = second.back();
    for (uint32_t i = 0; i < c.Fade; ++i)
      ASSERT_EQ(second[i], (a * int32_t(c.Fade - i) + b * int32_t(i)) >> c.Shift) << "i=" << i;
    for (size_t i = c.Fade; i < second.size(); ++i) ASSERT_EQ(second[i], b) << "i=" << i;
    VelmoAudioDecoderReset(decoder.Handle);
    EXPECT_EQ(decoder.Block(DcBlock(layout, 10000.0f))[0], a);
  }
}

// ---- the ring ----

// A 16-bit ring: samples dropped, written from the write point, wrapped at the end, and
// stopped at the limit. An 8-bit ring: the high byte offset by 128.
TEST(AudioDecoder, RingDropsWrapsLimitsCountsAndNarrows) {
  const Layout layout = LayoutFor(11025, 1, true);
  const std::vector<uint8_t> block = BuildBlock(layout, {RandomChannel(layout, 10, 300)});
  Decoder reference(11025, 1, VelmoAudioCurrentForm), decoder(11025, 1, VelmoAudioCurrentForm),
      narrow(11025, 1, VelmoAudioCurrentForm);
  const std::vector<int16_t> all = reference.Block(block);  // 480 samples

  std::vector<int16_t> ring(300, 0x5555);
  uint8_t* start = reinterpret_cast<uint8_t*>(ring.data());
  VelmoAudioRing r{start, start + 500, start + 400, 250, 100, 0, 16};  // 250 of 500 ring bytes
  VelmoAudioInput input{block.data(), block.size(), 0};
  VelmoAudioDecodeBlock(decoder.Handle, &r, &input);
  EXPECT_EQ(r.Drop, 0u);
  EXPECT_EQ(r.Offered, 960u - 100u);
  EXPECT_EQ(r.Limit, 0u);
  // Samples 50.. land at byte 400, wrap at 500 (End), and stop after 250 bytes.
  for (int i = 0; i < 300; ++i) {
    const int sample = i >= 200 && i < 250 ? i - 150 : i < 75 ? i + 100 : -1;
    ASSERT_EQ(ring[i], sample < 0 ? int16_t(0x5555) : all[sample]) << i;
  }
  EXPECT_EQ(r.Write, start + 150);

  std::vector<uint8_t> bytes(600);
  r = {bytes.data(), bytes.data() + bytes.size(), bytes.data(), 600, 0, 0, 8};
  input.Position = 0;
  VelmoAudioDecodeBlock(narrow.Handle, &r, &input);
  ASSERT_EQ(r.Offered, all.size());
  for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ(bytes[i], uint8_t((all[i] >> 8) + 128)) << i;
}

// ---- hostile input ----

// The first packet is empty: silence, and nothing used.
TEST(AudioDecoder, GarbageNeverReadsOutsideOrStalls) {
  std::mt19937 random(11);
  const uint32_t rates[] = {0, 1, 8000, 11025, 22050, 44100, 65535};
  for (int round = 0; round < 300; ++round) {
    const uint32_t rate = rates[random() % 7];
    const uint32_t channels = 1 + random() % 2;
    const uint32_t flags = random() % 4;
    Decoder decoder(rate, channels, flags);
    ASSERT_NE(decoder.Handle, nullptr);
    std::vector<uint8_t> packet(round ? random() % 3000 : 0);
    for (auto& byte : packet) byte = static_cast<uint8_t>(random());
    if (round % 3 == 0)  // mostly zero widths or very wide groups
      for (auto& byte : packet) byte = (round % 2) ? 0xFF : static_cast<uint8_t>(byte & 0x11);
    size_t position = 0;
    for (int block = 0; block < 8; ++block) {
      const size_t before = position;
      uint32_t used = 0;
      const std::vector<int16_t> out = decoder.Block(packet, &position, &used);
      ASSERT_EQ(out.size() * 2, VelmoAudioDecoderStepBytes(decoder.Handle));
      ASSERT_LE(position, packet.size());
      ASSERT_EQ(used, position - before);
      for (size_t i = 0; packet.empty() && i < out.size(); ++i) ASSERT_EQ(out[i], 0);
      if (position == packet.size()) break;
      ASSERT_GT(position, before);
    }
  }
}

}  // namespace
