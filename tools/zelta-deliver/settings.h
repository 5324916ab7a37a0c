// SPDX-License-Identifier: Apache-2.0
// Where recordings are delivered to and how: a JSON object in the file of --settings.
// docs/delivery-settings.schema.json describes the same.
//
// Any thread. Credentials are read here, from the files and variables that the settings name, and
// stand in no error.
#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace zelta::deliver {

enum class target_kind { kFolder, kHttp, kS3, kSftp };

struct target_settings {
  std::string name;  // in states, logs and notices
  target_kind kind = target_kind::kFolder;
  std::string path;   // kFolder
  std::string mount;  // kFolder: what has to be mounted, it or a folder above it; empty: nothing
  std::string url;  // kHttp, kSftp: of the folder; kS3: of the endpoint; without a slash at the end
  std::string user;
  std::string password;
  std::string token;         // kHttp: a bearer's
  std::string key_file;      // kSftp: a private key in a form that libssh2 reads; its password then
  std::string known_hosts;   // kSftp: who the server has to be
  std::string ca_file;       // kHttp, kS3: empty: those that the machine trusts
  bool make_folders = true;  // kHttp: with MKCOL
  std::string bucket;
  std::string region;
  std::string prefix;  // kS3: before every key
  std::string access_key;
  std::string secret_key;
  bool path_style = true;
  uint64_t part_bytes = uint64_t{16} << 20;  // kS3: what has more goes in parts of so many
  bool verify_content = false;               // read back and compared before it counts as confirmed
  // Public keys, as age has them: what goes there is sealed for these. None: it goes as it is.
  std::vector<std::string> encrypt_for;

  bool is_sealed() const { return !encrypt_for.empty(); }
};

struct delivery_settings {
  std::vector<target_settings> targets;
  int connections = 4;  // at a time, to all targets together
  int kbps = 0;         // of all of them together; 0: no bound
  std::chrono::milliseconds first_retry{1000};
  std::chrono::milliseconds longest_retry{300'000};
  int refusals = 5;  // in a row, after which something is a dead letter
  std::chrono::seconds stall{60};
  // Of what is confirmed: for how long it is kept at least; below 0: always.
  std::chrono::seconds keep{-1};
  uint64_t quota_bytes = 0;            // of all folders together; 0: none
  std::vector<std::string> file_hook;  // program and arguments; empty: none
  std::vector<std::string> session_hook;
  std::chrono::seconds hook_limit{60};
  std::string webhook_url;
  std::string webhook_secret;
  std::set<std::string> secret_variables;  // of the environment: what credentials were read from
  std::string age;  // the program's path, where a target is sealed; of check_sealing()
};

// Of use when `errors` is empty: each has the key, its value and what would be right.
delivery_settings load_delivery_settings(const std::string& path, std::vector<std::string>& errors);
delivery_settings parse_delivery_settings(const std::string& path, const std::string& text,
                                          std::vector<std::string>& errors);

}  // namespace zelta::deliver
