// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/rtp_source.h"

#include <utility>

#include "core_service/rtp/sender.h"
#include "core_service/rtp/session_description.h"

namespace zelta::core_service::rtp {
namespace {

using media::encoded_unit;

// So many packets without one that could be decrypted are no accident.
constexpr uint64_t kUndecryptable = 20;

// Opus where it is offered, because who can send it does.
media::format_ptr likely_sound_of(const std::vector<media_line>& lines) {
  for (const media_line& line : lines) {
    for (const auto& [number, one] : line.payloads) {
      if (one.kind == nullptr || one.kind->name != std::string("opus")) continue;
      return media::format_tracker(*one.kind, one.described).look(nullptr, 0, true);
    }
  }
  return nullptr;
}

// Its sender is the packet thread's.
class rtp_feed final : public media_feed {
 public:
  rtp_feed(uint32_t uid, std::vector<media_line> lines, const settings& how,
           std::unique_ptr<srtp_session> ciphers, std::shared_ptr<packet_plane> plane)
      : plane_(std::move(plane)),
        likely_sound_(likely_sound_of(lines)),
        sender_(std::make_shared<sender>(
            uid, std::move(lines), how, std::move(ciphers), plane_->thread, plane_->pool,
            sender::events{[this](int track, const payload&, encoded_unit&& unit) {
                             plane_->mail.put(reader_, track, std::move(unit));
                           },
                           [this](int track) { plane_->mail.put_end(reader_, track); }})) {}
  rtp_feed(const rtp_feed&) = delete;
  rtp_feed& operator=(const rtp_feed&) = delete;
  ~rtp_feed() override { stop(); }

  media::format_ptr likely_sound() const override { return likely_sound_; }

  void start(events told) override {
    reader_ = plane_->mail.enter(std::move(told));
    plane_->thread.post([from = sender_] { from->start(); });
  }

  void stop() override {
    if (!sender_) return;
    plane_->thread.call([this] { sender_->stop(); });
    lost_packets_ = sender_->dropped();
    sender_.reset();
    plane_->mail.deliver_all();
    plane_->mail.leave(reader_);
  }

  void request_key_frame() override {
    plane_->thread.post([from = asked_] {
      if (const auto alive = from.lock()) alive->request_key_frames();
    });
  }

  uint64_t lost_packets() const override { return sender_ ? sender_->dropped() : lost_packets_; }

  std::string fault() override {
    if (!sender_ || sender_->encrypted() < kUndecryptable || sender_->decrypted() > 0 ||
        std::exchange(fault_told_, true)) {
      return "";
    }
    return "none of its packets can be decrypted: --encrypt_mode or --encrypt_secret is not the "
           "sender's";
  }

 private:
  const std::shared_ptr<packet_plane> plane_;
  const media::format_ptr likely_sound_;
  uint64_t reader_ = 0;
  uint64_t lost_packets_ = 0;  // after stop()
  bool fault_told_ = false;
  std::shared_ptr<sender> sender_;
  const std::weak_ptr<sender> asked_ = sender_;  // for other threads
};

bool open_lines(const std::vector<stream_description>& streams, const settings& how,
                int& likely_free, std::vector<media_line>& lines, std::vector<int>& chosen,
                std::string& error) {
  for (const stream_description& stream : streams) {
    if (stream.srtp && !how.key) {
      error = "it is encrypted: --encrypt_mode and --encrypt_secret should be given";
      return false;
    }
    media_line line;
    line.sockets = open_sockets({stream.address, stream.port, stream.rtcp_port, stream.rtcp_mux,
                                 how.min_port, how.max_port, likely_free},
                                error);
    if (!line.sockets.rtp.valid()) return false;
    if (stream.port == 0) {
      chosen.push_back(line.sockets.port);
      likely_free = line.sockets.port + 2;
    }
    for (const auto& [number, caps] : stream.caps) line.payloads[number] = payload_of(caps.get());
    lines.push_back(std::move(line));
  }
  return true;
}

}  // namespace

std::optional<rtp_source> make_rtp_source(uint32_t uid, const std::string& text,
                                          const settings& how, std::shared_ptr<packet_plane> plane,
                                          std::vector<missing_medium>& left_out,
                                          std::string& error) {
  const std::vector<stream_description> streams = parse_description(text, left_out, error);
  if (streams.empty()) return std::nullopt;
  std::vector<media_line> lines;
  std::vector<int> chosen;
  if (!open_lines(streams, how, plane->likely_free_port, lines, chosen, error)) return std::nullopt;
  std::unique_ptr<srtp_session> ciphers;
  if (how.key) ciphers = srtp_session::make(*how.key);
  if (how.key && !ciphers) {
    error = "libsrtp2 doesn't have the cipher of --encrypt_mode";
    return std::nullopt;
  }
  rtp_source made;
  for (const stream_description& stream : streams) {
    (stream.kind == media::media_kind::kVideo ? made.video : made.sound) = true;
  }
  if (!chosen.empty()) made.answer = answer_with_ports(text, chosen);
  made.feed =
      std::make_shared<rtp_feed>(uid, std::move(lines), how, std::move(ciphers), std::move(plane));
  return made;
}

}  // namespace zelta::core_service::rtp
