// SPDX-License-Identifier: Apache-2.0
// Of the layers in which a sender sends one picture at several sizes (simulcast, RFC 8853), the one
// that is recorded: the largest that comes, or the smallest. It changes at a picture that needs no
// other, so that what comes out is one stream. One thread; it is told the time by the units.
#pragma once

#include <map>
#include <optional>

#include "core_service/media/encoded_unit.h"

namespace zelta::core_service::rtp {

class layer_choice {
 public:
  // A layer that sends nothing for so long, and while so many units of others come, has been turned
  // off: its sender's way carries less.
  static constexpr media::media_time kPatience = std::chrono::milliseconds(500);
  static constexpr int kOthers = 10;

  // `lateness`: how long one layer's units may be held back while others' come.
  layer_choice(bool smallest, media::media_time lateness)
      : smallest_(smallest), patience_(lateness + kPatience) {}

  enum class verdict {
    kTaken,    // its time may have been moved, so that times don't go back
    kLeft,     // another layer is recorded
    kWantsKey  // it would be taken, if it could begin
  };
  verdict look(int layer, media::encoded_unit& unit);
  void ended(int layer);

 private:
  bool is_better(int layer) const;

  const bool smallest_;
  const media::media_time patience_;
  std::map<int, int64_t> sizes_;  // pictures' areas, by layer
  std::optional<int> current_;
  bool begun_ = false;
  media::media_time latest_{};
  int others_ = 0;  // units of other layers since then
};

}  // namespace zelta::core_service::rtp
