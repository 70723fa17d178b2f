// The 8-byte signature and its order.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

// Eight unsigned bytes, laid out like the `unsigned char[8]` of the public
// header, so that lists cross the interface as they are.
struct Signature {
  unsigned char bytes[8];
};
static_assert(sizeof(Signature) == 8 && alignof(Signature) == 1,
              "lists are arrays of unsigned char[8]");

// A number as its bytes stand in memory, the first being the most significant;
// and back.
inline uint64_t bigEndian(uint64_t value) {
  return std::endian::native == std::endian::little ? __builtin_bswap64(value) : value;
}

// The signature as a number whose order is that of memcmp over the bytes.
inline uint64_t signatureKey(const Signature& signature) {
  uint64_t key;
  std::memcpy(&key, signature.bytes, sizeof key);
  return bigEndian(key);
}

// The signature with this key.
inline Signature signatureOf(uint64_t key) {
  key = bigEndian(key);
  Signature signature;
  std::memcpy(signature.bytes, &key, sizeof key);
  return signature;
}

// 1, -1 or 0, as memcmp orders the eight bytes.
inline int compareSignatures(const Signature& left, const Signature& right) {
  const uint64_t l = signatureKey(left);
  const uint64_t r = signatureKey(right);
  return l > r ? 1 : l < r ? -1 : 0;
}

inline bool operator==(const Signature& left, const Signature& right) {
  return std::memcmp(left.bytes, right.bytes, sizeof left.bytes) == 0;
}

inline bool operator<(const Signature& left, const Signature& right) {
  return signatureKey(left) < signatureKey(right);
}

// The big-endian value of the first two bytes: the index into a prefix directory.
inline uint32_t signaturePrefix(const Signature& signature) {
  return static_cast<uint32_t>(signature.bytes[0]) << 8 | signature.bytes[1];
}
