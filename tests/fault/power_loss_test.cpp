// Loss of power under the store, at any moment, over and over.
//
// A run works on the three trees of an index, on a simulated disk and beside
// std::sets, until the power fails. It then opens the store again, which may be
// cut short by more failures, and compares: everything is as after the last
// commit that returned or, when the power failed during a commit, as after that
// one. The store is built here with a switch that leaves out single steps of
// its protocol, to see that the same runs would notice.
//
//   TESSERA_SEED=N      the first run's seed; the following runs count up
//   TESSERA_CRASHES=N   stop after so many losses of power; 1 is a single run
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "commit_protocol.h"
#include "documents.h"
#include "simulated_disk.h"
#include "tree_records.h"

namespace {

using documents::Random;

#ifndef TESSERA_CRASHES
#define TESSERA_CRASHES 20000
#endif

// A left-out step must be noticed within so many runs. Most take one or two, the
// rarest two hundred.
constexpr uint64_t kRunsToNotice = 20000;

const std::string kBaseName = "index/fid_index";
const std::string kJournal = kBaseName + ".jnl";
const std::vector<std::string> kSuffixes = {".fidt", ".sidt", ".sigt"};

std::vector<std::string> treeFiles() {
  std::vector<std::string> names;
  for (const std::string& suffix : kSuffixes) {
    for (const char* const kind : {".l.blk", ".l.stk", ".n.blk", ".n.stk"}) {
      names.push_back(kBaseName + suffix + kind);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

struct Violation : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void require(bool holds, const char* what) {
  if (!holds) throw Violation(what);
}

// What the store is to hold, down to the order in which blocks will be reused.
struct Facts {
  std::set<FidSigRecord, FidSigLess> fid_sig;
  std::set<SrcFidRecord, SrcFidLess> src_fid;
  std::set<SigFidRecord, SigFidLess> sig_fid;
  std::array<std::vector<uint64_t>, 6> free_blocks;
  uint64_t transaction = 1;  // an opening of fresh trees is the first commit
};

template <typename Record, typename Less>
bool sameRecords(const std::vector<Record>& records, const std::set<Record, Less>& twin) {
  return std::equal(records.begin(), records.end(), twin.begin(), twin.end(),
                    [](const Record& left, const Record& right) {
                      return std::memcmp(&left, &right, sizeof(Record)) == 0;
                    });
}

Signature signatureOf(uint64_t number) {
  return documents::signature({static_cast<int>(number % 7), 0, 0, 0, 0, 0,
                               static_cast<int>(number >> 8 & 0xFF),
                               static_cast<int>(number & 0xFF)});
}

// The number-th record, ascending with it, of about 300.
FidSigRecord recordOf(uint64_t number, const FidSigRecord*) {
  return {static_cast<int32_t>(number / 8) - 10, static_cast<int32_t>(number / 4 % 2),
          signatureOf(number % 4)};
}

SrcFidRecord recordOf(uint64_t number, const SrcFidRecord*) {
  return {static_cast<int32_t>(number / 32) - 2, static_cast<int32_t>(number % 32)};
}

SigFidRecord recordOf(uint64_t number, const SigFidRecord*) {
  return {documents::signature({0, 0, 0, 0, 0, 0, 1, static_cast<int>(number / 2)}),
          static_cast<int32_t>(number % 2), -1};
}

constexpr uint64_t kRecords = 300;

// The open store with its trees, and what is asked of it as a whole.
class Session {
 public:
  explicit Session(const BTreeParams& params, AccessType access = AccessType::kReadWrite)
      : store_(std::make_unique<TreeStore>(kBaseName, kSuffixes, access, params)) {
    for (size_t tree = 0; tree < kSuffixes.size(); ++tree) {
      // The trees would make damaged stacks anew, silently.
      stacks_are_sound_ = stacks_are_sound_ && !store_->leaves(tree).stackIsDamaged() &&
                          !store_->nodes(tree).stackIsDamaged();
    }
    fid_sig_.emplace(store_.get(), 0);
    src_fid_.emplace(store_.get(), 1);
    sig_fid_.emplace(store_.get(), 2);
  }

  bool valid() const { return store_->valid(); }
  bool stacksAreSound() const { return stacks_are_sound_; }
  bool commit() { return store_->commit(); }
  bool rollback() { return store_->rollback(); }
  uint64_t transaction() const { return store_->transaction(); }

  FidSigTree& fidSig() { return *fid_sig_; }
  SrcFidTree& srcFid() { return *src_fid_; }
  SigFidTree& sigFid() { return *sig_fid_; }

  // Commits by closing; the store itself remains.
  void closeTrees() {
    sig_fid_.reset();
    src_fid_.reset();
    fid_sig_.reset();
  }

  std::array<std::vector<uint64_t>, 6> freeBlocks() const {
    return {store_->leaves(0).freeBlocks(), store_->leaves(1).freeBlocks(),
            store_->leaves(2).freeBlocks(), store_->nodes(0).freeBlocks(),
            store_->nodes(1).freeBlocks(),  store_->nodes(2).freeBlocks()};
  }

  bool holds(const Facts& facts) {
    return transaction() == facts.transaction && freeBlocks() == facts.free_blocks &&
           sameRecords(recordsOf(&fidSig()), facts.fid_sig) &&
           sameRecords(recordsOf(&srcFid()), facts.src_fid) &&
           sameRecords(recordsOf(&sigFid()), facts.sig_fid) && valid();
  }

  bool sound() { return fidSig().verify() && srcFid().verify() && sigFid().verify(); }

 private:
  template <typename Record, typename Less>
  static std::vector<Record> recordsOf(BTree<Record, Less>* tree) {
    std::vector<Record> all;
    std::vector<Record> records;
    for (uint64_t leaf = tree->nextLeaf(0); leaf != 0; leaf = tree->nextLeaf(leaf)) {
      if (!tree->readLeaf(leaf, &records)) break;  // the tree is invalid now
      all.insert(all.end(), records.begin(), records.end());
    }
    return all;
  }

  std::unique_ptr<TreeStore> store_;
  std::optional<FidSigTree> fid_sig_;
  std::optional<SrcFidTree> src_fid_;
  std::optional<SigFidTree> sig_fid_;
  bool stacks_are_sound_ = true;
};

// What happened in some runs.
struct Tally {
  uint64_t runs = 0;
  uint64_t crashes = 0;
  uint64_t crashes_in_commit = 0;
  uint64_t crashes_in_recovery = 0;
  uint64_t readers = 0;
  uint64_t completed_commits = 0;  // the power failed in a commit that has happened all the same
};

class Run {
 public:
  Run(uint64_t seed, Tally* tally) : random_(seed), disk_(random_.next()), tally_(tally) {
    disk_.setGarbage(random_.oneIn(3));
    disk_.setRemovalsFail(random_.oneIn(4));
    params_.leaf_size_max = 3 + static_cast<uint32_t>(random_.below(2));
    params_.node_size_max = 3 + static_cast<uint32_t>(random_.below(2));
    params_.leaf_cache_size = params_.node_cache_size = 8;
  }

  // Throws a Violation.
  void run() {
    ++tally_->runs;
    for (uint64_t losses = 1 + random_.below(4); losses > 0; --losses) {
      const uint64_t spans[] = {30, 100, 400};
      disk_.crashAt(1 + random_.below(spans[random_.below(3)]));
      while (!disk_.crashed()) work();
      if (candidate_) ++tally_->crashes_in_commit;
      losePower();
      recover();
    }
    // Nothing hinders what comes after.
    batch();
    commit();
    close();
    open();
    check();
    close();
  }

 private:
  void work() {
    if (!session_) return open();
    if (batches_left_ == 0) return close();
    --batches_left_;
    batch();
    if (disk_.crashed()) return;
    if (random_.oneIn(4)) {
      rollback();
    } else if (random_.below(4) != 0) {
      commit();  // otherwise the next batch makes this one larger
    }
  }

  void open() {
    session_.emplace(params_);
    if (disk_.crashed()) return;
    checkOpening();
    require(session_->transaction() == committed_.transaction, "an opening changed something");
    twin_ = committed_;
  }

  void checkOpening() {
    require(session_->valid(), "the store does not open");
    require(session_->stacksAreSound(), "a stack of free blocks is damaged");
    std::vector<std::string> names = disk_.names();
    names.erase(std::remove(names.begin(), names.end(), kJournal), names.end());
    require(names == treeFiles(), "an open store has other files");
    batches_left_ = random_.below(6);
  }

  void check() {
    require(session_->holds(committed_), "not what was committed");
    require(session_->sound(), "a tree is unsound");
  }

  // Any number of changes of one tree or all. Ends when the power does.
  void batch() {
    for (uint64_t steps = random_.below(8); steps > 0 && !disk_.crashed(); --steps) {
      switch (random_.below(3)) {
        case 0:
          change(&session_->fidSig(), &twin_.fid_sig);
          break;
        case 1:
          change(&session_->srcFid(), &twin_.src_fid);
          break;
        default:
          change(&session_->sigFid(), &twin_.sig_fid);
      }
    }
  }

  template <typename Record, typename Less>
  void change(BTree<Record, Less>* tree, std::set<Record, Less>* twin) {
    const uint64_t how = random_.below(16);
    const bool insert = twin->size() < 20 || (twin->size() < 80 && how % 2 == 0);
    std::vector<Record> records;
    if (how == 15) {  // all there is
      records.assign(twin->begin(), twin->end());
    } else if (how > 10) {  // a run
      uint64_t number = random_.below(kRecords);
      const uint64_t end = std::min(kRecords, number + 30);
      while (number < end) records.push_back(recordOf(number++, static_cast<Record*>(nullptr)));
    } else {
      for (uint64_t i = 1 + random_.below(12); i > 0; --i) {
        records.push_back(recordOf(random_.below(kRecords), static_cast<Record*>(nullptr)));
      }
      std::sort(records.begin(), records.end(), Less());
    }
    std::vector<bool> refused;
    const bool done = insert ? tree->insertBatch(records.data(), records.size(), &refused)
                             : tree->eraseBatch(records.data(), records.size(), &refused);
    if (disk_.crashed()) return;
    require(done, "a change fails");
    for (size_t i = 0; i < records.size(); ++i) {
      const bool accepted = insert ? twin->insert(records[i]).second : twin->erase(records[i]) == 1;
      require(accepted != refused[i], "a change is refused, or not refused");
    }
  }

  // A commit begins: from here to its end there are two right answers.
  void beginCommit() {
    candidate_ = twin_;
    candidate_->free_blocks = session_->freeBlocks();
    candidate_->transaction = committed_.transaction + 1;
  }

  void endCommit() {
    // A batch without changes is no commit.
    const uint64_t transaction = session_->transaction();
    require(transaction == committed_.transaction || transaction == candidate_->transaction,
            "a commit has a wrong number");
    candidate_->transaction = transaction;
    committed_ = twin_ = *candidate_;
    candidate_.reset();
  }

  void commit() {
    beginCommit();
    const bool committed = session_->commit();
    require(committed || disk_.crashed(), "a commit fails");
    if (committed) endCommit();
  }

  void close() {
    beginCommit();
    session_->closeTrees();
    if (disk_.crashed()) return;
    require(session_->valid(), "a commit at the end fails");
    endCommit();
    session_.reset();
    if (disk_.crashed()) return;
    std::vector<std::string> names = disk_.names();
    if (disk_.removalsFail()) {
      names.erase(std::remove(names.begin(), names.end(), kJournal), names.end());
    }
    require(names == treeFiles(), "a closed store leaves other files");
  }

  void rollback() {
    const bool done = session_->rollback();
    if (disk_.crashed()) return;
    require(done, "a rollback fails");
    twin_ = committed_;
    check();
  }

  void losePower() {
    session_.reset();
    disk_.losePower();
    ++tally_->crashes;
  }

  // Who only reads after a loss of power is refused or sees a right answer.
  void look() {
    Session session(params_, AccessType::kReadOnly);
    if (!session.valid()) return;
    require(session.stacksAreSound(), "a reader meets a damaged stack of free blocks");
    require(session.holds(committed_) || (candidate_ && session.holds(*candidate_)),
            "a reader sees what was not committed");
    require(session.sound(), "a reader sees an unsound tree");
    ++tally_->readers;
  }

  void recover() {
    for (uint64_t losses = random_.below(4); losses > 0 && !session_; --losses) {
      disk_.crashAt(1 + random_.below(50));
      session_.emplace(params_);
      if (!disk_.crashed()) break;
      losePower();
      ++tally_->crashes_in_recovery;
    }
    disk_.crashAt(0);
    if (!session_ && random_.oneIn(4)) look();
    if (!session_) session_.emplace(params_);
    checkOpening();
    if (candidate_ && session_->holds(*candidate_)) {
      committed_ = *candidate_;
      ++tally_->completed_commits;
    }
    candidate_.reset();
    twin_ = committed_;
    check();
  }

  Random random_;
  SimulatedDisk disk_;
  Tally* const tally_;
  BTreeParams params_;
  std::optional<Session> session_;
  Facts twin_;                      // what the trees hold now
  Facts committed_;                 // what must be there after a loss of power
  std::optional<Facts> candidate_;  // or this
  uint64_t batches_left_ = 0;       // of the session
};

uint64_t wantedCrashes() {
  const char* const given = std::getenv("TESSERA_CRASHES");
  return given != nullptr ? std::strtoull(given, nullptr, 0) : TESSERA_CRASHES;
}

// Why the run fails; empty when it does not.
std::string violationOf(uint64_t seed, Tally* tally) {
  try {
    Run(seed, tally).run();
    return "";
  } catch (const Violation& violation) {
    return violation.what();
  }
}

std::string repeat(uint64_t seed) {
  const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
  return "TESSERA_SEED=" + std::to_string(seed) + " TESSERA_CRASHES=1 tests/fault_power_loss " +
         "--gtest_filter=" + test->test_suite_name() + "." + test->name();
}

TEST(PowerLoss, NothingIsLostThatWasCommittedAndNothingElseIsThere) {
  const uint64_t crashes = wantedCrashes();
  uint64_t seed = documents::seed(20240701);
  Tally tally;
  for (; tally.crashes < crashes; ++seed) {
    ASSERT_EQ("", violationOf(seed, &tally)) << "in the build directory: " << repeat(seed);
  }
  std::cout << tally.crashes << " losses of power in " << tally.runs
            << " runs: " << tally.crashes_in_commit << " in a commit, of which "
            << tally.completed_commits << " happened; " << tally.crashes_in_recovery
            << " in a recovery; " << tally.readers << " readers let in\n";
}

// Leaves out a step while it lives.
struct LeaveOut {
  explicit LeaveOut(ProtocolStep step) { left_out_step = step; }
  ~LeaveOut() { left_out_step = ProtocolStep::kNone; }
};

// The runs it takes to see that a step is left out.
class LeftOut : public testing::TestWithParam<ProtocolStep> {};

TEST_P(LeftOut, IsNoticed) {
  const LeaveOut leave_out(GetParam());
  uint64_t seed = documents::seed(20240702);
  Tally tally;
  std::string violation;
  while (violation.empty() && tally.runs < kRunsToNotice) violation = violationOf(seed++, &tally);
  EXPECT_NE("", violation) << "in " << tally.runs << " runs";
  std::cout << "run " << tally.runs << ": " << violation << "\n";
}

INSTANTIATE_TEST_SUITE_P(PowerLoss, LeftOut,
                         testing::Values(ProtocolStep::kJournalSync,
                                         ProtocolStep::kJournalDirectorySync,
                                         ProtocolStep::kDataSync, ProtocolStep::kCommitPointSync,
                                         ProtocolStep::kHeadersLast, ProtocolStep::kNonce,
                                         ProtocolStep::kRecoveryTruncate,
                                         ProtocolStep::kRecoverySync),
                         [](const testing::TestParamInfo<ProtocolStep>& step) -> std::string {
                           switch (step.param) {
                             case ProtocolStep::kNone:
                               break;
                             case ProtocolStep::kJournalSync:
                               return "JournalSync";
                             case ProtocolStep::kJournalDirectorySync:
                               return "JournalDirectorySync";
                             case ProtocolStep::kDataSync:
                               return "DataSync";
                             case ProtocolStep::kFilesDirectorySync:
                               return "FilesDirectorySync";
                             case ProtocolStep::kCommitPointSync:
                               return "CommitPointSync";
                             case ProtocolStep::kHeadersLast:
                               return "HeadersLast";
                             case ProtocolStep::kNonce:
                               return "Nonce";
                             case ProtocolStep::kRecoveryTruncate:
                               return "RecoveryTruncate";
                             case ProtocolStep::kRecoverySync:
                               return "RecoverySync";
                           }
                           return "None";
                         });

// Losses of power out of 200, right after the first commit of fresh trees, in
// which that commit is lost.
int lostFirstCommits(ProtocolStep step, bool directory_syncs_work) {
  const LeaveOut leave_out(step);
  int lost = 0;
  for (uint64_t seed = 0; seed < 200; ++seed) {
    SimulatedDisk disk(seed);
    disk.setDirectorySyncsWork(directory_syncs_work);
    {
      Session session{BTreeParams()};
      EXPECT_TRUE(session.srcFid().insert({1, 2}) && session.commit());
      disk.losePower();
    }
    Session session{BTreeParams()};
    if (!session.valid() || session.srcFid().size() != 1) ++lost;
  }
  return lost;
}

// Fresh files are there when the new journal's name is synced, and get a sync
// for theirs before the commit point. So neither of the two is missed alone, as
// far as the files go, and kFilesDirectorySync has no place among the steps above.
TEST(PowerLoss, EitherDirectorySyncKeepsTheNamesOfFreshFiles) {
  EXPECT_EQ(0, lostFirstCommits(ProtocolStep::kNone, true));
  EXPECT_EQ(0, lostFirstCommits(ProtocolStep::kFilesDirectorySync, true));
  EXPECT_EQ(0, lostFirstCommits(ProtocolStep::kJournalDirectorySync, true));
  EXPECT_LT(20, lostFirstCommits(ProtocolStep::kNone, false));
}

// The caller was told that it failed, and does it again after the next opening:
// what that commit says is lasting.
TEST(PowerLoss, AfterAFailedSyncTheNextOpeningBelievesNothingThatIsNotOnDisk) {
  const auto insert = [](Session* session, uint64_t first, uint64_t end) {
    std::vector<FidSigRecord> records;
    for (uint64_t number = first; number < end; ++number) {
      records.push_back(recordOf(number, static_cast<FidSigRecord*>(nullptr)));
    }
    std::vector<bool> refused;
    return session->fidSig().insertBatch(records.data(), records.size(), &refused);
  };
  BTreeParams params;
  params.leaf_size_max = params.node_size_max = 4;
  params.leaf_cache_size = params.node_cache_size = 8;
  uint64_t failed_commits = 0;
  for (uint64_t seed = 1; seed <= 400; ++seed) {
    SCOPED_TRACE(seed);
    SimulatedDisk disk(seed);
    {
      Session session(params);
      ASSERT_TRUE(insert(&session, 0, 60));
      ASSERT_TRUE(session.commit());
    }
    {
      Session session(params);
      ASSERT_TRUE(insert(&session, 60, 100));
      disk.failSync(1 + seed % 16);
      if (!session.commit()) ++failed_commits;
    }
    disk.failSync(0);
    {
      Session session(params);
      ASSERT_TRUE(session.valid());
      ASSERT_TRUE(insert(&session, 60, 100));
      ASSERT_TRUE(session.commit());
    }
    disk.losePower();
    Session session(params);
    ASSERT_TRUE(session.valid());
    EXPECT_EQ(100u, session.fidSig().size());
    EXPECT_TRUE(session.sound());
  }
  EXPECT_GT(failed_commits, 100u);
}

}  // namespace
