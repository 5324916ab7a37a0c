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

#include "core_service/channel/glib.h"
#include "core_service/folder/atomic_file.h"

namespace zelta::view {
namespace {

namespace fs = std::filesystem;

constexpr const char* kEnding = ".levels";
// Those of another layout, or step, aren't taken for these.
constexpr const char* kLayout = "levels 1, 100 ms\n";

}  // namespace

level_cache::level_cache(std::string folder, size_t most)
    : folder_(std::move(folder)), most_(most) {}

std::string level_cache::key_of(const std::string& path) const {
  struct stat status {};
  std::error_code failed;
  const fs::path real = fs::canonical(path, failed);
  if (folder_.empty() || failed || stat(path.c_str(), &status) != 0) return "";
  std::ostringstream identity;
  identity << real.string() << '\0' << status.st_size << '\0' << status.st_mtim.tv_sec << '.'
           << status.st_mtim.tv_nsec;
  const std::string text = identity.str();
  return core_service::text_ptr(g_compute_checksum_for_string(G_CHECKSUM_SHA256, text.c_str(),
                                                              static_cast<gssize>(text.size())))
      .get();
}

std::optional<std::string> level_cache::find(const std::string& key) const {
  if (key.empty()) return std::nullopt;
  std::ifstream file(folder_ + key + kEnding, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  std::string whole = text.str();
  const std::string layout = kLayout;
  if (whole.compare(0, layout.size(), layout) != 0) return std::nullopt;
  return whole.substr(layout.size());
}

void level_cache::keep(const std::string& key, const std::string& levels) const {
  if (key.empty()) return;
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
