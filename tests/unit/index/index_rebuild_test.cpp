// After each loss the index comes back as it was, and no failure on the way
// takes what it is made from.
#include "index_rebuild.h"

#include <gtest/gtest.h>

#include "journalled_files.h"
#include "made_index.h"

namespace {

using dlp_btree::RebuildSource;
using Lines = std::vector<std::string>;

class RebuildIndex : public MadeIndex {
 protected:
  int rebuildTrees(RebuildSource source, size_t batch_records = dlp_btree::kRebuildBatch) {
    return dlp_btree::rebuildTrees("db", configuration_, source, batch_records);
  }
  int rebuildTables() { return dlp_btree::rebuildTables("db", configuration_); }
  int rebuildMetaData() { return dlp_btree::rebuildMetaData("db", configuration_); }

  void removeTree(const std::string& suffix) {
    for (const std::string& name : treeFiles()) {
      if (name.find(suffix) != std::string::npos) remove("db/" + name);
    }
  }

  void restore(const std::map<std::string, std::string>& files) {
    std::filesystem::remove_all(dir_.path("db"));
    dir_.makeDirectory("db");
    for (const auto& [name, content] : files) dir_.write("db/" + name, content);
  }

  void expectWhole() {
    EXPECT_EQ(Lines{}, findings());
    expectTheModelsRecords();
    expectTheModelsTables();
  }

  const LogCapture log_;
};

TEST_F(RebuildIndex, TheFidSigTreeGivesTheOtherTwo) {
  makeWithFreeBlocks();
  const auto before = allFiles();
  removeTree(".sidt");
  removeTree(".sigt");
  ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kFidSigTree));
  expectWhole();
  ASSERT_EQ(kOk, rebuildTables());
  expectWhole();
  EXPECT_EQ(before.size(), allFiles().size()) << "nothing is left over";
}

TEST_F(RebuildIndex, TheSigFidTreeGivesTheOtherTwo) {
  makeWithFreeBlocks();
  flip("db/fid_index.fidt.l.blk", 1050);
  removeTree(".sidt");
  ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kSigFidTree));
  expectWhole();
}

TEST_F(RebuildIndex, TheStrongTableGivesAllTrees) {
  makeWithFreeBlocks();
  for (const std::string& name : treeFiles()) remove("db/" + name);
  remove("db/meta_data.bin");
  ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kStrongTable));
  expectTheModelsRecords();
  ASSERT_EQ(kOk, rebuildMetaData());
  ASSERT_EQ(kOk, rebuildTables());
  expectWhole();
}

TEST_F(RebuildIndex, TheSrcFidTreeGivesNothing) {
  make();
  const auto before = allFiles();
  EXPECT_EQ(kErrParam, rebuildTrees(RebuildSource::kSrcFidTree));
  EXPECT_TRUE(before == allFiles());
}

TEST_F(RebuildIndex, RecordsMayNeedManyBatches) {
  makeWithFreeBlocks();
  for (const auto& [source, batch] : std::vector<std::pair<RebuildSource, size_t>>{
           {RebuildSource::kFidSigTree, 50},
           {RebuildSource::kSigFidTree, 77},
           {RebuildSource::kStrongTable, model_.fidSig().size()},
           {RebuildSource::kSigFidTree, 0}}) {
    ASSERT_EQ(kOk, rebuildTrees(source, batch)) << batch;
    expectWhole();
  }
}

TEST_F(RebuildIndex, AnEmptyTreeGivesEmptyTrees) {
  change(0, 0, 0, 0);
  removeTree(".sigt");
  ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kNewestTree));
  expectWhole();
}

TEST_F(RebuildIndex, EveryDamageOfATreeIsHealedFromTheNewestWholeOne) {
  makeWithFreeBlocks();
  const auto whole = allFiles();
  for (const std::string& name : treeFiles()) {
    SCOPED_TRACE(name);
    remove("db/" + name);
    ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kNewestTree));
    expectWhole();
    restore(whole);
    dir_.write("db/" + name, whole.at(name) + "more");
    ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kNewestTree));
    expectWhole();
    restore(whole);
    for (const size_t offset : {20, 1060}) {
      if (offset >= whole.at(name).size()) continue;
      flip("db/" + name, offset);
      ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kNewestTree));
      expectWhole();
      restore(whole);
    }
  }
}

// A tree whose files were lost is made anew, and empty, by the next opening.
TEST_F(RebuildIndex, OfTwoWholeTreesOfOneCommitTheOneWithMoreRecordsIsTaken) {
  make();
  for (const std::string tree : {".fidt", ".sigt"}) {
    removeTree(tree);
    { const TreeStore store(kBase, treeSuffixes(), AccessType::kReadWrite, {}); }
    ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kNewestTree));
    expectWhole();
  }
}

TEST_F(RebuildIndex, OfTwoWholeTreesTheOneOfTheLaterCommitIsTaken) {
  make();
  const auto before = allFiles();
  change(0, 0, 0, 50);
  for (const std::string& name : treeFiles()) {  // back to an old copy, with more records
    if (name.find(".fidt") != std::string::npos) dir_.write("db/" + name, before.at(name));
  }
  ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kNewestTree));
  expectWhole();
}

TEST_F(RebuildIndex, ALaterCommitIsNotTakenFromADamagedTree) {
  make();
  const auto before = allFiles();
  change(0, 0, 0, 50);
  for (const std::string& name : treeFiles()) {
    if (name.find(".fidt") != std::string::npos) dir_.write("db/" + name, before.at(name));
  }
  flip("db/fid_index.sigt.l.blk", 1060);
  ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kNewestTree));
  EXPECT_EQ(60u, verify().documents);
}

TEST_F(RebuildIndex, ASourceThatFailsMidwayIsNotTakenForASmallerOne) {
  change(0, 200, 0, 0);  // more leaves than are held in memory
  const auto before = allFiles();
  for (int n = 1;; ++n) {
    system_.fail(Call::kRead, n, false, ".fidt.l.blk");
    const int status = rebuildTrees(RebuildSource::kFidSigTree);
    if (!system_.failed()) break;
    EXPECT_NE(kOk, status) << n;
    EXPECT_TRUE(before == allFiles()) << n;
  }
  system_.failAny({}, 0);
  expectTheModelsRecords();
}

TEST_F(RebuildIndex, NothingIsOverwrittenBeforeTheJournalIsOnDisk) {
  makeWithFreeBlocks();
  const auto before = allFiles();
  system_.fail(Call::kSync, 1, true, "fid_index.jnl");
  EXPECT_EQ(kErrFile, rebuildTrees(RebuildSource::kSigFidTree));
  ASSERT_TRUE(system_.failed());
  for (const std::string& name : treeFiles()) {
    EXPECT_TRUE(before.at(name) == dir_.read("db/" + name)) << name;
  }
}

TEST_F(RebuildIndex, ADamagedSourceIsRefusedAndNothingChanges) {
  make();
  flip("db/fid_index.fidt.l.blk", 1060);
  flip("db/fid_index.sigt.n.blk", 30);
  const auto before = allFiles();
  EXPECT_EQ(kErrState, rebuildTrees(RebuildSource::kFidSigTree));
  EXPECT_TRUE(before == allFiles());
  EXPECT_EQ(kErrState, rebuildTrees(RebuildSource::kSigFidTree));
  EXPECT_TRUE(before == allFiles());
  EXPECT_EQ(kErrState, rebuildTrees(RebuildSource::kNewestTree));
  EXPECT_TRUE(before == allFiles());
  EXPECT_EQ(kOk, rebuildTrees(RebuildSource::kStrongTable));
  expectWhole();
}

// Each is what a writer of tables that was killed, or a bad disk, may leave.
TEST_F(RebuildIndex, AStrongTableThatIsNotWholeIsRefusedAndNothingChanges) {
  make();
  const auto whole = allFiles();
  const std::string table = whole.at("search_table.stbl");
  const auto statusWith = [&](const std::string& name, const std::string& content) {
    dir_.write("db/" + name, content);
    const auto before = allFiles();
    const int status = rebuildTrees(RebuildSource::kStrongTable, 100);
    EXPECT_TRUE(before == allFiles());
    restore(whole);
    return status;
  };
  EXPECT_EQ(VN_NO_INDEX_DATA_ERR, statusWith("search_table.stbl", ""));
  EXPECT_EQ(kErrStrongTable, statusWith("search_table.smeta", ""));
  EXPECT_EQ(kErrStrongTable, statusWith("search_table.stbl", table.substr(0, table.size() - 16)));
  EXPECT_EQ(kErrStrongTable, statusWith("search_table.stbl", table.substr(0, table.size() - 5)));
  EXPECT_EQ(kErrStrongTable, statusWith("search_table.stbl", table + std::string(5, 'x')));
  EXPECT_EQ(kErrStrongTable, statusWith("search_table.stbl", table + std::string(16, '\xff')));
  EXPECT_EQ(kErrStrongTable, statusWith("search_table.stbl", table.substr(0, 16) + table))
      << "one element twice";
  // The directory stays true when an element takes the place of its neighbour.
  size_t pair = 0;
  while (table.compare(pair, 2, table, pair + 16, 2) != 0) pair += 16;
  std::string twice = table;
  twice.replace(pair + 16, 16, table, pair, 16);
  EXPECT_EQ(kErrStrongTable, statusWith("search_table.stbl", twice));
  remove("db/search_table.smeta");
  EXPECT_EQ(kErrState, rebuildTrees(RebuildSource::kStrongTable));
}

TEST_F(RebuildIndex, AnIndexInUseIsLeftAlone) {
  make();
  const auto before = allFiles();
  {
    dlp_btree::FidSigIndexCollector collector;
    ASSERT_EQ(kOk, collector.Init(configuration_, "db"));
    EXPECT_EQ(kErrFile, rebuildTrees(RebuildSource::kNewestTree));
    EXPECT_EQ(kErrFile, rebuildTables());
  }
  EXPECT_TRUE(before == allFiles());
}

TEST_F(RebuildIndex, AWrongDirectoryIsNotLittered) {
  dir_.makeDirectory("db");
  dir_.write("db/letter.txt", "dear");
  EXPECT_EQ(kErrState, rebuildTrees(RebuildSource::kNewestTree));
  EXPECT_EQ(kErrState, rebuildTrees(RebuildSource::kStrongTable));
  EXPECT_EQ(kErrState, rebuildTables());
  EXPECT_EQ(kErrState, rebuildMetaData());
  EXPECT_EQ(1u, allFiles().size());
}

TEST_F(RebuildIndex, ABatchThatWasBrokenOffIsUndoneFirst) {
  make();
  {
    JournalledFiles files(kBase);
    const std::vector<std::string> paths = TreeStore::filePaths(kBase, treeSuffixes());
    for (size_t i = 0; i < paths.size(); ++i) {
      ASSERT_TRUE(files.open(i, paths[i], platform::OpenMode::kUpdate));
    }
    ASSERT_TRUE(files.recover(false));
    ASSERT_TRUE(files.saveOld(0, 1024, 1024) && files.barrier());
    ASSERT_TRUE(files.write(0, 1024, "torn", 4));
  }  // never committed
  ASSERT_TRUE(dir_.exists("db/fid_index.jnl"));
  ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kFidSigTree));
  EXPECT_FALSE(dir_.exists("db/fid_index.jnl"));
  expectWhole();
}

TEST_F(RebuildIndex, WhatAnEarlierOneLeftIsRemoved) {
  make();
  const auto before = allFiles();
  for (const std::string& path : dlp_btree::rebuildFiles(kBase)) dir_.write(path, "left over");
  ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kFidSigTree));
  expectWhole();
  EXPECT_EQ(before.size(), allFiles().size());
}

TEST_F(RebuildIndex, LostTablesAreWrittenAnewByteForByte) {
  makeWithFreeBlocks();
  for (const std::string name : {".wtbl", ".stbl", ".wmeta", ".smeta"}) {
    const std::string path = "db/search_table" + name;
    for (const bool gone : {true, false}) {
      gone ? remove(path) : flip(path, 333);
      ASSERT_EQ(kOk, rebuildTables());
      expectWhole();
    }
  }
}

TEST_F(RebuildIndex, TablesAreNotTouchedWhileTheTreesAreDamaged) {
  make();
  const auto whole = allFiles();
  for (const std::string& name : treeFiles()) {
    if (name.ends_with(".stk")) continue;  // comes back
    remove("db/" + name);
    EXPECT_EQ(kErrState, rebuildTables()) << name;
    expectTheModelsTables();
    restore(whole);
  }
  for (const std::string& name : treeFiles()) remove("db/" + name);
  EXPECT_EQ(kErrState, rebuildTables());
  expectTheModelsTables();
}

TEST_F(RebuildIndex, TablesAreWrittenBesideADamagedStack) {
  makeWithFreeBlocks();
  flip("db/fid_index.sigt.l.stk", 17);
  remove("db/search_table.wtbl");
  ASSERT_EQ(kOk, rebuildTables());
  expectTheModelsTables();
}

// What the walk over the leaves would meet only after it has cut the tables.
TEST_F(RebuildIndex, TablesAreNotTouchedWhenADamagedStackIsNotAll) {
  makeWithFreeBlocks();
  flip("db/fid_index.sigt.l.stk", 17);
  uint64_t leaf = 0;
  {
    TreeStore store(kBase, {kSigFidSuffix}, AccessType::kReadOnly, {});
    leaf = SigFidTree(&store, 0).nextLeaf(0);
  }
  flip("db/fid_index.sigt.l.blk", 1024 * leaf + 40);
  EXPECT_EQ(kErrState, rebuildTables());
  expectTheModelsTables();
}

TEST_F(RebuildIndex, MetaDataComesFromEitherMetaFile) {
  make();
  const auto whole = allFiles();
  for (const char* const lost : {"", "db/search_table.wmeta", "db/search_table.smeta"}) {
    dir_.write("db/meta_data.bin", "short");
    if (*lost != '\0') dir_.write(lost, "cut");
    EXPECT_EQ(kOk, rebuildMetaData());
    EXPECT_EQ(whole.at("meta_data.bin"), dir_.read("db/meta_data.bin"));
    restore(whole);
  }
  EXPECT_EQ(kOk, rebuildMetaData());
  EXPECT_TRUE(whole == allFiles());
}

// Tables written with another base would name other documents.
TEST_F(RebuildIndex, OfThreeRecordsOfMetaDataTheTwoThatAgreeAreBelieved) {
  make();
  const auto whole = allFiles();
  for (const char* const file : {"meta_data.bin", "search_table.wmeta", "search_table.smeta"}) {
    flip(std::string("db/") + file, 2);
    EXPECT_EQ(kOk, rebuildTables());
    EXPECT_TRUE(whole == allFiles()) << file;
  }
  // Two meta files that disagree tell nothing about the file, nor does one alone.
  flip("db/meta_data.bin", 2);
  flip("db/search_table.wmeta", 3);
  const std::string flipped = dir_.read("db/meta_data.bin");
  EXPECT_EQ(kOk, rebuildMetaData());
  EXPECT_EQ(flipped, dir_.read("db/meta_data.bin"));
  remove("db/search_table.wmeta");
  EXPECT_EQ(kOk, rebuildMetaData());
  EXPECT_EQ(flipped, dir_.read("db/meta_data.bin"));
}

TEST_F(RebuildIndex, MetaDataIsNotGuessed) {
  make();
  remove("db/meta_data.bin");
  flip("db/search_table.wmeta", 3);
  EXPECT_EQ(kErrState, rebuildMetaData()) << "two records";
  EXPECT_EQ(kErrState, rebuildTables());
  dir_.write("db/search_table.wmeta", "");
  dir_.write("db/search_table.smeta", "");
  EXPECT_EQ(kErrState, rebuildMetaData()) << "none";
  EXPECT_FALSE(dir_.exists("db/meta_data.bin"));
}

TEST_F(RebuildIndex, WithoutMemoryNothingIsLost) {
  makeWithFreeBlocks();
  removeTree(".sigt");
  for (int n = 1;; ++n) {
    system_.fail(Call::kAllocate, n);
    const int trees = rebuildTrees(RebuildSource::kFidSigTree);
    if (trees == kOk) rebuildTables();
    const bool failed = system_.failed();
    system_.failAny({}, 0);
    if (!failed) break;
    ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kNewestTree)) << n;
    ASSERT_EQ(kOk, rebuildTables()) << n;
    expectWhole();
    removeTree(".sigt");
  }
  expectWhole();
}

const std::set<Call> kFileCalls = {Call::kOpen,   Call::kSeek,         Call::kRead, Call::kWrite,
                                   Call::kSize,   Call::kTruncate,     Call::kSync, Call::kRemove,
                                   Call::kRename, Call::kSyncDirectory};

// Failing from some call on, for good, leaves the files of a process that was
// killed there, the call half done.
class FailingRebuild : public RebuildIndex, public testing::WithParamInterface<bool> {
 protected:
  // Calls `rebuild` with every n-th file call failing, until none does, and each
  // time looks at what is left: `again` must bring everything back.
  template <typename Rebuild, typename Again>
  void failEveryCall(Rebuild rebuild, Again again) {
    const auto before = allFiles();
    // Many calls are alike: steps of a prime.
    for (int n = 1;; n += n < 60 ? 1 : 13) {
      system_.failAny(kFileCalls, n, GetParam());
      const int status = rebuild();
      const bool failed = system_.failed();
      system_.failAny({}, 0);
      if (failed && GetParam()) {
        EXPECT_TRUE(status == kOk || status == kErrFile || status == kErrState ||
                    status == kErrStrongTable)
            << status << " at call " << n;
      }
      ASSERT_NO_FATAL_FAILURE(again()) << n;
      expectWhole();
      if (HasFailure()) FAIL() << "call " << n;
      if (!failed) break;
      restore(before);
    }
  }
};

TEST_P(FailingRebuild, OfTheTreesNeverLosesItsSource) {
  change(0, 12, 3, 6);
  removeTree(".sigt");
  removeTree(".sidt");
  failEveryCall([&] { return rebuildTrees(RebuildSource::kFidSigTree, 100); },
                [&] { ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kNewestTree)); });
}

TEST_P(FailingRebuild, LeavesTheOldTreesOrTheNewOnesToTheNextOpening) {
  change(0, 12, 3, 6);
  const auto sound = [&] { ASSERT_EQ(kOk, rebuildTables()); };
  failEveryCall([&] { return rebuildTrees(RebuildSource::kSigFidTree, 100); },
                [&] {
                  { const TreeStore store(kBase, treeSuffixes(), AccessType::kReadWrite, {}); }
                  expectTheModelsRecords();
                  ASSERT_EQ(kOk,
                            rebuildTrees(RebuildSource::kFidSigTree));  // removes what was left
                  sound();
                });
}

TEST_P(FailingRebuild, FromTheStrongTableCanBeDoneAgain) {
  change(0, 12, 3, 6);
  for (const std::string& name : treeFiles()) remove("db/" + name);
  failEveryCall([&] { return rebuildTrees(RebuildSource::kStrongTable, 100); },
                [&] { ASSERT_EQ(kOk, rebuildTrees(RebuildSource::kStrongTable)); });
}

TEST_P(FailingRebuild, OfTheTablesCanBeDoneAgain) {
  change(0, 12, 3, 6);
  remove("db/meta_data.bin");
  remove("db/search_table.wtbl");
  failEveryCall([&] { return rebuildTables(); }, [&] { ASSERT_EQ(kOk, rebuildTables()); });
}

INSTANTIATE_TEST_SUITE_P(Once, FailingRebuild, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(ForGood, FailingRebuild, testing::Values(true));

}  // namespace
