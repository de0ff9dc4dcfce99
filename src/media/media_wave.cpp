// Wave files as inputs with sound and no pictures: a 4 by 4 black frame at 15 frames a second
// for as long as the sound lasts.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "media/media_internal.h"

namespace {

constexpr uint32_t MaxChunks = 4096;

uint32_t Le32(const unsigned char* p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}
uint32_t Le16(const unsigned char* p) { return p[0] | p[1] << 8; }

bool ReadFmt(FILE* file, uint32_t size, MediaWaveInfo* info) {
  unsigned char fmt[16];
  if (size < sizeof fmt || fread(fmt, 1, sizeof fmt, file) != sizeof fmt) return false;
  info->format_tag = Le16(fmt);
  info->channels = Le16(fmt + 2);
  info->sample_rate = Le32(fmt + 4);
  info->block_align = Le16(fmt + 12);
  info->bits = Le16(fmt + 14);
  return fseek(file, static_cast<long>(size - sizeof fmt), SEEK_CUR) == 0;
}

struct WaveState {
  uint8_t frame[16];  // the blank picture
};

// Both rows find a wave file; the wave row is the one an extension picks.
bool ProbeSound(MediaInput* input) {
  FILE* file = fopen(input->file_name, "rb");
  if (!file) return false;
  MediaWaveInfo info;
  const bool ok = MediaReadWaveInfo(file, &info);
  fclose(file);
  if (!ok || info.block_align == 0 || info.sample_rate == 0) return false;
  WaveState* state = static_cast<WaveState*>(calloc(1, sizeof(WaveState)));
  if (!state) return false;
  input->reader_state = state;
  input->type = MediaTypeSoundOnly;
  snprintf(input->type_name, sizeof input->type_name, "Sound-only");
  input->source_width = 4;
  input->source_height = 4;
  input->file_rate_num = 15;
  input->file_rate_den = 1;
  input->input_depth = 8;
  input->has_sound = 1;
  const uint64_t frames =
      info.data_bytes * 15 / (static_cast<uint64_t>(info.block_align) * info.sample_rate) + 1;
  input->source_frames = frames > 0xFFFFFF ? 0xFFFFFF : static_cast<uint32_t>(frames);
  return true;
}

bool ProbeWave(MediaInput* input) { return ProbeSound(input); }
bool ProbeSoundOnly(MediaInput* input) { return ProbeSound(input); }

bool ReadBlank(MediaInput* input) {
  WaveState* state = static_cast<WaveState*>(input->reader_state);
  input->frame_base = state->frame;
  input->frame_pitch = 4;
  input->frame_depth = 8;
  input->frame_width = 4;
  input->frame_height = 4;
  input->frame_bytes = 0;
  return true;
}

bool SeekBlank(MediaInput*, uint32_t) { return true; }
bool RewindBlank(MediaInput*) { return true; }

void CloseBlank(MediaInput* input) {
  free(input->reader_state);
  input->reader_state = nullptr;
}

}  // namespace

bool MediaReadWaveInfo(FILE* file, MediaWaveInfo* info) {
  memset(info, 0, sizeof *info);
  unsigned char riff[12];
  if (fread(riff, 1, sizeof riff, file) != sizeof riff) return false;
  if (memcmp(riff, "RIFF", 4) != 0 || memcmp(riff + 8, "WAVE", 4) != 0) return false;
  bool haveFmt = false;
  for (uint32_t i = 0; i < MaxChunks; ++i) {
    unsigned char head[8];
    if (fread(head, 1, sizeof head, file) != sizeof head) return false;
    const uint32_t size = Le32(head + 4);
    if (memcmp(head, "fmt ", 4) == 0) {
      if (!ReadFmt(file, size, info)) return false;
      haveFmt = true;
    } else if (memcmp(head, "data", 4) == 0) {
      info->data_bytes = size;
      return haveFmt;
    } else if (fseek(file, static_cast<long>(size), SEEK_CUR) != 0) {
      return false;
    }
    if (size & 1) fseek(file, 1, SEEK_CUR);  // chunks are padded to even sizes
  }
  return false;
}

const MediaReaderOps MediaWaveReader = {"Wave", MediaGuardStill, ProbeWave, ReadBlank, SeekBlank,
                                        RewindBlank, CloseBlank};
const MediaReaderOps MediaSoundOnlyReader = {"Sound-only", MediaGuardStill, ProbeSoundOnly,
                                             ReadBlank, SeekBlank, RewindBlank, CloseBlank};
