#include "inspect/starter.h"

#include <utility>

namespace tool {

Starter::Starter() : thread_([this] { work(); }) {}

Starter::~Starter() {
  {
    const std::lock_guard lock(mutex_);
    over_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Starter::run(const std::function<void()>& start) {
  const std::lock_guard turn(callers_);
  std::unique_lock lock(mutex_);
  task_ = &start;
  changed_.notify_all();
  changed_.wait(lock, [this] { return !task_; });
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

void Starter::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return task_ || over_; });
    if (!task_) return;
    try {
      (*task_)();
    } catch (...) {
      failure_ = std::current_exception();
    }
    task_ = nullptr;
    changed_.notify_all();
  }
}

}  // namespace tool
