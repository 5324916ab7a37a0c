// SPDX-License-Identifier: Apache-2.0
// The workers: what each has room for, by the rules of the real one (src/fleet/room.h), and which
// of them ask for jobs.
//
// A worker measures itself once a second, and between that goes by what it measured and what it has
// begun since.
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <vector>

#include "bench/fleet/events.h"
#include "bench/fleet/figures.h"
#include "bench/fleet/model.h"
#include "fleet/room.h"

namespace zelta::fleet_model {

class workers {
 public:
  // Both are borrowed.
  workers(const figures& by, std::mt19937_64& random);

  uint32_t count() const { return static_cast<uint32_t>(all_.size()); }
  bool is_alive(uint32_t of) const { return all_[of].alive; }
  bool is_draining(uint32_t of) const { return all_[of].draining; }
  uint32_t zone(uint32_t of) const { return all_[of].zone; }
  uint16_t label(uint32_t of) const { return all_[of].label; }
  // What it has; changes with give() and take_back().
  const std::vector<uint32_t>& jobs(uint32_t of) const { return all_[of].jobs; }

  // One that asks for a job of the label and has room for it now; it asks no more until look().
  // Those that turn out to have none are told to `full`, and are to look again.
  uint32_t pick(uint16_t label, sim_time now, std::vector<uint32_t>& full);
  // It asks if it has room. Otherwise: when to look again, if time alone makes room; unless
  // somebody has been told such a time that is still to come.
  std::optional<sim_time> look(uint32_t of, sim_time now);
  // The time that look() told has come.
  void looked(uint32_t of) { all_[of].looks = false; }

  // The job is on its way to it, and until took() it asks for none.
  void give(uint32_t to, job& what, uint32_t number, sim_time now);
  void took(uint32_t of) { set_takes(all_[of], false); }
  // Its recorder runs, from now on.
  void load(uint32_t of, const job& what, sim_time now);
  // Neither any more; `loaded`: its recorder ran. `moved` is the job that took its place in the
  // list, or it itself.
  uint32_t take_back(const job& what, bool loaded, sim_time now);
  // What a recording of so many users left there was brought away.
  void free_disk(uint32_t of, uint32_t users, sim_time now);

  void drain(uint32_t of);
  // Its jobs are no more its own. Disks outlive it.
  void die(uint32_t of, sim_time now);
  void come_back(uint32_t of, sim_time now);

  uint64_t alive() const { return alive_; }
  uint64_t asking() const { return asking_; }
  // Those that ask for none, though they aren't just taking one: no room, or drained.
  uint64_t full() const { return alive_ - asking_ - taking_; }
  double busy_processors() const { return busy_; }
  double memory_mb() const { return memory_; }
  double disk_mb() const { return disk_; }
  double limit_processors() const { return limits_.busy_share * by_.processors; }

  // The least that any worker had at any time.
  double least_free_processors() const { return least_processors_; }
  double least_free_memory_mb() const { return least_memory_; }
  double least_free_disk_mb() const { return least_disk_; }

 private:
  struct used {
    double processors = 0;
    double memory_mb = 0;
    double disk_mb = 0;
  };
  struct one {
    std::vector<uint32_t> jobs;
    used now;
    used measured;  // at the last whole second of its own
    fleet::job_cost begun;
    sim_time phase{};
    int64_t second = 0;
    uint32_t zone = 0;
    uint32_t place = 0;  // among those who ask
    uint16_t label = 0;
    bool alive = true;
    bool draining = false;
    bool asks = false;
    bool takes = false;  // one, now
    bool looks = false;
  };

  used cost(const job& what) const;
  // As long as it is recorded, and until all of it is brought away: of what is brought away all the
  // time so much is there at most.
  double disk_of(uint32_t users) const { return users * by_.user_disk_mb_s * by_.disk_kept_s; }
  void bring_up_to(one& of, sim_time now);
  void set_takes(one& of, bool takes);
  bool has_room(const one& of, const fleet::job_cost& begun, const used& seen) const;
  void stop_asking(one& of);

  const figures& by_;
  std::mt19937_64& random_;
  const fleet::room_limits limits_;
  std::vector<one> all_;
  std::vector<std::vector<uint32_t>> asking_of_;  // by label
  uint64_t alive_ = 0;
  uint64_t asking_ = 0;
  uint64_t taking_ = 0;
  double busy_ = 0;
  double memory_ = 0;
  double disk_ = 0;
  double least_processors_;
  double least_memory_;
  double least_disk_;
};

}  // namespace zelta::fleet_model
