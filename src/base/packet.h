// SPDX-License-Identifier: Apache-2.0
// Base of everything that travels between the engine and the recorder.
#pragma once

#include <cstdint>

#include "base/packer.h"

namespace zelta::base {

// `uri` names the kind of packet on the wire. `server_type` stays in the process: it is what the
// object was made with, on either side.
class packet {
 public:
  explicit packet(uint16_t kind) : uri(kind) {}
  packet(uint16_t server, uint16_t kind) : server_type(server), uri(kind) {}
  packet(const packet&) = default;
  packet& operator=(const packet&) = default;
  virtual ~packet() = default;

  virtual void unmarshall(unpacker& u) { u >> uri; }
  virtual void marshall(packer& p) const { p << uri; }
  // Writes the whole packet and completes it, ready for the pipe.
  virtual void pack(packer& p) const {
    marshall(p);
    p.pack();
  }

  uint16_t server_type = 0;
  uint16_t uri = 0;
};

}  // namespace zelta::base
