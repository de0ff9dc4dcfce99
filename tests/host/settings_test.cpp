#include "host/settings.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "support/files.h"

namespace {

using test_support::Exists;

// Each test gets its own user and machine folders through the XDG variables.
class Settings : public ::testing::Test {
 protected:
  test_support::ScratchDir scratch;
  const std::string root = scratch.path, user = root + "/user", machine = root + "/machine";

  void SetUp() override {
    setenv("XDG_CONFIG_HOME", user.c_str(), 1);
    // The first folder does not exist, so the machine store comes from the second.
    setenv("XDG_CONFIG_DIRS", (root + "/none:" + machine).c_str(), 1);
  }
  void TearDown() override {
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("XDG_CONFIG_DIRS");
  }

  static void Put(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(path.substr(0, path.rfind('/')));
    test_support::WriteText(path, text);
  }
  static std::string Get(const std::string& path) { return test_support::ReadText(path); }

  std::string ProfileFile() const { return user + "/ornisworks/profile.ini"; }
  std::string UserFile() const { return user + "/ornisworks/registry.ini"; }
  std::string MachineFile() const { return machine + "/ornisworks/registry.ini"; }

  void PutProfile(const std::string& body) { Put(ProfileFile(), "[ORN Video Tools]\n" + body); }
  void PutUser(const std::string& body) { Put(UserFile(), "[Software\\Ornis Works\\ORN Video Tools]\n" + body); }
  void PutMachine(const std::string& body) {
    Put(MachineFile(), "[Software\\Ornis Works\\ORN Video Tools]\n" + body);
  }

  // Writes the stores given with their section line, removes the others.
  void Stores(const char* profile, const char* user, const char* machine) {
    unlink(ProfileFile().c_str());
    unlink(UserFile().c_str());
    unlink(MachineFile().c_str());
    if (profile) PutProfile(profile);
    if (user) PutUser(user);
    if (machine) PutMachine(machine);
  }

  static std::string Text(const char* name, const char* fallback, size_t size = 256) {
    char buf[256];
    const size_t n = SettingsReadText(SettingsMainSection, name, buf, size, fallback);
    EXPECT_EQ(n, strlen(buf));
    return buf;
  }
  static uint32_t Int(const char* name, uint32_t fallback) {
    return SettingsReadInt(SettingsMainSection, name, fallback);
  }
};

TEST_F(Settings, MissingFilesGiveDefaults) {
  EXPECT_EQ(Text("TarvComp", "/l104"), "/l104");
  EXPECT_EQ(Text("Path", nullptr), "");
  EXPECT_EQ(Int("X", 100), 100u);
  char path[512];
  EXPECT_EQ(SettingsStorePath(SettingsStoreMachine, path, sizeof path), 0u);
  SettingsStorePath(SettingsStoreUser, path, sizeof path);
  EXPECT_EQ(std::string(path), UserFile());
}

// Which store a value comes from: user registry, then machine registry (texts only), then the
// profile, then the default; names compare without case, profile blanks are trimmed, and a
// registry value of the wrong type is passed over.
TEST_F(Settings, StoresInOrderOfPrecedence) {
  const struct {
    const char *profile, *user, *machine, *name, *want;
  } texts[] = {
      {"VelmoConv =  /z /q  \n", nullptr, nullptr, "velmoconv", "/z /q"},
      {"TarvComp=\"  padded  \"\n", nullptr, nullptr, "TarvComp", "  padded  "},
      {"Path=/from/profile\n", "Path=sz:/from/user\n", "Path=sz:/from/machine\n", "Path", "/from/user"},
      {"Path=/from/profile\n", nullptr, "Path=sz:/from/machine\n", "Path", "/from/machine"},
      {"Path=/p\n", "Path=dword:00000001\n", nullptr, "Path", "/p"},
  };
  for (const auto& c : texts) {
    SCOPED_TRACE(c.name + std::string(" ") + c.want);
    Stores(c.profile, c.user, c.machine);
    EXPECT_EQ(Text(c.name, "default"), c.want);
  }
  // Numbers never come from the machine store.
  Stores(nullptr, nullptr, "X=dword:00000064\n");
  EXPECT_EQ(Int("X", 5), 5u);
  char path[512];
  SettingsStorePath(SettingsStoreMachine, path, sizeof path);
  EXPECT_EQ(std::string(path), MachineFile());
}

TEST_F(Settings, RegistryTextTooLongFallsBack) {
  PutProfile("Path=/p\n");
  PutUser("Path=sz:/a/rather/long/user/path\n");
  PutMachine("Path=sz:/mach\n");
  EXPECT_EQ(Text("Path", "", 8), "/mach");  // the user's does not fit 8 bytes, the machine's does
  EXPECT_EQ(Text("Path", "", 5), "/p");     // neither fits: the profile's stands
  EXPECT_EQ(Text("Path", "", 6), "/mach");  // exactly fits with its terminator
}

// Integers from the profile, unless the user registry holds one of exactly four bytes.
TEST_F(Settings, IntegerFromProfileThenFourBytesOfTheUserRegistry) {
  PutProfile("X=250\nY=-3\nW=abc\nV=300\n");
  EXPECT_EQ(Int("X", 100), 250u);
  EXPECT_EQ(Int("Y", 100), static_cast<uint32_t>(-3));
  EXPECT_EQ(Int("W", 7), 7u);  // not a number: the default stands
  PutUser("X=dword:00000064\nV=hex:64,00\nY=hex:01,02,03,04\nH=hex:01,02,03,04,05\nW=sz:abc\n"
          "Z=hex:zz\n");
  EXPECT_EQ(Int("X", 1), 100u);
  EXPECT_EQ(Int("V", 100), 300u);  // a 2-byte V is ignored
  EXPECT_EQ(Int("Y", 0), 0x04030201u);
  EXPECT_EQ(Int("H", 9), 9u);
  EXPECT_EQ(Int("W", 0), 0x00636261u);  // "abc" and its zero are 4 bytes
  EXPECT_EQ(Int("Z", 8), 8u);
}

TEST_F(Settings, WritesGoToUserStoreAndProfileOnRequest) {
  ASSERT_TRUE(SettingsWriteInt(SettingsMainSection, "X", 100, false));
  ASSERT_TRUE(SettingsWriteText(SettingsMainSection, "Path", "/home/me/video", false));
  EXPECT_EQ(Get(UserFile()), "[Software\\Ornis Works\\ORN Video Tools]\nX=dword:00000064\nPath=sz:/home/me/video\n");
  EXPECT_FALSE(Exists(ProfileFile()));

  ASSERT_TRUE(SettingsWriteInt(SettingsMainSection, "W", 640, true));
  ASSERT_TRUE(SettingsWriteText(SettingsMainSection, "VelmoComp", "/v200 /d5000", true));
  EXPECT_EQ(Get(ProfileFile()), "[ORN Video Tools]\nW=640\nVelmoComp=/v200 /d5000\n");
  EXPECT_EQ(Int("W", 0), 640u);
  EXPECT_EQ(Text("VelmoComp", ""), "/v200 /d5000");
}

TEST_F(Settings, RewritesKeepOtherSectionsAndComments) {
  Put(UserFile(), "; kept\n[Software\\Ornis Works\\Other]\nX=dword:00000001\n\n[software\\ornis works\\orn video tools]\nx=dword:00000002\n");
  ASSERT_TRUE(SettingsWriteInt(SettingsMainSection, "X", 3, false));
  ASSERT_TRUE(SettingsWriteInt(SettingsMainSection, "Y", 4, false));
  ASSERT_TRUE(SettingsWriteInt("Third", "Z", 5, false));
  EXPECT_EQ(Get(UserFile()),
            "; kept\n[Software\\Ornis Works\\Other]\nX=dword:00000001\n\n"
            "[software\\ornis works\\orn video tools]\nX=dword:00000003\nY=dword:00000004\n\n"
            "[Software\\Ornis Works\\Third]\nZ=dword:00000005\n");
  EXPECT_EQ(SettingsReadInt("Other", "X", 0), 1u);
  EXPECT_EQ(SettingsReadInt("Third", "Z", 0), 5u);
  // No temporary files are left behind.
  for (const auto& entry : std::filesystem::directory_iterator(user + "/ornisworks"))
    EXPECT_EQ(entry.path().filename().string().find("tmp"), std::string::npos) << entry.path();
}

TEST_F(Settings, OddCharactersRoundTrip) {
  const char* values[] = {
      "  leading and trailing  ", "\"quoted\" text", "tab\there", "line\nbreak\r\n", "back\\slash\\",
      "\\x41 is not A",           "a=b;c#d[e]",     "\xe9t\xe9", "",
  };
  for (const char* v : values) {
    ASSERT_TRUE(SettingsWriteText(SettingsMainSection, "Odd", v, false)) << v;
    EXPECT_EQ(Text("Odd", "default"), v);
  }
  // Odd names work in the registry store too.
  ASSERT_TRUE(SettingsWriteText("Sec[1]", " a=b ", "value", false));
  char buf[32];
  SettingsReadText("Sec[1]", " a=b ", buf, sizeof buf, "");
  EXPECT_STREQ(buf, "value");
}

TEST_F(Settings, ProfileQuotingAndLimits) {
  ASSERT_TRUE(SettingsWriteText(SettingsMainSection, "Q", "  spaced  ", true));
  ASSERT_TRUE(SettingsWriteText(SettingsMainSection, "R", "\"starts with quote", true));
  EXPECT_NE(Get(ProfileFile()).find("Q=\"  spaced  \"\n"), std::string::npos);
  unlink(UserFile().c_str());  // read back from the profile alone
  EXPECT_EQ(Text("Q", ""), "  spaced  ");
  EXPECT_EQ(Text("R", ""), "\"starts with quote");
  // A line break cannot stand in a plain profile line: the write reports it, the registry has it.
  EXPECT_FALSE(SettingsWriteText(SettingsMainSection, "L", "a\nb", true));
  EXPECT_EQ(Text("L", ""), "a\nb");
  // The profile text is cut to the buffer.
  EXPECT_EQ(Text("Q", "", 5), "  sp");
}

TEST_F(Settings, HomeFallbackAndNoHome) {
  unsetenv("XDG_CONFIG_HOME");
  const char* oldHome = getenv("HOME");
  const std::string saved = oldHome ? oldHome : "";
  setenv("HOME", root.c_str(), 1);
  ASSERT_TRUE(SettingsWriteInt(SettingsMainSection, "X", 7, false));
  EXPECT_NE(Get(root + "/.config/ornisworks/registry.ini").find("X=dword:00000007"), std::string::npos);
  unsetenv("HOME");
  EXPECT_FALSE(SettingsWriteInt(SettingsMainSection, "X", 8, false));
  EXPECT_EQ(Int("X", 9), 9u);
  if (oldHome) setenv("HOME", saved.c_str(), 1);
}

}  // namespace
