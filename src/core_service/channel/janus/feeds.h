// SPDX-License-Identifier: Apache-2.0
// Makes users of those who publish in a room: each is subscribed to, and what the gateway offers of
// it answered by an endpoint's new user. Media outlives the connection to the gateway.
//
//     published ─▶ subscription ─▶ offer ─▶ on_user_in ─▶ answer ─▶ media
//                       ▲                └─▶ turned away: kept for offer_again()
//                       └── other streams, or the media ended: anew, 1 to 10 s later
//
// Everything on the loop's thread. Calls of the listener may destroy it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "base/event_loop.h"
#include "base/logger.h"
#include "base/poster.h"
#include "base/scoped_timer.h"
#include "core_service/channel/channel.h"
#include "core_service/channel/janus/gateway.h"
#include "core_service/channel/janus/pauses.h"
#include "core_service/channel/janus/publisher.h"
#include "core_service/channel/janus/subscription.h"
#include "core_service/webrtc/endpoint.h"
#include "core_service/webrtc/offer.h"

namespace zelta::core_service::janus {

class feeds {
 public:
  // All are borrowed.
  feeds(gateway& by, webrtc::endpoint& media, base::event_loop& loop, channel_listener& listener,
        base::logger log);
  feeds(const feeds&) = delete;
  feeds& operator=(const feeds&) = delete;

  // Who is in the room that was joined; `join`: what a subscriber says there. `again`: in the
  // gateway's session of before, so that subscriptions are what they were.
  void enter(Json::Value join, const std::vector<publisher>& all, bool again);
  // Who came, or publishes something else.
  void published(const std::vector<publisher>& some);
  void gone(const std::string& key, const std::string& why);
  // The gateway can't be reached: no more than media goes on.
  void pause();

  // As channel has it.
  bool offer_again(uint32_t uid);

 private:
  struct source {
    uint64_t number = 0;
    std::unique_ptr<subscription> of;
  };
  struct feed {
    publisher who;
    bool has_uid = false;  // nobody else has its number
    bool in = false;       // it is a user
    bool let_go = false;   // it was, and is offered when it is asked for
    bool stale = false;    // is subscribed to in a session that there isn't any more
    source now;
    std::optional<webrtc::offer> offer;  // not yet answered
    source next;                         // takes the place of `now` when its offer comes
    pauses until_retry;
    base::scoped_timer retry;

    std::string text() const { return "user " + std::to_string(who.uid) + ", " + who.text(); }
  };

  std::vector<std::string> keys() const;
  feed* find(const std::string& key);
  // The one that has this number.
  feed* owner_of(uint32_t uid);
  void take(const publisher& who);
  void claim_uid(feed& one);
  void subscribe(feed& one);
  void subscribe_later(feed& one);
  void on_offered(const std::string& key, const std::string& sdp);
  void present(const std::string& key);
  std::shared_ptr<media::media_feed> open(const feed& one, const webrtc::answer_terms& agreed,
                                          std::string& error);
  void on_refused(const std::string& key, const std::string& why, bool gone);
  void on_over(const std::string& key, uint64_t number, const std::string& why, bool let_go);
  void tell_left_out(uint32_t uid, const std::vector<missing_medium>& all);

  gateway& gateway_;
  webrtc::endpoint& endpoint_;
  channel_listener& listener_;
  const base::logger log_;
  Json::Value join_;
  bool joined_ = false;
  uint64_t sources_ = 0;  // so far
  std::map<std::string, feed> feeds_;
  base::poster poster_;
};

}  // namespace zelta::core_service::janus
