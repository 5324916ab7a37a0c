// SPDX-License-Identifier: Apache-2.0
// What comes on a stream's port, RTP and RTCP, from the datagram to packets in order with a time.
//
// The input is a row of datagrams, each behind its length in a byte and the 4 ms that have passed
// before it in another.
#include <algorithm>
#include <vector>

#include "core_service/rtp/packet.h"
#include "core_service/rtp/receive_stats.h"
#include "core_service/rtp/reorder_buffer.h"
#include "core_service/rtp/rtcp.h"
#include "core_service/rtp/sender_clock.h"
#include "core_service/rtp/source_validator.h"
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
    if (is_rtcp(bytes, size)) {
      parse_rtcp(bytes, size, *this);
      return;
    }
    const auto one = parse_packet(bytes, size);
    if (!one) return;
    require(one->payload + one->payload_bytes <= bytes + size, "a payload past the end");
    const auto checked = validator_.check(one->sequence);
    require(static_cast<uint16_t>(checked.sequence) == one->sequence, "another's number");
    if (checked.is == verdict::kProbation || checked.is == verdict::kDrop) return;
    if (checked.is == verdict::kRestarted) {
      order_.restart();
      stats_.restarted();
      begun_ = false;
    }
    stats_.received(checked.sequence, one->timestamp, now_);
    order_.push(checked.sequence, bytes, size, now_);
  }

  void finish() {
    order_.finish();
    require(order_.waiting() == 0 && !order_.next_deadline(), "something waits for nothing");
    write_and_read();
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

  void write_and_read() {
    const report_block block = stats_.report(1, now_);
    uint8_t buffer[128];
    rtcp_writer writer(buffer, sizeof buffer);
    require(writer.receiver_report(2, &block, 1) && writer.cname(2, "zelta") &&
                writer.picture_loss(2, 1) && writer.full_intra_request(2, 1, 0),
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
  return {stream, report + restarted,
          datagram(std::string("\xb1\x60\x00\x01\x00\x00\x00\x02ssrccsrc\xbe\xde\x00\x01"
                               "extnmedia\x00\x02",
                               31),
                   0)};
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
