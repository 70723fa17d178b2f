#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "hooked_system.h"
#include "log_capture.h"
#include "plain_tables.h"
#include "signature_locator.h"
#include "status.h"
#include "vn_fid_search_engine.h"

namespace {

using documents::signature;
using plain_tables::element;
using plain_tables::setRange;

constexpr uint32_t kUntouched = 0xdddddddd;

// Signatures of one prefix, in the order of `place`.
Signature at(int place, int prefix = 0x20) {
  return signature({prefix, 0, 0, 0, 0, 0, place / 256, place % 256});
}

class RangeSearch : public testing::Test {
 protected:
  // Elements at even places 0, 2, 4 ... of one prefix.
  static std::vector<StrongElement> evenPlaces(int count, int prefix = 0x20) {
    std::vector<StrongElement> elements;
    for (int i = 0; i < count; ++i) elements.push_back(element(at(2 * i, prefix), i, 1));
    return elements;
  }

  void load(const std::vector<StrongElement>& elements, uint32_t max_ele_num_load) {
    load(plain_tables::make(elements, {100, 3}), max_ele_num_load);
  }
  void load(const plain_tables::Tables& tables, uint32_t max_ele_num_load) {
    plain_tables::write(dir, tables);
    configuration.max_ele_num_load = max_ele_num_load;
    ASSERT_EQ(kOk, engine.setConfig(configuration));
    ASSERT_EQ(kOk, engine.Init(&meta));
    file = platform::current().open("sig_index_DB/search_table.stbl", platform::OpenMode::kRead);
    ASSERT_TRUE(file);
    table = {file.get(), static_cast<uint32_t>(tables.stbl.size() / 16)};
    std::memcpy(directory.data(), tables.smeta.data() + kMetaDataBytes, kPrefixDirectoryBytes);
    log.clear();
  }

  void prepare(const std::vector<Signature>& signatures) {
    query = signatures;
    found_num = kUntouched;
    for (auto* numbers : {&bFind, &st_pos, &en_pos}) numbers->assign(query.size(), kUntouched);
    bOut.assign(query.size(), 0);
  }
  QueryRanges ranges() { return {bFind.data(), st_pos.data(), en_pos.data()}; }
  QuerySpan span() { return {static_cast<uint32_t>(query.size()), query.data(), bOut.data()}; }

  int search(const std::vector<Signature>& signatures) {
    prepare(signatures);
    return engine.SearchSignatures(static_cast<uint32_t>(query.size()), query.data(), &found_num,
                                   ranges());
  }

  // One batch over [low, high) of the table.
  int searchBatch(const std::vector<Signature>& signatures, uint32_t low, uint32_t high) {
    prepare(signatures);
    return searchPrepared(low, high);
  }
  int searchPrepared(uint32_t low, uint32_t high) {
    const uint32_t load_limit = std::max(configuration.max_ele_num_load, 2u);
    const Spread spread(directory.data());
    SignatureLocator locator(table, directory.data(), spread, std::min(load_limit, table.ele_num),
                             nullptr);
    return engine.dbinary_find_signature_range(&locator, span(), low, high, &found_num, ranges());
  }

  void expectRange(size_t i, uint32_t found, uint32_t first, uint32_t last) {
    EXPECT_EQ(found, bFind[i]) << "signature " << i;
    EXPECT_EQ(first, st_pos[i]) << "signature " << i;
    EXPECT_EQ(last, en_pos[i]) << "signature " << i;
  }

  // All at level 3 and of the search.
  std::vector<std::string> messages() {
    for (const LogLine& line : log.lines()) {
      EXPECT_EQ(3, line.level);
      EXPECT_EQ(line.function == "chk_search_table_ele_num" ? "fpe_utility" : "fpe_sig_search",
                line.tag);
    }
    return log.messages();
  }

  TempDir dir;
  LogCapture log;
  IndexSysConfiguration configuration;
  FidIndexSearchEngine engine;
  MetaData meta;
  std::unique_ptr<platform::File> file;
  StrongTable table = {};
  std::vector<PrefixRange> directory = std::vector<PrefixRange>(kPrefixCount);
  std::vector<Signature> query;
  std::vector<uint32_t> bFind, st_pos, en_pos, bOut;
  uint32_t found_num = kUntouched;
};

using Messages = std::vector<std::string>;

// ---- A batch against the file -------------------------------------------------

TEST_F(RangeSearch, ABatchWithoutSignaturesIsASuccess) {
  load(evenPlaces(4), 100);
  EXPECT_EQ(kOk, searchBatch({}, 0, 4));
  EXPECT_EQ(0u, found_num);
  EXPECT_EQ(Messages{"no sig to find (sig_num == 0)"}, messages());
  EXPECT_EQ("FidIndexSearchEngine::dbinary_find_signature_range", log.lines()[0].function);
}

TEST_F(RangeSearch, ASignatureBelowItsRangeIsPlacedAtItsStartAndAboveItAtItsEnd) {
  for (const uint32_t limit : {2u, 5u, 100u}) {
    load(evenPlaces(20), limit);
    ASSERT_EQ(kOk, searchBatch({at(0), at(99)}, 4, 15));
    expectRange(0, 0, 4, 4);
    expectRange(1, 0, 15, 15);
    EXPECT_EQ(0u, found_num);
  }
}

TEST_F(RangeSearch, TheEndOfASideIsReportedWithTheRangeSearched) {
  load(evenPlaces(10), 2);
  ASSERT_EQ(kOk, searchBatch({at(0), at(10), at(99)}, 2, 10));
  expectRange(0, 0, 2, 2);
  expectRange(1, 1, 5, 6);
  expectRange(2, 0, 10, 10);
  EXPECT_EQ(1u, found_num);
  // The left side is taken first, although it is pushed last.
  EXPECT_EQ(
      (Messages{"dbinary_find_signature_range end left half after sig (idx = 0)", "l = 2  r = 6",
                "dbinary_find_signature_range end right half after sig (idx = 2)",
                "l = 5  r = 10"}),
      messages());
  for (const LogLine& line : log.lines()) {
    EXPECT_EQ("Info", line.word);
    EXPECT_EQ("FidIndexSearchEngine::dbinary_find_signature_range", line.function);
  }
}

// What lies beyond the end of a side is not answered any more.
TEST_F(RangeSearch, SignaturesBeyondTheEndOfASideAreNotFound) {
  load(evenPlaces(10), 2);
  ASSERT_EQ(kOk, searchBatch({at(91), at(92), at(93)}, 0, 10));
  expectRange(1, 0, 10, 10);
  EXPECT_EQ(0u, bFind[2]);
  EXPECT_EQ(
      (Messages{"dbinary_find_signature_range end right half after sig (idx = 1)", "l = 0  r = 10",
                "dbinary_find_signature_range end right half after sig (idx = 0)",
                "l = 0  r = 10"}),
      messages());
}

TEST_F(RangeSearch, WithinTheLoadLimitTheEndOfASideIsNotReported) {
  load(evenPlaces(10), 100);
  ASSERT_EQ(kOk, searchBatch({at(1), at(10), at(99)}, 2, 10));
  EXPECT_TRUE(messages().empty());
  expectRange(0, 0, 2, 2);
  expectRange(1, 1, 5, 6);
  expectRange(2, 0, 10, 10);
}

TEST_F(RangeSearch, MarkedSignaturesInTheMiddleSplitNothing) {
  for (const uint32_t limit : {2u, 100u}) {
    load(evenPlaces(10), limit);
    prepare({at(0), at(1), at(3), at(5), at(6), at(7), at(18)});
    for (const size_t marked : {1u, 2u, 3u, 5u}) bOut[marked] = 1;
    ASSERT_EQ(kOk, searchPrepared(0, 10));
    EXPECT_EQ(3u, found_num);
    expectRange(0, 1, 0, 1);
    expectRange(4, 1, 3, 4);
    expectRange(6, 1, 9, 10);
    EXPECT_EQ(0u, bFind[3]);
    EXPECT_TRUE(messages().empty());
  }
}

TEST_F(RangeSearch, AMarkedSignatureAloneIsSkipped) {
  load(evenPlaces(10), 2);
  prepare({at(4)});
  bOut[0] = 1;
  ASSERT_EQ(kOk, searchPrepared(0, 10));
  EXPECT_EQ(0u, found_num);
  EXPECT_EQ(0u, bFind[0]);
}

// A query that does not ascend is answered as if the elements that its neighbours
// have ruled out were not there.
TEST_F(RangeSearch, AnUnsortedQueryIsAnsweredWithinWhatItsMiddleLeaves) {
  for (const uint32_t limit : {2u, 100u}) {
    load(evenPlaces(10), limit);
    ASSERT_EQ(kOk, searchBatch({at(18), at(8), at(0)}, 0, 10));
    EXPECT_EQ(1u, found_num);
    expectRange(0, 0, 5, 5);
    expectRange(1, 1, 4, 5);
    expectRange(2, 0, 4, 4);
  }
}

TEST_F(RangeSearch, FailuresOfABatchHaveTheirMessages) {
  load(evenPlaces(40), 4);
  FailPoint point;
  file = platform::current().open("sig_index_DB/search_table.stbl", platform::OpenMode::kRead);
  table.file = file.get();
  const auto run = [&](uint32_t low, uint32_t high) {
    log.clear();
    return searchBatch({at(2), at(4)}, low, high);
  };

  point.fail(Call::kAllocate, 1);
  EXPECT_EQ(kErrMem, run(0, 4));
  EXPECT_EQ(Messages{"no mem for ele_stack"}, messages());
  point.fail(Call::kAllocate, 2);
  EXPECT_EQ(kErrMem, run(0, 4));
  EXPECT_EQ(Messages{"no mem for element"}, messages());
  point.fail(Call::kSeek, 1);
  EXPECT_EQ(kErrFile, run(0, 4));
  EXPECT_EQ(Messages{"fseek strong search table file fail"}, messages());
  point.fail(Call::kRead, 1);
  EXPECT_EQ(kErrFile, run(0, 4));
  EXPECT_EQ(Messages{"load element from strong search table file fail"}, messages());
  for (int n = 1; n <= 3; ++n) {  // the whole prefix is more than a read takes
    point.fail(Call::kRead, n);
    log.clear();
    EXPECT_EQ(kErrFile, searchBatch({at(20), at(40)}, 0, 40));
    EXPECT_TRUE(point.failed());
    EXPECT_EQ(Messages{"load element from strong search table file fail"}, messages());
    EXPECT_EQ("FidIndexSearchEngine::dbinary_find_signature_range", log.lines()[0].function);
  }
  EXPECT_EQ(kErrState, run(3, 3));
  EXPECT_EQ((Messages{"ele_num == 0 || sig_n == 0", "dbinary_find_signature_range fail"}),
            messages());
  EXPECT_EQ("Error", log.lines()[0].word);
  EXPECT_EQ("Info", log.lines()[1].word);
}

// ---- The strong search --------------------------------------------------------

TEST_F(RangeSearch, AQueryWithoutSignaturesIsASuccessThatOpensNothing) {
  load(evenPlaces(4), 100);
  FailPoint point;
  point.fail(Call::kOpen, 0);
  EXPECT_EQ(kOk, search({}));
  EXPECT_EQ(0u, found_num);
  EXPECT_EQ(Messages{"no sig to find (sig_num == 0)"}, messages());
  EXPECT_EQ("FidIndexSearchEngine::SearchSignatures", log.lines()[0].function);
  EXPECT_EQ(0, point.count());
}

TEST_F(RangeSearch, AQueryOfAbsentPrefixesReadsNoElement) {
  load(evenPlaces(4), 100);
  FailPoint point;
  point.fail(Call::kRead, 0);
  EXPECT_EQ(kOk, search({at(0, 0x00), at(0, 0x1f), at(2, 0x21), at(0, 0xff)}));
  EXPECT_EQ(0u, found_num);
  EXPECT_EQ(std::vector<uint32_t>(4, 0), bFind);
  EXPECT_EQ(0, point.count());
  EXPECT_TRUE(messages().empty());
}

TEST_F(RangeSearch, ARepeatedSignatureIsFoundEveryTimeInTheSameRange) {
  std::vector<StrongElement> elements = evenPlaces(30);
  for (int i = 0; i < 9; ++i) elements.push_back(element(at(100), i, 1));
  elements.push_back(element(at(102), 1, 1));
  for (const uint32_t limit : {0u, 1u, 2u, 3u, 5u, 100u}) {
    load(elements, limit);
    ASSERT_EQ(kOk, search({at(100), at(100), at(100)}));
    EXPECT_EQ(3u, found_num);
    for (size_t i = 0; i < 3; ++i) expectRange(i, 1, 30, 39);
  }
}

TEST_F(RangeSearch, ALimitOf0Or1FindsWhatALimitOf2Finds) {
  std::vector<StrongElement> elements = evenPlaces(17);
  for (int i = 0; i < 3; ++i) elements.push_back(element(at(40), i, 1));
  for (const StrongElement& e : evenPlaces(2, 0x21)) elements.push_back(e);
  const std::vector<Signature> all = {at(0),  at(1),  at(31),      at(32),      at(40),
                                      at(40), at(41), at(0, 0x21), at(1, 0x21), at(2, 0x21)};
  load(elements, 2);
  ASSERT_EQ(kOk, search(all));
  const std::vector<uint32_t> expected_found = bFind, expected_st = st_pos, expected_en = en_pos;
  const Messages expected_messages = messages();
  EXPECT_EQ(6u, found_num);
  for (const uint32_t limit : {0u, 1u}) {
    load(elements, limit);
    ASSERT_EQ(kOk, search(all));
    EXPECT_EQ(expected_found, bFind);
    EXPECT_EQ(expected_st, st_pos);
    EXPECT_EQ(expected_en, en_pos);
    EXPECT_EQ(expected_messages, messages());
  }
}

TEST_F(RangeSearch, ATableOfOneElementIsSearched) {
  for (const uint32_t limit : {0u, 1u, 2u, 100u}) {
    load({element(at(5), 1, 1)}, limit);
    ASSERT_EQ(kOk, search({at(4), at(5), at(6)}));
    EXPECT_EQ(1u, found_num);
    expectRange(0, 0, 0, 0);
    expectRange(1, 1, 0, 1);
    expectRange(2, 0, 1, 1);
  }
}

TEST_F(RangeSearch, TheFirstAndTheLastPrefixAreFound) {
  const Signature lowest = signature({0, 0, 0, 0, 0, 0, 0, 0});
  const Signature highest = signature({255, 255, 255, 255, 255, 255, 255, 255});
  for (const uint32_t limit : {2u, 100u}) {
    load({element(lowest, 1, 1), element(at(1), 2, 1), element(highest, 3, 1)}, limit);
    ASSERT_EQ(kOk, search({lowest, highest}));
    EXPECT_EQ(2u, found_num);
    expectRange(0, 1, 0, 1);
    expectRange(1, 1, 2, 3);
  }
}

// Prefixes 0x20 to 0x29 with four elements each. A batch goes on while the end
// of the next prefix is less than the limit away from the start of the first.
TEST_F(RangeSearch, ABatchSpansThePrefixesWithinTheLoadLimit) {
  std::vector<StrongElement> elements;
  std::vector<Signature> all;
  for (int prefix = 0x20; prefix < 0x2a; ++prefix) {
    for (const StrongElement& e : evenPlaces(4, prefix)) elements.push_back(e);
    all.push_back(at(2, prefix));
  }
  const struct {
    uint32_t limit;
    int loads;
  } cases[] = {{4, 10}, {8, 10}, {9, 5}, {12, 5}, {13, 4}, {40, 2}, {41, 2}, {1000, 2}};
  for (const auto& c : cases) {
    load(elements, c.limit);
    FailPoint point;
    point.fail(Call::kRead, 0);
    ASSERT_EQ(kOk, search(all));
    EXPECT_EQ(10u, found_num);
    EXPECT_EQ(c.loads, point.count()) << "limit " << c.limit;
    for (uint32_t i = 0; i < 10; ++i) expectRange(i, 1, 4 * i + 1, 4 * i + 2);
  }
}

TEST_F(RangeSearch, ALimitAboveTheTableTellsOfNoEnds) {
  load(evenPlaces(300), 1000);
  std::vector<Signature> all;
  for (int place = 0; place < 650; ++place) all.push_back(at(place));
  ASSERT_EQ(kOk, search(all));
  EXPECT_EQ(300u, found_num);
  EXPECT_TRUE(messages().empty());
}

TEST_F(RangeSearch, AbsentPrefixesBetweenPresentOnesArePassedOver) {
  std::vector<StrongElement> elements = evenPlaces(4, 0x20);
  for (const StrongElement& e : evenPlaces(4, 0x30)) elements.push_back(e);
  for (const uint32_t limit : {2u, 9u, 100u}) {
    load(elements, limit);
    ASSERT_EQ(kOk, search({at(0, 0x10), at(2, 0x20), at(0, 0x28), at(1, 0x28), at(4, 0x30),
                           at(0, 0x31)}));
    EXPECT_EQ(2u, found_num);
    expectRange(1, 1, 1, 2);
    expectRange(4, 1, 6, 7);
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 0, 0, 1, 0}), bFind);
  }
}

TEST_F(RangeSearch, FailuresOfTheStrongSearchHaveTheirMessages) {
  const std::string path = "sig_index_DB/search_table.stbl";
  load(evenPlaces(10), 100);
  FailPoint point;
  const auto run = [&] {
    log.clear();
    return search({at(0, 0x10), at(2), at(4)});
  };
  point.fail(Call::kOpen, 1);
  EXPECT_EQ(kErrFile, run());
  EXPECT_EQ(Messages{"open file " + path + " fail"}, messages());
  point.fail(Call::kSize, 1);
  EXPECT_EQ(kErrFile, run());
  EXPECT_EQ(
      (Messages{"get size of strong search table file fail", "get size of file " + path + " fail"}),
      messages());
  point.fail(Call::kAllocate, 1);
  EXPECT_EQ(kErrMem, run());
  EXPECT_EQ(Messages{"no mem for bOut"}, messages());
  point.fail(Call::kAllocate, 2);
  EXPECT_EQ(kErrMem, run());
  EXPECT_EQ((Messages{"no mem for ele_stack", "dbinary_find_signature_range fail on sig (1 -- 3)"}),
            messages());
  EXPECT_EQ("FidIndexSearchEngine::SearchSignatures", log.lines()[1].function);
  EXPECT_EQ("Error", log.lines()[1].word);
}

// Absent signatures that a batch passed over behind its last one do not count to
// it, and what earlier batches found stays counted.
TEST_F(RangeSearch, AFailedBatchIsNamedAndTheCountBeforeItStands) {
  std::vector<StrongElement> elements = evenPlaces(10, 0x20);
  for (const StrongElement& more : evenPlaces(10, 0x40)) elements.push_back(more);
  load(elements, 2);
  const std::vector<Signature> two_batches = {at(0, 0x20), at(0, 0x30), at(2, 0x40)};
  FailPoint point;
  point.fail(Call::kAllocate, 0);
  ASSERT_EQ(kOk, search(two_batches));
  ASSERT_EQ(2u, found_num);
  const int allocations = point.count();

  log.clear();
  point.fail(Call::kAllocate, 2);
  EXPECT_EQ(kErrMem, search(two_batches));
  EXPECT_EQ(0u, found_num);
  EXPECT_EQ("dbinary_find_signature_range fail on sig (0 -- 1)", messages().back());

  log.clear();
  point.fail(Call::kAllocate, allocations);
  EXPECT_EQ(kErrMem, search(two_batches));
  EXPECT_EQ(1u, found_num);
  EXPECT_EQ("dbinary_find_signature_range fail on sig (2 -- 3)", messages().back());
}

// Elements at the even places up to 18, and what a rewritten table may hold: less,
// as much as nothing, or more. None of it goes with the directory in memory.
TEST_F(RangeSearch, AStrongTableOfAnotherSizeThanAtTheLoadingIsAFileError) {
  const std::string path = "sig_index_DB/search_table.stbl";
  const std::string failure = "get size of file " + path + " fail";
  const struct {
    int elements;
    Messages messages;
  } cases[] = {{0, {"Error: no element in strong search table file", failure}},
               {9, {failure}},
               {11, {failure}}};
  for (const uint32_t limit : {2u, 100u}) {
    for (const auto& c : cases) {
      load(evenPlaces(10), limit);
      file.reset();
      dir.write(path, plain_tables::make(evenPlaces(c.elements), {}).stbl);
      EXPECT_EQ(kErrFile, search({at(0)}));  // it would still be found, but for the first case
      EXPECT_EQ(c.messages, messages());
      EXPECT_EQ("FidIndexSearchEngine::SearchSignatures", log.lines().back().function);
      EXPECT_EQ(kErrFile, search({at(0, 0x55)}));  // whether or not it needs the table
    }
  }
}

// What is read after the rewriting has begun is not what the directory tells of.
TEST_F(RangeSearch, AStrongTableRewrittenDuringTheSearchIsAFileError) {
  const std::string path = "sig_index_DB/search_table.stbl";
  for (const uint32_t limit : {2u, 100u}) {
    load(evenPlaces(10), limit);
    HookedSystem hooked;
    hooked.beforeRead(1, ".stbl",
                      [&] { dir.write(path, plain_tables::make(evenPlaces(30, 0x10), {}).stbl); });
    EXPECT_EQ(kErrFile, search({at(4)}));
    EXPECT_TRUE(log.has("get size of file " + path + " fail"));
  }
}

TEST_F(RangeSearch, ASearchWithoutLoadedTablesIsAFileError) {
  load(evenPlaces(10), 100);
  dir.write("sig_index_DB/search_table.smeta", "");
  ASSERT_EQ(kErrFile, engine.Init(&meta));
  EXPECT_EQ(kErrFile, search({at(0)}));
}

// ---- The whole search ---------------------------------------------------------

class WholeSearch : public RangeSearch {
 protected:
  int searchAll(const std::vector<Signature>& signatures) {
    prepare(signatures);
    log.clear();
    return engine.SearchSignatures(static_cast<uint32_t>(query.size()), query.data(), &found_num,
                                   ranges(), &fid_num, &fid_info, &freq);
  }

  uint32_t fid_num = kUntouched;
  MallocArray<FsidPair> fid_info;
  MallocArray<uint32_t> freq;
};

TEST_F(WholeSearch, NothingFoundIsASuccessWithEmptyResults) {
  load(evenPlaces(10), 4);
  ASSERT_EQ(kOk, searchAll({at(2)}));
  EXPECT_TRUE(fid_info);
  ASSERT_EQ(kOk, searchAll({at(3)}));
  EXPECT_EQ(0u, found_num);
  EXPECT_EQ(0u, fid_num);
  EXPECT_FALSE(fid_info);
  EXPECT_FALSE(freq);
}

TEST_F(WholeSearch, FilesAreRankedBySourceCountAndFile) {
  std::vector<StrongElement> elements;
  for (const int fid : {-1, 1, 2, 3}) elements.push_back(element(at(10), fid, fid == 3 ? -5 : 7));
  for (const int fid : {2, 3}) elements.push_back(element(at(20), fid, fid == 3 ? -5 : 7));
  load(elements, 3);
  ASSERT_EQ(kOk, searchAll({at(10), at(15), at(20)}));
  EXPECT_EQ(2u, found_num);
  ASSERT_EQ(4u, fid_num);
  const int fids[] = {3, 2, -1, 1};
  const int sources[] = {-5, 7, 7, 7};
  const uint32_t counts[] = {2, 2, 1, 1};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(fids[i], fid_info[i].fid);
    EXPECT_EQ(sources[i], fid_info[i].source);
    EXPECT_EQ(counts[i], freq[i]);
  }
}

TEST_F(WholeSearch, AFailedStepIsNamedAndLeavesNoFiles) {
  load(evenPlaces(10), 4);
  const std::string path = "sig_index_DB/search_table.stbl";
  FailPoint point;
  point.fail(Call::kOpen, 1);
  EXPECT_EQ(kErrFile, searchAll({at(2)}));
  EXPECT_EQ((Messages{"open file " + path + " fail", "SearchSignatures (strong) fail"}),
            messages());
  point.fail(Call::kOpen, 2);
  EXPECT_EQ(kErrFile, searchAll({at(2)}));
  EXPECT_EQ((Messages{"open file " + path + " fail", "build_sig_fid_info_tbl fail"}), messages());
  EXPECT_EQ(1u, found_num);
  // bOut; the stack; what is read and two for what is kept of it; hits; buffer:
  // whatever the number, one of them is that of the counts.
  bool failed_in_ranking = false;
  for (int n = 1; !failed_in_ranking; ++n) {
    ASSERT_LT(n, 30);
    point.fail(Call::kAllocate, n);
    EXPECT_EQ(kErrMem, searchAll({at(2)}));
    failed_in_ranking = messages() == Messages{"no mem for freq", "process_fid_info fail"};
  }
  EXPECT_FALSE(fid_info);
  EXPECT_FALSE(freq);
}

TEST_F(WholeSearch, AHugeLoadLimitReservesNoMoreThanTheTable) {
  std::vector<StrongElement> elements = evenPlaces(100, 0x1f);
  for (const StrongElement& more : evenPlaces(3000)) elements.push_back(more);
  for (const uint32_t limit : {0xffffffffu, 0xffffffa0u, 0x80000000u, 0x10000001u}) {
    load(elements, limit);
    HookedSystem hooked;
    ASSERT_EQ(kOk, searchAll({at(4), at(5), at(40), at(9999)}));
    EXPECT_EQ(2u, found_num);
    EXPECT_EQ(3100 * sizeof(StrongElement), hooked.largestAllocation());
    EXPECT_TRUE(messages().empty());
  }
}

// What the range search met on its way is not read again for its pairs.
TEST_F(WholeSearch, HitsAreReadOnce) {
  load(evenPlaces(60), 100);
  FailPoint point;
  point.fail(Call::kRead, 0);
  ASSERT_EQ(kOk, searchAll({at(2), at(4), at(5)}));
  EXPECT_EQ(2u, fid_num);
  EXPECT_EQ(1, point.count());
  load(evenPlaces(60), 100);
  point.fail(Call::kOpen, 0);
  ASSERT_EQ(kOk, searchAll({at(2), at(4), at(5)}));
  EXPECT_EQ(2, point.count());  // the table is still held against its count, twice
}

// A run that is too long to be kept is read again, and so is nothing after it.
TEST_F(WholeSearch, OnlyLongRunsAreReadTwice) {
  std::vector<StrongElement> elements;
  for (int i = 0; i < 1000; ++i) elements.push_back(element(at(1), i, 1));
  for (const StrongElement& e : evenPlaces(600, 0x21)) elements.push_back(e);
  load(elements, 209600);
  const std::vector<Signature> signatures = {at(1), at(0, 0x21), at(2, 0x21), at(1100, 0x21)};
  FailPoint point;
  point.fail(Call::kRead, 0);
  ASSERT_EQ(kOk, search(signatures));
  const int located = point.count();
  point.fail(Call::kRead, 0);
  ASSERT_EQ(kOk, searchAll(signatures));
  EXPECT_EQ(4u, found_num);
  EXPECT_EQ(located + 1, point.count());
}

// Puts elements that nobody reads in front of those of the strong table.
class LongTable final : public ForwardingSystem {
 public:
  explicit LongTable(uint32_t elements) : bytes_(uint64_t{elements} * sizeof(StrongElement)) {}

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override {
    auto file = ForwardingSystem::open(path, mode);
    if (!file || std::string(path).find(".stbl") == std::string::npos) return file;
    return std::make_unique<LongFile>(bytes_, std::move(file));
  }

 private:
  class LongFile final : public ForwardingFile {
   public:
    LongFile(uint64_t bytes, std::unique_ptr<platform::File> file)
        : ForwardingFile(std::move(file)), bytes_(bytes) {}
    bool seek(uint64_t offset) override {
      EXPECT_GE(offset, bytes_);
      return ForwardingFile::seek(offset - bytes_);
    }
    int64_t size() override { return ForwardingFile::size() + static_cast<int64_t>(bytes_); }

   private:
    const uint64_t bytes_;
  };

  const uint64_t bytes_;
};

// 2 GiB are 134217728 elements, the last five of which are here. Runs further on are
// ranked only together with one that begins before, read already or not.
TEST_F(WholeSearch, RunsFrom2GiBOnAreFoundButNotRanked) {
  constexpr uint32_t kBefore = 134217728 - 5;
  const LongTable long_table(kBefore);
  plain_tables::Tables tables = plain_tables::make(evenPlaces(10), {1, 1});
  setRange(&tables.smeta, 0x0000, 0, kBefore);
  setRange(&tables.smeta, 0x2000, kBefore, kBefore + 10);
  load(tables, 100);
  ASSERT_EQ(kOk, searchAll({at(8)}));
  expectRange(0, 1, kBefore + 4, kBefore + 5);
  EXPECT_EQ(1u, fid_num);
  ASSERT_EQ(kOk, searchAll({at(8), at(10), at(18)}));
  EXPECT_EQ(3u, fid_num);

  const Messages failure = {"fseek strong search table file fail", "build_sig_fid_info_tbl fail"};
  ASSERT_EQ(kErrFile, searchAll({at(10)}));
  EXPECT_EQ(1u, found_num);
  EXPECT_EQ(failure, messages());
  EXPECT_FALSE(fid_info);
  load(tables, 4);  // at(8) goes with the next two, at(16) stands by itself
  ASSERT_EQ(kErrFile, searchAll({at(8), at(10), at(12), at(16)}));
  EXPECT_EQ(4u, found_num);
  EXPECT_EQ(failure, messages());
}

// The second step opens the table anew, and it may be another one by then.
TEST_F(WholeSearch, AStrongTableRewrittenBetweenTheStepsIsAFileError) {
  const std::string path = "sig_index_DB/search_table.stbl";
  load(evenPlaces(10), 100);
  HookedSystem hooked;
  hooked.beforeOpen(2, ".stbl",
                    [&] { dir.write(path, plain_tables::make(evenPlaces(11, 0x10), {}).stbl); });
  EXPECT_EQ(kErrFile, searchAll({at(4)}));
  EXPECT_EQ((Messages{"get size of file " + path + " fail", "build_sig_fid_info_tbl fail"}),
            messages());
  EXPECT_FALSE(fid_info);
}

// A copy shares what was loaded, which outlives the original's release.
TEST_F(WholeSearch, ACopySearchesOnAfterTheOriginalsRelease) {
  load(evenPlaces(10), 4);
  const FidIndexSearchEngine copy = engine;
  engine.release();
  EXPECT_FALSE(engine.initialised());
  EXPECT_TRUE(copy.initialised());
  EXPECT_EQ(100, copy.meta().fid_base);
  prepare({at(2), at(3)});
  EXPECT_EQ(kOk, copy.SearchSignatures(2, query.data(), &found_num, ranges(), &fid_num, &fid_info,
                                       &freq));
  EXPECT_EQ(1u, found_num);
  ASSERT_EQ(1u, fid_num);
  EXPECT_EQ(1, fid_info[0].fid);
}

TEST_F(WholeSearch, ThreadsSearchSideBySide) {
  std::vector<StrongElement> elements;
  for (int i = 0; i < 400; ++i) {
    for (int fid = 0; fid <= i % 7; ++fid) elements.push_back(element(at(i), fid, fid % 3));
  }
  load(elements, 17);
  std::vector<Signature> signatures;
  for (int i = 0; i < 500; i += 3) signatures.push_back(at(i));
  ASSERT_EQ(kOk, searchAll(signatures));
  const std::vector<uint32_t> expected = st_pos;
  const uint32_t expected_files = fid_num;

  std::vector<int> wrong(8, 0);
  std::vector<std::thread> threads;
  for (int& mistakes : wrong) {
    threads.emplace_back([&] {
      for (int round = 0; round < 20; ++round) {
        const auto n = static_cast<uint32_t>(signatures.size());
        std::vector<uint32_t> found(n), first(n), last(n);
        uint32_t found_count, files;
        MallocArray<FsidPair> pairs;
        MallocArray<uint32_t> counts;
        const int ret = engine.SearchSignatures(n, signatures.data(), &found_count,
                                                {found.data(), first.data(), last.data()}, &files,
                                                &pairs, &counts);
        if (ret != kOk || first != expected || files != expected_files) ++mistakes;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(8, 0), wrong);
}

// ---- Tables and queries that are not what they should be --------------------------

// The loading lets no such range through; nothing outside the table is read or
// reserved all the same.
TEST_F(RangeSearch, RangesBeyondTheTableFailAsAShortRead) {
  const struct {
    uint32_t low, high;
  } hostile[] = {{0, 11},         {9, 12},  {0, 0x7fffffff}, {10, 5}, {0xfffffff0, 0xffffffff},
                 {0xffffffff, 1}, {12, 11}, {0, 0xffffffff}};
  for (const auto& range : hostile) {
    for (const uint32_t limit : {2u, 100u, 0xffffffffu}) {
      SCOPED_TRACE(testing::Message() << range.low << " " << range.high << " limit " << limit);
      load(evenPlaces(10), limit);
      HookedSystem hooked;
      const int ret = searchBatch({at(0), at(9), at(99)}, range.low, range.high);
      if (ret == kOk) {  // all it needed was within the table
        for (size_t i = 0; i < 3; ++i) {
          EXPECT_TRUE(bFind[i] == 0 || en_pos[i] <= 10);
        }
      } else {
        EXPECT_EQ(kErrFile, ret);
      }
      EXPECT_LT(hooked.largestAllocation(), 10000u);
    }
  }
}

TEST_F(RangeSearch, ARangeThatEndsBeforeItStartsIsAFailedLoad) {
  load(evenPlaces(10), 100);
  EXPECT_EQ(kErrFile, searchBatch({at(0)}, 10, 5));
  EXPECT_EQ(Messages{"load element from strong search table file fail"}, messages());
}

TEST_F(RangeSearch, AnEmptyDirectoryRangeIsAStateError) {
  plain_tables::Tables tables = plain_tables::make(evenPlaces(10), {1, 1});
  setRange(&tables.smeta, 0x2000, 5, 5);
  setRange(&tables.smeta, 0x4000, 0, 10);
  load(tables, 100);
  EXPECT_EQ(kErrState, search({at(0)}));
  EXPECT_EQ((Messages{"ele_num == 0 || sig_n == 0", "dbinary_find_signature_range fail",
                      "dbinary_find_signature_range fail on sig (0 -- 1)"}),
            messages());
}

TEST_F(WholeSearch, UnsortedTablesAndQueriesEndAndStayInsideTheTable) {
  const uint64_t seed = documents::seed(20240702);
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  documents::Random random(seed);
  for (int round = 0; round < 40; ++round) {
    std::vector<StrongElement> elements = evenPlaces(60);
    for (StrongElement& e : elements) {
      e = element(at(static_cast<int>(random.below(9)), static_cast<int>(0x20 + random.below(3))),
                  static_cast<int>(random.below(5)), 1);
    }
    plain_tables::Tables tables = plain_tables::make(elements, {1, 1});
    tables.wtbl = std::string(8, 'w');
    tables.wmeta = tables.smeta.substr(0, 12) + std::string(524288, '\0');
    setRange(&tables.wmeta, 0, 0, 1);
    for (const uint32_t prefix : {0x2000u, 0x2100u, 0x2200u}) {
      setRange(&tables.smeta, prefix, 0, 20);
    }
    load(tables, static_cast<uint32_t>(random.below(20)));
    std::vector<Signature> signatures;
    for (uint64_t i = random.below(40); i-- > 0;) {
      signatures.push_back(
          at(static_cast<int>(random.below(9)), static_cast<int>(0x1f + random.below(5))));
    }
    const int ret = searchAll(signatures);
    EXPECT_TRUE(ret == kOk || ret == kErrFile || ret == kErrState) << ret;
    for (size_t i = 0; ret == kOk && i < signatures.size(); ++i) {
      if (bFind[i] == 0) continue;
      EXPECT_LE(st_pos[i], en_pos[i]);
      EXPECT_LE(en_pos[i], 60u);
    }
  }
}

}  // namespace
