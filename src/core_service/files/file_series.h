// SPDX-License-Identifier: Apache-2.0
// The files of one user or of the mix, one after the other: where encoded video and sound go. When
// a file begins and ends is for its plan to decide; here it is done.
//
//     on_video() ────────────────────────────────────────────────▶ file, file, …
//     sound() ──▶ sound line ─▶ encoder ─▶ (routed by its time) ───▶
//     on_opus() ─▶ Opus line ────────────▶ (routed by its time) ───▶
//
// Sound that is encoded is encoded through all files. Opus goes in as it came.
//
// Thread rule: everything on the loop's thread; sound() may be fed by any thread.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/logger.h"
#include "base/poster.h"
#include "core_service/files/destination.h"
#include "core_service/files/end_reason.h"
#include "core_service/files/media_file.h"
#include "core_service/files/series_plan.h"
#include "core_service/folder/ledger.h"
#include "core_service/media/format_caps.h"
#include "core_service/media/opus_line.h"
#include "core_service/media/sound_encoder.h"
#include "core_service/media/sound_line.h"

namespace zelta::core_service::files {

struct series_settings {
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

class file_series final : private series_plan::executor {
 public:
  struct events {
    // A picture is needed that can be decoded by itself.
    std::function<void()> need_key_frame;
    // A file could not be written; it is as complete as it can be.
    std::function<void(const std::string& why, bool disk)> failed;
    // After stop(): all files are complete. The series may be destroyed from inside the call.
    std::function<void()> stopped;
  };

  file_series(series_settings settings, destination to, events told);
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
  std::optional<media::media_time> last_heard() const override;
  // Whether there may be pictures, and sound: what isn't expected is not waited for.
  void expect(bool video, bool sound) { plan_.expect(video, sound); }

  // Records what comes from now on, into new files.
  void start();
  // Records what was captured before `at`, for which it waits until `patience` has passed.
  // events::stopped follows.
  void stop(const recording_end& why, media::media_time at, media::media_time patience);
  // The disk has failed: files are left as they are from here on.
  void abandon();
  // Of the service that runs, or ran last: when it began, and whether it has recorded a picture.
  media::media_time started() const { return plan_.started(); }
  bool has_pictures() const { return plan_.has_pictures(); }
  // Where the recorded picture has come to.
  media::media_time last_video_end() const { return plan_.last_video_end(); }

  void on_video(const media::media_sample& sample, const media::codec& kind);
  // Several times a second: what doesn't come has to be noticed as well.
  void tick();
  // Tells the ledger how far the files are.
  void tell_progress();

 private:
  struct open_file {
    std::unique_ptr<media_file> file;
    file_contents holds;
    file_number number = 0;  // in the ledger
    int64_t begin_utc_ms = 0;
    std::string path;
    media::caps_ptr video_caps;
    const media::codec* video = nullptr;
    const char* sound = "";  // its codec
    recording_end why = end_reason::kFailed;
  };
  struct waiting_sound {
    media::media_sample sample;
    int stretch;
  };
  class opus_intake;

  // What the plan has done.
  bool open(const series_plan::new_file& wanted) override;
  void cut(int file, media::media_time at, const recording_end& why) override;
  void finish(int file) override;
  void abandon_files() override;
  void write_picture(int file) override;
  void need_key_frame() override;
  void let_sound_go(media::media_time until) override;
  void let_stretch_go(int stretch) override;
  void fill_sound(media::media_time until) override;
  void end_sound(media::media_time at) override;
  void change_sound() override;
  void stopped() override;
  std::optional<media::media_time> first_kept() const override;
  std::optional<media::media_time> sound_position() const override;

  std::shared_ptr<media::sound_encoder> make_encoder(const series_plan::new_file& wanted,
                                                     std::string& error);
  void begin_sound(const series_plan::new_file& wanted,
                   std::shared_ptr<media::sound_encoder> encoder);
  void on_sound(media::media_sample sample, int stretch);
  void on_sound_end(int stretch);
  void write_sound(const waiting_sound& next);
  void on_done(int file, const std::string& error, bool disk);
  void tell_progress(const open_file& of);

  const series_settings settings_;
  const destination destination_;
  const events events_;
  const base::poster poster_;
  series_plan plan_;
  // Samples, or Opus as it comes while there is a line for it.
  std::optional<media::sound_line> line_;
  std::optional<media::opus_line> opus_;
  media::format_ptr opus_format_;
  media::unit_samples opus_samples_;
  // Null: samples.
  media::format_ptr expected_opus_;

  // By the plan's numbers, and so in the order of time.
  std::map<int, open_file> files_;
  // The picture that the plan is being told of.
  const media::media_sample* picture_ = nullptr;
  const media::codec* picture_kind_ = nullptr;
  // Of the last file with pictures.
  media::caps_ptr video_caps_;
  int video_format_ = 0;
  std::deque<waiting_sound> waiting_sound_;
  // Those whose sound has not all come out, by stretch.
  std::map<int, std::shared_ptr<media::sound_encoder>> encoders_;
};

}  // namespace zelta::core_service::files
