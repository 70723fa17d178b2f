#include "cli/names.h"

#include <fmt/format.h>

#include <cstdint>
#include <iterator>

namespace tool {

namespace {

struct Character {
  char32_t code;
  size_t length;  // 0: not well-formed
};

Character firstCharacter(std::string_view text) {
  const auto byte = [&](size_t i) -> unsigned { return static_cast<unsigned char>(text[i]); };
  const unsigned lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  const size_t length = lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
  if (length == 0 || text.size() < length) return {0, 0};
  char32_t code = lead & (0xff >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return {0, 0};
    code = code << 6 | (byte(i) & 0x3f);
  }
  constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = code >= 0xd800 && code <= 0xdfff;
  if (code < kLeast[length] || code > 0x10ffff || surrogate) return {0, 0};
  return {code, length};
}

bool isHarmless(char32_t code) {
  const bool control = code < 0x20 || (code >= 0x7f && code < 0xa0);
  const bool separator = code == 0x2028 || code == 0x2029;
  const bool reverses = code == 0x200e || code == 0x200f || code == 0x061c ||
                        (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
  return !control && !separator && !reverses;
}

}  // namespace

std::string shownName(std::string_view name) {
  std::string shown;
  while (!name.empty()) {
    const Character character = firstCharacter(name);
    const size_t length = character.length ? character.length : 1;
    if (character.code == '\\' && character.length) {
      shown += "\\\\";
    } else if (character.length && isHarmless(character.code)) {
      shown += name.substr(0, length);
    } else {
      for (const unsigned char byte : name.substr(0, length)) {
        fmt::format_to(std::back_inserter(shown), "\\x{:02x}", byte);
      }
    }
    name.remove_prefix(length);
  }
  return shown;
}

}  // namespace tool
