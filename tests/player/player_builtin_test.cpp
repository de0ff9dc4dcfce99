// The built-in command line: the filler slot in the built program, reading a written slot, the
// line the player reads from it, and a program with a written slot running as the player.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "player/player_builtin.h"
#include "support/files.h"
#include "support/run.h"

namespace {

using test_support::ReadFile;

// Starts of a 128-byte run of wide "~" with a second such run 768 bytes behind its end.
std::vector<size_t> FindSlots(const std::vector<uint8_t>& file) {
  // run[i]: wide "~" characters in a row from byte i.
  std::vector<uint32_t> run(file.size() + 2, 0);
  for (size_t i = file.size(); i-- > 0;)
    if (i + 1 < file.size() && file[i] == '~' && file[i + 1] == 0) run[i] = run[i + 2] + 1;
  const size_t chars = PlayerSlotRunBytes / 2;
  const size_t second = PlayerSlotRunBytes + PlayerSlotGapBytes;
  std::vector<size_t> found;
  for (size_t i = 0; i + second < file.size(); i++)
    if (run[i] >= chars && run[i + second] >= chars) found.push_back(i);
  return found;
}

std::vector<uint8_t> Filler() {
  std::vector<uint8_t> slot;
  for (size_t i = 0; i < PlayerSlotBytes / 2; i++) slot.insert(slot.end(), {'~', 0});
  return slot;
}

// Writes `line` over the start of the slot at `at` as its maker does: low byte, zero byte.
void WriteLine(std::vector<uint8_t>* bytes, size_t at, const std::string& line) {
  for (size_t i = 0; i < line.size(); i++) {
    (*bytes)[at + 2 * i] = uint8_t(line[i]);
    (*bytes)[at + 2 * i + 1] = 0;
  }
}

TEST(PlayerBuiltinSlot, TheBuiltProgramCarriesOneUnwrittenSlot) {
  const std::vector<uint8_t> program = ReadFile(ORN_PROGRAM_PATH);
  ASSERT_FALSE(program.empty());
  const std::vector<size_t> slots = FindSlots(program);
  ASSERT_EQ(slots.size(), 1u) << "the maker must find exactly one place to write";
  // The whole room is filler, so the program plays no built-in line.
  const std::vector<uint8_t> room(program.begin() + long(slots[0]),
                                  program.begin() + long(slots[0] + PlayerSlotBytes));
  EXPECT_EQ(room, Filler());
  EXPECT_EQ(PlayerBuiltinLine(), "");
}

TEST(PlayerBuiltinSlot, ReadsTheLineWrittenOverTheFiller) {
  std::vector<uint8_t> slot = Filler();
  EXPECT_EQ(PlayerReadSlot(slot.data(), slot.size()), "");
  WriteLine(&slot, 0, " :4096 :1048576 /L3 /Q");
  EXPECT_EQ(PlayerReadSlot(slot.data(), slot.size()), " :4096 :1048576 /L3 /Q");
  // A shorter line written later over a longer one ends at the filler the maker left.
  slot = Filler();
  WriteLine(&slot, 0, "/S");
  EXPECT_EQ(PlayerReadSlot(slot.data(), slot.size()), "/S");
  // Wide characters beyond one byte are not part of a line the player can read.
  slot[2] = 0x41, slot[3] = 0x04;
  EXPECT_EQ(PlayerReadSlot(slot.data(), slot.size()), "/?");
}

TEST(PlayerBuiltinSlot, ALineFillingTheRoomIsCutAtItsLimit) {
  std::vector<uint8_t> slot = Filler();
  const std::string full(PlayerSlotBytes / 2, 'a');
  WriteLine(&slot, 0, full);
  EXPECT_EQ(PlayerReadSlot(slot.data(), slot.size()), full.substr(0, PlayerSlotMaxChars));
  // A zero character ends the line like the filler does.
  slot = Filler();
  WriteLine(&slot, 0, "/Q");
  slot[4] = 0, slot[5] = 0;
  EXPECT_EQ(PlayerReadSlot(slot.data(), slot.size()), "/Q");
}

TEST(PlayerBuiltinSlot, TheRealTailFollowsTheBuiltInLineExceptForAScreenSaver) {
  EXPECT_EQ(PlayerJoinLine(" :4096 /L", "/Q", false), " :4096 /L /Q");
  EXPECT_EQ(PlayerJoinLine(" :4096 /L ", "/Q", false), " :4096 /L /Q");
  EXPECT_EQ(PlayerJoinLine("", "clip.vlm /S", false), "clip.vlm /S");
  EXPECT_EQ(PlayerJoinLine(" :4096", "", false), " :4096");
  EXPECT_EQ(PlayerJoinLine(" :4096", "/s", true), " :4096");
  EXPECT_TRUE(PlayerIsScreenSaverName("/usr/lib/velmo.scr"));
  EXPECT_TRUE(PlayerIsScreenSaverName("VELMO.SCR"));
  EXPECT_TRUE(PlayerIsScreenSaverName("velmoscr"));
  EXPECT_FALSE(PlayerIsScreenSaverName("ORNVideo64"));
  EXPECT_FALSE(PlayerIsScreenSaverName("sc"));
}

// A copy of the program with a line in its slot is the player, and reads that line from its
// file when it runs: a line the player refuses gives the player's help, whatever the real
// command line holds.
TEST(PlayerBuiltinSlot, AProgramWithAWrittenSlotRunsThePlayerWithItsLine) {
  const test_support::ScratchDir dir;
  std::vector<uint8_t> program = ReadFile(ORN_PROGRAM_PATH);
  const std::vector<size_t> slots = FindSlots(program);
  ASSERT_EQ(slots.size(), 1u);
  const std::string copy = dir / "selfplay";
  WriteLine(&program, slots[0], "/Oops");
  test_support::WriteFile(copy, program);
  ASSERT_EQ(chmod(copy.c_str(), 0755), 0);
  const test_support::ToolOutcome run = test_support::RunProgram(copy, {"ORNInfo"});
  EXPECT_EQ(run.code, 1) << run.output;
  EXPECT_TRUE(run.Says("VelmoPlay <Velmo1 Velmo2 ...> [/Switches]")) << run.output;
  // The unwritten program goes by its tool word as ever.
  const test_support::ToolOutcome plain = test_support::RunProgram(ORN_PROGRAM_PATH, {"/Oops"});
  EXPECT_FALSE(plain.Says("VelmoPlay <Velmo1 Velmo2 ...> [/Switches]")) << plain.output;
}

// A program file named as a screen saver is the player too, and answers the settings request.
TEST(PlayerBuiltinSlot, AProgramNamedAsAScreenSaverAnswersItsSettingsRequest) {
  const test_support::ScratchDir dir;
  const std::string saver = dir / "velmo.scr";
  ASSERT_EQ(symlink(ORN_PROGRAM_PATH, saver.c_str()), 0);
  const test_support::ToolOutcome run = test_support::RunProgram(saver, {"/c"});
  EXPECT_EQ(run.code, 0) << run.output;
  EXPECT_TRUE(run.Says("There are no settings for this screensaver.")) << run.output;
}

}  // namespace
