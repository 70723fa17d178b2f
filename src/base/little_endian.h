// Integers in the byte order of every file the library writes.
#pragma once

#include <cstddef>
#include <cstdint>

inline void storeLittle32(unsigned char* out, uint32_t value) {
  for (size_t i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

inline void storeLittle64(unsigned char* out, uint64_t value) {
  for (size_t i = 0; i < 8; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

inline uint32_t loadLittle32(const unsigned char* in) {
  uint32_t value = 0;
  for (size_t i = 4; i-- > 0;) value = value << 8 | in[i];
  return value;
}

inline uint64_t loadLittle64(const unsigned char* in) {
  uint64_t value = 0;
  for (size_t i = 8; i-- > 0;) value = value << 8 | in[i];
  return value;
}
