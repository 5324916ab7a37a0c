// SPDX-License-Identifier: Apache-2.0
// The small grammar inside attributes of session descriptions: words, numbers, parameters.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelta::core_service::webrtc {

// What stands between blanks.
std::vector<std::string> words_of(const std::string& text);

// What stands between `separator`s; as many parts as those and one.
std::vector<std::string> parts_of(const std::string& text, char separator);

// None unless `text` is a decimal number of 32 bits and nothing else.
std::optional<uint32_t> number_of(const std::string& text);

// The value of NAME in "NAME=VALUE;NAME=VALUE", names in any case; "": there is none.
std::string parameter_of(const std::string& parameters, const std::string& name);

// `value` for an error: whole characters, no more than fit into a line.
std::string shown(const std::string& value);

}  // namespace zelta::core_service::webrtc
