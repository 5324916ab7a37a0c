// SPDX-License-Identifier: Apache-2.0
#include "baselines.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <system_error>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef ZELTA_HAVE_ZMQ
#include <zmq.h>
#endif

#include "base/unique_fd.h"

namespace zelta::bench {
namespace {

using base::unique_fd;

// As many as a decoder's pool has; more than a second-level cache holds of pictures.
constexpr size_t kSources = 8;
constexpr size_t kHugePageBytes = 2 << 20;

[[noreturn]] void fail(const char* call) {
  throw std::system_error(errno, std::generic_category(), call);
}

// Memory whose pages are there already.
class region {
 public:
  region(size_t bytes, bool huge) : bytes_((bytes + kHugePageBytes - 1) & ~(kHugePageBytes - 1)) {
    void* const at =
        ::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (at == MAP_FAILED) fail("mmap");
    start_ = static_cast<char*>(at);
    ::madvise(start_, bytes_, huge ? MADV_HUGEPAGE : MADV_NOHUGEPAGE);
    std::memset(start_, 1, bytes_);
  }
  ~region() { ::munmap(start_, bytes_); }
  region(const region&) = delete;
  region& operator=(const region&) = delete;
  char* at(size_t position) const { return start_ + position; }

 private:
  size_t bytes_;
  char* start_;
};

struct ends {
  unique_fd read;
  unique_fd write;
};

ends open_wire(const wire& by) {
  std::array<int, 2> fds{};
  if (by.socket) {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()) != 0) fail("socketpair");
    for (const int fd : fds) {
      ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &by.capacity_bytes, sizeof by.capacity_bytes);
    }
  } else {
    if (::pipe2(fds.data(), O_CLOEXEC) != 0) fail("pipe2");
    ::fcntl(fds[1], F_SETPIPE_SZ, by.capacity_bytes);
  }
  return {unique_fd(fds[0]), unique_fd(fds[1])};
}

// A forked writer that lives until the reader has taken the clocks.
class writer_process {
 public:
  // `work` runs in the child.
  explicit writer_process(const std::function<void()>& work) {
    std::array<int, 2> fds{};
    if (::pipe2(fds.data(), O_CLOEXEC) != 0) fail("pipe2");
    unique_fd wait_end(fds[0]);
    done_ = unique_fd(fds[1]);
    pid_ = ::fork();
    if (pid_ < 0) fail("fork");
    if (pid_ > 0) return;
    done_.reset();
    work();
    char byte = 0;
    [[maybe_unused]] const ssize_t ignored = ::read(wait_end.get(), &byte, 1);
    std::_Exit(0);
  }
  ~writer_process() {
    done_.reset();
    ::waitpid(pid_, nullptr, 0);
  }
  writer_process(const writer_process&) = delete;
  writer_process& operator=(const writer_process&) = delete;
  pid_t pid() const { return pid_; }

 private:
  unique_fd done_;
  pid_t pid_ = -1;
};

void put_all(const wire& by, int fd, iovec* parts, size_t count) {
  while (count > 0) {
    const ssize_t put = by.splice    ? ::vmsplice(fd, parts, count, by.splice_flags)
                        : count == 1 ? ::write(fd, parts->iov_base, parts->iov_len)
                                     : ::writev(fd, parts, static_cast<int>(count));
    if (put < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      std::_Exit(1);
    }
    auto left = static_cast<size_t>(put);
    while (count > 0 && left >= parts->iov_len) {
      left -= parts->iov_len;
      ++parts;
      --count;
    }
    if (count > 0) {
      parts->iov_base = static_cast<char*>(parts->iov_base) + left;
      parts->iov_len -= left;
    }
  }
}

void put_frames(const wire& by, int fd, const region& sources, size_t frame_bytes, size_t frames) {
  std::vector<iovec> parts(by.frames_a_call);
  size_t next = 0;
  for (size_t sent = 0; sent < frames;) {
    const size_t count = std::min(by.frames_a_call, frames - sent);
    for (size_t i = 0; i < count; ++i) {
      parts[i] = {sources.at(next * frame_bytes), frame_bytes};
      next = (next + 1) % kSources;
    }
    put_all(by, fd, parts.data(), count);
    sent += count;
  }
}

// False at the end of the stream.
bool get_frame(int fd, char* to, size_t bytes) {
  for (size_t done = 0; done < bytes;) {
    const ssize_t got = ::read(fd, to + done, bytes - done);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

}  // namespace

transfer run_wire(const wire& by, size_t frame_bytes, size_t frames) {
  ends fds = open_wire(by);
  const region sources(frame_bytes * kSources, by.huge_pages);
  const region target(frame_bytes, by.huge_pages);
  const writer_process writer([&] {
    fds.read.reset();
    put_frames(by, fds.write.get(), sources, frame_bytes, frames);
  });
  fds.write.reset();
  if (by.spin) ::fcntl(fds.read.get(), F_SETFL, O_NONBLOCK);
  stopwatch watch(frame_bytes, frames);
  while (get_frame(fds.read.get(), target.at(0), frame_bytes) && !watch.arrived(writer.pid())) {
  }
  return watch.measured();
}

transfer run_memcpy(size_t frame_bytes, size_t frames) {
  const region sources(frame_bytes * kSources, false);
  const region target(frame_bytes, false);
  stopwatch watch(frame_bytes, frames);
  for (size_t i = 0;; ++i) {
    std::memcpy(target.at(0), sources.at(i % kSources * frame_bytes), frame_bytes);
    // The copy counts as used.
    asm volatile("" : : "r"(target.at(0)) : "memory");
    if (watch.arrived(::getpid())) return watch.measured();
  }
}

#ifdef ZELTA_HAVE_ZMQ
transfer run_zeromq(size_t frame_bytes, size_t frames) {
  const std::string address = "ipc:///tmp/zelta-bench-" + std::to_string(::getpid());
  constexpr int kFramesWaiting = 8;
  const region sources(frame_bytes * kSources, false);
  const writer_process writer([&] {
    void* const context = zmq_ctx_new();
    void* const socket = zmq_socket(context, ZMQ_PUSH);
    zmq_setsockopt(socket, ZMQ_SNDHWM, &kFramesWaiting, sizeof kFramesWaiting);
    if (zmq_connect(socket, address.c_str()) != 0) std::_Exit(1);
    for (size_t i = 0; i < frames; ++i) {
      zmq_msg_t message;
      zmq_msg_init_data(
          &message, sources.at(i % kSources * frame_bytes), frame_bytes, [](void*, void*) {},
          nullptr);
      if (zmq_msg_send(&message, socket, 0) < 0) std::_Exit(1);
    }
  });
  void* const context = zmq_ctx_new();
  void* const socket = zmq_socket(context, ZMQ_PULL);
  zmq_setsockopt(socket, ZMQ_RCVHWM, &kFramesWaiting, sizeof kFramesWaiting);
  if (zmq_bind(socket, address.c_str()) != 0) fail("zmq_bind");
  stopwatch watch(frame_bytes, frames);
  bool more = true;
  while (more) {
    zmq_msg_t message;
    zmq_msg_init(&message);
    more = zmq_msg_recv(&message, socket, 0) >= 0 && !watch.arrived(writer.pid());
    zmq_msg_close(&message);
  }
  zmq_close(socket);
  zmq_ctx_term(context);
  return watch.measured();
}
#else
transfer run_zeromq(size_t, size_t) {
  return {};
}
#endif

latencies run_paced_pipe(const paced_load& load) {
  struct head {
    int64_t sent_ns;
    uint64_t bytes;
  };
  const wire plain{"pipe"};
  ends fds = open_wire(plain);
  const region sources(load.picture_bytes * kSources, false);
  const region target(load.picture_bytes, false);
  const writer_process writer([&] {
    fds.read.reset();
    run_paced(load, [&](bool picture, int user, int64_t due_ns) {
      head h{due_ns, picture ? load.picture_bytes : load.sound_bytes};
      char* const from = sources.at(static_cast<size_t>(user) % kSources * load.picture_bytes);
      std::array<iovec, 2> parts{{{&h, sizeof h}, {from, h.bytes}}};
      put_all(plain, fds.write.get(), parts.data(), parts.size());
    });
    fds.write.reset();
  });
  fds.write.reset();
  latencies found;
  head h{};
  while (get_frame(fds.read.get(), reinterpret_cast<char*>(&h), sizeof h) &&
         get_frame(fds.read.get(), target.at(0), h.bytes)) {
    (h.bytes == load.picture_bytes ? found.pictures : found.sound).push_back(now_ns() - h.sent_ns);
  }
  return found;
}

}  // namespace zelta::bench
