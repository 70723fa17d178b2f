// The kernels one by one: what they are given and leave alone, the windows at the
// edges of the arithmetic, and stacks that are not made for vectors.
#include "text_kernel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "documents.h"
#include "generator_twin.h"

void PrintTo(const TextKernel* kernel, std::ostream* out) { *out << kernel->name; }

namespace {

const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

class Kernel : public testing::TestWithParam<const TextKernel*> {
 protected:
  Kernel() { EXPECT_EQ(0, initTextSignaturer(kServer, 3)); }
  ~Kernel() override { releaseTextSignaturer(); }

  // Both in blocks without a byte to spare.
  static std::string normalised(const TextKernel& kernel, const std::string& text) {
    const auto copy = std::make_unique<unsigned char[]>(text.size());
    std::copy_n(bytes(text), text.size(), copy.get());
    const auto kept = std::make_unique<unsigned char[]>(text.size() + kKeptSlack);
    const size_t count = kernel.normalise(copy.get(), text.size(), kept.get());
    EXPECT_TRUE(std::equal(copy.get(), copy.get() + text.size(), bytes(text)));
    return std::string(reinterpret_cast<const char*>(kept.get()), count);
  }

  // The places of the selected windows. What follows the text is `behind`.
  static std::vector<size_t> selected(const TextKernel& kernel, const std::string& text,
                                      unsigned char behind = 0) {
    const size_t windows = text.size() - 60;
    const auto copy = std::make_unique<unsigned char[]>(text.size() + kTextSlack);
    std::copy_n(bytes(text), text.size(), copy.get());
    std::fill_n(copy.get() + text.size(), kTextSlack, behind);
    const auto bits = std::make_unique<uint64_t[]>((windows + kSelectedSlack) / 64);
    kernel.select(copy.get(), windows, bits.get());
    std::vector<size_t> places;
    for (size_t i = 0; i < windows; ++i) {
      if ((bits[i / 64] >> i % 64 & 1) != 0) places.push_back(i);
    }
    return places;
  }

  static std::vector<size_t> expected(const std::string& text) {
    std::vector<size_t> places;
    for (size_t i = 0; i + 60 < text.size(); ++i) {
      if (twin::karpRabin(text, i) % 137 == 0) places.push_back(i);
    }
    return places;
  }
};

INSTANTIATE_TEST_SUITE_P(Supported, Kernel,
                         testing::ValuesIn(supportedKernels().begin(), supportedKernels().end()),
                         [](const auto& test) { return std::string(test.param->name); });

TEST(Kernels, ThePortableOneIsAlwaysThereAndTheLastChoice) {
  ASSERT_FALSE(supportedKernels().empty());
  EXPECT_EQ(&kPortableKernel, supportedKernels().back());
}

TEST_P(Kernel, KeepsTheBytesThatCarryText) {
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(twin::normalised(all, 1000), normalised(*GetParam(), all));
  EXPECT_EQ("", normalised(*GetParam(), ""));
}

TEST_P(Kernel, NormalisesEveryLength) {
  for (size_t length = 0; length < 300; ++length) {
    for (const std::string& text : {documents::bytes(length, length), std::string(length, 'a'),
                                    std::string(length, ' '), documents::words(length, length)}) {
      ASSERT_EQ(twin::normalised(text, 1000), normalised(*GetParam(), text)) << length;
    }
  }
}

TEST_P(Kernel, SelectsInTextsOfEveryLength) {
  for (size_t windows = 1; windows < 700; ++windows) {
    const std::string text = documents::bytes(windows + 60, windows);
    ASSERT_EQ(expected(text), selected(*GetParam(), text)) << windows;
  }
}

TEST_P(Kernel, DoesNotCareWhatFollowsTheText) {
  for (const size_t windows : {1, 9, 200, 4000}) {
    const std::string text = documents::letters(windows + 60, 3);
    ASSERT_EQ(selected(*GetParam(), text, 0), selected(*GetParam(), text, 0xFF)) << windows;
  }
}

// Zero is a hash like any other, and 137 divides it.
TEST_P(Kernel, SelectsAllWindowsOfZeros) {
  EXPECT_EQ(1000u, selected(*GetParam(), std::string(1060, '\0')).size());
}

// A three at 2^54 and sevens at the eighteen places below make up the modulus itself:
// as the bytes come in, where the sum must become 0, or as a start value. When the three
// leaves, 42 windows later, the sum falls below zero, which may be in the next block.
TEST_P(Kernel, TakesTheModulusForZero) {
  const std::string modulus = '\3' + std::string(18, '\7');
  for (size_t before = 0; before < 130; ++before) {
    std::string text(before, '\0');
    text += modulus;
    text.append(2500, '\0');
    ASSERT_EQ(expected(text), selected(*GetParam(), text)) << before;
  }
}

// A byte that leaves takes more than is left when the bytes behind it are small.
TEST_P(Kernel, GoesBelowZeroAndBack) {
  for (size_t before = 0; before < 200; ++before) {
    std::string text = documents::bytes(before, before);
    text += std::string(70, '\xff') + std::string(3, '\x80') + std::string(200, '\1');
    text += documents::bytes(300, before);
    ASSERT_EQ(expected(text), selected(*GetParam(), text)) << before;
  }
}

// ---- Stacks ----

// Runs `work` with the stack moved on by kDepth times 16 bytes, more or less.
template <int kDepth>
struct Deeper {
  template <typename Work>
  [[gnu::noinline]] static void run(const Work& work) {
    volatile unsigned char room[16 * kDepth + 8];
    room[0] = 0;
    work();
    room[sizeof room - 1] = 0;
    Deeper<kDepth - 1>::run(work);
  }
};

template <>
struct Deeper<0> {
  template <typename Work>
  static void run(const Work& work) {
    work();
  }
};

// Windows aligns a stack by 16 bytes only, vectors are as long as 64.
TEST_P(Kernel, RunsOnAnyStackOfAnyThread) {
  const std::string text = documents::words(5000, 8);
  const std::string kept = twin::normalised(text, 10000);
  const std::vector<size_t> places = expected(kept);
  const TextKernel& kernel = *GetParam();
  const auto work = [&] {
    EXPECT_EQ(kept, normalised(kernel, text));
    EXPECT_EQ(places, selected(kernel, kept));
  };
  Deeper<9>::run(work);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&] { Deeper<9>::run(work); });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
