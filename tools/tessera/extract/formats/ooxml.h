// DOCX, XLSX and PPTX. Every XML part that can hold text is read, whatever it is called
// and whether anything refers to it or not, each once: relationships only tell an order,
// and cannot hide a part or lead in circles. Embedded objects are members.
// Tests: tests/tool/formats_test.cpp; fuzz/extract_office.cpp.
#pragma once

#include <string_view>

#include "extract/extraction.h"

namespace tool {

void parseOoxml(std::string_view content, Document& document);

}  // namespace tool
