// SPDX-License-Identifier: Apache-2.0
// What a user writes while they are recorded.
#pragma once

#include <string>

#include "core_service/media/media_time.h"

namespace zelta::core_service::media {

struct user_text {
  media_time time{};  // when it came
  std::string label;  // of the data channel that it came by; may be empty
  std::string text;   // UTF-8
};

}  // namespace zelta::core_service::media
