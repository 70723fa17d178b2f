// Tessera and its plain form. Both open the table anew for each search.
#include "plain_search.h"
#include "ranking.h"
#include "searcher.h"
#include "vn_fid_search_engine.h"

namespace {

class Tessera final : public Searcher {
 public:
  Tessera() {
    MetaData meta;
    require(engine_.setConfig(IndexSysConfiguration()) == 0 && engine_.Init(&meta) == 0,
            "tables not loaded");
  }

  void search(const Query& query) override {
    wholeSearch(query);
    benchmark::DoNotOptimize(files_.get());
  }

  // The two steps by themselves; what they lead to has to be what the whole finds.
  void pairs(const Query& query, Pairs* out) override {
    prepare(query);
    uint32_t found = 0;
    require(engine_.SearchSignatures(n_, query.signatures.data(), &found, ranges()) == 0 &&
                found == n_ / 2,
            "search failed");
    uint32_t count = 0;
    MallocArray<FsidPair> hits;
    require(engine_.build_sig_fid_info_tbl(n_, ranges(), &count, &hits) == 0, "hits not read");
    for (uint32_t i = 0; i < count; ++i) out->push_back(pairOf(hits[i].fid, hits[i].source));

    MallocArray<uint32_t> counts;
    require(engine_.process_fid_info(&count, &hits, &counts) == 0, "ranking failed");
    wholeSearch(query);
    require(count == files_num_, "different files found");
    for (uint32_t i = 0; i < count; ++i) {
      require(hits[i].fid == files_[i].fid && hits[i].source == files_[i].source &&
                  counts[i] == counts_[i],
              "different files found");
    }
  }

 private:
  void wholeSearch(const Query& query) {
    prepare(query);
    uint32_t found = 0;
    require(engine_.SearchSignatures(n_, query.signatures.data(), &found, ranges(), &files_num_,
                                     &files_, &counts_) == 0,
            "search failed");
  }
  void prepare(const Query& query) {
    n_ = static_cast<uint32_t>(query.signatures.size());
    numbers_.resize(3 * query.signatures.size());
  }
  QueryRanges ranges() {
    return {numbers_.data(), numbers_.data() + n_, numbers_.data() + 2 * size_t{n_}};
  }

  FidIndexSearchEngine engine_;
  uint32_t n_ = 0;
  std::vector<uint32_t> numbers_;
  uint32_t files_num_ = 0;
  MallocArray<FsidPair> files_;
  MallocArray<uint32_t> counts_;
};

class Plain final : public Searcher {
 public:
  Plain() : search_(IndexSysConfiguration().max_ele_num_load) {}

  void search(const Query& query) override {
    uint32_t count = 0;
    auto hits = find(query, &count);
    ranking_.rank(count, &hits);
  }

  void pairs(const Query& query, Pairs* out) override {
    uint32_t count = 0;
    const auto hits = find(query, &count);
    for (uint32_t i = 0; i < count; ++i) {
      out->push_back(pairOf(hits[i].fid, hits[i].source));
    }
  }

 private:
  MallocArray<FsidPair> find(const Query& query, uint32_t* count) {
    const auto n = static_cast<uint32_t>(query.signatures.size());
    plain_search::Ranges ranges(n);
    search_.ranges(n, query.signatures.data(), &ranges);
    return search_.pairs(n, ranges, count);
  }

  plain_search::Search search_;
  Ranking ranking_;
};

}  // namespace

std::unique_ptr<Searcher> makeTessera(const Table&) { return std::make_unique<Tessera>(); }
std::unique_ptr<Searcher> makePlain(const Table&) { return std::make_unique<Plain>(); }
