// SPDX-License-Identifier: Apache-2.0
#include "page_address.h"

#include <string_view>

#include "percent.h"

namespace zelta::record {
namespace {

constexpr std::string_view kWhip = "whip:";

// Every address of the machine, of which a browser on it takes the one that it trusts.
bool is_any(const std::string& host) {
  return host.empty() || host == "0.0.0.0" || host == "[::]";
}

}  // namespace

std::string page_address(const std::string& server, const std::string& channel, bool secure) {
  if (server.compare(0, kWhip.size(), kWhip) != 0) return "";
  const std::string place = server.substr(kWhip.size());
  const size_t colon = place.rfind(':');
  if (colon == std::string::npos) return "";
  const std::string port = place.substr(colon + 1);
  if (port.find_first_not_of('0') == std::string::npos) return "";
  const std::string host = place.substr(0, colon);
  return std::string(secure ? "https" : "http") + "://" + (is_any(host) ? "localhost" : host) +
         ":" + port + "/" + percent_encoded(channel);
}

}  // namespace zelta::record
