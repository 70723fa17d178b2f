// The detector knows languages by their frequent groups of letters, and the multi-byte
// charsets by their structure. What it does not know, or is not sure of, is Western
// text; which of the Western charsets it is shows in what stands between letters.
#include "charset_guess.h"

#include <unicode/ucnv.h>
#include <unicode/ucsdet.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>

#include "charset.h"

namespace tool {

namespace {

// More of a text does not make a guess better.
constexpr size_t kSampleBytes = size_t{64} << 10;
constexpr size_t kBytesBefore = 64;

bool isHigh(char c) { return (static_cast<unsigned char>(c) & 0x80) != 0; }

bool isAsciiSmall(char c) { return c >= 'a' && c <= 'z'; }

bool isAsciiLetter(char c) { return isAsciiSmall(c) || (c >= 'A' && c <= 'Z'); }

// From shortly before the first byte that tells anything. What stands before is ASCII,
// so no character is cut in two there.
std::string_view sampleOf(std::string_view bytes) {
  const auto high = std::find_if(bytes.begin(), bytes.end(), isHigh);
  const auto first = static_cast<size_t>(high - bytes.begin());
  return bytes.substr(first - std::min(first, kBytesBefore), kSampleBytes);
}

// ---- Western charsets

constexpr const char* kWestern[] = {"windows-1252", "ISO-8859-15", "macintosh", "IBM850"};

struct WesternReading {
  UChar of_high_byte[128];
};

WesternReading readingOf(const char* charset) {
  char bytes[128];
  for (int i = 0; i < 128; ++i) bytes[i] = static_cast<char>(128 + i);
  WesternReading reading = {};
  UErrorCode status = U_ZERO_ERROR;
  UConverter* const converter = ucnv_open(charset, &status);
  ucnv_toUChars(converter, reading.of_high_byte, 128, bytes, 128, &status);
  ucnv_close(converter);
  if (U_FAILURE(status) && status != U_STRING_NOT_TERMINATED_WARNING) throw std::bad_alloc();
  return reading;
}

bool isWesternLetter(UChar c) {
  return (c >= 0xC0 && c <= 0xFF && c != 0xD7 && c != 0xF7) || c == 0x152 || c == 0x153 ||
         c == 0x160 || c == 0x161 || c == 0x178 || c == 0x17D || c == 0x17E;
}

// Of those that texts are full of: accents of French, Spanish, Portuguese, Italian,
// umlauts, the Nordic letters.
bool isFrequentLetter(UChar c) {
  static constexpr std::u16string_view kFrequent =
      u"äöüßéèêëàâçîïôùûñáíóúãõåæøœìòÄÖÜÉÈÀÇÅØÆ";  // capitals where words begin
  return kFrequent.find(static_cast<char16_t>(c)) != std::u16string_view::npos;
}

bool isCapital(UChar c) { return (c >= 0xC0 && c <= 0xDE) || c == 0x152 || c == 0x178; }

bool isTypographic(UChar c) {
  return (c >= 0x2013 && c <= 0x2026) || c == 0x20AC || c == 0xA0 || c == 0xAB || c == 0xBB ||
         c == 0xA7 || c == 0xB0 || c == 0xA9;
}

// Where an apostrophe or a quote belongs: between letters, or where a word begins or
// ends. There it is as ordinary as an accent.
bool isQuoteInPlace(UChar c, bool after_letter, bool before_letter) {
  if (c < 0x2018 || c > 0x201E) return false;
  return after_letter != before_letter || (c == 0x2019 && after_letter);
}

// How well the high bytes of a text fit when they are read so.
int64_t fitness(std::string_view text, const WesternReading& reading) {
  int64_t fit = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (!isHigh(text[i])) continue;
    const UChar c = reading.of_high_byte[static_cast<unsigned char>(text[i]) & 0x7F];
    const bool after_letter = i > 0 && isAsciiLetter(text[i - 1]);
    const bool before_letter = i + 1 < text.size() && isAsciiLetter(text[i + 1]);
    if (isCapital(c) && i > 0 && isAsciiSmall(text[i - 1])) {
      fit -= 2;
    } else if (isQuoteInPlace(c, after_letter, before_letter)) {
      fit += 3;
    } else if (isFrequentLetter(c)) {
      fit += after_letter || before_letter ? 3 : 1;
    } else if (isWesternLetter(c)) {
      fit += after_letter || before_letter ? 1 : -1;
    } else if (isTypographic(c)) {
      fit += after_letter && before_letter ? -1 : 2;
    } else {
      fit -= after_letter && before_letter ? 4 : 2;
    }
  }
  return fit;
}

// The first of those that fit best: windows-1252, unless another is better.
std::string guessWestern(std::string_view sample) {
  const char* best = nullptr;
  int64_t best_fit = 0;
  for (const char* const charset : kWestern) {
    const int64_t fit = fitness(sample, readingOf(charset));
    if (best == nullptr || fit > best_fit) {
      best = charset;
      best_fit = fit;
    }
  }
  return best;
}

// No Western language writes more than every tenth letter with an accent. Pixels and
// samples of sound that happen to hold no control characters do.
bool mayBeWestern(std::string_view sample) {
  constexpr size_t kTooShortToTell = 64;
  const auto high = static_cast<size_t>(std::count_if(sample.begin(), sample.end(), isHigh));
  return sample.size() < kTooShortToTell || high * 10 <= sample.size() * 3;
}

// ---- The Cyrillic charset of DOS, which the detector does not know: no other one has
// nearly all its letters there.

bool isDosCyrillic(std::string_view sample) {
  size_t high = 0;
  size_t small = 0;
  size_t capital = 0;
  for (const char c : sample) {
    const auto byte = static_cast<unsigned char>(c);
    high += byte >= 0x80 ? 1 : 0;
    capital += byte >= 0x80 && byte < 0xA0 ? 1 : 0;
    small += (byte >= 0xA0 && byte < 0xB0) || (byte >= 0xE0 && byte < 0xF2) ? 1 : 0;
  }
  return (small + capital) * 20 >= high * 19 && small > capital;
}

// ---- The detector

struct DetectorCloser {
  void operator()(UCharsetDetector* detector) const { ucsdet_close(detector); }
};

struct Candidate {
  std::string charset;
  int32_t confidence = 0;
};

// Not those that take a mark or an escape to be known, nor EBCDIC, which it finds in
// anything.
bool isCandidate(std::string_view name) {
  return !name.starts_with("UTF-") && !name.starts_with("ISO-2022-") && !name.starts_with("IBM");
}

Candidate detect(std::string_view sample) {
  UErrorCode status = U_ZERO_ERROR;
  const std::unique_ptr<UCharsetDetector, DetectorCloser> detector(ucsdet_open(&status));
  ucsdet_setText(detector.get(), sample.data(), static_cast<int32_t>(sample.size()), &status);
  int32_t count = 0;
  const UCharsetMatch** const matches = ucsdet_detectAll(detector.get(), &count, &status);
  if (status == U_MEMORY_ALLOCATION_ERROR) throw std::bad_alloc();
  if (U_FAILURE(status)) return {};      // too short for anything to be found
  for (int32_t i = 0; i < count; ++i) {  // by falling confidence
    const char* const name = ucsdet_getName(matches[i], &status);
    if (isCandidate(name)) return {charsetOf(name), ucsdet_getConfidence(matches[i], &status)};
  }
  return {};
}

// Below this, the detector has found a few groups of letters that many languages have.
constexpr int32_t kSure = 20;

// ---- UTF-16

// Units of which every text of some length has many, whatever its script: ASCII, and the
// full stops and commas of the texts that have no blanks.
bool isCommonUnit(unsigned high, unsigned low) {
  if (high == 0) return (low >= 0x20 && low < 0x7F) || low == '\n' || low == '\r' || low == '\t';
  return (high == 0x30 && low <= 0x02) || (high == 0xFF && (low == 0x0C || low == 0x0E));
}

// What the units of a text are in one of the two orders.
struct WideReading {
  size_t units = 0;
  size_t common = 0;
  size_t alphabetic = 0;  // of alphabets other than the Latin one
  size_t east_asian = 0;

  void add(unsigned high, unsigned low) {
    ++units;
    common += isCommonUnit(high, low) ? 1 : 0;
    alphabetic += high >= 0x01 && high < 0x20 ? 1 : 0;
    east_asian += high >= 0x2E ? 1 : 0;
  }

  // Nobody writes half Chinese, half Russian; records of letters and small numbers look so.
  bool isPlausible() const {
    return common * 64 >= units && std::min(alphabetic, east_asian) * 8 <= units;
  }
};

}  // namespace

std::string guessCharset(std::string_view bytes) {
  const std::string_view sample = sampleOf(bytes);
  const bool may_be_western = mayBeWestern(sample);
  if (!may_be_western && isDosCyrillic(sample)) return "IBM866";
  const Candidate found = detect(sample);
  if (found.confidence >= kSure && found.charset != "windows-1252") return found.charset;
  return may_be_western ? guessWestern(sample) : std::string();
}

std::string guessWideCharset(std::string_view bytes) {
  const std::string_view sample = bytes.substr(0, kSampleBytes);
  WideReading little;
  WideReading big;
  size_t little_wide = 0;
  size_t big_wide = 0;
  const auto at = [&](size_t i) { return static_cast<unsigned char>(sample[i]); };
  for (size_t i = 0; i + 2 <= sample.size(); i += 2) {
    little.add(at(i + 1), at(i));
    big.add(at(i), at(i + 1));
  }
  for (size_t i = 0; i + 4 <= sample.size(); i += 4) {
    little_wide += at(i + 2) <= 0x10 && at(i + 3) == 0 ? 1 : 0;
    big_wide += at(i) == 0 && at(i + 1) <= 0x10 ? 1 : 0;
  }
  const size_t quarters = sample.size() / 4;
  if (quarters > 0 && little_wide == quarters) return "UTF-32LE";
  if (quarters > 0 && big_wide == quarters) return "UTF-32BE";
  const bool is_little = little.common > big.common;
  const WideReading& reading = is_little ? little : big;
  const WideReading& other = is_little ? big : little;
  // Numbers of 16 bits have small values and values with zeros in the other byte alike.
  if (!reading.isPlausible() || other.common * 8 > reading.common) return {};
  return is_little ? "UTF-16LE" : "UTF-16BE";
}

}  // namespace tool
