// What the tests of this stage share: a collector's fixture and the trees that
// it leaves on disk.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "index_model.h"
#include "log_capture.h"
#include "temp_dir.h"
#include "tree_content.h"
#include "tree_records.h"

// The records of the three trees of a closed index, checked to be sound.
struct StoredIndex {
  std::set<IndexModel::FidSig> fid_sig;
  std::set<IndexModel::SrcFid> src_fid;
  std::set<IndexModel::SigFid> sig_fid;
};

template <typename Tree>
auto storedRecords(TreeStore* store, size_t number) {
  Tree tree(store, number);
  std::string problem;
  EXPECT_TRUE(tree.verify(&problem)) << "tree " << number << ": " << problem;
  return recordsOf(&tree);
}

inline StoredIndex storedIndex(const std::string& base_name) {
  StoredIndex index;
  TreeStore store(base_name, {".fidt", ".sidt", ".sigt"}, AccessType::kReadOnly, {});
  EXPECT_TRUE(store.valid()) << base_name;
  for (const auto& r : storedRecords<FidSigTree>(&store, 0)) {
    index.fid_sig.insert({r.fid, r.source, IndexModel::bytesOf(r.signature)});
  }
  for (const auto& r : storedRecords<SrcFidTree>(&store, 1)) {
    index.src_fid.insert({r.source, r.fid});
  }
  for (const auto& r : storedRecords<SigFidTree>(&store, 2)) {
    index.sig_fid.insert({IndexModel::bytesOf(r.signature), r.fid, r.source});
  }
  return index;
}

// `expected` in order: level, severity word, function and message of each line.
struct Expected {
  int level;
  std::string word;
  std::string function;
  std::string message;
};

inline void expectLines(const LogCapture& log, const std::vector<Expected>& expected) {
  const std::vector<LogLine> lines = log.lines();
  EXPECT_EQ(expected.size(), lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    if (i >= expected.size()) {
      ADD_FAILURE() << "also logged: " << lines[i].text;
      continue;
    }
    EXPECT_EQ(expected[i].message, lines[i].message);
    EXPECT_EQ(expected[i].function, lines[i].function) << lines[i].message;
    EXPECT_EQ(expected[i].level, lines[i].level) << lines[i].message;
    EXPECT_EQ(expected[i].word, lines[i].word) << lines[i].message;
    EXPECT_EQ("fpe_sig_index", lines[i].tag) << lines[i].message;
  }
}
