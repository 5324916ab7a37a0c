// SPDX-License-Identifier: Apache-2.0
// SCTP with one peer by somebody else's datagrams (RFC 8261), as data channels have it (RFC 8831).
// What it is told comes in messages of streams; what it says is short.
//
// One thread for all of a process, because the library's timers are.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "core_service/media/media_time.h"

struct socket;  // the library's

namespace zelta::core_service::webrtc {

class sctp_association {
 public:
  static constexpr uint16_t kOwnPort = 5000;
  // The longest message that is taken whole, in bytes.
  static constexpr size_t kMostMessageBytes = size_t{64} * 1024;
  // The most streams in one direction.
  static constexpr uint16_t kMostStreams = 256;

  struct message {
    uint16_t stream = 0;
    uint32_t protocol = 0;  // the payload protocol identifier (RFC 8831, section 8)
    std::vector<uint8_t> bytes;
    // Longer than it may be: only its beginning is there.
    bool is_cut = false;
  };
  // One packet, valid until it returns. From within all that is called here, and, since the
  // library's timers are the process's, from within another association's advance().
  using send_packet = std::function<void(const uint8_t* bytes, size_t size)>;
  // From within take() and advance(), and not to destroy the association.
  struct events {
    std::function<void()> connected;
    std::function<void(message&&)> message;
    // The peer has ended the stream, which is ended in the other direction as well.
    std::function<void(uint16_t stream)> stream_ended;
    // It is over although the peer hasn't said so, or can't begin.
    std::function<void()> broken;
  };

  // Connects at once: both sides do, and meet. Null when the library refuses.
  static std::unique_ptr<sctp_association> make(uint16_t their_port, send_packet send, events told);
  sctp_association(const sctp_association&) = delete;
  sctp_association& operator=(const sctp_association&) = delete;
  // Tells the peer.
  ~sctp_association();

  // One packet of the peer's.
  void take(const uint8_t* bytes, size_t size);
  // Sends again what may be lost. Due every kTick.
  void advance(media::media_time now);
  static constexpr media::media_time kTick = std::chrono::milliseconds(100);

  // Nothing more goes out by the stream, and the peer hears of it.
  void end_stream(uint16_t stream);
  // False when it is not connected, or has no room.
  bool send(uint16_t stream, uint32_t protocol, const uint8_t* bytes, size_t size);

 private:
  sctp_association(send_packet send, events told);
  bool open(uint16_t their_port);
  void read();
  bool read_one();
  void take_notice(const uint8_t* bytes, size_t size);
  void end_streams(const uint8_t* numbers, size_t size);
  void reset(uint16_t stream);
  static int on_output(void* address, void* bytes, size_t size, uint8_t tos, uint8_t no_fragments);

  const send_packet send_;
  const events events_;
  struct socket* socket_ = nullptr;
  std::set<uint16_t> ending_;  // by us, and the peer hasn't answered
  message partial_;
  std::vector<uint8_t> buffer_;
};

}  // namespace zelta::core_service::webrtc
