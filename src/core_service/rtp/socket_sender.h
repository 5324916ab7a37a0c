// SPDX-License-Identifier: Apache-2.0
// A user who sends RTP to sockets of their own: one or two for each of the description's media
// lines.
//
// Made on any thread; everything else on the packet thread.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "core_service/rtp/line.h"
#include "core_service/rtp/packet_thread.h"
#include "core_service/rtp/sender.h"
#include "core_service/rtp/settings.h"
#include "core_service/rtp/sockets.h"
#include "core_service/rtp/srtp/srtp_session.h"

namespace zelta::core_service::rtp {

// A media line: where it arrives, and what may come there.
struct media_line {
  socket_pair sockets;
  std::map<int, payload> payloads;
};

class socket_sender : public sender, public packet_receiver {
 public:
  // Thread and pool are borrowed. `ciphers` may be null: nothing is encrypted. `uid`: who is to
  // blame if this is the end of the process.
  socket_sender(uint32_t uid, std::vector<media_line> lines, const settings& how,
                std::unique_ptr<srtp_session> ciphers, packet_thread& by, media::byte_pool& pool,
                events told);
  ~socket_sender() override;
  socket_sender(const socket_sender&) = delete;
  socket_sender& operator=(const socket_sender&) = delete;

  void start() override;
  bool stop(media::media_time read_until) override;
  void request_key_frames() override;
  uint64_t dropped() const override { return dropped_; }
  std::string fault() const override;

  void on_datagram(const datagram& one) override;
  void on_wake(media::media_time now) override;

 private:
  struct end {
    end(media_line of, line_commons& commons, line::send_control send);

    socket_pair sockets;
    line media;
    // Where reports come from, and feedback goes; its size is 0 while nothing has come.
    sockaddr_storage feedback_to{};
    socklen_t feedback_size = 0;
  };

  void take(end& at, const datagram& one, bool control);
  bool send(const end& at, control_bytes& bytes, size_t size);
  void plan_wake(media::media_time now);
  void count_dropped();

  const uint32_t uid_;
  const std::unique_ptr<srtp_session> ciphers_;
  packet_thread& by_;
  line_commons commons_;
  std::deque<end> ends_;
  media::media_time reported_{};
  bool running_ = false;
  std::atomic<uint64_t> encrypted_{0};  // packets that should be
  std::atomic<uint64_t> decrypted_{0};
  std::atomic<uint64_t> dropped_{0};
};

}  // namespace zelta::core_service::rtp
