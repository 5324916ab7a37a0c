// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/file_series.h"

#include <algorithm>
#include <utility>

#include <unistd.h>

#include "core_service/folder/file_name.h"

namespace zelta::core_service::files {
namespace {

using namespace media;

using sound_way = series_plan::sound_way;

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

file_series::file_series(series_settings settings, destination to, events told)
    : settings_(std::move(settings)),
      destination_(std::move(to)),
      events_(std::move(told)),
      poster_(destination_.loop),
      plan_({settings_.video, settings_.sound, settings_.chunk, settings_.lateness}, *this) {
  if (settings_.sound) {
    line_.emplace(static_cast<size_t>(settings_.channels), settings_.longest_gap, kFileBlock);
  }
}

file_series::~file_series() = default;

// ---- What the plan is told -----------------------------------------------------------------

void file_series::start() {
  plan_.start(now());
}

void file_series::stop(const recording_end& why, media_time at, media_time patience) {
  plan_.stop(why, at, now(), patience);
  poster_.post([this] { plan_.tell_if_stopped(); });
}

void file_series::abandon() {
  plan_.abandon();
}

void file_series::tick() {
  plan_.tick(now());
}

void file_series::on_video(const media_sample& sample, const codec& kind) {
  picture_ = &sample;
  picture_kind_ = &kind;
  const bool same = video_caps_ && sample.caps &&
                    gst_caps_is_equal(video_caps_.get(), sample.caps.get()) != FALSE;
  plan_.on_video({sample.time, sample.end(), sample.key, same ? video_format_ : video_format_ + 1,
                  kind.kept == storage::kWebm ? container::kWebm : container::kMp4},
                 now());
}

void file_series::on_opus(const encoded_unit& unit) {
  if (opus_) opus_->push(unit.time, unit.bytes, unit.after_loss);
}

void file_series::expect_sound(const format_ptr& opus, media_time from) {
  const bool same = opus && opus_ ? *opus == *opus_format_ : !opus && !opus_;
  if (same) return;
  expected_opus_ = opus;
  plan_.expect_sound(opus != nullptr, from);
}

void file_series::on_sound(media_sample sample, int stretch) {
  waiting_sound_.push_back({std::move(sample), stretch});
  plan_.on_sound(now());
}

void file_series::on_sound_end(int stretch) {
  plan_.on_sound_end(stretch);
  encoders_.erase(stretch);
}

void file_series::on_done(int file, const std::string& error, bool disk) {
  const open_file& of = files_.at(file);
  if (of.file->empty()) {
    // A file without media only puzzles whoever finds it.
    unlink(of.path.c_str());
    destination_.ledger.dropped(of.number);
  } else {
    tell_progress(of);
    const std::string why = text_of(of.why);
    destination_.ledger.closed(of.number,
                               {error.empty() ? why : why + ": " + error, of.file->crc32()});
  }
  files_.erase(file);
  plan_.on_file_end(file, !error.empty());
  if (!error.empty()) {
    destination_.log.error("a file ended: " + error);
    events_.failed(error, disk);
  }
  poster_.post([this] { plan_.tell_if_stopped(); });
}

// ---- Files ---------------------------------------------------------------------------------

bool file_series::open(const series_plan::new_file& wanted) {
  open_file& of = files_[wanted.number];
  of.holds = wanted.holds;
  const std::string name = claim_file(destination_.folder, settings_.prefix,
                                      utc_ms_of(wanted.begin), ending_of(wanted.holds.kind));
  of.path = destination_.folder + name;
  of.file =
      std::make_unique<media_file>(of.path, wanted.holds, destination_.loop, destination_.disk,
                                   [this, file = wanted.number](const std::string& why, bool disk) {
                                     on_done(file, why, disk);
                                   });
  const bool encodes = wanted.begins_stretch && wanted.way != sound_way::kAsItCame;
  std::string error;
  std::shared_ptr<sound_encoder> encoder = encodes ? make_encoder(wanted, error) : nullptr;
  if (encodes && !encoder) {
    unlink(of.path.c_str());
    files_.erase(wanted.number);
    destination_.log.error("can't be recorded: " + error);
    events_.failed(error, false);
    return false;
  }
  if (wanted.holds.video) {
    of.video = picture_kind_;
    of.video_caps.reset(gst_caps_ref(picture_->caps.get()));
    video_caps_.reset(gst_caps_ref(picture_->caps.get()));
    video_format_ = wanted.format;
  }
  of.sound = wanted.way == sound_way::kAac ? "aac" : "opus";
  of.begin_utc_ms = utc_ms_of(wanted.begin);
  of.number = destination_.ledger.opened({name, settings_.uid, of.begin_utc_ms});
  if (wanted.begins_stretch) begin_sound(wanted, std::move(encoder));
  tell_progress(of);
  return true;
}

void file_series::cut(int file, media_time /*at*/, const recording_end& why) {
  files_.at(file).why = why;
}

void file_series::finish(int file) {
  files_.at(file).file->finish();
}

void file_series::abandon_files() {
  for (auto& [number, of] : files_) of.file->abandon();
}

void file_series::write_picture(int file) {
  files_.at(file).file->write(media_kind::kVideo, *picture_);
}

void file_series::need_key_frame() {
  events_.need_key_frame();
}

void file_series::stopped() {
  events_.stopped();
}

// ---- Sound ---------------------------------------------------------------------------------

std::shared_ptr<sound_encoder> file_series::make_encoder(const series_plan::new_file& wanted,
                                                         std::string& error) {
  const int number = wanted.stretch;
  auto made = sound_encoder::make(
      {wanted.way == sound_way::kOpus ? sound_codec::kOpus : sound_codec::kAac, settings_.channels,
       settings_.sound_bits_per_second},
      {[this, number](media_sample sample) {
         const auto shared = std::make_shared<media_sample>(std::move(sample));
         poster_.post([this, shared, number] { on_sound(std::move(*shared), number); });
       },
       [this, number] { poster_.post([this, number] { on_sound_end(number); }); }},
      error);
  if (!made) destination_.log.error("no sound: " + error);
  // The line lets go of it at the cut, when its last sound is still inside.
  if (made) encoders_[number] = made;
  return made;
}

// The line's former stretch, if there is one, ends here.
void file_series::begin_sound(const series_plan::new_file& wanted,
                              std::shared_ptr<sound_encoder> encoder) {
  if (sound_position()) return line_->cut(wanted.begin, std::move(encoder));
  if (!opus_) return line_->start(wanted.begin, std::move(encoder));
  opus_->start(wanted.begin, std::make_shared<opus_intake>(*this, wanted.stretch));
}

void file_series::change_sound() {
  opus_format_ = expected_opus_;
  opus_.reset();
  if (opus_format_) opus_.emplace(opus_format_);
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

void file_series::let_sound_go(media_time until) {
  while (!waiting_sound_.empty() && waiting_sound_.front().sample.time < until) {
    const waiting_sound next = std::move(waiting_sound_.front());
    waiting_sound_.pop_front();
    write_sound(next);
  }
}

void file_series::let_stretch_go(int stretch) {
  const auto later =
      std::stable_partition(waiting_sound_.begin(), waiting_sound_.end(),
                            [stretch](const waiting_sound& one) { return one.stretch <= stretch; });
  std::deque<waiting_sound> last(std::make_move_iterator(waiting_sound_.begin()),
                                 std::make_move_iterator(later));
  waiting_sound_.erase(waiting_sound_.begin(), later);
  for (const waiting_sound& one : last) write_sound(one);
}

void file_series::write_sound(const waiting_sound& next) {
  const int file = plan_.place({next.sample.time, next.sample.end(), next.stretch});
  if (file != 0) files_.at(file).file->write(media_kind::kAudio, next.sample);
}

// ---- The ledger ----------------------------------------------------------------------------

void file_series::tell_progress() {
  for (const auto& [number, of] : files_) tell_progress(of);
}

void file_series::tell_progress(const open_file& of) {
  file_progress is;
  is.kind = !of.holds.video ? "audio" : of.holds.sound ? "audio_video" : "video";
  if (of.holds.sound) is.audio_codec = of.sound;
  if (of.video != nullptr) {
    is.video_codec = of.video->name;
    const GstStructure* const fields = gst_caps_get_structure(of.video_caps.get(), 0);
    gst_structure_get_int(fields, "width", &is.width);
    gst_structure_get_int(fields, "height", &is.height);
  }
  const bool empty = of.file->empty();
  is.first_utc_ms = empty ? of.begin_utc_ms : utc_ms_of(of.file->first());
  is.last_utc_ms = empty ? of.begin_utc_ms : utc_ms_of(of.file->last());
  is.bytes = of.file->bytes();
  destination_.ledger.progress(of.number, is);
}

}  // namespace zelta::core_service::files
