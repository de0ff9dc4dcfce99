// A Velmo file's sound track, decoded frame by frame through the reader library.
//
// The library gives the sound of the selected frame; the reader walks the frames in order and
// hands the decoded bytes on. The length is not in the file's tables, so the open walks the
// track once and counts it.
#include <cstring>
#include <new>
#include <vector>

#include "media/sound_source.h"
#include "velmo.h"

namespace {

struct VelmoSound {
  HVELMO handle = nullptr;
  VelmoTrackReader* track = nullptr;
  std::vector<uint8_t> frame;  // the decoded sound of the last frame taken
  size_t frame_at = 0;
  uint32_t frames_taken = 0;   // frames walked since the start
};

bool LooksLikeVelmo(const char* name) {
  FILE* file = fopen(name, "rb");
  if (!file) return false;
  char head[3];
  const bool ok = fread(head, 1, 3, file) == 3 &&
                  (memcmp(head, "VLM", 3) == 0 || memcmp(head, "VM2", 3) == 0);
  fclose(file);
  return ok;
}

// Decodes the next frame's sound; false after the last frame.
bool TakeFrame(VelmoSound* v) {
  HVELMO h = v->handle;
  if (h->ReadError || v->frames_taken >= h->Frames) return false;
  v->frame.resize(VelmoTrackReaderBufferSize(v->track));
  const uint32_t got = VelmoGetTrackData(v->track, v->frame.data(), static_cast<uint32_t>(v->frame.size()));
  v->frame.resize(got < v->frame.size() ? got : v->frame.size());
  v->frame_at = 0;
  ++v->frames_taken;
  VelmoNextFrame(h);
  return true;
}

uint32_t VelmoRead(void* state, uint8_t* dest, uint32_t bytes) {
  VelmoSound* v = static_cast<VelmoSound*>(state);
  uint32_t done = 0;
  while (done < bytes) {
    if (v->frame_at == v->frame.size()) {
      if (!TakeFrame(v)) break;
      continue;
    }
    size_t take = v->frame.size() - v->frame_at;
    if (take > bytes - done) take = bytes - done;
    memcpy(dest + done, v->frame.data() + v->frame_at, take);
    v->frame_at += take;
    done += static_cast<uint32_t>(take);
  }
  return done;
}

// Back to frame 1 (the decoder starts afresh there), then reads up to the sample.
bool VelmoSeek(void* state, uint64_t sample) {
  VelmoSound* v = static_cast<VelmoSound*>(state);
  VelmoGoto(v->handle, 1, VelmoGotoExact | VelmoGotoDirect);
  v->frame.clear();
  v->frame_at = 0;
  v->frames_taken = 0;
  const uint32_t bytes_per_sample = 2 * VelmoTrackReaderChannels(v->track);
  uint64_t skip = sample * bytes_per_sample;
  uint8_t scratch[4096];
  while (skip > 0) {
    const uint32_t n = skip < sizeof scratch ? static_cast<uint32_t>(skip) : sizeof scratch;
    const uint32_t got = VelmoRead(v, scratch, n);
    if (got == 0) return false;
    skip -= got;
  }
  return true;
}

void VelmoSoundClose(void* state) {
  VelmoSound* v = static_cast<VelmoSound*>(state);
  VelmoCloseTrack(v->track);
  VelmoClose(v->handle);
  delete v;
}

const SoundSourceOps VelmoOps = {VelmoRead, VelmoSeek, VelmoSoundClose, true};

// The decoded length of the whole track, in bytes.
uint64_t CountBytes(VelmoSound* v) {
  uint64_t total = 0;
  while (TakeFrame(v)) total += v->frame.size();
  return total;
}

}  // namespace

bool SoundOpenVelmo(const SoundOpenRequest& request, SoundReader* reader) {
  if (!LooksLikeVelmo(request.name)) return false;
  VelmoSound* v = new (std::nothrow) VelmoSound;
  if (!v) return false;
  // Sound only: no frame buffers and no reading thread.
  v->handle = VelmoOpen(request.name, VelmoOpenNoBuffers | VelmoOpenNoBackground);
  if (v->handle) v->track = VelmoOpenTrack(v->handle, request.track);
  if (v->handle && !v->track && request.track < v->handle->TrackCount)
    SoundWarn(request, "%s: its sound track %u cannot be read (its table is damaged or its "
              "format unknown).", request.name, request.track);
  SoundFormat& f = reader->format;
  if (v->track) {
    f.rate = VelmoTrackReaderRate(v->track);
    f.channels = VelmoTrackReaderChannels(v->track);
    f.bits = 16;
  }
  if (!v->track || !SoundFormatValid(&f)) {
    VelmoSoundClose(v);
    return false;
  }
  f.total_samples = CountBytes(v) / f.bytes_per_sample;
  // A walk that stopped before the last frame met a file that is cut short or damaged: its
  // sound would end early without a word.
  if (v->frames_taken < v->handle->Frames) {
    SoundWarn(request, "%s ends early: the sound of frame %u of %u could not be read.",
              request.name, v->frames_taken + 1, v->handle->Frames);
    VelmoSoundClose(v);
    return false;
  }
  reader->ops = &VelmoOps;
  reader->state = v;
  reader->kind = SoundKindVelmo;
  reader->type_name = "Velmo track";
  return true;
}
