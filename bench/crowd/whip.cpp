// SPDX-License-Identifier: Apache-2.0
#include "crowd/whip.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace zelta::crowd {
namespace {

using namespace std::chrono_literals;
using test::webrtc_client;

// Of one who joins to the next.
constexpr std::chrono::milliseconds kJoinInterval = 20ms;
constexpr std::chrono::milliseconds kLook = 50ms;
constexpr time_t kHttpLimitS = 20;
constexpr uint8_t kAgainOffset = 2;  // of RTX's payload type, behind those of the tracks

std::chrono::nanoseconds now() {
  return std::chrono::steady_clock::now().time_since_epoch();
}

struct response {
  int status = 0;  // 0: there is none
  std::string body;
};

// One request and its connection's end.
response post(const whip_url& at, const std::string& path, const std::string& body) {
  const base::unique_fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval limit{kHttpLimitS, 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(at.port);
  inet_pton(AF_INET, at.address.c_str(), &to.sin_addr);
  if (connect(socket.get(), reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) return {};
  const std::string request = "POST " + path + " HTTP/1.1\r\nHost: " + at.address +
                              "\r\nContent-Type: application/sdp\r\nConnection: close\r\n"
                              "Content-Length: " +
                              std::to_string(body.size()) + "\r\n\r\n" + body;
  for (size_t sent = 0; sent < request.size();) {
    const ssize_t more =
        send(socket.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (more <= 0) return {};
    sent += static_cast<size_t>(more);
  }
  std::string all;
  std::array<char, 8192> part{};
  for (ssize_t size = 0; (size = recv(socket.get(), part.data(), part.size(), 0)) > 0;) {
    all.append(part.data(), static_cast<size_t>(size));
  }
  const size_t end = all.find("\r\n\r\n");
  const std::string start = "HTTP/1.1 ";
  if (end == std::string::npos || all.compare(0, start.size(), start) != 0) return {};
  response made;
  std::from_chars(all.data() + start.size(), all.data() + end, made.status);
  made.body = all.substr(end + 4);
  return made;
}

test::webrtc_source source_of(const stream& one) {
  test::webrtc_source made;
  made.media = one.media->kind;
  made.coding = one.media->coding;
  made.format = one.media->format;
  made.payload_type = one.media->payload_type;
  made.ssrc = one.ssrc;
  if (one.media->picture) {
    made.again_type = static_cast<uint8_t>(made.payload_type + kAgainOffset);
    made.again_ssrc = one.ssrc + 1;
  }
  return made;
}

}  // namespace

std::optional<whip_url> parse_whip_url(const std::string& text) {
  const std::string start = "http://";
  if (text.compare(0, start.size(), start) != 0) return std::nullopt;
  const size_t slash = text.find('/', start.size());
  const size_t colon = text.find(':', start.size());
  if (slash == std::string::npos || colon > slash) return std::nullopt;
  whip_url made{text.substr(start.size(), colon - start.size()), 0, text.substr(slash)};
  const char* const end = text.data() + slash;
  const auto read = std::from_chars(text.data() + colon + 1, end, made.port);
  in_addr address{};
  const bool is = read.ec == std::errc() && read.ptr == end && made.port != 0 &&
                  made.path.size() > 1 && inet_pton(AF_INET, made.address.c_str(), &address) == 1;
  return is ? std::optional(made) : std::nullopt;
}

base::unique_fd whip_outlet::epoll_create() {
  return base::unique_fd(epoll_create1(EPOLL_CLOEXEC));
}

std::unique_ptr<whip_outlet> whip_outlet::join(const whip_url& at, std::vector<stream>& streams,
                                               std::chrono::seconds limit) {
  std::string error;
  // Its key costs more than all that a user is besides.
  const auto as = core_service::webrtc::certificate::make(error);
  std::unique_ptr<whip_outlet> made(new whip_outlet);
  if (!as || !made->ready_.valid()) {
    std::fprintf(stderr, "crowd_sender: %s\n", as ? std::strerror(errno) : error.c_str());
    return nullptr;
  }
  const auto begun = now();
  for (size_t i = 0; i < streams.size();) {
    std::vector<const stream*> of;
    const uint32_t uid = streams[i].uid;
    for (; i < streams.size() && streams[i].uid == uid; ++i) of.push_back(&streams[i]);
    if (!made->add_user(at, of, as)) continue;
    const auto next = begun + kJoinInterval * made->users_.size();
    made->step_for(std::chrono::ceil<std::chrono::milliseconds>(next - now()));
  }
  while (!made->all_connected() && now() < begun + limit) made->step_for(kLook);
  made->let_go_of_others(streams);
  return made;
}

bool whip_outlet::add_user(const whip_url& at, const std::vector<const stream*>& of,
                           const std::shared_ptr<const core_service::webrtc::certificate>& as) {
  user made;
  made.uid = of[0]->uid;
  webrtc_client::wishes wanted;
  for (const stream* const one : of) {
    wanted.sources.push_back(source_of(*one));
    made.ssrcs.push_back(one->ssrc);
  }
  wanted.as = as;
  wanted.seed = made.uid;
  std::string error;
  made.client = webrtc_client::make(wanted, error);
  if (made.client) {
    const auto answer = post(at, at.path + "/" + std::to_string(made.uid), made.client->offer());
    error = "is answered with " + std::to_string(answer.status) + " " + answer.body;
    if (answer.status == 201 && made.client->begin(answer.body, now(), error)) error.clear();
  }
  if (!error.empty()) {
    std::fprintf(stderr, "crowd_sender: user %u %s\n", made.uid, error.c_str());
    return false;
  }
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = users_.size();
  epoll_ctl(ready_.get(), EPOLL_CTL_ADD, made.client->fd(), &event);
  users_.push_back(std::move(made));
  return true;
}

// Waits for what comes, and for the users' own moments.
void whip_outlet::step_for(std::chrono::milliseconds span) {
  const auto end = now() + span;
  std::array<epoll_event, 64> events{};
  for (bool first = true;; first = false) {
    auto next = end;
    for (const user& one : users_) next = std::min(next, one.client->next_step());
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now());
    const int wait = static_cast<int>(std::max<int64_t>(left.count(), 0));
    const int ready = epoll_wait(ready_.get(), events.data(), events.size(), wait);
    const auto at = now();
    for (int i = 0; i < ready; ++i) {
      users_[events[static_cast<size_t>(i)].data.u64].client->step(at);
    }
    for (const user& one : users_) {
      if (one.client->next_step() <= at) one.client->step(at);
    }
    const bool more = ready == static_cast<int>(events.size());
    if (at >= end && !(more && first)) return;
  }
}

bool whip_outlet::all_connected() const {
  return std::none_of(users_.begin(), users_.end(), [](const user& one) {
    return one.client->is() == webrtc_client::state::kChecking ||
           one.client->is() == webrtc_client::state::kHandshaking;
  });
}

void whip_outlet::let_go_of_others(std::vector<stream>& streams) {
  for (const user& one : users_) {
    if (one.client->is() == webrtc_client::state::kConnected) continue;
    std::fprintf(stderr, "crowd_sender: user %u isn't connected. %s\n", one.uid,
                 one.client->why().c_str());
  }
  const auto gone = std::remove_if(streams.begin(), streams.end(), [this](const stream& one) {
    const user* const whose = user_of(one.uid);
    return whose == nullptr || whose->client->is() != webrtc_client::state::kConnected;
  });
  streams.erase(gone, streams.end());
}

whip_outlet::user* whip_outlet::user_of(uint32_t uid) {
  const auto at = std::lower_bound(users_.begin(), users_.end(), uid,
                                   [](const user& one, uint32_t other) { return one.uid < other; });
  return at != users_.end() && at->uid == uid ? &*at : nullptr;
}

void whip_outlet::add(stream& from, const stream::packet& packet) {
  user* const whose = user_of(from.uid);
  const auto source = std::find(whose->ssrcs.begin(), whose->ssrcs.end(), from.ssrc);
  uint8_t header[kRtpHeader];
  std::copy(packet.header.begin(), packet.header.end(), header);
  const bool sent = whose->client->send(static_cast<size_t>(source - whose->ssrcs.begin()), header,
                                        packet.payload->data(), packet.payload->size());
  if (!sent) ++unsent_;
}

void whip_outlet::add_report(stream& from, const report& of) {
  std::array<uint8_t, kReportBytes> plain{};
  const size_t size = write_report(of, plain);
  if (!user_of(from.uid)->client->send_control(plain.data(), size)) ++unsent_;
}

void whip_outlet::flush() {
  step_for(0ms);
}

void whip_outlet::leave() {
  for (const user& one : users_) one.client->leave();
}

// Of whom the network has refused a packet, or who isn't connected any more.
uint64_t whip_outlet::errors() const {
  return unsent_ + sum(&webrtc_client::counters::errors);
}

std::string whip_outlet::more() const {
  const int port = users_.empty() ? 0 : users_[0].client->remote_port();
  return "\"port\": " + std::to_string(port) +
         ", \"asked_again\": " + std::to_string(sum(&webrtc_client::counters::asked)) +
         ", \"told_arrived\": " + std::to_string(sum(&webrtc_client::counters::told_arrived)) +
         ", ";
}

uint64_t whip_outlet::sum(uint64_t webrtc_client::counters::*of) const {
  uint64_t all = 0;
  for (const user& one : users_) all += one.client->counts().*of;
  return all;
}

}  // namespace zelta::crowd
