#include "log.h"

#include <atomic>
#include <cstdarg>

#include "tessera_log.h"

namespace tessera {

namespace {

constexpr int kLevels = 5;

struct Sink {
  tessera_log_sink function;
};

// Zeroed at load: no sinks.
std::atomic<Sink> sinks[kLevels];

bool isLevel(int level) { return level >= 1 && level <= kLevels; }

}  // namespace

int log(int level, const char* format, ...) {
  if (!isLevel(level)) return -1;
  const tessera_log_sink sink = sinks[level - 1].load(std::memory_order_acquire).function;
  if (sink == nullptr) return 0;
  va_list arguments;
  va_start(arguments, format);
  const int result = sink(format, arguments);
  va_end(arguments);
  return result;
}

bool hasSink(int level) {
  return isLevel(level) && sinks[level - 1].load(std::memory_order_acquire).function != nullptr;
}

}  // namespace tessera

extern "C" int tessera_set_log_sink(int level, tessera_log_sink sink) {
  if (!tessera::isLevel(level)) return -1;
  tessera::sinks[level - 1].store({sink}, std::memory_order_release);
  return 0;
}
