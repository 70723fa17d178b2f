// Paths of the files in a directory.
#pragma once

#include <string>

// The directory, ending in a separator: "/" is added unless it ends in one.
// Both kinds count on every system, so that a stored path stays what it was.
inline std::string withSeparator(const std::string& directory) {
  if (!directory.empty() && (directory.back() == '\\' || directory.back() == '/')) {
    return directory;
  }
  return directory + "/";
}

inline std::string filePath(const std::string& directory, const std::string& name) {
  return withSeparator(directory) + name;
}
