// The library from the text's bytes to the verdict, through its exports, beside
// ssdeep and TLSH over the same documents.
//
//   whole/index/METHOD         time to index one document, from its text on; counter
//                              bytes_per_document
//   whole/recall/CLASS/METHOD  time of one query; counters: of so many queries,
//                              found names the right document and found_level2 as a
//                              strong match; wrong_names are answers that name
//                              another document, wrong_names_level2 as a strong match
//   whole/query/METHOD         time of one query, all classes mixed
//   whole/million/METHOD       time of one text of 20 KB against 1,000,000 documents
//   growth/...                 see growth.cpp
//
// Methods: tessera_sparse (server signatures indexed), tessera_full (client ones),
// ssdeep, tlsh; methods.h says what counts as a match for each of them.
//
//   scripts/install-dependencies bench
//   cmake --preset linux-release -DTESSERA_BENCH=ON
//   cmake --build build/linux-release --target whole_library
//   build/linux-release/bench/whole_library
//
// The environment variable TESSERA_BENCH_QUERIES sets how many queries each class
// has, 150 when there is none. The tables of the million take 0.5 GB of disk for the
// time of the run.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <numeric>

#include "host.h"
#include "rows.h"

namespace {

constexpr size_t kMillion = 1000000;

struct Verdicts {
  size_t found = 0;
  size_t found_strong = 0;
  size_t wrong = 0;
  size_t wrong_strong = 0;

  void count(const Query& query, const std::vector<Answer>& answers) {
    for (const Answer& answer : answers) {
      const bool right = answer.document == query.source;
      found += right;
      found_strong += right && answer.strong;
      wrong += !right;
      wrong_strong += !right && answer.strong;
    }
  }
};

// What must hold whatever the machine's documents are: the same letters in the same
// order are the same document for Tessera, and a half holds a good share of them. The
// few signatures of a sparse index find the document, but may grade it lower.
void requirePlausible(const std::string& query_class, const std::string& method,
                      const Verdicts& verdicts, size_t queries) {
  const bool tessera = method.starts_with("tessera");
  const bool full = method == "tessera_full";
  if (query_class == "whole_copy" || (tessera && query_class == "rewrapped")) {
    require(verdicts.found == queries, "copies are not all found");
  }
  if (full &&
      (query_class == "whole_copy" || query_class == "rewrapped" || query_class == "half")) {
    require(verdicts.found_strong == queries, "copies are not all found as strong matches");
  }
  if (query_class == "unrelated") {
    require(verdicts.found == 0, "an unrelated text has a source");
  }
}

void recall(benchmark::State& state, Shared* shared, const std::string& query_class,
            const std::string& name) {
  const std::vector<Query>& queries = shared->queries(query_class);
  Method& method = shared->method(name);
  method.ask(queries.front().text);  // loads its tables
  Verdicts verdicts;
  while (state.KeepRunningBatch(static_cast<int64_t>(queries.size()))) {
    verdicts = {};
    for (const Query& query : queries) verdicts.count(query, method.ask(query.text));
  }
  requirePlausible(query_class, name, verdicts, queries.size());
  state.counters["queries"] = static_cast<double>(queries.size());
  state.counters["found"] = static_cast<double>(verdicts.found);
  state.counters["found_level2"] = static_cast<double>(verdicts.found_strong);
  state.counters["wrong_names"] = static_cast<double>(verdicts.wrong);
  state.counters["wrong_names_level2"] = static_cast<double>(verdicts.wrong_strong);
}

void index(benchmark::State& state, Shared* shared, const std::string& name) {
  const std::vector<std::string>& documents = collection().indexed;
  const std::unique_ptr<Method> method = shared->newMethod(name);
  while (state.KeepRunningBatch(static_cast<int64_t>(documents.size()))) method->index(documents);
  size_t bytes = 0;
  for (const std::string& document : documents) bytes += document.size();
  state.counters["documents"] = static_cast<double>(documents.size());
  state.counters["text_bytes_per_document"] =
      static_cast<double>(bytes) / static_cast<double>(documents.size());
  state.counters["bytes_per_document"] = method->bytesPerDocument();
}

void mixedQueries(benchmark::State& state, Shared* shared, const std::string& name) {
  constexpr size_t kOfEach = 10;
  std::vector<const Query*> mix;
  for (const std::string& query_class : queryClasses()) {
    const std::vector<Query>& queries = shared->queries(query_class);
    for (size_t i = 0; i < std::min(kOfEach, queries.size()); ++i) mix.push_back(&queries[i]);
  }
  Method& method = shared->method(name);
  method.ask(mix.front()->text);  // loads its tables
  while (state.KeepRunningBatch(static_cast<int64_t>(mix.size()))) {
    for (const Query* const query : mix) benchmark::DoNotOptimize(method.ask(query->text));
  }
  state.counters["documents"] = static_cast<double>(collection().indexed.size());
}

// The documents whose size is nearest to 20 KB. Each round takes the next of them, so
// that none finds all it reads in the processor's caches.
std::vector<size_t> textsOf20KB() {
  const std::vector<std::string>& documents = collection().indexed;
  const auto distance = [&](size_t i) {
    return std::abs(static_cast<long>(documents[i].size()) - 20000);
  };
  std::vector<size_t> numbers(documents.size());
  std::iota(numbers.begin(), numbers.end(), size_t{0});
  std::sort(numbers.begin(), numbers.end(),
            [&](size_t a, size_t b) { return distance(a) < distance(b); });
  numbers.resize(16);
  return numbers;
}

void millionByTessera(benchmark::State& state, Shared* shared) {
  const std::vector<size_t> numbers = textsOf20KB();
  const auto ask = [](size_t number) {
    const std::string& text = collection().indexed[number];
    return host::match(host::generate(text, TESSERA_CLIENT), text.size());
  };
  shared->loadArchive(kMillion);
  for (const size_t number : numbers) {
    const std::vector<host::Match> matches = ask(number);
    require(std::any_of(matches.begin(), matches.end(),
                        [&](const host::Match& match) {
                          return match.file_id == static_cast<int64_t>(number) && match.level == 2;
                        }),
            "a document is not found among the million");
  }
  size_t next = 0;
  for (auto _ : state) benchmark::DoNotOptimize(ask(numbers[next++ % numbers.size()]));
  state.counters["documents"] = kMillion;
}

// A pass over as many hashes: those of the collection's documents, again and again.
void millionByPass(benchmark::State& state, LinearMethod* method) {
  const std::vector<size_t> numbers = textsOf20KB();
  size_t number = 0;
  size_t next = 0;
  std::vector<Answer> answers;
  for (auto _ : state) {
    number = numbers[next++ % numbers.size()];
    answers = method->ask(collection().indexed[number]);
  }
  require(
      std::any_of(answers.begin(), answers.end(),
                  [&](const Answer& answer) { return answer.document == number && answer.strong; }),
      "a document is not found among the million");
  state.counters["documents"] = kMillion;
  state.counters["distinct_hashes"] = static_cast<double>(collection().indexed.size());
}

// Made at the first run of a row and kept, since making it takes longer than the row.
template <std::unique_ptr<LinearMethod> (*make)()>
LinearMethod* million() {
  static const std::unique_ptr<LinearMethod> method = [] {
    auto made = make();
    made->index(collection().indexed);
    made->repeat(kMillion);
    return made;
  }();
  return method.get();
}

}  // namespace

void addWholeRows(Shared* shared) {
  using benchmark::State;
  for (const std::string& method : methodNames()) {
    addRow("whole/index/" + method, [=](State& state) { index(state, shared, method); });
  }
  for (const std::string& query_class : queryClasses()) {
    for (const std::string& method : methodNames()) {
      addRow("whole/recall/" + query_class + "/" + method,
             [=](State& state) { recall(state, shared, query_class, method); });
    }
  }
  for (const std::string& method : methodNames()) {
    addRow("whole/query/" + method, [=](State& state) { mixedQueries(state, shared, method); });
  }
  addRow("whole/million/tessera", [=](State& state) { millionByTessera(state, shared); });
  addRow("whole/million/ssdeep", [](State& state) { millionByPass(state, million<ssdeep>()); });
  addRow("whole/million/tlsh", [](State& state) { millionByPass(state, million<tlsh>()); });
}

int main(int argc, char** argv) {
  // Most rows make many queries each time: there is no need to repeat them for long.
  std::string short_time = "--benchmark_min_time=0.05";
  std::vector<char*> arguments(argv, argv + argc);
  arguments.insert(arguments.begin() + 1, short_time.data());
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  benchmark::SetDefaultTimeUnit(benchmark::kMicrosecond);
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  try {
    Shared shared;
    addWholeRows(&shared);
    addGrowthRows(&shared);
    benchmark::RunSpecifiedBenchmarks();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return anyRowFailed() ? 1 : 0;
}
