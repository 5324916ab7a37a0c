// SPDX-License-Identifier: Apache-2.0
// The data channels of one peer (RFC 8831, RFC 8832): what it writes in them, as text. Nothing is
// said back but that a channel is open.
//
//     DTLS ─▶ take ─▶ SCTP ─▶ messages ─▶ text
//
// Thread rule: sctp_association's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "core_service/folder/missing_medium.h"
#include "core_service/webrtc/sctp_association.h"

namespace zelta::core_service::webrtc {

class data_channels {
 public:
  struct events {
    sctp_association::send_packet send;
    // UTF-8 both: whatever wasn't has been replaced by U+FFFD. The label is empty where nobody has
    // told one.
    std::function<void(const std::string& label, std::string&& text)> text;
    // A message that isn't kept, or what else is not.
    std::function<void(missing_medium&& what)> missing;
  };

  // `opens_one`: a channel of ours, by which nothing is said; for gateways, which pass messages on
  // to those alone who have one. Null when there is no memory.
  static std::unique_ptr<data_channels> make(uint16_t their_port, bool opens_one, events told);

  // One packet of SCTP's.
  void take(const uint8_t* bytes, size_t size) { by_->take(bytes, size); }
  // Due every sctp_association::kTick.
  void advance(media::media_time now) { by_->advance(now); }

 private:
  explicit data_channels(events told) : events_(std::move(told)) {}
  void open();
  void on_message(sctp_association::message&& what);
  void on_control(const sctp_association::message& what);
  void tell_missing(uint16_t stream, const std::string& why);

  const events events_;
  std::map<uint16_t, std::string> labels_;  // by stream
  std::unique_ptr<sctp_association> by_;
};

}  // namespace zelta::core_service::webrtc
