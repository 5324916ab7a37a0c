// SPDX-License-Identifier: Apache-2.0
// What the engine is told of a session, an event a function.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core_service/engine/engine_link.h"

namespace zelta::core_service {

class event_port {
 public:
  // The link is borrowed.
  explicit event_port(engine_link& link) : link_(link) {}

  // The first packet of every recorder.
  void hello();
  // Times of events count from here.
  void joined(uint32_t uid, const std::string& channel_id);
  // An error alone: there is no session that could be left.
  void not_joined();
  void user_in(uint32_t uid, const std::string& folder);
  void user_out(uint32_t uid);
  void first_video(uint32_t uid, int width, int height);
  void first_sound(uint32_t uid);
  // What is received of anybody; sent when it changes.
  void receiving(bool sound, bool video);
  void volumes(std::vector<uint32_t> uids, std::vector<uint32_t> volumes);
  void active_speaker(uint32_t uid);
  // Something of a user isn't recorded; the rest is.
  void not_recorded();
  void failed();
  void interrupted();
  void channel_lost();
  void left(uint32_t reason);

 private:
  int elapsed_ms() const;

  engine_link& link_;
  int64_t joined_ms_ = 0;
  bool receives_sound_ = false;
  bool receives_video_ = false;
};

}  // namespace zelta::core_service
