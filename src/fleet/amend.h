// SPDX-License-Identifier: Apache-2.0
// Adding to a JSON object of the store that others write, too.
#pragma once

#include <functional>
#include <string>

#include <json/json.h>

#include "fleet/bucket.h"

namespace zelta::fleet {

// Reads it, an empty one where there is none, has it edited and writes it: again when somebody has
// written in between. Waits for servers. False, with `error`.
bool amend(const bucket& in, const std::string& key,
           const std::function<void(Json::Value& object)>& edit, std::string& error);

}  // namespace zelta::fleet
