// SPDX-License-Identifier: Apache-2.0
// A fleet's numbers, to scale it by.
#pragma once

#include <vector>

#include "fleet/client.h"
#include "metrics/metrics_server.h"

namespace zelta::fleet {

class fleet_metrics final : public prometheus::Collectable {
 public:
  // Borrowed.
  explicit fleet_metrics(client& by) : by_(by) {}

  // Asks the fleet; what can't be asked is left out, and told by zelta_fleet_up.
  std::vector<prometheus::MetricFamily> Collect() const override;

 private:
  client& by_;
};

}  // namespace zelta::fleet
