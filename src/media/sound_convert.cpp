// Sample conversion: from the reader's format to the caller's, one output sample at a time.
//
// Every source sample is first made a signed 16-bit value per channel. Equal rates take one
// source sample per output sample; a lower output rate takes the mean of the source samples
// up to its position; a higher one interpolates linearly in 22.10 fixed point between two
// source samples. Then the channels are matched and the value is stored in 8 or 16 bits.
#include <cmath>
#include <cstring>

#include "media/media_guard.h"
#include "media/sound_source.h"

namespace {

struct Pair {
  int32_t left, right;
};

int32_t Clamp16(int64_t v) { return v < -32768 ? -32768 : v > 32767 ? 32767 : static_cast<int32_t>(v); }

// Full scale is -1 to 1; beyond it (infinities too) the value is clamped, and NaN is silence.
int32_t FromFloat(double v) {
  if (!(v == v)) return 0;
  const double scaled = std::floor(v * 32768.0);
  return scaled <= -32768.0 ? -32768 : scaled >= 32767.0 ? 32767 : static_cast<int32_t>(scaled);
}

// One channel value of the source format at p, as a signed 16-bit value.
int32_t Widen(const SoundFormat& f, const uint8_t* p) {
  if (f.is_float) {
    if (f.bits == 32) {
      float v;
      memcpy(&v, p, 4);
      return FromFloat(v);
    }
    double v;
    memcpy(&v, p, 8);
    return FromFloat(v);
  }
  switch (f.bits) {
    case 8: return (p[0] - 128) * 256;
    case 16: return static_cast<int16_t>(p[0] | p[1] << 8);
    case 24: return static_cast<int16_t>(p[1] | p[2] << 8);  // the top 16 bits
    default: return static_cast<int16_t>(p[2] | p[3] << 8);
  }
}

struct GuardedRead {
  SoundReader* reader;
  uint8_t* dest;
  uint32_t bytes, got;
};

void CallRead(void* context) {
  GuardedRead* call = static_cast<GuardedRead*>(context);
  call->got = call->reader->ops->read(call->reader->state, call->dest, call->bytes);
}

// Reads the next block of source bytes; false when none came.
bool Refill(SoundInput* sound) {
  SoundSource* s = sound->source;
  const uint32_t bps = s->reader.format.bytes_per_sample;
  const uint64_t left = sound->total_source_samples - sound->source_index;
  uint64_t want = s->block_bytes / bps;
  if (want > left) want = left;
  s->block_at = s->block_fill = 0;
  if (want == 0) return false;
  GuardedRead call = {&s->reader, s->block, static_cast<uint32_t>(want * bps), 0};
  const bool ok = s->reader.ops->guarded ? MediaGuardRun(CallRead, &call) : (CallRead(&call), true);
  if (!ok) {
    call.got = 0;
    ProgressSend(sound->progress, "Crash while reading input file...", 0);
  }
  s->block_fill = call.got - call.got % bps;
  if (s->block_fill == 0) s->short_read = true;
  return s->block_fill != 0;
}

// The next source sample; false at the end of the range or of the data.
bool Fetch(SoundInput* sound, Pair* out) {
  SoundSource* s = sound->source;
  if (s->block_at >= s->block_fill && !Refill(sound)) return false;
  const SoundFormat& f = s->reader.format;
  const uint8_t* p = s->block + s->block_at;
  out->left = Widen(f, p);
  out->right = f.channels == 2 ? Widen(f, p + f.bits / 8) : out->left;
  s->block_at += f.bytes_per_sample;
  ++sound->source_index;
  return true;
}

// A higher source rate: the mean of the source samples up to the output sample's end.
bool NextMean(SoundInput* sound, Pair* out) {
  uint64_t until = (sound->output_count + 1) * sound->source_rate / sound->rate;
  if (until > sound->total_source_samples) until = sound->total_source_samples;
  int64_t left = 0, right = 0;
  uint32_t n = 0;
  Pair p;
  while (sound->source_index < until && Fetch(sound, &p)) {
    left += p.left;
    right += p.right;
    ++n;
  }
  if (n == 0) return false;
  out->left = static_cast<int32_t>(left / n);
  out->right = static_cast<int32_t>(right / n);
  return true;
}

// Where source sample `index` falls in output samples.
uint64_t OutputPosition(const SoundInput* sound, uint64_t index) {
  return index * sound->rate / sound->source_rate;
}

// Reads the next source sample as the interpolator's target and works out the step to it.
void Advance(SoundInput* sound) {
  SoundSource* s = sound->source;
  sound->interp_value_left = sound->interp_left * 1024;
  sound->interp_value_right = sound->interp_right * 1024;
  sound->interp_step_left = sound->interp_step_right = 0;
  Pair next;
  if (s->drained || !Fetch(sound, &next)) {
    s->drained = true;  // hold the last value
    return;
  }
  const int32_t gap =
      static_cast<int32_t>(OutputPosition(sound, sound->source_index - 1) - sound->output_count);
  sound->interp_step_left = (next.left - sound->interp_left) * 1024 / gap;
  sound->interp_step_right = (next.right - sound->interp_right) * 1024 / gap;
  sound->interp_left = next.left;
  sound->interp_right = next.right;
}

// A lower source rate: linear interpolation, with the first sample read ahead.
bool NextInterpolated(SoundInput* sound) {
  SoundSource* s = sound->source;
  if (!s->primed) {
    Pair first;
    if (!Fetch(sound, &first)) return false;
    sound->interp_left = first.left;
    sound->interp_right = first.right;
    s->primed = true;
  }
  if (!s->drained && sound->output_count >= OutputPosition(sound, sound->source_index - 1))
    Advance(sound);
  return !s->short_read;
}

bool NextSample(SoundInput* sound, Pair* out) {
  if (sound->source_rate == sound->rate) return Fetch(sound, out);
  if (sound->source_rate > sound->rate) return NextMean(sound, out);
  if (!NextInterpolated(sound)) return false;
  out->left = sound->interp_value_left >> 10;
  out->right = sound->interp_value_right >> 10;
  sound->interp_value_left += sound->interp_step_left;
  sound->interp_value_right += sound->interp_step_right;
  return true;
}

void Store(const SoundInput* sound, Pair v, uint8_t* out) {
  if (sound->channels == 1) v.left = v.right = (v.left + v.right) / 2;
  const int32_t values[2] = {v.left, v.right};
  for (uint32_t c = 0; c < sound->channels; ++c) {
    if (sound->bits == 8) {
      *out++ = static_cast<uint8_t>((values[c] >> 8) ^ 0x80);
    } else {
      *out++ = static_cast<uint8_t>(values[c]);
      *out++ = static_cast<uint8_t>(values[c] >> 8);
    }
  }
}

}  // namespace

uint32_t SoundConvert(SoundInput* sound, uint8_t* out, uint32_t count) {
  uint32_t made = 0;
  Pair v;
  while (made < count && NextSample(sound, &v)) {
    Store(sound, v, out + static_cast<size_t>(made) * sound->bytes_per_sample);
    ++made;
    ++sound->output_count;
  }
  return made;
}

void SoundApplyGain(const SoundInput* sound, uint8_t* out, uint32_t samples) {
  const int64_t gain = sound->gain;
  if (gain == 0 || gain == 0x10000) return;
  const size_t values = static_cast<size_t>(samples) * sound->channels;
  for (size_t i = 0; i < values; ++i) {
    if (sound->bits == 8) {
      const int64_t v = (static_cast<int64_t>(out[i]) - 128) * gain >> 32;
      out[i] = static_cast<uint8_t>((v < -128 ? -128 : v > 127 ? 127 : v) + 128);
    } else {
      const int64_t v = static_cast<int16_t>(out[2 * i] | out[2 * i + 1] << 8) * gain >> 32;
      const int32_t c = Clamp16(v);
      out[2 * i] = static_cast<uint8_t>(c);
      out[2 * i + 1] = static_cast<uint8_t>(c >> 8);
    }
  }
}
