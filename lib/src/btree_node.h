// Leaves and nodes: what the entries of a block are, and how they are moved.
//
// Every block begins with the head of block_format.h. A leaf's entries are
// records and its link is the next leaf, 0 in the last one:
//
//   0               24          32
//   +---------------+-----------+----------+----------+-----+------------------+
//   | head ...      | next leaf | record 0 | record 1 | ... | record count - 1 |
//   +---------------+-----------+----------+----------+-----+------------------+
//
// A node's entries are separators, each with the child to its right; its link
// is the child to the left of them all, so `count` entries give count + 1
// children, numbered from 0:
//
//   0               24          32
//   +---------------+-----------+-------------+---------+-------------+---------+-----
//   | head ...      | child 0   | separator 0 | child 1 | separator 1 | child 2 | ...
//   +---------------+-----------+-------------+---------+-------------+---------+-----
//
// Records in child i are not less than separator i - 1 and less than separator
// i. A separator need not be a record of the tree: it stays when its record is
// erased. Neither records nor separators are ever equal within a block.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "block_cache.h"

template <typename Record>
struct NodeEntry {
  Record separator;
  uint64_t child;
};

// A held block whose entries are of type Entry, with a typed view of them.
template <typename Entry>
class EntryBlock : public BlockRef {
 public:
  // Their bytes are the bytes on disk, so none may be left to chance.
  static_assert(std::is_trivially_copyable_v<Entry>);
  static_assert(std::has_unique_object_representations_v<Entry>, "no padding");
  static_assert(alignof(Entry) <= 8 && sizeof(BlockHead) % 8 == 0, "entries lie aligned");

  EntryBlock() = default;
  EntryBlock(BlockRef block) : BlockRef(std::move(block)) {}  // NOLINT: a block is one or the other

  uint32_t count() const { return head()->count; }
  Entry* entries() const { return reinterpret_cast<Entry*>(head() + 1); }
  Entry* end() const { return entries() + count(); }
  const Entry& operator[](uint32_t index) const { return entries()[index]; }
  uint64_t link() const { return head()->link; }

  void setLink(uint64_t number) {
    head()->link = number;
    markChanged();
  }

  void assign(const Entry* first, const Entry* last) {
    if (first != last) {
      std::memmove(entries(), first, static_cast<size_t>(last - first) * sizeof(Entry));
    }
    setCount(static_cast<uint32_t>(last - first));
  }

  void append(const Entry* first, const Entry* last) {
    if (first != last) {
      std::memcpy(end(), first, static_cast<size_t>(last - first) * sizeof(Entry));
    }
    setCount(count() + static_cast<uint32_t>(last - first));
  }

  void insertAt(uint32_t index, const Entry& entry) {
    std::memmove(entries() + index + 1, entries() + index, (count() - index) * sizeof(Entry));
    entries()[index] = entry;
    setCount(count() + 1);
  }

  void removeAt(uint32_t index) {
    std::memmove(entries() + index, entries() + index + 1, (count() - index - 1) * sizeof(Entry));
    setCount(count() - 1);
  }

  void setCount(uint32_t count) {
    head()->count = count;
    markChanged();
  }
};

template <typename Record>
using Leaf = EntryBlock<Record>;

template <typename Record>
class Node : public EntryBlock<NodeEntry<Record>> {
 public:
  using EntryBlock<NodeEntry<Record>>::EntryBlock;

  uint64_t child(uint32_t index) const {
    return index == 0 ? this->link() : (*this)[index - 1].child;
  }

  // The child in whose range the record lies.
  template <typename Less>
  uint32_t childFor(const Record& record, const Less& less) const {
    const auto right = std::upper_bound(this->entries(), this->end(), record,
                                        [&less](const Record& r, const NodeEntry<Record>& entry) {
                                          return less(r, entry.separator);
                                        });
    return static_cast<uint32_t>(right - this->entries());
  }
};

// The place of the first of `count` records, from `from` on, that is not less
// than `record`: found in steps that double, because it is usually near. The
// record at place i is recordAt(i).
template <typename RecordAt, typename Record, typename Less>
size_t firstNotLess(RecordAt recordAt, size_t from, size_t count, const Record& record,
                    const Less& less) {
  size_t step = 1;
  while (from + step <= count && less(recordAt(from + step - 1), record)) {
    from += step;
    step *= 2;
  }
  size_t end = std::min(from + step, count);
  while (from < end) {
    const size_t middle = from + (end - from) / 2;
    if (less(recordAt(middle), record)) {
      from = middle + 1;
    } else {
      end = middle;
    }
  }
  return from;
}
