// SPDX-License-Identifier: Apache-2.0
#include "export_page.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include <unistd.h>

#include "complain.h"
#include "core_service/folder/atomic_file.h"
#include "digest.h"
#include "exit_status.h"
#include "folder_reader.h"
#include "level_worker.h"
#include "page_text.h"
#include "recordings/regular_file.h"

namespace zelta::view {
namespace {

constexpr const char* kName = "index.html";
// Stands in the head of every page of ours.
constexpr size_t kHeadBytes = 4096;
constexpr const char* kMark = "<meta name=\"generator\" content=\"zelta-view\">";

void add_levels(const options& o, Json::Value& page) {
  const level_cache cache(o.cache);
  const std::atomic<bool> stop{false};
  std::set<std::string> failed;
  for (Json::Value& session : page["sessions"]) {
    // What is written later isn't in the page, so it shows what there is now.
    session["live"] = false;
    for (Json::Value& file : session["files"]) {
      file["open"] = false;
      if (file["audio"].asString().empty()) continue;
      const auto levels = levels_of(o.folder, file["name"].asString(), cache, failed, stop);
      if (levels) file["levels"] = base64_of(*levels);
    }
  }
}

// Whatever can't be looked into is somebody's, too.
bool is_foreign(const std::string& folder) {
  const auto head = recordings::read_regular(folder, kName, kHeadBytes);
  if (!head) return errno != ENOENT;
  return head->text.find(kMark) == std::string::npos;
}

int failed(const std::string& why) {
  complain(why);
  return kCantServe;
}

int refuse_foreign(const std::string& path) {
  return failed(path + " is there and not a page of zelta-view: it should be moved away");
}

}  // namespace

int export_page(const options& o) {
  folder_view view = look_at(o.folder, wall_clock_ms());
  for (const std::string& error : view.errors) complain(error);
  if (view.page["sessions"].empty()) return kNoRecording;
  const std::string path = o.folder + kName;
  if (is_foreign(o.folder)) return refuse_foreign(path);
  add_levels(o, view.page);
  // In the place of what is written first nothing of use can be, but a link, or a pipe that nobody
  // reads.
  unlink((path + ".new").c_str());
  // Measuring may have taken minutes.
  if (is_foreign(o.folder)) return refuse_foreign(path);
  if (!core_service::replace_file(path, page_with(text_of(view.page)), core_service::sync::kNo)) {
    return failed(path + " can't be written: " + std::strerror(errno));
  }
  if (o.json) {
    Json::Value event;
    event["event"] = "exported";
    event["path"] = path;
    std::printf("%s\n", text_of(event).c_str());
  } else {
    std::printf("zelta-view: wrote %s\n", path.c_str());
  }
  return kDone;
}

}  // namespace zelta::view
