// What a text signature spends its time on, in a form for each kind of
// processor: dropping the bytes that carry no text, and finding the windows
// whose Karp-Rabin hash 137 divides.
//
// A text is cut into as many streams as a kernel carries on at once; each rolls
// over its own part from a start value of its own. All kernels work on
//
//   g(p) = sum of c_i * 8^(60-i) modulo M = 2^56 - 1, an eighth of the hash of
//   the window at p: the hash is g turned left by three of its 56 bits, and
//
//   g(p + 1) = hash(p) + entering byte - (leaving byte << 15)
//
// since 8^61 = 2^183 = 2^(3 * 56 + 15) is 2^15 modulo M. From a g in [0, M) this lies in
// [-2^23, M + 254], so at most one M has to be added or taken away, and hardly
// ever has to be.
//
// Kernels agree with each other and with getHashValues_KR() on every input.
// Tests: tests/unit/generation/text_kernel_test.cpp and
// tests/property/text_kernel_property_test.cpp.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "fpeSigGenTable.h"

// The kernels other than the portable one need instructions that only this
// processor family has, and compilers that can be told so function by function.
#if defined(__x86_64__) && defined(__GNUC__)
#define TESSERA_X86_KERNELS 1
#else
#define TESSERA_X86_KERNELS 0
#endif

// Room that a kernel takes beyond what it is asked for.
inline constexpr size_t kTextSlack = 512;      // bytes: read behind a normalised text
inline constexpr size_t kKeptSlack = 64;       // bytes: written behind those that are kept
inline constexpr size_t kSelectedSlack = 512;  // bits: written behind those of the windows

struct TextKernel {
  const char* name;

  // Leaves in `kept` the bytes of a text that carry text and returns how many
  // they are. Reads no byte beyond `length`; `kept` has room for
  // length + kKeptSlack, and may not overlap the text.
  size_t (*normalise)(const unsigned char* text, size_t length, unsigned char* kept);

  // Leaves in bit i % 64 of selected[i / 64] whether the window at text + i is
  // selected, i < windows. The bits behind them, up to kSelectedSlack, are left
  // with anything. The bytes behind the last window, up to kTextSlack, must be
  // readable; what they hold does not matter.
  void (*select)(const unsigned char* text, size_t windows, uint64_t* selected);
};

extern const TextKernel kPortableKernel;  // four scalar streams, any processor
#if TESSERA_X86_KERNELS
extern const TextKernel kAvx2Kernel;
extern const TextKernel kAvx512Kernel;
#endif

// Those that this processor can run, the fastest first. normalise() uses the character
// filter that initTextSignaturer() builds; select() needs nothing.
std::span<const TextKernel* const> supportedKernels();

// ---- What the kernels share ----

inline constexpr int kHashBits = 56;
inline constexpr uint64_t kHashModulus = (uint64_t{1} << kHashBits) - 1;

// A product with the inverse is at most kMultiples for the multiples of 137,
// and larger for all other numbers of 64 bits.
inline constexpr uint64_t kInverse = 0xE21A291C077975B9u;
inline constexpr uint64_t kMultiples = UINT64_MAX / DLP_PRIME;

// Eight bytes, the first one lowest, whatever the order of the host's bytes.
inline uint64_t loadWord(const unsigned char* bytes) {
  uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return std::endian::native == std::endian::little ? word : __builtin_bswap64(word);
}

// The windows of one of `streams` equal parts, a multiple of `unit`; all
// together may be more than there are windows.
inline size_t streamWindows(size_t windows, size_t streams, size_t unit) {
  return (windows + streams * unit - 1) / (streams * unit) * unit;
}

// 137 divides a hash if it divides the sum of its bytes, byte k times what 256^k is
// modulo 137; or 32 times that sum, which is never far from 0 with these factors:
// congruent to 32 * 256^k, the positive or the negative ones.
inline constexpr int kByteFactors[8] = {32, -28, -44, -30, -8, 7, 11, 0};
inline constexpr int kLowestByteSum = -255 * (28 + 44 + 30 + 8);
inline constexpr int kHighestByteSum = 255 * (32 + 7 + 11);

constexpr bool factorsAreCongruent() {
  int power = 32;
  for (int k = 0; k < 7; ++k) {
    if ((power - kByteFactors[k]) % DLP_PRIME != 0) return false;
    power = power * 256 % DLP_PRIME;
  }
  return true;
}
static_assert(factorsAreCongruent());

// The factors as the eight bytes of a word.
constexpr uint64_t byteFactors() {
  uint64_t word = 0;
  for (int k = 8; k-- > 0;) word = word << 8 | static_cast<unsigned char>(kByteFactors[k]);
  return word;
}
