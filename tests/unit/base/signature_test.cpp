// The order of signatures.
#include "signature.h"

#include <gtest/gtest.h>

#include "documents.h"

namespace {

using documents::signature;

TEST(SignatureOrder, IsThatOfMemcmpOverTheEightBytes) {
  const uint64_t seed = documents::seed(4);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  documents::Random random(seed);
  for (int run = 0; run < 2000; ++run) {
    Signature left, right;
    for (int i = 0; i < 8; ++i) {  // few values, so that many bytes agree
      left.bytes[i] = static_cast<unsigned char>(random.below(3) * 127);
      right.bytes[i] = static_cast<unsigned char>(random.below(3) * 127);
    }
    const int order = std::memcmp(left.bytes, right.bytes, 8);
    EXPECT_EQ(order < 0 ? -1 : order > 0 ? 1 : 0, compareSignatures(left, right));
    EXPECT_EQ(order < 0, left < right);
    EXPECT_EQ(order == 0, left == right);
  }
}

TEST(SignatureOrder, TheFirstByteWeighsMost) {
  EXPECT_LT(signature({0, 255, 255, 255, 255, 255, 255, 255}), signature({1, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_LT(signature({0, 0, 0, 0, 0, 0, 0, 1}), signature({0, 0, 0, 0, 0, 0, 0, 2}));
}

TEST(SignatureOrder, BytesAreUnsigned) {
  EXPECT_EQ(1, compareSignatures(signature({0x80}), signature({0x7f})));
  EXPECT_EQ(-1, compareSignatures(signature({0x7f}), signature({0xff})));
}

TEST(SignatureKey, IsTheBigEndianNumber) {
  EXPECT_EQ(0x0102030405060708u, signatureKey(signature({1, 2, 3, 4, 5, 6, 7, 8})));
  EXPECT_EQ(UINT64_MAX, signatureKey(signature({255, 255, 255, 255, 255, 255, 255, 255})));
}

TEST(SignatureKey, GivesTheSignatureBack) {
  EXPECT_EQ(signature({1, 2, 3, 4, 5, 6, 7, 8}), signatureOf(0x0102030405060708));
  EXPECT_EQ(signature({0, 0, 0, 0, 0, 0, 0, 255}), signatureOf(255));
}

TEST(SignaturePrefix, IsTheFirstByteTimes256PlusTheSecond) {
  EXPECT_EQ(0u, signaturePrefix(signature({0, 0, 9, 9, 9, 9, 9, 9})));
  EXPECT_EQ(258u, signaturePrefix(signature({1, 2})));
  EXPECT_EQ(65535u, signaturePrefix(signature({255, 255})));
}

}  // namespace
