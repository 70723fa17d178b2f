// Batches over several trees: what is on disk when, and what is left of one that
// did not come to its end.
#include "tree_store.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "crc32c.h"
#include "fail_point.h"
#include "forwarding_system.h"
#include "little_endian.h"
#include "store_records.h"
#include "temp_dir.h"

namespace {

using Tree = BTree<Number, NumberLess>;

constexpr uint32_t kBlock = 1024;
const std::vector<std::string> kSuffixes = {".a", ".b", ".c"};

// Notes what happens to files, in order: "write s.jnl", "sync s.a.l.blk".
class Recorder final : public ForwardingSystem {
 public:
  std::vector<std::string> taken() { return std::exchange(calls_, {}); }

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override {
    auto file = ForwardingSystem::open(path, mode);
    if (!file) return nullptr;
    return std::make_unique<RecordedFile>(this, path, std::move(file));
  }
  bool remove(const char* path) override {
    note("remove", path);
    return ForwardingSystem::remove(path);
  }
  bool syncDirectory(const char* path) override {
    note("sync directory", path);
    return ForwardingSystem::syncDirectory(path);
  }
  uint32_t allocationGranularity() override { return kBlock; }

 private:
  class RecordedFile final : public ForwardingFile {
   public:
    RecordedFile(Recorder* owner, std::string path, std::unique_ptr<platform::File> file)
        : ForwardingFile(std::move(file)), owner_(owner), path_(std::move(path)) {}
    bool write(const void* data, size_t bytes) override {
      owner_->note("write", path_);
      return ForwardingFile::write(data, bytes);
    }
    bool truncate(uint64_t size) override {
      owner_->note("truncate", path_);
      return ForwardingFile::truncate(size);
    }
    bool sync() override {
      owner_->note("sync", path_);
      return ForwardingFile::sync();
    }

   private:
    Recorder* const owner_;
    const std::string path_;
  };

  // The same call several times in a row is one line.
  void note(const std::string& what, const std::string& path) {
    const std::string call = what + " " + path;
    if (calls_.empty() || calls_.back() != call) calls_.push_back(call);
  }

  std::vector<std::string> calls_;
};

// Three trees of the smallest blocks, named s.a, s.b and s.c.
struct Trees {
  explicit Trees(AccessType access = AccessType::kReadWrite)
      : store("s", kSuffixes, access, smallTree(4, 3)), a(&store, 0), b(&store, 1), c(&store, 2) {}

  bool insertAll(const std::vector<Number>& records) {
    for (const Number& record : records) {
      if (!a.insert(record) || !b.insert(record) || !c.insert(record)) return false;
    }
    return true;
  }
  // All three hold just these.
  bool hold(const std::vector<Number>& records) {
    return scan(&a) == records && scan(&b) == records && scan(&c) == records && isSound(&a) &&
           isSound(&b) && isSound(&c);
  }

  TreeStore store;
  Tree a, b, c;
};

std::vector<std::string> filesHere() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(".")) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> treeFiles() {
  std::vector<std::string> names;
  for (const std::string& suffix : kSuffixes) {
    for (const char* const file : {".l.blk", ".l.stk", ".n.blk", ".n.stk"}) {
      names.push_back("s" + suffix + file);
    }
  }
  return names;
}

// A finished process whose store died in the middle of a batch: its files as
// they are now, the journal included.
std::vector<std::pair<std::string, std::string>> snapshot(const TempDir& dir) {
  std::vector<std::pair<std::string, std::string>> files;
  for (const std::string& name : filesHere()) files.emplace_back(name, dir.read(name));
  return files;
}

void restore(const TempDir& dir, const std::vector<std::pair<std::string, std::string>>& files) {
  for (const std::string& name : filesHere()) std::filesystem::remove(name);
  for (const auto& [name, content] : files) dir.write(name, content);
}

class TreeStoreTest : public testing::Test {
 protected:
  TreeStoreTest() { system_.setGranularity(kBlock); }

  void make() {
    Trees trees;
    ASSERT_TRUE(trees.insertAll(numbers(0, 100)));
  }

  // What a crash leaves that comes when the changed blocks, too many for the
  // cache, have been written but not committed.
  std::vector<std::pair<std::string, std::string>> crashed() {
    Trees trees;
    EXPECT_TRUE(trees.insertAll(numbers(1000, 1100)));
    for (const Number& record : numbers(0, 60)) EXPECT_TRUE(trees.b.erase(record));
    EXPECT_TRUE(dir_.exists("s.jnl"));
    auto files = snapshot(dir_);
    EXPECT_TRUE(trees.store.rollback());
    return files;
  }

  TempDir dir_;
  FailPoint system_;
};

TEST_F(TreeStoreTest, AfterACleanCloseThereAreTwelveFilesAndNothingElse) {
  make();
  EXPECT_EQ(treeFiles(), filesHere());
  Trees trees;
  EXPECT_TRUE(trees.hold(numbers(0, 100)));
}

TEST_F(TreeStoreTest, OpeningAndClosingWithoutAChangeWritesNothing) {
  make();
  system_.failAny({Call::kWrite, Call::kTruncate, Call::kSync}, 0);
  { Trees trees; }
  EXPECT_EQ(0, system_.count());
  EXPECT_EQ(treeFiles(), filesHere());
}

TEST_F(TreeStoreTest, AllBlockFilesBearTheNumberOfTheLastCommit) {
  Trees trees;
  ASSERT_TRUE(trees.b.insert({1}));
  ASSERT_TRUE(trees.store.commit());
  ASSERT_TRUE(trees.c.insert({1}));
  ASSERT_TRUE(trees.store.commit());
  for (const std::string& name : treeFiles()) {
    if (!name.ends_with(".blk")) continue;
    EXPECT_EQ(3u, headerOnDisk(dir_, name).transaction) << name;
  }
}

TEST_F(TreeStoreTest, TreesOfDifferentCommitsAreRefused) {
  make();
  const auto before = snapshot(dir_);
  {
    Trees trees;
    ASSERT_TRUE(trees.c.insert({500}));
  }
  for (const auto& [name, content] : before) {
    if (name.starts_with("s.b")) dir_.write(name, content);
  }
  EXPECT_FALSE(Trees().store.valid());
  EXPECT_FALSE(Trees(AccessType::kReadOnly).store.valid());
}

TEST_F(TreeStoreTest, AnAbsentTreeIsMadeBesideTheOthersAndJoinsTheirCommits) {
  make();
  for (const std::string& name : treeFiles()) {
    if (name.starts_with("s.b")) std::filesystem::remove(name);
  }
  {
    Trees trees;
    ASSERT_TRUE(trees.store.valid());
    EXPECT_EQ(0u, trees.b.size());
    EXPECT_EQ(100u, trees.c.size());
  }
  EXPECT_EQ(headerOnDisk(dir_, "s.a.l.blk").transaction,
            headerOnDisk(dir_, "s.b.n.blk").transaction);
}

TEST_F(TreeStoreTest, ARollbackLeadsBackToTheLastCommit) {
  make();
  Trees trees;
  ASSERT_TRUE(trees.insertAll(numbers(1000, 1200)));
  for (const Number& record : numbers(0, 90)) ASSERT_TRUE(trees.c.erase(record));
  ASSERT_TRUE(trees.store.rollback());
  EXPECT_TRUE(trees.hold(numbers(0, 100)));
  ASSERT_TRUE(trees.insertAll(numbers(100, 150)));
  ASSERT_TRUE(trees.store.commit());
  ASSERT_TRUE(trees.store.rollback()) << "of nothing";
  EXPECT_TRUE(trees.hold(numbers(0, 150)));
}

TEST_F(TreeStoreTest, WhatACrashLeftIsUndoneAtTheNextOpening) {
  make();
  const auto files = crashed();
  restore(dir_, files);
  {
    Trees trees;
    ASSERT_TRUE(trees.store.valid());
    EXPECT_TRUE(trees.hold(numbers(0, 100)));
    EXPECT_FALSE(dir_.exists("s.jnl"));
  }
  EXPECT_EQ(treeFiles(), filesHere());
}

TEST_F(TreeStoreTest, WhoeverOnlyReadsIsRefusedWhileABatchIsUnderWay) {
  make();
  {
    Trees trees;
    ASSERT_TRUE(trees.insertAll(numbers(1000, 1100)));
    ASSERT_TRUE(dir_.exists("s.jnl"));
    EXPECT_FALSE(Trees(AccessType::kReadOnly).store.valid());
    ASSERT_TRUE(trees.store.commit());
    EXPECT_TRUE(Trees(AccessType::kReadOnly).hold([] {
      auto all = numbers(0, 100);
      const auto more = numbers(1000, 1100);
      all.insert(all.end(), more.begin(), more.end());
      return all;
    }()));
    EXPECT_TRUE(dir_.exists("s.jnl")) << "a reader leaves the writer's journal alone";
  }
}

TEST_F(TreeStoreTest, WhoeverOnlyReadsDoesNotUndoWhatACrashLeft) {
  make();
  const auto files = crashed();
  restore(dir_, files);
  EXPECT_FALSE(Trees(AccessType::kReadOnly).store.valid());
  EXPECT_EQ(files, snapshot(dir_));
}

TEST_F(TreeStoreTest, ASecondWriterIsRefusedAndLeavesTheFirstOnesBatchAlone) {
  make();
  Trees first;
  ASSERT_TRUE(first.insertAll(numbers(1000, 1100)));
  const auto files = snapshot(dir_);
  EXPECT_FALSE(Trees().store.valid());
  EXPECT_EQ(files, snapshot(dir_));
  EXPECT_TRUE(first.store.commit());
}

TEST_F(TreeStoreTest, AStoreThatDidNotOpenIsNotRolledBackToLife) {
  system_.fail(Call::kWrite, 1);
  Trees trees;
  ASSERT_TRUE(system_.failed());
  EXPECT_FALSE(trees.store.valid());
  EXPECT_FALSE(trees.store.rollback());
  EXPECT_FALSE(trees.a.insert({1}));
}

TEST_F(TreeStoreTest, ATreeThatDidNotOpenIsNotRolledBackToLife) {
  make();
  {
    Trees trees;
    for (const Number& record : numbers(0, 50)) ASSERT_TRUE(trees.b.erase(record));
  }
  dir_.write("s.b.l.stk", "damaged");
  std::string root = dir_.read("s.b.n.blk");
  for (size_t block = kBlock; block < root.size(); block += kBlock) root[block + 40] = static_cast<char>(root[block + 40] ^ 1);
  dir_.write("s.b.n.blk", root);
  Trees trees;  // the blocks in use cannot be told
  EXPECT_FALSE(trees.store.valid());
  EXPECT_FALSE(trees.store.rollback());
  EXPECT_FALSE(trees.b.insert({1}));
  EXPECT_FALSE(trees.c.insert({1}));
}

TEST_F(TreeStoreTest, ADamagedBlockLeavesNoWayBack) {
  make();
  std::string file = dir_.read("s.a.l.blk");
  file[kBlock + 40] = static_cast<char>(file[kBlock + 40] ^ 1);
  dir_.write("s.a.l.blk", file);
  Trees trees;
  ASSERT_TRUE(trees.store.valid());
  EXPECT_FALSE(trees.a.insert({0}));
  EXPECT_FALSE(trees.store.valid());
  EXPECT_FALSE(trees.store.rollback());
  EXPECT_FALSE(trees.b.insert({500}));
}

TEST_F(TreeStoreTest, AReadThatFailedOnceIsForgottenByARollback) {
  make();
  Trees trees;
  system_.fail(Call::kRead, 1);
  EXPECT_FALSE(trees.a.insert({500}));
  EXPECT_FALSE(trees.store.valid());
  EXPECT_FALSE(trees.b.insert({500})) << "all trees are invalid together";
  ASSERT_TRUE(trees.store.rollback());
  EXPECT_TRUE(trees.hold(numbers(0, 100)));
}

TEST_F(TreeStoreTest, AfterAFailedSyncNothingIsWrittenAndTheNextOpeningUndoesTheBatch) {
  make();
  for (int n = 1;; ++n) {
    system_.fail(Call::kSync, 0);
    {
      Trees trees;
      ASSERT_TRUE(trees.insertAll(numbers(1000, 1050)));
      system_.fail(Call::kSync, n);
      const bool committed = trees.store.commit();
      if (!system_.failed()) {
        ASSERT_TRUE(committed);
        break;
      }
      ASSERT_FALSE(committed);
      system_.failAny({Call::kWrite, Call::kTruncate, Call::kSync}, 0);
      EXPECT_FALSE(trees.store.rollback());
      EXPECT_FALSE(trees.a.insert({2000}));
      EXPECT_FALSE(trees.store.commit());
      EXPECT_EQ(0, system_.count());
    }
    Trees trees;
    ASSERT_TRUE(trees.store.valid());
    // All or nothing: the journal may have been emptied in front of the last sync.
    ASSERT_TRUE(trees.hold(numbers(0, 100)) || trees.a.size() == 150) << n;
    if (trees.a.size() == 150) {
      for (Tree* tree : {&trees.a, &trees.b, &trees.c}) {
        ASSERT_EQ(150u, tree->size());
        for (const Number& record : numbers(1000, 1050)) ASSERT_TRUE(tree->erase(record));
      }
    }
  }
}

// A zeroed page that a failed sync did not take to the disk reads as zeros, too.
TEST_F(TreeStoreTest, AnIdleJournalThatWasFoundIsClearedOnDiskBeforeItIsRemoved) {
  make();
  dir_.write("s.jnl", std::string(5000, '\0'));
  system_.failAny({Call::kWrite, Call::kSync, Call::kRemove}, 0, false, "s.jnl");
  system_.note();
  { Trees trees; }
  EXPECT_EQ((std::vector<std::string>{"write s.jnl", "sync s.jnl", "remove s.jnl"}),
            std::vector<std::string>(system_.watched().begin(), system_.watched().begin() + 3));
  dir_.write("s.jnl", std::string(5000, '\0'));
  system_.fail(Call::kSync, 1, false, "s.jnl");
  EXPECT_FALSE(Trees().store.valid());
}

// It would be saved whole before it is written, hole for hole.
TEST_F(TreeStoreTest, AStackMuchLongerThanOneOfAllBlocksIsRefused) {
  make();
  std::filesystem::resize_file("s.a.l.stk", 2 << 20);
  EXPECT_FALSE(Trees().store.valid());
}

TEST_F(TreeStoreTest, HeadersThatLieAboutRecordsOrUsedBlocksAreFoundOutBeforeACommit) {
  make();
  const auto files = snapshot(dir_);
  const auto lie = [this](const char* file, const std::function<void(BlockFileHeader*)>& change) {
    BlockFileHeader header = headerOnDisk(dir_, file);
    change(&header);
    const BlockFileHeaderBytes bytes = encodeBlockFileHeader(header);
    std::string content = dir_.read(file);
    content.replace(0, bytes.size(), reinterpret_cast<const char*>(bytes.data()), bytes.size());
    dir_.write(file, content);
  };
  lie("s.a.l.blk", [](BlockFileHeader* header) { header->records = 1; });
  {
    Trees trees;
    ASSERT_TRUE(trees.store.valid());
    EXPECT_FALSE(trees.a.erase({5}));
    EXPECT_FALSE(trees.store.valid());
    EXPECT_FALSE(trees.store.commit());
  }
  restore(dir_, files);

  // All leaves but one are said to be free, in a stack that fits.
  uint64_t blocks = 0;
  lie("s.a.l.blk", [&blocks](BlockFileHeader* header) {
    blocks = header->blocks();
    header->used_blocks = 1;
  });
  std::vector<unsigned char> stack(16 + 8 * (blocks - 1));
  storeLittle32(&stack[0], 0x4B415453);
  storeLittle64(&stack[8], blocks - 1);
  for (uint64_t i = 0; i + 1 < blocks; ++i) storeLittle64(&stack[16 + 8 * i], i + 2);
  storeLittle32(&stack[4], crc32c(stack.data(), stack.size()));
  dir_.write("s.a.l.stk", std::string(stack.begin(), stack.end()));
  {
    Trees trees;
    ASSERT_TRUE(trees.store.valid());
    size_t erased = 0;
    while (erased < 100 && trees.a.erase({erased})) ++erased;
    EXPECT_LT(erased, 100u);
    EXPECT_FALSE(trees.store.valid());
    EXPECT_FALSE(trees.store.commit());
  }
  restore(dir_, files);
  Trees trees;
  EXPECT_TRUE(trees.hold(numbers(0, 100)));
}

TEST_F(TreeStoreTest, AJournalOfAnotherBlockSizeIsNotUndone) {
  make();
  const auto files = crashed();
  restore(dir_, files);
  system_.setGranularity(2 * kBlock);
  EXPECT_FALSE(Trees().store.valid());
  EXPECT_EQ(files, snapshot(dir_));
}

// Its check sums fit, but no batch of this store can have begun like that.
TEST_F(TreeStoreTest, AJournalThatClaimsMuchLongerFilesIsNotUndone) {
  make();
  restore(dir_, crashed());
  {
    UndoJournal journal("s.jnl");
    BatchBegin begin;
    ASSERT_EQ(UndoJournal::State::kBatch, journal.open(false, &begin));
    begin.lengths[0] += 1 << 20;
    ASSERT_TRUE(journal.start(begin));
  }
  const auto files = snapshot(dir_);
  EXPECT_FALSE(Trees().store.valid());
  EXPECT_EQ(files, snapshot(dir_));
}

TEST_F(TreeStoreTest, NoMoreThanHeadersAreSavedOnAFirstBuild) {
  Trees trees;
  ASSERT_TRUE(trees.insertAll(numbers(0, 1000)));  // many caches full
  EXPECT_EQ(4096u, dir_.read("s.jnl").size()) << "page 0 alone";
  ASSERT_TRUE(trees.store.commit());
  EXPECT_EQ(4096u + 6 * (32 + 576), dir_.read("s.jnl").size());
}

TEST_F(TreeStoreTest, ABlockThatWasFreeOrIsNewIsNotSavedAndAnyOtherOnce) {
  {
    Trees trees;
    for (const Number& record : numbers(0, 400)) ASSERT_TRUE(trees.a.insert(record));
    ASSERT_TRUE(trees.store.commit());
    for (const Number& record : numbers(200, 400)) ASSERT_TRUE(trees.a.erase(record));
  }
  Trees trees;
  // Two changes of the same leaves, with so many others between that they leave
  // the cache.
  for (int round = 0; round < 3; ++round) {
    for (const Number& record : numbers(1000 + 100 * round, 1100 + 100 * round)) {
      ASSERT_TRUE(trees.a.insert(record));
    }
    ASSERT_TRUE(trees.a.erase({static_cast<uint64_t>(round)}));
  }
  UndoJournal journal("s.jnl");
  BatchBegin begin;
  ASSERT_EQ(UndoJournal::State::kBatch, journal.open(true, &begin));
  std::map<std::pair<uint32_t, uint64_t>, int> saved;  // by block; a record may hold several
  ASSERT_TRUE(journal.replay(begin, [&](uint32_t file, uint64_t offset, const void*, size_t bytes) {
    for (const uint64_t end = offset + bytes; offset < end; offset += kBlock) {
      ++saved[{file, offset}];
    }
    return true;
  }));
  EXPECT_LE(saved.size(), 12u);
  EXPECT_GE(saved.size(), 3u);
  for (const auto& [place, times] : saved) EXPECT_EQ(1, times) << place.second;
}

// Whatever a batch comes to, and whatever became of it in that batch before: the
// journal has it as the last commit left it, and no byte twice.
TEST_F(TreeStoreTest, WhatBatchesSaveIsWhatWasCommitted) {
  {
    Trees trees;
    ASSERT_TRUE(trees.insertAll(numbers(0, 4000, 10)));
    for (const Number& record : numbers(500, 1500, 10)) ASSERT_TRUE(trees.a.erase(record));
  }
  const auto committed = snapshot(dir_);
  Trees trees;
  std::vector<bool> refused;
  for (uint64_t round = 1; round <= 4; ++round) {
    // One after the other splits all leaves, joins most, and frees and reuses blocks.
    const std::vector<Number> fresh = numbers(round, 4000, 10);
    const std::vector<Number> present = numbers(0, 4000 - 500 * round, 10);
    for (Tree* const tree : {&trees.a, &trees.b}) {
      ASSERT_TRUE(tree->insertBatch(fresh.data(), fresh.size(), &refused));
      ASSERT_TRUE(tree->eraseBatch(present.data(), present.size(), &refused));
      ASSERT_TRUE(tree->eraseBatch(fresh.data(), fresh.size() / 2, &refused));
      ASSERT_TRUE(tree->insertBatch(present.data(), present.size(), &refused));
    }
  }
  UndoJournal journal("s.jnl");
  BatchBegin begin;
  ASSERT_EQ(UndoJournal::State::kBatch, journal.open(true, &begin));
  std::map<std::pair<uint32_t, uint64_t>, int> saved;  // by block
  const std::vector<std::string> names = treeFiles();
  const auto check = [&](uint32_t file, uint64_t offset, const void* old, size_t bytes) {
    const auto at = std::find_if(committed.begin(), committed.end(),
                                 [&](const auto& was) { return was.first == names[file]; });
    EXPECT_EQ(0, at->second.compare(offset, bytes, static_cast<const char*>(old), bytes));
    for (const uint64_t end = offset + bytes; offset < end; offset += kBlock) {
      ++saved[{file, offset}];
    }
    return true;
  };
  ASSERT_TRUE(journal.replay(begin, check));
  EXPECT_GT(saved.size(), 200u);
  for (const auto& [place, times] : saved) EXPECT_EQ(1, times) << place.second;
  ASSERT_TRUE(trees.store.rollback());
  std::vector<Number> expected = numbers(0, 4000, 10);
  EXPECT_TRUE(scan(&trees.b) == expected && isSound(&trees.b));
  expected.erase(expected.begin() + 50, expected.begin() + 150);
  EXPECT_TRUE(scan(&trees.a) == expected && isSound(&trees.a));
}

// No file grows while the disk is full.
class FullDisk final : public ForwardingSystem {
 public:
  bool full = false;

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override {
    auto file = ForwardingSystem::open(path, mode);
    if (!file) return nullptr;
    return std::make_unique<FullFile>(this, std::move(file));
  }
  uint32_t allocationGranularity() override { return kBlock; }

 private:
  class FullFile final : public ForwardingFile {
   public:
    FullFile(const FullDisk* disk, std::unique_ptr<platform::File> file)
        : ForwardingFile(std::move(file)), disk_(disk) {}
    bool seek(uint64_t offset) override {
      position_ = offset;
      return ForwardingFile::seek(offset);
    }
    bool write(const void* data, size_t bytes) override {
      position_ += bytes;
      return !(disk_->full && position_ > static_cast<uint64_t>(size())) &&
             ForwardingFile::write(data, bytes);
    }

   private:
    const FullDisk* const disk_;
    uint64_t position_ = 0;
  };
};

TEST(TreeStoreDisk, FullBeforeTheJournalIsMadeItIsUsedAgainOnceThereIsRoom) {
  TempDir dir;
  FullDisk system;
  {
    Trees trees;
    ASSERT_TRUE(trees.insertAll(numbers(0, 100)));
  }
  Trees trees;
  system.full = true;
  ASSERT_TRUE(trees.a.erase({3}));
  EXPECT_FALSE(trees.store.commit());
  ASSERT_TRUE(trees.store.rollback());
  EXPECT_FALSE(dir.exists("s.jnl"));
  system.full = false;
  ASSERT_TRUE(trees.a.erase({3}));
  EXPECT_TRUE(trees.store.commit());
}

// The order that makes a batch whole: the journal is on disk before a file is
// changed in place, and every file before the journal is emptied.
TEST(TreeStoreOrder, ACommitWritesAndSyncsInTheOrderThatMakesItWhole) {
  TempDir dir;
  Recorder recorder;
  {
    Trees trees;
    std::vector<std::string> calls = recorder.taken();
    std::erase_if(calls, [](const std::string& call) { return call.ends_with(".blk"); });
    EXPECT_EQ((std::vector<std::string>{"remove s.jnl", "write s.jnl", "sync s.jnl",
                                        "sync directory .", "sync directory .", "write s.jnl",
                                        "sync s.jnl"}),
              calls)
        << "the opening of fresh trees";
    ASSERT_TRUE(trees.a.insert({1}));
    ASSERT_TRUE(trees.store.commit());
    calls = recorder.taken();
    const std::vector<std::string> expected = {
        "write s.jnl",     "sync s.jnl",      "write s.a.l.blk", "write s.a.n.blk",
        "write s.a.l.blk", "write s.b.n.blk", "write s.b.l.blk", "write s.c.n.blk",
        "write s.c.l.blk", "sync s.a.l.blk",  "sync s.a.n.blk",  "sync s.b.l.blk",
        "sync s.b.n.blk",  "sync s.c.l.blk",  "sync s.c.n.blk",  "write s.jnl",
        "sync s.jnl"};
    EXPECT_EQ(expected, calls);
    ASSERT_TRUE(trees.a.erase({1}));
    ASSERT_TRUE(trees.store.commit());
    calls = recorder.taken();
    const auto written = std::find(calls.begin(), calls.end(), "write s.a.l.stk");
    EXPECT_NE(calls.end(), std::find(written, calls.end(), "sync s.a.l.stk"));
    EXPECT_EQ("sync directory .", calls[calls.size() - 3]) << "the stack has got contents";
  }
  EXPECT_EQ(std::vector<std::string>{"remove s.jnl"}, recorder.taken());
}

}  // namespace
