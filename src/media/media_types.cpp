// The type table: which reader opens a file. Rows chosen by the extension are tried first, in
// table order; when an extension matched and no row succeeded the open fails. A name whose
// extension matches no row goes through the content probes, each of which may first add its
// own extension to a name that has none ("clip" finds "clip.wav").
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "media/media_internal.h"
#include "media/readers/stream_readers.h"

namespace {

// Why the last probe that recognised the file failed; empty when none did. One per thread, as
// the entries of a list may be opened by a read-ahead job.
thread_local char ProbeFailure[256];

// ---------------------------------------------------------------------------------------------
// Readers that this build lacks: the 32-bit server, the ProRes library, self-playing exes.
// Their rows stay in the table so that the order of the others is kept; their probes fail.

bool ProbeAbsent(MediaInput*) { return false; }

constexpr MediaReaderOps AbsentOps(const char* name, uint32_t region) {
  return MediaReaderOps{name, region, ProbeAbsent, nullptr, nullptr, nullptr, nullptr};
}

const MediaReaderOps QuickTimeServer = AbsentOps("QuickTime (from 32-bit)", MediaGuardServer);
const MediaReaderOps AviServer = AbsentOps("Windows AVI (from 32-bit)", MediaGuardServer);
const MediaReaderOps DirectShowServer = AbsentOps("DirectShow (from 32-bit)", MediaGuardServer);
const MediaReaderOps TarvinServer = AbsentOps("Tarvin (from 32-bit)", MediaGuardServer);
const MediaReaderOps ProResLibrary = AbsentOps("ProRes", MediaGuardProRes);
const MediaReaderOps SelfPlayingExe = AbsentOps("Self-playing exe", MediaGuardVelmo);

// ---------------------------------------------------------------------------------------------
// The stream readers of media/readers/.

struct StreamState {
  StreamReader* reader;
  uint32_t nextFrame;
};

StreamState* StreamOf(MediaInput* input) { return static_cast<StreamState*>(input->reader_state); }

bool IsStdin(const char* name) { return name[0] == '-' && name[1] == 0; }

bool StreamHeadMatches(const StreamReaderOps* ops, const char* name) {
  if (IsStdin(name)) return ops->format == STREAM_FORMAT_Y4M;
  FILE* file = fopen(name, "rb");
  if (!file) return false;
  uint8_t head[STREAM_PROBE_BYTES];
  const size_t n = fread(head, 1, sizeof head, file);
  fclose(file);
  return n > 0 && ops->probe(head, n, name) != 0;
}

void TakeStreamInfo(MediaInput* input, const StreamInfo& info, int format) {
  input->type = static_cast<uint32_t>(format);
  snprintf(input->type_name, sizeof input->type_name, "%s", info.type_name);
  input->source_width = info.width;
  input->source_height = info.height;
  input->file_rate_num = info.rate_num;
  input->file_rate_den = info.rate_den;
  // A pipe does not tell its length: it runs until its end is met.
  input->source_frames = info.frame_count ? info.frame_count : 0xFFFFFF;
  input->input_depth = info.depth;
  input->has_alpha = info.has_alpha;
  input->has_sound = info.has_sound;
  input->total_bytes = info.total_bytes;
  memcpy(input->source_palette, info.palette, sizeof input->source_palette);
}

bool ProbeStream(MediaInput* input, const StreamReaderOps* ops) {
  if (!StreamHeadMatches(ops, input->file_name)) return false;
  StreamError error{};
  StreamReader* reader = StreamReaderOpen(ops, input->file_name, &error);
  if (!reader) {
    MediaNoteProbeFailure(error.text);
    return false;
  }
  const StreamInfo& info = *StreamReaderInfo(reader);
  StreamState* state = static_cast<StreamState*>(calloc(1, sizeof(StreamState)));
  if (!state || info.width == 0 || info.height == 0 || info.width > MediaMaxSide ||
      info.height > MediaMaxSide || info.rate_num == 0 || info.rate_den == 0) {
    MediaNoteProbeFailure(state ? "The picture size or frame rate is out of range." : "Out of memory");
    StreamReaderClose(reader);
    free(state);
    return false;
  }
  state->reader = reader;
  input->reader_state = state;
  TakeStreamInfo(input, info, ops->format);
  if (info.cut_tail)
    MediaWarnShortFrame(input, "its last frame is cut short and is left out.");
  return true;
}

void TakePalette(MediaInput* input, const uint8_t* palette) {
  if (memcmp(input->source_palette, palette, sizeof input->source_palette) != 0) {
    memcpy(input->source_palette, palette, sizeof input->source_palette);
    input->palette_changed = 1;
  }
}

bool ReadStream(MediaInput* input) {
  StreamState* state = StreamOf(input);
  StreamFrame frame;
  StreamError error{};
  StreamReaderPlanesOnly(state->reader, input->planes_alone);
  if (!StreamReaderRead(state->reader, state->nextFrame, &frame, &error)) {
    MediaNoteReadProblem(input, "%s", error.text);
    const StreamInfo* info = StreamReaderInfo(state->reader);
    if (error.code == STREAM_ERROR_END && !info->seekable) {
      if (info->cut_tail)
        MediaWarnShortFrame(input, "its last frame is cut short and is left out.");
      // A pipe meets its end only by a read that finds nothing: the output ends with this
      // frame, which repeats the last one.
      input->source_at_end = 1;
      input->output_frames = input->output_index + 1;
    }
    return false;
  }
  ++state->nextFrame;
  // A pipe whose end lies behind this frame: the output ends with it. A frame cut short after
  // it has been left out.
  const StreamInfo* info = StreamReaderInfo(state->reader);
  if (!info->seekable && info->frame_count && state->nextFrame >= info->frame_count) {
    input->output_frames = input->output_index + 1;
    if (info->cut_tail) MediaWarnShortFrame(input, "its last frame is cut short and is left out.");
  }
  if (frame.cut_short)
    MediaWarnShortFrame(input, "its last frame is cut short and is shown as far as it goes.");
  input->frame_base = const_cast<uint8_t*>(frame.pixels);
  input->frame_pitch = frame.pitch;
  input->frame_depth = frame.depth;
  input->frame_width = input->source_width;
  input->frame_height = input->source_height;
  input->frame_bytes = frame.bytes;
  if (frame.planes.plane[0]) {
    MediaPlanes& p = input->frame_planes;
    for (int i = 0; i < 4; ++i) {
      p.plane[i] = frame.planes.plane[i];
      p.pitch[i] = frame.planes.pitch[i];
    }
    p.width = input->source_width;
    p.height = input->source_height;
    p.chroma_shift = frame.planes.chroma_shift;
    p.full_range = frame.planes.full_range;
  }
  if (frame.depth <= 8 && frame.palette) TakePalette(input, frame.palette);
  return true;
}

bool SeekStream(MediaInput* input, uint32_t index) {
  StreamOf(input)->nextFrame = index;
  return true;
}

bool RewindStream(MediaInput* input) { return SeekStream(input, 0); }

void CloseStream(MediaInput* input) {
  StreamState* state = StreamOf(input);
  if (!state) return;
  StreamReaderClose(state->reader);
  free(state);
  input->reader_state = nullptr;
}

template <const StreamReaderOps* Ops>
bool ProbeStreamRow(MediaInput* input) {
  return ProbeStream(input, Ops);
}

constexpr MediaReaderOps StreamOps(const char* name, uint32_t region, bool (*probe)(MediaInput*)) {
  return MediaReaderOps{name, region, probe, ReadStream, SeekStream, RewindStream, CloseStream};
}

const MediaReaderOps FlicReader = StreamOps("Flic", MediaGuardStill, ProbeStreamRow<&kStreamReaderFlic>);
const MediaReaderOps AviReader = StreamOps("AVI", MediaGuardStill, ProbeStreamRow<&kStreamReaderAvi>);
const MediaReaderOps Y4mReader = StreamOps("YUV4MPEG2", MediaGuardStill, ProbeStreamRow<&kStreamReaderY4m>);
const MediaReaderOps RlaReader = StreamOps("RLA", MediaGuardRla, ProbeStreamRow<&kStreamReaderRla>);
const MediaReaderOps RawReader = StreamOps("raw frames", MediaGuardStill, ProbeStreamRow<&kStreamReaderRaw>);

// ---------------------------------------------------------------------------------------------
// The tables.

struct TypeRow {
  const char* extension;  // the extension that selects the row, or the one a content probe adds
  const MediaReaderOps* ops;
};

// This program's own AVI reader comes before the server rows of ".avi", which fail here, and
// ".y4m" is a row of its own; otherwise the order is the established one.
const TypeRow ExtensionRows[] = {
    {".png", &MediaPngReader},      {".jpg", &MediaJpegReader},     {".jpeg", &MediaJpegReader},
    {".tif", &MediaTiffReader},     {".tiff", &MediaTiffReader},    {".tga", &MediaTgaReader},
    {".gif", &MediaGifReader},      {".qt", &QuickTimeServer},      {".mov", &ProResLibrary},
    {".mov", &QuickTimeServer},     {".mp4", &QuickTimeServer},     {".trv", &TarvinServer},
    {".vlm", &MediaVelmoReader},    {".vm2", &MediaVelmoReader},    {".exr", &MediaExrReader},
    {".avi", &AviReader},           {".avi", &DirectShowServer},    {".avi", &AviServer},
    {".avi", &QuickTimeServer},     {".wmv", &DirectShowServer},    {".flc", &FlicReader},
    {".fli", &FlicReader},          {".exe", &SelfPlayingExe},
    // ".src", not ".scr": kept as it has always been, so saver files come through the content
    // probes' failure path.
    {".src", &SelfPlayingExe},      {".wav", &MediaWaveReader},     {".rla", &RlaReader},
    {".raw", &RawReader},           {".y4m", &Y4mReader},
};

const TypeRow ContentRows[] = {
    {".wav", &MediaWaveReader},   {".flc", &FlicReader},      {".fli", &FlicReader},
    {".trv", &TarvinServer},      {".bmp", &MediaBmpReader},  {".tga", &MediaTgaReader},
    {".gif", &MediaGifReader},    {".mov", &ProResLibrary},   {".avi", &DirectShowServer},
    {".avi", &AviServer},         {".avi", &AviReader},       {".tif", &MediaTiffReader},
    {".mov", &QuickTimeServer},   {".jpg", &MediaJpegReader}, {".y4m", &Y4mReader},
    {".wav", &MediaSoundOnlyReader},
};

constexpr size_t MaxAddedRows = 8;
TypeRow AddedExtensionRows[MaxAddedRows];
size_t AddedExtensionCount = 0;
TypeRow AddedContentRows[MaxAddedRows];
size_t AddedContentCount = 0;

// Copies the name into file_name; a name without extension gets the row's and must exist.
bool ProbeName(MediaInput* input, const char* name, const char* extension) {
  snprintf(input->file_name, sizeof input->file_name, "%s", name);
  if (MediaExtension(name) || IsStdin(name)) return true;
  const size_t length = strlen(input->file_name);
  snprintf(input->file_name + length, sizeof input->file_name - length, "%s", extension);
  return MediaFileExists(input->file_name);
}

bool TryRow(MediaInput* input, const char* name, const TypeRow& row) {
  if (!ProbeName(input, name, row.extension)) return false;
  input->reader = row.ops;
  if (row.ops->probe(input)) return true;
  MediaCloseReader(input);
  return false;
}

bool NamesQuickTime(const char* extension) {
  return extension && (MediaSameText(extension, ".mov") || MediaSameText(extension, ".qt") ||
                       MediaSameText(extension, ".mp4"));
}

bool ReportFailure(MediaInput* input, const char* name, const char* extension) {
  if (NamesQuickTime(extension))
    MediaSay(input->progress, MediaLevelError,
             "You specified an MP4 or QuickTime video file and we couldn't open it.\n\n"
             "Install Quicktime from Apple's website to convert these files.");
  else if (ProbeFailure[0])
    MediaSay(input->progress, MediaLevelError, "Error opening: %s\n\n%s", name, ProbeFailure);
  else
    MediaSay(input->progress, MediaLevelError, "Error opening: %s", name);
  return false;
}

bool TryExtensionRows(MediaInput* input, const char* name, const char* extension,
                      const TypeRow* rows, size_t count, bool* matched) {
  for (size_t i = 0; i < count; ++i) {
    if (!MediaSameText(extension, rows[i].extension)) continue;
    *matched = true;
    if (TryRow(input, name, rows[i])) return true;
  }
  return false;
}

bool TryContentRows(MediaInput* input, const char* name, const TypeRow* rows, size_t count) {
  for (size_t i = 0; i < count; ++i)
    if (TryRow(input, name, rows[i])) return true;
  return false;
}

}  // namespace

void MediaNoteProbeFailure(const char* reason) {
  snprintf(ProbeFailure, sizeof ProbeFailure, "%s", reason ? reason : "");
}

bool MediaProbe(MediaInput* input, const char* name) {
  ProbeFailure[0] = 0;
  if (input->open_flags & MediaOpenServerMask) return ReportFailure(input, name, nullptr);
  if (IsStdin(name)) {
    if (TryRow(input, name, TypeRow{".y4m", &Y4mReader})) return true;
    return ReportFailure(input, name, nullptr);
  }
  const char* extension = MediaExtension(name);
  if (extension) {
    bool matched = false;
    if (TryExtensionRows(input, name, extension, ExtensionRows, std::size(ExtensionRows), &matched) ||
        TryExtensionRows(input, name, extension, AddedExtensionRows, AddedExtensionCount, &matched))
      return true;
    if (matched) return ReportFailure(input, name, extension);
  }
  if (TryContentRows(input, name, ContentRows, std::size(ContentRows)) ||
      TryContentRows(input, name, AddedContentRows, AddedContentCount))
    return true;
  return ReportFailure(input, name, extension);
}

bool MediaAddReaderRow(const char* extension, const MediaReaderOps* ops) {
  if (!ops || !ops->probe) return false;
  TypeRow* rows = extension ? AddedExtensionRows : AddedContentRows;
  size_t* count = extension ? &AddedExtensionCount : &AddedContentCount;
  if (*count >= MaxAddedRows) return false;
  rows[(*count)++] = TypeRow{extension ? extension : "", ops};
  return true;
}

void MediaClearAddedRows() {
  AddedExtensionCount = 0;
  AddedContentCount = 0;
}
