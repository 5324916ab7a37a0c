// SPDX-License-Identifier: Apache-2.0
#include "bench/fleet/simulation.h"

#include <algorithm>
#include <utility>

namespace zelta::fleet_model {
namespace {

constexpr int64_t kDaySeconds = int64_t{24} * 3600;
// A drained worker that is given a job nevertheless puts it back for so long.
constexpr sim_time kAgain = std::chrono::seconds(1);
// A channel that is over when it is joined is noticed soon.
constexpr sim_time kShortest = std::chrono::milliseconds(100);

}  // namespace

simulation::simulation(const figures& by, reading of, uint64_t seed)
    : by_(by),
      random_(seed),
      demand_(by_, of, random_),
      workers_(by_, random_),
      load_(by_),
      groups_(static_cast<size_t>(by.clusters * by.streams)),
      lines_(static_cast<size_t>(by.labels)),
      upgrading_(static_cast<size_t>(by.workers)) {}

outcome simulation::run() {
  plan_arrival();
  plan_faults();
  while (!events_.empty()) {
    const event next = events_.next();
    while (second_ < std::chrono::floor<std::chrono::seconds>(next.at).count()) close_seconds();
    now_ = next.at;
    handle(next);
  }
  while (second_ < kDaySeconds) close_seconds();
  finish();
  return made_;
}

// ---- The clock -----------------------------------------------------------------------------

// What goes on all the time is counted once a second.
void simulation::close_seconds() {
  load_.add(kind::kRenewal, static_cast<double>(held_) / (by_.lease_s / 5 * by_.leases_a_renewal));
  const auto alive = static_cast<double>(workers_.alive());
  load_.add(kind::kReport, alive / by_.report_every_s);
  load_.add(kind::kAsk, static_cast<double>(workers_.asking()) / by_.ask_every_s);
  load_.add(kind::kPing, alive / by_.ping_every_s);
  load_.close_second(second_ < kDaySeconds);
  if (second_ < kDaySeconds && alive > 0) {
    const double busy = workers_.busy_processors() / (alive * workers_.limit_processors());
    busy_sum_ += busy;
    made_.processors_peak = std::max(made_.processors_peak, busy);
    made_.memory_peak = std::max(made_.memory_peak, workers_.memory_mb() / (alive * by_.memory_mb));
    made_.disk_peak = std::max(made_.disk_peak, workers_.disk_mb() / (by_.workers * by_.disk_mb));
    made_.full_peak = std::max(made_.full_peak, static_cast<double>(workers_.full()) / alive);
  }
  ++second_;
  if (second_ != kDaySeconds) return;
  for (const job& one : jobs_) {
    if (one.now == stage::kNone) continue;
    if (one.now == stage::kRecording) {
      ++made_.recorded_at_midnight;
    } else {
      ++made_.waiting_at_midnight;
    }
  }
}

void simulation::handle(const event& of) {
  switch (of.of) {
    case what::kArrival:
      return on_arrival();
    case what::kLook:
      workers_.looked(of.subject);
      look(of.subject);
      return dispatch(workers_.label(of.subject));
    case what::kDelivered:
      workers_.free_disk(of.subject, of.detail, now_);
      return look(of.subject);
    case what::kWorkerDies:
      return on_worker_dies();
    case what::kWorkerBack:
      return on_worker_back(of.subject);
    case what::kZoneDies:
      return on_zone_dies();
    case what::kElection:
      return on_broker_dies();
    case what::kElectionOver:
      return on_election_over(of.subject);
    case what::kUpgrade:
      return on_upgrade();
    default:
      return handle_job(of);
  }
}

void simulation::handle_job(const event& of) {
  job& subject = jobs_[of.subject];
  if (subject.life != of.detail) return;
  switch (of.of) {
    case what::kQueued:
      return on_queued(subject, of.subject);
    case what::kTaken:
      return on_taken(subject, of.subject);
    case what::kJoined:
      return on_joined(subject, of.subject);
    case what::kEnded:
      return on_ended(subject, of.subject);
    case what::kStops:
      return on_stops(subject);
    case what::kPutBack:
      return on_put_back(subject, of.subject);
    case what::kLeaseEnds:
      return on_lease_ends(subject, of.subject);
    default:
      return;
  }
}

void simulation::finish() {
  made_.processors_mean = busy_sum_ / static_cast<double>(kDaySeconds);
  made_.least_free_processors = workers_.least_free_processors();
  made_.least_free_memory_mb = workers_.least_free_memory_mb();
  made_.least_free_disk_mb = workers_.least_free_disk_mb();
  // Counted anew, by what there is, and not by what was said of it.
  uint64_t there = 0;
  for (const job& one : jobs_) {
    there += one.now != stage::kNone ? 1 : 0;
    made_.waiting_at_the_end += one.now == stage::kWaiting ? 1 : 0;
  }
  made_.lost = made_.sent - std::min(made_.sent, made_.ended + made_.waiting_at_the_end);
  made_.ended_twice = free_.size() + there - std::min<uint64_t>(free_.size() + there, jobs_.size());
}

// When it is in the store: one at a time goes to the replicas, beside what users' comings write.
sim_time simulation::write_state(const job& of, sim_time at) {
  load_.add(kind::kStateWrite);
  raft_group& by = group_of(of);
  const double others =
      load_.foretold(kind::kStateWrite) / static_cast<double>(groups_.size()) / by_.stream_writes;
  return by.states.admit(at, by.down_until, by_.stream_writes, others);
}

// ---- A job's life --------------------------------------------------------------------------

void simulation::plan_arrival() {
  const auto at = demand_.next_arrival(now_);
  if (at) events_.add(*at, what::kArrival, 0);
}

void simulation::on_arrival() {
  plan_arrival();
  uint32_t number = static_cast<uint32_t>(jobs_.size());
  if (free_.empty()) {
    jobs_.emplace_back();
  } else {
    number = free_.back();
    free_.pop_back();
  }
  job& made = jobs_[number];
  const uint32_t life = made.life;
  made = job{};
  made.life = life;
  made.sent = now_;
  ++made_.sent;
  made.users = demand_.users();
  made.label =
      static_cast<uint16_t>(std::uniform_int_distribution<size_t>(0, lines_.size() - 1)(random_));
  made.now = stage::kSent;
  made_.most_at_once = std::max<uint64_t>(made_.most_at_once, jobs_.size() - free_.size());
  // Whether it is there already, "waiting", then the job itself.
  load_.add(kind::kRead);
  load_.add(kind::kQueued);
  const sim_time hop = from_seconds(by_.hop_s);
  const sim_time noted = write_state(made, now_ + 3 * hop);
  events_.add(noted + 2 * hop, what::kQueued, number, made.life);
}

void simulation::on_queued(job& of, uint32_t number) {
  if (is_down(of)) {
    events_.add(group_of(of).down_until, what::kQueued, number, of.life);
    return;
  }
  of.now = stage::kWaiting;
  lines_[of.label].fresh.push_back(number);
  dispatch(of.label);
}

void simulation::dispatch(uint16_t label) {
  line& in = lines_[label];
  if (now_ < groups_[label % groups_.size()].down_until) return;
  while (!in.empty()) {
    const uint32_t worker = workers_.pick(label, now_, full_);
    for (const uint32_t one : full_) look(one);
    full_.clear();
    if (worker == kNobody) return;
    auto& from = in.again.empty() ? in.fresh : in.again;
    const uint32_t first = from.front();
    from.pop_front();
    deliver(first, worker);
  }
}

void simulation::deliver(uint32_t number, uint32_t worker) {
  job& of = jobs_[number];
  load_.add(kind::kDelivery);
  load_.add(kind::kRead, 2);
  workers_.give(worker, of, number, now_);
  ++held_;
  of.now = stage::kTaking;
  const sim_time hop = from_seconds(by_.hop_s);
  of.proven = lines_[of.label].deliveries.admit(now_, {}, by_.consumer_deliveries) + hop;
  // It reads state and wishes, and writes that it has it.
  of.taken = write_state(of, of.proven + 5 * hop) + hop;
  events_.add(of.taken, what::kTaken, number, of.life);
}

void simulation::on_taken(job& of, uint32_t number) {
  if (of.now != stage::kTaking) return;
  if (!of.was_taken) made_.queue.add(now_ - of.sent);
  of.was_taken = true;
  workers_.took(of.worker);
  const bool is_its_own = goes_on(of);
  if (workers_.is_draining(of.worker)) {
    of.now = stage::kReturning;
    events_.add(now_ + kAgain, what::kPutBack, number, of.life);
    return;
  }
  workers_.load(of.worker, of, now_);
  of.loaded = true;
  load_.add(kind::kSubscription);
  if (is_its_own) {
    of.now = stage::kRecording;
    events_.add(std::max(*of.ends, now_ + kShortest), what::kEnded, number, of.life);
  } else {
    of.now = stage::kStarting;
    const double takes =
        std::uniform_real_distribution<double>(by_.start_least_s, by_.start_most_s)(random_);
    events_.add(now_ + from_seconds(takes), what::kJoined, number, of.life);
  }
  look(of.worker);
  dispatch(of.label);
}

void simulation::on_joined(job& of, uint32_t number) {
  if (of.now != stage::kStarting) return;
  of.now = stage::kRecording;
  // Whoever still records it hears that, and stops.
  if (std::exchange(of.still_by, kNobody) != kNobody) of.stopped = std::min(*of.stopped, now_);
  if (of.stopped) {
    const auto why = static_cast<size_t>(of.why);
    made_.handover[why].add(std::max(now_ - *of.stopped, sim_time(0)));
    if (*of.stopped > now_) made_.twice[why].add(*of.stopped - now_);
  }
  of.stopped.reset();
  if (!of.ends) {
    made_.start.add(now_ - of.sent);
    of.ends = now_ + demand_.duration();
  }
  write_state(of, now_);
  load_.add(kind::kEvent, by_.recording_events / 2 / by_.events_a_message);
  say_users(of);
  events_.add(std::max(*of.ends, now_ + kShortest), what::kEnded, number, of.life);
}

// They come over a while, each with a state and events; those of their end are counted then.
void simulation::say_users(const job& of) {
  const auto most = static_cast<size_t>(by_.users_come_s);
  const double writes = 1 / by_.users_a_state_write;
  const double events = by_.user_events / 2 / by_.events_a_message;
  for (int user = 0; user < of.users; ++user) {
    const size_t in = std::uniform_int_distribution<size_t>(0, most)(random_);
    load_.add_later(kind::kStateWrite, writes, in);
    load_.add_later(kind::kEvent, events, in);
  }
}

void simulation::on_ended(job& of, uint32_t number) {
  if (of.now != stage::kRecording) return;
  release(of);
  // All users leave at once: while one state is on its way the others become one.
  write_state(of, now_);
  write_state(of, now_);
  load_.add(kind::kEvent,
            (by_.recording_events / 2 + of.users * by_.user_events / 2) / by_.events_a_message);
  load_.add(kind::kDelivery);
  of.now = stage::kNone;
  ++of.life;
  ++made_.ended;
  free_.push_back(number);
  look(of.worker);
  end_if_idle(of.worker);
  dispatch(of.label);
}

// Its worker has nothing to do with it any more, but for its files.
void simulation::release(job& of) {
  --held_;
  jobs_[workers_.take_back(of, of.loaded, now_)].place = of.place;
  if (!std::exchange(of.loaded, false)) return;
  load_.add(kind::kSubscription);
  events_.add(now_ + from_seconds(by_.disk_kept_s), what::kDelivered, of.worker, of.users);
}

// True: its worker still records it, and goes on by what it was given now.
bool simulation::goes_on(job& of) {
  if (of.still_by != of.worker || now_ >= *of.stopped) return false;
  if (workers_.is_draining(of.worker)) return false;
  of.still_by = kNobody;
  of.stopped.reset();
  return true;
}

// It is given to the next one that asks.
void simulation::queue_again(job& of, uint32_t number) {
  ++of.life;
  of.now = stage::kWaiting;
  lines_[of.label].again.push_back(number);
  dispatch(of.label);
}

void simulation::look(uint32_t worker) {
  const auto later = workers_.look(worker, now_);
  if (later) events_.add(*later, what::kLook, worker);
}

}  // namespace zelta::fleet_model
