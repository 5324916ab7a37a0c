// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <initializer_list>
#include <sstream>
#include <string>

#include <json/json.h>

#include "support/temp_dir.h"

namespace zelta::test {

// Null while there is no such file.
inline Json::Value read_json(const std::string& path) {
  Json::Value root;
  const std::string text = read_file(path);
  if (!text.empty()) std::istringstream(text) >> root;
  return root;
}

// The values of these members, with a space between.
inline std::string fields(const Json::Value& of, std::initializer_list<const char*> names) {
  std::string all;
  for (const char* const name : names) all += (all.empty() ? "" : " ") + of[name].asString();
  return all;
}

}  // namespace zelta::test
