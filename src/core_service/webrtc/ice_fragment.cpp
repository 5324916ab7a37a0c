// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/ice_fragment.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "core_service/webrtc/sdp_text.h"

namespace zelta::core_service::webrtc {
namespace {

constexpr size_t kMaxBytes = 64 << 10;
constexpr size_t kLeastUfrag = 4;
constexpr size_t kLeastPassword = 22;
constexpr size_t kMost = 256;

const std::string kUfrag = "a=ice-ufrag:";
const std::string kPassword = "a=ice-pwd:";

bool starts_with(const std::string& line, const std::string& start) {
  return line.rfind(start, 0) == 0;
}

// The same may stand on each media line. False: another stood there before.
bool take(const std::string& value, std::string& into) {
  if (into.empty()) into = value;
  return into == value;
}

}  // namespace

std::optional<ice_fragment> parse_fragment(const std::string& text, std::string& error) {
  if (text.empty() || text.size() > kMaxBytes) {
    error = "it has " + std::to_string(text.size()) +
            " bytes: a fragment of a session description should have up to 64 KiB";
    return std::nullopt;
  }
  ice_fragment made;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    if (line.size() < 2 || line[1] != '=') {
      error =
          "\"" + shown(line) + "\" should be a line of a session description, as a=… and m=… are";
      return std::nullopt;
    }
    const bool same = starts_with(line, kUfrag) ? take(line.substr(kUfrag.size()), made.ufrag)
                      : starts_with(line, kPassword)
                          ? take(line.substr(kPassword.size()), made.password)
                          : true;
    if (!same) {
      error = line.substr(0, line.find(':')) +
              " stands there with two values: all media share one transport";
      return std::nullopt;
    }
    made.has_candidates = made.has_candidates || starts_with(line, "a=candidate:");
    made.end = made.end || line == "a=end-of-candidates";
  }
  std::string fault = fault_of_credentials(made.ufrag, made.password);
  if (fault.empty()) return made;
  error = std::move(fault);
  return std::nullopt;
}

std::string make_fragment(const answer_terms& terms, const offer& to) {
  std::string text =
      "a=ice-lite\r\n" + kUfrag + terms.ufrag + "\r\n" + kPassword + terms.password + "\r\n";
  const auto line = std::find_if(to.lines.begin(), to.lines.end(),
                                 [](const offered_line& one) { return one.accepted; });
  if (line == to.lines.end()) return text;
  return text + "m=" + line->media + " 9 " + line->protocol + " " +
         std::to_string(line->preferred.front()) + "\r\na=mid:" + line->mid + "\r\n" +
         candidate_lines(terms);
}

std::string fault_of_credentials(const std::string& ufrag, const std::string& password) {
  const auto fault = [](const std::string& name, size_t has, size_t least) -> std::string {
    if (has >= least && has <= kMost) return "";
    const std::string should =
        "it should have " + std::to_string(least) + " to " + std::to_string(kMost) + " characters";
    return has == 0 ? "it has no " + name + ": " + should
                    : name + " has " + std::to_string(has) + ": " + should;
  };
  const std::string first = fault("a=ice-ufrag", ufrag.size(), kLeastUfrag);
  // The other is a secret: its value belongs into no log.
  return first.empty() ? fault("a=ice-pwd", password.size(), kLeastPassword) : first;
}

}  // namespace zelta::core_service::webrtc
