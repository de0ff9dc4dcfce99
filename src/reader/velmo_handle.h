// The open handle's full record: the public leading fields of velmo.h, then the library's
// private state (locks, the timing ring, the counters of the walk, the memory it owns). Shared by
// the reader library's modules: open and close, the frame walk, the read-ahead service, sound
// tracks and the async slice service.
#pragma once
#include "host/platform.h"
#include "decode/video_decoder.h"
#include "format/frame_buffers.h"
#include "velmo_io.h"
#include "velmo.h"

#include <cstddef>
#include <cstdint>

// Said once per handle when a second-generation file holds frames of the older stream, which
// this library leaves undecoded.
inline constexpr const char* VelmoOldStreamText =
    "This file holds frames of the older Velmo 2 stream, which this player does not decode; "
    "those frames keep the picture before them.";

// The seven arrays of the timing ring, one slot per frame of one second.
enum : uint32_t {
  VelmoRingTime = 0,    // timer value at the frame's end
  VelmoRingVideo,       // VideoTime
  VelmoRingSound,       // SoundTime
  VelmoRingBlit,        // BlitTime
  VelmoRingIO,          // provider IOTime
  VelmoRingIdleIO,      // provider IdleTime
  VelmoRingThreadIO,    // provider ThreadTime
  VelmoRingCount,
};

// Time figures of the walk.
enum : uint32_t {
  VelmoLoopRestartMs = 300000,  // a loop point this long after the last restarts clock and sound
  VelmoResyncMs = 725,          // with sound, this far behind restarts the sound
  VelmoMaxSkipRun = 4,          // frames skipped in a row at most
  VelmoBlitPending = 0xFFFFFFFFu,
};

// The library's clock. Every time stamp of the walk comes through it; TimerMs by default.
typedef uint32_t (*VelmoClock)();

// A span of memory that a memory provider reads from.
struct VelmoMemorySpan {
  const uint8_t* Data;
  uint64_t Size;
};

struct VelmoState : VelmoHandle {
  // Locks of the handle (Part of the process-wide order: list lock, frame read lock, provider
  // lock; the sound lock stands apart).
  PlatformLock FrameReadLock;
  PlatformLock ProviderLock;
  PlatformLock SoundLock;
  uint32_t LocksMade;

  VelmoClock Clock;

  // The timing ring, written backwards.
  uint32_t* Ring[VelmoRingCount];
  uint32_t RingSize, RingPosition;

  uint32_t IndexFrames;
  uint32_t FramesPlayed;        // frames completed
  uint32_t StartTime;           // timer value when the clock was started, 0 if not started
  uint32_t StartFrame;          // FramesPlayed - 1 at that moment
  uint32_t LateLimit;           // ms of two frames; 2000 when the rate is 0
  uint32_t ClockStartTime;      // first frame's time
  uint32_t Slowest, SlowestFrame, SecondSlowest, SecondSlowestFrame;
  uint32_t VideoTime, SoundTime, BlitTime;
  uint32_t BlitStart;           // end of the last frame; 0 none; all ones until the copy begins
  uint32_t OpenTime;
  uint32_t FileRate, FileRateDiv;
  uint32_t LastDecoded;         // FrameNum of the last complete frame
  uint32_t LastFrameTime;
  uint32_t LoopTime;            // time of the last restart check at frame 1
  uint32_t LoopTimeSet;         // LoopTime holds a time
  uint32_t RestartSound;
  uint32_t SkipState;           // 0 not asked yet, 1 shown, 2 skip
  uint32_t ForceResync;
  uint32_t SkippedFrames;
  uint32_t SkipRun;
  uint32_t SoundSkips;
  uint32_t PauseOffset;
  uint32_t DecodeResultShadow;  // highest decoder result of the frame being decoded
  uint32_t VideoDecoded;        // a share of this frame decoded video into the next set
  uint32_t OldStreamTold;       // the message about the older stream has been given

  // What the walk needs of the file.
  uint64_t FirstFrameOffset;    // position of frame 1's packet
  uint64_t TablesOffset;
  uint32_t SliceScratchWords;   // u32 per slice's scratch (Stride / 4)
  uint32_t* SliceScratch;       // (slices - 1) strides, second generation only
  const VelmoVideoDecoder* Decoder;  // the generation's decoder; null: frames are not decoded
  void* DecoderState;

  // Memory the handle owns.
  void* Block;                  // the planned block: rings, scratch, tracks, tables
  void* FrameBufferBlock;       // all frame buffer planes
  void* ReadBuffer;             // the provider's ring
  uint8_t* PacketBuffer;        // LargestFrameSize + 1280 bytes for the selected packet
  void* PreloadBlock;           // the library's own preload block (null for an image)
  VelmoMemorySpan ImageSpan;    // a file image in memory (open flag 0x4000000)
  uint32_t ProviderOpen;        // the provider must be closed at VelmoClose
  uint32_t OnReaderList;        // registered with the read-ahead service

  VelmoFrameBuffers Buffers;    // FrameBuffers points here when frame buffers exist

  // Sound tracks (velmo_sound.cpp). The feeder may run on the sound thread: what it reads of
  // the walk comes through the two mirrors, written atomically by the frame thread.
  void* TrackBlock;             // decoders and rings of the open tracks
  VelmoState* NextSound;        // the sound service's list, under its list lock
  volatile uint32_t OnSoundList;
  int32_t SoundService;         // 0 sound thread, 1 fed by the frame walk, 2 fed by the host
  uint32_t SoundSleep;          // the thread's sleep time this handle asks for, ms
  uint32_t LastSoundFrame;      // frame whose sound packets were decoded last
  volatile uint32_t FeedFrame;  // FrameNum, for the feeder
  volatile uint32_t FeedPlayed; // nonzero once a frame was played, for the feeder
};

inline VelmoState* VelmoStateOf(HVELMO handle) { return static_cast<VelmoState*>(handle); }
inline VelmoState* VelmoStateOf(IOProvider* io) {
  return io ? static_cast<VelmoState*>(io->Owner) : nullptr;
}

// ---------------------------------------------------------------------------------------------
// The read-ahead service: the default file provider and the process-wide "Velmo IO" thread.
// The I/O module (velmo_io.cpp) defines VelmoFileIOService; while it is absent the library has
// no file provider and every handle reads on the caller's thread.
struct VelmoIOService {
  // Opens the default file provider on `name` and fills in its operations.
  VelmoIOOpenFunction OpenFile;
  // Puts the handle on the reader thread's list, starting the thread for the first one.
  // False when no thread can be had: the handle then reads on the caller's thread.
  bool (*Register)(VelmoState* handle);
  // Takes the handle off the list and waits until the thread has let go of it; stops the
  // thread after the last handle unless that handle was opened with 0x40.
  void (*Unregister)(VelmoState* handle);
  // Signals the thread's semaphore `count` times.
  void (*Wake)(uint32_t count);
};
extern const VelmoIOService VelmoFileIOService;

// The service in use (VelmoFileIOService, or one that has no file provider and no thread).
const VelmoIOService* VelmoCurrentIOService();
// Replaces it; null restores the default. For tests.
void VelmoSetIOServiceForTest(const VelmoIOService* service);

// ---------------------------------------------------------------------------------------------
// Internals shared by the library's modules.

// The process-wide locks: the list of open handles, the sound service, provider open/close.
// Set up by the first call, behind a spin on an atomic counter.
PlatformLock* VelmoListLock();
PlatformLock* VelmoSoundServiceLock();
PlatformLock* VelmoOpenLock();

// Installs the library's services (Owner, locks, timer, counters, copy) into a provider.
void VelmoInstallProviderServices(VelmoState* handle);
// A provider that reads from a span in memory, reading directly (no ring). `Context` holds
// the span; used for file images and by tests as a custom provider.
void VelmoMemoryProviderInit(IOProvider* io, const VelmoMemorySpan* span);
// A custom-provider open function for VelmoMemoryProviderInit: `name` points at a
// VelmoMemorySpan.
uint32_t VelmoMemoryProviderOpen(IOProvider* io, const char* name, uint32_t flags,
                                 const VelmoOpenOptions* options);

// Sets the library's clock for the next opens (null restores TimerMs).
void VelmoSetClockForTest(VelmoClock clock);
VelmoClock VelmoCurrentClock();

// The frame walk's shared steps.
void VelmoSelectFrame(VelmoState* h, uint32_t frame);
void VelmoFinishPendingRead(VelmoState* h);
void VelmoStartClock(VelmoState* h, uint32_t now);
int32_t VelmoLateness(VelmoState* h, uint32_t now);
// The skip check; mode 1 reports only. 1 means skip (or would skip).
uint32_t VelmoSkipCheck(VelmoState* h, uint32_t mode);
void VelmoEndBlitTiming(VelmoState* h, uint32_t now);

// Sound hooks (velmo_sound.cpp): feeding the tracks at the walk's points when the frame walk
// feeds them, and the restart after an underrun or a resync.
void VelmoFeedPolledSound(VelmoState* h);
void VelmoSoundRestart(VelmoState* h);  // off, clear the clock, on

// Takes the next share of the selected frame's slices for one of `parts` workers: first slice
// in the low four bits, count in the high four; 0 when nothing is left.
uint32_t VelmoTakeShare(VelmoState* h, uint32_t parts);

// Hooks for the services that come later. Null while not installed.
// The async service's drain, called by VelmoClose: waits for the slices given away.
typedef void (*VelmoAsyncDrain)(VelmoState* h);
struct VelmoLaterServices {
  VelmoAsyncDrain DrainAsync;
};
extern VelmoLaterServices VelmoServices;
