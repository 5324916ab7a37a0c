// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/file_series.h"

#include <algorithm>
#include <utility>

#include <unistd.h>

#include "core_service/folder/file_name.h"

namespace zelta::core_service::files {
namespace {

using namespace media;
using namespace std::chrono_literals;

// Sound is recorded by itself when no picture has come for so long.
constexpr media_time kFirstPicturePatience = 3s;
constexpr media_time kPicturePatience = 2s;
// A gap in sound is filled once it is this old: what is late until then is still in time.
constexpr media_time kSoundPatience = 1s;
// A picture is decoded from packets, which takes a little longer than sound does.
constexpr media_time kPictureDelay = 100ms;
// A folder that takes no file will not take the next one either.
constexpr int kFailureLimit = 3;

const char* ending_of(container kind) {
  switch (kind) {
    case container::kMp4:
      return ".mp4";
    case container::kM4a:
      return ".m4a";
    case container::kWebm:
      return ".webm";
  }
  return "";
}

}  // namespace

// Packets of one stretch of Opus, on the loop's thread like everything here.
class file_series::opus_intake : public opus_sink {
 public:
  opus_intake(file_series& series, int stretch) : series_(series), stretch_(stretch) {}
  void on_sound(const encoded_unit& unit) override {
    series_.on_sound(series_.opus_samples_.of(unit), stretch_);
  }
  // Later, because who cuts is not done yet.
  void on_sound_end() override {
    series_.poster_.post([series = &series_, number = stretch_] { series->on_sound_end(number); });
  }

 private:
  file_series& series_;
  const int stretch_;
};

file_series::file_series(series_plan plan, surroundings around, events told)
    : plan_(std::move(plan)),
      around_(std::move(around)),
      told_(std::move(told)),
      poster_(around_.loop),
      video_expected_(plan_.video),
      sound_expected_(plan_.sound) {
  if (plan_.sound)
    line_.emplace(static_cast<size_t>(plan_.channels), plan_.longest_gap, kFileBlock);
}

file_series::~file_series() = default;

void file_series::start() {
  if (recording_) return;
  if (ending_) {
    fill_sound(ending_->at);
    if (current_ != nullptr) cut(ending_->at, ending_->why);
    ending_.reset();
  }
  recording_ = true;
  has_pictures_ = false;
  started_ = now();
  if (plan_.video) told_.need_key_frame();
}

// ---- Video ---------------------------------------------------------------------------------

void file_series::on_video(const media_sample& sample, const codec& kind) {
  const bool ends = ending_ && sample.time >= ending_->at;
  if (!plan_.video || ends || (!recording_ && !ending_)) return;
  // What was captured before the start may arrive after it.
  if (current_ == nullptr && sample.time < started_) return;
  if (waits_for_key(sample)) return told_.need_key_frame();
  if (recording_ && (current_ == nullptr || is_new_file(sample))) open_with_video(sample, kind);
  // While it ends, nothing new begins.
  if (current_ == nullptr || (!recording_ && is_new_file(sample))) return;
  current_->file->write(media_kind::kVideo, sample);
  has_pictures_ = true;
  last_video_end_ = std::max(last_video_end_, sample.end());
  route_sound();
}

bool file_series::waits_for_key(const media_sample& sample) const {
  if (sample.key) return false;
  return current_ == nullptr || !current_->holds.video ||
         gst_caps_is_equal(current_->video_caps.get(), sample.caps.get()) == FALSE;
}

// The sample is a key frame or goes on with what was there.
bool file_series::is_new_file(const media_sample& sample) const {
  if (!sample.key) return false;
  const bool full = plan_.chunk > 0s && sample.time - current_->begin >= plan_.chunk;
  return full || !current_->holds.video ||
         gst_caps_is_equal(current_->video_caps.get(), sample.caps.get()) == FALSE;
}

void file_series::open_with_video(const media_sample& sample, const codec& kind) {
  const container form = kind.kept == storage::kWebm ? container::kWebm : container::kMp4;
  media_time begin = sample.time;
  if (current_ != nullptr) {
    const bool full = current_->holds.video &&
                      gst_caps_is_equal(current_->video_caps.get(), sample.caps.get()) != FALSE;
    cut(begin, full                    ? end_reason::kChunkFull
               : current_->holds.video ? end_reason::kPictureChanged
                                       : end_reason::kPictureCame);
  } else if (plan_.sound) {
    // Sound that was there before the first picture belongs to the file.
    const auto heard = first_kept();
    if (heard && *heard < begin) begin = std::max(*heard, std::min(started_, begin));
  }
  open(begin, {form, true, sound_expected_}, &sample, &kind);
}

// ---- Files ---------------------------------------------------------------------------------

void file_series::open(media_time begin, const media_file::contents& holds,
                       const media_sample* video, const codec* kind) {
  open_file& of = files_.emplace_back();
  of.holds = holds;
  of.begin = begin;
  of.video = kind;
  if (video != nullptr) of.video_caps.reset(gst_caps_ref(video->caps.get()));
  const std::string name =
      claim_file(around_.folder, plan_.prefix, utc_ms_of(begin), ending_of(holds.kind));
  of.file = std::make_unique<media_file>(
      around_.folder + name, holds, around_.loop, around_.disk,
      [this, which = &of](const std::string& why, bool disk) { on_done(which, why, disk); });
  std::string error;
  std::shared_ptr<sound_encoder> encoder;
  const sound_way way = way_in(holds.kind);
  const bool switches = holds.sound && (!sound_position() || way_ != way);
  const bool encodes = switches && way != sound_way::kAsItCame;
  if (switches) ++stretch_;
  if (encodes) encoder = make_encoder(way, error);
  if (encodes && !encoder) {
    files_.pop_back();
    unlink((around_.folder + name).c_str());
    recording_ = false;
    around_.log.error("can't be recorded: " + error);
    return told_.failed(error, false);
  }
  manifest_file entry;
  entry.name = name;
  entry.uid = plan_.uid;
  // Until the first media has come back from the file's own thread, and for good when the recorder
  // dies before.
  entry.first_utc_ms = entry.last_utc_ms = utc_ms_of(begin);
  of.entry = around_.files.add(entry);
  current_ = &of;
  of.stretch = stretch_;
  of.sound = way == sound_way::kAac ? "aac" : "opus";
  if (switches) begin_sound(begin, way, std::move(encoder));
  update_manifest();
  around_.files.changed();
}

// For the present file. The line's former stretch, if there is one, ends here.
void file_series::begin_sound(media_time begin, sound_way way,
                              std::shared_ptr<sound_encoder> encoder) {
  way_ = way;
  if (!sound_position()) {
    if (!opus_) return line_->start(begin, std::move(encoder));
    return opus_->start(begin, std::make_shared<opus_intake>(*this, stretch_));
  }
  // The former encoder's sound has nowhere else to go.
  for (open_file& former : files_) {
    if (former.finishing) former.end = media_time::max();
  }
  line_->cut(begin, std::move(encoder));
}

// What comes later than `at` goes elsewhere.
void file_series::cut(media_time at, const recording_end& why) {
  current_->end = at;
  current_->why = why;
  current_->finishing = true;
  current_->sound_done = current_->sound_done || !current_->holds.sound;
  current_ = nullptr;
  finish_complete();
}

void file_series::finish_complete() {
  for (open_file& of : files_) {
    if (of.finishing && of.sound_done && !abandoned_) of.file->finish();
  }
}

void file_series::abandon() {
  if (std::exchange(abandoned_, true)) return;
  recording_ = false;
  for (open_file& of : files_) of.file->abandon();
}

void file_series::on_done(open_file* which, const std::string& error, bool disk) {
  enter(*which);
  if (which->file->empty()) {
    // A file without media only puzzles whoever finds it.
    unlink((around_.folder + around_.files.at(which->entry).name).c_str());
    around_.files.remove(which->entry);
  } else {
    const std::string why = text_of(which->why);
    around_.files.at(which->entry).closed = error.empty() ? why : why + ": " + error;
  }
  if (current_ == which) current_ = nullptr;
  files_.remove_if([which](const open_file& of) { return &of == which; });
  around_.files.changed();
  if (!error.empty()) {
    around_.log.error("a file ended: " + error);
    if (++failures_ >= kFailureLimit) recording_ = false;
    told_.failed(error, disk);
  }
  poster_.post([this] { report_stopped(); });
}

void file_series::report_stopped() {
  if (!ending_ || !files_.empty()) return;
  ending_.reset();
  told_.stopped();
}

// ---- Sound ---------------------------------------------------------------------------------

file_series::sound_way file_series::way_in(container kind) const {
  if (opus_) return sound_way::kAsItCame;
  return kind == container::kWebm ? sound_way::kOpus : sound_way::kAac;
}

// Of the stretch that begins.
std::shared_ptr<sound_encoder> file_series::make_encoder(sound_way way, std::string& error) {
  const int number = stretch_;
  auto made = sound_encoder::make(
      {way == sound_way::kOpus ? sound_codec::kOpus : sound_codec::kAac, plan_.channels,
       plan_.sound_bits_per_second},
      {[this, number](media_sample sample) {
         const auto shared = std::make_shared<media_sample>(std::move(sample));
         poster_.post([this, shared, number] { on_sound(std::move(*shared), number); });
       },
       [this, number] { poster_.post([this, number] { on_sound_end(number); }); }},
      error);
  if (!made) around_.log.error("no sound: " + error);
  // The line lets go of it at the cut, when its last sound is still inside.
  if (made) encoders_[number] = made;
  return made;
}

void file_series::on_opus(const encoded_unit& unit) {
  if (opus_) opus_->push(unit.time, unit.bytes);
}

// A file holds sound of one kind: where there is some already, the rest goes into another one.
void file_series::expect_sound(const format_ptr& opus, media_time at) {
  const bool same = opus && opus_ ? *opus == *opus_format_ : !opus && !opus_;
  if (!plan_.sound || same) return;
  // What waits for a first picture doesn't any more.
  if (recording_ && current_ == nullptr) open_sound_alone();
  // Behind every cut that has been planned, so that it is the one that ends the stretch.
  if (ending_) at = std::max(at, ending_->at);
  if (current_ != nullptr) at = std::max(at, current_->begin);
  const bool open_stretch = sound_position().has_value();
  const bool goes_on = open_stretch && recording_ && current_ != nullptr && current_->holds.sound;
  if (open_stretch) {
    end_sound(at);
    fill_sound(at);
  }
  opus_format_ = opus;
  opus_.reset();
  if (opus) opus_.emplace(opus);
  if (!goes_on) return;
  const bool picture = current_->holds.video;
  cut(at, end_reason::kSoundChanged);
  open(at, {container::kM4a, false, true}, nullptr, nullptr);
  if (picture) told_.need_key_frame();
}

std::optional<media_time> file_series::first_kept() const {
  if (opus_) return opus_->first_kept();
  return line_ ? line_->first_kept() : std::nullopt;
}

std::optional<media_time> file_series::last_heard() const {
  if (opus_) return opus_->last_heard();
  return line_ ? line_->last_heard() : std::nullopt;
}

std::optional<media_time> file_series::sound_position() const {
  if (opus_) return opus_->position();
  return line_ ? line_->position() : std::nullopt;
}

void file_series::fill_sound(media_time until) {
  if (opus_) return opus_->fill_to(until);
  if (line_) line_->fill_to(until);
}

void file_series::end_sound(media_time at) {
  if (opus_) return opus_->cut(at, nullptr);
  if (line_) line_->cut(at, nullptr);
}

// Picture and sound come by ways of different length. Sound waits until the picture has come as
// far, so that it is known by then which file it belongs to.
void file_series::on_sound(media_sample sample, int stretch) {
  waiting_sound_.push_back({std::move(sample), stretch});
  route_sound();
}

void file_series::route_sound() {
  const bool with_picture = current_ != nullptr && current_->holds.video;
  // A picture that comes back stands a jitter buffer behind the sound.
  const bool may_come = !with_picture && recording_ && video_expected_;
  const media_time heard = now() - plan_.lateness;
  const media_time reached = with_picture ? std::max(last_video_end_, heard - kSoundPatience)
                             : may_come   ? heard - kPictureDelay
                                          : media_time::max();
  while (!waiting_sound_.empty() && waiting_sound_.front().sample.time < reached) {
    const waiting_sound next = std::move(waiting_sound_.front());
    waiting_sound_.pop_front();
    route(next);
  }
  finish_complete();
}

void file_series::route(const waiting_sound& next) {
  for (open_file& of : files_) {
    if (!of.holds.sound || of.sound_done || of.stretch != next.stretch) continue;
    const bool full = &of == current_ && recording_ && !of.holds.video && plan_.chunk > 0s &&
                      next.sample.time - of.begin >= plan_.chunk;
    if (full) {
      cut(next.sample.time, end_reason::kChunkFull);
      open(next.sample.time, of.holds, nullptr, nullptr);
      return route(next);
    }
    if (of.finishing && next.sample.time >= of.end) {
      of.sound_done = true;
      continue;
    }
    of.file->write(media_kind::kAudio, next.sample);
    last_sound_end_ = std::max(last_sound_end_, next.sample.end());
    return;
  }
}

void file_series::on_sound_end(int stretch) {
  // The next stretch may have come by a shorter way.
  const auto later =
      std::stable_partition(waiting_sound_.begin(), waiting_sound_.end(),
                            [stretch](const waiting_sound& one) { return one.stretch <= stretch; });
  std::deque<waiting_sound> last(std::make_move_iterator(waiting_sound_.begin()),
                                 std::make_move_iterator(later));
  waiting_sound_.erase(waiting_sound_.begin(), later);
  for (const waiting_sound& one : last) route(one);
  encoders_.erase(stretch);
  for (open_file& of : files_) {
    if (of.stretch == stretch) of.sound_done = true;
  }
  finish_complete();
}

// ---- Time ----------------------------------------------------------------------------------

void file_series::tick() {
  const media_time at = now() - plan_.lateness;
  if (ending_) return tick_stop();
  if (recording_) tick_silence(at);
}

void file_series::tick_silence(media_time at) {
  if (plan_.sound && current_ == nullptr) {
    const auto first = first_kept();
    const auto last = last_heard();
    const bool heard = first && last && *last > started_;
    if (heard && (!video_expected_ || at - std::max(*first, started_) > kFirstPicturePatience)) {
      open_sound_alone();
    }
  }
  fill_sound(at - kSoundPatience);
  route_sound();
  const bool waits = current_ != nullptr && current_->holds.video && current_->holds.sound &&
                     at - std::max(last_video_end_, current_->begin) > kPicturePatience;
  if (!waits) return;
  const media_time from = std::max(last_video_end_, sound_position().value_or(last_sound_end_));
  cut(from, end_reason::kPictureStopped);
  open(from, {container::kM4a, false, true}, nullptr, nullptr);
}

void file_series::open_sound_alone() {
  const auto first = first_kept();
  if (!first || *last_heard() <= started_) return;
  open(std::max(*first, started_), {container::kM4a, false, true}, nullptr, nullptr);
}

void file_series::stop(const recording_end& why, media_time at, media_time patience) {
  if (ending_) return;
  if (recording_ && current_ == nullptr && plan_.sound) open_sound_alone();
  recording_ = false;
  ending_ = ending{why, at, now() + patience};
  end_sound(at);
  if (current_ != nullptr) {
    current_->end = at;
    current_->why = why;
  }
  if (patience <= 0s) tick_stop();
  poster_.post([this] { report_stopped(); });
}

void file_series::tick_stop() {
  const bool sound_there = !sound_position();
  const bool video_there = !plan_.video || last_video_end_ >= ending_->at;
  if (!(sound_there && video_there) && now() < ending_->deadline) return;
  fill_sound(ending_->at);
  if (current_ != nullptr) cut(ending_->at, ending_->why);
}

// ---- The manifest --------------------------------------------------------------------------

void file_series::update_manifest() {
  for (open_file& of : files_) enter(of);
}

void file_series::enter(open_file& of) {
  manifest_file& entry = around_.files.at(of.entry);
  entry.kind = !of.holds.video ? "audio" : of.holds.sound ? "audio_video" : "video";
  if (of.holds.sound) entry.audio_codec = of.sound;
  if (of.video != nullptr) {
    entry.video_codec = of.video->name;
    const GstStructure* const fields = gst_caps_get_structure(of.video_caps.get(), 0);
    gst_structure_get_int(fields, "width", &entry.width);
    gst_structure_get_int(fields, "height", &entry.height);
  }
  if (of.file->empty()) return;
  entry.first_utc_ms = utc_ms_of(of.file->first());
  entry.last_utc_ms = utc_ms_of(of.file->last());
}

}  // namespace zelta::core_service::files
