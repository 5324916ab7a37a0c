// SPDX-License-Identifier: Apache-2.0
#include "courier.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <random>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include "disk.h"
#include "exit_status.h"
#include "herald.h"
#include "recordings/recording_folder.h"
#include "retention.h"

namespace zelta::deliver {
namespace {

// A recorder lets go of its folder without a trace in it, and network file systems tell nothing:
// folders whose recording runs are looked at as often as that, all of them more seldom.
constexpr int64_t kRunningMs = 2000;
constexpr int64_t kAllMs = 60'000;

// Each folder takes a descriptor for its lock.
void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  // Without it, fewer folders: those that can't be locked are told.
  static_cast<void>(setrlimit(RLIMIT_NOFILE, &limit));
}

std::set<std::pair<std::string, std::string>> dead_of(const consignment& one) {
  std::set<std::pair<std::string, std::string>> dead;
  for (const auto& [name, file] : one.state().files) {
    for (const auto& [target, at] : file.targets) {
      if (at.at == stage::kDead) dead.insert({name, target});
    }
  }
  return dead;
}

}  // namespace

courier::courier(const options& asked, const delivery_settings& settings)
    : asked_(asked),
      settings_(settings),
      limits_(settings.kbps),
      reports_(asked.json),
      done_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      held_until_ms_(settings.targets.size(), 0) {
  for (const target_settings& one : settings.targets) {
    targets_.push_back(make_target(one, settings.stall, limits_));
  }
}

courier::~courier() {
  stop_workers();
}

int courier::run(int signals) {
  if (!done_.valid()) {
    reports_.tell("broken", {{"error", "eventfd fails"}});
    return kBroken;
  }
  raise_descriptor_limit();
  if (!asked_.watch.empty()) {
    std::string error;
    watch_ = std::make_unique<tree_watch>(asked_.watch, error);
    if (!error.empty()) {
      reports_.tell("broken", {{"folder", asked_.watch}, {"error", error}});
      return kBroken;
    }
  }
  if (asked_.give_up_s > 0) give_up_ms_ = now_utc_ms() + int64_t{asked_.give_up_s} * 1000;
  start_workers();
  bool stopped = false;
  do {
    const std::lock_guard lock(mutex_);
    scan_due();
    hand_out();
    clean();
  } while (!is_done() && !(stopped = wait(signals)));
  stop_workers();
  if (stopped) reports_.tell("stopped", {});
  return stopped && watch_ ? static_cast<int>(kDelivered) : status();
}

void courier::scan_due() {
  const int64_t now_ms = now_utc_ms();
  const bool all = std::exchange(all_dirty_, false) || now_ms >= next_look_ms_;
  if (all) next_look_ms_ = now_ms + kAllMs;
  const bool round = now_ms >= next_round_ms_;
  if (all || round) next_round_ms_ = now_ms + kRunningMs;
  if (all) {
    open_folders(watch_ ? tree_watch::recordings_under(asked_.watch)
                        : std::set<std::string>(asked_.folders.begin(), asked_.folders.end()));
  } else if (!dirty_.empty() && watch_) {
    open_folders(dirty_);
  }
  if (watch_) forget_gone();
  for (const auto& one : folders_) {
    if (all || dirty_.count(one->folder()) != 0 || (round && !one->is_over())) scan(*one);
  }
  dirty_.clear();
}

// Of what is watched. One that comes again under its name is another one.
void courier::forget_gone() {
  const auto is_gone = [this](const std::unique_ptr<consignment>& one) {
    if (one->in_flight() || access(one->folder().c_str(), F_OK) == 0 || errno != ENOENT) {
      return false;
    }
    if (one->has_pending()) {
      reports_.tell("broken", {{"folder", one->folder()},
                               {"error", "the folder is gone, and not all of it was delivered"}});
    }
    return true;
  };
  folders_.erase(std::remove_if(folders_.begin(), folders_.end(), is_gone), folders_.end());
}

void courier::open_folders(const std::set<std::string>& folders) {
  for (const std::string& folder : folders) {
    const bool known = std::any_of(folders_.begin(), folders_.end(),
                                   [&folder](const auto& one) { return one->folder() == folder; });
    if (!known) open_folder(folder);
  }
}

void courier::open_folder(const std::string& folder) {
  std::vector<std::string> ignored;
  // In what is watched there are other folders, too.
  if (watch_ && recordings::read_manifests(folder, ignored).empty()) return;
  const auto tell = [&](const std::string& fault) {
    if (std::exchange(told_[folder], fault) != fault) {
      reports_.tell("broken", {{"folder", folder}, {"error", fault}});
    }
    broken_ = true;
  };
  std::string error;
  base::unique_fd lock = lock_deliveries(folder, error);
  if (!error.empty()) return tell(error);
  if (!lock.valid()) {
    if (others_.insert(folder).second) reports_.tell("busy", {{"folder", folder}});
    return;
  }
  others_.erase(folder);
  std::optional<ledger> state = load_ledger(folder, error);
  if (!state) return tell(error);
  if (state->remote.empty()) state->remote = remote_name(asked_, folder);
  auto made = std::make_unique<consignment>(folder, std::move(lock), std::move(*state), settings_);
  if (asked_.retry_dead) made->retry_dead();
  scan(*made);
  folders_.push_back(std::move(made));
}

void courier::scan(consignment& one) {
  std::vector<std::string> errors;
  const auto dead = dead_of(one);
  one.scan(asked_.left_over, errors);
  one.announce_session();
  if (!one.save()) errors.push_back(one.folder() + "/" + kLedgerName + ": " + one.fault());
  std::string fault;
  for (const std::string& error : errors) fault += (fault.empty() ? "" : "; ") + error;
  if (std::exchange(told_[one.folder()], fault) != fault && !fault.empty()) {
    reports_.tell("broken", {{"folder", one.folder()}, {"error", fault}});
  }
  if (!fault.empty()) broken_ = true;
  tell_buried(one, dead);
}

void courier::tell_buried(const consignment& one,
                          const std::set<std::pair<std::string, std::string>>& dead) {
  for (const auto& [file, target] : dead_of(one)) {
    if (dead.count({file, target}) != 0) continue;
    const entry& is = one.state().files.at(file);
    reports_.tell("dead letter", {{"folder", one.folder()},
                                  {"file", file},
                                  {"target", target},
                                  {"bytes", std::to_string(is.is.bytes)},
                                  {"error", is.targets.at(target).error}});
  }
}

void courier::hand_out() {
  const auto room = [this] {
    const size_t taken = busy_ + queue_.size();
    return workers_.size() - std::min(workers_.size(), taken);
  };
  const int64_t now_ms = now_utc_ms();
  for (const auto& folder : folders_) {
    consignment& one = *folder;
    one.announce_session();
    for (const bool for_hook : {false, true}) {
      if (room() > 0) hand_out_notice(one, for_hook);
    }
    for (consignment::errand& of : one.take_due(now_ms, room(), held_until_ms_)) {
      add_work([this, &one, of = std::move(of)](http_client& by) {
        carrier({mutex_, settings_, targets_, held_until_ms_, limits_, reports_}, by, one, of)
            .carry();
      });
    }
  }
}

bool courier::hand_out_notice(consignment& of, bool for_hook) {
  std::optional<notice> what = of.take_notice(for_hook, now_utc_ms());
  if (!what) return false;
  // Its id has to be known to whoever tells it again.
  if (!of.saved() && !of.save()) {
    of.notice_put_back(for_hook);
    return false;
  }
  add_work([this, &of, what = std::move(*what)](http_client& by) { tell_notice(by, of, what); });
  return true;
}

void courier::tell_notice(http_client& by, consignment& of, const notice& what) {
  outcome told;
  try {
    const auto& command = what.kind == "session" ? settings_.session_hook : settings_.file_hook;
    const auto say = [&](const std::string& line) {
      reports_.tell("hook", {{"folder", of.folder()}, {"id", what.id}, {"says", line}});
    };
    const bool wanted = what.for_hook ? !command.empty() : !settings_.webhook_url.empty();
    if (wanted) {
      told = what.for_hook ? run_hook(command, what, settings_, limits_, say)
                           : post_notice(by, settings_, what);
    }
  } catch (const std::exception& e) {
    told = {outcome::kLater, e.what(), 0};
  }
  const char* const name = what.for_hook ? "hook" : "webhook";
  const std::lock_guard lock(mutex_);
  if (told.is == outcome::kStopped) return of.notice_put_back(what.for_hook);
  // A hook that fails each time would hold up all that come after it; a webhook's order is kept.
  const bool last = what.for_hook && what.attempts + 1 >= settings_.refusals;
  if (told.is == outcome::kDone || last) {
    of.notice_done(what.for_hook);
  } else {
    const auto wait = backoff(what.attempts + 1, settings_.first_retry, settings_.longest_retry,
                              std::random_device{}());
    of.notice_failed(what.for_hook, now_utc_ms(),
                     std::max(wait, std::chrono::milliseconds(told.wait_ms)));
  }
  static_cast<void>(of.save());  // told again otherwise, by the same id
  if (told.is == outcome::kDone) {
    reports_.tell("told", {{"folder", of.folder()}, {"to", name}, {"id", what.id}});
  } else {
    reports_.tell(last ? "given up" : "failed",
                  {{"folder", of.folder()}, {"to", name}, {"id", what.id}, {"error", told.text}});
  }
}

void courier::clean() {
  const int64_t now_ms = now_utc_ms();
  for (const deletion& one : clean_up(folders_, settings_, now_ms, next_cleaning_ms_)) {
    reports_.tell(one.error.empty() ? "deleted" : "failed", {{"folder", one.folder},
                                                             {"file", one.file},
                                                             {"bytes", std::to_string(one.bytes)},
                                                             {"error", one.error}});
  }
}

// Of a run that ends: nothing is under way, nothing waits, and a last look finds nothing new.
bool courier::is_done() {
  if (watch_) return false;
  const std::lock_guard lock(mutex_);
  if (give_up_ms_ > 0 && now_utc_ms() >= give_up_ms_) return true;
  const auto is_busy = [](const auto& one) { return one->in_flight(); };
  if (std::any_of(folders_.begin(), folders_.end(), is_busy)) return false;
  for (const auto& one : folders_) scan(*one);
  return std::none_of(folders_.begin(), folders_.end(), [this](const auto& one) {
    return one->next_due_ms(held_until_ms_).has_value();
  });
}

int courier::wait_ms() {
  const std::lock_guard lock(mutex_);
  const int64_t now_ms = now_utc_ms();
  int64_t until = now_ms + kAllMs;
  const bool room = busy_ + queue_.size() < workers_.size();
  if (watch_) until = std::min(until, next_round_ms_);
  if (next_cleaning_ms_ > 0) until = std::min(until, next_cleaning_ms_);
  if (give_up_ms_ > 0) until = std::min(until, give_up_ms_);
  for (const auto& one : folders_) {
    const std::optional<int64_t> due = one->next_due_ms(held_until_ms_);
    // Without room it waits for a worker, who tells.
    if (due && room) until = std::min(until, *due);
  }
  return static_cast<int>(std::clamp<int64_t>(until - now_ms, 0, kAllMs));
}

// True when it is to stop.
bool courier::wait(int signals) {
  pollfd on[3] = {{signals, POLLIN, 0}, {done_.get(), POLLIN, 0}, {-1, POLLIN, 0}};
  if (watch_) on[2].fd = watch_->fd();
  const int ready = poll(on, 3, wait_ms());
  if (ready < 0) return errno != EINTR;
  uint64_t count = 0;
  // Nothing to be read is as good: it only wakes.
  if (on[1].revents != 0) static_cast<void>(read(done_.get(), &count, sizeof count) > 0);
  if (on[2].revents != 0) dirty_ = watch_->take(all_dirty_);
  return on[0].revents != 0;
}

int courier::status() const {
  bool unfinished = !others_.empty();
  bool dead = false;
  for (const auto& one : folders_) {
    unfinished = unfinished || one->has_pending() || !one->is_over();
    dead = dead || one->has_dead();
    if (!one->saved()) return kBroken;
  }
  if (broken_) return kBroken;
  if (dead) return kDeadLetters;
  return unfinished ? kUnfinished : kDelivered;
}

void courier::start_workers() {
  for (int left = settings_.connections; left > 0; --left) {
    workers_.emplace_back([this] { work_on(); });
  }
}

void courier::stop_workers() {
  limits_.stop();
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    queued_.notify_all();
  }
  for (std::thread& one : workers_) one.join();
  workers_.clear();
}

void courier::work_on() {
  http_client client(limits_);
  std::unique_lock lock(mutex_);
  for (;;) {
    queued_.wait(lock, [this] { return ending_ || !queue_.empty(); });
    if (ending_) return;
    const work what = std::move(queue_.front());
    queue_.pop_front();
    ++busy_;
    lock.unlock();
    what(client);
    lock.lock();
    --busy_;
    const uint64_t one = 1;
    // It can only be full of wake-ups that aren't read yet.
    static_cast<void>(write(done_.get(), &one, sizeof one) > 0);
  }
}

void courier::add_work(work what) {
  queue_.push_back(std::move(what));
  queued_.notify_one();
}

}  // namespace zelta::deliver
