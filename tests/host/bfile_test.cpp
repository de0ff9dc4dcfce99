// Buffered files: buffer states, fast paths, bit fields, seeks and patches, names.
#include "host/bfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/files.h"

namespace {

using test_support::ReadFile;

class BufferedFiles : public ::testing::Test {
 protected:
  std::string Path(const char* name) const { return scratch / name; }
  void Put(const std::string& path, const std::vector<uint8_t>& bytes) const {
    test_support::WriteFile(path, bytes);
  }
  static uint64_t SizeOnDisk(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
  }
  static std::vector<uint8_t> Pattern(size_t bytes) {
    std::vector<uint8_t> data(bytes);
    for (size_t i = 0; i < bytes; ++i) data[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
    return data;
  }

  test_support::ScratchDir scratch;
  const std::string dir = scratch.path;
};

// ---------------------------------------------------------------------------------------------
// Buffers and open

TEST_F(BufferedFiles, BufferSizesAlignmentAndLazyAllocation) {
  BufferedFile* file = FileCreate(-8192, Path("lazy").c_str(), 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->Buffer, nullptr);
  EXPECT_EQ(file->BufferSize, 8192u);
  FileWriteByte(file, 0x41);
  ASSERT_NE(file->Buffer, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(file->Buffer) % 4096, 0u);
  EXPECT_EQ(file->BufferFill, 8192u);
  FileClose(file);
  EXPECT_EQ(ReadFile(Path("lazy")), std::vector<uint8_t>{0x41});

  file = FileCreate(0, Path("zero").c_str(), 0);
  ASSERT_NE(file, nullptr);
  EXPECT_NE(file->Buffer, nullptr);
  EXPECT_EQ(file->BufferSize, 4096u);
  FileClose(file);
  file = FileCreateShared(5000, Path("odd").c_str());
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->BufferSize, 8192u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(file->Buffer) % 4096, 0u);
  char name[FileNameBytes];
  EXPECT_EQ(std::string(FileGetName(file, name)), Path("odd"));
  FileClose(file);
}

TEST_F(BufferedFiles, OpenFailuresGiveNullAndReadOnlyModeRefusesWrites) {
  EXPECT_EQ(FileOpenRead(0, Path("missing").c_str(), FileModeReadOnly), nullptr);
  EXPECT_EQ(FileOpenRead(0, dir.c_str(), FileModeReadOnly), nullptr) << "a folder is no file";
  EXPECT_EQ(FileCreate(0, Path("no/such/folder").c_str(), 0), nullptr);
  EXPECT_EQ(FileOpenRead(0, nullptr, 0), nullptr);

  // Read-only mode refuses writes; any other mode may write.
  Put(Path("ro"), {1, 2, 3});
  BufferedFile* file = FileOpenRead(0, Path("ro").c_str(), FileModeReadOnly);
  ASSERT_NE(file, nullptr);
  FileWriteByte(file, 9);
  EXPECT_FALSE(FileFlush(file, false));
  EXPECT_EQ(file->WriteError, 1u);
  FileClose(file);
  EXPECT_EQ(ReadFile(Path("ro")), (std::vector<uint8_t>{1, 2, 3}));

  file = FileOpenRead(0, Path("ro").c_str(), 0);
  ASSERT_NE(file, nullptr);
  FileSeek(file, 1);
  FileWriteByte(file, 9);
  EXPECT_TRUE(FileFlush(file, true));
  FileClose(file);
  EXPECT_EQ(ReadFile(Path("ro")), (std::vector<uint8_t>{1, 9, 3}));
}

TEST_F(BufferedFiles, ShortWritesSetTheErrorAndGoOn) {
  BufferedFile* file = FileOpenRead(0, "/dev/full", 0);
  if (!file) GTEST_SKIP() << "no /dev/full here";
  const auto data = Pattern(10000);
  EXPECT_EQ(FileWrite(file, data.data(), data.size()), data.size());
  EXPECT_EQ(file->WriteError, 1u);
  FileWriteLong(file, 1);
  EXPECT_EQ(FileTell(file), 10004u);
  FileClose(file);
}

// ---------------------------------------------------------------------------------------------
// Writing and reading

TEST_F(BufferedFiles, FastPathsMatchTheSlowPathAcrossBufferEnds) {
  // Start 3 bytes before the end of the buffer, so the word and long stores straddle it.
  BufferedFile* file = FileCreate(4096, Path("fast").c_str(), 0);
  ASSERT_NE(file, nullptr);
  std::vector<uint8_t> expected(4093, 0xEE);
  FileWrite(file, expected.data(), expected.size());
  for (uint32_t i = 0; i < 3000; ++i) {
    FileWriteByte(file, i);
    FileWriteWord(file, 0xA000 + i);
    FileWriteLong(file, 0x12345600u + i);
    for (uint8_t b : {uint8_t(i), uint8_t(0xA000 + i), uint8_t((0xA000 + i) >> 8),
                      uint8_t(0x12345600u + i), uint8_t((0x12345600u + i) >> 8), uint8_t(0x34),
                      uint8_t(0x12)})
      expected.push_back(b);
  }
  EXPECT_EQ(FileTell(file), expected.size());
  FileClose(file);
  EXPECT_EQ(ReadFile(Path("fast")), expected);

  file = FileOpenRead(4096, Path("fast").c_str(), FileModeReadOnly);
  ASSERT_NE(file, nullptr);
  FileSeek(file, 4093);
  for (uint32_t i = 0; i < 3000; ++i) {
    ASSERT_EQ(FileReadByte(file), i & 0xFF);
    std::vector<uint8_t> word(2);
    ASSERT_EQ(FileRead(file, word.data(), 2), 2u);
    ASSERT_EQ(word[0] | (word[1] << 8), (0xA000 + i) & 0xFFFF);
    ASSERT_EQ(FileReadLong(file), 0x12345600u + i);
  }
  EXPECT_TRUE(FileAtEnd(file));
  EXPECT_EQ(FileReadByte(file), 0xFFFFFFFFu);
  EXPECT_EQ(FileReadLong(file), 0u);
  FileClose(file);
}

TEST_F(BufferedFiles, ReadRightAfterWriteReturnsWhatWasWritten) {
  BufferedFile* file = FileCreate(4096, Path("rw").c_str(), 0);
  ASSERT_NE(file, nullptr);
  const auto data = Pattern(1000);
  FileWrite(file, data.data(), data.size());
  EXPECT_EQ(FileSeek(file, 500), 1000u);
  std::vector<uint8_t> back(10);
  ASSERT_EQ(FileRead(file, back.data(), back.size()), back.size());
  EXPECT_EQ(back, std::vector<uint8_t>(data.begin() + 500, data.begin() + 510));
  // Overwrite in the middle, then read on at the position where the write stopped.
  FileWrite(file, "XYZ", 3);
  EXPECT_EQ(FileTell(file), 513u);
  ASSERT_EQ(FileRead(file, back.data(), 4), 4u);
  EXPECT_EQ(std::vector<uint8_t>(back.begin(), back.begin() + 4),
            std::vector<uint8_t>(data.begin() + 513, data.begin() + 517));
  FileSeek(file, 510);
  ASSERT_EQ(FileRead(file, back.data(), 3), 3u);
  EXPECT_EQ(std::string(back.begin(), back.begin() + 3), "XYZ");
  FileClose(file);
  auto expected = data;
  std::memcpy(expected.data() + 510, "XYZ", 3);
  EXPECT_EQ(ReadFile(Path("rw")), expected);
}

TEST_F(BufferedFiles, WriteAfterReadGoesWhereTheReadStopped) {
  Put(Path("rw2"), Pattern(300));
  BufferedFile* file = FileOpenRead(0, Path("rw2").c_str(), 0);
  ASSERT_NE(file, nullptr);
  std::vector<uint8_t> head(10);
  FileRead(file, head.data(), head.size());
  FileWriteLong(file, 0xDDCCBBAAu);
  EXPECT_EQ(FileTell(file), 14u);
  EXPECT_EQ(FileReadByte(file), Pattern(300)[14]);
  FileClose(file);
  auto expected = Pattern(300);
  expected[10] = 0xAA, expected[11] = 0xBB, expected[12] = 0xCC, expected[13] = 0xDD;
  EXPECT_EQ(ReadFile(Path("rw2")), expected);
}

TEST_F(BufferedFiles, LargeWritesAndReadsSkipTheBuffer) {
  BufferedFile* file = FileCreate(4096, Path("large").c_str(), 0);
  ASSERT_NE(file, nullptr);
  FileWrite(file, "head", 4);
  EXPECT_EQ(SizeOnDisk(Path("large")), 0u) << "a small write stays in the buffer";
  const auto data = Pattern(100000);
  FileWrite(file, data.data(), data.size());
  // The buffered head went out, then the rest was written from the caller's memory at once.
  EXPECT_EQ(SizeOnDisk(Path("large")), 100004u);
  EXPECT_EQ(file->BufferPos, 0u);
  FileClose(file);

  file = FileOpenRead(4096, Path("large").c_str(), FileModeReadOnly);
  ASSERT_NE(file, nullptr);
  std::vector<uint8_t> back(100004);
  const uint64_t before = FileSystemReads();
  ASSERT_EQ(FileRead(file, back.data(), back.size()), back.size());
  EXPECT_LE(FileSystemReads() - before, 2u);
  EXPECT_EQ(std::vector<uint8_t>(back.begin() + 4, back.end()), data);
  EXPECT_EQ(FileRead(file, back.data(), 1), 0u);
  FileClose(file);
}

TEST_F(BufferedFiles, SeekInsideTheReadBufferDoesNotTouchTheDisk) {
  Put(Path("seek"), Pattern(20000));
  const auto data = Pattern(20000);
  BufferedFile* file = FileOpenRead(4096, Path("seek").c_str(), FileModeReadOnly);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(FileReadByte(file), data[0]);
  const uint64_t reads = FileSystemReads();
  // Change the file underneath: bytes served from the buffer keep their old values.
  Put(Path("seek"), std::vector<uint8_t>(20000, 0));
  EXPECT_EQ(FileSeek(file, 3000), 1u);
  EXPECT_EQ(FileReadByte(file), data[3000]);
  EXPECT_EQ(FileSeek(file, 10), 3001u);
  EXPECT_EQ(FileReadLong(file), data[10] | (data[11] << 8) | (data[12] << 16) |
                                    (uint32_t(data[13]) << 24));
  FileSeek(file, 4096);  // the end of the buffer's content is still inside it
  EXPECT_EQ(FileSystemReads(), reads);
  EXPECT_EQ(FileReadByte(file), 0u) << "past the buffer comes from the changed file";
  EXPECT_EQ(FileSystemReads(), reads + 1);
  FileClose(file);
}

TEST_F(BufferedFiles, HeaderPatchBySeekWriteSeekBack) {
  BufferedFile* file = FileCreateShared(0x20000, Path("patch").c_str());
  ASSERT_NE(file, nullptr);
  FileWriteLong(file, 0);  // size, patched later
  FileWriteLong(file, 0);  // count, patched later
  const auto data = Pattern(300000);
  for (size_t at = 0; at < data.size(); at += 1000) FileWrite(file, data.data() + at, 1000);
  const uint64_t end = FileSeek(file, 0);
  EXPECT_EQ(end, 300008u);
  FileWriteLong(file, static_cast<uint32_t>(end));
  FileWriteLong(file, 300);
  EXPECT_EQ(FileSeek(file, end), 8u);
  FileWriteByte(file, 0x7E);
  EXPECT_EQ(FileSizeOf(file), 300009u);
  FileClose(file);
  const auto bytes = ReadFile(Path("patch"));
  ASSERT_EQ(bytes.size(), 300009u);
  EXPECT_EQ(bytes[0] | (bytes[1] << 8) | (bytes[2] << 16), 300008);
  EXPECT_EQ(bytes[4], 300 & 0xFF);
  EXPECT_EQ(bytes[5], 300 >> 8);
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 8, bytes.end() - 1), data);
  EXPECT_EQ(bytes.back(), 0x7E);
}

TEST_F(BufferedFiles, SizeAndEndFollowTheFileAndThePosition) {
  Put(Path("size"), Pattern(100));
  BufferedFile* file = FileOpenRead(-4096, Path("size").c_str(), 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(FileSizeOf(file), 100u);
  std::vector<uint8_t> bytes(99);
  FileRead(file, bytes.data(), bytes.size());
  EXPECT_FALSE(FileAtEnd(file));
  FileReadByte(file);
  EXPECT_TRUE(FileAtEnd(file));
  FileWrite(file, "12345", 5);
  EXPECT_EQ(FileSizeOf(file), 105u);
  FileSeek(file, 2);
  EXPECT_EQ(FileSizeOf(file), 105u);
  EXPECT_FALSE(FileAtEnd(file));
  // Standing past the end counts only while there: nothing was written out there.
  FileSeek(file, 500);
  EXPECT_EQ(FileSizeOf(file), 500u);
  FileSeek(file, 7);
  EXPECT_EQ(FileSizeOf(file), 105u);
  FileClose(file);
  EXPECT_EQ(SizeOnDisk(Path("size")), 105u);
}

TEST_F(BufferedFiles, ReadLineStopsAtNewlineLimitAndEnd) {
  Put(Path("lines"), std::vector<uint8_t>{'a', 'b', '\n', 'c', 'd', 'e', 'f', 'g', '\n', '\n', 'z'});
  BufferedFile* file = FileOpenRead(0, Path("lines").c_str(), FileModeReadOnly);
  ASSERT_NE(file, nullptr);
  char line[4];
  EXPECT_STREQ(FileReadLine(file, line, sizeof(line)), "ab\n");
  EXPECT_STREQ(FileReadLine(file, line, sizeof(line)), "cde");
  EXPECT_STREQ(FileReadLine(file, line, sizeof(line)), "fg\n");
  EXPECT_STREQ(FileReadLine(file, line, sizeof(line)), "\n");
  EXPECT_STREQ(FileReadLine(file, line, sizeof(line)), "z");
  EXPECT_EQ(FileReadLine(file, line, sizeof(line)), nullptr);
  EXPECT_EQ(FileReadLine(file, line, 0), nullptr);
  FileClose(file);
}

// ---------------------------------------------------------------------------------------------
// Bit fields

TEST_F(BufferedFiles, TellCountsThePartialByteAndFlushPadsWithZeros) {
  BufferedFile* file = FileCreate(0, Path("bits").c_str(), 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(FileTell(file), 0u);
  FileWriteBits(file, 0xFF, 3);
  EXPECT_EQ(FileTell(file), 1u);
  FileFlushBits(file);
  EXPECT_EQ(FileTell(file), 1u);
  FileWriteBits(file, 0x1FF, 9);
  EXPECT_EQ(FileTell(file), 3u);
  FileWriteBits(file, 0, 7);
  EXPECT_EQ(FileTell(file), 3u);
  FileFlushBits(file);
  FileFlushBits(file);  // nothing waits: nothing written
  FileClose(file);
  // 3 ones padded; then 9 ones and 7 zeros are exactly two bytes.
  EXPECT_EQ(ReadFile(Path("bits")), (std::vector<uint8_t>{0x07, 0xFF, 0x01}));
}

TEST_F(BufferedFiles, SeekInWriteStateDropsWaitingBits) {
  BufferedFile* file = FileCreate(0, Path("seekbits").c_str(), 0);
  ASSERT_NE(file, nullptr);
  FileWrite(file, "\x01\x02\x03", 3);
  FileWriteBits(file, 0x5, 3);
  EXPECT_EQ(FileSeek(file, 1), 4u);  // the partial byte counted in the old position
  FileWriteByte(file, 0xAA);
  FileSeek(file, 3);
  FileWriteBits(file, 0x3, 2);  // a fresh bit field at the byte the dropped bits were in
  FileClose(file);
  EXPECT_EQ(ReadFile(Path("seekbits")), (std::vector<uint8_t>{0x01, 0xAA, 0x03, 0x03}));

  BufferedFile* plain = FileCreate(0, Path("seekonly").c_str(), 0);
  ASSERT_NE(plain, nullptr);
  FileWrite(plain, "\x01\x02", 2);
  FileWriteBits(plain, 0x7, 3);
  FileSeek(plain, 0);
  FileClose(plain);
  EXPECT_EQ(ReadFile(Path("seekonly")), (std::vector<uint8_t>{0x01, 0x02}));
}

TEST_F(BufferedFiles, ThirtyTwoBitsAreOneLong) {
  BufferedFile* bits = FileCreate(0, Path("a").c_str(), 0);
  BufferedFile* longs = FileCreate(0, Path("b").c_str(), 0);
  ASSERT_TRUE(bits && longs);
  for (uint32_t value : {0u, 1u, 0x80000000u, 0xDEADBEEFu, 0xFFFFFFFFu}) {
    FileWriteBits(bits, value, 32);
    FileWriteLong(longs, value);
  }
  FileClose(bits);
  FileClose(longs);
  EXPECT_EQ(ReadFile(Path("a")), ReadFile(Path("b")));
  EXPECT_EQ(ReadFile(Path("a")).size(), 20u);
}

TEST_F(BufferedFiles, BytesWrittenAtABitOffsetReadBackAtTheSameOffset) {
  BufferedFile* file = FileCreate(4096, Path("offset").c_str(), 0);
  ASSERT_NE(file, nullptr);
  FileWriteBits(file, 5, 3);
  const auto data = Pattern(9000);  // more than the buffer, through the slow path
  FileWrite(file, data.data(), data.size());
  FileWriteLong(file, 0xCAFEF00Du);
  FileWriteBits(file, 2, 2);
  EXPECT_EQ(FileTell(file), 9005u);
  FileFlushBits(file);  // a seek alone would drop the last two bits
  FileSeek(file, 0);
  EXPECT_EQ(FileReadBits(file, 3), 5u);
  std::vector<uint8_t> back(data.size());
  ASSERT_EQ(FileRead(file, back.data(), back.size()), back.size());
  EXPECT_EQ(back, data);
  EXPECT_EQ(FileReadLong(file), 0xCAFEF00Du);
  EXPECT_EQ(FileReadBits(file, 2), 2u);
  EXPECT_EQ(FileReadBits(file, 3), 0u) << "the padding";
  FileClose(file);
  const auto bytes = ReadFile(Path("offset"));
  ASSERT_EQ(bytes.size(), 9005u);
  EXPECT_EQ(bytes[0], static_cast<uint8_t>(5 | (data[0] << 3)));
}

TEST_F(BufferedFiles, BitFieldsOfEveryWidthRoundTrip) {
  BufferedFile* file = FileCreate(4096, Path("fields").c_str(), 0);
  ASSERT_NE(file, nullptr);
  std::vector<std::pair<uint32_t, uint32_t>> fields;
  uint32_t seed = 12345;
  for (int i = 0; i < 5000; ++i) {
    seed = seed * 1664525u + 1013904223u;
    const uint32_t count = seed % 32 + 1;
    const uint32_t value = (seed ^ (seed << 7)) & (count == 32 ? ~0u : (1u << count) - 1);
    fields.push_back({value, count});
    FileWriteBits(file, value | (count < 32 ? 0xF0000000u & ~((1u << count) - 1) : 0), count);
  }
  FileFlushBits(file);
  FileSeek(file, 0);
  for (const auto& [value, count] : fields) ASSERT_EQ(FileReadBits(file, count), value);
  FileFlushBits(file);  // in read state, skips to the next whole byte
  EXPECT_TRUE(FileAtEnd(file));
  EXPECT_EQ(FileReadBits(file, 8), 0u) << "past the end reads zeros";
  FileClose(file);
}

// ---------------------------------------------------------------------------------------------
// 64-bit positions

TEST_F(BufferedFiles, PositionsBeyondFourGigabytes) {
  const uint64_t far = (5ull << 30) + 3;
  BufferedFile* file = FileCreate(0, Path("sparse").c_str(), 0);
  ASSERT_NE(file, nullptr);
  FileSeek(file, far);
  FileWriteLong(file, 0x89ABCDEFu);
  const bool written = FileFlush(file, false);
  FileClose(file);
  if (!written || SizeOnDisk(Path("sparse")) != far + 4)
    GTEST_SKIP() << "this file system cannot hold a sparse file of 5 GiB";

  file = FileOpenRead(0, Path("sparse").c_str(), FileModeReadOnly);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(FileSizeOf(file), far + 4);
  FileSeek(file, far - 2);
  EXPECT_EQ(FileReadLong(file), 0xCDEF0000u);
  EXPECT_EQ(FileTell(file), far + 2);
  EXPECT_EQ(FileReadByte(file), 0xABu);
  FileSeek(file, 4096);
  EXPECT_EQ(FileReadLong(file), 0u);
  FileClose(file);
  EXPECT_EQ(FileDelete(Path("sparse").c_str()), 0u);
}

// ---------------------------------------------------------------------------------------------
// Delete and rename

TEST_F(BufferedFiles, DeleteAndRenameReportNotFoundApartFromOtherFailures) {
  Put(Path("one"), {1});
  EXPECT_EQ(FileDelete(Path("missing").c_str()), 1u);
  EXPECT_EQ(FileDelete(Path("missing/below").c_str()), 1u);
  EXPECT_EQ(FileDelete(dir.c_str()), 2u) << "a folder is not deleted as a file";

  EXPECT_EQ(FileRename(Path("two").c_str(), Path("missing").c_str()), 1u);
  EXPECT_EQ(FileRename(Path("no/folder/two").c_str(), Path("one").c_str()), 2u);
  EXPECT_EQ(FileRename(Path("two").c_str(), Path("one").c_str()), 0u);
  EXPECT_EQ(ReadFile(Path("two")), std::vector<uint8_t>{1});
  EXPECT_EQ(FileDelete(Path("one").c_str()), 1u);
  EXPECT_EQ(FileDelete(Path("two").c_str()), 0u);
  EXPECT_EQ(FileDelete(Path("two").c_str()), 1u);

  if (geteuid() != 0) {  // the superuser may delete anywhere
    ASSERT_EQ(mkdir(Path("locked").c_str(), 0755), 0);
    Put(Path("locked/inside"), {2});
    chmod(Path("locked").c_str(), 0555);
    EXPECT_EQ(FileDelete(Path("locked/inside").c_str()), 2u);
    chmod(Path("locked").c_str(), 0755);
  }
}

}  // namespace
