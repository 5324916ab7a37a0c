// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/transport.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <sys/socket.h>

#include "core_service/rtp/sockets.h"
#include "core_service/webrtc/stun.h"

namespace zelta::core_service::webrtc {
namespace {

// Of one user: each network of theirs, and those that they have moved from.
constexpr size_t kMostAddressesAUser = 16;

}  // namespace

path path::of(const rtp::datagram& one) {
  path made;
  std::memcpy(&made.to, one.from, std::min<size_t>(one.from_size, sizeof made.to));
  made.size = one.from_size;
  made.fd = one.fd;
  return made;
}

std::array<uint8_t, 20> path::key() const {
  std::array<uint8_t, 20> made{};
  if (to.ss_family == AF_INET6) {
    sockaddr_in6 six{};
    std::memcpy(&six, &to, sizeof six);
    std::memcpy(made.data(), &six.sin6_addr, 16);
    std::memcpy(made.data() + 16, &six.sin6_port, 2);
  } else {
    sockaddr_in four{};
    std::memcpy(&four, &to, sizeof four);
    made[10] = made[11] = 0xff;
    std::memcpy(made.data() + 12, &four.sin_addr, 4);
    std::memcpy(made.data() + 16, &four.sin_port, 2);
  }
  return made;
}

size_t transport::key_hash::operator()(const std::array<uint8_t, 20>& key) const {
  uint64_t parts[2];
  uint32_t last = 0;
  std::memcpy(parts, key.data(), sizeof parts);
  std::memcpy(&last, key.data() + sizeof parts, sizeof last);
  constexpr uint64_t kOdd = 0x9e3779b97f4a7c15;
  uint64_t mixed = (parts[0] ^ last) * kOdd;
  mixed = (mixed ^ (mixed >> 32U) ^ parts[1]) * kOdd;
  return mixed ^ (mixed >> 29U);
}

transport::transport(std::vector<base::unique_fd> sockets, rtp::packet_thread& by)
    : sockets_(std::move(sockets)), by_(by) {}

transport::~transport() {
  if (!started_) return;
  for (const base::unique_fd& one : sockets_) by_.remove(one.get());
}

void transport::start() {
  started_ = true;
  for (const base::unique_fd& one : sockets_) by_.add(one.get(), *this, true);
}

bool transport::read_rest(media::media_time until) {
  bool all = true;
  for (const base::unique_fd& one : sockets_) all = by_.read_rest(one.get(), until) && all;
  return all;
}

void transport::add(const std::string& name, transport_user& who) {
  by_name_[name] = &who;
}

void transport::forget(const std::string& name) {
  by_name_.erase(name);
}

void transport::remove(transport_user& who) {
  const auto forget = [&who](auto& users) {
    for (auto at = users.begin(); at != users.end();) {
      at = at->second == &who ? users.erase(at) : std::next(at);
    }
  };
  forget(by_name_);
  forget(by_address_);
}

void transport::send(const path& by, const uint8_t* bytes, size_t size) {
  // What is lost here is as what is lost on the way.
  static_cast<void>(!sendto(by.fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL,
                            reinterpret_cast<const sockaddr*>(&by.to), by.size));
}

uint64_t transport::dropped() const {
  uint64_t sum = 0;
  for (const base::unique_fd& one : sockets_) sum += rtp::dropped_by(one.get());
  return sum;
}

void transport::on_datagram(const rtp::datagram& one) {
  const path from = path::of(one);
  if (looks_like_stun(one.bytes, one.size)) return on_stun(one, from);
  const auto known = by_address_.find(from.key());
  if (known != by_address_.end()) known->second->on_packet(one);
}

void transport::on_stun(const rtp::datagram& one, const path& from) {
  const auto check = parse_stun(one.bytes, one.size);
  // ICE's have a fingerprint, each (RFC 8445, section 7.1).
  if (!check || check->is != stun_class::kRequest || check->method != kBindingMethod ||
      !check->has_fingerprint) {
    return;
  }
  const auto known = by_name_.find(check->username.substr(0, check->username.find(':')));
  if (known == by_name_.end()) return;
  transport_user* const whose = known->second;
  const auto holder = by_address_.find(from.key());
  const bool is_new = holder == by_address_.end();
  // Whoever forges a check may have the password of another user, not of this one.
  const bool taken = !is_new && holder->second != whose && holder->second->is_there();
  if (!whose->on_check(*check, one, taken)) return;
  by_address_[from.key()] = whose;
  if (!is_new) return;
  // Who moves on and on doesn't fill our memory.
  const auto many = std::count_if(by_address_.begin(), by_address_.end(),
                                  [whose](const auto& entry) { return entry.second == whose; });
  if (static_cast<size_t>(many) <= kMostAddressesAUser) return;
  const auto other = std::find_if(by_address_.begin(), by_address_.end(), [&](const auto& entry) {
    return entry.second == whose && entry.first != from.key();
  });
  by_address_.erase(other);
}

}  // namespace zelta::core_service::webrtc
