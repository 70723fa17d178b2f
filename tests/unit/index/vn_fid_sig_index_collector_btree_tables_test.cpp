// The writer of the search tables, against its slow twin.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "documents.h"
#include "fail_point.h"
#include "index_test_support.h"
#include "status.h"
#include "table_twin.h"
#include "vn_fid_sig_index_collector_btree.h"

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
  int createFailing(Call call, int n, const std::string& path_part = "") {
    log_.clear();
    FailPoint point;
    point.fail(call, n, false, path_part);
    const int status = create();
    EXPECT_TRUE(point.failed());
    return status;
  }
};

TEST_F(FailingSearchTables, ATableOrMetaFileThatCannotBeOpenedIsTold) {
  for (const char* const suffix : {".wtbl", ".stbl", ".wmeta", ".smeta"}) {
    EXPECT_EQ(kErrFile, createFailing(Call::kOpen, 1, suffix)) << suffix;
    expectLines(log_, {error(std::string("open file db/search_table") + suffix + " fail")});
  }
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
    // The tree stays invalid; what is there is not even touched.
    dir_.write("db/search_table.wtbl", "kept");
    EXPECT_EQ(kErrFile, create());
    EXPECT_EQ("kept", dir_.read("db/search_table.wtbl"));
    EXPECT_TRUE(log_.lines().empty());
    collector_.Reset();
  }
  EXPECT_GT(reads, 2);
}

}  // namespace
