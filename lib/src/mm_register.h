// Accounting of the memory that the store takes for its caches.
//
// Whoever takes a large block registers its size first and gives it back when
// the block goes. A registration that would pass the limit is refused. The
// library runs without a limit. Not thread-safe, like the trees that use it.
// Tests: tests/unit/store/mm_register_test.cpp.
#pragma once

#include <cstddef>

class MM_register_base {
 public:
  // There should be no instance but this one. It exists from the load of the
  // library on, or from its first use if that comes earlier, and is never
  // destroyed: trees may be closed while the library is unloaded.
  static MM_register_base& instance();

  // Any further one is reported in the runtime's log, when that is enabled,
  // and works on its own.
  MM_register_base();
  ~MM_register_base();
  MM_register_base(const MM_register_base&) = delete;
  MM_register_base& operator=(const MM_register_base&) = delete;

  void set_memory_limit(size_t bytes) { limit_ = bytes; }  // 0: no limit is enforced
  size_t memory_limit() const { return limit_; }
  size_t memory_used() const { return used_; }

  bool register_allocation(size_t bytes);    // false: the limit would be passed; nothing changed
  void register_deallocation(size_t bytes);  // of what was registered before

 private:
  size_t limit_ = 0;
  size_t used_ = 0;
};
