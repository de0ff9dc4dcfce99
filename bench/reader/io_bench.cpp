// Read-ahead speed: packets copied out of the provider's ring in file order, in bytes per
// second, with the caller filling the ring itself and with the "Velmo IO" thread filling it,
// from a medium in memory (the ring's own cost) and from a file in the page cache.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "reader/velmo_io_internal.h"

namespace {

constexpr uint64_t FileBytes = 32u << 20;
constexpr uint64_t RingBytes = 1u << 20;
constexpr uint64_t HeadBytes = 44;

// A medium in memory: reads are plain copies.
std::vector<uint8_t>& MediumData() {
  static std::vector<uint8_t> data = [] {
    std::vector<uint8_t> d(FileBytes);
    for (size_t i = 0; i < d.size(); ++i) d[i] = uint8_t(i * 131 + (i >> 11));
    const uint32_t less8 = uint32_t(FileBytes - 8);
    std::memcpy(d.data() + 4, &less8, 4);
    return d;
  }();
  return data;
}
uint64_t MediumPos = 0;
bool MemOpen(const char*, uint64_t* handle) {
  *handle = 0;
  MediumPos = 0;  // a file opens at its start
  return true;
}
int64_t MemRead(uint64_t, void* dest, uint32_t bytes) {
  const std::vector<uint8_t>& d = MediumData();
  const uint64_t n = MediumPos < d.size() ? std::min<uint64_t>(bytes, d.size() - MediumPos) : 0;
  std::memcpy(dest, d.data() + MediumPos, n);
  MediumPos += n;
  return int64_t(n);
}
bool MemSeek(uint64_t, uint64_t position) {
  MediumPos = position;
  return true;
}
void MemClose(uint64_t) {}
const VelmoFileCalls MemoryCalls = {MemOpen, MemRead, MemSeek, MemClose};

// A handle record with its locks around the default provider.
struct BenchHandle {
  VelmoState* H = new VelmoState{};
  std::vector<uint8_t> Ring;
  bool Failed = false;
  BenchHandle(const char* name, uint32_t flags) {
    LockCreate(&H->FrameReadLock, LockModeTimed);
    LockCreate(&H->ProviderLock, LockModeTimed);
    LockCreate(&H->SoundLock, LockModeTry);
    H->LocksMade = 1;
    H->OpenFlags = flags;
    IOProvider* io = &H->IOProvider;
    VelmoFileProviderOpen(io, name, 0, nullptr);
    VelmoInstallProviderServices(H);
    uint8_t head[HeadBytes];
    io->ReadHeader(io, 0, head, HeadBytes);
    Ring.resize(RingBytes + VelmoIOAlign);
    io->SetInfo(io, Ring.data(), Ring.size(), io->FileTotal, 0);
    if (!(flags & VelmoOpenNoBackground) && VelmoIORegister(H)) {
      H->OnReaderList = 1;
      VelmoIOWake(1);
    }
  }
  ~BenchHandle() {
    if (H->OnReaderList) VelmoIOUnregister(H);
    H->IOProvider.Close(&H->IOProvider);
    LockDestroy(&H->FrameReadLock);
    LockDestroy(&H->ProviderLock);
    LockDestroy(&H->SoundLock);
    delete H;
  }
  // One packet in file order; back to the start at the end, as a looping player does.
  void Packet(std::vector<uint8_t>* out) {
    IOProvider* io = &H->IOProvider;
    uint64_t position = VELMO_IO_CONTINUE;
    if (io->LogicalPos + out->size() > io->FileTotal) position = HeadBytes;
    LockEnter(&H->FrameReadLock);
    const uint64_t got = io->ReadFrame(io, 1, position, out->data(), out->size());
    if (got != out->size()) Failed = true;
    LockLeave(&H->FrameReadLock);
    if (H->OnReaderList) VelmoIOWake(1);
  }
};

void RunPackets(benchmark::State& state, const char* name, uint32_t flags) {
  std::vector<uint8_t> packet(size_t(state.range(0)));
  BenchHandle handle(name, flags);
  for (auto _ : state) {
    handle.Packet(&packet);
    benchmark::DoNotOptimize(packet.data());
  }
  if (handle.Failed) state.SkipWithError("a packet came back short");
  state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void BM_MemoryCallerFills(benchmark::State& state) {
  VelmoSetFileCalls(&MemoryCalls);
  RunPackets(state, "memory", VelmoOpenNoBackground);
  VelmoSetFileCalls(nullptr);
}
void BM_MemoryThreadFills(benchmark::State& state) {
  VelmoSetFileCalls(&MemoryCalls);
  RunPackets(state, "memory", 0);
  VelmoSetFileCalls(nullptr);
}

// A file on disk, read once beforehand so that it sits in the page cache.
const char* CachedFile() {
  static std::string path = [] {
    char name[] = "/tmp/velmo_io_bench_XXXXXX";
    const int fd = mkstemp(name);
    const std::vector<uint8_t>& d = MediumData();
    if (fd < 0 || write(fd, d.data(), d.size()) != ssize_t(d.size())) std::abort();
    close(fd);
    return std::string(name);
  }();
  return path.c_str();
}
void BM_FileThreadFills(benchmark::State& state) { RunPackets(state, CachedFile(), 0); }

void PacketSizes(benchmark::internal::Benchmark* b) {
  for (int64_t bytes : {4096, 40000, 400000}) b->Arg(bytes);
}
BENCHMARK(BM_MemoryCallerFills)->Apply(PacketSizes);
BENCHMARK(BM_MemoryThreadFills)->Apply(PacketSizes)->UseRealTime();
BENCHMARK(BM_FileThreadFills)->Apply(PacketSizes)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::remove(CachedFile());
  VelmoIOStopUnused();
  return 0;
}
