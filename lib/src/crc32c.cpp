// By tables, eight bytes a step: table k advances a byte's remainder over k
// further zero bytes, so the eight lookups of a step are independent. By the
// instruction of x86-64 the same eight bytes are one step, which takes three
// times as long as it takes to begin one; so three neighbouring parts of the data
// are under way at a time, and their remainders are put together afterwards.
#include "crc32c.h"

#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

#include <array>
#include <cstring>

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

#if defined(__x86_64__)

constexpr size_t kPartBytes = 1024;  // a power of 2

// What advances a remainder over kPartBytes zero bytes. Advancing is linear, so a
// remainder is the sum of what its four bytes give.
using Advance = std::array<std::array<uint32_t, 256>, 4>;

constexpr Advance makeAdvance() {
  std::array<uint32_t, 32> of_bit = {};  // what one byte, then two, then four ... give
  for (int bit = 0; bit < 32; ++bit) {
    const uint32_t remainder = uint32_t{1} << bit;
    of_bit[bit] = remainder >> 8 ^ kTables[0][remainder & 0xFF];
  }
  for (size_t bytes = 1; bytes < kPartBytes; bytes *= 2) {
    std::array<uint32_t, 32> twice = {};
    for (int bit = 0; bit < 32; ++bit) {
      for (int i = 0; i < 32; ++i) twice[bit] ^= (of_bit[bit] >> i & 1) != 0 ? of_bit[i] : 0;
    }
    of_bit = twice;
  }
  Advance advance = {};
  for (size_t k = 0; k < advance.size(); ++k) {
    for (uint32_t byte = 0; byte < 256; ++byte) {
      for (size_t i = 0; i < 8; ++i)
        advance[k][byte] ^= (byte >> i & 1) != 0 ? of_bit[8 * k + i] : 0;
    }
  }
  return advance;
}

constexpr Advance kAdvance = makeAdvance();

uint64_t loadWord(const unsigned char* bytes) {
  uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

uint32_t advanceOverPart(uint32_t crc) {
  return kAdvance[0][crc & 0xFF] ^ kAdvance[1][crc >> 8 & 0xFF] ^ kAdvance[2][crc >> 16 & 0xFF] ^
         kAdvance[3][crc >> 24];
}

#endif

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
  for (; bytes >= 3 * kPartBytes; bytes -= 3 * kPartBytes, next += 3 * kPartBytes) {
    uint64_t second = 0;
    uint64_t third = 0;
    for (size_t i = 0; i < kPartBytes; i += 8) {
      crc = _mm_crc32_u64(crc, loadWord(next + i));
      second = _mm_crc32_u64(second, loadWord(next + kPartBytes + i));
      third = _mm_crc32_u64(third, loadWord(next + 2 * kPartBytes + i));
    }
    crc = advanceOverPart(static_cast<uint32_t>(crc)) ^ second;
    crc = advanceOverPart(static_cast<uint32_t>(crc)) ^ third;
  }
  for (; bytes >= 8; bytes -= 8, next += 8) crc = _mm_crc32_u64(crc, loadWord(next));
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
