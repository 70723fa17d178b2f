// The one signature of content that is not text.
#include "fpeSigGenFromBinary.h"

#include <gtest/gtest.h>

#include <string>

#include "documents.h"
#include "fail_point.h"
#include "log_capture.h"
#include "scoped.h"
#include "status.h"

namespace {

using documents::signature;

Signature of(const std::string& content) {
  // A block of its own size lets the address sanitizer see every read behind it.
  const auto block = mallocArray<unsigned char>(content.size());
  std::copy(content.begin(), content.end(), block.get());
  Signature* list = nullptr;
  int count = 0;
  EXPECT_EQ(kOk, getBinarySignature(block.get(), static_cast<int>(content.size()), &list, &count));
  EXPECT_EQ(1, count);
  const MallocArray<Signature> owner(list);
  return list != nullptr ? list[0] : Signature{};
}

std::string digits(const Signature& made) {
  return std::string(reinterpret_cast<const char*>(made.bytes) + 4, 4);
}

TEST(BinarySignature, FourBytesHaveNoSample) {
  EXPECT_EQ(signature({0, 0, 0, 0, '0', '0', '0', '4'}), of("\xff\xff\xff\xff"));
}

TEST(BinarySignature, FiveBytesHaveOneSample) {
  EXPECT_EQ(signature({1, 2, 3, 4, '0', '0', '0', '5'}), of("\x01\x02\x03\x04\x05"));
}

TEST(BinarySignature, SamplingOfOneToThreeBytesStopsAtTheEndOfTheContent) {
  EXPECT_EQ(signature({1, 0, 0, 0, '0', '0', '0', '1'}), of("\x01"));
  EXPECT_EQ(signature({1 + 2, 2, 0, 0, '0', '0', '0', '2'}), of("\x01\x02"));
  EXPECT_EQ(signature({1 + 2 + 4, 2 + 4, 4, 0, '0', '0', '0', '3'}), of("\x01\x02\x04"));
}

TEST(BinarySignature, TheDigitsAreTheLowSixteenBitsOfTheLength) {
  EXPECT_EQ("0000", digits(of(std::string(65536, 'x'))));
  EXPECT_EQ("1170", digits(of(std::string(70000, 'x'))));
  EXPECT_EQ("ffff", digits(of(std::string(65535, 'x'))));
  EXPECT_EQ("abcd", digits(of(std::string(0xabcd, 'x'))));
}

// Whether a sample starts at the position: 1 or 0.
int sampledAt(size_t length, size_t position) {
  std::string content(length, '\0');
  content[position] = 1;
  return of(content).bytes[0];
}

TEST(BinarySignature, AHundredBytesAreSampledAtEveryFifthBelow96) {
  for (size_t position = 0; position < 100; ++position) {
    EXPECT_EQ(position % 5 == 0 && position < 96 ? 1 : 0, sampledAt(100, position)) << position;
  }
}

TEST(BinarySignature, UpToTwentyBytesAreSampledAtEveryByte) {
  for (size_t position = 0; position < 20; ++position) {
    EXPECT_EQ(position < 16 ? 1 : 0, sampledAt(20, position)) << position;
  }
}

TEST(BinarySignature, TwentyOneToThirtyNineBytesHaveAStepOfOneAndFortyOfTwo) {
  EXPECT_EQ(1, sampledAt(21, 1));
  EXPECT_EQ(1, sampledAt(39, 1));
  EXPECT_EQ(0, sampledAt(40, 1));
  EXPECT_EQ(1, sampledAt(40, 2));
}

TEST(BinarySignature, TheStepIs511For10239BytesAnd512From10240On) {
  EXPECT_EQ(1, sampledAt(10239, 511));
  EXPECT_EQ(0, sampledAt(10239, 512));
  EXPECT_EQ(0, sampledAt(10240, 511));
  EXPECT_EQ(1, sampledAt(10240, 512));
  EXPECT_EQ(1, sampledAt(1000000, 512 * 1953));
}

TEST(BinarySignature, EachSumTakesTheByteAtItsOwnDistance) {
  std::string content(100, '\0');
  content[5] = 1;
  content[6] = 2;
  content[7] = 3;
  content[8] = 4;
  content[9] = 99;
  EXPECT_EQ(signature({1, 2, 3, 4, '0', '0', '6', '4'}), of(content));
}

TEST(BinarySignature, SumsAddUnsignedBytesAndKeepTheLowEightBits) {
  // 20 samples of 255: 5100 = 19 * 256 + 236.
  EXPECT_EQ(signature({236, 236, 236, 236, '0', '0', '6', '4'}), of(std::string(100, '\xff')));
}

TEST(BinarySignature, ALostMemoryBlockLeavesNoListBehind) {
  LogCapture log;
  FailPoint point;
  point.fail(Call::kAllocate, 1);
  Signature left;
  Signature* list = &left;
  int count = 7;
  const unsigned char content[] = {1, 2, 3, 4, 5};
  EXPECT_EQ(kErrMem, getBinarySignature(content, 5, &list, &count));
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(0, count);
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(3, log.lines()[0].level);
  EXPECT_EQ("Error", log.lines()[0].word);
  EXPECT_EQ("null", log.lines()[0].tag);
  EXPECT_EQ("#<getBinarySignature>#no mem for signature", log.lines()[0].text);
}

}  // namespace
