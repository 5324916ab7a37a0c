// SPDX-License-Identifier: Apache-2.0
#include "measure.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include <unistd.h>

namespace zelta::bench {
namespace {

constexpr int64_t kNsPerS = 1'000'000'000;

int64_t read_clock(clockid_t clock) {
  timespec time{};
  if (clock_gettime(clock, &time) != 0) return 0;
  return time.tv_sec * kNsPerS + time.tv_nsec;
}

double per_gb(int64_t ns, size_t bytes) {
  return bytes == 0 ? 0 : static_cast<double>(ns) / static_cast<double>(bytes);
}

}  // namespace

int64_t now_ns() {
  return read_clock(CLOCK_MONOTONIC);
}

int64_t cpu_ns(pid_t process) {
  clockid_t clock{};
  return clock_getcpuclockid(process, &clock) == 0 ? read_clock(clock) : 0;
}

void pace_until(int64_t due_ns) {
  const timespec due{due_ns / kNsPerS, due_ns % kNsPerS};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) != 0) {
  }
}

double transfer::gb_per_s() const {
  return wall_ns == 0 ? 0 : static_cast<double>(bytes) / static_cast<double>(wall_ns);
}
double transfer::reader_cpu_s_per_gb() const {
  return per_gb(reader_cpu_ns, bytes);
}
double transfer::writer_cpu_s_per_gb() const {
  return per_gb(writer_cpu_ns, bytes);
}

bool stopwatch::arrived(pid_t writer) {
  if (++seen_ == 1) {
    start_ns_ = now_ns();
    reader_start_ns_ = cpu_ns(getpid());
    writer_start_ns_ = cpu_ns(writer);
  }
  if (seen_ != frames_) return false;
  measured_ = {frame_bytes_ * (frames_ - 1), now_ns() - start_ns_,
               cpu_ns(getpid()) - reader_start_ns_, cpu_ns(writer) - writer_start_ns_};
  return true;
}

int64_t percentile(std::vector<int64_t>& values, double share) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const auto index =
      static_cast<size_t>(std::lround(share * static_cast<double>(values.size() - 1)));
  return values[std::min(index, values.size() - 1)];
}

}  // namespace zelta::bench
