// Sound tracks of the reader library: decoded into caller memory, and while playing: tracks
// opened by id, the rings, the feeding of a device (the null back end, on the tests' clock),
// switching sound off and on, the device's speed in the frame clock, underrun restarts, the
// sound thread and the host's tick, and speaker volumes.
#include "reader/velmo_sound.h"
#include "reader/velmo_sound_null.h"
#include "sound_test_files.h"
#include "support/files.h"
#include "velmo_test_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using namespace velmo_test;
using namespace sound_test;

class TrackReaderTest : public VelmoTest {};

// Every frame's data in order, as a converter takes it.
std::vector<uint8_t> ReadAllFrames(HVELMO h, VelmoTrackReader* t, uint32_t room,
                                   std::vector<uint32_t>* perFrame = nullptr) {
  std::vector<uint8_t> all;
  std::vector<uint8_t> buffer(room);
  for (uint32_t f = 1; f <= h->Frames; ++f) {
    EXPECT_EQ(h->FrameNum, f);
    const uint32_t got = VelmoGetTrackData(t, buffer.data(), room);
    if (perFrame) perFrame->push_back(got);
    all.insert(all.end(), buffer.begin(), buffer.begin() + got);
    VelmoNextFrame(h);
  }
  return all;
}

TEST_F(TrackReaderTest, DecodesEachTrackLikeTheCodecAlone) {
  // Two tracks of different shape: a stereo track of the current form and a mono track of the
  // older form, with two blocks of lead so that some frames carry no sound at all.
  const SoundFile sf = BuildSoundFile(14, 30, 1,
                                      {{22050, 2, false, 7, 1, 0}, {16000, 1, true, 3, 2, 0}});
  HVELMO h = OpenImage(sf.File, VelmoOpenNoBuffers);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  ASSERT_EQ(h->TrackCount, 2u);
  EXPECT_EQ(VelmoGetTrackId(h, 0), 7u);
  EXPECT_EQ(VelmoGetTrackId(h, 1), 3u);
  EXPECT_EQ(VelmoGetTrackFormat(h, 1), sf.Streams[1].Format);
  EXPECT_EQ(VelmoGetTrackFormat(h, 2), 0u);

  for (uint32_t index = 0; index < 2; ++index) {
    SCOPED_TRACE(index);
    const TrackStream& s = sf.Streams[index];
    VelmoGoto(h, 1, VelmoGotoExact | VelmoGotoDirect);
    VelmoTrackReader* t = VelmoOpenTrack(h, index);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(VelmoTrackReaderRate(t), s.Format & 0xFFFF);
    EXPECT_EQ(VelmoTrackReaderChannels(t), index == 0 ? 2u : 1u);
    const uint32_t room = VelmoTrackReaderBufferSize(t);
    EXPECT_EQ(room, ((h->TrackMaxBytes[index] + 3) & ~3u) + 8192 + s.BlockBytes / 16);
    EXPECT_GE(room, s.MaxDecoded);

    std::vector<uint32_t> perFrame;
    const std::vector<uint8_t> all = ReadAllFrames(h, t, room, &perFrame);
    const std::vector<uint8_t> direct = DecodeFrames(s, 0, uint32_t(s.Packets.size()));
    ASSERT_EQ(all.size(), direct.size());
    EXPECT_TRUE(all == direct);
    bool sawEmpty = false;
    for (uint32_t f = 0; f < perFrame.size(); ++f) {
      EXPECT_EQ(perFrame[f], s.Packets[f].empty() ? 0u : s.Decoded[f]) << "frame " << f + 1;
      sawEmpty = sawEmpty || s.Packets[f].empty();
    }
    // The stereo track's blocks are longer than a frame: some frames carry none, and the
    // decoder must join the blocks across them.
    if (index == 0) {
      EXPECT_TRUE(sawEmpty);
    }
    VelmoCloseTrack(t);
  }
  VelmoClose(h);
}

TEST_F(TrackReaderTest, JumpStartsAfreshAndSmallBuffersTakeAPrefix) {
  const SoundFile sf = BuildSoundFile(10, 25, 1, {{44100, 2, false, 0, 1, 0}});
  const TrackStream& s = sf.Streams[0];
  ProviderOpen provider;  // through a provider: the packet is read on demand
  HVELMO h = provider.Open(sf.File, VelmoOpenNoBuffers);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  VelmoTrackReader* t = VelmoOpenTrack(h, 0);
  ASSERT_NE(t, nullptr);
  std::vector<uint8_t> buffer(VelmoTrackReaderBufferSize(t));

  // Frame 6 after a jump decodes as the codec does from a fresh start at that frame.
  uint32_t frame = 6;
  while (s.Packets[frame - 1].empty()) ++frame;
  VelmoGoto(h, frame, VelmoGotoExact | VelmoGotoDirect);
  ASSERT_EQ(h->FrameNum, frame);
  uint32_t got = VelmoGetTrackData(t, buffer.data(), uint32_t(buffer.size()));
  EXPECT_EQ(std::vector<uint8_t>(buffer.begin(), buffer.begin() + got),
            DecodeFrames(s, frame - 1, frame));

  // Less room than the frame's sound: the first bytes of it, no more.
  VelmoGoto(h, frame, VelmoGotoExact | VelmoGotoDirect);  // the current frame: stays
  VelmoGoto(h, 1, VelmoGotoExact | VelmoGotoDirect);
  const std::vector<uint8_t> whole = DecodeFrames(s, 0, 1);
  ASSERT_GT(whole.size(), 100u);
  std::vector<uint8_t> small(100 + 16, 0xEE);
  got = VelmoGetTrackData(t, small.data(), 100);
  EXPECT_EQ(got, 100u);
  EXPECT_TRUE(std::equal(small.begin(), small.begin() + 100, whole.begin()));
  EXPECT_EQ(small[100], 0xEE);  // nothing written past the room given
  EXPECT_EQ(VelmoGetTrackData(t, nullptr, 100), 0u);
  EXPECT_EQ(VelmoGetTrackData(t, small.data(), 0), 0u);
  VelmoCloseTrack(t);
  VelmoClose(h);
}

TEST_F(TrackReaderTest, RefusesTracksItCannotDecode) {
  const SoundFile sf =
      BuildSoundFile(3, 30, 1, {{22050, 1, false, 5, 1, 0x90000000u}, {22050, 1, false, 6, 1, 0}});
  HVELMO h = OpenImage(sf.File, VelmoOpenNoBuffers);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  EXPECT_EQ(VelmoOpenTrack(h, 0), nullptr);  // neither coding bit
  EXPECT_EQ(VelmoOpenTrack(h, 2), nullptr);  // no such track
  EXPECT_EQ(VelmoOpenTrack(nullptr, 0), nullptr);
  VelmoTrackReader* t = VelmoOpenTrack(h, 1);
  ASSERT_NE(t, nullptr);
  // The unusable track's packet still sits in front: track 1 is found behind it.
  std::vector<uint8_t> buffer(VelmoTrackReaderBufferSize(t));
  const uint32_t got = VelmoGetTrackData(t, buffer.data(), uint32_t(buffer.size()));
  EXPECT_EQ(std::vector<uint8_t>(buffer.begin(), buffer.begin() + got),
            DecodeFrames(sf.Streams[1], 0, 1));
  VelmoCloseTrack(t);
  VelmoCloseTrack(nullptr);
  EXPECT_EQ(VelmoTrackReaderRate(nullptr), 0u);
  VelmoClose(h);
}

// The most bytes one frame decodes to sizes the caller's buffer: a table that claims more than
// the frame's time of samples (with a second of room) is damage, and the track is refused
// rather than costing gigabytes of buffer.
TEST_F(TrackReaderTest, RefusesATrackWhoseFrameSizeCannotBeTrue) {
  const SoundFile sf = BuildSoundFile(3, 30, 1, {{22050, 1, false, 0, 1, 0}});
  VelmoHeader header{};
  ASSERT_TRUE(VelmoParseHeader(sf.File.data(), sf.File.size(), &header));
  // TrackMaxBytes is the first table, behind the header and its extras.
  const size_t at = VelmoHeaderSize + VelmoExtrasSize(header.Magic, header.Flags);
  const uint32_t honest = test_support::Le32(sf.File, at);
  ASSERT_GT(honest, 0u);
  // 30 frames a second: a frame's time rounds up to one second, and one more is allowed.
  const uint32_t claims[] = {honest, 2 * 22050 * 2, 2 * 22050 * 2 + 1, 0xFFFFFFFFu};
  const bool refused[] = {false, false, true, true};
  for (size_t i = 0; i < 4; ++i) {
    std::vector<uint8_t> file = sf.File;
    Store32(&file, at, claims[i]);
    HVELMO h = OpenImage(file, VelmoOpenNoBuffers);
    ASSERT_NE(h, nullptr) << VelmoGetError();
    VelmoTrackReader* t = VelmoOpenTrack(h, 0);
    EXPECT_EQ(t == nullptr, refused[i]) << claims[i];
    if (t) {
      EXPECT_GE(VelmoTrackReaderBufferSize(t), claims[i]);
    }
    VelmoCloseTrack(t);
    VelmoClose(h);
  }
}

// ---------------------------------------------------------------------------------------------
// Playing.

class SoundPlayTest : public VelmoTest {
 protected:
  VelmoNullSoundConfig Config;

  void SetUp() override {
    VelmoTest::SetUp();
    FreshConfig();
    ASSERT_EQ(VelmoSetSoundSystem(VelmoNullSoundSelect, uintptr_t(&Config)), 1u);
  }
  // The null back end's settings and logs as new, on the tests' clock.
  void FreshConfig() {
    Config = VelmoNullSoundConfig{};
    Config.Clock = FakeClock;
  }
  void TearDown() override {
    VelmoSetSoundSystem(nullptr, 0);
    VelmoTest::TearDown();
  }

  HVELMO Open(const std::vector<uint8_t>& file, const std::vector<uint32_t>& ids,
              uint32_t flags = VelmoOpenNoBuffers, uint32_t rate = 0, uint32_t rateDiv = 1) {
    VelmoOpenOptions o{};
    o.ImageSize = file.size();
    o.TrackCount = uint32_t(ids.size());
    o.TrackIds = ids.data();
    o.ForcedRate = rate;
    o.ForcedRateDiv = rateDiv;
    if (rate) flags |= VelmoOpenForceRate;
    return VelmoOpenWithOptions(reinterpret_cast<const char*>(file.data()), &o,
                                flags | VelmoOpenImage | VelmoOpenTrackList);
  }
};

// The n-th frame played (from 1) is due at this time of the tests' clock at fps / 1.
uint32_t FrameTime(uint32_t n, uint32_t fps) { return 1000 + (n - 1) * 1000 / fps; }

// Plays the selected frame as a player does: its time comes, it is decoded, the next is chosen.
void PlayFrame(HVELMO h, uint32_t fps) {
  FakeNow = FrameTime(VelmoStateOf(h)->FramesPlayed + 1, fps);
  VelmoWait(h);
  VelmoDoFrame(h);
  VelmoNextFrame(h);
}

uint32_t Held(const VelmoTrack& t) {
  const int64_t d = t.RingWrite - t.RingRead;
  return uint32_t(d < 0 ? d + t.RingSize : d);
}

// The `count` bytes in front of RingWrite.
std::vector<uint8_t> RingTail(const VelmoTrack& t, uint32_t count) {
  std::vector<uint8_t> out(count);
  const uint8_t* at = t.RingWrite;
  for (uint32_t i = count; i-- > 0;) {
    at = at == t.RingStart ? t.RingEnd - 1 : at - 1;
    out[i] = *at;
  }
  return out;
}

TEST_F(SoundPlayTest, DeviceHearsWhatTheCodecDecodesAndTheLastBytesGoOut) {
  // 60 frames: EndFrame is 60 - 22 = 38. The device takes whole 1024-byte blocks before it.
  const SoundFile sf = BuildSoundFile(60, 30, 1, {{22050, 1, false, 0, 3, 0}});
  const std::vector<uint8_t> direct = DecodeFrames(sf.Streams[0], 0, 60);
  ASSERT_NE(direct.size() % 1024, 0u);  // so the end must hand out a short piece
  std::vector<uint8_t> capture(direct.size() + 4096);
  Config.DeviceBlock = 1024;
  Config.BlockMask = ~1023u;
  Config.Latency = 400;
  Config.Logs[0].Capture = capture.data();
  Config.Logs[0].CaptureSize = uint32_t(capture.size());

  HVELMO h = Open(sf.File, {0});
  ASSERT_NE(h, nullptr) << VelmoGetError();
  ASSERT_EQ(h->OpenTracks, 1u);
  EXPECT_EQ(h->SoundOn, 1u);
  const VelmoTrack& t = h->Tracks[0];
  EXPECT_EQ(t.EndFrame, 38u);
  EXPECT_EQ(t.FileRate, 22050u);
  EXPECT_EQ(t.OutputRate, 22050u);
  EXPECT_EQ(t.RingSize, (h->TrackMaxBytes[0] * 5 / 4 + 255) & ~255u);
  // (750 - 400) ms of 22050 Hz mono, held below the ring's size.
  EXPECT_EQ(t.Prefill, std::min<uint32_t>((350 * 22050 * 2 / 1000) & ~63u, t.RingSize - 16));

  for (uint32_t f = 1; f <= 60; ++f) {
    EXPECT_EQ(h->FrameNum, f);
    PlayFrame(h, 30);
  }
  const VelmoNullSoundLog& log = Config.Logs[0];
  EXPECT_EQ(log.Received, direct.size());
  EXPECT_TRUE(std::equal(direct.begin(), direct.end(), capture.begin()));
  EXPECT_EQ(log.ShortEarly, 0u);   // before EndFrame only whole device blocks
  EXPECT_GE(log.ShortUnlocks, 1u); // and the remainder after it
  EXPECT_EQ(log.Underruns, 0u);
  VelmoSummary summary;
  VelmoGetSummary(h, &summary);
  EXPECT_EQ(summary.SoundSkips, 0u);
  VelmoClose(h);
  EXPECT_EQ(log.Closed, 1u);
}

// The tracks opened, by index, for the ids asked: each once, in the order asked; an id not in
// the file, a track of neither coding form, no back end or one that refuses its open leave
// tracks out, and the file plays silent without an error.
TEST_F(SoundPlayTest, AskedIdsOpenOnceInOrderAndUnusableOrMissingOnesAreSkipped) {
  const SoundFile sf = BuildSoundFile(4, 30, 1,
                                      {{22050, 1, false, 5, 1, 0},
                                       {22050, 2, false, 3, 1, 0},
                                       {22050, 1, false, 8, 1, 0x90000000u}});
  const struct {
    std::vector<uint32_t> Ids;
    int BackEnd;  // 1 the null one, 0 none, -1 one that refuses its open
    std::vector<uint32_t> Opened;
  } cases[] = {{{5, 5, 77, 3, 8}, 1, {0, 1}},
               {{3, 5}, 1, {1, 0}},
               {{8}, 1, {}},
               {{5}, 0, {}},
               {{5, 3}, -1, {}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.Ids) + " " + std::to_string(c.BackEnd));
    FreshConfig();
    Config.RefuseOpen = c.BackEnd < 0;
    VelmoSetSoundSystem(c.BackEnd ? VelmoNullSoundSelect : nullptr, uintptr_t(&Config));
    HVELMO h = Open(sf.File, c.Ids);
    ASSERT_NE(h, nullptr) << VelmoGetError();
    EXPECT_STREQ(VelmoGetError(), "");
    EXPECT_EQ(std::vector<uint32_t>(h->TrackIndexes, h->TrackIndexes + h->OpenTracks), c.Opened);
    EXPECT_EQ(Config.TracksOpened, c.BackEnd > 0 ? c.Opened.size() : 0u);
    EXPECT_EQ(h->SoundOn, c.Opened.empty() ? 0u : 1u);
    EXPECT_EQ(VelmoSetSoundOn(h, 1), c.Opened.empty() ? 0u : 1u);
    for (uint32_t t = 0; t < h->OpenTracks; ++t)
      EXPECT_EQ(h->Tracks[t].Channels, h->TrackIndexes[t] == 1 ? 2u : 1u);
    PlayFrame(h, 30);
    EXPECT_EQ(h->FrameNum, 2u);
    VelmoClose(h);
  }
}

TEST_F(SoundPlayTest, TheStoredTrackListIsCappedAndServesOneOpenThenTrackZeroAgain) {
  const SoundFile sf = BuildSoundFile(3, 30, 1,
                                      {{22050, 1, false, 0, 1, 0}, {22050, 1, false, 3, 1, 0},
                                       {22050, 1, false, 5, 1, 0}});
  // Only the first 32 ids are kept: id 0, asked in place 36, is not opened.
  std::vector<uint32_t> ids(40, 99);
  ids[0] = 5;
  ids[1] = 3;
  ids[2] = 5;
  ids[35] = 0;
  VelmoSetSoundTracks(uint32_t(ids.size()), ids.data());
  const char* image = reinterpret_cast<const char*>(sf.File.data());
  HVELMO h = VelmoOpen(image, VelmoOpenImage | VelmoOpenNoBuffers);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  EXPECT_NE(h->OpenFlags & VelmoOpenTrackList, 0u);
  ASSERT_EQ(h->OpenTracks, 2u);
  EXPECT_EQ(h->TrackIndexes[0], 2u);
  EXPECT_EQ(h->TrackIndexes[1], 1u);
  VelmoClose(h);
  h = VelmoOpen(image, VelmoOpenImage | VelmoOpenNoBuffers);  // the list went back to id 0
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->OpenFlags & VelmoOpenTrackList, 0u);
  ASSERT_EQ(h->OpenTracks, 1u);
  EXPECT_EQ(h->TrackIndexes[0], 0u);
  VelmoClose(h);
}

TEST_F(SoundPlayTest, ForcedFrameRateScalesTheOutputRateUpTo256000) {
  const SoundFile sf =
      BuildSoundFile(3, 30, 1, {{22050, 1, false, 1, 1, 0}, {48000, 2, false, 2, 1, 0}});
  const uint32_t cases[][4] = {// the forced rate and divisor, the output rates of both tracks
                               {60, 1, 44100, 96000},
                               {240, 1, 176400, 256000},  // 384000 is held at the limit
                               {45, 2, 16537, 36000}};    // 22.5 frames a second
  for (const auto& [rate, div, first, second] : cases) {
    HVELMO h = Open(sf.File, {1, 2}, VelmoOpenNoBuffers, rate, div);
    ASSERT_NE(h, nullptr) << VelmoGetError();
    ASSERT_EQ(h->OpenTracks, 2u);
    EXPECT_EQ(h->Tracks[0].OutputRate, first) << rate;
    EXPECT_EQ(h->Tracks[1].OutputRate, second) << rate;
    EXPECT_EQ(h->Tracks[1].FileRate, 48000u);
    VelmoClose(h);
  }
}

TEST_F(SoundPlayTest, OffAndOnAlignsTheRingOnlyOnceSoundWasHeard) {
  const SoundFile sf = BuildSoundFile(30, 30, 1, {{22050, 1, false, 0, 2, 0}});
  Config.Latency = 700;  // a Prefill well inside the ring
  HVELMO h = Open(sf.File, {0});
  ASSERT_NE(h, nullptr) << VelmoGetError();
  VelmoTrack& t = h->Tracks[0];
  ASSERT_EQ(t.Prefill, (50 * 22050 * 2 / 1000) & ~63u);
  ASSERT_LT(t.Prefill, t.RingSize - 16);

  // At frame 1 with nothing played, off and on leave the ring alone.
  EXPECT_EQ(VelmoSetSoundOn(h, 0), 0u);
  EXPECT_EQ(h->SoundOn, 0u);
  EXPECT_EQ(VelmoSetSoundOn(h, 1), 1u);
  EXPECT_EQ(h->SoundOn, 1u);
  EXPECT_EQ(t.RingRead, t.RingStart);
  EXPECT_EQ(t.RingWrite, t.RingStart);
  EXPECT_EQ(Config.Logs[0].OnOffCalls, 2u);

  for (int i = 0; i < 3; ++i) PlayFrame(h, 30);
  // Off empties the ring; on with an empty ring puts Prefill bytes of silence in front.
  VelmoSetSoundOn(h, 0);
  EXPECT_EQ(t.RingRead, t.RingStart);
  EXPECT_EQ(t.RingWrite, t.RingStart);
  VelmoStateOf(h)->StartTime = 5;
  EXPECT_EQ(VelmoSetSoundOn(h, 1), 1u);
  EXPECT_EQ(VelmoStateOf(h)->StartTime, 0u);  // the frame clock starts again
  EXPECT_EQ(Held(t), t.Prefill);
  const std::vector<uint8_t> silence = RingTail(t, t.Prefill);
  EXPECT_TRUE(std::all_of(silence.begin(), silence.end(), [](uint8_t b) { return b == 0; }));

  // Sound decoded while off is kept newest first; on keeps exactly Prefill of it, the newest.
  VelmoSetSoundOn(h, 0);
  const uint32_t from = h->FrameNum;
  for (int i = 0; i < 3; ++i) PlayFrame(h, 30);
  ASSERT_GT(Held(t), t.Prefill);
  ASSERT_EQ(Held(t) % 64, 0u);  // whole blocks of 1920 bytes
  VelmoSetSoundOn(h, 1);
  EXPECT_EQ(Held(t), t.Prefill);
  // (The decoder ran on from the frame before, so a fresh decode differs only in a first
  // crossfade that lies outside the Prefill bytes kept.)
  const std::vector<uint8_t> decoded = DecodeFrames(sf.Streams[0], from - 1, from + 2);
  ASSERT_GE(decoded.size(), t.Prefill);
  EXPECT_EQ(RingTail(t, t.Prefill),
            std::vector<uint8_t>(decoded.end() - t.Prefill, decoded.end()));
  VelmoClose(h);
}

TEST_F(SoundPlayTest, TheDevicesSpeedSetsTheFrameClock) {
  const SoundFile sf = BuildSoundFile(10, 30, 1, {{22050, 1, false, 0, 2, 0}});
  struct Case {
    uint32_t RateScale, ReportScale, Scale, EarlyMs, DueMs;
  };
  // One frame at 30/s is 33 ms: a device at twice the speed makes it 16, at half 66.
  const Case cases[] = {{0x10000, 1, 0x10000, 32, 33},
                        {0x20000, 1, 0x8000, 15, 16},
                        {0x8000, 1, 0x20000, 65, 66},
                        {0x20000, 0, 0x10000, 32, 33}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.RateScale);
    FreshConfig();
    Config.RateScale = c.RateScale;
    Config.ReportScale = c.ReportScale;
    FakeNow = 1000;
    HVELMO h = Open(sf.File, {0});
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->Tracks[0].ClockScale, c.Scale);
    VelmoDoFrame(h);  // the clock starts at this frame's end
    VelmoNextFrame(h);
    FakeNow = 1000 + c.EarlyMs;
    EXPECT_EQ(VelmoWait(h), 1u);
    FakeNow = 1000 + c.DueMs;
    EXPECT_EQ(VelmoWait(h), 0u);
    VelmoClose(h);
  }
}

TEST_F(SoundPlayTest, AnUnderrunRestartsSoundBeforeEndFrameOnly) {
  // A device that plays three times too fast and does not say so runs dry again and again.
  const SoundFile sf = BuildSoundFile(60, 30, 1, {{22050, 1, false, 0, 1, 0}});
  Config.RateScale = 0x30000;
  Config.ReportScale = 0;
  Config.Latency = 100;
  HVELMO h = Open(sf.File, {0});
  ASSERT_NE(h, nullptr);
  VelmoTrack& t = h->Tracks[0];
  uint32_t restarts = 0;
  for (uint32_t f = 1; f <= 60; ++f) {
    const uint32_t skips = VelmoStateOf(h)->SoundSkips;
    const uint32_t onOff = Config.Logs[0].OnOffCalls;
    FakeNow = FrameTime(f, 30);
    VelmoWait(h);
    VelmoDoFrame(h);
    const bool flagged = t.Underrun != 0;
    VelmoNextFrame(h);
    EXPECT_EQ(t.Underrun, 0u);  // read and cleared
    const uint32_t added = VelmoStateOf(h)->SoundSkips - skips;
    const bool counts = flagged && f > 1 && f <= t.EndFrame;
    EXPECT_EQ(added, counts ? 1u : 0u) << "frame " << f;
    if (added) {
      EXPECT_EQ(Config.Logs[0].OnOffCalls, onOff + 2);  // off, then on
      ++restarts;
    }
  }
  EXPECT_GT(restarts, 0u);
  EXPECT_GT(Config.Logs[0].Underruns, restarts);  // also those after EndFrame, not counted
  VelmoClose(h);
}

TEST_F(SoundPlayTest, GotoRunsUpOneSecondOfSoundToTheTarget) {
  const SoundFile sf = BuildSoundFile(60, 30, 1, {{22050, 1, false, 0, 1, 0}});
  // The run-up starts a second earlier, at frame 10, and ends with frame 39's sound.
  const std::vector<uint8_t> decoded = DecodeFrames(sf.Streams[0], 9, 39);
  // A short device latency makes Prefill the whole ring less 16 bytes.
  for (uint32_t latency : {700u, 200u}) {
    SCOPED_TRACE(latency);
    FreshConfig();
    Config.Latency = latency;
    HVELMO h = Open(sf.File, {0});
    ASSERT_NE(h, nullptr);
    const VelmoTrack& t = h->Tracks[0];
    VelmoGoto(h, 40, 0);
    ASSERT_EQ(h->FrameNum, 40u);
    EXPECT_EQ(h->SoundOn, 1u);
    // The run-up filled the ring to RingSize - 16; the alignment moves RingRead in 64-byte
    // steps, so the part beyond a multiple of 64 stays on top of Prefill, as far as the ring
    // has room.
    const uint32_t held = Held(t);
    EXPECT_EQ(held, std::min(t.Prefill + (t.RingSize - 16) % 64, t.RingSize - 16));
    ASSERT_GE(decoded.size(), held);
    EXPECT_EQ(RingTail(t, held), std::vector<uint8_t>(decoded.end() - held, decoded.end()));
    VelmoClose(h);
  }
}

TEST_F(SoundPlayTest, PauseReachesTheDeviceAndTheHostTickFeedsModeTwo) {
  const SoundFile sf = BuildSoundFile(8, 30, 1, {{22050, 2, false, 0, 1, 0}});
  Config.ServiceMode = 2;
  const bool threadBefore = VelmoSoundThreadRunning();
  HVELMO h = Open(sf.File, {0});
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(VelmoStateOf(h)->SoundService, 2);
  EXPECT_EQ(VelmoSoundThreadRunning(), threadBefore);  // no thread for a host-fed device
  PlayFrame(h, 30);
  PlayFrame(h, 30);
  EXPECT_EQ(Config.Logs[0].Received, 0u);  // the walk does not feed this device
  VelmoSoundTick();
  const uint64_t fed = Config.Logs[0].Received;
  EXPECT_GT(fed, 0u);
  EXPECT_EQ(VelmoPause(h, 1), 1u);
  EXPECT_EQ(Config.Logs[0].Paused, 1u);
  PlayFrame(h, 30);  // a paused handle still decodes; a paused device takes nothing
  VelmoSoundTick();
  EXPECT_EQ(Config.Logs[0].Received, fed);
  EXPECT_EQ(VelmoPause(h, 0), 0u);
  EXPECT_EQ(Config.Logs[0].Pauses, 2u);
  VelmoSoundTick();
  EXPECT_GT(Config.Logs[0].Received, fed);
  VelmoClose(h);
  EXPECT_EQ(Config.Logs[0].Pauses, 3u);  // the close pauses first
  EXPECT_EQ(Config.Logs[0].Closed, 1u);
}

TEST_F(SoundPlayTest, ABackEndIsNotSwappedWhileTracksAreOpen) {
  struct Other {
    static uint32_t Open(VelmoTrack*, uint32_t, uint32_t, uint32_t, HVELMO) { return 0; }
    static VelmoOpenBackEnd Select(uintptr_t) { return Open; }
    static VelmoOpenBackEnd Select2(uintptr_t a, uintptr_t b) { return a + b ? Open : nullptr; }
  };
  const SoundFile sf = BuildSoundFile(3, 30, 1, {{22050, 1, false, 0, 1, 0}});
  HVELMO h = Open(sf.File, {0});
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(h->OpenTracks, 1u);
  EXPECT_EQ(VelmoSetSoundSystem(Other::Select, 0), 0u);
  EXPECT_EQ(VelmoSetSoundSystem2(Other::Select2, 1, 2), 0u);
  EXPECT_EQ(VelmoSetSoundSystem(nullptr, 0), 0u);
  EXPECT_EQ(VelmoSetSoundSystem(VelmoNullSoundSelect, uintptr_t(&Config)), 1u);  // the same
  VelmoClose(h);
  EXPECT_EQ(VelmoSetSoundSystem2(Other::Select2, 1, 2), 1u);
  EXPECT_EQ(VelmoSetSoundSystem2(Other::Select2, 0, 0), 0u);  // selects nothing
  EXPECT_EQ(VelmoSoundBackEnd(), nullptr);
}

// Volumes of 16.16 go to pairs of speaker bins: by default one entry for both channels of
// bin 0, or one per bin in order; with a bin list a stereo track's entries alternate channels
// within the bin's pair, and a mono track's go to the bin itself.
TEST_F(SoundPlayTest, VolumesGoToSpeakerBins) {
  const SoundFile sf =
      BuildSoundFile(2, 30, 1, {{22050, 1, false, 4, 1, 0}, {22050, 2, false, 6, 1, 0}});
  HVELMO h = Open(sf.File, {4, 6});
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(h->OpenTracks, 2u);
  const uint32_t two[] = {32768, 65536};
  const uint32_t eight[] = {8192, 16384, 24576, 32768, 40960, 49152, 57344, 70000};
  const uint32_t bins[] = {1, 1, 3}, levels[] = {16384, 8192, 32768};
  const struct {
    uint32_t Id;
    const uint32_t *Bins, *Levels;
    uint32_t Count;
    std::vector<float> Mix;
  } cases[] = {{4, nullptr, nullptr, 1, {1, 1, 0, 0, 0, 0, 0, 0}},
               {4, nullptr, two, 2, {1, 2, 0, 0, 0.5f, 1, 0, 0}},
               {6, nullptr, eight, 8, {0.25f, 0.5f, 1.25f, 1.5f, 0.75f, 1, 1.75f, 2}},
               {6, bins, levels, 3, {0, 0, 0.5f, 0.25f, 0, 0, 1, 0}},
               {4, bins, levels, 3, {0, 0.25f, 0, 1, 0, 0, 0, 0}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "track " << c.Id << ", " << c.Count << " volumes");
    VelmoSetTrackVolumes(h, c.Id, c.Bins, c.Levels, c.Count);
    const VelmoNullSoundLog& log = Config.Logs[c.Id == 4 ? 0 : 1];
    EXPECT_EQ(std::vector<float>(log.Mix, log.Mix + 8), c.Mix);
    EXPECT_EQ(log.MixStereo, c.Id == 6 ? 1u : 0u);
    EXPECT_EQ(log.MixCount, c.Count);
    if (c.Levels == two) {
      EXPECT_EQ(log.MixVolume, 1.0f);
    }
  }
  const uint32_t before = Config.Logs[0].MixCount;
  VelmoSetTrackVolumes(h, 99, nullptr, nullptr, 2);  // no such track: nothing happens
  EXPECT_EQ(Config.Logs[0].MixCount, before);
  VelmoClose(h);
}

// The sound thread on the real clock: it starts with the first file that wants it, feeds
// while the frame thread plays, and stops after its last file unless that kept it.
class SoundThreadTest : public SoundPlayTest {
 protected:
  void SetUp() override {
    SoundPlayTest::SetUp();
    VelmoSetClockForTest(nullptr);
    Config.Clock = nullptr;
    Config.ServiceMode = 0;
  }
};

void PlayInRealTime(HVELMO h, uint32_t frames) {
  for (uint32_t i = 0; i < frames; ++i) {
    for (uint32_t spins = 0; VelmoWait(h) && spins < 200; ++spins) ThreadSleep(1);
    VelmoDoFrame(h);
    VelmoNextFrame(h);
  }
}

TEST_F(SoundThreadTest, FeedsFromItsOwnThreadAndStopsAfterTheLastFile) {
  const SoundFile sf = BuildSoundFile(40, 60, 1, {{22050, 1, false, 0, 4, 0}});
  const std::vector<uint8_t> direct = DecodeFrames(sf.Streams[0], 0, 40);
  std::vector<uint8_t> capture(direct.size());
  Config.Latency = 300;
  Config.Logs[0].Capture = capture.data();
  Config.Logs[0].CaptureSize = uint32_t(capture.size());
  const uint32_t starts = VelmoSoundThreadStarts();

  HVELMO a = Open(sf.File, {0});
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(VelmoStateOf(a)->SoundService, 0);
  EXPECT_TRUE(VelmoSoundThreadRunning());
  HVELMO b = Open(sf.File, {0});
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(VelmoSoundThreadStarts(), starts + 1);  // one thread serves both
  PlayInRealTime(a, 40);
  PlayInRealTime(b, 5);
  VelmoClose(a);
  EXPECT_TRUE(VelmoSoundThreadRunning());
  VelmoClose(b);
  EXPECT_FALSE(VelmoSoundThreadRunning());

  const VelmoNullSoundLog& log = Config.Logs[0];
  EXPECT_GT(log.Received, 0u);
  // Unless a slow machine forced a restart, the device heard the decoded sound in order.
  if (log.OnOffCalls == 0) {
    EXPECT_TRUE(std::equal(capture.begin(), capture.begin() + log.CaptureUsed, direct.begin()));
  }
  EXPECT_EQ(log.Closed, 1u);
  EXPECT_EQ(Config.Logs[1].Closed, 1u);
}

TEST_F(SoundThreadTest, KeepThreadsLeavesTheThreadRunning) {
  const SoundFile sf = BuildSoundFile(4, 30, 1, {{22050, 1, false, 0, 1, 0}});
  Config.ServiceMode = -5;  // the thread, every 5 ms
  HVELMO a = Open(sf.File, {0}, VelmoOpenNoBuffers | VelmoOpenKeepThreads);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(VelmoStateOf(a)->SoundService, 0);
  EXPECT_EQ(VelmoStateOf(a)->SoundSleep, 5u);
  PlayInRealTime(a, 2);
  VelmoClose(a);
  EXPECT_TRUE(VelmoSoundThreadRunning());
  HVELMO b = Open(sf.File, {0});
  ASSERT_NE(b, nullptr);
  VelmoClose(b);
  EXPECT_FALSE(VelmoSoundThreadRunning());
}

// Waits up to two seconds for the null back end's tick count to pass `count`.
bool TicksPass(const VelmoNullSoundConfig& config, uint32_t count) {
  for (uint32_t start = TimerMs(); TimerMs() - start < 2000; ThreadSleep(1))
    if (AtomicRead(&config.Ticks) > count) return true;
  return false;
}

// A back end that serves itself (a negative mode): the thread leaves its tracks unfed and calls
// the back end's tick instead, always holding the sound service lock.
TEST_F(SoundThreadTest, ANegativeModeCallsTheBackEndsTickUnderTheServiceLock) {
  const SoundFile sf = BuildSoundFile(20, 30, 1, {{22050, 1, false, 0, 2, 0}});
  Config.ServiceMode = -4;
  HVELMO h = Open(sf.File, {0});
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(VelmoStateOf(h)->SoundSleep, 4u);
  EXPECT_TRUE(VelmoSoundThreadRunning());
  PlayInRealTime(h, 6);
  EXPECT_TRUE(TicksPass(Config, 0));
  EXPECT_EQ(Config.Logs[0].Received, 0u);  // the library fed the device nothing
  EXPECT_EQ(Config.Logs[0].Unlocks, 0u);
  // While another holds the service lock the tick waits.
  LockEnter(VelmoSoundServiceLock());
  const uint32_t held = AtomicRead(&Config.Ticks);
  ThreadSleep(60);
  EXPECT_EQ(AtomicRead(&Config.Ticks), held);
  LockLeave(VelmoSoundServiceLock());
  EXPECT_TRUE(TicksPass(Config, held));
  VelmoClose(h);
  EXPECT_FALSE(VelmoSoundThreadRunning());
  EXPECT_EQ(Config.Logs[0].Closed, 1u);
}

TEST_F(SoundThreadTest, FilesComeAndGoWhileTheThreadFeeds) {
  const SoundFile sf = BuildSoundFile(6, 100, 1, {{22050, 2, false, 0, 2, 0}});
  Config.Latency = 60;
  HVELMO steady = Open(sf.File, {0});
  ASSERT_NE(steady, nullptr);
  for (uint32_t round = 0; round < 12; ++round) {
    HVELMO h = Open(sf.File, {0});
    ASSERT_NE(h, nullptr);
    PlayInRealTime(h, 3);
    PlayInRealTime(steady, 1);
    if (round % 3 == 0) VelmoSetSoundOn(h, 0);
    VelmoClose(h);
    EXPECT_TRUE(VelmoSoundThreadRunning());
  }
  VelmoClose(steady);
  EXPECT_FALSE(VelmoSoundThreadRunning());
  const uint32_t logs = Config.TracksOpened;
  for (uint32_t i = 0; i < logs; ++i) EXPECT_EQ(Config.Logs[i].Opened, Config.Logs[i].Closed);
}

}  // namespace
