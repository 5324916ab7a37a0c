// SPDX-License-Identifier: Apache-2.0
// A process by a name that no other one gets. Any thread.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

#include <sys/types.h>

namespace zelta::base {

// A number alone may be another process's by now, as that of a container's first one always is:
// "PID@START", the latter in clock ticks since boot (proc(5)). Empty when there is no such process.
inline std::string process_name(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  // The program's name is in parentheses, and may have any.
  std::getline(file, text);
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string started;
  for (int field = 3; field <= 22; ++field) fields >> started;
  return file ? std::to_string(pid) + "@" + started : "";
}

}  // namespace zelta::base
