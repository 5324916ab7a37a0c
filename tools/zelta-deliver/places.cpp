// SPDX-License-Identifier: Apache-2.0
#include "places.h"

#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include <sys/stat.h>

namespace zelta::deliver {
namespace {

bool is_within(const std::string& path, const std::string& folder) {
  return path == folder || folder == "/" || path.rfind(folder + "/", 0) == 0;
}

bool is_on_one_disk(const std::string& a, const std::string& b) {
  struct stat one {};
  struct stat other {};
  return stat(a.c_str(), &one) == 0 && stat(b.c_str(), &other) == 0 && one.st_dev == other.st_dev;
}

}  // namespace

void check_places(const options& asked, const delivery_settings& settings,
                  std::vector<std::string>& errors) {
  std::vector<std::string> delivered = asked.folders;
  if (!asked.watch.empty()) delivered.push_back(asked.watch);
  for (const target_settings& target : settings.targets) {
    if (target.kind != target_kind::kFolder) continue;
    // It may not be there yet.
    std::error_code failed;
    std::string path = std::filesystem::weakly_canonical(target.path, failed).string();
    if (failed) path = target.path;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const std::string key = asked.settings_path + ": target \"" + target.name + "\": path: ";
    bool is_apart = true;
    for (const std::string& one : delivered) {
      const std::string there =
          (path == "/" ? "" : path) + "/" + (one == asked.watch ? "" : remote_name(asked, one));
      if (is_within(path, one) || is_within(there, one)) {
        std::string error = key;
        error.append(path).append(" should not lie in ").append(one).append(", which is delivered");
        errors.push_back(std::move(error));
        is_apart = false;
        break;
      }
    }
    if (is_apart && target.mount.empty() && is_on_one_disk(path, delivered.front())) {
      std::fprintf(stderr,
                   "%s%s is on the same disk as %s; if it should be mounted, \"mount\" should say "
                   "what has to be\n",
                   key.c_str(), path.c_str(), delivered.front().c_str());
    }
  }
}

}  // namespace zelta::deliver
