// The kernel for processors with AVX-512 and its byte permutations (VBMI, VBMI2).
//
// Eight streams, one per 64-bit lane. The bytes of a block of 64 windows are
// transposed, so that vector j of it holds bytes 8j to 8j + 7 of every stream.
// From these one byte shuffle takes the bytes that enter, each to the bottom of
// its lane. Those that leave must go 15 bits up: the bytes at even and at odd
// places are first made words and moved by 7 bits, and a shuffle takes them on by
// 8. The eight streams' next windows are then
//
//   hash = g turned by 3        three instructions, two of them in the chain
//   g    = hash + (in - out)    the third one in the chain
//
// and stay in [0, M) but for very rare ones. Those are noticed by the largest g of
// the block, which is then gone through again with a correction after each step.
//
// The selected windows of a step are a mask of eight bits, one per stream. The 64
// masks of a block make one vector; testing bit s of all its bytes gives the 64
// bits of stream s.
#include "text_kernel.h"

#if TESSERA_X86_KERNELS

#if defined(__GNUC__) && !defined(__clang__)
// Some of g++ 12's intrinsics start from a variable left undefined on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#include <cstring>

#define TESSERA_AVX512 \
  __attribute__((target("avx512f,avx512bw,avx512vbmi,avx512vbmi2,avx512vnni,bmi2,popcnt")))
#define TESSERA_AVX512_INLINE TESSERA_AVX512 __attribute__((always_inline)) inline

namespace {

constexpr size_t kStreams = 8;
constexpr size_t kWords = 8;   // of a stream per block
constexpr size_t kBlock = 64;  // windows of a stream per block

// The words of two neighbouring blocks, transposed: word j of all streams begins at
// lanes[j]. Unaligned accesses only, since the stack need not be aligned for vectors
// on Windows.
struct Words {
  uint64_t lanes[2 * kWords][kStreams];
};

TESSERA_AVX512_INLINE __m512i load(const void* from) { return _mm512_loadu_si512(from); }
TESSERA_AVX512_INLINE void store(void* to, __m512i value) { _mm512_storeu_si512(to, value); }
TESSERA_AVX512_INLINE __m512i all(uint64_t value) {
  return _mm512_set1_epi64(static_cast<long long>(value));
}

// The 64 bytes of the eight rows at text, text + stride, ..., as eight vectors of one
// word per row.
TESSERA_AVX512_INLINE void transpose(const unsigned char* text, size_t stride,
                                     uint64_t (*lanes)[kStreams]) {
  const __m512i r0 = load(text), r1 = load(text + stride);
  const __m512i r2 = load(text + 2 * stride), r3 = load(text + 3 * stride);
  const __m512i r4 = load(text + 4 * stride), r5 = load(text + 5 * stride);
  const __m512i r6 = load(text + 6 * stride), r7 = load(text + 7 * stride);
  // Words 0, 2, 4, 6 of two rows side by side, and words 1, 3, 5, 7.
  const __m512i e01 = _mm512_unpacklo_epi64(r0, r1), o01 = _mm512_unpackhi_epi64(r0, r1);
  const __m512i e23 = _mm512_unpacklo_epi64(r2, r3), o23 = _mm512_unpackhi_epi64(r2, r3);
  const __m512i e45 = _mm512_unpacklo_epi64(r4, r5), o45 = _mm512_unpackhi_epi64(r4, r5);
  const __m512i e67 = _mm512_unpacklo_epi64(r6, r7), o67 = _mm512_unpackhi_epi64(r6, r7);
  // Words 0 and 2 (or 4 and 6) of four rows, and so on.
  const __m512i e02a = _mm512_shuffle_i64x2(e01, e23, 0x44);
  const __m512i e46a = _mm512_shuffle_i64x2(e01, e23, 0xEE);
  const __m512i e02b = _mm512_shuffle_i64x2(e45, e67, 0x44);
  const __m512i e46b = _mm512_shuffle_i64x2(e45, e67, 0xEE);
  const __m512i o13a = _mm512_shuffle_i64x2(o01, o23, 0x44);
  const __m512i o57a = _mm512_shuffle_i64x2(o01, o23, 0xEE);
  const __m512i o13b = _mm512_shuffle_i64x2(o45, o67, 0x44);
  const __m512i o57b = _mm512_shuffle_i64x2(o45, o67, 0xEE);
  store(lanes[0], _mm512_shuffle_i64x2(e02a, e02b, 0x88));
  store(lanes[1], _mm512_shuffle_i64x2(o13a, o13b, 0x88));
  store(lanes[2], _mm512_shuffle_i64x2(e02a, e02b, 0xDD));
  store(lanes[3], _mm512_shuffle_i64x2(o13a, o13b, 0xDD));
  store(lanes[4], _mm512_shuffle_i64x2(e46a, e46b, 0x88));
  store(lanes[5], _mm512_shuffle_i64x2(o57a, o57b, 0x88));
  store(lanes[6], _mm512_shuffle_i64x2(e46a, e46b, 0xDD));
  store(lanes[7], _mm512_shuffle_i64x2(o57a, o57b, 0xDD));
}

template <int kBits>
TESSERA_AVX512_INLINE __m512i turn(__m512i g) {
  constexpr int kAAndBOrC = 0xEA;
  return _mm512_ternarylogic_epi64(_mm512_slli_epi64(g, kBits), all(kHashModulus),
                                   _mm512_srli_epi64(g, kHashBits - kBits), kAAndBOrC);
}

// The sum of b_k * 8^(7-k) of the bytes of each word.
TESSERA_AVX512_INLINE __m512i horner(__m512i words) {
  const __m512i pairs = _mm512_maddubs_epi16(words, _mm512_set1_epi16(0x0108));
  const __m512i fours = _mm512_madd_epi16(pairs, _mm512_set1_epi32(0x00010040));
  return _mm512_add_epi64(_mm512_srli_epi64(_mm512_slli_epi64(fours, 32), 20),
                          _mm512_srli_epi64(fours, 32));
}

// A number below 2^57 - 1 brought into [0, M], where M stands for 0, too.
TESSERA_AVX512_INLINE __m512i reduce(__m512i sum) {
  return _mm512_add_epi64(_mm512_and_si512(sum, all(kHashModulus)),
                          _mm512_srli_epi64(sum, kHashBits));
}

// g of the first windows, whose 61 bytes are seven words and five bytes.
TESSERA_AVX512_INLINE __m512i startValue(const uint64_t (*lanes)[kStreams]) {
  __m512i sum = _mm512_setzero_si512();
  for (int i = 0; i < 7; ++i) {
    sum = reduce(_mm512_add_epi64(turn<24>(sum), horner(load(lanes[i]))));
  }
  const __m512i rest = horner(_mm512_and_si512(load(lanes[7]), all(0xFFFFFFFFFF)));
  sum = reduce(_mm512_add_epi64(turn<15>(sum), _mm512_srli_epi64(rest, 9)));
  return _mm512_maskz_mov_epi64(_mm512_cmpneq_epu64_mask(sum, all(kHashModulus)), sum);
}

// Takes byte `kByte` of each word to the word's bottom.
template <int kByte>
TESSERA_AVX512_INLINE __m512i entering(__m512i words) {
  return _mm512_shuffle_epi8(words, _mm512_set4_epi32(-1, static_cast<int>(0xFFFFFF08u + kByte), -1,
                                                      static_cast<int>(0xFFFFFF00u + kByte)));
}

// Takes the 16 bits at `kByte` of each word one byte higher than to the word's
// bottom.
template <int kByte>
TESSERA_AVX512_INLINE __m512i leaving(__m512i words) {
  constexpr unsigned kPlace = 0xFF0000FFu | (kByte + 1) << 16 | kByte << 8;
  return _mm512_shuffle_epi8(words, _mm512_set4_epi32(-1, static_cast<int>(kPlace + 0x00080800u),
                                                      -1, static_cast<int>(kPlace)));
}

// The smallest multiple of 137 that makes sums of bytes positive. They then fit into
// 16 bits, where the product with the inverse of 137 is the quotient of a multiple, and
// larger than all quotients for the others.
constexpr int kByteSumOffset = (-kLowestByteSum / DLP_PRIME + 1) * DLP_PRIME;
constexpr int kLargestQuotient = (kHighestByteSum + kByteSumOffset) / DLP_PRIME;

struct State {
  __m512i g;
  __m512i largest;  // unsigned, so that what fell below 0 is large
};

// One step. Returns the hashes of the windows it leaves.
template <bool kExact>
TESSERA_AVX512_INLINE __m512i step(__m512i in, __m512i out, State* state) {
  const __m512i hash = turn<3>(state->g);
  __m512i change = _mm512_sub_epi64(in, out);
  __asm__("" : "+v"(change));  // or g++ adds them one by one, and the chain is longer
  __m512i g = _mm512_add_epi64(hash, change);
  if constexpr (kExact) {
    // Of the three only the one in range is not huge.
    g = _mm512_min_epu64(g, _mm512_min_epu64(_mm512_add_epi64(g, all(kHashModulus)),
                                             _mm512_sub_epi64(g, all(kHashModulus))));
  } else {
    state->largest = _mm512_max_epu64(state->largest, g);
  }
  state->g = g;
  return hash;
}

// Two 32-bit sums per hash, of the bytes 0 to 3 and 4 to 6, which fit into 16 bits with
// a sign. The latter are small enough to bear the offset.
TESSERA_AVX512_INLINE __m512i partialSums(__m512i hash) {
  static_assert(kByteSumOffset + 255 * (kByteFactors[5] + kByteFactors[6]) <= 32767);
  return _mm512_dpbusd_epi32(all(uint64_t{kByteSumOffset} << 32), hash, all(byteFactors()));
}

// Which of the hashes of four steps 137 divides: a byte for each two neighbouring
// streams, in it two bits per step.
TESSERA_AVX512_INLINE uint32_t selectedOf(__m512i h0, __m512i h1, __m512i h2, __m512i h3) {
  const __m512i ones = _mm512_set1_epi16(1);
  const __m512i first = _mm512_packs_epi32(partialSums(h0), partialSums(h1));
  const __m512i second = _mm512_packs_epi32(partialSums(h2), partialSums(h3));
  const __m512i sums =
      _mm512_packus_epi32(_mm512_madd_epi16(first, ones), _mm512_madd_epi16(second, ones));
  const __m512i quotients =
      _mm512_mullo_epi16(sums, _mm512_set1_epi16(static_cast<short>(kInverse & 0xFFFF)));
  return _mm512_cmple_epu16_mask(quotients, _mm512_set1_epi16(kLargestQuotient));
}

// Eight steps. The entering bytes are 61 windows on: the last three bytes of the
// word seven words on, and the first five of the next one.
template <bool kExact>
TESSERA_AVX512_INLINE void eightSteps(const uint64_t (*lanes)[kStreams], uint32_t* masks,
                                      State* state) {
  const __m512i out = load(lanes[0]);
  const __m512i in_low = load(lanes[7]);
  const __m512i in_high = load(lanes[8]);
  const __m512i moved_byte = _mm512_set1_epi16(0x7F80);
  const __m512i even = _mm512_and_si512(_mm512_slli_epi16(out, 7), moved_byte);
  const __m512i odd = _mm512_and_si512(_mm512_srli_epi16(out, 1), moved_byte);
  const __m512i h0 = step<kExact>(entering<5>(in_low), leaving<0>(even), state);
  const __m512i h1 = step<kExact>(entering<6>(in_low), leaving<0>(odd), state);
  const __m512i h2 = step<kExact>(entering<7>(in_low), leaving<2>(even), state);
  const __m512i h3 = step<kExact>(entering<0>(in_high), leaving<2>(odd), state);
  masks[0] = selectedOf(h0, h1, h2, h3);
  const __m512i h4 = step<kExact>(entering<1>(in_high), leaving<4>(even), state);
  const __m512i h5 = step<kExact>(entering<2>(in_high), leaving<4>(odd), state);
  const __m512i h6 = step<kExact>(entering<3>(in_high), leaving<6>(even), state);
  const __m512i h7 = step<kExact>(entering<4>(in_high), leaving<6>(odd), state);
  masks[1] = selectedOf(h4, h5, h6, h7);
}

// `steps` is a multiple of eight, at most a block.
TESSERA_AVX512_INLINE __m512i scanBlock(const Words& words, size_t steps, __m512i g,
                                        uint32_t* masks) {
  State state = {g, _mm512_setzero_si512()};
  for (size_t i = 0; i < steps; i += 8) {
    eightSteps<false>(words.lanes + i / 8, masks + i / 4, &state);
  }
  if (_mm512_cmpge_epu64_mask(state.largest, all(kHashModulus)) != 0) {
    state.g = g;
    for (size_t i = 0; i < steps; i += 8) {
      eightSteps<true>(words.lanes + i / 8, masks + i / 4, &state);
    }
  }
  return state.g;
}

// Masks of the streams per four windows to bits of the windows per stream.
TESSERA_AVX512_INLINE void storeBits(const uint32_t* masks, size_t steps, size_t length,
                                     unsigned char* bits) {
  // Byte k of the sixteen masks to the sixteen bytes from 16k on.
  const __m512i first_bytes = _mm512_set4_epi32(0x3C383430, 0x2C282420, 0x1C181410, 0x0C080400);
  const __m512i byte_number =
      _mm512_set_epi64(0x0303030303030303, 0x0303030303030303, 0x0202020202020202,
                       0x0202020202020202, 0x0101010101010101, 0x0101010101010101, 0, 0);
  const __m512i places = _mm512_add_epi8(first_bytes, byte_number);
  uint64_t pairs[kStreams / 2][2];
  store(pairs, _mm512_permutexvar_epi8(places, load(masks)));
  for (size_t stream = 0; stream < kStreams; ++stream) {
    const uint64_t every_other = uint64_t{0x5555555555555555} << stream % 2;
    const uint64_t word = _pext_u64(pairs[stream / 2][0], every_other) |
                          _pext_u64(pairs[stream / 2][1], every_other) << 32;
    unsigned char* const to = bits + stream * length / 8;
    if (steps == kBlock) {
      std::memcpy(to, &word, sizeof word);
    } else {
      std::memcpy(to, &word, steps / 8);
    }
  }
}

TESSERA_AVX512 void select(const unsigned char* text, size_t windows, uint64_t* selected) {
  const size_t length = streamWindows(windows, kStreams, 8);
  auto* const bits = reinterpret_cast<unsigned char*>(selected);
  uint32_t masks[kBlock / 4] = {};
  Words words;
  transpose(text, length, words.lanes);
  __m512i g = startValue(words.lanes);
  for (size_t block = 0; block < length; block += kBlock) {
    const size_t steps = length - block < kBlock ? length - block : kBlock;
    transpose(text + block + kBlock, length, words.lanes + kWords);
    g = scanBlock(words, steps, g, masks);
    storeBits(masks, steps, length, bits + block / 8);
    std::memcpy(words.lanes, words.lanes + kWords, sizeof words / 2);
  }
}

// Bytes from 128 up stay as they are; the others are looked up, and 0x80 says that
// they stay.
struct Classes {
  unsigned char of[128];
};

constexpr Classes asciiClasses() {
  Classes classes = {};
  for (int c = '0'; c <= '9'; ++c) classes.of[c] = 0x80;
  for (int c = 'A'; c <= 'Z'; ++c) classes.of[c] = 0x80;
  for (int c = 'a'; c <= 'z'; ++c) classes.of[c] = 0x80;
  return classes;
}

constexpr Classes kAsciiClasses = asciiClasses();

TESSERA_AVX512 size_t normalise(const unsigned char* text, size_t length, unsigned char* kept) {
  const __m512i low = load(kAsciiClasses.of);
  const __m512i high = load(kAsciiClasses.of + 64);
  size_t count = 0;
  for (size_t i = 0; i < length; i += 64) {
    const __mmask64 present = length - i < 64 ? (uint64_t{1} << (length - i)) - 1 : ~uint64_t{0};
    const __m512i bytes = _mm512_maskz_loadu_epi8(present, text + i);
    const __m512i classes = _mm512_permutex2var_epi8(low, bytes, high);
    const __mmask64 stay = _mm512_movepi8_mask(_mm512_or_si512(bytes, classes)) & present;
    store(kept + count, _mm512_maskz_compress_epi8(stay, bytes));
    count += static_cast<size_t>(_mm_popcnt_u64(stay));
  }
  return count;
}

}  // namespace

constinit const TextKernel kAvx512Kernel = {"avx512", normalise, select};

#endif
