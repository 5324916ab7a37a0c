// SPDX-License-Identifier: Apache-2.0
// What the application may change while it records; the plan stands.
#pragma once

#include "core_service/task/options.h"

namespace zelta::core_service {

struct live_settings {
  // As the command line has them.
  explicit live_settings(const options& given)
      : idle_s(given.idle),
        capture_interval_s(given.capture_interval > 0 ? given.capture_interval : 1),
        volume_interval_ms(given.audio_indication_interval) {}

  int idle_s;              // without a user, after which the recorder leaves
  int capture_interval_s;  // between captured pictures
  int volume_interval_ms;  // between reports of volumes; 0 or less: none
};

}  // namespace zelta::core_service
