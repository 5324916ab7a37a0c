// SPDX-License-Identifier: Apache-2.0
// A user who writes by data channels, connected to our end in memory: what either sends lies in a
// row until it is carried, so that packets can be lost, and time is made.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core_service/media/timeline.h"
#include "core_service/webrtc/data_channels.h"
#include "core_service/webrtc/sctp_association.h"

namespace zelta::test {

class channel_writer {
 public:
  using packet = std::vector<uint8_t>;
  static constexpr uint32_t kControl = 50;
  static constexpr uint32_t kText = 51;

  // `opens_one`: our end does.
  explicit channel_writer(bool opens_one = false) {
    using namespace core_service::webrtc;
    ours = data_channels::make(
        sctp_association::kOwnPort, opens_one,
        {to(to_user),
         [this](const std::string& label, std::string&& text) { on_text(label, text); },
         [this](core_service::missing_medium&& what) { on_missing(what.medium, what.reason); }});
    user = sctp_association::make(
        sctp_association::kOwnPort, to(to_us),
        {[] {},
         [this](sctp_association::message&& what) {
           if (what.bytes.size() == 1) acknowledged.push_back(what.stream);
           if (what.bytes.size() > 1) opened = {what.bytes.begin(), what.bytes.end()};
         },
         [this](uint16_t stream) { ended.push_back(stream); }, [this] { broken = true; }});
    if (user) carry();
  }

  // All that is under way arrives, and what is sent in return.
  void carry() {
    while (!to_user.empty() || !to_us.empty()) {
      for (auto* const way : {&to_user, &to_us}) {
        std::deque<packet> now;
        now.swap(*way);
        for (const packet& one : now) {
          if (way == &to_us && ours) ours->take(one.data(), one.size());
          if (way == &to_user && user) user->take(one.data(), one.size());
        }
      }
    }
  }
  // Time goes on by a tick.
  void tick() {
    now_ += core_service::webrtc::sctp_association::kTick;
    if (ours) ours->advance(now_);
    if (user) user->advance(now_);
    carry();
  }
  bool send(uint16_t stream, uint32_t protocol, const std::string& bytes) {
    return user->send(stream, protocol, reinterpret_cast<const uint8_t*>(bytes.data()),
                      bytes.size());
  }
  // RFC 8832, section 5.1: reliable, of no sub-protocol.
  static std::string opening(const std::string& label) {
    std::string bytes("\x03\0\0\0\0\0\0\0", 8);
    bytes += {static_cast<char>(label.size() >> 8U), static_cast<char>(label.size())};
    return bytes + std::string(2, '\0') + label;
  }

  std::function<void(const std::string& label, const std::string& text)> on_text;
  std::function<void(const std::string& medium, const std::string& reason)> on_missing;
  std::deque<packet> to_us;
  std::deque<packet> to_user;
  std::vector<uint16_t> acknowledged;
  std::string opened;  // by our end
  std::vector<uint16_t> ended;
  bool broken = false;
  std::unique_ptr<core_service::webrtc::data_channels> ours;
  std::unique_ptr<core_service::webrtc::sctp_association> user;

 private:
  static core_service::webrtc::sctp_association::send_packet to(std::deque<packet>& way) {
    return [&way](const uint8_t* bytes, size_t size) { way.emplace_back(bytes, bytes + size); };
  }

  // Of the process, as the library's timers are.
  inline static core_service::media::media_time now_ = core_service::media::now();
};

}  // namespace zelta::test
