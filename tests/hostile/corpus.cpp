// Seeds and their damaged forms. Every field that a variant changes is found in the seed the
// way a reader finds it (chunk tags, attribute names, directory entries), so the variants follow
// the writers when their layouts change.
#include "corpus.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <functional>
#include <set>

#include "format/container.h"
#include "imagefile/imagefile.h"
#include "support/files.h"
#include "support/picture.h"
#include "support/run.h"
#include "support/velmo2_file.h"
#include "support/velmo_file.h"
#include "support/wave.h"

namespace hostile {

using test_support::ReadFile;
using Bytes = std::vector<uint8_t>;

const char* ExpectName(Expect e) {
  switch (e) {
    case Expect::Valid: return "0";
    case Expect::Reject: return "8002";
    case Expect::SaidOnce: return "8002, or 0 with one warning";
    case Expect::Trailer: return "8002, or 0 with at most one warning";
    default: return "a documented code";
  }
}

namespace {

constexpr int kW = 32, kH = 24, kFrames = 12;

bool Save(const std::string& name, const Bytes& bytes) {
  FILE* f = std::fopen(name.c_str(), "wb");
  if (!f) return false;
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}

// A picture with detail everywhere (so no coder can shrink a frame to nothing), tagged by frame.
std::vector<uint32_t> Picture(int w, int h, uint32_t frame) {
  std::vector<uint32_t> p(size_t(w) * h);
  uint32_t seed = 12345 + frame * 777;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      seed = seed * 1664525u + 1013904223u;
      p[size_t(y) * w + x] = 0xFF000000u | (uint32_t(x * 8 + frame * 20) & 255) << 16 |
                             (uint32_t(y * 10) & 255) << 8 | (seed >> 24);
    }
  return p;
}

void Put16(Bytes* b, uint32_t v) { test_support::Put16(b, v); }
void Put32(Bytes* b, uint32_t v) { test_support::Put32(b, v); }

// A Flic animation: 128-byte header, one frame chunk of a 256-colour palette and the picture
// uncompressed per frame, and the ring frame that leads back to the first picture.
Bytes Flic(int frames) {
  auto frameChunk = [](const std::vector<Bytes>& subs) {
    Bytes f;
    size_t size = 16;
    for (const Bytes& s : subs) size += s.size();
    Put32(&f, uint32_t(size)), Put16(&f, 0xF1FA), Put16(&f, uint32_t(subs.size()));
    f.resize(16, 0);
    for (const Bytes& s : subs) f.insert(f.end(), s.begin(), s.end());
    return f;
  };
  auto sub = [](int type, const Bytes& data) {
    Bytes c;
    Put32(&c, uint32_t(6 + data.size())), Put16(&c, uint32_t(type));
    c.insert(c.end(), data.begin(), data.end());
    if (c.size() % 2) c.push_back(0), c[0]++;
    return c;
  };
  Bytes palette = {1, 0, 0, 0};  // one packet: skip 0, all 256 entries
  for (int i = 0; i < 256; ++i) palette.insert(palette.end(), {uint8_t(i), uint8_t(255 - i), uint8_t(i / 2)});
  auto picture = [](int frame) {
    Bytes p(size_t(kW) * kH);
    for (size_t i = 0; i < p.size(); ++i) p[i] = uint8_t(i * 7 + frame * 31);
    return p;
  };
  Bytes file(128, 0);
  std::vector<Bytes> chunks;
  for (int f = 0; f < frames; ++f)
    chunks.push_back(frameChunk({sub(4, palette), sub(16, picture(f))}));
  chunks.push_back(frameChunk({sub(16, picture(0))}));
  const uint32_t firstOffset = 128, secondOffset = uint32_t(128 + chunks[0].size());
  for (const Bytes& c : chunks) file.insert(file.end(), c.begin(), c.end());
  Bytes h;
  Put32(&h, uint32_t(file.size())), Put16(&h, 0xAF12), Put16(&h, uint32_t(frames));
  Put16(&h, kW), Put16(&h, kH), Put16(&h, 8), Put16(&h, 0), Put32(&h, 70);
  std::copy(h.begin(), h.end(), file.begin());
  for (int i = 0; i < 4; ++i) file[80 + i] = uint8_t(firstOffset >> (8 * i));
  for (int i = 0; i < 4; ++i) file[84 + i] = uint8_t(secondOffset >> (8 * i));
  return file;
}

// A 4:2:0 y4m clip of noise.
Bytes Y4m(int w, int h, int frames, uint32_t seed) {
  const std::string head = "YUV4MPEG2 W" + std::to_string(w) + " H" + std::to_string(h) + " F30:1 Ip A1:1 C420jpeg\n";
  Bytes out(head.begin(), head.end());
  const size_t frameBytes = size_t(w) * h * 3 / 2;
  for (int f = 0; f < frames; ++f) {
    const char tag[] = "FRAME\n";
    out.insert(out.end(), tag, tag + 6);
    for (size_t i = 0; i < frameBytes; ++i) {
      seed = seed * 1664525u + 1013904223u;
      out.push_back(uint8_t(seed >> 24));
    }
  }
  return out;
}

// ---- Field locations ------------------------------------------------------------------------

size_t FindTag(const Bytes& b, const char* tag, size_t from = 0) {
  const size_t n = std::strlen(tag);
  for (size_t i = from; i + n <= b.size(); ++i)
    if (std::memcmp(b.data() + i, tag, n) == 0) return i;
  return std::string::npos;
}

uint32_t Be32(const Bytes& b, size_t at) {
  return uint32_t(b[at]) << 24 | uint32_t(b[at + 1]) << 16 | uint32_t(b[at + 2]) << 8 | b[at + 3];
}

uint32_t Crc32(const uint8_t* p, size_t n) {
  uint32_t c = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) {
    c ^= p[i];
    for (int k = 0; k < 8; ++k) c = c >> 1 ^ (0xEDB88320u & (0u - (c & 1)));
  }
  return ~c;
}

// A field of a seed: where it is, how wide, its byte order, and what a lying value claims.
struct Field {
  std::string name;
  size_t at = std::string::npos;
  int bytes = 4;
  bool bigEndian = false;
  std::vector<uint32_t> values;
  Expect expect = Expect::Reject;
};

Bytes Patched(Bytes b, const Field& f, uint32_t value) {
  for (int i = 0; i < f.bytes; ++i) {
    const int shift = f.bigEndian ? 8 * (f.bytes - 1 - i) : 8 * i;
    b[f.at + size_t(i)] = uint8_t(value >> shift);
  }
  return b;
}

const std::vector<uint32_t> kBig32 = {0, 0x7FFFFFFFu, 0xFFFFFFFFu};
const std::vector<uint32_t> kBig16 = {0, 0xFFFFu};

std::vector<Field> VelmoFields(const Bytes& b) {
  VelmoFileInfo info{};
  std::vector<Field> f = {
      {"frames", 8, 4, false, kBig32},
      {"largest-frame", 12, 4, false, {0x7FFFFFFFu, 0xFFFFFFFFu}},
      {"index-frames", 16, 4, false, {0x7FFFFFFFu, 0xFFFFFFFFu}},
      {"rate", 28, 4, false, {0}},
      {"rate-divisor", 32, 4, false, kBig32},
      // A file shorter than its header says is read as far as its frames are whole.
      {"size", 4, 4, false, {0x7FFFFFFFu, 0xFFFFFFFFu}, Expect::Trailer},
  };
  if (!VelmoParseFile(b.data(), b.size(), &info) && info.TrackCount > 0)
    // A track whose table lies is left out of a video with a word, or refuses a sound-only run.
    f.push_back({"largest-track-packet", info.TablesOffset, 4, false, {0x7FFFFFFFu, 0xFFFFFFFFu}, Expect::SaidOnce});
  return f;
}

std::vector<Field> PngFields(const Bytes&) {
  return {{"width", 16, 4, true, kBig32}, {"height", 20, 4, true, kBig32}};
}

std::vector<Field> BmpFields(const Bytes&) {
  return {{"width", 18, 4, false, kBig32},
          {"height", 22, 4, false, {0, 0x7FFFFFFFu}},
          {"pixel-offset", 10, 4, false, {0xFFFFFFFFu}},
          {"image-size", 34, 4, false, {0xFFFFFFFFu}, Expect::Any}};
}

std::vector<Field> TgaFields(const Bytes&) {
  return {{"width", 12, 2, false, kBig16}, {"height", 14, 2, false, kBig16}};
}

std::vector<Field> GifFields(const Bytes& b) {
  std::vector<Field> f = {{"screen-width", 6, 2, false, {0xFFFFu}, Expect::Any}};
  size_t at = 13 + ((b[10] & 0x80) ? 3u << ((b[10] & 7) + 1) : 0);
  while (at < b.size() && b[at] == 0x21) {  // extensions: label, then sub-blocks
    at += 2;
    while (at < b.size() && b[at]) at += size_t(b[at]) + 1;
    ++at;
  }
  if (at + 9 < b.size() && b[at] == 0x2C) {
    f.push_back({"image-width", at + 5, 2, false, {0xFFFFu}});
    f.push_back({"image-height", at + 7, 2, false, {0xFFFFu}});
  }
  return f;
}

std::vector<Field> TiffFields(const Bytes& b) {
  std::vector<Field> f;
  const bool big = b[0] == 'M';
  auto u16 = [&](size_t at) { return big ? uint32_t(b[at]) << 8 | b[at + 1] : test_support::Le16(b, at); };
  auto u32 = [&](size_t at) { return big ? Be32(b, at) : test_support::Le32(b, at); };
  const size_t ifd = u32(4);
  if (ifd + 2 > b.size()) return f;
  const uint32_t count = u16(ifd);
  for (uint32_t i = 0; i < count && ifd + 2 + 12 * (i + 1) <= b.size(); ++i) {
    const size_t e = ifd + 2 + 12 * i;
    const uint32_t tag = u16(e), type = u16(e + 2), n = u32(e + 4);
    const int width = type == 3 ? 2 : 4;
    Field field{"", e + 8, width, big, width == 2 ? kBig16 : kBig32};
    if (tag == 256) field.name = "width";
    if (tag == 257) field.name = "height";
    if (tag == 279 && n == 1) field.name = "strip-bytes", field.values = {0xFFFFFFFFu}, field.bytes = 4;
    if (tag == 279 && n == 1 && width == 2) field.values = {0xFFFFu}, field.bytes = 2;
    if (!field.name.empty()) f.push_back(field);
  }
  return f;
}

std::vector<Field> JpegFields(const Bytes& b) {
  for (size_t i = 2; i + 9 < b.size(); ++i)
    if (b[i] == 0xFF && (b[i + 1] == 0xC0 || b[i + 1] == 0xC1 || b[i + 1] == 0xC2))
      return {{"height", i + 5, 2, true, kBig16}, {"width", i + 7, 2, true, kBig16}};
  return {};
}

std::vector<Field> ExrFields(const Bytes& b) {
  const size_t at = FindTag(b, "dataWindow");
  if (at == std::string::npos) return {};
  const size_t box = at + std::strlen("dataWindow") + 1 + std::strlen("box2i") + 1 + 4;
  return {{"x-max", box + 8, 4, false, {0x7FFFFFFFu, 0xFFFFFFFFu}},
          {"y-max", box + 12, 4, false, {0x7FFFFFFFu, 0xFFFFFFFFu}}};
}

std::vector<Field> FlicFields(const Bytes&) {
  return {{"frames", 6, 2, false, kBig16},
          {"width", 8, 2, false, kBig16},
          {"height", 10, 2, false, kBig16},
          {"first-frame-size", 128, 4, false, kBig32}};
}

std::vector<Field> AviFields(const Bytes& b) {
  std::vector<Field> f;
  const size_t avih = FindTag(b, "avih");
  if (avih != std::string::npos) {
    f.push_back({"total-frames", avih + 8 + 16, 4, false, {0x7FFFFFFFu, 0xFFFFFFFFu}, Expect::Any});
    f.push_back({"suggested-buffer", avih + 8 + 28, 4, false, {0xFFFFFFFFu}, Expect::Any});
  }
  const size_t strh = FindTag(b, "strhvids");
  if (strh != std::string::npos) {
    f.push_back({"rate-divisor", strh + 8 + 20, 4, false, {0}});
    f.push_back({"rate", strh + 8 + 24, 4, false, {0}});
    f.push_back({"stream-buffer", strh + 8 + 36, 4, false, {0xFFFFFFFFu}, Expect::Any});
    const size_t strf = FindTag(b, "strf", strh);
    if (strf != std::string::npos) {
      f.push_back({"width", strf + 8 + 4, 4, false, {0, 0x7FFFFFFFu}});
      f.push_back({"height", strf + 8 + 8, 4, false, {0}});
    }
  }
  const size_t movi = FindTag(b, "movi");
  if (movi != std::string::npos) {
    for (const char* tag : {"00dc", "00db"}) {
      const size_t chunk = FindTag(b, tag, movi);
      if (chunk == std::string::npos) continue;
      // The index gives each frame's place and size, so a reader need not believe this field.
      f.push_back({"frame-chunk-size", chunk + 4, 4, false, {0x7FFFFFFFu, 0xFFFFFFFFu}, Expect::Any});
      break;
    }
  }
  return f;
}

std::vector<Field> WaveFields(const Bytes& b) {
  const size_t fmt = FindTag(b, "fmt "), data = FindTag(b, "data");
  std::vector<Field> f = {{"riff-size", 4, 4, false, {0xFFFFFFFFu}, Expect::Any}};
  if (fmt != std::string::npos) {
    f.push_back({"channels", fmt + 10, 2, false, {0}});
    f.push_back({"rate", fmt + 12, 4, false, {0}});
    // A reader may take the block size from the channels and bits alone.
    f.push_back({"block-align", fmt + 20, 2, false, {0}, Expect::Any});
    f.push_back({"bits", fmt + 22, 2, false, {0}});
  }
  if (data != std::string::npos) {
    // A length past the end of the file reads as a cut recording.
    f.push_back({"data-size", data + 4, 4, false, {0x7FFFFFFFu}, Expect::SaidOnce});
    // All ones is the size a writer leaves when it streams and cannot come back.
    f.push_back({"data-size", data + 4, 4, false, {0xFFFFFFFFu}, Expect::Any});
  }
  return f;
}

// ---- The seed types -------------------------------------------------------------------------

struct SeedType {
  std::string type;  // label and extension
  Role role;
  std::function<size_t(const Bytes&)> headerEnd;       // bytes of the header alone
  std::function<Expect(const Bytes&)> lastByteExpect;  // the file less its last byte
  Expect halfExpect = Expect::Reject;                  // the file cut in half
  std::function<std::vector<Field>(const Bytes&)> fields;
  std::vector<std::string> convertSwitches, mixSwitches;
};

size_t Fixed(const Bytes&, size_t n) { return n; }

size_t ExrHeaderEnd(const Bytes& b) {
  size_t at = 8;
  while (at < b.size() && b[at]) {
    while (at < b.size() && b[at]) ++at;  // name
    ++at;
    while (at < b.size() && b[at]) ++at;  // type
    at += 1 + 4 + test_support::Le32(b, at + 1);
  }
  return at + 1;
}

Expect EndsWith(const Bytes& b, const std::string& tail, Expect yes) {
  return b.size() >= tail.size() && std::equal(tail.begin(), tail.end(), b.end() - long(tail.size()))
             ? yes
             : Expect::Reject;
}

std::vector<SeedType> Types() {
  auto reject = [](const Bytes&) { return Expect::Reject; };
  auto trailer = [](const Bytes&) { return Expect::Trailer; };
  return {
      {"png", Role::Video, [](const Bytes& b) { return Fixed(b, 33); }, trailer, Expect::Reject, PngFields, {}, {}},
      {"bmp", Role::Video, [](const Bytes& b) { return Fixed(b, 54); }, reject, Expect::Reject, BmpFields, {}, {}},
      {"tga", Role::Video, [](const Bytes& b) { return Fixed(b, 18); },
       [](const Bytes& b) { return EndsWith(b, std::string("TRUEVISION-XFILE.") + '\0', Expect::Trailer); },
       Expect::Reject, TgaFields, {}, {}},
      {"gif", Role::Video, [](const Bytes& b) { return Fixed(b, 13); }, trailer, Expect::SaidOnce, GifFields, {}, {}},
      {"tif", Role::Video, [](const Bytes& b) { return Fixed(b, 8); }, reject, Expect::Reject, TiffFields, {}, {}},
      {"jpg", Role::Video, [](const Bytes& b) { return Fixed(b, 20); }, trailer, Expect::Reject, JpegFields, {}, {}},
      {"exr", Role::Video, ExrHeaderEnd, reject, Expect::Reject, ExrFields, {}, {}},
      // The last frame chunk of a Flic is the ring frame, which only leads back to the start.
      {"flc", Role::Video, [](const Bytes& b) { return Fixed(b, 128); }, trailer, Expect::Reject, FlicFields, {}, {}},
      {"avi", Role::Video,
       [](const Bytes& b) { const size_t m = FindTag(b, "movi"); return m == std::string::npos ? 64 : m + 4; },
       [](const Bytes& b) { const size_t i = FindTag(b, "idx1"); return i == std::string::npos ? Expect::Reject : Expect::Trailer; },
       Expect::Reject, AviFields, {}, {}},
      // A stream has no index: cut anywhere, it is a shorter recording whose cut frame is left
      // out with a word.
      {"y4m", Role::Video,
       [](const Bytes& b) { return size_t(std::find(b.begin(), b.end(), '\n') - b.begin()) + 1; },
       [](const Bytes&) { return Expect::SaidOnce; }, Expect::SaidOnce, [](const Bytes&) { return std::vector<Field>(); }, {}, {}},
      // A Velmo file cut short is a compression that was stopped: its whole frames are read, with
      // a word.
      {"vlm", Role::Velmo, [](const Bytes& b) { return Fixed(b, 44); }, [](const Bytes&) { return Expect::SaidOnce; },
       Expect::SaidOnce, VelmoFields, {}, {}},
      // Sound data that ends before the length its header states is a cut recording.
      {"wav", Role::Sound, [](const Bytes& b) { return Fixed(b, 44); },
       [](const Bytes&) { return Expect::SaidOnce; }, Expect::SaidOnce, WaveFields, {}, {}},
      // Raw samples have no header that could claim a length: any cut is a shorter sound.
      {"raw", Role::Sound, [](const Bytes&) { return size_t(0); }, [](const Bytes&) { return Expect::Any; },
       Expect::Any, [](const Bytes&) { return std::vector<Field>(); }, {"/L3", "/G22050"}, {"/Y3", "/D22050"}},
      {"vm2", Role::Velmo, [](const Bytes& b) { return Fixed(b, 44); }, [](const Bytes&) { return Expect::SaidOnce; },
       Expect::SaidOnce, VelmoFields, {}, {}},
  };
}

// ---- Seeds ----------------------------------------------------------------------------------

bool RunTool(const std::string& program, const std::string& configDir,
             const std::vector<std::string>& args, std::string* error) {
  test_support::RunCaps caps;
  caps.memory_bytes = 0;
  caps.time_ms = 60000;
  const test_support::CappedOutcome r =
      test_support::RunCapped(program, args, caps, {"XDG_CONFIG_HOME=" + configDir});
  if (r.ExitedWith(0)) return true;
  *error = "making a seed: " + args[0] + " " + args[1] + " gave " + std::to_string(r.code) + ": " + r.output;
  return false;
}

// A second-generation file of two slices: a key frame, then generated inter frames.
Bytes SecondGeneration() {
  velmo2_test::FileFrames f;
  f.Width = 40;
  f.Height = 136;
  velmo2_test::StreamPlan plan;
  plan.Width = f.Width;
  plan.Height = f.Height;
  for (uint32_t i = 0; i < 6; ++i) {
    plan.Key = i == 0;
    plan.Seed = 300 + i;
    f.Sections.push_back(velmo2_test::GenerateSection(plan));
    f.Key.push_back(plan.Key);
  }
  return velmo2_test::BuildFile(f);
}

bool WritePicture(const std::string& name, int format) {
  return test_support::WriteImage(name, format, kW, kH, Picture(kW, kH, 0));
}

// Writes the seed of `type` to `dir`/seed.`type`.
bool MakeSeed(const std::string& type, const std::string& program, const std::string& configDir,
              Seeds* seeds, std::string* error) {
  const std::string name = seeds->dir + "/seed." + type;
  bool ok = true;
  if (type == "png") ok = WritePicture(name, IMAGE_FORMAT_PNG);
  if (type == "bmp") ok = WritePicture(name, IMAGE_FORMAT_BMP);
  if (type == "tga") ok = WritePicture(name, IMAGE_FORMAT_TGA);
  if (type == "tif") ok = WritePicture(name, IMAGE_FORMAT_TIFF);
  if (type == "jpg") ok = WritePicture(name, IMAGE_FORMAT_JPEG);
  if (type == "exr") ok = WritePicture(name, IMAGE_FORMAT_EXR);
  if (type == "gif") ok = Save(name, test_support::GifAnimation(kW, kH, 4));
  if (type == "flc") ok = Save(name, Flic(6));
  if (type == "y4m") ok = Save(name, Y4m(kW, kH, kFrames, 99));
  if (type == "wav")
    test_support::WriteWave16(name, 22050, 1, test_support::Noise(22050 * kFrames / 30, 5));
  if (type == "raw") ok = Save(name, test_support::Pcm16(test_support::Noise(22050 * kFrames / 30, 6)));
  if (type == "avi") ok = RunTool(program, configDir, {"VelmoConv", seeds->dir + "/seed.y4m", name, "/O"}, error);
  if (type == "vlm") {
    ok = RunTool(program, configDir, {"Velmoc", seeds->dir + "/seed.y4m", name, "/O"}, error) &&
         RunTool(program, configDir, {"VelmoMix", name, seeds->dir + "/seed.wav", seeds->dir + "/sound.vlm", "/O"}, error);
    seeds->vlm = name;
    seeds->soundVlm = seeds->dir + "/sound.vlm";
  }
  if (type == "vm2") ok = Save(name, SecondGeneration());
  if (type == "wav") seeds->wave = name;
  if (!ok && error->empty()) *error = "making a seed: " + name;
  return ok;
}

void AddVariant(std::vector<Case>* cases, const SeedType& t, const std::string& dir,
                const std::string& label, const Bytes& bytes, Expect expect, bool infoMustFail = false) {
  Case c;
  c.name = t.type + "/" + label;
  std::string file = label;
  std::replace_if(file.begin(), file.end(), [](char ch) { return !std::isalnum(uint8_t(ch)) && ch != '-'; }, '_');
  c.file = dir + "/" + file + "." + t.type;
  c.role = t.role;
  c.expect = expect;
  c.convertSwitches = t.convertSwitches;
  c.mixSwitches = t.mixSwitches;
  c.mustFailInfo = infoMustFail;
  if (Save(c.file, bytes)) cases->push_back(c);
}

// The damaged forms of one seed.
void AddVariants(std::vector<Case>* cases, const SeedType& t, const std::string& dir, const Bytes& seed,
                 const std::string& seedLabel) {
  const std::string prefix = seedLabel.empty() ? "" : seedLabel + "-";
  const size_t header = t.headerEnd(seed);
  std::set<size_t> cuts;
  auto cut = [&](const std::string& label, size_t size, Expect e) {
    if (size >= seed.size() || !cuts.insert(size).second) return;
    AddVariant(cases, t, dir, prefix + label, Bytes(seed.begin(), seed.begin() + long(size)), e);
  };
  cut("cut-last-byte", seed.size() - 1, t.lastByteExpect(seed));
  cut("cut50%", seed.size() / 2, t.halfExpect);
  // Raw samples have no header, and any length is a sound.
  const bool raw = t.type == "raw";
  if (!raw) cut("header-only", header, Expect::Reject);
  // Past the header a cut is as final as a cut in half, wherever it falls.
  cut("cut9%", seed.size() * 9 / 100, t.halfExpect);
  for (uint32_t s = 1; s <= 3; ++s) {
    Bytes b = seed;
    uint32_t r = s * 2654435761u;
    for (int k = 0; k < 4; ++k) {
      r = r * 1664525u + 1013904223u;
      const size_t at = size_t(r >> 8) % b.size();
      b[at] ^= uint8_t(1u << (r & 7));
    }
    AddVariant(cases, t, dir, prefix + "flip" + std::to_string(s), b, Expect::Any);
  }
  for (const Field& f : t.fields(seed)) {
    if (f.at == std::string::npos || f.at + size_t(f.bytes) > seed.size()) continue;
    for (uint32_t v : f.values) {
      Bytes b = Patched(seed, f, v);
      if (t.type == "png") {  // keep the header chunk's check sum true to the lie
        const uint32_t crc = Crc32(b.data() + 12, 17);
        for (int i = 0; i < 4; ++i) b[29 + size_t(i)] = uint8_t(crc >> (24 - 8 * i));
      }
      char value[16];
      std::snprintf(value, sizeof value, "%X", v);
      AddVariant(cases, t, dir, prefix + f.name + "=" + value, b, f.expect);
    }
  }
}

std::vector<Case> Y4mHeaderLies(const std::string& dir, const Bytes& seed) {
  std::vector<Case> cases;
  const std::string text(seed.begin(), seed.end());
  const size_t end = text.find('\n');
  const std::string header = text.substr(0, end);
  const SeedType t = Types()[9];
  for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
           {" W32", " W0"}, {" W32", " W2147483647"}, {" W32", " W4294967295"}, {" H24", " H0"},
           {" H24", " H2147483647"}, {" F30:1", " F30:0"}, {" F30:1", " F0:1"}}) {
    std::string h = header;
    h.replace(h.find(from), from.size(), to);
    const std::string all = h + text.substr(end);
    AddVariant(&cases, t, dir, "header" + to, Bytes(all.begin(), all.end()), Expect::Reject, true);
  }
  return cases;
}

// Lists: of good seeds; with a damaged entry; with a missing entry; with a series that claims
// more files than there are.
void AddLists(std::vector<Case>* cases, const std::string& dir) {
  SeedType t{"lst", Role::List, nullptr, nullptr, Expect::Reject, nullptr, {}, {}};
  auto list = [&](const std::string& label, const std::string& text, Expect e) {
    AddVariant(cases, t, dir, label, Bytes(text.begin(), text.end()), e);
  };
  for (int i = 1; i <= 6; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "/pic%02d.png", i);
    test_support::WriteImage(dir + name, IMAGE_FORMAT_PNG, kW, kH, Picture(kW, kH, uint32_t(i)));
  }
  list("seeds", dir + "/seed.png\n" + dir + "/seed.flc\n" + dir + "/seed.gif\n" + dir + "/seed.y4m\n", Expect::Valid);
  list("cut-entry", dir + "/seed.png\n" + dir + "/cut50_.flc\n", Expect::Reject);
  list("missing-entry", dir + "/seed.png\n" + dir + "/not-there.png\n", Expect::Reject);
  list("short-series", dir + "/pic??.png*1-60\n", Expect::SaidOnce);
}

void AddNothings(std::vector<Case>* cases, const std::string& dir) {
  SeedType png = Types()[0], vlm = Types()[10], wav = Types()[11];
  AddVariant(cases, png, dir, "empty", {}, Expect::Reject);
  AddVariant(cases, vlm, dir, "empty", {}, Expect::Reject);
  AddVariant(cases, wav, dir, "empty", {}, Expect::Reject);
  Bytes noise(4096);
  uint32_t r = 7;
  for (uint8_t& v : noise) v = uint8_t((r = r * 1664525u + 1013904223u) >> 24);
  AddVariant(cases, vlm, dir, "garbage", noise, Expect::Reject);
  AddVariant(cases, png, dir, "garbage", noise, Expect::Reject);
  Case missing;
  missing.name = "missing";
  missing.file = dir + "/not-there.vlm";
  missing.role = Role::Velmo;
  missing.expect = Expect::Reject;
  cases->push_back(missing);
  for (Case& c : *cases)
    if (c.name.find("empty") != std::string::npos || c.name.find("garbage") != std::string::npos ||
        c.name == "missing")
      c.mustFailInfo = true;
}

}  // namespace

std::vector<Case> BuildCorpus(const std::string& program, const std::string& configDir, Seeds* seeds,
                              std::string* error) {
  std::vector<Case> cases;
  // y4m and wave first: the AVI and Velmo seeds are made from them.
  std::vector<SeedType> types = Types();
  std::stable_partition(types.begin(), types.end(),
                        [](const SeedType& t) { return t.type == "y4m" || t.type == "wav"; });
  for (const SeedType& t : types) {
    if (!MakeSeed(t.type, program, configDir, seeds, error)) return {};
    const Bytes seed = ReadFile(seeds->dir + "/seed." + t.type);
    if (seed.empty()) {
      *error = "empty seed " + t.type;
      return {};
    }
    Case good;
    good.name = t.type + "/seed";
    good.file = seeds->dir + "/seed." + t.type;
    good.role = t.role;
    good.expect = Expect::Valid;
    good.convertSwitches = t.convertSwitches;
    good.mixSwitches = t.mixSwitches;
    cases.push_back(good);
    AddVariants(&cases, t, seeds->dir, seed, "");
    if (t.type == "y4m") {
      const std::vector<Case> lies = Y4mHeaderLies(seeds->dir, seed);
      cases.insert(cases.end(), lies.begin(), lies.end());
    }
  }
  // The Velmo file with sound: its own truncations and its sound table's lies.
  const Bytes sound = ReadFile(seeds->soundVlm);
  Case good{"vlm/sound-seed", seeds->soundVlm, Role::Velmo, Expect::Valid, {}, {}, false};
  cases.push_back(good);
  // Cut short, its video and its sound each say that they end early, with a warning each.
  SeedType withSound = Types()[10];
  withSound.lastByteExpect = [](const Bytes&) { return Expect::Any; };
  withSound.halfExpect = Expect::Any;
  AddVariants(&cases, withSound, seeds->dir, sound, "sound");
  AddLists(&cases, seeds->dir);
  AddNothings(&cases, seeds->dir);
  return cases;
}

}  // namespace hostile
