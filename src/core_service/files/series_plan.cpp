// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/series_plan.h"

#include <algorithm>
#include <utility>

namespace zelta::core_service::files {
namespace {

using namespace std::chrono_literals;
using media::media_time;

// Sound is recorded by itself when no picture has come for so long.
constexpr media_time kFirstPicturePatience = 3s;
constexpr media_time kPicturePatience = 2s;
// A gap in sound is filled once it is this old: what is late until then is still in time.
constexpr media_time kSoundPatience = 1s;
// A picture is decoded from packets, which takes a little longer than sound does.
constexpr media_time kPictureDelay = 100ms;
// A folder that takes no file will not take the next one either.
constexpr int kFailureLimit = 3;

constexpr int kNoFormat = 0;
constexpr file_contents kSoundAlone{container::kM4a, false, true};

}  // namespace

// ---- Start and stop ------------------------------------------------------------------------

void series_plan::start(media_time now) {
  if (recording()) return;
  if (phase_ == phase::kEnding) end_present_file();
  // A stretch that has lost its file would be taken for that of the next one, and end inside it.
  if (const auto position = does_.sound_position()) {
    does_.end_sound(*position);
    does_.fill_sound(std::max(*position, ending_.at));
  }
  phase_ = phase::kRecording;
  has_pictures_ = false;
  started_ = now;
  if (rules_.video) does_.need_key_frame();
}

void series_plan::stop(const recording_end& why, media_time at, media_time now,
                       media_time patience) {
  if (phase_ == phase::kEnding) return;
  if (recording() && current_ == nullptr && rules_.sound) open_sound_alone();
  phase_ = phase::kEnding;
  ending_ = {why, at, now + patience};
  does_.end_sound(at);
  if (current_ != nullptr) does_.cut(current_->number, at, why);
  if (patience <= 0s) tick_stop(now);
}

void series_plan::tick_stop(media_time now) {
  const bool sound_there = !does_.sound_position();
  const bool video_there = !rules_.video || last_video_end_ >= ending_.at;
  if (!(sound_there && video_there) && now < ending_.deadline) return;
  end_present_file();
}

// What was captured before the end has come, or is not waited for any more.
void series_plan::end_present_file() {
  does_.fill_sound(ending_.at);
  if (current_ != nullptr) close(ending_.at);
}

void series_plan::abandon() {
  if (std::exchange(abandoned_, true)) return;
  if (recording()) phase_ = phase::kIdle;
  does_.abandon_files();
}

void series_plan::on_file_end(int file, bool failed) {
  if (current_ != nullptr && current_->number == file) current_ = nullptr;
  files_.remove_if([file](const auto& of) { return of.number == file; });
  if (failed && ++failures_ >= kFailureLimit && recording()) phase_ = phase::kIdle;
}

void series_plan::tell_if_stopped() {
  if (phase_ != phase::kEnding || !files_.empty()) return;
  phase_ = phase::kIdle;
  does_.stopped();
}

void series_plan::expect(bool video, bool sound) {
  video_expected_ = rules_.video && video;
  sound_expected_ = rules_.sound && sound;
}

// ---- Video ---------------------------------------------------------------------------------

void series_plan::on_video(const picture& told, media_time now) {
  const bool ends = phase_ == phase::kEnding && told.time >= ending_.at;
  if (!rules_.video || ends || phase_ == phase::kIdle) return;
  // What was captured before the start may arrive after it.
  if (current_ == nullptr && told.time < started_) return;
  if (waits_for_key(told)) return does_.need_key_frame();
  if (recording() && (current_ == nullptr || is_new_file(told))) open_with_video(told);
  // While it ends, nothing new begins.
  if (current_ == nullptr || (!recording() && is_new_file(told))) return;
  does_.write_picture(current_->number);
  has_pictures_ = true;
  last_video_end_ = std::max(last_video_end_, told.end);
  route_sound(now);
}

bool series_plan::goes_on_with(const picture& told) const {
  return current_->holds.video && current_->format == told.format;
}

bool series_plan::waits_for_key(const picture& told) const {
  if (told.key) return false;
  return current_ == nullptr || !goes_on_with(told);
}

// The picture is a key frame or goes on with what was there.
bool series_plan::is_new_file(const picture& told) const {
  if (!told.key) return false;
  const bool full = rules_.chunk > 0s && told.time - current_->begin >= rules_.chunk;
  return full || !goes_on_with(told);
}

void series_plan::open_with_video(const picture& told) {
  media_time begin = told.time;
  if (current_ != nullptr) {
    cut(begin, goes_on_with(told)      ? end_reason::kChunkFull
               : current_->holds.video ? end_reason::kPictureChanged
                                       : end_reason::kPictureCame);
  } else if (rules_.sound) {
    // Sound that was there before the first picture belongs to the file.
    const auto heard = does_.first_kept();
    if (heard && *heard < begin) begin = std::max(*heard, std::min(started_, begin));
  }
  open(begin, {told.kept_in, true, sound_expected_}, told.format);
}

// ---- Files ---------------------------------------------------------------------------------

void series_plan::open(media_time begin, const file_contents& holds, int format) {
  const sound_way way = way_in(holds.kind);
  const bool is_continued = does_.sound_position().has_value();
  const bool switches = holds.sound && !(is_continued && way_ == way);
  if (switches) ++stretch_;
  planned_file& of =
      files_.emplace_back(planned_file{++last_number_, holds, begin, format, stretch_});
  // Sound that was kept may come from inside, and fill the file.
  current_ = &of;
  const auto former_way = std::exchange(way_, switches ? way : way_);
  if (!does_.open({of.number, holds, begin, format, stretch_, way, switches})) {
    way_ = former_way;
    current_ = nullptr;
    files_.pop_back();
    phase_ = phase::kIdle;
    return;
  }
  if (!switches || !is_continued) return;
  // What was encoded of the former stretch has nowhere else to go.
  for (planned_file& former : files_) {
    if (&former != current_) former.end = media_time::max();
  }
}

// What comes later than `at` goes elsewhere.
void series_plan::cut(media_time at, const recording_end& why) {
  does_.cut(current_->number, at, why);
  close(at);
}

void series_plan::close(media_time at) {
  current_->end = at;
  current_->now = standing::kCut;
  current_->sound_done = current_->sound_done || !current_->holds.sound;
  current_ = nullptr;
  finish_complete();
}

void series_plan::finish_complete() {
  if (abandoned_) return;
  for (planned_file& of : files_) {
    if (of.now != standing::kCut || !of.sound_done) continue;
    of.now = standing::kFinishing;
    does_.finish(of.number);
  }
}

// ---- Sound ---------------------------------------------------------------------------------

series_plan::sound_way series_plan::way_in(container kind) const {
  if (as_it_comes_) return sound_way::kAsItCame;
  return kind == container::kWebm ? sound_way::kOpus : sound_way::kAac;
}

// A file holds sound of one kind: where there is some already, the rest goes into another one.
void series_plan::expect_sound(bool as_it_comes, media_time from) {
  if (!rules_.sound) return;
  // What waits for a first picture doesn't any more.
  if (recording() && current_ == nullptr) open_sound_alone();
  // Behind every cut that has been planned, so that it is the one that ends the stretch.
  if (phase_ == phase::kEnding) from = std::max(from, ending_.at);
  if (current_ != nullptr) from = std::max(from, current_->begin);
  const bool is_open = does_.sound_position().has_value();
  const bool goes_on = is_open && recording() && current_ != nullptr && current_->holds.sound;
  if (is_open) {
    does_.end_sound(from);
    does_.fill_sound(from);
  }
  as_it_comes_ = as_it_comes;
  does_.change_sound();
  // Sound that comes out meanwhile may have ended the file.
  if (!goes_on || current_ == nullptr) return;
  const bool has_picture = current_->holds.video;
  cut(from, end_reason::kSoundChanged);
  open(from, kSoundAlone, kNoFormat);
  if (has_picture) does_.need_key_frame();
}

void series_plan::open_sound_alone() {
  const auto first = does_.first_kept();
  if (!first || *does_.last_heard() <= started_) return;
  open(std::max(*first, started_), kSoundAlone, kNoFormat);
}

void series_plan::on_sound(media_time now) {
  route_sound(now);
}

// Picture and sound come by ways of different length. Sound waits until the picture has come as
// far, so that it is known by then which file it belongs to.
void series_plan::route_sound(media_time now) {
  const bool with_picture = current_ != nullptr && current_->holds.video;
  // A picture that comes back stands a jitter buffer behind the sound.
  const bool may_come = !with_picture && recording() && video_expected_;
  const media_time heard = now - rules_.lateness;
  does_.let_sound_go(with_picture ? std::max(last_video_end_, heard - kSoundPatience)
                     : may_come   ? heard - kPictureDelay
                                  : media_time::max());
  finish_complete();
}

int series_plan::place(const packet& next) {
  for (planned_file& of : files_) {
    if (!of.holds.sound || of.sound_done || of.stretch != next.stretch) continue;
    const bool full = &of == current_ && recording() && !of.holds.video && rules_.chunk > 0s &&
                      next.time - of.begin >= rules_.chunk;
    if (full) {
      cut(next.time, end_reason::kChunkFull);
      open(next.time, of.holds, kNoFormat);
      return place(next);
    }
    if (of.now != standing::kPresent && next.time >= of.end) {
      of.sound_done = true;
      continue;
    }
    last_sound_end_ = std::max(last_sound_end_, next.end);
    return of.number;
  }
  return 0;
}

void series_plan::on_sound_end(int stretch) {
  // The next stretch may have come by a shorter way.
  does_.let_stretch_go(stretch);
  for (planned_file& of : files_) {
    if (of.stretch == stretch) of.sound_done = true;
  }
  finish_complete();
}

// ---- Time ----------------------------------------------------------------------------------

void series_plan::tick(media_time now) {
  if (phase_ == phase::kEnding) return tick_stop(now);
  if (recording()) tick_silence(now);
}

void series_plan::tick_silence(media_time now) {
  const media_time at = now - rules_.lateness;
  const auto position = does_.sound_position();
  if (position && current_ == nullptr) {
    // The file that it went into has failed. A picture that comes takes it along; the sound until
    // then has nowhere to go.
    const bool may_come = video_expected_ && at - last_video_end_ <= kPicturePatience;
    if (!may_come) open(*position, kSoundAlone, kNoFormat);
  } else if (rules_.sound && current_ == nullptr) {
    const auto first = does_.first_kept();
    const auto last = does_.last_heard();
    const bool heard = first && last && *last > started_;
    if (heard && (!video_expected_ || at - std::max(*first, started_) > kFirstPicturePatience)) {
      open_sound_alone();
    }
  }
  does_.fill_sound(at - kSoundPatience);
  route_sound(now);
  const bool waits = current_ != nullptr && current_->holds.video && current_->holds.sound &&
                     at - std::max(last_video_end_, current_->begin) > kPicturePatience;
  if (!waits) return;
  const media_time from =
      std::max(last_video_end_, does_.sound_position().value_or(last_sound_end_));
  cut(from, end_reason::kPictureStopped);
  open(from, kSoundAlone, kNoFormat);
}

}  // namespace zelta::core_service::files
