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

TEST(MediaList, LinesAndSeriesWalkToTheirEntries) {
  const std::set<std::string> p123 = {"p1.png", "p2.png", "p3.png", "p5.png"};
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
      {"s??.tga*8-11\n", "", {}, {"s08.tga", "s09.tga", "s10.tga", "s11.tga"}},
      {"s??.tga*3-1\n", "", {}, {"s03.tga", "s02.tga", "s01.tga"}},
      {"s??.tga*10-20 /S3 /E5\n", "", {}, {"s12.tga", "s13.tga", "s14.tga"}},
      {"s??.tga*10-12 /S2 /E50\n", "", {}, {"s11.tga", "s12.tga"}},
      {"s??.tga*10-19 /S-2\n", "", {}, {"s18.tga", "s19.tga"}},
      {"s??.tga*1-2 /L2\n", "", {}, {"s01.tga", "s02.tga", "s01.tga", "s02.tga"}},
      // An open series runs while the files exist.
      {"p?.png\n", "", p123, {"p1.png", "p2.png", "p3.png"}},
      {"p?.png\n", "", {"p0.png", "p1.png", "p5.png"}, {"p0.png", "p1.png"}},
      {"p?.png*2\n", "", p123, {"p2.png", "p3.png"}},
      {"q?.png\n", "", p123, {}},
      {"a?b?.png*99-100\n", "", {}, {"a9b9.png", "a10b0.png"}},  // numbers widen the name
      {"frame%01i.png*8-10\n", "", {}, {"frame8.png", "frame9.png", "frame10.png"}},
      {"odd*name.png\n", "", {}, {"odd*name.png"}},  // a "*" that is no range
      // A line whose passes give nothing is not repeated for ever.
      {"none?.png /L2000000000\n", "", {}, {}},
  };
  for (const Case& c : cases) {
    Files files;
    files.names = c.files;
    EXPECT_EQ(WalkText(c.text, &files, c.folder), c.entries) << c.text;
    if (c.text[0] == 's') {
      EXPECT_EQ(files.probes, 0) << "a closed range does not look at the files";
    }
  }
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
  EXPECT_EQ(Walk(list, &files), (Names{"Exam001.BMP", "Exam002.BMP", "Exam003.BMP"}));
  MediaListFree(list);
}

}  // namespace
