// SPDX-License-Identifier: Apache-2.0
// Publishing by WHIP (RFC 9725) over real connections: what is let in, what is answered, and what
// clients that are slow, silent or gone cost the others.
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libsoup/soup.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/event_loop.h"
#include "base/unique_fd.h"
#include "core_service/channel/glib.h"
#include "core_service/channel/user_id.h"
#include "core_service/channel/whip/http_thread.h"
#include "core_service/channel/whip/whip_server.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using namespace core_service;

constexpr int kLimitMs = 20'000;

struct Response {
  int status = 0;  // 0: the connection ended without an answer
  std::string head;
  std::string body;

  std::string header(const std::string& name) const {
    for (const std::string& line : lines_of(head)) {
      if (strncasecmp(line.c_str(), (name + ": ").c_str(), name.size() + 2) != 0) continue;
      return line.substr(name.size() + 2, line.find('\r') - name.size() - 2);
    }
    return "";
  }
};

// A connection over which a test says what it likes.
class Client {
 public:
  explicit Client(int port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(static_cast<uint16_t>(port));
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr*>(&place), sizeof place), 0);
  }

  // What the other end doesn't take any more is lost.
  Client& say(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
      const ssize_t sent = send(socket_.get(), text.data() + at, text.size() - at, MSG_NOSIGNAL);
      if (sent <= 0) break;
      at += static_cast<size_t>(sent);
    }
    return *this;
  }
  Client& ask(const std::string& method, const std::string& path, const std::string& headers = "",
              const std::string& body = "") {
    return say(method + " " + path + " HTTP/1.1\r\nHost: here\r\n" + headers +
               "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  }
  // Up to the end of the connection.
  Response hear() {
    while (hear_more()) {
    }
    return parsed(heard_);
  }
  // What there is of it once the headers have come.
  Response hear_head() {
    while (heard_.find("\r\n\r\n") == std::string::npos && hear_more()) {
    }
    return parsed(heard_);
  }
  // Nothing more is said.
  Client& say_all() {
    shutdown(socket_.get(), SHUT_WR);
    return *this;
  }
  void go_away() { socket_.reset(); }

 private:
  bool hear_more() {
    char part[4096];
    pollfd input{socket_.get(), POLLIN, 0};
    if (poll(&input, 1, kLimitMs) != 1) {
      ADD_FAILURE() << "the connection isn't ended; it said " << heard_;
      heard_.clear();
      return false;
    }
    const ssize_t got = read(socket_.get(), part, sizeof part);
    if (got > 0) heard_.append(part, static_cast<size_t>(got));
    return got > 0;
  }
  static Response parsed(const std::string& all) {
    const size_t end = all.find("\r\n\r\n");
    if (end == std::string::npos || all.compare(0, 9, "HTTP/1.1 ") != 0) return {};
    return {std::atoi(all.c_str() + 9), all.substr(0, end + 2), all.substr(end + 4)};
  }

  base::unique_fd socket_;
  std::string heard_;
};

const std::string kSdp = "Content-Type: application/sdp\r\n";
const std::string kFragment = "Content-Type: application/trickle-ice-sdpfrag\r\n";
const std::string kToken = "Authorization: Bearer se~cret\r\n";

// Answers as its test says, and keeps what it was asked.
struct Publishers : publishers {
  std::variant<opened, refusal> publish(const std::string& user,
                                        const std::string& offer) override {
    asked.push_back("publish " + user + " " + offer);
    if (on_publish) on_publish();
    return to_publish;
  }
  std::variant<patched, refusal> patch(const std::string& session, const std::string& fragment,
                                       const std::string& if_match) override {
    asked.push_back("patch " + session + " " + fragment + " " + if_match);
    return to_patch;
  }
  bool end(const std::string& session) override {
    asked.push_back("end " + session);
    return session == "s1";
  }
  bool has(const std::string& session) const override { return session == "s1"; }

  std::vector<std::string> asked;
  std::variant<opened, refusal> to_publish = opened{"s1", "v=0 answer", "\"tag\""};
  std::variant<patched, refusal> to_patch = patched{};
  std::function<void()> on_publish;
};

// A recorder's loop on a thread of its own, with a server.
class WhipServer : public ::testing::Test {
 protected:
  ~WhipServer() override { end(); }

  void start(whip_terms terms = {}) {
    terms.address = "127.0.0.1";
    if (terms.channel.empty()) terms.channel = "room";
    server_ = whip_server::start(terms, loop_, publishers_, base::logger(), error_);
    ASSERT_NE(server_, nullptr) << error_;
    port_ = server_->port();
    thread_ = std::thread([this] { loop_.run(false); });
  }
  void end() {
    if (!thread_.joinable()) return;
    on_loop([this] { server_.reset(); });
    loop_.post([this] { loop_.stop(); });
    thread_.join();
  }
  void on_loop(const std::function<void()>& work) {
    std::promise<void> done;
    loop_.post([&] {
      work();
      done.set_value();
    });
    done.get_future().wait();
  }
  Response ask(const std::string& method, const std::string& path, const std::string& headers = "",
               const std::string& body = "") const {
    return Client(port_).ask(method, path, headers, body).hear();
  }

  base::event_loop loop_;
  Publishers publishers_;
  std::unique_ptr<whip_server> server_;
  std::string error_;
  int port_ = 0;
  std::thread thread_;
};

struct Row {
  const char* method;
  std::string path;
  std::string headers;
  std::string body;
  int status;
  std::vector<std::pair<const char*, std::string>> has;
  std::string says;  // a part of the body
};

TEST_F(WhipServer, AnswersWhatTheRequestDeserves) {
  start({"", 0, "ro/\xc3\xb6m", "", "", ""});
  const std::string room = "/ro%2F%C3%B6m";
  const std::string long_name(129, 'n');
  const std::string offer(64 << 10, 'o');
  const Row rows[] = {
      {"POST",
       room + "/al%20ice",
       kSdp,
       "offer",
       201,
       {{"Location", room + "/al%20ice/s1"},
        {"ETag", "\"tag\""},
        {"Content-Type", "application/sdp"},
        {"Accept-Patch", "application/trickle-ice-sdpfrag"},
        {"Link", "<" + room + "/al%20ice/s1/events>; rel=\"monitor\""},
        {"Access-Control-Allow-Origin", "*"},
        {"Connection", "close"}},
       "v=0 answer"},
      {"POST",
       "/ro%2f%c3%b6m/7",
       "content-type: Application/SDP; charset=utf-8\r\n",
       offer,
       201,
       {{"Location", room + "/7/s1"}},
       ""},
      {"POST", room + "/7", kSdp, offer + "o", 413, {}, "65536 bytes at most"},
      {"POST", room + "/7", kSdp + "Expect: 100-continue\r\n", offer + "o", 413, {}, "too long"},
      {"POST", room + "/7", kSdp, "", 400, {}, "empty"},
      {"POST",
       room + "/7",
       "",
       "offer",
       415,
       {{"Accept-Post", "application/sdp"}},
       "Content-Type \"\" should be application/sdp"},
      {"POST", room + "/7", "Content-Type: text/html\r\n", "offer", 415, {}, "\"text/html\""},
      {"POST", room + "/" + long_name, kSdp, "offer", 400, {}, "1 to 128 bytes"},
      {"POST", room + "/a%0Ab", kSdp, "offer", 400, {}, "control characters"},
      {"POST", room + "/%FF", kSdp, "offer", 400, {}, "UTF-8"},
      {"POST", room + "/a%00b", kSdp, "offer", 404, {}, "/CHANNEL/USER"},
      {"POST", "/room/7", kSdp, "offer", 404, {}, "should begin with " + room},
      {"POST", room + "/7/s1/x", kSdp, "offer", 404, {}, "/CHANNEL/USER"},
      {"POST", room + "/7/", kSdp, "offer", 404, {}, "/CHANNEL/USER"},
      {"GET", "/", "", "", 404, {}, "channel"},
      {"GET", room + "/7", "", "", 405, {{"Allow", "POST, OPTIONS"}}, "POST, OPTIONS"},
      {"PUT", room + "/7", kSdp, "offer", 405, {{"Allow", "POST, OPTIONS"}}, ""},
      {"HEAD", room + "/7/s1", "", "", 405, {{"Allow", "PATCH, DELETE, OPTIONS"}}, ""},
      {"POST", room + "/7/s1", kSdp, "offer", 405, {{"Allow", "PATCH, DELETE, OPTIONS"}}, ""},
      {"POST", room, kSdp, "offer", 405, {{"Allow", "GET, HEAD, OPTIONS"}}, ""},
      {"OPTIONS",
       room + "/7",
       "",
       "",
       204,
       {{"Accept-Post", "application/sdp"},
        {"Access-Control-Allow-Methods", "POST, OPTIONS"},
        {"Access-Control-Allow-Headers", "Authorization, Content-Type, If-Match"},
        {"Access-Control-Allow-Origin", "*"}},
       ""},
      {"OPTIONS",
       room + "/7/s1",
       "",
       "",
       204,
       {{"Access-Control-Allow-Methods", "PATCH, DELETE, OPTIONS"}},
       ""},
      {"PATCH", room + "/7/s1", kFragment + "If-Match: \"tag\"\r\n", "frag", 204, {}, ""},
      {"PATCH",
       room + "/7/s1",
       kSdp,
       "frag",
       415,
       {{"Accept-Patch", "application/trickle-ice-sdpfrag"}},
       ""},
      {"DELETE", room + "/7/s1", "", "", 200, {}, ""},
      {"DELETE", room + "/7/s%202", "", "", 404, {}, "no such session"},
      {"GET", room + "/7/s1", "", "", 405, {{"Allow", "PATCH, DELETE, OPTIONS"}}, ""},
      {"GET", room + "/7/s2/events", "", "", 404, {}, "no such session"},
      {"DELETE", room + "/7/s1/events", "", "", 405, {{"Allow", "GET, OPTIONS"}}, "events"},
      {"GET", room + "/7//events", "", "", 404, {}, "/CHANNEL/USER"},
      {"OPTIONS",
       room + "/7/s1/events",
       "",
       "",
       204,
       {{"Access-Control-Allow-Methods", "GET, OPTIONS"}},
       ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.method) + " " + row.path + " " + row.headers);
    const Response got = ask(row.method, row.path, row.headers, row.body);
    EXPECT_EQ(got.status, row.status);
    for (const auto& [name, value] : row.has) EXPECT_EQ(got.header(name), value) << name;
    EXPECT_NE(got.header("Access-Control-Expose-Headers").find("Location, ETag"),
              std::string::npos);
    EXPECT_NE(got.body.find(row.says), std::string::npos) << got.body;
    if (row.status < 400 || std::string(row.method) == "HEAD") continue;
    EXPECT_EQ(lines_of(got.body).size(), 1U) << got.body;
  }
  end();
  EXPECT_EQ(publishers_.asked,
            (std::vector<std::string>{"publish al ice offer", "publish 7 " + offer,
                                      "patch s1 frag \"tag\"", "end s1", "end s 2"}));
}

TEST_F(WhipServer, PassesOnWhatThePublishersSay) {
  start();
  on_loop([this] { publishers_.to_publish = publishers::refusal{409, "the name is taken", 0}; });
  Response got = ask("POST", "/room/7", kSdp, "offer");
  EXPECT_EQ(std::pair(got.status, got.body), std::pair(409, std::string("the name is taken\n")));
  EXPECT_EQ(got.header("Retry-After"), "");
  on_loop([this] { publishers_.to_publish = publishers::refusal{503, "full", 9}; });
  got = ask("POST", "/room/7", kSdp, "offer");
  EXPECT_EQ(std::pair(got.status, got.header("Retry-After")), std::pair(503, std::string("9")));
  on_loop([this] { publishers_.to_publish = publishers::refusal{201, "no error", 0}; });
  EXPECT_EQ(ask("POST", "/room/7", kSdp, "offer").status, 500);
  on_loop([this] {
    publishers_.to_patch = publishers::refusal{428, "name the session by If-Match", 0};
  });
  EXPECT_EQ(ask("PATCH", "/room/7/s1", kFragment, "frag").status, 428);
  on_loop([this] { publishers_.to_patch = publishers::patched{"a=ice-ufrag:x", "\"new\""}; });
  got = ask("PATCH", "/room/7/s1", kFragment, "frag");
  EXPECT_EQ(got.status, 200);
  EXPECT_EQ(got.header("Content-Type"), "application/trickle-ice-sdpfrag");
  EXPECT_EQ(got.header("ETag"), "\"new\"");
  EXPECT_EQ(got.body, "a=ice-ufrag:x");
}

TEST_F(WhipServer, AsksForItsTokenWhereverSomethingIsDone) {
  start({"", 0, "", "se~cret", "", ""});
  const std::pair<std::string, std::string> none[] = {
      {"", "Bearer"},
      {"Authorization: Bearer\r\n", "Bearer error=\"invalid_token\""},
      {"Authorization: Bearer se~cre\r\n", "Bearer error=\"invalid_token\""},
      {"Authorization: Bearer se~crett\r\n", "Bearer error=\"invalid_token\""},
      {"Authorization: Basic se~cret\r\n", "Bearer error=\"invalid_token\""},
  };
  for (const auto& [header, challenge] : none) {
    for (const Row& row : {Row{"POST", "/room/7", kSdp, "offer", 0, {}, ""},
                           Row{"PATCH", "/room/7/s1", kFragment, "frag", 0, {}, ""},
                           Row{"DELETE", "/room/7/s1", "", "", 0, {}, ""},
                           Row{"GET", "/room/7/s1/events", "", "", 0, {}, ""}}) {
      const Response got = ask(row.method, row.path, header + row.headers, row.body);
      EXPECT_EQ(got.status, 401) << row.method << header;
      EXPECT_EQ(got.header("WWW-Authenticate"), challenge) << row.method << header;
      EXPECT_EQ(got.body.find("se~cret"), std::string::npos);
    }
  }
  EXPECT_EQ(ask("POST", "/room/7", kToken + kSdp, "offer").status, 201);
  EXPECT_EQ(ask("DELETE", "/room/7/s1", "authorization: bearer  se~cret\r\n").status, 200);
  EXPECT_EQ(ask("OPTIONS", "/room/7").status, 204);
  EXPECT_EQ(ask("GET", "/room").status, 200);
  end();
  EXPECT_EQ(publishers_.asked, (std::vector<std::string>{"publish 7 offer", "end s1"}));
}

TEST_F(WhipServer, ServesAPageThatNeedsAndMayReachNothingElse) {
  start();
  for (const char* const path : {"/room", "/room/", "/room?auto=a&codec=vp8"}) {
    const Response got = ask("GET", path);
    EXPECT_EQ(got.status, 200) << path;
    EXPECT_EQ(got.header("Content-Type"), "text/html; charset=utf-8");
    EXPECT_NE(got.body.find("This call is recorded."), std::string::npos);
    EXPECT_EQ(got.body.substr(got.body.size() - 8), "</html>\n");
    const std::regex outside(
        R"((src|href|action)\s*=\s*"(?!data:)|url\(|@import|\bimport\b|//\w+\.\w)");
    std::smatch found;
    EXPECT_FALSE(std::regex_search(got.body, found, outside)) << found.str();
    const std::string policy = got.header("Content-Security-Policy");
    EXPECT_EQ(policy.find("default-src 'none'; connect-src 'self'; img-src data:; "), 0U) << policy;
    EXPECT_EQ(policy.find("unsafe"), std::string::npos) << policy;
    // The only ones, and those that the policy's hashes are of.
    for (const auto& [tag, directive] :
         {std::pair("style", "style-src"), std::pair("script", "script-src")}) {
      const size_t start =
          got.body.find(std::string("<") + tag + ">") + std::string(tag).size() + 2;
      const size_t stop = got.body.find(std::string("</") + tag + ">");
      EXPECT_EQ(got.body.find(std::string("<") + tag, start), std::string::npos);
      guint8 hash[32];
      gsize size = sizeof hash;
      GChecksum* const sum = g_checksum_new(G_CHECKSUM_SHA256);
      g_checksum_update(sum, reinterpret_cast<const guchar*>(got.body.data()) + start,
                        static_cast<gssize>(stop - start));
      g_checksum_get_digest(sum, hash, &size);
      g_checksum_free(sum);
      const text_ptr base64(g_base64_encode(hash, size));
      EXPECT_NE(policy.find(std::string(directive) + " 'sha256-" + base64.get() + "'"),
                std::string::npos)
          << policy;
    }
  }
  const Response head = ask("HEAD", "/room");
  EXPECT_EQ(std::pair(head.status, head.body), std::pair(200, std::string()));
}

TEST_F(WhipServer, LetsNobodyWaitForOneWhoIsSlow) {
  start();
  Client slow(port_);
  slow.say("POST /room/slow HTTP/1.1\r\nHost: here\r\n" + kSdp + "Content-Length: 5\r\n\r\nof");
  Client silent(port_);
  Client chunked(port_);
  chunked.say("POST /room/chunked HTTP/1.1\r\nHost: here\r\n" + kSdp +
              "Transfer-Encoding: chunked\r\n\r\n2\r\nof\r\n");
  EXPECT_EQ(ask("POST", "/room/quick", kSdp, "offer").status, 201);
  EXPECT_EQ(slow.say("fer").hear().status, 201);
  EXPECT_EQ(chunked.say("3\r\nfer\r\n0\r\n\r\n").hear().status, 201);
  end();
  EXPECT_EQ(publishers_.asked,
            (std::vector<std::string>{"publish quick offer", "publish slow offer",
                                      "publish chunked offer"}));
}

TEST_F(WhipServer, CutsOffWhoeverSendsWithoutEnd) {
  start();
  const std::string part = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
  Client long_body(port_);
  long_body.say("POST /room/7 HTTP/1.1\r\nHost: here\r\n" + kSdp +
                "Transfer-Encoding: chunked\r\n\r\n" + part + "1\r\nx\r\n0\r\n\r\n");
  EXPECT_EQ(long_body.hear().status, 413);
  Client endless(port_);
  endless.say("POST /room/7 HTTP/1.1\r\nHost: here\r\n" + kSdp +
              "Transfer-Encoding: chunked\r\n\r\n");
  for (int i = 0; i < 20; ++i) endless.say(part);
  EXPECT_EQ(endless.hear().status, 0);
  Client headers(port_);
  headers.say("GET /room HTTP/1.1\r\n");
  for (int i = 0; i < 20; ++i) headers.say("X: " + std::string(0x10000, 'x') + "\r\n");
  EXPECT_NE(headers.hear().status, 200);
  for (const char* const no_http : {"\r\n\r\n\r\n", "GET\r\n\r\n", "POST room HTTP/1.1\r\n\r\n",
                                    "GET /%zz HTTP/1.1\r\nHost: here\r\n\r\n",
                                    "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", "\x16\x03\x01\r\n\r\n"}) {
    Client other(port_);
    other.say(no_http);
    const int status = other.say_all().hear().status;
    EXPECT_TRUE(status == 0 || status >= 400) << no_http << " " << status;
  }
  EXPECT_EQ(ask("GET", "/room").status, 200);
  end();
  EXPECT_EQ(publishers_.asked, std::vector<std::string>());
}

TEST_F(WhipServer, GetsOverAClientWhoIsGoneWhenTheAnswerComes) {
  std::promise<void> asked;
  std::promise<void> gone;
  publishers_.on_publish = [&, first = true]() mutable {
    if (!std::exchange(first, false)) return;
    asked.set_value();
    gone.get_future().wait();
  };
  start();
  Client leaves(port_);
  leaves.ask("POST", "/room/leaves", kSdp, "offer");
  asked.get_future().wait();
  leaves.go_away();
  Client waits(port_);
  waits.ask("POST", "/room/waits", kSdp, "offer");
  gone.set_value();
  EXPECT_EQ(waits.hear().status, 201);
}

TEST_F(WhipServer, TellsWhoWaitsThatItEnds) {
  // From inside a call, as a channel that is left by it does.
  publishers_.on_publish = [this] { server_.reset(); };
  start();
  Client idle(port_);
  Client half(port_);
  half.say("POST /room/half HTTP/1.1\r\nHost: here\r\n" + kSdp + "Content-Length: 5\r\n\r\nof");
  Client waits(port_);
  const Response got = waits.ask("POST", "/room/7", kSdp, "offer").hear();
  EXPECT_EQ(got.status, 503);
  EXPECT_NE(got.body.find("ends"), std::string::npos);
  EXPECT_EQ(idle.hear().status, 0);
  EXPECT_NE(half.hear().status, 201);
  end();
  EXPECT_EQ(publishers_.asked, std::vector<std::string>{"publish 7 offer"});
}

TEST_F(WhipServer, SaysWhyItCantStart) {
  start();
  const TempDir dir;
  const std::string text = dir.file("text.pem", "no certificate\n");
  const std::tuple<whip_terms, std::string> rows[] = {
      {{"127.0.0.1", port_, "room", "", "", ""},
       "can't listen at address 127.0.0.1, TCP port " + std::to_string(port_)},
      {{"127.0.0.1", 65536, "room", "", "", ""}, "TCP port 65536 should be 0 to 65535"},
      {{"here", 0, "room", "", "", ""}, "address \"here\" should be an IP address"},
      {{"192.0.2.1", 0, "room", "", "", ""}, "can't listen at address 192.0.2.1"},
      {{"", 0, "room", "", dir.path() + "none", text},
       "whip.certificate: \"" + dir.path() + "none\" can't be read: No such file"},
      {{"", 0, "room", "", text, text},
       "whip.certificate: \"" + text + "\" should be a certificate in PEM"},
  };
  for (const auto& [terms, says] : rows) {
    std::string error;
    EXPECT_EQ(whip_server::start(terms, loop_, publishers_, base::logger(), error), nullptr)
        << says;
    EXPECT_EQ(error.find(says), 0U) << error;
  }
}

TEST_F(WhipServer, WarnsWhenBrowsersElsewhereGetNoCamera) {
  for (const auto& [address, warned] :
       {std::pair("127.0.0.1", false), {"127.1.2.3", false}, {"0.0.0.0", true}}) {
    const TempDir dir;
    const base::logger log(dir.path(), base::ZELTA_LOG_MODULE_COMMON);
    EXPECT_NE(whip_server::start({address, 0, "room", "", "", ""}, loop_, publishers_, log, error_),
              nullptr)
        << error_;
    const std::string text = read_file(dir.path() + "recording_engine.log");
    EXPECT_NE(text.find("the page for it is /room"), std::string::npos) << text;
    EXPECT_EQ(text.find(" warn ") != std::string::npos, warned) << text;
    EXPECT_EQ(text.find("at localhost") != std::string::npos, warned) << text;
  }
}

const std::string kLastChunk = "0\r\n\r\n";

TEST_F(WhipServer, LetsAClientWaitForTheEndOfItsSession) {
  start();
  const auto watch = [this] {
    auto client = std::make_unique<Client>(port_);
    const Response head = client->ask("GET", "/room/7/s1/events").hear_head();
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.header("Content-Type"), "text/event-stream");
    EXPECT_EQ(head.header("Access-Control-Allow-Origin"), "*");
    EXPECT_EQ(head.body, "");
    return client;
  };
  const auto first = watch();
  const auto second = watch();
  EXPECT_EQ(first->hear().body, kLastChunk) << "another took its place";
  on_loop([this] { server_->session_ended("s2"); });
  on_loop([this] { server_->session_ended("s1"); });
  EXPECT_EQ(second->hear().body, kLastChunk);
  watch()->go_away();
  const auto last = watch();
  end();
  EXPECT_EQ(last->hear().body, kLastChunk) << "the recording has ended";
}

// ---- HTTPS ---------------------------------------------------------------------------------

void make_certificate(const TempDir& dir, const std::string& name) {
  const std::string command =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=test "
      "-addext subjectAltName=IP:127.0.0.1 -keyout " +
      dir.path() + name + ".key -out " + dir.path() + name + ".pem 2>/dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

// The status that a client gets which trusts `authority` alone; 0: it doesn't trust the server.
int ask_securely(int port, const std::string& authority) {
  const glib_ptr<GTlsDatabase> trusted(g_tls_file_database_new(authority.c_str(), nullptr));
  // No proxy, which would be asked for at the desktop.
  const glib_ptr<SoupSession> session(soup_session_new_with_options(
      "tls-database", trusted.get(), "proxy-resolver", nullptr, "timeout", 20U, nullptr));
  const std::string url = "https://127.0.0.1:" + std::to_string(port) + "/room/7";
  const glib_ptr<SoupMessage> message(soup_message_new("POST", url.c_str()));
  const bytes_ptr offer(g_bytes_new_static("offer", 5));
  soup_message_set_request_body_from_bytes(message.get(), "application/sdp", offer.get());
  const bytes_ptr answer(
      soup_session_send_and_read(session.get(), message.get(), nullptr, nullptr));
  return answer ? static_cast<int>(soup_message_get_status(message.get())) : 0;
}

TEST_F(WhipServer, SpeaksTlsWithItsCertificate) {
  const TempDir dir;
  make_certificate(dir, "own");
  make_certificate(dir, "other");
  const std::string own = dir.path() + "own.pem";
  const std::string other_key = dir.path() + "other.key";
  std::string error;
  EXPECT_EQ(whip_server::start({"127.0.0.1", 0, "room", "", own, other_key}, loop_, publishers_,
                               base::logger(), error),
            nullptr);
  EXPECT_EQ(error, "whip.key: \"" + other_key + "\" should be the key of the certificate in \"" +
                       own + "\", and is another's");
  start({"", 0, "", "", own, dir.path() + "own.key"});
  Client silent(port_);
  Client half(port_);
  half.say("\x16\x03\x01");
  EXPECT_EQ(ask_securely(port_, own), 201);
  EXPECT_EQ(ask_securely(port_, dir.path() + "other.pem"), 0);
  EXPECT_EQ(ask("POST", "/room/7", kSdp, "offer").status, 0) << "without TLS";
  EXPECT_EQ(ask_securely(port_, own), 201);
  end();
  EXPECT_EQ(publishers_.asked, (std::vector<std::string>(2, "publish 7 offer")));
}

// ---- Bounds --------------------------------------------------------------------------------

std::unique_ptr<http_thread> serve_within(const http_listener::limits& bounds, int& port) {
  std::string error;
  auto listener = http_listener::make("127.0.0.1", 0, nullptr, bounds, error);
  EXPECT_NE(listener, nullptr) << error;
  port = listener->port();
  return std::make_unique<http_thread>(std::move(listener), whip_rules("room", ""),
                                       [](uint64_t, const whip_question&) {});
}

TEST(HttpThread, EndsConnectionsThatTakeTooLong) {
  int port = 0;
  const auto serves = serve_within({10, 100, 100}, port);
  Client silent(port);
  Client slow(port);
  slow.say("GET /room HTTP/1.1\r\nHost: ");
  Client unanswered(port);
  unanswered.ask("POST", "/room/7", kSdp, "offer");
  EXPECT_EQ(silent.hear().status, 0);
  EXPECT_EQ(slow.hear().status, 0);
  EXPECT_EQ(unanswered.hear().status, 0);
}

TEST(HttpThread, CutsOffTheOldestWhenThereAreTooMany) {
  int port = 0;
  const auto serves = serve_within({2, kLimitMs, kLimitMs}, port);
  std::vector<Client> idle;
  for (int i = 0; i < 5; ++i) idle.emplace_back(port);
  EXPECT_EQ(Client(port).ask("GET", "/room").hear().status, 200);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(idle[static_cast<size_t>(i)].hear().status, 0) << i;
  EXPECT_EQ(idle.back().ask("GET", "/room").hear().status, 200) << "it stayed";
}

TEST(HttpThread, LetsHalfOfItsConnectionsLastAndNoMore) {
  std::string error;
  auto listener = http_listener::make("127.0.0.1", 0, nullptr, {4, 300, 300}, error);
  ASSERT_NE(listener, nullptr) << error;
  const int port = listener->port();
  std::promise<http_thread*> made;
  const auto serves = std::make_unique<http_thread>(
      std::move(listener), whip_rules("room", ""),
      [it = made.get_future().share()](uint64_t id, const whip_question& asked) {
        it.get()->answer(id, {200, kEventsType, "", {}, asked.session});
        if (asked.session == "brief") it.get()->session_ended(asked.session);
      });
  made.set_value(serves.get());
  const auto path = [](const std::string& session) { return "/room/7/" + session + "/events"; };
  EXPECT_EQ(Client(port).ask("GET", path("brief")).hear().body, kLastChunk);
  Client one(port);
  Client two(port);
  EXPECT_EQ(one.ask("GET", path("s1")).hear_head().status, 200);
  EXPECT_EQ(two.ask("GET", path("s2")).hear_head().status, 200);
  const Response third = Client(port).ask("GET", path("s3")).hear();
  EXPECT_EQ(std::pair(third.status, third.header("Retry-After")),
            std::pair(503, std::string("30")));
  std::vector<Client> idle;
  for (int i = 0; i < 5; ++i) idle.emplace_back(port);
  // Longer than any other may be open.
  for (Client& other : idle) EXPECT_EQ(other.hear().status, 0);
  Client again(port);
  EXPECT_EQ(again.ask("GET", path("s2")).hear_head().status, 200);
  EXPECT_EQ(two.hear().body, kLastChunk) << "one who comes again needs no more room";
  serves->session_ended("s1");
  EXPECT_EQ(one.hear().body, kLastChunk) << "it was neither cut off nor ended before";
}

// GLib lets go of a connection on a thread of its own when that is done last with its handshake.
TEST(HttpListener, HearsOnItsOwnThreadThatAnotherLetGo) {
  std::string error;
  auto listener = http_listener::make("127.0.0.1", 0, nullptr, {}, error);
  ASSERT_NE(listener, nullptr) << error;
  context_ptr context(g_main_context_new());
  std::vector<glib_ptr<GIOStream>> held;
  listener->start(context.get(), [&held](GIOStream* stream, GSocketAddress*, GSocketAddress*) {
    held.emplace_back(static_cast<GIOStream*>(g_object_ref(stream)));
  });
  const auto let_go_elsewhere = [&held] { std::thread([&held] { held.pop_back(); }).join(); };
  const Client first(listener->port());
  const Client second(listener->port());
  while (held.size() < 2) g_main_context_iteration(context.get(), TRUE);
  let_go_elsewhere();
  EXPECT_EQ(listener->count(), 2U) << "changed by a thread that isn't its own";
  while (listener->count() == 2) g_main_context_iteration(context.get(), TRUE);
  EXPECT_EQ(listener->count(), 1U);
  context.reset();
  listener.reset();
  let_go_elsewhere();  // of one who outlives it
}

TEST(HttpListener, CutsWhoWasSilentForLongest) {
  std::string error;
  auto listener = http_listener::make("127.0.0.1", 0, nullptr, {2, kLimitMs, kLimitMs}, error);
  ASSERT_NE(listener, nullptr) << error;
  const context_ptr context(g_main_context_new());
  std::vector<glib_ptr<GIOStream>> held;
  std::vector<glib_ptr<GSocketAddress>> remotes;
  listener->start(context.get(), [&](GIOStream* stream, GSocketAddress*, GSocketAddress* remote) {
    held.emplace_back(static_cast<GIOStream*>(g_object_ref(stream)));
    remotes.emplace_back(static_cast<GSocketAddress*>(g_object_ref(remote)));
  });
  const auto take_in = [&](size_t count) {
    while (held.size() < count) g_main_context_iteration(context.get(), TRUE);
  };
  Client first(listener->port());
  take_in(1);
  Client second(listener->port());
  take_in(2);
  listener->renew(remotes[0].get());
  const Client third(listener->port());
  // Whoever reads from the second sees its end, and lets go.
  while (g_socket_condition_check(listener->socket_of(remotes[1].get()), G_IO_HUP) == 0) {
    g_main_context_iteration(context.get(), TRUE);
  }
  EXPECT_EQ(g_socket_condition_check(listener->socket_of(remotes[0].get()), G_IO_HUP), 0);
  held[1].reset();
  take_in(3);
  EXPECT_EQ(listener->socket_of(remotes[1].get()), nullptr) << "it is forgotten";
  held.clear();
  listener->stop();
}

// ---- Names ---------------------------------------------------------------------------------

TEST(UserId, IsTheNumberOrTheHashOfAName) {
  const std::pair<std::string, uint32_t> rows[] = {
      {"1", 1},
      {"4294967295", 4294967295U},
      // Published values of FNV-1a, 32 bits.
      {"a", 0xe40c292cU},
      {"foobar", 0xbf9cf968U},
  };
  for (const auto& [name, uid] : rows) EXPECT_EQ(uid_of(name), uid) << name;
  for (const char* const no_number : {"0", "07", "4294967296", "-1", "+1", " 1", "1a", "1.0"}) {
    EXPECT_GT(uid_of(no_number), 4294967U) << no_number << " is hashed";
  }
}

TEST(UserId, IsOfANameThatCanBeShown) {
  for (const std::string& name : {std::string("a"), std::string("\xc3\xb6 /"),
                                  std::string(128, 'x'), std::string("\xf0\x9f\x98\x80")}) {
    EXPECT_TRUE(is_user_name(name)) << name;
  }
  for (const std::string& name :
       {std::string(), std::string(129, 'x'), std::string("a\tb"), std::string("a\0b", 3),
        std::string("\x7f"), std::string("\xc2\x85"), std::string("\xc3"), std::string("\xff")}) {
    EXPECT_FALSE(is_user_name(name)) << name;
  }
}

}  // namespace
}  // namespace zelta::test
