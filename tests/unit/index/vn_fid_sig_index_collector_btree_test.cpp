// The collector: opening, pending documents, saving, deletion, and what it says
// when something fails. The search tables have their own file of tests.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>

#include "documents.h"
#include "fail_point.h"
#include "index_test_support.h"
#include "status.h"
#include "vn_fid_sig_index_collector_btree.h"

namespace {

using dlp_btree::FidSigIndexCollector;
using documents::signature;
using Signatures = std::vector<Signature>;

const std::string kClass = "dlp_btree::FidSigIndexCollector::";
const Signature kA = signature({0, 1, 2, 3, 4, 5, 6, 7});
const Signature kB = signature({0, 1, 2, 3, 4, 5, 6, 8});
const Signature kC = signature({255, 254, 0, 0, 0, 0, 0, 1});

Expected error(const std::string& function, const std::string& message) {
  return {3, "Error", kClass + function, message};
}
Expected notice(const std::string& function, const std::string& message) {
  return {4, "Info", kClass + function, message};
}

class CollectorTest : public testing::Test {
 protected:
  int init(const char* directory = "db") { return collector_->Init(configuration_, directory); }
  int add(uint32_t fid, uint32_t source, const Signatures& signatures) {
    return collector_->AddFidSignature(fid, source, static_cast<uint32_t>(signatures.size()),
                                       signatures.data());
  }
  void expectReset() {
    log_.clear();
    EXPECT_EQ(kErrState, add(1, 1, {kA}));
    expectLines(log_, {notice("AddFidSignature", "Error: add signature before init.")});
  }

  // Closes the collector and reads its trees.
  StoredIndex stored() {
    collector_->Reset();
    return storedIndex("db/fid_index");
  }

  TempDir dir_;
  LogCapture log_;
  IndexSysConfiguration configuration_;
  std::unique_ptr<FidSigIndexCollector> collector_ = std::make_unique<FidSigIndexCollector>();
};

// ---- Opening ----

TEST_F(CollectorTest, InitMakesTheDirectoryAndTwelveFiles) {
  EXPECT_EQ(kOk, init());
  for (const char* const tree : {".fidt", ".sidt", ".sigt"}) {
    for (const char* const file : {".l.blk", ".l.stk", ".n.blk", ".n.stk"}) {
      EXPECT_TRUE(dir_.exists(std::string("db/fid_index") + tree + file)) << tree << file;
    }
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(CollectorTest, TheTreesBearTheConfiguredName) {
  std::strcpy(configuration_.fid_index_fname, "other");
  EXPECT_EQ(kOk, init());
  EXPECT_TRUE(dir_.exists("db/other.sigt.l.blk"));
  EXPECT_FALSE(dir_.exists("db/fid_index.sigt.l.blk"));
}

TEST_F(CollectorTest, ADirectoryThatEndsInASeparatorIsKeptAsItIs) {
  dir_.makeDirectory("db");
  EXPECT_EQ(kOk, init("db/"));
  EXPECT_TRUE(dir_.exists("db/fid_index.fidt.l.blk"));
  EXPECT_EQ(kOk, init("db\\"));
  EXPECT_TRUE(std::filesystem::exists("db\\fid_index.fidt.l.blk"));
}

TEST_F(CollectorTest, ParentsOfTheDirectoryAreNotMade) {
  EXPECT_EQ(kErrFile, init("db/below"));
  expectLines(log_, {error("make_dir", "Error: vn_mkdir error")});
  EXPECT_FALSE(dir_.exists("db"));
  expectReset();
}

TEST_F(CollectorTest, ADirectoryThatCannotBeMadeIsTold) {
  FailPoint point;
  point.fail(Call::kMakeDirectory, 1);
  EXPECT_EQ(kErrFile, init());
  expectLines(log_, {error("make_dir", "Error: vn_mkdir error")});
  expectReset();
}

TEST_F(CollectorTest, ADirectoryWhosePathCannotBeConvertedIsTold) {
  const Expected conversion = {3, "Error", "dlp_btree::convert_utf8_to_wchar",
                               "MultiByteToWideChar on file db/"};
  FailPoint point;
  point.fail(Call::kToNativePath, 1, true);
  EXPECT_EQ(kErrFile, init());
  expectLines(log_, {conversion, conversion, error("make_dir", "Error: vn_mkdir error")});
  expectReset();
}

TEST_F(CollectorTest, ASignatureLengthOtherThanEightIsRefused) {
  configuration_.sig_length = 9;
  configuration_.fid_index_fname[0] = '\0';  // looked at later
  EXPECT_EQ(kErrState, init());
  expectLines(log_, {error("Init", "Error: signature length inconsistent")});
  expectReset();
}

TEST_F(CollectorTest, EmptyNamesAreRefused) {
  configuration_.search_table_fname[0] = '\0';
  EXPECT_EQ(kErrState, init(nullptr));
  expectLines(log_, {error("Init", "invalid search table file name")});
  log_.clear();
  configuration_.fid_index_fname[0] = '\0';
  EXPECT_EQ(kErrState, init(nullptr));
  expectLines(log_, {error("Init", "invalid fid index file name")});
  expectReset();
}

TEST_F(CollectorTest, AMissingDirectoryNameIsRefused) {
  for (const char* const directory : {static_cast<const char*>(nullptr), ""}) {
    log_.clear();
    EXPECT_EQ(kErrState, init(directory));
    expectLines(log_, {error("Init", "invalid index dir name")});
    expectReset();
  }
}

TEST_F(CollectorTest, ATreeThatCannotBeOpenedFailsTheOpening) {
  for (const char* const tree : {".fidt", ".sidt", ".sigt"}) {
    log_.clear();
    {
      FailPoint point;
      point.fail(Call::kOpen, 1, true, tree);
      EXPECT_EQ(kErrFile, init()) << tree;
      EXPECT_TRUE(point.failed());
    }
    expectLines(log_, {error("Init", "gen_btree fail")});
    expectReset();
    FidSigIndexCollector other;  // nothing was left open
    EXPECT_EQ(kOk, other.Init(configuration_, "db"));
  }
}

TEST_F(CollectorTest, FreshTreesThatCannotBeWrittenFailTheOpening) {
  for (const char* const tree : {".fidt", ".sidt", ".sigt"}) {
    for (int n = 1;; ++n) {
      FailPoint point;
      point.fail(Call::kWrite, n, false, tree);
      const int status = init();
      if (!point.failed()) {
        EXPECT_GT(n, 1);
        EXPECT_EQ(kOk, status);
        collector_->Reset();
        break;
      }
      EXPECT_EQ(kErrFile, status) << tree << " write " << n;
      expectLines(log_, {error("Init", "gen_btree fail")});
      expectReset();
      log_.clear();
      std::filesystem::remove_all("db");
    }
    std::filesystem::remove_all("db");
  }
}

TEST_F(CollectorTest, ADamagedTreeFailsTheOpening) {
  ASSERT_EQ(kOk, init());
  collector_->Reset();
  dir_.write("db/fid_index.sidt.l.blk", std::string(65536, 'x'));
  EXPECT_EQ(kErrFile, init());
  expectLines(log_, {error("Init", "gen_btree fail")});
  expectReset();
}

// Whichever block of memory is refused, the opening fails, says so and leaves
// nothing behind.
TEST_F(CollectorTest, WithoutMemoryForATreeTheOpeningFails) {
  dir_.makeDirectory("db");
  std::set<std::string> seen;
  for (int n = 1;; ++n) {
    log_.clear();
    FailPoint point;
    point.fail(Call::kAllocate, n);
    const int status = init();
    if (!point.failed()) {
      EXPECT_EQ(kOk, status);
      collector_->Reset();  // before the fail point goes
      break;
    }
    if (log_.has("no mem for wsStr_tmp")) continue;  // the directory's test, not a tree
    EXPECT_EQ(kErrMem, status);
    const auto messages = log_.messages();
    ASSERT_EQ(2u, messages.size());
    expectLines(log_, {error("gen_btree", messages[0]), error("Init", "gen_btree fail")});
    seen.insert(messages[0]);
    expectReset();
  }
  EXPECT_EQ((std::set<std::string>{"no mem for pFid_sig_tree", "no mem for pSrc_fid_tree",
                                   "no mem for pSig_fid_tree"}),
            seen);
}

TEST_F(CollectorTest, ASecondCollectorOnTheSameDirectoryIsRefused) {
  ASSERT_EQ(kOk, init());
  FidSigIndexCollector second;
  EXPECT_EQ(kErrFile, second.Init(configuration_, "db"));
  expectLines(log_, {error("Init", "gen_btree fail")});
  collector_->Reset();
  EXPECT_EQ(kOk, second.Init(configuration_, "db"));
}

TEST_F(CollectorTest, InitTwiceClosesTheTreesAndReopensThem) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(1, 10, {kA}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  ASSERT_EQ(kOk, add(2, 20, {kB}));
  ASSERT_EQ(kOk, init());
  EXPECT_EQ(kOk, add(2, 21, {kC}));  // pending documents did not survive
  EXPECT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_TRUE(log_.lines().empty());
  const StoredIndex index = stored();
  EXPECT_EQ((std::set<IndexModel::SrcFid>{{10, 1}, {21, 2}}), index.src_fid);
}

TEST_F(CollectorTest, AFailedSecondInitLeavesTheCollectorReset) {
  ASSERT_EQ(kOk, init());
  EXPECT_EQ(kErrState, init(""));
  expectReset();
  FidSigIndexCollector other;
  EXPECT_EQ(kOk, other.Init(configuration_, "db"));
}

// ---- Adding ----

TEST_F(CollectorTest, ADocumentWithoutSignaturesIsRefusedBeforeAnythingElse) {
  EXPECT_EQ(kErrParam, collector_->AddFidSignature(1, 1, 0, nullptr));
  EXPECT_EQ(kErrParam, collector_->AddFidSignature(1, 1, 1, nullptr));
  EXPECT_EQ(kErrState, collector_->AddFidSignature(1, 1, 1, &kA));
  expectLines(log_, {notice("AddFidSignature", "Error: sig_num <= 0. invalid para"),
                     notice("AddFidSignature", "Error: sig is null. invalid para"),
                     notice("AddFidSignature", "Error: add signature before init.")});
}

TEST_F(CollectorTest, SignaturesAreCopied) {
  ASSERT_EQ(kOk, init());
  Signatures list = {kA};
  ASSERT_EQ(kOk, add(1, 10, list));
  list[0] = kB;
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_EQ((std::set<IndexModel::FidSig>{{1, 10, IndexModel::bytesOf(kA)}}), stored().fid_sig);
}

TEST_F(CollectorTest, ADocumentThatIsPendingIsRefusedAndKeepsItsFirstSignatures) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(1, 10, {kA}));
  EXPECT_EQ(kErrPending, add(1, 11, {kB, kC}));
  ASSERT_EQ(kOk, add(2, 20, {kC}));
  EXPECT_EQ(kErrPending, add(1, 10, {kA}));
  EXPECT_TRUE(log_.lines().empty());
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_EQ((std::set<IndexModel::FidSig>{{1, 10, IndexModel::bytesOf(kA)},
                                          {2, 20, IndexModel::bytesOf(kC)}}),
            stored().fid_sig);
}

TEST_F(CollectorTest, TheDocumentAfter8384PendingOnesSavesThemFirst) {
  ASSERT_EQ(kOk, init());
  for (uint32_t fid = 0; fid < 8384; ++fid) ASSERT_EQ(kOk, add(fid, fid, {kA}));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(kOk, add(8384, 8384, {kA}));
  expectLines(log_, {{3, "Info", kClass + "AddFidSignature", "FidSigIndexCollector is full."}});
  EXPECT_EQ(kErrPending, add(8384, 8384, {kA}));
  EXPECT_EQ(kOk, add(0, 0, {kB}));  // not pending any more
  const StoredIndex index = stored();
  EXPECT_EQ(8384u, index.fid_sig.size());
  EXPECT_EQ(8384u, index.src_fid.size());
  EXPECT_EQ(8384u, index.sig_fid.size());
  EXPECT_EQ(8383, std::get<0>(*index.fid_sig.rbegin()));
}

TEST_F(CollectorTest, AFullCollectorIsSavedBeforeADocumentCanBeFoundPending) {
  configuration_.max_fid_num = 1;
  ASSERT_EQ(kOk, init());
  for (uint32_t fid = 0; fid < 4; ++fid) ASSERT_EQ(kOk, add(fid, fid, {kA}));
  EXPECT_EQ(kOk, add(3, 3, {kB}));
  EXPECT_EQ(std::vector<std::string>{"FidSigIndexCollector is full."}, log_.messages());
}

// The size is compared for equality, so after the first document it is past 0
// for good.
TEST_F(CollectorTest, ACapacityOfZeroIsMetOnceAndNeverAgain) {
  configuration_.max_fid_num = 0;
  ASSERT_EQ(kOk, init());
  for (uint32_t fid = 0; fid < 20; ++fid) ASSERT_EQ(kOk, add(fid, fid, {kA}));
  EXPECT_EQ(std::vector<std::string>{"FidSigIndexCollector is full."}, log_.messages());
  EXPECT_EQ(kErrPending, add(0, 0, {kA}));
}

// Four times this number is 0 in 32 bits.
TEST_F(CollectorTest, TheCapacityIsNotCutTo32Bits) {
  configuration_.max_fid_num = 1u << 30;
  ASSERT_EQ(kOk, init());
  EXPECT_EQ(kOk, add(0, 0, {kA}));
  EXPECT_TRUE(log_.lines().empty());
}

// ---- Saving ----

TEST_F(CollectorTest, SavingBeforeInitIsRefused) {
  EXPECT_EQ(kErrState, collector_->SaveFidSignature());
  expectLines(log_, {notice("SaveFidSignature", "Error: SaveFidSignature before init.")});
}

TEST_F(CollectorTest, SavingNothingIsASuccess) {
  ASSERT_EQ(kOk, init());
  EXPECT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_TRUE(stored().fid_sig.empty());
}

TEST_F(CollectorTest, EachTreeHoldsTheSameFactsInItsOwnOrder) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(0xFFFFFFFE, 0x80000001, {kC, kA}));
  ASSERT_EQ(kOk, add(5, 7, {kB}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  const std::string a = IndexModel::bytesOf(kA);
  const std::string b = IndexModel::bytesOf(kB);
  const std::string c = IndexModel::bytesOf(kC);
  const int32_t source = INT32_MIN + 1;
  const StoredIndex index = stored();
  EXPECT_EQ((std::set<IndexModel::FidSig>{{-2, source, a}, {-2, source, c}, {5, 7, b}}),
            index.fid_sig);
  EXPECT_EQ((std::set<IndexModel::SrcFid>{{source, -2}, {7, 5}}), index.src_fid);
  EXPECT_EQ((std::set<IndexModel::SigFid>{{a, -2, source}, {b, 5, 7}, {c, -2, source}}),
            index.sig_fid);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(CollectorTest, ADocumentAddedAgainAfterASaveGetsWhatIsNew) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(1, 10, {kA, kB}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  ASSERT_EQ(kOk, add(1, 10, {kA, kC}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  expectLines(log_, {error("SaveFidSignature", "duplicated fid_sig value"),
                     error("SaveFidSignature", "duplicated sig_fid value"),
                     error("SaveFidSignature", "duplicated src_fid value: 10, 1")});
  EXPECT_EQ(3u, stored().fid_sig.size());
}

TEST_F(CollectorTest, AnotherSourceOfADocumentIsNoDuplicate) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(1, 10, {kA}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  ASSERT_EQ(kOk, add(1, 11, {kA}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(2u, stored().sig_fid.size());
}

TEST_F(CollectorTest, ASignatureTwiceInADocumentIsADuplicate) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(1, 10, {kC, kA, kC, kC}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  const Expected fid_sig = error("SaveFidSignature", "duplicated fid_sig value");
  const Expected sig_fid = error("SaveFidSignature", "duplicated sig_fid value");
  expectLines(log_, {fid_sig, sig_fid, fid_sig, sig_fid});
  EXPECT_EQ(2u, stored().fid_sig.size());
}

// Documents are reported by ascending fid offset as an unsigned number, so
// those below the base come last; the numbers in the message are signed.
TEST_F(CollectorTest, DuplicatesAreReportedInTheOrderOfTheDocuments) {
  ASSERT_EQ(kOk, init());
  const Signatures one = {kB};
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(kOk, add(0xFFFFFFFF, 0xFFFFFFFE, one));
    ASSERT_EQ(kOk, add(7, 70, one));
    ASSERT_EQ(kOk, add(0x80000000, 0x80000000, one));
    ASSERT_EQ(kOk, add(3, 30, one));
    EXPECT_TRUE(log_.lines().empty());
    ASSERT_EQ(kOk, collector_->SaveFidSignature());
  }
  std::vector<Expected> expected;
  for (const char* const document : {"30, 3", "70, 7", "-2147483648, -2147483648", "-2, -1"}) {
    expected.push_back(error("SaveFidSignature", "duplicated fid_sig value"));
    expected.push_back(error("SaveFidSignature", "duplicated sig_fid value"));
    expected.push_back(
        error("SaveFidSignature", std::string("duplicated src_fid value: ") + document));
  }
  expectLines(log_, expected);
}

TEST_F(CollectorTest, WhichSignatureIsReportedFollowsTheDocumentsOrderNotTheTrees) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(1, 10, {kA}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  // Of document 1 the second signature, of document 2 the third is refused.
  ASSERT_EQ(kOk, add(2, 10, {kC, kB, kC}));
  ASSERT_EQ(kOk, add(1, 10, {kC, kA, kB}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  expectLines(log_, {error("SaveFidSignature", "duplicated fid_sig value"),
                     error("SaveFidSignature", "duplicated sig_fid value"),
                     error("SaveFidSignature", "duplicated src_fid value: 10, 1"),
                     error("SaveFidSignature", "duplicated fid_sig value"),
                     error("SaveFidSignature", "duplicated sig_fid value")});
}

TEST_F(CollectorTest, ASaveIsOnDiskBeforeItReturns) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(1, 10, {kA}));
  FailPoint point;  // files opened from here on are counted
  ASSERT_EQ(kOk, init());
  point.fail(Call::kWrite, 0);
  ASSERT_EQ(kOk, add(1, 10, {kA}));
  EXPECT_EQ(0, point.count());
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_GT(point.count(), 0);
  point.fail(Call::kWrite, 0);
  collector_->Reset();
  EXPECT_EQ(0, point.count());  // there was nothing left to write
}

// ---- Saving against failing files ----

class FailingCollectorTest : public CollectorTest {
 protected:
  // An index with one saved document, reopened so that nothing is cached and
  // every file passes through the fail point.
  void SetUp() override {
    ASSERT_EQ(kOk, init());
    ASSERT_EQ(kOk, add(1, 10, {kA, kB}));
    ASSERT_EQ(kOk, collector_->SaveFidSignature());
    ASSERT_EQ(kOk, init());
  }
  void TearDown() override { collector_.reset(); }  // before the fail point goes

  FailPoint point_;
};

TEST_F(FailingCollectorTest, ASaveThatCannotReadOrWriteATreeIsUndoneAndKeepsTheDocuments) {
  const StoredIndex before = stored();
  for (const char* const tree : {".fidt", ".sidt", ".sigt"}) {
    for (const Call call : {Call::kRead, Call::kWrite}) {
      SCOPED_TRACE(std::string(tree) + " call " + std::to_string(static_cast<int>(call)));
      ASSERT_EQ(kOk, init());
      ASSERT_EQ(kOk, add(1, 10, {kA, kC}));
      ASSERT_EQ(kOk, add(2, 10, {kA}));
      log_.clear();
      point_.fail(call, 1, false, tree);
      EXPECT_EQ(kErrFile, collector_->SaveFidSignature());
      EXPECT_TRUE(point_.failed());
      EXPECT_TRUE(log_.lines().empty()) << "nothing is logged as duplicated";
      EXPECT_EQ(kErrPending, add(1, 10, {kA}));  // still pending
      EXPECT_EQ(kErrPending, add(2, 10, {kA}));
      collector_->Reset();
      const StoredIndex after = stored();
      EXPECT_EQ(before.fid_sig, after.fid_sig);
      EXPECT_EQ(before.src_fid, after.src_fid);
      EXPECT_EQ(before.sig_fid, after.sig_fid);
    }
  }
}

TEST_F(FailingCollectorTest, ASaveSucceedsOnceTheDiskWorksAgain) {
  ASSERT_EQ(kOk, add(2, 10, {kA}));
  point_.fail(Call::kWrite, 1, true, ".sigt");
  EXPECT_EQ(kErrFile, collector_->SaveFidSignature());
  point_.fail(Call::kWrite, 0);
  // Nothing could be written back either: the trees wait for the next opening.
  EXPECT_EQ(kErrFile, collector_->SaveFidSignature());

  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(2, 10, {kA}));
  point_.fail(Call::kWrite, 1, false, ".sigt");
  EXPECT_EQ(kErrFile, collector_->SaveFidSignature());
  EXPECT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_EQ(3u, stored().fid_sig.size());
}

TEST_F(FailingCollectorTest, AfterAFailedSyncNothingIsWrittenUntilTheNextOpening) {
  ASSERT_EQ(kOk, add(2, 10, {kA}));
  point_.fail(Call::kSync, 1);
  EXPECT_EQ(kErrFile, collector_->SaveFidSignature());
  point_.failAny({Call::kWrite, Call::kSync, Call::kTruncate}, 0);
  EXPECT_EQ(kErrFile, collector_->SaveFidSignature());
  collector_->Reset();
  EXPECT_EQ(0, point_.count());
  ASSERT_EQ(kOk, init());
  EXPECT_EQ(2u, stored().fid_sig.size());
}

TEST_F(FailingCollectorTest, AFullCollectorThatCannotBeSavedRefusesTheDocument) {
  configuration_.max_fid_num = 1;
  ASSERT_EQ(kOk, init());
  for (uint32_t fid = 10; fid < 14; ++fid) ASSERT_EQ(kOk, add(fid, fid, {kA}));
  point_.fail(Call::kWrite, 1, true);
  EXPECT_EQ(kErrFile, add(14, 14, {kA}));
  EXPECT_EQ(kErrFile, add(10, 10, {kA}));
  EXPECT_EQ(
      (std::vector<std::string>{"FidSigIndexCollector is full.", "FidSigIndexCollector is full."}),
      log_.messages());
}

TEST_F(FailingCollectorTest, ADeletionThatMeetsAnErrorIsUndoneAndToldOnceByTheNextSave) {
  for (const char* const tree : {".fidt", ".sidt", ".sigt"}) {
    SCOPED_TRACE(tree);
    ASSERT_EQ(kOk, init());
    ASSERT_EQ(kOk, add(2, 20, {kC}));
    point_.fail(Call::kRead, 1, false, tree);
    EXPECT_EQ(kOk, collector_->DeleteFidSignature(1));
    EXPECT_TRUE(point_.failed());
    collector_->CommitDeletions();
    EXPECT_EQ(kErrFile, collector_->SaveFidSignature());
    EXPECT_EQ(kOk, add(2, 20, {kC})) << "but it was saved";
    EXPECT_EQ(kOk, collector_->SaveFidSignature());
    EXPECT_EQ(3u, stored().fid_sig.size());
    ASSERT_EQ(kOk, init());
    ASSERT_EQ(kOk, collector_->DeleteFidSignature(2));
    collector_->CommitDeletions();
  }
}

TEST_F(FailingCollectorTest, ADeletionThatFailedIsToldAlsoWhenNothingIsPending) {
  point_.fail(Call::kWrite, 1, false, ".sidt");
  EXPECT_EQ(kOk, collector_->DeleteFidSignature(1));
  collector_->CommitDeletions();
  EXPECT_TRUE(point_.failed());
  EXPECT_EQ(kErrFile, collector_->SaveFidSignature());
  EXPECT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_EQ(2u, stored().fid_sig.size());
}

TEST_F(FailingCollectorTest, DeletionsCanBeTakenBack) {
  EXPECT_EQ(kOk, collector_->DeleteFidSignature(1));
  collector_->RollBackDeletions();
  EXPECT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_EQ(2u, stored().fid_sig.size());
}

// ---- Deletion ----

TEST_F(CollectorTest, DeletingBeforeInitIsRefused) {
  EXPECT_EQ(kErrState, collector_->DeleteFidSignature(1));
  expectLines(log_, {notice("DeleteFidSignature", "Error: DeleteFidSignature before init")});
}

TEST_F(CollectorTest, ADeletionTakesTheDocumentOutOfAllThreeTrees) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(4, 40, {kA, kB, kC}));
  ASSERT_EQ(kOk, add(5, 40, {kA, kB, kC}));
  ASSERT_EQ(kOk, add(6, 60, {kB}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_EQ(kOk, collector_->DeleteFidSignature(5));
  collector_->CommitDeletions();
  const std::string a = IndexModel::bytesOf(kA);
  const std::string b = IndexModel::bytesOf(kB);
  const std::string c = IndexModel::bytesOf(kC);
  const StoredIndex index = stored();
  EXPECT_EQ((std::set<IndexModel::FidSig>{{4, 40, a}, {4, 40, b}, {4, 40, c}, {6, 60, b}}),
            index.fid_sig);
  EXPECT_EQ((std::set<IndexModel::SrcFid>{{40, 4}, {60, 6}}), index.src_fid);
  EXPECT_EQ((std::set<IndexModel::SigFid>{{a, 4, 40}, {b, 4, 40}, {b, 6, 60}, {c, 4, 40}}),
            index.sig_fid);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(CollectorTest, ADeletionReachesEverySourceOfADocument) {
  ASSERT_EQ(kOk, init());
  for (const uint32_t source : {0x80000000u, 0xFFFFFFFFu, 0u, 1u, 0x7FFFFFFFu}) {
    ASSERT_EQ(kOk, add(5, source, {Signature{}, kA}));
    ASSERT_EQ(kOk, collector_->SaveFidSignature());
  }
  ASSERT_EQ(kOk, add(4, 0x7FFFFFFF, {kA}));
  ASSERT_EQ(kOk, add(6, 0x80000000, {Signature{}}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_EQ(kOk, collector_->DeleteFidSignature(5));
  const StoredIndex index = stored();
  EXPECT_EQ(2u, index.fid_sig.size());
  EXPECT_EQ((std::set<IndexModel::SrcFid>{{INT32_MAX, 4}, {INT32_MIN, 6}}), index.src_fid);
  EXPECT_EQ(2u, index.sig_fid.size());
}

TEST_F(CollectorTest, DeletingADocumentWithoutRecordsIsASuccessAndChangesNothing) {
  ASSERT_EQ(kOk, init());
  EXPECT_EQ(kOk, collector_->DeleteFidSignature(0));  // empty trees
  ASSERT_EQ(kOk, add(4, 40, {kA}));
  ASSERT_EQ(kOk, add(0xFFFFFFF0, 40, {kA}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  for (const uint32_t fid : {0u, 3u, 5u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(kOk, collector_->DeleteFidSignature(fid));
  }
  EXPECT_EQ(2u, stored().fid_sig.size());
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(CollectorTest, APendingDocumentSurvivesADeletionOfItsFid) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(4, 40, {kA}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  ASSERT_EQ(kOk, add(4, 41, {kB}));
  EXPECT_EQ(kOk, collector_->DeleteFidSignature(4));
  EXPECT_EQ(kErrPending, add(4, 41, {kB}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_EQ((std::set<IndexModel::FidSig>{{4, 41, IndexModel::bytesOf(kB)}}), stored().fid_sig);
}

TEST_F(CollectorTest, ADocumentOfManyLeavesIsDeletedWhole) {
  const Signatures many = documents::signatures(20000, 7);
  ASSERT_EQ(kOk, init());
  for (const uint32_t source : {10u, 5u}) {  // the second time between those of the first
    for (const uint32_t fid : {1u, 2u, 3u}) ASSERT_EQ(kOk, add(fid, source, many));
    ASSERT_EQ(kOk, collector_->SaveFidSignature());
  }
  EXPECT_EQ(kOk, collector_->DeleteFidSignature(2));
  const StoredIndex index = stored();
  EXPECT_EQ(80000u, index.fid_sig.size());
  EXPECT_EQ(80000u, index.sig_fid.size());
  EXPECT_EQ((std::set<IndexModel::SrcFid>{{5, 1}, {5, 3}, {10, 1}, {10, 3}}), index.src_fid);
}

// ---- The end ----

TEST_F(CollectorTest, ResetDropsPendingDocumentsAndClosesTheTrees) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(1, 10, {kA}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  ASSERT_EQ(kOk, add(2, 10, {kA}));
  collector_->Reset();
  expectReset();
  EXPECT_EQ(1u, stored().fid_sig.size());
}

TEST_F(CollectorTest, DestructionClosesTheTrees) {
  ASSERT_EQ(kOk, init());
  ASSERT_EQ(kOk, add(1, 10, {kA}));
  ASSERT_EQ(kOk, collector_->SaveFidSignature());
  EXPECT_EQ(kOk, collector_->DeleteFidSignature(1));
  collector_ = std::make_unique<FidSigIndexCollector>();
  EXPECT_TRUE(storedIndex("db/fid_index").fid_sig.empty());
}

}  // namespace
