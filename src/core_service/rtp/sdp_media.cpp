// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/sdp_media.h"

#include <bitset>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>

#include <gst/rtp/gstrtppayloads.h>

namespace zelta::core_service::rtp {
namespace {

constexpr size_t kMaxBytes = 64 << 10;
constexpr size_t kPayloadTypes = 128;
constexpr int kLastStatic = 95;
constexpr int kLastExtension = 255;

// Both are asked by position, so that many attributes cost no search for each.
template <class Owner>
std::vector<const char*> values_in(const Owner* owner, guint count,
                                   const GstSDPAttribute* (*at)(const Owner*, guint),
                                   const char* name) {
  std::vector<const char*> values;
  for (guint i = 0; i < count; ++i) {
    const GstSDPAttribute* const one = at(owner, i);
    if (std::strcmp(one->key, name) != 0) continue;
    values.push_back(one->value != nullptr ? one->value : "");
  }
  return values;
}

// Which feedback the receiver may send: asked for is what a recorder needs, a key frame.
void allow_key_frame_requests(GstCaps* caps) {
  gst_caps_set_simple(caps, "rtcp-fb-nack-pli", G_TYPE_BOOLEAN, TRUE, nullptr);
}

// The numbers below 96 need no line that says what they are.
void name_static_payload(int payload, GstStructure* fields) {
  if (gst_structure_has_field(fields, "encoding-name") != FALSE || payload > kLastStatic) return;
  const GstRTPPayloadInfo* const info = gst_rtp_payload_info_for_pt(static_cast<guint8>(payload));
  if (info == nullptr) return;
  gst_structure_set(fields, "encoding-name", G_TYPE_STRING, info->encoding_name, "clock-rate",
                    G_TYPE_INT, static_cast<int>(info->clock_rate), nullptr);
}

}  // namespace

sdp_ptr parse_sdp(const std::string& text, std::string& error) {
  // What isn't UTF-8, as descriptions are, would be complained of attribute by attribute.
  if (!text.empty() && text.size() <= kMaxBytes &&
      g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE) {
    GstSDPMessage* raw = nullptr;
    if (gst_sdp_message_new(&raw) == GST_SDP_OK) {
      sdp_ptr message(raw);
      const auto* const bytes = reinterpret_cast<const guint8*>(text.data());
      if (gst_sdp_message_parse_buffer(bytes, static_cast<guint>(text.size()), raw) == GST_SDP_OK) {
        return message;
      }
    }
  }
  error = "it is no session description in UTF-8 of up to 64 KiB";
  return nullptr;
}

std::vector<const char*> values_of(const GstSDPMedia* media, const char* name) {
  return values_in(media, gst_sdp_media_attributes_len(media), gst_sdp_media_get_attribute, name);
}

std::vector<const char*> values_of(const GstSDPMessage* message, const char* name) {
  return values_in(message, gst_sdp_message_attributes_len(message), gst_sdp_message_get_attribute,
                   name);
}

std::vector<int> payload_types_of(const GstSDPMedia* media) {
  std::vector<int> types;
  std::bitset<kPayloadTypes> seen;
  for (guint i = 0; i < gst_sdp_media_formats_len(media); ++i) {
    const char* const format = gst_sdp_media_get_format(media, i);
    char* end = nullptr;
    const long type = std::strtol(format, &end, 10);
    if (end == format || *end != '\0' || type < 0 || type >= static_cast<long>(kPayloadTypes)) {
      continue;
    }
    if (seen.test(static_cast<size_t>(type))) continue;
    seen.set(static_cast<size_t>(type));
    types.push_back(static_cast<int>(type));
  }
  return types;
}

std::map<int, media::caps_ptr> receivable_payloads(const GstSDPMedia* media,
                                                   media::media_kind kind) {
  std::map<int, media::caps_ptr> payloads;
  for (const int payload : payload_types_of(media)) {
    media::caps_ptr caps(gst_sdp_media_get_caps_from_media(media, payload));
    if (!caps) continue;
    GstStructure* const fields = gst_caps_get_structure(caps.get(), 0);
    gst_structure_set_name(fields, "application/x-rtp");
    name_static_payload(payload, fields);
    const char* const name = gst_structure_get_string(fields, "encoding-name");
    const media::codec* const c = name != nullptr ? media::find_rtp_codec(name) : nullptr;
    if (c == nullptr || c->kind != kind) continue;
    if (c->kind == media::media_kind::kVideo) allow_key_frame_requests(caps.get());
    payloads.emplace(payload, std::move(caps));
  }
  return payloads;
}

missing_medium without_codec(const GstSDPMedia* media, const std::string& line) {
  missing_medium lost;
  lost.medium = gst_sdp_media_get_media(media);
  const char* const named = gst_sdp_media_get_attribute_val(media, "rtpmap");
  if (named != nullptr) lost.codec = named;
  lost.reason =
      line + " has no codec that can be received: H264, H265, VP8, VP9, AV1, OPUS, PCMU, PCMA";
  return lost;
}

// "extmap:NUMBER[/DIRECTION] URI [ATTRIBUTES]"
offered_extension find_extension(const GstSDPMedia* media, const std::string& uri) {
  for (const char* const map : values_of(media, "extmap")) {
    std::istringstream words(map);
    std::string place;
    std::string named;
    words >> place >> named;
    const int number = std::atoi(place.c_str());
    if (named != uri || number < 1 || number > kLastExtension) continue;
    const size_t slash = place.find('/');
    const std::string direction = slash != std::string::npos ? place.substr(slash + 1) : "sendrecv";
    if (direction == "recvonly" || direction == "inactive") continue;
    return {number, direction == "sendonly"};
  }
  return {};
}

}  // namespace zelta::core_service::rtp
