// SPDX-License-Identifier: Apache-2.0
// Owners of GStreamer objects and the few steps that every graph needs.
#pragma once

#include <memory>
#include <string>

#include <gst/gst.h>

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
struct event_unref {
  void operator()(GstEvent* event) const { gst_event_unref(event); }
};

using element_ptr = std::unique_ptr<GstElement, object_unref>;
using pad_ptr = std::unique_ptr<GstPad, object_unref>;
using bus_ptr = std::unique_ptr<GstBus, object_unref>;
using clock_ptr = std::unique_ptr<GstClock, object_unref>;
using caps_ptr = std::unique_ptr<GstCaps, caps_unref>;
using message_ptr = std::unique_ptr<GstMessage, message_unref>;
using sample_ptr = std::unique_ptr<GstSample, sample_unref>;
using event_ptr = std::unique_ptr<GstEvent, event_unref>;

// A bin of the elements that `description` names in gst-launch syntax, its open ends as pads "sink"
// and "src". Null, with `error`, when an element is missing.
element_ptr make_bin(const std::string& description, std::string& error);

// Whether the plugin with the element is installed.
bool have_element(const char* name);

// Adds `child` to `parent`, which takes it. Returns it, borrowed.
GstElement* add(GstElement* parent, element_ptr child);

}  // namespace zelta::core_service::media
