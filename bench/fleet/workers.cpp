// SPDX-License-Identifier: Apache-2.0
#include "bench/fleet/workers.h"

#include <algorithm>
#include <cassert>

namespace zelta::fleet_model {
namespace {

constexpr sim_time kSecond = std::chrono::seconds(1);
constexpr double kMega = 1 << 20;
// Of what was begun; it fades to that in less than so many seconds.
constexpr double kNothing = 1e-4;
constexpr int kForgotten = 60;

uint64_t bytes(double mb) {
  return static_cast<uint64_t>(std::max(0.0, mb) * kMega);
}

// As the worker does at each of its reports.
void fade(fleet::job_cost& begun) {
  begun.processors *= 0.8;
  begun.mbit *= 0.8;
  begun.memory_bytes = begun.memory_bytes / 5 * 4;
  begun.disk_bytes = begun.disk_bytes / 5 * 4;
}

}  // namespace

workers::workers(const figures& by, std::mt19937_64& random)
    : by_(by),
      random_(random),
      all_(static_cast<size_t>(by.workers)),
      asking_of_(static_cast<size_t>(by.labels)),
      alive_(all_.size()),
      least_processors_(by.processors),
      least_memory_(by.memory_mb),
      least_disk_(by.disk_mb) {
  std::uniform_int_distribution<int64_t> phase(0, kSecond.count() - 1);
  const auto zones = static_cast<uint32_t>(by.zones);
  const auto labels = static_cast<uint32_t>(by.labels);
  const fleet::job_cost none{0, 0, 0, 0};
  for (uint32_t at = 0; at < count(); ++at) {
    one& made = all_[at];
    made.zone = at % zones;
    // Each zone has workers of each label.
    made.label = static_cast<uint16_t>(at / zones % labels);
    made.phase = sim_time(phase(random_));
    made.begun = none;
    look(at, {});
  }
}

// ---- What it takes -------------------------------------------------------------------------

workers::used workers::cost(const job& what) const {
  return {by_.recording_processors + by_.user_processors * what.users,
          by_.recording_memory_mb + by_.user_memory_mb * what.users, disk_of(what.users)};
}

void workers::bring_up_to(one& of, sim_time now) {
  const int64_t second = (now - of.phase).count() / kSecond.count();
  if (second <= of.second) return;
  of.measured = of.now;
  const int64_t passed = std::min<int64_t>(second - of.second, kForgotten);
  for (int64_t at = 0; at < passed && of.begun.processors > 0; ++at) {
    fade(of.begun);
    if (of.begun.processors < kNothing) of.begun = {0, 0, 0, 0};
  }
  of.second = second;
}

bool workers::has_room(const one& of, const fleet::job_cost& begun, const used& seen) const {
  fleet::machine_load load;
  load.processors = by_.processors;
  load.busy_processors = seen.processors;
  load.memory_bytes = bytes(by_.memory_mb);
  load.free_memory_bytes = bytes(by_.memory_mb - seen.memory_mb);
  load.free_disk_bytes = bytes(by_.disk_mb - seen.disk_mb);
  load.free_descriptors = UINT64_MAX;
  return !fleet::what_lacks(load, limits_, begun, fleet::cost_of(0),
                            static_cast<int>(of.jobs.size()));
}

// ---- Asking --------------------------------------------------------------------------------

void workers::stop_asking(one& of) {
  if (!of.asks) return;
  of.asks = false;
  --asking_;
  auto& list = asking_of_[of.label];
  list[of.place] = list.back();
  all_[list[of.place]].place = of.place;
  list.pop_back();
}

uint32_t workers::pick(uint16_t label, sim_time now, std::vector<uint32_t>& full) {
  auto& list = asking_of_[label];
  while (!list.empty()) {
    const size_t at = std::uniform_int_distribution<size_t>(0, list.size() - 1)(random_);
    const uint32_t found = list[at];
    one& of = all_[found];
    stop_asking(of);
    bring_up_to(of, now);
    if (has_room(of, of.begun, of.measured)) return found;
    full.push_back(found);
  }
  return kNobody;
}

std::optional<sim_time> workers::look(uint32_t number, sim_time now) {
  one& of = all_[number];
  if (!of.alive || of.draining || of.asks || of.takes) return std::nullopt;
  bring_up_to(of, now);
  if (has_room(of, of.begun, of.measured)) {
    auto& list = asking_of_[of.label];
    of.asks = true;
    of.place = static_cast<uint32_t>(list.size());
    list.push_back(number);
    ++asking_;
    return std::nullopt;
  }
  if (of.looks) return std::nullopt;
  fleet::job_cost begun = of.begun;
  for (int64_t seconds = 1; seconds <= kForgotten; ++seconds) {
    fade(begun);
    if (!has_room(of, begun, of.now)) continue;
    of.looks = true;
    return of.phase + (of.second + seconds) * kSecond;
  }
  return std::nullopt;
}

// ---- Jobs ----------------------------------------------------------------------------------

void workers::give(uint32_t to, job& what, uint32_t number, sim_time now) {
  one& of = all_[to];
  bring_up_to(of, now);
  what.worker = to;
  what.place = static_cast<uint32_t>(of.jobs.size());
  of.jobs.push_back(number);
  set_takes(of, true);
  const fleet::job_cost cost = fleet::cost_of(by_.users_known > 0 ? what.users : 0);
  of.begun.processors += cost.processors;
  of.begun.mbit += cost.mbit;
  of.begun.memory_bytes += cost.memory_bytes;
  of.begun.disk_bytes += cost.disk_bytes;
}

void workers::load(uint32_t number, const job& what, sim_time now) {
  one& of = all_[number];
  bring_up_to(of, now);
  const used takes = cost(what);
  of.now.processors += takes.processors;
  of.now.memory_mb += takes.memory_mb;
  of.now.disk_mb += takes.disk_mb;
  busy_ += takes.processors;
  memory_ += takes.memory_mb;
  disk_ += takes.disk_mb;
  least_processors_ = std::min(least_processors_, by_.processors - of.now.processors);
  least_memory_ = std::min(least_memory_, by_.memory_mb - of.now.memory_mb);
  least_disk_ = std::min(least_disk_, by_.disk_mb - of.now.disk_mb);
}

uint32_t workers::take_back(const job& what, bool loaded, sim_time now) {
  one& of = all_[what.worker];
  bring_up_to(of, now);
  assert(what.place < of.jobs.size());
  const uint32_t moved = of.jobs.back();
  of.jobs[what.place] = moved;
  of.jobs.pop_back();
  if (!loaded) return moved;
  const used gone = cost(what);
  of.now.processors -= gone.processors;
  of.now.memory_mb -= gone.memory_mb;
  busy_ -= gone.processors;
  memory_ -= gone.memory_mb;
  return moved;
}

void workers::free_disk(uint32_t number, uint32_t users, sim_time now) {
  one& of = all_[number];
  bring_up_to(of, now);
  of.now.disk_mb -= disk_of(users);
  disk_ -= disk_of(users);
}

void workers::set_takes(one& of, bool takes) {
  if (of.takes != takes) takes ? ++taking_ : --taking_;
  of.takes = takes;
}

// ---- Its end -------------------------------------------------------------------------------

void workers::drain(uint32_t of) {
  all_[of].draining = true;
  stop_asking(all_[of]);
}

void workers::die(uint32_t number, sim_time now) {
  one& of = all_[number];
  assert(of.alive && of.jobs.empty());
  bring_up_to(of, now);
  stop_asking(of);
  of.alive = false;
  set_takes(of, false);
  of.begun = {0, 0, 0, 0};
  --alive_;
}

void workers::come_back(uint32_t number, sim_time now) {
  one& of = all_[number];
  bring_up_to(of, now);
  of.alive = true;
  of.draining = false;
  of.begun = {0, 0, 0, 0};
  of.measured = of.now;
  ++alive_;
}

}  // namespace zelta::fleet_model
