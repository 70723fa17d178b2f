// The slow, obvious twin of signature generation: every window is hashed
// afresh, every list is a std::set, nothing is carried from one window to the
// next. It shares no code and no constant with the library.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace twin {

using Bytes = std::array<unsigned char, 8>;
using List = std::vector<Bytes>;  // ascending, no two equal

enum class Family { kKarpRabin, kAdler };

inline unsigned at(const std::string& text, size_t i) {
  return static_cast<unsigned char>(text[i]);
}

inline std::string normalised(const std::string& text, size_t max_content_size) {
  std::string kept;
  for (size_t i = 0; i < text.size() && kept.size() < max_content_size; ++i) {
    const unsigned c = at(text, i);
    const bool digit = c >= 48 && c <= 57;
    const bool upper = c >= 65 && c <= 90;
    const bool lower = c >= 97 && c <= 122;
    if (digit || upper || lower || c > 127) kept += text[i];
  }
  return kept;
}

// Sum of c * 8^(61-i) modulo 2^56 - 1: doubled three times per byte, with one
// subtraction at most after each step, so that no division takes part.
inline uint64_t karpRabin(const std::string& text, size_t window) {
  constexpr uint64_t kModulus = 72057594037927935u;
  uint64_t hash = 0;
  for (size_t i = 0; i < 61; ++i) {
    hash += at(text, window + i);
    if (hash >= kModulus) hash -= kModulus;
    for (int doubling = 0; doubling < 3; ++doubling) {
      hash += hash;
      if (hash >= kModulus) hash -= kModulus;
    }
  }
  return hash;
}

// Low half 1 + the sum of the bytes; high half the sum of the 61 running sums,
// in which byte i takes part 61 - i times.
inline uint64_t adler(const std::string& text, size_t window) {
  uint64_t low = 1;
  uint64_t high = 61;
  for (size_t i = 0; i < 61; ++i) {
    low += at(text, window + i);
    high += (61 - i) * at(text, window + i);
  }
  return high * 4294967296u + low;
}

inline uint64_t hash(Family family, const std::string& text, size_t window) {
  return family == Family::kKarpRabin ? karpRabin(text, window) : adler(text, window);
}

inline Bytes signature(const std::string& text, size_t window) {
  Bytes bytes = {};
  for (size_t k = 0; k < 8; ++k) {
    unsigned sum = 0;
    for (size_t i = k; i < 61; i += 8) sum += at(text, window + i);
    bytes[k] = static_cast<unsigned char>(sum % 256);
  }
  return bytes;
}

// The signatures of the selected windows that start in [begin, end), in order.
inline List selected(Family family, const std::string& text, size_t begin, size_t end) {
  List list;
  for (size_t window = begin; window < end; ++window) {
    if (hash(family, text, window) % 137 == 0) list.push_back(signature(text, window));
  }
  return list;
}

inline List sorted(const List& list) {
  const std::set<Bytes> distinct(list.begin(), list.end());
  return {distinct.begin(), distinct.end()};
}

inline List client(Family family, const std::string& text, size_t max_content_size) {
  const std::string kept = normalised(text, max_content_size);
  if (kept.size() < 61) return {};
  List list = selected(family, kept, 0, kept.size() - 60);
  if (list.size() > 10000) list.resize(10000);
  return sorted(list);
}

inline List server(Family family, const std::string& text, size_t max_content_size) {
  const std::string kept = normalised(text, max_content_size);
  if (kept.size() < 61) return {};
  const size_t pieces = kept.size() / 1024 + 1;
  size_t wanted = 1;
  if (pieces == 1) wanted = 8;
  if (pieces == 2) wanted = 4;
  if (pieces == 3 || pieces == 4) wanted = 2;
  List picked;
  for (size_t i = 0; i < pieces; ++i) {
    const List piece =
        selected(family, kept, i * 1024, std::min(i * 1024 + 1024, kept.size() - 60));
    for (size_t k = 1; k <= wanted && piece.size() > wanted; ++k) {
      picked.push_back(piece[piece.size() * k / (wanted + 1)]);
    }
    if (piece.size() <= wanted) picked.insert(picked.end(), piece.begin(), piece.end());
  }
  return sorted(picked);
}

inline List binary(const std::string& content) {
  const size_t length = content.size();
  size_t step = 1;
  if (length > 20) step = length / 20;
  if (length >= 10240) step = 512;
  // Up to three bytes have no sample that fits: each position counts as far as
  // the content goes.
  const size_t end = length < 4 ? length : length - 4;
  unsigned sums[4] = {};
  for (size_t position = 0; position < end; position += step) {
    for (size_t k = 0; k < 4 && position + k < length; ++k) sums[k] += at(content, position + k);
  }
  Bytes bytes;
  for (size_t k = 0; k < 4; ++k) bytes[k] = static_cast<unsigned char>(sums[k] % 256);
  size_t rest = length % 65536;
  for (size_t k = 8; k-- > 4; rest /= 16) {
    bytes[k] = static_cast<unsigned char>("0123456789abcdef"[rest % 16]);
  }
  return {bytes};
}

}  // namespace twin
