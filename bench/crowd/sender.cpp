// SPDX-License-Identifier: Apache-2.0
// Plays many users of a channel by RTP from one process and one thread, out of one socket; or by
// WHIP and WebRTC, out of a socket each.
//
//     crowd_sender --users N --seconds S --folder CHANNEL_FOLDER [--video h264|vp8|none] …
//     crowd_sender --users N --seconds S --whip http://ADDRESS:PORT/CHANNEL …
//
// Every user sends the same media, begun at moments spread over a second, with reports on one
// clock; all end together. Users join by descriptions with open ports in CHANNEL_FOLDER, or by
// offers, and only those who are answered send. Requests for key frames aren't heard: there is one
// every two seconds. What is asked for again is sent again by those of WebRTC. Prints one JSON
// object when all is sent.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <queue>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "crowd/batch.h"
#include "crowd/channel.h"
#include "crowd/media.h"
#include "crowd/stream.h"
#include "crowd/whip.h"

namespace {

using namespace zelta;
using namespace zelta::crowd;

constexpr int64_t kUsPerS = 1'000'000;
// Packets that are due within it leave together: the thread wakes a thousand times a second at
// most.
constexpr int64_t kTickUs = 1000;

struct options {
  uint32_t users = 1;
  int seconds = 10;
  int wait_s = 60;
  std::string folder;
  std::string whip;
  std::string video = "h264";
  std::string audio = "opus";
  std::string key;
  double loss_percent = 0;
  double reorder_percent = 0;
  bool leaves = false;
  std::vector<int> clock_ppm;
  std::vector<std::string> sounds;
};

int64_t now_us() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t utc_now_us() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void sleep_until_us(int64_t at) {
  std::this_thread::sleep_until(
      std::chrono::steady_clock::time_point(std::chrono::microseconds(at)));
}

sockaddr_in loopback(int port) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(static_cast<uint16_t>(port));
  return to;
}

// The streams of all users who have ports.
std::vector<stream> make_streams(const std::vector<track>& tracks,
                                 const std::vector<std::vector<uint16_t>>& ports,
                                 const std::vector<uint8_t>& key, std::mt19937& chance) {
  std::vector<stream> streams;
  for (uint32_t user = 0; user < ports.size(); ++user) {
    for (size_t i = 0; i < ports[user].size(); ++i) {
      stream one;
      one.media = &tracks[i];
      one.uid = user + 1;
      one.ssrc = static_cast<uint32_t>(chance());
      one.sequence = static_cast<uint16_t>(chance());
      one.first_time = static_cast<uint32_t>(chance());
      one.rtp = loopback(ports[user][i]);
      one.rtcp = loopback(ports[user][i] + 1);
      if (!key.empty()) one.srtp = srtp_sender::make(key);
      streams.push_back(std::move(one));
    }
  }
  return streams;
}

// What users have in place of what all have, one after the other and from the first again.
void give_each_their_own(const options& asked, const std::vector<track>& sounds,
                         std::vector<stream>& streams) {
  for (stream& one : streams) {
    const size_t user = one.uid - 1;
    if (!asked.clock_ppm.empty()) one.clock_ppm = asked.clock_ppm[user % asked.clock_ppm.size()];
    if (!sounds.empty() && !one.media->picture) one.media = &sounds[user % sounds.size()];
  }
}

class crowd_run {
 public:
  // The outlet is borrowed.
  crowd_run(const options& asked, std::vector<stream> streams, outlet& out, std::mt19937& chance)
      : streams_(std::move(streams)),
        way_{asked.loss_percent / 100, asked.reorder_percent / 100},
        out_(out),
        chance_(chance) {
    begin_us_ = now_us() + kTickUs;
    end_us_ = begin_us_ + asked.seconds * kUsPerS;
    utc_offset_us_ = utc_now_us() - now_us();
    for (size_t i = 0; i < streams_.size(); ++i) {
      stream& one = streams_[i];
      one.begin_us = begin_us_ + (one.uid - 1) * kUsPerS / asked.users;
      // The first report comes before the packets, so that no receiver has to guess.
      events_.push({one.begin_us, i, true});
      events_.push({one.begin_us, i, false});
    }
  }

  void run() {
    while (!events_.empty()) {
      const int64_t now = now_us();
      while (!events_.empty() && events_.top().due_us <= now) carry_out(events_.top(), now);
      out_.flush();
      if (!events_.empty()) sleep_until_us(std::max(events_.top().due_us, now + kTickUs));
    }
    for (stream& one : streams_) {
      one.send_held([&](const stream::packet& packet) { out_.add(one, packet); });
    }
    out_.flush();
    sleep_until_us(end_us_);
  }

  void print(const options& asked) const;

 private:
  struct event {
    int64_t due_us;
    size_t stream;
    bool report;
    bool operator<(const event& other) const {
      return std::tie(other.due_us, other.stream, report) < std::tie(due_us, stream, other.report);
    }
  };

  void carry_out(const event& now_due, int64_t now) {
    event next = now_due;
    events_.pop();
    stream& one = streams_[next.stream];
    late_us_ = std::max(late_us_, now - next.due_us);
    if (next.report) {
      const int64_t at = now_us();
      out_.add_report(one, {one.ssrc, one.own_us(at) + utc_offset_us_, one.time_at(at), one.packets,
                            one.octets, "user" + std::to_string(one.uid)});
      next.due_us += kUsPerS;
    } else {
      one.send_unit(way_, chance_, [&](const stream::packet& packet) { out_.add(one, packet); });
      next.due_us = one.due_us();
    }
    if (next.due_us < end_us_) events_.push(next);
  }

  std::vector<stream> streams_;
  const impairment way_;
  outlet& out_;
  std::mt19937& chance_;
  std::priority_queue<event> events_;
  int64_t begin_us_ = 0;
  int64_t end_us_ = 0;
  int64_t utc_offset_us_ = 0;
  int64_t late_us_ = 0;
};

double cpu_seconds() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / kUsPerS;
  };
  return seconds(used.ru_utime) + seconds(used.ru_stime);
}

void crowd_run::print(const options& asked) const {
  std::printf(
      "{\"packets\": %llu, \"bytes\": %llu, \"seconds\": %d, \"cpu_seconds\": %.3f, "
      "\"send_errors\": %llu, \"late_ms\": %.1f, \"end_utc_ms\": %lld, ",
      static_cast<unsigned long long>(out_.packets()),
      static_cast<unsigned long long>(out_.bytes_sent()), asked.seconds, cpu_seconds(),
      static_cast<unsigned long long>(out_.errors()), static_cast<double>(late_us_) / 1000,
      static_cast<long long>((end_us_ + utc_offset_us_) / 1000));
  std::printf("%s\"users\": [", out_.more().c_str());
  for (size_t i = 0; i < streams_.size();) {
    const stream& first = streams_[i];
    std::printf("%s\n{\"uid\": %u, \"begin_utc_ms\": %lld", i == 0 ? "" : ",", first.uid,
                static_cast<long long>((first.begin_us + utc_offset_us_) / 1000));
    for (; i < streams_.size() && streams_[i].uid == first.uid; ++i) {
      const stream& one = streams_[i];
      const char* const what = one.media->picture ? "pictures" : "sound";
      std::printf(", \"%s\": %u, \"whole_%s\": %u", what, one.sent_units, what, one.whole_units);
    }
    std::printf("}");
  }
  std::printf("]}\n");
}

bool read_options(int argc, char** argv, options& asked, int& status) {
  CLI::App app("Plays many users of a channel by RTP.");
  app.add_option("--users", asked.users)->check(CLI::Range(1, 10000));
  app.add_option("--seconds", asked.seconds)->check(CLI::Range(2, 86400));
  CLI::Option_group* const place = app.add_option_group("place");
  place->add_option("--folder", asked.folder, "the channel's");
  CLI::Option* const whip = place->add_option("--whip", asked.whip, "http://ADDRESS:PORT/CHANNEL");
  place->require_option(1);
  app.add_option("--video", asked.video)->check(CLI::IsMember({"h264", "vp8", "none"}));
  app.add_option("--audio", asked.audio)->check(CLI::IsMember({"opus", "none"}));
  // Those of WebRTC would send again what was lost, and have keys of their own.
  app.add_option("--loss", asked.loss_percent, "percent of packets")
      ->check(CLI::Range(0.0, 100.0))
      ->excludes(whip);
  app.add_option("--reorder", asked.reorder_percent, "percent of packets")
      ->check(CLI::Range(0.0, 100.0));
  app.add_option("--srtp", asked.key, "base64 of key and salt, AES_CM_128_HMAC_SHA1_80")
      ->excludes(whip);
  app.add_option("--wait", asked.wait_s, "seconds for the ports")->check(CLI::Range(1, 3600));
  app.add_option("--clock-ppm", asked.clock_ppm,
                 "parts per million by which users' clocks are too fast, in turn")
      ->delimiter(',')
      ->check(CLI::Range(-10000, 10000));
  app.add_option("--sound", asked.sounds, "Ogg files of Opus that users send, in turn")
      ->check(CLI::ExistingFile);
  app.add_flag("--leave", asked.leaves, "remove the descriptions at the end");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    status = app.exit(error);
    return false;
  }
  return true;
}

int fail(const char* what) {
  std::fprintf(stderr, "crowd_sender: %s\n", what);
  return 1;
}

int play_to_folder(const options& asked, const std::vector<track>& tracks,
                   const std::vector<track>& sounds, const std::vector<uint8_t>& key,
                   std::mt19937& chance) {
  base::unique_fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) return fail("socket can't be had");
  const auto ports =
      join(asked.folder, asked.users, tracks, !key.empty(), std::chrono::seconds(asked.wait_s));
  batch out(std::move(socket));
  std::vector<stream> streams = make_streams(tracks, ports, key, chance);
  give_each_their_own(asked, sounds, streams);
  crowd_run run(asked, std::move(streams), out, chance);
  run.run();
  if (asked.leaves) leave(asked.folder, asked.users);
  run.print(asked);
  return 0;
}

int play_to_whip(const options& asked, const std::vector<track>& tracks,
                 const std::vector<track>& sounds, std::mt19937& chance) {
  const auto at = parse_whip_url(asked.whip);
  if (!at) return fail("--whip should be as http://127.0.0.1:8080/CHANNEL");
  // All go to the port that the answers name.
  const std::vector<std::vector<uint16_t>> ports(asked.users, std::vector<uint16_t>(tracks.size()));
  std::vector<stream> streams = make_streams(tracks, ports, {}, chance);
  give_each_their_own(asked, sounds, streams);
  const auto out = whip_outlet::join(*at, streams, std::chrono::seconds(asked.wait_s));
  if (!out) return 1;
  crowd_run run(asked, std::move(streams), *out, chance);
  run.run();
  if (asked.leaves) out->leave();
  run.print(asked);
  return 0;
}

int play(const options& asked) {
  std::vector<track> tracks;
  for (const std::string& codec : {asked.video, asked.audio}) {
    if (codec == "none") continue;
    auto made = make_track(codec);
    if (!made) return 1;
    tracks.push_back(std::move(*made));
  }
  std::vector<track> sounds;
  for (const std::string& path : asked.sounds) {
    auto made = read_sound(path);
    if (!made) return 1;
    sounds.push_back(std::move(*made));
  }
  if (tracks.empty()) return fail("neither video nor sound is to be sent");
  const std::vector<uint8_t> key = srtp_key(asked.key);
  if (!asked.key.empty() && key.empty()) return fail("--srtp should be base64 of 30 bytes");
  if (!key.empty() && !srtp_sender::make(key)) return fail("this was built without libsrtp2");

  // The same losses in every run.
  std::mt19937 chance(1);
  return asked.whip.empty() ? play_to_folder(asked, tracks, sounds, key, chance)
                            : play_to_whip(asked, tracks, sounds, chance);
}

}  // namespace

int main(int argc, char** argv) {
  options asked;
  int status = 0;
  if (!read_options(argc, argv, asked, status)) return status;
  return play(asked);
}
