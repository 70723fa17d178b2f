// Records one at a time, and the digest of a set of them.
#include "record_scan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "documents.h"
#include "fail_point.h"
#include "temp_dir.h"
#include "tree_content.h"

namespace {

struct OneTree {
  OneTree() : store("t", {""}, AccessType::kReadWrite, {}), tree(&store, 0) {}
  TreeStore store;
  SrcFidTree tree;
};

TEST(TreeScan, YieldsEveryRecordInOrderAndThenNothing) {
  const TempDir dir;
  FailPoint system;
  system.setGranularity(1024);
  OneTree made;
  for (int32_t i = 0; i < 1000; ++i) ASSERT_TRUE(made.tree.insert({i % 10, i}));
  const std::vector<SrcFidRecord> expected = recordsOf(&made.tree);
  TreeScan scan(&made.tree);
  for (const SrcFidRecord& record : expected) {
    const SrcFidRecord* const next = scan.next();
    ASSERT_NE(nullptr, next);
    EXPECT_EQ(record.source, next->source);
    EXPECT_EQ(record.fid, next->fid);
  }
  EXPECT_EQ(nullptr, scan.next());
  EXPECT_EQ(nullptr, scan.next());
}

TEST(TreeScan, OfAnEmptyTreeYieldsNothing) {
  const TempDir dir;
  OneTree made;
  TreeScan scan(&made.tree);
  EXPECT_EQ(nullptr, scan.next());
}

TEST(TableScan, LeavesOutAnElementThatIsCut) {
  const TempDir dir;
  dir.write("table", std::string(8, 'a') + std::string(8, 'b') + "half");
  const auto file = platform::current().open("table", platform::OpenMode::kRead);
  TableScan<Signature> scan(file.get());
  EXPECT_EQ('a', scan.next()->bytes[0]);
  EXPECT_EQ('b', scan.next()->bytes[7]);
  EXPECT_EQ(nullptr, scan.next());
}

TEST(TableScan, ReadsMoreElementsThanItHoldsAtOnce) {
  const TempDir dir;
  std::string content(8 * 70000, '\0');
  content.back() = 'z';
  dir.write("table", content);
  const auto file = platform::current().open("table", platform::OpenMode::kRead);
  TableScan<Signature> scan(file.get());
  unsigned char last = 0;
  size_t count = 0;
  while (const Signature* const signature = scan.next()) {
    last = signature->bytes[7];
    ++count;
  }
  EXPECT_EQ(70000u, count);
  EXPECT_EQ('z', last);
}

PostingDigest digestOf(const std::vector<FidSigRecord>& records) {
  PostingDigest digest;
  for (const FidSigRecord& r : records) digest.add(r.fid, r.source, r.signature);
  return digest;
}

TEST(PostingDigest, DoesNotDependOnTheOrder) {
  const std::vector<Signature> signatures = documents::signatures(100, 1);
  std::vector<FidSigRecord> records;
  for (int32_t i = 0; i < 100; ++i) records.push_back({i % 7, i % 3, signatures[size_t(i)]});
  const PostingDigest digest = digestOf(records);
  std::reverse(records.begin(), records.end());
  EXPECT_TRUE(digest == digestOf(records));
  EXPECT_EQ(100u, digest.count());
}

TEST(PostingDigest, TellsEverySingleBit) {
  std::vector<FidSigRecord> records;
  for (int32_t i = 0; i < 20; ++i) records.push_back({i, 3, documents::signature({1, 2, 3, i})});
  const PostingDigest digest = digestOf(records);
  for (int bit = 0; bit < 128; ++bit) {
    std::vector<FidSigRecord> other = records;
    reinterpret_cast<unsigned char*>(&other[7])[bit / 8] ^=
        static_cast<unsigned char>(1 << bit % 8);
    EXPECT_FALSE(digest == digestOf(other)) << bit;
  }
}

// What sums and exclusive ors of plain fields would miss.
TEST(PostingDigest, TellsFieldsThatWereExchangedBetweenPostings) {
  const Signature a = documents::signature({1});
  const Signature b = documents::signature({2});
  EXPECT_FALSE(digestOf({{1, 5, a}, {2, 5, b}}) == digestOf({{1, 5, b}, {2, 5, a}}));
  EXPECT_FALSE(digestOf({{1, 5, a}, {2, 6, a}}) == digestOf({{1, 6, a}, {2, 5, a}}));
  EXPECT_FALSE(digestOf({{1, 2, a}}) == digestOf({{2, 1, a}}));
}

}  // namespace
