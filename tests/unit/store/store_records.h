// Records of the store's tests, and what the tests ask of a tree on disk.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bte_stream_base.h"
#include "btree.h"
#include "lone_tree.h"
#include "signature.h"
#include "temp_dir.h"

struct Number {
  uint64_t value;
  bool operator==(const Number&) const = default;
};

struct NumberLess {
  bool operator()(const Number& left, const Number& right) const {
    return left.value < right.value;
  }
};

using NumberTree = LoneTree<Number, NumberLess>;

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
    return compareSignatures(left.signature, right.signature) < 0;
  }
};

using PostingTree = LoneTree<Posting, PostingLess>;

// Leaves and nodes of at most so many entries, in the smallest caches.
inline BTreeParams smallTree(uint32_t leaf_max, uint32_t node_max) {
  BTreeParams params;
  params.leaf_size_max = leaf_max;
  params.node_size_max = node_max;
  params.leaf_cache_size = 8;
  params.node_cache_size = 8;
  return params;
}

// [first, end) by `step`.
inline std::vector<Number> numbers(uint64_t first, uint64_t end, uint64_t step = 1) {
  std::vector<Number> made;
  for (uint64_t value = first; value < end; value += step) made.push_back({value});
  return made;
}

// All records by the ordered scan.
template <typename Record, typename Less>
std::vector<Record> scan(BTree<Record, Less>* tree) {
  std::vector<Record> all;
  std::vector<Record> leaf_records = {Record()};  // to be replaced
  for (uint64_t leaf = tree->nextLeaf(0); leaf != 0; leaf = tree->nextLeaf(leaf)) {
    EXPECT_TRUE(tree->readLeaf(leaf, &leaf_records));
    all.insert(all.end(), leaf_records.begin(), leaf_records.end());
  }
  return all;
}

template <typename Record, typename Less>
testing::AssertionResult isSound(BTree<Record, Less>* tree) {
  std::string problem;
  return tree->verify(&problem) ? testing::AssertionSuccess()
                                : testing::AssertionFailure() << problem;
}

// Replaces a file's content without emptying it first, which many file systems
// answer with a slow flush: for tests that do it thousands of times.
inline void overwrite(const std::string& file, const std::string& content) {
  std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
  stream.write(content.data(), static_cast<std::streamsize>(content.size()));
  stream.close();
  ASSERT_TRUE(stream.good()) << file;
  std::filesystem::resize_file(file, content.size());
}

// The header of a block file as it is on disk.
inline BlockFileHeader headerOnDisk(const TempDir& dir, const std::string& file) {
  const std::string content = dir.read(file);
  BlockFileHeaderBytes bytes = {};
  BlockFileHeader header;
  EXPECT_GE(content.size(), bytes.size()) << file;
  std::copy_n(content.begin(), std::min(bytes.size(), content.size()), bytes.begin());
  EXPECT_TRUE(decodeBlockFileHeader(bytes, &header)) << file;
  return header;
}
