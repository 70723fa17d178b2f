// Texts, bytes and signatures made from a seed, the same on every platform
// (std::mt19937_64 itself is exactly specified; its distributions are not).
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "signature.h"

namespace documents {

class Random {
 public:
  explicit Random(uint64_t seed) : engine_(seed) {}
  uint64_t next() { return engine_(); }
  uint64_t below(uint64_t bound) { return engine_() % bound; }  // [0, bound)
  bool oneIn(uint64_t n) { return below(n) == 0; }

 private:
  std::mt19937_64 engine_;
};

std::string letters(size_t length, uint64_t seed);  // ASCII letters only: normalises to itself
std::string words(size_t length, uint64_t seed);    // letters, digits, blanks, punctuation, lines
std::string bytes(size_t length, uint64_t seed);    // any bytes

// `count` distinct signatures in ascending order. `spread` is the number of
// different prefixes they crowd into, 1 to 65536.
std::vector<Signature> signatures(size_t count, uint64_t seed, uint32_t spread = 65536);

// A Signature from eight numbers.
Signature signature(std::initializer_list<int> bytes);

// The seed of a random test: TESSERA_SEED when set, else `fixed`. Print it on
// failure with SCOPED_TRACE so that a run can be repeated.
uint64_t seed(uint64_t fixed);

}  // namespace documents
