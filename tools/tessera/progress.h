// A line on a terminal that tells how far the work is; nothing anywhere else.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace tool {

class Progress {
 public:
  Progress();
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // "Indexing 17 of 600", rewritten in place, ten times a second at most.
  void count(const std::string& what, size_t done, size_t total);
  void say(const std::string& what);
  void clear();  // before anything else is printed

 private:
  const bool enabled_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point next_;  // earliest time of the next count
};

}  // namespace tool
