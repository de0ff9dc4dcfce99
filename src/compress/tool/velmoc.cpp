// Velmoc: switches, hint file, the frame loop, the progress tick and the cancel dialog.
#include "compress/tool/velmoc.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "compress/rate_plan.h"
#include "compress/velmo_sound_track.h"
#include "compress/frame_loop.h"
#include "compress/velmo_writer.h"
#include "compress/tool/velmoc_source.h"
#include "host/bfile.h"
#include "host/platform.h"
#include "host/process_start.h"
#include "host/switches.h"
#include "media/sound.h"

namespace {

const char SyntaxText[] =
    "Syntax:  Velmo <Input Graphics File> <Velmo File>[.VLM/.VM2] [/Switches]\n\n"
    "The input may be a video file (AVI, Velmo, Flic, YUV4MPEG2, raw), an image file, a list "
    "file, or an image series such as \"Exam???.BMP*1-149\".";
const char SwitchListText[] =
    "Switches:\n"
    "  /D#   overall data rate: 1000 and up bytes per second, 1 to 200 percent of the input\n"
    "  /M#.# peak rate: 1.0 to 10.0 times the data rate, above 10 bytes per second (3.0)\n"
    "  /J#   key frame promotion percentage (kept for old scripts)\n"
    "  /K#   key frame every # frames          /N#   key frame rate, bytes per second\n"
    "  /P#   frames of preview (8, 2 to 64)    /S# /E#  first and last input frame\n"
    "  /F#.# force the output frame rate       /A#.# adjust the input rate to this rate\n"
    "  /T#   sound track ID   /L#  sound level (0 lossless, 4 default, 99 lossy, -1 none)\n"
    "  /R# /B# /C#  force sound rate, bits, channels        /I  grayscale\n"
    "  /Z#   graphics options (1000-3000 alpha plane, 10000 no alpha warning)\n"
    "  /~# /:# /;# /{# /}# /[# /]#.# /(# /)#  denoise, smooth, de-interlace, contrast,\n"
    "        black clamp, brightness, gamma, scale width and height\n"
    "  /X# /Y# /W# /H#  crop        /U#  largest number of CPUs\n"
    "  /V#   version: 100 Velmo 1, 101 later Velmo 1, 200 Velmo 2, 270 Velmo 2 HDR\n"
    "  /$#   input nits (10000)     /O  overwrite without asking\n"
    "  /*text  text stored after the header (/*- the whole command line)\n"
    "  /@file  hint file: StartFrame  EndFrame  DataRate  PeakRate  KeyFrame(0/1)?  Contrast  "
    "Smooth  Black-clamp  Bright  Gamma  Denoise";

const char CaptionSuffix[] = "Velmo Video Compressor";
const char TextDiskFull[] = "Error writing to disk - probably out of disk space.";

// ---- The run record, shared with the timer and the dialog -----------------------------------

// One compression: the settings, the input and output, and what the timer tick and the
// dialog's buttons read while the frame loop runs. The main routine makes it and hands it to
// the dialog, which keeps it until the run is over; the media layer's and the writer's
// messages carry it as their context.
struct Run {
  VelmocSettings s;
  const VelmocSourceOps* ops = nullptr;
  VelmocSource* source = nullptr;
  VelmocSourceInfo info{};
  VelmocHints hints;
  VelmoWriter* writer = nullptr;
  VelmoFrameLoop* loop = nullptr;
  // The sound track, when the input has sound and /L asks for it. The writer frees the
  // track's encoder at its close; whatever is left is freed by CloseSound, after the writer is
  // gone.
  SoundInput* sound = nullptr;
  VelmoWriterTrack track{};
  uint32_t trackCount = 0;

  volatile int finished = 0;
  volatile uint32_t cancel = 0;
  volatile uint32_t closed = 0;  // the output is in its place: a preview shows it
  // The preview (View): one at a time, on a thread of its own that waits for the player; the
  // end of the run waits while the counter is set.
  volatile uint32_t previewBusy = 0;
  PlatformThread previewThread{};
  bool previewStarted = false;  // the thread has been started and not yet joined (main thread)
  std::string previewFile;
  bool previewLow = false;
  VelmoWriter* volatile liveWriter = nullptr;  // the writer while frames go in (tick, View)
  volatile uint32_t tickBusy = 0;
  uint32_t runFrames = 0, skipped = 0, startMs = 0, lastElapsedMs = 0;
  uint32_t shownFrames = ~0u;
  uint64_t shownSize = ~0ull, inputBytesPerFrame = 0;
  uint64_t inputSoundBytes = 0;  // the sound's 16-bit bytes, counted in with the input's size
  uint32_t progressShift = 0;
  std::string lastStatus;
  char mediaError[1024] = "";  // the media layer's error, kept for the open failure's box

  void CloseSound() {
    VelmoWriterTrackEnd(&track);
    if (sound) SoundClose(sound);
    sound = nullptr;
  }
  ~Run() {
    CloseSound();
    if (previewStarted) ThreadJoin(&previewThread);
  }
};

Run* RunOf(ToolDialog* dialog) { return static_cast<Run*>(ToolFrameState(dialog)); }

void SetStatus(Run& r, const char* text) {
  if (r.lastStatus == text) return;
  r.lastStatus = text;
  ToolFrameSetText(ToolIdStatus, text);
}

// ---- The preview -----------------------------------------------------------------------------

// The player of this program on the file, waited for.
int StartPlayer(const char* file, bool lowPriority) {
  const std::string program = std::string(ToolProgramDirectory()) + ToolProgramName;
  const char* arguments[] = {ToolProgramName, "velmoplay", file, "/!", nullptr};
  const int64_t id = ProcessStart(program.c_str(), arguments, lowPriority);
  return id > 0 ? ProcessWait(id) : -1;
}

VelmocPreviewStarter g_previewStarter = StartPlayer;

uint32_t PreviewEntry(void* argument) {
  Run* r = static_cast<Run*>(argument);
  g_previewStarter(r->previewFile.c_str(), r->previewLow);
  AtomicStore(&r->previewBusy, 0);
  return 0;
}

// The View button: while frames go in, the temporary file is checkpointed and flushed and
// played at low priority; once the output is in its place, that is played. A press while a
// preview is open, or between the frames' end and the output's close, starts nothing.
void View(Run* r) {
  uint32_t idle = 0;
  if (!AtomicCompareExchange(&r->previewBusy, &idle, 1)) return;
  VelmoWriter* w = r->liveWriter;
  r->previewFile.clear();
  if (w && !__atomic_load_n(&r->finished, __ATOMIC_SEQ_CST)) {
    VelmoWriterFlush(w);
    r->previewFile = w->Out.Temporary;
    r->previewLow = true;
  } else if (AtomicRead(&r->closed)) {
    r->previewFile = r->s.Output;
    r->previewLow = false;
  }
  if (r->previewStarted) ThreadJoin(&r->previewThread);  // the last preview has ended
  r->previewStarted = !r->previewFile.empty() &&
                      ThreadStart(&r->previewThread, PreviewEntry, r, 0, 0, 0, "Velmo preview");
  if (!r->previewStarted) AtomicStore(&r->previewBusy, 0);
}

// After the frames: while a preview is open, say what closing it will do, and wait for it.
void WaitForPreview(Run& r) {
  if (!AtomicRead(&r.previewBusy)) return;
  SetStatus(r, r.cancel == VelmoCancelDiscard
                       ? "Close the preview window to cancel the compression..."
                       : "Compression is done, close the preview window to save the Velmo file.");
  while (AtomicRead(&r.previewBusy)) ThreadSleep(10);
}

void FormatTime(uint32_t ms, char* out, size_t size) {
  const uint32_t s = ms / 1000;
  std::snprintf(out, size, "%u:%02u:%02u", s / 3600, s / 60 % 60, s % 60);
}

void ProgressTick(ToolDialog* dialog) {
  Run* r = RunOf(dialog);
  if (!r) return;
  AtomicAdd(&r->tickBusy, 1);
  VelmoWriter* w = r->liveWriter;
  if (w && !r->finished) {
    char text[256], t[64];
    const uint32_t now = TimerMs(), elapsed = now - r->startMs;
    if (now - r->lastElapsedMs >= 1500) {
      r->lastElapsedMs = now;
      FormatTime(elapsed, t, sizeof t);
      ToolFrameSetText(VelmocIdElapsed, t);
    }
    const uint32_t done = w->FramesWritten, runFrames = r->runFrames;
    if (done != r->shownFrames && done) {
      r->shownFrames = done;
      const uint32_t percent = uint32_t(uint64_t(done) * 100 / std::max(runFrames, 1u));
      std::snprintf(text, sizeof text, "Processing %u of %u (%u%%)...", done + r->skipped,
                    runFrames + r->skipped, percent);
      SetStatus(*r, text);
      std::snprintf(text, sizeof text, "%u%% - %s", percent, CaptionSuffix);
      ToolFrameSetCaption(text);
      ToolFrameSetProgress(ToolIdProgress, int(done >> r->progressShift));
      FormatTime(uint32_t(uint64_t(elapsed) * (runFrames - std::min(done, runFrames)) / done), t,
                 sizeof t);
      ToolFrameSetText(VelmocIdRemaining, t);
      if (w->TrackCount) {
        const VelmoWriterTrack& k = w->Tracks[0];
        const uint64_t ratio10 = k.OutputBytes ? uint64_t(k.InputBytes) * 10 / k.OutputBytes : 0;
        std::snprintf(text, sizeof text, "%u hz, %u-bit, %s (%u.%01u to 1)", k.SampleRate,
                      k.Bits, k.Channels == 2 ? "stereo" : "mono", uint32_t(ratio10 / 10),
                      uint32_t(ratio10 % 10));
        ToolFrameSetText(VelmocIdSound, text);
      }
    }
    const uint64_t size = w->FileSize;
    if (size != r->shownSize && done) {
      r->shownSize = size;
      const uint64_t projected = size * runFrames / done;
      const uint64_t input = r->inputBytesPerFrame * runFrames + r->inputSoundBytes;
      const uint64_t ratio10 = projected ? input * 10 / projected : 0;
      std::snprintf(text, sizeof text, "Projecting: %llu bytes (%llu.%01llu to 1)",
                    (unsigned long long)projected, (unsigned long long)(ratio10 / 10),
                    (unsigned long long)(ratio10 % 10));
      ToolFrameSetText(VelmocIdProjected, text);
      const uint64_t rate = w->TotalFrames ? projected * w->FrameRateNumerator /
                                                 (uint64_t(runFrames) * w->FrameRateDenominator)
                                           : 0;
      std::snprintf(text, sizeof text, "%llu bytes per second", (unsigned long long)rate);
      ToolFrameSetText(VelmocIdRate, text);
    }
  }
  AtomicAdd(&r->tickBusy, -1);
}

// The writer's messages; its user data is the run.
int WriterProgress(uint32_t kind, VelmoWriter* w, const char* text) {
  Run& r = *static_cast<Run*>(w->UserData);
  const uint32_t graphics = r.s.Graphics;
  if (kind == VelmoProgressError) {
    ToolFrameError(text);
    return 0;
  }
  if (kind == VelmoProgressMessage) {
    if (text[0] == '@') {
      if ((graphics / 10000) % 10 & 1) return 0;
      text++;
    }
    ToolFrameTell(text, 0);
    return 0;
  }
  char line[256];
  if (w->ProgressFrame < w->TotalFrames)
    std::snprintf(line, sizeof line, "%s frame %u...", text, w->ProgressFrame + 1 + r.skipped);
  else
    std::snprintf(line, sizeof line, "%s...", text);
  SetStatus(r, line);
  return r.cancel ? 1 : 0;
}

// The media layer's messages: status lines, errors (kept for the open failure's box),
// warnings, and yes/no questions such as "Treat as sequence?" (Yes is the default answer).
int MediaProgress(void* context, const char* text, int level) {
  Run& r = *static_cast<Run*>(context);
  if (level == MediaLevelCancel) return 1;
  if (!text) return r.cancel ? 1 : 0;
  if (level == MediaLevelQuestion) return ToolFrameAskQuestion(text, ToolBoxDefaultFirst) == 1;
  if (level == MediaLevelError) {
    std::snprintf(r.mediaError, sizeof r.mediaError, "%s", text);
    return 1;
  }
  if (text[0] == '@') text++;
  // The read job calls this from its own thread: the status goes straight to the dialog.
  if (level == MediaLevelWarning) ToolFrameWarn(text);
  else ToolFrameSetText(ToolIdStatus, text);
  return r.cancel ? 1 : 0;
}

bool FileExists(const char* name) {
  BufferedFile* f = FileOpenRead(4096, name, FileModeReadOnly);
  if (!f) return false;
  FileClose(f);
  return true;
}

// ---- The background read of the next frame -----------------------------------------------------

// One job reads one frame with that frame's own filter values (the hint file may change them
// frame by frame), so the job runs the media layer's frame call itself.
struct ReadJob {
  const VelmocSourceOps* ops;
  VelmocSource* source;
  uint32_t index;
  MediaFrameArgs filters;
  const uint32_t* pixels;
  int32_t pitch;
  bool ok;
  bool planar;         // `planes` holds the frame as the input's own planes
  MediaPlanes planes;
};

uint32_t ReadJobEntry(void* argument) {
  ReadJob* job = static_cast<ReadJob*>(argument);
  job->ok = job->ops->filteredFrame
                ? job->ops->filteredFrame(job->source, job->index, &job->filters, &job->pixels,
                                          &job->pitch)
                : job->ops->frame(job->source, job->index, &job->pixels, &job->pitch);
  job->planar = job->ok && job->ops->planes && job->ops->planes(job->source, &job->planes);
  return 0;
}

uint8_t UnitToByte(float v) {
  const float x = v * 255.0f + 0.5f;
  return x <= 0.0f ? 0 : x >= 255.0f ? 255 : uint8_t(x);
}

// Four floats a pixel (R, G, B, A, 1.0 full scale) as ARGB words, each channel clipped.
void FloatsToArgb(const void* pixels, int32_t pitch, uint32_t width, uint32_t height,
                  std::vector<uint32_t>* out) {
  out->resize(size_t(width) * height);
  const uint8_t* base = static_cast<const uint8_t*>(pixels);
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x) {
      float f[4];
      std::memcpy(f, base + int64_t(pitch) * y + size_t(x) * 16, sizeof f);
      (*out)[size_t(y) * width + x] = uint32_t(UnitToByte(f[3])) << 24 |
                                      uint32_t(UnitToByte(f[0])) << 16 |
                                      uint32_t(UnitToByte(f[1])) << 8 | UnitToByte(f[2]);
    }
}

// Hands the frame that was read to the frame loop: as planes when the input gave them, so that
// a planar input's colours take no trip through RGB, else as pixels. Float pixels go to the
// writer's float conversion; only the old-range first generation, which converts integer
// pixels alone, gets them as clipped 8-bit channels.
void AddFrame(VelmoFrameLoop* loop, const VelmoFrameRate& rate, const ReadJob& job,
              bool floats, std::vector<uint32_t>* scratch) {
  if (!job.planar) {
    const VelmoWriter* w = loop->Writer;
    const void* pixels = job.pixels;
    int32_t pitch = job.pitch;
    if (floats && !(w->Flags & VelmoWriterFullRange)) {
      FloatsToArgb(pixels, pitch, w->Width, w->Height, scratch);
      pixels = scratch->data();
      pitch = int32_t(w->Width * 4);
      floats = false;
    }
    VelmoFrameLoopAdd(loop, rate.TargetBytes, rate.PeakBytes, rate.IsKey != 0, pixels, pitch,
                      floats);
    return;
  }
  const MediaPlanes& p = job.planes;
  const VelmoYuvFrame frame{p.plane[0], p.plane[1], p.plane[2], p.plane[3], p.pitch[0],
                            p.pitch[1], p.pitch[3], p.chroma_shift != 0, p.full_range != 0};
  VelmoFrameLoopAddYuv(loop, rate.TargetBytes, rate.PeakBytes, rate.IsKey != 0, frame);
}

struct ReadNext {
  PlatformThread thread{};
  bool started = false;
  ReadJob job{};
  void Start(uint32_t index, const MediaFrameArgs& filters) {
    job.index = index;
    job.filters = filters;
    job.ok = false;
    started = ThreadStart(&thread, ReadJobEntry, &job, 0, 0, 0, "Velmoc read");
    if (!started) ReadJobEntry(&job);
  }
  void Join() {
    if (started) ThreadJoin(&thread);
    started = false;
  }
};

const ToolControlDesc Controls[] = {
    {VelmocIdInput, ToolControlText, "Input: "},
    {VelmocIdOutput, ToolControlText, "Output: "},
    {VelmocIdFormat, ToolControlText, "Video: "},
    {VelmocIdSound, ToolControlText, "Sound: "},
    {ToolIdStatus, ToolControlText, "Starting..."},
    {ToolIdProgress, ToolControlProgress, ""},
    {VelmocIdElapsed, ToolControlText, "Elapsed: "},
    {VelmocIdRemaining, ToolControlText, "Remaining: "},
    {VelmocIdProjected, ToolControlText, ""},
    {VelmocIdRate, ToolControlText, "Rate: "},
    {VelmocIdView, ToolControlButton, "&View"},
    {ToolIdCancel, ToolControlButton, "&Cancel"},
};
const ToolDialogDesc Dialog = {"velmoc", CaptionSuffix, Controls,
                               int(sizeof Controls / sizeof Controls[0])};
struct Registrar {
  Registrar() { VelmocRegisterDialog(); }
} g_registrar;

// A value that a switch does not take is named alone; anything else shows the syntax.
int SyntaxError(const SwitchErrors& errors) {
  if (errors.Failed()) {
    ToolFrameError(errors.text);
    return ToolExitBadSwitches;
  }
  ToolFrameError(SyntaxText);
  ToolFrameTell(SwitchListText, 0);
  return ToolExitBadSwitches;
}

}  // namespace

void VelmocRegisterDialog() { ToolDialogRegister(&Dialog); }

// ---- Switches ------------------------------------------------------------------------------------

namespace {

bool DataRate(int32_t v) { return v <= 200 || v >= 1000; }
// /V: the version in the low ten bits (0 for 200, 100 to 200, 270 and up for HDR), the
// slices as 2048 to 8192, and the deblocking and adaptive quantisation values above them.
bool Version(int32_t v) {
  const int32_t version = v & 1023;
  const bool known = version == 0 || (version >= 100 && version <= 200) || version >= 270;
  return known && !(v & 1024) && ((v >> 11) & 7) <= 4;
}
// /M: 1.0 to 10.0 times the data rate, or a peak of 1000 bytes per second and up.
bool PeakRate(int32_t n, int32_t d) {
  if (d <= 0 || n < d) return false;
  return int64_t(n) * 100 / d <= 1000 || n / d >= 1000;
}

constexpr int32_t DefaultContrast = 8;

const SwitchRule Rules[] = {
    {'D', 0, INT32_MAX,
     "the data rate must be 1 to 200 (percent of the input) or 1000 and up (bytes per second)",
     DataRate},
    {'K', 0, INT32_MAX, "the key frame interval must be 0 frames or more"},
    {'P', 2, 64, "", nullptr, true},
    {'T', 0, INT32_MAX, "the track ID must be 0 or more"},
    {'L', -1, 199, "the sound level must be -1 (no sound) to 199"},
    {'N', 0, INT32_MAX, "the key frame rate must be 0 bytes per second or more"},
    {'V', 0, 262143,
     "the version must be 100 to 200, or 270 and up for HDR, plus 2048 to 8192 (slices), "
     "16384 to 49152 (deblocking) and 65536 to 196608 (adaptive quantisation)",
     Version},
    {'$', 80, 10000, "", nullptr, true},
};
const SwitchFractionRule PeakRule = {
    'M', PeakRate,
    "the peak rate must be 1.0 to 10.0 (times the data rate) or 1000 and up (bytes per second)"};

}  // namespace

bool VelmocParseSwitches(char* line, VelmocSettings* s) {
  static const std::string letters = std::string("DMJKPTLRBCINZUV$O") + MediaSwitchLetters;
  const SwitchLetters known(letters.c_str());
  char scratch[1024];
  SwitchErrors* errors = &s->Errors;
  SwitchText(line, '+', scratch, sizeof scratch, "");
  if (SwitchText(line, '*', s->ExtraText, sizeof s->ExtraText, "")) {
    if (std::strcmp(s->ExtraText, "-") == 0) {
      std::snprintf(s->ExtraText, sizeof s->ExtraText, "%s", line);
      TrimLine(s->ExtraText);
    }
    s->ExtraText[VelmoWriterMaxText - 1] = 0;
    s->ExtraTextLength = uint32_t(std::strlen(s->ExtraText)) + 1;
  }
  bool ok = true;
  s->DataRate = SwitchNumberIn(line, Rules, 'D', 0, errors);
  int32_t mn = 3, md = 1;
  if (SwitchFractionIn(line, PeakRule, &mn, &md, 3, 1, errors)) {
    const int64_t times100 = int64_t(mn) * 100 / md;
    if (times100 <= 1000) s->PeakSetting = uint32_t(times100);
    else {
      s->PeakSetting = uint32_t(int64_t(mn) / md);
      if (s->DataRate >= 1000 && s->PeakSetting < uint32_t(s->DataRate)) {
        char written[32];
        std::snprintf(written, sizeof written, "M%u", s->PeakSetting);
        SwitchRefuse(errors, written, "a peak rate in bytes per second must be at least the "
                                      "data rate of /D");
      }
    }
  }
  SwitchNumber(line, 'J', 100);
  s->KeyPromotion = 100;
  int32_t k = SwitchNumberIn(line, Rules, 'K', 0, errors);
  s->KeyInterval = k > 0 ? uint32_t(k) : 0x10000000;
  s->PreviewFrames = uint32_t(SwitchNumberIn(line, Rules, 'P', 8, errors));
  s->TrackId = SwitchNumberIn(line, Rules, 'T', 0, errors);
  s->SoundLevel = SwitchNumberIn(line, Rules, 'L', 4, errors);
  s->SoundRate = SwitchNumberIn(line, SoundRateRule, 0, errors);
  s->SoundBits = SwitchNumberIn(line, SoundBitsRule, 0, errors);
  s->SoundChannels = SwitchNumberIn(line, SoundChannelsRule, 0, errors);
  s->Grayscale = SwitchFlag(line, 'I');
  s->KeyRate = uint32_t(SwitchNumberIn(line, Rules, 'N', 0, errors));
  // /Z stays on the line: the media layer reads (and checks) it as well, as its open flags.
  s->Graphics = uint32_t(std::max(0, SwitchPeekNumber(line, 'Z', 0)));
  // /U: a count of 1 to 64 is kept, anything else means all the machine has.
  const int32_t u = SwitchNumber(line, 'U', 0);
  s->Cpus = (u >= 1 && u <= 64) ? uint32_t(u) : 0;
  s->VersionSwitch = uint32_t(SwitchNumberIn(line, Rules, 'V', 200, errors));
  s->Nits = uint32_t(SwitchNumberIn(line, Rules, '$', 10000, errors));
  s->Overwrite = SwitchFlag(line, 'O');
  SwitchText(line, '@', s->HintFile, sizeof s->HintFile, "");
  // What is left are the video switches: range, rates, scaling, crop and filters. The frames
  // are always true colour, so the palette bits of /Z are dropped. The compressor's contrast
  // increase is 8 unless /{ says otherwise.
  const bool contrastGiven = SwitchPeekNumber(line, '{', INT32_MIN) != INT32_MIN;
  MediaParseSwitches(line, &s->Media, errors);
  if (!contrastGiven) s->Media.contrast = DefaultContrast;
  s->Media.open_flags &= ~uint32_t(MediaOpenPaletteMask);
  s->StartFrame = s->Media.start;
  s->EndFrame = s->Media.end;
  s->ForceRateNum = s->Media.force_num;
  s->ForceRateDen = s->Media.force_den;
  s->AdjustRateNum = s->Media.adjust_num;
  s->AdjustRateDen = s->Media.adjust_den;
  if (errors->Failed() || SwitchesLeft(line)) ok = false;
  TakeName(s->Input, sizeof s->Input, line);
  TakeName(s->Output, sizeof s->Output, line);
  if (!s->Input[0] || !s->Output[0]) ok = false;
  // A switch-like output name is a switch this tool does not know.
  if (s->Output[0] == '/' && !std::strchr(s->Output + 1, '/')) ok = false;
  return ok;
}

uint32_t VelmocVersion(const VelmocSettings& s) {
  uint32_t v = s.VersionSwitch & 1023;
  if (v == 0) v = 200;
  if (v >= 270) v = 200;
  return v;
}

bool VelmocWantsHdr(const VelmocSettings& s) { return (s.VersionSwitch & 1023) >= 270; }

uint32_t VelmocFlagWord(const VelmocSettings& s) {
  const uint32_t v = s.VersionSwitch;
  uint32_t slices = (v >> 11) & 7;
  if (slices) slices--;
  uint32_t flags = slices | (s.Grayscale ? 1u : 0u);
  if (VelmocWantsHdr(s)) flags |= VelmoWriterHdr;
  flags |= ((v >> 14) & 3) << 14;
  flags |= ((v >> 16) & 3) << 24;
  const uint32_t alpha = (s.Graphics / 1000) % 10;
  if (alpha >= 1 && alpha <= 3) flags |= VelmoWriterAlpha;
  if (!((s.Graphics / 10000) % 10 & 2)) flags |= VelmoWriterZeroAlphaWeight;
  if (!(flags & VelmoWriterAlpha)) flags &= ~VelmoWriterZeroAlphaWeight;
  return flags & VelmoWriterKeptFlags;
}

void VelmocDefaultExtension(char* name, size_t size, uint32_t version) {
  const char* slash = std::strrchr(name, '/');
  const char* dot = std::strrchr(slash ? slash : name, '.');
  if (dot) return;
  const size_t n = std::strlen(name);
  std::snprintf(name + n, size - n, "%s", version < 200 ? ".vlm" : ".vm2");
}

// ---- Hint file ----------------------------------------------------------------------------------

void VelmocApplyHintLine(const char* line, uint32_t runStart, uint32_t runFrames,
                         uint32_t inputRate, VelmocHints* h) {
  char cols[11][64];
  int count = 0;
  for (const char* p = line; *p && count < 11;) {
    while (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n') p++;
    if (!*p) break;
    size_t n = 0;
    while (p[n] && p[n] != ' ' && p[n] != '\t' && p[n] != '\r' && p[n] != '\n') n++;
    std::snprintf(cols[count++], 64, "%.*s", int(std::min<size_t>(n, 63)), p);
    p += n;
  }
  if (count < 2) return;
  const int64_t last = int64_t(runStart) + runFrames;
  int64_t start = std::strtoll(cols[0], nullptr, 10), end = std::strtoll(cols[1], nullptr, 10);
  if (start < 0) start = last + 1 + start;
  if (end < 0) end = last + 1 + end;
  if (start > end) std::swap(start, end);
  if (start <= 0 || start <= int64_t(runStart) || start > last) return;
  end = std::min(end, last);
  const size_t first = size_t(start - 1 - runStart), frames = size_t(end - start + 1);
  auto has = [&](int i) { return i < count && std::strcmp(cols[i], "*") != 0; };
  auto number = [&](int i) { return std::strtoll(cols[i], nullptr, 10); };
  auto words = [&](std::vector<uint32_t>& t, uint32_t v) {
    std::fill(t.begin() + long(first), t.begin() + long(first + frames), v);
  };
  // These three are byte-filled: each word reached repeats the value's low byte, and only the
  // first quarter of the range is reached.
  auto bytes = [&](std::vector<uint32_t>& t, uint32_t v) {
    std::memset(reinterpret_cast<uint8_t*>(t.data() + first), int(v & 255), frames);
  };
  if (has(2)) {
    int64_t rate = number(2);
    if (rate >= 1 && rate <= 200) rate = int64_t(inputRate) * rate / 100;
    words(h->Rate, uint32_t(rate));
  }
  if (has(3)) words(h->Peak, uint32_t(std::max(0.0, std::atof(cols[3]) * 100.0 + 0.5)));
  if (has(4)) std::fill(h->Key.begin() + long(first), h->Key.begin() + long(first + frames), uint8_t(number(4) != 0));
  if (has(5)) bytes(h->Contrast, uint32_t(number(5)));
  if (has(6)) bytes(h->Smooth, uint32_t(number(6)));
  if (has(7)) bytes(h->BlackClamp, uint32_t(number(7)));
  if (has(8)) words(h->Bright, uint32_t(number(8)));
  if (has(9)) {
    const float g = float(std::atof(cols[9]));
    if (std::fabs(g + 1.0f) > 0.0001f)
      std::fill(h->Gamma.begin() + long(first), h->Gamma.begin() + long(first + frames), g);
  }
  if (has(10))
    std::fill(h->Denoise.begin() + long(first), h->Denoise.begin() + long(first + frames), uint8_t(number(10)));
}

bool VelmocLoadHints(const char* path, uint32_t runStart, uint32_t runFrames, uint32_t inputRate,
                     const MediaSwitches* filters, VelmocHints* h) {
  const MediaSwitches none{};
  const MediaSwitches& m = filters ? *filters : none;
  h->Rate.assign(runFrames, VelmoRateUnset);
  h->Peak.assign(runFrames, VelmoRateUnset);
  h->Bright.assign(runFrames, m.brightness);
  h->Contrast.assign(runFrames, m.contrast);
  h->Smooth.assign(runFrames, m.smooth);
  h->BlackClamp.assign(runFrames, m.black_clamp);
  h->Gamma.assign(runFrames, -1.0f);
  h->Key.assign(runFrames, 0);
  h->Denoise.assign(runFrames, uint8_t(m.denoise));
  if (!path || !path[0]) return true;
  const char* name = path[0] == '*' ? path + 1 : path;
  BufferedFile* f = FileOpenRead(-0x10000, name, FileModeReadOnly);
  if (!f) return false;
  char line[128];
  while (FileReadLine(f, line, sizeof line))
    VelmocApplyHintLine(line, runStart, runFrames, inputRate, h);
  FileClose(f);
  return true;
}

// Smoothing goes to both directions (vertical in the high half, horizontal in the low).
MediaFrameArgs VelmocFrameFilters(const MediaSwitches& m, const VelmocHints& h, uint32_t f) {
  auto at = [f](const auto& table, uint32_t outside) {
    return f < table.size() ? uint32_t(table[f]) : outside;
  };
  MediaFrameArgs a{};
  a.denoise = at(h.Denoise, m.denoise);
  a.smooth = at(h.Smooth, m.smooth) * 0x1000100u;
  a.contrast = at(h.Contrast, m.contrast);
  a.brightness = at(h.Bright, m.brightness);
  a.black_clamp = at(h.BlackClamp, m.black_clamp);
  a.gamma = m.gamma;
  if (f < h.Gamma.size() && h.Gamma[f] > 0.0001f) a.gamma = 1.0 / double(h.Gamma[f]);
  return a;
}

// ---- The run ------------------------------------------------------------------------------------

namespace {

int Finish(Run& r, int code) {
  ToolFrameSetTimer(nullptr, 0);
  // Seen by the View button, which sets its counter before it looks (see WaitForPreview).
  __atomic_store_n(&r.finished, 1, __ATOMIC_SEQ_CST);
  while (AtomicRead(&r.tickBusy)) ThreadSleep(1);
  if (r.source) r.ops->close(r.source);
  r.source = nullptr;
  if (r.s.HintFile[0] == '*') FileDelete(r.s.HintFile + 1);
  return code;
}

// The media layer works /F and /A into the rate it reports; a source that takes no switches
// gets /F applied here.
void OutputRate(const Run& r, uint32_t* num, uint32_t* den) {
  *num = r.info.RateNumerator;
  *den = r.info.RateDenominator;
  if (!r.ops->openWith && r.s.ForceRateNum > 0 && r.s.ForceRateDen > 0) {
    *num = uint32_t(r.s.ForceRateNum);
    *den = uint32_t(r.s.ForceRateDen);
  }
}

MediaFrameArgs FrameFilters(const Run& r, uint32_t f) {
  return VelmocFrameFilters(r.s.Media, r.hints, f);
}

uint32_t ReadSound(void* source, void* buffer, uint32_t bytes) {
  return SoundRead(static_cast<SoundInput*>(source), buffer, bytes);
}

// The sound layer's warnings (a track left out, sound that ends early) are told; a sound that
// does not open leaves the run without a track, as below.
int SoundWarnings(void* context, const char* text, int level) {
  const Run& r = *static_cast<const Run*>(context);
  if (text && *text && level == MediaLevelWarning) ToolFrameWarn(text[0] == '@' ? text + 1 : text);
  return r.cancel ? 1 : 0;
}

// The input's sound over the run's span: from the time of the run's first input frame for as
// long as the run's frames last, as 16-bit samples (the hundreds of /B still ask for
// normalising). The sound codec takes one or two channels at up to 65535 Hz; a sound beyond
// that is asked for again within those bounds. No sound, or none that opens, leaves the run
// without a track.
void OpenSound(Run& r, uint32_t rateNum, uint32_t rateDen) {
  const VelmocSettings& s = r.s;
  if (uint32_t(s.SoundLevel) >= 200 || !r.info.HasSound || !rateNum || !rateDen) return;
  const uint32_t inNum = r.info.InputRateNumerator ? r.info.InputRateNumerator : rateNum;
  const uint32_t inDen = r.info.InputRateNumerator ? r.info.InputRateDenominator : rateDen;
  const uint64_t startMs = uint64_t(r.info.SkippedFrames) * 1000 * inDen / inNum;
  const uint64_t endMs = startMs + uint64_t(r.info.Frames) * 1000 * rateDen / rateNum;
  if (startMs > 0xffffffffu || endMs > 0xffffffffu) return;
  const uint32_t bits = uint32_t(std::max(0, s.SoundBits)) / 100 * 100 + 16;
  uint32_t rate = uint32_t(std::max(0, s.SoundRate)), channels = uint32_t(std::max(0, s.SoundChannels));
  const char* name = r.info.FileName[0] ? r.info.FileName : s.Input;
  if (bits >= 100) SetStatus(r, "Normalizing audio...");
  SoundInput* sound = nullptr;
  for (int attempt = 0; attempt < 2; ++attempt) {
    sound = SoundOpen(name, rate, bits, channels, uint32_t(startMs), uint32_t(endMs), 0, 0, 0,
                      {SoundWarnings, &r});
    if (!sound) return;
    const bool rateOk = sound->rate >= 1 && sound->rate <= 65535;
    const bool channelsOk = sound->channels == 1 || sound->channels == 2;
    if (rateOk && channelsOk) break;
    rate = rateOk ? sound->rate : std::clamp<uint32_t>(sound->rate, 8000, 48000);
    channels = channelsOk ? sound->channels : 2;
    SoundClose(sound);
    sound = nullptr;
  }
  if (!sound) return;
  VelmoWriterTrack& t = r.track;
  t = VelmoWriterTrack{};
  t.TrackId = uint32_t(s.TrackId);
  t.SampleRate = sound->rate;
  t.Bits = sound->bits;
  t.Channels = sound->channels;
  t.Source = sound;
  t.ReadSamples = ReadSound;
  if (!VelmoWriterTrackStart(&t, s.SoundLevel, r.info.Frames, rateNum, rateDen)) {
    VelmoWriterTrackEnd(&t);
    SoundClose(sound);
    return;
  }
  r.sound = sound;
  r.trackCount = 1;
}

int FrameLoop(Run& r) {
  const VelmocSettings& s = r.s;
  uint32_t rateNum = 0, rateDen = 0;
  OutputRate(r, &rateNum, &rateDen);
  const uint32_t version = VelmocVersion(s);
  VelmoRateSettings rates{};
  rates.DefaultRate = VelmoDefaultRate(VelmoGeneration(version), r.info.Width, r.info.Height,
                                       rateNum, rateDen, r.info.Frames, r.info.InputBytes,
                                       r.info.InputFrames);
  rates.OverallRate = VelmoOverallRate(s.DataRate, rateNum, rateDen, r.info.InputBytes,
                                       r.info.InputFrames);
  rates.PeakSetting = s.PeakSetting;
  rates.RateNumerator = rateNum;
  rates.RateDenominator = rateDen;
  const bool image = r.info.IsImage;
  // Below the encoder's least frame size the rate cannot be met: say so once, up front.
  const uint32_t asked = rates.OverallRate ? rates.OverallRate : rates.DefaultRate;
  const uint32_t lowest = VelmoFrameLoopLowestRate(r.loop);
  if (asked < lowest) {
    char text[200];
    std::snprintf(text, sizeof text,
                  "The data rate of %u bytes per second is below what this picture size and "
                  "frame rate can reach: the lowest rate that can be met is %u bytes per second.",
                  asked, lowest);
    ToolFrameWarn(text);
  }

  std::vector<uint32_t> floatScratch;
  ReadNext next;
  next.job = {r.ops, r.source, 0, MediaNoFilters, nullptr, 0, false, false, {}};
  next.Start(0, FrameFilters(r, 0));
  for (uint32_t f = 0;; ++f) {
    next.Join();
    if (!next.job.ok && f < r.info.Frames && !r.cancel) {
      // A frame of the input could not be read: the run is an input error, its output dropped.
      ToolFrameError(r.mediaError[0] ? r.mediaError : "The input file could not be read.");
      r.cancel = VelmoCancelDiscard;
      return ToolExitInputError;
    }
    if (!next.job.ok || f >= r.info.Frames) break;
    VelmoFrameHint hint;
    hint.Rate = r.hints.Rate[f];
    hint.Peak = r.hints.Peak[f];
    hint.Key = r.hints.Key[f];
    const VelmoFrameRate fr = VelmoFrameRateFor(rates, hint);
    AddFrame(r.loop, fr, next.job, r.info.FloatFrames, &floatScratch);
    if (f + 1 < r.info.Frames) {
      if (image) next.job.ok = true;  // a still gives the same picture again
      else next.Start(f + 1, FrameFilters(r, f + 1));
    }
    VelmoFrameLoopCommit(r.loop);
    if (r.writer->Failed) {
      next.Join();
      ToolFrameError(TextDiskFull);
      r.cancel = VelmoCancelKeep;
      return ToolExitDiskWriteError;
    }
    if (r.cancel || f + 1 >= r.info.Frames) {
      next.Join();
      break;
    }
  }
  return ToolExitDone;
}

int Compress(Run& r, char* commandTail) {
  r.startMs = r.lastElapsedMs = TimerMs();
  if (!VelmocParseSwitches(commandTail, &r.s)) return SyntaxError(r.s.Errors);
  // Names the system cannot take are refused before anything is read or written.
  VelmocDefaultExtension(r.s.Output, sizeof r.s.Output, VelmocVersion(r.s));
  if (const int refused = ToolRefuseLongNames(r.s.Input, r.s.Output)) return refused;
  if (const int refused = ToolRefuseLongNames(r.s.HintFile, nullptr)) return refused;

  if (r.s.Cpus) PoolSetThreads(r.s.Cpus);
  PoolStart();

  // Input.
  SetStatus(r, "Opening input file...");
  ToolFrameSetTimer(ProgressTick, 500);
  r.ops = VelmocCurrentSource();
  char error[256] = "";
  const uint32_t first = r.s.StartFrame > 0 ? uint32_t(r.s.StartFrame - 1) : 0;
  const uint32_t last = r.s.EndFrame > 0 ? uint32_t(r.s.EndFrame - 1) : ~0u;
  SetStatus(r, "Reading...");
  if (r.ops->openWith) {
    MediaSwitches media = r.s.Media;
    media.open_flags |= MediaOpenAskSequence;
    r.source = r.ops->openWith(r.s.Input, &media, {MediaProgress, &r}, error, sizeof error);
  } else {
    r.source = r.ops->open(r.s.Input, first, last, error, sizeof error);
  }
  if (!r.source) {
    char text[PathBytes + 1400];
    std::snprintf(text, sizeof text, "Couldn't open the input file '%s'.\n\n%s", r.s.Input,
                  r.mediaError[0] ? r.mediaError : error);
    ToolFrameError(text);
    return Finish(r, ToolExitInputError);
  }
  r.ops->info(r.source, &r.info);
  // The frame index and the per-frame hints are planned whole at the start, so the length must
  // be known and fit.
  if (r.info.Frames >= VelmoMaxIndexFrames) {
    char text[PathBytes + 200];
    std::snprintf(text, sizeof text,
                  "%s has too many frames for a Velmo file (at most %u), or does not say how many "
                  "(a pipe): save it to a file, or give its last frame with /E.",
                  std::strcmp(r.s.Input, "-") == 0 ? "The standard input" : r.s.Input,
                  VelmoMaxIndexFrames - 1);
    ToolFrameError(text);
    return Finish(r, ToolExitInputError);
  }
  if (r.ops->openWith) MediaSayAlphaDropped(&r.s.Media, r.info.HasAlpha, {MediaProgress, &r});
  r.runFrames = r.info.Frames;
  r.skipped = r.info.SkippedFrames;
  const uint32_t inputRate = VelmoInputRate(r.info.RateNumerator, r.info.RateDenominator,
                                            r.info.InputBytes, r.info.InputFrames, 100);
  if (!VelmocLoadHints(r.s.HintFile[0] == '*' ? r.s.HintFile + 1 : r.s.HintFile, r.skipped,
                       r.info.Frames, inputRate, &r.s.Media, &r.hints)) {
    char text[PathBytes + 100];
    std::snprintf(text, sizeof text, "Couldn't read the hint file '%s'.", r.s.HintFile);
    ToolFrameError(text);
    return Finish(r, ToolExitInputError);
  }
  {
    uint32_t rateNum = 0, rateDen = 0;
    OutputRate(r, &rateNum, &rateDen);
    OpenSound(r, rateNum, rateDen);
  }

  // Output name and the overwrite question.
  const uint32_t version = VelmocVersion(r.s);
  VelmocDefaultExtension(r.s.Output, sizeof r.s.Output, version);
  if (!r.s.Overwrite && FileExists(r.s.Output)) {
    std::string q = std::string("File ") + r.s.Output + " exists, overwrite?";
    if (ToolFrameAsk(q.c_str(), ToolBoxDefaultSecond) != 1) return Finish(r, ToolExitNoOverwrite);
  }

  // Alpha.
  uint32_t flags = VelmocFlagWord(r.s);
  if ((flags & VelmoWriterAlpha) && !r.info.HasAlpha) {
    flags &= ~(VelmoWriterAlpha | VelmoWriterZeroAlphaWeight);
    if (!((r.s.Graphics / 10000) % 10 & 1) &&
        ToolFrameAsk("You asked to use the alpha channel, but the input file doesn't seem to have "
                     "one.  Cancel the compression (if you don't cancel, Velmo will turn off "
                     "alpha)?", ToolBoxDefaultSecond) == 1)
      return Finish(r, ToolExitNoAlpha);
  }
  if (VelmocWantsHdr(r.s) && !r.info.IsHdr) {
    ToolFrameError("You asked for HDR video conversion, but the input file isn't an HDR file "
                   "itself. Just use normal Velmo 2 compression with non-HDR input files.");
    return Finish(r, ToolExitNotHdr);
  }
  // The writer. The input's own peak, when it names one, stands for the nits unless /$ is lower.
  uint32_t rateNum = 0, rateDen = 0;
  OutputRate(r, &rateNum, &rateDen);
  const uint32_t nits = r.info.PeakNits ? std::min(r.info.PeakNits, r.s.Nits) : r.s.Nits;
  r.writer = VelmoWriterOpen(r.s.Output, flags, version, r.info.Width, r.info.Height,
                             r.info.Frames, r.s.ExtraTextLength, r.s.ExtraText, rateNum, rateDen,
                             r.trackCount, r.trackCount ? &r.track : nullptr, nits, nullptr,
                             WriterProgress, &r);
  if (!r.writer) return Finish(r, ToolExitOutputError);
  r.loop = VelmoFrameLoopOpen(r.writer, r.s.PreviewFrames, r.s.KeyInterval, r.s.KeyRate);
  if (!r.loop) {
    VelmoWriterClose(r.writer, true);
    return Finish(r, ToolExitOutputError);
  }
  char text[PathBytes + 100];
  std::snprintf(text, sizeof text, "Input: %s", r.s.Input);
  ToolFrameSetText(VelmocIdInput, text);
  std::snprintf(text, sizeof text, "Output: %s", r.s.Output);
  ToolFrameSetText(VelmocIdOutput, text);
  const uint32_t fps100 = uint32_t(uint64_t(r.writer->FrameRateNumerator) * 100 /
                                   r.writer->FrameRateDenominator);
  std::snprintf(text, sizeof text, "%u x %u, %u.%02u frames per second", r.info.Width,
                r.info.Height, fps100 / 100, fps100 % 100);
  ToolFrameSetText(VelmocIdFormat, text);
  if (r.trackCount) {
    std::snprintf(text, sizeof text, "%u hz, %u-bit, %s.", r.track.SampleRate, r.track.Bits,
                  r.track.Channels == 2 ? "stereo" : "mono");
    ToolFrameSetText(VelmocIdSound, text);
  } else {
    ToolFrameSetText(VelmocIdSound, "None.");
  }
  r.progressShift = 0;
  while ((r.info.Frames >> r.progressShift) >= 65536) r.progressShift++;
  ToolFrameSetProgressRange(ToolIdProgress, int(r.info.Frames >> r.progressShift));
  r.inputBytesPerFrame = uint64_t(r.info.Width) * r.info.Height * 3;
  r.inputSoundBytes = r.trackCount ? r.track.BytesLeft : 0;
  r.liveWriter = r.writer;

  int code = FrameLoop(r);
  Finish(r, code);
  WaitForPreview(r);
  // What the queue still holds is encoded before the close (unless the run is discarded).
  const uint32_t written = r.writer->FramesWritten + r.loop->QueuedFrames;
  r.liveWriter = nullptr;
  const bool discard = r.cancel == VelmoCancelDiscard;
  if (!discard && !r.writer->Failed) VelmoFrameLoopPump(r.loop, true);
  double psnr[3];
  const bool measured = VelmoFrameLoopQuality(r.loop, psnr);
  VelmoFrameLoopFree(r.loop);
  uint32_t closed = OutFileDone;
  const uint64_t size = VelmoWriterClose(r.writer, discard, &closed);
  if (code != ToolExitDone) return code;
  // The last frames and the final tables reach the disk only at the close.
  if (closed == OutFileWriteFailed) {
    ToolFrameError(TextDiskFull);
    return ToolExitDiskWriteError;
  }
  if (closed != OutFileDone) return ToolExitOutputError;  // the writer has said why
  if (r.cancel) return ToolExitCancelled;
  AtomicStore(&r.closed, 1);
  std::snprintf(text, sizeof text, "%u total frames compressed.", written);
  SetStatus(r, text);
  char t[64];
  FormatTime(TimerMs() - r.startMs, t, sizeof t);
  std::snprintf(text, sizeof text, "Total time: %s", t);
  ToolFrameSetText(VelmocIdElapsed, text);
  ToolFrameSetText(VelmocIdRemaining, "Done!");
  ToolFrameSetText(VelmocIdView, "&View");
  const uint64_t input = r.inputBytesPerFrame * written + (r.trackCount ? r.track.BytesDone : 0);
  const uint64_t ratio10 = size ? input * 10 / size : 0;
  std::snprintf(text, sizeof text, "Final: %llu bytes (%llu.%01llu to 1)", (unsigned long long)size,
                (unsigned long long)(ratio10 / 10), (unsigned long long)(ratio10 % 10));
  // The quality against the input, from the encoder's own reconstructions.
  if (measured) {
    const size_t used = std::strlen(text);
    std::snprintf(text + used, sizeof text - used, ", PSNR Y %.2f dB, Cr %.2f dB, Cb %.2f dB",
                  psnr[0], psnr[1], psnr[2]);
  }
  ToolFrameSetText(VelmocIdProjected, text);
  ToolFrameSetProgress(ToolIdProgress, int(r.info.Frames >> r.progressShift));
  // The status line keeps the count of frames: "Done!" stands where the time left stood.
  return ToolExitDone;
}

}  // namespace

void VelmocSetPreviewStarter(VelmocPreviewStarter starter) {
  g_previewStarter = starter ? starter : StartPlayer;
}

int VelmocMain(char* commandTail, ToolDialog* dialog) {
  Run* r = new Run();
  ToolFrameSetState(dialog, r, [](void* run) { delete static_cast<Run*>(run); });
  const int code = Compress(*r, commandTail);
  // The sound is done with; the record stays with the dialog for its buttons.
  r->CloseSound();
  return code;
}

int VelmocCommand(int commandId, ToolDialog* dialog) {
  Run* r = RunOf(dialog);
  if (!r) return 1;  // no record yet: the run has not begun
  if (commandId == VelmocIdView) {
    View(r);
    return 1;
  }
  if (commandId != ToolIdCancel) return 1;
  if (r->finished) return 0;
  if (!ToolFrameConfirmCancel("Cancel the compression?",
                              "Velmo finished compressing successfully before you cancelled!",
                              &r->finished))
    return 1;
  // A stop signal keeps nothing: the temporary file goes and the old output stays.
  const int keep = ToolFrameStopRequested()
                       ? 0
                       : ToolFrameAsk("Keep the frames that you've compressed so far?",
                                      ToolBoxThreeButtons | ToolBoxDefaultFirst);
  if (r->finished) {
    ToolFrameTell("Velmo finished compressing successfully before you cancelled!", 0);
    return 1;
  }
  if (keep == 1) r->cancel = VelmoCancelKeep;
  else if (keep == 0) {
    r->cancel = VelmoCancelDiscard;
    ToolFrameShowCancelling(ToolIdCancel);
  }
  if (VelmoWriter* w = r->liveWriter) w->CancelRequested = r->cancel;
  return 1;
}
