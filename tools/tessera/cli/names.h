// How names get from this command to people and other programs.
//
// The name of a file, or of a member in a container, is any bytes. shownName() makes
// text of it that is well-formed UTF-8, without anything that a terminal or a log would
// act upon, and from which the bytes can be had back:
//
//   \\    a backslash
//   \xHH  a byte that is no part of well-formed UTF-8, or of a control character
//         (C0, DEL, C1), a line or paragraph separator, or a mark that reverses text
//
// Everything else stands for itself. Tests: tests/tool/store_units_test.cpp.
#pragma once

#include <string>
#include <string_view>

namespace tool {

std::string shownName(std::string_view name);

}  // namespace tool
