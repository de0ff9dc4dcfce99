// Sound tracks of the output writer: the track's derived figures, and each frame's packet of
// coded sound blocks, read from the track's source and run through the sound encoder.
#include "compress/velmo_sound_track.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "audio/velmo_audio.h"

namespace {

// The running ratio starts at 4.5 to 1, before any sound has been coded.
constexpr uint32_t StartInputBytes = 45, StartOutputBytes = 10;
// Both sides of the ratio are halved when the input side passes this, so that a long sound
// keeps its ratio in 32 bits.
constexpr uint32_t RatioLimit = 0x40000000;

VelmoAudioEncoder* EncoderOf(VelmoWriterTrack* track) {
  return static_cast<VelmoAudioEncoder*>(track->Encoder);
}

// Fills `buffer` from the track: first its silence prefix, then the source, reading on until
// the request is met or the source gives nothing more. Returns the bytes delivered.
uint32_t ReadTrack(VelmoWriterTrack* track, uint8_t* buffer, uint32_t bytes) {
  uint32_t got = 0;
  if (track->SilenceBytes) {
    got = std::min(track->SilenceBytes, bytes);
    std::memset(buffer, 0, got);
    track->SilenceBytes -= got;
  }
  while (got < bytes && track->ReadSamples) {
    const uint32_t n = track->ReadSamples(track->Source, buffer + got, bytes - got);
    if (n == 0) break;
    got += std::min(n, bytes - got);
  }
  return got;
}

}  // namespace

bool VelmoWriterTrackStart(VelmoWriterTrack* track, int level, uint32_t frames,
                           uint32_t rateNumerator, uint32_t rateDenominator) {
  if (!track || !rateNumerator || !VelmoAudioLevelValid(level)) return false;
  const uint32_t rate = track->SampleRate, channels = track->Channels;
  track->TrackFlags = VelmoAudioTrackFlags(rate, channels, level);
  if (track->Bits != 16) track->TrackFlags &= ~VelmoTrackSixteenBit;
  track->InputBytes = StartInputBytes;
  track->OutputBytes = StartOutputBytes;
  track->MaxDecodedBytes = 0;
  // Three quarters of a second of 16-bit sound: the sound runs that far ahead of the picture.
  track->LeadInBytes = rate * channels * 6 / 4;
  track->BytesPerSecond = rate * channels * 2;
  const uint64_t whole =
      uint64_t(track->BytesPerSecond) * frames * rateDenominator / rateNumerator;
  track->BytesLeft = uint32_t(std::min<uint64_t>((whole + 3) & ~uint64_t(3), 0xfffffffcu));
  track->BytesDone = 0;
  track->Quality = uint32_t(level % 100);
  track->Encoder = VelmoAudioEncoderOpen(rate, channels, VelmoAudioLevelIsCurrentForm(level));
  return track->Encoder != nullptr;
}

bool VelmoWriterSoundPacket(VelmoWriterTrack* track, uint32_t frameNumber,
                            uint32_t rateNumerator, uint32_t rateDenominator,
                            BufferedFile* file) {
  // The sound wanted by the end of this frame: its time plus the lead-in.
  const uint64_t goal =
      (rateNumerator ? uint64_t(track->BytesPerSecond) * frameNumber * rateDenominator /
                           rateNumerator
                     : 0) +
      track->LeadInBytes;
  VelmoAudioEncoder* encoder = EncoderOf(track);
  if (!encoder || track->BytesDone >= goal || track->BytesLeft == 0) {
    uint8_t none[4];
    VelmoEmptySoundPacket(none);
    FileWrite(file, none, sizeof none);
    return !file->WriteError;
  }

  // The packet is put together in memory behind room for its two head words, and goes to the
  // file in one write.
  std::vector<uint8_t> packet(8);
  packet.reserve(8 + VelmoAudioEncoderBlockBytes(encoder) * 2);
  uint32_t decoded = 0;
  bool soundEnded = false;
  do {
    uint8_t* buffer = nullptr;
    uint32_t want = 0;
    VelmoAudioEncoderBuffer(encoder, &buffer, &want);
    uint32_t got = ReadTrack(track, buffer, want);
    if (got < want) {
      // A sound shorter than the video goes on as silence until the track's length is met.
      if (track->BytesLeft > got) {
        const uint32_t fill = std::min(track->BytesLeft, want);
        std::memset(buffer + got, 0, fill - got);
        got = fill;
      }
      if (got < want) soundEnded = true;
    }
    track->InputBytes += track->Bits == 8 ? got / 2 : got;
    const uint8_t* out = nullptr;
    uint32_t outSize = 0, consumed = 0;
    VelmoAudioEncodeBlock(encoder, float(track->Quality), got, &out, &outSize, &consumed);
    track->OutputBytes += outSize;
    if (track->InputBytes > RatioLimit) {
      track->InputBytes = (track->InputBytes + 1) / 2;
      track->OutputBytes = (track->OutputBytes + 1) / 2;
    }
    packet.insert(packet.end(), out, out + outSize);
    const uint32_t moved = std::min(consumed, track->BytesLeft);
    track->BytesLeft -= moved;
    track->BytesDone += moved;
    decoded += moved;
  } while (track->BytesDone < goal && track->BytesLeft && !soundEnded);
  if (soundEnded) track->BytesLeft = 0;

  VelmoStoreSoundPacketHead(uint32_t(packet.size() - 8), decoded, packet.data());
  track->MaxDecodedBytes = std::max(track->MaxDecodedBytes, decoded);
  FileWrite(file, packet.data(), packet.size());
  return !file->WriteError;
}

void VelmoWriterTrackEnd(VelmoWriterTrack* track) {
  if (!track) return;
  VelmoAudioEncoderClose(EncoderOf(track));
  track->Encoder = nullptr;
}
