// What every searcher but Tessera does with the pairs it has found.
#pragma once

#include <benchmark/benchmark.h>

#include "tables.h"
#include "vn_fid_search_engine.h"

class Ranking {
 public:
  void rank(uint32_t count, MallocArray<FsidPair>* hits) {
    MallocArray<uint32_t> counts;
    require(engine_.process_fid_info(&count, hits, &counts) == 0, "ranking failed");
    benchmark::DoNotOptimize(hits->get());
  }

 private:
  FidIndexSearchEngine engine_;
};
