// Switch lines: a tool's orders as one mutable text line of file names and switches.
// Each question removes the switch it answers, so what remains at the end is the file names.
//
// On POSIX a switch is a "/" that starts a word (line start, or after a blank, outside double
// quotes) followed by one letter; a word that starts with "/" and holds a second "/" is a
// path, not a switch, unless the letter is one of "@&*+", whose text may be a path: their
// text runs to the next blank, slashes and all. Letters compare without regard to case; callers pass them upper case.
//
// While a tool reads its line it names its letters with a SwitchLetters scope. A word that
// names no existing file or folder (nor starts with an existing folder's name and a "/") and
// splits cleanly at its slashes into switches of those letters, each with a number or nothing
// behind it, is then read as those switches: "/v200/d5000" is /v200 and /d5000, "out.vlm/L3"
// is out.vlm and /L3. Everything else keeps the rule above.
#pragma once
#include <cstddef>
#include <cstdint>

// The switch letters of the tool reading a line on this thread, for the scope's lifetime
// (`letters` upper case, held by the caller). Scopes nest.
class SwitchLetters {
 public:
  explicit SwitchLetters(const char* letters);
  ~SwitchLetters();
  SwitchLetters(const SwitchLetters&) = delete;
  SwitchLetters& operator=(const SwitchLetters&) = delete;

 private:
  const char* previous_;
};

// First switch `letter` with a number behind it ("-" and a digit counts); "a+b+c" sums.
// Removes it and returns the number, or returns `defaultValue`.
int32_t SwitchNumber(char* line, char letter, int32_t defaultValue);
// The same without removing anything.
int32_t SwitchPeekNumber(const char* line, char letter, int32_t defaultValue);
// 64-bit form, with no "+" sums.
int64_t SwitchNumber64(char* line, char letter, int64_t defaultValue);
// The switch with no number behind it (the next byte is below '0'). Removes it.
bool SwitchFlag(char* line, char letter);
// The switch with text behind it, up to the next blank (or the closing quote of a quoted
// text). Copies it to dest and removes it; returns false and copies `defaultText` when absent.
bool SwitchText(char* line, char letter, char* dest, size_t destSize, const char* defaultText);
// The "#.#" and "#;#" rate forms as a reduced fraction: "29.97" is 2997/100, "30000;1001" is
// 30000/1001, ".5" is 1/2. The switch needs a text behind it; the whole text is removed. A
// text that does not start with a digit, "." or "-" gives 0/1; a leading "-" negates the
// numerator; a zero second number leaves a zero denominator for the caller to reject.
// Returns false when absent (defaults stored).
bool SwitchFraction(char* line, char letter, int32_t* numerator, int32_t* denominator,
                    int32_t defaultNumerator, int32_t defaultDenominator);
// The "/-X" rule: removes "/-X" and every earlier switch X.
void SwitchCancels(char* line);
// True while the line still holds a switch: one that no question took.
bool SwitchesLeft(const char* line);

// ---- Checked values ----
// Each tool keeps one table of the values its number switches take and reads them through it,
// so that every out-of-range value is either held to the range (where the tool's rule is a
// clamp) or refused with a message that names the switch as written and what it takes:
// "/B7: the output bits must be 8 or 16."

// The values one number switch takes: `low` to `high`, and of those only what `accepts` takes
// when it is given. With `clamp`, a value outside the range is held to it instead of refused
// (`accepts` is then not asked).
struct SwitchRule {
  char letter;
  int32_t low, high;
  const char* allowed;  // the message's words behind "/X#: "
  bool (*accepts)(int32_t value) = nullptr;
  bool clamp = false;
};

// The same for a "#.#" rate switch: `accepts` judges the reduced fraction.
struct SwitchFractionRule {
  char letter;
  bool (*accepts)(int32_t numerator, int32_t denominator);
  const char* allowed;
};

// The first refusal met while a switch line is read. Later refusals are dropped: one message
// names one switch.
struct SwitchErrors {
  char text[256] = "";
  bool Failed() const { return text[0] != 0; }
};

// Notes a refusal of the switch `written` as it stood on the line, without its "/" ("M11"),
// unless an earlier one was noted. `errors` may be null.
void SwitchRefuse(SwitchErrors* errors, const char* written, const char* allowed);
// SwitchNumber under `rule`. A refused value is removed from the line like any other, noted
// in `errors`, and gives `defaultValue`; the default itself is not checked.
int32_t SwitchNumberIn(char* line, const SwitchRule& rule, int32_t defaultValue,
                       SwitchErrors* errors);
// The rule of `letter` in a table of `count` rules; null when the table has none.
const SwitchRule* SwitchRuleFor(const SwitchRule* table, size_t count, char letter);
// SwitchNumberIn with the rule that `table` holds for `letter` (plain SwitchNumber without).
template <size_t N>
int32_t SwitchNumberIn(char* line, const SwitchRule (&table)[N], char letter,
                       int32_t defaultValue, SwitchErrors* errors) {
  const SwitchRule* rule = SwitchRuleFor(table, N, letter);
  return rule ? SwitchNumberIn(line, *rule, defaultValue, errors)
              : SwitchNumber(line, letter, defaultValue);
}
// SwitchFraction under `rule`: a refused rate is noted and gives the defaults. Returns true
// when the switch was given and taken.
bool SwitchFractionIn(char* line, const SwitchFractionRule& rule, int32_t* numerator,
                      int32_t* denominator, int32_t defaultNumerator, int32_t defaultDenominator,
                      SwitchErrors* errors);

// Takes the first blank-separated word off `line` into dest (a comma straight behind the
// word's blanks is taken off too, but not copied). Both are trimmed. dest must not overlap line.
void TakeWord(char* dest, size_t destSize, char* line);
// As TakeWord, but a name in double quotes may hold blanks and comes without its quotes.
void TakeName(char* dest, size_t destSize, char* line);
// Cuts bytes at or below a blank from both ends.
void TrimLine(char* line);
// TrimLine, then removes one pair of surrounding double quotes.
void TrimQuotes(char* line);
// Trims, then appends "/" unless empty or already ending in "/".
void EnsureTrailingSlash(char* path, size_t pathSize);
