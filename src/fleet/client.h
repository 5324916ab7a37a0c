// SPDX-License-Identifier: Apache-2.0
// What somebody who sends jobs wants of the fleet.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "fleet/broker.h"
#include "fleet/job.h"
#include "fleet/recording_state.h"

namespace zelta::fleet {

// Of the jobs that ask for a label.
struct label_numbers {
  std::string label;
  uint64_t waiting = 0;
  uint64_t taken = 0;
  int64_t oldest_utc_ms = 0;  // since when the oldest waits; 0: none does
};

class client {
 public:
  // `by` is borrowed, and prepared.
  explicit client(broker& by) : by_(by) {}

  // Puts the job into the queue, and its state, "waiting", into the store, unless a worker was
  // faster: twice the same id is refused, unless the first one is over. With an empty id one is
  // made. The id; nothing, with `error`.
  std::optional<std::string> send(job what, std::string& error);
  // Newest first.
  std::vector<recording_state> list(std::string& error);
  std::optional<recording_state> show(const std::string& id, std::string& error);
  // What workers told of themselves within the last seconds.
  std::vector<Json::Value> workers(std::string& error);
  // By label; of a label that no worker has asked for yet, too.
  std::vector<label_numbers> queue(std::string& error);

  enum class outcome {
    kDone,
    kLater,  // "leave": nobody records it now, and it ends as soon as somebody takes it up
    kFailed,
  };
  // To whoever records it. With `error`: what they answered, or that nobody does.
  outcome command(const std::string& id, const Json::Value& what, std::string& error);
  // The stretches of that folder are at their targets. Folders are called by their recordings' ids;
  // `worker` tells apart those of machines whose folders are called alike, unless it is empty.
  bool note_delivered(const std::string& folder, const std::string& worker, std::string& error);
  // A worker takes no more jobs, and ends. False, with `error`.
  bool drain(const std::string& worker, bool handover, std::string& error);

 private:
  bool ask(const std::string& subject, const Json::Value& what, bool& is_heard, std::string& error);

  broker& by_;
};

}  // namespace zelta::fleet
