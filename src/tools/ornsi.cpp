// ORNSI: operating system, processor, memory, disk, displays and sound devices.
#include "tools/ornsi.h"

#include <sys/statvfs.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "host/cpu_features.h"
#include "host/gui/displays.h"
#include "host/quietframe.h"
#include "host/toolframe.h"


namespace {

constexpr const char* Caption = "ORN System Info...";

void AddLine(std::string& out, const std::string& line) {
  if (!line.empty()) out += line + "\n";
}

std::string Trim(std::string s) {
  const char* blanks = " \t\r\n\"";
  s.erase(0, s.find_first_not_of(blanks));
  const size_t end = s.find_last_not_of(blanks);
  s.erase(end == std::string::npos ? 0 : end + 1);
  return s;
}

// The value of "key<sep>value" lines of a file, first occurrence.
std::string FileValue(const char* path, const std::string& key, char sep) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    const size_t at = line.find(sep);
    if (at != std::string::npos && Trim(line.substr(0, at)) == key) return Trim(line.substr(at + 1));
  }
  return "";
}

std::string FirstLine(const char* path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return Trim(line);
}

// A number with groups of three digits: 16,384.
std::string Grouped(unsigned long long v) {
  std::string digits = std::to_string(v), out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return out;
}

std::string OperatingSystem() {
  struct utsname u;
  if (uname(&u) != 0) return "";
  std::string name = FileValue("/etc/os-release", "PRETTY_NAME", '=');
  if (name.empty()) name = u.sysname;
  if (!std::strcmp(u.machine, "x86_64") || !std::strcmp(u.machine, "aarch64")) name += ", 64-bit";
  return name + "\nVersion: " + u.release + " (build " + u.version + ")";
}

std::string Processor() {
  std::string name = FileValue("/proc/cpuinfo", "model name", ':');
  if (name.empty()) return "";
  static const struct {
    uint32_t bit;
    const char* word;
  } features[] = {{CpuMMX, "MMX"},     {CpuSSE, "SSE"},     {CpuSSE2, "SSE2"},
                  {CpuSSE3, "SSE3"},   {CpuSSSE3, "SSSE3"}, {CpuSSE41, "SSE4.1"},
                  {CpuAVX, "AVX"},     {CpuAVX2, "AVX2"}};
  std::string list;
  for (const auto& f : features)
    if (ProcessorHas(f.bit)) list += std::string(list.empty() ? "" : " ") + f.word;
  return name + "\nProcessor features: " + (list.empty() ? "none" : list);
}

// Logical processors, cores and sockets from /proc/cpuinfo.
std::string ProcessorCount() {
  std::ifstream in("/proc/cpuinfo");
  std::string line, physical = "0";
  int logical = 0;
  std::map<std::string, int> coresPerSocket;
  std::set<std::string> coreIds;
  std::string coreId;
  while (std::getline(in, line)) {
    const size_t at = line.find(':');
    if (at == std::string::npos) continue;
    const std::string key = Trim(line.substr(0, at)), value = Trim(line.substr(at + 1));
    if (key == "processor") ++logical;
    if (key == "physical id") physical = value;
    if (key == "core id") coreIds.insert(physical + ":" + value);
    if (key == "cpu cores") coresPerSocket[physical] = std::atoi(value.c_str());
  }
  if (logical == 0) return "";
  int cores = 0;
  for (const auto& s : coresPerSocket) cores += s.second;
  if (cores == 0) cores = coreIds.empty() ? logical : int(coreIds.size());
  const int sockets = coresPerSocket.empty() ? 1 : int(coresPerSocket.size());
  const int extraThreads = logical > cores ? logical - cores : 0;
  char text[160];
  if (sockets > 1)
    std::snprintf(text, sizeof text, "%d CPUs over %d sockets with %d cores and %d hyperthreads",
                  logical, sockets, cores, extraThreads);
  else
    std::snprintf(text, sizeof text, "%d CPUs with %d cores and %d hyperthreads", logical, cores,
                  extraThreads);
  return text;
}

std::string Mainboard() {
  std::string vendor = FirstLine("/sys/class/dmi/id/board_vendor");
  std::string product = FirstLine("/sys/class/dmi/id/board_name");
  if (vendor.empty() && product.empty()) return "";
  return "Mainboard: " + Trim(vendor + " " + product);
}

std::string Memory() {
  const std::string total = FileValue("/proc/meminfo", "MemTotal", ':');
  if (total.empty()) return "";
  const unsigned long long memKb = std::strtoull(total.c_str(), nullptr, 10);
  const unsigned long long swapKb =
      std::strtoull(FileValue("/proc/meminfo", "SwapTotal", ':').c_str(), nullptr, 10);
  return "Physical memory: " + Grouped(memKb / 1024) + " MB  Total memory: " +
         Grouped((memKb + swapKb) / 1024) + " MB";
}

std::string Disk() {
  struct statvfs st;
  if (statvfs(".", &st) != 0) return "";
  const unsigned long long unit = st.f_frsize ? st.f_frsize : st.f_bsize;
  return "Space on current disk: " + Grouped(st.f_blocks * unit >> 20) +
         " MB Available: " + Grouped(st.f_bavail * unit >> 20) + " MB";
}

// The sound driver's version, "major.minor", from "<root>/asound/version"
// ("Advanced Linux Sound Architecture Driver Version k6.1.0."); "" when it cannot be read.
std::string SoundDriverVersion(const std::string& procRoot) {
  const std::string line = FirstLine((procRoot + "/asound/version").c_str());
  const size_t word = line.find("Version");
  if (word == std::string::npos) return "";
  const size_t digits = line.find_first_of("0123456789", word);
  if (digits == std::string::npos) return "";
  unsigned major = 0, minor = 0;
  if (std::sscanf(line.c_str() + digits, "%u.%u", &major, &minor) != 2) return "";
  return std::to_string(major) + "." + std::to_string(minor);
}

bool ConsoleInUse() { return ToolFrameFrontEnd() == ToolConsoleFrontEnd(); }

}  // namespace

// "<root>/asound/cards" lists each card on two lines, the first
// " 0 [PCH            ]: HDA-Intel - HDA Intel PCH": its number, id, driver and name. The first
// card listed, the lowest number, is the default device. Without a card the list says
// "--- no soundcards ---", and there is no line.
std::string OrnAudioDeviceLine(const std::string& procRoot) {
  std::ifstream in(procRoot + "/asound/cards");
  std::string line;
  while (std::getline(in, line)) {
    const size_t bracket = line.find("]:"), open = line.find('[');
    if (bracket == std::string::npos || open == std::string::npos || open > bracket) continue;
    const std::string rest = line.substr(bracket + 2);
    const size_t dash = rest.find(" - ");
    if (dash == std::string::npos) continue;
    const std::string driver = Trim(rest.substr(0, dash)), name = Trim(rest.substr(dash + 3));
    if (name.empty()) continue;
    std::string out = "Audio device: " + name;
    if (!driver.empty()) out += " " + driver;
    const std::string version = SoundDriverVersion(procRoot);
    if (!version.empty()) out += " " + version;
    return out;
  }
  return "";
}

std::string OrnSystemInfoText() {
  std::string text;
  AddLine(text, OperatingSystem());
  AddLine(text, Processor());
  AddLine(text, ProcessorCount());
  AddLine(text, Mainboard());
  AddLine(text, Memory());
  AddLine(text, Disk());
  AddLine(text, GuiDisplayDescription());
  AddLine(text, OrnAudioDeviceLine("/proc"));
  return text;
}

int OrnSystemInfoMain(void* instance, void* previousInstance, char* commandTail, int showState) {
  QuietFrameInit(instance, 0, 0);
  const std::string text = OrnSystemInfoText();
  // On the console front end the text goes to standard output once, under its caption on
  // standard error; a box would print it a second time. Other front ends show the box.
  if (ConsoleInUse()) {
    std::fprintf(stderr, "%s\n", Caption);
    std::fflush(stderr);
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
    return 0;
  }
  QuietFrameBox(text.c_str(), Caption, ToolIconInformation);
  return 0;
}
