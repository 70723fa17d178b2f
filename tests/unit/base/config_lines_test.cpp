// Reading and rewriting the lines of the configuration file.
#include "config_lines.h"

#include <gtest/gtest.h>

#include <string>

#include "documents.h"
#include "fail_point.h"
#include "temp_dir.h"

namespace {

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

TEST_F(ConfigWriter, AFailedWriteIsNotTold) {
  FailPoint point;
  point.failAny({Call::kOpen}, 2);
  dir_.write(kFile, "key=1\n");
  EXPECT_EQ(0, writeConfigValues(kFile, {{"key", "2"}}));
  EXPECT_TRUE(point.failed());
  point.fail(Call::kWrite, 1);
  EXPECT_EQ(0, writeConfigValues(kFile, {{"key", "2"}}));
  EXPECT_TRUE(point.failed());
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

}  // namespace
