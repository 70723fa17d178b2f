// Random operations on a B-tree, step by step beside a std::set.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "lone_tree.h"
#include "documents.h"
#include "fail_point.h"
#include "set_tree.h"
#include "signature.h"
#include "temp_dir.h"

namespace {

struct Posting {
  int32_t fid;
  int32_t source;
  Signature signature;
  bool operator==(const Posting&) const = default;
};

struct PostingLess {
  bool operator()(const Posting& left, const Posting& right) const {
    if (left.fid != right.fid) return left.fid < right.fid;
    if (left.source != right.source) return left.source < right.source;
    return std::memcmp(left.signature.bytes, right.signature.bytes, 8) < 0;
  }
};

// 24 bytes, of which the order looks at the first 8 only.
struct Wide {
  uint64_t key;
  uint64_t payload[2];
  bool operator==(const Wide&) const = default;
};

struct WideLess {
  bool operator()(const Wide& left, const Wide& right) const { return left.key < right.key; }
};

Posting makeRecord(documents::Random* random, uint64_t range, const Posting*) {
  Signature signature = {};
  signature.bytes[random->below(8)] = static_cast<unsigned char>(random->below(3));
  return {static_cast<int32_t>(random->below(range)) - static_cast<int32_t>(range / 2),
          static_cast<int32_t>(random->below(3)) - 1, signature};
}

Wide makeRecord(documents::Random* random, uint64_t range, const Wide*) {
  const uint64_t key = random->below(5 * range);
  return {key, {key * 3, ~key}};
}

// A query's equivalence that runs of records share, and its order.
int64_t group(const Posting& record) { return record.fid; }
int64_t group(const Wide& record) { return static_cast<int64_t>(record.key / 8); }

struct Shape {
  BTreeParams params;
  uint64_t range;  // of the records, so of the tree's size
  int steps;
};

template <typename Record, typename Less>
class Trial {
 public:
  Trial(const Shape& shape, uint64_t seed) : shape_(shape), random_(seed) { open(); }

  void run() {
    for (int step = 0; step < shape_.steps; ++step) {
      SCOPED_TRACE(step);
      // Growing and shrinking take turns, so that every height is passed.
      growing_ = step / (shape_.steps / 8 + 1) % 2 == 0;
      operation();
      std::string problem;
      ASSERT_TRUE(tree_->verify(&problem)) << problem;
      ASSERT_EQ(twin_.size(), tree_->size());
      if (testing::Test::HasFailure()) return;
    }
    checkScan();
  }

 private:
  void open(AccessType access = AccessType::kReadWrite) {
    tree_.reset();
    tree_ = std::make_unique<LoneTree<Record, Less>>("t", access, shape_.params);
    ASSERT_TRUE(tree_->is_valid());
  }

  Record record() {
    return makeRecord(&random_, shape_.range, static_cast<const Record*>(nullptr));
  }

  std::vector<Record> batch() {
    const uint64_t sizes[] = {3, 20, 150};
    std::vector<Record> made(random_.below(sizes[random_.below(3)]));
    for (Record& r : made) r = record();
    if (random_.oneIn(3) && twin_.size() > 0) {  // some that are there
      const std::vector<Record> present = twin_.records();
      for (int i = 0; i < 10; ++i) made.push_back(present[random_.below(present.size())]);
    }
    std::sort(made.begin(), made.end(), Less());
    return made;
  }

  void operation() {
    const uint64_t choice = random_.below(20);
    if (choice < 6) {
      change(growing_);
    } else if (choice < 9) {
      change(!growing_);
    } else if (choice < 12) {
      changeBatch(growing_);
    } else if (choice < 13) {
      changeBatch(!growing_);
    } else if (choice < 17) {
      checkQuery();
    } else if (choice < 18) {
      checkScan();
    } else if (choice < 19) {
      ASSERT_TRUE(tree_->commit());
    } else {
      open(AccessType::kReadOnly);
      checkScan();
      open();
    }
  }

  void change(bool insert) {
    // Erasing what is there, mostly.
    Record r = record();
    if (!insert && twin_.size() > 0 && !random_.oneIn(4)) {
      const std::vector<Record> present = twin_.records();
      r = present[random_.below(present.size())];
    }
    const bool expected = insert ? twin_.insert(r) : twin_.erase(r);
    ASSERT_EQ(expected, insert ? tree_->insert(r) : tree_->erase(r));
  }

  void changeBatch(bool insert) {
    const std::vector<Record> records = batch();
    std::vector<bool> refused;
    const bool done = insert ? tree_->insertBatch(records.data(), records.size(), &refused)
                             : tree_->eraseBatch(records.data(), records.size(), &refused);
    ASSERT_TRUE(done);
    ASSERT_EQ(insert ? twin_.insertBatch(records) : twin_.eraseBatch(records), refused);
  }

  void checkQuery() {
    const Record probe = record();
    const auto same = [](const Record& r, const Record& p) { return group(r) == group(p); };
    const auto past = [](const Record& r, const Record& p) { return group(r) > group(p); };
    const auto never = [](const Record&, const Record&) { return false; };
    std::vector<Record> out;
    std::vector<Record> without_past;
    const size_t found = tree_->query(probe, same, past, &out);
    ASSERT_EQ(found, out.size());
    tree_->query(probe, same, never, &without_past);
    ASSERT_EQ(without_past, out);
    // The end of the run: all from the probe on, and what its leaf holds before.
    const std::vector<Record> least = twin_.query(probe, same);
    ASSERT_GE(out.size(), least.size());
    ASSERT_TRUE(std::equal(least.rbegin(), least.rend(), out.rbegin()));
    const std::vector<Record> all = twin_.records();
    ASSERT_TRUE(
        std::all_of(out.begin(), out.end(), [&](const Record& r) { return same(r, probe); }));
    ASSERT_TRUE(std::includes(all.begin(), all.end(), out.begin(), out.end(), Less()));
    if (!out.empty()) {
      const auto first = std::lower_bound(all.begin(), all.end(), out.front(), Less());
      ASSERT_TRUE(std::equal(out.begin(), out.end(), first)) << "a run without gaps";
    }
  }

  void checkScan() {
    std::vector<Record> all;
    std::vector<Record> leaf_records;
    for (uint64_t leaf = tree_->nextLeaf(0); leaf != 0; leaf = tree_->nextLeaf(leaf)) {
      ASSERT_TRUE(tree_->readLeaf(leaf, &leaf_records));
      ASSERT_FALSE(leaf_records.empty());
      all.insert(all.end(), leaf_records.begin(), leaf_records.end());
    }
    ASSERT_EQ(twin_.records(), all);
  }

  const Shape shape_;
  documents::Random random_;
  bool growing_ = true;
  SetTree<Record, Less> twin_;
  std::unique_ptr<LoneTree<Record, Less>> tree_;
};

BTreeParams params(uint32_t leaf_max, uint32_t node_max, uint32_t cache = 8) {
  BTreeParams made;
  made.leaf_size_max = leaf_max;
  made.node_size_max = node_max;
  made.leaf_cache_size = made.node_cache_size = cache;
  return made;
}

template <typename Record, typename Less>
void runShapes(uint64_t fixed_seed) {
  const uint64_t seed = documents::seed(fixed_seed);
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  const Shape shapes[] = {
      {params(2, 2), 40, 600},      {params(3, 2), 60, 600},   {params(4, 3), 100, 600},
      {params(5, 4, 32), 150, 600}, {params(10, 7), 300, 400}, {params(0, 0), 600, 300},
  };
  for (const Shape& shape : shapes) {
    SCOPED_TRACE(shape.params.leaf_size_max);
    TempDir dir;
    FailPoint system;
    system.setGranularity(1024);  // small blocks: the same code, less to copy
    Trial<Record, Less>(shape, seed).run();
    if (testing::Test::HasFailure()) return;
  }
}

TEST(BTreeProperty, PostingsBehaveLikeASet) { runShapes<Posting, PostingLess>(20240611); }

TEST(BTreeProperty, WideRecordsBehaveLikeASet) { runShapes<Wide, WideLess>(20240612); }

TEST(BTreeProperty, BlocksOfTheSystemsSizeBehaveLikeThem) {
  const uint64_t seed = documents::seed(20240613);
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  TempDir dir;
  Trial<Posting, PostingLess>({params(6, 4), 60, 200}, seed).run();
}

}  // namespace
