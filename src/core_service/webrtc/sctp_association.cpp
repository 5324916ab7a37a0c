// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/sctp_association.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <utility>

#include <usrsctp.h>

#include "core_service/media/timeline.h"

namespace zelta::core_service::webrtc {
namespace {

using media::media_time;

// Below what DTLS sends in a datagram, with what it adds (RFC 5288, section 3: 37 bytes).
constexpr uint32_t kPacketBytes = 1150;
// Of messages that wait to be whole. A peer may send more only once they were read.
constexpr int kBufferBytes = 128 * 1024;
constexpr size_t kReadBytes = size_t{16} * 1024;

// The library is one for the process.
class library {
 public:
  using output = int (*)(void*, void*, size_t, uint8_t, uint8_t);

  static library& of_process(output to) {
    static library one(to);
    return one;
  }

  void add(sctp_association* one) {
    const std::lock_guard<std::mutex> hold(lock_);
    alive_.insert(one);
    usrsctp_register_address(one);
  }
  void remove(sctp_association* one) {
    usrsctp_deregister_address(one);
    const std::lock_guard<std::mutex> hold(lock_);
    alive_.erase(one);
  }
  // What the library has kept of one that is gone is sent to nobody.
  bool has(sctp_association* one) {
    const std::lock_guard<std::mutex> hold(lock_);
    return alive_.count(one) != 0;
  }
  // Whoever asks, for all.
  void advance(media_time now) {
    constexpr media_time kStep = std::chrono::milliseconds(10);
    media_time since{};
    {
      const std::lock_guard<std::mutex> hold(lock_);
      since = now - std::exchange(advanced_, now);
      if (since < kStep) {
        advanced_ -= since;
        return;
      }
      advanced_ -= since % std::chrono::milliseconds(1);
    }
    usrsctp_handle_timers(static_cast<uint32_t>(since / std::chrono::milliseconds(1)));
  }

 private:
  explicit library(output to) : advanced_(media::now()) {
    usrsctp_init_nothreads(0, to, nullptr);
    // To packets of no association nothing is said, and nothing is done that data channels have no
    // use for.
    usrsctp_sysctl_set_sctp_blackhole(2);
    usrsctp_sysctl_set_sctp_ecn_enable(0);
    usrsctp_sysctl_set_sctp_asconf_enable(0);
    usrsctp_sysctl_set_sctp_auth_enable(0);
    usrsctp_sysctl_set_sctp_nr_outgoing_streams_default(sctp_association::kMostStreams);
  }

  std::mutex lock_;
  std::set<sctp_association*> alive_;
  media_time advanced_{};
};

sockaddr_conn place(sctp_association* whose, uint16_t port) {
  sockaddr_conn made{};
  made.sconn_family = AF_CONN;
  made.sconn_port = htons(port);
  made.sconn_addr = whose;
  return made;
}

template <class Value>
bool set(struct socket* of, int level, int name, const Value& value) {
  return usrsctp_setsockopt(of, level, name, &value, sizeof value) == 0;
}

bool want_notice(struct socket* of, uint16_t type) {
  sctp_event event{};
  event.se_assoc_id = SCTP_FUTURE_ASSOC;
  event.se_type = type;
  event.se_on = 1;
  return set(of, IPPROTO_SCTP, SCTP_EVENT, event);
}

bool set_up(struct socket* of) {
  sctp_initmsg streams{};
  streams.sinit_num_ostreams = sctp_association::kMostStreams;
  streams.sinit_max_instreams = sctp_association::kMostStreams;
  sctp_assoc_value resets{};
  resets.assoc_id = SCTP_FUTURE_ASSOC;
  resets.assoc_value = SCTP_ENABLE_RESET_STREAM_REQ;
  // Closed at once, with a word to the peer.
  linger at_once{};
  at_once.l_onoff = 1;
  const int on = 1;
  return usrsctp_set_non_blocking(of, 1) == 0 && set(of, SOL_SOCKET, SO_LINGER, at_once) &&
         set(of, SOL_SOCKET, SO_RCVBUF, kBufferBytes) &&
         set(of, SOL_SOCKET, SO_SNDBUF, kBufferBytes) &&
         set(of, IPPROTO_SCTP, SCTP_INITMSG, streams) &&
         set(of, IPPROTO_SCTP, SCTP_ENABLE_STREAM_RESET, resets) &&
         set(of, IPPROTO_SCTP, SCTP_RECVRCVINFO, on) && set(of, IPPROTO_SCTP, SCTP_NODELAY, on) &&
         want_notice(of, SCTP_ASSOC_CHANGE) && want_notice(of, SCTP_STREAM_RESET_EVENT);
}

}  // namespace

std::unique_ptr<sctp_association> sctp_association::make(uint16_t their_port, send_packet send,
                                                         events told) {
  std::unique_ptr<sctp_association> made(new sctp_association(std::move(send), std::move(told)));
  return made->open(their_port) ? std::move(made) : nullptr;
}

sctp_association::sctp_association(send_packet send, events told)
    : send_(std::move(send)), events_(std::move(told)), buffer_(kReadBytes) {
  library::of_process(on_output).add(this);
}

sctp_association::~sctp_association() {
  if (socket_ != nullptr) usrsctp_close(socket_);
  library::of_process(on_output).remove(this);
}

bool sctp_association::open(uint16_t their_port) {
  socket_ = usrsctp_socket(AF_CONN, SOCK_STREAM, IPPROTO_SCTP, nullptr, nullptr, 0, nullptr);
  if (socket_ == nullptr || !set_up(socket_)) return false;
  sockaddr_conn own = place(this, sctp_association::kOwnPort);
  sockaddr_conn theirs = place(this, their_port);
  if (usrsctp_bind(socket_, reinterpret_cast<sockaddr*>(&own), sizeof own) != 0) return false;
  if (usrsctp_connect(socket_, reinterpret_cast<sockaddr*>(&theirs), sizeof theirs) != 0 &&
      errno != EINPROGRESS) {
    return false;
  }
  // Of the one address that there is, which it has only now.
  sctp_paddrparams way{};
  memcpy(&way.spp_address, &theirs, sizeof theirs);
  way.spp_flags = SPP_PMTUD_DISABLE;
  way.spp_pathmtu = kPacketBytes;
  return set(socket_, IPPROTO_SCTP, SCTP_PEER_ADDR_PARAMS, way);
}

int sctp_association::on_output(void* address, void* bytes, size_t size, uint8_t /*tos*/,
                                uint8_t /*no_fragments*/) {
  auto* const whose = static_cast<sctp_association*>(address);
  if (library::of_process(on_output).has(whose))
    whose->send_(static_cast<const uint8_t*>(bytes), size);
  return 0;
}

void sctp_association::take(const uint8_t* bytes, size_t size) {
  usrsctp_conninput(this, bytes, size, 0);
  read();
}

void sctp_association::advance(media_time now) {
  library::of_process(on_output).advance(now);
  read();
}

void sctp_association::read() {
  while (read_one()) {
  }
}

bool sctp_association::read_one() {
  sctp_rcvinfo about{};
  socklen_t about_size = sizeof about;
  unsigned about_type = SCTP_RECVV_NOINFO;
  int flags = 0;
  const ssize_t got = usrsctp_recvv(socket_, buffer_.data(), buffer_.size(), nullptr, nullptr,
                                    &about, &about_size, &about_type, &flags);
  if (got <= 0) return false;
  const auto size = static_cast<size_t>(got);
  const uint8_t* const bytes = buffer_.data();
  if ((static_cast<unsigned>(flags) & MSG_NOTIFICATION) != 0) {
    take_notice(bytes, size);
    return true;
  }
  if (about_type != SCTP_RECVV_RCVINFO) return true;
  const size_t room = kMostMessageBytes - partial_.bytes.size();
  partial_.is_cut = partial_.is_cut || size > room;
  partial_.bytes.insert(partial_.bytes.end(), bytes, bytes + std::min(size, room));
  if ((static_cast<unsigned>(flags) & MSG_EOR) == 0) return true;
  partial_.stream = about.rcv_sid;
  partial_.protocol = ntohl(about.rcv_ppid);
  events_.message(std::exchange(partial_, {}));
  return true;
}

void sctp_association::take_notice(const uint8_t* bytes, size_t size) {
  sctp_assoc_change change{};
  sctp_stream_reset_event reset{};
  uint16_t type = 0;
  if (size < sizeof type) return;
  memcpy(&type, bytes, sizeof type);
  if (type == SCTP_ASSOC_CHANGE && size >= sizeof change) {
    memcpy(&change, bytes, sizeof change);
    const bool is_up = change.sac_state == SCTP_COMM_UP || change.sac_state == SCTP_RESTART;
    // Of another association than what comes.
    if (is_up) partial_ = {};
    if (change.sac_state == SCTP_COMM_UP) events_.connected();
    // A peer's own words to its end come behind.
    const bool is_ours = size == sizeof change;
    if (change.sac_state == SCTP_CANT_STR_ASSOC ||
        (change.sac_state == SCTP_COMM_LOST && is_ours)) {
      events_.broken();
    }
  } else if (type == SCTP_STREAM_RESET_EVENT && size >= sizeof reset) {
    memcpy(&reset, bytes, sizeof reset);
    const unsigned unwanted = SCTP_STREAM_RESET_DENIED | SCTP_STREAM_RESET_FAILED;
    if ((reset.strreset_flags & SCTP_STREAM_RESET_INCOMING_SSN) != 0 &&
        (reset.strreset_flags & unwanted) == 0) {
      end_streams(bytes + sizeof reset, size - sizeof reset);
    }
  }
}

// RFC 8831, section 6.7: a channel is closed in both directions.
void sctp_association::end_streams(const uint8_t* numbers, size_t size) {
  constexpr size_t kNumber = sizeof(uint16_t);
  // None stands for all.
  for (uint16_t stream = 0; size == 0 && stream < kMostStreams; ++stream) {
    events_.stream_ended(stream);
  }
  for (size_t at = 0; at + kNumber <= size; at += kNumber) {
    uint16_t stream = 0;
    memcpy(&stream, numbers + at, kNumber);
    if (ending_.erase(stream) == 0) reset(stream);
    events_.stream_ended(stream);
  }
}

void sctp_association::end_stream(uint16_t stream) {
  if (ending_.insert(stream).second) reset(stream);
}

void sctp_association::reset(uint16_t stream) {
  std::array<uint8_t, sizeof(sctp_reset_streams) + sizeof stream> request{};
  sctp_reset_streams of{};
  of.srs_flags = SCTP_STREAM_RESET_OUTGOING;
  of.srs_number_streams = 1;
  memcpy(request.data(), &of, sizeof of);
  memcpy(request.data() + sizeof of, &stream, sizeof stream);
  static_cast<void>(set(socket_, IPPROTO_SCTP, SCTP_RESET_STREAMS, request));
}

bool sctp_association::send(uint16_t stream, uint32_t protocol, const uint8_t* bytes, size_t size) {
  sctp_sndinfo about{};
  about.snd_sid = stream;
  about.snd_ppid = htonl(protocol);
  return usrsctp_sendv(socket_, bytes, size, nullptr, 0, &about, sizeof about, SCTP_SENDV_SNDINFO,
                       0) >= 0;
}

}  // namespace zelta::core_service::webrtc
