// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "core_service/media/codecs.h"
#include "core_service/media/gst.h"

namespace zelta::core_service::media {

// Prepares the decoders in `branch`, which takes pictures of the codec `from`: they start no
// threads of their own, which would serve a user without a mark, and see nothing of pictures that
// are too large to be decoded. `refused` comes on a streaming thread whenever such begin.
void guard_decoders(GstElement* branch, const codec& from, const std::function<void()>& refused);

}  // namespace zelta::core_service::media
