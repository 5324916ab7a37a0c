// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/local_addresses.h"

#include <algorithm>
#include <array>
#include <memory>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

namespace zelta::core_service::webrtc {
namespace {

// Each costs a socket and a line of every answer.
constexpr size_t kMost = 16;

// Empty for one that is of no use: IPv6's of a single link need a name of it that others don't
// know.
std::string text_of(const sockaddr* at, bool only_v4) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (at->sa_family == AF_INET) {
    const auto* const four = reinterpret_cast<const sockaddr_in*>(at);
    return inet_ntop(AF_INET, &four->sin_addr, text.data(), text.size());
  }
  if (at->sa_family != AF_INET6 || only_v4) return "";
  const auto* const six = reinterpret_cast<const sockaddr_in6*>(at);
  if (IN6_IS_ADDR_LINKLOCAL(&six->sin6_addr)) return "";
  return inet_ntop(AF_INET6, &six->sin6_addr, text.data(), text.size());
}

}  // namespace

std::vector<std::string> addresses_of(const std::string& wanted) {
  const bool only_v4 = wanted == "0.0.0.0";
  if (!wanted.empty() && wanted != "::" && !only_v4) return {wanted};
  ifaddrs* raw = nullptr;
  if (getifaddrs(&raw) != 0) return {"127.0.0.1"};
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> all(raw, freeifaddrs);
  std::vector<std::string> reached;
  std::vector<std::string> own;
  for (const ifaddrs* one = all.get(); one != nullptr; one = one->ifa_next) {
    if (one->ifa_addr == nullptr || (one->ifa_flags & IFF_UP) == 0) continue;
    std::vector<std::string>& to = (one->ifa_flags & IFF_LOOPBACK) != 0 ? own : reached;
    std::string text = text_of(one->ifa_addr, only_v4);
    if (text.empty() || to.size() >= kMost) continue;
    if (std::find(to.begin(), to.end(), text) == to.end()) to.push_back(std::move(text));
  }
  return reached.empty() ? own : reached;
}

}  // namespace zelta::core_service::webrtc
