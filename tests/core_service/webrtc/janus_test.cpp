// SPDX-License-Identifier: Apache-2.0
// A Janus gateway's room as the channel, against a gateway of the test's own: what it says, and
// what the channel tells of it.
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <libsoup/soup.h>

#include "base/event_loop.h"
#include "core_service/channel/channel.h"
#include "core_service/channel/glib_thread.h"
#include "core_service/channel/janus/gateway.h"
#include "core_service/channel/janus/gateway_message.h"
#include "core_service/channel/janus/gateway_place.h"
#include "core_service/channel/janus/json_fields.h"
#include "core_service/channel/janus/publisher.h"
#include "support/webrtc_offers.h"

namespace zelta::test {
namespace {

using namespace core_service;
using namespace std::chrono_literals;
using janus::json_line;
using janus::text_in;

constexpr auto kLimit = 10s;

// What happened, in order; any thread.
class Journal {
 public:
  void add(const std::string& line) {
    const std::lock_guard<std::mutex> hold(lock_);
    lines_.push_back(line);
    more_.notify_all();
  }
  // The next line that begins so; those before it are passed over, and shown when it doesn't come.
  std::string wait_for(const std::string& start) {
    std::unique_lock<std::mutex> hold(lock_);
    std::string passed;
    const auto until = std::chrono::steady_clock::now() + kLimit;
    while (true) {
      for (; read_ < lines_.size(); ++read_) {
        if (lines_[read_].compare(0, start.size(), start) == 0) return lines_[read_++];
        passed += "\n  " + lines_[read_];
      }
      if (more_.wait_until(hold, until) == std::cv_status::timeout) {
        ADD_FAILURE() << "no \"" << start << "\" but" << passed;
        return "";
      }
    }
  }
  size_t count(const std::string& start) {
    const std::lock_guard<std::mutex> hold(lock_);
    size_t found = 0;
    for (const std::string& line : lines_) found += line.compare(0, start.size(), start) == 0;
    return found;
  }

 private:
  std::mutex lock_;
  std::condition_variable more_;
  std::vector<std::string> lines_;
  size_t read_ = 0;
};

Json::Value parsed(const std::string& text) {
  std::string error;
  auto made = janus::parse_json(text, error);
  EXPECT_TRUE(made) << text;
  return made.value_or(Json::Value());
}

struct Habits {
  std::string room = "\"talk\"";  // in JSON, and everybody's ids are of that kind
  std::string pin;
  std::string api_secret;
  std::string publishers = "[]";
  std::string offer = kChromiumOffer;
  bool keeps_sessions = false;  // those of connections that are lost
  bool protocol = true;         // speaks janus-protocol
  std::set<std::string> silent_at;
  // Said in place of the reply to this.
  std::map<std::string, std::string> says;
};

// Speaks as Janus does, by WebSocket and by HTTP.
class Gateway {
 public:
  explicit Gateway(Habits habits) : habits_(std::move(habits)) {
    in_thread([this] { listen(0); });
  }
  ~Gateway() {
    thread_.end([this] { close(); });
  }

  std::string server(const std::string& scheme, std::string path = "") const {
    if (path.empty()) path = scheme == "ws" ? "/ws" : "/janus";
    return "janus:" + scheme + "://127.0.0.1:" + std::to_string(port_) + path;
  }
  // An event of the room.
  void tell(const std::string& data) {
    in_thread([this, data] { push(event(room_handle_, "", data)); });
  }
  // For the handle that subscribed last, beside what the plugin says.
  void tell_subscriber(const std::string& kind) {
    in_thread([this, kind] {
      Json::Value said;
      said["janus"] = kind;
      said["sender"] = last_handle_;
      said["reason"] = "ICE failed";
      push(said);
    });
  }
  void drop() {
    in_thread([this] {
      if (socket_) soup_websocket_connection_close(socket_.get(), 1001, nullptr);
      if (!habits_.keeps_sessions) session_ = 0;
    });
  }
  void change(const std::function<void(Habits&)>& how) {
    in_thread([this, how] { how(habits_); });
  }

  Journal heard;

 private:
  void in_thread(const std::function<void()>& work) {
    std::mutex lock;
    std::condition_variable done_changed;
    bool done = false;
    thread_.post([&] {
      work();
      const std::lock_guard<std::mutex> hold(lock);
      done = true;
      done_changed.notify_all();
    });
    std::unique_lock<std::mutex> hold(lock);
    done_changed.wait(hold, [&] { return done; });
  }

  void listen(int port) {
    server_.reset(soup_server_new("raw-paths", TRUE, nullptr));
    char protocol[] = "janus-protocol";
    char* protocols[] = {protocol, nullptr};
    soup_server_add_websocket_handler(
        server_.get(), "/ws", nullptr, habits_.protocol ? protocols : nullptr,
        [](SoupServer*, SoupServerMessage*, const char*, SoupWebsocketConnection* made,
           gpointer self) { static_cast<Gateway*>(self)->on_socket(made); },
        this, nullptr);
    soup_server_add_handler(
        server_.get(), "/janus",
        [](SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer self) {
          static_cast<Gateway*>(self)->on_http(message, path);
        },
        this, nullptr);
    glib_error error;
    EXPECT_TRUE(soup_server_listen_local(server_.get(), static_cast<guint>(port),
                                         SOUP_SERVER_LISTEN_IPV4_ONLY, error.out()))
        << error.text();
    GSList* const uris = soup_server_get_uris(server_.get());
    port_ = g_uri_get_port(static_cast<GUri*>(uris->data));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
  }
  void close() {
    if (socket_) g_signal_handlers_disconnect_by_data(socket_.get(), this);
    socket_.reset();
    poll_.reset();
    soup_server_disconnect(server_.get());
    server_.reset();
  }

  void on_socket(SoupWebsocketConnection* made) {
    if (socket_) g_signal_handlers_disconnect_by_data(socket_.get(), this);
    socket_.reset(SOUP_WEBSOCKET_CONNECTION(g_object_ref(made)));
    g_signal_connect(made, "message",
                     G_CALLBACK(+[](SoupWebsocketConnection*, gint, GBytes* bytes, gpointer self) {
                       gsize size = 0;
                       const void* const text = g_bytes_get_data(bytes, &size);
                       auto* const to = static_cast<Gateway*>(self);
                       to->on_request(parsed({static_cast<const char*>(text), size}),
                                      [to](const Json::Value& reply) { to->push(reply); });
                     }),
                     this);
  }

  void on_http(SoupServerMessage* message, const std::string& path) {
    if (soup_server_message_get_method(message) == std::string("GET")) {
      heard.add("poll");
      poll_.reset(SOUP_SERVER_MESSAGE(g_object_ref(message)));
      soup_server_message_pause(message);
      return give();
    }
    const bytes_ptr body(soup_message_body_flatten(soup_server_message_get_request_body(message)));
    gsize size = 0;
    const void* const text = g_bytes_get_data(body.get(), &size);
    const Json::Value asked = parsed({static_cast<const char*>(text), size});
    std::string due = "/janus";
    for (const char* const part : {"session_id", "handle_id"}) {
      if (asked.isMember(part)) due += "/" + asked[part].asString();
    }
    EXPECT_EQ(path, due);
    bool answered = false;
    on_request(asked, [&](const Json::Value& reply) {
      // What a plugin replies comes as an event.
      if (std::exchange(answered, true)) return push(reply);
      const std::string said = json_line(reply);
      soup_server_message_set_response(message, "application/json", SOUP_MEMORY_COPY, said.data(),
                                       said.size());
      soup_server_message_set_status(message, 200, nullptr);
    });
    if (!answered) soup_server_message_pause(message);
  }

  void push(const Json::Value& said) {
    const std::string text = said.isString() ? said.asString() : json_line(said);
    if (socket_) return soup_websocket_connection_send_text(socket_.get(), text.c_str());
    events_.append(said);
    give();
  }
  void give() {
    if (!poll_ || events_.empty()) return;
    const std::string said = json_line(std::exchange(events_, Json::Value(Json::arrayValue)));
    const glib_ptr<SoupServerMessage> message = std::move(poll_);
    soup_server_message_set_response(message.get(), "application/json", SOUP_MEMORY_COPY,
                                     said.data(), said.size());
    soup_server_message_set_status(message.get(), 200, nullptr);
    soup_server_message_unpause(message.get());
  }

  static Json::Value event(uint64_t handle, const std::string& transaction,
                           const std::string& data) {
    Json::Value said;
    said["janus"] = "event";
    said["sender"] = Json::UInt64{handle};
    if (!transaction.empty()) said["transaction"] = transaction;
    said["plugindata"]["data"] = parsed(data);
    return said;
  }

  using Reply = std::function<void(const Json::Value&)>;

  void on_request(const Json::Value& asked, const Reply& reply) {
    const Json::Value& body = asked["body"];
    std::string what = text_in(asked, "janus");
    if (what == "message") what = text_in(body, "request");
    if (what == "join") what = text_in(body, "ptype");
    heard.add(what + " " + json_line(asked));
    if (habits_.silent_at.count(what) != 0) return;
    const auto says = habits_.says.find(what);
    if (says != habits_.says.end()) return reply(Json::Value(says->second));
    Json::Value said;
    said["janus"] = "success";
    said["transaction"] = asked["transaction"];
    if (text_in(asked, "apisecret") != habits_.api_secret) {
      said["janus"] = "error";
      said["error"]["code"] = 403;
      said["error"]["reason"] = "Unauthorized request (wrong or missing secret/token)";
    } else if (what == "create" || what == "attach") {
      const uint64_t id = ++last_id_;
      if (what == "create") session_ = id;
      said["data"]["id"] = Json::UInt64{id};
    } else if (janus::number_in(asked, "session_id") != session_) {
      said["janus"] = "error";
      said["error"]["code"] = 458;
      said["error"]["reason"] = "No such session";
    } else if (what == "keepalive") {
      said["janus"] = "ack";
    } else if (asked.isMember("body")) {
      said["janus"] = "ack";
      reply(said);
      return reply(plugin_reply(asked, what));
    }
    reply(said);
  }

  Json::Value plugin_reply(const Json::Value& asked, const std::string& what) {
    const uint64_t handle = janus::number_in(asked, "handle_id");
    const Json::Value& body = asked["body"];
    std::string data = R"({"videoroom": "event", "started": "ok"})";
    Json::Value jsep;
    const Json::Value room = parsed(habits_.room);
    if (what != "start" && body["room"].type() != room.type() &&
        body["room"].isString() != room.isString()) {
      data = R"json({"error_code": 430, "error": "Invalid element type (room)"})json";
    } else if (what != "start" && body["room"].asString() != room.asString()) {
      data = R"({"error_code": 426, "error": "No such room"})";
    } else if (what != "start" && text_in(body, "pin") != habits_.pin) {
      data = R"json({"error_code": 433, "error": "Unauthorized (wrong pin)"})json";
    } else if (what == "publisher") {
      room_handle_ = handle;
      data =
          R"({"videoroom": "joined", "private_id": 99, "publishers": )" + habits_.publishers + "}";
    } else if (what == "subscriber") {
      last_handle_ = Json::UInt64{handle};
      data = R"({"videoroom": "attached"})";
      jsep["type"] = "offer";
      jsep["sdp"] = habits_.offer;
    }
    Json::Value said = event(handle, asked["transaction"].asString(), data);
    if (!jsep.isNull()) said["jsep"] = jsep;
    return said;
  }

  Habits habits_;
  glib_ptr<SoupServer> server_;
  glib_ptr<SoupWebsocketConnection> socket_;
  glib_ptr<SoupServerMessage> poll_;
  Json::Value events_{Json::arrayValue};
  int port_ = 0;
  uint64_t session_ = 0;
  uint64_t last_id_ = 100;
  uint64_t room_handle_ = 0;
  Json::Value last_handle_;
  glib_thread thread_;
};

std::string feed(const std::string& id, const std::string& display, const char* codec = "vp8") {
  return R"({"id": )" + id + R"(, "display": ")" + display +
         R"(", "streams": [{"mid": "0", "type": "video", "codec": ")" + codec + R"("}]})";
}

// A recorder's loop on a thread of its own, with a channel.
class JanusChannel : public ::testing::Test, private channel_listener {
 protected:
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
  // Before the destructors: the loop's thread calls what they would take apart.
  void TearDown() override { end(); }

  void join(const std::string& server, const std::string& name = "talk",
            const std::string& key = "") {
    channel_request request;
    request.server = server;
    request.channel_id = name;
    request.channel_key = key;
    request.patience = 400ms;
    request.janus.api_secret = api_secret;
    std::string error;
    channel_ = make_channel(request, loop_, *this, error);
    ASSERT_NE(channel_, nullptr) << error;
    channel_->join();
    thread_ = std::thread([this] { loop_.run(false); });
  }
  void end() {
    if (!thread_.joinable()) return;
    loop_.post([this] {
      feeds_.clear();
      channel_.reset();
      loop_.stop();
    });
    thread_.join();
  }
  void offer_again(uint32_t uid) {
    loop_.post([this, uid] {
      told.add(std::string("again ") + (channel_->offer_again(uid) ? "there" : "not there"));
    });
  }

  Journal told;
  std::string api_secret;
  bool has_room_ = true;  // of the loop, once it runs

 private:
  void on_channel_joined() override { told.add("joined"); }
  void on_channel_failed(const std::string& why) override { told.add("failed " + why); }
  void on_user_in(uint32_t uid, const media::open_media& open) override {
    if (!has_room_) return told.add("turned away " + std::to_string(uid));
    auto feed = open();
    told.add((feed ? "in " : "none ") + std::to_string(uid));
    if (feed) feeds_[uid] = std::move(feed);
  }
  void on_user_name(uint32_t /*uid*/, const std::string& /*name*/) override {}
  void on_user_out(uint32_t uid) override {
    feeds_.erase(uid);
    told.add("out " + std::to_string(uid));
  }
  void on_missing(uint32_t uid, const missing_medium& what) override {
    told.add("missing " + std::to_string(uid) + " " + what.medium + ": " + what.reason);
  }
  void on_channel_interrupted() override { told.add("interrupted"); }
  void on_channel_lost() override { told.add("lost"); }

 protected:
  base::event_loop loop_;

 private:
  std::map<uint32_t, std::shared_ptr<media::media_feed>> feeds_;
  std::unique_ptr<channel> channel_;
  std::thread thread_;
};

// ---- What is understood --------------------------------------------------------------------

TEST(JanusGatewayPlace, IsWhatAUrlSays) {
  const std::tuple<const char*, const char*, bool> good[] = {
      {"http://host:8088/janus", "http://host:8088/janus", false},
      {"https://[::1]/janus/", "https://[::1]/janus", false},
      {"ws://127.0.0.1:8188", "ws://127.0.0.1:8188", true},
      {"wss://host:8989/janus", "wss://host:8989/janus", true},
  };
  for (const auto& [text, url, web_socket] : good) {
    std::string error;
    const auto made = janus::parse_gateway(text, error);
    ASSERT_TRUE(made) << text << error;
    EXPECT_EQ(std::pair(made->url, made->web_socket), std::pair(std::string(url), web_socket));
  }
  for (const char* const text :
       {"", "host:8088", "ftp://host/janus", "http://", "http://host:0/janus", "ws:///janus",
        "http://a:b@host/janus", "http://host/janus?x", "http://host:99999/janus"}) {
    std::string error;
    EXPECT_FALSE(janus::parse_gateway(text, error)) << text;
    EXPECT_EQ(error.find("\"" + std::string(text) + "\" should be http://HOST:PORT/janus"), 0U);
  }
}

TEST(JanusPublisher, HasTheNumberThatItsNameOrItsFeedSays) {
  const uint32_t alice = janus::uid_of_publisher("alice", "");
  const std::tuple<const char*, const char*, uint32_t> rows[] = {
      {"7", "12", 7},           {"4294967295", "x", 4294967295U},
      {"4294967296", "12", 12}, {"0", "12", 12},
      {"07", "12", 12},         {"", "12", 12},
      {"alice", "12", 12},      {"alice", "8589934592", alice},
      {"alice", "x", alice},    {"", "alice", alice},
  };
  for (const auto& [name, id, uid] : rows) {
    EXPECT_EQ(janus::uid_of_publisher(name, id), uid) << name << " " << id;
  }
}

TEST(JanusMessage, TakesNothingThatIsOfAnotherType) {
  std::string error;
  const std::string deep(100, '[');
  for (const std::string& text :
       {std::string(), std::string("{"), std::string("7"), std::string("{}"), std::string("[1]"),
        std::string(R"({"janus": 7})"), std::string(R"([{"janus": "ack"}, {}])"), deep}) {
    error.clear();
    EXPECT_FALSE(janus::parse_messages(text, error)) << text;
    EXPECT_FALSE(error.empty()) << text;
  }
  const auto all = janus::parse_messages(
      R"([{"janus": "event", "transaction": 7, "session_id": -1, "sender": "x", "data": [1],
           "plugindata": {"data": "x"}, "jsep": 7, "reason": {}},
          {"janus": "error", "error": 7},
          {"janus": "event", "plugindata": {"data": {"error_code": 426, "error": "no\nroom"}}}])",
      error);
  ASSERT_TRUE(all);
  const auto& one = all->at(0);
  EXPECT_EQ(one.transaction + one.sdp + one.sdp_type + one.reason, "");
  EXPECT_EQ(one.session + one.sender + one.id + one.code, 0U);
  EXPECT_TRUE(one.data.isNull());
  EXPECT_EQ(std::pair(all->at(1).code != 0, all->at(1).reason),
            std::pair(true, std::string("it gives no reason")));
  EXPECT_EQ(std::pair(all->at(2).code, all->at(2).reason),
            std::pair(uint64_t{426}, std::string("no?room")));
  EXPECT_TRUE(janus::publishers_in(parsed(R"({"publishers": {"id": 7}})")).empty());
  EXPECT_EQ(janus::publishers_in(parsed(R"({"publishers": [7, {"id": []}, {"id": -1}, {"id": ""},
             {"id": 9, "display": 7, "streams": [7, {"mid": 7}]}]})"))
                .size(),
            1U);
}

// ---- Joining -------------------------------------------------------------------------------

struct Failure {
  const char* what;
  std::function<void(Habits&)> how;
  const char* channel;
  const char* key;
  const char* says;
};

TEST_F(JanusChannel, SaysWhyItCantJoin) {
  const Failure rows[] = {
      {"no room", [](Habits&) {}, "other", "",
       "the gateway has no room \"other\" (No such room): the channel should be called like one"},
      {"no pin", [](Habits& h) { h.pin = "1234"; }, "talk", "",
       "room \"talk\" asks for a pin (Unauthorized (wrong pin)): the channel key should be it"},
      {"another pin", [](Habits& h) { h.pin = "1234"; }, "talk", "4321",
       "room \"talk\" takes another pin"},
      {"numbers", [](Habits& h) { h.room = "1234"; }, "talk", "",
       "the gateway's rooms aren't called like \"talk\""},
      {"no session",
       [](Habits& h) {
         h.says["create"] =
             R"({"janus": "error", "transaction": "r1", "error": {"code": 403, "reason": "No"}})";
       },
       "talk", "", "the gateway ws://"},
      {"nonsense", [](Habits& h) { h.says["create"] = "<html>"; }, "talk", "", "the gateway ws://"},
      {"another protocol", [](Habits& h) { h.protocol = false; }, "talk", "", "the gateway ws://"},
      {"no VideoRoom",
       [](Habits& h) {
         h.says["attach"] =
             R"({"janus": "error", "transaction": "r2", "error": {"code": 460, "reason": "No such plugin"}})";
       },
       "talk", "", "the gateway attaches nobody to its VideoRoom plugin: No such plugin"},
      {"something else",
       [](Habits& h) {
         h.says["publisher"] =
             R"({"janus": "event", "transaction": "r3", "plugindata": {"data": {}}})";
       },
       "talk", "", "the gateway doesn't say that room \"talk\" was joined"},
  };
  for (const Failure& row : rows) {
    SCOPED_TRACE(row.what);
    Habits habits;
    row.how(habits);
    Gateway gateway(habits);
    join(gateway.server("ws"), row.channel, row.key);
    const std::string why = told.wait_for("failed ");
    EXPECT_EQ(why.find(std::string("failed ") + row.says), 0U) << why;
    end();
    EXPECT_EQ(told.count("joined"), 0U);
  }
}

TEST_F(JanusChannel, SaysThatThereIsNoGateway) {
  int port = 0;
  {
    Gateway gone{Habits()};
    const std::string server = gone.server("ws");
    port = std::stoi(server.substr(server.find("127.0.0.1:") + 10));
    join(gone.server("http", "/elsewhere"));
    EXPECT_NE(told.wait_for("failed ").find(
                  "/elsewhere answers with HTTP status 404: the path should be the gateway's"),
              std::string::npos);
    end();
    join(gone.server("ws", "/elsewhere"));
    EXPECT_NE(told.wait_for("failed ").find("can't be reached by WebSocket"), std::string::npos);
    end();
  }
  for (const char* const scheme : {"http", "ws"}) {
    join(std::string("janus:") + scheme + "://127.0.0.1:" + std::to_string(port) + "/janus");
    EXPECT_NE(told.wait_for("failed ").find("refused"), std::string::npos);
    end();
  }
}

TEST_F(JanusChannel, FindsOutHowRoomsAreCalled) {
  const std::tuple<const char*, const char*, size_t> rows[] = {
      {"1234", "1234", 1}, {"\"1234\"", "1234", 2}, {"\"talk\"", "talk", 1}, {"\"007\"", "007", 1}};
  for (const auto& [room, channel, joins] : rows) {
    SCOPED_TRACE(room);
    Habits habits;
    habits.room = room;
    habits.pin = "se\"cret";
    Gateway gateway(habits);
    join(gateway.server("ws"), channel, "se\"cret");
    told.wait_for("joined");
    end();
    EXPECT_EQ(gateway.heard.count("publisher "), joins);
    const Json::Value asked =
        parsed(gateway.heard.wait_for("publisher ").substr(std::string("publisher ").size()));
    EXPECT_EQ(text_in(asked, "token"), "se\"cret");
    EXPECT_EQ(text_in(asked["body"], "token"), "se\"cret");
    gateway.heard.wait_for("destroy");
  }
}

// ---- Users ---------------------------------------------------------------------------------

TEST_F(JanusChannel, MakesUsersOfPublishersByBothTransports) {
  for (const char* const scheme : {"ws", "http"}) {
    SCOPED_TRACE(scheme);
    Habits habits;
    habits.publishers = "[" + feed("\"a\"", "7") + "]";
    Gateway gateway(habits);
    join(gateway.server(scheme));
    told.wait_for("joined");
    told.wait_for("in 7");
    const Json::Value asked = parsed(gateway.heard.wait_for("subscriber ").substr(11));
    EXPECT_EQ(json_line(asked["body"]["streams"]), R"([{"feed":"a"}])");
    EXPECT_EQ(json_line(asked["body"]["autoupdate"]), "false");
    EXPECT_EQ(json_line(asked["body"]["private_id"]), "99");
    const Json::Value start = parsed(gateway.heard.wait_for("start ").substr(6));
    EXPECT_EQ(text_in(start["jsep"], "type"), "answer");
    EXPECT_NE(text_in(start["jsep"], "sdp").find("a=setup:passive"), std::string::npos);
    gateway.tell(R"({"videoroom": "event", "publishers": [)" + feed("\"b\"", "8") + "]}");
    told.wait_for("in 8");
    gateway.tell(R"({"videoroom": "event", "unpublished": "a"})");
    told.wait_for("out 7");
    gateway.heard.wait_for("detach ");
    gateway.tell(R"({"videoroom": "event", "leaving": "a"})");
    gateway.tell(R"({"videoroom": "event", "leaving": "b"})");
    told.wait_for("out 8");
    end();
    gateway.heard.wait_for("destroy");
  }
  EXPECT_EQ(told.count("out"), 4U);
  EXPECT_EQ(told.count("missing"), 0U);
}

TEST_F(JanusChannel, BeginsAnewWithOtherStreams) {
  Habits habits;
  habits.publishers = "[" + feed("\"a\"", "7") + "]";
  Gateway gateway(habits);
  join(gateway.server("ws"));
  told.wait_for("in 7");
  // The same once more is no news.
  gateway.tell(R"({"videoroom": "event", "publishers": [)" + feed("\"a\"", "7") + "]}");
  gateway.tell(R"({"videoroom": "event", "publishers": [)" + feed("\"a\"", "7", "h264") + "]}");
  told.wait_for("out 7");
  told.wait_for("in 7");
  gateway.tell_subscriber("hangup");
  told.wait_for("out 7");
  told.wait_for("in 7");
  end();
  EXPECT_EQ(gateway.heard.count("subscriber "), 3U);
}

TEST_F(JanusChannel, TellsWhoHasANumberThatIsTaken) {
  Habits habits;
  habits.publishers = "[" + feed("\"a\"", "7") + "," + feed("\"b\"", "7") + "]";
  Gateway gateway(habits);
  join(gateway.server("ws"));
  EXPECT_NE(
      told.wait_for("missing 7 all: ").find("\"7\" (feed b) has the number of \"7\" (feed a)"),
      std::string::npos);
  told.wait_for("in 7");
  gateway.tell(R"({"videoroom": "event", "leaving": "a"})");
  told.wait_for("out 7");
  told.wait_for("in 7");
  EXPECT_EQ(json_line(parsed(gateway.heard.wait_for("subscriber ").substr(11))["body"]["streams"]),
            R"([{"feed":"a"}])");
  EXPECT_EQ(json_line(parsed(gateway.heard.wait_for("subscriber ").substr(11))["body"]["streams"]),
            R"([{"feed":"b"}])");
}

TEST_F(JanusChannel, ShowsTheSecretOfTheGateway) {
  Habits habits;
  habits.api_secret = "s3cret";
  Gateway gateway(habits);
  for (const char* const shown : {"another", "s3cret"}) {
    api_secret = shown;
    join(gateway.server("http"));
    told.wait_for(habits.api_secret == shown ? "joined" : "failed the gateway ");
    end();
  }
}

TEST_F(JanusChannel, KeepsTheOfferForOneWhoIsTurnedAway) {
  Habits habits;
  habits.publishers = "[" + feed("\"a\"", "7") + "]";
  Gateway gateway(habits);
  has_room_ = false;
  join(gateway.server("ws"));
  told.wait_for("turned away 7");
  offer_again(8);
  told.wait_for("again not there");
  loop_.post([this] { has_room_ = true; });
  offer_again(7);
  told.wait_for("in 7");
  told.wait_for("again there");
  gateway.heard.wait_for("start ");
  end();
  EXPECT_EQ(gateway.heard.count("subscriber "), 1U);
}

TEST_F(JanusChannel, TellsWhatCantBeReceived) {
  Habits habits;
  habits.offer = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n";
  habits.publishers = "[" + feed("\"a\"", "7") + "]";
  Gateway gateway(habits);
  join(gateway.server("ws"));
  EXPECT_NE(
      told.wait_for("missing 7 all: ").find("what the gateway offers of it can't be received"),
      std::string::npos);
  // With other streams it may be another matter.
  gateway.change([](Habits& h) { h.offer = kChromiumOffer; });
  gateway.tell(R"({"videoroom": "event", "publishers": [)" + feed("\"a\"", "7", "h264") + "]}");
  told.wait_for("in 7");
}

// ---- The gateway goes away -----------------------------------------------------------------

TEST_F(JanusChannel, TakesUpTheSessionThatTheGatewayHasKept) {
  Habits habits;
  habits.keeps_sessions = true;
  habits.publishers = "[" + feed("\"a\"", "7") + "," + feed("\"b\"", "8") + "]";
  Gateway gateway(habits);
  join(gateway.server("ws"));
  told.wait_for("in 7");
  told.wait_for("in 8");
  gateway.change(
      [](Habits& h) { h.publishers = "[" + feed("\"a\"", "7") + "," + feed("\"c\"", "9") + "]"; });
  gateway.drop();
  told.wait_for("interrupted");
  gateway.heard.wait_for("claim ");
  told.wait_for("out 8");
  told.wait_for("in 9");
  end();
  EXPECT_EQ(told.count("in 7") + told.count("out 7"), 1U);
  EXPECT_EQ(gateway.heard.count("create "), 1U);
  EXPECT_EQ(told.count("joined"), 1U);
}

TEST_F(JanusChannel, SubscribesAnewWhereTheSessionIsGone) {
  Habits habits;
  habits.publishers = "[" + feed("\"a\"", "7") + "]";
  Gateway gateway(habits);
  join(gateway.server("ws"));
  told.wait_for("in 7");
  gateway.drop();
  told.wait_for("interrupted");
  told.wait_for("out 7");
  told.wait_for("in 7");
  // Nothing of the old session is asked for in the new one.
  end();
  EXPECT_EQ(gateway.heard.count("create "), 2U);
  EXPECT_EQ(gateway.heard.count("detach "), 0U);
}

TEST_F(JanusChannel, IsLostWhenSomebodyPutsItOut) {
  Gateway gateway{Habits()};
  join(gateway.server("ws"));
  told.wait_for("joined");
  gateway.tell(R"({"videoroom": "event", "leaving": "ok", "reason": "kicked"})");
  told.wait_for("lost");
}

TEST_F(JanusChannel, ComesBackToARoomThatIsMadeAgain) {
  Gateway gateway{Habits()};
  join(gateway.server("http"));
  told.wait_for("joined");
  gateway.heard.wait_for("publisher ");
  gateway.tell(R"({"videoroom": "destroyed", "room": "talk"})");
  told.wait_for("interrupted");
  gateway.heard.wait_for("destroy ");
  gateway.heard.wait_for("publisher ");
}

// ---- Time ----------------------------------------------------------------------------------

// Limits of a gateway's session, by a clock that runs faster than a recording's.
TEST(JanusGateway, IsLostWhenItDoesntAnswer) {
  for (const char* const silent : {"create", "keepalive"}) {
    for (const char* const scheme : {"ws", "http"}) {
      SCOPED_TRACE(std::string(silent) + scheme);
      Habits habits;
      habits.silent_at = {silent};
      Gateway there(habits);
      std::string error;
      const auto at = janus::parse_gateway(there.server(scheme).substr(6), error);
      ASSERT_TRUE(at) << error;
      base::event_loop loop;
      std::string why;
      janus::gateway asked(*at, {}, {200ms, 100ms, 45s}, loop,
                           {[](bool) {},
                            [&](const std::string& said) {
                              why = said;
                              loop.stop();
                            }});
      asked.connect();
      loop.run(false);
      EXPECT_NE(why.find("hasn't answered \"" + std::string(silent) + "\" for 200 ms"),
                std::string::npos)
          << why;
    }
  }
}

}  // namespace
}  // namespace zelta::test
