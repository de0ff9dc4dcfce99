// The compressor's output writer: the temporary file, frames and their sound, checkpoints and
// the close.
#include "compress/velmo_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "compress/velmo_sound_track.h"
#include "host/platform.h"

namespace {

const char TextNoTemporary[] =
    "Couldn't create temporary file.\n\nSome possible reasons for this error include:\n"
    "  1) compressing to a read-only drive (like a CD-ROM),\n"
    "  2) compressing to a drive that is full (out of disk space), or\n"
    "  3) compressing multiple files to the same Velmo output filename.";

int Tell(VelmoWriter* w, uint32_t kind, const char* text) {
  return w->Progress ? w->Progress(kind, w, text) : 0;
}

uint32_t Gcd(uint32_t a, uint32_t b) {
  while (b) {
    uint32_t t = a % b;
    a = b;
    b = t;
  }
  return a;
}

// ---- Gates -----------------------------------------------------------------------------------

// The work thread announces a group of file writes; it waits while a checkpoint holds the file.
void EnterWrites(VelmoWriter* w) {
  for (;;) {
    AtomicAdd(&w->WriteGate, 1);
    if (AtomicRead(&w->CheckpointGate) == 0) return;
    AtomicAdd(&w->WriteGate, -1);
    ThreadSleep(1);
  }
}
void LeaveWrites(VelmoWriter* w) { AtomicAdd(&w->WriteGate, -1); }

// Takes the file for a checkpoint: false when the work thread kept it for 250 ms.
bool TakeCheckpointGate(VelmoWriter* w) {
  AtomicAdd(&w->CheckpointGate, 1);
  const uint32_t start = TimerMs();
  for (;;) {
    if (AtomicRead(&w->WriteGate) == 0 && AtomicRead(&w->CheckpointGate) == 1) return true;
    if (TimerMs() - start >= 250) {
      AtomicAdd(&w->CheckpointGate, -1);
      return false;
    }
    ThreadSleep(1);
  }
}
void DropCheckpointGate(VelmoWriter* w) { AtomicAdd(&w->CheckpointGate, -1); }

// ---- Frames ----------------------------------------------------------------------------------

// The three track tables as the container writes them.
std::vector<VelmoTrackInfo> TrackTable(const VelmoWriter* w) {
  std::vector<VelmoTrackInfo> table(w->TrackCount);
  for (uint32_t t = 0; t < w->TrackCount; ++t)
    table[t] = {w->Tracks[t].MaxDecodedBytes, w->Tracks[t].TrackFlags, w->Tracks[t].TrackId};
  return table;
}

void EndTracks(VelmoWriter* w) {
  for (uint32_t t = 0; t < w->TrackCount; ++t) VelmoWriterTrackEnd(&w->Tracks[t]);
}

void MaybeCheckpoint(VelmoWriter* w) {
  const bool bytesDue = w->FileSize >= w->NextCheckpointBytes;
  const bool timeDue = int32_t(TimerMs() - w->NextCheckpointTime) >= 0;
  if (!bytesDue && !timeDue) return;
  if (!VelmoWriterFlush(w) && !w->Failed) return;  // the gate was busy: the next frame tries again
  w->NextCheckpointBytes = w->FileSize + w->CheckpointBytes;
  w->NextCheckpointTime = TimerMs() + w->CheckpointMs;
}

}  // namespace

VelmoWriter* VelmoWriterOpen(const char* path, uint32_t flags, uint32_t version, uint32_t width,
                             uint32_t height, uint32_t frames, uint32_t textLength,
                             const char* text, uint32_t rateNumerator, uint32_t rateDenominator,
                             uint32_t trackCount, VelmoWriterTrack* tracks, uint32_t inputNits,
                             const int16_t* colourBlock, VelmoWriterProgressFn progress,
                             void* userData) {
  const bool second = version >= 200;
  if (!path || version < 100 || version >= 300 || !width || !height || !frames ||
      !rateNumerator || !rateDenominator || trackCount > VelmoMaxTracks ||
      (trackCount && !tracks) || colourBlock ||
      textLength > VelmoWriterMaxText || frames >= VelmoMaxIndexFrames)
    return nullptr;
  VelmoWriter* w = new (std::nothrow) VelmoWriter();
  if (!w) return nullptr;
  w->Progress = progress;
  w->UserData = userData;

  // 1. The temporary file.
  // Held while the run lasts: a second run writing the same output name cannot empty it.
  const OutFileResult created = OutFileCreate(&w->Out, path, VelmoWriterFileBuffer);
  w->File = w->Out.File;
  if (created != OutFileDone) {
    char text[400];
    if (created == OutFileTooLong) PathTooLongText(text, sizeof text, "output", path);
    Tell(w, VelmoProgressError, created == OutFileTooLong ? text : TextNoTemporary);
    delete w;
    return nullptr;
  }
  // 2. The rate as a reduced fraction.
  const uint32_t g = Gcd(rateNumerator, rateDenominator);
  w->FrameRateNumerator = rateNumerator / g;
  w->FrameRateDenominator = rateDenominator / g;

  // 3. Sizes and figures. The first generation keeps no slice, deblocking or HDR bits; the
  // second keeps its slice mode and deblocking switches.
  flags &= VelmoWriterKeptFlags;
  const uint32_t sliceMode = second ? flags & VelmoWriterSliceBits : 0;
  if (!second) flags &= ~(0x7u | VelmoWriterDeblockBits | VelmoWriterQuantBits);
  if (version > 100) flags |= VelmoWriterFullRange;
  else flags &= ~VelmoWriterFullRange;
  if (!(flags & VelmoWriterAlpha)) flags &= ~VelmoWriterZeroAlphaWeight;
  w->Flags = flags;
  w->Version = version;
  w->Width = width;
  w->Height = height;
  w->TotalFrames = frames;
  w->InputNits = std::clamp<uint32_t>(inputNits, VelmoMinNits, VelmoMaxNits);
  if (flags & VelmoWriterHdr) w->Hdr = VelmoHdrSetupFor(w->InputNits);
  w->CheckpointBytes = VelmoWriterCheckpointBytes;
  w->CheckpointMs = VelmoWriterCheckpointMs;
  if (text && textLength) {
    std::memcpy(w->ExtraText, text, textLength);
    w->ExtraTextLength = textLength;
  }
  w->Tracks = tracks;
  w->TrackCount = trackCount;

  // 4. The index and the header.
  VelmoWriteParams params{};
  params.Version = version;
  params.Width = int32_t(width);
  params.Height = int32_t(height);
  params.FrameRate = w->FrameRateNumerator;
  params.FrameRateDiv = w->FrameRateDenominator;
  params.IndexFrames = frames;
  params.Flags = flags;
  params.SliceMode = sliceMode;
  params.HdrBlock = (flags & VelmoWriterHdr) ? w->Hdr.Block : nullptr;
  params.Text = w->ExtraTextLength ? w->ExtraText : nullptr;
  params.TextLength = w->ExtraTextLength;
  const std::vector<VelmoTrackInfo> trackTable = TrackTable(w);
  params.TrackCount = trackCount;
  params.Tracks = trackTable.data();
  bool ok = true;
  try {
    w->FrameIndex.assign(frames + 1, 0);
  } catch (const std::bad_alloc&) {
    ok = false;
  }
  if (!ok || !VelmoBuildHeaderImage(params, &w->Image)) {
    Tell(w, VelmoProgressError, "Out of memory!");
    OutFileDiscard(&w->Out);
    delete w;
    return nullptr;
  }
  FileWrite(w->File, w->Image.Bytes.data(), w->Image.Bytes.size());
  w->FileSize = FileTell(w->File);
  if (w->File->WriteError) w->Failed = 1;
  // The first checkpoint comes right after the first frame, so that a run stopped at any later
  // moment leaves a temporary file that opens; the later ones come at their spacing.
  w->NextCheckpointBytes = w->FileSize;
  w->NextCheckpointTime = TimerMs() + w->CheckpointMs;
  return w;
}

uint32_t VelmoWriterWriteFrame(VelmoWriter* w, const uint8_t* video, uint32_t size,
                               uint32_t keyResult) {
  if (!w || w->FramesWritten >= w->TotalFrames) return 0;
  const uint32_t n = w->FramesWritten;
  EnterWrites(w);
  const uint64_t start = FileTell(w->File);
  w->FrameIndex[n] = VelmoMakeFrameEntry(start, keyResult != 0);
  for (uint32_t t = 0; t < w->TrackCount; ++t)
    VelmoWriterSoundPacket(&w->Tracks[t], n, w->FrameRateNumerator, w->FrameRateDenominator,
                           w->File);
  const uint64_t videoStart = FileTell(w->File);
  FileWrite(w->File, video, size);
  const uint64_t end = FileTell(w->File);
  w->FrameIndex[n + 1] = VelmoMakeFrameEntry(end, false);
  if (w->File->WriteError) w->Failed = 1;
  w->FileSize = end;
  // The counts a checkpoint reads change only while the checkpoint is kept out.
  const uint32_t bytes = uint32_t(end - start);
  w->LargestFrame = std::max(w->LargestFrame, bytes);
  w->FramesWritten = n + 1;
  LeaveWrites(w);
  MaybeCheckpoint(w);
  return n == 0 ? uint32_t(end - videoStart) : bytes;
}

namespace {

// Rewrites header, tables and index for the frames written so far, and with `toDisk` writes
// the buffer out and has the system put the file on the disk, all while the gate is held: the
// preview thread's flush must not write the buffer out while the work thread fills it.
bool CheckpointHeld(VelmoWriter* w, bool toDisk) {
  if (!w || !w->File) return false;
  if (!TakeCheckpointGate(w)) return false;
  const uint64_t position = FileTell(w->File);
  VelmoCheckpoint state{};
  state.FileSize = std::max<uint64_t>(position, w->FileSize);
  state.Frames = w->FramesWritten;
  state.LargestFrameSize = w->LargestFrame;
  state.Flags = w->Image.Flags;
  const std::vector<VelmoTrackInfo> tracks = TrackTable(w);
  state.Tracks = tracks.data();
  state.FrameEntries = w->FrameIndex.data();
  std::vector<VelmoPatch> patches;
  bool ok = VelmoCheckpointPatches(w->Image, state, &patches);
  // Last patch first: the index (past the header) goes to the file before the header's frame
  // count that makes a reader use it, so a run killed between the two writes leaves a file
  // that still plays up to the checkpoint before. Seeking away writes the frames out first.
  for (auto p = patches.rbegin(); p != patches.rend(); ++p) {
    FileSeek(w->File, p->Offset);
    FileWrite(w->File, p->Bytes.data(), p->Bytes.size());
  }
  FileSeek(w->File, position);
  if (toDisk && !FileFlush(w->File, true)) ok = false;
  if (w->File->WriteError) w->Failed = 1;
  DropCheckpointGate(w);
  return ok;
}

}  // namespace

bool VelmoWriterCheckpoint(VelmoWriter* w) { return CheckpointHeld(w, false); }

bool VelmoWriterFlush(VelmoWriter* w) { return CheckpointHeld(w, true); }

uint64_t VelmoWriterClose(VelmoWriter* w, bool discard, uint32_t* result) {
  if (result) *result = OutFileDone;
  if (!w) return 0;
  if (w->Failed) discard = true;
  if (!discard) {
    // The checkpoint may only fail at its gate, which nobody else holds now; try until it takes.
    while (!VelmoWriterCheckpoint(w)) ThreadSleep(1);
    EnterWrites(w);
    if (!FileFlush(w->File, true) || w->File->WriteError) w->Failed = 1;
    LeaveWrites(w);
  }
  EndTracks(w);
  EnterWrites(w);
  const uint64_t size = FileTell(w->File);
  // The temporary file is removed or renamed while still open and held, so that no other run
  // can take the name in between and have its file renamed or deleted by this one.
  OutFileResult done = OutFileDone;
  if (discard || w->Failed) {
    OutFileDiscard(&w->Out);
    if (w->Failed) done = OutFileWriteFailed;
  } else {
    done = OutFileCommit(&w->Out);
    if (done == OutFileNotReplaced) {
      // The finished file is kept under its temporary name rather than lost.
      char text[2 * PathMax + 100];
      std::snprintf(text, sizeof text,
                    "Velmo couldn't overwrite, '%s', so the new Velmo file is called: '%s'.",
                    w->Out.Target, w->Out.Temporary);
      Tell(w, VelmoProgressError, text);
    } else if (done == OutFileLost) {
      Tell(w, VelmoProgressError, "Velmo couldn't rename the temporary file.");
    }
  }
  w->File = nullptr;
  LeaveWrites(w);
  if (result) *result = done;
  char remark[300];
  if (!discard && (w->Flags & VelmoWriterHdr) &&
      VelmoHdrPeakRemark(w->HdrMaxCode, w->InputNits, remark, sizeof remark))
    Tell(w, VelmoProgressMessage, remark);
  delete w;
  return done == OutFileDone ? size : 0;
}
