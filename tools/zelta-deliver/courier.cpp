// SPDX-License-Identifier: Apache-2.0
#include "courier.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <random>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include "exit_status.h"
#include "herald.h"
#include "names.h"

namespace zelta::deliver {
namespace {

// A recorder lets go of its folder without a trace in it, and network file systems tell nothing:
// folders whose recording runs are looked at as often as that, all of them more seldom.
constexpr int64_t kRunningMs = 2000;
constexpr int64_t kAllMs = 60'000;
constexpr int64_t kSweepMs = 50;
// What cleaning may take of the time is one part in so many.
constexpr int64_t kCleaningShare = 20;

// Each folder takes a descriptor for its lock.
void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  // Without it, fewer folders: those that can't be locked are told.
  static_cast<void>(setrlimit(RLIMIT_NOFILE, &limit));
}

template <class Value>
void lower(std::optional<Value>& least, const std::optional<Value>& than) {
  if (than) least = std::min(*than, least.value_or(*than));
}

}  // namespace

courier::courier(const options& asked, const delivery_settings& settings)
    : asked_(asked),
      settings_(settings),
      limits_(settings.kbps),
      reports_(asked.json),
      done_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      gates_(settings.targets.size(), settings.connections, settings.first_retry,
             settings.longest_retry),
      copies_(settings.targets.size()),
      kept_(settings) {
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
  if (asked_.give_up_s > 0) give_up_ms_ = steady_ms() + int64_t{asked_.give_up_s} * 1000;
  start_workers();
  bool stopped = false;
  do {
    {
      const std::lock_guard lock(mutex_);
      turn();
    }
    reports_.tell_noted();
  } while (!is_done() && !(stopped = wait(signals)));
  stop_workers();
  for (const auto& [name, one] : folders_) {
    tell_buried(*one);
    if (one->lazy_save_ms()) static_cast<void>(one->save());
    // Without a word it would look as if there had been nothing to do.
    if (!watch_ && !one->is_over() && one->fault().empty()) {
      reports_.note("unfinished", {{"folder", one->folder()},
                                   {"error", "it is still recorded; --watch waits for its end"}});
    }
  }
  if (stopped) reports_.note("stopped", {});
  reports_.tell_noted();
  return stopped && watch_ ? static_cast<int>(kDelivered) : status();
}

delivery_numbers courier::numbers() {
  const std::lock_guard lock(mutex_);
  delivery_numbers made;
  for (const auto& [name, one] : folders_) add_numbers(one->state(), made);
  return made;
}

void courier::turn() {
  scan_due();
  hand_out();
  clean();
  sweep();
}

// What has to be looked for in all folders isn't looked for each time that a worker ends something.
void courier::sweep() {
  const int64_t now_ms = steady_ms();
  const bool is_time = next_save_ms_ && now_ms >= *next_save_ms_;
  if (now_ms < sweep_from_ms_ || (!may_sweep_ && !is_time)) return;
  may_sweep_ = false;
  for (const auto& [name, one] : folders_) tell_buried(*one);
  save_late();
  if (watch_) let_go_of_finished();
  sweep_from_ms_ = now_ms + kSweepMs;
}

void courier::scan_due() {
  const int64_t now_ms = steady_ms();
  const bool all = std::exchange(all_dirty_, false) || now_ms >= next_look_ms_;
  if (all) next_look_ms_ = now_ms + kAllMs;
  const bool round = now_ms >= next_round_ms_;
  if (all || round) next_round_ms_ = now_ms + kRunningMs;
  if (watch_ && (all || !dirty_.empty())) forget_gone();
  // Opened ones are scanned by that.
  std::vector<consignment*> known;
  for (const auto& [name, one] : folders_) known.push_back(one.get());
  if (all) {
    open_folders(watch_ ? tree_watch::recordings_under(asked_.watch)
                        : std::set<std::string>(asked_.folders.begin(), asked_.folders.end()));
  } else if (!dirty_.empty() && watch_) {
    open_folders(dirty_);
  }
  for (consignment* const one : known) {
    if (all || dirty_.count(one->folder()) != 0 || (round && !one->is_over())) scan(*one);
  }
  dirty_.clear();
}

// Of what is watched. One that comes again under its name is another one.
void courier::forget_gone() {
  for (auto at = folders_.begin(); at != folders_.end();) {
    const consignment& one = *at->second;
    if (one.in_flight() || one.in_place()) {
      ++at;
      continue;
    }
    if (one.has_pending()) {
      reports_.note("broken", {{"folder", one.folder()},
                               {"error", "the folder is gone, and not all of it was delivered"}});
    }
    faults_.erase(at->first);
    at = folders_.erase(at);
  }
}

// Of an archive that only grows there would be a state and a descriptor for each folder.
void courier::let_go_of_finished() {
  for (auto at = folders_.begin(); at != folders_.end();) {
    const consignment& one = *at->second;
    const auto fault = faults_.find(at->first);
    const bool is_finished = one.is_over() && !one.in_flight() && !one.has_pending() &&
                             one.saved() && (fault == faults_.end() || fault->second.empty()) &&
                             kept_.is_through_with(one);
    if (!is_finished) {
      ++at;
      continue;
    }
    finished_[at->first] = mark_of(at->first);
    at = folders_.erase(at);
  }
}

void courier::open_folders(const std::set<std::string>& folders) {
  for (const std::string& folder : folders) {
    if (folders_.count(folder) != 0) continue;
    const auto before = finished_.find(folder);
    if (before != finished_.end()) {
      // What is written into a file of it is told by inotify alone.
      if (dirty_.count(folder) == 0 && mark_of(folder) == before->second) continue;
      finished_.erase(before);
    }
    open_folder(folder);
  }
}

void courier::open_folder(const std::string& folder) {
  if (!is_sound_text(folder)) {
    return tell_fault(folder, shown_name(folder) + " can't be delivered: its name isn't UTF-8");
  }
  if (!tree_watch::holds_recording(folder)) {
    // In what is watched there are other folders, too.
    if (!watch_) tell_fault(folder, folder + " holds no recording: there is no recording.json");
    return;
  }
  std::string error;
  base::unique_fd lock = lock_deliveries(folder, error);
  if (!error.empty()) return tell_fault(folder, error);
  if (!lock.valid()) {
    if (others_.insert(folder).second) reports_.note("busy", {{"folder", folder}});
    return;
  }
  others_.erase(folder);
  std::optional<ledger> state = load_ledger(folder, error);
  if (!state) return tell_fault(folder, error);
  if (state->remote.empty()) state->remote = remote_name(asked_, folder);
  auto made = std::make_unique<consignment>(folder, std::move(lock), std::move(*state), settings_);
  if (asked_.retry_dead) made->retry_dead();
  scan(*made);
  folders_[folder] = std::move(made);
  may_clean_ = true;
}

void courier::scan(consignment& one) {
  std::vector<std::string> errors;
  one.scan(asked_.left_over, errors);
  one.announce_session();
  may_clean_ = may_clean_ || !one.saved();
  if (one.lazy_save_ms() && !one.save()) {
    errors.push_back(one.folder() + "/" + kLedgerName + ": " + one.fault());
  }
  may_sweep_ = true;
  std::string fault;
  for (const std::string& error : errors) fault += (fault.empty() ? "" : "; ") + error;
  tell_fault(one.folder(), fault);
  tell_buried(one);
}

void courier::tell_fault(const std::string& folder, const std::string& fault) {
  if (std::exchange(faults_[folder], fault) != fault && !fault.empty()) {
    reports_.note("broken", {{"folder", folder}, {"error", fault}});
  }
}

void courier::tell_buried(consignment& one) {
  for (const consignment::errand& of : one.take_buried()) {
    reports_.note("dead letter", {{"folder", one.folder()},
                                  {"file", of.file},
                                  {"target", settings_.targets[of.target].name},
                                  {"bytes", std::to_string(one.file(of.file).is.bytes)},
                                  {"error", one.at(of).error}});
  }
}

size_t courier::room() const {
  const size_t taken = busy_ + queue_.size();
  return workers_.size() - std::min(workers_.size(), taken);
}

// Each time another one comes first, or what is due in the first ones would take all.
void courier::hand_out() {
  if (folders_.empty() || room() == 0) return;
  for (size_t target = 0; target < copies_.size(); ++target) {
    copies_[target] = 0;
    if (!settings_.targets[target].is_sealed()) continue;
    for (const auto& [name, one] : folders_) copies_[target] += one->sealed(target);
  }
  auto at = folders_.upper_bound(first_folder_);
  for (size_t left = folders_.size(); left > 0 && room() > 0; --left) {
    if (at == folders_.end()) at = folders_.begin();
    first_folder_ = at->first;
    hand_out(*at->second);
    ++at;
  }
}

void courier::hand_out(consignment& one) {
  one.announce_session();
  for (const bool for_hook : {false, true}) {
    if (room() > 0 && (for_hook || !posting_)) hand_out_notice(one, for_hook);
  }
  const size_t targets = settings_.targets.size();
  first_target_ = (first_target_ + 1) % targets;
  for (size_t turn = 0; turn < targets; ++turn) {
    const size_t target = (first_target_ + turn) % targets;
    const size_t most = std::min(room(), gates_.room(target, steady_ms()));
    if (most == 0) continue;
    for (consignment::errand& of : one.take_due(target, now_utc_ms(), most)) {
      gates_.began(target);
      add_work([this, &one, of = std::move(of)](http_client& by) {
        carrier({mutex_, settings_, targets_, gates_, copies_, limits_, reports_}, by, one, of)
            .carry();
      });
    }
  }
}

bool courier::hand_out_notice(consignment& of, bool for_hook) {
  std::optional<notice> what = of.take_notice(for_hook, now_utc_ms());
  if (!what) return false;
  // Its id has to be known to whoever tells it again.
  if (!of.save()) {
    of.notice_postponed(for_hook, now_utc_ms(),
                        std::max(settings_.first_retry, std::chrono::milliseconds(1000)));
    return false;
  }
  if (!for_hook) posting_ = true;
  add_work([this, &of, what = std::move(*what)](http_client& by) { tell_notice(by, of, what); });
  return true;
}

void courier::tell_notice(http_client& by, consignment& of, const notice& what) {
  const std::string folder = of.folder();
  outcome told;
  try {
    const auto& command = what.kind == "session" ? settings_.session_hook : settings_.file_hook;
    const auto say_line = [&](const std::string& line) {
      reports_.tell("hook", {{"folder", folder}, {"id", what.id}, {"says", line}});
    };
    const bool wanted = what.for_hook ? !command.empty() : !settings_.webhook_url.empty();
    if (wanted) {
      told = what.for_hook ? run_hook(command, what, settings_, limits_, say_line)
                           : post_notice(by, settings_, what);
    }
  } catch (const std::exception& e) {
    told = {outcome::kLater, e.what(), 0};
  }
  const char* const name = what.for_hook ? "hook" : "webhook";
  // A hook that fails each time would hold up all that come after it; a webhook's order is kept,
  // and what isn't the hook's fault isn't counted.
  const bool counts = !what.for_hook || told.is == outcome::kRefused;
  const bool last = what.for_hook && counts && what.attempts + 1 >= settings_.refusals;
  {
    const std::lock_guard lock(mutex_);
    if (!what.for_hook) posting_ = false;
    may_clean_ = true;
    if (told.is == outcome::kStopped) return of.notice_put_back(what.for_hook);
    const auto backed_off = backoff(what.attempts + 1, settings_.first_retry,
                                    settings_.longest_retry, std::random_device{}());
    const auto wait = std::max(backed_off, std::chrono::milliseconds(told.wait_ms));
    if (told.is == outcome::kDone || last) {
      of.notice_done(what.for_hook);
    } else if (counts) {
      of.notice_failed(what.for_hook, now_utc_ms(), wait);
    } else {
      of.notice_postponed(what.for_hook, now_utc_ms(), wait);
    }
    static_cast<void>(of.save_lazily(steady_ms()));  // told again otherwise, by the same id
    if (told.is == outcome::kDone) {
      reports_.note("told", {{"folder", folder}, {"to", name}, {"id", what.id}});
    } else {
      reports_.note(last ? "given up" : "failed",
                    {{"folder", folder}, {"to", name}, {"id", what.id}, {"error", told.text}});
    }
  }
  reports_.tell_noted();
}

void courier::clean() {
  const int64_t began_ms = steady_ms();
  if (kept_.keeps_all() || began_ms < cleaned_from_ms_) return;
  const bool is_time = next_cleaning_ms_ > 0 && began_ms >= next_cleaning_ms_;
  if (!may_clean_ && !is_time) return;
  may_clean_ = false;
  std::vector<consignment*> all;
  for (const auto& [name, one] : folders_) all.push_back(one.get());
  for (const deletion& one : kept_.clean_up(all, now_utc_ms())) {
    reports_.note(one.error.empty() ? "deleted" : "failed", {{"folder", one.folder},
                                                             {"file", one.file},
                                                             {"bytes", std::to_string(one.bytes)},
                                                             {"error", one.error}});
  }
  const int64_t now_ms = steady_ms();
  cleaned_from_ms_ = now_ms + (now_ms - began_ms) * kCleaningShare;
  next_cleaning_ms_ = kept_.wait_ms() ? now_ms + *kept_.wait_ms() : 0;
}

// What was put off, and what couldn't be kept.
void courier::save_late() {
  const int64_t now_ms = steady_ms();
  next_save_ms_.reset();
  for (const auto& [name, one] : folders_) {
    const std::optional<int64_t> due_ms = one->lazy_save_ms();
    if (!due_ms) continue;
    if (*due_ms > now_ms) {
      lower(next_save_ms_, due_ms);
      continue;
    }
    const bool had_failed = !one->fault().empty();
    if (one->save()) {
      may_clean_ = true;
      if (had_failed) tell_fault(name, "");
    } else {
      tell_fault(name, one->folder() + "/" + kLedgerName + ": " + one->fault());
      lower(next_save_ms_, one->lazy_save_ms());
    }
  }
}

// Of a run that ends: nothing is under way, nothing waits, and a last look finds nothing new.
bool courier::is_done() {
  if (watch_) return false;
  const std::lock_guard lock(mutex_);
  if (give_up_ms_ > 0 && steady_ms() >= give_up_ms_) return true;
  if (busy_ > 0 || !queue_.empty() || may_sweep_ || (may_clean_ && !kept_.keeps_all()))
    return false;
  // What can't be kept isn't waited for.
  const bool late = std::any_of(folders_.begin(), folders_.end(), [](const auto& one) {
    return one.second->lazy_save_ms() && one.second->fault().empty();
  });
  if (late || due_in_ms()) return false;
  for (const auto& [name, one] : folders_) scan(*one);
  may_sweep_ = false;
  return !due_in_ms() && (!may_clean_ || kept_.keeps_all());
}

// Until something can be done that only waits for its time.
std::optional<int64_t> courier::due_in_ms() const {
  const int64_t utc_ms = now_utc_ms();
  const int64_t now_ms = steady_ms();
  std::optional<int64_t> least;
  for (size_t target = 0; target < settings_.targets.size(); ++target) {
    const std::optional<int64_t> gate = gates_.wait_ms(target, now_ms);
    // What is under way there ends, and tells.
    if (!gate) continue;
    for (const auto& [name, one] : folders_) {
      const std::optional<int64_t> due = one->wait_ms(target, utc_ms);
      if (due) lower(least, std::optional(std::max(*due, *gate)));
      if (least == *gate) break;
    }
  }
  for (const auto& [name, one] : folders_) {
    if (!posting_) lower(least, one->notice_wait_ms(false, utc_ms));
    lower(least, one->notice_wait_ms(true, utc_ms));
  }
  return least;
}

int courier::wait_ms() {
  const std::lock_guard lock(mutex_);
  const int64_t now_ms = steady_ms();
  int64_t until = now_ms + kAllMs;
  // Without room it waits for a worker, who tells.
  if (const auto due = room() > 0 ? due_in_ms() : std::nullopt) {
    until = std::min(until, now_ms + *due);
  }
  if (watch_) until = std::min(until, next_round_ms_);
  if (next_cleaning_ms_ > 0) until = std::min(until, std::max(next_cleaning_ms_, cleaned_from_ms_));
  if (may_clean_ && !kept_.keeps_all()) until = std::min(until, cleaned_from_ms_);
  if (give_up_ms_ > 0) until = std::min(until, give_up_ms_);
  if (next_save_ms_) until = std::min(until, *next_save_ms_);
  if (may_sweep_) until = std::min(until, sweep_from_ms_);
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
  bool broken = std::any_of(faults_.begin(), faults_.end(),
                            [](const auto& one) { return !one.second.empty(); });
  for (const auto& [name, one] : folders_) {
    unfinished = unfinished || one->has_pending() || !one->is_over();
    dead = dead || one->has_dead();
    broken = broken || !one->fault().empty();
  }
  if (broken) return kBroken;
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
    may_clean_ = true;
    may_sweep_ = true;
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
