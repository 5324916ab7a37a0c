// SPDX-License-Identifier: Apache-2.0
// Text as a part of a URL.
#pragma once

#include <string>
#include <string_view>

namespace zelta::record {

// All bytes but those of `kept` and what RFC 3986, section 2.3, leaves alone become their numbers.
std::string percent_encoded(std::string_view text, std::string_view kept = "");

}  // namespace zelta::record
