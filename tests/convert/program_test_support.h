// Helpers for the tests that run the real program or read what it wrote: a fixture with its own
// folder, the program run on a tail, the written wave header checked, and sound inputs for the
// mixer.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "media/sound.h"
#include "support/files.h"
#include "support/picture.h"
#include "support/run.h"
#include "support/wave.h"

namespace program_test {

using namespace test_support;

// A test with its own folder under /tmp, removed with everything in it at the end.
class TempDirTest : public ::testing::Test {
 protected:
  ScratchDir scratch;
  const std::string dir = scratch.path;
};

// The words of a command tail, split at blanks.
inline std::vector<std::string> Words(const std::string& tail) {
  std::vector<std::string> args;
  std::istringstream words(tail);
  for (std::string word; words >> word;) args.push_back(word);
  return args;
}

#ifdef ORN_PROGRAM_PATH
// Runs the program with the console front end (settings from the environment's folder); the
// tail's words are its arguments. With `fileSizeLimit` (bytes) it runs under that limit.
inline ToolOutcome RunTail(const std::string& tail, uint64_t fileSizeLimit = 0) {
  std::vector<std::string> env;
  if (const char* config = std::getenv("XDG_CONFIG_HOME")) env.push_back(std::string("XDG_CONFIG_HOME=") + config);
  return RunProgram(ORN_PROGRAM_PATH, Words(tail), env, fileSizeLimit);
}
#endif

// A written PCM wave file: its header has the given format and data length, and it holds
// exactly that much data.
template <typename Bytes>
void ExpectWaveHeader(const Bytes& data, uint32_t rate, uint32_t bits, uint32_t channels,
                      uint32_t dataBytes) {
  ASSERT_EQ(data.size(), 44u + dataBytes);
  EXPECT_EQ(std::vector<uint8_t>(data.begin(), data.begin() + 44),
            WaveHeader(1, channels, rate, bits, dataBytes));
}

// The read function the mixer takes, over an open sound input.
inline uint32_t ReadSoundInput(void* source, void* buffer, uint32_t bytes) {
  return SoundRead(static_cast<SoundInput*>(source), buffer, bytes);
}

}  // namespace program_test
