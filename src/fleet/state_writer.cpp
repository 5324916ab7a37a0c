// SPDX-License-Identifier: Apache-2.0
#include "fleet/state_writer.h"

#include <chrono>
#include <utility>
#include <vector>

#include "fleet/amend.h"
#include "fleet/json_text.h"
#include "fleet/names.h"
#include "fleet/recording_state.h"

namespace zelta::fleet {
namespace {

constexpr std::chrono::milliseconds kRetry{500};
constexpr size_t kMostEvents = 4096;

bool is_same_stretch(const recording_state& a, const recording_state& b) {
  if (a.stretches.empty() || a.stretches.size() != b.stretches.size()) return false;
  const stretch& of_a = a.stretches.back();
  const stretch& of_b = b.stretches.back();
  return of_a.worker == of_b.worker && of_a.taken_utc_ms == of_b.taken_utc_ms;
}

}  // namespace

state_writer::state_writer(broker& by, told to) : by_(by), told_(std::move(to)) {
  thread_ = std::thread([this] { work(); });
}

state_writer::~state_writer() {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void state_writer::adopt(const std::string& job, uint64_t revision) {
  const std::lock_guard<std::mutex> hold(lock_);
  of_job& of = jobs_[job];
  of.revision = revision;
  of.adopted = ++last_adopted_;
  of.is_last = false;
  // What waits is of an earlier stretch.
  waiting_.erase(job);
}

bool state_writer::is_current(const std::string& job, uint64_t adopted) {
  const std::lock_guard<std::mutex> hold(lock_);
  const auto found = jobs_.find(job);
  return found == jobs_.end() || found->second.adopted == adopted;
}

uint64_t state_writer::note(const std::string& job, std::string text) {
  uint64_t number = 0;
  {
    const std::lock_guard<std::mutex> hold(lock_);
    const auto found = jobs_.find(job);
    if (found == jobs_.end()) return 0;
    number = ++last_number_;
    found->second.text = std::move(text);
    found->second.number = number;
    waiting_.insert(job);
  }
  changed_.notify_all();
  return number;
}

void state_writer::tell(const std::string& job, std::string text) {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    // The state says how it is now; what came to it is told for as long as there is room.
    if (events_.size() >= kMostEvents) events_.pop_front();
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    events_.push_back(
        {job, std::move(text), std::to_string(now) + "-" + std::to_string(++last_event_)});
  }
  changed_.notify_all();
}

void state_writer::wish(const std::string& job, std::string text) {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    wishes_[job] = std::move(text);
  }
  changed_.notify_all();
}

void state_writer::forget(const std::string& job, bool after_last) {
  const std::lock_guard<std::mutex> hold(lock_);
  const auto found = jobs_.find(job);
  if (after_last && found != jobs_.end() && waiting_.count(job) > 0) {
    found->second.is_last = true;
    return;
  }
  jobs_.erase(job);
  waiting_.erase(job);
}

// A revision that isn't the known one doesn't tell that somebody else has the job: the answer to an
// earlier writing may have been lost, and servers that came back may count otherwise. Who has it
// stands in the state.
change state_writer::write_state(const std::string& job, const std::string& text,
                                 uint64_t& revision, bool& at_once) {
  std::string error;
  const change made = by_.recordings().update(job, text, revision, error);
  if (made != change::kOutdated) return made;
  const std::optional<stored> there = by_.recordings().get(job, error);
  if (!error.empty()) return change::kFailed;
  if (there && there->value == text) {
    revision = there->revision;
    return change::kDone;
  }
  const auto known = there ? state_of(there->value, error) : std::optional<recording_state>();
  const auto ours = state_of(text, error);
  // Who is asked to end one whose worker hangs has it ended, and no stretch of theirs.
  if (!known || !ours || is_over(known->now) || !is_same_stretch(*known, *ours)) {
    at_once = known && (is_over(known->now) ||
                        (!known->stretches.empty() && known->stretches.back().joined_utc_ms != 0));
    return made;
  }
  revision = there->revision;
  // Once more at most: what is there by then is looked at with the next try.
  return by_.recordings().update(job, text, revision, error) == change::kDone ? change::kDone
                                                                              : change::kFailed;
}

// Whether all went. Servers that don't answer take seconds to fail: the next round begins behind
// the one that did, and not before what is to be told of it.
bool state_writer::write_states(std::unique_lock<std::mutex>& held) {
  std::vector<std::string> round(waiting_.upper_bound(failed_), waiting_.end());
  round.insert(round.end(), waiting_.begin(), waiting_.upper_bound(failed_));
  for (const std::string& job : round) {
    // What was adopted meanwhile has a new revision, and no new text yet.
    if (waiting_.erase(job) == 0) continue;
    const auto found = jobs_.find(job);
    if (found == jobs_.end()) continue;
    const std::string text = found->second.text;
    const uint64_t number = found->second.number;
    const uint64_t adopted = found->second.adopted;
    uint64_t revision = found->second.revision;
    held.unlock();
    bool at_once = false;
    const change made = write_state(job, text, revision, at_once);
    held.lock();
    const auto still = jobs_.find(job);
    if (still == jobs_.end() || still->second.adopted != adopted) continue;
    held.unlock();
    if (made == change::kDone) told_.kept(job, number);
    if (made == change::kOutdated) told_.outdated(job, adopted, at_once);
    held.lock();
    const auto now = jobs_.find(job);
    if (now == jobs_.end() || now->second.adopted != adopted) continue;
    const bool is_over = made == change::kDone && now->second.is_last && waiting_.count(job) == 0;
    if (made == change::kOutdated || is_over) {
      jobs_.erase(now);
      waiting_.erase(job);
      continue;
    }
    now->second.revision = revision;
    if (made == change::kDone) continue;
    waiting_.insert(job);
    failed_ = job;
    return false;
  }
  return true;
}

// That it is to end may have been wished meanwhile, while nobody could be told.
bool state_writer::write_wish(const std::string& job, const std::string& text) {
  const auto replace = [&text](Json::Value& wishes) {
    const Json::Value leave = wishes["leave"];
    wishes = parsed(text);
    if (leave.isBool()) wishes["leave"] = leave;
  };
  std::string error;
  return amend(by_.wishes(), job, replace, error);
}

bool state_writer::write_wishes(std::unique_lock<std::mutex>& held) {
  while (!wishes_.empty()) {
    const auto [job, text] = *wishes_.begin();
    held.unlock();
    const bool done = write_wish(job, text);
    held.lock();
    if (!done) return false;
    // Another one may have come meanwhile.
    const auto still = wishes_.find(job);
    if (still != wishes_.end() && still->second == text) wishes_.erase(still);
  }
  return true;
}

bool state_writer::write_events(std::unique_lock<std::mutex>& held) {
  while (!events_.empty()) {
    event one = std::move(events_.front());
    events_.pop_front();
    std::string error;
    held.unlock();
    bool ignored = false;
    const bool done = by_.publish(events_subject(one.job), one.text, one.id, ignored, error);
    held.lock();
    // Leases may hang on states, and on no event.
    if (done && !waiting_.empty()) return true;
    if (done) continue;
    events_.push_front(std::move(one));
    return false;
  }
  return true;
}

void state_writer::work() {
  std::unique_lock<std::mutex> held(lock_);
  for (;;) {
    changed_.wait(held, [this] {
      return ending_ || !waiting_.empty() || !wishes_.empty() || !events_.empty();
    });
    const bool is_last = ending_;
    const bool all = write_states(held) && write_wishes(held) && write_events(held);
    if (is_last) return;
    // Servers that don't answer now are asked again.
    if (!all) changed_.wait_for(held, kRetry, [this] { return ending_; });
  }
}

}  // namespace zelta::fleet
