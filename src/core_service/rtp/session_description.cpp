// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/session_description.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

#include <gst/rtp/gstrtppayloads.h>
#include <gst/sdp/gstsdpmessage.h>

namespace zelta::core_service::rtp {
namespace {

struct message_free {
  void operator()(GstSDPMessage* message) const { gst_sdp_message_free(message); }
};
using message_ptr = std::unique_ptr<GstSDPMessage, message_free>;

// What senders write who don't know the port yet: the port that discards.
constexpr guint kDiscardPort = 9;
constexpr guint kLastPort = 65535;
constexpr size_t kMaxBytes = 64 << 10;

message_ptr parse(const std::string& text) {
  // What isn't UTF-8, as descriptions are, would be complained of attribute by attribute.
  if (text.empty() || text.size() > kMaxBytes ||
      g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
    return nullptr;
  }
  GstSDPMessage* raw = nullptr;
  if (gst_sdp_message_new(&raw) != GST_SDP_OK) return nullptr;
  message_ptr message(raw);
  const auto size = static_cast<guint>(text.size());
  if (gst_sdp_message_parse_buffer(reinterpret_cast<const guint8*>(text.data()), size, raw) !=
      GST_SDP_OK) {
    return nullptr;
  }
  return message;
}

// Which feedback the receiver may send: asked for is what a recorder needs, a key frame.
void allow_key_frame_requests(GstCaps* caps) {
  gst_caps_set_simple(caps, "rtcp-fb-nack-pli", G_TYPE_BOOLEAN, TRUE, nullptr);
}

// The numbers below 96 need no line that says what they are.
void name_static_payload(int payload, GstStructure* fields) {
  if (gst_structure_has_field(fields, "encoding-name") != FALSE || payload > 95) return;
  const GstRTPPayloadInfo* const info = gst_rtp_payload_info_for_pt(static_cast<guint8>(payload));
  if (info == nullptr) return;
  gst_structure_set(fields, "encoding-name", G_TYPE_STRING, info->encoding_name, "clock-rate",
                    G_TYPE_INT, static_cast<int>(info->clock_rate), nullptr);
}

void take_payloads(const GstSDPMedia* media, stream_description& stream) {
  for (guint i = 0; i < gst_sdp_media_formats_len(media); ++i) {
    const int payload = std::atoi(gst_sdp_media_get_format(media, i));
    media::caps_ptr caps(gst_sdp_media_get_caps_from_media(media, payload));
    if (!caps) continue;
    GstStructure* const fields = gst_caps_get_structure(caps.get(), 0);
    gst_structure_set_name(fields, "application/x-rtp");
    name_static_payload(payload, fields);
    const char* const name = gst_structure_get_string(fields, "encoding-name");
    const media::codec* const c = name != nullptr ? media::find_rtp_codec(name) : nullptr;
    if (c == nullptr || c->kind != stream.kind) continue;
    if (c->kind == media::media_kind::kVideo) allow_key_frame_requests(caps.get());
    stream.caps.emplace(payload, std::move(caps));
  }
}

// The number under which a sender tells how loud its sound is (RFC 6464, section 4; RFC 8285,
// section 5); 0: it doesn't. "extmap:NUMBER[/DIRECTION] URI"
int level_extension_of(const GstSDPMedia* media) {
  for (guint i = 0;; ++i) {
    const char* const map = gst_sdp_media_get_attribute_val_n(media, "extmap", i);
    if (map == nullptr) return 0;
    const char* const uri = std::strchr(map, ' ');
    const std::string named = uri != nullptr ? uri + 1 : "";
    const int number = std::atoi(map);
    const bool is_level = named.rfind("urn:ietf:params:rtp-hdrext:ssrc-audio-level", 0) == 0;
    if (is_level && number > 0 && number < 256) return number;
  }
}

std::string address_of(const GstSDPMessage* message, const GstSDPMedia* media) {
  const GstSDPConnection* connection = gst_sdp_message_get_connection(message);
  if (gst_sdp_media_connections_len(media) > 0) connection = gst_sdp_media_get_connection(media, 0);
  return connection->address != nullptr ? connection->address : "0.0.0.0";
}

// None, with `lost`, when nothing of the media line can be received.
std::optional<stream_description> describe(const GstSDPMessage* message, const GstSDPMedia* media,
                                           missing_medium& lost) {
  stream_description stream{};
  const char* const kind = gst_sdp_media_get_media(media);
  const char* const proto = gst_sdp_media_get_proto(media);
  const guint port = gst_sdp_media_get_port(media);
  const std::string line = std::string("m=") + kind + " " + std::to_string(port);
  const bool audio = std::strcmp(kind, "audio") == 0;
  const bool media_line = audio || std::strcmp(kind, "video") == 0;
  std::string& why = lost.reason;
  if (!media_line) why = line + " is neither audio nor video";
  if (std::strncmp(proto, "RTP/", 4) != 0) why = line + " is no RTP";
  if (port == 0) why = line + " is turned off";
  if (port >= kLastPort) why = line + " should have a port of 1 to 65534";
  if (media_line && port != 0) lost.medium = kind;
  if (!why.empty()) return std::nullopt;
  stream.kind = audio ? media::media_kind::kAudio : media::media_kind::kVideo;
  stream.address = address_of(message, media);
  stream.port = port == kDiscardPort ? 0 : static_cast<int>(port);
  stream.rtcp_mux = gst_sdp_media_get_attribute_val(media, "rtcp-mux") != nullptr;
  stream.rtcp_port = stream.port + 1;
  if (const char* const rtcp = gst_sdp_media_get_attribute_val(media, "rtcp")) {
    const int given = std::atoi(rtcp);
    if (given > 0 && given <= static_cast<int>(kLastPort)) stream.rtcp_port = given;
  }
  stream.srtp = std::strncmp(proto, "RTP/SAVP", 8) == 0;
  if (audio) stream.level_extension = level_extension_of(media);
  take_payloads(media, stream);
  if (!stream.caps.empty()) return stream;
  why = line + " has no codec that can be received: H264, H265, VP8, VP9, AV1, OPUS, PCMU, PCMA";
  const char* const named = gst_sdp_media_get_attribute_val(media, "rtpmap");
  if (named != nullptr) lost.codec = named;
  return std::nullopt;
}

}  // namespace

std::vector<stream_description> parse_description(const std::string& text,
                                                  std::vector<missing_medium>& left_out,
                                                  std::string& error) {
  std::vector<stream_description> streams;
  const message_ptr message = parse(text);
  if (!message) {
    error = "it is no session description in UTF-8 of up to 64 KiB";
    return streams;
  }
  for (guint i = 0; i < gst_sdp_message_medias_len(message.get()); ++i) {
    missing_medium lost;
    auto stream = describe(message.get(), gst_sdp_message_get_media(message.get(), i), lost);
    if (stream) {
      streams.push_back(std::move(*stream));
    } else {
      left_out.push_back(std::move(lost));
    }
  }
  if (streams.empty()) error = "it describes no stream that can be received";
  return streams;
}

std::string answer_with_ports(const std::string& text, const std::vector<int>& ports) {
  std::istringstream lines(text);
  std::string answer;
  size_t next = 0;
  for (std::string line; std::getline(lines, line);) {
    // "m=KIND PORT PROTO …"
    const size_t start = line.rfind("m=", 0) == 0 ? line.find(' ') : std::string::npos;
    const size_t end = start == std::string::npos ? start : line.find(' ', start + 1);
    if (end != std::string::npos && line.substr(start + 1, end - start - 1) == "9" &&
        next < ports.size()) {
      line.replace(start + 1, end - start - 1, std::to_string(ports[next++]));
    }
    answer += line + "\n";
  }
  return answer;
}

}  // namespace zelta::core_service::rtp
