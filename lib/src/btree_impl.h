// The algorithms of BTree; included by btree.h only.
//
// At most three blocks of a collection are held at any time, so a cache of one
// set is enough for a tree of any height: the way down is remembered by block
// numbers and walked up again through the cache.
//
// Splitting. A leaf that is too full is spread over several, evenly and with a
// tenth of room left, for the next records may go anywhere. A batch that comes to
// more leaves than the cache holds carries what does not fill a leaf up to that
// tenth over to the front of the next one, if it comes there anyway: so a batch that
// touches every leaf of a large tree leaves all of them that full.
// But records that come after all others usually come in ascending order: then the
// last leaf is filled up and a new one begun, and the same holds for nodes. So the
// last block of a level may hold as little as one entry; every other one has its
// minimum.
//
// Erasing. A block below its minimum is joined with a neighbour under the same
// parent if one block can hold both; otherwise both get half of what there is.
#pragma once

template <typename Record, typename Less>
BTree<Record, Less>::BTree(TreeStore* store, size_t tree)
    : blocks_(store, tree, sizeof(Record), sizeof(Entry)) {
  if (!blocks_.valid()) return;
  incoming_.reserve(blocks_.maxEntries(0));
  carried_.reserve(blocks_.maxEntries(0));
  accepted_.reserve(blocks_.maxEntries(0));
  records_.reserve(3 * size_t{blocks_.maxEntries(0)});
  entries_.reserve(2 * size_t{blocks_.maxEntries(1)} + 1);
}

template <typename Record, typename Less>
BTree<Record, Less>::~BTree() = default;

template <typename Record, typename Less>
bool BTree<Record, Less>::is_valid() const {
  return blocks_.valid();
}

template <typename Record, typename Less>
uint64_t BTree<Record, Less>::size() const {
  return blocks_.state().records;
}

template <typename Record, typename Less>
bool BTree<Record, Less>::equal(const Record& left, const Record& right) const {
  return !less_(left, right) && !less_(right, left);
}

// The contents of the blocks contradict each other.
template <typename Record, typename Less>
bool BTree<Record, Less>::breach() {
  blocks_.reportDamage();
  return false;
}

// Does the leaf `next` come after `leaf`? Links that run in a circle lead back to
// records that do not ascend.
template <typename Record, typename Less>
bool BTree<Record, Less>::follows(const LeafBlock& leaf, const LeafBlock& next) {
  return less_(leaf[leaf.count() - 1], next[0]) || breach();
}

// Finds the leaf where the record is or would be inserted. Not in an empty tree.
template <typename Record, typename Less>
bool BTree<Record, Less>::descend(const Record& record, Path* path) {
  uint64_t number = blocks_.state().root;
  bool last = true;
  for (uint32_t level = blocks_.state().height - 1; level > 0; --level) {
    const NodeBlock node = blocks_.get(number, level);
    if (!node) return false;
    const uint32_t child = node.childFor(record, less_);
    path->steps[level] = {number, child, last};
    if (child < node.count()) {
      path->bound = node[child].separator;
      path->bound_level = level;
      last = false;
    }
    number = node.child(child);
  }
  path->steps[0] = {number, 0, last};
  return true;
}

template <typename Record, typename Less>
bool BTree<Record, Less>::insert(const Record& record) {
  std::vector<bool> refused;
  return insertBatch(&record, 1, &refused) && !refused[0];
}

template <typename Record, typename Less>
bool BTree<Record, Less>::insertBatch(const Record* records, size_t count,
                                      std::vector<bool>* refused) {
  return insertBatchFrom([records](size_t i) { return records[i]; }, count, refused);
}

template <typename Record, typename Less>
template <typename RecordAt>
bool BTree<Record, Less>::insertBatchFrom(RecordAt recordAt, size_t count,
                                          std::vector<bool>* refused) {
  refused->assign(count, true);
  // First, because it may run out of memory.
  if (!blocks_.writable() || !expectChanges(recordAt, count)) return false;
  size_t next = 0;
  if (count > 0 && blocks_.state().height == 0) {
    if (!plant(recordAt(0))) return false;
    (*refused)[0] = false;
    next = 1;
  }
  carried_.clear();
  while (next < count) {
    Path path;
    if (!descend(recordAt(next), &path)) return false;
    // What belongs to this leaf, and no more than one leaf can hold.
    const size_t first = next;
    Record record;
    const Record* following = nullptr;
    incoming_.clear();
    for (; next < count && incoming_.size() < blocks_.maxEntries(0); ++next) {
      record = recordAt(next);
      if (!path.steps[0].last && !less_(record, path.bound)) {
        following = &record;
        break;
      }
      incoming_.push_back(record);
    }
    if (!insertIntoLeaf(path.steps[0], first, following, refused)) return false;
  }
  blocks_.expectNothing();
  return true;
}

// Tells which blocks a batch comes to, so that their old contents can be made
// safe together. That pays when they are more than the cache can hold.
template <typename Record, typename Less>
template <typename RecordAt>
bool BTree<Record, Less>::expectChanges(RecordAt recordAt, size_t count) {
  blocks_.expectNothing();
  carries_ = false;
  if (count <= blocks_.cachedLeaves() || blocks_.state().height == 0) return true;
  for (size_t next = 0; next < count;) {
    Path path;
    if (!descend(recordAt(next), &path)) return false;
    for (uint32_t level = 0; level < blocks_.state().height; ++level) {
      blocks_.expectChange(path.steps[level].number, level);
    }
    if (path.steps[0].last) break;
    next = firstNotLess(recordAt, next, count, path.bound, less_);
  }
  carries_ = blocks_.expectedLeaves() > blocks_.cachedLeaves();
  return true;
}

// The first record of an empty tree.
template <typename Record, typename Less>
bool BTree<Record, Less>::plant(const Record& record) {
  LeafBlock leaf = blocks_.add(0);
  if (!leaf) return false;
  leaf.assign(&record, &record + 1);
  blocks_.state() = {leaf.number(), 1, 1};
  return true;
}

// Inserts incoming_, the records of a batch from number `first` on, and carried_,
// which come before all that the leaf has. `following` is the next record of the
// batch, if that is known to belong to another leaf.
template <typename Record, typename Less>
bool BTree<Record, Less>::insertIntoLeaf(const Step& step, size_t first, const Record* following,
                                         std::vector<bool>* refused) {
  LeafBlock leaf = blocks_.get(step.number, 0);
  if (!leaf) return false;
  const Record* const present = leaf.entries();
  const auto presentAt = [present](size_t i) { return present[i]; };
  accepted_.clear();
  size_t place = 0;
  for (size_t i = 0; i < incoming_.size(); ++i) {
    const Record& record = incoming_[i];
    if (i > 0 && equal(incoming_[i - 1], record)) continue;
    place = firstNotLess(presentAt, place, leaf.count(), record, less_);
    if (place < leaf.count() && equal(leaf[static_cast<uint32_t>(place)], record)) continue;
    (*refused)[first + i] = false;
    accepted_.push_back({i, place});
  }
  if (accepted_.empty() && carried_.empty()) return true;
  blocks_.state().records += accepted_.size();

  const size_t total = carried_.size() + leaf.count() + accepted_.size();
  const size_t capacity = blocks_.maxEntries(0);
  if (carried_.empty() && total <= capacity) {
    // From the back, so that every record moves once.
    Record* const base = leaf.entries();
    size_t end = leaf.count();
    for (size_t n = accepted_.size(); n > 0; --n) {
      const Accepted& accepted = accepted_[n - 1];
      std::memmove(base + accepted.place + n, base + accepted.place,
                   (end - accepted.place) * sizeof(Record));
      base[accepted.place + n - 1] = incoming_[accepted.index];
      end = accepted.place;
    }
    leaf.setCount(static_cast<uint32_t>(total));
    return true;
  }
  const bool append = step.last && carried_.empty() && accepted_.front().place == leaf.count();
  records_.clear();
  records_.insert(records_.end(), carried_.begin(), carried_.end());
  carried_.clear();
  size_t begin = 0;
  for (const Accepted& accepted : accepted_) {
    records_.insert(records_.end(), leaf.entries() + begin, leaf.entries() + accepted.place);
    records_.push_back(incoming_[accepted.index]);
    begin = accepted.place;
  }
  records_.insert(records_.end(), leaf.entries() + begin, leaf.end());
  if (total <= capacity) {
    leaf.assign(records_.data(), records_.data() + total);
    return true;
  }
  if (append) return spread(std::move(leaf), Spread::kAppend);
  bool carry = false;
  if (carries_ && following != nullptr && !belongsTo(leaf.link(), *following, &carry)) return false;
  return spread(std::move(leaf), carry ? Spread::kCarry : Spread::kEvenly);
}

// Is that leaf the one where the record is or would be inserted?
template <typename Record, typename Less>
bool BTree<Record, Less>::belongsTo(uint64_t leaf, const Record& record, bool* belongs) {
  Path path;
  if (!descend(record, &path)) return false;
  *belongs = path.steps[0].number == leaf;
  return true;
}

// Puts records_, more than one leaf can hold and at most three times as many, into
// `leaf` and new leaves behind it, or into carried_.
template <typename Record, typename Less>
bool BTree<Record, Less>::spread(LeafBlock leaf, Spread how) {
  const size_t capacity = blocks_.maxEntries(0);
  const size_t roomy = capacity - capacity / 10;
  const size_t total = records_.size();
  const size_t pieces = how == Spread::kAppend  ? 2
                        : how == Spread::kCarry ? total / roomy
                                                : (total + roomy - 1) / roomy;
  const auto endOf = [&](size_t piece) {
    if (how == Spread::kAppend) return piece == 0 ? capacity : total;
    return how == Spread::kCarry ? roomy * (piece + 1) : total * (piece + 1) / pieces;
  };
  const Record* begin = records_.data();
  for (size_t piece = 0; piece < pieces; ++piece) {
    const Record* const end = records_.data() + endOf(piece);
    if (piece > 0) {
      LeafBlock next = blocks_.add(0);
      if (!next) return false;
      next.setLink(leaf.link());
      leaf.setLink(next.number());
      leaf = std::move(next);
    }
    leaf.assign(begin, end);
    if (piece > 0 && !attach(*begin, leaf.number())) return false;
    begin = end;
  }
  const Record* const rest_end = records_.data() + total;
  if (begin == rest_end) return true;
  carried_.assign(begin, rest_end);
  return moveBound(*(begin - 1), *begin);
}

// What separates the leaf where `below` belongs from the next one becomes `bound`.
template <typename Record, typename Less>
bool BTree<Record, Less>::moveBound(const Record& below, const Record& bound) {
  Path path;
  if (!descend(below, &path)) return false;
  if (path.steps[0].last) return breach();
  const Step& step = path.steps[path.bound_level];
  NodeBlock node = blocks_.get(step.number, path.bound_level);
  if (!node) return false;
  node.entries()[step.child].separator = bound;
  node.markChanged();
  return true;
}

// Makes a new leaf, which begins at `separator`, a child of the node above.
template <typename Record, typename Less>
bool BTree<Record, Less>::attach(const Record& separator, uint64_t child) {
  Path path;
  if (!descend(separator, &path)) return false;
  Entry entry = {separator, child};
  for (uint32_t level = 1; level < blocks_.state().height; ++level) {
    const Step& step = path.steps[level];
    NodeBlock node = blocks_.get(step.number, level);
    if (!node) return false;
    if (node.count() < blocks_.maxEntries(level)) {
      node.insertAt(step.child, entry);
      return true;
    }
    if (!splitNode(std::move(node), step, level, &entry)) return false;
  }
  return growRoot(entry);
}

// Splits a full node that is to take one more entry. What its parent then has
// to take replaces that entry.
template <typename Record, typename Less>
bool BTree<Record, Less>::splitNode(NodeBlock node, const Step& step, uint32_t level,
                                    Entry* entry) {
  NodeBlock right = blocks_.add(level);
  if (!right) return false;
  entries_.assign(node.entries(), node.entries() + step.child);
  entries_.push_back(*entry);
  entries_.insert(entries_.end(), node.entries() + step.child, node.end());

  const bool append = step.last && step.child == node.count();
  const size_t middle = append ? entries_.size() - 2 : entries_.size() / 2;
  const Entry* const all = entries_.data();
  node.assign(all, all + middle);
  right.setLink(all[middle].child);
  right.assign(all + middle + 1, all + entries_.size());
  *entry = {all[middle].separator, right.number()};
  return true;
}

// The root was split; `entry` is its right half.
template <typename Record, typename Less>
bool BTree<Record, Less>::growRoot(const Entry& entry) {
  TreeState& state = blocks_.state();
  if (state.height == TreeBlocks::kMaxHeight) return breach();
  NodeBlock root = blocks_.add(state.height);
  if (!root) return false;
  root.setLink(state.root);
  root.assign(&entry, &entry + 1);
  state.root = root.number();
  ++state.height;
  return true;
}

template <typename Record, typename Less>
bool BTree<Record, Less>::erase(const Record& record) {
  TreeState& state = blocks_.state();
  if (!blocks_.writable() || state.height == 0) return false;
  Path path;
  if (!descend(record, &path)) return false;
  LeafBlock leaf = blocks_.get(path.steps[0].number, 0);
  if (!leaf) return false;
  const Record* const present = leaf.entries();
  const auto presentAt = [present](size_t i) { return present[i]; };
  const auto place = static_cast<uint32_t>(firstNotLess(presentAt, 0, leaf.count(), record, less_));
  if (place == leaf.count() || !equal(leaf[place], record)) return false;
  leaf.removeAt(place);
  --state.records;
  const bool last_of_all = leaf.count() == 0 && state.height == 1;
  if (last_of_all != (state.records == 0)) return breach();
  if (last_of_all) {
    leaf = LeafBlock();
    const uint64_t root = state.root;
    state = {};
    return blocks_.drop(root, 0);
  }
  return leaf.count() >= blocks_.minEntries(0) || refill(path, std::move(leaf));
}

template <typename Record, typename Less>
bool BTree<Record, Less>::eraseBatch(const Record* records, size_t count,
                                     std::vector<bool>* refused) {
  refused->assign(count, true);
  if (!blocks_.writable()) return false;
  const auto recordAt = [records](size_t i) { return records[i]; };
  if (!expectChanges(recordAt, count)) return false;
  for (size_t i = 0; i < count && blocks_.valid(); ++i) (*refused)[i] = !erase(records[i]);
  blocks_.expectNothing();
  return blocks_.valid();
}

// `block`, the leaf of the path, has fewer entries than it should.
template <typename Record, typename Less>
bool BTree<Record, Less>::refill(const Path& path, BlockRef block) {
  TreeState& state = blocks_.state();
  for (uint32_t level = 0; level + 1 < state.height; ++level) {
    const Step& step = path.steps[level + 1];
    NodeBlock parent = blocks_.get(step.number, level + 1);
    if (!parent) return false;
    const uint32_t entries = parent.count();
    const uint32_t separator = step.child == 0 ? 0 : step.child - 1;
    BlockRef left = blocks_.get(parent.child(step.child == 0 ? 1 : step.child - 1), level);
    if (!left) return false;
    BlockRef right = std::move(block);
    if (step.child == 0) std::swap(left, right);
    const bool joined =
        level == 0 ? joinLeaves(&parent, separator, std::move(left), std::move(right))
                   : joinNodes(&parent, separator, level, std::move(left), std::move(right));
    if (!joined) return false;
    if (parent.count() == entries) return true;  // both stayed

    if (step.number == state.root) {
      if (parent.count() > 0) return true;
      state.root = parent.link();
      --state.height;
      parent = NodeBlock();
      return blocks_.drop(step.number, level + 1);
    }
    if (parent.count() >= blocks_.minEntries(level + 1)) return true;
    block = std::move(parent);
  }
  return true;  // the root may hold less
}

template <typename Record, typename Less>
bool BTree<Record, Less>::joinLeaves(NodeBlock* parent, uint32_t separator, LeafBlock left,
                                     LeafBlock right) {
  if (left.count() + right.count() <= blocks_.maxEntries(0)) {
    left.append(right.entries(), right.end());
    left.setLink(right.link());
    parent->removeAt(separator);
    const uint64_t number = right.number();
    right = LeafBlock();
    return blocks_.drop(number, 0);
  }
  records_.assign(left.entries(), left.end());
  records_.insert(records_.end(), right.entries(), right.end());
  const Record* const all = records_.data();
  const size_t middle = records_.size() / 2;
  left.assign(all, all + middle);
  right.assign(all + middle, all + records_.size());
  parent->entries()[separator].separator = all[middle];
  parent->markChanged();
  return true;
}

// As with leaves; but the separator between two nodes belongs to what they hold.
template <typename Record, typename Less>
bool BTree<Record, Less>::joinNodes(NodeBlock* parent, uint32_t separator, uint32_t level,
                                    NodeBlock left, NodeBlock right) {
  const Entry between = {(*parent)[separator].separator, right.link()};
  if (left.count() + 1 + right.count() <= blocks_.maxEntries(level)) {
    left.append(&between, &between + 1);
    left.append(right.entries(), right.end());
    parent->removeAt(separator);
    const uint64_t number = right.number();
    right = NodeBlock();
    return blocks_.drop(number, level);
  }
  entries_.assign(left.entries(), left.end());
  entries_.push_back(between);
  entries_.insert(entries_.end(), right.entries(), right.end());
  const Entry* const all = entries_.data();
  const size_t middle = entries_.size() / 2;
  left.assign(all, all + middle);
  right.setLink(all[middle].child);
  right.assign(all + middle + 1, all + entries_.size());
  parent->entries()[separator].separator = all[middle].separator;
  parent->markChanged();
  return true;
}

template <typename Record, typename Less>
template <typename Same, typename Past>
size_t BTree<Record, Less>::query(const Record& probe, Same same, Past past,
                                  std::vector<Record>* out) {
  const size_t before = out->size();
  if (!blocks_.valid() || blocks_.state().height == 0) return 0;
  Path path;
  if (!descend(probe, &path)) return 0;
  LeafBlock leaf = blocks_.get(path.steps[0].number, 0);
  for (bool whole = static_cast<bool>(leaf);;) {
    if (!whole) {
      out->resize(before);  // half an answer is none
      return 0;
    }
    for (const Record* record = leaf.entries(); record != leaf.end(); ++record) {
      if (same(*record, probe)) {
        out->push_back(*record);
      } else if (out->size() > before || past(*record, probe)) {
        return out->size() - before;
      }
    }
    if (leaf.link() == 0) return out->size() - before;
    LeafBlock next = blocks_.get(leaf.link(), 0);
    whole = next && follows(leaf, next);
    leaf = std::move(next);
  }
}

template <typename Record, typename Less>
uint64_t BTree<Record, Less>::nextLeaf(uint64_t leaf) {
  if (!blocks_.valid() || blocks_.state().height == 0) return 0;
  if (leaf == 0) {
    uint64_t number = blocks_.state().root;
    for (uint32_t level = blocks_.state().height - 1; level > 0; --level) {
      const NodeBlock node = blocks_.get(number, level);
      if (!node) return 0;
      number = node.child(0);
    }
    return number;
  }
  const LeafBlock block = blocks_.get(leaf, 0);
  if (!block || block.link() == 0) return 0;
  const LeafBlock next = blocks_.get(block.link(), 0);
  if (!next || !follows(block, next)) return 0;
  return next.number();
}

template <typename Record, typename Less>
bool BTree<Record, Less>::readLeaf(uint64_t leaf, std::vector<Record>* records) {
  if (!blocks_.valid()) return false;
  const LeafBlock block = blocks_.get(leaf, 0);
  if (!block) return false;
  records->assign(block.entries(), block.end());
  return true;
}

template <typename Record, typename Less>
struct BTree<Record, Less>::Audit {
  std::vector<bool> seen[2];  // by block number: leaves, nodes
  uint64_t records = 0;
  uint64_t next_leaf = 0;  // what the leaf before links to
  bool any_leaf = false;
  std::string problem;

  bool fail(const char* what, uint64_t number) {
    problem = std::string(what) + " " + std::to_string(number);
    return false;
  }
};

template <typename Record, typename Less>
bool BTree<Record, Less>::verify(std::string* problem) {
  const TreeState& state = blocks_.state();
  Audit audit;
  for (uint32_t level : {0u, 1u}) {
    audit.seen[level].resize(blocks_.collection(level).header().last_block);
  }
  bool sound = blocks_.valid() || audit.fail("the tree is invalid; height", state.height);
  if (sound && state.height > 0) {
    sound = auditBlock(state.root, state.height - 1, nullptr, nullptr, &audit);
  }
  sound = sound &&
          (audit.next_leaf == 0 || audit.fail("the last leaf has a next one,", audit.next_leaf));
  sound = sound &&
          (audit.records == state.records || audit.fail("number of records is not", audit.records));
  sound = sound && auditCollection(0, &audit) && auditCollection(1, &audit);
  if (!sound && blocks_.valid()) breach();  // what could not be read is no contradiction
  if (problem != nullptr) *problem = audit.problem;
  return sound;
}

// A block and all below it. Records lie from `lower` on and below `upper`, where
// those are not null.
template <typename Record, typename Less>
bool BTree<Record, Less>::auditBlock(uint64_t number, uint32_t level, const Record* lower,
                                     const Record* upper, Audit* audit) {
  std::vector<bool>& seen = audit->seen[level == 0 ? 0 : 1];
  if (number >= seen.size() || seen[number]) return audit->fail("unfit child", number);
  seen[number] = true;

  // Copied: more blocks than the cache must hold are visited below this one.
  std::vector<Record> keys;
  std::vector<uint64_t> children;
  if (level == 0) {
    const LeafBlock leaf = blocks_.get(number, 0);
    if (!leaf) return audit->fail("no leaf", number);
    keys.assign(leaf.entries(), leaf.end());
    if (audit->any_leaf && audit->next_leaf != number) {
      return audit->fail("not linked from the leaf before:", number);
    }
    audit->any_leaf = true;
    audit->next_leaf = leaf.link();
    audit->records += leaf.count();
  } else {
    const NodeBlock node = blocks_.get(number, level);
    if (!node) return audit->fail("no node", number);
    for (const Entry* entry = node.entries(); entry != node.end(); ++entry) {
      keys.push_back(entry->separator);
    }
    for (uint32_t i = 0; i <= node.count(); ++i) children.push_back(node.child(i));
  }

  const bool may_be_short = upper == nullptr;  // the root, or the last of its level
  if (keys.size() < (may_be_short ? 1 : blocks_.minEntries(level)) ||
      keys.size() > blocks_.maxEntries(level)) {
    return audit->fail(level == 0 ? "fill of leaf" : "fill of node", number);
  }
  for (size_t i = 0; i < keys.size(); ++i) {
    if ((i > 0 && !less_(keys[i - 1], keys[i])) || (lower != nullptr && less_(keys[i], *lower)) ||
        (upper != nullptr && !less_(keys[i], *upper))) {
      return audit->fail(level == 0 ? "order in leaf" : "order in node", number);
    }
  }
  for (size_t i = 0; i < children.size(); ++i) {
    if (!auditBlock(children[i], level - 1, i == 0 ? lower : &keys[i - 1],
                    i == keys.size() ? upper : &keys[i], audit)) {
      return false;
    }
  }
  return true;
}

// Every block of the collection is either in the tree or free.
template <typename Record, typename Less>
bool BTree<Record, Less>::auditCollection(uint32_t level, Audit* audit) {
  const BlockCollection& collection = blocks_.collection(level);
  std::vector<bool>& seen = audit->seen[level];
  const auto used = static_cast<uint64_t>(std::count(seen.begin(), seen.end(), true));
  if (used != collection.header().used_blocks) return audit->fail("used blocks are not", used);
  for (const uint64_t number : collection.freeBlocks()) {
    if (number >= seen.size() || seen[number]) return audit->fail("not free:", number);
    seen[number] = true;
  }
  const uint64_t all = used + collection.freeBlocks().size();
  return all == collection.header().blocks() || audit->fail("lost blocks; known are", all);
}
