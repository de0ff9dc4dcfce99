// Helpers for the read-ahead tests: media in memory behind the platform file calls (with a log
// of every read, failures, short pieces, a cost in fake ms and a gate that holds reads back), a
// clock that moves by itself, and a provider set up inside a bare handle record.
#pragma once
#include "reader/velmo_io_internal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace io_test {

inline constexpr uint64_t Unit = VelmoIOUnit;

// The byte at `position` of every test file: no short period, so a misplaced copy shows.
inline uint8_t PatternByte(uint64_t position) {
  return uint8_t((position * 131) ^ (position >> 7) ^ (position >> 15));
}

// The test clock: moves by `ClockStep` ms at each reading, and by a read's cost.
inline std::atomic<uint32_t> ClockNow{1000};
inline std::atomic<uint32_t> ClockStep{0};
inline uint32_t TestClock() { return ClockNow.fetch_add(ClockStep.load()) + ClockStep.load(); }

// Polls `done` every millisecond until it holds; false after `ms`, a bound far above what a
// loaded machine under the sanitizers needs.
inline bool WaitFor(const std::function<bool()>& done, uint32_t ms = 30000) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

struct Read {
  uint64_t Position, Bytes;
};

struct Medium {
  std::vector<uint8_t> Data;
  uint64_t Pos = 0;
  uint64_t FailAt = ~uint64_t(0);  // reads give an error from here on
  uint32_t MaxPiece = 0;           // each call gives at most this many bytes; 0: all
  uint32_t CostMs = 0;             // the test clock moves this much per read
};

// All media of a test; the platform handle is the index.
struct Media {
  std::mutex Lock;
  std::vector<std::unique_ptr<Medium>> Files;
  std::vector<Read> Log;
  uint32_t Seeks = 0;
  // While Hold is set, reads wait at the gate; Waiting counts them.
  std::condition_variable Gate;
  bool Hold = false;
  uint32_t Waiting = 0;
  std::atomic<uint32_t> ReadCalls{0};
};
inline Media* Current = nullptr;

inline bool FakeOpen(const char* path, uint64_t* handle) {
  std::lock_guard<std::mutex> g(Current->Lock);
  const std::string name = path;
  if (name.rfind("medium:", 0) != 0) return false;
  const uint64_t index = std::stoull(name.substr(7));
  if (index >= Current->Files.size()) return false;
  Current->Files[index]->Pos = 0;  // a file opens at its start
  *handle = index;
  return true;
}

inline int64_t FakeRead(uint64_t handle, void* dest, uint32_t bytes) {
  std::unique_lock<std::mutex> g(Current->Lock);
  ++Current->Waiting;
  Current->Gate.wait(g, [] { return !Current->Hold; });
  --Current->Waiting;
  ++Current->ReadCalls;
  Medium& m = *Current->Files.at(handle);
  Current->Log.push_back({m.Pos, bytes});
  if (m.Pos >= m.FailAt) return -1;
  uint64_t n = m.Pos < m.Data.size() ? std::min<uint64_t>(bytes, m.Data.size() - m.Pos) : 0;
  if (m.MaxPiece) n = std::min<uint64_t>(n, m.MaxPiece);
  if (m.FailAt > m.Pos) n = std::min(n, m.FailAt - m.Pos);
  if (n) std::memcpy(dest, m.Data.data() + m.Pos, size_t(n));
  m.Pos += n;
  ClockNow += m.CostMs;
  return int64_t(n);
}

inline bool FakeSeek(uint64_t handle, uint64_t position) {
  std::lock_guard<std::mutex> g(Current->Lock);
  ++Current->Seeks;
  Current->Files.at(handle)->Pos = position;
  return true;
}

inline void FakeClose(uint64_t) {}

inline const VelmoFileCalls FakeCalls = {FakeOpen, FakeRead, FakeSeek, FakeClose};

// A file of `size` pattern bytes whose header word at 4 gives its size, as in a Velmo file.
inline std::vector<uint8_t> PatternFile(uint64_t size, uint64_t prefix = 0) {
  std::vector<uint8_t> f(size_t(prefix + size));
  for (uint64_t i = 0; i < size; ++i) f[size_t(prefix + i)] = PatternByte(i);
  if (size >= 8) {
    const uint32_t less8 = uint32_t(size - 8);
    std::memcpy(f.data() + prefix + 4, &less8, 4);
  }
  return f;
}

// A bare handle record with its locks and the library's services, around one provider.
struct Rig {
  VelmoState* H;
  IOProvider* Io;
  std::vector<uint8_t> RingMemory;
  uint64_t FrameTable[2] = {0, 0};

  explicit Rig(uint32_t openFlags = 0) {
    H = new VelmoState{};
    EXPECT_TRUE(LockCreate(&H->FrameReadLock, LockModeTimed));
    EXPECT_TRUE(LockCreate(&H->ProviderLock, LockModeTimed));
    EXPECT_TRUE(LockCreate(&H->SoundLock, LockModeTry));
    H->LocksMade = 1;
    H->OpenFlags = openFlags;
    H->FrameTable = FrameTable;
    Io = &H->IOProvider;
  }
  ~Rig() {
    if (Io->Close) Io->Close(Io);
    LockDestroy(&H->FrameReadLock);
    LockDestroy(&H->ProviderLock);
    LockDestroy(&H->SoundLock);
    delete H;
  }
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;

  bool Open(const char* name, uint32_t flags = 0, const VelmoOpenOptions* options = nullptr) {
    const uint32_t ok = VelmoFileProviderOpen(Io, name, flags, options);
    VelmoInstallProviderServices(H);
    return ok != 0;
  }
  // Reads `bytes` of header unbuffered, as the open does; the ring starts behind them.
  void ReadHead(uint64_t bytes) {
    std::vector<uint8_t> head(static_cast<size_t>(bytes));
    ASSERT_EQ(Io->ReadHeader(Io, 0, head.data(), bytes), bytes);
  }
  // Gives the provider a ring from a block of `size` bytes that starts `misalign` bytes past a
  // 4096 boundary.
  void GiveRing(uint64_t size, uint64_t fileTotal, uint32_t rate = 0, uint64_t misalign = 0) {
    RingMemory.assign(size_t(size + 2 * VelmoIOAlign), 0);
    uint8_t* p = RingMemory.data();
    p += (VelmoIOAlign - reinterpret_cast<uintptr_t>(p) % VelmoIOAlign) % VelmoIOAlign;
    Io->SetInfo(Io, p + misalign, size, fileTotal, rate);
  }
  uint32_t Idle() { return Io->Idle(Io); }
  // Fills the ring as far as it goes.
  uint32_t Fill() {
    uint32_t steps = 0;
    while (uint32_t got = Idle()) {
      if (got == VELMO_IO_BUSY) break;
      ++steps;
    }
    return steps;
  }
  uint64_t Used() const { return AtomicRead64(&Io->BufferUsed); }
  // Reads a packet and checks it against the pattern.
  ::testing::AssertionResult Packet(uint64_t position, uint64_t bytes, uint64_t expectAt) {
    std::vector<uint8_t> out(size_t(bytes), 0xEE);
    const uint64_t got = Io->ReadFrame(Io, 1, position, out.data(), bytes);
    if (got != bytes) return ::testing::AssertionFailure() << "got " << got << " of " << bytes;
    for (uint64_t i = 0; i < bytes; ++i)
      if (out[size_t(i)] != PatternByte(expectAt + i))
        return ::testing::AssertionFailure() << "byte " << i << " of the packet at " << expectAt;
    return ::testing::AssertionSuccess();
  }
};

// Installs fresh media and the test clock for each test, and takes them away afterwards.
class MediumTest : public ::testing::Test {
 protected:
  Media M;
  void SetUp() override {
    Current = &M;
    VelmoSetFileCalls(&FakeCalls);
    ClockNow = 1000;
    ClockStep = 0;
    VelmoSetClockForTest(TestClock);
  }
  void TearDown() override {
    SetHold(false);
    VelmoSetClockForTest(nullptr);
    VelmoSetFileCalls(nullptr);
    Current = nullptr;
  }
  // Adds a medium; returns its name for the provider's open.
  std::string AddMedium(std::vector<uint8_t> data) {
    std::lock_guard<std::mutex> g(M.Lock);
    M.Files.push_back(std::make_unique<Medium>());
    M.Files.back()->Data = std::move(data);
    return "medium:" + std::to_string(M.Files.size() - 1);
  }
  // A provider on a new medium of `fileSize` pattern bytes. Given a ring, it has first read
  // `head` bytes of header, as the open does.
  std::unique_ptr<Rig> Start(uint64_t fileSize, uint64_t ring = 0, uint64_t head = 44,
                             uint32_t flags = 0, uint32_t rate = 0) {
    auto r = std::make_unique<Rig>(flags);
    EXPECT_TRUE(r->Open(AddMedium(PatternFile(fileSize)).c_str()));
    if (ring) {
      r->ReadHead(head);
      r->GiveRing(ring, fileSize, rate);
    }
    return r;
  }
  Medium& File(size_t i) { return *M.Files[i]; }
  // Runs `f` with the media locked, as the reads run.
  template <typename F>
  auto Locked(F f) {
    std::lock_guard<std::mutex> g(M.Lock);
    return f();
  }
  std::vector<Read> Log() { return Locked([&] { return M.Log; }); }
  void ClearLog() { Locked([&] { M.Log.clear(); }); }
  uint32_t Waiting() { return Locked([&] { return M.Waiting; }); }
  void SetHold(bool hold) {
    Locked([&] { M.Hold = hold; });
    M.Gate.notify_all();
  }
  // (position, bytes) of each read in the log.
  using Spans = std::vector<std::pair<uint64_t, uint64_t>>;
  Spans Reads() {
    Spans out;
    for (const Read& r : Log()) out.push_back({r.Position, r.Bytes});
    return out;
  }
};

}  // namespace io_test
