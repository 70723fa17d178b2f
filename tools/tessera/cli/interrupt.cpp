#include "cli/interrupt.h"

#include <atomic>
#include <csignal>

namespace tool {

namespace {

std::atomic<bool> noted = false;
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

}  // namespace

void finishOnInterrupt() {
  struct sigaction action = {};
  action.sa_handler = [](int) { noted = true; };
  action.sa_flags = static_cast<int>(SA_RESETHAND) | SA_RESTART;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() { return noted; }

}  // namespace tool
