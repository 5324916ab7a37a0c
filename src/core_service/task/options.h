// SPDX-License-Identifier: Apache-2.0
// The recorder's command line.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core_service/task/field.h"

namespace CLI {
class App;
}

namespace zelta::core_service {

// Field by field what the engine passes; the defaults are what an option that is not given means.
struct options {
  std::string app_id;
  std::string channel_key;
  std::string channel_id;
  unsigned uid = 0;  // 0: the recorder chooses
  bool audio_only = false;
  bool video_only = false;
  bool mix = false;
  int mixed_video_audio = 0;
  bool live = false;
  std::string encrypt_mode;
  std::string encrypt_secret;
  int chunk_time_span = 0;  // seconds
  int idle = 300;           // seconds
  int decode_audio = 0;
  int decode_video = 0;
  int capture_interval = 5;           // seconds
  int audio_indication_interval = 0;  // milliseconds
  unsigned syslog_fclt = 8;
  int stream_type = 0;
  int service_mode = 0;
  std::string recording_file_dir = ".";
  std::string vocs;
  int vocs_port = 0;
  std::string vos;
  int vos_port = 0;
  std::string mix_resolution;
  int min_port = 0;
  int max_port = 0;
  int trigger_mode = 0;
  int lang = 0;
  std::string proxy_server;
  int audio_profile = 0;
  std::string default_video_bg;
  std::string default_user_bg;
  int log_level = 4;
  int enabled_modules = -1;
  int av_sync_type = 2;
  int recovery_id = 0;  // counts the relaunches of a session
  long long recovery_time = 0;
  int read_fd = -1;  // -1: no engine, the recorder runs by itself
  int write_fd = -1;

  // Options that nobody knows.
  std::vector<std::string> unknown;
};

struct option : field<std::variant<std::string options::*, int options::*, unsigned options::*,
                                   long long options::*, bool options::*>> {
  const char* help;
  enum { kOptional, kRequired, kSecret } kind = kOptional;
};

const std::vector<option>& known_options();  // in the order of the help
std::vector<const char*> secret_options();   // whose values nobody else may see

struct parsed_options {
  std::optional<options> values;
  // When there are no values: what to print and the exit status (0 after --help).
  std::string message;
  int exit_status = 0;
};

// Serves for any number of command lines: describing the options takes far longer than reading
// them.
class option_parser {
 public:
  option_parser();
  ~option_parser();

  parsed_options parse(int argc, const char* const* argv);

 private:
  options values_;  // app_ writes into it
  std::unique_ptr<CLI::App> app_;
};

}  // namespace zelta::core_service
