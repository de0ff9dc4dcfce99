#include "host/switches.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "support/files.h"

namespace {

// A mutable line buffer the size the tools use.
struct Line {
  char text[4096];
  explicit Line(const char* s) { snprintf(text, sizeof text, "%s", s); }
  std::string str() const { return text; }
};

TEST(SwitchNumber, ReadsAndRemovesFirstMatchOnly) {
  Line line("in.avi out.vlm /v200 /d5000 /V210");
  EXPECT_EQ(SwitchNumber(line.text, 'V', -1), 200);
  EXPECT_EQ(line.str(), "in.avi out.vlm  /d5000 /V210");
  EXPECT_EQ(SwitchNumber(line.text, 'V', -1), 210);  // the second one stayed for this question
  EXPECT_EQ(SwitchNumber(line.text, 'V', -1), -1);
  EXPECT_EQ(SwitchNumber(line.text, 'D', 0), 5000);
  EXPECT_EQ(line.str(), "in.avi out.vlm   ");
}

TEST(SwitchNumber, SumsNegativesAndLowerCaseLetters) {
  Line line("/M1+2+4 /x-5 /a3+-1 /b7+ /c+3");
  EXPECT_EQ(SwitchNumber(line.text, 'M', 0), 7);
  EXPECT_EQ(SwitchNumber(line.text, 'X', 0), -5);
  EXPECT_EQ(SwitchNumber(line.text, 'A', 0), 2);
  EXPECT_EQ(SwitchNumber(line.text, 'B', 0), 7);   // a "+" with nothing behind it stays
  EXPECT_EQ(SwitchNumber(line.text, 'C', 99), 99);  // "+3" is not a number
  EXPECT_EQ(line.str(), "   + /c+3");
}

TEST(SwitchNumber, FlagAndNumberAreDistinct) {
  Line line("/L /L3 a.avi");
  EXPECT_EQ(SwitchNumber(line.text, 'L', 0), 3);  // skips the bare /L
  EXPECT_EQ(line.str(), "/L  a.avi");
  EXPECT_EQ(SwitchNumber(line.text, 'L', -7), -7);
  EXPECT_TRUE(SwitchFlag(line.text, 'L'));
  EXPECT_EQ(line.str(), "  a.avi");

  Line second("/L3 /L");
  EXPECT_TRUE(SwitchFlag(second.text, 'l'));  // takes the bare one behind /L3
  EXPECT_EQ(second.str(), "/L3 ");
  EXPECT_FALSE(SwitchFlag(second.text, 'L'));
}

TEST(SwitchNumber, PeekLeavesLine) {
  Line line("a.avi /v210");
  EXPECT_EQ(SwitchPeekNumber(line.text, 'V', -1), 210);
  EXPECT_EQ(line.str(), "a.avi /v210");
  EXPECT_EQ(SwitchPeekNumber(line.text, 'D', -1), -1);
}

TEST(SwitchNumber, SixtyFourBitsWithoutSums) {
  Line line("/s5000000000+1 /t-9000000000");
  EXPECT_EQ(SwitchNumber64(line.text, 'S', 0), 5000000000LL);
  EXPECT_EQ(line.str(), "+1 /t-9000000000");
  EXPECT_EQ(SwitchNumber64(line.text, 'T', 0), -9000000000LL);
}

TEST(SwitchLine, OnlyWordStartsOutsideQuotesAndPathsAreNoSwitches) {
  // "a/v3" is inside a word, the quoted "/v4" is part of a name, and "/v5/x" is a path.
  Line line("a/v3 \"my /v4 file\" /v5/x.avi /home/v6.avi /v7");
  EXPECT_EQ(SwitchNumber(line.text, 'V', -1), 7);
  EXPECT_EQ(SwitchNumber(line.text, 'V', -1), -1);
  EXPECT_EQ(SwitchNumber(line.text, 'H', -1), -1);
  EXPECT_FALSE(SwitchesLeft(line.text));
  Line other("out.vlm /q");
  EXPECT_TRUE(SwitchesLeft(other.text));
}

TEST(SwitchLetters, JoinedSwitchesSplitIntoTheToolsLetters) {
  const SwitchLetters known("VDLO");
  Line line("in.avi /v200/d5000 out.vlm/L3/o");
  EXPECT_EQ(SwitchNumber(line.text, 'V', -1), 200);
  EXPECT_EQ(SwitchNumber(line.text, 'D', -1), 5000);
  EXPECT_EQ(SwitchNumber(line.text, 'L', -1), 3);
  EXPECT_TRUE(SwitchFlag(line.text, 'O'));
  EXPECT_FALSE(SwitchesLeft(line.text));
  char name[64];
  TakeName(name, sizeof name, line.text);
  EXPECT_STREQ(name, "in.avi");
  TakeName(name, sizeof name, line.text);
  EXPECT_STREQ(name, "out.vlm");
  // A joined switch that no question took is left over, as a switch of its own is.
  Line left("out.vlm/v2");
  EXPECT_TRUE(SwitchesLeft(left.text));
}

TEST(SwitchLetters, PathsStayPaths) {
  {
    const SwitchLetters known("VDHO");
    // A letter the tool does not know, a part that is no number, an absolute path.
    Line line("out.vlm/Q9 dir/out.vlm /home/v6.avi");
    EXPECT_EQ(SwitchNumber(line.text, 'V', -1), -1);
    EXPECT_FALSE(SwitchFlag(line.text, 'O'));
    EXPECT_FALSE(SwitchesLeft(line.text));
    EXPECT_EQ(line.str(), "out.vlm/Q9 dir/out.vlm /home/v6.avi");
  }
  // Without a tool's letters the old rule holds: a word with two slashes is a path.
  Line plain("/v200/d5000");
  EXPECT_EQ(SwitchNumber(plain.text, 'V', -1), -1);
  EXPECT_FALSE(SwitchesLeft(plain.text));

  // A word into an existing folder is a path, though its parts would split.
  const test_support::ScratchDir scratch;
  std::filesystem::create_directory(scratch / "v1");
  const std::filesystem::path was = std::filesystem::current_path();
  ASSERT_EQ(chdir(scratch.path.c_str()), 0);
  {
    const SwitchLetters known("VD");
    Line folder("v1/d2 x/d2");
    EXPECT_EQ(SwitchNumber(folder.text, 'D', -1), 2);  // the one in "x/d2": no folder x
    EXPECT_EQ(SwitchNumber(folder.text, 'D', -1), -1);
    EXPECT_EQ(folder.str(), "v1/d2 x");
  }
  std::filesystem::current_path(was);
}

TEST(SwitchFlag, NextByteBelowZeroCounts) {
  Line line("/a, /b. /c+ /d-x /e-5 /f0");
  EXPECT_TRUE(SwitchFlag(line.text, 'A'));
  EXPECT_TRUE(SwitchFlag(line.text, 'B'));
  EXPECT_TRUE(SwitchFlag(line.text, 'C'));
  EXPECT_TRUE(SwitchFlag(line.text, 'D'));
  EXPECT_TRUE(SwitchFlag(line.text, 'E'));  // a "-" ends the letter even before a digit
  EXPECT_FALSE(SwitchFlag(line.text, 'F'));
  EXPECT_EQ(line.str(), ", . + -x -5 /f0");
  // The order of the questions decides: asked as a number first, "/X-5" is -5.
  Line number("/x-5");
  EXPECT_EQ(SwitchNumber(number.text, 'X', 0), -5);
  EXPECT_FALSE(SwitchFlag(number.text, 'X'));
  Line hash("/# /#12345");
  EXPECT_TRUE(SwitchFlag(hash.text, '#'));
  EXPECT_EQ(SwitchNumber(hash.text, '#', 0), 12345);
}

TEST(SwitchText, PlainQuotedAndDefault) {
  char dest[64];
  Line line("/Ohello /P\"a b/c\" /T /Tx rest");
  EXPECT_TRUE(SwitchText(line.text, 'O', dest, sizeof dest, "d"));
  EXPECT_STREQ(dest, "hello");
  EXPECT_TRUE(SwitchText(line.text, 'P', dest, sizeof dest, "d"));
  EXPECT_STREQ(dest, "a b/c");
  EXPECT_TRUE(SwitchText(line.text, 'T', dest, sizeof dest, "d"));  // the bare /T is skipped
  EXPECT_STREQ(dest, "x");
  EXPECT_EQ(line.str(), "  /T  rest");
  EXPECT_FALSE(SwitchText(line.text, 'T', dest, sizeof dest, "fallback"));
  EXPECT_STREQ(dest, "fallback");
  EXPECT_FALSE(SwitchText(line.text, 'Q', dest, sizeof dest, nullptr));
  EXPECT_STREQ(dest, "");
}

TEST(SwitchText, CutsToBufferAndSurvivesOpenQuote) {
  char dest[4];
  Line line("/Oabcdefgh /P\"unclosed text");
  EXPECT_TRUE(SwitchText(line.text, 'O', dest, sizeof dest, ""));
  EXPECT_STREQ(dest, "abc");
  char whole[64];
  EXPECT_TRUE(SwitchText(line.text, 'P', whole, sizeof whole, ""));
  EXPECT_STREQ(whole, "unclosed text");
  EXPECT_EQ(line.str(), " ");
}

struct FractionCase {
  const char* line;
  int32_t numerator, denominator;
};

TEST(SwitchFraction, DecimalAndQuotientForms) {
  const FractionCase cases[] = {
      {"/R29.97", 2997, 100}, {"/R30000;1001", 30000, 1001}, {"/R.5", 1, 2},
      {"/R25", 25, 1},        {"/R-12.5", -25, 2},           {"/R2.5;0.5", 5, 1},
      {"/Rabc", 0, 1},        {"/R0.000", 0, 1},             {"/R59.94;2", 2997, 100},
  };
  for (const FractionCase& c : cases) {
    Line line(c.line);
    int32_t n = 0, d = 0;
    EXPECT_TRUE(SwitchFraction(line.text, 'R', &n, &d, 7, 8)) << c.line;
    EXPECT_EQ(n, c.numerator) << c.line;
    EXPECT_EQ(d, c.denominator) << c.line;
    EXPECT_EQ(line.str(), "") << c.line;
  }
}

TEST(SwitchFraction, AbsentGivesDefaultsAndHugeValuesStayIn32Bits) {
  Line line("/R a.avi");
  int32_t n, d;
  EXPECT_FALSE(SwitchFraction(line.text, 'R', &n, &d, 30, 1));
  EXPECT_EQ(n, 30);
  EXPECT_EQ(d, 1);
  Line huge("/R123456789012345678901234567890");
  EXPECT_TRUE(SwitchFraction(huge.text, 'R', &n, &d, 0, 0));
  EXPECT_EQ(n, INT32_MAX);
  EXPECT_EQ(d, 1);
  Line precise("/R3.14159265358979323846");
  EXPECT_TRUE(SwitchFraction(precise.text, 'R', &n, &d, 0, 0));
  EXPECT_GT(d, 1000);
  EXPECT_NEAR(static_cast<double>(n) / d, 3.14159265358979, 1e-9);
}

// The line after `edit` worked on it.
std::string After(void (*edit)(char*), const char* text) {
  Line line(text);
  edit(line.text);
  return line.str();
}

// "/-L" removes the /L switches before it (and itself); a trailing "/-" cuts the line there.
TEST(SwitchCancels, RemovesEarlierSwitchesOfTheLetterOrTheRestOfTheLine) {
  const struct {
    const char *in, *out;
  } cases[] = {
      {"/L3 a.avi /l /D5 /-L /L4", " a.avi  /D5  /L4"},
      {"/O\"x y\" /-o /P1", "  /P1"},
      {"/A1 /B2 /-A /-B /A3", "    /A3"},
      {"/L3 a.avi /- ", "/L3 a.avi "},
      {"a.avi \"/-L\" /L2", "a.avi \"/-L\" /L2"},
  };
  for (const auto& c : cases) EXPECT_EQ(After(SwitchCancels, c.in), c.out) << c.in;
}

TEST(TakeWord, WordsCommasAndTrimming) {
  char dest[32];
  Line line("  velmoc , in.avi,out.vlm  ");
  TakeWord(dest, sizeof dest, line.text);
  EXPECT_STREQ(dest, "velmoc");
  EXPECT_EQ(line.str(), "in.avi,out.vlm");
  TakeWord(dest, sizeof dest, line.text);
  EXPECT_STREQ(dest, "in.avi,out.vlm");  // a comma inside a word stays in it
  EXPECT_EQ(line.str(), "");
  TakeWord(dest, sizeof dest, line.text);
  EXPECT_STREQ(dest, "");
}

TEST(TakeName, QuotedNamesHoldBlanks) {
  char dest[32];
  Line line("\"a b.avi\" out.vlm");
  TakeName(dest, sizeof dest, line.text);
  EXPECT_STREQ(dest, "a b.avi");
  EXPECT_EQ(line.str(), "out.vlm");
  TakeName(dest, sizeof dest, line.text);
  EXPECT_STREQ(dest, "out.vlm");

  Line open("\"no end here");
  TakeName(dest, sizeof dest, open.text);
  EXPECT_STREQ(dest, "no end here");
  EXPECT_EQ(open.str(), "");

  char small[5];
  Line longName("\"abcdefgh\" , next");
  TakeName(small, sizeof small, longName.text);
  EXPECT_STREQ(small, "abcd");
  EXPECT_EQ(longName.str(), "next");

  Line word("\"a b\" c");  // TakeWord does not know quotes
  TakeWord(dest, sizeof dest, word.text);
  EXPECT_STREQ(dest, "\"a");
}

TEST(TrimLine, BlanksControlsAndQuotes) {
  EXPECT_EQ(After(TrimLine, "\t\r\n  a b \x01 "), "a b");
  EXPECT_EQ(After(TrimLine, "\xe9t\xe9"), "\xe9t\xe9");  // bytes above 127 are not blanks
  EXPECT_EQ(After(TrimQuotes, "  \"x y\"  "), "x y");
  EXPECT_EQ(After(TrimQuotes, "\""), "\"");
  EXPECT_EQ(After(TrimQuotes, "\"abc"), "\"abc");
}

TEST(EnsureTrailingSlash, AddsOnceAndRespectsSize) {
  char path[16] = " /tmp/a ";
  EnsureTrailingSlash(path, sizeof path);
  EXPECT_STREQ(path, "/tmp/a/");
  EnsureTrailingSlash(path, sizeof path);
  EXPECT_STREQ(path, "/tmp/a/");
  char empty[4] = "  ";
  EnsureTrailingSlash(empty, sizeof empty);
  EXPECT_STREQ(empty, "");
  char full[4] = "abc";
  EnsureTrailingSlash(full, sizeof full);  // no room: left as it is
  EXPECT_STREQ(full, "abc");
}

// ---- Checked values ----

bool Even(int32_t v) { return v % 2 == 0; }
const SwitchRule Table[] = {
    {'B', 8, 16, "the bits must be 8 to 16, even", Even},
    {'P', 2, 64, "", nullptr, true},
};

TEST(SwitchNumberIn, TakesValuesInRangeAndNamesTheFirstRefusal) {
  Line line("/b12 /B7 /b-3 /b4294967304 /Q5");  // 2^32 + 8 would wrap to an accepted 8
  SwitchErrors errors;
  EXPECT_EQ(SwitchNumberIn(line.text, Table, 'B', 0, &errors), 12);
  EXPECT_FALSE(errors.Failed());
  // An odd value within the range is turned down by the finer test, and gives the default.
  EXPECT_EQ(SwitchNumberIn(line.text, Table, 'B', 0, &errors), 0);
  EXPECT_STREQ(errors.text, "/B7: the bits must be 8 to 16, even.");
  // Later refusals (below the range, and beyond 32 bits rather than wrapped into it) are
  // removed from the line but keep the first message.
  EXPECT_EQ(SwitchNumberIn(line.text, Table, 'B', 1, &errors), 1);
  EXPECT_EQ(SwitchNumberIn(line.text, Table, 'B', 1, &errors), 1);
  EXPECT_STREQ(errors.text, "/B7: the bits must be 8 to 16, even.");
  // A letter the table does not hold is a plain number.
  EXPECT_EQ(SwitchNumberIn(line.text, Table, 'Q', 0, &errors), 5);
  EXPECT_FALSE(SwitchesLeft(line.text));
}

TEST(SwitchNumberIn, ClampRulesHoldTheValueWithoutAWord) {
  Line line("/p1000 /p1 /p-7 /p30");
  SwitchErrors errors;
  EXPECT_EQ(SwitchNumberIn(line.text, Table, 'P', 8, &errors), 64);
  EXPECT_EQ(SwitchNumberIn(line.text, Table, 'P', 8, &errors), 2);
  EXPECT_EQ(SwitchNumberIn(line.text, Table, 'P', 8, &errors), 2);
  EXPECT_EQ(SwitchNumberIn(line.text, Table, 'P', 8, &errors), 30);
  EXPECT_EQ(SwitchNumberIn(line.text, Table, 'P', 8, &errors), 8);  // absent: the default
  EXPECT_FALSE(errors.Failed());
}

bool AboveZero(int32_t n, int32_t d) { return n > 0 && d > 0; }

TEST(SwitchFractionIn, RefusesWithTheTextAsWritten) {
  const SwitchFractionRule rate = {'F', AboveZero, "the rate must be above 0"};
  Line line("/f29.97 /F0 /f30;0 in");
  SwitchErrors errors;
  int32_t n = 0, d = 0;
  EXPECT_TRUE(SwitchFractionIn(line.text, rate, &n, &d, -1, -1, &errors));
  EXPECT_EQ(n, 2997);
  EXPECT_EQ(d, 100);
  EXPECT_FALSE(SwitchFractionIn(line.text, rate, &n, &d, -1, -1, &errors));
  EXPECT_EQ(n, -1);
  EXPECT_EQ(d, -1);
  EXPECT_STREQ(errors.text, "/F0: the rate must be above 0.");
  SwitchErrors second;
  EXPECT_FALSE(SwitchFractionIn(line.text, rate, &n, &d, 0, 0, &second));  // a zero divisor
  EXPECT_STREQ(second.text, "/f30;0: the rate must be above 0.");
  EXPECT_FALSE(SwitchFractionIn(line.text, rate, &n, &d, 0, 0, &second));  // absent
  EXPECT_EQ(line.str(), "   in");
  SwitchRefuse(nullptr, "X1", "nothing");  // no record: nothing happens
}

// The switches that take a file name or a text keep a path behind them whole; other words
// with a second "/" stay paths.
TEST(SwitchText, FileNameSwitchesTakePaths) {
  char dest[64];
  Line line("/@/tmp/hints.txt /&pal/x.bmp /v5/x.avi /*made/by/me /ab/c");
  EXPECT_TRUE(SwitchText(line.text, '@', dest, sizeof dest, ""));
  EXPECT_STREQ(dest, "/tmp/hints.txt");
  EXPECT_TRUE(SwitchText(line.text, '&', dest, sizeof dest, ""));
  EXPECT_STREQ(dest, "pal/x.bmp");
  EXPECT_TRUE(SwitchText(line.text, '*', dest, sizeof dest, ""));
  EXPECT_STREQ(dest, "made/by/me");
  EXPECT_FALSE(SwitchText(line.text, 'A', dest, sizeof dest, ""));  // "/ab/c" is a path
  EXPECT_EQ(SwitchNumber(line.text, 'V', -1), -1);
  EXPECT_FALSE(SwitchesLeft(line.text));
}

}  // namespace
