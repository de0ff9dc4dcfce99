// VelmoConv run as the real program with the console front end: series, AVI, y4m (also to a
// pipe), a first-generation Velmo back to PNG, wave and raw outputs with the sound switches, a
// Velmo file's track into an AVI beside its frames, and the exit codes.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <tuple>

#include "compress/tool/velmomix.h"
#include "convert/velmoconv.h"
#include "host/toolframe.h"
#include "media/readers/stream_readers.h"
#include "program_test_support.h"
#include "support/scripted_answers.h"

namespace {

using namespace program_test;

// Runs the program on a tail; its exit status, as the shell sees it.
int ExitOf(const std::string& tail) { return RunTail(tail).code; }

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
    ASSERT_TRUE(WriteImage(base + std::to_string(f) + ".png", IMAGE_FORMAT_PNG, width, height, pixels, alpha));
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
      {"in.png out/o/n-1", "out.avi", false, 0},  // joined switches
      {"in.png out.wav/v", "out.wav", true, 0},
      {"in.png out /v", "out.wav", true, 0},
      {"in.WAV dir.x/take.RAW", "dir.x/take.RAW", true, 0},
      {"clip.wav out", "out.wav", true, 0},
      {"in.pcm out.wav /L3 /G8000 /M44", "out.wav", true, 2u | 8000u << 3},
      {"in.pcm out.wav /L1", "out.wav", true, 0u | 11025u << 3},
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
}

// A value that a switch does not take is refused by name: the converter's own switches, the
// sound format and the video switches alike.
TEST(VelmoConvSwitches, RefusedValuesAreNamed) {
  const struct {
    const char* line;
    const char* message;
  } cases[] = {
      {"in.pcm out.wav /L5 /G8000", "/L5: the forced input type must be 1 to 4"},
      {"in.pcm out.wav /L1 /G0", "/G0: the forced input rate must be 1 to 1000000 Hz."},
      {"in.png out.avi /N-2", "/N-2: the sound track must be 0 or more (-1 for no audio)."},
      // One each of the shared sound and video switches (their own tests go through them all).
      {"in.png out.avi /B7", "/B7: the output bits must be 8 or 16."},
      {"in.png out.avi /W100000", "/W100000: the crop width must be 0 (the whole width) to 16384."},
      {"in.png out.avi /P2", "/P2: the output format option must be 0 or 1 (AVI codec), or 420"},
      {"in.png out.avi /J-1", "/J-1: the starting time must be 0 milliseconds or more."},
  };
  for (const auto& c : cases) {
    char line[256];
    std::snprintf(line, sizeof line, "%s", c.line);
    VelmoConvSettings s;
    EXPECT_FALSE(VelmoConvParseSwitches(line, &s)) << c.line;
    EXPECT_EQ(std::string(s.errors.text).rfind(c.message, 0), 0u) << c.line << ": " << s.errors.text;
  }
  char line[] = "in.png out.y4m /P420 /B16 /C1 /R22050 /N-1 /D2 /T1";
  VelmoConvSettings s;
  EXPECT_TRUE(VelmoConvParseSwitches(line, &s)) << s.errors.text;
}

// The program names the refused value alone, and an input whose alpha is dropped says so once.
TEST_F(VelmoConvRun, RefusedValueAndDroppedAlphaAreTold) {
  MakeSeries(dir + "/in", 1, 8, 8, true);
  const ToolOutcome bits = RunTail("velmoconv " + dir + "/in1.png " + dir + "/o.avi /B7");
  EXPECT_EQ(bits.code, 8005 & 255);
  EXPECT_EQ(bits.Times("/B7: the output bits must be 8 or 16."), 1u) << bits.output;
  EXPECT_FALSE(bits.Says("Syntax:")) << bits.output;
  EXPECT_FALSE(Exists(dir + "/o.avi"));
  const ToolOutcome dropped = RunTail("velmoconv " + dir + "/in1.png " + dir + "/o.png");
  EXPECT_EQ(dropped.code, 0);
  EXPECT_EQ(dropped.Times(MediaTextAlphaDropped), 1u) << dropped.output;
  const ToolOutcome kept = RunTail("velmoconv " + dir + "/in1.png " + dir + "/k.png /Z1000");
  EXPECT_EQ(kept.code, 0);
  EXPECT_FALSE(kept.Says(MediaTextAlphaDropped)) << kept.output;
}

// Alpha asked of an exporter that cannot store it (an AVI, a BMP) is asked about; the console's
// default answer goes on without alpha, and 10000 in /Z goes on without asking. PNG keeps it.
TEST_F(VelmoConvRun, ExportersWithoutAlphaAskBeforeDroppingIt) {
  MakeSeries(dir + "/in", 1, 8, 8, true);
  const std::string png = "velmoconv " + dir + "/in1.png " + dir;
  const std::string question = "the output file exporter doesn't support alpha";
  for (const char* out : {"/a.avi /Z1000", "/b.bmp /Z1000"}) {
    const ToolOutcome asked = RunTail(png + out);
    EXPECT_EQ(asked.code, 0) << out;
    EXPECT_EQ(asked.Times(question), 1u) << out << asked.output;
  }
  const ToolOutcome quiet = RunTail(png + "/q.avi /Z11000");
  EXPECT_EQ(quiet.code, 0);
  EXPECT_FALSE(quiet.Says(question)) << quiet.output;
  const ToolOutcome keeps = RunTail(png + "/k.png /Z1000");
  EXPECT_EQ(keeps.code, 0);
  EXPECT_FALSE(keeps.Says(question)) << keeps.output;
  // The AVI holds 24-bit frames.
  const std::string avi = ReadText(dir + "/a.avi");
  const size_t strf = avi.find("strf");
  ASSERT_NE(strf, std::string::npos);
  EXPECT_EQ(Le16(avi, strf + 8 + 14), 24u);
}

TEST_F(VelmoConvRun, SeriesToPngAviAndY4m) {
  MakeSeries(dir + "/in", 3, 32, 16, true);
  const std::string in = "velmoconv " + dir + "/in?.png*1-3 ";
  // Three frames number from 0 with one digit; /Z1000 keeps the alpha plane.
  ASSERT_EQ(ExitOf(in + dir + "/out.png /z1000"), 0);
  for (int f = 0; f < 3; ++f) {
    Picture p;
    ASSERT_TRUE(ReadPicture(dir + "/out" + std::to_string(f) + ".png", &p)) << f;
    ASSERT_EQ(std::tuple(p.width, p.height, p.has_alpha), std::tuple(32, 16, 1));
    EXPECT_EQ(p.pixels[5 * 32 + 7], PixelOf(f + 1, 7, 5, true)) << f;
  }
  EXPECT_FALSE(Exists(dir + "/out3.png"));
  // AVI: ".avi" added to a bare name; /P1 asks for motion JPEG, smaller than raw frames.
  ASSERT_EQ(ExitOf(in + dir + "/raw"), 0);
  const std::string raw = ReadText(dir + "/raw.avi");
  ASSERT_GT(raw.size(), size_t(3 * 32 * 16 * 3));
  EXPECT_EQ(raw.compare(0, 4, "RIFF"), 0);
  EXPECT_EQ(raw.compare(8, 4, "AVI "), 0);
  EXPECT_NE(raw.find("00db"), std::string::npos);
  ASSERT_EQ(ExitOf(in + dir + "/mj.avi /p1"), 0);
  const std::string mjpeg = ReadText(dir + "/mj.avi");
  EXPECT_NE(mjpeg.find("MJPG"), std::string::npos);
  EXPECT_LT(mjpeg.size(), raw.size());
  // y4m has no alpha: the question's default answer goes on without it. 4:2:0 to a file,
  // 4:4:4 on standard output through a pipe; pictures go at 15 frames a second.
  ASSERT_EQ(ExitOf(in + dir + "/a.y4m /z1000"), 0);
  const std::string file = ReadText(dir + "/a.y4m");
  const ToolOutcome piped = RunShell("bash -c 'set -o pipefail; ORN_CONSOLE=1 \"" ORN_PROGRAM_PATH "\" " +
                                     in + "- /p444 </dev/null 2>/dev/null | cat'");
  ASSERT_EQ(piped.code, 0);
  for (const auto& [y4m, chroma, frameBytes] :
       {std::tuple{file, "C420jpeg", 32 * 16 * 3 / 2}, {piped.output, "C444", 32 * 16 * 3}}) {
    EXPECT_EQ(y4m.substr(0, y4m.find('\n')),
              std::string("YUV4MPEG2 W32 H16 F15:1 Ip A1:1 ") + chroma);
    EXPECT_EQ(y4m.size(), y4m.find('\n') + 1 + 3 * (6 + frameBytes)) << chroma;
  }
}

TEST_F(VelmoConvRun, FirstGenerationVelmoBackToPng) {
  MakeSeries(dir + "/in", 6, 32, 32, false);
  const std::string vlm = dir + "/clip.vlm";
  ASSERT_EQ(ExitOf("velmoc " + dir + "/in?.png*1-6 " + vlm + " /v101 /d200000"), 0);
  ASSERT_TRUE(Exists(vlm));
  ASSERT_EQ(ExitOf("velmoconv " + vlm + " " + dir + "/back.png"), 0);
  for (int f = 0; f < 6; ++f) {
    Picture p;
    ASSERT_TRUE(ReadPicture(dir + "/back" + std::to_string(f) + ".png", &p)) << f;
    ASSERT_EQ(std::tuple(p.width, p.height), std::tuple(32, 32));
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

TEST_F(VelmoConvRun, WaveOutputsTakeFormatRangeAndRawSwitches) {
  // A mono ramp, and a second of stereo whose left rises by 40 a sample and right by 8.
  std::vector<int16_t> ramp(1000), stereo, mono;
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = int16_t(i * 37);
  for (int i = 0; i < 8000; ++i) stereo.push_back(int16_t(i * 4 % 32000)), stereo.push_back(int16_t(i * 2 % 16000));
  WriteWave16(dir + "/tone.wav", 8000, 1, ramp);
  WriteWave16(dir + "/st.wav", 8000, 2, stereo);
  for (int i = 0; i < 8000; ++i) mono.push_back(int16_t((stereo[2 * i] + stereo[2 * i + 1]) / 2));
  std::vector<uint8_t> eight;
  for (int16_t v : stereo) eight.push_back(uint8_t((v >> 8) + 128));
  const std::vector<uint8_t> pcm = Pcm16(ramp);
  ASSERT_EQ(ExitOf("velmoconv " + dir + "/tone.wav " + dir + "/copy.raw"), 0);
  EXPECT_EQ(ReadFile(dir + "/copy.raw"), pcm);
  // A copy (".wav" added); the ramp read as headerless 16-bit mono at a forced rate past its 44
  // header bytes, and as 8-bit stereo, each byte pair one sample of two channels. The stereo
  // second as mono (the mean of the channels), in 8 bits (the top byte of each value with its
  // sign bit turned over), and from 250 to 500 ms (samples 2000 to 3999).
  const struct {
    const char *input, *output, *switches;
    uint32_t rate, bits, channels;
    std::vector<uint8_t> data;
  } runs[] = {{"tone", "copy", "", 8000, 16, 1, pcm},
              {"tone", "forced", " /L3 /G11025 /M44", 11025, 16, 1, pcm},
              {"tone", "bytes", " /L2 /G8000 /M44 /B8", 8000, 8, 2, pcm},
              {"st", "mono", " /C1", 8000, 16, 1, Pcm16(mono)},
              {"st", "eight", " /B8", 8000, 8, 2, eight},
              {"st", "part", " /J250 /K500", 8000, 16, 2, Pcm16({stereo.begin() + 4000, stereo.begin() + 8000})}};
  for (const auto& r : runs) {
    SCOPED_TRACE(r.output);
    ASSERT_EQ(ExitOf("velmoconv " + dir + "/" + r.input + ".wav " + dir + "/" + r.output + r.switches), 0);
    const std::vector<uint8_t> out = ReadFile(dir + "/" + r.output + ".wav");
    ASSERT_NO_FATAL_FAILURE(ExpectWaveHeader(out, r.rate, r.bits, r.channels, uint32_t(r.data.size())));
    EXPECT_TRUE(std::vector<uint8_t>(out.begin() + 44, out.end()) == r.data);
  }
  // Twice the rate: twice the samples, the source's values at the even places.
  ASSERT_EQ(ExitOf("velmoconv " + dir + "/st.wav " + dir + "/fast.wav /R16000 /J0 /K100"), 0);
  const std::vector<uint8_t> fast = ReadFile(dir + "/fast.wav");
  ASSERT_NO_FATAL_FAILURE(ExpectWaveHeader(fast, 16000, 16, 2, 1600 * 4));
  const std::vector<int16_t> f = As16({fast.begin() + 44, fast.end()});
  for (size_t i = 10; i < 790; i += 37) {
    EXPECT_NEAR(f[4 * i], stereo[2 * i], 1) << i;
    EXPECT_NEAR(f[4 * i + 2], stereo[2 * i] + 2, 1) << i;  // half way to the next (4 on)
  }
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
  // Flat grey frames that brighten, at 30 frames a second.
  std::string y4m = "YUV4MPEG2 W16 H16 F30:1 Ip A1:1 C420jpeg\n";
  for (int t = 0; t < 45; ++t) y4m += "FRAME\n" + std::string(256, char(40 + t * 3)) + std::string(128, char(128));
  WriteText(dir + "/clip.y4m", y4m);
  ASSERT_EQ(ExitOf("velmoc " + dir + "/clip.y4m " + dir + "/plain.vlm /v101 /d100000"), 0);
  std::vector<int16_t> samples(2 * 11025);
  for (size_t i = 0; i < samples.size(); ++i)
    samples[i] = int16_t(9000 * std::sin(double(i) * (0.05 + double(i) * 2e-6)));
  WriteWave16(dir + "/sweep.wav", 11025, 1, samples);
  SoundInput* sound = SoundOpen((dir + "/sweep.wav").c_str(), 0, 16, 0, 0, 0, 0, 0, 0, {});
  ASSERT_TRUE(sound);
  VelmoMixTrack track{0, 11025, 16, 1, 4, sound, ReadSoundInput};
  const std::string vlm = dir + "/clip.vlm", conv = "velmoconv " + vlm + " " + dir;
  const uint64_t size =
      VelmoMixFile((dir + "/plain.vlm").c_str(), vlm.c_str(), 0, 0, 0, 0, 1, &track, nullptr);
  SoundClose(sound);
  ASSERT_GT(size, 0u);

  ASSERT_EQ(ExitOf(conv + "/clip.avi"), 0);
  // The track alone, as the sound layer decodes it, for comparison.
  ASSERT_EQ(ExitOf(conv + "/track.wav"), 0);
  const std::string wave = ReadText(dir + "/track.wav");
  ASSERT_NO_FATAL_FAILURE(ExpectWaveHeader(wave, 11025, 16, 1, uint32_t(wave.size() - 44)));
  // The mixer made the track as long as the frames, give or take its rounding.
  ASSERT_NEAR(double(wave.size() - 44), 33075.0, 8.0);

  AviSound avi;
  ASSERT_TRUE(ReadAviSound(dir + "/clip.avi", &avi));
  EXPECT_EQ(avi.frames, 45u);
  ASSERT_EQ(uint64_t(avi.rate_num) * 1, uint64_t(avi.rate_den) * 30);
  const StreamAudioTrack& t = avi.track;  // PCM, mono, 11025 Hz, 16 bits
  EXPECT_EQ(std::tuple(t.format_tag, t.channels, t.samples_per_second, t.bits_per_sample, t.block_align),
            std::tuple(1, 1, 11025u, 16, 2));
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
    ASSERT_EQ(ExitOf(conv + tail), 0);
    AviSound none;
    EXPECT_FALSE(
        ReadAviSound(dir + std::string(tail).substr(0, std::string(tail).find(' ')), &none));
    EXPECT_EQ(none.frames, 45u) << tail;
  }
  // /V: the sound alone, in a wave file named for it; a range and a format change go with it.
  ASSERT_EQ(ExitOf(conv + "/part /v /j500 /k1000 /b8"), 0);
  ExpectWaveHeader(ReadText(dir + "/part.wav"), 11025, 8, 1, 11025 - 11025 * 500 / 1000);
  // A range with video: /J and /K pick the sound; the frames stay as they were.
  ASSERT_EQ(ExitOf(conv + "/late.avi /j1000 /k1200"), 0);
  AviSound late;
  ASSERT_TRUE(ReadAviSound(dir + "/late.avi", &late));
  EXPECT_EQ(late.pcm.size(), 2u * (11025 * 1200 / 1000 - 11025));
  EXPECT_EQ(late.frames, 45u);
  // Frames 16 to 45 of the 30-a-second input, taken to 15 a second: the 15 frames skipped
  // are half a second of the source, and the 15 frames that go out last one second.
  ASSERT_EQ(ExitOf(conv + "/halved.avi /s16 /a15"), 0);
  AviSound halved;
  ASSERT_TRUE(ReadAviSound(dir + "/halved.avi", &halved));
  EXPECT_EQ(halved.frames, 15u);
  const size_t from = 2 * (11025 / 2);
  ASSERT_EQ(halved.pcm.size(), std::min<size_t>(22050u, wave.size() - 44 - from));
  EXPECT_TRUE(halved.pcm == wave.substr(44 + from, halved.pcm.size()))
      << "the sound does not start at the first frame that goes out";
}

// A wave file into an AVI: black 4 x 4 frames at 15 a second, as many as cover the sound, with
// the sound beside them.
TEST_F(VelmoConvRun, SoundOnlyInputGivesBlackFramesWithTheSound) {
  std::vector<int16_t> samples(8000);
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = int16_t(i * 37 - 9000);
  WriteWave16(dir + "/speech.wav", 8000, 1, samples);
  ASSERT_EQ(ExitOf("velmoconv " + dir + "/speech.wav " + dir + "/speech.avi"), 0);
  AviSound avi;
  ASSERT_TRUE(ReadAviSound(dir + "/speech.avi", &avi));
  EXPECT_EQ(avi.frames, 16u);  // 16000 bytes × 15 ÷ (2 × 8000) + 1
  EXPECT_EQ(uint64_t(avi.rate_num), uint64_t(avi.rate_den) * 15);
  ASSERT_EQ(avi.pcm.size(), 2 * samples.size());
  for (size_t i = 0; i < samples.size(); ++i)
    ASSERT_EQ(int16_t(Le16(avi.pcm, 2 * i)), samples[i]) << i;
  // Each frame is 4 × 4 black: 48 zero bytes of 24-bit rows.
  const std::string file = ReadText(dir + "/speech.avi");
  const size_t strf = file.find("strf");
  ASSERT_NE(strf, std::string::npos);
  EXPECT_EQ(Le32(file, strf + 8 + 4), 4u);
  EXPECT_EQ(Le32(file, strf + 8 + 8), 4u);
  size_t frames = 0;
  for (size_t at = file.find("00db"); at != std::string::npos; at = file.find("00db", at + 4)) {
    if (Le32(file, at + 4) != 48) continue;  // the index's entries
    EXPECT_EQ(file.substr(at + 8, 48), std::string(48, '\0')) << frames;
    ++frames;
  }
  EXPECT_EQ(frames, 16u);
}

TEST_F(VelmoConvRun, ExitCodes) {
  MakeSeries(dir + "/in", 1, 8, 8, false);
  WriteWave16(dir + "/tone.wav", 8000, 1, std::vector<int16_t>(100, 5));
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
              {wav + dir + "/tone.avi", 0},                 // black frames with the sound
              {png + dir + "/x.wav", 8002},
              {wav + dir + "/y.wav /N-1", 8002},
              {wav + dir + "/late.wav /J5000", 8005}};  // a start past the sound's end
  for (const auto& r : runs) EXPECT_EQ(ExitOf(r.command), r.code & 255) << r.command;
  for (const char* name : {"/m.avi", "/x.wav", "/y.wav", "/late.wav"})
    EXPECT_FALSE(Exists(dir + name));
  EXPECT_TRUE(RunTail(wav + dir + "/late.wav /J5000").Says("/J5000: the sound of")) << "names /J";
}

// The converter run in this process through the tool shell, as the program runs it.
int RunHere(const std::string& tail, const ToolFrontEnd* front = ToolConsoleFrontEnd()) {
  VelmoConvRegisterDialog();
  ToolFrameSetFrontEnd(front);
  const int code = ToolFrameRun(nullptr, 0, tail.c_str(), 1, false, VelmoConvMain,
                                VelmoConvCommand, "velmoconv");
  ToolFrameSetFrontEnd(ToolConsoleFrontEnd());
  return code;
}

size_t Y4mFrames(const std::string& name) {
  const std::string y4m = ReadText(name);
  size_t n = 0;
  for (size_t at = y4m.find("FRAME"); at != std::string::npos; at = y4m.find("FRAME", at + 1)) n++;
  return n;
}

// A single numbered picture with neighbours is asked about in a box of its own, captioned
// "Treat as sequence?": Yes converts the series, No the picture alone; the program on a
// console takes Yes. A numbered picture without neighbours is not asked about.
TEST_F(VelmoConvRun, ANumberedPictureWithNeighboursAsksWhetherToTakeTheSeries) {
  MakeSeries(dir + "/s", 4, 16, 8, false);  // s1.png to s4.png
  MakeSeries(dir + "/lone", 1, 16, 8, false);
  const std::string text = "File, \"" + dir +
                           "/s3.png\", appears to be part of a sequence of files (1 to 4).\n"
                           "Do you want to treat the sequence as a single animation?";
  AnswerScript& script = Answers();
  testing::internal::CaptureStderr();
  for (const int answer : {ToolButtonYes, ToolButtonNo}) {
    SCOPED_TRACE(answer == ToolButtonYes ? "yes" : "no");
    script.Reset(answer);
    const std::string out = dir + (answer == ToolButtonYes ? "/all.y4m" : "/one.y4m");
    EXPECT_EQ(RunHere(dir + "/s3.png " + out, ScriptedFrontEnd()), ToolExitDone);
    EXPECT_EQ(Y4mFrames(out), answer == ToolButtonYes ? 4u : 1u);
    const std::vector<ShownBox> asked = script.Questions();
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].caption, "Treat as sequence?");
    EXPECT_EQ(asked[0].icon, ToolIconQuestion);
    EXPECT_EQ(asked[0].text, text);
  }
  script.Reset(ToolButtonYes);
  EXPECT_EQ(RunHere(dir + "/lone1.png " + dir + "/lone.y4m", ScriptedFrontEnd()), ToolExitDone);
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(script.Questions().empty());
  EXPECT_EQ(Y4mFrames(dir + "/lone.y4m"), 1u);

  const ToolOutcome console = RunTail("velmoconv " + dir + "/s3.png " + dir + "/console.y4m");
  EXPECT_EQ(console.code, 0);
  EXPECT_TRUE(console.Says("Treat as sequence? - Question: " + text)) << console.output;
  EXPECT_EQ(Y4mFrames(dir + "/console.y4m"), 4u);
}

// Conversions one after another in one process, as a batch makes them: the first ends at a
// refused overwrite, the second at an input that is missing, and each run after them writes
// the bytes that the program writes in a process of its own.
TEST_F(VelmoConvRun, RunsInOneProcessWriteWhatSeparateProgramsWrite) {
  ASSERT_NE(std::freopen("/dev/null", "r", stdin), nullptr);  // every question takes its default
  MakeSeries(dir + "/g", 6, 24, 16, false);
  std::vector<int16_t> samples(3000);
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = int16_t(i * 91);
  WriteWave16(dir + "/tone.wav", 8000, 1, samples);
  WriteText(dir + "/taken.y4m", "keep");
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
  EXPECT_EQ(ReadText(dir + "/taken.y4m"), "keep");
  for (const auto& r : runs) {
    SCOPED_TRACE(r.output);
    ASSERT_EQ(ExitOf("velmoconv " + r.input + dir + "/own_" + r.output + r.switches), 0);
    const std::string own = ReadText(dir + "/own_" + r.output);
    EXPECT_GT(own.size(), 100u);
    EXPECT_TRUE(ReadText(dir + "/here_" + r.output) == own);
  }
}

}  // namespace
