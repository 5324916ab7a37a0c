// SPDX-License-Identifier: Apache-2.0
#include "recordings/volume_log.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>
#include <system_error>

#include <json/json.h>

#include "recordings/regular_file.h"

namespace zelta::recordings {
namespace {

// Far beyond what a recorder writes, and so few that no sum of times overflows.
constexpr int64_t kLastMs = 253402300799000;  // the end of the year 9999
constexpr int64_t kLongestStepMs = 60000;
constexpr Json::ArrayIndex kMostSteps = 1000;
// Years of a call.
constexpr size_t kMostBytes = size_t{256} << 20U;

bool take(const std::string& text, const std::string& channel_id, volume_lines& into) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value line;
  if (!reader->parse(text.data(), text.data() + text.size(), &line, nullptr)) return false;
  if (line["channel_id"].asString() != channel_id) return true;
  volume_line made;
  made.utc_ms = line["utc_ms"].asInt64();
  made.step_ms = line["step_ms"].asInt64();
  if (made.utc_ms <= 0 || made.utc_ms > kLastMs || made.step_ms <= 0 ||
      made.step_ms > kLongestStepMs) {
    return false;
  }
  const Json::Value& users = line["volumes"];
  for (const std::string& key : users.getMemberNames()) {
    uint32_t uid = 0;
    const char* const end = key.data() + key.size();
    const auto [stopped, failed] = std::from_chars(key.data(), end, uid);
    if (failed != std::errc() || stopped != end || users[key].size() > kMostSteps) return false;
    made.volumes.clear();
    for (const Json::Value& volume : users[key]) {
      made.volumes.push_back(static_cast<uint8_t>(std::min(volume.asUInt(), 255U)));
    }
    into[uid].push_back(made);
  }
  return true;
}

void read(const std::string& folder, const std::string& name, const std::string& channel_id,
          volume_lines& into, std::vector<std::string>& errors) {
  const std::string path = folder + (folder.empty() || folder.back() == '/' ? "" : "/") + name;
  const auto all = read_regular(folder, name, kMostBytes);
  if (!all) return errors.push_back(path + " can't be read: " + std::strerror(errno));
  if (all->is_cut) {
    errors.push_back(path + ": what is behind its first " + std::to_string(kMostBytes >> 20U) +
                     " MiB isn't read");
  }
  size_t unread = 0;
  std::istringstream lines(all->text);
  for (std::string line; std::getline(lines, line);) {
    try {
      if (!take(line, channel_id, into)) ++unread;
    } catch (const std::exception&) {
      // A value of another kind than it should be.
      ++unread;
    }
  }
  if (unread > 0) errors.push_back(path + ": " + std::to_string(unread) + " lines aren't volumes");
}

}  // namespace

volume_lines read_volumes(const std::string& folder, const std::string& channel_id,
                          std::vector<std::string>& errors) {
  static const std::regex name(R"(volumes(_[0-9]+)?\.jsonl)");
  volume_lines made;
  std::error_code failed;
  const std::filesystem::directory_iterator end;
  std::filesystem::directory_iterator at(folder, failed);
  for (; !failed && at != end; at.increment(failed)) {
    const std::string found = at->path().filename().string();
    if (std::regex_match(found, name)) read(folder, found, channel_id, made, errors);
  }
  for (auto& [uid, lines] : made) {
    std::stable_sort(lines.begin(), lines.end(), [](const volume_line& a, const volume_line& b) {
      return a.utc_ms < b.utc_ms;
    });
  }
  return made;
}

}  // namespace zelta::recordings
