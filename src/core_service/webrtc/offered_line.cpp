// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/offered_line.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <set>
#include <utility>

#include <strings.h>

#include "core_service/webrtc/sdp_text.h"

namespace zelta::core_service::webrtc {
namespace {

using media::media_kind;
using rtp::values_of;

constexpr size_t kMostSources = 64;
// A browser's lines have some 150. Each is compared with many others.
constexpr guint kMostAttributes = 600;
constexpr size_t kMostLayers = 16;
constexpr uint32_t kLastPayloadType = 127;
// RFC 3551, section 6: those that need no name.
constexpr int kPcmu = 0;
constexpr int kPcma = 8;

constexpr const char* kTransportCc = "transport-cc";

// As we would rather have them: what most machines encode in hardware first, then what costs the
// least to record.
const char* const kPreference[] = {"h264", "vp8", "vp9", "av1", "hevc", "opus", "pcmu", "pcma"};

// What a receiver of pictures or of sound may send here.
struct feedback_row {
  const char* name;
  bool for_sound;
};
constexpr feedback_row kFeedback[] = {{"nack", true}, {"nack pli", false}, {kTransportCc, true}};

struct extension_row {
  const char* uri;
  int offered_line::*number;
};
constexpr extension_row kExtensions[] = {
    {"urn:ietf:params:rtp-hdrext:ssrc-audio-level", &offered_line::level_extension},
    {"urn:ietf:params:rtp-hdrext:sdes:mid", &offered_line::mid_extension},
    {"urn:ietf:params:rtp-hdrext:sdes:rtp-stream-id", &offered_line::rid_extension},
    {"urn:ietf:params:rtp-hdrext:sdes:repaired-rtp-stream-id",
     &offered_line::repaired_rid_extension},
    {"http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01",
     &offered_line::transport_cc_extension},
};

template <class Values, class Value>
bool contains(const Values& values, const Value& value) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

std::string text_of(const char* text) {
  return text != nullptr ? text : "";
}

// The first line of this name for each payload type: "NUMBER REST".
std::map<int, std::string> by_payload(const GstSDPMedia* media, const char* name) {
  std::map<int, std::string> rests;
  for (const std::string value : values_of(media, name)) {
    const size_t blank = value.find(' ');
    const auto type = number_of(value.substr(0, blank));
    if (blank == std::string::npos || !type || *type > kLastPayloadType) continue;
    rests.emplace(static_cast<int>(*type), value.substr(blank + 1));
  }
  return rests;
}

std::string direction_of(const GstSDPMessage* message, const GstSDPMedia* media) {
  const char* const directions[] = {"sendrecv", "sendonly", "recvonly", "inactive"};
  for (const char* const one : directions) {
    if (!values_of(media, one).empty()) return one;
  }
  for (const char* const one : directions) {
    if (!values_of(message, one).empty()) return one;
  }
  return "sendrecv";
}

// What RFC 9429, section 5.1.2, wants taken for one and the same.
bool is_secure_rtp(const std::string& protocol) {
  for (const char* const one : {"UDP/TLS/RTP/SAVPF", "UDP/TLS/RTP/SAVP", "TCP/TLS/RTP/SAVPF",
                                "TCP/TLS/RTP/SAVP", "RTP/SAVPF", "RTP/SAVP"}) {
    if (protocol == one) return true;
  }
  return false;
}

// RFC 8841, section 4. What was there before it said SCTP's port in place of what it carries.
bool is_data(const offered_line& line) {
  return (line.protocol == "UDP/DTLS/SCTP" || line.protocol == "TCP/DTLS/SCTP") &&
         line.formats.front() == "webrtc-datachannel";
}

// Why nothing of the line is received whatever its codecs are; without a reason: it may be.
missing_medium refused(const GstSDPMessage* message, const GstSDPMedia* media,
                       const offered_line& line) {
  const std::string name = name_of(line);
  const std::string direction = direction_of(message, media);
  if (line.media != "audio" && line.media != "video" && line.media != "application") {
    return {"", "", name + " is neither audio nor video, nor data channels"};
  }
  if (gst_sdp_media_get_port(media) == 0 && !line.bundle_only) {
    return {"", "", name + " is turned off"};
  }
  if (line.media == "application") {
    return is_data(line)
               ? missing_medium{}
               : missing_medium{"", "", name + " should be UDP/DTLS/SCTP webrtc-datachannel"};
  }
  if (direction == "recvonly" || direction == "inactive") {
    return {"", "", name + " is a=" + direction + ": it should be sendonly or sendrecv"};
  }
  if (!is_secure_rtp(line.protocol)) {
    return {line.media, "",
            name + " is " + shown(line.protocol) + ": it should be UDP/TLS/RTP/SAVPF"};
  }
  return {};
}

// Of those that have several ways of being sent, the ones that depayloaders and decoders take.
bool is_of_ours(const media::codec& c, const std::string& fmtp) {
  const std::string name = c.name;
  if (name == "h264") return parameter_of(fmtp, "packetization-mode") != "2";
  const std::string profile = name == "vp9" ? parameter_of(fmtp, "profile-id") : "";
  return profile.empty() || profile == "0";
}

// Whether the answer can name it again: of a name that is written oddly we may know less than
// GStreamer.
bool is_named(const media::codec& c, int type, const std::string& rtpmap) {
  if (!rtpmap.empty()) return strcasecmp(parts_of(rtpmap, '/')[0].c_str(), c.rtp) == 0;
  const std::string name = c.name;
  return (type == kPcmu && name == "pcmu") || (type == kPcma && name == "pcma");
}

ptrdiff_t place_of(const media::codec& c, const std::string& fmtp) {
  const auto* const found =
      std::find(std::begin(kPreference), std::end(kPreference), std::string(c.name));
  const bool one_unit_a_packet =
      c.name == std::string("h264") && parameter_of(fmtp, "packetization-mode") != "1";
  return 2 * (found - std::begin(kPreference)) + (one_unit_a_packet ? 1 : 0);
}

void take_codecs(const GstSDPMedia* media, offered_line& line) {
  const std::map<int, std::string> names = by_payload(media, "rtpmap");
  const std::map<int, std::string> parameters = by_payload(media, "fmtp");
  const auto lines_of = [&](int type) {
    const auto name = names.find(type);
    const auto with = parameters.find(type);
    return codec_lines{
        name != names.end() ? name->second : "", with != parameters.end() ? with->second : "", {}};
  };
  const std::map<int, media::caps_ptr> found = rtp::receivable_payloads(media, line.kind);
  std::map<int, ptrdiff_t> places;
  const std::vector<int> types = rtp::payload_types_of(media);
  for (const int type : types) {
    const auto caps = found.find(type);
    if (caps == found.end()) continue;
    codec_lines said = lines_of(type);
    const rtp::payload one = rtp::payload_of(caps->second.get());
    if (one.kind == nullptr || !is_named(*one.kind, type, said.rtpmap) ||
        !is_of_ours(*one.kind, said.fmtp)) {
      continue;
    }
    places[type] = place_of(*one.kind, said.fmtp);
    line.payloads.emplace(type, one);
    line.preferred.push_back(type);
    line.codecs.emplace(type, std::move(said));
  }
  std::stable_sort(line.preferred.begin(), line.preferred.end(),
                   [&places](int a, int b) { return places[a] < places[b]; });
  for (const int type : types) {
    codec_lines said = lines_of(type);
    if (strncasecmp(said.rtpmap.c_str(), "rtx/", 4) != 0 || line.payloads.count(type) > 0) continue;
    const auto repeated = number_of(parameter_of(said.fmtp, "apt"));
    if (!repeated || *repeated > kLastPayloadType ||
        line.payloads.count(static_cast<int>(*repeated)) == 0) {
      continue;
    }
    line.retransmissions.emplace(type, static_cast<int>(*repeated));
    line.codecs.emplace(type, std::move(said));
  }
}

void take_extensions(const GstSDPMedia* media, offered_line& line) {
  for (const extension_row& row : kExtensions) {
    const rtp::offered_extension one = rtp::find_extension(media, row.uri);
    if (one.number == 0) continue;
    line.*row.number = one.number;
    line.extmaps.push_back(std::to_string(one.number) + (one.sent_only ? "/recvonly " : " ") +
                           row.uri);
  }
  for (auto& [type, one] : line.payloads) one.level_extension = line.level_extension;
}

// "NUMBER NAME" or "* NAME", as RFC 4585, section 4.2, has it.
void take_feedback(const GstSDPMedia* media, offered_line& line) {
  for (const char* const value : values_of(media, "rtcp-fb")) {
    const std::vector<std::string> words = words_of(value);
    if (words.size() < 2) continue;
    std::string name = words[1];
    for (size_t i = 2; i < words.size(); ++i) name += " " + words[i];
    const auto* const row =
        std::find_if(std::begin(kFeedback), std::end(kFeedback),
                     [&name](const feedback_row& one) { return name == one.name; });
    if (row == std::end(kFeedback)) continue;
    if (!row->for_sound && line.kind == media_kind::kAudio) continue;
    // There would be no numbers to tell of.
    if (name == kTransportCc && line.transport_cc_extension == 0) continue;
    for (const int type : line.preferred) {
      std::vector<std::string>& agreed = line.codecs[type].feedback;
      const bool meant = words[0] == "*" || words[0] == std::to_string(type);
      if (!meant || contains(agreed, name)) continue;
      agreed.push_back(name);
      line.nack = line.nack || name == "nack";
      line.transport_cc = line.transport_cc || name == kTransportCc;
    }
  }
}

// "ssrc-group:FID SOURCE RTX", "ssrc-group:FEC-FR SOURCE REPAIR", "ssrc:SOURCE …"
bool take_sources(const GstSDPMedia* media, offered_line& line, std::string& error) {
  std::set<uint32_t> named;
  std::set<uint32_t> helping;
  for (const char* const value : values_of(media, "ssrc-group")) {
    const std::vector<std::string> words = words_of(value);
    if (words.size() != 3 || (words[0] != "FID" && words[0] != "FEC-FR")) continue;
    const auto source = number_of(words[1]);
    const auto second = number_of(words[2]);
    if (!source || !second || *source == *second) continue;
    named.insert({*source, *second});
    helping.insert(*second);
    if (words[0] == "FID") line.repeats.emplace(*second, *source);
  }
  for (const std::string value : values_of(media, "ssrc")) {
    const auto source = number_of(value.substr(0, value.find(' ')));
    if (!source) continue;
    named.insert(*source);
    if (helping.count(*source) == 0 && !contains(line.sources, *source)) {
      line.sources.push_back(*source);
    }
    if (named.size() > kMostSources) break;
  }
  if (named.size() <= kMostSources) return true;
  error = name_of(line) + " names more than " + std::to_string(kMostSources) +
          " sources by a=ssrc and a=ssrc-group: so many should be enough";
  return false;
}

// "rid:NAME send …" and "simulcast:send NAME,OTHER;~NAME recv …": of what may be sent in place of
// each other, the first is taken; what pauses at first is marked.
bool take_layers(const GstSDPMedia* media, offered_line& line, std::string& error) {
  std::set<std::string> sent;
  for (const char* const value : values_of(media, "rid")) {
    const std::vector<std::string> words = words_of(value);
    if (words.size() >= 2 && words[1] == "send") sent.insert(words[0]);
  }
  for (const char* const value : values_of(media, "simulcast")) {
    const std::vector<std::string> words = words_of(value);
    for (size_t i = 0; i + 1 < words.size(); i += 2) {
      if (words[i] != "send") continue;
      for (const std::string& layer : parts_of(words[i + 1], ';')) {
        for (const std::string& one : parts_of(layer, ',')) {
          const std::string rid = one.substr(one.rfind('~', 0) == 0 ? 1 : 0);
          if (sent.erase(rid) == 0) continue;
          line.rids.push_back(rid);
          break;
        }
      }
    }
  }
  if (line.rids.size() <= kMostLayers) return true;
  error = name_of(line) + " sends " + std::to_string(line.rids.size()) +
          " layers by a=simulcast: it should be no more than " + std::to_string(kMostLayers);
  return false;
}

// "sctp-port:NUMBER"
missing_medium take_data(const GstSDPMedia* media, offered_line& line) {
  const std::vector<const char*> ports = values_of(media, "sctp-port");
  const auto port = number_of(ports.empty() ? "" : ports.front());
  constexpr uint32_t kLastPort = 65535;
  if (!port || *port == 0 || *port > kLastPort) {
    return {"", "", name_of(line) + " should have a=sctp-port with a number of 1 to 65535"};
  }
  line.sctp_port = static_cast<uint16_t>(*port);
  return {};
}

// "mid:WORD". One that is turned off needs none.
bool take_mid(const GstSDPMedia* media, offered_line& line, std::string& error) {
  const std::vector<const char*> mids = values_of(media, "mid");
  const std::vector<std::string> words = words_of(mids.empty() ? "" : mids[0]);
  if (words.size() == 1) line.mid = words[0];
  if (words.size() > 1) {
    error = "a=mid:" + shown(mids[0]) + " should be one word";
    return false;
  }
  if (line.mid.empty() && (gst_sdp_media_get_port(media) != 0 || line.bundle_only)) {
    error = "m=" + shown(line.media) + " has no a=mid: each media line should have one of its own";
    return false;
  }
  return true;
}

}  // namespace

std::string name_of(const offered_line& line) {
  return "m=" + shown(line.media) + (line.mid.empty() ? "" : " (mid " + shown(line.mid) + ")");
}

std::optional<offered_line> parse_line(const GstSDPMessage* message, const GstSDPMedia* media,
                                       std::vector<missing_medium>& left_out, std::string& error) {
  offered_line line;
  line.media = text_of(gst_sdp_media_get_media(media));
  line.protocol = text_of(gst_sdp_media_get_proto(media));
  for (guint i = 0; i < gst_sdp_media_formats_len(media); ++i) {
    line.formats.push_back(gst_sdp_media_get_format(media, i));
  }
  if (line.media.empty() || line.protocol.empty() || line.formats.empty()) {
    error = "m=" + shown(line.media) + " should be m=KIND PORT PROTOCOL FORMAT…";
    return std::nullopt;
  }
  if (gst_sdp_media_attributes_len(media) > kMostAttributes) {
    error = "m=" + shown(line.media) + " has " +
            std::to_string(gst_sdp_media_attributes_len(media)) + " attributes: it should have " +
            std::to_string(kMostAttributes) + " at most";
    return std::nullopt;
  }
  line.bundle_only = !values_of(media, "bundle-only").empty();
  line.rtcp_mux = !values_of(media, "rtcp-mux").empty();
  line.rtcp_rsize = !values_of(media, "rtcp-rsize").empty();
  line.kind = line.media == "video" ? media_kind::kVideo : media_kind::kAudio;
  if (!take_mid(media, line, error)) return std::nullopt;

  missing_medium lost = refused(message, media, line);
  if (lost.reason.empty() && line.media == "application") {
    lost = take_data(media, line);
  } else if (lost.reason.empty()) {
    take_codecs(media, line);
    if (line.payloads.empty()) lost = rtp::without_codec(media, name_of(line));
  }
  if (!lost.reason.empty()) {
    left_out.push_back(std::move(lost));
    return line;
  }
  line.accepted = true;
  if (line.sctp_port) return line;
  take_extensions(media, line);
  take_feedback(media, line);
  if (!take_sources(media, line, error) || !take_layers(media, line, error)) return std::nullopt;
  return line;
}

}  // namespace zelta::core_service::webrtc
