// FLAC files through libFLAC and Ogg Vorbis files through libvorbisfile, as sample readers.
#include <FLAC/stream_decoder.h>
#define OV_EXCLUDE_STATIC_CALLBACKS
#include <vorbis/vorbisfile.h>

#include <cstring>
#include <new>
#include <vector>

#include "media/sound_source.h"

namespace {

// Whether the file starts with one of the given four-byte marks.
bool StartsWith(const char* name, const char* mark, const char* other) {
  FILE* file = fopen(name, "rb");
  if (!file) return false;
  char head[4];
  const bool ok = fread(head, 1, 4, file) == 4 &&
                  (memcmp(head, mark, 4) == 0 || (other && memcmp(head, other, 3) == 0));
  fclose(file);
  return ok;
}

// ---------------------------------------------------------------------------------------------
// FLAC. Decoded frames are packed into the nearest wave layout (8-bit unsigned, 16, 24 or 32
// bits signed) and kept until read.

// Calls of process_single that may pass without a sample before the stream counts as ended.
constexpr uint32_t MaxIdleFrames = 4096;

struct Flac {
  FLAC__StreamDecoder* decoder = nullptr;
  SoundFormat format = {};
  uint32_t stream_bits = 0;  // bits per sample as coded
  bool have_info = false;
  bool failed = false;       // a frame that did not match the stream's format
  bool ended = false;
  std::vector<uint8_t> pending;
  size_t pending_at = 0;
};

void PutSample(uint8_t* p, int32_t v, uint32_t coded_bits, uint32_t bits) {
  const int64_t wide = static_cast<int64_t>(v) * (int64_t(1) << (bits - coded_bits));
  if (bits == 8) {
    p[0] = static_cast<uint8_t>(wide + 128);
    return;
  }
  for (uint32_t b = 0; b < bits / 8; ++b) p[b] = static_cast<uint8_t>(wide >> (8 * b));
}

FLAC__StreamDecoderWriteStatus FlacWrite(const FLAC__StreamDecoder*, const FLAC__Frame* frame,
                                         const FLAC__int32* const buffer[], void* context) {
  Flac* flac = static_cast<Flac*>(context);
  const SoundFormat& f = flac->format;
  if (!flac->have_info || frame->header.channels != f.channels ||
      frame->header.bits_per_sample != flac->stream_bits) {
    flac->failed = true;
    return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
  }
  if (flac->pending_at == flac->pending.size()) {
    flac->pending.clear();
    flac->pending_at = 0;
  }
  const uint32_t count = frame->header.blocksize;
  const size_t at = flac->pending.size();
  flac->pending.resize(at + static_cast<size_t>(count) * f.bytes_per_sample);
  uint8_t* p = flac->pending.data() + at;
  const uint32_t width = f.bits / 8;
  for (uint32_t i = 0; i < count; ++i)
    for (uint32_t c = 0; c < f.channels; ++c, p += width)
      PutSample(p, buffer[c][i], flac->stream_bits, f.bits);
  return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
}

void FlacMetadata(const FLAC__StreamDecoder*, const FLAC__StreamMetadata* metadata,
                  void* context) {
  Flac* flac = static_cast<Flac*>(context);
  if (metadata->type != FLAC__METADATA_TYPE_STREAMINFO || flac->have_info) return;
  const FLAC__StreamMetadata_StreamInfo& info = metadata->data.stream_info;
  const uint32_t coded = info.bits_per_sample;
  flac->stream_bits = coded;
  flac->format.rate = info.sample_rate;
  flac->format.channels = info.channels;
  flac->format.bits = coded <= 8 ? 8 : coded <= 16 ? 16 : coded <= 24 ? 24 : 32;
  flac->format.total_samples = info.total_samples;
  flac->have_info = true;
}

void FlacError(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus, void*) {
  // A damaged frame is skipped by the decoder; the sound goes on with the next one.
}

void FlacClose(void* state) {
  Flac* flac = static_cast<Flac*>(state);
  if (flac->decoder) FLAC__stream_decoder_delete(flac->decoder);  // closes the file too
  delete flac;
}

// Decodes frames until some samples wait; false at the end of the stream.
bool FlacFill(Flac* flac) {
  for (uint32_t idle = 0; flac->pending_at == flac->pending.size(); ++idle) {
    if (flac->ended || flac->failed || idle >= MaxIdleFrames) return false;
    const bool ok = FLAC__stream_decoder_process_single(flac->decoder);
    const FLAC__StreamDecoderState state = FLAC__stream_decoder_get_state(flac->decoder);
    if (!ok || state == FLAC__STREAM_DECODER_END_OF_STREAM ||
        state == FLAC__STREAM_DECODER_ABORTED)
      flac->ended = true;
  }
  return true;
}

uint32_t FlacRead(void* state, uint8_t* dest, uint32_t bytes) {
  Flac* flac = static_cast<Flac*>(state);
  uint32_t done = 0;
  while (done < bytes && FlacFill(flac)) {
    size_t take = flac->pending.size() - flac->pending_at;
    if (take > bytes - done) take = bytes - done;
    memcpy(dest + done, flac->pending.data() + flac->pending_at, take);
    flac->pending_at += take;
    done += static_cast<uint32_t>(take);
  }
  return done - done % flac->format.bytes_per_sample;
}

bool FlacSeek(void* state, uint64_t sample) {
  Flac* flac = static_cast<Flac*>(state);
  flac->pending.clear();
  flac->pending_at = 0;
  flac->ended = sample >= flac->format.total_samples;
  if (flac->ended || flac->failed) return flac->ended;
  if (FLAC__stream_decoder_seek_absolute(flac->decoder, sample)) return true;
  FLAC__stream_decoder_flush(flac->decoder);
  return false;
}

const SoundSourceOps FlacOps = {FlacRead, FlacSeek, FlacClose, true};

// ---------------------------------------------------------------------------------------------
// Ogg Vorbis, decoded by libvorbisfile to 16-bit samples. Every chained part must have the
// rate and channels of the first.

constexpr uint32_t MaxHoles = 64;

size_t OggRead(void* dest, size_t size, size_t count, void* file) {
  return fread(dest, size, count, static_cast<FILE*>(file));
}
int OggSeek(void* file, ogg_int64_t offset, int whence) {
  return fseeko(static_cast<FILE*>(file), static_cast<off_t>(offset), whence);
}
int OggClose(void* file) { return fclose(static_cast<FILE*>(file)); }
long OggTell(void* file) { return static_cast<long>(ftello(static_cast<FILE*>(file))); }

const ov_callbacks OggCallbacks = {OggRead, OggSeek, OggClose, OggTell};

struct Vorbis {
  OggVorbis_File file;
  SoundFormat format;
  bool ended;
};

uint32_t VorbisRead(void* state, uint8_t* dest, uint32_t bytes) {
  Vorbis* v = static_cast<Vorbis*>(state);
  uint32_t done = 0, holes = 0;
  while (!v->ended && done < bytes) {
    int link = 0;
    const long got = ov_read(&v->file, reinterpret_cast<char*>(dest + done),
                             static_cast<int>(bytes - done), 0, 2, 1, &link);
    if (got == OV_HOLE && ++holes < MaxHoles) continue;
    const vorbis_info* info = got > 0 ? ov_info(&v->file, link) : nullptr;
    if (!info || static_cast<uint32_t>(info->channels) != v->format.channels) {
      v->ended = true;
      break;
    }
    done += static_cast<uint32_t>(got);
  }
  return done - done % v->format.bytes_per_sample;
}

bool VorbisSeek(void* state, uint64_t sample) {
  Vorbis* v = static_cast<Vorbis*>(state);
  v->ended = sample >= v->format.total_samples;
  if (v->ended) return true;
  return ov_pcm_seek(&v->file, static_cast<ogg_int64_t>(sample)) == 0;
}

void VorbisClose(void* state) {
  Vorbis* v = static_cast<Vorbis*>(state);
  ov_clear(&v->file);  // closes the file too
  delete v;
}

const SoundSourceOps VorbisOps = {VorbisRead, VorbisSeek, VorbisClose, true};

// The format of the first part; false when a later part differs or the length is unknown.
bool VorbisFormat(OggVorbis_File* file, SoundFormat* format) {
  const vorbis_info* first = ov_info(file, 0);
  if (!first || first->rate <= 0 || first->channels <= 0) return false;
  const long links = ov_streams(file);
  for (long i = 1; i < links; ++i) {
    const vorbis_info* info = ov_info(file, static_cast<int>(i));
    if (!info || info->rate != first->rate || info->channels != first->channels) return false;
  }
  const ogg_int64_t total = ov_pcm_total(file, -1);
  if (total <= 0 || first->rate > static_cast<long>(SoundMaxRate)) return false;
  memset(format, 0, sizeof *format);
  format->rate = static_cast<uint32_t>(first->rate);
  format->channels = static_cast<uint32_t>(first->channels);
  format->bits = 16;
  format->total_samples = static_cast<uint64_t>(total);
  return SoundFormatValid(format);
}

}  // namespace

bool SoundOpenFlac(const SoundOpenRequest& request, SoundReader* reader) {
  if (!StartsWith(request.name, "fLaC", "ID3")) return false;
  FILE* file = fopen(request.name, "rb");
  if (!file) return false;
  Flac* flac = new (std::nothrow) Flac;
  if (flac) flac->decoder = FLAC__stream_decoder_new();
  if (!flac || !flac->decoder) {
    fclose(file);
    delete flac;
    return false;
  }
  if (FLAC__stream_decoder_init_FILE(flac->decoder, file, FlacWrite, FlacMetadata, FlacError,
                                     flac) != FLAC__STREAM_DECODER_INIT_STATUS_OK) {
    FlacClose(flac);  // only a failed allocation gets here; the decoder may own the file
    return false;
  }
  const bool ok = FLAC__stream_decoder_process_until_end_of_metadata(flac->decoder) &&
                  flac->have_info && flac->format.total_samples > 0 &&
                  SoundFormatValid(&flac->format);
  if (!ok) {
    FlacClose(flac);
    return false;
  }
  reader->ops = &FlacOps;
  reader->state = flac;
  reader->format = flac->format;
  reader->kind = SoundKindFile;
  reader->type_name = "FLAC";
  return true;
}

bool SoundOpenVorbis(const SoundOpenRequest& request, SoundReader* reader) {
  if (!StartsWith(request.name, "OggS", nullptr)) return false;
  FILE* file = fopen(request.name, "rb");
  if (!file) return false;
  Vorbis* v = new (std::nothrow) Vorbis;
  if (!v) {
    fclose(file);
    return false;
  }
  memset(v, 0, sizeof *v);
  if (ov_open_callbacks(file, &v->file, nullptr, 0, OggCallbacks) != 0) {
    fclose(file);  // a failed open leaves the file to the caller
    delete v;
    return false;
  }
  if (!VorbisFormat(&v->file, &v->format)) {
    VorbisClose(v);
    return false;
  }
  reader->ops = &VorbisOps;
  reader->state = v;
  reader->format = v->format;
  reader->kind = SoundKindFile;
  reader->type_name = "Ogg Vorbis";
  return true;
}
