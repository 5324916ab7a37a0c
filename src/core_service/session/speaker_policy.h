// SPDX-License-Identifier: Apache-2.0
// Who speaks, by how loud everybody is.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace zelta::core_service {

class speaker_policy {
 public:
  // Each user's volume of 0 to 255, in the order of `uids`, of whom there is one at least. Who
  // speaks from here on, when that is somebody else than before.
  std::optional<uint32_t> listen(const std::vector<uint32_t>& uids,
                                 const std::vector<uint32_t>& volumes);

 private:
  uint32_t active_ = 0;
};

}  // namespace zelta::core_service
