// Names of members, which are as hostile as everything else in a document.
// Tests: tests/tool/extraction_test.cpp.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

namespace tool {

// `bytes` with what a terminal could choke on or be led astray by (control characters,
// changes of direction, line separators) as "?". Bytes that are no UTF-8 stay.
std::string printable(std::string_view bytes);

// printable(), cut when it is far too long for the name of one member.
std::string memberName(std::string_view bytes);

// "outer!inner", without "!" when there is no outer.
std::string joinNames(std::string_view outer, std::string_view inner);

// What stands behind the last "/" or "\".
std::string_view baseNameOf(std::string_view name);

// Tells equal names in one container apart: "a", "a#2", "a#3".
class UniqueNames {
 public:
  std::string add(const std::string& name);

 private:
  std::unordered_map<std::string, size_t> seen_;  // how often
};

}  // namespace tool
