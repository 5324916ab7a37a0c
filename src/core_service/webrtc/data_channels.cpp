// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/data_channels.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string_view>
#include <utility>

#include <glib.h>

#include "core_service/media/timeline.h"
#include "core_service/rtp/network_order.h"

namespace zelta::core_service::webrtc {
namespace {

// RFC 8831, section 8; what is empty there comes with a byte that doesn't count.
enum protocol : uint32_t {
  kControl = 50,
  kText = 51,
  kBinary = 53,
  kEmptyText = 56,
  kEmptyBinary = 57,
};

// RFC 8832, section 8.2.1.
constexpr uint8_t kAcknowledge = 0x02;
constexpr uint8_t kOpen = 0x03;
constexpr size_t kOpenHeaderBytes = 12;
constexpr size_t kLabelSizeAt = 8;
constexpr size_t kLongestLabel = 128;

std::string utf8(const uint8_t* bytes, size_t size) {
  const auto* const text = reinterpret_cast<const char*>(bytes);
  if (g_utf8_validate(text, static_cast<gssize>(size), nullptr) != FALSE) return {text, size};
  char* const made = g_utf8_make_valid(text, static_cast<gssize>(size));
  std::string valid(made);
  g_free(made);
  return valid;
}

}  // namespace

std::unique_ptr<data_channels> data_channels::make(uint16_t their_port, bool opens_one,
                                                   events told) {
  std::unique_ptr<data_channels> made(new data_channels(std::move(told)));
  data_channels* const to = made.get();
  made->by_ = sctp_association::make(
      their_port, to->events_.send,
      {[to, opens_one] {
         if (opens_one) to->open();
       },
       [to](sctp_association::message&& what) { to->on_message(std::move(what)); },
       [to](uint16_t stream) { to->labels_.erase(stream); },
       [to] { to->tell_missing("the data channels broke off"); }});
  return made->by_ ? std::move(made) : nullptr;
}

void data_channels::open() {
  constexpr std::string_view kLabel = "recorder";
  // RFC 8832, section 6: streams with odd numbers are for the server of DTLS to open.
  constexpr uint16_t kStream = 1;
  std::array<uint8_t, kOpenHeaderBytes + kLabel.size()> bytes{kOpen};
  rtp::write_16(bytes.data() + kLabelSizeAt, kLabel.size());
  std::copy(kLabel.begin(), kLabel.end(), bytes.begin() + kOpenHeaderBytes);
  by_->send(kStream, kControl, bytes.data(), bytes.size());
}

void data_channels::on_message(sctp_association::message&& what) {
  if (is_too_much(what.bytes.size())) {
    return tell_missing("there were too many messages: 50 a second and 64 KiB are kept");
  }
  switch (what.protocol) {
    case kControl:
      return on_control(what);
    case kText:
    case kEmptyText:
      break;
    default:
      return tell_missing("binary messages aren't kept, only text is");
  }
  if (what.is_cut) return tell_missing("messages of more than 64 KiB aren't kept");
  const size_t size = what.protocol == kEmptyText ? 0 : what.bytes.size();
  const auto known = labels_.find(what.stream);
  events_.text(known != labels_.end() ? known->second : "", utf8(what.bytes.data(), size));
}

bool data_channels::is_too_much(size_t bytes) {
  const media::media_time now = media::now();
  const double passed = std::chrono::duration<double>(now - std::exchange(counted_, now)).count();
  messages_left_ = std::min<double>(kMessagesAtOnce, messages_left_ + passed * kMessagesASecond);
  bytes_left_ = std::min<double>(kBytesAtOnce, bytes_left_ + passed * kBytesASecond);
  if (messages_left_ < 1 || bytes_left_ < static_cast<double>(bytes)) return true;
  messages_left_ -= 1;
  bytes_left_ -= static_cast<double>(bytes);
  return false;
}

void data_channels::on_control(const sctp_association::message& what) {
  const std::vector<uint8_t>& bytes = what.bytes;
  if (bytes.size() < kOpenHeaderBytes || bytes[0] != kOpen) return;
  const size_t label = rtp::read_16(bytes.data() + kLabelSizeAt);
  if (label > bytes.size() - kOpenHeaderBytes) return;
  labels_[what.stream] = utf8(bytes.data() + kOpenHeaderBytes, std::min(label, kLongestLabel));
  by_->send(what.stream, kControl, &kAcknowledge, 1);
}

void data_channels::tell_missing(const char* why) {
  if (told_.insert(why).second) events_.missing({"messages", "", why});
}

}  // namespace zelta::core_service::webrtc
