// PDF, by the program pdftotext. A document without any text is most likely scanned: it is
// reported and never passes for inspected. So are the files attached to it, by their names:
// pdfdetach lists them, but gives their content only to files that it writes, which
// nothing in an extractor may.
// Tests: tests/tool/formats_test.cpp.
#pragma once

#include <string_view>

#include "extract/extraction.h"

namespace tool {

void parsePdf(std::string_view content, Document& document);

}  // namespace tool
