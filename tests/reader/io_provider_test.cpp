// The default file provider on its own: buffer sizes, the ring's set-up, reading ahead in
// 128 KiB units on unit boundaries, copying packets out across the ring's end and beyond what it
// holds, seeks inside and outside the ring, a ring that holds the whole file, the touch at the
// loop point, read errors, header reads, the simulated slow medium, the time counters,
// suspending, and a missing file.
#include "io_test_medium.h"

#include <cstdlib>
#include <random>
#include <thread>

namespace {

using namespace io_test;
using Row = std::vector<uint64_t>;

class FileProviderTest : public MediumTest {};

TEST_F(FileProviderTest, BufferSizesComeInUnitsWithRoomToAlign) {
  auto r = Start(100);
  // (Wanted, given): a rounded value is not below 0x40000.
  const uint64_t sizes[][2] = {{0, 0x41000},       {1, 0x41000},       {0x3FFFF, 0x41000},
                               {0x40000, 0x41000}, {0x40001, 0x61000}, {0x60000, 0x61000},
                               {0x1000000, 0x1001000}};
  for (const auto& [wanted, given] : sizes)
    EXPECT_EQ(r->Io->GetBufferSize(r->Io, wanted), given) << wanted;
}

TEST_F(FileProviderTest, SetInfoAlignsTheRingAndKeepsWholeUnits) {
  const uint64_t fileSize = 4 * Unit;
  auto r = Start(fileSize);
  // A block 100 bytes past a boundary: the ring starts on the next one, whole units only.
  r->GiveRing(0x61000, fileSize, 0, 100);
  const IOProvider& io = *r->Io;
  EXPECT_EQ(reinterpret_cast<uintptr_t>(io.RingStart) % VelmoIOAlign, 0u);
  EXPECT_EQ(io.RingWrite, io.RingStart);
  // Size, ring length, room, free, used, read offset, file size.
  EXPECT_EQ(Row({io.BufferSize, uint64_t(io.RingEnd - io.RingStart), io.RingFree, io.BufferFree,
                 r->Used(), io.RingRead, io.FileTotal}),
            Row({3 * Unit, 3 * Unit, 3 * Unit, 3 * Unit, 0, 0, fileSize}));

  // Aligned exactly: nothing is lost.
  r->GiveRing(2 * Unit, fileSize);
  EXPECT_EQ(r->Io->BufferSize, 2 * Unit);
  // A block that holds the whole file keeps all of it, units or not.
  r->GiveRing(fileSize + 16, fileSize);
  EXPECT_EQ(r->Io->BufferSize, fileSize + 16);
}

TEST_F(FileProviderTest, ReadsAheadInUnitsOnFileUnitBoundaries) {
  auto r = Start(10 * Unit + 5000, 4 * Unit, 3000);  // header and tables read unbuffered
  ClearLog();

  // The first unit was entered by the header reads: its head is skipped in the ring too.
  EXPECT_EQ(r->Idle(), Unit - 3000);
  EXPECT_EQ(r->Io->RingRead, 3000u);
  EXPECT_EQ(r->Used(), Unit - 3000);
  EXPECT_EQ(r->Fill(), 3u);
  EXPECT_EQ(Reads(),
            (Spans{{3000, Unit - 3000}, {Unit, Unit}, {2 * Unit, Unit}, {3 * Unit, Unit}}));
  // Full: the head of the first unit is all the room there is, and no unit fits. Room, used,
  // the highest use, free (capped at the used), the next position and the bytes read.
  EXPECT_EQ(Row({r->Io->RingFree, r->Used(), r->Io->HighWater, r->Io->BufferFree,
                 r->Io->NextFilePos, r->Io->BytesRead}),
            Row({3000, 4 * Unit - 3000, 4 * Unit - 3000, 4 * Unit - 3000, 4 * Unit, 4 * Unit}));

  // Copying out the first unit's data frees exactly one unit.
  EXPECT_TRUE(r->Packet(VELMO_IO_CONTINUE, 1000, 3000));
  EXPECT_EQ(r->Idle(), 0u);
  EXPECT_TRUE(r->Packet(VELMO_IO_CONTINUE, Unit - 4000, 4000));
  EXPECT_EQ(r->Io->RingFree, Unit);
  EXPECT_EQ(r->Idle(), Unit);
  EXPECT_EQ(Log().back().Position, 4 * Unit);
  EXPECT_EQ(r->Io->RingWrite, r->Io->RingStart + Unit);  // went round to the start
}

TEST_F(FileProviderTest, PacketsStraddleTheRingEndAndWhatItHolds) {
  const uint64_t fileSize = 12 * Unit + 777;
  auto r = Start(fileSize, 2 * Unit);
  r->Fill();
  // Packets of odd sizes, read in order, go round the small ring several times; some are
  // larger than the ring, so they are partly in it and partly still on the medium.
  uint64_t at = 44;
  const uint64_t sizes[] = {70000, 90001, 3 * Unit + 17, 1, Unit, 2 * Unit - 44, 123457, 65536};
  for (uint64_t bytes : sizes) {
    ASSERT_TRUE(r->Packet(VELMO_IO_CONTINUE, bytes, at)) << "packet at " << at;
    at += bytes;
    EXPECT_EQ(r->Io->LogicalPos, at);
    EXPECT_EQ(r->Io->RingFree + r->Used(), r->Io->BufferSize);
    r->Idle();  // the thread would top up between packets
  }
  // Every read after the first was one whole unit on a unit boundary.
  const std::vector<Read> log = Log();
  for (size_t i = 2; i < log.size(); ++i) {
    EXPECT_EQ(log[i].Position % Unit, 0u) << i;
    EXPECT_EQ(log[i].Bytes, Unit) << i;
  }
  // The rest of the file, up to its last byte; then nothing more is there.
  ASSERT_TRUE(r->Packet(VELMO_IO_CONTINUE, fileSize - at, at));
  std::vector<uint8_t> more(10);
  EXPECT_EQ(r->Io->ReadFrame(r->Io, 1, VELMO_IO_CONTINUE, more.data(), 10), 0u);
  EXPECT_EQ(r->Io->NextFilePos, fileSize);
}

TEST_F(FileProviderTest, SeekInsideTheRingDiscardsNothing) {
  auto r = Start(8 * Unit, 4 * Unit);
  r->Fill();
  const size_t reads = Log().size();
  const uint64_t used = r->Used();
  ASSERT_TRUE(r->Packet(50000, 1000, 50000));
  EXPECT_EQ(Log().size(), reads);
  EXPECT_EQ(r->Used(), used - (51000 - 44));
  // Right at the end of what the ring holds is still inside: the packet is read on from there.
  const uint64_t end = r->Io->NextFilePos;
  ASSERT_TRUE(r->Packet(end, 100, end));
  EXPECT_EQ(Log().size(), reads + 1);
  EXPECT_EQ(Log().back().Position, end);
}

TEST_F(FileProviderTest, SeekOutsideTheRingStartsOverOnTheUnit) {
  const uint64_t fileSize = 8 * Unit;
  auto r = Start(fileSize, 2 * Unit);
  r->Fill();
  ClearLog();
  // Forward past the ring: the unit that holds the position is read first.
  ASSERT_TRUE(r->Packet(5 * Unit + 1234, 5000, 5 * Unit + 1234));
  EXPECT_EQ(Reads(), (Spans{{5 * Unit, Unit}}));
  EXPECT_EQ(r->Io->LogicalPos, 5 * Unit + 6234);
  EXPECT_EQ(r->Used(), Unit - 6234);
  // Backward: before the copying end is outside too.
  ClearLog();
  ASSERT_TRUE(r->Packet(10, 20, 10));
  EXPECT_EQ(Reads(), (Spans{{0, Unit}}));
  // Sequential reading goes on from there.
  ASSERT_TRUE(r->Packet(VELMO_IO_CONTINUE, 2 * Unit, 30));
  // Past the end of the file nothing comes, and nothing breaks.
  std::vector<uint8_t> out(16);
  EXPECT_EQ(r->Io->ReadFrame(r->Io, 1, fileSize + 5, out.data(), 16), 0u);
  EXPECT_EQ(r->Io->ReadError, 0u);
}

TEST_F(FileProviderTest, ARingThatHoldsTheWholeFileReadsItOnce) {
  const uint64_t fileSize = 2 * Unit + 37856;
  auto r = Start(fileSize, fileSize + 16);
  ASSERT_EQ(r->Io->BufferSize, fileSize + 16);
  EXPECT_EQ(r->Fill(), 3u);
  EXPECT_EQ(r->Io->NextFilePos, fileSize);
  ClearLog();
  // Anywhere in what was read, backwards too, without a read.
  EXPECT_TRUE(r->Packet(2 * Unit + 100, 3000, 2 * Unit + 100));
  EXPECT_TRUE(r->Packet(44, 100, 44));
  EXPECT_TRUE(r->Packet(Unit - 10, 20, Unit - 10));
  EXPECT_TRUE(r->Packet(VELMO_IO_CONTINUE, fileSize - Unit - 10, Unit + 10));
  EXPECT_TRUE(r->Packet(1000, 10, 1000));
  EXPECT_TRUE(Log().empty());
  // The header was never in the ring: asking for it starts over at the file's start.
  EXPECT_TRUE(r->Packet(10, 30, 10));
  ASSERT_FALSE(Log().empty());
  EXPECT_EQ(Log()[0].Position, 0u);
}

TEST_F(FileProviderTest, LoopTouchesTheFirstFrameOncePerRequest) {
  const uint64_t fileSize = 3 * Unit;
  auto r = Start(fileSize, 2 * Unit, 2048, VelmoOpenFileLoop);
  r->FrameTable[0] = 2048 | 1;  // frame 1 at 2048, a key frame
  r->Fill();
  auto touches = [&] {
    uint32_t n = 0;
    for (const Read& read : Log())
      if (read.Bytes == VelmoIOLoopTouch) {
        EXPECT_EQ(read.Position, 2048u - VelmoIOLoopTouch);
        ++n;
      }
    return n;
  };
  const bool loopFlag[] = {true, true, false};
  for (int pass = 0; pass < 3; ++pass) {
    // Play to the end, keeping the ring full, and go on asking at the end. The player asks for
    // the touch on each pass by setting the loop flag again.
    ClearLog();
    VelmoSetFileLoop(r->H, loopFlag[pass] ? 1 : 0);
    uint64_t at = r->Io->LogicalPos;
    while (at < fileSize) {
      const uint64_t bytes = std::min<uint64_t>(50000, fileSize - at);
      ASSERT_TRUE(r->Packet(VELMO_IO_CONTINUE, bytes, at));
      at += bytes;
      r->Idle();
    }
    EXPECT_EQ(r->Idle(), 0u);
    EXPECT_EQ(r->Idle(), 0u);
    EXPECT_EQ(touches(), loopFlag[pass] ? 1u : 0u) << "pass " << pass;
    EXPECT_EQ(r->Io->WrapRead, loopFlag[pass] ? 1u : 0u);
    // Taking up the touch cleared the flag.
    EXPECT_EQ(r->H->OpenFlags & VelmoOpenFileLoop, 0u) << "pass " << pass;
    // Set again before the read-ahead went on, it is cleared with the mark by the first real
    // read after the touch.
    if (pass == 1) VelmoSetFileLoop(r->H, 1);
    ASSERT_TRUE(r->Packet(2048, 100, 2048));
    EXPECT_EQ(r->Io->WrapRead, 0u);
    EXPECT_EQ(r->H->OpenFlags & VelmoOpenFileLoop, 0u) << "pass " << pass;
  }
}

TEST_F(FileProviderTest, AShortReadFailsTheProviderForGood) {
  auto r = Start(6 * Unit, 4 * Unit);
  File(0).FailAt = 2 * Unit + 100;
  EXPECT_EQ(r->Idle(), Unit - 44);
  EXPECT_EQ(r->Idle(), Unit);
  EXPECT_EQ(r->Io->ReadError, 0u);
  EXPECT_EQ(r->Idle(), 100u);  // the medium gave up inside the unit
  EXPECT_EQ(r->Io->ReadError, 1u);
  const size_t reads = Log().size();
  EXPECT_EQ(r->Idle(), 0u);
  EXPECT_EQ(Log().size(), reads);  // not retried
  std::vector<uint8_t> out(10);
  EXPECT_EQ(r->Io->ReadFrame(r->Io, 1, 44, out.data(), 10), 0u);
  EXPECT_EQ(VelmoIOFullness(r->Io), 129u);
}

TEST_F(FileProviderTest, APacketThatRunsIntoAFailureComesBackShort) {
  auto r = Start(6 * Unit, 2 * Unit, 44, VelmoOpenNoBackground);
  File(0).FailAt = Unit + 10;
  std::vector<uint8_t> out(2 * Unit);
  EXPECT_EQ(r->Io->ReadFrame(r->Io, 1, VELMO_IO_CONTINUE, out.data(), out.size()),
            Unit + 10 - 44);
  EXPECT_EQ(r->Io->ReadError, 1u);
}

TEST_F(FileProviderTest, HeaderReadsAreUnbufferedAndFollowOn) {
  const uint64_t fileSize = 3 * Unit;
  Rig r;
  // The Velmo file lies 5000 bytes into the physical one.
  std::vector<uint8_t> data = PatternFile(fileSize, 5000);
  std::fill(data.begin(), data.begin() + 5000, 0xAB);
  const std::string name = AddMedium(std::move(data));
  VelmoOpenOptions o{};
  o.FileOffset = 5000;
  ASSERT_TRUE(r.Open(name.c_str(), VelmoOpenFileOffset, &o));
  EXPECT_EQ(r.Io->BaseOffset, 5000u);
  EXPECT_EQ(File(0).Pos, 5000u);  // moved there at once

  uint8_t head[44];
  ASSERT_EQ(r.Io->ReadHeader(r.Io, 0, head, 44), 44u);
  EXPECT_EQ(r.Io->FileTotal, fileSize);
  for (int i = 8; i < 44; ++i) EXPECT_EQ(head[i], PatternByte(i));
  // Going on from where the last one ended needs no seek.
  const uint32_t seeks = M.Seeks;
  uint8_t more[100];
  ASSERT_EQ(r.Io->ReadHeader(r.Io, VELMO_IO_CONTINUE, more, 100), 100u);
  EXPECT_EQ(M.Seeks, seeks);
  EXPECT_EQ(more[0], PatternByte(44));
  EXPECT_EQ(r.Io->NextFilePos, 144u);
  EXPECT_EQ(r.Io->LogicalPos, 144u);
  // Elsewhere: a seek, with the offset added.
  ASSERT_EQ(r.Io->ReadHeader(r.Io, 70000, more, 100), 100u);
  EXPECT_EQ(more[0], PatternByte(70000));
  EXPECT_EQ(Log().back().Position, 75000u);
  // A read past the end is short and fails the provider.
  EXPECT_EQ(r.Io->ReadHeader(r.Io, fileSize - 10, more, 100), 10u);
  EXPECT_EQ(r.Io->ReadError, 1u);
}

TEST_F(FileProviderTest, PlatformReadsThatGiveLessAreRepeated) {
  auto r = Start(Unit);
  File(0).MaxPiece = 1000;
  std::vector<uint8_t> out(5500);
  ASSERT_EQ(r->Io->ReadHeader(r->Io, 0, out.data(), out.size()), out.size());
  EXPECT_EQ(Log().size(), 6u);
  EXPECT_EQ(out[5499], PatternByte(5499));
  EXPECT_EQ(r->Io->ReadError, 0u);
}

TEST_F(FileProviderTest, ABlockTooSmallToReadAheadReadsDirect) {
  auto r = Start(5 * Unit, 2 * Unit);
  r->GiveRing(Unit / 2, 5 * Unit);  // smaller than a unit and than the file: the ring goes
  ASSERT_EQ(r->Io->BufferSize, 0u);
  EXPECT_EQ(r->Io->RingStart, nullptr);
  EXPECT_EQ(r->Idle(), 0u);
  ClearLog();
  EXPECT_TRUE(r->Packet(VELMO_IO_CONTINUE, 3 * Unit, 44));
  EXPECT_TRUE(r->Packet(4 * Unit + 3, 500, 4 * Unit + 3));
  EXPECT_EQ(Reads(), (Spans{{44, 3 * Unit}, {4 * Unit + 3, 500}}));
  EXPECT_EQ(VelmoIOFullness(r->Io), 129u);
}

TEST_F(FileProviderTest, ReadTimeIsBookedByWhetherALibraryCallRuns) {
  auto r = Start(8 * Unit, 8 * Unit);
  const uint32_t io0 = r->Io->IOTime;
  File(0).CostMs = 7;
  // Reads of 7 ms with the caller in a library call (by the frame or the provider) or not; the
  // read time, the idle time and the time booked to the thread after each.
  const uint32_t steps[][5] = {
      {0, 0, 7, 7, 0}, {0, 0, 14, 14, 0}, {1, 0, 21, 14, 7}, {0, 1, 28, 14, 14}};
  for (const auto& [inFrame, inCall, io, idle, thread] : steps) {
    r->H->InFrame = inFrame;
    r->Io->InCall = inCall;
    r->Idle();
    EXPECT_EQ(Row({r->Io->IOTime - io0, r->Io->IdleTime, r->Io->ThreadTime}),
              Row({io, idle, thread}));
  }
}

TEST_F(FileProviderTest, ASimulatedRateMakesReadsTakeTheirTime) {
  // 1310720 bytes per second: one unit costs 100 ms. The clock moves 5 ms at each look.
  auto r = Start(6 * Unit, 4 * Unit, 0x2000, 0, 1310720);
  EXPECT_EQ(r->Io->Simulate.Rate, 1310720u);
  ClockStep = 5;
  r->Idle();  // the first unit is shorter by the head
  // A unit at the full rate; on a medium slower than the simulated one, nothing more than the
  // medium's time; then the next read at the full rate costs less, as what was paid too much
  // is credited.
  const uint32_t steps[][3] = {{0, 100, 130}, {150, 150, 185}, {0, 0, 99}};
  for (const auto& [cost, least, most] : steps) {
    File(0).CostMs = cost;
    const uint32_t before = ClockNow;
    r->Idle();
    EXPECT_GE(ClockNow - before, least) << cost;
    EXPECT_LE(ClockNow - before, most) << cost;
  }
}

// The library's service as a provider of a program's own calls it, with its own account:
// what the bytes cost at the account's rate, less the time the read took, is slept off; credit
// from a slow read is carried to the next one.
TEST_F(FileProviderTest, TheSimulateServiceKeepsAProvidersOwnAccount) {
  Rig rig;
  VelmoInstallProviderServices(rig.H);
  IOProvider* io = rig.Io;
  ClockStep = 1;
  VelmoSimulateCounter account = {0, 2000};  // 2000 bytes per second: 100 bytes cost 50 ms
  uint32_t before = ClockNow;
  io->SimulateWait(&account, 100, io->Timer());
  EXPECT_GE(ClockNow - before, 50u);
  EXPECT_LE(ClockNow - before, 54u);
  EXPECT_LE(account.Owed, 0);
  EXPECT_GT(account.Owed, -2);

  // A read that took 80 ms for 50 ms worth: no wait, 30 ms of credit.
  account.Owed = 0;
  before = ClockNow;
  io->SimulateWait(&account, 100, before - 80);
  EXPECT_LE(ClockNow - before, 2u);
  EXPECT_LE(account.Owed, -29);
  EXPECT_GE(account.Owed, -31);
  // The next 50 ms worth, read at once, waits only what the credit leaves.
  before = ClockNow;
  io->SimulateWait(&account, 100, io->Timer());
  EXPECT_GE(ClockNow - before, 19u);
  EXPECT_LE(ClockNow - before, 24u);

  // No rate: nothing is owed for the bytes.
  VelmoSimulateCounter none = {0, 0};
  before = ClockNow;
  io->SimulateWait(&none, 1 << 20, io->Timer());
  EXPECT_LE(ClockNow - before, 2u);
  EXPECT_LE(none.Owed, 0);
}

TEST_F(FileProviderTest, SuspendStopsReadingAheadButNotFrameReads) {
  auto r = Start(6 * Unit, 2 * Unit);
  IOProvider* io = r->Io;
  EXPECT_EQ(io->BackgroundControl(io, VelmoIOSuspend), 1u);
  EXPECT_EQ(io->Suspended, 1u);
  EXPECT_EQ(r->Idle(), 0u);
  EXPECT_EQ(VelmoIOFullness(io), 129u);
  EXPECT_TRUE(r->Packet(VELMO_IO_CONTINUE, 1000, 44));  // a frame read still reads
  // The flush form returns once no read runs; with the lock free that is at once.
  EXPECT_EQ(io->BackgroundControl(io, VelmoIOSuspend | uint32_t(VelmoIOFlush)), 1u);
  const uint64_t used = r->Used();
  EXPECT_EQ(io->BackgroundControl(io, VelmoIOResume), 0u);
  EXPECT_EQ(r->Used(), used);
  // Resuming with the flush bit reads one step at once.
  io->BackgroundControl(io, VelmoIOSuspend);
  EXPECT_EQ(io->BackgroundControl(io, VelmoIOResume | uint32_t(VelmoIOFlush)), 0u);
  EXPECT_EQ(r->Used(), used + Unit);

  // Bit 30 tells whether the provider lock is free.
  EXPECT_EQ(io->BackgroundControl(io, VelmoIOTestFree), 1u);
  std::atomic<bool> held{false}, release{false};
  std::thread other([&] {
    LockEnter(&r->H->ProviderLock);
    held = true;
    while (!release) std::this_thread::yield();
    LockLeave(&r->H->ProviderLock);
  });
  while (!held) std::this_thread::yield();
  EXPECT_EQ(io->BackgroundControl(io, VelmoIOTestFree), 0u);
  EXPECT_EQ(r->Idle(), VELMO_IO_BUSY);  // the background step gives way
  release = true;
  other.join();
  EXPECT_EQ(io->BackgroundControl(io, VelmoIOTestFree), 1u);
}

TEST_F(FileProviderTest, WithoutBackgroundReadingTheLockIsAlwaysFree) {
  auto r = Start(4 * Unit, 0, 0, VelmoOpenNoBackground);
  LockEnter(&r->H->ProviderLock);
  std::thread other([&] { EXPECT_EQ(r->Io->BackgroundControl(r->Io, VelmoIOTestFree), 1u); });
  other.join();
  LockLeave(&r->H->ProviderLock);
}

uint32_t SeedForTest() {
  const char* seed = std::getenv("VELMO_IO_SEED");
  return seed ? uint32_t(std::strtoul(seed, nullptr, 10)) : 7u;
}

// Random walks: packets in order and by position, forward and back, inside and outside what the
// ring holds, with and without read-ahead steps between them, over rings of several sizes
// (whole units, and one that holds the whole file). Every byte must be the file's.
TEST_F(FileProviderTest, RandomPacketsAlwaysCarryTheFilesBytes) {
  const uint64_t fileSize = 9 * Unit + 4321;
  const std::string name = AddMedium(PatternFile(fileSize));
  std::mt19937 rng(SeedForTest());
  for (uint64_t ring : {2 * Unit, 3 * Unit, 5 * Unit, fileSize + 16}) {
    Rig r;
    ASSERT_TRUE(r.Open(name.c_str()));
    r.ReadHead(1000 + ring % 3000);
    r.GiveRing(ring, fileSize);
    uint64_t at = r.Io->LogicalPos;
    for (int step = 0; step < 300; ++step) {
      const uint32_t pick = rng() % 10;
      uint64_t position = VELMO_IO_CONTINUE;
      if (pick < 3) position = rng() % (fileSize - 100);
      else if (pick < 5) position = at + rng() % (2 * Unit);  // often still in the ring
      if (position != VELMO_IO_CONTINUE && position >= fileSize - 100) position = 44;
      const uint64_t from = position == VELMO_IO_CONTINUE ? at : position;
      const uint64_t bytes = std::min<uint64_t>(1 + rng() % (rng() % 4 ? 60000 : 3 * Unit),
                                                fileSize - from);
      ASSERT_TRUE(r.Packet(position, bytes, from)) << "ring " << ring << " step " << step;
      at = from + bytes;
      if (at >= fileSize - 1) {  // at the end: back to the start, as a loop does
        ASSERT_TRUE(r.Packet(44, 1, 44));
        at = 45;
      }
      for (uint32_t k = rng() % 3; k > 0; --k) r.Idle();
      ASSERT_EQ(r.Io->RingFree + r.Used(), r.Io->BufferSize);
      ASSERT_LE(r.Used(), r.Io->BufferSize);
    }
    EXPECT_EQ(r.Io->ReadError, 0u);
  }
}

// Real files through the POSIX calls are read in the open tests; here only a path that is not
// there.
TEST(PosixProvider, AMissingFileDoesNotOpen) {
  VelmoSetFileCalls(nullptr);
  Rig r;
  EXPECT_FALSE(r.Open("/tmp/velmo_io_no_such_file.vlm"));
  EXPECT_EQ(r.Io->FileHandle, VelmoIONoFile);
}

}  // namespace
