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
  // A layer that sends nothing for so long has been turned off: its sender's way carries less.
  static constexpr media::media_time kPatience = std::chrono::milliseconds(500);

  explicit layer_choice(bool smallest) : smallest_(smallest) {}

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
  std::map<int, int> sizes_;  // pictures' areas, by layer
  std::optional<int> current_;
  bool begun_ = false;
  media::media_time latest_{};
};

}  // namespace zelta::core_service::rtp
