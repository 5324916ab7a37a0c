// SPDX-License-Identifier: Apache-2.0
#include "edit_lists.h"

#include <algorithm>
#include <cstdio>

#include <json/json.h>

#include "av.h"
#include "plain_text.h"
#include "zelta-record/percent.h"

namespace zelta::lay {
namespace {

// A part of a file, and where it stands in the film; frames.
struct cut {
  const stretch* of = nullptr;
  int64_t source = 0;
  int64_t begin = 0;
  int64_t end = 0;
};

int64_t frames(int64_t us, int fps) {
  return av_rescale(us, fps, kSecond);
}

void add_cut(std::vector<cut>& to, const stretch& s, int64_t from_us, int64_t to_us,
             const span& what, int fps) {
  const int64_t begin_us = std::max({s.begin_us, from_us, what.from_us});
  const int64_t end_us = std::min({s.end_us, to_us, what.to_us});
  cut made;
  made.of = &s;
  // Rounded where it ends, not how long it is: cuts that follow each other meet.
  made.begin = frames(begin_us - what.from_us, fps);
  made.end = frames(end_us - what.from_us, fps);
  made.source = frames(begin_us - s.begin_us, fps);
  if (end_us > begin_us && made.end > made.begin) to.push_back(made);
}

std::string timecode(int64_t frame, int fps) {
  char text[64];
  const int64_t s = frame / fps;
  std::snprintf(text, sizeof text, "%02d:%02d:%02d:%02d", static_cast<int>(s / 3600 % 100),
                static_cast<int>(s / 60 % 60), static_cast<int>(s % 60),
                static_cast<int>(frame % fps));
  return text;
}

const char* channels_of(const stretch& s) {
  if (!s.has_sound()) return "V    ";
  return s.has_picture() ? "B    " : "A    ";
}

Json::Value schema(const char* name) {
  Json::Value made(Json::objectValue);
  made["OTIO_SCHEMA"] = name;
  return made;
}

Json::Value rational_time(int64_t frame, int fps) {
  Json::Value made = schema("RationalTime.1");
  made["value"] = static_cast<double>(frame);
  made["rate"] = static_cast<double>(fps);
  return made;
}

Json::Value time_range(int64_t start, int64_t length, int fps) {
  Json::Value made = schema("TimeRange.1");
  made["start_time"] = rational_time(start, fps);
  made["duration"] = rational_time(length, fps);
  return made;
}

Json::Value item(const char* name, const std::string& title) {
  Json::Value made = schema(name);
  made["name"] = title;
  made["metadata"] = Json::Value(Json::objectValue);
  made["effects"] = Json::Value(Json::arrayValue);
  made["markers"] = Json::Value(Json::arrayValue);
  return made;
}

Json::Value gap_item(int64_t length, int fps) {
  Json::Value made = item("Gap.1", "");
  made["source_range"] = time_range(0, length, fps);
  return made;
}

Json::Value clip_item(const cut& c, int fps) {
  Json::Value made = item("Clip.1", c.of->name);
  made["source_range"] = time_range(c.source, c.end - c.begin, fps);
  Json::Value file = schema("ExternalReference.1");
  file["target_url"] = "file://" + record::percent_encoded(c.of->path, "/");
  file["available_range"] = time_range(
      0, std::max(frames(c.of->end_us - c.of->begin_us, fps), c.source + c.end - c.begin), fps);
  file["metadata"] = Json::Value(Json::objectValue);
  made["media_reference"] = file;
  return made;
}

Json::Value track_of(const user& u, bool pictures, const span& what, int fps) {
  Json::Value made = item("Track.1", u.name);
  made["kind"] = pictures ? "Video" : "Audio";
  made["metadata"]["zelta"]["uid"] = u.uid;
  Json::Value& children = made["children"] = Json::Value(Json::arrayValue);
  std::vector<cut> cuts;
  for (const stretch& s : u.stretches) {
    if (pictures ? s.has_picture() : s.has_sound()) {
      add_cut(cuts, s, what.from_us, what.to_us, what, fps);
    }
  }
  int64_t at = 0;
  for (cut c : cuts) {
    // Two files of a user may overlap by what two clocks differ.
    const int64_t twice = std::max<int64_t>(0, at - c.begin);
    c.begin += twice;
    c.source += twice;
    if (c.end <= c.begin) continue;
    if (c.begin > at) children.append(gap_item(c.begin - at, fps));
    children.append(clip_item(c, fps));
    at = c.end;
  }
  return made;
}

std::vector<cut> cuts_of(const session& of, const std::vector<turn>& turns, const span& what,
                         int fps) {
  std::vector<cut> made;
  for (size_t i = 0; i < turns.size(); ++i) {
    const user* const u = of.find(turns[i].uid);
    if (u == nullptr) continue;
    const int64_t until_us = i + 1 < turns.size() ? turns[i + 1].begin_us : what.to_us;
    for (const stretch& s : u->stretches) {
      add_cut(made, s, turns[i].begin_us, until_us, what, fps);
    }
  }
  return made;
}

}  // namespace

edit_list edit_decision_list(const session& of, const std::vector<turn>& turns, const span& what,
                             int fps) {
  edit_list made;
  made.text = "TITLE: " + plain_text(of.channel_id) + "\nFCM: NON-DROP FRAME\n";
  for (const cut& c : cuts_of(of, turns, what, fps)) {
    const int64_t length = c.end - c.begin;
    char head[64];
    // Of a file no reel is known; the comment has its name.
    std::snprintf(head, sizeof head, "\n%03d  AX       %s C        ", ++made.events,
                  channels_of(*c.of));
    made.text += head + timecode(c.source, fps) + " " + timecode(c.source + length, fps) + " " +
                 timecode(c.begin, fps) + " " + timecode(c.end, fps) +
                 "\n* FROM CLIP NAME: " + plain_text(c.of->name) + "\n";
  }
  return made;
}

std::string open_timeline(const session& of, const span& what, int fps) {
  Json::Value tracks = item("Stack.1", "tracks");
  tracks["children"] = Json::Value(Json::arrayValue);
  for (const bool pictures : {true, false}) {
    for (const user& u : of.users) {
      if (pictures ? u.has_picture() : u.has_sound()) {
        tracks["children"].append(track_of(u, pictures, what, fps));
      }
    }
  }
  Json::Value root = schema("Timeline.1");
  root["name"] = of.channel_id;
  root["global_start_time"] = rational_time(0, fps);
  root["metadata"]["zelta"]["zero_utc_ms"] = Json::Int64((of.zero_utc_us + what.from_us) / 1000);
  root["tracks"] = tracks;
  return Json::writeString(Json::StreamWriterBuilder(), root) + "\n";
}

}  // namespace zelta::lay
