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
#include <set>
#include <string>

#include "core_service/folder/missing_medium.h"
#include "core_service/webrtc/sctp_association.h"

namespace zelta::core_service::webrtc {

class data_channels {
 public:
  // Of a user, a second, and at once: everybody's media goes through the thread that keeps them.
  static constexpr int kMessagesASecond = 50;
  static constexpr int kMessagesAtOnce = 500;
  static constexpr int kBytesASecond = 64 * 1024;
  static constexpr int kBytesAtOnce = 512 * 1024;

  struct events {
    sctp_association::send_packet send;
    // UTF-8 both: whatever wasn't has been replaced by U+FFFD. The label is empty where nobody has
    // told one.
    std::function<void(const std::string& label, std::string&& text)> text;
    // A message that isn't kept, or what else is not.
    std::function<void(missing_medium&& what)> missing;
  };

  // `opens_one`: a channel of ours, by which nothing is said; for gateways, which pass messages on
  // to those alone who have one. Null when the library refuses.
  static std::unique_ptr<data_channels> make(uint16_t their_port, bool opens_one, events told);

  // One packet of SCTP's.
  void take(const uint8_t* bytes, size_t size) { by_->take(bytes, size); }
  // Due every sctp_association::kTick.
  void advance(media::media_time now) { by_->advance(now); }

 private:
  explicit data_channels(events told) : events_(std::move(told)) {}
  void open();
  bool is_too_much(size_t bytes);
  void on_message(sctp_association::message&& what);
  void on_control(const sctp_association::message& what);
  void tell_missing(const char* why);

  const events events_;
  // What may still come of this second, in messages and bytes, and when that was.
  double messages_left_ = kMessagesAtOnce;
  double bytes_left_ = kBytesAtOnce;
  media::media_time counted_{};
  std::set<const char*> told_;              // as missing, each once
  std::map<uint16_t, std::string> labels_;  // by stream
  std::unique_ptr<sctp_association> by_;
};

}  // namespace zelta::core_service::webrtc
