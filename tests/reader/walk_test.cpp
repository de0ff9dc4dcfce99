// The frame walk on a clock the tests move by hand: order and looping, waiting, the skip and
// resync rules, the five-minute loop restart, goto and key frames, pause, the run's figures, and
// first-generation frames decoded into the frame buffer ring and copied out.
#include "compress/velmo1_stream.h"
#include "velmo_test_files.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace velmo_test;

class VelmoWalkTest : public VelmoTest {
 protected:
  // Decodes the selected frame at `now` and selects the next one.
  static void PlayAt(HVELMO h, uint32_t now) {
    FakeNow = now;
    VelmoDoFrame(h);
    VelmoNextFrame(h);
  }
  // Marks a sound track open (by hand: the file has none), as the skip rules need.
  static VelmoState* WithSound(HVELMO h) {
    VelmoState* st = VelmoStateOf(h);
    st->OpenTracks = 1;
    st->SoundOn = 1;
    return st;
  }
  static void CloseWithSound(HVELMO h) {
    VelmoStateOf(h)->OpenTracks = 0;
    VelmoClose(h);
  }
};

// Frames in order, then round again; a file of a single frame stays on it.
TEST_F(VelmoWalkTest, FramesInOrderThenLoop) {
  FilePlan s;
  s.Frames = 4;
  HVELMO h = Open(s);
  std::vector<uint32_t> seen = {h->FrameNum};
  std::vector<uint32_t> before;
  for (int i = 0; i < 6; ++i) {
    VelmoNextFrame(h);
    seen.push_back(h->FrameNum);
    before.push_back(h->LastFrameNum);
    EXPECT_EQ(0, std::memcmp(h->FrameData, DefaultVideo(h->FrameNum - 1).data(), 8));
  }
  EXPECT_EQ(seen, (std::vector<uint32_t>{1, 2, 3, 4, 1, 2, 3}));
  EXPECT_EQ(before, (std::vector<uint32_t>{1, 2, 3, 4, 1, 2}));
  VelmoClose(h);

  s.Frames = 1;
  h = Open(s);
  EXPECT_EQ(VelmoDoFrame(h), 1u);
  VelmoNextFrame(h);
  EXPECT_EQ(h->FrameNum, 1u);
  EXPECT_EQ(h->FrameBuffers->Count, 1u);
  EXPECT_EQ(VelmoSetSoundOn(h, 1), 0u);  // no tracks: sound stays off
  VelmoClose(h);
}

TEST_F(VelmoWalkTest, SecondDecodeOfOneFrameDoesNothing) {
  HVELMO h = Open();
  EXPECT_EQ(VelmoDoFrame(h), 1u);
  EXPECT_EQ(VelmoDoFrame(h), 0u);
  VelmoSummary sum;
  VelmoGetSummary(h, &sum);
  EXPECT_EQ(sum.FramesPlayed, 1u);
  EXPECT_EQ(h->FrameBuffers->Current, 1u);  // rotated once
  VelmoClose(h);
}

// Waits follow the frame clock; a stall without sound restarts it.
TEST_F(VelmoWalkTest, WaitFollowsTheFrameClockAndAStallWithoutSoundRestartsIt) {
  HVELMO h = Open();  // 30 frames per second: frames are due at 33, 66, 100 ms
  VelmoState* st = VelmoStateOf(h);
  EXPECT_EQ(st->LateLimit, 66u);
  EXPECT_EQ(VelmoWait(h), 0u);  // nothing played yet
  uint32_t played = 1000;
  for (uint32_t due : {1033u, 1066u}) {
    PlayAt(h, played);
    FakeNow = due - 1;
    EXPECT_EQ(VelmoWait(h), 1u) << due;
    FakeNow = played = due;
    EXPECT_EQ(VelmoWait(h), 0u) << due;
  }
  PlayAt(h, 1066);
  // Frame 4 is due at 1100. Two late limits behind is still caught up frame by frame.
  FakeNow = 1100 + 132;
  EXPECT_EQ(VelmoWait(h), 0u);
  EXPECT_EQ(st->StartTime, 1000u);
  // Beyond that the clock is dropped, and restarted from here at the next wait.
  FakeNow = 1100 + 133;
  EXPECT_EQ(VelmoWait(h), 0u);
  EXPECT_EQ(st->StartTime, 0u);
  EXPECT_EQ(VelmoWait(h), 1u);
  EXPECT_EQ(st->StartTime, 1233u);
  FakeNow = 1233 + 33;
  EXPECT_EQ(VelmoWait(h), 0u);
  // Without sound nothing is ever skipped: a late frame restarts the clock instead.
  FakeNow = 5000;
  EXPECT_EQ(VelmoSkipCheck(st, 0), 0u);
  EXPECT_EQ(st->StartTime, 5000u);
  EXPECT_EQ(st->SkippedFrames, 0u);
  VelmoClose(h);
}

// With sound (a track marked open by hand): up to four skips in a row, then a frame is shown.
TEST_F(VelmoWalkTest, SkipsAtMostFourInARow) {
  HVELMO h = Open();
  PlayAt(h, 1000);
  VelmoState* st = WithSound(h);
  FakeNow = 1000 + 33 + 67;  // one ms over the late limit
  std::vector<uint32_t> answers;
  for (int i = 0; i < 10; ++i) {
    st->SkipState = 0;
    answers.push_back(VelmoSkipCheck(st, 0));
  }
  EXPECT_EQ(answers, (std::vector<uint32_t>{1, 1, 1, 1, 0, 1, 1, 1, 1, 0}));
  EXPECT_EQ(st->SkippedFrames, 8u);
  EXPECT_EQ(st->FrameSkipped, 1u);
  EXPECT_EQ(st->ForceResync, 0u);
  // Report-only mode answers the same but counts nothing.
  st->SkipRun = 0;
  EXPECT_EQ(VelmoSkipCheck(st, 1), 1u);
  EXPECT_EQ(st->SkippedFrames, 8u);
  EXPECT_EQ(st->SkipState, 1u);
  // On time: shown, and the run starts over.
  FakeNow = 1033;
  EXPECT_EQ(VelmoSkipCheck(st, 0), 0u);
  EXPECT_EQ(st->SkipRun, 0u);
  CloseWithSound(h);
}

TEST_F(VelmoWalkTest, FarBehindWithSoundForcesAResync) {
  HVELMO h = Open();
  PlayAt(h, 1000);
  VelmoState* st = WithSound(h);
  FakeNow = 1033 + 725;
  EXPECT_EQ(VelmoSkipCheck(st, 0), 1u);
  EXPECT_EQ(st->ForceResync, 0u);  // exactly 725 is not more
  st->SkipState = 0;
  FakeNow = 1033 + 726;
  EXPECT_EQ(VelmoSkipCheck(st, 0), 1u);
  EXPECT_EQ(st->ForceResync, 1u);
  // The next frame restarts the sound and the clock.
  VelmoNextFrame(h);
  EXPECT_EQ(st->ForceResync, 0u);
  EXPECT_EQ(st->SoundSkips, 1u);
  EXPECT_EQ(st->StartTime, 0u);
  CloseWithSound(h);
}

TEST_F(VelmoWalkTest, CopyHonoursTheSkipCheck) {
  FilePlan s;
  s.Frames = 3;
  HVELMO h = Open(s);
  PlayAt(h, 1000);
  FakeNow = 1033;
  VelmoDoFrame(h);
  VelmoState* st = WithSound(h);
  FakeNow = 2000;
  std::vector<uint32_t> pixels(16 * 16, 0xCDCDCDCDu);
  EXPECT_EQ(st->BlitStart, VelmoBlitPending);
  EXPECT_EQ(VelmoCopyToBuffer(h, pixels.data(), 64, 16, 0, 0, 3), 1u);
  EXPECT_EQ(pixels[0], 0xCDCDCDCDu);  // skipped: nothing copied
  EXPECT_EQ(st->BlitStart, 2000u);    // the blit began all the same
  EXPECT_EQ(st->SkippedFrames, 1u);
  EXPECT_EQ(VelmoCopyToBuffer(h, pixels.data(), 64, 16, 0, 0, 3), 1u);  // still skipped
  EXPECT_EQ(pixels[0], 0xCDCDCDCDu);
  // Never skip: the check only reports, and the pixels are copied.
  st->SkipState = 0;
  EXPECT_EQ(VelmoCopyToBuffer(h, pixels.data(), 64, 16, 0, 0, 3 | VelmoOpenNeverSkip), 1u);
  EXPECT_EQ(pixels[0] >> 24, 0xFFu);
  EXPECT_EQ(st->SkippedFrames, 1u);
  // On time: copied, result 0.
  st->SkipState = 0;
  st->StartTime = 0;
  std::fill(pixels.begin(), pixels.end(), 0xCDCDCDCDu);
  EXPECT_EQ(VelmoCopyToBuffer(h, pixels.data(), 64, 16, 0, 0, 3), 0u);
  EXPECT_EQ(pixels[255] >> 24, 0xFFu);
  FakeNow = 2007;
  VelmoNextFrame(h);
  EXPECT_EQ(st->BlitTime, 7u);
  CloseWithSound(h);
}

TEST_F(VelmoWalkTest, LoopPastFiveMinutesRestartsClockAndSound) {
  FilePlan s;
  s.Frames = 2;
  HVELMO h = Open(s);
  VelmoState* st = VelmoStateOf(h);
  EXPECT_EQ(st->LoopTime, 1000u);  // the first pass only notes the time
  PlayAt(h, 1000);
  PlayAt(h, 1000 + 300000);  // back at frame 1, exactly five minutes: nothing yet
  EXPECT_EQ(st->RestartSound, 0u);
  PlayAt(h, 301010);
  PlayAt(h, 301020);  // frame 1 again, past the mark
  EXPECT_EQ(h->FrameNum, 1u);
  EXPECT_EQ(st->RestartSound, 1u);
  EXPECT_EQ(st->LoopTime, 301020u);
  FakeNow = 301050;
  VelmoDoFrame(h);
  EXPECT_EQ(st->RestartSound, 0u);
  EXPECT_EQ(st->StartTime, 301050u);  // the clock starts anew at this frame
  EXPECT_EQ(st->StartFrame, st->FramesPlayed - 1);
  VelmoClose(h);
}

TEST_F(VelmoWalkTest, KeyFrameSearch) {
  FilePlan s;
  s.Frames = 12;  // key frames 1, 6, 11
  HVELMO h = Open(s);
  const uint32_t back = VelmoKeyBackward, ahead = VelmoKeyForward, near = VelmoKeyNearest,
                 notSelf = VelmoKeyNotSelf;
  // From, flags, the key frame found (0: none); nearest looks backwards first, 5 is no direction.
  const uint32_t searches[][3] = {{8, back, 6},           {6, back, 6},
                                  {6, back | notSelf, 1}, {1, back | notSelf, 1},
                                  {7, ahead, 11},         {11, ahead | notSelf, 0},
                                  {12, ahead, 0},         {8, near, 6},
                                  {9, near, 11},          {6, near | notSelf, 1},
                                  {3, 5, 0},              {3, 5 | notSelf, 0}};
  for (const auto& [from, flags, found] : searches)
    EXPECT_EQ(VelmoGetKeyFrame(h, from, flags), found) << from << " " << flags;
  VelmoClose(h);
}

TEST_F(VelmoWalkTest, GotoDecodesFromTheKeyFrame) {
  FilePlan s;
  s.Frames = 12;
  HVELMO h = Open(s);
  VelmoState* st = VelmoStateOf(h);
  VelmoGoto(h, 8, 0);
  // At 8, with 6 and 7 decoded on the way; marked skipped, the clock stopped, video on.
  EXPECT_EQ(std::vector<uint32_t>({h->FrameNum, st->FramesPlayed, st->LastDecoded, h->FrameSkipped,
                                   st->StartTime, h->VideoOn}),
            std::vector<uint32_t>({8, 2, 7, 1, 0, 1}));
  EXPECT_EQ(0, std::memcmp(h->FrameData, DefaultVideo(7).data(), 8));

  const struct {
    uint32_t Target, Flags, Selected, Played;
    const char* What;
  } steps[] = {
      {10, 0, 10, 4, "forwards in the same group: 8 and 9, not from the key frame"},
      {0, 0, 1, 4, "frame 0 acts as frame 1, a key frame"},
      {100, 0, 12, 5, "past the end acts as the last frame, decoded from frame 11"},
      {12, 0, 12, 5, "the current frame: nothing"},
      {4, VelmoGotoExact, 4, 5, "exact, backwards: selected directly"},
      {9, VelmoGotoExact | VelmoGotoDirect, 9, 5, "direct"}};
  for (const auto& step : steps) {
    VelmoGoto(h, step.Target, step.Flags);
    EXPECT_EQ(h->FrameNum, step.Selected) << step.What;
    EXPECT_EQ(st->FramesPlayed, step.Played) << step.What;
  }
  EXPECT_EQ(h->LastFrameNum, 4u);
  VelmoClose(h);
}

TEST_F(VelmoWalkTest, PauseKeepsTheClockAside) {
  HVELMO h = Open();
  VelmoState* st = VelmoStateOf(h);
  PlayAt(h, 1000);
  FakeNow = 1010;
  EXPECT_EQ(VelmoPause(h, 1), 1u);
  EXPECT_EQ(st->PauseOffset, 10u);
  EXPECT_EQ(VelmoPause(h, 7), 1u);  // no change
  FakeNow = 9000;
  EXPECT_EQ(VelmoWait(h), 1u);  // paused: never due
  EXPECT_EQ(VelmoPause(h, 0), 0u);
  EXPECT_EQ(st->StartTime, 8990u);
  FakeNow = 8990 + 32;
  EXPECT_EQ(VelmoWait(h), 1u);
  FakeNow = 8990 + 33;
  EXPECT_EQ(VelmoWait(h), 0u);

  // A frame decoded while paused (stepping) clears the clock; it starts anew after the pause.
  VelmoPause(h, 1);
  VelmoDoFrame(h);
  EXPECT_EQ(st->PauseOffset, 0u);
  VelmoNextFrame(h);
  FakeNow = 20000;
  VelmoPause(h, 0);
  EXPECT_EQ(st->StartTime, 0u);
  EXPECT_EQ(VelmoWait(h), 1u);  // the clock starts here: the next frame is one frame away
  EXPECT_EQ(st->StartTime, 20000u);
  VelmoClose(h);
}

TEST_F(VelmoWalkTest, SummaryAndRealtimeFigures) {
  HVELMO h = Open();  // ten frames of 8 bytes at 30 per second
  const uint32_t times[] = {1000, 1040, 1070, 1200, 1230};
  for (uint32_t t : times) PlayAt(h, t);
  FakeNow = 1300;
  using Row = std::vector<uint64_t>;
  VelmoSummary sum;
  VelmoGetSummary(h, &sum);
  // Frames and time; the slowest and the last frame that was not the slowest, with their numbers.
  EXPECT_EQ(Row({sum.FramesPlayed, sum.TotalTime, sum.Slowest, sum.SlowestFrame, sum.SecondSlowest,
                 sum.SecondSlowestFrame}),
            Row({5, 300, 130, 4, 30, 5}));
  EXPECT_EQ(Row({sum.AverageFrame, sum.AverageRate, sum.Frames, sum.Width, sum.OpenTime,
                 sum.Reserved, sum.HighestSecondBytes}),
            Row({8, 240, 10, 16, 0, 0, 80 * 30 / 10}));
  EXPECT_EQ(sum.TotalMemory, h->TotalMemory);

  // The last two frames; then a span limited by the frames played, which reaches the made-up
  // time before the first frame.
  VelmoRealtime rt;
  VelmoGetRealtime(h, &rt, 2);
  EXPECT_EQ(Row({rt.FrameNum, rt.Span, rt.Time, rt.Bytes, rt.DataRate}), Row({5, 2, 160, 16, 100}));
  VelmoGetRealtime(h, &rt, 100);
  EXPECT_EQ(Row({rt.Span, rt.Time, rt.Bytes}), Row({5, 1230 - (1000 - 33), 40}));
  VelmoClose(h);
}

TEST_F(VelmoWalkTest, ReadSpeedFromTheProvider) {
  const std::vector<uint8_t> file = BuildFile({});
  ProviderOpen p;
  HVELMO h = p.Open(file);
  VelmoDoFrame(h);
  VelmoSummary sum;
  VelmoGetSummary(h, &sum);
  // No measurable read time: bytes × (1000 / 1).
  EXPECT_EQ(sum.ReadSpeed, h->IOProvider.BytesRead * 1000);
  EXPECT_GT(h->IOProvider.BytesRead, 44u);
  h->IOProvider.IOTime = 2000;
  VelmoGetSummary(h, &sum);
  EXPECT_EQ(sum.ReadSpeed, h->IOProvider.BytesRead / 2);
  VelmoClose(h);
}

// ---------------------------------------------------------------------------------------------
// First-generation frames through the decoder.

std::vector<uint8_t> OnePlane(uint32_t width, const std::vector<std::vector<int>>& rows) {
  Velmo1EncPlaneSpec p;
  p.Width = width;
  for (const auto& row : rows) {
    std::vector<Velmo1EncRawBlock> blocks;
    for (int c : row)
      blocks.push_back(c < 0 ? Velmo1EncSkipBlock() : Velmo1EncOneBlock(uint8_t(c)));
    p.Rows.push_back(blocks);
  }
  return Velmo1EncBuildPlane(p, Velmo1EncPlaneOptions{});
}

FilePlan DecodableFile() {
  FilePlan s;
  s.Frames = 2;
  s.Video = [](uint32_t i) {
    if (i == 0)
      return Velmo1EncBuildSection(false, false, {}, OnePlane(16, {{10, 20}, {30, 40}}),
                                   OnePlane(8, {{100}}), OnePlane(8, {{200}}));
    // Frame 2 keeps the top left block and the chroma, and changes the rest.
    return Velmo1EncBuildSection(false, false, {}, OnePlane(16, {{-1, 21}, {31, 41}}),
                                 OnePlane(8, {{-1}}), OnePlane(8, {{-1}}));
  };
  return s;
}

// The current picture's luma at its four corners (across, then down), and Cr at the far corner
// and Cb at the near one of their single block.
std::vector<int> Samples(HVELMO h) {
  const VelmoFrameBuffers* fb = h->FrameBuffers;
  const VelmoFrameBufferSet& set = fb->Sets[fb->Current];
  const uint8_t* y = set.Planes[VelmoPlaneY];
  const int32_t p = fb->LumaPitch;
  return {y[0], y[15], y[15 * p], y[15 * p + 15],
          set.Planes[VelmoPlaneCr][7 * fb->ChromaPitch + 7], set.Planes[VelmoPlaneCb][0]};
}

TEST_F(VelmoWalkTest, FirstGenerationFramesDecodeIntoTheRing) {
  HVELMO h = Open(DecodableFile());
  EXPECT_EQ(VelmoDoFrame(h), 1u);
  EXPECT_EQ(h->FrameBuffers->Current, 1u);
  EXPECT_EQ(Samples(h), (std::vector<int>{10, 20, 30, 40, 100, 200}));
  EXPECT_EQ(h->LastDecodeResult, 100u);  // no block skipped

  VelmoNextFrame(h);
  EXPECT_EQ(VelmoDoFrame(h), 1u);
  EXPECT_EQ(h->FrameBuffers->Current, 0u);
  // The top left block and the chroma taken from the previous picture.
  EXPECT_EQ(Samples(h), (std::vector<int>{10, 21, 31, 41, 100, 200}));
  EXPECT_EQ(h->LastDecodeResult, 75u);  // one luma block of four skipped

  // The decoded picture copies out: darker blocks give darker pixels.
  std::vector<uint32_t> pixels(16 * 16, 0);
  EXPECT_EQ(VelmoCopyToBuffer(h, pixels.data(), 64, 16, 0, 0, 3), 0u);
  EXPECT_EQ(pixels[0] >> 24, 0xFFu);
  EXPECT_LT((pixels[0] >> 8) & 0xFF, (pixels[15 * 16 + 15] >> 8) & 0xFF);
  VelmoClose(h);
}

TEST_F(VelmoWalkTest, SlicesSplitLumaFromChroma) {
  HVELMO h = Open(DecodableFile());
  VelmoState* st = VelmoStateOf(h);
  // Luma alone, then chroma alone, ending the frame.
  EXPECT_EQ(VelmoTakeShare(st, 2), 0x10u);
  EXPECT_EQ(VelmoTakeShare(st, 2), 0x11u);
  EXPECT_EQ(VelmoTakeShare(st, 2), 0u);
  EXPECT_EQ(VelmoDoSlices(h, 0x10 | VelmoSlicesStart), 1u);
  const VelmoFrameBuffers* fb = h->FrameBuffers;
  EXPECT_EQ(fb->Current, 0u);
  EXPECT_EQ(fb->Sets[1].Planes[VelmoPlaneY][0], 10);
  EXPECT_EQ(fb->Sets[1].Planes[VelmoPlaneCr][0], 128);  // not yet
  EXPECT_EQ(VelmoDoSlices(h, 0x11 | VelmoSlicesEnd), 1u);
  EXPECT_EQ(fb->Current, 1u);
  EXPECT_EQ(Samples(h), (std::vector<int>{10, 20, 30, 40, 100, 200}));
  EXPECT_EQ(st->FramesPlayed, 1u);

  // With video off the frame counts as played and the ring still moves on: the set shown
  // now is the one the decoder did not write, so frame 1's picture is not what is shown.
  VelmoNextFrame(h);
  VelmoSetVideoOn(h, 0);
  const std::vector<uint8_t> untouched(fb->Sets[0].Planes[VelmoPlaneY],
                                       fb->Sets[0].Planes[VelmoPlaneY] + 16);
  EXPECT_EQ(VelmoDoFrame(h), 1u);
  EXPECT_EQ(fb->Current, 0u);
  EXPECT_EQ(st->FramesPlayed, 2u);
  EXPECT_EQ(std::vector<uint8_t>(fb->Sets[0].Planes[VelmoPlaneY],
                                 fb->Sets[0].Planes[VelmoPlaneY] + 16),
            untouched);  // nothing was decoded into it
  EXPECT_NE(Samples(h)[1], 20);
  // A copy shows that set too.
  std::vector<uint32_t> shown(16 * 16, 0), decoded(16 * 16, 0);
  EXPECT_EQ(VelmoCopyToBuffer(h, shown.data(), 64, 16, 0, 0, 3), 0u);
  h->FrameBuffers->Current = 1;
  EXPECT_EQ(VelmoCopyToBuffer(h, decoded.data(), 64, 16, 0, 0, 3), 0u);
  h->FrameBuffers->Current = 0;
  EXPECT_NE(shown, decoded);
  VelmoClose(h);
}

}  // namespace
