// SPDX-License-Identifier: Apache-2.0
// RTCP as a sender of media reads it: what it is asked for, and what it hears of its packets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace zelta::test {

struct feedback_visitor {
  std::function<void(uint32_t ssrc, uint16_t sequence)> missing;  // NACK, a call a packet
  std::function<void(uint32_t ssrc)> key_frame;                   // PLI
  // Of transport-wide feedback: so many packets came, so many didn't.
  std::function<void(size_t came, size_t missing)> transport;
  std::function<void()> report;  // a receiver report, with or without blocks
};

// False when it isn't whole; what stood before was told.
bool read_feedback(const uint8_t* bytes, size_t size, const feedback_visitor& to);

}  // namespace zelta::test
