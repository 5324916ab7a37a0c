// SPDX-License-Identifier: Apache-2.0
#include "targets.h"

#include <filesystem>
#include <regex>
#include <system_error>
#include <vector>

namespace zelta::lay {
namespace {

namespace fs = std::filesystem;

// In its folder a recorder finds what one that died has left by such names.
bool is_named_by_recorder(const std::string& name) {
  static const std::regex form(R"((\d{1,10}|mix)_\d{8}T\d{9}\..*)");
  return std::regex_match(name, form);
}

bool is_list_name(const fs::path& name) {
  return name.extension() == ".edl" || name.extension() == ".otio";
}

bool is_recorded(const fs::path& path, const options& o, const std::set<std::string>& recorded) {
  std::error_code failed;
  for (const std::string& name : recorded) {
    if (fs::equivalent(path, fs::path(o.folder) / name, failed)) return true;
  }
  return false;
}

std::string fault_of(const std::string& path, bool is_film, const options& o,
                     const std::set<std::string>& recorded) {
  std::error_code failed;
  const fs::path whole = fs::absolute(path, failed);
  const fs::path folder = whole.parent_path();
  const std::string name = whole.filename().string();
  if (!fs::is_directory(folder, failed)) return path + ": " + folder.string() + " is no folder";
  if (name.empty() || fs::is_directory(whole, failed)) return path + " is a folder, name a file";
  if (is_recorded(whole, o, recorded)) return path + " is a file of the recording; name another";
  if (fs::equivalent(folder, o.folder, failed)) {
    if (recorded.count(name) != 0 || is_named_by_recorder(name)) {
      return path + " is a name of the recorder's; name another";
    }
    if (!is_film && !is_list_name(name)) {
      return path + " should end in .edl or .otio, as it stands among the recording's own files";
    }
  }
  if (o.force || !fs::exists(fs::symlink_status(whole, failed))) return "";
  return path + " is there already; --force overwrites it";
}

}  // namespace

std::string targets_fault(const options& o, const std::set<std::string>& recorded) {
  std::set<fs::path> all;
  for (const std::string* const path : {&o.output, &o.edl, &o.otio}) {
    if (path->empty()) continue;
    std::string fault = fault_of(*path, path == &o.output, o, recorded);
    if (!fault.empty()) return fault;
    std::error_code failed;
    if (!all.insert(fs::weakly_canonical(fs::absolute(*path, failed), failed)).second) {
      return *path + " is named twice; each needs a name of its own";
    }
  }
  return "";
}

}  // namespace zelta::lay
