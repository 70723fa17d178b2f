// The rules of the canonical form, one by one; that it is idempotent, well-formed and
// linear in time, whatever comes in.
#include "canonical_text.h"

#include <gtest/gtest.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <chrono>
#include <cstdlib>
#include <random>

namespace {

using tool::canonicalText;

std::string utf8(char32_t c) {
  std::string text;
  icu::UnicodeString(static_cast<UChar32>(c)).toUTF8String(text);
  return text;
}

std::string amidLetters(const std::string& text) { return std::string(1, 'a').append(text) + 'b'; }

bool isSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }

bool isWellFormed(std::string_view text) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto size = static_cast<int32_t>(text.size());
  for (int32_t at = 0; at < size;) {
    UChar32 c;
    U8_NEXT(bytes, at, size, c);
    if (c < 0) return false;
  }
  return true;
}

void expectDropped(char32_t first, char32_t last) {
  for (char32_t c = first; c <= last; ++c) {
    EXPECT_EQ("ab", canonicalText(amidLetters(utf8(c)))) << std::hex << static_cast<uint32_t>(c);
  }
}

void expectEach(std::u32string_view variants, const std::string& form) {
  for (const char32_t c : variants) {
    EXPECT_EQ(amidLetters(form), canonicalText(amidLetters(utf8(c))))
        << std::hex << static_cast<uint32_t>(c);
  }
}

TEST(CanonicalText, AsciiIsItsOwnForm) {
  std::string ascii;
  for (char c = 0; c < 127; ++c) {
    if (c != '\r') ascii += c;
  }
  ascii += '\x7f';
  EXPECT_EQ(ascii, canonicalText(ascii));
  EXPECT_EQ("", canonicalText(""));
}

TEST(CanonicalText, EveryLineEndIsALineFeed) {
  EXPECT_EQ("a\nb\n\nc\n", canonicalText("a\r\nb\r\rc\r"));
  EXPECT_EQ("a\nb\nc\nd", canonicalText("a\u0085b\u2028c\u2029d"));
  // At every place of the eight bytes that are looked at together.
  for (size_t before = 0; before < 20; ++before) {
    EXPECT_EQ(std::string(before, 'x') + "\ny", canonicalText(std::string(before, 'x') + "\r\ny"));
    EXPECT_EQ(std::string(before, 'x') + "-y", canonicalText(std::string(before, 'x') + "\u2013y"));
  }
}

TEST(CanonicalText, LettersAreComposed) {
  EXPECT_EQ("Gr\u00FC\u00DFe, \u00E9t\u00E9, \u1EBF",
            canonicalText("Gru\u0308\u00DFe, e\u0301te\u0301, e\u0302\u0301"));
  EXPECT_EQ("\u0439 \u0451 \u03AC", canonicalText("\u0438\u0306 \u0435\u0308 \u03B1\u0301"));
  EXPECT_EQ("\uAC01", canonicalText("\u1100\u1161\u11A8"));
  EXPECT_EQ("\u03A9", canonicalText("\u2126"));  // ohm sign
}

TEST(CanonicalText, OnlyCanonicalEquivalentsAreComposed) {
  const std::string kept = "x\u00B2 \u2460 \u00E6 \u0153 \u00DF \uFF76 \u2075";
  EXPECT_EQ(kept, canonicalText(kept));
}

TEST(CanonicalText, InvisibleCharactersAreDropped) {
  expectDropped(0x00AD, 0x00AD);
  expectDropped(0x200B, 0x200F);
  expectDropped(0x202A, 0x202E);
  expectDropped(0x2060, 0x2064);
  expectDropped(0x2066, 0x206F);
  expectDropped(0xFE00, 0xFE0F);
  expectDropped(0xFEFF, 0xFEFF);
  expectDropped(0xE0000, 0xE01EF);
  expectDropped(0x034F, 0x034F);
  expectDropped(0x061C, 0x061C);
}

TEST(CanonicalText, WhatIsDroppedKeepsNoAccentFromItsLetter) {
  EXPECT_EQ("\u00E9", canonicalText("e\u200B\u0301"));
  EXPECT_EQ("\u00E9", canonicalText("e\u034F\u00AD\u0301"));
}

TEST(CanonicalText, EveryBlankIsABlank) {
  expectEach(
      U"\u00A0\u1680\u2000\u2001\u2002\u2003\u2004\u2005\u2006\u2007\u2008\u2009\u200A"
      U"\u202F\u205F\u3000",
      " ");
  EXPECT_EQ("a\t\v\f b", canonicalText("a\t\v\f b"));
}

TEST(CanonicalText, QuotesAreAscii) {
  expectEach(U"\u2018\u2019\u201A\u201B\u2032\u2035\u2039\u203A\u02BB\u02BC\u00B4\u1FFD", "'");
  expectEach(
      U"\u201C\u201D\u201E\u201F\u2033\u2034\u2036\u2037\u00AB\u00BB\u301D\u301E\u301F\uFF02",
      "\"");
}

TEST(CanonicalText, DashesAndMinusAreHyphens) {
  expectEach(U"\u2010\u2011\u2012\u2013\u2014\u2015\u2212\u2043\uFE58\uFE63\uFF0D\u2E3A\u2E3B",
             "-");
}

TEST(CanonicalText, DotsAndBulletsAreAscii) {
  expectEach(U"\u2026", "...");
  expectEach(U"\u2025", "..");
  expectEach(U"\u2022\u2023\u25AA\u25CF\u25CB\u25E6\u00B7\u0387\u2219\uF0B7\uF0A7", "*");
}

TEST(CanonicalText, WhatIsCorrectedWhileTypedIsAsItWasTyped) {
  EXPECT_EQ("(c) (r) (tm) 1/2 1/4 3/4 -> <-",
            canonicalText("\u00A9 \u00AE \u2122 \u00BD \u00BC \u00BE \u2192 \uF0DF"));
}

TEST(CanonicalText, LigaturesAreLetters) {
  EXPECT_EQ("ff fi fl ffi ffl st st",
            canonicalText("\uFB00 \uFB01 \uFB02 \uFB03 \uFB04 \uFB05 \uFB06"));
  EXPECT_EQ("f\u00ED", canonicalText("\uFB01\u0301"));  // composed with the letter that it now is
  EXPECT_EQ("IJsselmeer, vrij", canonicalText("\u0132sselmeer, vr\u0133"));
}

TEST(CanonicalText, FullWidthFormsAreAscii) {
  for (char32_t c = 0x21; c <= 0x7E; ++c) {
    EXPECT_EQ(utf8(c), canonicalText(utf8(c + 0xFEE0)));
  }
  EXPECT_EQ("~\u00A5", canonicalText("\u301C\uFFE5"));
}

TEST(CanonicalText, HyphensAtLineEndsAreLeftAlone) {
  EXPECT_EQ("Hoch-\nhaus", canonicalText("Hoch-\r\nhaus"));
  EXPECT_EQ("Hoch-\nhaus", canonicalText("Hoch\u2010\nhaus"));
}

TEST(CanonicalText, MalformedSequencesBecomeReplacementCharacters) {
  EXPECT_EQ("a\uFFFDb", canonicalText("a\xFF"
                                      "b"));
  EXPECT_EQ("a\uFFFDb", canonicalText("a\xE2\x82"
                                      "b"));                                 // cut short
  EXPECT_EQ("\uFFFD", canonicalText("\xF0\x9F\x98"));                        // at the end
  EXPECT_EQ("\uFFFD\uFFFD", canonicalText("\xC0\x80"));                      // NUL the long way
  EXPECT_EQ("\uFFFD\uFFFD\uFFFD", canonicalText("\xED\xA0\x80"));            // a surrogate
  EXPECT_EQ("\uFFFD\uFFFD\uFFFD\uFFFD", canonicalText("\xF4\x90\x80\x80"));  // beyond the last
}

// Each code point alone, amid letters and before an accent.
TEST(CanonicalText, FormsOfAllCodePointsAreTheirOwnForms) {
  for (char32_t c = 0; c <= 0x10FFFF; ++c) {
    if (isSurrogate(c)) continue;
    for (const std::string& text : {utf8(c), amidLetters(utf8(c)), utf8(c) + "\u0301"}) {
      const std::string form = canonicalText(text);
      ASSERT_EQ(form, canonicalText(form)) << std::hex << static_cast<uint32_t>(c);
      ASSERT_LE(form.size(), 3 * text.size());
    }
  }
}

char32_t someCodePoint(std::mt19937_64* random) {
  static constexpr char32_t kFirst[] = {0,      0x80,   0x300,  0x300,   0x340,
                                        0x900,  0xF70,  0x1100, 0x1160,  0x2000,
                                        0xAC00, 0xFB00, 0xFF00, 0x1D100, 0x10000};
  for (;;) {
    const auto choice = (*random)() % std::size(kFirst);
    const char32_t c = kFirst[choice] + static_cast<char32_t>((*random)() % 0x90);
    if (!isSurrogate(c)) return c;
  }
}

TEST(CanonicalText, FormsOfRandomTextsAreWellFormedAndTheirOwnForms) {
  const char* const given = std::getenv("TESSERA_SEED");
  const uint64_t first = given != nullptr ? std::strtoull(given, nullptr, 10) : 0;
  for (uint64_t seed = first; seed < first + (given != nullptr ? 1 : 20000); ++seed) {
    SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    std::string text;
    for (size_t length = random() % 60; length > 0; --length) {
      text += random() % 20 == 0 ? std::string(1, static_cast<char>(random()))
                                 : utf8(someCodePoint(&random));
    }
    const std::string form = canonicalText(text);
    ASSERT_TRUE(isWellFormed(form));
    ASSERT_EQ(form, canonicalText(form));
    ASSERT_LE(form.size(), 3 * text.size());
  }
}

// Long runs of accents are ordered by the tool itself: as the normaliser would.
TEST(CanonicalText, LongRunsOfAccentsAreNormalizedAsShortOnesAre) {
  static constexpr char32_t kMarks[] = {0x300,  0x301,  0x308, 0x316, 0x323, 0x327,  0x342,
                                        0x344,  0x345,  0x5B0, 0x93C, 0xF71, 0xF73,  0xF75,
                                        0x302A, 0x3099, 0xF81, 0x313, 0x340, 0x1D165};
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* const nfc = icu::Normalizer2::getNFCInstance(status);
  for (uint64_t seed = 0; seed < 300; ++seed) {
    std::mt19937_64 random(seed);
    icu::UnicodeString text;
    for (int letter = 0; letter < 3; ++letter) {
      text.append(static_cast<UChar32>(U"ae\u03B1\u1100"[random() % 4]));
      for (size_t marks = random() % 80; marks > 0; --marks) {
        text.append(static_cast<UChar32>(kMarks[random() % std::size(kMarks)]));
      }
    }
    std::string bytes;
    text.toUTF8String(bytes);
    std::string expected;
    nfc->normalize(text, status).toUTF8String(expected);
    ASSERT_EQ(expected, canonicalText(bytes)) << seed;
  }
}

std::string repeated(const std::string& unit, size_t bytes) {
  std::string text = "a";
  while (text.size() < bytes) text += unit;
  return text;
}

// A quadratic step would take minutes for each of these.
TEST(CanonicalText, HostileTextsTakeLinearTime) {
  for (const char* const unit :
       {"\u0301\u0316", "\u0F73", "\u0F73\u0301", "\u0344\u0316", "\u1161", "\u09BE", "\u09C7",
        "\U0001D160", "\u00AD\u0301\u0316", "\uFB03", "\xFF", "\r", "\u0301", "\u0DD9\u0DCF"}) {
    const auto start = std::chrono::steady_clock::now();
    const std::string text = repeated(unit, 2 << 20);
    EXPECT_LE(canonicalText(text).size(), 3 * text.size());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << unit;
  }
}

TEST(CanonicalText, FormsHaveAName) { EXPECT_EQ("tessera-text-1", tool::kTextForm); }

// What an index holds depends on every rule. Who changes one on purpose gives the form
// another name, and then this sum.
TEST(CanonicalText, FormsOfAllCodePointsAreThoseOfThisName) {
  uint64_t sum = 14695981039346656037u;
  for (char32_t c = 0; c <= 0x10FFFF; ++c) {
    if (isSurrogate(c)) continue;
    for (const char byte : canonicalText(utf8(c))) {
      sum = (sum ^ static_cast<unsigned char>(byte)) * 1099511628211u;
    }
  }
  EXPECT_EQ(4980583623461570004u, sum);
}

}  // namespace
