// Every single thing that an indexing process asks of the system fails, once or
// from then on, by kinds and of any kind: no call may report what did not
// happen, and whatever happened, the next opening without failures finds one of
// the states that the reports allow, sound and usable.
//
// What the reports allow is followed in a set of books. It has one member as
// long as everything succeeds; a failed commit may or may not have come to be.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "index_story.h"
#include "log_capture.h"
#include "temp_dir.h"
#include "tessera.h"
#include "vn_index_system_btree.h"

namespace {

namespace fs = std::filesystem;
using story::Answers;
using story::Book;
using story::Kind;
using story::Records;

constexpr uint64_t kSeed = 20250412;
constexpr uint32_t kBlockBytes = 1024;

const std::set<Call> kEveryKind = {Call::kOpen,       Call::kSeek,          Call::kRead,
                                   Call::kWrite,      Call::kSize,          Call::kSync,
                                   Call::kTruncate,   Call::kRemove,        Call::kRename,
                                   Call::kAccess,     Call::kFinalPath,     Call::kSyncDirectory,
                                   Call::kCopyRights, Call::kMakeDirectory, Call::kToNativePath};

// The states that the calls so far allow.
class Books {
 public:
  Books() : books_({Book()}) {}

  const std::set<Book>& all() const { return books_; }

  // After a call during which, and since the opening of the index, nothing
  // failed.
  void succeeded(const story::Call& call) {
    std::set<Book> next;
    for (Book book : books_) {
      EXPECT_EQ(0, story::apply(call, &book));
      next.insert(std::move(book));
    }
    books_ = std::move(next);
  }

  // After a call that has returned `status` and met a failure, or comes after
  // one. Empty when no state allows the status.
  void returned(const story::Call& call, int status) {
    std::set<Book> next;
    for (const Book& book : books_) follow(book, call, status, &next);
    books_ = std::move(next);
  }

 private:
  static Book with(Book book, bool saved, bool untold) {
    if (saved) {
      const auto pending = book.pending;
      book.save();
      book.pending = pending;
    }
    book.untold = untold;
    return book;
  }

  // A save that has failed: not done; or done but not known to be; or done, and
  // it tells of a deletion before.
  static std::vector<Book> failedSaves(const Book& book) {
    std::vector<Book> books = {with(book, false, book.untold), with(book, true, book.untold)};
    if (book.untold) {
      books.push_back(with(book, true, false));
      books.back().pending.clear();
    }
    return books;
  }

  static void follow(const Book& book, const story::Call& call, int status, std::set<Book>* next) {
    Book done = book;
    if (call.kind == Kind::kConfigure) {
      // The setting is in force whether or not it could be written.
      if (status != 0) return;
      next->insert(book);
      done.content_size = call.file_ids[0];
      next->insert(done);
      return;
    }
    if (call.kind == Kind::kOpen) {
      if (status != 0 && status != 1) return;
      if (status == 0) story::apply(call, &done);
      next->insert(done);
      return;
    }
    if (!book.open) {
      if (status != 0) next->insert(book);
      return;
    }
    switch (call.kind) {
      case Kind::kAdd:
        if (status == 1) {
          if (!book.full()) return;
          for (Book& failed : failedSaves(book)) next->insert(std::move(failed));
          return;
        }
        if (book.full() && book.untold) return;  // the save had to tell it
        if (story::apply(call, &done) == status) next->insert(done);
        return;
      case Kind::kDelete:
        if (status != 0) return;
        done.erase(call.file_ids);
        next->insert(done);
        next->insert(with(done, false, true));
        next->insert(with(book, false, true));
        return;
      case Kind::kSave:
      case Kind::kClose: {
        const bool closes = call.kind == Kind::kClose;
        if (status == 0) {
          if (book.untold) return;
          story::apply(call, &done);
          next->insert(done);
          return;
        }
        if (status != (closes ? 1 : -5)) return;
        for (Book& failed : failedSaves(book)) {
          if (closes) {
            failed.pending.clear();
            failed.untold = false;
            failed.open = false;
          }
          next->insert(std::move(failed));
        }
        return;
      }
      default:
        return;
    }
  }

  std::set<Book> books_;
};

int openHandles() {
#ifdef __linux__
  int count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++count;
  return count;
#else
  return 0;
#endif
}

class IoErrors : public testing::Test {
 protected:
  IoErrors() { point_.setGranularity(kBlockBytes); }
  ~IoErrors() override { dlp_btree::vnDestroyIndexSystem(); }

  // Does the answer of each query belong to one of the versions, or is it a
  // failure?
  void expectAnswers(const std::vector<story::Call>& calls, const std::set<Records>& versions) {
    const auto answers = story::search(calls);
    if (!answers) return;
    std::vector<const Answers*> of_versions;
    for (const Records& records : versions) {
      of_versions.push_back(&story::answersOf(calls, records));
    }
    for (size_t i = 0; i < answers->size(); ++i) {
      bool allowed = (*answers)[i] == Answers::value_type{{0, -1}};
      for (const Answers* version : of_versions) {
        allowed = allowed || (*answers)[i] == (*version)[i];
      }
      EXPECT_TRUE(allowed) << "query " << i << " is answered as by no version of the tables";
    }
  }

  // What the exports say when they fail.
  void expectToldWhy(const story::Call& call, int status) {
    if (status == 0 || status == 2) return;
    bool told = call.kind == Kind::kDelete;
    for (const LogLine& line : log_.lines()) told = told || line.word == "Error";
    EXPECT_TRUE(told) << "failed without a message";
  }

  // One run of the story while the point fails, from a fresh directory.
  // Searches after each session, too.
  void run(const std::vector<story::Call>& calls, Books* books, std::set<Records>* versions) {
    bool clean = true;  // since the index was opened last
    for (size_t i = 0; i < calls.size() && !HasFailure(); ++i) {
      const story::Call& call = calls[i];
      if (call.kind == Kind::kOpen || call.kind == Kind::kConfigure) clean = true;
      const int failures = point_.failures();
      log_.clear();
      const int status = story::perform(call);
      clean = clean && failures == point_.failures();
      if (clean) {
        EXPECT_EQ(0, status) << "call " << i << " fails by itself";
        books->succeeded(call);
      } else {
        expectToldWhy(call, status);
        books->returned(call, status);
        ASSERT_FALSE(books->all().empty())
            << "call " << i << " returns " << status << ", which cannot be";
      }
      if (call.kind == Kind::kClose) {
        for (const Book& book : books->all()) versions->insert(book.saved);
        expectAnswers(calls, *versions);
        if (clean) {
          EXPECT_TRUE(std::any_of(books->all().begin(), books->all().end(), [](const Book& book) {
            return story::tablesOnDiskAre(book.saved);
          }));
        }
      }
    }
  }

  // Without failures: one of the states is there, and the index can be used.
  void expectOneOf(const std::set<Book>& books, const std::vector<story::Call>& calls,
                   const std::set<Records>& versions) {
    point_.failAny({}, 0);
    expectAnswers(calls, versions);
    std::string problem;
    const auto found = story::readIndex(&problem);
    ASSERT_NE(nullptr, found) << problem;
    const Book* state = nullptr;
    bool configured = false;
    for (const Book& book : books) {
      if (book.saved == *found) state = &book;
      configured = configured || story::configurationIs(book.content_size);
    }
    EXPECT_TRUE(configured) << story::readFile("index_sys_config.txt");
    ASSERT_NE(nullptr, state) << found->size() << " records, which no report allows";
    Book book;
    book.saved = *found;
    const std::vector<story::Call> rest = {
        {Kind::kOpen}, {Kind::kAdd, {99}, documents::signatures(5, 99)}, {Kind::kClose}};
    for (const story::Call& call : rest) {
      ASSERT_EQ(story::apply(call, &book), story::perform(call));
    }
    EXPECT_TRUE(story::tablesOnDiskAre(book.saved));
    EXPECT_FALSE(story::exists("sig_index_DB/fid_index.jnl"));
  }

  // Returns the number of watched calls of a run in which nothing fails.
  int count(const std::vector<story::Call>& calls, const std::set<Call>& kinds) {
    const TempDir dir;
    story::writeConfiguration();
    Books books;
    std::set<Records> versions;
    InitMatchSystem();  // the first of a process also reads the configuration
    point_.failAny(kinds, 0);
    run(calls, &books, &versions);
    const int count = point_.count();
    expectOneOf(books.all(), calls, versions);
    return count;
  }

  void sweep(const std::vector<story::Call>& calls, const std::set<Call>& kinds, bool lasting,
             uint64_t seed, uint64_t stride) {
    const int total = count(calls, kinds);
    const uint64_t only = story::onlyPoint();
    const int handles = openHandles();
    int tried = 0;
    for (uint64_t n = only != 0 ? only : 1 + seed % stride; n <= static_cast<uint64_t>(total);
         n += stride) {
      SCOPED_TRACE(story::repeatLine(seed, n) + (lasting ? " (lasting)" : " (once)"));
      const TempDir dir;
      story::writeConfiguration();
      Books books;
      std::set<Records> versions;
      point_.failAny(kinds, static_cast<int>(n), lasting);
      if (short_outages_) point_.atMost(2 + static_cast<int>(n % 6));
      run(calls, &books, &versions);
      EXPECT_TRUE(point_.failed());
      if (!HasFailure()) expectOneOf(books.all(), calls, versions);
      ++tried;
      if (HasFailure() || only != 0) break;
    }
    EXPECT_EQ(handles, openHandles());
    tried_ += tried;
    total_ += total;
  }

  void tell() const { std::printf("%d of %d calls failed in turn\n", tried_, total_); }

  FailPoint point_;
  LogCapture log_;
  bool short_outages_ = false;  // lasting failures last for two to seven calls
  int tried_ = 0;
  int total_ = 0;
};

// Large enough for two levels of nodes, small enough to be run a thousand times.
constexpr size_t kSmallDocuments = 30;

TEST_F(IoErrors, OnceAtAnyCall) {
  const uint64_t seed = documents::seed(kSeed);
  sweep(story::calls(seed, kSmallDocuments), kEveryKind, false, seed,
        story::stride(1, 13, 41, 131));
  tell();
}

TEST_F(IoErrors, FromAnyCallOn) {
  const uint64_t seed = documents::seed(kSeed);
  sweep(story::calls(seed, kSmallDocuments), kEveryKind, true, seed, story::stride(1, 13, 41, 131));
  tell();
}

// The system is back while the library is giving up: what could not be undone
// must not be gone on from.
TEST_F(IoErrors, ForAFewCalls) {
  const uint64_t seed = documents::seed(kSeed);
  short_outages_ = true;
  sweep(story::calls(seed, kSmallDocuments), kEveryKind, true, seed, story::stride(3, 13, 41, 131));
  tell();
}

// A disk that only takes no more, or only gives nothing back.
TEST_F(IoErrors, FromACallOfOneKindOn) {
  const uint64_t seed = documents::seed(kSeed);
  const auto calls = story::calls(seed, kSmallDocuments);
  for (const Call kind : kEveryKind) {
    sweep(calls, {kind}, true, seed, story::stride(2, 13, 41, 131));
    ASSERT_FALSE(HasFailure());
  }
  tell();
}

// What a failed sync has lost a second one would not miss, so the trees take no
// more until they are opened again, and each save says so.
TEST_F(IoErrors, AFailedSyncIsNotBelievedAfterwards) {
  const uint64_t seed = documents::seed(kSeed);
  const auto calls = story::calls(seed, kSmallDocuments);
  bool failed = true;
  int syncs = 0;
  const int step = static_cast<int>(story::stride(1, 3, 11, 17));
  for (int n = 1; failed; n += step) {
    SCOPED_TRACE(story::repeatLine(seed, static_cast<uint64_t>(n)));
    const TempDir dir;
    story::writeConfiguration();
    point_.fail(Call::kSync, n, false, "fid_index");
    bool sick = false;
    for (const story::Call& call : calls) {
      const int failures = point_.failures();
      const int status = story::perform(call);
      sick = sick || failures != point_.failures();
      const bool saves = call.kind == Kind::kSave || call.kind == Kind::kClose;
      if (sick && (saves || call.kind == Kind::kOpen)) {
        EXPECT_NE(0, status);
      }
      if (!sick) {
        ASSERT_EQ(0, status);
      }
      if (call.kind == Kind::kClose) sick = false;
    }
    failed = point_.failed();
    syncs += failed;
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(syncs * step, 100);
}

// Batches that do not fit into the caches write before they commit.
TEST_F(IoErrors, InLargeBatches) {
  const uint64_t seed = documents::seed(kSeed);
  const auto calls = story::calls(seed);
  for (const bool lasting : {false, true}) {
    sweep(calls, kEveryKind, lasting, seed, story::stride(37, 211, 801, 1201));
  }
  tell();
}

// The opening after a crash fails as well, or not; the one after that does not.
TEST_F(IoErrors, InTheRecoveryLeaveARecoveryForTheNextOpening) {
  const uint64_t seed = documents::seed(kSeed);
  const auto calls = story::calls(seed, kSmallDocuments);
  const int total = count(calls, kEveryKind);
  const uint64_t stride = story::stride(401, 1201, 2001, 2001);
  int recoveries = 0;
  for (uint64_t n = 1 + seed % stride; n <= static_cast<uint64_t>(total); n += stride) {
    const TempDir dir;
    story::writeConfiguration();
    // The system is gone from here on, which is what a crash leaves behind.
    Books books;
    std::set<Records> versions;
    point_.failAny(kEveryKind, static_cast<int>(n), true);
    run(calls, &books, &versions);
    point_.failAny({}, 0);
    if (!story::exists("sig_index_DB/fid_index.jnl")) continue;
    fs::copy("sig_index_DB", "crashed", fs::copy_options::recursive);
    for (const bool lasting : {false, true}) {
      for (int m = 1;; ++m) {
        SCOPED_TRACE(story::repeatLine(seed, n) + ", reopening fails at " + std::to_string(m) +
                     (lasting ? " (lasting)" : " (once)"));
        fs::remove_all("sig_index_DB");
        fs::copy("crashed", "sig_index_DB", fs::copy_options::recursive);
        point_.failAny(kEveryKind, m, lasting);
        const int opened = InitIndexSystem();
        const bool failed = point_.failed();
        EXPECT_TRUE(opened == 0 || (opened == 1 && failed)) << opened;
        point_.failAny({}, 0);
        dlp_btree::vnDestroyIndexSystem();
        expectOneOf(books.all(), calls, versions);
        ASSERT_FALSE(HasFailure());
        ++recoveries;
        if (!failed) break;
      }
    }
  }
  std::printf("%d recoveries failed in turn\n", recoveries);
}

}  // namespace
