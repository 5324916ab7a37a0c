// SPDX-License-Identifier: Apache-2.0
// Takes jobs while there is room, records them, and tells how it goes.
//
//   queue_reader (a thread a label) ─ assignment ─▶ loop: recordings ─ states ─▶ state_writer
//   lease_keeper ─ "renewed" (a thread of NATS) ──▶ loop           ◀─ "outdated" ──┘
//   commands (a thread of NATS) ──────────────────▶ loop
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "base/poster.h"
#include "base/scoped_timer.h"
#include "base/scoped_watch.h"
#include "base/unique_fd.h"
#include "fleet/broker.h"
#include "fleet/lease_keeper.h"
#include "fleet/queue_reader.h"
#include "fleet/recording.h"
#include "fleet/room.h"
#include "fleet/state_writer.h"
#include "fleet/worker_settings.h"

namespace zelta::fleet {

// What there was to tell since the start, and what there is now.
struct worker_numbers {
  machine_load load;
  uint64_t taken = 0;
  uint64_t over = 0;
  uint64_t put_back = 0;
  uint64_t lost = 0;  // to somebody else, or to a lease that couldn't be renewed
  uint64_t refused = 0;
  size_t recordings = 0;
  bool has_room = false;
  bool connected = false;
  bool draining = false;
};

class worker {
 public:
  using clock = lease::clock;
  // A line for whoever watches it: what it says of a job, or of itself ("").
  using say = std::function<void(const std::string& job, const std::string& event,
                                 const std::string& text)>;

  // Borrows all. `handover`: what it records when it is told to end goes to other workers.
  worker(base::event_loop& loop, broker& by, const worker_settings& settings, bool handover,
         say tell);
  worker(const worker&) = delete;
  worker& operator=(const worker&) = delete;
  ~worker();

  // False, with `error`.
  bool start(std::string& error);
  // Takes no more jobs, and ends the loop when those it has are over or handed over; the second
  // time they are handed over, or at once with `handover`. A worker that servers shut out does so
  // by itself: what it records then goes on for as long as its leases do.
  void drain(bool handover = false);
  // Of the last second. Any thread.
  worker_numbers numbers() const;

 private:
  struct taken;

  // A job that is over for this worker, while its state is on its way into the store.
  struct settling {
    assignment by;
    verdict what = verdict::kDone;
    uint64_t number = 0;  // of the state, as state_writer counts
    clock::time_point until;
  };

  // What the store says to a job that came.
  enum class finding {
    kTaken,
    kSettled,  // there is nothing to record, and the queue knows
    kChanged,  // somebody has written meanwhile
    kCant,
  };

  void take(assignment what);
  finding prepare(taken& made, std::string& error);
  void tell_done(const assignment& what);
  bool is_repeat(const assignment& what, const recording_state& state, std::string& error);
  void tell_refused(const std::string& job, const std::string& key, const assignment& what,
                    const std::string& why);
  void begin(taken& what);
  void give_back(taken& what, phase as, const std::string& why);
  void on_over(const std::string& job, verdict what);
  void settle_later(const std::string& job, settling what);
  void on_kept(const std::string& job, uint64_t number);
  void look_after_settling();
  void take_no_more();
  void hand_over();
  void look_for_room();
  void report();
  void end_if_idle();
  void clean_up() const;
  bool is_asking() const;
  void on_command(const std::string& job, const std::string& text, const listening::reply& reply);
  void on_order(const std::string& text, const listening::reply& reply);

  base::event_loop& loop_;
  broker& by_;
  const worker_settings& settings_;
  const bool handover_;
  const say say_;
  base::poster poster_;
  load_meter meter_;
  machine_load load_;
  job_cost begun_;  // what was taken lately, and the load doesn't show yet
  std::string lacks_;
  // Its own machine couldn't do what a job needs: others get them until then.
  std::string fault_;
  clock::time_point fault_until_;
  int reports_ = 0;
  bool draining_ = false;
  bool was_told_to_end_ = false;
  bool hands_over_ = false;
  std::atomic<bool> ends_{false};  // for readers
  std::unique_ptr<lease_keeper> keeper_;
  std::unique_ptr<state_writer> writer_;
  std::map<std::string, std::unique_ptr<recording>> recordings_;
  std::map<std::string, settling> settling_;
  std::map<std::string, std::unique_ptr<listening>> commands_;
  std::set<std::string> early_leaves_;
  std::unique_ptr<listening> orders_;
  worker_numbers numbers_;
  mutable std::mutex numbers_lock_;
  worker_numbers shown_;
  base::scoped_timer report_timer_;
  // Last: their threads post to all above.
  std::vector<std::unique_ptr<queue_reader>> readers_;
};

}  // namespace zelta::fleet
