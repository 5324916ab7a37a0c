// SPDX-License-Identifier: Apache-2.0
// What people are shown of a fleet.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "fleet/recording_state.h"

namespace zelta::fleet {

using table = std::vector<std::vector<std::string>>;

// The first row is the heads.
void print(const table& rows);

table table_of(const std::vector<recording_state>& all);
table table_of_stretches(const recording_state& of);
table table_of_workers(const std::vector<Json::Value>& all);
// "12 s", "3 min", "5 h": since that moment.
std::string age_of(int64_t utc_ms);
// What is new of a recording, in a line.
std::string line_of(const recording_state& of);

}  // namespace zelta::fleet
