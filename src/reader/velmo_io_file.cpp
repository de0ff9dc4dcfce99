// The default file provider: unbuffered header reads, and a ring of 128 KiB units that the
// "Velmo IO" thread (or the caller, without background reading) keeps full while ReadFrame
// copies packets out of it.
//
// The ring. Reads go to the medium in units of 128 KiB on 128 KiB boundaries of the file, each
// to the next unit of a 4096-aligned ring whose size is a multiple of the unit; so a byte of the
// file always sits at the same offset in a unit of the ring as in a unit of the file. The copying
// side (ReadFrame) and the filling side (Idle) meet only in BufferUsed, RingFree and RingRead,
// which change by atomic adds; RingFree + BufferUsed is the ring's size, and the free part runs
// from RingWrite up to RingRead. Everything else changes under the provider lock. A ring that
// can hold the whole file keeps what it read, and ReadFrame moves back within it freely.
#include "reader/velmo_io_internal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace {

// ---------------------------------------------------------------------------------------------
// POSIX file calls

bool PosixOpen(const char* path, uint64_t* handle) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  *handle = uint64_t(fd);
  return true;
}

int64_t PosixRead(uint64_t handle, void* dest, uint32_t bytes) {
  for (;;) {
    const ssize_t got = ::read(int(handle), dest, bytes);
    if (got >= 0) return got;
    if (errno != EINTR) return -1;
  }
}

bool PosixSeek(uint64_t handle, uint64_t position) {
  if (position > uint64_t(INT64_MAX)) return false;
  return ::lseek(int(handle), off_t(position), SEEK_SET) == off_t(position);
}

void PosixClose(uint64_t handle) { ::close(int(handle)); }

const VelmoFileCalls PosixCalls = {PosixOpen, PosixRead, PosixSeek, PosixClose};
std::atomic<const VelmoFileCalls*> FileCalls{&PosixCalls};

// ---------------------------------------------------------------------------------------------
// The library's services, with plain fallbacks for a provider used on its own.

uint32_t Now(const IOProvider* io) { return io->Timer ? io->Timer() : TimerMs(); }
void Lock(IOProvider* io) {
  if (io->Lock) io->Lock(io);
}
bool TryLock(IOProvider* io) { return io->TryLock ? io->TryLock(io) != 0 : true; }
void Unlock(IOProvider* io) {
  if (io->Unlock) io->Unlock(io);
}
void AddCounter(IOProvider* io, volatile uint64_t* address, int64_t delta) {
  if (io->AddCounter) io->AddCounter(address, delta);
  else AtomicAdd64(address, delta);
}
void CopyBytes(IOProvider* io, void* dest, const void* source, uint64_t bytes) {
  if (!bytes) return;
  if (io->CopyBytes) io->CopyBytes(dest, source, bytes);
  else std::memcpy(dest, source, size_t(bytes));
}
void SetCounter(IOProvider* io, volatile uint64_t* address, uint64_t value) {
  AddCounter(io, address, int64_t(value - AtomicRead64(address)));
}
uint64_t Used(const IOProvider* io) { return AtomicRead64(&io->BufferUsed); }
// Fields that other threads look at without the provider lock (positions and statistics) are
// written whole.
void Store64(uint64_t* field, uint64_t value) { __atomic_store_n(field, value, __ATOMIC_SEQ_CST); }
void StoreLogical(IOProvider* io, uint64_t value) { Store64(&io->LogicalPos, value); }

// Flags of the handle that its caller changes while the reader thread works.
bool InLibraryCall(const IOProvider* io) {
  return AtomicRead(&io->InCall) || (io->Owner && AtomicRead(&io->Owner->InFrame));
}
bool Closing(const IOProvider* io) { return io->Owner && AtomicRead(&io->Owner->Closing); }
bool WrapWanted(const IOProvider* io) {
  return io->Owner && (AtomicRead(&io->Owner->OpenFlags) & VelmoOpenFileLoop);
}
// The loop flag is a request for one touch: taking it up clears it, and a player that loops
// again sets it again.
void ClearWrapWanted(IOProvider* io) {
  if (io->Owner)
    __atomic_fetch_and(&io->Owner->OpenFlags, ~uint32_t(VelmoOpenFileLoop), __ATOMIC_SEQ_CST);
}
// The file position of frame 1's packet, where a looping file starts again.
uint64_t LoopPoint(const IOProvider* io) {
  const VelmoHandle* h = io->Owner;
  return h && h->FrameTable ? (h->FrameTable[0] & ~uint64_t(3)) : 0;
}

uint64_t Remaining(const IOProvider* io) {
  return io->FileTotal > io->NextFilePos ? io->FileTotal - io->NextFilePos : 0;
}
bool HoldsWholeFile(const IOProvider* io) {
  return io->BufferSize != 0 && io->BufferSize >= io->FileTotal;
}

// ---------------------------------------------------------------------------------------------
// The medium

bool SeekMedium(IOProvider* io, uint64_t position) {
  if (io->MediumPos == position) return true;
  const uint64_t physical = position + io->BaseOffset;
  if (physical < position || !VelmoCurrentFileCalls()->Seek(io->FileHandle, physical)) {
    io->MediumPos = VelmoIONoFile;
    return false;
  }
  io->MediumPos = position;
  return true;
}

// Reads at the medium's place in platform pieces; stops at an error or a read of 0 bytes.
uint64_t ReadMedium(IOProvider* io, void* dest, uint64_t size) {
  const VelmoFileCalls* calls = VelmoCurrentFileCalls();
  uint8_t* out = static_cast<uint8_t*>(dest);
  uint64_t got = 0;
  while (got < size) {
    const uint32_t piece = uint32_t(std::min(size - got, VelmoIOPlatformPiece));
    const int64_t n = calls->Read(io->FileHandle, out + got, piece);
    if (n <= 0) break;
    got += uint64_t(std::min<int64_t>(n, piece));
  }
  if (io->MediumPos != VelmoIONoFile) io->MediumPos += got;
  return got;
}

// Pays for `bytes` on a simulated slow medium: bytes * 1000 / rate ms are owed, less the time
// the read took; a positive debt is slept off, a negative one is credit for the next read. The
// library's SimulateWait sleeps off slices of at most 50 ms, so that the reader thread does not
// hold its locks for long while an open or a close waits for them: then the rest is carried
// over to the next read (and dropped for a handle that is being closed).
void SimulateAfterRead(IOProvider* io, uint64_t bytes, uint32_t start) {
  const uint32_t rate = io->Simulate.Rate;
  if (rate == 0 || rate == 0xFFFFFFFFu || !io->SimulateWait) return;
  constexpr int64_t SliceMs = 50;
  int64_t& debt = io->Simulate.Owed;
  debt += int64_t(std::min<uint64_t>(bytes * 1000 / rate, 0xFFFFFFFFu));
  debt -= int64_t(uint32_t(Now(io) - start));
  while (debt > 0) {
    if (Closing(io)) {
      debt = 0;
      break;
    }
    if (VelmoIOServiceWanted()) break;
    const int64_t slice = std::min(debt, SliceMs);
    VelmoSimulateCounter left = {slice, rate};
    io->SimulateWait(&left, 0, Now(io));
    debt -= slice - left.Owed;  // ends at 0 or below: what was slept beyond the slice
  }
}

// Books the ms of a read that began at `start`.
void BookReadTime(IOProvider* io, uint32_t start, bool inCallAtStart) {
  const uint32_t ms = Now(io) - start;
  // The walk reads (and resets) these without the provider lock.
  AtomicAdd(&io->IOTime, int32_t(ms));
  AtomicAdd(inCallAtStart || InLibraryCall(io) ? &io->ThreadTime : &io->IdleTime, int32_t(ms));
}

// Empties the ring; the next fetch starts at `position`.
void ResetRing(IOProvider* io, uint64_t position) {
  Store64(&io->NextFilePos, position);
  StoreLogical(io, position);
  SetCounter(io, &io->RingFree, io->BufferSize);
  SetCounter(io, &io->BufferUsed, 0);
  SetCounter(io, &io->RingRead, 0);
  io->RingWrite = io->RingStart;
  io->RingBase = io->RingHeldFrom = position;
  Store64(&io->BufferFree, std::min(Remaining(io), io->BufferSize));
}

// The touch at the loop point: once per pass, move the heads to where the player starts again.
void TouchLoopPoint(IOProvider* io) {
  if (io->WrapRead || !WrapWanted(io)) return;
  ClearWrapWanted(io);
  io->WrapRead = 1;
  const uint64_t loop = LoopPoint(io);
  const uint64_t at = loop > VelmoIOLoopTouch ? loop - VelmoIOLoopTouch : 0;
  uint8_t scratch[VelmoIOLoopTouch];
  if (loop > at && SeekMedium(io, at)) io->BytesRead += ReadMedium(io, scratch, loop - at);
}

// Steps 6 to 11 of Idle: one unit (or the rest of the file) into the ring.
uint32_t ReadUnit(IOProvider* io, uint64_t remaining) {
  uint64_t size = std::min(VelmoIOUnit, remaining);
  const uint32_t start = Now(io);
  const bool inCallAtStart = InLibraryCall(io);
  // After an unbuffered read the file position can stand inside a unit. Skip that unit's head
  // in the ring as well, so that this and all later reads end on unit boundaries.
  uint64_t head = io->NextFilePos % VelmoIOUnit;
  if (head == 0 || head > size || remaining <= size) head = 0;
  if (head) {
    AddCounter(io, &io->RingRead, int64_t(head));
    size -= head;
  }
  if (io->WrapRead) {
    io->WrapRead = 0;
    ClearWrapWanted(io);
  }
  const uint64_t ringOffset = uint64_t(io->RingWrite - io->RingStart) + head;
  uint64_t got = 0;
  AtomicStore(&io->Reading, 1);
  if (SeekMedium(io, io->NextFilePos)) got = ReadMedium(io, io->RingWrite + head, size);
  AtomicStore(&io->Reading, 0);
  if (got < size) AtomicStore(&io->ReadError, 1);
  SimulateAfterRead(io, got, start);

  if (HoldsWholeFile(io)) io->RingBase = io->NextFilePos - ringOffset;
  Store64(&io->BytesRead, io->BytesRead + got);
  Store64(&io->NextFilePos, io->NextFilePos + got);
  io->RingWrite += VelmoIOUnit;
  if (io->RingWrite >= io->RingEnd) io->RingWrite = io->RingStart;
  AddCounter(io, &io->RingFree, -int64_t(got));
  AddCounter(io, &io->BufferUsed, int64_t(got));
  const uint64_t used = Used(io);
  Store64(&io->HighWater, std::max(io->HighWater, used));
  Store64(&io->BufferFree, std::min(io->BufferSize, used + Remaining(io)));
  BookReadTime(io, start, inCallAtStart);
  return uint32_t(got);
}

// ---------------------------------------------------------------------------------------------
// Copying out

// Passes over `bytes` at the copying end.
void Pass(IOProvider* io, uint64_t bytes) {
  uint64_t read = AtomicRead64(&io->RingRead) + bytes;
  int64_t delta = int64_t(bytes);
  if (read >= io->BufferSize) delta -= int64_t(io->BufferSize);
  AddCounter(io, &io->RingRead, delta);
  AddCounter(io, &io->BufferUsed, -int64_t(bytes));
  AddCounter(io, &io->RingFree, int64_t(bytes));
  StoreLogical(io, io->LogicalPos + bytes);
}

// Copies `bytes` from the copying end, in two parts where they cross the ring's end.
void CopyFromRing(IOProvider* io, uint8_t* dest, uint64_t bytes) {
  const uint64_t at = AtomicRead64(&io->RingRead);
  const uint64_t first = std::min(bytes, io->BufferSize - at);
  CopyBytes(io, dest, io->RingStart + at, first);
  CopyBytes(io, dest + first, io->RingStart, bytes - first);
}

// Step 4 of ReadFrame: skip, then deliver, reading more whenever the ring runs dry.
uint64_t DeliverFromRing(IOProvider* io, uint8_t* dest, uint64_t size, uint64_t skip) {
  uint64_t delivered = 0;
  while (delivered < size || skip) {
    const uint64_t used = Used(io);
    if (used == 0) {
      if (VelmoIOIdleStep(io, true) == 0 && Used(io) == 0) break;  // end of file, or failed
      continue;
    }
    if (skip) {
      const uint64_t n = std::min(skip, used);
      Pass(io, n);
      skip -= n;
      continue;
    }
    const uint64_t n = std::min(size - delivered, used);
    CopyFromRing(io, dest + delivered, n);
    Pass(io, n);
    delivered += n;
  }
  return delivered;
}

// Moves the copying end to `position`, which the ring holds: forward, or backward in a ring
// that holds the whole file.
void MoveWithinRing(IOProvider* io, uint64_t position) {
  const int64_t delta = int64_t(position - io->LogicalPos);
  uint64_t read = AtomicRead64(&io->RingRead);
  const uint64_t target = HoldsWholeFile(io) ? (position - io->RingBase) % io->BufferSize
                                             : (read + uint64_t(delta)) % io->BufferSize;
  AddCounter(io, &io->RingRead, int64_t(target - read));
  AddCounter(io, &io->BufferUsed, -delta);
  AddCounter(io, &io->RingFree, delta);
  StoreLogical(io, position);
}

// A ring that cannot read ahead: straight from the medium into the caller's memory.
uint64_t ReadDirect(IOProvider* io, uint64_t position, void* dest, uint64_t size) {
  Lock(io);
  if (position == VELMO_IO_CONTINUE) position = io->NextFilePos;
  const uint32_t start = Now(io);
  const bool inCallAtStart = InLibraryCall(io);
  uint64_t got = 0;
  AtomicStore(&io->Reading, 1);
  if (SeekMedium(io, position)) got = ReadMedium(io, dest, size);
  AtomicStore(&io->Reading, 0);
  if (got < size) AtomicStore(&io->ReadError, 1);
  SimulateAfterRead(io, got, start);
  io->BytesRead += got;
  io->NextFilePos = position + got;
  StoreLogical(io, io->NextFilePos);
  BookReadTime(io, start, inCallAtStart);
  Unlock(io);
  return got;
}

// ---------------------------------------------------------------------------------------------
// The operations

uint64_t FileReadHeader(IOProvider* io, uint64_t position, void* dest, uint64_t size) {
  if (io->BeforeRead) io->BeforeRead(io, position, size);
  Lock(io);
  if (position == VELMO_IO_CONTINUE) position = io->NextFilePos;
  const uint32_t start = Now(io);
  const bool inCallAtStart = InLibraryCall(io);
  uint64_t got = 0;
  AtomicStore(&io->Reading, 1);
  if (SeekMedium(io, position)) got = ReadMedium(io, dest, size);
  AtomicStore(&io->Reading, 0);
  if (got < size) AtomicStore(&io->ReadError, 1);
  SimulateAfterRead(io, got, start);
  io->BytesRead += got;
  if (position == 0 && got >= 8) {
    uint32_t less8;
    std::memcpy(&less8, static_cast<uint8_t*>(dest) + 4, 4);
    io->FileTotal = uint64_t(less8) + 8;
  }
  // What the ring held no longer follows on from the medium's place: start it afresh there.
  ResetRing(io, position + got);
  BookReadTime(io, start, inCallAtStart);
  Unlock(io);
  if (io->AfterRead) io->AfterRead(dest, got);
  return got;
}

uint64_t FileReadFrame(IOProvider* io, uint32_t frame, uint64_t position, void* dest,
                       uint64_t size) {
  (void)frame;
  if (AtomicRead(&io->ReadError)) return 0;
  if (io->BeforeRead) io->BeforeRead(io, position, size);
  uint64_t delivered;
  if (io->BufferSize == 0) {
    delivered = ReadDirect(io, position, dest, size);
  } else {
    bool locked = false;
    uint64_t skip = 0;
    if (position != VELMO_IO_CONTINUE && position != io->LogicalPos) {
      Lock(io);
      locked = true;
      const uint64_t from = HoldsWholeFile(io) ? io->RingHeldFrom : io->LogicalPos;
      if (position >= from && position <= io->NextFilePos) {
        MoveWithinRing(io, position);
      } else {
        // Not in the ring: throw it away and start again on the unit that holds the position.
        const uint64_t unit = position - position % VelmoIOUnit;
        ResetRing(io, unit);
        skip = position - unit;
      }
    }
    delivered = DeliverFromRing(io, static_cast<uint8_t*>(dest), size, skip);
    if (locked) Unlock(io);
  }
  if (io->AfterRead) io->AfterRead(dest, delivered);
  return delivered;
}

uint64_t FileGetBufferSize(IOProvider*, uint64_t wanted) {
  const uint64_t units = (wanted + VelmoIOUnit - 1) / VelmoIOUnit * VelmoIOUnit;
  if (units < 2 * VelmoIOUnit) return 2 * VelmoIOUnit + VelmoIOAlign;
  return units + VelmoIOAlign;
}

void FileSetInfo(IOProvider* io, void* buffer, uint64_t size, uint64_t fileSize,
                 uint32_t simulateRate) {
  // Whole units of the ring, unless the block holds the whole file: then all of it is kept.
  auto usableOf = [fileSize](uint64_t bytes) {
    return bytes >= fileSize ? bytes : bytes / VelmoIOUnit * VelmoIOUnit;
  };
  uint8_t* start = static_cast<uint8_t*>(buffer);
  uint64_t usable = 0;
  if (buffer) {
    const uintptr_t aligned =
        (reinterpret_cast<uintptr_t>(buffer) + VelmoIOAlign - 1) & ~uintptr_t(VelmoIOAlign - 1);
    const uint64_t lost = aligned - reinterpret_cast<uintptr_t>(buffer);
    usable = lost < size ? usableOf(size - lost) : 0;
    if (usable) start = reinterpret_cast<uint8_t*>(aligned);
    else usable = usableOf(size);  // nothing left after aligning: the block as it came
  }
  // A block that holds neither one unit nor the file cannot read ahead: reads go direct.
  if (usable == 0) start = nullptr;

  Lock(io);
  io->RingStart = io->RingWrite = start;
  io->RingEnd = start ? start + usable : nullptr;
  io->BufferSize = usable;
  io->FileTotal = fileSize;
  io->Simulate.Rate = simulateRate == 0xFFFFFFFFu ? 0 : simulateRate;
  io->Simulate.Owed = 0;
  SetCounter(io, &io->RingFree, usable);
  SetCounter(io, &io->BufferUsed, 0);
  SetCounter(io, &io->RingRead, 0);
  io->BufferFree = usable;
  io->RingBase = io->RingHeldFrom = io->NextFilePos;
  StoreLogical(io, io->NextFilePos);
  Unlock(io);
}

uint32_t FileIdle(IOProvider* io) { return VelmoIOIdleStep(io, false); }

void FileClose(IOProvider* io) {
  if (io->OwnsHandle && io->FileHandle != VelmoIONoFile)
    VelmoCurrentFileCalls()->Close(io->FileHandle);
  io->FileHandle = VelmoIONoFile;
  io->OwnsHandle = 0;
  io->MediumPos = VelmoIONoFile;
}

uint32_t FileBackgroundControl(IOProvider* io, uint32_t control) {
  const bool flush = (control & uint32_t(VelmoIOFlush)) != 0;
  if (control & VelmoIOSuspend) {
    __atomic_store_n(&io->Suspended, 1u, __ATOMIC_SEQ_CST);
    // Wait until no read runs.
    if (flush) {
      if (io->UnlockIfHeld) {
        io->UnlockIfHeld(io);
      } else {
        Lock(io);
        Unlock(io);
      }
    }
  }
  if (control & VelmoIOResume) {
    __atomic_store_n(&io->Suspended, 0u, __ATOMIC_SEQ_CST);
    if (flush) VelmoIOIdleStep(io, false);
    const VelmoState* h = VelmoStateOf(io);
    const VelmoIOService* service = VelmoCurrentIOService();
    if (h && h->OnReaderList && service->Wake) service->Wake(1);
  }
  if (control & VelmoIOTestFree) {
    if (!TryLock(io)) return 0;
    Unlock(io);
    return 1;
  }
  return __atomic_load_n(&io->Suspended, __ATOMIC_SEQ_CST);
}

}  // namespace

// ---------------------------------------------------------------------------------------------

const VelmoFileCalls* VelmoCurrentFileCalls() { return FileCalls.load(); }
void VelmoSetFileCalls(const VelmoFileCalls* calls) {
  FileCalls.store(calls ? calls : &PosixCalls);
}

uint32_t VelmoIOIdleStep(IOProvider* io, bool mustRead) {
  if (AtomicRead(&io->ReadError) || io->BufferSize == 0) return 0;
  if (!mustRead && __atomic_load_n(&io->Suspended, __ATOMIC_SEQ_CST)) return 0;
  if (mustRead) Lock(io);
  else if (!TryLock(io)) return VELMO_IO_BUSY;
  uint32_t got = 0;
  const uint64_t remaining = Remaining(io);
  if (remaining == 0) {
    TouchLoopPoint(io);
    Store64(&io->BufferFree, Used(io));
  } else if (AtomicRead64(&io->RingFree) < VelmoIOUnit && AtomicRead64(&io->RingFree) < remaining) {
    Store64(&io->BufferFree, Used(io));  // no room for a unit
  } else {
    got = ReadUnit(io, remaining);
  }
  Unlock(io);
  return got;
}

void VelmoFileProviderInit(IOProvider* io) {
  io->ReadHeader = FileReadHeader;
  io->ReadFrame = FileReadFrame;
  io->GetBufferSize = FileGetBufferSize;
  io->SetInfo = FileSetInfo;
  io->Idle = FileIdle;
  io->Close = FileClose;
  io->BackgroundControl = FileBackgroundControl;
  io->FileHandle = VelmoIONoFile;
  io->OwnsHandle = 0;
  io->MediumPos = VelmoIONoFile;
}

uint32_t VelmoFileProviderOpen(IOProvider* io, const char* name, uint32_t flags,
                               const VelmoOpenOptions* options) {
  if (!io) return 0;
  VelmoFileProviderInit(io);
  const VelmoFileCalls* calls = VelmoCurrentFileCalls();
  if (flags & VelmoOpenFileHandle) {
    io->FileHandle = uint64_t(reinterpret_cast<uintptr_t>(name));
  } else {
    uint64_t handle;
    if (!name || !calls->Open(name, &handle)) return 0;
    io->FileHandle = handle;
    io->OwnsHandle = 1;
    io->MediumPos = 0;
  }
  if ((flags & VelmoOpenFileOffset) && options) {
    io->BaseOffset = options->FileOffset;
    io->MediumPos = VelmoIONoFile;
    if (!SeekMedium(io, 0)) {
      FileClose(io);
      return 0;
    }
  }
  return 1;
}
