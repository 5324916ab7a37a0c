// SPDX-License-Identifier: Apache-2.0
// What neither the engine's configuration nor a channel decides about a machine's recorders: a JSON
// object in the file that an environment variable names. docs/recorder-settings.schema.json
// describes the same.
//
// Any thread. Needs no media: the command line tool checks its file with this, too.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "core_service/task/field.h"

namespace zelta::core_service {

constexpr const char* kSettingsVariable = "ZELTA_RECORDER_SETTINGS";

struct recorder_settings {
  int most_users = 0;  // 0: as many as the machine takes
  int first_port = 0;  // 0: no bound on that side
  int last_port = 0;
  int sound = 0;  // 0: as it comes, where a file takes it; 1, AAC in MP4, encoded anew
  // Of whom volumes are kept: 0, those whose senders tell them; 1, all; 2, nobody.
  int volumes = 0;

  // Of users who publish by WHIP. Empty: not given.
  std::string whip_token;
  std::string whip_certificate;  // with whip_key, or neither; paths of PEM files
  std::string whip_key;
  // IP addresses that users reach the machine under, split by commas without spaces.
  std::string whip_address;
  std::string janus_api_secret;  // empty: gateways don't ask for any
};

// "ports.from" is `from` in the object `ports`. Of a text, `lowest` and `highest` bound its bytes.
struct setting : field<std::variant<int recorder_settings::*, std::string recorder_settings::*>> {
  // kSecret: printable ASCII without spaces, as it has to pass through a header of HTTP; no error
  // shows it.
  enum { kPlain, kSecret } kind = kPlain;
};

// All that there are.
const std::vector<setting>& known_settings();

struct loaded_settings {
  recorder_settings values;  // of use without errors alone
  // Everything that is wrong, up to a bound that no honest file reaches: in printable ASCII behind
  // the file's name, each with the key, its value, and what would be right.
  std::vector<std::string> errors;
};

// Waits for nothing: what isn't a plain file is an error. Never throws.
loaded_settings load_settings(const std::string& path);
// The defaults when the variable isn't set, or empty.
loaded_settings load_settings_of_environment();
// Of a file's text; `path` is what errors call it.
loaded_settings parse_settings(const std::string& path, const std::string& text,
                               const std::vector<setting>& known = known_settings());

}  // namespace zelta::core_service
