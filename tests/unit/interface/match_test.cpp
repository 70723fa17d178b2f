// The exports of the match family, linked to the library's objects. The library
// reads the configuration once per process, so where the whole program is one
// process, FreshMatchExports comes before the first successful initialisation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "log_capture.h"
#include "plain_tables.h"
#include "tessera.h"
#include "vn_search_system.h"

#if defined(__SANITIZE_THREAD__)
// An unlock that is not this thread's to do; the mutex only refuses it.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "mutex:vnGetSearchTableSigGenLevel\n";
}
#endif

namespace {

using documents::signature;
using plain_tables::element;
using Messages = std::vector<std::string>;

constexpr char kConfig[] = "index_sys_config.txt";

Signature at(int place) { return signature({0x20, 0, 0, 0, 0, 0, place / 256, place % 256}); }

// A null result variable is refused, so callers set it to anything else.
_DLPSigMatchRet* anything() {
  static _DLPSigMatchRet record;
  return &record;
}

Messages ownLines(const LogCapture& log) {
  Messages all;
  for (const LogLine& line : log.lines()) {
    if (line.tag != "TESSERA_MODULE") continue;
    EXPECT_EQ(3, line.level);
    EXPECT_EQ("Error", line.word);
    all.push_back(line.text);
  }
  return all;
}

TEST(FreshMatchExports, ExitBeforeAnyInitReturns1) {
  LogCapture log;
  EXPECT_EQ(1, ExitMatchSystem());
  EXPECT_TRUE(log.lines().empty());
}

TEST(FreshMatchExports, InitWithoutAConfigurationReturns1) {
  TempDir dir;
  LogCapture log;
  EXPECT_EQ(1, InitMatchSystem());
  EXPECT_EQ(Messages{"#<InitMatchSystem>#init search system fail"}, ownLines(log));
}

TEST(FreshMatchExports, AMatchBeforeInitReturns1) {
  LogCapture log;
  Signature query = at(1);
  _DLPSigMatchRet* result = anything();
  int count = 99;
  EXPECT_EQ(1, MatchSignature(&query.bytes, 1, 0, &result, &count));
  EXPECT_EQ(nullptr, result);
  EXPECT_EQ(0, count);
  EXPECT_EQ((Messages{"search engine not started when search", "Search signature fail!"}),
            log.messages());
}

class MatchExports : public testing::Test {
 protected:
  MatchExports() {
    dir.write(kConfig, "max_ele_num_load = 7\n");
    // Number i stands in the files 0 to i, which are all of the source 1.
    for (int i = 0; i < 12; ++i) {
      for (int fid = 0; fid <= i; ++fid) elements.push_back(element(at(i), fid, 1));
    }
    plain_tables::write(dir, plain_tables::make(elements, {1000, 3}));
  }
  ~MatchExports() override {
    std::free(owned());
    ExitMatchSystem();
  }

  void init() {
    ASSERT_EQ(0, InitMatchSystem());
    log.clear();
  }

  int match(std::vector<Signature> query, int fsz = 0) {
    std::free(owned());
    result = anything();
    count = 99;
    log.clear();
    query.reserve(1);
    return MatchSignature(&query.data()->bytes, static_cast<int>(query.size()), fsz, &result,
                          &count);
  }

  _DLPSigMatchRet* owned() { return result == anything() ? nullptr : result; }

  TempDir dir;
  LogCapture log;
  std::vector<StrongElement> elements;
  _DLPSigMatchRet* result = anything();
  int count = 99;
};

TEST_F(MatchExports, ASecondInitReturns1WithoutAWord) {
  init();
  EXPECT_EQ(1, InitMatchSystem());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(0, match({at(1)}));
}

TEST_F(MatchExports, InitMayFollowAnExitAndKeepsTheConfiguration) {
  init();
  EXPECT_EQ(0, ExitMatchSystem());
  std::filesystem::remove(kConfig);
  EXPECT_EQ(0, InitMatchSystem());
  EXPECT_EQ(0, ExitMatchSystem());
  EXPECT_EQ(1, ExitMatchSystem());
}

TEST_F(MatchExports, TheLevelOfTheTablesIsNotHeldAgainstAnything) {
  plain_tables::write(dir, plain_tables::make(elements, {1000, 77}));
  EXPECT_EQ(0, InitMatchSystem());
}

TEST_F(MatchExports, MissingMetaDataFailsInitAndALaterInitProceeds) {
  std::filesystem::remove("sig_index_DB/search_table.wmeta");
  EXPECT_EQ(1, InitMatchSystem());
  EXPECT_EQ(Messages{"#<InitMatchSystem>#get sig gen level fail on sig_index_DB"}, ownLines(log));
  EXPECT_EQ(1, ExitMatchSystem());
  plain_tables::write(dir, plain_tables::make(elements, {1000, 3}));
  EXPECT_EQ(0, InitMatchSystem());
}

TEST_F(MatchExports, TablesThatDoNotLoadFailInitAndALaterInitProceeds) {
  dir.write("sig_index_DB/search_table.stbl", "");
  EXPECT_EQ(1, InitMatchSystem());
  EXPECT_EQ(Messages{"#<InitMatchSystem>#start doc crawl fail!"}, ownLines(log));
  plain_tables::write(dir, plain_tables::make(elements, {1000, 3}));
  EXPECT_EQ(0, InitMatchSystem());
}

TEST_F(MatchExports, AMatchGivesFileIdsAndLevelsInTheOrderOfTheRanking) {
  init();
  std::vector<Signature> query;
  for (int i = 0; i < 12; ++i) query.push_back(at(i));
  for (int i = 12; i < 130; ++i) query.push_back(at(i));
  ASSERT_EQ(0, match(query, 5000));
  ASSERT_EQ(5, count);
  const int levels[] = {2, 2, 2, 2, 1};  // 12, 11, 10, 9 and 8 of 130
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(1000 + i, result[i].fileID);
    EXPECT_EQ(levels[i], result[i].match_level);
  }
  ASSERT_EQ(0, match({at(11)}, 0));
  ASSERT_EQ(5, count);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(2, result[i].match_level);
}

TEST_F(MatchExports, TheResultIsFreedByItsOwnExport) {
  init();
  ASSERT_EQ(0, match({at(3)}));
  EXPECT_EQ(0, FreeSigMatchRet(owned()));
  result = anything();
  EXPECT_EQ(0, FreeSigMatchRet(nullptr));
}

TEST_F(MatchExports, AResultVariableThatHoldsNullReturns1AndTouchesNothing) {
  init();
  Signature query = at(1);
  _DLPSigMatchRet* null = nullptr;
  count = 99;
  EXPECT_EQ(1, MatchSignature(&query.bytes, 1, 0, &null, &count));
  EXPECT_EQ(99, count);
  EXPECT_EQ(nullptr, null);
  EXPECT_EQ(1, MatchSignature(&query.bytes, 1, 0, nullptr, &count));
  EXPECT_EQ(99, count);
  EXPECT_EQ(1, MatchSignature(nullptr, -1, 0, &null, &count));
  EXPECT_EQ(99, count);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(MatchExports, WithoutAPlaceForTheCountTheResultIsClearedAndRefused) {
  init();
  Signature query = at(1);
  EXPECT_EQ(1, MatchSignature(&query.bytes, 1, 0, &result, nullptr));
  EXPECT_EQ(nullptr, result);
}

TEST_F(MatchExports, ANegativeCountOrAMissingListIsRefusedAndClearsTheOutputs) {
  init();
  Signature query = at(1);
  EXPECT_EQ(1, MatchSignature(&query.bytes, -1, 0, &result, &count));
  EXPECT_EQ(nullptr, result);
  EXPECT_EQ(0, count);
  result = anything();
  count = 99;
  EXPECT_EQ(1, MatchSignature(nullptr, 1, 0, &result, &count));
  EXPECT_EQ(nullptr, result);
  EXPECT_EQ(0, count);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(MatchExports, AQueryThatMatchesNothingIsASuccessWithABlockOfNoBytes) {
  init();
  ASSERT_EQ(0, match({at(200)}));
  EXPECT_EQ(0, count);
  EXPECT_NE(nullptr, result);
  EXPECT_NE(anything(), result);
  EXPECT_TRUE(ownLines(log).empty());
}

TEST_F(MatchExports, AnEmptyQueryIsASuccessButNotWithoutAList) {
  init();
  ASSERT_EQ(0, match({}));
  EXPECT_EQ(0, count);
  EXPECT_NE(nullptr, result);
  EXPECT_EQ(Messages{"no sig to find (sig_num == 0)"}, log.messages());
  std::free(owned());
  result = anything();
  EXPECT_EQ(1, MatchSignature(nullptr, 0, 0, &result, &count));
  EXPECT_EQ(0, count);
  EXPECT_EQ(nullptr, result);
}

TEST_F(MatchExports, WithoutMemoryForTheRecordsTheCountStays) {
  init();
  FailPoint point;
  point.fail(Call::kAllocate, 0);
  ASSERT_EQ(0, match({at(3)}));
  const int all = point.count();
  for (int n = 1; n < all; ++n) {
    point.fail(Call::kAllocate, n);
    EXPECT_EQ(1, match({at(3)}));
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(0, count);
    EXPECT_EQ(Messages{"#<MatchSignature>#Search signature fail!"}, ownLines(log));
  }
  point.fail(Call::kAllocate, all);
  EXPECT_EQ(1, match({at(3)}));
  EXPECT_EQ(nullptr, result);
  EXPECT_EQ(4, count);
  EXPECT_EQ(Messages{"#<MatchSignature>#No enough space for match result"}, ownLines(log));
}

TEST_F(MatchExports, ATableThatCannotBeReadFailsTheMatch) {
  init();
  std::filesystem::remove("sig_index_DB/search_table.stbl");
  EXPECT_EQ(1, match({at(3)}));
  EXPECT_EQ(Messages{"#<MatchSignature>#Search signature fail!"}, ownLines(log));
}

TEST_F(MatchExports, AFailedStopsStatusIsHandedThroughAndTheSystemStaysInitialised) {
  init();
  pthread_mutex_lock(&search_engine_mutex);
  EXPECT_EQ(-1, ExitMatchSystem());
  pthread_mutex_unlock(&search_engine_mutex);
  EXPECT_EQ(Messages{"#<ExitMatchSystem>#Stop search engine fail!"}, ownLines(log));
  EXPECT_EQ(1, InitMatchSystem());
  EXPECT_EQ(0, ExitMatchSystem());
}

TEST_F(MatchExports, AMatchAfterExitReturns1) {
  init();
  ASSERT_EQ(0, ExitMatchSystem());
  EXPECT_EQ(1, match({at(3)}));
}

TEST_F(MatchExports, ThreadsMatchSideBySide) {
  init();
  std::vector<Signature> query;
  for (int i = 0; i < 20; ++i) query.push_back(at(i));
  std::vector<int> mistakes(8, 0);
  std::vector<std::thread> threads;
  for (int& wrong : mistakes) {
    threads.emplace_back([&] {
      std::vector<Signature> own = query;
      for (int round = 0; round < 20; ++round) {
        _DLPSigMatchRet* records = anything();
        int n = 0;
        if (MatchSignature(&own.data()->bytes, 20, 0, &records, &n) != 0 || n != 5 ||
            records[4].fileID != 1004) {
          ++wrong;
        }
        std::free(records);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(8, 0), mistakes);
}

}  // namespace
