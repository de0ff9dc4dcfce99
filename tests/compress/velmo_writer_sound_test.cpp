// The output writer with sound tracks: track tables at every checkpoint and at the close,
// packets before each frame's video, the largest frame with its sound, the sound's share of
// the data rate, and files that the reader's parsing and the frame decoder take whole.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "compress/velmo_sound_track.h"
#include "compress_test_util.h"

namespace {

using audio_test::Samples;
using sound_check::MemorySound;

using test_support::ScratchDir;

// What the growing file showed at each "Compressing" label: frames against those the writer
// had written, and the first track's table entries against the largest decoded count of the
// frames written by then.
struct Observed {
  std::string Path;
  std::vector<uint32_t> Frames, Written, TableMax, LargestSoFar, Formats, Ids;
};

// A file taken apart by frames: the video sections, the largest frame, and of track `track` the
// DecodedBytes words as written and the sound spans that the reader decodes.
struct FrameParts {
  uint64_t VideoBytes = 0, SoundBytes = 0, RawSum = 0;
  uint32_t LargestFrame = 0, LargestRaw = 0;
  std::vector<sound_check::SoundSpan> Spans;
};

FrameParts Split(const Velmo1FileCheck& c, uint32_t track = 0) {
  FrameParts parts;
  for (uint32_t f = 0; f < c.Info.Header.Frames; ++f) {
    const uint64_t start = VelmoEntryOffset(c.Offsets[f]), end = VelmoEntryOffset(c.Offsets[f + 1]);
    std::vector<VelmoSoundPacket> s(c.Info.TrackCount);
    const VelmoPacketLayout layout = VelmoWalkFramePacket(
        c.Bytes.data() + start, size_t(end - start), c.Info.TrackCount, s.data());
    EXPECT_TRUE(layout.HasVideo) << f;
    parts.VideoBytes += layout.VideoSize;
    parts.LargestFrame = std::max(parts.LargestFrame, uint32_t(end - start));
    if (track < c.Info.TrackCount && s[track].PacketSize) {
      parts.Spans.push_back({c.Bytes.data() + start + s[track].DataOffset, s[track].DataSize,
                             s[track].DecodedBytes});
      parts.SoundBytes += s[track].DataSize;
      uint32_t raw;
      std::memcpy(&raw, c.Bytes.data() + start + s[track].Offset + 4, 4);
      parts.RawSum += raw;
      parts.LargestRaw = std::max(parts.LargestRaw, raw);
    }
  }
  return parts;
}

int Watch(uint32_t kind, VelmoWriter* w, const char*) {
  Observed* o = static_cast<Observed*>(w->UserData);
  if (kind != VelmoProgressLabel || !o) return 0;
  Velmo1FileCheck check;
  if (Velmo1CheckOpen(o->Path.c_str(), &check) != nullptr) return 0;
  const VelmoTrackInfo t = VelmoTableTrack(check.Info.Tables, 0);
  o->Frames.push_back(check.Info.Header.Frames);
  o->Written.push_back(w->FramesWritten);
  EXPECT_EQ(Velmo1CheckDecode(check, nullptr, nullptr), check.Info.Header.Frames);  // playable
  o->TableMax.push_back(t.MaxBytes);
  o->LargestSoFar.push_back(Split(check).LargestRaw);
  o->Formats.push_back(t.Format);
  o->Ids.push_back(t.Id);
  return 0;
}

struct Clip {
  uint64_t Size = 0;
  VelmoWriterTrack Tracks[2]{};
  uint32_t TrackFlags[2]{};
};

// Writes `frames` frames of 48 x 32 at 12 a second with `trackCount` tracks of music: track t
// at 22050 Hz mono (t = 0) or 11025 Hz stereo (t = 1), ids 40 + t.
Clip WriteClip(const std::string& out, uint32_t frames, uint32_t trackCount,
              const Samples* music, Observed* observed = nullptr) {
  Clip r;
  MemorySound sounds[2];
  for (uint32_t t = 0; t < trackCount; ++t) {
    sounds[t] = {reinterpret_cast<const uint8_t*>(music[t].data()), music[t].size() * 2, 0};
    VelmoWriterTrack& k = r.Tracks[t];
    k.TrackId = 40 + t;
    k.SampleRate = t ? 11025 : 22050;
    k.Bits = 16;
    k.Channels = t + 1;
    k.Source = &sounds[t];
    k.ReadSamples = sound_check::ReadMemory;
    EXPECT_TRUE(VelmoWriterTrackStart(&k, t ? 104 : 0, frames, 12, 1));
    r.TrackFlags[t] = k.TrackFlags;
  }
  compress_test::TestCompression c;
  EXPECT_TRUE(c.Open(out, 101, 48, 32, frames, 4, observed ? Watch : nullptr, observed, trackCount,
                     r.Tracks, 12));
  if (!c.Writer) return r;
  if (observed) {
    observed->Path = out + ".tmp";
    c.Writer->CheckpointBytes = 1;  // a checkpoint after every frame
    c.Writer->NextCheckpointBytes = c.Writer->FileSize + 1;
  }
  c.Feed(0, frames, 2000, 6000);
  r.Size = c.Close(false);
  for (uint32_t t = 0; t < trackCount; ++t) EXPECT_EQ(r.Tracks[t].Encoder, nullptr);
  return r;
}

TEST(VelmoWriterSound, TwoTracksInTablesPacketsAndTheLargestFrame) {
  const ScratchDir dir;
  const std::string out = dir / "two.vlm";
  const uint32_t frames = 18;  // 1.5 seconds
  const Samples music[2] = {audio_test::Music(22050, 1, 33075),
                            audio_test::Music(11025, 2, 16538)};
  const Clip r = WriteClip(out, frames, 2, music);
  ASSERT_GT(r.Size, 0u);
  // The video decodes past the sound packets.
  const Velmo1FileCheck check = compress_test::Played(out);
  ASSERT_EQ(check.Info.TrackCount, 2u);
  EXPECT_EQ(check.Info.Header.Frames, frames);
  for (uint32_t t = 0; t < 2; ++t) {
    const VelmoTrackInfo info = VelmoTableTrack(check.Info.Tables, t);
    EXPECT_EQ(info.Id, 40 + t);
    EXPECT_EQ(info.Format, r.TrackFlags[t]);
    EXPECT_EQ(info.Format & VelmoTrackRateMask, t ? 11025u : 22050u);
    EXPECT_EQ(bool(info.Format & VelmoTrackStereo), t == 1);
    EXPECT_EQ(VelmoTrackIsCurrentForm(info.Format), t == 0);
    const FrameParts parts = Split(check, t);
    EXPECT_EQ(info.MaxBytes, parts.LargestRaw);
    EXPECT_EQ(check.Info.Header.LargestFrameSize, parts.LargestFrame);
    const uint32_t rate = t ? 11025 : 22050, channels = t + 1;
    EXPECT_EQ(parts.RawSum, (uint64_t(rate) * channels * 2 * frames / 12 + 3) & ~uint64_t(3));
    const Samples decoded = sound_check::DecodeSpans(info.Format, rate, channels, parts.Spans);
    EXPECT_GT(audio_test::Snr(music[t], decoded), t ? 24 : 26);
  }
}

// Before each frame is encoded, the file on disk holds exactly the frames written so far (from
// the first checkpoint on), they decode, and the track table holds their figures.
TEST(VelmoWriterSound, CheckpointsKeepTheGrowingFilePlayable) {
  const ScratchDir dir;
  const std::string out = dir / "grow.vlm";
  const Samples music[1] = {audio_test::Music(22050, 1, 22050)};
  Observed seen;
  const Clip r = WriteClip(out, 12, 1, music, &seen);
  EXPECT_FALSE(test_support::Exists(out + ".tmp"));
  const Velmo1FileCheck check = compress_test::Played(out);
  EXPECT_EQ(check.Info.Header.Frames, 12u);
  EXPECT_TRUE(VelmoEntryIsKey(check.Offsets[0]));
  ASSERT_GE(seen.Frames.size(), 8u);
  for (size_t i = 0; i < seen.Frames.size(); ++i) {
    EXPECT_EQ(seen.Frames[i], seen.Written[i]) << i;
    EXPECT_EQ(seen.TableMax[i], seen.LargestSoFar[i]) << "at " << seen.Frames[i] << " frames";
    EXPECT_EQ(seen.Formats[i], r.TrackFlags[0]);
    EXPECT_EQ(seen.Ids[i], 40u);
  }
  // The largest count grows: frame 0's lead-in first, then no packet is as large.
  EXPECT_GT(seen.TableMax.back(), 0u);
}

// The sound's bytes come out of the frames' shares: with the same targets, the video of a
// file with sound is smaller, by about what the sound takes.
TEST(VelmoWriterSound, SoundTakesItsShareOfTheRate) {
  const ScratchDir dir;
  const std::string silent = dir / "silent.vlm", loud = dir / "loud.vlm";
  const uint32_t frames = 12;
  const Samples music[1] = {audio_test::Music(22050, 1, 22050)};
  WriteClip(silent, frames, 0, nullptr);
  WriteClip(loud, frames, 1, music);
  Velmo1FileCheck a, b;
  ASSERT_EQ(Velmo1CheckOpen(silent.c_str(), &a), nullptr);
  ASSERT_EQ(Velmo1CheckOpen(loud.c_str(), &b), nullptr);
  const FrameParts withoutSound = Split(a), withSound = Split(b);
  ASSERT_GT(withSound.SoundBytes, 0u);
  EXPECT_LT(withSound.VideoBytes, withoutSound.VideoBytes);
  EXPECT_LT(withoutSound.VideoBytes - withSound.VideoBytes, withSound.SoundBytes * 2);
}

TEST(VelmoWriterSound, OpenRefusesTrackTablesItCannotWrite) {
  const ScratchDir dir;
  const std::string out = dir / "x.vlm";
  VelmoWriterTrack tracks[1]{};
  EXPECT_EQ(VelmoWriterOpen(out.c_str(), 0, 101, 64, 48, 4, 0, nullptr, 24, 1, 1, nullptr, 10000,
                            nullptr, nullptr, nullptr),
            nullptr);
  EXPECT_EQ(VelmoWriterOpen(out.c_str(), 0, 101, 64, 48, 4, 0, nullptr, 24, 1, 257, tracks, 10000,
                            nullptr, nullptr, nullptr),
            nullptr);
  EXPECT_FALSE(test_support::Exists(out + ".tmp"));
}

}  // namespace
