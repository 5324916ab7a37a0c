// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/peer.h"

#include <algorithm>
#include <array>
#include <utility>

#include "core_service/folder/crash_note.h"
#include "core_service/rtp/network_order.h"
#include "core_service/rtp/packet.h"
#include "core_service/rtp/retransmission.h"

namespace zelta::core_service::webrtc {
namespace {

using namespace std::chrono_literals;
using media::media_time;

constexpr media_time kReportInterval = 1s;
// A sender adapts its rate by what it hears, and hears of each packet once.
constexpr media_time kFeedbackInterval = 100ms;
// From the answer to the first packet: people are asked for permission before the offer, not
// behind it.
constexpr media_time kSetupPatience = 20s;

// Whose address nobody else is given. ICE's checks come more often.
constexpr media_time kThere = 5s;
constexpr size_t kMostReporters = 64;

constexpr int kUnauthorized = 401;
constexpr int kUnknownAttribute = 420;
constexpr int kRoleConflict = 487;

}  // namespace

std::shared_ptr<peer> peer::make(terms agreed, const rtp::settings& how,
                                 std::shared_ptr<transport> by, media::byte_pool& pool,
                                 rtp::sender::events told, notices noticed, std::string& error) {
  std::shared_ptr<peer> made(
      new peer(std::move(agreed), how, std::move(by), pool, std::move(told), std::move(noticed)));
  made->dtls_ = dtls_session::make(
      made->terms_.as, made->terms_.fingerprint,
      {[to = made.get()](const uint8_t* bytes, size_t size) {
         if (to->path_.size != 0) to->transport_->send(to->path_, bytes, size);
       },
       [to = made.get()](const uint8_t* bytes, size_t size) { to->on_data(bytes, size); }},
      error);
  return made->dtls_ ? made : nullptr;
}

peer::peer(terms agreed, const rtp::settings& how, std::shared_ptr<transport> by,
           media::byte_pool& pool, rtp::sender::events told, notices noticed)
    : terms_(std::move(agreed)),
      transport_(std::move(by)),
      notices_(std::move(noticed)),
      commons_(how, pool, std::move(told)),
      bundle_(terms_.lines) {
  for (const offered_line& one : terms_.lines) {
    lines_.emplace_back(
        one.payloads, commons_,
        [this](rtp::control_bytes& bytes, size_t size) { return send_control(bytes, size); },
        one.rids.size() > 1);
    if (one.transport_cc) transport_extension_ = one.transport_cc_extension;
  }
  names_.push_back({terms_.own, terms_.their_ufrag});
  heard_->note(media::now());
}

peer::~peer() {
  heard_->forget();
}

void peer::start() {
  running_ = true;
  begun_ = reported_ = media::now();
  for (const name& one : names_) transport_->add(one.own.ufrag, *this);
  transport_->thread().wake_at(*this, begun_ + kReportInterval);
}

bool peer::stop(media_time read_until) {
  if (!running_) return true;
  const bool read = transport_->read_rest(read_until);
  running_ = false;
  const blamed_thread whom(terms_.uid, crash_stage::kReceiving);
  for (rtp::line& one : lines_) one.finish();
  channels_.reset();
  dtls_->close();
  end(kLetGo);
  transport_->thread().wake_at(*this, media_time::zero());
  transport_->remove(*this);
  return read;
}

void peer::request_key_frames() {
  const blamed_thread whom(terms_.uid, crash_stage::kReceiving);
  for (rtp::line& one : lines_) one.request_key_frames(media::now());
}

void peer::restart_ice(ice_credentials own, std::string their_ufrag) {
  if (!running_) return;
  // One that was asked for and never came into use is forgotten.
  if (names_.size() > 1) {
    transport_->forget(names_.back().own.ufrag);
    names_.pop_back();
  }
  transport_->add(own.ufrag, *this);
  names_.push_back({std::move(own), std::move(their_ufrag)});
}

void peer::end(const std::string& why) {
  if (std::exchange(ended_, true)) return;
  if (notices_.ended) notices_.ended(why);
}

// ---- ICE -----------------------------------------------------------------------------------

bool peer::is_there() const {
  return heard_->within(kThere);
}

bool peer::on_check(const stun_message& check, const rtp::datagram& one, bool taken) {
  const path from = path::of(one);
  const auto whose = std::find_if(names_.begin(), names_.end(), [&check](const name& known) {
    return check.username == known.own.ufrag + ":" + known.theirs;
  });
  // Not answered: the answer would be longer than what was asked, and may go to anybody.
  if (!check.has_integrity || taken) return false;
  if (whose == names_.end() || !has_integrity_of(one.bytes, check, whose->own.password)) {
    answer_check(check, from, kUnauthorized, "Unauthorized", "");
    return false;
  }
  const std::string& password = whose->own.password;
  heard_->note(one.arrival);
  if (check.unknown_count > 0) {
    answer_check(check, from, kUnknownAttribute, "Unknown Attribute", password);
    return false;
  }
  // A lite end is never the controlling one (RFC 8445, section 6.1.1).
  if (check.controlled) {
    answer_check(check, from, kRoleConflict, "Role Conflict", password);
    return false;
  }
  answer_check(check, from, 0, "", password);
  // The restart is complete.
  if (whose != names_.begin()) {
    transport_->forget(names_.front().own.ufrag);
    names_.pop_front();
  }
  if (check.use_candidate || path_.size == 0) path_ = from;
  return true;
}

void peer::answer_check(const stun_message& check, const path& from, int error, const char* reason,
                        const std::string& password) {
  stun_buffer bytes;
  const size_t size =
      error == 0 ? write_binding_success(bytes, check.transaction,
                                         reinterpret_cast<const sockaddr*>(&from.to), password)
                 : write_binding_error(bytes, check.transaction, error, reason, &check, password);
  transport_->send(from, bytes.data(), size);
}

// ---- Packets -------------------------------------------------------------------------------

void peer::on_packet(const rtp::datagram& one) {
  const blamed_thread whom(terms_.uid, crash_stage::kReceiving);
  if (ended_) return;
  if (looks_like_dtls(one.bytes, one.size)) return on_dtls(one);
  if (!ciphers_) return;
  rtp::is_rtcp(one.bytes, one.size) ? on_rtcp(one) : on_rtp(one);
}

void peer::on_dtls(const rtp::datagram& one) {
  data_came_ = one.arrival;
  dtls_->take(one.bytes, one.size, one.arrival);
  look_at_dtls();
  plan_wake(one.arrival);
}

void peer::look_at_dtls() {
  const dtls_session::state is = dtls_->is();
  if (is == dtls_session::state::kFailed) return end(dtls_->why());
  if (is == dtls_session::state::kClosed) return end("has left");
  if (is != dtls_session::state::kConnected || ciphers_) return;
  const auto& keys = dtls_->keys();
  if (keys) ciphers_ = rtp::srtp_session::make(keys->in, keys->out);
  if (!ciphers_) return end("no cipher of theirs is one of ours");
  dtls_->forget_keys();
  open_channels();
  if (notices_.connected) notices_.connected();
}

// Some of it may come before anybody has seen that there is a connection.
void peer::on_data(const uint8_t* bytes, size_t size) {
  open_channels();
  if (channels_) channels_->take(bytes, size);
}

void peer::open_channels() {
  if (!terms_.sctp_port || std::exchange(channels_tried_, true)) return;
  channels_ = data_channels::make(
      *terms_.sctp_port, terms_.opens_channel,
      {[this](const uint8_t* bytes, size_t size) { dtls_->send(bytes, size); },
       [this](const std::string& label, std::string&& text) {
         commons_.events.text({data_came_, label, std::move(text)});
       },
       [this](missing_medium&& what) { commons_.events.missing(std::move(what)); }});
  if (!channels_) commons_.events.missing({"messages", "", "data channels can't be opened here"});
}

void peer::on_rtp(const rtp::datagram& one) {
  auto parsed = rtp::parse_packet(one.bytes, one.size);
  if (!parsed) return;
  const auto place = bundle_.find(*parsed);
  // Known from its header, before the cipher keeps a state of its source.
  if (!place || !lines_[place->line].takes(place->payload_type, place->ssrc)) return;
  const auto left = ciphers_->decrypt_rtp(one.bytes, one.size);
  if (!left) return;
  heard_->note(one.arrival);
  size_t size = *left;
  parsed = rtp::parse_packet(one.bytes, size);
  if (!parsed) return;
  bundle_.remember(*parsed, *place);
  if (transport_extension_ != 0) {
    if (const auto number = rtp::transport_number_of(*parsed, transport_extension_)) {
      arrivals_.received(*number, one.arrival);
      source_ = place->ssrc;
      if (!std::exchange(arrived_, true)) plan_wake(one.arrival);
    }
  }
  rtp::line& at = lines_[place->line];
  if (!place->repeats) {
    if (at.take(*parsed, one.bytes, size, one.arrival)) plan_wake(one.arrival);
    return;
  }
  const auto restored = rtp::restore(one.bytes, size, place->ssrc, place->payload_type);
  // One of padding alone only measures the way.
  if (!restored) return;
  parsed = rtp::parse_packet(one.bytes, *restored);
  if (parsed && at.take_again(*parsed, one.bytes, *restored, one.arrival)) plan_wake(one.arrival);
}

void peer::on_rtcp(const rtp::datagram& one) {
  constexpr size_t kHeaderBytes = 8;
  if (one.size < kHeaderBytes) return;
  const uint32_t reporter = rtp::read_32(one.bytes + 4);
  const bool is_new = reporters_.count(reporter) == 0;
  if (is_new && reporters_.size() >= kMostReporters) return;
  const auto left = ciphers_->decrypt_rtcp(one.bytes, one.size);
  if (!left) return;
  if (is_new) reporters_.insert(reporter);
  heard_->note(one.arrival);
  for (rtp::line& at : lines_) at.take_control(one.bytes, *left, one.arrival);
}

// ---- What is sent --------------------------------------------------------------------------

bool peer::send_control(rtp::control_bytes& bytes, size_t size) {
  if (path_.size == 0 || !ciphers_) return false;
  const auto encrypted = ciphers_->encrypt_rtcp(bytes.data(), size);
  if (encrypted) transport_->send(path_, bytes.data(), *encrypted);
  return true;
}

void peer::send_transport_feedback(media_time now) {
  feedback_sent_ = now;
  arrived_ = false;
  while (arrivals_.waiting()) {
    rtp::control_bytes bytes;
    rtp::rtcp_writer to(bytes.data(), bytes.size() - rtp::srtp_session::kMostAdded);
    to.receiver_report(commons_.own_ssrc, nullptr, 0);
    if (!arrivals_.write(to, commons_.own_ssrc, source_) || !send_control(bytes, to.size())) return;
  }
}

void peer::on_wake(media_time now) {
  const blamed_thread whom(terms_.uid, crash_stage::kReceiving);
  if (!ended_) {
    dtls_->advance(now);
    look_at_dtls();
  }
  if (channels_ && now >= channels_due_) {
    data_came_ = now;
    channels_due_ = now + sctp_association::kTick;
    channels_->advance(now);
  }
  const bool report_due = now - reported_ >= kReportInterval;
  if (report_due) reported_ = now;
  for (rtp::line& one : lines_) {
    one.advance(now);
    if (report_due && ciphers_) one.send_report(now);
  }
  if (arrived_ && now - feedback_sent_ >= kFeedbackInterval) send_transport_feedback(now);
  if (!ciphers_ && now - begun_ > kSetupPatience) {
    end("no connection within " + std::to_string(kSetupPatience / 1s) +
        " s: UDP packets may not reach us");
  }
  if (ciphers_ && !heard_->within(terms_.patience)) {
    end("nothing has come for " + std::to_string(terms_.patience / 1s) + " s");
  }
  plan_wake(now);
}

void peer::plan_wake(media_time now) {
  media_time next = std::max(reported_, now - kReportInterval) + kReportInterval;
  if (arrived_) next = std::min(next, feedback_sent_ + kFeedbackInterval);
  if (channels_) next = std::min(next, channels_due_);
  if (!ended_) next = std::min(next, dtls_->next_deadline().value_or(next));
  for (const rtp::line& one : lines_) next = one.next_deadline(next);
  transport_->thread().wake_at(*this, std::max(next, now + 1ms));
}

}  // namespace zelta::core_service::webrtc
