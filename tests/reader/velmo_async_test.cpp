// The async slice service: frames decoded by worker threads give the pictures VelmoDoFrame gives;
// its refusals and their texts; stopping and restarting workers; closing a handle while its
// slices run; full queues and the order in which threads get shares. Where a test needs a
// worker to be busy, the worker is held inside the frame read of a provider that waits at a
// gate the test opens, so nothing depends on timing.
#include "reader/velmo_async.h"
#include "support/velmo1_mixed_file.h"
#include "support/velmo2_file.h"
#include "velmo_test_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using namespace velmo_test;

constexpr uint32_t Given = 0x300;

// The current picture's planes, row by row, without the padding.
std::vector<uint8_t> Picture(HVELMO h) {
  const VelmoFrameBuffers* fb = h->FrameBuffers;
  const VelmoFrameBufferSet& set = fb->Sets[fb->Current];
  std::vector<uint8_t> out;
  auto take = [&](const uint8_t* plane, int32_t pitch, uint32_t w, uint32_t rows) {
    for (uint32_t y = 0; y < rows; ++y)
      out.insert(out.end(), plane + size_t(y) * pitch, plane + size_t(y) * pitch + w);
  };
  take(set.Planes[VelmoPlaneY], fb->LumaPitch, h->Width, h->Height);
  take(set.Planes[VelmoPlaneCr], fb->ChromaPitch, (h->Width + 1) / 2, (h->Height + 1) / 2);
  take(set.Planes[VelmoPlaneCb], fb->ChromaPitch, (h->Width + 1) / 2, (h->Height + 1) / 2);
  return out;
}

// A frame read that can be held: while armed, the next read of a gated handle tells the test
// that it has begun and waits until the test lets it go. Provider reads of these handles happen
// on whichever thread decodes the frame, so this holds a worker in the middle of a slice.
struct ReadGate {
  PlatformSemaphore Entered, Release;
  volatile uint32_t Armed = 0;
  volatile uint32_t Finished = 0;  // held reads that returned
  uint64_t (*Read)(IOProvider*, uint32_t, uint64_t, void*, uint64_t) = nullptr;
};
ReadGate Gate;

uint64_t GatedRead(IOProvider* io, uint32_t frame, uint64_t position, void* dest, uint64_t size) {
  uint32_t armed = 1;
  const bool held = AtomicCompareExchange(&Gate.Armed, &armed, 0);
  if (held) {
    SemaphoreSignal(&Gate.Entered, 1);
    SemaphoreWait(&Gate.Release, WaitForever);
  }
  const uint64_t got = Gate.Read(io, frame, position, dest, size);
  if (held) AtomicAdd(&Gate.Finished, 1);
  return got;
}

uint32_t GatedOpen(IOProvider* io, const char* name, uint32_t flags, const VelmoOpenOptions* o) {
  if (!VelmoMemoryProviderOpen(io, name, flags, o)) return 0;
  Gate.Read = io->ReadFrame;
  io->ReadFrame = GatedRead;
  return 1;
}

class VelmoAsyncTest : public VelmoTest {
 protected:
  void SetUp() override {
    VelmoTest::SetUp();
    ASSERT_TRUE(SemaphoreCreate(&Gate.Entered, 0, 1));
    ASSERT_TRUE(SemaphoreCreate(&Gate.Release, 0, 1));
    Gate.Armed = 0;
    Gate.Finished = 0;
    File = BuildFile(MixedFirstGenerationPlan(32, 32, 3));  // unless a test builds its own
  }
  void TearDown() override {
    for (uint32_t n : Started) EXPECT_EQ(VelmoWaitStopAsyncThread(n), 1u) << n;
    SemaphoreDestroy(&Gate.Entered);
    SemaphoreDestroy(&Gate.Release);
    VelmoTest::TearDown();
  }
  void Start(std::initializer_list<uint32_t> numbers) {
    for (uint32_t n : numbers) {
      ASSERT_EQ(VelmoStartAsyncThread(n), 1u) << VelmoGetError();
      Started.push_back(n);
    }
  }
  // Opens File through the gated provider; reads happen where the frame is decoded.
  HVELMO OpenGated() {
    Span = {File.data(), File.size()};
    VelmoOpenOptions o{};
    o.CustomIO = GatedOpen;
    HVELMO h = VelmoOpenWithOptions(reinterpret_cast<const char*>(&Span), &o,
                                    VelmoOpenCustomIO | VelmoOpenNoBackground);
    EXPECT_NE(h, nullptr) << VelmoGetError();
    return h;
  }
  // Gives the selected frame of a gated handle to `number`, and returns once its worker is held
  // in the frame's read.
  void HoldWorker(HVELMO h, uint32_t number) {
    AtomicStore(&Gate.Armed, 1);
    ASSERT_EQ(VelmoDoFrameAsync(h, &number, 1), 1u) << VelmoGetError();
    ASSERT_TRUE(SemaphoreWait(&Gate.Entered, WaitForever));
  }
  static void Release() { SemaphoreSignal(&Gate.Release, 1); }
  // The error text a call leaves; the call must give 0.
  template <typename Call>
  static std::string Refusal(Call call) {
    VelmoSetError("none");
    EXPECT_EQ(call(), 0u);
    return VelmoGetError();
  }
  // The picture VelmoDoFrame gives for frame `frame` of File.
  std::vector<uint8_t> Reference(uint32_t frame) {
    HVELMO r = OpenImage(File);
    VelmoGoto(r, frame, VelmoGotoDirect);
    VelmoDoFrame(r);
    std::vector<uint8_t> p = Picture(r);
    VelmoClose(r);
    return p;
  }

  std::vector<uint32_t> Started;
  VelmoMemorySpan Span{};
};

// ---------------------------------------------------------------------------------------------
// Pictures

// A second-generation file of four slices: key frames 1 and 5, generated inter frames between.
std::vector<uint8_t> SecondGenerationFile() {
  velmo2_test::FileFrames f;
  f.Width = 96;
  f.Height = 160;
  f.SliceMode = 2;
  velmo2_test::StreamPlan plan;
  plan.Width = f.Width;
  plan.Height = f.Height;
  plan.FileFlags = f.SliceMode;
  plan.Shares.CodedBlocks = 0.6;
  for (uint32_t i = 0; i < 7; ++i) {
    plan.Key = i % 4 == 0;
    plan.Seed = 77 + i;
    f.Sections.push_back(velmo2_test::GenerateSection(plan));
    f.Key.push_back(plan.Key);
  }
  return velmo2_test::BuildFile(f);
}

// Thread numbers, the wait's limit in microseconds (-1 none, 0 ask until done, else a limit),
// and whether the file is of the second generation (slices of rows, joined by seams) rather
// than the first (a luma and a chroma slice).
using Plan = std::tuple<std::vector<uint32_t>, int32_t, bool>;
class VelmoAsyncPictures : public VelmoAsyncTest, public ::testing::WithParamInterface<Plan> {};

TEST_P(VelmoAsyncPictures, SameAsDoFrameFrameByFrame) {
  const auto& [numbers, limit, second] = GetParam();
  for (uint32_t n : numbers)
    if (std::find(Started.begin(), Started.end(), n) == Started.end()) Start({n});
  File = second ? SecondGenerationFile() : BuildFile(MixedFirstGenerationPlan(64, 48, 7, 3));
  HVELMO ref = OpenImage(File);
  HVELMO h = OpenImage(File);
  ASSERT_TRUE(ref && h);
  std::vector<uint8_t> previous;
  // Two passes: key frames, inter frames on the async pictures, and the loop back to frame 1.
  for (uint32_t step = 0; step < 2 * h->Frames; ++step) {
    SCOPED_TRACE(step);
    ASSERT_EQ(h->FrameNum, ref->FrameNum);
    ASSERT_EQ(VelmoDoFrame(ref), 1u);
    ASSERT_EQ(VelmoDoFrameAsync(h, numbers.data(), uint32_t(numbers.size())), 1u)
        << VelmoGetError();
    if (limit == 0) {
      while (!VelmoDoFrameAsyncWait(h, 0)) ThreadPause();
    } else {
      while (!VelmoDoFrameAsyncWait(h, limit)) {
      }
    }
    const std::vector<uint8_t> picture = Picture(h);
    EXPECT_EQ(picture, Picture(ref));
    EXPECT_NE(picture, previous);  // the frames differ, so a stale picture shows
    EXPECT_EQ(h->LastDecodeResult, ref->LastDecodeResult);
    EXPECT_EQ(h->FrameBuffers->Current, ref->FrameBuffers->Current);
    EXPECT_EQ(VelmoStateOf(h)->FramesPlayed, step + 1);
    for (uint32_t slot : h->AsyncSlots) EXPECT_EQ(slot, 0u);
    previous = picture;
    VelmoNextFrame(ref);
    VelmoNextFrame(h);
  }
  VelmoClose(h);
  VelmoClose(ref);
}

INSTANTIATE_TEST_SUITE_P(
    Threads, VelmoAsyncPictures,
    ::testing::Values(Plan{{0}, -1, false}, Plan{{0, 1}, -1, false},
                      Plan{{4, 5, 6, 7}, -1, false}, Plan{{1}, 0, false}, Plan{{2, 3}, 0, false},
                      Plan{{0, 1, 2, 3}, 5000, false}, Plan{{9, 9}, -1, false},
                      Plan{{63, 10}, -1, false}, Plan{{0}, -1, true}, Plan{{0, 1}, -1, true},
                      Plan{{2, 3, 4}, 0, true}, Plan{{4, 5, 6, 7}, 5000, true}));

// ---------------------------------------------------------------------------------------------
// Refusals

TEST_F(VelmoAsyncTest, BadThreadNumbersAndDoubleStartsAreRefused) {
  const std::string outOfRange = "Out of range thread number.";
  const std::string notStarted = "Thread number not started.";
  EXPECT_EQ(Refusal([] { return VelmoStartAsyncThread(64); }), outOfRange);
  EXPECT_EQ(Refusal([] { return VelmoAsyncQueueFree(64); }), outOfRange);
  EXPECT_EQ(Refusal([] { return VelmoRequestStopAsyncThread(100); }), outOfRange);
  Start({3});
  EXPECT_EQ(VelmoAsyncQueueFree(3), 256u);
  EXPECT_EQ(Refusal([] { return VelmoStartAsyncThread(3); }),
            "Already loaded on this thread number.");
  EXPECT_EQ(Refusal([] { return VelmoRequestStopAsyncThread(11); }), notStarted);
  EXPECT_EQ(Refusal([] { return VelmoWaitStopAsyncThread(12); }), notStarted);

  HVELMO h = OpenImage(File);
  const uint32_t beyond[] = {3, 64}, idle[] = {3, 13};
  EXPECT_EQ(Refusal([&] { return VelmoDoFrameAsync(h, beyond, 2); }), outOfRange);
  EXPECT_EQ(Refusal([&] { return VelmoDoFrameAsync(h, idle, 2); }), notStarted);
  // Nothing went out: the frame is still there to decode.
  for (uint32_t slot : h->AsyncSlots) EXPECT_EQ(slot, 0u);
  EXPECT_EQ(VelmoStateOf(h)->FramesPlayed, 0u);
  EXPECT_EQ(VelmoDoFrame(h), 1u);
  VelmoClose(h);
}

// With nothing out a wait ends no frame. A slot that names a thread number that never had
// queues cannot be collected: the wait gives it up instead of waiting for ever.
TEST_F(VelmoAsyncTest, WaitWithNothingOutOrABrokenQueueEndsNoFrame) {
  HVELMO h = OpenImage(File);
  EXPECT_EQ(VelmoDoFrameAsyncWait(nullptr, -1), 1u);
  EXPECT_EQ(VelmoDoFrameAsyncWait(h, -1), 1u);
  EXPECT_EQ(VelmoDoFrameAsyncWait(h, 0), 1u);
  EXPECT_EQ(VelmoStateOf(h)->FramesPlayed, 0u);
  EXPECT_EQ(h->FrameBuffers->Current, 0u);
  h->AsyncSlots[0] = 45 | Given;  // no test starts thread 45
  VelmoSetError("none");
  EXPECT_EQ(VelmoDoFrameAsyncWait(h, -1), 1u);
  EXPECT_STREQ(VelmoGetError(), "Broken async queue.");
  EXPECT_EQ(h->AsyncSlots[0], 0u);
  VelmoClose(h);
}

TEST_F(VelmoAsyncTest, SecondStartOnAHandleIsRefusedUntilCollected) {
  Start({0, 1});
  HVELMO h = OpenImage(File);
  const uint32_t numbers[] = {0, 1};
  ASSERT_EQ(VelmoDoFrameAsync(h, numbers, 2), 1u);
  // Only this thread collects this handle's answers, so the slots stay set until it waits.
  EXPECT_EQ(Refusal([&] { return VelmoDoFrameAsync(h, numbers, 2); }),
            "There is already an async decompression in progress on this HVELMO.");
  VelmoNextFrame(h);
  VelmoGoto(h, 3, VelmoGotoExact | VelmoGotoDirect);
  EXPECT_EQ(h->FrameNum, 1u);  // no frame is selected while slices are out
  EXPECT_EQ(VelmoDoFrameAsyncWait(h, -1), 1u);
  EXPECT_EQ(Picture(h), Reference(1));
  // The frame is complete: a second decode of it is refused quietly, as VelmoDoFrame's is.
  EXPECT_EQ(Refusal([&] { return VelmoDoFrameAsync(h, numbers, 2); }), "none");
  VelmoNextFrame(h);
  EXPECT_EQ(h->FrameNum, 2u);
  VelmoClose(h);
}

// ---------------------------------------------------------------------------------------------
// Shares and thread order

TEST_F(VelmoAsyncTest, ThreadsBeyondTheSlicesGetNothing) {
  Start({20, 21, 22});
  HVELMO h = OpenImage(File);
  const uint32_t numbers[] = {20, 21, 22};
  ASSERT_EQ(VelmoDoFrameAsync(h, numbers, 3), 1u);
  // Equal queues keep the caller's order: luma to the first, chroma to the second.
  EXPECT_EQ(h->AsyncSlots[0], 20u | Given);
  EXPECT_EQ(h->AsyncSlots[1], 21u | Given);
  for (uint32_t s = 2; s < 8; ++s) EXPECT_EQ(h->AsyncSlots[s], 0u) << s;
  EXPECT_EQ(VelmoAsyncQueueFree(22), 256u);
  EXPECT_EQ(VelmoDoFrameAsyncWait(h, -1), 1u);
  EXPECT_EQ(Picture(h), Reference(1));
  VelmoClose(h);
}

TEST_F(VelmoAsyncTest, HeldWorkerKeepsTheFrameOpenAndFullerQueuesGoLast) {
  Start({30, 31});
  HVELMO a = OpenGated();
  HoldWorker(a, 30);
  // Held: asking gives 0 and does no end work; the walk does not move.
  EXPECT_EQ(VelmoDoFrameAsyncWait(a, 0), 0u);
  EXPECT_EQ(VelmoDoFrameAsyncWait(a, 2000), 0u);
  EXPECT_EQ(VelmoStateOf(a)->FramesPlayed, 0u);
  EXPECT_EQ(a->AsyncSlots[0], 30u | Given);
  VelmoNextFrame(a);
  EXPECT_EQ(a->FrameNum, 1u);

  // One message waits in thread 30's queue; a frame for both threads puts 31 first.
  HVELMO b = OpenImage(File);
  const uint32_t first[] = {30};
  ASSERT_EQ(VelmoDoFrameAsync(b, first, 1), 1u);
  EXPECT_EQ(VelmoAsyncQueueFree(30), 248u);
  HVELMO c = OpenImage(File);
  const uint32_t both[] = {30, 31};
  ASSERT_EQ(VelmoDoFrameAsync(c, both, 2), 1u);
  EXPECT_EQ(c->AsyncSlots[0], 31u | Given);
  EXPECT_EQ(c->AsyncSlots[1], 30u | Given);
  EXPECT_EQ(VelmoAsyncQueueFree(30), 240u);

  Release();
  const std::vector<uint8_t> one = Reference(1);
  for (HVELMO h : {a, b, c}) {
    EXPECT_EQ(VelmoDoFrameAsyncWait(h, -1), 1u);
    EXPECT_EQ(VelmoStateOf(h)->FramesPlayed, 1u);
    EXPECT_EQ(Picture(h), one);
    VelmoClose(h);
  }
}

TEST_F(VelmoAsyncTest, FullQueueIsEmptiedThroughTheAnswers) {
  Start({40});
  HVELMO held = OpenGated();
  HoldWorker(held, 40);
  // The held worker took its message; 32 more fill its queue.
  std::vector<HVELMO> queued;
  const uint32_t number = 40;
  for (uint32_t i = 0; i < 32; ++i) {
    queued.push_back(OpenImage(File));
    ASSERT_EQ(VelmoDoFrameAsync(queued.back(), &number, 1), 1u) << i;
    EXPECT_EQ(VelmoAsyncQueueFree(40), 256u - 8 * (i + 1));
  }
  // One more: the sender reads answers from the worker until there is room. It runs beside
  // this thread, which lets the worker go.
  HVELMO last = OpenImage(File);
  uint32_t sent = 0;
  std::thread sender([&] { sent = VelmoDoFrameAsync(last, &number, 1); });
  Release();
  sender.join();
  EXPECT_EQ(sent, 1u);
  queued.push_back(last);
  queued.push_back(held);
  const std::vector<uint8_t> one = Reference(1);
  for (HVELMO h : queued) {
    EXPECT_EQ(VelmoDoFrameAsyncWait(h, -1), 1u);
    EXPECT_EQ(Picture(h), one);
    VelmoClose(h);
  }
}

// ---------------------------------------------------------------------------------------------
// Stopping, restarting, closing

TEST_F(VelmoAsyncTest, StopFinishesQueuedSlicesAndANumberCanStartAgain) {
  HVELMO h = OpenImage(File);
  const uint32_t number = 2;
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(VelmoStartAsyncThread(number), 1u) << VelmoGetError();
    ASSERT_EQ(VelmoDoFrameAsync(h, &number, 1), 1u);
    // The stop goes behind the slice: it is decoded, and its answer waits after the thread left.
    EXPECT_EQ(VelmoRequestStopAsyncThread(number), 1u);
    EXPECT_EQ(VelmoRequestStopAsyncThread(number), 1u);  // asking twice is harmless
    EXPECT_EQ(VelmoWaitStopAsyncThread(number), 1u);
    EXPECT_EQ(VelmoDoFrameAsyncWait(h, -1), 1u);
    EXPECT_EQ(Picture(h), Reference(h->FrameNum));
    VelmoNextFrame(h);
    EXPECT_EQ(Refusal([&] { return VelmoDoFrameAsync(h, &number, 1); }),
              "Thread number not started.");
  }
  EXPECT_EQ(VelmoStateOf(h)->FramesPlayed, 2u);
  // A wait for the stop of a running thread asks for it first.
  Start({2});
  Started.clear();
  EXPECT_EQ(VelmoWaitStopAsyncThread(2), 1u);
  EXPECT_EQ(VelmoStartAsyncThread(2), 1u);
  EXPECT_EQ(VelmoWaitStopAsyncThread(2), 1u);
  VelmoClose(h);
}

TEST_F(VelmoAsyncTest, CloseWaitsForRunningSlices) {
  Start({50, 51});
  HVELMO h = OpenGated();
  AtomicStore(&Gate.Armed, 1);
  const uint32_t numbers[] = {50, 51};
  ASSERT_EQ(VelmoDoFrameAsync(h, numbers, 2), 1u);
  ASSERT_TRUE(SemaphoreWait(&Gate.Entered, WaitForever));
  // Close on another thread while one slice is held in its read; the close must not return
  // (and free the handle) before that slice has answered.
  uint32_t finishedAtClose = 0;
  std::thread closer([&] {
    VelmoClose(h);
    finishedAtClose = AtomicRead(&Gate.Finished);
  });
  while (!AtomicRead(&h->Closing)) ThreadPause();
  Release();
  closer.join();
  EXPECT_EQ(finishedAtClose, 1u);
  // The workers go on serving other handles.
  HVELMO other = OpenImage(File);
  ASSERT_EQ(VelmoDoFrameAsync(other, numbers, 2), 1u);
  EXPECT_EQ(VelmoDoFrameAsyncWait(other, -1), 1u);
  EXPECT_EQ(Picture(other), Reference(1));
  VelmoClose(other);
}

TEST_F(VelmoAsyncTest, CloseOfAHandleWhoseSlicesNeverStarted) {
  Start({52});
  HVELMO held = OpenGated();
  HoldWorker(held, 52);
  HVELMO waiting = OpenImage(File);
  const uint32_t number = 52;
  ASSERT_EQ(VelmoDoFrameAsync(waiting, &number, 1), 1u);
  std::thread closer([&] { VelmoClose(waiting); });
  Release();
  closer.join();
  // The close waited for its own answer, which comes after the held one's: on the way it read
  // that one too, and marked it collected for its handle.
  EXPECT_EQ(held->AsyncSlots[0], 52u | (Given & ~0x100u));
  EXPECT_EQ(VelmoDoFrameAsyncWait(held, -1), 1u);
  EXPECT_EQ(Picture(held), Reference(1));
  VelmoClose(held);
}

// Two handles on one thread, waited for from two threads: an answer read by the wrong waiter
// is passed on, and neither wait hangs.
TEST_F(VelmoAsyncTest, AnswersForAnotherHandleArePassedOn) {
  Start({60});
  File = BuildFile(MixedFirstGenerationPlan(32, 32, 4));
  HVELMO a = OpenImage(File), b = OpenImage(File);
  const uint32_t number = 60;
  std::vector<std::vector<uint8_t>> seenA, seenB;
  auto play = [&](HVELMO h, std::vector<std::vector<uint8_t>>* seen) {
    for (int i = 0; i < 40; ++i) {
      if (VelmoDoFrameAsync(h, &number, 1) != 1) return;
      VelmoDoFrameAsyncWait(h, -1);
      seen->push_back(Picture(h));
      VelmoNextFrame(h);
    }
  };
  std::thread other([&] { play(b, &seenB); });
  play(a, &seenA);
  other.join();
  ASSERT_EQ(seenA.size(), 40u);
  ASSERT_EQ(seenB.size(), 40u);
  EXPECT_EQ(seenA, seenB);
  for (uint32_t f = 1; f <= 4; ++f) EXPECT_EQ(seenA[f - 1], Reference(f)) << f;
  VelmoClose(a);
  VelmoClose(b);
}

// ---------------------------------------------------------------------------------------------
// The queue itself

class AsyncQueueTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(AsyncQueueCreate(&Q), nullptr); }
  void TearDown() override { AsyncQueueDestroy(&Q); }
  AsyncQueue Q{};
};

TEST_F(AsyncQueueTest, FillsUpAndWrapsMessagesWhole) {
  uint64_t m = 0;
  for (uint64_t i = 0; i < 32; ++i) {
    m = i + 1;
    ASSERT_TRUE(AsyncQueueWrite(&Q, &m, 8)) << i;
  }
  EXPECT_EQ(AsyncQueueFree(&Q), 0u);
  EXPECT_FALSE(AsyncQueueWrite(&Q, &m, 8));
  uint64_t got = 0;
  ASSERT_TRUE(AsyncQueueRead(&Q, &got, 8, 0));
  EXPECT_EQ(got, 1u);
  EXPECT_EQ(AsyncQueueFree(&Q), 8u);
  for (uint64_t i = 2; i <= 32; ++i) {
    ASSERT_TRUE(AsyncQueueRead(&Q, &got, 8, 0));
    EXPECT_EQ(got, i);
  }
  EXPECT_FALSE(AsyncQueueRead(&Q, &got, 8, 0));

  // 16-byte messages from an 8-byte offset: one of them lies across the ring's end.
  ASSERT_TRUE(AsyncQueueWrite(&Q, &m, 8));
  ASSERT_TRUE(AsyncQueueRead(&Q, &got, 8, 0));
  for (uint64_t i = 0; i < 16; ++i) {
    const uint64_t pair[2] = {i, ~i * 3};
    ASSERT_TRUE(AsyncQueueWrite(&Q, pair, 16)) << i;
  }
  EXPECT_FALSE(AsyncQueueWrite(&Q, &m, 8));
  for (uint64_t i = 0; i < 16; ++i) {
    uint64_t pair[2] = {};
    ASSERT_TRUE(AsyncQueueRead(&Q, pair, 16, 0));
    EXPECT_EQ(pair[0], i);
    EXPECT_EQ(pair[1], ~i * 3);
  }
  EXPECT_EQ(AsyncQueueFree(&Q), 256u);
}

TEST_F(AsyncQueueTest, WakeUpsWithoutDataAreCappedAndTakeNothing) {
  for (int i = 0; i < 20; ++i) AsyncQueueNudge(&Q);
  EXPECT_EQ(Q.Nudges, AsyncQueueMaxNudges);
  uint64_t got = 7;
  for (uint32_t i = 0; i < AsyncQueueMaxNudges; ++i) EXPECT_FALSE(AsyncQueueRead(&Q, &got, 8, 0));
  EXPECT_EQ(Q.Nudges, 0u);
  EXPECT_EQ(got, 7u);
  // A wake-up does not eat a message that comes after it.
  AsyncQueueNudge(&Q);
  const uint64_t m = 42;
  ASSERT_TRUE(AsyncQueueWrite(&Q, &m, 8));
  bool taken = false;
  for (int i = 0; i < 2 && !taken; ++i) taken = AsyncQueueRead(&Q, &got, 8, 0);
  EXPECT_TRUE(taken);
  EXPECT_EQ(got, 42u);
}

TEST_F(AsyncQueueTest, AWriterWaitingForRoomIsWokenByATaker) {
  uint64_t m = 0;
  for (uint64_t i = 0; i < 32; ++i) {
    m = i;
    ASSERT_TRUE(AsyncQueueWrite(&Q, &m, 8));
  }
  std::thread writer([&] {
    const uint64_t late = 99;
    while (!AsyncQueueWrite(&Q, &late, 8)) SemaphoreWait(&Q.SpaceReady, WaitForever);
  });
  uint64_t got = 0;
  ASSERT_TRUE(AsyncQueueRead(&Q, &got, 8, WaitForever));
  writer.join();
  std::vector<uint64_t> rest;
  while (AsyncQueueRead(&Q, &got, 8, 0)) rest.push_back(got);
  ASSERT_EQ(rest.size(), 32u);
  EXPECT_EQ(rest.front(), 1u);
  EXPECT_EQ(rest.back(), 99u);
}

}  // namespace
