// SPDX-License-Identifier: Apache-2.0
// A user's media, of packets:
//
//     packet thread: sender ─▶ units ─▶ mailbox ─▶ loop's thread        a track an SSRC
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "core_service/media/media_feed.h"
#include "core_service/rtp/packet_plane.h"
#include "core_service/rtp/sender.h"

namespace zelta::core_service::rtp {

class packet_feed final : public media::media_feed {
 public:
  // What is known of the media beforehand.
  struct prospect {
    media::kinds may_come{false, false};
    media::format_ptr sound;  // likely; may be null
    media::media_time lateness{};

    // Of a line with these payloads.
    void add(media::media_kind kind, const std::map<int, payload>& payloads);
  };
  using make_sender = std::function<std::shared_ptr<sender>(sender::events told)>;

  packet_feed(prospect known, std::shared_ptr<packet_plane> plane, const make_sender& make);
  packet_feed(const packet_feed&) = delete;
  packet_feed& operator=(const packet_feed&) = delete;
  ~packet_feed() override;

  media::media_time lateness() const override { return known_.lateness; }
  void start(media::kinds taken, events told) override;
  void stop(std::function<void()> stopped) override;
  void request_key_frame() override;
  std::string why_lost() const override;
  bool left_unread() const override { return left_unread_; }
  uint64_t lost_packets() const override { return sender_ ? sender_->dropped() : lost_packets_; }
  std::string fault() override;

 private:
  void end_sender();

  const std::shared_ptr<packet_plane> plane_;
  const uint64_t reader_;
  const prospect known_;
  // From stop() on.
  uint64_t lost_packets_ = 0;
  bool left_unread_ = false;
  std::function<void()> stopped_;
  bool fault_told_ = false;
  std::shared_ptr<sender> sender_;     // the packet thread's
  const std::weak_ptr<sender> asked_;  // for other threads
};

}  // namespace zelta::core_service::rtp
