// Words, in what was read of a document.
#pragma once

#include <algorithm>
#include <string_view>

namespace tool {

inline bool hasWords(std::string_view utf8) {
  return std::any_of(utf8.begin(), utf8.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           static_cast<unsigned char>(c) >= 0x80;
  });
}

// Whether a value that is a key, a number or a list of them as a rule is a passage that
// somebody wrote: words of a usual length, and enough of them for a signature.
inline bool isProse(std::string_view value) {
  constexpr size_t kSignature = 61;
  size_t letters = 0;
  size_t blanks = 0;
  size_t foreign = 0;  // bytes of letters that are not ASCII: some scripts have no blanks
  for (const char c : value) {
    letters += ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) ? 1 : 0;
    blanks += c == ' ' || c == '\n' ? 1 : 0;
    foreign += static_cast<unsigned char>(c) >= 0x80 ? 1 : 0;
  }
  return letters + foreign >= kSignature && letters + foreign > value.size() / 2 &&
         (blanks > value.size() / 12 || foreign > value.size() / 2);
}

}  // namespace tool
