// What the store reports about itself goes through these macros.
//
// The log is off unless setTpieLogEnabled() switches it on, and then still
// opens its file with the first line only (logstream.h).
//
//   TPIE_LOG(message)                 a std::string or a literal, when enabled
//   TPIE_LOG_ALWAYS(message)          whether enabled or not
//   TPIE_ASSERT(condition, message)   reports a broken assumption, and goes on
//
// Tests: tests/unit/store/logstream_test.cpp.
#pragma once

#include <string>

#include "log.h"
#include "logstream.h"

bool tpieLogEnabled();
void setTpieLogEnabled(bool enabled);

logstream& tpieLog();  // the one log; never destroyed, but its file closes at unload

#define TPIE_LOG_ALWAYS(message)                                            \
  do {                                                                      \
    static constexpr auto log_file = ::tessera::detail::baseName(__FILE__); \
    tpieLog().write(log_file.data(), __LINE__, message);                    \
  } while (false)

#define TPIE_LOG(message)                           \
  do {                                              \
    if (tpieLogEnabled()) TPIE_LOG_ALWAYS(message); \
  } while (false)

#define TPIE_ASSERT(condition, message)                       \
  do {                                                        \
    if (!(condition)) TPIE_LOG("Assertion failed: " message); \
  } while (false)
