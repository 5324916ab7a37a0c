// SPDX-License-Identifier: Apache-2.0
// A day of a fleet, event by event, and after it until every job is over.
//
// Renewals of leases are no events of their own: when the last one came follows from when a job was
// taken, and how many come in a second from how many jobs are held.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include "bench/fleet/broker_load.h"
#include "bench/fleet/demand.h"
#include "bench/fleet/events.h"
#include "bench/fleet/figures.h"
#include "bench/fleet/model.h"
#include "bench/fleet/spread.h"
#include "bench/fleet/workers.h"
#include "fleet/lease.h"

namespace zelta::fleet_model {

struct outcome {
  uint64_t sent = 0;
  uint64_t ended = 0;
  uint64_t ended_twice = 0;
  uint64_t lost = 0;  // neither ended nor anywhere: to be none
  uint64_t waiting_at_midnight = 0;
  uint64_t recorded_at_midnight = 0;
  uint64_t waiting_at_the_end = 0;  // there was never room for them
  uint64_t most_at_once = 0;
  spread queue;                          // from being sent to being taken
  spread start;                          // from being sent to the recorder's having joined
  std::array<spread, kCauses> handover;  // from nobody's recording it to somebody's
  std::array<spread, kCauses> twice;     // how long two recorded it
  uint64_t deaths = 0;
  double upgrade_s = 0;  // how long it took; 0: there was none
  // Shares of what all workers that are alive have; of processors, of what they may use.
  double processors_mean = 0;
  double processors_peak = 0;
  double memory_peak = 0;
  double disk_peak = 0;
  double full_peak = 0;  // of the workers: those that ask for nothing
  double least_free_processors = 0;
  double least_free_memory_mb = 0;
  double least_free_disk_mb = 0;
};

class simulation {
 public:
  simulation(const figures& by, reading of, uint64_t seed);
  simulation(const simulation&) = delete;
  simulation& operator=(const simulation&) = delete;

  // To its end; once.
  outcome run();
  const broker_load& load() const { return load_; }
  double jobs_a_day() const { return demand_.a_day(); }

 private:
  // What shares the leaders of a stream: they are elected together.
  struct raft_group {
    server states;
    sim_time down_since{};
    sim_time down_until{};
    sim_time looks_at{};  // whoever was elected, for leases that are over
  };
  struct line {
    // What was put back comes first.
    std::deque<uint32_t> again;
    std::deque<uint32_t> fresh;
    server deliveries;
    bool empty() const { return again.empty() && fresh.empty(); }
  };

  raft_group& group_of(const job& what) { return groups_[what.label % groups_.size()]; }
  bool is_down(const job& what) { return now_ < group_of(what).down_until; }
  sim_time write_state(const job& what, sim_time at);
  void close_seconds();
  void handle(const event& of);
  void handle_job(const event& of);
  void finish();

  // Jobs, in the order of their lives.
  void plan_arrival();
  void on_arrival();
  void on_queued(job& what, uint32_t number);
  void dispatch(uint16_t label);
  void deliver(uint32_t number, uint32_t worker);
  void on_taken(job& what, uint32_t number);
  void on_joined(job& what, uint32_t number);
  void say_users(const job& what);
  void on_ended(job& what, uint32_t number);
  void release(job& what);
  void queue_again(job& what, uint32_t number);
  void look(uint32_t worker);

  // What goes wrong, and upgrades: faults.cpp.
  void plan_faults();
  void plan_death();
  sim_time next_renewal(const job& what, sim_time proven, sim_time from) const;
  sim_time last_renewal(const job& what, sim_time until) const;
  void stop_recording(job& what, cause why, sim_time at);
  bool goes_on(job& what);
  void on_worker_dies();
  void kill(uint32_t worker, cause why, sim_time repair);
  void on_lease_ends(job& what, uint32_t number);
  void on_worker_back(uint32_t worker);
  void on_zone_dies();
  void on_broker_dies();
  void elect(uint32_t group);
  void give_again(job& what, uint32_t number);
  void on_stops(job& what);
  void on_election_over(uint32_t group);
  void on_upgrade();
  void upgrade_next();
  void drain(uint32_t worker);
  void on_put_back(job& what, uint32_t number);
  void end_if_idle(uint32_t worker);

  const figures by_;
  std::mt19937_64 random_;
  demand demand_;
  workers workers_;
  broker_load load_;
  event_queue events_;
  std::vector<job> jobs_;
  std::vector<uint32_t> free_;  // places in jobs_
  std::vector<raft_group> groups_;
  std::vector<line> lines_;  // by label
  std::vector<uint32_t> full_;
  outcome made_;
  sim_time now_{};
  int64_t second_ = 0;
  uint64_t held_ = 0;
  double busy_sum_ = 0;
  // The upgrade: who is next, who is being upgraded, since when.
  uint32_t upgrade_next_ = UINT32_MAX;
  std::vector<bool> upgrading_;
  uint32_t upgrades_on_ = 0;
  sim_time upgrade_began_{};
};

}  // namespace zelta::fleet_model
