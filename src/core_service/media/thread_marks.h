// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>

#include "core_service/folder/crash_note.h"
#include "core_service/media/gst.h"

namespace zelta::core_service::media {

// Marks each thread that `pipeline` starts from now on as serving the user. `stage_of` is asked
// on that thread with the element that it drives; it may be null: all receive.
void mark_threads(GstElement* pipeline, uint32_t uid,
                  std::function<crash_stage(GstElement* owner)> stage_of);

}  // namespace zelta::core_service::media
