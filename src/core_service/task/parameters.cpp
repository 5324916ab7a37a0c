// SPDX-License-Identifier: Apache-2.0
#include "core_service/task/parameters.h"

#include <exception>
#include <memory>

#include <json/json.h>

namespace zelta::core_service {
namespace {

struct known_key {
  const char* name;
  std::optional<int> parameters::*value;
  int lowest;
};
constexpr known_key kKeys[] = {
    {"audio_indication_interval", &parameters::audio_indication_interval, 0},
    {"capture_interval", &parameters::capture_interval, 1},
    {"idle", &parameters::idle, 1},
};

void take(const std::string& name, const Json::Value& value, parameters& out,
          std::vector<std::string>& warnings) {
  for (const known_key& key : kKeys) {
    if (name != key.name) continue;
    if (value.isInt() && value.asInt() >= key.lowest) {
      out.*key.value = value.asInt();
    } else {
      warnings.push_back("parameter " + name + " should be a whole number from " +
                         std::to_string(key.lowest));
    }
    return;
  }
  std::string names;
  for (const known_key& key : kKeys) names += std::string(names.empty() ? "" : ", ") + key.name;
  warnings.push_back("unknown parameter \"" + name + "\"; there are " + names);
}

}  // namespace

parameters parse_parameters(const std::string& text, std::vector<std::string>& warnings) {
  parameters out;
  try {
    Json::Value root;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors) ||
        !root.isObject()) {
      warnings.emplace_back("parameters should be a JSON object such as {\"capture_interval\": 5}");
      return out;
    }
    for (const std::string& name : root.getMemberNames()) take(name, root[name], out, warnings);
  } catch (const std::exception& e) {
    warnings.push_back(std::string("parameters can't be read: ") + e.what());
  }
  return out;
}

}  // namespace zelta::core_service
