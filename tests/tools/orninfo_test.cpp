// ORNInfo: the report's lines for a picture, a Velmo file, a directory and an unknown file, and
// the program run with the console front end.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "imagefile/imagefile.h"
#include "tools/orninfo.h"

namespace {

const char* const Program = ORN_PROGRAM_PATH;

int RunCommand(const std::string& command, std::string* out) {
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return -1;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out->append(buffer, n);
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void WritePng(const std::string& name, int width, int height, bool alpha) {
  std::vector<uint32_t> pixels(size_t(width) * height);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = (alpha ? 0x80000000u : 0xFF000000u) | uint32_t(i * 2654435761u >> 8);
  ImagePixels p{pixels.data(), ptrdiff_t(width) * 4, width, height, IMAGE_PIXELS_ARGB32};
  ImageWriteParams params{IMAGE_FORMAT_PNG, alpha ? 1 : 0, 90, 0};
  ImageError error{};
  ASSERT_TRUE(ImageWriteFile(name.c_str(), &params, &p, &error)) << error.text;
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class OrnFileInfo : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/orn_info_XXXXXX";
    dir = mkdtemp(pattern);
  }
  void TearDown() override {
    const std::string command = "rm -rf '" + dir + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
  }
  std::string dir;
};

TEST_F(OrnFileInfo, PictureLinesInOrder) {
  const std::string png = dir + "/pic.png";
  WritePng(png, 40, 24, true);
  const std::string text = OrnFileInfoText(png.c_str());
  const char* const lines[] = {"\r\n    Video format: ", "\r\n    Width: 40",
                               "\r\n    Height: 24",     "\r\n    Frames: 1",
                               "\r\n    Color depth: 32", "\r\n    Alpha plane: Yes.",
                               "\r\n    Frames per second: ", "\r\n    Milliseconds per frame: ",
                               "\r\n    Total time: 0 minutes ", "\r\n    Total size: ",
                               "\r\n    Average data rate: ", "\r\n    Average frame size: ",
                               "\r\n    Size: ", "\r\n    Last modified on ",
                               "\r\n    Attributes: archive-"};
  size_t at = 0;
  for (const char* line : lines) {
    const size_t found = text.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << "\n" << text;
    at = found;
  }
  EXPECT_FALSE(Has(text, "Velmo")) << text;
  EXPECT_FALSE(Has(text, "This is a directory."));
}

TEST_F(OrnFileInfo, DirectoryAndUnknownFileShowOnlyFileSystemLines) {
  const std::string dirText = OrnFileInfoText(dir.c_str());
  EXPECT_EQ(dirText.find("\r\n    This is a directory."), 0u) << dirText;
  EXPECT_FALSE(Has(dirText, "Video format"));
  const std::string junk = dir + "/junk.dat";
  FILE* f = std::fopen(junk.c_str(), "wb");
  ASSERT_TRUE(f);
  std::fputs("nothing any reader knows", f);
  std::fclose(f);
  const std::string text = OrnFileInfoText(junk.c_str());
  EXPECT_EQ(text.find("\r\n    Size: 24"), 0u) << text;
  EXPECT_TRUE(Has(text, "Attributes: archive-no  read only-no  hidden-no  system-no"));
  EXPECT_EQ(OrnFileInfoText((dir + "/missing").c_str()), "");
}

TEST_F(OrnFileInfo, VelmoFileThroughTheProgram) {
  // A first-generation file made by the compressor, with an extra text.
  WritePng(dir + "/in1.png", 32, 32, false);
  WritePng(dir + "/in2.png", 32, 32, false);
  const std::string vlm = dir + "/clip.vlm";
  std::string out;
  ASSERT_EQ(RunCommand("ORN_CONSOLE=1 \"" + std::string(Program) + "\" velmoc \"" + dir +
                           "/in?.png*1-2\" " + vlm + " /v101 /*hello </dev/null >/dev/null 2>&1",
                       &out),
            0);
  out.clear();
  ASSERT_EQ(RunCommand("ORN_CONSOLE=1 \"" + std::string(Program) + "\" ORNInfo /#77 \"" + vlm +
                           "\" </dev/null 2>/dev/null",
                       &out),
            0);
  EXPECT_FALSE(Has(out, "\r"));
  EXPECT_EQ(out.find("    Video format: "), 0u) << out;
  const char* const lines[] = {"\n    Width: 32\n",
                               "\n    Frames: 2\n",
                               "\n    Alpha plane: No.\n",
                               "\n    Largest frame size: ",
                               "\n    Highest one second data rate: ",
                               "\n    Highest one second data rate start frame: 1\n",
                               "\n    File type: VLMk\n",
                               "\n    Uses full y-cr-cb colorspace.\n",
                               "\n    Compressed with Velmo ",
                               "\n    Extra text: hello\n",
                               "\n    Video slices (max simultaneous CPUs): 1\n",
                               "\n    Size: "};
  size_t at = 0;
  for (const char* line : lines) {
    const size_t found = out.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << "\n" << out;
    at = found;
  }
  // The box goes to the terminal under its caption.
  std::string both;
  RunCommand("ORN_CONSOLE=1 \"" + std::string(Program) + "\" orninfo " + vlm + " </dev/null 2>&1",
             &both);
  EXPECT_TRUE(Has(both, "Information on " + vlm)) << both;
}

TEST_F(OrnFileInfo, NoNameIsAnInputError) {
  std::string out;
  EXPECT_EQ(RunCommand("ORN_CONSOLE=1 \"" + std::string(Program) + "\" orninfo </dev/null 2>&1", &out),
            8002 & 255);
}

}  // namespace
