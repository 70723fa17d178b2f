// RTF, by a reader of its own: the programs there are lose characters outside of the
// code page, or notes. Notes, comments, headers, text boxes and deletions come after the
// text; the numbers and bullets of lists, which no other format has as text, are left
// out. Embedded objects are members.
// Tests: tests/tool/formats_test.cpp; fuzz/extract_rtf.cpp.
#pragma once

#include <string_view>

#include "extract/extraction.h"

namespace tool {

void parseRtf(std::string_view content, Document& document);

}  // namespace tool
