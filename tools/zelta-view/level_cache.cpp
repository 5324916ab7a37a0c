// SPDX-License-Identifier: Apache-2.0
#include "level_cache.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include "core_service/folder/atomic_file.h"
#include "digest.h"
#include "level_meter.h"

namespace zelta::view {
namespace {

namespace fs = std::filesystem;

constexpr const char* kEnding = ".levels";
// Those of another layout, or step, aren't taken for these.
const std::string kLayout = "levels 1, " + std::to_string(kLevelStepMs) + " ms\n";

}  // namespace

level_cache::level_cache(std::string folder, size_t most)
    : folder_(std::move(folder)), most_(most) {}

std::string level_cache::key_of(int file) {
  struct stat status {};
  if (fstat(file, &status) != 0) return "";
  std::ostringstream identity;
  identity << status.st_dev << ' ' << status.st_ino << ' ' << status.st_size << ' '
           << status.st_mtim.tv_sec << '.' << status.st_mtim.tv_nsec;
  return sha256_of(identity.str());
}

std::optional<std::string> level_cache::find(const std::string& key) const {
  if (folder_.empty() || key.empty()) return std::nullopt;
  std::ifstream file(folder_ + key + kEnding, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  std::string whole = text.str();
  if (whole.compare(0, kLayout.size(), kLayout) != 0) return std::nullopt;
  return whole.substr(kLayout.size());
}

void level_cache::keep(const std::string& key, const std::string& levels) const {
  if (folder_.empty() || key.empty()) return;
  std::error_code failed;
  if (fs::create_directories(folder_, failed)) {
    fs::permissions(folder_, fs::perms::owner_all, failed);
  }
  if (core_service::replace_file(folder_ + key + kEnding, kLayout + levels,
                                 core_service::sync::kNo)) {
    drop_oldest();
  }
}

void level_cache::drop_oldest() const {
  std::vector<std::pair<fs::file_time_type, fs::path>> kept;
  std::error_code failed;
  fs::directory_iterator at(folder_, failed);
  for (; !failed && at != fs::directory_iterator(); at.increment(failed)) {
    if (at->path().extension() != kEnding) continue;
    std::error_code gone;
    kept.emplace_back(at->last_write_time(gone), at->path());
  }
  if (kept.size() <= most_) return;
  std::sort(kept.begin(), kept.end());
  for (size_t i = 0; i < kept.size() - most_; ++i) fs::remove(kept[i].second, failed);
}

}  // namespace zelta::view
