// SPDX-License-Identifier: Apache-2.0
#include "core_service/engine/engine_link.h"

#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace zelta::core_service {
namespace {

using namespace protocol;

// Raw pictures: five of 1080p, of which the oldest goes first, because more only makes what arrives
// older. Coded pictures end before sound, which is small and missed the most, does.
constexpr size_t kPictureLimitBytes = 16 << 20;
constexpr size_t kCodedLimitBytes = 48 << 20;
constexpr size_t kQueueLimitBytes = 64 << 20;
constexpr size_t kReadBoundBytes = 1 << 20;

void make_ours(const base::unique_fd& fd) {
  // On failure the descriptor keeps blocking, which a pipe that nobody fills forgives.
  const int flags = fcntl(fd.get(), F_GETFL);
  if (flags >= 0) fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
  fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
}

void run(engine_listener& to, const leave_packet&) {
  to.on_leave_command();
}
void run(engine_listener& to, const set_log_level_packet& p) {
  to.on_log_level(p.level);
}
void run(engine_listener& to, const log_enable_module_packet& p) {
  to.on_log_modules(p.module, p.enable != 0);
}
// What the engine confirms needs no answer.
void run(engine_listener&, const user_join_confirm_packet&) {}
void run(engine_listener&, const user_drop_confirm_packet&) {}
void run(engine_listener&, const media_frame_confirm_packet&) {}
void run(engine_listener&, const audio_frame_confirm_packet&) {}
void run(engine_listener&, const video_frame_confirm_packet&) {}
void run(engine_listener& to, const parameters_packet& p) {
  to.on_parameters(p.parameters);
}
void run(engine_listener& to, const video_mixing_layout_packet& p) {
  to.on_layout(p.data);
}
void run(engine_listener& to, const start_service_packet&) {
  to.on_start_service();
}
void run(engine_listener& to, const stop_service_packet&) {
  to.on_stop_service();
}
void run(engine_listener& to, const set_user_background_packet& p) {
  to.on_user_background(p.uid, p.img_path);
}

template <class Visit, class... Packets>
bool visit_uri(uint16_t uri, packet_list<Packets...>, Visit visit) {
  return ((uri == Packets::kUri && (visit(Packets()), true)) || ...);
}

}  // namespace

engine_link::engine_link(int read_fd, int write_fd, base::event_loop& loop, base::logger log,
                         link::packet_writer::large payloads)
    : loop_(loop),
      log_(std::move(log)),
      read_fd_(read_fd),
      write_fd_(write_fd),
      gather_timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  if (!read_fd_.valid() || !write_fd_.valid()) return;
  make_ours(read_fd_);
  make_ours(write_fd_);
  reader_ = std::make_unique<link::packet_reader>(read_fd, static_cast<receiver&>(*this),
                                                  link::packet_reader::kCommandBytes);
  writer_ = std::make_unique<link::packet_writer>(write_fd, kQueueLimitBytes, payloads);
}

void engine_link::listen(engine_listener& listener) {
  listener_ = &listener;
  if (!connected()) return;
  const auto gone = [this](int) { on_gone(); };
  read_watch_ = {loop_, read_fd_.get(), {[this] { on_readable(); }, nullptr, gone}};
  write_watch_ = {loop_, write_fd_.get(), {nullptr, [this] { on_writable(); }, gone}};
  if (gather_timer_.valid())
    gather_watch_ = {loop_, gather_timer_.get(), {[this] { on_gathered(); }}};
  // What was sent before.
  loop_.want_write(write_fd_.get(), true);
}

engine_link::~engine_link() {
  if (writer_) writer_->close();
}

void engine_link::send(const base::packet& p) {
  if (connected()) sent(writer_->send(p, link::packet_writer::room::kAlways));
}

bool engine_link::send_picture(const base::packet& p, link::payload data) {
  if (!connected()) return false;
  const size_t waiting = writer_->replaceable_bytes() + data.bytes();
  if (waiting > kPictureLimitBytes) {
    dropped_.pictures += writer_->drop_replaceable(waiting - kPictureLimitBytes);
  }
  if (sent(writer_->send_frame(p, std::move(data), true))) return true;
  ++dropped_.pictures;
  return false;
}

bool engine_link::send_coded(const base::packet& p, link::payload data, uint32_t uid, bool key) {
  if (!connected()) return false;
  const std::lock_guard<std::mutex> guard(broken_lock_);
  // What comes behind a missing picture can't be decoded until the next key frame.
  const bool useless = !key && broken_.count(uid) != 0;
  if (!useless && writer_->queued_bytes() < kCodedLimitBytes &&
      sent(writer_->send_frame(p, std::move(data), false))) {
    broken_.erase(uid);
    return true;
  }
  broken_.insert(uid);
  ++dropped_.coded;
  return false;
}

bool engine_link::send_sound(const base::packet& p, link::payload data) {
  if (!connected()) return false;
  if (sent(writer_->send_frame(p, std::move(data), false))) return true;
  ++dropped_.sound;
  return false;
}

bool engine_link::sent(link::packet_writer::result how) {
  switch (how) {
    case link::packet_writer::result::kDone:
      return true;
    case link::packet_writer::result::kQueued:
      loop_.want_write(write_fd_.get(), true);
      return true;
    case link::packet_writer::result::kGathering:
      flush_soon();
      return true;
    case link::packet_writer::result::kRefused:
      return false;
    case link::packet_writer::result::kBroken:
      // Nobody was too slow for it: the engine has hung up, as it does at the end. The loop hears
      // of that as well, and ends the session there.
      return true;
  }
  return false;
}

// The loop's own timers are too coarse, and waking it at once would leave nothing to gather.
void engine_link::flush_soon() {
  const auto wait = std::chrono::nanoseconds(link::packet_writer::kGatherTime);
  const itimerspec when{{}, {0, static_cast<long>(wait.count())}};
  if (timerfd_settime(gather_timer_.get(), 0, &when, nullptr) == 0) return;
  loop_.want_write(write_fd_.get(), true);
}

void engine_link::on_gathered() {
  uint64_t expired = 0;
  // Nothing to read means that it was armed again meanwhile.
  [[maybe_unused]] const ssize_t ignored = ::read(gather_timer_.get(), &expired, sizeof expired);
  on_writable();
}

void engine_link::on_writable() {
  // In this order: what another thread queues after the flush asks for the next one itself.
  loop_.want_write(write_fd_.get(), false);
  if (writer_->flush() == link::packet_writer::result::kQueued) {
    loop_.want_write(write_fd_.get(), true);
  }
}

void engine_link::on_readable() {
  using result = link::packet_reader::result;
  const result got = reader_->read_some(kReadBoundBytes);
  if (got == result::kBroken) {
    log_.error("the engine's packets are out of step: bad length");
  }
  if (got == result::kEnd || got == result::kBroken) on_gone();
}

void engine_link::on_gone() {
  if (gone_.exchange(true)) return;
  writer_->close();
  gather_watch_.stop();
  read_watch_.stop();
  write_watch_.stop();
  listener_->on_engine_gone();
}

void engine_link::on_packet(base::unpacker& u, uint16_t uri) {
  const bool known = visit_uri(uri, control_packets{}, [this, &u, uri](auto p) {
    if (decode(u, p)) return run(*listener_, p);
    log_.warn("skipped a command of the engine that makes no sense, uri " + std::to_string(uri));
  });
  if (!known) {
    log_.warn("skipped an unknown command of the engine, uri " + std::to_string(uri));
  }
}

void engine_link::flush(std::chrono::milliseconds limit) {
  if (!connected()) return;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (writer_->flush() == link::packet_writer::result::kQueued) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd writable{write_fd_.get(), POLLOUT, 0};
    if (left.count() <= 0 || ::poll(&writable, 1, static_cast<int>(left.count())) == 0) {
      // The writer takes the rest to be looked after.
      loop_.want_write(write_fd_.get(), true);
      return;
    }
  }
}

}  // namespace zelta::core_service
