// SPDX-License-Identifier: Apache-2.0
// The files of one user or of the mix, one after the other: where encoded video and sound go, and
// the one place that decides when a file begins and ends.
//
//     on_video() ────────────────────────────────────────────────▶ file, file, …
//     sound() ──▶ sound line ─▶ encoder ─▶ (routed by its time) ───▶
//     on_opus() ─▶ Opus line ────────────▶ (routed by its time) ───▶
//
// A file begins with a key frame, or with the sound that was there before the first one. A new one
// begins at a key frame when the picture's size or codec changed or a chunk is full; where there is
// no picture for two seconds the sound goes on in a file of its own, because a muxer that waits
// for a picture would keep the sound from the disk. Sound is encoded through all of this, so files
// that are laid end to end are the whole. Opus goes in as it came.
//
// Thread rule: everything on the loop's thread; sound() may be fed by any thread.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/logger.h"
#include "base/poster.h"
#include "core_service/files/end_reason.h"
#include "core_service/files/media_file.h"
#include "core_service/folder/manifest.h"
#include "core_service/media/format_caps.h"
#include "core_service/media/opus_line.h"
#include "core_service/media/sound_encoder.h"
#include "core_service/media/sound_line.h"

namespace zelta::core_service::files {

struct series_plan {
  uint32_t uid = 0;    // 0: the mix
  std::string prefix;  // of the files' names
  bool video = true;   // what is recorded where it comes
  bool sound = true;
  int channels = 1;
  int sound_bits_per_second = 64'000;
  // Length of a file; 0: no limit.
  media::media_time chunk{};
  // Gaps in sound that are left as gaps.
  media::media_time longest_gap{};
  // How much later than captured media may arrive here.
  media::media_time lateness{};
};

class file_series {
 public:
  struct surroundings {
    std::string folder;
    base::event_loop& loop;
    manifest& files;
    file_writer& disk;
    base::logger log;
  };
  struct events {
    // A picture is needed that can be decoded by itself.
    std::function<void()> need_key_frame;
    // A file could not be written; it is as complete as it can be.
    std::function<void(const std::string& why, bool disk)> failed;
    // After stop(): all files are complete. The series may be destroyed from inside the call.
    std::function<void()> stopped;
  };

  file_series(series_plan plan, surroundings around, events told);
  file_series(const file_series&) = delete;
  file_series& operator=(const file_series&) = delete;
  // Stops at once: MP4 files stay fragmented ones.
  ~file_series();

  // Where samples are to be pushed; null when no sound is recorded.
  media::sound_line* sound() { return line_ ? &*line_ : nullptr; }
  // One packet of Opus, to be recorded as it came.
  void on_opus(const media::encoded_unit& unit);
  // Before that of the other kind comes: from `from` on there is Opus of this format; or, null,
  // samples. What is recorded of the former ends there, and a new file begins.
  void expect_sound(const media::format_ptr& opus, media::media_time from);
  // Time at which the latest sound ended; none: nothing has come.
  std::optional<media::media_time> last_heard() const;
  // Whether there may be pictures, and sound: what isn't expected is not waited for.
  void expect(bool video, bool sound) {
    video_expected_ = plan_.video && video;
    sound_expected_ = plan_.sound && sound;
  }

  // Records what comes from now on, into new files.
  void start();
  // Records what was captured before `at`, for which it waits until `patience` has passed.
  // events::stopped follows.
  void stop(const recording_end& why, media::media_time at, media::media_time patience);
  // The disk has failed: files are left as they are from here on.
  void abandon();
  bool recording() const { return recording_; }
  // Of the service that runs, or ran last: when it began, and whether it has recorded a picture.
  media::media_time started() const { return started_; }
  bool has_pictures() const { return has_pictures_; }
  // Where the recorded picture has come to.
  media::media_time last_video_end() const { return last_video_end_; }

  void on_video(const media::media_sample& sample, const media::codec& kind);
  // Several times a second: what doesn't come has to be noticed as well.
  void tick();
  // Writes the state of the files into the manifest's entries.
  void update_manifest();

 private:
  struct open_file {
    std::unique_ptr<media_file> file;
    media_file::contents holds;
    size_t entry;
    media::media_time begin;
    media::media_time end;  // what comes later belongs to the next file
    media::caps_ptr video_caps;
    const media::codec* video = nullptr;
    int stretch = 0;         // number of the one that its sound comes from
    const char* sound = "";  // its codec
    bool sound_done = false;
    bool finishing = false;
    recording_end why = end_reason::kFailed;
  };

  struct waiting_sound {
    media::media_sample sample;
    int stretch;
  };
  class opus_intake;

  // Where the sound of a stretch goes through, by the container that it began in.
  enum class sound_way { kAac, kOpus, kAsItCame };
  sound_way way_in(container kind) const;

  bool waits_for_key(const media::media_sample& sample) const;
  bool is_new_file(const media::media_sample& sample) const;
  void open_with_video(const media::media_sample& sample, const media::codec& kind);
  void open(media::media_time begin, const media_file::contents& holds,
            const media::media_sample* video, const media::codec* kind);
  void cut(media::media_time at, const recording_end& why);
  void open_sound_alone();
  void begin_sound(media::media_time begin, sound_way way,
                   std::shared_ptr<media::sound_encoder> encoder);
  void on_sound(media::media_sample sample, int stretch);
  void route_sound();
  void route(const waiting_sound& next);
  void on_sound_end(int stretch);
  std::optional<media::media_time> first_kept() const;
  std::optional<media::media_time> sound_position() const;
  void fill_sound(media::media_time until);
  void end_sound(media::media_time at);
  void finish_complete();
  void on_done(open_file* which, const std::string& error, bool disk);
  std::shared_ptr<media::sound_encoder> make_encoder(sound_way way, std::string& error);
  void enter(open_file& of);
  void report_stopped();
  void tick_silence(media::media_time at);
  void tick_stop();

  const series_plan plan_;
  const surroundings around_;
  const events told_;
  const base::poster poster_;
  // Samples, or Opus as it comes while there is a line for it.
  std::optional<media::sound_line> line_;
  std::optional<media::opus_line> opus_;
  media::format_ptr opus_format_;

  bool recording_ = false;
  bool has_pictures_ = false;
  bool video_expected_;
  bool sound_expected_;
  media::media_time started_{};
  media::media_time last_video_end_{};
  media::media_time last_sound_end_{};
  int failures_ = 0;
  bool abandoned_ = false;

  open_file* current_ = nullptr;  // the last of files_, or null
  std::list<open_file> files_;    // in the order of time
  std::deque<waiting_sound> waiting_sound_;
  std::optional<sound_way> way_;
  int stretch_ = 0;
  media::unit_samples opus_samples_;
  // Those whose sound has not all come out, by stretch.
  std::map<int, std::shared_ptr<media::sound_encoder>> encoders_;

  struct ending {
    recording_end why;
    media::media_time at;
    media::media_time deadline;
  };
  std::optional<ending> ending_;
};

}  // namespace zelta::core_service::files
