// SPDX-License-Identifier: Apache-2.0
// The rules by which files follow each other: when one begins and ends, and what goes into it.
//
// A file begins with a key frame, or with the sound that was there before the first one. A new one
// begins at a key frame when the picture's size or codec changed or a chunk is full; where there is
// no picture for two seconds the sound goes on in a file of its own, because a muxer that waits
// for a picture would keep the sound from the disk. Sound is encoded through all of this, so files
// that are laid end to end are the whole.
//
//           start()                  stop()             stopped
//     idle ─────────▶ recording ─────────────▶ ending ─────────▶ idle
//       ▲              │     ▲                   │
//       │ abandon(),   │     │      start()      │
//       │ files fail   │     │                   │
//       └──────────────┘     └───────────────────┘
//
// Files fail for good with the third one, or when one can't be opened.
//
// There are no clock, media and files here: what happens comes in with its time, and what is to be
// done about it goes to an executor, which does it before the call returns.
//
// Thread rule: one thread. From inside the executor's calls, other than stopped(), only on_sound()
// and place() may be called.
#pragma once

#include <list>
#include <optional>

#include "core_service/files/end_reason.h"
#include "core_service/files/file_contents.h"
#include "core_service/media/media_time.h"

namespace zelta::core_service::files {

class series_plan {
 public:
  using media_time = media::media_time;

  struct rules {
    // What is recorded where it comes.
    bool video = true;
    bool sound = true;
    // Length of a file; 0: no limit.
    media_time chunk{};
    // How much later than captured media may arrive.
    media_time lateness{};
  };
  struct picture {
    media_time time{};
    media_time end{};
    bool key = false;
    // The same number where codec, size and all else that a file says once are the same.
    int format = 0;
    container kept_in = container::kMp4;
  };
  // Sound as it goes into files. A stretch is what one encoder makes, or what comes as it is
  // between two changes.
  struct packet {
    media_time time{};
    media_time end{};
    int stretch = 0;
  };
  enum class sound_way { kAac, kOpus, kAsItCame };
  struct new_file {
    int number = 0;  // its name from here on
    file_contents holds{};
    media_time begin{};
    int format = 0;  // of its pictures
    // Where its sound comes from, and by which way.
    int stretch = 0;
    sound_way way = sound_way::kAac;
    // The stretch begins with the file, and the one before it ends there.
    bool begins_stretch = false;
  };

  class executor {
   public:
    // False: its sound can't be encoded, and there is no such file.
    [[nodiscard]] virtual bool open(const new_file& wanted) = 0;
    // What is from `at` on goes elsewhere. More of what was before it may come.
    virtual void cut(int file, media_time at, const recording_end& why) = 0;
    // All has come: the file is to be completed.
    virtual void finish(int file) = 0;
    // All files stay as they are.
    virtual void abandon_files() = 0;
    // The picture that is being told of.
    virtual void write_picture(int file) = 0;
    virtual void need_key_frame() = 0;
    // Sound that waits and begins before `until` goes where place() says, in the order in which it
    // came.
    virtual void let_sound_go(media_time until) = 0;
    // The same for all that waits of this stretch and those before it.
    virtual void let_stretch_go(int stretch) = 0;
    // Silence up to `until`, where nothing has come.
    virtual void fill_sound(media_time until) = 0;
    // The stretch ends there, as soon as sound has come so far.
    virtual void end_sound(media_time at) = 0;
    // Sound is taken from now on in the form that is being told of.
    virtual void change_sound() = 0;
    // After stop(): all files are complete. May destroy the plan, or start it.
    virtual void stopped() = 0;

    // Time of the first sound that is kept for a stretch to come.
    virtual std::optional<media_time> first_kept() const = 0;
    // Time at which the latest sound ended; none: nothing has come.
    virtual std::optional<media_time> last_heard() const = 0;
    // How far the stretch has come; none: none is open.
    virtual std::optional<media_time> sound_position() const = 0;

   protected:
    ~executor() = default;
  };

  // The executor is borrowed.
  series_plan(const rules& by, executor& does)
      : rules_(by), does_(does), video_expected_(by.video), sound_expected_(by.sound) {}
  series_plan(const series_plan&) = delete;
  series_plan& operator=(const series_plan&) = delete;

  // Records what comes from now on, into new files.
  void start(media_time now);
  // Records what was captured before `at`, for which it waits until `patience` has passed.
  void stop(const recording_end& why, media_time at, media_time now, media_time patience);
  // No file is completed from here on.
  void abandon();
  // Whether there may be pictures, and sound: what isn't expected is not waited for.
  void expect(bool video, bool sound);
  // Before that of the other form comes: from `from` on sound is to be recorded as it comes; or is
  // samples.
  void expect_sound(bool as_it_comes, media_time from);
  void on_video(const picture& told, media_time now);
  // More sound waits.
  void on_sound(media_time now);
  // The file that sound which waited goes into; 0: it is recorded nowhere.
  int place(const packet& next);
  // Nothing of the stretch comes any more.
  void on_sound_end(int stretch);
  // Several times a second: what doesn't come has to be noticed as well.
  void tick(media_time now);
  // The file is complete, or failed. tell_if_stopped() is to follow, and after stop() too, but not
  // from inside of what they are called by: whoever waits may be gone after it.
  void on_file_end(int file, bool failed);
  void tell_if_stopped();

  bool recording() const { return phase_ == phase::kRecording; }
  // Of the recording that runs, or ran last: when it began, and whether it has a picture.
  media_time started() const { return started_; }
  bool has_pictures() const { return has_pictures_; }
  // Where the recorded picture has come to.
  media_time last_video_end() const { return last_video_end_; }

 private:
  enum class phase {
    kIdle,       // nothing is recorded
    kRecording,  // what comes is, and new files begin
    kEnding,     // what was captured before the end still is, into the present file
  };
  enum class standing {
    kPresent,    // takes pictures and sound
    kCut,        // lacks sound that is on its way
    kFinishing,  // has all
  };
  struct planned_file {
    int number;
    file_contents holds;
    media_time begin;
    int format;
    int stretch;  // that its sound comes from
    standing now = standing::kPresent;
    media_time end{};  // of one that is cut: what comes later belongs to the next one
    bool sound_done = false;
  };
  struct ending {
    recording_end why;
    media_time at{};
    media_time deadline{};
  };

  bool waits_for_key(const picture& told) const;
  bool is_new_file(const picture& told) const;
  bool goes_on_with(const picture& told) const;
  void open_with_video(const picture& told);
  void open_sound_alone();
  void open(media_time begin, const file_contents& holds, int format);
  void cut(media_time at, const recording_end& why);
  void close(media_time at);
  void end_present_file();
  void finish_complete();
  void route_sound(media_time now);
  void tick_silence(media_time now);
  void tick_stop(media_time now);
  sound_way way_in(container kind) const;

  const rules rules_;
  executor& does_;
  bool video_expected_;
  bool sound_expected_;
  bool as_it_comes_ = false;

  phase phase_ = phase::kIdle;
  ending ending_;  // in that phase
  bool abandoned_ = false;
  int failures_ = 0;
  media_time started_{};
  bool has_pictures_ = false;
  media_time last_video_end_{};
  media_time last_sound_end_{};

  std::list<planned_file> files_;    // in the order of time
  planned_file* current_ = nullptr;  // the last of them, or null
  int last_number_ = 0;
  int stretch_ = 0;
  std::optional<sound_way> way_;
};

}  // namespace zelta::core_service::files
