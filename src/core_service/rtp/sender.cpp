// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/sender.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>

#include "core_service/folder/crash_note.h"

namespace zelta::core_service::rtp {
namespace {

using namespace std::chrono_literals;
using media::media_time;

// A foreign sender may invent sources; each costs memory until it is silent for long.
constexpr size_t kMostSources = 16;
// Behind a goodbye what is still on its way comes out, and a new source has the time to begin.
constexpr media_time kLastPackets = 2s;
constexpr media_time kLastUnits = 1s;
// A source that changes its codec goes on with it; a single packet may be a stray one.
constexpr int kOtherCodec = 2;
// One that was never more than a stray packet goes soon.
constexpr media_time kStrayPatience = 2s;
constexpr media_time kSourcePatience = 30s;
constexpr media_time kReportInterval = 1s;
// A sender that makes one needs a moment, and one that gets another request meanwhile may make two.
constexpr media_time kKeyFrameInterval = 500ms;
constexpr size_t kMostBlocks = 16;

// While it lives, what goes wrong on this thread is this user's.
class blamed {
 public:
  explicit blamed(uint32_t uid) { mark_thread(uid, crash_stage::kReceiving); }
  blamed(const blamed&) = delete;
  blamed& operator=(const blamed&) = delete;
  ~blamed() { unmark_thread(); }
};

uint32_t random_ssrc() {
  std::random_device random;
  return std::uniform_int_distribution<uint32_t>(1)(random);
}

}  // namespace

// What a compound packet says to a line.
class sender::control_reader : public rtcp_visitor {
 public:
  control_reader(sender& whose, line& at, media_time arrival)
      : whose_(whose), at_(at), arrival_(arrival) {}

  void report(const sender_report& one) override {
    const auto found = at_.sources.find(one.ssrc);
    if (found != at_.sources.end()) {
      return found->second.of->report(one, arrival_, whose_.how_.use_sender_reports);
    }
    // Some report right before their first packet, and then not for long.
    if (at_.early.size() < kMostSources) at_.early[one.ssrc] = {one, arrival_};
  }
  void bye(uint32_t ssrc) override { gone_.push_back(ssrc); }

  const std::vector<uint32_t>& gone() const { return gone_; }

 private:
  sender& whose_;
  line& at_;
  const media_time arrival_;
  std::vector<uint32_t> gone_;
};

sender::sender(uint32_t uid, std::vector<media_line> lines, const settings& how,
               std::unique_ptr<srtp_session> ciphers, packet_thread& by, media::byte_pool& pool,
               events told)
    : uid_(uid),
      how_(how),
      ciphers_(std::move(ciphers)),
      by_(by),
      pool_(pool),
      events_(std::move(told)),
      own_ssrc_(random_ssrc()) {
  for (media_line& one : lines) {
    line& added = lines_.emplace_back();
    added.of = std::move(one);
  }
}

sender::~sender() = default;

void sender::start() {
  running_ = true;
  for (const line& one : lines_) {
    by_.add(one.of.sockets.rtp.get(), *this);
    if (one.of.sockets.rtcp.valid()) by_.add(one.of.sockets.rtcp.get(), *this);
  }
  plan_wake(media::now());
}

bool sender::stop(media_time read_until) {
  if (!running_) return true;
  bool read = true;
  for (const line& one : lines_) read = by_.read_rest(one.of.sockets.rtp.get(), read_until) && read;
  running_ = false;
  const blamed whom(uid_);
  for (line& at : lines_) {
    for (auto& [ssrc, one] : at.sources) {
      if (!one.finished) one.of->finish();
    }
  }
  count_dropped();
  by_.wake_at(*this, media_time::zero());
  for (const line& one : lines_) {
    by_.remove(one.of.sockets.rtp.get());
    if (one.of.sockets.rtcp.valid()) by_.remove(one.of.sockets.rtcp.get());
  }
  return read;
}

void sender::on_datagram(const datagram& one) {
  const blamed whom(uid_);
  for (line& at : lines_) {
    const bool on_rtcp_port = one.fd == at.of.sockets.rtcp.get();
    if (!on_rtcp_port && one.fd != at.of.sockets.rtp.get()) continue;
    const bool control = on_rtcp_port || is_rtcp(one.bytes, one.size);
    size_t size = one.size;
    if (!control && !may_be_new(at, one)) return;
    if (ciphers_) {
      if (!control) ++encrypted_;
      const auto left = control ? ciphers_->decrypt_rtcp(one.bytes, size)
                                : ciphers_->decrypt_rtp(one.bytes, size);
      if (!left) return;
      if (!control) ++decrypted_;
      size = *left;
    }
    return control ? on_rtcp(at, one, size) : on_rtp(at, one, size);
  }
}

// By the header, which no cipher hides: libsrtp keeps a state of every source that it has seen.
bool sender::may_be_new(const line& at, const datagram& one) const {
  const auto parsed = parse_packet(one.bytes, one.size);
  if (!parsed || at.of.payloads.count(parsed->payload_type) == 0) return false;
  return at.sources.size() < kMostSources || at.sources.count(parsed->ssrc) != 0;
}

void sender::on_rtp(line& at, const datagram& one, size_t size) {
  const auto parsed = parse_packet(one.bytes, size);
  if (!parsed) return;
  source* const from = find_or_make(at, *parsed, one.arrival);
  if (from == nullptr) return;
  from->of->take(*parsed, one.bytes, size, one.arrival);
  if (from->of->next_deadline()) plan_wake(one.arrival);
}

void sender::on_rtcp(line& at, const datagram& one, size_t size) {
  control_reader reader(*this, at, one.arrival);
  if (!parse_rtcp(one.bytes, size, reader)) return;
  std::memcpy(&at.feedback_to, one.from, one.from_size);
  at.feedback_size = one.from_size;
  for (const uint32_t ssrc : reader.gone()) {
    const auto found = at.sources.find(ssrc);
    if (found == at.sources.end()) continue;
    found->second.ends = std::min(found->second.ends, one.arrival + kLastPackets);
  }
}

// Null for what isn't recorded.
sender::source* sender::find_or_make(line& at, const packet& one, media_time arrival) {
  const auto known = at.of.payloads.find(one.payload_type);
  if (known == at.of.payloads.end()) return nullptr;
  const auto found = at.sources.find(one.ssrc);
  if (found != at.sources.end()) {
    source& same = found->second;
    if (same.finished) return nullptr;
    if (known->second.kind == same.of->of().kind) {
      same.others = 0;
      return &same;
    }
    if (++same.others < kOtherCodec) return nullptr;
    end_source(at, one.ssrc);
  }
  if (at.sources.size() >= kMostSources) return nullptr;
  source* const made = make_source(at, one.ssrc, known->second);
  const auto early = at.early.find(one.ssrc);
  if (early == at.early.end()) return made;
  made->of->report(early->second.of, std::min(early->second.arrival, arrival),
                   how_.use_sender_reports);
  at.early.erase(early);
  return made;
}

sender::source* sender::make_source(line& at, uint32_t ssrc, const payload& of) {
  source* const made = &at.sources[ssrc];
  line* const where = &at;
  made->number = next_number_++;
  made->of = std::make_unique<stream>(
      ssrc, of, how_.jitter_latency, pool_, clocks_,
      stream::events{[this, made](media::encoded_unit&& unit) {
                       made->begun = true;
                       events_.unit(made->number, made->of->of(), std::move(unit));
                     },
                     [this, where, made] { ask(*where, *made, media::now()); }});
  return made;
}

void sender::end_source(line& at, uint32_t ssrc) {
  const auto found = at.sources.find(ssrc);
  if (found == at.sources.end()) return;
  if (!found->second.finished) found->second.of->finish();
  if (found->second.begun) events_.gone(found->second.number);
  at.sources.erase(found);
}

void sender::on_wake(media_time now) {
  const blamed whom(uid_);
  const bool report_due = now - reported_ >= kReportInterval;
  if (report_due) reported_ = now;
  if (report_due) count_dropped();
  for (line& at : lines_) {
    std::vector<uint32_t> gone;
    for (auto& [ssrc, one] : at.sources) {
      if (one.finished && now >= one.ends) gone.push_back(ssrc);
      if (!one.finished) tick_source(one, now);
    }
    for (const uint32_t ssrc : gone) end_source(at, ssrc);
    if (report_due) send_reports(at, now);
  }
  plan_wake(now);
}

void sender::tick_source(source& one, media_time now) {
  one.of->advance(now);
  const media_time patience = one.of->valid() ? kSourcePatience : kStrayPatience;
  if (now < one.ends && now - one.of->heard() <= patience) return;
  // What comes out now is taken before its way ends.
  one.of->finish();
  one.finished = true;
  one.ends = now + kLastUnits;
}

void sender::count_dropped() {
  uint64_t sum = 0;
  for (const line& one : lines_) {
    sum += dropped_by(one.of.sockets.rtp.get());
    if (one.of.sockets.rtcp.valid()) sum += dropped_by(one.of.sockets.rtcp.get());
  }
  dropped_ = sum;
}

void sender::plan_wake(media_time now) {
  media_time next = std::max(reported_, now - kReportInterval) + kReportInterval;
  for (const line& at : lines_) {
    for (const auto& [ssrc, one] : at.sources) {
      next = std::min({next, one.ends, one.of->next_deadline().value_or(next)});
    }
  }
  by_.wake_at(*this, std::max(next, now + 1ms));
}

// ---- RTCP ----------------------------------------------------------------------------------

void sender::request_key_frames() {
  const blamed whom(uid_);
  const media_time now = media::now();
  for (line& at : lines_) {
    for (auto& [ssrc, one] : at.sources) ask(at, one, now);
  }
}

void sender::ask(line& at, source& whose, media_time now) {
  if (whose.of->of().kind->kind != media::media_kind::kVideo || !whose.of->valid()) return;
  if (now - whose.asked < kKeyFrameInterval) return;
  std::array<uint8_t, 1500> bytes{};
  rtcp_writer to(bytes.data(), bytes.size() - srtp_session::kMostAdded);
  to.receiver_report(own_ssrc_, nullptr, 0);
  to.cname(own_ssrc_, "recorder");
  to.picture_loss(own_ssrc_, whose.of->ssrc());
  if (at.feedback_size == 0) return;
  whose.asked = now;
  send(at, bytes, to.size());
}

void sender::send_reports(line& at, media_time now) {
  std::array<report_block, kMostBlocks> blocks{};
  size_t count = 0;
  for (auto& [ssrc, one] : at.sources) {
    if (one.of->valid() && count < kMostBlocks) blocks[count++] = one.of->block(now);
  }
  if (count == 0 || at.feedback_size == 0) return;
  std::array<uint8_t, 1500> bytes{};
  rtcp_writer to(bytes.data(), bytes.size() - srtp_session::kMostAdded);
  to.receiver_report(own_ssrc_, blocks.data(), count);
  to.cname(own_ssrc_, "recorder");
  send(at, bytes, to.size());
}

void sender::send(line& at, std::array<uint8_t, 1500>& bytes, size_t size) {
  if (ciphers_) {
    const auto encrypted = ciphers_->encrypt_rtcp(bytes.data(), size);
    if (!encrypted) return;
    size = *encrypted;
  }
  const socket_pair& sockets = at.of.sockets;
  const int fd = sockets.rtcp.valid() ? sockets.rtcp.get() : sockets.rtp.get();
  // What is lost here is asked for again.
  static_cast<void>(!sendto(fd, bytes.data(), size, MSG_DONTWAIT,
                            reinterpret_cast<const sockaddr*>(&at.feedback_to), at.feedback_size));
}

}  // namespace zelta::core_service::rtp
