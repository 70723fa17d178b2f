// The four functions that match, through the built library: their return values
// in every state, and what they find in tables made here and in tables made by
// the index, against the twin in index_model.h.
#include <algorithm>
#include <climits>
#include <filesystem>

#include "host_session.h"

namespace {

namespace fs = std::filesystem;

const Signature kRootSignature = {{255, 255, 255, 255, 255, 255, 255, 255}};

class MatchApi : public LibraryTest {
 protected:
  MatchApi() { configure(); }
};

// Tables of hand-made elements, loaded.
class MadeTables : public MatchApi {
 protected:
  void load(const std::set<Element>& elements, int64_t base = -1) {
    ExitMatchSystem();
    elements_ = elements;
    base_ = base;
    writeTables(dir_, searchTables(base, 3, elements));
    ASSERT_EQ(0, InitMatchSystem());
  }
  void expectAsTwin(const Signatures& query, int fsz = 1) {
    EXPECT_EQ(rank(base_, elements_, query, fsz), match(query, fsz));
  }

  int64_t base_ = -1;
  std::set<Element> elements_;
};

// File `fid` of `source` holds the first `hits` signatures of `query`.
void give(std::set<Element>* elements, const Signatures& query, size_t hits, int32_t fid,
          int32_t source) {
  for (size_t i = 0; i < hits; ++i) elements->insert({query[i], fid, source});
}

struct Call {
  int status;
  bool null;  // the result variable afterwards
  int count;
};

// A search with a count of 77 in the out-variable before it.
Call search(unsigned char (*list)[8], int length) {
  _DLPSigMatchRet any;
  _DLPSigMatchRet* result = &any;
  int count = 77;
  const int status = MatchSignature(list, length, 1, &result, &count);
  const bool null = result == nullptr;
  if (result != &any) {
    EXPECT_EQ(0, FreeSigMatchRet(result));
  }
  return {status, null, count};
}

unsigned char some_signatures[2][8] = {{1, 2, 3, 4, 5, 6, 7, 8}, {1, 2, 3, 4, 5, 6, 7, 9}};

TEST_F(MatchApi, NothingWorksBeforeInit) {
  EXPECT_EQ(1, ExitMatchSystem());
  const Call call = search(some_signatures, 2);
  EXPECT_EQ(1, call.status);
  EXPECT_TRUE(call.null);
  EXPECT_EQ(0, call.count);
}

TEST_F(MatchApi, InitNeedsTables) {
  EXPECT_EQ(1, InitMatchSystem());
  EXPECT_EQ(1, ExitMatchSystem());
  ASSERT_EQ(0, InitIndexSystem());
  EXPECT_EQ(1, InitMatchSystem()) << "the tables come with ExitIndexSystem()";
  ASSERT_EQ(0, ExitIndexSystem());
  EXPECT_EQ(0, InitMatchSystem());
}

TEST_F(MatchApi, SecondInitAndSecondExitAreRefused) {
  writeTables(dir_, searchTables(-1, 3, {{kRootSignature, 0, -1}}));
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(0, InitMatchSystem());
    EXPECT_EQ(1, InitMatchSystem());
    EXPECT_EQ(0, search(some_signatures, 2).status);
    EXPECT_EQ(0, ExitMatchSystem());
    EXPECT_EQ(1, ExitMatchSystem());
    EXPECT_EQ(1, search(some_signatures, 2).status);
  }
}

TEST_F(MatchApi, AResultVariableThatHoldsNullIsRefusedUntouched) {
  writeTables(dir_, searchTables(-1, 3, {{kRootSignature, 0, -1}}));
  ASSERT_EQ(0, InitMatchSystem());
  _DLPSigMatchRet* result = nullptr;
  int count = 77;
  EXPECT_EQ(1, MatchSignature(some_signatures, 2, 1, &result, &count));
  EXPECT_EQ(nullptr, result);
  EXPECT_EQ(77, count);
}

TEST_F(MatchApi, AMissingCountIsRefused) {
  writeTables(dir_, searchTables(-1, 3, {{kRootSignature, 0, -1}}));
  ASSERT_EQ(0, InitMatchSystem());
  _DLPSigMatchRet any;
  _DLPSigMatchRet* result = &any;
  EXPECT_EQ(1, MatchSignature(some_signatures, 2, 1, &result, nullptr));
  EXPECT_EQ(nullptr, result);
}

TEST_F(MatchApi, NegativeCountsAndMissingListsAreRefused) {
  writeTables(dir_, searchTables(-1, 3, {{kRootSignature, 0, -1}}));
  ASSERT_EQ(0, InitMatchSystem());
  EXPECT_EQ(1, search(some_signatures, -1).status);
  EXPECT_EQ(1, search(some_signatures, INT_MIN).status);
  EXPECT_EQ(1, search(nullptr, 2).status);
}

TEST_F(MatchApi, AQueryWithoutSignaturesFindsNothing) {
  writeTables(dir_, searchTables(-1, 3, {{kRootSignature, 0, -1}}));
  ASSERT_EQ(0, InitMatchSystem());
  const Call call = search(some_signatures, 0);
  EXPECT_EQ(0, call.status);
  EXPECT_EQ(0, call.count);
}

TEST_F(MatchApi, FindingNothingGivesAnEmptyBlock) {
  writeTables(dir_, searchTables(-1, 3, {{kRootSignature, 0, -1}}));
  ASSERT_EQ(0, InitMatchSystem());
  const Call call = search(some_signatures, 2);
  EXPECT_EQ(0, call.status);
  EXPECT_EQ(0, call.count);
}

TEST_F(MatchApi, TheRootAnswersToItsOwnSignature) {
  ASSERT_EQ(0, InitIndexSystem());
  ASSERT_EQ(0, ExitIndexSystem());
  ASSERT_EQ(0, InitMatchSystem());
  EXPECT_EQ((Matches{{-1, 2}}), match({kRootSignature}));
}

TEST_F(MatchApi, AResultOutlivesTheTables) {
  writeTables(dir_, searchTables(-1, 3, {{kRootSignature, 0, -1}}));
  ASSERT_EQ(0, InitMatchSystem());
  unsigned char root[1][8];
  std::copy_n(kRootSignature.bytes, 8, root[0]);
  _DLPSigMatchRet any;
  _DLPSigMatchRet* result = &any;
  int count = 0;
  ASSERT_EQ(0, MatchSignature(root, 1, 0, &result, &count));
  ASSERT_EQ(0, ExitMatchSystem());
  ASSERT_EQ(1, count);
  EXPECT_EQ(-1, result[0].fileID);
  EXPECT_EQ(2, result[0].match_level);
  EXPECT_EQ(0, FreeSigMatchRet(result));
}

TEST_F(MatchApi, EmptyTablesAreRefused) {
  writeTables(dir_, {{".wtbl", ""}, {".stbl", ""}, {".wmeta", ""}, {".smeta", ""}});
  EXPECT_EQ(1, InitMatchSystem());
  // Also with a meta file that says what it counts.
  TableFiles files = searchTables(-1, 3, {});
  files[".wtbl"] = files[".stbl"] = "";
  writeTables(dir_, files);
  EXPECT_EQ(1, InitMatchSystem());
}

TEST_F(MatchApi, TablesThatDoNotAgreeAreRefused) {
  std::set<Element> elements;
  give(&elements, documents::signatures(20, 1), 20, 5, 4);
  const TableFiles good = searchTables(-1, 3, elements);
  const auto refused = [&](const char* suffix, const std::string& content) {
    SCOPED_TRACE(std::string(suffix) + " of " + std::to_string(content.size()) + " bytes");
    TableFiles files = good;
    files[suffix] = content;
    writeTables(dir_, files);
    EXPECT_EQ(1, InitMatchSystem());
  };
  for (const char* suffix : {".wtbl", ".stbl", ".wmeta", ".smeta"}) {
    const std::string& content = good.at(suffix);
    refused(suffix, "");
    refused(suffix, content.substr(0, 4));
    refused(suffix, content.substr(0, content.size() - 1));
    writeTables(dir_, good);
    fs::remove(std::string("sig_index_DB/search_table") + suffix);
    EXPECT_EQ(1, InitMatchSystem()) << suffix << " missing";
  }
  for (const char* suffix : {".wtbl", ".stbl"}) {
    refused(suffix, good.at(suffix).substr(0, good.at(suffix).size() - 16));
    refused(suffix, good.at(suffix) + std::string(16, 'x'));
    refused(suffix, good.at(suffix) + "x");
  }
  for (const char* suffix : {".wmeta", ".smeta"}) {
    std::string content = good.at(suffix);
    ++content[12 + 8 * 4660 + 4];  // one more than the table holds
    refused(suffix, content);
  }
  writeTables(dir_, good);
  EXPECT_EQ(0, InitMatchSystem());
}

// The engine runs, but knows no prefix.
TEST_F(MatchApi, MetaFilesThatDifferLoadAndFindNothing) {
  const Signatures query = documents::signatures(20, 1);
  std::set<Element> elements;
  give(&elements, query, 20, 5, 4);
  for (const auto& [base, level] : {std::pair{int64_t{0}, 3u}, std::pair{int64_t{-1}, 4u}}) {
    TableFiles files = searchTables(-1, 3, elements);
    files[".smeta"] = searchTables(base, level, elements)[".smeta"];
    writeTables(dir_, files);
    ASSERT_EQ(0, InitMatchSystem());
    EXPECT_EQ(Matches{}, match(query));
    ASSERT_EQ(0, ExitMatchSystem());
  }
}

TEST_F(MatchApi, AStrongTableThatIsGoneFailsTheSearch) {
  std::set<Element> elements = {{kRootSignature, 0, -1}};
  elements.insert({documents::signature({1, 2, 3, 4, 5, 6, 7, 8}), 1, 0});
  writeTables(dir_, searchTables(-1, 3, elements));
  ASSERT_EQ(0, InitMatchSystem());
  fs::remove("sig_index_DB/search_table.stbl");
  const Call call = search(some_signatures, 2);
  EXPECT_EQ(1, call.status);
  EXPECT_TRUE(call.null);
  EXPECT_EQ(0, call.count);
}

TEST_F(MatchApi, EachInitLoadsTheTablesAnew) {
  const Signatures query = documents::signatures(10, 1);
  ASSERT_EQ(0, InitIndexSystem());
  ASSERT_EQ(0, addDocument(1, query));
  ASSERT_EQ(0, ExitIndexSystem());
  ASSERT_EQ(0, InitMatchSystem());
  EXPECT_EQ((Matches{{1, 2}}), match(query));
  ASSERT_EQ(0, ExitMatchSystem());

  ASSERT_EQ(0, InitIndexSystem());
  ASSERT_EQ(0, addDocument(2, query));
  ASSERT_EQ(0, deleteDocuments({1}));
  ASSERT_EQ(0, ExitIndexSystem());
  ASSERT_EQ(0, InitMatchSystem());
  EXPECT_EQ((Matches{{2, 2}}), match(query));
}

TEST_F(MadeTables, TheLevelFollowsTheShareOfTheQuery) {
  struct {
    size_t query;
    std::vector<std::pair<size_t, int>> levels;  // hits, level
  } const rows[] = {
      {100, {{1, 0}, {2, 0}, {3, 1}, {4, 1}, {5, 1}, {8, 1}, {9, 2}, {10, 2}, {100, 2}}},
      {1000, {{1, 0}, {2, 0}, {3, 1}, {8, 1}, {9, 2}, {1000, 2}}},
      {10, {{1, 2}}},
      {11, {{1, 1}, {2, 2}}},
      {20, {{1, 1}, {2, 2}}},
      {21, {{1, 0}, {2, 1}, {3, 2}}},
      {40, {{1, 0}, {2, 1}, {3, 1}, {4, 2}}},
      {41, {{1, 0}, {2, 0}, {3, 1}, {4, 1}, {5, 2}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.query) + " signatures in the query");
    const Signatures query = documents::signatures(row.query, row.query);
    std::set<Element> elements;
    Matches graded, certain;
    int32_t fid = 0;
    for (const auto& [hits, level] : row.levels) {
      give(&elements, query, hits, fid, fid);
      graded.push_back({fid - 1, level});
      certain.push_back({fid - 1, 2});
      ++fid;
    }
    load(elements);
    EXPECT_EQ(graded, match(query, 1));
    EXPECT_EQ(graded, match(query, -1));
    EXPECT_EQ(graded, match(query, INT_MAX));
    EXPECT_EQ(certain, match(query, 0));
  }
}

TEST_F(MadeTables, FiveFilesOfOneSourceAreKept) {
  const Signatures query = documents::signatures(100, 1);
  std::set<Element> elements;
  const size_t hits[] = {3, 8, 1, 9, 8, 3, 7};
  for (int32_t fid = 0; fid < 7; ++fid) give(&elements, query, hits[fid], fid, 42);
  give(&elements, query, 1, 90, 41);
  give(&elements, query, 1, 80, 43);
  load(elements, 100);
  EXPECT_EQ((Matches{{190, 0}, {103, 2}, {101, 1}, {104, 1}, {106, 1}, {100, 1}, {180, 0}}),
            match(query));
}

TEST_F(MadeTables, SourcesAscendAsSignedNumbers) {
  const Signatures query = documents::signatures(10, 1);
  std::set<Element> elements;
  give(&elements, query, 10, 1, 0);
  give(&elements, query, 10, 2, -1);
  give(&elements, query, 10, 3, INT32_MAX);
  give(&elements, query, 10, 4, INT32_MIN);
  load(elements, 0);
  EXPECT_EQ((Matches{{4, 2}, {2, 2}, {1, 2}, {3, 2}}), match(query));
}

TEST_F(MadeTables, OneFileUnderTwoSourcesIsOneMatch) {
  const Signatures query = documents::signatures(100, 1);
  std::set<Element> elements;
  give(&elements, query, 4, 1, 8);
  give(&elements, query, 5, 1, 7);  // with the other four: nine hits
  give(&elements, query, 1, 2, 7);
  load(elements, 0);
  EXPECT_EQ((Matches{{1, 2}, {2, 0}}), match(query));
}

TEST_F(MadeTables, ARepeatedQuerySignatureCountsAgain) {
  const Signatures found = documents::signatures(1, 1);
  Signatures query = documents::signatures(96, 2);
  query.insert(query.end(), 3, found[0]);
  std::sort(query.begin(), query.end());
  load({{found[0], 1, 1}, {kRootSignature, 0, -1}});
  EXPECT_EQ((Matches{{0, 1}}), match(query));
  expectAsTwin(query);
}

TEST_F(MadeTables, FileIdsMayLieBelowTheBase) {
  const Signatures query = documents::signatures(3, 1);
  constexpr int64_t kBase = 5'000'000'000'000;
  load({{query[0], -3, 1}, {query[1], INT32_MIN, 2}, {query[2], INT32_MAX, 3}}, kBase);
  EXPECT_EQ((Matches{{kBase - 3, 2}, {kBase - 2147483648LL, 2}, {kBase + 2147483647LL, 2}}),
            match(query));
}

TEST_F(MadeTables, TheFirstAndTheLastPrefixAreFound) {
  const Signature first = {{0, 0, 0, 0, 0, 0, 0, 0}};
  load({{first, 1, 1}, {kRootSignature, 2, 2}});
  EXPECT_EQ((Matches{{0, 2}, {1, 2}}), match({first, kRootSignature}));
  EXPECT_EQ((Matches{{0, 2}}), match({first}));
  EXPECT_EQ((Matches{{1, 2}}), match({kRootSignature}));
}

// Many hits of few files of few sources, under one signature and under many.
TEST_F(MadeTables, RandomTablesEqualTheTwin) {
  const uint64_t seed = documents::seed(20250302);
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  documents::Random random(seed);
  for (int round = 0; round < 30 && !HasFailure(); ++round) {
    const Signatures pool =
        documents::signatures(1 + random.below(400), random.next(), 1u << random.below(12));
    std::set<Element> elements;
    const uint64_t files = 1 + random.below(60), sources = 1 + random.below(8);
    for (uint64_t i = 0, count = 1 + random.below(3000); i < count; ++i) {
      const auto fid = static_cast<int32_t>(random.below(files)) - 30;
      // The source goes with the file, but not always.
      const auto source = static_cast<int32_t>(
          (random.oneIn(20) ? random.next() : static_cast<uint64_t>(fid + 30)) % sources);
      elements.insert({pool[random.below(pool.size())], fid, source - 4});
    }
    load(elements, static_cast<int64_t>(random.next() >> 20));
    for (int search = 0; search < 10; ++search) {
      Signatures query = documents::signatures(random.below(50), random.next(), 64);
      for (uint64_t i = random.below(100); i > 0; --i) {
        query.push_back(pool[random.below(pool.size())]);
      }
      if (query.empty()) continue;
      std::sort(query.begin(), query.end());
      expectAsTwin(query, random.oneIn(4) ? 0 : 1);
    }
  }
}

}  // namespace
