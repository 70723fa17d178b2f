// The order in which encodings are tried, and what is no text in any of them.
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "ascii_run.h"
#include "canonical_text.h"
#include "charset.h"
#include "charset_guess.h"

namespace tool {

namespace {

// ---- Text or not

// A control character that is none of those that terminals, printers and page layouts
// use (BS to CR, ESC), nor the end-of-file sign of old systems. Without branches, so
// that it is found in many bytes at once.
bool isStray(unsigned char c) {
  const bool is_layout = static_cast<unsigned char>(c - '\b') <= '\r' - '\b';
  return ((c < 0x20) & !is_layout & (c != 0x1A) & (c != 0x1B)) | (c == 0x7F);
}

size_t countStray(std::string_view bytes) {
  constexpr size_t kBlock = 255;  // as many as a byte can count
  size_t stray = 0;
  for (size_t at = 0; at < bytes.size(); at += kBlock) {
    unsigned char in_block = 0;
    for (const char c : bytes.substr(at, kBlock)) {
      in_block = static_cast<unsigned char>(in_block + isStray(static_cast<unsigned char>(c)));
    }
    stray += in_block;
  }
  return stray;
}

// One control character in fifty, and one in any case: logs and old documents have some.
// Compressed bytes have one in ten, machine code more.
bool areFew(size_t stray, size_t characters) { return stray <= 1 + characters / 50; }

// Also at the beginning alone: files of large even areas or of much text tell what they
// are there, in numbers with many zeros.
bool hasFewControls(std::string_view bytes) {
  constexpr size_t kBeginning = 512;
  const std::string_view beginning = bytes.substr(0, kBeginning);
  return areFew(countStray(beginning), beginning.size()) && areFew(countStray(bytes), bytes.size());
}

// How much of what was decoded nobody writes: `utf8` is well-formed.
struct Readability {
  size_t unreadable = 0;
  size_t characters = 0;
};

Readability readabilityOf(std::string_view utf8) {
  size_t unreadable = 0;
  size_t characters = 0;
  for (size_t at = 0; at < utf8.size(); ++characters) {
    UChar32 c;
    U8_NEXT_UNSAFE(utf8.data(), at, c);
    if (c < 0x80) {
      unreadable += isStray(static_cast<unsigned char>(c)) ? 1 : 0;
    } else {
      const int8_t type = u_charType(c);
      unreadable += c == 0xFFFD || type == U_UNASSIGNED || type == U_PRIVATE_USE_CHAR ||
                            (type == U_CONTROL_CHAR && c != 0x85)
                        ? 1
                        : 0;
    }
  }
  return {unreadable, characters};
}

bool isReadable(std::string_view utf8) {
  const Readability readability = readabilityOf(utf8);
  return areFew(readability.unreadable, readability.characters);
}

// ---- Byte order marks

struct Mark {
  std::string_view bytes;
  const char* charset;
};
constexpr Mark kMarks[] = {
    {{"\xEF\xBB\xBF", 3}, "UTF-8"},
    {{"\xFF\xFE\0\0", 4}, "UTF-32LE"},  // before UTF-16LE, whose mark it begins with
    {{"\0\0\xFE\xFF", 4}, "UTF-32BE"},
    {{"\xFF\xFE", 2}, "UTF-16LE"},
    {{"\xFE\xFF", 2}, "UTF-16BE"},
};

const Mark* markOf(std::string_view bytes) {
  for (const Mark& mark : kMarks) {
    if (bytes.starts_with(mark.bytes)) return &mark;
  }
  return nullptr;
}

// ---- UTF-8

struct Utf8Sequences {
  size_t valid = 0;  // of more than one byte
  size_t malformed = 0;
};

Utf8Sequences countUtf8Sequences(std::string_view bytes) {
  Utf8Sequences sequences;
  const auto* const data = reinterpret_cast<const uint8_t*>(bytes.data());
  const auto size = static_cast<int32_t>(bytes.size());
  for (int32_t at = 0; at < size;) {
    UChar32 c;
    U8_NEXT(data, at, size, c);
    if (c < 0) ++sequences.malformed;
    if (c >= 0x80) ++sequences.valid;
    if (c >= 0 && c < 0x80) at = static_cast<int32_t>(asciiRunEnd(bytes, static_cast<size_t>(at)));
  }
  return sequences;
}

// A file with a damaged or foreign passage, or cut off within a character. No other
// charset's text looks like UTF-8 for long.
bool isNearlyUtf8(const Utf8Sequences& sequences) {
  return sequences.malformed * 20 <= sequences.valid;
}

// ---- The trials, each one a text or nothing

using Trial = std::optional<DecodedText>;

Trial decoded(std::string_view bytes, const std::string& charset, Malformed malformed) {
  std::optional<std::string> text = toUtf8(bytes, charset, malformed);
  if (!text || !isReadable(*text)) return std::nullopt;
  return DecodedText{std::move(*text), charset};
}

Trial decodedAsUtf8(std::string_view bytes) {
  const Utf8Sequences sequences = countUtf8Sequences(bytes);
  if (sequences.malformed == 0) return DecodedText{std::string(bytes), "UTF-8"};
  if (isNearlyUtf8(sequences)) return decoded(bytes, "UTF-8", Malformed::kReplace);
  return std::nullopt;
}

Trial decodedAsWide(std::string_view bytes) {
  const std::string charset = guessWideCharset(bytes);
  if (charset.empty()) return std::nullopt;
  std::optional<std::string> text = toUtf8(bytes, charset, Malformed::kRefuse);
  // Stricter, since nearly all pairs of bytes are a character.
  if (!text || readabilityOf(*text).unreadable * 500 > text->size()) return std::nullopt;
  return DecodedText{std::move(*text), charset};
}

// That a text is UTF-16 its bytes must say too: pages claim it in plain ASCII, and the
// claim leaves the order open.
bool isWide(std::string_view charset) {
  return charset.starts_with("UTF-16") || charset.starts_with("UTF-32");
}

Trial decodedAsDeclared(std::string_view bytes, std::string_view declared) {
  const std::string charset = charsetOf(declared);
  if (charset.empty()) return std::nullopt;
  if (isWide(charset)) return decodedAsWide(bytes);
  if (charset == "UTF-8") {
    if (!hasFewControls(bytes) || countUtf8Sequences(bytes).malformed != 0) return std::nullopt;
    return DecodedText{std::string(bytes), charset};
  }
  return decoded(bytes, charset, Malformed::kRefuse);
}

// Japanese mail: ASCII throughout, but for what its escapes say.
Trial decodedByEscapes(std::string_view bytes) {
  if (bytes.find("\x1B$") == std::string_view::npos ||
      countUtf8Sequences(bytes).valid + countUtf8Sequences(bytes).malformed != 0) {
    return std::nullopt;
  }
  return decoded(bytes, "ISO-2022-JP", Malformed::kRefuse);
}

Trial decodedByGuess(std::string_view bytes) {
  const std::string charset = guessCharset(bytes);
  if (charset.empty()) return std::nullopt;
  return decoded(bytes, charset, Malformed::kReplace);
}

}  // namespace

std::optional<DecodedText> decodeText(std::string_view bytes, std::string_view declared) {
  if (bytes.size() > kLongestText) throw std::length_error("a text of more than 512 MiB");
  if (const Mark* const mark = markOf(bytes)) {
    return decoded(bytes.substr(mark->bytes.size()), mark->charset, Malformed::kReplace);
  }
  if (Trial text = decodedAsDeclared(bytes, declared)) return text;
  if (!hasFewControls(bytes)) return decodedAsWide(bytes);
  if (Trial text = decodedByEscapes(bytes)) return text;
  if (Trial text = decodedAsUtf8(bytes)) return text;
  return decodedByGuess(bytes);
}

std::optional<std::string> textBetweenControls(std::string_view bytes, std::string_view declared) {
  constexpr size_t kShortest = 128;  // what is shorter has no signature, or by chance
  const size_t stray = countStray(bytes);
  if (stray == 0 || stray > bytes.size() / 4 || bytes.size() - stray < kShortest) {
    return std::nullopt;
  }
  std::string text;
  text.reserve(bytes.size() - stray);
  std::copy_if(bytes.begin(), bytes.end(), std::back_inserter(text),
               [](char c) { return !isStray(static_cast<unsigned char>(c)); });
  if (!decodeText(text, declared)) return std::nullopt;
  return text;
}

}  // namespace tool
