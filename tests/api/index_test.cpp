// The five functions that index, through the built library: their return values
// in every state, and the files they leave, against the twin in index_model.h.
#include <climits>
#include <filesystem>

#include "host_session.h"

namespace {

namespace fs = std::filesystem;

constexpr int64_t kTwoTo31 = int64_t{1} << 31;

class Index : public LibraryTest {
 protected:
  // Calls the library and the twin, and compares what they return.
  void open() { EXPECT_EQ(model_.open(), InitIndexSystem()); }
  void add(int64_t file_id, const Signatures& signatures) {
    EXPECT_EQ(model_.add(file_id, signatures), addDocument(file_id, signatures)) << file_id;
  }
  void erase(const std::vector<int64_t>& file_ids) {
    EXPECT_EQ(model_.erase(file_ids), deleteDocuments(file_ids));
  }
  void close() {
    EXPECT_EQ(model_.close(), ExitIndexSystem());
    expectTables(model_.tables(), readTables(dir_));
  }

  IndexModel model_;
};

Signatures some(uint64_t seed, size_t count = 5) { return documents::signatures(count, seed); }

unsigned char one_signature[1][8] = {{1, 2, 3, 4, 5, 6, 7, 8}};

TEST_F(Index, NothingWorksBeforeInit) {
  configure();
  int64_t file_id = 5;
  EXPECT_EQ(1, AddDocSignature(5, one_signature, 1));
  EXPECT_EQ(1, AddDocSignature(-1, one_signature, 1));
  EXPECT_EQ(1, DelDocSignature(&file_id, 1));
  EXPECT_EQ(1, DelDocSignature(&file_id, 0));
  EXPECT_EQ(1, ExitIndexSystem());
  EXPECT_FALSE(dir_.exists("sig_index_DB"));
}

TEST_F(Index, NothingWorksAfterExit) {
  configure();
  open();
  close();
  add(5, some(1));
  erase({5});
  EXPECT_EQ(1, ExitIndexSystem());
  expectTables(model_.tables(), readTables(dir_));
}

TEST_F(Index, InitNeedsTheConfigurationFile) {
  EXPECT_EQ(1, InitIndexSystem());
  EXPECT_EQ(1, ExitIndexSystem());
  EXPECT_FALSE(dir_.exists("sig_index_DB"));
  configure();
  EXPECT_EQ(0, InitIndexSystem());
}

TEST_F(Index, InitRefusesAMalformedConfiguration) {
  for (const char* lines : {"max_fid_num=12x\n", "max_fid_num=-1\n", "max_fid_num 5\n",
                            "max_fid_num=5\nmax_fid_num=5\n", "fid_index_fname=\"\"\n",
                            "fid_index_fname=\"two words\"\n", "=5\n",
                            "search_table_fname=\"a_name_of_thirty_characters_xx\"\n"}) {
    configure(lines);
    EXPECT_EQ(1, InitIndexSystem()) << lines;
  }
  configure("max_fid_num=12\n");
  EXPECT_EQ(0, InitIndexSystem());
}

TEST_F(Index, SecondInitIsRefusedAndTheFirstGoesOn) {
  configure();
  open();
  EXPECT_EQ(1, InitIndexSystem());
  add(1, some(1));
  EXPECT_EQ(1, InitIndexSystem());
  close();
}

TEST_F(Index, InitFailsWhereAFileBearsTheDirectorysName) {
  configure();
  dir_.write("sig_index_DB", "no directory");
  EXPECT_EQ(1, InitIndexSystem());
  EXPECT_EQ(1, ExitIndexSystem());
  fs::remove("sig_index_DB");
  EXPECT_EQ(0, InitIndexSystem());
}

TEST_F(Index, InitFailsOnATreeThatCannotBeOpened) {
  for (const char* tree :
       {"fid_index.fidt.l.blk", "fid_index.sidt.n.blk", "fid_index.sigt.l.blk"}) {
    SCOPED_TRACE(tree);
    configure();
    dir_.makeDirectory("sig_index_DB");
    dir_.makeDirectory(std::string("sig_index_DB/") + tree);
    EXPECT_EQ(1, InitIndexSystem());
    EXPECT_EQ(1, AddDocSignature(5, one_signature, 1));
    fs::remove_all("sig_index_DB");
  }
  open();
  close();
}

TEST_F(Index, AnEmptyIndexHoldsTheRootDocument) {
  configure();
  open();
  close();
  EXPECT_EQ(std::string(8, '\xff') + std::string("\x03\0\0\0", 4),
            dir_.read("sig_index_DB/meta_data.bin"));
  EXPECT_EQ(std::string(8, '\xff'), dir_.read("sig_index_DB/search_table.wtbl"));
  EXPECT_EQ(std::string(8, '\xff') + std::string(4, '\0') + std::string(4, '\xff'),
            dir_.read("sig_index_DB/search_table.stbl"));
}

TEST_F(Index, AnIndexIsSeventeenFiles) {
  configure("fid_index_fname = \"trees\"\nsearch_table_fname = \"tables\"\n");
  ASSERT_EQ(0, InitIndexSystem());
  ASSERT_EQ(0, addDocument(1, some(1)));
  ASSERT_EQ(0, ExitIndexSystem());
  std::set<std::string> expected = {"meta_data.bin", "tables.wtbl", "tables.stbl", "tables.wmeta",
                                    "tables.smeta"};
  for (const char* tree : {"trees.fidt", "trees.sidt", "trees.sigt"}) {
    for (const char* suffix : {".l.blk", ".l.stk", ".n.blk", ".n.stk"}) {
      expected.insert(std::string(tree) + suffix);
    }
  }
  std::set<std::string> actual;
  for (const auto& entry : fs::directory_iterator("sig_index_DB")) {
    actual.insert(entry.path().filename().string());
    if (entry.path().extension() == ".blk") {
      EXPECT_GE(entry.file_size(), 65536u) << entry.path();
      EXPECT_EQ(0u, entry.file_size() % 65536) << entry.path();
    }
  }
  EXPECT_EQ(expected, actual);
}

TEST_F(Index, FileIdMinusOneBelongsToTheRoot) {
  configure();
  open();
  EXPECT_EQ(1, addDocument(-1, some(1)));
  add(-2, some(2));
  add(0, some(3));
  close();
}

TEST_F(Index, FileIdsLieLessThanTwoTo31FromTheBase) {
  configure();
  open();
  for (const int64_t accepted : {kTwoTo31 - 2, -kTwoTo31, int64_t{0}, int64_t{-2}}) {
    EXPECT_EQ(0, addDocument(accepted, some(1))) << accepted;
    model_.add(accepted, some(1));
  }
  for (const int64_t refused : {kTwoTo31 - 1, kTwoTo31, -kTwoTo31 - 1, 2 * kTwoTo31 + 5,
                                int64_t{INT64_MAX}, int64_t{INT64_MIN}}) {
    EXPECT_EQ(1, addDocument(refused, some(1))) << refused;
    EXPECT_EQ(1, deleteDocuments({refused})) << refused;
  }
  close();
}

TEST_F(Index, AnotherBaseIsKept) {
  constexpr int64_t kBase = 1000;
  configure();
  dir_.makeDirectory("sig_index_DB");
  dir_.write("sig_index_DB/meta_data.bin", metaData(kBase, 5));
  IndexModel model(8384, kBase);
  ASSERT_EQ(model.open(), InitIndexSystem());
  for (const int64_t file_id : {kBase, kBase + kTwoTo31 - 1, kBase + kTwoTo31, kBase - kTwoTo31 + 1,
                                kBase - kTwoTo31, int64_t{7}}) {
    EXPECT_EQ(model.add(file_id, some(1)), addDocument(file_id, some(1))) << file_id;
  }
  EXPECT_EQ(model.close(), ExitIndexSystem());
  EXPECT_EQ(metaData(kBase, 5), dir_.read("sig_index_DB/meta_data.bin"));
  expectTables(searchTables(kBase, 5, model.saved()), readTables(dir_));
}

TEST_F(Index, ABaseTooFarFromTheRootIsRefused) {
  configure();
  dir_.makeDirectory("sig_index_DB");
  for (const int64_t base : {kTwoTo31 - 1, -kTwoTo31 - 1, int64_t{INT64_MAX}, int64_t{INT64_MIN}}) {
    dir_.write("sig_index_DB/meta_data.bin", metaData(base, 3));
    EXPECT_EQ(1, InitIndexSystem()) << base;
    EXPECT_EQ(1, ExitIndexSystem()) << base;
  }
  dir_.write("sig_index_DB/meta_data.bin", metaData(kTwoTo31 - 2, 3));
  EXPECT_EQ(0, InitIndexSystem());
}

TEST_F(Index, APendingFileIdIsAnsweredWithTwoAndItsFirstAdditionStands) {
  configure();
  open();
  add(7, some(1));
  EXPECT_EQ(2, addDocument(7, some(2)));
  EXPECT_EQ(2, addDocument(7, some(1)));
  close();
}

TEST_F(Index, ASavedFileIdTakesMoreSignatures) {
  configure();
  open();
  add(7, some(1));
  close();
  open();
  Signatures more = some(1);
  more.push_back(documents::signature({0, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(0, addDocument(7, more));
  model_.add(7, more);
  close();
  EXPECT_EQ(7u, model_.saved().size());
}

TEST_F(Index, RepeatedSignaturesOfADocumentCountOnce) {
  configure();
  open();
  add(7, {some(1)[0], some(1)[0], some(1)[1], some(1)[0]});
  close();
  EXPECT_EQ(3u, model_.saved().size());
}

TEST_F(Index, AnAdditionWithoutSignaturesIsRefused) {
  configure();
  open();
  for (const int count : {0, -1, INT_MIN}) {
    EXPECT_EQ(1, AddDocSignature(7, one_signature, count)) << count;
  }
  for (const int count : {0, 1, -1}) EXPECT_EQ(1, AddDocSignature(7, nullptr, count)) << count;
  add(7, some(1));
  close();
}

TEST_F(Index, TheListIsCopied) {
  configure();
  open();
  Signatures list = some(1);
  add(7, list);
  std::fill(list.begin(), list.end(), Signature{});
  close();
}

TEST_F(Index, ADeletionNeedsAList) {
  configure();
  open();
  add(7, some(1));
  close();
  open();
  int64_t file_id = 7;
  EXPECT_EQ(1, DelDocSignature(nullptr, 0));
  EXPECT_EQ(1, DelDocSignature(nullptr, 1));
  EXPECT_EQ(1, DelDocSignature(&file_id, -1));
  EXPECT_EQ(1, DelDocSignature(&file_id, INT_MIN));
  EXPECT_EQ(0, DelDocSignature(&file_id, 0));
  close();
}

TEST_F(Index, ADeletionStopsAtAFileIdOutOfRange) {
  configure();
  open();
  for (int64_t file_id = 1; file_id <= 4; ++file_id) add(file_id, some(9));
  close();
  open();
  EXPECT_EQ(1, deleteDocuments({1, 2, kTwoTo31, 3}));
  model_.erase({1, 2});
  close();
}

TEST_F(Index, ADeletionDoesNotLookAtPendingDocuments) {
  configure();
  open();
  add(1, some(1));
  close();
  open();
  add(1, some(2));
  add(2, some(3));
  erase({1, 2});
  close();
}

TEST_F(Index, UnknownFileIdsAreNoFailure) {
  configure();
  open();
  add(1, some(1));
  erase({5, -7, 2147483646, -2147483648});
  close();
  open();
  EXPECT_EQ(0, deleteDocuments({5, 1, 1, 6}));
  model_.erase({1});
  close();
}

// Every session brings the root document anew, and what is pending survives a
// deletion.
TEST_F(Index, TheRootSurvivesTheDeletionOfEverything) {
  configure();
  open();
  for (int64_t file_id = 0; file_id < 50; ++file_id)
    add(file_id, some(static_cast<uint64_t>(file_id)));
  close();
  open();
  std::vector<int64_t> all = {-1};
  for (int64_t file_id = 0; file_id < 50; ++file_id) all.push_back(file_id);
  erase(all);
  close();
  EXPECT_EQ(1u, model_.saved().size());
  EXPECT_EQ(0, InitMatchSystem());
}

TEST_F(Index, ADeletedFileIdCanBeAddedAgain) {
  configure();
  open();
  add(1, some(1));
  close();
  for (uint64_t round = 0; round < 3; ++round) {
    open();
    erase({1});
    add(1, some(2 + round));
    close();
  }
  EXPECT_EQ(6u, model_.saved().size());
}

// Four times "max_fid_num" documents wait, the root among them; the next one
// has them all written.
TEST_F(Index, AFullCollectorSavesItselfBeforeItLooksForTheFileId) {
  configure("max_fid_num = 1\n");
  model_ = IndexModel(4);
  open();
  for (int64_t file_id = 1; file_id <= 2; ++file_id) add(file_id, some(1));
  EXPECT_EQ(2, addDocument(2, some(2)));
  add(3, some(1));
  EXPECT_EQ(0, addDocument(2, some(2)));
  EXPECT_EQ(0, model_.add(2, some(2)));
  close();
}

TEST_F(Index, WhatAFullCollectorSavedIsPendingNoMore) {
  configure("max_fid_num = 1\n");
  model_ = IndexModel(4);
  open();
  for (int64_t file_id = 1; file_id <= 4; ++file_id) add(file_id, some(1));
  EXPECT_EQ(0, addDocument(2, some(2)));
  EXPECT_EQ(0, model_.add(2, some(2)));
  EXPECT_EQ(2, addDocument(4, some(2)));
  erase({-1, 1, 4});  // 1 and the root are saved, 4 is pending
  close();
}

TEST_F(Index, ACapacityOfNoneNeverSavesBeforeTheEnd) {
  configure("max_fid_num = 0\n");
  model_ = IndexModel(0);
  open();
  for (int64_t file_id = 1; file_id <= 40; ++file_id) add(file_id, some(1));
  for (int64_t file_id = 1; file_id <= 40; ++file_id) {
    EXPECT_EQ(2, addDocument(file_id, some(2))) << file_id;
  }
  close();
}

TEST_F(Index, ALimitOfNoneRefusesEveryAddition) {
  configure();
  open();
  EXPECT_EQ(0, setMaxStblSize(0));
  EXPECT_EQ(1, addDocument(1, some(1)));
  EXPECT_EQ(0, setMaxStblSize(1));
  add(1, some(1));
  EXPECT_EQ(0, setMaxStblSize(0));
  close();
}

TEST_F(Index, ATableOfTheLimitsSizeRefusesAdditions) {
  configure();
  open();
  dir_.write("sig_index_DB/sig_table.stbl", std::string(100, 'x'));
  EXPECT_EQ(0, setMaxStblSize(100));
  EXPECT_EQ(1, addDocument(1, some(1)));
  EXPECT_EQ(0, setMaxStblSize(99));
  EXPECT_EQ(1, addDocument(1, some(1)));
  EXPECT_EQ(0, setMaxStblSize(101));
  add(1, some(1));
  EXPECT_EQ(0, setMaxStblSize(0xffffffffu));
  add(2, some(1));
  close();
}

TEST_F(Index, LargeTreesGiveTheSameTables) {
  configure("max_fid_num = 20\n");
  model_ = IndexModel(80);
  open();
  for (int64_t file_id = 0; file_id < 300; ++file_id) {
    add(file_id * 977 - 100000, some(static_cast<uint64_t>(file_id % 280), 100));
  }
  close();
  open();
  for (int64_t file_id = 0; file_id < 300; ++file_id) {
    if (file_id % 7 != 0) erase({file_id * 977 - 100000});
  }
  close();
  open();
  for (int64_t file_id = 0; file_id < 100; ++file_id) {
    add(file_id, some(static_cast<uint64_t>(file_id + 1000), 100));
  }
  close();
}

// Sessions of a careless host: file IDs from a small pool, so that additions,
// re-additions and deletions meet.
TEST_F(Index, RandomSessionsEqualTheTwin) {
  const uint64_t seed = documents::seed(20250301);
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  documents::Random random(seed);
  const uint64_t max_fid_num = random.below(6);
  configure("max_fid_num = " + std::to_string(max_fid_num) + "\n");
  model_ = IndexModel(4 * max_fid_num);
  const Signatures pool = documents::signatures(300, seed, 40);
  const auto file_id = [&] {
    const int64_t near = static_cast<int64_t>(random.below(60)) - 20;
    if (random.oneIn(30)) return near + kTwoTo31 - 20;
    if (random.oneIn(30)) return near - kTwoTo31;
    return near;
  };
  for (int session = 0; session < 8 && !HasFailure(); ++session) {
    open();
    for (uint64_t call = 0, calls = random.below(60); call < calls; ++call) {
      if (random.oneIn(4)) {
        std::vector<int64_t> file_ids(1 + random.below(5));
        for (int64_t& each : file_ids) each = file_id();
        erase(file_ids);
      } else {
        Signatures list(1 + random.below(12));
        for (Signature& each : list) each = pool[random.below(pool.size())];
        add(file_id(), list);
      }
    }
    close();
  }
}

TEST_F(Index, ExitSaysNothingOfTablesThatCannotBeWritten) {
  configure();
  open();
  close();
  for (const char* suffix : {".wtbl", ".stbl", ".wmeta", ".smeta"}) {
    SCOPED_TRACE(suffix);
    const std::string path = std::string("sig_index_DB/search_table") + suffix;
    open();
    fs::remove(path);
    dir_.makeDirectory(path);
    EXPECT_EQ(0, ExitIndexSystem());
    EXPECT_EQ(1, InitMatchSystem());
    fs::remove(path);
    model_.close();
    open();
    close();
  }
}

}  // namespace
