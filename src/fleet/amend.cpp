// SPDX-License-Identifier: Apache-2.0
#include "fleet/amend.h"

#include <optional>

#include "fleet/json_text.h"

namespace zelta::fleet {

bool amend(const bucket& in, const std::string& key,
           const std::function<void(Json::Value& object)>& edit, std::string& error) {
  constexpr int kMostTries = 10;
  change made = change::kOutdated;
  for (int at = 0; at < kMostTries && made == change::kOutdated; ++at) {
    const std::optional<stored> there = in.get(key, error);
    if (!error.empty()) return false;
    Json::Value object = there ? parsed(there->value) : Json::nullValue;
    if (!object.isObject()) object = Json::objectValue;
    edit(object);
    uint64_t revision = there ? there->revision : 0;
    made = in.update(key, line_of(object), revision, error);
  }
  if (made == change::kDone) error.clear();
  return made == change::kDone;
}

}  // namespace zelta::fleet
