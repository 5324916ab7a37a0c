// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/sockets.h"

#include <utility>

#include <sys/socket.h>

namespace zelta::core_service::rtp {
namespace {

// A key frame of a large picture comes in a burst of a thousand packets. The system may give less.
constexpr int kReceiveBytes = 4 << 20;
constexpr int kFirstPort = 1024;
constexpr int kLastPort = 65535;

using address_ptr = std::unique_ptr<GInetAddress, gobject_unref>;
using end_ptr = std::unique_ptr<GSocketAddress, gobject_unref>;

socket_ptr bind_socket(GInetAddress* at, int port, std::string& error) {
  GError* failed = nullptr;
  socket_ptr socket(g_socket_new(g_inet_address_get_family(at), G_SOCKET_TYPE_DATAGRAM,
                                 G_SOCKET_PROTOCOL_UDP, &failed));
  const end_ptr end(g_inet_socket_address_new(at, static_cast<guint16>(port)));
  if (!socket || g_socket_bind(socket.get(), end.get(), FALSE, &failed) == FALSE) {
    error = "UDP port " + std::to_string(port) + ": " + failed->message;
    g_clear_error(&failed);
    return nullptr;
  }
  // What can't be had is done without.
  g_socket_set_option(socket.get(), SOL_SOCKET, SO_RCVBUF, kReceiveBytes, nullptr);
  return socket;
}

// A sender behind a router names the router's address.
socket_ptr bind_somewhere(const std::string& address, int port, std::string& error) {
  const address_ptr given(g_inet_address_new_from_string(address.c_str()));
  if (!given) {
    error = "\"" + address + "\" is no IP address";
    return nullptr;
  }
  if (g_inet_address_get_is_multicast(given.get()) == FALSE) {
    socket_ptr socket = bind_socket(given.get(), port, error);
    if (socket) return socket;
  }
  const address_ptr any(g_inet_address_new_any(g_inet_address_get_family(given.get())));
  socket_ptr socket = bind_socket(any.get(), port, error);
  if (socket && g_inet_address_get_is_multicast(given.get()) != FALSE) {
    g_socket_join_multicast_group(socket.get(), given.get(), FALSE, nullptr, nullptr);
  }
  return socket;
}

socket_pair open_at(const wanted_sockets& wanted, int port, int rtcp_port, std::string& error) {
  socket_pair pair;
  pair.rtp = bind_somewhere(wanted.address, port, error);
  if (!pair.rtp) return {};
  if (!wanted.rtcp_mux) {
    pair.rtcp = bind_somewhere(wanted.address, rtcp_port, error);
    if (!pair.rtcp) return {};
  }
  pair.port = port;
  return pair;
}

}  // namespace

socket_pair open_sockets(const wanted_sockets& wanted, std::string& error) {
  if (wanted.port != 0) return open_at(wanted, wanted.port, wanted.rtcp_port, error);
  const int lowest = wanted.min_port > 0 ? wanted.min_port : kFirstPort;
  const int highest = wanted.max_port > 0 ? wanted.max_port : kLastPort;
  for (int port = lowest + lowest % 2; port + 1 <= highest; port += 2) {
    socket_pair pair = open_at(wanted, port, port + 1, error);
    if (pair.rtp) return pair;
  }
  error = "no pair of UDP ports is free between " + std::to_string(lowest) + " and " +
          std::to_string(highest) + " (--min_port, --max_port, or ports of the settings)";
  return {};
}

}  // namespace zelta::core_service::rtp
