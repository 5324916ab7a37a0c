// SPDX-License-Identifier: Apache-2.0
// Users who publish by WebRTC to an endpoint, over loopback, from the first check to the last unit,
// with what can go wrong on the way.
#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "base/event_loop.h"
#include "core_service/media/codecs.h"
#include "core_service/media/timeline.h"
#include "core_service/rtp/network_order.h"
#include "core_service/webrtc/endpoint.h"
#include "support/hex.h"
#include "support/webrtc/client.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
namespace media = core_service::media;
namespace rtp = core_service::rtp;
namespace webrtc = core_service::webrtc;
using media::media_time;
using state = webrtc_client::state;

constexpr int kTickMs = 5;
constexpr media_time kLimit = 20s;
// Users send faster than in life, so that a test needs less of it.
constexpr int kTicksAPicture = 2;
constexpr int kTicksASound = 4;
constexpr uint32_t kKeyFrames = 30;
constexpr uint8_t kLevel = 33;

// A user, and what has come of them. Made, used and destroyed on the loop's thread.
struct User {
  uint8_t number = 0;
  std::unique_ptr<webrtc_client> client;
  webrtc::answer_terms agreed;
  std::shared_ptr<media::media_feed> feed;
  std::weak_ptr<webrtc::peer> sender;
  bool is_silent = false;  // it isn't even stepped
  bool plays = false;
  uint32_t first_picture = 0;

  int connected = 0;
  std::vector<std::string> ended;
  bool stopped = false;
  // The numbers in the units, by codec, and those of units that aren't this user's.
  std::map<std::string, std::vector<uint32_t>> units;
  size_t of_others = 0;
  size_t without_level = 0;
  uint32_t pictures = 0;  // sent
  uint32_t sounds = 0;
  std::array<uint16_t, 2> sequence{65500, 65500};  // they wrap early
  int ticks = 0;

  // What stands in for coded media, with its user and number at the end.
  std::vector<uint8_t> marked(std::vector<uint8_t> bytes, uint32_t which) const {
    bytes.insert(bytes.end(),
                 {number, static_cast<uint8_t>(which >> 8U), static_cast<uint8_t>(which)});
    return bytes;
  }
  void send(size_t source, bool marker, uint32_t time, const std::vector<uint8_t>& payload) {
    const webrtc_source of = usual_sources(1000U * number)[source];
    uint8_t header[12] = {0x80, static_cast<uint8_t>(of.payload_type | (marker ? 0x80U : 0U))};
    rtp::write_16(header + 2, sequence[source]++);
    rtp::write_32(header + 4, time);
    rtp::write_32(header + 8, of.ssrc);
    const auto level = source == 1 ? std::optional<uint8_t>(kLevel) : std::nullopt;
    client->send(source, header, payload.data(), payload.size(), level);
  }
  // One of three or five packets.
  void send_picture() {
    const uint32_t time = pictures * 900;
    const bool key = pictures % kKeyFrames == 0;
    if (key) {
      send(0, false, time, from_hex("67420028d9414179"));
      send(0, false, time, from_hex("68ce3880"));
    }
    const uint8_t type = key ? 5 : 1;
    for (const unsigned flags : {0x80U, 0U, 0x40U}) {
      std::vector<uint8_t> payload(400, 0x55);
      payload[0] = 0x7c;
      payload[1] = static_cast<uint8_t>(flags | type);
      // The beginning of a slice of parameter set 0.
      if (flags == 0x80) std::copy_n(from_hex("8884").begin(), 2, payload.begin() + 2);
      if (flags == 0x40) payload = marked(std::move(payload), pictures);
      send(0, flags == 0x40, time, payload);
    }
    ++pictures;
  }
  void send_sound() {
    // One frame of 20 ms (RFC 6716, section 3.1).
    send(1, false, sounds * 960, marked({0x78, 1, 2, 3}, sounds));
    ++sounds;
  }
  void tick(media_time now) {
    if (is_silent) return;
    client->step(now);
    if (!plays || client->is() != state::kConnected) return;
    if (ticks % kTicksAPicture == 0) send_picture();
    if (ticks % kTicksASound == 0) send_sound();
    ++ticks;
  }

  void take(const media::encoded_unit& unit) {
    const std::string codec = unit.format->kind->name;
    const uint8_t* const end = unit.bytes.data() + unit.bytes.size();
    if (unit.bytes.size() < 3 || end[-3] != number) {
      ++of_others;
      return;
    }
    if (codec == "opus" && unit.level != kLevel) ++without_level;
    units[codec].push_back(rtp::read_16(end - 2));
  }
  size_t came(const char* codec) { return units[codec].size(); }
};

std::vector<uint32_t> numbers_up_to(size_t end) {
  std::vector<uint32_t> all(end);
  for (size_t i = 0; i < end; ++i) all[i] = static_cast<uint32_t>(i);
  return all;
}

class Endpoint : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    gst_init(nullptr, nullptr);
    std::string error;
    certificate_ = webrtc::certificate::make(error);
    ASSERT_NE(certificate_, nullptr) << error;
  }
  static void TearDownTestSuite() { certificate_.reset(); }

  Endpoint() {
    rtp::settings how;
    how.jitter_latency = 1s;
    std::string error;
    endpoint_ = webrtc::endpoint::open("127.0.0.1", {}, how, loop_, error);
    EXPECT_NE(endpoint_, nullptr) << error;
    timer_ = loop_.add_timer(
        kTickMs, [](int, void* self) { static_cast<Endpoint*>(self)->tick(); }, this);
  }
  // The plane is gone before the loop that its mail comes by.
  ~Endpoint() override {
    loop_.remove_timer(timer_);
    users_.clear();
    endpoint_.reset();
  }

  // Runs the loop, and all users on it, until it is so. False: it isn't within the limit.
  bool run_until(const std::function<bool()>& is_so, media_time limit = kLimit) {
    until_ = is_so;
    end_ = media::now() + limit;
    loop_.run(false);
    until_ = nullptr;
    return is_so();
  }

  struct changes {
    std::function<void(webrtc_client::wishes&)> wished = [](auto&) {};
    // Of the answer's text.
    std::function<std::string(const std::string&)> answered = [](const auto& text) { return text; };
    media_time patience = 5s;
  };
  // One who has offered, was answered, and sends the first check.
  User& add_user(const changes& how) {
    users_.push_back(std::make_unique<User>());
    User& made = *users_.back();
    made.number = static_cast<uint8_t>(users_.size());
    webrtc_client::wishes wished;
    wished.sources = usual_sources(1000U * made.number);
    wished.as = certificate_;
    wished.check_interval = 200ms;
    wished.seed = made.number;
    how.wished(wished);
    std::string error;
    made.client = webrtc_client::make(wished, error);
    std::vector<core_service::missing_medium> left_out;
    const auto offer = webrtc::parse_offer(made.client->offer(), left_out, error);
    if (!offer || !left_out.empty()) throw std::runtime_error("the offer isn't read: " + error);
    made.agreed = endpoint_->new_terms().value();
    auto user = endpoint_->make_user(made.number, *offer, made.agreed, {how.patience},
                                     {[this, to = &made] { loop_.post([to] { ++to->connected; }); },
                                      [this, to = &made](const std::string& why) {
                                        loop_.post([to, why] { to->ended.push_back(why); });
                                      }},
                                     error);
    if (!user) throw std::runtime_error("no user: " + error);
    made.feed = std::move(user->feed);
    made.sender = user->sender;
    media::media_feed::events told;
    told.kinds_known = [](media::kinds may_come) { EXPECT_TRUE(may_come.video && may_come.sound); };
    told.sound_expected = [](const media::format_ptr&) {};
    told.unit = [to = &made](int, const media::encoded_unit& unit) { to->take(unit); };
    told.track_ended = [](int) {};
    told.missing = [](const core_service::missing_medium&) {};
    told.over = [](const std::string&) {};
    made.feed->start({}, std::move(told));
    const std::string answer = how.answered(webrtc::make_answer(*offer, made.agreed));
    if (!made.client->begin(answer, media::now(), error)) throw std::runtime_error(error);
    return made;
  }
  User& add_user() { return add_user(changes{}); }
  // One who sends, and of whom something has come.
  User& add_player() {
    User& made = add_user();
    made.plays = true;
    EXPECT_TRUE(run_until([&] { return made.came("h264") > 0 && made.came("opus") > 0; }))
        << made.client->why();
    return made;
  }
  bool more_comes_of(User& from) {
    const size_t pictures = from.came("h264");
    return run_until([&] { return from.came("h264") > pictures + 5; });
  }
  // All that it has sent has come, once, in order.
  void expect_all_of(User& from) {
    from.plays = false;
    run_until(
        [&] { return from.came("h264") >= from.pictures && from.came("opus") >= from.sounds; }, 4s);
    EXPECT_EQ(from.units["h264"], numbers_up_to(from.pictures));
    EXPECT_EQ(from.units["opus"], numbers_up_to(from.sounds));
    EXPECT_EQ(from.of_others, 0U);
    EXPECT_EQ(from.without_level, 0U);
  }
  void stop(User& whose) {
    whose.feed->stop([to = &whose] { to->stopped = true; });
  }

  static std::shared_ptr<const webrtc::certificate> certificate_;
  base::event_loop loop_;
  std::unique_ptr<webrtc::endpoint> endpoint_;
  std::vector<std::unique_ptr<User>> users_;

 private:
  void tick() {
    const media_time now = media::now();
    for (const auto& one : users_) one->tick(now);
    if (!until_ || until_() || now > end_) loop_.stop();
  }

  base::timer_event* timer_ = nullptr;
  std::function<bool()> until_;
  media_time end_{};
};

std::shared_ptr<const webrtc::certificate> Endpoint::certificate_;

// All at once, so that nothing of one may come out as another's.
TEST_F(Endpoint, MakesUnitsOfWhatUsersSendWhateverIsLostOnTheWay) {
  struct row {
    const char* what;
    const char* profiles;
    bool by_ssrc;
    double loss;
  };
  const row rows[] = {
      {"GCM, known by mid", "SRTP_AEAD_AES_128_GCM", false, 0},
      {"counter mode, known by SSRC", "SRTP_AES128_CM_SHA1_80", true, 0},
      {"2 % lost, by mid", "SRTP_AEAD_AES_128_GCM:SRTP_AES128_CM_SHA1_80", false, 0.02},
      {"2 % lost, by SSRC", "SRTP_AES128_CM_SHA1_80", true, 0.02},
      {"10 % lost", "SRTP_AES128_CM_SHA1_80:SRTP_AEAD_AES_128_GCM", false, 0.1},
  };
  std::vector<User*> users;
  for (const row& one : rows) {
    changes how;
    how.wished = [&one](webrtc_client::wishes& to) {
      to.profiles = one.profiles;
      to.by_ssrc = one.by_ssrc;
    };
    users.push_back(&add_user(how));
    users.back()->plays = true;
  }
  const auto all = [&](const std::function<bool(User&)>& are) {
    return std::all_of(users.begin(), users.end(), [&are](User* one) { return are(*one); });
  };
  ASSERT_TRUE(run_until([&] { return all([](User& one) { return one.came("h264") > 5; }); }));
  for (size_t i = 0; i < users.size(); ++i) users[i]->client->lose(rows[i].loss);
  ASSERT_TRUE(run_until([&] { return all([](User& one) { return one.pictures >= 180; }); }));
  for (size_t i = 0; i < users.size(); ++i) {
    SCOPED_TRACE(rows[i].what);
    User& one = *users[i];
    const webrtc_client::counters& counts = one.client->counts();
    EXPECT_EQ(one.connected, 1);
    EXPECT_EQ(counts.lost > 0, rows[i].loss > 0);
    // Whatever the last packets were, those behind them show that they are lost.
    one.client->lose(0);
    one.send_picture();
    one.send_picture();
  }
  for (User* const one : users) one->plays = false;
  run_until([&] { return all([](User& one) { return one.came("h264") >= one.pictures; }); }, 4s);
  for (size_t i = 0; i < users.size(); ++i) {
    SCOPED_TRACE(rows[i].what);
    User& one = *users[i];
    const webrtc_client::counters& counts = one.client->counts();
    EXPECT_EQ(one.units["h264"], numbers_up_to(one.pictures));
    // Sound that is lost isn't sent again.
    if (rows[i].loss == 0) {
      EXPECT_EQ(one.units["opus"], numbers_up_to(one.sounds));
    }
    EXPECT_EQ(one.of_others, 0U);
    EXPECT_EQ(one.without_level, 0U);
    EXPECT_EQ(counts.repeated > 0, rows[i].loss > 0) << counts.asked << " were asked for";
    EXPECT_LE(counts.asked, counts.lost * 3) << "what came isn't asked for";
    EXPECT_GE(counts.told_arrived, counts.packets / 2);
    EXPECT_GT(counts.reports, 0U);
    EXPECT_EQ(counts.errors, 0U);
    EXPECT_TRUE(one.ended.empty());
  }
}

TEST_F(Endpoint, LetsNobodyInWhoIsntExpected) {
  const auto with_password = [](const std::string& text) {
    const std::string start = "a=ice-pwd:";
    std::string changed = text;
    for (size_t at = 0; (at = changed.find(start, at)) != std::string::npos; ++at) {
      char& first = changed[at + start.size()];
      first = first == 'x' ? 'y' : 'x';
    }
    return changed;
  };
  struct row {
    const char* what;
    changes how;
    bool is_answered;  // its checks are
    std::string ended;
  };
  const std::string other(
      "00:11:22:33:44:55:66:77:88:99:AA:BB:CC:DD:EE:FF:00:11:22:33:44:55:66:77:88:99:AA:BB:CC:DD:"
      "EE:FF");
  row rows[] = {
      {"another certificate",
       {},
       true,
       "the peer's certificate isn't the one that a=fingerprint of its offer names"},
      {"another password", {}, false, ""},
      {"no cipher in common",
       {},
       true,
       "the peer has no way to encrypt media in common with us: use_srtp should offer "
       "SRTP_AEAD_AES_128_GCM or SRTP_AES128_CM_HMAC_SHA1_80"},
  };
  rows[0].how.wished = [&other](auto& to) { to.other_fingerprint = other; };
  rows[1].how.answered = with_password;
  rows[2].how.wished = [](auto& to) { to.profiles = "SRTP_AES128_CM_SHA1_32"; };
  for (const row& one : rows) {
    SCOPED_TRACE(one.what);
    User& user = add_user(one.how);
    user.plays = true;
    const webrtc_client::counters& counts = user.client->counts();
    ASSERT_TRUE(run_until(
        [&] { return one.is_answered ? !user.ended.empty() : counts.checks_refused >= 2; }));
    EXPECT_EQ(counts.checks_answered > 0, one.is_answered);
    EXPECT_EQ(user.ended,
              one.is_answered ? std::vector<std::string>{one.ended} : std::vector<std::string>{});
    EXPECT_EQ(user.connected, 0);
    EXPECT_TRUE(user.units.empty());
    EXPECT_NE(user.client->is(), state::kConnected);
  }
}

TEST_F(Endpoint, FollowsAUserToAnotherAddressWithoutLosingAnything) {
  User& user = add_player();
  const size_t answered = user.client->counts().checks_answered;
  ASSERT_TRUE(user.client->move(media::now()));
  EXPECT_TRUE(more_comes_of(user));
  EXPECT_TRUE(run_until([&] { return user.client->counts().checks_answered > answered; }));
  // What is said to the user comes there as well.
  const size_t reports = user.client->counts().reports;
  EXPECT_TRUE(run_until([&] { return user.client->counts().reports > reports + 1; }));
  expect_all_of(user);
  EXPECT_EQ(user.connected, 1);
}

TEST_F(Endpoint, KeepsTheOldNameUntilTheNewOneOfARestartIsUsed) {
  User& user = add_player();
  const webrtc_client::counters& counts = user.client->counts();
  const ice_names old_own = user.client->own_names();
  const ice_names old_theirs{user.agreed.ufrag, user.agreed.password};
  // The first is never used: the second takes its place.
  const ice_names own{"restarted", "a-password-of-22-letters"};
  ASSERT_TRUE(endpoint_->restart_ice(user.sender, own.ufrag, user.agreed));
  const ice_names forgotten{user.agreed.ufrag, user.agreed.password};
  ASSERT_TRUE(endpoint_->restart_ice(user.sender, own.ufrag, user.agreed));
  EXPECT_NE(user.agreed.ufrag, old_theirs.ufrag);
  EXPECT_EQ(user.agreed.version, 3U);

  enum class answer { kSuccess, kRefusal, kNone };
  struct row {
    const char* what;
    ice_names own, theirs;
    answer wanted;
  };
  const ice_names theirs{user.agreed.ufrag, user.agreed.password};
  const row rows[] = {
      {"the old name", old_own, old_theirs, answer::kSuccess},
      {"one that another has replaced", own, forgotten, answer::kNone},
      {"a new name with the old password",
       own,
       {theirs.ufrag, old_theirs.password},
       answer::kRefusal},
      {"the old name, still", old_own, old_theirs, answer::kSuccess},
      {"the new one", own, theirs, answer::kSuccess},
      {"the old name, which is over", old_own, old_theirs, answer::kNone},
      {"the new one, still", own, theirs, answer::kSuccess},
  };
  for (const row& one : rows) {
    SCOPED_TRACE(one.what);
    const uint64_t answered = counts.checks_answered;
    const uint64_t refused = counts.checks_refused;
    const uint64_t came = counts.datagrams_in;
    user.client->rename(one.own, one.theirs, media::now());
    // Feedback on media that was sent behind the check shows that it gets no answer.
    EXPECT_TRUE(run_until([&] {
      return counts.checks_answered > answered || counts.checks_refused > refused ||
             (one.wanted == answer::kNone && counts.datagrams_in > came + 3);
    }));
    EXPECT_EQ(counts.checks_answered > answered, one.wanted == answer::kSuccess);
    EXPECT_EQ(counts.checks_refused > refused, one.wanted == answer::kRefusal);
  }
  EXPECT_TRUE(more_comes_of(user));
  expect_all_of(user);
}

TEST_F(Endpoint, SaysHowAUserHasEnded) {
  struct row {
    const char* what;
    std::function<void(User&)> act;
    const char* why;
  };
  const row rows[] = {
      {"goodbye", [](User& one) { one.client->leave(); }, "has left"},
      {"silence", [](User& one) { one.is_silent = true; }, "nothing has come for 1 s"},
  };
  changes how;
  how.patience = 1s;
  std::vector<User*> users;
  for (size_t i = 0; i < std::size(rows); ++i) users.push_back(&add_user(how));
  // Sends no media, and still is there.
  User& quiet = add_user(how);
  ASSERT_TRUE(run_until([&] {
    return std::all_of(users_.begin(), users_.end(),
                       [](const auto& one) { return one->connected == 1; });
  }));
  for (size_t i = 0; i < users.size(); ++i) rows[i].act(*users[i]);
  for (size_t i = 0; i < users.size(); ++i) {
    EXPECT_TRUE(run_until([&] { return !users[i]->ended.empty(); })) << rows[i].what;
    EXPECT_EQ(users[i]->ended, std::vector<std::string>{rows[i].why});
  }
  EXPECT_TRUE(quiet.ended.empty());
}

TEST_F(Endpoint, TakesNoMediaBeforeTheCertificateAndNoGarbageAtAnyTime) {
  // Of each first byte, too short and long; the second byte is RTCP's and not.
  const auto send_garbage = [](User& from) {
    for (unsigned first = 0; first < 256; ++first) {
      for (const size_t size : {size_t{1}, size_t{12}, size_t{200}}) {
        std::vector<uint8_t> bytes(size, static_cast<uint8_t>(first % 2 == 0 ? 200 : 96));
        bytes[0] = static_cast<uint8_t>(first);
        from.client->send_raw(bytes.data(), bytes.size());
      }
    }
    from.client->send_raw(nullptr, 0);
  };
  // What a picture would be, if nothing had to be encrypted.
  std::vector<uint8_t> plain = from_hex("80e00001000000000000ffff65887766");
  User& user = add_user();
  const size_t before = user.client->counts().datagrams_in;
  send_garbage(user);
  user.client->send_raw(plain.data(), plain.size());
  ASSERT_TRUE(run_until([&] { return user.client->is() == state::kHandshaking; }));
  EXPECT_EQ(user.client->counts().datagrams_in, before + 1) << "but for the check's, no answers";
  user.client->send_raw(plain.data(), plain.size());
  send_garbage(user);
  ASSERT_TRUE(run_until([&] { return user.connected == 1; })) << user.client->why();
  user.plays = true;
  ASSERT_TRUE(more_comes_of(user));
  send_garbage(user);
  // From where nobody is known.
  User stranger;
  webrtc_client::wishes wished;
  wished.sources = usual_sources(1);
  wished.as = certificate_;
  std::string error;
  stranger.client = webrtc_client::make(wished, error);
  std::string answer = "a=ice-ufrag:no\r\na=ice-pwd:nothing\r\na=fingerprint:sha-256 " +
                       certificate_->fingerprint() + "\r\na=candidate:1 1 udp 1 127.0.0.1 " +
                       std::to_string(user.client->remote_port()) + " typ host\r\n";
  ASSERT_TRUE(stranger.client->begin(answer, media::now(), error)) << error;
  send_garbage(stranger);
  ASSERT_TRUE(more_comes_of(user));
  stranger.client->step(media::now());
  EXPECT_EQ(stranger.client->counts().datagrams_in, 0U);
  expect_all_of(user);
  EXPECT_TRUE(user.ended.empty());
}

TEST_F(Endpoint, AsksForAKeyFrame) {
  User& user = add_player();
  const auto asked = [&] { return user.client->counts().key_frames_asked; };
  const uint64_t before = asked();
  user.feed->request_key_frame();
  EXPECT_TRUE(run_until([&] { return asked() > before; }));
}

TEST_F(Endpoint, StopsWhilePacketsComeAndTakesNothingBehind) {
  User& stays = add_player();
  User& goes = add_player();
  stop(goes);
  ASSERT_TRUE(run_until([&] { return goes.stopped; }));
  const size_t came = goes.came("h264");
  EXPECT_TRUE(more_comes_of(stays));
  EXPECT_EQ(goes.came("h264"), came);
  EXPECT_TRUE(goes.sender.expired());
  EXPECT_EQ(goes.client->is(), state::kClosed) << "is told";
  EXPECT_EQ(goes.client->why(), "the server closed the session");
  expect_all_of(stays);
}

TEST_F(Endpoint, MayBeGoneBeforeItsUsers) {
  User& first = add_player();
  User& second = add_player();
  User& third = add_user();  // maybe in the middle of its handshake
  endpoint_.reset();
  // They go on until they are stopped, or destroyed as they are.
  EXPECT_TRUE(more_comes_of(first));
  stop(first);
  second.feed.reset();
  third.feed.reset();
  EXPECT_TRUE(run_until([&] { return first.stopped; }));
  first.feed.reset();
}

}  // namespace
}  // namespace zelta::test
