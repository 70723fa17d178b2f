// The one form of text that is fingerprinted.
//
// Signatures are made of bytes, so the same words in another encoding, normal form
// or typography would be another document. Every text, indexed or matched, goes
// through here first:
//
//   bytes --decodeText--> UTF-8 --canonicalText--> NFC, without what carries no
//                                                  meaning, typography folded
//
// What becomes of a text is part of what an index holds. A change of any rule is a new
// kTextForm; the catalogue keeps the one its index was made with. docs/text_form.md
// lists the rules and the reasons for them.
//
// All functions may be called from several threads at once. They throw std::bad_alloc
// when memory is out and std::length_error for more than kLongestText bytes, and nothing
// else: no input is a failure.
// Tests: tests/tool/canonical_text_test.cpp, fuzz/canonical_text.cpp.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

inline constexpr std::string_view kTextForm = "tessera-text-1";

// No limit of the format: lengths have 32 bits, and a byte may become three of them.
inline constexpr size_t kLongestText = size_t{512} << 20;

struct DecodedText {
  std::string text;      // UTF-8, well-formed; at most three times as long as the bytes
  std::string encoding;  // what it was decoded from: "UTF-8", "windows-1252", ...
};

// Decodes a text by, in this order: its byte order mark; the charset it was declared
// in, when that is known and the bytes allow it; UTF-8 when the bytes are that
// throughout; else a guess. Nothing when the bytes are no text in any encoding.
// `declared` is a charset label as mails and web pages bear it, or empty.
std::optional<DecodedText> decodeText(std::string_view bytes, std::string_view declared);

// What decodeText() takes for no text because of its control characters, without them,
// when that is a text: at least 128 bytes, and at least three of four that were there.
std::optional<std::string> textBetweenControls(std::string_view bytes, std::string_view declared);

// The canonical form of a UTF-8 text. Malformed sequences become U+FFFD. The form of a
// form is itself; it is at most three times as long as the text.
std::string canonicalText(std::string_view utf8);

}  // namespace tool
