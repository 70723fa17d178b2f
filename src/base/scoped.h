// Memory with one owner, released by name when it leaves.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <type_traits>

#include "platform.h"

struct MallocDeleter {
  void operator()(void* block) const { std::free(block); }
};

template <typename T>
using MallocArray = std::unique_ptr<T[], MallocDeleter>;

// An uninitialised malloc block for `count` plain values; release() it to hand
// it to a host, which frees it with FreeSignature(). Null means that memory is
// out, also when the size does not fit into a size_t. A count of 0 asks for 0
// bytes and gives what malloc gives.
template <typename T>
MallocArray<T> mallocArray(size_t count) {
  static_assert(std::is_trivially_copyable_v<T>, "malloc constructs nothing");
  if (count > SIZE_MAX / sizeof(T)) return nullptr;
  return MallocArray<T>(static_cast<T*>(platform::current().allocate(count * sizeof(T))));
}
