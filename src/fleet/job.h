// SPDX-License-Identifier: Apache-2.0
// What is to be recorded, as it stands in the queue. Anybody who may write there can have written
// it: nothing of it is a path, a program or a secret, and names of what a worker has are looked up
// by the worker.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

namespace zelta::fleet {

struct job {
  std::string id;
  std::string channel;
  std::string server;  // empty: the worker's own
  std::string label;   // whose queue it stands in
  std::string key;     // names of the worker's credentials; empty: none
  std::string secret;
  std::string settings;    // name of the worker's recorder settings; empty: its usual ones
  std::string root;        // name of the worker's place for recordings; empty: its usual one
  double duration_s = 0;   // from the first join on; 0: until it is over
  int expected_users = 0;  // 0: not known
  std::vector<std::pair<std::string, std::string>> options;  // of zelta-record, without "--"
  Json::Value layout;                                        // null: none
};

// Nothing, with `error` naming the value and what would be right.
std::optional<job> job_of(const std::string& text, std::string& error);
std::string text_of(const job& of);

}  // namespace zelta::fleet
