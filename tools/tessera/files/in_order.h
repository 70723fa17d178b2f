// Work on many things at once whose results are taken one by one, in their order.
// Tests: tests/tool/store_units_test.cpp.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace tool {

// Calls `work` with 0, 1, ... on up to `threads` threads, and `take` with its results in
// this order on the calling thread. At most a few results a thread wait to be taken. No
// work is begun after `ended` has said true once; what was begun until then is taken.
// Throws what `take` throws and, in its place in the order, what `work` throws.
// Returns how many results were taken.
template <typename Result>
size_t inOrder(size_t count, unsigned threads, const std::function<Result(size_t)>& work,
               const std::function<void(size_t, Result&&)>& take,
               const std::function<bool()>& ended) {
  struct Slot {
    std::optional<Result> result;
    std::exception_ptr failure;
  };
  threads = static_cast<unsigned>(std::clamp<size_t>(threads, 1, std::max<size_t>(count, 1)));
  std::vector<Slot> slots(threads * size_t{4});
  std::mutex mutex;  // guards all of the following, and the slots
  std::condition_variable changed;
  size_t begun = 0;
  size_t taken = 0;
  bool stopped = false;

  const auto labour = [&] {
    std::unique_lock lock(mutex);
    while (true) {
      changed.wait(lock, [&] { return stopped || begun == count || begun - taken < slots.size(); });
      stopped = stopped || ended();
      if (stopped || begun == count) break;
      const size_t i = begun++;
      lock.unlock();
      Slot done;
      try {
        done.result = work(i);
      } catch (...) {
        done.failure = std::current_exception();
      }
      lock.lock();
      slots[i % slots.size()] = std::move(done);
      changed.notify_all();
    }
    changed.notify_all();
  };

  class Workers {
   public:
    Workers(std::mutex* guard, std::condition_variable* signal, bool* stop)
        : guard_(guard), signal_(signal), stop_(stop) {}
    ~Workers() {
      {
        const std::lock_guard lock(*guard_);
        *stop_ = true;
      }
      signal_->notify_all();
      for (std::thread& thread : threads) thread.join();
    }
    std::vector<std::thread> threads;

   private:
    std::mutex* const guard_;
    std::condition_variable* const signal_;
    bool* const stop_;
  } workers(&mutex, &changed, &stopped);

  for (unsigned i = 0; i < threads; ++i) workers.threads.emplace_back(labour);
  std::unique_lock lock(mutex);
  while (true) {
    Slot& slot = slots[taken % slots.size()];
    const auto ready = [&] { return slot.result || slot.failure; };
    changed.wait(lock, [&] { return ready() || taken == count || (stopped && taken == begun); });
    if (!ready()) return taken;
    Slot done = std::move(slot);
    slot = Slot();
    lock.unlock();
    if (done.failure) std::rethrow_exception(done.failure);
    take(taken, std::move(*done.result));
    lock.lock();
    ++taken;
    changed.notify_all();
  }
}

}  // namespace tool
