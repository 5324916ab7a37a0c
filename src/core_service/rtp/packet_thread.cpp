// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/packet_thread.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <system_error>
#include <utility>

#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace zelta::core_service::rtp {
namespace {

using media::media_time;

constexpr size_t kDatagrams = 32;
// No link that is worth recording carries longer ones.
constexpr size_t kLongest = 9216;
constexpr int kEvents = 64;
// An older stamp is of another clock. A process that was stopped may have older packets.
constexpr media_time kOldest = std::chrono::minutes(5);
constexpr media_time kClockSet = std::chrono::milliseconds(5);
// Of one socket in one turn, so that nobody starves the others.
constexpr int kCallsATurn = 4;
constexpr int kFullTurns = 64;
// Somebody may send faster than it is read.
constexpr int kCallsOfTheRest = 128;
constexpr int kRoomMs = 5;
// The sockets are looked at so often. The longer, the fewer calls and the less work; but a burst
// must find room in its socket meanwhile.
constexpr int kGatherMs = 40;
constexpr int kShortGatherMs = 10;
constexpr int kAmpleBytes = 4 << 20;

media_time time_of(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return std::chrono::seconds(now.tv_sec) + media_time(now.tv_nsec);
}

}  // namespace

// What one call of recvmmsg fills.
struct packet_thread::batch {
  batch() {
    for (size_t i = 0; i < kDatagrams; ++i) {
      spans[i] = {bytes[i].data(), bytes[i].size()};
      msghdr& head = heads[i].msg_hdr;
      head.msg_iov = &spans[i];
      head.msg_iovlen = 1;
      head.msg_name = &from[i];
      head.msg_control = control[i].data();
    }
  }

  // The kernel writes the lengths over.
  int receive(int fd) {
    for (size_t i = 0; i < kDatagrams; ++i) {
      heads[i].msg_hdr.msg_namelen = sizeof from[i];
      heads[i].msg_hdr.msg_controllen = control[i].size();
    }
    return recvmmsg(fd, heads.data(), kDatagrams, MSG_DONTWAIT, nullptr);
  }

  // The kernel's stamps are of the wall clock. `lead`: of the monotonic clock.
  media_time arrival(size_t i, media_time lead, media_time now) {
    msghdr& head = heads[i].msg_hdr;
    for (cmsghdr* one = CMSG_FIRSTHDR(&head); one != nullptr; one = CMSG_NXTHDR(&head, one)) {
      if (one->cmsg_level != SOL_SOCKET || one->cmsg_type != SO_TIMESTAMPNS) continue;
      timespec stamp{};
      std::copy_n(CMSG_DATA(one), sizeof stamp, reinterpret_cast<unsigned char*>(&stamp));
      const media_time at = std::chrono::seconds(stamp.tv_sec) + media_time(stamp.tv_nsec) + lead;
      // The wall clock may have been set in between.
      return at <= now && now - at < kOldest ? at : now;
    }
    return now;
  }

  std::array<std::array<uint8_t, kLongest>, kDatagrams> bytes;
  std::array<iovec, kDatagrams> spans{};
  std::array<sockaddr_storage, kDatagrams> from{};
  std::array<std::array<uint8_t, 128>, kDatagrams> control{};
  std::array<mmsghdr, kDatagrams> heads{};
};

packet_thread::packet_thread(std::function<bool()> is_full)
    : is_full_(std::move(is_full)),
      gather_ms_(kGatherMs),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      batch_(std::make_unique<batch>()) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = wake_.get();
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &event) != 0) return;
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error&) {
    // Then it doesn't run.
  }
}

packet_thread::~packet_thread() {
  if (!runs()) return;
  post([this] { over_ = true; });
  thread_.join();
}

void packet_thread::post(std::function<void()> work) {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    posted_.push_back(std::move(work));
    has_posted_ = true;
  }
  const uint64_t one = 1;
  // Full is as good as written.
  static_cast<void>(!write(wake_.get(), &one, sizeof one));
}

void packet_thread::call(const std::function<void()>& work) {
  std::mutex lock;
  std::condition_variable changed;
  bool done = false;
  post([&] {
    work();
    const std::lock_guard<std::mutex> guard(lock);
    done = true;
    changed.notify_one();
  });
  std::unique_lock<std::mutex> guard(lock);
  changed.wait(guard, [&done] { return done; });
}

void packet_thread::add(int fd, packet_receiver& to, bool answers) {
  receivers_[fd] = &to;
  int room = 0;
  socklen_t size = sizeof room;
  static_cast<void>(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, &size));
  if (answers || room < kAmpleBytes) gather_ms_ = kShortGatherMs;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
}

void packet_thread::remove(int fd) {
  receivers_.erase(fd);
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void packet_thread::wake_at(packet_receiver& who, media_time when) {
  const auto known = moment_of_.find(&who);
  if (known != moment_of_.end()) {
    if (known->second == when) return;
    moments_.erase({known->second, &who});
    moment_of_.erase(known);
  }
  if (when == media_time::zero()) return;
  moments_.emplace(when, &who);
  moment_of_.emplace(&who, when);
}

void packet_thread::run() {
  pthread_setname_np(pthread_self(), "packets");
  std::array<epoll_event, kEvents> events{};
  for (int full = 0; !over_;) {
    if (is_full_ && is_full_()) {
      wait_for_room();
      continue;
    }
    const int ready = epoll_wait(epoll_.get(), events.data(), kEvents, timeout_ms());
    bool more = ready == kEvents;
    turn_behind_ = {};
    for (int i = 0; i < ready; ++i) {
      const int fd = events[static_cast<size_t>(i)].data.fd;
      if (fd == wake_.get()) {
        run_posted();
      } else {
        more = receive(fd) || more;
        // Somebody waits for it.
        if (has_posted_) run_posted();
      }
    }
    // Nothing is given up for lost before all sockets have been read. If there is no end of it,
    // what may be in them still is as old as what came out of them.
    full = more ? full + 1 : 0;
    if (full % kFullTurns != 0) continue;
    run_woken(media::now() - (more ? turn_behind_ : media_time{}));
    if (ready > 0 && full == 0) gather();
  }
}

// What comes next comes together: a call to the kernel brings several packets, and a machine that
// records few users sleeps. The packets have their times from the kernel.
void packet_thread::gather() {
  pollfd posted{wake_.get(), POLLIN, 0};
  const int left = timeout_ms();
  ::poll(&posted, 1, left < 0 ? gather_ms_ : std::min(left, gather_ms_));
}

// Whoever makes room doesn't say so: it is a loop with other work.
void packet_thread::wait_for_room() {
  pollfd posted{wake_.get(), POLLIN, 0};
  if (::poll(&posted, 1, kRoomMs) > 0) run_posted();
}

bool packet_thread::read_rest(int fd, media_time until) {
  for (int call = 0; receive(fd); ++call) {
    if (call == kCallsOfTheRest || media::now() > until) return false;
  }
  return true;
}

media_time packet_thread::take_behind() {
  return media_time(behind_.exchange(0));
}

int packet_thread::timeout_ms() const {
  if (moments_.empty()) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(moments_.begin()->first - media::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 60'000));
}

// Whether there may be more in it.
bool packet_thread::receive(int fd) {
  for (int call = 0; call < kCallsATurn; ++call) {
    // The number may be somebody else's by now.
    if (receivers_.count(fd) == 0) return false;
    const int count = batch_->receive(fd);
    if (count < 0 && (errno == EBADF || errno == ENOTSOCK)) return remove(fd), false;
    // Refused feedback, among others, comes as an error of the next call, and says nothing of it.
    if (count < 0 && errno != EAGAIN && errno != EINTR) continue;
    if (count <= 0) return false;
    const media_time now = media::now();
    const media_time lead = now - time_of(CLOCK_REALTIME);
    // The wall clock has been set: what waited meanwhile has stamps of before.
    const bool was_set = std::chrono::abs(lead - std::exchange(lead_, lead)) > kClockSet;
    if (!was_set) {
      // The first of them has waited longest.
      const media_time waited = now - batch_->arrival(0, lead, now);
      turn_behind_ = std::max(turn_behind_, waited);
      behind_ = std::max<int64_t>(behind_, waited.count());
    }
    for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
      // Each time, because what came before may have ended its receiver.
      const auto to = receivers_.find(fd);
      if (to == receivers_.end()) return false;
      const mmsghdr& one = batch_->heads[i];
      if ((one.msg_hdr.msg_flags & MSG_TRUNC) != 0) continue;
      to->second->on_datagram(
          {batch_->bytes[i].data(), one.msg_len, was_set ? now : batch_->arrival(i, lead, now),
           reinterpret_cast<const sockaddr*>(&batch_->from[i]), one.msg_hdr.msg_namelen, fd});
    }
    if (static_cast<size_t>(count) < kDatagrams) return false;
  }
  return true;
}

void packet_thread::run_posted() {
  uint64_t ignored = 0;
  static_cast<void>(!read(wake_.get(), &ignored, sizeof ignored));
  std::vector<std::function<void()>> work;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    work.swap(posted_);
    has_posted_ = false;
  }
  // What a work holds is gone before the next is done: it may be a port.
  for (auto& one : work) std::exchange(one, nullptr)();
}

void packet_thread::run_woken(media_time now) {
  while (!moments_.empty() && moments_.begin()->first <= now) {
    packet_receiver* const who = moments_.begin()->second;
    wake_at(*who, media_time::zero());
    who->on_wake(now);
  }
}

}  // namespace zelta::core_service::rtp
