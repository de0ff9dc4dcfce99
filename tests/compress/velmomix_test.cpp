// The mixer: frames copied with their video untouched, tracks copied, dropped, replaced and
// added, the silent lead-in, hostile inputs, the temporary file and its rename, and whole runs
// of the tool through the tool shell's console front end.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/velmo_file.h"
#include "compress/tool/velmomix.h"
#include "compress_test_util.h"
#include "format/container.h"
#include "velmo.h"

namespace {

using namespace test_support;
using compress_test::NoOutput;

void Store32(std::vector<uint8_t>* file, size_t at, uint32_t value) {
  for (int i = 0; i < 4; ++i) (*file)[at + i] = uint8_t(value >> (8 * i));
}

// A usable track of the current sound form, 22050 Hz 16-bit mono.
constexpr uint32_t TrackFormat = VelmoTrackCurrent | VelmoTrack16Bit | 22050;

struct InputLayout {
  uint32_t Version = 100;
  uint32_t Flags = 0;
  const char* Text = nullptr;
  uint32_t Frames = 12;
  uint32_t KeyEvery = 4;
  std::vector<uint32_t> TrackIds;
};

// Sound payloads of varied, often unaligned lengths (some frames carry none), and video bytes
// that differ from frame to frame in content and length.
std::vector<uint8_t> SoundBytes(uint32_t track, uint32_t frame) {
  if ((frame + track) % 5 == 3) return {};
  std::vector<uint8_t> s(5 + (frame * 7 + track * 3) % 23);
  for (size_t i = 0; i < s.size(); ++i) s[i] = uint8_t(0x80 + track * 16 + frame + i);
  return s;
}
std::vector<uint8_t> VideoBytes(uint32_t frame) {
  std::vector<uint8_t> v(40 + frame * 12);
  for (size_t i = 0; i < v.size(); ++i) v[i] = uint8_t(frame * 31 + i * 7);
  return v;
}

std::vector<uint8_t> BuildInput(const InputLayout& s) {
  static const int16_t hdr[6] = {1000, 2000, 3000, -400, -500, 1000};
  static const int16_t matrix[12] = {4096, 0, 0, 0, 4096, 0, 0, 0, 4096, 10, 20, 30};
  velmo_test::FilePlan plan;
  plan.Version = s.Version;
  plan.Width = 64;
  plan.Height = 48;
  plan.Frames = s.Frames;
  plan.KeyEvery = s.KeyEvery;
  plan.Flags = s.Flags;
  plan.SliceMode = s.Version >= 200 ? 1 : 0;
  plan.Text = s.Text;
  plan.HdrBlock = hdr;
  plan.ColourMatrix = matrix;
  for (uint32_t id : s.TrackIds) plan.Tracks.push_back({0, TrackFormat, id});
  plan.Video = VideoBytes;
  plan.Sound = [](uint32_t f, size_t t, uint32_t* decoded) {
    std::vector<uint8_t> sound = SoundBytes(uint32_t(t), f);
    *decoded = sound.empty() ? 0 : 64 + 16 * uint32_t(t);
    return sound;
  };
  return velmo_test::BuildFile(plan);
}

using Parsed = velmo_test::ParsedFile;
using velmo_test::ParseFile;

// The video of a mixed frame is the input's, with at most three zero bytes behind it where new
// sound packets left the frame's length off a multiple of 4.
::testing::AssertionResult SameVideo(const std::vector<uint8_t>& in, const std::vector<uint8_t>& out) {
  if (out.size() < in.size() || out.size() > in.size() + 3)
    return ::testing::AssertionFailure() << in.size() << " bytes became " << out.size();
  if (!std::equal(in.begin(), in.end(), out.begin())) return ::testing::AssertionFailure() << "bytes differ";
  for (size_t i = in.size(); i < out.size(); ++i)
    if (out[i]) return ::testing::AssertionFailure() << "padding not zero";
  return ::testing::AssertionSuccess();
}

// Every frame of the mix `b` keeps the input `a`'s key flag and video, and the mix's track
// `to` carries the input's track `from` byte for byte, for each pair {from, to}.
::testing::AssertionResult KeptFrames(const Parsed& a, const Parsed& b,
                                      std::initializer_list<std::pair<uint32_t, uint32_t>> tracks) {
  if (a.Video.size() != b.Video.size())
    return ::testing::AssertionFailure() << a.Video.size() << " frames became " << b.Video.size();
  for (size_t f = 0; f < a.Video.size(); ++f) {
    if (a.Key[f] != b.Key[f]) return ::testing::AssertionFailure() << "key flag of frame " << f;
    for (const auto& [from, to] : tracks)
      if (a.Sounds[f][from] != b.Sounds[f][to])
        return ::testing::AssertionFailure() << "track " << from << " packet of frame " << f;
    if (::testing::AssertionResult same = SameVideo(a.Video[f], b.Video[f]); !same)
      return same << " in frame " << f;
  }
  return ::testing::AssertionSuccess();
}

// The reader library opens the file, with its frames and these tracks in this order.
void ExpectReaderOpens(const std::string& name, uint32_t frames, const std::vector<uint32_t>& ids) {
  HVELMO h = VelmoOpen(name.c_str(), VelmoOpenNoBuffers | VelmoOpenNoBackground);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  EXPECT_EQ(h->Frames, frames);
  EXPECT_EQ(h->TrackCount, ids.size());
  for (uint32_t t = 0; t < ids.size() && t < h->TrackCount; ++t) {
    EXPECT_EQ(h->TrackIds[t], ids[t]);
    EXPECT_EQ(VelmoGetTrackId(h, t), ids[t]);
  }
  VelmoClose(h);
}

struct Messages {
  std::vector<std::string> Texts;
  uint32_t Labels = 0;
  uint32_t CancelAt = ~0u;  // answer non-zero to this label (from 1)
};
int Collect(uint32_t kind, const char* text, void* user) {
  Messages* m = static_cast<Messages*>(user);
  if (kind == VelmoProgressMessage || kind == VelmoProgressError) {
    m->Texts.push_back(text);
    return 0;
  }
  return ++m->Labels >= m->CancelAt ? 1 : 0;
}

VelmoMixTrack Removal(uint32_t id) {
  VelmoMixTrack t{};
  t.TrackId = id;
  return t;
}

struct MixRun {
  Messages Msg;
  VelmoMixProgress Progress{};
  uint64_t Size = 0;
  uint64_t Run(const std::string& in, const std::string& out, std::vector<VelmoMixTrack> tracks,
               uint64_t offset = 0, uint32_t num = 0, uint32_t den = 0, int32_t start = 0) {
    Progress.Report = Collect;
    Progress.User = &Msg;
    Size = VelmoMixFile(in.c_str(), out.c_str(), offset, num, den, start, uint32_t(tracks.size()),
                        tracks.data(), &Progress);
    return Size;
  }
};

// ---- Copying and dropping ------------------------------------------------------------------------

// Removing a track the file does not have copies everything: for every magic's extras block,
// the output is the input byte for byte.
TEST(VelmoMixCopy, RemovingAnAbsentTrackReproducesTheFile) {
  const ScratchDir dir;
  const InputLayout layouts[] = {
      {100, 0, nullptr, 12, 4, {5, 7}},
      {101, VelmoFlagFullRange, "some extra text", 12, 4, {5}},
      {200, VelmoFlagFullRange | VelmoFlagAlpha, "made by a test", 9, 3, {1, 2, 3}},
      {200, VelmoFlagHdr | VelmoFlagFullRange, "hdr", 5, 1, {}},
      {200, VelmoFlagColourMatrix | VelmoFlagFullRange, nullptr, 7, 2, {9}},
      // Both bits: the HDR block stands alone, the matrix bit adds nothing.
      {200, VelmoFlagHdr | VelmoFlagColourMatrix | VelmoFlagFullRange, "both", 6, 2, {4}},
  };
  for (const InputLayout& layout : layouts) {
    SCOPED_TRACE(layout.Version);
    const std::vector<uint8_t> input = BuildInput(layout);
    const std::string in = dir / "in.vlm", out = dir / "out.vlm";
    WriteFile(in, input);
    MixRun run;
    ASSERT_EQ(run.Run(in, out, {Removal(30)}), input.size()) << ::testing::PrintToString(run.Msg.Texts);
    EXPECT_TRUE(run.Msg.Texts.empty());
    EXPECT_EQ(run.Msg.Labels, layout.Frames);
    EXPECT_EQ(run.Progress.FramesDone, layout.Frames);
    EXPECT_EQ(ReadFile(out), input);
    EXPECT_FALSE(Exists(out + ".tmp"));
  }
}

TEST(VelmoMixCopy, DroppingATrackKeepsTheOthersAndTheVideo) {
  const ScratchDir dir;
  const std::string in = dir / "in.vm2", out = dir / "out.vm2";
  const std::vector<uint8_t> input = BuildInput({200, VelmoFlagFullRange, "text", 10, 3, {5, 7, 9}});
  WriteFile(in, input);
  MixRun run;
  // Two entries: id 7 is removed, id 11 is in no file and has no sound, so it adds nothing.
  ASSERT_GT(run.Run(in, out, {Removal(11), Removal(7)}), 0u);
  Parsed a, b;
  ASSERT_TRUE(ParseFile(input, &a));
  ASSERT_TRUE(ParseFile(ReadFile(out), &b));
  ASSERT_EQ(b.Info.TrackCount, 2u);
  EXPECT_EQ(b.Tracks[0].Id, 5u);
  EXPECT_EQ(b.Tracks[1].Id, 9u);
  EXPECT_EQ(b.Tracks[0].MaxBytes, a.Tracks[0].MaxBytes);
  EXPECT_EQ(b.Tracks[1].MaxBytes, a.Tracks[2].MaxBytes);
  EXPECT_EQ(b.Tracks[1].Format, a.Tracks[2].Format);
  EXPECT_EQ(b.Info.Header.Magic, a.Info.Header.Magic);
  EXPECT_EQ(b.Info.Header.Flags, a.Info.Header.Flags);
  EXPECT_EQ(b.Info.Extras.TextSize, a.Info.Extras.TextSize);
  EXPECT_TRUE(KeptFrames(a, b, {{0, 0}, {2, 1}}));
  ExpectReaderOpens(out, 10, {5, 9});
}

// The Velmo data may stand inside a larger file; the output starts with its header. A rate
// given replaces the file's and nothing else changes.
TEST(VelmoMixCopy, InputOffsetAndRateOverride) {
  const ScratchDir dir;
  const std::string in = dir / "big.bin", out = dir / "out.vlm";
  const std::vector<uint8_t> image = BuildInput({101, 0, "x", 6, 2, {4}});
  std::vector<uint8_t> big(1234, 0x5a);
  big.insert(big.end(), image.begin(), image.end());
  big.insert(big.end(), 77, 0xee);
  WriteFile(in, big);
  MixRun run;
  ASSERT_EQ(run.Run(in, out, {Removal(1)}, 1234), image.size());
  EXPECT_EQ(ReadFile(out), image);
  ASSERT_EQ(run.Run(in, out, {Removal(1)}, 1234, 25, 2), image.size());
  std::vector<uint8_t> expected = image;
  Store32(&expected, 28, 25);
  Store32(&expected, 32, 2);
  EXPECT_EQ(ReadFile(out), expected);
}

TEST(VelmoMixCopy, EmptyTrackListDoesNothing) {
  const ScratchDir dir;
  const std::string in = dir / "in.vlm", out = dir / "out.vlm";
  WriteFile(in, BuildInput({}));
  MixRun run;
  EXPECT_EQ(run.Run(in, out, {}), 0u);
  EXPECT_EQ(run.Msg.Labels, 0u);
  EXPECT_TRUE(NoOutput(out));
}

// ---- Failures ----------------------------------------------------------------------------------

// Inputs that are no Velmo files, and damaged ones, end the mix with one message and no output.
// Frame sizes from the index are checked against the file before they are read: a cut file, an
// entry beyond the end, a frame whose track packets run past it.
TEST(VelmoMixFailure, BadInputsEndTheMixWithoutOutput) {
  const ScratchDir dir;
  const std::string in = dir / "in.vlm", out = dir / "out.vlm";
  const std::vector<uint8_t> good = BuildInput({100, 0, nullptr, 8, 4, {5}});
  Parsed p;
  ASSERT_TRUE(ParseFile(good, &p));
  const size_t indexAt = p.Info.TablesOffset + 3 * 4;
  const uint32_t frame3 = Le32(good, indexAt + 3 * 4);
  const char* const notVelmo = "Input file isn't a Velmo file.";
  struct Case {
    const char* What;
    std::vector<uint8_t> File;
    const char* Message;  // null: any one message
  };
  std::vector<Case> cases;
  cases.push_back({"a wave file", std::vector<uint8_t>(200, 0), notVelmo});
  std::memcpy(cases.back().File.data(), "RIFF\0\0\0\0WAVEfmt ", 16);
  // A "VLM" magic with a letter of no known version is no Velmo file either; so is a file
  // shorter than a header.
  cases.push_back({"an unknown version letter", good, notVelmo});
  cases.back().File[3] = 'j';
  cases.push_back({"a part of a header", std::vector<uint8_t>(good.begin() + 8, good.begin() + 40), notVelmo});
  cases.push_back({"cut inside the last frame", std::vector<uint8_t>(good.begin(), good.end() - 30), nullptr});
  cases.push_back({"an entry far beyond the file", good, nullptr});
  Store32(&cases.back().File, indexAt + 4 * 4, 0x0ffffff0);
  cases.push_back({"a frame of no bytes", good, nullptr});
  Store32(&cases.back().File, indexAt + 4 * 4, frame3);
  cases.push_back({"a packet past the frame", good, nullptr});
  Store32(&cases.back().File, frame3 & ~3u, 0x7fffffff);
  cases.push_back({"more tracks than the file has room for", good, nullptr});
  Store32(&cases.back().File, 40, 300);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.What);
    WriteFile(in, c.File);
    MixRun run;
    EXPECT_EQ(run.Run(in, out, {Removal(1)}), 0u);
    ASSERT_EQ(run.Msg.Texts.size(), 1u);
    if (c.Message) {
      EXPECT_EQ(run.Msg.Texts[0], c.Message);
    }
    EXPECT_TRUE(NoOutput(out));
  }
  MixRun missing;
  EXPECT_EQ(missing.Run(dir / "missing.vlm", out, {Removal(0)}), 0u);
  ASSERT_EQ(missing.Msg.Texts.size(), 1u);
  EXPECT_EQ(missing.Msg.Texts[0], "Couldn't open input Velmo file.");
}

TEST(VelmoMixFailure, CancelDeletesTheTemporaryFile) {
  const ScratchDir dir;
  const std::string in = dir / "in.vlm", out = dir / "out.vlm";
  WriteFile(in, BuildInput({}));
  WriteFile(out, std::vector<uint8_t>{1, 2, 3, 4});
  MixRun run;
  run.Msg.CancelAt = 3;
  EXPECT_EQ(run.Run(in, out, {Removal(0)}), 0u);
  EXPECT_EQ(run.Progress.Cancelled, 1u);
  EXPECT_EQ(run.Msg.Labels, 3u);  // the frame of the answer is still mixed
  EXPECT_EQ(run.Progress.FramesDone, 3u);
  EXPECT_EQ(ReadFile(out), (std::vector<uint8_t>{1, 2, 3, 4}));  // the old output stays
  EXPECT_FALSE(Exists(out + ".tmp"));
}

TEST(VelmoMixFailure, OutputThatCannotBeReplacedOrCreated) {
  const ScratchDir dir;
  const std::string in = dir / "in.vlm";
  const std::vector<uint8_t> input = BuildInput({});
  WriteFile(in, input);
  // An output name held by a directory with something in it cannot be replaced: the mix fails
  // as an output that could not be made, stays under its temporary name, and says so.
  const std::string out = dir / "taken.vlm";
  ASSERT_EQ(mkdir(out.c_str(), 0755), 0);
  WriteText(out + "/keep", "x");
  MixRun run;
  EXPECT_EQ(run.Run(in, out, {Removal(0)}), 0u);
  EXPECT_EQ(run.Progress.Failure, uint32_t(VelmoMixFailedOutput));
  ASSERT_EQ(run.Msg.Texts.size(), 1u);
  EXPECT_EQ(run.Msg.Texts[0], "Velmo couldn't overwrite, '" + out +
                                  "', so the new Velmo file is called: '" + out + ".tmp'.");
  EXPECT_EQ(ReadFile(out + ".tmp"), input);
  // No temporary file in a folder that does not exist.
  MixRun none;
  EXPECT_EQ(none.Run(in, dir / "nowhere/out.vlm", {Removal(0)}), 0u);
  EXPECT_EQ(none.Progress.Failure, uint32_t(VelmoMixFailedOutput));
  ASSERT_EQ(none.Msg.Texts.size(), 1u);
  EXPECT_EQ(none.Msg.Texts[0].rfind("Couldn't create temporary file.\n\nSome possible reasons", 0), 0u);
  EXPECT_NE(none.Msg.Texts[0].find("3) mixing multiple files to the same Velmo output filename."),
            std::string::npos);
}

// ---- New sound ----------------------------------------------------------------------------------

// A 441 Hz tone of 16-bit samples, endless, at the track's rate and channels.
struct Tone {
  uint32_t Rate = 22050, Channels = 1;
  uint64_t Samples = 0;
  uint64_t Limit = ~0ull;  // samples the source has
};
uint32_t ReadTone(void* source, void* buffer, uint32_t bytes) {
  Tone* t = static_cast<Tone*>(source);
  int16_t* out = static_cast<int16_t*>(buffer);
  const uint32_t frame = 2 * t->Channels;
  uint32_t n = bytes / frame;
  if (t->Samples + n > t->Limit) n = uint32_t(t->Limit - t->Samples);
  for (uint32_t i = 0; i < n; ++i, ++t->Samples)
    for (uint32_t c = 0; c < t->Channels; ++c)
      *out++ = int16_t(8000 * std::sin(2 * M_PI * 441.0 * double(t->Samples) / t->Rate));
  return n * frame;
}

VelmoMixTrack NewTrack(uint32_t id, Tone* tone, int32_t level = 4) {
  VelmoMixTrack t{};
  t.TrackId = id;
  t.SampleRate = tone->Rate;
  t.Bits = 16;
  t.Channels = tone->Channels;
  t.Level = level;
  t.Source = tone;
  t.ReadSamples = ReadTone;
  return t;
}

// The samples of track `index` (the first channel), decoded by the reader library frame by
// frame as a converter reads them.
std::vector<int16_t> DecodeTrack(const std::string& name, uint32_t index) {
  std::vector<int16_t> samples;
  HVELMO h = VelmoOpen(name.c_str(), VelmoOpenNoBuffers | VelmoOpenNoBackground);
  EXPECT_NE(h, nullptr) << VelmoGetError();
  if (!h) return samples;
  VelmoGoto(h, 1, VelmoGotoExact | VelmoGotoDirect);
  VelmoTrackReader* t = VelmoOpenTrack(h, index);
  EXPECT_NE(t, nullptr);
  if (t) {
    const uint32_t channels = VelmoTrackReaderChannels(t);
    std::vector<int16_t> buffer(VelmoTrackReaderBufferSize(t) / 2);
    for (uint32_t f = 1; f <= h->Frames; ++f) {
      const uint32_t got = VelmoGetTrackData(t, buffer.data(), uint32_t(buffer.size() * 2));
      for (uint32_t i = 0; i < got / 2; i += channels) samples.push_back(buffer[i]);
      VelmoNextFrame(h);
    }
    VelmoCloseTrack(t);
  }
  VelmoClose(h);
  return samples;
}

double Rms(const std::vector<int16_t>& s, size_t from, size_t to) {
  double sum = 0;
  to = std::min(to, s.size());
  if (from >= to) return -1;
  for (size_t i = from; i < to; ++i) sum += double(s[i]) * s[i];
  return std::sqrt(sum / double(to - from));
}

// Error of the decoded tone against the tone itself, shifted by `lead` samples.
double ToneSnr(const std::vector<int16_t>& s, size_t lead, size_t from, size_t to, uint32_t rate) {
  double signal = 0, noise = 0;
  for (size_t i = from; i < std::min(to, s.size()); ++i) {
    const double want = 8000 * std::sin(2 * M_PI * 441.0 * double(i - lead) / rate);
    signal += want * want;
    noise += (s[i] - want) * (s[i] - want);
  }
  return 10 * std::log10(signal / std::max(noise, 1.0));
}

// Several tracks at once: a replaced track keeps its place, a removed one goes, and a new one
// goes last.
TEST(VelmoMixEncode, ReplacedTrackKeepsItsPlace) {
  const ScratchDir dir;
  const std::string in = dir / "in.vm2", out = dir / "out.vm2";
  const std::vector<uint8_t> input = BuildInput({200, VelmoFlagFullRange, "t", 30, 10, {5, 7, 9}});
  WriteFile(in, input);
  Tone stereo;
  stereo.Rate = 16000;
  stereo.Channels = 2;
  Tone mono;
  MixRun run;
  ASSERT_GT(run.Run(in, out, {NewTrack(12, &mono, 104), Removal(9), NewTrack(7, &stereo)}), 0u);
  Parsed a, b;
  ASSERT_TRUE(ParseFile(input, &a));
  ASSERT_TRUE(ParseFile(ReadFile(out), &b));
  ASSERT_EQ(b.Info.TrackCount, 3u);
  EXPECT_EQ(b.Tracks[0].Id, 5u);
  EXPECT_EQ(b.Tracks[1].Id, 7u);
  EXPECT_EQ(b.Tracks[2].Id, 12u);
  EXPECT_EQ(b.Tracks[1].Format & VelmoTrackRateMask, 16000u);
  EXPECT_TRUE(b.Tracks[1].Format & VelmoTrackStereo);
  EXPECT_TRUE(b.Tracks[2].Format & VelmoTrackOlder);  // level 104: the older form
  EXPECT_TRUE(KeptFrames(a, b, {{0, 0}}));
  ExpectReaderOpens(out, 30, {5, 7, 12});
  const std::vector<int16_t> decoded = DecodeTrack(out, 1);
  EXPECT_NEAR(double(decoded.size()), 16000.0, 30 * 8.0);
  EXPECT_GT(ToneSnr(decoded, 0, 1000, 15000, 16000), 20.0);
}

// A new track goes behind the file's own, which keeps its place and packets. /N-500 starts the
// sound half a second in; /N31 at 30 frames a second one second in; without a start the tone is
// there from the first sample.
TEST(VelmoMixEncode, NewTrackGoesLastWithItsSilentLeadIn) {
  const ScratchDir dir;
  const std::string in = dir / "in.vlm", out = dir / "out.vlm";
  const std::vector<uint8_t> input = BuildInput({100, 0, nullptr, 75, 15, {5}});
  WriteFile(in, input);
  Parsed a;
  ASSERT_TRUE(ParseFile(input, &a));
  struct Case {
    int32_t start;
    size_t lead;  // samples of silence
  } cases[] = {{0, 0}, {-500, 11024}, {31, 22050}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.start);
    Tone tone;
    MixRun run;
    ASSERT_GT(run.Run(in, out, {NewTrack(8, &tone)}, 0, 0, 0, c.start), 0u)
        << ::testing::PrintToString(run.Msg.Texts);
    EXPECT_TRUE(run.Msg.Texts.empty());
    Parsed b;
    ASSERT_TRUE(ParseFile(ReadFile(out), &b));
    ASSERT_EQ(b.Info.TrackCount, 2u);
    EXPECT_EQ(b.Tracks[0].Id, 5u);
    EXPECT_EQ(b.Tracks[0].Format, a.Tracks[0].Format);
    EXPECT_EQ(b.Tracks[0].MaxBytes, a.Tracks[0].MaxBytes);
    EXPECT_EQ(b.Tracks[1].Id, 8u);
    EXPECT_EQ(b.Tracks[1].Format, TrackFormat);  // 22050 Hz 16-bit mono, the current form
    EXPECT_GT(b.Tracks[1].MaxBytes, 0u);
    EXPECT_TRUE(KeptFrames(a, b, {{0, 0}}));
    const std::vector<int16_t> decoded = DecodeTrack(out, 1);
    EXPECT_NEAR(double(decoded.size()), 55125.0, 75 * 8.0);
    if (c.lead) {
      EXPECT_LT(Rms(decoded, 0, c.lead - 2048), 20.0);
    }
    EXPECT_GT(ToneSnr(decoded, c.lead, c.lead + 2048, c.lead + 20000, 22050), 20.0);
    // The source gave what the track had room for behind its silence, and no more.
    EXPECT_LE(tone.Samples, 55125 - c.lead + 4096);
    EXPECT_GE(tone.Samples, 55125 - c.lead - 4);
  }
}

// A sound the encoder cannot take ends the mix before any output exists.
TEST(VelmoMixEncode, SoundTheEncoderRefuses) {
  const ScratchDir dir;
  const std::string in = dir / "in.vlm", out = dir / "out.vlm";
  WriteFile(in, BuildInput({}));
  Tone tone;
  for (int32_t level : {200, -1}) {
    MixRun run;
    EXPECT_EQ(run.Run(in, out, {NewTrack(1, &tone, level)}), 0u);
    ASSERT_EQ(run.Msg.Texts.size(), 1u);
    EXPECT_EQ(run.Msg.Texts[0].rfind("The sound encoder can't take this sound (22050 hz, 1 "
                                     "channels, level ", 0), 0u);
    EXPECT_TRUE(NoOutput(out));
  }
}

// ---- The silent lead-in ------------------------------------------------------------------------

TEST(VelmoMixSilence, StartInMillisecondsOrFrames) {
  // 22050 Hz stereo: 88200 bytes a second. Milliseconds are negative; frame 1 is the start
  // itself and frame 2 one frame late. Counts have their low two bits cleared, and long leads
  // stay in range rather than wrapping.
  const struct {
    int32_t Start;
    uint32_t BytesPerSecond, Num, Den, Want;
  } cases[] = {{0, 88200, 30, 1, 0},           {-500, 88200, 30, 1, 44100},
               {-1, 88200, 30, 1, 88},         {-3, 88200, 30, 1, 264},
               {1, 88200, 30, 1, 0},           {2, 88200, 30, 1, 2940},
               {2, 88200, 30000, 1001, 2940},  {11, 44100, 25, 1, 17640},
               {0x7fffffff, 192000, 1, 1000, 0xfffffffcu}};
  for (const auto& c : cases)
    EXPECT_EQ(VelmoMixSilenceBytes(c.Start, c.BytesPerSecond, c.Num, c.Den), c.Want) << c.Start;
}

// ---- The tool ----------------------------------------------------------------------------------

bool ParseLine(const char* text, VelmoMixSettings* s) {
  std::vector<char> line(text, text + std::strlen(text) + 1);
  return VelmoMixParseSwitches(line.data(), s);
}

TEST(VelmoMixSwitches, ValuesAndDefaults) {
  VelmoMixSettings d;
  ASSERT_TRUE(ParseLine("in - out", &d));
  EXPECT_EQ(d.Level, 4);
  EXPECT_EQ(d.TrackId, 0u);
  EXPECT_EQ(d.Start, 0);
  EXPECT_FALSE(d.Loop);
  EXPECT_EQ(d.RateNumerator, 0u);
  EXPECT_FALSE(d.Overwrite);
  EXPECT_STREQ(d.Input, "in");
  EXPECT_STREQ(d.Sound, "-");
  EXPECT_STREQ(d.Output, "out");

  // /T and /I are the mixer's (track id, and the sound file's track to read); the sound layer
  // gets the rest.
  VelmoMixSettings s;
  ASSERT_TRUE(ParseLine("/l104 \"my in.vlm|4096\" snd.raw /t7 /n-250 /p /f29.97 /r16000 /b108 "
                        "/c2 /i3 /s100 /e900 /y4 /d8000 /k44 /o out", &s));
  EXPECT_EQ(s.Level, 104);
  EXPECT_EQ(s.TrackId, 7u);
  EXPECT_EQ(s.Start, -250);
  EXPECT_TRUE(s.Loop);
  EXPECT_EQ(s.RateNumerator * 100, 2997u * s.RateDenominator);
  EXPECT_EQ(s.SoundRate, 16000u);
  EXPECT_EQ(s.SoundBits, 108u);
  EXPECT_EQ(s.SoundChannels, 2u);
  EXPECT_EQ(s.SoundTrack, 3u);
  EXPECT_EQ(s.StartMs, 100u);
  EXPECT_EQ(s.EndMs, 900u);
  EXPECT_EQ(s.Force, 4u + 8000u * 8u - 1u);
  EXPECT_EQ(s.Skip, 44u);
  EXPECT_TRUE(s.Overwrite);
  EXPECT_STREQ(s.Input, "my in.vlm");
  EXPECT_EQ(s.InputOffset, 4096u);
  EXPECT_STREQ(s.Output, "out");
}

TEST(VelmoMixSwitches, SyntaxErrors) {
  const struct {
    const char* Line;
    bool Ok;
  } lines[] = {{"a b c /l-1", true}, {"a b c /l199", true}, {"a b c /l200", false},
               {"a b c /l-2", false}, {"a b", false}, {"", false},
               {"a b c /g", false},   // a switch nobody knows
               {"a b c /f0", false},  // no rate
               {"a b c /y9", false}};  // no such raw type
  for (const auto& l : lines) {
    VelmoMixSettings s;
    EXPECT_EQ(ParseLine(l.Line, &s), l.Ok) << l.Line;
  }
  // A bar with no number behind it belongs to the name.
  const struct {
    const char* Line;
    const char* Input;
    uint64_t Offset;
  } bars[] = {{"a|x b c", "a|x", 0}, {"a|12| b c", "a|12|", 0}, {"a|x|12 b c", "a|x", 12}};
  for (const auto& b : bars) {
    VelmoMixSettings s;
    ASSERT_TRUE(ParseLine(b.Line, &s)) << b.Line;
    EXPECT_STREQ(s.Input, b.Input);
    EXPECT_EQ(s.InputOffset, b.Offset) << b.Line;
  }
}

// A refused value names its switch and what it takes.
TEST(VelmoMixSwitches, RefusedValuesAreNamed) {
  const struct {
    const char* Line;
    const char* Message;
  } lines[] = {{"a b c /l200", "/l200: the sound level must be -1 (no sound) to 199."},
               {"a b c /f0", "/f0: the frame rate must be above 0."},
               {"a b c /C3", "/C3: the output channels must be 1 or 2."},
               {"a b c /B7", "/B7: the output bits must be 8 or 16."},
               {"a b c /y1 /d0", "/d0: the raw input rate must be 1 to 1000000 Hz."},
               {"a b c /i-1", "/i-1: the sound track to read must be 0 or more."},
               {"a b c /s-10", "/s-10: the start must be 0 milliseconds or more."}};
  for (const auto& l : lines) {
    VelmoMixSettings s;
    EXPECT_FALSE(ParseLine(l.Line, &s)) << l.Line;
    EXPECT_STREQ(s.Errors.text, l.Message) << l.Line;
  }
  VelmoMixSettings ok;
  EXPECT_TRUE(ParseLine("a b c /l-1 /c1 /b8 /y2 /d22050", &ok)) << ok.Errors.text;
}

TEST(VelmoMixSwitches, ExtensionsFromTheInputsMagic) {
  const ScratchDir dir;
  WriteFile(dir / "one.vlm", BuildInput({100, 0, nullptr, 2, 1, {}}));
  std::vector<uint8_t> two(16, 0);
  const std::vector<uint8_t> vm2 = BuildInput({200, 0, nullptr, 2, 1, {}});
  two.insert(two.end(), vm2.begin(), vm2.end());
  WriteFile(dir / "two.bin", two);
  char name[256] = "clip";
  VelmoMixInputExtension(name, sizeof name);
  EXPECT_STREQ(name, "clip.vlm");
  const struct {
    const char* Name;
    const char* Input;
    uint64_t Offset;
    const char* Want;
  } outputs[] = {{"a.b/out", "one.vlm", 0, "a.b/out.vlm"},
                 {"out", "two.bin", 16, "out.vm2"},
                 {"out", "two.bin", 0, "out.vlm"},  // no magic there
                 {"out.dat", "two.bin", 16, "out.dat"}};
  for (const auto& o : outputs) {
    std::strcpy(name, o.Name);
    VelmoMixOutputExtension(name, sizeof name, (dir / o.Input).c_str(), o.Offset);
    EXPECT_STREQ(name, o.Want);
  }
}

int RunTool(const std::string& tail) {
  VelmoMixRegisterDialog();
  return RunToolHere(VelmoMixMain, VelmoMixCommand, "velmomix", tail).code;
}

// A wave file of the tone: 16-bit, `seconds` long.
void WriteWave(const std::string& name, uint32_t rate, uint32_t channels, double seconds) {
  Tone tone;
  tone.Rate = rate;
  tone.Channels = channels;
  std::vector<int16_t> pcm(size_t(rate * seconds) * channels);
  ReadTone(&tone, pcm.data(), uint32_t(pcm.size() * 2));
  WriteWave16(name, rate, channels, pcm);
}

TEST(VelmoMixTool, ExitCodes) {
  const ScratchDir dir;
  const std::string in = dir / "in.vlm", out = dir / "out.vlm";
  WriteFile(in, BuildInput({}));
  EXPECT_EQ(RunTool(in + " - " + out + " /l200"), ToolExitBadSwitches);
  EXPECT_EQ(RunTool(in + " -"), ToolExitBadSwitches);
  EXPECT_EQ(RunTool(in + " " + dir / "none.wav " + out), ToolExitInputError);
  EXPECT_EQ(RunTool(dir / "none.vlm - " + out), 8004);  // the mixer fails on its input
  EXPECT_TRUE(NoOutput(out));
  EXPECT_EQ(RunTool(in + " - " + out), ToolExitDone);
  EXPECT_TRUE(Exists(out));
  // Without /O the console takes the question's default answer, No.
  EXPECT_EQ(RunTool(in + " - " + out), ToolExitNoOverwrite);
  EXPECT_EQ(RunTool(in + " - " + out + " /o"), ToolExitDone);
  // A file mixed onto itself: the input is read to its end before the old file goes.
  const std::vector<uint8_t> before = ReadFile(in);
  EXPECT_EQ(RunTool(in + " - " + in + " /o /t99"), ToolExitDone);
  EXPECT_EQ(ReadFile(in), before);
}

// Mixing a wave: the track of /T joins the file's own, at the level of /L; the rest is the
// input's. "-" takes the track of /T out again, and names without extensions get theirs.
TEST(VelmoMixTool, MixesAWaveAndRemovesItAgain) {
  const ScratchDir dir;
  const std::vector<uint8_t> input = BuildInput({200, VelmoFlagFullRange, "x", 45, 5, {5}});
  WriteFile(dir / "in.vlm", input);
  WriteWave(dir / "tone.wav", 22050, 2, 2.0);
  ASSERT_EQ(RunTool(dir / "in " + dir / "tone.wav " + dir / "with.vlm /t3 /l8"), ToolExitDone);
  const std::string with = dir / "with.vlm";
  Parsed a, b;
  ASSERT_TRUE(ParseFile(input, &a));
  ASSERT_TRUE(ParseFile(ReadFile(with), &b));
  ASSERT_EQ(b.Tracks.size(), 2u);
  EXPECT_EQ(b.Tracks[1].Id, 3u);
  EXPECT_EQ(b.Tracks[1].Format & VelmoTrackRateMask, 22050u);
  EXPECT_TRUE(b.Tracks[1].Format & VelmoTrackStereo);
  EXPECT_TRUE(b.Tracks[1].Format & VelmoTrack16Bit);
  EXPECT_TRUE(KeptFrames(a, b, {{0, 0}}));
  const std::vector<int16_t> decoded = DecodeTrack(with, 1);
  EXPECT_NEAR(double(decoded.size()), 33075.0, 45 * 8.0);
  EXPECT_GT(ToneSnr(decoded, 0, 1000, 32000, 22050), 15.0);

  // Names without extensions: the input's is ".vlm", the output's follows the input's magic.
  // "-" removes track 3 and leaves the rest as it was.
  ASSERT_EQ(RunTool(dir / "with - " + dir / "without /t3"), ToolExitDone);
  Parsed c;
  ASSERT_TRUE(ParseFile(ReadFile(dir / "without.vm2"), &c));
  ASSERT_EQ(c.Tracks.size(), 1u);
  EXPECT_EQ(c.Tracks[0].Id, 5u);
  EXPECT_TRUE(KeptFrames(a, c, {{0, 0}}));
}

// /P repeats a short sound over the whole video; without it the track falls silent. /B8 makes
// an 8-bit track of the 16-bit samples; /F changes the rate, and with it the sound's length.
TEST(VelmoMixTool, LoopBitsAndRate) {
  const ScratchDir dir;
  const std::string in = dir / "in.vlm";
  WriteFile(in, BuildInput({100, 0, nullptr, 60, 5, {}}));
  WriteWave(dir / "short.wav", 22050, 1, 0.25);
  ASSERT_EQ(RunTool(in + " " + dir / "short.wav " + dir / "loop.vlm /p"), ToolExitDone);
  ASSERT_EQ(RunTool(in + " " + dir / "short.wav " + dir / "once.vlm"), ToolExitDone);
  const std::vector<int16_t> loop = DecodeTrack(dir / "loop.vlm", 0);
  const std::vector<int16_t> once = DecodeTrack(dir / "once.vlm", 0);
  EXPECT_NEAR(double(loop.size()), 44100.0, 60 * 8.0);
  EXPECT_NEAR(double(once.size()), 44100.0, 60 * 8.0);
  EXPECT_GT(Rms(loop, 30000, 40000), 3000.0);
  EXPECT_LT(Rms(once, 30000, 40000), 20.0);
  EXPECT_GT(Rms(once, 1000, 4000), 3000.0);

  ASSERT_EQ(RunTool(in + " " + dir / "short.wav " + dir / "eight.vlm /b8 /f15"), ToolExitDone);
  Parsed e;
  ASSERT_TRUE(ParseFile(ReadFile(dir / "eight.vlm"), &e));
  EXPECT_EQ(e.Info.Header.FrameRate, 15u);
  EXPECT_EQ(e.Info.Header.FrameRateDiv, 1u);
  ASSERT_EQ(e.Tracks.size(), 1u);
  EXPECT_FALSE(e.Tracks[0].Format & VelmoTrack16Bit);
}

ToolOutcome RunMixer(const std::string& tail) {
  VelmoMixRegisterDialog();
  return RunToolHere(VelmoMixMain, VelmoMixCommand, "velmomix", tail);
}

// A sound longer than the time it has in the video (2 seconds, less a lead of silence) is cut
// with one warning that says how much was left out; a shorter one is not. A refused value is
// named alone, and a start beyond the sound's end is refused with the sound's name.
TEST(VelmoMixTool, SaysWhenItCutsTheSound) {
  const ScratchDir dir;
  const std::string in = dir / "in.vlm", out = dir / "out.vlm";
  WriteFile(in, BuildInput({100, 0, nullptr, 60, 5, {}}));
  WriteWave(dir / "long.wav", 22050, 1, 3.0);
  WriteWave(dir / "short.wav", 22050, 1, 1.0);
  const std::string cut = "The sound is longer than the video, so it was cut at the video's end";
  const ToolOutcome longer = RunMixer(in + " " + dir / "long.wav " + out);
  EXPECT_EQ(longer.code, ToolExitDone);
  EXPECT_EQ(longer.Times(cut), 1u) << longer.output;
  EXPECT_TRUE(longer.Says("(1 second of sound left out)")) << longer.output;
  const ToolOutcome lead = RunMixer(in + " " + dir / "short.wav " + out + " /o /n-1500");
  EXPECT_EQ(lead.code, ToolExitDone);
  EXPECT_TRUE(lead.Says("(500 milliseconds of sound left out)")) << lead.output;
  const ToolOutcome shorter = RunMixer(in + " " + dir / "short.wav " + out + " /o");
  EXPECT_EQ(shorter.code, ToolExitDone);
  EXPECT_FALSE(shorter.Says(cut)) << shorter.output;
  const ToolOutcome looped = RunMixer(in + " " + dir / "short.wav " + out + " /o /p");
  EXPECT_FALSE(looped.Says(cut)) << looped.output;

  const ToolOutcome channels = RunMixer(in + " " + dir / "short.wav " + out + " /o /c3");
  EXPECT_EQ(channels.code, ToolExitBadSwitches);
  EXPECT_EQ(channels.Times("/c3: the output channels must be 1 or 2."), 1u) << channels.output;
  EXPECT_FALSE(channels.Says("Syntax:"));
  const ToolOutcome late = RunMixer(in + " " + dir / "short.wav " + out + " /o /s5000");
  EXPECT_EQ(late.code, ToolExitBadSwitches);
  EXPECT_TRUE(late.Says("/S5000: the start is past the end of the sound '" + dir / "short.wav" +
                        "'.")) << late.output;
}

}  // namespace
