// List files and series as a walk over entry names, against a fake set of files.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "media/media_list.h"
#include "support/files.h"

namespace {

using test_support::FakeExists;
using Files = test_support::FakeFiles;

// The entries a list gives: their names, with "[start,end]" behind those that have a range.
std::vector<std::string> Walk(MediaList* list, Files* files, size_t limit = 100) {
  std::vector<std::string> out;
  MediaListItem item;
  while (out.size() < limit && MediaListNext(list, &item, FakeExists, files)) {
    out.push_back(item.name);
    if (item.start || item.end) out.back() += "[" + std::to_string(item.start) + "," + std::to_string(item.end) + "]";
  }
  return out;
}

std::vector<std::string> WalkText(const std::string& text, Files* files, const char* folder = "") {
  MediaList* list = MediaListParse(text.data(), text.size(), folder);
  std::vector<std::string> out = Walk(list, files);
  MediaListFree(list);
  return out;
}

using Names = std::vector<std::string>;

// s00.tga .. s20.tga
std::set<std::string> AllS() {
  std::set<std::string> names;
  for (int i = 0; i <= 20; ++i) names.insert((i < 10 ? "s0" : "s") + std::to_string(i) + ".tga");
  return names;
}

TEST(MediaList, LinesAndSeriesWalkToTheirEntries) {
  const std::set<std::string> p123 = {"p1.png", "p2.png", "p3.png", "p5.png"};
  const std::set<std::string> s = AllS();
  struct Case {
    std::string text;
    const char* folder;
    std::set<std::string> files;
    Names entries;
  } cases[] = {
      {"# a comment\r\nclip.avi /S5 /E20\n\n\"with blank.png\"\n  other.vlm /E-3  \n#x.png\n", "", {},
       {"clip.avi[5,20]", "with blank.png", "other.vlm[1,-3]"}},
      {"a.png /L3\nb.png\n", "", {}, {"a.png", "a.png", "a.png", "b.png"}},
      {"a.png /L0\n", "", {}, {"a.png"}},
      // Relative names come from the list's folder.
      {"a.png\n/abs/b.png\n", "/lists/", {}, {"/lists/a.png", "/abs/b.png"}},
      {"a.png\n", "/lists", {}, {"/lists/a.png"}},
      // Series with a range up and down; /S and /E count from the series' first number, and the
      // number after "-" caps the end.
      {"s??.tga*8-11\n", "", s, {"s08.tga", "s09.tga", "s10.tga", "s11.tga"}},
      {"s??.tga*3-1\n", "", s, {"s03.tga", "s02.tga", "s01.tga"}},
      {"s??.tga*10-20 /S3 /E5\n", "", s, {"s12.tga", "s13.tga", "s14.tga"}},
      {"s??.tga*10-12 /S2 /E50\n", "", s, {"s11.tga", "s12.tga"}},
      {"s??.tga*10-19 /S-2\n", "", s, {"s18.tga", "s19.tga"}},
      {"s??.tga*1-2 /L2\n", "", s, {"s01.tga", "s02.tga", "s01.tga", "s02.tga"}},
      // An open series runs while the files exist.
      {"p?.png\n", "", p123, {"p1.png", "p2.png", "p3.png"}},
      {"p?.png\n", "", {"p0.png", "p1.png", "p5.png"}, {"p0.png", "p1.png"}},
      {"p?.png*2\n", "", p123, {"p2.png", "p3.png"}},
      {"q?.png\n", "", p123, {}},
      {"a?b?.png*99-100\n", "", {"a9b9.png", "a10b0.png"}, {"a9b9.png", "a10b0.png"}},  // numbers widen the name
      {"frame%01i.png*8-10\n", "", {"frame8.png", "frame9.png", "frame10.png"},
       {"frame8.png", "frame9.png", "frame10.png"}},
      // A closed range passes over the files that are missing.
      {"p?.png*1-6\n", "", p123, {"p1.png", "p2.png", "p3.png", "p5.png"}},
      {"odd*name.png\n", "", {}, {"odd*name.png"}},  // a "*" that is no range
      // A line whose passes give nothing is not repeated for ever.
      {"none?.png /L2000000000\n", "", {}, {}},
  };
  for (const Case& c : cases) {
    Files files;
    files.names = c.files;
    EXPECT_EQ(WalkText(c.text, &files, c.folder), c.entries) << c.text;
  }
}

// Series lines that came up short are noted once each, with their name as written: a closed
// range by how many of its files were found, an open series when none was.
TEST(MediaList, ShortSeriesAreNotedOnce) {
  Files files;
  files.names = {"/l/p1.png", "/l/p2.png", "/l/p4.png", "/l/x.png", "/l/s07.tga"};
  const std::string text =
      "p?.png*1-6 /L2\n"    // 3 of 6
      "x.png\n"
      "q?.png\n"            // open, none
      "s??.tga*7-8\n"       // 1 of 2
      "p?.png*1-2\n"        // complete
      "r?.png*1-3\n";       // none of 3
  MediaList* list = MediaListParse(text.data(), text.size(), "/l");
  EXPECT_EQ(Walk(list, &files), (Names{"/l/p1.png", "/l/p2.png", "/l/p4.png", "/l/p1.png", "/l/p2.png", "/l/p4.png",
                                       "/l/x.png", "/l/s07.tga", "/l/p1.png", "/l/p2.png"}));
  struct Noted {
    std::string series;
    uint32_t found, expected;
    bool operator==(const Noted& o) const { return series == o.series && found == o.found && expected == o.expected; }
  };
  const auto noted = [&] {
    std::vector<Noted> out;
    for (size_t i = 0; i < MediaListShortfallCount(list); ++i) {
      const MediaListShortfall* s = MediaListShortfallAt(list, i);
      out.push_back({s->series, s->found, s->expected});
    }
    return out;
  };
  const std::vector<Noted> want = {
      {"/l/p?.png*1-6", 3, 6}, {"/l/q?.png", 0, 0}, {"/l/s??.tga*7-8", 1, 2}, {"/l/r?.png*1-3", 0, 3}};
  EXPECT_TRUE(noted() == want);
  EXPECT_EQ(MediaListShortfallAt(list, want.size()), nullptr);
  MediaListRewind(list);
  Walk(list, &files);
  EXPECT_EQ(MediaListShortfallCount(list), want.size()) << "a second walk notes nothing again";
  MediaListFree(list);
}

// A vast closed range of missing files ends after a bounded number of looks.
TEST(MediaList, VastMissingRangesEnd) {
  Files files;
  MediaList* list = MediaListFromLine("v?.png*1-2000000000");
  EXPECT_EQ(Walk(list, &files), Names{});
  EXPECT_LE(uint64_t(files.probes), MediaListMaxEntries + 1);
  ASSERT_EQ(MediaListShortfallCount(list), 1u);
  EXPECT_EQ(MediaListShortfallAt(list, 0)->found, 0u);
  MediaListFree(list);
}

TEST(MediaList, HostileRepeatsAndRangesEnd) {
  Files files;
  MediaList* list = MediaListParse("x.png /L2000000000\n", 19, "");
  MediaListItem item;
  uint64_t count = 0;
  while (MediaListNext(list, &item, FakeExists, &files)) ++count;
  EXPECT_EQ(count, MediaListMaxEntries);
  MediaListFree(list);
}

TEST(MediaList, RewindStartsOverAndASingleLineIsASeries) {
  Files files;
  const std::string text = "a.png /L2\nb.png\n";
  MediaList* list = MediaListParse(text.data(), text.size(), "");
  EXPECT_EQ(Walk(list, &files, 2), (Names{"a.png", "a.png"}));
  MediaListRewind(list);
  EXPECT_EQ(Walk(list, &files), (Names{"a.png", "a.png", "b.png"}));
  MediaListFree(list);
  list = MediaListFromLine("Exam???.BMP*1-3");
  files.names = {"Exam001.BMP", "Exam002.BMP", "Exam003.BMP"};
  EXPECT_EQ(Walk(list, &files), (Names{"Exam001.BMP", "Exam002.BMP", "Exam003.BMP"}));
  MediaListFree(list);
}

}  // namespace
