// Still images, animated GIF and OpenEXR through the image file library.
//
// Every picture is read as 32-bit ARGB (or four floats for OpenEXR), top row first. A picture
// whose alpha is not to be used gets its top byte cleared, which is what the narrower source
// depths deliver through their pixel fetches: colour with a zero alpha byte.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "imagefile/imagefile.h"
#include "media/media_internal.h"

namespace {

constexpr uint32_t MaxStillSide = 8192;
constexpr uint64_t MaxJpegBytes = 12500000;
constexpr size_t HeadBytes = 4096;

struct StillState {
  ImageFile* file;
  uint8_t* pixels;
  size_t pixelBytes;
  uint32_t nextFrame;  // the frame the next read gives (animated GIF)
  bool keepAlpha;      // the alpha of the file is used
  bool floats;
};

StillState* StateOf(MediaInput* input) { return static_cast<StillState*>(input->reader_state); }

bool HeadFormatIs(const char* name, int format) {
  FILE* f = fopen(name, "rb");
  if (!f) return false;
  unsigned char head[HeadBytes];
  const size_t n = fread(head, 1, sizeof head, f);
  fclose(f);
  return n > 0 && ImageProbeFormat(head, n, name) == format;
}

// Only these kinds of files count as carrying alpha: 8-bit RGBA PNG, 24+8-bit TGA, and RGB
// TIFF with one associated or unassociated alpha sample (or a mask kind with two).
bool FileHasAlpha(const ImageInfo& info) {
  switch (info.format) {
    case IMAGE_FORMAT_PNG:
      return info.sub_format == 6 && info.bits_per_channel == 8;
    case IMAGE_FORMAT_TGA:
      return info.bits_per_pixel == 32 && info.alpha_bits == 8;
    case IMAGE_FORMAT_TIFF:
      if (info.bits_per_channel != 8) return false;
      if (info.sub_format == 4) return info.extra_samples == 2;
      return info.sub_format == 2 && info.extra_samples >= 1 &&
             (info.alpha_bits == 1 || info.alpha_bits == 2);
    case IMAGE_FORMAT_EXR:
      return info.has_alpha != 0;
    default:
      return false;
  }
}

const char* StillTypeName(int format, bool animated) {
  switch (format) {
    case IMAGE_FORMAT_BMP: return "BMP still image";
    case IMAGE_FORMAT_GIF: return animated ? "GIF animated image" : "GIF still image";
    case IMAGE_FORMAT_TIFF: return "TIF still image";
    case IMAGE_FORMAT_JPEG: return "JPEG still image";
    case IMAGE_FORMAT_TGA: return "TGA still image";
    case IMAGE_FORMAT_PNG: return "PNG still image";
    case IMAGE_FORMAT_EXR: return "OpenEXR still image";
  }
  return "Still image";
}

bool RefusedJpeg(const MediaInput* input) {
  const char* ext = MediaExtension(input->file_name);
  if (ext && (MediaSameText(ext, ".mov") || MediaSameText(ext, ".qt"))) return true;
  return MediaFileSize(input->file_name) >= MaxJpegBytes;
}

bool SizeAcceptable(const ImageInfo& info) {
  if (info.width <= 0 || info.height <= 0) return false;
  return static_cast<uint32_t>(info.width) <= MaxStillSide &&
         static_cast<uint32_t>(info.height) <= MaxStillSide;
}

uint32_t StillDepth(const ImageInfo& info, bool alpha) {
  if (info.format == IMAGE_FORMAT_EXR) return 128;
  if (alpha) return 32;
  return info.bits_per_pixel <= 8 ? 8 : 24;
}

void SetAnimation(MediaInput* input, ImageFile* file, const ImageInfo& info) {
  input->source_frames = static_cast<uint32_t>(info.frame_count);
  int delay = ImageFileFrameDelay(file, 0);
  if (delay <= 0) delay = 10;  // no delay stated: 10 frames a second, as viewers show it
  input->file_rate_num = 100;
  input->file_rate_den = static_cast<uint32_t>(delay);
}

bool ProbeStill(MediaInput* input, int format) {
  if (format == IMAGE_FORMAT_JPEG && RefusedJpeg(input)) return false;
  if (!HeadFormatIs(input->file_name, format)) return false;
  ImageError error{};
  ImageFile* file = ImageFileOpen(input->file_name, &error);
  if (!file) {
    MediaNoteProbeFailure(error.text);
    return false;
  }
  const ImageInfo info = *ImageFileInfo(file);
  const bool tiffCompressionKnown = format != IMAGE_FORMAT_TIFF || info.compression - 2 <= 13;
  StillState* state = static_cast<StillState*>(calloc(1, sizeof(StillState)));
  if (info.format != format || !SizeAcceptable(info) || !tiffCompressionKnown || !state) {
    ImageFileClose(file);
    free(state);
    return false;
  }
  state->file = file;
  state->floats = format == IMAGE_FORMAT_EXR;
  const bool alpha = FileHasAlpha(info);
  state->keepAlpha = alpha && input->want_alpha;
  input->reader_state = state;
  const bool animated = format == IMAGE_FORMAT_GIF && info.frame_count > 1;
  input->type = static_cast<uint32_t>(format);
  snprintf(input->type_name, sizeof input->type_name, "%s", StillTypeName(format, animated));
  input->source_width = static_cast<uint32_t>(info.width);
  input->source_height = static_cast<uint32_t>(info.height);
  input->has_alpha = alpha;
  input->source_frames = 1;
  input->file_rate_num = 15;
  input->file_rate_den = 1;
  if (animated) SetAnimation(input, file, info);
  // An animation cut off inside a frame keeps its whole frames (a recording that was stopped).
  if (info.cut_short) MediaWarnShortFrame(input, "its last frame is cut short and is left out.");
  input->input_depth = StillDepth(info, alpha);
  input->decode_depth = input->input_depth;
  if (state->floats) {
    input->float_source = 1;
    input->float_frames = 1;
    input->peak_value = 10000;
  }
  return true;
}

// The guarded part: the decode itself.
bool ReadStill(MediaInput* input) {
  StillState* state = StateOf(input);
  const uint32_t bytesPerPixel = state->floats ? 16 : 4;
  const size_t pitch = static_cast<size_t>(input->source_width) * bytesPerPixel;
  const size_t need = pitch * input->source_height;
  if (!MediaEnsureBuffer(&state->pixels, &state->pixelBytes, need)) {
    MediaSay(input->progress, MediaLevelError, "Out of memory");
    return false;
  }
  input->frame_base = state->pixels;
  input->frame_pitch = static_cast<ptrdiff_t>(pitch);
  input->frame_depth = state->floats ? 128 : 32;
  input->frame_width = input->source_width;
  input->frame_height = input->source_height;
  input->frame_bytes = static_cast<uint32_t>(input->total_bytes / (input->total_frames ? input->total_frames : 1));
  ImagePixels dest = {state->pixels, static_cast<ptrdiff_t>(pitch),
                      static_cast<int>(input->source_width), static_cast<int>(input->source_height),
                      state->floats ? IMAGE_PIXELS_FLOAT : IMAGE_PIXELS_ARGB32};
  const int frame = static_cast<int>(state->nextFrame);
  if (input->source_frames > 1) ++state->nextFrame;
  ImageError error{};
  if (!ImageFileReadFrame(state->file, frame, &dest, &error)) {
    MediaNoteReadProblem(input, "%s", error.text[0] ? error.text : "The picture could not be decoded.");
    return false;
  }
  if (!state->floats && !state->keepAlpha) {
    uint32_t* p = reinterpret_cast<uint32_t*>(state->pixels);
    for (size_t i = 0, n = need / 4; i < n; ++i) p[i] &= 0x00FFFFFFu;
  }
  return true;
}

bool SeekStill(MediaInput* input, uint32_t index) {
  StateOf(input)->nextFrame = index;
  return true;
}

bool RewindStill(MediaInput* input) { return SeekStill(input, 0); }

void CloseStill(MediaInput* input) {
  StillState* state = StateOf(input);
  if (!state) return;
  ImageFileClose(state->file);
  free(state->pixels);
  free(state);
  input->reader_state = nullptr;
}

template <int Format>
bool ProbeFormat(MediaInput* input) {
  return ProbeStill(input, Format);
}

constexpr MediaReaderOps StillOps(const char* name, uint32_t region, bool (*probe)(MediaInput*)) {
  return MediaReaderOps{name, region, probe, ReadStill, SeekStill, RewindStill, CloseStill};
}

}  // namespace

const MediaReaderOps MediaBmpReader = StillOps("BMP", MediaGuardStill, ProbeFormat<IMAGE_FORMAT_BMP>);
const MediaReaderOps MediaGifReader = StillOps("GIF", MediaGuardStill, ProbeFormat<IMAGE_FORMAT_GIF>);
const MediaReaderOps MediaTiffReader = StillOps("TIFF", MediaGuardStill, ProbeFormat<IMAGE_FORMAT_TIFF>);
const MediaReaderOps MediaJpegReader = StillOps("JPEG", MediaGuardStill, ProbeFormat<IMAGE_FORMAT_JPEG>);
const MediaReaderOps MediaTgaReader = StillOps("TGA", MediaGuardStill, ProbeFormat<IMAGE_FORMAT_TGA>);
const MediaReaderOps MediaPngReader = StillOps("PNG", MediaGuardStill, ProbeFormat<IMAGE_FORMAT_PNG>);
const MediaReaderOps MediaExrReader = StillOps("OpenEXR", MediaGuardExr, ProbeFormat<IMAGE_FORMAT_EXR>);
