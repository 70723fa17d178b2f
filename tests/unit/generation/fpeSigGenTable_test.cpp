// The set-up of the generator: level table, out-tables, filter, messages.
#include "fpeSigGenTable.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <vector>

#include "fail_point.h"
#include "log_capture.h"
#include "scoped.h"
#include "status.h"

namespace {

using TableOwner = MallocArray<SigGenTable>;

class SigGenTableTest : public testing::Test {
 protected:
  ~SigGenTableTest() override { releaseTextSignaturer(); }

  TableOwner table(int level) {
    SigGenTable* made = nullptr;
    EXPECT_EQ(kOk, initSigGenTable(&made, level));
    return TableOwner(made);
  }

  static std::vector<uint32_t> column(const TableOwner& table, uint32_t SigGenRow::*field) {
    std::vector<uint32_t> values;
    for (const SigGenRow& row : table[0].rows) values.push_back(row.*field);
    return values;
  }

  LogCapture log_;
};

using Column = std::vector<uint32_t>;

TEST_F(SigGenTableTest, LevelsFromMinusOneToSixSucceedAndRememberTheirLevel) {
  for (int level = -1; level <= 6; ++level) {
    const TableOwner made = table(level);
    ASSERT_TRUE(made);
    EXPECT_EQ(level, made[0].level);
    EXPECT_EQ(9u, made[0].row_count);
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SigGenTableTest, LevelsSevenAndMinusTwoAreRefused) {
  for (const int level : {7, -2, INT32_MIN, INT32_MAX}) {
    log_.clear();
    SigGenTable* made = nullptr;
    EXPECT_EQ(kErrParam, initSigGenTable(&made, level));
    EXPECT_EQ(nullptr, made);
    ASSERT_EQ(1u, log_.lines().size());
    const LogLine line = log_.lines()[0];
    EXPECT_EQ(3, line.level);
    EXPECT_EQ("Error", line.word);
    EXPECT_EQ("null", line.tag);
    EXPECT_EQ("#<initSigGenTable>#invalid sig gen level " + std::to_string(level), line.text);
  }
}

TEST_F(SigGenTableTest, WithoutAPlaceForTheTableTheLevelIsNotLookedAt) {
  EXPECT_EQ(kErrParam, initSigGenTable(nullptr, 7));
  ASSERT_EQ(1u, log_.lines().size());
  EXPECT_EQ(3, log_.lines()[0].level);
  EXPECT_EQ("Error", log_.lines()[0].word);
  EXPECT_EQ("#<initSigGenTable>#sig_gen_table == NULL", log_.lines()[0].text);
}

TEST_F(SigGenTableTest, WithoutMemoryNoTableIsHandedOut) {
  FailPoint point;
  point.fail(Call::kAllocate, 1);
  SigGenTable* made = nullptr;
  EXPECT_EQ(kErrMem, initSigGenTable(&made, 3));
  EXPECT_EQ(nullptr, made);
  ASSERT_EQ(1u, log_.lines().size());
  EXPECT_EQ(3, log_.lines()[0].level);
  EXPECT_EQ("Error", log_.lines()[0].word);
  EXPECT_EQ("#<initSigGenTable>#no mem for sig_gen_table", log_.lines()[0].text);
}

TEST_F(SigGenTableTest, EveryLevelHasTheSameBoundsAndTheLastRowIsOpen) {
  for (int level = -1; level <= 6; ++level) {
    const TableOwner made = table(level);
    EXPECT_EQ((Column{0, 10, 20, 30, 50, 70, 80, 100, 500}), column(made, &SigGenRow::bound_low));
    EXPECT_EQ((Column{10, 20, 30, 50, 70, 80, 100, 500, 0}), column(made, &SigGenRow::bound_high));
    EXPECT_EQ(500u, made[0].rows[8].bound_low);
    EXPECT_EQ(0u, made[0].rows[8].bound_high);
  }
}

// Each level again, from its factors and the rows' multipliers.
TEST_F(SigGenTableTest, TheParametersOfEveryLevelAreTheProductsOfFactorAndRow) {
  struct Level {
    int level;
    uint32_t a;
    uint32_t factor_b;
    Column rows_b;
    uint32_t factor_c;
    Column rows_c;
  };
  const Column ones(9, 1);
  const std::vector<Level> levels = {
      {-1, 5, 2, ones, 40, ones},
      {0, 5, 40, ones, 40, ones},
      {1, 4, 2, {1, 2, 2, 2, 4, 4, 4, 8, 512}, 32, {1, 2, 2, 4, 4, 4, 4, 32, 32}},
      {2, 4, 2, {1, 2, 4, 4, 8, 8, 8, 32, 512}, 32, {1, 2, 2, 4, 4, 8, 8, 32, 32}},
      {3, 4, 4, {1, 2, 4, 4, 8, 8, 8, 32, 256}, 32, {1, 2, 2, 4, 8, 8, 32, 32, 32}},
      {4, 4, 8, {1, 2, 2, 4, 16, 16, 16, 128, 128}, 64, {1, 4, 4, 16, 16, 16, 16, 16, 16}},
      {5, 4, 16, {1, 2, 2, 2, 8, 8, 8, 64, 64}, 64, {1, 4, 4, 16, 16, 16, 16, 16, 16}},
      {6, 4, 16, {1, 2, 2, 4, 8, 8, 8, 64, 64}, 256, {1, 1, 4, 4, 4, 4, 4, 4, 4}}};
  for (const Level& level : levels) {
    SCOPED_TRACE(level.level);
    const TableOwner made = table(level.level);
    Column b, c;
    for (const uint32_t row : level.rows_b) b.push_back(row * level.factor_b);
    for (const uint32_t row : level.rows_c) c.push_back(row * level.factor_c);
    EXPECT_EQ(Column(9, level.a), column(made, &SigGenRow::param_a));
    EXPECT_EQ(b, column(made, &SigGenRow::param_b));
    EXPECT_EQ(c, column(made, &SigGenRow::param_c));
  }
}

TEST_F(SigGenTableTest, AnUnknownPlatformChangesNothing) {
  const int before = text_signaturer.platform;
  for (const int platform : {0, 3, -1}) {
    log_.clear();
    EXPECT_EQ(kErrParam, initTextSignaturer(platform, 3));
    EXPECT_EQ(nullptr, text_signaturer.sig_gen_table);
    EXPECT_EQ(before, text_signaturer.platform);
    ASSERT_EQ(1u, log_.lines().size());
    EXPECT_EQ(3, log_.lines()[0].level);
    EXPECT_EQ("Error", log_.lines()[0].word);
    EXPECT_EQ("#<initTextSignaturer>#wrong platform (" + std::to_string(platform) + ")",
              log_.lines()[0].text);
  }
}

TEST_F(SigGenTableTest, AFailedTableLeavesThePlatformRecorded) {
  for (const int platform : {kClient, kServer}) {
    log_.clear();
    EXPECT_EQ(kErrParam, initTextSignaturer(platform, 7));
    EXPECT_EQ(platform, text_signaturer.platform);
    EXPECT_EQ(nullptr, text_signaturer.sig_gen_table);
    ASSERT_EQ(2u, log_.lines().size());
    EXPECT_EQ("#<initSigGenTable>#invalid sig gen level 7", log_.lines()[0].text);
    EXPECT_EQ(3, log_.lines()[1].level);
    EXPECT_EQ("Error", log_.lines()[1].word);
    EXPECT_EQ("#<initTextSignaturer>#initSigGenTable fail (-3)", log_.lines()[1].text);
  }
}

TEST_F(SigGenTableTest, MemoryThatRunsOutIsPassedUp) {
  FailPoint point;
  point.fail(Call::kAllocate, 1);
  EXPECT_EQ(kErrMem, initTextSignaturer(kServer, 3));
  EXPECT_EQ(nullptr, text_signaturer.sig_gen_table);
  EXPECT_EQ((std::vector<std::string>{"no mem for sig_gen_table", "initSigGenTable fail (-4)"}),
            log_.messages());
}

TEST_F(SigGenTableTest, SuccessAnnouncesTheParameters) {
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  EXPECT_EQ(kServer, text_signaturer.platform);
  ASSERT_NE(nullptr, text_signaturer.sig_gen_table);
  EXPECT_EQ(3, text_signaturer.sig_gen_table->level);
  ASSERT_EQ(1u, log_.lines().size());
  const LogLine line = log_.lines()[0];
  EXPECT_EQ(3, line.level);
  EXPECT_EQ("Info", line.word);
  EXPECT_EQ("null", line.tag);
  EXPECT_EQ(
      "#<initTextSignaturer>#DLP_PRIME = 137, DLP_BASE = 8, DLP_PIECE_NUMBER = 8, "
      "DLP_PIECE_SIZE = 1024, DLP_SLIDE_WINDOW = 61",
      line.text);
}

TEST_F(SigGenTableTest, TheStepIsTheFirstParameterOfTheFirstRow) {
  ASSERT_EQ(kOk, initTextSignaturer(kServer, -1));
  EXPECT_EQ(5u, text_signaturer.table_step);
  releaseTextSignaturer();
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  EXPECT_EQ(4u, text_signaturer.table_step);
}

TEST_F(SigGenTableTest, TheByteOrderOfTheHostIsRecorded) {
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  EXPECT_EQ(std::endian::native == std::endian::big ? 1u : 2u, text_signaturer.byte_order);
}

TEST_F(SigGenTableTest, TheOutTablesHoldMultiplesOfTheLeadingFactor) {
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  for (uint64_t c = 0; c < 256; ++c) {
    EXPECT_EQ(c * 32768, text_signaturer.karp_rabin_out[c]);
    EXPECT_EQ(c * 61, text_signaturer.adler_out[c]);
  }
}

TEST_F(SigGenTableTest, TwoCyclesLeaveTheTablesOfTheFirst) {
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  EXPECT_EQ(0, releaseTextSignaturer());
  EXPECT_EQ(nullptr, text_signaturer.sig_gen_table);
  const TextSignaturer first = text_signaturer;
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  EXPECT_EQ(0, releaseTextSignaturer());
  EXPECT_EQ(0, std::memcmp(first.karp_rabin_out, text_signaturer.karp_rabin_out,
                           sizeof first.karp_rabin_out));
  EXPECT_EQ(0, std::memcmp(first.adler_out, text_signaturer.adler_out, sizeof first.adler_out));
  EXPECT_EQ(0, std::memcmp(first.character_filter, text_signaturer.character_filter, 256));
}

TEST_F(SigGenTableTest, TheOutTablesAreBuiltOnlyOnce) {
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  releaseTextSignaturer();
  text_signaturer.karp_rabin_out[1] = 1;
  text_signaturer.adler_out[1] = 1;
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  EXPECT_EQ(1u, text_signaturer.karp_rabin_out[1]);
  EXPECT_EQ(1u, text_signaturer.adler_out[1]);
  text_signaturer.karp_rabin_out[1] = 32768;
  text_signaturer.adler_out[1] = 61;
}

TEST_F(SigGenTableTest, LettersDigitsAndBytesFrom128PassTheFilter) {
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  const std::string ascii = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  for (int c = 0; c < 256; ++c) {
    const bool passes = c >= 128 || (c != 0 && ascii.find(static_cast<char>(c)) != ascii.npos);
    EXPECT_EQ(passes ? 1 : 0, text_signaturer.character_filter[c]) << c;
  }
}

TEST_F(SigGenTableTest, ReleasingWithoutATableSucceeds) {
  EXPECT_EQ(0, releaseTextSignaturer());
  EXPECT_EQ(0, releaseTextSignaturer());
}

}  // namespace
