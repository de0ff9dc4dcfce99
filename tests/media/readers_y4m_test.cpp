// YUV4MPEG2 reader: every chroma form against a float BT.601 model, header parameters, full
// range, reading from the standard input as a pipe, and damaged streams.
#include "media/readers/stream_readers.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

struct Planes {
  std::vector<uint8_t> y, u, v, a;
};

struct Form {
  const char* tag;
  int hdiv, vdiv;  // chroma subsampling; 0 for no chroma planes
  bool alpha;
};

const Form kForms[] = {{"420jpeg", 2, 2, false}, {"420mpeg2", 2, 2, false}, {"420paldv", 2, 2, false},
                       {"420", 2, 2, false},     {"422", 2, 1, false},      {"444", 1, 1, false},
                       {"mono", 0, 0, false},    {"444alpha", 1, 1, true}};

Planes RandomPlanes(const Form& form, int w, int h, uint32_t seed) {
  std::mt19937 rng(seed);
  Planes p;
  p.y.resize(size_t(w * h));
  for (auto& s : p.y) s = uint8_t(rng());
  if (form.hdiv) {
    const int cw = (w + form.hdiv - 1) / form.hdiv, ch = (h + form.vdiv - 1) / form.vdiv;
    p.u.resize(size_t(cw * ch));
    p.v.resize(size_t(cw * ch));
    for (auto& s : p.u) s = uint8_t(rng());
    for (auto& s : p.v) s = uint8_t(rng());
  }
  if (form.alpha) {
    p.a.resize(size_t(w * h));
    for (auto& s : p.a) s = uint8_t(rng());
  }
  return p;
}

std::string Y4m(const std::string& header, const std::vector<Planes>& frames) {
  std::string s = header + "\n";
  for (const Planes& p : frames) {
    s += "FRAME\n";
    for (const auto* plane : {&p.y, &p.u, &p.v, &p.a}) s.append(plane->begin(), plane->end());
  }
  return s;
}

// BT.601 in floating point: limited range scales Y by 255/219 from 16 and chroma by 255/224.
void Model(int y, int u, int v, bool full, double rgb[3]) {
  const double yy = full ? y : (y - 16) * 255.0 / 219.0;
  const double cb = full ? u - 128 : (u - 128) * 255.0 / 224.0;
  const double cr = full ? v - 128 : (v - 128) * 255.0 / 224.0;
  rgb[0] = yy + 1.402 * cr;
  rgb[1] = yy - 0.344136 * cb - 0.714136 * cr;
  rgb[2] = yy + 1.772 * cb;
  for (int i = 0; i < 3; ++i) rgb[i] = std::min(255.0, std::max(0.0, rgb[i]));
}

// Largest difference between a delivered frame and the model of its planes.
double CompareWithModel(const StreamFrame& f, const Planes& p, const Form& form, int w, int h, bool full) {
  double worst = 0;
  const int cw = form.hdiv ? (w + form.hdiv - 1) / form.hdiv : 0;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const uint8_t* px = f.pixels + ptrdiff_t(y) * f.pitch + x * 4;
      int u = 128, v = 128;
      if (form.hdiv) {
        const size_t c = size_t((y / form.vdiv) * cw + x / form.hdiv);
        u = p.u[c];
        v = p.v[c];
      }
      double rgb[3];
      Model(p.y[size_t(y * w + x)], u, v, full, rgb);
      worst = std::max({worst, std::fabs(px[2] - rgb[0]), std::fabs(px[1] - rgb[1]), std::fabs(px[0] - rgb[2])});
      const int alpha = form.alpha ? p.a[size_t(y * w + x)] : 255;
      if (px[3] != alpha) return 1000;
    }
  }
  return worst;
}

// 4:2:0 and 4:4:4 frames also come as the file's own planes, byte for byte; other forms have
// none to give.
void ExpectPlanes(const StreamPlanes& got, const Planes& p, const Form& form, int w, int h, bool full) {
  SCOPED_TRACE(form.tag);
  if (form.hdiv == 0 || form.hdiv != form.vdiv) {
    EXPECT_EQ(got.plane[0], nullptr);
    return;
  }
  ASSERT_NE(got.plane[0], nullptr);
  EXPECT_EQ(std::tuple(got.chroma_shift, got.full_range, got.plane[3] != nullptr),
            std::tuple(form.hdiv == 2 ? 1u : 0u, full ? 1u : 0u, form.alpha));
  const int cw = (w + form.hdiv - 1) / form.hdiv, ch = (h + form.vdiv - 1) / form.vdiv;
  const std::vector<uint8_t>* want[4] = {&p.y, &p.u, &p.v, &p.a};
  for (int i = 0; i < (form.alpha ? 4 : 3); ++i) {
    const bool luma = i == 0 || i == 3;
    const int pw = luma ? w : cw, ph = luma ? h : ch;
    ASSERT_EQ(got.pitch[i], pw);
    EXPECT_TRUE(std::equal(want[i]->begin(), want[i]->end(), got.plane[i], got.plane[i] + pw * ph)) << i;
  }
}

StreamReader* OpenText(const std::string& s, StreamError* error) {
  return StreamReaderOpenMemory(&kStreamReaderY4m, reinterpret_cast<const uint8_t*>(s.data()), s.size(), error);
}

TEST(Y4mReader, EveryChromaFormMatchesTheModel) {
  const int w = 7, h = 5;  // odd sizes: chroma planes round up
  for (const Form& form : kForms) {
    for (bool full : {false, true}) {
      const std::vector<Planes> frames = {RandomPlanes(form, w, h, 1), RandomPlanes(form, w, h, 2),
                                          RandomPlanes(form, w, h, 3)};
      std::string header = std::string("YUV4MPEG2 W7 H5 F25:1 Ip A1:1 C") + form.tag;
      if (full) header += " XCOLORRANGE=FULL";
      const std::string file = Y4m(header, frames);
      StreamError error{};
      StreamReader* r = OpenText(file, &error);
      ASSERT_NE(r, nullptr) << form.tag << ": " << error.text;
      const StreamInfo* info = StreamReaderInfo(r);
      EXPECT_EQ(std::tuple(info->frame_count, info->has_alpha, info->depth), std::tuple(3u, form.alpha ? 1u : 0u, 32u));
      // Out of order, to use the frame table.
      for (uint32_t i : {2u, 0u, 1u}) {
        StreamFrame f{};
        ASSERT_EQ(StreamReaderRead(r, i, &f, &error), 1) << error.text;
        EXPECT_EQ(f.pitch, w * 4);
        EXPECT_LE(CompareWithModel(f, frames[i], form, w, h, full), 1.0) << form.tag << " full " << full << " frame " << i;
        ExpectPlanes(f.planes, frames[i], form, w, h, full);
      }
      StreamReaderClose(r);
    }
  }
}

// Asked for planes alone, forms with planes give them without a picture, and the same frame
// asked again without that gives the picture of the model; forms without planes give pictures
// whatever is asked.
TEST(Y4mReader, PlanesAloneLeaveThePictureUnmadeUntilItIsAskedFor) {
  const int w = 7, h = 5;
  for (const Form& form : kForms) {
    SCOPED_TRACE(form.tag);
    const std::vector<Planes> frames = {RandomPlanes(form, w, h, 4), RandomPlanes(form, w, h, 5)};
    const std::string file = Y4m(std::string("YUV4MPEG2 W7 H5 F25:1 C") + form.tag, frames);
    StreamError error{};
    StreamReader* r = OpenText(file, &error);
    ASSERT_NE(r, nullptr) << error.text;
    const bool planar = form.hdiv != 0 && form.hdiv == form.vdiv;
    for (uint32_t i : {0u, 1u}) {
      StreamReaderPlanesOnly(r, 1);
      StreamFrame f{};
      ASSERT_EQ(StreamReaderRead(r, i, &f, &error), 1) << error.text;
      EXPECT_EQ(f.pixels == nullptr, planar);
      ExpectPlanes(f.planes, frames[i], form, w, h, false);
      StreamReaderPlanesOnly(r, 0);
      ASSERT_EQ(StreamReaderRead(r, i, &f, &error), 1) << error.text;
      ASSERT_NE(f.pixels, nullptr);
      EXPECT_LE(CompareWithModel(f, frames[i], form, w, h, false), 1.0) << "frame " << i;
    }
    StreamReaderClose(r);
  }
}

TEST(Y4mReader, RangeEndsMapToBlackAndWhite) {
  Planes p;
  p.y = {16, 235, 0, 255};
  p.u = p.v = {128, 128, 128, 128};
  for (auto [range, want] : {std::pair{"", std::vector<uint8_t>{0, 255, 0, 255}},
                             {" XCOLORRANGE=FULL", std::vector<uint8_t>{16, 235, 0, 255}}}) {
    StreamError error{};
    StreamFrame f{};
    const std::string file = Y4m(std::string("YUV4MPEG2 W4 H1 F1:1 C444") + range, {p});
    StreamReader* r = OpenText(file, &error);
    ASSERT_NE(r, nullptr) << error.text;
    ASSERT_EQ(StreamReaderRead(r, 0, &f, &error), 1);
    for (int x = 0; x < 4; ++x) EXPECT_EQ(f.pixels[x * 4 + 1], want[size_t(x)]) << range << " " << x;
    StreamReaderClose(r);
  }
}

TEST(Y4mReader, HeaderParameters) {
  Planes p = RandomPlanes(kForms[0], 4, 2, 9);
  StreamError error{};
  struct Case {
    const char* header;
    uint32_t num, den, interlace, an, ad;
  } cases[] = {{"YUV4MPEG2 W4 H2 F30000:1001 It A128:117", 30000, 1001, 1, 128, 117},
               {"YUV4MPEG2 H2 W4 Ib F24:1", 24, 1, 2, 0, 0},
               {"YUV4MPEG2 W4 H2 Im A0:0 XYSCSS=420JPEG", 25, 1, 3, 0, 0},
               {"YUV4MPEG2  W4   H2 F0:0", 25, 1, 0, 0, 0}};
  for (const Case& c : cases) {
    const std::string file = Y4m(c.header, {p});
    StreamReader* r = OpenText(file, &error);
    ASSERT_NE(r, nullptr) << c.header << ": " << error.text;
    const StreamInfo* info = StreamReaderInfo(r);
    EXPECT_STREQ(info->type_name, "YUV4MPEG2");
    EXPECT_EQ(std::tuple(info->width, info->height, info->rate_num, info->rate_den, info->interlace,
                         info->aspect_num, info->aspect_den),
              std::tuple(4u, 2u, c.num, c.den, c.interlace, c.an, c.ad))
        << c.header;
    StreamReaderClose(r);
  }
  // A rate with one side zero, or one that is not a ratio, is refused rather than guessed.
  for (const char* header : {"YUV4MPEG2 W4 H2 F30:0", "YUV4MPEG2 W4 H2 F0:1", "YUV4MPEG2 W4 H2 F30"}) {
    EXPECT_EQ(OpenText(Y4m(header, {p}), &error), nullptr) << header;
    EXPECT_EQ(error.code, STREAM_ERROR_CORRUPT) << header;
  }
}

TEST(Y4mReader, FrameHeadersWithParametersAndDamage) {
  const Form& form = kForms[0];
  const Planes a = RandomPlanes(form, 6, 4, 4), b = RandomPlanes(form, 6, 4, 5);
  std::string file = Y4m("YUV4MPEG2 W6 H4 C420jpeg", {a});
  file += "FRAME Ixyz XFOO=1\n";
  for (const auto* plane : {&b.y, &b.u, &b.v}) file.append(plane->begin(), plane->end());
  StreamError error{};
  StreamReader* r = OpenText(file, &error);
  ASSERT_NE(r, nullptr) << error.text;
  EXPECT_EQ(StreamReaderInfo(r)->frame_count, 2u);
  StreamFrame f{};
  ASSERT_EQ(StreamReaderRead(r, 1, &f, &error), 1);
  EXPECT_LE(CompareWithModel(f, b, form, 6, 4, false), 1.0);
  StreamReaderClose(r);

  // A cut last frame and a broken frame marker end the count before them.
  std::string cut = Y4m("YUV4MPEG2 W6 H4", {a, b});
  cut.resize(cut.size() - 5);
  r = OpenText(cut, &error);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(StreamReaderInfo(r)->frame_count, 1u);
  EXPECT_EQ(StreamReaderRead(r, 1, &f, &error), 0);
  EXPECT_EQ(error.code, STREAM_ERROR_END);
  StreamReaderClose(r);
  std::string broken = Y4m("YUV4MPEG2 W6 H4", {a, b, a});
  const size_t second = broken.find("FRAME", 20);
  broken[second] = 'G';
  r = OpenText(broken, &error);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(StreamReaderInfo(r)->frame_count, 1u);
  StreamReaderClose(r);
}

TEST(Y4mReader, CleanErrors) {
  const Planes p = RandomPlanes(kForms[0], 4, 2, 1);
  StreamError error{};
  struct Case {
    std::string text;
    int code;
  } cases[] = {
      {"", STREAM_ERROR_FORMAT},
      {"YUV4MPEG2 W4 H2", STREAM_ERROR_FORMAT},  // no end to the header line
      {"YUV4MPEG3 W4 H2\nFRAME\n", STREAM_ERROR_FORMAT},
      {Y4m("YUV4MPEG2 H2", {p}), STREAM_ERROR_CORRUPT},
      {Y4m("YUV4MPEG2 W4 H2 C420p10", {p}), STREAM_ERROR_UNSUPPORTED},
      {Y4m("YUV4MPEG2 W4 H2 C411", {p}), STREAM_ERROR_UNSUPPORTED},
      {Y4m("YUV4MPEG2 W99999 H2", {p}), STREAM_ERROR_TOO_LARGE},
      {"YUV4MPEG2 W4 H2\n", STREAM_ERROR_CORRUPT},
      {"YUV4MPEG2 W8192 H8192 C444alpha\nFRAME\n", STREAM_ERROR_CORRUPT},
      {std::string("YUV4MPEG2 W4 H2 ") + std::string(5000, 'X') + "\n", STREAM_ERROR_FORMAT},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(OpenText(c.text, &error), nullptr) << c.text.substr(0, 40);
    EXPECT_EQ(error.code, c.code) << c.text.substr(0, 40) << ": " << error.text;
  }
}

// The reader on "-" takes the standard input; here a pipe stands in for it.
TEST(Y4mReader, ReadsAPipeInOrder) {
  const Form& form = kForms[4];  // 422
  std::vector<Planes> frames;
  for (uint32_t i = 0; i < 5; ++i) frames.push_back(RandomPlanes(form, 10, 6, 20 + i));
  const std::string data = Y4m("YUV4MPEG2 W10 H6 F50:1 C422", frames);

  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const int saved = dup(0);
  ASSERT_GE(saved, 0);
  ASSERT_EQ(dup2(fds[0], 0), 0);
  close(fds[0]);
  std::thread writer([&] {
    // Small pieces, so that reads meet partly filled pipe buffers.
    for (size_t at = 0; at < data.size(); at += 97) {
      const size_t n = std::min<size_t>(97, data.size() - at);
      if (write(fds[1], data.data() + at, n) != ssize_t(n)) break;
    }
    close(fds[1]);
  });

  StreamError error{};
  StreamReader* r = StreamReaderOpen(&kStreamReaderY4m, "-", &error);
  ASSERT_NE(r, nullptr) << error.text;
  const StreamInfo* info = StreamReaderInfo(r);
  EXPECT_EQ(std::tuple(info->frame_count, info->seekable), std::tuple(0u, 0u));
  StreamFrame f{};
  ASSERT_EQ(StreamReaderRead(r, 0, &f, &error), 1) << error.text;
  EXPECT_LE(CompareWithModel(f, frames[0], form, 10, 6, false), 1.0);
  ASSERT_EQ(StreamReaderRead(r, 0, &f, &error), 1);  // the same frame again is at hand
  ASSERT_EQ(StreamReaderRead(r, 2, &f, &error), 1);  // skips frame 1
  EXPECT_LE(CompareWithModel(f, frames[2], form, 10, 6, false), 1.0);
  EXPECT_EQ(StreamReaderRead(r, 1, &f, &error), 0);
  EXPECT_EQ(error.code, STREAM_ERROR_SEEK);
  ASSERT_EQ(StreamReaderRead(r, 4, &f, &error), 1);
  EXPECT_LE(CompareWithModel(f, frames[4], form, 10, 6, false), 1.0);
  EXPECT_EQ(StreamReaderRead(r, 5, &f, &error), 0);
  EXPECT_EQ(error.code, STREAM_ERROR_END);
  EXPECT_EQ(info->frame_count, 5u);
  StreamReaderClose(r);
  writer.join();
  dup2(saved, 0);
  close(saved);
  std::clearerr(stdin);
}

}  // namespace
