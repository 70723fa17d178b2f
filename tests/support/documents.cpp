#include "documents.h"

#include <algorithm>
#include <cstdlib>
#include <set>

namespace documents {

namespace {

std::string fromAlphabet(const std::string& alphabet, size_t length, uint64_t seed) {
  Random random(seed);
  std::string text(length, '\0');
  for (char& c : text) c = alphabet[random.below(alphabet.size())];
  return text;
}

const std::string kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

}  // namespace

std::string letters(size_t length, uint64_t seed) { return fromAlphabet(kLetters, length, seed); }

std::string words(size_t length, uint64_t seed) {
  return fromAlphabet(kLetters + "0123456789      ,.;:-\r\n\t\xe9\xc3", length, seed);
}

std::string bytes(size_t length, uint64_t seed) {
  Random random(seed);
  std::string text(length, '\0');
  for (char& c : text) c = static_cast<char>(random.below(256));
  return text;
}

std::vector<Signature> signatures(size_t count, uint64_t seed, uint32_t spread) {
  Random random(seed);
  std::set<Signature> distinct;
  while (distinct.size() < count) {
    const uint64_t prefix = random.below(spread) * (65536 / spread);
    const uint64_t rest = random.next();
    Signature made;
    made.bytes[0] = static_cast<unsigned char>(prefix >> 8);
    made.bytes[1] = static_cast<unsigned char>(prefix);
    for (int i = 2; i < 8; ++i) made.bytes[i] = static_cast<unsigned char>(rest >> (8 * i));
    distinct.insert(made);
  }
  return {distinct.begin(), distinct.end()};
}

Signature signature(std::initializer_list<int> bytes) {
  Signature made = {};
  std::transform(bytes.begin(), bytes.end(), made.bytes,
                 [](int byte) { return static_cast<unsigned char>(byte); });
  return made;
}

uint64_t seed(uint64_t fixed) {
  const char* const given = std::getenv("TESSERA_SEED");
  return given != nullptr ? std::strtoull(given, nullptr, 0) : fixed;
}

}  // namespace documents
