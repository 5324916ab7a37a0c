// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/sockets.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "core_service/load/descriptors.h"

namespace zelta::core_service::rtp {
namespace {

// A key frame of a large picture comes in a burst of a thousand packets. The system may give less.
constexpr int kReceiveBytes = 4 << 20;
constexpr int kFirstPort = 1024;
constexpr int kLastPort = 65535;
// What the system gives for one address may be taken at another.
constexpr int kTriesOfAny = 20;

// An address of either kind, without a port.
struct ip_address {
  int family = AF_INET;
  in_addr v4{};
  in6_addr v6{};

  bool is_multicast() const {
    return family == AF_INET ? IN_MULTICAST(ntohl(v4.s_addr)) : IN6_IS_ADDR_MULTICAST(&v6) != 0;
  }
};

std::optional<ip_address> parse_address(const std::string& text) {
  ip_address parsed;
  if (inet_pton(AF_INET, text.c_str(), &parsed.v4) == 1) return parsed;
  parsed.family = AF_INET6;
  if (inet_pton(AF_INET6, text.c_str(), &parsed.v6) == 1) return parsed;
  return std::nullopt;
}

bool bind_to(int fd, const ip_address& at, int port) {
  const auto number = htons(static_cast<uint16_t>(port));
  if (at.family == AF_INET) {
    sockaddr_in end{};
    end.sin_family = AF_INET;
    end.sin_port = number;
    end.sin_addr = at.v4;
    return bind(fd, reinterpret_cast<const sockaddr*>(&end), sizeof end) == 0;
  }
  sockaddr_in6 end{};
  end.sin6_family = AF_INET6;
  end.sin6_port = number;
  end.sin6_addr = at.v6;
  return bind(fd, reinterpret_cast<const sockaddr*>(&end), sizeof end) == 0;
}

void set(int fd, int level, int option, int value) {
  // What can't be had is done without.
  static_cast<void>(setsockopt(fd, level, option, &value, sizeof value));
}

base::unique_fd bind_socket(const ip_address& at, int port, std::string& error) {
  base::unique_fd socket(
      ::socket(at.family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP));
  if (!socket.valid() || !bind_to(socket.get(), at, port)) {
    const int failed = errno;
    error = "UDP port " + std::to_string(port) + ": " + std::strerror(failed);
    errno = failed;
    return {};
  }
  set(socket.get(), SOL_SOCKET, SO_RCVBUF, kReceiveBytes);
  set(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, kReceiveBytes);  // for who may pass the bound
  set(socket.get(), SOL_SOCKET, SO_TIMESTAMPNS, 1);
  return socket;
}

void join_group(int fd, const ip_address& group) {
  if (group.family == AF_INET) {
    const ip_mreq wanted{group.v4, {htonl(INADDR_ANY)}};
    static_cast<void>(setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &wanted, sizeof wanted));
  } else {
    const ipv6_mreq wanted{group.v6, 0};
    static_cast<void>(setsockopt(fd, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &wanted, sizeof wanted));
  }
}

// A sender behind a router names the router's address.
base::unique_fd bind_somewhere(const std::string& address, int port, std::string& error) {
  const auto given = parse_address(address);
  if (!given) {
    error = "\"" + address + "\" is no IP address";
    return {};
  }
  if (!given->is_multicast()) {
    base::unique_fd socket = bind_socket(*given, port, error);
    if (socket.valid()) return socket;
  }
  ip_address any;
  any.family = given->family;
  base::unique_fd socket = bind_socket(any, port, error);
  if (socket.valid() && given->is_multicast()) join_group(socket.get(), *given);
  return socket;
}

socket_pair open_at(const wanted_sockets& wanted, int port, int rtcp_port, std::string& error) {
  socket_pair pair;
  pair.rtp = bind_somewhere(wanted.address, port, error);
  if (!pair.rtp.valid()) return {};
  if (!wanted.rtcp_mux) {
    pair.rtcp = bind_somewhere(wanted.address, rtcp_port, error);
    if (!pair.rtcp.valid()) return {};
  }
  pair.port = port;
  return pair;
}

int port_of(int fd) {
  sockaddr_storage at{};
  socklen_t size = sizeof at;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&at), &size) != 0) return 0;
  // At the same place in both families.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&at)->sin_port);
}

// With errno, when one of them is not to be had. `port` 0: the one that the first gets.
shared_port bind_all(const std::vector<std::string>& addresses, int port, std::string& error) {
  shared_port made;
  made.port = port;
  for (const std::string& one : addresses) {
    const auto address = parse_address(one);
    if (!address) {
      error = "\"" + one + "\" is no IP address";
      errno = EINVAL;
      return {};
    }
    base::unique_fd socket = bind_socket(*address, made.port, error);
    if (!socket.valid()) {
      const int failed = errno;
      error.insert(0, one + ", ");
      if (failed == EADDRNOTAVAIL && addresses.size() > 1) continue;
      errno = failed;
      return {};
    }
    if (made.port == 0) made.port = port_of(socket.get());
    made.sockets.push_back(std::move(socket));
    made.addresses.push_back(one);
  }
  if (made.sockets.empty()) errno = EADDRNOTAVAIL;
  return made;
}

}  // namespace

socket_pair open_sockets(const wanted_sockets& wanted, std::string& error) {
  if (wanted.port != 0) return open_at(wanted, wanted.port, wanted.rtcp_port, error);
  const int lowest = wanted.min_port > 0 ? wanted.min_port : kFirstPort;
  const int highest = wanted.max_port > 0 ? wanted.max_port : kLastPort;
  const int first = lowest + lowest % 2;
  const int pairs = (highest - first + 1) / 2;
  const int begin = std::clamp((wanted.likely_free - first) / 2, 0, std::max(pairs, 0));
  for (int i = 0; i < pairs; ++i) {
    const int port = first + (begin + i) % pairs * 2;
    socket_pair pair = open_at(wanted, port, port + 1, error);
    // Another port would be no better.
    if (pair.rtp.valid() || is_shortage(errno)) return pair;
  }
  error = "no pair of UDP ports is free between " + std::to_string(lowest) + " and " +
          std::to_string(highest) + " (--min_port, --max_port, or ports of the settings)";
  return {};
}

shared_port open_shared_port(const std::vector<std::string>& addresses, int min_port, int max_port,
                             std::string& error) {
  const bool any = min_port == 0 && max_port == 0;
  const int first = min_port > 0 ? min_port : kFirstPort;
  const int last = max_port > 0 ? max_port : kLastPort;
  for (int i = 0; i < (any ? kTriesOfAny : last - first + 1); ++i) {
    shared_port made = bind_all(addresses, any ? 0 : first + i, error);
    if (!made.sockets.empty()) return made;
    // Another port would be no better.
    if (is_shortage(errno) || errno == EADDRNOTAVAIL || errno == EINVAL) return {};
  }
  if (!any) {
    error = "no UDP port is free between " + std::to_string(first) + " and " +
            std::to_string(last) + " (--min_port, --max_port, or ports of the settings)";
  }
  return {};
}

uint32_t dropped_by(int fd) {
  std::array<uint32_t, SK_MEMINFO_VARS> counts{};
  socklen_t size = sizeof counts;
  static_cast<void>(getsockopt(fd, SOL_SOCKET, SO_MEMINFO, counts.data(), &size));
  return counts[SK_MEMINFO_DROPS];
}

}  // namespace zelta::core_service::rtp
