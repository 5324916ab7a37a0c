// SPDX-License-Identifier: Apache-2.0
// A job and its life, as the simulation knows it.
//
//   kSent ─▶ kWaiting ─▶ kTaking ─▶ kStarting ─▶ kRecording ─▶ ended
//               ▲           │           │            │
//               └───────────┴───────────┴────────────┤ kReturning: its worker hands it back
//                                                     ├ kStopped: its worker can't prove its lease
//                                                     ├ kOrphan: its worker is dead
//                                                     └ kWaiting: the queue gives it out again
#pragma once

#include <cstdint>
#include <optional>

#include "bench/fleet/events.h"

namespace zelta::fleet_model {

enum class stage : uint8_t {
  kNone,  // over, and its place is free
  kSent,
  kWaiting,
  kTaking,
  kStarting,
  kRecording,
  kReturning,
  kStopped,
  kOrphan,
};
// A worker has it, and renews its lease.
inline bool is_held(stage of) {
  return of == stage::kTaking || of == stage::kStarting || of == stage::kRecording ||
         of == stage::kReturning;
}

// Why a recording was handed over.
enum class cause : uint8_t { kMachineDied, kProcessDied, kZoneDied, kElection, kUpgrade };
constexpr int kCauses = 5;
constexpr const char* kCauseNames[kCauses] = {"a machine's death", "a worker process's death",
                                              "the zone's death", "the election", "the upgrade"};

constexpr uint32_t kNobody = UINT32_MAX;

struct job {
  sim_time sent{};
  sim_time proven{};             // that the lease began, or was renewed, before an election
  sim_time taken{};              // by the worker that has it
  std::optional<sim_time> ends;  // known from the first join on
  // Who had it before records it no longer than until then, which may be still to come.
  std::optional<sim_time> stopped;
  uint32_t still_by = kNobody;  // who had it before, if it is alive and hears who has joined
  uint32_t worker = kNobody;
  uint32_t place = 0;  // in its worker's list
  // Another one each time that it is given out or over: what was planned for an earlier life isn't
  // for this one.
  uint32_t life = 0;
  uint16_t users = 0;
  uint16_t label = 0;
  stage now = stage::kNone;
  cause why = cause::kMachineDied;
  bool was_taken = false;
  bool loaded = false;  // its recorder runs
};

}  // namespace zelta::fleet_model
