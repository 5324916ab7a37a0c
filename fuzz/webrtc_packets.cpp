// SPDX-License-Identifier: Apache-2.0
// What a user of WebRTC sends behind the cipher, all media lines on one way: whose line a packet
// is, what one that is sent again was, and what comes out of the lines, in whatever order.
//
// The input is as that of rtp_packets: each datagram behind its length and the 4 ms that have
// passed before it, a byte each.
#include <algorithm>
#include <deque>
#include <functional>
#include <set>
#include <vector>

#include "core_service/media/codecs.h"
#include "core_service/rtp/line.h"
#include "core_service/rtp/packet.h"
#include "core_service/rtp/retransmission.h"
#include "core_service/rtp/rtcp.h"
#include "core_service/rtp/srtp/srtp_session.h"
#include "core_service/webrtc/bundle.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

using namespace core_service;
using media::media_time;
using namespace std::chrono_literals;

constexpr uint8_t kH264 = 96;
constexpr uint8_t kH264Again = 97;
constexpr uint8_t kVp8 = 98;
constexpr uint8_t kVp8Again = 99;
constexpr uint8_t kOpus = 111;
constexpr int kMid = 4;
constexpr int kRid = 10;
constexpr int kRepairedRid = 11;
constexpr uint32_t kToldSource = 0x746f6c64;  // "told"
constexpr uint32_t kToldAgain = 0x7265706c;   // "repl"

// A camera in two layers, a screen whose sources are told beforehand, and a microphone.
std::vector<webrtc::offered_line> lines_of_an_offer() {
  std::vector<webrtc::offered_line> made(3);
  const auto fill = [&made](size_t at, const char* mid, uint8_t type, const char* codec) {
    webrtc::offered_line& line = made[at];
    line.mid = mid;
    line.accepted = true;
    rtp::payload& of = line.payloads[type];
    of.kind = media::find_codec(std::string(codec));
    of.sent_again = of.kind->kind == media::media_kind::kVideo;
    of.level_extension = line.level_extension;
    line.mid_extension = kMid;
  };
  made[2].level_extension = 1;
  fill(0, "0", kH264, "h264");
  fill(1, "1", kVp8, "vp8");
  fill(2, "2", kOpus, "opus");
  made[2].payloads[kOpus].clock_rate = 48000;
  made[0].rid_extension = kRid;
  made[0].repaired_rid_extension = kRepairedRid;
  made[0].retransmissions = {{kH264Again, kH264}};
  made[1].retransmissions = {{kVp8Again, kVp8}};
  made[1].sources = {kToldSource};
  made[1].repeats = {{kToldAgain, kToldSource}};
  return made;
}

class silent : public rtp::rtcp_visitor {
 public:
  void report(const rtp::sender_report& /*one*/) override { found("we send no media"); }
  void bye(uint32_t /*ssrc*/) override {}
};

// What stands behind the cipher of a peer, as small as can be.
class receiver {
 public:
  receiver() : offered_(lines_of_an_offer()), bundle_(offered_) {
    for (const webrtc::offered_line& one : offered_) {
      lines_.emplace_back(one.payloads, commons_, [this](rtp::control_bytes& bytes, size_t size) {
        require(size + rtp::srtp_session::kMostAdded <= bytes.size(), "no room for the cipher");
        silent to;
        require(rtp::parse_rtcp(bytes.data(), size, to), "what is said isn't valid");
        return said_++ % 8 != 7;
      });
    }
  }

  void take(std::vector<uint8_t> bytes, media_time passed) {
    now_ += passed;
    if (passed > 200ms) {
      for (rtp::line& one : lines_) {
        one.advance(now_);
        one.send_report(now_);
        one.request_key_frames(now_);
        require(one.next_deadline(now_ + 1h) <= now_ + 1h, "later than the latest");
      }
    }
    if (rtp::is_rtcp(bytes.data(), bytes.size())) {
      for (rtp::line& one : lines_) one.take_control(bytes.data(), bytes.size(), now_);
    } else {
      take_media(bytes.data(), bytes.size());
    }
  }

  void finish() {
    now_ += 40s;
    // Of those that are silent for so long nothing is left, when their last units have come out.
    for (int i = 0; i < 2; ++i, now_ += 2s) {
      for (rtp::line& one : lines_) one.advance(now_);
    }
    for (rtp::line& one : lines_) one.finish();
    require(tracks_.empty(), "a track that never ends");
  }

 private:
  void take_media(uint8_t* bytes, size_t size) {
    const auto one = rtp::parse_packet(bytes, size);
    if (!one) return;
    const auto place = bundle_.find(*one);
    if (!place) return;
    check_place(*one, *place);
    rtp::line& at = lines_[place->line];
    if (!at.takes(place->payload_type, place->ssrc)) return;
    bundle_.remember(*one, *place);
    known_.insert(one->ssrc);
    const auto again = bundle_.find(*one);
    require(again && again->line == place->line && again->ssrc == place->ssrc &&
                again->repeats == place->repeats,
            "remembered as another's");
    if (!place->repeats) {
      at.take(*one, bytes, size, now_);
      return;
    }
    const auto left = rtp::restore(bytes, size, place->ssrc, place->payload_type);
    if (!left) return;
    const auto original = rtp::parse_packet(bytes, *left);
    require(original && original->ssrc == place->ssrc, "restored as another's");
    at.take_again(*original, bytes, *left, now_);
  }

  void check_place(const rtp::packet& one, const webrtc::bundle::place& where) const {
    require(where.line < offered_.size(), "a line that there isn't");
    const webrtc::offered_line& at = offered_[where.line];
    require(at.payloads.count(where.payload_type) == 1, "a type that isn't the line's");
    if (!where.repeats) {
      require(where.ssrc == one.ssrc && where.payload_type == one.payload_type, "another packet");
      return;
    }
    require(at.retransmissions.at(one.payload_type) == where.payload_type, "repeats another type");
    require(known_.count(where.ssrc) == 1 || where.ssrc == kToldSource, "an original of nobody's");
  }

  void unit(int number, const media::encoded_unit& one) {
    require(gone_.count(number) == 0, "a unit behind its track's end");
    tracks_.insert(number);
    const media_time off = one.time - now_;
    require(off < 20s && off > -200s, "a time far from its arrival");
  }
  void gone(int number) {
    require(tracks_.erase(number) == 1, "the end of a track that never began");
    gone_.insert(number);
  }

  static rtp::settings how() {
    rtp::settings made;
    made.jitter_latency = 100ms;
    return made;
  }

  media_time now_ = 100h;
  const std::vector<webrtc::offered_line> offered_;
  webrtc::bundle bundle_;
  media::byte_pool pool_;
  rtp::line_commons commons_{
      how(), pool_,
      rtp::sender::events{[this](int number, const rtp::payload& /*of*/,
                                 media::encoded_unit&& one) { unit(number, one); },
                          [this](int number) { gone(number); }, nullptr, nullptr}};
  std::deque<rtp::line> lines_;
  std::set<uint32_t> known_;
  std::set<int> tracks_;
  std::set<int> gone_;
  unsigned said_ = 0;
};

std::string datagram(const std::string& bytes, uint8_t passed) {
  return {std::string(1, static_cast<char>(bytes.size())) + static_cast<char>(passed) + bytes};
}

// With elements of the one-byte form (RFC 8285, section 4.2) in two words.
std::string sent(uint8_t type, uint16_t number, const std::string& ssrc, std::string elements,
                 const std::string& payload, uint8_t passed = 1) {
  elements.resize(8);
  std::string bytes{static_cast<char>(0x90), static_cast<char>(type | 0x80U)};
  bytes += {static_cast<char>(number >> 8U), static_cast<char>(number)};
  bytes += std::string("\0\1", 2) + static_cast<char>(number >> 8U) + static_cast<char>(number);
  return datagram(bytes + ssrc + std::string("\xbe\xde\0\2", 4) + elements + payload, passed);
}

std::string element(int number, const std::string& value) {
  return std::string(1, static_cast<char>(static_cast<size_t>(number) << 4U | (value.size() - 1))) +
         value;
}

}  // namespace

std::vector<std::string> seeds() {
  const std::string mid = element(kMid, "0");
  const std::string key = std::string(
      "\x78\0\x08\x67\x42\0\x28\xd9\x41\x41\x79\0\4\x68\xce\x38\x80\0\3\x65\x88\x84", 22);
  const auto layer = [&](const char* name) { return mid + element(kRid, name); };
  // Two layers of which packets are lost, and come again.
  std::string camera;
  for (const uint16_t number : std::vector<uint16_t>{1, 2, 3, 5, 6}) {
    camera +=
        sent(kH264, number, "high", layer("h"), key) + sent(kH264, number, "low_", layer("l"), key);
  }
  for (const char* const name : {"h", "l"}) {
    camera += sent(kH264Again, 900, std::string("rtx") + name, mid + element(kRepairedRid, name),
                   std::string("\0\4", 2) + key);
  }
  std::string screen = sent(kVp8, 65534, "told", "", "\x10\x50");
  for (const uint16_t number : std::vector<uint16_t>{65535, 1, 2})
    screen += sent(kVp8, number, "told", "", "\x10\x51");
  screen += sent(kVp8Again, 7, "repl", "", std::string("\0\0\x10\x51", 4));
  screen += sent(kVp8Again, 8, "repl", "", "", 255);
  std::string sound;
  for (uint16_t number = 1; number < 5; ++number) {
    sound += sent(kOpus, number, "voic", element(kMid, "2") + element(1, "!"), "\x78sound", 60);
  }
  const std::string report =
      datagram(std::string("\x80\xc8\x00\x06highntp.ntp.\x00\x00\x10\x00packbyte", 28) +
                   std::string("\x81\xcb\x00\x01high", 8),
               1);
  return {camera + report, report + screen, sound + camera + screen + report};
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zelta::fuzz::receiver receiver;
  while (size >= 2) {
    const size_t length = std::min<size_t>(data[0], size - 2);
    receiver.take({data + 2, data + 2 + length}, std::chrono::milliseconds(4 * data[1]));
    data += 2 + length;
    size -= 2 + length;
  }
  receiver.finish();
  return 0;
}
