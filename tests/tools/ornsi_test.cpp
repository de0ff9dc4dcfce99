// ORNSI: the report's lines, and the program run with the console front end.
#include <sys/stat.h>

#include <regex>

#include "support/files.h"
#include "support/run.h"
#include "tools/ornsi.h"

namespace {

TEST(OrnSystemInfoTest, LinesInOrderAndWellFormed) {
  const std::string text = OrnSystemInfoText();
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), '\n');
  EXPECT_EQ(text.find("\n\n"), std::string::npos);
  size_t previous = 0;
  for (const char* part : {"\nVersion: ", "Processor features: ", " CPUs ", "Physical memory: ",
                           "Space on current disk: "}) {
    const size_t found = text.find(part);
    ASSERT_NE(found, std::string::npos) << part;
    EXPECT_GT(found, previous) << part << " comes after the line before it";
    previous = found;
  }
  // Grouped megabytes, and a processor count consistent with itself.
  EXPECT_TRUE(std::regex_search(
      text, std::regex("Physical memory: [1-9][0-9]{0,2}(,[0-9]{3})* MB  Total memory: "
                       "[1-9][0-9]{0,2}(,[0-9]{3})* MB\n")));
  std::smatch m;
  ASSERT_TRUE(std::regex_search(text, m, std::regex("(\\d+) CPUs (over \\d+ sockets )?with (\\d+) "
                                                    "cores and (\\d+) hyperthreads\n")));
  const int logical = std::stoi(m[1]), cores = std::stoi(m[3]), extra = std::stoi(m[4]);
  EXPECT_GE(logical, 1);
  EXPECT_LE(cores, logical);
  EXPECT_EQ(cores + extra, logical);
  EXPECT_NE(text.find("SSE2"), std::string::npos);  // every x86-64 processor has it
}

// A stand-in for the system's folder of sound cards: "<dir>/asound/cards" and, when given,
// "<dir>/asound/version".
void FakeSoundCards(const test_support::ScratchDir& dir, const std::string& cards,
                    const std::string& version) {
  mkdir((dir / "asound").c_str(), 0755);
  test_support::WriteText(dir / "asound/cards", cards);
  if (!version.empty()) test_support::WriteText(dir / "asound/version", version);
}

// The sound line names the default card (the first listed), its driver and the sound driver's
// version; without a card, or without the list, the line is left out.
TEST(OrnSystemInfoTest, AudioLineNamesTheDefaultCardAndItsDriver) {
  const std::string twoCards =
      " 0 [PCH            ]: HDA-Intel - HDA Intel PCH\n"
      "                      HDA Intel PCH at 0xf7f10000 irq 32\n"
      " 1 [Device         ]: USB-Audio - USB Audio Device\n"
      "                      Generic USB Audio Device at usb-0000:00:14.0-2, full speed\n";
  const struct {
    std::string cards, version, line;
  } cases[] = {
      {twoCards, "Advanced Linux Sound Architecture Driver Version k6.1.0.\n",
       "Audio device: HDA Intel PCH HDA-Intel 6.1"},
      {twoCards, "Advanced Linux Sound Architecture Driver Version 1.0.25.\n",
       "Audio device: HDA Intel PCH HDA-Intel 1.0"},
      {twoCards, "", "Audio device: HDA Intel PCH HDA-Intel"},  // no version to be read
      {" 3 [Dummy          ]: Dummy - Dummy\n                      Dummy 1\n",
       "Advanced Linux Sound Architecture Driver Version k5.10.2.\n",
       "Audio device: Dummy Dummy 5.10"},
      {"--- no soundcards ---\n", "Advanced Linux Sound Architecture Driver Version k6.1.0.\n", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cards + c.version);
    const test_support::ScratchDir dir;
    FakeSoundCards(dir, c.cards, c.version);
    EXPECT_EQ(OrnAudioDeviceLine(dir.path), c.line);
  }
  const test_support::ScratchDir empty;
  EXPECT_EQ(OrnAudioDeviceLine(empty.path), "");  // no sound system at all
}

TEST(OrnSystemInfoTest, ProgramPrintsTheReportAndTheBox) {
  const test_support::ToolOutcome run = test_support::RunProgram(ORN_PROGRAM_PATH, {"ornsi"});
  ASSERT_EQ(run.code, 0) << run.output;
  // Each part once: the text is not printed a second time as a box.
  for (const char* part : {"ORN System Info...", "Physical memory: ", "CPUs with", "Version: "})
    EXPECT_EQ(run.Times(part), 1u) << part << "\n" << run.output;
  EXPECT_FALSE(run.Says("not part of this build")) << run.output;
}

}  // namespace
