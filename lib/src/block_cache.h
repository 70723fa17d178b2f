// The blocks of one collection that are in memory.
//
// A block can stand in the eight places of one set only, set = number modulo
// the number of sets. The one used longest ago makes room for another and is
// written out first when it has been changed. Blocks are used where they lie:
// a BlockRef pins its block, so that it stays in place for as long as anyone
// looks at it. Tests: tests/unit/store/block_cache_test.cpp.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "block_collection.h"
#include "block_format.h"
#include "scoped.h"

class BlockCache;

// A block in the cache, held there. Empty when there was none to be had.
class BlockRef {
 public:
  BlockRef() = default;
  BlockRef(BlockRef&& other) noexcept
      : cache_(std::exchange(other.cache_, nullptr)), place_(other.place_) {}
  BlockRef& operator=(BlockRef&& other) noexcept {
    std::swap(cache_, other.cache_);
    std::swap(place_, other.place_);
    return *this;
  }
  ~BlockRef();

  explicit operator bool() const { return cache_ != nullptr; }
  BlockHead* head() const;
  uint64_t number() const { return head()->number; }
  void markChanged();  // it will have to be written

 private:
  friend class BlockCache;
  BlockRef(BlockCache* cache, size_t place);

  BlockCache* cache_ = nullptr;
  size_t place_ = 0;
};

class BlockCache {
 public:
  static constexpr size_t kAssociativity = 8;

  // Room for `blocks` blocks, rounded up to whole sets. Throws std::bad_alloc
  // when their memory cannot be had or the register refuses it.
  BlockCache(BlockCollection* collection, const BlockFormat& format, uint32_t blocks,
             std::function<bool()> write_back);
  ~BlockCache();
  BlockCache(const BlockCache&) = delete;
  BlockCache& operator=(const BlockCache&) = delete;

  const BlockFormat& format() const { return format_; }
  size_t places() const { return places_.size(); }  // blocks that it has room for

  // The block with this number, from memory or from disk. Empty on an I/O error
  // and for a block that fails its check or is not of this level.
  BlockRef get(uint64_t number, uint32_t level);
  // A new block without entries, changed from the start.
  BlockRef create(uint64_t number, uint32_t level);
  // Forgets a block without writing it. False while someone holds it.
  bool discard(uint64_t number);

  bool changed() const { return changed_; }  // anything since the last flush
  bool saveOld();  // the old contents of every changed block go to the journal
  bool flush();    // writes every changed block, in the order of the file

  // Forgets all blocks, unwritten ones too. Nobody may hold any.
  void clear();

  // A block was read that is none of this collection, or not as it was written.
  bool foundDamage() const { return found_damage_; }

 private:
  friend class BlockRef;

  struct Place {
    uint64_t number = 0;  // 0: empty
    uint64_t last_use = 0;
    uint32_t pins = 0;
    bool changed = false;
  };

  BlockHead* blockAt(size_t place) const;
  size_t firstOfSet(uint64_t number) const;
  size_t find(uint64_t number) const;  // places_.size() when it is not there
  size_t makeRoom(uint64_t number);    // places_.size() when there is none
  BlockRef hold(size_t place);
  std::vector<size_t> changedPlaces() const;  // in the order of the file

  BlockCollection* const collection_;
  const BlockFormat format_;
  const std::function<bool()> write_back_;
  std::vector<Place> places_;
  size_t registered_bytes_ = 0;
  MallocArray<unsigned char> memory_;
  uint64_t uses_ = 0;
  bool changed_ = false;
  bool found_damage_ = false;
};

inline BlockHead* BlockRef::head() const { return cache_->blockAt(place_); }

inline BlockHead* BlockCache::blockAt(size_t place) const {
  return reinterpret_cast<BlockHead*>(memory_.get() + place * format_.block_bytes);
}
