// Every kind of damage is found, and named as what it is.
#include "index_verify.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "made_index.h"
#include "undo_journal.h"

namespace {

using dlp_btree::Remedy;
using dlp_btree::Severity;
using dlp_btree::Verification;
using Lines = std::vector<std::string>;

class VerifyIndex : public MadeIndex {
 protected:
  // Changes the trees beneath the index, all in one commit.
  template <typename Change>
  void withTrees(Change change) {
    TreeStore store(kBase, treeSuffixes(), AccessType::kReadWrite, {});
    FidSigTree fid_sig(&store, 0);
    SrcFidTree src_fid(&store, 1);
    SigFidTree sig_fid(&store, 2);
    change(&fid_sig, &src_fid, &sig_fid);
    ASSERT_TRUE(store.commit());
  }
};

TEST_F(VerifyIndex, AHealthyIndexHasNoFindingAndTellsItsFigures) {
  makeWithFreeBlocks();
  const Verification v = verify();
  EXPECT_EQ(Lines{}, linesOf(v));
  EXPECT_FALSE(v.isDamaged());
  expectAsModelled(v);
  EXPECT_EQ(2u + 1, v.transaction) << "opened, saved, erased";
  EXPECT_EQ(16 * model_.fidSig().size(), v.strong_table_bytes);
  EXPECT_EQ(12u + 4 + 1, v.files.size());
  uint64_t blocks = 0;
  for (const auto& [name, bytes] : v.files) {
    EXPECT_EQ(dir_.read("db/" + name).size(), bytes) << name;
    if (name.ends_with(".blk")) blocks += bytes / 1024 - 1;
  }
  EXPECT_EQ(blocks, v.used_blocks + v.free_blocks);
  EXPECT_LT(0u, v.free_blocks);
}

TEST_F(VerifyIndex, RandomIndexesHaveNoFinding) {
  documents::Random random(documents::seed(20240611));
  uint32_t next = 0;
  for (int round = 0; round < 12; ++round) {
    const uint32_t erase = uint32_t(random.below(next + 1));
    const uint32_t erased = uint32_t(random.below(30));
    const uint32_t added = uint32_t(random.below(40));
    change(next, next + added, erase, erase + erased);
    next += added;
    const Verification v = verify();
    EXPECT_EQ(Lines{}, linesOf(v)) << round;
    expectAsModelled(v);
  }
}

TEST_F(VerifyIndex, NothingIsWrittenAndNothingLogged) {
  makeWithFreeBlocks();
  flip("db/fid_index.sigt.l.blk", 1030);
  remove("db/search_table.smeta");
  const auto before = allFiles();
  const LogCapture log;
  EXPECT_TRUE(verify().isDamaged());
  EXPECT_TRUE(before == allFiles());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(VerifyIndex, AnIndexThatWasNeverClosedHasNoTablesYet) {
  change(0, 10, 0, 0, /*with_tables=*/false);
  EXPECT_EQ(Lines{"note: search_table: no tables: they are written when an index is closed"},
            findings());
}

TEST_F(VerifyIndex, AnEmptyIndexHasFourEmptyTables) {
  change(0, 0, 0, 0);
  EXPECT_EQ(Lines{}, findings());
  remove("db/meta_data.bin");  // as before the first document
  EXPECT_EQ(Lines{}, findings());
}

TEST_F(VerifyIndex, ADirectoryWithoutAnIndexIsToldInOneLine) {
  const Lines expected = {
      "damage: fid_index: no index: none of its trees is there",
      "note: search_table: no tables: they are written when an index is closed"};
  EXPECT_EQ(expected, findings());
  EXPECT_FALSE(dir_.exists("db"));
  dir_.makeDirectory("db");
  for (const std::string& name : treeFiles()) dir_.write("db/" + name, "");
  EXPECT_EQ(expected, findings()) << "an opening that did not come to write a header";
}

TEST_F(VerifyIndex, ABatchThatWasBrokenOffNeedsAnOpeningForWriting) {
  make();
  {
    BatchBegin begin;
    begin.block_size = 1024;
    size_t file = 0;
    for (const std::string& name : treeFiles()) {
      begin.lengths[file++] = dir_.read("db/" + name).size();
    }
    UndoJournal journal("db/fid_index.jnl");
    ASSERT_EQ(UndoJournal::State::kIdle, journal.open(false, &begin));
    ASSERT_TRUE(journal.start(begin));
  }
  const Lines expected = {
      "damage, open: fid_index.jnl: interrupted: a batch was broken off; the next opening for "
      "writing undoes it",
      "note: search_table: tables not compared with the trees"};
  EXPECT_EQ(expected, findings());
  EXPECT_EQ(expected, findings()) << "the journal is left alone";
  change(0, 0, 0, 0);
  EXPECT_EQ(Lines{}, findings());
}

TEST_F(VerifyIndex, AJournalOfAnotherVersionIsNoBatchToRecover) {
  make();
  {
    UndoJournal journal("db/fid_index.jnl");
    BatchBegin begin;
    ASSERT_EQ(UndoJournal::State::kIdle, journal.open(false, &begin));
    ASSERT_TRUE(journal.start(begin));
  }
  system_.fail(Call::kRead, 1, true, ".jnl");
  EXPECT_EQ("damage: fid_index.jnl: cannot be read", findings().at(0));
}

// A block file of an index that never erased holds nothing but used blocks.
TEST_F(VerifyIndex, EveryFlippedBitOfHeadersAndBlocksIsFoundInItsTree) {
  make();
  for (const std::string& name : treeFiles()) {
    if (!name.ends_with(".blk")) continue;
    const std::string content = dir_.read("db/" + name);
    const std::string tree = name.substr(0, std::string("fid_index.fidt").size());
    // All of the header's CRC would take long: every 61st byte, then the heads
    // and the first entries of every block.
    for (size_t offset = 0; offset < content.size();) {
      flip("db/" + name, offset, int(offset % 8));
      const Verification v = verify();
      EXPECT_TRUE(v.isDamaged()) << name << " at " << offset;
      for (const dlp_btree::Finding& finding : v.findings) {
        if (finding.severity != Severity::kDamage) continue;
        EXPECT_EQ(tree, finding.subject.substr(0, tree.size())) << name << " at " << offset;
        EXPECT_EQ(Remedy::kRebuildTrees, finding.remedy) << name << " at " << offset;
      }
      dir_.write("db/" + name, content);
      const size_t in_block = offset % 1024;
      if (offset < 576 - 61) {
        offset += 61;
      } else {
        offset += offset < 1024 || in_block > 50 ? 1024 - in_block : 13;
      }
    }
  }
  EXPECT_EQ(Lines{}, findings());
}

TEST_F(VerifyIndex, ADamagedHeaderHidesNoOtherTree) {
  make();
  flip("db/fid_index.fidt.n.blk", 70);
  flip("db/fid_index.sigt.l.blk", 1024 + 40);
  EXPECT_EQ((Lines{"damage, rebuild trees: fid_index.fidt.n.blk: has a damaged header",
                   "damage, rebuild trees: fid_index.sigt: is damaged: no leaf 1",
                   "note: fid_index.fidt: was not compared with fid_index.sigt",
                   "note: fid_index.fidt: was not compared with fid_index.sidt",
                   "note: search_table: tables not compared with the trees"}),
            findings());
}

TEST_F(VerifyIndex, ADamagedStackIsMendedByAnOpeningForWriting) {
  makeWithFreeBlocks();
  ASSERT_NE("", dir_.read("db/fid_index.sigt.l.stk"));
  flip("db/fid_index.sigt.l.stk", 17);
  const Lines lines = findings();
  ASSERT_LE(1u, lines.size());
  EXPECT_EQ("damage, open: fid_index.sigt: has a damaged stack of free blocks: lost blocks",
            lines[0].substr(0, lines[0].find(';')));
  change(60, 61, 0, 0);
  EXPECT_EQ(Lines{}, findings());
}

TEST_F(VerifyIndex, AMissingFileIsNamed) {
  make();
  for (const std::string& name : treeFiles()) {
    const std::string content = dir_.read("db/" + name);
    const std::string what = name.ends_with(".blk") ? "damage, rebuild trees: " : "damage, open: ";
    remove("db/" + name);
    EXPECT_EQ(what + name + ": is missing", findings().at(0));
    dir_.makeDirectory("db/" + name);
    EXPECT_EQ(what + name + ": cannot be opened", findings().at(0));
    remove("db/" + name);
    dir_.write("db/" + name, "");
    if (name.ends_with(".blk")) {
      EXPECT_EQ("damage, rebuild trees: " + name + ": is empty", findings().at(0));
    }
    dir_.write("db/" + name, content);
  }
  EXPECT_EQ(Lines{}, findings());
}

TEST_F(VerifyIndex, ABlockFileOfAnotherLengthIsNamed) {
  make();
  for (const std::string& name : treeFiles()) {
    if (!name.ends_with(".blk")) continue;
    const std::string content = dir_.read("db/" + name);
    const std::string bytes = std::to_string(content.size());
    dir_.write("db/" + name, content.substr(0, content.size() - 1));
    EXPECT_EQ("damage, rebuild trees: " + name + ": has " + std::to_string(content.size() - 1) +
                  " bytes instead of " + bytes,
              findings().at(0));
    dir_.write("db/" + name, content + "x");
    EXPECT_EQ("damage, rebuild trees: " + name + ": has " + std::to_string(content.size() + 1) +
                  " bytes instead of " + bytes,
              findings().at(0));
    dir_.write("db/" + name, content);
  }
  system_.setGranularity(2048);
  EXPECT_EQ("damage, rebuild trees: fid_index.fidt.l.blk: has blocks of 1024 bytes",
            findings().at(0));
}

TEST_F(VerifyIndex, APostingThatOneTreeLacksIsFound) {
  make();
  const std::string n = std::to_string(model_.fidSig().size());
  const std::string less = std::to_string(model_.fidSig().size() - 1);
  FidSigRecord lost = {};
  withTrees([&](FidSigTree* fid_sig, SrcFidTree*, SigFidTree*) {
    lost = recordsOf(fid_sig)[100];
    ASSERT_TRUE(fid_sig->erase(lost));
  });
  EXPECT_EQ(
      Lines{"damage, rebuild trees: fid_index.fidt: has other postings than fid_index.sigt: " +
            less + " against " + n},
      findings());
  withTrees([&](FidSigTree* fid_sig, SrcFidTree*, SigFidTree* sig_fid) {
    ASSERT_TRUE(fid_sig->insert(lost));
    ASSERT_TRUE(sig_fid->erase({lost.signature, lost.fid, lost.source}));
  });
  const Lines lines = findings();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("damage, rebuild trees: fid_index.fidt: has other postings than fid_index.sigt: " + n +
                " against " + less,
            lines[0]);
  EXPECT_EQ("damage, rebuild tables: search_table.stbl: element ", lines[1].substr(0, 51));
}

TEST_F(VerifyIndex, AsManyPostingsThatAreOthersAreFound) {
  make();
  const std::string n = std::to_string(model_.fidSig().size());
  withTrees([&](FidSigTree* fid_sig, SrcFidTree*, SigFidTree*) {
    FidSigRecord record = recordsOf(fid_sig)[100];
    ASSERT_TRUE(fid_sig->erase(record));
    record.signature.bytes[7] ^= 1;
    ASSERT_TRUE(fid_sig->insert(record));
  });
  EXPECT_EQ(
      Lines{"damage, rebuild trees: fid_index.fidt: has other postings than fid_index.sigt: " + n +
            " against " + n},
      findings());
}

TEST_F(VerifyIndex, ASourceThatIsMissingOrInventedIsFound) {
  make();
  const auto expectFinding = [&](size_t has, size_t knows) {
    EXPECT_EQ(
        Lines{"damage, rebuild trees: fid_index.fidt: has other documents than fid_index.sidt: " +
              std::to_string(has) + " against " + std::to_string(knows)},
        findings());
  };
  SrcFidRecord lost = {};
  withTrees([&](FidSigTree*, SrcFidTree* src_fid, SigFidTree*) {
    lost = recordsOf(src_fid)[30];
    ASSERT_TRUE(src_fid->erase(lost));
  });
  expectFinding(60, 59);
  withTrees([&](FidSigTree*, SrcFidTree* src_fid, SigFidTree*) {
    ASSERT_TRUE(src_fid->insert({lost.source + 100, lost.fid}));
  });
  expectFinding(60, 60);
  withTrees(
      [&](FidSigTree*, SrcFidTree* src_fid, SigFidTree*) { ASSERT_TRUE(src_fid->insert(lost)); });
  expectFinding(60, 61);
}

TEST_F(VerifyIndex, ATreeOfAnotherCommitIsFound) {
  make();
  {
    TreeStore store(kBase, {kSigFidSuffix}, AccessType::kReadWrite, {});
    SigFidTree tree(&store, 0);
    ASSERT_TRUE(tree.insert({{}, 77, 77}));
    ASSERT_TRUE(tree.erase({{}, 77, 77}));
  }
  EXPECT_EQ(
      Lines{"damage, rebuild trees: fid_index.fidt: is of commit 2, fid_index.sigt of commit 3"},
      findings());
}

TEST_F(VerifyIndex, LeavesAndNodesOfDifferentCommitsAreFound) {
  make();
  const std::string nodes = dir_.read("db/fid_index.sidt.n.blk");
  change(60, 61, 0, 0);
  dir_.write("db/fid_index.sidt.n.blk", nodes);
  EXPECT_EQ((Lines{"damage, rebuild trees: fid_index.sidt: has headers that contradict each other "
                   "(commits 3 and 2)",
                   "note: fid_index.fidt: was not compared with fid_index.sidt"}),
            findings());
}

TEST_F(VerifyIndex, FilesOfARebuildThatWasBrokenOffAreNoDamage) {
  make();
  dir_.write("db/fid_index.new2.n.stk", "");
  EXPECT_EQ(Lines{"note: fid_index.new2.n.stk: left by a rebuild that was broken off; the next one "
                  "removes it"},
            findings());
}

TEST_F(VerifyIndex, StaleTablesAreNoDamageOfTheTrees) {
  make();
  change(60, 62, 0, 0, /*with_tables=*/false);
  Lines lines = findings();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("damage, rebuild tables: search_table.stbl: element ", lines[0].substr(0, 51));
  EXPECT_TRUE(lines[0].ends_with("is not that of the trees; the tables are stale or damaged"));
  expectAsModelled(verify());
}

TEST_F(VerifyIndex, TablesThatEndBeforeTheTreesAreStale) {
  make();
  withTrees([&](FidSigTree* fid_sig, SrcFidTree*, SigFidTree* sig_fid) {
    SigFidRecord last = recordsOf(sig_fid).back();
    last.source = 1000;
    ASSERT_TRUE(sig_fid->insert(last));
    ASSERT_TRUE(fid_sig->insert({last.fid, last.source, last.signature}));
  });
  EXPECT_EQ("damage, rebuild tables: search_table.stbl: its end after element " +
                std::to_string(model_.fidSig().size()) +
                " is not that of the trees; the tables are stale or damaged",
            findings().at(1));
}

TEST_F(VerifyIndex, TablesOfAnEmptyIndexAreStaleOnceItIsNot) {
  change(0, 0, 0, 0);
  change(0, 3, 0, 0, /*with_tables=*/false);
  EXPECT_EQ(Lines{"damage, rebuild tables: search_table: tables of an empty index, which this is "
                  "not; they are stale or damaged"},
            findings());
}

TEST_F(VerifyIndex, TablesOfAnIndexThatIsEmptyNowAreStale) {
  make();
  change(0, 0, 0, 60, /*with_tables=*/false);
  EXPECT_EQ(Lines{"damage, rebuild tables: search_table.stbl: element 0 is not that of the trees; "
                  "the tables are stale or damaged"},
            findings());
}

TEST_F(VerifyIndex, EveryFlippedBitOfATableIsFound) {
  make();
  for (const std::string table : {"search_table.wtbl", "search_table.stbl"}) {
    const std::string content = dir_.read("db/" + table);
    for (size_t offset = 0; offset < content.size(); offset += 29) {
      flip("db/" + table, offset, int(offset % 8));
      const Verification v = verify();
      EXPECT_TRUE(v.isDamaged()) << table << " at " << offset;
      for (const dlp_btree::Finding& finding : v.findings) {
        EXPECT_EQ(Remedy::kRebuildTables, finding.remedy) << finding.text;
      }
      dir_.write("db/" + table, content);
    }
  }
}

TEST_F(VerifyIndex, EveryFlippedBitOfAMetaFileIsFoundInIt) {
  make();
  for (const std::string meta : {"search_table.wmeta", "search_table.smeta"}) {
    const std::string content = dir_.read("db/" + meta);
    for (const size_t offset : {0, 8, 11, 12, 1000, 262147, 524299}) {
      flip("db/" + meta, offset, 3);
      EXPECT_EQ(1u, findings().size());
      EXPECT_EQ(offset < 12 ? "damage, rebuild tables: search_table.smeta: has another meta data "
                              "record than the weak meta file: nothing is found"
                            : "damage, rebuild tables: " + meta +
                                  ": has another prefix directory than its table",
                findings().at(0));
      dir_.write("db/" + meta, content);
    }
  }
}

TEST_F(VerifyIndex, ExchangedMetaFilesAreFound) {
  make();
  const std::string weak = dir_.read("db/search_table.wmeta");
  dir_.write("db/search_table.wmeta", dir_.read("db/search_table.smeta"));
  dir_.write("db/search_table.smeta", weak);
  EXPECT_EQ((Lines{"damage, rebuild tables: search_table.wmeta: has another prefix directory than "
                   "its table",
                   "damage, rebuild tables: search_table.smeta: has another prefix directory than "
                   "its table"}),
            findings());
}

TEST_F(VerifyIndex, ATableThatIsMissingCutOrTooLongIsNamed) {
  make();
  for (const std::string name :
       {"search_table.wtbl", "search_table.stbl", "search_table.wmeta", "search_table.smeta"}) {
    const std::string content = dir_.read("db/" + name);
    remove("db/" + name);
    EXPECT_EQ(Lines{"damage, rebuild tables: " + name + ": is missing"}, findings());
    dir_.write("db/" + name, content.substr(0, content.size() - 3));
    EXPECT_EQ(Lines{"damage, rebuild tables: " + name + ": is cut: a size of " +
                    std::to_string(content.size() - 3)},
              findings());
    dir_.write("db/" + name, content.substr(0, content.size() - 16));
    EXPECT_LE(1u, findings().size());
    EXPECT_TRUE(verify().isDamaged()) << name << " whole elements less";
    dir_.write("db/" + name, content + std::string(16, '\xff'));
    EXPECT_TRUE(verify().isDamaged()) << name << " whole elements more";
    dir_.write("db/" + name, "");
    EXPECT_TRUE(verify().isDamaged()) << name << " is empty";
    dir_.write("db/" + name, content);
  }
  dir_.write("db/search_table.wtbl", dir_.read("db/search_table.wtbl") + std::string(8, '\xff'));
  EXPECT_EQ(Lines{"damage, rebuild tables: search_table.wtbl: has more elements than the strong "
                  "table has signatures"},
            findings());
}

TEST_F(VerifyIndex, TablesAreCheckedOnTheirOwnWhenTheTreesAreLost) {
  make();
  for (const std::string& name : treeFiles()) remove("db/" + name);
  const Lines lost = {"damage: fid_index: no index: none of its trees is there",
                      "note: search_table: tables not compared with the trees"};
  EXPECT_EQ(lost, findings());
  flip("db/search_table.smeta", 99);
  EXPECT_EQ(3u, findings().size());
  flip("db/search_table.smeta", 99);

  // Two documents of one signature in the wrong order show in nothing else.
  std::string table = dir_.read("db/search_table.stbl");
  size_t pair = 0;
  while (table.compare(pair, 8, table, pair + 16, 8) != 0) pair += 16;
  table = table.substr(0, pair) + table.substr(pair + 16, 16) + table.substr(pair, 16) +
          table.substr(pair + 32);
  dir_.write("db/search_table.stbl", table);
  EXPECT_EQ("damage, rebuild tables: search_table.stbl: element " + std::to_string(pair / 16 + 1) +
                " is out of order",
            findings().at(2));
}

TEST_F(VerifyIndex, ATableThatCannotBeReadIsToldAsThat) {
  make();
  system_.fail(Call::kRead, 1, true, ".stbl");
  EXPECT_EQ(Lines{"damage, rebuild tables: search_table.stbl: cannot be read past element 0"},
            findings());
  system_.fail(Call::kRead, 1, true, ".smeta");
  EXPECT_EQ(Lines{"damage, rebuild tables: search_table.smeta: cannot be read"}, findings());
}

TEST_F(VerifyIndex, MetaDataThatIsMissingCutLongOrAnotherIsNamed) {
  make();
  const std::string content = dir_.read("db/meta_data.bin");
  remove("db/meta_data.bin");
  EXPECT_EQ(Lines{"damage, rebuild meta data: meta_data.bin: is missing"}, findings());
  const std::string nodes = dir_.read("db/fid_index.fidt.n.blk");
  flip("db/fid_index.fidt.n.blk", 70);
  EXPECT_TRUE(
      std::ranges::count(findings(), "damage, rebuild meta data: meta_data.bin: is missing"));
  dir_.write("db/fid_index.fidt.n.blk", nodes);
  dir_.write("db/meta_data.bin", content.substr(0, 11));
  EXPECT_EQ(Lines{"damage, rebuild meta data: meta_data.bin: is cut"}, findings());
  dir_.write("db/meta_data.bin", content + "x");
  EXPECT_EQ(Lines{"warning: meta_data.bin: is longer than its record"}, findings());
  for (const size_t offset : {0, 7, 8, 11}) {
    dir_.write("db/meta_data.bin", content);
    flip("db/meta_data.bin", offset);
    EXPECT_EQ(Lines{"damage, rebuild tables: meta_data.bin: is not the record of the meta files"},
              findings());
  }
}

TEST_F(VerifyIndex, AStrongTableNearTheReachOfAMatchIsAWarningAndBeyondItDamage) {
  make();
  const auto findingAt = [&](uint64_t bytes) {
    platform::native().open("db/search_table.stbl", platform::OpenMode::kUpdate)->truncate(bytes);
    return findings().at(0);  // the next one tells that what follows are zeros
  };
  const std::string name = "search_table.stbl: ";
  constexpr uint64_t kGiB = uint64_t{1} << 30;
  EXPECT_EQ("damage, rebuild tables: ", findingAt(kGiB / 2 * 3 - 16).substr(0, 24));
  EXPECT_EQ("warning: " + name + "fills 75 % of the 2 GiB that can be matched",
            findingAt(kGiB / 2 * 3));
  EXPECT_EQ("warning: " + name + "fills 100 % of the 2 GiB that can be matched",
            findingAt(2 * kGiB));
  EXPECT_EQ("damage: " + name + "past 2 GiB: matches of what lies beyond fail",
            findingAt(2 * kGiB + 16));
  EXPECT_EQ("damage: " + name + "of 4 GiB and more is not loaded", findingAt(4 * kGiB - 1));
}

// Whatever cannot be read must not pass as sound.
TEST_F(VerifyIndex, AnIoErrorNeverMakesAnIndexLookSmallerAndSound) {
  change(0, 220, 10, 20);  // more leaves than are held in memory
  for (const Call call : {Call::kOpen, Call::kRead, Call::kSeek, Call::kSize}) {
    for (int n = 1;; ++n) {
      system_.fail(call, n);
      const Verification v = verify();
      if (!system_.failed()) break;
      if (v.isDamaged()) continue;
      EXPECT_EQ(Lines{}, linesOf(v));
      expectAsModelled(v);
      EXPECT_EQ(17u, v.files.size());
    }
  }
}

}  // namespace
