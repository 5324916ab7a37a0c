// SPDX-License-Identifier: Apache-2.0
// The one UDP port that all WebRTC users of a recorder send to. Who sent a datagram is known by its
// address, once a STUN check of theirs has come from there (RFC 8445); what it is, by its first
// byte (RFC 7983).
//
// Made on any thread; everything else on the packet thread, its destruction too.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <netinet/in.h>

#include "base/unique_fd.h"
#include "core_service/rtp/packet_thread.h"

namespace zelta::core_service::webrtc {

struct stun_message;

// An end of a path: the other's address, and the socket of ours that it is reached by.
struct path {
  sockaddr_storage to{};
  socklen_t size = 0;  // 0: none
  int fd = -1;

  static path of(const rtp::datagram& one);
  bool operator==(const path& other) const { return key() == other.key(); }
  // The same for an IPv4 address and its IPv6 form.
  std::array<uint8_t, 20> key() const;
};

// One user's end; borrowed.
class transport_user {
 public:
  virtual ~transport_user() = default;
  // A STUN check whose username begins with a name of this user's. True: it is the user's, so that
  // what comes from its address is, too. `taken`: the address is another user's who is there.
  virtual bool on_check(const stun_message& check, const rtp::datagram& one, bool taken) = 0;
  // Whether something of the user's came of late.
  virtual bool is_there() const = 0;
  // Anything but STUN, from an address of the user's.
  virtual void on_packet(const rtp::datagram& one) = 0;
};

class transport : public rtp::packet_receiver {
 public:
  // Thread and users are borrowed.
  transport(std::vector<base::unique_fd> sockets, rtp::packet_thread& by);
  ~transport() override;
  transport(const transport&) = delete;
  transport& operator=(const transport&) = delete;

  void start();
  rtp::packet_thread& thread() const { return by_; }
  // What waits in the sockets is read, up to a moment; false: there was more.
  bool read_rest(media::media_time until);

  // `name`: the user's ICE user name fragment; it may have several.
  void add(const std::string& name, transport_user& who);
  // One of several; its addresses stay.
  void forget(const std::string& name);
  // With its addresses.
  void remove(transport_user& who);
  void send(const path& by, const uint8_t* bytes, size_t size);
  // Any thread: datagrams that found no room in the sockets.
  uint64_t dropped() const;

  void on_datagram(const rtp::datagram& one) override;
  void on_wake(media::media_time /*now*/) override {}

 private:
  struct key_hash {
    size_t operator()(const std::array<uint8_t, 20>& key) const;
  };

  void on_stun(const rtp::datagram& one, const path& from);

  const std::vector<base::unique_fd> sockets_;
  rtp::packet_thread& by_;
  bool started_ = false;
  std::map<std::string, transport_user*, std::less<>> by_name_;
  std::unordered_map<std::array<uint8_t, 20>, transport_user*, key_hash> by_address_;
};

}  // namespace zelta::core_service::webrtc
