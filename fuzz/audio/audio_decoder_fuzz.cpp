// Fuzzes the sound decoder over arbitrary packets. The first four bytes pick the rate (two
// bytes), channels, form, half-block flag and output size; the rest is the packet, copied to
// an exact-size buffer so that any read past it is caught. The ring is small and sits between
// guard bytes, so that a write outside it is caught too.
#include "audio/velmo_audio.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  const uint32_t rate = data[0] | data[1] << 8;
  const uint32_t channels = 1 + (data[2] & 1);
  const uint32_t flags = (data[2] >> 1) & 3;
  const uint32_t bits = (data[2] & 8) ? 8 : 16;
  const uint32_t ringBytes = 64 + 64 * (data[3] & 31);
  data += 4;
  size -= 4;

  std::vector<uint8_t> memory(VelmoAudioDecoderSize(rate, channels));
  VelmoAudioDecoder* decoder = VelmoAudioDecoderOpen(memory.data(), rate, channels, flags);
  if (!decoder) return 0;

  std::unique_ptr<uint8_t[]> packet(new uint8_t[size ? size : 1]);
  if (size) std::memcpy(packet.get(), data, size);
  constexpr uint32_t Guard = 32;
  std::vector<uint8_t> ring(ringBytes + 2 * Guard, 0xA5);
  uint8_t* start = ring.data() + Guard;
  VelmoAudioRing output{start, start + ringBytes, start, ringBytes, 100, 0, bits};
  VelmoAudioInput input{packet.get(), size, 0};

  for (int block = 0; block < 64; ++block) {
    const size_t before = input.Position;
    const uint32_t used = VelmoAudioDecodeBlock(decoder, &output, &input);
    if (input.Position > size || used != input.Position - before) std::abort();
    if (output.Limit == 0) output.Limit = ringBytes / 2;  // the reader frees space as it plays
    if (block == 20) VelmoAudioDecoderReset(decoder);
    if (input.Position == size) break;
    if (input.Position == before) std::abort();  // a block always moves on
  }
  for (uint32_t i = 0; i < Guard; ++i)
    if (ring[i] != 0xA5 || ring[Guard + ringBytes + i] != 0xA5) std::abort();
  return 0;
}
