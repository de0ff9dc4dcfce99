// VelmoMix: switches, the sound input, output names, the run behind the tool shell, its
// progress tick and the cancel dialog.
#include "compress/tool/velmomix.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host/bfile.h"
#include "host/platform.h"
#include "host/switches.h"
#include "host/textformat.h"
#include "media/sound.h"
#include "format/container.h"
#include "format/container_bytes.h"

namespace {

const char SyntaxText[] =
    "Syntax:  VelmoMix <Input Velmo File>[.VLM] <Input Sound File> <Output Velmo File>[.VLM] "
    "[/Switches]\n\n"
    "The sound file may be a wave, raw, FLAC, Ogg Vorbis, Velmo or list file; \"-\" removes the "
    "track of /T. The input name may end in \"|offset\", the position of the Velmo data in a "
    "larger file.";
const char SwitchListText[] =
    "Switches:\n"
    "  /L#   sound level (0 lossless, 4 default, 99 lossy, -1 no sound; +100 older format)\n"
    "  /T#   track ID (0)          /I#  sound track to read from the sound file (0)\n"
    "  /N#   start frame; a negative number is a lead-in of silence in milliseconds\n"
    "  /P    loop the sound if it is shorter than the video\n"
    "  /F#.# override the output frame rate\n"
    "  /R# /B# /C#  force the sound rate, bits, channels\n"
    "  /S# /E#  start and end of the sound in milliseconds\n"
    "  /Y#   raw sound input: 1 8-bit mono, 2 8-bit stereo, 3 16-bit mono, 4 16-bit stereo\n"
    "  /D#   rate of the raw input (11025)   /K#  bytes to skip in the raw input\n"
    "  /O    overwrite without asking";

const char CaptionSuffix[] = "Velmo Audio Mixer";

// The mixer's exit codes follow the compressor's table; 8004 is a failure inside the mixer.
constexpr int ExitMixFailed = ToolExitNoAlpha;

// ---- The run record, shared with the timer and the dialog ------------------------------------

// One mix. The main routine makes it and hands it to the dialog, which keeps it until the run
// is over; the mixer's and the sound layer's messages carry it as their context.
struct Job {
  VelmoMixSettings settings;
  VelmoMixProgress mix{};  // the mixer's counters
  volatile int finished = 0;
  volatile uint32_t cancel = 0;
  volatile uint32_t tickBusy = 0;
  volatile bool mixing = false;  // the mixer runs: the tick shows its counters
  uint32_t startMs = 0, lastElapsedMs = 0, shownFrames = ~0u, progressShift = 0;
  uint32_t statusPercent = ~0u;
};

Job* JobOf(ToolDialog* dialog) { return static_cast<Job*>(ToolFrameState(dialog)); }

void FormatTime(uint32_t ms, char* out, size_t size) {
  const uint32_t s = ms / 1000;
  std::snprintf(out, size, "%u:%02u:%02u", s / 3600, s / 60 % 60, s % 60);
}

uint32_t Percent(uint32_t done, uint32_t total) {
  return total ? uint32_t(uint64_t(done) * 100 / total) : 0;
}

// Every 500 ms on the dialog's thread: the two counters the mixer leaves.
void ProgressTick(ToolDialog* dialog) {
  Job* job = JobOf(dialog);
  if (!job) return;
  AtomicAdd(&job->tickBusy, 1);
  if (job->mixing && !job->finished) {
    const VelmoMixProgress& p = job->mix;
    char text[128];
    const uint32_t now = TimerMs(), elapsed = now - job->startMs;
    if (now - job->lastElapsedMs >= 1500) {
      job->lastElapsedMs = now;
      FormatTime(elapsed, text, sizeof text);
      ToolFrameSetText(VelmoMixIdElapsed, text);
    }
    const uint32_t done = p.FramesDone, total = p.TotalFrames;
    if (done != job->shownFrames && done) {
      job->shownFrames = done;
      std::snprintf(text, sizeof text, "%u%% - %s", Percent(done, total), CaptionSuffix);
      ToolFrameSetCaption(text);
      ToolFrameSetProgressRange(ToolIdProgress, int(total >> job->progressShift));
      ToolFrameSetProgress(ToolIdProgress, int(done >> job->progressShift));
      FormatTime(uint32_t(uint64_t(elapsed) * (total - std::min(done, total)) / done), text,
                 sizeof text);
      ToolFrameSetText(VelmoMixIdRemaining, text);
    }
  }
  AtomicAdd(&job->tickBusy, -1);
}

// The mixer's reports: a label once a frame (the status line follows the percentage), and
// messages in a box. `user` is the run.
int MixProgress(uint32_t kind, const char* text, void* user) {
  if (kind == VelmoProgressError) {
    ToolFrameError(text);
    return 0;
  }
  if (kind == VelmoProgressMessage) {
    ToolFrameTell(text, 0);
    return 0;
  }
  Job& job = *static_cast<Job*>(user);
  const uint32_t frame = job.mix.FramesDone + 1, total = job.mix.TotalFrames;
  while ((total >> job.progressShift) >= 65536) job.progressShift++;
  const uint32_t percent = Percent(frame, total);
  if (percent != job.statusPercent) {
    job.statusPercent = percent;
    char line[160];
    std::snprintf(line, sizeof line, "%s frame %u of %u (%u%%)...", text, frame, total, percent);
    ToolFrameSetText(ToolIdStatus, line);
  }
  return job.cancel ? 1 : 0;
}

// The sound layer's messages ("Normalizing audio...", errors, warnings).
int SoundProgress(void* context, const char* text, int level) {
  const Job& job = *static_cast<const Job*>(context);
  if (level == 3) return 1;
  if (!text) return job.cancel ? 1 : 0;
  if (level == 5) return ToolFrameAsk(text, ToolBoxDefaultFirst) == 1 ? 1 : 0;
  if (text[0] == '@') text++;
  if (level == 2) {  // an error: shown, and the sound stops
    ToolFrameTell(text, 0);
    return 1;
  }
  if (level == 4) ToolFrameWarn(text);
  else if (level == 1) ToolFrameSetText(ToolIdStatus, text);
  return job.cancel ? 1 : 0;
}

// The tool's sound reads: plain, or looping (/P) when the sound is shorter than the video.
uint32_t ReadSound(void* source, void* buffer, uint32_t bytes) {
  return SoundRead(static_cast<SoundInput*>(source), buffer, bytes);
}

uint32_t ReadSoundLooping(void* source, void* buffer, uint32_t bytes) {
  SoundInput* sound = static_cast<SoundInput*>(source);
  uint8_t* out = static_cast<uint8_t*>(buffer);
  uint32_t done = SoundRead(sound, out, bytes);
  while (done < bytes) {
    SoundRewind(sound);
    const uint32_t more = SoundRead(sound, out + done, bytes - done);
    if (!more) break;
    done += more;
  }
  return done;
}

bool FileExists(const char* name) {
  BufferedFile* f = FileOpenRead(4096, name, FileModeReadOnly);
  if (!f) return false;
  FileClose(f);
  return true;
}

bool HasExtension(const char* name) {
  const char* slash = std::strrchr(name, '/');
  return std::strchr(slash ? slash : name, '.') != nullptr;
}

void AddExtension(char* name, size_t size, const char* extension) {
  if (HasExtension(name)) return;
  const size_t n = std::strlen(name);
  std::snprintf(name + n, size - n, "%s", extension);
}

// "name|offset": the Velmo data stands `offset` bytes into the file. A bar that is not followed
// by digits alone is part of the name.
void SplitOffset(char* name, uint64_t* offset) {
  *offset = 0;
  char* bar = std::strrchr(name, '|');
  if (!bar || !bar[1] || std::strspn(bar + 1, "0123456789") != std::strlen(bar + 1)) return;
  *offset = std::strtoull(bar + 1, nullptr, 10);
  *bar = 0;
}

// The milliseconds of video that the new sound can fill: from its start (/N: a lead of
// silence, or a later first frame) to the video's end; -1 when the header does not read.
int64_t SoundRoomMs(const VelmoMixSettings& s) {
  VelmoHeader header{};
  bool ok = false;
  if (BufferedFile* f = FileOpenRead(4096, s.Input, FileModeReadOnly)) {
    uint8_t bytes[VelmoHeaderSize];
    FileSeek(f, s.InputOffset);
    ok = FileRead(f, bytes, sizeof bytes) == sizeof bytes &&
         VelmoParseHeader(bytes, sizeof bytes, &header);
    FileClose(f);
  }
  const uint64_t num = s.RateNumerator ? s.RateNumerator : header.FrameRate;
  const uint64_t den = s.RateNumerator ? s.RateDenominator : header.FrameRateDiv;
  if (!ok || !num || !den) return -1;
  const uint64_t video = uint64_t(header.Frames) * 1000 * den / num;
  uint64_t lead = 0;
  if (s.Start < 0) lead = uint64_t(-int64_t(s.Start));
  else if (s.Start > 1) lead = uint64_t(s.Start - 1) * 1000 * den / num;
  return video > lead ? int64_t(video - lead) : 0;
}

// The mixer takes as much sound as the video lasts: a longer sound loses its end, and the
// user hears so once, with how much was left out.
void SayWhenCut(const VelmoMixSettings& s, const SoundInput* sound) {
  const uint64_t bytesPerSecond = uint64_t(sound->rate) * sound->bytes_per_sample;
  if (!bytesPerSecond || !sound->total_bytes) return;
  const uint64_t soundMs = sound->total_bytes * 1000 / bytesPerSecond;
  const int64_t roomMs = SoundRoomMs(s);
  if (roomMs < 0 || soundMs <= uint64_t(roomMs)) return;
  char time[64], text[240];
  ::FormatTime(time, sizeof time, soundMs - uint64_t(roomMs));
  std::snprintf(text, sizeof text,
                "The sound is longer than the video, so it was cut at the video's end (%s of "
                "sound left out).", time);
  ToolFrameWarn(text);
}

const ToolControlDesc Controls[] = {
    {VelmoMixIdInput, ToolControlText, "Input: "},
    {VelmoMixIdSoundFile, ToolControlText, "Sound file: "},
    {VelmoMixIdOutput, ToolControlText, "Output: "},
    {VelmoMixIdSound, ToolControlText, "Sound: "},
    {ToolIdStatus, ToolControlText, "Starting..."},
    {ToolIdProgress, ToolControlProgress, ""},
    {VelmoMixIdElapsed, ToolControlText, "Elapsed: "},
    {VelmoMixIdRemaining, ToolControlText, "Remaining: "},
    {VelmoMixIdFinal, ToolControlText, ""},
    {ToolIdCancel, ToolControlButton, "&Cancel"},
};
const ToolDialogDesc Dialog = {"velmomix", CaptionSuffix, Controls,
                               int(sizeof Controls / sizeof Controls[0])};
struct Registrar {
  Registrar() { VelmoMixRegisterDialog(); }
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

void VelmoMixRegisterDialog() { ToolDialogRegister(&Dialog); }

// ---- Switches ------------------------------------------------------------------------------------

namespace {

bool Level(int32_t v) { return v == -1 || (v >= 0 && v < 200); }
bool FrameRate(int32_t n, int32_t d) { return n > 0 && d > 0; }

const SwitchRule Rules[] = {
    {'L', -1, 199, "the sound level must be -1 (no sound) to 199", Level},
    {'T', 0, INT32_MAX, "the track ID must be 0 or more"},
    {'I', 0, INT32_MAX, "the sound track to read must be 0 or more"},
};
const SwitchFractionRule RateRule = {'F', FrameRate, "the frame rate must be above 0"};

}  // namespace

bool VelmoMixParseSwitches(char* line, VelmoMixSettings* s) {
  static const std::string letters = std::string("LTINPFO") + SoundSwitchLetters;
  const SwitchLetters known(letters.c_str());
  bool ok = true;
  SwitchErrors* errors = &s->Errors;
  s->Level = SwitchNumberIn(line, Rules, 'L', 4, errors);
  // The mixer's own letters first: /T and /I mean other things to the sound layer.
  s->TrackId = uint32_t(SwitchNumberIn(line, Rules, 'T', 0, errors));
  s->SoundTrack = uint32_t(SwitchNumberIn(line, Rules, 'I', 0, errors));
  s->Start = SwitchNumber(line, 'N', 0);
  s->Loop = SwitchFlag(line, 'P');
  int32_t num = 0, den = 0;
  if (SwitchFractionIn(line, RateRule, &num, &den, 0, 0, errors)) {
    s->RateNumerator = uint32_t(num);
    s->RateDenominator = uint32_t(den);
  }
  s->Overwrite = SwitchFlag(line, 'O');
  SoundSwitches sound{};
  SoundParseSwitches(line, &sound, errors);
  s->SoundRate = sound.rate;
  s->SoundBits = sound.bits;
  s->SoundChannels = sound.channels;
  s->StartMs = sound.start_ms;
  s->EndMs = sound.end_ms;
  s->Force = sound.force;
  s->Skip = sound.skip;
  if (errors->Failed()) ok = false;
  if (SwitchesLeft(line)) ok = false;
  TakeName(s->Input, sizeof s->Input, line);
  TakeName(s->Sound, sizeof s->Sound, line);
  TakeName(s->Output, sizeof s->Output, line);
  if (!s->Input[0] || !s->Sound[0] || !s->Output[0]) ok = false;
  SplitOffset(s->Input, &s->InputOffset);
  return ok;
}

void VelmoMixInputExtension(char* name, size_t size) { AddExtension(name, size, ".vlm"); }

void VelmoMixOutputExtension(char* name, size_t size, const char* input, uint64_t offset) {
  uint32_t magic = 0;
  if (BufferedFile* f = FileOpenRead(4096, input, FileModeReadOnly)) {
    FileSeek(f, offset);
    uint8_t bytes[4] = {};
    if (FileRead(f, bytes, 4) == 4) magic = velmo_bytes::Load32(bytes);
    FileClose(f);
  }
  AddExtension(name, size, MagicIsSecondGeneration(magic) ? ".vm2" : ".vlm");
}

// ---- The run ------------------------------------------------------------------------------------

int VelmoMixMain(char* commandTail, ToolDialog* dialog) {
  Job* made = new Job();
  ToolFrameSetState(dialog, made, [](void* job) { delete static_cast<Job*>(job); });
  Job& job = *made;
  job.startMs = job.lastElapsedMs = TimerMs();

  VelmoMixSettings& s = job.settings;
  if (!VelmoMixParseSwitches(commandTail, &s)) return SyntaxError(s.Errors);
  if (const int refused = ToolRefuseLongNames(s.Input, nullptr)) return refused;
  if (const int refused = ToolRefuseLongNames(s.Sound, nullptr)) return refused;

  // The sound, as the compressor opens it: 16 bits, with the normalising level of /B.
  const bool removal = std::strcmp(s.Sound, "-") == 0 || s.Level == -1;
  SoundInput* sound = nullptr;
  char text[PathBytes + 100];
  if (!removal) {
    ToolFrameSetText(ToolIdStatus, "Opening sound file...");
    sound = SoundOpen(s.Sound, s.SoundRate, s.SoundBits / 100 * 100 + 16, s.SoundChannels,
                      s.StartMs, s.EndMs, s.SoundTrack, s.Force, s.Skip, {SoundProgress, &job});
    if (!sound) {
      std::snprintf(text, sizeof text, "Couldn't open the sound file '%s'.", s.Sound);
      ToolFrameError(text);
      return ToolExitInputError;
    }
    if (s.StartMs && !sound->total_bytes) {
      SoundClose(sound);
      std::snprintf(text, sizeof text, "/S%u: the start is past the end of the sound '%s'.",
                    s.StartMs, s.Sound);
      ToolFrameError(text);
      return ToolExitBadSwitches;
    }
  }

  VelmoMixInputExtension(s.Input, sizeof s.Input);
  VelmoMixOutputExtension(s.Output, sizeof s.Output, s.Input, s.InputOffset);
  if (const int refused = ToolRefuseLongNames(nullptr, s.Output)) {
    if (sound) SoundClose(sound);
    return refused;
  }
  if (!s.Overwrite && FileExists(s.Output)) {
    const std::string q = std::string("File ") + s.Output + " exists, overwrite?";
    if (ToolFrameAsk(q.c_str(), ToolBoxDefaultSecond) != 1) {
      if (sound) SoundClose(sound);
      return ToolExitNoOverwrite;
    }
  }

  VelmoMixTrack track{};
  track.TrackId = s.TrackId;
  track.Level = s.Level;
  if (sound) {
    track.SampleRate = sound->rate;
    track.Bits = s.SoundBits % 100 ? s.SoundBits % 100 : sound->bits;
    track.Channels = sound->channels;
    track.Source = sound;
    track.ReadSamples = s.Loop ? ReadSoundLooping : ReadSound;
  }

  std::snprintf(text, sizeof text, "Input: %s", s.Input);
  ToolFrameSetText(VelmoMixIdInput, text);
  std::snprintf(text, sizeof text, "Sound file: %s", s.Sound);
  ToolFrameSetText(VelmoMixIdSoundFile, text);
  std::snprintf(text, sizeof text, "Output: %s", s.Output);
  ToolFrameSetText(VelmoMixIdOutput, text);
  if (sound)
    std::snprintf(text, sizeof text, "%u hz, %u-bit, %s.", track.SampleRate, track.Bits,
                  track.Channels > 1 ? "stereo" : "mono");
  else
    std::snprintf(text, sizeof text, "None.");
  ToolFrameSetText(VelmoMixIdSound, text);

  VelmoMixProgress& progress = job.mix;
  progress.Report = MixProgress;
  progress.User = &job;
  job.mixing = true;
  ToolFrameSetTimer(ProgressTick, 500);
  const uint64_t size = VelmoMixFile(s.Input, s.Output, s.InputOffset, s.RateNumerator,
                                     s.RateDenominator, s.Start, 1, &track, &progress);
  ToolFrameSetTimer(nullptr, 0);
  job.finished = 1;
  while (AtomicRead(&job.tickBusy)) ThreadSleep(1);
  job.mixing = false;
  if (sound && size) SayWhenCut(s, sound);
  if (sound) SoundClose(sound);

  if (progress.Cancelled || (job.cancel && !size)) return ToolExitCancelled;
  // The mixer has said why.
  if (!size && progress.Failure == VelmoMixFailedOutput) return ToolExitOutputError;
  if (!size && progress.Failure == VelmoMixFailedWrite) return ToolExitDiskWriteError;
  if (!size) return ExitMixFailed;

  const uint32_t frames = progress.FramesDone;
  std::snprintf(text, sizeof text, "%u total frames mixed.", frames);
  ToolFrameSetText(ToolIdStatus, text);
  char t[64];
  FormatTime(TimerMs() - job.startMs, t, sizeof t);
  std::snprintf(text, sizeof text, "Total time: %s", t);
  ToolFrameSetText(VelmoMixIdElapsed, text);
  ToolFrameSetText(VelmoMixIdRemaining, "Done!");
  const uint64_t input = uint64_t(progress.Width) * progress.Height * 3 * frames;
  const uint64_t ratio10 = input * 10 / size;
  std::snprintf(text, sizeof text, "Final: %llu bytes (%llu.%01llu to 1)",
                (unsigned long long)size, (unsigned long long)(ratio10 / 10),
                (unsigned long long)(ratio10 % 10));
  ToolFrameSetText(VelmoMixIdFinal, text);
  ToolFrameSetProgressRange(ToolIdProgress, 1);
  ToolFrameSetProgress(ToolIdProgress, 1);
  return ToolExitDone;
}

int VelmoMixCommand(int commandId, ToolDialog* dialog) {
  Job* job = JobOf(dialog);
  if (commandId != ToolIdCancel || !job) return 1;  // no record yet: the run has not begun
  if (job->finished) return 0;
  if (!ToolFrameConfirmCancel("Cancel the mixing?",
                              "The mixer finished successfully before you cancelled!",
                              &job->finished))
    return 1;
  job->cancel = 1;
  ToolFrameShowCancelling(ToolIdCancel);
  return 1;
}
