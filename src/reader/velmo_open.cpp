// Opening and closing a Velmo file: the process-wide error text and next-open settings, the
// library's provider services, the in-memory provider, the planned memory of a handle and the
// open and close sequences.
#include "host/cpu_features.h"
#include "format/container.h"
#include "reader/velmo_handle.h"
#include "reader/velmo_sound.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// ---------------------------------------------------------------------------------------------
// Process-wide state

char ErrorText[255];

// Values for the next open.
constexpr uint32_t MaxNextTracks = 32;
struct NextOpenValues {
  uint32_t Rate = 0xFFFFFFFFu, RateDiv = 0xFFFFFFFFu;
  uint64_t FileOffset = 0;
  uint64_t IOSize = 0;
  uint32_t Simulate = 0;
  uint32_t TrackCount = 1;
  uint32_t TrackIds[MaxNextTracks] = {0};
};
NextOpenValues NextOpen;

volatile uint32_t OpenSerialCounter = 0;

VelmoClock ClockFunction = nullptr;

// The process-wide locks, set up once behind a spin on an atomic word.
volatile uint32_t GlobalsState = 0;  // 0 not made, 1 being made, 2 ready
PlatformLock GlobalListLock, GlobalSoundLock, GlobalOpenLock;

void EnsureGlobals() {
  if (AtomicRead(&GlobalsState) == 2) return;
  uint32_t expected = 0;
  if (AtomicCompareExchange(&GlobalsState, &expected, 1)) {
    if (!LockCreate(&GlobalListLock, LockModeTimed) || !LockCreate(&GlobalSoundLock, LockModeTimed) ||
        !LockCreate(&GlobalOpenLock, LockModePlain))
      std::abort();  // a library without its locks cannot run at all
    AtomicStore(&GlobalsState, 2);
    return;
  }
  for (uint32_t round = 1; AtomicRead(&GlobalsState) != 2; ++round) {
    if (round % 512 == 0) ThreadSleep(1);
    else ThreadPause();
  }
}

const VelmoIOService* IOServiceOverride = nullptr;

const VelmoIOService* BuiltInIOService() { return &VelmoFileIOService; }

// ---------------------------------------------------------------------------------------------
// Aligned blocks: the distance to the real start sits in the 32-bit word in front.

void* AlignedAlloc(uint64_t bytes, uint32_t align) {
  if (bytes > (uint64_t(1) << 40)) return nullptr;
  uint8_t* raw = static_cast<uint8_t*>(std::malloc(size_t(bytes) + align + 4));
  if (!raw) return nullptr;
  uint8_t* p = reinterpret_cast<uint8_t*>((reinterpret_cast<uintptr_t>(raw) + 4 + align - 1) &
                                          ~uintptr_t(align - 1));
  const uint32_t distance = uint32_t(p - raw);
  std::memcpy(p - 4, &distance, 4);
  return p;
}

void AlignedFree(void* p) {
  if (!p) return;
  uint32_t distance;
  std::memcpy(&distance, static_cast<uint8_t*>(p) - 4, 4);
  std::free(static_cast<uint8_t*>(p) - distance);
}

template <typename T>
T AlignUp(T value, T align) {
  return (value + align - 1) / align * align;
}

// ---------------------------------------------------------------------------------------------
// The library's services to a provider

bool HasBackground(const VelmoState* h) { return (h->OpenFlags & VelmoOpenNoBackground) == 0; }

void ServiceLock(IOProvider* io) {
  VelmoState* h = VelmoStateOf(io);
  if (HasBackground(h)) LockEnter(&h->ProviderLock);
}
uint32_t ServiceTryLock(IOProvider* io) {
  VelmoState* h = VelmoStateOf(io);
  return HasBackground(h) ? uint32_t(LockTry(&h->ProviderLock, 0)) : 1u;
}
void ServiceUnlock(IOProvider* io) {
  VelmoState* h = VelmoStateOf(io);
  if (HasBackground(h)) LockLeave(&h->ProviderLock);
}
void ServiceUnlockIfHeld(IOProvider* io) {
  VelmoState* h = VelmoStateOf(io);
  if (HasBackground(h) && LockTry(&h->ProviderLock, 10000)) LockLeave(&h->ProviderLock);
}
uint32_t ServiceTimer() { return VelmoCurrentClock()(); }
void ServiceSimulateWait(VelmoSimulateCounter* counter, uint64_t bytes, uint32_t startTime) {
  if (!counter) return;
  const uint32_t rate = counter->Rate;
  const bool simulated = rate != 0 && rate != 0xFFFFFFFFu;
  const uint64_t owed = simulated ? std::min<uint64_t>(bytes * 1000 / rate, 0xFFFFFFFFu) : 0;
  uint32_t last = ServiceTimer();
  counter->Owed += int64_t(owed) - int64_t(uint32_t(last - startTime));
  while (counter->Owed > 0) {
    ThreadSleep(1);
    const uint32_t now = ServiceTimer();
    counter->Owed -= int64_t(uint32_t(now - last));
    last = now;
  }
}
void ServiceAddCounter(volatile uint64_t* address, int64_t delta) { AtomicAdd64(address, delta); }
void ServiceCopyBytes(void* dest, const void* source, uint64_t bytes) {
  uint8_t* d = static_cast<uint8_t*>(dest);
  const uint8_t* s = static_cast<const uint8_t*>(source);
  while (bytes > 0) {
    const uint64_t step = std::min<uint64_t>(bytes, 0x80000000u);
    std::memcpy(d, s, size_t(step));
    d += step;
    s += step;
    bytes -= step;
  }
}

// ---------------------------------------------------------------------------------------------
// The memory provider: direct reads from a span.

const VelmoMemorySpan* SpanOf(IOProvider* io) {
  return static_cast<const VelmoMemorySpan*>(io->Context);
}

uint64_t MemoryCopy(IOProvider* io, uint64_t position, void* dest, uint64_t size) {
  const VelmoMemorySpan* span = SpanOf(io);
  if (position == VELMO_IO_CONTINUE) position = io->NextFilePos;
  const uint64_t at = position + io->BaseOffset;
  uint64_t got = 0;
  if (span && at >= position && at < span->Size) got = std::min(size, span->Size - at);
  if (got) std::memcpy(dest, span->Data + at, size_t(got));
  if (got < size) io->ReadError = 1;
  io->NextFilePos = position + got;
  io->LogicalPos = position + got;
  io->BytesRead += got;
  return got;
}

uint64_t MemoryReadHeader(IOProvider* io, uint64_t position, void* dest, uint64_t size) {
  if (io->BeforeRead) io->BeforeRead(io, position, size);
  const uint64_t got = MemoryCopy(io, position, dest, size);
  if (position == 0 && got >= 8) {
    uint32_t less8;
    std::memcpy(&less8, static_cast<uint8_t*>(dest) + 4, 4);
    io->FileTotal = uint64_t(less8) + 8;
  }
  if (io->AfterRead) io->AfterRead(dest, got);
  return got;
}

uint64_t MemoryReadFrame(IOProvider* io, uint32_t, uint64_t position, void* dest, uint64_t size) {
  if (io->ReadError) return 0;
  if (io->BeforeRead) io->BeforeRead(io, position, size);
  const uint64_t got = MemoryCopy(io, position, dest, size);
  if (io->AfterRead) io->AfterRead(dest, got);
  return got;
}

uint64_t MemoryGetBufferSize(IOProvider*, uint64_t) { return 0; }
void MemorySetInfo(IOProvider* io, void*, uint64_t, uint64_t fileSize, uint32_t) {
  io->FileTotal = fileSize;
}
uint32_t MemoryIdle(IOProvider*) { return 0; }
void MemoryClose(IOProvider*) {}
uint32_t MemoryBackgroundControl(IOProvider* io, uint32_t control) {
  if (control & VelmoIOTestFree) return 1;
  if (control & VelmoIOSuspend) io->Suspended = 1;
  if (control & VelmoIOResume) io->Suspended = 0;
  return io->Suspended;
}

// ---------------------------------------------------------------------------------------------
// The open, step by step. Each step returns an error text or null.

struct OpenJob {
  VelmoState* H = nullptr;
  const char* Name = nullptr;
  VelmoOpenOptions Options{};
  uint32_t Flags = 0;
  uint32_t Now = 0;
  VelmoHeader Header{};
  VelmoExtras Extras{};
  uint32_t ExtrasSize = 0;
  uint32_t TrackCount = 0;   // tracks in the file
  uint32_t AskedTracks = 0;  // entries reserved for tracks to open
  uint8_t* ExtrasData = nullptr;
  uint8_t* TablesData = nullptr;
  uint64_t TablesSize = 0;
  uint64_t FileBytes = 0;    // header's total bytes, before the wrap amount
};

bool ReadExact(IOProvider* io, uint64_t position, void* dest, uint64_t size) {
  if (size == 0) return true;
  return io->ReadHeader(io, position, dest, size) == size && !io->ReadError;
}

// Step 2: the header, from the image or through a provider.
const char* ReadHeaderStep(OpenJob& job) {
  VelmoState* h = job.H;
  IOProvider* io = &h->IOProvider;
  if (job.Flags & VelmoOpenImage) {
    const uint8_t* image = reinterpret_cast<const uint8_t*>(job.Name);
    if (!image) return VelmoTextNotVelmo;
    if (job.Flags & VelmoOpenFileOffset) image += job.Options.FileOffset;
    uint64_t size = job.Options.ImageSize;
    if (size == 0) {  // trust the image's own header for its size
      VelmoHeader peek;
      if (!VelmoParseHeader(image, VelmoHeaderSize, &peek)) return VelmoTextNotVelmo;
      size = uint64_t(peek.FileSizeLess8) + 8;
    }
    h->ImageSpan = {image, size};
    VelmoMemoryProviderInit(io, &h->ImageSpan);
  } else {
    VelmoIOOpenFunction open = VelmoCurrentIOService()->OpenFile;
    if ((job.Flags & VelmoOpenCustomIO) && job.Options.CustomIO) open = job.Options.CustomIO;
    if (!open) return "No file IO provider installed.";
    ErrorText[0] = 0;
    LockEnter(VelmoOpenLock());
    const uint32_t opened = open(io, job.Name, job.Flags, &job.Options);
    LockLeave(VelmoOpenLock());
    if (!opened) return ErrorText[0] ? ErrorText : "Error opening file.";
    h->ProviderOpen = 1;
  }
  VelmoInstallProviderServices(h);
  uint8_t bytes[VelmoHeaderSize] = {};
  const uint64_t got = io->ReadHeader(io, 0, bytes, VelmoHeaderSize);
  if (got < VelmoHeaderSize) return VelmoTextNotVelmo;
  return VelmoReadHeader(bytes, VelmoHeaderSize, &job.Header);
}

// Steps 4 to 6: open flags, rates, the ring size.
void SettleFlagsAndRates(OpenJob& job) {
  VelmoState* h = job.H;
  const VelmoHeader& hd = job.Header;
  uint32_t f = job.Flags;
  if (f & VelmoOpenOwnBuffers) f = (f & ~uint32_t(VelmoOpenOwnBuffers)) | VelmoOpenNoBuffers;
  f |= hd.Flags & 0x20013;
  if (!(hd.Flags & VelmoFlagAlpha)) f &= ~uint32_t(VelmoOpenAlpha);
  f = (f & ~uint32_t(VelmoOpenHdr)) | (hd.Flags & VelmoFlagHdr);
  if (MagicIsOldFirst(hd.Magic)) f |= VelmoOpenOldFirst;
  h->OpenFlags = f;

  h->Magic = hd.Magic;
  h->FileFlags = hd.Flags;
  h->Width = VelmoHeaderWidth(hd);
  h->Height = VelmoHeaderHeight(hd);
  h->Frames = hd.Frames;
  h->IndexFrames = hd.IndexFrames;
  h->LargestFrameSize = hd.LargestFrameSize;
  h->TrackCount = VelmoHeaderTrackCount(hd);
  job.TrackCount = h->TrackCount;

  h->FileRate = hd.FrameRate;
  h->FileRateDiv = hd.FrameRateDiv;
  h->FrameRate = hd.FrameRate;
  h->FrameRateDiv = hd.FrameRateDiv;
  const VelmoOpenOptions& o = job.Options;
  // A forced rate of 0 is taken too: frames are then due at once (as fast as possible).
  if ((f & VelmoOpenForceRate) && o.ForcedRate != 0xFFFFFFFFu && o.ForcedRateDiv != 0 &&
      o.ForcedRateDiv != 0xFFFFFFFFu) {
    h->FrameRate = o.ForcedRate;
    h->FrameRateDiv = o.ForcedRateDiv;
  }
  const uint64_t ring = (uint64_t(h->FileRate) + h->FileRateDiv / 2) / h->FileRateDiv;
  h->RingSize = uint32_t(std::max<uint64_t>(ring, 1));
  if (f & VelmoOpenSimulate) {
    const uint32_t rate = o.SimulateRate;
    h->SimulateRate = rate == 0xFFFFFFFFu ? 0 : rate;
  }
}

// Step 7: the whole file read into one block, returned in place of a handle.
void* ReadWholeFile(OpenJob& job) {
  IOProvider* io = &job.H->IOProvider;
  const uint64_t size = uint64_t(job.Header.FileSizeLess8) + 8;
  // The stated size must be there before a block that large is taken.
  uint8_t last = 0;
  if (io->ReadHeader(io, size - 1, &last, 1) != 1) {
    VelmoSetError(VelmoTextHeaderReadError);
    return nullptr;
  }
  const uint64_t front = AlignUp<uint64_t>(sizeof(VelmoHandle) + 4, 256);
  uint8_t* block = static_cast<uint8_t*>(AlignedAlloc(front + std::max<uint64_t>(size, 4056), 256));
  if (!block) {
    VelmoSetError("Out of memory.");
    return nullptr;
  }
  std::memcpy(block, static_cast<VelmoHandle*>(job.H), sizeof(VelmoHandle));
  uint8_t* image = block + front;
  if (!ReadExact(io, 0, image, size)) {
    AlignedFree(block);
    VelmoSetError(VelmoTextHeaderReadError);
    return nullptr;
  }
  // The image is freed through its own distance word, which points back at the block.
  const uint32_t distance = uint32_t(image - block) + *reinterpret_cast<uint32_t*>(block - 4);
  std::memcpy(image - 4, &distance, 4);
  return image;
}

// Step 8: one planned block for the rings, the slice scratch, the track records, the track
// index list and the tables.
const char* PlanBlock(OpenJob& job) {
  VelmoState* h = job.H;
  const bool second = MagicIsSecondGeneration(h->Magic);
  const VelmoSliceLayout slices = VelmoSlicesFor(h->Magic, h->FileFlags, h->Height);
  job.AskedTracks = (h->OpenFlags & VelmoOpenTrackList) ? job.Options.TrackCount : 1;
  if (job.AskedTracks > VelmoMaxTracks) job.AskedTracks = VelmoMaxTracks;

  job.ExtrasSize = VelmoExtrasSize(h->Magic, h->FileFlags);
  job.TablesSize = VelmoTablesSize(job.TrackCount, h->IndexFrames);
  const uint64_t ringBytes = uint64_t(VelmoRingCount) * h->RingSize * 4;
  // One seam record per slice boundary, each a count word and two codes per macroblock.
  const uint64_t seamRecordBytes = (((uint64_t(h->Width) + 31) / 8) & ~uint64_t(3)) + 4;
  const uint64_t scratchBytes =
      second && slices.Count > 1 ? uint64_t(slices.Count - 1) * seamRecordBytes : 0;
  const uint64_t trackBytes = uint64_t(std::max(job.AskedTracks, 1u)) * 448;
  const uint64_t indexBytes = uint64_t(std::max(job.AskedTracks, 1u)) * 4;
  const uint64_t frameTableBytes = (uint64_t(h->IndexFrames) + 1) * 8;

  uint64_t at = 0;
  auto take = [&at](uint64_t bytes, uint64_t align) {
    at = AlignUp<uint64_t>(at, align);
    const uint64_t start = at;
    at += bytes;
    return start;
  };
  const uint64_t ringAt = take(ringBytes, 64);
  const uint64_t scratchAt = take(scratchBytes, 64);
  const uint64_t trackAt = take(trackBytes, 64);
  const uint64_t indexAt = take(indexBytes, 8);
  const uint64_t frameTableAt = take(frameTableBytes, 64);
  const uint64_t extrasAt = take(job.ExtrasSize, 8);
  // The tables keep the file's alignment against 128, so the frame table lands as in the file.
  at = AlignUp<uint64_t>(at, 128) + (VelmoHeaderSize + job.ExtrasSize) % 128;
  const uint64_t tablesAt = take(job.TablesSize, 4);

  uint8_t* block = static_cast<uint8_t*>(AlignedAlloc(at, 128));
  if (!block) return "Out of memory.";
  std::memset(block, 0, size_t(at));
  h->Block = block;
  h->TotalMemory += at;
  for (uint32_t r = 0; r < VelmoRingCount; ++r)
    h->Ring[r] = reinterpret_cast<uint32_t*>(block + ringAt) + uint64_t(r) * h->RingSize;
  h->SliceScratch = scratchBytes ? reinterpret_cast<uint32_t*>(block + scratchAt) : nullptr;
  h->Tracks = reinterpret_cast<VelmoTrack*>(block + trackAt);
  h->TrackIndexes = reinterpret_cast<uint32_t*>(block + indexAt);
  h->FrameTable = reinterpret_cast<uint64_t*>(block + frameTableAt);
  job.ExtrasData = block + extrasAt;
  job.TablesData = block + tablesAt;

  h->SliceState.Count = slices.Count;
  h->SliceState.RowHeight = second ? slices.RowHeight : 0;
  h->SliceState.Stride = second ? (((h->Width + 31) / 8) & ~3u) + 4 : 0;
  h->SliceScratchWords = h->SliceState.Stride / 4;
  return nullptr;
}

// Steps 9 to 13: extras and tables, the colour table, the frame table and its scan.
const char* ReadTablesStep(OpenJob& job) {
  VelmoState* h = job.H;
  IOProvider* io = &h->IOProvider;
  if (!ReadExact(io, VelmoHeaderSize, job.ExtrasData, job.ExtrasSize) ||
      !ReadExact(io, VelmoHeaderSize + job.ExtrasSize, job.TablesData, job.TablesSize) ||
      io->ReadError)
    return VelmoTextHeaderReadError;
  if (const char* e = VelmoParseExtras(job.ExtrasData, job.ExtrasSize, h->Magic, h->FileFlags,
                                       &job.Extras))
    return e;
  VelmoFileColourTable(h->Magic, h->FileFlags, job.Extras, h->ColourTable);

  VelmoTables tables;
  if (const char* e = VelmoOpenTables(job.TablesData, size_t(job.TablesSize), job.TrackCount,
                                      h->IndexFrames, &tables))
    return e;
  const uint32_t t = job.TrackCount;
  h->TrackMaxBytes = reinterpret_cast<const uint32_t*>(job.TablesData);
  h->TrackFormats = h->TrackMaxBytes + t;
  h->TrackIds = h->TrackMaxBytes + 2 * t;
  uint64_t wrap = 0;
  if (const char* e = VelmoExpandFrameTable(tables, h->Frames, h->FrameTable, &wrap)) return e;
  // A frame's packet runs from its offset to the next one.
  uint64_t largestStep = 0;
  for (uint32_t i = 1; i <= h->Frames; ++i)
    largestStep = std::max(largestStep, VelmoEntryOffset(h->FrameTable[i]) -
                                            std::min(VelmoEntryOffset(h->FrameTable[i]),
                                                     VelmoEntryOffset(h->FrameTable[i - 1])));
  if (const char* e = VelmoCheckFrameExtent(job.Header, largestStep,
                                             VelmoEntryOffset(h->FrameTable[h->Frames]), wrap))
    return e;
  h->TablesOffset = VelmoHeaderSize + job.ExtrasSize;
  h->FirstFrameOffset = VelmoEntryOffset(h->FrameTable[0]);
  job.FileBytes = uint64_t(job.Header.FileSizeLess8) + 8;
  h->FileSize = uint64_t(job.Header.FileSizeLess8) + wrap;

  // The busiest second: a window of RingSize frames slides over the table.
  const uint32_t n = h->RingSize;
  const uint64_t* ft = h->FrameTable;
  uint64_t best = 0;
  uint32_t bestAt = 0;
  if (h->Frames >= n) {
    for (uint32_t i = 0; i + n <= h->Frames; ++i) {
      const uint64_t bytes = VelmoEntryOffset(ft[i + n]) - VelmoEntryOffset(ft[i]);
      if (bytes > best) {
        best = bytes;
        bestAt = i;
      }
    }
  }
  if (best == 0) {
    const uint64_t total = VelmoEntryOffset(ft[h->Frames]) - VelmoEntryOffset(ft[0]);
    best = total * n / h->Frames;
    bestAt = 0;
  }
  h->HighestSecondBytes = best;
  h->HighestSecondFrame = bestAt;
  h->AllKeyFrames = 1;
  for (uint32_t i = 0; i < h->Frames; ++i)
    if (!VelmoEntryIsKey(ft[i])) h->AllKeyFrames = 0;
  return nullptr;
}

// Step 14: the frame buffer ring, all planes in one block.
const char* AllocateFrameBuffers(OpenJob& job) {
  VelmoState* h = job.H;
  if (h->OpenFlags & VelmoOpenNoBuffers) return nullptr;
  VelmoFrameBuffers& fb = h->Buffers;
  fb = VelmoFrameBuffers{};
  fb.Count = h->Frames == 1 ? 1 : 2;
  fb.Width = h->Width;
  fb.Height = h->Height;
  if (MagicIsSecondGeneration(h->Magic)) {
    fb.LumaWidth = AlignUp<uint32_t>(h->Width, 32);
    fb.LumaHeight = AlignUp<uint32_t>(h->Height, 16);
    fb.ChromaWidth = fb.LumaWidth / 2;
    fb.ChromaHeight = fb.LumaHeight / 2;
    fb.LumaPitch = int32_t(AlignUp<uint32_t>(fb.LumaWidth, 64));
    fb.ChromaPitch = int32_t(AlignUp<uint32_t>(fb.ChromaWidth, 64));
  } else {
    fb.LumaWidth = AlignUp<uint32_t>(h->Width, 8);
    fb.LumaHeight = AlignUp<uint32_t>(h->Height, 8);
    fb.ChromaWidth = AlignUp<uint32_t>((h->Width + 1) / 2, 8);
    fb.ChromaHeight = AlignUp<uint32_t>((h->Height + 1) / 2, 8);
    fb.LumaPitch = int32_t(fb.LumaWidth);
    fb.ChromaPitch = int32_t(AlignUp<uint32_t>(fb.ChromaWidth, 16));
  }
  const bool chroma = (h->FileFlags & VelmoFlagGrayscale) == 0;
  const bool extra = (h->OpenFlags & (VelmoOpenAlpha | VelmoOpenHdr)) != 0;
  fb.HasAlpha = extra ? 1 : 0;
  const uint64_t lumaBytes = AlignUp<uint64_t>(uint64_t(fb.LumaPitch) * fb.LumaHeight, 64);
  const uint64_t chromaBytes = AlignUp<uint64_t>(uint64_t(fb.ChromaPitch) * fb.ChromaHeight, 64);
  const uint64_t perSet = lumaBytes + (chroma ? 2 * chromaBytes : 0) + (extra ? 2 * lumaBytes : 0);
  const uint64_t total = perSet * fb.Count;
  uint8_t* block = static_cast<uint8_t*>(AlignedAlloc(total, 64));
  if (!block) return "Out of memory.";
  h->FrameBufferBlock = block;
  h->TotalMemory += total;
  for (uint32_t s = 0; s < fb.Count; ++s) {
    uint8_t* p = block + perSet * s;
    auto plane = [&p](uint64_t bytes, uint8_t fill) {
      std::memset(p, fill, size_t(bytes));
      uint8_t* start = p;
      p += bytes;
      return start;
    };
    fb.Sets[s].Planes[VelmoPlaneY] = plane(lumaBytes, 0);
    if (chroma) {
      fb.Sets[s].Planes[VelmoPlaneCr] = plane(chromaBytes, 128);
      fb.Sets[s].Planes[VelmoPlaneCb] = plane(chromaBytes, 128);
    }
    if (extra) {
      fb.Sets[s].Planes[VelmoPlaneAlpha] = plane(lumaBytes, 255);
      fb.Sets[s].Planes[VelmoPlaneHdr] = plane(lumaBytes, 0);
    }
  }
  h->FrameBuffers = &fb;
  return nullptr;
}

// The generation's decoder, for a handle that has frame buffers to decode into. A file of a
// generation this build cannot decode still opens and walks; its picture stays as it is.
const char* CreateDecoder(OpenJob& job) {
  VelmoState* h = job.H;
  if (!h->FrameBuffers) return nullptr;
  const VelmoVideoDecoder* decoder = VelmoDecoderForTag(h->Magic);
  if (!decoder) return nullptr;
  const VelmoDecoderConfig config{h->Magic,     h->FileFlags, h->Width,
                                  h->Height,    h->OpenFlags,
                                  reinterpret_cast<uint8_t*>(h->SliceScratch)};
  h->DecoderState = decoder->Create(&config);
  if (!h->DecoderState) return "Out of memory.";
  h->Decoder = decoder;
  return nullptr;
}

// Steps 15 and 16: the read buffer, or the whole frames area in memory.
const char* SettleReading(OpenJob& job) {
  VelmoState* h = job.H;
  IOProvider* io = &h->IOProvider;
  const uint64_t fileTotal = h->FileSize + 8;
  if (job.Flags & VelmoOpenImage) {
    if (h->FirstFrameOffset > h->ImageSpan.Size) return VelmoTextBadFrameSize;
    h->PreloadData = const_cast<uint8_t*>(h->ImageSpan.Data) + h->FirstFrameOffset;
    h->OpenFlags |= VelmoOpenNoBackground;
    return nullptr;
  }
  const VelmoOpenOptions& o = job.Options;
  uint64_t wanted = h->HighestSecondBytes;
  if ((job.Flags & VelmoOpenIOSize) && o.IOBufferSize != 0 && o.IOBufferSize != ~uint64_t(0))
    wanted = o.IOBufferSize;
  uint64_t size = io->GetBufferSize ? io->GetBufferSize(io, wanted) : wanted;
  if (size + 0x40000 >= fileTotal) size = fileTotal + 16;
  h->ReadBufferSize = size;

  if (h->OpenFlags & VelmoOpenPreload) {
    const uint64_t area = fileTotal > h->FirstFrameOffset ? fileTotal - h->FirstFrameOffset : 0;
    uint8_t* block = static_cast<uint8_t*>(AlignedAlloc(area + 1032, 128));
    if (!block) return "Out of memory.";
    std::memset(block + area, 0, 1032);
    h->PreloadBlock = block;
    h->TotalMemory += area + 1032;
    if (!ReadExact(io, h->FirstFrameOffset, block, area)) return VelmoTextHeaderReadError;
    h->PreloadData = block;
    // Reading is over: the provider is not needed any more.
    LockEnter(VelmoOpenLock());
    if (io->Close) io->Close(io);
    LockLeave(VelmoOpenLock());
    h->ProviderOpen = 0;
    h->OpenFlags |= VelmoOpenNoBackground;
    return nullptr;
  }
  if (size) {
    h->ReadBuffer = AlignedAlloc(size, 4096);
    if (!h->ReadBuffer) return "Out of memory.";
    h->TotalMemory += size;
  }
  const uint64_t packetBytes = uint64_t(h->LargestFrameSize) + 1280;
  h->PacketBuffer = static_cast<uint8_t*>(AlignedAlloc(packetBytes, 128));
  if (!h->PacketBuffer) return "Out of memory.";
  h->TotalMemory += packetBytes;
  if (io->SetInfo) io->SetInfo(io, h->ReadBuffer, size, fileTotal, h->SimulateRate);
  return nullptr;
}

// Steps 19 to 21: locks, the reader thread, the first fill, frame 1.
void StartWalking(OpenJob& job) {
  VelmoState* h = job.H;
  IOProvider* io = &h->IOProvider;
  const VelmoIOService* service = VelmoCurrentIOService();
  if (!h->PreloadData && !(h->OpenFlags & VelmoOpenNoBackground)) {
    if (service->Register && service->Register(h)) h->OnReaderList = 1;
    else h->OpenFlags |= VelmoOpenNoBackground;  // no thread: reads on the caller's thread
  }
  if (!h->PreloadData) {
    if (!(h->OpenFlags & VelmoOpenNoFill) && !h->OnReaderList && io->Idle) {
      // Fill the read buffer now. A provider that cannot lock or has failed stops the fill.
      for (uint32_t step = 0; step < 0x100000; ++step) {
        const uint32_t got = io->Idle(io);
        if (got == 0 || got == VELMO_IO_BUSY || io->ReadError) break;
      }
    }
    if (h->OnReaderList && service->Wake) service->Wake(1);
  }
  h->NextReadPosition = 0xF0000000u;
  VelmoSelectFrame(h, 1);
  VelmoSoundWake(h);
  h->OpenSerial = AtomicAdd(&OpenSerialCounter, 1) + 1;
}

void FreeHandleMemory(VelmoState* h) {
  if (h->DecoderState) h->Decoder->Destroy(h->DecoderState);
  AlignedFree(h->FrameBufferBlock);
  AlignedFree(h->Block);
  AlignedFree(h->ReadBuffer);
  AlignedFree(h->PacketBuffer);
  AlignedFree(h->PreloadBlock);
  if (h->LocksMade) {
    LockDestroy(&h->FrameReadLock);
    LockDestroy(&h->ProviderLock);
    LockDestroy(&h->SoundLock);
  }
  std::memset(static_cast<void*>(h), 0, sizeof(VelmoState));
  AlignedFree(h);
}

// A failed open: the provider is closed under the open lock (not for an image).
HVELMO FailOpen(VelmoState* h, const char* text) {
  if (text) VelmoSetError(text);
  if (h->ProviderOpen && h->IOProvider.Close) {
    LockEnter(VelmoOpenLock());
    h->IOProvider.Close(&h->IOProvider);
    LockLeave(VelmoOpenLock());
  }
  FreeHandleMemory(h);
  return nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Shared internals

PlatformLock* VelmoListLock() {
  EnsureGlobals();
  return &GlobalListLock;
}
PlatformLock* VelmoSoundServiceLock() {
  EnsureGlobals();
  return &GlobalSoundLock;
}
PlatformLock* VelmoOpenLock() {
  EnsureGlobals();
  return &GlobalOpenLock;
}

const VelmoIOService* VelmoCurrentIOService() {
  return IOServiceOverride ? IOServiceOverride : BuiltInIOService();
}
void VelmoSetIOServiceForTest(const VelmoIOService* service) { IOServiceOverride = service; }

void VelmoSetClockForTest(VelmoClock clock) { ClockFunction = clock; }
VelmoClock VelmoCurrentClock() { return ClockFunction ? ClockFunction : &TimerMs; }

void VelmoInstallProviderServices(VelmoState* h) {
  IOProvider* io = &h->IOProvider;
  io->Owner = h;
  io->Lock = ServiceLock;
  io->TryLock = ServiceTryLock;
  io->Unlock = ServiceUnlock;
  io->UnlockIfHeld = ServiceUnlockIfHeld;
  io->SimulateWait = ServiceSimulateWait;
  io->Timer = ServiceTimer;
  io->AddCounter = ServiceAddCounter;
  io->CopyBytes = ServiceCopyBytes;
}

void VelmoMemoryProviderInit(IOProvider* io, const VelmoMemorySpan* span) {
  io->ReadHeader = MemoryReadHeader;
  io->ReadFrame = MemoryReadFrame;
  io->GetBufferSize = MemoryGetBufferSize;
  io->SetInfo = MemorySetInfo;
  io->Idle = MemoryIdle;
  io->Close = MemoryClose;
  io->BackgroundControl = MemoryBackgroundControl;
  io->Context = const_cast<VelmoMemorySpan*>(span);
  io->FileTotal = span ? span->Size : 0;
  io->OwnsHandle = 0;
}

uint32_t VelmoMemoryProviderOpen(IOProvider* io, const char* name, uint32_t flags,
                                 const VelmoOpenOptions* options) {
  const VelmoMemorySpan* span = reinterpret_cast<const VelmoMemorySpan*>(name);
  if (!io || !span || !span->Data) return 0;
  VelmoMemoryProviderInit(io, span);
  if ((flags & VelmoOpenFileOffset) && options) io->BaseOffset = options->FileOffset;
  return 1;
}

// ---------------------------------------------------------------------------------------------
// Public calls

extern "C" {

const char* VelmoGetError(void) { return ErrorText; }

void VelmoSetError(const char* text) {
  if (!text) text = "Velmo Error";
  if (text == ErrorText) return;
  std::strncpy(ErrorText, text, sizeof ErrorText - 1);
  ErrorText[sizeof ErrorText - 1] = 0;
}

void VelmoSetFrameRate(uint32_t rate, uint32_t rateDiv) {
  NextOpen.Rate = rate;
  NextOpen.RateDiv = rateDiv;
}
void VelmoSetFileOffset(uint64_t offset) { NextOpen.FileOffset = offset; }
void VelmoSetIOSize(uint64_t size) { NextOpen.IOSize = size; }
void VelmoSetSimulate(uint32_t bytesPerSecond) { NextOpen.Simulate = bytesPerSecond; }
void VelmoSetSoundTracks(uint32_t count, const uint32_t* ids) {
  if (count > MaxNextTracks) count = MaxNextTracks;
  if (!ids) count = 0;
  for (uint32_t i = 0; i < count; ++i) NextOpen.TrackIds[i] = ids[i];
  NextOpen.TrackCount = count;
}

HVELMO VelmoOpen(const char* name, uint32_t flags) {
  // The stored values are consumed by this open; a value left at its default adds no flag.
  const NextOpenValues next = NextOpen;
  NextOpen = NextOpenValues{};
  VelmoOpenOptions o{};
  o.FileOffset = next.FileOffset;
  o.IOBufferSize = next.IOSize;
  o.ForcedRate = next.Rate;
  o.ForcedRateDiv = next.RateDiv;
  o.SimulateRate = next.Simulate;
  o.TrackCount = next.TrackCount;
  o.TrackIds = next.TrackIds;
  if (next.FileOffset) flags |= VelmoOpenFileOffset;
  if (next.IOSize) flags |= VelmoOpenIOSize;
  if (next.Rate != 0xFFFFFFFFu) flags |= VelmoOpenForceRate;
  if (next.Simulate) flags |= VelmoOpenSimulate;
  if (next.TrackCount != 1 || next.TrackIds[0] != 0) flags |= VelmoOpenTrackList;
  return VelmoOpenWithOptions(name, &o, flags);
}

HVELMO VelmoOpenWithOptions(const char* name, const VelmoOpenOptions* options, uint32_t flags) {
  ErrorText[0] = 0;
  EnsureGlobals();
  const VelmoClock clock = VelmoCurrentClock();
  OpenJob job;
  job.Now = clock();
  (void)ProcessorFeatures();
  job.Name = name;
  job.Flags = flags;
  if (options) job.Options = *options;
  if (!(flags & VelmoOpenForceRate)) job.Options.ForcedRate = 0xFFFFFFFFu;
  if (!(flags & VelmoOpenTrackList)) job.Options.TrackCount = 1;

  void* memory = AlignedAlloc(sizeof(VelmoState), 256);
  if (!memory) {
    VelmoSetError("Out of memory.");
    return nullptr;
  }
  VelmoState* h = new (memory) VelmoState{};
  job.H = h;
  h->Clock = clock;
  h->TotalMemory = sizeof(VelmoState);
  h->OpenFlags = flags;
  if (!LockCreate(&h->FrameReadLock, LockModeTimed) || !LockCreate(&h->ProviderLock, LockModeTimed) ||
      !LockCreate(&h->SoundLock, LockModeTry))
    std::abort();
  h->LocksMade = 1;

  if (const char* e = ReadHeaderStep(job)) return FailOpen(h, e);
  SettleFlagsAndRates(job);
  if (flags & VelmoOpenReadWhole) {
    void* image = ReadWholeFile(job);
    if (h->ProviderOpen && h->IOProvider.Close) {
      LockEnter(VelmoOpenLock());
      h->IOProvider.Close(&h->IOProvider);
      LockLeave(VelmoOpenLock());
    }
    h->ProviderOpen = 0;
    FreeHandleMemory(h);
    return static_cast<HVELMO>(image);
  }
  if (const char* e = PlanBlock(job)) return FailOpen(h, e);
  if (const char* e = ReadTablesStep(job)) return FailOpen(h, e);
  if (const char* e = AllocateFrameBuffers(job)) return FailOpen(h, e);
  if (const char* e = CreateDecoder(job)) return FailOpen(h, e);
  if (const char* e = SettleReading(job)) return FailOpen(h, e);

  h->FrameNum = 0xFFFFFFFFu;
  h->LateLimit = h->FrameRate ? uint32_t(uint64_t(2000) * h->FrameRateDiv / h->FrameRate) : 2000;
  h->VideoOn = 1;
  h->OpenTime = clock() - job.Now;
  // Step 18: the asked tracks by id; without the track list, id 0.
  const uint32_t defaultId = 0;
  if (flags & VelmoOpenTrackList)
    VelmoOpenTracks(h, job.Options.TrackIds, std::min(job.Options.TrackCount, job.AskedTracks));
  else
    VelmoOpenTracks(h, &defaultId, 1);
  StartWalking(job);
  return h;
}

void VelmoFreeFileImage(void* image) { AlignedFree(image); }

void VelmoClose(HVELMO handle) {
  if (!handle) return;
  VelmoState* h = VelmoStateOf(handle);
  AtomicStore(&h->Closing, 1);
  VelmoPause(handle, 1);
  // Slices given to async workers are waited for (the drain looks at the slots itself: other
  // threads collecting answers clear them).
  if (VelmoServices.DrainAsync) VelmoServices.DrainAsync(h);
  const VelmoIOService* service = VelmoCurrentIOService();
  if (h->OnReaderList && service->Unregister) service->Unregister(h);
  h->OnReaderList = 0;
  VelmoSoundUnregister(h);
  if (!h->ImageSpan.Data) {
    LockEnter(&h->FrameReadLock);
    AtomicStore(&h->FrameReadPending, 0);
    LockLeave(&h->FrameReadLock);
  }
  // The tracks' back ends are closed under the sound service lock, and their memory freed;
  // the sound thread stops after its last handle.
  VelmoCloseTracks(h);
  if (h->ProviderOpen && h->IOProvider.Close) {
    LockEnter(VelmoOpenLock());
    h->IOProvider.Close(&h->IOProvider);
    LockLeave(VelmoOpenLock());
  }
  h->ProviderOpen = 0;
  FreeHandleMemory(h);
}

}  // extern "C"
