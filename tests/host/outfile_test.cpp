// Output files that replace their target only when complete: the temporary name beside the
// target, the rename at the commit, and what a full disk, a discard, a folder that takes no
// file, a target that cannot be replaced and names too long for the system leave behind.
#include "host/outfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/full_disk.h"

namespace {

using namespace test_support;

std::vector<uint8_t> Pattern(size_t bytes, uint8_t seed) {
  std::vector<uint8_t> data(bytes);
  for (size_t i = 0; i < bytes; ++i) data[i] = uint8_t(i * 13 + seed + (i >> 9));
  return data;
}

class OutFiles : public ::testing::Test {
 protected:
  // Writes `data` through an OutFile on `target` and commits it.
  OutFileResult Write(const std::string& target, const std::vector<uint8_t>& data) {
    OutFile out{};
    const OutFileResult made = OutFileCreate(&out, target.c_str(), 4096);
    if (made != OutFileDone) return made;
    EXPECT_EQ(std::string(out.Temporary), target + ".tmp");
    EXPECT_TRUE(Exists(target + ".tmp"));
    FileWrite(out.File, data.data(), data.size());
    return OutFileCommit(&out);
  }
  ScratchDir scratch;
};

TEST_F(OutFiles, TheTargetChangesOnlyAtTheCommit) {
  const std::string target = scratch / "out.bin";
  const std::vector<uint8_t> old = Pattern(5000, 1), next = Pattern(70000, 2);
  WriteFile(target, old);
  OutFile out{};
  ASSERT_EQ(OutFileCreate(&out, target.c_str(), 4096), OutFileDone);
  FileWrite(out.File, next.data(), next.size());
  FileFlush(out.File, false);
  // While it is written, the target is the old file and the new bytes are beside it.
  EXPECT_EQ(ReadFile(target), old);
  EXPECT_EQ(ReadFile(target + ".tmp").size(), next.size());
  // A second writer of the same target is refused and leaves the first one's file alone.
  OutFile second{};
  EXPECT_EQ(OutFileCreate(&second, target.c_str(), 4096), OutFileNotCreated);
  EXPECT_EQ(second.File, nullptr);
  EXPECT_EQ(ReadFile(target + ".tmp").size(), next.size());
  EXPECT_EQ(OutFileCommit(&out), OutFileDone);
  EXPECT_EQ(out.File, nullptr);
  EXPECT_EQ(ReadFile(target), next);
  EXPECT_FALSE(Exists(target + ".tmp"));
}

TEST_F(OutFiles, AFullDiskOrADiscardLeavesTheOldFileAndNoTemporary) {
  const std::string target = scratch / "out.bin";
  const std::vector<uint8_t> old = Pattern(3000, 3), next = Pattern(50000, 4);
  WriteFile(target, old);
  // Full at once, within the buffer's first write, and past several buffers.
  for (const uint64_t room : {uint64_t(0), uint64_t(100), uint64_t(20000)}) {
    SCOPED_TRACE(room);
    const FullDisk full(room);
    EXPECT_EQ(Write(target, next), OutFileWriteFailed);
    EXPECT_EQ(ReadFile(target), old);
    EXPECT_FALSE(Exists(target + ".tmp"));
  }
  // A short write that only the close would find (the data waits in the buffer).
  OutFile out{};
  ASSERT_EQ(OutFileCreate(&out, target.c_str(), 65536), OutFileDone);
  FileWrite(out.File, next.data(), 1000);
  {
    const FullDisk full(10);
    EXPECT_FALSE(OutFileClose(&out));
  }
  EXPECT_FALSE(Exists(target + ".tmp"));
  // A discard, of an open file and of one closed for a later rename.
  for (const bool closeFirst : {false, true}) {
    ASSERT_EQ(OutFileCreate(&out, target.c_str(), 4096), OutFileDone);
    FileWrite(out.File, next.data(), next.size());
    if (closeFirst) {
      ASSERT_TRUE(OutFileClose(&out));
    }
    OutFileDiscard(&out);
    EXPECT_EQ(ReadFile(target), old);
    EXPECT_FALSE(Exists(target + ".tmp"));
  }
  // A fresh name that failed leaves nothing at all.
  const FullDisk full(0);
  EXPECT_EQ(Write(scratch / "fresh.bin", next), OutFileWriteFailed);
  EXPECT_FALSE(Exists(scratch / "fresh.bin"));
  EXPECT_FALSE(Exists(scratch / "fresh.bin.tmp"));
}

TEST_F(OutFiles, ClosedThenCommittedLater) {
  const std::string target = scratch / "late.bin";
  const std::vector<uint8_t> data = Pattern(9000, 5);
  OutFile out{};
  ASSERT_EQ(OutFileCreate(&out, target.c_str(), 4096), OutFileDone);
  FileWrite(out.File, data.data(), data.size());
  ASSERT_TRUE(OutFileClose(&out));
  EXPECT_FALSE(Exists(target));
  EXPECT_EQ(OutFileCommit(&out), OutFileDone);
  EXPECT_EQ(ReadFile(target), data);
}

TEST_F(OutFiles, AFolderThatTakesNoFileAndATargetThatCannotBeReplaced) {
  // A read-only folder (as root every folder takes files: then only the second half runs).
  const std::string locked = scratch / "locked";
  ASSERT_EQ(mkdir(locked.c_str(), 0555), 0);
  if (access(locked.c_str(), W_OK) != 0) {
    OutFile out{};
    EXPECT_EQ(OutFileCreate(&out, (locked + "/x.bin").c_str(), 4096), OutFileNotCreated);
    EXPECT_EQ(out.File, nullptr);
    EXPECT_FALSE(Exists(locked + "/x.bin.tmp"));
  }
  chmod(locked.c_str(), 0755);
  // A folder of that name stands where the file should go: the finished file stays under its
  // temporary name for the caller, who may keep or discard it.
  const std::string target = scratch / "taken";
  ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
  ASSERT_EQ(mkdir((target + "/inside").c_str(), 0755), 0);
  const std::vector<uint8_t> data = Pattern(100, 6);
  OutFile out{};
  ASSERT_EQ(OutFileCreate(&out, target.c_str(), 4096), OutFileDone);
  FileWrite(out.File, data.data(), data.size());
  EXPECT_EQ(OutFileCommit(&out), OutFileNotReplaced);
  EXPECT_EQ(ReadFile(target + ".tmp"), data);
  OutFileDiscard(&out);
  EXPECT_FALSE(Exists(target + ".tmp"));
  EXPECT_TRUE(Exists(target + "/inside"));
}

TEST_F(OutFiles, NamesUpToWhatTheSystemTakes) {
  // A path of about 600 bytes in folders that exist is written like any other, and a buffered
  // file keeps the whole of its name.
  const std::string deep = NestedFolder(scratch.path, 600) + "/deep.bin";
  ASSERT_GT(deep.size(), 600u);
  EXPECT_TRUE(PathFits(deep.c_str()));
  EXPECT_TRUE(OutFileNameFits(deep.c_str()));
  const std::vector<uint8_t> data = Pattern(500, 7);
  ASSERT_EQ(Write(deep, data), OutFileDone);
  EXPECT_EQ(ReadFile(deep), data);
  BufferedFile* named = FileCreate(0, (deep + ".b").c_str(), 1);
  ASSERT_NE(named, nullptr);
  std::vector<char> name(FileNameBytes);
  EXPECT_EQ(std::string(FileGetName(named, name.data())), deep + ".b");
  FileClose(named);
  // The limits: the name itself, and the name with the temporary suffix.
  const std::string longest(PathMax - 1, 'x'), room(PathMax - 1 - 4, 'y');
  EXPECT_TRUE(PathFits(longest.c_str()));
  EXPECT_FALSE(PathFits((longest + "x").c_str()));
  EXPECT_FALSE(OutFileNameFits(longest.c_str()));
  EXPECT_TRUE(OutFileNameFits(room.c_str()));
  EXPECT_FALSE(OutFileNameFits((room + "y").c_str()));
  // A name of about 5000 bytes is refused before anything is made, with no cut-short name.
  const std::string huge = scratch.path + "/" + std::string(5000, 'z');
  OutFile out{};
  EXPECT_EQ(OutFileCreate(&out, huge.c_str(), 4096), OutFileTooLong);
  EXPECT_EQ(out.File, nullptr);
  char text[400];
  PathTooLongText(text, sizeof text, "output", huge.c_str());
  EXPECT_NE(std::string(text).find("The output file name is too long (" +
                                   std::to_string(huge.size()) + " bytes"),
            std::string::npos)
      << text;
}

}  // namespace
