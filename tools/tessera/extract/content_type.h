// What a document is, by its content: its name may lie.
// Tests: tests/tool/content_type_test.cpp.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// Loads what contentType() needs. Throws std::runtime_error when it is not there.
void loadContentTypes();

// A media type: "application/pdf", "text/plain"; "application/octet-stream" when nothing
// is known. One call at a time.
std::string contentType(std::string_view content);

}  // namespace tool
