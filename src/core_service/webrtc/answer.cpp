// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/answer.h"

#include <algorithm>

#include "core_service/webrtc/sctp_association.h"
#include "core_service/webrtc/sdp_text.h"

namespace zelta::core_service::webrtc {
namespace {

// RFC 8445, section 5.1.2.1: of type host, and of the one component that there is.
constexpr uint32_t kHostPreference = 126;
constexpr uint32_t kFirstLocalPreference = 65535;
constexpr uint32_t kComponent = 1;

// Lets senders add what mends a loss, and more than one channel.
const char* const kOpusParameters = "minptime=10;useinbandfec=1;stereo=1";

std::string line_of(const std::string& text) {
  return text + "\r\n";
}

std::string line_of(const char* start, int type, const std::string& text) {
  return line_of(start + std::to_string(type) + " " + text);
}

// The payload types in the order of the answer: behind each what repeats it.
std::vector<int> answered_types(const offered_line& line) {
  std::vector<int> types;
  for (const int type : line.preferred) {
    types.push_back(type);
    for (const auto& [again, repeated] : line.retransmissions) {
      if (repeated == type) types.push_back(again);
    }
  }
  return types;
}

// What says how it is coded is said again; what only describes the sender's own stream isn't.
std::string answered_parameters(const offered_line& line, int type) {
  const std::string& offered = line.codecs.at(type).fmtp;
  const auto payload = line.payloads.find(type);
  const bool opus =
      payload != line.payloads.end() && payload->second.kind->name == std::string("opus");
  if (opus && !parameter_of(offered, "useinbandfec").empty()) return kOpusParameters;
  std::string kept;
  for (const std::string& one : parts_of(offered, ';')) {
    const size_t start = one.find_first_not_of(' ');
    if (start == std::string::npos || one.compare(start, 6, "sprop-") == 0) continue;
    kept += (kept.empty() ? "" : ";") + one.substr(start);
  }
  return kept;
}

std::string codec_text(const offered_line& line) {
  std::string text;
  for (const int type : answered_types(line)) {
    const codec_lines& said = line.codecs.at(type);
    if (!said.rtpmap.empty()) text += line_of("a=rtpmap:", type, said.rtpmap);
    const std::string parameters = answered_parameters(line, type);
    if (!parameters.empty()) text += line_of("a=fmtp:", type, parameters);
    for (const std::string& name : said.feedback) text += line_of("a=rtcp-fb:", type, name);
  }
  return text;
}

std::string layer_text(const offered_line& line) {
  if (line.rids.empty()) return "";
  std::string text;
  std::string all;
  for (const std::string& rid : line.rids) {
    text += line_of("a=rid:" + rid + " recv");
    all += (all.empty() ? "" : ";") + rid;
  }
  return text + line_of("a=simulcast:recv " + all);
}

std::string transport_text(const answer_terms& terms, bool first) {
  return line_of("a=setup:passive") + line_of("a=ice-ufrag:" + terms.ufrag) +
         line_of("a=ice-pwd:" + terms.password) +
         line_of("a=fingerprint:sha-256 " + terms.fingerprint) +
         (first ? candidate_lines(terms) : "");
}

// RFC 8841, section 12.2.
std::string data_text(const offered_line& line, const answer_terms& terms, bool first) {
  return line_of("m=" + line.media + " 9 " + line.protocol + " " + line.formats.front()) +
         line_of("c=IN IP4 0.0.0.0") + line_of("a=mid:" + line.mid) + transport_text(terms, first) +
         line_of("a=sctp-port:" + std::to_string(sctp_association::kOwnPort)) +
         line_of("a=max-message-size:" + std::to_string(sctp_association::kMostMessageBytes));
}

std::string accepted_text(const offered_line& line, const answer_terms& terms, bool first) {
  if (line.sctp_port) return data_text(line, terms, first);
  std::string text = "m=" + line.media + " 9 " + line.protocol;
  for (const int type : answered_types(line)) text += " " + std::to_string(type);
  text = line_of(text) + line_of("c=IN IP4 0.0.0.0") + line_of("a=mid:" + line.mid) +
         line_of("a=recvonly") + line_of("a=rtcp-mux");
  if (line.rtcp_rsize) text += line_of("a=rtcp-rsize");
  text += transport_text(terms, first);
  for (const std::string& map : line.extmaps) text += line_of("a=extmap:" + map);
  return text + codec_text(line) + layer_text(line);
}

std::string refused_text(const offered_line& line) {
  std::string text = "m=" + line.media + " 0 " + line.protocol;
  for (const std::string& format : line.formats) text += " " + format;
  text = line_of(text) + line_of("c=IN IP4 0.0.0.0");
  if (!line.mid.empty()) text += line_of("a=mid:" + line.mid);
  return text + line_of("a=inactive");
}

}  // namespace

std::string make_answer(const offer& to, const answer_terms& terms) {
  std::string text = line_of("v=0") +
                     line_of("o=- " + std::to_string(terms.session_id) + " " +
                             std::to_string(terms.version) + " IN IP4 127.0.0.1") +
                     line_of("s=-") + line_of("t=0 0") + line_of("a=ice-lite") +
                     // Candidates may be told later, though none is needed.
                     line_of("a=ice-options:trickle");
  std::string bundled;
  for (const offered_line& line : to.lines) {
    const bool named = std::find(to.bundle.begin(), to.bundle.end(), line.mid) != to.bundle.end();
    if (line.accepted && named) bundled += " " + line.mid;
  }
  if (!bundled.empty()) text += line_of("a=group:BUNDLE" + bundled);
  bool first = true;
  for (const offered_line& line : to.lines) {
    text += line.accepted ? accepted_text(line, terms, first) : refused_text(line);
    first = first && !line.accepted;
  }
  return text;
}

std::string candidate_lines(const answer_terms& terms) {
  std::string text;
  for (size_t i = 0; i < terms.candidates.size(); ++i) {
    const answer_terms::place& one = terms.candidates[i];
    // The same for those of one address (RFC 8445, section 5.1.1.3).
    size_t foundation = 0;
    while (terms.candidates[foundation].address != one.address) ++foundation;
    const uint32_t local = kFirstLocalPreference - static_cast<uint32_t>(i);
    const uint32_t priority = (kHostPreference << 24U) + (local << 8U) + 256 - kComponent;
    text += line_of("a=candidate:" + std::to_string(foundation + 1) + " " +
                    std::to_string(kComponent) + " udp " + std::to_string(priority) + " " +
                    one.address + " " + std::to_string(one.port) + " typ host");
  }
  return text + line_of("a=end-of-candidates");
}

}  // namespace zelta::core_service::webrtc
