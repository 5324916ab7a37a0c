// SPDX-License-Identifier: Apache-2.0
// The UDP sockets of one stream.
#pragma once

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace zelta::core_service::rtp {

struct socket_pair {
  base::unique_fd rtp;
  base::unique_fd rtcp;  // none: both come on one
  int port = 0;          // of rtp
};

struct wanted_sockets {
  std::string address;
  int port;       // 0: any even one between the next two
  int rtcp_port;  // not used when port is 0: then it is the next one
  bool rtcp_mux;
  int min_port;  // 0: no bound
  int max_port;
  // Where the search begins; else at the lowest. A thousand searches would try each port a thousand
  // times.
  int likely_free = 0;
};

// Bound to the address where it is one of this machine, else to all addresses. They don't block,
// and the kernel says of each datagram when it came. Empty with `error` when a port can't be had.
socket_pair open_sockets(const wanted_sockets& wanted, std::string& error);

// A socket for each address, all of one port: one that is free at all of them, between the two, or
// any if both are 0. As of open_sockets(). Of several, those that the machine doesn't have at the
// moment are left out.
struct shared_port {
  std::vector<base::unique_fd> sockets;
  std::vector<std::string> addresses;  // that they are bound to
  int port = 0;
};
shared_port open_shared_port(const std::vector<std::string>& addresses, int min_port, int max_port,
                             std::string& error);

// Datagrams that found no room in the socket so far, modulo 2^32.
uint32_t dropped_by(int fd);

}  // namespace zelta::core_service::rtp
