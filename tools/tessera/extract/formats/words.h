// Whether a program that read a document found anything in it.
#pragma once

#include <algorithm>
#include <string_view>

namespace tool {

inline bool hasWords(std::string_view utf8) {
  return std::any_of(utf8.begin(), utf8.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           static_cast<unsigned char>(c) >= 0x80;
  });
}

}  // namespace tool
