// What the names in a zip archive say about its type.
// Tests: tests/tool/content_type_test.cpp.
#pragma once

#include <set>
#include <string>
#include <string_view>

namespace tool {

struct ZipDirectory {
  std::string mimetype;            // content of the member of that name, as ODF and EPUB have it
  bool has_content_types = false;  // as office documents have
  std::set<std::string> top_directories;  // "word" of "word/document.xml"; a few
};

// Of a damaged archive, what can be read.
ZipDirectory zipDirectory(std::string_view content);

}  // namespace tool
