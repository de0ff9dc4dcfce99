// VelmoConv: switches, the help, the frame loop with the sound laid beside the frames, the
// sound-only copy, the progress tick and the cancel dialog.
#include "convert/velmoconv.h"

#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "convert/output.h"
#include "host/platform.h"
#include "host/switches.h"
#include "host/textformat.h"
#include "media/sound.h"

namespace {

const char HelpText[] =
    "Syntax:  VelmoConv <Input File> <Output File> [/Switches]\n\n"
    "  Input video files can be flics, Velmos, AVIs, QuickTime movies,\n"
    "    PNGs, JPEGs, BMPs, TGAs, TIFs, GIFs, PCXs, Tarvins, or list files. \n\n"
    "  Input audio files can be Velmos, AVIs, QuickTime movies, Tarvins,\n"
    "    wave files, or list files. \n\n"
    "  Output files can be AVIs under 2GBs, still image files (PNGs, etc), or\n"
    "    audio-only wave files.\n\n"
    "  You can compress a series of input files by specifing the input\n"
    "    filename with this type of syntax:  \"Exam???.BMP*1-149\".  This\n"
    "    filename would cause \"Exam001.BMP\" through \"Exam149.BMP\"\n"
    "    to be converted.\n\n"
    "  List files are simply text files that contain a list of files to be\n"
    "    converted.  You list one input file or series per line.  You can\n"
    "    also the /S and /E switches on each line of a list file to specify a\n"
    "    subset of frames in each input file to convert.  List files must have\n"
    "    an .LST extension.\n"
    "\n  This build also writes YUV4MPEG2 streams (.y4m, or \"-\" for standard output).\n";

const char VideoHelpText[] =
    "\nVideo switches:\n"
    "  /S# - Specifies the starting frame.\n"
    "  /E# - Specifies the ending frame.\n"
    "  /F#.# - Override the output frame rate (force the change).\n"
    "  /A#.# - Adjust the input frame rate to this output frame rate (add/remove frames).\n"
    "  /Q# - Number of colors to shrink (quantize) to.\n"
    "  /I# - Index to start the new palette at (default=centered).\n"
    "  /U# - How often to write out a new palette (in frames).\n"
    "  /$# - Leave the specified number of palette entries available for rotation.\n"
    "  /T# - Halftone control:\n"
    "    /T0 - Halftone input file if it contains high-color graphics (default).\n"
    "    /T1 - Always halftone the input file.\n"
    "    /T2 - Never halftone the input file.\n"
    "  /D# - Windows system colors control:\n"
    "    /D0 - Copy Windows system colors if a new palette is created (default).\n"
    "    /D1 - Always copy in the Windows system colors.\n"
    "    /D2 - Never copy in the Windows system colors.\n"
    "  /Z# - Graphics processing options:\n"
    "    /Z0 - Process as true color (output true color files).\n"
    "    /Z1 - Copy the existing 8-bit input palettes (default).\n"
    "    /Z2 - Create a new best-case palette.\n"
    "    /Z3 - Create new best-case palettes whenever the input palette changes.\n"
    "    Bi-cubic scaling is the default and usually give the best quality.\n"
    "    Add 100 for bi-linear scaling instead.\n"
    "    Add 200 for box scaling instead.\n"
    "    By default, no alpha is processed.\n"
    "    Add 1000 to process the alpha plane.\n"
    "    Add 2000 to process the alpha plane (as pre-multiplied).\n"
    "    Add 3000 to process the alpha plane (and filter as pre-multiplied).\n"
    "    Add 10000 to suppress warning about missing alpha plane.\n"
    "  /~# - Use the denoising filter (0=no filter, 1=full denoising).\n"
    "  /:# - Set the smoothness percentage (0=no smooth, 100=maximum smooth).\n"
    "  /;# - Video de-interlacing (0=none, 1=even, 2=odd, add 8 for blending).\n"
    "  /{# - Set the contrast increase (0=none, 8=default, 127=max).\n"
    "  /}# - Set the clamp to black level (0=no clamp, 255=everything black).\n"
    "  /[# - Set the brightness percentage (0=fully darken, 100=don't change, 200=twice as "
    "bright).\n"
    "  /]#.# - Set the gamma correction (less than 1.0=darken, 1.0=don't change, greater than "
    "1.0=brighten).\n"
    "  /(# - Specifies the scale to width (shrinks or zooms).\n"
    "  /)# - Specifies the scale to height (shrinks or zooms).\n"
    "  /X# - Specifies the cropping left coordinate.\n"
    "  /Y# - Specifies the cropping top coordinate.\n"
    "  /W# - Specifies the cropping width.\n"
    "  /H# - Specifies the cropping height.\n"
    "  /&filename - Specifies a file to get the palette from.\n"
    "  /P# - Output format option: AVI codec (0=uncompressed, the default; 1=Motion-JPEG at\n"
    "        the JPEGLevel quality), or y4m chroma (420=4:2:0, the default; 444=4:4:4).\n";

const char AudioHelpText[] =
    "\nAudio switches:\n"
    "  /V  - Don't process the video - just the audio.\n"
    "  /N# - Sound track number to read the sound from (-1 for no audio).\n"
    "  /R# - Force the output data rate (11025, 22050, 44100, etc.).\n"
    "  /B# - Force the output bits (8 or 16).\n"
    "  /C# - Force the output channels (1=mono, 2=stereo).\n"
    "  /J# - Specify a starting millisecond time.\n"
    "  /K# - Specify an ending millisecond time.\n"
    "  /L# - Force input file type: 1=8 mono, 2=8 stereo, 3=16 mono, 4=16 stereo.\n"
    "  /G# - Specify the forced input file data rate (use with the /L switch).\n"
    "  /M# - Specify how many bytes to skip into the input file (use with /L).\n"
    "  /O  - Overwrite the output file without asking.\n";

const char Caption[] = "Velmo Converter";
const char DiskFullText[] = "Error writing to disk - probably out of disk space.";
const char NotReplacedText[] = "Couldn't put the new file in the place of the output file.";

// ---- The run record, shared with the timer and the dialog ------------------------------------

// One conversion. The main routine makes it and hands it to the dialog, which keeps it until
// the run is over; the media layer's and the writers' messages carry it as their context.
struct Job {
  VelmoConvSettings settings;
  volatile int finished = 0;
  volatile uint32_t cancel = 0;
  volatile uint32_t tickBusy = 0;
  volatile uint32_t stopped = 0;
  volatile uint64_t count = 0;      // frames converted, or sound bytes for sound only
  volatile uint64_t bytes = 0;      // output bytes so far
  uint64_t total = 0;
  bool soundOnly = false;
  uint32_t startMs = 0, lastElapsedMs = 0;
  uint64_t shownCount = ~0ull;
  bool framesStarted = false;       // the frame loop runs: its status line stands
  uint64_t shownBytes = ~0ull;
  bool declined = false;            // the user said No to the overwrite question
};

Job* JobOf(ToolDialog* dialog) { return static_cast<Job*>(ToolFrameState(dialog)); }

int Message(void* context, const char* text, int level) {
  Job& job = *static_cast<Job*>(context);
  switch (level) {
    case MediaLevelError:
      if (text && *text) ToolFrameError(text);
      job.cancel = 1;
      break;
    case MediaLevelCancel:
      job.cancel = 1;
      break;
    case MediaLevelWarning:
      if (text && *text) ToolFrameWarn(text);
      break;
    case MediaLevelQuestion:
      return text && ToolFrameAskQuestion(text, ToolBoxDefaultSecond) == 1;
    default:
      if (text && *text && *text != '@') ToolFrameSetText(VelmoConvIdStatus, text);
  }
  return int(job.cancel);
}

// The sound's messages while frames are converted: its per-read status would fight with the
// frame status, so only what comes before the frame loop (normalising) and boxes pass.
int SoundMessage(void* context, const char* text, int level) {
  const Job& job = *static_cast<const Job*>(context);
  if (job.framesStarted && (level == MediaLevelStatus || level == MediaLevelStep)) return int(job.cancel);
  return Message(context, text, level);
}

bool AskOverwrite(const char* question, void* context) {
  const bool yes = ToolFrameAsk(question, ToolBoxDefaultSecond) == 1;
  if (!yes) static_cast<Job*>(context)->declined = true;
  return yes;
}

void ShowTime(int control, uint64_t ms) {
  char text[64];
  FormatTime(text, sizeof text, ms);
  ToolFrameSetText(control, text);
}

void Tick(ToolDialog* dialog) {
  Job* job = JobOf(dialog);
  uint32_t idle = 0;
  if (!job || AtomicRead(&job->stopped) || !AtomicCompareExchange(&job->tickBusy, &idle, 1)) return;
  const uint32_t now = TimerMs(), elapsed = now - job->startMs;
  if (now - job->lastElapsedMs >= 1500) {
    job->lastElapsedMs = now;
    ShowTime(VelmoConvIdElapsed, elapsed);
  }
  const uint64_t count = job->count, total = job->total;
  if (count != job->shownCount && total) {
    job->shownCount = count;
    const uint32_t percent = uint32_t(std::min<uint64_t>(99, (count + 1) * 100 / total));
    char text[200];
    if (job->soundOnly)
      std::snprintf(text, sizeof text, "Converting %llu kb of %llu kb (%u%%)...",
                    (unsigned long long)(count / 1024), (unsigned long long)(total / 1024),
                    percent);
    else
      std::snprintf(text, sizeof text, "Processing %llu of %llu (%u%%)...",
                    (unsigned long long)count, (unsigned long long)total, percent);
    ToolFrameSetText(VelmoConvIdStatus, text);
    std::snprintf(text, sizeof text, "%u%% - Velmo Converter", percent);
    ToolFrameSetCaption(text);
    ToolFrameSetProgress(ToolIdProgress, int(percent));
    if (count) ShowTime(VelmoConvIdRemaining, (total - std::min(count, total)) * elapsed / count);
  }
  const uint64_t bytes = job->bytes;
  if (bytes != job->shownBytes && count) {
    job->shownBytes = bytes;
    char number[40], text[80];
    FormatThousands(number, sizeof number, int64_t(total * bytes / count));
    std::snprintf(text, sizeof text, "Projecting: %s bytes", number);
    ToolFrameSetText(VelmoConvIdProjected, text);
  }
  AtomicStore(&job->tickBusy, 0);
}

const ToolControlDesc Controls[] = {
    {VelmoConvIdType, ToolControlText, "Input: "},
    {VelmoConvIdOutput, ToolControlText, "Output: "},
    {VelmoConvIdVideo, ToolControlText, "Video: "},
    {VelmoConvIdAudio, ToolControlText, "Audio: "},
    {VelmoConvIdStatus, ToolControlText, "Starting..."},
    {ToolIdProgress, ToolControlProgress, ""},
    {VelmoConvIdElapsed, ToolControlText, "Elapsed: "},
    {VelmoConvIdCaption, ToolControlLabel, "Time left:"},  // names the time beside it
    {VelmoConvIdRemaining, ToolControlText, ""},
    {VelmoConvIdSpare, ToolControlText, ""},
    {VelmoConvIdProjected, ToolControlText, ""},
    {ToolIdCancel, ToolControlButton, "&Cancel"},
};
const ToolDialogDesc Dialog = {"velmoconv", Caption, Controls,
                               int(sizeof Controls / sizeof Controls[0])};
struct Registrar {
  Registrar() { VelmoConvRegisterDialog(); }
} g_registrar;

int Help() {
  ToolFrameTell(HelpText, 0);
  ToolFrameTell(VideoHelpText, 0);
  ToolFrameTell(AudioHelpText, 0);
  return ToolExitBadSwitches;
}

bool EndsWith(const char* name, const char* ext) {
  const size_t n = std::strlen(name), e = std::strlen(ext);
  return n >= e && strcasecmp(name + n - e, ext) == 0;
}

bool HasExtension(const char* name) {
  const char* slash = std::strrchr(name, '/');
  return std::strchr(slash ? slash + 1 : name, '.') != nullptr;
}

// The end of every run that started its timer: stop the tick and wait for a running one.
void StopTicks(Job& job) {
  ToolFrameSetTimer(nullptr, 0);
  AtomicStore(&job.stopped, 1);
  while (AtomicRead(&job.tickBusy)) ThreadSleep(1);
}

void ShowTotals(const Job& job, uint64_t count, const char* what, uint64_t bytes) {
  char number[40], text[200];
  FormatThousands(number, sizeof number, int64_t(count));
  std::snprintf(text, sizeof text, "%s total %s.", number, what);
  ToolFrameSetText(VelmoConvIdStatus, text);
  ToolFrameSetText(VelmoConvIdCaption, "Total time:");
  ShowTime(VelmoConvIdRemaining, TimerMs() - job.startMs);
  ToolFrameSetText(VelmoConvIdSpare, "Done!");
  ToolFrameSetText(VelmoConvIdElapsed, "Done!");
  FormatThousands(number, sizeof number, int64_t(bytes));
  std::snprintf(text, sizeof text, "Final: %s bytes", number);
  ToolFrameSetText(VelmoConvIdProjected, text);
  ToolFrameSetProgress(ToolIdProgress, 100);
}

void StartDialog(const char* typeName, const char* output) {
  ToolFrameSetText(VelmoConvIdType, typeName);
  ToolFrameSetText(VelmoConvIdOutput, output);
  ToolFrameSetProgressRange(ToolIdProgress, 99);
  ToolFrameSetProgress(ToolIdProgress, 0);
  ToolFrameSetTimer(Tick, 500);
}

// ---- Sound ---------------------------------------------------------------------------------

// Opens the sound of the input with the run's sound switches; null when there is none.
SoundInput* OpenSound(const VelmoConvSettings& s, uint32_t startMs, uint32_t endMs,
                      ProgressSink progress) {
  if (s.track < 0) return nullptr;
  return SoundOpen(s.input, uint32_t(s.rate), uint32_t(s.bits), uint32_t(s.channels), startMs,
                   endMs, uint32_t(s.track), s.forced_input, uint32_t(s.skip_bytes), progress);
}

// A /J start at or past the end of the sound leaves nothing of it to convert: the text that
// says so, or an empty string when some sound remains.
std::string StartPastSound(const VelmoConvSettings& s, const SoundInput* sound) {
  if (s.start_ms <= 0 || sound->total_bytes > 0) return "";
  char text[PathBytes + 200];
  std::snprintf(text, sizeof text, "/J%d: the sound of %s ends before that time.", s.start_ms,
                s.input);
  return text;
}

void ShowSoundFormat(const SoundInput* sound) {
  char text[200];
  std::snprintf(text, sizeof text, "%u hz, %u-bit, %s.", sound->rate, sound->bits,
                sound->channels == 2 ? "stereo" : "mono");
  ToolFrameSetText(VelmoConvIdAudio, text);
}

bool MayOverwrite(const VelmoConvSettings& s) {
  struct stat st;
  if (s.overwrite || stat(s.output, &st) != 0) return true;
  const std::string q = std::string("File ") + s.output + " exists, overwrite?";
  return ToolFrameAsk(q.c_str(), ToolBoxDefaultSecond) == 1;
}

// The run's code once its output was closed (an OutFileResult): the last writes and the rename
// happen at the close, so a run that went well may still fail there.
int CloseCode(int code, uint32_t closed) {
  if (code != ToolExitDone || closed == OutFileDone) return code;
  if (closed == OutFileWriteFailed) {
    ToolFrameError(DiskFullText);
    return ToolExitDiskWriteError;
  }
  ToolFrameError(NotReplacedText);
  return ToolExitOutputError;
}

// Sound only: the sound goes to a wave file (or bare samples for ".raw"), 16384 bytes at a time.
int ConvertSound(Job& job, SoundInput* sound) {
  const VelmoConvSettings& s = job.settings;
  if (!MayOverwrite(s)) {
    SoundClose(sound);
    return ToolExitNoOverwrite;
  }
  WaveFile* out = WaveCreate(s.output, sound->rate, sound->bits, sound->channels,
                             EndsWith(s.output, ".raw"));
  if (!out) {
    SoundClose(sound);
    ToolFrameError("Error opening output file.");
    return ToolExitOutputError;
  }
  ShowSoundFormat(sound);
  ToolFrameSetText(VelmoConvIdVideo, "No video.");
  job.soundOnly = true;
  job.total = sound->total_bytes;
  StartDialog(sound->type_name ? sound->type_name : "Sound", s.output);
  std::vector<uint8_t> buffer(16384);
  int code = ToolExitDone;
  while (!job.cancel) {
    const uint32_t got = SoundRead(sound, buffer.data(), uint32_t(buffer.size()));
    if (!got) break;
    if (!WaveWrite(out, buffer.data(), got)) {
      ToolFrameError(DiskFullText);
      code = ToolExitDiskWriteError;
      break;
    }
    job.count = job.count + got;
    job.bytes = job.count;
  }
  StopTicks(job);
  SoundClose(sound);
  if (code == ToolExitDone && job.cancel) code = ToolExitCancelled;
  uint32_t closed = OutFileDone;
  const uint64_t size = WaveClose(out, code != ToolExitDone, &closed);
  code = CloseCode(code, closed);
  if (code == ToolExitDone) ShowTotals(job, job.count, "bytes written", size);
  return code;
}

// ---- Video -----------------------------------------------------------------------------------

struct VideoRun {
  SoundInput* sound = nullptr;
  MediaInput* input = nullptr;
  OutputWriter* writer = nullptr;
  // Sound, input and writer are closed in that order; a writer still here belongs to a run that
  // ended early, and nothing of it takes the output's place.
  ~VideoRun() {
    if (sound) SoundClose(sound);
    if (input) MediaClose(input);
    if (writer) OutputClose(writer, true);
  }
};

// Milliseconds of `frames` frames at the rate num / den.
uint32_t FramesMs(uint64_t frames, uint32_t num, uint32_t den) {
  if (!num) return 0;
  return uint32_t(std::min<uint64_t>(frames * den * 1000 / num, 0xFFFFFFFFu));
}

// The sound that covers the frames that go out: the skipped frames are the source's, so the
// start is at the input rate; the frames delivered last `output_frames` at the output rate
// (the two differ only under /A, where frames are added or dropped).
void CoveredSpan(const MediaInput* in, uint32_t* startMs, uint32_t* endMs) {
  *startMs = FramesMs(in->skip_frames, in->input_rate_num, in->input_rate_den);
  const uint64_t end =
      uint64_t(*startMs) + FramesMs(in->output_frames, in->output_rate_num, in->output_rate_den);
  *endMs = uint32_t(std::min<uint64_t>(end, 0xFFFFFFFFu));
}

int ConvertVideo(Job& job) {
  const VelmoConvSettings& s = job.settings;
  VideoRun run;
  MediaOpenArgs args = MediaArgsFromSwitches(&s.video);
  args.flags |= MediaOpenAskSequence;  // a numbered still with neighbours: asked
  args.title = "Converting";
  args.progress = {Message, &job};
  run.input = MediaOpenWith(s.input, &args);
  if (!run.input) return ToolExitInputError;  // the layer has said why
  // A sound-only input goes on as the media layer delivers it: black 4 x 4 frames at 15 a
  // second for as long as the sound lasts, with the sound beside them.
  MediaInput* in = run.input;
  // The sound covers the frames that go out unless a range was asked for.
  uint32_t startMs = 0, endMs = 0;
  CoveredSpan(in, &startMs, &endMs);
  if (s.start_ms) startMs = uint32_t(s.start_ms);
  if (s.end_ms) endMs = uint32_t(s.end_ms);
  if (in->has_sound) run.sound = OpenSound(s, startMs, endMs, {SoundMessage, &job});
  if (job.cancel) return ToolExitCancelled;
  if (run.sound) {
    const std::string past = StartPastSound(s, run.sound);
    if (!past.empty()) {
      ToolFrameWarn((past + " The frames go out without sound.").c_str());
      SoundClose(run.sound);
      run.sound = nullptr;
    }
  }

  const bool wantAlpha = (s.video.open_flags & MediaOpenAlpha) != 0;
  const bool quietAlpha = (s.video.open_flags & MediaOpenNoAlphaWarning) != 0;
  bool alpha = wantAlpha;
  MediaSayAlphaDropped(&s.video, in->has_alpha != 0, {Message, &job});
  if (alpha && !in->has_alpha) {
    alpha = false;
    if (!quietAlpha &&
        ToolFrameAsk("You asked to use the alpha channel, but the input file doesn't seem to have "
                     "one.  Cancel the conversion (if you don't cancel, we will turn off alpha)?",
                     ToolBoxDefaultSecond) == 1)
      return ToolExitDiskWriteError;
  }
  if (VelmoConvSameFile(s.input, s.output)) {
    ToolFrameError("The input and output files are the same file.");
    return ToolExitOutputError;
  }
  // The question names the output as given; the writer then asks nothing more, also for the
  // numbered names of a series.
  if (!MayOverwrite(s)) return ToolExitNoOverwrite;
  uint32_t flags = OutputFlagPromptDone;
  if (in->float_frames) flags |= OutputFlagFloat;
  if (alpha) flags |= OutputFlagAlpha;
  if (!in->true_colour) flags |= OutputFlagPalette;
  OutputOptions options{};
  options.jpeg_level = -1;
  options.codec = s.format_option == 1 ? OutputCodecMjpeg : OutputCodecRaw;
  options.y4m_chroma = s.format_option == 444 ? 444 : 420;
  options.ask = AskOverwrite;
  options.ask_context = &job;
  const ptrdiff_t pitch = in->output_pitch / (in->float_frames ? 16 : 4);
  run.writer = OutputOpen(s.output, int(in->output_frames), in->output_rate_num,
                          in->output_rate_den, int(in->output_width), int(in->output_height),
                          pitch, {Message, &job}, flags, &options);
  if (!run.writer) return job.declined ? ToolExitNoOverwrite : ToolExitOutputError;
  if (alpha && !run.writer->keep_alpha && !quietAlpha &&
      ToolFrameAsk("You asked to use the alpha channel, but the output file exporter doesn't "
                   "support alpha.  Cancel the conversion (if you don't cancel, we will turn off "
                   "alpha)?",
                   ToolBoxDefaultSecond) == 1)
    return ToolExitAlphaStop;

  char text[200];
  std::snprintf(text, sizeof text, "%u x %u, %u.%02u frames per second", in->output_width,
                in->output_height, in->output_rate_num / in->output_rate_den,
                uint32_t(uint64_t(in->output_rate_num % in->output_rate_den) * 100 /
                         in->output_rate_den));
  ToolFrameSetText(VelmoConvIdVideo, text);
  if (run.sound && !run.writer->takes_sound) {
    SoundClose(run.sound);
    run.sound = nullptr;
  }
  if (run.sound)
    ShowSoundFormat(run.sound);
  else
    ToolFrameSetText(VelmoConvIdAudio, "No audio.");
  job.soundOnly = false;
  job.total = in->output_frames;
  StartDialog(in->type_name, s.output);
  job.framesStarted = true;

  const uint32_t smooth = (s.video.smooth << 16 | s.video.smooth) << 8;
  std::vector<uint8_t> soundBuffer;
  int code = ToolExitDone;
  while (!in->at_end && !job.cancel) {
    if (!MediaGetFrame(in, s.video.denoise, smooth, s.video.contrast, s.video.brightness,
                       s.video.gamma, s.video.black_clamp)) {
      // A frame that could not be read has been reported (and stopped the run) by the layer.
      if (!job.cancel || in->read_failed) code = ToolExitInputError;
      break;
    }
    if (!OutputWriteFrame(run.writer, in->output_buffer, nullptr)) {
      ToolFrameError(DiskFullText);
      code = ToolExitDiskWriteError;
      break;
    }
    if (SoundInput* sound = run.sound) {
      // The writer keeps its sound three quarters of a second ahead of the frames.
      const uint32_t wanted =
          OutputSoundWanted(run.writer, sound->rate, sound->bits, sound->channels);
      if (wanted > soundBuffer.size()) soundBuffer.resize(wanted);
      const uint32_t got = wanted ? SoundRead(sound, soundBuffer.data(), wanted) : 0;
      if (got && !OutputWriteSound(run.writer, soundBuffer.data(), got)) {
        ToolFrameError(DiskFullText);
        code = ToolExitDiskWriteError;
        break;
      }
    }
    job.count = job.count + 1;
    job.bytes = run.writer->bytes_written;
  }
  StopTicks(job);
  const uint64_t frames = job.count;
  if (run.sound) SoundClose(run.sound);
  run.sound = nullptr;
  MediaClose(run.input);
  run.input = nullptr;
  if (code == ToolExitDone && job.cancel) code = ToolExitCancelled;
  uint32_t closed = OutFileDone;
  const uint64_t bytes = OutputClose(run.writer, code != ToolExitDone, &closed);
  run.writer = nullptr;
  code = CloseCode(code, closed);
  if (code == ToolExitDone) ShowTotals(job, frames, "frames converted", bytes);
  return code;
}

}  // namespace

void VelmoConvRegisterDialog() { ToolDialogRegister(&Dialog); }

namespace {

bool FormatOption(int32_t v) { return v == 0 || v == 1 || v == 420 || v == 444; }

const SwitchRule Rules[] = {
    {'N', -1, INT32_MAX, "the sound track must be 0 or more (-1 for no audio)"},
    {'L', 0, 4, "the forced input type must be 1 to 4 (8-bit mono, 8-bit stereo, 16-bit mono, "
                "16-bit stereo)"},
    {'G', 1, 1000000, "the forced input rate must be 1 to 1000000 Hz"},
    {'M', 0, INT32_MAX, "the bytes to skip must be 0 or more"},
    {'J', 0, INT32_MAX, "the starting time must be 0 milliseconds or more"},
    {'K', 0, INT32_MAX, "the ending time must be 0 milliseconds or more"},
    {'P', 0, 444, "the output format option must be 0 or 1 (AVI codec), or 420 or 444 (y4m "
                  "chroma)", FormatOption},
};

}  // namespace

bool VelmoConvParseSwitches(char* line, VelmoConvSettings* s) {
  static const std::string letters = std::string("NOLGMJKRBCPV") + MediaSwitchLetters;
  const SwitchLetters known(letters.c_str());
  *s = VelmoConvSettings{};
  SwitchErrors* errors = &s->errors;
  SwitchCancels(line);
  MediaParseSwitches(line, &s->video, errors);
  s->track = SwitchNumberIn(line, Rules, 'N', 0, errors);
  s->overwrite = SwitchFlag(line, 'O');
  // A raw input: /L type 1 to 4 in the low three bits (less one), its /G rate above them.
  const int32_t forced = SwitchNumberIn(line, Rules, 'L', 0, errors);
  const int32_t forcedRate = SwitchNumberIn(line, Rules, 'G', 11025, errors);
  if (forced >= 1) s->forced_input = uint32_t(forced - 1) | uint32_t(forcedRate) << 3;
  s->skip_bytes = SwitchNumberIn(line, Rules, 'M', 0, errors);
  s->start_ms = SwitchNumberIn(line, Rules, 'J', 0, errors);
  s->end_ms = SwitchNumberIn(line, Rules, 'K', 0, errors);
  s->rate = SwitchNumberIn(line, SoundRateRule, 0, errors);
  s->bits = SwitchNumberIn(line, SoundBitsRule, 0, errors);
  s->channels = SwitchNumberIn(line, SoundChannelsRule, 0, errors);
  s->format_option = SwitchNumberIn(line, Rules, 'P', 0, errors);
  s->sound_only = SwitchFlag(line, 'V');
  if (errors->Failed()) return false;
  if (SwitchesLeft(line)) return false;
  TakeName(s->input, sizeof s->input, line);
  TakeName(s->output, sizeof s->output, line);
  // A "/" in a name is a path separator here; a switch that no question took means help.
  return s->input[0] && s->output[0];
}

void VelmoConvCompleteOutput(VelmoConvSettings* s) {
  if (std::strcmp(s->output, "-") != 0 && !HasExtension(s->output)) {
    const bool wave = EndsWith(s->input, ".wav") || EndsWith(s->input, ".raw") || s->sound_only;
    const size_t used = std::strlen(s->output);
    std::snprintf(s->output + used, sizeof s->output - used, "%s", wave ? ".wav" : ".avi");
  }
  if (EndsWith(s->output, ".wav") || EndsWith(s->output, ".raw")) s->sound_only = true;
}

bool VelmoConvSameFile(const char* a, const char* b) {
  if (std::strcmp(a, b) == 0) return true;
  struct stat sa, sb;
  return stat(a, &sa) == 0 && stat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

int VelmoConvMain(char* commandTail, ToolDialog* dialog) {
  Job* made = new Job();
  ToolFrameSetState(dialog, made, [](void* job) { delete static_cast<Job*>(job); });
  Job& job = *made;
  job.startMs = job.lastElapsedMs = TimerMs();
  VelmoConvSettings& s = job.settings;
  if (!VelmoConvParseSwitches(commandTail, &s)) {
    // A value that a switch does not take is named alone; anything else shows the help.
    if (!s.errors.Failed()) return Help();
    ToolFrameError(s.errors.text);
    return ToolExitBadSwitches;
  }
  VelmoConvCompleteOutput(&s);
  // Names the system cannot take are refused before anything is read or written.
  if (const int refused = ToolRefuseLongNames(s.input, s.output)) return refused;
  int code;
  if (s.sound_only) {
    SoundInput* sound = OpenSound(s, uint32_t(s.start_ms), uint32_t(s.end_ms), {Message, &job});
    if (!sound) {
      if (!job.cancel) {
        std::string text = std::string("No audio could be read from ") + s.input + ".";
        ToolFrameError(text.c_str());
      }
      code = job.cancel ? ToolExitCancelled : ToolExitInputError;
    } else if (const std::string past = StartPastSound(s, sound); !past.empty()) {
      SoundClose(sound);
      ToolFrameError(past.c_str());
      code = ToolExitBadSwitches;
    } else if (VelmoConvSameFile(s.input, s.output)) {
      SoundClose(sound);
      ToolFrameError("The input and output files are the same file.");
      code = ToolExitOutputError;
    } else {
      code = ConvertSound(job, sound);
    }
  } else {
    code = ConvertVideo(job);
  }
  StopTicks(job);
  job.finished = 1;
  return code;
}

int VelmoConvCommand(int commandId, ToolDialog* dialog) {
  Job* job = JobOf(dialog);
  if (commandId != ToolIdCancel || !job) return 1;  // no record yet: the run has not begun
  if (job->finished) return 0;
  if (ToolFrameConfirmCancel("Cancel the conversion?",
                             "Velmo finished the conversion successfully before you cancelled!",
                             &job->finished)) {
    job->cancel = 1;
    ToolFrameShowCancelling(ToolIdCancel);
  }
  return 1;
}
