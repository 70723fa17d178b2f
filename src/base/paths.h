// Paths of the files in a directory.
#pragma once

#include <string>

#include "platform.h"

// The directory, ending in a separator: "/" is added unless it ends in one.
// Both kinds count on every system, so that a stored path stays what it was.
inline std::string withSeparator(const std::string& directory) {
  if (!directory.empty() && (directory.back() == '\\' || directory.back() == '/')) {
    return directory;
  }
  return directory + "/";
}

// Where a file lies, ending in a separator, for System::syncDirectory(): what the
// system takes for a separator, and no other character, ends a directory.
inline std::string directoryOf(const std::string& path) {
  const size_t separator = path.find_last_of(platform::kSeparator == '/' ? "/" : "/\\");
  return separator == std::string::npos ? "." : path.substr(0, separator + 1);
}

inline std::string filePath(const std::string& directory, const std::string& name) {
  return withSeparator(directory) + name;
}
