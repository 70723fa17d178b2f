#include "crc32c.h"

#include <gtest/gtest.h>

#include <string>

#include "documents.h"

namespace {

// One bit a step.
uint32_t slowCrc(const std::string& bytes) {
  uint32_t crc = 0xFFFFFFFF;
  for (const char c : bytes) {
    crc ^= static_cast<unsigned char>(c);
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? crc >> 1 ^ 0x82F63B78 : crc >> 1;
  }
  return ~crc;
}

TEST(Crc32c, PublishedValuesAreMet) {
  std::string ascending;
  for (int i = 0; i < 32; ++i) ascending += static_cast<char>(i);
  EXPECT_EQ(0xE3069283u, crc32c("123456789", 9));
  EXPECT_EQ(0x8A9136AAu, crc32c(std::string(32, '\0').data(), 32));
  EXPECT_EQ(0x62A8AB43u, crc32c(std::string(32, '\xff').data(), 32));
  EXPECT_EQ(0x46DD794Eu, crc32c(ascending.data(), 32));
  EXPECT_EQ(0u, crc32c("", 0));
}

TEST(Crc32c, EveryLengthAndAlignmentGivesWhatOneBitAStepGives) {
  const std::string bytes = documents::bytes(100, 5);
  for (size_t begin = 0; begin < 9; ++begin) {
    for (size_t length = 0; begin + length <= bytes.size(); ++length) {
      const uint32_t expected = slowCrc(bytes.substr(begin, length));
      ASSERT_EQ(expected, crc32c(bytes.data() + begin, length));
      ASSERT_EQ(expected, crc32cByTables(bytes.data() + begin, length, 0));
      if (!hasCrc32cInstruction()) continue;
      ASSERT_EQ(expected, crc32cByInstruction(bytes.data() + begin, length, 0));
    }
  }
}

// Long ones are taken in three parts at a time.
TEST(Crc32c, LongDataGivesWhatOneBitAStepGives) {
  const std::string bytes = documents::bytes(20000, 7);
  for (const size_t length : {3071, 3072, 3073, 6143, 6144, 9999, 19999}) {
    for (const size_t begin : {0, 1}) {
      const uint32_t expected = slowCrc(bytes.substr(begin, length));
      EXPECT_EQ(expected, crc32c(bytes.data() + begin, length)) << length;
      EXPECT_EQ(expected, crc32cByTables(bytes.data() + begin, length, 0)) << length;
    }
  }
}

TEST(Crc32c, PiecesGiveWhatTheWholeGives) {
  const std::string bytes = documents::bytes(50, 6);
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    const uint32_t first = crc32c(bytes.data(), cut);
    EXPECT_EQ(crc32c(bytes.data(), bytes.size()),
              crc32c(bytes.data() + cut, bytes.size() - cut, first));
  }
}

}  // namespace
