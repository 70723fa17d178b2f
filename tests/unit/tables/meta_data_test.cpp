// The meta data record and its file.
#include "meta_data.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "fail_point.h"
#include "log_capture.h"
#include "status.h"
#include "temp_dir.h"

namespace {

using dlp_btree::load_meta_data;
using dlp_btree::save_meta_data;

const std::string kRecord("\xfe\xff\xff\xff\xff\xff\xff\xff\x03\x02\x01\x80", 12);
constexpr MetaData kMeta = {-2, 0x80010203};

class MetaDataFile : public testing::Test {
 protected:
  int load() { return load_meta_data(dir_.path(), kMetaDataFileName, &meta_); }
  int save() { return save_meta_data(dir_.path(), kMetaDataFileName, kMeta); }

  void expectUntouched() {
    EXPECT_EQ(42, meta_.fid_base);
    EXPECT_EQ(3u, meta_.sig_gen_level);
  }

  // `text` is the last line, at level 3.
  void expectLogged(const std::string& text, size_t lines = 1) {
    const auto logged = log_.lines();
    ASSERT_EQ(lines, logged.size());
    EXPECT_EQ(3, logged.back().level);
    EXPECT_EQ("Error", logged.back().word);
    EXPECT_EQ("fpe_sig_index", logged.back().tag);
    EXPECT_EQ(text, logged.back().text);
  }

  TempDir dir_;
  LogCapture log_;
  MetaData meta_ = {42, 3};
};

TEST_F(MetaDataFile, TheRecordIsTwelveLittleEndianBytes) {
  unsigned char record[kMetaDataBytes];
  encodeMetaData(kMeta, &record);
  EXPECT_EQ(kRecord, std::string(reinterpret_cast<char*>(record), sizeof record));
  const MetaData back = decodeMetaData(record);
  EXPECT_EQ(kMeta.fid_base, back.fid_base);
  EXPECT_EQ(kMeta.sig_gen_level, back.sig_gen_level);
}

TEST_F(MetaDataFile, WhatIsSavedIsTheRecordAndNothingElse) {
  dir_.write(kMetaDataFileName, std::string(100, 'x'));
  EXPECT_EQ(kOk, save());
  EXPECT_EQ(kRecord, dir_.read(kMetaDataFileName));
  EXPECT_EQ(kOk, load());
  EXPECT_EQ(kMeta.fid_base, meta_.fid_base);
  EXPECT_EQ(kMeta.sig_gen_level, meta_.sig_gen_level);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(MetaDataFile, ADirectoryMayEndInASeparator) {
  EXPECT_EQ(kOk, save_meta_data(dir_.path() + "/", "a.bin", kMeta));
  EXPECT_EQ(kRecord, dir_.read("a.bin"));
  EXPECT_EQ(kOk, load_meta_data(dir_.path() + "/", "a.bin", &meta_));
}

TEST_F(MetaDataFile, AMissingFileIsTold) {
  EXPECT_EQ(kErrState, load());
  expectLogged("#<dlp_btree::load_meta_data>#meta data file dosn't exist");
  expectUntouched();
}

TEST_F(MetaDataFile, APathThatCannotBeConvertedDoesNotExist) {
  dir_.write(kMetaDataFileName, kRecord);
  FailPoint point;
  point.fail(Call::kToNativePath, 1);
  EXPECT_EQ(kErrState, load());
  expectLogged("#<dlp_btree::load_meta_data>#meta data file dosn't exist", 2);
  expectUntouched();
}

TEST_F(MetaDataFile, AFileThatCannotBeOpenedIsTold) {
  dir_.write(kMetaDataFileName, kRecord);
  FailPoint point;
  point.fail(Call::kOpen, 1);
  EXPECT_EQ(kErrFile, load());
  expectLogged("#<dlp_btree::load_meta_data>#open meta data file (r) fail");
  expectUntouched();
}

// One byte short of a record is no record: nothing of it may be taken over.
TEST_F(MetaDataFile, ElevenBytesAreRefusedAndLeaveTheRecordAlone) {
  for (const size_t bytes : {0, 1, 8, 11}) {
    log_.clear();
    dir_.write(kMetaDataFileName, std::string(bytes, '\xff'));
    EXPECT_EQ(kErrFile, load());
    expectLogged("#<dlp_btree::load_meta_data>#read meta data file fail");
    expectUntouched();
  }
}

TEST_F(MetaDataFile, AReadErrorIsToldLikeAShortFile) {
  dir_.write(kMetaDataFileName, kRecord);
  FailPoint point;
  point.fail(Call::kRead, 1);
  EXPECT_EQ(kErrFile, load());
  expectLogged("#<dlp_btree::load_meta_data>#read meta data file fail");
  expectUntouched();
}

TEST_F(MetaDataFile, OfALongerFileTheFirstTwelveBytesCount) {
  dir_.write(kMetaDataFileName, kRecord + "more");
  EXPECT_EQ(kOk, load());
  EXPECT_EQ(kMeta.fid_base, meta_.fid_base);
}

TEST_F(MetaDataFile, AFailureToSaveIsToldAndNoFailure) {
  FailPoint point;
  point.fail(Call::kOpen, 1);
  EXPECT_EQ(kOk, save());
  expectLogged("#<dlp_btree::save_meta_data>#open meta data file (w) fail");
  for (const Call call : {Call::kWrite, Call::kTruncate, Call::kSync, Call::kSyncDirectory}) {
    log_.clear();
    point.fail(call, 1);
    EXPECT_EQ(kOk, save());
    EXPECT_TRUE(point.failed());
    expectLogged("#<dlp_btree::save_meta_data>#write meta data file fail");
  }
}

// Nothing before the new record is on the disk cuts the old one, and both the
// record and the file's name are there when the call returns.
TEST_F(MetaDataFile, IsWrittenOverTheOldRecordAndSynced) {
  FailPoint point;
  point.note();
  point.failAny({Call::kOpen, Call::kWrite, Call::kTruncate, Call::kSync, Call::kSyncDirectory}, 0);
  EXPECT_EQ(kOk, save_meta_data("db", kMetaDataFileName, kMeta));
  EXPECT_EQ(std::vector<std::string>{"open db/meta_data.bin"}, point.watched());
  dir_.makeDirectory("db");
  point.failAny({Call::kOpen, Call::kWrite, Call::kTruncate, Call::kSync, Call::kSyncDirectory}, 0);
  EXPECT_EQ(kOk, save_meta_data("db", kMetaDataFileName, kMeta));
  EXPECT_EQ((std::vector<std::string>{"open db/meta_data.bin", "write db/meta_data.bin",
                                      "truncate db/meta_data.bin", "sync db/meta_data.bin",
                                      "sync directory db/"}),
            point.watched());
}

// A record so small is written as one; that FailPoint leaves half of it shows
// that the old one was there until then.
TEST_F(MetaDataFile, AKillAtAnyCallLeavesTheOldRecordOrTheNewOne) {
  const std::string old = std::string(12, 'o') + "more";
  const std::string half = kRecord.substr(0, 6) + old.substr(6);
  for (int n = 1;; ++n) {
    dir_.write(kMetaDataFileName, old);
    FailPoint point;
    point.failAny({Call::kOpen, Call::kWrite, Call::kTruncate, Call::kSync, Call::kSyncDirectory},
                  n, /*lasting=*/true);
    EXPECT_EQ(kOk, save());
    const std::string content = dir_.read(kMetaDataFileName);
    EXPECT_TRUE(content == old || content == half || content.substr(0, 12) == kRecord)
        << n << ": " << testing::PrintToString(content);
    if (!point.failed()) break;
  }
  EXPECT_EQ(kRecord, dir_.read(kMetaDataFileName));
}

#ifndef _WIN32
TEST_F(MetaDataFile, ALinkInItsPlaceIsNeitherReadNorWritten) {
  dir_.write("elsewhere", kRecord);
  std::filesystem::create_symlink("elsewhere", kMetaDataFileName);
  EXPECT_EQ(kErrFile, load());
  expectLogged("#<dlp_btree::load_meta_data>#open meta data file (r) fail");
  expectUntouched();
  dir_.write("elsewhere", "other");
  EXPECT_EQ(kOk, save());
  expectLogged("#<dlp_btree::save_meta_data>#open meta data file (w) fail", 2);
  EXPECT_EQ("other", dir_.read("elsewhere"));
}
#endif

}  // namespace
