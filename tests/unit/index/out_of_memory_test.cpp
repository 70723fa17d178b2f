// An addition or a save whose memory cannot be had, allocation by allocation.
// This file replaces the operators new and delete of its program.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>

#include "documents.h"
#include "index_model.h"
#include "index_test_support.h"
#include "status.h"
#include "vn_fid_sig_index_collector_btree.h"

namespace {

int allocations_until_failure = 0;  // 0: none fails
bool lasting = false;               // nor does one after it succeed, until this is cleared
bool memory_is_out = false;

bool refused() {
  if (memory_is_out) return true;
  if (allocations_until_failure == 0 || --allocations_until_failure > 0) return false;
  memory_is_out = lasting;
  return true;
}

}  // namespace

// Not inline: g++ would take the free() for one that does not fit the new.
[[gnu::noinline]] void* operator new(size_t bytes) {
  void* const block = refused() ? nullptr : std::malloc(bytes);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
[[gnu::noinline]] void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  return refused() ? nullptr : std::malloc(bytes);
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, size_t) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}

namespace {

using Signatures = std::vector<Signature>;

class OutOfMemory : public testing::Test {
 protected:
  OutOfMemory() { EXPECT_EQ(kOk, collector_.Init(IndexSysConfiguration(), "db")); }

  int add(uint32_t fid, const Signatures& signatures) {
    return collector_.AddFidSignature(fid, fid, static_cast<uint32_t>(signatures.size()),
                                      signatures.data());
  }

  // Everything was saved, closes the collector.
  void expectAsTheModel() {
    model_.save();
    collector_.Reset();
    const StoredIndex index = storedIndex("db/fid_index");
    EXPECT_TRUE(model_.fidSig() == index.fid_sig);
    EXPECT_TRUE(model_.srcFid() == index.src_fid);
    EXPECT_TRUE(model_.sigFid() == index.sig_fid);
  }

  TempDir dir_;
  LogCapture log_;
  IndexModel model_{2096};
  dlp_btree::FidSigIndexCollector collector_;
};

TEST_F(OutOfMemory, AnAdditionIsWholeOrNotAtAll) {
  int failures = 0;
  for (uint32_t fid = 0; fid < 40; ++fid) {
    const Signatures signatures = documents::signatures(10, fid);
    for (int n = 1;; ++n) {
      allocations_until_failure = n;
      const int status = add(fid, signatures);
      const bool failed = allocations_until_failure == 0;
      allocations_until_failure = 0;
      EXPECT_EQ(failed ? kErrMem : kOk, status);
      if (!failed) break;
      ++failures;
    }
    model_.add(fid, fid, signatures);
  }
  EXPECT_GE(failures, 40);  // at least the map's entry of each
  EXPECT_TRUE(log_.lines().empty());
  ASSERT_EQ(kOk, collector_.SaveFidSignature());
  expectAsTheModel();
}

// The ranges of the pending documents are 32-bit numbers. What is too much is
// refused before memory is asked for, and the short list is not read.
TEST_F(OutOfMemory, MoreSignaturesThan32BitsCanCountAreRefusedUnasked) {
  const Signatures signatures = documents::signatures(1, 1);
  ASSERT_EQ(kOk, add(1, signatures));
  allocations_until_failure = 1;
  EXPECT_EQ(kErrMem, collector_.AddFidSignature(2, 2, UINT32_MAX, signatures.data()));
  EXPECT_EQ(1, allocations_until_failure);
  allocations_until_failure = 0;
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(kOk, add(2, signatures));  // it is not pending
  model_.add(1, 1, signatures);
  model_.add(2, 2, signatures);
  ASSERT_EQ(kOk, collector_.SaveFidSignature());
  expectAsTheModel();
}

// The first ten allocations of a save are its two lists, the two of the batch and two
// for the answers of each tree, before any tree is touched.
TEST_F(OutOfMemory, ASaveWithoutMemoryForItsListsKeepsTheDocumentsPending) {
  const Signatures signatures = documents::signatures(2000, 1);
  ASSERT_EQ(kOk, add(5, signatures));
  model_.add(5, 5, signatures);
  for (int n = 1; n <= 10; ++n) {
    allocations_until_failure = n;
    EXPECT_EQ(kErrMem, collector_.SaveFidSignature());
    EXPECT_EQ(0, allocations_until_failure);
    EXPECT_EQ(kErrPending, add(5, signatures));
  }
  ASSERT_EQ(kOk, collector_.SaveFidSignature());
  EXPECT_TRUE(log_.lines().empty());
  expectAsTheModel();
}

// Whoever goes on with a valid tree after that must find no part of the batch in it.
TEST_F(OutOfMemory, ABatchThatThrowsLeavesATreeUnchangedOrInvalid) {
  TreeStore store("lone", {""}, AccessType::kReadWrite, {});
  SrcFidTree tree(&store, 0);
  std::vector<SrcFidRecord> records;
  for (int32_t i = 0; i < 100; ++i) records.push_back({i, i});
  int failures = 0;
  for (int n = 1; tree.size() == 0; ++n) {
    std::vector<bool> refused;
    allocations_until_failure = n;
    try {
      EXPECT_TRUE(tree.insertBatch(records.data(), records.size(), &refused));
    } catch (const std::bad_alloc&) {
      EXPECT_TRUE(tree.size() == 0 || !tree.is_valid()) << n;
      EXPECT_TRUE(store.rollback());
      ++failures;
    }
    allocations_until_failure = 0;
  }
  EXPECT_EQ(records.size(), tree.size());
  EXPECT_GT(failures, 0);
}

// Not even a rollback can be relied on then; it is made up for by the next save.
TEST_F(OutOfMemory, ASaveThatLostAllMemorySucceedsWhenThereIsSomeAgain) {
  ASSERT_EQ(kOk, add(1000000, documents::signatures(9000, 0)));
  model_.add(1000000, 1000000, documents::signatures(9000, 0));
  ASSERT_EQ(kOk, collector_.SaveFidSignature());
  model_.save();
  int failures = 0;
  for (uint32_t n = 1;; ++n) {
    const Signatures signatures = documents::signatures(40, n);
    ASSERT_EQ(kOk, add(n, signatures));
    model_.add(n, n, signatures);
    allocations_until_failure = static_cast<int>(n);
    lasting = true;
    const int status = collector_.SaveFidSignature();
    const bool failed = memory_is_out;
    allocations_until_failure = 0;
    lasting = memory_is_out = false;
    ASSERT_EQ(failed ? kErrMem : kOk, status) << n;
    if (!failed) break;
    ++failures;
    ASSERT_EQ(kErrPending, add(n, signatures)) << n;
    ASSERT_EQ(kOk, collector_.SaveFidSignature()) << n;
    model_.save();
  }
  EXPECT_GT(failures, 20);
  EXPECT_TRUE(log_.lines().empty());
  expectAsTheModel();
}

}  // namespace
