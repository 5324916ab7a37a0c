// SPDX-License-Identifier: Apache-2.0
#include "support/webrtc/client.h"

#include <algorithm>
#include <utility>

#include <arpa/inet.h>
#include <sys/socket.h>

#include "core_service/rtp/network_order.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using core_service::media::media_time;
using core_service::rtp::read_16;
using core_service::rtp::srtp_session;
using core_service::rtp::write_16;
using core_service::rtp::write_32;

// RFC 3550, section 5.1; RFC 8285, section 4.2.
constexpr size_t kHeader = 12;
constexpr uint8_t kHasExtension = 0x10;
constexpr uint8_t kMarker = 0x80;
constexpr uint32_t kOneByteForm = 0xbede;
constexpr size_t kExtensions = 12;

// A power of two, so that numbers that wrap keep their places; about four seconds of video.
constexpr size_t kPast = 256;
constexpr media_time kFirstChecks = 100ms;
constexpr media_time kLastStep = 1h;
constexpr size_t kMostDatagram = 2048;
constexpr int kReceiveBuffer = 256 * 1024;

// RFC 7983, section 7.
bool is_stun(const uint8_t* bytes, size_t size) {
  return size >= 20 && bytes[0] <= 3;
}
bool is_dtls(const uint8_t* bytes) {
  return bytes[0] >= 20 && bytes[0] <= 63;
}

std::string random_text(std::mt19937& chance, size_t size) {
  constexpr const char* kLetters = "abcdefghijklmnopqrstuvwxyz012345";
  std::string text;
  for (size_t i = 0; i < size; ++i) text += kLetters[chance() % 32];
  return text;
}

ice_names random_names(std::mt19937& chance) {
  return {random_text(chance, 8), random_text(chance, 24)};
}

}  // namespace

std::vector<webrtc_source> usual_sources(uint32_t ssrc) {
  return {{"video", "H264/90000",
           "level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f", 96, 97, ssrc,
           ssrc + 1},
          {"audio", "opus/48000/2", "minptime=10;useinbandfec=1", 111, 0, ssrc + 2, 0}};
}

std::unique_ptr<webrtc_client> webrtc_client::make(wishes wanted, std::string& error) {
  std::mt19937 chance(wanted.seed);
  ice_names own = random_names(chance);
  std::unique_ptr<webrtc_client> made(new webrtc_client(std::move(wanted), std::move(own)));
  if (made->open_socket()) return made;
  error = "a UDP socket can't be had";
  return nullptr;
}

webrtc_client::webrtc_client(wishes wanted, ice_names own)
    : wanted_(std::move(wanted)), chance_(wanted_.seed), own_(std::move(own)) {
  const std::string& other = wanted_.other_fingerprint;
  offer_ = write_offer(wanted_.sources, own_, other.empty() ? wanted_.as->fingerprint() : other,
                       wanted_.by_ssrc);
  for (const webrtc_source& one : wanted_.sources) {
    track made{one, static_cast<uint16_t>(chance_()), {}};
    if (one.again_type != 0) made.past.resize(kPast);
    tracks_.push_back(std::move(made));
  }
  feedback_.missing = [this](uint32_t ssrc, uint16_t sequence) {
    ++counts_.asked;
    repeat(ssrc, sequence);
  };
  feedback_.key_frame = [this](uint32_t /*ssrc*/) { ++counts_.key_frames_asked; };
  feedback_.transport = [this](size_t came, size_t missing) {
    counts_.told_arrived += came;
    counts_.told_missing += missing;
  };
  feedback_.report = [this] { ++counts_.reports; };
}

bool webrtc_client::open_socket() {
  socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket_.valid()) return false;
  setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  return to_.sin_port == 0 ||
         connect(fd(), reinterpret_cast<const sockaddr*>(&to_), sizeof to_) == 0;
}

bool webrtc_client::begin(const std::string& answer, media_time now, std::string& error) {
  const auto read = read_answer_of(answer, error);
  if (!read) return false;
  theirs_ = read->theirs;
  to_.sin_family = AF_INET;
  to_.sin_port = htons(read->port);
  if (inet_pton(AF_INET, read->address.c_str(), &to_.sin_addr) != 1 ||
      connect(fd(), reinterpret_cast<const sockaddr*>(&to_), sizeof to_) != 0) {
    error = "there is no way to " + read->address;
    return false;
  }
  dtls_ = client_dtls::make(
      wanted_.as, wanted_.profiles, read->fingerprint,
      [this](const uint8_t* bytes, size_t size) { send_raw(bytes, size); }, error);
  if (!dtls_) return false;
  state_ = state::kChecking;
  check(now);
  return true;
}

// ---- ICE -----------------------------------------------------------------------------------

bool webrtc_client::move(media_time now) {
  if (!open_socket()) return false;
  check(now);
  return true;
}

void webrtc_client::rename(ice_names own, ice_names theirs, media_time now) {
  own_ = std::move(own);
  theirs_ = std::move(theirs);
  check(now);
}

void webrtc_client::check(media_time now) {
  for (uint8_t& byte : transaction_) byte = static_cast<uint8_t>(chance_());
  // RFC 8445, section 5.1.2.1: of type host, the only one.
  constexpr uint32_t kPriority = (126U << 24U) + (65535U << 8U) + 255;
  const auto bytes = write_check(
      transaction_, {theirs_.ufrag + ":" + own_.ufrag, theirs_.password, chance_(), kPriority});
  send_raw(bytes.data(), bytes.size());
  next_check_ = now + (state_ == state::kChecking ? kFirstChecks : wanted_.check_interval);
  next_step_ = std::min(next_step_, next_check_);
}

void webrtc_client::take_answer(const uint8_t* bytes, size_t size, media_time now) {
  const auto answer = read_check_answer(bytes, size, theirs_.password);
  if (!answer || answer->transaction != transaction_) return;
  if (answer->error != 0) {
    ++counts_.checks_refused;
    return;
  }
  ++counts_.checks_answered;
  if (state_ != state::kChecking) return;
  state_ = state::kHandshaking;
  next_check_ = now + wanted_.check_interval;
  dtls_->begin();
  look_at_dtls();
}

// ---- What comes ----------------------------------------------------------------------------

void webrtc_client::step(media_time now) {
  std::array<uint8_t, kMostDatagram> bytes;
  for (ssize_t size = 0; (size = recv(fd(), bytes.data(), bytes.size(), 0)) > 0;) {
    ++counts_.datagrams_in;
    take(bytes.data(), static_cast<size_t>(size), now);
  }
  next_step_ = now + kLastStep;
  if (state_ == state::kNew || state_ == state::kFailed || state_ == state::kClosed) return;
  if (state_ == state::kHandshaking) {
    dtls_->advance();
    look_at_dtls();
    if (const auto left = dtls_->timeout()) next_step_ = now + *left + 1ms;
  }
  if (now >= next_check_) check(now);
  next_step_ = std::min(next_step_, next_check_);
}

void webrtc_client::take(const uint8_t* bytes, size_t size, media_time now) {
  if (is_stun(bytes, size)) return take_answer(bytes, size, now);
  if (dtls_ && is_dtls(bytes)) {
    dtls_->take(bytes, size);
    return look_at_dtls();
  }
  if (control_) take_control(bytes, size);
}

void webrtc_client::look_at_dtls() {
  const client_dtls::state is = dtls_->is();
  if (is == client_dtls::state::kFailed) return fail(dtls_->why());
  if (is == client_dtls::state::kClosed && state_ != state::kClosed) {
    state_ = state::kClosed;
    why_ = dtls_->why();
  }
  if (is != client_dtls::state::kConnected || state_ != state::kHandshaking) return;
  const client_dtls::srtp_keys& keys = *dtls_->keys();
  control_ = srtp_session::make(keys.in, keys.out);
  if (control_) media_ = srtp_out::make(keys.out);
  if (!media_) return fail("libsrtp has no such cipher");
  state_ = state::kConnected;
}

void webrtc_client::fail(const std::string& why) {
  state_ = state::kFailed;
  why_ = why;
}

void webrtc_client::take_control(const uint8_t* bytes, size_t size) {
  std::array<uint8_t, kMostDatagram> plain;
  std::copy_n(bytes, size, plain.begin());
  const auto left = control_->decrypt_rtcp(plain.data(), size);
  if (left && !read_feedback(plain.data(), *left, feedback_)) ++counts_.errors;
}

// RFC 4588, section 4: in a stream of its own, behind the number of before.
void webrtc_client::repeat(uint32_t ssrc, uint16_t sequence) {
  for (size_t i = 0; i < tracks_.size(); ++i) {
    track& of = tracks_[i];
    if (of.is.ssrc != ssrc || of.past.empty()) continue;
    const past_packet& known = of.past[sequence % kPast];
    if (!known.is || read_16(&known.header[2]) != sequence) return;
    std::array<uint8_t, kHeader> header = known.header;
    header[1] = static_cast<uint8_t>((header[1] & kMarker) | of.is.again_type);
    write_16(&header[2], of.again_sequence++);
    write_32(&header[8], of.is.again_ssrc);
    ++counts_.repeated;
    write(i, header.data(), sequence, known.payload.data(), known.payload.size(), std::nullopt);
    return;
  }
}

// ---- What goes -----------------------------------------------------------------------------

bool webrtc_client::send(size_t source, const uint8_t (&header)[12], const uint8_t* payload,
                         size_t size, std::optional<uint8_t> level) {
  if (state_ != state::kConnected || size > kMostPayload) return false;
  track& of = tracks_[source];
  if (!of.past.empty()) {
    past_packet& kept = of.past[read_16(header + 2) % kPast];
    kept.is = true;
    std::copy_n(header, kHeader, kept.header.begin());
    kept.payload.assign(payload, payload + size);
  }
  return write(source, header, std::nullopt, payload, size, level);
}

// Whole words, with zeros for padding.
size_t webrtc_client::write_extensions(uint8_t* to, size_t mid, std::optional<uint8_t> level) {
  std::fill_n(to, kExtensions, uint8_t{0});
  write_16(to, kOneByteForm);
  write_16(to + 2, (kExtensions - 4) / 4);
  uint8_t* at = to + 4;
  const auto element = [&at](int number, size_t size) {
    *at++ = static_cast<uint8_t>(static_cast<size_t>(number) << 4U | (size - 1));
    return std::exchange(at, at + size);
  };
  write_16(element(kTransportExtension, 2), transport_number_++);
  if (!wanted_.by_ssrc) *element(kMidExtension, 1) = static_cast<uint8_t>('0' + mid);
  if (level) *element(kLevelExtension, 1) = *level;
  return kExtensions;
}

bool webrtc_client::write(size_t source, const uint8_t* header, std::optional<uint16_t> original,
                          const uint8_t* payload, size_t size, std::optional<uint8_t> level) {
  std::array<uint8_t, kHeader + kExtensions + 2 + kMostPayload + srtp_out::kMostAdded> bytes;
  std::copy_n(header, kHeader, bytes.begin());
  bytes[0] |= kHasExtension;
  size_t at = kHeader + write_extensions(&bytes[kHeader], source, level);
  if (original) {
    write_16(&bytes[at], *original);
    at += 2;
  }
  std::copy_n(payload, size, &bytes[at]);
  const size_t whole = media_->encrypt(bytes.data(), at + size);
  if (whole == 0) return ++counts_.errors, false;
  if (loss_ > 0 && std::uniform_real_distribution<double>(0, 1)(chance_) < loss_) {
    ++counts_.lost;
    return true;
  }
  if (::send(fd(), bytes.data(), whole, MSG_NOSIGNAL) < 0) return ++counts_.errors, false;
  ++counts_.packets;
  counts_.bytes += whole;
  return true;
}

bool webrtc_client::send_control(const uint8_t* bytes, size_t size) {
  std::array<uint8_t, kMostDatagram> out;
  if (!control_ || state_ != state::kConnected || size + srtp_session::kMostAdded > out.size()) {
    return false;
  }
  std::copy_n(bytes, size, out.begin());
  const auto whole = control_->encrypt_rtcp(out.data(), size);
  if (whole) send_raw(out.data(), *whole);
  return whole.has_value();
}

void webrtc_client::send_raw(const uint8_t* bytes, size_t size) {
  // What the network refuses is lost, as on any way.
  if (::send(fd(), bytes, size, MSG_NOSIGNAL) < 0) ++counts_.errors;
}

void webrtc_client::leave() {
  if (!dtls_) return;
  dtls_->close();
  state_ = state::kClosed;
}

}  // namespace zelta::test
