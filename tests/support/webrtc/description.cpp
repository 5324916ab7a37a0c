// SPDX-License-Identifier: Apache-2.0
#include "support/webrtc/description.h"

#include <cstdlib>
#include <sstream>

namespace zelta::test {
namespace {

constexpr const char* kTransportUri =
    "http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01";

// What stands behind the first "a=NAME:".
std::string value_of(const std::string& text, const std::string& name) {
  const std::string start = "a=" + name + ":";
  const size_t at = text.find(start);
  if (at == std::string::npos) return "";
  const size_t begin = at + start.size();
  return text.substr(begin, text.find_first_of("\r\n", begin) - begin);
}

std::string line_of(const webrtc_source& one, size_t mid, bool by_ssrc) {
  std::ostringstream to;
  const int type = one.payload_type;
  const int again = one.again_type;
  to << "a=mid:" << mid << "\r\na=sendonly\r\na=rtcp-mux\r\na=rtcp-rsize\r\n";
  if (one.media == "audio") {
    to << "a=extmap:" << kLevelExtension << " urn:ietf:params:rtp-hdrext:ssrc-audio-level\r\n";
  }
  to << "a=extmap:" << kTransportExtension << " " << kTransportUri << "\r\n";
  if (!by_ssrc) to << "a=extmap:" << kMidExtension << " urn:ietf:params:rtp-hdrext:sdes:mid\r\n";
  to << "a=rtpmap:" << type << " " << one.coding << "\r\n";
  if (!one.format.empty()) to << "a=fmtp:" << type << " " << one.format << "\r\n";
  to << "a=rtcp-fb:" << type << " transport-cc\r\n";
  if (one.media == "video") to << "a=rtcp-fb:" << type << " nack pli\r\n";
  if (again != 0) {
    to << "a=rtcp-fb:" << type << " nack\r\na=rtpmap:" << again << " rtx"
       << one.coding.substr(one.coding.find('/')) << "\r\na=fmtp:" << again << " apt=" << type
       << "\r\n";
  }
  if (!by_ssrc) return to.str();
  to << "a=ssrc:" << one.ssrc << " cname:user\r\n";
  if (again != 0) {
    to << "a=ssrc:" << one.again_ssrc << " cname:user\r\na=ssrc-group:FID " << one.ssrc << " "
       << one.again_ssrc << "\r\n";
  }
  return to.str();
}

}  // namespace

std::string write_offer(const std::vector<webrtc_source>& sources, const ice_names& own,
                        const std::string& fingerprint, bool by_ssrc) {
  std::ostringstream to;
  to << "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\na=group:BUNDLE";
  for (size_t mid = 0; mid < sources.size(); ++mid) to << " " << mid;
  to << "\r\n";
  for (size_t mid = 0; mid < sources.size(); ++mid) {
    const webrtc_source& one = sources[mid];
    to << "m=" << one.media << " 9 UDP/TLS/RTP/SAVPF " << static_cast<int>(one.payload_type);
    if (one.again_type != 0) to << " " << static_cast<int>(one.again_type);
    to << "\r\nc=IN IP4 0.0.0.0\r\na=ice-ufrag:" << own.ufrag << "\r\na=ice-pwd:" << own.password
       << "\r\na=fingerprint:sha-256 " << fingerprint << "\r\na=setup:actpass\r\n"
       << line_of(one, mid, by_ssrc);
  }
  return to.str();
}

std::optional<read_answer> read_answer_of(const std::string& text, std::string& error) {
  read_answer made;
  made.theirs = {value_of(text, "ice-ufrag"), value_of(text, "ice-pwd")};
  const std::string fingerprint = value_of(text, "fingerprint");
  const std::string hash = "sha-256 ";
  if (fingerprint.compare(0, hash.size(), hash) == 0) {
    made.fingerprint = fingerprint.substr(hash.size());
  }
  std::istringstream lines(text);
  for (std::string line; made.port == 0 && std::getline(lines, line);) {
    if (line.compare(0, 12, "a=candidate:") != 0) continue;
    std::istringstream words(line);
    std::string word;
    std::string address;
    int port = 0;
    words >> word >> word >> word >> word >> address >> port;
    if (address.find(':') != std::string::npos) continue;
    made.address = address;
    made.port = static_cast<uint16_t>(port);
  }
  const bool whole = !made.theirs.ufrag.empty() && !made.theirs.password.empty() &&
                     !made.fingerprint.empty() && made.port != 0;
  if (whole) return made;
  error =
      "an answer should have a=ice-ufrag, a=ice-pwd, a=fingerprint:sha-256 and a candidate of "
      "IPv4; it is \"" +
      text + "\"";
  return std::nullopt;
}

}  // namespace zelta::test
