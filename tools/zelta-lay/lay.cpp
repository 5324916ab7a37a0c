// SPDX-License-Identifier: Apache-2.0
#include "lay.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "edit_lists.h"
#include "exit_status.h"
#include "film_file.h"
#include "lane.h"
#include "reporter.h"
#include "session.h"
#include "stop_signal.h"
#include "time_point.h"

namespace zelta::lay {
namespace {

// Bad usage that shows only once the recording is known.
struct refusal : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct stopped {};

struct job {
  const options& asked;
  reporter& tell;
  problems& found;
  session of;
  span what;
  picture_plan plan;
};

void check_targets(const options& o) {
  for (const std::string* const path : {&o.output, &o.edl, &o.otio}) {
    if (path->empty()) continue;
    std::error_code failed;
    if (!o.force && std::filesystem::exists(*path, failed)) {
      throw refusal(*path + " is there already; --force overwrites it");
    }
    const auto folder = std::filesystem::absolute(*path, failed).parent_path();
    if (!std::filesystem::is_directory(folder, failed)) {
      throw refusal(*path + ": " + folder.string() + " is no folder");
    }
  }
}

// --force is for films of before, never for what was recorded.
void spare_recording(const options& o, const session& of) {
  std::error_code failed;
  for (const std::string* const path : {&o.output, &o.edl, &o.otio}) {
    for (const user& u : of.users) {
      for (const stretch& s : u.stretches) {
        if (!path->empty() && std::filesystem::equivalent(*path, s.path, failed)) {
          throw refusal(*path + " is a file of the recording; name another");
        }
      }
    }
  }
}

session read(const options& o, problems& found) {
  std::string error;
  auto of = read_session(o.folder, o.channel, found, error);
  if (!of) throw refusal(error);
  if (!o.track) return std::move(*of);
  if (of->find(*o.track) == nullptr) {
    std::string all;
    for (const user& u : of->users) all += (all.empty() ? "" : ", ") + std::to_string(u.uid);
    throw refusal("--track " + std::to_string(*o.track) + ": there is no such user; there are " +
                  all);
  }
  const user only = *of->find(*o.track);
  of->users = {only};
  return std::move(*of);
}

int64_t time_of(const char* option, const std::string& text, const session& of) {
  const auto at = parse_time(text, of.zero_utc_us);
  if (!at) {
    throw refusal(std::string(option) + " " + text +
                  " should be seconds, [h:]m:s, or UTC as 2026-01-31T12:00:00Z");
  }
  return *at;
}

span span_of(const options& o, const session& of) {
  span all = {0, of.length_us};
  if (o.track) {
    const std::vector<stretch>& stretches = of.users[0].stretches;
    all = {stretches.front().begin_us, 0};
    for (const stretch& s : stretches) all.to_us = std::max(all.to_us, s.end_us);
  }
  span asked = all;
  if (!o.from.empty()) asked.from_us = time_of("--from", o.from, of);
  if (!o.to.empty()) asked.to_us = time_of("--to", o.to, of);
  asked.from_us = std::max<int64_t>(asked.from_us, 0);
  asked.to_us = std::min(asked.to_us, of.length_us);
  if (asked.to_us > asked.from_us) return asked;
  throw refusal("nothing lies between --from and --to; the recording goes from " +
                time_text(all.from_us) + " to " + time_text(all.to_us));
}

picture_plan plan_of(const options& o) {
  picture_plan made;
  made.width = o.width;
  made.height = o.height;
  made.fps = o.fps;
  made.names = o.names;
  made.clock = o.clock;
  if (o.layout == "speaker") {
    made.kind = layout_kind::speaker;
  } else if (o.layout == "side-by-side") {
    made.kind = layout_kind::side_by_side;
  } else if (o.layout != "grid") {
    std::string error;
    const auto read = file_layout(o.layout, o.width, o.height, error);
    if (!read) throw refusal("--layout should be grid, speaker, side-by-side or a file: " + error);
    made.kind = layout_kind::file;
    made.from_file = *read;
  }
  return made;
}

bool can_copy_pictures(const user& u) {
  const stretch* first = nullptr;
  for (const stretch& s : u.stretches) {
    if (!s.has_picture()) continue;
    if (first == nullptr) first = &s;
    if (s.video_codec != "h264" || s.width != first->width || s.height != first->height) {
      return false;
    }
  }
  return first != nullptr && first->width % 2 == 0 && first->height % 2 == 0;
}

bool can_copy_sound(const user& u, const std::string& path) {
  // QuickTime has no Opus that players know.
  if (std::filesystem::path(path).extension() == ".mov") return false;
  return std::all_of(u.stretches.begin(), u.stretches.end(),
                     [](const stretch& s) { return !s.has_sound() || s.audio_codec == "opus"; });
}

// The largest of a user's pictures, for those that have to be encoded at one size.
void take_size(picture_plan& plan, const user& u) {
  plan.width = plan.height = 2;
  for (const stretch& s : u.stretches) {
    if (!s.has_picture()) continue;
    plan.width = std::max(plan.width, (s.width + 1) / 2 * 2);
    plan.height = std::max(plan.height, (s.height + 1) / 2 * 2);
  }
}

// A cut that copies begins with a key frame: where the last one before --from stands.
void begin_with_key_frame(job& j, const user& u) {
  for (const stretch& s : u.stretches) {
    if (!s.has_picture() || s.begin_us >= j.what.from_us || s.end_us <= j.what.from_us) continue;
    std::string error;
    const auto reader = stream_reader::open(s.path, AVMEDIA_TYPE_VIDEO, error);
    const av_ptr<AVPacket> packet = make_packet();
    if (reader == nullptr) continue;
    reader->seek(j.what.from_us - s.begin_us);
    if (!reader->next_packet(*packet) || packet->pts == AV_NOPTS_VALUE) continue;
    const int64_t at = s.begin_us + av_rescale_q(packet->pts, reader->time_base(), kMicroseconds);
    if (at >= j.what.from_us) continue;
    j.what.from_us = at;
    j.tell.note("begins at " + time_text(at) + ", where the key frame before --from stands");
  }
}

using lanes = std::vector<std::unique_ptr<lane>>;

lanes lanes_of_track(job& j, film_file& into) {
  const user& u = j.of.users[0];
  // What is burned in has to be encoded.
  const bool copies_pictures = can_copy_pictures(u) && !j.plan.names && !j.plan.clock;
  const bool copies_sound = can_copy_sound(u, j.asked.output);
  lanes made;
  if (u.has_picture() && !j.asked.audio_only) {
    if (copies_pictures) {
      begin_with_key_frame(j, u);
      made.push_back(copied_pictures(u, j.what, into, j.found));
    } else {
      take_size(j.plan, u);
      made.push_back(encoded_pictures(j.of, j.plan, j.what, into, j.found));
    }
    j.tell.note(
        copies_pictures
            ? "pictures are copied"
            : "pictures are encoded: they change their size or codec, or something is burned in");
  }
  if (u.has_sound()) {
    made.push_back(copies_sound ? copied_sound(u, j.what, into, j.found)
                                : encoded_sound(j.of, j.what, into, j.found));
    j.tell.note(copies_sound ? "sound is copied"
                             : "sound is encoded: not all of it is Opus, or .mov has no Opus");
  }
  return made;
}

lanes lanes_of_film(job& j, film_file& into) {
  lanes made;
  const auto any = [&j](bool (user::*has)() const) {
    return std::any_of(j.of.users.begin(), j.of.users.end(),
                       [has](const user& u) { return (u.*has)(); });
  };
  if (!j.asked.audio_only && any(&user::has_picture)) {
    made.push_back(encoded_pictures(j.of, j.plan, j.what, into, j.found));
  }
  if (any(&user::has_sound)) made.push_back(encoded_sound(j.of, j.what, into, j.found));
  return made;
}

void make_film(job& j) {
  film_file into(j.asked.output);
  lanes all = j.asked.track ? lanes_of_track(j, into) : lanes_of_film(j, into);
  if (all.empty()) throw refusal("there is no sound to lay in " + j.asked.folder);
  into.start();
  while (!all.empty()) {
    if (stop_signal() != 0) throw stopped();
    // In the order of time, so that the muxer has little to hold.
    const auto last = std::min_element(all.begin(), all.end(), [](const auto& a, const auto& b) {
      return a->reached_us() < b->reached_us();
    });
    j.tell.progress((*last)->reached_us(), j.what.length_us());
    if (!(*last)->advance()) all.erase(last);
  }
  into.finish();
}

void write_text(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  if (!file) throw std::runtime_error(path + " can't be written");
}

void carry_out(job& j) {
  if (j.plan.kind == layout_kind::speaker) {
    j.plan.turns =
        find_turns(measure_levels(j.of, j.what.from_us, j.what.to_us, j.found), j.what.from_us);
  }
  if (!j.asked.output.empty()) make_film(j);
  if (!j.asked.edl.empty()) {
    if (j.asked.track) j.plan.turns = {{j.what.from_us, *j.asked.track}};
    write_text(j.asked.edl, edit_decision_list(j.of, j.plan.turns, j.what, j.plan.fps));
  }
  if (!j.asked.otio.empty()) {
    write_text(j.asked.otio, open_timeline(j.of, j.what, j.plan.fps));
  }
}

int report(const job& j) {
  for (const std::string& line : j.found.lines()) j.tell.missing(line);
  const bool all = j.found.lines().empty();
  j.tell.end(all ? kLaid : kNotAll, time_text(j.what.length_us()) + " of " +
                                        std::to_string(j.of.users.size()) + " users from " +
                                        time_text(j.what.from_us) + " on" +
                                        (all ? "" : ", without the above"));
  return all ? kLaid : kNotAll;
}

}  // namespace

int lay(const options& o) {
  // Broken media is told once, by us.
  av_log_set_level(AV_LOG_QUIET);
  reporter tell(o.json);
  problems found;
  try {
    check_targets(o);
    job j = {o, tell, found, read(o, found), {}, plan_of(o)};
    spare_recording(o, j.of);
    j.what = span_of(o, j.of);
    carry_out(j);
    return report(j);
  } catch (const refusal& e) {
    tell.end(kUsage, e.what());
    return kUsage;
  } catch (const stopped&) {
    tell.end(128 + stop_signal(), "stopped; there is no film");
    return 128 + stop_signal();
  } catch (const std::exception& e) {
    tell.end(kFailed, e.what());
    return kFailed;
  }
}

}  // namespace zelta::lay
