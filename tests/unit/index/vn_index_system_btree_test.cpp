// The life cycle of the one index, its base, its file IDs and its messages.
#include "vn_index_system_btree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "documents.h"
#include "fail_point.h"
#include "index_test_support.h"
#include "meta_data.h"
#include "status.h"
#include "table_twin.h"

namespace {

using namespace dlp_btree;
using documents::signature;
using Signatures = std::vector<Signature>;

const Signature kA = signature({1, 2, 3, 4, 5, 6, 7, 8});
const Signature kB = signature({1, 2, 3, 4, 5, 6, 7, 9});
const Signature kRoot = signature({255, 255, 255, 255, 255, 255, 255, 255});
constexpr int64_t kTwo31 = int64_t{1} << 31;

Expected error(const std::string& function, const std::string& message) {
  return {3, "Error", "dlp_btree::" + function, message};
}

class IndexSystem : public testing::Test {
 protected:
  IndexSystem() { dir_.write("index_sys_config.txt", "max_ele_num_save = 50\n"); }
  ~IndexSystem() override { vnDestroyIndexSystem(); }

  int open(uint32_t level = 3) {
    const int status = vnInitIndexSystem("db", level, nullptr);
    log_.clear();  // a fresh directory has no meta data and says so
    return status;
  }
  static int add(int64_t fid, const Signatures& signatures) {
    return vnAddDocSignature(fid, static_cast<uint32_t>(fid),
                             static_cast<uint32_t>(signatures.size()), signatures.data());
  }
  static int remove(const std::vector<int64_t>& fids) {
    return vnDelDocSignature(static_cast<uint32_t>(fids.size()), fids.data());
  }
  StoredIndex stored() {
    EXPECT_EQ(kOk, vnStopDocIndex());
    EXPECT_EQ(kOk, vnDestroyIndexSystem());
    return storedIndex("db/fid_index");
  }
  static std::set<int32_t> fidsOf(const StoredIndex& index) {
    std::set<int32_t> fids;
    for (const auto& record : index.fid_sig) fids.insert(std::get<0>(record));
    return fids;
  }

  TempDir dir_;
  LogCapture log_;
};

// ---- The distance from the base ----

TEST_F(IndexSystem, TheOffsetIsTheDistanceFromTheBase) {
  const struct {
    int64_t fid, base;
    uint32_t offset;
  } cases[] = {
      {0, 0, 0},
      {-1, -1, 0},
      {0, -1, 1},
      {2147483646, -1, 0x7FFFFFFF},
      {5 + kTwo31 - 1, 5, 0x7FFFFFFF},
      {5 - (kTwo31 - 1), 5, 0x80000001},
      {4, 5, 0xFFFFFFFF},
      {INT64_MAX, INT64_MAX, 0},
      {INT64_MIN, INT64_MIN, 0},
      {INT64_MAX, INT64_MAX - 7, 7},
      {INT64_MIN, INT64_MIN + 7, 0xFFFFFFF9},
      {INT64_MIN + kTwo31 - 1, INT64_MIN, 0x7FFFFFFF},
      {INT64_MAX - kTwo31 + 1, INT64_MAX, 0x80000001},
  };
  for (const auto& [fid, base, offset] : cases) {
    uint32_t made = 99;
    EXPECT_EQ(kOk, process_fid(fid, base, &made)) << fid << " from " << base;
    EXPECT_EQ(offset, made) << fid << " from " << base;
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(IndexSystem, ADistanceOf2To31OrMoreIsRefusedWithThreeMessages) {
  uint32_t offset = 99;
  EXPECT_EQ(kErrState, process_fid(5 + kTwo31, 5, &offset));
  expectLines(log_, {error("process_fid", "file ID out of range (0, 2147483653)"),
                     error("process_fid", "file ID base (0, 5)"),
                     error("process_fid", "file ID out of range (off) (0, 2147483648)")});
  log_.clear();
  EXPECT_EQ(kErrState, process_fid(-1 - kTwo31, -1, &offset));
  expectLines(log_, {error("process_fid", "file ID out of range (4294967295, 2147483647)"),
                     error("process_fid", "file ID base (4294967295, 4294967295)"),
                     error("process_fid", "file ID out of range (off) (0, 2147483648)")});
  EXPECT_EQ(99u, offset);
}

TEST_F(IndexSystem, TheWholeRangeOf64BitsHasADistance) {
  uint32_t offset = 99;
  EXPECT_EQ(kErrState, process_fid(INT64_MAX, INT64_MIN, &offset));
  expectLines(log_, {error("process_fid", "file ID out of range (2147483647, 4294967295)"),
                     error("process_fid", "file ID base (2147483648, 0)"),
                     error("process_fid", "file ID out of range (off) (4294967295, 4294967295)")});
  log_.clear();
  EXPECT_EQ(kErrState, process_fid(INT64_MIN, INT64_MAX, &offset));
  ASSERT_EQ(3u, log_.lines().size());
  EXPECT_EQ("file ID out of range (off) (4294967295, 4294967295)", log_.lines()[2].message);
}

// ---- Before initialisation ----

TEST_F(IndexSystem, NothingWorksBeforeInitialisation) {
  EXPECT_EQ(kErrState, vnStartDocIndex());
  EXPECT_EQ(kErrState, add(1, {kA}));
  EXPECT_EQ(kErrState, remove({1}));
  EXPECT_EQ(kErrState, vnStopDocIndex());
  EXPECT_EQ(kErrState, vnCreateSearchTable("db"));
  EXPECT_EQ(kErrState, vnDestroyIndexSystem());  // without a message
  expectLines(log_, {error("vnStartDocIndex", "vnStartDocIndex before init index system"),
                     error("vnAddDocSignature", "vnAddDocSignature before init index system"),
                     error("vnDelDocSignature", "vnDelDocSignature before init index system"),
                     error("vnStopDocIndex", "vnStopDocIndex before init index system"),
                     error("vnCreateSearchTable", "vnCreateSearchTable before init index system")});
  EXPECT_FALSE(dir_.exists("meta_data.bin"));
}

TEST_F(IndexSystem, AMissingListOfFileIdsIsRefusedFirst) {
  EXPECT_EQ(kErrParam, vnDelDocSignature(1, nullptr));
  EXPECT_TRUE(log_.lines().empty());
}

// ---- Initialisation ----

TEST_F(IndexSystem, AMissingDirectoryIsRefusedWithoutAMessage) {
  EXPECT_EQ(kErrParam, vnInitIndexSystem(nullptr, 3, nullptr));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(kErrState, vnStartDocIndex());
}

TEST_F(IndexSystem, AnEmptyDirectoryIsRefusedByTheCollector) {
  EXPECT_EQ(kErrState, vnInitIndexSystem("", 3, nullptr));
  expectLines(log_, {error("load_meta_data", "meta data file dosn't exist"),
                     error("FidSigIndexCollector::Init", "invalid index dir name"),
                     error("vnInitIndexSystem", "set collector config fail")});
  EXPECT_EQ(kErrState, vnDestroyIndexSystem());
}

TEST_F(IndexSystem, AFreshDirectoryNeedsNoMetaData) {
  EXPECT_EQ(kOk, vnInitIndexSystem("db", 3, nullptr));
  expectLines(log_, {error("load_meta_data", "meta data file dosn't exist")});
  EXPECT_FALSE(dir_.exists("db/meta_data.bin"));
  EXPECT_EQ(kOk, vnStartDocIndex());
}

TEST_F(IndexSystem, TheRootDocumentCreatesTheMetaData) {
  ASSERT_EQ(kOk, open());
  EXPECT_EQ(kOk, vnAddDocSignature(-1, 0xFFFFFFFF, 1, &kRoot));
  EXPECT_EQ(std::string("\xff\xff\xff\xff\xff\xff\xff\xff\x03\x00\x00\x00", 12),
            dir_.read("db/meta_data.bin"));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(IndexSystem, ASecondInitialisationIsRefusedAndChangesNothing) {
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(10, {kA}));
  EXPECT_EQ(kErrState, vnInitIndexSystem("elsewhere", 9, nullptr));
  EXPECT_EQ(kErrState, vnInitIndexSystem(nullptr, 9, nullptr));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_FALSE(dir_.exists("elsewhere"));
  EXPECT_EQ(kErrPending, add(10, {kA}));
  EXPECT_EQ(kOk, vnCreateSearchTable("db"));
}

TEST_F(IndexSystem, AConfigurationThatCannotBeLoadedFailsTheInitialisation) {
  std::filesystem::remove("index_sys_config.txt");
  for (const char* const path : {static_cast<const char*>(nullptr), ""}) {
    log_.clear();
    EXPECT_EQ(kErrFile, vnInitIndexSystem("db", 3, path));
    const auto lines = log_.lines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("#<IndexSysConfiguration::Load>#open config file index_sys_config.txt fail",
              lines[1].text);
    EXPECT_EQ("#<dlp_btree::vnInitIndexSystem>#load index sys configuration fail", lines[2].text);
    EXPECT_EQ(3, lines[2].level);
    EXPECT_EQ("Error", lines[2].word);
    EXPECT_EQ("fpe_sig_index", lines[2].tag);
    EXPECT_EQ(kErrState, vnStartDocIndex());
  }
  EXPECT_FALSE(dir_.exists("db"));
  dir_.write("index_sys_config.txt", "bad");
  EXPECT_EQ(kErrFormat, vnInitIndexSystem("db", 3, nullptr));
}

TEST_F(IndexSystem, AConfigurationMayStandElsewhere) {
  dir_.write("mine.txt", "fid_index_fname=\"mine\"");
  ASSERT_EQ(kOk, vnInitIndexSystem("db", 3, "mine.txt"));
  EXPECT_TRUE(dir_.exists("db/mine.sigt.l.blk"));
}

TEST_F(IndexSystem, ACollectorThatCannotBeOpenedFailsTheInitialisation) {
  {
    FailPoint point;
    point.fail(Call::kOpen, 1, true, ".sigt");
    EXPECT_EQ(kErrFile, vnInitIndexSystem("db", 3, nullptr));
  }
  expectLines(log_, {error("load_meta_data", "meta data file dosn't exist"),
                     error("FidSigIndexCollector::Init", "gen_btree fail"),
                     error("vnInitIndexSystem", "set collector config fail")});
  EXPECT_EQ(kErrState, vnDestroyIndexSystem());
  EXPECT_EQ(kOk, open());
}

TEST_F(IndexSystem, AnExistingIndexKeepsItsLevelAndBase) {
  ASSERT_EQ(kOk, open(3));
  ASSERT_EQ(kOk, add(100, {kA}));
  ASSERT_EQ(kOk, vnStopDocIndex());
  ASSERT_EQ(kOk, vnDestroyIndexSystem());
  ASSERT_EQ(kOk, vnInitIndexSystem("db", 5, nullptr));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(kOk, add(90, {kA}));
  EXPECT_EQ(kOk, vnStopDocIndex());
  EXPECT_EQ(kOk, vnCreateSearchTable("db"));
  EXPECT_EQ(table_twin::metaRecord(100, 3), dir_.read("db/meta_data.bin"));
  EXPECT_EQ(table_twin::metaRecord(100, 3), dir_.read("db/search_table.wmeta").substr(0, 12));
  EXPECT_EQ(table_twin::metaRecord(100, 3), dir_.read("db/search_table.smeta").substr(0, 12));
  EXPECT_EQ((std::set<int32_t>{0, -10}), fidsOf(stored()));
}

TEST_F(IndexSystem, TheBaseOfAnotherIndexIsForgotten) {
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(100, {kA}));
  ASSERT_EQ(kOk, vnDestroyIndexSystem());
  ASSERT_EQ(kOk, vnInitIndexSystem("other", 4, nullptr));
  log_.clear();
  EXPECT_EQ(kErrState, remove({1}));
  expectLines(log_, {error("vnDelDocSignature", "no meta data, it means no index signatures")});
  ASSERT_EQ(kOk, add(int64_t{1} << 40, {kA}));
  EXPECT_EQ(table_twin::metaRecord(int64_t{1} << 40, 4), dir_.read("other/meta_data.bin"));
  ASSERT_EQ(kOk, vnDestroyIndexSystem());
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(103, {kA}));
  EXPECT_EQ((std::set<int32_t>{3}), fidsOf(stored()));
}

TEST_F(IndexSystem, AFileOfElevenBytesIsNoBase) {
  dir_.makeDirectory("db");
  dir_.write("db/meta_data.bin", std::string(11, 'x'));
  EXPECT_EQ(kOk, vnInitIndexSystem("db", 3, nullptr));
  expectLines(log_, {error("load_meta_data", "read meta data file fail")});
  ASSERT_EQ(kOk, add(7, {kA}));
  EXPECT_EQ(table_twin::metaRecord(7, 3), dir_.read("db/meta_data.bin"));
}

// ---- Adding ----

TEST_F(IndexSystem, TheFirstDocumentFixesTheBaseAndHasOffsetZero) {
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(1000, {kA}));
  ASSERT_EQ(kOk, add(1001, {kA}));
  ASSERT_EQ(kOk, add(999, {kA}));
  EXPECT_EQ((std::set<int32_t>{-1, 0, 1}), fidsOf(stored()));
}

TEST_F(IndexSystem, AFileIdThatIsTooFarIsRefusedAndOneJustWithinAccepted) {
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(-1, {kRoot}));
  EXPECT_EQ(kOk, add(2147483646, {kA}));
  EXPECT_EQ(kOk, add(-kTwo31, {kA}));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(kErrState, add(2147483647, {kA}));
  EXPECT_EQ(kErrState, add(-kTwo31 - 1, {kA}));
  EXPECT_EQ(6u, log_.lines().size());
  EXPECT_EQ((std::set<int32_t>{INT32_MIN + 1, 0, INT32_MAX}), fidsOf(stored()));
}

TEST_F(IndexSystem, TheCollectorsStatusesArePassedOn) {
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(-1, {kRoot}));
  EXPECT_EQ(kErrPending, add(-1, {kA}));
  EXPECT_EQ(kErrParam, vnAddDocSignature(5, 5, 0, &kA));
  EXPECT_EQ(kErrParam, vnAddDocSignature(5, 5, 1, nullptr));
}

// The base is fixed before the collector looks at the document.
TEST_F(IndexSystem, AlsoARefusedFirstDocumentFixesTheBase) {
  ASSERT_EQ(kOk, open());
  EXPECT_EQ(kErrParam, vnAddDocSignature(50, 50, 0, &kA));
  EXPECT_EQ(table_twin::metaRecord(50, 3), dir_.read("db/meta_data.bin"));
}

TEST_F(IndexSystem, MetaDataThatCannotBeWrittenDoesNotStopTheAddition) {
  ASSERT_EQ(kOk, open());
  {
    FailPoint point;
    point.fail(Call::kOpen, 1, false, "meta_data.bin");
    EXPECT_EQ(kOk, add(100, {kA}));
  }
  expectLines(log_, {error("save_meta_data", "open meta data file (w) fail")});
  EXPECT_EQ(kOk, add(101, {kA}));
  EXPECT_EQ((std::set<int32_t>{0, 1}), fidsOf(stored()));
  ASSERT_EQ(kOk, open());
  EXPECT_EQ(kErrState, remove({100}));  // the index runs without a base again
  EXPECT_TRUE(log_.has("no meta data, it means no index signatures"));
}

// ---- Deleting ----

TEST_F(IndexSystem, ADeletionStopsAtTheFirstFileIdThatIsTooFar) {
  ASSERT_EQ(kOk, open());
  for (int64_t fid = 0; fid < 5; ++fid) ASSERT_EQ(kOk, add(fid, {kA, kB}));
  ASSERT_EQ(kOk, vnStopDocIndex());
  EXPECT_EQ(kErrState, remove({3, 1, kTwo31, 2}));
  EXPECT_EQ(3u, log_.lines().size());
  EXPECT_EQ((std::set<int32_t>{0, 2, 4}), fidsOf(stored()));
}

TEST_F(IndexSystem, AnEmptyListAndUnknownFileIdsAreASuccess) {
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(0, {kA}));
  ASSERT_EQ(kOk, vnStopDocIndex());
  const int64_t unknown = 77;
  EXPECT_EQ(kOk, vnDelDocSignature(0, &unknown));
  EXPECT_EQ(kOk, vnDelDocSignature(1, &unknown));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ((std::set<int32_t>{0}), fidsOf(stored()));
}

TEST_F(IndexSystem, ADeletionWithoutABaseIsRefused) {
  ASSERT_EQ(kOk, open());
  EXPECT_EQ(kErrState, remove({1}));
  expectLines(log_, {error("vnDelDocSignature", "no meta data, it means no index signatures")});
}

TEST_F(IndexSystem, ADeletionIsOnDiskWhenItReturnsAlsoWhenItStopsEarly) {
  FailPoint point;
  ASSERT_EQ(kOk, open());
  for (int64_t fid = 0; fid < 5; ++fid) ASSERT_EQ(kOk, add(fid, {kA}));
  ASSERT_EQ(kOk, vnStopDocIndex());
  for (const std::vector<int64_t>& fids : {std::vector<int64_t>{1}, {2, kTwo31}}) {
    point.fail(Call::kWrite, 0);
    remove(fids);
    EXPECT_GT(point.count(), 0);
  }
  point.fail(Call::kWrite, 0);
  ASSERT_EQ(kOk, vnDestroyIndexSystem());
  EXPECT_EQ(0, point.count());  // nothing was left to write
  EXPECT_EQ((std::set<int32_t>{0, 3, 4}), fidsOf(storedIndex("db/fid_index")));
}

TEST_F(IndexSystem, ADeletionThatCannotBeWrittenIsToldByTheStop) {
  FailPoint point;
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(0, {kA}));
  ASSERT_EQ(kOk, vnStopDocIndex());
  point.fail(Call::kWrite, 1, true);
  EXPECT_EQ(kOk, remove({0}));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(kErrFile, vnStopDocIndex());
  expectLines(log_, {error("vnStopDocIndex", "SaveFidSignature error in vnStopDocIndex")});
  EXPECT_EQ(kOk, vnDestroyIndexSystem());
}

// ---- Tables and the end ----

TEST_F(IndexSystem, TablesWithoutABaseAreFourEmptyFiles) {
  ASSERT_EQ(kOk, open());
  EXPECT_EQ(kOk, vnCreateSearchTable("db"));
  for (const char* const suffix : {".wtbl", ".stbl", ".wmeta", ".smeta"}) {
    EXPECT_EQ("", dir_.read(std::string("db/search_table") + suffix));
  }
  const Expected note =
      error("vnCreateSearchTable", "kilo_dbg b_meta_data_load == 0, create empty search table");
  expectLines(log_, {note});
  log_.clear();
  EXPECT_EQ(kErrParam, vnCreateSearchTable(nullptr));
  expectLines(log_, {{4, "Info", "dlp_btree::FidSigIndexCollector::CreateEmptySearchTable",
                      "Error: invalid sch_table_dir parameter"},
                     note});
}

TEST_F(IndexSystem, TablesHoldWhatWasSavedNotWhatIsPending) {
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(-1, {kRoot}));
  ASSERT_EQ(kOk, vnStopDocIndex());
  ASSERT_EQ(kOk, add(5, {kA}));
  EXPECT_EQ(kOk, vnCreateSearchTable("db"));
  EXPECT_EQ(std::string(8, '\xff'), dir_.read("db/search_table.wtbl"));
  EXPECT_EQ(kErrParam, vnCreateSearchTable(nullptr));
}

TEST_F(IndexSystem, DestructionDropsPendingDocuments) {
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(-1, {kRoot}));
  EXPECT_EQ(kOk, vnDestroyIndexSystem());
  EXPECT_EQ(kErrState, vnDestroyIndexSystem());
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_TRUE(storedIndex("db/fid_index").fid_sig.empty());
}

// ---- Threads ----

TEST_F(IndexSystem, DocumentsOfSeveralThreadsAllArrive) {
  dir_.write("index_sys_config.txt", "max_fid_num = 10\n");  // saves on the way
  ASSERT_EQ(kOk, open());
  ASSERT_EQ(kOk, add(-1, {kRoot}));
  constexpr int kThreads = 4;
  constexpr int kDocuments = 100;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kDocuments; ++i) {
        const int64_t fid = t * kDocuments + i;
        EXPECT_EQ(kOk, add(fid, {kA, kB}));
        EXPECT_EQ(kOk, remove({1000000 + fid}));
        EXPECT_EQ(kOk, vnStartDocIndex());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const StoredIndex index = stored();
  EXPECT_EQ(2u * kThreads * kDocuments + 1, index.fid_sig.size());
  EXPECT_EQ(2u * kThreads * kDocuments + 1, index.sig_fid.size());
  EXPECT_EQ(1u * kThreads * kDocuments + 1, index.src_fid.size());
}

// Either document may fix the base, and both may find none: then both have
// offset 0 and the second of them is pending already.
TEST_F(IndexSystem, TwoFirstDocumentsMayRaceForTheBase) {
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(kOk, open());
    int status[2];
    std::thread other([&] { status[1] = add(2000, {kA}); });
    status[0] = add(1000, {kA});
    other.join();
    for (const int s : status) EXPECT_TRUE(s == kOk || s == kErrPending) << s;
    EXPECT_TRUE(status[0] == kOk || status[1] == kOk);
    const std::string meta = dir_.read("db/meta_data.bin");
    EXPECT_TRUE(meta == table_twin::metaRecord(1000, 3) || meta == table_twin::metaRecord(2000, 3));
    ASSERT_EQ(kOk, vnDestroyIndexSystem());
    std::filesystem::remove_all("db");
  }
}

TEST_F(IndexSystem, OpeningAndClosingMayRaceWithEverything) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 30; ++i) {
        if (t == 0) {
          vnInitIndexSystem("db", 3, nullptr);
          vnDestroyIndexSystem();
        } else {
          const int status = add(i, {kA});
          EXPECT_TRUE(status == kOk || status == kErrState || status == kErrPending) << status;
          remove({i});
          vnStopDocIndex();
          vnCreateSearchTable("db");
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
