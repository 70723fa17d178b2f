// The two rolling hashes that select windows, and the fold that turns a
// selected window into its signature.
//
// A window is 61 bytes of normalised text. Its hash only decides whether it is
// taken; the signature is the fold of its bytes, so the two families differ in
// the windows they take but not in what a window becomes.
//
//   Karp-Rabin   sum of c_i * 8^(61-i) mod 2^56 - 1. The last byte bears a
//                factor of the base, too; the roll relies on it.
//   Adler        a = 1 + sum of c_i, b = the sum of a after each byte;
//                value = b << 32 | a. No modulus.
//
// Both rolls take what the leaving byte contributed from the out-tables that
// initTextSignaturer() builds. Tests: tests/unit/generation/rolling_hash_test.cpp.
#pragma once

#define LOG_TAG "null"  // whoever includes this logs with the same tag

#include <cstdint>

#include "fpeSigGenTable.h"
#include "log.h"
#include "signature.h"
#include "status.h"

inline constexpr uint64_t kKarpRabinModulus = (uint64_t{1} << 56) - 1;

// ---- Karp-Rabin ----

inline uint64_t karpRabinStart(const unsigned char* window) {
  uint64_t hash = 0;
  for (int i = 0; i < DLP_SLIDE_WINDOW; ++i) {
    hash = (hash + window[i]) * DLP_BASE % kKarpRabinModulus;
  }
  return hash;
}

// The hash of the window one byte further on. `out` is the first byte of the
// old window, `in` the byte behind it. An entry of the out-table may exceed the
// hash, which is below the modulus; one modulus more then keeps the difference
// from going below zero. No intermediate value exceeds 2^60.
inline uint64_t calcNextHashValueByIteration(uint64_t hash, unsigned char out, unsigned char in,
                                             uint64_t base) {
  const uint64_t leaving = text_signaturer.karp_rabin_out[out];
  uint64_t rest;
  if (hash >= leaving) {
    rest = hash - leaving;
  } else {
    LOG_ERROR("overflow occurs v0(%u) tmp(%u)", static_cast<unsigned>(hash),
              static_cast<unsigned>(leaving));
    rest = hash + kKarpRabinModulus - leaving;
  }
  return (in * base + rest * base) % kKarpRabinModulus;
}

// ---- Adler ----

inline uint64_t adlerValue(uint32_t a, uint32_t b) { return uint64_t{b} << 32 | a; }

inline uint64_t adlerStart(const unsigned char* window) {
  uint32_t a = 1;
  uint32_t b = 0;
  for (int i = 0; i < DLP_SLIDE_WINDOW; ++i) {
    a += window[i];
    b += a;
  }
  return adlerValue(a, b);
}

inline uint64_t adlerRoll(uint64_t value, unsigned char out, unsigned char in) {
  const uint32_t a = static_cast<uint32_t>(value) + in - out;
  const uint32_t leaving = static_cast<uint32_t>(text_signaturer.adler_out[out]);
  const uint32_t b = static_cast<uint32_t>(value >> 32) + a - leaving - 1;
  return adlerValue(a, b);
}

// ---- Signature ----

// Adds the window's bytes into eight sums in turn; the signature is their low
// bytes. Returns 0, or -3 when the window is not 61 bytes long.
inline int fold(const unsigned char* begin, const unsigned char* end, Signature* signature) {
  if (end - begin != DLP_SLIDE_WINDOW) return kErrParam;
  uint32_t sums[8] = {};
  for (int i = 0; i < DLP_SLIDE_WINDOW; ++i) sums[i % 8] += begin[i];
  for (int k = 0; k < 8; ++k) signature->bytes[k] = static_cast<unsigned char>(sums[k]);
  return kOk;
}
