// How far the work is, on the standard error: a bar that is rewritten in place when that
// is a terminal, JSON lines when they are asked for, nothing otherwise.
//
// A JSON line: {"phase":"Indexing","done":17,"total":600,"per_second":34.0,
// "seconds_left":18}; figures that are not known are missing.
// Tests: tests/tool/progress_test.py.
#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>

#include "commands.h"

namespace tool {

// May be used by several threads at once.
class Progress {
 public:
  explicit Progress(ProgressStyle style);
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // `done` things of `total`. What is `phase` anew begins now: rates count from here.
  void count(const std::string& phase, size_t done, size_t total);

  void say(const std::string& phase);  // for what cannot be counted

  void clear();  // before anything else is printed

 private:
  using Clock = std::chrono::steady_clock;

  void begin(const std::string& phase);
  void print(size_t done, size_t total);
  void printBar(size_t done, size_t total, double per_second, double seconds_left);
  void wipe();

  enum class Form { kNone, kBar, kJson };

  std::mutex mutex_;
  const Form form_;
  std::string phase_;        // guarded by mutex_, as all that follows
  Clock::time_point begun_;  // of the phase
  Clock::time_point next_;   // earliest time of the next line
  bool shown_ = false;
};

}  // namespace tool
