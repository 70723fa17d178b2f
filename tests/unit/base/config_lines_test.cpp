// Reading and rewriting the lines of the configuration file.
#include "config_lines.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "documents.h"
#include "fail_point.h"
#include "temp_dir.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

namespace {

namespace fs = std::filesystem;

using tessera::ConfigValue;
using tessera::readConfigValue;
using tessera::writeConfigValues;

const char* const kFile = "index_sys_config.txt";

std::string trimmed(std::string text) {
  tessera::trim(&text);
  return text;
}

TEST(Trim, RemovesBlanksTabsAndLineEndsOnBothSides) {
  EXPECT_EQ("a b", trimmed(" \t\r\na b\n\r\t "));
  EXPECT_EQ("a", trimmed("a"));
  EXPECT_EQ("a \t b", trimmed("a \t b"));
}

TEST(Trim, AnAllBlankTextBecomesEmpty) {
  EXPECT_EQ("", trimmed(" \n\r\t"));
  EXPECT_EQ("", trimmed(""));
}

TEST(Trim, OtherWhiteSpaceStays) {
  EXPECT_EQ("\va\f", trimmed("\va\f"));
  EXPECT_EQ(std::string("\0a\0", 3), trimmed(std::string("\0a\0", 3)));
}

class ConfigValueTest : public testing::Test {
 protected:
  std::string valueIn(const std::string& content, const char* key = "max_content_size") {
    dir_.write(kFile, content);
    std::string value = "left over";
    readConfigValue(kFile, key, &value);
    return value;
  }

  TempDir dir_;
};

TEST_F(ConfigValueTest, ALineWithBlanksAndAnotherCaseIsFound) {
  EXPECT_EQ("2000000", valueIn("Max_Content_Size \t = \t 2000000\r\n"));
  EXPECT_EQ("2000000", valueIn(" MAX_CONTENT_SIZE = 2000000 "));
}

TEST_F(ConfigValueTest, KeyAndValuePartAtTheFirstEqualsSign) {
  EXPECT_EQ("b=c", valueIn("a=b=c\n", "a"));
  EXPECT_EQ("=", valueIn("a==\n", "a"));
}

TEST_F(ConfigValueTest, TheFirstMatchingLineWins) {
  EXPECT_EQ("1", valueIn("x=0\nkey=1\nKEY=2\n", "key"));
  EXPECT_EQ("", valueIn("key=\nkey=2\n", "key"));
}

TEST_F(ConfigValueTest, LinesWithoutAnEqualsSignAreSkipped) {
  EXPECT_EQ("3", valueIn("key\nkey 3\n\nkey=3\n", "key"));
}

TEST_F(ConfigValueTest, TheLastLineNeedsNoLineFeed) {
  EXPECT_EQ("3", valueIn("x=1\nkey=3", "key"));
}

TEST_F(ConfigValueTest, KeysMatchAsAWhole) {
  EXPECT_EQ("", valueIn("keys=1\nke=2\n", "key"));
  EXPECT_EQ("", valueIn("my key=1\n", "key"));
}

TEST_F(ConfigValueTest, AnAbsentKeyGivesNoValue) {
  EXPECT_EQ("", valueIn("x=1\n"));
  EXPECT_EQ("", valueIn(""));
}

TEST_F(ConfigValueTest, AMissingFileGivesNoValue) {
  std::string value = "left over";
  readConfigValue("nowhere.txt", "key", &value);
  EXPECT_EQ("", value);
  EXPECT_FALSE(dir_.exists("nowhere.txt"));
}

TEST_F(ConfigValueTest, AFileThatCannotBeReadGivesNoValue) {
  dir_.write(kFile, "key=1\n");
  FailPoint point;
  for (const Call call : {Call::kOpen, Call::kRead}) {
    point.fail(call, 1);
    std::string value = "left over";
    readConfigValue(kFile, "key", &value);
    EXPECT_EQ("", value);
  }
}

TEST_F(ConfigValueTest, LongFilesAndLongLinesAreReadWhole) {
  const std::string filler(5000, 'x');
  EXPECT_EQ("7", valueIn(filler + "\n" + filler + "=1\nkey=7\n", "key"));
  EXPECT_EQ(filler, valueIn("key=" + filler + "\n", "key"));
}

class ConfigWriter : public testing::Test {
 protected:
  std::string rewritten(const std::string& content, const std::vector<ConfigValue>& values) {
    dir_.write(kFile, content);
    EXPECT_EQ(0, writeConfigValues(kFile, values));
    return dir_.read(kFile);
  }

  TempDir dir_;
};

TEST_F(ConfigWriter, AMatchingLineIsReplacedInItsPlace) {
  EXPECT_EQ("x=1\nmax_content_size=6291456\n",
            rewritten("x=1\nmax_content_size=5", {{"max_content_size", "6291456"}}));
  EXPECT_EQ("key=2\nx=1\n", rewritten("key=1\nx=1\n", {{"key", "2"}}));
}

TEST_F(ConfigWriter, AnEmptyFileGetsTheLine) {
  EXPECT_EQ("max_content_size=6291456\n", rewritten("", {{"max_content_size", "6291456"}}));
}

TEST_F(ConfigWriter, AMissingFileIsCreated) {
  EXPECT_EQ(0, writeConfigValues(kFile, {{"key", "2"}}));
  EXPECT_EQ("key=2\n", dir_.read(kFile));
}

TEST_F(ConfigWriter, AReplacedLineKeepsItsOwnSpellingOfTheKey) {
  EXPECT_EQ("MAX_content=7\n", rewritten(" \tMAX_content = 5 \r\n", {{"max_content", "7"}}));
}

TEST_F(ConfigWriter, EveryMatchingLineIsReplaced) {
  EXPECT_EQ("key=9\nx=1\nKey=9\n", rewritten("key=1\nx=1\nKey=2\n", {{"key", "9"}}));
}

TEST_F(ConfigWriter, OtherLinesStayAsTheyAre) {
  const std::string others = "# comment\n\n  y = 3 \r\nno sign\n\t\n";
  EXPECT_EQ(others + "key=9\n", rewritten(others, {{"key", "9"}}));
}

TEST_F(ConfigWriter, ALastLineWithoutALineFeedGetsOne) {
  EXPECT_EQ("x=1\nkey=9\n", rewritten("x=1", {{"key", "9"}}));
}

TEST_F(ConfigWriter, LinesEndWithASingleLineFeedOnEverySystem) {
  EXPECT_EQ(std::string::npos, rewritten("a=1\n", {{"key", "9"}}).find('\r'));
}

TEST_F(ConfigWriter, PairsWithoutALineFollowInTheOrderOfTheList) {
  EXPECT_EQ("b=2\nc=3\na=1\n", rewritten("b=0\n", {{"c", "3"}, {"b", "2"}, {"a", "1"}}));
}

TEST_F(ConfigWriter, TheFirstOfTwoPairsForOneLineIsTaken) {
  EXPECT_EQ("key=1\nKEY=2\n", rewritten("key=0\n", {{"key", "1"}, {"KEY", "2"}}));
}

TEST_F(ConfigWriter, NoPairsKeepTheFile) { EXPECT_EQ("a=1\nb\n", rewritten("a=1\nb", {})); }

// Whatever file was read, one file is written.
TEST_F(ConfigWriter, TheConfigurationFileIsWrittenWhateverFileWasRead) {
  dir_.write("other.txt", "x=1\nkey=1\n");
  dir_.write(kFile, "y=1\n");
  EXPECT_EQ(0, writeConfigValues("other.txt", {{"key", "2"}}));
  EXPECT_EQ("x=1\nkey=1\n", dir_.read("other.txt"));
  EXPECT_EQ("x=1\nkey=2\n", dir_.read(kFile));
}

TEST_F(ConfigWriter, WithoutMemoryNothingIsWritten) {
  dir_.write(kFile, "key=1\n");
  FailPoint point;
  point.fail(Call::kAllocate, 1);
  EXPECT_EQ(1, writeConfigValues(kFile, {{"key", "2"}}));
  EXPECT_EQ("key=1\n", dir_.read(kFile));
}

TEST_F(ConfigWriter, WhatCannotBeReadIsNotOverwritten) {
  dir_.write(kFile, "key=1\nx=5\n");
  FailPoint point;
  point.fail(Call::kRead, 1);
  EXPECT_EQ(0, writeConfigValues(kFile, {{"key", "2"}}));
  EXPECT_TRUE(point.failed());
  EXPECT_EQ("key=1\nx=5\n", dir_.read(kFile));
}

TEST_F(ConfigWriter, WhatWasWrittenIsReadBack) {
  const uint64_t seed = documents::seed(3);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  documents::Random random(seed);
  for (int run = 0; run < 50; ++run) {
    std::string content;
    for (uint64_t i = random.below(200); i > 0; --i) content += "ab= \n\r\tK"[random.below(8)];
    const std::string value = std::to_string(random.next());
    rewritten(content, {{"k", value}});
    std::string found;
    readConfigValue(kFile, "K", &found);
    EXPECT_EQ(value, found) << content;
  }
}

// ---- Replacing the file ----

const std::string kOld = "x=5\nkey=1\n";
const std::string kNew = "x=5\nkey=2\n";

const std::set<Call> kFileCalls = {
    Call::kOpen,     Call::kSeek,          Call::kRead,      Call::kWrite,       Call::kSize,
    Call::kTruncate, Call::kSync,          Call::kFinalPath, Call::kCopyRights,  Call::kRemove,
    Call::kRename,   Call::kSyncDirectory, Call::kAccess,    Call::kToNativePath};

class ConfigReplacement : public testing::Test {
 protected:
  ConfigReplacement() { dir_.write(kFile, kOld); }

  void rewrite() { EXPECT_EQ(0, writeConfigValues(kFile, {{"key", "2"}})); }

  static std::set<std::string> filesIn(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  void expectAlone(const std::string& content) {
    EXPECT_EQ(content, dir_.read(kFile));
    EXPECT_EQ(std::set<std::string>{kFile}, filesIn("."));
  }

  TempDir dir_;
  FailPoint point_;
};

// From the n-th call on nothing reaches the system any more, as after a kill:
// also a write gets no further than its half.
TEST_F(ConfigReplacement, AKillAtAnyCallLeavesTheOldLinesOrTheNewOnes) {
  std::set<std::string> seen;
  for (int n = 1;; ++n) {
    SCOPED_TRACE(n);
    dir_.write(kFile, kOld);
    fs::remove(std::string(kFile) + ".tmp0");
    point_.failAny(kFileCalls, n, /*lasting=*/true);
    rewrite();
    const bool killed = point_.failed();
    const std::string content = dir_.read(kFile);
    EXPECT_TRUE(content == kOld || content == kNew) << content;
    seen.insert(content);
    if (!killed) break;
    point_.failAny({}, 0);
    rewrite();  // what the killed writer has left behind is in nobody's way
    EXPECT_EQ(kNew, dir_.read(kFile));
    fs::remove(std::string(kFile) + ".tmp1");
  }
  EXPECT_EQ((std::set<std::string>{kOld, kNew}), seen);
}

TEST_F(ConfigReplacement, AnyCallMayFailOnce) {
  std::set<std::string> seen;
  for (int n = 1;; ++n) {
    SCOPED_TRACE(n);
    dir_.write(kFile, kOld);
    point_.failAny(kFileCalls, n);
    rewrite();
    const bool failed = point_.failed();
    const std::string content = dir_.read(kFile);
    EXPECT_TRUE(content == kOld || content == kNew) << content;
    EXPECT_EQ(std::set<std::string>{kFile}, filesIn("."));
    seen.insert(content);
    if (!failed) break;
  }
  EXPECT_EQ((std::set<std::string>{kOld, kNew}), seen);
}

TEST_F(ConfigReplacement, TheNewLinesAreOnTheDiskBeforeTheyBearTheName) {
  point_.note();
  point_.failAny({Call::kOpen, Call::kWrite, Call::kTruncate, Call::kSync, Call::kCopyRights,
                  Call::kRename, Call::kRemove, Call::kSyncDirectory},
                 0);
  rewrite();
  const std::string file = kFile;
  EXPECT_EQ(
      (std::vector<std::string>{"open " + file, "open " + file + ".tmp0", "copy rights " + file,
                                "write " + file + ".tmp0", "sync " + file + ".tmp0",
                                "rename " + file + ".tmp0", "sync directory ."}),
      point_.watched());
  expectAlone(kNew);
}

TEST_F(ConfigReplacement, AFullDiskKeepsTheOldLines) {
  for (const Call call : {Call::kWrite, Call::kSync}) {
    point_.fail(call, 1, /*lasting=*/true);
    rewrite();
    EXPECT_TRUE(point_.failed());
    expectAlone(kOld);
  }
}

TEST_F(ConfigReplacement, WhereNoFileCanTakeItsPlaceItIsRewrittenAsItIs) {
  const struct {
    Call call;
    const char* path_part;
  } cases[] = {{Call::kOpen, ".tmp"}, {Call::kCopyRights, ""}, {Call::kRename, ""}};
  for (const auto& [call, path_part] : cases) {
    dir_.write(kFile, kOld + "longer=than the new lines");
    point_.fail(call, 1, /*lasting=*/true, path_part);
    rewrite();
    EXPECT_TRUE(point_.failed());
    expectAlone("x=5\nkey=2\nlonger=than the new lines\n");
  }
  point_.note();
  point_.failAny({Call::kRename, Call::kSync}, 2);
  dir_.write(kFile, kOld);
  rewrite();
  EXPECT_EQ("sync " + std::string(kFile), point_.watched().back());
}

TEST_F(ConfigReplacement, AFailedWriteIsNotTold) {
  point_.failAny({Call::kOpen}, 2, /*lasting=*/true);
  rewrite();
  EXPECT_TRUE(point_.failed());
  expectAlone(kOld);
}

// Somebody else's file, perhaps one that a killed writer has left.
TEST_F(ConfigReplacement, FilesBesideItAreLeftAlone) {
  for (int i = 0; i < 10; ++i) {
    const std::string name = std::string(kFile) + ".tmp" + std::to_string(i);
    dir_.write(name, "somebody's");
    dir_.write(kFile, kOld);
    rewrite();
    EXPECT_EQ(kNew, dir_.read(kFile));
    EXPECT_EQ("somebody's", dir_.read(name));
    EXPECT_EQ(static_cast<size_t>(i) + 2, filesIn(".").size());
  }
}

TEST_F(ConfigReplacement, ADirectoryIsNoConfigurationAndStays) {
  fs::remove(kFile);
  dir_.makeDirectory(kFile);
  rewrite();
  EXPECT_TRUE(fs::is_directory(kFile));
  EXPECT_EQ(std::set<std::string>{kFile}, filesIn("."));
}

#ifndef _WIN32
mode_t modeOf(const char* name) {
  struct stat status = {};
  EXPECT_EQ(0, ::lstat(name, &status));
  return status.st_mode & 07777;
}

TEST_F(ConfigReplacement, ItsModeSurvivesAndANewFileIsItsOwnersAlone) {
  for (const mode_t mode : {0644, 0640, 0600, 0666}) {
    ASSERT_EQ(0, ::chmod(kFile, mode));
    rewrite();
    EXPECT_EQ(mode, modeOf(kFile));
  }
  fs::remove(kFile);
  rewrite();
  EXPECT_EQ(0600u, modeOf(kFile));
}

class LinkedConfiguration : public ConfigReplacement {
 protected:
  LinkedConfiguration() {
    fs::remove(kFile);
    dir_.makeDirectory("a");
    dir_.makeDirectory("a/b");
    dir_.write("a/b/shared.txt", kOld);
    fs::create_symlink("a/link", kFile);
    fs::create_symlink("b/shared.txt", "a/link");
  }

  void expectLinksStand() {
    EXPECT_EQ("a/link", fs::read_symlink(kFile));
    EXPECT_EQ("b/shared.txt", fs::read_symlink("a/link"));
  }
};

TEST_F(LinkedConfiguration, IsRead) {
  std::string value;
  readConfigValue(kFile, "key", &value);
  EXPECT_EQ("1", value);
}

TEST_F(LinkedConfiguration, IsReplacedWhereItLiesAndTheLinksStay) {
  point_.note();
  point_.failAny({Call::kSync, Call::kRename, Call::kSyncDirectory}, 0);
  rewrite();
  expectLinksStand();
  EXPECT_EQ(kNew, dir_.read("a/b/shared.txt"));
  EXPECT_EQ(std::set<std::string>{"shared.txt"}, filesIn("a/b"));
  EXPECT_EQ((std::vector<std::string>{"sync a/b/shared.txt.tmp0", "rename a/b/shared.txt.tmp0",
                                      "sync directory a/b/"}),
            point_.watched());
}

TEST_F(LinkedConfiguration, IsRewrittenInPlaceWhereItLies) {
  point_.fail(Call::kRename, 1);
  rewrite();
  expectLinksStand();
  EXPECT_EQ(kNew, dir_.read("a/b/shared.txt"));
}

TEST_F(LinkedConfiguration, IsMadeWhereTheLinksLead) {
  fs::remove("a/b/shared.txt");
  rewrite();
  expectLinksStand();
  EXPECT_EQ("key=2\n", dir_.read("a/b/shared.txt"));
}

TEST_F(LinkedConfiguration, IsNothingWhereTheLinksGoInACircle) {
  fs::remove("a/link");
  fs::create_symlink("../" + std::string(kFile), "a/link");
  std::string value = "left over";
  readConfigValue(kFile, "key", &value);
  EXPECT_EQ("", value);
  rewrite();
  EXPECT_EQ("a/link", fs::read_symlink(kFile));
}

TEST_F(LinkedConfiguration, APipeOrADeviceBehindTheLinksIsNotReplaced) {
  fs::remove("a/b/shared.txt");
  ASSERT_EQ(0, ::mkfifo("a/b/shared.txt", 0600));
  rewrite();
  EXPECT_TRUE(fs::is_fifo("a/b/shared.txt"));
  // Not even when other lines are read.
  dir_.write("other.txt", kOld);
  EXPECT_EQ(0, writeConfigValues("other.txt", {{"key", "2"}}));
  EXPECT_TRUE(fs::is_fifo("a/b/shared.txt"));
  EXPECT_EQ(std::set<std::string>{"shared.txt"}, filesIn("a/b"));
}
#endif

}  // namespace
