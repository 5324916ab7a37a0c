// SPDX-License-Identifier: Apache-2.0
#include "base/event_loop.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include <sys/eventfd.h>

#include "base/clocks.h"
#include "base/log.h"

namespace zelta::base {

using clock = std::chrono::steady_clock;

struct timer_event {
  clock::time_point due;
  std::chrono::milliseconds interval;
  event_callback_t callback;
  void* context;
};

namespace {

constexpr int kErrorBits = POLLERR | POLLHUP | POLLNVAL;
// Without a wake descriptor (none was left in the process) stop() and post() are noticed this late.
constexpr int kUnwakeableTimeoutMs = 100;
constexpr int kPollRetryMs = 10;
constexpr int64_t kPollLogMs = 1000;

}  // namespace

bool event_loop::timer_comparator::operator()(const timer_event* a, const timer_event* b) const {
  return a->due != b->due ? a->due < b->due : std::less<>()(a, b);
}

event_loop::event_loop() : wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_fd_.valid()) {
    log(WARN_LOG, ZELTA_LOG_MODULE_COMMON, "eventfd: %s; the loop polls instead",
        std::strerror(errno));
  }
}

event_loop::~event_loop() {
  assert(!running());
}

timer_event* event_loop::add_timer(int interval_ms, event_callback_t callback, void* context) {
  const std::chrono::milliseconds interval(std::max(interval_ms, 1));
  auto owned = std::make_unique<timer_event>(
      timer_event{clock::now() + interval, interval, callback, context});
  timer_event* const timer = owned.get();
  {
    const std::lock_guard<std::mutex> guard(timers_lock_);
    owned_timers_.emplace(timer, std::move(owned));
    timers_.insert(timer);
  }
  if (!in_loop_thread()) wake();
  return timer;
}

int event_loop::remove_timer(timer_event* timer) {
  const std::lock_guard<std::mutex> guard(timers_lock_);
  const auto owned = owned_timers_.find(timer);
  if (owned == owned_timers_.end()) return -1;
  timers_.erase(timer);
  owned_timers_.erase(owned);
  return 0;
}

int event_loop::add_watcher(int fd, void* context, event_callback_t read_callback,
                            event_callback_t write_callback, error_callback_t error_callback) {
  const std::lock_guard<std::mutex> guard(events_lock_);
  const event added{fd,    context,           read_callback, write_callback, error_callback,
                    false, next_generation_++};
  return events_.emplace(fd, added).second ? 0 : -1;
}

int event_loop::remove_watcher(int fd) {
  const std::lock_guard<std::mutex> guard(events_lock_);
  return events_.erase(fd) == 1 ? 0 : -1;
}

void event_loop::want_write(int fd, bool wanted) {
  {
    const std::lock_guard<std::mutex> guard(events_lock_);
    const auto found = events_.find(fd);
    if (found == events_.end() || found->second.want_write == wanted) return;
    found->second.want_write = wanted;
  }
  if (!in_loop_thread()) wake();
}

int event_loop::run(bool once) {
  stop_ = false;
  loop_thread_ = std::this_thread::get_id();
  do {
    run_round();
  } while (!once && !stop_);
  loop_thread_ = std::thread::id();
  return 0;
}

void event_loop::stop() {
  stop_ = true;
  wake();
}

void event_loop::post(std::function<void()> work) {
  {
    const std::lock_guard<std::mutex> guard(posted_lock_);
    posted_.push_back(std::move(work));
  }
  wake();
}

bool event_loop::in_loop_thread() const {
  return loop_thread_ == std::this_thread::get_id();
}
bool event_loop::running() const {
  return loop_thread_ != std::thread::id();
}

void event_loop::run_round() {
  prepare_poll_events();
  const int ready = ::poll(pollfds_.data(), pollfds_.size(), poll_timeout_ms());
  if (ready < 0 && errno != EINTR) wait_without_descriptors(errno);
  if (ready > 0) {
    for (size_t i = 0; i < pollfds_.size(); ++i) {
      if (pollfds_[i].revents == 0) continue;
      if (pollfds_[i].fd == wake_fd_.get()) {
        drain_wake();
      } else {
        dispatch(pollfds_[i], polled_generations_[i]);
      }
    }
  }
  run_posted();
  run_timers();
}

// A system that is short of memory for a moment must not end a session: nobody would be told.
void event_loop::wait_without_descriptors(int error) {
  const int64_t now = tick_ms();
  if (poll_failed_ms_ == 0 || now - poll_failed_ms_ >= kPollLogMs) {
    log_dir(logdir_.c_str(), ERROR_LOG, ZELTA_LOG_MODULE_COMMON, "poll: %s; trying again",
            std::strerror(error));
    poll_failed_ms_ = now;
  }
  // Without descriptors it needs no memory; if it fails all the same, the next round comes sooner.
  ::poll(nullptr, 0, kPollRetryMs);
}

void event_loop::prepare_poll_events() {
  pollfds_.clear();
  polled_generations_.clear();
  if (wake_fd_.valid()) {
    pollfds_.push_back({wake_fd_.get(), POLLIN, 0});
    polled_generations_.push_back(0);
  }
  const std::lock_guard<std::mutex> guard(events_lock_);
  for (const auto& [fd, watched] : events_) {
    const int wanted = (watched.read_callback != nullptr ? POLLIN : 0) |
                       (watched.write_callback != nullptr && watched.want_write ? POLLOUT : 0);
    pollfds_.push_back({fd, static_cast<short>(wanted), 0});
    polled_generations_.push_back(watched.generation);
  }
}

int event_loop::poll_timeout_ms() {
  {
    const std::lock_guard<std::mutex> guard(posted_lock_);
    if (!posted_.empty()) return 0;
  }
  const int longest = wake_fd_.valid() ? -1 : kUnwakeableTimeoutMs;
  const std::lock_guard<std::mutex> guard(timers_lock_);
  if (timers_.empty()) return longest;
  const auto wait =
      std::chrono::ceil<std::chrono::milliseconds>((*timers_.begin())->due - clock::now()).count();
  const int timeout = static_cast<int>(std::clamp<int64_t>(wait, 0, INT_MAX));
  return longest < 0 ? timeout : std::min(timeout, longest);
}

bool event_loop::find(int fd, uint64_t generation, event& found) {
  const std::lock_guard<std::mutex> guard(events_lock_);
  const auto it = events_.find(fd);
  if (it == events_.end() || it->second.generation != generation) return false;
  found = it->second;
  return true;
}

// The watcher is looked up again before each callback, because the one before may have removed it.
void event_loop::dispatch(const pollfd& polled, uint64_t generation) {
  const int revents = polled.revents;
  event watched{};
  if ((revents & POLLIN) != 0 && find(polled.fd, generation, watched)) {
    watched.read_callback(polled.fd, watched.context);
  }
  if ((revents & POLLOUT) != 0 && find(polled.fd, generation, watched)) {
    watched.write_callback(polled.fd, watched.context);
  }
  // A hang-up is told only when everything that was sent before it has been read.
  if ((revents & kErrorBits) != 0 && (revents & POLLIN) == 0 &&
      find(polled.fd, generation, watched)) {
    if (watched.error_callback != nullptr) {
      watched.error_callback(polled.fd, watched.context, revents & kErrorBits);
    } else {
      // Nobody wants to know; left in place it would make every round return at once.
      remove_watcher(polled.fd);
    }
  }
}

void event_loop::run_timers() {
  const clock::time_point now = clock::now();
  std::unique_lock<std::mutex> lock(timers_lock_);
  while (!timers_.empty() && (*timers_.begin())->due <= now) {
    auto next = timers_.extract(timers_.begin());
    timer_event* const timer = next.value();
    const auto missed = (now - timer->due) / timer->interval;
    timer->due += timer->interval * (missed + 1);
    timers_.insert(std::move(next));
    // The callback may remove the timer, so nothing of it is touched afterwards.
    const event_callback_t callback = timer->callback;
    void* const context = timer->context;
    lock.unlock();
    callback(0, context);
    lock.lock();
  }
}

void event_loop::run_posted() {
  std::vector<std::function<void()>> work;
  {
    const std::lock_guard<std::mutex> guard(posted_lock_);
    work.swap(posted_);
  }
  for (const auto& item : work) item();
}

void event_loop::wake() {
  if (!wake_fd_.valid()) return;
  const uint64_t one = 1;
  // The one failure is a full counter, and then the loop is being woken already.
  [[maybe_unused]] const ssize_t ignored = ::write(wake_fd_.get(), &one, sizeof one);
}

void event_loop::drain_wake() {
  uint64_t count = 0;
  // Nothing to read means that another round has drained it.
  [[maybe_unused]] const ssize_t ignored = ::read(wake_fd_.get(), &count, sizeof count);
}

}  // namespace zelta::base
