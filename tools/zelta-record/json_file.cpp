// SPDX-License-Identifier: Apache-2.0
#include "json_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>

#include <sys/stat.h>

namespace zelta::record {

Json::Value read_json_object(const std::string& path, std::string& error) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    error = path + " can't be read: " + std::strerror(errno);
    return {};
  }
  std::ifstream file(path);
  if (!S_ISREG(status.st_mode) || !file) {
    error = path + " can't be read: it should be a file that you may read";
    return {};
  }
  Json::Value root;
  std::string fault;
  try {
    if (Json::parseFromStream(Json::CharReaderBuilder(), file, &root, &fault) && root.isObject()) {
      return root;
    }
  } catch (const std::exception& e) {
    fault = e.what();
  }
  std::replace(fault.begin(), fault.end(), '\n', ' ');
  error = path + " should hold a JSON object" + (fault.empty() ? "" : ": " + fault);
  return {};
}

}  // namespace zelta::record
