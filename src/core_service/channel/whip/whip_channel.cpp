// SPDX-License-Identifier: Apache-2.0
// The recorder itself as the channel's server: users publish to it by WHIP, from the page that it
// serves or from programs that do the same.
#include <algorithm>
#include <charconv>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "base/poster.h"
#include "core_service/channel/backends.h"
#include "core_service/channel/user_id.h"
#include "core_service/channel/whip/publishers.h"
#include "core_service/channel/whip/whip_server.h"
#include "core_service/webrtc/answer.h"
#include "core_service/webrtc/endpoint.h"
#include "core_service/webrtc/ice_credentials.h"
#include "core_service/webrtc/ice_fragment.h"
#include "core_service/webrtc/offer.h"

namespace zelta::core_service {
namespace {

using namespace std::chrono_literals;
using media::media_time;

// Browsers say every few seconds that they are still there (RFC 7675), and one whose network
// changes needs some to notice.
constexpr media_time kPatience = 8s;
// One who was heard in this time is there, and nobody else takes their place: who sends nothing
// is heard by the checks of their ICE.
constexpr media_time kAlive = 5s;
constexpr int kRetryAfterS = 5;
constexpr const char* kOver = "the recording ends here";
constexpr const char* kNoRandom = "the machine gives no random bytes";

struct server_place {
  std::string address;
  int port;
};

// "ADDRESS:PORT", an IPv6 address in brackets.
std::optional<server_place> parse_place(const std::string& text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  server_place place{text.substr(0, colon), 0};
  const char* const end = text.data() + text.size();
  const auto [stopped, failed] = std::from_chars(text.data() + colon + 1, end, place.port);
  if (failed != std::errc() || stopped != end || place.port < 0 || place.port > 65535) {
    return std::nullopt;
  }
  std::string& address = place.address;
  const bool bracketed = address.size() > 2 && address.front() == '[' && address.back() == ']';
  if (bracketed) address = address.substr(1, address.size() - 2);
  if (!bracketed && address.find(':') != std::string::npos) return std::nullopt;
  return place;
}

// As hard to guess as a password, and fit for a URL, in which ICE's characters would be encoded.
std::string session_name(const webrtc::ice_credentials& secret) {
  std::string name = secret.ufrag + secret.password;
  std::replace(name.begin(), name.end(), '+', '-');
  std::replace(name.begin(), name.end(), '/', '_');
  return name;
}

class whip_channel : public channel, private publishers {
 public:
  whip_channel(server_place at, const channel_place& place, base::event_loop& loop,
               channel_listener& listener)
      : at_(std::move(at)),
        channel_id_(place.channel_id),
        whip_(place.whip),
        rtp_(place.rtp),
        log_(place.log),
        poster_(loop),
        listener_(listener) {}
  ~whip_channel() override { leave(); }

  void join() override {
    poster_.post([this] { open(); });
  }

  void leave() override {
    poster_.forget();
    server_.reset();
    sessions_.clear();
    endpoint_.reset();
  }

  // Whoever was turned away has been told, and comes again by themselves.
  bool offer_again(uint32_t /*uid*/) override { return false; }

  media_time take_behind() override { return endpoint_ ? endpoint_->take_behind() : media_time{}; }
  uint64_t take_dropped() override { return endpoint_ ? endpoint_->take_dropped() : 0; }

 private:
  struct session {
    uint32_t uid = 0;
    webrtc::offer offer;
    webrtc::answer_terms agreed;
    std::weak_ptr<webrtc::peer> sender;
    std::shared_ptr<const webrtc::last_heard> heard;

    // It is the ICE session's (RFC 9725, section 4.3), which its user name tells from others.
    std::string etag() const { return "\"" + agreed.ufrag + "\""; }
  };

  void open() {
    std::string error;
    endpoint_ = webrtc::endpoint::open(at_.address, whip_.address, rtp_, poster_.loop(), error);
    if (endpoint_) {
      server_ = whip_server::start(
          {at_.address, at_.port, channel_id_, whip_.token, whip_.certificate, whip_.key},
          poster_.loop(), *this, log_, error);
    }
    if (!server_) return listener_.on_channel_failed(error);
    listener_.on_channel_joined();
  }

  // ---- What users ask for ------------------------------------------------------------------

  std::variant<opened, refusal> publish(const std::string& user, const std::string& text) override {
    const uint32_t uid = uid_of(user);
    std::string error;
    std::vector<missing_medium> left_out;
    auto offer = webrtc::parse_offer(text, left_out, error);
    if (!offer) return refusal{400, error};
    const std::weak_ptr<int> alive = poster_.life();
    const bool is_free = make_way(uid);
    if (alive.expired()) return refusal{503, kOver};
    if (!is_free) {
      return refusal{409, "\"" + user + "\" is in the channel already: take another name"};
    }
    const auto secret = webrtc::make_ice_credentials();
    auto agreed = endpoint_->new_terms();
    if (!secret || !agreed) return refusal{503, kNoRandom, kRetryAfterS};
    const std::string id = session_name(*secret);
    session& made = sessions_[id] = {uid, std::move(*offer), std::move(*agreed), {}, nullptr};
    const opened answer{id, webrtc::make_answer(made.offer, made.agreed), made.etag()};
    std::weak_ptr<media::media_feed> taken;
    listener_.on_user_in(uid, [&]() -> std::shared_ptr<media::media_feed> {
      auto user_made = make_user(id, error);
      if (!user_made) return nullptr;
      sessions_[id].sender = user_made->sender;
      sessions_[id].heard = user_made->heard;
      taken = user_made->feed;
      return std::move(user_made->feed);
    });
    if (alive.expired()) return refusal{503, kOver};
    if (taken.expired()) return turn_away(id, uid, error);
    if (user != std::to_string(uid)) listener_.on_user_name(uid, user);
    for (const missing_medium& one : left_out) tell(uid, one);
    return answer;
  }

  refusal turn_away(const std::string& id, uint32_t uid, const std::string& error) {
    forget(id);
    // Whoever doesn't wait isn't in the channel.
    listener_.on_user_out(uid);
    if (!error.empty()) return {400, error};
    return {503, "the recorder has no room for more users at the moment", kRetryAfterS};
  }

  void tell(uint32_t uid, const missing_medium& what) {
    if (what.medium.empty()) {
      log_.warn("user " + std::to_string(uid) + ": " + what.reason);
    } else {
      listener_.on_missing(uid, what);
    }
  }

  std::variant<patched, refusal> patch(const std::string& id, const std::string& text,
                                       const std::string& if_match) override {
    const auto found = sessions_.find(id);
    if (found == sessions_.end()) return refusal{404, "there is no such session"};
    session& whose = found->second;
    std::string error;
    const auto fragment = webrtc::parse_fragment(text, error);
    if (!fragment) return refusal{400, error};
    const bool restart = fragment->ufrag != whose.offer.ufrag;
    if (!restart && if_match.empty()) {
      return refusal{428, "If-Match should have the session's ETag"};
    }
    if (if_match != whose.etag() && !(restart && (if_match == "*" || if_match.empty()))) {
      return refusal{412, "the session's ETag is " + whose.etag() + " by now"};
    }
    // Candidates aren't needed here: who has the password shows by its checks where it is.
    if (!restart) return patched{};
    if (!endpoint_->restart_ice(whose.sender, fragment->ufrag, whose.agreed)) {
      return refusal{503, kNoRandom, kRetryAfterS};
    }
    whose.offer.ufrag = fragment->ufrag;
    whose.offer.password = fragment->password;
    return patched{webrtc::make_fragment(whose.agreed, whose.offer), whose.etag()};
  }

  bool end(const std::string& id) override {
    if (sessions_.count(id) == 0) return false;
    ended(id, "has left");
    return true;
  }

  bool has(const std::string& id) const override { return sessions_.count(id) != 0; }

  void forget(const std::string& id) {
    sessions_.erase(id);
    // None when the channel is left from inside its listener.
    if (server_) server_->session_ended(id);
  }

  // False: somebody of that number is there.
  bool make_way(uint32_t uid) {
    const auto found = std::find_if(sessions_.begin(), sessions_.end(),
                                    [uid](const auto& known) { return known.second.uid == uid; });
    if (found == sessions_.end()) return true;
    const auto& heard = found->second.heard;
    if (heard && heard->within(kAlive)) return false;
    ended(std::string(found->first), "comes again");
    return true;
  }

  std::optional<webrtc::endpoint::user> make_user(const std::string& id, std::string& error) {
    const session& whose = sessions_.at(id);
    // Notices come from the packet thread, maybe when the channel is gone.
    const auto later = [this, life = poster_.life(), &loop = poster_.loop()](auto work) {
      loop.post([this, life, work] {
        if (!life.expired()) work(*this);
      });
    };
    const uint32_t uid = whose.uid;
    return endpoint_->make_user(
        uid, whose.offer, whose.agreed, {kPatience},
        {[later, uid] {
           later([uid](whip_channel& to) {
             to.log_.notice("user " + std::to_string(uid) + " is connected");
           });
         },
         [later, id](const std::string& why) {
           later([id, why](whip_channel& to) { to.ended(id, why); });
         }},
        error);
  }

  void ended(const std::string& id, const std::string& why) {
    const auto found = sessions_.find(id);
    if (found == sessions_.end()) return;
    const uint32_t uid = found->second.uid;
    log_.notice("user " + std::to_string(uid) + " " + why);
    forget(id);
    listener_.on_user_out(uid);
  }

  const server_place at_;
  const std::string channel_id_;
  const whip_settings whip_;
  const rtp::settings rtp_;
  const base::logger log_;
  base::poster poster_;
  channel_listener& listener_;
  std::unique_ptr<webrtc::endpoint> endpoint_;
  std::map<std::string, session> sessions_;
  std::unique_ptr<whip_server> server_;
};

}  // namespace

std::unique_ptr<channel> make_whip_channel(const channel_place& place, base::event_loop& loop,
                                           channel_listener& listener, std::string& error) {
  auto at = parse_place(place.rest);
  if (!at) {
    error = "\"" + place.rest + "\" should be ADDRESS:PORT, such as 127.0.0.1:8080 or [::1]:8080";
    return nullptr;
  }
  return std::make_unique<whip_channel>(std::move(*at), place, loop, listener);
}

}  // namespace zelta::core_service
