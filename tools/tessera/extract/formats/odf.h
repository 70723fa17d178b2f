// ODT, ODS and ODP: the text of content.xml and of the headers and footers in
// styles.xml, also of the documents embedded in it. Other embedded objects are members.
// Tests: tests/tool/formats_test.cpp; fuzz/extract_office.cpp.
#pragma once

#include <string_view>

#include "extract/extraction.h"

namespace tool {

void parseOdf(std::string_view content, Document& document);

}  // namespace tool
