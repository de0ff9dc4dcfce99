// The compressor's built-in frame source: the media input layer. Frames are delivered in
// order; a request for an earlier frame rewinds the input, a later one reads past the frames
// between.
#include "compress/tool/velmoc_source.h"

#include <cstdio>
#include <cstring>
#include <new>

namespace {

const VelmocSourceOps* g_installed = nullptr;  // the tests' source: a setting of the process

struct Source {
  MediaInput* input = nullptr;
  uint32_t next = 0;   // the output frame the next MediaGetFrame delivers
  bool have = false;   // output_buffer holds frame next - 1
};

void Fail(char* error, size_t size, const char* text) {
  if (error && size) std::snprintf(error, size, "%s", text);
}

VelmocSource* OpenArgs(const char* name, const MediaOpenArgs& args, char* error, size_t size) {
  Source* s = new (std::nothrow) Source();
  if (!s) return Fail(error, size, "Out of memory!"), nullptr;
  s->input = MediaOpenWith(name, &args);
  if (!s->input || s->input->output_frames == 0) {
    // The media layer has told its reason through the progress function, when there is one.
    Fail(error, size, "The media layer couldn't open it.");
    MediaClose(s->input);
    delete s;
    return nullptr;
  }
  return reinterpret_cast<VelmocSource*>(s);
}

VelmocSource* Open(const char* name, uint32_t first, uint32_t last, char* error, size_t size) {
  MediaOpenArgs args{};
  args.start = first >= 0x7fffffff ? 0x7fffffff : int32_t(first + 1);
  args.end = last >= 0x7fffffff ? 0 : int32_t(last + 1);
  return OpenArgs(name, args, error, size);
}

VelmocSource* OpenWith(const char* name, const MediaSwitches* switches, ProgressSink progress,
                       char* error, size_t size) {
  MediaOpenArgs args = MediaArgsFromSwitches(switches);
  args.progress = progress;
  args.title = "Reading";
  return OpenArgs(name, args, error, size);
}

void Info(const VelmocSource* source, VelmocSourceInfo* out) {
  const MediaInput* in = reinterpret_cast<const Source*>(source)->input;
  *out = VelmocSourceInfo{};
  out->Width = in->output_width;
  out->Height = in->output_height;
  out->RateNumerator = in->output_rate_num;
  out->RateDenominator = in->output_rate_den;
  out->Frames = in->output_frames;
  out->SkippedFrames = in->skip_frames;
  out->InputBytes = in->total_bytes;
  out->InputFrames = in->total_frames;
  out->HasAlpha = in->has_alpha != 0;
  out->HasSound = in->has_sound != 0;
  out->IsHdr = in->float_source != 0;
  out->FloatFrames = in->float_frames != 0;
  out->PeakNits = in->float_source ? in->peak_value : 0;
  out->IsImage = in->type < 32 && in->total_frames <= 1;
  std::snprintf(out->TypeName, sizeof out->TypeName, "%.63s", in->type_name);
  out->InputRateNumerator = in->input_rate_num;
  out->InputRateDenominator = in->input_rate_den;
  std::snprintf(out->FileName, sizeof out->FileName, "%s", in->file_name);
}

bool Read(Source* s, const MediaFrameArgs& f) {
  if (!MediaGetFrame(s->input, f.denoise, f.smooth, f.contrast, f.brightness, f.gamma,
                     f.black_clamp) ||
      !s->input->output_buffer)
    return false;
  s->next++;
  s->have = true;
  return true;
}

bool FilteredFrame(VelmocSource* source, uint32_t index, const MediaFrameArgs* filters,
                   const uint32_t** pixels, int32_t* pitch) {
  Source* s = reinterpret_cast<Source*>(source);
  const MediaFrameArgs& f = filters ? *filters : MediaNoFilters;
  if (index >= s->input->output_frames) return false;
  const bool current = s->have && index + 1 == s->next;
  if (!current) {
    if (index < s->next) {
      if (!MediaRewind(s->input)) return false;
      s->next = 0;
      s->have = false;
    }
    while (s->next <= index)
      if (!Read(s, f)) return false;
  }
  *pixels = reinterpret_cast<const uint32_t*>(s->input->output_buffer);
  *pitch = int32_t(s->input->output_pitch);
  return true;
}

bool Frame(VelmocSource* source, uint32_t index, const uint32_t** pixels, int32_t* pitch) {
  return FilteredFrame(source, index, nullptr, pixels, pitch);
}

// A caller that takes a frame's planes takes the planes of every frame that has them: from
// then on such frames are read as planes alone, and their pixels are not made (the pixels
// that `frame` points at are then those of an earlier frame).
bool Planes(VelmocSource* source, MediaPlanes* out) {
  Source* s = reinterpret_cast<Source*>(source);
  if (!s->have || !MediaFramePlanes(s->input, out)) return false;
  MediaPreferPlanes(s->input, true);
  return true;
}

void Close(VelmocSource* source) {
  Source* s = reinterpret_cast<Source*>(source);
  if (!s) return;
  MediaClose(s->input);
  delete s;
}

const VelmocSourceOps Builtin{Open, Info, Frame, Close, OpenWith, FilteredFrame, Planes};

}  // namespace

const VelmocSourceOps* VelmocBuiltinSource() { return &Builtin; }
const VelmocSourceOps* VelmocCurrentSource() { return g_installed ? g_installed : &Builtin; }
void VelmocSetSource(const VelmocSourceOps* ops) { g_installed = ops; }
