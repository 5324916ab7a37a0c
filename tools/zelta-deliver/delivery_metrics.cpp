// SPDX-License-Identifier: Apache-2.0
#include "delivery_metrics.h"

#include <algorithm>

#include "disk.h"

namespace zelta::deliver {
namespace {

using metrics::family;
using prometheus::MetricType;

constexpr stage kStages[] = {stage::kPending, stage::kSending, stage::kSent, stage::kConfirmed,
                             stage::kDead};
constexpr double kMsOfSecond = 1000;

double number(uint64_t count) {
  return static_cast<double>(count);
}

}  // namespace

std::vector<prometheus::MetricFamily> delivery_metrics::Collect() const {
  delivery_numbers now = now_();
  family folders(MetricType::Gauge, "zelta_deliver_folders",
                 "Folders that are being delivered, or looked after.");
  folders.add(number(now.folders));
  family files(MetricType::Gauge, "zelta_deliver_files", "Files of these folders, by state.");
  family bytes(MetricType::Gauge, "zelta_deliver_bytes", "Bytes in them.");
  family oldest(MetricType::Gauge, "zelta_deliver_oldest_seconds",
                "Age of the oldest file that is still to go.");
  family notices(MetricType::Gauge, "zelta_deliver_notices",
                 "What hooks and the webhook are still to be told.");
  notices.add(number(now.notices));
  family confirmed(MetricType::Counter, "zelta_deliver_confirmed_total",
                   "Files that a target was found to have.");
  family confirmed_bytes(MetricType::Counter, "zelta_deliver_confirmed_bytes_total",
                         "Bytes in them.");
  family failures(MetricType::Counter, "zelta_deliver_failures_total",
                  "Attempts that failed, and are made again.");
  family dead(MetricType::Counter, "zelta_deliver_dead_letters_total",
              "Files that can't be delivered as they are.");
  for (const std::string& target : targets_) {
    const metrics::labels there = {{"target", target}};
    for (const stage at : kStages) {
      metrics::labels in_stage = there;
      in_stage.push_back({"state", name_of(at)});
      files.add(number(now.at[target][at].files), in_stage);
      bytes.add(number(now.at[target][at].bytes), in_stage);
    }
    const int64_t since_ms = now.oldest_mtime_ms[target];
    const int64_t age_ms = since_ms == 0 ? 0 : std::max<int64_t>(now_utc_ms() - since_ms, 0);
    oldest.add(static_cast<double>(age_ms) / kMsOfSecond, there);
    confirmed.add(number(told_.count("confirmed", target).events), there);
    confirmed_bytes.add(number(told_.count("confirmed", target).bytes), there);
    failures.add(number(told_.count("failed", target).events), there);
    dead.add(number(told_.count("dead letter", target).events), there);
  }
  family deleted(MetricType::Counter, "zelta_deliver_deleted_total",
                 "Files that were deleted here, confirmed at all targets.");
  deleted.add(number(told_.count("deleted", "").events));
  family told(MetricType::Counter, "zelta_deliver_told_total",
              "What hooks and the webhook were told.");
  told.add(number(told_.count("told", "").events));
  family broken(MetricType::Counter, "zelta_deliver_broken_total",
                "Folders that can't be read, or whose state can't be kept.");
  broken.add(number(told_.count("broken", "").events));
  std::vector<prometheus::MetricFamily> families;
  for (family* const one : {&folders, &files, &bytes, &oldest, &notices, &confirmed,
                            &confirmed_bytes, &failures, &dead, &deleted, &told, &broken}) {
    families.push_back(one->take());
  }
  return families;
}

}  // namespace zelta::deliver
