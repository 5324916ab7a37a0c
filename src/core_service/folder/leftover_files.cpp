// SPDX-License-Identifier: Apache-2.0
#include "core_service/folder/leftover_files.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <optional>
#include <regex>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include "base/unique_fd.h"

namespace zelta::core_service {
namespace {

// What the name of a file tells of it, as file_series makes names: UID or "mix", the UTC time of
// its begin, the container.
std::optional<manifest_file> file_of_name(const std::string& name) {
  static const std::regex form(
      R"((\d{1,10}|mix)_(\d{4})(\d\d)(\d\d)T(\d\d)(\d\d)(\d\d)(\d{3})\.(mp4|m4a|webm))");
  std::smatch parts;
  if (!std::regex_match(name, parts, form)) return std::nullopt;
  const auto number = [&parts](size_t part) { return std::stoi(parts[part]); };
  std::tm begin{};
  begin.tm_year = number(2) - 1900;
  begin.tm_mon = number(3) - 1;
  begin.tm_mday = number(4);
  begin.tm_hour = number(5);
  begin.tm_min = number(6);
  begin.tm_sec = number(7);
  manifest_file f;
  f.opened.name = name;
  const uint64_t uid = parts[1] == "mix" ? 0 : std::stoull(parts[1]);
  if (uid > UINT32_MAX) return std::nullopt;
  f.opened.uid = static_cast<uint32_t>(uid);
  f.is.first_utc_ms = int64_t{timegm(&begin)} * 1000 + number(8);
  const std::string ending = parts[9];
  f.is.kind = ending == "m4a" ? "audio" : "audio_video";
  f.is.video_codec = ending == "mp4" ? "h264" : "";
  f.is.audio_codec = ending == "webm" ? "opus" : "aac";
  return f;
}

// A writer's lease is only given on a file that nobody else has open, as a recorder would that
// records into the same folder. Who opens it in this moment makes the kernel send a signal, which
// must be one that does nothing.
bool in_use(const std::string& path) {
  const base::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return !file.valid() || fcntl(file.get(), F_SETSIG, SIGURG) != 0 ||
         fcntl(file.get(), F_SETLEASE, F_WRLCK) != 0;
}

}  // namespace

std::vector<manifest_file> leftover_files(const std::string& folder) {
  std::vector<manifest_file> all;
  std::error_code ignored;
  const std::filesystem::directory_iterator end;
  for (std::filesystem::directory_iterator at(folder, ignored); at != end; at.increment(ignored)) {
    auto found = file_of_name(at->path().filename().string());
    const std::string path = at->path().string();
    struct stat status {};
    const bool ours = found && stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    if (!ours || in_use(path)) continue;
    const int64_t written_ms = status.st_mtim.tv_sec * 1000 + status.st_mtim.tv_nsec / 1'000'000;
    found->is.last_utc_ms = std::max(found->is.first_utc_ms, written_ms);
    found->is.bytes = static_cast<uint64_t>(status.st_size);
    all.push_back(std::move(*found));
  }
  return all;
}

}  // namespace zelta::core_service
