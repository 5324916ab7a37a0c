// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/file_series.h"

#include <algorithm>
#include <utility>

#include <unistd.h>

#include "core_service/file_name.h"

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

sound_codec codec_in(container kind) {
  return kind == container::kWebm ? sound_codec::kOpus : sound_codec::kAac;
}

}  // namespace

file_series::file_series(series_plan plan, surroundings around, events told)
    : plan_(std::move(plan)),
      around_(std::move(around)),
      told_(std::move(told)),
      posting_(around_.loop),
      video_expected_(plan_.video),
      sound_expected_(plan_.sound) {
  if (plan_.sound)
    line_.emplace(static_cast<size_t>(plan_.channels), plan_.longest_gap, kFileBlock);
}

file_series::~file_series() = default;

void file_series::start() {
  if (recording_) return;
  if (ending_) {
    if (line_) line_->fill_to(ending_->at);
    if (current_ != nullptr) cut(ending_->at, ending_->why);
    ending_.reset();
  }
  recording_ = true;
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
    cut(begin, full ? "chunk full" : current_->holds.video ? "picture changed" : "picture came");
  } else if (line_) {
    // Sound that was there before the first picture belongs to the file.
    const auto heard = line_->first_kept();
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
  std::string error;
  of.file = media_file::make(
      around_.folder + name, holds, around_.loop, around_.disk,
      [this, which = &of](const std::string& why, bool disk) { on_done(which, why, disk); }, error);
  std::shared_ptr<sound_encoder> encoder;
  const sound_codec codec = codec_in(holds.kind);
  const bool switches = holds.sound && (!line_->position() || encoder_codec_ != codec);
  if (of.file && switches) encoder = make_encoder(codec);
  if (!of.file || (switches && !encoder)) {
    files_.pop_back();
    unlink((around_.folder + name).c_str());
    recording_ = false;
    log(base::ERROR_LOG, "can't be recorded: " + error);
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
  if (switches && line_->position()) {
    // The former encoder's sound has nowhere else to go.
    for (open_file& former : files_) {
      if (former.finishing) former.end = media_time::max();
    }
    line_->cut(begin, std::move(encoder));
  } else if (switches) {
    line_->start(begin, std::move(encoder));
  }
  if (switches) encoder_codec_ = codec;
  of.encoder = encoder_;
  update_manifest();
  around_.files.save();
}

// What comes later than `at` goes elsewhere.
void file_series::cut(media_time at, const std::string& why) {
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
    const std::string why = which->why.empty() ? "error" : which->why;
    around_.files.at(which->entry).closed = error.empty() ? why : why + ": " + error;
  }
  if (current_ == which) current_ = nullptr;
  files_.remove_if([which](const open_file& of) { return &of == which; });
  around_.files.save();
  if (!error.empty()) {
    log(base::ERROR_LOG, "a file ended: " + error);
    if (++failures_ >= kFailureLimit) recording_ = false;
    told_.failed(error, disk);
  }
  posting_.post([this] { report_stopped(); });
}

void file_series::report_stopped() {
  if (!ending_ || !files_.empty()) return;
  ending_.reset();
  told_.stopped();
}

// ---- Sound ---------------------------------------------------------------------------------

std::shared_ptr<sound_encoder> file_series::make_encoder(sound_codec codec) {
  const int number = ++encoder_;
  std::string error;
  auto made = sound_encoder::make(
      {codec, plan_.channels, plan_.sound_bits_per_second},
      {[this, number](media_sample sample) {
         const auto shared = std::make_shared<media_sample>(std::move(sample));
         posting_.post([this, shared, number] { on_sound(std::move(*shared), number); });
       },
       [this, number] { posting_.post([this, number] { on_sound_end(number); }); }},
      error);
  if (!made) log(base::ERROR_LOG, "no sound: " + error);
  // The line lets go of it at the cut, when its last sound is still inside.
  if (made) encoders_[number] = made;
  return made;
}

// Picture and sound come by ways of different length. Sound waits until the picture has come as
// far, so that it is known by then which file it belongs to.
void file_series::on_sound(media_sample sample, int encoder) {
  waiting_sound_.push_back({std::move(sample), encoder});
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
    if (!of.holds.sound || of.sound_done || of.encoder != next.encoder) continue;
    const bool full = &of == current_ && recording_ && !of.holds.video && plan_.chunk > 0s &&
                      next.sample.time - of.begin >= plan_.chunk;
    if (full) {
      cut(next.sample.time, "chunk full");
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

void file_series::on_sound_end(int encoder) {
  while (!waiting_sound_.empty() && waiting_sound_.front().encoder <= encoder) {
    const waiting_sound next = std::move(waiting_sound_.front());
    waiting_sound_.pop_front();
    route(next);
  }
  encoders_.erase(encoder);
  for (open_file& of : files_) {
    if (of.encoder == encoder) of.sound_done = true;
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
  if (line_ && current_ == nullptr) {
    const auto first = line_->first_kept();
    const auto last = line_->last_heard();
    const bool heard = first && last && *last > started_;
    if (heard && (!video_expected_ || at - std::max(*first, started_) > kFirstPicturePatience)) {
      open_sound_alone();
    }
  }
  if (line_) line_->fill_to(at - kSoundPatience);
  route_sound();
  const bool waits = current_ != nullptr && current_->holds.video && current_->holds.sound &&
                     at - std::max(last_video_end_, current_->begin) > kPicturePatience;
  if (!waits) return;
  const media_time from = std::max(last_video_end_, line_->position().value_or(last_sound_end_));
  cut(from, "picture stopped");
  open(from, {container::kM4a, false, true}, nullptr, nullptr);
}

void file_series::open_sound_alone() {
  const auto first = line_->first_kept();
  if (!first || *line_->last_heard() <= started_) return;
  open(std::max(*first, started_), {container::kM4a, false, true}, nullptr, nullptr);
}

void file_series::stop(const std::string& why, media_time at, media_time patience) {
  if (ending_) return;
  if (recording_ && current_ == nullptr && line_) open_sound_alone();
  recording_ = false;
  ending_ = ending{why, at, now() + patience};
  if (line_) line_->cut(at, nullptr);
  if (current_ != nullptr) {
    current_->end = at;
    current_->why = why;
  }
  if (patience <= 0s) tick_stop();
  posting_.post([this] { report_stopped(); });
}

void file_series::tick_stop() {
  const bool sound_there = !line_ || !line_->position();
  const bool video_there = !plan_.video || last_video_end_ >= ending_->at;
  if (!(sound_there && video_there) && now() < ending_->deadline) return;
  if (line_) line_->fill_to(ending_->at);
  if (current_ != nullptr) cut(ending_->at, ending_->why);
}

// ---- The manifest --------------------------------------------------------------------------

void file_series::update_manifest() {
  for (open_file& of : files_) enter(of);
}

void file_series::enter(open_file& of) {
  manifest_file& entry = around_.files.at(of.entry);
  entry.kind = !of.holds.video ? "audio" : of.holds.sound ? "audio_video" : "video";
  if (of.holds.sound) entry.audio_codec = of.holds.kind == container::kWebm ? "opus" : "aac";
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

void file_series::log(base::log_levels level, const std::string& text) const {
  base::log_dir(around_.folder.c_str(), level, base::ZELTA_LOG_MODULE_CORE_SERVICE_HANDLER,
                "%s: %s", plan_.uid == 0 ? "mix" : ("user " + std::to_string(plan_.uid)).c_str(),
                text.c_str());
}

}  // namespace zelta::core_service::files
