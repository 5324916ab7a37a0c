// SPDX-License-Identifier: Apache-2.0
// What was to be recorded and isn't: the one way in which every part of the recorder says so. The
// session tells the engine, the log and the manifest (`missing`), each once.
#pragma once

#include <string>

namespace zelta::core_service {

struct missing_medium {
  std::string medium;  // "video", "audio", "all", or in words what is made of one: "decoded video"
  std::string codec;   // empty: unknown, or no matter
  std::string reason;
};

}  // namespace zelta::core_service
