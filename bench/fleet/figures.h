// SPDX-License-Identifier: Apache-2.0
// What the simulation reckons with: figures.json has each with its unit and where it is from.
#pragma once

#include <string>
#include <vector>

namespace zelta::fleet_model {

struct figures {
  // The fleet.
  double workers, zones, labels;
  double processors, memory_mb, disk_mb;  // of a worker
  // What is asked of it.
  double recordings;  // a day, or at the peak of the day
  double duration_median_s, duration_sigma, duration_most_s;
  double users_median, users_sigma, users_most, users_known, users_come_s;
  // What a recording takes.
  double recording_processors, user_processors, recording_memory_mb, user_memory_mb;
  double user_disk_mb_s, disk_kept_s;
  // Times.
  double lease_s, start_least_s, start_most_s, leave_s, hop_s;
  // What goes wrong, or is done; hours below 0: never.
  double worker_dies_every_days, worker_repair_s, deaths_of_process, process_restart_s;
  double zone_dies_at_h, zone_repair_s;
  double election_at_h, election_s, look_s;
  double upgrade_at_h, upgrade_at_once, upgrade_restart_s;
  // What is said, how often.
  double report_every_s, ask_every_s, ping_every_s;
  double leases_a_renewal, users_a_state_write, events_a_message;
  double recording_events, user_events;
  // The brokers, and what each can do in a second.
  double clusters, brokers, replicas, streams, leaf_nodes, writes_an_append;
  double broker_messages, stream_writes, consumer_renewals, consumer_deliveries;
  double broker_connections;

  // By hour of day, in any measure.
  std::vector<double> arrivals_by_hour;
};

// A figure, where it is from, and what it may be.
struct figure_row {
  const char* name;
  double figures::*value;
  double least;
  double most;
};
const std::vector<figure_row>& figure_rows();

// All of them are to be there. Errors, one each, name the figure and what would be right.
figures load_figures(const std::string& path, std::vector<std::string>& errors);
// "name=value". "" or what is wrong with it.
std::string set_figure(figures& of, const std::string& text);
// What can't be together. "" or what is wrong.
std::string contradiction(const figures& of);

}  // namespace zelta::fleet_model
