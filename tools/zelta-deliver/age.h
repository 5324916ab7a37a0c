// SPDX-License-Identifier: Apache-2.0
// Seals bytes for public keys by the program age: nothing of its own is known here but how it is
// called. Any thread; it waits.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "pace.h"
#include "settings.h"
#include "target.h"

namespace zelta::deliver {

// What is sealed has this behind its name.
constexpr const char* kSealedEnding = ".age";

// Finds the program, if a target of `settings` is sealed, and has it try the keys: a mistyped one
// is told before anything is sent. `path` is the settings' file.
void check_sealing(const std::string& path, delivery_settings& settings,
                   std::vector<std::string>& errors);

// Reads `plain` from its place on, and writes `to`; both lent. There is no limit to the time that
// it takes, only to that in which it neither reads nor writes.
outcome seal(const std::string& age, const std::vector<std::string>& keys, int plain, int to,
             std::chrono::seconds stall, const pace& limits);

}  // namespace zelta::deliver
