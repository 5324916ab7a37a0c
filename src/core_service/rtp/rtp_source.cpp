// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/rtp_source.h"

#include <algorithm>
#include <utility>

#include "core_service/rtp/sender.h"
#include "core_service/rtp/session_description.h"

namespace zelta::core_service::rtp {
namespace {

using media::encoded_unit;

// So many packets without one that could be decrypted are no accident.
constexpr uint64_t kUndecryptable = 20;
// All who stop at once may have waiting packets of seconds; the engine doesn't wait for ever.
constexpr media::media_time kRestLimit = std::chrono::seconds(2);

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
class rtp_feed final : public media::media_feed {
 public:
  rtp_feed(uint32_t uid, media::kinds may_come, std::vector<media_line> lines, const settings& how,
           std::unique_ptr<srtp_session> ciphers, std::shared_ptr<packet_plane> plane)
      : plane_(std::move(plane)),
        reader_(plane_->mail.new_reader()),
        may_come_(may_come),
        lateness_(how.jitter_latency),
        likely_sound_(likely_sound_of(lines)),
        sender_(std::make_shared<sender>(
            uid, std::move(lines), how, std::move(ciphers), plane_->thread, plane_->pool,
            sender::events{[&mail = plane_->mail, reader = reader_](int track, const payload&,
                                                                    encoded_unit&& unit) {
                             mail.put(reader, track, std::move(unit));
                           },
                           [&mail = plane_->mail, reader = reader_](int track) {
                             mail.put_end(reader, track);
                           }})) {}
  rtp_feed(const rtp_feed&) = delete;
  rtp_feed& operator=(const rtp_feed&) = delete;
  ~rtp_feed() override {
    plane_->mail.leave(reader_);
    if (sender_) end_sender();
  }

  media::media_time lateness() const override { return lateness_; }

  void start(media::kinds /*taken*/, events told) override {
    told.kinds_known(may_come_);
    if (likely_sound_) told.sound_expected(likely_sound_);
    plane_->mail.enter(reader_, {std::move(told.unit), std::move(told.track_ended),
                                 [this](uint64_t lost_packets, bool unread) {
                                   lost_packets_ = lost_packets;
                                   left_unread_ = unread;
                                   plane_->mail.leave(reader_);
                                   const auto stopped = std::move(stopped_);
                                   stopped();
                                 }});
    plane_->thread.post([from = sender_] { from->start(); });
  }

  void stop(std::function<void()> stopped) override {
    stopped_ = std::move(stopped);
    lost_packets_ = sender_->dropped();
    end_sender();
  }

  void request_key_frame() override {
    plane_->thread.post([from = asked_] {
      if (const auto alive = from.lock()) alive->request_key_frames();
    });
  }

  std::string why_lost() const override {
    return "they found no room here, because the machine was too busy, or gives sockets too little "
           "memory (net.core.rmem_max)";
  }
  bool left_unread() const override { return left_unread_; }
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
  // On the packet thread, which is gone before the plane's other parts are.
  void end_sender() {
    const media::media_time until = media::now() + kRestLimit;
    plane_->thread.post(
        [&mail = plane_->mail, reader = reader_, from = std::move(sender_), until]() mutable {
          const bool read = from->stop(until);
          const uint64_t dropped = from->dropped();
          // Its ports are free before anybody hears of it.
          from.reset();
          mail.put_stopped(reader, dropped, !read);
        });
    sender_.reset();
  }

  const std::shared_ptr<packet_plane> plane_;
  const uint64_t reader_;
  const media::kinds may_come_;
  const media::media_time lateness_;
  const media::format_ptr likely_sound_;
  // From stop() on.
  uint64_t lost_packets_ = 0;
  bool left_unread_ = false;
  std::function<void()> stopped_;
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
    for (const auto& [number, caps] : stream.caps) {
      payload& of = line.payloads[number] = payload_of(caps.get());
      of.level_extension = stream.level_extension;
    }
    lines.push_back(std::move(line));
  }
  return true;
}

}  // namespace

media::media_time packet_plane::take_behind() {
  return std::max(thread.take_behind(), mail.take_behind());
}

std::optional<rtp_source> make_rtp_source(uint32_t uid, const std::string& text,
                                          const settings& how, std::shared_ptr<packet_plane> plane,
                                          std::vector<missing_medium>& left_out,
                                          std::string& error) {
  const std::vector<stream_description> streams = parse_description(text, left_out, error);
  if (streams.empty()) return std::nullopt;
  std::vector<media_line> lines;
  std::vector<int> chosen;
  if (!open_lines(streams, how, plane->likely_free_port, lines, chosen, error)) {
    // The ports may be those of one who is just being stopped.
    plane->thread.call([] {});
    lines.clear();
    chosen.clear();
    error.clear();
    if (!open_lines(streams, how, plane->likely_free_port, lines, chosen, error)) {
      return std::nullopt;
    }
  }
  std::unique_ptr<srtp_session> ciphers;
  if (how.key) ciphers = srtp_session::make(*how.key, *how.key);
  if (how.key && !ciphers) {
    error = "libsrtp2 doesn't have the cipher of --encrypt_mode";
    return std::nullopt;
  }
  rtp_source made;
  media::kinds may_come{false, false};
  for (const stream_description& stream : streams) {
    (stream.kind == media::media_kind::kVideo ? may_come.video : may_come.sound) = true;
  }
  if (!chosen.empty()) made.answer = answer_with_ports(text, chosen);
  made.feed = std::make_shared<rtp_feed>(uid, may_come, std::move(lines), how, std::move(ciphers),
                                         std::move(plane));
  return made;
}

}  // namespace zelta::core_service::rtp
