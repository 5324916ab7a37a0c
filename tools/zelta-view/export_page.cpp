// SPDX-License-Identifier: Apache-2.0
#include "export_page.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "core_service/channel/glib.h"
#include "core_service/folder/atomic_file.h"
#include "exit_status.h"
#include "level_worker.h"
#include "page_text.h"
#include "session_json.h"

namespace zelta::view {
namespace {

constexpr const char* kName = "index.html";
// Stands in every page of ours.
constexpr const char* kMark = "<meta name=\"generator\" content=\"zelta-view\">";

void add_levels(const options& o, Json::Value& page) {
  const level_cache cache(o.cache);
  const std::atomic<bool> stop{false};
  for (Json::Value& session : page["sessions"]) {
    // What is written later isn't in the page, so it shows what there is now.
    session["live"] = false;
    for (Json::Value& file : session["files"]) {
      file["open"] = false;
      if (file["audio"].asString().empty()) continue;
      const auto levels = levels_of(o.folder + file["name"].asString(), cache, stop);
      if (!levels) continue;
      file["levels"] =
          core_service::text_ptr(
              g_base64_encode(reinterpret_cast<const guchar*>(levels->data()), levels->size()))
              .get();
    }
  }
}

bool is_foreign(const std::string& path) {
  std::ifstream file(path);
  if (!file) return false;
  std::stringstream text;
  text << file.rdbuf();
  return text.str().find(kMark) == std::string::npos;
}

int failed(const std::string& why) {
  std::fprintf(stderr, "zelta-view: %s\n", why.c_str());
  return kCantServe;
}

}  // namespace

int export_page(const options& o) {
  folder_view view = look_at(o.folder, wall_clock_ms());
  for (const Json::Value& error : view.page["errors"]) {
    std::fprintf(stderr, "zelta-view: %s\n", error.asCString());
  }
  if (view.page["sessions"].empty()) return kNoRecording;
  const std::string path = o.folder + kName;
  if (is_foreign(path)) {
    return failed(path + " is there and not a page of zelta-view: it should be moved away");
  }
  add_levels(o, view.page);
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
