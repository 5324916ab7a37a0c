// SPDX-License-Identifier: Apache-2.0
// What goes wrong in the simulated day, and the upgrade, which is done on purpose.
#include <algorithm>
#include <utility>

#include "bench/fleet/simulation.h"

namespace zelta::fleet_model {
namespace {

constexpr double kHour = 3600;
constexpr double kDay = 24 * kHour;

// The worker's own rule, at the simulation's times.
fleet::lease lease_of(double lease_s, sim_time proven) {
  return {std::chrono::milliseconds(static_cast<int64_t>(lease_s * 1000)),
          fleet::lease::clock::time_point(proven)};
}

sim_time time_of(fleet::lease::clock::time_point at) {
  return std::chrono::duration_cast<sim_time>(at.time_since_epoch());
}

}  // namespace

void simulation::plan_faults() {
  const auto plan = [this](double hour, what of) {
    if (hour >= 0) events_.add(from_seconds(hour * kHour), of, 0);
  };
  plan(by_.zone_dies_at_h, what::kZoneDies);
  plan(by_.election_at_h, what::kElection);
  plan(by_.upgrade_at_h, what::kUpgrade);
  plan_death();
}

void simulation::plan_death() {
  const double a_second = by_.workers / (by_.worker_dies_every_days * kDay);
  const double at = to_seconds(now_) + std::exponential_distribution<double>(a_second)(random_);
  if (at < kDay) events_.add(std::max(now_, from_seconds(at)), what::kWorkerDies, 0);
}

// ---- Deaths --------------------------------------------------------------------------------

// The first look at or after `from` at which one is due. Looks begin when the job is taken.
sim_time simulation::next_renewal(const job& of, sim_time proven, sim_time from) const {
  const fleet::lease lease = lease_of(by_.lease_s, proven);
  const sim_time pause = lease.pause();
  const sim_time since = std::max(std::max(from, proven) - of.taken, sim_time(0));
  sim_time look = of.taken + (since + pause - sim_time(1)) / pause * pause;
  while (!lease.is_due(fleet::lease::clock::time_point(look))) look += pause;
  return look;
}

// The last that was answered; servers that elect answer none.
sim_time simulation::last_renewal(const job& of, sim_time until) const {
  if (of.now == stage::kTaking || until < of.taken) return of.proven;
  const raft_group& by = groups_[of.label % groups_.size()];
  // From one that is answered to the next.
  const sim_time apart = next_renewal(of, of.taken, of.taken) - of.taken;
  // Of those at `first` and each `apart` from there; `none`: what was before.
  const auto last_of = [apart](sim_time first, sim_time end, sim_time none) {
    return end < first ? none : first + (end - first) / apart * apart;
  };
  const sim_time first = next_renewal(of, of.proven, of.taken);
  const sim_time undisturbed = last_of(first, until, of.proven);
  if (undisturbed < by.down_since || first >= by.down_until) return undisturbed;
  const sim_time before = last_of(first, by.down_since - sim_time(1), of.proven);
  return last_of(next_renewal(of, before, by.down_until), until, before);
}

void simulation::stop_recording(job& of, cause why, sim_time at) {
  if (of.now != stage::kRecording) return;
  of.stopped = at;
  of.why = why;
}

void simulation::kill(uint32_t worker, cause why, sim_time repair) {
  const std::vector<uint32_t> had = workers_.jobs(worker);
  for (const uint32_t number : had) {
    job& of = jobs_[number];
    const sim_time last = last_renewal(of, now_);
    // A recorder whose worker is gone goes on until its own lease ends.
    const bool goes_on = why == cause::kProcessDied;
    stop_recording(of, why, goes_on ? time_of(lease_of(by_.lease_s, last).stop_at()) : now_);
    release(of);
    of.now = stage::kOrphan;
    events_.add(std::max(last + from_seconds(by_.lease_s), now_), what::kLeaseEnds, number,
                of.life);
  }
  workers_.die(worker, now_);
  events_.add(now_ + repair, what::kWorkerBack, worker);
}

void simulation::on_worker_dies() {
  plan_death();
  const auto worker = std::uniform_int_distribution<uint32_t>(0, workers_.count() - 1)(random_);
  const bool alone = std::bernoulli_distribution(by_.deaths_of_process)(random_);
  if (!workers_.is_alive(worker)) return;
  ++made_.deaths;
  kill(worker, alone ? cause::kProcessDied : cause::kMachineDied,
       from_seconds(alone ? by_.process_restart_s : by_.worker_repair_s));
}

void simulation::on_lease_ends(job& of, uint32_t number) {
  const bool is_alone = of.now == stage::kStopped || of.now == stage::kOrphan;
  // One that is on its way back is given out by that.
  if (!is_alone && (!is_held(of.now) || of.now == stage::kReturning)) return;
  const sim_time looks_at = group_of(of).looks_at;
  if (now_ < looks_at) {
    events_.add(looks_at, what::kLeaseEnds, number, of.life);
    return;
  }
  if (is_alone) return queue_again(of, number);
  give_again(of, number);
}

void simulation::on_worker_back(uint32_t worker) {
  workers_.come_back(worker, now_);
  look(worker);
  dispatch(workers_.label(worker));
  if (!upgrading_[worker]) return;
  upgrading_[worker] = false;
  --upgrades_on_;
  upgrade_next();
}

// Its workers, and a broker, which is taken to have led everything.
void simulation::on_zone_dies() {
  for (uint32_t worker = 0; worker < workers_.count(); ++worker) {
    if (workers_.zone(worker) != 0 || !workers_.is_alive(worker)) continue;
    kill(worker, cause::kZoneDied, from_seconds(by_.zone_repair_s));
  }
  for (uint32_t group = 0; group < groups_.size(); ++group) elect(group);
}

// ---- Elections -----------------------------------------------------------------------------

// The first cluster's first one. Groups are dealt out to clusters, and then to their brokers, which
// lead as many each.
void simulation::on_broker_dies() {
  const auto step = static_cast<uint32_t>(by_.clusters * by_.brokers);
  for (uint32_t group = 0; group < groups_.size(); group += step) elect(group);
}

void simulation::elect(uint32_t number) {
  raft_group& of = groups_[number];
  const bool begins = now_ >= of.down_until;
  for (job& held : jobs_) {
    // Later ones are counted from there, as a group knows its last silence alone.
    if (!begins || !is_held(held.now) || held.label % groups_.size() != number) continue;
    held.proven = last_renewal(held, now_ - sim_time(1));
  }
  if (begins) of.down_since = now_;
  of.down_until = std::max(of.down_until, now_ + from_seconds(by_.election_s));
  of.looks_at = of.down_until + from_seconds(by_.look_s);
  for (uint32_t at = 0; at < jobs_.size(); ++at) {
    const job& held = jobs_[at];
    if (!is_held(held.now) || held.label % groups_.size() != number) continue;
    const sim_time last = last_renewal(held, now_);
    const fleet::lease lease = lease_of(by_.lease_s, last);
    // Whether it was renewed until then is seen then.
    events_.add(std::max(time_of(lease.stop_at()), now_), what::kStops, at, held.life);
    events_.add(std::max(last + from_seconds(by_.lease_s), of.looks_at), what::kLeaseEnds, at,
                held.life);
  }
  events_.add(of.down_until, what::kElectionOver, number);
}

// The queue thinks that its worker has lost it, which records it until it hears who has it.
void simulation::give_again(job& of, uint32_t number) {
  // A renewal that comes as it ends may come too late.
  const sim_time last = last_renewal(of, now_ - sim_time(1));
  if (last + from_seconds(by_.lease_s) > now_) return;
  const uint32_t had = of.worker;
  if (of.now == stage::kTaking) workers_.took(had);
  if (of.now == stage::kRecording) of.still_by = had;
  stop_recording(of, cause::kElection, time_of(lease_of(by_.lease_s, last).stop_at()));
  release(of);
  queue_again(of, number);
  look(had);
  end_if_idle(had);
}

void simulation::on_stops(job& of) {
  if (!is_held(of.now) || of.now == stage::kReturning) return;
  // That it is over comes before one more try.
  const sim_time last = last_renewal(of, now_ - sim_time(1));
  if (time_of(lease_of(by_.lease_s, last).stop_at()) > now_) return;
  if (of.now == stage::kTaking) workers_.took(of.worker);
  stop_recording(of, cause::kElection, now_);
  release(of);
  of.now = stage::kStopped;
  look(of.worker);
  end_if_idle(of.worker);
}

void simulation::on_election_over(uint32_t group) {
  for (size_t label = group; label < lines_.size(); label += groups_.size()) {
    dispatch(static_cast<uint16_t>(label));
  }
}

// ---- The upgrade ---------------------------------------------------------------------------

void simulation::on_upgrade() {
  upgrade_next_ = 0;
  upgrade_began_ = now_;
  const auto at_once = static_cast<int>(by_.upgrade_at_once);
  for (int at = 0; at < at_once; ++at) upgrade_next();
}

void simulation::upgrade_next() {
  while (upgrade_next_ < workers_.count()) {
    const uint32_t worker = upgrade_next_++;
    // Who is down comes back as what is installed by then.
    if (!workers_.is_alive(worker) || workers_.is_draining(worker)) continue;
    upgrading_[worker] = true;
    ++upgrades_on_;
    return drain(worker);
  }
  if (upgrades_on_ == 0) made_.upgrade_s = to_seconds(now_ - upgrade_began_);
}

void simulation::drain(uint32_t worker) {
  workers_.drain(worker);
  for (const uint32_t number : workers_.jobs(worker)) {
    job& of = jobs_[number];
    if (of.now != stage::kRecording && of.now != stage::kStarting) continue;
    stop_recording(of, cause::kUpgrade, now_);
    of.now = stage::kReturning;
    events_.add(now_ + from_seconds(by_.leave_s), what::kPutBack, number, of.life);
  }
  end_if_idle(worker);
}

void simulation::on_put_back(job& of, uint32_t number) {
  if (of.now != stage::kReturning) return;
  const uint32_t worker = of.worker;
  const sim_time ends = last_renewal(of, now_) + from_seconds(by_.lease_s);
  release(of);
  // That it ends, and that it waits.
  write_state(of, now_);
  write_state(of, now_);
  load_.add(kind::kDelivery);
  if (is_down(of)) {
    of.now = stage::kOrphan;
    events_.add(std::max(ends, now_), what::kLeaseEnds, number, of.life);
  } else {
    queue_again(of, number);
  }
  end_if_idle(worker);
}

void simulation::end_if_idle(uint32_t worker) {
  if (!workers_.is_alive(worker) || !workers_.is_draining(worker)) return;
  if (!workers_.jobs(worker).empty()) return;
  workers_.die(worker, now_);
  events_.add(now_ + from_seconds(by_.upgrade_restart_s), what::kWorkerBack, worker);
}

}  // namespace zelta::fleet_model
