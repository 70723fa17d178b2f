// By tables, eight bytes a step: table k advances a byte's remainder over k
// further zero bytes, so the eight lookups of a step are independent. By the
// instruction of x86-64 the same eight bytes are one step.
#include "crc32c.h"

#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

#include <array>

#include "little_endian.h"

namespace {

constexpr uint32_t kReflectedPolynomial = 0x82F63B78u;

using Tables = std::array<std::array<uint32_t, 256>, 8>;

constexpr Tables makeTables() {
  Tables tables = {};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t remainder = byte;
    for (int bit = 0; bit < 8; ++bit) {
      remainder = remainder >> 1 ^ ((remainder & 1) != 0 ? kReflectedPolynomial : 0);
    }
    tables[0][byte] = remainder;
  }
  for (size_t k = 1; k < tables.size(); ++k) {
    for (uint32_t byte = 0; byte < 256; ++byte) {
      const uint32_t previous = tables[k - 1][byte];
      tables[k][byte] = previous >> 8 ^ tables[0][previous & 0xFF];
    }
  }
  return tables;
}

constexpr Tables kTables = makeTables();

}  // namespace

uint32_t crc32c(const void* data, size_t bytes, uint32_t before) {
  static const bool has_instruction = hasCrc32cInstruction();
  return has_instruction ? crc32cByInstruction(data, bytes, before)
                         : crc32cByTables(data, bytes, before);
}

uint32_t crc32cByTables(const void* data, size_t bytes, uint32_t before) {
  const unsigned char* next = static_cast<const unsigned char*>(data);
  uint32_t crc = ~before;
  for (; bytes >= 8; bytes -= 8, next += 8) {
    const uint64_t word = loadLittle64(next) ^ crc;
    crc = 0;
    for (size_t i = 0; i < 8; ++i) crc ^= kTables[7 - i][word >> (8 * i) & 0xFF];
  }
  for (; bytes > 0; --bytes, ++next) crc = crc >> 8 ^ kTables[0][(crc ^ *next) & 0xFF];
  return ~crc;
}

#if defined(__x86_64__)

bool hasCrc32cInstruction() { return __builtin_cpu_supports("sse4.2"); }

__attribute__((target("sse4.2"))) uint32_t crc32cByInstruction(const void* data, size_t bytes,
                                                               uint32_t before) {
  const unsigned char* next = static_cast<const unsigned char*>(data);
  uint64_t crc = ~before;
  for (; bytes >= 8; bytes -= 8, next += 8) crc = _mm_crc32_u64(crc, loadLittle64(next));
  auto rest = static_cast<uint32_t>(crc);
  for (; bytes > 0; --bytes, ++next) rest = _mm_crc32_u8(rest, *next);
  return ~rest;
}

#else

bool hasCrc32cInstruction() { return false; }

uint32_t crc32cByInstruction(const void* data, size_t bytes, uint32_t before) {
  return crc32cByTables(data, bytes, before);
}

#endif
