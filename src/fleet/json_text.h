// SPDX-License-Identifier: Apache-2.0
// JSON as it goes over the wire: a line.
#pragma once

#include <string>

#include <json/json.h>

namespace zelta::fleet {

std::string line_of(const Json::Value& of);
// Null for what is none, or is nested too deeply. Never throws.
Json::Value parsed(const std::string& text);
// At most so many bytes of a text that came from elsewhere.
std::string cut(std::string text);

}  // namespace zelta::fleet
