// The kernel for processors with AVX2.
//
// Sixteen streams, one per 64-bit lane of four vectors. Where there are
// no masks and no unsigned maximum of 64 bits, things are done in another way than with
// AVX-512:
//
// - The sums of bytes of four vectors are put together in one, so that one product of
//   16 bits tests sixteen hashes.
// - What leaves [0, M) is noticed by the largest upper half of any g, which a g just
//   below M reaches, too. That is as rare, and going through the block again with a
//   correction after each step is right in any case.
//
// The bytes are transposed and taken apart as text_kernel_avx512.cpp tells.
#include "text_kernel.h"

#if TESSERA_X86_KERNELS

#include <immintrin.h>

#include <cstring>

#define TESSERA_AVX2 __attribute__((target("avx2,popcnt")))
#define TESSERA_AVX2_INLINE TESSERA_AVX2 __attribute__((always_inline)) inline

namespace {

constexpr size_t kVectors = 4;
constexpr size_t kLanes = 4;
constexpr size_t kStreams = kVectors * kLanes;
constexpr size_t kWords = 8;   // of a stream per block
constexpr size_t kBlock = 64;  // windows of a stream per block

// The words of two neighbouring blocks, transposed; and those of the first one taken
// apart into its bytes at even and at odd places, moved by 7 bits. Unaligned accesses
// only, since the stack need not be aligned for vectors on Windows.
struct Words {
  uint64_t lanes[2 * kWords][kVectors][kLanes];
  uint64_t even[kWords][kVectors][kLanes];
  uint64_t odd[kWords][kVectors][kLanes];
};

// Selected windows of a block: a byte per step, a bit per stream. Streams 0 and 1 of
// each vector's four are in the first half, 2 and 3 in the second.
struct Masks {
  unsigned char half[2][kBlock];
};

TESSERA_AVX2_INLINE __m256i load(const void* from) {
  return _mm256_loadu_si256(static_cast<const __m256i*>(from));
}
TESSERA_AVX2_INLINE void store(void* to, __m256i value) {
  _mm256_storeu_si256(static_cast<__m256i*>(to), value);
}
TESSERA_AVX2_INLINE __m256i all(uint64_t value) {
  return _mm256_set1_epi64x(static_cast<long long>(value));
}

// Four words of the four rows at text, text + stride, ...
TESSERA_AVX2_INLINE void transposeFour(const unsigned char* text, size_t stride,
                                       uint64_t (*lanes)[kVectors][kLanes], size_t vector) {
  const __m256i r0 = load(text), r1 = load(text + stride);
  const __m256i r2 = load(text + 2 * stride), r3 = load(text + 3 * stride);
  const __m256i e01 = _mm256_unpacklo_epi64(r0, r1), o01 = _mm256_unpackhi_epi64(r0, r1);
  const __m256i e23 = _mm256_unpacklo_epi64(r2, r3), o23 = _mm256_unpackhi_epi64(r2, r3);
  store(lanes[0][vector], _mm256_permute2x128_si256(e01, e23, 0x20));
  store(lanes[1][vector], _mm256_permute2x128_si256(o01, o23, 0x20));
  store(lanes[2][vector], _mm256_permute2x128_si256(e01, e23, 0x31));
  store(lanes[3][vector], _mm256_permute2x128_si256(o01, o23, 0x31));
}

// 64 bytes of all streams.
TESSERA_AVX2_INLINE void transpose(const unsigned char* text, size_t stride,
                                   uint64_t (*lanes)[kVectors][kLanes]) {
  for (size_t v = 0; v < kVectors; ++v) {
    const unsigned char* const rows = text + v * kLanes * stride;
    transposeFour(rows, stride, lanes, v);
    transposeFour(rows + 32, stride, lanes + 4, v);
  }
}

TESSERA_AVX2_INLINE void takeApart(Words* words) {
  const __m256i moved_byte = _mm256_set1_epi16(0x7F80);
  for (size_t j = 0; j < kWords; ++j) {
    for (size_t v = 0; v < kVectors; ++v) {
      const __m256i out = load(words->lanes[j][v]);
      store(words->even[j][v], _mm256_and_si256(_mm256_slli_epi16(out, 7), moved_byte));
      store(words->odd[j][v], _mm256_and_si256(_mm256_srli_epi16(out, 1), moved_byte));
    }
  }
}

template <int kBits>
TESSERA_AVX2_INLINE __m256i turn(__m256i g) {
  return _mm256_or_si256(_mm256_and_si256(_mm256_slli_epi64(g, kBits), all(kHashModulus)),
                         _mm256_srli_epi64(g, kHashBits - kBits));
}

// The sum of b_k * 8^(7-k) of the bytes of each word.
TESSERA_AVX2_INLINE __m256i horner(__m256i words) {
  const __m256i pairs = _mm256_maddubs_epi16(words, _mm256_set1_epi16(0x0108));
  const __m256i fours = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00010040));
  return _mm256_add_epi64(_mm256_srli_epi64(_mm256_slli_epi64(fours, 32), 20),
                          _mm256_srli_epi64(fours, 32));
}

// A number below 2^57 - 1 brought into [0, M], where M stands for 0, too.
TESSERA_AVX2_INLINE __m256i reduce(__m256i sum) {
  return _mm256_add_epi64(_mm256_and_si256(sum, all(kHashModulus)),
                          _mm256_srli_epi64(sum, kHashBits));
}

// g of the first windows, whose 61 bytes are seven words and five bytes.
TESSERA_AVX2_INLINE __m256i startValue(const Words& words, size_t vector) {
  __m256i sum = _mm256_setzero_si256();
  for (int i = 0; i < 7; ++i) {
    sum = reduce(_mm256_add_epi64(turn<24>(sum), horner(load(words.lanes[i][vector]))));
  }
  const __m256i rest = horner(_mm256_and_si256(load(words.lanes[7][vector]), all(0xFFFFFFFFFF)));
  sum = reduce(_mm256_add_epi64(turn<15>(sum), _mm256_srli_epi64(rest, 9)));
  return _mm256_andnot_si256(_mm256_cmpeq_epi64(sum, all(kHashModulus)), sum);
}

// Takes byte `kByte` of each word to the word's bottom.
template <int kByte>
TESSERA_AVX2_INLINE __m256i entering(__m256i words) {
  constexpr long long kLow = static_cast<long long>(0xFFFFFFFFFFFFFF00u + kByte);
  return _mm256_shuffle_epi8(words, _mm256_set_epi64x(kLow + 8, kLow, kLow + 8, kLow));
}

// Takes the 16 bits at `kByte` of each word one byte higher than to the word's
// bottom.
template <int kByte>
TESSERA_AVX2_INLINE __m256i leaving(__m256i words) {
  constexpr long long kLow =
      static_cast<long long>(0xFFFFFFFFFF0000FFu | (kByte + 1) << 16 | kByte << 8);
  constexpr long long kHigh = kLow + 0x00080800;
  return _mm256_shuffle_epi8(words, _mm256_set_epi64x(kHigh, kLow, kHigh, kLow));
}

// Four 16-bit sums per hash.
TESSERA_AVX2_INLINE __m256i partialSums(__m256i hash) {
  return _mm256_maddubs_epi16(hash, all(byteFactors()));
}

// Sums of bytes fit into 16 bits with a sign, where the product with the inverse of 137
// is the quotient of a multiple, and further from 0 than all quotients for the others.
constexpr short kLargestQuotient = 32767 / DLP_PRIME;
static_assert(kLowestByteSum >= -32767 && kHighestByteSum <= 32767);

struct State {
  __m256i g[kVectors];
  __m256i largest;  // compared by unsigned halves, so that what fell below 0 is large
};

template <bool kExact>
TESSERA_AVX2_INLINE void moveOn(__m256i hash, __m256i in, __m256i out, __m256i* g,
                                __m256i* largest) {
  __m256i next = _mm256_add_epi64(hash, _mm256_sub_epi64(in, out));
  if constexpr (kExact) {
    const __m256i below = _mm256_cmpgt_epi64(_mm256_setzero_si256(), next);
    const __m256i above = _mm256_cmpgt_epi64(next, all(kHashModulus - 1));
    next = _mm256_add_epi64(next, _mm256_and_si256(below, all(kHashModulus)));
    next = _mm256_sub_epi64(next, _mm256_and_si256(above, all(kHashModulus)));
  } else {
    *largest = _mm256_max_epu32(*largest, next);
  }
  *g = next;
}

// One step of all streams. Returns 16 bits of ones per stream whose window is
// selected.
template <bool kExact, int kIn, int kOut>
TESSERA_AVX2_INLINE __m256i step(const uint64_t (*in)[kLanes], const uint64_t (*out)[kLanes],
                                 State* state) {
  const __m256i h0 = turn<3>(state->g[0]);
  const __m256i h1 = turn<3>(state->g[1]);
  const __m256i h2 = turn<3>(state->g[2]);
  const __m256i h3 = turn<3>(state->g[3]);
  moveOn<kExact>(h0, entering<kIn>(load(in[0])), leaving<kOut>(load(out[0])), &state->g[0],
                 &state->largest);
  moveOn<kExact>(h1, entering<kIn>(load(in[1])), leaving<kOut>(load(out[1])), &state->g[1],
                 &state->largest);
  moveOn<kExact>(h2, entering<kIn>(load(in[2])), leaving<kOut>(load(out[2])), &state->g[2],
                 &state->largest);
  moveOn<kExact>(h3, entering<kIn>(load(in[3])), leaving<kOut>(load(out[3])), &state->g[3],
                 &state->largest);
  constexpr short kInverse16 = static_cast<short>(kInverse & 0xFFFF);
  const __m256i sums = _mm256_hadd_epi16(_mm256_hadd_epi16(partialSums(h0), partialSums(h1)),
                                         _mm256_hadd_epi16(partialSums(h2), partialSums(h3)));
  const __m256i quotients = _mm256_mullo_epi16(sums, _mm256_set1_epi16(kInverse16));
  return _mm256_cmpgt_epi16(_mm256_set1_epi16(kLargestQuotient + 1), _mm256_abs_epi16(quotients));
}

TESSERA_AVX2_INLINE void note(__m256i first, __m256i second, Masks* masks, size_t i) {
  const auto bits = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_packs_epi16(first, second)));
  const auto low = static_cast<uint16_t>(bits);
  const auto high = static_cast<uint16_t>(bits >> 16);
  std::memcpy(masks->half[0] + i, &low, sizeof low);
  std::memcpy(masks->half[1] + i, &high, sizeof high);
}

// Eight steps. The entering bytes are 61 windows on: the last three bytes of the word
// seven words on, and the first five of the next one.
template <bool kExact>
TESSERA_AVX2_INLINE void eightSteps(const Words& words, size_t j, Masks* masks, State* state) {
  const auto* const even = words.even[j];
  const auto* const odd = words.odd[j];
  const auto* const low = words.lanes[j + 7];
  const auto* const high = words.lanes[j + 8];
  const __m256i s0 = step<kExact, 5, 0>(low, even, state);
  const __m256i s1 = step<kExact, 6, 0>(low, odd, state);
  note(s0, s1, masks, 8 * j);
  const __m256i s2 = step<kExact, 7, 2>(low, even, state);
  const __m256i s3 = step<kExact, 0, 2>(high, odd, state);
  note(s2, s3, masks, 8 * j + 2);
  const __m256i s4 = step<kExact, 1, 4>(high, even, state);
  const __m256i s5 = step<kExact, 2, 4>(high, odd, state);
  note(s4, s5, masks, 8 * j + 4);
  const __m256i s6 = step<kExact, 3, 6>(high, even, state);
  const __m256i s7 = step<kExact, 4, 6>(high, odd, state);
  note(s6, s7, masks, 8 * j + 6);
}

TESSERA_AVX2_INLINE bool leftTheRange(__m256i largest) {
  const __m256i bound = all(kHashModulus >> 32 << 32);
  const __m256i greater = _mm256_cmpeq_epi32(_mm256_max_epu32(largest, bound), largest);
  constexpr int kUpperHalves = 0xAA;
  return (_mm256_movemask_ps(_mm256_castsi256_ps(greater)) & kUpperHalves) != 0;
}

// `steps` is a multiple of eight, at most a block.
TESSERA_AVX2_INLINE void scanBlock(const Words& words, size_t steps, uint64_t (*g)[kLanes],
                                   Masks* masks) {
  State state = {{load(g[0]), load(g[1]), load(g[2]), load(g[3])}, _mm256_setzero_si256()};
  for (size_t j = 0; j < steps / 8; ++j) eightSteps<false>(words, j, masks, &state);
  if (leftTheRange(state.largest)) {
    for (size_t v = 0; v < kVectors; ++v) state.g[v] = load(g[v]);
    for (size_t j = 0; j < steps / 8; ++j) eightSteps<true>(words, j, masks, &state);
  }
  for (size_t v = 0; v < kVectors; ++v) store(g[v], state.g[v]);
}

// Masks of the streams per window to bits of the windows per stream.
TESSERA_AVX2_INLINE void storeBits(const Masks& masks, size_t steps, size_t length,
                                   unsigned char* bits) {
  for (size_t half = 0; half < 2; ++half) {
    __m256i low = load(masks.half[half]);
    __m256i high = load(masks.half[half] + 32);
    for (size_t bit = 8; bit-- > 0;) {  // the highest is the one that a movemask sees
      const size_t stream = bit / 2 * kLanes + half * 2 + bit % 2;
      const auto low_bits = static_cast<uint32_t>(_mm256_movemask_epi8(low));
      const auto high_bits = static_cast<uint32_t>(_mm256_movemask_epi8(high));
      const uint64_t word = uint64_t{high_bits} << 32 | low_bits;
      unsigned char* const to = bits + stream * length / 8;
      if (steps == kBlock) {
        std::memcpy(to, &word, sizeof word);
      } else {
        std::memcpy(to, &word, steps / 8);
      }
      low = _mm256_add_epi8(low, low);
      high = _mm256_add_epi8(high, high);
    }
  }
}

TESSERA_AVX2 void select(const unsigned char* text, size_t windows, uint64_t* selected) {
  const size_t length = streamWindows(windows, kStreams, 8);
  auto* const bits = reinterpret_cast<unsigned char*>(selected);
  Masks masks = {};
  Words words;
  uint64_t g[kVectors][kLanes];
  transpose(text, length, words.lanes);
  for (size_t v = 0; v < kVectors; ++v) store(g[v], startValue(words, v));
  for (size_t block = 0; block < length; block += kBlock) {
    const size_t steps = length - block < kBlock ? length - block : kBlock;
    transpose(text + block + kBlock, length, words.lanes + kWords);
    takeApart(&words);
    scanBlock(words, steps, g, &masks);
    storeBits(masks, steps, length, bits + block / 8);
    std::memcpy(words.lanes, words.lanes + kWords, sizeof words.lanes / 2);
  }
}

// Which of eight bytes stay, as a mask, to a shuffle that moves them together.
struct Shuffles {
  unsigned char of[256][8];
};

constexpr Shuffles allShuffles() {
  Shuffles shuffles = {};
  for (int mask = 0; mask < 256; ++mask) {
    int count = 0;
    for (int i = 0; i < 8; ++i) {
      if ((mask >> i & 1) != 0) shuffles.of[mask][count++] = static_cast<unsigned char>(i);
    }
    while (count < 8) shuffles.of[mask][count++] = 0x80;
  }
  return shuffles;
}

constexpr Shuffles kShuffles = allShuffles();

// As signed bytes, those from 128 up are below all others; their own sign bit says
// that they stay.
TESSERA_AVX2_INLINE __m256i between(__m256i bytes, char first, char last) {
  return _mm256_and_si256(_mm256_cmpgt_epi8(bytes, _mm256_set1_epi8(static_cast<char>(first - 1))),
                          _mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(last + 1)), bytes));
}

TESSERA_AVX2_INLINE unsigned char* compress(const unsigned char* text, unsigned mask,
                                            unsigned char* end) {
  const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(text));
  const __m128i shuffle = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kShuffles.of[mask]));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(end), _mm_shuffle_epi8(bytes, shuffle));
  return end + _mm_popcnt_u32(mask);
}

TESSERA_AVX2 size_t normalise(const unsigned char* text, size_t length, unsigned char* kept) {
  unsigned char* end = kept;
  size_t i = 0;
  for (; i + 32 <= length; i += 32) {
    const __m256i bytes = load(text + i);
    const __m256i lower_case = _mm256_or_si256(bytes, _mm256_set1_epi8(0x20));
    const __m256i ascii = _mm256_or_si256(between(lower_case, 'a', 'z'), between(bytes, '0', '9'));
    const auto stay = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_or_si256(ascii, bytes)));
    end = compress(text + i, stay & 0xFF, end);
    end = compress(text + i + 8, stay >> 8 & 0xFF, end);
    end = compress(text + i + 16, stay >> 16 & 0xFF, end);
    end = compress(text + i + 24, stay >> 24, end);
  }
  for (; i < length; ++i) {
    *end = text[i];
    end += text_signaturer.character_filter[text[i]];
  }
  return static_cast<size_t>(end - kept);
}

}  // namespace

constinit const TextKernel kAvx2Kernel = {"avx2", normalise, select};

#endif
