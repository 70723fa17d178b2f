#include "signature_locator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "match_twin.h"
#include "plain_tables.h"

namespace {

using documents::signature;
using plain_tables::element;

class Locator : public testing::Test {
 protected:
  // Signatures in the order of `place`, at the beginning of a prefix.
  static Signature at(uint32_t place, int prefix = 0x20) {
    return signature({prefix, 0, 0, 0, 0, static_cast<int>(place >> 16),
                      static_cast<int>(place >> 8 & 255), static_cast<int>(place & 255)});
  }

  // Ascending; what the table and its directory are.
  void take(const std::vector<StrongElement>& list) {
    elements = list;
    std::string bytes;
    bytes.assign(reinterpret_cast<const char*>(list.data()), list.size() * sizeof(StrongElement));
    dir.write("table", bytes);
    directory.assign(kPrefixCount, {0, 0});
    for (uint32_t i = 0; i < list.size(); ++i) {
      PrefixRange& range = directory[signaturePrefix(list[i].signature)];
      if (range.end == 0) range.start = i;
      range.end = i + 1;
    }
    spread = Spread(directory.data());
  }

  ReadResult locate(const std::vector<Signature>& query, uint32_t load_limit, uint32_t low,
                    uint32_t high) {
    const auto n = static_cast<uint32_t>(query.size());
    first.assign(n, 0);
    last.assign(n, 0);
    std::vector<uint32_t> marks(n);
    for (uint32_t i = 0; i < n; ++i) {
      marks[i] = directory[signaturePrefix(query[i])].end == 0 ? 1 : 0;
    }
    const auto file = platform::current().open("table", platform::OpenMode::kRead);
    SignatureLocator locator({file.get(), static_cast<uint32_t>(elements.size())}, directory.data(),
                             spread, load_limit, kept);
    EXPECT_TRUE(locator.allocate());
    return locator.locate({n, query.data(), marks.data()}, low, high, first.data(), last.data());
  }

  void expectRuns(const std::vector<Signature>& query, uint32_t load_limit) {
    const auto ele_num = static_cast<uint32_t>(elements.size());
    ASSERT_EQ(ReadResult::kDone, locate(query, load_limit, 0, ele_num));
    const auto less = [](const StrongElement& e, const Signature& s) { return e.signature < s; };
    const auto more = [](const Signature& s, const StrongElement& e) { return s < e.signature; };
    for (size_t i = 0; i < query.size(); ++i) {
      if (directory[signaturePrefix(query[i])].end == 0) continue;
      const auto begin = std::lower_bound(elements.begin(), elements.end(), query[i], less);
      const auto end = std::upper_bound(elements.begin(), elements.end(), query[i], more);
      ASSERT_EQ(begin - elements.begin(), first[i]) << "signature " << i;
      ASSERT_EQ(end - elements.begin(), last[i]) << "signature " << i;
    }
  }

  // Reads that it takes to locate the query.
  int reads(const std::vector<Signature>& query, uint32_t load_limit = 209600) {
    FailPoint point;
    point.fail(Call::kRead, 0);
    EXPECT_EQ(ReadResult::kDone,
              locate(query, load_limit, 0, static_cast<uint32_t>(elements.size())));
    return point.count();
  }

  static std::vector<StrongElement> places(uint32_t count, uint32_t step, int prefix = 0x20) {
    std::vector<StrongElement> list;
    for (uint32_t i = 0; i < count; ++i) {
      list.push_back(element(at(i * step, prefix), static_cast<int32_t>(i), 1));
    }
    return list;
  }

  TempDir dir;
  std::vector<StrongElement> elements;
  std::vector<PrefixRange> directory;
  Spread spread;
  KeptPairs* kept = nullptr;
  std::vector<uint32_t> first, last;
};

TEST_F(Locator, EveryRunOfEveryLengthIsBounded) {
  for (const int before : {0, 1, 5, 300}) {
    for (const int run : {0, 1, 2, 3, 4, 5, 17, 95, 96, 97, 191, 192, 193, 5000}) {
      for (const int after : {0, 1, 300}) {
        if (before + run + after == 0) continue;
        std::vector<StrongElement> list;
        for (int i = 0; i < before; ++i) {
          list.push_back(element(at(static_cast<uint32_t>(i)), 1, 1));
        }
        for (int i = 0; i < run; ++i) list.push_back(element(at(400), i, 1));
        for (int i = 0; i < after; ++i) {
          list.push_back(element(at(static_cast<uint32_t>(500 + i)), 1, 1));
        }
        take(list);
        for (const uint32_t limit : {1u, 2u, 3u, 100u, 209600u}) {
          SCOPED_TRACE(testing::Message()
                       << before << " " << run << " " << after << " limit " << limit);
          ASSERT_NO_FATAL_FAILURE(
              expectRuns({at(0), at(399), at(400), at(400), at(401), at(900)}, limit));
        }
      }
    }
  }
}

TEST_F(Locator, TheFirstAndTheLastSignatureOfAPrefixAndOfAllAreBounded) {
  const Signature lowest = signature({0, 0, 0, 0, 0, 0, 0, 0});
  const Signature highest = signature({255, 255, 255, 255, 255, 255, 255, 255});
  const Signature last_of_prefix = signature({0x20, 0, 255, 255, 255, 255, 255, 255});
  for (const size_t copies : {1u, 300u, 5000u}) {
    std::vector<StrongElement> list(copies, element(lowest, 1, 1));
    list.insert(list.end(), copies, element(at(0), 1, 1));
    list.insert(list.end(), copies, element(last_of_prefix, 1, 1));
    list.insert(list.end(), copies, element(highest, 1, 1));
    take(list);
    for (const uint32_t limit : {1u, 2u, 209600u}) {
      expectRuns({lowest, at(0), at(1), last_of_prefix, highest, highest}, limit);
    }
  }
}

TEST_F(Locator, WhatLiesOutsideTheBoundsIsNotLookedAt) {
  take(places(1000, 2));
  ASSERT_EQ(ReadResult::kDone, locate({at(0), at(800), at(1999)}, 209600, 350, 700));
  EXPECT_EQ((std::vector<uint32_t>{350, 400, 700}), first);
  EXPECT_EQ((std::vector<uint32_t>{350, 401, 700}), last);
  EXPECT_EQ(ReadResult::kReadFailed, locate({at(0)}, 209600, 0, 1001));
  EXPECT_EQ(ReadResult::kReadFailed, locate({at(0)}, 209600, 2, 1));
}

TEST_F(Locator, AShortPrefixRangeIsOneRead) {
  take(places(96, 2));
  EXPECT_EQ(1, reads({at(77)}));
  EXPECT_EQ(1, reads({at(0), at(3), at(100), at(100), at(511)}));
}

// Ranges of 80 elements. 320 that are not asked for are still read along.
TEST_F(Locator, NeighboursAreReadTogetherAndDistantOnesAreNot) {
  std::vector<StrongElement> list;
  for (int prefix = 0; prefix < 60; ++prefix) {
    for (const StrongElement& e : places(80, 2, prefix)) list.push_back(e);
  }
  take(list);
  EXPECT_EQ(1, reads({at(4, 10), at(4, 11), at(4, 12)}));
  EXPECT_EQ(1, reads({at(4, 10), at(4, 14)}));
  EXPECT_EQ(2, reads({at(4, 10), at(4, 15)}));
  // Absent ones are as near as any; what a read takes at most ends it.
  EXPECT_EQ(1, reads({at(4, 10), at(5, 11), at(4, 12)}));
  EXPECT_EQ(3, reads({at(4, 10), at(4, 11), at(4, 12)}, 150));
  std::vector<Signature> all;
  for (int prefix = 0; prefix < 60; ++prefix) all.push_back(at(4, prefix));
  EXPECT_EQ(2, reads(all));
}

// Bytes of any value, and sums of letters as a text has them: below the prefixes
// that occur the signatures spread as the prefixes do.
TEST_F(Locator, OneReadIsMostlyEnoughInALongRange) {
  documents::Random random(20240712);
  for (const int letters : {0, 8}) {
    const auto byte = [&] {
      if (letters == 0) return static_cast<int>(random.below(256));
      uint64_t sum = 0;
      for (int i = 0; i < letters; ++i) sum += 'a' + random.below(26);
      return static_cast<int>(sum % 256);
    };
    std::vector<StrongElement> list;
    for (int i = 0; i < 200000; ++i) {
      list.push_back(
          element(signature({0x20, byte(), byte(), byte(), byte(), byte(), byte(), byte()}), i, 1));
    }
    plain_tables::sort(&list);
    take(list);
    int all = 0;
    for (size_t i = 0; i < list.size(); i += 1000) all += reads({list[i].signature});
    EXPECT_LE(all, 240) << letters;  // for 200 queries
  }
}

// All below one prefix and crowded at its beginning, so that every guess misses;
// and runs that are most of the table.
TEST_F(Locator, CrowdedPrefixesAndLongRunsTakeALogarithmicNumberOfReads) {
  constexpr int kMost = 2 * 17 + 4;  // guess and halving in turn, for 2^17 elements
  take(places(1 << 17, 1));
  for (const uint32_t place : {0u, 1u, 5000u, 65536u, 100000u, 131071u, 131072u}) {
    EXPECT_LE(reads({at(place)}), kMost) << place;
  }
  std::vector<StrongElement> list = places(300, 1);
  for (int i = 0; i < 100000; ++i) list.push_back(element(at(1000), i, 1));
  for (uint32_t i = 0; i < 300; ++i) list.push_back(element(at(2000 + i), 1, 1));
  take(list);
  EXPECT_LE(reads({at(1000)}), 2 * kMost);
  EXPECT_LE(reads({at(999), at(1000), at(1000), at(1001)}), 4 * kMost);
}

// Found whole in the window or read by and by: only the former is kept.
TEST_F(Locator, PairsThatWereReadAreKeptInTheOrderOfTheQuery) {
  std::vector<StrongElement> list;
  for (int i = 0; i < 3; ++i) list.push_back(element(at(10), i, 7));
  for (int i = 0; i < 2000; ++i) list.push_back(element(at(20), i, 7));
  list.push_back(element(at(30), 5, -7));
  take(list);
  KeptPairs pairs(5);
  kept = &pairs;
  ASSERT_EQ(ReadResult::kDone, locate({at(9), at(10), at(10), at(20), at(30)}, 209600, 0, 2004));
  EXPECT_EQ(nullptr, pairs.take(2003, 2004));
  for (int time = 0; time < 2; ++time) {
    const FsidPair* const run = pairs.take(0, 3);
    ASSERT_NE(nullptr, run);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(i, run[i].fid);
      EXPECT_EQ(7, run[i].source);
    }
  }
  EXPECT_EQ(nullptr, pairs.take(0, 3));
  EXPECT_EQ(nullptr, pairs.take(3, 2003));
  const FsidPair* const last_run = pairs.take(2003, 2004);
  ASSERT_NE(nullptr, last_run);
  EXPECT_EQ(5, last_run->fid);
  EXPECT_EQ(-7, last_run->source);
  EXPECT_EQ(nullptr, pairs.take(2003, 2004));
}

TEST(KeptPairs, WhatDoesNotFitIsLeftOut) {
  const std::vector<StrongElement> elements(20, element(signature({1}), 3, 4));
  KeptPairs pairs(2);  // 8 pairs
  ASSERT_TRUE(pairs.allocate());
  pairs.keep(0, 9, elements.data());
  EXPECT_EQ(nullptr, pairs.take(0, 9));
  pairs.keep(10, 15, elements.data());
  pairs.keep(15, 19, elements.data());
  pairs.keep(16, 19, elements.data());
  EXPECT_EQ(nullptr, pairs.take(10, 14));
  EXPECT_NE(nullptr, pairs.take(10, 15));
  EXPECT_EQ(nullptr, pairs.take(15, 19));
  EXPECT_NE(nullptr, pairs.take(16, 19));
}

TEST_F(Locator, MemoryThatIsOutIsTold) {
  FailPoint point;
  for (int n = 1; n <= 3; ++n) {
    KeptPairs pairs(2);
    SignatureLocator locator({}, nullptr, spread, 10, &pairs);
    point.fail(Call::kAllocate, n);
    EXPECT_FALSE(locator.allocate());
    EXPECT_TRUE(locator.allocate());  // and there is memory again
    EXPECT_EQ(4, point.count());
  }
}

TEST_F(Locator, AFailureIsTheFiles) {
  take(places(2000, 2));
  FailPoint point;
  point.fail(Call::kSeek, 1);
  EXPECT_EQ(ReadResult::kSeekFailed, locate({at(4)}, 100, 0, 2000));
  point.fail(Call::kRead, 2);
  EXPECT_EQ(ReadResult::kReadFailed, locate({at(2000)}, 100, 0, 2000));
  EXPECT_TRUE(point.failed());
}

TEST_F(Locator, RandomQueriesInCrowdedTablesOfEveryLimit) {
  const uint64_t seed = documents::seed(20240711);
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  documents::Random random(seed);
  for (int round = 0; round < 30; ++round) {
    const uint64_t prefixes = 1 + random.below(40);
    const uint64_t distinct = 1 + random.below(40000);
    const auto any = [&] {
      return at(static_cast<uint32_t>(random.below(distinct)),
                static_cast<int>(random.below(prefixes)));
    };
    std::vector<StrongElement> list;
    while (list.size() < 20000) {
      const Signature s = any();
      const uint64_t run = random.oneIn(500) ? random.below(3000) : random.below(3);
      for (uint64_t i = 0; i <= run; ++i) list.push_back(element(s, static_cast<int32_t>(i), 1));
    }
    plain_tables::sort(&list);
    take(list);
    std::vector<Signature> query;
    for (uint64_t i = 1 + random.below(400); i-- > 0;) query.push_back(any());
    if (!random.oneIn(5)) std::sort(query.begin(), query.end());
    for (const uint32_t limit : {1u, 2u, 7u, 191u, 300u, 209600u}) {
      ASSERT_NO_FATAL_FAILURE(expectRuns(query, limit));
    }
  }
}

}  // namespace
