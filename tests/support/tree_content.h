// All records of a tree in order, by its ordered scan.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "btree.h"

template <typename Record, typename Less>
std::vector<Record> recordsOf(BTree<Record, Less>* tree) {
  std::vector<Record> all;
  for (uint64_t leaf = tree->nextLeaf(0); leaf != 0; leaf = tree->nextLeaf(leaf)) {
    std::vector<Record> records;
    EXPECT_TRUE(tree->readLeaf(leaf, &records));
    all.insert(all.end(), records.begin(), records.end());
  }
  EXPECT_TRUE(tree->is_valid());
  EXPECT_EQ(tree->size(), all.size());
  return all;
}
