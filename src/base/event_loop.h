// SPDX-License-Identifier: Apache-2.0
// A poll loop with timers, run by one thread.
//
// Thread rule: run() belongs to one thread at a time, and all callbacks come on it. stop() and
// post() may be called from any thread at any time, timers may be added and removed from any
// thread. Watchers are added and removed on the loop's thread, or on any thread while the loop
// doesn't run; their wish to write may be changed from any thread.
//
// After remove_watcher(fd) or remove_timer(t) on the loop's thread no callback of it comes any
// more, not even one that was due in the same round. No callback comes from inside the call that
// asked for it. A callback may remove itself and others.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <poll.h>

#include "base/atomic.h"
#include "base/unique_fd.h"

namespace zelta::base {

// For a watcher the int is the descriptor; for a timer it is 0.
using event_callback_t = void (*)(int, void*);
// `events` holds the error bits that poll reported: POLLERR, POLLHUP, POLLNVAL.
using error_callback_t = void (*)(int fd, void* context, int events);

struct timer_event;

class event_loop {
 public:
  event_loop();
  ~event_loop();
  event_loop(const event_loop&) = delete;
  event_loop& operator=(const event_loop&) = delete;

  // Calls `callback` every `interval_ms` (at least 1) until removed. A late tick doesn't delay the
  // one after it; ticks that were missed are not made up for. The loop owns the handle.
  timer_event* add_timer(int interval_ms, event_callback_t callback, void* context);
  // 0, or -1 when the loop has no such timer. The handle is invalid afterwards.
  int remove_timer(timer_event* timer);

  // Watches `fd`, which stays the caller's. A null read or write callback means no interest;
  // writing is watched only while asked for by want_write. 0, or -1 when `fd` is watched already.
  int add_watcher(int fd, void* context, event_callback_t read_callback,
                  event_callback_t write_callback, error_callback_t error_callback);
  // 0, or -1 when `fd` is not watched.
  int remove_watcher(int fd);
  void want_write(int fd, bool wanted);

  // Runs until stop(); with `once` true, for a single round. A loop that was stopped can be run
  // again. Always 0: a poll that fails is logged, once a second, and tried again.
  int run(bool once);
  // Makes run() return after the current round. A stop while nothing runs has no effect.
  void stop();
  // Runs `work` on the loop's thread in one of the next rounds, in the order of posting. Work that
  // is posted while nothing runs waits for the next run().
  void post(std::function<void()> work);

  // Whether the calling thread is inside run().
  bool in_loop_thread() const;
  // Whether any thread is inside run().
  bool running() const;

  // Folder of the loop's own log lines.
  std::string logdir_;

 private:
  struct event {
    int fd;
    void* context;
    event_callback_t read_callback;
    event_callback_t write_callback;
    error_callback_t error_callback;
    bool want_write;
    // Tells a descriptor from another one that got its number within a round.
    uint64_t generation;
  };
  struct timer_comparator {
    bool operator()(const timer_event* a, const timer_event* b) const;
  };

  void run_round();
  void wait_without_descriptors(int error);
  void prepare_poll_events();
  int poll_timeout_ms();
  void dispatch(const pollfd& polled, uint64_t generation);
  bool find(int fd, uint64_t generation, event& found);
  void run_timers();
  void run_posted();
  void wake();
  void drain_wake();

  atomic_bool_t stop_{false};
  std::mutex timers_lock_;
  std::set<timer_event*, timer_comparator> timers_;
  std::unordered_map<int, event> events_;
  std::vector<pollfd> pollfds_;

  std::unordered_map<timer_event*, std::unique_ptr<timer_event>> owned_timers_;
  std::mutex events_lock_;
  std::vector<uint64_t> polled_generations_;
  uint64_t next_generation_ = 1;
  // Of the last line about a poll that failed.
  int64_t poll_failed_ms_ = 0;
  std::mutex posted_lock_;
  std::vector<std::function<void()>> posted_;
  unique_fd wake_fd_;
  std::atomic<std::thread::id> loop_thread_{};
};

}  // namespace zelta::base
