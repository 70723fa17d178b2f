// How the ranking of hits grows with their number, for hit lists on which a
// plain quicksort would be quadratic.
//
// "growth" is the time for n pairs over that for n / 2: at most 2.5 for every
// shape. "BigO" is the fit over all sizes. All times are the processor's, and
// "growth" compares medians, so that a shared machine disturbs little; caches that
// others fill still show.
//
//   scripts/install-dependencies bench
//   cmake --preset linux-release -DTESSERA_BENCH=ON
//   cmake --build build/linux-release --target worst_case_match
//   build/linux-release/bench/worst_case_match
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <utility>
#include <vector>

#include "vn_fid_search_engine.h"

namespace {

using Pairs = std::vector<FsidPair>;

// A host's documents are sources of their own: the source ID is the low half of
// the file ID.
Pairs filled(size_t n, int32_t (*fid)(size_t i, size_t n)) {
  Pairs pairs(n);
  for (size_t i = 0; i < n; ++i) {
    const int32_t id = fid(i, n);
    pairs[i] = {id, id};
  }
  return pairs;
}

// One large document, resent.
Pairs equal(size_t n) {
  return filled(n, [](size_t, size_t) { return 7; });
}

// One signature of as many documents.
Pairs sorted(size_t n) {
  return filled(n, [](size_t i, size_t) { return static_cast<int32_t>(i); });
}

Pairs reversed(size_t n) {
  return filled(n, [](size_t i, size_t total) { return static_cast<int32_t>(total - i); });
}

// A passage of 64 signatures that many documents share: the same ascending run
// for each of them.
Pairs hot(size_t n) {
  return filled(n, [](size_t i, size_t total) { return static_cast<int32_t>(i % (total / 64)); });
}

void BM_RankHits(benchmark::State& state, const char* shape, Pairs (*make)(size_t n)) {
  static std::map<std::pair<const char*, int64_t>, double> medians;  // seconds
  const int64_t n = state.range(0);
  const Pairs pairs = make(static_cast<size_t>(n));
  const FidIndexSearchEngine engine;
  std::vector<double> rounds;
  for (auto _ : state) {
    // The ranking replaces the list it is given, so each round gets its own.
    auto list = mallocArray<FsidPair>(pairs.size());
    std::copy(pairs.begin(), pairs.end(), list.get());
    auto num = static_cast<uint32_t>(pairs.size());
    MallocArray<uint32_t> counts;
    const std::clock_t start = std::clock();
    const int status = engine.process_fid_info(&num, &list, &counts);
    const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    if (status != 0) {
      state.SkipWithError("the ranking failed");
      break;
    }
    benchmark::DoNotOptimize(list.get());
    rounds.push_back(seconds);
    state.SetIterationTime(seconds);
  }
  state.SetComplexityN(n);
  state.SetItemsProcessed(state.iterations() * n);
  if (rounds.empty()) return;
  const auto middle = rounds.begin() + static_cast<ptrdiff_t>(rounds.size() / 2);
  std::nth_element(rounds.begin(), middle, rounds.end());
  medians[{shape, n}] = *middle;
  const auto half = medians.find({shape, n / 2});
  if (half != medians.end()) state.counters["growth"] = *middle / half->second;
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->RangeMultiplier(2)
      ->Range(1 << 14, 1 << 20)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Complexity(benchmark::oNLogN);
}

BENCHMARK_CAPTURE(BM_RankHits, equal, "equal", equal)->Apply(sizes);
BENCHMARK_CAPTURE(BM_RankHits, sorted, "sorted", sorted)->Apply(sizes);
BENCHMARK_CAPTURE(BM_RankHits, reversed, "reversed", reversed)->Apply(sizes);
BENCHMARK_CAPTURE(BM_RankHits, hot, "hot", hot)->Apply(sizes);

}  // namespace

int main(int argc, char** argv) {
  // Every list comes from the system anew, whatever its size. Left to itself, the
  // allocator keeps blocks up to some size, and the step to the next one would
  // show as growth.
  mallopt(M_MMAP_THRESHOLD, 64 << 10);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
