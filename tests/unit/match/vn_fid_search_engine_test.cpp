#include "vn_fid_search_engine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "log_capture.h"
#include "plain_tables.h"
#include "status.h"

namespace {

using documents::signature;
using plain_tables::element;
using plain_tables::setRange;

constexpr MetaData kMeta = {-4000000000, 3};

class SearchEngine : public testing::Test {
 protected:
  SearchEngine() {
    tables = plain_tables::make({element(signature({0, 0, 1, 0, 0, 0, 0, 0}), 1, 1),
                                 element(signature({0, 0, 1, 0, 0, 0, 0, 0}), 2, 1),
                                 element(signature({0x12, 0x34, 0, 0, 0, 0, 0, 7}), 1, 1),
                                 element(signature({0xff, 0xff, 0, 0, 0, 0, 0, 1}), 3, 2)},
                                kMeta);
  }

  int configure(const std::string& name = "search_table") {
    return engine.setConfig(configuration, name.c_str());
  }

  // Init on the tables as they stand in `tables`.
  int init() {
    plain_tables::write(dir, tables);
    EXPECT_EQ(kOk, configure());
    log.clear();
    return engine.Init(&meta);
  }

  void expectFailure(int expected, const std::vector<std::string>& messages) {
    EXPECT_EQ(expected, init());
    EXPECT_EQ(messages, log.messages());
    EXPECT_FALSE(engine.initialised());
    for (const LogLine& line : log.lines()) EXPECT_EQ(3, line.level);
    ASSERT_FALSE(log.lines().empty());
    const LogLine last = log.lines().back();
    EXPECT_EQ("Error", last.word);
    EXPECT_EQ("fpe_sig_search", last.tag);
    EXPECT_EQ("FidIndexSearchEngine::Init", last.function);
  }

  // How many of `query` a search finds.
  uint32_t found(const std::vector<Signature>& query) {
    std::vector<uint32_t> bFind(query.size());
    std::vector<uint32_t> st_pos(query.size());
    std::vector<uint32_t> en_pos(query.size());
    uint32_t found_num = 99;
    EXPECT_EQ(kOk,
              engine.SearchSignatures(static_cast<uint32_t>(query.size()), query.data(), &found_num,
                                      {bFind.data(), st_pos.data(), en_pos.data()}));
    return found_num;
  }

  TempDir dir;
  LogCapture log;
  IndexSysConfiguration configuration;
  FidIndexSearchEngine engine;
  plain_tables::Tables tables;
  MetaData meta;
};

TEST_F(SearchEngine, AName31CharactersLongIsAcceptedAndLoads) {
  const std::string name(31, 'n');
  EXPECT_EQ(kOk, configure(name));
  plain_tables::write(dir, tables, name);
  EXPECT_EQ(kOk, engine.Init(&meta));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SearchEngine, AName32CharactersLongIsRefused) {
  const std::string name(32, 'n');
  EXPECT_EQ(kErrTableName, configure(name));
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(3, log.lines()[0].level);
  EXPECT_EQ("Error", log.lines()[0].word);
  EXPECT_EQ("fpe_sig_search", log.lines()[0].tag);
  EXPECT_EQ("FidIndexSearchEngine::setConfig", log.lines()[0].function);
  EXPECT_EQ("search table file name " + name + " too long ", log.lines()[0].message);
}

TEST_F(SearchEngine, AnEmptyNameIsRefused) {
  configuration.search_table_fname[0] = '\0';
  EXPECT_EQ(kErrTableName, engine.setConfig(configuration));
  EXPECT_EQ(std::vector<std::string>{"invalid search table file name"}, log.messages());
}

TEST_F(SearchEngine, AFailedConfigurationLeavesNothingConfigured) {
  ASSERT_EQ(kOk, init());
  EXPECT_EQ(kErrTableName, configure(""));
  EXPECT_FALSE(engine.initialised());
  log.clear();
  EXPECT_EQ(kErrState, engine.Init(&meta));
  EXPECT_EQ(std::vector<std::string>{"Init search engine before configuring it"}, log.messages());
}

TEST_F(SearchEngine, NothingIsReadBeforeTheConfiguration) {
  plain_tables::write(dir, tables);
  EXPECT_EQ(kErrState, engine.Init(&meta));
  EXPECT_EQ(kErrState, engine.getSearchTableMetaData(&meta));
  ASSERT_EQ(2u, log.lines().size());
  EXPECT_EQ("#<FidIndexSearchEngine::Init>#Init search engine before configuring it",
            log.lines()[0].text);
  EXPECT_EQ(
      "#<FidIndexSearchEngine::getSearchTableMetaData>#Init search engine before configuring it",
      log.lines()[1].text);
}

TEST_F(SearchEngine, TheNameInTheConfigurationIsTheTablesName) {
  std::strcpy(configuration.search_table_fname, "other");
  ASSERT_EQ(kOk, engine.setConfig(configuration));
  plain_tables::write(dir, tables, "other");
  EXPECT_EQ(kOk, engine.Init(&meta));
}

TEST_F(SearchEngine, PathsAreTheDirectoryASlashAndTheName) {
  ASSERT_EQ(kOk, configure("T"));
  TablePath wtbl, wmeta, stbl, smeta;
  ASSERT_EQ(kOk, engine.gen_search_table_path("sig_index_DB", &wtbl, &wmeta, &stbl, &smeta));
  EXPECT_STREQ("sig_index_DB/T.wtbl", wtbl);
  EXPECT_STREQ("sig_index_DB/T.wmeta", wmeta);
  EXPECT_STREQ("sig_index_DB/T.stbl", stbl);
  EXPECT_STREQ("sig_index_DB/T.smeta", smeta);
  EXPECT_EQ(kOk, engine.gen_search_table_path("sig_index_DB", nullptr, nullptr, &wtbl, nullptr));
  EXPECT_STREQ("sig_index_DB/T.stbl", wtbl);
}

// The test adds the present path (none before Init), not the one to be made.
TEST_F(SearchEngine, ADirectoryBeyondTheLengthTestIsRefused) {
  ASSERT_EQ(kOk, configure("T"));
  TablePath path;
  EXPECT_EQ(kErrParam, engine.gen_search_table_path(std::string(209, 'd').c_str(), nullptr, &path,
                                                    nullptr, nullptr));
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ("#<FidIndexSearchEngine::gen_search_table_path>#search table path too long",
            log.lines()[0].text);
  EXPECT_EQ(kOk, engine.gen_search_table_path(std::string(208, 'd').c_str(), nullptr, &path,
                                              nullptr, nullptr));
  EXPECT_EQ(std::string(208, 'd') + "/", path);

  plain_tables::write(dir, tables, "T");
  ASSERT_EQ(kOk, engine.Init(&meta));  // the wmeta path is now 20 characters long
  EXPECT_EQ(kOk, engine.gen_search_table_path(std::string(188, 'd').c_str(), nullptr, &path,
                                              nullptr, nullptr));
  EXPECT_EQ(kErrParam, engine.gen_search_table_path(std::string(189, 'd').c_str(), nullptr, &path,
                                                    nullptr, nullptr));
}

TEST_F(SearchEngine, ConsistentTablesLoadAndYieldTheWeakSidesRecord) {
  EXPECT_EQ(kOk, init());
  EXPECT_TRUE(engine.initialised());
  EXPECT_EQ(kMeta.fid_base, meta.fid_base);
  EXPECT_EQ(kMeta.sig_gen_level, meta.sig_gen_level);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(
      2u, found({signature({0, 0, 1, 0, 0, 0, 0, 0}), signature({0xff, 0xff, 0, 0, 0, 0, 0, 1})}));
}

TEST_F(SearchEngine, AMissingFileIsNamed) {
  const std::string base = "sig_index_DB/search_table";
  for (const std::string suffix : {".wtbl", ".wmeta", ".stbl", ".smeta"}) {
    plain_tables::write(dir, tables);
    std::filesystem::remove(base + suffix);
    ASSERT_EQ(kOk, configure());
    log.clear();
    EXPECT_EQ(kErrFile, engine.Init(&meta)) << suffix;
    EXPECT_EQ(std::vector<std::string>{"open file " + base + suffix + " fail"}, log.messages());
    EXPECT_FALSE(engine.initialised());
  }
}

TEST_F(SearchEngine, AnEmptyWeakTableFailsWith112) {
  tables.wtbl.clear();
  expectFailure(kErrWeakTable, {"weak search table empty",
                                "weak search table sig_index_DB/search_table.wtbl empty"});
  EXPECT_EQ("Info", log.lines()[0].word);
}

TEST_F(SearchEngine, TheFourEmptyFilesOfAnEmptyIndexFailWith112) {
  tables = {};
  expectFailure(kErrWeakTable, {"weak search table empty",
                                "weak search table sig_index_DB/search_table.wtbl empty"});
}

TEST_F(SearchEngine, AWeakTableOf4BytesFailsWith5) {
  tables.wtbl.resize(4);
  expectFailure(kErrFile, {"Error: no signature in weak search table",
                           "get the sig num in file sig_index_DB/search_table.wtbl fail"});
}

TEST_F(SearchEngine, AWeakTableOf12BytesFailsWith5) {
  tables.wtbl.resize(12);
  expectFailure(kErrFile, {"weak search table size error",
                           "get the sig num in file sig_index_DB/search_table.wtbl fail"});
}

TEST_F(SearchEngine, AnEmptyStrongTableFailsWith5NotWith112) {
  tables.stbl.clear();
  expectFailure(kErrFile, {"Error: no element in strong search table file",
                           "get the ele num in file sig_index_DB/search_table.stbl fail"});
}

TEST_F(SearchEngine, AStrongTableThatIsNoMultipleOf16FailsWith5) {
  tables.stbl.resize(40);
  expectFailure(kErrFile, {"strong search table size error",
                           "get the ele num in file sig_index_DB/search_table.stbl fail"});
}

TEST_F(SearchEngine, AWeakDirectoryThatCountsOneMoreThanTheTableGives112) {
  setRange(&tables.wmeta, 0xffff, 2, 4);
  expectFailure(kErrWeakTable, {"sig nums from weak search table and its meta info differ"});
}

TEST_F(SearchEngine, AStrongDirectoryThatCountsOneMoreThanTheTableGives113) {
  setRange(&tables.smeta, 0xffff, 3, 5);
  expectFailure(kErrStrongTable,
                {"element nums from strong search table and its meta info differ"});
}

// Two good entries bring the sum of each case back to the four elements there are.
TEST_F(SearchEngine, AStrongDirectoryEntryOutsideTheTableGives113) {
  const struct {
    uint32_t start, end;
  } bent[] = {{4, 3}, {1, 0}, {0xffffffff, 0}, {4, 5}, {5, 5}, {0xfffffffe, 0xffffffff}};
  const plain_tables::Tables whole = tables;
  for (const auto& range : bent) {
    SCOPED_TRACE(testing::Message() << range.start << " " << range.end);
    const uint32_t missing = 4 - (range.end - range.start);
    for (const uint32_t prefix : {0x0000u, 0x0001u, 0x8000u, 0xffffu}) {
      tables = whole;
      for (const uint32_t used : {0x0000u, 0x1234u, 0xffffu}) setRange(&tables.smeta, used, 0, 0);
      setRange(&tables.smeta, prefix, range.start, range.end);
      setRange(&tables.smeta, 0x7000, 0, std::min(missing, 4u));
      setRange(&tables.smeta, 0x7001, 0, missing - std::min(missing, 4u));
      expectFailure(kErrStrongTable,
                    {"element nums from strong search table and its meta info differ"});
    }
  }
}

// Order and content are the business of whoever wrote the tables.
TEST_F(SearchEngine, StrongDirectoryEntriesMayOverlapAndNeedNotAscend) {
  setRange(&tables.smeta, 0x0000, 2, 4);
  setRange(&tables.smeta, 0x1234, 4, 4);
  setRange(&tables.smeta, 0xffff, 1, 3);
  EXPECT_EQ(kOk, init());
}

TEST_F(SearchEngine, TheDirectoryIsSummedModulo32Bits) {
  setRange(&tables.wmeta, 0x1234, 5, 4);  // -1 for the 1 there was
  setRange(&tables.wmeta, 0x5678, 0xffffffff, 1);
  EXPECT_EQ(kOk, init());
}

TEST_F(SearchEngine, AMetaFileCutInItsRecordCannotBeReadAsMetaData) {
  tables.wmeta.resize(11);
  expectFailure(kErrFile, {"read file (mdata) sig_index_DB/search_table.wmeta fail"});
  tables = plain_tables::make({element(signature({1}), 1, 1)}, kMeta);
  tables.smeta.resize(11);
  expectFailure(kErrFile, {"read file (mdata) sig_index_DB/search_table.smeta fail"});
}

TEST_F(SearchEngine, AMetaFileCutInItsDirectoryIsRefused) {
  tables.wmeta.resize(524299);
  expectFailure(kErrFile, {"read file sig_index_DB/search_table.wmeta fail"});
  tables = plain_tables::make({element(signature({1}), 1, 1)}, kMeta);
  tables.smeta.resize(524299);
  expectFailure(kErrFile, {"read file sig_index_DB/search_table.smeta fail"});
}

TEST_F(SearchEngine, MetaFilesWithDifferentBasesStillStartAnEngineThatFindsNothing) {
  plain_tables::appendNumber(&(tables.smeta = ""), 17, 8);
  plain_tables::appendNumber(&tables.smeta, 3, 4);  // and no directory at all: it is not read
  EXPECT_EQ(kOk, init());
  EXPECT_TRUE(engine.initialised());
  EXPECT_EQ(kMeta.fid_base, meta.fid_base);
  EXPECT_EQ(std::vector<std::string>{"inconsistent fid_base (294967296 -- 17)"}, log.messages());
  EXPECT_EQ(3, log.lines()[0].level);
  EXPECT_EQ("Error", log.lines()[0].word);
  EXPECT_EQ(
      0u, found({signature({0, 0, 1, 0, 0, 0, 0, 0}), signature({0xff, 0xff, 0, 0, 0, 0, 0, 1})}));
}

TEST_F(SearchEngine, MetaFilesWithDifferentLevelsStillStartAnEngineThatFindsNothing) {
  tables.smeta[8] = 9;
  EXPECT_EQ(kOk, init());
  EXPECT_TRUE(engine.initialised());
  EXPECT_EQ(3u, meta.sig_gen_level);
  EXPECT_EQ(std::vector<std::string>{"inconsistent sig_gen_level (3 -- 9)"}, log.messages());
  EXPECT_EQ(0u, found({signature({0, 0, 1, 0, 0, 0, 0, 0})}));
}

TEST_F(SearchEngine, WhenBasesAndLevelsDifferOnlyTheBasesAreReported) {
  tables.smeta[0] = static_cast<char>(tables.smeta[0] + 1);
  tables.smeta[8] = 9;
  EXPECT_EQ(kOk, init());
  ASSERT_EQ(1u, log.messages().size());
  EXPECT_TRUE(log.messages()[0].starts_with("inconsistent fid_base ("));
}

// A difference beyond the low 32 bits shows in the text no more, but it counts.
TEST_F(SearchEngine, TheBasesAreComparedIn64Bits) {
  tables.smeta[7] = static_cast<char>(tables.smeta[7] ^ 1);
  EXPECT_EQ(kOk, init());
  EXPECT_EQ(std::vector<std::string>{"inconsistent fid_base (294967296 -- 294967296)"},
            log.messages());
}

TEST_F(SearchEngine, TheMetaDataCanBeReadAfterTheConfigurationAlone) {
  plain_tables::write(dir, tables);
  ASSERT_EQ(kOk, configure());
  ASSERT_EQ(kOk, engine.getSearchTableMetaData(&meta));
  EXPECT_EQ(kMeta.fid_base, meta.fid_base);
  EXPECT_EQ(kMeta.sig_gen_level, meta.sig_gen_level);
  EXPECT_FALSE(engine.initialised());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SearchEngine, TheMetaDataAloneFailsForAMissingOrShortFile) {
  ASSERT_EQ(kOk, configure());
  EXPECT_EQ(kErrFile, engine.getSearchTableMetaData(&meta));
  tables.wmeta.resize(11);
  plain_tables::write(dir, tables);
  EXPECT_EQ(kErrFile, engine.getSearchTableMetaData(&meta));
  ASSERT_EQ(2u, log.lines().size());
  EXPECT_EQ(
      "#<FidIndexSearchEngine::getSearchTableMetaData>#open file "
      "sig_index_DB/search_table.wmeta fail",
      log.lines()[0].text);
  EXPECT_EQ(
      "#<FidIndexSearchEngine::getSearchTableMetaData>#read file (mdata) "
      "sig_index_DB/search_table.wmeta fail",
      log.lines()[1].text);
}

TEST_F(SearchEngine, InitLoadsAnewWhatIsOnDiskNow) {
  ASSERT_EQ(kOk, init());
  tables = plain_tables::make({element(signature({9, 9}), 1, 1)}, {7, 5});
  plain_tables::write(dir, tables);
  EXPECT_EQ(kOk, engine.Init(&meta));
  EXPECT_EQ(7, meta.fid_base);
  EXPECT_EQ(5u, meta.sig_gen_level);
  EXPECT_EQ(1u, found({signature({0, 0, 1, 0, 0, 0, 0, 0}), signature({9, 9})}));
}

TEST_F(SearchEngine, AFailedReloadLeavesNothingLoaded) {
  ASSERT_EQ(kOk, init());
  dir.write("sig_index_DB/search_table.wtbl", "");
  EXPECT_EQ(kErrWeakTable, engine.Init(&meta));
  EXPECT_FALSE(engine.initialised());
}

TEST_F(SearchEngine, AReleasedEngineStaysConfigured) {
  ASSERT_EQ(kOk, init());
  engine.release();
  EXPECT_FALSE(engine.initialised());
  EXPECT_EQ(kOk, engine.getSearchTableMetaData(&meta));
  EXPECT_EQ(kOk, engine.Init(&meta));
  EXPECT_TRUE(engine.initialised());
}

TEST_F(SearchEngine, ANewConfigurationReleasesWhatWasLoaded) {
  ASSERT_EQ(kOk, init());
  EXPECT_EQ(kOk, configure());
  EXPECT_FALSE(engine.initialised());
}

struct FailedCall {
  Call call;
  const char* path_part;
  int n;
  int status;
  std::vector<std::string> messages;
};

TEST_F(SearchEngine, EveryFailedCallOfTheLoadingHasItsMessageAndLoadsNothing) {
  const std::string base = "sig_index_DB/search_table";
  const FailedCall cases[] = {
      {Call::kOpen, ".wtbl", 1, kErrFile, {"open file " + base + ".wtbl fail"}},
      {Call::kSize,
       ".wtbl",
       1,
       kErrFile,
       {"get size of weak search table fail", "get the sig num in file " + base + ".wtbl fail"}},
      {Call::kAllocate, "", 1, kErrMem, {"no mem for weak_sig_block"}},
      {Call::kOpen, ".wmeta", 1, kErrFile, {"open file " + base + ".wmeta fail"}},
      {Call::kRead, ".wmeta", 1, kErrFile, {"read file (mdata) " + base + ".wmeta fail"}},
      {Call::kRead, ".wmeta", 2, kErrFile, {"read file " + base + ".wmeta fail"}},
      {Call::kOpen, ".stbl", 1, kErrFile, {"open file " + base + ".stbl fail"}},
      {Call::kSize,
       ".stbl",
       1,
       kErrFile,
       {"get size of strong search table file fail",
        "get the ele num in file " + base + ".stbl fail"}},
      {Call::kAllocate, "", 2, kErrMem, {"no mem for strong_sig_block"}},
      {Call::kOpen, ".smeta", 1, kErrFile, {"open file " + base + ".smeta fail"}},
      {Call::kRead, ".smeta", 1, kErrFile, {"read file (mdata) " + base + ".smeta fail"}},
      {Call::kRead, ".smeta", 2, kErrFile, {"read file " + base + ".smeta fail"}},
  };
  for (const FailedCall& c : cases) {
    SCOPED_TRACE(c.messages.back());
    FailPoint point;
    point.fail(c.call, c.n, false, c.path_part);
    expectFailure(c.status, c.messages);
    EXPECT_TRUE(point.failed());
  }
}

}  // namespace
