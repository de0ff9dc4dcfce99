#include "host/series.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "support/files.h"

namespace {

using test_support::FakeExists;
using test_support::FakeFiles;

FakeFiles Numbered(const char* format, int first, int last) {
  FakeFiles files;
  char name[256];
  for (int i = first; i <= last; ++i) {
    snprintf(name, sizeof name, format, i);
    files.names.insert(name);
  }
  return files;
}

struct Found {
  bool ok;
  std::string series;
  int32_t first, last;
};

Found Find(const char* name, FakeFiles& files) {
  char dest[512];
  Found f{false, "", -1, -1};
  f.ok = FindSequenceWith(dest, sizeof dest, &f.first, &f.last, name, FakeExists, &files);
  f.series = dest;
  return f;
}

std::string NameOf(const char* pattern, int32_t n) {
  char dest[256];
  return SeriesName(dest, sizeof dest, pattern, n) ? dest : "<none>";
}

TEST(SeriesParse, SplitsPatternAndRangeAndRejectsMalformedSpecs) {
  FileSeries s;
  ASSERT_TRUE(SeriesParse("Exam???.BMP*1-149", &s));
  EXPECT_STREQ(s.pattern, "Exam???.BMP");
  EXPECT_EQ(s.first, 1);
  EXPECT_EQ(s.last, 149);
  ASSERT_TRUE(SeriesParse("/a*b/f%03i.png*0-7 ", &s));  // the last "*" counts
  EXPECT_STREQ(s.pattern, "/a*b/f%03i.png");
  EXPECT_EQ(s.last, 7);
  for (const char* bad : {"Exam???.BMP", "Exam???.BMP*", "Exam???.BMP*1", "Exam???.BMP*1-",
                          "Exam???.BMP*5-4", "Exam???.BMP*1-2x", "Exam.BMP*1-3", "x?*-1-3",
                          "x?*1-99999999999"}) {
    EXPECT_FALSE(SeriesParse(bad, &s)) << bad;
  }
}

TEST(SeriesName, PlacesFillFromTheRightAndGrowOrTakeAPrintfField) {
  EXPECT_EQ(NameOf("Exam???.BMP", 1), "Exam001.BMP");
  EXPECT_EQ(NameOf("Exam???.BMP", 149), "Exam149.BMP");
  EXPECT_EQ(NameOf("Exam???.BMP", 1234), "Exam1234.BMP");
  EXPECT_EQ(NameOf("shot?_????.tga", 20041), "shot2_0041.tga");
  EXPECT_EQ(NameOf("shot?_????.tga", 7), "shot0_0007.tga");
  EXPECT_EQ(NameOf("50%.png?", 3), "50%.png3");  // "%" is plain text in the "?" form
  EXPECT_EQ(NameOf("Exam???.BMP", -1), "<none>");
  EXPECT_EQ(NameOf("plain.bmp", 1), "<none>");
  // The printf field form.
  EXPECT_EQ(NameOf("frame%01i.png", 8), "frame8.png");
  EXPECT_EQ(NameOf("frame%01i.png", 12), "frame12.png");
  EXPECT_EQ(NameOf("f%04d", 12), "f0012");
  EXPECT_EQ(NameOf("100%%_%i.png", 5), "100%_5.png");
  EXPECT_EQ(NameOf("%x.png", 5), "<none>");
  char small[6];
  EXPECT_FALSE(SeriesName(small, sizeof small, "Exam???.BMP", 1));
  EXPECT_STREQ(small, "Exam0");
}

// Files numbered by `format` from `first` to `last`; the series found from `name` must be
// `series`, and every name it stands for must be one of the files.
TEST(FindSequence, SeriesFoundFromOneMember) {
  const struct {
    const char* format;
    int first, last;
    const char* name;
    const char* series;
  } cases[] = {
      {"Exam%03d.bmp", 1, 3, "Exam001.bmp", "Exam???.bmp*1-3"},
      {"Exam%03d.bmp", 1, 3, "Exam002.bmp", "Exam???.bmp*1-3"},  // searching down and up
      {"f%02d.png", 0, 5, "f03.png", "f??.png*0-5"},               // down stops at zero
      {"/data/u2/Exam%03d.bmp", 1, 3, "/data/u2/Exam002.bmp", "/data/u2/Exam???.bmp*1-3"},
      // "shot2_0041" reads as 20041 over the places "shot?_????"; the places that agree
      // between first and last are then written back as digits.
      {"shot2_%04d.tga", 40, 45, "shot2_0041.tga", "shot2_004?.tga*0-5"},
      {"take7_%d.wav", 1, 4, "take7_2.wav", "take7_?.wav*1-4"},
      {"img%05d.tga", 20041, 20050, "img20045.tga", "img200??.tga*41-50"},
      // Names without leading zeros use a printf field, with a percent sign escaped...
      {"frame%d.png", 8, 12, "frame10.png", "frame%01i.png*8-12"},
      {"x%%_%d.png", 9, 11, "x%_10.png", "x%%_%01i.png*9-11"},
      // ...but zero-padded neighbours win when they make the longer series.
      {"f%02d.png", 0, 20, "f10.png", "f??.png*0-20"},
      // As one number "v2_9" is 29, whose neighbours v2_8 and v3_0 do not exist; the last
      // digit alone finds v2_9 and v2_10.
      {"v2_%d.png", 9, 10, "v2_9.png", "v2_?.png*9-10"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeFiles files = Numbered(c.format, c.first, c.last);
    const Found f = Find(c.name, files);
    ASSERT_TRUE(f.ok);
    EXPECT_EQ(f.series, c.series);
    FileSeries s;
    ASSERT_TRUE(SeriesParse(f.series.c_str(), &s));
    EXPECT_EQ(f.first, s.first);
    EXPECT_EQ(f.last, s.last);
    for (int32_t n = s.first; n <= s.last; ++n) EXPECT_TRUE(files.names.count(NameOf(s.pattern, n))) << n;
  }
}

TEST(FindSequence, LoneFileNoDigitsOrNoRoomIsNoSeries) {
  FakeFiles files = Numbered("Exam%03d.bmp", 1, 3);
  files.names.insert("Exam004x.bmp");
  Found f = Find("Exam007.bmp", files);
  EXPECT_FALSE(f.ok);
  EXPECT_EQ(f.series, "");
  EXPECT_FALSE(Find("Exam.bmp", files).ok);
  EXPECT_FALSE(Find("", files).ok);
  EXPECT_FALSE(Find("Exam?01.bmp", files).ok);
  // A series whose name does not fit the room given is none either.
  char dest[8];
  int32_t first = -1, last = -1;
  EXPECT_FALSE(FindSequenceWith(dest, sizeof dest, &first, &last, "Exam001.bmp", FakeExists, &files));
  EXPECT_STREQ(dest, "");
  EXPECT_EQ(first, -1);
}

TEST(FindSequence, ProbesAreBoundedWhenEverythingExists) {
  struct Always {
    static bool Exists(const char*, void* count) {
      ++*static_cast<long*>(count);
      return true;
    }
  };
  long probes = 0;
  char dest[256];
  int32_t first, last;
  ASSERT_TRUE(FindSequenceWith(dest, sizeof dest, &first, &last, "a5.png", Always::Exists, &probes));
  EXPECT_EQ(first, 0);
  EXPECT_EQ(last, 1000005);
  EXPECT_LE(probes, 1000010);
}

TEST(FindSequence, RealFilesInATemporaryFolder) {
  const test_support::ScratchDir dir;
  for (const char* name : {"Exam001.bmp", "Exam002.bmp", "Exam003.bmp"})
    test_support::WriteText(dir / name, "");
  ASSERT_EQ(mkdir((dir / "Exam004.bmp").c_str(), 0700), 0);  // a folder is no member
  char dest[1024];
  int32_t first, last;
  ASSERT_TRUE(FindSequence(dest, sizeof dest, &first, &last, (dir / "Exam002.bmp").c_str()));
  EXPECT_EQ(std::string(dest), dir / "Exam???.bmp*1-3");
  EXPECT_FALSE(FindSequence(dest, sizeof dest, &first, &last, (dir / "Other001.bmp").c_str()));
}

// A folder's series: the first name in name order that has neighbours; names without digits,
// lone numbered files and sub-folders are passed over.
TEST(FindFolderSequence, TheFirstSeriesInNameOrder) {
  const test_support::ScratchDir dir;
  ASSERT_EQ(mkdir((dir / "shots").c_str(), 0700), 0);
  ASSERT_EQ(mkdir((dir / "shots/a1").c_str(), 0700), 0);
  ASSERT_EQ(mkdir((dir / "shots/a2").c_str(), 0700), 0);
  for (const char* name : {"README", "b5.txt", "shot_0007.tga", "shot_0008.tga", "shot_0009.tga", "x1.png", "x2.png"})
    test_support::WriteText(dir / ("shots/" + std::string(name)), "");
  char dest[1024];
  EXPECT_TRUE(IsFolder((dir / "shots").c_str()));
  EXPECT_FALSE(IsFolder((dir / "shots/b5.txt").c_str()));
  for (const std::string& folder : {dir / "shots", dir / "shots/"}) {
    ASSERT_TRUE(FindFolderSequence(dest, sizeof dest, folder.c_str())) << folder;
    EXPECT_EQ(std::string(dest), dir / "shots/shot_????.tga*7-9");
  }
  ASSERT_EQ(mkdir((dir / "lone").c_str(), 0700), 0);
  test_support::WriteText(dir / "lone/take1.png", "");
  EXPECT_FALSE(FindFolderSequence(dest, sizeof dest, (dir / "lone").c_str()));
  EXPECT_STREQ(dest, "");
  EXPECT_FALSE(FindFolderSequence(dest, sizeof dest, (dir / "missing").c_str()));
}

TEST(SequencePrompt, Text) {
  char text[512];
  const size_t n = SequencePromptText(text, sizeof text, "Exam001.bmp", 1, 3);
  EXPECT_STREQ(text,
               "File, \"Exam001.bmp\", appears to be part of a sequence of files (1 to 3).\n"
               "Do you want to treat the sequence as a single animation?");
  EXPECT_EQ(n, strlen(text));
  EXPECT_STREQ(SequencePromptTitle, "Treat as sequence?");
}

// Whoever shows questions tells the prompt from the others by its text alone.
TEST(SequencePrompt, IsToldFromOtherQuestions) {
  char text[512];
  SequencePromptText(text, sizeof text, "a b/shot2_0041.tga", 7, 12000);
  EXPECT_TRUE(IsSequencePrompt(text));
  const std::string whole = text;
  EXPECT_FALSE(IsSequencePrompt(whole.substr(0, whole.size() - 1).c_str()));  // cut short
  EXPECT_FALSE(IsSequencePrompt(("x" + whole).c_str()));
  EXPECT_FALSE(IsSequencePrompt("File, \"x\" exists, overwrite?"));
  EXPECT_FALSE(IsSequencePrompt("File x.avi exists, overwrite?"));
  EXPECT_FALSE(IsSequencePrompt(""));
  EXPECT_FALSE(IsSequencePrompt(nullptr));
}

}  // namespace
