// SPDX-License-Identifier: Apache-2.0
#include "core_service/task/parameters.h"

#include <exception>
#include <memory>

#include <json/json.h>

#include "core_service/task/field.h"

namespace zelta::core_service {
namespace {

using parameter = field<std::optional<int> parameters::*>;
constexpr parameter kKnown[] = {
    {"audio_indication_interval", &parameters::audio_indication_interval, 0},
    {"capture_interval", &parameters::capture_interval, 1},
    {"idle", &parameters::idle, 1},
};

void take(const std::string& name, const Json::Value& value, parameters& out,
          std::vector<std::string>& warnings) {
  for (const parameter& known : kKnown) {
    if (name != known.name) continue;
    if (value.isInt() && known.fits(value.asInt())) {
      out.*known.value = value.asInt();
    } else {
      warnings.push_back("parameter " + name + " should be a whole number from " +
                         std::to_string(known.lowest));
    }
    return;
  }
  warnings.push_back("unknown parameter \"" + name + "\"; there are " + names_in(kKnown, ""));
}

}  // namespace

parameters parse_parameters(const std::string& text, std::vector<std::string>& warnings) {
  parameters out;
  try {
    Json::Value root;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (reader->parse(text.data(), text.data() + text.size(), &root, nullptr) && root.isObject()) {
      for (const std::string& name : root.getMemberNames()) take(name, root[name], out, warnings);
    } else {
      warnings.emplace_back("parameters should be a JSON object such as {\"capture_interval\": 5}");
    }
  } catch (const std::exception& e) {
    warnings.push_back(std::string("parameters can't be read: ") + e.what());
  }
  return out;
}

}  // namespace zelta::core_service
