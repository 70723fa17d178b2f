// Each of the fifteen exports while memory runs out: at every single allocation,
// of a container or of a large block, once or from then on. An export says what
// it says in tessera.h, throws nothing, keeps nothing, and leaves the library in
// a state from which the same call succeeds.
//
// This file replaces the operators new and delete of its program.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "documents.h"
#include "index_story.h"
#include "temp_dir.h"
#include "tessera.h"

namespace {

bool armed = false;
bool lasting = false;
long n = 0;      // the allocation that fails
long asked = 0;  // allocations while armed
long live = 0;   // blocks of operator new

bool refused() {
  if (!armed) return false;
  ++asked;
  return asked == n || (lasting && asked > n);
}

void* take(size_t bytes) {
  void* const block = refused() ? nullptr : std::malloc(bytes);
  if (block != nullptr) ++live;
  return block;
}

void give(void* block) {
  if (block != nullptr) --live;
  std::free(block);
}

}  // namespace

// Not inline: g++ would take the free() for one that does not fit the new.
[[gnu::noinline]] void* operator new(size_t bytes) {
  void* const block = take(bytes);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
[[gnu::noinline]] void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  return take(bytes);
}
[[gnu::noinline]] void operator delete(void* block) noexcept { give(block); }
[[gnu::noinline]] void operator delete(void* block, size_t) noexcept { give(block); }
[[gnu::noinline]] void operator delete(void* block, const std::nothrow_t&) noexcept { give(block); }

namespace {

namespace fs = std::filesystem;
using story::Book;
using story::Call;
using story::Kind;

class ScarceSystem final : public story::QuickSystem {
 public:
  ScarceSystem() : QuickSystem(1024) {}
  void* allocate(size_t bytes) override {
    return refused() ? nullptr : QuickSystem::allocate(bytes);
  }
};

class Memory : public testing::Test {
 protected:
  Memory() { story::writeConfiguration(); }
  ~Memory() override {
    ExitMatchSystem();
    ExitIndexSystem();
    ExitSignatureGenerator();
  }

  // A call of the library, whose blocks are counted.
  template <typename Export>
  int library(Export call) {
    const long before = live;
    const int status = call();
    kept_ += live - before;
    return status;
  }

  template <typename Export>
  int scarce(Export call) {
    return library([&] {
      asked = 0;
      armed = true;
      const int status = call();
      armed = false;
      return status;
    });
  }

  int perform(const Call& call) {
    return library([&] { return story::perform(call); });
  }

  // prepare(), the export without its n-th allocation, check(its status), for
  // every n until there is no n-th one; the last call has all memory it wants.
  // check() leaves the library as prepare() finds it.
  template <typename Prepare, typename Export, typename Check>
  void everyAllocation(Prepare prepare, Export call, Check check) {
    long refusals = 0;
    for (const bool from_then_on : {false, true}) {
      lasting = from_then_on;
      long kept = 0;
      for (n = 1;; ++n) {
        SCOPED_TRACE(std::string("allocation ") + std::to_string(n) +
                     (lasting ? " and all later ones" : ""));
        prepare();
        const int status = scarce(call);
        const bool met = asked >= n;
        check(status, met);
        // The first round may keep what is made once for a process.
        if (n > 2) {
          EXPECT_EQ(kept, kept_) << "blocks were not given back";
        }
        kept = kept_;
        if (HasFailure() || !met) break;
        ++refusals;
      }
    }
    std::printf("%ld allocations refused\n", refusals);
    refusals_ = refusals;
  }

  // One that has no use for memory.
  template <typename Prepare, typename Export>
  void noAllocation(Prepare prepare, Export call) {
    prepare();
    lasting = true;
    n = 1;
    EXPECT_EQ(0, scarce(call));
    EXPECT_EQ(0, asked);
  }

  const TempDir dir_;
  ScarceSystem system_;
  long kept_ = 0;  // blocks that the library has and did not have at first
  long refusals_ = 0;
};

const auto nothing = [] {};

// ---- Generation ----

std::vector<Signature> generated(int (*generate)(char*, int, unsigned char (**)[8], int*),
                                 std::string content, int* status) {
  unsigned char(*list)[8] = nullptr;
  int count = -1;
  *status = generate(content.data(), static_cast<int>(content.size()), &list, &count);
  if (*status != 0) {
    EXPECT_EQ(nullptr, list);
    EXPECT_EQ(0, count);
    return {};
  }
  const auto first = reinterpret_cast<const Signature*>(list);
  std::vector<Signature> signatures(first, first + count);
  FreeSignature(list);
  return signatures;
}

TEST_F(Memory, InitSignatureGenerator) {
  everyAllocation(
      nothing, [] { return InitSignatureGenerator(TESSERA_SERVER); },
      [&](int status, bool met) {
        EXPECT_TRUE(status == 0 || (met && status == 1));
        EXPECT_EQ(status, library([] { return ExitSignatureGenerator(); }));
        EXPECT_EQ(0, library([] { return InitSignatureGenerator(TESSERA_SERVER); }));
        EXPECT_EQ(0, library([] { return ExitSignatureGenerator(); }));
        EXPECT_TRUE(story::configurationIs(6 << 20));
        story::writeConfiguration();
      });
  EXPECT_GT(refusals_, 4);
}

void generates(int platform, int (*generate)(char*, int, unsigned char (**)[8], int*),
               const std::function<void(const std::function<int()>&,
                                        const std::function<void(int, bool)>&)>& sweep) {
  ASSERT_EQ(0, InitSignatureGenerator(platform));
  const std::string content = documents::words(9000, 1);
  int status;
  const std::vector<Signature> expected = generated(generate, content, &status);
  ASSERT_EQ(0, status);
  ASSERT_FALSE(expected.empty());
  unsigned char(*list)[8];
  int count;
  std::string text = content;
  sweep([&] { return generate(text.data(), static_cast<int>(text.size()), &list, &count); },
        [&](int got, bool met) {
          EXPECT_EQ(met ? 1 : 0, got);
          if (got == 0) {
            EXPECT_EQ(expected.size(), static_cast<size_t>(count));
            FreeSignature(list);
          } else {
            EXPECT_EQ(nullptr, list);
            EXPECT_EQ(0, count);
          }
          int again;
          EXPECT_TRUE(expected == generated(generate, content, &again));
        });
}

TEST_F(Memory, GenerateSignature4Text) {
  for (const int platform : {TESSERA_SERVER, TESSERA_CLIENT}) {
    generates(platform, GenerateSignature4Text,
              [&](const auto& call, const auto& check) { everyAllocation(nothing, call, check); });
    EXPECT_GT(refusals_, 4);
    ExitSignatureGenerator();
  }
}

TEST_F(Memory, GenerateSignature4Binary) {
  generates(TESSERA_SERVER, GenerateSignature4Binary,
            [&](const auto& call, const auto& check) { everyAllocation(nothing, call, check); });
  EXPECT_GT(refusals_, 0);
}

TEST_F(Memory, SetMaxContentSize) {
  everyAllocation(
      nothing, [] { return SetMaxContentSize(2 << 20); },
      [&](int status, bool) {
        EXPECT_EQ(0, status) << "writing it back is nobody's concern";
        EXPECT_TRUE(story::configurationIs(0) || story::configurationIs(2 << 20));
        EXPECT_FALSE(dir_.exists("index_sys_config.txt.tmp0")) << "nobody would ever remove it";
        story::writeConfiguration();
        EXPECT_EQ(0, library([] { return SetMaxContentSize(2 << 20); }));
        EXPECT_TRUE(story::configurationIs(2 << 20));
        story::writeConfiguration();
      });
  EXPECT_GT(refusals_, 3);
}

TEST_F(Memory, FreeSignature) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  std::string content = "content";
  unsigned char(*list)[8] = nullptr;
  int count;
  ASSERT_EQ(0, GenerateSignature4Binary(content.data(), 7, &list, &count));
  noAllocation(nothing, [&] { return FreeSignature(list); });
}

TEST_F(Memory, ExitSignatureGenerator) {
  noAllocation([] { InitSignatureGenerator(TESSERA_CLIENT); },
               [] { return ExitSignatureGenerator(); });
}

// ---- Index ----

// An index that was prepared once and is there anew for each refusal.
class IndexMemory : public Memory {
 protected:
  static Call document(int64_t file_id, size_t signatures = 40) {
    return {Kind::kAdd,
            {file_id},
            documents::signatures(signatures, static_cast<uint64_t>(file_id) + 1000, 256)};
  }

  void makeIndex() {
    const auto make = [&](const Call& call) {
      ASSERT_EQ(story::apply(call, &prepared_), story::perform(call));
    };
    make({Kind::kOpen});
    for (int64_t file_id = 1; file_id < 12; ++file_id) make(document(file_id));
    make({Kind::kClose});
    make({Kind::kOpen});
    make({Kind::kDelete, {3, 4}});
    make({Kind::kClose});
    calls_ = {document(1), document(3), document(9), document(20), document(21, 400)};
    // The tables are large, and only the match side needs them.
    for (const char* suffix : {".wtbl", ".stbl", ".wmeta", ".smeta"}) {
      if (!keeps_tables_) fs::remove(std::string("sig_index_DB/search_table") + suffix);
    }
    fs::rename("sig_index_DB", "prepared");
  }

  // With `pending` documents more, whose book is kept in book_.
  void open(int64_t pending) {
    copyIndex();
    make({Kind::kOpen});
    for (int64_t i = 0; i < pending; ++i) make(document(20 + i));
  }
  void copyIndex() {
    fs::remove_all("sig_index_DB");
    fs::copy("prepared", "sig_index_DB");
    book_ = prepared_;
  }
  void make(const Call& call) { ASSERT_EQ(story::apply(call, &book_), perform(call)); }

  // The index is closed and holds the records of one of the books.
  void expectOneOf(const std::vector<Book>& books) {
    std::string problem;
    const auto found = story::readIndex(&problem);
    ASSERT_NE(nullptr, found) << problem;
    EXPECT_TRUE(std::any_of(books.begin(), books.end(),
                            [&](const Book& book) { return book.saved == *found; }))
        << found->size() << " records";
    EXPECT_FALSE(story::exists("sig_index_DB/fid_index.jnl"));
  }

  bool keeps_tables_ = false;
  Book prepared_;
  Book book_;
  std::vector<Call> calls_;
};

TEST_F(IndexMemory, InitIndexSystem) {
  makeIndex();
  for (const bool fresh : {false, true}) {
    everyAllocation(
        [&] {
          copyIndex();
          if (!fresh) return;
          fs::remove_all("sig_index_DB");
          book_ = Book();
        },
        [] { return InitIndexSystem(); },
        [&](int status, bool met) {
          EXPECT_TRUE(status == 0 || (met && status == 1)) << status;
          if (status != 0) {
            EXPECT_EQ(1, perform(document(30))) << "it is open";
            ASSERT_EQ(0, perform({Kind::kOpen}));
          }
          story::apply({Kind::kOpen}, &book_);
          make(document(30));
          make({Kind::kClose});
          expectOneOf({book_});
        });
    EXPECT_GT(refusals_, 50);
  }
}

TEST_F(IndexMemory, AddDocSignature) {
  makeIndex();
  const Call addition = document(30);
  everyAllocation([&] { open(2); }, [&] { return story::perform(addition); },
                  [&](int status, bool met) {
                    // Without memory to look for it, the limited table is none.
                    EXPECT_TRUE(status == 0 || (met && status == 1)) << status;
                    if (status == 0) story::apply(addition, &book_);
                    // Refused is not pending.
                    EXPECT_EQ(status == 0 ? 2 : 0, perform(addition));
                    if (status != 0) story::apply(addition, &book_);
                    make({Kind::kClose});
                    expectOneOf({book_});
                  });
  EXPECT_GT(refusals_, 3);
}

// The collector is full: the addition saves what is pending first.
TEST_F(IndexMemory, AddDocSignatureThatSaves) {
  makeIndex();
  const Call addition = document(30);
  everyAllocation([&] { open(7); }, [&] { return story::perform(addition); },
                  [&](int status, bool met) {
                    EXPECT_TRUE(status == 0 || (met && status == 1)) << status;
                    if (status != 0) status = perform(addition);  // saves now
                    if (status == 0) {
                      story::apply(addition, &book_);
                      make({Kind::kClose});
                    } else {
                      // There was no memory to go back with either: the trees
                      // take nothing until they are opened again.
                      EXPECT_TRUE(lasting) << "what was refused once is refused for good";
                      EXPECT_EQ(1, perform({Kind::kClose}));
                      book_ = prepared_;
                    }
                    expectOneOf({book_});
                    make({Kind::kOpen});
                    make({Kind::kClose});
                  });
  EXPECT_GT(refusals_, 30);
}

TEST_F(IndexMemory, DelDocSignature) {
  makeIndex();
  const Call deletion = {Kind::kDelete, {1, 9, 3, 20}};
  everyAllocation([&] { open(2); },
                  [&] {
                    int64_t file_ids[] = {1, 9, 3, 20};
                    return DelDocSignature(file_ids, 4);
                  },
                  [&](int status, bool met) {
                    EXPECT_TRUE(status == 0 || (met && status == 1)) << status;
                    Book kept = book_;
                    story::apply(deletion, &book_);
                    const int closed = perform({Kind::kClose});
                    // A deletion that was reported and is not done is told here;
                    // so is a way back that could not be gone for want of memory.
                    EXPECT_TRUE(closed == 0 || met);
                    story::apply({Kind::kClose}, &book_);
                    story::apply({Kind::kClose}, &kept);
                    if (closed != 0) {
                      expectOneOf({kept, prepared_});
                    } else {
                      expectOneOf({status == 0 ? book_ : kept});
                    }
                  });
  EXPECT_GT(refusals_, 10);
}

TEST_F(IndexMemory, ExitIndexSystem) {
  makeIndex();
  everyAllocation([&] { open(5); }, [] { return ExitIndexSystem(); },
                  [&](int status, bool met) {
                    EXPECT_TRUE(status == 0 || (met && status == 1)) << status;
                    const Book before = prepared_;
                    story::apply({Kind::kClose}, &book_);
                    // The tables alone may be missing, which is not told; then
                    // they are refused.
                    const auto answers = story::search(calls_);
                    EXPECT_TRUE(!answers || *answers == story::answersOf(calls_, book_.saved));
                    EXPECT_TRUE(answers || met) << "the tables are refused";
                    EXPECT_EQ(1, perform({Kind::kClose})) << "it is still open";
                    expectOneOf({status == 0 ? book_ : before});
                    book_ = status == 0 ? book_ : before;
                    make({Kind::kOpen});
                    make({Kind::kClose});
                    EXPECT_TRUE(story::tablesOnDiskAre(book_.saved));
                  });
  EXPECT_GT(refusals_, 40);
}

TEST_F(IndexMemory, SetMaxStblSize) {
  noAllocation(nothing, [] { return setMaxStblSize(0x80000000u); });
}

// ---- Matching ----

class MatchMemory : public IndexMemory {
 protected:
  MatchMemory() {
    keeps_tables_ = true;
    makeIndex();
    copyIndex();
  }
};

TEST_F(MatchMemory, InitMatchSystem) {
  everyAllocation(
      nothing, [] { return InitMatchSystem(); },
      [&](int status, bool met) {
        EXPECT_EQ(met ? 1 : 0, status);
        EXPECT_EQ(status, library([] { return ExitMatchSystem(); }));
        EXPECT_TRUE(story::search(calls_) == story::answersOf(calls_, book_.saved));
      });
  EXPECT_GT(refusals_, 4);
}

TEST_F(MatchMemory, MatchSignature) {
  ASSERT_EQ(0, InitMatchSystem());
  std::vector<Signature> query = documents::signatures(40, 1001, 256);
  const auto more = documents::signatures(40, 1009, 256);
  query.insert(query.end(), more.begin(), more.end());
  std::sort(query.begin(), query.end());
  _DLPSigMatchRet any;
  _DLPSigMatchRet* result = nullptr;
  int count = 0;
  const auto match = [&] {
    result = &any;
    return MatchSignature(reinterpret_cast<unsigned char(*)[8]>(query.data()),
                          static_cast<int>(query.size()), 1, &result, &count);
  };
  const auto expectBoth = [&] {
    ASSERT_EQ(2, count);
    EXPECT_EQ(1, result[0].fileID);
    EXPECT_EQ(9, result[1].fileID);
    EXPECT_EQ(2, result[0].match_level + result[1].match_level - 2);
    FreeSigMatchRet(result);
  };
  everyAllocation(nothing, match, [&](int status, bool met) {
    EXPECT_EQ(met ? 1 : 0, status);
    if (status == 0) {
      expectBoth();
    } else {
      EXPECT_EQ(nullptr, result);
    }
    ASSERT_EQ(0, library(match));
    expectBoth();
  });
  EXPECT_GT(refusals_, 8);
}

TEST_F(MatchMemory, FreeSigMatchRet) {
  ASSERT_EQ(0, InitMatchSystem());
  _DLPSigMatchRet any;
  _DLPSigMatchRet* result = &any;
  int count = 0;
  unsigned char root[1][8];
  std::fill_n(root[0], 8, static_cast<unsigned char>(255));
  ASSERT_EQ(0, MatchSignature(root, 1, 1, &result, &count));
  ASSERT_EQ(1, count);
  noAllocation(nothing, [&] { return FreeSigMatchRet(result); });
}

TEST_F(MatchMemory, ExitMatchSystem) {
  noAllocation([] { InitMatchSystem(); }, [] { return ExitMatchSystem(); });
}

}  // namespace
