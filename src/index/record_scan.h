// Trees and tables read from front to back, one record at a time, and a digest
// of postings that shows whether two trees of different orders hold the same
// ones. None of them needs more memory for a larger index.
// Tests: tests/unit/index/record_scan_test.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform.h"
#include "tree_records.h"

template <typename Record, typename Less>
class TreeScan {
 public:
  explicit TreeScan(BTree<Record, Less>* tree) : tree_(tree) {}

  // The next record, valid until the next call. Null after the last one, and
  // when the tree is or becomes invalid.
  const Record* next() {
    while (place_ == records_.size()) {
      if (!ended_) leaf_ = tree_->nextLeaf(leaf_);
      place_ = 0;
      ended_ = ended_ || leaf_ == 0 || !tree_->readLeaf(leaf_, &records_);
      if (ended_) records_.clear();
      if (ended_) return nullptr;
    }
    return &records_[place_++];
  }

 private:
  BTree<Record, Less>* const tree_;
  uint64_t leaf_ = 0;
  bool ended_ = false;
  std::vector<Record> records_;  // of the leaf
  size_t place_ = 0;             // of the next one
};

// The elements of a search table, from the file's position on. A table's element
// is the record of the tree that it was written from.
template <typename Element>
class TableScan {
 public:
  explicit TableScan(platform::File* file) : file_(file), elements_(kAtOnce) {}

  // The next element, valid until the next call. Null at the end of the file and
  // when it cannot be read.
  const Element* next() {
    if (place_ == read_) {
      const int64_t bytes = file_->read(elements_.data(), elements_.size() * sizeof(Element));
      read_ = bytes < 0 ? 0 : static_cast<size_t>(bytes) / sizeof(Element);
      place_ = 0;
      if (read_ == 0) return nullptr;
    }
    return &elements_[place_++];
  }

 private:
  static constexpr size_t kAtOnce = 65536;

  platform::File* const file_;
  std::vector<Element> elements_;
  size_t read_ = 0;
  size_t place_ = 0;  // of the next one
};

// Counts a set of postings and adds up a 128-bit hash of each, so that the order
// does not matter. Sets that differ by accident have equal digests with a
// probability of about 2^-128. There is no key: who chooses the postings with
// the hash in hand can make two sets look alike.
class PostingDigest {
 public:
  void add(int32_t fid, int32_t source, const Signature& signature) {
    const uint64_t document = signedPairKey(fid, source);
    const uint64_t key = signatureKey(signature);
    ++count_;
    low_ += mix(document + mix(key ^ 0x9E3779B97F4A7C15u));
    high_ += mix(key + mix(document ^ 0xC2B2AE3D27D4EB4Fu));
  }

  uint64_t count() const { return count_; }
  friend bool operator==(const PostingDigest&, const PostingDigest&) = default;

 private:
  // A bijection in which every bit of the input reaches all of the output.
  static uint64_t mix(uint64_t value) {
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
    return value ^ (value >> 31);
  }

  uint64_t count_ = 0;
  uint64_t low_ = 0;
  uint64_t high_ = 0;
};
