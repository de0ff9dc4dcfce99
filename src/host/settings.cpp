// Settings files. The "registry" files keep a value's type and bytes, one per line:
//   [Software\Ornis Works\ORN Video Tools]
//   X=dword:00000064          4 bytes, little-endian in memory
//   Path=sz:/home/me/video    text; its size counts the terminating zero
//   W=hex:64,00               raw bytes (here 2, which an integer read ignores)
// Text is escaped so that any byte survives: "\xHH" for control bytes and for blanks at the
// ends, "\\" for a backslash that would otherwise read as an escape. The profile file is
// plain "name=value" lines; a value with blanks at its ends or a leading quote is written in
// double quotes, which reading removes.
//
// Every write rewrites the whole file through a temporary file and a rename, under an
// advisory lock, so a crash leaves either the old or the new file and never half of one.
#include "host/settings.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr size_t MaxFileBytes = 16u << 20;  // larger settings files are not ours; ignore them
constexpr const char* StoreDir = "ornisworks";
constexpr const char* RegistryPrefix = "Software\\Ornis Works\\";

using Lines = std::vector<std::string>;

bool IsBlank(char c) { return static_cast<unsigned char>(c) <= ' '; }
char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool SameText(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (Lower(a[i]) != Lower(b[i])) return false;
  return true;
}

std::string Trim(const std::string& s) {
  size_t from = 0, to = s.size();
  while (from < to && IsBlank(s[from])) ++from;
  while (to > from && IsBlank(s[to - 1])) --to;
  return s.substr(from, to - from);
}

// ---- Paths ---------------------------------------------------------------------------------

std::string Env(const char* name) {
  const char* value = getenv(name);
  return value ? value : "";
}

std::string UserDir() {
  std::string home = Env("XDG_CONFIG_HOME");
  if (home.empty()) {
    const std::string user = Env("HOME");
    if (user.empty()) return "";
    home = user + "/.config";
  }
  return home + "/" + StoreDir;
}

std::string UserRegistryPath() {
  const std::string dir = UserDir();
  return dir.empty() ? "" : dir + "/registry.ini";
}

std::string ProfilePath() {
  const std::string dir = UserDir();
  return dir.empty() ? "" : dir + "/profile.ini";
}

std::string MachineRegistryPath() {
  std::string dirs = Env("XDG_CONFIG_DIRS");
  if (dirs.empty()) dirs = "/etc/xdg";
  size_t from = 0;
  while (from <= dirs.size()) {
    size_t to = dirs.find(':', from);
    if (to == std::string::npos) to = dirs.size();
    if (to > from) {
      const std::string path = dirs.substr(from, to - from) + "/" + StoreDir + "/registry.ini";
      if (access(path.c_str(), R_OK) == 0) return path;
    }
    from = to + 1;
  }
  return "";
}

// ---- Escaping ------------------------------------------------------------------------------

// Control bytes, blanks at the ends and the bytes of `alsoEscape` become "\xHH". A backslash
// is doubled only where it could be read as an escape (before "x" or "\\", or at the end),
// so that section names like "Software\Ornis Works\..." stay as they are.
std::string Escape(const std::string& text, const char* alsoEscape) {
  static const char hex[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const bool atEnd = i == 0 || i + 1 == text.size();
    if (c == '\\') {
      const char next = i + 1 < text.size() ? text[i + 1] : 0;
      out += next == 0 || next == '\\' || next == 'x' ? "\\\\" : "\\";
    } else if (c < ' ' || c == 0x7f || (c == ' ' && atEnd) || (c && strchr(alsoEscape, c))) {
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "\\" is one backslash and "\xHH" one byte; any other backslash is taken as it stands.
std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '\\') {
      out += '\\';
      ++i;
    } else if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' && HexDigit(text[i + 2]) >= 0 &&
               HexDigit(text[i + 3]) >= 0) {
      out += static_cast<char>(HexDigit(text[i + 2]) * 16 + HexDigit(text[i + 3]));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

// ---- Files ---------------------------------------------------------------------------------

// Reads a settings file as lines (line breaks and a trailing "\r" removed). Missing or
// oversized files read as empty.
Lines ReadLines(const std::string& path) {
  Lines lines;
  if (path.empty()) return lines;
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return lines;
  std::string data;
  char block[8192];
  size_t n;
  while ((n = fread(block, 1, sizeof block, f)) > 0 && data.size() <= MaxFileBytes) data.append(block, n);
  fclose(f);
  if (data.size() > MaxFileBytes) return lines;
  size_t from = 0;
  while (from < data.size()) {
    size_t to = data.find('\n', from);
    if (to == std::string::npos) to = data.size();
    std::string line = data.substr(from, to - from);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(std::move(line));
    from = to + 1;
  }
  return lines;
}

bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool ReplaceFile(const std::string& path, const Lines& lines) {
  std::string data;
  for (const std::string& line : lines) data += line + "\n";
  const std::string temp = path + ".tmp" + std::to_string(getpid());
  const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, data) && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  ok = ok && rename(temp.c_str(), path.c_str()) == 0;
  if (!ok) unlink(temp.c_str());
  return ok;
}

bool MakeDirs(const std::string& dir) {
  for (size_t at = 1; at <= dir.size(); ++at) {
    if (at < dir.size() && dir[at] != '/') continue;
    const std::string part = dir.substr(0, at);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  struct stat info;
  return stat(dir.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Holds an exclusive lock on the store directory's lock file while a file is rewritten, so
// that two tools saving at once do not drop each other's values.
struct StoreLock {
  int fd = -1;
  explicit StoreLock(const std::string& dir) {
    fd = open((dir + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
      while (flock(fd, LOCK_EX) != 0 && errno == EINTR) {
      }
    }
  }
  ~StoreLock() {
    if (fd >= 0) close(fd);
  }
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
};

// ---- INI structure -------------------------------------------------------------------------

// The section name of a "[name]" line, if the line is one.
std::optional<std::string> SectionOf(const std::string& line) {
  const std::string t = Trim(line);
  if (t.size() < 2 || t.front() != '[') return std::nullopt;
  const size_t close = t.rfind(']');
  if (close == 0 || close == std::string::npos) return std::nullopt;
  return t.substr(1, close - 1);
}

// Splits "name=value"; comments and lines without "=" are none.
bool SplitEntry(const std::string& line, std::string* name, std::string* value) {
  const std::string t = Trim(line);
  if (t.empty() || t[0] == ';' || t[0] == '#' || t[0] == '[') return false;
  const size_t eq = line.find('=');
  if (eq == std::string::npos) return false;
  *name = Trim(line.substr(0, eq));
  *value = line.substr(eq + 1);
  return true;
}

// How names and section names appear in a file: escaped in registry files, plain in the profile.
struct Dialect {
  bool escaped;
  std::string Decode(const std::string& s) const { return escaped ? Unescape(s) : s; }
};

// Index of the entry `name` in `section`, or -1; the section's last line in *sectionEnd
// (-1 when the section is absent).
long FindEntry(const Lines& lines, const Dialect& dialect, const std::string& section,
               const std::string& name, long* sectionEnd, std::string* rawValue) {
  bool inside = false;
  *sectionEnd = -1;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (const auto header = SectionOf(lines[i])) {
      inside = SameText(dialect.Decode(*header), section);
      if (inside) *sectionEnd = static_cast<long>(i);
      continue;
    }
    if (!inside) continue;
    std::string key, value;
    if (!SplitEntry(lines[i], &key, &value)) {
      if (!Trim(lines[i]).empty()) *sectionEnd = static_cast<long>(i);
      continue;
    }
    *sectionEnd = static_cast<long>(i);
    if (SameText(dialect.Decode(key), name)) {
      if (rawValue) *rawValue = value;
      return static_cast<long>(i);
    }
  }
  return -1;
}

std::optional<std::string> ReadRaw(const std::string& path, const Dialect& dialect,
                                   const std::string& section, const std::string& name) {
  const Lines lines = ReadLines(path);
  long sectionEnd;
  std::string value;
  if (FindEntry(lines, dialect, section, name, &sectionEnd, &value) < 0) return std::nullopt;
  return value;
}

bool WriteRaw(const std::string& path, const Dialect& dialect, const std::string& section,
              const std::string& name, const std::string& fileName, const std::string& fileSection,
              const std::string& rawValue) {
  if (path.empty()) return false;
  const std::string dir = path.substr(0, path.rfind('/'));
  if (!MakeDirs(dir)) return false;
  StoreLock lock(dir);
  Lines lines = ReadLines(path);
  long sectionEnd;
  const long at = FindEntry(lines, dialect, section, name, &sectionEnd, nullptr);
  const std::string entry = fileName + "=" + rawValue;
  if (at >= 0) {
    lines[static_cast<size_t>(at)] = entry;
  } else if (sectionEnd >= 0) {
    lines.insert(lines.begin() + sectionEnd + 1, entry);
  } else {
    if (!lines.empty() && !Trim(lines.back()).empty()) lines.push_back("");
    lines.push_back("[" + fileSection + "]");
    lines.push_back(entry);
  }
  return ReplaceFile(path, lines);
}

// ---- Registry values -----------------------------------------------------------------------

const Dialect RegistryDialect{true};
const Dialect ProfileDialect{false};

struct RegistryValue {
  bool text;                  // written as sz
  std::vector<uint8_t> bytes;  // the value's data, for sz including the terminating zero
};

std::optional<RegistryValue> DecodeValue(const std::string& raw) {
  const size_t colon = raw.find(':');
  if (colon == std::string::npos) return std::nullopt;
  const std::string type = Trim(raw.substr(0, colon));
  const std::string body = raw.substr(colon + 1);
  RegistryValue v{false, {}};
  if (SameText(type, "sz")) {
    const std::string text = Unescape(body);
    v.text = true;
    v.bytes.assign(text.begin(), text.end());
    v.bytes.push_back(0);
  } else if (SameText(type, "dword")) {
    const std::string digits = Trim(body);
    if (digits.empty() || digits.size() > 8) return std::nullopt;
    uint32_t x = 0;
    for (char c : digits) {
      if (HexDigit(c) < 0) return std::nullopt;
      x = x << 4 | static_cast<uint32_t>(HexDigit(c));
    }
    for (int i = 0; i < 4; ++i) v.bytes.push_back(static_cast<uint8_t>(x >> (8 * i)));
  } else if (SameText(type, "hex")) {
    const std::string list = Trim(body);
    for (size_t i = 0; i < list.size();) {
      if (i + 1 >= list.size() || HexDigit(list[i]) < 0 || HexDigit(list[i + 1]) < 0) return std::nullopt;
      v.bytes.push_back(static_cast<uint8_t>(HexDigit(list[i]) * 16 + HexDigit(list[i + 1])));
      i += 2;
      if (i < list.size() && list[i++] != ',') return std::nullopt;
    }
  } else {
    return std::nullopt;
  }
  return v;
}

std::string RegistrySection(const char* section) { return std::string(RegistryPrefix) + section; }

std::optional<RegistryValue> ReadRegistry(const std::string& path, const char* section, const char* name) {
  if (path.empty()) return std::nullopt;
  const auto raw = ReadRaw(path, RegistryDialect, RegistrySection(section), name);
  if (!raw) return std::nullopt;
  return DecodeValue(*raw);
}

// A registry text value that fits a buffer of destSize bytes (terminator included).
bool TakeRegistryText(const std::string& path, const char* section, const char* name, char* dest,
                      size_t destSize, size_t* length) {
  const auto v = ReadRegistry(path, section, name);
  if (!v || !v->text || v->bytes.size() > destSize) return false;
  memcpy(dest, v->bytes.data(), v->bytes.size());
  *length = strlen(dest);  // an embedded zero ends the text as it would in the registry
  return true;
}

bool WriteRegistry(const char* section, const char* name, const std::string& rawValue) {
  const std::string fileSection = Escape(RegistrySection(section), "[]");
  return WriteRaw(UserRegistryPath(), RegistryDialect, RegistrySection(section), name,
                  Escape(name, "=[;#"), fileSection, rawValue);
}

// ---- Profile values ------------------------------------------------------------------------

std::optional<std::string> ReadProfile(const char* section, const char* name) {
  const std::string path = ProfilePath();
  if (path.empty()) return std::nullopt;
  const auto raw = ReadRaw(path, ProfileDialect, section, name);
  if (!raw) return std::nullopt;
  std::string value = Trim(*raw);
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
  return value;
}

bool WriteProfile(const char* section, const char* name, const std::string& value) {
  // A plain line cannot hold line breaks, nor a name with "=" or a section with "]".
  if (value.find_first_of("\r\n") != std::string::npos) return false;
  const std::string key = name;
  if (key.empty() || key.find_first_of("=\r\n") != std::string::npos || Trim(key) != key) return false;
  if (strpbrk(section, "]\r\n")) return false;
  const bool quote = !value.empty() && (IsBlank(value.front()) || IsBlank(value.back()) || value.front() == '"');
  return WriteRaw(ProfilePath(), ProfileDialect, section, name, key, section,
                  quote ? "\"" + value + "\"" : value);
}

// The leading decimal number of a profile text, as the profile's integer reading takes it.
std::optional<uint32_t> ProfileNumber(const std::string& text) {
  size_t i = 0;
  const bool negative = i < text.size() && text[i] == '-';
  if (negative || (i < text.size() && text[i] == '+')) ++i;
  if (i >= text.size() || text[i] < '0' || text[i] > '9') return std::nullopt;
  uint32_t v = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) v = v * 10 + static_cast<uint32_t>(text[i] - '0');
  return negative ? 0 - v : v;
}

size_t CopyText(char* dest, size_t destSize, const char* text) {
  const size_t length = strlen(text);
  const size_t n = length < destSize - 1 ? length : destSize - 1;
  memmove(dest, text, n);
  dest[n] = 0;
  return n;
}

}  // namespace

size_t SettingsReadText(const char* section, const char* name, char* dest, size_t destSize,
                        const char* defaultText) {
  if (destSize == 0) return 0;
  const auto profile = ReadProfile(section, name);
  size_t length = profile ? CopyText(dest, destSize, profile->c_str())
                          : CopyText(dest, destSize, defaultText ? defaultText : "");
  if (TakeRegistryText(UserRegistryPath(), section, name, dest, destSize, &length)) return length;
  TakeRegistryText(MachineRegistryPath(), section, name, dest, destSize, &length);
  return length;
}

uint32_t SettingsReadInt(const char* section, const char* name, uint32_t defaultValue) {
  uint32_t value = defaultValue;
  if (const auto profile = ReadProfile(section, name)) {
    if (const auto number = ProfileNumber(*profile)) value = *number;
  }
  const auto v = ReadRegistry(UserRegistryPath(), section, name);
  if (v && v->bytes.size() == 4)
    value = uint32_t(v->bytes[0]) | uint32_t(v->bytes[1]) << 8 | uint32_t(v->bytes[2]) << 16 | uint32_t(v->bytes[3]) << 24;
  return value;
}

bool SettingsWriteText(const char* section, const char* name, const char* text, bool alsoProfile) {
  const std::string value = text ? text : "";
  bool ok = WriteRegistry(section, name, "sz:" + Escape(value, ""));
  if (alsoProfile) ok = WriteProfile(section, name, value) && ok;
  return ok;
}

bool SettingsWriteInt(const char* section, const char* name, uint32_t value, bool alsoProfile) {
  char hex[16];
  snprintf(hex, sizeof hex, "dword:%08x", value);
  bool ok = WriteRegistry(section, name, hex);
  if (alsoProfile) ok = WriteProfile(section, name, std::to_string(value)) && ok;
  return ok;
}

size_t SettingsStorePath(SettingsStore store, char* dest, size_t destSize) {
  if (destSize == 0) return 0;
  const std::string path = store == SettingsStoreProfile  ? ProfilePath()
                           : store == SettingsStoreUser ? UserRegistryPath()
                                                        : MachineRegistryPath();
  return CopyText(dest, destSize, path.c_str());
}
