#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "adversary.h"
#include "documents.h"
#include "fail_point.h"
#include "hooked_system.h"
#include "log_capture.h"
#include "plain_tables.h"
#include "status.h"
#include "vn_fid_search_engine.h"

namespace {

using documents::signature;
using plain_tables::element;
using Messages = std::vector<std::string>;

struct Entry {
  int fid;
  int source;
  uint32_t count;
};
bool operator==(const Entry& a, const Entry& b) {
  return a.fid == b.fid && a.source == b.source && a.count == b.count;
}
void PrintTo(const Entry& e, std::ostream* out) {
  *out << "(" << e.fid << ", " << e.source << ", " << e.count << ")";
}

class Ranking : public testing::Test {
 protected:
  // `count` elements; number i is file i of source 1000 + i.
  void load(int count, uint32_t max_ele_num_load) {
    std::vector<StrongElement> elements;
    for (int i = 0; i < count; ++i) {
      elements.push_back(element(signature({0, 0, 0, 0, 0, 0, i / 256, i % 256}), i, 1000 + i));
    }
    plain_tables::write(dir, plain_tables::make(elements, {1, 1}));
    IndexSysConfiguration configuration;
    configuration.max_ele_num_load = max_ele_num_load;
    ASSERT_EQ(kOk, engine.setConfig(configuration));
    MetaData meta;
    ASSERT_EQ(kOk, engine.Init(&meta));
    log.clear();
  }

  // The files of load(20), and a table that pretends to have `ele_num` elements.
  void loadHuge(HookedSystem* hooked, uint32_t ele_num) {
    load(20, 100);
    std::string smeta = dir.read("sig_index_DB/search_table.smeta");
    plain_tables::setRange(&smeta, 0, 0, ele_num);
    dir.write("sig_index_DB/search_table.smeta", smeta);
    hooked->pretendSize(".stbl", int64_t{ele_num} * 16);
    MetaData meta;
    ASSERT_EQ(kOk, engine.Init(&meta));
    log.clear();
  }

  struct Found {
    uint32_t found, first, last;
  };
  int build(const std::vector<Found>& found) {
    std::vector<uint32_t> bFind, st_pos, en_pos;
    for (const Found& f : found) {
      bFind.push_back(f.found);
      st_pos.push_back(f.first);
      en_pos.push_back(f.last);
    }
    log.clear();
    fsid_num = 0;
    fsid = mallocArray<FsidPair>(1);  // must be replaced or freed
    return engine.build_sig_fid_info_tbl(static_cast<uint32_t>(found.size()),
                                         {bFind.data(), st_pos.data(), en_pos.data()}, &fsid_num,
                                         &fsid);
  }

  // The files of the pairs that build() has handed out.
  std::vector<int> files() {
    std::vector<int> all;
    for (uint32_t i = 0; i < fsid_num; ++i) {
      EXPECT_EQ(1000 + fsid[i].fid, fsid[i].source);
      all.push_back(fsid[i].fid);
    }
    return all;
  }

  int process(const std::vector<FsidPair>& pairs) {
    take(pairs);
    return engine.process_fid_info(&fsid_num, &fsid, &freq);
  }

  int select(const std::vector<Entry>& entries) {
    std::vector<FsidPair> pairs;
    for (const Entry& e : entries) pairs.push_back({e.fid, e.source});
    take(pairs);
    freq = mallocArray<uint32_t>(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) freq[i] = entries[i].count;
    return engine.select_relevant_fid(&fsid_num, &fsid, &freq);
  }

  void take(const std::vector<FsidPair>& pairs) {
    log.clear();
    fsid_num = static_cast<uint32_t>(pairs.size());
    fsid = MallocArray<FsidPair>(
        static_cast<FsidPair*>(std::malloc(pairs.size() * sizeof(FsidPair) + 1)));
    std::copy(pairs.begin(), pairs.end(), fsid.get());
  }

  std::vector<Entry> entries() {
    std::vector<Entry> all;
    for (uint32_t i = 0; i < fsid_num; ++i) all.push_back({fsid[i].fid, fsid[i].source, freq[i]});
    return all;
  }

  void expectMessages(const Messages& messages, const std::string& last_function) {
    EXPECT_EQ(messages, log.messages());
    for (const LogLine& line : log.lines()) {
      EXPECT_EQ(3, line.level);
      EXPECT_EQ("Error", line.word);
    }
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ("fpe_sig_search", log.lines().back().tag);
    EXPECT_EQ("FidIndexSearchEngine::" + last_function, log.lines().back().function);
  }

  TempDir dir;
  LogCapture log;
  FidIndexSearchEngine engine;
  uint32_t fsid_num = 0;
  MallocArray<FsidPair> fsid;
  MallocArray<uint32_t> freq;
};

// ---- Reading the hits -----------------------------------------------------------

TEST_F(Ranking, TheHitsComeInTheOrderOfTheQuery) {
  for (const uint32_t limit : {2u, 3u, 4u, 5u, 100u}) {
    load(20, limit);
    ASSERT_EQ(kOk, build({{1, 2, 4}, {0, 9, 9}, {1, 4, 5}, {1, 7, 8}, {0, 1, 3}, {1, 18, 20}}));
    EXPECT_EQ((std::vector<int>{2, 3, 4, 7, 18, 19}), files()) << "limit " << limit;
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST_F(Ranking, ARepeatedSignaturesHitsAreReadEveryTime) {
  for (const uint32_t limit : {2u, 100u}) {
    load(20, limit);
    ASSERT_EQ(kOk, build({{1, 2, 5}, {1, 2, 5}, {1, 5, 6}}));
    EXPECT_EQ((std::vector<int>{2, 3, 4, 2, 3, 4, 5}), files());
  }
}

TEST_F(Ranking, ARunLongerThanTheBufferIsReadInPieces) {
  std::vector<int> expected;
  for (int i = 3; i < 18; ++i) expected.push_back(i);
  for (const uint32_t limit : {0u, 1u, 2u, 4u, 5u, 14u, 15u, 16u, 100u}) {
    load(20, limit);
    ASSERT_EQ(kOk, build({{1, 3, 18}}));
    EXPECT_EQ(expected, files()) << "limit " << limit;
  }
}

TEST_F(Ranking, RangesWithinOneBufferAreReadAtOnce) {
  load(20, 6);
  FailPoint point;
  point.fail(Call::kRead, 0);
  // The first two ranges take up 5 of the 6 elements. The third is as long as the
  // buffer, and the last two together would fill it: a read for each.
  ASSERT_EQ(kOk, build({{1, 2, 4}, {0, 0, 0}, {1, 6, 7}, {1, 8, 14}, {1, 14, 15}, {1, 19, 20}}));
  EXPECT_EQ((std::vector<int>{2, 3, 6, 8, 9, 10, 11, 12, 13, 14, 19}), files());
  EXPECT_EQ(4, point.count());
}

TEST_F(Ranking, DistantRangesAreReadOneByOne) {
  load(1200, 209600);
  FailPoint point;
  point.fail(Call::kRead, 0);
  ASSERT_EQ(kOk, build({{1, 0, 1}, {1, 320, 321}}));
  EXPECT_EQ(1, point.count());
  point.fail(Call::kRead, 0);
  ASSERT_EQ(kOk, build({{1, 0, 1}, {1, 321, 322}, {1, 900, 902}}));
  EXPECT_EQ((std::vector<int>{0, 321, 900, 901}), files());
  EXPECT_EQ(3, point.count());
}

// Only an unsorted query gets such ranges.
TEST_F(Ranking, RangesThatDoNotAscendAreReadCompletely) {
  for (const uint32_t limit : {2u, 5u, 100u}) {
    load(20, limit);
    ASSERT_EQ(kOk, build({{1, 10, 13}, {1, 2, 4}, {1, 2, 9}, {1, 3, 5}, {1, 19, 20}}));
    EXPECT_EQ((std::vector<int>{10, 11, 12, 2, 3, 2, 3, 4, 5, 6, 7, 8, 3, 4, 19}), files());
    ASSERT_EQ(kOk, build({{1, 10, 13}, {1, 9, 12}, {1, 2, 6}, {1, 3, 4}}));
    EXPECT_EQ((std::vector<int>{10, 11, 12, 9, 10, 11, 2, 3, 4, 5, 3}), files());
    ASSERT_EQ(kOk, build({{1, 10, 13}, {1, 9, 14}, {1, 8, 14}}));  // of an unsorted table, too
    EXPECT_EQ((std::vector<int>{10, 11, 12, 9, 10, 11, 12, 13, 8, 9, 10, 11, 12, 13}), files());
  }
}

TEST_F(Ranking, WithoutHitsThereIsNothingToExtract) {
  load(20, 100);
  EXPECT_EQ(kErrState, build({{0, 1, 5}, {1, 3, 3}}));
  EXPECT_FALSE(fsid);
  EXPECT_EQ(0u, fsid_num);
  expectMessages({"no fid to extract. (fsid_num == 0)"}, "build_sig_fid_info_tbl");
}

// 2 GiB are 134217728 elements.
TEST_F(Ranking, ElementsFrom2GiBOnCannotBeReached) {
  HookedSystem hooked;
  loadHuge(&hooked, 134217729);
  EXPECT_EQ(kErrFile, build({{1, 134217728, 134217729}}));
  expectMessages({"fseek strong search table file fail"}, "build_sig_fid_info_tbl");
  EXPECT_FALSE(fsid);
  EXPECT_EQ(kErrFile, build({{1, 134217727, 134217728}}));  // sought, but not there
  expectMessages({"read strong search table file fail"}, "build_sig_fid_info_tbl");
}

TEST_F(Ranking, MoreHitsThan32BitsCanCountAreTooManyForTheMemory) {
  HookedSystem hooked;
  loadHuge(&hooked, 0x4000000);
  EXPECT_EQ(kErrMem, build(std::vector<Found>(64, {1, 0, 0x4000000})));  // 2^32
  expectMessages({"no mem for fsid"}, "build_sig_fid_info_tbl");
  EXPECT_EQ(kErrMem, build(std::vector<Found>(65, {1, 0, 0x4000000})));
  expectMessages({"no mem for fsid"}, "build_sig_fid_info_tbl");
  EXPECT_FALSE(fsid);
  EXPECT_LT(hooked.largestAllocation(), 1000000u);
}

TEST_F(Ranking, FailuresOfReadingTheHitsHaveTheirMessages) {
  const std::string path = "sig_index_DB/search_table.stbl";
  load(20, 6);
  FailPoint point;
  const std::vector<Found> found = {{1, 2, 4}, {1, 6, 18}};
  const auto expectFailure = [&](Call call, int n, int status, const Messages& messages) {
    point.fail(call, n);
    EXPECT_EQ(status, build(found));
    EXPECT_TRUE(point.failed());
    EXPECT_FALSE(fsid);
    expectMessages(messages, "build_sig_fid_info_tbl");
  };
  expectFailure(Call::kOpen, 1, kErrFile, {"open file " + path + " fail"});
  expectFailure(
      Call::kSize, 1, kErrFile,
      {"get size of strong search table file fail", "get size of file " + path + " fail"});
  expectFailure(Call::kAllocate, 2, kErrMem, {"no mem for fsid"});  // 1 is the test's own
  expectFailure(Call::kAllocate, 3, kErrMem, {"no mem for signature_strong"});
  for (int n = 1; n <= 2; ++n) {
    expectFailure(Call::kSeek, n, kErrFile, {"fseek strong search table file fail"});
  }
  for (int n = 1; n <= 3; ++n) {  // one range in one read, one in two pieces
    expectFailure(Call::kRead, n, kErrFile, {"read strong search table file fail"});
  }
}

// Nothing is read or reserved for them, wherever they stand in the query.
TEST_F(Ranking, RangesBeyondTheTableAreAFailedRead) {
  for (const uint32_t limit : {2u, 100u, 0xffffffffu}) {
    load(20, limit);
    HookedSystem hooked;
    int reads = 0;
    hooked.beforeRead(1, ".stbl", [&] { ++reads; });
    for (const Found& found : {Found{1, 19, 21}, Found{1, 20, 21}, Found{1, 15, 4000},
                               Found{1, 0, 0xffffffff}, Found{1, 0xffffffff, 0xffffffff},
                               Found{1, 5, 4}, Found{1, 0xffffffff, 0}, Found{1, 0x80000000, 1}}) {
      for (const std::vector<Found>& query :
           {std::vector<Found>{found}, {{1, 2, 4}, found}, {found, {1, 2, 4}}}) {
        EXPECT_EQ(kErrFile, build(query));
        expectMessages({"read strong search table file fail"}, "build_sig_fid_info_tbl");
        EXPECT_FALSE(fsid);
      }
    }
    EXPECT_EQ(0, reads);
    EXPECT_LT(hooked.largestAllocation(), 1000u);
  }
}

TEST_F(Ranking, ATableOfAnotherSizeThanAtTheLoadingIsAFileError) {
  const std::string path = "sig_index_DB/search_table.stbl";
  load(20, 100);
  const std::string table = dir.read(path);
  for (const std::string& other : {table.substr(16), table + table.substr(0, 16)}) {
    dir.write(path, other);
    HookedSystem hooked;
    hooked.beforeRead(1, ".stbl", [] { ADD_FAILURE() << "such a table need not be read"; });
    EXPECT_EQ(kErrFile, build({{1, 2, 4}}));
    expectMessages({"get size of file " + path + " fail"}, "build_sig_fid_info_tbl");
    EXPECT_FALSE(fsid);
  }
}

TEST_F(Ranking, ATableRewrittenWhileItIsReadIsAFileError) {
  const std::string path = "sig_index_DB/search_table.stbl";
  load(20, 6);
  HookedSystem hooked;
  hooked.beforeRead(2, ".stbl", [&] { dir.write(path, std::string(16 * 40, 'x')); });
  EXPECT_EQ(kErrFile, build({{1, 2, 4}, {1, 12, 14}}));
  expectMessages({"get size of file " + path + " fail"}, "build_sig_fid_info_tbl");
  EXPECT_FALSE(fsid);
}

// ---- The sorts ------------------------------------------------------------------

TEST_F(Ranking, ThePairsAreSortedByFileThenSourceAsSignedNumbers) {
  take({{5, 1}, {-1, 9}, {5, -1}, {-2147483647 - 1, 3}, {2147483647, 0}, {-1, -9}, {0, 0}});
  ASSERT_EQ(kOk, engine.quick_sort_fsid_pair(fsid_num, fsid.get()));
  freq = mallocArray<uint32_t>(7);
  std::fill_n(freq.get(), 7, 0);
  EXPECT_EQ((std::vector<Entry>{{-2147483647 - 1, 3, 0},
                                {-1, -9, 0},
                                {-1, 9, 0},
                                {0, 0, 0},
                                {5, -1, 0},
                                {5, 1, 0},
                                {2147483647, 0, 0}}),
            entries());
}

TEST_F(Ranking, TheFilesAreSortedBySourceFallingCountAndFile) {
  take({{1, 2}, {2, 2}, {-3, 2}, {4, -7}, {5, 2}});
  freq = mallocArray<uint32_t>(5);
  const uint32_t counts[] = {3, 0xffffffff, 3, 1, 0};
  std::copy(counts, counts + 5, freq.get());
  ASSERT_EQ(kOk, engine.quick_sort_fsid_freq_pair(5, fsid.get(), freq.get()));
  EXPECT_EQ((std::vector<Entry>{{4, -7, 1}, {2, 2, 0xffffffff}, {-3, 2, 3}, {1, 2, 3}, {5, 2, 0}}),
            entries());
}

TEST_F(Ranking, NothingToSortIsAStateError) {
  EXPECT_EQ(kErrState, engine.quick_sort_fsid_pair(0, nullptr));
  EXPECT_EQ(kErrState, engine.quick_sort_fsid_freq_pair(0, nullptr, nullptr));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Ranking, OnePairIsSortedWithoutMemoryAndGivesOneCandidateWithCount1) {
  FailPoint point;
  point.fail(Call::kAllocate, 1, true);
  FsidPair pair = {3, 4};
  uint32_t count = 5;
  EXPECT_EQ(kOk, engine.quick_sort_fsid_pair(1, &pair));
  EXPECT_EQ(kOk, engine.quick_sort_fsid_freq_pair(1, &pair, &count));
  EXPECT_EQ(0, point.count());
  point.fail(Call::kAllocate, 0);
  ASSERT_EQ(kOk, process({{3, 4}}));
  EXPECT_EQ((std::vector<Entry>{{3, 4, 1}}), entries());
  EXPECT_EQ(3, point.count());  // the counts, and the two kept arrays
}

TEST_F(Ranking, TheStacksOfBothSortsHaveTheirMessages) {
  const std::vector<int> worst = adversary::deepestSort(30600);
  const auto n = static_cast<uint32_t>(worst.size());
  const struct {
    int call;
    const char* message;
  } cases[] = {{1, "no mem for stack"},
               {2, "no mem for stack"},
               {3, "no mem for stack l to expand"},
               {4, "no mem for stack r to expand"}};
  FailPoint point;
  for (const auto& c : cases) {
    std::vector<FsidPair> pairs;
    for (const int value : worst) pairs.push_back({value, 0});
    log.clear();
    point.fail(Call::kAllocate, c.call);
    EXPECT_EQ(kErrMem, engine.quick_sort_fsid_pair(n, pairs.data()));
    expectMessages({c.message}, "quick_sort_fsid_pair");

    for (size_t i = 0; i < worst.size(); ++i) pairs[i] = {worst[i], 0};
    std::vector<uint32_t> counts(worst.size(), 1);
    log.clear();
    point.fail(Call::kAllocate, c.call);
    EXPECT_EQ(kErrMem, engine.quick_sort_fsid_freq_pair(n, pairs.data(), counts.data()));
    expectMessages({c.message}, "quick_sort_fsid_freq_pair");
  }
}

// ---- Counting and choosing --------------------------------------------------------

TEST_F(Ranking, AFileHitUnderTwoSourcesCountsOnceUnderTheSmallerOne) {
  ASSERT_EQ(kOk, process({{7, 5}, {8, 5}, {7, -2}, {7, 5}}));
  EXPECT_EQ((std::vector<Entry>{{7, -2, 3}, {8, 5, 1}}), entries());
}

TEST_F(Ranking, OfSevenFilesOfOneSourceTheFiveWithTheMostHitsStay) {
  ASSERT_EQ(
      kOk,
      select({{10, 1, 3}, {20, 1, 8}, {30, 1, 1}, {40, 1, 9}, {15, 1, 8}, {5, 1, 3}, {50, 1, 7}}));
  EXPECT_EQ((std::vector<Entry>{{40, 1, 9}, {15, 1, 8}, {20, 1, 8}, {50, 1, 7}, {5, 1, 3}}),
            entries());
}

TEST_F(Ranking, EverySourceHasItsOwnFive) {
  const std::pair<int, int> sources_and_files[] = {{-1, 2}, {0, 5}, {9, 7}};
  std::vector<Entry> all, expected;
  for (int i = 0; i < 8; ++i) all.push_back({100 + i, 20, static_cast<uint32_t>(i)});
  for (const auto& [source, files] : sources_and_files) {
    for (int fid = 0; fid < files; ++fid) all.push_back({fid, source, 1});
    for (int fid = 0; fid < std::min(files, 5); ++fid) expected.push_back({fid, source, 1});
  }
  for (int i = 7; i > 2; --i) expected.push_back({100 + i, 20, static_cast<uint32_t>(i)});
  ASSERT_EQ(kOk, select(all));
  EXPECT_EQ(expected, entries());
}

TEST_F(Ranking, NoFilesToChooseFromAreAStateError) {
  EXPECT_EQ(kErrState, select({}));
  expectMessages({"fid_num == 0"}, "select_relevant_fid");
}

TEST_F(Ranking, NoPairsToCountAreAStateError) {
  EXPECT_EQ(kErrState, process({}));
  expectMessages({"quick_sort_fsid_pair fsid fail"}, "process_fid_info");
}

TEST_F(Ranking, FailuresOfCountingHaveTheirMessagesAndLeaveNoCounts) {
  FailPoint point;
  const std::vector<FsidPair> pairs = {{1, 1}, {2, 1}, {1, 1}};
  const struct {
    int call;
    Messages messages;
  } cases[] = {
      {1, {"no mem for stack", "quick_sort_fsid_pair fsid fail"}},
      {2, {"no mem for stack", "quick_sort_fsid_pair fsid fail"}},
      {3, {"no mem for freq"}},
      {4,
       {"no mem for stack", "quick_sort_fsid_freq_pair fail",
        "quick_sort_fid_by_descend_freq fail"}},
      {6, {"no mem for fsid_rel", "quick_sort_fid_by_descend_freq fail"}},
      {7, {"no mem for freq_rel", "quick_sort_fid_by_descend_freq fail"}},
  };
  for (const auto& c : cases) {
    point.fail(Call::kAllocate, c.call);
    EXPECT_EQ(kErrMem, process(pairs));
    EXPECT_FALSE(freq);
    EXPECT_EQ(c.call <= 3 ? 3u : 2u, fsid_num);  // the distinct files once they are known
    expectMessages(c.messages, "process_fid_info");
  }
  point.fail(Call::kAllocate, 0);
  EXPECT_EQ(kOk, process(pairs));
  EXPECT_EQ(7, point.count());
}

}  // namespace
