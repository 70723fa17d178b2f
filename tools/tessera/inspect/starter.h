// A thread that starts extractors. A process may ask to die with its parent, and means
// the thread that started it: that one must live as long as the extractors may.
#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace tool {

class Starter {
 public:
  Starter();
  ~Starter();
  Starter(const Starter&) = delete;
  Starter& operator=(const Starter&) = delete;

  // Runs `start` in the thread and waits for it; what it throws comes out here. One
  // caller at a time, the others wait.
  void run(const std::function<void()>& start);

 private:
  void work();

  std::mutex callers_;  // held by the caller whose turn it is
  std::mutex mutex_;
  std::condition_variable changed_;
  const std::function<void()>* task_ = nullptr;  // guarded by mutex_, as all below
  std::exception_ptr failure_;
  bool over_ = false;
  std::thread thread_;  // last: it uses the others
};

}  // namespace tool
