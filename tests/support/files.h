// Files for tests: a scratch folder that removes itself with everything in it, a fake folder of
// names, whole-file reads and writes, and little-endian fields of byte strings.
#pragma once
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <cstdlib>
#include <vector>

namespace test_support {

// A fresh folder under /tmp, removed when the object goes (kept when ORN_TEST_KEEP is set, for a
// look afterwards). A folder that cannot be made fails the test and names a place where every
// file fails to open.
class ScratchDir {
 public:
  ScratchDir() {
    char pattern[] = "/tmp/orn_test_XXXXXX";
    const char* made = mkdtemp(pattern);
    EXPECT_NE(made, nullptr) << "no scratch folder";
    made_ = made != nullptr;
    path = made_ ? made : "/nonexistent/orn_test";
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (made_ && !std::getenv("ORN_TEST_KEEP")) std::filesystem::remove_all(path, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  std::string operator/(const std::string& name) const { return path + "/" + name; }
  std::string path;

 private:
  bool made_ = false;
};

// A fake folder for code that asks whether names exist: the names it holds, and how many times
// it was asked.
struct FakeFiles {
  std::set<std::string> names;
  int probes = 0;
};

// The existence check over a FakeFiles (`context`).
inline bool FakeExists(const char* path, void* context) {
  auto* files = static_cast<FakeFiles*>(context);
  ++files->probes;
  return files->names.count(path) != 0;
}

// Makes folders inside `base`, one in another, until the path of the innermost is at least
// `length` bytes long, and returns it; names stay under the system's 255 bytes a component.
inline std::string NestedFolder(const std::string& base, size_t length) {
  std::string path = base;
  for (int level = 0; path.size() < length; ++level) {
    const size_t part = std::min<size_t>(100, length - path.size());
    path += "/" + std::string(std::max<size_t>(part, 2) - 1, char('a' + level % 26));
    std::error_code ignored;
    std::filesystem::create_directory(path, ignored);
  }
  return path;
}

inline bool Exists(const std::string& name) { return access(name.c_str(), F_OK) == 0; }

// The whole file, empty when it cannot be read.
inline std::vector<uint8_t> ReadFile(const std::string& name) {
  std::vector<uint8_t> bytes;
  if (FILE* f = std::fopen(name.c_str(), "rb")) {
    uint8_t chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + n);
    std::fclose(f);
  }
  return bytes;
}
inline std::string ReadText(const std::string& name) {
  const std::vector<uint8_t> bytes = ReadFile(name);
  return std::string(bytes.begin(), bytes.end());
}

template <typename Bytes>
void WriteFile(const std::string& name, const Bytes& bytes) {
  FILE* f = std::fopen(name.c_str(), "wb");
  ASSERT_NE(f, nullptr) << name;
  ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size()) << name;
  ASSERT_EQ(std::fclose(f), 0) << name;
}
inline void WriteText(const std::string& name, const std::string& text) { WriteFile(name, text); }

// Little-endian fields of a byte string or vector; zero past the end.
template <typename Bytes>
uint32_t Le16(const Bytes& d, size_t at) {
  return at + 2 > d.size() ? 0 : uint32_t(uint8_t(d[at])) | uint32_t(uint8_t(d[at + 1])) << 8;
}
template <typename Bytes>
uint32_t Le32(const Bytes& d, size_t at) {
  return at + 4 > d.size() ? 0 : Le16(d, at) | Le16(d, at + 2) << 16;
}
inline void Put16(std::vector<uint8_t>* out, uint32_t v) {
  out->push_back(uint8_t(v));
  out->push_back(uint8_t(v >> 8));
}
inline void Put32(std::vector<uint8_t>* out, uint32_t v) {
  Put16(out, v & 0xFFFF);
  Put16(out, v >> 16);
}
inline void PutTag(std::vector<uint8_t>* out, const char* four) {
  for (int i = 0; i < 4; ++i) out->push_back(uint8_t(four[i]));
}

}  // namespace test_support
