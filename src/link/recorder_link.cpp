// SPDX-License-Identifier: Apache-2.0
#include "link/recorder_link.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "base/log.h"
#include "link/service_path.h"
#include "protocol/ipc_protocol.h"

namespace zelta::link {

using namespace base;
namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

constexpr size_t kQueueLimitBytes = 16 << 20;
constexpr int kPipeBytes = 1 << 20;
// Read in one go before timers and other descriptors get their turn: two 1080p pictures.
constexpr size_t kReadBoundBytes = 8 << 20;
// A process closes its pipes a moment before it can be waited for.
constexpr milliseconds kExitLimit = 100ms;
constexpr milliseconds kFlushLimit = 1s;
constexpr milliseconds kFilesLimit = 10s;
constexpr milliseconds kTermLimit = 2s;

struct pipe_ends {
  unique_fd read;
  unique_fd write;
};

// Both ends close-on-exec and above the descriptors that the child is given, so that moving them
// there can't close one of them.
bool make_pipe(pipe_ends& ends, bool large) {
  std::array<int, 2> raw{};
  if (pipe2(raw.data(), O_CLOEXEC) != 0) return false;
  const unique_fd low_read(raw[0]);
  const unique_fd low_write(raw[1]);
  ends.read.reset(fcntl(low_read.get(), F_DUPFD_CLOEXEC, kChildWriteFd + 1));
  ends.write.reset(fcntl(low_write.get(), F_DUPFD_CLOEXEC, kChildWriteFd + 1));
  if (!ends.read.valid() || !ends.write.valid()) return false;
  // A user over the system's allowance keeps the usual capacity, which is slower and nothing worse.
  if (large) fcntl(ends.write.get(), F_SETPIPE_SZ, kPipeBytes);
  return true;
}

bool set_non_blocking(const unique_fd& fd) {
  const int flags = fcntl(fd.get(), F_GETFL);
  return flags >= 0 && fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) == 0;
}

std::vector<std::string> recorder_arguments(const std::vector<const char*>& argv) {
  std::vector<std::string> arguments;
  // The first null pointer is not always the end: a vector of two joins has one in the middle.
  for (const char* entry : argv) {
    if (entry != nullptr) arguments.emplace_back(entry);
  }
  arguments.insert(arguments.end(), {"--read", std::to_string(kChildReadFd), "--write",
                                     std::to_string(kChildWriteFd)});
  return arguments;
}

// Replaces the program by the path it was found at; false, with a log line, when there is none.
bool resolve_program(std::string& program, const logger& log) {
  const std::vector<std::string> candidates = service_candidates(program);
  const std::string found = find_service(candidates);
  if (!found.empty()) return program = found, true;
  std::string tried;
  for (const std::string& candidate : candidates) tried += " " + candidate;
  log.error("can't start " + program + ": no executable file at any of:" + tried);
  return false;
}

}  // namespace

std::unique_ptr<recorder_link> recorder_link::start(const std::vector<const char*>& argv,
                                                    settings to) {
  std::vector<std::string> arguments = recorder_arguments(argv);
  if (!resolve_program(arguments[0], to.log)) return nullptr;
  pipe_ends commands;
  pipe_ends reports;
  if (!make_pipe(commands, to.large_pipes) || !make_pipe(reports, to.large_pipes) ||
      !set_non_blocking(commands.write) || !set_non_blocking(reports.read)) {
    to.log.error(std::string("can't make the pipes to the recorder: ") + std::strerror(errno));
    return nullptr;
  }
  std::string error;
  auto process = recorder_process::start(arguments, to.environment, commands.read.get(),
                                         reports.write.get(), error);
  if (!process) {
    to.log.error("can't start the recorder: " + error);
    return nullptr;
  }
  to.log.notice("recorder " + arguments[0] + " started, pid " + std::to_string(process->pid()));
  // The child's ends are closed here, or its death would never show as a hang-up.
  return std::make_unique<recorder_link>(made_by_start{}, std::move(to), std::move(reports.read),
                                         std::move(commands.write), std::move(*process));
}

recorder_link::recorder_link(made_by_start, settings to, unique_fd read_end, unique_fd write_end,
                             recorder_process process)
    : to_(std::move(to)),
      read_end_(std::move(read_end)),
      write_end_(std::move(write_end)),
      process_(std::move(process)),
      write_fd_(write_end_.get()),
      reader_(read_end_.get(), *this),
      writer_(write_fd_, kQueueLimitBytes, packet_writer::large::kWrite) {
  read_watch_ = {*to_.loop,
                 read_end_.get(),
                 {[this] { on_readable(); }, nullptr, [this](int events) { on_break(events); }}};
  write_watch_ = {*to_.loop,
                  write_end_.get(),
                  {nullptr, [this] { on_writable(); }, [this](int events) { on_unread(events); }}};
  // A child of the recorder's may hold its pipes open when it is gone.
  exit_watch_ = {*to_.loop, process_.end_fd(), {[this] { on_exit(); }}};
}

recorder_link::~recorder_link() {
  if (ended_) return;
  close_pipes();
  end_process(0ms);
}

void recorder_link::send(const packet& p) {
  const bool always = p.uri == protocol::leave_packet::kUri;
  switch (writer_.send(p, always ? packet_writer::room::kAlways : packet_writer::room::kLimited)) {
    case packet_writer::result::kDone:
      break;
    case packet_writer::result::kQueued:
    case packet_writer::result::kGathering:
      to_.loop->want_write(write_fd_, true);
      break;
    case packet_writer::result::kRefused:
      if (!refusing_) {
        refusing_ = true;
        to_.log.error("the recorder doesn't read and " + std::to_string(writer_.queued_bytes()) +
                      " bytes wait for it: refusing packets, this one with uri " +
                      std::to_string(p.uri) + " first");
      }
      break;
    case packet_writer::result::kBroken:
      // The loop sees the break as well and reports it there, once.
      break;
  }
}

void recorder_link::on_packet(unpacker& u, uint16_t uri) {
  if (to_.listener != nullptr) to_.listener->on_receive_packet(u, uri);
}

void recorder_link::on_readable() {
  switch (reader_.read_some(kReadBoundBytes)) {
    case packet_reader::result::kMore:
    case packet_reader::result::kEmpty:
      break;
    case packet_reader::result::kEnd:
      on_break(POLLHUP);
      break;
    case packet_reader::result::kBroken:
      to_.log.error("the recorder's packets are out of step: bad length, or no memory for it");
      on_break(POLLERR);
      break;
  }
}

void recorder_link::on_writable() {
  // In this order: what another thread queues after the flush asks for the next one itself.
  to_.loop->want_write(write_fd_, false);
  if (writer_.flush() == packet_writer::result::kQueued) {
    to_.loop->want_write(write_fd_, true);
  } else {
    refusing_ = false;
  }
}

// Nobody reads our packets any more. A process that ends closes its descriptors one after the
// other, so this is often the first sign of an end; what the application is told must not depend on
// that race. One that has stopped reading and lives is an error.
void recorder_link::on_unread(int events) {
  on_break(process_.wait(kExitLimit) ? POLLHUP : events);
}

// What it wrote last decides what kind of end it was.
void recorder_link::on_exit() {
  on_break(drain() == packet_reader::result::kBroken ? POLLERR : POLLHUP);
}

// The listener may replace this link from inside on_error, so nothing is touched after it.
void recorder_link::on_break(int events) {
  drain();
  close_pipes();
  end_process(kExitLimit);
  router_listener* const listener = to_.listener;
  if (listener != nullptr) listener->on_error(events);
}

// What a dying recorder wrote counts. A pipe holds 1 MiB at most, so this ends even if the recorder
// lives on and goes on writing.
packet_reader::result recorder_link::drain() {
  return reader_.read_some(2 * static_cast<size_t>(kPipeBytes));
}

void recorder_link::finish() {
  if (ended_) return;
  flush();
  close_pipes();
  end_process(kFilesLimit);
}

void recorder_link::flush() {
  if (ended_) return;
  const auto deadline = std::chrono::steady_clock::now() + kFlushLimit;
  std::vector<char> discarded(64 << 10);
  while (writer_.flush() == packet_writer::result::kQueued) {
    const auto left =
        std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
    std::array<pollfd, 2> fds{{{write_end_.get(), POLLOUT, 0}, {read_end_.get(), POLLIN, 0}}};
    if (left <= 0ms || ::poll(fds.data(), fds.size(), static_cast<int>(left.count())) == 0) break;
    if ((fds[0].revents & (POLLERR | POLLNVAL)) != 0) return;
    if (fds[1].revents == 0) continue;
    if (::read(read_end_.get(), discarded.data(), discarded.size()) == 0) return;
  }
  const size_t lost = writer_.queued_bytes();
  if (lost > 0) {
    to_.log.error(std::to_string(lost) +
                  " bytes for the recorder could not be written: it doesn't read");
  }
}

void recorder_link::close_pipes() {
  ended_ = true;
  read_watch_.stop();
  write_watch_.stop();
  exit_watch_.stop();
  // Before the descriptor's number can be anybody else's: other threads may be sending.
  writer_.close();
  read_end_.reset();
  write_end_.reset();
}

// After a leave nothing but the log can say that files may lack their end.
void recorder_link::end_process(milliseconds patience) {
  const std::string needed = process_.end(patience, kTermLimit);
  const log_levels level = process_.was_killed() ? ERROR_LOG
                           : needed.empty()      ? NOTICE_LOG
                                                 : WARN_LOG;
  to_.log(level, "recorder pid " + std::to_string(process_.pid()) + " ended: " +
                     process_.how_ended() + (needed.empty() ? "" : ", after ") + needed);
}

}  // namespace zelta::link
