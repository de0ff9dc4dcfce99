// The sound stream and its decoder, on streams built here bit by bit: tables, both forms
// against direct inverse sums, band indices, runs, short packets, the crossfade, the ring,
// and garbage that must decode without harm.
#include "compress/audio/audio_bits.h"
#include "compress/audio/audio_tables.h"
#include "compress/audio/velmo_audio.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace {

constexpr double Pi = 3.14159265358979323846;

// ---- tables ----

TEST(AudioTables, SizesFollowTheRate) {
  const uint32_t blockSamples[][2] = {{8000, 512},   {22049, 512},  {22050, 1024},
                                      {44099, 1024}, {44100, 2048}, {65535, 2048}};
  for (const auto& [rate, samples] : blockSamples) EXPECT_EQ(VelmoAudioBlockSamples(rate), samples) << rate;
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

TEST(AudioTables, QuantiserSteps) {
  EXPECT_FLOAT_EQ(VelmoAudioQuantStep(0), 1.0f);
  EXPECT_NEAR(VelmoAudioQuantStep(1), 1.16519868, 1e-6);
  EXPECT_NEAR(VelmoAudioQuantStep(2), 1.35768807, 1e-6);
  EXPECT_NEAR(VelmoAudioQuantStep(3), 1.58197641, 1e-6);
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
  uint32_t mode = 99;
  EXPECT_TRUE(VelmoAudioTrackMode(0x10000000u | 44100, &mode));
  EXPECT_EQ(mode, VelmoAudioCurrentForm);
  EXPECT_TRUE(VelmoAudioTrackMode(0x80000000u | 44100, &mode));
  EXPECT_EQ(mode, 0u);
  EXPECT_TRUE(VelmoAudioTrackMode(0x90000000u, &mode));  // both: the older form
  EXPECT_EQ(mode, 0u);
  EXPECT_FALSE(VelmoAudioTrackMode(0x60000000u | 44100, &mode));
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

// Writes each group of 8 on its own (no runs); records each group's first bit.
void WriteChannel(AudioBitWriter& out, const Layout& layout, const ChannelData& data,
                  std::vector<size_t>* groupStarts = nullptr) {
  out.Write(VelmoAudioPackFloat(data.C0), 29);
  out.Write(VelmoAudioPackFloat(data.C1), 29);
  for (uint32_t b = 0; b < layout.BandCount; ++b) out.Write(data.Indices[b], 8);
  for (uint32_t i = 2; i < layout.Length; i += 8) {
    if (groupStarts) groupStarts->push_back(out.BitCount());
    const uint32_t end = std::min(layout.Length, i + 8);
    uint32_t largest = 0;
    for (uint32_t j = i; j < end; ++j) largest = std::max<uint32_t>(largest, std::abs(data.Values[j]));
    uint32_t width = 0;
    while (largest >> width) ++width;
    out.Write(0, 1);
    out.Write(width, 4);
    if (width)
      for (uint32_t j = i; j < end; ++j) {
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
    if (random() % 3 == 0) data.Values[i] = static_cast<int32_t>(random() % (2 * largest + 1)) - largest;
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

// Direct inverse sums, already multiplied by the decoder's 2 / sqrt(L).
std::vector<double> DirectInverse(const Layout& layout, const std::vector<double>& c) {
  const uint32_t length = layout.Length;
  const double scale = 2.0 / std::sqrt(static_cast<double>(length));
  std::vector<double> x(length);
  for (uint32_t t = 0; t < length; ++t) {
    double sum = 0;
    if (layout.Current) {
      for (uint32_t k = 0; k < length; ++k) sum += c[k] * std::cos(Pi * (2 * t + 1) * k / (2.0 * length));
    } else {
      sum = 0.5 * (c[0] + c[1] * ((t & 1) ? -1 : 1));
      for (uint32_t k = 1; k < length / 2; ++k) {
        const double angle = 2 * Pi * k * t / length;
        sum += c[2 * k] * std::cos(angle) - c[2 * k + 1] * std::sin(angle);
      }
    }
    x[t] = sum * scale;
  }
  return x;
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

void ExpectSamplesNear(const std::vector<int16_t>& got, const std::vector<double>& expected,
                       uint32_t stride, uint32_t offset, size_t count, double tolerance) {
  for (size_t t = 0; t < count; ++t) {
    const double want = std::clamp(expected[t], -32768.0, 32767.0);
    ASSERT_NEAR(got[t * stride + offset], want, tolerance) << "sample " << t;
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
  } cases[] = {{11025, 1, false, 512 - 32},    {22050, 2, false, 2048 - 128},
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
    size_t position = 0;
    uint32_t used = 0;
    const std::vector<uint8_t> block = BuildBlock(layout, data);
    const std::vector<int16_t> out = decoder.Block(InPacket(block), &position, &used);
    EXPECT_EQ(used, block.size());
    EXPECT_EQ(position, block.size());
    ASSERT_EQ(out.size(), c.Samples);
    for (uint32_t ch = 0; ch < coded; ++ch)
      ExpectSamplesNear(out, DirectInverse(layout, Coefficients(layout, data[ch])), coded, ch,
                        out.size() / coded, 1.01);
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

TEST(AudioDecoder, ZeroWidthRunOf512CoefficientsTakesNineBits) {
  // 11025 Hz current form: L = 512, so one run of 64 groups covers coefficients 2..511.
  const Layout layout = LayoutFor(11025, 1, true);
  std::vector<uint8_t> bytes(256);
  AudioBitWriter out(bytes.data(), bytes.size());
  out.Write(0, 2);
  out.Write(VelmoAudioPackFloat(3000.0f), 29);
  out.Write(0, 29);
  for (uint32_t b = 0; b < layout.BandCount; ++b) out.Write(7, 8);
  const size_t before = out.BitCount();
  out.Write(1, 1);
  out.Write(15, 4);  // 64 groups
  out.Write(0, 4);
  EXPECT_EQ(out.BitCount() - before, 9u);
  out.PadToWord();
  bytes.resize(out.ByteCount());
  bytes.resize(bytes.size() + 40, 0xFF);  // the next block's bytes must not be touched

  Decoder decoder(11025, 1, VelmoAudioCurrentForm);
  size_t position = 0;
  const std::vector<int16_t> samples = decoder.Block(bytes, &position);
  EXPECT_EQ(position, ((2 + 58 + 8 * layout.BandCount + 9 + 31) / 32) * 4);
  // DC alone: every sample is 3000 * 2 / sqrt(512).
  const int16_t level = static_cast<int16_t>(std::lround(3000.0 * 2 / std::sqrt(512.0)));
  for (int16_t s : samples) ASSERT_EQ(s, level);
}

TEST(AudioDecoder, RunsShorterThanTheRestStopAtTheirCount) {
  const Layout layout = LayoutFor(11025, 1, true);
  std::vector<uint8_t> bytes(512);
  AudioBitWriter out(bytes.data(), bytes.size());
  out.Write(0, 2);
  out.Write(0, 29);
  out.Write(0, 29);
  for (uint32_t b = 0; b < layout.BandCount; ++b) out.Write(0, 8);  // steps of 1
  out.Write(1, 1);
  out.Write(0, 4);  // a run of 2 groups: coefficients 2..17
  out.Write(2, 4);
  for (int i = 0; i < 16; ++i) {
    out.Write(i == 5 ? 3 : 0, 2);
    if (i == 5) out.Write(1, 1);  // negative
  }
  out.Write(1, 1);
  out.Write(15, 4);  // the rest: zero
  out.Write(0, 4);
  out.PadToWord();
  bytes.resize(out.ByteCount());
  std::vector<double> c(layout.Length, 0.0);
  c[2 + 5] = -3.0;
  Decoder decoder(11025, 1, VelmoAudioCurrentForm);
  const std::vector<int16_t> samples = decoder.Block(bytes);
  ExpectSamplesNear(samples, DirectInverse(layout, c), 1, 0, samples.size(), 1.01);
}

TEST(AudioDecoder, NoBandsMeansStepsOfOne) {
  // A rate of 0 has no band edge below its Nyquist: magnitudes are taken as they are.
  Layout layout = LayoutFor(0, 1, true);
  ASSERT_EQ(layout.BandCount, 0u);
  ChannelData data = RandomChannel(layout, 6, 200);
  Decoder decoder(0, 1, VelmoAudioCurrentForm);
  ASSERT_NE(decoder.Handle, nullptr);
  const std::vector<int16_t> out = decoder.Block(InPacket(BuildBlock(layout, {data})));
  ExpectSamplesNear(out, DirectInverse(layout, Coefficients(layout, data)), 1, 0, out.size(), 1.01);
}

// The first group (each written alone here) that a reader must give up in a packet of
// `bits`: the first whose 9 bits of head and w + 1 bits a coefficient (none for w = 0) pass
// the end.
size_t FirstGroupLost(const Layout& layout, const ChannelData& data,
                      const std::vector<size_t>& starts, size_t bits) {
  for (size_t g = 0; g < starts.size(); ++g) {
    const uint32_t from = 2 + 8 * static_cast<uint32_t>(g);
    const uint32_t to = std::min(layout.Length, from + 8);
    uint32_t largest = 0;
    for (uint32_t i = from; i < to; ++i) largest = std::max<uint32_t>(largest, std::abs(data.Values[i]));
    uint32_t width = 0;
    while (largest >> width) ++width;
    if (starts[g] + 9 + (width ? (to - from) * (width + 1) : 0) > bits) return g;
  }
  return starts.size();
}

ChannelData WithoutGroupsFrom(const Layout& layout, ChannelData data, size_t group) {
  for (uint32_t i = 2 + 8 * static_cast<uint32_t>(group); i < layout.Length; ++i)
    data.Values[i] = 0;
  return data;
}

TEST(AudioDecoder, ShortPacketIsSilentFromTheBrokenGroupOn) {
  const Layout layout = LayoutFor(11025, 1, true);
  const ChannelData data = RandomChannel(layout, 7, 500);
  std::vector<size_t> starts;
  std::vector<uint8_t> packet = BuildBlock(layout, {data}, &starts);
  // Cut the packet inside group 20 (coefficients 162..169): a group or two before it whose
  // longest reach passes the cut goes too.
  packet.resize((starts[20] + 7) / 8);
  const size_t lost = FirstGroupLost(layout, data, starts, packet.size() * 8);
  ASSERT_LE(lost, 20u);
  ASSERT_GE(lost, 17u);

  Decoder decoder(11025, 1, VelmoAudioCurrentForm);
  size_t position = 0;
  const std::vector<int16_t> out = decoder.Block(packet, &position);
  EXPECT_LE(position, packet.size());
  EXPECT_EQ(position % 4, 0u);
  // The reader went back to the start of the lost group before moving to the next word.
  EXPECT_EQ(position, std::min(packet.size(), (starts[lost] + 31) / 32 * 4));
  ExpectSamplesNear(out,
                    DirectInverse(layout, Coefficients(layout, WithoutGroupsFrom(layout, data, lost))),
                    1, 0, out.size(), 1.01);
}

TEST(AudioDecoder, LastGroupIsJudgedAtItsLongestNotByWhatItTakes) {
  // A block that is its packet's last, ending in a group of width 6 with zeros in it: it
  // takes fewer bits than 9 + 8 * 7, and whether it is kept depends on that bound alone.
  const Layout layout = LayoutFor(11025, 1, true);
  uint32_t dropped = 0, kept = 0;
  for (uint32_t zeros = 0; zeros <= 7; ++zeros) {
    ChannelData data = RandomChannel(layout, 100 + zeros, 40);
    for (uint32_t i = layout.Length - 8; i < layout.Length; ++i)
      data.Values[i] = i - (layout.Length - 8) < zeros ? 0 : 33;
    std::vector<size_t> starts;
    const std::vector<uint8_t> block = BuildBlock(layout, {data}, &starts);
    const size_t lost = FirstGroupLost(layout, data, starts, block.size() * 8);
    ASSERT_GE(lost, starts.size() - 1);  // only the last group can be in doubt
    (lost < starts.size() ? dropped : kept) += 1;
    const ChannelData left = WithoutGroupsFrom(layout, data, lost);

    Decoder decoder(11025, 1, VelmoAudioCurrentForm);
    const std::vector<int16_t> out = decoder.Block(block);
    ExpectSamplesNear(out, DirectInverse(layout, Coefficients(layout, left)), 1, 0, out.size(),
                      1.01);
    // With the next block behind it, the same group is read in full.
    Decoder inPacket(11025, 1, VelmoAudioCurrentForm);
    const std::vector<int16_t> whole = inPacket.Block(InPacket(block));
    ExpectSamplesNear(whole, DirectInverse(layout, Coefficients(layout, data)), 1, 0, whole.size(),
                      1.01);
  }
  EXPECT_GT(dropped, 0u);  // the seeds give both cases
  EXPECT_GT(kept, 0u);
}

TEST(AudioDecoder, EmptyPacketGivesSilenceAndUsesNothing) {
  Decoder decoder(44100, 2, VelmoAudioCurrentForm);
  size_t position = 0;
  uint32_t used = 7;
  const std::vector<int16_t> out = decoder.Block({}, &position, &used);
  EXPECT_EQ(used, 0u);
  EXPECT_EQ(position, 0u);
  ASSERT_EQ(out.size(), 2 * 2048u - 256u);
  for (int16_t s : out) ASSERT_EQ(s, 0);
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

TEST(AudioDecoder, FirstBlockHasNoCrossfadeAndLaterOnesFadeLinearly) {
  for (uint32_t channels : {1u, 2u}) {
    const Layout layout = LayoutFor(11025, channels, true);
    Decoder decoder(11025, channels, VelmoAudioCurrentForm);
    const std::vector<int16_t> first = decoder.Block(DcBlock(layout, 10000.0f));
    const int16_t a = first[0];
    for (int16_t s : first) ASSERT_EQ(s, a);  // no fade in from silence
    const std::vector<int16_t> second = decoder.Block(DcBlock(layout, -4000.0f));
    const int16_t b = second.back();
    const uint32_t n = 32 * channels, shift = channels == 1 ? 5 : 6;
    for (uint32_t i = 0; i < n; ++i)
      ASSERT_EQ(second[i], (a * static_cast<int32_t>(n - i) + b * static_cast<int32_t>(i)) >> shift)
          << "i=" << i;
    for (size_t i = n; i < second.size(); ++i) ASSERT_EQ(second[i], b);
    // After a reset the next block starts afresh.
    VelmoAudioDecoderReset(decoder.Handle);
    const std::vector<int16_t> third = decoder.Block(DcBlock(layout, 10000.0f));
    EXPECT_EQ(third[0], a);
  }
}

TEST(AudioDecoder, HalfBlocksFadeEachHalfWithHalfTheOverlap) {
  const Layout layout = LayoutFor(11025, 2, true);
  Decoder halves(11025, 2, VelmoAudioCurrentForm | VelmoAudioHalfBlocks);
  const std::vector<int16_t> first = halves.Block(DcBlock(layout, 10000.0f));
  ASSERT_EQ(first.size(), 2 * 512u - 64u);
  const int16_t a = first[0];
  // The first half's tail fades into the second half: equal values, so no change.
  for (int16_t s : first) ASSERT_EQ(s, a);
  const std::vector<int16_t> second = halves.Block(DcBlock(layout, -4000.0f));
  const int16_t b = second.back();
  for (uint32_t i = 0; i < 32; ++i)
    ASSERT_EQ(second[i], (a * static_cast<int32_t>(32 - i) + b * static_cast<int32_t>(i)) >> 5);
  // Mono ignores the flag.
  const Layout mono = LayoutFor(11025, 1, true);
  Decoder plain(11025, 1, VelmoAudioCurrentForm), flagged(11025, 1, 3);
  const std::vector<uint8_t> block = DcBlock(mono, 5000.0f);
  plain.Block(block);
  flagged.Block(block);
  EXPECT_EQ(plain.Block(DcBlock(mono, 100.0f)), flagged.Block(DcBlock(mono, 100.0f)));
}

// ---- the ring ----

TEST(AudioDecoder, RingDropsWrapsLimitsAndCounts) {
  const Layout layout = LayoutFor(11025, 1, true);
  const std::vector<uint8_t> block = BuildBlock(layout, {RandomChannel(layout, 9)});
  Decoder reference(11025, 1, VelmoAudioCurrentForm);
  const std::vector<int16_t> all = reference.Block(block);  // 480 samples

  Decoder decoder(11025, 1, VelmoAudioCurrentForm);
  std::vector<int16_t> ring(300, 0x5555);
  uint8_t* start = reinterpret_cast<uint8_t*>(ring.data());
  VelmoAudioRing r{start, start + 500, start + 400, 250, 100, 0, 16};  // 250 of 500 ring bytes
  VelmoAudioInput input{block.data(), block.size(), 0};
  VelmoAudioDecodeBlock(decoder.Handle, &r, &input);
  EXPECT_EQ(r.Drop, 0u);
  EXPECT_EQ(r.Offered, 960u - 100u);
  EXPECT_EQ(r.Limit, 0u);
  // Samples 50.. land at byte 400, wrap at 500, and stop after 250 bytes.
  EXPECT_EQ(ring[200], all[50]);
  EXPECT_EQ(ring[249], all[99]);
  EXPECT_EQ(ring[0], all[100]);
  EXPECT_EQ(ring[74], all[174]);
  EXPECT_EQ(ring[75], 0x5555);
  EXPECT_EQ(r.Write, start + 150);
  for (int i = 250; i < 300; ++i) EXPECT_EQ(ring[i], 0x5555);  // past End
}

TEST(AudioDecoder, EightBitRingTakesTheHighByteOffsetBy128) {
  const Layout layout = LayoutFor(11025, 1, true);
  const std::vector<uint8_t> block = BuildBlock(layout, {RandomChannel(layout, 10, 300)});
  Decoder wide(11025, 1, VelmoAudioCurrentForm), narrow(11025, 1, VelmoAudioCurrentForm);
  const std::vector<int16_t> all = wide.Block(block);
  std::vector<uint8_t> bytes(600);
  VelmoAudioRing r{bytes.data(), bytes.data() + bytes.size(), bytes.data(), 600, 0, 0, 8};
  VelmoAudioInput input{block.data(), block.size(), 0};
  VelmoAudioDecodeBlock(narrow.Handle, &r, &input);
  ASSERT_EQ(r.Offered, all.size());
  for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ(bytes[i], static_cast<uint8_t>((all[i] >> 8) + 128));
}

// ---- hostile input ----

TEST(AudioDecoder, GarbageNeverReadsOutsideOrStalls) {
  std::mt19937 random(11);
  const uint32_t rates[] = {0, 1, 8000, 11025, 22050, 44100, 65535};
  for (int round = 0; round < 300; ++round) {
    const uint32_t rate = rates[random() % 7];
    const uint32_t channels = 1 + random() % 2;
    const uint32_t flags = random() % 4;
    Decoder decoder(rate, channels, flags);
    ASSERT_NE(decoder.Handle, nullptr);
    std::vector<uint8_t> packet(random() % 3000);
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
      if (position == packet.size()) break;
      ASSERT_GT(position, before);
    }
  }
}

}  // namespace
