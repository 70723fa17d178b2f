// What the fuzz targets share: the system in memory, log sinks that format every
// message, and a check that ends the process, which is what the fuzzer looks for.
#pragma once

#include <cstddef>
#include <cstdint>

#include "memory_system.h"

// Not assert(): it holds in every build.
#define FUZZ_CHECK(condition)                                          \
  do {                                                                 \
    if (!(condition)) fuzz::failCheck(__FILE__, __LINE__, #condition); \
  } while (false)

// Both sides are printed; they must be integers.
#define FUZZ_EQUAL(expected, actual)                                                             \
  fuzz::checkEqual(__FILE__, __LINE__, #expected " == " #actual, static_cast<int64_t>(expected), \
                   static_cast<int64_t>(actual))

namespace fuzz {

[[noreturn]] void failCheck(const char* file, int line, const char* what);
void checkEqual(const char* file, int line, const char* what, int64_t expected, int64_t actual);

// The system that the library uses from the first call on, emptied.
MemorySystem& freshSystem();

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
