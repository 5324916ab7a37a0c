// SPDX-License-Identifier: Apache-2.0
// The deliveries of one process: finds folders, hands what is due to workers, cleans up, and ends
// when all is done or a signal comes.
//
//   main thread: scan ─▶ take_due ─▶ queue ─▶ workers (a connection each): carrier, hooks, webhook
//        ▲  inotify, signals, timers, workers' "done"                  │
//        └─────────────────────────────────────────────────────────────┘
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
#include <vector>

#include "base/unique_fd.h"
#include "carrier.h"
#include "consignment.h"
#include "options.h"
#include "pace.h"
#include "reporter.h"
#include "settings.h"
#include "target.h"
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

 private:
  using work = std::function<void(http_client&)>;

  void open_folders(const std::set<std::string>& folders);
  void forget_gone();
  void open_folder(const std::string& folder);
  void scan(consignment& one);
  void scan_due();
  void tell_buried(const consignment& one,
                   const std::set<std::pair<std::string, std::string>>& dead);
  void hand_out();
  bool hand_out_notice(consignment& of, bool for_hook);
  void tell_notice(http_client& by, consignment& of, const notice& what);
  void clean();
  bool is_done();
  int wait_ms();
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
  std::vector<std::unique_ptr<consignment>> folders_;
  std::vector<int64_t> held_until_ms_;

  // The main thread's alone.
  std::vector<std::thread> workers_;
  std::set<std::string> others_;  // another process has them
  std::set<std::string> dirty_;
  bool all_dirty_ = true;
  bool broken_ = false;
  std::map<std::string, std::string> told_;  // faults of folders, each told once
  int64_t next_round_ms_ = 0;                // to look at folders whose recording runs
  int64_t next_look_ms_ = 0;                 // at all
  int64_t next_cleaning_ms_ = 0;
  int64_t give_up_ms_ = 0;
};

}  // namespace zelta::deliver
