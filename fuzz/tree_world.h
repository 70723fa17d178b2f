// A store of three small trees of numbers, made from a fuzz input, and their
// twins: what the targets for the tree files and for the undo journal share.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "block_format.h"
#include "bte_stream_base.h"
#include "btree.h"
#include "crc32c.h"
#include "harness.h"
#include "input.h"
#include "little_endian.h"

namespace fuzz {

struct Number {
  uint64_t value;
};

struct NumberLess {
  bool operator()(const Number& left, const Number& right) const {
    return left.value < right.value;
  }
};

using NumberTree = BTree<Number, NumberLess>;

inline constexpr size_t kTrees = 3;
inline const std::vector<std::string> kTreeSuffixes = {".a", ".b", ".c"};

// Small nodes make tall trees of few records.
inline BTreeParams smallTrees() {
  BTreeParams params;
  params.leaf_size_max = 4;
  params.node_size_max = 3;
  params.leaf_cache_size = 8;
  params.node_cache_size = 8;
  return params;
}

struct Trees {
  explicit Trees(AccessType access) : store("s", kTreeSuffixes, access, smallTrees()) {
    for (size_t i = 0; i < kTrees; ++i) trees[i].emplace(&store, i);
  }

  TreeStore store;
  std::optional<NumberTree> trees[kTrees];
};

using Twins = std::set<uint64_t>[kTrees];

inline std::string fileName(size_t number) {
  constexpr const char* kSuffixes[] = {".l.blk", ".l.stk", ".n.blk", ".n.stk"};
  return "s" + kTreeSuffixes[number / 4 % kTrees] + kSuffixes[number % 4];
}

// Runs of insertions and erasures, as far as `steps` and the input go. The trees
// must agree with the twins while the store is valid.
inline void change(Input* input, uint32_t steps, Trees* world, Twins* twins) {
  for (uint32_t step = 0; step < steps && !input->empty(); ++step) {
    const uint8_t choice = input->byte();
    const size_t t = choice % kTrees;
    const uint64_t first = input->byte();
    const uint64_t count = 1 + input->below(64);
    NumberTree& tree = *world->trees[t];
    for (uint64_t i = 0; i < count; ++i) {
      const uint64_t value = first + i * (1 + (choice >> 2 & 3));
      const bool inserts = (choice >> 4) < 10;
      const bool done = inserts ? tree.insert({value}) : tree.erase({value});
      if (twins == nullptr || !world->store.valid()) continue;
      FUZZ_EQUAL(inserts ? (*twins)[t].insert(value).second : (*twins)[t].erase(value) > 0, done);
    }
  }
}

// All records of a tree, by its ordered scan; false when it becomes invalid.
inline bool contents(NumberTree* tree, std::vector<uint64_t>* all) {
  std::vector<Number> records;
  for (uint64_t leaf = tree->nextLeaf(0); leaf != 0; leaf = tree->nextLeaf(leaf)) {
    if (!tree->readLeaf(leaf, &records)) return false;
    for (const Number& record : records) all->push_back(record.value);
  }
  return tree->is_valid();
}

inline void checkTwins(Trees* world, const Twins& twins) {
  for (size_t t = 0; t < kTrees; ++t) {
    std::vector<uint64_t> all;
    FUZZ_CHECK(contents(&*world->trees[t], &all));
    FUZZ_CHECK(std::equal(all.begin(), all.end(), twins[t].begin(), twins[t].end()));
    FUZZ_EQUAL(all.size(), world->trees[t]->size());
  }
}

// Everything that can be asked of a store of any contents, and then changed.
inline void useAll(Input* input, Trees* world) {
  for (auto& tree : world->trees) {
    std::vector<Number> run;
    tree->query(
        {input->byte()}, [](const Number& a, const Number& b) { return a.value / 8 == b.value / 8; },
        [](const Number& a, const Number& b) { return a.value > b.value + 8; }, &run);
    std::vector<uint64_t> all;
    contents(&*tree, &all);
  }
  change(input, 4, world, nullptr);
  if (input->flag()) world->store.rollback();
  change(input, 2, world, nullptr);
  world->store.commit();
  for (auto& tree : world->trees) tree->verify();
}

// Overwrites bytes of a file, or cuts or lengthens it. Offsets reach all of it.
inline void bendFile(Input* input, MemorySystem* system, const std::string& name) {
  std::string file = system->read(name);
  const uint8_t choice = input->byte();
  const uint32_t at = input->number<uint32_t>() % static_cast<uint32_t>(file.size() + 1);
  switch (choice & 3) {
    case 0:
      file.resize(at);
      break;
    case 1:
      file.append(input->below(64), static_cast<char>(choice));
      break;
    default: {
      const std::string bytes = input->bytes(1 + input->below(16));
      if (at < file.size()) file.replace(at, std::min(bytes.size(), file.size() - at), bytes);
    }
  }
  system->write(name, file);
}

}  // namespace fuzz
