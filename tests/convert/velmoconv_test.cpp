// VelmoConv run as the real program with the console front end: series, AVI, y4m (also to a
// pipe), a first-generation Velmo back to PNG, wave and raw outputs with the sound switches, a
// Velmo file's track into an AVI beside its frames, and the exit codes.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <tuple>

#include "compress/tool/velmomix.h"
#include "convert/velmoconv.h"
#include "host/toolframe.h"
#include "media/readers/stream_readers.h"
#include "program_test_support.h"

namespace {

using namespace program_test;

const char* const Program = ORN_PROGRAM_PATH;

// Runs the program with a tail; returns its exit status, its stdout in *out when given.
int RunProgram(const std::string& tail, std::string* out = nullptr,
               const std::string& pipeTo = "") {
  std::string command = "ORN_CONSOLE=1 \"" + std::string(Program) + "\" " + tail + " </dev/null";
  command += out ? " 2>/dev/null" : " >/dev/null 2>&1";
  if (!pipeTo.empty()) command = "set -o pipefail; " + command + " | " + pipeTo;
  return RunShell("bash -c '" + command + "'", out);
}

int Code(int exitCode) { return exitCode & 255; }

uint32_t PixelOf(int frame, int x, int y, bool alpha) {
  const uint32_t a = alpha ? uint32_t((x * 16 + y * 4) & 255) : 255u;
  return a << 24 | uint32_t((x * 8 + frame * 20) & 255) << 16 | uint32_t((y * 8) & 255) << 8 |
         uint32_t((frame * 40 + 30) & 255);
}

// Frames "name1.png" .. "nameN.png" of a gradient that moves.
void MakeSeries(const std::string& base, int frames, int width, int height, bool alpha) {
  std::vector<uint32_t> pixels(size_t(width) * height);
  for (int f = 1; f <= frames; ++f) {
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) pixels[size_t(y) * width + x] = PixelOf(f, x, y, alpha);
    WritePng(base + std::to_string(f) + ".png", pixels, width, height, alpha);
  }
}

using VelmoConvRun = TempDirTest;

TEST(VelmoConvSwitches, NamesAndOwnSwitches) {
  VelmoConvSettings s;
  // The output's type: given, or from /V and the input; the dot of a folder is no extension.
  // A raw input: the type less one in the low three bits, the rate above (11025 when not given).
  const struct {
    const char* line;
    const char* output;
    bool sound_only;
    uint32_t forced;
  } cases[] = {
      {"in.png out /p444 /o /n-1", "out.avi", false, 0},
      {"in.png out /v", "out.wav", true, 0},
      {"in.WAV dir.x/take.RAW", "dir.x/take.RAW", true, 0},
      {"clip.wav out", "out.wav", true, 0},
      {"in.pcm out.wav /L3 /G8000 /M44", "out.wav", true, 2u | 8000u << 3},
      {"in.pcm out.wav /L1", "out.wav", true, 0u | 11025u << 3},
      {"in.pcm out.wav /L5 /G8000", "out.wav", true, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    char line[256];
    std::snprintf(line, sizeof line, "%s", c.line);
    ASSERT_TRUE(VelmoConvParseSwitches(line, &s));
    VelmoConvCompleteOutput(&s);
    EXPECT_STREQ(s.output, c.output);
    EXPECT_EQ(s.sound_only, c.sound_only);
    EXPECT_EQ(s.forced_input, c.forced);
  }
  for (const char* bad : {"in.png /o", "in.png out.avi /%5"}) {  // no output; unknown switch
    char line[256];
    std::snprintf(line, sizeof line, "%s", bad);
    EXPECT_FALSE(VelmoConvParseSwitches(line, &s)) << bad;
  }
}

TEST_F(VelmoConvRun, SeriesToPngAviAndY4m) {
  MakeSeries(dir + "/in", 3, 32, 16, true);
  const std::string in = "velmoconv \"" + dir + "/in?.png*1-3\" ";
  // Three frames number from 0 with one digit; /Z1000 keeps the alpha plane.
  ASSERT_EQ(RunProgram(in + dir + "/out.png /z1000"), 0);
  for (int f = 0; f < 3; ++f) {
    Picture p;
    ASSERT_TRUE(ReadPicture(dir + "/out" + std::to_string(f) + ".png", &p)) << f;
    ASSERT_EQ(p.width, 32);
    ASSERT_EQ(p.height, 16);
    EXPECT_TRUE(p.has_alpha);
    EXPECT_EQ(p.pixels[5 * 32 + 7], PixelOf(f + 1, 7, 5, true)) << f;
  }
  EXPECT_FALSE(Exists(dir + "/out3.png"));
  // AVI: ".avi" added to a bare name; /P1 asks for motion JPEG, smaller than raw frames.
  ASSERT_EQ(RunProgram(in + dir + "/raw"), 0);
  const std::string raw = ReadAll(dir + "/raw.avi");
  ASSERT_GT(raw.size(), size_t(3 * 32 * 16 * 3));
  EXPECT_EQ(raw.compare(0, 4, "RIFF"), 0);
  EXPECT_EQ(raw.compare(8, 4, "AVI "), 0);
  EXPECT_NE(raw.find("00db"), std::string::npos);
  ASSERT_EQ(RunProgram(in + dir + "/mj.avi /p1"), 0);
  const std::string mjpeg = ReadAll(dir + "/mj.avi");
  EXPECT_NE(mjpeg.find("MJPG"), std::string::npos);
  EXPECT_LT(mjpeg.size(), raw.size());
  // y4m has no alpha: the question's default answer goes on without it. 4:2:0 to a file,
  // 4:4:4 on standard output through a pipe; pictures go at 15 frames a second.
  std::string file, piped;
  ASSERT_EQ(RunProgram(in + dir + "/a.y4m /z1000"), 0);
  file = ReadAll(dir + "/a.y4m");
  ASSERT_EQ(RunProgram(in + "- /p444", &piped, "cat"), 0);
  for (const auto& [y4m, chroma, frameBytes] :
       {std::tuple{file, "C420jpeg", 32 * 16 * 3 / 2}, {piped, "C444", 32 * 16 * 3}}) {
    EXPECT_EQ(y4m.substr(0, y4m.find('\n')),
              std::string("YUV4MPEG2 W32 H16 F15:1 Ip A1:1 ") + chroma);
    EXPECT_EQ(y4m.size(), y4m.find('\n') + 1 + 3 * (6 + frameBytes)) << chroma;
  }
}

TEST_F(VelmoConvRun, FirstGenerationVelmoBackToPng) {
  MakeSeries(dir + "/in", 6, 32, 32, false);
  const std::string vlm = dir + "/clip.vlm";
  ASSERT_EQ(RunProgram("velmoc \"" + dir + "/in?.png*1-6\" " + vlm + " /v101 /d200000"), 0);
  ASSERT_TRUE(Exists(vlm));
  ASSERT_EQ(RunProgram("velmoconv " + vlm + " " + dir + "/back.png"), 0);
  for (int f = 0; f < 6; ++f) {
    Picture p;
    ASSERT_TRUE(ReadPicture(dir + "/back" + std::to_string(f) + ".png", &p)) << f;
    ASSERT_EQ(p.width, 32);
    ASSERT_EQ(p.height, 32);
    // A lossy round trip: close to the source, not equal.
    double error = 0;
    for (int y = 0; y < 32; ++y)
      for (int x = 0; x < 32; ++x) {
        const uint32_t a = p.pixels[size_t(y) * 32 + x], b = PixelOf(f + 1, x, y, false);
        for (int shift = 0; shift < 24; shift += 8)
          error += std::abs(int((a >> shift) & 255) - int((b >> shift) & 255));
      }
    EXPECT_LT(error / (32 * 32 * 3), 12.0) << f;
  }
}

// A PCM wave file of interleaved 16-bit samples.
void WriteWave(const std::string& name, uint32_t rate, uint16_t channels,
               const std::vector<int16_t>& samples) {
  program_test::WriteWave(name, 1, channels, rate, 16, samples.data(),
                          uint32_t(samples.size() * 2));
}

std::vector<int16_t> Samples16(const std::string& data, size_t from) {
  std::vector<int16_t> out((data.size() - from) / 2);
  std::memcpy(out.data(), data.data() + from, out.size() * 2);
  return out;
}

TEST_F(VelmoConvRun, WaveCopiedToWaveAndRawAndReadAsRaw) {
  const std::string wav = dir + "/tone.wav";
  std::vector<int16_t> samples(1000);
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = int16_t(i * 37);
  WriteWave(wav, 8000, 1, samples);
  const std::string pcm(reinterpret_cast<const char*>(samples.data()), 2000);
  ASSERT_EQ(RunProgram("velmoconv " + wav + " " + dir + "/copy.raw"), 0);
  EXPECT_EQ(ReadAll(dir + "/copy.raw"), pcm);
  // A copy (".wav" added); the same file read as headerless 16-bit mono at a forced rate past
  // its 44 header bytes; read as 8-bit stereo, each byte pair one sample of two channels.
  const struct {
    const char *name, *switches;
    uint32_t rate, bits, channels;
  } outputs[] = {{"copy", "", 8000, 16, 1},
                 {"forced", " /L3 /G11025 /M44", 11025, 16, 1},
                 {"bytes", " /L2 /G8000 /M44 /B8", 8000, 8, 2}};
  for (const auto& o : outputs) {
    SCOPED_TRACE(o.name);
    ASSERT_EQ(RunProgram("velmoconv " + wav + " " + dir + "/" + o.name + o.switches), 0);
    const std::string out = ReadAll(dir + "/" + o.name + ".wav");
    ExpectWaveHeader(out, o.rate, o.bits, o.channels, 2000);
    EXPECT_EQ(out.substr(44), pcm);
  }
}

TEST_F(VelmoConvRun, WaveOutputsTakeFormatAndRangeSwitches) {
  // Stereo at 8000 Hz, one second: left rises by 40 a sample, right by 8.
  const std::string wav = dir + "/st.wav";
  std::vector<int16_t> samples;
  for (int i = 0; i < 8000; ++i) {
    samples.push_back(int16_t(i * 4 % 32000));
    samples.push_back(int16_t(i * 2 % 16000));
  }
  WriteWave(wav, 8000, 2, samples);
  // Mono: the mean of the two channels.
  ASSERT_EQ(RunProgram("velmoconv " + wav + " " + dir + "/mono.wav /C1"), 0);
  const std::string mono = ReadAll(dir + "/mono.wav");
  ExpectWaveHeader(mono, 8000, 16, 1, 16000);
  const std::vector<int16_t> m = Samples16(mono, 44);
  ASSERT_EQ(m.size(), 8000u);
  for (size_t i = 0; i < m.size(); i += 97)
    EXPECT_EQ(m[i], (samples[2 * i] + samples[2 * i + 1]) / 2) << i;
  // 8 bits: the top byte of each value with its sign bit turned over.
  ASSERT_EQ(RunProgram("velmoconv " + wav + " " + dir + "/eight.wav /B8"), 0);
  const std::string eight = ReadAll(dir + "/eight.wav");
  ExpectWaveHeader(eight, 8000, 8, 2, 16000);
  for (size_t i = 0; i < samples.size(); i += 101)
    EXPECT_EQ(uint8_t(eight[44 + i]), uint8_t((samples[i] >> 8) + 128)) << i;
  // Milliseconds 250 to 500: samples 2000 to 3999.
  ASSERT_EQ(RunProgram("velmoconv " + wav + " " + dir + "/part.wav /J250 /K500"), 0);
  const std::string part = ReadAll(dir + "/part.wav");
  ExpectWaveHeader(part, 8000, 16, 2, 2000 * 4);
  const std::vector<int16_t> p = Samples16(part, 44);
  ASSERT_EQ(p.size(), 4000u);
  EXPECT_EQ(p.front(), samples[4000]);
  EXPECT_EQ(p.back(), samples[7999]);
  // Twice the rate: twice the samples, the source's values at the even places.
  ASSERT_EQ(RunProgram("velmoconv " + wav + " " + dir + "/fast.wav /R16000 /J0 /K100"), 0);
  const std::string fast = ReadAll(dir + "/fast.wav");
  ExpectWaveHeader(fast, 16000, 16, 2, 1600 * 4);
  const std::vector<int16_t> f = Samples16(fast, 44);
  ASSERT_EQ(f.size(), 3200u);
  for (size_t i = 10; i < 790; i += 37) {
    const int left = samples[2 * i];
    EXPECT_NEAR(f[4 * i], left, 1) << i;
    EXPECT_NEAR(f[4 * i + 2], left + 2, 1) << i;  // half way to the next (4 on)
  }
}

// A YUV4MPEG2 clip of flat grey frames that brighten, at 30 frames a second.
void WriteY4m(const std::string& name, int frames, int w, int h) {
  FILE* f = std::fopen(name.c_str(), "wb");
  ASSERT_TRUE(f);
  std::fprintf(f, "YUV4MPEG2 W%d H%d F30:1 Ip A1:1 C420jpeg\n", w, h);
  std::vector<uint8_t> plane(size_t(w) * h * 3 / 2, 128);
  for (int t = 0; t < frames; ++t) {
    std::fill(plane.begin(), plane.begin() + w * h, uint8_t(40 + t * 3));
    std::fputs("FRAME\n", f);
    std::fwrite(plane.data(), 1, plane.size(), f);
  }
  std::fclose(f);
}

// The PCM of an AVI file's first audio stream, chunk by chunk.
struct AviSound {
  StreamAudioTrack track{};  // its pointers are gone with the reader: see `places`
  std::vector<StreamAudioChunk> places;
  std::vector<std::string> chunks;
  std::string pcm;  // all the chunks
  uint32_t rate_num = 0, rate_den = 0, frames = 0;
};

bool ReadAviSound(const std::string& name, AviSound* out) {
  StreamError error{};
  StreamReader* reader = StreamReaderOpen(&kStreamReaderAvi, name.c_str(), &error);
  if (!reader) return false;
  const StreamInfo* info = StreamReaderInfo(reader);
  out->rate_num = info->rate_num;
  out->rate_den = info->rate_den;
  out->frames = info->frame_count;
  const bool ok = StreamReaderAudioTrackCount(reader) == 1 &&
                  StreamReaderAudioTrack(reader, 0, &out->track);
  for (uint32_t c = 0; ok && c < out->track.chunk_count; ++c) {
    out->places.push_back(out->track.chunks[c]);
    std::string chunk(out->track.chunks[c].size, '\0');
    chunk.resize(StreamReaderReadAudio(reader, 0, c, chunk.data(), chunk.size()));
    out->chunks.push_back(chunk);
    out->pcm += chunk;
  }
  StreamReaderClose(reader);
  out->track.chunks = nullptr;
  out->track.extra = nullptr;
  return ok;
}

// A 45-frame Velmo clip (1.5 seconds) with one track made by the mixer from two seconds of a
// mono 11025 Hz sweep, into an AVI, a wave file and sound ranges.
TEST_F(VelmoConvRun, VelmoTrackGoesIntoAviAheadOfItsFrames) {
  WriteY4m(dir + "/clip.y4m", 45, 16, 16);
  ASSERT_EQ(RunProgram("velmoc " + dir + "/clip.y4m " + dir + "/plain.vlm /v101 /d100000"), 0);
  std::vector<int16_t> samples(2 * 11025);
  for (size_t i = 0; i < samples.size(); ++i)
    samples[i] = int16_t(9000 * std::sin(double(i) * (0.05 + double(i) * 2e-6)));
  WriteWave(dir + "/sweep.wav", 11025, 1, samples);
  SoundInput* sound = SoundOpen((dir + "/sweep.wav").c_str(), 0, 16, 0, 0, 0, 0, 0, 0, {});
  ASSERT_TRUE(sound);
  VelmoMixTrack track{0, 11025, 16, 1, 4, sound, ReadSoundInput};
  const std::string vlm = dir + "/clip.vlm", conv = "velmoconv " + vlm + " " + dir;
  const uint64_t size =
      VelmoMixFile((dir + "/plain.vlm").c_str(), vlm.c_str(), 0, 0, 0, 0, 1, &track, nullptr);
  SoundClose(sound);
  ASSERT_GT(size, 0u);

  ASSERT_EQ(RunProgram(conv + "/clip.avi"), 0);
  // The track alone, as the sound layer decodes it, for comparison.
  ASSERT_EQ(RunProgram(conv + "/track.wav"), 0);
  const std::string wave = ReadAll(dir + "/track.wav");
  ExpectWaveHeader(wave, 11025, 16, 1, uint32_t(wave.size() - 44));
  // The mixer made the track as long as the frames, give or take its rounding.
  ASSERT_NEAR(double(wave.size() - 44), 33075.0, 8.0);

  AviSound avi;
  ASSERT_TRUE(ReadAviSound(dir + "/clip.avi", &avi));
  EXPECT_EQ(avi.frames, 45u);
  ASSERT_EQ(uint64_t(avi.rate_num) * 1, uint64_t(avi.rate_den) * 30);
  EXPECT_EQ(avi.track.format_tag, 1);
  EXPECT_EQ(avi.track.channels, 1);
  EXPECT_EQ(avi.track.samples_per_second, 11025u);
  EXPECT_EQ(avi.track.bits_per_sample, 16);
  EXPECT_EQ(avi.track.block_align, 2);
  ASSERT_GE(avi.chunks.size(), 2u);
  // After the first frame: three quarters of a second (8268 samples, a multiple of 4) and
  // one frame's 735 bytes, in whole samples: 16536 + 734.
  EXPECT_EQ(avi.chunks[0].size(), 17270u);
  // Then about a frame's worth after each frame, until the sound reaches the frames' length;
  // a frame's video chunk (16 × 16 × 3 bytes and its header) lies between two sound chunks.
  for (size_t c = 1; c < avi.chunks.size(); ++c) {
    EXPECT_GE(avi.chunks[c].size(), 2u) << c;
    EXPECT_LE(avi.chunks[c].size(), 736u) << c;
    const StreamAudioChunk& before = avi.places[c - 1];
    EXPECT_EQ(avi.places[c].offset,
              before.offset + before.size + (before.size & 1) + 8 + (8 + 16 * 16 * 3))
        << c;
  }
  // 1.5 seconds of 22050 bytes a second in whole samples (33074), or the track's end if that
  // comes first, and the same samples as the track's own decoding.
  const std::string& pcm = avi.pcm;
  ASSERT_EQ(pcm.size(), std::min<size_t>(33074u, wave.size() - 44));
  EXPECT_EQ(avi.track.total_bytes, pcm.size());
  EXPECT_TRUE(pcm == wave.substr(44, pcm.size())) << "the AVI's sound differs from the track's";
  // A lossy track, yet close to the sweep it was made from.
  double signal = 0, noise = 0;
  for (size_t i = 0; i < pcm.size() / 2; ++i) {
    const int a = samples[i], b = int16_t(Le16(pcm, 2 * i));
    signal += double(a) * a;
    noise += double(a - b) * (a - b);
  }
  EXPECT_GT(10 * std::log10(signal / std::max(noise, 1.0)), 15.0);

  // /N-1, or a track that is not there: the frames go on without an audio stream.
  for (const char* tail : {"/mute.avi /n-1", "/none.avi /n3"}) {
    ASSERT_EQ(RunProgram(conv + tail), 0);
    AviSound none;
    EXPECT_FALSE(
        ReadAviSound(dir + std::string(tail).substr(0, std::string(tail).find(' ')), &none));
    EXPECT_EQ(none.frames, 45u) << tail;
  }
  // /V: the sound alone, in a wave file named for it; a range and a format change go with it.
  ASSERT_EQ(RunProgram(conv + "/part /v /j500 /k1000 /b8"), 0);
  ExpectWaveHeader(ReadAll(dir + "/part.wav"), 11025, 8, 1, 11025 - 11025 * 500 / 1000);
  // A range with video: /J and /K pick the sound; the frames stay as they were.
  ASSERT_EQ(RunProgram(conv + "/late.avi /j1000 /k1200"), 0);
  AviSound late;
  ASSERT_TRUE(ReadAviSound(dir + "/late.avi", &late));
  EXPECT_EQ(late.pcm.size(), 2u * (11025 * 1200 / 1000 - 11025));
  EXPECT_EQ(late.frames, 45u);
}

TEST_F(VelmoConvRun, ExitCodes) {
  MakeSeries(dir + "/in", 1, 8, 8, false);
  WriteWave(dir + "/tone.wav", 8000, 1, std::vector<int16_t>(100, 5));
  const std::string png = "velmoconv " + dir + "/in1.png ", wav = "velmoconv " + dir + "/tone.wav ";
  // An existing output: the console's default answer is No, /O writes over it. A sound has no
  // frames for an AVI, a picture no sound for a wave file, and /N-1 asks for no sound.
  const struct {
    std::string command;
    int code;
  } runs[] = {{png, 8005},                                  // no output
              {png + dir + "/o.avi /%3", 8005},             // unknown switch
              {"velmoconv " + dir + "/missing.png " + dir + "/m.avi", 8002},
              {png + dir + "/in1.png", 8006},               // the input itself
              {png + dir + "/o.gif", 8006},                 // palette output
              {png + dir + "/o.xyz", 8006},
              {png + dir + "/o.avi", 0},
              {png + dir + "/o.avi", 8003},
              {png + dir + "/o.avi /o", 0},
              {png + dir + "/s.png", 0},
              {png + dir + "/s.png", 8003},
              {wav + dir + "/tone.avi", 8002},
              {png + dir + "/x.wav", 8002},
              {wav + dir + "/y.wav /N-1", 8002}};
  for (const auto& r : runs) EXPECT_EQ(Code(RunProgram(r.command)), Code(r.code)) << r.command;
  for (const char* name : {"/m.avi", "/tone.avi", "/x.wav", "/y.wav"})
    EXPECT_FALSE(Exists(dir + name));
}

// The converter run in this process through the tool shell, as the program runs it.
int RunHere(const std::string& tail) {
  VelmoConvRegisterDialog();
  ToolFrameSetFrontEnd(ToolConsoleFrontEnd());
  return ToolFrameRun(nullptr, 0, tail.c_str(), 1, false, VelmoConvMain, VelmoConvCommand,
                      "velmoconv");
}

// Conversions one after another in one process, as a batch makes them: the first ends at a
// refused overwrite, the second at an input that is missing, and each run after them writes
// the bytes that the program writes in a process of its own.
TEST_F(VelmoConvRun, RunsInOneProcessWriteWhatSeparateProgramsWrite) {
  ASSERT_NE(std::freopen("/dev/null", "r", stdin), nullptr);  // every question takes its default
  MakeSeries(dir + "/g", 6, 24, 16, false);
  std::vector<int16_t> samples(3000);
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = int16_t(i * 91);
  WriteWave(dir + "/tone.wav", 8000, 1, samples);
  { std::ofstream(dir + "/taken.y4m") << "keep"; }
  const std::string series = dir + "/g?.png*1-6 ";
  testing::internal::CaptureStderr();
  EXPECT_EQ(RunHere(series + dir + "/taken.y4m"), ToolExitNoOverwrite);
  EXPECT_EQ(RunHere(dir + "/missing.png " + dir + "/m.y4m"), ToolExitInputError);
  const struct {
    std::string input, output, switches;
  } runs[] = {{series, "all.y4m", ""},
              {dir + "/tone.wav ", "tone.wav", " /R11025 /C2"},
              {series, "part.y4m", " /S2 /E5 /P444"}};
  for (const auto& r : runs)
    EXPECT_EQ(RunHere(r.input + dir + "/here_" + r.output + r.switches), ToolExitDone) << r.output;
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(ReadAll(dir + "/taken.y4m"), "keep");
  for (const auto& r : runs) {
    SCOPED_TRACE(r.output);
    ASSERT_EQ(RunProgram("velmoconv " + r.input + dir + "/own_" + r.output + r.switches), 0);
    const std::string own = ReadAll(dir + "/own_" + r.output);
    EXPECT_GT(own.size(), 100u);
    EXPECT_TRUE(ReadAll(dir + "/here_" + r.output) == own);
  }
}

}  // namespace
