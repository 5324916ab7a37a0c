// SPDX-License-Identifier: Apache-2.0
// What a recorder does when it can't keep up, least loss first:
//
//     nobody else is let in ─▶ stills ─▶ pictures of the mix ─▶ pictures for the application
//                                                           ─▶ users, the last who came first
//
// Packets wait in their sockets for seconds before any is lost, so that whoever stays is whole. A
// user who is let go is told, and comes back when there is room.
//
// A function of readings, one a second, and of nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core_service/media/timeline.h"

namespace zelta::core_service::load {

struct reading {
  // The time from the moment when a packet was here until it was taken in hand; the longest of the
  // second.
  media::media_time behind{};
  // The same of bytes that wait for the disk: a disk isn't helped by anything but waiting, or by
  // less to come.
  media::media_time disk_behind{};
  // Some packets found no room. Alone it says nothing: somebody may flood a port.
  bool lost = false;
  uint64_t free_bytes = UINT64_MAX;  // of memory
};

enum class shed { kStills, kMixPictures, kApplicationPictures };

class overload_rules {
 public:
  // `made`: what is made here that may be left out, in the order above.
  overload_rules(std::vector<shed> made, unsigned processors);

  void read(const reading& now);

  // What is left out now.
  bool leaves_out(shed what) const;
  // How many more users may come now. Their cost is seen only once they send.
  size_t room() const { return room_; }
  void let_in();
  // How many of `users` are to be let go now.
  size_t too_many(size_t users) const;

 private:
  enum class pressure { kCalm, kTight, kTooMuch };

  pressure pressure_of(const reading& now) const;
  void open_doors();

  const std::vector<shed> made_;
  const size_t batch_;
  size_t room_;
  size_t left_out_ = 0;  // of made_, from the front
  int calm_s_ = 0;
  int too_much_s_ = 0;  // since there is nothing more to leave out
  media::media_time behind_{};
  media::media_time growth_{};  // of being behind, in the last second
  int patience_s_;              // of calm before one thing more is made again
  int closed_s_ = 0;            // nobody is let in for so long
  int closes_s_;                // and the next time
  int since_eased_s_;
};

}  // namespace zelta::core_service::load
