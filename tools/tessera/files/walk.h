// Finding the files that a verb is to work on: those named, those in lists, and those
// below directories. Names are bytes: one that is not UTF-8 is a name like any other.
// Tests: tests/tool/walk_test.py.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "commands.h"

namespace tool {

struct FoundFile {
  std::string name;            // as the user would say it; "-" for standard input
  std::filesystem::path path;  // absolute, links resolved; empty for standard input
};

struct FoundFiles {
  // Each once: in the order in which they were named, by byte order below a directory.
  std::vector<FoundFile> files;

  std::vector<std::filesystem::path> directories;  // that were named; links resolved

  // What was asked for but could not be looked at: paths as far as they are known, and
  // messages for the user. Files and directories below them may exist all the same.
  std::vector<std::filesystem::path> unseen;
  std::vector<std::string> problems;
};

enum class StandardInput { kNoFile, kTaken };

// The regular files that are meant. What a list names is named; --include concerns only
// what is found below a directory, --exclude and --exclude-dir all, and exclusion wins.
// Pipes, sockets and devices are a problem when they are named, and passed over when
// they are found. Nothing below `left_out`, an absolute path, is looked at. Throws
// Failure when a list cannot be read.
FoundFiles findFiles(const FileChoice& choice, const std::filesystem::path& left_out,
                     StandardInput input = StandardInput::kNoFile);

}  // namespace tool
