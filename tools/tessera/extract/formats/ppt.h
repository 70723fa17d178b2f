// Text of an old PowerPoint file, by a reader of its own: catppt, the program there is,
// gets nothing out of presentations that were not made by PowerPoint itself.
// Tests: tests/tool/formats_test.cpp; fuzz/extract_office.cpp.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// Of the stream "PowerPoint Document", in the order in which it stands there. UTF-8.
std::string pptText(std::string_view stream);

}  // namespace tool
