// SPDX-License-Identifier: Apache-2.0
// For what others count by clocks that go on while this machine sleeps, or is moved.
#pragma once

#include <chrono>
#include <ctime>

namespace zelta::base {

struct boot_clock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<boot_clock>;
  static constexpr bool is_steady = true;
  static time_point now() noexcept {
    timespec at{};
    clock_gettime(CLOCK_BOOTTIME, &at);
    return time_point(std::chrono::seconds(at.tv_sec) + std::chrono::nanoseconds(at.tv_nsec));
  }
};

}  // namespace zelta::base
