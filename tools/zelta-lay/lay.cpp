// SPDX-License-Identifier: Apache-2.0
#include "lay.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <utility>
#include <vector>

#include "edit_lists.h"
#include "exit_status.h"
#include "film_file.h"
#include "lane.h"
#include "lane_crew.h"
#include "new_file.h"
#include "recordings/volume_log.h"
#include "reporter.h"
#include "session.h"
#include "stop_signal.h"
#include "stretch_walk.h"
#include "targets.h"
#include "time_point.h"

namespace zelta::lay {
namespace {

// Bad usage that shows only once the recording is known.
struct refusal : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct job {
  const options& asked;
  reporter& tell;
  problems& found;
  session of;
  span what;
  picture_plan plan;
  std::vector<std::string> made;  // files
};

// With the only user of --track, or all.
session narrowed(const options& o, session of) {
  if (!o.track) return of;
  const user* const one = of.find(*o.track);
  if (one == nullptr) {
    std::string all;
    for (const user& u : of.users) all += (all.empty() ? "" : ", ") + std::to_string(u.uid);
    throw refusal("--track " + std::to_string(*o.track) + ": there is no such user; there are " +
                  all);
  }
  if (one->stretches.empty())
    throw refusal(one->missing.front().line + ": there is no other to lay");
  const user only = *one;
  of.users = {only};
  return of;
}

session read(const options& o, problems& found) {
  std::string error;
  auto of = read_session(o.folder, o.channel, found, error);
  if (!of) throw refusal(error);
  const std::string fault = targets_fault(o, of->recorded);
  if (!fault.empty()) throw refusal(fault);
  return narrowed(o, std::move(*of));
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
  if (asked.length_us() > kLongestUs) {
    throw refusal("the recording goes from " + time_text(all.from_us) + " to " +
                  time_text(all.to_us) + ": choose 30 days or less of it by --from and --to");
  }
  if (asked.to_us > asked.from_us) return asked;
  throw refusal("nothing lies between --from and --to; the recording goes from " +
                time_text(all.from_us) + " to " + time_text(all.to_us));
}

// Only what would have been laid is missed.
void add_missing(const options& o, const session& of, const span& what, problems& found) {
  // What stands before all others, or behind them, would have made the film longer.
  const bool from_begin = o.from.empty() || what.from_us == 0;
  const bool to_end = o.to.empty() || what.to_us == of.length_us;
  const bool sound_alone = o.audio_only && o.edl.empty() && o.otio.empty();
  for (const user& u : of.users) {
    for (const missing_file& m : u.missing) {
      if (!from_begin && m.end_us <= what.from_us) continue;
      if (!to_end && m.begin_us >= what.to_us) continue;
      if (sound_alone && !m.has_sound) continue;
      found.add(m.line);
    }
  }
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
                     [](const stretch& s) { return !s.has_sound() || s.audio_codec == "opus"; }) &&
         has_one_opus_head(u);
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
  stretch_walk walk(u, AVMEDIA_TYPE_VIDEO, j.found);
  if (!walk.open_next(j.what.from_us, j.what.from_us)) return;
  walk.seek(j.what.from_us);
  const av_ptr<AVPacket> packet = make_packet();
  if (!walk.next_packet(*packet) || packet->pts >= j.what.from_us) return;
  j.what.from_us = std::max<int64_t>(packet->pts, 0);
  j.tell.note("begins at " + time_text(j.what.from_us) +
              ", where the key frame before --from stands");
}

using lanes = std::vector<std::unique_ptr<lane>>;

// A lane of files of which none can be read is left out.
template <class Make>
void add_copied(job& j, lanes& to, Make make) {
  try {
    to.push_back(make());
  } catch (const nothing_to_copy& e) {
    j.found.add(e.what());
  }
}

lanes lanes_of_track(job& j, film_file& into) {
  const user& u = j.of.users[0];
  // What is burned in has to be encoded.
  const bool copies_pictures = can_copy_pictures(u) && !j.plan.names && !j.plan.clock;
  const bool copies_sound = can_copy_sound(u, j.asked.output);
  lanes made;
  if (u.has_picture() && !j.asked.audio_only) {
    if (copies_pictures) {
      if (j.asked.fps_asked && j.asked.edl.empty() && j.asked.otio.empty()) {
        throw refusal("--fps is for pictures that are encoded, and these are copied");
      }
      begin_with_key_frame(j, u);
      add_copied(j, made, [&] { return copied_pictures(u, j.what, into, j.found); });
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
    if (copies_sound) {
      add_copied(j, made, [&] { return copied_sound(u, j.what, into, j.found); });
    } else {
      made.push_back(encoded_sound(j.of, j.what, into, j.found));
    }
    j.tell.note(copies_sound
                    ? "sound is copied"
                    : "sound is encoded: not all of it is Opus of one kind, or .mov has no Opus");
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
  film_file into(j.asked.output, j.asked.force);
  const lanes all = j.asked.track ? lanes_of_track(j, into) : lanes_of_film(j, into);
  if (all.empty() && j.found.lines().empty()) {
    throw refusal("there is no sound to lay in " + j.asked.folder);
  }
  if (all.empty()) throw std::runtime_error(j.found.lines().back());
  into.start();
  run_lanes(all,
            [&j](int64_t reached_us) { j.tell.progress("laid", reached_us, j.what.length_us()); });
  into.finish();
  j.made.push_back(j.asked.output);
}

void write_text(job& j, const std::string& path, const std::string& text) {
  throw_if_stopped();
  new_file file(path, j.asked.force);
  file.write(text);
  file.finish();
  j.made.push_back(path);
}

void choose_speakers(job& j) {
  std::vector<std::string> errors;
  const auto noted = recordings::read_volumes(j.asked.folder, j.of.channel_id, errors);
  for (const std::string& line : errors) j.tell.note(line);
  const auto heard = [&j](int64_t done_us, int64_t all_us) {
    j.tell.progress("heard", done_us, all_us);
  };
  j.plan.turns = find_turns(measure_levels(j.of, noted, j.what, j.found, heard), j.what.from_us);
}

void carry_out(job& j) {
  if (j.plan.kind == layout_kind::speaker) choose_speakers(j);
  if (!j.asked.output.empty()) make_film(j);
  if (!j.asked.edl.empty()) {
    if (j.asked.track) j.plan.turns = {{j.what.from_us, *j.asked.track}};
    const edit_list list = edit_decision_list(j.of, j.plan.turns, j.what, j.plan.fps);
    if (list.events > kMostEvents) {
      j.tell.note(j.asked.edl + " has " + std::to_string(list.events) +
                  " events; many editors read no more than " + std::to_string(kMostEvents));
    }
    write_text(j, j.asked.edl, list.text);
  }
  if (!j.asked.otio.empty()) {
    write_text(j, j.asked.otio, open_timeline(j.of, j.what, j.plan.fps));
  }
}

int tell_stopped(reporter& tell, const std::vector<std::string>& made) {
  std::string whole;
  for (const std::string& path : made) whole.append(whole.empty() ? "" : ", ").append(path);
  tell.end(128 + stop_signal(),
           whole.empty() ? "stopped; nothing is made" : "stopped; whole is " + whole);
  return 128 + stop_signal();
}

int report(const job& j) {
  for (const std::string& line : j.found.lines()) j.tell.missing(line);
  const bool all = j.found.lines().empty();
  const size_t users = j.of.users.size();
  j.tell.end(all ? kLaid : kNotAll, time_text(j.what.length_us()) + " of " + std::to_string(users) +
                                        (users == 1 ? " user" : " users") + " from " +
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
  job j = {o, tell, found, {}, {}, {}, {}};
  try {
    j.plan = plan_of(o);
    j.of = read(o, found);
    j.what = span_of(o, j.of);
    add_missing(o, j.of, j.what, found);
    carry_out(j);
    return report(j);
  } catch (const refusal& e) {
    tell.end(kUsage, e.what());
    return kUsage;
  } catch (const stopped&) {
    return tell_stopped(tell, j.made);
  } catch (const std::exception& e) {
    // What a signal interrupts fails.
    if (stop_signal() != 0) return tell_stopped(tell, j.made);
    tell.end(kFailed, e.what());
    return kFailed;
  }
}

}  // namespace zelta::lay
