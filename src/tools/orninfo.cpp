// ORNInfo: the media layer's view of a file, the reader library's Velmo details, the sound
// layer's view of its sound, and the file system's facts, as one text.
#include "tools/orninfo.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "host/outfile.h"
#include "host/quietframe.h"
#include "host/switches.h"
#include "host/textformat.h"
#include "host/toolframe.h"
#include "media/media.h"
#include "media/sound.h"
#include "media/readers/stream_readers.h"
#include "format/container.h"
#include "velmo.h"

namespace {

constexpr const char* Line = "\r\n    ";

void Add(std::string* out, const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  *out += text;
}

std::string Thousands(uint64_t value) {
  char text[40];
  FormatThousands(text, sizeof text, int64_t(value));
  return text;
}

const char* YesNo(bool value) { return value ? "Yes." : "No."; }

// Lines 1 and 2: what the media layer says about the pictures.
void AddVideo(std::string* out, const MediaInput* in, uint64_t fileBytes) {
  Add(out, "%sVideo format: %s", Line, in->type_name);
  const uint32_t num = in->output_rate_num ? in->output_rate_num : 1;
  const uint32_t den = in->output_rate_den ? in->output_rate_den : 1;
  const uint64_t frames = in->output_frames;
  const uint64_t hundredthsFps = uint64_t(num) * 100 / den;
  const uint64_t hundredthsMs = uint64_t(den) * 100000 / num;
  const uint64_t totalMs = frames * den * 1000 / num;
  const uint64_t bytes = in->total_bytes ? in->total_bytes : fileBytes;
  const uint64_t rate = frames ? bytes * num / (frames * den) : 0;
  const uint64_t average = frames ? bytes / frames : 0;
  char depth[16];
  if (in->float_source)
    std::snprintf(depth, sizeof depth, "HDR");
  else
    std::snprintf(depth, sizeof depth, "%u", in->input_depth >= 24 ? 32u : in->input_depth);
  Add(out,
      "%sWidth: %u%sHeight: %u%sFrames: %s%sColor depth: %s%sAlpha plane: %s"
      "%sFrames per second: %llu.%02llu%sMilliseconds per frame: %llu.%02llu"
      "%sTotal time: %d minutes %d seconds%sTotal size: %s%sAverage data rate: %s"
      "%sAverage frame size: %s",
      Line, in->output_width, Line, in->output_height, Line, Thousands(frames).c_str(), Line,
      depth, Line, YesNo(in->has_alpha), Line, (unsigned long long)(hundredthsFps / 100),
      (unsigned long long)(hundredthsFps % 100), Line, (unsigned long long)(hundredthsMs / 100),
      (unsigned long long)(hundredthsMs % 100), Line, int(totalMs / 60000),
      int(totalMs / 1000 % 60), Line, Thousands(bytes).c_str(), Line, Thousands(rate).c_str(),
      Line, Thousands(average).c_str());
}

// The header and extras block as the file holds them.
bool ReadVelmoHeader(const char* name, VelmoHeader* header, VelmoExtras* extras,
                     std::vector<uint8_t>* block) {
  FILE* file = std::fopen(name, "rb");
  if (!file) return false;
  uint8_t bytes[VelmoHeaderSize];
  bool ok = std::fread(bytes, 1, sizeof bytes, file) == sizeof bytes &&
            VelmoParseHeader(bytes, sizeof bytes, header) && MagicIsValid(header->Magic);
  if (ok) {
    block->resize(VelmoExtrasSize(header->Magic, header->Flags));
    ok = std::fread(block->data(), 1, block->size(), file) == block->size() &&
         VelmoParseExtras(block->data(), block->size(), header->Magic, header->Flags, extras) ==
             nullptr;
  }
  std::fclose(file);
  return ok;
}

// Lines 3 and 5 to 9 and 11: what the reader library and the container say.
void AddVelmo(std::string* out, const char* name) {
  HVELMO velmo = VelmoOpen(name, 0);
  if (velmo) {
    Add(out, "%sLargest frame size: %u%sHighest one second data rate: %llu"
             "%sHighest one second data rate start frame: %u",
        Line, velmo->LargestFrameSize, Line, (unsigned long long)velmo->HighestSecondBytes, Line,
        velmo->HighestSecondFrame + 1);
  }
  VelmoHeader header{};
  VelmoExtras extras{};
  std::vector<uint8_t> block;
  if (ReadVelmoHeader(name, &header, &extras, &block)) {
    char magic[5];
    std::memcpy(magic, &header.Magic, 4);
    magic[4] = 0;
    Add(out, "%sFile type: %s", Line, magic);
    Add(out, "%s%s", Line, VelmoColourSpaceText(header.Flags));
    if (header.Flags & VelmoFlagHdr) Add(out, "%sMax HDR nits: %d", Line, int(extras.MaxNits));
    if (extras.Size && extras.CompressorStamp) {
      char stamp[200];
      VelmoStampText(extras.CompressorStamp, stamp, sizeof stamp);
      Add(out, "%s%s", Line, stamp);
    }
    if (extras.TextSize && extras.TextOffset + extras.TextSize <= block.size()) {
      const char* text = reinterpret_cast<const char*>(block.data() + extras.TextOffset);
      Add(out, "%sExtra text: %s", Line,
          std::string(text, strnlen(text, extras.TextSize)).c_str());
    }
    uint32_t slices = 1;
    if (MagicIsSecondGeneration(header.Magic)) {
      static const uint32_t counts[4] = {2, 3, 4, 8};
      slices = MagicHasSliceMode(header.Magic) ? counts[header.Flags & VelmoFlagSliceMode] : 2;
    }
    Add(out, "%sVideo slices (max simultaneous CPUs): %u", Line, slices);
  }
  if (velmo) {
    for (uint32_t t = 0; t < velmo->TrackCount; ++t) {
      const uint32_t format = VelmoGetTrackFormat(velmo, t);
      Add(out, "%sTrack ID %u: %u Hz, %u bit, %s sound data%s.", Line, VelmoGetTrackId(velmo, t),
          format & VelmoTrackRateMask, (format & VelmoTrack16Bit) ? 16u : 8u,
          (format & VelmoTrackStereo) ? "Stereo" : "Mono",
          (format & VelmoTrackOlder) ? "(Old format)" : "");
    }
    VelmoClose(velmo);
  }
}

// Line 10: the frame sizes of the inputs whose frames are chunks of known size (AVI, Flic,
// raw frames, y4m), found by reading every frame through its stream reader.
void AddStreamFrameSizes(std::string* out, const char* name, uint32_t type) {
  if (type != MediaTypeAvi && type != MediaTypeFlic && type != MediaTypeRaw && type != MediaTypeY4m)
    return;
  const StreamReaderOps* ops = StreamReaderFind(int(type));
  if (!ops || std::strcmp(name, "-") == 0) return;
  StreamReader* reader = StreamReaderOpen(ops, name, nullptr);
  if (!reader) return;
  const StreamInfo& info = *StreamReaderInfo(reader);
  std::vector<uint32_t> sizes;
  sizes.reserve(info.frame_count);
  StreamFrame frame;
  StreamError error;
  for (uint32_t i = 0; i < info.frame_count; ++i) {
    if (!StreamReaderRead(reader, i, &frame, &error)) break;
    sizes.push_back(frame.bytes);
  }
  const uint32_t ring =
      info.rate_den ? uint32_t((uint64_t(info.rate_num) + info.rate_den / 2) / info.rate_den) : 1;
  StreamReaderClose(reader);
  if (sizes.empty()) return;
  const OrnFrameSizeSummary summary = OrnSummariseFrameSizes(sizes.data(), uint32_t(sizes.size()), ring);
  Add(out, "%sLargest frame size: %s%sHighest one second data rate: %s"
           "%sHighest one second data rate start frame: %s",
      Line, Thousands(summary.largest).c_str(), Line, Thousands(summary.highest_second).c_str(),
      Line, Thousands(summary.highest_second_frame + 1).c_str());
}

// Line 12: the sound of the file as the sound input layer reads it, in the source's format.
bool AddSound(std::string* out, const char* name) {
  SoundInput* sound = SoundOpen(name, 0, 0, 0, 0, 0, 0, 0, 0, {});
  if (!sound) return false;
  const bool isFloat = sound->source_float != 0;
  Add(out, "%sSound info (%s file):", Line, sound->type_name ? sound->type_name : "sound");
  Add(out, "\r\n      %u Hz, %u bit%s, %d channel sound data.", sound->source_rate,
      sound->source_bits, isFloat ? "(float)" : "", int(sound->source_channels));
  SoundClose(sound);
  return true;
}

// Line 13: size or directory, time of the last change, attributes.
void AddFileSystem(std::string* out, const char* name) {
  struct stat st;
  if (stat(name, &st) != 0) return;
  if (S_ISDIR(st.st_mode))
    Add(out, "%sThis is a directory.", Line);
  else
    Add(out, "%sSize: %llu", Line, (unsigned long long)st.st_size);
  struct tm when;
  localtime_r(&st.st_mtime, &when);
  const int hour = when.tm_hour % 12 == 0 ? 12 : when.tm_hour % 12;
  Add(out, "%sLast modified on %i/%i/%02i at %i:%02i %s", Line, when.tm_mon + 1, when.tm_mday,
      when.tm_year % 100, hour, when.tm_min, when.tm_hour < 12 ? "am" : "pm");
  const char* base = std::strrchr(name, '/');
  base = base ? base + 1 : name;
  const bool readOnly = !(st.st_mode & S_IWUSR);
  const bool hidden = base[0] == '.' && std::strcmp(base, ".") != 0 && std::strcmp(base, "..") != 0;
  const bool system = !S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode);
  Add(out, "%sAttributes: archive-%s  read only-%s  hidden-%s  system-%s", Line, "no",
      readOnly ? "yes" : "no", hidden ? "yes" : "no", system ? "yes" : "no");
}

bool ConsoleInUse() { return ToolFrameFrontEnd() == ToolConsoleFrontEnd(); }

}  // namespace

OrnFrameSizeSummary OrnSummariseFrameSizes(const uint32_t* sizes, uint32_t count, uint32_t ring) {
  OrnFrameSizeSummary summary{};
  if (!count) return summary;
  if (!ring) ring = 1;
  uint64_t total = 0;
  for (uint32_t i = 0; i < count; ++i) {
    total += sizes[i];
    if (sizes[i] > summary.largest) summary.largest = sizes[i];
  }
  // A window of `ring` frames slides over the sizes; the first largest one wins.
  if (count >= ring) {
    uint64_t window = 0;
    for (uint32_t i = 0; i < ring; ++i) window += sizes[i];
    uint64_t best = window;
    uint32_t bestAt = 0;
    for (uint32_t start = 1; start + ring <= count; ++start) {
      window += uint64_t(sizes[start + ring - 1]) - sizes[start - 1];
      if (window > best) {
        best = window;
        bestAt = start;
      }
    }
    if (best) {
      summary.highest_second = best;
      summary.highest_second_frame = bestAt;
      return summary;
    }
  }
  // Shorter than a second (or nothing but empty frames): the average scaled to one second.
  summary.highest_second = total * ring / count;
  return summary;
}

namespace {

// The media layer's reason for refusing the file, kept for the tool's error.
int KeepError(void* context, const char* text, int level) {
  if (level == MediaLevelError && text && text[0])
    *static_cast<std::string*>(context) = text[0] == '@' ? text + 1 : text;
  return 0;
}

// The media layer's reason when it tells more than that the file did not open.
std::string UsefulReason(const std::string& mediaError, const char* name) {
  if (mediaError.empty() || mediaError == std::string("Error opening: ") + name)
    return "no reader knows this kind of file";
  return mediaError;
}

// Writes the report without its carriage returns and without the first line break, as plain
// lines on standard output.
void PrintPlain(const std::string& text) {
  std::string plain;
  for (char c : text)
    if (c != '\r') plain += c;
  if (!plain.empty()) {
    std::fputs(plain.c_str() + 1, stdout);
    std::fputs("\n", stdout);
  }
  std::fflush(stdout);
}

}  // namespace

bool OrnFileInfoRead(const char* name, std::string* out, std::string* reason) {
  out->clear();
  reason->clear();
  struct stat st;
  if (stat(name, &st) != 0) {
    *reason = std::strerror(errno);
    return false;
  }
  bool known = !S_ISREG(st.st_mode);  // a directory (or device) is told by its file system lines
  if (S_ISREG(st.st_mode)) {
    std::string mediaError;
    MediaOpenArgs args{};
    args.flags = MediaOpenAlpha | MediaOpenNoAlphaWarning;
    args.title = "Reading";
    args.progress = {KeepError, &mediaError};
    MediaInput* input = MediaOpenWith(name, &args);
    if (input) {
      known = true;
      const uint32_t type = input->type;
      if (type != MediaTypeSoundOnly) AddVideo(out, input, uint64_t(st.st_size));
      MediaClose(input);
      if (type == MediaTypeVelmo)
        AddVelmo(out, name);
      else
        AddStreamFrameSizes(out, name, type);
    }
    if (AddSound(out, name)) known = true;
    if (st.st_size == 0)
      *reason = "the file is empty";
    else if (!known)
      *reason = UsefulReason(mediaError, name);
  }
  AddFileSystem(out, name);
  return known;
}

std::string OrnFileInfoText(const char* name) {
  std::string out, reason;
  OrnFileInfoRead(name, &out, &reason);
  return out;
}

// On the console front end the report goes to standard output once, under its caption on
// standard error; a box would print it a second time. Other front ends show the box.
int OrnFileInfoMain(void* instance, void*, char* commandTail, int) {
  const intptr_t parent = SwitchNumber(commandTail, '#', 0);
  const bool closeFlag = SwitchFlag(commandTail, '#');
  QuietFrameInit(instance, parent, closeFlag ? 1 : 0);
  char name[PathBytes];
  TakeName(name, sizeof name, commandTail);
  if (!name[0]) {
    QuietFrameBox("Syntax:  ORNInfo <File>", "ORN File Info...", ToolIconStop);
    return 8002;
  }
  if (!PathFits(name)) {  // the whole name, never a cut-short one that may name another file
    char text[400];
    PathTooLongText(text, sizeof text, "input", name);
    QuietFrameBox(text, "ORN File Info...", ToolIconStop);
    return 8002;
  }
  std::string text, reason;
  const bool read = OrnFileInfoRead(name, &text, &reason);
  char caption[PathBytes + 20];
  std::snprintf(caption, sizeof caption, "Information on %s", name);
  if (!text.empty()) {
    if (ConsoleInUse()) {
      std::fprintf(stderr, "%s\n", caption);
      std::fflush(stderr);
      PrintPlain(text);
    } else {
      QuietFrameBox(text.c_str(), caption, ToolIconInformation);
    }
  }
  if (read) return 0;
  std::string error = std::string("Couldn't read '") + name + "': " + reason;
  if (error.back() != '.') error += '.';
  QuietFrameBox(error.c_str(), "ORN File Info...", ToolIconStop);
  return 8002;
}
