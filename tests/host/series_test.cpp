#include "host/series.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

namespace {

// A fake directory: the names it holds, and how many probes were made.
struct FakeFiles {
  std::set<std::string> names;
  int probes = 0;
};

bool FakeExists(const char* path, void* context) {
  auto* files = static_cast<FakeFiles*>(context);
  ++files->probes;
  return files->names.count(path) != 0;
}

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

TEST(SeriesParse, SplitsPatternAndRange) {
  FileSeries s;
  ASSERT_TRUE(SeriesParse("Exam???.BMP*1-149", &s));
  EXPECT_STREQ(s.pattern, "Exam???.BMP");
  EXPECT_EQ(s.first, 1);
  EXPECT_EQ(s.last, 149);
  ASSERT_TRUE(SeriesParse("/a*b/f%03i.png*0-7 ", &s));  // the last "*" counts
  EXPECT_STREQ(s.pattern, "/a*b/f%03i.png");
  EXPECT_EQ(s.last, 7);
}

TEST(SeriesParse, RejectsMalformedSpecs) {
  FileSeries s;
  for (const char* bad : {"Exam???.BMP", "Exam???.BMP*", "Exam???.BMP*1", "Exam???.BMP*1-",
                          "Exam???.BMP*5-4", "Exam???.BMP*1-2x", "Exam.BMP*1-3", "x?*-1-3",
                          "x?*1-99999999999"}) {
    EXPECT_FALSE(SeriesParse(bad, &s)) << bad;
  }
}

TEST(SeriesName, PlacesFillFromTheRightAndGrow) {
  EXPECT_EQ(NameOf("Exam???.BMP", 1), "Exam001.BMP");
  EXPECT_EQ(NameOf("Exam???.BMP", 149), "Exam149.BMP");
  EXPECT_EQ(NameOf("Exam???.BMP", 1234), "Exam1234.BMP");
  EXPECT_EQ(NameOf("shot?_????.tga", 20041), "shot2_0041.tga");
  EXPECT_EQ(NameOf("shot?_????.tga", 7), "shot0_0007.tga");
  EXPECT_EQ(NameOf("50%.png?", 3), "50%.png3");  // "%" is plain text in the "?" form
  EXPECT_EQ(NameOf("Exam???.BMP", -1), "<none>");
  EXPECT_EQ(NameOf("plain.bmp", 1), "<none>");
}

TEST(SeriesName, PrintfFieldForm) {
  EXPECT_EQ(NameOf("frame%01i.png", 8), "frame8.png");
  EXPECT_EQ(NameOf("frame%01i.png", 12), "frame12.png");
  EXPECT_EQ(NameOf("f%04d", 12), "f0012");
  EXPECT_EQ(NameOf("100%%_%i.png", 5), "100%_5.png");
  EXPECT_EQ(NameOf("%x.png", 5), "<none>");
  char small[6];
  EXPECT_FALSE(SeriesName(small, sizeof small, "Exam???.BMP", 1));
  EXPECT_STREQ(small, "Exam0");
}

TEST(FindSequence, ThreeExamFilesFormASeries) {
  FakeFiles files = Numbered("Exam%03d.bmp", 1, 3);
  const Found f = Find("Exam001.bmp", files);
  ASSERT_TRUE(f.ok);
  EXPECT_EQ(f.series, "Exam???.bmp*1-3");
  EXPECT_EQ(f.first, 1);
  EXPECT_EQ(f.last, 3);
  const Found middle = Find("Exam002.bmp", files);  // searching down and up
  EXPECT_EQ(middle.series, "Exam???.bmp*1-3");
}

TEST(FindSequence, LoneFileOrNoDigitsIsNoSeries) {
  FakeFiles files = Numbered("Exam%03d.bmp", 1, 3);
  files.names.insert("Exam004x.bmp");
  Found f = Find("Exam007.bmp", files);
  EXPECT_FALSE(f.ok);
  EXPECT_EQ(f.series, "");
  EXPECT_FALSE(Find("Exam.bmp", files).ok);
  EXPECT_FALSE(Find("", files).ok);
  EXPECT_FALSE(Find("Exam?01.bmp", files).ok);
}

TEST(FindSequence, DownSearchStopsAtZero) {
  FakeFiles files = Numbered("f%02d.png", 0, 5);
  const Found f = Find("f03.png", files);
  EXPECT_EQ(f.series, "f??.png*0-5");
}

TEST(FindSequence, DigitsAcrossASeparatorReadAsOneNumber) {
  // "shot2_0041" reads as 20041 over the places "shot?_????"; the places that agree between
  // first and last are then written back as digits.
  FakeFiles files = Numbered("shot2_%04d.tga", 40, 45);
  const Found f = Find("shot2_0041.tga", files);
  ASSERT_TRUE(f.ok);
  EXPECT_EQ(f.series, "shot2_004?.tga*0-5");
  EXPECT_EQ(NameOf("shot2_004?.tga", 5), "shot2_0045.tga");

  FakeFiles take = Numbered("take7_%d.wav", 1, 4);
  EXPECT_EQ(Find("take7_2.wav", take).series, "take7_?.wav*1-4");
}

TEST(FindSequence, FallsBackToFewerDigits) {
  // As one number "v2_9" is 29, whose neighbours v2_8 and v3_0 do not exist; the last digit
  // alone finds v2_9 and v2_10.
  FakeFiles files;
  files.names = {"v2_9.png", "v2_10.png"};
  const Found f = Find("v2_9.png", files);
  ASSERT_TRUE(f.ok);
  EXPECT_EQ(f.series, "v2_?.png*9-10");
}

TEST(FindSequence, CommonLeadingDigitsAreWrittenBack) {
  FakeFiles files = Numbered("img%05d.tga", 20041, 20050);
  const Found f = Find("img20045.tga", files);
  ASSERT_TRUE(f.ok);
  EXPECT_EQ(f.series, "img200??.tga*41-50");
  FileSeries s;
  ASSERT_TRUE(SeriesParse(f.series.c_str(), &s));
  for (int32_t n = s.first; n <= s.last; ++n) EXPECT_TRUE(files.names.count(NameOf(s.pattern, n))) << n;
}

TEST(FindSequence, NamesWithoutLeadingZerosUseAPrintfField) {
  FakeFiles files = Numbered("frame%d.png", 8, 12);
  const Found f = Find("frame10.png", files);
  ASSERT_TRUE(f.ok);
  EXPECT_EQ(f.series, "frame%01i.png*8-12");
  FileSeries s;
  ASSERT_TRUE(SeriesParse(f.series.c_str(), &s));
  for (int32_t n = s.first; n <= s.last; ++n) EXPECT_TRUE(files.names.count(NameOf(s.pattern, n))) << n;

  // Zero-padded neighbours win over the unpadded reading when they make the longer series.
  FakeFiles padded = Numbered("f%02d.png", 0, 20);
  EXPECT_EQ(Find("f10.png", padded).series, "f??.png*0-20");

  // A percent sign in the name is escaped in the printf form.
  FakeFiles percent = Numbered("x%%_%d.png", 9, 11);
  const Found p = Find("x%_10.png", percent);
  EXPECT_EQ(p.series, "x%%_%01i.png*9-11");
  EXPECT_EQ(NameOf("x%%_%01i.png", 9), "x%_9.png");
}

TEST(FindSequence, OnlyTheLastPathComponentCounts) {
  FakeFiles files = Numbered("/data/u2/Exam%03d.bmp", 1, 3);
  EXPECT_EQ(Find("/data/u2/Exam002.bmp", files).series, "/data/u2/Exam???.bmp*1-3");
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

TEST(FindSequence, DestTooSmallGivesNoSeries) {
  FakeFiles files = Numbered("Exam%03d.bmp", 1, 3);
  char dest[8];
  int32_t first = -1, last = -1;
  EXPECT_FALSE(FindSequenceWith(dest, sizeof dest, &first, &last, "Exam001.bmp", FakeExists, &files));
  EXPECT_STREQ(dest, "");
  EXPECT_EQ(first, -1);
}

TEST(FindSequence, RealFilesInATemporaryFolder) {
  char dir[] = "/tmp/orn_series_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string base = dir;
  for (int i = 1; i <= 3; ++i) {
    char name[512];
    snprintf(name, sizeof name, "%s/Exam%03d.bmp", dir, i);
    FILE* f = fopen(name, "wb");
    ASSERT_NE(f, nullptr);
    fclose(f);
  }
  char sub[512];
  snprintf(sub, sizeof sub, "%s/Exam004.bmp", dir);  // a folder is no member
  ASSERT_EQ(mkdir(sub, 0700), 0);

  char dest[1024];
  int32_t first, last;
  ASSERT_TRUE(FindSequence(dest, sizeof dest, &first, &last, (base + "/Exam002.bmp").c_str()));
  EXPECT_EQ(std::string(dest), base + "/Exam???.bmp*1-3");
  EXPECT_FALSE(FindSequence(dest, sizeof dest, &first, &last, (base + "/Other001.bmp").c_str()));

  for (int i = 1; i <= 3; ++i) {
    char name[512];
    snprintf(name, sizeof name, "%s/Exam%03d.bmp", dir, i);
    unlink(name);
  }
  rmdir(sub);
  rmdir(dir);
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

}  // namespace
