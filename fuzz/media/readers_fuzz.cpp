// Fuzz target for one stream reader, chosen by READER_FORMAT at build time: opens the bytes
// from memory, reads frames in and out of order, and lists and reads sound chunks.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "media/readers/stream_readers.h"

#ifndef READER_FORMAT
#error "READER_FORMAT names the StreamFormat to fuzz"
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const StreamReaderOps* ops = StreamReaderFind(READER_FORMAT);
  if (!ops) return 0;
  ops->probe(data, size, "fuzz.rla");
  StreamError error{};
  StreamReader* reader = StreamReaderOpenMemory(ops, data, size, &error);
  if (!reader) return 0;
  const StreamInfo* info = StreamReaderInfo(reader);
  // Giant pictures are legal but only cost the fuzzer time in allocation.
  if (uint64_t(info->width) * info->height <= (1u << 20)) {
    const uint32_t last = info->frame_count ? info->frame_count - 1 : 0;
    for (uint32_t index : {0u, 1u, 2u, last, 0u, last / 2, 1u}) {
      StreamFrame frame{};
      if (StreamReaderRead(reader, index, &frame, &error)) {
        // Touch the first and last pixel rows so that a bad pointer shows.
        volatile uint8_t sink = frame.pixels[0];
        sink = frame.pixels[ptrdiff_t(info->height - 1) * frame.pitch];
        (void)sink;
      }
    }
  }
  std::vector<uint8_t> buffer(4096);
  for (uint32_t t = 0; t < StreamReaderAudioTrackCount(reader); ++t) {
    StreamAudioTrack track{};
    if (!StreamReaderAudioTrack(reader, t, &track)) continue;
    for (uint32_t c = 0; c < track.chunk_count && c < 16; ++c) StreamReaderReadAudio(reader, t, c, buffer.data(), buffer.size());
  }
  StreamReaderClose(reader);
  return 0;
}
