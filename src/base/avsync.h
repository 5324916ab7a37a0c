// SPDX-License-Identifier: Apache-2.0
// How the recorder lines up sound and picture.
#pragma once

#include <cstdint>

namespace zelta::base {

enum avsyncType : int32_t {
  UNKNOWN_AVSYNC = -1,
  AVSYNC_V0 = 0,  // by time of arrival
  AVSYNC_V1 = 1,  // by the sender's clock
  AVSYNC_V2 = 2,  // by the sender's clock, with silence in the gaps
};

}  // namespace zelta::base
