// SPDX-License-Identifier: Apache-2.0
// Owners of GStreamer objects and the few steps that every graph needs.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include "base/poster.h"
#include "base/scoped_watch.h"

// GStreamer hands buffers and memory from thread to thread, and uses them again, under locks that
// the thread sanitizer doesn't see, because the library isn't instrumented: what looks into them is
// not for it to judge.
#define ZELTA_NOT_FOR_TSAN __attribute__((no_sanitize("thread")))

namespace zelta::core_service::media {

struct object_unref {
  void operator()(void* object) const { gst_object_unref(object); }
};
struct caps_unref {
  void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
struct message_unref {
  void operator()(GstMessage* message) const { gst_message_unref(message); }
};
struct sample_unref {
  void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};
struct buffer_unref {
  void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
};

using element_ptr = std::unique_ptr<GstElement, object_unref>;
using pad_ptr = std::unique_ptr<GstPad, object_unref>;
using bus_ptr = std::unique_ptr<GstBus, object_unref>;
using clock_ptr = std::unique_ptr<GstClock, object_unref>;
using caps_ptr = std::unique_ptr<GstCaps, caps_unref>;
using message_ptr = std::unique_ptr<GstMessage, message_unref>;
using sample_ptr = std::unique_ptr<GstSample, sample_unref>;
using buffer_ptr = std::unique_ptr<GstBuffer, buffer_unref>;

// A bin of the elements that `description` names in gst-launch syntax, its open ends as pads "sink"
// and "src". Null, with `error`, when an element is missing.
element_ptr make_bin(const std::string& description, std::string& error);

// Whether the plugin with the element is installed.
bool have_element(const char* name);

// A pipeline of the elements that `description` names. Null, with `error`, when one is missing.
element_ptr make_pipeline(const std::string& description, std::string& error);

// The clock of all pipelines, so that their media stands on one timeline.
void use_system_clock(GstElement* pipeline);

// The element called `name` inside `bin`, which keeps it alive.
GstElement* child(GstElement* bin, const char* name);

// What is given to GStreamer on one thread and comes back in a callback on another: the hand-over
// is said in the language's own terms too, for compilers and sanitizers, which don't see the
// library's.
template <class T>
class handed_over {
 public:
  explicit handed_over(T value) : value_(std::move(value)) { given_.store(true); }
  T& get() {
    static_cast<void>(given_.load());
    return value_;
  }

 private:
  T value_;
  std::atomic<bool> given_{false};
};

// The same for bytes of ours that a pipeline carries: whoever has pushed says so, and whoever takes
// samples out has seen it. Any thread.
void say_pushed();
void see_pushed();

// Calls `take` on the streaming thread for every sample of `appsink`, and `ended` (unless null)
// when the stream has ended. Neither comes any more once the sink is in the state NULL.
void on_samples(GstElement* appsink, std::function<void(GstSample*)> take,
                std::function<void()> ended);

// A whole number of caps; 0: there is none.
int int_of(const GstStructure* fields, const char* name);
std::vector<uint8_t> bytes_of(GstBuffer* buffer);

// Has `look` see what passes the pad, on the thread that it passes on, as long as the pad is there.
void add_probe(GstPad* pad, GstPadProbeType type,
               std::function<GstPadProbeReturn(GstPadProbeInfo*)> look);

// The times of a buffer. All that reads and writes fields of GStreamer's stands in these, so that
// nothing else has to be hidden from the thread sanitizer.
struct buffer_times {
  GstClockTime pts = GST_CLOCK_TIME_NONE;
  GstClockTime dts = GST_CLOCK_TIME_NONE;
  GstClockTime duration = GST_CLOCK_TIME_NONE;
};
buffer_times times_of(const GstBuffer* buffer);
void set_times(GstBuffer* buffer, const buffer_times& times);
// Whether the buffer can be decoded by itself.
bool is_key(const GstBuffer* buffer);
void set_key(GstBuffer* buffer, bool key);
GstEventType type_of(const GstEvent* event);
GstMessageType type_of(const GstMessage* message);

// Adds `child` to `parent`, which takes it. Returns it, borrowed.
GstElement* add(GstElement* parent, element_ptr child);

// What a pipeline has to say, told on the loop's thread until the watch is gone.
class bus_watch {
 public:
  struct events {
    std::function<void()> ended;
    // `from` is the name of the element; `disk` tells that a file could not be written.
    std::function<void(const std::string& why, const std::string& from, bool disk)> failed;
    // Media that nothing is installed for. May be null.
    std::function<void(const GstCaps* caps)> unknown = nullptr;
  };
  // Pipeline and loop are borrowed and must outlive it. The callbacks may destroy it.
  bus_watch(GstElement* pipeline, base::event_loop& loop, events told);
  bus_watch(const bus_watch&) = delete;
  bus_watch& operator=(const bus_watch&) = delete;

 private:
  void on_readable();
  void on_message(GstMessage* message);

  const events events_;
  bus_ptr bus_;
  base::poster poster_;
  base::scoped_watch watch_;
};

}  // namespace zelta::core_service::media
