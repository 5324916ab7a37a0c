// SPDX-License-Identifier: Apache-2.0
// All whose media is recorded: the users who are here, those who have left and whose files aren't
// complete yet, and the mix of them.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core_service/mix/mix.h"
#include "core_service/session/user.h"

namespace zelta::core_service {

class roster {
 public:
  struct events {
    // From inside end(): the user isn't here any more.
    std::function<void(uint32_t uid, const files::recording_end& why)> left;
    // Of somebody who left, or of the mix after finish_mix(), all files are complete.
    std::function<void()> completed;
  };

  explicit roster(events told) : events_(std::move(told)) {}
  roster(const roster&) = delete;
  roster& operator=(const roster&) = delete;

  // Before the first user.
  void set_mix(std::unique_ptr<mix::mix> mix) { mix_ = std::move(mix); }
  mix::mix* mix() const { return mix_.get(); }

  bool has(uint32_t uid) const { return users_.count(uid) != 0; }
  size_t size() const { return users_.size(); }
  // With those who are leaving, who have their descriptors until their files are complete.
  size_t size_with_leaving() const { return users_.size() + leaving_.size(); }
  // The one who came last.
  uint32_t last() const { return in_order_.back(); }
  // Whether the medium comes of anybody.
  bool receives(media::media_kind kind) const;
  // No file is being written, nor will be.
  bool is_complete() const {
    return users_.empty() && leaving_.empty() && (mix_ == nullptr || mix_finished_);
  }

  // Records and delivers, or only listens; also whoever comes later.
  void start_service();
  void stop_service(const files::recording_end& why);
  bool serves() const { return serves_; }

  user& add(uint32_t uid, std::unique_ptr<user> one);
  // Whoever isn't here is none.
  void end(uint32_t uid, const files::recording_end& why);
  void end_all(const files::recording_end& why);
  // Everything that came until now is mixed.
  void finish_mix(const files::recording_end& why);
  // From mix::events.
  void note_mix_finished() {
    mix_finished_ = true;
    events_.completed();
  }

  // Those who are here, by uid.
  template <class Work>
  void each(Work work) const {
    for (const auto& [uid, one] : users_) work(uid, *one);
  }
  // The disk has failed: files are left as they are from here on.
  void abandon_files() const;
  void count_losses() const;
  // Several times a second: what doesn't come has to be noticed as well.
  void tick() const;
  void tell_progress() const;

 private:
  template <class Work>
  void each_with_leaving(Work work) const {
    for (const auto& one : users_) work(*one.second);
    for (const auto& one : leaving_) work(*one);
  }

  const events events_;
  std::unique_ptr<mix::mix> mix_;
  bool mix_finished_ = false;
  bool serves_ = false;
  std::map<uint32_t, std::unique_ptr<user>> users_;
  std::vector<uint32_t> in_order_;  // of coming, those in users_
  std::vector<std::unique_ptr<user>> leaving_;
};

}  // namespace zelta::core_service
