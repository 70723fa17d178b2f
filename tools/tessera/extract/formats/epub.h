// EPUB: the pages of the book in the order of its spine, then the pages that stand in no
// spine, each once. Pictures, fonts and styles are left out.
// Tests: tests/tool/formats_test.cpp; fuzz/extract_office.cpp.
#pragma once

#include <string_view>

#include "extract/extraction.h"

namespace tool {

void parseEpub(std::string_view content, Document& document);

}  // namespace tool
