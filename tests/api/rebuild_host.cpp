// One of two hosts that work in the same directory at once, which is the current
// one: rebuild_host create|rebuild|match.
//
//   create   makes an index of ten documents
//   rebuild  adds a document and rewrites the search tables, again and again,
//            until a file "stop" appears
//   match    searches from 16 threads and reloads the tables now and then; every
//            answer must be that of some state of the index, or a stated failure.
//            Creates "stop" at its end.
//
// rebuild.py runs them. A failure is told on stderr and ends with status 1.
// TESSERA_THREAD_SECONDS is the length of the matching, 2 unless set.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "documents.h"
#include "host_session.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kDocuments = 10;
constexpr int64_t kFirstAdded = 1000;
constexpr int kMatchers = 16;
constexpr seconds kPatience{300};  // for a partner that is slow or has died

seconds lengthOfRun() {
  const char* const text = std::getenv("TESSERA_THREAD_SECONDS");
  return seconds(text != nullptr ? std::atoi(text) : 2);
}

// Documents 1 to kDocuments; number 0 is never added.
Signatures document(int number) {
  return documents::signatures(20, static_cast<uint64_t>(number), 500);
}

// Those added later share one signature with document 1. Two elements each, on
// top of an odd number: the table's size is never one that the file passes
// through while it is written, for these are whole pages.
Signatures added(int number) {
  Signatures list = documents::signatures(1, 1000000 + static_cast<uint64_t>(number), 500);
  list.push_back(document(1)[7]);
  std::sort(list.begin(), list.end());
  return list;
}

// The state of the index, the number of added documents, that gives this answer
// to the query for document `number`; -1 when none does.
int stateOf(int number, const Matches& answer) {
  if (number == 0) return answer.empty() ? 0 : -1;
  if (answer.empty() || !(answer[0] == Match{number, 2})) return -1;
  const auto more = static_cast<int>(answer.size()) - 1;
  if (number != 1) return more == 0 ? 0 : -1;
  for (int i = 0; i < more; ++i) {
    if (!(answer[static_cast<size_t>(i) + 1] == Match{kFirstAdded + i, 1})) return -1;
  }
  return more;
}

int fail(const std::string& what) {
  std::fprintf(stderr, "rebuild_host: %s\n", what.c_str());
  return 1;
}

int create() {
  std::ofstream("index_sys_config.txt");
  if (InitIndexSystem() != 0) return fail("no index can be made");
  for (int number = 1; number <= kDocuments; ++number) {
    if (addDocument(number, document(number)) != 0) return fail("a document is refused");
  }
  return ExitIndexSystem() == 0 ? 0 : fail("the index cannot be closed");
}

int rebuild() {
  const auto end = Clock::now() + lengthOfRun() + kPatience;
  for (int number = 0; !std::filesystem::exists("stop"); ++number) {
    if (Clock::now() > end) return fail("nobody stops the rebuilding");
    if (InitIndexSystem() != 0) return fail("the index cannot be opened");
    if (addDocument(kFirstAdded + number, added(number)) != 0) return fail("nothing can be added");
    if (ExitIndexSystem() != 0) return fail("the index cannot be closed");
    std::this_thread::sleep_for(milliseconds(number % 3 * 20));
  }
  return 0;
}

int match() {
  const auto enough = Clock::now() + lengthOfRun();
  const auto end = enough + kPatience;
  std::atomic<bool> stop{false};
  std::atomic<int> right{0}, refused{0}, wrong{0};
  std::atomic<int> oldest{INT32_MAX}, newest{0};  // states seen
  std::vector<std::thread> matchers;
  for (int thread = 0; thread < kMatchers; ++thread) {
    matchers.emplace_back([&, thread] {
      for (int i = thread; !stop; ++i) {
        const int number = i % (kDocuments + 1);
        Matches answer;
        const int status = tryMatch(document(number), 1, &answer);
        if (status == 1) {
          ++refused;
          std::this_thread::sleep_for(milliseconds(1));
          continue;
        }
        const int state = status == 0 ? stateOf(number, answer) : -1;
        ++(state < 0 ? wrong : right);
        if (number != 1 || state < 0) continue;
        for (int seen = oldest; state < seen && !oldest.compare_exchange_weak(seen, state);) {
        }
        for (int seen = newest; state > seen && !newest.compare_exchange_weak(seen, state);) {
        }
      }
    });
  }
  // Tables that are just being written cannot be loaded; the next time they can.
  int loads = 0;
  while (wrong == 0 && Clock::now() < end && (Clock::now() < enough || oldest >= newest)) {
    ExitMatchSystem();
    if (InitMatchSystem() == 0) ++loads;
    std::this_thread::sleep_for(milliseconds(20));
  }
  stop = true;
  for (std::thread& matcher : matchers) matcher.join();
  std::ofstream("stop");
  std::printf("%d loads, %d right answers, %d failures, states %d to %d\n", loads, right.load(),
              refused.load(), oldest.load(), newest.load());
  if (wrong > 0) return fail("wrong answers: " + std::to_string(wrong));
  if (right == 0) return fail("no answers");
  if (oldest >= newest) return fail("only one state of the index was seen");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string step = argc == 2 ? argv[1] : "";
  if (step == "create") return create();
  if (step == "rebuild") return rebuild();
  if (step == "match") return match();
  std::fprintf(stderr, "usage: rebuild_host create|rebuild|match\n");
  return 2;
}
