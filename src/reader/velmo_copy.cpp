// The handle's copy calls: the current frame buffer set handed to the copy-out core, with the
// walk's bookkeeping around it (start of the blit, the in-call mark, the skip check).
#include "format/container.h"
#include "reader/copyout.h"
#include "reader/velmo_handle.h"

namespace {

void CopyBegin(void* context) {
  VelmoState* h = static_cast<VelmoState*>(context);
  if (h->BlitStart == VelmoBlitPending) {
    const uint32_t now = h->Clock();
    h->BlitStart = now == 0 || now == VelmoBlitPending ? 1 : now;
  }
  AtomicStore(&h->InFrame, 1);
}

// Once per frame, while sound is playing: 0 copy, 1 copy and report, 2 skip the pixels.
int CopySkipCheck(void* context, uint32_t flags) {
  VelmoState* h = static_cast<VelmoState*>(context);
  if (!h->OpenTracks || !h->FrameRate || h->Paused || !h->SoundOn || h->SkipState != 0) return 0;
  const bool reportOnly =
      ((flags | h->OpenFlags) & VelmoOpenNeverSkip) != 0 || h->FrameNum == h->Frames;
  if (!VelmoSkipCheck(h, reportOnly ? 1 : 0)) return 0;
  return reportOnly ? 1 : 2;
}

void CopyEnd(void* context) { AtomicStore(&static_cast<VelmoState*>(context)->InFrame, 0); }

const VelmoCopyHooks HandleHooks = {nullptr, CopyBegin, CopySkipCheck, CopyEnd};

}  // namespace

extern "C" {

uint32_t VelmoCopyToBufferRect(HVELMO handle, void* dest, int32_t pitch, int32_t destHeight,
                               int32_t destX, int32_t destY, int32_t srcX, int32_t srcY,
                               int32_t srcWidth, int32_t srcHeight, uint32_t flags) {
  if (!handle || !dest || !handle->FrameBuffers) return 0;
  VelmoState* h = VelmoStateOf(handle);
  if (h->SkipState == 2) return 1;  // the check already said skip: the frame is not shown
  VelmoCopyHooks hooks = HandleHooks;
  hooks.Context = h;
  VelmoCopySource source;
  VelmoCopySourceFromBuffers(*h->FrameBuffers, h->ColourTable, h->OpenFlags,
                             (h->FileFlags & VelmoFlagHdr) != 0, &source);
  source.Hooks = &hooks;
  return uint32_t(VelmoCopyPlanesRect(&source, static_cast<uint8_t*>(dest), pitch, destHeight,
                                      destX, destY, srcX, srcY, srcWidth, srcHeight, flags));
}

uint32_t VelmoCopyToBuffer(HVELMO handle, void* dest, int32_t pitch, int32_t destHeight,
                           int32_t destX, int32_t destY, uint32_t flags) {
  if (!handle) return 0;
  return VelmoCopyToBufferRect(handle, dest, pitch, destHeight, destX, destY, 0, 0,
                               int32_t(handle->Width), int32_t(handle->Height), flags);
}

}  // extern "C"
