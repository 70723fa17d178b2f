// The counting search of tessera_search.h, held against a linear count and against
// MatchSignature().
#include "tessera_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <thread>
#include <tuple>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "log_capture.h"
#include "temp_dir.h"
#include "tessera.h"

#if defined(__SANITIZE_THREAD__)
// An unlock that is not this thread's to do; the mutex only refuses it.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "mutex:vnGetSearchTableSigGenLevel\n";
}
#endif

namespace {

using Hit = std::tuple<int64_t, int, uint32_t>;  // file ID, level, hits
using Hits = std::vector<Hit>;

Hits search(std::vector<Signature> query, int fsz) {
  tessera_hit* result = nullptr;
  int count = 0;
  query.reserve(1);
  EXPECT_EQ(0, tessera_search(&query.data()->bytes, static_cast<int>(query.size()), fsz, &result,
                              &count));
  Hits hits;
  for (int i = 0; i < count; ++i) {
    hits.emplace_back(result[i].file_id, result[i].level, result[i].hits);
  }
  tessera_free_hits(result);
  return hits;
}

// What MatchSignature() says, each with the hits of the linear count.
Hits matched(std::vector<Signature> query, int fsz,
             const std::map<int64_t, std::vector<Signature>>& documents) {
  _DLPSigMatchRet variable;
  _DLPSigMatchRet* result = &variable;
  int count = 0;
  query.reserve(1);
  EXPECT_EQ(0, MatchSignature(&query.data()->bytes, static_cast<int>(query.size()), fsz, &result,
                              &count));
  Hits hits;
  for (int i = 0; i < count; ++i) {
    const std::vector<Signature>& held = documents.at(result[i].fileID);
    const auto counted = std::count_if(query.begin(), query.end(), [&](const Signature& signature) {
      return std::find(held.begin(), held.end(), signature) != held.end();
    });
    hits.emplace_back(result[i].fileID, result[i].match_level, static_cast<uint32_t>(counted));
  }
  FreeSigMatchRet(result);
  return hits;
}

class SearchHits : public testing::Test {
 protected:
  SearchHits() {
    dir_.write("index_sys_config.txt", "max_ele_num_load = 7\n");
    // All draw from one pool, so that a query meets many documents.
    const std::vector<Signature> pool = documents::signatures(400, 17, /*spread=*/20);
    EXPECT_EQ(0, InitIndexSystem());
    for (int64_t id = 0; id < 40; ++id) {
      std::vector<Signature>& list = documents_[id * 3];
      for (const Signature& signature : pool) {
        if (random_.below(40) <= static_cast<uint64_t>(id)) list.push_back(signature);
      }
      if (list.empty()) list.push_back(pool[0]);
      EXPECT_EQ(0, AddDocSignature(id * 3, &list.data()->bytes, static_cast<int>(list.size())));
    }
    EXPECT_EQ(0, ExitIndexSystem());
    EXPECT_EQ(0, InitMatchSystem());
    pool_ = pool;
    log_.clear();
  }
  ~SearchHits() override { ExitMatchSystem(); }

  std::vector<Signature> query(size_t size) {
    std::vector<Signature> list;
    for (size_t i = 0; i < size; ++i) list.push_back(pool_[random_.below(pool_.size())]);
    std::sort(list.begin(), list.end());
    return list;
  }

  TempDir dir_;
  documents::Random random_{20261121};
  std::vector<Signature> pool_;
  std::map<int64_t, std::vector<Signature>> documents_;
  LogCapture log_;
};

// Repeated signatures among them, which count as often as they stand there.
TEST_F(SearchHits, AreThoseOfALinearCountOnTheDocumentsOfMatchSignature) {
  for (const size_t size : {1, 2, 10, 100, 300}) {
    for (const int fsz : {0, 5000}) {
      const std::vector<Signature> list = query(size);
      const Hits hits = search(list, fsz);
      EXPECT_EQ(matched(list, fsz, documents_), hits) << size;
      EXPECT_FALSE(hits.empty());
    }
  }
  EXPECT_EQ(20u, std::get<2>(search(std::vector<Signature>(20, pool_[0]), 0).front()));
}

TEST_F(SearchHits, NothingFoundIsASuccessWithoutAList) {
  Signature unknown = documents::signature({1, 2, 3, 4, 5, 6, 7, 8});
  for (const int signatures : {0, 1}) {
    tessera_hit any;
    tessera_hit* result = &any;
    int count = 99;
    EXPECT_EQ(0, tessera_search(&unknown.bytes, signatures, 0, &result, &count));
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(0, count);
  }
  tessera_free_hits(nullptr);
}

TEST_F(SearchHits, AMistakenArgumentIsRefusedAndClearsTheOutputs) {
  Signature signature = pool_[0];
  tessera_hit any;
  tessera_hit* result = &any;
  int count = 99;
  EXPECT_EQ(1, tessera_search(&signature.bytes, -1, 0, &result, &count));
  EXPECT_EQ(nullptr, result);
  EXPECT_EQ(0, count);
  result = &any;
  count = 99;
  EXPECT_EQ(1, tessera_search(nullptr, 1, 0, &result, &count));
  EXPECT_EQ(nullptr, result);
  EXPECT_EQ(0, count);
  result = &any;
  EXPECT_EQ(1, tessera_search(&signature.bytes, 1, 0, &result, nullptr));
  EXPECT_EQ(nullptr, result);
  count = 99;
  EXPECT_EQ(1, tessera_search(&signature.bytes, 1, 0, nullptr, &count));
  EXPECT_EQ(0, count);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SearchHits, WithoutLoadedTablesReturns1) {
  ExitMatchSystem();
  Signature signature = pool_[0];
  tessera_hit* result = nullptr;
  int count = 99;
  log_.clear();
  EXPECT_EQ(1, tessera_search(&signature.bytes, 1, 0, &result, &count));
  EXPECT_EQ(
      (std::vector<std::string>{"search engine not started when search", "Search signature fail!"}),
      log_.messages());
  EXPECT_EQ(0, InitMatchSystem());
}

TEST_F(SearchHits, EveryAllocationThatFailsLeavesNothing) {
  std::vector<Signature> list = query(50);
  FailPoint point;
  point.fail(Call::kAllocate, 0);
  ASSERT_FALSE(search(list, 0).empty());
  const int allocations = point.count();
  for (int n = 1; n <= allocations; ++n) {
    point.fail(Call::kAllocate, n);
    tessera_hit any;
    tessera_hit* result = &any;
    int count = 99;
    const int status = tessera_search(&list.data()->bytes, 50, 0, &result, &count);
    if (status == 0) {  // memory that only makes a search faster
      EXPECT_LT(0, count) << n;
      tessera_free_hits(result);
      continue;
    }
    EXPECT_EQ(1, status);
    EXPECT_EQ(nullptr, result) << n;
    EXPECT_EQ(0, count) << n;
  }
  point.fail(Call::kAllocate, allocations);  // the list itself
  tessera_hit* result = nullptr;
  int count = 99;
  EXPECT_EQ(1, tessera_search(&list.data()->bytes, 50, 0, &result, &count));
  EXPECT_EQ("No enough space for match result", log_.messages().back());
}

TEST_F(SearchHits, SearchesRunSideBySideWithMatches) {
  const std::vector<Signature> list = query(100);
  const Hits expected = matched(list, 100, documents_);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 20; ++round) EXPECT_EQ(expected, search(list, 100));
    });
  }
  for (int round = 0; round < 20; ++round) EXPECT_EQ(expected, matched(list, 100, documents_));
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
