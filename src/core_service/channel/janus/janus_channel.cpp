// SPDX-License-Identifier: Apache-2.0
// A VideoRoom of a Janus gateway as the channel: whoever publishes there is a user.
#include <chrono>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/poster.h"
#include "base/scoped_timer.h"
#include "core_service/channel/backends.h"
#include "core_service/channel/janus/feeds.h"
#include "core_service/channel/janus/gateway.h"
#include "core_service/channel/janus/gateway_place.h"
#include "core_service/channel/janus/pauses.h"
#include "core_service/channel/janus/room.h"
#include "core_service/webrtc/endpoint.h"

namespace zelta::core_service {
namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

// From the loss of the gateway on.
constexpr auto kTryAgainFor = 60s;

class janus_channel : public channel {
 public:
  janus_channel(janus::gateway_place at, const channel_place& place, base::event_loop& loop,
                channel_listener& listener)
      : terms_({place.channel_id, place.channel_key}),
        reached_at_(place.whip.address),
        rtp_(place.rtp),
        log_(place.log),
        poster_(loop),
        listener_(listener),
        gateway_(std::make_unique<janus::gateway>(
            std::move(at), janus::gateway::credentials{place.channel_key, place.janus.api_secret},
            janus::gateway::limits{}, loop,
            janus::gateway::events{[this](bool again) { on_ready(again); },
                                   [this](const std::string& why) { on_lost(why); }})) {}
  ~janus_channel() override { leave(); }

  void join() override {
    poster_.post([this] { open(); });
  }

  void leave() override {
    poster_.forget();
    retry_.stop();
    if (gateway_) gateway_->leave();
    feeds_.reset();
    room_.reset();
    gateway_.reset();
    endpoint_.reset();
  }

  bool offer_again(uint32_t uid) override { return feeds_ && feeds_->offer_again(uid); }

  media::media_time take_behind() override {
    return endpoint_ ? endpoint_->take_behind() : media::media_time{};
  }
  uint64_t take_dropped() override { return endpoint_ ? endpoint_->take_dropped() : 0; }

 private:
  struct interruption {
    clock::time_point since;
    janus::pauses until_retry;
  };

  void open() {
    std::string error;
    endpoint_ = webrtc::endpoint::open("", reached_at_, rtp_, poster_.loop(), error);
    if (!endpoint_) return listener_.on_channel_failed(error);
    feeds_ = std::make_unique<janus::feeds>(*gateway_, *endpoint_, poster_.loop(), listener_, log_);
    gateway_->connect();
  }

  void on_ready(bool again) {
    janus::room::events told;
    told.joined = [this, again](const auto& all) { on_joined(all, again); };
    told.refused = [this](const std::string& why) { on_refused(why); };
    told.published = [this](const auto& some) { feeds_->published(some); };
    told.gone = [this](const std::string& key) { feeds_->gone(key, "has left"); };
    told.put_out = [this] {
      log_.error("somebody has put the recorder out of room \"" + terms_.name + "\"");
      listener_.on_channel_lost();
    };
    told.closed = [this](const std::string& why) { gateway_->abandon("is left: " + why); };
    room_ = std::make_unique<janus::room>(*gateway_, terms_, std::move(told));
  }

  void on_refused(const std::string& why) {
    if (joined_) return gateway_->abandon("doesn't let us in again: " + why);
    listener_.on_channel_failed(why);
  }

  void on_joined(const std::vector<janus::publisher>& all, bool again) {
    log_.notice("in room \"" + terms_.name + "\" with " + std::to_string(all.size()) +
                " publishers" + (interrupted_ ? ", again" : ""));
    interrupted_.reset();
    const std::weak_ptr<int> alive = poster_.life();
    if (!std::exchange(joined_, true)) listener_.on_channel_joined();
    if (!alive.expired()) feeds_->enter(room_->subscriber(), all, again);
  }

  void on_lost(const std::string& why) {
    feeds_->pause();
    if (!joined_) return listener_.on_channel_failed(why);
    log_.warn(why);
    const bool first = !interrupted_;
    if (first) interrupted_ = interruption{clock::now(), {}};
    const auto lasted = clock::now() - interrupted_->since;
    const int pause_ms = interrupted_->until_retry.next_ms();
    if (lasted + std::chrono::milliseconds(pause_ms) > kTryAgainFor) {
      log_.error("the gateway was tried again for " + std::to_string(lasted / 1s) + " s");
      return listener_.on_channel_lost();
    }
    retry_ = {poster_.loop(), pause_ms, [this] {
                retry_.stop();
                gateway_->connect();
              }};
    if (first) listener_.on_channel_interrupted();
  }

  const janus::room_terms terms_;
  const std::string reached_at_;
  const rtp::settings rtp_;
  const base::logger log_;
  base::poster poster_;
  channel_listener& listener_;
  bool joined_ = false;  // ever
  std::optional<interruption> interrupted_;
  base::scoped_timer retry_;
  std::unique_ptr<webrtc::endpoint> endpoint_;
  std::unique_ptr<janus::gateway> gateway_;
  std::unique_ptr<janus::room> room_;
  std::unique_ptr<janus::feeds> feeds_;
};

}  // namespace

std::unique_ptr<channel> make_janus_channel(const channel_place& place, base::event_loop& loop,
                                            channel_listener& listener, std::string& error) {
  auto at = janus::parse_gateway(place.rest, error);
  if (!at) return nullptr;
  return std::make_unique<janus_channel>(std::move(*at), place, loop, listener);
}

}  // namespace zelta::core_service
