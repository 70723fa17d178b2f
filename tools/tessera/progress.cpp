#include "progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

namespace tool {

Progress::Progress() : enabled_(::isatty(STDERR_FILENO) == 1) {}

void Progress::count(const std::string& what, size_t done, size_t total) {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + std::chrono::milliseconds(100);
  say(fmt::format("{} {} of {}", what, done, total));
}

void Progress::say(const std::string& what) {
  if (!enabled_) return;
  fmt::print(stderr, "\r{}\033[K", what);
  shown_ = true;
}

void Progress::clear() {
  if (shown_) fmt::print(stderr, "\r\033[K");
  shown_ = false;
}

}  // namespace tool
