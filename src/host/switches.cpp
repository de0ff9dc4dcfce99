#include "host/switches.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "host/textformat.h"

namespace {

constexpr size_t NotFound = static_cast<size_t>(-1);

bool IsBlank(char c) { return static_cast<unsigned char>(c) <= ' '; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
char Upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }
bool SameLetter(char a, char b) { return Upper(a) == Upper(b); }

// A word that starts with "/" and holds a second "/" outside quotes is a path, unless its
// letter is one of the switches that take a file name or a text ("/@", "/&", "/*", "/+"):
// their text may be a path of its own.
bool TakesPath(char letter) { return letter && strchr("@&*+", letter) != nullptr; }

bool IsPathWord(const char* word) {
  if (TakesPath(word[1])) return false;
  bool quoted = false;
  for (size_t i = 1; word[i] && (quoted || !IsBlank(word[i])); ++i) {
    if (word[i] == '"') quoted = !quoted;
    else if (word[i] == '/' && !quoted) return true;
  }
  return false;
}

// The letters of the tool whose line this thread is reading (see SwitchLetters).
thread_local const char* t_knownLetters = nullptr;

bool KnownLetter(char c) {
  return t_knownLetters && c && strchr(t_knownLetters, Upper(c)) != nullptr;
}

// A value that splits cleanly: nothing (a flag) or the bytes of a number, sum or fraction.
bool NumberText(const std::string& text) {
  return text.find_first_not_of("0123456789+-.;") == std::string::npos;
}

bool Exists(const std::string& path, bool folderOnly) {
  struct stat info;
  return !path.empty() && stat(path.c_str(), &info) == 0 && (!folderOnly || S_ISDIR(info.st_mode));
}

// Whether the word holds switches joined to each other or to a name ("/v200/d5000",
// "out.vlm/L3"): it names nothing that exists, its head before the first "/" is no folder,
// and every part behind a "/" is a known letter with a number or nothing behind it.
bool IsJoinedWord(const std::string& word) {
  const size_t first = word.find('/');
  if (first == std::string::npos || word.find('"') != std::string::npos) return false;
  for (size_t at = first; at != std::string::npos;) {
    const size_t next = word.find('/', at + 1);
    const std::string part = word.substr(at + 1, next == std::string::npos ? next : next - at - 1);
    if (part.empty() || !KnownLetter(part[0]) || !NumberText(part.substr(1))) return false;
    at = next;
  }
  return !Exists(word, false) && !Exists(word.substr(0, first), true);
}

// Whether the "/" at `at` lies in a word of joined switches.
bool InJoinedWord(const char* line, size_t at) {
  if (!t_knownLetters) return false;
  size_t start = at, end = at;
  while (start > 0 && !IsBlank(line[start - 1])) --start;
  while (!IsBlank(line[end])) ++end;
  return IsJoinedWord(std::string(line + start, end - start));
}

// Index one past the end of the word at `at`: the next blank outside double quotes.
size_t WordEnd(const char* line, size_t at) {
  bool quoted = false;
  size_t i = at;
  for (; line[i] && (quoted || !IsBlank(line[i])); ++i)
    if (line[i] == '"') quoted = !quoted;
  return i;
}

// Walks the switches of a line left to right: each "/" that starts a word outside quotes and
// is followed by a character above blank, unless the word is a path.
struct SwitchScan {
  const char* line;
  size_t pos = 0;
  bool quoted = false;

  explicit SwitchScan(const char* text) : line(text) {}

  size_t Next() {
    for (; line[pos]; ++pos) {
      const char c = line[pos];
      if (c == '"') {
        quoted = !quoted;
        continue;
      }
      if (c != '/' || quoted || IsBlank(line[pos + 1])) continue;
      const bool wordStart = pos == 0 || IsBlank(line[pos - 1]);
      if ((wordStart && !IsPathWord(line + pos)) || InJoinedWord(line, pos)) return pos++;
    }
    return NotFound;
  }
};

// Cuts `count` bytes at `at` out of the line, closing the gap.
void Cut(char* line, size_t at, size_t count) {
  memmove(line + at, line + at + count, strlen(line + at + count) + 1);
}

// Copies [text, text + length) into dest, cut to fit.
void CopyOut(char* dest, size_t destSize, const char* text, size_t length) {
  if (destSize == 0) return;
  const size_t n = length < destSize - 1 ? length : destSize - 1;
  memmove(dest, text, n);
  dest[n] = 0;
}

// One term of a number: optional "-", then digits. Wraps on overflow like 32/64-bit sums.
template <typename U>
size_t ParseTerm(const char* p, U* value) {
  size_t i = 0;
  const bool negative = p[0] == '-';
  if (negative) ++i;
  if (!IsDigit(p[i])) return 0;
  U v = 0;
  for (; IsDigit(p[i]); ++i) v = static_cast<U>(v * 10u + static_cast<U>(p[i] - '0'));
  *value = negative ? static_cast<U>(U(0) - v) : v;
  return i;
}

// A number behind a switch letter, with "a+b+c" sums when `sums`. Returns bytes used, 0 if none.
template <typename U>
size_t ParseNumber(const char* p, bool sums, U* value) {
  U total = 0, term = 0;
  size_t used = ParseTerm(p, &total);
  if (used == 0) return 0;
  while (sums && p[used] == '+') {
    const size_t more = ParseTerm(p + used + 1, &term);
    if (more == 0) break;
    total = static_cast<U>(total + term);
    used += 1 + more;
  }
  *value = total;
  return used;
}

// Finds the first switch `letter` that has a number behind it.
template <typename U>
size_t FindNumber(const char* line, char letter, bool sums, U* value, size_t* used) {
  SwitchScan scan(line);
  for (size_t at; (at = scan.Next()) != NotFound;) {
    if (!SameLetter(line[at + 1], letter)) continue;
    *used = ParseNumber(line + at + 2, sums, value);
    if (*used != 0) return at;
  }
  return NotFound;
}

// The first switch `letter` with a text (a byte above blank) behind it.
size_t FindWithText(const char* line, char letter) {
  SwitchScan scan(line);
  for (size_t at; (at = scan.Next()) != NotFound;)
    if (SameLetter(line[at + 1], letter) && !IsBlank(line[at + 2])) return at;
  return NotFound;
}

// A decimal "#.#" number as an exact quotient: digits before and after the point as one
// integer over 10 to the number of decimals. Digits beyond 64-bit reach are dropped from the
// fraction, and the integer part saturates.
struct Decimal {
  uint64_t numerator = 0;
  uint64_t denominator = 1;
  bool negative = false;
};

constexpr uint64_t DecimalReach = 100000000000000000ull;  // 1e17: one more digit still fits

size_t ParseDecimal(const char* p, Decimal* d) {
  size_t i = 0;
  if (p[i] == '-') d->negative = true, ++i;
  bool saturated = false;
  for (; IsDigit(p[i]); ++i) {
    if (d->numerator >= DecimalReach) saturated = true;
    if (!saturated) d->numerator = d->numerator * 10 + static_cast<uint64_t>(p[i] - '0');
  }
  if (saturated) d->numerator = UINT64_MAX / 10;
  if (p[i] == '.') {
    for (++i; IsDigit(p[i]); ++i) {
      if (d->numerator >= DecimalReach || d->denominator >= DecimalReach) continue;
      d->numerator = d->numerator * 10 + static_cast<uint64_t>(p[i] - '0');
      d->denominator *= 10;
    }
  }
  return i;
}

bool StartsNumber(char c) { return IsDigit(c) || c == '.' || c == '-'; }

// Parses the "#.#" or "#.#;#.#" text into a reduced fraction within 32 bits.
void ParseRate(const char* text, int32_t* numerator, int32_t* denominator) {
  *numerator = 0, *denominator = 1;
  if (!StartsNumber(text[0])) return;
  Decimal first, second;
  const size_t used = ParseDecimal(text, &first);
  uint32_t n1, d1, n2 = 1, d2 = 1;
  bool negative = first.negative;
  ReduceFraction64(first.numerator, first.denominator, &n1, &d1, INT32_MAX);
  if (text[used] == ';' && StartsNumber(text[used + 1])) {
    ParseDecimal(text + used + 1, &second);
    ReduceFraction64(second.numerator, second.denominator, &n2, &d2, INT32_MAX);
    negative = negative != second.negative;
  }
  // (n1/d1) / (n2/d2), every term below 2^31, so the products fit in 64 bits.
  uint32_t n, d;
  ReduceFraction64(static_cast<uint64_t>(n1) * d2, static_cast<uint64_t>(d1) * n2, &n, &d, INT32_MAX);
  if (n == 0) {
    *denominator = 1;
    return;
  }
  *numerator = negative ? -static_cast<int32_t>(n) : static_cast<int32_t>(n);
  *denominator = static_cast<int32_t>(d);
}

// Bytes at or below a blank at the front of `text`, stopping at the terminator.
size_t LeadingBlanks(const char* text) {
  size_t i = 0;
  while (text[i] && IsBlank(text[i])) ++i;
  return i;
}

// Takes the first word (or quoted name) off the line into dest; see TakeWord/TakeName.
void TakeFirst(char* dest, size_t destSize, char* line, bool allowQuotes) {
  const size_t start = LeadingBlanks(line);
  size_t from = start, to, next;
  if (allowQuotes && line[start] == '"') {
    from = start + 1;
    const char* close = strchr(line + from, '"');
    to = close ? static_cast<size_t>(close - line) : strlen(line);
    next = close ? to + 1 : to;
  } else {
    to = start;
    while (!IsBlank(line[to])) ++to;
    next = to;
  }
  CopyOut(dest, destSize, line + from, to - from);
  if (destSize > 0) TrimLine(dest);
  const size_t afterBlanks = next + LeadingBlanks(line + next);
  if (line[afterBlanks] == ',') next = afterBlanks + 1;  // the comma goes with the word
  memmove(line, line + next, strlen(line + next) + 1);
  TrimLine(line);
}

}  // namespace

int32_t SwitchNumber(char* line, char letter, int32_t defaultValue) {
  uint32_t value = 0;
  size_t used = 0;
  const size_t at = FindNumber(line, letter, true, &value, &used);
  if (at == NotFound) return defaultValue;
  Cut(line, at, 2 + used);
  return static_cast<int32_t>(value);
}

int32_t SwitchPeekNumber(const char* line, char letter, int32_t defaultValue) {
  uint32_t value = 0;
  size_t used = 0;
  return FindNumber(line, letter, true, &value, &used) == NotFound ? defaultValue : static_cast<int32_t>(value);
}

int64_t SwitchNumber64(char* line, char letter, int64_t defaultValue) {
  uint64_t value = 0;
  size_t used = 0;
  const size_t at = FindNumber(line, letter, false, &value, &used);
  if (at == NotFound) return defaultValue;
  Cut(line, at, 2 + used);
  return static_cast<int64_t>(value);
}

bool SwitchFlag(char* line, char letter) {
  SwitchScan scan(line);
  for (size_t at; (at = scan.Next()) != NotFound;) {
    if (!SameLetter(line[at + 1], letter)) continue;
    const char next = line[at + 2];
    if (static_cast<unsigned char>(next) >= '0') continue;  // "-" counts too: "/X-5" is a flag here
    Cut(line, at, 2);
    return true;
  }
  return false;
}

bool SwitchText(char* line, char letter, char* dest, size_t destSize, const char* defaultText) {
  const size_t at = FindWithText(line, letter);
  if (at == NotFound) {
    const char* text = defaultText ? defaultText : "";
    CopyOut(dest, destSize, text, strlen(text));
    return false;
  }
  const size_t textStart = at + 2;
  size_t from = textStart, to, end;
  if (line[textStart] == '"') {
    from = textStart + 1;
    const char* close = strchr(line + from, '"');
    to = close ? static_cast<size_t>(close - line) : strlen(line);
    end = close ? to + 1 : to;
  } else {
    // A file name or text may hold "/" (see IsPathWord); other texts end at one.
    const bool pathText = TakesPath(letter);
    to = textStart;
    while (!IsBlank(line[to]) && (pathText || line[to] != '/')) ++to;
    end = to;
  }
  CopyOut(dest, destSize, line + from, to - from);
  Cut(line, at, end - at);
  return true;
}

bool SwitchFraction(char* line, char letter, int32_t* numerator, int32_t* denominator,
                    int32_t defaultNumerator, int32_t defaultDenominator) {
  const size_t at = FindWithText(line, letter);
  if (at == NotFound) {
    *numerator = defaultNumerator, *denominator = defaultDenominator;
    return false;
  }
  ParseRate(line + at + 2, numerator, denominator);
  Cut(line, at, WordEnd(line, at) - at);
  return true;
}

void SwitchCancels(char* line) {
  for (;;) {
    SwitchScan scan(line);
    size_t cancel = NotFound;
    for (size_t at; (at = scan.Next()) != NotFound;) {
      if (line[at + 1] == '-') {
        cancel = at;
        break;
      }
    }
    if (cancel == NotFound) return;
    const char letter = line[cancel + 2];
    if (line[cancel + 2 + LeadingBlanks(line + cancel + 2)] == 0) {
      line[cancel] = 0;  // "/-" at the very end cuts the line there
      return;
    }
    if (IsBlank(letter)) {
      Cut(line, cancel, 2);  // "/-" with no letter cancels nothing
      continue;
    }
    Cut(line, cancel, WordEnd(line, cancel) - cancel);
    // Earlier switches with that letter, removed right to left so positions stay valid.
    size_t found[64];
    for (;;) {
      size_t count = 0;
      SwitchScan earlier(line);
      for (size_t at; (at = earlier.Next()) != NotFound && at < cancel && count < 64;)
        if (SameLetter(line[at + 1], letter)) found[count++] = at;
      if (count == 0) break;
      for (size_t i = count; i-- > 0;) {
        const size_t length = WordEnd(line, found[i]) - found[i];
        Cut(line, found[i], length);
        cancel -= length;
      }
    }
  }
}

SwitchLetters::SwitchLetters(const char* letters) : previous_(t_knownLetters) {
  t_knownLetters = letters;
}

SwitchLetters::~SwitchLetters() { t_knownLetters = previous_; }

bool SwitchesLeft(const char* line) {
  SwitchScan scan(line);
  return scan.Next() != NotFound;
}

void SwitchRefuse(SwitchErrors* errors, const char* written, const char* allowed) {
  if (!errors || errors->Failed()) return;
  snprintf(errors->text, sizeof errors->text, "/%s: %s.", written, allowed);
}

int32_t SwitchNumberIn(char* line, const SwitchRule& rule, int32_t defaultValue,
                       SwitchErrors* errors) {
  // Read in 64 bits, so that a number beyond 32 bits is out of range rather than wrapped.
  uint64_t bits = 0;
  size_t used = 0;
  const size_t at = FindNumber(line, rule.letter, true, &bits, &used);
  if (at == NotFound) return defaultValue;
  char written[64];
  CopyOut(written, sizeof written, line + at + 1, 1 + used);
  Cut(line, at, 2 + used);
  const int64_t value = static_cast<int64_t>(bits);
  if (rule.clamp) return static_cast<int32_t>(value < rule.low ? rule.low : value > rule.high ? rule.high : value);
  if (value < rule.low || value > rule.high || (rule.accepts && !rule.accepts(static_cast<int32_t>(value)))) {
    SwitchRefuse(errors, written, rule.allowed);
    return defaultValue;
  }
  return static_cast<int32_t>(value);
}

const SwitchRule* SwitchRuleFor(const SwitchRule* table, size_t count, char letter) {
  for (size_t i = 0; i < count; ++i)
    if (SameLetter(table[i].letter, letter)) return &table[i];
  return nullptr;
}

bool SwitchFractionIn(char* line, const SwitchFractionRule& rule, int32_t* numerator,
                      int32_t* denominator, int32_t defaultNumerator, int32_t defaultDenominator,
                      SwitchErrors* errors) {
  const size_t at = FindWithText(line, rule.letter);
  char written[64] = "";
  if (at != NotFound) CopyOut(written, sizeof written, line + at + 1, WordEnd(line, at) - at - 1);
  if (!SwitchFraction(line, rule.letter, numerator, denominator, defaultNumerator, defaultDenominator))
    return false;
  if (rule.accepts(*numerator, *denominator)) return true;
  SwitchRefuse(errors, written, rule.allowed);
  *numerator = defaultNumerator, *denominator = defaultDenominator;
  return false;
}

void TakeWord(char* dest, size_t destSize, char* line) { TakeFirst(dest, destSize, line, false); }

void TakeName(char* dest, size_t destSize, char* line) { TakeFirst(dest, destSize, line, true); }

void TrimLine(char* line) {
  const size_t start = LeadingBlanks(line);
  size_t end = start + strlen(line + start);
  while (end > start && IsBlank(line[end - 1])) --end;
  memmove(line, line + start, end - start);
  line[end - start] = 0;
}

void TrimQuotes(char* line) {
  TrimLine(line);
  const size_t length = strlen(line);
  if (length >= 2 && line[0] == '"' && line[length - 1] == '"') {
    memmove(line, line + 1, length - 2);
    line[length - 2] = 0;
  }
}

void EnsureTrailingSlash(char* path, size_t pathSize) {
  TrimLine(path);
  const size_t length = strlen(path);
  if (length == 0 || path[length - 1] == '/' || length + 2 > pathSize) return;
  path[length] = '/';
  path[length + 1] = 0;
}
