// A process that starts helper programs for an extractor, one after the other. An
// extractor may start nothing itself: whoever has taken it over has the one program that
// the starter runs for it, which may start none either, and cannot use up the processes
// that others need.
// Tests: tests/tool/helper_program_test.cpp, tests/tool/inspector_test.cpp.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tool {

struct HelperConfinement {
  std::function<void()> confine_starter;
  // Besides what holds for the starter; called with the size of the program's input.
  std::function<void(uint64_t)> confine_program;
};

// To be called before this process takes from itself what the starter needs; otherwise
// the first program brings it about, and nothing is confined. Throws std::runtime_error.
void startHelperStarter(const HelperConfinement& confinement);

struct ProgramEnd {
  int error = 0;        // errno when there was no process to be had
  int exit_status = 0;  // 128 + signal when it was killed, as shells count
};
inline constexpr int kNoSuchProgram = 127;

// Has a program started with these standard files, of which the caller may close his own
// at once, and killed after some seconds. Then awaitProgram() has to be called.
void startProgram(const std::vector<std::string>& command, int in, int out, int err,
                  unsigned seconds);
ProgramEnd awaitProgram();

}  // namespace tool
