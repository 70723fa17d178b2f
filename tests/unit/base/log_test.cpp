// The log routine, its sinks and the form of a message.
#define LOG_TAG "fpe_utility"

#include "log.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "log_capture.h"
#include "tessera_log.h"

namespace reporting {

struct Reporter {
  static int line() {
    LOG_ERROR("member");
    return __LINE__ - 1;
  }
  template <typename T>
  static std::string* generic(const T&) {
    LOG_ERROR("template");
    return nullptr;
  }
};

const char& plain(int value) {
  LOG_INFO("value %d of %s", value, "free function");
  static const char c = 'c';
  return c;
}

}  // namespace reporting

void notice() { LOG_NOTICE("notice"); }

namespace {

TEST(Log, ALevelOutsideOneToFiveIsRefused) {
  LogCapture capture;
  for (const int level : {0, 6, -1, INT_MIN, INT_MAX}) EXPECT_EQ(-1, tessera::log(level, "x"));
  EXPECT_TRUE(capture.lines().empty());
}

TEST(Log, WithoutASinkNothingHappens) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  for (int level = 1; level <= 5; ++level) EXPECT_EQ(0, tessera::log(level, "%s", "silence"));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

int called_level = 0;
std::string called_text;

template <int level>
int sink(const char* format, va_list arguments) {
  char text[100];
  std::vsnprintf(text, sizeof text, format, arguments);
  called_level = level;
  called_text = text;
  return 100 + level;
}

TEST(Log, TheMessageGoesToTheSinkOfItsLevelAndTheSinksResultComesBack) {
  const tessera_log_sink sinks[] = {sink<1>, sink<2>, sink<3>, sink<4>, sink<5>};
  for (int level = 1; level <= 5; ++level) {
    ASSERT_EQ(0, tessera_set_log_sink(level, sinks[level - 1]));
    called_level = 0;
    EXPECT_EQ(100 + level, tessera::log(level, "number %d and %s", level, "text"));
    EXPECT_EQ(level, called_level);
    EXPECT_EQ("number " + std::to_string(level) + " and text", called_text);
    ASSERT_EQ(0, tessera_set_log_sink(level, nullptr));
  }
}

TEST(Log, ASinkServesItsOwnLevelOnly) {
  ASSERT_EQ(0, tessera_set_log_sink(3, sink<3>));
  called_level = 0;
  for (const int level : {1, 2, 4, 5}) EXPECT_EQ(0, tessera::log(level, "x"));
  EXPECT_EQ(0, called_level);
  ASSERT_EQ(0, tessera_set_log_sink(3, nullptr));
}

TEST(Log, ARemovedSinkIsNotCalled) {
  ASSERT_EQ(0, tessera_set_log_sink(3, sink<3>));
  ASSERT_EQ(0, tessera_set_log_sink(3, nullptr));
  called_level = 0;
  EXPECT_EQ(0, tessera::log(3, "x"));
  EXPECT_EQ(0, called_level);
}

TEST(Log, ALevelIsKnownToHaveASink) {
  EXPECT_FALSE(tessera::hasSink(3));
  ASSERT_EQ(0, tessera_set_log_sink(3, sink<3>));
  EXPECT_TRUE(tessera::hasSink(3));
  for (const int level : {0, 1, 2, 4, 5, 6, -1}) EXPECT_FALSE(tessera::hasSink(level));
  ASSERT_EQ(0, tessera_set_log_sink(3, nullptr));
  EXPECT_FALSE(tessera::hasSink(3));
}

TEST(Log, ASinkForALevelOutsideOneToFiveIsRefused) {
  for (const int level : {0, 6, -1}) EXPECT_EQ(-1, tessera_set_log_sink(level, sink<3>));
}

TEST(LogMessage, BearsSeverityTagFileLineAndFunction) {
  LogCapture capture;
  const int line = reporting::Reporter::line();
  ASSERT_EQ(1u, capture.lines().size());
  EXPECT_EQ("Error", capture.lines()[0].word);
  EXPECT_EQ("fpe_utility", capture.lines()[0].tag);
  EXPECT_EQ("reporting::Reporter::line", capture.lines()[0].function);
  EXPECT_EQ("member", capture.lines()[0].message);

  static std::string whole;
  tessera_set_log_sink(3, [](const char* format, va_list arguments) {
    char text[200];
    std::vsnprintf(text, sizeof text, format, arguments);
    whole = text;
    return 0;
  });
  reporting::Reporter::line();
  EXPECT_EQ("Error [fpe_utility] - (log_test.cpp:" + std::to_string(line) +
                "):: #<reporting::Reporter::line>#member",
            whole);
}

TEST(LogMessage, TheFunctionIsNamedWithoutResultAndParameters) {
  LogCapture capture;
  reporting::plain(7);
  reporting::Reporter::generic(7);
  notice();
  ASSERT_EQ(3u, capture.lines().size());
  EXPECT_EQ("#<reporting::plain>#value 7 of free function", capture.lines()[0].text);
  EXPECT_EQ("#<reporting::Reporter::generic>#template", capture.lines()[1].text);
  EXPECT_EQ("#<notice>#notice", capture.lines()[2].text);
}

// The word says nothing about the level.
TEST(LogMessage, ErrorsAndInfosAreOfLevelThreeAndNoticesAreInfosOfLevelFour) {
  LogCapture capture;
  reporting::Reporter::line();
  reporting::plain(7);
  notice();
  ASSERT_EQ(3u, capture.lines().size());
  EXPECT_EQ(3, capture.lines()[0].level);
  EXPECT_EQ("Error", capture.lines()[0].word);
  EXPECT_EQ(3, capture.lines()[1].level);
  EXPECT_EQ("Info", capture.lines()[1].word);
  EXPECT_EQ(4, capture.lines()[2].level);
  EXPECT_EQ("Info", capture.lines()[2].word);
}

TEST(LogMessage, TheFileIsNamedWithoutItsDirectory) {
  EXPECT_STREQ("c.cpp", tessera::detail::baseName("a\\b\\c.cpp").data());
  EXPECT_STREQ("c.cpp", tessera::detail::baseName("/a/b/c.cpp").data());
  EXPECT_STREQ("c.cpp", tessera::detail::baseName("c.cpp").data());
}

TEST(LogMessage, AQualifiedNameKeepsClassesAndNamespaces) {
  using tessera::detail::qualifiedName;
  EXPECT_STREQ("a::B::c", qualifiedName("int a::B::c(const char*, int)").data());
  EXPECT_STREQ("a::B::c", qualifiedName("virtual bool a::B::c() const").data());
  EXPECT_STREQ("c", qualifiedName("char* c(int)").data());
  EXPECT_STREQ("a::B::B", qualifiedName("a::B::B(int)").data());
}

}  // namespace
