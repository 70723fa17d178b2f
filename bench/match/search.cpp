// Microseconds of one search: Tessera against its plain form and against stores
// that look the same signatures up.
//
// Rows are match/KIND/ELEMENTS/SIGNATURES/WHO. KIND uniform has random signatures
// with one element each; text has signatures that crowd as those of English do,
// one in eight with 2 to 9 elements and a few with a thousand. Half of a query's
// signatures are present. Many queries take turns, so that no row reads one place
// over and over; all of it is in the system's page cache.
//
//   tessera  the whole search: tables opened, ranges found, hits read and ranked
//   plain    the same with loads of max_ele_num_load elements
//            (tests/reference/plain_search.h)
//   lmdb     one read transaction, a cursor set to each signature, all its packed
//            duplicates copied; the environment stays open and mapped
//   rocksdb  a Get for each signature, whose value is all its pairs; bloom filter,
//            and a block cache that holds everything
//   sqlite   a prepared SELECT for each signature in one transaction, WITHOUT
//            ROWID; cache and mapping hold everything
//
// All hand their (file, source) pairs to the same ranking, so that what is compared
// is the answer to the same question; and the peers keep everything open, while
// Tessera opens its table for each search. The pairs of all are compared with the
// elements that the tables were made from before anything is measured.
//
// Counters: "bytes" and "reads" are what Tessera and its plain form read per query,
// counted beforehand; "items_per_second" counts signatures, so that its reciprocal is to
// be compared from size to size. Rows match/threads/... are searches through the
// search system, lock and counted snapshot included, by one and two threads:
// "items_per_second" counts their queries.
//
//   cmake --preset linux-release -DTESSERA_BENCH=ON
//   cmake --build build/linux-release --target match_search
//   build/linux-release/bench/match_search --benchmark_enable_random_interleaving
//
// MATCH_ELEMENTS=100M adds tables of 100M elements (1.6 GB each, and 5 GB of
// memory while they are made). RocksDB and SQLite are built up to 1M only unless
// MATCH_PEERS=all.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "forwarding_system.h"
#include "searcher.h"
#include "tables.h"
#include "vn_search_system.h"

namespace {

struct Contender {
  const char* name;
  std::unique_ptr<Searcher> (*make)(const Table& of);
  bool counts_bytes;  // reads through platform::System
  bool every_size;    // not only 1M
};
constexpr Contender kContenders[] = {{"tessera", makeTessera, true, true},
                                     {"plain", makePlain, true, true},
                                     {"lmdb", makeLmdb, false, true},
                                     {"rocksdb", makeRocksDb, false, false},
                                     {"sqlite", makeSqlite, false, false}};

class CountingSystem final : public ForwardingSystem {
 public:
  uint64_t bytes_read = 0;
  uint64_t reads = 0;

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override {
    auto file = ForwardingSystem::open(path, mode);
    if (!file) return nullptr;
    return std::make_unique<CountingFile>(this, std::move(file));
  }

 private:
  class CountingFile final : public ForwardingFile {
   public:
    CountingFile(CountingSystem* owner, std::unique_ptr<platform::File> file)
        : ForwardingFile(std::move(file)), owner_(owner) {}
    int64_t read(void* buffer, size_t bytes) override {
      const int64_t got = ForwardingFile::read(buffer, bytes);
      ++owner_->reads;
      owner_->bytes_read += static_cast<uint64_t>(std::max<int64_t>(got, 0));
      return got;
    }

   private:
    CountingSystem* const owner_;
  };
};

// All that were made; to be cleared before the files go.
std::map<std::pair<const Table*, std::string>, std::unique_ptr<Searcher>> searchers;

// Made once for each table, and everything it answers compared at once.
Searcher& searcher(const Contender& contender, const Table& of) {
  auto& made = searchers[{&of, contender.name}];
  if (!made) {
    made = contender.make(of);
    Pairs pairs;
    for (const auto& [n, queries] : of.queries) {
      for (const Query& query : queries) {
        pairs.clear();
        made->pairs(query, &pairs);
        require(pairs == query.expected, "different pairs found");
      }
    }
  }
  return *made;
}

void BM_Search(benchmark::State& state, const Contender& contender, const std::string& kind,
               const std::string& size, uint32_t n) {
  const Table& on = table(kind, size);
  Searcher& by = searcher(contender, on);
  const std::vector<Query>& queries = on.queries.at(n);
  if (contender.counts_bytes) {
    CountingSystem counting;
    for (const Query& query : queries) by.search(query);
    const auto searches = static_cast<double>(queries.size());
    state.counters["bytes"] = static_cast<double>(counting.bytes_read) / searches;
    state.counters["reads"] = static_cast<double>(counting.reads) / searches;
  }
  size_t next = 0;
  for (auto _ : state) {
    by.search(queries[next]);
    next = next + 1 < queries.size() ? next + 1 : 0;
  }
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_Threads(benchmark::State& state, const std::string& size, uint32_t n) {
  static const Table* on = nullptr;
  if (state.thread_index() == 0) {
    on = &table("uniform", size);
    require(vnInitSearchSystem() == 0 && vnStartSearchEngine("", 0, nullptr) == 0, "not started");
  }
  size_t next = 0;
  for (auto _ : state) {  // the threads wait for each other here
    const std::vector<Query>& queries = on->queries.at(n);
    const size_t mine = (next++ + 7 * static_cast<size_t>(state.thread_index())) % queries.size();
    SearchResult result;
    require(vnSearchSignatures(n, queries[mine].signatures.data(), 1, &result) == 0 &&
                result.sig_find_num == n / 2,
            "search failed");
  }
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) vnStopSearchEngine();
}

bool environmentIs(const char* name, const char* value) {
  const char* const text = std::getenv(name);
  return text != nullptr && std::strcmp(text, value) == 0;
}

void addRows() {
  std::vector<std::string> sizes = {"1M", "10M"};
  if (environmentIs("MATCH_ELEMENTS", "100M")) sizes.push_back("100M");
  for (const std::string kind : {"uniform", "text"}) {
    for (const std::string& size : sizes) {
      for (const uint32_t n : kQuerySizes) {
        for (const Contender& contender : kContenders) {
          const bool is_large = size != "1M" && !environmentIs("MATCH_PEERS", "all");
          if (is_large && !contender.every_size) continue;
          const std::string name =
              "match/" + kind + "/" + size + "/" + std::to_string(n) + "/" + contender.name;
          benchmark::RegisterBenchmark(name.c_str(), [=, &contender](benchmark::State& state) {
            BM_Search(state, contender, kind, size, n);
          })->Unit(benchmark::kMicrosecond);
        }
      }
    }
  }
  for (const uint32_t n : {40u, 400u}) {
    for (const int threads : {1, 2}) {
      const std::string name = "match/threads/1M/" + std::to_string(n);
      benchmark::RegisterBenchmark(name.c_str(),
                                   [n](benchmark::State& state) { BM_Threads(state, "1M", n); })
          ->Unit(benchmark::kMicrosecond)
          ->Threads(threads)
          ->UseRealTime();
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Short rounds unless something else is asked for: there are many rows.
  char min_time[] = "--benchmark_min_time=0.05";
  std::vector<char*> arguments(argv, argv + argc);
  arguments.insert(arguments.begin() + 1, min_time);
  argc = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  argv = arguments.data();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const WorkDirectory work_directory;
  addRows();
  benchmark::RunSpecifiedBenchmarks();
  searchers.clear();
  return 0;
}
