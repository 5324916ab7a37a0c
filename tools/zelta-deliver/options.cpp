// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <map>
#include <system_error>

#include <CLI/CLI.hpp>

#include "disk.h"
#include "exit_status.h"
#include "zelta_revision.h"

namespace zelta::deliver {
namespace {

constexpr const char* kAbout =
    "Delivers recordings to the targets of a settings file: files as they close, the manifest "
    "last, each until the target is seen to have it. What became of each file stands in its "
    "folder's delivery.json: started again after whatever ended it, it goes on from there. "
    "SIGINT, SIGTERM and SIGHUP end it.\n";

// Without links, so that a folder has one name however it was called.
std::string absolute(const std::string& path, std::string& error) {
  std::error_code failed;
  const std::filesystem::path whole = std::filesystem::canonical(path, failed);
  if (failed) {
    error = path + ": " + failed.message() + "; it should be a folder";
  } else if (!std::filesystem::is_directory(whole, failed)) {
    error = path + " should be a folder";
  }
  return whole.string();
}

std::string settle(options& o) {
  std::string error;
  if (o.folders.empty() == o.watch.empty()) {
    return "name recordings' folders, or a root with --watch; --help lists all options";
  }
  if (o.status && !o.watch.empty()) return "--status is of folders, not of --watch";
  if (o.settings_path.empty() && !o.status)
    return "--settings is missing: the file with the targets";
  for (std::string& folder : o.folders) {
    folder = absolute(folder, error);
    if (!error.empty()) return error;
  }
  for (std::string* path : {&o.watch, &o.root}) {
    if (!path->empty()) *path = absolute(*path, error);
    if (!error.empty()) return error;
  }
  if (o.root.empty()) o.root = o.watch;
  std::sort(o.folders.begin(), o.folders.end());
  o.folders.erase(std::unique(o.folders.begin(), o.folders.end()), o.folders.end());
  std::map<std::string, std::string> called;
  for (const std::string& folder : o.folders) {
    if (remote_name(o, folder).empty()) {
      return folder + " should be under --root, " + (o.root.empty() ? "/" : o.root);
    }
    const auto [there, is_new] = called.insert({remote_name(o, folder), folder});
    if (!is_new) {
      return folder + " and " + there->second + " would both be called " + there->first +
             " at targets; --root should name a folder above both";
    }
  }
  return "";
}

}  // namespace

std::string remote_name(const options& o, const std::string& folder) {
  const std::string root = o.root.empty() ? folder_of(folder) : o.root;
  const std::string start = root == "/" ? root : root + "/";
  if (folder == root) return folder.substr(folder.rfind('/') + 1);
  return folder.rfind(start, 0) == 0 ? folder.substr(start.size()) : "";
}

parse_result parse_options(int argc, const char* const* argv, options& o) {
  CLI::App app(std::string(kAbout) + kStatusHelp, "zelta-deliver");
  app.get_formatter()->column_width(28);
  app.add_option("folder", o.folders, "recordings' folders: once, until all of them is delivered");
  app.add_option("--watch", o.watch,
                 "a root: all recordings under it, and those that come, until a signal");
  app.add_option("--settings", o.settings_path, "JSON file: targets, limits, hooks, what is kept");
  app.add_option("--root", o.root,
                 "at targets, folders are called as they are from here on; default: their parent, "
                 "or what is watched");
  app.add_option("--metrics", o.metrics_address,
                 "ADDRESS:PORT at which numbers are served to Prometheus; a port alone: 127.0.0.1");
  app.add_flag("--status", o.status, "tell what the folders' states are; deliver nothing");
  app.add_flag("--retry-dead", o.retry_dead, "first make dead letters pending again");
  app.add_flag("--left-over", o.left_over,
               "take recordings for over, too, whose recorder died and left its journal, once no "
               "process holds them");
  app.add_option("--give-up", o.give_up_s, "seconds after which to leave the rest; default: never")
      ->check(CLI::Range(1, 1 << 30));
  app.add_flag("--json", o.json, "one JSON object a line and event");
  app.set_version_flag("--version", "zelta-deliver " ZELTA_REVISION);
  try {
    return tools::parse_command_line(app, argc, argv, kUsage, [&o] { return settle(o); });
  } catch (const std::exception& e) {
    return {false, e.what(), kUsage};
  }
}

}  // namespace zelta::deliver
