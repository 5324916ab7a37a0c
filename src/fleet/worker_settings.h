// SPDX-License-Identifier: Apache-2.0
// What a worker is allowed and told to do, by its own machine's settings file: a job names what
// stands there, and nothing else.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fleet/broker_settings.h"
#include "fleet/room.h"

namespace zelta::fleet {

struct worker_settings {
  broker_settings nats;
  std::string name;                                // of the worker: the machine's, if not given
  std::vector<std::string> labels = {"any"};       // whose jobs it takes
  std::string root;                                // where recordings go, by their job's id
  std::map<std::string, std::string> roots;        // other places, by the names that jobs use
  std::map<std::string, std::string> settings;     // recorder settings, likewise
  std::map<std::string, std::string> credentials;  // files with a secret in the first line
  std::map<std::string, std::string> images;       // backgrounds, by the names that commands use
  std::vector<std::string> servers;                // channel servers that jobs may name begin so
  std::string server;                              // for jobs that name none
  std::string recorder;                            // path of zelta-record
  std::chrono::milliseconds lease{5000};
  int most_tries = 5;  // of a job that can't be joined
  room_limits room;
};

// `fallback_recorder` is the zelta-record beside the worker. Errors, one each.
worker_settings load_worker_settings(const std::string& path, const std::string& fallback_recorder,
                                     std::vector<std::string>& errors);

}  // namespace zelta::fleet
