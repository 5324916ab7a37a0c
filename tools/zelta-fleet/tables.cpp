// SPDX-License-Identifier: Apache-2.0
#include "tables.h"

#include <algorithm>
#include <cstdio>

#include "base/clocks.h"

namespace zelta::fleet {
namespace {

constexpr unsigned kMiB = 20;
constexpr unsigned kGiB = 30;

std::string worker_of(const recording_state& of) {
  return of.stretches.empty() ? "-" : of.stretches.back().worker;
}

std::string with_unit(uint64_t bytes, unsigned shift, const char* unit) {
  return std::to_string(bytes >> shift) + " " + unit;
}

// A worker of another version may tell other kinds of values.
double number_in(const Json::Value& of, const char* key) {
  return of[key].isNumeric() ? of[key].asDouble() : 0;
}

std::string text_in(const Json::Value& of, const char* key) {
  return of[key].isString() ? of[key].asString() : "";
}

}  // namespace

void print(const table& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t at = 0; at < row.size(); ++at) widths[at] = std::max(widths[at], row[at].size());
  }
  for (const auto& row : rows) {
    for (size_t at = 0; at < row.size(); ++at) {
      const int width = at + 1 < row.size() ? static_cast<int>(widths[at]) + 2 : 0;
      std::printf("%-*s", width, row[at].c_str());
    }
    std::printf("\n");
  }
}

std::string age_of(int64_t utc_ms) {
  const int64_t s = (base::utc_ms() - utc_ms) / 1000;
  if (s < 120) return std::to_string(std::max<int64_t>(s, 0)) + " s";
  if (s < 7200) return std::to_string(s / 60) + " min";
  return std::to_string(s / 3600) + " h";
}

table table_of(const std::vector<recording_state>& all) {
  table rows{{"JOB", "STATE", "FOR", "WORKER", "USERS", "STRETCHES", "CHANNEL", "REASON"}};
  for (const recording_state& one : all) {
    rows.push_back({one.id, name_of(one.now), age_of(one.since_utc_ms), worker_of(one),
                    std::to_string(one.users), std::to_string(one.stretches.size()), one.channel,
                    one.reason});
  }
  return rows;
}

table table_of_stretches(const recording_state& of) {
  table rows{{"STRETCH", "WORKER", "JOINED AFTER", "ENDED", "DELIVERED", "FOLDER", "REASON"}};
  size_t number = 0;
  for (const stretch& one : of.stretches) {
    const std::string joined = one.joined_utc_ms == 0
                                   ? "never"
                                   : std::to_string(one.joined_utc_ms - one.taken_utc_ms) + " ms";
    const std::string ended = one.ended_utc_ms == 0 ? "-" : age_of(one.ended_utc_ms) + " ago";
    rows.push_back({std::to_string(++number), one.worker, joined, ended,
                    one.delivered_utc_ms == 0 ? "-" : age_of(one.delivered_utc_ms) + " ago",
                    one.folder, one.reason});
  }
  return rows;
}

table table_of_workers(const std::vector<Json::Value>& all) {
  table rows{{"WORKER", "RECORDINGS", "PROCESSORS", "FREE MEMORY", "FREE DISK", "LABELS", "ROOM"}};
  for (const Json::Value& one : all) {
    std::string labels;
    for (const Json::Value& label : one["labels"]) {
      labels += (labels.empty() ? "" : ",") + (label.isString() ? label.asString() : "");
    }
    char busy[64] = "";
    std::snprintf(busy, sizeof busy, "%.1f of %.1f", number_in(one, "busy_processors"),
                  number_in(one, "processors"));
    const std::string lacks = text_in(one, "lacks");
    const bool drains = one["draining"].isBool() && one["draining"].asBool();
    rows.push_back(
        {text_in(one, "worker"), std::to_string(one["recordings"].size()), busy,
         with_unit(static_cast<uint64_t>(number_in(one, "free_memory_bytes")), kMiB, "MiB"),
         with_unit(static_cast<uint64_t>(number_in(one, "free_disk_bytes")), kGiB, "GiB"), labels,
         drains          ? "drains"
         : lacks.empty() ? "yes"
                         : "no: " + lacks});
  }
  return rows;
}

std::string line_of(const recording_state& of) {
  return of.id + " " + name_of(of.now) + " " + worker_of(of) + " " + std::to_string(of.users) +
         " users" + (of.reason.empty() ? "" : ": " + of.reason);
}

}  // namespace zelta::fleet
