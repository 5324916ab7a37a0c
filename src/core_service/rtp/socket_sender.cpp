// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/socket_sender.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "core_service/folder/crash_note.h"

namespace zelta::core_service::rtp {
namespace {

using namespace std::chrono_literals;
using media::media_time;

constexpr media_time kReportInterval = 1s;
// So many packets without one that could be decrypted are no accident.
constexpr uint64_t kUndecryptable = 20;

}  // namespace

socket_sender::socket_sender(uint32_t uid, std::vector<media_line> lines, const settings& how,
                             std::unique_ptr<srtp_session> ciphers, packet_thread& by,
                             media::byte_pool& pool, events told)
    : uid_(uid), ciphers_(std::move(ciphers)), by_(by), commons_(how, pool, std::move(told)) {
  for (media_line& one : lines) {
    // It is made when there is a place that it lies at for good.
    const size_t place = ends_.size();
    ends_.emplace_back(std::move(one), commons_, [this, place](control_bytes& bytes, size_t size) {
      return send(ends_[place], bytes, size);
    });
  }
}

socket_sender::end::end(media_line of, line_commons& commons, line::send_control send)
    : sockets(std::move(of.sockets)), media(std::move(of.payloads), commons, std::move(send)) {}

socket_sender::~socket_sender() = default;

void socket_sender::start() {
  running_ = true;
  for (const end& one : ends_) {
    by_.add(one.sockets.rtp.get(), *this);
    if (one.sockets.rtcp.valid()) by_.add(one.sockets.rtcp.get(), *this);
  }
  plan_wake(media::now());
}

bool socket_sender::stop(media_time read_until) {
  if (!running_) return true;
  bool read = true;
  for (const end& one : ends_) read = by_.read_rest(one.sockets.rtp.get(), read_until) && read;
  running_ = false;
  const blamed_thread whom(uid_, crash_stage::kReceiving);
  for (end& one : ends_) one.media.finish();
  count_dropped();
  by_.wake_at(*this, media_time::zero());
  for (const end& one : ends_) {
    by_.remove(one.sockets.rtp.get());
    if (one.sockets.rtcp.valid()) by_.remove(one.sockets.rtcp.get());
  }
  return read;
}

void socket_sender::on_datagram(const datagram& one) {
  const blamed_thread whom(uid_, crash_stage::kReceiving);
  for (end& at : ends_) {
    const bool on_rtcp_port = one.fd == at.sockets.rtcp.get();
    if (!on_rtcp_port && one.fd != at.sockets.rtp.get()) continue;
    return take(at, one, on_rtcp_port || is_rtcp(one.bytes, one.size));
  }
}

void socket_sender::take(end& at, const datagram& one, bool control) {
  size_t size = one.size;
  if (!control) {
    // libsrtp keeps a state of every source that it has seen.
    const auto sent = parse_packet(one.bytes, size);
    if (!sent || !at.media.takes(sent->payload_type, sent->ssrc)) return;
  }
  if (ciphers_) {
    if (!control) ++encrypted_;
    const auto left =
        control ? ciphers_->decrypt_rtcp(one.bytes, size) : ciphers_->decrypt_rtp(one.bytes, size);
    if (!left) return;
    if (!control) ++decrypted_;
    size = *left;
  }
  if (control) {
    if (!at.media.take_control(one.bytes, size, one.arrival)) return;
    std::memcpy(&at.feedback_to, one.from, one.from_size);
    at.feedback_size = one.from_size;
  } else if (const auto parsed = parse_packet(one.bytes, size)) {
    // It may have to wait for another from now on.
    if (at.media.take(*parsed, one.bytes, size, one.arrival)) plan_wake(one.arrival);
  }
}

void socket_sender::on_wake(media_time now) {
  const blamed_thread whom(uid_, crash_stage::kReceiving);
  const bool report_due = now - reported_ >= kReportInterval;
  if (report_due) reported_ = now;
  if (report_due) count_dropped();
  for (end& at : ends_) {
    at.media.advance(now);
    if (report_due && at.feedback_size != 0) at.media.send_report(now);
  }
  plan_wake(now);
}

void socket_sender::count_dropped() {
  uint64_t sum = 0;
  for (const end& one : ends_) {
    sum += dropped_by(one.sockets.rtp.get());
    if (one.sockets.rtcp.valid()) sum += dropped_by(one.sockets.rtcp.get());
  }
  dropped_ = sum;
}

void socket_sender::plan_wake(media_time now) {
  media_time next = std::max(reported_, now - kReportInterval) + kReportInterval;
  for (const end& at : ends_) next = at.media.next_deadline(next);
  by_.wake_at(*this, std::max(next, now + 1ms));
}

void socket_sender::request_key_frames() {
  const blamed_thread whom(uid_, crash_stage::kReceiving);
  for (end& at : ends_) at.media.request_key_frames(media::now());
}

bool socket_sender::send(const end& at, control_bytes& bytes, size_t size) {
  if (at.feedback_size == 0) return false;
  if (ciphers_) {
    const auto encrypted = ciphers_->encrypt_rtcp(bytes.data(), size);
    if (!encrypted) return true;
    size = *encrypted;
  }
  const int fd = at.sockets.rtcp.valid() ? at.sockets.rtcp.get() : at.sockets.rtp.get();
  // What is lost here is asked for again.
  static_cast<void>(!sendto(fd, bytes.data(), size, MSG_DONTWAIT,
                            reinterpret_cast<const sockaddr*>(&at.feedback_to), at.feedback_size));
  return true;
}

std::string socket_sender::fault() const {
  if (encrypted_ < kUndecryptable || decrypted_ > 0) return "";
  return "none of its packets can be decrypted: --encrypt_mode or --encrypt_secret is not the "
         "sender's";
}

}  // namespace zelta::core_service::rtp
