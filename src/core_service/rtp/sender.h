// SPDX-License-Identifier: Apache-2.0
// One user who sends RTP: the sockets of each of the description's media lines, the sources that
// send to them, and the RTCP both ways.
//
// Made on any thread; everything else on the packet thread.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "core_service/rtp/packet_thread.h"
#include "core_service/rtp/payload.h"
#include "core_service/rtp/settings.h"
#include "core_service/rtp/sockets.h"
#include "core_service/rtp/srtp/srtp_session.h"
#include "core_service/rtp/stream.h"

namespace zelta::core_service::rtp {

// A media line: where it arrives, and what may come there.
struct media_line {
  socket_pair sockets;
  std::map<int, payload> payloads;
};

class sender : public packet_receiver {
 public:
  // A stream is known by its number, which is never used twice; its first unit begins it.
  struct events {
    std::function<void(int number, const payload& of, media::encoded_unit&& unit)> unit;
    // It has said goodbye, or has been silent for long.
    std::function<void(int number)> gone;
  };

  // Thread and pool are borrowed. `ciphers` may be null: nothing is encrypted. `uid`: who is to
  // blame if this is the end of the process.
  sender(uint32_t uid, std::vector<media_line> lines, const settings& how,
         std::unique_ptr<srtp_session> ciphers, packet_thread& by, media::byte_pool& pool,
         events told);
  ~sender() override;
  sender(const sender&) = delete;
  sender& operator=(const sender&) = delete;

  void start();
  // What waits in the sockets is read before, up to a moment; false: there was more.
  bool stop(media::media_time read_until = media::media_time::max());
  // Asks for a picture that needs no other, of every source of pictures.
  void request_key_frames();

  void on_datagram(const datagram& one) override;
  void on_wake(media::media_time now) override;

  // Any thread: packets that should have been encrypted, and those that could be decrypted.
  uint64_t encrypted() const { return encrypted_; }
  uint64_t decrypted() const { return decrypted_; }
  // Any thread: packets for which there was no room here; known a second later, or after stop().
  uint64_t dropped() const { return dropped_; }

 private:
  struct source {
    int number;
    bool begun = false;     // a unit has come out
    bool finished = false;  // nothing more will
    int others = 0;         // packets of another codec, one after the other
    media::media_time ends{media::media_time::max()};
    media::media_time asked{};
    std::unique_ptr<stream> of;
  };
  struct early_report {
    sender_report of;
    media::media_time arrival;
  };
  struct line {
    media_line of;
    // By SSRC; and what was reported of those that no packet has come of yet.
    std::map<uint32_t, source> sources;
    std::map<uint32_t, early_report> early;
    // Where reports come from, and feedback goes; its size is 0 while nothing has come.
    sockaddr_storage feedback_to{};
    socklen_t feedback_size = 0;
  };
  class control_reader;

  void on_rtp(line& at, const datagram& one, size_t size);
  void on_rtcp(line& at, const datagram& one, size_t size);
  bool may_be_new(const line& at, const datagram& one) const;
  source* find_or_make(line& at, const packet& one, media::media_time arrival);
  source* make_source(line& at, uint32_t ssrc, const payload& of);
  void tick_source(source& one, media::media_time now);
  void end_source(line& at, uint32_t ssrc);
  void ask(line& at, source& whose, media::media_time now);
  void send_reports(line& at, media::media_time now);
  void send(line& at, std::array<uint8_t, 1500>& bytes, size_t size);
  void plan_wake(media::media_time now);
  void count_dropped();

  const uint32_t uid_;
  const settings how_;
  const std::unique_ptr<srtp_session> ciphers_;
  packet_thread& by_;
  media::byte_pool& pool_;
  const events events_;
  const uint32_t own_ssrc_;
  sender_clocks clocks_;
  std::vector<line> lines_;
  int next_number_ = 0;
  media::media_time reported_{};
  bool running_ = false;
  std::atomic<uint64_t> encrypted_{0};
  std::atomic<uint64_t> decrypted_{0};
  std::atomic<uint64_t> dropped_{0};
};

}  // namespace zelta::core_service::rtp
