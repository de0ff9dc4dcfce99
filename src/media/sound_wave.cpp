// Wave files and raw sample files: plain PCM read straight from the file.
#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "media/sound_source.h"

namespace {

constexpr uint32_t TagPcm = 1;
constexpr uint32_t TagFloat = 3;
constexpr uint32_t TagExtensible = 0xFFFE;
constexpr uint32_t MaxChunks = 4096;

// The fixed tail of the sub-format GUIDs of WAVE_FORMAT_EXTENSIBLE; the first two bytes are
// the plain format tag.
const unsigned char GuidTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                    0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

uint32_t Le16(const unsigned char* p) { return p[0] | p[1] << 8; }
uint32_t Le32(const unsigned char* p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

bool SeekTo(FILE* file, uint64_t offset) {
  return fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
}

// The "fmt " chunk of `size` bytes at the file position.
bool ReadFormat(FILE* file, uint32_t size, SoundWaveHeader* header) {
  unsigned char fmt[40] = {};
  if (size < 16) return false;
  const uint32_t take = size < sizeof fmt ? size : sizeof fmt;
  if (fread(fmt, 1, take, file) != take) return false;
  return SoundParseWaveFormat(fmt, take, header);
}

uint64_t FileSize(FILE* file) {
  struct stat info;
  if (fstat(fileno(file), &info) != 0 || info.st_size < 0) return 0;
  return static_cast<uint64_t>(info.st_size);
}

// ---------------------------------------------------------------------------------------------
// A span of PCM bytes in a file.

struct PcmFile {
  FILE* file;
  uint64_t data_offset;
  uint32_t bytes_per_sample;
  uint64_t left;  // bytes of the span behind the read position
  uint64_t data_bytes;
};

uint32_t PcmRead(void* state, uint8_t* dest, uint32_t bytes) {
  PcmFile* pcm = static_cast<PcmFile*>(state);
  if (bytes > pcm->left) bytes = static_cast<uint32_t>(pcm->left);
  bytes -= bytes % pcm->bytes_per_sample;
  const size_t got = fread(dest, 1, bytes, pcm->file);
  const uint32_t whole = static_cast<uint32_t>(got - got % pcm->bytes_per_sample);
  pcm->left -= got;
  return whole;
}

bool PcmSeek(void* state, uint64_t sample) {
  PcmFile* pcm = static_cast<PcmFile*>(state);
  const uint64_t offset = sample * pcm->bytes_per_sample;
  if (offset > pcm->data_bytes || !SeekTo(pcm->file, pcm->data_offset + offset)) return false;
  pcm->left = pcm->data_bytes - offset;
  return true;
}

void PcmClose(void* state) {
  PcmFile* pcm = static_cast<PcmFile*>(state);
  fclose(pcm->file);
  free(pcm);
}

const SoundSourceOps PcmOps = {PcmRead, PcmSeek, PcmClose, false};

// Hands `file` to a PCM reader for the span; the file is closed on failure too.
bool MakePcmReader(FILE* file, uint64_t offset, const SoundFormat& format, SoundReader* reader) {
  PcmFile* pcm = static_cast<PcmFile*>(calloc(1, sizeof(PcmFile)));
  if (!pcm) {
    fclose(file);
    return false;
  }
  pcm->file = file;
  pcm->data_offset = offset;
  pcm->bytes_per_sample = format.bytes_per_sample;
  pcm->data_bytes = format.total_samples * format.bytes_per_sample;
  if (!PcmSeek(pcm, 0)) {
    PcmClose(pcm);
    return false;
  }
  reader->ops = &PcmOps;
  reader->state = pcm;
  reader->format = format;
  reader->kind = SoundKindFile;
  return true;
}

}  // namespace

void SoundWarn(const SoundOpenRequest& request, const char* format, ...) {
  if (!request.progress.fn) return;
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  ProgressSend(request.progress, text, 4);
}

bool SoundFormatValid(SoundFormat* format) {
  if (format->rate == 0 || format->rate > SoundMaxRate) return false;
  if (format->channels < 1 || format->channels > 2) return false;
  const uint32_t bits = format->bits;
  const bool ok = format->is_float ? (bits == 32 || bits == 64)
                                   : (bits == 8 || bits == 16 || bits == 24 || bits == 32);
  if (!ok) return false;
  format->bytes_per_sample = bits / 8 * format->channels;
  return true;
}

bool SoundParseWaveFormat(const uint8_t* fmt, uint32_t size, SoundWaveHeader* header) {
  if (size < 16) return false;
  header->format_tag = Le16(fmt);
  header->channels = Le16(fmt + 2);
  header->rate = Le32(fmt + 4);
  header->block_align = Le16(fmt + 12);
  header->bits = Le16(fmt + 14);
  if (header->format_tag == TagExtensible) {
    const uint32_t extra = size >= 18 ? Le16(fmt + 16) : 0;
    if (size < 40 || extra < 22 || memcmp(fmt + 26, GuidTail, sizeof GuidTail) != 0) return false;
    header->format_tag = Le16(fmt + 24);
  }
  return header->format_tag == TagPcm || header->format_tag == TagFloat;
}

bool SoundWaveFormat(const SoundWaveHeader& header, SoundFormat* format) {
  memset(format, 0, sizeof *format);
  format->rate = header.rate;
  format->channels = header.channels;
  format->bits = header.bits;
  format->is_float = header.format_tag == TagFloat;
  if (!SoundFormatValid(format)) return false;
  format->total_samples = header.data_bytes / format->bytes_per_sample;
  return true;
}

bool SoundReadWaveHeader(FILE* file, uint64_t file_size, SoundWaveHeader* header) {
  memset(header, 0, sizeof *header);
  unsigned char riff[12];
  if (!SeekTo(file, 0) || fread(riff, 1, sizeof riff, file) != sizeof riff) return false;
  if (memcmp(riff, "RIFF", 4) != 0 || memcmp(riff + 8, "WAVE", 4) != 0) return false;
  uint64_t at = sizeof riff;
  bool have_format = false;
  for (uint32_t i = 0; i < MaxChunks && at + 8 <= file_size; ++i) {
    unsigned char head[8];
    if (!SeekTo(file, at) || fread(head, 1, sizeof head, file) != sizeof head) return false;
    const uint32_t size = Le32(head + 4);
    at += 8;
    if (memcmp(head, "fmt ", 4) == 0) {
      if (!ReadFormat(file, size, header)) return false;
      have_format = true;
    } else if (memcmp(head, "data", 4) == 0) {
      if (!have_format) return false;
      // A length past the end of the file (a wave that was never finished) ends with it.
      header->data_offset = at;
      header->data_claimed = size;
      header->data_bytes = size <= file_size - at ? size : file_size - at;
      return true;
    }
    at += size + (size & 1ull);  // chunks are padded to even lengths
  }
  return false;
}

bool SoundOpenWave(const SoundOpenRequest& request, SoundReader* reader) {
  FILE* file = fopen(request.name, "rb");
  if (!file) return false;
  SoundWaveHeader header;
  SoundFormat format;
  if (!SoundReadWaveHeader(file, FileSize(file), &header) || !SoundWaveFormat(header, &format)) {
    fclose(file);
    return false;
  }
  // A wave whose recording was cut off is taken as far as it goes (its data chunk may hold a
  // partial last sample, or claim more than the file holds); one with no sample at all is no
  // sound.
  if (format.total_samples == 0) {
    SoundWarn(request, "%s ends early: it holds no sound samples: its data ends with the header.",
              request.name);
    fclose(file);
    return false;
  }
  if (header.data_claimed > header.data_bytes)
    SoundWarn(request, "%s ends early: its sound data holds %llu of the %llu bytes that its header states.",
              request.name, static_cast<unsigned long long>(header.data_bytes),
                   static_cast<unsigned long long>(header.data_claimed));
  reader->type_name = "Wave";
  return MakePcmReader(file, header.data_offset, format, reader);
}

// force = type + rate * 8 - 1; type 1 8-bit mono, 2 8-bit stereo, 3 16-bit mono, 4 16-bit
// stereo. The samples start `skip` bytes into the file.
bool SoundOpenRaw(const SoundOpenRequest& request, SoundReader* reader) {
  const uint32_t type = (request.force + 1) & 7;
  SoundFormat format = {};
  format.rate = (request.force + 1) >> 3;
  format.channels = (type == 2 || type == 4) ? 2 : 1;
  format.bits = type <= 2 ? 8 : 16;
  if (type < 1 || type > 4 || !SoundFormatValid(&format)) return false;
  FILE* file = fopen(request.name, "rb");
  if (!file) return false;
  const uint64_t size = FileSize(file);
  const uint64_t bytes = size > request.skip ? size - request.skip : 0;
  format.total_samples = bytes / format.bytes_per_sample;
  // Raw samples may end with a partial block (a capture that was stopped): it is left out.
  if (format.total_samples == 0) {
    SoundWarn(request, "%s ends early: it holds no whole sound sample.", request.name);
    fclose(file);
    return false;
  }
  if (bytes % format.bytes_per_sample)
    SoundWarn(request, "%s ends early: its last %u bytes are not a whole sample and are left out.",
              request.name, static_cast<unsigned>(bytes % format.bytes_per_sample));
  reader->type_name = "Raw";
  return MakePcmReader(file, request.skip, format, reader);
}
