// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/decoders.h"

#include <algorithm>
#include <utility>

#include "core_service/load/room_left.h"

namespace zelta::core_service {
namespace {

using namespace std::chrono_literals;
using media::form;
using media::media_kind;
using media::media_time;

// No unit is older than the first by so much.
constexpr media_time kOldest = 10s;
constexpr media_time kRetryPatience = 5s;

}  // namespace

decoders::decoders(uint32_t uid, media::consumers to, int channels,
                   std::weak_ptr<media::media_feed> feed, base::event_loop& loop, events told)
    : uid_(uid),
      to_(std::move(to)),
      channels_(channels),
      feed_(std::move(feed)),
      events_(std::move(told)),
      poster_(loop),
      parts_{{{media_kind::kVideo, nullptr, {}, ""}, {media_kind::kAudio, nullptr, {}, ""}}} {}

bool decoders::wanted(media_kind kind) const {
  if (kind == media_kind::kAudio) return to_.wants(form::kSound);
  return to_.wants(form::kAccessUnits) || to_.wants(form::kPictures) ||
         to_.wants(form::kUprightPictures) || to_.wants(form::kStills);
}

decoders::part& decoders::of(media_kind kind) {
  return parts_[kind == media_kind::kVideo ? 0 : 1];
}

void decoders::push(int track, const media::encoded_unit& unit) {
  if (finishing_) return;
  const media_kind kind = unit.format->kind->kind;
  part& by = of(kind);
  if (kind == media_kind::kVideo) {
    // Where none is of use, none is asked for.
    if (waits(by, unit.time)) return skipped_picture();
    if (wants_key_ && !unit.key) return request_key_frame();
    wants_key_ = false;
  }
  if (by.graph || make(by, unit.time)) return by.graph->push(track, unit);
  if (kind == media_kind::kVideo) skipped_picture();
}

bool decoders::waits(const part& one, media_time now) {
  return !one.graph && one.failed > media_time::zero() && now - one.failed < kRetryPatience;
}

bool decoders::make(part& wanted, media_time first) {
  if (waits(wanted, first)) return false;
  const std::string shortage = load::shortage_of_threads(load::kGraphThreads);
  if (!shortage.empty()) {
    wanted.failed = first;
    tell(wanted, "what is decoded", shortage);
    return false;
  }
  wanted.graph = std::make_unique<media::decode_graph>(
      uid_, to_, channels_, first - kOldest, poster_.loop(),
      media::decode_graph::events{
          [from = feed_] {
            if (const auto alive = from.lock()) alive->request_key_frame();
          },
          events_.missing, [this, &wanted] { on_works(wanted); },
          [this, &wanted] { on_finished(wanted); },
          [this, &wanted](const std::string& why) { on_failed(wanted, why); }});
  wanted.graph->set_still_interval(still_interval_);
  return true;
}

void decoders::tell(part& of, const char* medium, const std::string& why) {
  of.missing = medium;
  events_.missing({medium, "", why});
}

void decoders::on_works(part& again) {
  if (!again.missing.empty()) events_.over(std::exchange(again.missing, ""));
}

void decoders::on_failed(part& gone, const std::string& why) {
  tell(gone, gone.kind == media_kind::kVideo ? "decoded video" : "audio", why);
  gone.failed = media::now();
  if (gone.kind == media_kind::kVideo) skipped_picture();
  on_finished(gone);
}

void decoders::on_finished(part& done) {
  done.graph.reset();
  const bool all = std::none_of(parts_.begin(), parts_.end(),
                                [](const part& one) { return one.graph != nullptr; });
  if (!finishing_ || !all) return;
  // A copy, because what is called may destroy this.
  const auto finished = events_.finished;
  finished();
}

void decoders::end_track(int track) {
  for (const part& one : parts_) {
    if (one.graph) one.graph->end_track(track);
  }
}

void decoders::finish(media_time patience) {
  finishing_ = true;
  bool any = false;
  for (const part& one : parts_) {
    any = any || one.graph;
    if (one.graph) one.graph->finish(patience);
  }
  if (!any) poster_.post([finished = events_.finished] { finished(); });
}

void decoders::set_still_interval(media_time interval) {
  still_interval_ = interval;
  for (const part& one : parts_) {
    if (one.graph) one.graph->set_still_interval(interval);
  }
}

void decoders::request_key_frame() const {
  if (const auto alive = feed_.lock()) alive->request_key_frame();
}

}  // namespace zelta::core_service
