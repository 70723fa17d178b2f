#include "harness.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "tessera_log.h"

namespace fuzz {

namespace {

// A message whose arguments do not fit its format, or a name without an end, is
// found here by the sanitizers.
int formatMessage(const char* format, va_list arguments) {
  char message[2048];
  return std::vsnprintf(message, sizeof message, format, arguments);
}

}  // namespace

void failCheck(const char* file, int line, const char* what) {
  std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
  std::abort();
}

void checkEqual(const char* file, int line, const char* what, int64_t expected, int64_t actual) {
  if (expected == actual) return;
  std::fprintf(stderr, "%s:%d: check failed: %s, which is %" PRId64 " and %" PRId64 "\n", file,
               line, what, expected, actual);
  std::abort();
}

MemorySystem& freshSystem() {
  // Never destroyed: the library's static objects close their files after main().
  static MemorySystem* const system = [] {
    auto* const made = new MemorySystem;
    platform::replace(made);
    for (int level = 1; level <= 5; ++level) tessera_set_log_sink(level, formatMessage);
    return made;
  }();
  system->clear();
  return *system;
}

}  // namespace fuzz
