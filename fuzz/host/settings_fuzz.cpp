// Random settings files: the input is split at its first zero byte into a profile file and a
// registry file, both read back through every reading path. A private XDG folder keeps the
// user's own settings out of it.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host/settings.h"

namespace {

std::string folder;

void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) abort();
  if (size) fwrite(data, 1, size, f);
  fclose(f);
}

void RemoveFolder() {
  for (const char* name : {"/ornisworks/profile.ini", "/ornisworks/registry.ini", "/ornisworks/.lock"})
    unlink((folder + name).c_str());
  rmdir((folder + "/ornisworks").c_str());
  rmdir(folder.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char dir[] = "/tmp/orn_settings_fuzz_XXXXXX";
  if (!mkdtemp(dir)) abort();
  folder = dir;
  setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
  setenv("XDG_CONFIG_DIRS", folder.c_str(), 1);  // the machine store is the same file
  const std::string store = folder + "/ornisworks";
  if (mkdir(store.c_str(), 0700) != 0) abort();
  atexit(RemoveFolder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  const uint8_t* zero = static_cast<const uint8_t*>(memchr(data, 0, size));
  const size_t split = zero ? static_cast<size_t>(zero - data) : size;
  WriteFile(folder + "/ornisworks/profile.ini", data, split);
  WriteFile(folder + "/ornisworks/registry.ini", data + split, size - split);

  const char* sections[] = {SettingsMainSection, "Other", ""};
  const char* names[] = {"X", "Path", "W", "", "a=b"};
  char small[4], large[256];
  for (const char* section : sections) {
    for (const char* name : names) {
      if (SettingsReadText(section, name, small, sizeof small, "default") >= sizeof small) abort();
      if (SettingsReadText(section, name, large, sizeof large, nullptr) >= sizeof large) abort();
      SettingsReadInt(section, name, 100);
    }
  }
  return 0;
}
