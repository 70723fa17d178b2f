// A stack in one malloc block, for walks whose depth the data decides.
//
// It grows by a fixed number of entries as soon as it is full, so there is
// always room for one more. Tests: tests/unit/match/growing_stack_test.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "scoped.h"

template <typename T>
class GrowingStack {
 public:
  GrowingStack(size_t capacity, size_t step)
      : entries_(mallocArray<T>(capacity)), capacity_(capacity), step_(step) {}

  bool allocated() const { return entries_ != nullptr; }  // the first block could be had
  bool empty() const { return size_ == 0; }

  T pop() { return entries_[--size_]; }

  // False when the stack is full now and cannot grow: it must not be pushed to
  // again.
  bool push(const T& entry) {
    entries_[size_++] = entry;
    return size_ < capacity_ || grow();
  }

 private:
  bool grow() {
    MallocArray<T> larger = mallocArray<T>(capacity_ + step_);
    if (!larger) return false;
    std::memcpy(larger.get(), entries_.get(), size_ * sizeof(T));
    entries_ = std::move(larger);
    capacity_ += step_;
    return true;
  }

  MallocArray<T> entries_;
  size_t capacity_;
  size_t step_;
  size_t size_ = 0;
};
