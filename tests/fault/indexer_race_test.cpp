// Two indexers that want the same index at the same moment, a thousand times:
// one gets it, the other is refused and told so, and as soon as the first has
// closed it, or was killed, the other one can have it.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

#include "child_process.h"
#include "documents.h"
#include "index_story.h"
#include "log_capture.h"
#include "temp_dir.h"
#include "tessera.h"
#include "tree_store.h"
#include "vn_index_system_btree.h"

namespace {

// Two threads that wait for each other, again and again. std::barrier does the same,
// but on Windows its waiters are at times not woken.
class Meeting {
 public:
  void wait() {
    std::unique_lock lock(mutex_);
    const int meeting = meetings_;
    if (++waiting_ == 2) {
      waiting_ = 0;
      ++meetings_;
      both_.notify_all();
    }
    both_.wait(lock, [&] { return meetings_ != meeting; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable both_;
  int waiting_ = 0;
  int meetings_ = 0;
};

namespace fs = std::filesystem;

constexpr uint64_t kSeed = 20250413;
constexpr uint32_t kBlockBytes = 1024;

// What the parent sends, and what comes back.
constexpr char kOpen = 'o';
constexpr char kSave = 's';
constexpr char kClose = 'c';
constexpr char kDone = '0';
constexpr char kRefused = '1';     // with a message for each step that failed
constexpr char kUnexpected = '?';  // anything else

std::unique_ptr<ChildProcess> indexer() {
  return std::make_unique<ChildProcess>(std::vector<std::string>{"child"}, true);
}

int ask(ChildProcess* child, char command) {
  child->send(command);
  return child->receive();
}

TEST(IndexerRace, OneOfTwoProcessesGetsTheIndexEveryTime) {
  const uint64_t seed = documents::seed(kSeed);
  documents::Random random(seed);
  const TempDir dir;
  story::writeConfiguration();
  std::unique_ptr<ChildProcess> indexers[] = {indexer(), indexer()};
  ASSERT_TRUE(indexers[0]->started() && indexers[1]->started());
  const uint64_t rounds = 1000 / story::stride(1, 5, 10, 10);
  int wins[2] = {0, 0};
  int kills = 0;
  for (uint64_t round = 0; round < rounds; ++round) {
    SCOPED_TRACE(story::repeatLine(seed, round + 1));
    // Nobody has it open; at times there is none.
    if (random.oneIn(40)) fs::remove_all("sig_index_DB");

    const size_t first = random.below(2);
    indexers[first]->send(kOpen);
    indexers[1 - first]->send(kOpen);
    const int answers[] = {indexers[0]->receive(), indexers[1]->receive()};
    const size_t winner = answers[0] == kDone ? 0 : 1;
    ASSERT_EQ(kDone, answers[winner]) << "nobody got it";
    ASSERT_EQ(kRefused, answers[1 - winner]);
    ++wins[winner];

    ChildProcess* const other = indexers[1 - winner].get();
    if (random.oneIn(3)) {
      ASSERT_EQ(kRefused, ask(other, kOpen));
    }
    if (random.oneIn(15)) {
      if (random.oneIn(2)) indexers[winner]->send(kSave);  // dies in it, or before, or after
      indexers[winner]->kill();
      ASSERT_EQ(kKilled, indexers[winner]->wait());
      indexers[winner] = indexer();
      ++kills;
    } else {
      if (random.oneIn(4)) {
        ASSERT_EQ(kDone, ask(indexers[winner].get(), kSave));
      }
      ASSERT_EQ(kDone, ask(indexers[winner].get(), kClose));
    }
    ASSERT_EQ(kDone, ask(other, kOpen)) << "the index is free";
    ASSERT_EQ(kDone, ask(other, kClose));
  }
  indexers[0].reset();
  indexers[1].reset();
  std::string problem;
  story::QuickSystem quick(kBlockBytes);
  const auto found = story::readIndex(&problem);
  ASSERT_NE(nullptr, found) << problem;
  EXPECT_LE(found->size(), 1u);
  std::printf("%d and %d wins, %d kills\n", wins[0], wins[1], kills);
}

// Two libraries in one process are two owners as well.
TEST(IndexerRace, OneOfTwoStoresOfAProcessGetsTheFilesEveryTime) {
  const TempDir dir;
  story::QuickSystem quick(kBlockBytes);
  const int rounds = static_cast<int>(1000 / story::stride(1, 2, 5, 10));
  std::unique_ptr<TreeStore> stores[2];
  Meeting opening, opened, closed;
  const auto open = [&](size_t number) {
    stores[number] = std::make_unique<TreeStore>(
        "trees", std::vector<std::string>{".a", ".b", ".c"}, AccessType::kReadWrite, BTreeParams());
  };
  int failures = 0;
  const auto race = [&](size_t number) {
    for (int round = 0; round < rounds; ++round) {
      opening.wait();
      open(number);
      opened.wait();
      if (number == 0) {
        const size_t winner = stores[0]->valid() ? 0 : 1;
        if (!stores[winner]->valid() || stores[1 - winner]->valid()) ++failures;
        stores[winner].reset();
        open(1 - winner);
        if (!stores[1 - winner]->valid()) ++failures;
        stores[1 - winner].reset();
      }
      closed.wait();
    }
  };
  std::thread other(race, 1);
  race(0);
  other.join();
  EXPECT_EQ(0, failures) << "of " << rounds << " rounds";
}

// Without its journal the owner could not be killed any more.
TEST(IndexerRace, WhoIsRefusedLeavesTheOwnersJournalAlone) {
  const TempDir dir;
  story::QuickSystem quick(kBlockBytes);
  const auto open = [] {
    return std::make_unique<TreeStore>("trees", std::vector<std::string>{".a"},
                                       AccessType::kReadWrite, BTreeParams());
  };
  const auto owner = open();
  ASSERT_TRUE(owner->valid());
  ASSERT_TRUE(dir.exists("trees.jnl")) << "making the trees was a batch";
  EXPECT_FALSE(open()->valid());
  EXPECT_TRUE(dir.exists("trees.jnl"));
}

char answer(char command) {
  LogCapture log;
  switch (command) {
    case kOpen:
      if (InitIndexSystem() == 0) return kDone;
      // Who comes second with the directory goes no further.
      return (log.has("gen_btree fail") || log.has("Error: vn_mkdir error")) &&
                     log.has("set collector config fail") && log.has("init index system fail")
                 ? kRefused
                 : kUnexpected;
    case kSave:
      return dlp_btree::vnStopDocIndex() == 0 ? kDone : kUnexpected;
    case kClose:
      return dlp_btree::vnDestroyIndexSystem() == 0 ? kDone : kUnexpected;
    default:
      return kUnexpected;
  }
}

}  // namespace

int runAsChild(const std::vector<std::string>&) {
  story::QuickSystem system(kBlockBytes);
  char command;
  while (::read(0, &command, 1) == 1) {
    const char said = answer(command);
    if (::write(1, &said, 1) != 1) break;
  }
  dlp_btree::vnDestroyIndexSystem();
  return 0;
}
