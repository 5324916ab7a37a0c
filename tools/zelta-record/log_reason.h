// SPDX-License-Identifier: Apache-2.0
// What the log says went wrong.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zelta::record {

// The messages of the error lines in the log of `folder` (with its slash) since then, without time,
// module and place in the source; of a long log in its last megabyte.
std::vector<std::string> logged_errors(const std::string& folder, int64_t since_utc_ms);
// Why a session failed, in words; empty when the log doesn't tell.
std::string logged_reason(const std::string& folder, int64_t since_utc_ms);

}  // namespace zelta::record
