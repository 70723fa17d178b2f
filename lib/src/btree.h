// An ordered set of fixed-size records that lives in block files.
//
// The tree is a B+ tree: every record is in a leaf, the leaves are linked in
// ascending order, and nodes hold separators and the numbers of their children.
// It is one tree of a store (tree_store.h), kept in two collections of blocks,
// one of leaves and one of nodes, whose layout is drawn in btree_node.h. Two
// records are equal when Less orders them neither way; a set holds no equal ones.
//
// Nothing is on disk for certain before the store's commit(). A block that
// cannot be read or written, or that fails its check, makes the store invalid:
// a third outcome beside "done" and "refused". The store's rollback() then leads
// back to the last commit. Memory that runs out in the middle of an operation
// makes the store invalid too, and std::bad_alloc is thrown.
//
// Not thread-safe: the index guards every tree with its collector mutex.
// Tests: tests/unit/store/btree_test.cpp, tests/property/btree_property_test.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "btree_node.h"
#include "tree_blocks.h"

template <typename Record, typename Less>
class BTree {
 public:
  // Tree number `tree` of the store, which must outlive this. A tree is
  // reopened with the size limits it was made with. Throws std::bad_alloc when
  // the memory of the caches cannot be had.
  BTree(TreeStore* store, size_t tree);
  ~BTree();  // commits the store
  BTree(const BTree&) = delete;
  BTree& operator=(const BTree&) = delete;

  // False after a failed opening, a failed check or an I/O error; every
  // operation fails until a rollback.
  bool is_valid() const;

  bool insert(const Record& record);  // false: already there (nothing changed) or invalid
  bool erase(const Record& record);   // false: not there (nothing changed) or invalid

  // Many at once. `records` ascend; of equal neighbours the later ones count as
  // already there, or as not there any more. refused->at(i), resized to
  // `count`, tells where the single form would have returned false. False when
  // the tree is or becomes invalid or is not open for writing. The second form
  // has recordAt(i) for the record with the number i.
  bool insertBatch(const Record* records, size_t count, std::vector<bool>* refused);
  template <typename RecordAt>
  bool insertBatchFrom(RecordAt recordAt, size_t count, std::vector<bool>* refused);
  bool eraseBatch(const Record* records, size_t count, std::vector<bool>* refused);

  // Appends to `out` the run of records for which same(record, probe) holds.
  // Looks from the first record of the leaf where `probe` would be inserted up
  // to the first other record after the run, to the first record with
  // past(record, probe), where the order says that none can follow, or to the
  // end. A run that begins in an earlier leaf loses that part, so `probe`
  // should order before the run. Returns the number of records appended.
  template <typename Same, typename Past>
  size_t query(const Record& probe, Same same, Past past, std::vector<Record>* out);

  uint64_t size() const;  // records

  // The ordered scan, one at a time: the leaf after `leaf`, or the first one
  // for 0. Returns 0 after the last, or when the tree is or becomes invalid.
  uint64_t nextLeaf(uint64_t leaf);
  // Replaces `records` by those of a leaf, in order.
  bool readLeaf(uint64_t leaf, std::vector<Record>* records);

  // Walks every block and checks order, separators, fill, links, counts and the
  // free blocks. A breach is named in `problem` and makes the tree invalid.
  bool verify(std::string* problem = nullptr);

 private:
  using LeafBlock = Leaf<Record>;
  using NodeBlock = Node<Record>;
  using Entry = NodeEntry<Record>;

  // The way from the root to a leaf.
  struct Step {
    uint64_t number = 0;  // of the block
    uint32_t child = 0;   // the child taken, in a node
    bool last = false;    // the block is the last one of its level
  };
  struct Path {
    Step steps[TreeBlocks::kMaxHeight];  // by level, 0 being the leaf
    Record bound = {};         // what is less belongs to the leaf, unless that is the last
    uint32_t bound_level = 0;  // of the node whose separator that is
  };

  // A record of a batch that is new, and the place in the leaf where it goes.
  struct Accepted {
    size_t index;
    size_t place;
  };

  // How the records of a leaf that is too full are spread over it and new ones.
  enum class Spread {
    kEvenly,
    kAppend,  // nothing is likely to come between them: the first one is filled up
    kCarry,   // what does not fill a leaf goes to the front of the next one
  };

  struct Audit;  // what verify() gathers

  bool equal(const Record& left, const Record& right) const;
  bool follows(const LeafBlock& leaf, const LeafBlock& next);
  bool descend(const Record& record, Path* path);
  template <typename RecordAt>
  bool expectChanges(RecordAt recordAt, size_t count);
  bool plant(const Record& record);
  bool insertIntoLeaf(const Step& step, size_t first, const Record* following,
                      std::vector<bool>* refused);
  bool belongsTo(uint64_t leaf, const Record& record, bool* belongs);
  bool spread(LeafBlock leaf, Spread how);
  bool moveBound(const Record& below, const Record& bound);
  bool attach(const Record& separator, uint64_t child);
  bool splitNode(NodeBlock node, const Step& step, uint32_t level, Entry* entry);
  bool growRoot(const Entry& entry);
  bool refill(const Path& path, BlockRef block);
  bool joinLeaves(NodeBlock* parent, uint32_t separator, LeafBlock left, LeafBlock right);
  bool joinNodes(NodeBlock* parent, uint32_t separator, uint32_t level, NodeBlock left,
                 NodeBlock right);
  bool breach();
  bool auditBlock(uint64_t number, uint32_t level, const Record* lower, const Record* upper,
                  Audit* audit);
  bool auditCollection(uint32_t level, Audit* audit);

  TreeBlocks blocks_;
  const Less less_ = Less();

  // Working memory, taken at opening, so that no operation runs out of it midway.
  std::vector<Record> incoming_;  // of a batch, for one leaf
  bool carries_ = false;          // the batch under way does so between leaves
  std::vector<Record> carried_;   // from one leaf to the front of the next
  std::vector<Accepted> accepted_;
  std::vector<Record> records_;
  std::vector<Entry> entries_;
};

#include "btree_impl.h"
