// SPDX-License-Identifier: Apache-2.0
// Bytes that a packet carries without copying them.
#pragma once

#include <array>
#include <cstddef>
#include <memory>

namespace zelta::link {

// Up to three stretches of memory, back to back on the wire: the planes of a picture, or one
// access unit. With an `owner` the bytes stay as they are for as long as it is held, and may be
// kept; without one they are good during the call only, and whoever keeps them copies them.
struct payload {
  struct span {
    const char* data = nullptr;
    size_t bytes = 0;
  };

  payload(std::shared_ptr<const void> held_by, const void* data, size_t bytes)
      : owner(std::move(held_by)), spans{{{static_cast<const char*>(data), bytes}}} {}
  payload(std::shared_ptr<const void> held_by, const std::array<span, 3>& stretches)
      : owner(std::move(held_by)), spans(stretches) {}

  size_t bytes() const {
    size_t sum = 0;
    for (const span& one : spans) sum += one.bytes;
    return sum;
  }

  std::shared_ptr<const void> owner;
  // Those that are not needed are empty.
  std::array<span, 3> spans{};
};

}  // namespace zelta::link
