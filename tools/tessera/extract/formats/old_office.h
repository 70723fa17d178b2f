// What is inside of an OLE compound file: DOC and XLS, by the programs catdoc and xls2csv;
// PPT, by ppt.h; a file that was embedded in another document; or a DOCX, XLSX or
// PPTX with a password. What it is, its streams tell.
// Tests: tests/tool/formats_test.cpp; fuzz/extract_office.cpp.
#pragma once

#include <string_view>

#include "extract/extraction.h"

namespace tool {

void parseOldOffice(std::string_view content, Document& document);

}  // namespace tool
