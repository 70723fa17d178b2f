// A scoped lock on a POSIX mutex. Tests: tests/unit/index/mutex_aux_test.cpp.
#pragma once

#include <pthread.h>

namespace dlp_btree {

// Holds `mutex` while it lives. A lock or unlock that fails is logged and
// nothing more: the code it was to guard runs all the same.
class Mutex_Aux {
 public:
  explicit Mutex_Aux(pthread_mutex_t* mutex);
  ~Mutex_Aux();
  Mutex_Aux(const Mutex_Aux&) = delete;
  Mutex_Aux& operator=(const Mutex_Aux&) = delete;

 private:
  pthread_mutex_t* const mutex_;
};

}  // namespace dlp_btree
