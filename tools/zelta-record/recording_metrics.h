// SPDX-License-Identifier: Apache-2.0
// What a recording tells whoever collects numbers: its users and what became of its recorder by the
// engine's events, all else by its manifest, when somebody asks.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "metrics/metrics_server.h"
#include "outcome.h"
#include "reporter.h"

namespace zelta::record {

class recording_metrics final : public prometheus::Collectable {
 public:
  // The reporter is borrowed.
  explicit recording_metrics(const reporter& report) : report_(report) {}

  // The recording has a folder from here on. Any thread.
  void begin(const recording_place& place);

  std::vector<prometheus::MetricFamily> Collect() const override;

 private:
  const reporter& report_;
  mutable std::mutex lock_;
  recording_place place_;
};

}  // namespace zelta::record
