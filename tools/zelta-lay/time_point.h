// SPDX-License-Identifier: Apache-2.0
// Moments of a session, as people write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zelta::lay {

// Microseconds from the session's zero: "90", "1:30.5", "0:01:30", or UTC as
// "2026-01-31T12:00:00.250Z", which `zero_utc_us` turns into one. None for anything else.
std::optional<int64_t> parse_time(const std::string& text, int64_t zero_utc_us);

// "0:01:30.500".
std::string time_text(int64_t us);

}  // namespace zelta::lay
