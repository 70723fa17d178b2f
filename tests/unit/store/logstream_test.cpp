#include "logstream.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "fail_point.h"
#include "temp_dir.h"
#include "tpie_log.h"

namespace {

size_t filesHere() {
  const std::filesystem::directory_iterator entries(".");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

TEST(Logstream, TheFirstLineMakesAFileOfAUniqueNameInTheCurrentDirectory) {
  TempDir dir;
  logstream log;
  EXPECT_EQ(0u, filesHere());
  log.write("some.cpp", 12, "first");
  log.write("other.cpp", 345, "second");
  EXPECT_EQ(1u, filesHere());
  EXPECT_TRUE(std::regex_match(log.path(), std::regex(R"(\.[/\\][/\\]tpielog_[a-z0-9]{6}\.txt)")))
      << log.path();
  const std::string path = log.path();
  log.close();
  EXPECT_EQ("some.cpp line 12: first\nother.cpp line 345: second\n", dir.read(path));
}

TEST(Logstream, AFileThatCannotBeOpenedLosesTheLineAndIsTriedAgain) {
  TempDir dir;
  FailPoint system;
  logstream log;
  system.fail(Call::kOpen, 1, /*lasting=*/true);
  log.write("some.cpp", 1, "lost");
  EXPECT_EQ("", log.path());
  EXPECT_EQ(100, system.count());  // names tried
  system.fail(Call::kOpen, 0);
  log.write("some.cpp", 2, "kept");
  const std::string path = log.path();
  log.close();
  EXPECT_EQ("some.cpp line 2: kept\n", dir.read(path));
}

// Logs that are opened within a second are offered the same names.
TEST(Logstream, NeverWritesToAFileThatIsThereAlready) {
  TempDir dir;
  std::set<std::string> paths;
  for (int i = 0; i < 20; ++i) {
    logstream log;
    log.write("some.cpp", i, "mine");
    paths.insert(log.path());
  }
  EXPECT_EQ(20u, paths.size());
  EXPECT_EQ(20u, filesHere());
  std::set<std::string> contents;
  for (const std::string& path : paths) contents.insert(dir.read(path));
  EXPECT_EQ(20u, contents.size());
}

TEST(Logstream, WithoutANameThereIsNoFile) {
  TempDir dir;
  FailPoint system;
  logstream log;
  system.fail(Call::kToNativePath, 1, /*lasting=*/true);
  log.write("some.cpp", 1, "lost");
  EXPECT_EQ("", log.path());
  EXPECT_EQ(0u, filesHere());
}

class TpieLog : public testing::Test {
 protected:
  ~TpieLog() override {
    setTpieLogEnabled(false);
    tpieLog().close();
  }
  TempDir dir_;
};

TEST_F(TpieLog, IsOffByDefaultAndMakesNoFile) {
  EXPECT_FALSE(tpieLogEnabled());
  TPIE_LOG("not written");
  TPIE_ASSERT(false, "not written either");
  EXPECT_EQ(0u, filesHere());
}

TEST_F(TpieLog, BearsTheSourceFilesNameAndLine) {
  setTpieLogEnabled(true);
  TPIE_LOG(std::string("a message"));
  const int line = __LINE__ - 1;
  const std::string path = tpieLog().path();
  tpieLog().close();
  EXPECT_EQ("logstream_test.cpp line " + std::to_string(line) + ": a message\n", dir_.read(path));
}

TEST_F(TpieLog, AFailedAssertionIsWrittenAndAHoldingOneIsNot) {
  setTpieLogEnabled(true);
  TPIE_ASSERT(1 + 1 == 2, "arithmetic");
  TPIE_ASSERT(1 + 1 == 3, "more arithmetic");
  const std::string path = tpieLog().path();
  tpieLog().close();
  const std::string text = dir_.read(path);
  EXPECT_EQ(std::string::npos, text.find(": arithmetic"));
  EXPECT_TRUE(text.ends_with(": Assertion failed: more arithmetic\n")) << text;
}

}  // namespace
