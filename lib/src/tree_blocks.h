#pragma once
#include <cstdint>

enum class AccessType { kReadOnly = 1, kReadWrite = 2 };

struct BTreeParams {
  uint32_t leaf_size_min = 0, leaf_size_max = 0, node_size_min = 0, node_size_max = 0;
  uint32_t leaf_block_factor = 1, node_block_factor = 1;
  uint32_t leaf_cache_size = 32, node_cache_size = 64;
};
