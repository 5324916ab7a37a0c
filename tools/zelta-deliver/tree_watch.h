// SPDX-License-Identifier: Apache-2.0
// Notices by inotify in which folders under a root something was made, renamed, closed or removed.
// One thread.
#pragma once

#include <map>
#include <set>
#include <string>

#include "base/unique_fd.h"

namespace zelta::deliver {

class tree_watch {
 public:
  // Watches nothing when `error` is set. What may not be read is left out.
  tree_watch(const std::string& root, std::string& error);

  int fd() const { return inotify_.get(); }
  // Folders in which something happened since the last call. `all` is set when some events were
  // lost, or a folder couldn't be watched: then anything may have.
  std::set<std::string> take(bool& all);

  // All folders under the root, and itself, that hold a manifest; links aren't followed.
  static std::set<std::string> recordings_under(const std::string& root);
  // Whether there is a manifest, by its name.
  static bool holds_recording(const std::string& folder);

 private:
  void add(const std::string& folder, std::set<std::string>* seen, bool& all);
  void drop(const std::string& folder);

  const std::string root_;
  base::unique_fd inotify_;
  std::map<int, std::string> folders_;  // by watch
};

}  // namespace zelta::deliver
