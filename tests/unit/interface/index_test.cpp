// The exports of the index family: results, messages, the size limit, the root
// document.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "fail_point.h"
#include "log_capture.h"
#include "temp_dir.h"
#include "tessera.h"

namespace {

constexpr unsigned int kDefaultLimit = 0x80000000u;

// Errors of this layer, without those of the layers below.
std::vector<std::string> exportMessages(const LogCapture& log) {
  std::vector<std::string> messages;
  for (const LogLine& line : log.lines()) {
    if (line.tag != "TESSERA_MODULE") continue;
    EXPECT_EQ(3, line.level) << line.text;
    EXPECT_EQ("Error", line.word) << line.text;
    messages.push_back(line.text);
  }
  return messages;
}

using Texts = std::vector<std::string>;

class IndexExports : public testing::Test {
 protected:
  IndexExports() { dir_.write("index_sys_config.txt", "max_ele_num_save=100\n"); }
  ~IndexExports() override {
    setMaxStblSize(kDefaultLimit);
    ExitIndexSystem();
  }

  int open() {
    const int result = InitIndexSystem();
    log_.clear();
    return result;
  }
  // Adds a document whose only signature is eight times `byte`.
  static int add(int64_t fid, int byte = 1) {
    unsigned char signatures[1][8];
    std::memset(signatures, byte, sizeof signatures);
    return AddDocSignature(fid, signatures, 1);
  }
  static int remove(std::vector<int64_t> fids) {
    return DelDocSignature(fids.data(), static_cast<int>(fids.size()));
  }
  std::string strong() { return dir_.read("sig_index_DB/search_table.stbl"); }

  TempDir dir_;
  LogCapture log_;
};

const std::string kRootElement =
    std::string(8, '\xff') + std::string(4, '\0') + std::string(4, '\xff');

// ---- Life cycle ----

TEST_F(IndexExports, AFreshIndexHoldsTheRootDocument) {
  EXPECT_EQ(0, InitIndexSystem());
  EXPECT_EQ(std::string("\xff\xff\xff\xff\xff\xff\xff\xff\x03\x00\x00\x00", 12),
            dir_.read("sig_index_DB/meta_data.bin"));
  EXPECT_EQ(0, ExitIndexSystem());
  EXPECT_EQ(std::string(8, '\xff'), dir_.read("sig_index_DB/search_table.wtbl"));
  EXPECT_EQ(kRootElement, strong());
  EXPECT_TRUE(exportMessages(log_).empty());
}

TEST_F(IndexExports, TheRootIsAddedByEverySessionAndADuplicateFromTheSecondOn) {
  ASSERT_EQ(0, open());
  ASSERT_EQ(0, ExitIndexSystem());
  EXPECT_TRUE(log_.lines().empty());
  ASSERT_EQ(0, open());
  ASSERT_EQ(0, ExitIndexSystem());
  EXPECT_EQ((Texts{"duplicated fid_sig value", "duplicated sig_fid value",
                   "duplicated src_fid value: -1, 0"}),
            log_.messages());
  EXPECT_EQ(kRootElement, strong());
}

TEST_F(IndexExports, ADocumentIsInTheTablesAfterTheExit) {
  ASSERT_EQ(0, open());
  EXPECT_EQ(0, add(int64_t{0x12345678}, 2));
  EXPECT_EQ(0, ExitIndexSystem());
  // The offset is one more than the file ID, the source its low 32 bits.
  EXPECT_EQ(
      std::string(8, '\x02') + std::string("\x79\x56\x34\x12\x78\x56\x34\x12", 8) + kRootElement,
      strong());
}

TEST_F(IndexExports, NothingWorksBeforeTheInitialisation) {
  EXPECT_EQ(1, add(1));
  EXPECT_EQ(1, remove({1}));
  EXPECT_EQ(1, ExitIndexSystem());
  EXPECT_EQ(
      (Texts{"#<AddDocSignature>#Add doc signature fail", "#<ExitIndexSystem>#stop doc crawl fail",
             "#<ExitIndexSystem>#create search table fail",
             "#<ExitIndexSystem>#destroy index system fail"}),
      exportMessages(log_));
  EXPECT_FALSE(dir_.exists("sig_index_DB"));
}

TEST_F(IndexExports, ASecondInitialisationIsRefusedAndTheFirstGoesOn) {
  ASSERT_EQ(0, open());
  EXPECT_EQ(0, add(1));
  EXPECT_EQ(1, InitIndexSystem());
  EXPECT_EQ(Texts{"#<InitIndexSystem>#init index system fail"}, exportMessages(log_));
  EXPECT_EQ(2, add(1));
  EXPECT_EQ(0, ExitIndexSystem());
}

TEST_F(IndexExports, WithoutAConfigurationThereIsNoIndex) {
  std::filesystem::remove("index_sys_config.txt");
  EXPECT_EQ(1, InitIndexSystem());
  EXPECT_EQ(Texts{"#<InitIndexSystem>#init index system fail"}, exportMessages(log_));
  EXPECT_EQ(1, ExitIndexSystem());
}

TEST_F(IndexExports, AnIndexThatCannotTakeItsRootIsClosedAgain) {
  dir_.makeDirectory("sig_index_DB");
  // A base from which -1 is too far.
  dir_.write("sig_index_DB/meta_data.bin", std::string("\0\0\0\0\0\0\0\x10\3\0\0\0", 12));
  EXPECT_EQ(1, InitIndexSystem());
  EXPECT_EQ(Texts{"#<InitIndexSystem>#add root node fail"}, exportMessages(log_));
  EXPECT_EQ(1, add(1));
  std::filesystem::remove("sig_index_DB/meta_data.bin");
  EXPECT_EQ(0, InitIndexSystem());
}

TEST_F(IndexExports, AFailedStopClosesTheIndexAndIsTold) {
  FailPoint point;
  ASSERT_EQ(0, open());
  ASSERT_EQ(0, add(1));
  point.fail(Call::kWrite, 1, true);
  EXPECT_EQ(1, ExitIndexSystem());
  EXPECT_TRUE(point.failed());
  EXPECT_EQ((Texts{"#<ExitIndexSystem>#stop doc crawl fail",
                   "#<ExitIndexSystem>#create search table fail",
                   "#<ExitIndexSystem>#destroy index system fail"}),
            exportMessages(log_));
  EXPECT_FALSE(dir_.exists("sig_index_DB/search_table.stbl"));
  EXPECT_EQ(1, remove({1}));
}

TEST_F(IndexExports, AFailureToWriteTheTablesAloneIsOnlyLogged) {
  FailPoint point;
  ASSERT_EQ(0, open());
  point.fail(Call::kOpen, 1, true, ".stbl");
  EXPECT_EQ(0, ExitIndexSystem());
  EXPECT_EQ(Texts{"#<ExitIndexSystem>#create search table fail"}, exportMessages(log_));
}

// ---- Adding ----

TEST_F(IndexExports, TheRootsFileIdIsInvalidAndItsNeighbourIsNot) {
  ASSERT_EQ(0, open());
  EXPECT_EQ(1, add(-1));
  EXPECT_EQ(Texts{"#<AddDocSignature>#FID invalid!"}, exportMessages(log_));
  EXPECT_EQ(0, add(-2));
  EXPECT_EQ(1u, log_.lines().size());
}

TEST_F(IndexExports, TheRootsFileIdIsLookedAtFirst) {
  setMaxStblSize(0);
  EXPECT_EQ(1, AddDocSignature(-1, nullptr, -1));
  EXPECT_EQ(1u, log_.lines().size());
  EXPECT_EQ(Texts{"#<AddDocSignature>#FID invalid!"}, exportMessages(log_));
}

TEST_F(IndexExports, APendingFileIdGivesTwo) {
  ASSERT_EQ(0, open());
  EXPECT_EQ(0, add(1));
  EXPECT_EQ(2, add(1, 9));
  EXPECT_EQ(Texts{"#<AddDocSignature>#Add doc signature fail"}, exportMessages(log_));
}

TEST_F(IndexExports, AFileIdThatIsTooFarGivesOne) {
  ASSERT_EQ(0, open());
  EXPECT_EQ(0, add(2147483646));
  EXPECT_EQ(1, add(2147483647));
  EXPECT_EQ(Texts{"#<AddDocSignature>#Add doc signature fail"}, exportMessages(log_));
}

TEST_F(IndexExports, ANegativeCountAMissingListAndNoSignaturesAreRefused) {
  unsigned char one[1][8] = {};
  ASSERT_EQ(0, open());
  EXPECT_EQ(1, AddDocSignature(5, one, -1));
  EXPECT_EQ(1, AddDocSignature(5, one, INT_MIN));
  EXPECT_EQ(1, AddDocSignature(5, nullptr, 1));
  EXPECT_EQ(1, AddDocSignature(5, nullptr, -1));
  EXPECT_EQ(1, AddDocSignature(5, nullptr, 0));
  EXPECT_EQ(1, AddDocSignature(5, one, 0));
  EXPECT_EQ(6u, exportMessages(log_).size());
  EXPECT_TRUE(log_.has("Error: sig_num <= 0. invalid para"));
  EXPECT_TRUE(log_.has("Error: sig is null. invalid para"));
  EXPECT_EQ(0, add(5));  // nothing was queued
}

// ---- The size limit ----

class SizeLimit : public IndexExports {
 protected:
  const Texts kTooLarge{"#<AddDocSignature>#DB is too large, add sigs fail!"};
};

TEST_F(SizeLimit, OfZeroRefusesEveryDocumentAlsoWithoutATable) {
  ASSERT_EQ(0, open());
  EXPECT_EQ(0, setMaxStblSize(0));
  EXPECT_EQ(1, add(1));
  EXPECT_EQ(kTooLarge, exportMessages(log_));
  EXPECT_EQ(0, setMaxStblSize(1));
  EXPECT_EQ(0, add(1));
}

TEST_F(SizeLimit, IsMetByATableOfItsSize) {
  ASSERT_EQ(0, open());
  dir_.write("sig_index_DB/sig_table.stbl", std::string(100, 'x'));
  setMaxStblSize(100);
  EXPECT_EQ(1, add(1));
  EXPECT_EQ(kTooLarge, exportMessages(log_));
  setMaxStblSize(101);
  EXPECT_EQ(0, add(1));
}

TEST_F(SizeLimit, IsTestedBeforeTheIndexIsLookedAt) {
  setMaxStblSize(0);
  EXPECT_EQ(1, add(1));
  EXPECT_EQ(1u, log_.lines().size());
  EXPECT_EQ(kTooLarge, exportMessages(log_));
}

TEST_F(SizeLimit, LooksOnlyAtATableOfOneName) {
  ASSERT_EQ(0, open());
  ASSERT_EQ(0, ExitIndexSystem());
  ASSERT_TRUE(dir_.exists("sig_index_DB/search_table.stbl"));
  ASSERT_EQ(0, open());
  setMaxStblSize(1);
  EXPECT_EQ(0, add(1));
  ASSERT_EQ(0, ExitIndexSystem());

  dir_.write("index_sys_config.txt", "search_table_fname=\"sig_table\"\n");
  ASSERT_EQ(0, open());
  EXPECT_EQ(0, add(2));  // what is being added does not count
  ASSERT_EQ(0, ExitIndexSystem());
  ASSERT_EQ(0, open());
  EXPECT_EQ(1, add(3));
}

TEST_F(SizeLimit, ATableThatCannotBeOpenedHasNoSize) {
  ASSERT_EQ(0, open());
  dir_.write("sig_index_DB/sig_table.stbl", std::string(100, 'x'));
  setMaxStblSize(1);
  FailPoint point;
  point.fail(Call::kOpen, 1, false, "sig_index_DB/sig_table.stbl");
  EXPECT_EQ(0, add(1));
  EXPECT_TRUE(point.failed());
}

TEST_F(SizeLimit, ATableThatCannotBeMeasuredIsTooLarge) {
  ASSERT_EQ(0, open());
  dir_.write("sig_index_DB/sig_table.stbl", std::string(100, 'x'));
  FailPoint point;
  point.fail(Call::kSize, 1, false, "sig_table.stbl");
  EXPECT_EQ(1, add(1));
  EXPECT_EQ(kTooLarge, exportMessages(log_));
}

// ---- Deleting ----

TEST_F(IndexExports, ADeletedDocumentIsNotInTheTables) {
  ASSERT_EQ(0, open());
  for (int64_t fid = 0; fid < 4; ++fid) ASSERT_EQ(0, add(fid));
  ASSERT_EQ(0, ExitIndexSystem());
  ASSERT_EQ(0, open());
  EXPECT_EQ(0, remove({0, 2, 3, 77}));
  EXPECT_TRUE(log_.lines().empty());
  ASSERT_EQ(0, ExitIndexSystem());
  EXPECT_EQ(std::string(8, '\x01') + std::string("\2\0\0\0\1\0\0\0", 8) + kRootElement, strong());
}

TEST_F(IndexExports, DeletingEvenTheRootLeavesItPending) {
  ASSERT_EQ(0, open());
  EXPECT_EQ(0, remove({-1}));
  ASSERT_EQ(0, ExitIndexSystem());
  EXPECT_EQ(kRootElement, strong());
}

TEST_F(IndexExports, ADeletionWithBadArgumentsIsRefusedWithoutAMessage) {
  int64_t fids[] = {1, 2};
  ASSERT_EQ(0, open());
  EXPECT_EQ(1, DelDocSignature(nullptr, 2));
  EXPECT_EQ(1, DelDocSignature(nullptr, 0));
  EXPECT_EQ(1, DelDocSignature(fids, -1));
  EXPECT_EQ(1, DelDocSignature(fids, INT_MIN));
  EXPECT_EQ(0, DelDocSignature(fids, 0));
  EXPECT_EQ(0, DelDocSignature(fids, 2));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(IndexExports, ADeletionOfAFileIdThatIsTooFarGivesOne) {
  ASSERT_EQ(0, open());
  EXPECT_EQ(1, remove({1, int64_t{1} << 32}));
  EXPECT_TRUE(exportMessages(log_).empty());
}

// ---- Threads ----

TEST_F(IndexExports, DocumentsOfSeveralThreadsAllArrive) {
  ASSERT_EQ(0, open());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 50; ++i) EXPECT_EQ(0, add(t * 50 + i));
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(0, ExitIndexSystem());
  EXPECT_EQ(16u * 201, strong().size());
}

}  // namespace
