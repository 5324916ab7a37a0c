// SPDX-License-Identifier: Apache-2.0
// zelta-fleet's command line.
#pragma once

#include <string>
#include <vector>

#include "common/command_line.h"
#include "fleet/broker_settings.h"
#include "fleet/job.h"

namespace zelta::fleet {

enum class action {
  kUp,
  kRecord,
  kList,
  kShow,
  kWatch,
  kWorkers,
  kQueue,
  kMetrics,
  kDrain,
  kDelivered,
  kCommand,
};

struct options {
  action what = action::kList;
  broker_settings nats;
  bool json = false;
  // record
  job asked;
  std::string job_path;
  std::vector<std::string> sets;  // NAME=VALUE, of zelta-record's options
  // of one recording, or worker
  std::string id;
  std::string command;  // as a worker takes it
  std::string layout_path;
  std::string uid;
  std::string image;
  bool handover = false;
  // list
  bool all = false;
  // metrics
  std::string address;
  // up
  std::string folder = "zelta-fleet";
  int port = 4222;
};

tools::parse_result parse_options(int argc, const char* const* argv, options& to);

}  // namespace zelta::fleet
