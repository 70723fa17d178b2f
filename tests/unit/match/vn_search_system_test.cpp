// The search system lives once per process and never forgets its configuration.
// Where the whole program runs in one process the tests of FreshSearchSystem,
// which come first, end before the first successful initialisation; all others
// work with the same configuration.
#include "vn_search_system.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "hooked_system.h"
#include "log_capture.h"
#include "match_twin.h"
#include "plain_tables.h"
#include "status.h"
#include "tessera_log.h"

#if defined(__SANITIZE_THREAD__)
// The unlock that is not this thread's to do, and the ones that tests provoke.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "mutex:vnGetSearchTableSigGenLevel\n"
         "mutex:vnStartSearchEngine\n"
         "mutex:vnStopSearchEngine\n";
}
#endif

namespace {

using documents::signature;
using plain_tables::element;
using Messages = std::vector<std::string>;

constexpr char kConfig[] = "index_sys_config.txt";
constexpr char kIndex[] = "sig_index_DB";

Signature at(int place) { return signature({0x20, 0, 0, 0, 0, 0, place / 256, place % 256}); }

// Holds a mutex, so that its own thread cannot lock it.
class Held {
 public:
  explicit Held(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~Held() { pthread_mutex_unlock(mutex_); }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;

 private:
  pthread_mutex_t* const mutex_;
};

std::string text(const LogLine& line) {
  return line.word + " " + std::to_string(line.level) + " " + line.tag + " " + line.text;
}

// "Error 3 fpe_sig_search #<function>#message" for each.
Messages errors(const std::string& function, const Messages& messages) {
  Messages all;
  for (const std::string& message : messages) {
    all.push_back("Error 3 fpe_sig_search #<" + function + ">#" + message);
  }
  return all;
}

Messages texts(const LogCapture& log) {
  Messages all;
  for (const LogLine& line : log.lines()) all.push_back(text(line));
  return all;
}

// ---- Before anything is initialised -----------------------------------------------

TEST(FreshSearchSystem, NothingWorksBeforeTheInitialisation) {
  TempDir dir;
  LogCapture log;
  int inited = 99;
  ASSERT_EQ(kOk, is_search_system_init(&inited));
  ASSERT_EQ(0, inited);

  uint32_t level = 99;
  EXPECT_EQ(kErrState, vnGetSearchTableSigGenLevel(&level, kIndex, 17));
  EXPECT_EQ(kErrState, vnStartSearchEngine(kIndex, 17, &level));
  EXPECT_EQ(kErrState, vnStopSearchEngine());
  EXPECT_EQ(99u, level);
  EXPECT_EQ(
      (Messages{"Error 3 fpe_sig_search #<vnGetSearchTableSigGenLevel>#start search engine before "
                "init search system",
                "Error 3 fpe_sig_search #<vnStartSearchEngine>#start search engine before init "
                "search system",
                "Error 3 fpe_sig_search #<vnStopSearchEngine>#stop search engine before init "
                "search system"}),
      texts(log));

  log.clear();
  SearchResult result;
  result.fid_num = 99;
  const Signature query = at(1);
  EXPECT_EQ(kErrState, vnSearchSignatures(1, &query, 0, &result));
  EXPECT_EQ(errors("vnSearchSignatures", {"search engine not started when search"}), texts(log));
  EXPECT_EQ(0u, result.fid_num);
}

TEST(FreshSearchSystem, AConfigurationThatCannotBeLoadedLeavesItUninitialised) {
  TempDir dir;
  LogCapture log;
  EXPECT_EQ(kErrFile, vnInitSearchSystem());
  EXPECT_EQ((Messages{"open config file index_sys_config.txt fail",
                      "load search sys configuration fail"}),
            log.messages());
  EXPECT_EQ("Error 3 fpe_sig_search #<vnInitSearchSystem>#load search sys configuration fail",
            texts(log).back());
  dir.write(kConfig, "max_fid_num = -1\n");
  EXPECT_EQ(kErrFormat, vnInitSearchSystem());
  int inited = 99;
  EXPECT_EQ(kOk, is_search_system_init(&inited));
  EXPECT_EQ(0, inited);
}

// A number for a name takes the last text before it, here none.
TEST(FreshSearchSystem, AnEmptyTableNameLeavesItUninitialised) {
  TempDir dir;
  LogCapture log;
  dir.write(kConfig, "search_table_fname = 5\n");
  EXPECT_EQ(kErrTableName, vnInitSearchSystem());
  EXPECT_EQ((Messages{"Error 3 fpe_sig_search #<FidIndexSearchEngine::setConfig>#invalid search "
                      "table file name",
                      "Error 3 fpe_sig_search #<vnInitSearchSystem>#set search engine config fail",
                      "Error 3 fpe_sig_search #<vnInitSearchSystem>#init search system fail"}),
            texts(log));
  int inited = 99;
  EXPECT_EQ(kOk, is_search_system_init(&inited));
  EXPECT_EQ(0, inited);
}

// ---- With the configuration of all tests from here on ---------------------------------

class SearchSystem : public testing::Test {
 protected:
  SearchSystem() {
    dir.write(kConfig, "max_ele_num_load = 5\n");
    EXPECT_EQ(kOk, vnInitSearchSystem());
    // Number i stands in the files 0 to i; file f has the source f % 2.
    for (int i = 0; i < 20; ++i) {
      for (int fid = 0; fid <= i; ++fid) elements.push_back(element(at(i), fid - 3, fid % 2));
    }
    plain_tables::write(dir, plain_tables::make(elements, {10000000000, 6}));
  }
  ~SearchSystem() override {
    vnStopSearchEngine();
    platform::replace(nullptr);
  }

  void start() {
    ASSERT_EQ(kOk, vnStartSearchEngine(kIndex, 17, nullptr));
    log.clear();
  }

  int search(const std::vector<Signature>& query, int fsz = 1000) {
    log.clear();
    return vnSearchSignatures(static_cast<uint32_t>(query.size()), query.data(), fsz, &result);
  }

  void expectCandidates(bool present) {
    EXPECT_EQ(present, result.fileID != nullptr);
    EXPECT_EQ(present, result.srcID != nullptr);
    EXPECT_EQ(present, result.freq != nullptr);
    EXPECT_EQ(present, result.match_level != nullptr);
  }
  void expectRanges(bool present) {
    EXPECT_EQ(present, result.bFind != nullptr);
    EXPECT_EQ(present, result.st_pos != nullptr);
    EXPECT_EQ(present, result.en_pos != nullptr);
  }

  TempDir dir;
  LogCapture log;
  std::vector<StrongElement> elements;
  SearchResult result;
};

TEST_F(SearchSystem, TheConfigurationIsReadOncePerProcess) {
  dir.write(kConfig, "max_fid_num = -1\n");
  EXPECT_EQ(kOk, vnInitSearchSystem());
  start();
  EXPECT_EQ(kOk, vnStopSearchEngine());
  EXPECT_EQ(kOk, vnInitSearchSystem());
  std::filesystem::remove(kConfig);
  EXPECT_EQ(kOk, vnInitSearchSystem());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SearchSystem, TheLevelOfTheTablesIsReadWithoutLoadingThem) {
  uint32_t level = 99;
  EXPECT_EQ(kOk, vnGetSearchTableSigGenLevel(&level, kIndex, 17));
  EXPECT_EQ(6u, level);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(kErrState, search({at(1)}));
}

TEST_F(SearchSystem, TheIndexNameAndTheNumberSteerNothing) {
  uint32_t level = 99;
  EXPECT_EQ(kOk, vnGetSearchTableSigGenLevel(&level, "elsewhere", -1));
  EXPECT_EQ(6u, level);
  EXPECT_EQ(kOk, vnStartSearchEngine(nullptr, 0, &level));
}

// The unlock of a mutex that was never locked must do no harm.
TEST_F(SearchSystem, AFailedReadOfTheLevelLeavesTheMutexUsable) {
  std::filesystem::remove("sig_index_DB/search_table.wmeta");
  uint32_t level = 99;
  EXPECT_EQ(kErrFile, vnGetSearchTableSigGenLevel(&level, kIndex, 17));
  EXPECT_EQ(99u, level);
  EXPECT_EQ(
      (Messages{"open file sig_index_DB/search_table.wmeta fail", "getSearchTableMetaData fail"}),
      log.messages());
  EXPECT_EQ(errors("vnGetSearchTableSigGenLevel", {"getSearchTableMetaData fail"})[0],
            texts(log)[1]);

  const Held held(&search_engine_mutex);
  int status = 0;
  std::thread other([&] { status = pthread_mutex_trylock(&search_engine_mutex); });
  other.join();
  EXPECT_NE(0, status);
}

TEST_F(SearchSystem, TheUnlockAfterAFailedReadDoesNotTakeTheMutexFromItsHolder) {
  std::filesystem::remove("sig_index_DB/search_table.wmeta");
  const Held held(&search_engine_mutex);
  int ret = 0;
  int status = 0;
  std::thread other([&] {
    uint32_t level;
    ret = vnGetSearchTableSigGenLevel(&level, kIndex, 17);
    status = pthread_mutex_trylock(&search_engine_mutex);
  });
  other.join();
  EXPECT_EQ(kErrFile, ret);
  EXPECT_NE(0, status);
}

// The unlock is there all the same: who holds the mutex itself loses it.
TEST_F(SearchSystem, TheUnlockAfterAFailedReadTakesTheMutexFromItsOwnThread) {
  std::filesystem::remove("sig_index_DB/search_table.wmeta");
  ASSERT_EQ(0, pthread_mutex_lock(&search_engine_mutex));
  uint32_t level;
  EXPECT_EQ(kErrFile, vnGetSearchTableSigGenLevel(&level, kIndex, 17));
  EXPECT_EQ(0, pthread_mutex_trylock(&search_engine_mutex)) << "it is free";
  EXPECT_EQ(0, pthread_mutex_unlock(&search_engine_mutex));
}

TEST_F(SearchSystem, StartStoresTheLevelWhenAsked) {
  uint32_t level = 99;
  EXPECT_EQ(kOk, vnStartSearchEngine(kIndex, 17, &level));
  EXPECT_EQ(6u, level);
  EXPECT_EQ(Messages{"Info 3 fpe_sig_search #<vnStartSearchEngine>#search engine start"},
            texts(log));
}

TEST_F(SearchSystem, ASecondStartLoadsNothingAndLeavesTheLevelAlone) {
  start();
  dir.write("sig_index_DB/search_table.wtbl", "");
  uint32_t level = 99;
  EXPECT_EQ(kOk, vnStartSearchEngine(kIndex, 17, &level));
  EXPECT_EQ(99u, level);
  EXPECT_EQ(Messages{"Info 3 fpe_sig_search #<vnStartSearchEngine>#search engine already started"},
            texts(log));
}

TEST_F(SearchSystem, AFailedStartGivesTheEnginesStatus) {
  dir.write("sig_index_DB/search_table.wtbl", "");
  uint32_t level = 99;
  EXPECT_EQ(kErrWeakTable, vnStartSearchEngine(kIndex, 17, &level));
  EXPECT_EQ(99u, level);
  EXPECT_EQ(errors("vnStartSearchEngine", {"init search engine fail"})[0], texts(log).back());
  EXPECT_EQ(kErrState, search({at(1)}));
}

TEST_F(SearchSystem, ASearchAfterAStopIsRefused) {
  start();
  EXPECT_EQ(kOk, search({at(1)}));
  EXPECT_EQ(kOk, vnStopSearchEngine());
  EXPECT_EQ(kErrState, search({at(1)}));
  EXPECT_EQ(errors("vnSearchSignatures", {"search engine not started when search"}), texts(log));
  expectRanges(false);
}

TEST_F(SearchSystem, ASecondStopIsHarmless) {
  start();
  EXPECT_EQ(kOk, vnStopSearchEngine());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(kOk, vnStopSearchEngine());
  EXPECT_EQ(Messages{"Info 3 fpe_sig_search #<vnStopSearchEngine>#search engine already stopped"},
            texts(log));
}

TEST_F(SearchSystem, AStartMayFollowAStopAndLoadsTheTablesOfThen) {
  start();
  EXPECT_EQ(kOk, vnStopSearchEngine());
  plain_tables::write(dir, plain_tables::make({element(at(100), 5, 1)}, {-8, 2}));
  uint32_t level = 99;
  EXPECT_EQ(kOk, vnStartSearchEngine(kIndex, 17, &level));
  EXPECT_EQ(2u, level);
  ASSERT_EQ(kOk, search({at(1), at(100)}));
  ASSERT_EQ(1u, result.fid_num);
  EXPECT_EQ(-3, result.fileID[0]);
}

// Whichever of its two openings of the table the stop comes before.
TEST_F(SearchSystem, ASearchEndsWithItsTablesWhenTheEngineIsStoppedMeanwhile) {
  for (const int opening : {1, 2}) {
    start();
    ASSERT_EQ(kOk, search({at(19)}));
    const uint32_t candidates = result.fid_num;
    ASSERT_LT(0u, candidates);
    HookedSystem hooked;
    int stopped = -99;
    hooked.beforeOpen(opening, ".stbl", [&] { stopped = vnStopSearchEngine(); });
    EXPECT_EQ(kOk, search({at(19)}));
    EXPECT_EQ(kOk, stopped);
    EXPECT_EQ(candidates, result.fid_num);
    EXPECT_EQ(kErrState, search({at(19)}));
  }
}

// The same elements under another base, as after an index was made anew.
TEST_F(SearchSystem, ASearchKeepsTheFileIdBaseItBeganWith) {
  start();
  HookedSystem hooked;
  hooked.beforeOpen(1, ".stbl", [&] {
    EXPECT_EQ(kOk, vnStopSearchEngine());
    plain_tables::write(dir, plain_tables::make(elements, {500, 6}));
    EXPECT_EQ(kOk, vnStartSearchEngine(kIndex, 17, nullptr));
  });
  ASSERT_EQ(kOk, search({at(0)}));
  ASSERT_EQ(1u, result.fid_num);
  EXPECT_EQ(10000000000 - 3, result.fileID[0]);
  ASSERT_EQ(kOk, search({at(0)}));
  EXPECT_EQ(500 - 3, result.fileID[0]);
}

TEST_F(SearchSystem, TablesRewrittenSinceTheStartFailEverySearchUntilTheNextStart) {
  start();
  elements.push_back(element(at(500), 7, 1));
  plain_tables::write(dir, plain_tables::make(elements, {10000000000, 6}));
  EXPECT_EQ(kErrFile, search({at(1)}));
  EXPECT_EQ(kErrFile, search({at(500)}));
  expectCandidates(false);
  EXPECT_EQ(kOk, vnStopSearchEngine());
  start();
  ASSERT_EQ(kOk, search({at(500)}));
  EXPECT_EQ(1u, result.fid_num);
}

TEST_F(SearchSystem, AQueryThatMatchesNothingIsASuccessWithoutCandidates) {
  start();
  EXPECT_EQ(kOk, search({at(50), at(60)}));
  EXPECT_EQ(0u, result.fid_num);
  EXPECT_EQ(0u, result.sig_find_num);
  expectCandidates(false);
  expectRanges(true);
}

TEST_F(SearchSystem, AnEmptyQueryIsASuccess) {
  start();
  EXPECT_EQ(kOk, search({}));
  EXPECT_EQ(0u, result.fid_num);
  EXPECT_EQ(Messages{"no sig to find (sig_num == 0)"}, log.messages());
  expectCandidates(false);
}

TEST_F(SearchSystem, CandidatesBearFileIdsSourcesHitsAndLevels) {
  start();
  std::vector<Signature> query;
  for (int i = 0; i < 20; ++i) query.push_back(at(i));
  for (int i = 20; i < 100; ++i) query.push_back(at(i));
  ASSERT_EQ(kOk, search(query));
  EXPECT_EQ(20u, result.sig_find_num);
  const auto expected = match_twin::candidates(match_twin::pairs(elements, query));
  ASSERT_EQ(expected.size(), result.fid_num);
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(10000000000 + expected[i].fid, result.fileID[i]);
    EXPECT_EQ(static_cast<uint32_t>(expected[i].source), result.srcID[i]);
    EXPECT_EQ(expected[i].hits, result.freq[i]);
    EXPECT_EQ(match_twin::level(100, 1000, expected[i].hits), result.match_level[i]);
  }
  EXPECT_TRUE(result.bFind[7] == 1 && result.st_pos[7] == 28 && result.en_pos[7] == 36);
  EXPECT_EQ(0u, result.bFind[50]);
}

TEST_F(SearchSystem, FilesWithTheSignBitAreSubtractedFromTheBase) {
  plain_tables::write(
      dir, plain_tables::make({element(at(1), -2147483647 - 1, -1), element(at(1), 2147483647, -1)},
                              {5, 1}));
  start();
  ASSERT_EQ(kOk, search({at(1)}));
  ASSERT_EQ(2u, result.fid_num);
  EXPECT_EQ(-2147483643, result.fileID[0]);
  EXPECT_EQ(2147483652, result.fileID[1]);
  EXPECT_EQ(0xffffffffu, result.srcID[0]);
}

TEST_F(SearchSystem, ABaseAtTheEndOfTheNumbersWrapsAround) {
  plain_tables::write(dir, plain_tables::make({element(at(1), 1, 1)}, {INT64_MAX, 1}));
  start();
  ASSERT_EQ(kOk, search({at(1)}));
  EXPECT_EQ(INT64_MIN, result.fileID[0]);
}

TEST_F(SearchSystem, ASearchClearsTheRecordItIsGiven) {
  start();
  ASSERT_EQ(kOk, search({at(1)}));
  expectCandidates(true);
  EXPECT_EQ(kOk, search({at(50)}));
  EXPECT_EQ(0u, result.fid_num);
  EXPECT_EQ(0u, result.sig_find_num);
  expectCandidates(false);
}

TEST_F(SearchSystem, MemoryThatIsOutHasItsMessageAndLeavesNothingBehind) {
  start();
  FailPoint point;
  const char* const first[] = {"no mem for search_ret.bFind", "no mem for search_ret.st_pos",
                               "no mem for search_ret.en_pos"};
  for (int n = 1; n <= 3; ++n) {
    point.fail(Call::kAllocate, n);
    EXPECT_EQ(kErrMem, search({at(1)}));
    EXPECT_EQ(errors("vnSearchSignatures", {first[n - 1]}), texts(log));
    expectRanges(false);
    expectCandidates(false);
  }

  point.fail(Call::kAllocate, 0);
  ASSERT_EQ(kOk, search({at(1)}));
  const int all = point.count();
  for (int n = 4; n <= all; ++n) {
    SCOPED_TRACE(n);
    point.fail(Call::kAllocate, n);
    EXPECT_EQ(kErrMem, search({at(1)}));
    expectRanges(false);
    expectCandidates(false);
    if (n == all) {
      EXPECT_EQ((Messages{"no mem for match_level", "calc_matching_level fail (fsz = 1000)"}),
                log.messages());
      EXPECT_EQ("calc_matching_level2", log.lines()[0].function);
    } else if (n == all - 1) {
      EXPECT_EQ(errors("vnSearchSignatures", {"no mem for search_ret.srcID"}), texts(log));
    } else if (n == all - 2) {
      EXPECT_EQ(errors("vnSearchSignatures", {"no mem for search_ret.fileID"}), texts(log));
    } else {
      EXPECT_TRUE(log.has("search engine fail"));
    }
  }
}

TEST_F(SearchSystem, AFailedSearchReportsItsCounts) {
  start();
  FailPoint point;
  point.fail(Call::kOpen, 1);
  EXPECT_EQ(kErrFile, search({at(1), at(2), at(50)}));
  const size_t last = log.lines().size() - 1;
  EXPECT_EQ(errors("vnSearchSignatures",
                   {"search engine fail", "sig_num = 3   sig_find_num = 0   fid_num = 0"}),
            (Messages{texts(log)[last - 1], texts(log)[last]}));
  point.fail(Call::kAllocate, 11, true);
  EXPECT_EQ(kErrMem, search({at(1), at(2), at(50)}));
  EXPECT_EQ("sig_num = 3   sig_find_num = 2   fid_num = 5", log.messages().back());
}

TEST_F(SearchSystem, AMutexThatCannotBeLockedFailsEveryFunction) {
  const Signature query = at(1);
  uint32_t level = 99;
  {
    const Held held(&search_sys_init_mutex);
    int inited = 99;
    EXPECT_EQ(kErrState, vnInitSearchSystem());
    EXPECT_EQ(kErrState, is_search_system_init(&inited));
    EXPECT_EQ(errors("vnInitSearchSystem", {"lock search_sys_init_mutex fail"})[0], texts(log)[0]);
    EXPECT_EQ(errors("is_search_system_init", {"lock search_sys_init_mutex fail"})[0],
              texts(log)[1]);
    log.clear();
    EXPECT_EQ(kErrState, vnGetSearchTableSigGenLevel(&level, kIndex, 17));
    EXPECT_EQ(kErrState, vnStartSearchEngine(kIndex, 17, &level));
    EXPECT_EQ(kErrState, vnStopSearchEngine());
    const Messages lines = texts(log);
    ASSERT_EQ(6u, lines.size());
    EXPECT_EQ(errors("vnGetSearchTableSigGenLevel", {"is_search_system_init fail"})[0], lines[1]);
    EXPECT_EQ(errors("vnStartSearchEngine", {"is_search_system_init fail"})[0], lines[3]);
    EXPECT_EQ(errors("vnStopSearchEngine", {"is_search_system_init fail"})[0], lines[5]);
  }
  const Held held(&search_engine_mutex);
  log.clear();
  EXPECT_EQ(kErrState, vnStartSearchEngine(kIndex, 17, &level));
  EXPECT_EQ(kErrState, vnSearchSignatures(1, &query, 0, &result));
  EXPECT_EQ(kErrState, vnStopSearchEngine());
  EXPECT_EQ(
      (Messages{"Error 3 fpe_sig_search #<vnStartSearchEngine>#lock search_engine_mutex fail",
                "Error 3 fpe_sig_search #<vnSearchSignatures>#lock search_engine_mutex fail",
                "Error 3 fpe_sig_search #<vnStopSearchEngine>#lock search_engine_mutex fail"}),
      texts(log));
  EXPECT_EQ(99u, level);
}

// What the sink below has seen: the severity word and what follows the place.
std::vector<std::string> seen_lines;

// Unlocks the engine's mutex behind the library's back when it logs that the
// engine starts or stands.
int unlockEngine(const char* format, va_list arguments) {
  char line[300];
  std::vsnprintf(line, sizeof line, format, arguments);
  const std::string text = line;
  seen_lines.push_back(text.substr(0, text.find(' ')) + text.substr(text.find(":: ") + 2));
  if (text.find("#search engine ") != std::string::npos) {
    EXPECT_EQ(0, pthread_mutex_unlock(&search_engine_mutex));
  }
  return 0;
}

TEST_F(SearchSystem, AMutexThatCannotBeUnlockedFailsStartAndStop) {
  const auto linesOf = [](auto call) {
    seen_lines.clear();
    tessera_set_log_sink(3, unlockEngine);
    EXPECT_EQ(kErrState, call());
    tessera_set_log_sink(3, nullptr);
    return seen_lines;
  };
  const auto startEngine = [] { return vnStartSearchEngine(kIndex, 17, nullptr); };
  const std::string failed_start = "Error #<vnStartSearchEngine>#unlock search_engine_mutex fail";
  EXPECT_EQ(
      (std::vector<std::string>{"Info #<vnStartSearchEngine>#search engine start", failed_start}),
      linesOf(startEngine));
  EXPECT_EQ(kOk, search({at(1)}));  // started all the same
  EXPECT_EQ((std::vector<std::string>{"Info #<vnStartSearchEngine>#search engine already started",
                                      failed_start}),
            linesOf(startEngine));
  EXPECT_EQ(kOk, vnStopSearchEngine());
  EXPECT_EQ(
      (std::vector<std::string>{"Info #<vnStopSearchEngine>#search engine already stopped",
                                "Error #<vnStopSearchEngine>#unlock search_engine_mutex fail"}),
      linesOf(vnStopSearchEngine));
}

TEST_F(SearchSystem, ThreadsSearchSideBySide) {
  start();
  std::vector<Signature> query;
  for (int i = 0; i < 30; ++i) query.push_back(at(i));
  ASSERT_EQ(kOk, search(query));
  std::vector<int> mistakes(8, 0);
  std::vector<std::thread> threads;
  for (int& wrong : mistakes) {
    threads.emplace_back([&] {
      for (int round = 0; round < 20; ++round) {
        SearchResult found;
        const int ret = vnSearchSignatures(30, query.data(), 0, &found);
        if (ret != kOk || found.fid_num != result.fid_num ||
            !std::equal(found.fileID.get(), found.fileID.get() + found.fid_num,
                        result.fileID.get()) ||
            !std::equal(found.freq.get(), found.freq.get() + found.fid_num, result.freq.get())) {
          ++wrong;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(8, 0), mistakes);
}

// ---- The level ------------------------------------------------------------------

class MatchingLevel : public testing::Test {
 protected:
  int level(uint32_t sig_num, uint32_t hits, int fsz = 1) {
    SearchResult result;
    result.fid_num = 1;
    result.freq = mallocArray<uint32_t>(1);
    result.freq[0] = hits;
    EXPECT_EQ(kOk, calc_matching_level2(sig_num, fsz, &result));
    return static_cast<int>(result.match_level[0]);
  }

  LogCapture log;
};

TEST_F(MatchingLevel, WithAFileSizeOf0EveryCandidateIsA2) {
  EXPECT_EQ(2, level(1000, 1, 0));
  EXPECT_EQ(2, level(1000, 0, 0));
  EXPECT_EQ(0, level(1000, 1, -1));
}

TEST_F(MatchingLevel, Of100SignaturesATenthIs2AndATwentiethOr3Is1) {
  EXPECT_EQ(2, level(100, 10));
  EXPECT_EQ(2, level(100, 9));  // by number
  EXPECT_EQ(1, level(100, 8));
  EXPECT_EQ(1, level(100, 5));
  EXPECT_EQ(1, level(100, 3));
  EXPECT_EQ(0, level(100, 2));
}

TEST_F(MatchingLevel, Of1000SignaturesNineAre2AndThreeAre1) {
  EXPECT_EQ(2, level(1000, 9));
  EXPECT_EQ(1, level(1000, 8));
  EXPECT_EQ(1, level(1000, 3));
  EXPECT_EQ(0, level(1000, 2));
}

TEST_F(MatchingLevel, SharesCountFromTheirVeryThreshold) {
  EXPECT_EQ(2, level(10, 1));
  EXPECT_EQ(1, level(11, 1));
  EXPECT_EQ(1, level(20, 1));
  EXPECT_EQ(0, level(21, 1));
  EXPECT_EQ(2, level(20, 2));
  EXPECT_EQ(1, level(40, 2));
  EXPECT_EQ(0, level(41, 2));
}

TEST_F(MatchingLevel, EveryLevelNearTheThresholdsIsTheTwins) {
  for (uint32_t sig_num = 1; sig_num < 250; ++sig_num) {
    for (uint32_t hits = 0; hits < 12; ++hits) {
      EXPECT_EQ(static_cast<int>(match_twin::level(sig_num, 5, hits)), level(sig_num, hits, 5));
    }
  }
}

TEST_F(MatchingLevel, WithoutSignaturesThereIsNoLevelAndNoFailure) {
  SearchResult result;
  result.fid_num = 1;
  EXPECT_EQ(kOk, calc_matching_level2(0, 1, &result));
  EXPECT_FALSE(result.match_level);
  EXPECT_EQ(errors("calc_matching_level2", {"no sig_num"}), texts(log));
}

}  // namespace
