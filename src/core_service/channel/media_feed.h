// SPDX-License-Identifier: Apache-2.0
// What fills the source of a user from outside of its pipeline.
#pragma once

#include <string>

namespace zelta::core_service {

// On the loop's thread. Gone before the pipeline is that its source stands in.
class media_feed {
 public:
  virtual ~media_feed() = default;
  // The pipeline plays. Media comes from here on, to the end of this object.
  virtual void start() = 0;
  // What is wrong with what comes, once; else empty.
  virtual std::string fault() = 0;
};

}  // namespace zelta::core_service
