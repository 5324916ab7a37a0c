// SPDX-License-Identifier: Apache-2.0
#include "bench/fleet/figures.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <fstream>

#include <json/json.h>

namespace zelta::fleet_model {
namespace {

constexpr double kMany = 1e9;
constexpr size_t kHours = 24;

std::string number(double of) {
  char text[32];
  return std::string(text, std::to_chars(text, text + sizeof text, of).ptr);
}

std::string check(const figure_row& row, double value) {
  if (value >= row.least && value <= row.most) return "";
  return std::string(row.name) + ": " + number(value) + " should be from " + number(row.least) +
         " to " + number(row.most);
}

void load_hours(const Json::Value& of, figures& to, std::vector<std::string>& errors) {
  double sum = 0;
  if (of.isArray()) {
    for (const Json::Value& one : of) {
      to.arrivals_by_hour.push_back(one.isNumeric() ? std::max(0.0, one.asDouble()) : 0);
      sum += to.arrivals_by_hour.back();
    }
  }
  if (to.arrivals_by_hour.size() != kHours || !(sum > 0)) {
    errors.emplace_back("arrivals_by_hour: 24 numbers that aren't all 0 should be its value");
  }
}

// As "assumed" figures are to be replaced, it is told which are.
void check_kind(const std::string& name, const Json::Value& one, std::vector<std::string>& errors) {
  const std::string kind = one["kind"].isString() ? one["kind"].asString() : "";
  if (kind != "measured" && kind != "assumed" && kind != "set") {
    errors.push_back(name + ": kind \"" + kind + "\" should be measured, assumed or set");
  }
  for (const char* text : {"unit", "source"}) {
    if (!one[text].isString()) errors.push_back(name + ": " + text + " should be a text");
  }
}

void load(const Json::Value& all, figures& to, std::vector<std::string>& errors) {
  const auto& rows = figure_rows();
  for (const std::string& name : all.getMemberNames()) {
    const bool known = name == "arrivals_by_hour" ||
                       std::any_of(rows.begin(), rows.end(),
                                   [&name](const figure_row& row) { return name == row.name; });
    if (!known) errors.push_back(name + ": no such figure is known");
    if (!all[name].isObject()) {
      errors.push_back(name + ": an object with value, unit, kind and source should be there");
      return;
    }
    check_kind(name, all[name], errors);
  }
  for (const figure_row& row : rows) {
    const Json::Value& value = all[row.name]["value"];
    if (!value.isNumeric()) {
      errors.push_back(std::string(row.name) + ": a number should be its value");
      continue;
    }
    to.*row.value = value.asDouble();
    const std::string wrong = check(row, value.asDouble());
    if (!wrong.empty()) errors.push_back(wrong);
  }
  load_hours(all["arrivals_by_hour"]["value"], to, errors);
}

}  // namespace

const std::vector<figure_row>& figure_rows() {
  using f = figures;
  static const std::vector<figure_row> rows = {
      {"workers", &f::workers, 1, 1e6},
      {"zones", &f::zones, 1, 100},
      {"labels", &f::labels, 1, 1000},
      {"processors", &f::processors, 0.1, 1000},
      {"memory_mb", &f::memory_mb, 100, kMany},
      {"disk_mb", &f::disk_mb, 3000, kMany},
      {"recordings", &f::recordings, 0, 1e8},
      {"duration_median_s", &f::duration_median_s, 1, 1e5},
      {"duration_sigma", &f::duration_sigma, 0, 5},
      {"duration_most_s", &f::duration_most_s, 1, 1e6},
      {"users_median", &f::users_median, 1, 10'000},
      {"users_sigma", &f::users_sigma, 0, 5},
      {"users_most", &f::users_most, 1, 60'000},
      {"users_known", &f::users_known, 0, 1},
      {"users_come_s", &f::users_come_s, 0, 120},
      {"recording_processors", &f::recording_processors, 0, 100},
      {"user_processors", &f::user_processors, 0, 1},
      {"recording_memory_mb", &f::recording_memory_mb, 0, 1e5},
      {"user_memory_mb", &f::user_memory_mb, 0, 1000},
      {"user_disk_mb_s", &f::user_disk_mb_s, 0, 100},
      {"disk_kept_s", &f::disk_kept_s, 0, 1e5},
      {"lease_s", &f::lease_s, 1, 600},
      {"start_least_s", &f::start_least_s, 0, 60},
      {"start_most_s", &f::start_most_s, 0, 60},
      {"leave_s", &f::leave_s, 0, 60},
      {"hop_s", &f::hop_s, 0, 1},
      {"worker_dies_every_days", &f::worker_dies_every_days, 0.001, kMany},
      {"worker_repair_s", &f::worker_repair_s, 1, 1e5},
      {"deaths_of_process", &f::deaths_of_process, 0, 1},
      {"process_restart_s", &f::process_restart_s, 0, 1e5},
      {"zone_dies_at_h", &f::zone_dies_at_h, -1, 24},
      {"zone_repair_s", &f::zone_repair_s, 1, 1e5},
      {"election_at_h", &f::election_at_h, -1, 24},
      {"election_s", &f::election_s, 0, 600},
      {"look_s", &f::look_s, 0, 600},
      {"upgrade_at_h", &f::upgrade_at_h, -1, 24},
      {"upgrade_at_once", &f::upgrade_at_once, 1, 1e6},
      {"upgrade_restart_s", &f::upgrade_restart_s, 0, 1e4},
      {"report_every_s", &f::report_every_s, 0.1, 600},
      {"ask_every_s", &f::ask_every_s, 0.1, 600},
      {"ping_every_s", &f::ping_every_s, 0.1, 600},
      {"leases_a_renewal", &f::leases_a_renewal, 1, 1e4},
      {"users_a_state_write", &f::users_a_state_write, 1, 1e4},
      {"events_a_message", &f::events_a_message, 1, 1e4},
      {"recording_events", &f::recording_events, 0, 1000},
      {"user_events", &f::user_events, 0, 1000},
      {"clusters", &f::clusters, 1, 1000},
      {"brokers", &f::brokers, 1, 100},
      {"replicas", &f::replicas, 1, 5},
      {"streams", &f::streams, 1, 1000},
      {"leaf_nodes", &f::leaf_nodes, 0, 1e5},
      {"writes_an_append", &f::writes_an_append, 1, 1e4},
      {"broker_messages", &f::broker_messages, 1, kMany},
      {"stream_writes", &f::stream_writes, 1, kMany},
      {"consumer_renewals", &f::consumer_renewals, 1, kMany},
      {"consumer_deliveries", &f::consumer_deliveries, 1, kMany},
      {"broker_connections", &f::broker_connections, 1, kMany},
  };
  return rows;
}

figures load_figures(const std::string& path, std::vector<std::string>& errors) {
  figures made{};
  std::ifstream file(path);
  if (!file) {
    errors.push_back(path + ": can't be read");
    return made;
  }
  try {
    Json::Value all;
    std::string fault;
    Json::CharReaderBuilder builder;
    builder["rejectDupKeys"] = true;
    if (!Json::parseFromStream(builder, file, &all, &fault) || !all.isObject()) {
      errors.push_back(path + ": should be a JSON object: " + fault);
      return made;
    }
    load(all, made, errors);
  } catch (const std::exception& e) {
    errors.push_back(path + ": " + e.what());
  }
  return made;
}

std::string set_figure(figures& of, const std::string& text) {
  const size_t sign = text.find('=');
  const std::string name = text.substr(0, sign);
  for (const figure_row& row : figure_rows()) {
    if (name != row.name) continue;
    double value = 0;
    const char* const begin = text.data() + std::min(text.size(), name.size() + 1);
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(begin, end, value);
    if (parsed.ec != std::errc() || parsed.ptr != end) {
      return '"' + text + std::string("\" should be ").append(row.name).append("=NUMBER");
    }
    std::string wrong = check(row, value);
    if (wrong.empty()) of.*row.value = value;
    return wrong;
  }
  return "\"" + text + "\": no such figure is known";
}

std::string contradiction(const figures& of) {
  if (of.labels < of.clusters * of.streams) {
    return "labels: " + number(of.labels) +
           " should be at least one a cluster and stream: " + number(of.clusters * of.streams);
  }
  if (of.workers < of.labels * of.zones) {
    return "workers: " + number(of.workers) +
           " should be at least one a label and zone: " + number(of.labels * of.zones);
  }
  if (of.start_most_s < of.start_least_s) return "start_most_s should be start_least_s at least";
  if (of.replicas > of.brokers) return "replicas should be as many as brokers at most";
  return "";
}

}  // namespace zelta::fleet_model
