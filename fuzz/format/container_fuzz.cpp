// Fuzzes the container's header, extras and table parsing, the frame table expansion and the
// frame packet walk over whatever frames lie inside the input.
#include "format/container.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Copy to an exact-size buffer so that any read past the span is caught.
  std::vector<uint8_t> input(data, data + size);
  VelmoFileInfo info;
  const char* err = VelmoParseFile(input.data(), input.size(), &info);
  if (err != nullptr) return 0;

  // A valid header keeps every figure in range.
  if (info.Header.Frames == 0 || info.Header.Frames > info.Header.IndexFrames ||
      info.TrackCount > VelmoMaxTracks || info.Width > VelmoMaxDimension ||
      info.Height > VelmoMaxDimension || info.FirstFrameOffset > input.size()) {
    std::abort();
  }
  char text[128];
  VelmoStampText(info.Extras.CompressorStamp, text, sizeof text);
  VelmoFrameKindText(info.Header.Flags, text, sizeof text);
  (void)VelmoColourSpaceText(info.Header.Flags);
  (void)MagicName(info.Header.Magic);
  (void)VelmoSlicesFor(info.Header.Magic, info.Header.Flags, info.Height);
  for (uint32_t t = 0; t < info.TrackCount; ++t) (void)VelmoTableTrack(info.Tables, t);

  std::vector<uint64_t> table(size_t(info.Header.Frames) + 1);
  if (VelmoExpandFrameTable(info.Tables, info.Header.Frames, table.data(), nullptr) != nullptr) {
    std::abort();  // VelmoParseFile already checked the same table
  }
  std::vector<VelmoSoundPacket> sounds(info.TrackCount);
  for (uint32_t f = 0; f < info.Header.Frames; ++f) {
    const uint64_t start = VelmoEntryOffset(table[f]);
    const uint64_t end = VelmoEntryOffset(table[f + 1]);
    if (start >= end || end > input.size()) continue;
    const VelmoPacketLayout layout = VelmoWalkFramePacket(input.data() + start, size_t(end - start),
                                                          info.TrackCount, sounds.data());
    if (layout.TracksFound > info.TrackCount) std::abort();
    for (uint32_t t = 0; t < layout.TracksFound; ++t) {
      if (uint64_t(sounds[t].DataOffset) + sounds[t].DataSize > end - start) std::abort();
    }
    if (layout.HasVideo && uint64_t(layout.VideoOffset) + layout.VideoSize != end - start) {
      std::abort();
    }
  }
  return 0;
}
