// The writer of the search tables, against its slow twin.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>
#include <utility>

#include "documents.h"
#include "fail_point.h"
#include "index_test_support.h"
#include "status.h"
#include "table_twin.h"
#include "vn_fid_sig_index_collector_btree.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

namespace {

using dlp_btree::FidSigIndexCollector;
using documents::signature;
using Signatures = std::vector<Signature>;

const std::string kClass = "dlp_btree::FidSigIndexCollector::";
constexpr size_t kMetaFileBytes = 524300;
constexpr MetaData kMeta = {-1, 3};

Expected error(const std::string& message) {
  return {3, "Error", kClass + "CreateSearchTable", message};
}

class SearchTables : public testing::Test {
 protected:
  explicit SearchTables(uint32_t max_ele_num_save = 209600) { init(max_ele_num_save); }

  void init(uint32_t max_ele_num_save) {
    configuration_.max_ele_num_save = max_ele_num_save;
    ASSERT_EQ(kOk, collector_.Init(configuration_, "db"));
  }

  void add(uint32_t fid, uint32_t source, const Signatures& signatures) {
    const auto count = static_cast<uint32_t>(signatures.size());
    ASSERT_EQ(kOk, collector_.AddFidSignature(fid, source, count, signatures.data()));
    ASSERT_EQ(0, model_.add(fid, source, signatures));
  }

  void save() {
    ASSERT_EQ(kOk, collector_.SaveFidSignature());
    model_.save();
  }

  int create(const char* directory = "db") {
    return collector_.CreateSearchTable(directory, kMeta);
  }

  table_twin::Files written(const std::string& base = "db/search_table") {
    return {dir_.read(base + ".wtbl"), dir_.read(base + ".stbl"), dir_.read(base + ".wmeta"),
            dir_.read(base + ".smeta")};
  }

  void expectAsTheTwin(const MetaData& meta = kMeta) {
    const auto expected = table_twin::files(model_.sigFid(), meta.fid_base, meta.sig_gen_level);
    const auto files = written();
    // Not EXPECT_EQ: a failure would print half a megabyte.
    EXPECT_TRUE(expected.weak == files.weak);
    EXPECT_TRUE(expected.strong == files.strong);
    EXPECT_TRUE(expected.weak_meta == files.weak_meta);
    EXPECT_TRUE(expected.strong_meta == files.strong_meta);
  }

  void expectFourEmptyFiles(const std::string& base = "db/search_table") {
    for (const char* const suffix : {".wtbl", ".stbl", ".wmeta", ".smeta"}) {
      ASSERT_TRUE(dir_.exists(base + suffix)) << suffix;
      EXPECT_EQ("", dir_.read(base + suffix)) << suffix;
    }
  }

  struct Range {
    uint32_t start, end;
  };
  static Range entry(const std::string& meta_file, size_t prefix) {
    Range range;
    std::memcpy(&range, meta_file.data() + 12 + 8 * prefix, 8);
    return range;
  }

  TempDir dir_;
  LogCapture log_;
  IndexSysConfiguration configuration_;
  IndexModel model_{2096};
  FidSigIndexCollector collector_;
};

TEST_F(SearchTables, BothOperationsNeedAnInitialisedCollector) {
  collector_.Reset();
  EXPECT_EQ(kErrState, collector_.CreateSearchTable(nullptr, kMeta));
  EXPECT_EQ(kErrState, collector_.CreateEmptySearchTable(nullptr));
  expectLines(log_,
              {{4, "Info", kClass + "CreateSearchTable", "Error: CreateSearchTable before init."},
               {4, "Info", kClass + "CreateEmptySearchTable",
                "Error: CreateEmptySearchTable before init."}});
}

TEST_F(SearchTables, BothOperationsNeedADirectory) {
  const Expected refused = {4, "Info", kClass + "CreateSearchTable",
                            "Error: invalid sch_table_dir parameter"};
  const Expected refused_empty = {4, "Info", kClass + "CreateEmptySearchTable",
                                  "Error: invalid sch_table_dir parameter"};
  EXPECT_EQ(kErrParam, create(nullptr));
  EXPECT_EQ(kErrParam, create(""));
  EXPECT_EQ(kErrParam, collector_.CreateEmptySearchTable(nullptr));
  EXPECT_EQ(kErrParam, collector_.CreateEmptySearchTable(""));
  expectLines(log_, {refused, refused, refused_empty, refused_empty});
}

TEST_F(SearchTables, ADirectoryThatCannotBeMadeIsTold) {
  EXPECT_EQ(kErrFile, create("no/where"));
  EXPECT_EQ(kErrFile, collector_.CreateEmptySearchTable("no/where"));
  const Expected failed = {3, "Error", kClass + "make_dir", "Error: vn_mkdir error"};
  expectLines(log_, {failed, failed});
}

TEST_F(SearchTables, AnEmptyIndexGivesFourEmptyFiles) {
  EXPECT_EQ(kOk, create());
  expectFourEmptyFiles();
  expectLines(log_,
              {error("index signature is empty"), error("kilo_dbg ret == VN_NO_INDEX_DATA_ERR")});
}

TEST_F(SearchTables, AnIndexThatBecameEmptyLosesItsTables) {
  add(1, 1, {Signature{}});
  save();
  ASSERT_EQ(kOk, create());
  EXPECT_EQ(kOk, collector_.DeleteFidSignature(1));
  EXPECT_EQ(kOk, create());
  expectFourEmptyFiles();
}

TEST_F(SearchTables, EmptyTablesMayBeAskedForAtAnyTime) {
  add(1, 1, {Signature{}});
  save();
  ASSERT_EQ(kOk, create());
  EXPECT_EQ(kOk, collector_.CreateEmptySearchTable("db"));
  expectFourEmptyFiles();
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SearchTables, TheDirectoryIsMadeAndCompletedWithASlashUnlessItEndsInASeparator) {
  add(1, 1, {Signature{}});
  save();
  EXPECT_EQ(kOk, create("other"));
  EXPECT_TRUE(dir_.exists("other/search_table.wtbl"));
  EXPECT_EQ(kOk, create("third/"));
  EXPECT_TRUE(dir_.exists("third/search_table.smeta"));
  EXPECT_EQ(kOk, create("fourth\\"));
  EXPECT_TRUE(std::filesystem::exists("fourth\\search_table.stbl"));
  EXPECT_EQ(kOk, collector_.CreateEmptySearchTable("fifth"));
  EXPECT_TRUE(dir_.exists("fifth/search_table.wmeta"));
}

TEST_F(SearchTables, TheFilesBearTheConfiguredName) {
  std::strcpy(configuration_.search_table_fname, "sig_table");
  init(10);
  add(1, 1, {Signature{}});
  save();
  EXPECT_EQ(kOk, create());
  EXPECT_TRUE(dir_.exists("db/sig_table.stbl"));
  EXPECT_FALSE(dir_.exists("db/search_table.stbl"));
}

TEST_F(SearchTables, OneSignatureOfManyDocumentsIsOneWeakEntryAndOnePrefix) {
  const Signature one = signature({1, 2, 3, 4, 5, 6, 7, 8});
  for (uint32_t fid = 0; fid < 1000; ++fid) add(fid, fid, {one});
  save();
  ASSERT_EQ(kOk, create());
  const auto files = written();
  EXPECT_EQ(8u, files.weak.size());
  EXPECT_EQ(16u * 1000, files.strong.size());
  ASSERT_EQ(kMetaFileBytes, files.weak_meta.size());
  ASSERT_EQ(kMetaFileBytes, files.strong_meta.size());
  EXPECT_EQ(0u, entry(files.weak_meta, 0x0102).start);
  EXPECT_EQ(1u, entry(files.weak_meta, 0x0102).end);
  EXPECT_EQ(0u, entry(files.strong_meta, 0x0102).start);
  EXPECT_EQ(1000u, entry(files.strong_meta, 0x0102).end);
  expectAsTheTwin();
}

TEST_F(SearchTables, TheFirstTwoBytesChooseTheEntry) {
  const Signature last = signature({255, 255, 0, 0, 0, 0, 0, 0});
  const Signature zero = signature({0, 0, 255, 0, 0, 0, 0, 0});
  const Signature middle = signature({0, 2, 0, 0, 0, 0, 0, 0});
  add(1, 1, {last, zero, middle});
  add(2, 2, {last, zero});
  save();
  ASSERT_EQ(kOk, create());
  const auto files = written();
  EXPECT_EQ(0u, entry(files.strong_meta, 0).start);
  EXPECT_EQ(2u, entry(files.strong_meta, 0).end);
  EXPECT_EQ(2u, entry(files.strong_meta, 2).start);
  EXPECT_EQ(3u, entry(files.strong_meta, 2).end);
  EXPECT_EQ(3u, entry(files.strong_meta, 65535).start);
  EXPECT_EQ(5u, entry(files.strong_meta, 65535).end);
  EXPECT_EQ(2u, entry(files.weak_meta, 65535).start);
  EXPECT_EQ(3u, entry(files.weak_meta, 65535).end);
  // What does not occur is 0, 0, also between two that do.
  for (const size_t absent : {1, 3, 256, 65534}) {
    EXPECT_EQ(0u, entry(files.strong_meta, absent).start) << absent;
    EXPECT_EQ(0u, entry(files.strong_meta, absent).end) << absent;
  }
  expectAsTheTwin();
}

TEST_F(SearchTables, ElementsOfASignatureAreOrderedBySignedFidThenSignedSource) {
  const Signature one = signature({9, 9, 9, 9, 9, 9, 9, 9});
  for (const uint32_t source : {5u, 0xFFFFFFFFu, 0x80000000u, 0u}) {
    for (const uint32_t fid : {0u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) add(fid, source, {one});
    save();
  }
  ASSERT_EQ(kOk, create());
  expectAsTheTwin();
  const std::string strong = dir_.read("db/search_table.stbl");
  ASSERT_EQ(16u * 16, strong.size());
  EXPECT_EQ(std::string("\x00\x00\x00\x80\x00\x00\x00\x80", 8), strong.substr(8, 8));
  EXPECT_EQ(std::string("\xff\xff\xff\x7f\x05\x00\x00\x00", 8), strong.substr(248, 8));
}

TEST_F(SearchTables, TheMetaDataHeadsBothMetaFiles) {
  add(1, 1, {Signature{}});
  save();
  const MetaData meta = {0x0102030405060708, 0x8090A0B0};
  ASSERT_EQ(kOk, collector_.CreateSearchTable("db", meta));
  const std::string record("\x08\x07\x06\x05\x04\x03\x02\x01\xb0\xa0\x90\x80", 12);
  EXPECT_EQ(record, dir_.read("db/search_table.wmeta").substr(0, 12));
  EXPECT_EQ(record, dir_.read("db/search_table.smeta").substr(0, 12));
  expectAsTheTwin(meta);
}

TEST_F(SearchTables, AWriterMayRunAgainAndRewritesEverything) {
  const Signatures many = documents::signatures(500, 3);
  add(1, 1, many);
  save();
  ASSERT_EQ(kOk, create());
  ASSERT_EQ(kOk, create());
  expectAsTheTwin();
  EXPECT_EQ(kOk, collector_.DeleteFidSignature(1));
  model_.erase(1);
  add(2, 2, {many[0]});
  save();
  ASSERT_EQ(kOk, create());
  expectAsTheTwin();
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SearchTables, AnIndexOfManyLeavesIsWrittenWhole) {
  for (uint32_t fid = 0; fid < 20; ++fid) {
    add(fid, fid % 3, documents::signatures(2000, fid % 7, 300));
  }
  save();
  ASSERT_EQ(kOk, create());
  expectAsTheTwin();
}

// ---- Buffers ----

class BufferSize : public SearchTables, public testing::WithParamInterface<uint32_t> {
 protected:
  BufferSize() : SearchTables(GetParam()) {}
};

// 60 distinct signatures and 120 elements: multiples of some of the sizes, so
// that the last full buffer is written by the walk or left to the end.
TEST_P(BufferSize, DoesNotShowInTheFiles) {
  const Signatures list = documents::signatures(60, 11, 20);
  add(1, 10, list);
  add(2, 20, list);
  save();
  ASSERT_EQ(kOk, create());
  expectAsTheTwin();
}

INSTANTIATE_TEST_SUITE_P(SearchTables, BufferSize,
                         testing::Values(0, 1, 2, 3, 7, 59, 60, 61, 119, 120, 121, 209600));

TEST_F(SearchTables, TablesAreWrittenInChunksOfTheBuffersSize) {
  init(20);
  const Signatures list = documents::signatures(60, 11, 20);
  add(1, 10, list);
  add(2, 20, list);
  save();
  FailPoint point;
  const struct {
    const char* file;
    int writes;
  } cases[] = {{".wtbl", 3}, {".stbl", 6}, {".wmeta", 2}, {".smeta", 2}};
  for (const auto& [file, writes] : cases) {
    point.fail(Call::kWrite, 0, false, file);
    ASSERT_EQ(kOk, create());
    EXPECT_EQ(writes, point.count()) << file;
  }
}

// ---- Failures ----

class FailingSearchTables : public SearchTables {
 protected:
  FailingSearchTables() : SearchTables(20) {
    const Signatures list = documents::signatures(60, 11, 20);
    add(1, 10, list);
    add(2, 20, list);
    save();
  }

  // One creation of the tables with the n-th such call failing.
  int createFailing(Call call, int n, const std::string& path_part = "", bool lasting = false) {
    log_.clear();
    FailPoint point;
    point.fail(call, n, lasting, path_part);
    const int status = create();
    EXPECT_TRUE(point.failed());
    return status;
  }
};

TEST_F(FailingSearchTables, ATableOrMetaFileThatCannotBeOpenedIsTold) {
  for (const char* const suffix : {".wtbl", ".stbl", ".wmeta", ".smeta"}) {
    EXPECT_EQ(kErrFile, createFailing(Call::kOpen, 1, suffix, /*lasting=*/true)) << suffix;
    expectLines(log_, {error(std::string("open file db/search_table") + suffix + " fail")});
  }
  // A meta file of an earlier run is opened twice: to be cut, and to be written.
  ASSERT_EQ(kOk, create());
  for (const char* const suffix : {".wmeta", ".smeta"}) {
    for (const int n : {1, 2}) {
      EXPECT_EQ(kErrFile, createFailing(Call::kOpen, n, suffix)) << suffix;
      expectLines(log_, {error(std::string("open file db/search_table") + suffix + " fail")});
    }
  }
}

TEST_F(FailingSearchTables, AFileThatDoesNotReachTheDiskCouldNotBeWritten) {
  const std::string base = "db/search_table";
  ASSERT_EQ(kOk, create());
  const struct {
    const char* suffix;
    int n;
    std::string message;
  } cases[] = {{".wtbl", 1, "write weak search table file fail"},
               {".stbl", 1, "write strong search table file fail"},
               {".wmeta", 1, "write file " + base + ".wmeta fail"},  // cut
               {".wmeta", 2, "write file " + base + ".wmeta fail"},
               {".smeta", 1, "write file " + base + ".smeta fail"},
               {".smeta", 2, "write file " + base + ".smeta fail"}};
  for (const auto& [suffix, n, message] : cases) {
    ASSERT_EQ(kOk, create());
    EXPECT_EQ(kErrFile, createFailing(Call::kSync, n, suffix)) << suffix << n;
    expectLines(log_, {error(message)});
  }
  EXPECT_EQ(kErrFile, createFailing(Call::kSyncDirectory, 1));
  expectLines(log_, {error("write file db/ fail")});
}

TEST_F(FailingSearchTables, WhatStandsBehindAFailureIsNotTouched) {
  EXPECT_EQ(kErrFile, createFailing(Call::kOpen, 1, ".wtbl"));
  EXPECT_FALSE(dir_.exists("db/search_table.stbl"));
  EXPECT_EQ(kErrFile, createFailing(Call::kWrite, 1, ".stbl"));
  EXPECT_FALSE(dir_.exists("db/search_table.wmeta"));
  EXPECT_TRUE(dir_.exists("db/search_table.stbl"));
  EXPECT_EQ(kErrFile, createFailing(Call::kWrite, 1, ".wmeta"));
  EXPECT_TRUE(dir_.exists("db/search_table.wmeta"));
  EXPECT_FALSE(dir_.exists("db/search_table.smeta"));
  ASSERT_EQ(kOk, create());
  expectAsTheTwin();
}

TEST_F(FailingSearchTables, EveryWriteOfATableMayFail) {
  for (int n = 1; n <= 3; ++n) {
    EXPECT_EQ(kErrFile, createFailing(Call::kWrite, n, ".wtbl")) << n;
    expectLines(log_, {error("write weak search table file fail")});
  }
  for (int n = 1; n <= 6; ++n) {
    EXPECT_EQ(kErrFile, createFailing(Call::kWrite, n, ".stbl")) << n;
    expectLines(log_, {error("write strong search table file fail")});
  }
}

TEST_F(FailingSearchTables, BothWritesOfAMetaFileMayFail) {
  for (const std::string path : {"db/search_table.wmeta", "db/search_table.smeta"}) {
    EXPECT_EQ(kErrFile, createFailing(Call::kWrite, 1, path));
    expectLines(log_, {error("write file for meta data " + path + " fail")});
    EXPECT_EQ(kErrFile, createFailing(Call::kWrite, 2, path));
    expectLines(log_, {error("write file " + path + " fail")});
  }
}

TEST_F(FailingSearchTables, EachOfTheFourBlocksOfMemoryMayBeRefused) {
  const char* const kBlocks[] = {"weak_sig_block", "strong_sig_block", "signature_weak",
                                 "signature_strong"};
  for (int i = 0; i < 4; ++i) {
    // The first allocation of all converts the path of the directory.
    EXPECT_EQ(kErrMem, createFailing(Call::kAllocate, 2 + i));
    expectLines(log_, {error(std::string("no mem for ") + kBlocks[i])});
    EXPECT_TRUE(dir_.exists("db/search_table.stbl"));  // both tables were opened before
    EXPECT_FALSE(dir_.exists("db/search_table.wmeta"));
  }
}

TEST_F(SearchTables, BuffersBeyondFourGigabytesAreAskedForInFull) {
  init(UINT32_MAX);
  add(1, 1, {Signature{}});
  save();
  FailPoint point;
  // The path of the directory, the two prefix directories, then the buffer.
  point.fail(Call::kAllocate, 4);
  EXPECT_EQ(kErrMem, create());
  EXPECT_TRUE(log_.has("no mem for signature_weak"));
  EXPECT_LT(uint64_t{8} * UINT32_MAX, point.bytesAllocated());
  EXPECT_GT(uint64_t{8} * UINT32_MAX + (2 << 20), point.bytesAllocated());
}

TEST_F(FailingSearchTables, EachOfTheFourEmptyFilesMayFailToOpen) {
  const char* const kSuffixes[] = {".wtbl", ".stbl", ".wmeta", ".smeta"};
  for (size_t failing = 0; failing < 4; ++failing) {
    for (const char* const suffix : kSuffixes) {
      std::filesystem::remove(std::string("db/search_table") + suffix);
    }
    log_.clear();
    FailPoint point;
    point.fail(Call::kOpen, 1, false, kSuffixes[failing]);
    EXPECT_EQ(kErrFile, collector_.CreateEmptySearchTable("db"));
    expectLines(log_, {{3, "Error", kClass + "CreateEmptySearchTable",
                        std::string("open file db/search_table") + kSuffixes[failing] + " fail"}});
    for (size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(i < failing, dir_.exists(std::string("db/search_table") + kSuffixes[i]));
    }
  }
}

TEST_F(FailingSearchTables, AnEmptyFileThatDoesNotReachTheDiskIsNotThere) {
  const std::string function = kClass + "CreateEmptySearchTable";
  for (const std::string file :
       {"search_table.wtbl", "search_table.stbl", "search_table.wmeta", "search_table.smeta"}) {
    log_.clear();
    FailPoint point;
    point.fail(Call::kSync, 1, false, file);
    EXPECT_EQ(kErrFile, collector_.CreateEmptySearchTable("db"));
    expectLines(log_, {{3, "Error", function, "open file db/" + file + " fail"}});
  }
  log_.clear();
  FailPoint point;
  point.fail(Call::kSyncDirectory, 1);
  EXPECT_EQ(kErrFile, collector_.CreateEmptySearchTable("db"));
  expectLines(log_, {{3, "Error", function, "open file db/ fail"}});
}

// ---- Files that do not belong together ----

// What is asked of the four files and their directory, their suffixes instead of
// their paths, the writes to both tables as one.
class TornSearchTables : public FailingSearchTables {
 protected:
  static const std::set<Call> kCalls;

  template <typename Create>
  static std::vector<std::string> callsOf(Create create_tables) {
    FailPoint point;
    point.note();
    point.failAny(kCalls, 0, false, "db/");
    EXPECT_EQ(kOk, create_tables());
    std::vector<std::string> calls;
    for (std::string call : point.watched()) {
      const size_t path = call.find("db/search_table");
      if (path != std::string::npos) call.erase(path, std::strlen("db/search_table"));
      if (call == "write .wtbl" || call == "write .stbl") call = "write tables";
      if (calls.empty() || calls.back() != call) calls.push_back(call);
    }
    return calls;
  }

  // Other content in tables of the same length.
  void exchangeDocuments() {
    for (const uint32_t fid : {1, 2}) {
      ASSERT_EQ(kOk, collector_.DeleteFidSignature(fid));
      model_.erase(fid);
    }
    const Signatures list = documents::signatures(60, 12, 20);
    add(3, 10, list);
    add(4, 20, list);
    save();
  }

  static bool equal(const table_twin::Files& left, const table_twin::Files& right) {
    return left.weak == right.weak && left.strong == right.strong &&
           left.weak_meta == right.weak_meta && left.strong_meta == right.strong_meta;
  }

  void put(const table_twin::Files& files) {
    dir_.write("db/search_table.wtbl", files.weak);
    dir_.write("db/search_table.stbl", files.strong);
    dir_.write("db/search_table.wmeta", files.weak_meta);
    dir_.write("db/search_table.smeta", files.strong_meta);
  }
};

const std::set<Call> TornSearchTables::kCalls = {Call::kOpen, Call::kWrite, Call::kTruncate,
                                                 Call::kSync, Call::kSyncDirectory};

TEST_F(TornSearchTables, OldMetaFilesAreCutBeforeTheTablesAndNewOnesWrittenBehindThem) {
  const auto create_tables = [this] { return create(); };
  const std::vector<std::string> behind = {"write tables", "sync .wtbl",        "write tables",
                                           "sync .stbl",   "open .wmeta",       "write .wmeta",
                                           "sync .wmeta",  "open .smeta",       "write .smeta",
                                           "sync .smeta",  "sync directory db/"};
  std::vector<std::string> expected = {"open .wtbl", "open .stbl", "open .wmeta", "open .smeta"};
  expected.insert(expected.end(), behind.begin(), behind.end());
  EXPECT_EQ(expected, callsOf(create_tables));  // looked for and not found

  expected = {"open .wtbl",  "open .stbl",  "open .wmeta",
              "sync .wmeta", "open .smeta", "sync .smeta"};
  expected.insert(expected.end(), behind.begin(), behind.end());
  EXPECT_EQ(expected, callsOf(create_tables));
}

TEST_F(TornSearchTables, EmptyFilesAreOnTheDiskInTheOrderOfTheirCreation) {
  EXPECT_EQ((std::vector<std::string>{"open .wtbl", "sync .wtbl", "open .stbl", "sync .stbl",
                                      "open .wmeta", "sync .wmeta", "open .smeta", "sync .smeta",
                                      "sync directory db/"}),
            callsOf([this] { return collector_.CreateEmptySearchTable("db"); }));
}

// From the n-th call on nothing reaches the system any more, as after a kill. A
// set loads when no table is empty and both meta files are whole.
TEST_F(TornSearchTables, AKillAtAnyCallLeavesTheOldSetOrTheNewOneOrOneThatDoesNotLoad) {
  ASSERT_EQ(kOk, create());
  const auto before = written();
  exchangeDocuments();
  ASSERT_EQ(kOk, create());
  const auto after = written();
  ASSERT_EQ(before.weak.size(), after.weak.size());
  ASSERT_EQ(before.strong.size(), after.strong.size());
  int refused = 0;
  for (int n = 1;; ++n) {
    put(before);
    FailPoint point;
    point.failAny(kCalls, n, /*lasting=*/true, "db/");
    const int status = create();
    EXPECT_EQ(point.failed() ? kErrFile : kOk, status) << n;
    const auto files = written();
    const bool loads = !files.weak.empty() && !files.strong.empty() &&
                       files.weak_meta.size() == kMetaFileBytes &&
                       files.strong_meta.size() == kMetaFileBytes;
    if (!loads) ++refused;
    EXPECT_TRUE(!loads || equal(files, before) || equal(files, after)) << n;
    if (!point.failed()) break;
  }
  EXPECT_LT(15, refused);
  EXPECT_TRUE(equal(written(), after));
}

// The names of the files are bytes, in whatever encoding.
TEST_F(TornSearchTables, OldMetaFilesAreCutAlsoUnderANameThatIsNoUtf8) {
  std::strcpy(configuration_.search_table_fname, "t\xe9");
  init(20);
  ASSERT_EQ(kOk, create());
  EXPECT_EQ(kErrFile, createFailing(Call::kWrite, 1, "db/t\xe9.wtbl"));
  for (const char* const path : {"db/t\xe9.wmeta", "db/t\xe9.smeta"}) {
    const auto file = platform::native().open(path, platform::OpenMode::kRead);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(0, file->size()) << path;
  }
}

// Better one cut too many than an old meta file overlooked.
TEST_F(TornSearchTables, AMetaFileWhoseExistenceCannotBeToldIsCut) {
  ASSERT_EQ(kOk, create());
  for (const Call call : {Call::kAccess, Call::kToNativePath}) {
    FailPoint point;
    point.note();
    point.failAny({call, Call::kSync}, 2);  // the first is for the directory
    EXPECT_EQ(kOk, create());
    EXPECT_TRUE(point.failed());
    const auto& calls = point.watched();
    EXPECT_EQ(2, std::count(calls.begin(), calls.end(), "sync db/search_table.wmeta"));

    // That it cannot be opened is no proof either, and ends the operation.
    log_.clear();
    point.failAny({call, Call::kOpen, Call::kWrite}, 4, /*lasting=*/true);
    EXPECT_EQ(kErrFile, create());
    expectLines(log_, {error("open file db/search_table.wmeta fail")});
    EXPECT_EQ("open db/search_table.wmeta", calls.back());
    point.fail(Call::kOpen, 0);
    ASSERT_EQ(kOk, create());
    log_.clear();
  }
}

#ifndef _WIN32
namespace fs = std::filesystem;

TEST_F(FailingSearchTables, ALinkOrAPipeInPlaceOfATableIsRefused) {
  dir_.write("elsewhere", "kept");
  for (const std::string suffix : {".wtbl", ".stbl", ".wmeta", ".smeta"}) {
    const std::string path = "db/search_table" + suffix;
    for (const bool link : {true, false}) {
      ASSERT_EQ(kOk, create());
      fs::remove(path);
      if (link) {
        fs::create_symlink("../elsewhere", path);
      } else {
        ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
      }
      log_.clear();
      EXPECT_EQ(kErrFile, create());
      expectLines(log_, {error("open file " + path + " fail")});
      log_.clear();
      EXPECT_EQ(kErrFile, collector_.CreateEmptySearchTable("db"));
      expectLines(log_,
                  {{3, "Error", kClass + "CreateEmptySearchTable", "open file " + path + " fail"}});
      EXPECT_EQ("kept", dir_.read("elsewhere"));
      fs::remove(path);
    }
  }
}

TEST_F(FailingSearchTables, ALinkOrAPipeInPlaceOfATreeIsRefused) {
  collector_.Reset();
  fs::rename("db", "good");
  for (const auto& entry : fs::directory_iterator("good")) {
    const fs::path name = entry.path().filename();
    if (!name.string().starts_with("fid_index")) continue;
    for (const bool link : {true, false}) {
      SCOPED_TRACE(name);
      fs::copy("good", "db");
      const fs::path file = "db" / name;
      fs::remove(file);
      if (link) {
        fs::create_symlink(".." / entry.path(), file);
      } else {
        ASSERT_EQ(0, ::mkfifo(file.c_str(), 0600));
      }
      const std::string before = dir_.read(entry.path().string());
      EXPECT_EQ(kErrFile, collector_.Init(configuration_, "db"));
      EXPECT_TRUE(before == dir_.read(entry.path().string()));
      fs::remove_all("db");
    }
  }
}

TEST_F(FailingSearchTables, TheDirectoryAndAllFilesInItAreTheirOwnersAlone) {
  const mode_t previous = ::umask(0);
  EXPECT_EQ(kOk, collector_.Init(configuration_, "open"));
  EXPECT_EQ(kOk, collector_.CreateSearchTable("open", kMeta));
  ::umask(previous);
  const auto modeOf = [](const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(0, ::lstat(path.c_str(), &status));
    return status.st_mode & 07777;
  };
  EXPECT_EQ(0700u, modeOf("open"));
  size_t files = 0;
  for (const auto& entry : fs::directory_iterator("open")) {
    EXPECT_EQ(0600u, modeOf(entry.path())) << entry.path();
    ++files;
  }
  EXPECT_LE(16u, files);
}
#endif

// A walk that an error ends must not pass for a short index.
TEST_F(FailingSearchTables, ATreeThatCannotBeReadIsAFailureAndLeavesTheMetaFilesUnwritten) {
  for (uint32_t fid = 10; fid < 20; ++fid) add(fid, fid, documents::signatures(2000, fid));
  save();
  int reads = 0;
  for (int n = 1;; ++n) {
    FailPoint point;  // the reopened files pass through it
    init(20);
    log_.clear();
    point.fail(Call::kRead, n, false, ".sigt");
    const int status = create();
    if (!point.failed()) {
      EXPECT_EQ(kOk, status);
      expectAsTheTwin();
      collector_.Reset();
      break;
    }
    ++reads;
    EXPECT_EQ(kErrFile, status) << n;
    EXPECT_FALSE(dir_.exists("db/search_table.wmeta"));
    EXPECT_TRUE(log_.lines().empty());
    // A read that failed once is no reason to fail again.
    EXPECT_EQ(kOk, create());
    EXPECT_TRUE(dir_.exists("db/search_table.wmeta"));
    std::filesystem::remove("db/search_table.wmeta");
    std::filesystem::remove("db/search_table.smeta");
    collector_.Reset();
  }
  EXPECT_GT(reads, 2);
}

}  // namespace
