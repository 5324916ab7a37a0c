// SPDX-License-Identifier: Apache-2.0
#include "lane_crew.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <limits>
#include <mutex>
#include <thread>

#include "av.h"
#include "stop_signal.h"

namespace zelta::lay {
namespace {

constexpr int64_t kMostAheadUs = kSecond;
constexpr int64_t kAtItsEnd = std::numeric_limits<int64_t>::max();

class crew {
 public:
  explicit crew(const std::vector<std::unique_ptr<lane>>& all)
      : all_(all), reached_us_(all.size(), 0) {}
  crew(const crew&) = delete;
  crew& operator=(const crew&) = delete;
  ~crew() { join(); }

  void run(const std::function<void(int64_t)>& progress) {
    try {
      for (size_t at = 0; at < all_.size(); ++at) threads_.emplace_back([this, at] { work(at); });
    } catch (...) {
      fail(std::current_exception());
    }
    std::unique_lock<std::mutex> held(lock_);
    while (slowest() != kAtItsEnd && !failed_) {
      // What changed meanwhile has been looked at by the loop.
      changed_.wait(held);
      const int64_t at = slowest();
      if (at == kAtItsEnd) break;
      held.unlock();
      progress(at);
      held.lock();
    }
    held.unlock();
    join();
    if (failed_) std::rethrow_exception(failed_);
  }

 private:
  void join() {
    for (std::thread& one : threads_) one.join();
    threads_.clear();
  }
  int64_t slowest() const { return *std::min_element(reached_us_.begin(), reached_us_.end()); }

  void fail(std::exception_ptr why) {
    {
      const std::lock_guard<std::mutex> hold(lock_);
      if (!failed_) failed_ = std::move(why);
    }
    changed_.notify_all();
  }

  // False: another one has failed.
  bool may_go_on(size_t at) {
    std::unique_lock<std::mutex> held(lock_);
    changed_.wait(held,
                  [this, at] { return failed_ || reached_us_[at] <= slowest() + kMostAheadUs; });
    return !failed_;
  }

  void work(size_t at) {
    try {
      for (bool more = true; more && may_go_on(at);) {
        throw_if_stopped();
        more = all_[at]->advance();
        {
          const std::lock_guard<std::mutex> hold(lock_);
          reached_us_[at] = more ? all_[at]->reached_us() : kAtItsEnd;
        }
        changed_.notify_all();
      }
    } catch (...) {
      fail(std::current_exception());
    }
  }

  const std::vector<std::unique_ptr<lane>>& all_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<int64_t> reached_us_;
  std::exception_ptr failed_;
  std::vector<std::thread> threads_;
};

}  // namespace

void run_lanes(const std::vector<std::unique_ptr<lane>>& all,
               const std::function<void(int64_t)>& progress) {
  crew(all).run(progress);
}

}  // namespace zelta::lay
