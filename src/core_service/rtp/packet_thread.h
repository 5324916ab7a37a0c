// SPDX-License-Identifier: Apache-2.0
// The one thread that receives the packets of all users.
//
//     sockets ─▶ epoll ─▶ recvmmsg, up to 32 datagrams a call ─▶ packet_receiver
//
// Packets wait in their sockets for others to come with: 40 ms, or 10 ms where the system gives the
// sockets little room (net.core.rmem_max), or senders are answered.
//
// Nothing that a receiver does may wait for anything: what stands still here stands still for all,
// and what doesn't fit into the sockets' buffers meanwhile is lost.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <sys/socket.h>

#include "base/unique_fd.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::rtp {

struct datagram {
  uint8_t* bytes;  // the receiver may change them; valid until it returns
  size_t size;
  media::media_time arrival;  // when the kernel had it
  const sockaddr* from;
  socklen_t from_size;
  int fd;
};

// All of it on the packet thread.
class packet_receiver {
 public:
  virtual ~packet_receiver() = default;
  virtual void on_datagram(const datagram& one) = 0;
  // At a moment that was asked for by wake_at(), or later.
  virtual void on_wake(media::media_time now) = 0;
};

class packet_thread {
 public:
  // `is_full`, if given, is asked before each turn: while it says so, nothing is read, so that what
  // can't be taken in hand waits in the sockets, and what is lost is lost there and counted.
  explicit packet_thread(std::function<bool()> is_full = nullptr);
  packet_thread(const packet_thread&) = delete;
  packet_thread& operator=(const packet_thread&) = delete;
  ~packet_thread();

  // Whether it runs: descriptors and threads may have run out. Nothing but the end may be asked of
  // one that doesn't.
  bool runs() const { return thread_.joinable(); }

  // Any thread: `work` is done on the packet thread, in the order of posting.
  void post(std::function<void()> work);
  // Any other thread: the same, and waits until it is done.
  void call(const std::function<void()>& work);
  // Any thread: how long a packet waited before it was read, the longest since the last call.
  media::media_time take_behind();

  // The rest is for the packet thread. The descriptor stays the caller's, who ends with remove().
  // `answers`: whoever sends there measures how long an answer takes.
  void add(int fd, packet_receiver& to, bool answers = false);
  void remove(int fd);
  // What waits in the socket goes to its receiver, up to a moment; false: there may be more. Not
  // from inside a receiver.
  bool read_rest(int fd, media::media_time until);
  // In place of the receiver's earlier moment; each is for once. Zero: not at all.
  void wake_at(packet_receiver& who, media::media_time when);

 private:
  struct batch;

  void run();
  bool receive(int fd);
  void wait_for_room();
  void gather();
  void run_posted();
  void run_woken(media::media_time now);
  int timeout_ms() const;

  const std::function<bool()> is_full_;
  std::atomic<int64_t> behind_{0};  // ns
  int gather_ms_;
  base::unique_fd epoll_;
  base::unique_fd wake_;
  std::mutex lock_;
  std::vector<std::function<void()>> posted_;
  std::atomic<bool> has_posted_{false};
  bool over_ = false;

  std::unique_ptr<batch> batch_;
  media::media_time lead_{};         // of the monotonic clock to the wall's
  media::media_time turn_behind_{};  // the longest that a packet of this turn had waited
  std::unordered_map<int, packet_receiver*> receivers_;
  std::set<std::pair<media::media_time, packet_receiver*>> moments_;
  std::unordered_map<packet_receiver*, media::media_time> moment_of_;
  std::thread thread_;
};

}  // namespace zelta::core_service::rtp
