// The log routine and the macros through which every message passes.
//
// A message is a complete printf format that opens with its own prefix, here
// that of an error found by the index system:
//
//   Error [fpe_sig_index] - (%s:%d):: #<%s>#open file %s fail
//
// and whose first three arguments are the source file's base name, the line
// and the qualified function name. The macros add the prefix and the three
// arguments; the file that uses them defines its LOG_TAG before including this
// header. The routine formats nothing: it hands format and arguments to the
// sink of the level (tessera_log.h), of which there is none by default.
//
// Severity word and level are independent and fixed per message, so each
// combination in use has a macro. Tests: tests/unit/base/log_test.cpp.
#pragma once

#include <array>
#include <cstddef>

namespace tessera {

// Returns the sink's result, 0 when the level has no sink, -1 for a level
// outside 1 to 5. Any thread.
int log(int level, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

// Whether a sink would take what is logged at `level` now, for work whose messages
// cost more than the work itself. Any thread.
bool hasSink(int level);

namespace detail {

// "int dlp_btree::load(const char*, int)" becomes "dlp_btree::load": what
// stands before the parameter list, without the result type.
template <size_t N>
consteval std::array<char, N> qualifiedName(const char (&pretty)[N]) {
  size_t end = 0;
  while (end < N - 1 && pretty[end] != '(') ++end;
  size_t begin = end;
  while (begin > 0 && pretty[begin - 1] != ' ' && pretty[begin - 1] != '*' &&
         pretty[begin - 1] != '&') {
    --begin;
  }
  std::array<char, N> name = {};
  for (size_t i = begin; i < end; ++i) name[i - begin] = pretty[i];
  return name;
}

template <size_t N>
consteval std::array<char, N> baseName(const char (&path)[N]) {
  size_t begin = 0;
  for (size_t i = 0; i < N; ++i) {
    if (path[i] == '/' || path[i] == '\\') begin = i + 1;
  }
  std::array<char, N> name = {};
  for (size_t i = begin; i < N; ++i) name[i - begin] = path[i];
  return name;
}

}  // namespace detail
}  // namespace tessera

#define TESSERA_LOG(level, word, text, ...)                                                     \
  do {                                                                                          \
    static constexpr auto log_file = ::tessera::detail::baseName(__FILE__);                     \
    static constexpr auto log_function = ::tessera::detail::qualifiedName(__PRETTY_FUNCTION__); \
    ::tessera::log(level, word " [" LOG_TAG "] - (%s:%d):: #<%s>#" text, log_file.data(),       \
                   __LINE__, log_function.data() __VA_OPT__(, ) __VA_ARGS__);                   \
  } while (false)

#define LOG_ERROR(...) TESSERA_LOG(3, "Error", __VA_ARGS__)
#define LOG_INFO(...) TESSERA_LOG(3, "Info", __VA_ARGS__)
#define LOG_NOTICE(...) TESSERA_LOG(4, "Info", __VA_ARGS__)  // the word stays "Info"
