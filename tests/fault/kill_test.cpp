// An indexing process that is killed at every single thing it asks of the system:
// before each write and in the middle of it, before each sync, cut, renaming,
// removal and creation. Whoever opens the index afterwards must find exactly the
// last batch, or the one that was under way, and can go on with it. The search
// tables must answer as one of their versions does, or be refused.
//
// The parent numbers the points by running the story once; then it starts itself
// again for each of them, with the number at which to die.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "documents.h"
#include "index_story.h"
#include "temp_dir.h"
#include "vn_index_system_btree.h"

namespace {

namespace fs = std::filesystem;
using story::Answers;
using story::Book;
using story::Call;
using story::Kind;
using story::Records;

constexpr uint64_t kSeed = 20250411;
constexpr char kProgress[] = "progress";  // one byte for each call that has returned
constexpr char kPoints[] = "points";      // how many the run has passed

// Dies at the n-th point; never with 0.
class KillingSystem final : public story::QuickSystem {
 public:
  KillingSystem(uint32_t block_bytes, uint64_t n) : QuickSystem(block_bytes), n_(n) {}

  void point() {
    if (++points_ == n_) killThisProcess();
  }
  bool pointIsNext() const { return points_ + 1 == n_; }
  uint64_t points() const { return points_; }

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override;
  bool remove(const char* path) override {
    point();
    return QuickSystem::remove(path);
  }
  bool rename(const char* from, const char* to) override {
    point();
    return QuickSystem::rename(from, to);
  }
  bool syncDirectory(const char* path) override {
    point();
    return QuickSystem::syncDirectory(path);
  }
  int makeDirectory(const platform::PathChar* path) override {
    point();
    return QuickSystem::makeDirectory(path);
  }

 private:
  const uint64_t n_;
  uint64_t points_ = 0;
};

class KillingFile final : public platform::File {
 public:
  KillingFile(KillingSystem* system, std::unique_ptr<platform::File> file)
      : system_(system), file_(std::move(file)) {}

  bool seek(uint64_t offset) override { return file_->seek(offset); }
  int64_t read(void* buffer, size_t bytes) override { return file_->read(buffer, bytes); }
  bool write(const void* data, size_t bytes) override {
    system_->point();
    if (system_->pointIsNext()) file_->write(data, bytes / 2);
    system_->point();
    return file_->write(data, bytes);
  }
  int64_t size() override { return file_->size(); }
  bool truncate(uint64_t size) override {
    system_->point();
    return file_->truncate(size);
  }
  bool sync() override {
    system_->point();
    return file_->sync();
  }

 private:
  KillingSystem* const system_;
  const std::unique_ptr<platform::File> file_;
};

std::unique_ptr<platform::File> KillingSystem::open(const char* path, platform::OpenMode mode) {
  if (mode != platform::OpenMode::kRead) point();  // it may create or cut
  auto file = QuickSystem::open(path, mode);
  return file ? std::make_unique<KillingFile>(this, std::move(file)) : nullptr;
}

struct ChildRun {
  int exit_code;
  size_t calls;     // that have returned
  uint64_t points;  // 0 after a kill
};

// The calls [first, end) of the story in a process that dies at point n.
ChildRun runChild(size_t first, size_t end, uint32_t block_bytes, uint64_t seed, uint64_t n) {
  fs::remove(kProgress);
  fs::remove(kPoints);
  ChildProcess child({"child", std::to_string(first), std::to_string(end),
                      std::to_string(block_bytes), std::to_string(seed), std::to_string(n)});
  const int exit_code = child.wait();
  const std::string points = story::readFile(kPoints);
  return {exit_code, story::readFile(kProgress).size(), points.empty() ? 0 : std::stoull(points)};
}

// A story, what the index holds before its first call and after each, and what
// the tables were written from.
class Killed {
 public:
  Killed(uint64_t seed, uint32_t block_bytes)
      : seed_(seed), block_bytes_(block_bytes), calls_(story::calls(seed)), books_(1) {
    for (const Call& call : calls_) {
      books_.push_back(books_.back());
      EXPECT_EQ(0, story::apply(call, &books_.back()));
    }
  }

  const std::vector<Call>& calls() const { return calls_; }
  uint64_t seed() const { return seed_; }
  uint32_t blockBytes() const { return block_bytes_; }

  // The index of the current directory after a kill in call `under_way`.
  void expectOneOfTwoStatesAndGoOn(size_t under_way) {
    const bool died = under_way < calls_.size();
    const Book& before = books_[under_way];
    const Book& after = books_[died ? under_way + 1 : under_way];
    expectTables(under_way);
    EXPECT_TRUE(story::configurationIs(before.content_size) ||
                story::configurationIs(after.content_size));

    std::string problem;
    const auto found = story::readIndex(&problem);
    ASSERT_NE(nullptr, found) << problem;
    ASSERT_TRUE(*found == before.saved || *found == after.saved)
        << found->size() << " records; " << before.saved.size() << " before the call, "
        << after.saved.size() << " after it";
    EXPECT_FALSE(story::exists("sig_index_DB/fid_index.jnl"));
    if (!found->empty()) {
      EXPECT_EQ(table_twin::metaRecord(-1, 3), story::readFile("sig_index_DB/meta_data.bin"));
    }

    // The rest of the story. What was pending is lost.
    Book book;
    book.saved = *found;
    size_t next = under_way + 1;
    const auto make = [&](const Call& call) {
      EXPECT_EQ(story::apply(call, &book), story::perform(call));
    };
    if (next >= calls_.size() || after.open) make({Kind::kOpen});
    for (; next < calls_.size(); ++next) make(calls_[next]);
    if (book.open) make({Kind::kClose});
    EXPECT_FALSE(story::exists("sig_index_DB/fid_index.jnl"));
    EXPECT_TRUE(story::tablesOnDiskAre(book.saved));
    const auto last = story::readIndex(&problem);
    ASSERT_NE(nullptr, last) << problem;
    EXPECT_TRUE(*last == book.saved);
  }

 private:
  // Tables of a version that was written whole, before or by the call under way.
  void expectTables(size_t under_way) {
    const auto writes = [&](size_t i) { return calls_[i].kind == Kind::kClose; };
    const Records* previous = nullptr;
    for (size_t i = 0; i < under_way; ++i) {
      if (writes(i)) previous = &books_[i + 1].saved;
    }
    const bool writing = under_way < calls_.size() && writes(under_way);
    const auto answers = story::search(calls_);
    if (!answers) {
      EXPECT_TRUE(writing || previous == nullptr) << "the tables are refused";
      return;
    }
    const bool old = previous != nullptr && *answers == story::answersOf(calls_, *previous);
    const bool now = writing && *answers == story::answersOf(calls_, books_[under_way + 1].saved);
    EXPECT_TRUE(old || now) << "the tables answer as no version of them would";
  }

  const uint64_t seed_;
  const uint32_t block_bytes_;
  const std::vector<Call> calls_;
  std::vector<Book> books_;
};

// Every point of the story, or every stride-th of them.
void killEverywhere(uint32_t block_bytes, uint64_t stride) {
  const uint64_t seed = documents::seed(kSeed);
  Killed killed(seed, block_bytes);
  story::QuickSystem quick(block_bytes);
  const size_t end = killed.calls().size();

  uint64_t points = 0;
  {
    const TempDir dir;
    story::writeConfiguration();
    const ChildRun whole = runChild(0, end, block_bytes, seed, 0);
    ASSERT_EQ(0, whole.exit_code);
    ASSERT_EQ(end, whole.calls);
    points = whole.points;
    ASSERT_GT(points, 500u);
  }
  uint64_t tried = 0;
  const uint64_t only = story::onlyPoint();
  for (uint64_t n = only != 0 ? only : 1 + seed % stride; n <= points; n += stride) {
    SCOPED_TRACE(story::repeatLine(seed, n));
    const TempDir dir;
    story::writeConfiguration();
    const ChildRun run = runChild(0, end, block_bytes, seed, n);
    ASSERT_EQ(kKilled, run.exit_code);
    ASSERT_LT(run.calls, end);
    killed.expectOneOfTwoStatesAndGoOn(run.calls);
    ++tried;
    if (testing::Test::HasFailure() || only != 0) break;
  }
  dlp_btree::vnDestroyIndexSystem();  // what a failure left open
  std::printf("%llu of %llu points\n", static_cast<unsigned long long>(tried),
              static_cast<unsigned long long>(points));
}

TEST(Kill, LeavesTheLastBatchOrTheOneUnderWay) {
  killEverywhere(1024, story::stride(1, 29, 61, 97));
}

TEST(Kill, AlsoWithBlocksOfTheSystemsSize) { killEverywhere(65536, story::stride(3, 41, 61, 97)); }

// The opening after a kill is killed as well, again and again.
TEST(Kill, InTheRecoveryIsRecoveredFrom) {
  const uint64_t seed = documents::seed(kSeed);
  constexpr uint32_t kBlockBytes = 1024;
  Killed killed(seed, kBlockBytes);
  story::QuickSystem quick(kBlockBytes);
  const size_t end = killed.calls().size();
  const uint64_t stride = story::stride(151, 701, 1201, 1201);
  size_t open = 0;
  while (killed.calls()[open].kind != Kind::kOpen) ++open;
  uint64_t recoveries = 0, kills = 0;
  for (uint64_t n = 1 + seed % stride;; n += stride) {
    const TempDir dir;
    story::writeConfiguration();
    const ChildRun run = runChild(0, end, kBlockBytes, seed, n);
    if (run.exit_code == 0) break;
    ASSERT_EQ(kKilled, run.exit_code);
    fs::create_directory("killed");
    const auto copy = [](const char* from, const char* to) {
      fs::remove_all(to);
      if (fs::exists(from)) fs::copy(from, to, fs::copy_options::recursive);
    };
    copy("sig_index_DB", "killed");
    const std::string configuration = story::readFile("index_sys_config.txt");
    ++recoveries;
    uint64_t step = 1;
    for (uint64_t m = 1;; m += step) {
      SCOPED_TRACE(story::repeatLine(seed, n) + ", recovery killed at " + std::to_string(m));
      copy("killed", "sig_index_DB");
      dir.write("index_sys_config.txt", configuration);
      // One call that opens the index; the point lies there or is not reached.
      const ChildRun reopened = runChild(open, open + 1, kBlockBytes, seed, m);
      ASSERT_TRUE(reopened.exit_code == kKilled || reopened.exit_code == 0);
      killed.expectOneOfTwoStatesAndGoOn(run.calls);
      ASSERT_FALSE(HasFailure());
      if (reopened.exit_code == 0) break;
      ++kills;
      step = story::stride(5, 17, 37, 37);
    }
  }
  dlp_btree::vnDestroyIndexSystem();
  std::printf("%llu kills in %llu recoveries\n", static_cast<unsigned long long>(kills),
              static_cast<unsigned long long>(recoveries));
}

}  // namespace

// child FIRST END BLOCK_BYTES SEED N
int runAsChild(const std::vector<std::string>& arguments) {
  const auto number = [&](size_t i) { return std::stoull(arguments.at(i)); };
  KillingSystem system(static_cast<uint32_t>(number(3)), number(5));
  const std::vector<Call> calls = story::calls(number(4));
  std::ofstream progress(kProgress, std::ios::binary);
  for (size_t i = number(1); i < number(2); ++i) {
    if (story::perform(calls.at(i)) != 0) return 3;
    progress << '.' << std::flush;
  }
  std::ofstream(kPoints) << system.points();
  dlp_btree::vnDestroyIndexSystem();
  return 0;
}
