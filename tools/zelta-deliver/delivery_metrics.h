// SPDX-License-Identifier: Apache-2.0
// What deliveries tell whoever collects numbers: how far they are, and what was told so far.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "delivery_numbers.h"
#include "metrics/metrics_server.h"
#include "reporter.h"

namespace zelta::deliver {

class delivery_metrics final : public prometheus::Collectable {
 public:
  // `now` comes on the collector's thread. `targets`: all names, so that a target has its zeros
  // from the start. The reporter is borrowed.
  delivery_metrics(std::vector<std::string> targets, std::function<delivery_numbers()> now,
                   const reporter& told)
      : targets_(std::move(targets)), now_(std::move(now)), told_(told) {}

  std::vector<prometheus::MetricFamily> Collect() const override;

 private:
  const std::vector<std::string> targets_;
  const std::function<delivery_numbers()> now_;
  const reporter& told_;
};

}  // namespace zelta::deliver
