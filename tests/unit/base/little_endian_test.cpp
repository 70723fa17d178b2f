// Integers as they stand in files.
#include "little_endian.h"

#include <gtest/gtest.h>

namespace {

TEST(LittleEndian, TheLowestByteComesFirst) {
  unsigned char bytes[8];
  storeLittle32(bytes, 0x04030201);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(i + 1, bytes[i]);
  storeLittle64(bytes, 0x0807060504030201);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(i + 1, bytes[i]);
}

TEST(LittleEndian, WhatWasStoredIsLoaded) {
  unsigned char bytes[9];
  for (const uint64_t value : {uint64_t{0}, uint64_t{1}, uint64_t{0x80000000}, uint64_t{UINT32_MAX},
                               uint64_t{1} << 63, UINT64_MAX, uint64_t{0x123456789abcdef0}}) {
    storeLittle64(bytes + 1, value);  // at any address
    EXPECT_EQ(value, loadLittle64(bytes + 1));
    storeLittle32(bytes + 1, static_cast<uint32_t>(value));
    EXPECT_EQ(static_cast<uint32_t>(value), loadLittle32(bytes + 1));
  }
}

TEST(LittleEndian, NoOtherByteIsTouched) {
  unsigned char bytes[10] = {9, 0, 0, 0, 0, 9, 9, 9, 9, 9};
  storeLittle32(bytes + 1, UINT32_MAX);
  EXPECT_EQ(9, bytes[0]);
  EXPECT_EQ(9, bytes[5]);
  storeLittle64(bytes + 1, 0);
  EXPECT_EQ(9, bytes[0]);
  EXPECT_EQ(9, bytes[9]);
}

}  // namespace
