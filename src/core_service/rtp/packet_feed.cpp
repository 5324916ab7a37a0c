// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/packet_feed.h"

#include <string_view>
#include <utility>

#include "core_service/media/format_tracker.h"

namespace zelta::core_service::rtp {
namespace {

using media::encoded_unit;

// All who stop at once may have waiting packets of seconds; the engine doesn't wait for ever.
constexpr media::media_time kRestLimit = std::chrono::seconds(2);

// What a sender tells, from the packet thread.
sender::events letters_to(unit_mailbox& mail, uint64_t reader) {
  sender::events told;
  told.unit = [&mail, reader](int track, const payload&, encoded_unit&& unit) {
    mail.put(reader, track, std::move(unit));
  };
  told.gone = [&mail, reader](int track) { mail.put_end(reader, track); };
  told.text = [&mail, reader](media::user_text&& what) { mail.put_note(reader, std::move(what)); };
  told.missing = [&mail, reader](missing_medium&& what) { mail.put_note(reader, std::move(what)); };
  return told;
}

}  // namespace

// Opus where it is offered, because who can send it does.
void packet_feed::prospect::add(media::media_kind kind, const std::map<int, payload>& payloads) {
  (kind == media::media_kind::kVideo ? may_come.video : may_come.sound) = true;
  for (const auto& [number, one] : payloads) {
    if (sound || one.kind == nullptr || one.kind->name != std::string_view("opus")) continue;
    sound = media::format_tracker(*one.kind, one.described).look(nullptr, 0, true);
  }
}

packet_feed::packet_feed(prospect known, std::shared_ptr<packet_plane> plane,
                         const make_sender& make)
    : plane_(std::move(plane)),
      reader_(plane_->mail.new_reader()),
      known_(std::move(known)),
      sender_(make(letters_to(plane_->mail, reader_))),
      asked_(sender_) {}

packet_feed::~packet_feed() {
  plane_->mail.leave(reader_);
  if (sender_) end_sender();
}

void packet_feed::start(media::kinds /*taken*/, events told) {
  told.kinds_known(known_.may_come);
  if (known_.sound) told.sound_expected(known_.sound);
  const auto noted = [text = std::move(told.text),
                      missing = std::move(told.missing)](const unit_mailbox::note& what) {
    if (const auto* const written = std::get_if<media::user_text>(&what)) return text(*written);
    missing(std::get<missing_medium>(what));
  };
  plane_->mail.enter(reader_, {std::move(told.unit), std::move(told.track_ended), noted,
                               [this](uint64_t lost_packets, bool unread) {
                                 lost_packets_ = lost_packets;
                                 left_unread_ = unread;
                                 plane_->mail.leave(reader_);
                                 const auto stopped = std::move(stopped_);
                                 stopped();
                               }});
  plane_->thread.post([from = sender_] { from->start(); });
}

void packet_feed::stop(std::function<void()> stopped) {
  stopped_ = std::move(stopped);
  lost_packets_ = sender_->dropped();
  end_sender();
}

void packet_feed::request_key_frame() {
  plane_->thread.post([from = asked_] {
    if (const auto alive = from.lock()) alive->request_key_frames();
  });
}

std::string packet_feed::why_lost() const {
  return "they found no room here, because the machine was too busy, or gives sockets too little "
         "memory (net.core.rmem_max)";
}

std::string packet_feed::fault() {
  std::string what = sender_ && !fault_told_ ? sender_->fault() : "";
  fault_told_ = fault_told_ || !what.empty();
  return what;
}

// On the packet thread, which is gone before the plane's other parts are.
void packet_feed::end_sender() {
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

}  // namespace zelta::core_service::rtp
