// SPDX-License-Identifier: Apache-2.0
// What a worker tells whoever collects numbers.
#pragma once

#include <vector>

#include "fleet/worker.h"
#include "metrics/metrics_server.h"

namespace zelta::fleet {

class worker_metrics final : public prometheus::Collectable {
 public:
  // Borrowed.
  explicit worker_metrics(const worker& of) : of_(of) {}

  std::vector<prometheus::MetricFamily> Collect() const override;

 private:
  const worker& of_;
};

}  // namespace zelta::fleet
