// SPDX-License-Identifier: Apache-2.0
// A program's numbers by HTTP, at /metrics, as Prometheus collects them.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

namespace prometheus {
class Exposer;
}

namespace zelta::metrics {

class metrics_server {
 public:
  // `address`: HOST:PORT with an IP address of the machine, one of IPv6 in brackets; a port alone
  // is one of 127.0.0.1. Null, with `error` in words that name it.
  static std::unique_ptr<metrics_server> make(const std::string& address, std::string& error);
  metrics_server(const metrics_server&) = delete;
  metrics_server& operator=(const metrics_server&) = delete;
  // Who is being answered is waited for.
  ~metrics_server();

  // Asked at each collection, on a thread of the server's. Not owned: it stops when it is gone.
  void add(const std::weak_ptr<prometheus::Collectable>& source);

 private:
  explicit metrics_server(std::unique_ptr<prometheus::Exposer> by);

  const std::unique_ptr<prometheus::Exposer> exposer_;
};

using labels = std::vector<prometheus::ClientMetric::Label>;

// A name, what it says, and its values.
class family {
 public:
  family(prometheus::MetricType type, std::string name, std::string help);

  family& add(double value, labels of = {});
  // Nothing is left of it.
  prometheus::MetricFamily take() { return std::move(made_); }

 private:
  prometheus::MetricFamily made_;
};

}  // namespace zelta::metrics
