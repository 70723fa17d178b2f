#include "straightforward.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace {

constexpr size_t kWindow = 61;
constexpr size_t kClientLimit = 10000;
constexpr size_t kPiece = 1024;
constexpr uint64_t kModulus = (uint64_t{1} << 56) - 1;
constexpr uint64_t kOut = 32768;  // 8^61 modulo kModulus

constexpr std::array<bool, 256> makeFilter() {
  std::array<bool, 256> kept{};
  for (int c = 0; c < 256; ++c) {
    kept[static_cast<size_t>(c)] =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c >= 128;
  }
  return kept;
}
constexpr std::array<bool, 256> kKept = makeFilter();

std::vector<unsigned char> compacted(const unsigned char* text, size_t length) {
  std::vector<unsigned char> copy(text, text + length);
  size_t kept = 0;
  for (size_t i = 0; i < length; ++i) {
    if (!kKept[copy[i]]) continue;
    if (kept != i) copy[kept] = copy[i];
    ++kept;
  }
  copy.resize(kept);
  return copy;
}

uint64_t start(const unsigned char* window) {
  uint64_t hash = 0;
  for (size_t i = 0; i < kWindow; ++i) hash = (hash + window[i]) * 8 % kModulus;
  return hash;
}

uint64_t roll(uint64_t hash, unsigned char out, unsigned char in) {
  const uint64_t leaving = out * kOut;
  const uint64_t rest = hash >= leaving ? hash - leaving : hash + kModulus - leaving;
  return (in * uint64_t{8} + rest * 8) % kModulus;
}

Signature fold(const unsigned char* window) {
  Signature signature{};
  for (size_t i = 0; i < kWindow; ++i) signature.bytes[i % 8] += window[i];
  return signature;
}

// Of what a piece selected; all of it when there is no more than that.
void pick(const std::vector<Signature>& of_piece, size_t picks, std::vector<Signature>* list) {
  const size_t count = of_piece.size();
  if (count <= picks) {
    list->insert(list->end(), of_piece.begin(), of_piece.end());
    return;
  }
  for (size_t k = 0; k < picks; ++k) list->push_back(of_piece[(k + 1) * count / (picks + 1)]);
}

}  // namespace

std::vector<Signature> straightforwardSignatures(Platform platform, const unsigned char* text,
                                                 size_t length) {
  const std::vector<unsigned char> kept = compacted(text, length);
  std::vector<Signature> list;
  if (kept.size() < kWindow) return list;
  const size_t windows = kept.size() - kWindow + 1;
  const size_t pieces = kept.size() / kPiece + 1;
  const size_t picks = pieces < 8 ? 8 / pieces : 1;
  std::vector<Signature> of_piece;
  uint64_t hash = start(kept.data());
  for (size_t i = 0; i < windows; ++i) {
    if (i > 0) hash = roll(hash, kept[i - 1], kept[i + kWindow - 1]);
    if (hash % 137 == 0) {
      if (platform == kServer) {
        of_piece.push_back(fold(&kept[i]));
      } else if (list.size() < kClientLimit) {
        list.push_back(fold(&kept[i]));
      }
    }
    if (platform == kServer && ((i + 1) % kPiece == 0 || i + 1 == windows)) {
      pick(of_piece, picks, &list);
      of_piece.clear();
    }
  }
  std::sort(list.begin(), list.end());
  list.erase(std::unique(list.begin(), list.end()), list.end());
  return list;
}
