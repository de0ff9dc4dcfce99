// Wave files as inputs with sound and no pictures: a 4 by 4 black frame at 15 frames a second
// for as long as the sound lasts. Only waves whose sound the sound input layer reads qualify.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "media/media_internal.h"
#include "media/sound_source.h"

namespace {

struct WaveState {
  uint8_t frame[16];  // the blank picture
};

// Both rows find a wave file; the wave row is the one an extension picks.
bool ProbeSound(MediaInput* input) {
  FILE* file = fopen(input->file_name, "rb");
  if (!file) return false;
  SoundWaveHeader info;
  const bool ok = fseeko(file, 0, SEEK_END) == 0 &&
                  SoundReadWaveHeader(file, static_cast<uint64_t>(ftello(file)), &info);
  fclose(file);
  if (!ok || info.block_align == 0 || info.rate == 0) return false;
  if (info.data_bytes < info.block_align) {
    MediaNoteProbeFailure("The wave file holds no sound samples: its data ends with the header.");
    return false;
  }
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
      info.data_bytes * 15 / (static_cast<uint64_t>(info.block_align) * info.rate) + 1;
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

const MediaReaderOps MediaWaveReader = {"Wave", MediaGuardStill, ProbeWave, ReadBlank, SeekBlank,
                                        RewindBlank, CloseBlank};
const MediaReaderOps MediaSoundOnlyReader = {"Sound-only", MediaGuardStill, ProbeSoundOnly,
                                             ReadBlank, SeekBlank, RewindBlank, CloseBlank};
