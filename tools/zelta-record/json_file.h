// SPDX-License-Identifier: Apache-2.0
// JSON that a user wrote.
#pragma once

#include <string>

#include <json/json.h>

namespace zelta::record {

// The object in the file; null, with `error` naming file and fault, when there is none.
Json::Value read_json_object(const std::string& path, std::string& error);

}  // namespace zelta::record
