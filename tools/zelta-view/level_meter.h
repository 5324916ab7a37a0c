// SPDX-License-Identifier: Apache-2.0
// How loud a file is over its time, decoded once by GStreamer, which has to be initialised.
//
// Any thread; blocks until it is done, some 200 times faster than the file plays.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

namespace zelta::view {

constexpr int64_t kLevelStepMs = 100;

// A byte a step from the file's zero on: 0 for -60 dB of a full sine's RMS and less, 255 for 0 dB.
// None, with `error`, when nothing could be decoded, as where there is no sound, or when the file
// can't be read to its end; of one that is damaged further on, what stands before that. What is
// beyond seven days is left out. `stop` ends it early, with an error. `file` is a descriptor of a
// regular file; it is lent, and read from its beginning whatever its offset.
std::optional<std::string> measure_levels(int file, const std::atomic<bool>& stop,
                                          std::string& error);

}  // namespace zelta::view
