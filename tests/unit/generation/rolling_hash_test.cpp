// Start values, rolls and the fold of both hash families.
#include "rolling_hash.h"

#include <gtest/gtest.h>

#include <string>

#include "documents.h"
#include "generator_twin.h"
#include "log_capture.h"
#include "status.h"

namespace {

constexpr uint64_t kModulus = 0xFFFFFFFFFFFFFF;

class RollingHash : public testing::Test {
 protected:
  RollingHash() { EXPECT_EQ(kOk, initTextSignaturer(kServer, 3)); }
  ~RollingHash() override { releaseTextSignaturer(); }

  static const unsigned char* bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
  }
};

const std::string kWindow = "ahovcjqxelszgnubipwdkryfmtahovcjqxelszgnubipwdkryfmtahovcjqxe";

TEST_F(RollingHash, TheStartValuesOfAKnownWindow) {
  EXPECT_EQ(1601274635409091u, karpRabinStart(bytes(kWindow)));
  EXPECT_EQ(886713178135048u, adlerStart(bytes(kWindow)));
  EXPECT_EQ(3632456u, karpRabinStart(bytes(std::string(61, 'a'))));
  EXPECT_EQ(788074959214366u, adlerStart(bytes(std::string(61, 'a'))));
}

TEST_F(RollingHash, SixtyOneZeroBytesHashToZero) {
  EXPECT_EQ(0u, karpRabinStart(bytes(std::string(61, '\0'))));
}

TEST_F(RollingHash, TheLastByteBearsAFactorOfTheBase) {
  std::string window(61, '\0');
  window[60] = 1;
  EXPECT_EQ(8u, karpRabinStart(bytes(window)));
}

TEST_F(RollingHash, RollingGivesAtEveryPositionTheValueComputedAfresh) {
  const uint64_t seed = documents::seed(1);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  for (const std::string& text : {documents::bytes(4000, seed), documents::letters(4000, seed + 1),
                                  std::string(300, '\xff'), std::string(300, '\0')}) {
    uint64_t karp_rabin = karpRabinStart(bytes(text));
    uint64_t adler = adlerStart(bytes(text));
    for (size_t p = 0;; ++p) {
      ASSERT_EQ(twin::karpRabin(text, p), karp_rabin) << p;
      ASSERT_EQ(twin::adler(text, p), adler) << p;
      if (p + 61 == text.size()) break;
      karp_rabin =
          calcNextHashValueByIteration(karp_rabin, bytes(text)[p], bytes(text)[p + 61], DLP_BASE);
      adler = adlerRoll(adler, bytes(text)[p], bytes(text)[p + 61]);
    }
  }
}

// A leaving byte may weigh more than the hash, reduced as that is.
TEST_F(RollingHash, AHashBelowTheLeavingByteIsReportedAndStaysCorrect) {
  LogCapture log;
  EXPECT_EQ((8 * 'b' + (5 + kModulus - 32768u * 'a') * 8) % kModulus,
            calcNextHashValueByIteration(5, 'a', 'b', 8));
  ASSERT_EQ(1u, log.lines().size());
  const LogLine line = log.lines()[0];
  EXPECT_EQ(3, line.level);
  EXPECT_EQ("Error", line.word);
  EXPECT_EQ("null", line.tag);
  EXPECT_EQ("#<calcNextHashValueByIteration>#overflow occurs v0(5) tmp(3178496)", line.text);
}

TEST_F(RollingHash, AHashEqualToTheLeavingByteIsNoOverflow) {
  LogCapture log;
  EXPECT_EQ(8u * 'b', calcNextHashValueByIteration(32768u * 'a', 'a', 'b', 8));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(RollingHash, AMultipleOfTheModulusBecomesZero) {
  EXPECT_EQ(0u, calcNextHashValueByIteration(kModulus - 1, 0, 1, 8));
  EXPECT_EQ(1u, calcNextHashValueByIteration(uint64_t{1} << 53, 0, 0, 8));
}

TEST_F(RollingHash, TheSignatureOfAWindowOfOneByteValue) {
  const std::string window(61, 'a');
  Signature signature;
  EXPECT_EQ(0, fold(bytes(window), bytes(window) + 61, &signature));
  EXPECT_EQ(documents::signature({0x08, 0x08, 0x08, 0x08, 0x08, 0xA7, 0xA7, 0xA7}), signature);
}

TEST_F(RollingHash, BytesAreFoldedAsUnsignedOnes) {
  const std::string window(61, '\xff');
  Signature signature;
  EXPECT_EQ(0, fold(bytes(window), bytes(window) + 61, &signature));
  EXPECT_EQ(documents::signature({0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 0xF9, 0xF9, 0xF9}), signature);
}

TEST_F(RollingHash, OnlyAWholeWindowIsFolded) {
  const std::string window(62, 'a');
  Signature signature = documents::signature({1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_EQ(kErrParam, fold(bytes(window), bytes(window) + 60, &signature));
  EXPECT_EQ(kErrParam, fold(bytes(window), bytes(window) + 62, &signature));
  EXPECT_EQ(kErrParam, fold(bytes(window) + 61, bytes(window), &signature));
  EXPECT_EQ(documents::signature({1, 2, 3, 4, 5, 6, 7, 8}), signature);
}

TEST_F(RollingHash, AdlerRollKeepsOnlyTheLowHalfOfEachSum) {
  // The high half is below what the leaving byte takes away.
  const uint64_t value = (uint64_t{3} << 32) | 100;
  const uint32_t a = 100 + 7 - 9;
  const uint32_t b = 3 + a - 9 * 61 - 1;
  EXPECT_EQ(uint64_t{b} << 32 | a, adlerRoll(value, 9, 7));
}

}  // namespace
