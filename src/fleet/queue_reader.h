// SPDX-License-Identifier: Apache-2.0
// Takes jobs of one label from the queue, one at a time, while it is said that there is room.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "fleet/assignment.h"
#include "fleet/broker.h"

namespace zelta::fleet {

class queue_reader {
 public:
  // All come on its thread.
  struct told {
    std::function<void(assignment)> job;  // to be taken
    // Once each time that the queue can't be asked.
    std::function<void(const std::string&)> fault;
    // None can come any more, as none is wanted.
    std::function<void()> none;
  };

  // `by` is borrowed.
  queue_reader(broker& by, std::string label, std::chrono::milliseconds lease_length, told to);
  queue_reader(const queue_reader&) = delete;
  queue_reader& operator=(const queue_reader&) = delete;
  ~queue_reader();

  // Any thread: one more may come.
  void want_one();
  // None is asked for any more; one that was may still come, for as long as is_asking().
  // `for_good`: what came too late for that is given back, too.
  void want_none(bool for_good = false);
  bool is_asking() const;  // until told.none, once for_good was said

 private:
  void work();
  bool take_one(std::string& error);
  void give_back_late_ones();

  broker& by_;
  const std::string label_;
  const std::chrono::milliseconds lease_length_;
  const told told_;
  subscription_ptr queue_;
  lease::clock::time_point asked_;
  mutable std::mutex lock_;
  std::condition_variable changed_;
  bool wants_ = false;
  bool asks_ = false;
  bool for_good_ = false;
  bool is_done_ = false;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace zelta::fleet
