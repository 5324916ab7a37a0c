// SPDX-License-Identifier: Apache-2.0
// Names as states, requests and commands of servers can have them. Any thread.
#pragma once

#include <string>

namespace zelta::deliver {

// UTF-8 (RFC 3629) without control characters.
bool is_sound_text(const std::string& text);
// Of one file in a folder: it leads nowhere else.
bool is_sound_name(const std::string& name);
// A folder's name at targets: such names, split by slashes.
bool is_sound_path(const std::string& path);
// In printable ASCII.
std::string shown_name(const std::string& name);

}  // namespace zelta::deliver
