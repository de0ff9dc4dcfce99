// The frame pipeline: MediaGetFrame → MediaStepFrame (frame-rate adjustment) → one source read
// and the stages in their fixed order (scale, premultiply, de-interlace, gamma, black clamp,
// contrast, brightness, denoise, un-premultiply and fill) → the final copy with crop and pad.
//
// Stages that have nothing to do cost nothing: a frame can go from the reader's own buffer to
// the final copy. A stage that runs reads the frame at hand and writes the work buffer that is
// not in use, then the frame at hand is that buffer, 32-bit ARGB (or four floats).
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "media/media_guard.h"
#include "media/media_internal.h"
#include "media/media_list.h"
#include "process/filters.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Crash warnings, once a run for each region.

bool CrashWarned[MediaGuardRegionCount];

const char* CrashText(uint32_t region) {
  switch (region) {
    case MediaGuardRla:
      return "Crashed while reading this RLA file (possibly corrupted)!!\n\n"
             "The ORN Video Tools will attempt to work around the crash.";
    case MediaGuardVelmoSkip:
    case MediaGuardVelmo:
      return "Crashed while reading this Velmo file (possibly corrupted)!!\n\n"
             "The ORN Video Tools will attempt to work around the crash.";
    case MediaGuardExr:
      return "Crashed while reading this EXR file (possibly corrupted)!!\n\n"
             "The ORN Video Tools will attempt to work around the crash.";
    case MediaGuardServer:
      return "The 32-bit server crashed while reading this %s file!!\n\n"
             "The ORN Video Tools will attempt to work around the crash.";
    case MediaGuardProRes:
      return "Crashed while reading this ProRes file (possibly corrupted)!!\n\n"
             "The ORN Video Tools will attempt to work around the crash.";
  }
  return "Crashed while reading this file (possibly corrupted)!!\n\n"
         "The ORN Video Tools will attempt to work around the crash.";
}

// ---------------------------------------------------------------------------------------------
// Guarded reader calls.

struct GuardedRead {
  MediaInput* input;
  uint32_t index;
  bool result;
};

void CallRead(void* context) {
  GuardedRead* call = static_cast<GuardedRead*>(context);
  call->result = call->input->reader->read(call->input);
}

void CallSeek(void* context) {
  GuardedRead* call = static_cast<GuardedRead*>(context);
  call->result = call->input->reader->seek(call->input, call->index);
}

uint32_t BytesPerPixel(uint32_t depth) { return depth >= 8 ? depth / 8 : 1; }

// A frame that could not be read: the input fails, and the reason goes out once, naming the
// file. A reader that said nothing about it gets the frame's number as its reason.
void FailRead(MediaInput* input, uint32_t frame) {
  if (input->read_failed) return;
  input->read_failed = 1;
  if (!input->read_problem[0])
    snprintf(input->read_problem, sizeof input->read_problem,
             "Frame %lu could not be read completely.", static_cast<unsigned long>(frame) + 1);
  MediaSay(input->progress, MediaLevelError, "Error reading: %s\n\n%s", input->file_name,
           input->read_problem);
}

// One guarded call of the reader. A fault is survived (the crash warning, and the frame that
// stands); a read that fails without one is an input error, except at the end of a pipe.
bool GuardedReaderCall(MediaInput* input, GuardedRead* call, void (*run)(void*), uint32_t region,
                       uint32_t frame) {
  input->read_problem[0] = 0;
  if (!MediaGuardRun(run, call)) {
    MediaReportCrash(input, region);
    input->reuse_output = 1;
    return true;
  }
  if (call->result || input->source_at_end) return true;
  FailRead(input, frame);
  return false;
}

bool SkipToStart(MediaInput* input) {
  input->seek_done = 1;
  if (input->skip_frames == 0) return true;
  const MediaReaderOps* reader = input->reader;
  if (reader->seek) {
    GuardedRead call = {input, input->skip_frames, false};
    const uint32_t region =
        reader->guard_region == MediaGuardVelmo ? MediaGuardVelmoSkip : reader->guard_region;
    const bool ok = GuardedReaderCall(input, &call, CallSeek, region, input->skip_frames - 1);
    input->reuse_output = 0;  // a fault while skipping loses no frame
    return ok;
  }
  for (uint32_t i = 0; i < input->skip_frames; ++i) {
    MediaSay(input->progress, i == 0 ? MediaLevelStep : MediaLevelStatus, "Skipping frame %li...",
             static_cast<long>(i + 1));
    GuardedRead call = {input, 0, false};
    if (!GuardedReaderCall(input, &call, CallRead, reader->guard_region, i)) return false;
    input->reuse_output = 0;
  }
  input->palette_changed = 1;
  return true;
}

// One source frame from the reader. A fault keeps the previous output frame; a frame that
// cannot be read completely fails the input.
bool ReadSource(MediaInput* input) {
  if (!input->reader || !input->reader->read) {
    input->reuse_output = 1;
    return true;
  }
  if (!input->seek_done && !SkipToStart(input)) return false;
  input->frame_planes = MediaPlanes{};  // a reader with planes describes them again
  GuardedRead call = {input, 0, false};
  if (!GuardedReaderCall(input, &call, CallRead, input->reader->guard_region,
                         input->skip_frames + input->frames_read))
    return false;
  // A reader asked for planes alone may have left the picture unmade.
  input->planes_alone = input->planes_alone && call.result && !input->frame_base &&
                        input->frame_planes.plane[0];
  // A read that faulted, or the end of a pipe, leaves the frame as it was; with none yet, black.
  if (!call.result || (!input->frame_base && !input->planes_alone)) {
    input->reuse_output = 1;
    input->planes_alone = 0;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Lists: each entry runs its own pipeline; the list takes its frame and places it.

bool OpenNextEntry(MediaInput* input) {
  MediaListItem item;
  if (!MediaListNext(input->list, &item, nullptr, nullptr)) return true;  // nothing left: frame stands
  const MediaOpenArgs args = MediaListEntryArgs(input, item.start, item.end);
  input->entry = MediaOpenWith(item.name, &args);
  input->entry_start = item.start;
  input->entry_end = item.end;
  // An entry that does not open is an input error of the list; its open has said why.
  if (!input->entry) input->read_failed = 1;
  return input->entry != nullptr;
}

// Works off the list's /S at its first read: whole entries are passed over, and what remains
// is reached inside the entry.
bool SkipInList(MediaInput* input) {
  uint32_t remaining = input->skip_frames;
  while (input->entry && remaining >= input->entry->output_frames) {
    remaining -= input->entry->output_frames;
    MediaClose(input->entry);
    input->entry = nullptr;
    if (!OpenNextEntry(input)) return false;
  }
  MediaInput* entry = input->entry;
  if (!entry || remaining == 0) return true;
  // The same entry opened again, starting where the skip ends.
  char name[MediaNameBytes];
  snprintf(name, sizeof name, "%s", entry->file_name);
  const int32_t start = static_cast<int32_t>(entry->skip_frames + 1 + remaining);
  MediaClose(entry);
  const MediaOpenArgs reopen = MediaListEntryArgs(input, start, input->entry_end);
  input->entry = MediaOpenWith(name, &reopen);
  if (!input->entry) input->read_failed = 1;
  return input->entry != nullptr;
}

uint32_t FloatToByte(float v) {
  if (!(v > 0.0f)) return 0;  // also NaN
  return v >= 1.0f ? 255u : uint32_t(v * 255.0f + 0.5f);
}

uint8_t* FreeWorkBuffer(MediaInput* input, uint32_t width, uint32_t height, bool floats);

// A list of 32-bit frames takes a float entry's frame as 32-bit ARGB, 0.0 to 1.0 giving 0 to
// 255, in the list's own work buffer.
bool TakeFloatFrame(MediaInput* list, const MediaInput* entry) {
  const uint32_t w = entry->frame_width, h = entry->frame_height;
  uint8_t* target = FreeWorkBuffer(list, w, h, false);
  if (!target) return false;
  for (uint32_t y = 0; y < h; ++y) {
    const float* src = reinterpret_cast<const float*>(entry->frame_base + ptrdiff_t(y) * entry->frame_pitch);
    uint32_t* dst = reinterpret_cast<uint32_t*>(target) + size_t(y) * w;
    for (uint32_t x = 0; x < w; ++x, src += 4)
      dst[x] = FloatToByte(src[3]) << 24 | FloatToByte(src[0]) << 16 | FloatToByte(src[1]) << 8 | FloatToByte(src[2]);
  }
  list->frame_base = target;
  list->frame_pitch = static_cast<ptrdiff_t>(w) * 4;
  list->frame_depth = 32;
  list->frame_width = w;
  list->frame_height = h;
  return true;
}

bool ReadListFrame(MediaInput* input, const MediaFrameArgs& args) {
  if (input->entry && input->entry->at_end) {
    MediaClose(input->entry);
    input->entry = nullptr;
  }
  if (!input->entry && !OpenNextEntry(input)) return false;
  if (!input->seek_done) {
    input->seek_done = 1;
    if (!SkipInList(input)) return false;
  }
  MediaInput* entry = input->entry;
  if (!entry) {
    input->reuse_output = 1;
    return true;
  }
  // Contrast is deliberately not applied to the frames of a list.
  if (!MediaStepFrame(entry, args.denoise, args.smooth, 0, args.brightness, args.gamma,
                      args.black_clamp)) {
    if (entry->read_failed) input->read_failed = 1;  // the entry has said why
    return false;
  }
  if (entry->reuse_output || !entry->frame_base) {
    entry->reuse_output = 0;
    if (!entry->frame_base) {
      input->reuse_output = 1;
      return true;
    }
  }
  input->frame_bytes = entry->frame_bytes;
  if (entry->frame_depth == 128 && !input->float_frames) return TakeFloatFrame(input, entry);
  input->frame_base = entry->frame_base;
  input->frame_pitch = entry->frame_pitch;
  input->frame_depth = entry->frame_depth;
  input->frame_width = entry->frame_width;
  input->frame_height = entry->frame_height;
  // A palette frame shows through the entry's palette. An entry reports a change only against
  // its own earlier palette (its first frame's palette may be known from the open already), so
  // the list compares with what it holds.
  if (entry->frame_depth <= 8 &&
      memcmp(input->source_palette, entry->source_palette, sizeof input->source_palette) != 0) {
    memcpy(input->source_palette, entry->source_palette, sizeof input->source_palette);
    input->palette_changed = 1;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Stages.

struct StageContext {
  MediaInput* input;
  PixelFetch fetch;
  PixelFetchFloat fetchFloat;
  bool floats;
};

void PaletteWords(MediaInput* input) {
  for (int i = 0; i < 256; ++i)
    input->source_palette_argb[i] = uint32_t(input->source_palette[i * 3]) << 16 |
                                    uint32_t(input->source_palette[i * 3 + 1]) << 8 |
                                    input->source_palette[i * 3 + 2];
}

// The fetch for the frame at hand; false when its depth cannot be read.
bool SelectFetch(StageContext* c, bool premultiply) {
  MediaInput* input = c->input;
  if (c->floats) return PixelFetchFloatSelect(&c->fetchFloat, input->frame_depth, premultiply);
  return PixelFetchSelect(&c->fetch, input->frame_depth, input->source_palette_argb, premultiply);
}

// The work buffer that the frame at hand does not use, large enough for `width` × `height`.
uint8_t* FreeWorkBuffer(MediaInput* input, uint32_t width, uint32_t height, bool floats) {
  const int slot = input->frame_base == input->work_buffer[0] ? 1 : 0;
  const size_t pixel = floats ? 16 : 4;
  const size_t need = size_t(width) * height * pixel + pixel;
  if (!MediaEnsureBuffer(&input->work_buffer[slot], &input->work_buffer_bytes[slot], need))
    return nullptr;
  return input->work_buffer[slot];
}

void TakeStageResult(StageContext* c, uint8_t* buffer, uint32_t width, uint32_t height) {
  MediaInput* input = c->input;
  input->frame_base = buffer;
  input->frame_width = width;
  input->frame_height = height;
  input->frame_depth = c->floats ? 128 : 32;
  input->frame_pitch = static_cast<ptrdiff_t>(width) * (c->floats ? 16 : 4);
  SelectFetch(c, false);
}

// What the filter stages are given.
struct StageParameters {
  double gamma;
  uint32_t blackClamp, contrast, brightness, denoise, deinterlace;
  uint32_t frameHeight;
  bool premultiplyAlone;  // premultiplying was asked and no scaler did it
  bool unpremultiply;
};

typedef void (*StageRun)(const StageFrames* frames, const StageParameters* p);

// Runs one colour or alpha stage on the whole frame at hand.
void RunStage(StageContext* c, StageRun run, const StageParameters* p) {
  MediaInput* input = c->input;
  const uint32_t w = input->frame_width, h = input->frame_height;
  uint8_t* target = FreeWorkBuffer(input, w, h, c->floats);
  if (!target) return;
  StageFrames frames = {input->frame_base, input->frame_pitch, &c->fetch, &c->fetchFloat,
                        target, static_cast<ptrdiff_t>(w) * (c->floats ? 16 : 4), w, h,
                        input->float_source != 0, nullptr};
  run(&frames, p);
  TakeStageResult(c, target, w, h);
}

bool RunScalers(StageContext* c, const MediaFrameArgs& args) {
  MediaInput* input = c->input;
  ScalerChainRequest request = {input->scale_kernel, input->frame_width, input->frame_height,
                                input->scaled_width, input->scaled_height, args.smooth,
                                input->deinterlace};
  ScalerChainPrepare(&input->scalers, &request);
  bool ran = false;
  for (Scaler* scaler : {input->scalers.First, input->scalers.Second}) {
    if (!scaler) continue;
    // The first stage that runs premultiplies through its fetch.
    if (!ran && input->premultiply) SelectFetch(c, true);
    uint8_t* target = FreeWorkBuffer(input, scaler->DstWidth, scaler->DstHeight, c->floats);
    if (!target) return ran;
    const ptrdiff_t pitch = static_cast<ptrdiff_t>(scaler->DstWidth) * (c->floats ? 16 : 4);
    if (c->floats)
      ScalerRunFloat(scaler, target, pitch, input->frame_base, input->frame_pitch, &c->fetchFloat, nullptr);
    else
      ScalerRun(scaler, target, pitch, input->frame_base, input->frame_pitch, &c->fetch, nullptr);
    TakeStageResult(c, target, scaler->DstWidth, scaler->DstHeight);
    ran = true;
  }
  return ran;
}

// The filter stages in their fixed order: when each runs, and its integer and float forms
// (null: the stage has no float form and does not run on floats).
struct FilterStage {
  bool (*wanted)(const StageParameters* p);
  StageRun integer;
  StageRun floating;
};

const FilterStage FilterStages[] = {
    {[](const StageParameters* p) { return p->premultiplyAlone; },
     [](const StageFrames* f, const StageParameters*) { StagePremultiply(f); },
     [](const StageFrames* f, const StageParameters*) { StagePremultiplyFloat(f); }},
    {[](const StageParameters* p) {
       return (p->deinterlace & DeinterlaceFieldMask) != 0 && p->frameHeight >= 2;
     },
     [](const StageFrames* f, const StageParameters* p) { StageDeinterlace(f, p->deinterlace); },
     nullptr},
    {[](const StageParameters* p) { return std::fabs(p->gamma - 1.0) > 0.0001; },
     [](const StageFrames* f, const StageParameters* p) { StageGamma(f, p->gamma); },
     [](const StageFrames* f, const StageParameters* p) { StageGammaFloat(f, p->gamma); }},
    {[](const StageParameters* p) { return p->blackClamp != 0; },
     [](const StageFrames* f, const StageParameters* p) { StageBlackClamp(f, p->blackClamp); },
     [](const StageFrames* f, const StageParameters* p) { StageBlackClampFloat(f, p->blackClamp); }},
    {[](const StageParameters* p) { return p->contrast != 0; },
     [](const StageFrames* f, const StageParameters* p) { StageContrast(f, p->contrast); },
     [](const StageFrames* f, const StageParameters* p) { StageContrastFloat(f, p->contrast); }},
    {[](const StageParameters* p) { return p->brightness != 100; },
     [](const StageFrames* f, const StageParameters* p) { StageBrightness(f, p->brightness); },
     [](const StageFrames* f, const StageParameters* p) { StageBrightnessFloat(f, p->brightness); }},
    {[](const StageParameters* p) { return p->denoise != 0; },
     [](const StageFrames* f, const StageParameters*) { StageDenoise(f); },
     [](const StageFrames* f, const StageParameters*) { StageDenoiseFloat(f); }},
    {[](const StageParameters* p) { return p->unpremultiply; },
     [](const StageFrames* f, const StageParameters*) { StageUnpremultiplyFill(f); },
     [](const StageFrames* f, const StageParameters*) { StageUnpremultiplyFillFloat(f); }},
};

void RunStages(MediaInput* input, const MediaFrameArgs& args) {
  StageContext c = {};
  c.input = input;
  c.floats = input->float_frames != 0;
  if (input->frame_depth <= 8) PaletteWords(input);
  if (!SelectFetch(&c, false)) return;
  const bool scaled = input->type != MediaTypeList && RunScalers(&c, args);
  input->frame_processed = scaled;
  StageParameters p = {args.gamma, args.black_clamp, args.contrast > 128 ? 128 : args.contrast,
                       args.brightness, args.denoise, input->deinterlace, input->frame_height,
                       input->premultiply && !scaled, input->unpremultiply != 0};
  for (const FilterStage& stage : FilterStages) {
    p.frameHeight = input->frame_height;
    const StageRun run = c.floats ? stage.floating : stage.integer;
    if (!run || !stage.wanted(&p)) continue;
    RunStage(&c, run, &p);
    input->frame_processed = 1;
  }
}

// Points frame_pixels at the crop position of the frame at hand.
void PointAtCrop(MediaInput* input) {
  if (!input->frame_base) return;
  input->frame_pixels = input->frame_base + input->crop_y * input->frame_pitch +
                        static_cast<ptrdiff_t>(input->crop_x) * BytesPerPixel(input->frame_depth);
}

// The source's frame as it stands is the output frame: same size, nothing cut off or padded.
bool WholeFrame(const MediaInput* input) {
  return input->output_width == input->source_width &&
         input->output_height == input->source_height && input->crop_x == 0 &&
         input->crop_y == 0 && input->visible_width == input->output_width &&
         input->visible_height == input->output_height && input->pad_left == 0 &&
         input->pad_top == 0;
}

// True when no stage would touch the next source frame, so that its planes, where the reader
// has them, can be delivered alone.
bool PlanesSuffice(const MediaInput* input, const MediaFrameArgs& args) {
  if (!input->planes_wanted || input->float_frames || input->type == MediaTypeList ||
      !WholeFrame(input))
    return false;
  if (input->scaled_width != input->source_width || input->scaled_height != input->source_height ||
      args.smooth != 0 || input->deinterlace != 0 || input->premultiply)
    return false;
  const StageParameters p = {args.gamma, args.black_clamp, args.contrast, args.brightness,
                             args.denoise, input->deinterlace, input->source_height, false,
                             input->unpremultiply != 0};
  for (const FilterStage& stage : FilterStages)
    if (stage.wanted(&p)) return false;
  return true;
}

bool ReadFrame(MediaInput* input, const MediaFrameArgs& args) {
  input->palette_changed = 0;
  input->planes_alone = PlanesSuffice(input, args);
  if (input->type == MediaTypeList) {
    input->frame_planes = MediaPlanes{};  // entries are placed in the list's picture
    if (!ReadListFrame(input, args)) return false;
    if (!input->reuse_output) MediaPlaceWindow(input, input->frame_width, input->frame_height);
  } else if (!ReadSource(input)) {
    return false;
  }
  ++input->frames_read;
  if (input->frames_read >= input->source_frames) input->source_at_end = 1;
  if (input->reuse_output) return true;
  if (input->planes_alone) {
    input->frame_processed = 0;
    return true;
  }
  if (input->type != MediaTypeList) RunStages(input, args);
  PointAtCrop(input);
  return true;
}

// ---------------------------------------------------------------------------------------------
// The final copy.

void WriteRowInteger(const MediaInput* input, const PixelFetch* fetch, const uint8_t* src,
                     uint32_t* dst, uint32_t count) {
  if (PixelFetchIsPlain32(fetch))
    memcpy(dst, src, size_t(count) * 4);
  else
    fetch->Row(fetch, src, 0, count, dst);
  if (!input->want_alpha)
    for (uint32_t i = 0; i < count; ++i) dst[i] &= 0x00FFFFFFu;
}

void WriteRowFloat(const MediaInput* input, const PixelFetchFloat* fetch, const uint8_t* src,
                   float* dst, uint32_t count) {
  if (PixelFetchFloatIsPlain128(fetch))
    memcpy(dst, src, size_t(count) * 16);
  else
    fetch->Row(fetch, src, 0, count, dst);
  if (!input->want_alpha)
    for (uint32_t i = 0; i < count; ++i) dst[i * 4 + 3] = 0.0f;
}

bool CopyOut(MediaInput* input) {
  const size_t bytes = size_t((input->output_height + 3) >> 2) * input->output_pitch * 4;
  if (!MediaEnsureBuffer(&input->output_buffer, &input->output_buffer_bytes, bytes)) return false;
  if (input->reuse_output) {
    input->reuse_output = 0;  // the previous output frame stands (black at the very first)
    return true;
  }
  if (input->planes_alone) return true;  // the caller takes the planes
  // The entries of a list may differ in size: what this one does not cover is black again.
  if (input->type == MediaTypeList) memset(input->output_buffer, 0, input->output_buffer_bytes);
  const bool floats = input->float_frames != 0;
  const size_t pixel = floats ? 16 : 4;
  uint8_t* dst = input->output_buffer + size_t(-input->pad_top) * input->output_pitch +
                 size_t(-input->pad_left) * pixel;
  const uint8_t* src = input->frame_pixels;
  if (!src || input->visible_width == 0) return true;
  PixelFetch fetch;
  PixelFetchFloat fetchFloat;
  if (input->frame_depth <= 8) PaletteWords(input);
  const bool ok = floats ? PixelFetchFloatSelect(&fetchFloat, input->frame_depth, false)
                         : PixelFetchSelect(&fetch, input->frame_depth, input->source_palette_argb, false);
  if (!ok) return true;
  for (uint32_t y = 0; y < input->visible_height; ++y) {
    if (floats)
      WriteRowFloat(input, &fetchFloat, src, reinterpret_cast<float*>(dst), input->visible_width);
    else
      WriteRowInteger(input, &fetch, src, reinterpret_cast<uint32_t*>(dst), input->visible_width);
    src += input->frame_pitch;
    dst += input->output_pitch;
  }
  return true;
}

}  // namespace

void MediaReportCrash(MediaInput* input, uint32_t region) {
  if (region >= MediaGuardRegionCount) region = MediaGuardStill;
  MediaSay(input->progress, MediaLevelStatus, "Crash while reading input file...");
  if (CrashWarned[region]) return;
  CrashWarned[region] = true;
  MediaSay(input->progress, MediaLevelWarning, CrashText(region), input->type_name);
}

void MediaNoteReadProblem(MediaInput* input, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsnprintf(input->read_problem, sizeof input->read_problem, format, args);
  va_end(args);
}

void MediaWarnShortFrame(MediaInput* input, const char* format, ...) {
  if (input->short_warned) return;
  input->short_warned = 1;
  char reason[512];
  va_list args;
  va_start(args, format);
  vsnprintf(reason, sizeof reason, format, args);
  va_end(args);
  MediaSay(input->progress, MediaLevelWarning, "%s ends early: %s", input->file_name, reason);
}

void MediaResetCrashWarnings() {
  for (bool& warned : CrashWarned) warned = false;
}

bool MediaStepFrame(MediaInput* input, uint32_t denoise, uint32_t smooth, uint32_t contrast,
                    uint32_t brightness, double gamma, uint32_t black_clamp) {
  if (!input || input->read_failed) return false;
  const MediaFrameArgs args = {denoise, smooth, contrast, brightness, gamma, black_clamp};
  bool ok = true;
  if (input->frames_read == 0) {
    ok = ReadFrame(input, args);
  } else {
    // A frame that is not due yet is not read: the previous one is delivered again.
    const uint64_t due = uint64_t(input->output_index) * input->input_rate_num * input->output_rate_den /
                         (uint64_t(input->input_rate_den) * input->output_rate_num);
    while (ok && !input->source_at_end && input->frames_read < input->source_frames &&
           input->frames_read <= due)
      ok = ReadFrame(input, args);
  }
  if (++input->output_index >= input->output_frames) input->at_end = 1;
  return ok;
}

bool MediaFramePlanes(const MediaInput* input, MediaPlanes* out) {
  if (!input || !input->frame_planes.plane[0] || input->frame_processed || input->float_frames)
    return false;
  if (!WholeFrame(input)) return false;
  *out = input->frame_planes;
  if (!input->want_alpha) out->plane[3] = nullptr;
  return true;
}

void MediaPreferPlanes(MediaInput* input, bool on) {
  if (input) input->planes_wanted = on ? 1 : 0;
}

bool MediaGetFrame(MediaInput* input, uint32_t denoise, uint32_t smooth, uint32_t contrast,
                   uint32_t brightness, double gamma, uint32_t black_clamp) {
  if (!input || input->read_failed) return false;
  if (input->progress.fn) {
    const uint64_t num = uint64_t(input->output_rate_num) * input->input_rate_den;
    const uint64_t den = uint64_t(input->input_rate_num) * input->output_rate_den;
    const uint64_t current = (uint64_t(input->frames_read) + input->skip_frames) * num / den +
                             input->server_skip + 1;
    const uint64_t last = (uint64_t(input->source_frames) + input->skip_frames) * num / den +
                          input->server_skip;
    if (MediaSay(input->progress, MediaLevelStatus, "%s frame %li of %li...", input->title,
                 static_cast<long>(current), static_cast<long>(last)))
      return false;
  }
  if (!MediaStepFrame(input, denoise, smooth, contrast, brightness, gamma, black_clamp)) return false;
  return CopyOut(input);
}
