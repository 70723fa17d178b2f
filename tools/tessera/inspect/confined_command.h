// Starts an extractor in namespaces of its own, by bubblewrap.
// Tests: tests/tool/inspector_test.cpp.
#pragma once

#include <string>
#include <vector>

namespace tool {

// The command line that runs `program`: without network, without processes but its own,
// and with no files but the system's programs and libraries, read-only.
std::vector<std::string> confinedCommand(const std::string& program);

}  // namespace tool
