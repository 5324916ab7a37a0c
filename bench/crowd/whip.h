// SPDX-License-Identifier: Apache-2.0
// Users who publish by WHIP (RFC 9725) and WebRTC: a socket, a session of DTLS and a key each.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "crowd/outlet.h"
#include "support/webrtc/client.h"

namespace zelta::crowd {

// "http://ADDRESS:PORT/CHANNEL", the address one of IPv4, in digits.
struct whip_url {
  std::string address;
  uint16_t port = 0;
  std::string path;  // from the slash on
};
std::optional<whip_url> parse_whip_url(const std::string& text);

class whip_outlet final : public outlet {
 public:
  // Lets the users of these streams join, one after the other within about 2 s where they are a
  // hundred, and waits, `limit` at most, until they are connected. The streams of those who aren't
  // are taken out, and told on standard error. Null when there is no key to be had.
  static std::unique_ptr<whip_outlet> join(const whip_url& at, std::vector<stream>& streams,
                                           std::chrono::seconds limit);

  void add(stream& from, const stream::packet& packet) override;
  void add_report(stream& from, const report& of) override;
  void flush() override;
  // Everybody says goodbye.
  void leave();

  uint64_t packets() const override { return sum(&test::webrtc_client::counters::packets); }
  uint64_t bytes_sent() const override { return sum(&test::webrtc_client::counters::bytes); }
  uint64_t errors() const override;
  // The port that all send to, and what has come back: packets that were asked for, packets that
  // are known to have arrived.
  std::string more() const override;

 private:
  struct user {
    uint32_t uid = 0;
    std::unique_ptr<test::webrtc_client> client;
    // SSRCs of its lines, in their order.
    std::vector<uint32_t> ssrcs;
  };

  whip_outlet() : ready_(epoll_create()) {}
  static base::unique_fd epoll_create();
  bool add_user(const whip_url& at, const std::vector<const stream*>& of,
                const std::shared_ptr<const core_service::webrtc::certificate>& as);
  void step_for(std::chrono::milliseconds span);
  bool all_connected() const;
  void let_go_of_others(std::vector<stream>& streams);
  user* user_of(uint32_t uid);
  uint64_t sum(uint64_t test::webrtc_client::counters::*of) const;

  const base::unique_fd ready_;
  std::vector<user> users_;  // by uid, from 1 on
  uint64_t unsent_ = 0;
};

}  // namespace zelta::crowd
