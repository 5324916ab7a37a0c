// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/decoder_guard.h"

#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "core_service/media/plain_pictures.h"

namespace zelta::core_service::media {
namespace {

std::vector<GstElement*> decoders_in(GstElement* branch) {
  std::vector<GstElement*> decoders;
  GstIterator* const elements = gst_bin_iterate_recurse(GST_BIN(branch));
  gst_iterator_foreach(
      elements,
      [](const GValue* item, gpointer found) {
        auto* const element = GST_ELEMENT(g_value_get_object(item));
        const char* const what = gst_element_get_metadata(element, "klass");
        if (what != nullptr && std::strstr(what, "Decoder") != nullptr) {
          static_cast<std::vector<GstElement*>*>(found)->push_back(element);
        }
      },
      &decoders);
  gst_iterator_free(elements);
  return decoders;
}

// A decoder sets itself up by the caps already, where a parser has made them.
void guard(GstElement* decoder, const codec& from, std::function<void()> refused) {
  const bool vp8 = std::strcmp(from.name, "vp8") == 0;
  const bool says_itself = vp8 || std::strcmp(from.name, "theora") == 0;
  const pad_ptr in(gst_element_get_static_pad(decoder, "sink"));
  add_probe(
      in.get(),
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
      [refused = std::move(refused), vp8, says_itself,
       huge = false](GstPadProbeInfo* info) mutable {
        std::optional<bool> decodable;
        if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
          GstBuffer* const coded = GST_PAD_PROBE_INFO_BUFFER(info);
          GstMapInfo map{};
          if (says_itself && gst_buffer_map(coded, &map, GST_MAP_READ) != FALSE) {
            decodable = is_decodable(map.data, map.size, vp8);
            gst_buffer_unmap(coded, &map);
          }
        } else {
          GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
          if (type_of(event) != GST_EVENT_CAPS || says_itself) return GST_PAD_PROBE_OK;
          GstCaps* caps = nullptr;
          gst_event_parse_caps(event, &caps);
          decodable = is_decodable(caps);
        }
        const bool was_huge = std::exchange(huge, !decodable.value_or(!huge));
        if (huge && !was_huge) refused();
        return huge ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
      });
}

}  // namespace

void guard_decoders(GstElement* branch, const codec& from, const std::function<void()>& refused) {
  for (GstElement* const decoder : decoders_in(branch)) {
    for (const char* const name : {"max-threads", "threads"}) {
      if (g_object_class_find_property(G_OBJECT_GET_CLASS(decoder), name) == nullptr) continue;
      g_object_set(decoder, name, 1, nullptr);
    }
    guard(decoder, from, refused);
  }
}

}  // namespace zelta::core_service::media
