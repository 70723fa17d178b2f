// Stands in for the canonical text until it is merged.
#include "text/canonical_text.h"

namespace tool {

std::optional<DecodedText> decodeText(std::string_view bytes, std::string_view) {
  if (bytes.find('\0') != bytes.npos) return std::nullopt;
  return DecodedText{std::string(bytes), "UTF-8"};
}

std::string canonicalText(std::string_view utf8) { return std::string(utf8); }

}  // namespace tool
