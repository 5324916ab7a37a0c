// SPDX-License-Identifier: Apache-2.0
#include "support/wall_clock.h"

#include <sys/time.h>

namespace zelta::test {

std::chrono::microseconds wall_time = std::chrono::hours(1000);

}  // namespace zelta::test

// In place of the C library's.
extern "C" __attribute__((visibility("default"))) int gettimeofday(timeval* to,
                                                                   void* /*zone*/) noexcept {
  using zelta::test::wall_time;
  to->tv_sec = std::chrono::duration_cast<std::chrono::seconds>(wall_time).count();
  to->tv_usec = (wall_time % std::chrono::seconds(1)).count();
  return 0;
}
