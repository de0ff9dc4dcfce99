// Sound track packets of the output writer: the track's figures, packets written frame by frame
// and read back through the container's packet walk and the sound decoder as the reader does
// it, the lead-in, the sound's length, silence before and after the source.
#include "compress/velmo_sound_track.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "compress_test_util.h"

namespace {

using audio_test::Samples;
using sound_check::MemorySound;
using sound_check::ReadMemory;

// A source that hands out at most 100 bytes a call, as a sound input may at its seams.
uint32_t ReadMemoryInBits(void* source, void* buffer, uint32_t bytes) {
  return ReadMemory(source, buffer, std::min(bytes, 100u));
}

// The bytes a buffered file received, read back once it is closed.
struct ScratchFile {
  test_support::ScratchDir Dir;
  std::string Name = Dir / "packets";
  std::vector<uint8_t> Bytes() const { return test_support::ReadFile(Name); }
};

// A track of this format, not yet started.
VelmoWriterTrack TrackOf(uint32_t rate, uint32_t bits, uint32_t channels) {
  VelmoWriterTrack t{};
  t.SampleRate = rate;
  t.Bits = bits;
  t.Channels = channels;
  return t;
}

// One track written for `frames` frames: each frame's packet as it lies in the file.
struct Written {
  VelmoWriterTrack Track{};
  std::vector<std::vector<uint8_t>> Packets;
};

Written WriteTrack(const Samples& pcm, uint32_t rate, uint32_t channels, int level,
                   uint32_t frames, uint32_t num, uint32_t den, uint32_t silenceBytes = 0,
                   VelmoReadSamplesFn read = ReadMemory, uint32_t bits = 16) {
  Written w{TrackOf(rate, bits, channels), {}};
  MemorySound sound{reinterpret_cast<const uint8_t*>(pcm.data()), pcm.size() * 2, 0};
  w.Track.TrackId = 7;
  w.Track.Source = &sound;
  w.Track.ReadSamples = read;
  w.Track.SilenceBytes = silenceBytes;
  EXPECT_TRUE(VelmoWriterTrackStart(&w.Track, level, frames, num, den));
  const ScratchFile scratch;
  BufferedFile* file = FileCreate(0x10000, scratch.Name.c_str(), 0);
  EXPECT_NE(file, nullptr);
  if (!file) return w;
  std::vector<uint64_t> ends{0};
  for (uint32_t f = 0; f < frames; ++f) {
    EXPECT_TRUE(VelmoWriterSoundPacket(&w.Track, f, num, den, file));
    ends.push_back(FileTell(file));
  }
  FileClose(file);
  VelmoWriterTrackEnd(&w.Track);
  EXPECT_EQ(w.Track.Encoder, nullptr);
  const std::vector<uint8_t> bytes = scratch.Bytes();
  EXPECT_EQ(bytes.size(), ends.back());
  for (uint32_t f = 0; f < frames && ends[f + 1] <= bytes.size(); ++f)
    w.Packets.emplace_back(bytes.begin() + long(ends[f]), bytes.begin() + long(ends[f + 1]));
  return w;
}

struct Walked {
  std::vector<VelmoSoundPacket> Sounds;
  std::vector<uint32_t> RawDecoded;  // the DecodedBytes word as written
};

// Each frame must hold exactly one track packet and no video.
Walked Walk(const Written& w) {
  Walked out;
  for (const auto& p : w.Packets) {
    VelmoSoundPacket s{};
    const VelmoPacketLayout layout = VelmoWalkFramePacket(p.data(), p.size(), 1, &s);
    EXPECT_EQ(layout.TracksFound, 1u);
    EXPECT_EQ(layout.VideoSize, 0u);
    out.Sounds.push_back(s);
    uint32_t raw = 0;
    if (s.PacketSize) std::memcpy(&raw, p.data() + 4, 4);
    out.RawDecoded.push_back(raw);
  }
  return out;
}

// Decodes the track as the reader does.
Samples Decode(const Written& w, const Walked& walked) {
  std::vector<sound_check::SoundSpan> spans;
  for (size_t f = 0; f < w.Packets.size(); ++f) {
    const VelmoSoundPacket& s = walked.Sounds[f];
    if (s.PacketSize) spans.push_back({w.Packets[f].data() + s.DataOffset, s.DataSize, s.DecodedBytes});
  }
  return sound_check::DecodeSpans(w.Track.TrackFlags, w.Track.SampleRate, w.Track.Channels, spans);
}

uint64_t SumRawDecoded(const Walked& walked) {
  uint64_t sum = 0;
  for (uint32_t d : walked.RawDecoded) sum += d;
  return sum;
}

// What the reader plays: each packet's count rounded down to 16.
uint64_t ReaderBytes(const Walked& walked) {
  uint64_t sum = 0;
  for (const VelmoSoundPacket& s : walked.Sounds) sum += s.DecodedBytes;
  return sum;
}

// ---- the track's figures ----

TEST(SoundTrackStart, FlagsLeadInAndLengthFollowTheFormat) {
  VelmoWriterTrack t = TrackOf(22050, 16, 2);
  ASSERT_TRUE(VelmoWriterTrackStart(&t, 4, 50, 30000, 1001));
  EXPECT_EQ(t.TrackFlags & 0xffffu, 22050u);
  EXPECT_EQ(t.TrackFlags & 0xffff0000u, VelmoTrackCurrentForm | VelmoTrackStereo | VelmoTrackSixteenBit);
  EXPECT_EQ(t.BytesPerSecond, 22050u * 4);
  EXPECT_EQ(t.LeadInBytes, uint32_t(0.75 * 22050 * 4));
  // 50 frames at 29.97 per second, in 16-bit stereo bytes, rounded up to whole samples.
  const double seconds = 50 * 1001.0 / 30000;
  EXPECT_EQ(t.BytesLeft, (uint32_t(std::floor(seconds * 88200)) + 3) & ~3u);
  EXPECT_EQ(t.BytesLeft % 4, 0u);
  EXPECT_EQ(t.BytesDone, 0u);
  EXPECT_EQ(t.MaxDecodedBytes, 0u);
  EXPECT_EQ(t.Quality, 4u);
  EXPECT_EQ(t.InputBytes * 10, t.OutputBytes * 45);  // 4.5 to 1 before any sound
  VelmoWriterTrackEnd(&t);

  // The older form from level 100 on, the level taken modulo 100; mono and 8-bit clear their bits.
  VelmoWriterTrack old = TrackOf(11025, 8, 1);
  ASSERT_TRUE(VelmoWriterTrackStart(&old, 137, 10, 15, 1));
  EXPECT_EQ(old.TrackFlags, 11025u | VelmoTrackOlderForm);
  EXPECT_EQ(old.Quality, 37u);
  EXPECT_EQ(old.BytesLeft, 11025u * 2 * 10 / 15);
  VelmoWriterTrackEnd(&old);
  VelmoWriterTrackEnd(&old);  // twice is harmless
}

TEST(SoundTrackStart, RefusesWhatTheEncoderCannotTake) {
  VelmoWriterTrack t = TrackOf(22050, 16, 2), three = TrackOf(22050, 16, 3),
                   none = TrackOf(0, 16, 1);
  EXPECT_FALSE(VelmoWriterTrackStart(&t, 200, 10, 30, 1));
  EXPECT_FALSE(VelmoWriterTrackStart(&t, -1, 10, 30, 1));
  EXPECT_FALSE(VelmoWriterTrackStart(&t, 4, 10, 0, 1));
  EXPECT_FALSE(VelmoWriterTrackStart(&three, 4, 10, 30, 1));
  EXPECT_FALSE(VelmoWriterTrackStart(&none, 4, 10, 30, 1));
}

// ---- packets ----

struct RoundTripCase {
  uint32_t Rate, Channels;
  int Level;
  uint32_t Num, Den;
  double MinSnr;
};

class SoundTrackRoundTrip : public ::testing::TestWithParam<RoundTripCase> {};

TEST_P(SoundTrackRoundTrip, PacketsDecodeBackAheadOfThePicture) {
  const RoundTripCase c = GetParam();
  // 1.4 seconds of video with exactly as much sound.
  const uint32_t frames = uint32_t(1.4 * c.Num / c.Den);
  const size_t samples = size_t(uint64_t(c.Rate) * frames * c.Den / c.Num);
  const Samples music = audio_test::Music(c.Rate, c.Channels, samples);
  const Written w = WriteTrack(music, c.Rate, c.Channels, c.Level, frames, c.Num, c.Den);
  ASSERT_EQ(w.Packets.size(), frames);
  const Walked walked = Walk(w);
  const uint32_t bps = c.Rate * c.Channels * 2;

  // Frame 0 carries the lead-in of three quarters of a second, and not a block more.
  VelmoAudioEncoder* e = VelmoAudioEncoderOpen(c.Rate, c.Channels, c.Level < 100);
  const uint32_t blockStep = VelmoAudioEncoderBlockBytes(e) - VelmoAudioEncoderOverlapBytes(e);
  VelmoAudioEncoderClose(e);
  const uint32_t leadIn = uint32_t(0.75 * bps);
  EXPECT_GE(walked.RawDecoded[0], leadIn);
  EXPECT_LT(walked.RawDecoded[0], leadIn + blockStep);

  // Up to each frame, the sound written covers the frame's time plus the lead-in, or all of it.
  // The track's length is the video's time in bytes, rounded up to whole 16-bit stereo samples.
  const uint64_t total = (uint64_t(bps) * frames * c.Den / c.Num + 3) & ~uint64_t(3);
  uint64_t done = 0;
  uint32_t largest = 0, lastWithSound = 0;
  for (uint32_t f = 0; f < frames; ++f) {
    done += walked.RawDecoded[f];
    const uint64_t due = uint64_t(bps) * f * c.Den / c.Num + leadIn;
    EXPECT_GE(done, std::min(due, total)) << "frame " << f;
    largest = std::max(largest, walked.RawDecoded[f]);
    if (walked.Sounds[f].PacketSize) lastWithSound = f;
    // A frame without sound is the single zero word.
    if (!walked.Sounds[f].PacketSize) {
      EXPECT_EQ(w.Packets[f].size(), 4u);
    }
    // Whole blocks: every count but the sound's last is a multiple of 16 as the reader wants.
    if (done < total) {
      EXPECT_EQ(walked.RawDecoded[f] % 16, 0u);
    }
  }
  EXPECT_EQ(done, total);
  EXPECT_EQ(w.Track.BytesDone, total);
  EXPECT_EQ(w.Track.BytesLeft, 0u);
  EXPECT_EQ(w.Track.MaxDecodedBytes, largest);
  // The last 0.75 seconds of picture have no sound left to carry.
  EXPECT_LT(lastWithSound + uint32_t(0.7 * c.Num / c.Den), frames);

  // The running ratio counts the coded bytes that went into the file.
  uint64_t coded = 0;
  for (const auto& s : walked.Sounds) coded += s.DataSize;
  EXPECT_EQ(w.Track.OutputBytes, coded + 10);
  EXPECT_GE(w.Track.InputBytes, total + 45);

  const Samples decoded = Decode(w, walked);
  EXPECT_EQ(decoded.size() * 2, ReaderBytes(walked));
  EXPECT_GT(audio_test::Snr(music, decoded), c.MinSnr);
}

INSTANTIATE_TEST_SUITE_P(Formats, SoundTrackRoundTrip,
                         ::testing::Values(RoundTripCase{22050, 1, 0, 30, 1, 26},
                                           RoundTripCase{44100, 2, 4, 30000, 1001, 20},
                                           RoundTripCase{11025, 2, 100, 25, 2, 24},
                                           RoundTripCase{8000, 1, 0, 15, 1, 24}));

TEST(SoundTrackPackets, ShortSourceGoesOnAsSilenceToTheVideoLength) {
  const uint32_t rate = 22050, frames = 30;  // one second at 30 per second
  const Samples music = audio_test::Music(rate, 1, rate / 4);
  const Written w = WriteTrack(music, rate, 1, 0, frames, 30, 1, 0, ReadMemoryInBits);
  const Walked walked = Walk(w);
  EXPECT_EQ(SumRawDecoded(walked), uint64_t(rate) * 2);
  const Samples decoded = Decode(w, walked);
  ASSERT_EQ(decoded.size() * 2, ReaderBytes(walked));
  ASSERT_GE(decoded.size(), size_t(rate - 8));
  EXPECT_GT(audio_test::Snr(music, decoded), 24);
  // Past the source and the blocks' fades there is nothing but silence.
  double energy = 0;
  for (size_t i = music.size() + 2048; i < decoded.size(); ++i) energy += double(decoded[i]) * decoded[i];
  EXPECT_LT(energy / double(decoded.size() - music.size() - 2048), 4.0);
}

TEST(SoundTrackPackets, SilencePrefixComesBeforeTheSource) {
  const uint32_t rate = 11025, frames = 20;  // 1.33 seconds at 15 per second
  const uint32_t silence = rate / 5 * 2;     // 0.2 seconds
  const Samples music = audio_test::Music(rate, 1, rate);
  const Written w = WriteTrack(music, rate, 1, 0, frames, 15, 1, silence);
  EXPECT_EQ(w.Track.SilenceBytes, 0u);
  const Samples decoded = Decode(w, Walk(w));
  ASSERT_GT(decoded.size(), music.size() + silence / 2);
  Samples shifted(silence / 2, 0);
  shifted.insert(shifted.end(), music.begin(), music.end());
  EXPECT_GT(audio_test::Snr(shifted, decoded), 24);
  // Against the unshifted source it is no match at all.
  EXPECT_LT(audio_test::Snr(music, decoded), 3);
}

TEST(SoundTrackPackets, EightBitTracksCountHalfTheInput) {
  const uint32_t rate = 11025, frames = 15;
  const Samples music = audio_test::Music(rate, 1, rate);
  const Written sixteen = WriteTrack(music, rate, 1, 4, frames, 15, 1);
  const Written eight = WriteTrack(music, rate, 1, 4, frames, 15, 1, 0, ReadMemory, 8);
  EXPECT_EQ(eight.Track.OutputBytes, sixteen.Track.OutputBytes);
  EXPECT_EQ((eight.Track.InputBytes - 45) * 2, sixteen.Track.InputBytes - 45);
  EXPECT_EQ(eight.Packets, sixteen.Packets);
}

TEST(SoundTrackPackets, TrackWithoutEncoderOrSoundWritesTheEmptyWord) {
  const ScratchFile scratch;
  BufferedFile* file = FileCreate(0x10000, scratch.Name.c_str(), 0);
  ASSERT_NE(file, nullptr);
  VelmoWriterTrack none = TrackOf(22050, 16, 1);  // never started: no encoder
  EXPECT_TRUE(VelmoWriterSoundPacket(&none, 0, 30, 1, file));
  // A started track over a source with nothing in it: the length is still written, as silence.
  VelmoWriterTrack empty = none;
  MemorySound nothing{nullptr, 0, 0};
  empty.Source = &nothing;
  empty.ReadSamples = ReadMemory;
  ASSERT_TRUE(VelmoWriterTrackStart(&empty, 4, 3, 30, 1));
  const uint32_t length = empty.BytesLeft;
  for (uint32_t f = 0; f < 3; ++f) EXPECT_TRUE(VelmoWriterSoundPacket(&empty, f, 30, 1, file));
  EXPECT_EQ(empty.BytesDone, length);
  VelmoWriterTrackEnd(&empty);
  const uint64_t size = FileTell(file);
  FileClose(file);
  const std::vector<uint8_t> bytes = scratch.Bytes();
  ASSERT_EQ(bytes.size(), size);
  ASSERT_GE(bytes.size(), 4u + 8u + 4u + 4u);
  // The first frame's packet carries the whole tenth of a second; the next two are empty.
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 4), std::vector<uint8_t>(4, 0));
  EXPECT_EQ(std::vector<uint8_t>(bytes.end() - 8, bytes.end()), std::vector<uint8_t>(8, 0));
  VelmoSoundPacket s{};
  const VelmoPacketLayout layout =
      VelmoWalkFramePacket(bytes.data() + 4, bytes.size() - 12, 1, &s);
  EXPECT_EQ(layout.TracksFound, 1u);
  EXPECT_EQ(layout.VideoSize, 0u);
  EXPECT_EQ(s.DecodedBytes, length & ~15u);
}

}  // namespace
