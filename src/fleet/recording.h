// SPDX-License-Identifier: Apache-2.0
// One job while this worker has it: a zelta-record, the lease, and what is told of both.
//
// The loop's thread. It is over once over() was called, and may be destroyed from inside of that.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "base/event_loop.h"
#include "base/scoped_timer.h"
#include "fleet/job.h"
#include "fleet/lease.h"
#include "fleet/lease_keeper.h"
#include "fleet/queue_reader.h"
#include "fleet/recorder_child.h"
#include "fleet/recording_state.h"
#include "fleet/state_writer.h"
#include "fleet/worker_settings.h"

namespace zelta::fleet {

// What becomes of the job in the queue.
enum class verdict {
  kDone,     // it is over for good
  kAgain,    // somebody is to take it up, soon
  kLater,    // likewise, but not at once
  kNotOurs,  // somebody else has it, or will
};

struct recording_tools {
  base::event_loop& loop;
  broker& by;
  const worker_settings& settings;
  lease_keeper& keeper;
  state_writer& writer;
};

// What the paths of a worker's folders begin with that hold what its recorders are given. They are
// gone with their recordings, but for those of a worker that was killed.
std::string scratch_beginning(const std::string& worker);

class recording {
 public:
  using is_over = std::function<void(verdict)>;

  // `state` has a stretch of this worker's as its last one. Nothing runs before start().
  recording(const recording_tools& with, job what, assignment by, recording_state state,
            Json::Value wishes, is_over over);
  recording(const recording&) = delete;
  recording& operator=(const recording&) = delete;
  ~recording();

  enum class begun {
    kYes,
    kRefused,  // what the job asks for isn't allowed, or there, on this worker
    kCant,     // the machine can't: another one may
  };
  // With `error`, nothing is told and nothing runs, unless it is kYes.
  begun start(std::string& error);
  // Its state is written again, as the store forgets what nobody has written for a month.
  void touch();
  // It leaves, and its files are completed; `again`: for somebody else to go on.
  void end(bool again, const std::string& why);
  // Somebody else records it.
  void superseded();
  // Somebody else has it, and says when they record it: until then, though not for long, it goes
  // on. `at_once`: they do by now, or it is over.
  void outdated(bool at_once);
  // Whether it isn't about to end.
  bool goes_on() const { return child_ && !is_ending_ && !lost_ && !superseded_; }
  // The queue has given the job to this worker once more, and it goes on by that.
  void taken_again(assignment by);
  // A renewal that was sent at `sent` was answered.
  void renewed(lease::clock::time_point sent);
  // What note() gave that number to is in the store: nobody else had the job until then.
  void kept(uint64_t number);
  // An object with a "command", and what belongs to it; the answer comes later. "" or why not.
  void command(const Json::Value& asked, std::function<void(std::string)> answer);

  const assignment& by() const { return by_; }
  const job& what() const { return job_; }
  const recording_state& state() const { return state_; }
  int64_t lag_ms() const { return lag_ms_; }
  // Of the state that tells its end, as state_writer counts them; 0: it isn't told.
  uint64_t last_note() const { return last_note_; }

 private:
  std::vector<std::string> arguments(std::string& error) const;
  std::vector<std::string> environment() const;
  std::string make_place(std::string& error) const;
  void tell_joined();
  void send_wishes();
  void on_progress(const Json::Value& event);
  std::string line_of_command(const Json::Value& asked, std::string& line);
  void remember(const Json::Value& asked);
  void on_event(const Json::Value& event);
  void on_line(const std::string& line);
  void on_ended(int status);
  void keep_lease();
  void prove(lease::clock::time_point sent);
  void stop_recorder(const std::string& why);
  void note(phase now);
  verdict judge(int status);
  std::string keep_file(const char* name, const std::string& text);

  const recording_tools with_;
  const job job_;
  assignment by_;
  recording_state state_;
  Json::Value wishes_;
  const is_over over_;
  // What stretches before this one had, and what this one has told of itself.
  const uint64_t files_before_;
  const uint64_t losses_before_;
  uint64_t files_told_ = 0;
  uint64_t losses_told_ = 0;
  lease lease_;
  // A renewal whose answer came late, and the note that is to show that the job is still ours.
  std::optional<lease::clock::time_point> unsure_;
  lease::clock::time_point unsure_noted_;
  uint64_t unsure_note_ = 0;
  // Whoever was given the job before that note may still be about to write.
  lease::clock::time_point doubtful_until_;
  std::unique_ptr<recorder_child> child_;
  base::scoped_timer lease_timer_;
  base::scoped_timer kill_timer_;
  base::scoped_timer grace_timer_;
  bool is_ending_ = false;
  std::string scratch_;  // folder of its own: configuration and layouts; with a slash
  std::deque<std::function<void(std::string)>> answers_;
  std::deque<std::string> last_lines_;
  std::string end_reason_;
  bool again_ = false;
  bool superseded_ = false;
  bool lost_ = false;
  int64_t lag_ms_ = 0;
  uint64_t last_note_ = 0;
};

}  // namespace zelta::fleet
