// An index in the directory "db", made by the collector with small blocks, and
// what it must hold: for the tests that damage indexes.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "index_test_support.h"
#include "index_verify.h"
#include "status.h"
#include "table_twin.h"
#include "vn_fid_sig_index_collector_btree.h"

class MadeIndex : public testing::Test {
 protected:
  static constexpr MetaData kMeta = {-1, 3};
  static constexpr char kBase[] = "db/fid_index";

  MadeIndex() { system_.setGranularity(1024); }

  static std::vector<Signature> signaturesOf(uint32_t fid) {
    std::vector<Signature> made = documents::signatures(20, fid, /*spread=*/50);
    made.resize(1 + fid % 20);
    const std::vector<Signature> shared = documents::signatures(5, 1000, /*spread=*/50);
    made.insert(made.end(), shared.begin(), shared.end());
    std::sort(made.begin(), made.end());
    return made;
  }

  // Opens the index, adds and erases documents, and writes the tables, or does
  // not, as when the host is killed.
  void change(uint32_t add_from, uint32_t add_to, uint32_t erase_from, uint32_t erase_to,
              bool with_tables = true) {
    dlp_btree::FidSigIndexCollector collector;
    ASSERT_EQ(kOk, collector.Init(configuration_, "db"));
    for (uint32_t fid = add_from; fid < add_to; ++fid) {
      const std::vector<Signature> signatures = signaturesOf(fid);
      ASSERT_EQ(kOk, collector.AddFidSignature(fid - 5, fid % 7, uint32_t(signatures.size()),
                                               signatures.data()));
      model_.add(fid - 5, fid % 7, signatures);
    }
    ASSERT_EQ(kOk, collector.SaveFidSignature());
    model_.save();
    for (uint32_t fid = erase_from; fid < erase_to; ++fid) {
      ASSERT_EQ(kOk, collector.DeleteFidSignature(fid - 5));
      model_.erase(fid - 5);
    }
    collector.CommitDeletions();
    if (!dir_.exists("db/meta_data.bin")) {
      dlp_btree::save_meta_data("db", kMetaDataFileName, kMeta);
    }
    if (with_tables) {
      ASSERT_EQ(kOk, collector.CreateSearchTable("db", kMeta));
    }
  }

  void make() { change(0, 60, 0, 0); }
  void makeWithFreeBlocks() { change(0, 60, 10, 40); }

  // A bit of a file turned over.
  void flip(const std::string& name, size_t offset, int bit = 0) {
    std::string content = dir_.read(name);
    ASSERT_LT(offset, content.size()) << name;
    content[offset] = static_cast<char>(content[offset] ^ (1 << bit));
    dir_.write(name, content);
  }

  void remove(const std::string& name) { std::filesystem::remove(dir_.path(name)); }

  std::map<std::string, std::string> allFiles() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path("db"))) {
      const std::string name = entry.path().filename().string();
      files[name] = dir_.read("db/" + name);
    }
    return files;
  }

  dlp_btree::Verification verify() { return dlp_btree::verifyIndex("db", configuration_); }

  // One line each: "damage, rebuild tables: search_table.stbl: is cut ...".
  static std::vector<std::string> linesOf(const dlp_btree::Verification& verification) {
    const char* const severities[] = {"note", "warning", "damage"};
    const char* const remedies[] = {"", ", open", ", rebuild tables", ", rebuild meta data",
                                    ", rebuild trees"};
    std::vector<std::string> lines;
    for (const dlp_btree::Finding& f : verification.findings) {
      lines.push_back(std::string(severities[int(f.severity)]) + remedies[int(f.remedy)] + ": " +
                      f.subject + ": " + f.text);
    }
    return lines;
  }

  std::vector<std::string> findings() { return linesOf(verify()); }

  void expectAsModelled(const dlp_btree::Verification& v) const {
    std::set<int32_t> documents;
    std::set<std::string> signatures;
    for (const auto& [fid, source, signature] : model_.fidSig()) {
      documents.insert(fid);
      signatures.insert(signature);
    }
    EXPECT_EQ(documents.size(), v.documents);
    EXPECT_EQ(model_.fidSig().size(), v.postings);
    EXPECT_EQ(signatures.size(), v.signatures);
  }

  void expectTheModelsRecords() const {
    const StoredIndex stored = storedIndex(kBase);
    EXPECT_EQ(model_.fidSig(), stored.fid_sig);
    EXPECT_EQ(model_.srcFid(), stored.src_fid);
    EXPECT_TRUE(model_.sigFid() == stored.sig_fid);
  }

  void expectTheModelsTables() const {
    const auto expected = table_twin::files(model_.sigFid(), kMeta.fid_base, kMeta.sig_gen_level);
    // Not EXPECT_EQ: a failure would print half a megabyte.
    EXPECT_TRUE(expected.weak == dir_.read("db/search_table.wtbl"));
    EXPECT_TRUE(expected.strong == dir_.read("db/search_table.stbl"));
    EXPECT_TRUE(expected.weak_meta == dir_.read("db/search_table.wmeta"));
    EXPECT_TRUE(expected.strong_meta == dir_.read("db/search_table.smeta"));
  }

  TempDir dir_;
  FailPoint system_;
  IndexSysConfiguration configuration_;
  IndexModel model_{2096};
};

inline std::vector<std::string> treeFiles() {
  std::vector<std::string> names;
  for (const std::string tree : {"fidt", "sidt", "sigt"}) {
    for (const std::string file : {"l.blk", "l.stk", "n.blk", "n.stk"}) {
      names.push_back("fid_index." + tree + "." + file);
    }
  }
  return names;
}
