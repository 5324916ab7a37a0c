// SPDX-License-Identifier: Apache-2.0
// The least that receiving and keeping a channel's RTP can cost: what a recorder is measured
// against.
//
//     bare_receiver FOLDER OUT
//
// Answers every UID.sdp that is moved into FOLDER with ports of its own, takes what comes to them
// as it comes, and appends it to OUT/UID every 200 ms. Ends at SIGINT or SIGTERM and prints one
// JSON object. One thread.
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace {

using zelta::base::unique_fd;

constexpr int kReceiveBytes = 4 << 20;  // what the recorder asks for
constexpr size_t kBatch = 32;
constexpr size_t kPacketBytes = 2048;
constexpr size_t kBufferBytes = 64 << 10;  // two seconds of a user
constexpr long kWriteIntervalNs = 200'000'000;

struct user {
  unique_fd file;
  std::vector<uint8_t> buffer;
};

struct receiving_socket {
  unique_fd fd;
  user* to = nullptr;
  uint32_t drops = 0;
};

class receiver {
 public:
  receiver(std::string folder, std::string out)
      : folder_(std::move(folder)), out_(std::move(out)) {}

  bool run();

 private:
  static constexpr size_t kControlBytes = CMSG_SPACE(sizeof(uint32_t));

  bool open_events();
  bool watch(int fd, void* what) const;
  void take_users();
  void answer(const std::string& name);
  // The port of the first of two that follow each other, the first one even; 0: there are none.
  int bind_pair(user& to);
  unique_fd bind_at(uint16_t port) const;
  void receive(receiving_socket& from);
  void write_out(user& of);
  void print() const;

  const std::string folder_;
  const std::string out_;
  unique_fd epoll_{epoll_create1(EPOLL_CLOEXEC)};
  unique_fd changes_{inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
  unique_fd signals_;
  unique_fd timer_{timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)};
  std::vector<std::unique_ptr<user>> users_;
  std::vector<std::unique_ptr<receiving_socket>> sockets_;
  uint16_t next_port_ = 20000;
  uint64_t packets_ = 0;
  uint64_t failed_writes_ = 0;

  std::array<std::array<uint8_t, kPacketBytes>, kBatch> blocks_{};
  std::array<std::array<uint8_t, kControlBytes>, kBatch> controls_{};
  std::array<iovec, kBatch> parts_{};
  std::array<mmsghdr, kBatch> messages_{};
};

bool receiver::watch(int fd, void* what) const {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = what;
  return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

bool receiver::open_events() {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  signals_.reset(signalfd(-1, &ends, SFD_CLOEXEC));
  const itimerspec interval{{0, kWriteIntervalNs}, {0, kWriteIntervalNs}};
  for (size_t i = 0; i < kBatch; ++i) parts_[i] = {blocks_[i].data(), kPacketBytes};
  return timerfd_settime(timer_.get(), 0, &interval, nullptr) == 0 &&
         inotify_add_watch(changes_.get(), folder_.c_str(), IN_MOVED_TO) >= 0 &&
         watch(changes_.get(), &changes_) && watch(signals_.get(), &signals_) &&
         watch(timer_.get(), &timer_);
}

bool receiver::run() {
  if (!open_events()) return false;
  // Who runs this waits for it: what is moved into the folder from now on is seen.
  std::puts("{\"event\": \"ready\"}");
  std::fflush(stdout);
  std::array<epoll_event, 64> events{};
  for (;;) {
    const int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      void* const what = events[static_cast<size_t>(i)].data.ptr;
      if (what == &signals_) {
        for (const auto& one : users_) write_out(*one);
        print();
        return true;
      }
      if (what == &changes_) {
        take_users();
      } else if (what == &timer_) {
        uint64_t rounds = 0;
        if (read(timer_.get(), &rounds, sizeof rounds) < 0) continue;
        for (const auto& one : users_) write_out(*one);
      } else {
        receive(*static_cast<receiving_socket*>(what));
      }
    }
  }
}

void receiver::take_users() {
  alignas(inotify_event) std::array<char, 16384> events{};
  for (ssize_t got = 0; (got = read(changes_.get(), events.data(), events.size())) > 0;) {
    for (ssize_t at = 0; at < got;) {
      const auto* const event = reinterpret_cast<const inotify_event*>(events.data() + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      const std::string name = event->len > 0 ? event->name : "";
      if (std::filesystem::path(name).extension() == ".sdp") answer(name);
    }
  }
}

void receiver::answer(const std::string& name) {
  auto made = std::make_unique<user>();
  made->file.reset(open((out_ + "/" + std::filesystem::path(name).stem().string()).c_str(),
                        O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  made->buffer.reserve(kBufferBytes);
  std::ifstream description(folder_ + "/" + name);
  std::string text;
  for (std::string line; std::getline(description, line);) {
    const size_t open_port = line.rfind("m=", 0) == 0 ? line.find(" 9 ") : std::string::npos;
    if (open_port != std::string::npos) {
      line.replace(open_port + 1, 1, std::to_string(bind_pair(*made)));
    }
    text += line + "\n";
  }
  const std::string path = folder_ + "/" + name + ".answer";
  std::ofstream(path + ".part") << text;
  std::error_code failed;
  std::filesystem::rename(path + ".part", path, failed);
  users_.push_back(std::move(made));
}

int receiver::bind_pair(user& to) {
  while (next_port_ < 65534) {
    const uint16_t port = next_port_;
    next_port_ = static_cast<uint16_t>(next_port_ + 2);
    std::array<unique_fd, 2> pair{bind_at(port), bind_at(static_cast<uint16_t>(port + 1))};
    if (!pair[0].valid() || !pair[1].valid()) continue;
    for (unique_fd& fd : pair) {
      sockets_.push_back(std::make_unique<receiving_socket>());
      receiving_socket& one = *sockets_.back();
      one.fd = std::move(fd);
      one.to = &to;
      if (!watch(one.fd.get(), &one)) return 0;
    }
    return port;
  }
  return 0;
}

unique_fd receiver::bind_at(uint16_t port) const {
  unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  at.sin_port = htons(port);
  const int on = 1;
  // The system may give less, which its drops will tell.
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBytes, sizeof kReceiveBytes);
  if (setsockopt(fd.get(), SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at) != 0) {
    return {};
  }
  return fd;
}

void receiver::receive(receiving_socket& from) {
  for (size_t i = 0; i < kBatch; ++i) {
    msghdr& header = messages_[i].msg_hdr;
    header.msg_iov = &parts_[i];
    header.msg_iovlen = 1;
    header.msg_control = controls_[i].data();
    header.msg_controllen = kControlBytes;
  }
  const int got = recvmmsg(from.fd.get(), messages_.data(), kBatch, MSG_DONTWAIT, nullptr);
  if (got <= 0) return;
  packets_ += static_cast<uint64_t>(got);
  for (size_t i = 0; i < static_cast<size_t>(got); ++i) {
    const size_t size = messages_[i].msg_len;
    if (from.to->buffer.size() + size > kBufferBytes) write_out(*from.to);
    from.to->buffer.insert(from.to->buffer.end(), blocks_[i].data(), blocks_[i].data() + size);
  }
  // A count of the socket's whole life, so the last one says all.
  msghdr& last = messages_[static_cast<size_t>(got) - 1].msg_hdr;
  const cmsghdr* const control = CMSG_FIRSTHDR(&last);
  if (control != nullptr && control->cmsg_type == SO_RXQ_OVFL) {
    std::memcpy(&from.drops, CMSG_DATA(control), sizeof from.drops);
  }
}

void receiver::write_out(user& of) {
  if (of.buffer.empty()) return;
  const ssize_t written = write(of.file.get(), of.buffer.data(), of.buffer.size());
  if (written != static_cast<ssize_t>(of.buffer.size())) ++failed_writes_;
  of.buffer.clear();
}

void receiver::print() const {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  uint64_t drops = 0;
  for (const auto& one : sockets_) drops += one->drops;
  std::printf(
      "{\"packets\": %llu, \"cpu_seconds\": %.3f, \"max_rss_kb\": %ld, \"drops\": %llu, "
      "\"failed_writes\": %llu}\n",
      static_cast<unsigned long long>(packets_), seconds(used.ru_utime) + seconds(used.ru_stime),
      used.ru_maxrss, static_cast<unsigned long long>(drops),
      static_cast<unsigned long long>(failed_writes_));
}

// Four sockets and a file a user.
void raise_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: bare_receiver FOLDER OUT\n");
    return 2;
  }
  raise_limit();
  const auto run = std::make_unique<receiver>(argv[1], argv[2]);
  if (run->run()) return 0;
  std::perror("bare_receiver");
  return 1;
}
