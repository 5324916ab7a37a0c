// SPDX-License-Identifier: Apache-2.0
#include "rec_engine/config_file.h"

#include <exception>
#include <fstream>

#include <json/json.h>
#include <sys/stat.h>

namespace zelta::recording {
namespace {

struct value_lookup {
  lookup_status status;
  Json::Value value;
};

value_lookup look_up(const char* path, const char* key) {
  struct stat status {};
  if (stat(path, &status) != 0 || !S_ISREG(status.st_mode)) return {lookup_status::kCannotOpen, {}};
  std::ifstream file(path);
  if (!file) return {lookup_status::kCannotOpen, {}};

  Json::CharReaderBuilder reader;
  reader["collectComments"] = false;
  Json::Value root;
  std::string errors;
  if (!Json::parseFromStream(reader, file, &root, &errors)) {
    return {lookup_status::kCannotParse, {}};
  }
  if (!root.isObject() || root[key].isNull()) return {lookup_status::kNoKey, {}};
  return {lookup_status::kFound, root[key]};
}

// The library throws on nesting that is too deep, and on memory that is not to be had.
value_lookup look_up_without_throwing(const char* path, const char* key) {
  try {
    return look_up(path, key);
  } catch (const std::exception&) {
    return {lookup_status::kCannotParse, {}};
  }
}

}  // namespace

text_lookup look_up_text(const char* path, const char* key) {
  const value_lookup found = look_up_without_throwing(path, key);
  const bool text = found.status == lookup_status::kFound && found.value.isString();
  return {found.status, text ? found.value.asString() : std::string()};
}

uint32_t look_up_uint(const char* path, const char* key) {
  const value_lookup found = look_up_without_throwing(path, key);
  return found.value.isUInt() ? found.value.asUInt() : 0;
}

}  // namespace zelta::recording
