// A tree with a store of its own.
#pragma once

#include <string>

#include "btree.h"

struct StoreOfOne {
  StoreOfOne(const std::string& base_name, AccessType access, const BTreeParams& params)
      : store(base_name, {""}, access, params) {}

  TreeStore store;
};

template <typename Record, typename Less>
class LoneTree : public StoreOfOne, public BTree<Record, Less> {
 public:
  LoneTree(const std::string& base_name, AccessType access, const BTreeParams& params)
      : StoreOfOne(base_name, access, params), BTree<Record, Less>(&store, 0) {}

  bool commit() { return store.commit(); }
  bool rollback() { return store.rollback(); }
};
