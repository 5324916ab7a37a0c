// SPDX-License-Identifier: Apache-2.0
// Which NATS servers a program of the fleet goes to, and as whom.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace zelta::fleet {

struct broker_settings {
  std::vector<std::string> urls = {"nats://127.0.0.1:4222"};
  std::string name;              // of the client, as servers list it
  std::string credentials_file;  // of a user: a JWT and its key; empty: none
  std::string ca_file;           // who signed the servers' certificates; empty: the machine's
  std::string certificate_file;  // with key_file: the client's own
  std::string key_file;
  int replicas = 1;  // of streams and buckets that aren't there yet: 1, 3 or 5
  std::chrono::milliseconds patience{3000};
};

}  // namespace zelta::fleet
