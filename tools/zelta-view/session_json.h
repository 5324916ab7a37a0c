// SPDX-License-Identifier: Apache-2.0
// What the page knows of a folder:
//
//     {"level_step_ms": 100, "errors": ["…"], "sessions": [{
//        "name": "recording.json", "channel": "room", "begin_ms": …, "end_ms": …, "live": false,
//        "users": [{"uid": 1, "channel": "room", "name": "alice"}],
//        "files": [{"name": "1_….mp4", "user": 0, "kind": "audio_video", "video": "h264",
//                   "audio": "opus", "width": 640, "height": 360, "begin_ms": …, "end_ms": …,
//                   "closed": "user left", "open": false}],
//        "missing": [{"user": 0, "medium": "video", "codec": "", "reason": "…", "begin_ms": …,
//                     "end_ms": 0}],
//        "messages": [{"user": 0, "at_ms": …, "label": "notes", "text": "…"}]}]}
//
// Times are UTC milliseconds of the manifest's clock. "user" is an index into "users", -1 for
// nobody's. A manifest that has gone on after a long pause is several sessions; all stand in the
// order of time.
//
// Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

#include "recordings/message_log.h"
#include "recordings/recording_folder.h"

namespace zelta::view {

// Nothing is written for so long, and what came before is another session.
constexpr int64_t kPauseBetweenSessionsMs = int64_t{10} * 60 * 1000;

struct folder_view {
  size_t manifests = 0;             // that could be read
  Json::Value page;                 // as above
  std::vector<std::string> errors;  // with the folder's path, which the page isn't told
  std::set<std::string> files;  // that the manifests name and that are there: all that is served
};

enum class file_state {
  kGone,     // not there, no regular file, or empty
  kThere,    // nobody writes it
  kWritten,  // somebody does
};

// A manifest and what belongs to it, as they were read.
struct manifest_seen {
  std::optional<recordings::manifest> facts;  // none: `errors` say why
  std::vector<recordings::message> messages;
  std::vector<std::string> errors;
  std::vector<file_state> states;  // of each of its files
};

// `all`: by the manifest's name; `errors`: of the folder.
folder_view view_of(const std::string& folder, const std::map<std::string, manifest_seen>& all,
                    const std::vector<std::string>& errors);
// Without white space; UTF-8 stays as it is.
std::string text_of(const Json::Value& value);

}  // namespace zelta::view
