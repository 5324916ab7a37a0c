// SPDX-License-Identifier: Apache-2.0
// What is said on stderr. Any thread.
#pragma once

#include <string>

namespace zelta::view {

// Control characters, which names from elsewhere may have and terminals obey, as \xNN.
std::string printable(const std::string& text);
// A line, with the program's name before it.
void complain(const std::string& text);

}  // namespace zelta::view
