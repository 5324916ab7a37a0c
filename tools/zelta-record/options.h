// SPDX-License-Identifier: Apache-2.0
// The command line of zelta-record.
#pragma once

#include <string>

#include "IZeltaRecordingEngine.h"
#include "common/command_line.h"

namespace zelta::record {

// Above it, a recorder that is started again is logged with its command line.
constexpr int kHighestLevelWithSecrets = 4;

struct options {
  std::string app_id = "zelta-record";
  std::string channel_key;
  std::string channel_id;
  uint32_t uid = 0;
  std::string server;
  bool demo = false;
  bool json = false;
  std::string frames_dir;  // empty: frames are counted and not kept
  double duration_s = 0;   // 0: until a signal or the recorder's own end
  int log_level = 0;       // 0: as it is
  int chunk_s = 0;         // 0: as the configuration file says
  std::string layout_path;
  std::string settings_path;
  std::string metrics_address;
  bool commands = false;
  double lease_s = 0;             // 0: for as long as it takes
  std::string configured_server;  // that the configuration file names; else empty
  std::string fixed_folder;       // that the configuration file names, with a slash; else empty

  // Whether they were given as options.
  bool given_secret = false;
  bool given_capture_interval = false;
  bool has_secrets() const { return !secret.empty() || !channel_key.empty(); }

  // What `config` points to.
  std::string mix_resolution;
  std::string decryption_mode;
  std::string secret;
  std::string applite_dir;
  std::string record_file_root_dir;
  std::string cfg_file_path;
  std::string proxy_server;
  std::string default_video_bg;
  std::string default_user_bg;
  recording::RecordingConfig config;
};

using tools::parse_result;

// Fills `o`, whose config then points into its own strings: keep it where it is. Secrets may come
// from files and from the environment, which loses them. Before any thread.
parse_result parse_options(int argc, const char* const* argv, options& o);

}  // namespace zelta::record
