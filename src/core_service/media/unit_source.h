// SPDX-License-Identifier: Apache-2.0
// Encoded units as the source of a pipeline, for what has to be decoded:
//
//     push ─▶ appsrc ─▶ pad        a pad a track
//
// Thread rule: one thread at a time, but where it says so.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>

#include "core_service/media/encoded_unit.h"
#include "core_service/media/format_caps.h"
#include "core_service/media/gst.h"

namespace zelta::core_service::media {

class unit_source {
 public:
  // `ask` comes on any thread when somebody behind a pad wants a key frame.
  explicit unit_source(std::function<void()> ask);
  unit_source(const unit_source&) = delete;
  unit_source& operator=(const unit_source&) = delete;

  // For one pipeline, which has to run before the first unit is pushed.
  element_ptr bin() const;
  // The first of a track makes its pad; what is behind that is linked before this returns.
  void push(int number, const encoded_unit& unit);
  // Its stream ends behind what was pushed; the pad goes later.
  void end_track(int number);
  // The end of all streams, behind what was pushed.
  void end();

 private:
  struct track {
    GstElement* source = nullptr;  // borrowed from the bin
    pad_ptr shown;
    unit_samples samples;
  };

  struct ended_track {
    media_time since;
    track was;
  };

  void show(int number, track& made, GstCaps* caps);
  void remove_ended();

  const std::function<void()> ask_;
  const element_ptr bin_;
  std::map<int, track> tracks_;
  std::deque<ended_track> ended_;
};

}  // namespace zelta::core_service::media
