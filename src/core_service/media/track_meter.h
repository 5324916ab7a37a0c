// SPDX-License-Identifier: Apache-2.0
// Watches what passes a pad: where it stands in time, and when it begins.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include <gst/gst.h>

namespace zelta::core_service::media {

// Lives at least as long as the pad is streaming. The numbers may be read from any thread.
class track_meter {
 public:
  struct reading {
    uint64_t buffers = 0;
    uint64_t bytes = 0;
    // Running times of the pipeline, in nanoseconds; valid when buffers is not 0.
    GstClockTime first = 0;
    GstClockTime end = 0;
    int width = 0;  // pixels; 0 for sound
    int height = 0;
  };

  // `on_first` is called once, with the first buffer, on the streaming thread.
  track_meter(GstPad* pad, std::function<void(const reading&)> on_first);
  track_meter(const track_meter&) = delete;
  track_meter& operator=(const track_meter&) = delete;
  ~track_meter() = default;

  reading read() const;

 private:
  static GstPadProbeReturn on_buffer(GstPad* pad, GstPadProbeInfo* info, gpointer self);
  void count(GstPad* pad, GstBuffer* buffer);

  mutable std::mutex mutex_;
  reading reading_;
  std::function<void(const reading&)> on_first_;
};

// Running time of a buffer on `pad` by its presentation time, and its duration (0 when unknown);
// GST_CLOCK_TIME_NONE for a buffer without a time.
GstClockTime running_time(GstPad* pad, const GstBuffer* buffer);

}  // namespace zelta::core_service::media
