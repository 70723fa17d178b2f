// Charsets by the labels that mails and web pages bear, and the way from them to UTF-8.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tool {

// The converter that a label means, by a name that toUtf8() takes and people know:
// "windows-1252" for "ISO-8859-1" and "us-ascii", as browsers read them. Empty for an
// unknown label.
std::string charsetOf(std::string_view label);

enum class Malformed {
  kRefuse,  // nothing at all is returned, but for a last character that is cut off
  kReplace  // each malformed sequence becomes U+FFFD
};

// `charset` is a name from charsetOf(). Well-formed UTF-8.
std::optional<std::string> toUtf8(std::string_view bytes, const std::string& charset,
                                  Malformed malformed);

}  // namespace tool
