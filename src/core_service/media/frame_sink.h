// SPDX-License-Identifier: Apache-2.0
// The end of a branch whose frames go to the application.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <gst/gst.h>

#include "core_service/engine_link.h"

namespace zelta::core_service::media {

enum class frame_kind { kPcm, kAac, kH264, kYuv };

// What the frames' packets say besides the media.
struct frame_labels {
  uint32_t uid;
  int32_t avsync_type;
};

// Turns the samples of an appsink into packets for the engine, on the streaming thread. Must
// outlive the streaming of its sink.
class frame_sink {
 public:
  virtual ~frame_sink() = default;

  // `appsink` and `link` are borrowed.
  static std::unique_ptr<frame_sink> make(frame_kind kind, GstElement* appsink, frame_labels labels,
                                          engine_link& link);
};

// The elements that lead from the parsed stream of a codec to the frames, in gst-launch syntax and
// with the appsink at their end.
std::string frame_branch(frame_kind kind);

}  // namespace zelta::core_service::media
