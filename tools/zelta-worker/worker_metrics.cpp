// SPDX-License-Identifier: Apache-2.0
#include "worker_metrics.h"

namespace zelta::fleet {
namespace {

using metrics::family;
using prometheus::MetricType;

constexpr double kMsOfSecond = 1000;

}  // namespace

std::vector<prometheus::MetricFamily> worker_metrics::Collect() const {
  const worker_numbers now = of_.numbers();
  std::vector<prometheus::MetricFamily> made;
  const auto gauge = [&made](const char* name, const char* help, double value) {
    made.push_back(family(MetricType::Gauge, name, help).add(value).take());
  };
  gauge("zelta_worker_recordings", "Recordings that it has.", static_cast<double>(now.recordings));
  gauge("zelta_worker_room", "1 while it takes jobs.", now.has_room ? 1 : 0);
  gauge("zelta_worker_draining", "1 while it ends.", now.draining ? 1 : 0);
  gauge("zelta_worker_connected", "1 while a NATS server is connected.", now.connected ? 1 : 0);
  gauge("zelta_worker_processors", "Processors that it may use.", now.load.processors);
  gauge("zelta_worker_busy_processors", "Of the machine's, those that were busy.",
        now.load.busy_processors);
  gauge("zelta_worker_free_memory_bytes", "Memory that is free.",
        static_cast<double>(now.load.free_memory_bytes));
  gauge("zelta_worker_free_disk_bytes", "Room where recordings go.",
        static_cast<double>(now.load.free_disk_bytes));
  gauge("zelta_worker_received_mbit", "Received a second, in Mbit.", now.load.received_mbit);
  gauge("zelta_worker_lag_seconds", "How far its recorders are behind, at worst.",
        static_cast<double>(now.load.lag_ms) / kMsOfSecond);
  family jobs(MetricType::Counter, "zelta_worker_jobs_total", "Jobs, by what became of them here.");
  const auto add = [&jobs](const char* became, uint64_t count) {
    jobs.add(static_cast<double>(count), {{"became", became}});
  };
  add("taken", now.taken);
  add("over", now.over);
  add("put back", now.put_back);
  add("lost", now.lost);
  add("refused", now.refused);
  made.push_back(jobs.take());
  return made;
}

}  // namespace zelta::fleet
