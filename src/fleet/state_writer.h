// SPDX-License-Identifier: Apache-2.0
// Puts what jobs are doing into the store, on a thread of its own: servers may take their time, and
// recordings don't wait for them.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "fleet/broker.h"

namespace zelta::fleet {

class state_writer {
 public:
  // Come on its thread.
  struct told {
    // Somebody else has written: the job that was adopted so isn't this worker's any more.
    // `at_once`: they record it, or it is over.
    std::function<void(const std::string& job, uint64_t adopted, bool at_once)> outdated;
    // What note() gave that number to is in the store.
    std::function<void(const std::string& job, uint64_t number)> kept;
  };

  // `by` is borrowed.
  state_writer(broker& by, told to);
  state_writer(const state_writer&) = delete;
  state_writer& operator=(const state_writer&) = delete;
  // What waits is tried once more, until something fails.
  ~state_writer();

  // Any thread. The job's state in the store is of `revision`, written by this worker: what waits
  // of an earlier stretch is dropped.
  void adopt(const std::string& job, uint64_t revision);
  // Whether the job wasn't adopted anew since then.
  bool is_current(const std::string& job, uint64_t adopted);
  // Of several that wait the last one counts, and is tried until it is kept. Its number, larger
  // than those before; 0: it isn't written, as the job is somebody else's.
  uint64_t note(const std::string& job, std::string text);
  // An event of the job's; each is kept, in their order, unless more than a few thousand wait.
  void tell(const std::string& job, std::string text);
  // What whoever takes the job up is to begin with; the last one counts, and it is tried until it
  // is kept, also when the job is forgotten.
  void wish(const std::string& job, std::string text);
  // Nothing of it is written any more, but what waits, with `after_last`.
  void forget(const std::string& job, bool after_last = false);

 private:
  struct of_job {
    uint64_t revision = 0;
    // A number: what was on its way before an adoption tells nothing any more.
    uint64_t adopted = 0;
    bool is_last = false;  // it is forgotten when it is written
    uint64_t number = 0;
    std::string text;
  };
  struct event {
    std::string job;
    std::string text;
    std::string id;
  };
  void work();
  bool write_states(std::unique_lock<std::mutex>& held);
  change write_state(const std::string& job, const std::string& text, uint64_t& revision,
                     bool& at_once);
  bool write_wish(const std::string& job, const std::string& text);
  bool write_wishes(std::unique_lock<std::mutex>& held);
  bool write_events(std::unique_lock<std::mutex>& held);

  broker& by_;
  const told told_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::map<std::string, of_job> jobs_;
  std::set<std::string> waiting_;
  std::map<std::string, std::string> wishes_;
  std::deque<event> events_;
  std::string failed_;  // the last one that could not be written
  uint64_t last_adopted_ = 0;
  uint64_t last_number_ = 0;
  uint64_t last_event_ = 0;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace zelta::fleet
