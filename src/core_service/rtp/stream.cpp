// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/stream.h"

#include <algorithm>
#include <utility>

#include "core_service/media/opus_packet.h"

namespace zelta::core_service::rtp {
namespace {

using media::media_time;

// A unit is of the packet's timestamp that brought it out, or of the one before.
constexpr size_t kPlaced = 4;
// What every container can tell apart.
constexpr media_time kLeastApart = std::chrono::milliseconds(1);

}  // namespace

stream::stream(uint32_t ssrc, const payload& of, media_time patience, media::byte_pool& pool,
               sender_clocks& clocks, events told)
    : ssrc_(ssrc),
      payload_(of),
      events_(std::move(told)),
      stats_(of.clock_rate),
      clock_(of.clock_rate, clocks,
             of.kind->kind == media::media_kind::kAudio ? sender_clock::kMostOfSound
                                                        : media_time::max()),
      order_(patience, [this](const reorder_buffer::ordered& one) { on_ordered(one); }),
      formats_(*of.kind, of.described),
      depayloader_(make_depayloader(
          *of.kind, pool, [this](depayloaded&& one) { on_depayloaded(std::move(one)); })) {
  placed_.reserve(kPlaced);
  if (of.sent_again) missing_.emplace(patience);
}

void stream::take(const packet& one, const uint8_t* bytes, size_t size, media_time arrival) {
  heard_ = arrival;
  const auto [verdict, sequence] = validator_.check(one.sequence);
  if (verdict == verdict::kProbation || verdict == verdict::kDrop) {
    return doubt(sequence, one, bytes, size, arrival);
  }
  if (verdict == verdict::kRestarted) {
    order_.restart();
    stats_.restarted();
    if (missing_) missing_->restarted();
  }
  valid_ = true;
  if (!doubted_.empty()) take_doubted();
  push(sequence, one.timestamp, bytes, size, arrival);
}

void stream::take_again(const packet& one, const uint8_t* bytes, size_t size, media_time arrival) {
  if (!valid_) return;
  const int64_t sequence = validator_.number_of(one.sequence);
  // Nothing was asked for that hasn't been sent yet.
  if (sequence > validator_.highest()) return;
  if (missing_) missing_->received(sequence, arrival);
  order_.push(sequence, bytes, size, arrival);
}

void stream::doubt(int64_t sequence, const packet& one, const uint8_t* bytes, size_t size,
                   media_time arrival) {
  if (doubted_.size() == static_cast<size_t>(kMinSequential)) doubted_.erase(doubted_.begin());
  doubted_.push_back({sequence, one.timestamp, arrival, {bytes, bytes + size}});
}

void stream::take_doubted() {
  std::vector<doubtful> doubted = std::exchange(doubted_, {});
  std::sort(doubted.begin(), doubted.end(),
            [](const doubtful& a, const doubtful& b) { return a.sequence < b.sequence; });
  for (const doubtful& one : doubted) {
    if (!validator_.belongs(one.sequence)) continue;
    push(one.sequence, one.timestamp, one.bytes.data(), one.bytes.size(), one.arrival);
  }
}

void stream::push(int64_t sequence, uint32_t timestamp, const uint8_t* bytes, size_t size,
                  media_time arrival) {
  stats_.received(sequence, timestamp, arrival);
  if (missing_) missing_->received(sequence, arrival);
  order_.push(sequence, bytes, size, arrival);
}

void stream::report(const sender_report& one, media_time arrival, bool places) {
  // Who is muted may send nothing else for long.
  heard_ = std::max(heard_, arrival);
  stats_.sender_reported(one.ntp, arrival);
  if (places && one.ntp != 0) clock_.report(one.ntp, one.timestamp, arrival);
}

std::optional<media_time> stream::next_deadline() const {
  const auto in_order = order_.next_deadline();
  const auto asking = missing_ ? missing_->next_deadline() : std::nullopt;
  if (!in_order || !asking) return in_order ? in_order : asking;
  return std::min(*in_order, *asking);
}

size_t stream::take_missing(media_time now, uint16_t* into, size_t capacity) {
  if (!missing_) return 0;
  if (missing_->overwhelmed()) events_.damaged();
  return missing_->take_due(now, into, capacity);
}

void stream::finish() {
  order_.finish();
  depayloader_->finish();
}

void stream::on_ordered(const reorder_buffer::ordered& one) {
  const auto parsed = parse_packet(one.bytes, one.size);
  if (!parsed) return;
  if (placed_.empty() || placed_.back().timestamp != parsed->timestamp) {
    if (placed_.size() == kPlaced) placed_.erase(placed_.begin());
    placed_.push_back({parsed->timestamp, clock_.place(parsed->timestamp, one.arrival).time});
  } else {
    clock_.place(parsed->timestamp, one.arrival);
  }
  if (one.lost) events_.damaged();
  if (payload_.level_extension != 0) level_ = audio_level_of(*parsed, payload_.level_extension);
  depayloader_->push(*parsed, one.lost);
}

void stream::on_depayloaded(depayloaded&& one) {
  const auto at = std::find_if(placed_.rbegin(), placed_.rend(), [&one](const placed& known) {
    return known.timestamp == one.timestamp;
  });
  if (at == placed_.rend()) return;
  media::encoded_unit unit;
  unit.format = formats_.look(one.bytes.data(), one.bytes.size(), one.key);
  if (one.damaged) events_.damaged();
  // Not decodable yet: the sender has to begin anew.
  if (!unit.format) return events_.damaged();
  unit.bytes = std::move(one.bytes);
  unit.key = one.key;
  unit.time = unit.decode_time = at->time;
  unit.level = level_;
  if (payload_.kind->kind == media::media_kind::kVideo) {
    if (!decoding_) decoding_.emplace(unit.format->reordered);
    const auto [presentation, decode] =
        decoding_->next(not_before_the_latest(one.timestamp, at->time));
    unit.time = presentation;
    unit.decode_time = decode;
  } else if (const auto sound = media::read_opus_packet(unit.bytes.data(), unit.bytes.size());
             sound && payload_.kind->name == std::string_view("opus")) {
    unit.duration = sound->duration();
    unit.after_loss = one.damaged;
  }
  events_.unit(std::move(unit));
}

// Reports may lay a stream earlier than arrival did. Its pictures stay in their order, and a moment
// apart, until they have caught up.
media_time stream::not_before_the_latest(uint32_t timestamp, media_time time) {
  const bool is_later = !latest_ || static_cast<int32_t>(timestamp - latest_->timestamp) > 0;
  if (!is_later) return time;
  if (latest_) time = std::max(time, latest_->time + kLeastApart);
  latest_ = placed{timestamp, time};
  return time;
}

}  // namespace zelta::core_service::rtp
