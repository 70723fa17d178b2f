// PDF, by the programs pdftotext and, for the files attached to it, pdfdetach. A document
// without any text is most likely scanned: it is reported and never passes for inspected.
// Tests: tests/tool/formats_test.cpp.
#pragma once

#include <string_view>

#include "extract/extraction.h"

namespace tool {

void parsePdf(std::string_view content, Document& document);

}  // namespace tool
