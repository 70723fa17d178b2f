// Random tables and queries: the search against one that looks at every element,
// and on larger tables against one with large loads.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "documents.h"
#include "log_capture.h"
#include "match_twin.h"
#include "plain_search.h"
#include "plain_tables.h"
#include "status.h"
#include "vn_fid_search_engine.h"
#include "vn_search_system.h"

namespace {

using documents::Random;

class MatchProperty : public testing::Test {
 protected:
  // Signatures crowd: few prefixes, the first and the last among them, and under
  // each a few neighbouring places.
  Signature randomSignature() {
    static constexpr int kPrefixes[] = {0x0000, 0x0001, 0x20ff, 0x2100, 0x2101, 0x7fff, 0xffff};
    const int prefix = kPrefixes[random.below(std::min<uint64_t>(prefixes, std::size(kPrefixes)))];
    const int place = static_cast<int>(random.below(places));
    // Bytes above 127 in every column: they are not signed.
    return documents::signature({prefix >> 8, prefix & 255, 255, 0, place % 2 * 255, place / 100,
                                 place % 100 * 2, static_cast<int>(random.below(2)) * 255});
  }

  void makeTable() {
    prefixes = 1 + random.below(7);
    places = 1 + random.below(150);
    const uint64_t files = 1 + random.below(60);
    const uint64_t sources = 1 + random.below(8);
    const uint64_t signatures = 1 + random.below(120);
    const uint64_t longest_run = 1 + random.below(random.oneIn(4) ? 200 : 6);
    elements.clear();
    for (uint64_t i = 0; i < signatures; ++i) {
      const Signature signature = randomSignature();
      for (uint64_t run = 1 + random.below(longest_run); run-- > 0;) {
        const auto fid = static_cast<int32_t>(random.below(files)) - 30;
        const auto source = static_cast<int32_t>(random.below(sources)) - 4;
        elements.push_back(plain_tables::element(
            signature, random.oneIn(40) ? INT32_MIN + (fid + 30) : fid, source));
      }
    }
    plain_tables::sort(&elements);
    plain_tables::write(dir, plain_tables::make(elements, {0, 3}));
  }

  void loadWithLimit(uint32_t limit) {
    IndexSysConfiguration configuration;
    configuration.max_ele_num_load = limit;
    ASSERT_EQ(kOk, engine.setConfig(configuration));
    MetaData meta;
    ASSERT_EQ(kOk, engine.Init(&meta));
  }

  void makeQuery() {
    query.clear();
    const uint64_t count = 1 + random.below(random.oneIn(3) ? 400 : 30);
    const bool repeats = random.oneIn(3);
    while (query.size() < count) {
      Signature signature =
          random.oneIn(2) ? elements[random.below(elements.size())].signature : randomSignature();
      if (random.oneIn(5)) signature.bytes[7] ^= 1;                 // a neighbour
      if (random.oneIn(10)) signature.bytes[random.below(2)] ^= 2;  // mostly an absent prefix
      if (random.oneIn(20)) std::fill_n(signature.bytes, 8, random.oneIn(2) ? 0 : 255);
      query.push_back(signature);
      while (repeats && random.oneIn(2)) query.push_back(signature);
    }
    std::sort(query.begin(), query.end(), [](const Signature& left, const Signature& right) {
      return std::memcmp(left.bytes, right.bytes, 8) < 0;
    });
  }

  void expectTwinsAnswer(uint32_t limit) {
    const auto n = static_cast<uint32_t>(query.size());
    log.clear();
    std::vector<uint32_t> bFind(n), st_pos(n), en_pos(n);
    uint32_t found_num = 0;
    SearchResult result;
    MallocArray<FsidPair> files;
    ASSERT_EQ(kOk, engine.SearchSignatures(n, query.data(), &found_num,
                                           {bFind.data(), st_pos.data(), en_pos.data()},
                                           &result.fid_num, &files, &result.freq));
    const match_twin::Walk walk(elements, query, limit);
    ASSERT_EQ(walk.messages, log.messages());
    uint32_t expected_found = 0;
    for (uint32_t i = 0; i < n; ++i) {
      const match_twin::Range expected = match_twin::findRange(elements, query[i]);
      ASSERT_EQ(expected.found ? 1u : 0u, bFind[i]) << "signature " << i;
      expected_found += bFind[i];
      if (!walk.looked_up[i]) continue;
      ASSERT_EQ(walk.ranges[i].first, st_pos[i]) << "signature " << i;
      ASSERT_EQ(walk.ranges[i].last, en_pos[i]) << "signature " << i;
      if (!expected.found) continue;
      ASSERT_EQ(expected.first, st_pos[i]) << "signature " << i;
      ASSERT_EQ(expected.last, en_pos[i]) << "signature " << i;
    }
    ASSERT_EQ(expected_found, found_num);

    const std::vector<match_twin::Pair> hits = match_twin::pairs(elements, query);
    const std::vector<match_twin::Candidate> expected = match_twin::candidates(hits);
    ASSERT_EQ(expected.size(), result.fid_num);
    for (size_t i = 0; i < expected.size(); ++i) {
      ASSERT_EQ(expected[i], (match_twin::Candidate{files[i].fid, files[i].source, result.freq[i]}))
          << "candidate " << i;
    }
    if (hits.empty()) {
      ASSERT_FALSE(files);
      return;
    }

    uint32_t pair_num = 0;
    MallocArray<FsidPair> pairs;
    ASSERT_EQ(kOk, engine.build_sig_fid_info_tbl(n, {bFind.data(), st_pos.data(), en_pos.data()},
                                                 &pair_num, &pairs));
    ASSERT_EQ(hits.size(), pair_num);
    for (size_t i = 0; i < hits.size(); ++i) {
      ASSERT_EQ(hits[i], (match_twin::Pair{pairs[i].fid, pairs[i].source})) << "pair " << i;
    }

    const int fsz = static_cast<int>(random.below(3)) - 1;
    ASSERT_EQ(kOk, calc_matching_level2(n, fsz, &result));
    for (uint32_t i = 0; i < result.fid_num; ++i) {
      ASSERT_EQ(match_twin::level(n, fsz, result.freq[i]), result.match_level[i]);
    }
  }

  const uint64_t seed = documents::seed(20240703);
  Random random{seed};
  TempDir dir;
  LogCapture log;
  FidIndexSearchEngine engine;
  uint64_t prefixes = 1;
  uint64_t places = 1;
  std::vector<StrongElement> elements;
  std::vector<Signature> query;
};

TEST_F(MatchProperty, RangesMessagesPairsCandidatesAndLevelsAreTheTwins) {
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  static constexpr uint32_t kLimits[] = {0, 1, 2, 3, 4, 5, 7, 17, 64, 1000, 209600, 0xffffffff};
  for (int tables = 0; tables < 25; ++tables) {
    ASSERT_NO_FATAL_FAILURE(makeTable());
    for (const uint32_t limit : kLimits) {
      SCOPED_TRACE(testing::Message() << "table " << tables << ", limit " << limit);
      ASSERT_NO_FATAL_FAILURE(loadWithLimit(limit));
      for (int queries = 0; queries < 4; ++queries) {
        makeQuery();
        ASSERT_NO_FATAL_FAILURE(expectTwinsAnswer(limit));
      }
    }
  }
}

// A neighbour that stands in the wrong place rules out elements that the others
// then are not found in.
TEST_F(MatchProperty, AnUnsortedQueryIsAnsweredAsByTheSearchWithLargeLoads) {
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  int compared = 0;
  for (int tables = 0; tables < 25; ++tables) {
    ASSERT_NO_FATAL_FAILURE(makeTable());
    for (const uint32_t limit : {0u, 3u, 17u, 100u, 209600u}) {
      SCOPED_TRACE(testing::Message() << "table " << tables << ", limit " << limit);
      ASSERT_NO_FATAL_FAILURE(loadWithLimit(limit));
      plain_search::Search plain(limit);
      makeQuery();
      for (int swaps = 0; swaps < 3; ++swaps) {
        std::swap(query[random.below(query.size())], query[random.below(query.size())]);
        const auto n = static_cast<uint32_t>(query.size());
        std::vector<uint32_t> bFind(n), st_pos(n), en_pos(n);
        uint32_t found = 0;
        log.clear();
        const int status = engine.SearchSignatures(n, query.data(), &found,
                                                   {bFind.data(), st_pos.data(), en_pos.data()});
        if (status == kErrState) continue;  // a batch that ends where it begins
        ASSERT_EQ(kOk, status);
        plain_search::Ranges expected(n);
        plain.messages.clear();
        ASSERT_EQ(plain.ranges(n, query.data(), &expected), found);
        ASSERT_EQ(plain.messages, log.messages());
        ASSERT_EQ(expected.found, bFind);
        for (uint32_t i = 0; i < n; ++i) {
          if (bFind[i] == 0) continue;
          ASSERT_EQ(expected.first[i], st_pos[i]) << "signature " << i;
          ASSERT_EQ(expected.last[i], en_pos[i]) << "signature " << i;
        }
        ++compared;
      }
    }
  }
  EXPECT_GT(compared, 200);
}

// Tables of 30,000 elements, whose prefixes and runs outgrow what is read at once.
class LargeTables : public MatchProperty {
 protected:
  Signature anySignature() {
    Signature signature;
    for (int i = 0; i < 8; ++i) {
      uint64_t byte = random.below(256);
      if (kind == Kind::kText) {  // a sum of letters
        for (int letter = 0; letter < 7; ++letter) byte = byte % 26 + 'a' + random.below(26);
      } else if (kind == Kind::kOnePrefix && i < 3) {
        byte = 0x42;
      }
      signature.bytes[i] = static_cast<unsigned char>(byte);
    }
    return signature;
  }

  void makeLargeTable() {
    elements.clear();
    while (elements.size() < 30000) {
      const Signature signature = anySignature();
      uint64_t run = random.oneIn(6) ? 1 + random.below(9) : 1;
      if (random.oneIn(3000)) run = random.oneIn(2) ? 300 : 6000;
      for (; run > 0; --run) {
        const auto fid = static_cast<int32_t>(random.below(4000)) - 1000;
        elements.push_back(plain_tables::element(signature, fid, fid & 15));
      }
    }
    plain_tables::sort(&elements);
    plain_tables::write(dir, plain_tables::make(elements, {0, 3}));
  }

  void makeLargeQuery(size_t count) {
    query.clear();
    while (query.size() < count) {
      Signature signature = anySignature();
      if (random.oneIn(2)) signature = elements[random.below(elements.size())].signature;
      if (random.oneIn(6)) signature.bytes[7] ^= 1;
      query.push_back(signature);
      if (random.oneIn(20)) query.push_back(signature);
    }
    std::sort(query.begin(), query.end());
  }

  void expectPlainAnswer(uint32_t limit) {
    const auto n = static_cast<uint32_t>(query.size());
    plain_search::Search plain(limit);
    plain_search::Ranges expected(n);
    const uint32_t expected_found = plain.ranges(n, query.data(), &expected);

    log.clear();
    std::vector<uint32_t> bFind(n), st_pos(n), en_pos(n);
    const QueryRanges ranges = {bFind.data(), st_pos.data(), en_pos.data()};
    uint32_t found = 0;
    uint32_t files_num = 0;
    MallocArray<FsidPair> files;
    MallocArray<uint32_t> counts;
    ASSERT_EQ(
        kOk, engine.SearchSignatures(n, query.data(), &found, ranges, &files_num, &files, &counts));
    ASSERT_EQ(plain.messages, log.messages());
    ASSERT_EQ(expected_found, found);
    ASSERT_EQ(expected.found, bFind);
    for (uint32_t i = 0; i < n; ++i) {
      if (bFind[i] == 0) continue;
      ASSERT_EQ(expected.first[i], st_pos[i]) << "signature " << i;
      ASSERT_EQ(expected.last[i], en_pos[i]) << "signature " << i;
    }

    uint32_t expected_pair_num = 0;
    auto expected_pairs = plain.pairs(n, expected, &expected_pair_num);
    uint32_t pair_num = 0;
    MallocArray<FsidPair> pairs;
    ASSERT_EQ(kOk, engine.build_sig_fid_info_tbl(n, ranges, &pair_num, &pairs));
    ASSERT_EQ(expected_pair_num, pair_num);
    ASSERT_EQ(0, std::memcmp(expected_pairs.get(), pairs.get(), pair_num * sizeof(FsidPair)));

    // The whole search has not read all of its hits in this way.
    MallocArray<uint32_t> expected_counts;
    ASSERT_EQ(kOk, engine.process_fid_info(&pair_num, &expected_pairs, &expected_counts));
    ASSERT_EQ(pair_num, files_num);
    ASSERT_EQ(0, std::memcmp(expected_pairs.get(), files.get(), pair_num * sizeof(FsidPair)));
    ASSERT_EQ(0, std::memcmp(expected_counts.get(), counts.get(), pair_num * sizeof(uint32_t)));
  }

  enum class Kind { kUniform, kText, kOnePrefix };
  Kind kind = Kind::kUniform;
};

TEST_F(LargeTables, AnswersAndMessagesAreThoseOfTheSearchWithLargeLoads) {
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  static constexpr uint32_t kLimits[] = {0, 3, 1000, 209600};
  for (const Kind one : {Kind::kUniform, Kind::kText, Kind::kOnePrefix}) {
    kind = one;
    ASSERT_NO_FATAL_FAILURE(makeLargeTable());
    for (const uint32_t limit : kLimits) {
      ASSERT_NO_FATAL_FAILURE(loadWithLimit(limit));
      for (const size_t count : {40u, 400u, 4000u}) {
        SCOPED_TRACE(testing::Message()
                     << "kind " << static_cast<int>(kind) << ", limit " << limit << ", " << count);
        if (count == 4000 && limit < 1000) continue;  // slow in the plain search
        makeLargeQuery(count);
        ASSERT_NO_FATAL_FAILURE(expectPlainAnswer(limit));
      }
    }
  }
}

}  // namespace
