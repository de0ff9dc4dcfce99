// Sound input: choosing the reader, the normalising pass, the asked range, and the read,
// rewind and close calls around the converter.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "media/media_guard.h"
#include "media/sound_source.h"

namespace {

constexpr uint32_t BlockSamples = 4096;
constexpr uint32_t NormaliseBlockBytes = 1024;
constexpr uint32_t NormaliseRun = 16;
// The loudest gain that keeps sample * gain within 64 bits (a boost of 32768 times).
constexpr int64_t MaxGain = int64_t(1) << 47;
// The longest source taken (over 200 days at 48000 Hz), so that sample * rate fits 64 bits.
constexpr uint64_t MaxSourceSamples = uint64_t(1) << 40;

typedef bool (*ReaderOpenFn)(const SoundOpenRequest& request, SoundReader* reader);

struct GuardedOpen {
  ReaderOpenFn open;
  const SoundOpenRequest* request;
  SoundReader* reader;
  bool ok;
};

void CallOpen(void* context) {
  GuardedOpen* call = static_cast<GuardedOpen*>(context);
  call->ok = call->open(*call->request, call->reader);
}

// One trial; a reader that faults while it opens counts as not opened.
bool Try(ReaderOpenFn open, const SoundOpenRequest& request, SoundReader* reader) {
  memset(reader, 0, sizeof *reader);
  GuardedOpen call = {open, &request, reader, false};
  return MediaGuardRun(CallOpen, &call) && call.ok;
}

// The trials in their order: a list or series; a raw file when a raw type is forced (no header
// is looked for then); a wave file, an AVI file's PCM sound, a FLAC or Ogg Vorbis file; a Velmo
// file's track.
bool OpenReader(const SoundOpenRequest& request, SoundReader* reader) {
  if (SoundIsListName(request.name)) return Try(SoundOpenList, request, reader);
  if (request.force) return Try(SoundOpenRaw, request, reader);
  const ReaderOpenFn trials[] = {SoundOpenWave, SoundOpenAvi, SoundOpenFlac, SoundOpenVorbis,
                                  SoundOpenVelmo};
  for (ReaderOpenFn open : trials)
    if (Try(open, request, reader)) return true;
  return false;
}

// The output format: what was asked, else the source's (8 or 16 bits, one or two channels).
bool SetFormat(SoundInput* sound, const SoundFormat& f, uint32_t rate, uint32_t bits,
               uint32_t channels) {
  sound->source_rate = f.rate;
  sound->source_bits = f.bits;
  sound->source_channels = f.channels;
  sound->source_bytes_per_sample = f.bytes_per_sample;
  sound->source_float = f.is_float ? 1 : 0;
  sound->rate = rate ? rate : f.rate;
  sound->bits = (bits == 8 || (bits == 0 && f.bits == 8 && !f.is_float)) ? 8 : 16;
  sound->channels = channels == 0 ? f.channels : channels > 1 ? 2 : 1;
  sound->bytes_per_sample = sound->bits / 8 * sound->channels;
  return sound->rate <= SoundMaxRate;
}

struct GuardedSeek {
  SoundReader* reader;
  uint64_t sample;
  bool ok;
};

void CallSeek(void* context) {
  GuardedSeek* call = static_cast<GuardedSeek*>(context);
  call->ok = call->reader->ops->seek(call->reader->state, call->sample);
}

bool SeekReader(SoundReader* reader, uint64_t sample) {
  GuardedSeek call = {reader, sample, false};
  if (!reader->ops->guarded) {
    CallSeek(&call);
    return call.ok;
  }
  return MediaGuardRun(CallSeek, &call) && call.ok;
}

// start_ms and end_ms (0: to the end) as a span of source samples; the output length follows.
void SetRange(SoundInput* sound, uint32_t start_ms, uint32_t end_ms) {
  uint64_t total = sound->source->reader.format.total_samples;
  if (total > MaxSourceSamples) total = MaxSourceSamples;  // a length from a hostile header
  uint64_t first = static_cast<uint64_t>(start_ms) * sound->source_rate / 1000;
  uint64_t end = end_ms ? static_cast<uint64_t>(end_ms) * sound->source_rate / 1000 : total;
  if (first > total) first = total;
  if (end > total) end = total;
  if (end < first) end = first;
  sound->source->first_sample = first;
  sound->total_source_samples = end - first;
  const uint64_t out = sound->total_source_samples * sound->rate / sound->source_rate;
  sound->total_bytes = out * sound->bytes_per_sample;
}

void ResetCounters(SoundInput* sound) {
  SoundSource* s = sound->source;
  sound->at_end = 0;
  sound->output_count = 0;
  sound->source_index = 0;
  sound->reported = 0;
  sound->remaining_bytes = sound->total_bytes;
  sound->interp_left = sound->interp_right = 0;
  sound->interp_value_left = sound->interp_value_right = 0;
  sound->interp_step_left = sound->interp_step_right = 0;
  s->block_fill = s->block_at = 0;
  s->short_read = s->primed = s->drained = false;
}

SoundInput* Build(const SoundReader& reader, const char* name, uint32_t rate, uint32_t bits,
                  uint32_t channels, uint32_t start_ms, uint32_t end_ms, ProgressSink progress) {
  SoundInput* sound = static_cast<SoundInput*>(calloc(1, sizeof(SoundInput)));
  SoundSource* source = static_cast<SoundSource*>(calloc(1, sizeof(SoundSource)));
  const uint32_t block_bytes = BlockSamples * reader.format.bytes_per_sample;
  uint8_t* block = static_cast<uint8_t*>(malloc(block_bytes));
  if (!sound || !source || !block) {
    free(sound);
    free(source);
    free(block);
    return nullptr;
  }
  snprintf(sound->file_name, sizeof sound->file_name, "%s", name);
  sound->type_name = reader.type_name;
  sound->kind = reader.kind;
  sound->progress = progress;
  sound->source = source;
  source->reader = reader;
  source->block = block;
  source->block_bytes = block_bytes;
  if (!SetFormat(sound, reader.format, rate, bits, channels)) {
    source->reader.ops = nullptr;  // the caller closes the reader
    SoundClose(sound);
    return nullptr;
  }
  SetRange(sound, start_ms, end_ms);
  SoundRewind(sound);
  return sound;
}

// The loudest run of 16 values in a block, as root mean square; one value is passed over
// behind each run.
uint32_t LoudestRun(const uint8_t* block, uint32_t bytes) {
  const uint32_t values = bytes / 2;
  uint32_t loudest = 0;
  for (uint32_t i = 0; i + NormaliseRun <= values; i += NormaliseRun + 1) {
    int64_t sum = 0;
    for (uint32_t j = 0; j < NormaliseRun; ++j) {
      const int32_t v = static_cast<int16_t>(block[2 * (i + j)] | block[2 * (i + j) + 1] << 8);
      sum += v * v;
    }
    const uint32_t rms = static_cast<uint32_t>(std::sqrt(static_cast<double>(sum) / NormaliseRun));
    if (rms > loudest) loudest = rms;
  }
  return loudest;
}

// The normalising pass: reads the sound through at 16 bits and gives the gain that brings its
// loudest run to `percent` of full scale (0 for silence or a sound that does not open).
int64_t NormalisingGain(const char* name, uint32_t rate, uint32_t channels, uint32_t start_ms,
                        uint32_t end_ms, uint32_t track, uint32_t force, uint32_t skip,
                        uint32_t percent, ProgressSink progress) {
  ProgressSend(progress, "Normalizing audio...", 0);
  SoundInput* trial =
      SoundOpen(name, rate, 16, channels, start_ms, end_ms, track, force, skip, {});
  if (!trial) return 0;
  uint8_t block[NormaliseBlockBytes];
  uint32_t level = 0, got;
  while ((got = SoundRead(trial, block, sizeof block)) > 0) {
    const uint32_t loudest = LoudestRun(block, got);
    if (loudest > level) level = loudest;
  }
  SoundClose(trial);
  if (level == 0) return 0;
  const int64_t gain = (int64_t(1) << 47) / level * percent / 100;
  return gain < MaxGain ? gain : MaxGain;
}

int ReportProgress(SoundInput* sound) {
  if (!sound->progress.fn) return 0;
  const uint64_t done = sound->total_bytes - sound->remaining_bytes;
  const int percent = sound->total_bytes ? static_cast<int>(done * 100 / sound->total_bytes) : 100;
  char text[64];
  snprintf(text, sizeof text, "Processing sound data (%i%%)...", percent);
  const int level = sound->reported ? 0 : 1;
  sound->reported = 1;
  return ProgressSend(sound->progress, text, level);
}

// A source that gives out before the length it stated (a file cut after its header was read,
// a damaged stream) ends the sound there: said once, naming the file.
void WarnIfCut(SoundInput* sound) {
  SoundSource* s = sound->source;
  if (!s->short_read || s->short_warned) return;
  s->short_warned = true;
  char text[PathBytes + 100];
  snprintf(text, sizeof text, "%s ends early: its sound stops after %llu of %llu samples.",
           sound->file_name, static_cast<unsigned long long>(sound->source_index),
           static_cast<unsigned long long>(sound->total_source_samples));
  ProgressSend(sound->progress, text, 4);
}

}  // namespace

SoundInput* SoundOpen(const char* name, uint32_t rate, uint32_t bits, uint32_t channels,
                      uint32_t start_ms, uint32_t end_ms, uint32_t track, uint32_t force,
                      uint32_t skip, ProgressSink progress) {
  if (!name || !name[0]) return nullptr;
  int64_t gain = 0;
  if (bits / 100 != 0) {
    gain = NormalisingGain(name, rate, channels, start_ms, end_ms, track, force, skip, bits / 100,
                           progress);
    bits %= 100;
  }
  const SoundOpenRequest request = {name, rate, bits, channels, track, force, skip, progress};
  SoundReader reader;
  if (!OpenReader(request, &reader)) return nullptr;
  SoundInput* sound = Build(reader, name, rate, bits, channels, start_ms, end_ms, progress);
  if (!sound) {
    reader.ops->close(reader.state);
    return nullptr;
  }
  sound->gain = gain;
  return sound;
}

uint32_t SoundRead(SoundInput* sound, void* buffer, uint32_t count) {
  if (!sound || !buffer) return 0;
  if (ReportProgress(sound) != 0) sound->at_end = 1;  // cancelled
  if (sound->at_end) return 0;
  uint64_t samples = count / sound->bytes_per_sample;
  const uint64_t left = sound->remaining_bytes / sound->bytes_per_sample;
  if (samples > left) samples = left;
  uint8_t* out = static_cast<uint8_t*>(buffer);
  const uint32_t made = SoundConvert(sound, out, static_cast<uint32_t>(samples));
  SoundApplyGain(sound, out, made);
  const uint32_t bytes = made * sound->bytes_per_sample;
  sound->remaining_bytes -= bytes;
  WarnIfCut(sound);
  if (made < samples || sound->remaining_bytes == 0) sound->at_end = 1;
  return bytes;
}

void SoundRewind(SoundInput* sound) {
  if (!sound) return;
  ResetCounters(sound);
  if (!SeekReader(&sound->source->reader, sound->source->first_sample)) sound->at_end = 1;
}

void SoundClose(SoundInput* sound) {
  if (!sound) return;
  SoundSource* s = sound->source;
  if (s) {
    if (s->reader.ops) s->reader.ops->close(s->reader.state);
    free(s->block);
    free(s);
  }
  free(sound);
}
