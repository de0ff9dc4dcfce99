// The file's track tables, and decoding a track without a device: the converter, the mixer and
// the analyser take the sound of the selected frame straight into their own memory, one frame at
// a time.
#include "format/container.h"
#include "reader/velmo_sound.h"

#include <cstdlib>
#include <new>

struct VelmoTrackReader {
  VelmoState* Handle;
  uint32_t Index;       // in the file's track tables
  uint32_t Rate;
  uint32_t Channels;
  uint32_t BufferSize;  // enough for the decoded sound of any one frame
  uint32_t LastFrame;   // frame decoded last, 0 before the first
  void* Decoder;        // in the record's own block, behind it
};

namespace {

constexpr size_t DecoderOffset = (sizeof(VelmoTrackReader) + 63) & ~size_t(63);

}  // namespace

extern "C" {

uint32_t VelmoGetTrackFormat(HVELMO handle, uint32_t index) {
  if (!handle || index >= handle->TrackCount || !handle->TrackFormats) return 0;
  return handle->TrackFormats[index];
}

uint32_t VelmoGetTrackId(HVELMO handle, uint32_t index) {
  if (!handle || index >= handle->TrackCount || !handle->TrackIds) return 0;
  return handle->TrackIds[index];
}

VelmoTrackReader* VelmoOpenTrack(HVELMO handle, uint32_t index) {
  if (!handle) return nullptr;
  VelmoState* h = VelmoStateOf(handle);
  if (index >= h->TrackCount || !h->TrackFormats || !h->TrackMaxBytes) return nullptr;
  const uint32_t format = h->TrackFormats[index];
  if (!VelmoTrackUsable(format) || (format & VelmoTrackRateMask) == 0) return nullptr;
  const uint32_t rate = format & VelmoTrackRateMask;
  const uint32_t channels = (format & VelmoTrackStereo) ? 2 : 1;
  // The most that one frame decodes to sizes the caller's buffer: it cannot honestly be more
  // than the frame's time of 16-bit samples, with a second of room; a larger claim is damage.
  const uint64_t frameSeconds = (uint64_t(h->FileRateDiv) + h->FileRate - 1) / h->FileRate;
  const uint64_t honest = (frameSeconds + 1) * rate * channels * 2;
  if (h->TrackMaxBytes[index] > honest) return nullptr;
  const size_t bytes = DecoderOffset + VelmoSoundDecoderBytes(rate, channels);
  void* memory = ::operator new(bytes, std::align_val_t(64), std::nothrow);
  if (!memory) return nullptr;
  auto* t = new (memory) VelmoTrackReader{};
  t->Decoder = VelmoSoundDecoderCreate(static_cast<uint8_t*>(memory) + DecoderOffset, format);
  if (!t->Decoder) {
    ::operator delete(memory, std::align_val_t(64));
    return nullptr;
  }
  t->Handle = h;
  t->Index = index;
  t->Rate = rate;
  t->Channels = channels;
  const uint64_t size = ((uint64_t(h->TrackMaxBytes[index]) + 3) & ~uint64_t(3)) + 8192 +
                        VelmoSoundDecoderBlockBytes(t->Decoder) / 16;
  t->BufferSize = uint32_t(size > 0xFFFFFFF0u ? 0xFFFFFFF0u : size);
  return t;
}

uint32_t VelmoTrackReaderRate(const VelmoTrackReader* track) { return track ? track->Rate : 0; }

uint32_t VelmoTrackReaderChannels(const VelmoTrackReader* track) {
  return track ? track->Channels : 0;
}

uint32_t VelmoTrackReaderBufferSize(const VelmoTrackReader* track) {
  return track ? track->BufferSize : 0;
}

uint32_t VelmoGetTrackData(VelmoTrackReader* track, void* dest, uint32_t size) {
  if (!track || !dest || size == 0) return 0;
  VelmoState* h = track->Handle;
  VelmoFinishPendingRead(h);
  if (h->ReadError || !h->FrameData || h->FrameNum == 0 || h->FrameNum > h->Frames) return 0;
  VelmoSoundPacket sounds[VelmoMaxTracks];
  const VelmoPacketLayout layout =
      VelmoWalkFramePacket(h->FrameData, h->FrameSize, h->TrackCount, sounds);
  // A frame that does not follow the last one starts the sound anew, without a crossfade.
  // Frames without sound count as followed, since the blocks run on across them.
  if (h->FrameNum != track->LastFrame + 1) VelmoSoundDecoderReset(track->Decoder);
  track->LastFrame = h->FrameNum;
  if (track->Index >= layout.TracksFound) return 0;
  const VelmoSoundPacket& p = sounds[track->Index];
  if (p.PacketSize == 0) return 0;
  return VelmoSoundDecodeToBuffer(track->Decoder, h->FrameData + p.DataOffset, p.DataSize,
                                  p.DecodedBytes, static_cast<uint8_t*>(dest), size);
}

void VelmoCloseTrack(VelmoTrackReader* track) {
  if (!track) return;
  track->~VelmoTrackReader();
  ::operator delete(static_cast<void*>(track), std::align_val_t(64));
}

}  // extern "C"
