// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/offer.h"

#include <algorithm>
#include <set>
#include <utility>

#include <strings.h>

#include "core_service/webrtc/ice_fragment.h"
#include "core_service/webrtc/sdp_text.h"

namespace zelta::core_service::webrtc {
namespace {

using rtp::values_of;

constexpr guint kMostLines = 32;

// Those that RFC 8122, section 5, leaves and nobody has broken, the strongest first.
struct hash_row {
  const char* name;
  size_t bytes;
};
constexpr hash_row kHashes[] = {{"sha-512", 64}, {"sha-384", 48}, {"sha-256", 32}};

bool contains(const std::vector<std::string>& mids, const std::string& mid) {
  return std::find(mids.begin(), mids.end(), mid) != mids.end();
}

// What counts for the whole session holds for a line that says nothing of its own.
std::vector<const char*> own_or_session(const GstSDPMessage* message, const GstSDPMedia* media,
                                        const char* name) {
  std::vector<const char*> values = values_of(media, name);
  return values.empty() ? values_of(message, name) : values;
}

std::string first_of(const std::vector<const char*>& values) {
  return values.empty() ? "" : values.front();
}

// A recording keeps one sound and one picture of a user at a time.
void turn_down_second(const std::vector<offered_line>& others, offered_line& line,
                      std::vector<missing_medium>& left_out) {
  const bool is_second =
      line.accepted && std::any_of(others.begin(), others.end(), [&line](const offered_line& one) {
        return one.accepted && one.media == line.media;
      });
  if (!is_second) return;
  line.accepted = false;
  if (line.sctp_port) {
    left_out.push_back({"", "", name_of(line) + " is a second one: one line carries all channels"});
    return;
  }
  left_out.push_back({line.media, "",
                      name_of(line) + " is a second one of its kind: a screen beside a camera, or "
                                      "another sound, should be published as another user"});
}

bool take_lines(const GstSDPMessage* message, offer& made, std::vector<missing_medium>& left_out,
                std::string& error) {
  const guint count = gst_sdp_message_medias_len(message);
  if (count == 0 || count > kMostLines) {
    error = "it has " + std::to_string(count) + " media lines (m=): it should have 1 to " +
            std::to_string(kMostLines);
    return false;
  }
  std::set<std::string> mids;
  for (guint i = 0; i < count; ++i) {
    auto line = parse_line(message, gst_sdp_message_get_media(message, i), left_out, error);
    if (!line) return false;
    if (!line->mid.empty() && !mids.insert(line->mid).second) {
      error = "a=mid:" + shown(line->mid) +
              " stands on two media lines: each should have one of its own";
      return false;
    }
    turn_down_second(made.lines, *line, left_out);
    made.lines.push_back(std::move(*line));
  }
  const bool any = std::any_of(made.lines.begin(), made.lines.end(),
                               [](const offered_line& line) { return line.is_media(); });
  if (!any) error = "it offers no stream that can be received";
  return any;
}

// One port serves all users, and a user has one transport on it. Data channels on one of their own
// are done without.
bool take_bundle(const GstSDPMessage* message, offer& made, std::vector<missing_medium>& left_out,
                 std::string& error) {
  std::vector<const offered_line*> accepted;
  for (const offered_line& line : made.lines) {
    if (line.is_media()) accepted.push_back(&line);
  }
  for (const char* const group : values_of(message, "group")) {
    std::vector<std::string> words = words_of(group);
    if (words.empty() || words[0] != "BUNDLE" || !contains(words, accepted.front()->mid)) continue;
    made.bundle.assign(words.begin() + 1, words.end());
    break;
  }
  for (const offered_line* const line : accepted) {
    if (accepted.size() == 1 || contains(made.bundle, line->mid)) continue;
    error = line == accepted.front()
                ? name_of(*line) + " is in no a=group:BUNDLE: all media should be in one"
                : name_of(*line) + " isn't in the a=group:BUNDLE of " + name_of(*accepted.front()) +
                      ": all media should be in one";
    return false;
  }
  for (offered_line& line : made.lines) {
    if (!line.accepted || line.is_media() || contains(made.bundle, line.mid)) continue;
    line.accepted = false;
    left_out.push_back({"", "", name_of(line) + " isn't in the a=group:BUNDLE of the media"});
  }
  return true;
}

// The line whose transport all others share: the first that is received and says something of one,
// since those that are a=bundle-only don't.
guint transport_line(const GstSDPMessage* message, const offer& made) {
  guint first = kMostLines;
  guint other = kMostLines;
  for (guint i = 0; i < made.lines.size(); ++i) {
    const offered_line& line = made.lines[i];
    const bool has =
        !own_or_session(message, gst_sdp_message_get_media(message, i), "ice-ufrag").empty();
    if (line.accepted && has) return i;
    if (line.accepted && first == kMostLines) first = i;
    if (has && other == kMostLines && contains(made.bundle, line.mid)) other = i;
  }
  return other != kMostLines ? other : first;
}

// Empty unless `text` is so many bytes in hexadecimal with colons between.
std::string in_capitals(const std::string& text, size_t bytes) {
  const std::vector<std::string> pairs = parts_of(text, ':');
  if (pairs.size() != bytes) return "";
  for (const std::string& pair : pairs) {
    if (pair.size() != 2 || pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
      return "";
    }
  }
  std::string capitals = text;
  for (char& one : capitals) {
    if (one >= 'a' && one <= 'f') one = static_cast<char>(one - 'a' + 'A');
  }
  return capitals;
}

bool take_fingerprint(const std::vector<const char*>& offered, offer& made, std::string& error) {
  for (const hash_row& hash : kHashes) {
    for (const char* const value : offered) {
      const std::vector<std::string> words = words_of(value);
      if (words.empty() || strcasecmp(words[0].c_str(), hash.name) != 0) continue;
      made.fingerprint_hash = hash.name;
      made.fingerprint = words.size() == 2 ? in_capitals(words[1], hash.bytes) : "";
      if (!made.fingerprint.empty()) return true;
      error = "a=fingerprint:" + shown(value) + " should have " + std::to_string(hash.bytes) +
              " bytes in hexadecimal with colons between";
      return false;
    }
  }
  error =
      offered.empty()
          ? "it has no a=fingerprint: it should have one by sha-256, sha-384 or sha-512"
          : "a=fingerprint:" + shown(offered.front()) + " should be by sha-256, sha-384 or sha-512";
  return false;
}

bool take_transport(const GstSDPMessage* message, offer& made, std::string& error) {
  const guint shared = transport_line(message, made);
  const GstSDPMedia* const media = gst_sdp_message_get_media(message, shared);
  if (!values_of(message, "ice-lite").empty()) {
    error = "it is a=ice-lite, as the answer is: nobody would connect";
    return false;
  }
  made.ufrag = first_of(own_or_session(message, media, "ice-ufrag"));
  made.password = first_of(own_or_session(message, media, "ice-pwd"));
  error = fault_of_credentials(made.ufrag, made.password);
  if (!error.empty()) return false;
  if (!take_fingerprint(own_or_session(message, media, "fingerprint"), made, error)) return false;
  // Without a word the offerer connects (RFC 4145, section 4).
  const std::string setup = first_of(own_or_session(message, media, "setup"));
  if (!setup.empty() && setup != "actpass" && setup != "active") {
    error = "a=setup:" + shown(setup) + " should be actpass or active: nobody connects from here";
    return false;
  }
  for (offered_line& line : made.lines) {
    if (line.bundle_only) {
      line.rtcp_mux = line.rtcp_mux || made.lines[shared].rtcp_mux;
      line.rtcp_rsize = line.rtcp_rsize || made.lines[shared].rtcp_rsize;
    }
    if (!line.is_media() || line.rtcp_mux) continue;
    error = name_of(line) + " should have a=rtcp-mux: there is one port for RTP and RTCP";
    return false;
  }
  return true;
}

}  // namespace

std::optional<offer> parse_offer(const std::string& text, std::vector<missing_medium>& left_out,
                                 std::string& error) {
  const rtp::sdp_ptr message = rtp::parse_sdp(text, error);
  if (!message) return std::nullopt;
  offer made;
  std::string fault;
  if (take_lines(message.get(), made, left_out, fault) &&
      take_bundle(message.get(), made, left_out, fault) &&
      take_transport(message.get(), made, fault)) {
    return made;
  }
  error = std::move(fault);
  return std::nullopt;
}

}  // namespace zelta::core_service::webrtc
