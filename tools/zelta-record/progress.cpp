// SPDX-License-Identifier: Apache-2.0
#include "progress.h"

#include <cstdio>
#include <iterator>
#include <vector>

#include <sys/ioctl.h>
#include <unistd.h>

namespace zelta::record {
namespace {

constexpr size_t kUsualColumns = 80;

std::string formatted(const char* format, double value) {
  char text[48];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::string readable_bytes(double bytes) {
  const char* const units[] = {"B", "kB", "MB", "GB", "TB"};
  size_t unit = 0;
  while (bytes >= 1000 && unit + 1 < std::size(units)) bytes /= 1000, ++unit;
  return formatted(unit == 0 ? "%.0f " : "%.1f ", bytes) + units[unit];
}

std::string counted(uint64_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

std::string progress_line(const progress& p, size_t columns) {
  std::vector<std::string> parts{formatted("%.0f s", p.elapsed_s),
                                 counted(static_cast<uint64_t>(p.users), "user", "users")};
  if (p.losses > 0) parts.push_back(counted(p.losses, "loss", "losses"));
  parts.push_back(formatted("%.0f s", p.recorded_s) + " recorded");
  parts.push_back(readable_bytes(static_cast<double>(p.bytes)));
  parts.push_back(counted(p.files, "file", "files"));
  if (p.losses == 0) parts.emplace_back("no losses");
  if (p.delivers) parts.push_back(formatted("%.0f frames/s", p.frames_per_s));
  std::string line;
  for (const std::string& part : parts) {
    const std::string more = (line.empty() ? "" : "  ") + part;
    if (line.size() + more.size() > columns) break;
    line += more;
  }
  return line;
}

size_t terminal_columns() {
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : kUsualColumns;
}

}  // namespace zelta::record
