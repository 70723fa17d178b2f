// The kernel for any processor.
//
// One roll waits for the one before it, about six cycles, so four streams are
// carried on side by side in general registers. Selected windows are collected
// bit by bit in one word per stream and 64 windows.
#include "text_kernel.h"

namespace {

constexpr size_t kStreams = 4;
constexpr size_t kBlock = 64;  // windows of a stream per word of bits

uint64_t turn(uint64_t g, int bits) { return (g << bits & kHashModulus) | g >> (kHashBits - bits); }

// The sum of b_k * 8^(7-k) of eight bytes: neighbours are joined to numbers of
// twice the width, three times.
uint64_t horner(uint64_t bytes) {
  constexpr uint64_t kBytes = 0x00FF00FF00FF00FF;
  constexpr uint64_t kPairs = 0x0000FFFF0000FFFF;
  const uint64_t pairs = ((bytes & kBytes) << 3) + (bytes >> 8 & kBytes);
  const uint64_t fours = ((pairs & kPairs) << 6) + (pairs >> 16 & kPairs);
  return ((fours & 0xFFFFFFFF) << 12) + (fours >> 32);
}

// A number below 2^57 - 1 brought into [0, M], where M stands for 0, too.
uint64_t reduce(uint64_t sum) { return (sum & kHashModulus) + (sum >> kHashBits); }

// g of the window at `text`, whose 61 bytes are seven words and five bytes.
uint64_t startValue(const unsigned char* text) {
  constexpr uint64_t kFiveBytes = 0xFFFFFFFFFF;
  uint64_t sum = 0;
  for (int i = 0; i < 7; ++i) sum = reduce(turn(sum, 24) + horner(loadWord(text + 8 * i)));
  // Three bytes less: their three bits each are taken back.
  sum = reduce(turn(sum, 15) + (horner(loadWord(text + 56) & kFiveBytes) >> 9));
  return sum == kHashModulus ? 0 : sum;
}

// Moves a stream on by one window, and notes in bit `i` of `bits` if the one it
// leaves is selected. Both branches are hardly ever taken, which makes them cheaper
// than arithmetic in their place.
inline uint64_t step(uint64_t g, const unsigned char* window, size_t i, uint64_t* bits) {
  const uint64_t hash = turn(g, 3);
  if (hash * kInverse <= kMultiples) [[unlikely]]
    *bits |= uint64_t{1} << i;
  uint64_t next = hash + window[DLP_SLIDE_WINDOW] - (uint64_t{window[0]} << 15);
  if (next >= kHashModulus) [[unlikely]] {
    next += next >> 63 != 0 ? kHashModulus : 0 - kHashModulus;
  }
  return next;
}

void select(const unsigned char* text, size_t windows, uint64_t* selected) {
  const size_t length = streamWindows(windows, kStreams, kBlock);
  const unsigned char* const text1 = text + length;
  const unsigned char* const text2 = text1 + length;
  const unsigned char* const text3 = text2 + length;
  const size_t words = length / kBlock;
  uint64_t g0 = startValue(text);
  uint64_t g1 = startValue(text1);
  uint64_t g2 = startValue(text2);
  uint64_t g3 = startValue(text3);
  for (size_t word = 0; word < words; ++word) {
    uint64_t* const bits0 = selected + word;
    uint64_t* const bits1 = bits0 + words;
    uint64_t* const bits2 = bits1 + words;
    uint64_t* const bits3 = bits2 + words;
    *bits0 = *bits1 = *bits2 = *bits3 = 0;
    const size_t block = word * kBlock;
    for (size_t i = 0; i < kBlock; ++i) {
      g0 = step(g0, text + block + i, i, bits0);
      g1 = step(g1, text1 + block + i, i, bits1);
      g2 = step(g2, text2 + block + i, i, bits2);
      g3 = step(g3, text3 + block + i, i, bits3);
    }
  }
}

// Every byte is written and only those that stay move the end on: no branch to
// mispredict. The places of eight bytes are counted from the end before them, so
// that one addition in eight waits for the one before it.
size_t normalise(const unsigned char* text, size_t length, unsigned char* kept) {
  const unsigned char* const filter = text_signaturer.character_filter;
  unsigned char* end = kept;
  size_t i = 0;
  for (; i + 8 <= length; i += 8) {
    size_t place = 0;
    for (size_t k = 0; k < 8; ++k) {
      const unsigned char c = text[i + k];
      end[place] = c;
      place += filter[c];
    }
    end += place;
  }
  for (; i < length; ++i) {
    *end = text[i];
    end += filter[text[i]];
  }
  return static_cast<size_t>(end - kept);
}

}  // namespace

constinit const TextKernel kPortableKernel = {"portable", normalise, select};
