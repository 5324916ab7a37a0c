// SPDX-License-Identifier: Apache-2.0
// What the page knows of a folder:
//
//     {"read_utc_ms": …, "errors": ["…"], "sessions": [{
//        "name": "recording.json", "channel": "room", "begin_ms": …, "end_ms": …, "live": false,
//        "users": [{"uid": 1, "channel": "room", "name": "alice"}],
//        "files": [{"name": "1_….mp4", "user": 0, "kind": "audio_video", "video": "h264",
//                   "audio": "opus", "width": 640, "height": 360, "begin_ms": …, "end_ms": …,
//                   "closed": "user left", "bytes": …, "open": false}],
//        "missing": [{"user": 0, "medium": "video", "codec": "", "reason": "…", "begin_ms": …,
//                     "end_ms": 0}],
//        "messages": [{"user": 0, "at_ms": …, "label": "notes", "text": "…"}]}]}
//
// Times are UTC milliseconds of the manifest's clock. "user" is an index into "users", -1 for
// nobody's. A manifest that has gone on after a long pause is several sessions.
//
// Any thread; reads the folder anew each time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include <json/json.h>

namespace zelta::view {

// Nothing is written for so long, and what came before is another session.
constexpr int64_t kPauseBetweenSessionsMs = int64_t{10} * 60 * 1000;

struct folder_view {
  size_t manifests = 0;         // that could be read
  Json::Value page;             // as above
  std::set<std::string> files;  // that the manifests name and that are there: all that is served
};

// `now_utc_ms`: of the wall clock, by which a file that nobody writes any more is told.
folder_view look_at(const std::string& folder, int64_t now_utc_ms);
int64_t wall_clock_ms();
// Without white space; UTF-8 stays as it is.
std::string text_of(const Json::Value& value);

}  // namespace zelta::view
