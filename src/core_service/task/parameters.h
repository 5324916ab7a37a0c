// SPDX-License-Identifier: Apache-2.0
// What an application may change while it records: a JSON object.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zelta::core_service {

struct parameters {
  std::optional<int> audio_indication_interval;  // milliseconds; 0: none
  std::optional<int> capture_interval;           // seconds
  std::optional<int> idle;                       // seconds
};

// The parameters in `text`; for everything in it that is of no use a warning that says what would
// be. Never throws.
parameters parse_parameters(const std::string& text, std::vector<std::string>& warnings);

}  // namespace zelta::core_service
