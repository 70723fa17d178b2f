#include "vn_search_table_data.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "log_capture.h"
#include "status.h"

namespace {

// A file that has whatever size a test says and notes where it is read.
class FakeFile final : public platform::File {
 public:
  explicit FakeFile(int64_t size, std::string content = "")
      : size_(size), content_(std::move(content)) {}

  bool seek(uint64_t offset) override {
    position = offset;
    return !seek_fails;
  }
  int64_t read(void* buffer, size_t bytes) override {
    if (read_fails) return -1;
    if (position >= content_.size()) return 0;
    const size_t got = std::min<size_t>(bytes, content_.size() - position);
    std::memcpy(buffer, content_.data() + position, got);
    return static_cast<int64_t>(got);
  }
  bool write(const void*, size_t) override { return false; }
  int64_t size() override { return size_; }
  bool truncate(uint64_t) override { return false; }
  bool sync() override { return false; }

  uint64_t position = 0;
  bool seek_fails = false;
  bool read_fails = false;

 private:
  const int64_t size_;
  const std::string content_;
};

class SearchTableData : public testing::Test {
 protected:
  void expectOnly(const std::string& word, const std::string& function,
                  const std::string& message) {
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ(3, log.lines()[0].level);
    EXPECT_EQ(word, log.lines()[0].word);
    EXPECT_EQ("fpe_utility", log.lines()[0].tag);
    EXPECT_EQ(function, log.lines()[0].function);
    EXPECT_EQ(message, log.lines()[0].message);
    log.clear();
  }

  LogCapture log;
};

TEST_F(SearchTableData, AWeakTableHoldsAnEighthOfItsBytes) {
  FakeFile file(24);
  uint32_t sig_num = 99;
  EXPECT_EQ(kOk, chk_sig_num_in_weak_search_table(&file, &sig_num));
  EXPECT_EQ(3u, sig_num);
  EXPECT_EQ(kOk, chk_sig_num_in_weak_search_table(&file, nullptr));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SearchTableData, AnEmptyWeakTableIsACountOfZero) {
  FakeFile file(0);
  uint32_t sig_num = 99;
  EXPECT_EQ(kOk, chk_sig_num_in_weak_search_table(&file, &sig_num));
  EXPECT_EQ(0u, sig_num);
  expectOnly("Info", "chk_sig_num_in_weak_search_table", "weak search table empty");
  EXPECT_EQ(kOk, chk_sig_num_in_weak_search_table(&file, nullptr));
}

TEST_F(SearchTableData, AWeakTableOfOtherSizesIsRefusedAndStoresNoCount) {
  uint32_t sig_num = 99;
  for (const int64_t size : {1, 4, 7}) {
    FakeFile file(size);
    EXPECT_EQ(kErrFile, chk_sig_num_in_weak_search_table(&file, &sig_num));
    expectOnly("Error", "chk_sig_num_in_weak_search_table",
               "Error: no signature in weak search table");
  }
  for (const int64_t size : {9, 12, 15}) {
    FakeFile file(size);
    EXPECT_EQ(kErrFile, chk_sig_num_in_weak_search_table(&file, &sig_num));
    expectOnly("Error", "chk_sig_num_in_weak_search_table", "weak search table size error");
  }
  EXPECT_EQ(99u, sig_num);
}

TEST_F(SearchTableData, ASizeBeyond32BitsIsAFailureAndSoIsTheLargestOneWithin) {
  uint32_t count = 99;
  for (const int64_t size : {int64_t{-1}, int64_t{4294967295}, int64_t{4294967296}}) {
    FakeFile file(size);
    EXPECT_EQ(kErrFile, chk_sig_num_in_weak_search_table(&file, &count));
    expectOnly("Error", "chk_sig_num_in_weak_search_table", "get size of weak search table fail");
    EXPECT_EQ(kErrFile, chk_search_table_ele_num(&file, &count));
    expectOnly("Error", "chk_search_table_ele_num", "get size of strong search table file fail");
  }
  EXPECT_EQ(99u, count);

  FakeFile largest(4294967280);
  EXPECT_EQ(kOk, chk_sig_num_in_weak_search_table(&largest, &count));
  EXPECT_EQ(536870910u, count);
  EXPECT_EQ(kOk, chk_search_table_ele_num(&largest, &count));
  EXPECT_EQ(268435455u, count);
}

TEST_F(SearchTableData, AStrongTableHoldsASixteenthOfItsBytes) {
  FakeFile file(48);
  uint32_t ele_num = 99;
  EXPECT_EQ(kOk, chk_search_table_ele_num(&file, &ele_num));
  EXPECT_EQ(3u, ele_num);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SearchTableData, AnEmptyStrongTableIsAnErrorUnlikeAWeakOne) {
  FakeFile file(0);
  uint32_t ele_num = 99;
  EXPECT_EQ(kErrFile, chk_search_table_ele_num(&file, &ele_num));
  EXPECT_EQ(0u, ele_num);
  expectOnly("Error", "chk_search_table_ele_num", "Error: no element in strong search table file");
}

TEST_F(SearchTableData, AStrongTableWithAPieceOfAnElementIsRefusedButItsCountIsStored) {
  uint32_t ele_num = 99;
  FakeFile piece(15);
  EXPECT_EQ(kErrFile, chk_search_table_ele_num(&piece, &ele_num));
  EXPECT_EQ(0u, ele_num);
  expectOnly("Error", "chk_search_table_ele_num", "Error: no element in strong search table file");
  FakeFile more(40);
  EXPECT_EQ(kErrFile, chk_search_table_ele_num(&more, &ele_num));
  EXPECT_EQ(2u, ele_num);
  expectOnly("Error", "chk_search_table_ele_num", "strong search table size error");
}

TEST_F(SearchTableData, ElementsAreSixteenBytesAtSixteenTimesTheirPosition) {
  std::string content;
  for (char c = 'a'; c <= 'd'; ++c) content += std::string(8, c) + c + std::string(7, '\0');
  FakeFile file(64, content);
  StrongElement elements[2];
  ASSERT_EQ(ReadResult::kDone, readElements(&file, 1, 2, elements));
  EXPECT_EQ(16u, file.position);
  EXPECT_EQ(0, std::memcmp("bbbbbbbb", elements[0].signature.bytes, 8));
  EXPECT_EQ('b', elements[0].fid);
  EXPECT_EQ(0, elements[0].source);
  EXPECT_EQ('c', elements[1].fid);
}

TEST_F(SearchTableData, ElementsAreSoughtBeyond4GiB) {
  FakeFile file(0);
  StrongElement element;
  EXPECT_EQ(ReadResult::kReadFailed, readElements(&file, 0x10000001, 1, &element));
  EXPECT_EQ(0x100000010u, file.position);
}

TEST_F(SearchTableData, ElementsThatCannotBeSoughtOrReadWholeAreTold) {
  FakeFile file(32, std::string(31, 'x'));
  StrongElement elements[2];
  EXPECT_EQ(ReadResult::kDone, readElements(&file, 0, 1, elements));
  EXPECT_EQ(ReadResult::kReadFailed, readElements(&file, 0, 2, elements));
  file.read_fails = true;
  EXPECT_EQ(ReadResult::kReadFailed, readElements(&file, 0, 1, elements));
  file.seek_fails = true;
  EXPECT_EQ(ReadResult::kSeekFailed, readElements(&file, 0, 1, elements));
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
