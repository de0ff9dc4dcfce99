// The frame walk: selecting frames and reading their packets, keeping time (wait, skip, resync),
// decoding a frame in slices, going to a frame, pausing, and the run's figures.
#include "format/container.h"
#include "reader/velmo_handle.h"
#include "reader/velmo_sound.h"

#include <algorithm>
#include <cstring>

VelmoLaterServices VelmoServices = {nullptr};

namespace {

uint32_t Now(const VelmoState* h) { return h->Clock(); }

bool HasBackground(const VelmoState* h) {
  return (h->OpenFlags & VelmoOpenNoBackground) == 0 && h->OnReaderList;
}

void WakeReader(const VelmoState* h, uint32_t count) {
  const VelmoIOService* service = VelmoCurrentIOService();
  if (HasBackground(h) && service->Wake) service->Wake(count);
}

// Another thread collecting async answers may clear bits of the slots: read them whole.
bool AsyncPending(const VelmoState* h) {
  for (const uint32_t& slot : h->AsyncSlots)
    if (AtomicRead(&slot)) return true;
  return false;
}

// A time stamp that is never 0, since 0 means "not set" in the walk's fields.
uint32_t Stamp(uint32_t now) { return now ? now : 1; }

// The packet of frame `frame` (from 1): position and size from the frame table, limited to
// where the packet can be held.
void PacketOf(const VelmoState* h, uint32_t frame, uint64_t* position, uint32_t* size) {
  const uint64_t start = VelmoEntryOffset(h->FrameTable[frame - 1]);
  const uint64_t end = VelmoEntryOffset(h->FrameTable[frame]);
  uint64_t bytes = end > start ? end - start : 0;
  if (h->PreloadData) {
    // The frames area in memory: from the first frame to the end of the file or image.
    const uint64_t area = h->ImageSpan.Data ? h->ImageSpan.Size : h->FileSize + 8;
    if (start < h->FirstFrameOffset || start >= area) bytes = 0;
    else bytes = std::min(bytes, area - start);
  } else {
    bytes = std::min<uint64_t>(bytes, h->LargestFrameSize);  // the packet buffer's room
  }
  *position = start;
  *size = uint32_t(bytes);
}

// The read buffer already holds all of the packet.
bool PacketHeld(const VelmoState* h) {
  const IOProvider& io = h->IOProvider;
  if (io.BufferSize == 0) return false;
  const uint64_t used = AtomicRead64(&io.BufferUsed);
  const uint64_t logical = AtomicRead64(&io.LogicalPos);
  return h->FramePosition >= logical && h->FramePosition + h->FrameSize <= logical + used;
}

void CheckProviderError(VelmoState* h) {
  // The reader thread sets the provider's flag while it reads ahead.
  const uint32_t failed = AtomicRead(&h->IOProvider.ReadError);
  if (failed && !h->ReadError) h->ReadError = failed;
}

void KeepHighest(volatile uint32_t* shadow, uint32_t value) {
  uint32_t seen = AtomicRead(shadow);
  while (value > seen && !AtomicCompareExchange(shadow, &seen, value)) {
  }
}

// Decodes the video of one share; returns true when a decoder ran.
bool DecodeVideo(VelmoState* h, const VelmoPacketLayout& layout, uint32_t first, uint32_t count) {
  if (!h->Decoder) return false;
  const uint8_t* video = h->FrameData + layout.VideoOffset;
  uint32_t result = 0;
  if (!h->Decoder->DecodeSlices(h->DecoderState, h->FrameBuffers, video, layout.VideoSize,
                                h->FrameIsKey != 0, first,
                                count, &result))
    return false;
  KeepHighest(&h->DecodeResultShadow, result);
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Shared steps

uint32_t VelmoTakeShare(VelmoState* h, uint32_t parts) {
  const uint32_t total = h->SliceState.Count;
  if (parts == 0 || total == 0) return 0;
  const uint32_t size = (total + parts - 1) / parts;
  const uint32_t first = AtomicAdd(&h->SliceState.Next, int32_t(size));
  if (first >= total) return 0;
  const uint32_t count = std::min(size, total - first);
  return (first & 0xF) | (count & 0xF) << 4;
}

void VelmoStartClock(VelmoState* h, uint32_t now) {
  h->StartTime = Stamp(now);
  h->StartFrame = h->FramesPlayed - 1;
}

int32_t VelmoLateness(VelmoState* h, uint32_t now) {
  const uint64_t frames = uint32_t(h->FramesPlayed - h->StartFrame);
  const uint32_t target = uint32_t(frames * h->FrameRateDiv * 1000 / h->FrameRate);
  const uint32_t scaled = uint32_t((uint64_t(target) * VelmoSoundClockScale(h)) >> 16);
  return int32_t(now - scaled - h->StartTime);
}

void VelmoEndBlitTiming(VelmoState* h, uint32_t now) {
  if (h->BlitStart != 0 && h->BlitStart != VelmoBlitPending) h->BlitTime += now - h->BlitStart;
  h->BlitStart = 0;
}

uint32_t VelmoSkipCheck(VelmoState* h, uint32_t mode) {
  const uint32_t now = Now(h);
  if (h->StartTime == 0) VelmoStartClock(h, now);
  if (h->FrameRate != 0) {
    const int32_t late = VelmoLateness(h, now);
    if (late > int32_t(h->LateLimit)) {
      if (h->OpenTracks) {
        if (late > int32_t(VelmoResyncMs)) h->ForceResync = 1;
        if (h->SkipRun < VelmoMaxSkipRun) {
          ++h->SkipRun;
          if (mode == 1) return 1;
          ++h->SkippedFrames;
          h->SkipState = 2;
          h->FrameSkipped = 1;
          return 1;
        }
      } else {
        VelmoStartClock(h, now);  // without sound, late frames restart the clock instead
      }
    }
  }
  h->SkipRun = 0;
  h->SkipState = 1;
  return 0;
}

void VelmoFinishPendingRead(VelmoState* h) {
  if (!AtomicRead(&h->FrameReadPending)) return;
  LockEnter(&h->FrameReadLock);
  if (AtomicRead(&h->FrameReadPending)) {
    IOProvider* io = &h->IOProvider;
    const uint64_t position =
        h->FramePosition == h->NextReadPosition ? VELMO_IO_CONTINUE : h->FramePosition;
    const uint64_t got =
        h->FrameSize ? io->ReadFrame(io, h->PendingFrame, position, h->FrameData, h->FrameSize) : 0;
    if (got != h->FrameSize || io->ReadError) h->ReadError = io->ReadError ? io->ReadError : 1;
    AtomicStore(&h->FrameReadPending, 0);
    h->NextReadPosition = h->FramePosition + h->FrameSize;
  }
  LockLeave(&h->FrameReadLock);
  WakeReader(h, 1);
}

void VelmoSelectFrame(VelmoState* h, uint32_t frame) {
  h->SliceState.Next = 0;
  h->SkipState = 0;
  VelmoFeedPolledSound(h);
  h->LastFrameNum = h->FrameNum;
  if (h->ReadError) return;
  VelmoFinishPendingRead(h);

  if (frame == 1) {
    const uint32_t now = Now(h);
    if (!h->LoopTimeSet) {
      h->LoopTime = now;
      h->LoopTimeSet = 1;
    } else if (now - h->LoopTime > VelmoLoopRestartMs) {
      h->LoopTime = now;
      h->RestartSound = 1;
    }
  }

  h->PendingFrame = frame;
  uint64_t position;
  uint32_t size;
  PacketOf(h, frame, &position, &size);
  h->FramePosition = position;
  h->FrameSize = size;
  h->FrameIsKey = VelmoEntryIsKey(h->FrameTable[frame - 1]) ? 1 : 0;
  if (h->PreloadData) {
    h->FrameData = size ? h->PreloadData + (position - h->FirstFrameOffset) : h->PreloadData;
  } else {
    h->FrameData = h->PacketBuffer + (position & 127);
    // The packet fields above must be visible to the reader thread before the flag is.
    AtomicStore(&h->FrameReadPending, 1);
    if (PacketHeld(h)) VelmoFinishPendingRead(h);
    else WakeReader(h, 1);
  }
  VelmoFeedPolledSound(h);
  h->FrameNum = frame;
  AtomicStore(&h->FeedFrame, frame);
}

// ---------------------------------------------------------------------------------------------
// Public calls

extern "C" {

uint32_t VelmoWait(HVELMO handle) {
  if (!handle) return 0;
  VelmoState* h = VelmoStateOf(handle);
  if ((h->FramesPlayed == 0 && !h->Paused) || h->ReadError) return 0;
  if (HasBackground(h) && AtomicRead(&h->FrameReadPending)) return 1;
  const uint32_t now = Now(h);
  if (h->StartTime == 0) VelmoStartClock(h, now);
  VelmoFeedPolledSound(h);
  VelmoEndBlitTiming(h, now);
  if (!h->Paused && (h->OpenTracks == 0 || h->SoundOn)) {
    if (h->FrameRate == 0) return 0;
    const int32_t late = VelmoLateness(h, now);
    if (late >= 0) {
      if (h->OpenTracks) return 0;
      // A long stall does not cause a burst of catching up.
      if (late > int32_t(2 * h->LateLimit)) h->StartTime = 0;
      return 0;
    }
  }
  if (h->PreloadData || HasBackground(h)) return 1;
  IOProvider* io = &h->IOProvider;
  if (!io->Suspended && io->Idle) io->Idle(io);
  return 1;
}

uint32_t VelmoStartFrame(HVELMO handle, uint32_t now) {
  if (!handle) return 0;
  VelmoState* h = VelmoStateOf(handle);
  CheckProviderError(h);
  if (h->LastDecoded == h->FrameNum || h->ReadError) return 0;
  if (h->BlitStart != 0 && h->BlitStart != VelmoBlitPending) h->BlitTime += now - h->BlitStart;
  h->BlitStart = 0;
  if (h->RestartSound) {
    h->RestartSound = 0;
    VelmoSoundRestart(h);
  }
  if (h->Paused) {
    h->StartTime = 0;
    h->PauseOffset = 0;
  }
  h->SkipState = 0;
  if (h->SliceScratch && h->SliceState.Count > 1)
    for (uint32_t s = 0; s + 1 < h->SliceState.Count; ++s)
      h->SliceScratch[size_t(s) * h->SliceScratchWords] = 0;
  h->DecodeResultShadow = 0;
  h->VideoDecoded = 0;
  AtomicStore(&h->InFrame, 1);
  AtomicStore(&h->IOProvider.InCall, 1);
  return 1;
}

uint32_t VelmoDoSlices(HVELMO handle, uint32_t flags) {
  if (!handle) return 0;
  VelmoState* h = VelmoStateOf(handle);
  if (AtomicRead(&h->Closing)) return 0;
  if ((flags & VelmoSlicesStart) && !VelmoStartFrame(handle, Now(h))) return 0;
  VelmoFinishPendingRead(h);
  if (h->ReadError) return 0;
  const uint32_t first = flags & 0xF;
  const uint32_t count = (flags >> 4) & 0xF;

  // Sound packets come first in the packet; only the share that ends the frame decodes them.
  uint32_t start = Now(h);
  const VelmoPacketLayout layout =
      VelmoWalkFramePacket(h->FrameData, h->FrameSize, h->TrackCount, nullptr);
  if (h->OpenTracks && first + count >= h->SliceState.Count) VelmoDecodeFrameSound(h);
  uint32_t mid = Now(h);
  AtomicAdd(&h->SoundTime, int32_t(mid - start));

  if (h->VideoOn && h->FrameBuffers && count > 0 && layout.HasVideo &&
      layout.VideoOffset <= h->FrameSize) {
    if (DecodeVideo(h, layout, first, count)) AtomicStore(&h->VideoDecoded, 1);
  }
  const uint32_t end = Now(h);
  AtomicAdd(&h->VideoTime, int32_t(end - mid));
  if (flags & VelmoSlicesEnd) VelmoEndFrame(handle, end);
  return 1;
}

uint32_t VelmoDoFrame(HVELMO handle) {
  if (!handle) return 0;
  VelmoState* h = VelmoStateOf(handle);
  const uint32_t share = VelmoTakeShare(h, 1);
  return VelmoDoSlices(handle, share | VelmoSlicesStart | VelmoSlicesEnd);
}

void VelmoEndFrame(HVELMO handle, uint32_t now) {
  if (!handle) return;
  VelmoState* h = VelmoStateOf(handle);
  if (h->Decoder && h->Decoder->FinishFrame && h->VideoOn && h->VideoDecoded)
    h->Decoder->FinishFrame(h->DecoderState, h->FrameBuffers);
  // The ring moves on every frame, decoded or not: the set shown now is always the one the
  // decoder was to write for this frame.
  if (h->FrameBuffers && h->FrameBuffers->Count)
    h->FrameBuffers->Current = (h->FrameBuffers->Current + 1) % h->FrameBuffers->Count;
  h->RingPosition = h->RingPosition == 0 ? h->RingSize - 1 : h->RingPosition - 1;

  if (h->LastFrameTime) {
    const uint32_t gap = now - h->LastFrameTime;
    if (gap > h->Slowest) {
      h->SecondSlowest = h->Slowest;
      h->SecondSlowestFrame = h->SlowestFrame;
      h->Slowest = gap;
      h->SlowestFrame = h->FrameNum;
    } else if (now > h->SecondSlowest) {  // the time stamp, not the gap, as the walk has it
      h->SecondSlowest = gap;
      h->SecondSlowestFrame = h->FrameNum;
    }
  }

  const uint32_t pos = h->RingPosition;
  const IOProvider& io = h->IOProvider;
  h->Ring[VelmoRingTime][pos] = now;
  h->Ring[VelmoRingVideo][pos] = h->VideoTime;
  h->Ring[VelmoRingSound][pos] = h->SoundTime;
  h->Ring[VelmoRingBlit][pos] = h->BlitTime;
  h->Ring[VelmoRingIO][pos] = AtomicRead(&io.IOTime);
  h->Ring[VelmoRingIdleIO][pos] = AtomicRead(&io.IdleTime);
  h->Ring[VelmoRingThreadIO][pos] = AtomicRead(&io.ThreadTime);

  if (h->ClockStartTime == 0) {
    // The first frame: a made-up previous time one frame earlier.
    if (h->RingSize > 1) {
      const uint32_t prev = (pos + 1) % h->RingSize;
      h->Ring[VelmoRingTime][prev] =
          now - uint32_t(uint64_t(h->FileRateDiv) * 1000 / h->FileRate);
    }
    h->ClockStartTime = Stamp(now);
    AtomicStore(&h->IOProvider.IdleTime, 0);
    AtomicStore(&h->IOProvider.ThreadTime, 0);
  } else {
    VelmoFeedPolledSound(h);
  }

  ++h->FramesPlayed;
  AtomicStore(&h->FeedPlayed, 1);
  if (h->StartTime == 0) VelmoStartClock(h, now);
  h->BlitStart = VelmoBlitPending;
  h->LastDecoded = h->FrameNum;
  h->LastFrameNum = h->FrameNum;
  h->LastFrameTime = Stamp(now);
  h->LastDecodeResult = h->DecodeResultShadow;
  if ((h->LastDecodeResult & Velmo2FigureOldStream) && !h->OldStreamTold) {
    h->OldStreamTold = 1;
    VelmoSetError(VelmoOldStreamText);
  }
  AtomicStore(&h->InFrame, 0);
  AtomicStore(&h->IOProvider.InCall, 0);
}

void VelmoNextFrame(HVELMO handle) {
  if (!handle) return;
  VelmoState* h = VelmoStateOf(handle);
  if (AsyncPending(h)) return;
  if (h->OpenTracks && h->FrameRate && !h->Paused && h->SoundOn) {
    if (h->SkipState == 0) VelmoSkipCheck(h, 0);
    h->SkipState = 0;
    const bool underrun = VelmoSoundUnderrun(h);
    if (h->ForceResync || underrun) {
      h->ForceResync = 0;
      ++h->SoundSkips;
      VelmoSoundRestart(h);
    }
  }
  AtomicStore(&h->InFrame, 1);
  VelmoFeedPolledSound(h);
  VelmoEndBlitTiming(h, Now(h));
  VelmoSelectFrame(h, h->FrameNum >= h->Frames ? 1 : h->FrameNum + 1);
  AtomicStore(&h->InFrame, 0);
}

uint32_t VelmoGetKeyFrame(HVELMO handle, uint32_t frame, uint32_t flags) {
  if (!handle) return 0;
  VelmoState* h = VelmoStateOf(handle);
  if (h->Frames == 0) return 0;
  frame = std::clamp<uint32_t>(frame, 1, h->Frames);
  auto key = [h](uint32_t f) { return VelmoEntryIsKey(h->FrameTable[f - 1]); };
  if (!(flags & VelmoKeyNotSelf) && key(frame)) return frame;
  switch (flags & 0x7F) {
    case VelmoKeyBackward:
      for (uint32_t f = frame - 1; f >= 1; --f)
        if (key(f)) return f;
      return 1;
    case VelmoKeyForward:
      for (uint32_t f = frame + 1; f <= h->Frames; ++f)
        if (key(f)) return f;
      return 0;
    case VelmoKeyNearest:
      for (uint32_t d = 1; d < h->Frames; ++d) {
        if (d < frame && key(frame - d)) return frame - d;
        if (frame + d <= h->Frames && key(frame + d)) return frame + d;
      }
      return 0;
    default:
      return 0;
  }
}

void VelmoGoto(HVELMO handle, uint32_t frame, uint32_t flags) {
  if (!handle) return;
  VelmoState* h = VelmoStateOf(handle);
  if (AsyncPending(h) || h->Frames == 0) return;
  const uint32_t target = std::clamp<uint32_t>(frame, 1, h->Frames);
  uint32_t s = target;
  if (!(flags & VelmoGotoDirect) && h->OpenTracks) {
    const uint32_t second = (h->FileRate + h->FileRateDiv - 1) / h->FileRateDiv;
    s = target > second ? target - second : 1;
  }
  if (target == h->FrameNum) return;
  if ((flags & (VelmoGotoExact | VelmoGotoDirect)) == (VelmoGotoExact | VelmoGotoDirect)) {
    VelmoSelectFrame(h, target);
    return;
  }
  const bool backwards = target < h->FrameNum;
  const uint32_t savedVideo = h->VideoOn;
  const uint32_t key = (flags & VelmoGotoExact) ? target : VelmoGetKeyFrame(handle, target, 0);
  if (key > s) {
    if (backwards || s > h->FrameNum || !(flags & VelmoGotoDirect)) h->VideoOn = 0;
  } else {
    s = key;
  }
  if (backwards || s > h->FrameNum) {
    VelmoSelectFrame(h, s);
    if (s == target) {
      h->VideoOn = savedVideo;
      VelmoSetSoundOn(handle, 0);
      VelmoSetSoundOn(handle, 1);
      return;
    }
  }

  LockEnter(&h->SoundLock);
  const uint32_t soundWasOn = h->SoundOn;
  VelmoSetSoundOn(handle, 0);
  if (h->LastDecoded != h->FrameNum) {
    if (h->FrameNum == key) h->VideoOn = savedVideo;
    VelmoDoFrame(handle);
    h->FrameSkipped = 1;
  }
  VelmoNextFrame(handle);
  while (h->FrameNum != target && !h->ReadError) {
    const uint32_t before = h->FrameNum;
    if (AtomicRead(&h->FrameReadPending) && HasBackground(h)) {
      LockEnter(&h->FrameReadLock);
      IOProvider* io = &h->IOProvider;
      if (io->Idle) io->Idle(io);
      LockLeave(&h->FrameReadLock);
    }
    if (h->FrameNum == key) h->VideoOn = savedVideo;
    VelmoDoFrame(handle);
    h->FrameSkipped = 1;
    VelmoNextFrame(handle);
    if (h->FrameNum == before) break;  // nothing moves any more
  }
  h->StartTime = 0;
  h->PauseOffset = 0;
  h->VideoOn = savedVideo;
  LockLeave(&h->SoundLock);
  if (soundWasOn) VelmoSetSoundOn(handle, 1);
}

uint32_t VelmoPause(HVELMO handle, uint32_t pause) {
  if (!handle) return 0;
  VelmoState* h = VelmoStateOf(handle);
  const uint32_t state = pause ? 1 : 0;
  if (state != h->Paused) {
    const uint32_t now = Now(h);
    VelmoEndBlitTiming(h, now);
    h->LastFrameTime = 0;
    h->Paused = state;
    VelmoSoundPause(h, state);
    if (state) {
      h->PauseOffset = h->StartTime ? now - h->StartTime : 0;
    } else {
      // A clock cleared while paused starts anew at the next wait.
      h->StartTime = h->PauseOffset ? Stamp(now - h->PauseOffset) : 0;
    }
    VelmoFeedPolledSound(h);
    WakeReader(h, 1);
  }
  return h->Paused;
}

void VelmoSetVideoOn(HVELMO handle, uint32_t on) {
  if (handle) handle->VideoOn = on ? 1 : 0;
}

void VelmoSetFileLoop(HVELMO handle, uint32_t on) {
  if (!handle) return;
  // The reader thread looks at the loop flag while it reads ahead.
  if (on) __atomic_fetch_or(&handle->OpenFlags, uint32_t(VelmoOpenFileLoop), __ATOMIC_SEQ_CST);
  else __atomic_fetch_and(&handle->OpenFlags, ~uint32_t(VelmoOpenFileLoop), __ATOMIC_SEQ_CST);
}

void VelmoGetSummary(HVELMO handle, VelmoSummary* out) {
  if (!handle || !out) return;
  VelmoState* h = VelmoStateOf(handle);
  const IOProvider& io = h->IOProvider;
  std::memset(out, 0, sizeof *out);
  // The reader thread updates the provider's figures while this runs: each is read whole.
  const uint64_t ms = AtomicRead(&io.IOTime);
  const uint64_t bytesRead = AtomicRead64(&io.BytesRead);
  out->ReadSpeed = ms >= 1000 ? bytesRead * 1000 / ms : bytesRead * (1000 / (ms + 1));
  out->TotalMemory = h->TotalMemory;
  out->ReadBufferSize = io.BufferSize;
  out->HighestBufferUsed = AtomicRead64(&io.HighWater);
  out->HighestSecondBytes = h->HighestSecondBytes;
  out->Width = h->Width;
  out->Height = h->Height;
  out->TotalTime = h->ClockStartTime ? Now(h) - h->ClockStartTime : 0;
  out->FileRate = h->FileRate;
  out->FileRateDiv = h->FileRateDiv;
  out->FrameRate = h->FrameRate;
  out->FrameRateDiv = h->FrameRateDiv;
  out->OpenTime = h->OpenTime;
  out->Frames = h->Frames;
  out->FramesPlayed = h->FramesPlayed;
  out->SkippedFrames = h->SkippedFrames;
  out->SoundSkips = h->SoundSkips;
  out->BlitTime = h->BlitTime;
  out->ReadTime = uint32_t(ms);
  out->VideoTime = h->VideoTime;
  out->SoundTime = h->SoundTime;
  out->IdleReadTime = AtomicRead(&io.IdleTime);
  out->ThreadReadTime = AtomicRead(&io.ThreadTime);
  out->Slowest = h->Slowest;
  out->SecondSlowest = h->SecondSlowest;
  out->SlowestFrame = h->SlowestFrame;
  out->SecondSlowestFrame = h->SecondSlowestFrame;
  const uint64_t frameBytes = h->FileSize + 8 > h->FirstFrameOffset ? h->FileSize + 8 - h->FirstFrameOffset : 0;
  if (h->Frames && h->FileRateDiv) {
    out->AverageRate = uint32_t(uint64_t(h->FileRate) * frameBytes / (uint64_t(h->Frames) * h->FileRateDiv));
    out->AverageFrame = uint32_t(frameBytes / h->Frames);
  }
  out->HighestSecondFrame = h->HighestSecondFrame + 1;
}

void VelmoGetRealtime(HVELMO handle, VelmoRealtime* out, uint32_t frames) {
  if (!handle || !out) return;
  VelmoState* h = VelmoStateOf(handle);
  std::memset(out, 0, sizeof *out);
  const uint32_t current = h->FrameNum == 0xFFFFFFFFu ? 1 : h->FrameNum;
  frames = std::min(frames, h->RingSize > 1 ? h->RingSize - 1 : 1);
  frames = std::min(frames, current > 1 ? current - 1 : 1);
  frames = std::max(frames, 1u);
  const uint32_t now = h->RingPosition;
  const uint32_t then = (now + frames) % h->RingSize;
  auto diff = [&](uint32_t ring) { return h->Ring[ring][now] - h->Ring[ring][then]; };
  out->FrameNum = h->LastFrameNum;
  out->FrameRate = h->FrameRate;
  out->FrameRateDiv = h->FrameRateDiv;
  out->Span = frames;
  out->Time = std::max(diff(VelmoRingTime), 1u);
  out->VideoTime = diff(VelmoRingVideo);
  out->SoundTime = diff(VelmoRingSound);
  out->BlitTime = diff(VelmoRingBlit);
  out->ReadTime = diff(VelmoRingIO);
  out->IdleReadTime = diff(VelmoRingIdleIO);
  out->ThreadReadTime = diff(VelmoRingThreadIO);
  out->BufferSize = h->IOProvider.BufferSize;
  out->BufferUsed = AtomicRead64(&h->IOProvider.BufferUsed);
  const uint32_t last = std::clamp<uint32_t>(h->LastFrameNum, 1, h->Frames);
  const uint32_t from = last > frames ? last - frames : 0;
  out->Bytes = VelmoEntryOffset(h->FrameTable[last]) - VelmoEntryOffset(h->FrameTable[from]);
  out->DataRate = out->Bytes * 1000 / out->Time;
}

}  // extern "C"
