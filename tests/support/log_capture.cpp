#include "log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <regex>

#include "tessera_log.h"

namespace {

std::mutex mutex;
std::vector<LogLine> recorded;  // guarded by mutex

std::string formatted(const char* format, va_list arguments) {
  char text[2048];
  std::vsnprintf(text, sizeof text, format, arguments);
  return text;
}

// Every message must bear the whole prefix; one that does not fails the test.
int record(int level, const char* format, va_list arguments) {
  static const std::regex kForm(
      R"(^(Error|Info) \[(\w+)\] - \(([^:]+):(\d+)\):: (#<([^>]+)>#([\s\S]*))$)");
  const std::string text = formatted(format, arguments);
  std::smatch match;
  const bool well_formed = std::regex_match(text, match, kForm);
  EXPECT_TRUE(well_formed) << text;
  const std::lock_guard<std::mutex> lock(mutex);
  if (well_formed) {
    recorded.push_back({level, match[1], match[2], match[6], match[7], match[5]});
  } else {
    recorded.push_back({level, "", "", "", text, text});
  }
  return 0;
}

template <int level>
int recordLevel(const char* format, va_list arguments) {
  return record(level, format, arguments);
}

}  // namespace

LogCapture::LogCapture() {
  clear();
  tessera_set_log_sink(1, recordLevel<1>);
  tessera_set_log_sink(2, recordLevel<2>);
  tessera_set_log_sink(3, recordLevel<3>);
  tessera_set_log_sink(4, recordLevel<4>);
  tessera_set_log_sink(5, recordLevel<5>);
}

LogCapture::~LogCapture() {
  for (int level = 1; level <= 5; ++level) tessera_set_log_sink(level, nullptr);
}

std::vector<LogLine> LogCapture::lines() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return recorded;
}

std::vector<std::string> LogCapture::messages() const {
  std::vector<std::string> messages;
  for (const LogLine& line : lines()) messages.push_back(line.message);
  return messages;
}

bool LogCapture::has(const std::string& message) const {
  const auto all = messages();
  return std::find(all.begin(), all.end(), message) != all.end();
}

void LogCapture::clear() {
  const std::lock_guard<std::mutex> lock(mutex);
  recorded.clear();
}
