// SPDX-License-Identifier: Apache-2.0
// Formats of the codecs whose key frames say all themselves.
#pragma once

#include <memory>

#include "core_service/media/format_tracker.h"

namespace zelta::core_service::media {

std::unique_ptr<format_source> vp8_source(const codec& kind);
std::unique_ptr<format_source> vp9_source(const codec& kind);
std::unique_ptr<format_source> av1_source(const codec& kind);

}  // namespace zelta::core_service::media
