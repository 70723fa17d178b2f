// What the golden files are made from.
#pragma once

#include <cstdint>

namespace golden {

inline constexpr uint64_t kSeed = 20250305;

}  // namespace golden
