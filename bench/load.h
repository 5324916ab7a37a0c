// SPDX-License-Identifier: Apache-2.0
// What the benchmarks ask of the recorder's stand-in, in words that go through its environment.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace zelta::bench {

constexpr const char* kLoadVariable = "ZELTA_BENCH_LOAD";

enum class frame_kind { kYuv, kH264, kJpg, kPcm };

struct load {
  frame_kind kind = frame_kind::kYuv;
  // Of a picture; `height` 0: `width` is the number of bytes.
  int width = 1920;
  int height = 1080;
  size_t frames = 0;
  int users = 1;
  bool splice = true;
  // Nonzero: `users` users with pictures and sound at the pace of a call, for so long.
  int paced_s = 0;

  size_t frame_bytes() const {
    const auto area = static_cast<size_t>(width) * static_cast<size_t>(height == 0 ? 1 : height);
    return height == 0 ? area : area * 3 / 2;
  }
  std::string text() const;
  static std::optional<load> parse(const char* text);
};

}  // namespace zelta::bench
