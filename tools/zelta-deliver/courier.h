// SPDX-License-Identifier: Apache-2.0
// The deliveries of one process: finds folders, hands what is due to workers, cleans up, and ends
// when all is done or a signal comes.
//
//   main thread: scan ─▶ take_due ─▶ queue ─▶ workers (a connection each): carrier, hooks, webhook
//        ▲  inotify, signals, timers, workers' "done"                  │
//        └─────────────────────────────────────────────────────────────┘
//
// Nothing is told while the mutex is held, only noted: whoever reads it may be slow. Times are of
// steady_ms(), but for those in states, which outlive the process.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "carrier.h"
#include "consignment.h"
#include "delivery_numbers.h"
#include "disk.h"
#include "options.h"
#include "pace.h"
#include "reporter.h"
#include "retention.h"
#include "settings.h"
#include "target.h"
#include "target_gates.h"
#include "tree_watch.h"

namespace zelta::deliver {

class courier {
 public:
  // Both outlive it.
  courier(const options& asked, const delivery_settings& settings);
  ~courier();
  courier(const courier&) = delete;
  courier& operator=(const courier&) = delete;

  // An exit status. `signals` is readable when it is to stop.
  int run(int signals);

  // Any thread.
  delivery_numbers numbers();
  const reporter& reports() const { return reports_; }

 private:
  using work = std::function<void(http_client&)>;

  void turn();
  void scan_due();
  void forget_gone();
  void let_go_of_finished();
  void open_folders(const std::set<std::string>& folders);
  void open_folder(const std::string& folder);
  void scan(consignment& one);
  void tell_buried(consignment& one);
  void tell_fault(const std::string& folder, const std::string& fault);
  size_t room() const;
  void hand_out();
  void hand_out(consignment& one);
  bool hand_out_notice(consignment& of, bool for_hook);
  void tell_notice(http_client& by, consignment& of, const notice& what);
  void clean();
  void sweep();
  void save_late();
  bool is_done();
  int wait_ms();
  std::optional<int64_t> due_in_ms() const;
  bool wait(int signals);
  int status() const;

  void start_workers();
  void stop_workers();
  void work_on();
  void add_work(work what);

  const options& asked_;
  const delivery_settings& settings_;
  pace limits_;
  reporter reports_;
  std::vector<std::unique_ptr<target>> targets_;
  std::unique_ptr<tree_watch> watch_;
  base::unique_fd done_;  // an eventfd: a worker has ended something

  // Guards all below, and the consignments.
  std::mutex mutex_;
  std::condition_variable queued_;
  std::deque<work> queue_;
  size_t busy_ = 0;
  bool ending_ = false;
  std::map<std::string, std::unique_ptr<consignment>> folders_;
  target_gates gates_;
  std::vector<size_t> copies_;  // sealed ones that stand, by targets
  bool posting_ = false;        // a webhook that doesn't answer takes one worker
  bool may_clean_ = true;       // something ended since the last time
  bool may_sweep_ = true;       // likewise

  // The main thread's alone.
  std::vector<std::thread> workers_;
  std::set<std::string> others_;                 // another process has them
  std::map<std::string, folder_mark> finished_;  // let go of, as they were then
  std::set<std::string> dirty_;
  bool all_dirty_ = true;
  retention kept_;
  std::map<std::string, std::string> faults_;  // of folders, each told once
  size_t first_target_ = 0;                    // the turn's; likewise of folders
  std::string first_folder_;
  int64_t next_round_ms_ = 0;  // to look at folders whose recording runs
  int64_t next_look_ms_ = 0;   // at all
  std::optional<int64_t> next_save_ms_;
  int64_t sweep_from_ms_ = 0;
  int64_t cleaned_from_ms_ = 0;
  int64_t next_cleaning_ms_ = 0;
  int64_t give_up_ms_ = 0;
};

}  // namespace zelta::deliver
