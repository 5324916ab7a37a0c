// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/janus/feeds.h"

#include <algorithm>
#include <set>
#include <utility>

#include "core_service/channel/user_id.h"
#include "core_service/webrtc/answer.h"
#include "core_service/webrtc/peer.h"

namespace zelta::core_service::janus {
namespace {

using namespace std::chrono_literals;

// The gateway tells who leaves, and asks every few seconds whether we are still there.
constexpr media::media_time kPatience = 30s;

}  // namespace

feeds::feeds(gateway& by, webrtc::endpoint& media, base::event_loop& loop,
             channel_listener& listener, base::logger log)
    : gateway_(by), endpoint_(media), listener_(listener), log_(std::move(log)), poster_(loop) {}

std::vector<std::string> feeds::keys() const {
  std::vector<std::string> all;
  for (const auto& [key, one] : feeds_) all.push_back(key);
  return all;
}

feeds::feed* feeds::find(const std::string& key) {
  const auto found = feeds_.find(key);
  return found != feeds_.end() ? &found->second : nullptr;
}

feeds::feed* feeds::owner_of(uint32_t uid) {
  const auto found = std::find_if(feeds_.begin(), feeds_.end(), [uid](const auto& known) {
    return known.second.has_uid && known.second.who.uid == uid;
  });
  return found != feeds_.end() ? &found->second : nullptr;
}

// ---- Coming and going ----------------------------------------------------------------------

void feeds::enter(Json::Value join, const std::vector<publisher>& all, bool again) {
  joined_ = true;
  join_ = std::move(join);
  std::set<std::string> here;
  for (const publisher& one : all) here.insert(one.key);
  const std::weak_ptr<int> alive = poster_.life();
  for (const std::string& key : keys()) {
    if (here.count(key) == 0) gone(key, "has left meanwhile");
    if (alive.expired()) return;
  }
  for (auto& [key, one] : feeds_) one.stale = one.stale || !again;
  published(all);
}

void feeds::pause() {
  joined_ = false;
  for (auto& [key, one] : feeds_) {
    // What was asked for and hasn't come has to be asked for again.
    one.stale = one.stale || one.next.of || one.retry.runs();
    one.retry.stop();
    one.next = {};
  }
}

void feeds::published(const std::vector<publisher>& some) {
  const std::weak_ptr<int> alive = poster_.life();
  for (const publisher& who : some) {
    take(who);
    if (alive.expired()) return;
  }
}

void feeds::take(const publisher& who) {
  feed* const known = find(who.key);
  if (known == nullptr) {
    feed& made = feeds_[who.key];
    made.who = who;
    return claim_uid(made);
  }
  // Another name doesn't make it another user.
  const bool same = known->who.streams == who.streams;
  known->who.streams = who.streams;
  if (!known->has_uid) return;
  if (!same || known->stale || !(known->now.of || known->next.of)) subscribe(*known);
}

void feeds::claim_uid(feed& one) {
  const feed* const other = owner_of(one.who.uid);
  if (other == nullptr) {
    one.has_uid = true;
    return subscribe(one);
  }
  listener_.on_missing(one.who.uid,
                       {"all", "",
                        one.who.text() + " has the number of " + other->who.text() +
                            ", and is recorded once that one has left: its display should be "
                            "another number, or another name"});
}

void feeds::gone(const std::string& key, const std::string& why) {
  const auto found = feeds_.find(key);
  if (found == feeds_.end()) return;
  const feed left = std::move(found->second);
  feeds_.erase(found);
  if (!left.has_uid) return;
  log_.notice(left.text() + ": " + why);
  const std::weak_ptr<int> alive = poster_.life();
  // Whoever waits for room doesn't any more, either.
  listener_.on_user_out(left.who.uid);
  if (alive.expired()) return;
  const auto waits = std::find_if(feeds_.begin(), feeds_.end(), [&left](const auto& known) {
    return known.second.who.uid == left.who.uid;
  });
  if (waits != feeds_.end()) claim_uid(waits->second);
}

bool feeds::offer_again(uint32_t uid) {
  feed* const one = owner_of(uid);
  if (one == nullptr) return false;
  one->let_go = false;
  // If it isn't there yet, it comes.
  if (one->offer && !one->in) present(one->who.key);
  return true;
}

// ---- Subscribing ---------------------------------------------------------------------------

void feeds::subscribe(feed& one) {
  one.retry.stop();
  if (!joined_) return;
  one.stale = false;
  const std::string key = one.who.key;
  const uint64_t number = ++sources_;
  subscription::events told;
  told.offered = [this, key](const std::string& sdp) { on_offered(key, sdp); };
  told.refused = [this, key](const std::string& why, bool gone) { on_refused(key, why, gone); };
  told.over = [this, key, number](const std::string& why) { on_over(key, number, why, false); };
  one.next = {number,
              std::make_unique<subscription>(gateway_, join_, one.who.feed, std::move(told))};
}

void feeds::subscribe_later(feed& one) {
  if (!joined_) return;
  one.retry = {poster_.loop(), one.until_retry.next_ms(), [this, key = one.who.key] {
                 feed* const still = find(key);
                 if (still != nullptr) subscribe(*still);
               }};
}

void feeds::on_offered(const std::string& key, const std::string& sdp) {
  feed* one = find(key);
  if (one == nullptr) return;
  const uint32_t uid = one->who.uid;
  std::string error;
  std::vector<missing_medium> left_out;
  auto offer = webrtc::parse_offer(sdp, left_out, error);
  const source before = std::exchange(one->now, std::exchange(one->next, source{}));
  const bool was_in = std::exchange(one->in, false);
  one->offer = std::move(offer);
  const std::weak_ptr<int> alive = poster_.life();
  if (was_in) listener_.on_user_out(uid);
  if (!alive.expired()) tell_left_out(uid, left_out);
  if (alive.expired() || (one = find(key)) == nullptr) return;
  if (one->offer) {
    if (!one->let_go) present(key);
    return;
  }
  one->now = {};
  listener_.on_missing(uid,
                       {"all", "", "what the gateway offers of it can't be received: " + error});
}

void feeds::tell_left_out(uint32_t uid, const std::vector<missing_medium>& all) {
  const std::weak_ptr<int> alive = poster_.life();
  for (const missing_medium& what : all) {
    if (what.medium.empty()) {
      log_.warn("user " + std::to_string(uid) + ": " + what.reason);
    } else {
      listener_.on_missing(uid, what);
    }
    if (alive.expired()) return;
  }
}

void feeds::present(const std::string& key) {
  const feed& asked = *find(key);
  const uint32_t uid = asked.who.uid;
  const auto agreed = endpoint_.new_terms();
  std::string error = agreed ? "" : "the machine gives no random bytes";
  std::weak_ptr<media::media_feed> opened;
  const std::weak_ptr<int> alive = poster_.life();
  if (agreed) {
    listener_.on_user_in(uid, [&]() -> std::shared_ptr<media::media_feed> {
      auto made = open(asked, *agreed, error);
      opened = made;
      return made;
    });
  }
  if (alive.expired()) return;
  feed* const one = find(key);
  if (one == nullptr) return;
  // Who was turned away is let in with this offer when there is room.
  if (opened.expired() && error.empty()) return;
  const auto offer = std::exchange(one->offer, std::nullopt);
  if (!opened.expired()) {
    one->in = true;
    log_.notice(one->text() + ": is subscribed to");
    one->now.of->answer(webrtc::make_answer(*offer, *agreed));
    if (is_user_name(one->who.name) && one->who.name != std::to_string(uid)) {
      listener_.on_user_name(uid, one->who.name);
    }
    return;
  }
  one->now = {};
  listener_.on_missing(uid, {"all", "", error});
}

std::shared_ptr<media::media_feed> feeds::open(const feed& one, const webrtc::answer_terms& agreed,
                                               std::string& error) {
  // Notices come from the packet thread, maybe when nobody is here to hear them.
  const auto later = [life = poster_.life(), &loop = poster_.loop()](auto work) {
    loop.post([life, work] {
      if (!life.expired()) work();
    });
  };
  webrtc::peer::notices noticed;
  noticed.connected = [this, later, key = one.who.key] {
    later([this, key] {
      feed* const there = find(key);
      if (there == nullptr) return;
      there->until_retry = {};
      log_.notice(there->text() + ": is connected");
    });
  };
  noticed.ended = [this, later, key = one.who.key, number = one.now.number](const auto& why) {
    later([this, key, number, why] { on_over(key, number, why, why == webrtc::peer::kLetGo); });
  };
  auto made = endpoint_.make_user(one.who.uid, *one.offer, agreed, {kPatience, true},
                                  std::move(noticed), error);
  return made ? std::move(made->feed) : nullptr;
}

// ---- What goes wrong -----------------------------------------------------------------------

void feeds::on_refused(const std::string& key, const std::string& why, bool gone) {
  feed* const one = find(key);
  if (one == nullptr) return;
  one->next = {};
  // It will be told that it has left.
  if (gone) return;
  subscribe_later(*one);
  listener_.on_missing(one->who.uid, {"all", "", why});
}

void feeds::on_over(const std::string& key, uint64_t number, const std::string& why, bool let_go) {
  feed* const one = find(key);
  if (one == nullptr || (one->now.number != number && one->next.number != number)) return;
  log_.notice(one->text() + ": " + why);
  const bool was_next = one->next.number == number;
  (was_next ? one->next : one->now) = {};
  if (!one->next.of) subscribe_later(*one);
  if (was_next) return;
  one->offer.reset();
  one->let_go = let_go;
  // Whoever was let go waits for room.
  if (std::exchange(one->in, false) && !let_go) listener_.on_user_out(one->who.uid);
}

}  // namespace zelta::core_service::janus
