// The read-ahead I/O module inside the reader library: the default file provider with its ring
// of 128 KiB units, the platform file calls it goes through, and the process-wide "Velmo IO"
// thread that serves every open handle. The public record is IOProvider (velmo_io.h); the open
// and close code reaches this module through VelmoFileIOService (velmo_handle.h).
#pragma once
#include "reader/velmo_handle.h"

#include <cstdint>

// Reads go to the medium in units of this size, on the same boundaries of the file.
inline constexpr uint64_t VelmoIOUnit = 0x20000;
// The ring starts on this boundary.
inline constexpr uint64_t VelmoIOAlign = 0x1000;
// The most one platform read is asked for.
inline constexpr uint64_t VelmoIOPlatformPiece = 0x20000000;
// The touch at the loop point: bytes that end at the first frame's position.
inline constexpr uint32_t VelmoIOLoopTouch = 32;
// A platform handle that is not open.
inline constexpr uint64_t VelmoIONoFile = ~uint64_t(0);

// ---------------------------------------------------------------------------------------------
// Platform calls for a file, kept in process-wide slots so that another platform (or a test's
// slow or failing medium) can replace them.
struct VelmoFileCalls {
  // Opens an existing file for reading, shared with other readers, with the sequential-scan
  // hint. False when it cannot be opened.
  bool (*Open)(const char* path, uint64_t* handle);
  // Reads at most `bytes` at the current place: the bytes read, 0 at the end, -1 on error.
  int64_t (*Read)(uint64_t handle, void* dest, uint32_t bytes);
  // Moves to `position` bytes from the start of the file. False on error.
  bool (*Seek)(uint64_t handle, uint64_t position);
  void (*Close)(uint64_t handle);
};

// The calls in use; POSIX by default.
const VelmoFileCalls* VelmoCurrentFileCalls();
// Replaces the calls; null restores POSIX. Handles opened before keep being used with the new
// calls, so change them only while no file of the provider is open.
void VelmoSetFileCalls(const VelmoFileCalls* calls);

// ---------------------------------------------------------------------------------------------
// The default file provider.

// The open function of the default provider (a VelmoIOOpenFunction): `name` is a path, or with
// open flag 0x800000 the platform handle itself (not owned, not closed). With flag 0x20 the
// medium moves to options->FileOffset at once.
uint32_t VelmoFileProviderOpen(IOProvider* io, const char* name, uint32_t flags,
                               const VelmoOpenOptions* options);
// Fills in the seven operations of the default provider without opening anything.
void VelmoFileProviderInit(IOProvider* io);

// One step of reading ahead. The background form (`mustRead` false) stops while suspended and
// returns VELMO_IO_BUSY when the provider lock is taken; the form of ReadFrame waits for the
// lock and reads even while suspended.
uint32_t VelmoIOIdleStep(IOProvider* io, bool mustRead);

// ---------------------------------------------------------------------------------------------
// The "Velmo IO" thread.

// How full a handle's ring is, 0 to 128; 129 when it cannot be read ahead at all (no ring,
// failed, suspended).
uint32_t VelmoIOFullness(const IOProvider* io);
// The thread stays with the handle it serves (fullness `current`) while the emptiest other
// handle (fullness `lowestOther`) is not far emptier: the 103, 122 and 12 thresholds.
bool VelmoIOStayWithCurrent(uint32_t current, uint32_t lowestOther);

// The thread's list of handles (linked through NextOpen) and the one it serves now.
struct VelmoIOReaderList {
  VelmoHandle* First;
  VelmoHandle* Current;
};
// One round of the thread over `list`, with the list lock held: pending frame reads first, then
// one step of reading ahead where it is wanted most. Returns the handles whose frame read is
// still pending; `*didRead` tells whether anything was read.
uint32_t VelmoIORound(VelmoIOReaderList* list, bool* didRead);

// True while an open or a close waits for the service's locks: a read that is paying for a
// simulated slow medium then lets go early and carries the rest of its debt.
bool VelmoIOServiceWanted();

// The service hooks that VelmoFileIOService carries.
bool VelmoIORegister(VelmoState* handle);
void VelmoIOUnregister(VelmoState* handle);
void VelmoIOWake(uint32_t count);

// State of the service, for tests and statistics.
bool VelmoIOThreadRunning();
uint32_t VelmoIOUserCount();
uint32_t VelmoIOThreadStarts();  // threads started since the process began
// Stops a thread that was kept alive (open flag 0x40) once no handle uses it.
void VelmoIOStopUnused();
