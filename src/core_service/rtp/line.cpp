// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/line.h"

#include <algorithm>
#include <random>
#include <utility>

#include "core_service/rtp/srtp/srtp_session.h"

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
// A sender that makes one needs a moment, and one that gets another request meanwhile may make two.
constexpr media_time kKeyFrameInterval = 500ms;
constexpr size_t kMostBlocks = 16;
// Of one packet, whose list of them is a quarter as long where they are scattered.
constexpr size_t kMostMissing = 200;
constexpr const char* kName = "recorder";

uint32_t random_ssrc() {
  std::random_device random;
  return std::uniform_int_distribution<uint32_t>(1)(random);
}

rtcp_writer write_into(control_bytes& bytes) {
  return {bytes.data(), bytes.size() - srtp_session::kMostAdded};
}

}  // namespace

line_commons::line_commons(const settings& how_received, media::byte_pool& bytes,
                           sender::events told)
    : how(how_received), pool(bytes), events(std::move(told)), own_ssrc(random_ssrc()) {}

// What a compound packet says to a line.
class line::control_reader : public rtcp_visitor {
 public:
  control_reader(line& at, media_time arrival) : at_(at), arrival_(arrival) {}

  void report(const sender_report& one) override {
    const auto found = at_.sources_.find(one.ssrc);
    if (found != at_.sources_.end()) {
      return found->second.of->report(one, arrival_, at_.commons_.how.use_sender_reports);
    }
    // Some report right before their first packet, and then not for long.
    if (at_.early_.size() < kMostSources) at_.early_[one.ssrc] = {one, arrival_};
  }
  void bye(uint32_t ssrc) override {
    const auto found = at_.sources_.find(ssrc);
    if (found == at_.sources_.end()) return;
    found->second.ends = std::min(found->second.ends, arrival_ + kLastPackets);
  }

 private:
  line& at_;
  const media_time arrival_;
};

line::line(std::map<int, payload> payloads, line_commons& commons, send_control send, bool layered)
    : commons_(commons), send_(std::move(send)), payloads_(std::move(payloads)) {
  if (!layered) return;
  layers_.emplace(commons.how.smallest_layer, commons.how.jitter_latency);
  layers_number_ = commons.next_number++;
}

bool line::takes(uint8_t payload_type, uint32_t ssrc) const {
  if (payloads_.count(payload_type) == 0) return false;
  return sources_.size() < kMostSources || sources_.count(ssrc) != 0;
}

bool line::take(const packet& one, const uint8_t* bytes, size_t size, media_time arrival) {
  source* const from = find_or_make(one, arrival);
  if (from == nullptr) return false;
  from->of->take(one, bytes, size, arrival);
  return from->of->next_deadline().has_value();
}

bool line::take_again(const packet& one, const uint8_t* bytes, size_t size, media_time arrival) {
  const auto found = sources_.find(one.ssrc);
  if (found == sources_.end() || found->second.finished) return false;
  found->second.of->take_again(one, bytes, size, arrival);
  return found->second.of->next_deadline().has_value();
}

bool line::take_control(const uint8_t* bytes, size_t size, media_time arrival) {
  control_reader reader(*this, arrival);
  return parse_rtcp(bytes, size, reader);
}

// Null for what isn't recorded.
line::source* line::find_or_make(const packet& one, media_time arrival) {
  const auto known = payloads_.find(one.payload_type);
  if (known == payloads_.end()) return nullptr;
  const auto found = sources_.find(one.ssrc);
  if (found != sources_.end()) {
    source& same = found->second;
    if (same.finished) return nullptr;
    if (known->second.kind == same.of->of().kind) {
      same.others = 0;
      return &same;
    }
    if (++same.others < kOtherCodec) return nullptr;
    end_source(one.ssrc);
  }
  if (sources_.size() >= kMostSources) return nullptr;
  source* const made = make_source(one.ssrc, known->second);
  const auto early = early_.find(one.ssrc);
  if (early == early_.end()) return made;
  made->of->report(early->second.of, std::min(early->second.arrival, arrival),
                   commons_.how.use_sender_reports);
  early_.erase(early);
  return made;
}

line::source* line::make_source(uint32_t ssrc, const payload& of) {
  source* const made = &sources_[ssrc];
  made->number = commons_.next_number++;
  made->of = std::make_unique<stream>(
      ssrc, of, commons_.how.jitter_latency, commons_.pool, commons_.clocks,
      stream::events{[this, made](media::encoded_unit&& unit) { on_unit(*made, std::move(unit)); },
                     [this, made] { ask(*made, media::now()); }});
  return made;
}

void line::on_unit(source& from, media::encoded_unit&& unit) {
  int number = from.number;
  if (unit.key) from.wants_key = false;
  if (layers_) {
    const layer_choice::verdict found = layers_->look(number, unit);
    // Nobody looks at what it lacks.
    if (found == layer_choice::verdict::kLeft) from.wants_key = false;
    if (found == layer_choice::verdict::kWantsKey) ask(from, media::now());
    if (found != layer_choice::verdict::kTaken) return;
    number = layers_number_;
  }
  from.begun = true;
  commons_.events.unit(number, from.of->of(), std::move(unit));
}

void line::end_source(uint32_t ssrc) {
  const auto found = sources_.find(ssrc);
  if (found == sources_.end()) return;
  if (!found->second.finished) found->second.of->finish();
  // Layers come and go; what they share ends with the line.
  if (layers_) {
    layers_->ended(found->second.number);
  } else if (found->second.begun) {
    commons_.events.gone(found->second.number);
  }
  sources_.erase(found);
}

void line::advance(media_time now) {
  std::vector<uint32_t> gone;
  for (auto& [ssrc, one] : sources_) {
    if (one.finished && now >= one.ends) gone.push_back(ssrc);
    if (!one.finished) advance_source(one, now);
  }
  for (const uint32_t ssrc : gone) end_source(ssrc);
}

void line::advance_source(source& one, media_time now) {
  one.of->advance(now);
  ask_again(one, now);
  if (one.wants_key) ask(one, now);
  const media_time patience = one.of->valid() ? kSourcePatience : kStrayPatience;
  if (now < one.ends && now - one.of->heard() <= patience) return;
  // What comes out now is taken before its way ends.
  one.of->finish();
  one.finished = true;
  one.ends = now + kLastUnits;
}

media_time line::next_deadline(media_time latest) const {
  for (const auto& [ssrc, one] : sources_) {
    latest = std::min({latest, one.ends, one.of->next_deadline().value_or(latest)});
  }
  return latest;
}

void line::finish() {
  for (auto& [ssrc, one] : sources_) {
    if (!one.finished) one.of->finish();
  }
}

// ---- RTCP ----------------------------------------------------------------------------------

void line::request_key_frames(media_time now) {
  for (auto& [ssrc, one] : sources_) ask(one, now);
}

// What reports a source first is known to be of its medium; some who pass on several (SFUs) look
// at nothing else to find out.
rtcp_writer line::write_about(source& whose, control_bytes& bytes, media_time now) {
  const report_block block = whose.of->block(now);
  rtcp_writer to = write_into(bytes);
  to.receiver_report(commons_.own_ssrc, &block, 1);
  to.cname(commons_.own_ssrc, kName);
  return to;
}

void line::ask(source& whose, media_time now) {
  if (whose.of->of().kind->kind != media::media_kind::kVideo || !whose.of->valid()) return;
  // Told once, it is asked for until it comes: a request may be lost, or come too soon after
  // another.
  whose.wants_key = true;
  if (now - whose.asked < kKeyFrameInterval) return;
  control_bytes bytes{};
  rtcp_writer to = write_about(whose, bytes, now);
  to.picture_loss(commons_.own_ssrc, whose.of->ssrc());
  if (send_(bytes, to.size())) whose.asked = now;
}

// At once, whatever else was said of late: what comes again must come while it is waited for (RFC
// 4585, section 3.2, leaves that to those whose group is small).
void line::ask_again(source& whose, media_time now) {
  std::array<uint16_t, kMostMissing> missing;
  size_t count = 0;
  do {
    count = whose.of->take_missing(now, missing.data(), missing.size());
    if (count == 0) return;
    control_bytes bytes{};
    rtcp_writer to = write_about(whose, bytes, now);
    to.nack(commons_.own_ssrc, whose.of->ssrc(), missing.data(), count);
    send_(bytes, to.size());
  } while (count == missing.size());
}

void line::send_report(media_time now) {
  std::array<report_block, kMostBlocks> blocks{};
  size_t count = 0;
  for (auto& [ssrc, one] : sources_) {
    if (one.of->valid() && count < kMostBlocks) blocks[count++] = one.of->block(now);
  }
  if (count == 0) return;
  control_bytes bytes{};
  rtcp_writer to = write_into(bytes);
  to.receiver_report(commons_.own_ssrc, blocks.data(), count);
  to.cname(commons_.own_ssrc, kName);
  send_(bytes, to.size());
}

}  // namespace zelta::core_service::rtp
