// How far a text goes on in plain ASCII: eight bytes at a time, since most texts are
// that nearly everywhere.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace tool {

// The position of the first byte from `at` on that is above 127 or a CR; the size when
// there is none.
inline size_t asciiRunEnd(std::string_view bytes, size_t at) {
  constexpr uint64_t kOnes = 0x0101010101010101;
  constexpr uint64_t kHighBits = kOnes * 0x80;
  if constexpr (std::endian::native == std::endian::little) {
    for (; at + 8 <= bytes.size(); at += 8) {
      uint64_t eight;
      std::memcpy(&eight, bytes.data() + at, 8);
      const uint64_t without_cr = eight ^ (kOnes * '\r');  // a CR has become a zero
      // Exact up to the first zero byte, which is all that is asked for.
      const uint64_t stop = (eight | ((without_cr - kOnes) & ~without_cr)) & kHighBits;
      if (stop != 0) return at + static_cast<size_t>(std::countr_zero(stop)) / 8;
    }
  }
  while (at < bytes.size() && bytes[at] != '\r' && static_cast<unsigned char>(bytes[at]) < 0x80) {
    ++at;
  }
  return at;
}

}  // namespace tool
