// Where the pieces of a zip archive lie, so that nothing hides between them: a zip is
// read from its end, and whatever its directory does not list is seen by nobody who
// trusts it, but by everybody who does not. Another archive before this one, entries
// taken off the list, the comment.
// Tests: tests/tool/extraction_test.cpp.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

namespace tool {

struct ZipLayout {
  std::string_view archive;  // from the beginning of the file to the end of the directory
  size_t start = 0;          // of the first listed entry
  // Bytes that belong to no listed entry, but for some that are always there.
  std::vector<std::string_view> unlisted;
};

// Nothing when there is no directory.
std::optional<ZipLayout> zipLayout(std::string_view content);

// The zip archive that some other file has at its end: a picture, a program. Empty: none.
std::string_view appendedZip(std::string_view content);

// Whether bytes that nobody claims may say anything: not a few, and not all zero.
bool mayHide(std::string_view bytes);

}  // namespace tool
