// Archives and compressed files: containers whose members are documents of their own.
// A compressed tar is one container, `a.tar.gz!dir/file`; any other compressed file
// has one member, `a.txt.gz!a.txt`. Directories, links and devices are passed over, and
// no name leads anywhere: names are only said.
// Tests: tests/tool/extraction_test.cpp.
#pragma once

#include "extract/extraction.h"

namespace tool {

void parseZip(std::string_view content, Document& document);
void parseSevenZip(std::string_view content, Document& document);
void parseTarOrCompressed(std::string_view content, Document& document);

}  // namespace tool
