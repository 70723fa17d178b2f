// What the tessera command can do, one function per verb. Each returns the
// exit status and throws Failure (failure.h) when it has to give up: main.cpp
// turns that into a message and the status 2. Tests: tests/tool/tool_test.py.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tool {

inline constexpr int kDone = 0;     // also: match found nothing
inline constexpr int kMatched = 1;  // match found a document
inline constexpr int kFailed = 2;   // something could not be done; stderr says what

// Adds the files at and below `paths` to the index, or renews them.
int indexCommand(const std::filesystem::path& home, const std::vector<std::string>& paths);

// Prints which documents of the index share passages with each of `files`,
// as far as they reach `min_level` (0, 1 or 2).
int matchCommand(const std::filesystem::path& home, const std::vector<std::string>& files,
                 int min_level);

// Prints the signatures of one file. The home lends its settings when it has any.
int sigCommand(const std::filesystem::path& home, const std::string& file);

}  // namespace tool
