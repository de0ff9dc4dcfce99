// Measures the sound codec on WAV files: for each file and level, the bytes of the sound
// stream and bits per second, SNR and segmental SNR of the decode against the source, and
// encode and decode speed as multiples of real time (processor time of one thread). Prints a
// Markdown table. Levels are a list of numbers and ranges: -levels 0-99,104.
//   audio_table file.wav [file.wav...] [-levels 0,4,10,30,60,99]
#include "audio/velmo_audio.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <ctime>
#include <vector>

namespace {

struct Wave {
  uint32_t Rate = 0, Channels = 0;
  std::vector<int16_t> Samples;  // interleaved
};

uint32_t Le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t{p[3]} << 24; }
uint16_t Le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

// Reads a 16-bit PCM WAV file (mono or stereo); false for anything else.
bool ReadWave(const char* path, Wave* wave) {
  FILE* file = std::fopen(path, "rb");
  if (!file) return false;
  std::vector<uint8_t> bytes;
  uint8_t chunk[65536];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.insert(bytes.end(), chunk, chunk + got);
  std::fclose(file);
  if (bytes.size() < 12 || std::memcmp(bytes.data(), "RIFF", 4) || std::memcmp(bytes.data() + 8, "WAVE", 4))
    return false;
  bool haveFormat = false;
  for (size_t at = 12; at + 8 <= bytes.size();) {
    const uint32_t size = Le32(&bytes[at + 4]);
    const size_t body = at + 8;
    const size_t end = std::min(bytes.size(), body + size);
    if (!std::memcmp(&bytes[at], "fmt ", 4) && size >= 16 && body + 16 <= bytes.size()) {
      const uint16_t format = Le16(&bytes[body]);
      wave->Channels = Le16(&bytes[body + 2]);
      wave->Rate = Le32(&bytes[body + 4]);
      const uint16_t bits = Le16(&bytes[body + 14]);
      if ((format != 1 && format != 0xFFFE) || bits != 16 || wave->Channels < 1 || wave->Channels > 2)
        return false;
      haveFormat = true;
    } else if (!std::memcmp(&bytes[at], "data", 4) && haveFormat) {
      wave->Samples.resize((end - body) / 2);
      std::memcpy(wave->Samples.data(), &bytes[body], wave->Samples.size() * 2);
      return wave->Rate > 0 && wave->Rate <= 65535;
    }
    at = body + size + (size & 1);
  }
  return false;
}

struct Result {
  size_t Bytes;
  double BitsPerSecond, Snr, SegmentalSnr, EncodeSpeed, DecodeSpeed;
};

// Processor time of this thread, so that a busy shared machine does not skew the speeds.
double ThreadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + now.tv_nsec * 1e-9;
}

Result Measure(const Wave& wave, int level) {
  const double duration = static_cast<double>(wave.Samples.size()) / wave.Channels / wave.Rate;
  const uint64_t total = wave.Samples.size() * 2;
  const auto* source = reinterpret_cast<const uint8_t*>(wave.Samples.data());

  // Encode as the writer does: zero-filled reads past the end until all is accounted for.
  std::vector<uint8_t> stream;
  std::vector<size_t> blockEnds;
  size_t blocks = 0;
  double start = ThreadSeconds();
  VelmoAudioEncoder* encoder =
      VelmoAudioEncoderOpen(wave.Rate, wave.Channels, VelmoAudioLevelIsCurrentForm(level));
  uint64_t read = 0, consumedTotal = 0;
  while (consumedTotal < total) {
    uint8_t* buffer;
    uint32_t want;
    VelmoAudioEncoderBuffer(encoder, &buffer, &want);
    const uint32_t got = static_cast<uint32_t>(std::min<uint64_t>(want, total - read));
    std::memcpy(buffer, source + read, got);
    std::memset(buffer + got, 0, want - got);
    read += got;
    const uint8_t* out;
    uint32_t size, consumed;
    VelmoAudioEncodeBlock(encoder, VelmoAudioLevelQuality(level), want, &out, &size, &consumed);
    stream.insert(stream.end(), out, out + size);
    blockEnds.push_back(stream.size());
    consumedTotal += consumed;
    ++blocks;
  }
  VelmoAudioEncoderClose(encoder);
  const double encodeSeconds = ThreadSeconds() - start;

  std::vector<uint8_t> memory(VelmoAudioDecoderSize(wave.Rate, wave.Channels));
  std::vector<int16_t> decoded;
  int rounds = 0;
  start = ThreadSeconds();
  do {
    VelmoAudioDecoder* decoder = VelmoAudioDecoderOpen(
        memory.data(), wave.Rate, wave.Channels,
        VelmoAudioLevelIsCurrentForm(level) ? VelmoAudioCurrentForm : 0);
    decoded.assign(blocks * VelmoAudioDecoderStepBytes(decoder) / 2, 0);
    auto* out = reinterpret_cast<uint8_t*>(decoded.data());
    VelmoAudioRing ring{out, out + decoded.size() * 2, out,
                        static_cast<uint32_t>(decoded.size() * 2), 0, 0, 16};
    // Each block as a packet of its own, the strictest case for the rule that ends a channel
    // at a group that could run past its packet.
    VelmoAudioInput input{stream.data(), 0, 0};
    for (size_t b = 0; b < blocks; ++b) {
      input.Size = blockEnds[b];
      VelmoAudioDecodeBlock(decoder, &ring, &input);
    }
    ++rounds;
  } while (ThreadSeconds() - start < 0.3);
  const double decodeSeconds = (ThreadSeconds() - start) / rounds;

  double signal = 0, noise = 0, segmentSum = 0;
  size_t segments = 0;
  const size_t segment = 256 * wave.Channels;
  for (size_t from = 0; from + segment <= wave.Samples.size(); from += segment) {
    double s = 0, n = 0;
    for (size_t i = from; i < from + segment; ++i) {
      const double d = static_cast<double>(wave.Samples[i]) - decoded[i];
      s += static_cast<double>(wave.Samples[i]) * wave.Samples[i];
      n += d * d;
    }
    signal += s;
    noise += n;
    if (s < segment * 100.0) continue;  // near silence is left out of the segmental figure
    segmentSum += std::clamp(n > 0 ? 10 * std::log10(s / n) : 35.0, -10.0, 35.0);
    ++segments;
  }
  Result result;
  result.Bytes = stream.size();
  result.BitsPerSecond = stream.size() * 8.0 / duration;
  result.Snr = noise > 0 ? 10 * std::log10(signal / noise) : 200;
  result.SegmentalSnr = segments ? segmentSum / segments : 35;
  result.EncodeSpeed = duration / encodeSeconds;
  result.DecodeSpeed = duration / decodeSeconds;
  return result;
}

std::vector<int> ParseLevels(const char* text) {
  std::vector<int> levels;
  for (const char* p = text; *p;) {
    char* next;
    const long first = std::strtol(p, &next, 10);
    long last = first;
    if (*next == '-') last = std::strtol(next + 1, &next, 10);
    for (long level = first; level <= last; ++level) levels.push_back(static_cast<int>(level));
    p = next;
    while (*p && *p != ',') ++p;
    if (*p == ',') ++p;
  }
  return levels;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int> levels = {0, 4, 10, 30, 60, 99};
  std::vector<const char*> files;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "-levels") && i + 1 < argc) levels = ParseLevels(argv[++i]);
    else files.push_back(argv[i]);
  }
  if (files.empty()) {
    std::fprintf(stderr, "usage: audio_table file.wav [...] [-levels 0,4,10]\n");
    return 2;
  }
  std::printf("| clip | rate, ch | level | bytes | bits/s | SNR dB | seg. SNR dB | encode x RT | decode x RT |\n");
  std::printf("|---|---|---:|---:|---:|---:|---:|---:|---:|\n");
  for (const char* path : files) {
    Wave wave;
    if (!ReadWave(path, &wave)) {
      std::fprintf(stderr, "%s: not a 16-bit PCM WAV file\n", path);
      return 1;
    }
    std::string name = path;
    name = name.substr(name.find_last_of('/') + 1);
    for (int level : levels) {
      if (!VelmoAudioLevelValid(level)) continue;
      const Result r = Measure(wave, level);
      std::printf("| %s | %u, %u | %d | %zu | %.0f | %.2f | %.2f | %.0f | %.0f |\n", name.c_str(),
                  wave.Rate, wave.Channels, level, r.Bytes, r.BitsPerSecond, r.Snr,
                  r.SegmentalSnr, r.EncodeSpeed, r.DecodeSpeed);
      std::fflush(stdout);
    }
  }
  return 0;
}
