// Several threads of a host inside the built library at once. Meant above all
// for the build with ThreadSanitizer. TESSERA_THREAD_SECONDS lengthens the run
// that ends by the clock.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include "host_session.h"
#include "prose.h"

namespace {

constexpr int kThreads = 8;

class Threads : public LibraryTest {
 protected:
  // Makes an index and loads its tables; the model learns the same documents.
  void loadSixtyDocuments(IndexModel* model);
};

// Runs work(0) to work(kThreads - 1) side by side.
void together(const std::function<void(int)>& work) {
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      --waiting;
      while (waiting > 0) std::this_thread::yield();
      work(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

Signatures some(int seed) { return documents::signatures(20, static_cast<uint64_t>(seed), 500); }

TEST_F(Threads, GenerateTheSameLists) {
  const std::string text = joined(paragraphs(40, 1));
  for (const int platform : {TESSERA_SERVER, TESSERA_CLIENT}) {
    ASSERT_EQ(0, InitSignatureGenerator(platform));
    const Signatures expected = textSignatures(text);
    const Signatures binary = binarySignatures(text);
    together([&](int) {
      for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(expected, textSignatures(text));
        EXPECT_EQ(binary, binarySignatures(text));
      }
    });
    ASSERT_EQ(0, ExitSignatureGenerator());
  }
}

TEST_F(Threads, AddToOneIndex) {
  configure("max_fid_num = 4\n");
  IndexModel model(16);
  model.open();
  ASSERT_EQ(0, InitIndexSystem());
  together([](int thread) {
    for (int i = 0; i < 50; ++i) {
      EXPECT_EQ(0, addDocument(thread * 50 + i, some(thread * 50 + i)));
    }
  });
  for (int i = 0; i < kThreads * 50; ++i) model.add(i, some(i));
  EXPECT_EQ(model.close(), ExitIndexSystem());
  expectTables(model.tables(), readTables(dir_));
}

TEST_F(Threads, AddAndDeleteInOneIndex) {
  configure("max_fid_num = 4\n");
  IndexModel model(16);
  model.open();
  ASSERT_EQ(0, InitIndexSystem());
  for (int i = 0; i < 200; ++i) {
    model.add(i, some(i));
    ASSERT_EQ(0, addDocument(i, some(i)));
  }
  model.close();
  ASSERT_EQ(0, ExitIndexSystem());

  model.open();
  ASSERT_EQ(0, InitIndexSystem());
  together([](int thread) {
    for (int i = 0; i < 20; ++i) {
      if (thread % 2 == 0) {
        EXPECT_EQ(0, deleteDocuments({thread * 20 + i}));
      } else {
        EXPECT_EQ(0, addDocument(1000 + thread * 20 + i, some(thread)));
      }
    }
  });
  for (int thread = 0; thread < kThreads; ++thread) {
    for (int i = 0; i < 20; ++i) {
      if (thread % 2 == 0) {
        model.erase({thread * 20 + i});
      } else {
        model.add(1000 + thread * 20 + i, some(thread));
      }
    }
  }
  EXPECT_EQ(model.close(), ExitIndexSystem());
  expectTables(model.tables(), readTables(dir_));
}

TEST_F(Threads, OneOfManyOpensTheIndex) {
  configure();
  std::atomic<int> opened{0}, closed{0};
  together([&](int) { opened += InitIndexSystem() == 0; });
  EXPECT_EQ(1, opened);
  together([&](int) { closed += ExitIndexSystem() == 0; });
  EXPECT_EQ(1, closed);
}

void Threads::loadSixtyDocuments(IndexModel* model) {
  configure();
  model->open();
  ASSERT_EQ(0, InitIndexSystem());
  for (int i = 0; i < 60; ++i) {
    model->add(i, some(i % 20));
    ASSERT_EQ(0, addDocument(i, some(i % 20)));
  }
  model->close();
  ASSERT_EQ(0, ExitIndexSystem());
  ASSERT_EQ(0, InitMatchSystem());
}

TEST_F(Threads, SearchTheSameTables) {
  IndexModel model;
  ASSERT_NO_FATAL_FAILURE(loadSixtyDocuments(&model));
  together([&](int thread) {
    for (int i = 0; i < 30; ++i) {
      const Signatures query = some((i + thread) % 25);  // five of them are nobody's
      EXPECT_EQ(model.match(query, 1), match(query));
    }
  });
}

// A search beside a reload answers rightly or fails; it never waits, crashes or
// answers from half of the tables.
TEST_F(Threads, SearchBesideReloads) {
  constexpr int kMatchers = 16;
  const char* const text = std::getenv("TESSERA_THREAD_SECONDS");
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::seconds(text != nullptr ? std::atoi(text) : 2);
  IndexModel model;
  ASSERT_NO_FATAL_FAILURE(loadSixtyDocuments(&model));
  std::vector<Matches> expected;
  for (int i = 0; i < 25; ++i) expected.push_back(model.match(some(i), 1));

  std::atomic<bool> stop{false};
  std::atomic<int> right{0}, wrong{0}, neither{0};
  std::vector<std::thread> matchers;
  for (int thread = 0; thread < kMatchers; ++thread) {
    matchers.emplace_back([&, thread] {
      for (int i = thread; !stop; ++i) {
        Matches matches;
        const int status = tryMatch(some(i % 25), 1, &matches);
        if (status == 0) {
          ++(matches == expected[static_cast<size_t>(i % 25)] ? right : wrong);
        } else if (status != 1) {
          ++neither;
        }
      }
    });
  }
  int reloads = 0;
  do {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0, ExitMatchSystem());
    EXPECT_EQ(0, InitMatchSystem());
    ++reloads;
  } while (std::chrono::steady_clock::now() < end);
  stop = true;
  for (std::thread& matcher : matchers) matcher.join();
  EXPECT_EQ(0, wrong);
  EXPECT_EQ(0, neither);
  EXPECT_GT(right, 0);
  EXPECT_GT(reloads, 0);
  for (int i = 0; i < 25; ++i) EXPECT_EQ(expected[static_cast<size_t>(i)], match(some(i)));
}

// The three families know nothing of each other.
TEST_F(Threads, GenerateIndexAndMatchAtOnce) {
  configure("fid_index_fname = \"trees\"\n");
  ASSERT_EQ(0, InitIndexSystem());
  ASSERT_EQ(0, addDocument(1, some(1)));
  ASSERT_EQ(0, ExitIndexSystem());
  ASSERT_EQ(0, InitMatchSystem());
  ASSERT_EQ(0, InitIndexSystem());
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  const std::string text = joined(paragraphs(20, 1));
  const Signatures expected = textSignatures(text);
  together([&](int thread) {
    for (int i = 0; i < 20; ++i) {
      if (thread % 3 == 0) {
        EXPECT_EQ(expected, textSignatures(text));
      } else if (thread % 3 == 1) {
        EXPECT_EQ(0, addDocument(100 + thread * 20 + i, some(i)));
      } else {
        EXPECT_EQ((Matches{{1, 2}}), match(some(1)));
      }
    }
  });
  EXPECT_EQ(0, ExitIndexSystem());
}

}  // namespace
