// SPDX-License-Identifier: Apache-2.0
#include "load.h"

#include <sstream>

namespace zelta::bench {

std::string load::text() const {
  std::ostringstream out;
  out << static_cast<int>(kind) << ' ' << width << ' ' << height << ' ' << frames << ' ' << users
      << ' ' << splice << ' ' << paced_s;
  return out.str();
}

std::optional<load> load::parse(const char* text) {
  if (text == nullptr) return std::nullopt;
  load read;
  int kind = 0;
  std::istringstream in(text);
  in >> kind >> read.width >> read.height >> read.frames >> read.users >> read.splice >>
      read.paced_s;
  if (!in) return std::nullopt;
  read.kind = static_cast<frame_kind>(kind);
  return read;
}

}  // namespace zelta::bench
