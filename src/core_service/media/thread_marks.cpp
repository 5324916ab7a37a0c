// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/thread_marks.h"

#include <memory>
#include <utility>

namespace zelta::core_service::media {

// GStreamer says on each of its threads for whom it begins to work.
void mark_threads(GstElement* pipeline, uint32_t uid,
                  std::function<crash_stage(GstElement* owner)> stage_of) {
  struct whose {
    uint32_t uid;
    std::function<crash_stage(GstElement*)> stage_of;
  };
  using context = handed_over<whose>;
  const bus_ptr bus(gst_pipeline_get_bus(GST_PIPELINE(pipeline)));
  gst_bus_set_sync_handler(
      bus.get(),
      [](GstBus*, GstMessage* message, gpointer given) {
        if (type_of(message) != GST_MESSAGE_STREAM_STATUS) return GST_BUS_PASS;
        const whose& user = static_cast<context*>(given)->get();
        GstStreamStatusType type{};
        GstElement* owner = nullptr;
        gst_message_parse_stream_status(message, &type, &owner);
        if (type == GST_STREAM_STATUS_TYPE_LEAVE) unmark_thread();
        if (type != GST_STREAM_STATUS_TYPE_ENTER) return GST_BUS_PASS;
        mark_thread(user.uid, user.stage_of ? user.stage_of(owner) : crash_stage::kReceiving);
        return GST_BUS_PASS;
      },
      std::make_unique<context>(whose{uid, std::move(stage_of)}).release(),
      [](gpointer given) { const std::unique_ptr<context> owner(static_cast<context*>(given)); });
}

}  // namespace zelta::core_service::media
