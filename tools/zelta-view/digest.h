// SPDX-License-Identifier: Apache-2.0
// SHA-256 and base64. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace zelta::view {

// In hexadecimal.
std::string sha256_of(std::string_view text);
std::string base64_sha256_of(std::string_view text);
std::string base64_of(std::string_view bytes);

}  // namespace zelta::view
