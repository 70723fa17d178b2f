#include "mm_register.h"

#include <algorithm>
#include <new>

#include "tpie_log.h"

namespace {

int instances = 0;

// Makes the one instance at load.
struct Initialiser {
  Initialiser() { MM_register_base::instance().set_memory_limit(0); }
} initialiser;

}  // namespace

MM_register_base& MM_register_base::instance() {
  alignas(MM_register_base) static unsigned char storage[sizeof(MM_register_base)];
  static MM_register_base& one = *new (storage) MM_register_base;
  return one;
}

MM_register_base::MM_register_base() {
  ++instances;
  TPIE_ASSERT(instances == 1, "Only 1 instance of MM_register_base should exist.");
}

MM_register_base::~MM_register_base() { --instances; }

bool MM_register_base::register_allocation(size_t bytes) {
  if (limit_ != 0 && (used_ > limit_ || bytes > limit_ - used_)) {
    TPIE_LOG("memory limit of " + std::to_string(limit_) + " bytes reached");
    return false;
  }
  used_ += bytes;
  return true;
}

void MM_register_base::register_deallocation(size_t bytes) {
  TPIE_ASSERT(bytes <= used_, "More memory is given back than was registered.");
  used_ -= std::min(bytes, used_);
}
