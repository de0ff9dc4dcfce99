// MediaOpen: choosing the reader, then working out range, sizes, crop and rates; list files
// and series are enumerated once at open, without keeping their entries open.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/series.h"
#include "host/textformat.h"
#include "media/media_internal.h"
#include "media/media_list.h"

namespace {

constexpr uint32_t MaxListNesting = 8;
constexpr uint64_t MaxListFileBytes = 64u << 20;
constexpr uint32_t DefaultPaletteInterval = 0x10000;

// Lists open their entries with MediaOpen; this counts how deep that goes on this thread.
thread_local uint32_t OpenNesting = 0;

struct NestingScope {
  NestingScope() { ++OpenNesting; }
  ~NestingScope() { --OpenNesting; }
};

// "name|123": the number behind the bar is cut off; only digits may stand there.
void CutBarNumber(char* name) {
  char* bar = strrchr(name, '|');
  if (!bar || !bar[1]) return;
  for (const char* p = bar + 1; *p; ++p)
    if (*p < '0' || *p > '9') return;
  *bar = 0;
}

uint32_t KernelOf(uint32_t flags) {
  if (flags & MediaOpenBox) return ScaleKernelBox;
  if (flags & MediaOpenLinear) return ScaleKernelLinear;
  return ScaleKernelCubic;
}

uint32_t DeinterlaceOf(uint32_t flags) {
  uint32_t mode = 0;
  if (flags & MediaOpenDeinterlaceEven) mode = 1;
  else if (flags & MediaOpenDeinterlaceOdd) mode = 2;
  if (flags & MediaOpenDeinterlaceBlend) mode |= 8;
  return mode;
}

MediaInput* NewInput(const MediaOpenArgs& a) {
  MediaInput* input = static_cast<MediaInput*>(calloc(1, sizeof(MediaInput)));
  if (!input) return nullptr;
  input->progress = a.progress;
  input->open_flags = a.flags;
  input->want_alpha = (a.flags & MediaOpenAlpha) != 0;
  input->true_colour = (a.flags & MediaOpenPaletteMask) == 0;
  input->palette_mode = input->true_colour ? 0 : (a.flags & MediaOpenPaletteMask) - 1;
  input->premultiply = (a.flags & MediaOpenPremultiply) != 0;
  input->unpremultiply = (a.flags & MediaOpenUnpremultiply) != 0;
  input->scale_kernel = KernelOf(a.flags);
  input->deinterlace = DeinterlaceOf(a.flags);
  input->force_rate_num = a.force_num;
  input->force_rate_den = a.force_den;
  input->adjust_rate_num = a.adjust_num;
  input->adjust_rate_den = a.adjust_den;
  input->scale_request_width = a.scale_w;
  input->scale_request_height = a.scale_h;
  input->crop_x_request = a.crop_x;
  input->crop_y_request = a.crop_y;
  input->palette_interval =
      a.palette_interval == 0 || a.palette_interval > DefaultPaletteInterval ? DefaultPaletteInterval
                                                                             : a.palette_interval;
  input->palette_first = a.palette_first;
  input->palette_count = a.colours;
  input->rotation_count = a.rotation;
  input->system_colours_mode = a.system_colours;
  input->halftone_mode = a.halftone;
  snprintf(input->palette_file, sizeof input->palette_file, "%s", a.palette_file ? a.palette_file : "");
  snprintf(input->title, sizeof input->title, "%s", a.title && a.title[0] ? a.title : "Processing");
  input->list_depth = OpenNesting;
  return input;
}

// ---------------------------------------------------------------------------------------------
// After a probe: range, sizes, crop, rates.

void WorkOutRange(MediaInput* input, int32_t start, int32_t end) {
  const int64_t frames = input->source_frames ? input->source_frames : 1;
  int64_t s = start == 0 ? 1 : start;
  int64_t e = end == 0 ? 0xFFFFFF : end;
  if (s < 0) s += frames + 1;
  if (e < 0) e += frames + 1;
  if (s > frames) s = frames;
  if (s < 1) s = 1;
  input->total_frames = static_cast<uint32_t>(frames);
  input->skip_frames = static_cast<uint32_t>(s - 1);
  const int64_t last = e < frames ? e : frames;
  input->source_frames = static_cast<uint32_t>((last > s ? last : s) - (s - 1));
}

// One axis of a scale request against the source size; -1 is left to the caller.
int64_t ScaleAxis(int32_t request, uint32_t source) {
  if (request < -1000) return (int64_t(-request) - 1000) * source / 1000;
  if (request <= -2) return int64_t(source) * -int64_t(request);
  if (request == 0) return source;
  return request;
}

uint32_t HoldSide(int64_t v) {
  if (v < 1) return 1;
  return v > MediaMaxSide ? MediaMaxSide : static_cast<uint32_t>(v);
}

void WorkOutScale(MediaInput* input, int32_t scaleW, int32_t scaleH) {
  const uint32_t sw = input->source_width ? input->source_width : 1;
  const uint32_t sh = input->source_height ? input->source_height : 1;
  int64_t w, h;
  if (scaleW == -1 && scaleH == -1) {
    w = sw;
    h = sh;
  } else if (scaleW == -1) {
    h = ScaleAxis(scaleH, sh);
    w = h * sw / sh;
  } else if (scaleH == -1) {
    w = ScaleAxis(scaleW, sw);
    h = w * sh / sw;
  } else {
    w = ScaleAxis(scaleW, sw);
    h = ScaleAxis(scaleH, sh);
  }
  input->scaled_width = HoldSide(w);
  input->scaled_height = HoldSide(h);
}

void WorkOutCrop(MediaInput* input, int32_t cropW, int32_t cropH) {
  uint32_t w = cropW > 0 ? HoldSide(cropW) : input->scaled_width;
  uint32_t h = cropH > 0 ? HoldSide(cropH) : input->scaled_height;
  if (input->open_flags & MediaOpenMultiple32) {
    if (w < 32) w += 31;
    w &= ~31u;
    h &= ~31u;
    if (h == 0) h = 32;
  }
  input->output_width = w;
  input->output_height = h;
  MediaPlaceWindow(input, input->scaled_width, input->scaled_height);
}

bool RateUsable(int32_t num, int32_t den) { return num > 0 && den > 0; }

void WorkOutRates(MediaInput* input, const MediaOpenArgs& a) {
  if (input->file_rate_num == 0 || input->file_rate_den == 0) {
    input->file_rate_num = 15;
    input->file_rate_den = 1;
  }
  ReduceFraction(&input->file_rate_num, &input->file_rate_den);
  input->input_rate_num = input->file_rate_num;
  input->input_rate_den = input->file_rate_den;
  if (RateUsable(a.force_num, a.force_den)) {
    input->input_rate_num = static_cast<uint32_t>(a.force_num);
    input->input_rate_den = static_cast<uint32_t>(a.force_den);
  }
  ReduceFraction(&input->input_rate_num, &input->input_rate_den);
  input->output_rate_num = input->input_rate_num;
  input->output_rate_den = input->input_rate_den;
  if (RateUsable(a.adjust_num, a.adjust_den)) {
    // An adjusted rate that would leave no frame at all is dropped.
    const uint64_t frames = uint64_t(input->source_frames) * input->input_rate_den * uint32_t(a.adjust_num) /
                            (uint64_t(uint32_t(a.adjust_den)) * input->input_rate_num);
    if (frames != 0) {
      input->output_rate_num = static_cast<uint32_t>(a.adjust_num);
      input->output_rate_den = static_cast<uint32_t>(a.adjust_den);
      ReduceFraction(&input->output_rate_num, &input->output_rate_den);
    }
  }
  input->frame_period =
      -static_cast<int32_t>(uint64_t(input->output_rate_den) * 100000 / input->output_rate_num);
  const uint64_t frames = uint64_t(input->source_frames) * input->input_rate_den * input->output_rate_num /
                          (uint64_t(input->input_rate_num) * input->output_rate_den);
  input->output_frames = frames == 0 ? 1 : frames > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<uint32_t>(frames);
}

// A start beyond the input's frames is held to them; the user hears so once, at the open.
void SayStartHeld(const MediaInput* input, int32_t start) {
  const int64_t frames = input->total_frames;
  if (start > frames)
    MediaSay(input->progress, MediaLevelWarning,
             "/S%d: the input has only %lld frame%s, so it starts at its last frame.", start,
             (long long)frames, frames == 1 ? "" : "s");
  else if (start < -frames)
    MediaSay(input->progress, MediaLevelWarning,
             "/S%d: the input has only %lld frame%s, so it starts at its first frame.", start,
             (long long)frames, frames == 1 ? "" : "s");
}

// The longest a frame may last and the most frames a second that a file may state: a rate
// beyond these cannot be true, and frame times and sound blocks sized by it would be absurd.
constexpr uint64_t MaxFrameSeconds = 3600;
constexpr uint64_t MaxFramesPerSecond = 10000;

bool RateIsCredible(uint32_t num, uint32_t den) {
  if (!num || !den) return true;  // not stated: the defaults apply
  return uint64_t(num) * MaxFrameSeconds >= den && num / den <= MaxFramesPerSecond;
}

bool FinishOpen(MediaInput* input, const MediaOpenArgs& a) {
  if (!RateIsCredible(input->file_rate_num, input->file_rate_den)) {
    MediaSay(input->progress, MediaLevelError,
             "Error opening: %s\n\nThe frame rate that the file states (%u/%u) cannot be true.",
             input->file_name, input->file_rate_num, input->file_rate_den);
    return false;
  }
  if (!input->has_alpha) input->premultiply = input->unpremultiply = 0;
  if (input->total_bytes == 0 && input->type != MediaTypeList)
    input->total_bytes = MediaFileSize(input->file_name);
  WorkOutRange(input, a.start, a.end);
  SayStartHeld(input, a.start);
  WorkOutScale(input, a.scale_w, a.scale_h);
  WorkOutCrop(input, a.crop_w, a.crop_h);
  const bool scaling = input->scaled_width != input->source_width ||
                       input->scaled_height != input->source_height;
  if (scaling && input->input_depth < 32) input->input_depth = 32;
  WorkOutRates(input, a);
  const uint32_t bytesPerPixel = input->float_frames ? 16 : 4;
  input->output_pitch = ((input->output_width + 3) & ~3u) * bytesPerPixel;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Lists and series.

// Names whose files hold one picture each. (A GIF may be animated: it is opened like any other.)
bool IsStillName(const char* name) {
  static const char* const Stills[] = {".bmp", ".tga", ".tif", ".tiff", ".jpg", ".jpeg", ".png"};
  const char* extension = MediaExtension(name);
  if (!extension) return false;
  for (const char* still : Stills)
    if (MediaSameText(extension, still)) return true;
  return false;
}

struct ListTotals {
  bool first = true;
  uint64_t frames = 0, bytes = 0;
};

void MergeEntry(MediaInput* list, const MediaInput* entry, ListTotals* totals) {
  if (entry->input_depth > list->input_depth) list->input_depth = entry->input_depth;
  if (entry->scaled_width > list->source_width) list->source_width = entry->scaled_width;
  if (entry->scaled_height > list->source_height) list->source_height = entry->scaled_height;
  if (totals->first) {
    list->file_rate_num = entry->output_rate_num;
    list->file_rate_den = entry->output_rate_den;
  }
  list->has_sound |= entry->has_sound;
  list->has_alpha &= entry->has_alpha;
  list->float_source &= entry->float_source;
  list->float_frames &= entry->float_frames;
  if (entry->peak_value > list->peak_value) list->peak_value = entry->peak_value;
  totals->frames += entry->output_frames;
  totals->bytes += entry->total_bytes;
}

}  // namespace

MediaOpenArgs MediaListEntryArgs(const MediaInput* list, int32_t start, int32_t end) {
  MediaOpenArgs e{};
  e.flags = list->open_flags & ~MediaOpenAskSequence;
  e.force_num = list->force_rate_num;
  e.force_den = list->force_rate_den;
  e.scale_w = list->scale_request_width;
  e.scale_h = list->scale_request_height;
  e.start = start;
  e.end = end;
  e.palette_interval = DefaultPaletteInterval;
  e.colours = 256;
  e.halftone = 2;
  e.progress = list->progress;
  return e;
}

namespace {

// A series that came up short is said: as a warning when some of its files were there, as an
// error (the open fails) when none was.
bool ReportShortSeries(const MediaInput* input) {
  for (size_t i = 0; i < MediaListShortfallCount(input->list); ++i) {
    const MediaListShortfall* s = MediaListShortfallAt(input->list, i);
    if (s->found == 0) {
      MediaSay(input->progress, MediaLevelError, "No file of the series %s was found.", s->series);
      return false;
    }
    MediaSay(input->progress, MediaLevelWarning, "Only %u of the %u files of the series %s were found.",
             s->found, s->expected, s->series);
  }
  return true;
}

bool EnumerateList(MediaInput* input, const MediaOpenArgs& a) {
  input->type = MediaTypeList;
  snprintf(input->type_name, sizeof input->type_name, "List");
  input->has_alpha = input->float_source = input->float_frames = 1;
  ListTotals totals;
  MediaListItem item;
  while (MediaListNext(input->list, &item, nullptr, nullptr)) {
    if (MediaSay(input->progress, MediaLevelStatus, "Opening %s...", item.name)) return false;
    if (!totals.first && IsStillName(item.name)) {
      totals.frames += 1;
      totals.bytes += MediaFileSize(item.name);
      continue;
    }
    const MediaOpenArgs e = MediaListEntryArgs(input, item.start, item.end);
    MediaInput* entry = MediaOpenWith(item.name, &e);
    if (!entry) return false;
    MergeEntry(input, entry, &totals);
    totals.first = false;
    MediaClose(entry);
  }
  if (!ReportShortSeries(input)) return false;
  if (totals.first) {
    MediaSay(input->progress, MediaLevelError, "No files in the list file.");
    return false;
  }
  MediaListRewind(input->list);
  input->source_frames = totals.frames > 0xFFFFFF ? 0xFFFFFF : static_cast<uint32_t>(totals.frames);
  input->total_bytes = totals.bytes;
  // The forced rate, scaling, de-interlacing and alpha work happen inside each entry, not again
  // here. The adjusted rate works on the list as a whole: every entry then delivers its own
  // frames, so that stills counted without being opened keep their count of one.
  MediaOpenArgs rest = a;
  rest.force_num = rest.force_den = 0;
  rest.scale_w = rest.scale_h = 0;
  input->deinterlace = input->premultiply = input->unpremultiply = 0;
  return FinishOpen(input, rest);
}

bool ReadListFile(const char* name, MediaList** list) {
  FILE* file = fopen(name, "rb");
  if (!file) return false;
  const uint64_t size = MediaFileSize(name);
  char* text = static_cast<char*>(malloc(size < MaxListFileBytes ? size + 1 : MaxListFileBytes));
  if (!text) {
    fclose(file);
    return false;
  }
  const size_t got = fread(text, 1, size < MaxListFileBytes ? size : MaxListFileBytes, file);
  fclose(file);
  char folder[MediaNameBytes];
  snprintf(folder, sizeof folder, "%s", name);
  char* slash = strrchr(folder, '/');
  if (slash) slash[1] = 0;
  else folder[0] = 0;
  *list = MediaListParse(text, got, folder);
  free(text);
  return *list != nullptr;
}

bool IsSeriesName(const char* name) {
  if (strchr(name, '?')) return true;
  FileSeries series;
  return strchr(name, '%') && SeriesParse(name, &series);
}

bool OpenNamed(MediaInput* input, char* name, const MediaOpenArgs& a) {
  if (IsFolder(name)) {
    // A folder stands for the numbered series in it.
    char series[MediaNameBytes];
    if (!FindFolderSequence(series, sizeof series, name)) {
      MediaSay(input->progress, MediaLevelError, "No numbered series of files in the folder %s", name);
      return false;
    }
    snprintf(name, MediaNameBytes, "%s", series);
  }
  if (IsSeriesName(name)) {
    input->list = MediaListFromLine(name);
    snprintf(input->file_name, sizeof input->file_name, "%s", name);
    return input->list && EnumerateList(input, a);
  }
  const char* extension = MediaExtension(name);
  if (extension && MediaSameText(extension, ".lst")) {
    snprintf(input->file_name, sizeof input->file_name, "%s", name);
    if (!ReadListFile(name, &input->list)) {
      MediaSay(input->progress, MediaLevelError, "Error opening: %s", name);
      return false;
    }
    return EnumerateList(input, a);
  }
  if (extension && !MediaFileExists(name)) {
    MediaSay(input->progress, MediaLevelError, "File not found: %s", name);
    return false;
  }
  return MediaProbe(input, name) && FinishOpen(input, a);
}

}  // namespace

MediaInput* MediaOpenWith(const char* name, const MediaOpenArgs* args) {
  static const MediaOpenArgs NoArgs{};
  const MediaOpenArgs& a = args ? *args : NoArgs;
  if (!name) return nullptr;
  MediaInput* input = NewInput(a);
  if (!input) return nullptr;
  NestingScope nesting;
  if (OpenNesting > MaxListNesting) {
    MediaSay(a.progress, MediaLevelError, "Error opening: %s\n\nLists are nested too deeply.", name);
    MediaClose(input);
    return nullptr;
  }
  if (!input->true_colour) {
    MediaSay(a.progress, MediaLevelError,
             "8-bit palette output is not available yet.\n\nAsk for 32-bit frames with /Z0.");
    MediaClose(input);
    return nullptr;
  }
  char buffer[MediaNameBytes];
  snprintf(buffer, sizeof buffer, "%s", name);
  CutBarNumber(buffer);
  if ((a.flags & MediaOpenAskSequence) && !IsSeriesName(buffer))
    MediaAskSequence(buffer, sizeof buffer, a.progress);
  if (!OpenNamed(input, buffer, a)) {
    MediaClose(input);
    return nullptr;
  }
  return input;
}

MediaInput* MediaOpen(const char* name, uint32_t flags, int32_t force_num, int32_t force_den,
                      int32_t adjust_num, int32_t adjust_den, int32_t scale_w, int32_t scale_h,
                      int32_t crop_x, int32_t crop_y, int32_t crop_w, int32_t crop_h,
                      int32_t start, int32_t end, uint32_t palette_interval,
                      uint32_t palette_first, uint32_t colours, uint32_t rotation,
                      uint32_t system_colours, uint32_t halftone, const char* palette_file,
                      const char* title, ProgressSink progress) {
  const MediaOpenArgs a = {flags,        force_num,      force_den, adjust_num, adjust_den,
                           scale_w,      scale_h,        crop_x,    crop_y,     crop_w,
                           crop_h,       start,          end,       palette_interval,
                           palette_first, colours,       rotation,  system_colours,
                           halftone,     palette_file,   title,     progress};
  return MediaOpenWith(name, &a);
}

bool MediaAskSequence(char* name, size_t nameSize, ProgressSink progress) {
  if (!progress.fn || !name || !name[0]) return false;
  char series[MediaNameBytes];
  int32_t first = 0, last = 0;
  if (!FindSequence(series, sizeof series, &first, &last, name)) return false;
  char text[2 * MediaNameBytes + 256];
  SequencePromptText(text, sizeof text, name, first, last);
  if (ProgressSend(progress, text, MediaLevelQuestion) == 0) return false;
  if (strlen(series) >= nameSize) return false;
  memcpy(name, series, strlen(series) + 1);
  return true;
}

void MediaClose(MediaInput* input) {
  if (!input) return;
  MediaCloseReader(input);
  MediaClose(input->entry);
  MediaListFree(input->list);
  ScalerChainFree(&input->scalers);
  free(input->work_buffer[0]);
  free(input->work_buffer[1]);
  free(input->output_buffer);
  memset(input, 0, sizeof *input);
  free(input);
}

bool MediaRewind(MediaInput* input) {
  if (!input) return false;
  input->frames_read = input->output_index = 0;
  input->at_end = input->source_at_end = input->seek_done = 0;
  input->reuse_output = 0;
  memset(input->palette, 0, sizeof input->palette);
  memset(input->source_palette, 0, sizeof input->source_palette);
  if (input->output_buffer) memset(input->output_buffer, 0, input->output_buffer_bytes);
  MediaClose(input->entry);
  input->entry = nullptr;
  if (input->list) MediaListRewind(input->list);
  if (input->reader && input->reader->rewind) return input->reader->rewind(input);
  return true;
}
