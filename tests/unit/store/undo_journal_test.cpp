#include "undo_journal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "crc32c.h"
#include "fail_point.h"
#include "little_endian.h"
#include "store_records.h"
#include "temp_dir.h"

namespace {

using Records = std::vector<std::tuple<uint32_t, uint64_t, std::string>>;
using State = UndoJournal::State;

class UndoJournalTest : public testing::Test {
 protected:
  UndoJournalTest() {
    begin_.block_size = 1024;
    begin_.lengths = {4000, 0, 3000, 0, 0, 0, 0, 0, 0, 0, 0, 500};
    dir_.write("source", std::string(1000, 'a') + std::string(3000, 'b'));
    source_ = platform::current().open("source", platform::OpenMode::kRead);
  }

  bool append(UndoJournal* journal, uint32_t file, uint64_t offset, size_t bytes) {
    return journal->append(source_.get(), file, offset, bytes);
  }

  // A journal of two synced batches of records and one that is not, left as it is.
  void make() {
    UndoJournal journal("j");
    ASSERT_TRUE(journal.start(begin_));
    ASSERT_TRUE(append(&journal, 0, 900, 200));
    ASSERT_TRUE(append(&journal, 2, 0, 13));
    ASSERT_TRUE(journal.sync());
    ASSERT_TRUE(append(&journal, 11, 499, 1));
    ASSERT_TRUE(journal.sync());
    ASSERT_TRUE(append(&journal, 0, 1000, 3000));
  }
  static Records made() {
    return {{0, 900, std::string(100, 'a') + std::string(100, 'b')},
            {2, 0, std::string(13, 'a')},
            {11, 499, "a"},
            {0, 1000, std::string(3000, 'b')}};
  }

  static State open(bool read_only = false) {
    BatchBegin begin;
    return UndoJournal("j").open(read_only, &begin);
  }

  // What a recovery would restore.
  Records records() {
    UndoJournal journal("j");
    BatchBegin begin;
    EXPECT_EQ(State::kBatch, journal.open(false, &begin));
    EXPECT_EQ(begin_.block_size, begin.block_size);
    EXPECT_EQ(begin_.lengths, begin.lengths);
    Records found;
    EXPECT_TRUE(journal.replay(begin, [&](uint32_t file, uint64_t offset, const void* old,
                                          size_t bytes) {
      found.emplace_back(file, offset, std::string(static_cast<const char*>(old), bytes));
      return true;
    }));
    return found;
  }

  // The same bytes with a fitting CRC in page 0.
  static void seal(std::string* file) {
    auto* const bytes = reinterpret_cast<unsigned char*>(file->data());
    storeLittle32(bytes + 24, 0);
    storeLittle32(bytes + 24, crc32c(bytes, 4096));
  }

  TempDir dir_;
  FailPoint system_;
  BatchBegin begin_;
  std::unique_ptr<platform::File> source_;
};

TEST_F(UndoJournalTest, PageZeroTellsHowTheFilesStood) {
  {
    UndoJournal journal("j");
    ASSERT_TRUE(journal.start(begin_));
  }
  const std::string file = dir_.read("j");
  ASSERT_EQ(4096u, file.size());
  const auto* const bytes = reinterpret_cast<const unsigned char*>(file.data());
  EXPECT_EQ("UNDO", file.substr(0, 4));
  EXPECT_EQ(1u, loadLittle32(bytes + 4));
  EXPECT_EQ(1024u, loadLittle64(bytes + 16));
  for (size_t i = 0; i < 12; ++i) {
    EXPECT_EQ(begin_.lengths[i] != 0 ? 1u : 0u, loadLittle64(bytes + 32 + 16 * i)) << i;
    EXPECT_EQ(begin_.lengths[i], loadLittle64(bytes + 40 + 16 * i)) << i;
  }
  EXPECT_EQ(std::string(4096 - 224, '\0'), file.substr(224));
}

TEST_F(UndoJournalTest, RecordsAreGivenBackInTheirOrder) {
  make();
  EXPECT_EQ(made(), records());
}

TEST_F(UndoJournalTest, AfterASyncTheNextRecordBeginsAPage) {
  make();
  const std::string file = dir_.read("j");
  for (const size_t at : {size_t{4096}, size_t{4096 + 232}, size_t{8192}, size_t{12288}}) {
    EXPECT_EQ("OLDB", file.substr(at, 4)) << at;
  }
  EXPECT_EQ(size_t{12288 + 32 + 3000}, file.size());
}

TEST_F(UndoJournalTest, ASyncWithoutANewRecordIsNone) {
  UndoJournal journal("j");
  ASSERT_TRUE(journal.start(begin_));
  ASSERT_TRUE(journal.sync());
  system_.fail(Call::kSync, 1);
  EXPECT_TRUE(journal.sync());
  ASSERT_TRUE(append(&journal, 0, 0, 8));
  EXPECT_FALSE(journal.sync());
}

TEST_F(UndoJournalTest, AMissingEmptyClearedOrDamagedPageZeroIsNoBatch) {
  EXPECT_EQ(State::kIdle, open(/*read_only=*/true));
  EXPECT_FALSE(dir_.exists("j"));
  EXPECT_EQ(State::kIdle, open());
  EXPECT_EQ("", dir_.read("j")) << "made by the opening";
  make();
  const std::string good = dir_.read("j");
  EXPECT_EQ(State::kBatch, open());
  EXPECT_EQ(State::kBatch, open(/*read_only=*/true));
  for (const size_t length : {size_t{1}, size_t{4095}}) {
    dir_.write("j", good.substr(0, length));
    EXPECT_EQ(State::kIdle, open());
  }
  for (size_t bit = 0; bit < 4096 * 8; bit += bit < 300 * 8 ? 1 : 61) {
    std::string bad = good;
    bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ 1 << bit % 8);
    overwrite("j", bad);
    ASSERT_EQ(State::kIdle, open()) << "bit " << bit;
  }
  overwrite("j", good);
  {
    UndoJournal journal("j");
    BatchBegin begin;
    ASSERT_EQ(State::kBatch, journal.open(false, &begin));
    EXPECT_TRUE(journal.started());
    system_.fail(Call::kSync, 1);
    EXPECT_FALSE(journal.clear());
    EXPECT_TRUE(journal.started()) << "until the zeros are on disk";
    EXPECT_TRUE(journal.clear());
    EXPECT_FALSE(journal.started());
  }
  EXPECT_EQ(State::kIdle, open());
  EXPECT_EQ(std::string(4096, '\0'), dir_.read("j").substr(0, 4096));
}

// What cannot be understood must not be thrown away.
TEST_F(UndoJournalTest, AWholePageOfAnotherVersionIsUnreadable) {
  make();
  std::string file = dir_.read("j");
  file[4] = 2;
  seal(&file);
  dir_.write("j", file);
  EXPECT_EQ(State::kUnreadable, open());
}

TEST_F(UndoJournalTest, AJournalThatCannotBeReadIsUnreadableAndNotIdle) {
  make();
  for (const Call call : {Call::kOpen, Call::kSize, Call::kRead, Call::kSeek}) {
    for (const bool read_only : {false, true}) {
      system_.fail(call, 1);
      EXPECT_EQ(State::kUnreadable, open(read_only)) << static_cast<int>(call);
      system_.fail(call, 0);
    }
  }
}

TEST_F(UndoJournalTest, TheFirstDamagedRecordOfAPieceEndsIt) {
  make();
  const std::string good = dir_.read("j");
  const size_t starts[] = {4096, 4096 + 232, 8192, 12288};
  const size_t lengths[] = {200, 13, 1, 3000};
  for (size_t r = 0; r < 4; ++r) {
    for (size_t bit = 0; bit < (32 + lengths[r]) * 8; bit += bit < 33 * 8 ? 1 : 97) {
      std::string bad = good;
      const size_t at = starts[r] + bit / 8;
      bad[at] = static_cast<char>(bad[at] ^ 1 << bit % 8);
      overwrite("j", bad);
      const Records found = records();
      ASSERT_LT(found.size(), 4u) << "record " << r << " bit " << bit;
      ASSERT_TRUE(std::equal(found.begin(), found.begin() + std::min(found.size(), r),
                             made().begin()));
      ASSERT_EQ(found.end(), std::find(found.begin(), found.end(), made()[r]));
    }
  }
  for (size_t length = 4096; length < good.size(); length += 211) {
    dir_.write("j", good.substr(0, length));
    const Records found = records();
    ASSERT_LT(found.size(), 4u);
    ASSERT_TRUE(std::equal(found.begin(), found.end(), made().begin())) << length;
  }
}

TEST_F(UndoJournalTest, ARecordOfAnEarlierBatchIsNoneOfThisOne) {
  {
    UndoJournal journal("j");
    ASSERT_TRUE(journal.start(begin_));
    for (int i = 0; i < 3; ++i) {
      ASSERT_TRUE(append(&journal, 0, 900, 200));
      ASSERT_TRUE(journal.sync());  // so that one begins where the new batch may go on
    }
    ASSERT_TRUE(journal.clear());
    ASSERT_TRUE(journal.start(begin_));
    ASSERT_TRUE(append(&journal, 2, 0, 13));
    ASSERT_TRUE(journal.sync());
  }
  EXPECT_EQ((Records{{2, 0, std::string(13, 'a')}}), records());
}

TEST_F(UndoJournalTest, ARecordOutsideOfWhatItsFileWasIsNone) {
  for (const auto& [file, offset, bytes] :
       {std::tuple{0u, 3990u, 11u}, {0u, 4001u, 0u}, {1u, 0u, 1u}, {12u, 0u, 1u}}) {
    {
      UndoJournal journal("j");
      ASSERT_TRUE(journal.start(begin_));
      dir_.write("long", std::string(5000, 'x'));
      const auto source = platform::current().open("long", platform::OpenMode::kRead);
      ASSERT_TRUE(journal.append(source.get(), file, offset, bytes));
    }
    EXPECT_EQ(Records(), records()) << file << " " << offset << " " << bytes;
    std::filesystem::remove("j");
  }
}

// So that no length in a file decides how much memory is taken.
TEST_F(UndoJournalTest, ARecordLongerThanAnyThatIsWrittenIsNone) {
  begin_.lengths[0] = 2 << 20;
  dir_.write("long", std::string(2 << 20, 'x'));
  const auto source = platform::current().open("long", platform::OpenMode::kRead);
  for (const uint64_t bytes : {kLargestRecord, kLargestRecord + 1}) {
    {
      UndoJournal journal("j");
      ASSERT_TRUE(journal.start(begin_));
      ASSERT_TRUE(journal.append(source.get(), 0, 0, bytes));
    }
    EXPECT_EQ(bytes == kLargestRecord ? 1u : 0u, records().size());
    std::filesystem::remove("j");
  }
}

// Records of an earlier opening, whose nonces may come again, must not be there.
TEST_F(UndoJournalTest, AJournalThatCouldNotBeRemovedIsEmptiedBeforeItIsUsedAgain) {
  make();
  {
    UndoJournal journal("j");
    ASSERT_TRUE(journal.start(begin_));
  }
  EXPECT_EQ(4096u, dir_.read("j").size());
  for (const Call call : {Call::kTruncate, Call::kSync}) {
    make();
    system_.fail(call, 1);
    UndoJournal journal("j");
    EXPECT_FALSE(journal.start(begin_));
    EXPECT_TRUE(system_.failed());
    system_.fail(call, 0);
  }
}

// The zeros may find no room that the page did not find.
TEST_F(UndoJournalTest, LessThanAPageIsClearedByCuttingIt) {
  dir_.write("j", std::string(4000, 'x'));
  UndoJournal journal("j");
  BatchBegin begin;
  ASSERT_EQ(State::kIdle, journal.open(false, &begin));
  system_.fail(Call::kWrite, 1, true);
  EXPECT_TRUE(journal.clear());
  EXPECT_EQ("", dir_.read("j"));
}

TEST_F(UndoJournalTest, AFailedRestoreOrReadFailsTheReplay) {
  make();
  UndoJournal journal("j");
  BatchBegin begin;
  ASSERT_EQ(State::kBatch, journal.open(false, &begin));
  int restored = 0;
  EXPECT_FALSE(journal.replay(begin, [&](uint32_t, uint64_t, const void*, size_t) {
    return ++restored < 3;
  }));
  EXPECT_EQ(3, restored);
  for (int n = 1; n <= 8; ++n) {
    system_.fail(Call::kRead, n);
    EXPECT_FALSE(
        journal.replay(begin, [](uint32_t, uint64_t, const void*, size_t) { return true; }));
  }
}

TEST_F(UndoJournalTest, ANewJournalIsNewUntilItIsSynced) {
  UndoJournal journal("j");
  EXPECT_FALSE(journal.isNew());
  ASSERT_TRUE(journal.start(begin_));
  EXPECT_TRUE(journal.isNew());
  ASSERT_TRUE(journal.sync());
  EXPECT_FALSE(journal.isNew());
  ASSERT_TRUE(journal.clear());
  ASSERT_TRUE(journal.start(begin_));
  EXPECT_FALSE(journal.isNew()) << "the file is there already";
  journal.remove();
  EXPECT_FALSE(dir_.exists("j"));
  ASSERT_TRUE(journal.start(begin_));
  EXPECT_TRUE(journal.isNew());
}

}  // namespace
