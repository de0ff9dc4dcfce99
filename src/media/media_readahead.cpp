// Read-ahead: while the caller works on frame n, a background thread already runs
// MediaGetFrame for frame n + 1. The input is handed over whole: between the start of a job
// and the wait for it only the job touches the record, so the rule that a MediaInput is never
// used by two threads at once still holds. Each finished frame is copied out of
// `output_buffer` into one of two frames of the record, so that the caller's frame stays
// valid while the next one is being made.
#include <cstdlib>
#include <cstring>

#include "host/platform.h"
#include "media/media_internal.h"

struct MediaReadAhead {
  MediaInput* input;
  MediaFrameArgs args;
  PlatformThread thread;  // the reading thread, kept for the whole read-ahead
  PlatformSemaphore go, done;
  bool threaded;    // the thread runs; otherwise jobs run in the caller's thread
  bool pending;     // a job is under way
  volatile uint32_t quit;
  bool result;      // what the last job's MediaGetFrame answered
  bool atEnd;       // the input's at_end after the last job
  uint8_t* frames[2];
  size_t frameBytes[2];
  int next;         // the frame slot the next finished job is copied into
};

namespace {

void ReadJob(MediaReadAhead* ahead) {
  const MediaFrameArgs& a = ahead->args;
  ahead->result = MediaGetFrame(ahead->input, a.denoise, a.smooth, a.contrast, a.brightness,
                                a.gamma, a.black_clamp);
  ahead->atEnd = ahead->input->at_end != 0;
}

uint32_t ReadLoop(void* argument) {
  MediaReadAhead* ahead = static_cast<MediaReadAhead*>(argument);
  for (;;) {
    SemaphoreWait(&ahead->go, WaitForever);
    if (AtomicRead(&ahead->quit)) return 0;
    ReadJob(ahead);
    SemaphoreSignal(&ahead->done, 1);
  }
}

void StartJob(MediaReadAhead* ahead) {
  if (!ahead->threaded) {
    ReadJob(ahead);  // no thread to be had: read in the caller's thread
    return;
  }
  ahead->pending = true;
  SemaphoreSignal(&ahead->go, 1);
}

void FinishJob(MediaReadAhead* ahead) {
  if (!ahead->pending) return;
  SemaphoreWait(&ahead->done, WaitForever);
  ahead->pending = false;
}

bool StartThread(MediaReadAhead* ahead) {
  if (!SemaphoreCreate(&ahead->go, 0, 1)) return false;
  if (!SemaphoreCreate(&ahead->done, 0, 1)) {
    SemaphoreDestroy(&ahead->go);
    return false;
  }
  if (ThreadStart(&ahead->thread, ReadLoop, ahead, 0, PriorityCaller, 0, "Media read")) return true;
  SemaphoreDestroy(&ahead->go);
  SemaphoreDestroy(&ahead->done);
  return false;
}

}  // namespace

MediaReadAhead* MediaReadAheadStart(MediaInput* input, const MediaFrameArgs* args) {
  if (!input) return nullptr;
  MediaReadAhead* ahead = static_cast<MediaReadAhead*>(calloc(1, sizeof(MediaReadAhead)));
  if (!ahead) return nullptr;
  ahead->input = input;
  ahead->args = args ? *args : MediaNoFilters;
  ahead->threaded = StartThread(ahead);
  StartJob(ahead);
  return ahead;
}

bool MediaReadAheadNext(MediaReadAhead* ahead, const uint8_t** pixels, bool* atEnd) {
  if (!ahead) return false;
  FinishJob(ahead);
  MediaInput* input = ahead->input;
  if (!ahead->result || !input->output_buffer) return false;
  const int slot = ahead->next;
  ahead->next ^= 1;
  if (!MediaEnsureBuffer(&ahead->frames[slot], &ahead->frameBytes[slot], input->output_buffer_bytes))
    return false;
  memcpy(ahead->frames[slot], input->output_buffer, input->output_buffer_bytes);
  *pixels = ahead->frames[slot];
  *atEnd = ahead->atEnd;
  if (!ahead->atEnd) StartJob(ahead);
  return true;
}

void MediaReadAheadStop(MediaReadAhead* ahead) {
  if (!ahead) return;
  FinishJob(ahead);
  if (ahead->threaded) {
    AtomicStore(&ahead->quit, 1);
    SemaphoreSignal(&ahead->go, 1);
    ThreadJoin(&ahead->thread);
    SemaphoreDestroy(&ahead->go);
    SemaphoreDestroy(&ahead->done);
  }
  free(ahead->frames[0]);
  free(ahead->frames[1]);
  free(ahead);
}
