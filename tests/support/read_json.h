// SPDX-License-Identifier: Apache-2.0
#pragma once

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

}  // namespace zelta::test
