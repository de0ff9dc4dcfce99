// Velmo files (.vlm, .vm2) as inputs, through the reader library: each frame is decoded on the
// caller's thread and copied out as 32-bit ARGB with alpha; a wide-range file's planes are
// turned into four floats a pixel (linear light, 1.0 = 80 nits) instead.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "media/media_internal.h"

#include "format/container.h"
#include "process/hdr_colour.h"
#include "reader/copyout.h"
#include "reader/velmo_handle.h"
#include "velmo.h"

namespace {

struct VelmoReaderState {
  HVELMO handle;
  uint8_t* image;       // a file cut short, read whole: the handle reads it from here
  uint8_t* pixels;
  size_t pixelBytes;
  bool wideRange;       // the file is HDR: frames come as floats
  bool oldStreamTold;   // the warning about frames of the older stream went out
};

VelmoReaderState* StateOf(MediaInput* input) {
  return static_cast<VelmoReaderState*>(input->reader_state);
}

const char* VelmoTypeName(uint32_t magic) {
  switch (magic) {
    case VelmoMagicVM2m: return "Velmo 2.7";
    case VelmoMagicVM2j: return "Velmo 2.5";
    case VelmoMagicVM2i: return "Velmo 2.3d";
    case VelmoMagicVM2h: return "Velmo 2.3";
    case VelmoMagicVM2g: return "Velmo 2.2";
    case VelmoMagicVM2f: return "Velmo 2 (deprecated)";
    case VelmoMagicVLMk: return "Velmo 1.1";
  }
  return "Velmo 1";
}

// Reads on the caller's thread, with the alpha plane when the file has one.
constexpr uint32_t MediaVelmoOpenFlags = VelmoOpenNoBackground | VelmoOpenAlpha;

// The picture size in the header is checked before the open, which sizes (and fills) its frame
// buffers by it: a lying header must not cost gigabytes. `*headerBytes` is the file size that
// the header states (0 when it cannot be read).
bool SizeInRange(MediaInput* input, uint64_t* headerBytes) {
  *headerBytes = 0;
  FILE* file = fopen(input->file_name, "rb");
  if (!file) return false;
  uint8_t bytes[VelmoHeaderSize];
  VelmoHeader header{};
  const bool read = fread(bytes, 1, sizeof bytes, file) == sizeof bytes &&
                    VelmoParseHeader(bytes, sizeof bytes, &header);
  fclose(file);
  if (!read) return true;  // the open says what is wrong
  *headerBytes = uint64_t(header.FileSizeLess8) + 8;
  const uint32_t width = VelmoHeaderWidth(header), height = VelmoHeaderHeight(header);
  if (width <= MediaMaxSide && height <= MediaMaxSide) return true;
  char reason[128];
  snprintf(reason, sizeof reason, "The picture size (%u x %u) is out of range.", width, height);
  MediaNoteProbeFailure(reason);
  return false;
}

// The whole file in memory; null when it cannot be had.
uint8_t* ReadWhole(const char* name, uint64_t bytes) {
  if (bytes == 0 || bytes > SIZE_MAX / 2) return nullptr;
  FILE* file = fopen(name, "rb");
  if (!file) return nullptr;
  uint8_t* image = static_cast<uint8_t*>(malloc(size_t(bytes)));
  if (image && fread(image, 1, size_t(bytes), file) != bytes) {
    free(image);
    image = nullptr;
  }
  fclose(file);
  return image;
}

// A file that ends before its header says (a compression that was stopped) is read from
// memory, where the reader takes it as far as it goes; read from the file, it would stop at
// the first read that comes up short, before frames that are whole. Null on failure.
HVELMO OpenCut(const char* name, uint64_t bytes, uint8_t** image) {
  *image = ReadWhole(name, bytes);
  if (!*image) return nullptr;
  VelmoOpenOptions options{};
  options.ImageSize = bytes;
  HVELMO h = VelmoOpenWithOptions(reinterpret_cast<const char*>(*image), &options,
                                  MediaVelmoOpenFlags | VelmoOpenImage);
  if (!h) {
    free(*image);
    *image = nullptr;
  }
  return h;
}

// Frames whose data lies wholly within the first `bytes` of the file.
uint32_t WholeFrames(HVELMO h, uint64_t bytes) {
  uint32_t whole = 0;
  while (whole < h->Frames && VelmoEntryOffset(h->FrameTable[whole + 1]) <= bytes) ++whole;
  return whole;
}

bool ProbeVelmo(MediaInput* input) {
  uint64_t headerBytes = 0;
  if (!SizeInRange(input, &headerBytes)) return false;
  const uint64_t fileBytes = MediaFileSize(input->file_name);
  const bool cut = fileBytes < headerBytes;
  uint8_t* image = nullptr;
  HVELMO h = cut ? OpenCut(input->file_name, fileBytes, &image) : nullptr;
  // Without the memory for it, the file is read as usual: as far as the reader gets.
  if (!h) h = VelmoOpen(input->file_name, MediaVelmoOpenFlags);
  if (!h) {
    MediaNoteProbeFailure(VelmoGetError());
    return false;
  }
  const uint32_t frames = cut ? WholeFrames(h, fileBytes) : h->Frames;
  if (h->Width == 0 || h->Height == 0 || h->Width > MediaMaxSide || h->Height > MediaMaxSide ||
      frames == 0) {
    if (cut && frames == 0) MediaNoteProbeFailure("The file ends before its first frame is whole.");
    VelmoClose(h);
    free(image);
    return false;
  }
  VelmoReaderState* state = static_cast<VelmoReaderState*>(calloc(1, sizeof(VelmoReaderState)));
  if (!state) {
    VelmoClose(h);
    free(image);
    return false;
  }
  state->handle = h;
  state->image = image;
  input->reader_state = state;
  input->type = MediaTypeVelmo;
  snprintf(input->type_name, sizeof input->type_name, "%s", VelmoTypeName(h->Magic));
  input->source_width = h->Width;
  input->source_height = h->Height;
  input->source_frames = frames;
  if (frames < h->Frames)
    MediaWarnShortFrame(input, "only %lu of its %lu frames are in the file.",
                        static_cast<unsigned long>(frames), static_cast<unsigned long>(h->Frames));
  input->file_rate_num = h->FrameRate ? h->FrameRate : 15;
  input->file_rate_den = h->FrameRate && h->FrameRateDiv ? h->FrameRateDiv : 1;
  input->has_alpha = (h->FileFlags & VelmoFlagAlpha) != 0;
  input->has_sound = h->TrackCount != 0;
  state->wideRange = (h->FileFlags & VelmoFlagHdr) != 0;
  input->input_depth = 32;
  if (state->wideRange) {
    // The HDR block took the colour table's place: its peak in nits stands behind the five
    // coefficients.
    input->input_depth = 128;
    input->float_source = 1;
    input->float_frames = 1;
    input->peak_value = static_cast<uint32_t>(std::lround(h->ColourTable[HdrCoefficientCount]));
  }
  return true;
}

// A frame whose data the file does not hold (a file cut short, a damaged table).
bool FrameMissing(MediaInput* input, HVELMO h) {
  MediaNoteReadProblem(input, "Frame %lu of %lu is missing from the file or damaged.",
                       static_cast<unsigned long>(h->FrameNum),
                       static_cast<unsigned long>(h->Frames));
  return false;
}

// The decoded planes of a wide-range frame back to linear light.
bool CopyWideRange(HVELMO h, float* out, size_t pitch) {
  const VelmoFrameBuffers* fb = h->FrameBuffers;
  if (!fb) return false;
  const VelmoFrameBufferSet& set = fb->Sets[fb->Current];
  if (!set.Planes[VelmoPlaneY] || !set.Planes[VelmoPlaneCr] || !set.Planes[VelmoPlaneCb])
    return false;
  HdrPlanes planes{};
  planes.Y = set.Planes[VelmoPlaneY];
  planes.Hdr = set.Planes[VelmoPlaneHdr];
  planes.Ct = set.Planes[VelmoPlaneCr];
  planes.Cp = set.Planes[VelmoPlaneCb];
  planes.Alpha = (h->FileFlags & VelmoFlagAlpha) ? set.Planes[VelmoPlaneAlpha] : nullptr;
  planes.LumaPitch = fb->LumaPitch;
  planes.ChromaPitch = fb->ChromaPitch;
  planes.Width = h->Width;
  planes.Height = h->Height;
  HdrPlanesToLinearRgba(planes, h->ColourTable, out, static_cast<ptrdiff_t>(pitch / sizeof(float)));
  return true;
}

// The library leaves frames of the older second-generation stream undecoded and says so once
// per handle; the user hears it once per input.
void WarnOldStream(MediaInput* input, VelmoReaderState* state) {
  if (state->oldStreamTold || !(state->handle->LastDecodeResult & Velmo2FigureOldStream)) return;
  state->oldStreamTold = true;
  MediaSay(input->progress, MediaLevelWarning, "%s", VelmoOldStreamText);
}

bool ReadVelmo(MediaInput* input) {
  VelmoReaderState* state = StateOf(input);
  HVELMO h = state->handle;
  const size_t pitch = static_cast<size_t>(h->Width) * (state->wideRange ? 16 : 4);
  if (!MediaEnsureBuffer(&state->pixels, &state->pixelBytes, pitch * h->Height)) {
    MediaSay(input->progress, MediaLevelError, "Out of memory");
    return false;
  }
  input->frame_base = state->pixels;
  input->frame_pitch = static_cast<ptrdiff_t>(pitch);
  input->frame_depth = state->wideRange ? 128 : 32;
  input->frame_width = h->Width;
  input->frame_height = h->Height;
  if (!VelmoDoFrame(h)) return FrameMissing(input, h);
  input->frame_bytes = h->FrameSize;
  WarnOldStream(input, state);
  if (state->wideRange) {
    if (!CopyWideRange(h, reinterpret_cast<float*>(state->pixels), pitch)) return FrameMissing(input, h);
    VelmoNextFrame(h);
    return true;
  }
  VelmoCopyToBuffer(h, state->pixels, static_cast<int32_t>(pitch), static_cast<int32_t>(h->Height),
                    0, 0, uint32_t(VelmoSurfaceArgb32) | uint32_t(VelmoOpenNeverSkip));
  VelmoNextFrame(h);
  return true;
}

// Skipping decodes each frame (the next one depends on it) but copies nothing out.
bool SeekVelmo(MediaInput* input, uint32_t index) {
  HVELMO h = StateOf(input)->handle;
  for (uint32_t i = 0; i < index; ++i) {
    if (!VelmoDoFrame(h)) return FrameMissing(input, h);
    WarnOldStream(input, StateOf(input));
    VelmoNextFrame(h);
  }
  return true;
}

bool RewindVelmo(MediaInput* input) {
  VelmoGoto(StateOf(input)->handle, 1, VelmoGotoDirect);
  return true;
}

void CloseVelmo(MediaInput* input) {
  VelmoReaderState* state = StateOf(input);
  if (!state) return;
  VelmoClose(state->handle);
  free(state->image);
  free(state->pixels);
  free(state);
  input->reader_state = nullptr;
}

}  // namespace

const MediaReaderOps MediaVelmoReader = {"Velmo", MediaGuardVelmo, ProbeVelmo, ReadVelmo,
                                         SeekVelmo, RewindVelmo, CloseVelmo};

