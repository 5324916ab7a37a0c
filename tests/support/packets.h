// SPDX-License-Identifier: Apache-2.0
// Packets in a line each, as objects and as what stands in a pipe.
#pragma once

#include <string>
#include <tuple>

#include "protocol/ipc_protocol.h"

namespace zelta::test {

// The values are those of its fields, in their order on the wire.
template <class Packet, class... Values>
Packet made(Values... values) {
  Packet packet;
  Packet::fields(packet) = std::make_tuple(values...);
  return packet;
}

inline std::string bytes_of(const base::packet& packet) {
  base::packer p;
  packet.pack(p);
  return {p.buffer(), p.length()};
}

template <class Packet, class... Values>
std::string bytes_with(Values... values) {
  return bytes_of(made<Packet>(values...));
}

// What announces a packet of so many bytes.
inline std::string length_prefix(uint32_t total) {
  return {reinterpret_cast<const char*>(&total), sizeof total};
}

}  // namespace zelta::test
