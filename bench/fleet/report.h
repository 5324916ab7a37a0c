// SPDX-License-Identifier: Apache-2.0
// What a run is told as: tables in Markdown, or JSON.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "bench/fleet/walls.h"

namespace zelta::fleet_model {

// One run, in full.
std::string tables_of(const result& of);
Json::Value json_of(const result& of);
// Several, a row each: what they reach of each capacity, and how long things take.
std::string walls_table(const std::vector<result>& runs);
std::string times_table(const std::vector<result>& runs);

}  // namespace zelta::fleet_model
