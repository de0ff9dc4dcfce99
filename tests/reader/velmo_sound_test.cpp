// Sound tracks of the reader library: decoding a track into caller memory.
#include "reader/velmo_sound.h"
#include "sound_test_files.h"
#include "velmo_test_files.h"

#include <gtest/gtest.h>

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

}  // namespace
