// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/gst.h"

#include <cstring>
#include <utility>

namespace zelta::core_service::media {

element_ptr make_bin(const std::string& description, std::string& error) {
  GError* failed = nullptr;
  GstElement* const bin = gst_parse_bin_from_description_full(description.c_str(), TRUE, nullptr,
                                                              GST_PARSE_FLAG_FATAL_ERRORS, &failed);
  if (failed != nullptr) {
    error = std::string(failed->message) + " (in: " + description + ")";
    g_clear_error(&failed);
  }
  return element_ptr(bin != nullptr ? GST_ELEMENT(gst_object_ref_sink(bin)) : nullptr);
}

element_ptr make_pipeline(const std::string& description, std::string& error) {
  GError* failed = nullptr;
  GstElement* const made =
      gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &failed);
  if (failed != nullptr) {
    error = std::string(failed->message) + " (in: " + description + ")";
    g_clear_error(&failed);
  }
  return element_ptr(made != nullptr ? GST_ELEMENT(gst_object_ref_sink(made)) : nullptr);
}

GstElement* child(GstElement* bin, const char* name) {
  GstElement* const found = gst_bin_get_by_name(GST_BIN(bin), name);
  if (found != nullptr) gst_object_unref(found);
  return found;
}

namespace {

std::atomic<unsigned> pushed{0};

struct sample_taker {
  std::function<void(GstSample*)> take;
  std::function<void()> ended;
};

}  // namespace

void say_pushed() {
  pushed.fetch_add(1, std::memory_order_release);
}

void see_pushed() {
  static_cast<void>(pushed.load(std::memory_order_acquire));
}

void on_samples(GstElement* appsink, std::function<void(GstSample*)> take,
                std::function<void()> ended) {
  auto taker =
      std::make_unique<handed_over<sample_taker>>(sample_taker{std::move(take), std::move(ended)});
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = [](GstAppSink* sink, gpointer context) {
    const sample_ptr sample(gst_app_sink_pull_sample(sink));
    if (!sample) return GST_FLOW_EOS;
    see_pushed();
    static_cast<handed_over<sample_taker>*>(context)->get().take(sample.get());
    return GST_FLOW_OK;
  };
  callbacks.eos = [](GstAppSink*, gpointer context) {
    const sample_taker& told = static_cast<handed_over<sample_taker>*>(context)->get();
    if (told.ended) told.ended();
  };
  gst_app_sink_set_callbacks(GST_APP_SINK(appsink), &callbacks, taker.release(), [](gpointer done) {
    const std::unique_ptr<handed_over<sample_taker>> owner(
        static_cast<handed_over<sample_taker>*>(done));
  });
}

void use_system_clock(GstElement* pipeline) {
  const clock_ptr clock(gst_system_clock_obtain());
  gst_pipeline_use_clock(GST_PIPELINE(pipeline), clock.get());
}

int int_of(const GstStructure* fields, const char* name) {
  int value = 0;
  gst_structure_get_int(fields, name, &value);
  return value;
}

std::vector<uint8_t> bytes_of(GstBuffer* buffer) {
  std::vector<uint8_t> bytes(gst_buffer_get_size(buffer));
  gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
  return bytes;
}

void add_probe(GstPad* pad, GstPadProbeType type,
               std::function<GstPadProbeReturn(GstPadProbeInfo*)> look) {
  using context = handed_over<std::function<GstPadProbeReturn(GstPadProbeInfo*)>>;
  gst_pad_add_probe(
      pad, type,
      [](GstPad*, GstPadProbeInfo* info, gpointer given) {
        see_pushed();
        return static_cast<context*>(given)->get()(info);
      },
      std::make_unique<context>(std::move(look)).release(),
      [](gpointer given) { const std::unique_ptr<context> owner(static_cast<context*>(given)); });
}

ZELTA_NOT_FOR_TSAN buffer_times times_of(const GstBuffer* buffer) {
  return {GST_BUFFER_PTS(buffer), GST_BUFFER_DTS(buffer), GST_BUFFER_DURATION(buffer)};
}

ZELTA_NOT_FOR_TSAN void set_times(GstBuffer* buffer, const buffer_times& times) {
  GST_BUFFER_PTS(buffer) = times.pts;
  GST_BUFFER_DTS(buffer) = times.dts;
  GST_BUFFER_DURATION(buffer) = times.duration;
}

ZELTA_NOT_FOR_TSAN bool is_key(const GstBuffer* buffer) {
  return !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
}

ZELTA_NOT_FOR_TSAN void set_key(GstBuffer* buffer, bool key) {
  if (key) {
    GST_BUFFER_FLAG_UNSET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  } else {
    GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  }
}

ZELTA_NOT_FOR_TSAN GstEventType type_of(const GstEvent* event) {
  return GST_EVENT_TYPE(event);
}

ZELTA_NOT_FOR_TSAN GstMessageType type_of(const GstMessage* message) {
  return GST_MESSAGE_TYPE(message);
}

bool have_element(const char* name) {
  GstElementFactory* const found = gst_element_factory_find(name);
  if (found == nullptr) return false;
  gst_object_unref(found);
  return true;
}

GstElement* add(GstElement* parent, element_ptr child) {
  GstElement* const borrowed = child.get();
  gst_bin_add(GST_BIN(parent), child.get());
  return borrowed;
}

bus_watch::bus_watch(GstElement* pipeline, base::event_loop& loop, events told)
    : events_(std::move(told)), bus_(gst_pipeline_get_bus(GST_PIPELINE(pipeline))), poster_(loop) {
  GPollFD polled{};
  gst_bus_get_pollfd(bus_.get(), &polled);
  watch_ = {loop, polled.fd, {[this] { on_readable(); }}};
}

void bus_watch::on_readable() {
  const std::weak_ptr<int> alive = poster_.life();
  while (!alive.expired()) {
    const message_ptr message(gst_bus_pop(bus_.get()));
    if (!message) return;
    on_message(message.get());
  }
}

void bus_watch::on_message(GstMessage* message) {
  // Copies, because what is called may destroy this.
  const events told = events_;
  if (type_of(message) == GST_MESSAGE_EOS && told.ended) return told.ended();
  if (type_of(message) == GST_MESSAGE_ELEMENT && told.unknown) {
    // Of the base plugins' utilities, whose library is one more to link for this name alone.
    const GstStructure* const fields = gst_message_get_structure(message);
    const GValue* const detail = gst_structure_has_name(fields, "missing-plugin") != FALSE
                                     ? gst_structure_get_value(fields, "detail")
                                     : nullptr;
    if (detail != nullptr && GST_VALUE_HOLDS_CAPS(detail)) {
      told.unknown(gst_value_get_caps(detail));
    }
    return;
  }
  if (type_of(message) != GST_MESSAGE_ERROR || !told.failed) return;
  GError* error = nullptr;
  char* details = nullptr;
  gst_message_parse_error(message, &error, &details);
  std::string why = error->message;
  // The first line is a place in a plugin's source; what comes behind it says more, if it is there.
  const char* const more = details != nullptr ? std::strchr(details, '\n') : nullptr;
  // By its kind: the number in its name would make each time another reason.
  const auto* const from = GST_MESSAGE_SRC(message);
  GstElementFactory* const made_by =
      GST_IS_ELEMENT(from) != FALSE ? gst_element_get_factory(GST_ELEMENT(from)) : nullptr;
  why += std::string(" (") + (made_by != nullptr ? GST_OBJECT_NAME(made_by) : "pipeline") +
         (more != nullptr ? std::string(": ") + (more + 1) : "") + ")";
  const bool disk = g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NO_SPACE_LEFT) ||
                    g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_WRITE) ||
                    g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_WRITE) ||
                    g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SEEK);
  // Which media it was has been told; none of a source's is left, so it has ended.
  const bool nothing_fits = told.unknown && g_error_matches(error, GST_CORE_ERROR,
                                                            GST_CORE_ERROR_MISSING_PLUGIN) != FALSE;
  g_clear_error(&error);
  g_free(details);
  if (nothing_fits) return told.ended();
  told.failed(why, GST_OBJECT_NAME(GST_MESSAGE_SRC(message)), disk);
}

}  // namespace zelta::core_service::media
