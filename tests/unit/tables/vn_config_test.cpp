// The configuration record: every form of a line, what it sets, what refuses it.
#include "vn_config.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "fail_point.h"
#include "log_capture.h"
#include "status.h"
#include "temp_dir.h"

namespace {

constexpr char kName[] = "index_sys_config.txt";

class ConfigurationFile : public testing::Test {
 protected:
  // Loads `content` into a fresh record.
  int load(const std::string& content) {
    dir_.write(kName, content);
    configuration_ = IndexSysConfiguration();
    log_.clear();
    return configuration_.Load(kName);
  }

  // The load has failed with `status` and logged `message` and nothing else.
  void expectFailure(int expected, int status, const std::string& message) {
    EXPECT_EQ(expected, status);
    const auto lines = log_.lines();
    ASSERT_EQ(1u, lines.size()) << "for: " << message;
    EXPECT_EQ(3, lines[0].level);
    EXPECT_EQ("Error", lines[0].word);
    EXPECT_EQ("fpe_utility", lines[0].tag);
    EXPECT_EQ("#<IndexSysConfiguration::Load>#" + message, lines[0].text);
  }

  void expectMalformed(const std::string& content, int line) {
    SCOPED_TRACE(testing::PrintToString(content));
    expectFailure(kErrFormat, load(content),
                  "wrong config file format at line " + std::to_string(line));
  }

  void expectLoads(const std::string& content) {
    EXPECT_EQ(kOk, load(content)) << testing::PrintToString(content);
    EXPECT_TRUE(log_.lines().empty()) << testing::PrintToString(content);
  }

  void expectDefaults() {
    const IndexSysConfiguration& c = configuration_;
    EXPECT_EQ(8u, c.sig_length);
    EXPECT_EQ(64u, c.sig_page_size);
    EXPECT_EQ(128u, c.fid_chunk_size);
    EXPECT_EQ(2096u, c.max_fid_num_load);
    EXPECT_EQ(4192u, c.max_fid_num_save);
    EXPECT_EQ(209600u, c.max_sig_num_load);
    EXPECT_EQ(419200u, c.max_sig_num_save);
    EXPECT_EQ(2096u, c.max_fid_num);
    EXPECT_STREQ("fid_index", c.fid_index_fname);
    EXPECT_STREQ("index_list", c.index_list_fname);
    EXPECT_EQ(209600u, c.max_ele_num_load);
    EXPECT_EQ(209600u, c.max_ele_num_save);
    EXPECT_STREQ("search_table", c.search_table_fname);
  }

  TempDir dir_;
  LogCapture log_;
  IndexSysConfiguration configuration_;
};

TEST_F(ConfigurationFile, AFreshRecordHoldsTheDefaults) { expectDefaults(); }

TEST_F(ConfigurationFile, AMissingNameIsRefused) {
  expectFailure(kErrParam, configuration_.Load(nullptr), "invalid config file name");
  log_.clear();
  expectFailure(kErrParam, configuration_.Load(""), "invalid config file name");
}

TEST_F(ConfigurationFile, AMissingFileIsAFailure) {
  expectFailure(kErrFile, configuration_.Load("nowhere.txt"), "open config file nowhere.txt fail");
}

TEST_F(ConfigurationFile, BlankLinesAloneLeaveEveryDefault) {
  for (const char* const content : {"", "\n", "\n\n\n", " \t\r\n", "\b\f\n \f\b\r\t\n", "   "}) {
    expectLoads(content);
    expectDefaults();
  }
}

TEST_F(ConfigurationFile, EveryKeySetsItsOwnFieldAndNoOther) {
  const struct {
    const char* key;
    uint32_t IndexSysConfiguration::*field;
  } numbers[] = {
      {"sig_page_size", &IndexSysConfiguration::sig_page_size},
      {"fid_chunk_size", &IndexSysConfiguration::fid_chunk_size},
      {"max_fid_num", &IndexSysConfiguration::max_fid_num},
      {"max_fid_num_load", &IndexSysConfiguration::max_fid_num_load},
      {"max_fid_num_save", &IndexSysConfiguration::max_fid_num_save},
      {"max_sig_num_load", &IndexSysConfiguration::max_sig_num_load},
      {"max_sig_num_save", &IndexSysConfiguration::max_sig_num_save},
      {"max_ele_num_load", &IndexSysConfiguration::max_ele_num_load},
      {"max_ele_num_save", &IndexSysConfiguration::max_ele_num_save},
  };
  for (const auto& [key, field] : numbers) {
    expectLoads(std::string(key) + "=77\n");
    EXPECT_EQ(77u, configuration_.*field) << key;
    configuration_.*field = IndexSysConfiguration().*field;
    expectDefaults();
  }
  const struct {
    const char* key;
    char (IndexSysConfiguration::*field)[kFileNameSize];
  } names[] = {
      {"fid_index_fname", &IndexSysConfiguration::fid_index_fname},
      {"search_table_fname", &IndexSysConfiguration::search_table_fname},
      {"index_list_fname", &IndexSysConfiguration::index_list_fname},
  };
  for (const auto& [key, field] : names) {
    expectLoads(std::string(key) + "=\"other\"\n");
    EXPECT_STREQ("other", configuration_.*field) << key;
    std::copy_n((IndexSysConfiguration().*field), kFileNameSize, configuration_.*field);
    expectDefaults();
  }
}

TEST_F(ConfigurationFile, AllTwelveKeysMayStandTogether) {
  expectLoads(
      "max_fid_num = 1\nfid_index_fname = \"a\"\nsig_page_size = 2\nfid_chunk_size = 3\n"
      "max_fid_num_load = 4\nmax_fid_num_save = 5\nmax_sig_num_load = 6\nmax_sig_num_save = 7\n"
      "max_ele_num_load = 8\nmax_ele_num_save = 9\nsearch_table_fname = \"b\"\n"
      "index_list_fname = \"c\"\n");
  EXPECT_EQ(1u, configuration_.max_fid_num);
  EXPECT_EQ(9u, configuration_.max_ele_num_save);
  EXPECT_STREQ("a", configuration_.fid_index_fname);
  EXPECT_STREQ("b", configuration_.search_table_fname);
  EXPECT_STREQ("c", configuration_.index_list_fname);
}

TEST_F(ConfigurationFile, BlanksAndTabsMayStandAroundEveryPart) {
  for (const char* const content :
       {"max_fid_num=12\n", "max_fid_num=12", "max_fid_num=12\r\n", " max_fid_num=12\n",
        "\t max_fid_num \t= \t12 \t\n", "max_fid_num =12 \r\n", "max_fid_num= 12 ",
        "\n  \nmax_fid_num=12\n\n"}) {
    expectLoads(content);
    EXPECT_EQ(12u, configuration_.max_fid_num) << testing::PrintToString(content);
  }
  for (const char* const content :
       {"fid_index_fname=\"x\"\n", "fid_index_fname=\"x\"", "fid_index_fname=\"x\"\r\n",
        " \tfid_index_fname\t = \t\"x\" \t\r\n", "fid_index_fname=\"x\"\t"}) {
    expectLoads(content);
    EXPECT_STREQ("x", configuration_.fid_index_fname) << testing::PrintToString(content);
  }
}

TEST_F(ConfigurationFile, OnlyPlainDecimalNumbersAreNumbers) {
  for (const char* const value : {"-1", "+1", "0x10", "12ab", "1.5", "1,000", "12 13", "a", "1\"",
                                  "1\v", "1\f", "1=2", "=1"}) {
    expectMalformed(std::string("max_fid_num=") + value + "\n", 1);
  }
}

TEST_F(ConfigurationFile, AStringNeedsBothQuotesAndNoBlankBetweenThem) {
  for (const char* const value :
       {"\"a b\"", "\"a\tb\"", "\" a\"", "\"\ta\"", "\"a \"", "\"\"", "\"", "\"a", "a\"", "a",
        "\"a\"b", "\"a\"\"b\"", "\"a\" \"b\"", "\"a\"=", "'a'", "\"\"\"", "\"\"a\""}) {
    expectMalformed(std::string("fid_index_fname=") + value + "\n", 1);
  }
}

TEST_F(ConfigurationFile, ALineMayNotStopBeforeItsValueIsComplete) {
  for (const char* const line :
       {"max_fid_num", "max_fid_num ", "max_fid_num=", "max_fid_num= ", "max_fid_num 5",
        "max fid=5", "fid_index_fname=\"", "fid_index_fname=\"a", "= 5", "=5"}) {
    expectMalformed(line, 1);
    expectMalformed(std::string(line) + "\n", 1);
  }
}

TEST_F(ConfigurationFile, ACarriageReturnMustBeFollowedByTheLineFeed) {
  for (const char* const content :
       {"max_fid_num=5\r", "max_fid_num=5 \r", "max_fid_num=5\r\r\n", "max_fid_num=5\r \n",
        "fid_index_fname=\"a\"\r", "max_fid_num=\r\n", "max_fid_num\r\n"}) {
    expectMalformed(content, 1);
  }
}

// A string is made of anything but blanks and quotes, and a key as well.
TEST_F(ConfigurationFile, AnyOtherCharacterMayStandInKeysAndStrings) {
  expectLoads("fid_index_fname=\"a=b#c/d\\e\xe9\"\n");
  EXPECT_STREQ("a=b#c/d\\e\xe9", configuration_.fid_index_fname);
  expectLoads("#=1\n;=2\n[a]=3\n\"=4\n5=5\n==6\n");
  expectDefaults();
}

TEST_F(ConfigurationFile, NumbersBeyond32BitsCountAsTheLargest) {
  const struct {
    const char* digits;
    uint32_t value;
  } cases[] = {{"0", 0},
               {"007", 7},
               {"4294967295", UINT32_MAX},
               {"4294967296", UINT32_MAX},
               {"18446744073709551616", UINT32_MAX},
               {"99999999999999999999999999999999999999", UINT32_MAX}};
  for (const auto& [digits, value] : cases) {
    expectLoads(std::string("max_fid_num=") + digits + "\n");
    EXPECT_EQ(value, configuration_.max_fid_num) << digits;
  }
}

// Not the key but the form of the value decides which of the two is set, and
// the key then takes its own kind from wherever it was set last.
TEST_F(ConfigurationFile, ANumberKeyGivenAStringTakesTheLastNumberRead) {
  expectLoads("sig_page_size=5\nmax_fid_num=\"12\"\n");
  EXPECT_EQ(5u, configuration_.max_fid_num);
  expectLoads("max_fid_num=\"12\"\n");
  EXPECT_EQ(0u, configuration_.max_fid_num);
  expectLoads("unknown=9\nmax_fid_num=\"x\"\nfid_chunk_size=10\n");
  EXPECT_EQ(9u, configuration_.max_fid_num);
}

TEST_F(ConfigurationFile, ANameKeyGivenANumberTakesTheLastStringRead) {
  expectLoads("search_table_fname=\"abc\"\nfid_index_fname=7\n");
  EXPECT_STREQ("abc", configuration_.fid_index_fname);
  expectLoads("fid_index_fname=7\n");
  EXPECT_STREQ("", configuration_.fid_index_fname);
  expectLoads("unknown=\"xyz\"\nfid_index_fname=7\nindex_list_fname=\"after\"\n");
  EXPECT_STREQ("xyz", configuration_.fid_index_fname);
}

TEST_F(ConfigurationFile, ANameHoldsTwentyNineCharacters) {
  const std::string longest(29, 'n');
  for (const std::string key : {"fid_index_fname", "search_table_fname", "index_list_fname"}) {
    expectLoads(key + "=\"" + longest + "\"\n");
    for (const size_t length : {30, 31, 200}) {
      const int status = load("\n" + key + "=\"" + std::string(length, 'n') + "\"\n");
      expectFailure(kErrFormat, status, key + " too long at line 2");
    }
  }
  load("fid_index_fname=\"" + longest + "\"\n");
  EXPECT_EQ(longest, configuration_.fid_index_fname);
}

TEST_F(ConfigurationFile, AKnownKeyMayStandOnce) {
  expectMalformed("max_fid_num=5\nmax_fid_num=5\n", 2);
  expectMalformed("max_fid_num=5\n\nsig_page_size=1\nmax_fid_num=6\n", 4);
  expectMalformed("fid_index_fname=\"a\"\nfid_index_fname=\"a\"\n", 2);
  // The repetition is found before the length of the name.
  expectMalformed("fid_index_fname=\"a\"\nfid_index_fname=\"" + std::string(30, 'b') + "\"\n", 2);
}

TEST_F(ConfigurationFile, UnknownKeysAreCheckedForFormAndIgnored) {
  expectLoads("other=1\nother=1\nother=\"a\"\nMAX_FID_NUM=3\nmax_fid_nu=4\nmax_fid_num_=5\n");
  expectDefaults();
  expectMalformed("other=1\nother\n", 2);
  expectMalformed("other 1\n", 1);
}

TEST_F(ConfigurationFile, ALineIsShorterThan259CharactersWithItsEnd) {
  const std::string key = "max_fid_num=7";
  const auto padded = [&](size_t length) { return key + std::string(length - key.size(), ' '); };
  expectLoads(padded(257) + "\n");
  EXPECT_EQ(7u, configuration_.max_fid_num);
  expectLoads(padded(258));
  EXPECT_EQ(7u, configuration_.max_fid_num);
  const std::string too_long = "line 1 of config file index_sys_config.txt too long";
  for (const size_t length : {258, 259, 260, 261, 520, 5000}) {
    expectFailure(kErrFormat, load(padded(length) + "\n"), too_long);
  }
  expectFailure(kErrFormat, load(padded(259)), too_long);
  // A carriage return counts, on every system.
  expectLoads(padded(256) + "\r\n");
  expectFailure(kErrFormat, load(padded(257) + "\r\n"), too_long);
  expectFailure(kErrFormat, load(std::string(300, ' ') + "\n"), too_long);
  expectFailure(kErrFormat, load("\nmax_fid_num=1\n" + padded(258) + "\n"),
                "line 3 of config file index_sys_config.txt too long");
}

TEST_F(ConfigurationFile, AStringMayFillAWholeLine) {
  // 258 characters with the line feed: "k=" and a quoted word of 253.
  expectLoads("k=\"" + std::string(253, 'w') + "\"\n");
  expectFailure(kErrFormat, load("k=\"" + std::string(253, 'w') + "\"\nfid_index_fname=1\n"),
                "fid_index_fname too long at line 2");
}

TEST_F(ConfigurationFile, AKeyMayFillAWholeLine) {
  // 258 characters with the line feed: a key of 255, "=" and a digit.
  const auto filled = [](std::string key) { return key + std::string(255 - key.size(), 'k'); };
  expectLoads(filled("max_fid_num") + "=7\n");
  expectDefaults();  // no prefix of a key is the key
  expectLoads(filled("") + "=7\nmax_fid_num=\"x\"\n");
  EXPECT_EQ(7u, configuration_.max_fid_num);
}

TEST_F(ConfigurationFile, EveryLineCounts) {
  expectMalformed("\n \n\r\n\t\nbad\n", 5);
  expectMalformed("max_fid_num=1\n\nbad", 3);
}

TEST_F(ConfigurationFile, AFailureKeepsTheLinesBeforeIt) {
  expectMalformed("max_fid_num=1\nfid_index_fname=\"a\"\nbad\nsig_page_size=2\n", 3);
  EXPECT_EQ(1u, configuration_.max_fid_num);
  EXPECT_STREQ("a", configuration_.fid_index_fname);
  EXPECT_EQ(64u, configuration_.sig_page_size);
}

// Vertical tabs are white space to the scanner of words but not to the form.
TEST_F(ConfigurationFile, AWordOfWhiteSpaceCannotBeScanned) {
  const std::string message = "read config file index_sys_config.txt fail at line ";
  expectFailure(kErrFile, load("\nfid_index_fname=\"\v\"\n"), message + "2");
  expectFailure(kErrFile, load("fid_index_fname=\"\v\r\f\"\n"), message + "1");
  expectFailure(kErrFile, load("\v=\"\v\"\n"), message + "1");
  expectLoads("\vmax_fid_num=5\n\ffid_index_fname=\"\va\vb\"\n");
  EXPECT_EQ(5u, configuration_.max_fid_num);
  EXPECT_STREQ("a", configuration_.fid_index_fname);
}

TEST_F(ConfigurationFile, ANulEndsItsLine) {
  expectLoads(std::string("max_fid_num=5\0garbage\nsig_page_size=6\n", 38));
  EXPECT_EQ(5u, configuration_.max_fid_num);
  EXPECT_EQ(6u, configuration_.sig_page_size);
  expectFailure(kErrFile, load(std::string("\n\0max_fid_num=5\n", 16)),
                "read config file index_sys_config.txt fail at line 2");
  expectLoads(std::string("max_fid_num=5\n\0x", 16));  // the file ends with such a line
  EXPECT_EQ(5u, configuration_.max_fid_num);
}

TEST_F(ConfigurationFile, AReadErrorIsTold) {
  dir_.write(kName, "max_fid_num=5\n");
  FailPoint point;
  point.fail(Call::kRead, 1);
  expectFailure(kErrFile, configuration_.Load(kName),
                "read config file index_sys_config.txt fail at line 1");
  log_.clear();
  point.fail(Call::kRead, 2);  // where the end of the file is looked for
  expectFailure(kErrFile, configuration_.Load(kName),
                "read config file index_sys_config.txt fail at line 2");
  EXPECT_EQ(5u, configuration_.max_fid_num);
}

TEST_F(ConfigurationFile, AFileOfManyReadsLoads) {
  std::string content;
  for (int i = 0; i < 2000; ++i) content += "unknown_" + std::to_string(i) + " = 5\n";
  expectLoads(content + "max_fid_num=12\n");
  EXPECT_EQ(12u, configuration_.max_fid_num);
  expectMalformed(content + "bad", 2001);
}

TEST_F(ConfigurationFile, TheFileIsClosedOnEveryWayOut) {
  load("max_fid_num=5\n");
  EXPECT_TRUE(std::filesystem::remove(kName));
  load("bad\n");
  EXPECT_TRUE(std::filesystem::remove(kName));
}

#ifndef _WIN32
TEST_F(ConfigurationFile, MayBeALink) {
  dir_.write("shared.txt", "max_fid_num=12\n");
  std::filesystem::create_symlink("shared.txt", kName);
  EXPECT_EQ(kOk, configuration_.Load(kName));
  EXPECT_EQ(12u, configuration_.max_fid_num);
  std::filesystem::remove("shared.txt");
  expectFailure(kErrFile, configuration_.Load(kName), "open config file index_sys_config.txt fail");
}
#endif

}  // namespace
