// Verifying and rebuilding the exports' index: every kind of damage arrives at the
// sink as what it is, and the remedy that is told mends it. What each check finds in
// detail is tested in tests/unit/index/index_verify_test.cpp.
#include "tessera_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "log_capture.h"
#include "temp_dir.h"
#include "tessera.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using Files = std::map<std::string, std::string>;

constexpr char kIndex[] = "sig_index_DB/";

void collect(const tessera_finding* finding, void* context) {
  const char* const severities[] = {"note", "warning", "error"};
  const char* const remedies[] = {"", ", open", ", rebuild tables", ", rebuild trees"};
  static_cast<Lines*>(context)->push_back(std::string(severities[finding->severity]) +
                                          remedies[finding->remedy] + ": " + finding->subject +
                                          ": " + finding->text);
}

class Store : public testing::Test {
 protected:
  Store() {
    system_.setGranularity(1024);
    configure("max_fid_num=100\n");
  }
  ~Store() override {
    ExitIndexSystem();
    setMaxStblSize(0x80000000u);
  }

  void configure(const std::string& lines) { dir_.write("index_sys_config.txt", lines); }

  // A session that adds some documents and deletes some.
  void change(int64_t from, int64_t to, std::vector<int64_t> deleted = {}) {
    ASSERT_EQ(0, InitIndexSystem());
    for (int64_t id = from; id < to; ++id) {
      std::vector<Signature> list = documents::signatures(30, static_cast<uint64_t>(id), 50);
      ASSERT_EQ(0, AddDocSignature(id, &list.data()->bytes, static_cast<int>(list.size())));
    }
    EXPECT_EQ(0, ExitIndexSystem());
    if (deleted.empty()) return;
    ASSERT_EQ(0, InitIndexSystem());
    EXPECT_EQ(0, DelDocSignature(deleted.data(), static_cast<int>(deleted.size())));
    EXPECT_EQ(0, ExitIndexSystem());
  }

  int verify() {
    findings_.clear();
    return tessera_verify_index(collect, &findings_, &figures_);
  }

  // One error among the findings begins so, and verify() says that there is one.
  void expectError(const std::string& begin) {
    EXPECT_EQ(TESSERA_STORE_DAMAGED, verify()) << begin;
    const auto isIt = [&](const std::string& line) { return line.starts_with("error" + begin); };
    EXPECT_TRUE(std::any_of(findings_.begin(), findings_.end(), isIt))
        << begin << ", found " << testing::PrintToString(findings_);
  }

  void expectSound() {
    EXPECT_EQ(TESSERA_STORE_OK, verify());
    EXPECT_EQ(Lines{}, findings_);
  }

  void flip(const std::string& name, size_t offset) {
    std::string content = dir_.read(kIndex + name);
    ASSERT_LT(offset, content.size()) << name;
    content[offset] = static_cast<char>(content[offset] ^ 4);
    dir_.write(kIndex + name, content);
  }

  Files files() const {
    Files all;
    for (const auto& entry : fs::directory_iterator(dir_.path("sig_index_DB"))) {
      const std::string name = entry.path().filename().string();
      all[name] = dir_.read(kIndex + name);
    }
    return all;
  }

  void restore(const Files& all) {
    for (const auto& [name, content] : all) dir_.write(kIndex + name, content);
  }

  TempDir dir_;
  FailPoint system_;
  LogCapture log_;
  Lines findings_;
  tessera_index_figures figures_;
};

TEST_F(Store, AHealthyIndexHasNoFindingAndTellsItsFigures) {
  change(0, 60, {3, 4, 5});
  const Files before = files();
  expectSound();
  EXPECT_TRUE(before == files());
  EXPECT_EQ(57u + 1, figures_.documents);
  EXPECT_EQ(57u * 30 + 1, figures_.postings);
  EXPECT_GT(figures_.signatures, 1000u);
  EXPECT_LE(figures_.signatures, figures_.postings);
  uint64_t trees = 0;
  uint64_t tables = 0;
  for (const auto& [name, content] : before) {
    if (name.starts_with("fid_index.")) trees += content.size();
    if (name.starts_with("search_table.")) tables += content.size();
  }
  EXPECT_EQ(trees, figures_.tree_bytes);
  EXPECT_EQ(tables, figures_.table_bytes);
  EXPECT_EQ(16 * figures_.postings, figures_.strong_table_bytes);
  EXPECT_GT(figures_.used_blocks, 0u);
  EXPECT_GT(figures_.free_blocks, 0u);
  EXPECT_GT(figures_.commits, 2u);
  EXPECT_EQ(uint64_t{1} << 31, figures_.match_limit);
  EXPECT_EQ(0u, figures_.addition_limit) << "the table bears another name";
  EXPECT_EQ(TESSERA_STORE_OK, tessera_verify_index(nullptr, nullptr, nullptr));
}

TEST_F(Store, EveryKindOfFileThatIsDamagedIsFound) {
  change(0, 60, {3, 4, 5});
  const Files sound = files();
  const std::map<std::string, std::string> expected = {
      {"fid_index.fidt.l.blk", ", rebuild trees: fid_index.fidt"},
      {"fid_index.fidt.n.blk", ", rebuild trees: fid_index.fidt"},
      {"fid_index.sidt.l.blk", ", rebuild trees: fid_index.sidt"},
      {"fid_index.sidt.n.blk", ", rebuild trees: fid_index.sidt"},
      {"fid_index.sigt.l.blk", ", rebuild trees: fid_index.sigt"},
      {"fid_index.sigt.n.blk", ", rebuild trees: fid_index.sigt"},
      {"search_table.wtbl", ", rebuild tables: search_table.wtbl"},
      {"search_table.stbl", ", rebuild tables: search_table.stbl"},
      {"search_table.wmeta", ", rebuild tables: search_table.wmeta"},
      {"search_table.smeta", ", rebuild tables: search_table.smeta"},
      {"meta_data.bin", ", rebuild tables: meta_data.bin"}};
  for (const auto& [name, begin] : expected) {
    SCOPED_TRACE(name);
    const size_t size = sound.at(name).size();
    if (name.ends_with(".blk")) {
      flip(name, size > 1024 ? 1024 + 10 : 10);  // a used block, or the header
    } else {
      flip(name, name.ends_with("meta") ? 12 : 9);  // the directory; an element
    }
    expectError(begin);
    restore(sound);
    fs::remove(kIndex + name);
    expectError(begin);
    restore(sound);
    if (name == "meta_data.bin") continue;
    dir_.write(kIndex + name, sound.at(name).substr(0, size - 1));
    expectError(begin);
    restore(sound);
  }
  fs::remove(std::string(kIndex) + "fid_index.sigt.l.stk");
  expectError(", open: fid_index.sigt.l.stk: is missing");
  restore(sound);
  expectSound();
}

TEST_F(Store, ATreeOfAnotherIndexIsFoundByWhatItHolds) {
  change(0, 20);
  const Files other = files();
  fs::remove_all("sig_index_DB");
  change(0, 21);
  for (const auto& [name, content] : other) {
    if (name.starts_with("fid_index.sidt")) dir_.write(kIndex + name, content);
  }
  expectError(", rebuild trees: fid_index.fidt: has other documents than fid_index.sidt");
}

TEST_F(Store, TablesOfAnEarlierSessionAreNotThoseOfTheTree) {
  change(0, 20);
  const Files earlier = files();
  change(20, 22);
  for (const auto& [name, content] : earlier) {
    if (name.starts_with("search_table")) dir_.write(kIndex + name, content);
  }
  expectError(", rebuild tables: search_table.stbl: ");
  EXPECT_EQ(TESSERA_STORE_OK, tessera_rebuild_tables());
  expectSound();
}

// Every write to the trees fails from some moment of a save on, as if the disk were
// torn out; so the batch cannot be taken back either.
TEST_F(Store, AnInterruptedBatchIsToldAndLeftToTheNextOpening) {
  change(0, 60);
  ASSERT_EQ(0, InitIndexSystem());
  std::vector<int64_t> deleted = {3, 4, 5};
  system_.fail(Call::kWrite, 3, /*lasting=*/true, ".blk");
  DelDocSignature(deleted.data(), 3);
  EXPECT_EQ(1, ExitIndexSystem());
  ASSERT_TRUE(system_.failed());
  system_.fail(Call::kWrite, 0);
  ASSERT_TRUE(dir_.exists("sig_index_DB/fid_index.jnl"));
  const Files before = files();
  expectError(
      ", open: fid_index.jnl: interrupted: a batch was broken off; the next opening for writing "
      "undoes it");
  EXPECT_TRUE(before == files());

  EXPECT_EQ(TESSERA_STORE_OK, tessera_rebuild_tables());
  expectSound();
  EXPECT_EQ(61u, figures_.documents);
}

TEST_F(Store, AnIndexThatIsOpenForWritingIsNotLookedAt) {
  change(0, 20);
  ASSERT_EQ(0, InitIndexSystem());
  figures_.documents = 99;
  EXPECT_EQ(TESSERA_STORE_IN_USE, verify());
  EXPECT_EQ(Lines{}, findings_);
  EXPECT_EQ(0u, figures_.documents);
  const Files before = files();
  EXPECT_EQ(TESSERA_STORE_IN_USE, tessera_rebuild_tables());
  EXPECT_EQ(TESSERA_STORE_IN_USE, tessera_rebuild_trees(TESSERA_FROM_TREE));
  EXPECT_TRUE(before == files());
  EXPECT_EQ(0, ExitIndexSystem());
  expectSound();
}

TEST_F(Store, NobodyOpensAnIndexForWritingWhileItIsVerified) {
  change(0, 20);
  dir_.write(std::string(kIndex) + "fid_index.jnl", std::string(5000, 'x'));
  fs::remove(std::string(kIndex) + "search_table.wtbl");
  struct Beside {
    static void open(const tessera_finding*, void* context) {
      const int opened = InitIndexSystem();
      static_cast<std::vector<int>*>(context)->push_back(opened);
      if (opened == 0) ExitIndexSystem();
    }
  };
  std::vector<int> openings;
  EXPECT_EQ(TESSERA_STORE_DAMAGED, tessera_verify_index(Beside::open, &openings, nullptr));
  ASSERT_FALSE(openings.empty());
  for (const int opened : openings) EXPECT_EQ(1, opened);
  EXPECT_EQ(0, InitIndexSystem());
}

TEST_F(Store, ATableNearALimitIsWarnedOf) {
  configure("search_table_fname=\"sig_table\"\n");
  change(0, 20);
  expectSound();
  EXPECT_EQ(0x80000000u, figures_.addition_limit);
  const auto limit = [](uint64_t bytes) { setMaxStblSize(static_cast<unsigned int>(bytes)); };
  const uint64_t size = figures_.strong_table_bytes;
  limit(size * 4 / 3 + 1);
  expectSound();
  const auto expectWarning = [this](const std::string& text) {
    EXPECT_EQ(TESSERA_STORE_OK, verify());
    EXPECT_EQ(Lines{"warning: sig_table.stbl: " + text}, findings_);
  };
  limit(size * 4 / 3);
  expectWarning("fills 75 % of the size from which on no document is added");
  limit(size + 1);
  expectWarning("fills 99 % of the size from which on no document is added");
  limit(size);
  expectWarning("has reached the size from which on no document is added");
}

TEST_F(Store, AStrongTableNearTheEndOfWhatCanBeMatchedIsWarnedOf) {
  change(0, 20);
  const std::string table = std::string(kIndex) + "search_table.stbl";
  fs::resize_file(table, (uint64_t{3} << 29) - 16);
  EXPECT_EQ(TESSERA_STORE_DAMAGED, verify()) << "the zeros behind the elements";
  EXPECT_FALSE(findings_.at(0).starts_with("warning"));
  fs::resize_file(table, uint64_t{3} << 29);
  verify();
  EXPECT_EQ("warning: search_table.stbl: fills 75 % of the 2 GiB that can be matched",
            findings_.at(0));
  EXPECT_EQ(uint64_t{3} << 29, figures_.strong_table_bytes);
}

TEST_F(Store, LostTablesAreWrittenAnewWithoutABatch) {
  change(0, 60, {7, 8});
  const Files sound = files();
  verify();
  const uint64_t commits = figures_.commits;
  for (const char* const suffix : {"wtbl", "stbl", "wmeta", "smeta"}) {
    fs::remove(std::string(kIndex) + "search_table." + suffix);
  }
  EXPECT_EQ(TESSERA_STORE_OK, tessera_rebuild_tables());
  EXPECT_TRUE(sound == files());
  expectSound();
  EXPECT_EQ(commits, figures_.commits);
}

TEST_F(Store, LostOrDamagedMetaDataComesBackWithTheTables) {
  change(0, 20);
  const Files sound = files();
  fs::remove(std::string(kIndex) + "meta_data.bin");
  EXPECT_EQ(TESSERA_STORE_OK, tessera_rebuild_tables());
  EXPECT_TRUE(sound == files());
  flip("meta_data.bin", 1);  // the tables must not take over another base
  EXPECT_EQ(TESSERA_STORE_OK, tessera_rebuild_tables());
  EXPECT_TRUE(sound == files());
  for (const char* const name : {"meta_data.bin", "search_table.wmeta", "search_table.smeta"}) {
    fs::remove(kIndex + std::string(name));
  }
  EXPECT_EQ(TESSERA_STORE_DAMAGED, tessera_rebuild_tables());
}

TEST_F(Store, TablesAreNotWrittenFromDamagedTreesWhichAreMendedFirst) {
  change(0, 60);
  flip("fid_index.sigt.l.blk", 1024 + 10);
  const Files damaged = files();
  EXPECT_EQ(TESSERA_STORE_DAMAGED, tessera_rebuild_tables());
  EXPECT_TRUE(damaged == files());
  EXPECT_EQ(TESSERA_STORE_OK, tessera_rebuild_trees(TESSERA_FROM_TREE));
  expectSound();
  EXPECT_EQ(61u, figures_.documents);

  for (const auto& [name, content] : damaged) {
    if (name.starts_with("fid_index.")) fs::remove(kIndex + name);
  }
  EXPECT_EQ(TESSERA_STORE_DAMAGED, tessera_rebuild_trees(TESSERA_FROM_TREE));
  EXPECT_EQ(TESSERA_STORE_OK, tessera_rebuild_trees(TESSERA_FROM_TABLE));
  expectSound();
  EXPECT_EQ(61u, figures_.documents);
  EXPECT_EQ(TESSERA_STORE_FAILED, tessera_rebuild_trees(2));

  flip("search_table.stbl", 0);
  EXPECT_EQ(TESSERA_STORE_DAMAGED, tessera_rebuild_trees(TESSERA_FROM_TABLE)) << "out of order";
  dir_.write(std::string(kIndex) + "search_table.stbl", "");
  EXPECT_EQ(TESSERA_STORE_DAMAGED, tessera_rebuild_trees(TESSERA_FROM_TABLE)) << "empty";
}

TEST_F(Store, WithoutAnIndexNothingIsMade) {
  expectError(": fid_index: no index: none of its trees is there");
  EXPECT_EQ(TESSERA_STORE_DAMAGED, tessera_rebuild_tables());
  EXPECT_EQ(TESSERA_STORE_DAMAGED, tessera_rebuild_trees(TESSERA_FROM_TREE));
  EXPECT_EQ(TESSERA_STORE_DAMAGED, tessera_rebuild_trees(TESSERA_FROM_TABLE));
  EXPECT_FALSE(dir_.exists("sig_index_DB"));
}

TEST_F(Store, WithoutAConfigurationNothingIsLookedAt) {
  change(0, 20);
  fs::remove("index_sys_config.txt");
  log_.clear();
  EXPECT_EQ(TESSERA_STORE_FAILED, verify());
  EXPECT_EQ(TESSERA_STORE_FAILED, tessera_rebuild_tables());
  EXPECT_EQ(TESSERA_STORE_FAILED, tessera_rebuild_trees(TESSERA_FROM_TREE));
  EXPECT_EQ(Lines{}, findings_);
  EXPECT_EQ("open config file index_sys_config.txt fail", log_.messages().back());
}

TEST_F(Store, ATableThatCannotBeWrittenIsAFailure) {
  change(0, 20);
  system_.fail(Call::kWrite, 1, /*lasting=*/true, ".stbl");
  EXPECT_EQ(TESSERA_STORE_FAILED, tessera_rebuild_tables());
  ASSERT_TRUE(system_.failed());
  system_.fail(Call::kWrite, 0);
  EXPECT_EQ(TESSERA_STORE_DAMAGED, verify());
  EXPECT_EQ(TESSERA_STORE_OK, tessera_rebuild_tables());
  expectSound();
}

}  // namespace
