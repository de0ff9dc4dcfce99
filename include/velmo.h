/* The Velmo reader library: open a Velmo file (.vlm, .vm2) and walk it frame by frame in real
 * time.
 *
 * The calling order is fixed. After VelmoOpen, a program loops: VelmoWait until it returns 0,
 * VelmoDoFrame, copy the frame out (VelmoCopyToBuffer, or the planes of FrameBuffers),
 * VelmoNextFrame. The open selects frame 1; VelmoNextFrame selects the next one and starts its
 * read at once. After the last frame, VelmoNextFrame goes back to frame 1: a file loops, and the
 * caller decides when to stop by comparing FrameNum with Frames. Frame numbers start at 1.
 *
 * Every call takes the handle first, and a null handle is accepted and does nothing. Failures
 * are reported by a null or 0 result and one process-wide text (VelmoGetError).
 *
 * The flag words are in velmo_flags.h, the frame buffer records in velmo_frame.h and the I/O
 * provider in velmo_io.h; this header includes them. */
#ifndef ORN_VELMO_H
#define ORN_VELMO_H

#include <stdint.h>

#include "velmo_flags.h"
#include "velmo_frame.h"
#include "velmo_io.h"

/* Marks the functions that the shared library exports; everything else in it stays hidden. */
#ifndef VELMO_API
#if defined(__GNUC__)
#define VELMO_API __attribute__((visibility("default")))
#else
#define VELMO_API
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* VelmoGoto flags. */
enum {
  VelmoGotoExact = 0x1,  /* the exact frame, no key frame search */
  VelmoGotoDirect = 0x2  /* no sound run-up */
};

/* VelmoGetKeyFrame flags: the low seven bits pick the direction; bit 7 set means the frame
 * itself is not returned just because it is a key frame. */
enum {
  VelmoKeyBackward = 0,
  VelmoKeyForward = 1,
  VelmoKeyNearest = 2,
  VelmoKeyNotSelf = 0x80
};

/* VelmoDoSlices flags: the share (first slice in the low four bits, count in the high four)
 * and the start and end steps. */
enum {
  VelmoSlicesStart = 0x100,
  VelmoSlicesEnd = 0x200
};

/* Second-generation slices: the count, the bytes of scratch per slice and the row height. */
typedef struct VelmoSliceState {
  volatile uint32_t Next; /* the slice counter; shares are taken by an atomic add */
  uint32_t Count;
  uint32_t Stride;
  uint32_t RowHeight;
  uint32_t StartRows[8];  /* the row where each slice starts, filled by the decoder setup */
} VelmoSliceState;

struct VelmoTrack;

/* The open file. Programs read these leading fields directly; the library's private state
 * follows them. The record is aligned to 256 bytes. */
typedef struct VelmoHandle {
  uint32_t Width, Height;
  uint32_t Frames;            /* complete frames in the file */
  uint32_t FrameNum;          /* the frame selected now, from 1 */
  uint32_t LastFrameNum;      /* the frame selected before */
  uint32_t FrameRate, FrameRateDiv; /* playback rate; the file's unless forced */
  uint32_t ReadError;         /* nonzero after the input failed: the handle does nothing */
  uint32_t OpenFlags;         /* VelmoOpen* bits, as completed by the library */
  uint32_t FileFlags;         /* the header's Flags: VelmoFlag* bits */
  uint32_t LargestFrameSize;
  uint32_t LastDecodeResult;  /* highest decoder result for the last complete frame */
  uint32_t TrackCount;        /* tracks in the file */
  uint32_t SoundOn, VideoOn;
  uint32_t FrameReadPending;  /* the selected frame's packet is not in memory yet */
  uint32_t Closing;
  float ColourTable[16];
  uint64_t HighestSecondBytes; /* most bytes in any one-second window of frames */
  VelmoFrameBuffers* FrameBuffers; /* the decoded frames; null with VelmoOpenNoBuffers */
  struct VelmoHandle* NextOpen;
  uint8_t* FrameData;         /* start of the selected frame's packet */
  uint32_t* TrackIndexes;
  uint64_t FileSize;          /* total bytes minus 8, plus the frame table's wrap amount */
  uint64_t ReadBufferSize;
  uint64_t TotalMemory;
  uint64_t FramePosition;
  uint32_t AsyncSlots[8];
  uint64_t NextReadPosition;
  uint32_t Magic;
  uint32_t Paused;
  uint32_t FrameSkipped;
  uint32_t FrameSize;
  uint32_t FrameIsKey;
  uint32_t OpenTracks;
  VelmoSliceState SliceState;
  struct VelmoTrack* Tracks;
  uint64_t* FrameTable;       /* entries expanded to 64 bits, bit 0 kept */
  uint32_t OpenSerial;
  uint32_t AllKeyFrames;
  const uint32_t* TrackMaxBytes;
  const uint32_t* TrackFormats;
  const uint32_t* TrackIds;
  uint8_t* PreloadData;
  uint32_t SimulateRate;
  uint32_t HighestSecondFrame; /* from 0 */
  uint32_t PendingFrame;
  struct IOProvider IOProvider;
  uint32_t InFrame;
} VelmoHandle;

typedef VelmoHandle* HVELMO;

/* Open options; each field is used only with its open flag. */
typedef struct VelmoOpenOptions {
  uint64_t FileOffset;                /* 0x20 */
  uint64_t IOBufferSize;              /* 0x1000000; 0 or all ones = default */
  uint32_t ForcedRate, ForcedRateDiv; /* 0x1000; all ones = the file's */
  uint32_t SimulateRate;              /* 0x400000; bytes per second; 0 or all ones = none */
  uint32_t TrackCount;                /* 0x4000 */
  const uint32_t* TrackIds;
  VelmoIOOpenFunction CustomIO;       /* 0x2000000 */
  uint64_t ImageSize;                 /* 0x4000000: bytes of the image; 0 = as its header says */
} VelmoOpenOptions;

/* VelmoGetSummary: figures of a whole run. */
typedef struct VelmoSummary {
  uint64_t ReadSpeed;          /* bytes per second of the medium */
  uint64_t TotalMemory;
  uint64_t ReadBufferSize;
  uint64_t HighestBufferUsed;
  uint64_t HighestSecondBytes;
  uint32_t Width, Height;
  uint32_t TotalTime;          /* ms since the first frame */
  uint32_t FileRate, FileRateDiv, FrameRate, FrameRateDiv;
  uint32_t OpenTime, Frames, FramesPlayed;
  uint32_t Reserved;
  uint32_t SkippedFrames, SoundSkips;
  uint32_t BlitTime, ReadTime, VideoTime, SoundTime, IdleReadTime, ThreadReadTime;
  uint32_t Slowest, SecondSlowest, SlowestFrame, SecondSlowestFrame;
  uint32_t AverageRate;        /* bytes per second */
  uint32_t AverageFrame;       /* bytes */
  uint32_t HighestSecondFrame; /* from 1 */
} VelmoSummary;

/* VelmoGetRealtime: figures over the last few frames. */
typedef struct VelmoRealtime {
  uint32_t FrameNum;           /* LastFrameNum */
  uint32_t FrameRate, FrameRateDiv;
  uint32_t Span;               /* frames the differences are taken over */
  uint32_t Time;               /* ms across the span, at least 1 */
  uint32_t VideoTime, SoundTime, BlitTime;
  uint32_t ReadTime, IdleReadTime, ThreadReadTime;
  uint64_t BufferSize, BufferUsed;
  uint64_t Bytes;              /* bytes of the frames in the span */
  uint64_t DataRate;           /* Bytes per second of span time */
} VelmoRealtime;

/* Values for the next VelmoOpen; process-wide, consumed by that open. */
VELMO_API void VelmoSetFrameRate(uint32_t rate, uint32_t rateDiv);
VELMO_API void VelmoSetFileOffset(uint64_t offset);
VELMO_API void VelmoSetIOSize(uint64_t size);
VELMO_API void VelmoSetSimulate(uint32_t bytesPerSecond);
VELMO_API void VelmoSetSoundTracks(uint32_t count, const uint32_t* ids); /* at most 32 ids */

VELMO_API HVELMO VelmoOpen(const char* name, uint32_t flags);
VELMO_API HVELMO VelmoOpenWithOptions(const char* name, const VelmoOpenOptions* options,
                                      uint32_t flags);
/* Frees a block returned by an open with VelmoOpenReadWhole. */
VELMO_API void VelmoFreeFileImage(void* image);
VELMO_API void VelmoClose(HVELMO handle);

VELMO_API const char* VelmoGetError(void);
VELMO_API void VelmoSetError(const char* text); /* null stores "Velmo Error" */

VELMO_API uint32_t VelmoWait(HVELMO handle);    /* 1: not yet; 0: now */
VELMO_API uint32_t VelmoDoFrame(HVELMO handle); /* nonzero when the frame was decoded */
VELMO_API uint32_t VelmoStartFrame(HVELMO handle, uint32_t now);
VELMO_API uint32_t VelmoDoSlices(HVELMO handle, uint32_t flags);
VELMO_API void VelmoEndFrame(HVELMO handle, uint32_t now);
VELMO_API void VelmoNextFrame(HVELMO handle);
VELMO_API void VelmoGoto(HVELMO handle, uint32_t frame, uint32_t flags);
VELMO_API uint32_t VelmoGetKeyFrame(HVELMO handle, uint32_t frame, uint32_t flags);
VELMO_API uint32_t VelmoPause(HVELMO handle, uint32_t pause);
VELMO_API void VelmoSetVideoOn(HVELMO handle, uint32_t on);
VELMO_API uint32_t VelmoSetSoundOn(HVELMO handle, uint32_t on);
VELMO_API void VelmoSetFileLoop(HVELMO handle, uint32_t on);
VELMO_API void VelmoGetSummary(HVELMO handle, VelmoSummary* out);
VELMO_API void VelmoGetRealtime(HVELMO handle, VelmoRealtime* out, uint32_t frames);

/* ---- async decompression ----
 * Worker threads, numbered 0 to 63 by the caller, decode a frame's slices while the caller goes
 * on. VelmoDoFrameAsync replaces VelmoDoFrame: it gives the selected frame's slices to the
 * listed threads (those with the emptiest queues first); VelmoDoFrameAsyncWait collects them and
 * completes the frame. While a frame is out, VelmoNextFrame and VelmoGoto do nothing, and
 * VelmoClose waits for its slices. Errors show in VelmoGetError. */
VELMO_API uint32_t VelmoStartAsyncThread(uint32_t number);       /* nonzero when it runs */
VELMO_API uint32_t VelmoRequestStopAsyncThread(uint32_t number); /* queued work is done first */
VELMO_API uint32_t VelmoWaitStopAsyncThread(uint32_t number);    /* asks, if needed, and waits */
/* Nonzero if slices went out; `count` thread numbers. */
VELMO_API uint32_t VelmoDoFrameAsync(HVELMO handle, const uint32_t* threadNumbers,
                                     uint32_t count);
/* Nonzero when the frame is complete (or none was out). microseconds: -1 no limit, 0 only ask. */
VELMO_API uint32_t VelmoDoFrameAsyncWait(HVELMO handle, int32_t microseconds);
/* Free bytes in the queue to the thread (0 before its first start). */
VELMO_API uint32_t VelmoAsyncQueueFree(uint32_t number);

/* Copies the current frame (or a rectangle of it) into an interleaved surface: flags are a
 * VelmoSurface* format and VelmoCopy* bits (velmo_flags.h). The rectangle is limited to the
 * frame only: the surface must have room for it at (destX, destY). A negative pitch stores
 * bottom-up, `dest` being the lowest line and destY counting up from it. HDR frames are not
 * copied. 1 if the frame was skipped or a skip was reported. */
VELMO_API uint32_t VelmoCopyToBuffer(HVELMO handle, void* dest, int32_t pitch,
                                     int32_t destHeight, int32_t destX, int32_t destY,
                                     uint32_t flags);
VELMO_API uint32_t VelmoCopyToBufferRect(HVELMO handle, void* dest, int32_t pitch,
                                         int32_t destHeight, int32_t destX, int32_t destY,
                                         int32_t srcX, int32_t srcY, int32_t srcWidth,
                                         int32_t srcHeight, uint32_t flags);

/* ---- sound tracks ----
 * A file's sound plays through a back end: a table of nine operations (and, for back ends
 * that serve themselves, a tick) that the program registers once, before opening files. Each
 * open track has a 448-byte record; the back end fills ServiceMode, DeviceBlock, Latency,
 * ClockScale (optional) and the operations, and may keep its own state in BackEndArea.
 *
 * The library calls Ready, Lock and Unlock while it feeds, and OnOff, Pause and SetMix, with
 * the handle's sound lock held, except in service mode 1, where everything happens on the
 * caller's thread. A back end that plays on a thread of its own writes Underrun and ClockScale
 * with atomic stores. */
typedef struct VelmoTrack VelmoTrack;
typedef struct VelmoTrackOps {
  uint32_t (*Ready)(VelmoTrack* track);                                 /* device takes data now */
  uint32_t (*Lock)(VelmoTrack* track, void** address, uint32_t* bytes); /* place to write */
  void (*Unlock)(VelmoTrack* track, uint32_t bytes);                    /* bytes were written */
  void (*SetVolume)(VelmoTrack* track, uint32_t volume);                /* 0..65536 */
  void (*SetPan)(VelmoTrack* track, uint32_t pan);                      /* 0..65536, 32768 centre */
  uint32_t (*Pause)(VelmoTrack* track, uint32_t pause);
  uint32_t (*OnOff)(VelmoTrack* track, uint32_t on);                    /* nonzero: on */
  void (*Close)(VelmoTrack* track);
  void (*SetMix)(VelmoTrack* track, const float* volumes, uint32_t count, uint32_t stereo,
                 float volume);                                         /* optional */
  /* For a negative ServiceMode: the back end's own service. The sound thread calls it after
   * each walk over the files, holding the sound service lock (the lock that the back end's
   * open and Close run under), and does not feed such tracks itself. */
  void (*Tick)(void);
} VelmoTrackOps;

struct VelmoTrack {
  uint8_t* RingWrite;
  uint32_t RingSize;
  uint8_t *RingStart, *RingEnd;
  void* Decoder;
  uint8_t* RingRead;
  uint32_t FileRate;
  uint32_t OutputRate;
  uint32_t Channels;
  uint32_t DeviceBlock;
  uint32_t BlockMask;
  uint32_t Latency;      /* ms the device keeps buffered */
  uint32_t ClockScale;   /* 16.16; 0x10000 nominal */
  uint32_t EndFrame;     /* from here on less than 3/4 s of sound is left */
  uint32_t Prefill;
  int32_t ServiceMode;   /* <0: thread, that many ms, calls Ops.Tick; 0: thread, 13 ms;
                            1: frame walk; 2: host ticks */
  uint32_t Underrun;
  VelmoTrackOps Ops;
  uint8_t BackEndArea[272]; /* the back end's own; the record is 448 bytes */
};

/* The back end's open: fills the record's back-end fields. Nonzero on success. */
typedef uint32_t (*VelmoOpenBackEnd)(VelmoTrack* track, uint32_t rate, uint32_t channels,
                                     uint32_t openFlags, HVELMO handle);
typedef VelmoOpenBackEnd (*VelmoSoundSelect)(uintptr_t parameter);
typedef VelmoOpenBackEnd (*VelmoSoundSelect2)(uintptr_t parameter, uintptr_t parameter2);

VELMO_API uint32_t VelmoSetSoundSystem(VelmoSoundSelect select, uintptr_t parameter);
VELMO_API uint32_t VelmoSetSoundSystem2(VelmoSoundSelect2 select, uintptr_t parameter,
                                        uintptr_t parameter2);
/* For hosts whose back end asked for service mode 2: feeds every file's tracks once. */
VELMO_API void VelmoSoundTick(void);

/* The file's TrackFormat and TrackId of track `index` (file order); 0 past the last track. */
VELMO_API uint32_t VelmoGetTrackFormat(HVELMO handle, uint32_t index);
VELMO_API uint32_t VelmoGetTrackId(HVELMO handle, uint32_t index);
/* Routes an open track (found by its id) to eight speaker bins through its back end's SetMix.
 * Up to eight volumes of 0..65535 (65536 and above: 2.0; no list: 1.0 each); with `bins`, entry
 * i goes to bins[i] (mono) or bins[i] * 2 + i % 2 (stereo). */
VELMO_API void VelmoSetTrackVolumes(HVELMO handle, uint32_t trackId, const uint32_t* bins,
                                    const uint32_t* volumes, uint32_t count);

/* Decoding a track without a device: each VelmoGetTrackData decodes the sound packet of the
 * handle's current frame into dest and returns the bytes written (16-bit interleaved PCM). */
typedef struct VelmoTrackReader VelmoTrackReader;
VELMO_API VelmoTrackReader* VelmoOpenTrack(HVELMO handle, uint32_t index);
VELMO_API uint32_t VelmoTrackReaderRate(const VelmoTrackReader* track);
VELMO_API uint32_t VelmoTrackReaderChannels(const VelmoTrackReader* track);
/* Bytes enough for one frame. */
VELMO_API uint32_t VelmoTrackReaderBufferSize(const VelmoTrackReader* track);
VELMO_API uint32_t VelmoGetTrackData(VelmoTrackReader* track, void* dest, uint32_t size);
VELMO_API void VelmoCloseTrack(VelmoTrackReader* track);

#ifdef __cplusplus
}
#endif

#endif
