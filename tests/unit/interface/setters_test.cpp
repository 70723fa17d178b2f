// What hosts may do from several threads without a lock of their own.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tessera.h"

namespace {

// Only an addition beside it is ruled out; ThreadSanitizer sees the rest.
TEST(Setters, TheLimitOfTheTableMayBeSetByThreadsSideBySide) {
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (unsigned n = 0; n < 1000; ++n) EXPECT_EQ(0, setMaxStblSize(0x80000000 - i - n));
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, setMaxStblSize(0x80000000));
}

}  // namespace
