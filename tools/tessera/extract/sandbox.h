// What an extractor takes from itself before it looks at the first document. What only
// whoever starts it can take (namespaces) is in inspect/confined_command.h.
// Tests: tests/tool/inspector_test.cpp.
#pragma once

#include <cstdint>
#include <string>

#include "extract/helper_starter.h"
#include "extract/limits.h"

namespace tool {

// For the rest of the process and of all that it starts. Throws std::runtime_error when
// something that must hold cannot be had. Returns what holds, for the user:
// "seccomp, rlimits".
std::string confineProcess(const Limits& limits);

// What one document of `file_bytes` may take of the processor, of memory and of files.
void confineDocument(const Limits& limits, uint64_t file_bytes);

// The process that starts helper programs, and these: the same, but that it may start
// programs, and they may not.
HelperConfinement helperConfinement(const Limits& limits);

}  // namespace tool
