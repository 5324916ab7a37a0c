// SPDX-License-Identifier: Apache-2.0
#include "core_service/load/room_left.h"

#include <algorithm>
#include <condition_variable>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <system_error>
#include <thread>
#include <vector>

namespace zelta::core_service::load {
namespace {

std::string read_text(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// "max", and a file that isn't there, are no limit.
uint64_t read_bytes(const std::string& path, uint64_t otherwise) {
  std::ifstream file(path);
  uint64_t bytes = 0;
  return file >> bytes ? bytes : otherwise;
}

// What a cache of files takes is given back when it is needed.
uint64_t inactive_files_of(const std::string& folder) {
  std::ifstream file(folder + "memory.stat");
  uint64_t bytes = 0;
  for (std::string key; file >> key >> bytes;) {
    if (key == "inactive_file" || key == "total_inactive_file") return bytes;
  }
  return 0;
}

uint64_t free_bytes_of_group() {
  // The root of what is seen may be a container's own group; the machine's has no limit.
  const std::string folder = "/sys/fs/cgroup/" + parse_memory_group(read_text("/proc/self/cgroup"));
  // Of version 2, and of version 1.
  const uint64_t limit = std::min(read_bytes(folder + "memory.max", UINT64_MAX),
                                  read_bytes(folder + "memory.limit_in_bytes", UINT64_MAX));
  if (limit == UINT64_MAX) return UINT64_MAX;
  const uint64_t used = std::max(read_bytes(folder + "memory.current", 0),
                                 read_bytes(folder + "memory.usage_in_bytes", 0));
  const uint64_t kept = used - std::min(used, inactive_files_of(folder));
  return limit - std::min(limit, kept);
}

}  // namespace

uint64_t parse_available_bytes(const std::string& meminfo) {
  std::istringstream lines(meminfo);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string key;
    uint64_t kilobytes = 0;
    if (words >> key >> kilobytes && key == "MemAvailable:") return kilobytes << 10;
  }
  return UINT64_MAX;
}

std::string parse_memory_group(const std::string& cgroups) {
  std::istringstream lines(cgroups);
  std::string unified;
  for (std::string line; std::getline(lines, line);) {
    const size_t first = line.find(':');
    const size_t second = first == std::string::npos ? first : line.find(':', first + 1);
    if (second == std::string::npos) continue;
    const std::string controllers = "," + line.substr(first + 1, second - first - 1) + ",";
    const std::string path = line.substr(second + 1) + (line.back() == '/' ? "" : "/");
    if (controllers == ",,") unified = path.substr(1);
    if (controllers.find(",memory,") != std::string::npos) return "memory" + path;
  }
  return unified;
}

uint64_t free_bytes() {
  return std::min(parse_available_bytes(read_text("/proc/meminfo")), free_bytes_of_group());
}

std::string shortage_of_threads(size_t count) {
  std::mutex lock;
  std::condition_variable changed;
  bool over = false;
  std::vector<std::thread> tried;
  tried.reserve(count);
  std::string shortage;
  for (size_t i = 0; i < count && shortage.empty(); ++i) {
    try {
      tried.emplace_back([&] {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&over] { return over; });
      });
    } catch (const std::system_error& error) {
      shortage = "no more threads can be had (" + error.code().message() +
                 "; ulimit -u, pids.max, TasksMax)";
    }
  }
  {
    const std::lock_guard<std::mutex> guard(lock);
    over = true;
  }
  changed.notify_all();
  for (std::thread& one : tried) one.join();
  return shortage;
}

}  // namespace zelta::core_service::load
