// SPDX-License-Identifier: Apache-2.0
// Time of media, for rules that know nothing of what media is made of.
#pragma once

#include <chrono>

namespace zelta::core_service::media {

// A moment or a span on the monotonic clock, which is GStreamer's system clock as well.
using media_time = std::chrono::nanoseconds;

}  // namespace zelta::core_service::media
