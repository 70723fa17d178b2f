// Signature generation against its slow twin: both platforms, both hash
// families, lengths on both sides of every boundary, texts from random to
// almost constant.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "documents.h"
#include "fpeSigGenTable.h"
#include "fpeSignatureGenerator.h"
#include "generator_twin.h"
#include "scoped.h"

namespace {

using documents::Random;
using twin::Family;

constexpr size_t kNoLimit = 1 << 30;

// What a text is made of. The constant bytes are those whose windows every
// Karp-Rabin or Adler scan selects.
const std::vector<std::string> kAlphabets = {
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
    "ab",
    "v",
    "\x89",
    "\xff",
    "v\xff",
    "\x80\x89\xa0\xc3\xe9\xff",
    "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaab",
};

// `length` bytes that all survive normalisation.
std::string plainText(size_t length, Random* random) {
  const std::string& alphabet = kAlphabets[random->below(kAlphabets.size())];
  std::string text(length, '\0');
  if (random->oneIn(3) && length > 0) {  // a short passage over and over
    const size_t period = 1 + random->below(200);
    for (size_t i = 0; i < length; ++i) {
      text[i] = i < period ? alphabet[random->below(alphabet.size())] : text[i - period];
    }
  } else {
    for (char& c : text) c = alphabet[random->below(alphabet.size())];
  }
  return text;
}

// The same with bytes in between that normalisation drops.
std::string interspersed(const std::string& text, Random* random) {
  static const std::string kDropped("\0 \t\r\n.,;:-_!?@[`{\x7f/", 20);
  std::string mixed;
  for (const char c : text) {
    while (random->oneIn(5)) mixed += kDropped[random->below(kDropped.size())];
    mixed += c;
  }
  mixed.append(random->below(100), ' ');
  return mixed;
}

twin::List generated(const std::string& text, Family family, int type, int* normalized_length) {
  Signature* list = nullptr;
  int count = -1;
  const auto generate =
      family == Family::kKarpRabin ? generateVornetSignature_KR : generateVornetSignature_Adler;
  EXPECT_EQ(0, generate(text.data(), static_cast<int>(text.size()), &list, &count, type,
                        normalized_length));
  const MallocArray<Signature> owner(list);
  EXPECT_EQ(count == 0, list == nullptr);
  twin::List bytes(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) std::copy_n(list[i].bytes, 8, bytes[i].begin());
  return bytes;
}

class GenerationProperty : public testing::Test {
 protected:
  ~GenerationProperty() override {
    setMaxContentSize(previous_limit_);
    releaseTextSignaturer();
  }

  void compare(const std::string& text, size_t limit = kNoLimit) {
    setMaxContentSize(static_cast<int>(limit));
    for (const Family family : {Family::kKarpRabin, Family::kAdler}) {
      for (const int platform : {kServer, kClient}) {
        SCOPED_TRACE(testing::Message()
                     << "platform " << platform << ", family " << static_cast<int>(family)
                     << ", bytes " << text.size() << ", limit " << limit);
        usePlatform(platform);
        int normalized_length = -1;
        const twin::List list = generated(text, family, kTextContent, &normalized_length);
        const twin::List expected = platform == kServer ? twin::server(family, text, limit)
                                                        : twin::client(family, text, limit);
        ASSERT_EQ(expected, list);
        if (text.size() >= 61) {
          ASSERT_EQ(twin::normalised(text, limit).size(), static_cast<size_t>(normalized_length));
        }
      }
    }
  }

  static void usePlatform(int platform) {
    releaseTextSignaturer();
    ASSERT_EQ(0, initTextSignaturer(platform, 3));
  }

 private:
  const int previous_limit_ = maxContentSize();
};

TEST_F(GenerationProperty, EveryLengthAroundABoundaryGivesTheTwinsList) {
  const uint64_t seed = documents::seed(20240711);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  Random random(seed);
  const std::vector<size_t> boundaries = {61,   1024, 1084, 2048, 2108, 3072,
                                          3132, 4096, 4156, 7168, 8192, 10060};
  for (const size_t boundary : boundaries) {
    for (size_t length = boundary - 2; length <= boundary + 2; ++length) {
      const std::string text = plainText(length, &random);
      compare(text);
      compare(interspersed(text, &random));
      if (HasFatalFailure()) return;
    }
  }
}

TEST_F(GenerationProperty, EveryCutGivesTheTwinsList) {
  const uint64_t seed = documents::seed(20240712);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  Random random(seed);
  for (const size_t limit : {60, 61, 62, 1023, 1024, 1025, 1084, 2048, 4096}) {
    for (size_t length = limit - 1; length <= limit + 2; ++length) {
      compare(interspersed(plainText(length, &random), &random), limit);
      if (HasFatalFailure()) return;
    }
    compare(plainText(limit + 3000, &random), limit);
    if (HasFatalFailure()) return;
  }
}

TEST_F(GenerationProperty, TextsOfOneRepeatedByteGiveTheTwinsList) {
  for (const char c : {'a', 'v', '\x89', '\xff'}) {
    for (const size_t length : {61, 69, 70, 1500, 2048, 4095, 10059, 10060, 10061, 12000}) {
      compare(std::string(length, c));
      if (HasFatalFailure()) return;
    }
  }
}

TEST_F(GenerationProperty, RandomTextsGiveTheTwinsList) {
  const uint64_t seed = documents::seed(20240713);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  Random random(seed);
  for (int run = 0; run < 150; ++run) {
    const size_t length = random.below(random.oneIn(8) ? 30000 : 6000);
    switch (random.below(3)) {
      case 0:
        compare(documents::bytes(length, random.next()));
        break;
      case 1:
        compare(documents::words(length, random.next()));
        break;
      default:
        compare(interspersed(plainText(length, &random), &random), 61 + random.below(8000));
    }
    if (HasFatalFailure()) return;
  }
}

// The client's list is full in the middle of a text with many different
// windows: what lies behind the 10000th selected window is not looked at.
TEST_F(GenerationProperty, AFullListEndsWithTheTenThousandthWindow) {
  const uint64_t seed = documents::seed(20240714);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  compare(std::string(9900, '\x89') + documents::letters(40000, seed) + std::string(300, '\xff'));
}

TEST_F(GenerationProperty, BinaryContentsGiveTheTwinsSignature) {
  const uint64_t seed = documents::seed(20240715);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  Random random(seed);
  std::vector<size_t> lengths = {10238, 10239, 10240, 10241, 65535, 65536, 65537, 70000, 131072};
  for (size_t length = 1; length <= 130; ++length) lengths.push_back(length);
  for (int run = 0; run < 50; ++run) lengths.push_back(1 + random.below(30000));
  for (const size_t length : lengths) {
    const std::string content = documents::bytes(length, random.next());
    for (const Family family : {Family::kKarpRabin, Family::kAdler}) {
      ASSERT_EQ(twin::binary(content), generated(content, family, kBinaryContent, nullptr))
          << length;
    }
  }
}

}  // namespace
