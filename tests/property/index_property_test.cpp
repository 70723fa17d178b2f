// Random sessions of the index system against its slow twins: after each closing
// the messages, the meta data, the three trees and the four table files are
// those of a set of records. A run is repeated with TESSERA_SEED.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "documents.h"
#include "index_model.h"
#include "log_capture.h"
#include "status.h"
#include "table_twin.h"
#include "temp_dir.h"
#include "tree_content.h"
#include "tree_records.h"
#include "vn_index_system_btree.h"

namespace {

using namespace dlp_btree;
using documents::Random;
using Signatures = std::vector<Signature>;

constexpr int64_t kFar = int64_t{1} << 31;

class IndexRun {
 public:
  explicit IndexRun(uint64_t seed)
      : random_(seed),
        max_fid_num_(random_.oneIn(4) ? 0 : 1 + random_.below(8)),
        model_(max_fid_num_),
        large_(random_.oneIn(8)),
        pool_(documents::signatures(large_ ? 4000 : 40, seed, 1u << random_.below(7))) {
    constexpr int64_t kBases[] = {-1, 0, 1000000, INT64_MIN, INT64_MAX, -(int64_t{1} << 40)};
    base_ = kBases[random_.below(std::size(kBases))];
    dir_.write("index_sys_config.txt",
               "max_fid_num=" + std::to_string(max_fid_num_) +
                   "\nmax_ele_num_save=" + std::to_string(random_.below(12)) + "\n");
  }

  void session() {
    ASSERT_EQ(kOk, vnInitIndexSystem("db", level_, nullptr));
    level_ = 99;  // only the first session's counts
    log_.clear();
    expectedMessages();
    if (!has_base_) {
      EXPECT_EQ(kOk, add(base_, document()));
      has_base_ = true;
    }
    const uint64_t operations = random_.below(60);
    for (uint64_t i = 0; i < operations; ++i) operation();
    const bool stopped = !random_.oneIn(6);
    if (stopped) stop();
    model_.dropPending();
    const bool empty = model_.sigFid().empty();
    if (empty) {
      model_.expectMessage("index signature is empty");
      model_.expectMessage("kilo_dbg ret == VN_NO_INDEX_DATA_ERR");
    }
    EXPECT_EQ(kOk, vnCreateSearchTable("db"));
    EXPECT_EQ(kOk, vnDestroyIndexSystem());
    EXPECT_EQ(expectedMessages(), log_.messages());
    expectFiles();
    expectTrees();
  }

 private:
  std::vector<std::string> expectedMessages() { return model_.takeMessages(); }

  // Of `pool_`, in any order, at times with repeats.
  Signatures document() {
    Signatures signatures;
    const uint64_t count = 1 + random_.below(large_ ? 600 : 12);
    for (uint64_t i = 0; i < count; ++i) signatures.push_back(pool_[random_.below(pool_.size())]);
    if (random_.oneIn(2)) std::sort(signatures.begin(), signatures.end());
    return signatures;
  }

  // Mostly one of a few near the base, so that documents meet again.
  int64_t fileId() {
    uint64_t distance = random_.below(12);
    if (random_.oneIn(8)) distance = static_cast<uint64_t>(kFar) - random_.below(3);
    if (random_.oneIn(20)) distance = static_cast<uint64_t>(kFar) + random_.below(3);
    const bool below = random_.oneIn(3);
    // Beyond the ends of 64 bits the other direction is taken.
    const int64_t step = static_cast<int64_t>(distance);
    if (below ? base_ < INT64_MIN + step : base_ <= INT64_MAX - step) return base_ + step;
    return base_ - step;
  }

  static bool inRange(int64_t fid, int64_t base) {
    const uint64_t low = static_cast<uint64_t>(std::min(fid, base));
    return static_cast<uint64_t>(std::max(fid, base)) - low < static_cast<uint64_t>(kFar);
  }

  uint32_t offset(int64_t fid) const {
    return static_cast<uint32_t>(static_cast<uint64_t>(fid) - static_cast<uint64_t>(base_));
  }

  // Three lines of numbers that the unit tests look at.
  void expectOutOfRange(int64_t fid) {
    const auto halves = [](uint64_t value) {
      return std::to_string(value >> 32) + ", " + std::to_string(value & 0xFFFFFFFF) + ")";
    };
    const uint64_t f = static_cast<uint64_t>(fid);
    const uint64_t b = static_cast<uint64_t>(base_);
    model_.expectMessage("file ID out of range (" + halves(f));
    model_.expectMessage("file ID base (" + halves(b));
    model_.expectMessage("file ID out of range (off) (" + halves(fid > base_ ? f - b : b - f));
  }

  int add(int64_t fid, const Signatures& signatures) {
    // At times a document comes under another source than before.
    const uint32_t source = static_cast<uint32_t>(fid) + static_cast<uint32_t>(random_.below(2));
    const int status =
        vnAddDocSignature(fid, source, static_cast<uint32_t>(signatures.size()), signatures.data());
    if (!inRange(fid, base_)) {
      expectOutOfRange(fid);
      EXPECT_EQ(kErrState, status);
    } else {
      EXPECT_EQ(model_.add(offset(fid), source, signatures), status);
    }
    return status;
  }

  void remove() {
    std::vector<int64_t> fids(random_.below(5));
    for (int64_t& fid : fids) fid = fileId();
    fids.reserve(1);  // a list of none is a list all the same
    int expected = kOk;
    for (const int64_t fid : fids) {
      if (!inRange(fid, base_)) {
        expectOutOfRange(fid);
        expected = kErrState;
        break;
      }
      model_.erase(offset(fid));
    }
    EXPECT_EQ(expected, vnDelDocSignature(static_cast<uint32_t>(fids.size()), fids.data()));
  }

  void stop() {
    EXPECT_EQ(kOk, vnStopDocIndex());
    model_.save();
  }

  void operation() {
    const uint64_t kind = random_.below(10);
    if (kind < 7) {
      add(fileId(), random_.oneIn(20) ? Signatures() : document());
    } else if (kind < 9) {
      remove();
    } else {
      stop();
    }
  }

  void expectFiles() {
    EXPECT_EQ(table_twin::metaRecord(base_, 3), dir_.read("db/meta_data.bin"));
    const auto expected = table_twin::files(model_.sigFid(), base_, 3);
    EXPECT_TRUE(expected.weak == dir_.read("db/search_table.wtbl"));
    EXPECT_TRUE(expected.strong == dir_.read("db/search_table.stbl"));
    EXPECT_TRUE(expected.weak_meta == dir_.read("db/search_table.wmeta"));
    EXPECT_TRUE(expected.strong_meta == dir_.read("db/search_table.smeta"));
  }

  template <typename Tree>
  static auto records(TreeStore* store, size_t number) {
    Tree tree(store, number);
    std::string problem;
    EXPECT_TRUE(tree.verify(&problem)) << "tree " << number << ": " << problem;
    return recordsOf(&tree);
  }

  // Of each tree the records, in the model's order.
  void expectTrees() {
    TreeStore store("db/fid_index", {".fidt", ".sidt", ".sigt"}, AccessType::kReadOnly, {});
    std::vector<IndexModel::FidSig> fid_sig;
    for (const FidSigRecord& r : records<FidSigTree>(&store, 0)) {
      fid_sig.emplace_back(r.fid, r.source, IndexModel::bytesOf(r.signature));
    }
    std::vector<IndexModel::SrcFid> src_fid;
    for (const SrcFidRecord& r : records<SrcFidTree>(&store, 1)) {
      src_fid.emplace_back(r.source, r.fid);
    }
    std::vector<IndexModel::SigFid> sig_fid;
    for (const SigFidRecord& r : records<SigFidTree>(&store, 2)) {
      sig_fid.emplace_back(IndexModel::bytesOf(r.signature), r.fid, r.source);
    }
    const auto same = [](const auto& set, const auto& list) {
      return std::equal(set.begin(), set.end(), list.begin(), list.end());
    };
    EXPECT_TRUE(same(model_.fidSig(), fid_sig));
    EXPECT_TRUE(same(model_.srcFid(), src_fid));
    EXPECT_TRUE(same(model_.sigFid(), sig_fid));
  }

  TempDir dir_;
  LogCapture log_;
  Random random_;
  const uint64_t max_fid_num_;
  IndexModel model_;
  const bool large_;  // documents fill several leaves
  const Signatures pool_;
  int64_t base_;
  bool has_base_ = false;
  uint32_t level_ = 3;
};

TEST(IndexProperty, SessionsLeaveWhatASetOfRecordsWouldLeave) {
  const uint64_t first = documents::seed(20240611);
  for (uint64_t run = 0; run < 20; ++run) {
    SCOPED_TRACE("TESSERA_SEED=" + std::to_string(first + run));
    IndexRun index(first + run);
    for (int session = 0; session < 4; ++session) index.session();
    if (testing::Test::HasFailure()) break;
  }
  vnDestroyIndexSystem();
}

}  // namespace
