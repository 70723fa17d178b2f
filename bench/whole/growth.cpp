// How the times grow, for plots; everything fits in the page cache.
//
//   growth/documents/N/index  time to add one of N documents to a new index, its
//                             tables included, from its signatures on; counter
//                             bytes_per_document of all files of the index
//   growth/documents/N/query  time of one text of 15 KB against N documents
//   growth/query_size/N       time of a text of N bytes against 1,000,000 documents,
//                             of which it quotes one for each 15 KB
//   growth/pairs/N            time of a match whose 64 signatures hit N (signature,
//                             document) pairs
//   growth/threads/N          time of one match against 1,000,000 documents while N
//                             threads share the work; counter queries_per_second
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "host.h"
#include "rows.h"

namespace {

using benchmark::State;
using Lists = std::vector<host::Signatures>;

constexpr size_t kMillion = 1000000;

// Documents that are made up, so that the smallest index has those of the largest.
void indexDocuments(State& state, Shared* shared, size_t documents) {
  Archive archive = shared->archive();
  const size_t first = collection().indexed.size();
  Lists lists;
  size_t signatures = 0;
  for (size_t i = 0; i < documents; ++i) {
    lists.push_back(archive(first + i));
    signatures += lists.back().size();
  }
  uintmax_t bytes = 0;
  while (state.KeepRunningBatch(static_cast<int64_t>(documents))) {
    const std::filesystem::path directory = shared->newDirectory();
    host::makeIndex(directory, documents,
                    [&](size_t i) -> const host::Signatures& { return lists[i]; });
    state.PauseTiming();
    bytes = host::indexBytes(directory);
    std::filesystem::current_path(directory.parent_path());
    std::filesystem::remove_all(directory);
    state.ResumeTiming();
  }
  const auto count = static_cast<double>(documents);
  state.counters["signatures_per_document"] = static_cast<double>(signatures) / count;
  state.counters["bytes_per_document"] = static_cast<double>(bytes) / count;
}

bool names(const std::vector<host::Match>& matches, size_t document) {
  return std::any_of(matches.begin(), matches.end(), [&](const host::Match& match) {
    return match.file_id == static_cast<int64_t>(document);
  });
}

// Asks for documents that each of the indexes holds.
void queryDocuments(State& state, Shared* shared, size_t documents) {
  const std::vector<std::string>& texts = collection().indexed;
  const size_t queries = std::min<size_t>(texts.size(), 100);
  shared->loadArchive(documents);
  while (state.KeepRunningBatch(static_cast<int64_t>(queries))) {
    for (size_t i = 0; i < queries; ++i) {
      const std::string& text = texts[i];
      require(names(host::match(host::generate(text, TESSERA_CLIENT), text.size()), i),
              "an indexed document is not found");
    }
  }
}

void querySizes(State& state, Shared* shared, size_t bytes) {
  const std::vector<std::string>& texts = collection().indexed;
  std::string text;
  for (size_t i = 0; text.size() < bytes; i = (i + 1) % texts.size()) text += texts[i];
  text.resize(bytes);
  shared->loadArchive(kMillion);
  std::vector<host::Match> matches;
  for (auto _ : state) {
    matches = host::match(host::generate(text, TESSERA_CLIENT), text.size());
  }
  require(names(matches, 0), "the first document of the text is not found");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
  state.counters["names"] = static_cast<double>(matches.size());
}

void pairs(State& state, Shared* shared, size_t pairs) {
  constexpr size_t kSignatures = 64;
  const size_t documents = pairs / kSignatures;
  const host::Signatures shared_passage = documents::signatures(kSignatures, 1);
  static std::map<size_t, std::filesystem::path> tables;
  const auto [found, fresh] = tables.try_emplace(pairs, shared->newDirectory());
  if (fresh) {
    writeTables(found->second, documents,
                [&](size_t) -> const host::Signatures& { return shared_passage; });
  }
  host::loadTables(found->second);
  std::vector<host::Match> matches;
  for (auto _ : state) matches = host::match(shared_passage, 1);
  require(matches.size() == documents, "a document that shares all is not found");
  state.counters["names"] = static_cast<double>(matches.size());
}

void threads(State& state, Shared* shared, size_t threads) {
  constexpr size_t kQueries = 500;
  shared->loadArchive(kMillion);
  Lists lists;
  for (size_t i = 0; i < kQueries; ++i) {
    const std::vector<std::string>& texts = collection().indexed;
    lists.push_back(host::generate(texts[i % texts.size()], TESSERA_CLIENT));
  }
  std::atomic<bool> all_found = true;
  const auto work = [&](size_t first) {
    try {
      for (size_t i = first; i < kQueries; i += threads) {
        if (!names(host::match(lists[i], 15000), i % collection().indexed.size())) {
          all_found = false;
        }
      }
    } catch (const std::exception&) {
      all_found = false;
    }
  };
  std::chrono::duration<double> seconds(0);
  while (state.KeepRunningBatch(kQueries)) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> running;
    for (size_t i = 1; i < threads; ++i) running.emplace_back(work, i);
    work(0);
    for (std::thread& thread : running) thread.join();
    seconds += std::chrono::steady_clock::now() - start;
  }
  require(all_found, "an indexed document is not found");
  state.counters["queries_per_second"] = static_cast<double>(state.iterations()) / seconds.count();
}

}  // namespace

void addGrowthRows(Shared* shared) {
  const auto add = [=](const std::string& name, void (*run)(State&, Shared*, size_t), size_t n) {
    addRow("growth/" + name, [=](State& state) { run(state, shared, n); });
  };
  for (const size_t n : {500, 1000, 2000, 10000, 100000}) {
    add("documents/" + std::to_string(n) + "/index", indexDocuments, n);
  }
  for (const size_t n : {500, 1000, 2000, 10000, 100000, 1000000}) {
    add("documents/" + std::to_string(n) + "/query", queryDocuments, n);
  }
  for (size_t n = 4 << 10; n <= (1 << 20); n *= 4) {
    add("query_size/" + std::to_string(n), querySizes, n);
  }
  for (size_t n = 1 << 12; n <= (1 << 21); n *= 8) {
    add("pairs/" + std::to_string(n), pairs, n);
  }
  for (const size_t n : {1, 2}) add("threads/" + std::to_string(n), threads, n);
}
