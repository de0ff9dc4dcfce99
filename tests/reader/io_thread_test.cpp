// The "Velmo IO" thread: the fairness rule and its thresholds, one round over stub providers
// (pending frame reads first, then reading ahead where it is wanted most), and the real thread
// serving several handles: filling their rings, doing their frame reads, suspend and resume, a
// close while it is in the middle of a read, keeping it alive, and many opens and closes.
#include "io_test_medium.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace {

using namespace io_test;

// Below 103 the current handle keeps the thread unless another is under 12; from 103 another
// under 25 takes it, from 122 another under 64. A current handle that cannot be read (129) keeps
// it only against others that cannot be read either.
TEST(ReaderFairness, StaysUntilAnotherBufferIsClearlyEmptier) {
  const uint32_t stays[][3] = {// current, another, whether the current one keeps the thread
                               {0, 12, 1},   {0, 11, 0},   {102, 12, 1},  {103, 25, 1},
                               {103, 24, 0}, {121, 25, 1}, {122, 64, 1},  {122, 63, 0},
                               {128, 63, 0}, {128, 128, 1}, {129, 50, 0}, {129, 129, 1}};
  for (const auto& [current, other, stay] : stays)
    EXPECT_EQ(VelmoIOStayWithCurrent(current, other), stay != 0) << current << " " << other;
}

// Stale room after copying out is capped at the used bytes; a suspended or failed provider
// cannot be read.
TEST(ReaderFairness, FullnessIsUsedOverRoomIn128ths) {
  IOProvider io{};
  EXPECT_EQ(VelmoIOFullness(&io), 129u);  // no ring
  io.BufferSize = 8 * Unit;
  const uint64_t cases[][5] = {// free, used, suspended, error, fullness
                               {4, 1, 0, 0, 32},  {4, 4, 0, 0, 128}, {2, 4, 0, 0, 128},
                               {0, 4, 0, 0, 128}, {4, 4, 1, 0, 129}, {4, 4, 0, 1, 129}};
  for (const auto& [free, used, suspended, error, fullness] : cases) {
    io.BufferFree = free * Unit;
    io.BufferUsed = used * Unit;
    io.Suspended = uint32_t(suspended);
    io.ReadError = uint32_t(error);
    EXPECT_EQ(VelmoIOFullness(&io), fullness)
        << free << " " << used << " " << suspended << " " << error;
  }
}

// ---------------------------------------------------------------------------------------------
// One round over stub providers: each records its calls and claims to have read.

std::vector<std::pair<char, char>> Calls;  // (handle, 'i' idle or 'f' frame read)

char NameOf(IOProvider* io) { return char(reinterpret_cast<uintptr_t>(io->Context)); }
uint32_t StubIdle(IOProvider* io) {
  Calls.push_back({NameOf(io), 'i'});
  return 1000;
}
uint64_t StubReadFrame(IOProvider* io, uint32_t, uint64_t, void*, uint64_t size) {
  Calls.push_back({NameOf(io), 'f'});
  return size;
}

struct StubHandle {
  Rig R;
  uint8_t Packet[64] = {};
  StubHandle(char name, uint32_t fullness) {
    IOProvider* io = R.Io;
    io->Idle = StubIdle;
    io->ReadFrame = StubReadFrame;
    io->Context = reinterpret_cast<void*>(uintptr_t(name));
    io->Owner = R.H;
    io->BufferSize = 128 * Unit;
    io->BufferFree = 128 * Unit;
    io->BufferUsed = fullness * Unit;
    R.H->OnReaderList = 1;
  }
  VelmoHandle* H() { return R.H; }
  void Pending() {
    R.H->FrameData = Packet;
    R.H->FrameSize = 64;
    R.H->FrameReadPending = 1;
  }
};

using CallList = std::vector<std::pair<char, char>>;

bool Has(const std::vector<const char*>& states, size_t i, char what) {
  return i < states.size() && std::strchr(states[i], what);
}

// Handles named 'a', 'b', ... in list order. Pending frame reads come first and move the thread;
// then reading ahead stays with the current handle unless another is clearly emptier, and the
// emptiest takes it. Closing, suspended and foreground handles are left alone, and a frame read
// whose lock the caller holds stays pending (the round says so, and chooses nothing meanwhile).
TEST(ReaderRound, FrameReadsFirstThenReadingAheadWhereItIsWantedMost) {
  struct Case {
    const char* What;
    std::vector<uint32_t> Fullness;
    // Per handle: p a frame read pending, c closing, n no background reading, s suspended, and
    // the caller holding F the frame read lock or P the provider lock.
    std::vector<const char*> State;
    int Current;  // -1: none yet
    uint32_t Result;
    CallList Calls;
    int Then;
  };
  const Case cases[] = {
      {"others not much emptier", {110, 30}, {}, 0, 0, {{'a', 'i'}}, 0},
      {"a far emptier handle takes it", {110, 20}, {}, 0, 0, {{'a', 'i'}, {'b', 'i'}}, 1},
      {"and a fuller one does not take it back", {110, 20}, {}, 1, 0, {{'b', 'i'}}, 1},
      {"the emptiest of several", {125, 60, 40, 50}, {}, 0, 0, {{'a', 'i'}, {'c', 'i'}}, 2},
      {"a nearly empty one takes it from a current far from full", {125, 60, 40, 50, 11}, {}, 2,
       0, {{'c', 'i'}, {'e', 'i'}}, 4},
      {"no current yet", {90, 100}, {}, -1, 0, {{'a', 'i'}}, 0},
      {"a frame read first; the emptiest then takes the thread back", {10, 100, 100},
       {"", "p"}, 0, 0, {{'b', 'f'}, {'a', 'i'}}, 0},
      {"the frame read lock taken", {100, 10}, {"", "pF"}, 0, 1, {{'a', 'i'}}, 0},
      {"the provider lock taken", {100, 10}, {"", "pP"}, 0, 1, {{'a', 'i'}}, 0},
      {"closing, foreground and suspended", {50, 0, 0, 0}, {"", "cp", "n", "s"}, 0, 0,
       {{'a', 'i'}}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.What);
    VelmoIOReaderList list{};
    std::vector<std::unique_ptr<StubHandle>> handles;
    VelmoHandle** link = &list.First;
    for (size_t i = 0; i < c.Fullness.size(); ++i) {
      handles.push_back(std::make_unique<StubHandle>(char('a' + i), c.Fullness[i]));
      VelmoState* h = handles.back()->R.H;
      if (Has(c.State, i, 'p')) handles.back()->Pending();
      h->Closing = Has(c.State, i, 'c');
      if (Has(c.State, i, 'n')) h->OpenFlags = VelmoOpenNoBackground;
      h->IOProvider.Suspended = Has(c.State, i, 's');
      if (Has(c.State, i, 'F')) LockEnter(&h->FrameReadLock);
      if (Has(c.State, i, 'P')) LockEnter(&h->ProviderLock);
      *link = h;
      link = &h->NextOpen;
    }
    list.Current = c.Current < 0 ? nullptr : handles[size_t(c.Current)]->H();
    Calls.clear();
    bool read = false;
    uint32_t result = 99;
    std::thread([&] { result = VelmoIORound(&list, &read); }).join();  // not the locks' owner
    EXPECT_EQ(result, c.Result);
    EXPECT_TRUE(read);
    EXPECT_EQ(Calls, c.Calls);
    EXPECT_EQ(list.Current, handles[size_t(c.Then)]->H());
    for (size_t i = 0; i < handles.size(); ++i) {
      VelmoState* h = handles[i]->R.H;
      if (Has(c.State, i, 'F')) LockLeave(&h->FrameReadLock);
      if (Has(c.State, i, 'P')) LockLeave(&h->ProviderLock);
      if (!Has(c.State, i, 'p')) continue;
      const bool served = std::count(Calls.begin(), Calls.end(), std::pair{char('a' + i), 'f'});
      EXPECT_EQ(h->FrameReadPending, served ? 0u : 1u) << i;
      if (served) {
        EXPECT_EQ(h->NextReadPosition, 64u);
      }
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The thread itself, on fake media.

class ReaderThreadTest : public MediumTest {
 protected:
  void TearDown() override {
    SetHold(false);  // before the thread is stopped
    VelmoIOStopUnused();
    EXPECT_FALSE(VelmoIOThreadRunning());
    MediumTest::TearDown();
  }
  // A handle on its own medium with a ring of `ringUnits`, registered with the thread.
  std::unique_ptr<Rig> Open(uint64_t fileSize, uint64_t ringUnits, uint32_t flags = 0,
                            uint32_t rate = 0) {
    auto r = Start(fileSize, ringUnits * Unit, 44, flags, rate);
    EXPECT_TRUE(VelmoIORegister(r->H));
    AtomicStore(&r->H->OnReaderList, 1);
    return r;
  }
  void Close(Rig* r) {
    AtomicStore(&r->H->Closing, 1);
    VelmoIOUnregister(r->H);
    r->H->OnReaderList = 0;
  }
  // No unit fits any more, or the file is all in.
  static bool Full(Rig* r) {
    return AtomicRead64(&r->Io->RingFree) < Unit ||
           __atomic_load_n(&r->Io->NextFilePos, __ATOMIC_SEQ_CST) >= r->Io->FileTotal;
  }
};

TEST_F(ReaderThreadTest, FillsEveryRingAndStopsWithTheLastHandle) {
  const uint32_t starts = VelmoIOThreadStarts();
  auto a = Open(20 * Unit, 4);
  auto b = Open(20 * Unit, 6);
  auto c = Open(Unit / 2, 2);  // a small file, read to its end
  EXPECT_TRUE(VelmoIOThreadRunning());
  EXPECT_EQ(VelmoIOUserCount(), 3u);
  EXPECT_EQ(VelmoIOThreadStarts(), starts + 1);
  VelmoIOWake(1);
  ASSERT_TRUE(WaitFor([&] { return Full(a.get()) && Full(b.get()) && Full(c.get()); }));
  EXPECT_EQ(a->Used(), 4 * Unit - 44);
  EXPECT_EQ(b->Used(), 6 * Unit - 44);
  EXPECT_EQ(c->Used(), Unit / 2 - 44);
  // Copying out makes room; a wake-up fills it again.
  ASSERT_TRUE(a->Packet(VELMO_IO_CONTINUE, 3 * Unit, 44));
  VelmoIOWake(1);
  ASSERT_TRUE(WaitFor([&] { return __atomic_load_n(&a->Io->NextFilePos, 0) == 7 * Unit; }));
  Close(b.get());
  Close(a.get());
  EXPECT_TRUE(VelmoIOThreadRunning());
  Close(c.get());
  EXPECT_FALSE(VelmoIOThreadRunning());
  EXPECT_EQ(VelmoIOUserCount(), 0u);
}

TEST_F(ReaderThreadTest, TheThreadDoesPendingFrameReads) {
  auto a = Open(20 * Unit, 2);
  std::vector<uint8_t> packet(3 * Unit);
  VelmoState* h = a->H;
  h->FrameData = packet.data();
  h->FramePosition = 5 * Unit + 77;
  h->FrameSize = uint32_t(packet.size());
  h->PendingFrame = 9;
  AtomicStore(&h->FrameReadPending, 1);
  VelmoIOWake(1);
  ASSERT_TRUE(WaitFor([&] { return AtomicRead(&h->FrameReadPending) == 0; }));
  LockEnter(&h->FrameReadLock);  // the thread has let go of the packet
  for (size_t i = 0; i < packet.size(); i += 997)
    ASSERT_EQ(packet[i], PatternByte(5 * Unit + 77 + i)) << i;
  EXPECT_EQ(h->NextReadPosition, 8 * Unit + 77);
  EXPECT_EQ(h->ReadError, 0u);
  LockLeave(&h->FrameReadLock);
  Close(a.get());
}

TEST_F(ReaderThreadTest, ASuspendedHandleIsNotReadAhead) {
  auto a = Open(20 * Unit, 4);
  EXPECT_EQ(a->Io->BackgroundControl(a->Io, VelmoIOSuspend | uint32_t(VelmoIOFlush)), 1u);
  VelmoIOWake(4);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(a->Used(), 0u);
  EXPECT_EQ(a->Io->BackgroundControl(a->Io, VelmoIOResume), 0u);  // wakes the thread itself
  ASSERT_TRUE(WaitFor([&] { return Full(a.get()); }));
  Close(a.get());
}

TEST_F(ReaderThreadTest, CloseWaitsForAReadInProgress) {
  auto a = Open(20 * Unit, 4);
  auto b = Open(20 * Unit, 4);
  SetHold(true);
  VelmoIOWake(1);
  ASSERT_TRUE(WaitFor([&] { return Waiting() == 1; }));  // the thread is inside a read
  Rig* reading = AtomicRead(&a->Io->Reading) ? a.get() : b.get();
  ASSERT_EQ(AtomicRead(&reading->Io->Reading), 1u);
  std::atomic<bool> closed{false};
  std::thread closer([&] {
    Close(reading);
    closed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(closed);
  SetHold(false);
  closer.join();
  EXPECT_EQ(reading->Io->Reading, 0u);
  // The closed handle's memory goes now; the thread must not touch it again.
  if (reading == a.get()) a.reset();
  else b.reset();
  Rig* other = a ? a.get() : b.get();
  VelmoIOWake(1);
  ASSERT_TRUE(WaitFor([&] { return Full(other); }));
  Close(other);
}

TEST_F(ReaderThreadTest, ASlowSimulatedMediumDoesNotHoldUpOpensAndCloses) {
  VelmoSetClockForTest(nullptr);  // the simulation sleeps on the real clock
  // 16 KB per second: a unit takes 8 s to pay for.
  auto a = Open(20 * Unit, 4, 0, 16384);
  const uint32_t calls = M.ReadCalls;
  VelmoIOWake(1);
  ASSERT_TRUE(WaitFor([&] { return M.ReadCalls > calls; }));  // now paying for the unit
  const uint32_t start = TimerMs();
  auto b = Open(4 * Unit, 2);
  Close(b.get());
  Close(a.get());
  EXPECT_LT(TimerMs() - start, 4000u);  // half of what the unit costs, for a loaded machine
  EXPECT_FALSE(VelmoIOThreadRunning());
}

TEST_F(ReaderThreadTest, AKeptThreadServesTheNextOpen) {
  const uint32_t starts = VelmoIOThreadStarts();
  auto a = Open(4 * Unit, 2, VelmoOpenKeepThreads);
  Close(a.get());
  a.reset();
  EXPECT_TRUE(VelmoIOThreadRunning());
  auto b = Open(4 * Unit, 2);
  EXPECT_EQ(VelmoIOThreadStarts(), starts + 1);
  VelmoIOWake(1);
  ASSERT_TRUE(WaitFor([&] { return Full(b.get()); }));
  Close(b.get());
  EXPECT_FALSE(VelmoIOThreadRunning());
}

TEST_F(ReaderThreadTest, ManyOpensAndClosesWhileReading) {
  const uint32_t starts = VelmoIOThreadStarts();
  for (int cycle = 0; cycle < 25; ++cycle) {
    std::vector<std::unique_ptr<Rig>> open;
    for (int i = 0; i < 3; ++i) open.push_back(Open(6 * Unit, 2));
    VelmoIOWake(2);
    // Read a little while the thread works, then close in a changing order.
    ASSERT_TRUE(open[cycle % 3]->Packet(VELMO_IO_CONTINUE, 3 * Unit, 44));
    for (int i = 0; i < 3; ++i) {
      const size_t k = (cycle + i * 2) % open.size();
      Close(open[k].get());
      open.erase(open.begin() + long(k));
      VelmoIOWake(1);
    }
  }
  EXPECT_EQ(VelmoIOThreadStarts(), starts + 25);
  EXPECT_EQ(VelmoIOUserCount(), 0u);
}

}  // namespace
