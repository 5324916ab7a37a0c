// SPDX-License-Identifier: Apache-2.0
// What comes on a stream's port, RTP and RTCP, from the datagram to packets in order with a time,
// and what its sender hears of them.
//
// The input is a row of datagrams, each behind its length in a byte and the 4 ms that have passed
// before it in another.
#include <algorithm>
#include <vector>

#include "core_service/rtp/nack_list.h"
#include "core_service/rtp/packet.h"
#include "core_service/rtp/receive_stats.h"
#include "core_service/rtp/reorder_buffer.h"
#include "core_service/rtp/retransmission.h"
#include "core_service/rtp/rtcp.h"
#include "core_service/rtp/sender_clock.h"
#include "core_service/rtp/source_validator.h"
#include "core_service/rtp/transport_feedback.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

using namespace core_service::rtp;
using core_service::media::media_time;
using namespace std::chrono_literals;

std::string datagram(const std::string& bytes, uint8_t passed) {
  return {std::string(1, static_cast<char>(bytes.size())) + static_cast<char>(passed) + bytes};
}

std::string sent(uint16_t sequence, uint32_t timestamp, const std::string& payload) {
  std::string bytes = "\x80\x60";
  for (int shift = 8; shift >= 0; shift -= 8) bytes += static_cast<char>(sequence >> shift);
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(timestamp >> shift);
  return datagram(bytes + "ssrc" + payload, 5);
}

// A receiver of one stream, as small as can be.
class receiver : public rtcp_visitor {
 public:
  void take(const uint8_t* bytes, size_t size, media_time passed) {
    now_ += passed;
    order_.advance(now_);
    if (passed > 200ms) give_feedback();
    if (is_rtcp(bytes, size)) {
      parse_rtcp(bytes, size, *this);
      return;
    }
    const auto one = parse_packet(bytes, size);
    if (!one) return;
    require(one->payload + one->payload_bytes <= bytes + size, "a payload past the end");
    look_into_header(*one);
    restore_copy(*one, bytes, size);
    // Where the header has none, any number will do.
    arrivals_.received(transport_number_of(*one, 1).value_or(one->sequence), now_);
    const auto checked = validator_.check(one->sequence);
    require(static_cast<uint16_t>(checked.sequence) == one->sequence, "another's number");
    if (checked.is == verdict::kProbation || checked.is == verdict::kDrop) return;
    if (checked.is == verdict::kRestarted) {
      order_.restart();
      stats_.restarted();
      missing_.restarted();
      begun_ = false;
    }
    missing_.received(checked.sequence, now_);
    require(missing_.missing() <= nack_list::kMostMissing, "too many are asked for");
    stats_.received(checked.sequence, one->timestamp, now_);
    order_.push(checked.sequence, bytes, size, now_);
  }

  void finish() {
    order_.finish();
    require(order_.waiting() == 0 && !order_.next_deadline(), "something waits for nothing");
    write_and_read();
    give_feedback();
    require(!arrivals_.waiting(), "arrivals that nobody is told of");
  }

  void report(const sender_report& one) override {
    ++heard_;
    stats_.sender_reported(one.ntp, now_);
    clock_.report(one.ntp, one.timestamp, now_);
  }
  void bye(uint32_t /*ssrc*/) override { ++heard_; }

 private:
  void ordered(const reorder_buffer::ordered& one) {
    require(!begun_ || one.sequence > last_, "out of order");
    require(!begun_ || one.lost == (one.sequence != last_ + 1), "a gap that nobody is told of");
    begun_ = true;
    last_ = one.sequence;
    const auto packet = parse_packet(one.bytes, one.size);
    require(packet.has_value(), "what waited isn't what came");
    const media_time off = clock_.place(packet->timestamp, one.arrival).time - one.arrival;
    require(off < 15s && off > -15s, "a time far from its arrival");
  }

  static void look_into_header(const packet& one) {
    const uint8_t* const end = one.extension + one.extension_bytes;
    for (int number = 0; number < 256; ++number) {
      const auto found = find_extension(one, number);
      if (!found) continue;
      require(number != 0, "padding that means something");
      require(found->bytes > one.extension && found->bytes + found->size <= end,
              "an element past the end");
      require(text_extension_of(one, number).size() == found->size, "half a name");
      require(audio_level_of(one, number).value_or(0) <= 127, "a level that can't be");
    }
  }

  static void restore_copy(const packet& sent, const uint8_t* bytes, size_t size) {
    std::vector<uint8_t> copy(bytes, bytes + size);
    const auto left = restore(copy.data(), size, 7, 96);
    require(left.has_value() == (sent.payload_bytes >= 2), "an original of nothing, or none");
    if (!left) return;
    const auto original = parse_packet(copy.data(), *left);
    require(original && original->ssrc == 7 && original->payload_type == 96 &&
                original->marker == sent.marker && original->timestamp == sent.timestamp,
            "another's header");
    require(std::equal(sent.payload + 2, sent.payload + sent.payload_bytes, original->payload,
                       original->payload + original->payload_bytes),
            "another's payload");
  }

  void give_feedback() {
    uint16_t numbers[128];
    uint8_t buffer[1500];
    size_t asked = 0;
    for (size_t count = 1; count > 0; asked += count) {
      count = missing_.take_due(now_, numbers, 128);
      rtcp_writer writer(buffer, sizeof buffer);
      require(writer.nack(1, 2, numbers, count) == (count > 0), "a request that doesn't fit");
      require(count == 0 || parse_rtcp(buffer, writer.size(), *this), "a request that isn't valid");
    }
    require(asked <= nack_list::kMostMissing, "asked for twice at a time");
    static_cast<void>(missing_.overwhelmed());
    require(missing_.next_deadline().value_or(media_time::max()) > now_, "due, and not asked for");
    for (size_t packets = 0; arrivals_.waiting(); ++packets) {
      rtcp_writer writer(buffer, sizeof buffer);
      require(arrivals_.write(writer, 1, 2), "feedback that doesn't fit");
      require(writer.size() <= transport_feedback::kMostBytes, "a packet that is too long");
      require(parse_rtcp(buffer, writer.size(), *this), "feedback that isn't valid");
      require(packets < transport_feedback::kRing, "it never ends");
    }
  }

  void write_and_read() {
    const report_block block = stats_.report(1, now_);
    uint8_t buffer[128];
    rtcp_writer writer(buffer, sizeof buffer);
    require(writer.receiver_report(2, &block, 1) && writer.cname(2, "zelta") &&
                writer.picture_loss(2, 1),
            "a report that doesn't fit");
    const size_t before = heard_;
    require(parse_rtcp(buffer, writer.size(), *this), "what we write isn't valid");
    require(heard_ == before, "a receiver that reports as a sender");
  }

  media_time now_ = 100h;
  source_validator validator_;
  receive_stats stats_{90000};
  sender_clocks sender_;
  sender_clock clock_{90000, sender_};
  nack_list missing_{100ms};
  transport_feedback arrivals_;
  bool begun_ = false;
  int64_t last_ = 0;
  size_t heard_ = 0;
  reorder_buffer order_{100ms, [this](const reorder_buffer::ordered& one) { ordered(one); }};
};

}  // namespace

std::vector<std::string> seeds() {
  const std::string report =
      datagram(std::string("\x80\xc8\x00\x06ssrcntp.ntp.\x00\x00\x10\x00packbyte", 28) +
                   std::string("\x81\xcb\x00\x01ssrc", 8),
               1);
  std::string stream;
  for (const int number : {65533, 65534, 65535, 1, 0, 0, 2, 4, 5, 40, 3, 2000, 2001}) {
    stream += sent(static_cast<uint16_t>(number), static_cast<uint32_t>(number) * 3600U, "media");
  }
  std::string restarted;
  for (const unsigned number : {7U, 8U, 9U, 30000U, 30001U, 30003U}) {
    restarted += sent(static_cast<uint16_t>(number), 0xffffff00U + 90U * number, "m") + report;
  }
  // Transport-wide numbers that jump, turn back and repeat, with pauses in between.
  std::string numbered;
  for (const int number : {65530, 65531, 65535, 3, 2, 3, 600, 4000, 100, 9000, 9001, 50}) {
    std::string bytes("\x90\x60\0\1timessrc\xbe\xde\0\2\x11", 17);
    bytes += {static_cast<char>(number >> 8), static_cast<char>(number)};
    numbered += datagram(bytes + std::string("\x21hi\0\0\1media", 11),
                         static_cast<uint8_t>(number % 3 == 0 ? 255 : 1));
  }
  return {stream, report + restarted,
          datagram(std::string("\xb1\x60\x00\x01\x00\x00\x00\x02ssrccsrc\xbe\xde\x00\x01"
                               "extnmedia\x00\x02",
                               31),
                   0),
          numbered};
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zelta::fuzz::receiver receiver;
  while (size >= 2) {
    const size_t length = std::min<size_t>(data[0], size - 2);
    // Of its own, so that a read past the end is one past the memory.
    const std::vector<uint8_t> bytes(data + 2, data + 2 + length);
    receiver.take(bytes.data(), bytes.size(), std::chrono::milliseconds(4 * data[1]));
    data += 2 + length;
    size -= 2 + length;
  }
  receiver.finish();
  return 0;
}
