#include "window_scan.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "rolling_hash.h"
#include "scoped.h"

namespace {

constexpr size_t kWindowRest = DLP_SLIDE_WINDOW - 1;

// Normalised bytes per piece: few, since the place of each takes eight more.
constexpr size_t kPiece = 8 << 10;
constexpr size_t kWords = (kPiece + kSelectedSlack) / 64 + 1;

constexpr std::array<bool, 256> carryingBytes() {
  std::array<bool, 256> carrying = {};
  for (int c = 0; c < 256; ++c) carrying[static_cast<size_t>(c)] = carriesText(c);
  return carrying;
}
constexpr std::array<bool, 256> kCarriesText = carryingBytes();

// A piece of the text without the bytes that carry none.
struct Piece {
  size_t filled;
  uint64_t places[kPiece];  // of each byte, in the text
  unsigned char bytes[kPiece + kTextSlack];
  uint64_t selected[kWords];

  // Fills up from text[*position] on. Every byte is written and only those that
  // stay move the end on: no branch to mispredict.
  void fill(const unsigned char* text, size_t length, size_t* position) {
    size_t end = filled;
    size_t i = *position;
    for (; i < length && end < kPiece; ++i) {
      bytes[end] = text[i];
      places[end] = i;
      end += kCarriesText[text[i]] ? 1 : 0;
    }
    filled = end;
    *position = i;
    std::memset(bytes + end, 0, kTextSlack);
  }

  size_t windows() const { return filled > kWindowRest ? filled - kWindowRest : 0; }

  void drop(size_t count) {
    filled -= count;
    std::memmove(bytes, bytes + count, filled);
    std::memmove(places, places + count, filled * sizeof *places);
  }

  FoundWindow window(size_t i) const {
    FoundWindow found = {places[i], places[i + kWindowRest] + 1, {}};
    fold(bytes + i, bytes + i + DLP_SLIDE_WINDOW, &found.signature);
    return found;
  }
};

// False when the sink ended it.
bool handOut(const Piece& piece, WindowSink sink, void* context) {
  const size_t windows = piece.windows();
  for (size_t first = 0; first < windows; first += 64) {
    uint64_t bits = piece.selected[first / 64];
    if (windows - first < 64) bits &= (uint64_t{1} << (windows - first)) - 1;
    for (; bits != 0; bits &= bits - 1) {
      const size_t i = first + static_cast<size_t>(std::countr_zero(bits));
      if (sink(piece.window(i), context) != 0) return false;
    }
  }
  return true;
}

}  // namespace

ScanResult scanWindows(const TextKernel& kernel, const unsigned char* text, size_t length,
                       WindowSink sink, void* context) {
  const MallocArray<Piece> memory = mallocArray<Piece>(1);
  if (!memory) return ScanResult::kNoMemory;
  Piece& piece = memory[0];
  piece.filled = 0;
  for (size_t position = 0; position < length;) {
    piece.fill(text, length, &position);
    const size_t windows = piece.windows();
    if (windows == 0) continue;
    kernel.select(piece.bytes, windows, piece.selected);
    if (!handOut(piece, sink, context)) return ScanResult::kStopped;
    piece.drop(windows);
  }
  return ScanResult::kDone;
}
