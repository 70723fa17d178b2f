// Two steps: a pass over the code points that drops and folds by a table, then NFC. In
// this order, since what is dropped may stand between a letter and its accent. No rule
// makes what another rule would change, and NFC makes nothing that a rule would change,
// so the form of a form is itself.
//
// The pass copies what no rule touches in long stretches and notes whether anything may
// have to be normalised; most texts need no NFC at all.
#include "canonical_text.h"

#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <vector>

#include "ascii_run.h"

namespace tool {

namespace {

struct Rule {
  char32_t first, last;
  const char* form;  // what each code point of the range becomes
};

// Signatures are made of ASCII letters, ASCII digits and all bytes above 127; ASCII
// punctuation does not count. So a sign that programs put in the place of ASCII
// punctuation by themselves counts as text when it is left as it is, and makes another
// document of it: each of those is folded, and to ASCII. Signs that only authors choose
// are text.
constexpr Rule kRules[] = {
    // Invisible: hyphenation points, joiners, direction marks, variation selectors. What
    // shows text adds and loses them without anybody seeing it.
    {0x00AD, 0x00AD, ""},    // soft hyphen
    {0x034F, 0x034F, ""},    // combining grapheme joiner
    {0x061C, 0x061C, ""},    // Arabic letter mark
    {0x180B, 0x180F, ""},    // Mongolian variation selectors and vowel separator
    {0x200B, 0x200F, ""},    // zero-width space, joiners, direction marks
    {0x202A, 0x202E, ""},    // embeddings and overrides
    {0x2060, 0x2064, ""},    // word joiner, invisible operators
    {0x2066, 0x206F, ""},    // isolates, and what they replaced
    {0xFE00, 0xFE0F, ""},    // variation selectors
    {0xFEFF, 0xFEFF, ""},    // byte order mark, no-break space without width
    {0xFFF9, 0xFFFB, ""},    // interlinear annotation
    {0xE0000, 0xE01EF, ""},  // tags, further variation selectors
    // Blanks and line ends.
    {0x0085, 0x0085, "\n"},
    {0x00A0, 0x00A0, " "},
    {0x1680, 0x1680, " "},
    {0x2000, 0x200A, " "},  // en and em quads down to the hair space, figure space
    {0x2028, 0x2029, "\n"},
    {0x202F, 0x202F, " "},
    {0x205F, 0x205F, " "},
    {0x3000, 0x3000, " "},
    // Quotes. Primes too: scanners and converters take them for quotes and the other way
    // round. The acute accent, since keyboards that have it are used to type apostrophes;
    // the modifier apostrophe and the turned comma, which nobody's keyboard has.
    {0x00AB, 0x00AB, "\""},
    {0x00B4, 0x00B4, "'"},
    {0x1FFD, 0x1FFD, "'"},  // the acute accent by its other name
    {0x00BB, 0x00BB, "\""},
    {0x02BB, 0x02BC, "'"},
    {0x2018, 0x201B, "'"},
    {0x201C, 0x201F, "\""},
    {0x2032, 0x2032, "'"},
    {0x2033, 0x2034, "\""},
    {0x2035, 0x2035, "'"},
    {0x2036, 0x2037, "\""},
    {0x2039, 0x203A, "'"},
    {0x301D, 0x301F, "\""},
    // Hyphens, dashes, minus; also no-break and small ones.
    {0x2010, 0x2015, "-"},
    {0x2043, 0x2043, "-"},
    {0x2212, 0x2212, "-"},
    {0x2E3A, 0x2E3B, "-"},
    {0xFE58, 0xFE58, "-"},
    {0xFE63, 0xFE63, "-"},
    // Dots.
    {0x2024, 0x2024, "."},
    {0x2025, 0x2025, ".."},
    {0x2026, 0x2026, "..."},
    // List bullets, which become one another, or a star, from program to program. The
    // private ones are what word processors write for those of their symbol fonts; the
    // middle dot is one of them when a text is saved as plain.
    {0x00B7, 0x00B7, "*"},
    {0x0387, 0x0387, "*"},  // the middle dot by its other name
    {0x2022, 0x2023, "*"},
    {0x2219, 0x2219, "*"},
    {0x25A0, 0x25A1, "*"},
    {0x25AA, 0x25AB, "*"},
    {0x25CB, 0x25CB, "*"},
    {0x25CF, 0x25CF, "*"},
    {0x25E6, 0x25E6, "*"},
    {0xF0A7, 0xF0A8, "*"},
    {0xF0B7, 0xF0B7, "*"},
    {0xF0D8, 0xF0D8, "*"},
    {0xF0FC, 0xF0FC, "*"},
    // What is corrected while it is typed.
    {0x00A9, 0x00A9, "(c)"},
    {0x00AE, 0x00AE, "(r)"},
    {0x2122, 0x2122, "(tm)"},
    {0x00BC, 0x00BC, "1/4"},
    {0x00BD, 0x00BD, "1/2"},
    {0x00BE, 0x00BE, "3/4"},
    {0x2190, 0x2190, "<-"},
    {0x2192, 0x2192, "->"},
    {0x2194, 0x2194, "<->"},
    {0x21D0, 0x21D0, "<="},
    {0x21D2, 0x21D2, "=>"},
    {0x21D4, 0x21D4, "<=>"},
    {0xF0DF, 0xF0DF, "<-"},
    {0xF0E0, 0xF0E0, "->"},
    // Ligatures that fonts bring into the text of PDFs. Not those that are letters (ae, oe).
    {0xFB00, 0xFB00, "ff"},
    {0xFB01, 0xFB01, "fi"},
    {0xFB02, 0xFB02, "fl"},
    {0xFB03, 0xFB03, "ffi"},
    {0xFB04, 0xFB04, "ffl"},
    {0xFB05, 0xFB06, "st"},
    {0x0132, 0x0132, "IJ"},
    {0x0133, 0x0133, "ij"},
    // East Asian input writes the same digits, Latin letters and signs full-width or not,
    // by a mode that authors do not notice; FF01 to FF5E follow in the table's constructor.
    // The wave dash is what other tables make of the full-width tilde of Shift_JIS.
    // Half-width katakana stay: who writes them writes all of a text so.
    {0x301C, 0x301C, "~"},
    {0xFFE0, 0xFFE0, "\u00A2"},
    {0xFFE1, 0xFFE1, "\u00A3"},
    {0xFFE5, 0xFFE5, "\u00A5"},
    {0xFFE6, 0xFFE6, "\u20A9"},
};

constexpr char32_t kFullWidthFirst = 0xFF01;  // '!', and so on to '~'
constexpr char32_t kFullWidthLast = 0xFF5E;
constexpr char32_t kPlaneSize = 0x10000;

const icu::Normalizer2& normalizer(bool composing) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* const instance = composing ? icu::Normalizer2::getNFCInstance(status)
                                                     : icu::Normalizer2::getNFDInstance(status);
  if (U_FAILURE(status)) throw std::bad_alloc();  // its tables are compiled in
  return *instance;
}

// What one pass has to know of a code point.
class FoldTable {
 public:
  static constexpr uint8_t kKeep = 0;
  static constexpr uint8_t kNormalize = 255;  // kept, but NFC may change what it is part of

  FoldTable() {
    for (char32_t c = 0x80; c < kPlaneSize; ++c) {
      if (mayChange(c)) basic_[c] = kNormalize;
    }
    for (const Rule& rule : kRules) add(rule.first, rule.last, rule.form);
    for (char32_t c = kFullWidthFirst; c <= kFullWidthLast; ++c) {
      add(c, c, std::string(1, static_cast<char>(c - kFullWidthFirst + '!')));
    }
  }

  // kKeep, kNormalize or the number of a form.
  uint8_t operator[](char32_t c) const {
    if (c < kPlaneSize) return basic_[c];
    for (const Rule& rule : kRules) {  // few texts have any of these
      if (c >= rule.first && c <= rule.last) return kDrop;
    }
    return mayChange(c) ? kNormalize : kKeep;
  }
  const std::string& form(uint8_t number) const { return forms_[number]; }

 private:
  static constexpr uint8_t kDrop = 1;

  static bool mayChange(char32_t c) {
    const auto code_point = static_cast<UChar32>(c);
    return u_getIntPropertyValue(code_point, UCHAR_NFC_QUICK_CHECK) != UNORM_YES ||
           u_getCombiningClass(code_point) != 0;
  }

  void add(char32_t first, char32_t last, const std::string& form) {
    if (first >= kPlaneSize) return;
    const auto known = std::find(forms_.begin() + kDrop, forms_.end(), form);
    const auto number = static_cast<uint8_t>(known - forms_.begin());
    if (known == forms_.end()) forms_.push_back(form);
    std::fill(basic_.begin() + first, basic_.begin() + last + 1, number);
  }

  std::array<uint8_t, kPlaneSize> basic_{};
  std::vector<std::string> forms_{"", ""};  // by number; kDrop is the empty one
};

const FoldTable& foldTable() {
  static const auto table = std::make_unique<const FoldTable>();
  return *table;
}

struct Folded {
  std::string text;
  bool may_need_normalizing = false;
};

// `bytes` is any bytes, the text well-formed.
Folded fold(std::string_view bytes) {
  const FoldTable& table = foldTable();
  const auto* const data = reinterpret_cast<const uint8_t*>(bytes.data());
  const auto size = static_cast<int32_t>(bytes.size());
  Folded folded;
  folded.text.reserve(bytes.size());
  int32_t kept = 0;  // from here on nothing is copied yet
  const auto replace = [&](int32_t from, int32_t to, std::string_view form) {
    folded.text.append(bytes, static_cast<size_t>(kept), static_cast<size_t>(from - kept));
    folded.text.append(form);
    kept = to;
  };
  for (int32_t at = 0; at < size;) {
    if (data[at] < 0x80 && data[at] != '\r') {
      at = static_cast<int32_t>(asciiRunEnd(bytes, static_cast<size_t>(at)));
      continue;
    }
    const int32_t from = at;
    UChar32 c;
    U8_NEXT(data, at, size, c);
    if (c == '\r') {
      if (at < size && data[at] == '\n') ++at;
      replace(from, at, "\n");
    } else if (c < 0) {
      replace(from, at, "\uFFFD");
    } else if (const uint8_t action = table[static_cast<char32_t>(c)];
               action == FoldTable::kNormalize) {
      folded.may_need_normalizing = true;
    } else if (action != FoldTable::kKeep) {
      replace(from, at, table.form(action));
    }
  }
  replace(size, size, "");
  return folded;
}

// Accents that follow one letter are put into their order by insertion when they are
// normalised: quadratic in their number, and a text of nothing else would take days. So
// long runs are brought into that order before, which NFC sees no difference in.
constexpr size_t kManyMarks = 32;  // text has three or four

struct Mark {
  UChar32 code_point;
  uint8_t combining_class;
};

void appendDecomposed(UChar32 c, std::vector<Mark>* marks) {
  icu::UnicodeString parts;
  if (!normalizer(false).getDecomposition(c, parts)) parts.setTo(c);
  for (int32_t i = 0; i < parts.length(); i = parts.moveIndex32(i, 1)) {
    marks->push_back({parts.char32At(i), u_getCombiningClass(parts.char32At(i))});
  }
}

bool isMark(UChar32 c) {
  return c >= 0x300 && u_getIntPropertyValue(c, UCHAR_LEAD_CANONICAL_COMBINING_CLASS) != 0;
}

std::string inOrder(std::string_view run) {
  std::vector<Mark> marks;
  for (int32_t at = 0; at < static_cast<int32_t>(run.size());) {
    UChar32 c;
    U8_NEXT_UNSAFE(run.data(), at, c);
    appendDecomposed(c, &marks);
  }
  std::stable_sort(marks.begin(), marks.end(), [](const Mark& a, const Mark& b) {
    return a.combining_class < b.combining_class;
  });
  std::string ordered;
  for (const Mark& mark : marks) icu::UnicodeString(mark.code_point).toUTF8String(ordered);
  return ordered;
}

// `text` is well-formed.
std::string withLongRunsInOrder(std::string_view text) {
  std::string ordered;
  size_t copied = 0;
  size_t run_start = 0;
  size_t marks = 0;
  const auto endRun = [&](size_t end) {
    if (marks > kManyMarks) {
      ordered.append(text, copied, run_start - copied);
      ordered += inOrder(text.substr(run_start, end - run_start));
      copied = end;
    }
    marks = 0;
  };
  for (size_t at = 0; at < text.size();) {
    const size_t start = at;
    UChar32 c;
    U8_NEXT_UNSAFE(text.data(), at, c);
    if (!isMark(c)) {
      endRun(start);
    } else if (marks++ == 0) {
      run_start = start;
    }
  }
  endRun(text.size());
  return ordered.append(text, copied);
}

std::string normalized(std::string_view text) {
  const std::string ordered = withLongRunsInOrder(text);
  std::string result;
  result.reserve(ordered.size());
  icu::StringByteSink<std::string> sink(&result);
  UErrorCode status = U_ZERO_ERROR;
  normalizer(true).normalizeUTF8(0, ordered, sink, nullptr, status);
  if (U_FAILURE(status)) throw std::bad_alloc();  // nothing else can fail
  return result;
}

}  // namespace

std::string canonicalText(std::string_view utf8) {
  if (utf8.size() > kLongestText) throw std::length_error("a text of more than 512 MiB");
  Folded folded = fold(utf8);
  return folded.may_need_normalizing ? normalized(folded.text) : std::move(folded.text);
}

}  // namespace tool
