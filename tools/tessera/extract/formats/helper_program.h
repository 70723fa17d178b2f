// Runs a program that turns a document into text: pdftotext, catdoc, xls2csv. It gets the
// document on its standard input, which is a file in memory that it may also open by
// name, and is held like the extractor (helper_starter.h).
// Tests: tests/tool/helper_program_test.cpp.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "extract/extraction.h"

namespace tool {

// For programs that want a file name, or to seek.
inline constexpr char kHelperInput[] = "/proc/self/fd/0";

struct HelperResult {
  std::string output;
  std::string errors;   // the beginning of what it wrote to standard error
  int exit_status = 0;  // 128 + signal when it was killed, as shells count
};

// command[0] is searched for in the PATH. Throws NotInspected: when there is no such
// program (kUnsupported) or no process for it (kProcessLimit), when it takes longer than the
// document may (kTimeLimit), when it writes more than limits().total_bytes (kSizeLimit). The exit
// status is the caller's to judge.
HelperResult runHelper(const std::vector<std::string>& command, std::string_view input,
                       const Document& document);

// Whether it failed because it may not have more memory (limits().memory_bytes).
bool ranOutOfMemory(const HelperResult& result);

}  // namespace tool
