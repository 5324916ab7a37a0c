// SPDX-License-Identifier: Apache-2.0
// Renews the leases of all jobs of a worker at once: none waits for another's answer, as servers
// that elect answer nobody for a while.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "fleet/broker.h"
#include "fleet/lease.h"

namespace zelta::fleet {

class lease_keeper {
 public:
  using clock = lease::clock;
  // Comes on a thread of the library: what was sent at `sent` has arrived where the lease is kept.
  using proven = std::function<void(const std::string& job, clock::time_point sent)>;

  // `by` is borrowed. Null, with `error`.
  static std::unique_ptr<lease_keeper> make(broker& by, proven tell, std::string& error);
  lease_keeper(const lease_keeper&) = delete;
  lease_keeper& operator=(const lease_keeper&) = delete;

  // Any thread. `answer_subject` is that of the message that the job came by.
  void renew(const std::string& job, const std::string& answer_subject);

 private:
  struct asked {
    std::string job;
    clock::time_point sent;
  };
  lease_keeper(broker& by, proven tell) : by_(by), tell_(std::move(tell)) {}
  void on_answer(const std::string& number);

  broker& by_;
  const proven tell_;
  std::string beginning_;
  std::mutex lock_;
  uint64_t last_ = 0;
  std::map<uint64_t, asked> asked_;
  std::unique_ptr<listening> answers_;
};

}  // namespace zelta::fleet
