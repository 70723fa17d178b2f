// The switch between the operating system and a test's stand-in for it.
#include "platform.h"

#include <atomic>

namespace platform {

namespace {
std::atomic<System*> replacement{nullptr};
}

System& current() {
  System* const system = replacement.load(std::memory_order_acquire);
  return system != nullptr ? *system : native();
}

void replace(System* system) { replacement.store(system, std::memory_order_release); }

}  // namespace platform
