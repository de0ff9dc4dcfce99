// AVI files built byte by byte for the AVI reader and AVI sound tests: a video stream (or none)
// and sound streams, their chunks interleaved in movi, found through idx1 (offsets from the movi
// word or from the file start), OpenDML super and standard indexes across an AVIX extension, or
// no index at all. The little-endian byte builder serves the other readers' files too.
#pragma once
#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace avi_test {

struct Bytes {
  std::vector<uint8_t> v;
  size_t size() const { return v.size(); }
  void U8(int x) { v.push_back(uint8_t(x)); }
  void U16(int x) { U8(x & 0xFF), U8(x >> 8 & 0xFF); }
  void U32(uint32_t x) { U16(int(x & 0xFFFF)), U16(int(x >> 16)); }
  void U64(uint64_t x) { U32(uint32_t(x)), U32(uint32_t(x >> 32)); }
  void Id(const char* s) { v.insert(v.end(), s, s + 4); }
  void Put(const std::vector<uint8_t>& d) { v.insert(v.end(), d.begin(), d.end()); }
  void Put(std::initializer_list<int> xs) {
    for (int x : xs) U8(x);
  }
  void Patch32(size_t at, uint64_t x) {
    for (int i = 0; i < 4; ++i) v[at + size_t(i)] = uint8_t(x >> (8 * i));
  }
  void Patch64(size_t at, uint64_t x) { Patch32(at, uint32_t(x)), Patch32(at + 4, uint32_t(x >> 32)); }
  // Opens a RIFF or LIST; returns the position of its size field.
  size_t Begin(const char* id, const char* kind) {
    Id(id);
    const size_t at = size();
    U32(0);
    Id(kind);
    return at;
  }
  void End(size_t at) {
    if (size() & 1) U8(0);
    Patch32(at, uint32_t(size() - at - 4));
  }
  // A chunk, padded to an even size; returns the position of its data.
  size_t Chunk(const char* id, const std::vector<uint8_t>& data) {
    Id(id);
    U32(uint32_t(data.size()));
    const size_t at = size();
    Put(data);
    if (data.size() & 1) U8(0);
    return at;
  }
};

inline uint32_t FourCC(const char* s) {
  return uint32_t(s[0]) | uint32_t(s[1]) << 8 | uint32_t(s[2]) << 16 | uint32_t(s[3]) << 24;
}

// A WAVEFORMATEX with no extra bytes.
inline std::vector<uint8_t> WaveFormat(uint32_t tag, uint32_t channels, uint32_t rate, uint32_t bits) {
  Bytes b;
  b.U16(int(tag)), b.U16(int(channels)), b.U32(rate), b.U32(rate * channels * bits / 8);
  b.U16(int(channels * bits / 8)), b.U16(int(bits)), b.U16(0);
  return b.v;
}

struct AviSound {
  std::vector<uint8_t> format;               // strf: a WAVEFORMATEX
  std::vector<std::vector<uint8_t>> chunks;  // one after each frame while there are any
};

struct AviSpec {
  bool video = true;                // stream 0; the sound streams follow
  int32_t width = 6, height = 4;    // negative height: rows top down
  int bits = 24;
  uint32_t compression = 0;
  std::vector<uint8_t> palette;     // RGBQUAD entries for 8-bit
  std::vector<std::vector<uint8_t>> frames;
  std::vector<AviSound> sound;
  enum Index { kIdx1, kIdx1Absolute, kNone, kOpenDml } index = kIdx1;
  bool stray_frame = false;         // a video chunk before frame 1 that no index names
  bool stray_sound = false;         // a sound chunk after frame 0 that no index names
  bool looping_super_index = false; // the super indexes name their standard indexes twice
};

struct Built {
  std::vector<uint8_t> file;
  std::vector<size_t> sound_at;  // data positions of the first sound stream's chunks
};

inline std::vector<uint8_t> StreamHeader(const char* type, const char* handler, uint32_t scale,
                                         uint32_t rate, uint32_t length, uint32_t sample_size) {
  Bytes b;
  b.Id(type);
  b.Id(handler);
  b.U32(0), b.U32(0), b.U32(0);
  b.U32(scale), b.U32(rate), b.U32(0), b.U32(length), b.U32(0), b.U32(0), b.U32(sample_size);
  b.U32(0), b.U32(0);
  return b.v;
}

inline std::vector<uint8_t> BitmapHeader(const AviSpec& s) {
  Bytes b;
  b.U32(40), b.U32(uint32_t(s.width)), b.U32(uint32_t(s.height)), b.U16(1), b.U16(s.bits);
  b.U32(s.compression), b.U32(0), b.U32(0), b.U32(0), b.U32(uint32_t(s.palette.size() / 4)), b.U32(0);
  b.Put(s.palette);
  return b.v;
}

// With an OpenDML index the rounds from frames / 2 + 1 on go into an AVIX extension; each movi
// ends with one standard index per stream.
inline Built BuildAvi(const AviSpec& s) {
  Built out;
  Bytes b;
  const size_t video = s.video ? 1 : 0, streams = video + s.sound.size();
  auto id = [&](size_t stream) {
    return std::string{char('0' + stream / 10), char('0' + stream % 10)} + (stream < video ? "dc" : "wb");
  };
  const std::vector<std::vector<uint8_t>> no_frames, &pictures = s.video ? s.frames : no_frames;
  const uint32_t frames = uint32_t(pictures.size());
  const size_t riff = b.Begin("RIFF", "AVI ");
  const size_t hdrl = b.Begin("LIST", "hdrl");
  Bytes avih;
  avih.U32(40000), avih.U32(0), avih.U32(0), avih.U32(0), avih.U32(frames), avih.U32(0);
  avih.U32(uint32_t(streams)), avih.U32(0), avih.U32(uint32_t(s.width)), avih.U32(uint32_t(s.height));
  for (int i = 0; i < 4; ++i) avih.U32(0);
  b.Chunk("avih", avih.v);
  std::vector<size_t> indx_at(streams);
  for (size_t st = 0; st < streams; ++st) {
    const size_t strl = b.Begin("LIST", "strl");
    if (st < video) {
      b.Chunk("strh", StreamHeader("vids", "    ", 1001, 30000, frames, 0));
      b.Chunk("strf", BitmapHeader(s));
    } else {
      const std::vector<uint8_t>& f = s.sound[st - video].format;
      const uint32_t align = f.size() >= 14 ? uint32_t(f[12] | f[13] << 8) : 1;
      const uint32_t per_second = f.size() >= 12 ? uint32_t(f[8] | f[9] << 8 | f[10] << 16 | f[11] << 24) : 1;
      b.Chunk("strh", StreamHeader("auds", "\0\0\0\0", align, per_second, 0, align));
      b.Chunk("strf", f);
    }
    if (s.index == AviSpec::kOpenDml) {
      Bytes x;
      x.U16(4), x.U8(0), x.U8(0), x.U32(0), x.Id(id(st).c_str()), x.U32(0), x.U32(0), x.U32(0);
      for (int i = 0; i < 4; ++i) x.U64(0), x.U32(0), x.U32(0);  // room for four entries
      indx_at[st] = b.Chunk("indx", x.v);
    }
    b.End(strl);
  }
  b.End(hdrl);

  struct Written {
    size_t stream, data;
    uint32_t size;
  };
  std::vector<Written> written;  // the chunks that the indexes name, in movi order
  size_t movi = b.Begin("LIST", "movi");
  const size_t first_movi_word = movi + 4;
  std::vector<std::vector<std::pair<size_t, uint32_t>>> ix(streams);  // position, size
  size_t segment_first = 0;
  auto write_ix = [&] {
    const size_t base = movi + 4;
    for (size_t st = 0; st < streams; ++st) {
      Bytes x;
      uint32_t count = 0;
      for (size_t k = segment_first; k < written.size(); ++k) count += written[k].stream == st;
      x.U16(2), x.U8(0), x.U8(1), x.U32(count), x.Id(id(st).c_str()), x.U64(base), x.U32(0);
      for (size_t k = segment_first; k < written.size(); ++k)
        if (written[k].stream == st) x.U32(uint32_t(written[k].data - base)), x.U32(written[k].size);
      const size_t at = b.Chunk(("ix" + id(st).substr(0, 2)).c_str(), x.v) - 8;
      ix[st].push_back({at, uint32_t(x.v.size() + 8)});
    }
    segment_first = written.size();
  };
  auto put = [&](size_t stream, const std::vector<uint8_t>& data) {
    const size_t at = b.Chunk(id(stream).c_str(), data);
    written.push_back({stream, at, uint32_t(data.size())});
    return at;
  };
  size_t rounds = pictures.size();
  for (const AviSound& sound : s.sound) rounds = std::max(rounds, sound.chunks.size());
  const size_t split = pictures.size() / 2 + 1;
  size_t avix = 0;
  for (size_t i = 0; i < rounds; ++i) {
    if (s.index == AviSpec::kOpenDml && i == split) {
      write_ix();
      b.End(movi);
      b.End(riff);
      avix = b.Begin("RIFF", "AVIX");
      movi = b.Begin("LIST", "movi");
    }
    if (s.stray_frame && i == 1) b.Chunk(id(0).c_str(), std::vector<uint8_t>(s.frames[0].size(), 0x5A));
    if (i < pictures.size()) put(0, pictures[i]);
    if (s.stray_sound && i == 0) b.Chunk(id(video).c_str(), std::vector<uint8_t>(6, 0xEE));
    for (size_t k = 0; k < s.sound.size(); ++k) {
      if (i >= s.sound[k].chunks.size()) continue;
      const size_t at = put(video + k, s.sound[k].chunks[i]);
      if (k == 0) out.sound_at.push_back(at);
    }
  }
  if (s.index == AviSpec::kOpenDml) write_ix();
  b.End(movi);
  if (s.index == AviSpec::kIdx1 || s.index == AviSpec::kIdx1Absolute) {
    Bytes idx;
    for (const Written& w : written) {
      idx.Id(id(w.stream).c_str());
      idx.U32(0x10);
      const size_t header = w.data - 8;
      idx.U32(uint32_t(s.index == AviSpec::kIdx1 ? header - first_movi_word : header));
      idx.U32(w.size);
    }
    b.Chunk("idx1", idx.v);
  }
  b.End(avix ? avix : riff);
  if (s.index == AviSpec::kOpenDml) {
    for (size_t st = 0; st < streams; ++st) {
      size_t entry = indx_at[st] + 24;
      for (int pass = 0; pass < (s.looping_super_index ? 2 : 1); ++pass)
        for (const auto& [at, size] : ix[st]) b.Patch64(entry, at), b.Patch32(entry + 8, size), entry += 16;
      b.Patch32(indx_at[st] + 4, (entry - indx_at[st] - 24) / 16);
    }
  }
  out.file = b.v;
  return out;
}

}  // namespace avi_test
