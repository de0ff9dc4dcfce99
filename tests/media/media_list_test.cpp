// List files and series as a walk over entry names, against a fake set of files.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "media/media_list.h"

namespace {

struct Files {
  std::set<std::string> names;
  int probes = 0;
};

bool FakeExists(const char* path, void* context) {
  Files* files = static_cast<Files*>(context);
  ++files->probes;
  return files->names.count(path) != 0;
}

struct Entry {
  std::string name;
  int32_t start, end;
  bool operator==(const Entry& o) const { return name == o.name && start == o.start && end == o.end; }
};

std::ostream& operator<<(std::ostream& os, const Entry& e) {
  return os << e.name << "[" << e.start << "," << e.end << "]";
}

std::vector<Entry> Walk(MediaList* list, Files* files, size_t limit = 100) {
  std::vector<Entry> out;
  MediaListItem item;
  while (out.size() < limit && MediaListNext(list, &item, FakeExists, files))
    out.push_back({item.name, item.start, item.end});
  return out;
}

std::vector<Entry> WalkText(const std::string& text, Files* files, const char* folder = "") {
  MediaList* list = MediaListParse(text.data(), text.size(), folder);
  std::vector<Entry> out = Walk(list, files);
  MediaListFree(list);
  return out;
}

std::vector<Entry> Names(std::initializer_list<const char*> names) {
  std::vector<Entry> out;
  for (const char* n : names) out.push_back({n, 0, 0});
  return out;
}

TEST(MediaList, LinesCommentsRangesAndQuotes) {
  Files files;
  const auto entries = WalkText(
      "# a comment\r\nclip.avi /S5 /E20\n\n\"with blank.png\"\n  other.vlm /E-3  \n#x.png\n", &files);
  const std::vector<Entry> expected = {
      {"clip.avi", 5, 20}, {"with blank.png", 0, 0}, {"other.vlm", 1, -3}};
  EXPECT_EQ(entries, expected);
}

TEST(MediaList, RepeatGivesALineBackAgain) {
  Files files;
  EXPECT_EQ(WalkText("a.png /L3\nb.png\n", &files), Names({"a.png", "a.png", "a.png", "b.png"}));
  EXPECT_EQ(WalkText("a.png /L0\n", &files), Names({"a.png"}));
}

TEST(MediaList, RelativeNamesComeFromTheListFolder) {
  Files files;
  EXPECT_EQ(WalkText("a.png\n/abs/b.png\n", &files, "/lists/"), Names({"/lists/a.png", "/abs/b.png"}));
  EXPECT_EQ(WalkText("a.png\n", &files, "/lists"), Names({"/lists/a.png"}));
}

TEST(MediaList, SeriesWithRangeUpAndDown) {
  Files files;
  EXPECT_EQ(WalkText("s??.tga*8-11\n", &files), Names({"s08.tga", "s09.tga", "s10.tga", "s11.tga"}));
  EXPECT_EQ(WalkText("s??.tga*3-1\n", &files), Names({"s03.tga", "s02.tga", "s01.tga"}));
  EXPECT_EQ(files.probes, 0);  // a closed range does not look at the files
}

TEST(MediaList, SeriesLineRangePicksWithinTheSeries) {
  Files files;
  // /S and /E count from the series' first number; the number after "-" caps the end.
  EXPECT_EQ(WalkText("s??.tga*10-20 /S3 /E5\n", &files), Names({"s12.tga", "s13.tga", "s14.tga"}));
  EXPECT_EQ(WalkText("s??.tga*10-12 /S2 /E50\n", &files), Names({"s11.tga", "s12.tga"}));
  EXPECT_EQ(WalkText("s??.tga*10-19 /S-2\n", &files), Names({"s18.tga", "s19.tga"}));
  EXPECT_EQ(WalkText("s??.tga*1-2 /L2\n", &files), Names({"s01.tga", "s02.tga", "s01.tga", "s02.tga"}));
}

TEST(MediaList, OpenSeriesRunsWhileTheFilesExist) {
  Files files;
  files.names = {"p1.png", "p2.png", "p3.png", "p5.png"};
  EXPECT_EQ(WalkText("p?.png\n", &files), Names({"p1.png", "p2.png", "p3.png"}));
  files.names.insert("p0.png");
  EXPECT_EQ(WalkText("p?.png\n", &files), Names({"p0.png", "p1.png", "p2.png", "p3.png"}));
  EXPECT_EQ(WalkText("p?.png*2\n", &files), Names({"p2.png", "p3.png"}));
  EXPECT_EQ(WalkText("q?.png\n", &files), Names({}));
}

TEST(MediaList, NumbersBeyondThePlacesWidenTheName) {
  Files files;
  EXPECT_EQ(WalkText("a?b?.png*99-100\n", &files), Names({"a9b9.png", "a10b0.png"}));
}

TEST(MediaList, PrintfSeriesForm) {
  Files files;
  EXPECT_EQ(WalkText("frame%01i.png*8-10\n", &files), Names({"frame8.png", "frame9.png", "frame10.png"}));
  // A "*" that is no range belongs to the name.
  EXPECT_EQ(WalkText("odd*name.png\n", &files), Names({"odd*name.png"}));
}

TEST(MediaList, HostileRepeatsAndRangesEnd) {
  Files files;
  MediaList* list = MediaListParse("x.png /L2000000000\n", 19, "");
  MediaListItem item;
  uint64_t count = 0;
  while (MediaListNext(list, &item, FakeExists, &files)) ++count;
  EXPECT_EQ(count, MediaListMaxEntries);
  MediaListFree(list);
  // A line whose passes give nothing is not repeated for ever.
  EXPECT_EQ(WalkText("none?.png /L2000000000\n", &files), Names({}));
}

TEST(MediaList, RewindStartsOver) {
  Files files;
  const std::string text = "a.png /L2\nb.png\n";
  MediaList* list = MediaListParse(text.data(), text.size(), "");
  EXPECT_EQ(Walk(list, &files, 2), Names({"a.png", "a.png"}));
  MediaListRewind(list);
  EXPECT_EQ(Walk(list, &files), Names({"a.png", "a.png", "b.png"}));
  MediaListFree(list);
}

TEST(MediaList, SingleLineSeries) {
  Files files;
  MediaList* list = MediaListFromLine("Exam???.BMP*1-3");
  EXPECT_EQ(Walk(list, &files), Names({"Exam001.BMP", "Exam002.BMP", "Exam003.BMP"}));
  MediaListFree(list);
}

}  // namespace
