// SPDX-License-Identifier: Apache-2.0
// Looks at a folder again and again; what hasn't changed is neither read nor put together twice.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "session_json.h"

namespace zelta::view {

// One thread.
class folder_reader {
 public:
  // Ends in a slash.
  explicit folder_reader(std::string folder);

  // As it is now. `now_utc_ms`: of the wall clock, by which a file that nobody writes any more is
  // told. Holds until the next look.
  const folder_view& look(int64_t now_utc_ms);

 private:
  void read(const std::string& name, manifest_seen& seen) const;

  const std::string folder_;
  std::map<std::string, std::string> identities_;  // of what was read, by the manifest's name
  std::map<std::string, manifest_seen> seen_;
  std::string state_;  // what view_ is made of
  folder_view view_;
};

folder_view look_at(const std::string& folder, int64_t now_utc_ms);
int64_t wall_clock_ms();

}  // namespace zelta::view
