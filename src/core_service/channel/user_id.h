// SPDX-License-Identifier: Apache-2.0
// Users of WebRTC choose a name; a recording knows them by a number.
//
// Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zelta::core_service {

// 1 to 128 bytes of UTF-8 without control characters (C0, DEL, C1).
bool is_user_name(const std::string& name);

// Of a name that is a number of 1 to 4294967295, in decimal digits without a zero before them.
std::optional<uint32_t> user_number(const std::string& name);

// user_number(), if there is one. Any other name is its FNV-1a hash of 32 bits, over the name's
// bytes, in which 1 stands for 0. Two names may have one number: whoever comes second is turned
// away like one who uses a name that is taken.
uint32_t uid_of(const std::string& name);

}  // namespace zelta::core_service
