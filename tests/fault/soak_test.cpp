// An index in use for a long time: documents come and go, it is saved, closed,
// opened and searched, over and over. It answers as the model does, and costs at
// the end what it cost near the beginning: handles, memory, and disk for no more
// than one and a half times the blocks that are in use.
//
// The last holds because the population stays the same: freed blocks are used
// again before a file grows, but a file never shrinks, so an index that lost most
// of its documents keeps the length it had.
//
// TESSERA_SOAK_SECONDS sets how long; a minute natively, else a few seconds.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#ifdef __linux__
#include <malloc.h>
#endif

#include "documents.h"
#include "index_story.h"
#include "temp_dir.h"
#include "tree_store.h"
#include "vn_index_system_btree.h"

namespace {

namespace fs = std::filesystem;
using story::Book;
using story::Call;
using story::Kind;

constexpr uint64_t kSeed = 20250414;
constexpr size_t kPopulation = 240;  // documents
constexpr double kMostBytesPerLiveByte = 1.5;
constexpr uint64_t kMemoryMargin = 512 << 10;

double secondsToRun() {
  const char* const given = std::getenv("TESSERA_SOAK_SECONDS");
  if (given != nullptr) return std::strtod(given, nullptr);
  return story::build() == story::Build::kPlain ? 60 : 5;
}

struct Costs {
  size_t handles = 0;
  // Bytes allocated. The resident ones would also count what the heap keeps, which
  // differs from machine to machine.
  uint64_t memory = 0;
};

// Zeros where there is no way to tell.
Costs costs() {
  Costs costs;
#ifdef __linux__
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    ++costs.handles;
  }
  const struct mallinfo2 heap = ::mallinfo2();
  costs.memory = heap.uordblks + heap.hblkhd;
#endif
  return costs;
}

// Sanitizers keep freed memory for a while.
bool memoryTells() { return story::build() == story::Build::kPlain; }

class Soak {
 public:
  explicit Soak(uint64_t seed) : random_(seed) { story::writeConfiguration(); }
  ~Soak() { dlp_btree::vnDestroyIndexSystem(); }

  void session() {
    make({Kind::kOpen});
    const size_t changes = 1 + random_.below(kPopulation / 10);
    for (size_t i = 0; i < changes; ++i) {
      if (present_.size() >= kPopulation) leave();
      come();
      if (random_.oneIn(20)) make({Kind::kSave});
    }
    while (present_.size() < kPopulation) come();
    make({Kind::kClose});

    // Some that are there, and some that were.
    std::vector<Call> queries;
    for (int i = 0; i < 3; ++i) queries.push_back(present_[random_.below(present_.size())]);
    if (!gone_.empty()) queries.push_back(gone_[random_.below(gone_.size())]);
    const auto answers = story::search(queries);
    ASSERT_TRUE(answers.has_value());
    EXPECT_TRUE(*answers == story::answersOf(queries, book_.saved));
    story::forgetWhatWasMade();
  }

  void expectEverything() {
    std::string problem;
    const auto found = story::readIndex(&problem);
    ASSERT_NE(nullptr, found) << problem;
    EXPECT_TRUE(*found == book_.saved);
    EXPECT_TRUE(story::tablesOnDiskAre(book_.saved));
    story::forgetWhatWasMade();
  }

  // The files are as long as their headers say, and hold little that is unused.
  double expectFewFreeBlocks() {
    const TreeStore store(story::kTreesBaseName, {".fidt", ".sidt", ".sigt"}, AccessType::kReadOnly,
                          {});
    EXPECT_TRUE(store.valid());
    double most = 0;
    for (size_t tree = 0; store.valid() && tree < 3; ++tree) {
      for (const BlockCollection* blocks : {&store.leaves(tree), &store.nodes(tree)}) {
        const BlockFileHeader& header = blocks->header();
        const uint64_t live = header.os_block_size + header.used_blocks * header.logical_block_size;
        most = std::max(most, static_cast<double>(header.fileLength()) / static_cast<double>(live));
      }
    }
    EXPECT_LE(most, kMostBytesPerLiveByte);
    EXPECT_EQ(17u, files()) << "twelve of the trees, four tables, the base, and no others";
    return most;
  }

 private:
  static size_t files() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("sig_index_DB")) ++count;
    return count;
  }

  void make(const Call& call) { ASSERT_EQ(story::apply(call, &book_), story::perform(call)); }

  void come() {
    // At times under the number of one that has left.
    int64_t file_id = next_++;
    if (!gone_.empty() && random_.oneIn(5)) {
      file_id = gone_.back().file_ids[0];
      gone_.pop_back();
    }
    // Of all sizes; some share a passage with others.
    std::vector<Signature> signatures =
        documents::signatures(20 + random_.below(300), random_.next());
    const auto shared = documents::signatures(8, random_.below(50), 64);
    signatures.insert(signatures.end(), shared.begin(), shared.end());
    Call addition = {Kind::kAdd, {file_id}, std::move(signatures)};
    make(addition);
    present_.push_back(std::move(addition));
  }

  // Mostly the oldest, at times any. One that is pending would stay, so the
  // pending ones are saved first.
  void leave() {
    Call deletion = {Kind::kDelete};
    make({Kind::kSave});
    for (uint64_t count = 1 + random_.below(12); count > 0; --count) {
      const size_t which = random_.oneIn(3) ? random_.below(present_.size()) : 0;
      deletion.file_ids.push_back(present_[which].file_ids[0]);
      gone_.push_back(std::move(present_[which]));
      present_.erase(present_.begin() + static_cast<std::ptrdiff_t>(which));
    }
    while (gone_.size() > 20) gone_.pop_front();
    make(deletion);
  }

  documents::Random random_;
  Book book_;
  int64_t next_ = 1;
  std::deque<Call> present_;
  std::deque<Call> gone_;  // the last of them
};

TEST(Soak, CostsAtTheEndWhatItCostNearTheBeginning) {
  const uint64_t seed = documents::seed(kSeed);
  SCOPED_TRACE(story::repeatLine(seed, 0));
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  const double seconds = secondsToRun();
  const auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  const TempDir dir;
  // With small blocks there are some hundreds of them, so that their number in
  // use depends little on chance.
  story::QuickSystem small_blocks(4096);
  Soak soak(seed);
  uint64_t sessions = 0;
  double most = 0;
  Costs warm;
  constexpr uint64_t kWarmUp = 10;  // sessions
  // What is allocated differs from session to session with the documents that are
  // there, so it is what every fifty sessions come down to that is compared.
  constexpr uint64_t kWindow = 50;
  uint64_t first_low = 0, low = UINT64_MAX;
  while (sessions < 2 * kWarmUp || elapsed() < seconds) {
    SCOPED_TRACE("session " + std::to_string(sessions));
    ASSERT_NO_FATAL_FAILURE(soak.session());
    most = std::max(most, soak.expectFewFreeBlocks());
    if (++sessions % 10 == 0) {
      ASSERT_NO_FATAL_FAILURE(soak.expectEverything());
    }
    if (sessions == kWarmUp) warm = costs();
    if (sessions > kWarmUp) {
      const Costs now = costs();
      EXPECT_EQ(warm.handles, now.handles);
      low = std::min(low, now.memory);
    }
    if (sessions % kWindow == 0) {
      if (first_low == 0) first_low = low;
      if (memoryTells()) {
        EXPECT_LE(low, first_low + kMemoryMargin);
      }
      low = UINT64_MAX;
    }
    if (testing::Test::HasFailure()) break;
  }
  std::printf(
      "%llu sessions, %.2f bytes of file for a live one, %lld KiB more than near the "
      "beginning\n",
      static_cast<unsigned long long>(sessions), most,
      static_cast<long long>(costs().memory - warm.memory) / 1024);
}

}  // namespace
