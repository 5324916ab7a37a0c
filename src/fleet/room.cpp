// SPDX-License-Identifier: Apache-2.0
#include "fleet/room.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <sched.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace zelta::fleet {
namespace {

// Of a user of 640x360 and 500 kbit/s, as docs/bench/crowd.md has it, and twice that, as nobody
// knows what comes.
constexpr double kUserProcessors = 0.004;
constexpr double kUserMbit = 1;
constexpr uint64_t kUserBytes = 1 << 20;
constexpr uint64_t kUserDiskBytes = uint64_t{40} << 20;  // ten minutes

double processors_here() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  double count = static_cast<double>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
  if (sched_getaffinity(0, sizeof allowed, &allowed) == 0) count = CPU_COUNT(&allowed);
  // A container's share, in microseconds of so many.
  std::ifstream share("/sys/fs/cgroup/cpu.max");
  double quota = 0;
  double period = 0;
  if (share >> quota >> period && period > 0) count = std::min(count, quota / period);
  return count;
}

uint64_t number_in(const std::string& path) {
  std::ifstream file(path);
  uint64_t value = 0;
  return file >> value ? value : 0;
}

void read_memory(machine_load& to) {
  std::ifstream file("/proc/meminfo");
  std::string name;
  uint64_t kib = 0;
  for (std::string line; std::getline(file, line);) {
    std::istringstream parts(line);
    if (!(parts >> name >> kib)) continue;
    if (name == "MemTotal:") to.memory_bytes = kib << 10U;
    if (name == "MemAvailable:") to.free_memory_bytes = kib << 10U;
  }
  const uint64_t most = number_in("/sys/fs/cgroup/memory.max");
  if (most == 0 || most >= to.memory_bytes) return;
  const uint64_t used = number_in("/sys/fs/cgroup/memory.current");
  to.memory_bytes = most;
  to.free_memory_bytes = std::min(to.free_memory_bytes, most - std::min(most, used));
}

constexpr double kBitsOfByte = 8;
constexpr double kMbit = 1e6;

struct links {
  uint64_t received_bytes = 0;
  double mbit = 0;
};

// Of all that aren't the loopback. One that doesn't say how fast it is adds nothing to that.
links read_links() {
  links made;
  std::error_code failed;
  const std::filesystem::directory_iterator end;
  for (std::filesystem::directory_iterator at("/sys/class/net", failed); !failed && at != end;
       at.increment(failed)) {
    if (at->path().filename() == "lo") continue;
    made.received_bytes += number_in(at->path() / "statistics/rx_bytes");
    // It is -1 of a link that is down.
    std::ifstream speed(at->path() / "speed");
    double mbit = 0;
    if (speed >> mbit && mbit > 0) made.mbit += mbit;
  }
  return made;
}

}  // namespace

job_cost cost_of(int users) {
  job_cost made;
  if (users == 0) return made;
  made.processors = 0.01 + kUserProcessors * users;
  made.mbit = kUserMbit * users;
  made.memory_bytes = (uint64_t{32} << 20U) + kUserBytes * static_cast<uint64_t>(users);
  made.disk_bytes = kUserDiskBytes * static_cast<uint64_t>(users);
  return made;
}

std::optional<std::string> what_lacks(const machine_load& now, const room_limits& within,
                                      const job_cost& begun, const job_cost& more, int jobs) {
  if (jobs >= within.most_jobs) return std::to_string(jobs) + " jobs run, which are the most";
  if (now.lag_ms > within.lag_ms) {
    return "recorders are " + std::to_string(now.lag_ms) + " ms behind";
  }
  const double busy = now.busy_processors + begun.processors + more.processors;
  if (within.busy_share <= 1 && busy > now.processors * within.busy_share) return "processors";
  const auto kept =
      static_cast<uint64_t>(static_cast<double>(now.memory_bytes) * within.memory_share);
  if (now.free_memory_bytes < kept + begun.memory_bytes + more.memory_bytes) return "memory";
  if (now.free_disk_bytes < within.disk_bytes + begun.disk_bytes + more.disk_bytes) return "disk";
  const double links = within.network_mbit > 0 ? within.network_mbit : now.links_mbit;
  if (links > 0 && now.received_mbit + begun.mbit + more.mbit > links * within.network_share) {
    return "network";
  }
  constexpr uint64_t kDescriptors = 200;
  if (now.free_descriptors < kDescriptors) return "descriptors";
  return std::nullopt;
}

machine_load load_meter::measure() {
  machine_load made;
  made.processors = processors_here();
  const auto now = std::chrono::steady_clock::now();
  const links found = read_links();
  const double elapsed_s = std::chrono::duration<double>(now - measured_).count();
  if (received_ > 0 && found.received_bytes > received_) {
    made.received_mbit =
        static_cast<double>(found.received_bytes - received_) * kBitsOfByte / kMbit / elapsed_s;
  }
  made.links_mbit = found.mbit;
  received_ = found.received_bytes;
  measured_ = now;
  // user nice system idle iowait irq softirq steal, in ticks of all processors
  std::ifstream stat("/proc/stat");
  std::string name;
  stat >> name;
  uint64_t ticks[8] = {};
  for (uint64_t& one : ticks) stat >> one;
  uint64_t all = 0;
  for (const uint64_t one : ticks) all += one;
  const uint64_t busy = all - ticks[3] - ticks[4];
  const double online = static_cast<double>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
  if (all > all_ && all_ > 0) {
    made.busy_processors = online * static_cast<double>(busy - std::min(busy, busy_)) /
                           static_cast<double>(all - all_);
  }
  busy_ = busy;
  all_ = all;
  read_memory(made);
  struct statvfs disk {};
  if (statvfs(folder_.c_str(), &disk) == 0) {
    made.free_disk_bytes = uint64_t{disk.f_bavail} * disk.f_frsize;
  }
  std::ifstream files("/proc/sys/fs/file-nr");
  uint64_t used = 0;
  uint64_t unused = 0;
  uint64_t most = 0;
  if (files >> used >> unused >> most) made.free_descriptors = most - std::min(most, used);
  return made;
}

}  // namespace zelta::fleet
