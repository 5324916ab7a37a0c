// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/session_description.h"

#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>
#include <utility>

#include "core_service/rtp/sdp_media.h"

namespace zelta::core_service::rtp {
namespace {

// What senders write who don't know the port yet: the port that discards.
constexpr guint kDiscardPort = 9;
constexpr guint kLastPort = 65535;

// How loud the sound is (RFC 6464, section 4).
const char* const kLevelUri = "urn:ietf:params:rtp-hdrext:ssrc-audio-level";

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
  if (audio) stream.level_extension = find_extension(media, kLevelUri).number;
  stream.caps = receivable_payloads(media, stream.kind);
  if (!stream.caps.empty()) return stream;
  lost = without_codec(media, line);
  return std::nullopt;
}

}  // namespace

std::vector<stream_description> parse_description(const std::string& text,
                                                  std::vector<missing_medium>& left_out,
                                                  std::string& error) {
  std::vector<stream_description> streams;
  const sdp_ptr message = parse_sdp(text, error);
  if (!message) return streams;
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
